// The PCM track of a fragmented file: the trak of the whole-file PCM track without tables on file.
// Every packet is one sample of the fragment, "samples" sample frames long as tfhd states once.
// Audio has no key frames: a fragment is cut by count (about half a second of packets) or by the
// muxer's duration.
#pragma once

#include "stream/plugin/mp4/stream/IMp4MuxerStreamFragment.h"

namespace kiv {
namespace plugin {
namespace mov {

class Mp4MuxerStreamPcmFragment : public IMp4MuxerStreamFragment {
 public:
  Mp4MuxerStreamPcmFragment();

  bool muxConfig(kiv::base::Object* tags) override;
  bool createMoof() override;
  // The length from the packets written, not from their time stamps.
  void computeDuration() override;

  unsigned _rate = 0;
  unsigned _samples = 0;  // sample frames a packet
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMp4MuxerStreamPcmFragment();
