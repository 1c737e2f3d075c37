#include "stream/base/io/IUrl.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

namespace kiv {
namespace base {

namespace {

const char kFileScheme[] = "file://";

std::mutex& driveMutex() {
  static std::mutex m;
  return m;
}
std::map<char, std::string>& drives() {
  static auto* m = new std::map<char, std::string>();
  return *m;
}

std::string tempDir() {
  const char* t = std::getenv("TMPDIR");
  std::string dir = t && *t ? t : "/tmp";
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

// "x:/..." with a single letter: the form the plug-in gives its temporary files.
bool isDrivePath(const std::string& p) {
  return p.size() >= 3 && std::isalpha(static_cast<unsigned char>(p[0])) && p[1] == ':' && p[2] == '/';
}

}  // namespace

std::string IUrl::Path(std::string url) {
  if (url.compare(0, sizeof(kFileScheme) - 1, kFileScheme) == 0) url.erase(0, sizeof(kFileScheme) - 1);
  return url;
}

bool IUrl::IsOtherScheme(const std::string& url) {
  if (url.compare(0, sizeof(kFileScheme) - 1, kFileScheme) == 0) return false;
  const size_t colon = url.find("://");
  if (colon == std::string::npos || colon == 0) return false;
  for (size_t i = 0; i < colon; ++i) {
    const unsigned char c = static_cast<unsigned char>(url[i]);
    if (!std::isalnum(c) && c != '+' && c != '-' && c != '.') return false;
  }
  return true;
}

bool DriveMap(char letter, const char* dir) {
  if (!std::isalpha(static_cast<unsigned char>(letter))) return false;
  const char key = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  std::lock_guard<std::mutex> lock(driveMutex());
  if (!dir || !*dir) {
    drives().erase(key);
  } else {
    std::string d = dir;
    while (d.size() > 1 && d.back() == '/') d.pop_back();
    drives()[key] = d;
  }
  return true;
}

std::string DriveDir(char letter) {
  const char key = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  {
    std::lock_guard<std::mutex> lock(driveMutex());
    auto it = drives().find(key);
    if (it != drives().end()) return it->second;
  }
  return tempDir();
}

std::string ResolvePath(const char* path) {
  if (!path) return std::string();
  std::string p = IUrl::Path(path);
  if (!isDrivePath(p)) return p;
  std::string dir = DriveDir(p[0]);
  // "x:/name" -> "<dir>/name"; the slash of the drive form joins the two.
  if (dir == "/") dir.clear();
  return dir + p.substr(2);
}

}  // namespace base
}  // namespace kiv
