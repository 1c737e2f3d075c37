#include "stream/plugin/mp4/stream/Mp4MuxerStreamH264Fragment.h"

#include <algorithm>

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/common/AvcNal.h"
#include "stream/plugin/mp4/common/AvcTrak.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/BoxFMp4.h"
#include "stream/plugin/mp4/common/Stbl.h"

namespace kiv {
namespace plugin {
namespace mov {

using namespace fmp4;

namespace {
// The sample flags of a fragment: every sample depends on others and is no sync sample, but the
// first, which depends on none.
constexpr unsigned kDefaultSampleFlags = 0x1010000;
constexpr unsigned kFirstSampleFlags = 0x2000000;
// The length prefix a sample without a slice still gets.
constexpr int kPrefix = 4;
}  // namespace

Mp4MuxerStreamH264Fragment::Mp4MuxerStreamH264Fragment() : IMp4MuxerStreamFragment("h264") {}

bool Mp4MuxerStreamH264Fragment::muxConfig(kiv::base::Object* tagsObject) {
  videoTags* tags = profileOf(tagsObject);
  if (!tags) return false;
  AvcTrak built;
  const bool ok = BuildAvcTrak(AvcTrakSetupFor(*this, tags), built);
  _trak = built.trak;
  if (!ok) return false;

  long long gop = 0;
  if (!_media || !_media->Get("gop", gop)) LOGE << "!_media->Get(\"gop\",gop)";
  framesPerSegment = gop > 0 ? static_cast<unsigned>(std::min<long long>(gop, 0xffffffffLL)) : 0;
  return IMp4MuxerStreamFragment::muxConfig(tagsObject);
}

bool Mp4MuxerStreamH264Fragment::createMoof() {
  if (!IMp4MuxerStreamFragment::createMoof()) {
    LOGE << "!IMp4MuxerStreamFragment::createMoof()";
    return false;
  }
  _tfhd->DefaultSampleFlags(kDefaultSampleFlags);
  _tfhd->Flags(_tfhd->Flags() | ctfhd::kDefaultSampleFlags | ctfhd::kDefaultBaseIsMoof);
  _trun->DataOffset(0);
  _trun->FirstSampleFlags(kFirstSampleFlags);
  _trun->Flags(_trun->Flags() | ctrun::kDataOffset | ctrun::kFirstSampleFlags | ctrun::kSampleDuration |
               ctrun::kSampleSize);
  return true;
}

bool Mp4MuxerStreamH264Fragment::CheckCreateSegment(IO& io) {
  if (_packets.empty() || !_packets.back()->IsKey()) return true;
  // The key frame opens the next fragment: the rest is judged without it.
  Packet* key = _packets.back();
  _packets.pop_back();
  const bool ok = IMp4MuxerStreamFragment::CheckCreateSegment(io);
  _packets.push_back(key);
  return ok;
}

int Mp4MuxerStreamH264Fragment::GetFrameSize(Packet& packet) {
  // A sample too short for a length prefix still gets one written.
  return std::max(packet.Size(), kPrefix);
}

bool Mp4MuxerStreamH264Fragment::WriteFrame(IO& io, Packet& packet) {
  const int head = WriteNaluHeader(io, packet);
  const int size = packet.Size();
  if (head <= 0 || !packet.Data() || size <= head) return false;
  io.Write(packet.Data() + head, size - head);
  return true;
}

int Mp4MuxerStreamH264Fragment::GetSliceDataOffset(Packet& packet) {
  return AvcSliceOffset(packet.Data(), packet.Size());
}

int Mp4MuxerStreamH264Fragment::WriteNaluHeader(IO& io, Packet& packet) {
  return static_cast<int>(WriteAvcHead(io, packet.Data(), packet.Size(), _naluHeader));
}

int Mp4MuxerStreamH264Fragment::UpdateNaluHeader(unsigned char* buffer, unsigned size, unsigned total) {
  AvcHeadToLengths(buffer, size, total);
  return 0;
}

int Mp4MuxerStreamH264Fragment::GetFrameOffset(Packet& packet) {
  const int size = packet.Size();
  if (size > 0 && packet.Data()) UpdateNaluHeader(packet.Data(), static_cast<unsigned>(size), static_cast<unsigned>(size));
  return 0;
}

void Mp4MuxerStreamH264Fragment::computeDuration() { _tfdtValue = _totalDuration; }

void Mp4MuxerStreamH264Fragment::updatetfdf() {
  if (_tfdt) _tfdt->BaseMediaDecodeTime(_tfdtValue);
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMp4MuxerStreamH264Fragment() {
  kiv::plugin::mov::Reflect<kiv::plugin::mov::Mp4MuxerStreamH264Fragment>(
      "Mp4StreamH264Fragment-mov-mp4-stream-avc1-h264-fragment", {}, "quor");
}
