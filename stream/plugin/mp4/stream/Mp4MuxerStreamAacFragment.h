// The AAC track of a fragmented file: the trak of the whole-file AAC track without tables on file,
// ADTS headers cut off, every frame 1024 samples long as tfhd states once. Audio has no key frames:
// a fragment is cut by count (about half a second of frames) or by the muxer's duration.
#pragma once

#include "stream/plugin/mp4/stream/IMp4MuxerStreamFragment.h"

namespace kiv {
namespace plugin {
namespace mov {

class Mp4MuxerStreamAacFragment : public IMp4MuxerStreamFragment {
 public:
  static constexpr unsigned kFrameSamples = 1024;

  Mp4MuxerStreamAacFragment();

  bool muxConfig(kiv::base::Object* tags) override;
  bool createMoof() override;
  // The ADTS header ("adtslen") stays out of the file.
  int GetFrameOffset(Packet& packet) override;
  // The length from the frames written, not from their time stamps.
  void computeDuration() override;

  int _rate = 0;
  unsigned _adtslen = 0;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMp4MuxerStreamAacFragment();
