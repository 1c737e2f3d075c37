// Byte layouts written by hand for the box tests, and a memory stream over them.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "stream/base/io/IO.h"
#include "stream/plugin/mp4/common/IBox.h"

namespace boxtest {

using Bytes = std::vector<unsigned char>;

inline void Be32(Bytes& b, uint32_t v) {
  for (int i = 3; i >= 0; --i) b.push_back(static_cast<unsigned char>(v >> (8 * i)));
}
inline void Append(Bytes& b, const Bytes& more) {
  // Room first: GCC 12 at -O3 misjudges the bounds of an insert that reallocates.
  b.reserve(b.size() + more.size());
  b.insert(b.end(), more.begin(), more.end());
}
inline Bytes Fill(size_t n, unsigned char v = 0xee) { return Bytes(n, v); }

// A header that claims a size of its own, in the 32- or the 64-bit form.
inline Bytes Header(uint32_t size, const char* fcc) {
  // Sized up front and filled by index: GCC 12 at -O3 misjudges an insert behind push_backs here.
  Bytes b(8);
  for (int i = 0; i < 4; ++i) {
    b[i] = static_cast<unsigned char>(size >> (24 - 8 * i));
    b[4 + i] = static_cast<unsigned char>(fcc[i]);
  }
  return b;
}
inline Bytes Header64(uint64_t size, const char* fcc) {
  Bytes b = Header(1, fcc);
  Be32(b, static_cast<uint32_t>(size >> 32));
  Be32(b, static_cast<uint32_t>(size));
  return b;
}

// A box with a 32-bit size that covers the payload.
inline Bytes Box(const char* fcc, const Bytes& payload = {}) {
  Bytes b = Header(static_cast<uint32_t>(8 + payload.size()), fcc);
  Append(b, payload);
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

namespace kit {

// Hex digits, two per byte; spaces only separate fields. 'text' stands for its characters, and
// N*HH for N bytes of HH (N decimal).
inline Bytes H(const char* p) {
  Bytes b;
  auto hex = [](char c) { return std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : std::tolower(c) - 'a' + 10; };
  while (*p) {
    if (*p == ' ' || *p == '\n') {
      ++p;
    } else if (*p == '\'') {
      for (++p; *p && *p != '\''; ++p) b.push_back(static_cast<unsigned char>(*p));
      if (*p) ++p;
    } else {
      char* end = nullptr;
      const unsigned long n = std::strtoul(p, &end, 10);
      const bool rep = *end == '*';
      if (rep) p = end + 1;
      b.insert(b.end(), rep ? n : 1, static_cast<unsigned char>(hex(p[0]) << 4 | hex(p[1])));
      p += 2;
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
    s += (s.empty() ? "" : " ") + std::string(c->FCCString()).substr(0, 4);
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

// A box made in code against its bytes laid out by hand: written, it gives those bytes; read from them
// (when `readsBack`), a box of the same class writes them again, so every field landed in place.
struct RoundTrip {
  const char* name;
  std::function<kiv::plugin::mov::IBox*()> make;
  Bytes bytes;
  bool readsBack = true;
};
inline void PrintTo(const RoundTrip& r, std::ostream* os) { *os << r.name; }

inline void ExpectRoundTrip(const RoundTrip& r) {
  std::unique_ptr<kiv::plugin::mov::IBox> made(r.make());
  EXPECT_EQ(Written(*made), r.bytes);
  EXPECT_EQ(made->StatisticsSize(), r.bytes.size()) << "the size known before writing";
  if (!r.readsBack) return;
  Tree p(r.bytes);
  EXPECT_TRUE(p.ok);
  ASSERT_NE(p.at(0), nullptr);
  EXPECT_EQ(p.at(0)->TypeName(), made->TypeName());
  EXPECT_EQ(Written(*p.at(0)), r.bytes);
}

}  // namespace kit
}  // namespace boxtest
