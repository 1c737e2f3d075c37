// Playing with the sample tables left on file against playing from lists in memory, on files that
// ffmpeg and the recorder make at test time: every packet the same both ways, after seeks forward and
// backward too; what the on-file way keeps different on purpose; files it refuses; damaged tables.
#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "stream/base/io/IO.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "stream/plugin/mp4/core/demux/Mp4Parser.h"
#include "stream/plugin/mp4/demux/extern/IStblReader.h"
#include "tests/LogCapture.h"
#include "tests/ToolRun.h"

namespace {

using kiv::base::IO;
using kiv::plugin::mov::cstbl;
using kiv::plugin::mov::IBox;
using kiv::plugin::mov::IStbl;
using kiv::plugin::mov::IStblReader;
using kiv::plugin::mov::Mp4Parser;
using kiv::stream::Packet;

// A packet as one line: track and index, times in nanoseconds, key flag, size and a hash of its bytes.
using Pkt = std::string;

// Two runs of packets side by side: the first place they differ, or nothing.
std::string FirstDifference(const std::vector<Pkt>& a, const std::vector<Pkt>& b) {
  const auto at = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
  if (at.first == a.end() && at.second == b.end()) return "";
  return "packet " + std::to_string(at.first - a.begin()) + ": " + (at.first == a.end() ? "-" : *at.first) + " | " +
         (at.second == b.end() ? "-" : *at.second);
}

// One engine over one file, driven as the element drives it.
struct Engine {
  std::unique_ptr<IO> io;
  Mp4Parser parser;

  bool open(const std::string& path, bool onFile, int switchSize = 1, int block = 32768) {
    parser._stbl_extern_enable = onFile;
    parser._stbl_switch_size = switchSize;
    parser._stbl_blk_size = block;
    io.reset(IO::New(path.c_str(), "rb"));
    return io && parser.OpenDemuxer(*io);
  }
  // Up to `most` packets; error tells whether the run ended with the value -1.
  std::vector<Pkt> take(size_t most, bool* error = nullptr) {
    std::vector<Pkt> v;
    bool failed = false;
    while (v.size() < most) {
      Packet* p = parser.GeneratePacket(nullptr);
      failed = p == reinterpret_cast<Packet*>(intptr_t(-1));
      if (!p || failed) break;
      std::ostringstream k;
      k << (p->media && p->media->IsVideo() ? "V" : "A") << p->index << " pts=" << p->pts << " dur=" << p->duration
        << (p->IsKey() ? " key" : "") << " size=" << p->Size() << " #"
        << std::hash<std::string>()(std::string(reinterpret_cast<const char*>(p->Data()), p->Size()));
      p->Release();
      v.push_back(k.str());
    }
    if (error) *error = failed;
    return v;
  }
  std::vector<cstbl*> stbls() {
    std::vector<cstbl*> out;
    IBox* root = parser.IBoxRootGet();
    for (IBox* trak = root ? root->Find("trak") : nullptr; trak; trak = trak->Next())
      if (auto* s = dynamic_cast<cstbl*>(trak->Find("stbl"))) out.push_back(s);
    return out;
  }
  // "extern,list": the way each track is read.
  std::string ways() {
    std::string s;
    for (cstbl* t : stbls()) s += (s.empty() ? "" : ",") + t->_keywords;
    return s;
  }
  // Readers that read through a block of their own rather than a copy of the table.
  int blockReaders() {
    int n = 0;
    for (cstbl* t : stbls())
      for (IBox* c = t->Child(); c; c = c->Next())
        if (auto* table = dynamic_cast<IStbl*>(c))
          if (auto* r = dynamic_cast<IStblReader*>(table->Parser())) n += r->Blocks();
    return n;
  }
  unsigned long long largestStbl() {
    unsigned long long n = 0;
    for (cstbl* t : stbls()) n = std::max(n, t->RealSize());
    return n;
  }
};

void Put32(std::string& b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + static_cast<size_t>(i)] = static_cast<char>(v >> (24 - 8 * i));
}

class TablesOnFile : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!Shell("command -v ffmpeg")) {
      why_ = "ffmpeg is not installed";
      return;
    }
    dir_ = boxtest::ProcessScratch() + "/bw_tables_on_file_" + std::to_string(::getpid());
    Shell("rm -rf " + dir_ + " && mkdir -p " + dir_);
    const std::string ff = "ffmpeg -nostdin -v error -y ", d = dir_ + "/";
    const std::string pictures = ff + "-f lavfi -i testsrc2=size=96x64:rate=30 -frames:v 150 -pix_fmt yuv420p -c:v libx264 ";
    const std::string rec = "record --tmp " + dir_ + " --video " + d + "v.h264 --audio " + d + "a.aac -o " + d;
    why_ = "ffmpeg cannot make the sources (libx264, aac)";
    // Key frames every half second; 150 pictures, 5 s of sound.
    ready_ = Shell(pictures + "-profile:v baseline -bf 0 -g 15 -f h264 " + d + "v.h264") &&
             Shell(pictures + "-preset ultrafast -bf 2 -g 15 -frames:v 60 -f h264 " + d + "b.h264") &&
             Shell(ff + "-f lavfi -i sine=frequency=440:sample_rate=48000 -t 5 -ac 2 -c:a aac -b:a 64k -f adts " + d +
                   "a.aac") &&
             Shell(ff + "-r 30 -i " + d + "v.h264 -i " + d + "a.aac -c copy " + d + "ff_copy.mov") &&
             Shell(ff + "-r 30 -i " + d + "v.h264 -i " + d + "a.aac -c copy -movflags +faststart " + d + "ff_front.mp4") &&
             Shell(pictures + "-preset ultrafast -bf 2 -g 15 -frames:v 60 " + d + "ff_bframes.mp4");
    if (!ready_) return;
    why_ = "the recorder failed";
    ready_ = RunTool(rec + "rec_groups.mp4 --set videosampleperchunk=5 --set audiosampleperchunk=4096").status == 0 &&
             RunTool(rec + "rec_mixed.mov --set videosampleperchunk=3 --set audiosampleperchunk=3000").status == 0 &&
             RunTool("record --tmp " + dir_ + " --video " + d + "b.h264 -o " + d + "rec_bframes.mp4").status == 0;
  }
  static void TearDownTestSuite() { Shell("rm -rf " + dir_); }
  void SetUp() override {
    if (!ready_) GTEST_SKIP() << why_;
  }
  static std::string path(const std::string& name) { return dir_ + "/" + name; }

  static std::string dir_, why_;
  static bool ready_;
};

std::string TablesOnFile::dir_, TablesOnFile::why_;
bool TablesOnFile::ready_ = false;

// Files whose tables have one run of durations a track: both ways give the same times.
const char* const kSameFiles[] = {"rec_groups.mp4", "rec_mixed.mov", "ff_copy.mov", "ff_front.mp4"};

TEST_F(TablesOnFile, EveryPacketIsTheSameBothWaysAfterSeeksToo) {
  // Points up to the last key frame (4.5 s), in both directions, some twice; some arrive in the middle
  // of an audio chunk of the grouped recordings.
  const long long points[] = {2000, 600, 3700, 3700, 0, 1234, 2999, 100, 4500, 4499, 1500, 4100, 33, 2500};
  for (const char* name : kSameFiles)
    for (int block : {32768, 256}) {
      SCOPED_TRACE(std::string(name) + " block " + std::to_string(block));
      Engine list, onFile;
      ASSERT_TRUE(list.open(path(name), false));
      ASSERT_TRUE(onFile.open(path(name), true, 1, block));
      ASSERT_EQ(list.ways(), "list,list");
      ASSERT_EQ(onFile.ways(), "extern,extern");
      // Small blocks put the bigger tables behind a handle of their own.
      EXPECT_EQ(onFile.blockReaders() >= 2, block == 256) << onFile.blockReaders();
      bool e1 = true, e2 = true;
      const std::vector<Pkt> a = list.take(100000, &e1), b = onFile.take(100000, &e2);
      EXPECT_GT(a.size(), 300u);
      EXPECT_FALSE(e1 || e2);
      EXPECT_EQ(FirstDifference(a, b), "");
      for (long long ms : points) {
        SCOPED_TRACE(ms);
        ASSERT_TRUE(list.parser.Seek(ms));
        ASSERT_TRUE(onFile.parser.Seek(ms));
        const std::vector<Pkt> x = list.take(40), y = onFile.take(40);
        ASSERT_GE(x.size(), 10u);
        const auto video = std::find_if(x.begin(), x.end(), [](const Pkt& p) { return p[0] == 'V'; });
        ASSERT_TRUE(video != x.end() && video->find(" key") != std::string::npos);
        EXPECT_EQ(FirstDifference(x, y), "");
      }
    }
}

TEST_F(TablesOnFile, AForwardSeekPastTheLastKeyFrameLandsOnTheFirstFrame) {
  // The sync table on file has no last key frame to give: kept as it is, the list gives the last one.
  Engine list, onFile;
  ASSERT_TRUE(list.open(path("rec_groups.mp4"), false));
  ASSERT_TRUE(onFile.open(path("rec_groups.mp4"), true));
  LogCapture log;
  ASSERT_TRUE(list.parser.Seek(4800));
  ASSERT_TRUE(onFile.parser.Seek(4800));
  const Pkt a = list.take(1).at(0), b = onFile.take(1).at(0);
  EXPECT_TRUE(a.rfind("V135 ", 0) == 0 && a.find(" key") != std::string::npos) << a;
  EXPECT_TRUE(b.rfind("V0 ", 0) == 0 && b.find(" key") != std::string::npos) << b;
  EXPECT_TRUE(log.Has("!_stssparser->Get(\"get_last_key\",_last_key)"));
}

TEST_F(TablesOnFile, TracksWithCompositionOffsetsKeepTheFileOffThatWay) {
  const std::string name = path("ff_bframes.mp4");
  Engine list;
  ASSERT_TRUE(list.open(name, false));
  const std::vector<Pkt> all = list.take(1000);
  EXPECT_EQ(all.size(), 60u);
  {
    LogCapture log;
    Engine onFile;
    EXPECT_FALSE(onFile.open(name, true));
    EXPECT_TRUE(log.Has("!_parser->Set(\"init\",(AttrSet&)ap)"));
  }
  // Below the switch size the tables go to memory and the file plays.
  Engine below;
  ASSERT_TRUE(below.open(name, true, static_cast<int>(list.largestStbl()) + 1));
  EXPECT_EQ(below.ways(), "list");
  EXPECT_EQ(FirstDifference(all, below.take(1000)), "");
}

TEST_F(TablesOnFile, DamagedTablesEndInAnErrorOrAShorterTrackTheSameBothWays) {
  // Patches at places the list way's tree shows: a chunk past the file, a sample larger than the file.
  Engine probe;
  ASSERT_TRUE(probe.open(path("rec_groups.mp4"), false));
  std::vector<IBox*> stco, stsz;
  for (cstbl* s : probe.stbls()) {
    stco.push_back(s->Find("stco"));
    stsz.push_back(s->Find("stsz"));
  }
  ASSERT_EQ(stco.size(), 2u);
  const std::string good = ReadWhole(path("rec_groups.mp4"));
  Engine whole;
  ASSERT_TRUE(whole.open(path("rec_groups.mp4"), false));
  const size_t all = whole.take(100000).size();
  // What a damaged entry costs: the run ends in an error there, or (a sample of no bytes is never
  // delivered) one packet less.
  struct Case {
    const char* what;
    size_t at;
    uint32_t value;
    bool error;
  } cases[] = {
      {"video chunk 7 past the file", static_cast<size_t>(stco[0]->Offset()) + 16 + 4 * 6, 0x7ffff000, true},
      {"audio chunk 3 past the file", static_cast<size_t>(stco[1]->Offset()) + 16 + 4 * 2, 0xfffffff0, true},
      {"video sample 12 of 2 GB", static_cast<size_t>(stsz[0]->Offset()) + 20 + 4 * 11, 0x7fff0000, true},
      {"audio sample 5 of 0 bytes", static_cast<size_t>(stsz[1]->Offset()) + 20 + 4 * 4, 0, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string b = good;
    Put32(b, c.at, c.value);
    const std::string damaged = path("damaged.mp4");
    std::ofstream(damaged, std::ios::binary) << b;
    Engine list, onFile;
    ASSERT_TRUE(list.open(damaged, false));
    ASSERT_TRUE(onFile.open(damaged, true, 1, 256));
    bool e1 = false, e2 = false;
    LogCapture log;
    const std::vector<Pkt> a = list.take(100000, &e1), d = onFile.take(100000, &e2);
    EXPECT_EQ(FirstDifference(a, d), "");
    EXPECT_EQ(std::make_pair(e1, e2), std::make_pair(c.error, c.error));
    if (c.error) {
      EXPECT_TRUE(log.Has("|E|"));
    } else {
      EXPECT_EQ(d.size(), all - 1);
    }
  }
}

TEST_F(TablesOnFile, AFileCutWhilePlayingEndsItsTracksWithoutCrashing) {
  // The tables of this file lie behind the media; the readers' own handles find them gone.
  const std::string cut = path("cut.mp4");
  std::ofstream(cut, std::ios::binary) << ReadWhole(path("rec_groups.mp4"));
  Engine onFile;
  ASSERT_TRUE(onFile.open(cut, true, 1, 256));
  const std::vector<Pkt> first = onFile.take(10);
  ASSERT_EQ(first.size(), 10u);
  ASSERT_EQ(::truncate(cut.c_str(), 20000), 0);
  LogCapture log;
  bool error = false;
  const std::vector<Pkt> rest = onFile.take(100000, &error);
  EXPECT_LT(rest.size(), 300u);
  EXPECT_TRUE(log.Has("|E|"));
}

}  // namespace

namespace {
// The lines of a play run that do not depend on the clock: the packets and the tracks' summaries.
std::string Played(const std::string& out) {
  std::istringstream in(out);
  std::string kept;
  for (std::string line; std::getline(in, line);)
    if (line.rfind("packet|", 0) == 0 || line.rfind("video:", 0) == 0 || line.rfind("audio:", 0) == 0 ||
        line.rfind("seek ", 0) == 0)
      kept += line + "\n";
  return kept;
}
}  // namespace

TEST_F(TablesOnFile, TheCommandLinePlaysBothWaysAlikeAndTellsTheWayOfEachTrack) {
  // The engines' packets are compared both ways above; here the flags reach them.
  const ToolResult list = RunTool("play --packets --seek 700 " + path("rec_groups.mp4"));
  const ToolResult onFile = RunTool("play --packets --tables-on-file --switch-size 1 --seek 700 " + path("rec_groups.mp4"));
  ASSERT_EQ(std::make_pair(list.status, onFile.status), std::make_pair(0, 0)) << list.err << onFile.err;
  EXPECT_GT(Played(list.out).size(), 10000u);
  EXPECT_EQ(Played(onFile.out), Played(list.out));
  // A track with composition offsets keeps the file off that way; the default size keeps small files
  // in memory, so the flag alone changes nothing for them.
  const ToolResult refused = RunTool("play --tables-on-file --switch-size 1 " + path("rec_bframes.mp4"));
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("composition offsets (ctts)"), std::string::npos) << refused.err;
  EXPECT_EQ(RunTool("play --tables-on-file " + path("rec_bframes.mp4")).status, 0);
  const ToolResult both = RunTool("info --summary --switch-size 1 " + path("rec_bframes.mp4"));
  EXPECT_NE(both.out.find("track 1: vide avc1 96x64, 60 samples, 2.000 s, tables in memory only (stbl "),
            std::string::npos)
      << both.out;
  EXPECT_NE(both.out.find("with ctts: play --tables-on-file refuses the file)"), std::string::npos) << both.out;
  const ToolResult small = RunTool("info --summary " + path("rec_groups.mp4")),
                   low = RunTool("info --summary --switch-size 1200 " + path("rec_groups.mp4"));
  EXPECT_EQ(small.status, 0);
  EXPECT_NE(small.out.find("track 1: vide avc1 96x64, 150 samples, 5.000 s, tables in memory (stbl "), std::string::npos)
      << small.out;
  EXPECT_NE(small.out.find(" bytes, below 65536)\n  track 2: soun mp4a 48000 Hz 2 ch"), std::string::npos) << small.out;
  // The video's stbl here is below 1200 bytes, the audio's above.
  EXPECT_NE(low.out.find("below 1200)\n  track 2:"), std::string::npos) << low.out;
  EXPECT_NE(low.out.find("tables on file with --tables-on-file (stbl "), std::string::npos) << low.out;
  // The sizes belong to the flags they qualify.
  EXPECT_EQ(RunTool("play --switch-size 1 " + path("rec_groups.mp4")).status, 2);
  EXPECT_EQ(RunTool("info --switch-size 1 " + path("rec_groups.mp4")).status, 2);
  EXPECT_EQ(RunTool("play --tables-on-file --switch-size -1 " + path("rec_groups.mp4")).status, 2);
}
