// Runs the command-line host from the build directory and collects what it printed.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

struct ToolResult {
  int status = -1;
  std::string out;
  std::string err;
};

inline std::string ReadWhole(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream s;
  s << f.rdbuf();
  return s.str();
}

inline ToolResult RunTool(const std::string& args) {
  static int n = 0;
  const std::string base = std::string(::testing::TempDir()) + "/tool" + std::to_string(::getpid()) + "_" +
                           std::to_string(n++);
  const std::string cmd = std::string(BOXWEAVE_BUILD_DIR) + "/boxweave " + args + " >" + base + ".out 2>" + base + ".err";
  ToolResult r;
  const int raw = std::system(cmd.c_str());
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + (WIFSIGNALED(raw) ? WTERMSIG(raw) : 0);
  r.out = ReadWhole(base + ".out");
  r.err = ReadWhole(base + ".err");
  std::remove((base + ".out").c_str());
  std::remove((base + ".err").c_str());
  return r;
}

// Runs a shell command quietly; true when it succeeded.
inline bool Shell(const std::string& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0; }

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
