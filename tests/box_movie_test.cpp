// Movie, track and media information boxes: byte layouts written against hand-laid bytes, reading
// back, duration patching in a written file, fillers, and damaged input.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "stream/base/Helpers.h"
#include "stream/base/io/File.h"
#include "stream/plugin/mp4/common/Box.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"
#include "tests/io_test_util.h"

using namespace boxtest;
using kiv::base::IOBuffer;
using namespace kiv::plugin::mov;

namespace {

Bytes Written(IBox& box) {
  IOBuffer io;
  box.Fill(io, true);
  return io.Bytes();
}

Bytes Be16(uint16_t v) { return Bytes{static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)}; }
Bytes B32(uint32_t v) {
  Bytes b;
  Be32(b, v);
  return b;
}
Bytes B64(uint64_t v) {
  Bytes b;
  Be64(b, v);
  return b;
}
Bytes Str(const char* s) { return Bytes(s, s + std::char_traits<char>::length(s)); }
Bytes Zero(size_t n) { return Bytes(n, 0); }
Bytes VerFlags(uint8_t v, uint32_t flags) {
  return Bytes{v, static_cast<unsigned char>(flags >> 16), static_cast<unsigned char>(flags >> 8),
               static_cast<unsigned char>(flags)};
}
Bytes IdentityMatrix() {
  return Cat({B32(0x10000), B32(0), B32(0), B32(0), B32(0x10000), B32(0), B32(0), B32(0), B32(0x40000000)});
}

// Reads a whole byte image as a file and keeps the tree.
struct Parsed {
  explicit Parsed(const Bytes& bytes) {
    Load(io, bytes);
    ok = root.Parse(io, ap, true);
  }
  template <class T>
  T* At(size_t i) const {
    IBox* b = root.Child();
    for (size_t k = 0; b && k < i; ++k) b = b->Next();
    return dynamic_cast<T*>(b);
  }
  size_t Count() const {
    size_t n = 0;
    for (IBox* b = root.Child(); b; b = b->Next()) ++n;
    return n;
  }
  IOBuffer io;
  AttrSet ap;
  croot root;
  bool ok = false;
};

uint32_t BeAt(const Bytes& b, size_t at) { return kiv::Read32BE(b.data() + at); }
uint64_t Be64At(const Bytes& b, size_t at) { return kiv::Read64BE(b.data() + at); }

}  // namespace

// ---------------------------------------------------------------- ftyp

TEST(MovieBoxFtyp, DefaultIsQuickTimeWithAZeroSecondBrand) {
  cftyp box;
  EXPECT_EQ(Written(box), Box("ftyp", Cat({Str("qt  "), B32(0), Str("qt  "), B32(0)})));
  EXPECT_EQ(box.RealSize(), 24u);
  EXPECT_EQ(box.StatisticsSize(), 24u);
}

TEST(MovieBoxFtyp, ProfileListIsWrittenFromItsPointer) {
  unsigned list[3] = {FCC("mp42"), FCC("isom"), FCC("ifrm")};
  cftyp box;
  box._major_brand = FCC("mp42");
  box._minor_version = 1;
  box._compatible_brands = list;
  box._compatible_brands_cnt = 3;
  EXPECT_EQ(Written(box), Box("ftyp", Cat({Str("mp42"), B32(1), Str("mp42"), Str("isom"), Str("ifrm")})));
}

TEST(MovieBoxFtyp, ReadKeepsAtMostFourBrandsAndGoesOnBehindTheBox) {
  LogCapture log;
  Bytes brands;
  for (const char* b : {"isom", "iso2", "avc1", "mp41", "mp42", "iso4", "hvc1"}) Append(brands, Str(b));
  Parsed p(Cat({Box("ftyp", Cat({Str("isom"), B32(0x200), brands})), Box("free")}));
  ASSERT_TRUE(p.ok);
  ASSERT_EQ(p.Count(), 2u);
  auto* f = p.At<cftyp>(0);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->_major_brand, FCC("isom"));
  EXPECT_EQ(f->_minor_version, 0x200u);
  EXPECT_EQ(f->_compatible_brands_cnt, 4u);
  EXPECT_EQ(f->_compatible_brands, f->_brands);
  EXPECT_EQ(f->_brands[0], FCC("isom"));
  EXPECT_EQ(f->_brands[3], FCC("mp41"));
  EXPECT_NE(p.At<cfree>(1), nullptr);
  EXPECT_TRUE(log.Has("_compatible_brands_cnt: 4"));
}

TEST(MovieBoxFtyp, RoundTripOfTwoBrandsAndShortBoxes) {
  cftyp w;
  Parsed p(Written(w));
  auto* f = p.At<cftyp>(0);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->_compatible_brands_cnt, 2u);
  EXPECT_EQ(f->_brands[0], FCC("qt  "));
  EXPECT_EQ(f->_brands[1], 0u);

  // Only a major brand: the minor version is missing and reads as zero, no brands.
  LogCapture log;
  Parsed s(Cat({Box("ftyp", Str("mp42")), Box("moov")}));
  auto* g = s.At<cftyp>(0);
  ASSERT_NE(g, nullptr);
  EXPECT_EQ(g->_major_brand, FCC("mp42"));
  EXPECT_EQ(g->_minor_version, 0u);
  EXPECT_EQ(g->_compatible_brands_cnt, 0u);
  EXPECT_NE(s.At<cmoov>(1), nullptr);
  EXPECT_TRUE(log.Has("ftyp: payload short"));
}

// ---------------------------------------------------------------- mvhd

namespace {
void SampleMvhd(cmvhd& m) {
  m._createtime = 0x0102030405060708ull;
  m._modifytime = 0x1112131415161718ull;
  m._timescale = 600;
  m._duration = 0x2122232425262728ull;
  m._volume = 0x80;
  m._current_time = 7;
  m._next_track_id = 3;
}
}  // namespace

TEST(MovieBoxMvhd, Version0LayoutIs108Bytes) {
  cmvhd m(0);
  m._createtime = 0x0102030405060708ull;
  m._modifytime = 0x1112131415161718ull;
  m._timescale = 600;
  m._duration = 0x2122232425262728ull;
  m._volume = 0x80;
  m._preview_time = 1;
  m._current_time = 7;
  m._next_track_id = 3;
  const Bytes expect = Box("mvhd", Cat({VerFlags(0, 0), B32(0x05060708), B32(0x15161718), B32(600), B32(0x25262728),
                                        B32(0x10000), Be16(0x80), Zero(10), IdentityMatrix(), B32(1), B32(0), B32(0),
                                        B32(0), B32(0), B32(7), B32(3)}));
  ASSERT_EQ(expect.size(), 108u);
  EXPECT_EQ(Written(m), expect);
  EXPECT_EQ(m.StatisticsSize(), 108u);
}

TEST(MovieBoxMvhd, Version1LayoutIs120BytesAndReadsBack) {
  cmvhd m(1);
  SampleMvhd(m);
  const Bytes expect =
      Box("mvhd", Cat({VerFlags(1, 0), B64(0x0102030405060708ull), B64(0x1112131415161718ull), B32(600),
                       B64(0x2122232425262728ull), B32(0x10000), Be16(0x80), Zero(10), IdentityMatrix(), Zero(20),
                       B32(7), B32(3)}));
  ASSERT_EQ(expect.size(), 120u);
  const Bytes bytes = Written(m);
  EXPECT_EQ(bytes, expect);
  EXPECT_EQ(m.StatisticsSize(), 120u);

  Parsed p(bytes);
  auto* r = p.At<cmvhd>(0);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->Version(), 1);
  EXPECT_EQ(r->_createtime, m._createtime);
  EXPECT_EQ(r->_modifytime, m._modifytime);
  EXPECT_EQ(r->_timescale, 600u);
  EXPECT_EQ(r->_duration, m._duration);
  EXPECT_EQ(r->_rate, 0x10000u);
  EXPECT_EQ(r->_volume, 0x80);
  EXPECT_EQ(r->_matrix[8], 0x40000000u);
  EXPECT_EQ(r->_current_time, 7u);
  EXPECT_EQ(r->_next_track_id, 3u);
}

TEST(MovieBoxMvhd, LargeSizeFormReadsAndPatchesBehindTheLongerHeader) {
  cmvhd m(0);
  SampleMvhd(m);
  m.Size(1);
  IOBuffer io;
  EXPECT_EQ(m.Fill(io, true), 116);
  EXPECT_EQ(Be64At(io.Bytes(), 8), 116u);
  EXPECT_EQ(BeAt(io.Bytes(), 32), 0x25262728u);  // duration behind the 16-byte header
  m.Duration(0xabcdef, &io);
  EXPECT_EQ(BeAt(io.Bytes(), 32), 0xabcdefu);

  Parsed p(io.Bytes());
  auto* r = p.At<cmvhd>(0);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->_duration, 0xabcdefu);
  EXPECT_EQ(r->_next_track_id, 3u);
}

TEST(MovieBoxMvhd, FromAttrSetNeedsAllThreeKeys) {
  LogCapture log;
  cmvhd m;
  EXPECT_TRUE(m.fromAttrSet(AttrSet("create_time=3600;duration=90000;track_id=4;modify_time=5")));
  EXPECT_EQ(m._createtime, 3600u);
  EXPECT_EQ(m._duration, 90000u);
  EXPECT_EQ(m._next_track_id, 4u);
  EXPECT_EQ(m._modifytime, 0u);  // no key for it

  cmvhd n;
  EXPECT_FALSE(n.fromAttrSet(AttrSet("create_time=1;track_id=2")));
  EXPECT_TRUE(log.Has("!ap.Get(\"duration\",_duration)"));
  EXPECT_FALSE(n.fromAttrSet(AttrSet("duration=1;track_id=2")));
  EXPECT_TRUE(log.Has("!ap.Get(\"create_time\",_createtime)"));
  EXPECT_FALSE(n.fromAttrSet(AttrSet("create_time=1;duration=2")));
  EXPECT_TRUE(log.Has("!ap.Get(\"track_id\",_next_track_id)"));
}

TEST(MovieBoxMvhd, TruncatedPayloadStopsAtTheBoxEnd) {
  LogCapture log;
  // 40 bytes of mvhd, then a sibling whose bytes must not be taken as fields.
  Bytes body = Cat({VerFlags(0, 0), B32(1), B32(2), B32(600), B32(9000), B32(0x10000), Be16(0x100), Zero(6)});
  ASSERT_EQ(body.size(), 32u);
  Parsed p(Cat({Box("mvhd", body), Box("free", Fill(80, 0x77))}));
  ASSERT_TRUE(p.ok);
  ASSERT_EQ(p.Count(), 2u);
  auto* m = p.At<cmvhd>(0);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->_duration, 9000u);
  EXPECT_EQ(m->_volume, 0x100);
  EXPECT_EQ(m->_matrix[0], 0u);
  EXPECT_EQ(m->_next_track_id, 0u);
  EXPECT_NE(p.At<cfree>(1), nullptr);
  EXPECT_TRUE(log.Has("mvhd: payload short"));
}

// ---------------------------------------------------------------- tkhd, mdhd

TEST(MovieBoxTkhd, BothVersionsAreLaidOutAsTheTablesSay) {
  for (unsigned char v : {0, 1}) {
    ctkhd t(v);
    t.Flags(15);
    t._createtime = 0xa1a2a3a4a5a6a7a8ull;
    t._modifytime = 0xb1b2b3b4b5b6b7b8ull;
    t._track_id = 2;
    t._duration = 0xc1c2c3c4c5c6c7c8ull;
    t._layer = 1;
    t._alternate_group = 2;
    t._volume = 0x100;
    t._matrix[1] = 5;
    t._width = 1920;
    t._height = 1080;
    Bytes matrix = IdentityMatrix();
    matrix[7] = 5;
    const bool v1 = v == 1;
    const Bytes expect = Box(
        "tkhd", Cat({VerFlags(v, 15), v1 ? B64(0xa1a2a3a4a5a6a7a8ull) : B32(0xa5a6a7a8),
                     v1 ? B64(0xb1b2b3b4b5b6b7b8ull) : B32(0xb5b6b7b8), B32(2), B32(0),
                     v1 ? B64(0xc1c2c3c4c5c6c7c8ull) : B32(0xc5c6c7c8), Zero(8), Be16(1), Be16(2), Be16(0x100),
                     Be16(0), matrix, Be16(1920), Be16(0), Be16(1080), Be16(0)}));
    ASSERT_EQ(expect.size(), v1 ? 104u : 92u);
    const Bytes bytes = Written(t);
    EXPECT_EQ(bytes, expect) << "version " << int(v);
    EXPECT_EQ(t.StatisticsSize(), expect.size());

    Parsed p(bytes);
    auto* r = p.At<ctkhd>(0);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->Flags(), 15u);
    EXPECT_EQ(r->_track_id, 2u);
    EXPECT_EQ(r->_duration, v1 ? t._duration : 0xc5c6c7c8u);
    EXPECT_EQ(r->_alternate_group, 2);
    EXPECT_EQ(r->_matrix[1], 5u);
    EXPECT_EQ(r->_width, 1920);
    EXPECT_EQ(r->_height, 1080);
  }
}

TEST(MovieBoxMdhd, BothVersionsAndTheirOwnKeys) {
  for (unsigned char v : {0, 1}) {
    cmdhd m(v);
    EXPECT_TRUE(m.fromAttrSet(AttrSet("createtime=0x100000001;modifytime=2;duration=0x300000004;create_time=9")));
    m._timescale = 48000;
    m._language = 21956;
    const bool v1 = v == 1;
    const Bytes expect =
        Box("mdhd", Cat({VerFlags(v, 0), v1 ? B64(0x100000001ull) : B32(1), v1 ? B64(2) : B32(2), B32(48000),
                         v1 ? B64(0x300000004ull) : B32(4), Be16(21956), Be16(0)}));
    ASSERT_EQ(expect.size(), v1 ? 44u : 32u);
    const Bytes bytes = Written(m);
    EXPECT_EQ(bytes, expect) << "version " << int(v);

    Parsed p(bytes);
    auto* r = p.At<cmdhd>(0);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->_createtime, v1 ? 0x100000001ull : 1u);
    EXPECT_EQ(r->_timescale, 48000u);
    EXPECT_EQ(r->_duration, v1 ? 0x300000004ull : 4u);
    EXPECT_EQ(r->_language, 21956);
  }
  // tkhd has keys of its own, each optional.
  ctkhd t;
  t._duration = 77;
  EXPECT_TRUE(t.fromAttrSet(AttrSet("create_time=10;modify_time=11;track_id=6;createtime=1")));
  EXPECT_EQ(t._createtime, 10u);
  EXPECT_EQ(t._modifytime, 11u);
  EXPECT_EQ(t._track_id, 6u);
  EXPECT_EQ(t._duration, 77u);
}

TEST(MovieBoxMdhd, VersionOneFieldsInAVersionZeroSizedBoxAreCut) {
  LogCapture log;
  // The version byte says 1, the box holds the 24 bytes of version 0.
  Bytes body = Cat({VerFlags(1, 0), B32(1), B32(2), B32(3), B32(4), Be16(5), Be16(6)});
  Parsed p(Cat({Box("mdhd", body), Box("hdlr", Zero(25))}));
  ASSERT_EQ(p.Count(), 2u);
  auto* m = p.At<cmdhd>(0);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->_createtime, 0x100000002ull);
  EXPECT_EQ(m->_modifytime, 0x300000004ull);
  EXPECT_EQ(m->_timescale, 0x50006u);
  EXPECT_EQ(m->_duration, 0u);
  EXPECT_TRUE(log.Has("mdhd: payload short"));
}

// ---------------------------------------------------------------- elst, edts

TEST(MovieBoxElst, ItemsInBothWidths) {
  celst e0(0);
  e0.Add(celst::Item{3000, 0, 0x10000});
  e0.Add(celst::Item{500, -1, 0x10000});
  EXPECT_EQ(e0._num, 2u);
  EXPECT_EQ(Written(e0), Box("elst", Cat({VerFlags(0, 0), B32(2), B32(3000), B32(0), B32(0x10000), B32(500),
                                          B32(0xffffffff), B32(0x10000)})));

  celst e1(1);
  e1.Add(celst::Item{0x100000000ull, -1, 0x8000});
  const Bytes bytes = Written(e1);
  EXPECT_EQ(bytes, Box("elst", Cat({VerFlags(1, 0), B32(1), B64(0x100000000ull), B64(~0ull), B32(0x8000)})));
  EXPECT_EQ(e1.StatisticsSize(), bytes.size());

  Parsed p(bytes);
  auto* r = p.At<celst>(0);
  ASSERT_NE(r, nullptr);
  ASSERT_EQ(r->_items.size(), 1u);
  EXPECT_EQ(r->_items[0].segment_duration, 0x100000000ull);
  EXPECT_EQ(r->_items[0].media_time, -1);
  EXPECT_EQ(r->_items[0].rate, 0x8000u);

  Parsed q(Written(e0));
  auto* s = q.At<celst>(0);
  ASSERT_NE(s, nullptr);
  ASSERT_EQ(s->_num, 2u);
  EXPECT_EQ(s->_items[1].media_time, -1);  // the sign of an empty edit survives version 0
}

TEST(MovieBoxElst, CountThatDoesNotFitIsClamped) {
  LogCapture log;
  // Claims a million entries, holds one and a half.
  Bytes body = Cat({VerFlags(0, 0), B32(1000000), B32(10), B32(0), B32(0x10000), B32(20), B32(0)});
  Parsed p(Cat({Box("elst", body), Box("free")}));
  ASSERT_TRUE(p.ok);
  auto* e = p.At<celst>(0);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->_num, 1u);
  ASSERT_EQ(e->_items.size(), 1u);
  EXPECT_EQ(e->_items[0].segment_duration, 10u);
  EXPECT_NE(p.At<cfree>(1), nullptr);
  EXPECT_TRUE(log.Has("elst:_num 1000000>1"));
}

TEST(MovieBoxEdts, HeaderIsWrittenOnce) {
  cedts e;
  auto* l = new celst(0);
  l->Add(celst::Item{100, 0, 0x10000});
  e.Add(l);
  IOBuffer io;
  io.Write("pad!", 4);
  e.Fill(io, true);
  EXPECT_EQ(e._pos, 4u);
  const Bytes expect = Cat({Str("pad!"), Header(36, "edts"),
                            Box("elst", Cat({VerFlags(0, 0), B32(1), B32(100), B32(0), B32(0x10000)}))});
  EXPECT_EQ(io.Bytes(), expect);
  // Again: nothing of its own.
  const long long before = io.Position();
  e.fill(io);
  EXPECT_EQ(io.Position(), before);

  cedts big(1);
  IOBuffer io2;
  big.Fill(io2, true);
  EXPECT_EQ(io2.Bytes(), Header64(16, "edts"));
  EXPECT_EQ(big._pos, 8u);
}

// ---------------------------------------------------------------- duration patching in a file

namespace {

// moov { mvhd(0) trak { tkhd(1) edts { elst(0) } mdia { mdhd(1) } } mvex { mehd(0) } }
struct MovieTree {
  MovieTree() {
    moov.Add(mvhd = new cmvhd(0));
    auto* trak = moov.Add(new ctrak);
    trak->Add(tkhd = new ctkhd(1));
    auto* edts = trak->Add(new cedts);
    edts->Add(elst = new celst(0));
    elst->Add(celst::Item{11, 0, 0x10000});
    elst->Add(celst::Item{22, 5, 0x10000});
    trak->Add(new cmdia)->Add(mdhd = new cmdhd(1));
    moov.Add(new cmvex)->Add(mehd = new cmehd(0));
  }
  cmoov moov;
  cmvhd* mvhd;
  ctkhd* tkhd;
  celst* elst;
  cmdhd* mdhd;
  cmehd* mehd;
};

}  // namespace

TEST(MovieBoxDuration, PatchedInAWrittenFileAndReadBack) {
  iotest::TempDir dir;
  const std::string path = dir.file("movie.mov");
  kiv::base::IO* io = kiv::base::IO::New(path.c_str(), "wb");
  ASSERT_NE(io, nullptr);
  MovieTree t;
  const Bytes lead = Box("free", Str("ab"));
  io->Write(lead.data(), static_cast<long long>(lead.size()));
  t.moov.Fill(*io, true);
  const long long end = io->Position();
  EXPECT_EQ(t.moov.Offset(), 10);

  LogCapture log;
  t.mvhd->Duration(0x11223344, io);
  t.tkhd->Duration(0x5566778899ull, io);
  t.elst->Duration(0x99, io);
  t.mdhd->Duration(0x123456789aull, io);
  t.mehd->Duration(0xbeef, io);
  EXPECT_EQ(io->Position(), end);  // patches return to where the stream was
  EXPECT_TRUE(log.Has("duration=" + std::to_string(0x123456789aull)));
  EXPECT_TRUE(log.Has("duration=153"));
  // The list in memory is one item now; the file keeps its count of two.
  ASSERT_EQ(t.elst->_items.size(), 1u);
  EXPECT_EQ(t.elst->_items[0].rate, 0x10000u);
  EXPECT_EQ(t.mehd->Duration(), 0xbeefu);
  io->Close();
  delete io;

  kiv::base::IO* in = kiv::base::IO::New(path.c_str(), "rb");
  ASSERT_NE(in, nullptr);
  croot root;
  AttrSet ap;
  ASSERT_TRUE(root.Parse(*in, ap, true));
  delete in;
  auto* mvhd = dynamic_cast<cmvhd*>(root.Find("mvhd"));
  auto* tkhd = dynamic_cast<ctkhd*>(root.Find("tkhd"));
  auto* elst = dynamic_cast<celst*>(root.Find("elst"));
  auto* mdhd = dynamic_cast<cmdhd*>(root.Find("mdhd"));
  auto* mehd = dynamic_cast<cmehd*>(root.Find("mehd"));
  ASSERT_TRUE(mvhd && tkhd && elst && mdhd && mehd);
  EXPECT_EQ(mvhd->_duration, 0x11223344u);
  EXPECT_EQ(tkhd->_duration, 0x5566778899ull);
  EXPECT_EQ(mdhd->_duration, 0x123456789aull);
  EXPECT_EQ(mehd->_duration, 0xbeefu);
  ASSERT_EQ(elst->_num, 2u);
  EXPECT_EQ(elst->_items[0].segment_duration, 0x99u);
  EXPECT_EQ(elst->_items[1].segment_duration, 22u);
  EXPECT_EQ(elst->_items[1].media_time, 5);
  // Neighbouring fields are untouched.
  EXPECT_EQ(tkhd->_track_id, 0u);
  EXPECT_EQ(mvhd->_rate, 0x10000u);
  EXPECT_EQ(mdhd->_language, 0);
}

TEST(MovieBoxDuration, PatchPositionsInVersion1AndLargeSizeForms) {
  IOBuffer io;
  cmvhd m(1);
  m.Fill(io, true);
  m.Duration(0x0102030405060708ull, &io);
  EXPECT_EQ(Be64At(io.Bytes(), 32), 0x0102030405060708ull);

  IOBuffer io2;
  ctkhd t(0);
  t.Size(1);
  t.Fill(io2, true);
  ASSERT_EQ(io2.Bytes().size(), 100u);
  t.Duration(0xfedcba98, &io2);
  EXPECT_EQ(BeAt(io2.Bytes(), 36), 0xfedcba98u);

  IOBuffer io3;
  cmehd e(1);
  e.Size(1);
  e.Fill(io3, true);
  EXPECT_EQ(io3.Bytes(), Cat({Header64(28, "mehd"), VerFlags(1, 0), B64(0)}));
  e.Duration(0x1000000002ull, &io3);
  EXPECT_EQ(Be64At(io3.Bytes(), 20), 0x1000000002ull);

  // Without a stream only the field changes.
  cmdhd d(0);
  d.Duration(5, nullptr);
  EXPECT_EQ(d._duration, 5u);
}

// ---------------------------------------------------------------- mdat

TEST(MovieBoxMdat, SecondFillRewritesOnlyTheSize) {
  IOBuffer io;
  io.Write("ftypftyp", 8);
  cmdat m(0);
  m.Fill(io, true);
  EXPECT_EQ(m._pos, 8u);
  EXPECT_EQ(io.Bytes(), Cat({Str("ftypftyp"), Header(8, "mdat")}));
  io.Write("payload", 7);
  m.Size(0x20000000);
  const long long end = io.Position();
  m.fill(io);
  EXPECT_EQ(io.Position(), end);
  EXPECT_EQ(io.Bytes(), Cat({Str("ftypftyp"), Header(0x20000000, "mdat"), Str("payload")}));
}

TEST(MovieBoxMdat, SixtyFourBitFormRewritesTheLongSize) {
  IOBuffer io;
  cmdat m(1);
  m.Fill(io, true);
  EXPECT_EQ(io.Bytes(), Header64(16, "mdat"));
  EXPECT_EQ(m._pos, 8u);
  io.Write("abcd", 4);
  m.ExtendedSize(0x100000014ull);
  m.fill(io);
  EXPECT_EQ(io.Bytes(), Cat({Header64(0x100000014ull, "mdat"), Str("abcd")}));
  EXPECT_EQ(io.Position(), 20);

  // After reset the next fill is a header again.
  m.Reset(true);
  EXPECT_EQ(m._pos, 0u);
  m.fill(io);
  EXPECT_EQ(io.Bytes().size(), 36u);
}

TEST(MovieBoxMdat, ReadSkipsTheBodyInBothForms) {
  Bytes media = Fill(100, 0x42);
  Parsed p(Cat({Box("ftyp", Cat({Str("qt  "), B32(0)})), Box("mdat", media), Header64(16 + 5, "mdat"), Fill(5),
                Box("moov")}));
  ASSERT_TRUE(p.ok);
  ASSERT_EQ(p.Count(), 4u);
  auto* a = p.At<cmdat>(1);
  auto* b = p.At<cmdat>(2);
  ASSERT_TRUE(a && b);
  EXPECT_EQ(a->_pos, 24u);
  EXPECT_EQ(a->RealSize(), 108u);
  EXPECT_EQ(b->_pos, 16u + 108u + 16u);
  EXPECT_EQ(b->RealSize(), 21u);
  EXPECT_NE(p.At<cmoov>(3), nullptr);
}

TEST(MovieBoxMdat, CutShortFileFailsTheParseWithoutReading) {
  LogCapture log;
  IOBuffer io;
  Load(io, Cat({Header(1000, "mdat"), Fill(10)}));
  io.Seek(8, kiv::Position::front);
  std::unique_ptr<IBox> m(IBox::New("mdat"));
  m->Size(1000);
  m->Offset(0);
  AttrSet ap;
  EXPECT_FALSE(m->Parse(io, ap, true));
  EXPECT_TRUE(log.Has("pos1>io.Size()"));
  EXPECT_EQ(dynamic_cast<cmdat*>(m.get())->_pos, 8u);
  EXPECT_EQ(io.Position(), 18);  // stopped at the end of what is there
}

// ---------------------------------------------------------------- free and the cluster filler

TEST(MovieBoxFree, ZerosBehindTheHeaderOnlyFromNineOn) {
  cfree f;
  f.UpdateWriteSize(20);
  EXPECT_EQ(Written(f), Cat({Header(20, "free"), Zero(12)}));
  cfree g;
  g.UpdateWriteSize(8);
  EXPECT_EQ(Written(g), Header(8, "free"));
  cfree h;
  h.UpdateWriteSize(3);
  EXPECT_EQ(Written(h), Header(8, "free"));
  cfree big;
  big.UpdateWriteSize(70000);  // more than one zero block
  const Bytes bytes = Written(big);
  ASSERT_EQ(bytes.size(), 70000u);
  EXPECT_EQ(BeAt(bytes, 0), 70000u);
  EXPECT_EQ(Bytes(bytes.begin() + 8, bytes.end()), Zero(69992));
}

TEST(MovieBoxFree, FillerPadsToTheClusterBoundary) {
  struct Case {
    long long at;
    size_t box;
  } cases[] = {{32760, 8}, {32764, 32772}, {100, 32668}, {32768 + 40, 32728}};
  for (const Case& c : cases) {
    IOBuffer io;
    io.Write(Zero(static_cast<size_t>(c.at)).data(), c.at);
    int calls = 0;
    cfree_concate f(32768, [&calls](void* arg) {
      ++calls;
      return arg == nullptr;
    });
    EXPECT_EQ(f.Fill(io, true), static_cast<long long>(c.box)) << c.at;
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(io.Position() % 32768, 0) << c.at;
    EXPECT_EQ(BeAt(io.Bytes(), static_cast<size_t>(c.at)), c.box);
    EXPECT_EQ(Bytes(io.Bytes().begin() + c.at + 4, io.Bytes().begin() + c.at + 8), Str("free"));
    EXPECT_EQ(f._write_size, c.box);
  }
}

TEST(MovieBoxFree, FillerWritesNothingOnABoundaryOrWhenNotWanted) {
  IOBuffer io;
  io.Write(Zero(65536).data(), 65536);
  cfree_concate on(32768);
  EXPECT_EQ(on.Fill(io, true), 0);
  EXPECT_EQ(io.Size(), 65536);
  EXPECT_EQ(on._write_size, 0u);

  io.Write("x", 1);
  cfree_concate off(32768, [](void*) { return false; });
  EXPECT_EQ(off.Fill(io, true), 0);
  EXPECT_EQ(io.Size(), 65537);

  cfree_concate dflt;
  EXPECT_EQ(dflt._cluster, 0x20000u);
  EXPECT_EQ(dflt.Fill(io, true), 0x20000 - 65537);
  EXPECT_EQ(io.Position(), 0x20000);
}

TEST(MovieBoxFree, FillerLetsATableFileJoinAtAClusterOfTheFileSystem) {
  iotest::TempDir dir;
  const std::string outPath = dir.file("out.mov");
  const std::string tablePath = dir.file("stsz.tmp");
  kiv::base::IO* out = kiv::base::IO::New(outPath.c_str(), "wb");
  kiv::base::IO* table = kiv::base::IO::New(tablePath.c_str(), "rwbc");
  ASSERT_TRUE(out && table);
  table->Write("TABLE", 5);
  out->Write("head", 4);
  const unsigned cluster = GetClusterSize(outPath.c_str());
  ASSERT_GE(cluster, 512u);
  cfree_concate f(cluster, [table](void*) { return table->HasFileData(); });
  f.Fill(*out, true);
  EXPECT_EQ(out->Position() % cluster, 0);
  EXPECT_EQ(out->Copy(*table), 5);
  EXPECT_EQ(out->Size(), static_cast<long long>(cluster) + 5);
  delete table;
  delete out;
}

// ---------------------------------------------------------------- udta, QUOR, uuid

TEST(MovieBoxUdta, PayloadAndChildAreWrittenButNotRead) {
  const char payload[] = "\xa9nam";
  cudta u;
  u.Payload(payload, 4);
  auto* q = new cQUOR;
  q->_quor = FCC("vers");
  u.Add(q);
  const Bytes bytes = Written(u);
  EXPECT_EQ(bytes, Cat({Header(24, "udta"), Str("\xa9nam"), Box("QUOR", Str("vers"))}));
  EXPECT_EQ(u.StatisticsSize(), 24u);

  cudta empty;
  empty._size = 10;  // no data: no payload
  EXPECT_EQ(Written(empty), Header(8, "udta"));

  Parsed p(Cat({bytes, Box("QUOR", Str("abcd"))}));
  ASSERT_TRUE(p.ok);
  auto* ru = p.At<cudta>(0);
  ASSERT_NE(ru, nullptr);
  EXPECT_EQ(ru->Child(), nullptr);
  auto* rq = p.At<cQUOR>(1);
  ASSERT_NE(rq, nullptr);
  EXPECT_EQ(rq->_quor, FCC("abcd"));
}

TEST(MovieBoxUuid, SphericalBoxIs454BytesOfFixedPieces) {
  cuuid u;
  const Bytes bytes = Written(u);
  const Bytes id{0xff, 0xcc, 0x82, 0x63, 0xf8, 0x55, 0x4a, 0x93, 0x88, 0x14, 0x58, 0x7a, 0x02, 0x52, 0x1f, 0xdd};
  const Bytes expect = Cat(
      {Header(454, "uuid"), id, Str("<?xml version=\"1.0\"?>"),
       Str("<rdf:SphericalVideo\nxmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"\n"
           "xmlns:GSpherical=\"http://ns.google.com/videos/1.0/spherical/\">"),
       Str("<GSpherical:Spherical>true</GSpherical:Spherical>"), Str("<GSpherical:Stitched>true</GSpherical:Stitched>"),
       Str("<GSpherical:StitchingSoftware>Quorelvan 4100 software</GSpherical:StitchingSoftware>"),
       Str("<GSpherical:ProjectionType>equirectangular</GSpherical:ProjectionType>"), Str("</rdf:SphericalVideo>")});
  ASSERT_EQ(expect.size(), 454u);
  EXPECT_EQ(bytes, expect);
  EXPECT_EQ(u.StatisticsSize(), 454u);
  EXPECT_EQ(u._rdf_open._len, 138u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes.data() + 433), 21), "</rdf:SphericalVideo>");

  // Rebuilding frees and makes the pieces anew; the other constructor takes the code.
  u.UuidSphericalInit();
  EXPECT_EQ(Written(u), expect);
  cuuid named("uuid");
  EXPECT_EQ(Written(named), expect);
  u.UuidAtomFree();
  EXPECT_EQ(Written(u), Header(8, "uuid"));

  Parsed p(Cat({expect, Box("free")}));
  ASSERT_TRUE(p.ok);
  ASSERT_EQ(p.Count(), 2u);
  EXPECT_NE(p.At<cuuid>(0), nullptr);
  EXPECT_NE(p.At<cfree>(1), nullptr);
}

// ---------------------------------------------------------------- tapt, mehd, trex

TEST(MovieBoxTapt, ApertureChildrenAreWrittenAndSkippedWhenRead) {
  ctapt t;
  for (IBox* b : {static_cast<IBox*>(new cclef), static_cast<IBox*>(new cprof), static_cast<IBox*>(new cenof)}) {
    auto* a = static_cast<caperture*>(b);
    a->_width = 1280;
    a->_height = 720;
    t.Add(b);
  }
  const Bytes dims = Cat({VerFlags(0, 0), Be16(1280), Be16(0), Be16(720), Be16(0)});
  const Bytes bytes = Written(t);
  EXPECT_EQ(bytes, Cat({Header(68, "tapt"), Box("clef", dims), Box("prof", dims), Box("enof", dims)}));

  Parsed p(Cat({bytes, Box("enof", Cat({VerFlags(0, 0), Be16(64), Be16(0), Be16(48), Be16(0)}))}));
  ASSERT_TRUE(p.ok);
  ASSERT_EQ(p.Count(), 2u);
  auto* rt = p.At<ctapt>(0);
  ASSERT_NE(rt, nullptr);
  EXPECT_EQ(rt->Child(), nullptr);
  EXPECT_EQ(rt->_pos, 8u);
  auto* e = p.At<cenof>(1);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->_width, 64);
  EXPECT_EQ(e->_height, 48);
}

TEST(MovieBoxFragmentDefaults, MehdAndTrexLayouts) {
  cmehd m0(0);
  m0._duration = 0x100000005ull;
  EXPECT_EQ(Written(m0), Box("mehd", Cat({VerFlags(0, 0), B32(5)})));
  cmehd m1(1);
  m1._duration = 0x100000005ull;
  const Bytes b1 = Written(m1);
  EXPECT_EQ(b1, Box("mehd", Cat({VerFlags(1, 0), B64(0x100000005ull)})));
  Parsed p(b1);
  ASSERT_NE(p.At<cmehd>(0), nullptr);
  EXPECT_EQ(p.At<cmehd>(0)->Duration(), 0x100000005ull);

  ctrex t(0);
  t._track_id = 2;
  t._default_sample_flags = 0x10000;
  const Bytes bt = Written(t);
  EXPECT_EQ(bt, Box("trex", Cat({VerFlags(0, 0), B32(2), B32(1), B32(0), B32(0), B32(0x10000)})));
  Parsed q(bt);
  auto* r = q.At<ctrex>(0);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->_track_id, 2u);
  EXPECT_EQ(r->_default_sample_description_index, 1u);
  EXPECT_EQ(r->_default_sample_flags, 0x10000u);
}

// ---------------------------------------------------------------- factory and printing

TEST(MovieBoxFactory, EveryCodeMakesItsClass) {
  LogCapture log;
  const char* rows[][2] = {
      {"ftyp", "cftyp"}, {"moov", "cmoov"}, {"mvhd", "cmvhd"}, {"trak", "ctrak"}, {"tkhd", "ctkhd"},
      {"edts", "cedts"}, {"elst", "celst"}, {"mdia", "cmdia"}, {"mdhd", "cmdhd"}, {"hdlr", "chdlr"},
      {"udta", "cudta"}, {"uuid", "cuuid"}, {"free", "cfree"}, {"mdat", "cmdat"}, {"QUOR", "cQUOR"},
      {"tapt", "ctapt"}, {"clef", "cclef"}, {"prof", "cprof"}, {"enof", "cenof"}, {"mvex", "cmvex"},
      {"mehd", "cmehd"}, {"trex", "ctrex"}, {"minf", "cminf"}, {"vmhd", "cvmhd"}, {"smhd", "csmhd"},
      {"gmhd", "cgmhd"}, {"gmin", "cgmin"}, {"dinf", "cdinf"}, {"dref", "cdref"}, {"url ", "curl_"},
      {"alis", "calis"}};
  for (const auto& r : rows) {
    std::unique_ptr<IBox> b(IBox::New(r[0]));
    ASSERT_NE(b, nullptr) << r[0];
    EXPECT_EQ(b->TypeName(), std::string("kiv::plugin::mov::") + r[1]);
    EXPECT_STREQ(b->FCCString(), r[0]);
  }
  EXPECT_FALSE(log.Has("unknow box:"));
  std::unique_ptr<IBox> big(IBox::New("mdat", 1));
  EXPECT_EQ(big->Size(), 1u);
  std::unique_ptr<IBox> small(IBox::New("mvhd", 1));  // only mdat takes the size
  EXPECT_EQ(small->Size(), 0u);
}

TEST(MovieBoxPrint, FieldsShowCodesAsCharacters) {
  unsigned list[2] = {FCC("mp42"), FCC("ifrm")};
  cftyp f;
  f._major_brand = FCC("mp42");
  f._compatible_brands = list;
  AttrSet a;
  f.fields(a);
  EXPECT_STREQ(a.Get("major_brand"), "mp42");
  EXPECT_STREQ(a.Get("compatible_brands"), "mp42,ifrm");
  EXPECT_NE(a.Get("size"), nullptr);

  celst e;
  for (int i = 0; i < 6; ++i) e.Add(celst::Item{static_cast<unsigned long long>(i), 0, 0x10000});
  AttrSet b;
  e.fields(b);
  EXPECT_STREQ(b.Get("entries"), "6");
  EXPECT_EQ(std::string(b.Get("items")).substr(std::string(b.Get("items")).size() - 4), ",...");
  EXPECT_STREQ(b.Get("version"), "0");

  cmvhd m(1);
  m._timescale = 1000;
  std::ostringstream os;
  m.Dump(os);
  EXPECT_NE(os.str().find("mvhd"), std::string::npos);
  EXPECT_NE(os.str().find("timescale=1000"), std::string::npos);
  EXPECT_NE(os.str().find("version=1"), std::string::npos);
}

// ================================================================ media information

namespace {

// The 20 bytes between the header of "hdlr" and its name.
Bytes HdlrFields(const char* type, const char* subtype, const char* manuf) {
  return Cat({VerFlags(0, 0), Str(type), Str(subtype), Str(manuf), B32(0), B32(0)});
}

const unsigned char kVideoHandler[] = "Video Handler";

std::string HandlerName(const chdlr& h) { return std::string(reinterpret_cast<const char*>(h._name), h._name_len); }

}  // namespace

// ---------------------------------------------------------------- hdlr

TEST(MinfBoxHdlr, CountedNameIsWrittenWithItsLength) {
  chdlr h;
  h._component_type = FCC("mhlr");
  h._component_subtype = FCC("vide");
  h._component_manufacturer = FCC("quor");
  h.ComponentName("Video Handler", 14);  // the terminator is counted, as the profile does
  const Bytes bytes = Written(h);
  EXPECT_EQ(bytes, Box("hdlr", Cat({HdlrFields("mhlr", "vide", "quor"), Bytes{14}, Bytes(kVideoHandler, kVideoHandler + 14)})));
  EXPECT_EQ(h.StatisticsSize(), 47u);

  Parsed p(bytes);
  auto* r = p.At<chdlr>(0);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->_component_type, FCC("mhlr"));
  EXPECT_EQ(r->_component_subtype, FCC("vide"));
  EXPECT_EQ(r->_component_manufacturer, FCC("quor"));
  EXPECT_EQ(HandlerName(*r), std::string("Video Handler", 14));

  AttrSet a;
  r->fields(a);
  EXPECT_STREQ(a.Get("component_subtype"), "vide");
  EXPECT_STREQ(a.Get("name"), "Video Handler.");  // the counted terminator shows as a dot
}

TEST(MinfBoxHdlr, EmptyNameIs33Bytes) {
  chdlr h;
  h._component_type = FCC("dhlr");
  h._component_subtype = FCC("alis");
  const Bytes bytes = Written(h);
  EXPECT_EQ(bytes, Box("hdlr", Cat({Cat({VerFlags(0, 0), Str("dhlr"), Str("alis"), B32(0), B32(0), B32(0)}), Bytes{0}})));
  ASSERT_EQ(bytes.size(), 33u);
  Parsed p(Cat({bytes, Box("vmhd", Cat({VerFlags(0, 1), B32(0), B32(0)}))}));
  ASSERT_TRUE(p.ok);
  ASSERT_NE(p.At<chdlr>(0), nullptr);
  EXPECT_EQ(p.At<chdlr>(0)->_name_len, 0);
  EXPECT_NE(p.At<cvmhd>(1), nullptr);
}

TEST(MinfBoxHdlr, NameLongerThanTheBufferKeeps32AndSkipsTheRest) {
  Bytes name;
  for (int i = 0; i < 40; ++i) name.push_back(static_cast<unsigned char>('A' + i % 26));
  Parsed p(Cat({Box("hdlr", Cat({HdlrFields("mhlr", "soun", "quor"), Bytes{40}, name})), Box("smhd", Cat({VerFlags(0, 0), B32(0)}))}));
  ASSERT_TRUE(p.ok);
  auto* h = p.At<chdlr>(0);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->_name_len, 32);
  EXPECT_EQ(HandlerName(*h), std::string(name.begin(), name.begin() + 32));
  EXPECT_NE(p.At<csmhd>(1), nullptr);

  // Written back, the kept 32 bytes are what goes out.
  EXPECT_EQ(Written(*h), Box("hdlr", Cat({HdlrFields("mhlr", "soun", "quor"), Bytes{32}, Bytes(name.begin(), name.begin() + 32)})));

  chdlr w;
  w.ComponentName(name.data(), 40);
  EXPECT_EQ(w._name_len, 32);
}

TEST(MinfBoxHdlr, NameWithoutCountStartsAtTheLengthByte) {
  // Size 45: the byte 0x56 at offset 32 exceeds the 12 bytes of room, so it is the first character.
  Parsed p(Cat({Box("hdlr", Cat({HdlrFields("mhlr", "vide", "appl"), Str("Video Handler")})), Box("free")}));
  ASSERT_TRUE(p.ok);
  auto* h = p.At<chdlr>(0);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->RealSize(), 45u);
  EXPECT_EQ(h->_name[0], 0x56);
  EXPECT_EQ(h->_name_len, 13);
  EXPECT_EQ(HandlerName(*h), "Video Handler");
  EXPECT_NE(p.At<cfree>(1), nullptr);

  // A long name without a count keeps 32 bytes and the box is still left at its end.
  Parsed q(Cat({Box("hdlr", Cat({HdlrFields("mhlr", "vide", "appl"), Bytes(50, 'x')})), Box("free")}));
  auto* g = q.At<chdlr>(0);
  ASSERT_NE(g, nullptr);
  EXPECT_EQ(g->_name_len, 32);
  EXPECT_NE(q.At<cfree>(1), nullptr);
}

TEST(MinfBoxHdlr, ShortBoxReadsNoNameAndStaysInside) {
  LogCapture log;
  // 24 bytes: the flags, the mask and the length byte are missing.
  Parsed p(Cat({Box("hdlr", Cat({VerFlags(0, 0), Str("mhlr"), Str("vide"), Str("quor")})), Box("free", Fill(40, 0x20))}));
  ASSERT_TRUE(p.ok);
  auto* h = p.At<chdlr>(0);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->_component_manufacturer, FCC("quor"));
  EXPECT_EQ(h->_component_flags, 0u);
  EXPECT_EQ(h->_name_len, 0);
  EXPECT_NE(p.At<cfree>(1), nullptr);
  EXPECT_TRUE(log.Has("hdlr: payload short"));
}

// ---------------------------------------------------------------- vmhd, gmin, smhd

TEST(MinfBoxMediaHeaders, LayoutsAndSizes) {
  cvmhd v;
  v.Flags(1);
  v._graphics_mode = 0x40;
  v._opcolor_red = 0x8000;
  v._opcolor_blue = 3;
  const Bytes vb = Written(v);
  EXPECT_EQ(vb, Box("vmhd", Cat({VerFlags(0, 1), Be16(0x40), Be16(0x8000), Be16(0), Be16(3)})));
  EXPECT_EQ(vb.size(), 20u);

  LogCapture log;
  cgmin g;
  EXPECT_TRUE(log.Has("gmin"));
  EXPECT_STREQ(g.FCCString(), "gmin");
  EXPECT_STREQ(g.Name(), "gmin");
  g._graphics_mode = 0x40;
  g._balance = 0xff00;
  const Bytes gb = Written(g);
  EXPECT_EQ(gb, Box("gmin", Cat({VerFlags(0, 0), Be16(0x40), Be16(0), Be16(0), Be16(0), Be16(0xff00), Be16(0)})));
  EXPECT_EQ(gb.size(), 24u);

  csmhd s;
  s._balance = 0x0100;
  const Bytes sb = Written(s);
  EXPECT_EQ(sb, Box("smhd", Cat({VerFlags(0, 0), Be16(0x0100), Be16(0)})));
  EXPECT_EQ(sb.size(), 16u);

  Parsed p(Cat({vb, Box("gmhd", gb), sb}));
  ASSERT_TRUE(p.ok);
  auto* rv = p.At<cvmhd>(0);
  auto* gmhd = p.At<cgmhd>(1);
  auto* rs = p.At<csmhd>(2);
  ASSERT_TRUE(rv && gmhd && rs);
  EXPECT_EQ(rv->Flags(), 1u);
  EXPECT_EQ(rv->_opcolor_red, 0x8000);
  EXPECT_EQ(rv->_opcolor_blue, 3);
  auto* rg = dynamic_cast<cgmin*>(gmhd->Child());
  ASSERT_NE(rg, nullptr);
  EXPECT_EQ(rg->_graphics_mode, 0x40);
  EXPECT_EQ(rg->_balance, 0xff00);
  EXPECT_EQ(rs->_balance, 0x0100);
}

TEST(MinfBoxMediaHeaders, ShortGminKeepsTheVmhdPart) {
  LogCapture log;
  Parsed p(Box("gmin", Cat({VerFlags(0, 0), Be16(7), Be16(1), Be16(2), Be16(3), Be16(9)})));
  auto* g = p.At<cgmin>(0);
  ASSERT_NE(g, nullptr);
  EXPECT_EQ(g->_graphics_mode, 7);
  EXPECT_EQ(g->_opcolor_blue, 3);
  EXPECT_EQ(g->_balance, 9);
  EXPECT_TRUE(log.Has("gmin: payload short"));
}

// ---------------------------------------------------------------- dref and its entries

TEST(MinfBoxDref, EntriesAreCountedAsAdded) {
  cdinf dinf;
  auto* dref = new cdref;
  dinf.Add(dref);
  auto* url = new curl_;
  url->Flags(1);
  dref->Add(url);
  auto* alis = new calis(FCC("alis"));
  alis->Flags(1);
  dref->Add(alis);
  EXPECT_EQ(dref->Num(), 2u);
  const Bytes bytes = Written(dinf);
  const Bytes expect = Box("dinf", Box("dref", Cat({VerFlags(0, 0), B32(2), Box("url ", VerFlags(0, 1)),
                                                     Box("alis", VerFlags(0, 1))})));
  EXPECT_EQ(bytes, expect);
  EXPECT_EQ(dinf.StatisticsSize(), expect.size());

  calis other(FCC("url "));
  EXPECT_STREQ(other.FCCString(), "url ");
  calis plain;
  EXPECT_EQ(Written(plain), Box("alis", VerFlags(0, 0)));
}

TEST(MinfBoxDref, ReadCountIsThatOfTheChildrenNotOfTheFile) {
  LogCapture log;
  // The file claims seven entries and holds two.
  Parsed p(Box("dref", Cat({VerFlags(0, 0), B32(7), Box("url ", VerFlags(0, 1)), Box("alis", VerFlags(0, 0))})));
  ASSERT_TRUE(p.ok);
  auto* d = p.At<cdref>(0);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->Num(), 2u);
  auto* u = dynamic_cast<curl_*>(d->Child());
  ASSERT_NE(u, nullptr);
  EXPECT_EQ(u->Flags(), 1u);
  EXPECT_NE(dynamic_cast<calis*>(u->Next()), nullptr);
  EXPECT_FALSE(log.Has("unknow box:"));
}

TEST(MinfBoxDref, EntryWithoutVersionFlagsReadsAsZero) {
  LogCapture log;
  Parsed p(Cat({Box("dref", Cat({VerFlags(0, 0), B32(1), Box("url ")})), Box("stbl")}));
  auto* d = p.At<cdref>(0);
  ASSERT_NE(d, nullptr);
  auto* u = dynamic_cast<curl_*>(d->Child());
  ASSERT_NE(u, nullptr);
  EXPECT_EQ(u->Flags(), 0u);
  EXPECT_NE(p.At<IBox>(1), nullptr);
  EXPECT_STREQ(p.At<IBox>(1)->FCCString(), "stbl");
  EXPECT_TRUE(log.Has("url : payload short"));
}
