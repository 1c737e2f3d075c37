// The sample description box and its entries: video ("avc1", "hvc1", "jpeg"), audio ("sowt",
// "lpcm", "mp4a"), text, and the boxes below them ("avcC", "colr", "esds", "wave", "frma", "chan").
// The HEVC record "hvcC" is in Hvcc.h, included here.
#pragma once

#include <cstddef>
#include <cstdint>

#include "stream/base/io/IO.h"
#include "stream/plugin/mp4/common/Hvcc.h"
#include "stream/plugin/mp4/common/IBox.h"

namespace kiv {
namespace plugin {
namespace mov {

// Head of every sample entry: six reserved bytes and the data reference index.
class csdsc : public IBox {
 public:
  void fill(IO& io) override;
  // Reads the head from the stream it is given and tells the parse's attributes the entry's code.
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;

  uint16_t _data_reference_index = 1;

 protected:
  explicit csdsc(const char* fcc);
};

// The version, revision and vendor that video and audio entries share behind the head. Not a box:
// the entries write it behind their head.
class c_msi {
 public:
  virtual ~c_msi() = default;
  virtual void fill(IO& io);
  virtual bool parse(IO& io);
  virtual void fields(AttrSet& out) const;

  uint16_t _version = 0;
  uint16_t _revision = 0;
  uint32_t _vendor = 0;  // raw, a four-character code in file order
};

// The video part of an entry, 86 bytes with the head.
class cvmsi : public c_msi {
 public:
  static constexpr size_t kCompressorNameSize = 31;

  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;

  // The counted name as the profile holds it: its length byte and up to 31 bytes of text.
  void CompressorName(unsigned char len, const void* name, size_t n);

  uint32_t _temporal_quality = 0;
  uint32_t _spatial_quality = 0;
  uint16_t _width = 0;
  uint16_t _height = 0;
  uint32_t _horizontal_resolution = 0x480000;
  uint32_t _vertical_resolution = 0x480000;
  uint32_t _data_size = 0;
  uint16_t _frame_count = 0;
  uint8_t _compressor_name_len = 0;
  // 31 bytes of the file, then room for a terminator at a length of up to 32 (the profile's default
  // length byte is 32, one more than the field holds).
  char _compressor_name[kCompressorNameSize + 2] = {};
  uint16_t _depth = 24;
  uint16_t _color_table_id = 0xffff;
};

// The audio part of an entry. Version 1 adds four words, version 2 five more.
class camsi : public c_msi {
 public:
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;

  // Bytes of the audio part with the head, for the present version.
  unsigned long long EntrySize() const;
  // The upper word of a version-2 sample rate (a big-endian double whose lower word is 0); 0 for a
  // rate outside the table.
  static uint32_t RateHighWord(unsigned rate);
  static unsigned RateFromHighWord(uint32_t high);

  uint16_t _channels = 0;
  uint16_t _sample_size = 0;
  uint16_t _compression_id = 0;
  uint16_t _packet_size = 0;
  uint16_t _sample_rate = 0;  // integer part of the 16.16 rate
  uint16_t _sample_rate_fraction = 0;
  // Version 1: samples per packet, bytes per packet, bytes per frame, bytes per sample.
  // Version 2: size of the structure, high and low word of the rate as a double, channel count.
  uint32_t _word_a = 0;
  uint32_t _word_b = 0;
  uint32_t _word_c = 0;
  uint32_t _word_d = 0;
  // Version 2 only; the constant 0x7f000000 that precedes them is written by the entry.
  uint32_t _bits_per_channel = 0;
  uint32_t _format_flags = 0;
  uint32_t _bytes_per_audio_packet = 0;
  uint32_t _frames_per_audio_packet = 0;
};

class cavc1 : public csdsc, public cvmsi {
 public:
  cavc1();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
};

class chvc1 : public csdsc, public cvmsi {
 public:
  chvc1();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
};

class cjpeg : public csdsc, public cvmsi {
 public:
  cjpeg();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
};

class csowt : public csdsc, public camsi {
 public:
  csowt();
  unsigned long long statisticsSize() const override { return EntrySize(); }
  void fill(IO& io) override;
  // Also tells the parse's attributes that a chunk of this entry is one frame.
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
};

// Multi-channel PCM in QuickTime files: a version-2 entry, preset here; the track adds rate and
// channel count. The factory does not make it: read from a file, "lpcm" stays a fake box.
class clpcm : public csdsc, public camsi {
 public:
  clpcm();
  unsigned long long statisticsSize() const override { return EntrySize(); }
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
};

class cmp4a : public csdsc, public camsi {
 public:
  cmp4a();
  unsigned long long statisticsSize() const override { return EntrySize(); }
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
};

// Timed text entry. The font is always written as "Helvetica".
class ctext : public csdsc {
 public:
  ctext();
  unsigned long long statisticsSize() const override;
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;

  uint32_t _display_flags = 0;
  uint32_t _text_align = 0;
  uint16_t _box_words[7] = {};  // background colour and default text box
  uint64_t _reserved = 0;
  uint16_t _fore_words[3] = {255, 255, 255};
  uint8_t _font_name_len = 9;
  char _font_name[256] = "Helvetica";
};

// "stsd": a counted list of sample entries. Each entry added gets the next data reference index.
class cstsd : public IMoovList {
 public:
  cstsd();
  IBox* Add(IBox* box) override;
  // The count in the file is not kept: the entries that follow are counted as they are added.
  bool parse(IO& io) override;
};

// H.264 decoder configuration. Writing takes the SPS and PPS from the pointers the track sets;
// reading keeps at most one of each, in the box's own buffer.
class cavcC : public IBox {
 public:
  static constexpr size_t kBufferSize = 56;

  cavcC();
  unsigned long long statisticsSize() const override;
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;

  uint8_t _configuration_version = 1;
  uint8_t _compatibility = 0;
  uint8_t _profile = 0;
  uint8_t _level = 0;
  uint8_t _length_size = 0;
  uint8_t _sps_count = 0;
  uint8_t _pps_count = 0;
  const unsigned char* _pps = nullptr;
  const unsigned char* _sps = nullptr;
  uint16_t _pps_size = 0;
  uint16_t _sps_size = 0;
  uint8_t _chroma_format = 0;
  uint8_t _luma_bit_depth = 0;
  uint8_t _chroma_bit_depth = 0;
  unsigned char _buffer[kBufferSize] = {};
};

// Profiles whose record carries the chroma format and bit depths.
bool gf_avc_is_rext_profile(unsigned char profile);

// Colour parameters, in the "nclc" (QuickTime) or "nclx" (MP4, with a full-range bit) form.
class ccolr : public IBox {
 public:
  ccolr();
  unsigned long long statisticsSize() const override;
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;

  uint32_t _colour_type = 0;  // raw: "nclc" or "nclx"
  uint16_t _primaries = 1;
  uint16_t _transfer = 1;
  uint16_t _matrix = 1;
  uint8_t _full_range = 1;
  uint8_t _not_bt709 = 0;
};

// MPEG-4 elementary stream descriptor. Not a full box by class: version and flags are written by
// hand. Reading expects the one-byte descriptor lengths this system writes.
class cesds : public IBox {
 public:
  static constexpr size_t kExtraSize = 4;

  cesds();
  unsigned long long statisticsSize() const override;
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;

  // n plus the size of a descriptor header for a length of n.
  static int getDescrLength(int n);
  // Writes the header of a descriptor: _descr_tag, then _descr_len in base 128.
  void add_descr(IO& io);
  // The object type for _fcc.
  void getType_indication();

  uint32_t _fcc = 0;
  uint32_t _extra_size = 0;
  const unsigned char* _extra = nullptr;
  uint8_t _type_indication = 0;
  uint32_t _max_bitrate = 0;
  uint32_t _avg_bitrate = 0;
  uint8_t _descr_tag = 0;
  uint32_t _descr_len = 0;
  uint32_t _sample_rate = 0;
  uint8_t _has_es_id = 1;
  uint16_t _es_id = 0;
  uint32_t _buffer_size = 0x100000;
  uint8_t _priority = 31;
  unsigned char _extra_buf[kExtraSize] = {};

 private:
  bool hasExtra() const { return _extra_size != 0 && _extra != nullptr; }
};

// "wave" of a QuickTime "mp4a" entry: a header and children.
class cwave : public IBox {
 public:
  cwave();
};

// "frma": the original format's code.
class cfrma : public IBox {
 public:
  cfrma();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;

  uint32_t _format = 0;  // raw
};

// The small "mp4a" inside "wave": one word.
class cmp4asub : public IBox {
 public:
  cmp4asub();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;

  uint32_t _value = 0;
};

// "chan": a discrete channel layout of _channels channels.
class cchan : public IMoov {
 public:
  cchan();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;

  uint16_t _channels = 0;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
