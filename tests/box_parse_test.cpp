// Box core: reading trees from hand-laid bytes, damaged input, and the table boxes' block-wise branch.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "stream/base/reflect/IClass.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"

using namespace boxtest;
using kiv::base::IOBuffer;
using namespace kiv::plugin::mov;

namespace {

std::vector<IBox*> Children(const IBox& box) {
  std::vector<IBox*> v;
  for (IBox* c = box.Child(); c; c = c->Next()) v.push_back(c);
  return v;
}

struct RootParse {
  explicit RootParse(const Bytes& bytes, AttrSet ap = AttrSet()) : attrs(std::move(ap)) {
    Load(io, bytes);
    ok = root.Parse(io, attrs, true);
  }
  IOBuffer io;
  AttrSet attrs;
  croot root;
  bool ok = false;
};

// A leaf that reads a fixed number of payload bytes, whatever the box holds.
struct ReadingLeaf : IBox {
  explicit ReadingLeaf(long long reads) : IBox("leaf"), reads(reads) {}
  bool parse(IO& io) override {
    seen = _parse_ap;
    std::vector<unsigned char> buf(static_cast<size_t>(reads));
    io.Read(buf.data(), reads);
    return true;
  }
  AttrSet* attrs() const { return _parse_ap; }
  long long reads;
  AttrSet* seen = nullptr;
};

}  // namespace

TEST(BoxParse, TopLevelBoxesInFileOrder) {
  LogCapture log;
  RootParse p(Cat({Box("junk", Fill(12)), Box("wide"), Header64(24, "chan"), Fill(8), Box("wave", Fill(3))}));
  ASSERT_TRUE(p.ok);
  auto kids = Children(p.root);
  ASSERT_EQ(kids.size(), 4u);
  const char* codes[] = {"junk", "wide", "chan", "wave"};
  const long long offsets[] = {0, 20, 28, 52};
  const unsigned long long sizes[] = {20, 8, 24, 11};
  for (size_t i = 0; i < kids.size(); ++i) {
    EXPECT_STREQ(kids[i]->FCCString(), codes[i]);
    EXPECT_NE(dynamic_cast<cfakebox*>(kids[i]), nullptr);
    EXPECT_EQ(kids[i]->Offset(), offsets[i]);
    EXPECT_EQ(kids[i]->RealSize(), sizes[i]);
  }
  EXPECT_EQ(kids[2]->Size(), 1u);
  EXPECT_EQ(kids[2]->PayloadPostion(), 44);
  EXPECT_EQ(kids[0]->ExtendedSize(), 0u);
  EXPECT_EQ(p.root.RealSize(), 63u);
  EXPECT_EQ(p.io.Position(), 63);
  EXPECT_EQ(log.Count("unknow box:"), 4u);
}

TEST(BoxParse, ShortPayloadReadIsRealignedToTheBoxEnd) {
  LogCapture log;
  IOBuffer io;
  Load(io, Cat({Box("leaf", Fill(8)), Box("next")}));
  AttrSet ap;

  ReadingLeaf shortLeaf(2);
  shortLeaf.Size(16);
  io.Seek(8, kiv::Position::front);
  EXPECT_TRUE(shortLeaf.Parse(io, ap, true));
  EXPECT_EQ(io.Position(), 16);  // the next sibling starts here
  EXPECT_EQ(shortLeaf.Child(), nullptr);
  EXPECT_EQ(shortLeaf.seen, &ap);
  EXPECT_EQ(shortLeaf.attrs(), nullptr);

  ReadingLeaf longLeaf(12);
  longLeaf.Size(16);
  io.Seek(8, kiv::Position::front);
  EXPECT_TRUE(longLeaf.Parse(io, ap, true));
  EXPECT_EQ(io.Position(), 16);  // moved back from 20
}

TEST(BoxParse, ChildOfSizeZeroEndsTheList) {
  LogCapture log;
  RootParse p(Cat({Box("junk", Fill(4)), Header(0, "wide"), Fill(8)}));
  EXPECT_TRUE(p.ok);
  EXPECT_EQ(Children(p.root).size(), 1u);
  EXPECT_EQ(p.io.Position(), 28);
  EXPECT_TRUE(log.Has("0x000000000000000c"));
  EXPECT_TRUE(log.Has("root:size==0"));
}

TEST(BoxParse, ChildBiggerThanWhatIsLeftKeepsEarlierChildren) {
  LogCapture log;
  RootParse p(Cat({Header(40, "trak"), Box("junk", Fill(4)), Header(100, "skip"), Fill(12), Box("wave")}));
  EXPECT_TRUE(p.ok);
  auto top = Children(p.root);
  ASSERT_EQ(top.size(), 2u);
  auto kids = Children(*top[0]);
  ASSERT_EQ(kids.size(), 1u);
  EXPECT_STREQ(kids[0]->FCCString(), "junk");
  EXPECT_TRUE(log.Has("trak,100>20,trak"));
  // The container's sibling is read from its own start.
  EXPECT_STREQ(top[1]->FCCString(), "wave");
  EXPECT_EQ(top[1]->Offset(), 40);
}

TEST(BoxParse, FileCutShortInsideTheLastBox) {
  LogCapture log;
  // 32-bit size: the root's own loop sees the claim is too big and stops; the parse stands.
  RootParse p32(Cat({Box("junk", Fill(8)), Header(100, "chan"), Fill(6)}));
  EXPECT_TRUE(p32.ok);
  EXPECT_EQ(Children(p32.root).size(), 1u);
  EXPECT_TRUE(log.Has("root,100>14,root"));
  EXPECT_EQ(p32.io.Position(), 30);

  // 64-bit size passes the root's check, the box's own range check fails, and so does the root.
  RootParse p64(Cat({Box("junk", Fill(8)), Header64(100, "chan"), Fill(6)}));
  EXPECT_FALSE(p64.ok);
  auto kids = Children(p64.root);
  ASSERT_EQ(kids.size(), 2u);
  EXPECT_STREQ(kids[1]->FCCString(), "chan");
  EXPECT_EQ(kids[1]->Offset(), 16);
  EXPECT_TRUE(log.Has("pos1>io.Size()"));
  EXPECT_TRUE(log.Has("!bx->Parse(io, ap, recurse),chan"));
}

TEST(BoxParse, DamagedHeadersEndTheListQuietlyForTheParent) {
  LogCapture log;
  RootParse zeroCode(Cat({Box("junk"), Header(16, "\0\0\0\0"), Fill(8)}));
  EXPECT_TRUE(zeroCode.ok);
  EXPECT_EQ(Children(zeroCode.root).size(), 1u);
  EXPECT_TRUE(log.Has("root:fcc==0"));
  EXPECT_EQ(zeroCode.io.Position(), 24);

  RootParse zeroLarge(Cat({Header64(0, "junk"), Fill(8)}));
  EXPECT_TRUE(zeroLarge.ok);
  EXPECT_EQ(Children(zeroLarge.root).size(), 0u);
  EXPECT_TRUE(log.Has("root err size."));

  // Fewer than four bytes of a header at the end read as a size of 0.
  RootParse tail(Cat({Box("junk"), Bytes{0, 0}}));
  EXPECT_TRUE(tail.ok);
  EXPECT_EQ(Children(tail.root).size(), 1u);
  EXPECT_EQ(tail.io.Position(), 10);
}

TEST(BoxParse, FakeBoxClaimingMoreThanTheFileStopsAtItsEnd) {
  LogCapture log;
  IOBuffer io;
  Load(io, Cat({Header(100, "junk"), Fill(22)}));
  cfakebox fake(FCC("junk"));
  fake.Size(100);
  io.Seek(8, kiv::Position::front);
  AttrSet ap;
  EXPECT_FALSE(fake.Parse(io, ap, true));
  EXPECT_EQ(io.Position(), 30);
  EXPECT_EQ(fake.Offset(), 0);
  EXPECT_TRUE(log.Has("pos1>io.Size()"));

  // A 64-bit header is skipped by its own length.
  IOBuffer io64;
  Load(io64, Cat({Fill(5), Header64(30, "junk"), Fill(14), Box("wide")}));
  cfakebox large(FCC("junk"));
  large.Size(1);
  large.ExtendedSize(30);
  io64.Seek(5 + 16, kiv::Position::front);
  EXPECT_TRUE(large.parse(io64));
  EXPECT_EQ(large.Offset(), 5);
  EXPECT_EQ(io64.Position(), 35);
}

TEST(BoxParse, FullBoxAndCountAreReadBeforeChildren) {
  LogCapture log;
  IOBuffer io;
  Load(io, Cat({Header(16 + 8, "dref"), Bytes{1, 0, 0, 2}, Bytes{0, 0, 0, 5}, Box("wide")}));
  IMoovList list("dref");
  list.Size(24);
  io.Seek(8, kiv::Position::front);
  AttrSet ap;
  EXPECT_TRUE(list.Parse(io, ap, true));
  EXPECT_EQ(list.Version(), 1);
  EXPECT_EQ(list.Flags(), 2u);
  EXPECT_EQ(list.Num(), 6u);  // the file's count, raised by each child added
  EXPECT_EQ(Children(list).size(), 1u);
}

TEST(BoxParse, GarbageNeverCrashesOrHangs) {
  LogCapture log(kiv::dbg::E);
  uint32_t seed = 12345;
  auto rnd = [&seed]() {
    seed = seed * 1103515245u + 12345u;
    return seed >> 8;
  };
  const char* codes[] = {"junk", "root", "wide", "\0\0\0\0", "url ", "stts"};
  const uint64_t sizes[] = {0, 1, 2, 7, 8, 9, 16, 40, 0xffffffffu};
  for (int round = 0; round < 300; ++round) {
    Bytes b;
    const int headers = static_cast<int>(rnd() % 12);
    for (int h = 0; h < headers; ++h) {
      const uint64_t size = rnd() % 4 == 0 ? rnd() % 64 : sizes[rnd() % 9];
      if (size == 1) {
        const uint64_t ext = rnd() % 3 == 0 ? ~0ull - rnd() : rnd() % 80;
        Append(b, Header64(ext, codes[rnd() % 6]));
      } else {
        Append(b, Header(static_cast<uint32_t>(size), codes[rnd() % 6]));
      }
      Append(b, Fill(rnd() % 20, static_cast<unsigned char>(rnd())));
    }
    RootParse p(b);
    for (IBox* c : Children(p.root)) {
      EXPECT_GE(c->Offset(), 0);
      EXPECT_LT(c->Offset(), static_cast<long long>(b.size()));
    }
    if (p.ok) {
      EXPECT_EQ(p.io.Position(), static_cast<long long>(b.size()));
    }
  }
}

TEST(BoxParse, DeepNestingStopsDescendingButKeepsTheFile) {
  LogCapture log;
  // 200 containers one inside the other, then a sibling at the top level.
  const int levels = 200;
  Bytes b;
  for (int i = 0; i < levels; ++i) Append(b, Header(static_cast<uint32_t>(8 * (levels - i)), "trak"));
  Append(b, Box("wide"));
  RootParse p(b);
  ASSERT_TRUE(p.ok);
  int depth = 0;
  for (IBox* c = p.root.Child(); c; c = c->Child()) ++depth;
  EXPECT_EQ(depth, 64);
  EXPECT_TRUE(log.Has("trak:depth>64"));
  auto top = Children(p.root);
  ASSERT_EQ(top.size(), 2u);
  EXPECT_STREQ(top[1]->FCCString(), "wide");
  EXPECT_EQ(p.io.Position(), static_cast<long long>(b.size()));
}

// ---------------------------------------------------------------- table boxes read block-wise

namespace {

struct TestTableReader : kiv::base::Object {
  bool Init(AttrSet& ap) {
    ++inits;
    stbl = ap.GetOrDef("stbl", "");
    io = ap.GetOrDef("io", "");
    return succeed;
  }
  static inline int inits = 0;
  static inline bool succeed = true;
  static inline std::string stbl, io;
};

void RegisterTestTableReader() {
  static const bool once = [] {
    using namespace kiv::base;
    ReflectClass<TestTableReader>("mov-stbl-reader-boxtest-abcd",
                                  {TProperty<TestTableReader>::Setter("init", &TestTableReader::Init)}, true,
                                  "boxweave", 0x20002, "Quorelvan", "tests");
    return true;
  }();
  (void)once;
}

std::string PointerText(const void* p) {
  std::string s;
  kiv::base::ConvertToImpl(p, s);
  return s;
}

}  // namespace

TEST(BoxStblExtern, ReaderFoundByKeywordsTakesTheTable) {
  RegisterTestTableReader();
  TestTableReader::succeed = true;
  LogCapture log;
  IOBuffer io;
  Load(io, Cat({Box("abcd", Fill(20)), Box("wide")}));
  AttrSet ap("stbl_extern_parser_en=true;stbl_extern_parser_keywords=boxtest");
  cfakebox table(FCC("abcd"));
  table.Size(28);
  io.Seek(8, kiv::Position::front);
  const int before = TestTableReader::inits;
  ASSERT_TRUE(table.Parse(io, ap, true));
  EXPECT_EQ(TestTableReader::inits, before + 1);
  EXPECT_NE(dynamic_cast<TestTableReader*>(table.Parser()), nullptr);
  EXPECT_EQ(TestTableReader::stbl, PointerText(static_cast<IStbl*>(&table)));
  EXPECT_EQ(TestTableReader::io, PointerText(static_cast<IO*>(&io)));
  EXPECT_EQ(ap.Get("stbl"), nullptr);
  EXPECT_EQ(ap.Get("io"), nullptr);
  EXPECT_EQ(io.Position(), 28);
}

TEST(BoxStblExtern, MissingReaderOrFailedInitFailsTheParse) {
  RegisterTestTableReader();
  LogCapture log;
  IOBuffer io;
  Load(io, Cat({Box("abcd", Fill(20)), Box("wide")}));

  // Inside a tree: the first table gets its reader, the next code has none.
  AttrSet ap("stbl_extern_parser_en=1;stbl_extern_parser_keywords=boxtest");
  TestTableReader::succeed = true;
  croot root;
  EXPECT_FALSE(root.Parse(io, ap, true));
  EXPECT_EQ(Children(root).size(), 2u);
  EXPECT_TRUE(log.Has("|E|kiv: stream/plugin/mp4/common/Stbl/"));
  EXPECT_TRUE(log.Has("!_parser"));
  EXPECT_TRUE(log.Has("!bx->Parse(io, ap, recurse),wide"));

  TestTableReader::succeed = false;
  cfakebox table(FCC("abcd"));
  table.Size(28);
  io.Seek(8, kiv::Position::front);
  EXPECT_FALSE(table.Parse(io, ap, true));
  EXPECT_TRUE(log.Has("!_parser->Set(\"init\",(AttrSet&)ap)"));
  EXPECT_EQ(ap.Get("stbl"), nullptr);
  TestTableReader::succeed = true;

  // Switched off, a table box is read like any other box.
  AttrSet off("stbl_extern_parser_en=false");
  cfakebox plain(FCC("abcd"));
  plain.Size(28);
  io.Seek(8, kiv::Position::front);
  EXPECT_TRUE(plain.Parse(io, off, true));
  EXPECT_EQ(plain.Parser(), nullptr);
  EXPECT_EQ(io.Position(), 28);
}
