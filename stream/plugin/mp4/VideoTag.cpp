#include "stream/plugin/mp4/VideoTag.h"

#include <cstring>
#include <sstream>
#include <string>

#include "stream/base/Helpers.h"
#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/common/BoxText.h"

namespace kiv {
namespace plugin {
namespace mov {
namespace {

uint32_t fcc(const char* text) {
  uint32_t v = 0;
  Convert32(v, text);
  return v;
}

// The compressor name as stored: a length byte, then the text; the length byte is not copied.
const uint8_t kCompressorTable[32] = {12, 'Q', 'u', 'o', 'r', 'e', 'l', ' ', 'A', 'V', 'C', 'C'};

void setText(uint8_t (&storage)[64], const char* text) {
  std::memset(storage, 0, sizeof storage);
  std::strncpy(reinterpret_cast<char*>(storage), text, sizeof storage - 1);
}

}  // namespace

videoTags::videoTags()
    : vendor(fcc("quor")),
      manufacturer(fcc("quor")),
      datareftype(fcc("alis")),
      video_track_matrix(identity_matrix),
      compressorname(compressor_storage),
      video_handler_type(fcc("mhlr")),
      vidhandercomname(video_handler_name),
      vidhandlerrefcomname(video_data_handler_name),
      audio_handler_type(fcc("mhlr")),
      audhandercomname(audio_handler_name),
      audhandlerrefcomname(audio_data_handler_name) {
  std::memcpy(compressor_storage, kCompressorTable + 1, sizeof compressor_storage);
  setText(video_handler_name, "Video Handler");
  setText(video_data_handler_name, "Quorel Alias Data Handler");
  setText(audio_handler_name, "Audio Handler");
  setText(audio_data_handler_name, "Quor Alias Data Handler");
}

void videoTags::Mp4Flavour() {
  major_brand = fcc("mp42");
  minor_version = 1;
  compatible_brands = nullptr;
  compatible_brands_cnt = 0;
  pref_volume = 256;
  video_track_lang_id = 21956;
  audio_track_lang_id = 21956;
  audio_has_edts = 0;
  vendor = 0;
  manufacturer = 0;
  datareftype = fcc("url ");
  movie_time_scale = 60000;
  tkhd_flags = 1;
  track_id_start = 1;
  stbl_order = 0;
  no_udta = 0;
  no_freebox = 1;
  moov_first = 0;
  sphericaltag = 0;
  ios_support_box_add = false;
  timescale = 60000;
  // Only the ten characters: the eleventh of the old name stays behind them.
  std::memcpy(compressor_storage, "AVC Coding", 10);
  compressorlen = 32;
  video_has_edts = 0;
  temporal_quality = 0;
  spatial_quality = 0;
  videosampleperchunk = 1;
  AVCProfileIndication = 0;
  profile_compatibility = 0;
  AVCLevelIndication = 0;
  video_has_color_param = 1;
  video_colr_use_nclc = 0;
  video_color_param = 0;
  video_cus_color_param = 0;
  video_has_fiel_box = 0;
  video_handler_minf_present = 0;
  video_handler_type = 0;
  setText(video_handler_name, "");
  vidhandercomnamelen = 1;
  setText(video_data_handler_name, "");
  vidhandlerrefcomnamelen = 1;
  audio_compression_id = 0;
  audio_ES_ID = 0;
  audio_streamPrority = 0;
  audio_bufferSizeDB = 0x100000;
  audiosampleperchunk = 1;
  audio_handler_type = 0;
  setText(audio_handler_name, "");
  audhandercomnamelen = 1;
  setText(audio_data_handler_name, "");
  audhandlerrefcomnamelen = 1;
  audio_handler_minf_present = 0;
  audio_tkhd_same_duration = 1;
  audio_mdhd_same_duration = 0;
  audio_chunk_first = 0;
  reserved_flag = 0;
  uuid_present = 0;
  iframe_brand = 0;
  file_type = Hash(kHashBasis, "mp4");
}

std::ostream& videoTags::operator>>(std::ostream& os) {
  auto line = [&os](int n, const std::string& text) {
    os << dbg::FormatLine(dbg::I, __FILE__, n, "operator>>", text);
  };
  std::ostringstream s;
  auto flush = [&](int n) {
    line(n, s.str());
    s.str(std::string());
  };
  s << "major_brand: " << FccText(major_brand) << ", minor_version: " << minor_version
    << ", compatible_brands_cnt: " << compatible_brands_cnt << ", compatible_brands:";
  for (uint32_t i = 0; compatible_brands && i < compatible_brands_cnt; ++i) s << " " << FccText(compatible_brands[i]);
  flush(__LINE__);
  s << "video_track_lang_id: " << video_track_lang_id << ", audio_track_lang_id: " << audio_track_lang_id
    << ", audio_has_edts: " << audio_has_edts;
  flush(__LINE__);
  s << "vendor: " << FccText(vendor) << ", component_manuf: " << FccText(manufacturer)
    << ", data_ref_type: " << FccText(datareftype) << ", tkhd_flags: " << tkhd_flags;
  flush(__LINE__);
  s << "stbl_order: " << int(stbl_order) << ", no_udta: " << int(no_udta) << ", no_freebox: " << int(no_freebox)
    << ", moov_first: " << int(moov_first);
  flush(__LINE__);
  s << "movie_time_scale: " << movie_time_scale << ", time_scale: " << timescale
    << ", temporal_quality: " << temporal_quality << ", spatial_quality: " << spatial_quality;
  flush(__LINE__);
  s << "video_sample_per_chunk: " << videosampleperchunk << ", AVCProfileIndication: " << int(AVCProfileIndication)
    << ", profile_compatibility: " << int(profile_compatibility)
    << ", AVCLevelIndication: " << int(AVCLevelIndication);
  flush(__LINE__);
  s << "video_has_color_param: " << int(video_has_color_param) << ", video_has_fiel_box: " << int(video_has_fiel_box)
    << ", video_handler_minf_present: " << int(video_handler_minf_present);
  flush(__LINE__);
  s << "audio_compression_id: " << audio_compression_id << ", audio_ES_ID: " << audio_ES_ID
    << ", audio_streamPrority: " << audio_streamPrority << ", audio_bufferSizeDB: " << audio_bufferSizeDB;
  flush(__LINE__);
  s << "audio_sample_per_chunk: " << audiosampleperchunk
    << ", audio_handler_minf_present: " << int(audio_handler_minf_present)
    << ", audio_mdhd_same_duration: " << int(audio_mdhd_same_duration)
    << ", audio_chunk_first: " << int(audio_chunk_first) << ", uuid_present: " << int(uuid_present);
  flush(__LINE__);
  return os;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterVideoTags() {
  using kiv::plugin::mov::videoTags;
  using P = kiv::base::TProperty<videoTags>;
  kiv::plugin::mov::Reflect<videoTags>(
      "videoTags",
      {
          P::Member("major_brand", &videoTags::major_brand),
          P::Member("minor_version", &videoTags::minor_version),
          P::Member("compatible_brands", &videoTags::compatible_brands),
          P::Member("compatible_brands_cnt", &videoTags::compatible_brands_cnt),
          P::Member("pref_volume", &videoTags::pref_volume),
          P::Member("tkhd_flags", &videoTags::tkhd_flags),
          P::Member("track_id_start", &videoTags::track_id_start),
          P::Member("video_track_lang_id", &videoTags::video_track_lang_id),
          P::Member("audio_track_lang_id", &videoTags::audio_track_lang_id),
          P::Member("temporal_quality", &videoTags::temporal_quality),
          P::Member("spatial_quality", &videoTags::spatial_quality),
          P::Member("movie_time_scale", &videoTags::movie_time_scale),
          P::Member("timescale", &videoTags::timescale),
          P::Member("vendor", &videoTags::vendor),
          P::Member("manufacturer", &videoTags::manufacturer),
          P::Member("datareftype", &videoTags::datareftype),
          P::Member("compressorname", &videoTags::compressorname),
          P::Member("compressorlen", &videoTags::compressorlen),
          P::Member("vidhandercomname", &videoTags::vidhandercomname),
          P::Member("vidhandercomnamelen", &videoTags::vidhandercomnamelen),
          P::Member("vidhandlerrefcomname", &videoTags::vidhandlerrefcomname),
          P::Member("vidhandlerrefcomnamelen", &videoTags::vidhandlerrefcomnamelen),
          P::Member("video_handler_minf_present", &videoTags::video_handler_minf_present),
          P::Member("videosampleperchunk", &videoTags::videosampleperchunk),
          P::Member("AVCProfileIndication", &videoTags::AVCProfileIndication),
          P::Member("profile_compatibility", &videoTags::profile_compatibility),
          P::Member("AVCLevelIndication", &videoTags::AVCLevelIndication),
          P::Member("video_track_matrix", &videoTags::video_track_matrix),
          P::Member("video_has_color_param", &videoTags::video_has_color_param),
          P::Member("video_colr_use_nclc", &videoTags::video_colr_use_nclc),
          P::Member("video_color_param", &videoTags::video_color_param),
          P::Member("video_cus_color_param", &videoTags::video_cus_color_param),
          P::Member("video_has_fiel_box", &videoTags::video_has_fiel_box),
          P::Member("audiosampleperchunk", &videoTags::audiosampleperchunk),
          P::Member("audhandercomname", &videoTags::audhandercomname),
          P::Member("audhandercomnamelen", &videoTags::audhandercomnamelen),
          P::Member("audhandlerrefcomname", &videoTags::audhandlerrefcomname),
          P::Member("audhandlerrefcomnamelen", &videoTags::audhandlerrefcomnamelen),
          P::Member("audio_handler_minf_present", &videoTags::audio_handler_minf_present),
          P::Member("audio_has_edts", &videoTags::audio_has_edts),
          P::Member("audio_chunk_first", &videoTags::audio_chunk_first),
          P::Member("stbl_order", &videoTags::stbl_order),
          P::Member("no_udta", &videoTags::no_udta),
          P::Member("audio_compression_id", &videoTags::audio_compression_id),
          P::Member("audio_ES_ID", &videoTags::audio_ES_ID),
          P::Member("audio_streamPrority", &videoTags::audio_streamPrority),
          P::Member("audio_bufferSizeDB", &videoTags::audio_bufferSizeDB),
          P::Member("audio_tkhd_same_duration", &videoTags::audio_tkhd_same_duration),
          P::Member("audio_mdhd_same_duration", &videoTags::audio_mdhd_same_duration),
          P::Member("audio_chunk_first", &videoTags::audio_chunk_first),  // listed twice, as it always was
          P::Member("moov_first", &videoTags::moov_first),
          P::Member("no_freebox", &videoTags::no_freebox),
          P::Member("sphericaltag", &videoTags::sphericaltag),
          P::Member("ios_support_box_add", &videoTags::ios_support_box_add),
      },
      "quor");
}
