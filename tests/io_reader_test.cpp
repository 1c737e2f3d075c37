// Block reader, buffer reader, call-back stream, table buffer and byte fifo.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <random>

#include "io_test_util.h"
#include "stream/base/io/FifoBuffer.h"
#include "stream/base/io/IOBlockReader.h"
#include "stream/base/io/IOBufferReader.h"
#include "stream/base/io/IOCallBack.h"
#include "stream/base/io/IOFile.h"
#include "stream/base/io/IOFileBuffer.h"
#include "stream/base/io/IUrl.h"

using namespace kiv::base;

namespace {

// A memory stream that counts the reads it serves.
class CountingIO : public IOBuffer {
 public:
  explicit CountingIO(const std::vector<unsigned char>& bytes, bool* destroyed = nullptr) : _destroyed(destroyed) {
    _data = bytes;
  }
  ~CountingIO() override {
    if (_destroyed) *_destroyed = true;
  }
  long long Read(void* data, long long size) override {
    ++reads;
    return IOBuffer::Read(data, size);
  }
  int reads = 0;

 private:
  bool* _destroyed;
};

struct DriveScope {
  DriveScope(char letter, const std::string& dir) : _letter(letter) { DriveMap(letter, dir.c_str()); }
  ~DriveScope() { DriveMap(_letter, nullptr); }
  char _letter;
};

}  // namespace

TEST(IOBlockReader, RandomReadsAndBackwardSeeksMatchTheFile) {
  iotest::TempDir dir;
  const auto ref = iotest::pattern(100003, 11);
  iotest::writeAll(dir.file("t.bin"), ref);
  IOFile file;
  ASSERT_TRUE(file.Open(dir.file("t.bin").c_str(), "rb"));
  IOBlockReader br(file, 4096);
  EXPECT_EQ(br.Size(), static_cast<long long>(ref.size()));
  std::mt19937 rng(3);
  std::vector<unsigned char> buf(20000);
  long long pos = 0;
  for (int step = 0; step < 3000; ++step) {
    const int op = static_cast<int>(rng() % 4);
    if (op == 0) {
      pos = static_cast<long long>(rng() % (ref.size() + 10));
      ASSERT_TRUE(br.Seek(pos, kiv::Position::front));
    } else if (op == 1) {
      const long long back = std::min<long long>(pos, rng() % 5000);
      ASSERT_TRUE(br.Seek(-back, kiv::Position::current));
      pos -= back;
    }
    // Small reads mostly, across block borders; now and then one larger than a block.
    const long long n = (rng() % 10 == 0) ? rng() % 20000 : rng() % 300;
    const long long want = std::max(0LL, std::min<long long>(n, static_cast<long long>(ref.size()) - pos));
    ASSERT_EQ(br.Read(buf.data(), n), want) << step;
    ASSERT_EQ(0, std::memcmp(buf.data(), ref.data() + std::min<long long>(pos, ref.size()), static_cast<size_t>(want)))
        << step;
    pos += want;
    ASSERT_EQ(br.Position(), pos);
  }
}

TEST(IOBlockReader, NeighbouringReadsCostNoFileAccess) {
  const auto ref = iotest::pattern(10000, 4);
  CountingIO inner(ref);
  IOBlockReader br(inner, 1024);
  IOIntReader r(br);
  uint32_t v = 0;
  for (int i = 0; i < 256; ++i) ASSERT_TRUE(r.Read32be(v));
  EXPECT_EQ(inner.reads, 1) << "one block holds 256 words";
  ASSERT_TRUE(br.Seek(100, kiv::Position::front));
  EXPECT_EQ(r.Read32be(), (uint32_t(ref[100]) << 24) | (uint32_t(ref[101]) << 16) | (ref[102] << 8) | ref[103]);
  EXPECT_EQ(inner.reads, 1) << "a seek back within the block";
  ASSERT_TRUE(br.Seek(1022, kiv::Position::front));
  EXPECT_EQ(r.Read32be(), (uint32_t(ref[1022]) << 24) | (uint32_t(ref[1023]) << 16) | (ref[1024] << 8) | ref[1025]);
  EXPECT_EQ(inner.reads, 2) << "a read across the border loads the next block";
  ASSERT_TRUE(br.Seek(-4, kiv::Position::back));
  EXPECT_EQ(br.Position(), 9996);
  unsigned char b[8];
  EXPECT_EQ(br.Read(b, 8), 4);
  EXPECT_EQ(br.Read(b, 8), 0);
  EXPECT_EQ(br.Write(b, 1), -1);
}

TEST(IOBlockReader, StartsAtAndLeavesTheInnerPosition) {
  const auto ref = iotest::pattern(5000, 5);
  CountingIO inner(ref);
  inner.Seek(1234, kiv::Position::front);
  {
    IOBlockReader br(inner, 512);
    EXPECT_EQ(br.Position(), 1234);
    unsigned char b[10];
    EXPECT_EQ(br.Read(b, 10), 10);
    EXPECT_EQ(0, std::memcmp(b, ref.data() + 1234, 10));
  }
  EXPECT_EQ(inner.Position(), 1244);
}

TEST(IOBlockReader, OwnsAHeapStreamOnRequest) {
  bool destroyed = false;
  auto* inner = new CountingIO(iotest::pattern(10), &destroyed);
  {
    IOBlockReader br(*inner, 32768);
    br.SetFreeDelegateIO(true);
  }
  EXPECT_TRUE(destroyed);
}

TEST(IOBufferReader, CountsInFilePositions) {
  IOBufferReader r(8);
  const unsigned char bytes[8] = {0, 0, 0, 5, 'a', 'b', 'c', 'd'};
  std::memcpy(r.Data(), bytes, 8);
  r.Offset0(1000);
  EXPECT_EQ(r.Position(), 1000);
  EXPECT_EQ(r.Size(), 1008);
  IOIntReader ir(r);
  EXPECT_EQ(ir.Read32be(), 5u);
  EXPECT_EQ(r.Position(), 1004);
  ASSERT_TRUE(r.Seek(1006, kiv::Position::front));
  char c[4] = {};
  EXPECT_EQ(r.Read(c, 4), 2);
  EXPECT_EQ(std::string(c, 2), "cd");
  EXPECT_EQ(r.Read(c, 4), 0);
  EXPECT_FALSE(r.Seek(999, kiv::Position::front)) << "before byte 0";
  EXPECT_EQ(r.Position(), 1008);
  ASSERT_TRUE(r.Seek(-3, kiv::Position::current));
  EXPECT_EQ(r.Position(), 1005);
  ASSERT_TRUE(r.Seek(-8, kiv::Position::back));
  EXPECT_EQ(r.Position(), 1000);
  EXPECT_EQ(r.Write("x", 1), -1);
}

TEST(IOBufferReader, OwnedByAnIntReader) {
  auto* r = new IOBufferReader(4);
  std::memcpy(r->Data(), "\x00\x00\x01\x00", 4);
  IOIntReader ir(*r);
  ir.SetFreeDelegateIO(true);
  EXPECT_EQ(ir.Read32be(), 256u);
  EXPECT_EQ(ir.Read8(), 0u);
  EXPECT_TRUE(ir.Failed());
}  // the sanitizer build catches a leak or a double free here

TEST(IOCallBack, ReportsBytesAndCanStopAWalk) {
  IOBuffer inner;
  int engine = 0;
  long long seen = 0;
  long long user = 0;
  IOCallBack cb(inner, &engine, [&](IO& io, long long u, long long n) {
    EXPECT_EQ(&io, &inner);
    user = u;
    seen += n;
    return seen < 10;
  });
  EXPECT_EQ(cb.Write("abcd", 4), 4);
  EXPECT_EQ(user, static_cast<long long>(reinterpret_cast<intptr_t>(&engine)));
  EXPECT_EQ(cb.User(), user);
  EXPECT_TRUE(cb.Seek(0, kiv::Position::front));
  char b[8];
  EXPECT_EQ(cb.Read(b, 4), 4);
  EXPECT_EQ(cb.Read(b, 4), 0) << "nothing moved, nothing reported";
  EXPECT_EQ(cb.Write("efgh", 4), -1) << "the call-back said stop";
  EXPECT_EQ(seen, 12);
  EXPECT_EQ(cb.BytesRead(), 4);
  EXPECT_EQ(cb.BytesWritten(), 8);

  IOCallBack plain(inner, 0, nullptr);
  EXPECT_TRUE(plain.Seek(0, kiv::Position::front));
  EXPECT_EQ(plain.Read(b, 8), 8);
  EXPECT_EQ(std::string(b, 8), "abcdefgh");
}

TEST(IOFileBuffer, SmallTablesStayInMemory) {
  iotest::TempDir dir;
  DriveScope d('t', dir.path());
  IOFileBuffer buf("t:/stsz.vide.0x10", 64, nullptr);
  IOIntWriter w(buf);
  w.Write32be(20);
  w.Write32(0x7a737473);  // "stsz"
  w.Write32be(0);
  w.Write32be(3, 8, kiv::Position::front);
  EXPECT_EQ(buf.Position(), 12);
  EXPECT_FALSE(buf.HasFileData());
  EXPECT_TRUE(dir.entries().empty()) << "no file for a table that fits";
  ASSERT_EQ(buf.Size(), 12);
  const unsigned char want[12] = {0, 0, 0, 20, 's', 't', 's', 'z', 0, 0, 0, 3};
  EXPECT_EQ(0, std::memcmp(static_cast<IOBuffer&>(buf).Data(), want, 12));
  EXPECT_STREQ(buf.URL(), "t:/stsz.vide.0x10");
}

TEST(IOFileBuffer, LargeTablesMoveToTheirFileAndAreDeleted) {
  iotest::TempDir dir;
  DriveScope d('t', dir.path());
  const auto table = iotest::pattern(1000, 6);
  int flushed = 0;
  {
    IOFileBuffer buf("t:/stco.vide.0x20", 256, [&](IO* io) {
      ++flushed;
      EXPECT_EQ(io->Size(), 1000);
      return true;
    });
    EXPECT_EQ(buf.Write(table.data(), 200), 200);
    EXPECT_FALSE(buf.HasFileData());
    EXPECT_EQ(buf.Write(table.data() + 200, 800), 800);
    EXPECT_TRUE(buf.HasFileData());
    EXPECT_EQ(buf.Size(), 1000);
    EXPECT_EQ(buf.Position(), 1000);
    // The count patch of a table goes into the file like any positioned write.
    EXPECT_EQ(buf.Write("\x00\x00\x00\x07", 4, 12, kiv::Position::front), 4);
    EXPECT_EQ(buf.Position(), 1000);
    EXPECT_TRUE(buf.Flush());
    EXPECT_EQ(flushed, 1);
    auto expect = table;
    std::memcpy(expect.data() + 12, "\x00\x00\x00\x07", 4);
    EXPECT_EQ(iotest::readAll(dir.file("stco.vide.0x20")), expect);
    // What the output does with a table on file: takes the whole content.
    IOBuffer out;
    out.Write("head", 4);
    EXPECT_EQ(out.Copy(buf), 1000);
    EXPECT_EQ(std::vector<unsigned char>(out.Bytes().begin() + 4, out.Bytes().end()), expect);
  }
  EXPECT_TRUE(dir.entries().empty()) << "the temporary file goes with the buffer";
}

TEST(IOFileBuffer, FlushResultAndEdgeCases) {
  iotest::TempDir dir;
  DriveScope d('t', dir.path());
  {
    IOFileBuffer buf("t:/sdtp.a", 0, [](IO*) { return false; });
    EXPECT_EQ(buf.Write("x", 1), 1);
    EXPECT_TRUE(buf.HasFileData()) << "no reservation: the file from the first byte";
    EXPECT_FALSE(buf.Flush()) << "the call-back's answer";
    EXPECT_TRUE(buf.Remove(0));
    EXPECT_EQ(buf.Size(), 0);
    EXPECT_FALSE(buf.HasFileData());
    EXPECT_TRUE(dir.entries().empty());
  }
  {
    IOFileBuffer buf(nullptr, 4, nullptr);
    EXPECT_EQ(buf.Write("abcdefgh", 8), 8);
    EXPECT_FALSE(buf.HasFileData()) << "no url: memory only";
    EXPECT_EQ(0, std::memcmp(buf.Data(), "abcdefgh", 8));
    EXPECT_TRUE(buf.Flush());
  }
  {
    DriveScope bad('u', dir.file("missing-dir"));
    iotest::LogCatcher log;
    IOFileBuffer buf("u:/stss.b", 2, nullptr);
    EXPECT_EQ(buf.Write("abcdef", 6), 6);
    EXPECT_FALSE(buf.HasFileData()) << "a file that can't be made costs memory, not data";
    EXPECT_TRUE(log.has("!open"));
    EXPECT_EQ(buf.Size(), 6);
    EXPECT_EQ(0, std::memcmp(buf.Data(), "abcdef", 6));
  }
}

TEST(IOFifoBuffer, WrapAroundHandsOutContiguousBytes) {
  FifoBuffer f("araw", 10);
  EXPECT_EQ(f.Capacity(), 10);
  EXPECT_EQ(f.Write("0123456", 7), 7);
  const unsigned char* p = f.Read(5);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(p), 5), "01234");
  EXPECT_EQ(f.Write("789ABC", 6), 6) << "the back wraps to the front of the ring";
  EXPECT_EQ(f.Size(), 8);
  EXPECT_EQ(f.Read(9), nullptr) << "fewer bytes than asked";
  p = f.Read(8);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(p), 8), "56789ABC");
  EXPECT_TRUE(f.Empty());
}

TEST(IOFifoBuffer, FullFifoTakesWhatFitsAndHooksSeeTheBytes) {
  std::string in, out;
  FifoBuffer f(
      "pcm", 6, [&](const unsigned char* d, int n) { out.append(reinterpret_cast<const char*>(d), n); },
      [&](const unsigned char* d, int n) { in.append(reinterpret_cast<const char*>(d), n); });
  iotest::LogCatcher log;
  EXPECT_EQ(f.Write("abcdefgh", 8), 6);
  EXPECT_TRUE(log.has("pcm"));
  EXPECT_EQ(f.Write("x", 1), 0);
  EXPECT_EQ(in, "abcdef");
  ASSERT_NE(f.Read(4), nullptr);
  EXPECT_EQ(out, "abcd");
  f.Clear();
  EXPECT_EQ(f.Size(), 0);
  EXPECT_EQ(f.Read(1), nullptr);
}

TEST(IOFifoBuffer, RandomUseMatchesADeque) {
  iotest::LogCatcher quiet;  // full-fifo lines
  FifoBuffer f("r", 37);
  std::deque<unsigned char> model;
  std::mt19937 rng(8);
  unsigned char next = 0;
  for (int step = 0; step < 5000; ++step) {
    if (rng() % 2) {
      const int n = static_cast<int>(rng() % 20);
      std::vector<unsigned char> d(static_cast<size_t>(n));
      for (auto& c : d) c = next++;
      const int took = f.Write(d.data(), n);
      ASSERT_EQ(took, std::min(n, 37 - static_cast<int>(model.size())));
      model.insert(model.end(), d.begin(), d.begin() + took);
      next = static_cast<unsigned char>(next - (n - took));
    } else {
      const int n = 1 + static_cast<int>(rng() % 30);
      const unsigned char* p = f.Read(n);
      if (n > static_cast<int>(model.size())) {
        ASSERT_EQ(p, nullptr);
        continue;
      }
      ASSERT_NE(p, nullptr);
      for (int i = 0; i < n; ++i) {
        ASSERT_EQ(p[i], model.front()) << step;
        model.pop_front();
      }
    }
    ASSERT_EQ(f.Size(), static_cast<int>(model.size()));
  }
}
