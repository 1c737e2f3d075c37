// Logging of the host: one line a message, in the form
//   colour "BpSC|" time "|0|" level "|kiv: " path "/" line "/" function ":\t" message "\n" reset
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>

namespace kiv {
namespace dbg {

enum Level : int { E = 8, N = 10, I = 11, L = 12 };

// Number of leading characters of a compiled source path that belong to the build root.
int GetRootPathOffset();

// Lines at or below this level are written (E=8 ... L=12). Default: I.
void SetLevel(int level);
int GetLevel();
inline bool Enabled(int level) { return level <= GetLevel(); }

// Where whole lines go; null restores stderr.
using Sink = std::function<void(int level, const std::string& line)>;
void SetSink(Sink sink);

namespace base {
// The stream for a level; writes to it are passed on line by line.
std::ostream& dbgCoutGet(int level);
}  // namespace base

// Gathers one message and emits the whole line when destroyed.
class Line {
 public:
  Line(int level, const char* file, int line, const char* func);
  ~Line();
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;
  template <class T>
  Line& operator<<(const T& v) {
    _os << v;
    return *this;
  }
  Line& operator<<(std::ostream& (*m)(std::ostream&)) {
    m(_os);
    return *this;
  }
  std::ostream& stream() { return _os; }

 private:
  int _level;
  const char* _file;
  int _line;
  const char* _func;
  std::ostringstream _os;
};

// Formats a finished line; exposed so the form is checked in one place.
std::string FormatLine(int level, const char* file, int line, const char* func, const std::string& msg);

}  // namespace dbg
}  // namespace kiv

extern "C" uint64_t GetDbgTime();

namespace kiv {
namespace dbg {
// Lets a whole "<<" chain vanish when its level is off: `&` binds looser than `<<`.
struct Voidify {
  void operator&(const Line&) {}
};
}  // namespace dbg
}  // namespace kiv

#define KIV_LOG(lv)                   \
  !::kiv::dbg::Enabled(lv) ? (void)0 \
                           : ::kiv::dbg::Voidify() & ::kiv::dbg::Line(lv, __FILE__, __LINE__, __func__)

#define LOGE KIV_LOG(::kiv::dbg::E)
#define LOGN KIV_LOG(::kiv::dbg::N)
#define LOGI KIV_LOG(::kiv::dbg::I)
#define LOGL KIV_LOG(::kiv::dbg::L)
