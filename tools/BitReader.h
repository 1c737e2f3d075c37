// Bit-level reading of H.264 syntax: fixed-width fields and exp-Golomb codes over an RBSP.
//
// Reading past the end yields zero bits and marks the reader as overrun, so a parser can read a whole
// structure and check once at the end instead of after every field.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace boxweave {

class BitReader {
 public:
  BitReader(const uint8_t* data, size_t size) : _data(data), _bits(data ? size * 8 : 0) {}

  // n bits, 0 <= n <= 32, first bit in the highest place.
  uint32_t U(int n) {
    uint32_t v = 0;
    for (int i = 0; i < n; ++i) v = (v << 1) | bit();
    return v;
  }
  bool Flag() { return bit() != 0; }
  void Skip(size_t n) {
    if (n > _bits - _pos) {
      _pos = _bits;
      _overrun = true;
    } else {
      _pos += n;
    }
  }

  // ue(v). A code of more than 31 leading zeros does not fit 32 bits: 0, and the reader is marked bad.
  uint32_t Ue() {
    int zeros = 0;
    while (bit() == 0) {
      if (_overrun) return 0;
      if (++zeros > 31) {
        _bad = true;
        return 0;
      }
    }
    if (zeros == 0) return 0;
    return static_cast<uint32_t>((uint64_t(1) << zeros) - 1 + U(zeros));
  }
  // se(v): 1, -1, 2, -2, ... for the codes 1, 2, 3, 4, ...
  int32_t Se() {
    const uint32_t k = Ue();
    const int64_t mag = (int64_t(k) + 1) / 2;
    return static_cast<int32_t>((k & 1) ? mag : -mag);
  }

  size_t Position() const { return _pos; }
  size_t BitsLeft() const { return _bits - _pos; }
  bool Overrun() const { return _overrun; }
  // Overrun, or an exp-Golomb code too long to be a value.
  bool Failed() const { return _overrun || _bad; }

 private:
  uint32_t bit() {
    if (_pos >= _bits) {
      _overrun = true;
      return 0;
    }
    const uint32_t b = (_data[_pos >> 3] >> (7 - (_pos & 7))) & 1u;
    ++_pos;
    return b;
  }

  const uint8_t* _data;
  size_t _bits;
  size_t _pos = 0;
  bool _overrun = false;
  bool _bad = false;
};

// The RBSP of a NAL unit's bytes: every 0x03 that follows two zero bytes is an emulation prevention
// byte and is dropped. Writes at most `cap` bytes and returns how many it wrote.
inline size_t UnescapeRbsp(const uint8_t* data, size_t size, uint8_t* out, size_t cap) {
  if (!data || !out) return 0;
  size_t w = 0;
  int zeros = 0;
  for (size_t i = 0; i < size && w < cap; ++i) {
    const uint8_t b = data[i];
    if (zeros >= 2 && b == 0x03) {
      zeros = 0;
      continue;
    }
    zeros = b == 0 ? zeros + 1 : 0;
    out[w++] = b;
  }
  return w;
}

inline void UnescapeRbsp(const uint8_t* data, size_t size, std::vector<uint8_t>& out) {
  out.resize(size);
  out.resize(UnescapeRbsp(data, size, out.data(), out.size()));
}

}  // namespace boxweave
