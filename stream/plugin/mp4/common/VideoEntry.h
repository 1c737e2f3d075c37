// What the video tracks fill alike, whatever their codec and base: the "colr" box a profile asks for,
// the fields of the track and media headers and of the visual sample entry, and the media attributes
// every video track reads. The readers hand back the failure text of the first attribute missing, so
// that each track logs it as its own.
#pragma once

#include <cstdint>

#include "stream/base/Convert.h"
#include "stream/plugin/mp4/common/IStream.h"

namespace kiv {
namespace plugin {
namespace mov {

class ccolr;
class ctkhd;
class cvmhd;
class cvmsi;

// The "colr" box a video entry carries when the profile asks for one.
ccolr* NewVideoColr(const videoTags& tags);

// Bytes a table on file reserves in a video track, for the planned frames of planSeconds at the rate;
// vspc is the profile's samples a chunk.
long long VideoTableReserve(StblKind kind, const kiv::base::Fraction& rate, int planSeconds, bool fixedRate,
                            unsigned vspc);

// "width", "height" and "interlace" (an interlaced height is doubled). Null when all are there.
const char* ReadPictureSize(IMedia* media, int& width, int& height);

// "profile", "level", "pps", "ipps", "sps" and "isps", in this order.
struct ParamSetKeys {
  unsigned profile = 0;
  unsigned level = 0;
  unsigned char* pps = nullptr;
  unsigned ipps = 0;
  unsigned char* sps = nullptr;
  unsigned isps = 0;
};
// Null when all are there.
const char* ReadParamSetKeys(IMedia& media, ParamSetKeys& keys);

// tkhd as the profile has it: track id, picture size, flags and matrix.
void FillVideoTkhd(ctkhd& tkhd, const videoTags& tags, int trackId, int width, int height);
// mdhd's time scale, the handler (componentType, "vide", the profile's manufacturer and name), and the
// flags of vmhd and alis.
void FillVideoMedia(const IStream::MediaBoxes& boxes, cvmhd& vmhd, const videoTags& tags, uint32_t componentType);
// The visual part of a sample entry.
void FillVisualEntry(cvmsi& entry, const videoTags& tags, int width, int height, uint32_t temporalQuality,
                     uint32_t spatialQuality);

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
