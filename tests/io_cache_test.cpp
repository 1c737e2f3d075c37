// The write-behind cache the muxer writes through.
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "io_test_util.h"
#include "stream/base/io/IOCacheWriter.h"
#include "stream/base/io/IOFile.h"

using namespace kiv::base;

namespace {

// A memory stream that notes every write it is handed.
class RecordingIO : public IOBuffer {
 public:
  struct Rec {
    long long pos, size;
  };
  long long Write(const void* data, long long size) override {
    writes.push_back({Position(), size});
    return IOBuffer::Write(data, size);
  }
  using IO::Write;
  bool Flush() override { return ++flushes > 0; }
  std::vector<Rec> writes;
  int flushes = 0;
};

}  // namespace

TEST(IOCacheWriter, HandsOverWholeBlocksOnTheGridAndAllAtFlushAndClose) {
  RecordingIO inner;
  IOCacheWriter cache(&inner, 16, 4);
  IOBuffer ref;
  size_t flushedAt = 0;
  for (unsigned i = 0; ref.Size() < 250; ++i) {
    const long long n = 1 + i % 11;
    const auto data = iotest::pattern(static_cast<size_t>(n), i);
    for (IO* io : {static_cast<IO*>(&cache), static_cast<IO*>(&ref)}) ASSERT_EQ(io->Write(data.data(), n), n);
    ASSERT_LE(cache.Cached(), 64) << "memory bounded by the blocks";
    ASSERT_EQ(cache.Size(), ref.Size());
    if (!flushedAt && ref.Size() > 120) {
      ASSERT_TRUE(cache.Flush());
      EXPECT_EQ(inner.Bytes(), ref.Bytes()) << "all out at Flush";
      flushedAt = inner.writes.size();
    }
  }
  EXPECT_GE(inner.Size(), ref.Size() - 64) << "nothing kept that the cache can't hold";
  ASSERT_TRUE(cache.Close());
  EXPECT_EQ(inner.flushes, 1);
  EXPECT_EQ(inner.Bytes(), ref.Bytes());
  // Consecutive blocks of 16 on the grid; partial only at the flush (that block comes again) and the close.
  for (size_t i = 0; i < inner.writes.size(); ++i) {
    const auto& w = inner.writes[i];
    const long long next = i ? inner.writes[i - 1].pos + inner.writes[i - 1].size : 0;
    EXPECT_TRUE(w.pos == next || (i == flushedAt && w.pos == inner.writes[i - 1].pos)) << i << ": " << w.pos;
    EXPECT_TRUE(w.size == 16 || i + 1 == flushedAt || i + 1 == inner.writes.size()) << i;
  }
}

TEST(IOCacheWriter, PatchesGoToTheCacheOrStraightToTheInnerStream) {
  RecordingIO inner;
  IOCacheWriter cache(&inner, 16, 2);
  IOBuffer ref;
  const auto data = iotest::pattern(100, 9);
  for (IO* io : {static_cast<IO*>(&cache), static_cast<IO*>(&ref)}) io->Write(data.data(), 100);
  ASSERT_EQ(inner.writes.size(), 5u) << "a block goes only when room is needed: 80..100 stay cached";
  struct Case {
    long long at;
    size_t innerWrites;
    long long innerPos, innerSize;
  } cases[] = {{90, 5, 0, 0},    // into cached bytes: nothing reaches the inner stream
               {4, 6, 4, 8},     // into handed-over bytes: straight through, at that place
               {76, 7, 76, 4}};  // across the border: only the handed-over half goes through
  for (const Case& c : cases) {
    SCOPED_TRACE(c.at);
    for (IO* io : {static_cast<IO*>(&cache), static_cast<IO*>(&ref)}) {
      EXPECT_EQ(io->Write("ABCDEFGH", 8, c.at, kiv::Position::front), 8);
      EXPECT_EQ(io->Position(), 100);
    }
    ASSERT_EQ(inner.writes.size(), c.innerWrites);
    if (c.innerSize) {
      EXPECT_EQ(inner.writes.back().pos, c.innerPos);
      EXPECT_EQ(inner.writes.back().size, c.innerSize);
    }
  }
  ASSERT_TRUE(cache.Close());
  EXPECT_EQ(inner.Bytes(), ref.Bytes());
}

TEST(IOCacheWriter, RandomOperationsMatchAMemoryStream) {
  for (int blocks : {1, 3}) {
    for (int blk : {1, 7, 64}) {
      SCOPED_TRACE(std::to_string(blk) + "x" + std::to_string(blocks));
      RecordingIO inner;
      IOCacheWriter cache(&inner, blk, blocks);
      IOBuffer ref;
      iotest::MatchMemoryStream(cache, ref, static_cast<unsigned>(blk * 10 + blocks), 2000, 200, true, [&](int step) {
        ASSERT_LE(cache.Cached(), static_cast<long long>(blk) * blocks);
        if (step % 97 == 0) {
          ASSERT_TRUE(cache.Flush());
          ASSERT_LE(inner.Size(), ref.Size());
        }
      });
      ASSERT_FALSE(HasFatalFailure());
      ASSERT_TRUE(cache.Close());
      EXPECT_EQ(inner.Bytes(), ref.Bytes());
    }
  }
}

TEST(IOCacheWriter, RemoveDropsTheCacheAndTheFileAndBadSizesPassThrough) {
  iotest::TempDir dir;
  const std::string path = dir.file("norecord.mov");
  IOFile* file = new IOFile();
  ASSERT_TRUE(file->Open(path.c_str(), "wb"));
  IOCacheWriter cache(file, 4096, 4);
  cache.SetFreeDelegateIO(true);
  cache.Write("ftypqt  ", 8);
  EXPECT_TRUE(cache.Remove(0));
  EXPECT_FALSE(iotest::exists(path));
  EXPECT_EQ(cache.Size(), 0);
  EXPECT_TRUE(cache.Close());
  EXPECT_FALSE(iotest::exists(path)) << "nothing cached comes back";

  RecordingIO inner;
  LogCapture quiet;
  IOCacheWriter plain(&inner, 0, 4);
  EXPECT_EQ(plain.Write("abc", 3), 3);
  EXPECT_EQ(inner.writes.size(), 1u) << "no cache: straight through";
}
