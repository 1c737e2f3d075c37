// File streams, drive-letter paths, the File handle operations and the cluster size.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>

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

std::vector<unsigned char> readBack(IO& io) {
  std::vector<unsigned char> v(static_cast<size_t>(io.Size()));
  EXPECT_TRUE(io.Seek(0, kiv::Position::front));
  EXPECT_EQ(io.Read(v.data(), static_cast<long long>(v.size())), static_cast<long long>(v.size()));
  return v;
}

// Maps a drive letter for the life of a test.
struct DriveScope {
  DriveScope(char letter, const std::string& dir) : _letter(letter) { DriveMap(letter, dir.c_str()); }
  ~DriveScope() { DriveMap(_letter, nullptr); }
  char _letter;
};

}  // namespace

TEST(IOFile, WriteModeCreatesTruncatesAndReadsBack) {
  TempDir dir;
  const std::string path = dir.file("a.bin");
  iotest::writeAll(path, iotest::pattern(500));
  auto io = open(path, "wb");
  ASSERT_TRUE(io);
  EXPECT_EQ(io->Size(), 0) << "wb truncates";
  const auto data = iotest::pattern(300, 7);
  EXPECT_EQ(io->Write(data.data(), 300), 300);
  EXPECT_EQ(io->Position(), 300);
  EXPECT_EQ(io->Size(), 300);
  EXPECT_EQ(readBack(*io), data);
  ASSERT_TRUE(io->Close());
  EXPECT_EQ(iotest::readAll(path), data);
  EXPECT_STREQ(io->URL(), path.c_str());
}

TEST(IOFile, ReadModeRejectsWritesAndMissingFilesAreLogged) {
  TempDir dir;
  const std::string path = dir.file("r.bin");
  {
    iotest::LogCatcher log;
    EXPECT_FALSE(open(path, "rb"));
    EXPECT_TRUE(log.has("!open"));
    EXPECT_TRUE(log.has(path));
    EXPECT_TRUE(log.has(std::strerror(ENOENT)));
    EXPECT_TRUE(log.has("|E|"));
  }
  const auto data = iotest::pattern(100);
  iotest::writeAll(path, data);
  auto io = open("file://" + path, "rb");
  ASSERT_TRUE(io);
  EXPECT_EQ(io->Size(), 100);
  unsigned char b[10];
  EXPECT_EQ(io->Write(b, 10), -1);
  EXPECT_TRUE(io->Seek(-10, kiv::Position::back));
  EXPECT_EQ(io->Read(b, 20), 10);
  EXPECT_EQ(0, std::memcmp(b, data.data() + 90, 10));
  EXPECT_EQ(io->Read(b, 10), 0) << "end of file";
  EXPECT_FALSE(io->Seek(-1, kiv::Position::front));
  EXPECT_EQ(io->Position(), 100);
}

TEST(IOFile, ReadWriteModesKeepContentAndRwbcCreates) {
  TempDir dir;
  const std::string path = dir.file("rw.bin");
  EXPECT_FALSE(open(path, "rwb")) << "rwb needs an existing file";
  {
    auto io = open(path, "rwbc");
    ASSERT_TRUE(io) << "rwbc creates";
    EXPECT_EQ(io->Write("abcdef", 6), 6);
  }
  {
    auto io = open(path, "rwbc");
    ASSERT_TRUE(io);
    EXPECT_EQ(io->Size(), 6) << "rwbc keeps what is there";
    ASSERT_TRUE(io->Seek(2, kiv::Position::front));
    EXPECT_EQ(io->Write("XY", 2), 2);
    char b[3] = {};
    EXPECT_EQ(io->Read(b, 2), 2) << "a read right after a write";
    EXPECT_EQ(std::string(b, 2), "ef");
    EXPECT_EQ(io->Write("Z", 1), 1) << "a write right after a read at the end";
  }
  {
    auto io = open(path, "rwb");
    ASSERT_TRUE(io);
    EXPECT_EQ(readBack(*io), std::vector<unsigned char>({'a', 'b', 'X', 'Y', 'e', 'f', 'Z'}));
  }
}

TEST(IOFile, AppendModeWritesAtTheEnd) {
  TempDir dir;
  const std::string path = dir.file("ap.bin");
  iotest::writeAll(path, {1, 2, 3});
  auto io = open(path, "ab");
  ASSERT_TRUE(io);
  EXPECT_EQ(io->Position(), 3);
  ASSERT_TRUE(io->Seek(0, kiv::Position::front));
  const unsigned char more[] = {4, 5};
  EXPECT_EQ(io->Write(more, 2), 2);
  EXPECT_EQ(io->Position(), 5);
  EXPECT_EQ(io->Size(), 5);
  io->Close();
  EXPECT_EQ(iotest::readAll(path), std::vector<unsigned char>({1, 2, 3, 4, 5}));
  auto created = open(dir.file("new.bin"), "ab");
  EXPECT_TRUE(created) << "ab creates a missing file";
}

TEST(IOFile, RemoveDeletesTheFileAndSizeIsZero) {
  TempDir dir;
  const std::string path = dir.file("empty.mov");
  auto io = open(path, "wb");
  ASSERT_TRUE(io);
  EXPECT_EQ(io->Write("ftyp", 4), 4);
  EXPECT_TRUE(io->Remove(0));
  EXPECT_FALSE(iotest::exists(path));
  EXPECT_EQ(io->Size(), 0);
  EXPECT_TRUE(io->Close()) << "closing after a remove is harmless";
}

TEST(IOFile, DirectoriesBadModesAndSchemesAreRefused) {
  TempDir dir;
  iotest::LogCatcher log;
  EXPECT_FALSE(open(dir.path(), "rb"));
  EXPECT_FALSE(open(dir.file("x"), "w"));
  EXPECT_TRUE(log.has("!mode"));
  EXPECT_FALSE(open("http://host/x.mp4", "rb"));
  EXPECT_EQ(IO::New(nullptr, "rb"), nullptr);
}

TEST(IOFile, MemoryUrlGivesAMemoryStream) {
  auto io = open("mem://", "wb");
  ASSERT_TRUE(io);
  ASSERT_NE(dynamic_cast<IOBuffer*>(io.get()), nullptr);
  EXPECT_EQ(io->Write("abc", 3), 3);
  EXPECT_EQ(io->Size(), 3);
}

// Random writes, reads and seeks against a memory stream: catches a C stream left in the wrong
// direction or a position that drifts.
TEST(IOFile, RandomOperationsMatchAMemoryStream) {
  TempDir dir;
  auto io = open(dir.file("rand.bin"), "wb");
  ASSERT_TRUE(io);
  IOBuffer ref;
  std::mt19937 rng(42);
  std::vector<unsigned char> a(3000), b(3000);
  for (int step = 0; step < 3000; ++step) {
    const int op = static_cast<int>(rng() % 4);
    const long long n = rng() % 700;
    if (op == 0) {
      const auto data = iotest::pattern(static_cast<size_t>(n), static_cast<unsigned>(step));
      ASSERT_EQ(io->Write(data.data(), n), ref.Write(data.data(), n)) << step;
    } else if (op == 1) {
      const long long ra = io->Read(a.data(), n), rb = ref.Read(b.data(), n);
      ASSERT_EQ(ra, rb) << step;
      ASSERT_EQ(0, std::memcmp(a.data(), b.data(), static_cast<size_t>(ra))) << step;
    } else if (op == 2) {
      const long long to = static_cast<long long>(rng() % static_cast<unsigned>(ref.Size() + 50));
      ASSERT_EQ(io->Seek(to, kiv::Position::front), ref.Seek(to, kiv::Position::front));
    } else {
      const auto data = iotest::pattern(4, static_cast<unsigned>(step));
      const long long at = static_cast<long long>(rng() % static_cast<unsigned>(ref.Size() + 1));
      ASSERT_EQ(io->Write(data.data(), 4, at, kiv::Position::front), 4);
      ref.Write(data.data(), 4, at, kiv::Position::front);
    }
    ASSERT_EQ(io->Position(), ref.Position()) << step;
    ASSERT_EQ(io->Size(), ref.Size()) << step;
  }
  io->Close();
  EXPECT_EQ(iotest::readAll(dir.file("rand.bin")), ref.Bytes());
}

TEST(IOIntWriter, PositionedWritesReturnToTheOldPosition) {
  TempDir dir;
  auto file = open(dir.file("box.bin"), "wb");
  ASSERT_TRUE(file);
  IOBuffer mem;
  for (IO* io : {file.get(), static_cast<IO*>(&mem)}) {
    IOIntWriter w(*io);
    w.Write32be(0);
    w.Write32(0x7461646d);  // "mdat" in file order
    w.Write64be(0x0102030405060708ULL);
    ASSERT_EQ(io->Position(), 16);
    EXPECT_TRUE(w.Write32be(0xAABBCCDD, 0, kiv::Position::front));
    EXPECT_EQ(io->Position(), 16);
    EXPECT_TRUE(w.Write64be(0x1122334455667788ULL, -8, kiv::Position::back));
    EXPECT_EQ(io->Position(), 16);
    EXPECT_EQ(io->Write("zz", 2, 4, kiv::Position::front), 2);
    EXPECT_EQ(io->Position(), 16);
    const auto v = readBack(*io);
    const std::vector<unsigned char> want = {0xAA, 0xBB, 0xCC, 0xDD, 'z',  'z',  'a',  't',
                                             0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
    EXPECT_EQ(v, want);
  }
}

TEST(IODrive, DrivePathsLandInTheMappedDirectory) {
  TempDir dir;
  DriveScope d('d', dir.path());
  EXPECT_EQ(ResolvePath("d:/stts.vide.0x1234"), dir.file("stts.vide.0x1234"));
  EXPECT_EQ(ResolvePath("D:/x"), dir.file("x")) << "drive letters ignore case";
  EXPECT_EQ(ResolvePath("file://d:/y"), dir.file("y"));
  {
    auto io = open("d:/track.0x55.quorel", "wb");
    ASSERT_TRUE(io);
    EXPECT_EQ(io->Write("q", 1), 1);
  }
  EXPECT_TRUE(iotest::exists(dir.file("track.0x55.quorel")));
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

TEST(IODrive, OtherFormsAreLeftAlone) {
  EXPECT_EQ(ResolvePath("/abs/d:/x"), "/abs/d:/x");
  EXPECT_EQ(ResolvePath("d:x"), "d:x");
  EXPECT_EQ(ResolvePath("ab:/x"), "ab:/x");
  EXPECT_EQ(ResolvePath("1:/x"), "1:/x");
  EXPECT_EQ(ResolvePath("rel/x"), "rel/x");
  EXPECT_FALSE(DriveMap('1', "/tmp"));
}

TEST(IODrive, UrlPathStripsTheFileScheme) {
  EXPECT_EQ(IUrl::Path("file:///data/a.mp4"), "/data/a.mp4");
  EXPECT_EQ(IUrl::Path("/data/a.mp4"), "/data/a.mp4");
  EXPECT_EQ(IUrl::Path("d:/a"), "d:/a");
  EXPECT_EQ(IUrl::Path(""), "");
}

TEST(IOFileHandle, SpillFileRoundTrip) {
  TempDir dir;
  DriveScope d('s', dir.path());
  EXPECT_EQ(File::Open("s:/none/deeper.quorel", "rwbc"), nullptr) << "missing directory";
  File* h = File::Open("s:/v.0x1.quorel", "rwbc");
  ASSERT_NE(h, nullptr);
  const auto a = iotest::pattern(24 * 4095, 3), b = iotest::pattern(24 * 10, 4);
  EXPECT_EQ(File::Write(h, a.data(), static_cast<long long>(a.size())), static_cast<long long>(a.size()));
  EXPECT_EQ(File::Write(h, b.data(), static_cast<long long>(b.size())), static_cast<long long>(b.size()));
  EXPECT_TRUE(File::Flush(h));
  EXPECT_TRUE(File::Seek(h, 0, kiv::Position::front));
  const long long size = File::Size(h);
  EXPECT_EQ(size, static_cast<long long>(a.size() + b.size()));
  std::vector<unsigned char> back(static_cast<size_t>(size));
  EXPECT_EQ(File::Read(h, back.data(), size), size);
  EXPECT_TRUE(std::equal(a.begin(), a.end(), back.begin()));
  EXPECT_TRUE(std::equal(b.begin(), b.end(), back.begin() + static_cast<long>(a.size())));
  EXPECT_EQ(File::Position(h), size);
  EXPECT_TRUE(File::Close(h));
  EXPECT_TRUE(File::Delete("s:/v.0x1.quorel"));
  EXPECT_TRUE(dir.entries().empty());
}

TEST(IOClusterSize, IsAPowerOfTwo) {
  TempDir dir;
  DriveScope d('c', dir.path());
  auto isPow2 = [](unsigned v) { return v != 0 && (v & (v - 1)) == 0; };
  const unsigned here = GetClusterSize(dir.path().c_str());
  EXPECT_TRUE(isPow2(here)) << here;
  EXPECT_GE(here, 512u);
  EXPECT_EQ(GetClusterSize(dir.file("not-made-yet").c_str()), here) << "asks the directory";
  EXPECT_EQ(GetClusterSize("c:/stco.vide.0x1"), here);
  EXPECT_EQ(GetClusterSize(("file://" + dir.path()).c_str()), here);
  EXPECT_EQ(GetClusterSize("mem://"), 4096u);
  EXPECT_EQ(GetClusterSize(nullptr), 4096u);
  EXPECT_EQ(GetClusterSize(""), 4096u);
  EXPECT_TRUE(isPow2(GetClusterSize("relative/not/there")));
}
