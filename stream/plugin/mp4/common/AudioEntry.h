// What the audio tracks fill alike, plain or fragmented: the media attributes every audio track
// reads, the fields of the track and media headers, and the flags of a fragment whose samples all
// last alike. The reader hands back the failure text of the first attribute missing, so that each
// track logs it as its own, at its own level.
#pragma once

#include <string>

#include "stream/plugin/mp4/common/IStream.h"

namespace kiv {
namespace plugin {
namespace mov {

namespace fmp4 {
class ctfhd;
class ctrun;
}  // namespace fmp4
class ctkhd;

// "rate", "channel", "width", "depth" and then the track's own key `last` (an int, into lastValue), in
// this order. The failure text of the first one missing; empty when all are there.
std::string ReadAudioKeys(IMedia* media, int& rate, int& channels, int& width, int& depth, const char* last,
                          int& lastValue);

// The trak of an audio track down to minf, as the profile has it, with its header in tkhd.
IStream::MediaBoxes NewAudioTrak(const videoTags& tags, bool version1, IBox*& trak, ctkhd*& tkhd);

// tkhd (the profile's flags, the track id, full volume), mdhd's time scale, the handler (the
// profile's type, "soun", manufacturer and name) and alis's flags.
void FillAudioHeaders(ctkhd& tkhd, const IStream::MediaBoxes& boxes, const videoTags& tags, int trackId,
                      unsigned timescale);

// A fragment whose samples all last `duration`: the default in tfhd, based at the moof, and a trun
// with a data offset and the sizes.
void SetEvenFragmentFlags(fmp4::ctfhd& tfhd, fmp4::ctrun& trun, unsigned duration);

// The trak of the whole-file track T, made by one that keeps its tables in memory and groups
// nothing, handed to `into` (its sample tables stay empty); into's trak even when T refuses the
// media, as a failed muxConfig leaves it. False when it is refused.
template <class T>
bool BorrowTrak(IStream& into, kiv::base::Object* tags) {
  T builder;
  builder._media = into._media;
  builder._trackId = into._trackId;
  builder._version1 = into._version1;
  builder._use64 = into._use64;
  builder.MuxParamSet(nullptr);
  const bool built = builder.muxConfig(tags);
  into._trak = builder._trak;
  builder._trak = nullptr;
  return built;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
