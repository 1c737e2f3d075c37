// H.264 samples between the Annex-B form of the encoder (start codes) and the form of the file (a
// four-byte big-endian length in front of each unit). Only the head of a sample, up to the first
// coded slice, is rewritten; the slice data goes to the file as it is. Free functions, so that every
// track that writes H.264 (whole-file or fragmented) rewrites samples the same way.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "stream/base/io/IO.h"

namespace kiv {
namespace plugin {
namespace mov {

constexpr unsigned char kAvcStartCode[4] = {0, 0, 0, 1};

inline bool AvcIsStartCode(const unsigned char* p) { return p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1; }
// NAL types 1 and 5: the coded slices.
inline bool AvcIsSlice(unsigned char nal) { return (nal & 27) == 1; }

// Where the first slice's start code stands in a sample (0 when none is found).
int AvcSliceOffset(const unsigned char* data, int size);

// The start codes of a sample's head (headLength bytes, up to the slice's NAL byte and beyond) turned
// into lengths, in place. The slice's length runs to the end of the sample of sampleSize bytes.
void AvcHeadToLengths(unsigned char* head, unsigned headLength, unsigned sampleSize);

// Writes the head of a sample up to and including the first slice's length, rewritten, and returns
// its size; the rest of the sample follows from the caller. A short head is built in scratch, a long
// one (big SEI or parameter sets) in memory of its own; 0 when that cannot be had.
long long WriteAvcHead(kiv::base::IO& io, const unsigned char* data, int size, unsigned char (&scratch)[256]);

// The SPS and PPS of a key sample into a track's parameter-set record (avcC, hvcC) while extraSize is
// 0: the units that a later start code of the sample ends, of types 7 and 8 by the H.264 test (also
// for HEVC, as the devices in the field have always made them). Each one found is laid out again in
// the record's own buffer, the first Cap bytes of buf: SPS, then PPS behind it, each cut to what is
// left (onCut(spsLength, ppsLength) is told), and the record's pointers and sizes set; *used, when
// given, takes the bytes laid out. Stops once the record holds both, with extraSize their sum.
template <size_t Cap, class Record, class OnCut>
void TakeSpsPps(const unsigned char* d, int n, Record& record, unsigned char* buf, unsigned& extraSize, uint32_t* used,
                OnCut onCut) {
  const unsigned char* spsAt = nullptr;
  const unsigned char* ppsAt = nullptr;
  unsigned spsLen = 0, ppsLen = 0;
  auto layout = [&]() {
    unsigned char tmp[Cap] = {};
    const unsigned s = static_cast<unsigned>(std::min<size_t>(spsLen, Cap));
    const unsigned p = static_cast<unsigned>(std::min<size_t>(ppsLen, Cap - s));
    if (s < spsLen || p < ppsLen) onCut(spsLen, ppsLen);
    if (s) std::memcpy(tmp, spsAt, s);
    if (p) std::memcpy(tmp + s, ppsAt, p);
    std::memcpy(buf, tmp, sizeof tmp);
    if (used) *used = s + p;
    if (spsAt) {
      record._sps = buf;
      record._sps_size = static_cast<uint16_t>(s);
    }
    if (ppsAt) {
      record._pps = buf + s;
      record._pps_size = static_cast<uint16_t>(p);
    }
  };
  int prev = -1;
  for (int i = 0; n - i >= 6; ++i) {
    if (!AvcIsStartCode(d + i)) continue;
    if (prev >= 0 && extraSize == 0) {
      // The unit that ends at this start code.
      const unsigned char* body = d + prev + 4;
      const unsigned len = static_cast<unsigned>(i - prev - 4);
      const unsigned type = len ? (body[0] & 31) : 0;
      if (type == 7) {
        spsAt = body;
        spsLen = len;
        layout();
      } else if (type == 8) {
        ppsAt = body;
        ppsLen = len;
        layout();
      }
      if (record._sps_size && record._pps_size) {
        extraSize = record._sps_size + record._pps_size;
        break;
      }
    }
    prev = i;
  }
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
