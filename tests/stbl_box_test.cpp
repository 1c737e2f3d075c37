// The sample table boxes: tables derived from a track's list, and the list rebuilt from the tables.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "BoxBytes.h"
#include "LogCapture.h"
#include "StblTestUtil.h"
#include "stream/plugin/mp4/common/Stbl.h"

using namespace kiv::plugin::mov;
using namespace boxtest;
using namespace stbltest;
using kiv::base::AttrSet;
using kiv::base::IOBuffer;

namespace {

Bytes WriteStbl(const List& list, std::initializer_list<IBox*> tables) {
  cstbl stbl;
  stbl._list = list;
  for (IBox* t : tables) stbl.Add(t);
  IOBuffer io;
  stbl.Fill(io, true);
  return Written(io);
}

void ExpectRecords(const List& got, const List& want) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); ++i) {
    SCOPED_TRACE("record " + std::to_string(i));
    EXPECT_EQ(got[i].offset, want[i].offset);
    EXPECT_EQ(got[i].size, want[i].size);
    EXPECT_EQ(got[i].duration, want[i].duration);
    EXPECT_EQ(got[i].count, want[i].count);
    EXPECT_EQ(got[i].descIndex, want[i].descIndex);
    EXPECT_EQ(got[i].flags, want[i].flags);
  }
}

// Full box bytes with a count and raw entries, for tables whose entries are not 32-bit words.
Bytes TableBytes(const char* fcc, const Bytes& body) { return Box(fcc, Cat({{0, 0, 0, 0}, body})); }

}  // namespace

// ---------------------------------------------------------------- writing

TEST(StblBoxWrite, SttsMergesRunsOfEqualDuration) {
  const List l = {Rec(1, 9, 40), Rec(2, 9, 40), Rec(3, 9, 40, 2), Rec(4, 9, 20), Rec(5, 9, 20)};
  cstts byCount;  // a record stands for count samples
  EXPECT_EQ(WriteTable(byCount, l), Table("stts", {2, 4, 40, 2, 20}));
  EXPECT_EQ(byCount._total_samples, 6u);
  cxstts bySample;  // a record is one sample
  EXPECT_EQ(WriteTable(bySample, l), Table("stts", {2, 3, 40, 2, 20}));

  // Leading records of duration 0 get their entry, but the count misses it.
  cstts zero;
  EXPECT_EQ(WriteTable(zero, {Rec(1, 9, 0), Rec(2, 9, 0), Rec(3, 9, 40)}), Table("stts", {1, 2, 0, 1, 40}));
}

TEST(StblBoxWrite, CttsPairsAGroupOfThree) {
  List l;
  for (uint32_t d = 1; d <= 6; ++d) l.push_back(Rec(d, 9, d));
  cctts six;
  EXPECT_EQ(WriteTable(six, l), Table("ctts", {4, 1, 6, 2, 0, 1, 15, 2, 0}));

  // A last group short of records counts the missing ones as 0.
  LogCapture log;
  l.resize(4);
  cctts four;
  EXPECT_EQ(WriteTable(four, l), Table("ctts", {4, 1, 6, 2, 0, 1, 4, 2, 0}));
  EXPECT_TRUE(log.Has("no multiple of 3"));
}

TEST(StblBoxWrite, StscEntryWhenChunkShapeChanges) {
  List l(7, Rec(0, 9, 40, 3));
  cstsc groups;
  EXPECT_EQ(WriteTable(groups, l), Table("stsc", {1, 1, 3, 1}));

  // Two chunks of one, two of two, then the description changes at the fourth chunk.
  const List mixed = {Rec(0, 9, 40, 1), Rec(0, 9, 40, 1), Rec(0, 9, 40, 2),
                      Rec(0, 9, 40, 2), Rec(0, 9, 40, 2, 0, 2), Rec(0, 9, 40, 2, 0, 2)};
  cstsc shape;
  EXPECT_EQ(WriteTable(shape, mixed), Table("stsc", {3, 1, 1, 1, 3, 2, 1, 4, 2, 2}));
}

TEST(StblBoxWrite, StszSizeTableOrUniformCount) {
  cstsz sizes;
  EXPECT_EQ(WriteTable(sizes, {Rec(1, 100, 1), Rec(2, 7, 1), Rec(3, 0x12345, 1)}),
            Table("stsz", {0, 3, 100, 7, 0x12345}));

  // Uniform: records times the first record's size (PCM frames), and no table.
  cstsz uniform;
  uniform._size = 2;
  EXPECT_EQ(WriteTable(uniform, List(10, Rec(1, 4096, 1))), Table("stsz", {2, 40960}));
}

TEST(StblBoxWrite, ChunkOffsetsOnlyFromRecordsThatCloseAChunk) {
  const List l = {Rec(0, 9, 1), Rec(0, 9, 1), Rec(0x1000, 9, 1), Rec(0, 9, 1), Rec(0x123456789ull, 9, 1)};
  cstco low;
  EXPECT_EQ(WriteTable(low, l), Table("stco", {2, 0x1000, 0x23456789}));  // low 32 bits, no check
  EXPECT_EQ(low.Num(), 5u);  // the box keeps the list's size; the file the real count
  cco64 wide;
  Bytes body;
  Be32(body, 2);
  Be64(body, 0x1000);
  Be64(body, 0x123456789ull);
  EXPECT_EQ(WriteTable(wide, l), TableBytes("co64", body));

  // The 64-bit size form: the count sits behind the longer header.
  cstco large;
  large.Size(1);
  Bytes want = Header64(32, "stco");
  Append(want, {0, 0, 0, 0});
  for (uint32_t v : {2u, 0x1000u, 0x23456789u}) Be32(want, v);
  EXPECT_EQ(WriteTable(large, l), want);
  EXPECT_EQ(large.RealSize(), 32u);
}

TEST(StblBoxWrite, StssAndSdtpFromTheFlags) {
  const List l = {Rec(1, 9, 1, 1, 1), Rec(2, 9, 1, 1, 2), Rec(3, 9, 1, 1, 0), Rec(4, 9, 1, 1, 3)};
  cstss sync;
  EXPECT_EQ(WriteTable(sync, l), Table("stss", {2, 1, 4}));
  csdtp deps;  // no count field: one byte a record
  EXPECT_EQ(WriteTable(deps, l), Box("sdtp", {0, 0, 0, 0, 32, 24, 16, 32}));
}

TEST(StblBoxWrite, EmptyListWritesEmptyTables) {
  const List none;
  cstts stts;
  cctts ctts;
  cstsc stsc;
  cstsz stsz;
  cstco stco;
  cco64 co64;
  cstss stss;
  csdtp sdtp;
  EXPECT_EQ(WriteTable(stts, none), Table("stts", {0}));
  EXPECT_EQ(WriteTable(ctts, none), Table("ctts", {0}));
  EXPECT_EQ(WriteTable(stsc, none), Table("stsc", {0}));
  EXPECT_EQ(WriteTable(stsz, none), Table("stsz", {0, 0}));
  EXPECT_EQ(WriteTable(stco, none), Table("stco", {0}));
  EXPECT_EQ(WriteTable(co64, none), Table("co64", {0}));
  EXPECT_EQ(WriteTable(stss, none), Table("stss", {0}));
  EXPECT_EQ(WriteTable(sdtp, none), Table("sdtp", {}));
}

TEST(StblBoxWrite, StatisticsSizeForeseesWhatFillWrites) {
  List l;
  for (uint32_t i = 0; i < 50; ++i)
    l.push_back(Rec(i % 3 == 2 ? 0x1000 + i : 0, 100 + i, i < 20 ? 40 : 41 + i % 2, 3, i % 5 == 0 ? 1 : 0));
  cstbl stbl;
  stbl._list = l;
  for (IBox* t : std::initializer_list<IBox*>{new cstts, new cxstts, new cctts, new cstsc, new cstsz, new cstco,
                                              new cco64, new cstss, new csdtp})
    stbl.Add(t);
  const unsigned long long foreseen = stbl.StatisticsSize();
  IOBuffer io;
  EXPECT_EQ(static_cast<unsigned long long>(stbl.Fill(io, true)), foreseen);
  for (IBox* c = stbl.Child(); c; c = c->Next()) EXPECT_EQ(c->StatisticsSize(), c->RealSize()) << c->Name();
}

// ---------------------------------------------------------------- reading

TEST(StblBoxRead, RoundTripOneSamplePerChunk) {
  List l;
  for (uint32_t i = 0; i < 9; ++i) l.push_back(Rec(0x800 + 0x100 * i, 50 + i, 40, 1, i % 4 == 0 ? 1 : 0));
  ParsedStbl p(WriteStbl(l, {new cstts, new cstss, new cstsc, new cstsz, new cstco}));
  ASSERT_TRUE(p.ok);
  ASSERT_NE(p.stbl, nullptr);
  ExpectRecords(p.list(), l);
  EXPECT_EQ(p.stbl->_chunk_cnt, 9u);
  EXPECT_EQ(p.stbl->_frame_cnt, 9u);

  AttrSet a;
  ASSERT_TRUE(p.stbl->toAttrSet(a));
  EXPECT_STREQ(a.Get("chunk_cnt"), "9");
  EXPECT_STREQ(a.Get("frame_cnt"), "9");
  EXPECT_STREQ(a.Get("codec_fcc"), "1");
  EXPECT_STREQ(a.Get("frame_with_chunk"), "false");
  EXPECT_STREQ(a.Get("stbl_parser_keywords"), "list");
  // The keys of the tables are consumed by the stbl.
  EXPECT_EQ(p.ap.Get("chunk_cnt"), nullptr);
  EXPECT_EQ(p.ap.Get("codec_fcc"), nullptr);

  std::ostringstream dump;
  p.root.Dump(dump);
  EXPECT_NE(dump.str().find("frames=9"), std::string::npos) << dump.str();
}

TEST(StblBoxRead, RoundTripChunkGroupsSpreadOffsetsOverSamples) {
  // Two chunks of three samples; each chunk's position stands in its last record.
  const uint32_t size[6] = {10, 20, 30, 5, 6, 7};
  List l;
  for (int i = 0; i < 6; ++i) l.push_back(Rec(i == 2 ? 0x4000 : i == 5 ? 0x9000 : 0, size[i], 33, 3, i == 3 ? 1 : 0));
  ParsedStbl p(WriteStbl(l, {new cxstts, new cstsc, new cstsz, new cstco, new cstss}));
  ASSERT_TRUE(p.ok);
  const List want = {Rec(0x4000, 10, 33), Rec(0x400a, 20, 33), Rec(0x401e, 30, 33),
                     Rec(0x9000, 5, 33, 1, 1), Rec(0x9005, 6, 33), Rec(0x900b, 7, 33)};
  ExpectRecords(p.list(), want);
  EXPECT_EQ(p.stbl->_chunk_cnt, 2u);
}

TEST(StblBoxRead, RoundTripUniformSizeAnd64BitOffsets) {
  List l;
  for (uint64_t i = 0; i < 4; ++i) l.push_back(Rec(0x100000000ull * (i + 1) + i, 4096, 1024, 1, 1));
  auto* stsz = new cstsz;
  stsz->_size = 2;
  ParsedStbl p(WriteStbl(l, {new cstts, new cstsc, stsz, new cco64, new cstss}));
  ASSERT_TRUE(p.ok);
  List want = l;
  for (auto& r : want) r.size = 2;  // the uniform size, not the records' frames
  ExpectRecords(p.list(), want);
}

TEST(StblBoxRead, SeveralSttsEntriesGiveEverySampleTheMean) {
  List l;
  for (uint32_t i = 0; i < 20; ++i) l.push_back(Rec(0x100 + i, 1, i < 10 ? 100 : 300));
  ParsedStbl p(WriteStbl(l, {new cstts, new cstsc, new cstsz, new cstco}));
  ASSERT_TRUE(p.ok);
  ASSERT_EQ(p.list().size(), 20u);
  for (const auto& r : p.list()) EXPECT_EQ(r.duration, 200u);
}

TEST(StblBoxRead, ShortStszGivesTrailingRecordsTheLastSize) {
  ParsedStbl p(StblOf({Table("stsc", {1, 1, 1, 1}), Table("stsz", {0, 5, 11, 12, 13, 14, 15}),
                       Table("stco", {7, 1, 2, 3, 4, 5, 6, 7})}));
  ASSERT_TRUE(p.ok);
  ASSERT_EQ(p.list().size(), 7u);
  const uint32_t want[7] = {11, 12, 13, 14, 15, 15, 15};
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(p.list()[i].size, want[i]) << i;
    EXPECT_EQ(p.list()[i].offset, static_cast<uint64_t>(i + 1));
  }
}

TEST(StblBoxRead, FrameWithChunkKeepsOneRecordAChunk) {
  ParsedStbl p(StblOf({Table("stts", {1, 3072, 1}), Table("stsc", {1, 1, 1024, 1}), Table("stsz", {4, 3072}),
                       Table("stco", {3, 0x100, 0x1100, 0x2100})}),
               "codec_fcc=1936684916;frame_with_chunk=true");
  ASSERT_TRUE(p.ok);
  EXPECT_TRUE(p.stbl->_frame_with_chunk);
  EXPECT_EQ(p.ap.Get("frame_with_chunk"), nullptr);
  const List want = {Rec(0x100, 4, 1, 1024), Rec(0x1100, 4, 1, 1024), Rec(0x2100, 4, 1, 1024)};
  ExpectRecords(p.list(), want);
}

TEST(StblBoxRead, CompositionAndDependencyTablesLeaveTheListAlone) {
  List l;
  for (uint32_t i = 0; i < 6; ++i) l.push_back(Rec(0x100 * (i + 1), 10 + i, 40, 1, i == 0 ? 1 : 2));
  ParsedStbl plain(WriteStbl(l, {new cstts, new cstss, new cstsc, new cstsz, new cstco}));
  ParsedStbl more(WriteStbl(l, {new cstts, new cctts, new csdtp, new cstss, new cstsc, new cstsz, new cstco}));
  ASSERT_TRUE(plain.ok);
  ASSERT_TRUE(more.ok);
  ExpectRecords(more.list(), plain.list());
  EXPECT_EQ(more.list()[1].flags, 0);  // bit 1 does not come back
}

TEST(StblBoxRead, InconsistentTablesFailTheParse) {
  LogCapture log;
  {
    ParsedStbl p(StblOf({Table("stsc", {1, 1, 1, 1}), Table("stsz", {0, 1, 5})}));
    EXPECT_FALSE(p.ok);
    EXPECT_TRUE(log.Has("!ap.Get(\"chunk_cnt\",_chunk_cnt)"));
  }
  {
    ParsedStbl p(StblOf({Table("stco", {1, 5})}), "");
    EXPECT_FALSE(p.ok);
    EXPECT_TRUE(log.Has("!ap.Get(\"codec_fcc\",_codec_fcc)"));
  }
  {
    // No samples in the chunks: three offsets for an empty list.
    ParsedStbl p(StblOf({Table("stsc", {1, 1, 0, 1}), Table("stco", {3, 1, 2, 3})}));
    EXPECT_FALSE(p.ok);
    EXPECT_TRUE(log.Has("_num>list->size()3"));
    EXPECT_TRUE(log.Has("!stbl->parseFinal()"));
  }
  {
    ParsedStbl p(StblOf({Table("stts", {2, 2, 10, 2, 20}), Table("stsc", {1, 1, 1, 1}), Table("stco", {3, 1, 2, 3})}));
    EXPECT_FALSE(p.ok);
    EXPECT_TRUE(log.Has("ii1 > list->size()"));
  }
  {
    ParsedStbl p(StblOf({Table("stsc", {1, 1, 1, 1}), Table("stsz", {0, 5, 1, 2, 3, 4, 5}), Table("stco", {3, 1, 2, 3})}));
    EXPECT_FALSE(p.ok);
    EXPECT_TRUE(log.Has("_num > list->size()"));
  }
  // More chunks than records can't be spread.
  cstbl s;
  s._list.resize(2);
  s._chunk_cnt = 3;
  EXPECT_FALSE(s.adjustChunkToFrame());
  EXPECT_TRUE(log.Has("chunk_num > _list.size() 3 > 2"));
}

TEST(StblBoxRead, SyncEntriesOutsideTheListAreSkipped) {
  LogCapture log;
  ParsedStbl p(StblOf({Table("stsc", {1, 1, 1, 1}), Table("stco", {3, 1, 2, 3}), Table("stss", {3, 0, 2, 99})}));
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.list()[0].flags, 0);
  EXPECT_EQ(p.list()[1].flags, 1);
  EXPECT_EQ(p.list()[2].flags, 0);
  EXPECT_TRUE(log.Has("2 sync samples outside"));
}

TEST(StblBoxRead, SampleNumberOfChunkRuns) {
  cstsc sc;
  LogCapture log;
  EXPECT_EQ(sc.GetSampleNumber(10), 0u);
  EXPECT_TRUE(log.Has("!_items"));
  sc._items = {{1, 3, 1}, {4, 0, 1}, {6, 2, 1}};
  EXPECT_EQ(sc.GetSampleNumber(10), 3u * 3 + 2u * 5);  // an entry of 0 samples adds nothing
  EXPECT_EQ(sc.GetSampleNumber(4), 9u);                // the last run starts behind the chunks
  sc._items = {{1, 0xffffffffu, 1}};
  EXPECT_EQ(sc.GetSampleNumber(0x7fffffff), 0xffffffffull * 0x7fffffff);  // no 32-bit wrap
}

TEST(StblBoxRead, ExternParsingFromTheSwitchSizeOn) {
  cstbl s;
  AttrSet on("stbl_extern_parser_enable=true");
  s.Size(65535);
  EXPECT_FALSE(s.checkExternParserEnable(on));
  s.Size(65536);
  EXPECT_TRUE(s.checkExternParserEnable(on));
  AttrSet off("stbl_extern_parser_enable=false");
  EXPECT_FALSE(s.checkExternParserEnable(off));
  AttrSet small("stbl_extern_parser_enable=1;stbl_extern_parser_switch_stbl_size=0x100");
  s.Size(0x100);
  EXPECT_TRUE(s.checkExternParserEnable(small));
  s.Size(0xff);
  EXPECT_FALSE(s.checkExternParserEnable(small));
}

// ---------------------------------------------------------------- forged and damaged tables

TEST(StblBoxRead, ForgedCountsAllocateOnlyWhatTheBoxHolds) {
  struct Case {
    const char* fcc;
    Bytes body;  // behind version and flags
    std::function<size_t(IBox*)> items;
  };
  auto count = [](unsigned entryBytes) {
    Bytes b;
    Be32(b, 0xffffffffu);
    Append(b, Fill(3 * entryBytes + entryBytes / 2, 0x01));  // three entries and a torn one
    return b;
  };
  Bytes stsz;
  Be32(stsz, 0);
  Append(stsz, count(4));
  const std::vector<Case> cases = {
      {"stts", count(8), [](IBox* b) { return dynamic_cast<cstts*>(b)->_items.capacity(); }},
      {"ctts", count(8), [](IBox*) { return size_t(3); }},
      {"stsc", count(12), [](IBox* b) { return dynamic_cast<cstsc*>(b)->_items.capacity(); }},
      {"stsz", stsz, [](IBox* b) { return dynamic_cast<cstsz*>(b)->_items.capacity(); }},
      {"stco", count(4), [](IBox* b) { return dynamic_cast<cstco*>(b)->_items.capacity(); }},
      {"co64", count(8), [](IBox* b) { return dynamic_cast<cco64*>(b)->_items.capacity(); }},
      {"stss", count(4), [](IBox* b) { return dynamic_cast<cstss*>(b)->_items.capacity(); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.fcc);
    LogCapture log;
    const Bytes box = TableBytes(c.fcc, c.body);
    IOBuffer io;
    Load(io, Cat({box, Box("free")}));
    croot root;
    AttrSet ap;
    EXPECT_TRUE(root.Parse(io, ap, true));
    auto* table = dynamic_cast<IMoovList*>(root.Child());
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->Num(), 3u);
    EXPECT_EQ(c.items(table), 3u);
    EXPECT_TRUE(log.Has("_num 4294967295 > 3"));
    ASSERT_NE(table->Next(), nullptr);  // the next box is found where it is
    EXPECT_STREQ(table->Next()->FCCString(), "free");
  }
}

TEST(StblBoxRead, ForgedSampleCountIsCutToWhatTheTablesDescribe) {
  LogCapture log;
  // 2 chunks of 0xffffffff samples, but sizes for four.
  ParsedStbl sized(StblOf({Table("stsc", {1, 1, 0xffffffffu, 1}), Table("stsz", {0, 4, 1, 2, 3, 4}),
                           Table("stco", {2, 0x100, 0x200})}));
  ASSERT_TRUE(sized.ok);
  EXPECT_EQ(sized.list().size(), 4u);
  EXPECT_TRUE(log.Has("what the tables describe"));
  EXPECT_EQ(sized.list()[1].offset, 0x101u);  // spread within the first chunk

  // A uniform size says nothing of the count: the samples must at least fit in the file.
  ParsedStbl uniform(StblOf({Table("stsc", {1, 1, 0xffffffffu, 1}), Table("stsz", {1, 0xffffffffu}),
                             Table("stco", {1, 0x100})}));
  ASSERT_TRUE(uniform.ok);
  EXPECT_LE(uniform.list().size(), static_cast<size_t>(uniform.io.Size()));

  // No sizes at all: one record a chunk.
  ParsedStbl bare(StblOf({Table("stsc", {1, 1, 0xffffffffu, 1}), Table("stco", {1, 0x100})}));
  ASSERT_TRUE(bare.ok);
  EXPECT_EQ(bare.list().size(), 1u);
}

TEST(StblBoxRead, TruncatedTablesReadAsZeroAndNeverPastTheirEnd) {
  // Each table's size covers only its header and half of its count: nothing is read from the next box.
  for (const char* fcc : {"stts", "ctts", "stsc", "stsz", "stco", "co64", "stss", "sdtp"}) {
    SCOPED_TRACE(fcc);
    LogCapture log;
    IOBuffer io;
    Load(io, Cat({Header(14, fcc), {0, 0, 0, 0, 0, 0}, Table("stss", {1, 1})}));
    croot root;
    AttrSet ap;
    EXPECT_TRUE(root.Parse(io, ap, true));
    auto* table = dynamic_cast<IMoovList*>(root.Child());
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->Num(), 0u);
    ASSERT_NE(table->Next(), nullptr);
    EXPECT_EQ(dynamic_cast<IMoovList*>(table->Next())->Num(), 1u);
  }
}

TEST(StblBoxRead, BytesBehindTheEntriesAreNoChildBoxes) {
  // What follows the entries inside a table (here shaped like a box) is passed over.
  const Bytes inner = Box("free", Fill(4));
  for (const char* fcc : {"stts", "ctts", "stsc", "stsz", "stco", "co64", "stss", "sdtp"}) {
    SCOPED_TRACE(fcc);
    IOBuffer io;
    // Right behind what the table reads: the count (and for "stsz" the size); "sdtp" reads nothing.
    const std::string code = fcc;
    const Bytes head(code == "sdtp" ? 0 : code == "stsz" ? 12 : 8, 0);
    Load(io, Cat({Box(fcc, Cat({head, inner})), Table("stss", {1, 1})}));
    croot root;
    AttrSet ap;
    EXPECT_TRUE(root.Parse(io, ap, true));
    ASSERT_NE(root.Child(), nullptr);
    EXPECT_EQ(root.Child()->Child(), nullptr);
    ASSERT_NE(root.Child()->Next(), nullptr);
    EXPECT_STREQ(root.Child()->Next()->FCCString(), "stss");
  }
}
