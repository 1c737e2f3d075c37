// Recording through the command-line host, checked by ffprobe and ffmpeg.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "tests/ToolRun.h"

namespace {

const std::string kSamples = std::string(BOXWEAVE_SOURCE_DIR) + "/samples";

std::string capture(const std::string& cmd) {
  std::string out;
  if (FILE* p = popen(cmd.c_str(), "r")) {
    char buf[512];
    while (fgets(buf, sizeof buf, p)) out += buf;
    pclose(p);
  }
  return out;
}

class Record : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!Shell("command -v ffprobe")) GTEST_SKIP() << "ffprobe is not installed";
    dir_ = std::string(::testing::TempDir()) + "/record" + std::to_string(::getpid());
    Shell("rm -rf " + dir_ + " && mkdir -p " + dir_ + "/tmp");
  }
  void TearDown() override { Shell("rm -rf " + dir_); }

  ToolResult record(const std::string& out, const std::string& extra = "") {
    return RunTool("record -o " + dir_ + "/" + out + " --video " + kSamples + "/sample.h264 --audio " + kSamples +
                   "/sample.aac --tmp " + dir_ + "/tmp " + extra);
  }
  // "codec frames width height" a stream, counted by decoding.
  std::string probe(const std::string& file) {
    return capture("ffprobe -v error -count_frames -show_entries stream=codec_name,nb_read_frames,width,height -of csv=p=0 " +
                   dir_ + "/" + file);
  }
  std::string tables(const std::string& file) {
    return capture(std::string(BOXWEAVE_BUILD_DIR) + "/boxweave info " + dir_ + "/" + file +
                   " | grep -E '^ *(stts|stsc|stsz|stco|co64|stss|ctts) ' | sed 's/offset=[0-9]* //'");
  }
  std::string dir_;
};

TEST_F(Record, MovAndMp4DecodeWholeWithTheirMessages) {
  for (const char* out : {"a.mov", "a.mp4"}) {
    ToolResult r = record(out);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("fileurl "), std::string::npos);
    EXPECT_NE(r.out.find("media width=320 height=240"), std::string::npos);
    EXPECT_NE(r.out.find("fileClose duration="), std::string::npos);
    EXPECT_EQ(probe(out), "h264,320,240,120\naac,189\n") << out;
    EXPECT_TRUE(Shell("ffmpeg -v error -i " + dir_ + "/" + out + " -f null -")) << out;
  }
  const std::string mov = capture(std::string(BOXWEAVE_BUILD_DIR) + "/boxweave info " + dir_ + "/a.mov | head -1");
  const std::string mp4 = capture(std::string(BOXWEAVE_BUILD_DIR) + "/boxweave info " + dir_ + "/a.mp4 | head -1");
  EXPECT_NE(mov.find("major_brand=qt  "), std::string::npos) << mov;
  EXPECT_NE(mp4.find("major_brand=mp42"), std::string::npos) << mp4;
}

TEST_F(Record, SpillListsAndTableFilesGiveTheSameTablesAndLeaveNoFile) {
  ASSERT_EQ(record("plain.mov").status, 0);
  ASSERT_EQ(record("spill.mov", "--spill").status, 0);
  ASSERT_EQ(record("files.mov", "--table-files").status, 0);
  const std::string plain = tables("plain.mov");
  ASSERT_NE(plain.find("stsz "), std::string::npos);
  EXPECT_EQ(tables("spill.mov"), plain);
  EXPECT_EQ(tables("files.mov"), plain);
  EXPECT_EQ(capture("ls -A " + dir_ + "/tmp"), "") << "temporary files left behind";
  EXPECT_EQ(probe("files.mov"), "h264,320,240,120\naac,189\n");
}

TEST_F(Record, InputErrorsHaveMessagesAndStatuses) {
  const std::string v = " --video " + kSamples + "/sample.h264";
  struct Case {
    std::string args;
    int status;
    const char* says;
  } cases[] = {
      {"record -o " + dir_ + "/x.mov --video " + dir_ + "/missing.h264", 1, "missing.h264"},
      {"record -o " + dir_ + "/x.avi" + v, 2, "cannot tell the format"},
      {"record -o " + dir_ + "/x.mov --video " + kSamples + "/sample.aac", 2, "is not an H.264 elementary stream"},
      {"record -o " + dir_ + "/x.mov --video " + kSamples + "/../README.md.h264", 1, "README.md.h264"},
      {"record -o " + dir_ + "/x.mov --audio " + kSamples + "/../CMakeLists.txt", 2, "not an AAC"},
      {"record -o " + dir_ + "/no/such/dir/x.mov" + v, 1, "cannot record to"},
      {"record -o " + dir_ + "/x.mov" + v + " --set no_such_tag=1", 2, "unknown tag"},
      {"record -o " + dir_ + "/x.mov" + v + " --fps 0", 2, "--fps"},
      {"record" + v, 2, "-o OUT"},
      {"record -o " + dir_ + "/x.mov" + v + " --cache-block 4096", 2, "go together"},
  };
  for (const Case& c : cases) {
    ToolResult r = RunTool(c.args);
    EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << c.args << "\n" << r.err;
  }
  // A file that is not Annex-B, under a name the reader accepts.
  std::ofstream(dir_ + "/fake.h264", std::ios::binary) << ReadWhole(kSamples + "/sample.aac").substr(0, 4000);
  ToolResult r = RunTool("record -o " + dir_ + "/x.mov --video " + dir_ + "/fake.h264");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("not an H.264 Annex-B stream"), std::string::npos) << r.err;
}

}  // namespace
