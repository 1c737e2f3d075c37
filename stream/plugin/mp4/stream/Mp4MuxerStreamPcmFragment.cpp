#include "stream/plugin/mp4/stream/Mp4MuxerStreamPcmFragment.h"

#include <cstdint>

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/common/AudioEntry.h"
#include "stream/plugin/mp4/common/BoxFMp4.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/StreamPcm.h"

namespace kiv {
namespace plugin {
namespace mov {

using namespace fmp4;

Mp4MuxerStreamPcmFragment::Mp4MuxerStreamPcmFragment() : IMp4MuxerStreamFragment("araw") {}

bool Mp4MuxerStreamPcmFragment::muxConfig(kiv::base::Object* tagsObject) {
  if (!profileOf(tagsObject)) return false;
  int rate = 0, chn = 0, width = 0, depth = 0, samples = 0;
  const std::string missing = ReadAudioKeys(_media, rate, chn, width, depth, "samples", samples);
  if (!missing.empty()) {
    LOGE << missing;
    return false;
  }

  // The trak is the whole-file track's, made by one that keeps its tables in memory and groups
  // nothing; its sample tables stay empty here. It also refuses rates, channels and widths the
  // sample entry cannot hold, and logs the sizes.
  if (!BorrowTrak<StreamPcm>(*this, tagsObject)) return false;
  _rate = static_cast<unsigned>(rate);
  _samples = static_cast<unsigned>(samples);
  _scale.Scale(rate);

  framesPerSegment = _samples ? (_rate / _samples) / 2 : 0;
  return IMp4MuxerStreamFragment::muxConfig(tagsObject);
}

bool Mp4MuxerStreamPcmFragment::createMoof() {
  if (!IMp4MuxerStreamFragment::createMoof()) {
    LOGE << "!IMp4MuxerStreamFragment::createMoof()";
    return false;
  }
  SetEvenFragmentFlags(*_tfhd, *_trun, _samples);
  return true;
}

void Mp4MuxerStreamPcmFragment::computeDuration() {
  // Milliseconds from a product kept on 32 bits: it wraps after 2^32 / (samples x 1000) packets
  // (about 87 s at 48 kHz with 1024 frames a packet), and the tfdt that follows from it with it.
  const uint32_t ms = _rate ? static_cast<uint32_t>(_samples * 1000u * _sampleCount) / _rate : 0;
  _duration = static_cast<long long>(ms);
  _durationNs = _duration * 1000000;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMp4MuxerStreamPcmFragment() {
  kiv::plugin::mov::Reflect<kiv::plugin::mov::Mp4MuxerStreamPcmFragment>(
      "Mp4MuxerStreamPcmFragment-mov-mp4-stream-mp4a-pcm-fragment", {}, "quor");
}
