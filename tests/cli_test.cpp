// The command-line host as a user meets it: verbs, options, exit statuses.
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/ToolRun.h"

TEST(Cli, HelpVersionAndUsageErrors) {
  ToolResult help = RunTool("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("inspect"), std::string::npos);
  EXPECT_NE(help.out.find("info"), std::string::npos);

  ToolResult version = RunTool("--version");
  EXPECT_EQ(version.status, 0);
  EXPECT_NE(version.out.find("boxweave@version:2.0.2.*.8ed0fe8"), std::string::npos) << version.out;

  for (const char* bad : {"", "frobnicate", "--frobnicate inspect", "--log-level X inspect", "--plugin-dir",
                          "info", "info --bogus x", "inspect a b"}) {
    ToolResult r = RunTool(bad);
    EXPECT_EQ(r.status, 2) << bad;
    EXPECT_NE(r.err.find("boxweave: "), std::string::npos) << bad;
  }
}

TEST(Cli, PluginIsLoadedFromItsDirectory) {
  ToolResult missing = RunTool("--plugin-dir /nonexistent inspect");
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("cannot load the plug-in"), std::string::npos);
  ToolResult given = RunTool(std::string("--plugin-dir ") + BOXWEAVE_BUILD_DIR + " inspect");
  EXPECT_EQ(given.status, 0);
}

TEST(Cli, InspectListsAndFindsClassesByKeyword) {
  ToolResult all = RunTool("inspect");
  ASSERT_EQ(all.status, 0);
  EXPECT_NE(all.out.find("videoTags\n"), std::string::npos);
  EXPECT_NE(all.out.find("audio_chunk_first"), std::string::npos);
  EXPECT_NE(all.out.find("io-cache-writer"), std::string::npos) << "the host's own classes are listed too";

  ToolResult one = RunTool("inspect VIDEOTAGS");
  EXPECT_EQ(one.status, 0);
  EXPECT_NE(one.out.find("vendor Quorelvan"), std::string::npos) << one.out;

  ToolResult cache = RunTool("inspect writer-cache");
  EXPECT_EQ(cache.status, 0);
  EXPECT_NE(cache.out.find("io-cache-writer"), std::string::npos);

  ToolResult none = RunTool("inspect mov-nothing-at-all");
  EXPECT_EQ(none.status, 1);
  EXPECT_NE(none.err.find("no class"), std::string::npos);
}
