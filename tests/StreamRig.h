// A track stream driven without an engine: an in-memory output behind an "mdat" header, profile, media.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <iterator>
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
  Bytes b = {0, 0, 0, 1, header};
  b.insert(b.end(), n, fill);
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

// The children's codes of a box, in order, as text.
inline std::string ChildCodes(IBox* box) {
  std::string s;
  for (IBox* c = box ? box->Child() : nullptr; c; c = c->Next()) s += (s.empty() ? "" : ",") + std::string(c->FCCString());
  return s;
}

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
