// The write-behind cache ("io-cache-writer") and the forwarding delegate.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "io_test_util.h"
#include "stream/base/AttrSet.h"
#include "stream/base/io/IOCacheWriter.h"
#include "stream/base/io/IODelegate.h"
#include "stream/base/io/IOFile.h"

using namespace kiv::base;

namespace {

// A memory stream that notes every write it is handed.
class RecordingIO : public IOBuffer {
 public:
  struct Rec {
    long long pos, size;
  };
  explicit RecordingIO(bool* destroyed = nullptr) : _destroyed(destroyed) {}
  ~RecordingIO() override {
    if (_destroyed) *_destroyed = true;
  }
  long long Write(const void* data, long long size) override {
    writes.push_back({Position(), size});
    return IOBuffer::Write(data, size);
  }
  using IO::Write;
  bool Flush() override {
    ++flushes;
    return true;
  }
  std::vector<Rec> writes;
  int flushes = 0;

 private:
  bool* _destroyed;
};

void expectWholeBlocksInOrder(const std::vector<RecordingIO::Rec>& w, long long block, long long from = 0) {
  long long next = from;
  for (const auto& r : w) {
    EXPECT_EQ(r.pos, next);
    EXPECT_EQ(r.size, block);
    next = r.pos + r.size;
  }
}

}  // namespace

TEST(IOCacheWriter, HandsOverWholeBlocksInFileOrderAndTheRestAtClose) {
  RecordingIO inner;
  IOCacheWriter cache(&inner, 16, 4);
  IOBuffer ref;
  std::mt19937 rng(5);
  long long written = 0;
  while (written < 250) {
    const long long n = 1 + rng() % 11;
    const auto data = iotest::pattern(static_cast<size_t>(n), static_cast<unsigned>(written));
    ASSERT_EQ(cache.Write(data.data(), n), n);
    ref.Write(data.data(), n);
    written += n;
    ASSERT_LE(cache.Cached(), 64) << "memory bounded by the blocks";
    EXPECT_EQ(cache.Size(), written);
    EXPECT_EQ(cache.Position(), written);
  }
  // Before close: whole blocks only, consecutive, and nothing more than the cache can't hold.
  expectWholeBlocksInOrder(inner.writes, 16);
  EXPECT_GE(static_cast<long long>(inner.writes.size()) * 16, written - 64);
  const size_t before = inner.writes.size();
  ASSERT_TRUE(cache.Close());
  ASSERT_GT(inner.writes.size(), before);
  // The rest: its whole blocks, then one partial block at the very end.
  long long next = static_cast<long long>(before) * 16;
  for (size_t i = before; i < inner.writes.size(); ++i) {
    EXPECT_EQ(inner.writes[i].pos, next);
    if (i + 1 < inner.writes.size()) {
      EXPECT_EQ(inner.writes[i].size, 16);
    }
    next += inner.writes[i].size;
  }
  EXPECT_EQ(next, written);
  EXPECT_EQ(inner.Bytes(), ref.Bytes());
}

TEST(IOCacheWriter, PatchesInCachedAndHandedOverBytes) {
  RecordingIO inner;
  IOCacheWriter cache(&inner, 16, 2);
  IOBuffer ref;
  for (IO* io : {static_cast<IO*>(&cache), static_cast<IO*>(&ref)}) {
    const auto data = iotest::pattern(100, 9);
    io->Write(data.data(), 100);
  }
  const size_t handed = inner.writes.size();
  ASSERT_EQ(handed, 5u) << "a block goes only when room is needed: 80..100 stay cached";
  // Into bytes still cached: no write reaches the inner stream.
  for (IO* io : {static_cast<IO*>(&cache), static_cast<IO*>(&ref)}) {
    IOIntWriter w(*io);
    EXPECT_TRUE(w.Write32be(0xDEADBEEF, 90, kiv::Position::front));
    EXPECT_EQ(io->Position(), 100);
  }
  EXPECT_EQ(inner.writes.size(), handed);
  // Into bytes handed over: straight to the inner stream, at that place.
  for (IO* io : {static_cast<IO*>(&cache), static_cast<IO*>(&ref)}) {
    IOIntWriter w(*io);
    EXPECT_TRUE(w.Write64be(0x0102030405060708ULL, 4, kiv::Position::front));
    EXPECT_EQ(io->Position(), 100);
  }
  ASSERT_EQ(inner.writes.size(), handed + 1);
  EXPECT_EQ(inner.writes.back().pos, 4);
  EXPECT_EQ(inner.writes.back().size, 8);
  // Straddling the border between handed-over and cached bytes.
  for (IO* io : {static_cast<IO*>(&cache), static_cast<IO*>(&ref)}) {
    EXPECT_EQ(io->Write("ABCDEFGH", 8, 76, kiv::Position::front), 8);
  }
  ASSERT_EQ(inner.writes.size(), handed + 2);
  EXPECT_EQ(inner.writes.back().pos, 76);
  EXPECT_EQ(inner.writes.back().size, 4) << "only the handed-over half goes to the inner stream";
  // Reads see everything, across the border.
  std::vector<unsigned char> got(100);
  ASSERT_TRUE(cache.Seek(0, kiv::Position::front));
  EXPECT_EQ(cache.Read(got.data(), 100), 100);
  EXPECT_EQ(got, ref.Bytes());
  EXPECT_EQ(cache.Read(got.data(), 10), 0);
  ASSERT_TRUE(cache.Close());
  EXPECT_EQ(inner.Bytes(), ref.Bytes());
}

TEST(IOCacheWriter, FlushKeepsTheBlockGrid) {
  RecordingIO inner;
  IOCacheWriter cache(&inner, 16, 2);
  const auto data = iotest::pattern(100, 2);
  cache.Write(data.data(), 20);
  ASSERT_TRUE(cache.Flush());
  EXPECT_EQ(inner.flushes, 1);
  EXPECT_EQ(inner.Bytes(), std::vector<unsigned char>(data.begin(), data.begin() + 20)) << "all out at Flush";
  cache.Write(data.data() + 20, 80);
  cache.Close();
  EXPECT_EQ(inner.Bytes(), data);
  // Every write after the flush starts on the grid of 16.
  for (size_t i = 2; i < inner.writes.size(); ++i) {
    EXPECT_EQ(inner.writes[i].pos % 16, 0) << i;
  }
}

TEST(IOCacheWriter, RandomOperationsMatchAMemoryStream) {
  for (int blocks : {1, 3}) {
    for (int blk : {1, 7, 64}) {
      RecordingIO inner;
      IOCacheWriter cache(&inner, blk, blocks);
      IOBuffer ref;
      std::mt19937 rng(static_cast<unsigned>(blk * 10 + blocks));
      std::vector<unsigned char> a(400), b(400);
      for (int step = 0; step < 2000; ++step) {
        const int op = static_cast<int>(rng() % 6);
        const long long n = rng() % 200;
        if (op <= 1) {
          const auto data = iotest::pattern(static_cast<size_t>(n), static_cast<unsigned>(step));
          ASSERT_EQ(cache.Write(data.data(), n), ref.Write(data.data(), n));
        } else if (op == 2) {
          const long long ra = cache.Read(a.data(), n), rb = ref.Read(b.data(), n);
          ASSERT_EQ(ra, rb) << blk << " " << step;
          ASSERT_EQ(0, std::memcmp(a.data(), b.data(), static_cast<size_t>(ra))) << blk << " " << step;
        } else if (op == 3) {
          const long long to = static_cast<long long>(rng() % static_cast<unsigned>(ref.Size() + 20));
          ASSERT_EQ(cache.Seek(to, kiv::Position::front), ref.Seek(to, kiv::Position::front));
        } else if (op == 4) {
          const long long at = static_cast<long long>(rng() % static_cast<unsigned>(ref.Size() + 1));
          const auto data = iotest::pattern(8, static_cast<unsigned>(step));
          ASSERT_EQ(cache.Write(data.data(), 8, at, kiv::Position::front), 8);
          ref.Write(data.data(), 8, at, kiv::Position::front);
        } else if (rng() % 8 == 0) {
          ASSERT_TRUE(cache.Flush());
          ASSERT_LE(inner.Size(), ref.Size());
        } else {
          ASSERT_TRUE(cache.Seek(0, kiv::Position::back));
          ref.Seek(0, kiv::Position::back);
        }
        ASSERT_EQ(cache.Position(), ref.Position()) << step;
        ASSERT_EQ(cache.Size(), ref.Size()) << step;
        ASSERT_LE(cache.Cached(), static_cast<long long>(blk) * blocks);
      }
      ASSERT_TRUE(cache.Close());
      EXPECT_EQ(inner.Bytes(), ref.Bytes()) << blk << "x" << blocks;
    }
  }
}

TEST(IOCacheWriter, DestructionWritesTheRest) {
  RecordingIO inner;
  {
    IOCacheWriter cache(&inner, 32, 2);
    cache.Write("hello", 5);
    EXPECT_TRUE(inner.writes.empty());
  }
  EXPECT_EQ(inner.Bytes(), std::vector<unsigned char>({'h', 'e', 'l', 'l', 'o'}));
}

TEST(IOCacheWriter, RemoveDropsTheCacheAndTheFile) {
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
  EXPECT_STREQ(cache.URL(), path.c_str());
}

TEST(IOCacheWriter, OverAFileGivesTheSameBytesAsADirectWrite) {
  iotest::TempDir dir;
  const std::string path = dir.file("rec.mov");
  IOBuffer ref;
  {
    IOFile* file = new IOFile();
    ASSERT_TRUE(file->Open(path.c_str(), "wb"));
    IOCacheWriter cache(file, 512, 3);
    cache.SetFreeDelegateIO(true);
    for (IO* io : {static_cast<IO*>(&cache), static_cast<IO*>(&ref)}) {
      IOIntWriter w(*io);
      w.Write32be(0);
      w.Write32(0x7461646d);
      const auto payload = iotest::pattern(5000, 8);
      io->Write(payload.data(), 5000);
      w.Write32be(static_cast<uint32_t>(io->Position()), 0, kiv::Position::front);
      w.Write32be(0x11223344, 4000, kiv::Position::front);
    }
    EXPECT_TRUE(cache.Close());
  }
  EXPECT_EQ(iotest::readAll(path), ref.Bytes());
}

TEST(IOCacheWriter, BadSizesPassThrough) {
  RecordingIO inner;
  iotest::LogCatcher log;
  IOCacheWriter cache(&inner, 0, 4);
  EXPECT_TRUE(log.has("blockSize"));
  EXPECT_EQ(cache.Write("abc", 3), 3);
  EXPECT_EQ(inner.writes.size(), 1u);
  EXPECT_EQ(cache.Size(), 3);
}

TEST(IOCacheWriter, IsFoundInTheRegistryByItsKeyword) {
  bool destroyed = false;
  IO* io = new RecordingIO(&destroyed);
  AttrSet ap;
  Object::AttrSetInit(ap, nullptr, "io-cache-writer");
  IODelegate* d = Object::New<IODelegate>(ap, io, 64, 2);
  ASSERT_NE(d, nullptr);
  EXPECT_NE(dynamic_cast<IOCacheWriter*>(d), nullptr);
  d->SetFreeDelegateIO(true);
  EXPECT_EQ(d->Write("abc", 3), 3);
  EXPECT_EQ(static_cast<RecordingIO*>(io)->writes.size(), 0u) << "cached";
  delete d;
  EXPECT_TRUE(destroyed) << "the delegate frees the inner stream it owns";
}

