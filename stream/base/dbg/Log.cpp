#include "stream/base/dbg/Log.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <iostream>
#include <mutex>

#ifndef KIV_SOURCE_ROOT
#define KIV_SOURCE_ROOT ""
#endif

namespace kiv {
namespace dbg {
namespace {

std::atomic<int> g_level{I};
std::mutex g_mutex;

Sink& sink() {
  static Sink s;
  return s;
}

const char* colour(int level) {
  switch (level) {
    case E: return "\033[31m";
    case N: return "\033[35m";
    case I: return "\033[36m";
    default: return "\033[32m";
  }
}

char letter(int level) {
  switch (level) {
    case E: return 'E';
    case N: return 'N';
    case I: return 'I';
    default: return 'L';
  }
}

void emit(int level, const std::string& text) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (sink()) {
    sink()(level, text);
  } else {
    std::cerr << text;
    std::cerr.flush();
  }
}

// Passes whatever is written to it on as lines of one level.
class LevelBuf : public std::stringbuf {
 public:
  explicit LevelBuf(int level) : _level(level) {}
  int sync() override {
    std::string s = _pending + str();
    str(std::string());
    size_t start = 0;
    for (size_t nl; (nl = s.find('\n', start)) != std::string::npos; start = nl + 1)
      emit(_level, s.substr(start, nl - start + 1));
    _pending = s.substr(start);
    return 0;
  }

 private:
  int _level;
  std::string _pending;  // the start of a line not yet ended
};

}  // namespace

int GetRootPathOffset() {
  static const int offset = [] {
    size_t n = std::strlen(KIV_SOURCE_ROOT);
    return n == 0 ? 0 : static_cast<int>(n + 1);
  }();
  return offset;
}

void SetLevel(int level) { g_level = level; }
int GetLevel() { return g_level; }

void SetSink(Sink s) {
  std::lock_guard<std::mutex> lock(g_mutex);
  sink() = std::move(s);
}

namespace base {
std::ostream& dbgCoutGet(int level) {
  thread_local LevelBuf be(E), bn(N), bi(I), bl(L);
  thread_local std::ostream se(&be), sn(&bn), si(&bi), sl(&bl);
  switch (level) {
    case E: return se;
    case N: return sn;
    case I: return si;
    default: return sl;
  }
}
}  // namespace base

std::string FormatLine(int level, const char* file, int line, const char* func, const std::string& msg) {
  // The path is printed from the root on and without its extension.
  std::string path = file ? file : "";
  const size_t root = std::strlen(KIV_SOURCE_ROOT);
  if (root && path.compare(0, root, KIV_SOURCE_ROOT) == 0 && path.size() > root && path[root] == '/')
    path = path.substr(static_cast<size_t>(GetRootPathOffset()));
  const size_t slash = path.rfind('/');
  const size_t dot = path.rfind('.');
  if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) path.resize(dot);

  std::string out;
  out.reserve(64 + path.size() + msg.size());
  out += colour(level);
  out += "BpSC|";
  out += std::to_string(GetDbgTime());
  out += "|0|";
  out += letter(level);
  out += "|kiv: ";
  out += path;
  out += '/';
  out += std::to_string(line);
  out += '/';
  out += func ? func : "";
  out += ":\t";
  out += msg;
  out += '\n';
  out += "\033[0m";
  return out;
}

Line::Line(int level, const char* file, int line, const char* func)
    : _level(level), _file(file), _line(line), _func(func) {}

Line::~Line() { emit(_level, FormatLine(_level, _file, _line, _func, _os.str())); }

}  // namespace dbg
}  // namespace kiv

extern "C" uint64_t GetDbgTime() {
  // Milliseconds on the steady clock since the host started.
  static const auto start = std::chrono::steady_clock::now();
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
}
