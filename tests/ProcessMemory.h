// Memory of the test process, for bounds on what a hostile file may cost.
#pragma once

#include <cstdlib>
#include <fstream>
#include <string>

namespace boxtest {

// The peak ("VmHWM:") or present ("VmRSS:") resident size of this process, in MiB; ctest runs each
// test in a process of its own.
inline long RssMiB(const std::string& key = "VmHWM:") {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind(key, 0) == 0) return std::atol(line.c_str() + key.size()) / 1024;
  return 0;
}

// A memory bound in MiB; the address sanitizer holds freed blocks back for a while (256 MiB and its
// bookkeeping), so it gets that much more.
inline long Bound(long mib) {
#if defined(__SANITIZE_ADDRESS__)
  return mib + 768;
#else
  return mib;
#endif
}

}  // namespace boxtest
