// The list parser: frames from the records of a "stbl" kept in memory, found by its keywords.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "stream/base/reflect/IClass.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "stream/plugin/mp4/demux/IStblParser.h"
#include "tests/LogCapture.h"
#include "tests/StblTestUtil.h"

using namespace kiv::plugin::mov;
using stbltest::Rec;

namespace {

const char kBadIndex[] = "(idx<0 || idx>=_list->size())";

std::unique_ptr<IStblParser> NewListParser() {
  kiv::base::AttrSet ap;
  kiv::base::Object::AttrSetInit(ap, nullptr, "mov-stbl-parser-list");
  return std::unique_ptr<IStblParser>(kiv::base::Object::New<IStblParser>(ap));
}

}  // namespace

TEST(DemuxList, KeyFramesWithAndWithoutASyncTable) {
  struct Case {
    const char* name;
    bool stss;
    std::vector<bool> keys;  // as recorded
    std::vector<bool> seen;  // as the parser reports them
    int lastKey;
  } cases[] = {
      {"no sync table: every frame is a key frame", false, {false, true, false, false}, {true, true, true, true}, 3},
      {"sync table", true, {true, false, true, false}, {true, false, true, false}, 2},
      {"sync table without a key", true, {false, false, false}, {false, false, false}, 0},
      {"key frame last", true, {false, false, true}, {false, false, true}, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    cstbl box;
    if (c.stss) box.Add(new cstss);
    for (size_t i = 0; i < c.keys.size(); ++i) box.ChunkList()->push_back(Rec(100 * i, 10, 3, 1, c.keys[i]));
    auto p = NewListParser();
    ASSERT_NE(p, nullptr);
    ASSERT_TRUE(p->Init(&box));
    ASSERT_EQ(p->GetFrameCount(), static_cast<int>(c.keys.size()));
    for (size_t i = 0; i < c.seen.size(); ++i) {
      EXPECT_EQ(p->GetFrameIsKey(static_cast<int>(i)), c.seen[i]) << i;
      FrameInfo f;
      ASSERT_TRUE(p->GetFrame(static_cast<int>(i), f));
      EXPECT_EQ((f.Flags & FrameInfo::kKey) != 0, c.seen[i]) << i;
    }
    EXPECT_EQ(p->GetLastKeyFrame(), c.lastKey);
  }
}

// A record may stand for a chunk of equal samples: its size and duration count them all, in 64 bits.
TEST(DemuxList, FramesAndTotalsMultiplyARecordByItsCount) {
  cstbl box;
  auto& list = *box.ChunkList();
  list.push_back(Rec(0x30, 100, 10, 1, true));
  list.push_back(Rec(0x94, 100, 10, 4, false));
  list.push_back(Rec(0x224, 0x40000000, 0x80000000u, 4, false));  // products beyond 32 bits
  auto p = NewListParser();
  ASSERT_TRUE(p->Init(&box));
  FrameInfo f;
  f.Pts = 77;  // not the parser's to fill
  ASSERT_TRUE(p->GetFrame(1, f));
  EXPECT_EQ(std::make_tuple(f.Index, f.Pos, f.Size, f.Duration, f.Pts), std::make_tuple(1, 0x94ll, 400, 40ll, 77ll));
  EXPECT_EQ(std::make_pair(p->GetFrameSize(1), p->GetFrameDuration(1)), std::make_pair(400ll, 40ll));
  EXPECT_EQ(std::make_pair(p->GetFrameSize(2), p->GetFrameDuration(2)), std::make_pair(0x100000000ll, 0x200000000ll));
  ASSERT_TRUE(p->GetFrame(2, f));
  EXPECT_EQ(f.Size, 0x7fffffff) << "a frame bigger than any packet is cut to the largest size, which no read gives";
  EXPECT_EQ(p->GetTotalSize(), 100 + 400 + 0x100000000LL);
  std::ostringstream text;
  f >> text;
  EXPECT_EQ(text.str(), "2,0x224,0x7fffffff,0x1&");
}

TEST(DemuxList, BadIndexesAndBoxesAreRefusedWithTheirLines) {
  LogCapture log;
  cstbl box;
  box.ChunkList()->push_back(Rec(8, 5, 1, 1, true));
  box.ChunkList()->push_back(Rec(13, 5, 1, 1, true));
  auto p = NewListParser();
  ASSERT_TRUE(p->Init(&box));
  for (int idx : {-1, 2, 1 << 30}) {
    SCOPED_TRACE(idx);
    FrameInfo f;
    f.Index = 9;
    const size_t before = log.Count(kBadIndex);
    EXPECT_FALSE(p->GetFrame(idx, f));
    EXPECT_EQ(f.Index, 9) << "the record stays as it was";
    EXPECT_EQ(p->GetFrameSize(idx), 0);
    EXPECT_EQ(p->GetFrameDuration(idx), 0);
    EXPECT_FALSE(p->GetFrameIsKey(idx));
    EXPECT_EQ(log.Count(kBadIndex), before + 4);
  }

  cmoov moov;
  EXPECT_FALSE(NewListParser()->Init(&moov));
  EXPECT_TRUE(log.Has("box->FourCC()!=::Convert4low(\"stbl\")"));
  cstbl empty;
  auto q = NewListParser();
  EXPECT_FALSE(q->Init(&empty));
  EXPECT_TRUE(log.Has("_list->empty()"));
  EXPECT_EQ(q->GetFrameCount(), 0);
  EXPECT_EQ(q->GetLastKeyFrame(), 0);
}
