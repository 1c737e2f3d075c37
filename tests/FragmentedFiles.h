// Fragmented files for the play tests: written by ffmpeg at test time, then reshaped byte by byte where
// a case needs it (the index cut off, rewritten in this system's entry shape, a header changed).
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "tests/FragmentBytes.h"
#include "tests/ToolRun.h"

namespace fragmented {

inline uint32_t Be32(const std::string& b, size_t at) {
  if (at + 4 > b.size()) return 0;
  return static_cast<uint32_t>(static_cast<unsigned char>(b[at])) << 24 |
         static_cast<uint32_t>(static_cast<unsigned char>(b[at + 1])) << 16 |
         static_cast<uint32_t>(static_cast<unsigned char>(b[at + 2])) << 8 | static_cast<unsigned char>(b[at + 3]);
}
inline uint64_t Be64(const std::string& b, size_t at) { return uint64_t{Be32(b, at)} << 32 | Be32(b, at + 4); }
inline void PutBe32(std::string& out, uint32_t v) {
  for (int i = 3; i >= 0; --i) out += static_cast<char>((v >> (8 * i)) & 0xff);
}
inline void SetBe32(std::string& b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + static_cast<size_t>(i)] = static_cast<char>((v >> (24 - 8 * i)) & 0xff);
}

// The top level, and the children of a box that has only children (moof, traf, mfra).
using TopBox = fragbytes::Child;
inline std::vector<TopBox> TopLevel(const std::string& b) { return fragbytes::Children(b, 0, b.size()); }
inline std::vector<TopBox> Children(const std::string& b, const TopBox& parent) {
  return fragbytes::Children(b, parent.pos + 8, parent.pos + parent.size);
}

// Every sample of a track in file order: the moof it is in, and its duration (track units).
struct TrackSample {
  size_t moof = 0;
  uint32_t duration = 0;
};
inline std::vector<TrackSample> TrackSamples(const std::string& b, uint32_t track) {
  std::vector<TrackSample> out;
  for (const fragbytes::Fragment& f : fragbytes::Read(b).fragments)
    if (f.track == track)
      for (const fragbytes::Sample& s : f.samples) out.push_back({f.pos, s.duration});
  return out;
}

// The file without its random-access index at the end.
inline std::string WithoutIndex(const std::string& b) {
  const std::vector<TopBox> top = TopLevel(b);
  return !top.empty() && top.back().type == "mfra" ? b.substr(0, top.back().pos) : b;
}

// One track's entries of the index: time (track units) and moof position.
struct IndexTrack {
  uint32_t track = 0;
  std::vector<std::pair<uint64_t, uint64_t>> entries;
};

// The index as ffmpeg writes it (version 1: 64-bit time and position; one-byte numbers when the length
// sizes are 0); version 0 is read too.
inline std::vector<IndexTrack> ReadIndex(const std::string& b) {
  std::vector<IndexTrack> out;
  const std::vector<TopBox> top = TopLevel(b);
  if (top.empty() || top.back().type != "mfra") return out;
  for (const TopBox& t : Children(b, top.back())) {
    if (t.type != "tfra") continue;
    const unsigned version = static_cast<unsigned char>(b[t.pos + 8]);
    const uint32_t sizes = Be32(b, t.pos + 16);
    const size_t numbers = ((sizes >> 4) & 3) + ((sizes >> 2) & 3) + (sizes & 3) + 3;
    IndexTrack track{Be32(b, t.pos + 12), {}};
    size_t at = t.pos + 24;
    for (uint32_t i = 0, n = Be32(b, t.pos + 20); i < n && at < t.pos + t.size; ++i) {
      if (version == 1) {
        track.entries.emplace_back(Be64(b, at), Be64(b, at + 8));
        at += 16;
      } else {
        track.entries.emplace_back(Be32(b, at), Be32(b, at + 4));
        at += 8;
      }
      at += numbers;
    }
    out.push_back(track);
  }
  return out;
}

// An index in the one shape this system writes and reads: version 0, length sizes 0, entries of a
// 32-bit time, a 32-bit position and the three one-byte numbers 1, 1, 1; then "mfro".
inline std::string IndexBytes(const std::vector<IndexTrack>& tracks) {
  std::string body;
  for (const IndexTrack& t : tracks) {
    PutBe32(body, static_cast<uint32_t>(24 + 11 * t.entries.size()));
    body += "tfra";
    PutBe32(body, 0);
    PutBe32(body, t.track);
    PutBe32(body, 0);
    PutBe32(body, static_cast<uint32_t>(t.entries.size()));
    for (const auto& e : t.entries) {
      PutBe32(body, static_cast<uint32_t>(e.first));
      PutBe32(body, static_cast<uint32_t>(e.second));
      body += std::string("\x01\x01\x01", 3);
    }
  }
  const uint32_t total = static_cast<uint32_t>(8 + body.size() + 16);
  std::string mfra;
  PutBe32(mfra, total);
  mfra += "mfra" + body;
  PutBe32(mfra, 16);
  mfra += "mfro";
  PutBe32(mfra, 0);
  PutBe32(mfra, total);
  return mfra;
}

// ffmpeg's file with its index rewritten in this system's shape; `keep` picks the tracks it lists.
inline std::string WithOwnIndex(const std::string& b, bool (*keep)(uint32_t) = nullptr) {
  std::vector<IndexTrack> tracks;
  for (const IndexTrack& t : ReadIndex(b))
    if (!keep || keep(t.track)) tracks.push_back(t);
  return WithoutIndex(b) + IndexBytes(tracks);
}

inline bool WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f << bytes;
  return static_cast<bool>(f);
}

// 4 s of 160x120 pictures at 30 a second with a key frame every 15 (so a fragment every half second)
// and 48 kHz stereo AAC, as fragmented MP4 with ffmpeg's index; `flags` are added to the movflags.
inline bool MakeFragmented(const std::string& path, const std::string& flags) {
  return Shell(
      "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=160x120:rate=30 -f lavfi -i "
      "sine=frequency=440:sample_rate=48000 -t 4 -map 0:v -map 1:a -pix_fmt yuv420p -c:v libx264 -profile:v "
      "baseline -bf 0 -g 15 -sc_threshold 0 -c:a aac -ac 2 -movflags +frag_keyframe+empty_moov" +
      flags + " " + path);
}

}  // namespace fragmented
