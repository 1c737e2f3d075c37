// The table-on-file forms: tables written one record at a time into buffers of their own.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "BoxBytes.h"
#include "LogCapture.h"
#include "StblTestUtil.h"
#include "io_test_util.h"
#include "stream/base/Helpers.h"
#include "stream/base/io/File.h"
#include "stream/base/io/IOFileBuffer.h"
#include "stream/base/io/IUrl.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/StblFile.h"

using namespace kiv::plugin::mov;
using namespace boxtest;
using namespace stbltest;
using kiv::base::AttrSet;
using kiv::base::IOBuffer;
using kiv::base::IOFileBuffer;

namespace {

// What a track in table-on-file mode does a sample: the list holds the new record, each table takes
// it, the list is emptied. At the end the box writing copies the table out.
template <class T>
Bytes FeedAndWrite(T& table, const List& l) {
  List one;
  for (const ChunkParam& r : l) {
    one.push_back(r);
    table.fill(*table.TableIO(), &one);
    one.clear();
  }
  IOBuffer out;
  table.Fill(out, true);
  return Written(out);
}

template <class Plain, class FileForm>
void ExpectSameBytes(const List& l, uint32_t uniformSize = 0) {
  Plain plain;
  IOBuffer buffer;
  FileForm onFile(buffer);
  if constexpr (std::is_base_of<cstsz, Plain>::value) {
    plain._size = uniformSize;
    onFile._size = uniformSize;
  }
  const Bytes want = WriteTable(plain, l);
  EXPECT_EQ(FeedAndWrite(onFile, l), want) << plain.Name() << " of " << l.size() << " records";
  EXPECT_EQ(onFile.RealSize(), want.size());
}

List OneSamplePerChunk() {
  List l;
  for (uint32_t i = 0; i < 30; ++i)
    l.push_back(Rec(0x1000 + 0x200 * i, 100 + i, i < 12 ? 40 : 41 + i % 3, 1, i % 7 == 0 ? 1 : i % 2 ? 2 : 0));
  return l;
}

List GroupsOfThree() {
  List l;
  for (uint64_t i = 0; i < 12; ++i)
    l.push_back(Rec(i % 3 == 2 ? 0x100000000ull * i + 8 : 0, static_cast<uint32_t>(7 * i + 1), 3003, 3,
                    i % 6 == 0 ? 1 : 0, i < 6 ? 1 : 2));
  return l;
}

// Drive q of the temporary paths points into a fresh directory for the time of a test.
struct MappedDrive {
  iotest::TempDir dir;
  MappedDrive() { kiv::base::DriveMap('q', dir.path().c_str()); }
  ~MappedDrive() { kiv::base::DriveMap('q', nullptr); }
  MappedDrive(const MappedDrive&) = delete;
  MappedDrive& operator=(const MappedDrive&) = delete;
};

// A track's "stbl" in table-on-file mode: each table with its buffer and the filler in front of it.
struct FileModeStbl {
  std::vector<std::unique_ptr<IOFileBuffer>> buffers;
  std::vector<IStblFile*> tables;
  cstbl* stbl = new cstbl();
  croot root;

  explicit FileModeStbl(long long reserve) {
    root.Add(stbl);
    addTable<cstts_file>("stts", reserve);
    addTable<cstss_file>("stss", reserve);
    addTable<cstsc_file>("stsc", reserve);
    addTable<cstsz_file>("stsz", reserve);
    addTable<cstco_file>("stco", reserve);
  }
  template <class T>
  void addTable(const char* name, long long reserve) {
    const std::string url = std::string("q:/") + name + ".avc1.0x1";
    buffers.emplace_back(new IOFileBuffer(url.c_str(), reserve, nullptr));
    IOFileBuffer* buffer = buffers.back().get();
    stbl->Add(new cfree_concate(GetClusterSize(url.c_str()), [buffer](void*) { return buffer->HasFileData(); }));
    T* table = new T(*buffer);
    stbl->Add(table);
    tables.push_back(table);
  }
  // The samples as they come, then the tables into out.
  void record(const List& l, IO& out) {
    for (const ChunkParam& r : l) {
      stbl->_list.push_back(r);
      for (IStblFile* t : tables) t->fill(*t->TableIO(), &stbl->_list);
      stbl->_list.clear();
    }
    root.Fill(out, true);
  }
};

// The plain tables of the same track, in the same order.
Bytes WriteStbl(const List& l) {
  cstbl stbl;
  stbl._list = l;
  for (IBox* t : std::initializer_list<IBox*>{new cstts, new cstss, new cstsc, new cstsz, new cstco}) stbl.Add(t);
  IOBuffer io;
  stbl.Fill(io, true);
  return Written(io);
}

uint32_t Word(const IOBuffer& io, long long at) { return kiv::Read32BE(io.Data() + at); }

}  // namespace

TEST(StblFile, SameBytesAsThePlainTables) {
  for (const List& l : {OneSamplePerChunk(), GroupsOfThree(), List()}) {
    ExpectSameBytes<cstts, cstts_file>(l);
    ExpectSameBytes<cxstts, cxstts_file>(l);
    ExpectSameBytes<cctts, cctts_file>(l);  // whole groups of three only: the forms differ on a torn group
    ExpectSameBytes<cstsc, cstsc_file>(l);
    ExpectSameBytes<cstsz, cstsz_file>(l);
    ExpectSameBytes<cstsz, cstsz_file>(l, 2);
    ExpectSameBytes<cstco, cstco_file>(l);
    ExpectSameBytes<cco64, cco64_file>(l);
    ExpectSameBytes<cstss, cstss_file>(l);
    ExpectSameBytes<csdtp, csdtp_file>(l);
  }
}

TEST(StblFile, CttsWritesOnlyWholeGroups) {
  IOBuffer buffer;
  cctts_file ctts(buffer);
  EXPECT_EQ(FeedAndWrite(ctts, {Rec(1, 1, 10), Rec(2, 1, 20), Rec(3, 1, 30), Rec(4, 1, 40)}),
            Table("ctts", {2, 1, 60, 2, 0}));
}

TEST(StblFile, TablesInTheirOwnFilesJoinTheOutputAtClusterBoundaries) {
  MappedDrive drive;
  const List l = OneSamplePerChunk();
  IOBuffer out;
  const Bytes lead = Box("free", Fill(92));
  out.Write(lead.data(), static_cast<long long>(lead.size()));
  {
    FileModeStbl mode(16);  // every table outgrows its reservation at once
    mode.record(l, out);
    EXPECT_EQ(drive.dir.entries().size(), 5u);
    const unsigned cluster = GetClusterSize("q:/stts.avc1.0x1");
    for (IStblFile* t : mode.tables) {
      EXPECT_TRUE(t->TableIO()->HasFileData());
      EXPECT_EQ(dynamic_cast<IBox*>(t)->Offset() % cluster, 0) << dynamic_cast<IBox*>(t)->Name();
    }
  }
  EXPECT_TRUE(drive.dir.entries().empty());  // the buffers take their files along

  // Read back as any file: fillers are skipped, the list is the one recorded.
  ParsedStbl p(Written(out));
  ASSERT_TRUE(p.ok);
  ASSERT_NE(p.stbl, nullptr);
  ParsedStbl plain(WriteStbl(l));
  ASSERT_TRUE(plain.ok);
  ASSERT_EQ(p.list().size(), l.size());
  for (size_t i = 0; i < l.size(); ++i) {
    EXPECT_EQ(p.list()[i].offset, l[i].offset);
    EXPECT_EQ(p.list()[i].size, l[i].size);
    EXPECT_EQ(p.list()[i].duration, plain.list()[i].duration);
    EXPECT_EQ(p.list()[i].flags, l[i].flags & 1);
  }
}

TEST(StblFile, TablesInMemoryNeedNoFillerAndNoFile) {
  MappedDrive drive;
  const List l = OneSamplePerChunk();
  IOBuffer out;
  FileModeStbl mode(1 << 20);
  mode.record(l, out);
  EXPECT_TRUE(drive.dir.entries().empty());
  EXPECT_EQ(Written(out), WriteStbl(l));
}

TEST(StblFile, ShiftMovesTheChunkOffsetsWrittenInTheOutput) {
  auto write = [](IStbl& table, IStblFile& form, uint32_t n, uint64_t base, IOBuffer& out) {
    List l;
    for (uint32_t i = 0; i < n; ++i) l.push_back(Rec(base + i, 1, 1));
    List one;
    for (const ChunkParam& r : l) {
      one.assign(1, r);
      form.fill(*form.TableIO(), &one);
    }
    table.Fill(out, true);
    const Bytes tail = Box("free", Fill(8, 0xee));
    out.Write(tail.data(), static_cast<long long>(tail.size()));
    out.Seek(table.Offset(), kiv::Position::front);
  };
  AttrSet ap;

  // 2000 entries: the blocks (4096 bytes for a memory stream) end inside the box.
  {
    IOBuffer buffer, out;
    cstco_file stco(buffer);
    write(stco, stco, 2000, 1, out);
    ap.SetOrAdd<const void*>("io", &out);
    ap.SetOrAdd("shift_offset", 0x1000);
    ASSERT_TRUE(stco.fromAttrSet(ap));
    for (uint32_t i = 0; i < 2000; ++i) ASSERT_EQ(Word(out, 16 + 4 * i), 0x1001 + i) << i;
    EXPECT_EQ(out.Data()[8016 + 8], 0xee);  // the next box is left alone
  }
  // 2048 entries fill the blocks exactly: the last header's worth of entries keeps its values.
  {
    IOBuffer buffer, out;
    cstco_file stco(buffer);
    write(stco, stco, 2048, 1, out);
    ap.SetOrAdd<const void*>("io", &out);
    ASSERT_TRUE(stco.fromAttrSet(ap));
    for (uint32_t i = 0; i < 2044; ++i) ASSERT_EQ(Word(out, 16 + 4 * i), 0x1001 + i) << i;
    for (uint32_t i = 2044; i < 2048; ++i) EXPECT_EQ(Word(out, 16 + 4 * i), 1 + i) << i;
    EXPECT_EQ(out.Data()[8208 + 8], 0xee);
  }
  // 64-bit entries take the whole shift.
  {
    IOBuffer buffer, out;
    cco64_file co64(buffer);
    write(co64, co64, 600, 0xfffffff0ull, out);
    ap.SetOrAdd<const void*>("io", &out);
    ap.SetOrAdd("shift_offset", 0x100);
    ASSERT_TRUE(co64.fromAttrSet(ap));
    for (uint32_t i = 0; i < 600; ++i) ASSERT_EQ(kiv::Read64BE(out.Data() + 16 + 8 * i), 0x1000000f0ull + i) << i;
  }
  // Missing parts of the request are refused.
  LogCapture log;
  IOBuffer buffer;
  cstco_file stco(buffer);
  EXPECT_FALSE(stco.fromAttrSet(AttrSet("shift_offset=1")));
  EXPECT_TRUE(log.Has("!ap.Get(\"io\",pio)"));
  EXPECT_FALSE(stco.fromAttrSet(AttrSet("io=0;shift_offset=1")));
  EXPECT_TRUE(log.Has("!pio"));
  AttrSet noShift;
  noShift.SetOrAdd<const void*>("io", &buffer);
  EXPECT_FALSE(stco.fromAttrSet(noShift));
  EXPECT_TRUE(log.Has("!ap.Get(\"shift_offset\",shiftOffset)"));
}

TEST(StblFile, StepWithoutARecordCountsAZeroRecord) {
  LogCapture log;
  IOBuffer buffer;
  cstss_file stss(buffer);
  List none;
  stss.fill(buffer, &none);
  stss.fill(buffer, nullptr);
  List key = {Rec(0, 1, 1, 1, 1)};
  stss.fill(buffer, &key);
  IOBuffer out;
  stss.Fill(out, true);
  EXPECT_EQ(Written(out), Table("stss", {1, 3}));
  EXPECT_TRUE(log.Has("!list || list->empty()"));
}
