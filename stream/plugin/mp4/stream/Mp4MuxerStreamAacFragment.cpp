#include "stream/plugin/mp4/stream/Mp4MuxerStreamAacFragment.h"

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/common/AudioEntry.h"
#include "stream/plugin/mp4/common/BoxFMp4.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/StreamAac.h"

namespace kiv {
namespace plugin {
namespace mov {

using namespace fmp4;

Mp4MuxerStreamAacFragment::Mp4MuxerStreamAacFragment() : IMp4MuxerStreamFragment("aac") {}

bool Mp4MuxerStreamAacFragment::muxConfig(kiv::base::Object* tagsObject) {
  if (!profileOf(tagsObject)) return false;
  int rate = 0, chn = 0, width = 0, depth = 0, bitrate = 0;
  const std::string missing = ReadAudioKeys(_media, rate, chn, width, depth, "bitrate", bitrate);
  if (!missing.empty()) {
    LOGE << missing;
    return false;
  }
  if (!_media->Get("adtslen", _adtslen)) {
    LOGE << "!_media->Get(\"adtslen\", adtslen)";
    return false;
  }
  if (rate <= 0) {
    LOGE << "rate " << rate;
    return false;
  }
  LOGI << "_adtslen=" << _adtslen;
  _rate = rate;

  // The trak is the whole-file track's, made by one that keeps its tables in memory and groups
  // nothing; its sample tables stay empty here.
  if (!BorrowTrak<StreamAac>(*this, tagsObject)) return false;
  _scale.Scale(rate);

  framesPerSegment = static_cast<unsigned>(rate / 2048);
  return IMp4MuxerStreamFragment::muxConfig(tagsObject);
}

bool Mp4MuxerStreamAacFragment::createMoof() {
  if (!IMp4MuxerStreamFragment::createMoof()) {
    LOGE << "!IMp4MuxerStreamFragment::createMoof()";
    return false;
  }
  SetEvenFragmentFlags(*_tfhd, *_trun, kFrameSamples);
  return true;
}

int Mp4MuxerStreamAacFragment::GetFrameOffset(Packet&) { return static_cast<int>(_adtslen); }

void Mp4MuxerStreamAacFragment::computeDuration() {
  if (_rate <= 0) return;
  _duration = static_cast<long long>(static_cast<unsigned long long>(_sampleCount) * kFrameSamples * 1000 /
                                     static_cast<unsigned long long>(_rate));
  _durationNs = _duration * 1000000;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMp4MuxerStreamAacFragment() {
  kiv::plugin::mov::Reflect<kiv::plugin::mov::Mp4MuxerStreamAacFragment>(
      "Mp4MuxerStreamAacFragment-mov-mp4-stream-mp4a-aac-fragment", {}, "quor");
}
