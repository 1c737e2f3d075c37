// File streams, drive-letter paths and the cluster size.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "LogCapture.h"
#include "io_test_util.h"
#include "stream/base/io/File.h"
#include "stream/base/io/IO.h"
#include "stream/base/io/IOFile.h"
#include "stream/base/io/IUrl.h"

using namespace kiv::base;
using iotest::TempDir;

namespace {

std::unique_ptr<IO> open(const std::string& url, const char* mode) {
  return std::unique_ptr<IO>(IO::New(url.c_str(), mode, nullptr));
}

std::vector<unsigned char> bytes(const char* s) { return std::vector<unsigned char>(s, s + std::strlen(s)); }

}  // namespace

TEST(IOFile, ModesCreateTruncateKeepOrAppend) {
  // Each mode opens a file that holds "abc" or none, seeks to 0 and writes "XY".
  struct Case {
    const char* mode;
    bool existing, opens;
    long long sizeAtOpen, posAtOpen, wrote, posAfter;
    const char* after;
  } cases[] = {
      {"wb", true, true, 0, 0, 2, 2, "XY"},        {"wb", false, true, 0, 0, 2, 2, "XY"},
      {"rb", true, true, 3, 0, -1, 0, "abc"},      {"rb", false, false, 0, 0, 0, 0, ""},
      {"rwb", true, true, 3, 0, 2, 2, "XYc"},      {"rwb", false, false, 0, 0, 0, 0, ""},
      {"rwbc", true, true, 3, 0, 2, 2, "XYc"},     {"rwbc", false, true, 0, 0, 2, 2, "XY"},
      {"ab", true, true, 3, 3, 2, 5, "abcXY"},     {"ab", false, true, 0, 0, 2, 2, "XY"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.mode) + (c.existing ? " on a file" : " on nothing"));
    TempDir dir;
    const std::string path = dir.file("f.bin");
    if (c.existing) iotest::writeAll(path, bytes("abc"));
    LogCapture quiet;
    auto io = open(path, c.mode);
    ASSERT_EQ(static_cast<bool>(io), c.opens);
    if (!io) {
      EXPECT_EQ(iotest::exists(path), c.existing);
      continue;
    }
    EXPECT_STREQ(io->URL(), path.c_str());
    EXPECT_EQ(io->Size(), c.sizeAtOpen);
    EXPECT_EQ(io->Position(), c.posAtOpen);
    ASSERT_TRUE(io->Seek(0, kiv::Position::front));
    EXPECT_EQ(io->Write("XY", 2), c.wrote);
    EXPECT_EQ(io->Position(), c.posAfter);
    ASSERT_TRUE(io->Close());
    EXPECT_EQ(iotest::readAll(path), bytes(c.after));
  }
}

TEST(IOFile, NewDispatchesByUrlRefusesWhatItCannotOpenAndRemoves) {
  TempDir dir;
  iotest::writeAll(dir.file("r.bin"), {1, 2, 3});
  auto byUrl = open("file://" + dir.file("r.bin"), "rb");
  ASSERT_TRUE(byUrl);
  EXPECT_EQ(byUrl->Size(), 3);
  LogCapture log;
  EXPECT_FALSE(open(dir.file("none"), "rb"));
  // A missing file is logged with the reason.
  const std::string parts[] = {"|E|", ":\t!open ", dir.file("none"), std::strerror(ENOENT)};
  for (const std::string& part : parts) EXPECT_TRUE(log.Has(part)) << part;
  EXPECT_FALSE(open(dir.path(), "rb")) << "a directory";
  EXPECT_FALSE(open(dir.file("x"), "w"));
  EXPECT_TRUE(log.Has("!mode"));
  EXPECT_FALSE(open("http://host/x.mp4", "rb"));
  EXPECT_EQ(IO::New(nullptr, "rb"), nullptr);
  auto mem = open("mem://", "wb");
  ASSERT_NE(dynamic_cast<IOBuffer*>(mem.get()), nullptr);
  EXPECT_EQ(mem->Write("abc", 3), 3);

  // A recording that comes to nothing goes away, and its stream still closes.
  auto io = open(dir.file("empty.mov"), "wb");
  ASSERT_TRUE(io);
  EXPECT_EQ(io->Write("ftyp", 4), 4);
  EXPECT_TRUE(io->Remove(0));
  EXPECT_FALSE(iotest::exists(dir.file("empty.mov")));
  EXPECT_EQ(io->Size(), 0);
  EXPECT_TRUE(io->Close());
}

TEST(IOFile, RandomOperationsMatchAMemoryStream) {
  TempDir dir;
  auto io = open(dir.file("rand.bin"), "wb");
  ASSERT_TRUE(io);
  IOBuffer ref;
  iotest::MatchMemoryStream(*io, ref, 42, 3000, 700, true);
  ASSERT_FALSE(HasFatalFailure());
  io->Close();
  EXPECT_EQ(iotest::readAll(dir.file("rand.bin")), ref.Bytes());
}

TEST(IODrive, PathsResolveThroughTheMappedDirectory) {
  TempDir dir;
  iotest::DriveScope d('d', dir.path());
  const std::pair<const char*, std::string> cases[] = {
      {"d:/stts.vide.0x1234", dir.file("stts.vide.0x1234")}, {"D:/x", dir.file("x")}, {"file://d:/y", dir.file("y")},
      {"/abs/d:/x", "/abs/d:/x"}, {"d:x", "d:x"}, {"ab:/x", "ab:/x"}, {"1:/x", "1:/x"}, {"rel/x", "rel/x"}};
  for (const auto& c : cases) EXPECT_EQ(ResolvePath(c.first), c.second) << c.first;
  EXPECT_FALSE(DriveMap('1', "/tmp"));
  for (const char* in : {"file:///data/a.mp4", "/data/a.mp4"}) EXPECT_EQ(IUrl::Path(in), "/data/a.mp4");
  EXPECT_EQ(IUrl::Path("d:/a"), "d:/a");
  ASSERT_TRUE(open("d:/track.0x55.quorel", "wb"));
  EXPECT_FALSE(iotest::exists("d:")) << "no folder named after the drive";
  EXPECT_EQ(dir.entries(), std::vector<std::string>({"track.0x55.quorel"}));
}

TEST(IODrive, UnmappedDrivesUseTheTemporaryDirectory) {
  TempDir dir;
  const char* old = std::getenv("TMPDIR");
  const std::string keep = old ? old : "";
  ::setenv("TMPDIR", (dir.path() + "/").c_str(), 1);
  DriveMap('e', nullptr);
  EXPECT_EQ(ResolvePath("e:/n.1"), dir.file("n.1"));
  void* h = File::Open("e:/n.1", "rwbc");
  ASSERT_NE(h, nullptr);
  File::Close(h);
  EXPECT_TRUE(iotest::exists(dir.file("n.1")));
  EXPECT_TRUE(File::Delete("e:/n.1"));
  EXPECT_FALSE(iotest::exists(dir.file("n.1")));
  ::unsetenv("TMPDIR");
  EXPECT_EQ(ResolvePath("e:/n.1"), "/tmp/n.1");
  if (old) ::setenv("TMPDIR", keep.c_str(), 1);
}

TEST(IOClusterSize, IsThatOfTheDirectoryOrAPowerOfTwoDefault) {
  TempDir dir;
  iotest::DriveScope d('c', dir.path());
  const unsigned here = GetClusterSize(dir.path().c_str());
  EXPECT_TRUE(here >= 512 && (here & (here - 1)) == 0) << here;
  for (const std::string& p : {dir.file("not-made-yet"), std::string("c:/stco.vide.0x1"), "file://" + dir.path()})
    EXPECT_EQ(GetClusterSize(p.c_str()), here) << p;
  for (const char* p : {"mem://", "", static_cast<const char*>(nullptr)}) EXPECT_EQ(GetClusterSize(p), 4096u);
}
