// Ctrl-C during play: the run stops between packets, what came is written and told, and the exit
// status is the signal's.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "tests/GeneratedMedia.h"
#include "tests/ToolRun.h"

namespace {

TEST(PlaySignal, SigintStopsTheRunWithItsOutputsWritten) {
  std::string why;
  const std::string dir = generated::ScratchDir("bw_sig", why);
  if (dir.empty()) GTEST_SKIP() << why;
  const std::string samples = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/";
  ASSERT_EQ(RunTool("record -o " + dir + "/s.mp4 --video " + samples + "sample.h264 --audio " + samples + "sample.aac")
                .status,
            0);
  // --live plays the 4 s recording on the clock; the signal comes halfway.
  const ToolResult r = RunTool("play " + dir + "/s.mp4 --live --packets --video-out " + dir + "/v.h264",
                               "timeout --preserve-status -s INT 2 ");
  EXPECT_EQ(r.status, 130) << r.err;
  std::smatch m;
  ASSERT_TRUE(std::regex_search(r.err, m, std::regex("s\\.mp4: stopped by SIGINT after (\\d+) packets; what came is written")))
      << r.err;
  const long told = std::stol(m[1]);
  long listed = 0, videoBytes = 0;
  const std::regex line("packet\\|codec_type=(video|audio)\\|.*\\|size=(\\d+)\\|");
  for (std::sregex_iterator i(r.out.begin(), r.out.end(), line), e; i != e; ++i) {
    ++listed;
    if ((*i)[1] == "video") videoBytes += std::stol((*i)[2]);
  }
  EXPECT_EQ(listed, told);
  EXPECT_GT(told, 10);
  EXPECT_LT(told, 250) << "the whole file played: no signal came in time";
  EXPECT_NE(r.out.find("\nvideo: h264 320x240, "), std::string::npos) << "the summary is printed";
  // The video output holds every packet that came, behind the parameter sets.
  const long written = static_cast<long>(ReadWhole(dir + "/v.h264").size());
  EXPECT_GT(written, videoBytes);
  EXPECT_LT(written, videoBytes + 100);
  Shell("rm -rf " + dir);
}

}  // namespace
