// Box core: reading trees from hand-laid bytes, damaged input, and the table boxes' block-wise branch.
#include <gtest/gtest.h>

#include <string>

#include "stream/base/reflect/IClass.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"

using namespace boxtest;
using namespace boxtest::kit;
using kiv::base::IOBuffer;
using namespace kiv::plugin::mov;

namespace {

// A leaf that reads a fixed number of payload bytes, whatever the box holds.
struct ReadingLeaf : IBox {
  explicit ReadingLeaf(long long reads) : IBox("leaf"), reads(reads) {}
  bool parse(IO& io) override {
    seen = _parse_ap;
    Bytes buf(static_cast<size_t>(reads));
    io.Read(buf.data(), reads);
    return true;
  }
  long long reads;
  AttrSet* seen = nullptr;
};

}  // namespace

TEST(BoxParse, TopLevelBoxesInFileOrder) {
  LogCapture log;
  Tree p(Cat({Box("junk", Fill(12)), Box("wide"), Header64(24, "chan"), Fill(8), Box("wave", Fill(3))}));
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.shape(), "junk wide chan wave");
  const long long offsets[] = {0, 20, 28, 52};
  const unsigned long long sizes[] = {20, 8, 24, 11};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_NE(p.at<cfakebox>(i), nullptr);
    EXPECT_EQ(p.at(i)->Offset(), offsets[i]);
    EXPECT_EQ(p.at(i)->RealSize(), sizes[i]);
  }
  EXPECT_EQ(p.at(2)->Size(), 1u);
  EXPECT_EQ(p.at(2)->PayloadPostion(), 44);
  EXPECT_EQ(p.at(0)->ExtendedSize(), 0u);
  EXPECT_EQ(p.root.RealSize(), 63u);
  EXPECT_EQ(p.io.Position(), 63);
  EXPECT_EQ(log.Count("unknow box:"), 4u);
}

TEST(BoxParse, PayloadReadOfTheWrongLengthIsRealignedToTheBoxEnd) {
  IOBuffer io;
  Load(io, Cat({Box("leaf", Fill(8)), Box("next")}));
  AttrSet ap;
  for (long long reads : {2, 12}) {
    ReadingLeaf leaf(reads);
    leaf.Size(16); io.Seek(8, kiv::Position::front);
    EXPECT_TRUE(leaf.Parse(io, ap, true));
    EXPECT_EQ(io.Position(), 16) << reads;  // the next sibling starts here
    EXPECT_EQ(leaf.seen, &ap);
  }
}

TEST(BoxParse, DamagedHeadersKeepWhatWasReadBefore) {
  struct Case {
    const char* name;
    Bytes bytes;
    bool ok;
    const char* shape;
    long long end;  // where the stream is left; -1: anywhere
    const char* log;
  } cases[] = {
      {"child of size zero", Cat({Box("junk", Fill(4)), Header(0, "wide"), Fill(8)}), true, "junk", 28, "root:size==0"},
      {"nested child bigger than what is left; the sibling is read from the container's end",
       Cat({Header(40, "trak"), Box("junk", Fill(4)), Header(100, "skip"), Fill(12), Box("wave")}), true,
       "trak(junk) wave", 48, "trak,100>20,trak"},
      {"32-bit size past the end of the file", Cat({Box("junk", Fill(8)), Header(100, "chan"), Fill(6)}), true,
       "junk", 30, "root,100>14,root"},
      {"64-bit size past the end fails in the box itself", Cat({Box("junk", Fill(8)), Header64(100, "chan"), Fill(6)}),
       false, "junk chan", -1, "!bx->Parse(io, ap, recurse),chan"},
      {"code zero", Cat({Box("junk"), Header(16, "\0\0\0\0"), Fill(8)}), true, "junk", 24,
       "root:fcc==0"},
      {"64-bit size zero", Cat({Header64(0, "junk"), Fill(8)}), true, "", 24, "root err size."},
      {"less than a header at the end", Cat({Box("junk"), Bytes{0, 0}}), true, "junk", 10, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    Tree p(c.bytes);
    EXPECT_EQ(p.ok, c.ok);
    EXPECT_EQ(p.shape(), c.shape);
    if (c.end >= 0) {
      EXPECT_EQ(p.io.Position(), c.end);
    }
    EXPECT_TRUE(log.Has(c.log));
  }
}

TEST(BoxParse, FullBoxAndCountAreReadBeforeChildren) {
  LogCapture log;
  IOBuffer io;
  AttrSet ap;
  IMoovList list("dref");
  EXPECT_TRUE(ParseAlone(list, B("dref", "01000002 00000005 00000008 'wide'"), io, ap));
  EXPECT_EQ(list.Version(), 1);
  EXPECT_EQ(list.Flags(), 2u);
  EXPECT_EQ(list.Num(), 6u);  // the file's count, raised by each child added
  EXPECT_EQ(Shape(list), "wide");
}

TEST(BoxParse, DeepNestingStopsDescendingButKeepsTheFile) {
  LogCapture log;
  // 200 containers one inside the other, then a sibling at the top level.
  const int levels = 200;
  Bytes b;
  for (int i = 0; i < levels; ++i) Append(b, Header(static_cast<uint32_t>(8 * (levels - i)), "trak"));
  Append(b, Box("wide"));
  Tree p(b);
  ASSERT_TRUE(p.ok);
  int depth = 0;
  for (IBox* c = p.root.Child(); c; c = c->Child()) ++depth;
  EXPECT_EQ(depth, 64);
  EXPECT_TRUE(log.Has("trak:depth>64"));
  ASSERT_NE(p.at(1), nullptr);
  EXPECT_STREQ(p.at(1)->FCCString(), "wide");
  EXPECT_EQ(p.io.Position(), static_cast<long long>(b.size()));
}

namespace {

struct TestTableReader : kiv::base::Object {
  bool Init(AttrSet& ap) {
    ++inits;
    stbl = ap.GetOrDef("stbl", "");
    io = ap.GetOrDef("io", "");
    return true;
  }
  static inline int inits = 0;
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
  LogCapture log;
  const Bytes bytes = Cat({Box("abcd", Fill(20)), Box("wide")});
  AttrSet ap("stbl_extern_parser_en=true;stbl_extern_parser_keywords=boxtest");
  IOBuffer io;
  cfakebox table(FCC("abcd"));
  const int before = TestTableReader::inits;
  ASSERT_TRUE(ParseAlone(table, bytes, io, ap, 28));
  EXPECT_EQ(TestTableReader::inits, before + 1);
  EXPECT_NE(dynamic_cast<TestTableReader*>(table.Parser()), nullptr);
  // The reader is handed the box and the stream, and the keys are gone again afterwards.
  EXPECT_EQ(TestTableReader::stbl, PointerText(static_cast<IStbl*>(&table)));
  EXPECT_EQ(TestTableReader::io, PointerText(static_cast<IO*>(&io)));
  EXPECT_EQ(ap.Get("stbl"), nullptr);
  EXPECT_EQ(ap.Get("io"), nullptr);
  EXPECT_EQ(io.Position(), 28);
  // Inside a tree: the first table gets its reader, the next code has none, and that fails the parse.
  Tree tree(bytes, ap);
  EXPECT_FALSE(tree.ok);
  EXPECT_EQ(tree.shape(), "abcd wide");
  EXPECT_TRUE(log.Has("!_parser"));
}
