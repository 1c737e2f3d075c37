// Small inline helpers shared by the host and its plug-ins.
#pragma once

#include <cstdint>

namespace kiv {

// FNV-1a over a text, A to Z folded to lower case.
inline uint32_t Hash(uint32_t basis, const char* text) {
  uint32_t h = basis;
  if (!text) return h;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
    unsigned char c = *p;
    if (c >= 'A' && c <= 'Z') c = static_cast<unsigned char>(c - 'A' + 'a');
    h = (h ^ c) * 16777619u;
  }
  return h;
}

// Packs characters i .. i+n-1 of a text, first character in the lowest byte, stopping at the end.
inline bool Convert32(uint32_t& value, const char* text, int i = 0, int n = 4) {
  value = 0;
  if (!text) return false;
  for (int k = 0; k < n && k < 4 && text[i + k]; ++k)
    value |= static_cast<uint32_t>(static_cast<unsigned char>(text[i + k])) << (8 * k);
  return true;
}

inline bool Convert64(uint64_t& value, const char* text, int i = 0, int n = 8) {
  value = 0;
  if (!text) return false;
  for (int k = 0; k < n && k < 8 && text[i + k]; ++k)
    value |= static_cast<uint64_t>(static_cast<unsigned char>(text[i + k])) << (8 * k);
  return true;
}

inline uint32_t Swap32(uint32_t v) {
  return (v >> 24) | ((v >> 8) & 0xff00u) | ((v << 8) & 0xff0000u) | (v << 24);
}

inline uint64_t Read64BE(const unsigned char* p) {
  uint64_t v = 0;
  for (int k = 0; k < 8; ++k) v = (v << 8) | p[k];
  return v;
}

inline uint32_t Read32BE(const unsigned char* p) {
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

constexpr uint32_t kHashBasis = 0x811c9dc5u;

}  // namespace kiv
