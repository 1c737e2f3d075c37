// Thumbnail box: the reserved space, its split into "thum" and "free" when a JPEG lies beside the
// output, the name the JPEG is looked up by, and reading the box back.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "stream/plugin/mp4/common/ThumbBox.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"
#include "tests/io_test_util.h"

using namespace boxtest;
using namespace boxtest::kit;
using kiv::base::IOBuffer;
using namespace kiv::plugin::mov;

namespace {

constexpr size_t kReserve = 204800;

Bytes Pattern(size_t n) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<unsigned char>(i * 7 + 1);
  return b;
}

}  // namespace

TEST(ThumbBox, JpegBesideTheOutputSplitsTheReserve) {
  iotest::TempDir dir;
  // The JPEG lookup cuts at the first dot of the whole path.
  ASSERT_EQ(dir.path().find('.'), std::string::npos);
  const size_t largest = kReserve - 16;
  iotest::writeAll(dir.file("rec.jpg"), Pattern(1000));
  iotest::writeAll(dir.file("big.jpg"), Pattern(largest));
  iotest::writeAll(dir.file("big2.jpg"), Pattern(largest + 1));
  iotest::writeAll(dir.file("a.jpg"), Pattern(10));
  struct Case {
    std::string url;
    size_t jpeg;   // the size noted
    bool split;    // else the reserve stays as it was
  } cases[] = {
      {dir.file("rec.mp4"), 1000, true},
      {"file://" + dir.file("big.mp4"), largest, true},
      {dir.file("big2.mp4"), largest + 1, false},
      {dir.file("a.b.mp4"), 10, true},
      {dir.file("none.mp4"), 0, false},
      {"", 0, false},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.url);
    LogCapture log;  // the host's file layer reports a missing file
    croot root;
    root.Add(new cfakebox(FCC("ftyp")));
    auto* thumb = static_cast<cthumb*>(root.Add(new cthumb()));
    IOBuffer io;
    root.Fill(io, true);
    ASSERT_TRUE(thumb->ThumbDataUpdate(io, c.url));
    EXPECT_EQ(thumb->ThumbSizeGet(), c.jpeg);
    if (!c.split) {
      EXPECT_EQ(io.Bytes(), Cat({Header(8, "ftyp"), Header(kReserve + 8, "thum"), Bytes(kReserve, 0)}));
      continue;
    }
    EXPECT_EQ(io.Position(), static_cast<long long>(16 + c.jpeg + 8));
    EXPECT_EQ(io.Bytes(), Cat({Header(8, "ftyp"), Header(static_cast<uint32_t>(c.jpeg + 8), "thum"), Pattern(c.jpeg),
                               Header(static_cast<uint32_t>(kReserve - c.jpeg), "free"),
                               Bytes(kReserve - c.jpeg - 8, 0)}));
    EXPECT_EQ(Bytes(thumb->ThumbDataGet(), thumb->ThumbDataGet() + c.jpeg), Pattern(c.jpeg));
    if (c.jpeg != 1000) continue;
    // Read back: the thumbnail and then a free box, the two filling the reserve.
    Tree p(io.Bytes());
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.shape(), "ftyp thum free");
    auto* t = p.at<cthumb>(1);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(Bytes(t->ThumbDataGet(), t->ThumbDataGet() + t->ThumbSizeGet()), Pattern(1000));
    EXPECT_EQ(t->RealSize() + p.at(2)->RealSize(), kReserve + 8);
  }
}

TEST(ThumbBox, ReadingDamagedBoxes) {
  {  // bigger than the buffer: held to the buffer's size
    LogCapture log;
    Tree p(Cat({Header(static_cast<uint32_t>(kReserve + 108), "thum"), Pattern(kReserve + 100)}));
    EXPECT_TRUE(p.ok);
    auto* t = p.at<cthumb>(0);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(Bytes(t->ThumbDataGet(), t->ThumbDataGet() + t->ThumbSizeGet()), Pattern(kReserve));
    EXPECT_TRUE(log.Has("clamped"));
    EXPECT_EQ(p.io.Position(), p.io.Size());
  }
  {  // cut short: what is missing reads as zeros
    LogCapture log;
    IOBuffer in;
    AttrSet ap;
    cthumb t;
    EXPECT_FALSE(ParseAlone(t, Cat({Header(108, "thum"), Pattern(40)}), in, ap, 108));
    EXPECT_EQ(Bytes(t.ThumbDataGet(), t.ThumbDataGet() + t.ThumbSizeGet()), Cat({Pattern(40), Bytes(60, 0)}));
    EXPECT_TRUE(log.Has("40 of 100 bytes"));
  }
}
