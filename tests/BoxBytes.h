// Byte layouts written by hand for the box tests, and a memory stream over them.
#pragma once

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "stream/base/io/IO.h"
#include "stream/plugin/mp4/common/IBox.h"

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

// Layouts written field by field, reading and writing single boxes.
namespace kit {

// Hex digits, two per byte; spaces only separate fields. 'text' stands for its characters, and
// N*HH for N bytes of HH (N decimal).
inline Bytes H(const char* text) {
  Bytes b;
  int high = -1;
  for (const char* p = text; *p; ++p) {
    if (*p == ' ' || *p == '\n') continue;
    if (*p == '\'') {
      for (++p; *p && *p != '\''; ++p) b.push_back(static_cast<unsigned char>(*p));
      if (!*p) break;
      continue;
    }
    if (high < 0) {
      const char* star = p;
      while (std::isdigit(static_cast<unsigned char>(*star))) ++star;
      if (*star == '*' && star != p) {
        const size_t n = std::strtoul(p, nullptr, 10);
        const Bytes one = H(std::string(star + 1, 2).c_str());
        b.insert(b.end(), n, one.at(0));
        p = star + 2;
        continue;
      }
    }
    const int v = std::isdigit(static_cast<unsigned char>(*p)) ? *p - '0' : std::tolower(*p) - 'a' + 10;
    if (high < 0) {
      high = v;
    } else {
      b.push_back(static_cast<unsigned char>(high << 4 | v));
      high = -1;
    }
  }
  return b;
}

inline Bytes H(const std::string& text) { return H(text.c_str()); }

// A box whose payload is laid out in H() notation.
inline Bytes B(const char* fcc, const std::string& payload) { return Box(fcc, H(payload)); }

// The bytes the box writes at the start of an empty stream.
inline Bytes Written(kiv::plugin::mov::IBox& box) {
  kiv::base::IOBuffer io;
  box.Fill(io, true);
  return io.Bytes();
}

// The codes of a tree, children in brackets: "moov(mvhd trak(tkhd)) free"; levels below depth left out.
inline std::string Shape(const kiv::plugin::mov::IBox& box, int depth = 64) {
  std::string s;
  for (kiv::plugin::mov::IBox* c = box.Child(); c; c = c->Next()) {
    if (!s.empty()) s += ' ';
    s += std::string(c->FCCString()).substr(0, 4);
    if (c->Child() && depth > 1) s += "(" + Shape(*c, depth - 1) + ")";
  }
  return s;
}

// The bytes read as the top level of a file.
struct Tree {
  explicit Tree(const Bytes& bytes, kiv::base::AttrSet attrs = kiv::base::AttrSet()) : ap(std::move(attrs)) {
    Load(io, bytes);
    ok = root.Parse(io, ap, true);
  }
  // The i-th top-level box as T, or null.
  template <class T = kiv::plugin::mov::IBox>
  T* at(size_t i = 0) const {
    kiv::plugin::mov::IBox* b = root.Child();
    for (size_t k = 0; b && k < i; ++k) b = b->Next();
    return dynamic_cast<T*>(b);
  }
  template <class T>
  T* find(const char* fcc) {
    return dynamic_cast<T*>(root.Find(fcc));
  }
  std::string shape() const { return Shape(root); }
  kiv::base::IOBuffer io;
  kiv::base::AttrSet ap;
  kiv::plugin::mov::croot root;
  bool ok = false;
};

// One box read on its own from bytes starting with its header, as a parent would hand it over.
inline bool ParseAlone(kiv::plugin::mov::IBox& box, const Bytes& bytes, kiv::base::IOBuffer& io,
                       kiv::base::AttrSet& ap, uint32_t claimed = 0) {
  Load(io, bytes);
  box.Offset(0);
  box.Size(claimed ? claimed : static_cast<uint32_t>(bytes.size()));
  io.Seek(8, kiv::Position::front);
  return box.Parse(io, ap, true);
}

}  // namespace kit
}  // namespace boxtest
