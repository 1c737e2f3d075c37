#include "stream/plugin/mp4/stream/Mp4DemuxerStreamH264Fragment.h"

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/common/Stsd.h"
#include "stream/plugin/mp4/common/StreamH264.h"

namespace kiv {
namespace plugin {
namespace mov {

Mp4DemuxerStreamH264Fragment::Mp4DemuxerStreamH264Fragment() : IMp4DemuxerStreamFragment("h264") {}

bool Mp4DemuxerStreamH264Fragment::demuxConfig(kiv::base::Object*) {
  if (!newDemuxMedia("h264")) return false;
  auto* avc1 = _trak ? dynamic_cast<cavc1*>(_trak->Find("avc1")) : nullptr;
  if (!avc1) {
    LOGI << "can not find avc1";
    return false;
  }
  _media->Set("width", static_cast<int>(avc1->_width));
  _media->Set("height", static_cast<int>(avc1->_height));
  if (auto* avcc = dynamic_cast<cavcC*>(_trak->Find("avcC"))) {
    _media->Set("profile", static_cast<unsigned>(avcc->_profile));
    _media->Set("level", static_cast<unsigned>(avcc->_level));
  }
  setExtraData(_media);
  return true;
}

bool Mp4DemuxerStreamH264Fragment::setExtraData(IMedia* media) {
  return StreamH264::ExtraFromAvcC(_trak, media, _spsSize, _ppsSize);
}

Packet* Mp4DemuxerStreamH264Fragment::demuxUpdatePacket(IO&, Packet* packet) {
  return StreamH264::RestoreStartCodes(packet, _spsSize, _ppsSize);
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMp4DemuxerStreamH264Fragment() {
  kiv::plugin::mov::Reflect<kiv::plugin::mov::Mp4DemuxerStreamH264Fragment>(
      "Mp4DemuxerStreamH264Fragment-mp4-stream-avc1-h264-demuxer-fragment", {}, "quor");
}
