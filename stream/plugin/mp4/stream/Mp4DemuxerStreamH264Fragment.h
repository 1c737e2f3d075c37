// The H.264 track of a fragmented file on the reading side: the media from "avc1" and "avcC", and each
// sample turned back into start-code form as the plain H.264 track does it.
#pragma once

#include "stream/plugin/mp4/stream/IMp4DemuxerStreamFragment.h"

namespace kiv {
namespace plugin {
namespace mov {

class Mp4DemuxerStreamH264Fragment : public IMp4DemuxerStreamFragment {
 public:
  Mp4DemuxerStreamH264Fragment();

  // Width, height, profile and level, then the extra data. No frame rate, bit rate or GOP: nothing
  // here knows the samples before they are read.
  bool demuxConfig(kiv::base::Object* param) override;
  Packet* demuxUpdatePacket(IO& io, Packet* packet) override;
  bool setExtraData(IMedia* media) override;
  // Video has no frame length of its own: 0, and the track fragment's default takes its place.
  unsigned updateDuration() override { return 0; }

  unsigned _spsSize = 0;
  unsigned _ppsSize = 0;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMp4DemuxerStreamH264Fragment();
