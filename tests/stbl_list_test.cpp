// The spill list: a track's chunk list kept below its capacity through a temporary file.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "StblTestUtil.h"
#include "io_test_util.h"
#include "stream/base/io/IUrl.h"
#include "stream/plugin/mp4/common/IListFile.h"

using kiv::plugin::mov::ChunkParam;
using kiv::plugin::mov::IListFile;
using stbltest::Rec;

namespace {

// Drive q of the temporary paths points into a fresh directory for the time of a test.
struct MappedDrive {
  iotest::TempDir dir;
  explicit MappedDrive(const std::string& sub = "") {
    kiv::base::DriveMap('q', sub.empty() ? dir.path().c_str() : dir.file(sub).c_str());
  }
  ~MappedDrive() { kiv::base::DriveMap('q', nullptr); }
  MappedDrive(const MappedDrive&) = delete;
  MappedDrive& operator=(const MappedDrive&) = delete;
};

// Every field differs from record to record, so a swapped or torn record shows.
ChunkParam Numbered(size_t i) {
  return Rec(0x100000000ull * (i % 3) + i * 1000 + 7, static_cast<uint32_t>(i), static_cast<uint32_t>(i % 50),
             1 + static_cast<uint32_t>(i % 3), static_cast<uint8_t>(i % 4), static_cast<uint8_t>(1 + i % 2),
             static_cast<uint16_t>(i));
}

bool Same(const ChunkParam& a, const ChunkParam& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// What a track does with each sample: spill a full list, then append.
struct Track {
  std::vector<ChunkParam> list;
  std::unique_ptr<IListFile> file;
  std::vector<size_t> spillsBefore;  // record numbers that found the list full
  size_t next = 0;                   // number of the next record

  Track() {
    list.reserve(4096);
    char path[64];
    std::snprintf(path, sizeof path, "%c:/%s.%p", 'q', "avc1", static_cast<void*>(this));
    file.reset(new IListFile(&list, path, 4096));
  }
  void add() {
    if (file->ListIsFull()) {
      file->WriteTmpFile();
      spillsBefore.push_back(next);
    }
    list.push_back(Numbered(next++));
  }
  void addUpTo(size_t n) {
    while (next < n) add();
  }
};

long long FileSize(const std::string& p) {
  struct stat st;
  return ::stat(p.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

}  // namespace

TEST(SpillList, ShortRecordingTouchesNoFile) {
  MappedDrive drive;
  LogCapture log;
  {
    Track t;
    EXPECT_TRUE(log.Has(std::string(t.file->Path()) + " maxsize 98304"));
    t.addUpTo(4095);  // one short of a spill
    EXPECT_TRUE(t.spillsBefore.empty());
    EXPECT_FALSE(t.file->HasFile());
    EXPECT_FALSE(t.file->ReadTmpFile());
    ASSERT_EQ(t.list.size(), 4095u);
    for (size_t i = 0; i < t.list.size(); ++i) ASSERT_TRUE(Same(t.list[i], Numbered(i))) << i;
    EXPECT_TRUE(drive.dir.entries().empty());
  }
  EXPECT_TRUE(drive.dir.entries().empty());
  EXPECT_FALSE(log.Has("!unlink"));
}

TEST(SpillList, SpillsOneSlotBeforeCapacityAndBringsEveryRecordBackInOrder) {
  MappedDrive drive;
  std::string name;
  {
    Track t;
    name = std::string(t.file->Path()).substr(3);  // behind "q:/"
    EXPECT_EQ(name.substr(name.size() - 7), ".quorel");
    t.addUpTo(4095);
    EXPECT_TRUE(t.file->ListIsFull());
    t.add();
    ASSERT_EQ(t.spillsBefore, std::vector<size_t>{4095});
    EXPECT_EQ(t.list.size(), 1u);
    EXPECT_EQ(t.list.capacity(), 4096u);  // emptied, not freed
    EXPECT_EQ(drive.dir.entries(), std::vector<std::string>{name});

    t.addUpTo(10000);
    EXPECT_EQ(t.spillsBefore, (std::vector<size_t>{4095, 8190}));
    EXPECT_EQ(t.list.capacity(), 4096u);  // the list never grew while recording

    ASSERT_TRUE(t.file->ReadTmpFile());
    ASSERT_EQ(t.list.size(), 10000u);
    EXPECT_GT(t.list.capacity(), t.list.size());  // one spare slot
    for (size_t i = 0; i < t.list.size(); ++i) ASSERT_TRUE(Same(t.list[i], Numbered(i))) << i;
    EXPECT_EQ(FileSize(drive.dir.file(name)), 10000 * 24);
  }
  EXPECT_TRUE(drive.dir.entries().empty());
}

TEST(SpillList, FileHoldsBareRecordImagesInArrivalOrder) {
  MappedDrive drive;
  Track t;
  t.addUpTo(4096);
  ASSERT_TRUE(t.file->ReadTmpFile());  // the final write flushes the file
  const auto bytes = iotest::readAll(drive.dir.file(std::string(t.file->Path()).substr(3)));
  ASSERT_EQ(bytes.size(), 4096u * 24);
  // Record 5 at byte 120, fields in the machine's order (little-endian here), no header before it.
  const unsigned char* r = bytes.data() + 5 * 24;
  const ChunkParam want = Numbered(5);
  uint64_t offset = 0;
  for (int k = 7; k >= 0; --k) offset = offset << 8 | r[k];
  EXPECT_EQ(offset, want.offset);
  EXPECT_EQ(r[8] | r[9] << 8, static_cast<int>(want.size));
  EXPECT_EQ(r[12], want.duration);
  EXPECT_EQ(r[16], want.count);
  EXPECT_EQ(r[20] | r[21] << 8, want.packetSpan);
  EXPECT_EQ(r[22], want.descIndex);
  EXPECT_EQ(r[23], want.flags);
}

TEST(SpillList, EmptyListAtTheEndStillBringsEverythingBack) {
  MappedDrive drive;
  Track t;
  t.addUpTo(8190);
  ASSERT_TRUE(t.file->ListIsFull());
  ASSERT_TRUE(t.file->WriteTmpFile());
  ASSERT_TRUE(t.list.empty());
  ASSERT_TRUE(t.file->ReadTmpFile());
  ASSERT_EQ(t.list.size(), 8190u);
  for (size_t i = 0; i < t.list.size(); ++i) ASSERT_TRUE(Same(t.list[i], Numbered(i))) << i;
}

TEST(SpillList, UnopenableFileOnlyCostsMemory) {
  MappedDrive drive("missing");  // a directory that does not exist
  LogCapture log;
  {
    Track t;
    t.addUpTo(5000);
    EXPECT_FALSE(t.file->HasFile());
    EXPECT_TRUE(log.Has("WriteTmpFile"));
    ASSERT_EQ(t.list.size(), 5000u);  // grown past its reservation
    EXPECT_FALSE(t.file->ReadTmpFile());
    ASSERT_EQ(t.list.size(), 5000u);
    for (size_t i = 0; i < t.list.size(); ++i) ASSERT_TRUE(Same(t.list[i], Numbered(i))) << i;
  }
  EXPECT_FALSE(log.Has("!unlink"));  // nothing made, nothing deleted
  EXPECT_TRUE(drive.dir.entries().empty());
}

TEST(SpillList, FileGoesAwayWithoutFinalRead) {
  MappedDrive drive;
  {
    Track t;
    t.addUpTo(5000);
    EXPECT_EQ(drive.dir.entries().size(), 1u);
  }
  EXPECT_TRUE(drive.dir.entries().empty());
}

TEST(SpillList, FailedFinalWriteLosesTheTailButLeavesNoFile) {
  MappedDrive drive;
  struct rlimit old;
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
  const rlim_t limit = 4095 * 24 + 50000 + 7;  // ends inside a record
  if (old.rlim_cur != RLIM_INFINITY && old.rlim_cur < limit) GTEST_SKIP() << "file size limit already lower";
  {
    Track t;
    t.addUpTo(4095 + 4000);
    ASSERT_EQ(t.list.size(), 4000u);
    const std::string path = drive.dir.file(std::string(t.file->Path()).substr(3));

    // The final write of 96000 bytes hits the limit part way.
    void (*oldHandler)(int) = ::signal(SIGXFSZ, SIG_IGN);
    struct rlimit lim = old;
    lim.rlim_cur = limit;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &lim), 0);
    const bool read = t.file->ReadTmpFile();
    ::setrlimit(RLIMIT_FSIZE, &old);
    ::signal(SIGXFSZ, oldHandler);

    EXPECT_TRUE(read);
    const long long onDisk = FileSize(path);
    ASSERT_GT(onDisk, 4095 * 24);
    ASSERT_LT(onDisk, (4095 + 4000) * 24);
    // What reached the file comes back in order; the rest of the recording is gone.
    EXPECT_LT(t.list.size(), 4095u + 4000u);
    const size_t whole = static_cast<size_t>(onDisk / 24);
    ASSERT_GE(t.list.size(), whole);
    for (size_t i = 0; i < whole; ++i) ASSERT_TRUE(Same(t.list[i], Numbered(i))) << i;
  }
  EXPECT_TRUE(drive.dir.entries().empty());
}
