// The H.264 track of a fragmented file: the trak of the whole-file H.264 track (AvcTrak.h) without
// tables on file, fragments cut only in front of a key frame, and the Annex-B start codes of each
// sample turned into length prefixes on the way to the file (AvcNal.h).
//
// Fragment cutting: by default at each GOP of the media ("gop" packets a fragment); with the muxer's
// duration set, at the first key frame once the fragment holds that much. The key frame that
// triggers a cut opens the next fragment.
#pragma once

#include "stream/plugin/mp4/stream/IMp4MuxerStreamFragment.h"

namespace kiv {
namespace plugin {
namespace mov {

class Mp4MuxerStreamH264Fragment : public IMp4MuxerStreamFragment {
 public:
  Mp4MuxerStreamH264Fragment();

  bool muxConfig(kiv::base::Object* tags) override;
  bool createMoof() override;
  bool CheckCreateSegment(IO& io) override;
  // The start codes of the head turned into lengths in place; the paths here do not use it.
  int GetFrameOffset(Packet& packet) override;
  int GetFrameSize(Packet& packet) override;
  bool WriteFrame(IO& io, Packet& packet) override;
  // The video track's length stays 0: the file's length comes from its audio track, if any.
  void computeDuration() override;
  void updatetfdf() override;

  virtual int GetSliceDataOffset(Packet& packet);
  virtual int WriteNaluHeader(IO& io, Packet& packet);
  virtual int UpdateNaluHeader(unsigned char* buffer, unsigned size, unsigned total);

  unsigned _headerState[2] = {0, 0};
  unsigned char _naluHeader[256] = {};
  unsigned long long _tfdtValue = 0;  // the tfdt of the next fragment, track units
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMp4MuxerStreamH264Fragment();
