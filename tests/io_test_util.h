// Helpers shared by the stream tests: a scratch directory and a log catcher.
#pragma once

#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "stream/base/dbg/Log.h"

namespace iotest {

// A fresh directory under /tmp, removed with everything in it (one level deep) at the end.
class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/boxweave-io-XXXXXX";
    const char* d = ::mkdtemp(tmpl);
    _path = d ? d : "";
  }
  ~TempDir() {
    if (DIR* dir = ::opendir(_path.c_str())) {
      while (dirent* e = ::readdir(dir)) {
        const std::string n = e->d_name;
        if (n == "." || n == "..") continue;
        const std::string p = _path + "/" + n;
        if (::unlink(p.c_str()) != 0) ::rmdir(p.c_str());
      }
      ::closedir(dir);
    }
    ::rmdir(_path.c_str());
  }
  const std::string& path() const { return _path; }
  std::string file(const std::string& name) const { return _path + "/" + name; }
  std::vector<std::string> entries() const {
    std::vector<std::string> out;
    if (DIR* dir = ::opendir(_path.c_str())) {
      while (dirent* e = ::readdir(dir)) {
        const std::string n = e->d_name;
        if (n != "." && n != "..") out.push_back(n);
      }
      ::closedir(dir);
    }
    return out;
  }

 private:
  std::string _path;
};

inline bool exists(const std::string& p) {
  struct stat st;
  return ::stat(p.c_str(), &st) == 0;
}

inline std::vector<unsigned char> readAll(const std::string& p) {
  std::ifstream f(p, std::ios::binary);
  return std::vector<unsigned char>((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

inline void writeAll(const std::string& p, const std::vector<unsigned char>& bytes) {
  std::ofstream f(p, std::ios::binary | std::ios::trunc);
  f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline std::vector<unsigned char> pattern(size_t n, unsigned seed = 1) {
  std::vector<unsigned char> v(n);
  unsigned x = seed * 2654435761u + 1;
  for (size_t i = 0; i < n; ++i) {
    x = x * 1103515245u + 12345u;
    v[i] = static_cast<unsigned char>(x >> 16);
  }
  return v;
}

// Collects the log lines written while it lives.
class LogCatcher {
 public:
  LogCatcher() {
    kiv::dbg::SetSink([this](int, const std::string& line) {
      std::lock_guard<std::mutex> lock(_m);
      _lines.push_back(line);
    });
  }
  ~LogCatcher() { kiv::dbg::SetSink(nullptr); }
  bool has(const std::string& text) const {
    std::lock_guard<std::mutex> lock(_m);
    for (const auto& l : _lines)
      if (l.find(text) != std::string::npos) return true;
    return false;
  }
  std::string all() const {
    std::lock_guard<std::mutex> lock(_m);
    std::string s;
    for (const auto& l : _lines) s += l;
    return s;
  }

 private:
  mutable std::mutex _m;
  std::vector<std::string> _lines;
};

}  // namespace iotest
