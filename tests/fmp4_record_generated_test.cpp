// Fragmented recordings through the command-line host, of the bundled sample and of streams ffmpeg
// makes at test time (H.264, AAC, 16-bit PCM), judged by ffprobe, ffmpeg frame by frame and sample by
// sample, and GStreamer's qtdemux; and recordings cut off, by signals while recording and by cutting
// finished files short.
//
// The layout puts each traf's tfdt behind its trun. ffmpeg's mov reader takes a fragment's start from
// a tfdt it has already read, so by default it places every fragment but a track's first at the start
// of the fragment before, and drops the pictures that go back in time. The tests therefore decode
// finished files with "-use_mfra_for dts" (the fragment times from the file's own index), and the
// same bytes with tfdt moved in front of trun by default: both give everything.
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
  Source sample, bframes, tone, longPlain, stereo48, mono16;
  bool ok = false;
};

Sources& sources() {
  static Sources s = [] {
    Sources s;
    s.dir = generated::ScratchDir("fmp4rec", s.why);
    s.missingTools = s.dir.empty();
    if (s.dir.empty()) return s;
    const std::string pics = "-f lavfi -i testsrc2=size=160x120:rate=30 -pix_fmt yuv420p -c:v libx264 ";
    const auto tone = [](int hz, int rate, int seconds, int channels) {
      return "-f lavfi -i sine=frequency=" + std::to_string(hz) + ":sample_rate=" + std::to_string(rate) +
             ":duration=" + std::to_string(seconds) + " -ac " + std::to_string(channels);
    };
    const std::pair<std::string, std::string> made[] = {
        {"plain.h264", pics + "-frames:v 150 -bf 0 -g 15 -f h264"},
        {"bframes.h264", pics + "-frames:v 150 -bf 2 -g 30 -f h264"},
        {"long.h264", pics + "-frames:v 300 -bf 0 -g 15 -f h264"},
        {"tone.aac", tone(440, 48000, 5, 2) + " -c:a aac -f adts"},
        {"long.aac", tone(330, 48000, 10, 2) + " -c:a aac -f adts"},
        {"stereo48.wav", tone(440, 48000, 3, 2) + " -c:a pcm_s16le"},  // whole 20 ms packets: every sample is kept
        {"mono16.s16le", tone(300, 16000, 3, 1) + " -f s16le"},
    };
    for (const auto& m : made)
      if (!Shell("ffmpeg -nostdin -v error -y " + m.second + " " + s.dir + "/" + m.first)) {
        s.why = "ffmpeg could not make " + m.first;
        return s;
      }
    const std::string samples = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/", d = s.dir + "/";
    const auto of = [](const std::string& video, const std::string& audio, const char* format = "") {
      Source src;
      src.video = video, src.audio = audio, src.audioFormat = format;
      return src;
    };
    s.sample = of(samples + "sample.h264", samples + "sample.aac");
    s.bframes = of(d + "bframes.h264", "");
    s.tone = of("", d + "tone.aac");
    s.longPlain = of(d + "long.h264", d + "long.aac");
    s.stereo48 = of("", d + "stereo48.wav");
    s.mono16 = of(d + "plain.h264", d + "mono16.s16le", "s16le:16000:1");
    s.ok = true;
    for (Source* src : {&s.sample, &s.bframes, &s.tone, &s.longPlain, &s.stereo48, &s.mono16})
      s.ok = s.ok && src->learn();
    if (!s.ok) s.why = "ffmpeg could not decode the sources";
    return s;
  }();
  return s;
}

class WithSources : public ::testing::Test {
 protected:
  void SetUp() override {
    if (sources().missingTools) GTEST_SKIP() << sources().why;
    ASSERT_TRUE(sources().ok) << sources().why;
  }
};

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

class FragmentRecord : public ::testing::WithParamInterface<RecordCase>, public WithSources {};

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
  EXPECT_EQ(f.types().substr(0, 10), "ftyp,moov,");
  EXPECT_EQ(f.top.back().type, "mfra");
  const Complete all = completeFragments(f, !src.video.empty());
  EXPECT_EQ(all.video, src.videoFrames.size());
  EXPECT_EQ(all.audio, src.audioPackets());
  for (const fragbytes::Fragment& g : f.fragments) EXPECT_EQ(g.trafChildren, "tfhd,trun,tfdt");
  if (!src.audio.empty()) {
    const Fields probed = Probe(out)["audio"];
    EXPECT_EQ(Count(probed, "sample_rate"), src.rate);
    EXPECT_EQ(Count(probed, "channels"), src.channels);
  }

  // ffprobe reads tfdt the way ffmpeg does (see the top of this file): nothing to say once it stands
  // in front of trun. Both ways, every frame and every sample as the source decodes.
  const std::string moved = out + ".tfdt-first.mp4";
  Save(moved, fragbytes::TfdtFirst(bytes));
  EXPECT_EQ(ProbeWarnings(moved), "");
  for (const std::string& file : {out, moved}) {
    SCOPED_TRACE(file);
    const std::string byIndex = file == out ? "-use_mfra_for dts" : "";
    if (!src.video.empty()) {
      EXPECT_EQ(FrameMd5s(file, "v", byIndex), src.videoFrames);
    }
    if (!src.audio.empty()) {
      EXPECT_TRUE(DecodeAudio(byIndex + " -i '" + file + "'") == src.sound);
    }
  }

  if (!Shell("command -v gst-launch-1.0")) GTEST_SKIP() << "gst-launch-1.0 is not installed; qtdemux not tried";
  if (!src.video.empty()) {
    const GstRun g = GstPlay(out, "video");
    EXPECT_TRUE(g.eos) << g.log;
    EXPECT_EQ(g.buffers, static_cast<long long>(src.videoFrames.size())) << g.log;
  }
  if (!src.audio.empty()) {
    const GstRun g = GstPlay(out, src.pcm ? "pcm" : "audio");
    EXPECT_TRUE(g.eos) << g.log;
    if (src.pcm) {
      EXPECT_TRUE(g.raw == src.sound) << "qtdemux's samples differ\n" << g.log;
    } else {
      EXPECT_EQ(g.buffers, static_cast<long long>(src.audioPackets())) << g.log;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Streams, FragmentRecord,
    ::testing::Values(RecordCase{"SampleGop", &Sources::sample, "--fragmented", "mp4"},
                      RecordCase{"BframesFormatFmp4", &Sources::bframes, "--format fmp4 --fragment-ms 1000", "m4v"},
                      RecordCase{"ToneFlush250ms", &Sources::tone, "--fragmented --flush --fragment-ms 250", "mp4"},
                      // 20 ms packets: --fragment-ms takes the first count that reaches it, 13 here.
                      RecordCase{"PcmUneven250ms", &Sources::stereo48, "--fragmented --fragment-ms 250", "mp4"},
                      RecordCase{"PcmRawH264Flush40ms", &Sources::mono16, "--fragmented --flush --fragment-ms 40", "mp4"}),
    [](const ::testing::TestParamInfo<RecordCase>& i) { return std::string(i.param.name); });

// Fragment times wrap after 2^32 / (1000 × rate) seconds: record warns of a longer input, and only then.
TEST(PcmFragmentWrap, RecordWarnsOfInputsThatOutlastIt) {
  std::string why;
  const std::string dir = generated::ScratchDir("bw_pcmwrap", why);
  if (dir.empty()) GTEST_SKIP() << why;
  Save(dir + "/a.s16le", Bytes(8640000));  // 90 s of 48 kHz mono
  for (const int rate : {48000, 16000}) {
    const ToolResult r = RunTool("record -o " + dir + "/w.mp4 --fragmented --audio " + dir +
                                 "/a.s16le --audio-format s16le:" + std::to_string(rate) + ":1");
    ASSERT_EQ(r.status, 0) << r.err;
    const bool warned = r.err.find("a.s16le lasts 90.0 s; fragmented PCM times wrap after 89.5 s at 48000 Hz") !=
                        std::string::npos;
    EXPECT_EQ(warned, rate == 48000) << r.err;
  }
  Shell("rm -rf " + dir);
}

int countFromEnv(const char* name, int fallback) {
  const char* v = std::getenv(name);
  return v && std::atoi(v) > 0 ? std::atoi(v) : fallback;
}

// A file cut anywhere: every fragment that lies wholly before the cut decodes as the source does.
// Returns the number of complete fragments.
size_t checkCut(const std::string& path, const Source& src, const std::string& what) {
  const Bytes bytes = Load(path);
  const Complete c = completeFragments(fragbytes::Read(bytes), true);
  if (c.fragments == 0) return 0;
  const std::string moved = path + ".tfdt-first.mp4";
  Save(moved, fragbytes::TfdtFirst(bytes));
  if (fragbytes::EndsInsideTrun(bytes)) {
    // ffmpeg refuses such a file whole; qtdemux plays the complete fragments.
    EXPECT_TRUE(FrameMd5s(moved, "v", "").empty()) << what << ": ffmpeg reads a cut trun now";
    EXPECT_EQ(GstPlay(moved, "video").buffers, static_cast<long long>(c.video)) << what;
    EXPECT_EQ(GstPlay(moved, "audio").buffers, static_cast<long long>(c.audio)) << what;
  } else {
    EXPECT_TRUE(SameFrames(FrameMd5s(moved, "v", ""), src.videoFrames, c.video, "video")) << what;
    EXPECT_TRUE(SameSound(DecodeAudio("-i '" + moved + "'"), src, c.audio, "audio")) << what;
  }
  Shell("rm -f '" + moved + "'");
  return c.fragments;
}

// A --flush recording of src into out, started in the background; its pid.
pid_t startRecording(const std::string& out, const std::string& tmp, const Source& src) {
  const std::string exe = std::string(BOXWEAVE_BUILD_DIR) + "/boxweave";
  Shell("rm -rf " + out.substr(0, out.rfind('/')) + " && mkdir -p " + tmp);
  const pid_t pid = fork();
  if (pid == 0) {
    if (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "w", stderr)) _exit(127);
    execl(exe.c_str(), exe.c_str(), "record", "-o", out.c_str(), "--fragmented", "--flush", "--fragment-ms", "200",
          "--video", src.video.c_str(), "--audio", src.audio.c_str(), "--tmp", tmp.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
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

class FragmentCutOff : public WithSources {};

// Signals at moments of a recording with --flush, chosen by the size its output has reached. SIGKILL
// at random sizes (BOXWEAVE_FRAGMENT_KILLS, default 10): every fragment written before is whole and
// plays. SIGINT and SIGTERM end it between two packets: the last fragment and the index are written,
// the file is whole, and the exit status tells the signal. No temporary file stays behind.
TEST_F(FragmentCutOff, SignalledRecordingKeepsItsFragments) {
  const Source& src = sources().longPlain;
  const std::string dir = sources().dir + "/signalled";
  const std::string out = dir + "/rec.mp4", tmp = dir + "/tmp";
  int status = 0;
  const pid_t whole = startRecording(out, tmp, src);
  ASSERT_TRUE(whole > 0 && waitpid(whole, &status, 0) == whole && WIFEXITED(status) && WEXITSTATUS(status) == 0);
  const long long finalBytes = static_cast<long long>(Load(out).size());
  std::vector<std::pair<int, long long>> signals = {{SIGINT, finalBytes / 3}, {SIGTERM, finalBytes / 3}};
  std::mt19937 rng(1234);
  std::uniform_int_distribution<long long> when(0, finalBytes - 1);
  for (int k = countFromEnv("BOXWEAVE_FRAGMENT_KILLS", 10); k > 0; --k) signals.emplace_back(SIGKILL, when(rng));
  size_t cutMidway = 0;
  for (const auto& sig : signals) {
    const std::string what = "signal " + std::to_string(sig.first) + " at " + std::to_string(sig.second) + " of " +
                             std::to_string(finalBytes) + " bytes";
    SCOPED_TRACE(what);
    const pid_t pid = startRecording(out, tmp, src);
    ASSERT_GT(pid, 0);
    status = signalAtSize(pid, out, sig.second, sig.first);
    EXPECT_TRUE(Capture("ls -A " + tmp).empty()) << "temporary files left";
    EXPECT_EQ(Capture("ls -A " + dir + " | grep -v -x -e tmp -e rec.mp4"), "");
    const size_t fragments = checkCut(out, src, what);
    if (sig.first == SIGKILL) {
      cutMidway += WIFSIGNALED(status) && fragments > 0;
      continue;
    }
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 0) {
      std::printf("note: the recording ended before signal %d came\n", sig.first);
      continue;
    }
    EXPECT_EQ(WEXITSTATUS(status), 128 + sig.first);
    const File f = fragbytes::Read(Load(out));
    EXPECT_TRUE(f.whole) << f.types();
    ASSERT_FALSE(f.top.empty());
    EXPECT_EQ(f.top.back().type, "mfra");
    EXPECT_GT(fragments, 0u);
    const size_t pictures = completeFragments(f, true).video;
    EXPECT_LT(pictures, src.videoFrames.size()) << "stopped early";
    EXPECT_TRUE(SameFrames(FrameMd5s(out, "v", "-use_mfra_for dts"), src.videoFrames, pictures, "video, by mfra"));
  }
  std::printf("%zu of the kills cut a recording with fragments written\n", cutMidway);
  EXPECT_GT(cutMidway, 0u) << "no kill landed within a recording";
}

// A finished file cut at random lengths (BOXWEAVE_FRAGMENT_CUTS, default 25), and once inside the
// sample table of the fifth moof's trun.
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
  const File f = fragbytes::Read(whole);
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
