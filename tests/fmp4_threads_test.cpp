// A fragmented file with its index played by the element's thread while the host's thread seeks it
// again and again: the seeks and the reads meet in the engine (run under ThreadSanitizer too).
#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/FragmentedFiles.h"
#include "tests/GeneratedMedia.h"
#include "tests/PlayRig.h"

namespace {

TEST(FragmentedThreads, SeeksFromTheHostWhileTheElementPlays) {
  std::string why;
  const std::string dir = generated::ScratchDir("bw_fthreads_", why);
  if (dir.empty()) GTEST_SKIP() << why;
  const std::string frag = dir + "/frag.mp4", indexed = dir + "/indexed.mp4";
  ASSERT_TRUE(fragmented::MakeFragmented(frag, "+default_base_moof"));
  ASSERT_TRUE(fragmented::WriteFile(indexed, fragmented::WithOwnIndex(ReadWhole(frag))));

  // Every packet the file holds, by size and first bytes.
  std::set<std::pair<int, playtest::Bytes>> known;
  {
    playtest::Player whole(indexed);
    ASSERT_EQ(whole.Run(), "eos");
    for (const playtest::Got& g : whole.sink.Packets()) known.insert({g.size, g.head});
    ASSERT_GT(known.size(), 250u);
  }

  playtest::Player p(indexed);
  ASSERT_TRUE(p.dmx && p.linked);
  ASSERT_TRUE(p.dmx->Open());
  ASSERT_TRUE(p.dmx->Start());
  std::mt19937 random(7);
  std::uniform_int_distribution<long long> at(0, 3900);
  int refused = 0;
  for (int i = 0; i < 60; ++i) {
    std::this_thread::sleep_for(std::chrono::microseconds(300 + 50 * (i % 7)));
    refused += !p.dmx->Set("seek", at(random));
  }
  // The last seek lets the thread run to the end once more, also when it had ended before.
  const size_t before = p.MessageCount();
  refused += !p.dmx->Set("seek", 0LL);
  const std::string end = p.WaitMessage(before + 1);
  p.dmx->Stop();
  EXPECT_EQ(refused, 0);
  EXPECT_EQ(end.substr(0, 3), "eos") << end;
  const std::vector<playtest::Got> got = p.sink.Packets();
  EXPECT_GT(got.size(), 300u) << "at least the play from the last seek";
  size_t foreign = 0;
  for (const playtest::Got& g : got) foreign += known.count({g.size, g.head}) == 0;
  EXPECT_EQ(foreign, 0u) << "every packet is one of the file's, read whole";
  Shell("rm -rf " + dir);
}

}  // namespace
