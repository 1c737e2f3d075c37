// The bounded reader of box fields.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stream/plugin/mp4/common/BoxReader.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"

using namespace boxtest;
using namespace boxtest::kit;
using kiv::base::IOBuffer;
using namespace kiv::plugin::mov;

namespace {

// A box placed at 0 in a stream of `bytes`, its size as the header claims, positioned behind the header.
struct Placed {
  explicit Placed(const Bytes& bytes, uint32_t size) : box(FCC("test")) {
    Load(io, bytes);
    box.Size(size);
    io.Seek(8, kiv::Position::front);
  }
  IOBuffer io;
  cfakebox box;
};

}  // namespace

TEST(BoxReader, FieldsStopAtTheBoxEndOrTheStreamEnd) {
  struct Case {
    const char* name;
    Bytes bytes;
    uint32_t size;
    uint32_t a, b;   // a U32 and a U16 read in turn
    uint8_t c;       // then a U8
    bool finished;
  };
  const Case cases[] = {
      {"all inside", H("00000010 'test' 01020304 0506 07 08"), 16, 0x01020304u, 0x0506, 7, true},
      // The neighbour's bytes behind the box are never taken for fields.
      {"box ends inside the U16", H("0000000d 'test' 01020304 05 ffff ff"), 13, 0x01020304u, 0, 0, false},
      // Once a field is short, a smaller one that would fit reads as zero too.
      {"short stays short", H("0000000e 'test' 010203 07 08 09"), 11, 0, 0, 0, false},
      {"stream ends before the box", H("00000040 'test' 01020304 05"), 64, 0x01020304u, 0, 0, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Placed p(c.bytes, c.size);
    LogCapture log(kiv::dbg::E);
    BoxReader r(p.io, p.box);
    EXPECT_EQ(r.U32(), c.a);
    EXPECT_EQ(r.U16(), c.b);
    EXPECT_EQ(r.U8(), c.c);
    EXPECT_EQ(r.Finish(), c.finished);
    EXPECT_EQ(log.Has("test: payload short of its fields at"), !c.finished);
    EXPECT_EQ(r.Short(), !c.finished);
    if (!c.finished) {
      EXPECT_EQ(r.Left(), 0);
    }
  }
}

TEST(BoxReader, NamedFieldLogsOnlyItsFirstMiss) {
  Placed p(H("0000000e 'test' 01020304 0506 ffff"), 14);
  LogCapture log(kiv::dbg::E);
  BoxReader r(p.io, p.box);
  EXPECT_EQ(r.U32("first"), 0x01020304u);
  EXPECT_EQ(r.U32("second"), 0u);
  EXPECT_EQ(r.U64("third"), 0u);
  EXPECT_TRUE(log.Has("test: second missing, 2 bytes left"));
  EXPECT_FALSE(log.Has("third"));
}

// Skipping a field whole, or up to n bytes; both stop at the box's end, only the first marks it short.
TEST(BoxReader, SkipsAFieldWholeOrUpToTheEnd) {
  const struct {
    long long skip;
    bool upTo;
    long long posAfter;
    bool shortAfter;
  } cases[] = {{4, false, 12, false}, {6, false, 14, false}, {7, false, 8, true}, {100, true, 14, false}};
  for (const auto& c : cases) {
    Placed p(H("0000000e 'test' 010203040506 ffffffff"), 14);  // 6 payload bytes, then a neighbour
    BoxReader r(p.io, p.box);
    c.upTo ? r.SkipUpTo(c.skip) : r.Skip(c.skip);
    EXPECT_EQ(p.io.Position(), c.posAfter) << c.skip;
    EXPECT_EQ(r.Short(), c.shortAfter) << c.skip;
  }
}

TEST(BoxReader, AsAStreamItEndsAtTheBoxAndReportsWhatWasMissing) {
  Placed p(H("0000000e 'test' 010203040506 ffffffff"), 14);
  LogCapture log(kiv::dbg::E);
  {
    BoxReader in(p.io, p.box);
    EXPECT_EQ(in.Size(), 14);
    EXPECT_FALSE(in.Seek(15, kiv::Position::front));
    EXPECT_TRUE(in.Seek(-2, kiv::Position::back));
    EXPECT_TRUE(in.Seek(10, kiv::Position::front));
    unsigned char buf[8];
    EXPECT_EQ(in.Read(buf, sizeof buf), 4);
    EXPECT_EQ(Bytes(buf, buf + 4), H("03040506"));
    EXPECT_EQ(in.Missing(), 4);
    EXPECT_EQ(in.Write(buf, 1), -1);
    // Bytes that do not come read as zero.
    in.Seek(12, kiv::Position::front);
    unsigned char more[4] = {9, 9, 9, 9};
    EXPECT_EQ(in.Bytes(more, sizeof more), 2);
    EXPECT_EQ(Bytes(more, more + 4), H("05060000"));
    EXPECT_FALSE(log.Has("missing"));
  }
  EXPECT_TRUE(log.Has("test: 6 bytes missing behind the box's end"));
}

TEST(BoxReader, LeavesTheRestForChildrenOnlyWhenAsked) {
  for (auto rest : {BoxReader::Rest::keep, BoxReader::Rest::skip}) {
    Placed p(H("00000010 'test' 01020304 05060708 ffff"), 16);
    {
      BoxReader r(p.io, p.box, rest);
      r.U32();
    }
    EXPECT_EQ(p.io.Position(), rest == BoxReader::Rest::skip ? 16 : 12);
  }
}
