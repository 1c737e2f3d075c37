// The sample table boxes, plain and on file: tables from a track's list, and the list from the tables.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
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

template <class T>
std::function<IBox*()> Make(void (*set)(T*) = nullptr) {
  return [set] {
    T* t = new T;
    if (set) set(t);
    return t;
  };
}

// The table-on-file form of a table: fed a record a step, as a track in that mode feeds it.
template <class T, class Base = T>
std::function<IBox*(IOBuffer&)> OnFile(void (*set)(Base*) = nullptr) {
  return [set](IOBuffer& io) {
    T* t = new T(io);
    if (set) set(t);
    return t;
  };
}

Bytes FedOnFile(const std::function<IBox*(IOBuffer&)>& make, const List& l) {
  IOBuffer table, out;
  std::unique_ptr<IBox> box(make(table));
  auto* form = dynamic_cast<IStblFile*>(box.get());
  for (const ChunkParam& r : l) {
    List one(1, r);
    form->fill(table, &one);
  }
  box->Fill(out, true);
  return Written(out);
}

// The entries a table has room for; 0 for a table of another class.
template <class T>
size_t Room(IBox* b) {
  auto* t = dynamic_cast<T*>(b);
  return t ? t->_items.capacity() : 0;
}

}  // namespace

TEST(StblBoxWrite, TablesFromTheList) {
  const List runs = {Rec(1, 9, 40), Rec(2, 9, 40), Rec(3, 9, 40, 2), Rec(4, 9, 20), Rec(5, 9, 20)};
  List six;
  for (uint32_t d = 1; d <= 6; ++d) six.push_back(Rec(d, 9, d));
  const List four(six.begin(), six.begin() + 4);
  // Two chunks of one, two of two, then the description changes at the fourth chunk.
  const List shapes = {Rec(0, 9, 40, 1), Rec(0, 9, 40, 1), Rec(0, 9, 40, 2),
                       Rec(0, 9, 40, 2), Rec(0, 9, 40, 2, 0, 2), Rec(0, 9, 40, 2, 0, 2)};
  const List offsets = {Rec(0, 9, 1), Rec(0, 9, 1), Rec(0x1000, 9, 1), Rec(0, 9, 1), Rec(0x123456789ull, 9, 1)};
  const List flags = {Rec(1, 9, 1, 1, 1), Rec(2, 9, 1, 1, 2), Rec(3, 9, 1, 1, 0), Rec(4, 9, 1, 1, 3)};
  const auto stsz2 = [](cstsz* t) { t->_size = 2; };
  // Each table as the box writes it from the list, and as its on-file form writes it (none: the forms
  // differ on purpose, or there is no such form).
  struct Case {
    const char* name;
    std::function<IBox*()> make;
    std::function<IBox*(IOBuffer&)> onFile;
    List list;
    Bytes want;
  } cases[] = {
      {"stts: a record stands for count samples", Make<cstts>(), OnFile<cstts_file>(), runs, Table("stts", {2, 4, 40, 2, 20})},
      {"stts: a record is one sample", Make<cxstts>(), OnFile<cxstts_file>(), runs, Table("stts", {2, 3, 40, 2, 20})},
      // Leading records of duration 0 get their entry, but the count misses it.
      {"stts: zero first", Make<cstts>(), OnFile<cstts_file>(), {Rec(1, 9, 0), Rec(2, 9, 0), Rec(3, 9, 40)},
       Table("stts", {1, 2, 0, 1, 40})},
      {"ctts: groups of three", Make<cctts>(), OnFile<cctts_file>(), six, Table("ctts", {4, 1, 6, 2, 0, 1, 15, 2, 0})},
      {"ctts: torn group counts the missing as 0", Make<cctts>(), nullptr, four,
       Table("ctts", {4, 1, 6, 2, 0, 1, 4, 2, 0})},
      {"stsc: one shape", Make<cstsc>(), OnFile<cstsc_file>(), List(7, Rec(0, 9, 40, 3)), Table("stsc", {1, 1, 3, 1})},
      {"stsc: shape changes", Make<cstsc>(), OnFile<cstsc_file>(), shapes, Table("stsc", {3, 1, 1, 1, 3, 2, 1, 4, 2, 2})},
      {"stsz", Make<cstsz>(), OnFile<cstsz_file>(), {Rec(1, 100, 1), Rec(2, 7, 1), Rec(3, 0x12345, 1)},
       Table("stsz", {0, 3, 100, 7, 0x12345})},
      // Uniform: records times the first record's size (PCM frames), and no table.
      {"stsz: uniform", Make<cstsz>(stsz2), OnFile<cstsz_file, cstsz>(stsz2), List(10, Rec(1, 4096, 1)),
       Table("stsz", {2, 40960})},
      {"stco: closing records, low 32 bits", Make<cstco>(), OnFile<cstco_file>(), offsets,
       Table("stco", {2, 0x1000, 0x23456789})},
      {"co64", Make<cco64>(), OnFile<cco64_file>(), offsets,
       Box("co64", H("00000000 00000002 0000000000001000 0000000123456789"))},
      // The 64-bit size form: the count sits behind the longer header.
      {"stco: 64-bit size", Make<cstco>([](cstco* t) { t->Size(1); }), nullptr, offsets,
       H("00000001 'stco' 0000000000000020 00000000 00000002 00001000 23456789")},
      {"stss", Make<cstss>(), OnFile<cstss_file>(), flags, Table("stss", {2, 1, 4})},
      {"sdtp: a byte a record, no count", Make<csdtp>(), OnFile<csdtp_file>(), flags, Box("sdtp", H("00000000 20181020"))},
      {"empty stsz", Make<cstsz>(), OnFile<cstsz_file>(), {}, Table("stsz", {0, 0})},
      {"empty sdtp", Make<csdtp>(), OnFile<csdtp_file>(), {}, Table("sdtp", {})},
  };
  LogCapture quiet;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(WriteTable(c.make(), c.list), c.want);
    if (c.onFile) {
      EXPECT_EQ(FedOnFile(c.onFile, c.list), c.want) << "on file";
    }
  }
  // The other empty tables: a count of 0 and nothing behind it.
  const std::pair<std::function<IBox*()>, std::function<IBox*(IOBuffer&)>> empties[] = {
      {Make<cstts>(), OnFile<cstts_file>()}, {Make<cctts>(), OnFile<cctts_file>()}, {Make<cstsc>(), OnFile<cstsc_file>()},
      {Make<cstco>(), OnFile<cstco_file>()}, {Make<cco64>(), OnFile<cco64_file>()}, {Make<cstss>(), OnFile<cstss_file>()}};
  for (const auto& [make, onFile] : empties) {
    IBox* t = make();
    const std::string code = t->FCCString();
    EXPECT_EQ(WriteTable(t, {}), Table(code.c_str(), {0})) << code;
    EXPECT_EQ(FedOnFile(onFile, {}), Table(code.c_str(), {0})) << code << " on file";
  }
}

// Where the on-file forms differ on purpose: a torn group of three is not written; a step without a
// record counts a zero record.
TEST(StblBoxWrite, OnFileTornGroupsAndStepsWithoutARecord) {
  LogCapture quiet;
  EXPECT_EQ(FedOnFile(OnFile<cctts_file>(), {Rec(1, 1, 10), Rec(2, 1, 20), Rec(3, 1, 30), Rec(4, 1, 40)}),
            Table("ctts", {2, 1, 60, 2, 0}));
  IOBuffer b, out;
  cstss_file stss(b);
  List none, key(1, Rec(0, 1, 1, 1, 1));
  stss.fill(b, &none);
  stss.fill(b, nullptr);
  stss.fill(b, &key);
  stss.Fill(out, true);
  EXPECT_EQ(Written(out), Table("stss", {1, 3}));
}

TEST(StblBoxWrite, ShiftMovesTheOnFileChunkOffsetsWrittenInTheOutput) {
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

TEST(StblBoxRead, ListFromHandLaidTables) {
  const Bytes co64 = Box("co64", H("00000000 00000004 0000000100000000 0000000200000001 0000000300000002 "
                                     "0000000400000003"));
  struct Case {
    const char* name;
    Bytes file;
    List want;
    const char* attrs = "codec_fcc=1";
  } cases[] = {
      // Two chunks of three: each chunk's position is spread over its samples by their sizes. The
      // composition and dependency tables change nothing.
      {"chunk groups",
       StblOf({Table("stts", {1, 6, 33}), Table("ctts", {2, 1, 99, 2, 0}), Box("sdtp", H("00000000 201818201818")),
               Table("stss", {1, 4}), Table("stsc", {1, 1, 3, 1}), Table("stsz", {0, 6, 10, 20, 30, 5, 6, 7}),
               Table("stco", {2, 0x4000, 0x9000})}),
       {Rec(0x4000, 10, 33), Rec(0x400a, 20, 33), Rec(0x401e, 30, 33), Rec(0x9000, 5, 33, 1, 1), Rec(0x9005, 6, 33),
        Rec(0x900b, 7, 33)}},
      {"uniform size, 64-bit offsets",
       StblOf({Table("stts", {1, 4, 1024}), Table("stsc", {1, 1, 1, 1}), Table("stsz", {2, 4}), co64,
               Table("stss", {2, 1, 3})}),
       {Rec(0x100000000, 2, 1024, 1, 1), Rec(0x200000001, 2, 1024), Rec(0x300000002, 2, 1024, 1, 1),
        Rec(0x400000003, 2, 1024)}},
      // Several entries: every sample gets the mean.
      {"stts mean",
       StblOf({Table("stts", {2, 2, 100, 2, 300}), Table("stsc", {1, 1, 1, 1}), Table("stsz", {0, 4, 1, 1, 1, 1}),
               Table("stco", {4, 1, 2, 3, 4})}),
       {Rec(1, 1, 200), Rec(2, 1, 200), Rec(3, 1, 200), Rec(4, 1, 200)}},
      {"short stsz: the last size goes on",
       StblOf({Table("stsc", {1, 1, 1, 1}), Table("stsz", {0, 5, 11, 12, 13, 14, 15}),
               Table("stco", {7, 1, 2, 3, 4, 5, 6, 7})}),
       {Rec(1, 11, 0), Rec(2, 12, 0), Rec(3, 13, 0), Rec(4, 14, 0), Rec(5, 15, 0), Rec(6, 15, 0), Rec(7, 15, 0)}},
      {"frame with chunk: a record a chunk",
       StblOf({Table("stts", {1, 3072, 1}), Table("stsc", {1, 1, 1024, 1}), Table("stsz", {4, 3072}),
               Table("stco", {3, 0x100, 0x1100, 0x2100})}),
       {Rec(0x100, 4, 1, 1024), Rec(0x1100, 4, 1, 1024), Rec(0x2100, 4, 1, 1024)},
       "codec_fcc=1936684916;frame_with_chunk=true"},
      {"sync entries outside the list",
       StblOf({Table("stsc", {1, 1, 1, 1}), Table("stco", {3, 1, 2, 3}), Table("stss", {3, 0, 2, 99})}),
       {Rec(1, 0, 0), Rec(2, 0, 0, 1, 1), Rec(3, 0, 0)}},
      // A forged samples-per-chunk is cut to the sizes there are.
      {"forged sample count",
       StblOf({Table("stsc", {1, 1, 0xffffffffu, 1}), Table("stsz", {0, 4, 1, 2, 3, 4}),
               Table("stco", {2, 0x100, 0x200})}),
       {Rec(0x100, 1, 0), Rec(0x101, 2, 0), Rec(0x103, 3, 0), Rec(0x106, 4, 0)}},
      {"forged sample count without sizes: a record a chunk",
       StblOf({Table("stsc", {1, 1, 0xffffffffu, 1}), Table("stco", {1, 0x100})}), {Rec(0x100, 0, 0, 0xffffffffu)}},
  };
  LogCapture quiet;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ParsedStbl p(c.file, c.attrs);
    ASSERT_TRUE(p.ok);
    ASSERT_NE(p.stbl, nullptr);
    EXPECT_EQ(Fields(p.list()), Fields(c.want));
    // The keys of the tables are consumed by the stbl.
    for (const char* key : {"chunk_cnt", "codec_fcc", "frame_with_chunk"}) EXPECT_EQ(p.ap.Get(key), nullptr) << key;
  }

  // A uniform size says nothing of the count: the samples must at least fit in the file.
  ParsedStbl uniform(StblOf({Table("stsc", {1, 1, 0xffffffffu, 1}), Table("stsz", {1, 0xffffffffu}),
                             Table("stco", {1, 0x100})}));
  ASSERT_TRUE(uniform.ok);
  EXPECT_LE(uniform.list().size(), static_cast<size_t>(uniform.io.Size()));
}

TEST(StblBoxRead, InconsistentTablesFailTheParse) {
  struct Case {
    Bytes file;
    const char* said;
    const char* attrs = "codec_fcc=1";
  } cases[] = {
      {StblOf({Table("stsc", {1, 1, 1, 1}), Table("stsz", {0, 1, 5})}), "!ap.Get(\"chunk_cnt\",_chunk_cnt)"},
      {StblOf({Table("stco", {1, 5})}), "!ap.Get(\"codec_fcc\",_codec_fcc)", ""},
      // No samples in the chunks: three offsets for an empty list.
      {StblOf({Table("stsc", {1, 1, 0, 1}), Table("stco", {3, 1, 2, 3})}), "_num>list->size()3"},
      {StblOf({Table("stts", {2, 2, 10, 2, 20}), Table("stsc", {1, 1, 1, 1}), Table("stco", {3, 1, 2, 3})}),
       "ii1 > list->size()"},
      {StblOf({Table("stsc", {1, 1, 1, 1}), Table("stsz", {0, 5, 1, 2, 3, 4, 5}), Table("stco", {3, 1, 2, 3})}),
       "_num > list->size()"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.said);
    LogCapture log;
    EXPECT_FALSE(ParsedStbl(c.file, c.attrs).ok);
    EXPECT_TRUE(log.Has(c.said));
  }
}

TEST(StblBoxRead, SampleNumberOfChunkRunsAndTheExternSwitch) {
  cstsc sc;
  LogCapture quiet;
  EXPECT_EQ(sc.GetSampleNumber(10), 0u);
  sc._items = {{1, 3, 1}, {4, 0, 1}, {6, 2, 1}};
  EXPECT_EQ(sc.GetSampleNumber(10), 3u * 3 + 2u * 5);  // an entry of 0 samples adds nothing
  EXPECT_EQ(sc.GetSampleNumber(4), 9u);                // the last run starts behind the chunks
  sc._items = {{1, 0xffffffffu, 1}};
  EXPECT_EQ(sc.GetSampleNumber(0x7fffffff), 0xffffffffull * 0x7fffffff);  // no 32-bit wrap

  // Only a big "stbl" goes to the block-wise readers.
  const std::string on = "stbl_extern_parser_enable=true",
                    at100 = "stbl_extern_parser_enable=1;stbl_extern_parser_switch_stbl_size=0x100";
  const std::tuple<std::string, unsigned long long, bool> cases[] = {
      {on, 65535, false}, {on, 65536, true}, {"stbl_extern_parser_enable=false", 65536, false},
      {at100, 0x100, true}, {at100, 0xff, false}};
  for (const auto& c : cases) {
    cstbl s;
    AttrSet ap(std::get<0>(c).c_str());
    s.Size(std::get<1>(c));
    EXPECT_EQ(s.checkExternParserEnable(ap), std::get<2>(c)) << std::get<0>(c) << " " << std::get<1>(c);
  }
}

TEST(StblBoxRead, DamagedTablesStayInsideTheirBox) {
  const Bytes next = Table("stss", {1, 1});
  for (const char* fcc : {"stts", "ctts", "stsc", "stsz", "stco", "co64", "stss", "sdtp"}) {
    SCOPED_TRACE(fcc);
    const std::string code = fcc;
    const unsigned entry = code == "stsc" ? 12 : code == "stts" || code == "ctts" || code == "co64" ? 8 : 4;
    const Bytes lead = code == "stsz" ? Bytes{0, 0, 0, 0, 0, 0, 0, 0} : Bytes{0, 0, 0, 0};  // version, flags, size

    // A forged count: three entries and a torn one are there, and only those are taken.
    if (code != "sdtp") {
      LogCapture log;
      Bytes body = lead;
      Be32(body, 0xffffffffu);
      Append(body, Fill(3 * entry + entry / 2, 0x01));
      ParsedStbl p(Cat({Box(fcc, body), Box("free")}));
      EXPECT_TRUE(p.ok);
      auto* table = dynamic_cast<IMoovList*>(p.root.Child());
      ASSERT_NE(table, nullptr);
      EXPECT_EQ(table->Num(), 3u);
      // Room for what is there, not for what is claimed ("ctts" keeps nothing).
      const size_t room = Room<cstts>(table) + Room<cstsc>(table) + Room<cstsz>(table) + Room<cstco>(table) +
                          Room<cco64>(table) + Room<cstss>(table);
      EXPECT_EQ(room, code == "ctts" ? 0u : 3u);
      EXPECT_TRUE(log.Has("_num 4294967295 > 3"));
      ASSERT_NE(table->Next(), nullptr);  // the next box is found where it is
      EXPECT_STREQ(table->Next()->FCCString(), "free");
    }
    // A size that covers only the header and half of the count: nothing is read from the next box.
    {
      LogCapture quiet;
      ParsedStbl p(Cat({Header(14, fcc), {0, 0, 0, 0, 0, 0}, next}));
      EXPECT_TRUE(p.ok);
      auto* table = dynamic_cast<IMoovList*>(p.root.Child());
      ASSERT_NE(table, nullptr);
      EXPECT_EQ(table->Num(), 0u);
      ASSERT_NE(table->Next(), nullptr);
      EXPECT_EQ(dynamic_cast<IMoovList*>(table->Next())->Num(), 1u);
    }
    // What follows the entries inside a table, though shaped like a box, is no child.
    {
      ParsedStbl p(Cat({Box(fcc, Cat({code == "sdtp" ? Bytes() : lead, code == "sdtp" ? Bytes() : Bytes(4, 0),
                                  Box("free", Fill(4))})),
                    next}));
      EXPECT_TRUE(p.ok);
      ASSERT_NE(p.root.Child(), nullptr);
      EXPECT_EQ(p.root.Child()->Child(), nullptr);
      ASSERT_NE(p.root.Child()->Next(), nullptr);
      EXPECT_STREQ(p.root.Child()->Next()->FCCString(), "stss");
    }
  }
}
