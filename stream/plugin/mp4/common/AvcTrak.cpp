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

namespace kiv {
namespace plugin {
namespace mov {

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
  cmdhd* mdhd = boxes.mdhd;
  chdlr* hdlr = boxes.hdlr;
  calis* alis = boxes.alis;

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
  if (tags->video_has_color_param) {
    auto* colr = new ccolr();
    colr->_colour_type = (tags->file_type != 0 && !tags->video_colr_use_nclc) ? FCC("nclx") : FCC("nclc");
    const unsigned c = tags->video_color_param;
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
    if (const uint64_t cus = tags->video_cus_color_param) {
      colr->_primaries = static_cast<uint16_t>(cus & 0xff);
      colr->_transfer = static_cast<uint16_t>((cus >> 16) & 0xff);
      colr->_matrix = static_cast<uint16_t>((cus >> 32) & 0xff);
    }
    avc1->Add(colr);
  }

  // ---- the fields
  int width = 1920;
  int height = 1080;
  bool interlace = false;
  if (!media || !media->Get("width", width)) {
    LOGE << "!_media->Get(\"width\", width)";
    return false;
  }
  if (!media->Get("height", height)) {
    LOGE << "!_media->Get(\"height\", height)";
    return false;
  }
  if (!media->Get("interlace", interlace)) {
    LOGE << "!_media->Get(\"interlace\", interlace)";
    return false;
  }
  if (interlace) height *= 2;
  LOGI << "width : " << width << "," << "height : " << height;

  if (in.scale) in.scale->Scale(tags->timescale);

  tkhd->_track_id = static_cast<unsigned>(in.trackId);
  tkhd->_width = static_cast<unsigned short>(width);
  tkhd->_height = static_cast<unsigned short>(height);
  tkhd->Flags(tags->tkhd_flags);
  if (tags->video_track_matrix) std::memcpy(tkhd->_matrix, tags->video_track_matrix, sizeof tkhd->_matrix);
  for (caperture* a : aperture) {
    if (!a) continue;
    a->_width = static_cast<unsigned short>(width);
    a->_height = static_cast<unsigned short>(height);
  }
  mdhd->_timescale = tags->timescale;

  hdlr->_component_type = tags->video_handler_type;
  hdlr->_component_subtype = FCC("vide");
  hdlr->_component_manufacturer = tags->manufacturer;
  hdlr->ComponentName(tags->vidhandercomname, tags->vidhandercomnamelen);
  vmhd->Flags(1);
  alis->Flags(1);

  avc1->_vendor = tags->vendor;
  avc1->_temporal_quality = tags->temporal_quality;
  avc1->_spatial_quality = tags->spatial_quality;
  avc1->_width = static_cast<uint16_t>(width);
  avc1->_height = static_cast<uint16_t>(height);
  avc1->_horizontal_resolution = 0x480000;
  avc1->_vertical_resolution = 0x480000;
  avc1->_frame_count = 1;
  avc1->CompressorName(static_cast<unsigned char>(tags->compressorlen), tags->compressorname,
                       cvmsi::kCompressorNameSize);
  avc1->_depth = 24;
  avc1->_color_table_id = 0xffff;

  unsigned profile = 0, level = 0, ipps = 0, isps = 0;
  unsigned char* pps = nullptr;
  unsigned char* sps = nullptr;
  if (!media->Get("profile", profile)) {
    LOGE << "!_media->Get(\"profile\", profile)";
    return false;
  }
  if (!media->Get("level", level)) {
    LOGE << "!_media->Get(\"level\", level)";
    return false;
  }
  if (!media->Get("pps", pps)) {
    LOGE << "!_media->Get(\"pps\", pps)";
    return false;
  }
  if (!media->Get("ipps", ipps)) {
    LOGE << "!_media->Get(\"ipps\", ipps)";
    return false;
  }
  if (!media->Get("sps", sps)) {
    LOGE << "!_media->Get(\"sps\", sps)";
    return false;
  }
  if (!media->Get("isps", isps)) {
    LOGE << "!_media->Get(\"isps\", isps)";
    return false;
  }
  out.extraSize = ipps + isps;

  avcc->_configuration_version = 1;
  avcc->_profile = static_cast<uint8_t>(tags->AVCProfileIndication ? tags->AVCProfileIndication : profile);
  avcc->_compatibility = tags->profile_compatibility;
  avcc->_level = static_cast<uint8_t>(tags->AVCLevelIndication ? tags->AVCLevelIndication : level);
  avcc->_pps = pps;
  avcc->_pps_size = static_cast<uint16_t>(ipps);
  avcc->_sps = sps;
  avcc->_sps_size = static_cast<uint16_t>(isps);
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
