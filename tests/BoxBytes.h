// Byte layouts written by hand for the box tests, and a memory stream over them.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "stream/base/io/IO.h"

namespace boxtest {

using Bytes = std::vector<unsigned char>;

inline void Be32(Bytes& b, uint32_t v) {
  for (int i = 3; i >= 0; --i) b.push_back(static_cast<unsigned char>(v >> (8 * i)));
}
inline void Be64(Bytes& b, uint64_t v) {
  for (int i = 7; i >= 0; --i) b.push_back(static_cast<unsigned char>(v >> (8 * i)));
}
inline void Code(Bytes& b, const char* fcc) { b.insert(b.end(), fcc, fcc + 4); }
inline void Append(Bytes& b, const Bytes& more) { b.insert(b.end(), more.begin(), more.end()); }
inline Bytes Fill(size_t n, unsigned char v = 0xee) { return Bytes(n, v); }

// A box with a 32-bit size that covers the payload.
inline Bytes Box(const char* fcc, const Bytes& payload = {}) {
  Bytes b;
  Be32(b, static_cast<uint32_t>(8 + payload.size()));
  Code(b, fcc);
  Append(b, payload);
  return b;
}

// A header that claims a size of its own.
inline Bytes Header(uint32_t size, const char* fcc) {
  Bytes b;
  Be32(b, size);
  Code(b, fcc);
  return b;
}

inline Bytes Header64(uint64_t size, const char* fcc) {
  Bytes b;
  Be32(b, 1);
  Code(b, fcc);
  Be64(b, size);
  return b;
}

inline Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes b;
  for (const auto& p : parts) Append(b, p);
  return b;
}

// A memory stream holding the bytes, positioned at 0.
inline void Load(kiv::base::IOBuffer& io, const Bytes& b) {
  io.Write(b.data(), static_cast<long long>(b.size()));
  io.Seek(0, kiv::Position::front);
}

}  // namespace boxtest
