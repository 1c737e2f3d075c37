// Helpers shared by the stream tests: a scratch directory and a log catcher.
#pragma once

#include <ctype.h>
#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "stream/base/dbg/Log.h"
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

// Bytes laid out by hand: hex digits, with spaces between fields for the reader.
inline std::vector<unsigned char> hex(const std::string& text) {
  std::vector<unsigned char> out;
  std::string digits;
  for (char c : text)
    if (std::isxdigit(static_cast<unsigned char>(c))) digits += c;
  for (size_t i = 0; i + 1 < digits.size(); i += 2)
    out.push_back(static_cast<unsigned char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  return out;
}

// Drives `io` and a memory stream holding the same bytes with one random sequence of reads, writes
// (when `writes`) and seeks of every kind, and compares every result, position and size: catches a
// position that drifts, a stale buffer or a stream left in the wrong direction. `each` runs after
// every step with the step number.
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
