// What the engine and element tests share: a small track class found by the keywords "mov-stream-testv"
// and "mov-stream-testa", media and packets for it, and a reader of the box layout of a written file.
#pragma once

#include <gtest/gtest.h>

#include "tests/ToolRun.h"
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "stream/base/Helpers.h"
#include "stream/base/reflect/IClass.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/IStream.h"

namespace muxtest {

using Bytes = std::vector<unsigned char>;
using kiv::stream::IMedia;
using kiv::stream::Packet;
using CleanCalls = std::vector<std::pair<std::string, unsigned long long>>;

constexpr long long kMs = 1000000;  // nanoseconds

// Every CleanFifoData call of the test tracks, in order: the codec word and the limit.
inline CleanCalls cleanLog;
// Calls of AddPacket on any test track that began while another was running.
inline std::atomic<int> overlaps{0};

// A track that writes each payload as it comes (the core's AddPacket and AddData), with a trak of its
// own headers. Media attributes: "scale" (track time scale, default 1000), "fail" (muxConfig fails).
class TestTrack : public kiv::plugin::mov::IStream {
 public:
  TestTrack() : IStream("test") {}
  bool muxConfig(kiv::base::Object* tags) override {
    using namespace kiv::plugin::mov;
    seenTags = tags;
    int fail = 0, scale = 1000;
    if (_media && _media->Get("fail", fail) && fail) return false;
    if (_media) _media->Get("scale", scale);
    _scale.Scale(scale);
    _chunkList = &list;
    auto* trak = new ctrak();
    trak->Add(new ctkhd(_version1 ? 1 : 0));
    auto* mdia = new cmdia();
    mdia->Add(new cmdhd(_version1 ? 1 : 0));
    trak->Add(mdia);
    _trak = trak;
    return true;
  }
  bool demuxConfig(kiv::base::Object*) override { return false; }
  bool AddPacket(Packet& packet, kiv::base::IO& io, unsigned long long leader) override {
    if (packet.media != _media) return false;
    static std::atomic<int> inside{0};
    if (inside++ > 0) ++overlaps;
    std::this_thread::yield();  // another caller not held back by the engine comes in now
    leaders.push_back(leader);
    addSamplesSeen = _addSamples;
    const bool ok = IStream::AddPacket(packet, io, leader);
    --inside;
    return ok;
  }
  bool CleanFifoData(kiv::base::IO&, unsigned long long videoDuration) override {
    cleanLog.emplace_back(_media ? _media->Codec() : "", videoDuration);
    return true;
  }
  std::vector<kiv::plugin::mov::ChunkParam> list;
  std::vector<unsigned long long> leaders;  // the leader handed with each packet
  unsigned addSamplesSeen = 0;
  kiv::base::Object* seenTags = nullptr;
  kiv::base::Fraction frameRate{0, 0};  // property, set by the engine on video tracks
};

inline void RegisterTestTrack() {
  using P = kiv::base::TProperty<TestTrack>;
  kiv::base::ReflectClass<TestTrack>("MuxTestTrack-mov-stream-testv-testa",
                                     {P::Member("frameRate", &TestTrack::frameRate)}, true, "test", 1, "test", "test");
}

inline IMedia* VideoMedia(const char* extra = "") {
  return IMedia::New((std::string("codec=video/testv;scale=90000;width=640;height=360") + extra).c_str());
}
inline IMedia* AudioMedia() { return IMedia::New("codec=audio/testa;scale=48000"); }

// A packet of n bytes, each the byte `fill`.
inline Packet* NewPacket(IMedia* media, int n, unsigned char fill, long long ptsMs, long long durMs) {
  Packet* p = kiv::stream::PacketAlloc(n, 0, 0);
  if (n) std::memset(p->Data(), fill, static_cast<size_t>(n));
  p->media = media;
  p->pts = ptsMs * kMs;
  p->duration = durMs * kMs;
  p->SetKey(true);
  return p;
}

// Bytes laid out by hand: two hex digits a byte, spaces anywhere, 'text' for its characters, N*HH for N
// bytes of HH.
inline Bytes Hex(const std::string& s) {
  Bytes out;
  for (size_t i = 0, end; i < s.size(); i = end) {
    if (s[i] == ' ') {
      end = i + 1;
    } else if (s[i] == '\'') {
      end = s.find('\'', i + 1) + 1;
      out.insert(out.end(), s.begin() + static_cast<long>(i) + 1, s.begin() + static_cast<long>(end) - 1);
    } else {
      end = std::min(s.find_first_of(" '", i), s.size());
      const std::string token = s.substr(i, end - i);
      const size_t star = token.find('*'), n = star == std::string::npos ? 1 : std::stoul(token.substr(0, star));
      for (size_t k = star == std::string::npos ? 0 : star + 1; k + 1 < token.size(); k += 2)
        out.insert(out.end(), n, static_cast<unsigned char>(std::stoi(token.substr(k, 2), nullptr, 16)));
    }
  }
  return out;
}

// ---- reading a written file

inline uint32_t Be32(const Bytes& b, size_t at) { return at + 4 <= b.size() ? kiv::Read32BE(b.data() + at) : 0; }
inline uint64_t Be64(const Bytes& b, size_t at) { return at + 8 <= b.size() ? kiv::Read64BE(b.data() + at) : 0; }
inline uint16_t Be16(const Bytes& b, size_t at) {
  return at + 2 <= b.size() ? static_cast<uint16_t>(b[at] << 8 | b[at + 1]) : 0;
}
inline std::string Code(const Bytes& b, size_t at) {
  return at + 4 <= b.size() ? std::string(reinterpret_cast<const char*>(b.data() + at), 4) : std::string();
}
inline Bytes Slice(const Bytes& b, size_t at, size_t n) {
  return at + n <= b.size() ? Bytes(b.begin() + static_cast<long>(at), b.begin() + static_cast<long>(at + n)) : Bytes();
}

struct BoxAt {
  std::string type;
  size_t offset = 0;
  uint64_t size = 0;  // whole box
  size_t header = 8;  // 16 with the 64-bit size
  size_t body() const { return offset + header; }
  size_t end() const { return static_cast<size_t>(offset + size); }
};

// The boxes one after another in [from, to); stops at a size that does not fit.
inline std::vector<BoxAt> Boxes(const Bytes& b, size_t from, size_t to) {
  std::vector<BoxAt> out;
  for (BoxAt x; from + 8 <= to; from += static_cast<size_t>(x.size)) {
    const bool large = Be32(b, from) == 1;
    x = {Code(b, from + 4), from, large ? Be64(b, from + 8) : Be32(b, from), large ? 16u : 8u};
    if (x.size < x.header || x.size > to - from) break;
    out.push_back(x);
  }
  return out;
}
inline std::vector<BoxAt> Children(const Bytes& b, const BoxAt& parent) { return Boxes(b, parent.body(), parent.end()); }
inline std::vector<BoxAt> OfType(const std::vector<BoxAt>& boxes, const std::string& type) {
  std::vector<BoxAt> out;
  std::copy_if(boxes.begin(), boxes.end(), std::back_inserter(out), [&](const BoxAt& x) { return x.type == type; });
  return out;
}

// What a closed file holds: its top-level boxes (ftyp, mdat, moov, checked), the movie header and the
// headers of each track, read in either version.
using Mvhd = std::array<uint64_t, 6>;                 // version, size, time scale, duration, volume, next track id
using Tracks = std::vector<std::array<uint64_t, 4>>;  // track id, tkhd duration, mdhd duration, has a uuid box
struct FileView {
  std::vector<BoxAt> top;
  Mvhd mvhd{};
  uint64_t created = 0, modified = 0;
  Tracks tracks;
};
inline FileView View(const Bytes& b) {
  FileView v;
  v.top = Boxes(b, 0, b.size());
  std::string types;
  for (const auto& x : v.top) types += x.type + " ";
  EXPECT_EQ(types, "ftyp mdat moov ");
  EXPECT_TRUE(!v.top.empty() && v.top.back().end() == b.size()) << "the boxes cover the file";
  if (v.top.size() != 3) v.top.resize(3);
  auto version1 = [&b](const BoxAt& x) { return b[x.offset + 8] == 1; };
  for (const auto& x : OfType(Children(b, v.top[2]), "mvhd")) {
    const bool v1 = version1(x);
    const size_t at = x.offset + (v1 ? 28 : 20);  // the time scale
    v.created = v1 ? Be64(b, x.offset + 12) : Be32(b, x.offset + 12);
    v.modified = v1 ? Be64(b, x.offset + 20) : Be32(b, x.offset + 16);
    v.mvhd = {b[x.offset + 8], x.size, Be32(b, at), v1 ? Be64(b, at + 4) : Be32(b, at + 4),
              Be16(b, at + (v1 ? 16 : 12)), Be32(b, at + (v1 ? 88 : 84))};
  }
  for (const auto& trak : OfType(Children(b, v.top[2]), "trak")) {
    std::array<uint64_t, 4> t{};
    const auto kids = Children(b, trak);
    for (const auto& x : OfType(kids, "tkhd")) {
      t[0] = Be32(b, x.offset + (version1(x) ? 28 : 20));
      t[1] = version1(x) ? Be64(b, x.offset + 36) : Be32(b, x.offset + 28);
    }
    for (const auto& md : OfType(kids, "mdia"))
      for (const auto& x : OfType(Children(b, md), "mdhd"))
        t[2] = version1(x) ? Be64(b, x.offset + 32) : Be32(b, x.offset + 24);
    t[3] = OfType(kids, "uuid").size();
    v.tracks.push_back(t);
  }
  return v;
}

inline Bytes ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return Bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}
inline bool FileExists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }
inline std::string TempPath(const std::string& name) {
  return boxtest::ProcessScratch() + "/" + name + "_" + std::to_string(::getpid());
}

}  // namespace muxtest
