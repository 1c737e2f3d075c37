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
  StreamH264::PictureFromAvc1(_trak, *avc1, _media);
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
