// Block reader, buffer reader, call-back stream, table buffer and byte fifo.
#include <gtest/gtest.h>

#include <deque>

#include "io_test_util.h"
#include "stream/base/io/FifoBuffer.h"
#include "stream/base/io/IOBlockReader.h"
#include "stream/base/io/IOBufferReader.h"
#include "stream/base/io/IOCallBack.h"
#include "stream/base/io/IOFile.h"
#include "stream/base/io/IOFileBuffer.h"

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

}  // namespace

TEST(IOBlockReader, RandomReadsAndSeeksMatchTheFile) {
  iotest::TempDir dir;
  const auto bytes = iotest::pattern(100003, 11);
  iotest::writeAll(dir.file("t.bin"), bytes);
  IOFile file;
  ASSERT_TRUE(file.Open(dir.file("t.bin").c_str(), "rb"));
  IOBlockReader br(file, 4096);
  IOBuffer ref;
  ref.Write(bytes.data(), static_cast<long long>(bytes.size()));
  ref.Seek(0, kiv::Position::front);
  iotest::MatchMemoryStream(br, ref, 3, 3000, 6000, false);
  EXPECT_EQ(br.Write(bytes.data(), 1), -1);
}

TEST(IOBlockReader, NeighbouringReadsCostNoInnerReadAndItsPositionIsKept) {
  const auto ref = iotest::pattern(10000, 4);
  CountingIO inner(ref);
  inner.Seek(1024, kiv::Position::front);
  {
    IOBlockReader br(inner, 1024);
    EXPECT_EQ(br.Position(), 1024) << "starts where the inner stream stands";
    IOIntReader r(br);
    uint32_t v = 0;
    for (int i = 0; i < 256; ++i) ASSERT_TRUE(r.Read32be(v));
    EXPECT_EQ(inner.reads, 1) << "one block holds 256 words";
    ASSERT_TRUE(br.Seek(1100, kiv::Position::front));
    EXPECT_EQ(r.Read8(), ref[1100]);
    EXPECT_EQ(inner.reads, 1) << "a seek back within the block";
    ASSERT_TRUE(br.Seek(2046, kiv::Position::front));
    EXPECT_EQ(r.Read32be(), uint32_t(ref[2046]) << 24 | uint32_t(ref[2047]) << 16 | ref[2048] << 8 | ref[2049]);
    EXPECT_EQ(inner.reads, 2) << "a read across the border loads the next block";
  }
  EXPECT_EQ(inner.Position(), 2050) << "left where the reader stood";

  bool destroyed = false;
  auto* owned = new CountingIO(ref, &destroyed);
  IOBlockReader(*owned, 512).SetFreeDelegateIO(true);
  EXPECT_TRUE(destroyed);
}

TEST(IOBufferReader, CountsInFilePositions) {
  auto* r = new IOBufferReader(8);
  std::memcpy(r->Data(), "\x00\x00\x00\x05" "abcd", 8);
  r->Offset0(1000);
  EXPECT_EQ(r->Size(), 1008);
  IOIntReader ir(*r);
  ir.SetFreeDelegateIO(true);  // the sanitizer build catches a leak or a double free
  EXPECT_EQ(ir.Read32be(), 5u);
  EXPECT_EQ(r->Position(), 1004);
  ASSERT_TRUE(r->Seek(1006, kiv::Position::front));
  char c[4] = {};
  EXPECT_EQ(r->Read(c, 4), 2);
  EXPECT_EQ(std::string(c, 2), "cd");
  EXPECT_FALSE(r->Seek(999, kiv::Position::front)) << "before byte 0";
  ASSERT_TRUE(r->Seek(-3, kiv::Position::current));
  EXPECT_EQ(r->Position(), 1005);
  ASSERT_TRUE(r->Seek(-8, kiv::Position::back));
  EXPECT_EQ(r->Position(), 1000);
  EXPECT_EQ(r->Write("x", 1), -1);
  ASSERT_TRUE(r->Seek(0, kiv::Position::back));
  EXPECT_EQ(ir.Read8(), 0u);
  EXPECT_TRUE(ir.Failed()) << "a read past the end";
}

TEST(IOCallBack, ReportsBytesAndCanStopAWalk) {
  IOBuffer inner;
  int engine = 0;
  long long seen = 0, user = 0;
  IOCallBack cb(inner, &engine, [&](IO& io, long long u, long long n) {
    EXPECT_EQ(&io, &inner);
    user = u;
    seen += n;
    return seen < 10;
  });
  EXPECT_EQ(cb.Write("abcd", 4), 4);
  EXPECT_EQ(user, static_cast<long long>(reinterpret_cast<intptr_t>(&engine)));
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

TEST(IOFileBuffer, TablesMoveToTheirFileWhenTheyOutgrowTheReservation) {
  iotest::TempDir dir;
  iotest::DriveScope d('t', dir.path());
  const auto table = iotest::pattern(1000, 6);
  int flushed = 0;
  {
    IOFileBuffer buf("t:/stco.vide.0x20", 256, [&](IO* io) { return ++flushed && io->Size() == 1000; });
    EXPECT_EQ(buf.Write(table.data(), 200), 200);
    EXPECT_FALSE(buf.HasFileData());
    EXPECT_TRUE(dir.entries().empty()) << "no file for a table that fits";
    EXPECT_EQ(buf.Write(table.data() + 200, 800), 800);
    EXPECT_TRUE(buf.HasFileData());
    EXPECT_EQ(buf.Size(), 1000);
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
    EXPECT_EQ(out.Copy(buf), 1000);
    EXPECT_EQ(out.Bytes(), expect);
  }
  EXPECT_TRUE(dir.entries().empty()) << "the temporary file goes with the buffer";

  {
    IOFileBuffer buf("t:/sdtp.a", 0, [](IO*) { return false; });
    EXPECT_EQ(buf.Write("x", 1), 1);
    EXPECT_TRUE(buf.HasFileData()) << "no reservation: the file from the first byte";
    EXPECT_FALSE(buf.Flush()) << "the call-back's answer";
    EXPECT_TRUE(buf.Remove(0));
    EXPECT_EQ(buf.Size(), 0);
    EXPECT_TRUE(dir.entries().empty());
  }
  iotest::DriveScope bad('u', dir.file("missing-dir"));
  iotest::LogCatcher log;
  // Without a url, or with a file that can't be made, the table costs memory, not data.
  for (const char* url : {static_cast<const char*>(nullptr), "u:/stss.b"}) {
    IOFileBuffer buf(url, 2, nullptr);
    EXPECT_EQ(buf.Write("abcdef", 6), 6);
    EXPECT_FALSE(buf.HasFileData());
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buf.Data()), static_cast<size_t>(buf.Size())), "abcdef");
    EXPECT_TRUE(buf.Flush());
  }
  EXPECT_TRUE(log.has("!open"));
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
  EXPECT_EQ(f.Read(1), nullptr);
}

// Reads across the ring's wrap must still hand out contiguous bytes in order.
TEST(IOFifoBuffer, RandomUseMatchesADeque) {
  iotest::LogCatcher quiet;  // full-fifo lines
  FifoBuffer f("r", 37);
  std::deque<unsigned char> model;
  std::mt19937 rng(8);
  unsigned char next = 0;
  for (int step = 0; step < 5000; ++step) {
    const int n = static_cast<int>(rng() % 30);
    if (rng() % 2) {
      std::vector<unsigned char> d(static_cast<size_t>(n));
      for (auto& c : d) c = next++;
      const int took = f.Write(d.data(), n);
      ASSERT_EQ(took, std::min(n, 37 - static_cast<int>(model.size())));
      model.insert(model.end(), d.begin(), d.begin() + took);
      next = static_cast<unsigned char>(next - (n - took));
    } else {
      const unsigned char* p = f.Read(n + 1);
      ASSERT_EQ(p != nullptr, n + 1 <= static_cast<int>(model.size())) << step;
      for (int i = 0; p && i <= n; ++i, model.pop_front()) ASSERT_EQ(p[i], model.front()) << step;
    }
    ASSERT_EQ(f.Size(), static_cast<int>(model.size()));
  }
}
