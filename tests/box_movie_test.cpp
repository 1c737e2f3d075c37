// Movie, track and media information boxes against hand-laid bytes. A box read from such bytes is
// checked by writing it again: the writer is pinned to the layout, so each field landed in place.
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "stream/plugin/mp4/common/Box.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"

using namespace boxtest;
using namespace boxtest::kit;
using kiv::base::IOBuffer;
using namespace kiv::plugin::mov;

namespace {

const std::string kMatrix = " 00010000 00000000 00000000 00000000 00010000 00000000 00000000 00000000 40000000 ";

// The bytes read as a file hold one box of class T, which writes them again unchanged.
template <class T>
void ExpectReadsBack(const Bytes& bytes) {
  Tree p(bytes);
  EXPECT_TRUE(p.ok);
  ASSERT_NE(p.at<T>(0), nullptr);
  EXPECT_EQ(Written(*p.at(0)), bytes);
}

}  // namespace

TEST(MovieBoxFtyp, BrandsWrittenAndAtMostFourRead) {
  cftyp box;
  EXPECT_EQ(Written(box), B("ftyp", "'qt  ' 00000000 'qt  ' 00000000"));
  unsigned list[3] = {FCC("mp42"), FCC("isom"), FCC("ifrm")};
  box._major_brand = FCC("mp42");
  box._minor_version = 1; box._compatible_brands = list; box._compatible_brands_cnt = 3;
  const Bytes three = B("ftyp", "'mp42' 00000001 'mp42' 'isom' 'ifrm'");
  EXPECT_EQ(Written(box), three);
  ExpectReadsBack<cftyp>(three);
  // At most four brands are kept.
  Tree p(Cat({B("ftyp", "'isom' 00000200 'isom' 'iso2' 'avc1' 'mp41' 'mp42' 'iso4' 'hvc1'"), Box("free")}));
  EXPECT_EQ(p.shape(), "ftyp free");
  ASSERT_NE(p.at<cftyp>(0), nullptr);
  EXPECT_EQ(p.at<cftyp>(0)->_compatible_brands, p.at<cftyp>(0)->_brands);
  EXPECT_EQ(Written(*p.at(0)), B("ftyp", "'isom' 00000200 'isom' 'iso2' 'avc1' 'mp41'"));
  AttrSet a;  // codes are shown as characters
  p.at(0)->fields(a);
  EXPECT_STREQ(a.Get("compatible_brands"), "isom,iso2,avc1,mp41");
}

TEST(MovieBoxHeaders, MvhdTkhdMdhdInBothVersions) {
  for (unsigned char v : {0, 1}) {
    SCOPED_TRACE(int(v));
    cmvhd m(v);
    m._createtime = 0x0102030405060708ull; m._modifytime = 0x1112131415161718ull; m._timescale = 600;
    m._duration = 0x2122232425262728ull; m._volume = 0x80; m._preview_time = 1; m._current_time = 7;
    m._next_track_id = 3;
    const Bytes mvhd = B("mvhd", (v ? "01000000 0102030405060708 1112131415161718 00000258 2122232425262728"
                                    : "00000000 05060708 15161718 00000258 25262728") +
                                     std::string(" 00010000 0080 10*00") + kMatrix + "00000001 16*00 00000007 00000003");
    EXPECT_EQ(Written(m), mvhd);
    EXPECT_EQ(m.StatisticsSize(), mvhd.size());
    ExpectReadsBack<cmvhd>(mvhd);
    ctkhd t(v);
    t.Flags(15); t._createtime = 0xa1a2a3a4a5a6a7a8ull; t._modifytime = 0xb1b2b3b4b5b6b7b8ull; t._track_id = 2;
    t._duration = 0xc1c2c3c4c5c6c7c8ull; t._layer = 1; t._alternate_group = 2; t._volume = 0x100; t._matrix[1] = 5;
    t._width = 1920; t._height = 1080;
    const Bytes tkhd = B("tkhd", std::string(v ? "0100000f a1a2a3a4a5a6a7a8 b1b2b3b4b5b6b7b8 00000002 00000000 c1c2c3c4c5c6c7c8"
                                               : "0000000f a5a6a7a8 b5b6b7b8 00000002 00000000 c5c6c7c8") +
                                     " 8*00 0001 0002 0100 0000"
                                     " 00010000 00000005 00000000 00000000 00010000 00000000 00000000 00000000 40000000"
                                     " 0780 0000 0438 0000");
    EXPECT_EQ(Written(t), tkhd);
    EXPECT_EQ(t.StatisticsSize(), tkhd.size());
    ExpectReadsBack<ctkhd>(tkhd);
    // mdhd takes its keys from the attribute set.
    cmdhd d(v);
    EXPECT_TRUE(d.fromAttrSet(AttrSet("createtime=0x100000001;modifytime=2;duration=0x300000004;create_time=9")));
    d._timescale = 48000; d._language = 21956;
    const Bytes mdhd = B("mdhd", v ? "01000000 0000000100000001 0000000000000002 0000bb80 0000000300000004 55c4 0000"
                                   : "00000000 00000001 00000002 0000bb80 00000004 55c4 0000");
    EXPECT_EQ(Written(d), mdhd);
    ExpectReadsBack<cmdhd>(mdhd);
  }
}

TEST(MovieBoxEdits, ElstEdtsMehdAndTrexLayouts) {
  celst e0(0), e1(1);
  e0.Add(celst::Item{3000, 0, 0x10000});
  e0.Add(celst::Item{500, -1, 0x10000});
  e1.Add(celst::Item{0x100000000ull, -1, 0x8000});
  const Bytes b0 = B("elst", "00000000 00000002 00000bb8 00000000 00010000 000001f4 ffffffff 00010000");
  const Bytes b1 = B("elst", "01000000 00000001 0000000100000000 ffffffffffffffff 00008000");
  EXPECT_EQ(Written(e0), b0);
  EXPECT_EQ(Written(e1), b1);
  EXPECT_EQ(e1.StatisticsSize(), b1.size());
  ExpectReadsBack<celst>(b1);
  Tree p(b0);
  ASSERT_NE(p.at<celst>(0), nullptr);
  EXPECT_EQ(p.at<celst>(0)->_items.at(1).media_time, -1);  // the sign of an empty edit survives version 0
  // edts writes its header once: a second fill adds nothing.
  cedts edts;
  auto* one = new celst(0);
  one->Add(celst::Item{100, 0, 0x10000});
  edts.Add(one);
  IOBuffer io;
  io.Write("pad!", 4);
  edts.Fill(io, true);
  EXPECT_EQ(edts._pos, 4u);
  EXPECT_EQ(io.Bytes(), H("'pad!' 00000024 'edts' 0000001c 'elst' 00000000 00000001 00000064 00000000 00010000"));
  edts.fill(io);
  EXPECT_EQ(io.Position(), 40);
  cedts big(1);
  EXPECT_EQ(Written(big), H("00000001 'edts' 0000000000000010"));
  cmehd m0(0), m1(1);
  m0._duration = m1._duration = 0x100000005ull;
  EXPECT_EQ(Written(m0), B("mehd", "00000000 00000005"));
  EXPECT_EQ(Written(m1), B("mehd", "01000000 0000000100000005"));
  ExpectReadsBack<cmehd>(B("mehd", "01000000 0000000100000005"));
  ctrex t(0);
  t._track_id = 2; t._default_sample_flags = 0x10000;
  EXPECT_EQ(Written(t), B("trex", "00000000 00000002 00000001 00000000 00000000 00010000"));
  ExpectReadsBack<ctrex>(B("trex", "00000000 00000002 00000003 00000004 00000005 00010000"));
}

// A duration set once the media is written is patched into the box where it stands in the file:
// only the field changes, and the stream is left where it was.
TEST(MovieBoxDuration, PatchLandsOnTheFieldInEveryForm) {
  struct Case {
    const char* name;
    std::function<IBox*()> make;
    size_t at;  // of the field in the box
    Bytes field;
  } cases[] = {
      {"mvhd v0", [] { return new cmvhd(0); }, 24, H("00abcdef")},
      {"mvhd v0, 64-bit size", [] { auto* b = new cmvhd(0); b->Size(1); return b; }, 32, H("00abcdef")},
      {"mvhd v1", [] { return new cmvhd(1); }, 32, H("0000000000abcdef")},
      {"tkhd v0, 64-bit size", [] { auto* b = new ctkhd(0); b->Size(1); return b; }, 36, H("00abcdef")},
      {"tkhd v1", [] { return new ctkhd(1); }, 36, H("0000000000abcdef")},
      {"mdhd v1", [] { return new cmdhd(1); }, 32, H("0000000000abcdef")},
      {"mehd v0", [] { return new cmehd(0); }, 12, H("00abcdef")},
      {"mehd v1, 64-bit size", [] { auto* b = new cmehd(1); b->Size(1); return b; }, 20, H("0000000000abcdef")},
      // The first edit takes the duration; the file keeps its count of two.
      {"elst", [] { auto* e = new celst(0); e->Add(celst::Item{11, 0, 0x10000}); e->Add(celst::Item{22, 5, 0x10000});
         return e; }, 16, H("00abcdef")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<IBox> box(c.make());
    IOBuffer io;
    io.Write("lead", 4);
    box->Fill(io, true);
    io.Write("tail", 4);
    Bytes want = io.Bytes();
    ASSERT_GE(want.size(), 4 + c.at + c.field.size());
    std::copy(c.field.begin(), c.field.end(), want.begin() + static_cast<long>(4 + c.at));
    box->Duration(0xabcdef, &io);
    EXPECT_EQ(io.Bytes(), want);
    EXPECT_EQ(io.Position(), static_cast<long long>(want.size()));
  }
}

TEST(MovieBoxMdat, LaterFillsRewriteOnlyTheSize) {
  IOBuffer io;
  io.Write("ftypftyp", 8);
  cmdat m(0);
  m.Fill(io, true);
  io.Write("payload", 7);
  m.Size(0x20000000); m.fill(io);
  EXPECT_EQ(io.Position(), 23);
  EXPECT_EQ(io.Bytes(), H("'ftypftyp' 20000000 'mdat' 'payload'"));
  IOBuffer io64;
  cmdat w(1);
  w.Fill(io64, true);
  EXPECT_EQ(io64.Bytes(), H("00000001 'mdat' 0000000000000010"));
  io64.Write("abcd", 4);
  w.ExtendedSize(0x100000014ull); w.fill(io64);
  EXPECT_EQ(io64.Bytes(), H("00000001 'mdat' 0000000100000014 'abcd'"));
  EXPECT_EQ(io64.Position(), 20);
  w.Reset(true);  // after reset the next fill is a header again
  w.fill(io64);
  EXPECT_EQ(io64.Bytes().size(), 36u);
}

TEST(MovieBoxMdat, ReadSkipsTheBodyAndACutFileFails) {
  Tree p(Cat({B("ftyp", "'qt  ' 00000000"), Box("mdat", Fill(100, 0x42)), Header64(21, "mdat"), Fill(5), Box("moov")}));
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.shape(), "ftyp mdat mdat moov");
  ASSERT_TRUE(p.at<cmdat>(1) && p.at<cmdat>(2));
  EXPECT_EQ(p.at<cmdat>(1)->_pos, 24u);
  EXPECT_EQ(p.at<cmdat>(2)->_pos, 140u);
  EXPECT_EQ(p.at<cmdat>(2)->RealSize(), 21u);
  LogCapture log;
  IOBuffer io;
  AttrSet ap;
  cmdat m(0);
  EXPECT_FALSE(ParseAlone(m, Cat({Header(1000, "mdat"), Fill(10)}), io, ap, 1000));
  EXPECT_EQ(m._pos, 8u);
  EXPECT_EQ(io.Position(), 18);  // stopped at the end of what is there
}

TEST(MovieBoxFree, ZerosBehindTheHeaderOnlyFromNineOn) {
  struct Case {
    unsigned size;
    Bytes want;
  } cases[] = {{20, H("00000014 'free' 12*00")}, {8, H("00000008 'free'")}, {3, H("00000008 'free'")},
               {70000, Cat({Header(70000, "free"), Bytes(69992, 0)})}};  // more than one zero block
  for (const Case& c : cases) {
    cfree f;
    f.UpdateWriteSize(c.size);
    EXPECT_EQ(Written(f), c.want) << c.size;
  }
}

TEST(MovieBoxFree, FillerPadsToTheClusterBoundaryWhenWanted) {
  struct Case {
    long long at;
    bool wanted;
    long long box;
  } cases[] = {{32760, true, 8}, {32764, true, 32772}, {100, true, 32668}, {32768 + 40, true, 32728},
               {65536, true, 0}, {65537, false, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.at);
    IOBuffer io;
    io.Write(Bytes(static_cast<size_t>(c.at), 0).data(), c.at);
    int calls = 0;
    cfree_concate f(32768, [&calls, &c](void* arg) { ++calls; return arg == nullptr && c.wanted; });
    EXPECT_EQ(f.Fill(io, true), c.box);
    EXPECT_LE(calls, 1);
    EXPECT_EQ(io.Size(), c.at + c.box);
    if (c.box) {
      EXPECT_EQ(Bytes(io.Bytes().begin() + c.at, io.Bytes().begin() + c.at + 8), Header(c.box, "free"));
    }
  }
  IOBuffer io;
  io.Write("x", 1);
  EXPECT_EQ(cfree_concate().Fill(io, true), 0x20000 - 1);
}

TEST(MovieBoxUserData, UuidAndTaptWrittenAndReadBesideUdta) {
  const Bytes udta = H("00000018 'udta' a9 'nam' 0000000c 'QUOR' 'vers'");
  const Bytes uuid = H(
      "000001c6 'uuid' ffcc8263f8554a938814587a02521fdd '<?xml version=\"1.0\"?>'"
      "'<rdf:SphericalVideo' 0a 'xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"' 0a"
      "'xmlns:GSpherical=\"http://ns.google.com/videos/1.0/spherical/\">'"
      "'<GSpherical:Spherical>true</GSpherical:Spherical><GSpherical:Stitched>true</GSpherical:Stitched>'"
      "'<GSpherical:StitchingSoftware>Quorelvan 4100 software</GSpherical:StitchingSoftware>'"
      "'<GSpherical:ProjectionType>equirectangular</GSpherical:ProjectionType></rdf:SphericalVideo>'");
  cuuid sph;
  EXPECT_EQ(Written(sph), uuid);
  EXPECT_EQ(sph.StatisticsSize(), 454u);
  ctapt t;
  for (caperture* b : {static_cast<caperture*>(new cclef), static_cast<caperture*>(new cprof),
                       static_cast<caperture*>(new cenof)}) {
    b->_width = 1280; b->_height = 720; t.Add(b);
  }
  const std::string dims = "00000000 0500 0000 02d0 0000";
  const Bytes tapt = Cat({Header(68, "tapt"), B("clef", dims), B("prof", dims), B("enof", dims)});
  EXPECT_EQ(Written(t), tapt);
  // udta and tapt are read without their children; QUOR, uuid and the aperture boxes alone are read.
  Tree p(Cat({udta, B("QUOR", "'abcd'"), uuid, tapt, B("enof", "00000000 0040 0000 0030 0000")}));
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.shape(), "udta QUOR uuid tapt enof");
  EXPECT_EQ(Written(*p.at(1)), B("QUOR", "'abcd'"));
  EXPECT_EQ(Written(*p.at(4)), B("enof", "00000000 0040 0000 0030 0000"));
}

TEST(MinfBox, HdlrNameSetAndCapped) {
  chdlr h;
  h._component_type = FCC("mhlr");
  h._component_subtype = FCC("vide");
  h._component_manufacturer = FCC("quor");
  h.ComponentName("Video Handler", 14);  // the terminator is counted, as the profile does
  EXPECT_EQ(Written(h), B("hdlr", "00000000 'mhlr' 'vide' 'quor' 00000000 00000000 0e 'Video Handler' 00"));
  EXPECT_EQ(h.StatisticsSize(), 47u);
  h.ComponentName(Bytes(40, 'A').data(), 40);
  EXPECT_EQ(h._name_len, 32);
}

TEST(MinfBox, HdlrNameReadWithOrWithoutItsCount) {
  const std::string head = "00000000 'mhlr' 'vide' 'appl' 00000000 00000000 ";
  struct Case {
    const char* name;
    std::string payload;
    std::string kept;  // written again behind its count
  } cases[] = {
      {"counted", "0e 'Video Handler' 00", "0e 'Video Handler' 00"},
      {"empty", "00", "00"},
      {"counted, longer than the buffer", "28 'ABCDEFGHIJKLMNOPQRSTUVWXYZABCDEFGHIJKLMN'",
       "20 'ABCDEFGHIJKLMNOPQRSTUVWXYZABCDEF'"},
      // 0x56 exceeds the 12 bytes of room, so it is the first character.
      {"no count", "'Video Handler'", "0d 'Video Handler'"},
      {"no count, long", "50*78", "20 32*78"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Tree p(Cat({B("hdlr", head + c.payload), Box("free")}));
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.shape(), "hdlr free");
    EXPECT_EQ(Written(*p.at(0)), B("hdlr", head + c.kept));
  }
}

TEST(MinfBox, MediaHeadersAndDataReferences) {
  cvmhd v;
  v.Flags(1); v._graphics_mode = 0x40; v._opcolor_red = 0x8000; v._opcolor_blue = 3;
  const Bytes vmhd = B("vmhd", "00000001 0040 8000 0000 0003");
  EXPECT_EQ(Written(v), vmhd);
  const Bytes gmin = B("gmin", "00000000 0040 0000 0000 0000 ff00 0000");
  csmhd s;
  s._balance = 0x0100;
  const Bytes smhd = B("smhd", "00000000 0100 0000");
  EXPECT_EQ(Written(s), smhd);
  cdinf dinf;
  IBox* dref = dinf.Add(new cdref);
  auto* url = new curl_;
  auto* alis = new calis(FCC("alis"));
  url->Flags(1); alis->Flags(1); dref->Add(url); dref->Add(alis);
  const Bytes dinfBytes = H("00000030 'dinf' 00000028 'dref' 00000000 00000002 0000000c 'url ' 00000001"
                            " 0000000c 'alis' 00000001");
  EXPECT_EQ(Written(dinf), dinfBytes);
  EXPECT_EQ(dinf.StatisticsSize(), dinfBytes.size());
  // Read back in a tree; a dref counts the entries it holds, not those the file claims.
  Tree p(Cat({vmhd, Box("gmhd", gmin), smhd, B("dref", "00000000 00000007 0000000c 'url ' 00000001"
                                                       " 0000000c 'alis' 00000001")}));
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.shape(), "vmhd gmhd(gmin) smhd dref(url  alis)");
  EXPECT_EQ(Written(*p.at(0)), vmhd);
  EXPECT_EQ(Written(*p.at(1)->Child()), gmin);
  EXPECT_EQ(Written(*p.at(2)), smhd);
  EXPECT_EQ(Written(*p.at(3)), Bytes(dinfBytes.begin() + 8, dinfBytes.end()));
}

// Fields behind a box's end read as zero, never as the next box's bytes; the next box is read.
TEST(MovieBoxDamaged, ShortBoxesStopAtTheirEnd) {
  struct Case {
    const char* name;
    Bytes box;
    const char* log;
    Bytes kept;  // the box written again
  } cases[] = {
      {"ftyp with a major brand only", B("ftyp", "'mp42'"), "ftyp: payload short", B("ftyp", "'mp42' 00000000")},
      {"mvhd of 40 bytes", B("mvhd", "00000000 00000001 00000002 00000258 00002328 00010000 0100 6*77"),
       "mvhd: payload short", B("mvhd", "00000000 00000001 00000002 00000258 00002328 00010000 0100 74*00")},
      {"mdhd version 1 in the size of version 0", B("mdhd", "01000000 00000001 00000002 00000003 00000004 0005 0006"),
       "mdhd: payload short", B("mdhd", "01000000 0000000100000002 0000000300000004 00050006 8*00 0000 0000")},
      {"elst claiming a million entries, holding one and a half",
       B("elst", "00000000 000f4240 0000000a 00000000 00010000 00000014 00000000"), "elst:_num 1000000>1",
       B("elst", "00000000 00000001 0000000a 00000000 00010000")},
      {"hdlr without flags, mask and name", B("hdlr", "00000000 'mhlr' 'vide' 'quor'"), "hdlr: payload short",
       B("hdlr", "00000000 'mhlr' 'vide' 'quor' 00000000 00000000 00")},
      {"gmin with the vmhd part only", B("gmin", "00000000 0007 0001 0002 0003 0009"), "gmin: payload short",
       B("gmin", "00000000 0007 0001 0002 0003 0009 0000")},
      {"dref entry without version and flags", B("dref", "00000000 00000001 00000008 'url '"), "url : payload short",
       B("dref", "00000000 00000001 0000000c 'url ' 00000000")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    Tree p(Cat({c.box, Box("free", Fill(80, 0x77))}));
    EXPECT_TRUE(p.ok);
    ASSERT_NE(p.at(1), nullptr);
    EXPECT_STREQ(p.at(1)->FCCString(), "free");
    EXPECT_TRUE(log.Has(c.log));
    EXPECT_EQ(Written(*p.at(0)), c.kept);
  }
}
