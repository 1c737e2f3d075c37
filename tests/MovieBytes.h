// Small movie files laid out byte by byte for the play-side tests: H.264 and AAC tracks whose samples
// stand where the test wants them in the file, whatever their times, each sample marked with its track
// and index so that a packet tells where its bytes came from.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tests/BoxBytes.h"

namespace movie {

using boxtest::Bytes;
using boxtest::kit::B;
using boxtest::kit::H;

struct Sample {
  uint32_t size = 0;      // bytes; 0 makes a zero-length sample
  uint32_t duration = 0;  // track units
  bool key = true;
};

struct Track {
  std::string codec = "avc1";  // "avc1", "mp4a", or any other code for an entry the plug-in has no track for
  uint32_t scale = 1000;
  std::vector<Sample> samples;
  bool stss = true;  // a sync table of the key samples; false leaves it out
};

struct Layout {
  std::vector<Track> tracks;
  // (track, sample) in file order; empty: by start time, the earlier track first at equal times.
  std::vector<std::pair<int, int>> order;
  bool mdat = true;       // false: the samples stand in a "free" box and the file has no mdat
  bool moovFirst = false;  // moov in front of the media
  Bytes afterFirstTrak;   // a box put behind the first trak
  uint32_t movieScale = 1000;
};

struct Movie {
  Bytes bytes;
  std::vector<std::vector<uint64_t>> pos;  // file position of each track's samples
  uint64_t mediaStart = 0, mediaEnd = 0;    // the sample bytes, mdat's payload
};

inline void Be32(Bytes& b, uint32_t v) { boxtest::Be32(b, v); }

// The marker of sample `index` of track `track`: three bytes without a zero.
inline Bytes Marker(int track, int index) {
  return {static_cast<unsigned char>(0x80 | track), static_cast<unsigned char>(0x80 | ((index >> 7) & 0x7f)),
          static_cast<unsigned char>(0x80 | (index & 0x7f))};
}

// An H.264 sample is one slice behind its length (IDR for a key sample); an AAC one raw bytes.
inline Bytes Payload(const Track& t, int track, int index) {
  const uint32_t n = t.samples[static_cast<size_t>(index)].size;
  Bytes b;
  b.reserve(n);
  if (t.codec == "avc1" && n >= 8) {
    Be32(b, n - 4);
    b.push_back(t.samples[static_cast<size_t>(index)].key ? 0x65 : 0x41);
  }
  boxtest::Append(b, Marker(track, index));
  b.resize(n, 0xab);
  return b;
}

// The track's length in its own units.
inline uint64_t Length(const Track& t) {
  uint64_t sum = 0;
  for (const Sample& s : t.samples) sum += s.duration;
  return sum;
}

// Start of each sample in track units.
inline std::vector<uint64_t> Starts(const Track& t) {
  std::vector<uint64_t> out;
  uint64_t at = 0;
  for (const Sample& s : t.samples) out.push_back(at), at += s.duration;
  return out;
}

namespace detail {

inline std::string Hex32(uint32_t v) {
  static const char d[] = "0123456789abcdef";
  std::string s(8, '0');
  for (int i = 7; i >= 0; --i, v >>= 4) s[static_cast<size_t>(i)] = d[v & 15];
  return s + " ";
}

inline const char kMatrix[] = "00010000 00000000 00000000 00000000 00010000 00000000 00000000 00000000 40000000 ";

inline Bytes Entry(const Track& t) {
  const std::string head = "000000000000 0001 ";
  if (t.codec == "avc1")
    return boxtest::Box("avc1", boxtest::Cat({H(head + "0000 0000 'appl' 00000200 00000200 0040 0030 00480000 00480000"
                                                       " 00000000 0001 0b 'Quorel AVCC' 20*00 0018 ffff"),
                                              B("avcC", "01 4d 40 1f ff e1 0004 674d401f 01 0002 68ee")}));
  if (t.codec == "mp4a")
    return boxtest::Box("mp4a", boxtest::Cat({H(head + "0000 0000 00000000 0002 0010 fffe 0000 bb80 0000"),
                                              B("esds", "00000000 03 19 0002 1f 04 11 40 15 100000 0001f400 0001f400"
                                                        " 05 02 1190 06 01 02")}));
  return boxtest::Box(t.codec.c_str(), H(head + "0000 0000 00000000 0002 0010 0000 0000 bb80 0000"));
}

inline Bytes Trak(const Track& t, int id, const std::vector<uint64_t>& pos, uint32_t movieScale) {
  const bool video = t.codec != "mp4a";
  const uint64_t len = Length(t);
  const uint32_t movieLen = static_cast<uint32_t>(t.scale ? len * movieScale / t.scale : 0);
  std::string stts;
  uint32_t runs = 0;
  for (size_t i = 0; i < t.samples.size();) {
    size_t j = i;
    while (j < t.samples.size() && t.samples[j].duration == t.samples[i].duration) ++j;
    stts += Hex32(static_cast<uint32_t>(j - i)) + Hex32(t.samples[i].duration);
    ++runs;
    i = j;
  }
  std::string sizes, offsets, keys;
  uint32_t nkeys = 0;
  for (size_t i = 0; i < t.samples.size(); ++i) {
    sizes += Hex32(t.samples[i].size);
    offsets += Hex32(static_cast<uint32_t>(pos[i]));
    if (t.samples[i].key) keys += Hex32(static_cast<uint32_t>(i + 1)), ++nkeys;
  }
  const std::string n = Hex32(static_cast<uint32_t>(t.samples.size()));
  Bytes stbl = boxtest::Cat({boxtest::Box("stsd", boxtest::Cat({H("00000000 00000001"), Entry(t)})),
                             B("stts", "00000000 " + Hex32(runs) + stts),
                             B("stsc", "00000000 00000001 00000001 00000001 00000001"),
                             B("stsz", "00000000 00000000 " + n + sizes), B("stco", "00000000 " + n + offsets)});
  if (video && t.stss) boxtest::Append(stbl, B("stss", "00000000 " + Hex32(nkeys) + keys));
  const Bytes minf = boxtest::Cat(
      {video ? B("vmhd", "00000001 0000 0000 0000 0000") : B("smhd", "00000000 0000 0000"),
       boxtest::Box("dinf", B("dref", "00000000 00000001 0000000c 'url ' 00000001")), boxtest::Box("stbl", stbl)});
  const Bytes mdia = boxtest::Cat(
      {B("mdhd", "00000000 00000000 00000000 " + Hex32(t.scale) + Hex32(static_cast<uint32_t>(len)) + "55c4 0000"),
       B("hdlr", std::string("00000000 00000000 ") + (video ? "'vide'" : "'soun'") + " 12*00 'Handler' 00"),
       boxtest::Box("minf", minf)});
  return boxtest::Box(
      "trak", boxtest::Cat({B("tkhd", "00000003 00000000 00000000 " + Hex32(static_cast<uint32_t>(id)) + "00000000 " +
                                          Hex32(movieLen) + "8*00 0000 0000 " + (video ? "0000" : "0100") + " 0000 " +
                                          kMatrix + (video ? "00400000 00300000" : "00000000 00000000")),
                            boxtest::Box("mdia", mdia)}));
}

}  // namespace detail

inline Movie Build(const Layout& layout) {
  Movie m;
  // The file order of the samples.
  std::vector<std::pair<int, int>> order = layout.order;
  if (order.empty()) {
    for (size_t t = 0; t < layout.tracks.size(); ++t)
      for (size_t i = 0; i < layout.tracks[t].samples.size(); ++i) order.emplace_back(int(t), int(i));
    std::vector<std::vector<uint64_t>> starts;
    for (const Track& t : layout.tracks) starts.push_back(Starts(t));
    std::stable_sort(order.begin(), order.end(), [&](const std::pair<int, int>& a, const std::pair<int, int>& b) {
      const Track &ta = layout.tracks[size_t(a.first)], &tb = layout.tracks[size_t(b.first)];
      const uint64_t x = starts[size_t(a.first)][size_t(a.second)] * tb.scale;
      const uint64_t y = starts[size_t(b.first)][size_t(b.second)] * ta.scale;
      return x != y ? x < y : a.first < b.first;
    });
  }
  // The media first at a provisional place, then the movie box, whose size does not depend on where
  // the media stand (32-bit offsets): it is built twice when it goes in front.
  const Bytes ftyp = B("ftyp", "'isom' 00000200 'isom' 'mp42'");
  auto build = [&](uint64_t mediaStart) {
    m.pos.assign(layout.tracks.size(), {});
    for (size_t t = 0; t < layout.tracks.size(); ++t) m.pos[t].assign(layout.tracks[t].samples.size(), 0);
    Bytes media;
    for (const auto& o : order) {
      m.pos[size_t(o.first)][size_t(o.second)] = mediaStart + media.size();
      boxtest::Append(media, Payload(layout.tracks[size_t(o.first)], o.first, o.second));
    }
    uint64_t longest = 0;
    Bytes traks;
    for (size_t t = 0; t < layout.tracks.size(); ++t) {
      const Track& tr = layout.tracks[t];
      longest = std::max<uint64_t>(longest, tr.scale ? Length(tr) * layout.movieScale / tr.scale : 0);
      boxtest::Append(traks, detail::Trak(tr, int(t) + 1, m.pos[t], layout.movieScale));
      if (t == 0) boxtest::Append(traks, layout.afterFirstTrak);
    }
    const Bytes mvhd = B("mvhd", "00000000 00000000 00000000 " + detail::Hex32(layout.movieScale) +
                                     detail::Hex32(static_cast<uint32_t>(longest)) + "00010000 0100 10*00 " +
                                     detail::kMatrix + "24*00 " +
                                     detail::Hex32(static_cast<uint32_t>(layout.tracks.size() + 1)));
    return std::make_pair(boxtest::Box("moov", boxtest::Cat({mvhd, traks})),
                          boxtest::Box(layout.mdat ? "mdat" : "free", media));
  };
  auto parts = build(ftyp.size() + 8);
  if (layout.moovFirst) parts = build(ftyp.size() + parts.first.size() + 8);
  m.bytes = layout.moovFirst ? boxtest::Cat({ftyp, parts.first, parts.second}) : boxtest::Cat({ftyp, parts.second, parts.first});
  m.mediaStart = layout.moovFirst ? ftyp.size() + parts.first.size() + 8 : ftyp.size() + 8;
  m.mediaEnd = m.mediaStart + parts.second.size() - 8;
  return m;
}

// A video track of n samples of `dur` units, a key sample every `gop`, sizes 40 + index % 7.
inline Track Video(int n, uint32_t dur = 40, int gop = 10, uint32_t scale = 1000) {
  Track t;
  t.codec = "avc1";
  t.scale = scale;
  for (int i = 0; i < n; ++i) t.samples.push_back({static_cast<uint32_t>(40 + i % 7), dur, i % gop == 0});
  return t;
}

// An AAC track of n samples of `dur` units at `scale`.
inline Track Audio(int n, uint32_t dur = 1024, uint32_t scale = 48000) {
  Track t;
  t.codec = "mp4a";
  t.scale = scale;
  t.stss = false;
  for (int i = 0; i < n; ++i) t.samples.push_back({static_cast<uint32_t>(20 + i % 5), dur, true});
  return t;
}

}  // namespace movie
