// The spill list: a track's chunk list kept below its capacity through a temporary file.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "StblTestUtil.h"
#include "stream/plugin/mp4/common/IListFile.h"

using kiv::plugin::mov::ChunkParam;
using kiv::plugin::mov::IListFile;
using stbltest::Bytes;
using stbltest::H;
using stbltest::MappedDrive;
using stbltest::Rec;

namespace {

// Every field differs from record to record, so a swapped or torn record shows.
ChunkParam Numbered(size_t i) {
  return Rec(0x100000000ull * (i % 3) + i * 1000 + 7, static_cast<uint32_t>(i), static_cast<uint32_t>(i % 50),
             1 + static_cast<uint32_t>(i % 3), static_cast<uint8_t>(i % 4), static_cast<uint8_t>(1 + i % 2),
             static_cast<uint16_t>(i));
}

// The first n records of the list are records 0..n-1, in order.
::testing::AssertionResult InOrder(const std::vector<ChunkParam>& list, size_t n) {
  if (list.size() < n) return ::testing::AssertionFailure() << "only " << list.size() << " records";
  for (size_t i = 0; i < n; ++i) {
    const ChunkParam want = Numbered(i);
    if (std::memcmp(&list[i], &want, sizeof want) != 0) return ::testing::AssertionFailure() << "record " << i;
  }
  return ::testing::AssertionSuccess();
}

// What a track does with each sample: spill a full list, then append.
struct Track {
  std::vector<ChunkParam> list;
  std::unique_ptr<IListFile> file;
  std::vector<size_t> spillsBefore;  // record numbers that found the list full
  size_t next = 0;                   // number of the next record

  Track() {
    list.reserve(4096);
    char path[64];
    std::snprintf(path, sizeof path, "q:/avc1.%p", static_cast<void*>(this));
    file.reset(new IListFile(&list, path, 4096));
  }
  void addUpTo(size_t n) {
    while (next < n) {
      if (file->ListIsFull()) {
        file->WriteTmpFile();
        spillsBefore.push_back(next);
      }
      list.push_back(Numbered(next++));
    }
  }
  std::string name() const { return std::string(file->Path()).substr(3); }  // behind "q:/"
};

}  // namespace

TEST(SpillList, SpillsOneSlotBeforeCapacityAndBringsEveryRecordBackInOrder) {
  MappedDrive drive;
  {
    Track t;
    t.addUpTo(4095);  // a short recording touches no file
    EXPECT_TRUE(drive.dir.entries().empty());
    EXPECT_TRUE(t.file->ListIsFull());
    t.addUpTo(4096);
    ASSERT_EQ(t.spillsBefore, std::vector<size_t>{4095});
    EXPECT_EQ(t.list.size(), 1u);
    EXPECT_TRUE(t.file->HasFile());
    EXPECT_TRUE(drive.dir.entries().empty()) << "the spill file has no name to be left behind under";
    EXPECT_EQ(t.name().substr(t.name().size() - 7), ".quorel");

    t.addUpTo(10000);
    EXPECT_EQ(t.spillsBefore, (std::vector<size_t>{4095, 8190}));
    EXPECT_EQ(t.list.capacity(), 4096u);  // emptied, not freed: the list never grew while recording
    ASSERT_TRUE(t.file->ReadTmpFile());
    ASSERT_EQ(t.list.size(), 10000u);
    EXPECT_GT(t.list.capacity(), t.list.size());  // one spare slot
    EXPECT_TRUE(InOrder(t.list, 10000));

    // The file: bare records in arrival order, in the machine's byte order (little-endian here). Record
    // 5 holds offset 0x20000138f, size 5, duration 5, count 3, span 5, description 2, flags 1.
    const auto bytes = iotest::readUnlinked(drive.dir.file(t.name()));
    ASSERT_EQ(bytes.size(), 10000u * 24);
    EXPECT_EQ(Bytes(bytes.begin() + 5 * 24, bytes.begin() + 6 * 24),
              H("8f13000002000000 05000000 05000000 03000000 0500 02 01"));
  }
  EXPECT_TRUE(drive.dir.entries().empty());
}

TEST(SpillList, EndStatesOfARecording) {
  MappedDrive drive;
  for (size_t n : {4000, 8190, 5000}) {
    SCOPED_TRACE(n);
    Track t;  // 4000: never spilled; 8190: the last spill left the list empty; 5000: no final read
    t.addUpTo(n);
    if (n == 5000) { EXPECT_TRUE(t.file->HasFile()); continue; }  // it goes all the same
    if (n == 8190) { ASSERT_TRUE(t.file->WriteTmpFile() && t.list.empty()); }
    EXPECT_EQ(t.file->ReadTmpFile(), n == 8190);
    EXPECT_EQ(t.list.size(), n);
    EXPECT_TRUE(InOrder(t.list, n));
  }
  EXPECT_TRUE(drive.dir.entries().empty());
}

TEST(SpillList, UnopenableFileOnlyCostsMemory) {
  MappedDrive drive('q', "missing");  // a directory that does not exist
  LogCapture log;
  {
    Track t;
    t.addUpTo(5000);
    EXPECT_FALSE(t.file->HasFile());
    EXPECT_FALSE(t.file->ReadTmpFile());
    EXPECT_EQ(t.list.size(), 5000u);  // grown past its reservation
    EXPECT_TRUE(InOrder(t.list, 5000));
  }
  EXPECT_FALSE(log.Has("!unlink"));  // nothing made, nothing deleted
  EXPECT_TRUE(drive.dir.entries().empty());
}
