#include "stream/plugin/mp4/common/VideoEntry.h"

#include <cstring>

#include "stream/core/IMedia.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/StblFile.h"
#include "stream/plugin/mp4/common/Stsd.h"

namespace kiv {
namespace plugin {
namespace mov {

ccolr* NewVideoColr(const videoTags& tags) {
  auto* colr = new ccolr();
  colr->_colour_type = (tags.file_type != 0 && !tags.video_colr_use_nclc) ? FCC("nclx") : FCC("nclc");
  const unsigned c = tags.video_color_param;
  const unsigned low = c & 0x7F;
  colr->_not_bt709 = static_cast<uint8_t>(low);
  if (low) {
    colr->_full_range = (c & 0x80) ? 1 : 0;
    colr->_primaries = 6;
    colr->_transfer = 1;
    colr->_matrix = 6;
  } else {
    // The opposite sense of the bit in this case, as the profiles in the field expect it.
    colr->_full_range = (c & 0x80) ? 0 : 1;
    colr->_primaries = 1;
    colr->_transfer = 1;
    colr->_matrix = 1;
  }
  if (const uint64_t cus = tags.video_cus_color_param) {
    colr->_primaries = static_cast<uint16_t>(cus & 0xff);
    colr->_transfer = static_cast<uint16_t>((cus >> 16) & 0xff);
    colr->_matrix = static_cast<uint16_t>((cus >> 32) & 0xff);
  }
  return colr;
}

long long VideoTableReserve(StblKind kind, const kiv::base::Fraction& rate, int planSeconds, bool fixedRate,
                            unsigned vspc) {
  const long long num = rate.Num();
  const long long den = rate.Den();
  // k * N / div for the planned number of frames N.
  auto reserve = [&](long long k, long long div) -> long long {
    if (!den) return 0;
    const long long v = k * planSeconds * num / den;
    return div > 1 ? v / div : v;
  };
  switch (kind) {
    case StblKind::stts: return fixedRate ? 32 : reserve(8, 1);
    case StblKind::ctts: return reserve(16, 3);
    case StblKind::stss: return reserve(4, 15);
    case StblKind::sdtp: return reserve(1, 1);
    case StblKind::stsc: return vspc <= 1 ? 32768 : reserve(12, vspc);
    case StblKind::stsz: return reserve(4, 1);
    case StblKind::stco: return reserve(4, 1);
    case StblKind::co64: return reserve(8, 1);
  }
  return 0;
}

const char* ReadPictureSize(IMedia* media, int& width, int& height) {
  bool interlace = false;
  if (!media || !media->Get("width", width)) return "!_media->Get(\"width\", width)";
  if (!media->Get("height", height)) return "!_media->Get(\"height\", height)";
  if (!media->Get("interlace", interlace)) return "!_media->Get(\"interlace\", interlace)";
  if (interlace) height *= 2;
  return nullptr;
}

const char* ReadParamSetKeys(IMedia& media, ParamSetKeys& keys) {
  if (!media.Get("profile", keys.profile)) return "!_media->Get(\"profile\", profile)";
  if (!media.Get("level", keys.level)) return "!_media->Get(\"level\", level)";
  if (!media.Get("pps", keys.pps)) return "!_media->Get(\"pps\", pps)";
  if (!media.Get("ipps", keys.ipps)) return "!_media->Get(\"ipps\", ipps)";
  if (!media.Get("sps", keys.sps)) return "!_media->Get(\"sps\", sps)";
  if (!media.Get("isps", keys.isps)) return "!_media->Get(\"isps\", isps)";
  return nullptr;
}

void FillVideoTkhd(ctkhd& tkhd, const videoTags& tags, int trackId, int width, int height) {
  tkhd._track_id = static_cast<unsigned>(trackId);
  tkhd._width = static_cast<unsigned short>(width);
  tkhd._height = static_cast<unsigned short>(height);
  tkhd.Flags(tags.tkhd_flags);
  if (tags.video_track_matrix) std::memcpy(tkhd._matrix, tags.video_track_matrix, sizeof tkhd._matrix);
}

void FillVideoMedia(const IStream::MediaBoxes& boxes, cvmhd& vmhd, const videoTags& tags, uint32_t componentType) {
  boxes.mdhd->_timescale = tags.timescale;
  boxes.hdlr->_component_type = componentType;
  boxes.hdlr->_component_subtype = FCC("vide");
  boxes.hdlr->_component_manufacturer = tags.manufacturer;
  boxes.hdlr->ComponentName(tags.vidhandercomname, tags.vidhandercomnamelen);
  vmhd.Flags(1);
  boxes.alis->Flags(1);
}

void FillVisualEntry(cvmsi& entry, const videoTags& tags, int width, int height, uint32_t temporalQuality,
                     uint32_t spatialQuality) {
  entry._vendor = tags.vendor;
  entry._temporal_quality = temporalQuality;
  entry._spatial_quality = spatialQuality;
  entry._width = static_cast<uint16_t>(width);
  entry._height = static_cast<uint16_t>(height);
  entry._horizontal_resolution = 0x480000;
  entry._vertical_resolution = 0x480000;
  entry._frame_count = 1;
  entry.CompressorName(static_cast<unsigned char>(tags.compressorlen), tags.compressorname,
                       cvmsi::kCompressorNameSize);
  entry._depth = 24;
  entry._color_table_id = 0xffff;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
