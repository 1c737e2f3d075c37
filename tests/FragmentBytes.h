// A fragmented file read back byte by byte, independently of the plug-in's box classes: the top-level
// boxes, and for each moof what a player takes from it. Also a rewrite that puts each traf's tfdt in
// front of its trun, for the players that need it there.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace fragbytes {

using Bytes = std::vector<unsigned char>;

inline uint32_t U32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 | p[3];
}
inline uint64_t U64(const unsigned char* p) { return static_cast<uint64_t>(U32(p)) << 32 | U32(p + 4); }

// A box: its type, where it starts, its size.
struct Child {
  std::string type;
  size_t pos, size;
};
using Top = Child;

struct Sample {
  uint32_t duration = 0, size = 0;
};

struct Fragment {
  size_t pos = 0;  // of the moof it is in
  size_t moofSize = 0;
  uint32_t sequence = 0, track = 0, tfhdFlags = 0, defaultDuration = 0, defaultFlags = 0;
  uint32_t trunFlags = 0, dataOffset = 0, firstFlags = 0;
  uint64_t tfdt = 0;
  std::string trafChildren;  // "tfhd,trun,tfdt"
  std::vector<Sample> samples;
  size_t mdatPos = 0, mdatSize = 0;  // the mdat right behind the moof
};

struct File {
  std::vector<Top> top;
  std::vector<Fragment> fragments;
  bool whole = true;  // every box ends within the file
  std::string types() const {
    std::string s;
    for (const Top& t : top) s += (s.empty() ? "" : ",") + t.type;
    return s;
  }
};

// The boxes [begin, end) of a container, of bytes or of a string; stops at a box that does not fit.
template <class Container>
std::vector<Child> Children(const Container& c, size_t begin, size_t end) {
  const unsigned char* b = reinterpret_cast<const unsigned char*>(c.data());
  std::vector<Child> out;
  for (size_t p = begin; p + 8 <= end && end <= c.size();) {
    const size_t size = U32(&b[p]);
    if (size < 8 || p + size > end) break;
    out.push_back({std::string(reinterpret_cast<const char*>(&b[p + 4]), 4), p, size});
    p += size;
  }
  return out;
}

// One Fragment a traf of the moof (ours have one; ffmpeg puts every track's into one moof). A sample
// without its own duration takes the tfhd's default.
template <class Container>
std::vector<Fragment> ReadMoof(const Container& c, size_t pos, size_t size) {
  const unsigned char* b = reinterpret_cast<const unsigned char*>(c.data());
  std::vector<Fragment> out;
  uint32_t sequence = 0;
  for (const Child& box : Children(c, pos + 8, pos + size)) {
    if (box.type == "mfhd" && box.size >= 16) sequence = U32(&b[box.pos + 12]);
    if (box.type != "traf") continue;
    Fragment f;
    f.pos = pos, f.moofSize = size, f.sequence = sequence;
    for (const Child& t : Children(c, box.pos + 8, box.pos + box.size)) {
      f.trafChildren += (f.trafChildren.empty() ? "" : ",") + t.type;
      const unsigned char* p = &b[t.pos + 8];
      if (t.type == "tfhd") {
        f.tfhdFlags = U32(p) & 0xffffff;
        f.track = U32(p + 4);
        size_t at = 8;
        if (f.tfhdFlags & 1) at += 8;
        if (f.tfhdFlags & 2) at += 4;
        if (f.tfhdFlags & 8) f.defaultDuration = U32(p + at), at += 4;
        if (f.tfhdFlags & 0x10) at += 4;
        if (f.tfhdFlags & 0x20) f.defaultFlags = U32(p + at);
      } else if (t.type == "tfdt") {
        f.tfdt = p[0] == 1 ? U64(p + 4) : U32(p + 4);
      } else if (t.type == "trun") {
        f.trunFlags = U32(p) & 0xffffff;
        const uint32_t n = U32(p + 4);
        size_t at = 8;
        if (f.trunFlags & 1) f.dataOffset = U32(p + at), at += 4;
        if (f.trunFlags & 4) f.firstFlags = U32(p + at), at += 4;
        for (uint32_t i = 0; i < n && t.pos + 8 + at + 4 <= t.pos + t.size; ++i) {
          Sample s{f.defaultDuration, 0};
          if (f.trunFlags & 0x100) s.duration = U32(p + at), at += 4;
          if (f.trunFlags & 0x200) s.size = U32(p + at), at += 4;
          if (f.trunFlags & 0x400) at += 4;
          if (f.trunFlags & 0x800) at += 4;
          f.samples.push_back(s);
        }
      }
    }
    out.push_back(f);
  }
  return out;
}

template <class Container>
File Read(const Container& c) {
  const unsigned char* b = reinterpret_cast<const unsigned char*>(c.data());
  File file;
  size_t p = 0, trafs = 0;
  while (p + 8 <= c.size()) {
    const size_t size = U32(&b[p]);
    const std::string type(reinterpret_cast<const char*>(&b[p + 4]), 4);
    if (size < 8) break;
    if (p + size > c.size()) {
      file.whole = false;
      break;
    }
    file.top.push_back({type, p, size});
    if (type == "moof") {
      const std::vector<Fragment> more = ReadMoof(c, p, size);
      trafs = more.size();
      file.fragments.insert(file.fragments.end(), more.begin(), more.end());
    }
    if (type == "mdat")
      for (size_t i = file.fragments.size() - trafs; i < file.fragments.size(); ++i)
        if (file.fragments[i].mdatSize == 0) file.fragments[i].mdatPos = p, file.fragments[i].mdatSize = size;
    p += size;
  }
  if (p != c.size()) file.whole = false;
  return file;
}

// Whether the file ends inside the sample table of a trun of a moof cut short. ffmpeg (5.1) gives up
// on the whole file then ("error reading header"), on its own fragmented files alike.
inline bool EndsInsideTrun(const Bytes& b) {
  size_t p = 0;
  while (p + 8 <= b.size() && U32(&b[p]) >= 8 && p + U32(&b[p]) <= b.size()) p += U32(&b[p]);
  if (p + 8 > b.size() || std::memcmp(&b[p + 4], "moof", 4) != 0) return false;
  for (size_t q = p + 8; q + 8 <= b.size();) {  // mfhd, traf, then the traf's own children
    const size_t size = U32(&b[q]);
    if (std::memcmp(&b[q + 4], "trun", 4) == 0) return q + size > b.size();
    q += std::memcmp(&b[q + 4], "traf", 4) == 0 ? 8 : (size < 8 ? 8 : size);
  }
  return false;
}

// Each traf's children in the order tfhd, tfdt, trun, the rest: sizes and data offsets do not change.
inline Bytes TfdtFirst(Bytes b) {
  for (const Child& top : Children(b, 0, b.size())) {
    if (top.type != "moof") continue;
    for (const Child& traf : Children(b, top.pos + 8, top.pos + top.size)) {
      if (traf.type != "traf") continue;
      std::vector<Child> kids = Children(b, traf.pos + 8, traf.pos + traf.size);
      Bytes sorted;
      sorted.reserve(traf.size);
      for (const char* want : {"tfhd", "tfdt", "trun"})
        for (const Child& k : kids)
          if (k.type == want) sorted.insert(sorted.end(), b.begin() + k.pos, b.begin() + k.pos + k.size);
      for (const Child& k : kids)
        if (k.type != "tfhd" && k.type != "tfdt" && k.type != "trun")
          sorted.insert(sorted.end(), b.begin() + k.pos, b.begin() + k.pos + k.size);
      if (sorted.size() == traf.size - 8) std::memcpy(&b[traf.pos + 8], sorted.data(), sorted.size());
    }
  }
  return b;
}

}  // namespace fragbytes
