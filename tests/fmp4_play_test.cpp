// Fragmented files through the demuxer element and the command-line host: ffmpeg's files with and
// without their index, with the index rewritten in this system's shape, cut off at random lengths,
// changed by hand where one rule of the reader needs it; their length through the information object;
// remuxed into plain files.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "stream/base/io/IO.h"
#include "stream/base/reflect/Object.h"
#include "stream/plugin/mp4/core/demux/FMp4Parser.h"
#include "tests/FragmentedFiles.h"
#include "tests/GeneratedMedia.h"
#include "tests/LogCapture.h"
#include "tests/PlayRig.h"
#include "tests/ToolRun.h"

namespace {

using namespace fragmented;

struct PacketLine {
  double time = 0;
  long long size = 0;
  bool key = false;
};

struct Played {
  ToolResult run;
  std::vector<PacketLine> video, audio;
};

double Field(const std::string& line, const std::string& key) {
  const size_t at = line.find("|" + key + "=");
  return at == std::string::npos ? -1 : std::atof(line.c_str() + at + key.size() + 2);
}

Played Play(const std::string& args, const std::string& global = "") {
  Played p;
  p.run = RunTool(global + "play --packets " + args);
  std::istringstream out(p.run.out);
  for (std::string line; std::getline(out, line);) {
    if (line.rfind("packet|", 0) != 0) continue;
    PacketLine l{Field(line, "pts_time"), static_cast<long long>(Field(line, "size")),
                 line.find("|flags=K") != std::string::npos};
    (line.find("codec_type=video") != std::string::npos ? p.video : p.audio).push_back(l);
  }
  return p;
}

long long Ms(double seconds) { return std::llround(seconds * 1000); }

// ffprobe's packets of one stream of a file: size and key flag.
struct ProbePacket {
  long long size = 0;
  bool key = false;
};
std::vector<ProbePacket> ProbePackets(const std::string& file, const char* kind) {
  std::istringstream out(Capture("ffprobe -v error -select_streams " + std::string(kind) +
                                 " -show_entries packet=size,flags -of csv=p=0 " + file));
  std::vector<ProbePacket> packets;
  for (std::string line; std::getline(out, line);) {
    const size_t comma = line.find(',');
    if (comma == std::string::npos) continue;
    packets.push_back({std::atoll(line.c_str()), line.find('K', comma) != std::string::npos});
  }
  return packets;
}

// The video track's time scale.
long long TimeBase(const std::string& file) {
  const std::string base =
      Capture("ffprobe -v error -select_streams v -show_entries stream=time_base -of csv=p=0 " + file);
  const size_t slash = base.find('/');
  return slash == std::string::npos ? 0 : std::atoll(base.c_str() + slash + 1);
}

class FragmentedPlay : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = generated::ScratchDir("bw_fplay_", why_);
    if (dir_.empty()) return;
    const std::string frag = dir_ + "/frag.mp4", base = dir_ + "/base.mp4";
    if (!MakeFragmented(frag, "") || !MakeFragmented(base, "+default_base_moof") ||
        !Shell("ffmpeg -nostdin -v error -y -i " + frag + " -c copy " + dir_ + "/plain.mp4")) {
      why_ = "ffmpeg cannot make the fragmented files (libx264 and the AAC encoder are needed)";
      return;
    }
    const std::string b = ReadWhole(frag);
    ready_ = WriteFile(dir_ + "/noindex.mp4", WithoutIndex(b)) && WriteFile(dir_ + "/indexed.mp4", WithOwnIndex(b));
  }
  static void TearDownTestSuite() {
    if (!dir_.empty()) Shell("rm -rf " + dir_);
  }
  void SetUp() override {
    if (!ready_) GTEST_SKIP() << why_;
  }
  static std::string Path(const std::string& name) { return dir_ + "/" + name; }
  static std::string dir_, why_;
  static bool ready_;
};
std::string FragmentedPlay::dir_, FragmentedPlay::why_;
bool FragmentedPlay::ready_ = false;

// Every packet as the plain copy of the same file gives it (bytes, sizes, key flags), in ffprobe's
// number; times the sum of the frame durations before, each in whole ms: the pictures' own durations
// rounded, the sound's 1024 samples cut to 21 ms at 48 kHz. Only an index of this system's shape
// lets the element seek.
TEST_F(FragmentedPlay, FilesPlayAsTheirPlainCopyWithSeekOnlyByTheirOwnIndex) {
  const std::string pv = Path("plain.h264"), pa = Path("plain.aac");
  const Played plain = Play(Path("plain.mp4") + " --video-out " + pv + " --audio-out " + pa);
  ASSERT_EQ(plain.run.status, 0) << plain.run.err;
  const std::vector<ProbePacket> probedVideo = ProbePackets(Path("frag.mp4"), "v"),
                                 probedAudio = ProbePackets(Path("frag.mp4"), "a");
  ASSERT_EQ(probedVideo.size(), 120u);
  ASSERT_GT(probedAudio.size(), 180u);
  const long long videoScale = TimeBase(Path("frag.mp4"));
  ASSERT_GT(videoScale, 0);
  const struct {
    const char* file;
    bool seekable;
    const char* note;  // a log line the element leaves on the way
  } cases[] = {
      {"frag.mp4", false, "tfra of another shape: version 1"},
      {"base.mp4", false, "tfra of another shape: version 1"},
      {"noindex.mp4", false, "!FindMfraBoxOffset(io)"},
      {"indexed.mp4", true, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string v = Path(std::string(c.file) + ".h264"), a = Path(std::string(c.file) + ".aac");
    const Played p = Play(Path(c.file) + " --video-out " + v + " --audio-out " + a, "--log-level I ");
    ASSERT_EQ(p.run.status, 0) << p.run.err;
    EXPECT_NE(p.run.out.find("\neos clock="), std::string::npos);
    ASSERT_EQ(p.video.size(), probedVideo.size());
    ASSERT_EQ(p.audio.size(), probedAudio.size());
    EXPECT_TRUE(ReadWhole(v) == ReadWhole(pv)) << "the video bytes of the plain copy";
    EXPECT_TRUE(ReadWhole(a) == ReadWhole(pa)) << "the sound of the plain copy";
    const std::vector<uint32_t> durations = SampleDurations(ReadWhole(Path(c.file)), 1);
    ASSERT_EQ(durations.size(), p.video.size());
    long long expected = 0;
    for (size_t i = 0; i < p.video.size(); ++i) {
      EXPECT_EQ(p.video[i].size, plain.video[i].size) << i;
      EXPECT_EQ(p.video[i].key, probedVideo[i].key) << i;
      EXPECT_EQ(Ms(p.video[i].time), expected) << i;
      expected += std::llround(static_cast<double>(durations[i]) * 1000 / videoScale);
    }
    for (size_t i = 0; i < p.audio.size(); ++i) {
      EXPECT_EQ(p.audio[i].size, probedAudio[i].size + 7) << "with its ADTS header, " << i;
      EXPECT_EQ(Ms(p.audio[i].time), 21 * static_cast<long long>(i)) << i;
    }
    if (*c.note) {
      EXPECT_NE(p.run.err.find(c.note), std::string::npos) << p.run.err;
    }
    // A refused seek leaves the play going on from where it was.
    const Played seek = Play(Path(c.file) + " --seek 1700");
    ASSERT_EQ(seek.run.status, 0) << seek.run.err;
    EXPECT_NE(seek.run.out.find(c.seekable ? "seek ms=1700\n" : "seek ms=1700 refused\n"), std::string::npos)
        << seek.run.out;
    if (!c.seekable) {
      EXPECT_EQ(seek.video.size(), probedVideo.size());
    }
  }
}

// With the index each track finds its own fragment: coming from before (the first packet played,
// so the video stands at its second fragment) a later time lands on the first fragment at or after
// it, an earlier time on the last one at or before it; a time beyond the file on the last. The
// video's times there are those the index lists (ffmpeg's start half a sound frame late).
TEST_F(FragmentedPlay, SeekLandsOnTheFragmentTheIndexLists) {
  const std::vector<IndexTrack> index = ReadIndex(ReadWhole(Path("indexed.mp4")));
  ASSERT_EQ(index.size(), 2u);
  ASSERT_EQ(index[0].track, 1u);
  ASSERT_EQ(index[0].entries.size(), 8u);
  const long long scale = TimeBase(Path("indexed.mp4"));
  ASSERT_GT(scale, 0);
  std::vector<long long> listed;  // ms
  for (const auto& e : index[0].entries) listed.push_back(std::llround(static_cast<double>(e.first) * 1000 / scale));
  ASSERT_EQ(listed[0], 0);
  ASSERT_GT(listed[1], 400);
  const struct {
    long long seek;
    size_t fragment;  // where the video goes on
  } cases[] = {
      {listed[3] + 200, 4},  // later: the next listed
      {listed[5], 5},        // a listed time itself
      {listed[1] - 100, 0},  // earlier: the one before
      {listed[1], 1},        // where it stands
      {999999, 7},           // beyond the end: the last
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.seek);
    const Played p = Play(Path("indexed.mp4") + " --seek " + std::to_string(c.seek));
    ASSERT_EQ(p.run.status, 0) << p.run.err;
    ASSERT_GE(p.video.size(), 2u);
    EXPECT_EQ(Ms(p.video[0].time), 0);
    EXPECT_EQ(Ms(p.video[1].time), listed[c.fragment]);
    EXPECT_TRUE(p.video[1].key);
    EXPECT_EQ(p.video.size(), 1 + (8 - c.fragment) * 15) << "the rest of the file from there";
  }
}

// Cut at random lengths, the file plays every packet of every fragment before the cut. A cut in a
// fragment's header or between fragments ends the run with "eos"; one in the media of a fragment
// whose header is whole ends it with "error" at the first frame that is not there. Each packet that
// arrives is the one the whole file gives at its place.
TEST_F(FragmentedPlay, CutFilesPlayEveryWholeFragmentThenEnd) {
  const std::string whole = ReadWhole(Path("frag.mp4"));
  playtest::Player full(Path("frag.mp4"));
  ASSERT_EQ(full.Run(), "eos");
  const std::vector<playtest::Got> all = full.sink.Packets();
  // Where each fragment's header and media end, and its packets in the whole run's order.
  struct Fragment {
    size_t moofEnd, mdatEnd;
    size_t video, audio;
  };
  std::vector<Fragment> fragments;
  const std::vector<TopBox> top = TopLevel(whole);
  for (size_t i = 0; i + 1 < top.size(); ++i) {
    if (top[i].code != "moof" || top[i + 1].code != "mdat") continue;
    Fragment f{top[i].at + top[i].size, top[i + 1].at + top[i + 1].size, 0, 0};
    for (const TopBox& traf : Children(whole, top[i]))
      for (const TopBox& box : Children(whole, traf))
        if (box.code == "trun") (Be32(whole, traf.at + 20) == 1 ? f.video : f.audio) += Be32(whole, box.at + 12);
    fragments.push_back(f);
  }
  ASSERT_EQ(fragments.size(), 8u);
  // 200 random lengths, and for each fragment one inside its header and one at its end.
  std::mt19937 random(20261124);
  std::uniform_int_distribution<size_t> length(0, whole.size() - 1);
  std::vector<size_t> cuts;
  for (int run = 0; run < 200; ++run) cuts.push_back(length(random));
  for (const Fragment& f : fragments) {
    cuts.push_back(f.moofEnd - 100);
    cuts.push_back(f.mdatEnd);
  }
  int errors = 0, ends = 0;
  for (const size_t cut : cuts) {
    SCOPED_TRACE("cut at " + std::to_string(cut));
    size_t k = 0, before = 0;
    for (; k < fragments.size() && fragments[k].mdatEnd <= cut; ++k) before += fragments[k].video + fragments[k].audio;
    const bool error = k < fragments.size() && fragments[k].moofEnd <= cut;
    const std::vector<unsigned char> bytes(whole.begin(), whole.begin() + static_cast<long>(cut));
    playtest::Player p("mem://cut", new playtest::CountingIO(bytes));
    const std::string end = p.Run();
    const std::vector<playtest::Got> got = p.sink.Packets();
    // Until the first fragment is whole the file is not seen as fragmented; there is nothing to play.
    if (cut < top[2].at + top[2].size) {
      EXPECT_TRUE(end == "open failed" || end == "eos") << end;
      EXPECT_TRUE(got.empty());
      continue;
    }
    EXPECT_EQ(end, error ? "error" : "eos");
    if (error) {
      size_t earlier = 0;  // the fragments before the one before the cut: their time is all over
      for (size_t i = 0; i + 1 < k; ++i) earlier += fragments[i].video + fragments[i].audio;
      EXPECT_GE(got.size(), earlier);
      ++errors;
    } else {
      EXPECT_EQ(got.size(), before);
      ++ends;
    }
    // Each packet is the whole run's packet of the same track and number.
    size_t nv = 0, na = 0;
    std::vector<const playtest::Got*> video, audio;
    for (const playtest::Got& g : all) (g.video ? video : audio).push_back(&g);
    for (const playtest::Got& g : got) {
      const std::vector<const playtest::Got*>& track = g.video ? video : audio;
      size_t& n = g.video ? nv : na;
      ASSERT_LT(n, track.size());
      EXPECT_EQ(g.size, track[n]->size);
      EXPECT_EQ(g.ms, track[n]->ms);
      EXPECT_EQ(g.head, track[n]->head);
      ++n;
    }
  }
  EXPECT_GT(errors, 20) << "cuts in the media of fragments";
  EXPECT_GT(ends, 15) << "cuts in headers and between fragments";
}

// Files changed in one place each, against the whole file's packets.
TEST_F(FragmentedPlay, HandShapedFilesFollowTheReaderRules) {
  const std::string whole = ReadWhole(Path("frag.mp4"));
  const std::vector<TopBox> top = TopLevel(whole);
  ASSERT_GE(top.size(), 4u);
  ASSERT_EQ(top[2].code, "moof");
  // The first fragment's video track fragment header, and its count.
  const TopBox videoTraf = Children(whole, top[2])[1];
  ASSERT_EQ(videoTraf.code, "traf");
  ASSERT_EQ(Be32(whole, videoTraf.at + 20), 1u);
  const std::vector<TopBox> inVideoTraf = Children(whole, videoTraf);
  const size_t firstVideo = Be32(whole, inVideoTraf.back().at + 12);
  ASSERT_EQ(firstVideo, 15u);

  std::string unknownTrack = WithoutIndex(whole);
  SetBe32(unknownTrack, videoTraf.at + 20, 9);
  std::string bigTail = WithoutIndex(whole);
  SetBe32(bigTail, bigTail.size() - 4, 0xfffffff0u);
  const struct {
    const char* name;
    std::string bytes;
    const char* end;
    size_t video, audio;  // packets
    bool seek;            // "seek" accepted
    const char* log;
  } cases[] = {
      {"a fragment of a track the file does not have is skipped", unknownTrack, "eos", 120 - firstVideo, 188, false,
       "no mfra box"},
      {"a last word larger than the file", bigTail, "eos", 120, 188, false, "videoszie<=mfrasize"},
      {"an index for the video only: the sound ends at once", WithOwnIndex(whole, [](uint32_t t) { return t == 1; }),
       "eos", 120, 0, true, "!_moofItems"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log(kiv::dbg::I);
    const std::vector<unsigned char> bytes(c.bytes.begin(), c.bytes.end());
    playtest::Player p("mem://shaped", new playtest::CountingIO(bytes));
    ASSERT_TRUE(p.dmx && p.linked);
    const std::string end = p.Run();
    EXPECT_EQ(end, c.end);
    size_t video = 0, audio = 0;
    for (const playtest::Got& g : p.sink.Packets()) ++(g.video ? video : audio);
    EXPECT_EQ(video, c.video);
    if (c.audio != 188) {
      EXPECT_EQ(audio, c.audio);
    } else {
      EXPECT_GT(audio, 180u);
    }
    EXPECT_EQ(p.dmx->Set("seek", 1000LL), c.seek);
    if (*c.log) {
      EXPECT_TRUE(log.Has(c.log)) << c.log;
    }
  }
  // A file too short to end in an index of any size.
  LogCapture log(kiv::dbg::I);
  kiv::base::IOBuffer tiny;
  tiny.Write("\0\0\0\x08", 4);
  kiv::plugin::mov::FMp4Parser parser;
  EXPECT_FALSE(parser.FindMfraBoxOffset(tiny));
  EXPECT_TRUE(log.Has("videoszie<=4"));
}

// The length from "mehd" (version 0 and 1, in the movie's time scale), 0 without one; the object
// reads the file once: after the file is gone it still answers.
TEST_F(FragmentedPlay, InfoGivesTheLengthTheMovieExtendsHeaderHolds) {
  const std::string whole = ReadWhole(Path("frag.mp4"));
  const std::vector<TopBox> top = TopLevel(whole);
  ASSERT_EQ(top[1].code, "moov");
  const uint32_t timescale = Be32(whole, top[1].at + 8 + 20);  // mvhd version 0: its time scale
  ASSERT_GT(timescale, 0u);
  // "mehd" put first into "mvex"; moov and mvex grow by its size.
  auto withMehd = [&](int version, uint64_t duration) {
    std::string mehd;
    PutBe32(mehd, version ? 20 : 16);
    mehd += "mehd";
    PutBe32(mehd, version ? 0x01000000u : 0);
    if (version) PutBe32(mehd, static_cast<uint32_t>(duration >> 32));
    PutBe32(mehd, static_cast<uint32_t>(duration));
    std::string b = whole;
    const size_t mvex = b.find("mvex") - 4;
    b.insert(mvex + 8, mehd);
    SetBe32(b, mvex, Be32(b, mvex) + static_cast<uint32_t>(mehd.size()));
    SetBe32(b, top[1].at, Be32(b, top[1].at) + static_cast<uint32_t>(mehd.size()));
    return b;
  };
  const struct {
    const char* name;
    std::string bytes;
    unsigned long long ms;
  } cases[] = {
      {"no mehd", whole, 0},
      {"version 0", withMehd(0, 4ull * timescale + timescale / 4), 4250},
      {"version 1, beyond 32 bits", withMehd(1, (1ull << 33) * timescale / 1000),
       (1ull << 33)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = Path("info.mp4");
    ASSERT_TRUE(WriteFile(path, c.bytes));
    kiv::base::AttrSet ap;
    kiv::base::Object::AttrSetInit(ap, nullptr, "FMp4Info-fmp4-info");
    std::unique_ptr<kiv::base::Object> info(kiv::base::Object::New<kiv::base::Object>(ap));
    ASSERT_TRUE(info);
    ASSERT_TRUE(info->setString("url", path.c_str()));
    unsigned long long ms = 1;
    ASSERT_TRUE(info->Get("duration", ms));
    EXPECT_EQ(ms, c.ms);
    Shell("rm -f " + path);
    ms = 1;
    ASSERT_TRUE(info->Get("duration", ms));
    EXPECT_EQ(ms, c.ms) << "the answer or the tree kept";
    // The command line says it in its summary.
    if (c.ms && c.ms < 100000) {
      ASSERT_TRUE(WriteFile(path, c.bytes));
      const ToolResult r = RunTool("info --summary " + path);
      EXPECT_NE(r.out.find("fragmented, duration 4.250 s"), std::string::npos) << r.out;
      EXPECT_EQ(r.err.find("BpSC|"), std::string::npos) << "no raw log lines\n" << r.err;
    }
  }
}

// Fragmented files remuxed into mov and mp4 decode frame for frame like the file itself.
TEST_F(FragmentedPlay, RemuxIntoPlainFilesKeepsEveryFrame) {
  const std::vector<std::string> pictures = generated::FrameMd5s(Path("frag.mp4"), "v"),
                                 sound = generated::FrameMd5s(Path("frag.mp4"), "a");
  ASSERT_EQ(pictures.size(), 120u);
  ASSERT_FALSE(sound.empty());
  for (const char* in : {"frag.mp4", "base.mp4", "indexed.mp4", "noindex.mp4"})
    for (const char* ext : {"mp4", "mov"}) {
      SCOPED_TRACE(std::string(in) + " to " + ext);
      const std::string out = Path(std::string(in) + ".remux." + ext);
      const ToolResult r = RunTool("remux " + Path(in) + " " + out);
      ASSERT_EQ(r.status, 0) << r.err;
      EXPECT_EQ(generated::FrameMd5s(out, "v"), pictures);
      // ffmpeg's fragmented files have no edit list: every sound frame is heard in both.
      EXPECT_EQ(generated::FrameMd5s(out, "a"), sound);
    }
}

// The options of play on fragmented files: the thumbnail through the element, a play range, pacing.
TEST_F(FragmentedPlay, PlayOptionsWorkOnFragmentedFiles) {
  // A thumbnail box in front of the first fragment: the element gives it.
  const std::string whole = ReadWhole(Path("indexed.mp4"));
  const std::vector<TopBox> top = TopLevel(whole);
  ASSERT_EQ(top[2].code, "moof");
  std::string jpeg = "\xff\xd8\xff\xe0";
  for (int i = 0; i < 300; ++i) jpeg += static_cast<char>(i * 7);
  std::string thum;
  PutBe32(thum, static_cast<uint32_t>(8 + jpeg.size()));
  thum += "thum" + jpeg;
  // Moved by the box: the index's positions and the runs' base positions would have to follow, so
  // the file with a thumbnail has no index and plays from the head.
  std::string thumbed = WithoutIndex(whole);
  thumbed.insert(top[2].at, thum);
  for (const TopBox& moof : TopLevel(thumbed))
    if (moof.code == "moof")
      for (const TopBox& traf : Children(thumbed, moof))
        for (const TopBox& box : Children(thumbed, traf))
          if (box.code == "tfhd" && (Be32(thumbed, box.at + 8) & 1))
            SetBe32(thumbed, box.at + 20, Be32(thumbed, box.at + 20) + static_cast<uint32_t>(thum.size()));
  ASSERT_TRUE(WriteFile(Path("thumbed.mp4"), thumbed));

  const std::vector<IndexTrack> index = ReadIndex(whole);
  const long long scale = TimeBase(Path("indexed.mp4"));
  ASSERT_GT(scale, 0);
  const long long fifth = std::llround(static_cast<double>(index[0].entries[4].first) * 1000 / scale);
  const struct {
    const char* file;
    std::string args;
    long long firstMs, lastAtMost;  // video times
    size_t video;                   // packets; 0: not checked
    const char* out;                // a text play prints
  } cases[] = {
      {"thumbed.mp4", "--thumb-out " + Path("thumb.jpg"), 0, 4000, 120, "thumbnail: 304 bytes from the element to"},
      {"indexed.mp4", "--from " + std::to_string(fifth - 200), fifth, 4000, 60, ""},
      {"noindex.mp4", "--from 1700", 0, 4000, 120, ""},  // no index: the start cannot move
      {"indexed.mp4", "--to 1000", 0, 1000, 0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.file) + " " + c.args);
    const Played p = Play(Path(c.file) + " " + c.args);
    ASSERT_EQ(p.run.status, 0) << p.run.err;
    ASSERT_FALSE(p.video.empty());
    EXPECT_EQ(Ms(p.video.front().time), c.firstMs);
    EXPECT_LE(Ms(p.video.back().time), c.lastAtMost);
    if (c.video) {
      EXPECT_EQ(p.video.size(), c.video);
    } else {
      EXPECT_GT(Ms(p.video.back().time), c.lastAtMost - 50) << "up to the end of the range";
    }
    if (*c.out) {
      EXPECT_NE(p.run.out.find(c.out), std::string::npos) << p.run.out;
    }
  }
  EXPECT_TRUE(ReadWhole(Path("thumb.jpg")) == jpeg);

  // Paced by the clock: 600 ms of the file take about as long.
  const auto start = std::chrono::steady_clock::now();
  const Played live = Play(Path("noindex.mp4") + " --live --to 600");
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
  ASSERT_EQ(live.run.status, 0) << live.run.err;
  EXPECT_GE(took.count(), 500);
  EXPECT_GT(live.video.size(), 15u);
}

}  // namespace
