// Fragmented recordings through the command-line host, of the bundled sample and of streams ffmpeg
// makes at test time, judged by ffprobe, ffmpeg frame by frame and GStreamer's qtdemux; and recordings
// cut off, by SIGKILL while recording and by cutting finished files short.
//
// The layout puts each traf's tfdt behind its trun. ffmpeg's mov reader takes a fragment's start from
// a tfdt it has already read, so by default it places every fragment but a track's first at the start
// of the fragment before, and drops the pictures that go back in time. The tests therefore decode
// finished files with "-use_mfra_for dts" (the fragment times from the file's own index), and show
// the box at fault: the same bytes with tfdt moved in front of trun decode completely by default.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/FragmentOracles.h"

namespace {

using namespace fragoracle;
using fragbytes::File;

struct Sources {
  std::string dir, why;
  bool missingTools = false;  // a skip; anything else that goes wrong is a failure
  Source sample, plain, bframes, tone, longPlain, longTone;
  bool ok = false;
};

Sources& sources() {
  static Sources s = [] {
    Sources s;
    s.dir = generated::ScratchDir("fmp4rec", s.why);
    s.missingTools = s.dir.empty();
    if (s.dir.empty()) return s;
    const std::string pics = "-f lavfi -i testsrc2=size=160x120:rate=30 -pix_fmt yuv420p -c:v libx264 ";
    generated::Stream st[5];
    const bool made =
        generated::MakeStream(st[0], s.dir, "plain.h264", pics + "-frames:v 150 -bf 0 -g 15") &&
        generated::MakeStream(st[1], s.dir, "bframes.h264", pics + "-frames:v 150 -bf 2 -g 30", true) &&
        generated::MakeStream(st[2], s.dir, "tone.aac", "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=5 -ac 2") &&
        generated::MakeStream(st[3], s.dir, "long.h264", pics + "-frames:v 300 -bf 0 -g 15") &&
        generated::MakeStream(st[4], s.dir, "long.aac", "-f lavfi -i sine=frequency=330:sample_rate=48000:duration=10 -ac 2");
    if (!made) {
      s.why = "ffmpeg could not make the test streams";
      return s;
    }
    const std::string samples = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/";
    s.sample = Source{"sample", samples + "sample.h264", samples + "sample.aac", {}, {}};
    s.plain = Source{"plain", s.dir + "/plain.h264", s.dir + "/tone.aac", {}, {}};
    s.bframes = Source{"bframes", s.dir + "/bframes.h264", "", {}, {}};
    s.tone = Source{"tone", "", s.dir + "/tone.aac", {}, {}};
    s.longPlain = Source{"long", s.dir + "/long.h264", s.dir + "/long.aac", {}, {}};
    s.ok = s.sample.learn() && s.plain.learn() && s.bframes.learn() && s.tone.learn() && s.longPlain.learn();
    if (!s.ok) s.why = "ffmpeg could not decode the sources";
    return s;
  }();
  return s;
}

// The samples of each track in fragments that lie wholly in the file, moof and mdat.
struct Complete {
  size_t video = 0, audio = 0, fragments = 0;
};
Complete completeFragments(const File& f, bool hasVideo) {
  Complete c;
  for (const fragbytes::Fragment& g : f.fragments) {
    if (g.mdatSize == 0) continue;
    ++c.fragments;
    (hasVideo && g.track == 1 ? c.video : c.audio) += g.samples.size();
  }
  return c;
}

struct RecordCase {
  const char* name;
  Source Sources::*source;
  const char* options;
  const char* format;  // extension of the output
};

class FragmentRecord : public ::testing::TestWithParam<RecordCase> {
 protected:
  void SetUp() override {
    if (sources().missingTools) GTEST_SKIP() << sources().why;
    ASSERT_TRUE(sources().ok) << sources().why;
  }
};

TEST_P(FragmentRecord, PlayersGetEveryFrame) {
  const RecordCase& c = GetParam();
  const Source& src = sources().*(c.source);
  const std::string out = sources().dir + "/" + c.name + "." + c.format;
  const std::string tmp = sources().dir + "/tmp_" + c.name;
  ASSERT_TRUE(Shell("rm -rf " + tmp + " && mkdir -p " + tmp));
  const ToolResult r = RunTool("record -o '" + out + "' " + c.options + src.recordArgs() + " --tmp " + tmp);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Capture("ls -A " + tmp).empty()) << "temporary files left";

  const Bytes bytes = Load(out);
  const File f = fragbytes::Read(bytes);
  ASSERT_TRUE(f.whole) << f.types();
  ASSERT_GE(f.top.size(), 4u);
  EXPECT_EQ(f.top.front().type, "ftyp");
  EXPECT_EQ(f.top[1].type, "moov");
  EXPECT_EQ(f.top.back().type, "mfra");
  const Complete all = completeFragments(f, !src.video.empty());
  EXPECT_EQ(all.video, src.videoFrames.size());
  EXPECT_EQ(all.audio, src.audioFrames.size());
  for (const fragbytes::Fragment& g : f.fragments) EXPECT_EQ(g.trafChildren, "tfhd,trun,tfdt");

  // ffprobe reads tfdt the way ffmpeg does (see the top of this file): it warns of time stamps that
  // go back in the file as written, and of nothing once tfdt stands in front of trun.
  const std::string moved = out + ".tfdt-first.mp4";
  Save(moved, fragbytes::TfdtFirst(bytes), bytes.size());
  EXPECT_EQ(ProbeWarnings(moved), "");
  const std::string warned = ProbeWarnings(out);
  if (!warned.empty()) std::printf("note: ffprobe on the file as written: %s", warned.c_str());

  // ffmpeg with the fragment times of the file's index: every frame, as the source decodes.
  const char* byIndex = "-use_mfra_for dts";
  if (!src.video.empty()) {
    const auto v = FrameMd5s(out, "v", byIndex);
    EXPECT_EQ(v.size(), src.videoFrames.size());
    EXPECT_TRUE(SameFrames(v, src.videoFrames, src.videoFrames.size(), "video, by mfra"));
  }
  if (!src.audio.empty()) {
    const auto a = FrameMd5s(out, "a", byIndex);
    EXPECT_EQ(a.size(), src.audioFrames.size());
    EXPECT_TRUE(SameFrames(a, src.audioFrames, src.audioFrames.size(), "audio, by mfra"));
  }
  // The box at fault for ffmpeg's default reading: tfdt behind trun. With it in front, all frames.
  if (!src.video.empty()) {
    EXPECT_TRUE(SameFrames(FrameMd5s(moved, "v", ""), src.videoFrames, src.videoFrames.size(), "video, tfdt first"));
    const auto asWritten = FrameMd5s(out, "v", "");
    if (asWritten.size() != src.videoFrames.size() && all.fragments > 2)
      std::printf("note: ffmpeg without the index decodes %zu of %zu pictures: tfdt stands behind trun\n",
                  asWritten.size(), src.videoFrames.size());
  }
  if (!src.audio.empty()) {
    EXPECT_TRUE(SameFrames(FrameMd5s(moved, "a", ""), src.audioFrames, src.audioFrames.size(), "audio, tfdt first"));
  }

  if (!Shell("command -v gst-launch-1.0")) {
    std::printf("note: gst-launch-1.0 is not installed; qtdemux not tried\n");
    return;
  }
  for (const char* kind : {"video", "audio"}) {
    const auto& frames = std::string(kind) == "video" ? src.videoFrames : src.audioFrames;
    if (frames.empty()) continue;
    const GstRun g = GstPlay(out, kind);
    EXPECT_TRUE(g.eos) << kind << "\n" << g.log;
    EXPECT_EQ(g.buffers, static_cast<long long>(frames.size())) << kind << "\n" << g.log;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Streams, FragmentRecord,
    ::testing::Values(RecordCase{"SampleGop", &Sources::sample, "--fragmented", "mp4"},
                      RecordCase{"SampleFlush1s", &Sources::sample, "--fragmented --flush --fragment-ms 1000", "mp4"},
                      RecordCase{"PlainGop", &Sources::plain, "--fragmented", "mp4"},
                      RecordCase{"PlainFlush3s", &Sources::plain, "--fragmented --flush --fragment-ms 3000", "mp4"},
                      RecordCase{"PlainFormatFmp4", &Sources::plain, "--format fmp4", "m4v"},
                      RecordCase{"BframesGop", &Sources::bframes, "--fragmented", "mp4"},
                      RecordCase{"Bframes1s", &Sources::bframes, "--fragmented --fragment-ms 1000", "mp4"},
                      RecordCase{"BframesLongerThanAll", &Sources::bframes, "--fragmented --flush --fragment-ms 7000", "mp4"},
                      RecordCase{"ToneHalfSecond", &Sources::tone, "--fragmented", "mp4"},
                      RecordCase{"ToneFlush250ms", &Sources::tone, "--fragmented --flush --fragment-ms 250", "mp4"}),
    [](const ::testing::TestParamInfo<RecordCase>& i) { return std::string(i.param.name); });

int countFromEnv(const char* name, int fallback) {
  const char* v = std::getenv(name);
  return v && std::atoi(v) > 0 ? std::atoi(v) : fallback;
}

// A file cut anywhere: every fragment that lies wholly before the cut decodes as the source does.
// Returns the number of complete fragments.
size_t checkCut(const std::string& path, const Source& src, const std::string& what) {
  const Bytes bytes = Load(path);
  const File f = fragbytes::Read(bytes);
  const Complete c = completeFragments(f, true);
  if (c.fragments == 0) return 0;
  const std::string moved = path + ".tfdt-first.mp4";
  Save(moved, fragbytes::TfdtFirst(bytes), bytes.size());
  if (fragbytes::EndsInsideTrun(bytes)) {
    // ffmpeg refuses such a file whole; qtdemux plays the complete fragments.
    EXPECT_TRUE(FrameMd5s(moved, "v", "").empty()) << what << ": ffmpeg reads a cut trun now";
    EXPECT_EQ(GstPlay(moved, "video").buffers, static_cast<long long>(c.video)) << what;
    EXPECT_EQ(GstPlay(moved, "audio").buffers, static_cast<long long>(c.audio)) << what;
  } else {
    EXPECT_TRUE(SameFrames(FrameMd5s(moved, "v", ""), src.videoFrames, c.video, "video")) << what;
    EXPECT_TRUE(SameFrames(FrameMd5s(moved, "a", ""), src.audioFrames, c.audio, "audio")) << what;
  }
  Shell("rm -f '" + moved + "'");
  return c.fragments;
}

// A --flush recording of src into out, started in the background; its pid.
pid_t startRecording(const std::string& out, const std::string& tmp, const Source& src) {
  const std::string exe = std::string(BOXWEAVE_BUILD_DIR) + "/boxweave";
  const std::string dir = out.substr(0, out.rfind('/'));
  Shell("rm -rf " + dir + " && mkdir -p " + tmp);
  const pid_t pid = fork();
  if (pid == 0) {
    if (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "w", stderr)) _exit(127);
    execl(exe.c_str(), exe.c_str(), "record", "-o", out.c_str(), "--fragmented", "--flush", "--fragment-ms", "200",
          "--video", src.video.c_str(), "--audio", src.audio.c_str(), "--tmp", tmp.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

// How long a whole recording takes, in microseconds; -1 when it fails.
long long recordingSpan(const std::string& out, const std::string& tmp, const Source& src) {
  const auto t0 = std::chrono::steady_clock::now();
  const pid_t pid = startRecording(out, tmp, src);
  int status = 0;
  if (pid <= 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - t0).count();
}

// Sends sig to the recording once its output has reached `bytes` (or never, when it ends first), so
// that the moment falls within the recording however fast the machine is; the wait status.
int signalAtSize(pid_t pid, const std::string& out, long long bytes, int sig) {
  int status = 0;
  for (;;) {
    if (waitpid(pid, &status, WNOHANG) == pid) return status;
    struct stat st {};
    if (::stat(out.c_str(), &st) == 0 && st.st_size >= bytes) break;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  kill(pid, sig);
  waitpid(pid, &status, 0);
  return status;
}

class FragmentCutOff : public ::testing::Test {
 protected:
  void SetUp() override {
    if (sources().missingTools) GTEST_SKIP() << sources().why;
    ASSERT_TRUE(sources().ok) << sources().why;
  }
};

// SIGKILL at random moments of a recording with --flush. The number of kills is
// BOXWEAVE_FRAGMENT_KILLS (default 10).
TEST_F(FragmentCutOff, KilledRecordingKeepsItsFragments) {
  const Source& src = sources().longPlain;
  const std::string dir = sources().dir + "/killed";
  const std::string out = dir + "/rec.mp4", tmp = dir + "/tmp";
  ASSERT_GT(recordingSpan(out, tmp, src), 0);
  const long long finalBytes = static_cast<long long>(Load(out).size());

  const int kills = countFromEnv("BOXWEAVE_FRAGMENT_KILLS", 10);
  std::mt19937 rng(1234);
  std::uniform_int_distribution<long long> when(0, finalBytes - 1);
  size_t cutMidway = 0;
  for (int k = 0; k < kills; ++k) {
    const long long at = when(rng);
    const pid_t pid = startRecording(out, tmp, src);
    ASSERT_GT(pid, 0);
    const int status = signalAtSize(pid, out, at, SIGKILL);
    const std::string what =
        "kill " + std::to_string(k) + " at " + std::to_string(at) + " of " + std::to_string(finalBytes) + " bytes";
    EXPECT_TRUE(Capture("ls -A " + tmp).empty()) << what << ": temporary files left";
    EXPECT_EQ(Capture("ls -A " + dir + " | grep -v -x -e tmp -e rec.mp4"), "") << what;
    const size_t fragments = checkCut(out, src, what);
    if (WIFSIGNALED(status) && fragments > 0) ++cutMidway;
  }
  std::printf("%d kills; %zu cut a recording with fragments written\n", kills, cutMidway);
  EXPECT_GT(cutMidway, 0u) << "no kill landed within a recording";
}

// SIGINT and SIGTERM end the recording between two packets: the last fragment and the index are
// written, and the file is whole.
TEST_F(FragmentCutOff, StopSignalClosesWithLastFragmentAndIndex) {
  const Source& src = sources().longPlain;
  const std::string dir = sources().dir + "/stopped";
  const std::string out = dir + "/rec.mp4", tmp = dir + "/tmp";
  ASSERT_GT(recordingSpan(out, tmp, src), 0);
  const long long finalBytes = static_cast<long long>(Load(out).size());
  for (const int sig : {SIGINT, SIGTERM}) {
    const pid_t pid = startRecording(out, tmp, src);
    ASSERT_GT(pid, 0);
    const int status = signalAtSize(pid, out, finalBytes / 3, sig);
    ASSERT_TRUE(WIFEXITED(status)) << sig;
    if (WEXITSTATUS(status) == 0) {
      std::printf("note: the recording ended before signal %d came\n", sig);
      continue;
    }
    EXPECT_EQ(WEXITSTATUS(status), 128 + sig);
    const Bytes bytes = Load(out);
    const File f = fragbytes::Read(bytes);
    EXPECT_TRUE(f.whole) << f.types();
    ASSERT_FALSE(f.top.empty());
    EXPECT_EQ(f.top.back().type, "mfra");
    const Complete c = completeFragments(f, true);
    EXPECT_EQ(c.fragments, f.fragments.size());
    EXPECT_LT(c.video, src.videoFrames.size()) << "stopped early";
    EXPECT_GT(checkCut(out, src, "signal " + std::to_string(sig)), 0u);
    EXPECT_TRUE(SameFrames(FrameMd5s(out, "v", "-use_mfra_for dts"), src.videoFrames, c.video, "video, by mfra"));
    EXPECT_TRUE(Capture("ls -A " + tmp).empty());
  }
}

// A finished file cut at random lengths (BOXWEAVE_FRAGMENT_CUTS, default 25).
TEST_F(FragmentCutOff, FileCutShortKeepsItsFragments) {
  const Source& src = sources().longPlain;
  const std::string dir = sources().dir + "/cut";
  const std::string out = dir + "/rec.mp4", part = dir + "/part.mp4";
  ASSERT_TRUE(Shell("rm -rf " + dir + " && mkdir -p " + dir));
  const ToolResult r = RunTool("record -o '" + out + "' --fragmented --fragment-ms 500" + src.recordArgs());
  ASSERT_EQ(r.status, 0) << r.err;
  const Bytes whole = Load(out);
  const int cuts = countFromEnv("BOXWEAVE_FRAGMENT_CUTS", 25);
  std::mt19937 rng(4321);
  std::uniform_int_distribution<size_t> length(0, whole.size());
  // Besides the random lengths, one inside the sample table of the fifth moof's trun.
  const fragbytes::File f = fragbytes::Read(whole);
  ASSERT_GT(f.fragments.size(), 5u);
  const size_t inTrun = f.fragments[4].pos + 8 + 16 + 8 + 20 + 30;
  ASSERT_TRUE(fragbytes::EndsInsideTrun(Bytes(whole.begin(), whole.begin() + static_cast<long>(inTrun))));
  for (int k = 0; k <= cuts; ++k) {
    const size_t n = k == cuts ? inTrun : length(rng);
    Save(part, whole, n);
    checkCut(part, src, "cut at " + std::to_string(n) + " of " + std::to_string(whole.size()));
  }
}

}  // namespace
