// The command-line host as a user meets it: verbs, options, exit statuses.
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/ToolRun.h"

TEST(Cli, HelpVersionAndUsageErrors) {
  ToolResult help = RunTool("--help");
  EXPECT_EQ(help.status, 0);
  for (const char* verb : {"inspect", "info"}) EXPECT_NE(help.out.find(verb), std::string::npos) << verb;
  ToolResult version = RunTool("--version");
  EXPECT_EQ(version.status, 0);
  EXPECT_NE(version.out.find("boxweave@version:2.0.2.*.8ed0fe8"), std::string::npos) << version.out;
  for (const char* bad : {"", "frobnicate", "--frobnicate inspect", "--log-level X inspect", "--log-level",
                          "info", "info --bogus x", "inspect a b"}) {
    ToolResult r = RunTool(bad);
    EXPECT_EQ(r.status, 2) << bad;
    EXPECT_NE(r.err.find("boxweave: "), std::string::npos) << bad;
  }
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
