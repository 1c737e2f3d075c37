// A track stream driven without an engine: an in-memory output behind an "mdat" header, profile, media.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <iterator>
#include <utility>
#include <vector>

#include "stream/base/Helpers.h"
#include "stream/base/io/IO.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/IStream.h"
#include "stream/plugin/mp4/common/Stbl.h"

namespace streamtest {

using Bytes = std::vector<unsigned char>;
using kiv::base::AttrSet;
using kiv::base::IOBuffer;
using kiv::plugin::mov::ChunkParam;
using kiv::plugin::mov::IBox;
using kiv::plugin::mov::IStream;
using kiv::plugin::mov::MuxerParam;
using kiv::plugin::mov::videoTags;
using kiv::stream::IMedia;
using kiv::stream::Packet;

constexpr long long kMs = 1000000;  // nanoseconds

inline uint32_t Fcc(const char* t) {
  uint32_t v = 0;
  kiv::Convert32(v, t);
  return v;
}

inline Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes b;
  for (const Bytes& p : parts) b.insert(b.end(), p.begin(), p.end());
  return b;
}

// A NAL unit behind a four-byte start code: header byte, then n filler bytes without zeros.
inline Bytes Nal(unsigned char header, size_t n, unsigned char fill = 0xAB) {
  Bytes b;
  b.reserve(5 + n);  // room first: GCC 12 at -O3 misjudges an insert behind a list's copy
  for (unsigned char c : {0, 0, 0, 1}) b.push_back(c);
  b.push_back(header);
  b.resize(5 + n, fill);
  return b;
}

struct Releaser {
  void operator()(kiv::base::Reference* p) const { p->Release(); }
};
using PacketPtr = std::unique_ptr<Packet, Releaser>;
using MediaPtr = std::unique_ptr<IMedia, Releaser>;

inline PacketPtr MakePacket(IMedia* media, const Bytes& payload, long long pts, long long duration, bool key,
                            int headroom = 16) {
  PacketPtr p(new Packet(static_cast<int>(payload.size()), headroom, 8));
  if (!payload.empty()) std::memcpy(p->Data(), payload.data(), payload.size());
  p->pts = pts;
  p->duration = duration;
  p->media = media;
  p->SetKey(key);
  return p;
}

// The parameter sets of a small stream, kept alive for the media that points at them.
struct H264Sets {
  // From arrays, not initializer lists: GCC 12 at -O3 takes the lists' copies for uninitialised.
  static constexpr unsigned char kSps[] = {0x67, 0x64, 0x00, 0x0a, 0xac, 0xd9, 0x41, 0x0c, 0x5c, 0x04};
  static constexpr unsigned char kPps[] = {0x68, 0xeb, 0xe3, 0xcb, 0x22, 0xc0};
  Bytes sps{std::begin(kSps), std::end(kSps)};
  Bytes pps{std::begin(kPps), std::end(kPps)};
};

inline MediaPtr NewH264Media(H264Sets& sets, int width = 64, int height = 48) {
  MediaPtr m(IMedia::New("h264"));
  m->Set("width", width);
  m->Set("height", height);
  m->Set("interlace", false);
  m->Set("profile", 100u);
  m->Set("level", 10u);
  m->Set("sps", sets.sps.data());
  m->Set("isps", static_cast<unsigned>(sets.sps.size()));
  m->Set("pps", sets.pps.data());
  m->Set("ipps", static_cast<unsigned>(sets.pps.size()));
  m->Set("chroma_format_idc", 1u);
  m->Set("bit_depth_luma_minus8", 0u);
  m->Set("bit_depth_chroma_minus8", 0u);
  return m;
}

inline MediaPtr NewAacMedia(int rate = 48000, int channels = 2, int adtslen = 0) {
  MediaPtr m(IMedia::New("aac"));
  m->Set("rate", rate);
  m->Set("channel", channels);
  m->Set("width", 2);
  m->Set("depth", 16);
  m->Set("bitrate", 128000);
  m->Set("adtslen", adtslen);
  m->Set("frmSampNum", 1024);
  const unsigned char asc[2] = {0x11, 0x90};
  m->Extra(asc, 2);
  return m;
}

// Two-byte HEVC NAL header (type in bits 1-6, temporal id + 1 of 1) behind a start code, n filler bytes.
inline Bytes HNal(int type, size_t n, unsigned char fill = 0xAB) {
  Bytes b;
  b.reserve(6 + n);
  for (unsigned char c : {0, 0, 0, 1}) b.push_back(c);
  b.push_back(static_cast<unsigned char>(type << 1));
  b.push_back(0x01);
  b.resize(6 + n, fill);
  return b;
}

// The parameter sets of a 64x48 stream as libx265 writes them, start codes in front, kept for the media.
struct HevcSets {
  static constexpr unsigned char kVps[] = {0x40, 0x01, 0x0c, 0x01, 0xff, 0xff, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00,
                                           0x90, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x3c, 0x95, 0x94, 0x09};
  static constexpr unsigned char kSps[] = {0x42, 0x01, 0x01, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00,
                                           0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x3c, 0xa0, 0x08, 0x08, 0x06,
                                           0x01, 0xe5, 0x95, 0x94, 0xa4, 0x93, 0x2b, 0xc0, 0x40};
  static constexpr unsigned char kPps[] = {0x44, 0x01, 0xc1, 0x72, 0xb4, 0x62, 0x40};
  Bytes extra;
  HevcSets() {
    for (const auto& set : {std::make_pair(kVps, sizeof kVps), std::make_pair(kSps, sizeof kSps),
                            std::make_pair(kPps, sizeof kPps)}) {
      for (unsigned char c : {0, 0, 0, 1}) extra.push_back(c);
      extra.insert(extra.end(), set.first, set.first + set.second);
    }
  }
};

inline MediaPtr NewHevcMedia(HevcSets& sets) {
  MediaPtr m(IMedia::New("hevc"));
  m->Extra(sets.extra.data(), static_cast<int>(sets.extra.size()));
  unsigned char* base = const_cast<unsigned char*>(m->Extra());
  const unsigned nv = sizeof HevcSets::kVps, ns = sizeof HevcSets::kSps, np = sizeof HevcSets::kPps;
  m->Set("width", 64);
  m->Set("height", 48);
  m->Set("interlace", false);
  m->Set("profile", 1u);
  m->Set("level", 60u);
  m->Set("vps", base + 4);
  m->Set("ivps", nv);
  m->Set("sps", base + 8 + nv);
  m->Set("isps", ns);
  m->Set("pps", base + 12 + nv + ns);
  m->Set("ipps", np);
  return m;
}

inline MediaPtr NewPcmMedia(int rate, int channels, int samples) {
  MediaPtr m(IMedia::New("pcm"));
  m->Set("rate", rate);
  m->Set("channel", channels);
  m->Set("width", 2);
  m->Set("depth", 16);
  m->Set("samples", samples);
  return m;
}

inline MediaPtr NewJpegMedia(int width, int height) {
  MediaPtr m(IMedia::New("jpeg"));
  m->Set("width", width);
  m->Set("height", height);
  m->Set("interlace", false);
  return m;
}

// Bytes from position `from` of a stream whose every byte tells where it stood.
inline Bytes Counting(size_t from, size_t n) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<unsigned char>((from + i) * 7 + (from + i) / 251);
  return b;
}

// Start codes of an Annex-B sample replaced by the lengths of the units behind them.
inline Bytes LengthPrefixed(const Bytes& annexB) {
  std::vector<size_t> starts;
  for (size_t i = 0; i + 4 <= annexB.size(); ++i)
    if (annexB[i] == 0 && annexB[i + 1] == 0 && annexB[i + 2] == 0 && annexB[i + 3] == 1) starts.push_back(i);
  Bytes out = annexB;
  for (size_t k = 0; k < starts.size(); ++k) {
    const size_t end = k + 1 < starts.size() ? starts[k + 1] : annexB.size();
    const uint32_t len = static_cast<uint32_t>(end - starts[k] - 4);
    for (int b = 0; b < 4; ++b) out[starts[k] + b] = static_cast<unsigned char>(len >> (24 - 8 * b));
  }
  return out;
}

// The same media attributes without one of them.
inline MediaPtr WithoutAttr(IMedia* full, const char* codec, const std::string& key) {
  MediaPtr media(IMedia::New(codec));
  AttrSet attrs = full->Attrs();
  for (size_t i = 0; i < attrs.Size(); ++i)
    if (attrs.Key(i) != key) media->setString(attrs.Key(i), attrs.Value(i));
  return media;
}

// One file being written: the mdat header at 0, a moov that takes the tracks, the profile.
struct MuxRig {
  IOBuffer io;
  kiv::plugin::mov::cmdat* mdat = new kiv::plugin::mov::cmdat();
  kiv::plugin::mov::cmoov* moov = new kiv::plugin::mov::cmoov();
  videoTags* tags = new videoTags();
  MuxerParam para;
  std::vector<IStream*> streams;

  MuxRig() { mdat->Fill(io, true); }
  ~MuxRig() {
    for (IStream* s : streams) delete s;
    delete moov;
    delete mdat;
    delete tags;
  }

  // Made through the registry as the engine makes it; null when the class is not found.
  IStream* New(const char* fcc, int track = 1) {
    AttrSet ap;
    ap.Add("fcc", fcc);
    ap.Add("trunkid", std::to_string(track));
    IStream* st = IStream::New(ap);
    if (st) streams.push_back(st);
    return st;
  }
  // MuxReset and MuxConfig; the trak goes into moov on success.
  bool Config(IStream* st, IMedia* media) {
    st->MuxReset();
    if (!st->MuxConfig(mdat, media, tags, &para)) return false;
    moov->Add(st->Track());
    return true;
  }
  Bytes At(unsigned long long pos, size_t n) { return Bytes(io.Data() + pos, io.Data() + pos + n); }
  // The box's bytes as Fill writes them, into a buffer of their own.
  static Bytes Written(IBox* box) {
    IOBuffer out;
    box->Fill(out, true);
    return Bytes(out.Data(), out.Data() + out.Size());
  }
};

template <class T>
T* FindBox(IBox* root, const char* code) {
  return root ? dynamic_cast<T*>(root->Find(code)) : nullptr;
}

inline std::string Name(const kiv::plugin::mov::chdlr* h) {
  return std::string(reinterpret_cast<const char*>(h->_name), h->_name_len);
}

// The written bytes of the first box of that code in the track.
inline Bytes WrittenBox(IBox* trak, const char* code) {
  IBox* box = FindBox<IBox>(trak, code);
  return box ? MuxRig::Written(box) : Bytes();
}

}  // namespace streamtest
