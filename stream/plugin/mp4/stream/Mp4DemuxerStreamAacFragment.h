// The AAC track of a fragmented file on the reading side: the media from "esds" and "mp4a", an ADTS
// header in front of every frame as the plain AAC track puts it, and a frame length of its own for
// runs that give none.
#pragma once

#include "stream/plugin/mp4/stream/IMp4DemuxerStreamFragment.h"

namespace kiv {
namespace plugin {
namespace mov {

class Mp4DemuxerStreamAacFragment : public IMp4DemuxerStreamFragment {
 public:
  Mp4DemuxerStreamAacFragment();

  bool demuxConfig(kiv::base::Object* param) override;
  Packet* demuxUpdatePacket(IO& io, Packet* packet) override;
  // One frame of _frmSampNum samples in whole ms, cut: 21 at 48000 Hz, 23 at 44100 Hz; 0 without a
  // rate. A long track drifts against the true rate by the cut fraction.
  unsigned updateDuration() override;

  // The frame length (frameSize plus the header) into the header.
  bool AdtsUpdate(unsigned int frameSize);
  // The 7-byte header from the media's "rate" and "channel".
  bool CreateAdts();

  unsigned _rate = 0;
  unsigned _frmSampNum = 1024;
  unsigned _ch = 1;
  unsigned char _adts[7] = {};
  unsigned _adtslen = 0;
  long long _adtslenTold = -1;  // the header length the media was last told
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMp4DemuxerStreamAacFragment();
