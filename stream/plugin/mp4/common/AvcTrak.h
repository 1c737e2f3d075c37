// The trak of an H.264 track: header, media boxes, sample tables and the "avc1" sample entry with its
// "avcC" (and "colr" when the profile asks), built from the media and the profile. Shared by every
// track that writes H.264, whatever its base: the boxes, their order and the failure messages are
// the same for all; only how the sample tables are kept is the caller's choice.
#pragma once

#include <cstdint>
#include <functional>

#include "stream/base/Convert.h"

namespace kiv {
namespace stream {
class IMedia;
}
namespace plugin {
namespace mov {

class IBox;
class IStream;
class ctrak;
class cstbl;
class videoTags;
enum class StblKind;

struct AvcTrakSetup {
  videoTags* tags = nullptr;
  kiv::stream::IMedia* media = nullptr;  // "struct", "width", "height", "interlace", "profile", "level",
                                         // "pps", "ipps", "sps", "isps", "chroma_format_idc", bit depths
  bool version1 = false;                 // 64-bit times in the headers
  bool use64 = false;                    // "co64" in place of "stco"
  int trackId = 0;
  unsigned listCapacity = 0;                    // records reserved in the stbl's list
  kiv::base::TimeScale* scale = nullptr;        // takes the profile's time scale
  // Makes the sample table of a kind under stbl; unset, the plain tables.
  std::function<void(IBox* stbl, StblKind kind)> addTable;
};

// The setup for a stream's track: its media, header flags, track id and time scale, with the plain
// tables.
AvcTrakSetup AvcTrakSetupFor(IStream& stream, videoTags* tags);

struct AvcTrak {
  ctrak* trak = nullptr;   // made even when a later step fails; the caller owns it
  cstbl* stbl = nullptr;
  uint32_t structure = 0;  // the media's "struct": "ibbp" (B-frames), "iiii" (all intra), or 0
  unsigned extraSize = 0;  // bytes of SPS and PPS
};

// Builds the trak into out. False, logged, at the first media attribute missing; the boxes made so
// far are left in out.
bool BuildAvcTrak(const AvcTrakSetup& in, AvcTrak& out);

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
