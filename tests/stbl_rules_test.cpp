// The rules behind every sample table, fed one record at a time as a table-on-file form or a reader
// feeds them.
#include <gtest/gtest.h>

#include <vector>

#include "StblTestUtil.h"
#include "stream/plugin/mp4/common/StblRules.h"

using namespace kiv::plugin::mov;
using namespace stbltest;

namespace {

// Entries a rule has handed out after each record, and after finish.
template <class Rule>
std::vector<int> EmittedSteps(Rule rule, const List& l) {
  std::vector<int> steps;
  int n = 0;
  auto emit = [&n](const auto&) { ++n; };
  for (const ChunkParam& r : l) {
    rule.add(r, emit);
    steps.push_back(n);
  }
  rule.finish(emit);
  steps.push_back(n);
  return steps;
}

}  // namespace

// A table written while recording is only as current as its rule: an entry must come out with the
// record that completes it, not later.
TEST(StblRules, EntriesComeOutWithTheRecordThatCompletesThem) {
  const List runs = {Rec(1, 9, 40), Rec(2, 9, 40), Rec(3, 9, 20), Rec(4, 9, 20)};
  const List sync = {Rec(0, 9, 1, 1, 1), Rec(0, 9, 1), Rec(0x10, 9, 1, 1, 1)};
  const List shapes = {Rec(0, 9, 1, 2), Rec(0x10, 9, 1, 2), Rec(0, 9, 1, 1, 0, 2)};
  const List five(5, Rec(0, 9, 7));
  EXPECT_EQ(EmittedSteps(SttsRule(), runs), (std::vector<int>{0, 0, 1, 1, 2}));
  EXPECT_EQ(EmittedSteps(CttsRule(), five), (std::vector<int>{0, 0, 2, 2, 2, 4}));  // the torn group at finish
  EXPECT_EQ(EmittedSteps(StscRule(), shapes), (std::vector<int>{1, 1, 2, 2}));
  EXPECT_EQ(EmittedSteps(StssRule(), sync), (std::vector<int>{1, 1, 2, 2}));
  EXPECT_EQ(EmittedSteps(ChunkOffsetRule(), sync), (std::vector<int>{0, 0, 1, 1}));
  EXPECT_EQ(EmittedSteps(StszRule(), sync), (std::vector<int>{1, 2, 3, 3}));
  EXPECT_EQ(EmittedSteps(StszRule(2), sync), (std::vector<int>{0, 0, 0, 0}));
}

// What "stsc" is written as must read back as the samples recorded: the writing rule and the reading
// arithmetic agree for chunks of changing size.
TEST(StblRules, StscWrittenReadsBackAsTheSamplesRecorded) {
  const std::vector<std::vector<uint32_t>> layouts = {
      {1}, {3, 3, 3}, {1, 1, 4, 4, 4, 2}, {5, 1, 5, 1}, {2, 2, 2, 7},
  };
  for (const auto& chunks : layouts) {
    List l;
    for (uint32_t samples : chunks)
      for (uint32_t i = 0; i < samples; ++i) l.push_back(Rec(i + 1 == samples ? 0x100 : 0, 9, 1, samples));
    StscSamples read;
    const StscRule rule = RunRule(StscRule(), &l, [&read](const StscEntry& e) { read.add(e); });
    EXPECT_EQ(read.total(static_cast<long long>(chunks.size())), l.size()) << chunks.size() << " chunks";
    EXPECT_LE(rule.count(), chunks.size());
  }
  EXPECT_EQ(StscSamples().total(10), 0u);
}
