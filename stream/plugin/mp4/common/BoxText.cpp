#include "stream/plugin/mp4/common/BoxText.h"

#include <algorithm>

namespace kiv {
namespace plugin {
namespace mov {

std::string FccText(uint32_t code) {
  std::string s(4, '.');
  for (int i = 0; i < 4; ++i) {
    const unsigned char c = static_cast<unsigned char>(code >> (8 * i));
    if (c >= 0x20 && c < 0x7f) s[static_cast<size_t>(i)] = static_cast<char>(c);
  }
  return s;
}

std::string HexBytes(const unsigned char* p, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string s;
  if (!p) return s;
  const size_t shown = std::min<size_t>(n, 16);
  for (size_t i = 0; i < shown; ++i) {
    s += kDigits[p[i] >> 4];
    s += kDigits[p[i] & 15];
  }
  if (shown < n) s += "...";
  return s;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
