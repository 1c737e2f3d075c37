// Thumbnail box: the reserved space, its split into "thum" and "free" when a JPEG lies beside the
// output, the name the JPEG is looked up by, and reading the box back.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "stream/plugin/mp4/common/ThumbBox.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"

using namespace boxtest;
using kiv::base::IOBuffer;
using namespace kiv::plugin::mov;

namespace {

constexpr size_t kReserve = 204800;

class ScratchDir {
 public:
  ScratchDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "boxweave-thumb-XXXXXX").string();
    if (::mkdtemp(tmpl.data())) _path = tmpl;
  }
  ~ScratchDir() {
    std::error_code ec;
    if (!_path.empty()) std::filesystem::remove_all(_path, ec);
  }
  const std::string& path() const { return _path; }
  // The JPEG lookup cuts at the first dot of the whole path.
  bool usable() const { return !_path.empty() && _path.find('.') == std::string::npos; }

 private:
  std::string _path;
};

Bytes Pattern(size_t n) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<unsigned char>(i * 7 + 1);
  return b;
}

void WriteFile(const std::string& path, const Bytes& b) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

// A recording's head: a box in front, then the reserve.
struct Recording {
  Recording() {
    root.Add(new cfakebox(FCC("ftyp")));
    thumb = static_cast<cthumb*>(root.Add(new cthumb()));
    root.Fill(io, true);
    before = io.Bytes();
  }
  croot root;
  cthumb* thumb = nullptr;
  IOBuffer io;
  Bytes before;
};

}  // namespace

TEST(ThumbBox, ReserveIsAZeroFilledBox) {
  cthumb t;
  EXPECT_EQ(t.ThumbDataGet(), nullptr);
  EXPECT_EQ(t.ThumbSizeGet(), 0u);
  EXPECT_EQ(t.StatisticsSize(), kReserve + 8);
  IOBuffer io;
  EXPECT_EQ(t.Fill(io, true), static_cast<long long>(kReserve + 8));
  EXPECT_EQ(io.Bytes(), Cat({Header(kReserve + 8, "thum"), Bytes(kReserve, 0)}));
}

TEST(ThumbBox, JpegBesideTheOutputSplitsTheReserve) {
  ScratchDir dir;
  if (!dir.usable()) GTEST_SKIP() << "no scratch directory without dots in its path";
  const Bytes jpeg = Pattern(1000);
  WriteFile(dir.path() + "/rec.jpg", jpeg);

  Recording r;
  std::string url = dir.path() + "/rec.mp4";
  ASSERT_TRUE(r.thumb->ThumbDataUpdate(r.io, url));
  const long long pos = r.thumb->Offset();
  EXPECT_EQ(pos, 8);
  EXPECT_EQ(r.io.Position(), pos + 8 + 1000 + 8);
  EXPECT_EQ(r.thumb->ThumbSizeGet(), 1000u);
  ASSERT_NE(r.thumb->ThumbDataGet(), nullptr);
  EXPECT_EQ(Bytes(r.thumb->ThumbDataGet(), r.thumb->ThumbDataGet() + 1000), jpeg);

  const Bytes want = Cat({Header(8, "ftyp"), Header(1008, "thum"), jpeg, Header(kReserve - 1000, "free"),
                          Bytes(kReserve - 1000 - 8, 0)});
  EXPECT_EQ(r.io.Bytes(), want);

  // Read back: the thumbnail and then a free box, the two filling the reserve.
  IOBuffer in;
  Load(in, r.io.Bytes());
  croot root;
  AttrSet ap;
  ASSERT_TRUE(root.Parse(in, ap, true));
  auto* t = dynamic_cast<cthumb*>(root.Find("thum"));
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->ThumbSizeGet(), 1000u);
  EXPECT_EQ(Bytes(t->ThumbDataGet(), t->ThumbDataGet() + 1000), jpeg);
  ASSERT_NE(t->Next(), nullptr);
  EXPECT_STREQ(t->Next()->FCCString(), "free");
  EXPECT_EQ(t->RealSize() + t->Next()->RealSize(), kReserve + 8);
}

TEST(ThumbBox, LargestJpegThatFits) {
  ScratchDir dir;
  if (!dir.usable()) GTEST_SKIP() << "no scratch directory without dots in its path";
  const size_t largest = kReserve - 16;
  {
    WriteFile(dir.path() + "/big.jpg", Pattern(largest));
    Recording r;
    std::string url = "file://" + dir.path() + "/big.mp4";
    ASSERT_TRUE(r.thumb->ThumbDataUpdate(r.io, url));
    EXPECT_EQ(r.io.Bytes().size(), r.before.size());
    const unsigned char* freeBox = r.io.Bytes().data() + 8 + 8 + largest;
    EXPECT_EQ(Bytes(freeBox, freeBox + 8), Header(16, "free"));
  }
  {
    WriteFile(dir.path() + "/big.jpg", Pattern(largest + 1));
    Recording r;
    std::string url = dir.path() + "/big.mp4";
    ASSERT_TRUE(r.thumb->ThumbDataUpdate(r.io, url));
    EXPECT_EQ(r.io.Bytes(), r.before);
    // The size is noted though the reserve stays as it was.
    EXPECT_EQ(r.thumb->ThumbSizeGet(), largest + 1);
  }
}

TEST(ThumbBox, JpegNameEndsAtTheFirstDot) {
  ScratchDir dir;
  if (!dir.usable()) GTEST_SKIP() << "no scratch directory without dots in its path";
  WriteFile(dir.path() + "/a.jpg", Pattern(10));
  {
    Recording r;
    std::string url = dir.path() + "/a.b.mp4";
    ASSERT_TRUE(r.thumb->ThumbDataUpdate(r.io, url));
    EXPECT_EQ(r.thumb->ThumbSizeGet(), 10u);
    EXPECT_NE(r.io.Bytes(), r.before);
  }
  {
    // A dot in a directory name cuts there too: "<dir>/a.d/rec.mp4" looks for "<dir>/a.jpg".
    std::filesystem::create_directory(dir.path() + "/a.d");
    WriteFile(dir.path() + "/a.d/rec.jpg", Pattern(20));
    Recording r;
    std::string url = dir.path() + "/a.d/rec.mp4";
    ASSERT_TRUE(r.thumb->ThumbDataUpdate(r.io, url));
    EXPECT_EQ(r.thumb->ThumbSizeGet(), 10u);
  }
}

TEST(ThumbBox, NoJpegLeavesTheReserve) {
  ScratchDir dir;
  if (!dir.usable()) GTEST_SKIP() << "no scratch directory without dots in its path";
  LogCapture log;  // the host's file layer reports the missing file; the box itself says nothing
  Recording r;
  std::string url = dir.path() + "/none.mp4";
  EXPECT_TRUE(r.thumb->ThumbDataUpdate(r.io, url));
  EXPECT_EQ(r.io.Bytes(), r.before);
  EXPECT_EQ(r.thumb->ThumbDataGet(), nullptr);
  std::string empty;
  EXPECT_TRUE(r.thumb->ThumbDataUpdate(r.io, empty));
  EXPECT_EQ(r.io.Bytes(), r.before);
}

TEST(ThumbBox, ReadingDamagedBoxes) {
  {
    // Bigger than the buffer: held to the buffer's size.
    LogCapture log;
    const size_t payload = kReserve + 100;
    IOBuffer in;
    Load(in, Cat({Header(static_cast<uint32_t>(payload + 8), "thum"), Pattern(payload)}));
    croot root;
    AttrSet ap;
    EXPECT_TRUE(root.Parse(in, ap, true));
    auto* t = dynamic_cast<cthumb*>(root.Child());
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->ThumbSizeGet(), kReserve);
    EXPECT_EQ(t->ThumbDataGet()[kReserve - 1], Pattern(kReserve)[kReserve - 1]);
    EXPECT_TRUE(log.Has("clamped"));
    EXPECT_EQ(in.Position(), in.Size());
  }
  {
    // Cut short: what is missing reads as zeros.
    LogCapture log;
    IOBuffer in;
    Load(in, Cat({Header(108, "thum"), Pattern(40)}));
    std::unique_ptr<IBox> box(IBox::New("thum"));
    box->Size(108);
    box->Offset(0);
    in.Seek(8, kiv::Position::front);
    AttrSet ap;
    EXPECT_FALSE(box->Parse(in, ap, true));
    auto* t = dynamic_cast<cthumb*>(box.get());
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->ThumbSizeGet(), 100u);
    EXPECT_EQ(t->ThumbDataGet()[39], Pattern(40)[39]);
    EXPECT_EQ(t->ThumbDataGet()[40], 0);
    EXPECT_TRUE(log.Has("40 of 100 bytes"));
  }
}
