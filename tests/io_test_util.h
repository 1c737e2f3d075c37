// Helpers shared by the stream tests: a scratch directory, file bytes and a stream checker.
#pragma once

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "stream/base/io/IO.h"
#include "stream/base/io/IUrl.h"

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
    for (const std::string& n : entries())
      if (::unlink(file(n).c_str()) != 0) ::rmdir(file(n).c_str());
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

inline bool exists(const std::string& p) { return ::access(p.c_str(), F_OK) == 0; }

inline std::vector<unsigned char> readAll(const std::string& p) {
  std::ifstream f(p, std::ios::binary);
  return std::vector<unsigned char>((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

// The bytes of a file that this process holds open but that has no name any more (a temporary
// file), found through /proc/self/fd by the path it had; empty when no such file is open.
inline std::vector<unsigned char> readUnlinked(const std::string& p) {
  std::vector<unsigned char> out;
  DIR* d = ::opendir("/proc/self/fd");
  if (!d) return out;
  const std::string wanted = p + " (deleted)";
  while (dirent* e = ::readdir(d)) {
    char target[4096];
    const std::string link = std::string("/proc/self/fd/") + e->d_name;
    const ssize_t n = ::readlink(link.c_str(), target, sizeof target - 1);
    if (n <= 0 || std::string(target, static_cast<size_t>(n)) != wanted) continue;
    const int fd = std::atoi(e->d_name);
    unsigned char buf[65536];
    for (off_t at = 0;;) {
      const ssize_t got = ::pread(fd, buf, sizeof buf, at);
      if (got <= 0) break;
      out.insert(out.end(), buf, buf + got);
      at += got;
    }
    break;
  }
  ::closedir(d);
  return out;
}

inline void writeAll(const std::string& p, const std::vector<unsigned char>& bytes) {
  std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
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

// Drives `io` and a memory stream with the same random reads, writes (when `writes`) and seeks, comparing
// every result, position and size; `each` runs after every step.
inline void MatchMemoryStream(kiv::base::IO& io, kiv::base::IOBuffer& ref, unsigned seed, int steps, long long maxLen,
                              bool writes, const std::function<void(int)>& each = nullptr) {
  std::mt19937 rng(seed);
  std::vector<unsigned char> a(static_cast<size_t>(maxLen)), b(static_cast<size_t>(maxLen));
  for (int step = 0; step < steps; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    const long long n = rng() % maxLen, size = ref.Size(), pos = ref.Position();
    const int op = static_cast<int>(rng() % 6);
    if (writes && op == 0) {
      const auto data = pattern(static_cast<size_t>(n), static_cast<unsigned>(step));
      ASSERT_EQ(io.Write(data.data(), n), ref.Write(data.data(), n));
    } else if (writes && op == 1) {
      const long long at = static_cast<long long>(rng() % static_cast<unsigned long long>(size + 1));
      const auto data = pattern(8, static_cast<unsigned>(step));
      ASSERT_EQ(io.Write(data.data(), 8, at, kiv::Position::front), 8);
      ref.Write(data.data(), 8, at, kiv::Position::front);
    } else if (op == 2) {
      const long long to = static_cast<long long>(rng() % static_cast<unsigned long long>(size + 50));
      ASSERT_EQ(io.Seek(to, kiv::Position::front), ref.Seek(to, kiv::Position::front));
    } else if (op == 3) {
      // Now and then to before byte 0.
      const long long back = -static_cast<long long>(rng() % static_cast<unsigned long long>(pos + 2));
      ASSERT_EQ(io.Seek(back, kiv::Position::current), ref.Seek(back, kiv::Position::current));
    } else if (op == 4) {
      ASSERT_EQ(io.Seek(0, kiv::Position::back), ref.Seek(0, kiv::Position::back));
    } else {
      const long long ra = io.Read(a.data(), n), rb = ref.Read(b.data(), n);
      ASSERT_EQ(ra, rb);
      ASSERT_EQ(0, std::memcmp(a.data(), b.data(), static_cast<size_t>(std::max(0LL, ra))));
    }
    ASSERT_EQ(io.Position(), ref.Position());
    ASSERT_EQ(io.Size(), ref.Size());
    if (each) each(step);
  }
}

// Maps a drive letter for the life of a test.
struct DriveScope {
  DriveScope(char letter, const std::string& dir) : _letter(letter) { kiv::base::DriveMap(letter, dir.c_str()); }
  ~DriveScope() { kiv::base::DriveMap(_letter, nullptr); }
  char _letter;
};

}  // namespace iotest
