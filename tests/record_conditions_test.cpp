// Hostile conditions for record: outputs that are inputs, full disks, bad temporary directories,
// signals. What the user is told, the exit status, and what is left on disk.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "tests/ToolRun.h"

namespace {

const std::string kSamples = std::string(BOXWEAVE_SOURCE_DIR) + "/samples";

// A scratch directory of the test, removed with it.
struct Scratch {
  std::string dir = boxtest::ProcessScratch() + "/" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
  Scratch() { Shell("rm -rf " + dir + " && mkdir -p " + dir); }
  ~Scratch() { Shell("rm -rf " + dir); }
};

TEST(RecordConditions, OutputThatIsAnInputIsRefused) {
  Scratch s;
  const std::string v = s.dir + "/v.h264", a = s.dir + "/a.aac";
  ASSERT_TRUE(Shell("cp " + kSamples + "/sample.h264 " + v + " && cp " + kSamples + "/sample.aac " + a));
  ASSERT_TRUE(Shell("ln -s " + v + " " + s.dir + "/link.mov && ln " + a + " " + s.dir + "/hard.mp4"));
  const std::string before = ReadWhole(v) + ReadWhole(a);
  const std::string cases[] = {
      "-o " + v + " --format mov --video " + v,
      "-o " + s.dir + "/./../" + s.dir.substr(s.dir.rfind('/') + 1) + "/v.h264 --format mp4 --video " + v,
      "-o " + s.dir + "/link.mov --video " + v,
      "-o " + s.dir + "/hard.mp4 --video " + v + " --audio " + a,
  };
  for (const std::string& c : cases) {
    const ToolResult r = RunTool("record " + c);
    EXPECT_EQ(r.status, 2) << c << "\n" << r.err;
    EXPECT_NE(r.err.find("is the input"), std::string::npos) << c << "\n" << r.err;
  }
  EXPECT_TRUE(ReadWhole(v) + ReadWhole(a) == before) << "an input was overwritten";
}

// 140 s of 64x64 video at 30 fps: more pictures than a sample list holds before it spills.
const std::string& LongVideo() {
  static const std::string path = [] {
    const std::string p = boxtest::ProcessScratch() + "/long.h264";
    Shell("ffmpeg -y -v error -f lavfi -i testsrc=size=64x64:rate=30:duration=140 -c:v libx264 -preset ultrafast "
          "-g 30 " + p);
    return p;
  }();
  return path;
}

// A small file system of its own where the test may mount one.
struct SmallDisk {
  std::string dir;
  bool mounted = false;
  SmallDisk(const std::string& at, const char* size) : dir(at) {
    mounted = Shell("mkdir -p " + dir + " && mount -t tmpfs -o size=" + size + " tmpfs " + dir);
  }
  ~SmallDisk() {
    if (mounted) Shell("umount " + dir);
  }
};

size_t Lines(const std::string& text, const std::string& word) {
  size_t n = 0;
  for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++n;
  return n;
}

// A failed write of the movie ends the recording: told once, status 1, nothing unplayable left.
TEST(RecordConditions, FailedWritesOfTheMovieEndTheRecording) {
  Scratch s;
  SmallDisk disk(s.dir + "/disk", "64k");
  const std::string av = " --video " + kSamples + "/sample.h264 --audio " + kSamples + "/sample.aac";
  const struct {
    std::string args, out, says, wrap;
    bool needsMount;
  } cases[] = {
      {"-o /dev/full --format mov" + av, "/dev/full", "No space left on device", "", false},
      {"-o /dev/full --format mp4 --cache-block 4096 --cache-blocks 2" + av, "/dev/full", "No space left on device", "",
       false},
      // The file size limit of the process: writes past it fail with EFBIG (SIGXFSZ ignored).
      {"-o " + s.dir + "/limit.mov" + av, s.dir + "/limit.mov", "File too large", "trap '' XFSZ; prlimit --fsize=100000 ",
       false},
      {"-o " + disk.dir + "/x.mov" + av, disk.dir + "/x.mov", "No space left on device", "", true},
  };
  for (const auto& c : cases) {
    if (c.needsMount && !disk.mounted) continue;
    const ToolResult r = RunTool("record " + c.args, c.wrap);
    EXPECT_EQ(r.status, 1) << c.args << "\n" << r.err;
    EXPECT_NE(r.err.find("boxweave: writing " + c.out + " failed: " + c.says), std::string::npos) << c.args << "\n" << r.err;
    EXPECT_LE(Lines(r.err, "|E|"), 1u) << c.args << "\n" << r.err;
    if (c.out != "/dev/full") { EXPECT_FALSE(Shell("test -e " + c.out)) << c.args; }
  }
  EXPECT_TRUE(Shell("test -c /dev/full"));
}

// Temporary files: a directory that cannot take them is refused up front; one that fails while the
// recording runs ends it like a failed write of the movie.
TEST(RecordConditions, TemporaryFilesThatCannotBeWrittenFailTheRecording) {
  Scratch s;
  SmallDisk disk(s.dir + "/disk", "64k");
  ASSERT_TRUE(Shell("touch " + s.dir + "/file && mkdir " + s.dir + "/full"));
  if (disk.mounted) Shell("dd if=/dev/zero of=" + disk.dir + "/fill bs=4k count=100");
  ASSERT_FALSE(LongVideo().empty());
  const std::string out = s.dir + "/x.mov", v = " --video " + kSamples + "/sample.h264";
  const struct {
    std::string tmp, args, says;
    bool needsMount;
  } cases[] = {
      {s.dir + "/missing", v + " --spill", "cannot write temporary files in " + s.dir + "/missing: No such file", false},
      {s.dir + "/file", v + " --table-files", "cannot write temporary files in " + s.dir + "/file: Not a directory", false},
      {s.dir + "/missing", v, "cannot write temporary files in", false},
      {disk.dir, v + " --spill", "cannot write temporary files in " + disk.dir + ": No space left on device", true},
      // Room for the check, none for the spill of 4095 records.
      {s.dir + "/spill", " --video " + LongVideo() + " --spill",
       "writing temporary files in " + s.dir + "/spill failed: No space left on device", true},
  };
  SmallDisk spill(s.dir + "/spill", "32k");
  for (const auto& c : cases) {
    if (c.needsMount && !(disk.mounted && spill.mounted)) continue;
    const ToolResult r = RunTool("record -o " + out + c.args + " --tmp " + c.tmp);
    EXPECT_EQ(r.status, 1) << c.args << "\n" << r.err;
    EXPECT_NE(r.err.find("boxweave: " + c.says), std::string::npos) << c.tmp << c.args << "\n" << r.err;
    EXPECT_LE(Lines(r.err, "|E|"), 1u) << c.args << "\n" << r.err;
    EXPECT_FALSE(Shell("test -e " + out)) << c.args;
  }
}

// SIGINT and SIGTERM end a recording between two packets: the movie is closed and plays. The child's
// standard output is a pipe of one page that the test stops reading, so the child is still recording
// when the signal comes.
TEST(RecordConditions, SignalsCloseTheMovie) {
  Scratch s;
  ASSERT_FALSE(LongVideo().empty());
  ASSERT_TRUE(Shell("mkdir " + s.dir + "/tmp"));
  for (int sig : {SIGINT, SIGTERM}) {
    SCOPED_TRACE(sig);
    const std::string out = s.dir + "/sig" + std::to_string(sig) + ".mp4";
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ::fcntl(fds[1], F_SETPIPE_SZ, 4096);
    const std::string bin = std::string(BOXWEAVE_BUILD_DIR) + "/boxweave";
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      ::dup2(fds[1], 1);
      ::close(fds[0]);
      ::execl(bin.c_str(), bin.c_str(), "--log-level", "E", "record", "-o", out.c_str(), "--video", LongVideo().c_str(), "--spill", "--tmp",
              (s.dir + "/tmp").c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::close(fds[1]);
    std::string text;
    char buf[4096];
    while (text.find("currentDuration") == std::string::npos) {
      const ssize_t n = ::read(fds[0], buf, 64);
      if (n <= 0) break;
      text.append(buf, static_cast<size_t>(n));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the pipe fills; the child waits on it
    ::kill(pid, sig);
    for (ssize_t n; (n = ::read(fds[0], buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
    ::close(fds[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 128 + sig) << status;
    EXPECT_NE(text.find("fileClose"), std::string::npos);
    const auto probe = Probe(out);
    ASSERT_TRUE(probe.count("video")) << out;
    const long long frames = Count(probe.at("video"), "nb_read_frames");
    EXPECT_GT(frames, 30);
    EXPECT_LT(frames, 4200);  // stopped, not finished
    EXPECT_EQ(Capture("ls -A " + s.dir + "/tmp"), "");
  }
}

}  // namespace
