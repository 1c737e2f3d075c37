// Reading movie files too large to hold in memory: the top-level boxes by their headers, the movie
// box whole, a track's chunk offsets and sample sizes, and bytes at any position.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/MuxTestUtil.h"

namespace largefile {

using muxtest::BoxAt;
using muxtest::Bytes;

inline Bytes ReadAt(const std::string& path, uint64_t at, size_t n) {
  Bytes b(n);
  const int fd = ::open(path.c_str(), O_RDONLY);
  const ssize_t got = fd < 0 ? -1 : ::pread(fd, b.data(), n, static_cast<off_t>(at));
  if (fd >= 0) ::close(fd);
  b.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return b;
}

struct TrackTables {
  std::string offsetTable;  // "stco" or "co64"
  std::vector<uint64_t> samplePos;
  std::vector<uint32_t> sampleSize;
  uint64_t offsetsAt = 0, sizesAt = 0;  // file positions of the first chunk offset and sample size
};

struct BigMovie {
  std::vector<BoxAt> top;  // offsets in the file
  Bytes moov;              // the movie box, from its header on

  explicit BigMovie(const std::string& path) {
    for (uint64_t at = 0;;) {
      const Bytes h = ReadAt(path, at, 16);
      if (h.size() < 8) break;
      const bool large = muxtest::Be32(h, 0) == 1;
      BoxAt x{muxtest::Code(h, 4), static_cast<size_t>(at), large ? muxtest::Be64(h, 8) : muxtest::Be32(h, 0),
              large ? 16u : 8u};
      if (x.size < x.header) break;
      top.push_back(x);
      if (x.type == "moov") moov = ReadAt(path, at, static_cast<size_t>(x.size));
      at += x.size;
    }
  }
  const BoxAt* Top(const std::string& type) const {
    for (const BoxAt& x : top)
      if (x.type == type) return &x;
    return nullptr;
  }
  // Below `x`, the first box of each code of the path ("mdia/minf/stbl"); no type when missing.
  BoxAt Find(BoxAt x, const std::string& path) const {
    std::istringstream parts(path);
    for (std::string code; !x.type.empty() && std::getline(parts, code, '/');) {
      const auto k = muxtest::OfType(muxtest::Children(moov, x), code);
      x = k.empty() ? BoxAt() : k[0];
    }
    return x;
  }
  // The tables of the trak whose handler is `handler` ("vide", "soun"), each sample placed by stsc.
  TrackTables Track(const std::string& handler) const {
    TrackTables t;
    const auto roots = muxtest::Boxes(moov, 0, moov.size());
    if (roots.empty()) return t;
    for (const BoxAt& trak : muxtest::OfType(muxtest::Children(moov, roots[0]), "trak")) {
      const BoxAt h = Find(trak, "mdia/hdlr");
      if (h.type.empty() || muxtest::Code(moov, h.body() + 8) != handler) continue;
      const BoxAt stbl = Find(trak, "mdia/minf/stbl");
      BoxAt co = Find(stbl, "co64");
      t.offsetTable = co.type.empty() ? "stco" : "co64";
      if (co.type.empty()) co = Find(stbl, "stco");
      const size_t width = t.offsetTable == "co64" ? 8 : 4;
      std::vector<uint64_t> chunks;
      for (size_t i = 0, n = muxtest::Be32(moov, co.body() + 4); i < n && co.body() + 8 + (i + 1) * width <= co.end(); ++i)
        chunks.push_back(width == 8 ? muxtest::Be64(moov, co.body() + 8 + i * 8) : muxtest::Be32(moov, co.body() + 8 + i * 4));
      const BoxAt sz = Find(stbl, "stsz");
      const uint64_t moovAt = Top("moov") ? Top("moov")->offset : 0;
      t.offsetsAt = moovAt + co.body() + 8;
      t.sizesAt = moovAt + sz.body() + 12;
      for (size_t i = 0, n = muxtest::Be32(moov, sz.body() + 8); i < n && sz.body() + 12 + (i + 1) * 4 <= sz.end(); ++i)
        t.sampleSize.push_back(muxtest::Be32(moov, sz.body() + 12 + i * 4));
      const BoxAt sc = Find(stbl, "stsc");
      const size_t runs = muxtest::Be32(moov, sc.body() + 4);
      size_t sample = 0;
      for (size_t r = 0; r < runs; ++r) {
        const size_t at = sc.body() + 8 + r * 12;
        const size_t first = muxtest::Be32(moov, at), per = muxtest::Be32(moov, at + 4);
        const size_t next = r + 1 < runs ? muxtest::Be32(moov, at + 12) : chunks.size() + 1;
        for (size_t c = first; c < next && c >= 1 && c <= chunks.size(); ++c) {
          uint64_t pos = chunks[c - 1];
          for (size_t k = 0; k < per && sample < t.sampleSize.size(); ++k, ++sample) {
            t.samplePos.push_back(pos);
            pos += t.sampleSize[sample];
          }
        }
      }
      break;
    }
    return t;
  }
};

}  // namespace largefile
