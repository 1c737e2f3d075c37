// Block reader and table buffer: the read and write paths the muxer and the info tool use.
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "io_test_util.h"
#include "stream/base/io/IOBlockReader.h"
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

TEST(IOFileBuffer, TablesMoveToTheirFileWhenTheyOutgrowTheReservation) {
  iotest::TempDir dir;
  iotest::DriveScope d('t', dir.path());
  const auto table = iotest::pattern(1000, 6);
  int flushed = 0;
  {
    IOFileBuffer buf("t:/stco.vide.0x20", 256, [&](IO* io) { return ++flushed && io->Size() == 1000; });
    EXPECT_EQ(buf.Write(table.data(), 200), 200);
    EXPECT_TRUE(!buf.HasFileData() && dir.entries().empty()) << "no file for a table that fits";
    EXPECT_EQ(buf.Write(table.data() + 200, 800), 800);
    EXPECT_TRUE(buf.HasFileData());
    // The count patch of a table goes into the file like any positioned write.
    EXPECT_EQ(buf.Write("\x00\x00\x00\x07", 4, 12, kiv::Position::front), 4);
    EXPECT_EQ(buf.Position(), 1000);
    EXPECT_TRUE(buf.Flush());
    EXPECT_EQ(flushed, 1);
    auto expect = table;
    std::memcpy(expect.data() + 12, "\x00\x00\x00\x07", 4);
    EXPECT_TRUE(dir.entries().empty()) << "the file has no name from the start";
    EXPECT_EQ(iotest::readUnlinked(dir.file("stco.vide.0x20")), expect);
    IOBuffer out;  // what the output does with a table on file
    EXPECT_EQ(out.Copy(buf), 1000);
    EXPECT_EQ(out.Bytes(), expect);
  }
  EXPECT_TRUE(iotest::readUnlinked(dir.file("stco.vide.0x20")).empty()) << "the file goes with the buffer";

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
  LogCapture log;
  // Without a url, or with a file that can't be made, the table costs memory, not data.
  for (const char* url : {static_cast<const char*>(nullptr), "u:/stss.b"}) {
    IOFileBuffer buf(url, 2, nullptr);
    EXPECT_EQ(buf.Write("abcdef", 6), 6);
    EXPECT_FALSE(buf.HasFileData());
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buf.Data()), static_cast<size_t>(buf.Size())), "abcdef");
    EXPECT_TRUE(buf.Flush());
  }
  EXPECT_TRUE(log.Has("!open"));
}
