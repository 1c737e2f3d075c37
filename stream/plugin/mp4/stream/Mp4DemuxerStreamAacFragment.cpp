#include "stream/plugin/mp4/stream/Mp4DemuxerStreamAacFragment.h"

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/common/StreamAac.h"

namespace kiv {
namespace plugin {
namespace mov {

Mp4DemuxerStreamAacFragment::Mp4DemuxerStreamAacFragment() : IMp4DemuxerStreamFragment("mp4a") {}

bool Mp4DemuxerStreamAacFragment::demuxConfig(kiv::base::Object*) {
  if (!newDemuxMedia("aac")) return false;
  if (!StreamAac::DemuxMedia(_trak, _media, _frmSampNum, _rate, _ch)) return false;
  _adtslen = 0;
  if (CreateAdts()) _adtslen = 7;
  if (const char* refused = StreamAac::TellAdts(_media, _adtslen)) {
    LOGE << refused;
    return false;
  }
  _adtslenTold = _adtslen;
  return true;
}

bool Mp4DemuxerStreamAacFragment::CreateAdts() {
  if (!_media) {
    LOGE << "!media";
    return false;
  }
  if (!_media->Get("channel", _ch)) {
    LOGE << "!media->Get(\"channel\", _ch)";
    return false;
  }
  if (!_media->Get("rate", _rate)) {
    LOGE << "!media->Get(\"rate\", _rate)";
    return false;
  }
  StreamAac::AdtsHeader(_rate, _ch, _adts);
  _adtslen = 7;
  return true;
}

bool Mp4DemuxerStreamAacFragment::AdtsUpdate(unsigned int frameSize) {
  StreamAac::AdtsLength(_adts, frameSize + _adtslen);
  return true;
}

Packet* Mp4DemuxerStreamAacFragment::demuxUpdatePacket(IO&, Packet* packet) {
  return StreamAac::PutAdts(packet, _media, _adts, _adtslen, _adtslenTold);
}

unsigned Mp4DemuxerStreamAacFragment::updateDuration() {
  // 32-bit unsigned on purpose, as the frame length has always been computed.
  const unsigned divisor = _ch * 2u * _rate;
  const unsigned d = divisor == 0 ? 0 : _ch * (2000u * _frmSampNum) / divisor;
  LOGL << "_rate=" << _rate;
  LOGL << "_ch=" << _ch;
  LOGL << "dur=" << d;
  return d;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMp4DemuxerStreamAacFragment() {
  kiv::plugin::mov::Reflect<kiv::plugin::mov::Mp4DemuxerStreamAacFragment>(
      "Mp4DemuxerStreamAacFragment-mp4-stream-mp4a-aac-demuxer-fragment", {}, "quor");
}
