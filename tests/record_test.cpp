// What the command-line host's recorder says about input it cannot use. (Recordings themselves are
// checked by ffmpeg in record_generated_test.)
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/ToolRun.h"

TEST(Record, InputErrorsHaveMessagesAndStatuses) {
  const std::string samples = std::string(BOXWEAVE_SOURCE_DIR) + "/samples";
  const std::string dir = std::string(::testing::TempDir()) + "/record" + std::to_string(::getpid());
  ASSERT_TRUE(Shell("rm -rf " + dir + " && mkdir -p " + dir));
  // A file that is not Annex-B, under a name the reader accepts.
  std::ofstream(dir + "/fake.h264", std::ios::binary) << ReadWhole(samples + "/sample.aac").substr(0, 4000);
  const std::string o = "record -o " + dir + "/x.mov", v = " --video " + samples + "/sample.h264";
  const struct {
    std::string args;
    int status;
    std::string says;
  } cases[] = {
      {o + " --video " + dir + "/missing.h264", 1, "missing.h264"},
      {"record -o " + dir + "/x.avi" + v, 2, "cannot tell the format"},
      {o + " --video " + samples + "/sample.aac", 2, "is not an H.264 elementary stream"},
      {o + " --video " + samples + "/../README.md.h264", 1, "README.md.h264"},
      {o + " --video " + dir + "/fake.h264", 1, "not an H.264 Annex-B stream"},
      {o + " --audio " + samples + "/../CMakeLists.txt", 2, "not an AAC"},
      {"record -o " + dir + "/no/such/dir/x.mov" + v, 1, "cannot record to"},
      {o + v + " --set no_such_tag=1", 2, "unknown tag"},
      {o + v + " --fps 0", 2, "--fps"},
      {"record" + v, 2, "-o is required"},
      {o + v + " --cache-block 4096", 2, "--cache-block requires --cache-blocks"},
      {o + v + " --cache-block 0 --cache-blocks 2", 2, "--cache-block"},
      {o + v + " --format avi", 2, "--format"},
      {o + v + " --set videosampleperchunk", 2, "wants TAG=VALUE"},
      {o + v + " --fps 30/0", 2, "--fps"},
      {o + " --format mp4", 2, "needs --video FILE or --audio FILE"},
      // Recorded, but the reserved thumbnail stays empty: said before it happens.
      {o + v + " --thumb", 0, "warning: --thumb: no JPEG at " + dir + "/x.jpg"},
  };
  for (const auto& c : cases) {
    const ToolResult r = RunTool(c.args);
    const size_t at = r.err.find(c.says);
    EXPECT_TRUE(r.status == c.status && at != std::string::npos) << c.args << "\n" << r.status << " " << r.err;
    EXPECT_EQ(r.err.find(c.says, at + 1), std::string::npos) << "said once: " << c.args << "\n" << r.err;
  }
  Shell("rm -rf " + dir);
}
