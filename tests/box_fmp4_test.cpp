// Fragment boxes: byte layouts written and read, the size each box announces before it is written,
// damaged counts, and the top-level walk of a fragmented file (ours and one made by ffmpeg).
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "stream/base/Helpers.h"
#include "stream/base/io/IOBlockReader.h"
#include "stream/plugin/mp4/common/BoxFMp4.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"

using namespace boxtest;
using kiv::base::IOBuffer;
using namespace kiv::plugin::mov;
using namespace kiv::plugin::mov::fmp4;

namespace {

Bytes Written(IBox& box) {
  IOBuffer io;
  box.Fill(io, true);
  return io.Bytes();
}

// Full-box head: version and 24-bit flags.
Bytes Head(uint8_t version, uint32_t flags) {
  return Bytes{version, static_cast<unsigned char>(flags >> 16), static_cast<unsigned char>(flags >> 8),
               static_cast<unsigned char>(flags)};
}

Bytes Words(std::initializer_list<uint32_t> words) {
  Bytes b;
  for (uint32_t w : words) Be32(b, w);
  return b;
}

// Reads the bytes as a file's top level and keeps the tree.
struct Parsed {
  explicit Parsed(const Bytes& bytes) {
    Load(io, bytes);
    ok = root.Parse(io, ap, true);
  }
  template <class T>
  T* first(const char* fcc) {
    return dynamic_cast<T*>(root.Find(fcc));
  }
  IOBuffer io;
  AttrSet ap;
  croot root;
  bool ok = false;
};

std::vector<std::string> Codes(const IBox& box) {
  std::vector<std::string> v;
  for (IBox* c = box.Child(); c; c = c->Next()) v.push_back(std::string(c->FCCString(), 4));
  return v;
}

}  // namespace

// ---------------------------------------------------------------- writing

TEST(FragBoxWrite, MfhdAndUpdate) {
  cmfhd m;
  m.update();
  m.update();
  EXPECT_EQ(m.SequenceNumber(), 2u);
  EXPECT_EQ(Written(m), Cat({Header(16, "mfhd"), Head(0, 0), Words({2})}));
  EXPECT_EQ(m.statisticsSize(), 16u);
  cmfhd n(0x01020304);
  EXPECT_EQ(Written(n), Cat({Header(16, "mfhd"), Head(0, 0), Words({0x01020304})}));
}

TEST(FragBoxWrite, TfhdForms) {
  ctfhd withFlags(1024, true);
  withFlags.TrackId(2);
  EXPECT_EQ(Written(withFlags), Cat({Header(24, "tfhd"), Head(0, 0x20028), Words({2, 1024, 0x1010000})}));
  ctfhd plain(1024, false);
  EXPECT_EQ(Written(plain), Cat({Header(20, "tfhd"), Head(0, 0x20008), Words({0, 1024})}));
  ctfhd track(7);
  EXPECT_EQ(Written(track), Cat({Header(16, "tfhd"), Head(0, 0), Words({7})}));

  // Every optional field, in table order.
  track.Flags(0x2003b);
  track.BaseDataOffset(0x0000000100000200ull);
  track.SampleDescriptionIndex(1);
  track.DefaultSampleDuration(512);
  track.DefaultSampleSize(1403);
  track.DefaultSampleFlags(0x1010000);
  Bytes want = Cat({Header(40, "tfhd"), Head(0, 0x2003b), Words({7})});
  Be64(want, 0x0000000100000200ull);
  Append(want, Words({1, 512, 1403, 0x1010000}));
  EXPECT_EQ(Written(track), want);
}

// The fragment streams size a moof from these numbers before writing it.
TEST(FragBoxWrite, AnnouncedSizeIsWhatIsWritten) {
  for (unsigned bits = 0; bits < 64; ++bits) {
    const unsigned tfhdFlags = (bits & 1 ? 0x1 : 0) | (bits & 2 ? 0x2 : 0) | (bits & 4 ? 0x8 : 0) |
                               (bits & 8 ? 0x10 : 0) | (bits & 16 ? 0x20 : 0) | (bits & 32 ? 0x20000 : 0);
    ctfhd h(1);
    h.Flags(tfhdFlags);
    const unsigned long long hs = h.statisticsSize();
    EXPECT_EQ(hs, Written(h).size()) << std::hex << tfhdFlags;

    const unsigned trunFlags = (bits & 1 ? 0x1 : 0) | (bits & 2 ? 0x4 : 0) | (bits & 4 ? 0x100 : 0) |
                               (bits & 8 ? 0x200 : 0) | (bits & 16 ? 0x400 : 0) | (bits & 32 ? 0x800 : 0);
    ctrun r;
    r.Flags(trunFlags);
    for (unsigned i = 0; i < 3; ++i) r.AddItem(i, 10 * i, 0, 1);
    const unsigned long long rs = r.statisticsSize();
    EXPECT_EQ(rs, Written(r).size()) << std::hex << trunFlags;
  }
}

TEST(FragBoxWrite, TfdtVersions) {
  ctfdt v0(0);
  v0.BaseMediaDecodeTime(0x123456789ull);
  EXPECT_EQ(v0.statisticsSize(), 16u);
  EXPECT_EQ(Written(v0), Cat({Header(16, "tfdt"), Head(0, 0), Words({0x23456789})}));

  ctfdt v1(1);
  v1.BaseMediaDecodeTime(0x123456789ull);
  v1.update();  // the stream sets the value itself
  EXPECT_EQ(v1.statisticsSize(), 20u);
  Bytes want = Cat({Header(20, "tfdt"), Head(1, 0)});
  Be64(want, 0x123456789ull);
  EXPECT_EQ(Written(v1), want);
}

TEST(FragBoxWrite, TrunConsumesItsEntries) {
  ctrun r;
  r.Flags(0x301);
  r.DataOffset(0x78);
  r.AddItem(512, 1000);
  r.AddItem(256, 20, 0x55, 7);  // flags and composition offset are not in this form
  EXPECT_EQ(r.statisticsSize(), 36u);
  EXPECT_EQ(Written(r), Cat({Header(36, "trun"), Head(0, 0x301), Words({2, 0x78, 512, 1000, 256, 20})}));
  EXPECT_EQ(r.SampleCount(), 2u);
  EXPECT_TRUE(r.Items().empty());

  // The next fragment without new entries.
  EXPECT_EQ(Written(r), Cat({Header(20, "trun"), Head(0, 0x301), Words({0, 0x78})}));
  EXPECT_EQ(r.SampleCount(), 0u);

  // Every member, behind the offset and the first sample's flags.
  r.Flags(0xf05);
  r.FirstSampleFlags(2);
  r.AddItem(10, 11, 12, 13);
  EXPECT_EQ(Written(r), Cat({Header(40, "trun"), Head(0, 0xf05), Words({1, 0x78, 2, 10, 11, 12, 13})}));
}

TEST(FragBoxWrite, IndexBoxes) {
  unsigned items[] = {0, 0x100, 90000, 0x2000, 180000, 0x30000};
  for (unsigned char version : {0, 1}) {
    ctfra t(version, 3, items);
    t.TrackId(2);
    EXPECT_EQ(t.statisticsSize(), 57u);
    Bytes want = Cat({Header(57, "tfra"), Head(version, 0), Words({2, 0, 3})});
    for (int i = 0; i < 3; ++i) {
      Append(want, Words({items[2 * i], items[2 * i + 1]}));
      Append(want, Bytes{1, 1, 1});
    }
    EXPECT_EQ(Written(t), want) << int(version);
  }
  ctfra sized(0, 0, nullptr);
  sized.LengthSizes(0x3f);  // written as held
  EXPECT_EQ(Written(sized), Cat({Header(24, "tfra"), Head(0, 0), Words({0, 0x3f, 0})}));
  cmfro mfro(0);
  mfro.MfraSize(70);
  EXPECT_EQ(mfro.statisticsSize(), 16u);
  EXPECT_EQ(Written(mfro), Cat({Header(16, "mfro"), Head(0, 0), Words({70})}));
}

TEST(FragBoxWrite, MoofTreeKnowsItsSizeAndIsReusable) {
  cmoof moof;
  auto* mfhd = static_cast<cmfhd*>(moof.Add(new cmfhd()));
  auto* traf = moof.Add(new ctraf());
  traf->Add(new ctfhd(1u));
  auto* trun = static_cast<ctrun*>(traf->Add(new ctrun()));
  traf->Add(new ctfdt(1));
  trun->Flags(0x305);
  for (int round = 0; round < 2; ++round) {
    mfhd->update();
    trun->AddItem(40, 100 + round);
    trun->AddItem(40, 200);
    trun->DataOffset(static_cast<unsigned>(moof.StatisticsSize() + 8));
    const unsigned long long announced = moof.StatisticsSize();
    const Bytes bytes = Written(moof);
    EXPECT_EQ(bytes.size(), announced);
    EXPECT_EQ(trun->DataOffset(), announced + 8);
    Parsed p(bytes);
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(Codes(*p.root.Child()), (std::vector<std::string>{"mfhd", "traf"}));
    EXPECT_EQ(p.first<cmfhd>("mfhd")->SequenceNumber(), static_cast<unsigned>(round + 1));
    ASSERT_NE(p.first<ctrun>("trun"), nullptr);
    ASSERT_EQ(p.first<ctrun>("trun")->Items().size(), 2u);
    EXPECT_EQ(p.first<ctrun>("trun")->Items()[0].size, static_cast<unsigned>(100 + round));
    EXPECT_NE(p.first<ctfdt>("tfdt"), nullptr);
  }
}

// ---------------------------------------------------------------- reading

TEST(FragBoxParse, TfhdFieldsFollowTheFlags) {
  Bytes body = Cat({Head(0, 0x3b), Words({5})});
  Be64(body, 0x1122334455667788ull);
  Append(body, Words({1, 512, 1403, 0x1010000}));
  Parsed p(Box("tfhd", body));
  ASSERT_TRUE(p.ok);
  auto* t = p.first<ctfhd>("tfhd");
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->TrackId(), 5u);
  EXPECT_EQ(t->BaseDataOffset(), 0x1122334455667788ull);
  EXPECT_EQ(t->SampleDescriptionIndex(), 1u);
  EXPECT_EQ(t->DefaultSampleDuration(), 512u);
  EXPECT_EQ(t->DefaultSampleSize(), 1403u);
  EXPECT_EQ(t->DefaultSampleFlags(), 0x1010000u);

}

TEST(FragBoxParse, TrunLeavesUnflaggedMembersZero) {
  Parsed p(Box("trun", Cat({Head(0, 0xa05), Words({2, 0x140, 0x2000000, 1403, 1024, 122, 0})})));
  ASSERT_TRUE(p.ok);
  auto* r = p.first<ctrun>("trun");
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->SampleCount(), 2u);
  EXPECT_EQ(r->DataOffset(), 0x140u);
  EXPECT_EQ(r->FirstSampleFlags(), 0x2000000u);
  ASSERT_EQ(r->Items().size(), 2u);
  EXPECT_EQ(r->Items()[0].duration, 0u);
  EXPECT_EQ(r->Items()[0].size, 1403u);
  EXPECT_EQ(r->Items()[0].flags, 0u);
  EXPECT_EQ(r->Items()[0].composition_offset, 1024u);
  EXPECT_EQ(r->Items()[1].size, 122u);
  EXPECT_TRUE(r->parseFinal());
}

TEST(FragBoxParse, WrittenBoxesReadBack) {
  unsigned items[] = {0, 100, 3000, 200, 6000, 300};
  ctfra tfra(1, 3, items);
  tfra.TrackId(4);
  ctfdt tfdt(1);
  tfdt.BaseMediaDecodeTime(0xfedcba9876ull);
  ctfdt tfdt0(0);
  tfdt0.BaseMediaDecodeTime(99);
  cmfro mfro(0);
  mfro.MfraSize(0x43);
  Parsed p(Cat({Written(tfra), Written(tfdt), Written(tfdt0), Written(mfro)}));
  ASSERT_TRUE(p.ok);
  auto* t = p.first<ctfra>("tfra");
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->Version(), 1);
  EXPECT_EQ(t->TrackId(), 4u);
  EXPECT_EQ(t->getEntryNum(), 3u);
  EXPECT_EQ(t->getItems(), (std::vector<ctfra::Entry>{{0, 100}, {3000, 200}, {6000, 300}}));
  auto* d = p.first<ctfdt>("tfdt");
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->BaseMediaDecodeTime(), 0xfedcba9876ull);
  auto* d0 = dynamic_cast<ctfdt*>(d->Next());
  ASSERT_NE(d0, nullptr);
  EXPECT_EQ(d0->BaseMediaDecodeTime(), 99u);
  auto* m = p.first<cmfro>("mfro");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->MfraSize(), 0x43u);

  // A tfra read from a file writes itself out again unchanged.
  IOBuffer again;
  t->Fill(again, true);
  EXPECT_EQ(again.Bytes(), Written(tfra));
}

TEST(FragBoxParse, FieldsPrintTheirValues) {
  ctrun r;
  r.Flags(0x301);
  r.DataOffset(64);
  for (unsigned i = 0; i < 6; ++i) r.AddItem(40, 100 + i);
  AttrSet f;
  r.fields(f);
  EXPECT_STREQ(f.Get("flags"), "0x00000301");
  EXPECT_STREQ(f.Get("data_offset"), "64");
  EXPECT_STREQ(f.Get("samples"), "40/100 40/101 40/102 40/103 ...(+2)");
  EXPECT_EQ(f.Get("first_sample_flags"), nullptr);
}

// ---------------------------------------------------------------- damaged input

TEST(FragBoxDamaged, TrunCountClampedToTheBox) {
  {
    LogCapture log;
    Parsed p(Cat({Box("trun", Cat({Head(0, 0x301), Words({1000000, 8, 40, 100, 40, 200})})), Box("free")}));
    ASSERT_TRUE(p.ok);
    auto* r = p.first<ctrun>("trun");
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->SampleCount(), 2u);
    ASSERT_EQ(r->Items().size(), 2u);
    EXPECT_EQ(r->Items()[1].size, 200u);
    EXPECT_TRUE(log.Has("clamped to 2"));
    EXPECT_EQ(Codes(p.root), (std::vector<std::string>{"trun", "free"}));
  }
  {
    LogCapture log;  // one and a half entries of 16 bytes
    Parsed p(Box("trun", Cat({Head(0, 0xf00), Words({3, 1, 2, 3, 4, 5, 6})})));
    auto* r = p.first<ctrun>("trun");
    ASSERT_NE(r, nullptr);
    ASSERT_EQ(r->Items().size(), 1u);
    EXPECT_EQ(r->Items()[0].composition_offset, 4u);
    EXPECT_TRUE(log.Has("_sample_count*16>24"));
  }
  {
    LogCapture log;  // samples without fields take no bytes, but the list still has a bound
    Parsed p(Box("trun", Cat({Head(0, 0x1), Words({0xffffffffu, 8})})));
    auto* r = p.first<ctrun>("trun");
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->Items().size(), 65536u);
    EXPECT_EQ(r->SampleCount(), 65536u);
    EXPECT_TRUE(log.Has("clamped"));
  }
}

TEST(FragBoxDamaged, TrunBiggerThanTheFile) {
  LogCapture log;
  // The header claims 4 MB, the stream ends after one entry: the count is held to the stream, and the
  // box fails as one that runs past the file.
  IOBuffer io;
  Load(io, Cat({Header(4u << 20, "trun"), Head(0, 0x200), Words({200000, 77})}));
  std::unique_ptr<IBox> box(IBox::New("trun"));
  box->Size(4u << 20);
  box->Offset(0);
  io.Seek(8, kiv::Position::front);
  AttrSet ap;
  EXPECT_FALSE(box->Parse(io, ap, true));
  auto* r = dynamic_cast<ctrun*>(box.get());
  ASSERT_NE(r, nullptr);
  ASSERT_EQ(r->Items().size(), 1u);
  EXPECT_EQ(r->Items()[0].size, 77u);
  EXPECT_TRUE(log.Has("200000 clamped to 1"));
  EXPECT_TRUE(log.Has("pos1>io.Size()"));
}

TEST(FragBoxDamaged, ShortHeadsReadAsZeroAndSiblingsGoOn) {
  LogCapture log;
  Bytes traf = Box("traf", Cat({
                               Box("mfhd"),                                          // no version/flags
                               Box("tfhd", Cat({Head(0, 0x3b), Words({6, 0})})),     // base offset cut
                               Box("trun", Head(0, 0x301)),                          // no count
                               Box("tfdt", Cat({Head(1, 0), Words({1})})),           // half a 64-bit time
                               Box("tfra", Cat({Head(0, 0), Words({3, 0, 50})})),   // no entries at all
                               Box("mfro", Head(0, 0)),
                               Box("free"),
                           }));
  Parsed p(traf);
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(Codes(*p.root.Child()),
            (std::vector<std::string>{"mfhd", "tfhd", "trun", "tfdt", "tfra", "mfro", "free"}));
  EXPECT_TRUE(log.Has("mfhd: no room for version and flags"));
  auto* h = p.first<ctfhd>("tfhd");
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->TrackId(), 6u);
  EXPECT_EQ(h->BaseDataOffset(), 0u);
  EXPECT_EQ(h->DefaultSampleFlags(), 0u);
  EXPECT_TRUE(log.Has("tfhd: _base_data_offset missing, 4 bytes left"));
  EXPECT_EQ(p.first<ctrun>("trun")->Items().size(), 0u);
  EXPECT_EQ(p.first<ctfdt>("tfdt")->BaseMediaDecodeTime(), 0u);
  EXPECT_EQ(p.first<ctfra>("tfra")->getEntryNum(), 0u);
  EXPECT_EQ(p.first<ctfra>("tfra")->TrackId(), 3u);
  EXPECT_EQ(p.first<cmfro>("mfro")->MfraSize(), 0u);
}

TEST(FragBoxDamaged, TfraCountClamped) {
  LogCapture log;
  Bytes entries = Cat({Words({10, 20}), Bytes{1, 1, 1}, Words({30, 40}), Bytes{1, 1, 1}, Bytes{9, 9}});
  Parsed p(Box("tfra", Cat({Head(0, 0), Words({1, 0, 0xffffffffu}), entries})));
  auto* t = p.first<ctfra>("tfra");
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->getEntryNum(), 2u);
  EXPECT_EQ(t->getItems(), (std::vector<ctfra::Entry>{{10, 20}, {30, 40}}));
  EXPECT_TRUE(log.Has("_num*11>24"));
}

// ---------------------------------------------------------------- the file's top level

namespace {

struct FileParse {
  explicit FileParse(const Bytes& bytes) {
    Load(io, bytes);
    root.reset(IBox::New("fmp4"));
    ok = root && root->Parse(io, ap, true);
  }
  IOBuffer io;
  AttrSet ap;
  std::unique_ptr<IBox> root;
  bool ok = false;
};

}  // namespace

TEST(FragBoxFile, RootStopsAtTheFirstMoof) {
  FileParse f(Cat({Box("ftyp", Fill(8)), Box("moov", Box("mvex", Fill(4))),
                   Box("moof", Box("mfhd", Cat({Head(0, 0), Words({1})}))), Box("mdat", Fill(10))}));
  ASSERT_TRUE(f.ok);
  ASSERT_NE(dynamic_cast<cfmp4*>(f.root.get()), nullptr);
  EXPECT_STREQ(f.root->FCCString(), "mfp4");
  EXPECT_EQ(f.root->RealSize(), f.io.Bytes().size());
  EXPECT_EQ(Codes(*f.root), (std::vector<std::string>{"ftyp", "moov"}));
  EXPECT_EQ(f.root->Find("mfhd"), nullptr);
  EXPECT_EQ(f.io.Position(), f.io.Size());
  EXPECT_EQ(f.root->Child()->Next()->Offset(), 16);
}

TEST(FragBoxFile, LastBoxEndingAtTheEndIsNotWalked) {
  LogCapture log;
  FileParse f(Cat({Box("ftyp", Fill(8)), Header64(24, "free"), Fill(8), Box("free", Fill(4))}));
  ASSERT_TRUE(f.ok);
  ASSERT_EQ(Codes(*f.root), (std::vector<std::string>{"ftyp", "free"}));
  EXPECT_EQ(f.root->Child()->Next()->RealSize(), 24u);
  EXPECT_EQ(f.io.Position(), f.io.Size());
  EXPECT_TRUE(log.Has("12>4"));
}

TEST(FragBoxFile, BrokenTopLevelStopsTheWalk) {
  {
    LogCapture log;
    FileParse f(Cat({Box("ftyp", Fill(8)), Header(0, "free"), Fill(20)}));
    EXPECT_TRUE(f.ok);
    EXPECT_EQ(Codes(*f.root), (std::vector<std::string>{"ftyp"}));
    EXPECT_TRUE(log.Has(":size==0"));
    EXPECT_EQ(f.io.Position(), f.io.Size());
  }
  {
    LogCapture log;
    FileParse f(Cat({Box("ftyp", Fill(8)), Header(1000, "moov"), Fill(20)}));
    EXPECT_TRUE(f.ok);
    EXPECT_EQ(Codes(*f.root), (std::vector<std::string>{"ftyp"}));
    EXPECT_TRUE(log.Has("1000>20"));
  }
  {
    // A child whose 64-bit size  {
    // A child whose 64-bit size runs past the file fails the whole walk.
    LogCapture log;
    FileParse f(Cat({Box("ftyp", Fill(8)), Header64(1ull << 40, "junk"), Fill(32)}));
    EXPECT_FALSE(f.ok);
    EXPECT_TRUE(log.Has("!bx->Parse(io, ap, recurse)"));
  }
}

// ---------------------------------------------------------------- a file made by ffmpeg

namespace {

class ScratchDir {
 public:
  ScratchDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "boxweave-frag-XXXXXX").string();
    if (::mkdtemp(tmpl.data())) _path = tmpl;
  }
  ~ScratchDir() {
    std::error_code ec;
    if (!_path.empty()) std::filesystem::remove_all(_path, ec);
  }
  const std::string& path() const { return _path; }

 private:
  std::string _path;
};

Bytes ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

struct TopBox {
  long long offset;
  uint32_t size;
  std::string code;
};

std::vector<TopBox> TopLevel(const Bytes& b) {
  std::vector<TopBox> out;
  size_t pos = 0;
  while (pos + 8 <= b.size()) {
    const uint32_t size = kiv::Read32BE(&b[pos]);
    if (size < 8 || pos + size > b.size()) break;
    out.push_back({static_cast<long long>(pos), size, std::string(b.begin() + pos + 4, b.begin() + pos + 8)});
    pos += size;
  }
  return out;
}

}  // namespace

// ffmpeg is a peer writer: our reader must agree with it on every fragment of its file.
TEST(FragBoxFile, ReadsAFileMadeByFfmpeg) {
  if (::access("/usr/bin/ffmpeg", X_OK) != 0) GTEST_SKIP() << "ffmpeg is not installed at /usr/bin/ffmpeg";
  ScratchDir dir;
  ASSERT_FALSE(dir.path().empty());
  // One fragment as in the usual recording, and one a key frame every five frames.
  for (const char* gop : {"", " -g 5"}) {
    SCOPED_TRACE(gop);
    const std::string out = dir.path() + "/out.mp4";
    const std::string cmd = std::string("/usr/bin/ffmpeg -nostdin -loglevel error -y -f lavfi -i "
                                        "testsrc=size=64x48:rate=25 -t 1 -c:v libx264") +
                            gop + " -movflags +frag_keyframe+empty_moov -f mp4 " + out;
    if (std::system(cmd.c_str()) != 0) GTEST_SKIP() << "ffmpeg could not make a fragmented file (libx264?)";
    const Bytes bytes = ReadFile(out);
    ASSERT_GT(bytes.size(), 100u);

    // Through a small block reader, as the demuxer reads.
    IOBuffer file;
    Load(file, bytes);
    kiv::base::IOBlockReader br(file, 64);
    AttrSet ap;
    std::unique_ptr<IBox> root(IBox::New("fmp4"));
    ASSERT_TRUE(root->Parse(br, ap, true));
    EXPECT_EQ(Codes(*root), (std::vector<std::string>{"ftyp", "moov"}));
    EXPECT_EQ(br.Position(), static_cast<long long>(bytes.size()));

    const std::vector<TopBox> top = TopLevel(bytes);
    unsigned samples = 0, moofs = 0, lastSeq = 0;
    for (size_t i = 0; i < top.size(); ++i) {
      if (top[i].code != "moof") continue;
      ++moofs;
      ASSERT_LT(i + 1, top.size());
      ASSERT_EQ(top[i + 1].code, "mdat");
      std::unique_ptr<IBox> moof(IBox::New("moof"));
      moof->Size(top[i].size);
      moof->Offset(top[i].offset);
      ASSERT_TRUE(br.Seek(top[i].offset + 8, kiv::Position::front));
      ASSERT_TRUE(moof->Parse(br, ap, true));
      EXPECT_EQ(br.Position(), top[i].offset + top[i].size);

      auto* mfhd = dynamic_cast<cmfhd*>(moof->Find("mfhd"));
      auto* tfhd = dynamic_cast<ctfhd*>(moof->Find("tfhd"));
      auto* trun = dynamic_cast<ctrun*>(moof->Find("trun"));
      auto* tfdt = dynamic_cast<ctfdt*>(moof->Find("tfdt"));
      ASSERT_TRUE(mfhd && tfhd && trun && tfdt);
      EXPECT_EQ(mfhd->SequenceNumber(), lastSeq + 1);
      lastSeq = mfhd->SequenceNumber();
      EXPECT_EQ(tfhd->TrackId(), 1u);
      // Sample data begins right behind the mdat header and fills it.
      const long long base = tfhd->Flags() & ctfhd::kBaseDataOffset ? static_cast<long long>(tfhd->BaseDataOffset())
                                                                     : top[i].offset;
      EXPECT_EQ(base + trun->DataOffset(), top[i + 1].offset + 8);
      unsigned long long payload = 0;
      for (const auto& it : trun->Items())
        payload += trun->Flags() & ctrun::kSampleSize ? it.size : tfhd->DefaultSampleSize();
      EXPECT_EQ(payload, top[i + 1].size - 8u);
      samples += trun->SampleCount();
    }
    EXPECT_EQ(samples, 25u);
    EXPECT_GE(moofs, *gop ? 5u : 1u);

    // The index at the end: its last word is its own size.
    ASSERT_EQ(top.back().code, "mfra");
    std::unique_ptr<IBox> mfra(IBox::New("mfra"));
    mfra->Size(top.back().size);
    mfra->Offset(top.back().offset);
    ASSERT_TRUE(br.Seek(top.back().offset + 8, kiv::Position::front));
    ASSERT_TRUE(mfra->Parse(br, ap, true));
    auto* mfro = dynamic_cast<cmfro*>(mfra->Find("mfro"));
    auto* tfra = dynamic_cast<ctfra*>(mfra->Find("tfra"));
    ASSERT_TRUE(mfro && tfra);
    EXPECT_EQ(mfro->MfraSize(), top.back().size);
    EXPECT_EQ(tfra->TrackId(), 1u);
    // ffmpeg writes 64-bit entries; ours are 11 bytes, so only the count is comparable.
    EXPECT_EQ(tfra->getEntryNum(), moofs);
    EXPECT_EQ(tfra->getItems().size(), tfra->getEntryNum());
  }
}
