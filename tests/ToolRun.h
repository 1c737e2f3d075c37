// Runs the command-line host from the build directory and collects what it printed; asks ffprobe.
#pragma once

#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

struct ToolResult {
  int status = -1;
  std::string out, err;
};

inline std::string ReadWhole(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream s;
  s << f.rdbuf();
  return s.str();
}

// Runs a shell command quietly; true when it succeeded.
inline bool Shell(const std::string& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0; }

namespace boxtest {

// Removes `path` (a file or a folder with all in it) when this test process ends, so that runs do not
// pile up scratch files in the temporary directory; a suite's own tear-down is not reached when a
// test is stopped part way. BOXWEAVE_KEEP_SCRATCH set in the environment keeps them for a look
// after a failure. A forked child that exits does not remove its parent's files.
inline void RemoveAtExit(const std::string& path) {
  static struct Paths {
    std::mutex m;
    std::vector<std::string> list;
    const pid_t owner = ::getpid();
    ~Paths() {
      if (::getpid() != owner || std::getenv("BOXWEAVE_KEEP_SCRATCH")) return;
      for (const std::string& p : list) Shell("rm -rf '" + p + "'");
    }
  } paths;
  std::lock_guard<std::mutex> lock(paths.m);
  paths.list.push_back(path);
}

// A folder of this process under the temporary directory, made on first use, removed at its end.
// Those of processes that were killed before they could remove theirs (or kept theirs) go when the
// next one starts, unless it keeps its own.
inline const std::string& ProcessScratch() {
  static const std::string dir = [] {
    std::string tmp = ::testing::TempDir();
    if (!tmp.empty() && tmp.back() == '/') tmp.pop_back();
    DIR* all = std::getenv("BOXWEAVE_KEEP_SCRATCH") ? nullptr : ::opendir(tmp.c_str());
    if (all) {
      while (const dirent* e = ::readdir(all)) {
        const std::string name = e->d_name;
        if (name.rfind("boxweave_test", 0) != 0 || name.size() == 13 ||
            name.find_first_not_of("0123456789", 13) != std::string::npos)
          continue;
        if (::kill(std::atoi(name.c_str() + 13), 0) != 0 && errno == ESRCH) Shell("rm -rf '" + tmp + "/" + name + "'");
      }
      ::closedir(all);
    }
    const std::string d = tmp + "/boxweave_test" + std::to_string(::getpid());
    Shell("mkdir -p " + d);
    RemoveAtExit(d);
    return d;
  }();
  return dir;
}

}  // namespace boxtest

// `wrap` goes in front of the program: a shell prefix such as "trap '' XFSZ; prlimit ... ".
inline ToolResult RunTool(const std::string& args, const std::string& wrap = "") {
  static int n = 0;
  const std::string base = boxtest::ProcessScratch() + "/tool" + std::to_string(n++);
  const int raw = std::system((wrap + std::string(BOXWEAVE_BUILD_DIR) + "/boxweave " + args + " >" + base + ".out 2>" + base +
                               ".err").c_str());
  ToolResult r{WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + (WIFSIGNALED(raw) ? WTERMSIG(raw) : 0),
               ReadWhole(base + ".out"), ReadWhole(base + ".err")};
  Shell("rm -f " + base + ".out " + base + ".err");
  return r;
}

// Runs a shell command and returns what it printed on its standard output.
inline std::string Capture(const std::string& cmd) {
  std::string out;
  if (FILE* p = popen(cmd.c_str(), "r")) {
    char buf[512];
    while (fgets(buf, sizeof buf, p)) out += buf;
    pclose(p);
  }
  return out;
}

using Fields = std::map<std::string, std::string>;

// ffprobe's view of each stream of a file, by codec type; frames and packets counted by reading.
inline std::map<std::string, Fields> Probe(const std::string& file) {
  std::istringstream out(Capture(
      "ffprobe -v error -count_frames -count_packets -show_entries stream=codec_type,width,height,profile,level,"
      "nb_read_frames,nb_read_packets,duration,sample_rate,channels,color_primaries,color_range -of default '" +
      file + "' 2>/dev/null"));
  std::map<std::string, Fields> streams;
  Fields f;
  for (std::string line; std::getline(out, line);) {
    const size_t eq = line.find('=');
    if (line == "[/STREAM]") streams[f["codec_type"]] = f;
    if (line == "[STREAM]") f.clear();
    if (eq != std::string::npos) f[line.substr(0, eq)] = line.substr(eq + 1);
  }
  return streams;
}
inline long long Count(const Fields& f, const char* key) { return f.count(key) ? std::atoll(f.at(key).c_str()) : -1; }
