// The file-type profile: every tag that shapes a recorded file, in the mov flavour by default.
#pragma once

#include <cstdint>
#include <ostream>

#include "stream/base/reflect/Object.h"

namespace kiv {
namespace plugin {
namespace mov {

class videoTags : public base::Object {
 public:
  videoTags();
  std::ostream& operator>>(std::ostream& os) override;
  // The mp4 column of the profile, written over this one (the muxer of mp4 files calls it).
  void Mp4Flavour();

  uint32_t major_brand = 0;
  uint32_t minor_version = 0;
  uint32_t* compatible_brands = nullptr;
  uint32_t compatible_brands_cnt = 0;  // 0: the engine's own brands stand
  uint16_t pref_volume = 256;
  uint16_t video_track_lang_id = 0;
  uint16_t audio_track_lang_id = 0;
  uint16_t audio_has_edts = 0;
  uint32_t vendor;
  uint32_t manufacturer;
  uint32_t datareftype;
  uint32_t movie_time_scale = 60000;
  uint32_t tkhd_flags = 15;
  uint32_t track_id_start = 1;
  uint8_t stbl_order = 0;
  uint8_t no_udta = 0;     // stored and printed only
  uint8_t no_freebox = 0;  // stored and printed only
  uint8_t moov_first = 0;  // stored and printed only: moov always follows mdat
  uint8_t sphericaltag = 0;
  bool ios_support_box_add = false;
  uint32_t timescale = 60000;
  uint32_t identity_matrix[9] = {0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000};
  uint32_t* video_track_matrix;
  uint8_t compressor_storage[31];
  uint8_t* compressorname;
  uint32_t compressorlen = 32;
  uint16_t video_has_edts = 0;
  uint32_t temporal_quality = 512;
  uint32_t spatial_quality = 512;
  uint32_t videosampleperchunk = 1;
  uint8_t AVCProfileIndication = 0;
  uint8_t profile_compatibility = 0;
  uint8_t AVCLevelIndication = 0;
  uint8_t video_has_color_param = 0;
  uint8_t video_colr_use_nclc = 1;
  uint8_t video_color_param = 0;
  uint64_t video_cus_color_param = 0;
  uint8_t video_has_fiel_box = 0;
  uint8_t video_handler_minf_present = 1;
  uint32_t video_handler_type;
  uint8_t video_handler_name[64];
  uint8_t* vidhandercomname;
  uint32_t vidhandercomnamelen = 14;
  uint8_t video_data_handler_name[64];
  uint8_t* vidhandlerrefcomname;
  uint32_t vidhandlerrefcomnamelen = 32;  // deliberately more than the text
  uint16_t audio_compression_id = 0;
  uint16_t audio_ES_ID = 2;
  uint16_t audio_streamPrority = 31;
  uint32_t audio_bufferSizeDB = 0x100000;
  uint32_t audiosampleperchunk = 1;
  uint32_t audio_handler_type;
  uint8_t audio_handler_name[64];
  uint8_t* audhandercomname;
  uint32_t audhandercomnamelen = 14;
  uint8_t audio_data_handler_name[64];
  uint8_t* audhandlerrefcomname;
  uint32_t audhandlerrefcomnamelen = 24;
  uint8_t audio_handler_minf_present = 1;
  uint8_t audio_tkhd_same_duration = 0;
  uint8_t audio_mdhd_same_duration = 0;
  uint8_t audio_chunk_first = 0;
  uint8_t reserved_flag = 0;  // read by nothing
  uint8_t uuid_present = 0;
  uint8_t iframe_brand = 0;
  uint32_t file_type = 0;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
