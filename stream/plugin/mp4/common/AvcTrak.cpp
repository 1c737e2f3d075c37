#include "stream/plugin/mp4/common/AvcTrak.h"

#include <cstring>

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/IStream.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "stream/plugin/mp4/common/StblFile.h"
#include "stream/plugin/mp4/common/Stsd.h"
#include "stream/plugin/mp4/common/VideoEntry.h"

namespace kiv {
namespace plugin {
namespace mov {

AvcTrakSetup AvcTrakSetupFor(IStream& stream, videoTags* tags) {
  AvcTrakSetup setup;
  setup.tags = tags;
  setup.media = stream._media;
  setup.version1 = stream._version1;
  setup.use64 = stream._use64;
  setup.trackId = stream._trackId;
  setup.scale = &stream._scale;
  return setup;
}

bool BuildAvcTrak(const AvcTrakSetup& in, AvcTrak& out) {
  videoTags* tags = in.tags;
  kiv::stream::IMedia* media = in.media;
  const unsigned char version = in.version1 ? 1 : 0;
  auto addTable = [&in](IBox* stbl, StblKind kind) {
    if (in.addTable)
      in.addTable(stbl, kind);
    else
      stbl->Add(NewTable(kind, nullptr));
  };

  // The tree first, then its fields: a failing attribute leaves a half-filled tree behind.
  auto* trak = new ctrak();
  out.trak = trak;
  out.structure = 0;
  if (media) media->Get("struct", out.structure);
  const bool ibbp = out.structure == FCC("ibbp");
  const bool iiii = out.structure == FCC("iiii");

  auto* tkhd = new ctkhd(version);
  trak->Add(tkhd);
  caperture* aperture[3] = {nullptr, nullptr, nullptr};
  if (tags->ios_support_box_add) {
    auto* tapt = new ctapt();
    trak->Add(tapt);
    aperture[0] = new cclef();
    aperture[1] = new cprof();
    aperture[2] = new cenof();
    for (caperture* a : aperture) tapt->Add(a);
  }
  auto* vmhd = new cvmhd();
  const IStream::MediaBoxes boxes = IStream::addMediaBoxes(
      trak, version, tags->video_has_edts, tags->video_track_lang_id, vmhd, tags->video_handler_minf_present,
      tags->vidhandlerrefcomname, tags->vidhandlerrefcomnamelen, tags->datareftype);

  auto* stbl = new cstbl(in.listCapacity);
  out.stbl = stbl;
  boxes.minf->Add(stbl);
  auto* stsd = new cstsd();
  stbl->Add(stsd);

  addTable(stbl, StblKind::stts);
  if (ibbp) addTable(stbl, StblKind::ctts);
  if (!tags->stbl_order && !iiii) addTable(stbl, StblKind::stss);
  if (tags->ios_support_box_add) addTable(stbl, StblKind::sdtp);
  addTable(stbl, StblKind::stsc);
  addTable(stbl, StblKind::stsz);
  addTable(stbl, in.use64 ? StblKind::co64 : StblKind::stco);
  if (tags->stbl_order && !iiii) addTable(stbl, StblKind::stss);

  auto* avc1 = new cavc1();
  stsd->Add(avc1);
  auto* avcc = new cavcC();
  avc1->Add(avcc);
  if (tags->video_has_color_param) avc1->Add(NewVideoColr(*tags));

  // ---- the fields
  int width = 1920;
  int height = 1080;
  if (const char* missing = ReadPictureSize(media, width, height)) {
    LOGE << missing;
    return false;
  }
  LOGI << "width : " << width << "," << "height : " << height;

  if (in.scale) in.scale->Scale(tags->timescale);

  FillVideoTkhd(*tkhd, *tags, in.trackId, width, height);
  for (caperture* a : aperture) {
    if (!a) continue;
    a->_width = static_cast<unsigned short>(width);
    a->_height = static_cast<unsigned short>(height);
  }
  FillVideoMedia(boxes, *vmhd, *tags, tags->video_handler_type);
  FillVisualEntry(*avc1, *tags, width, height, tags->temporal_quality, tags->spatial_quality);

  ParamSetKeys keys;
  if (const char* missing = ReadParamSetKeys(*media, keys)) {
    LOGE << missing;
    return false;
  }
  out.extraSize = keys.ipps + keys.isps;

  avcc->_configuration_version = 1;
  avcc->_profile = static_cast<uint8_t>(tags->AVCProfileIndication ? tags->AVCProfileIndication : keys.profile);
  avcc->_compatibility = tags->profile_compatibility;
  avcc->_level = static_cast<uint8_t>(tags->AVCLevelIndication ? tags->AVCLevelIndication : keys.level);
  avcc->_pps = keys.pps;
  avcc->_pps_size = static_cast<uint16_t>(keys.ipps);
  avcc->_sps = keys.sps;
  avcc->_sps_size = static_cast<uint16_t>(keys.isps);
  unsigned chroma = 0;
  if (!media->Get("chroma_format_idc", chroma)) {
    LOGE << "!_media->Get(\"chroma_format_idc\", avcc->_chroma_format_idc)";
    return false;
  }
  avcc->_chroma_format = static_cast<uint8_t>(chroma);
  if (!media->Get("bit_depth_luma_minus8", avcc->_luma_bit_depth)) {
    LOGE << "!_media->Get(\"bit_depth_luma_minus8\", avcc->_bit_depth_luma_minus8)";
    return false;
  }
  if (!media->Get("bit_depth_chroma_minus8", avcc->_chroma_bit_depth)) {
    LOGE << "!_media->Get(\"bit_depth_chroma_minus8\", avcc->_bit_depth_chroma_minus8)";
    return false;
  }

  return true;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
