// What the verbs share: file names and kinds, the messages of elements, the log's lines.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "stream/base/Message.h"
#include "stream/base/dbg/Log.h"
#include "tools/Cli.h"

namespace boxweave {

std::string Extension(const std::string& path) {
  const size_t slash = path.rfind('/');
  const size_t dot = path.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  std::string e = path.substr(dot + 1);
  for (char& c : e) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  return e;
}

bool SameFile(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

std::string NotAFile(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::string("cannot open: ") + std::strerror(errno);
  if (S_ISREG(st.st_mode)) return "";
  const char* kind = S_ISDIR(st.st_mode)    ? "a directory"
                     : S_ISCHR(st.st_mode)  ? "a character device"
                     : S_ISBLK(st.st_mode)  ? "a block device"
                     : S_ISFIFO(st.st_mode) ? "a FIFO"
                     : S_ISSOCK(st.st_mode) ? "a socket"
                                            : "no regular file";
  return std::string("not a movie file: ") + kind + ", not a regular file";
}

void RemoveOutput(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::unlink(path.c_str()) == 0)
    std::fprintf(stderr, "boxweave: removed %s\n", path.c_str());
}

namespace {
// Elements of one graph send from their own threads and from the host's: one line at a time.
std::mutex printing;
}  // namespace

void PrintLine(const std::string& line) {
  std::lock_guard<std::mutex> lock(printing);
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

void PrintMessage(kiv::base::Message& msg) {
  std::string line = msg.Name();
  for (size_t i = 0; i < msg.Attrs.Size(); ++i) line += std::string(" ") + msg.Attrs.Key(i) + "=" + msg.Attrs.Value(i);
  PrintLine(line);
}

QuietLog::QuietLog() {
  kiv::dbg::SetSink([](int, const std::string&) {});
}
QuietLog::~QuietLog() { kiv::dbg::SetSink(nullptr); }

std::string LogText(const std::string& line) {
  const size_t tab = line.find(":\t");
  const std::string text = tab == std::string::npos ? line : line.substr(tab + 2);
  return text.substr(0, text.find('\n'));  // the colour reset follows the line
}

}  // namespace boxweave
