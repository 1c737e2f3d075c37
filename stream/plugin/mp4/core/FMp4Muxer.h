// The muxer element for fragmented MP4: Mp4Muxer with another engine's Open and Close. The file
// starts with an init segment (ftyp, then moov with mvex), the tracks append a moof and mdat pair for
// each fragment as packets come, and Close ends the file with mfra, the index of the fragments.
//
// A recording cut off at any moment keeps every fragment that reached the medium before the cut:
// with "flush", each fragment is forced out (and mehd patched) before the next one starts.
//
// Properties: "flush" (bool), "durationPreSegment-dps" (the length of a fragment in nanoseconds, or
// as text such as "2s" or "500ms"; 0 lets each track cut by its own count: a video track at each
// GOP, an audio track about every half second), and those of MovMuxer.
#pragma once

#include <string>
#include <vector>

#include "stream/plugin/mp4/core/Mp4Muxer.h"

namespace kiv {
namespace plugin {
namespace mov {

// A length in nanoseconds that a host may also set as text ("2s", "500ms", a bare number is ns).
struct DurationNs {
  long long ns = 0;
};
bool ConvertToImpl(const char* text, DurationNs& out);
bool ConvertToImpl(const DurationNs& v, std::string& out);

class FMp4Muxer : public Mp4Muxer {
 public:
  FMp4Muxer();

  using Mp4Muxer::Close;
  using Mp4Muxer::Open;

  // ---- the engine's
  bool Open(kiv::base::IO& io, std::vector<kiv::stream::IMedia*>& list, kiv::base::AttrSet& ap) override;
  bool Close(kiv::base::IO& io) override;
  // A track wrote a fragment: with flush, mehd is patched and the fragment forced to the medium.
  bool Update(IStream* stream, kiv::base::IO* io) override;

  // After each packet: the running duration is the longest track's. The video track counts no length,
  // so a file with audio runs by its audio, whichever track took the packet or wrote the last fragment.
  bool process(kiv::base::IO& io, kiv::stream::Packet& packet) override;
  // mehd from the running duration, patched in the file.
  void Update(kiv::base::IO* io);
  // The longest track's length so far, ms.
  unsigned long long runningDuration() const;
  // A trex for the track under mvex.
  void AddTrex(IStream* stream);
  // The index of every track's fragments at the end of the file.
  void fillmfra(kiv::base::IO& io);

  IBox* _mvex = nullptr;
  IBox* _mehd = nullptr;
  IBox* _mvhd = nullptr;
  int _moofIndex = 0;  // shared by all tracks: the sequence number of the next moof
  bool flush = false;
  DurationNs durationPreSegment;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterFMp4Muxer();
