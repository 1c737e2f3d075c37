#include "stream/plugin/mp4/common/Mp4aEntry.h"

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/Stsd.h"

namespace kiv {
namespace plugin {
namespace mov {

namespace {

// The upper word of a version-2 entry's rate (a big-endian double whose lower word is 0).
uint32_t rateHighWord(unsigned rate) {
  switch (rate) {
    case 48000: return 0x40E77000u;
    case 44100: return 0x40E58880u;
    case 24000: return 0x40D77000u;
    case 22050: return 0x40D58880u;
    case 12000: return 0x40C77000u;
    default: return 0x40C58880u;  // 11025
  }
}

}  // namespace

cmp4a* NewMp4aEntry(const videoTags& tags, kiv::stream::IMedia& media, int rate, int chn, int depth, int bitrate) {
  auto* mp4a = new cmp4a();
  auto* esds = new cesds();
  esds->_sample_rate = static_cast<uint32_t>(rate);
  esds->_has_es_id = 1;
  esds->_es_id = tags.audio_ES_ID;
  esds->_priority = static_cast<uint8_t>(tags.audio_streamPrority);
  esds->_buffer_size = tags.audio_bufferSizeDB;
  esds->_fcc = FCC("mp4a");
  esds->getType_indication();
  esds->_extra = media.Extra();
  esds->_extra_size = static_cast<uint32_t>(media.ExtraSize());
  esds->_max_bitrate = static_cast<uint32_t>(bitrate);
  esds->_avg_bitrate = static_cast<uint32_t>(bitrate);

  const bool quickTime = tags.file_type == kQuickTimeFileType;
  LOGI << "file type: " << kiv::base::Hex(tags.file_type);
  if (chn < 3 || !quickTime) {
    // A plain sound entry with "esds" right under it.
    mp4a->Add(esds);
    mp4a->_channels = static_cast<uint16_t>(chn);
    mp4a->_sample_size = static_cast<uint16_t>(depth);
    mp4a->_compression_id = quickTime ? 0xFFFE : tags.audio_compression_id;
    mp4a->_packet_size = 0;
    mp4a->_sample_rate = static_cast<uint16_t>(rate);
    mp4a->_sample_rate_fraction = 0;
  } else {
    // QuickTime with more than two channels: a version-2 entry, "esds" inside "wave".
    auto* wave = new cwave();
    mp4a->Add(wave);
    auto* frma = new cfrma();
    frma->_format = FCC("mp4a");
    wave->Add(frma);
    wave->Add(new cmp4asub());
    wave->Add(esds);
    auto* chan = new cchan();
    chan->_channels = static_cast<uint16_t>(chn);
    wave->Add(chan);
    mp4a->_version = 2;
    mp4a->_channels = 3;
    mp4a->_sample_size = 16;
    mp4a->_compression_id = 0xFFFE;
    mp4a->_packet_size = 0;
    mp4a->_sample_rate = 1;
    mp4a->_sample_rate_fraction = 0;
    mp4a->_word_a = 72;
    mp4a->_word_b = rateHighWord(static_cast<unsigned>(rate));
    mp4a->_word_c = 0;
    mp4a->_word_d = static_cast<uint32_t>(chn);
    mp4a->_bits_per_channel = 16;
    mp4a->_format_flags = 12;
    mp4a->_bytes_per_audio_packet = 2u * static_cast<unsigned>(chn);
    mp4a->_frames_per_audio_packet = 0;
  }

  return mp4a;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
