// The command-line host as a user meets it: verbs, options, exit statuses.
#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

#include "tests/ToolRun.h"

TEST(Cli, HelpVersionAndUsageErrors) {
  ToolResult version = RunTool("--version");
  EXPECT_EQ(version.status, 0);
  EXPECT_NE(version.out.find("boxweave@version:2.0.2.*.8ed0fe8"), std::string::npos) << version.out;
  // Each help names what it must: the verbs, the global options, each verb's own options.
  const struct {
    const char* args;
    std::vector<const char*> says;
  } helps[] = {
      {"--help", {"inspect", "info", "demo", "record", "--log-level", "--version", "Exit status"}},
      {"info --help", {"FILE", "--json", "--summary", "past the end of the file"}},
      {"inspect -h", {"WORDS"}},
      {"demo --help", {"DIR", "boxweave-demo"}},
      {"record --help",
       {"-o OUT", "--format", "--video", "--audio", "--fps", "--thumb", "--cache-block", "--cache-blocks", "--spill",
        "--table-files", "--tmp", "--set"}},
  };
  for (const auto& h : helps) {
    const ToolResult r = RunTool(h.args);
    EXPECT_EQ(r.status, 0) << h.args;
    for (const char* word : h.says) EXPECT_NE(r.out.find(word), std::string::npos) << h.args << ": " << word;
  }
  for (const char* bad : {"", "frobnicate", "--frobnicate inspect", "--log-level X inspect", "--log-level",
                          "info", "info --bogus x", "inspect a b", "info --json --summary x", "demo a b",
                          "info --log-level E x"}) {
    ToolResult r = RunTool(bad);
    EXPECT_EQ(r.status, 2) << bad;
    EXPECT_EQ(r.err.rfind("boxweave: ", 0), 0u) << bad << ": " << r.err;
    EXPECT_NE(r.err.find("--help'"), std::string::npos) << bad << ": " << r.err;
  }
  // The hint leads to the help that tells of the option at fault.
  EXPECT_NE(RunTool("--log-level X inspect").err.find("Try 'boxweave --help'"), std::string::npos);
  EXPECT_NE(RunTool("info --bogus x").err.find("Try 'boxweave info --help'"), std::string::npos);
}

TEST(Cli, InspectListsAndFindsClassesByKeyword) {
  struct Case {
    const char *args, *out;
    int status;
  } cases[] = {
      {"inspect", "videoTags\n", 0},
      {"inspect", "audio_chunk_first", 0},
      {"inspect", "io-cache-writer", 0},  // the host's own classes are listed too
      {"inspect VIDEOTAGS", "vendor Quorelvan", 0},
      {"inspect writer-cache", "io-cache-writer", 0},
      {"inspect mov-nothing-at-all", "no class", 1},
  };
  for (const Case& c : cases) {
    ToolResult r = RunTool(c.args);
    EXPECT_EQ(r.status, c.status) << c.args;
    EXPECT_NE((c.status ? r.err : r.out).find(c.out), std::string::npos) << c.args << ": " << r.out << r.err;
  }
}
