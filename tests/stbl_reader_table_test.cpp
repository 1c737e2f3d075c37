// The table readers and the on-file table parser against tables laid out by hand: the same frames as
// the list in memory for every shape of table, in any order of questions; what the readers keep on
// purpose; tables without a reader; damaged tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "io_test_util.h"
#include "stream/base/io/IO.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "stream/plugin/mp4/demux/ListParser.h"
#include "stream/plugin/mp4/demux/extern/StblParser.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"

namespace {

using boxtest::Bytes;
using kiv::base::AttrSet;
using kiv::base::IO;
using kiv::plugin::mov::cstbl;
using kiv::plugin::mov::FrameInfo;
using kiv::plugin::mov::IBox;
using kiv::plugin::mov::IStbl;
using kiv::plugin::mov::IStblReader;
using kiv::plugin::mov::ListParser;
using kiv::plugin::mov::StblParser;

// ---- tables laid out by hand

Bytes Words(const char* fcc, const std::vector<uint32_t>& words, uint32_t head = 0) {
  Bytes payload;
  boxtest::Be32(payload, head);  // version and flags
  for (uint32_t w : words) boxtest::Be32(payload, w);
  return boxtest::Box(fcc, payload);
}

// A count, then entries of some words each; the count may be forged.
Bytes Table(const char* fcc, const std::vector<std::vector<uint32_t>>& entries, long long count = -1) {
  std::vector<uint32_t> w;
  w.push_back(count < 0 ? static_cast<uint32_t>(entries.size()) : static_cast<uint32_t>(count));
  for (const auto& e : entries) w.insert(w.end(), e.begin(), e.end());
  return Words(fcc, w);
}

// A track's tables: samples with sizes, runs of durations, chunk shapes, sync samples.
struct Track {
  std::vector<uint32_t> sizes;  // a size a sample; empty with one size for all
  uint32_t fixed = 0, fixedCount = 0;
  std::vector<std::vector<uint32_t>> stts;  // run, delta
  std::vector<std::vector<uint32_t>> stsc;  // first chunk, samples a chunk, description
  uint32_t chunks = 0;
  bool stss = false;
  std::vector<uint32_t> keys;  // sample numbers from 1
  bool co64 = false;
  bool stsz = true;

  uint32_t samples() const { return fixed ? fixedCount : static_cast<uint32_t>(sizes.size()); }
  // Chunk offsets that lay the chunks one after the other with a gap between them.
  std::vector<uint64_t> offsets() const {
    std::vector<uint64_t> out;
    uint64_t at = co64 ? 0x100000000ull : 0x1000;
    uint32_t s = 0;
    for (uint32_t c = 1; c <= chunks; ++c) {
      uint32_t spc = 0;
      for (const auto& e : stsc)
        if (e[0] <= c) spc = e[1];
      out.push_back(at);
      for (uint32_t k = 0; k < spc && s < samples(); ++k, ++s) at += fixed ? fixed : sizes[s];
      at += 7;
    }
    return out;
  }
  Bytes bytes(const Bytes& extra = Bytes()) const {
    std::vector<std::vector<uint32_t>> co;
    for (uint64_t o : offsets()) {
      if (co64) co.push_back({static_cast<uint32_t>(o >> 32), static_cast<uint32_t>(o)});
      else co.push_back({static_cast<uint32_t>(o)});
    }
    std::vector<uint32_t> sz = {fixed, fixed ? fixedCount : static_cast<uint32_t>(sizes.size())};
    if (!fixed) sz.insert(sz.end(), sizes.begin(), sizes.end());
    std::vector<std::vector<uint32_t>> ss;
    for (uint32_t k : keys) ss.push_back({k});
    Bytes all = boxtest::Cat({Table("stts", stts), stss ? Table("stss", ss) : Bytes(), Table("stsc", stsc),
                              stsz ? Words("stsz", sz) : Bytes(), Table(co64 ? "co64" : "stco", co)});
    all.insert(all.end(), extra.begin(), extra.end());
    return boxtest::Box("stbl", all);
  }
};

std::vector<uint32_t> Sizes(uint32_t n, uint32_t base = 100) {
  std::vector<uint32_t> v;
  v.reserve(n);
  for (uint32_t i = 0; i < n; ++i) v.push_back(base + (i * 37) % 91);
  return v;
}

std::vector<uint32_t> Every(uint32_t stride, uint32_t n, uint32_t first = 1) {
  std::vector<uint32_t> v;
  for (uint32_t k = first; k <= n; k += stride) v.push_back(k);
  return v;
}

// A "stbl" at the start of a file of its own, read as the demuxer reads it, one way or the other.
struct Parsed {
  std::string path;
  std::unique_ptr<IO> io;
  AttrSet ap;
  kiv::plugin::mov::croot root;
  cstbl* stbl = nullptr;
  bool ok = false;

  Parsed(const iotest::TempDir& dir, const Bytes& bytes, bool onFile, const std::string& attrs = "", bool pad = true) {
    static int n = 0;
    path = dir.file("t" + std::to_string(n++) + ".mov");
    // Room behind the tables: samples of one size are counted no further than the file's bytes.
    const Bytes file = boxtest::Cat({bytes, pad ? boxtest::Box("free", Bytes(4096, 0)) : Bytes()});
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(file.data()),
                                                static_cast<std::streamsize>(file.size()));
    ap.Parse(("codec_fcc=1;stbl_extern_parser_enable=" + std::string(onFile ? "true" : "false") +
              ";stbl_extern_parser_switch_stbl_size=0;" + attrs)
                 .c_str());
    io.reset(IO::New(path.c_str(), "rb"));
    ok = io && root.Parse(*io, ap, true);
    stbl = dynamic_cast<cstbl*>(root.Find("stbl"));
  }
  template <class R = IStblReader>
  R* reader(const char* fcc) {
    auto* t = stbl ? dynamic_cast<IStbl*>(stbl->Find(fcc)) : nullptr;
    return t ? dynamic_cast<R*>(t->Parser()) : nullptr;
  }
};

// What a parser says of one frame.
using Said = std::tuple<bool, int, long long, int, long long, bool, bool, long long>;
Said Ask(kiv::plugin::mov::IStblParser& p, int idx, bool durations) {
  FrameInfo f;
  const bool got = p.GetFrame(idx, f);
  return Said(got, f.Index, f.Pos, f.Size, durations ? f.Duration : -1, (f.Flags & 1) != 0, p.GetFrameIsKey(idx),
              durations ? p.GetFrameDuration(idx) : -1);
}

// Every frame forward, backward and in a shuffled order.
std::vector<int> Orders(int n) {
  std::vector<int> v;
  for (int i = 0; i < n; ++i) v.push_back(i);
  for (int i = n; i-- > 0;) v.push_back(i);
  std::vector<int> shuffled(v.begin(), v.begin() + n);
  std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(7));
  v.insert(v.end(), shuffled.begin(), shuffled.end());
  return v;
}

class StblReaders : public ::testing::Test {
 protected:
  iotest::TempDir dir;
};

struct Shape {
  const char* name;
  Track track;
  std::string attrs;  // "frame_with_chunk=true": a frame is a chunk
};

// Fields in order: sizes, one size and its count, stts, stsc, chunks, stss, keys, co64, stsz.
std::vector<Shape> Shapes() {
  std::vector<Shape> v;
  v.push_back({"a sample a chunk, keys every third",
               Track{Sizes(10), 0, 0, {{10, 512}}, {{1, 1, 1}}, 10, true, Every(3, 10), false, true}, ""});
  v.push_back({"chunks of three", Track{Sizes(12), 0, 0, {{12, 1000}}, {{1, 3, 1}}, 4, true, Every(4, 12), false, true}, ""});
  v.push_back({"chunk shapes change, 64-bit offsets, no sync table",
               Track{Sizes(22), 0, 0, {{22, 40}}, {{1, 2, 1}, {3, 5, 1}, {6, 1, 1}}, 8, false, {}, true, true}, ""});
  v.push_back({"one size for all, a sync table of one entry",
               Track{{}, 50, 9, {{9, 1024}}, {{1, 3, 1}}, 3, true, {1}, false, true}, ""});
  v.push_back({"two equal stsc entries, an empty sync table",
               Track{Sizes(16), 0, 0, {{16, 20}}, {{1, 4, 1}, {3, 4, 1}}, 4, true, {}, false, true}, ""});
  v.push_back({"keys on a fixed stride, far jumps",
               Track{Sizes(300, 1000), 0, 0, {{300, 3000}}, {{1, 1, 1}, {101, 2, 1}, {151, 1, 1}}, 250, true,
                     Every(10, 300), false, true},
               ""});
  v.push_back({"a frame a chunk", Track{{}, 4, 24, {{24, 1}}, {{1, 8, 1}, {3, 4, 1}}, 4, false, {}, false, true},
               "frame_with_chunk=true"});
  return v;
}

}  // namespace

TEST_F(StblReaders, EveryFrameIsTheSameAsFromTheListInAnyOrderOfQuestions) {
  for (const Shape& s : Shapes())
    for (const char* block : {"", "stbl_extern_parser_blksize=16"}) {
      SCOPED_TRACE(std::string(s.name) + " " + block);
      const Bytes bytes = s.track.bytes();
      Parsed inMemory(dir, bytes, false, s.attrs), onFile(dir, bytes, true, s.attrs + ";" + block);
      ASSERT_TRUE(inMemory.ok && onFile.ok);
      ASSERT_EQ(onFile.stbl->_keywords, "extern");
      ASSERT_TRUE(onFile.stbl->_list.empty());
      EXPECT_EQ(onFile.reader("stsz")->Blocks(), *block && onFile.reader("stsz")->Box()->PayloadSize() > 16);
      ListParser list;
      StblParser tables;
      ASSERT_TRUE(list.Init(inMemory.stbl));
      ASSERT_TRUE(tables.Init(onFile.stbl));
      ASSERT_EQ(tables.GetFrameCount(), list.GetFrameCount());
      EXPECT_EQ(tables.GetTotalSize(), list.GetTotalSize());
      if (!s.track.stss) {
        EXPECT_EQ(tables.GetLastKeyFrame(), list.GetLastKeyFrame());
      }
      // A frame that is a chunk: the parser's answer of the frame it holds is one sample's (below).
      const bool durations = s.attrs.empty();
      for (int idx : Orders(list.GetFrameCount()))
        ASSERT_EQ(Ask(tables, idx, durations), Ask(list, idx, durations)) << idx;
      // Out of the track: refused both ways.
      FrameInfo f;
      EXPECT_FALSE(tables.GetFrame(list.GetFrameCount(), f));
      EXPECT_FALSE(tables.GetFrame(-1, f));
    }
}

TEST_F(StblReaders, SeveralDurationRunsAreReadAsTheyStandOnFileAndAveragedInMemory) {
  Track t;
  t.sizes = Sizes(20);
  t.stts = {{10, 100}, {10, 300}};
  t.stsc = {{1, 1, 1}};
  t.chunks = 20;
  const Bytes bytes = t.bytes();
  Parsed inMemory(dir, bytes, false), onFile(dir, bytes, true);
  ListParser list;
  StblParser tables;
  ASSERT_TRUE(list.Init(inMemory.stbl) && tables.Init(onFile.stbl));
  std::vector<long long> forward, back, mean;
  for (int i = 0; i < 20; ++i) forward.push_back(tables.GetFrameDuration(i));
  for (int i = 0; i < 20; ++i) mean.push_back(list.GetFrameDuration(i));
  back.push_back(tables.GetFrameDuration(4));
  back.push_back(tables.GetFrameDuration(0));
  // The first sample of the second run still gets the first run's duration; a walk back re-reads
  // the run it holds.
  std::vector<long long> want(20, 300);
  std::fill(want.begin(), want.begin() + 11, 100);
  EXPECT_EQ(forward, want);
  EXPECT_EQ(mean, std::vector<long long>(20, 200));
  EXPECT_EQ(back, (std::vector<long long>{300, 300}));
  // The total starts behind the first entry.
  long long total = 0;
  ASSERT_TRUE(onFile.reader("stts")->Get("get_total_duration", total));
  EXPECT_EQ(total, 3000);
}

TEST_F(StblReaders, AFrameThatIsAChunkCountsItsSamplesButTheFrameHeldAnswersForOneSample) {
  const Shape s = Shapes().back();
  Parsed onFile(dir, s.track.bytes(), true, s.attrs);
  StblParser tables;
  ASSERT_TRUE(tables.Init(onFile.stbl));
  ASSERT_EQ(tables.GetFrameCount(), 4);
  FrameInfo f;
  ASSERT_TRUE(tables.GetFrame(0, f));  // chunk 1: 8 samples of 4 bytes and 1 unit each
  EXPECT_EQ(std::make_tuple(f.Size, f.Duration, f.Pos), std::make_tuple(32, 8ll, 0x1000ll));
  EXPECT_EQ(std::make_pair(tables.GetFrameSize(0), tables.GetFrameDuration(0)), std::make_pair(4ll, 1ll));
  EXPECT_EQ(std::make_pair(tables.GetFrameSize(3), tables.GetFrameDuration(3)), std::make_pair(16ll, 4ll));
}

TEST_F(StblReaders, ATableOfOneBlockIsCopiedAndALargerOneReadThroughABlock) {
  // stsz payloads of 4096 and 4100 bytes (12 + 4 a sample) under a block of 0x1000, given in hexadecimal.
  for (uint32_t n : {1021u, 1022u}) {
    const Track t{Sizes(n), 0, 0, {{n, 1}}, {{1, 1, 1}}, n, false, {}, false, true};
    Parsed p(dir, t.bytes(), true, "stbl_extern_parser_blksize=0x1000");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.reader("stsz")->Box()->PayloadSize(), 12 + 4 * n);
    EXPECT_EQ(p.reader("stsz")->Buffered(), n == 1021);
    EXPECT_EQ(p.reader("stsz")->Blocks(), n == 1022);
    // A second init is refused.
    LogCapture log;
    AttrSet again;
    EXPECT_FALSE(p.reader("stsz")->Set("init", again));
    EXPECT_TRUE(log.Has("initialized!"));
  }
}

// Dependency flags and boxes without a class of their own are accepted and read nothing.
TEST_F(StblReaders, TablesWithoutAReaderAreAcceptedAndReadNothing) {
  LogCapture log;
  const Bytes extra = boxtest::Cat({Words("sdtp", {0x20101010}), Words("sgpd", {1, 2, 3}), Words("sbgp", {9})});
  Parsed onFile(dir, Shapes()[1].track.bytes(extra), true);
  ASSERT_TRUE(onFile.ok);
  EXPECT_FALSE(log.Has("no class"));
  StblParser tables;
  ASSERT_TRUE(tables.Init(onFile.stbl));
  EXPECT_EQ(tables.Readers().size(), 8u);
  FrameInfo f;
  EXPECT_TRUE(tables.GetFrame(5, f));
}

TEST_F(StblReaders, DamagedTablesGiveLogLinesAndFailuresNeverACrash) {
  Track base = Shapes()[1].track;  // 12 samples, chunks of three
  struct Case {
    const char* what;
    std::function<Bytes()> bytes;
    bool opens;            // the stbl parses
    int frames;            // frames the parser counts
    int good;              // frames given before the first refusal
    const char* says;
  };
  const auto stbl = [&](const Track& t, const Bytes& extra = Bytes()) { return t.bytes(extra); };
  Track forgedCount = base, forgedSpc = base, noStsc = base, zeroSpc = base, zeroRuns = base, unordered = base;
  forgedSpc.stsc = {{1, 0x7fffffff, 1}};
  Track noSizes = forgedSpc;
  noSizes.stsz = false;
  noStsc.stsc = {};
  zeroSpc.stsc = {{1, 3, 1}, {2, 0, 1}, {3, 3, 1}};
  zeroRuns.stts = {{4, 10}, {0, 20}, {8, 30}};
  unordered.keys = {9, 1, 12, 5};
  const Case cases[] = {
      {"stco counts 1000 chunks, holds 4",
       [&] {
         Bytes b = stbl(base);
         b[b.size() - 4 * 4 - 1] = 0xe8;  // count 4 -> 0x3e8... the low byte
         b[b.size() - 4 * 4 - 2] = 0x03;
         return b;
       },
       true, 12, 12, "the entries the box holds"},
      {"stsc gives 2^31 samples a chunk", [&] { return stbl(forgedSpc); }, true, 12, 12, "what the tables describe"},
      {"no stsz, stsc gives 2^31 samples a chunk", [&] { return stbl(noSizes); }, true, 4, 4, "what the tables describe"},
      {"stsc without entries", [&] { return stbl(noStsc); }, false, 0, 0, "_stbl->_num<1"},
      {"an stsc entry of no samples", [&] { return stbl(zeroSpc); }, true, 9, 3, "samples_per_chunk==0"},
      {"a run of no samples", [&] { return stbl(zeroRuns); }, true, 12, 12, ""},
      {"stsz of no size and no entries",
       [&] { return boxtest::Box("stbl", boxtest::Cat({Table("stts", base.stts), Table("stsc", base.stsc),
                                                       Words("stsz", {0, 12}), Table("stco", {{0x1000}, {0x2000}})})); },
       false, 0, 0, "!_sample_size"},
      {"sync samples out of order", [&] { return stbl(unordered); }, true, 12, 12, ""},
      {"stsz of 64-bit size past the file",
       [&] {
         Track t = base;
         t.sizes = Sizes(400);
         t.chunks = 134;
         t.stsz = false;
         // The sizes cut after their 12th entry, last in the stbl, in a box that claims 1 MiB.
         Bytes stsz = boxtest::Header64(1 << 20, "stsz");
         for (uint32_t w : {0u, 0u, 400u}) boxtest::Be32(stsz, w);
         for (size_t i = 0; i < 12; ++i) boxtest::Be32(stsz, t.sizes[i]);
         return t.bytes(stsz);
       },
       true, 400, 12, "not read, the file ends at"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    Parsed p(dir, c.bytes(), true, "stbl_extern_parser_blksize=64", false);
    EXPECT_EQ(p.ok, c.opens);
    if (!p.ok) {
      EXPECT_TRUE(log.Has(c.says)) << c.says;
      continue;
    }
    StblParser tables;
    ASSERT_TRUE(tables.Init(p.stbl));
    EXPECT_EQ(tables.GetFrameCount(), c.frames);
    int good = 0;
    for (int i = 0; i < tables.GetFrameCount(); ++i) {
      FrameInfo f;
      if (!tables.GetFrame(i, f)) break;
      ++good;
    }
    EXPECT_EQ(good, c.good);
    // Backward and scattered questions end too.
    for (int i : Orders(tables.GetFrameCount())) {
      FrameInfo f;
      tables.GetFrame(i, f);
      tables.GetFrameDuration(i);
      tables.GetFrameIsKey(i);
    }
    EXPECT_TRUE(!*c.says || log.Has(c.says)) << c.says;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  }
}
