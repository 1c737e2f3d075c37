// The table-on-file forms, written a record at a time; their temporary files are the H.264 track's test.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "BoxBytes.h"
#include "LogCapture.h"
#include "StblTestUtil.h"
#include "stream/base/Helpers.h"
#include "stream/plugin/mp4/common/StblFile.h"

using namespace kiv::plugin::mov;
using namespace boxtest;
using namespace stbltest;
using kiv::base::AttrSet;
using kiv::base::IOBuffer;

namespace {

// What a track in table-on-file mode does a sample: the list holds the new record, the table takes
// it, the list is emptied. At the end the box writing copies the table out.
template <class T>
Bytes FeedAndWrite(T& table, const List& l) {
  for (const ChunkParam& r : l) {
    List one(1, r);
    table.fill(*table.TableIO(), &one);
  }
  IOBuffer out;
  table.Fill(out, true);
  return Written(out);
}

template <class Plain, class FileForm>
void ExpectSameBytes(const List& l, uint32_t uniformSize = 0) {
  auto* plain = new Plain;
  IOBuffer buffer;
  FileForm onFile(buffer);
  if constexpr (std::is_base_of<cstsz, Plain>::value) plain->_size = onFile._size = uniformSize;
  const std::string name = plain->Name();
  const Bytes want = WriteTable(plain, l);
  EXPECT_EQ(FeedAndWrite(onFile, l), want) << name << " of " << l.size() << " records";
  EXPECT_EQ(onFile.RealSize(), want.size());
}

// One sample a chunk, durations and flags that change; and chunks of three, offsets past 4 GiB, two descriptions.
List Samples(bool groups) {
  List l;
  for (uint32_t i = 0; i < (groups ? 12 : 30); ++i)
    l.push_back(groups ? Rec(i % 3 == 2 ? 0x100000000ull * i + 8 : 0, 7 * i + 1, 3003, 3, i % 6 == 0, i < 6 ? 1 : 2)
                       : Rec(0x1000 + 0x200 * i, 100 + i, i < 12 ? 40 : 41 + i % 3, 1, i % 7 == 0 ? 1 : i % 2 ? 2 : 0));
  return l;
}

}  // namespace

TEST(StblFile, SameBytesAsThePlainTables) {
  for (const List& l : {Samples(false), Samples(true), List()}) {
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
  // A torn group of three is not written; a step without a record counts a zero record.
  LogCapture quiet;
  IOBuffer b1, b2;
  cctts_file ctts(b1);
  EXPECT_EQ(FeedAndWrite(ctts, {Rec(1, 1, 10), Rec(2, 1, 20), Rec(3, 1, 30), Rec(4, 1, 40)}),
            Table("ctts", {2, 1, 60, 2, 0}));
  cstss_file stss(b2);
  List none;
  stss.fill(b2, &none);
  stss.fill(b2, nullptr);
  EXPECT_EQ(FeedAndWrite(stss, {Rec(0, 1, 1, 1, 1)}), Table("stss", {1, 3}));
}

TEST(StblFile, ShiftMovesTheChunkOffsetsWrittenInTheOutput) {
  struct Case {
    bool wide;
    uint32_t n;
    uint64_t base, shift;
    uint32_t shifted;  // entries that take the shift
  } cases[] = {
      {false, 2000, 1, 0x1000, 2000},  // the blocks (4096 bytes for a memory stream) end inside the box
      {false, 2048, 1, 0x1000, 2044},  // they fill it exactly: the last header's worth keeps its values
      {true, 600, 0xfffffff0ull, 0x100, 600},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.n);
    IOBuffer buffer, out;
    std::unique_ptr<IStbl> box(c.wide ? static_cast<IStbl*>(new cco64_file(buffer)) : new cstco_file(buffer));
    auto* form = dynamic_cast<IStblFile*>(box.get());
    for (uint32_t i = 0; i < c.n; ++i) {
      List one(1, Rec(c.base + i, 1, 1));
      form->fill(buffer, &one);
    }
    box->Fill(out, true);
    const Bytes tail = Box("free", Fill(8, 0xee));
    out.Write(tail.data(), static_cast<long long>(tail.size()));
    out.Seek(box->Offset(), kiv::Position::front);
    AttrSet ap;
    ap.SetOrAdd<const void*>("io", &out);
    ap.SetOrAdd("shift_offset", static_cast<long long>(c.shift));
    ASSERT_TRUE(box->fromAttrSet(ap));
    const unsigned w = c.wide ? 8 : 4;
    for (uint32_t i = 0; i < c.n; ++i) {
      const unsigned char* at = out.Data() + 16 + w * i;
      const uint64_t got = c.wide ? kiv::Read64BE(at) : kiv::Read32BE(at);
      ASSERT_EQ(got, c.base + i + (i < c.shifted ? c.shift : 0)) << i;
    }
    EXPECT_EQ(out.Data()[16 + w * c.n + 8], 0xee);  // the next box is left alone
  }
  // Missing parts of the request are refused.
  LogCapture log;
  IOBuffer buffer;
  cstco_file stco(buffer);
  AttrSet noShift;
  noShift.SetOrAdd<const void*>("io", &buffer);
  for (const AttrSet& ap : {AttrSet("shift_offset=1"), AttrSet("io=0;shift_offset=1"), noShift})
    EXPECT_FALSE(stco.fromAttrSet(ap));
  EXPECT_TRUE(log.Has("!ap.Get(\"shift_offset\",shiftOffset)"));
}
