// H.264 samples between the Annex-B form of the encoder (start codes) and the form of the file (a
// four-byte big-endian length in front of each unit). Only the head of a sample, up to the first
// coded slice, is rewritten; the slice data goes to the file as it is. Free functions, so that every
// track that writes H.264 (whole-file or fragmented) rewrites samples the same way.
#pragma once

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

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
