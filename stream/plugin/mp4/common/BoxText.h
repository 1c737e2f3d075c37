// Field values as text, for the printed form of a box.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "stream/base/Convert.h"

namespace kiv {
namespace plugin {
namespace mov {

// A four-character code as its characters in file order; bytes that do not print show as '.'.
std::string FccText(uint32_t code);

// Bytes as lower-case hex, shortened to the first 16 with "..." for longer runs; null gives "".
std::string HexBytes(const unsigned char* p, size_t n);

// A number as the log's hex form: "0x" and as many digits as its type is wide.
template <class T>
std::string HexText(T v) {
  std::ostringstream os;
  os << kiv::base::Hex(v);
  return os.str();
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
