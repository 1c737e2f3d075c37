// The fragmented recording as the command line offers it: the options, the mistakes it refuses, the
// help that says when to choose it.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/FragmentBytes.h"
#include "tests/FragmentOracles.h"
#include "tests/ToolRun.h"

namespace {

const std::string& sample() {
  static const std::string s = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/sample.h264";
  return s;
}

TEST(FragmentCli, OptionsAndTheirMistakes) {
  const std::string out = boxtest::ProcessScratch() + "/fmp4cli" + std::to_string(::getpid());
  struct Case {
    std::string args;
    int status;
    const char* says;  // on stderr for a refusal
    bool fragmented;   // the file has moof boxes
  };
  const Case cases[] = {
      {"-o " + out + ".mp4 --fragmented", 0, "", true},
      {"-o " + out + ".bin --format fmp4 --flush --fragment-ms 500", 0, "", true},
      {"-o " + out + ".mp4", 0, "", false},
      {"-o " + out + ".mp4 --fragment-ms 500", 2, "need --fragmented", false},
      {"-o " + out + ".mp4 --flush", 2, "need --fragmented", false},
      {"-o " + out + ".mp4 --fragmented --format mov", 2, "writes MP4", false},
      {"-o " + out + ".mp4 --fragmented --spill", 2, "keeps no sample tables", false},
      {"-o " + out + ".mp4 --fragmented --table-files", 2, "keeps no sample tables", false},
      {"-o " + out + ".mp4 --fragmented --text " + out + ".srt", 2, "takes H.264 video and AAC or PCM audio", false},
      {"-o " + out + ".mp4 --fragmented --fragment-ms 0", 2, "--fragment-ms", false},
  };
  for (const Case& c : cases) {
    Shell("rm -f " + out + ".*");
    const ToolResult r = RunTool("record " + c.args + " --video " + sample());
    EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.err;
    if (c.status != 0) {
      EXPECT_NE(r.err.find(c.says), std::string::npos) << c.args << ": " << r.err;
      continue;
    }
    const std::string file = c.args.substr(3, c.args.find(' ', 3) - 3);
    const fragbytes::File f = fragbytes::Read(fragoracle::Load(file));
    EXPECT_TRUE(f.whole) << c.args;
    EXPECT_EQ(!f.fragments.empty(), c.fragmented) << c.args << ": " << f.types();
    EXPECT_EQ(!f.top.empty() && f.top.back().type == "mfra", c.fragmented) << c.args << ": " << f.types();
  }
  Shell("rm -f " + out + ".*");

  // The thumbnail stands in the init segment: the JPEG beside the output, in front of the first moof.
  ASSERT_TRUE(Shell("ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=64x48 -frames:v 1 " + out + ".jpg"));
  const ToolResult thumb = RunTool("record -o " + out + ".mp4 --fragmented --thumb --video " + sample());
  EXPECT_EQ(thumb.status, 0) << thumb.err;
  const fragbytes::Bytes file = fragoracle::Load(out + ".mp4"), jpeg = fragoracle::Load(out + ".jpg");
  const fragbytes::File f = fragbytes::Read(file);
  ASSERT_FALSE(jpeg.empty());
  ASSERT_FALSE(f.fragments.empty());
  const auto at = std::search(file.begin(), file.end(), jpeg.begin(), jpeg.end());
  ASSERT_NE(at, file.end()) << "no thumbnail";
  EXPECT_LT(static_cast<size_t>(at - file.begin()), f.fragments.front().pos);
  EXPECT_EQ(std::string(at - 4, at), "thum");
  Shell("rm -f " + out + ".*");

  const ToolResult help = RunTool("record --help");
  for (const char* word : {"--fragmented", "--fragment-ms", "--flush", "fmp4", "cut off"})
    EXPECT_NE(help.out.find(word), std::string::npos) << word;
}

}  // namespace
