// Ctrl-C during play: the run stops between packets, what came is written and told, and the exit
// status is the signal's.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <string>
#include <thread>

#include "tests/GeneratedMedia.h"
#include "tests/ToolRun.h"

namespace {

TEST(PlaySignal, SigintStopsTheRunWithItsOutputsWritten) {
  std::string why;
  const std::string dir = generated::ScratchDir("bw_sig", why);
  if (dir.empty()) GTEST_SKIP() << why;
  const std::string samples = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/";
  const std::string movie = dir + "/s.mp4", video = dir + "/v.h264", out = dir + "/out", err = dir + "/err";
  ASSERT_EQ(RunTool("record -o " + movie + " --video " + samples + "sample.h264 --audio " + samples + "sample.aac").status,
            0);
  // --live plays the 4 s recording on the clock; the signal comes once the first packets are written,
  // however slow the machine.
  const std::string exe = std::string(BOXWEAVE_BUILD_DIR) + "/boxweave";
  const pid_t pid = fork();
  if (pid == 0) {
    const int o = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), e = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) _exit(127);
    execl(exe.c_str(), exe.c_str(), "play", movie.c_str(), "--live", "--packets", "--video-out", video.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  ASSERT_GT(pid, 0);
  int status = 0;
  bool ended = false;
  for (struct stat st {}; ::stat(video.c_str(), &st) != 0 || st.st_size < 4096;) {
    if ((ended = waitpid(pid, &status, WNOHANG) == pid)) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_FALSE(ended) << "play ended before the signal: " << ReadWhole(err);
  kill(pid, SIGINT);
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  const std::string said = ReadWhole(err), listed = ReadWhole(out);
  ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 130) << said;
  const std::string said1 = "s.mp4: stopped by SIGINT after ", said2 = " packets; what came is written";
  const size_t at = said.find(said1);
  ASSERT_NE(at, std::string::npos) << said;
  const size_t count = at + said1.size();
  ASSERT_EQ(said.compare(said.find(' ', count), said2.size(), said2), 0) << said;
  const long told = std::stol(said.substr(count));
  long lines = 0, videoBytes = 0;
  std::istringstream in(listed);
  for (std::string l; std::getline(in, l);) {
    if (l.rfind("packet|", 0) != 0) continue;
    ++lines;
    const size_t size = l.find("|size=");
    if (l.find("codec_type=video") != std::string::npos && size != std::string::npos) videoBytes += std::stol(l.substr(size + 6));
  }
  EXPECT_EQ(lines, told);
  EXPECT_LT(told, 250) << "the whole file played: the signal came too late";
  EXPECT_NE(listed.find("\nvideo: h264 320x240, "), std::string::npos) << "the summary is printed";
  // The video output holds every packet that came, behind the parameter sets.
  const long written = static_cast<long>(ReadWhole(video).size());
  EXPECT_GT(written, videoBytes);
  EXPECT_LT(written, videoBytes + 100);
  Shell("rm -rf " + dir);
}

}  // namespace
