// The play and remux verbs as a user meets them: what they print for a good file, and the message and
// exit status for each kind of bad input or command line. The files are recordings of the bundled
// sample; what ffmpeg makes of the output is checked in play_generated_test.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/ToolRun.h"

namespace {

class PlayCli : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = boxtest::ProcessScratch() + "/playcli" + std::to_string(::getpid());
    const std::string samples = std::string(BOXWEAVE_SOURCE_DIR) + "/samples";
    Shell("rm -rf " + dir_ + " && mkdir -p " + dir_);
    ok_ = RunTool("record -o " + dir_ + "/both.mov --video " + samples + "/sample.h264 --audio " + samples +
                  "/sample.aac")
                  .status == 0 &&
          RunTool("record -o " + dir_ + "/sound.mp4 --audio " + samples + "/sample.aac").status == 0;
  }
  static void TearDownTestSuite() { Shell("rm -rf " + dir_); }
  void SetUp() override {
    if (!ok_) GTEST_FAIL() << "the bundled sample could not be recorded";
  }
  static std::string dir_;
  static bool ok_;
};
std::string PlayCli::dir_;
bool PlayCli::ok_ = false;

TEST_F(PlayCli, BadInputAndCommandLinesHaveMessagesAndStatuses) {
  const std::string d = dir_, both = d + "/both.mov";
  std::ofstream(d + "/garbage.mov") << ReadWhole(std::string(BOXWEAVE_SOURCE_DIR) + "/README.md");
  // The movie box stands behind the media data: a recording cut short has none.
  std::ofstream(d + "/cut.mov", std::ios::binary) << ReadWhole(both).substr(0, 50000);
  const struct {
    std::string args;
    int status;
    std::string says;  // on stderr
  } cases[] = {
      {"play " + d + "/missing.mov", 1, "missing.mov: cannot open: No such file or directory"},
      {"play " + d, 1, "not a movie file: a directory"},
      {"play " + d + "/garbage.mov", 1, "garbage.mov: no video or audio track the plug-in plays"},
      {"play " + d + "/cut.mov", 1, "cut.mov: no video or audio track"},
      {"play " + d + "/sound.mp4 --video-out " + d + "/v.h264", 1, "no video track to write to " + d + "/v.h264"},
      {"play " + both + " --thumb-out " + d + "/t.jpg", 1, "no thumbnail"},
      {"play " + both + " --video-out " + d + "/no/such/v.h264", 1, "v.h264: cannot write: No such file or directory"},
      {"play " + both + " --audio-out /dev/full", 1, "/dev/full: writing failed: No space left on device"},
      {"play", 2, "FILE is required"},
      {"play " + both + " --bogus", 2, "--bogus"},
      {"play " + both + " --from -1", 2, "--from"},
      {"play " + both + " --to 0", 2, "--to"},
      {"play " + both + " --from 2000 --to 1000", 2, "--to comes before --from"},
      {"play " + both + " --audio-out " + d + "/./both.mov", 2, "is the input"},
      {"play " + both + " --video-out " + d + "/x --audio-out " + d + "/x", 2, "two outputs are one file"},
      {"play " + both + " " + both, 2, ""},
      {"remux " + d + "/missing.mov " + d + "/o.mov", 1, "cannot open: No such file or directory"},
      {"remux " + both + " " + d + "/no/such/o.mov", 1, "o.mov: cannot write the movie"},
      {"remux " + both + " /dev/full --format mov", 1, "/dev/full: writing failed: No space left on device"},
      {"remux " + both + " " + both, 2, "is the input"},
      {"remux " + both + " " + d + "/o.avi", 2, "cannot tell the format of"},
      {"remux " + both + " " + d + "/o.mov --format avi", 2, "--format"},
      {"remux " + both, 2, "OUT is required"},
  };
  for (const auto& c : cases) {
    const ToolResult r = RunTool(c.args);
    EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.err;
    const size_t at = r.err.find(c.says);
    EXPECT_NE(at, std::string::npos) << c.args << "\n" << r.err;
    EXPECT_EQ(r.err.rfind("boxweave: ", 0), 0u) << c.args << "\n" << r.err;
    if (c.status == 2) {
      EXPECT_NE(r.err.find("--help'"), std::string::npos) << c.args << "\n" << r.err;
    }
    if (!c.says.empty()) {
      EXPECT_EQ(r.err.find(c.says, at + 1), std::string::npos) << "said once: " << c.args;
    }
    // What was read is summed up also when writing it failed.
    EXPECT_EQ(r.out.find("video:") != std::string::npos,
              c.args.rfind("play", 0) == 0 && c.args.find("/dev/full") != std::string::npos)
        << c.args;
  }
  // Nothing was created where the command line was refused.
  EXPECT_FALSE(Shell("test -e " + d + "/x")) << "an output opened before the refusal";
  EXPECT_FALSE(Shell("test -e " + d + "/o.mov"));
}

TEST_F(PlayCli, HelpTellsTheOptionsAndWhatIsPrinted) {
  const ToolResult r = RunTool("play --help");
  EXPECT_EQ(r.status, 0);
  for (const char* word : {"--video-out", "--packets", "--seek", "--live", "--thumb-out", "\"eos\"", "Exit status 1"})
    EXPECT_NE(r.out.find(word), std::string::npos) << word;
}

// The summary counts what the bundled sample holds: 120 pictures at 30 fps (4 of them key frames), 189
// AAC frames; the element's "eos" is printed first.
TEST_F(PlayCli, PlayPrintsTheEndAndASummaryLineATrack) {
  const ToolResult r = RunTool("play " + dir_ + "/both.mov");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out.rfind("eos clock=", 0), 0u) << r.out;
  EXPECT_NE(
      r.out.find("\nvideo: h264 320x240, 120 packets (4 key), 60451 bytes, 0.000 s to 3.967 s, duration 4.000 s\n"),
      std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("\naudio: aac 48000 Hz 2 ch, 189 packets (189 key), 49523 bytes, 0.000 s to 4.011 s, "
                       "duration 4.032 s\n"),
            std::string::npos)
      << r.out;
  const ToolResult sound = RunTool("play " + dir_ + "/sound.mp4");
  EXPECT_EQ(sound.status, 0) << sound.err;
  EXPECT_EQ(sound.out.find("video:"), std::string::npos) << sound.out;
  EXPECT_NE(sound.out.find("audio: aac 48000 Hz 2 ch, 189 packets"), std::string::npos) << sound.out;
}

// The play range and a seek made from the host's thread, seen in the packet lines.
TEST_F(PlayCli, RangeAndSeekChooseThePacketsPlayed) {
  auto times = [](const std::string& out, const std::string& after, const std::string& kind = "video") {
    std::vector<std::pair<double, bool>> times;  // time, key
    std::istringstream in(out.substr(out.find(after) == std::string::npos ? out.size() : out.find(after)));
    for (std::string line; std::getline(in, line);) {
      if (line.rfind("packet|codec_type=" + kind, 0) != 0) continue;
      const size_t at = line.find("pts_time=");
      times.emplace_back(std::atof(line.c_str() + at + 9), line.find("flags=K") != std::string::npos);
    }
    return times;
  };
  // Key frames stand every 30 pictures (1 s) in the sample. A range seeks forward to the key frame
  // at or after its start, and a packet later than its end ends the run.
  const ToolResult range = RunTool("play --packets --from 1200 --to 2500 " + dir_ + "/both.mov");
  ASSERT_EQ(range.status, 0) << range.err;
  const auto inRange = times(range.out, "");
  ASSERT_FALSE(inRange.empty()) << range.out;
  EXPECT_EQ(inRange.front(), std::make_pair(2.0, true));
  EXPECT_NEAR(inRange.back().first, 2.5, 0.034);
  EXPECT_EQ(inRange.size(), 16u);
  EXPECT_NE(range.out.find("eos clock="), std::string::npos);
  // Sound from the key frame's time on (its first frame within 1024 samples at 48 kHz), up to the end.
  const auto sound = times(range.out, "", "audio");
  ASSERT_FALSE(sound.empty());
  EXPECT_TRUE(sound.front().first >= 2.0 && sound.front().first < 2.0 + 1024 / 48000.0) << sound.front().first;
  EXPECT_TRUE(sound.back().first <= 2.5 && sound.back().first > 2.5 - 1024 / 48000.0) << sound.back().first;
  // The seek comes while the first packet is in the sink: that packet, then the key frame for 3 s.
  const ToolResult seek = RunTool("play --packets --seek 3000 " + dir_ + "/both.mov");
  ASSERT_EQ(seek.status, 0) << seek.err;
  const size_t at = seek.out.find("\nseek ms=3000\n");
  ASSERT_NE(at, std::string::npos) << seek.out;
  EXPECT_EQ(seek.out.find("packet|", seek.out.find("packet|") + 1), at + 1 + 13) << "one packet before the seek";
  const auto after = times(seek.out, "\nseek ms=3000\n");
  ASSERT_EQ(after.size(), 30u);
  EXPECT_EQ(after.front(), std::make_pair(3.0, true));
  const auto soundAfter = times(seek.out, "\nseek ms=3000\n", "audio");
  ASSERT_FALSE(soundAfter.empty());
  EXPECT_TRUE(soundAfter.front().first >= 3.0 && soundAfter.front().first < 3.0 + 1024 / 48000.0);
  EXPECT_NE(seek.out.find("video: h264 320x240, 31 packets"), std::string::npos) << seek.out;
}

// A four-second recording takes about four seconds with --live (the first packet leaves at once, the
// last at 3.97 s), and far less without.
TEST_F(PlayCli, LivePlaysAtTheFilesPace) {
  auto seconds = [](const std::string& args, ToolResult& r) {
    const auto start = std::chrono::steady_clock::now();
    r = RunTool(args);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  ToolResult r;
  const double live = seconds("play --live " + dir_ + "/both.mov", r);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_GE(live, 3.9);
  EXPECT_LE(live, 6.0);
  const double fast = seconds("play " + dir_ + "/both.mov", r);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_LT(fast, 1.5);
}

}  // namespace
