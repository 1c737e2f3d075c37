#include "stream/plugin/mp4/common/Stsd.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>

#include "stream/base/Convert.h"
#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/common/BoxReader.h"
#include "stream/plugin/mp4/common/BoxText.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::IOIntReader;
using kiv::base::IOIntWriter;

namespace {

// Writes n bytes of a parameter set; a set with a size but no bytes is written as zeros, so that the
// box still has the length it announces.
void writeSet(IO& io, const unsigned char* p, size_t n, const char* what) {
  if (!n) return;
  if (p) {
    io.Write(p, static_cast<long long>(n));
    return;
  }
  LOGE << "!" << what << " (" << n << " bytes announced)";
  static const unsigned char kZeros[64] = {};
  while (n) {
    const size_t k = std::min(n, sizeof kZeros);
    io.Write(kZeros, static_cast<long long>(k));
    n -= k;
  }
}

// A length read from the file, cut to the bytes the box still has.
size_t fitLength(BoxReader& in, size_t n, const char* what) {
  const long long left = in.Left();
  if (static_cast<unsigned long long>(n) <= static_cast<unsigned long long>(left)) return n;
  LOGE << what << " size " << n << ">" << left;
  return static_cast<size_t>(left);
}

}  // namespace

// ---- csdsc

csdsc::csdsc(const char* fcc) : IBox(fcc, 0) { _statistics_size = 16; }

void csdsc::fill(IO& io) {
  IBox::fill(io);
  static const unsigned char kReserved[6] = {};
  io.Write(kReserved, sizeof kReserved);
  IOIntWriter(io).Write16be(_data_reference_index);
}

bool csdsc::parse(IO& io) {
  BoxReader in(io, *this);
  unsigned char reserved[6];
  in.Bytes(reserved, sizeof reserved);
  IOIntReader r(in);
  _data_reference_index = r.Read16be();
  // The table readers learn the track's codec from here.
  if (_parse_ap) _parse_ap->SetOrAdd("codec_fcc", std::to_string(_fourcc));
  return !r.Failed() && in.Missing() == 0;
}

void csdsc::fields(AttrSet& out) const {
  IBox::fields(out);
  out.SetOrAdd("data_reference_index", static_cast<unsigned>(_data_reference_index));
}

// ---- c_msi

void c_msi::fill(IO& io) {
  IOIntWriter w(io);
  w.Write16be(_version);
  w.Write16be(_revision);
  w.Write32(_vendor);
}

bool c_msi::parse(IO& io) {
  IOIntReader r(io);
  _version = r.Read16be();
  _revision = r.Read16be();
  _vendor = r.Read32();
  return !r.Failed();
}

void c_msi::fields(AttrSet& out) const {
  out.SetOrAdd("version", static_cast<unsigned>(_version));
  out.SetOrAdd("revision", static_cast<unsigned>(_revision));
  out.SetOrAdd("vendor", FccText(_vendor));
}

// ---- cvmsi

void cvmsi::CompressorName(unsigned char len, const void* name, size_t n) {
  _compressor_name_len = len;
  std::memset(_compressor_name, 0, sizeof _compressor_name);
  if (name) std::memcpy(_compressor_name, name, std::min(n, kCompressorNameSize));
}

void cvmsi::fill(IO& io) {
  c_msi::fill(io);
  IOIntWriter w(io);
  w.Write32be(_temporal_quality);
  w.Write32be(_spatial_quality);
  w.Write16be(_width);
  w.Write16be(_height);
  w.Write32be(_horizontal_resolution);
  w.Write32be(_vertical_resolution);
  w.Write32be(_data_size);
  w.Write16be(_frame_count);
  w.Write8(_compressor_name_len);
  io.Write(_compressor_name, kCompressorNameSize);
  w.Write16be(_depth);
  w.Write16be(_color_table_id);
}

bool cvmsi::parse(IO& io) {
  bool ok = c_msi::parse(io);
  IOIntReader r(io);
  _temporal_quality = r.Read32be();
  _spatial_quality = r.Read32be();
  _width = r.Read16be();
  _height = r.Read16be();
  _horizontal_resolution = r.Read32be();
  _vertical_resolution = r.Read32be();
  _data_size = r.Read32be();
  _frame_count = r.Read16be();
  _compressor_name_len = r.Read8();
  std::memset(_compressor_name, 0, sizeof _compressor_name);
  const long long got = io.Read(_compressor_name, kCompressorNameSize);
  if (got != static_cast<long long>(kCompressorNameSize)) ok = false;
  // The terminator goes behind the name at the stored length; 32 is the common length byte and
  // still fits, anything longer stands beyond the field.
  if (_compressor_name_len < sizeof _compressor_name) {
    _compressor_name[_compressor_name_len] = '\0';
  } else {
    LOGE << "compressor name length " << static_cast<unsigned>(_compressor_name_len) << ">"
         << kCompressorNameSize;
  }
  _depth = r.Read16be();
  _color_table_id = r.Read16be();
  return ok && !r.Failed();
}

void cvmsi::fields(AttrSet& out) const {
  c_msi::fields(out);
  out.SetOrAdd("temporal_quality", _temporal_quality);
  out.SetOrAdd("spatial_quality", _spatial_quality);
  out.SetOrAdd("width", static_cast<unsigned>(_width));
  out.SetOrAdd("height", static_cast<unsigned>(_height));
  out.SetOrAdd("horizontal_resolution", _horizontal_resolution);
  out.SetOrAdd("vertical_resolution", _vertical_resolution);
  out.SetOrAdd("data_size", _data_size);
  out.SetOrAdd("frame_count", static_cast<unsigned>(_frame_count));
  out.SetOrAdd("compressor_name_len", static_cast<unsigned>(_compressor_name_len));
  out.SetOrAdd("compressor_name", std::string(_compressor_name, strnlen(_compressor_name, kCompressorNameSize)));
  out.SetOrAdd("depth", static_cast<unsigned>(_depth));
  out.SetOrAdd("color_table_id", static_cast<unsigned>(_color_table_id));
}

// ---- camsi

namespace {
struct RateWord {
  unsigned rate;
  uint32_t high;
};
// Upper words of the rates as big-endian doubles.
constexpr RateWord kRateWords[] = {
    {48000, 0x40e77000}, {44100, 0x40e58880}, {24000, 0x40d77000},
    {22050, 0x40d58880}, {12000, 0x40c77000}, {11025, 0x40c58880},
};
}  // namespace

uint32_t camsi::RateHighWord(unsigned rate) {
  for (const auto& w : kRateWords)
    if (w.rate == rate) return w.high;
  return 0;
}

unsigned camsi::RateFromHighWord(uint32_t high) {
  for (const auto& w : kRateWords)
    if (w.high == high) return w.rate;
  return 0;
}

unsigned long long camsi::EntrySize() const { return 36u + (_version != 0 ? 16u : 0u) + (_version > 1 ? 20u : 0u); }

void camsi::fill(IO& io) {
  c_msi::fill(io);
  IOIntWriter w(io);
  w.Write16be(_channels);
  w.Write16be(_sample_size);
  w.Write16be(_compression_id);
  w.Write16be(_packet_size);
  w.Write16be(_sample_rate);
  w.Write16be(_sample_rate_fraction);
  if (_version != 0) {
    w.Write32be(_word_a);
    w.Write32be(_word_b);
    w.Write32be(_word_c);
    w.Write32be(_word_d);
  }
  if (_version > 1) {
    w.Write32be(0x7f000000);
    w.Write32be(_bits_per_channel);
    w.Write32be(_format_flags);
    w.Write32be(_bytes_per_audio_packet);
    w.Write32be(_frames_per_audio_packet);
  }
}

bool camsi::parse(IO& io) {
  const bool ok = c_msi::parse(io);
  IOIntReader r(io);
  _channels = r.Read16be();
  _sample_size = r.Read16be();
  _compression_id = r.Read16be();
  _packet_size = r.Read16be();
  _sample_rate = r.Read16be();
  _sample_rate_fraction = r.Read16be();
  if (_version != 0) {
    _word_a = r.Read32be();
    _word_b = r.Read32be();
    _word_c = r.Read32be();
    _word_d = r.Read32be();
  }
  if (_version > 1) {
    r.Read32be();  // 0x7f000000, not looked at
    _bits_per_channel = r.Read32be();
    _format_flags = r.Read32be();
    _bytes_per_audio_packet = r.Read32be();
    _frames_per_audio_packet = r.Read32be();
    // The 16-bit fields of a version-2 entry hold constants; the real values are in the words.
    _channels = static_cast<uint16_t>(_word_d);
    _sample_rate = static_cast<uint16_t>(RateFromHighWord(_word_b));
  }
  return ok && !r.Failed();
}

void camsi::fields(AttrSet& out) const {
  c_msi::fields(out);
  out.SetOrAdd("channels", static_cast<unsigned>(_channels));
  out.SetOrAdd("sample_size", static_cast<unsigned>(_sample_size));
  out.SetOrAdd("compression_id", static_cast<unsigned>(_compression_id));
  out.SetOrAdd("packet_size", static_cast<unsigned>(_packet_size));
  out.SetOrAdd("sample_rate", static_cast<unsigned>(_sample_rate));
  out.SetOrAdd("sample_rate_fraction", static_cast<unsigned>(_sample_rate_fraction));
  if (_version != 0) {
    out.SetOrAdd("word_a", _word_a);
    out.SetOrAdd("word_b", _word_b);
    out.SetOrAdd("word_c", _word_c);
    out.SetOrAdd("word_d", _word_d);
  }
  if (_version > 1) {
    out.SetOrAdd("bits_per_channel", _bits_per_channel);
    out.SetOrAdd("format_flags", _format_flags);
    out.SetOrAdd("bytes_per_audio_packet", _bytes_per_audio_packet);
    out.SetOrAdd("frames_per_audio_packet", _frames_per_audio_packet);
  }
}

// ---- video entries: head and video part, each read through a view that ends with the entry

cavc1::cavc1() : csdsc("avc1") { _statistics_size = 86; }
void cavc1::fill(IO& io) {
  csdsc::fill(io);
  cvmsi::fill(io);
}
bool cavc1::parse(IO& io) {
  BoxReader in(io, *this);
  const bool head = csdsc::parse(in);
  return cvmsi::parse(in) && head;
}
void cavc1::fields(AttrSet& out) const {
  csdsc::fields(out);
  cvmsi::fields(out);
}

chvc1::chvc1() : csdsc("hvc1") { _statistics_size = 86; }
void chvc1::fill(IO& io) {
  csdsc::fill(io);
  cvmsi::fill(io);
}
bool chvc1::parse(IO& io) {
  BoxReader in(io, *this);
  const bool head = csdsc::parse(in);
  return cvmsi::parse(in) && head;
}
void chvc1::fields(AttrSet& out) const {
  csdsc::fields(out);
  cvmsi::fields(out);
}

cjpeg::cjpeg() : csdsc("jpeg") { _statistics_size = 86; }
void cjpeg::fill(IO& io) {
  csdsc::fill(io);
  cvmsi::fill(io);
}
bool cjpeg::parse(IO& io) {
  BoxReader in(io, *this);
  const bool head = csdsc::parse(in);
  return cvmsi::parse(in) && head;
}
void cjpeg::fields(AttrSet& out) const {
  csdsc::fields(out);
  cvmsi::fields(out);
}

// ---- audio entries

csowt::csowt() : csdsc("sowt") {}
void csowt::fill(IO& io) {
  csdsc::fill(io);
  camsi::fill(io);
}
bool csowt::parse(IO& io) {
  BoxReader in(io, *this);
  const bool head = csdsc::parse(in);
  const bool ok = camsi::parse(in) && head;
  // Raw PCM: a chunk is read as one frame.
  if (_parse_ap) _parse_ap->SetOrAdd("frame_with_chunk", true);
  return ok;
}
void csowt::fields(AttrSet& out) const {
  csdsc::fields(out);
  camsi::fields(out);
}

clpcm::clpcm() : csdsc("lpcm") {
  _version = 2;
  _channels = 3;
  _sample_size = 16;
  _compression_id = 0xfffe;
  _packet_size = 0;
  _sample_rate = 1;  // 65536 as 16.16
  _sample_rate_fraction = 0;
  _word_a = 72;  // size of the structure
  _bits_per_channel = 16;
  _format_flags = 12;  // signed integer, packed
  _bytes_per_audio_packet = 0;
  _frames_per_audio_packet = 1;
}
void clpcm::fill(IO& io) {
  csdsc::fill(io);
  camsi::fill(io);
}
bool clpcm::parse(IO& io) {
  BoxReader in(io, *this);
  const bool head = csdsc::parse(in);
  const bool ok = camsi::parse(in) && head;
  if (_parse_ap) _parse_ap->SetOrAdd("frame_with_chunk", true);
  return ok;
}
void clpcm::fields(AttrSet& out) const {
  csdsc::fields(out);
  camsi::fields(out);
}

cmp4a::cmp4a() : csdsc("mp4a") {}
void cmp4a::fill(IO& io) {
  csdsc::fill(io);
  camsi::fill(io);
}
bool cmp4a::parse(IO& io) {
  BoxReader in(io, *this);
  const bool head = csdsc::parse(in);
  return camsi::parse(in) && head;
}
void cmp4a::fields(AttrSet& out) const {
  csdsc::fields(out);
  camsi::fields(out);
}

// ---- ctext

namespace {
constexpr char kFontName[] = "Helvetica";
constexpr uint8_t kFontNameLen = sizeof kFontName - 1;
}  // namespace

ctext::ctext() : csdsc("text") {}

unsigned long long ctext::statisticsSize() const { return 53u + kFontNameLen; }

void ctext::fill(IO& io) {
  csdsc::fill(io);
  IOIntWriter w(io);
  w.Write32be(_display_flags);
  w.Write32be(_text_align);
  for (uint16_t v : _box_words) w.Write16be(v);
  w.Write64be(_reserved);
  for (uint16_t v : _fore_words) w.Write16be(v);
  // Whatever a file held, the font written is this one.
  w.Write8(kFontNameLen);
  io.Write(kFontName, kFontNameLen);
}

bool ctext::parse(IO& io) {
  BoxReader in(io, *this);
  const bool head = csdsc::parse(in);
  IOIntReader r(in);
  _display_flags = r.Read32be();
  _text_align = r.Read32be();
  for (uint16_t& v : _box_words) v = r.Read16be();
  _reserved = r.Read64be();
  for (uint16_t& v : _fore_words) v = r.Read16be();
  _font_name_len = r.Read8();
  const size_t n = fitLength(in, _font_name_len, "font name");
  in.Bytes(_font_name, n);
  _font_name[n] = '\0';
  _font_name_len = static_cast<uint8_t>(n);
  return head && !r.Failed();
}

void ctext::fields(AttrSet& out) const {
  csdsc::fields(out);
  out.SetOrAdd("display_flags", _display_flags);
  out.SetOrAdd("text_align", _text_align);
  out.SetOrAdd("font_name", _font_name);
}

// ---- cstsd

cstsd::cstsd() : IMoovList("stsd") {}

IBox* cstsd::Add(IBox* box) {
  IBox* added = IMoovList::Add(box);
  if (auto* entry = dynamic_cast<csdsc*>(added)) entry->_data_reference_index = static_cast<uint16_t>(_num);
  return added;
}

bool cstsd::parse(IO& io) {
  BoxReader in(io, *this);
  IOIntReader r(in);
  _version = r.Read8();
  _flags = r.Read24be();
  const uint32_t count = r.Read32be();
  if (count == 0) LOGE << "";
  return !r.Failed();
}

// ---- cavcC

bool gf_avc_is_rext_profile(unsigned char profile) {
  switch (profile) {
    case 44: case 83: case 86: case 100: case 110: case 118: case 122:
    case 128: case 134: case 135: case 138: case 139: case 244:
      return true;
    default:
      return false;
  }
}

cavcC::cavcC() : IBox("avcC", 0) {}

unsigned long long cavcC::statisticsSize() const {
  return 8u + 6u + (_sps_size ? 2u + _sps_size : 0u) + 1u + (_pps_size ? 2u + _pps_size : 0u) +
         (gf_avc_is_rext_profile(_profile) ? 4u : 0u);
}

void cavcC::fill(IO& io) {
  IBox::fill(io);
  IOIntWriter w(io);
  w.Write8(_configuration_version);
  w.Write8(_profile);
  w.Write8(_compatibility);
  w.Write8(_level);
  w.Write8(255);  // four-byte lengths
  w.Write8(_sps_size ? 225 : 224);
  if (_sps_size) {
    w.Write16be(_sps_size);
    writeSet(io, _sps, _sps_size, "_sps");
  }
  w.Write8(_pps_size ? 1 : 0);
  if (_pps_size) {
    w.Write16be(_pps_size);
    writeSet(io, _pps, _pps_size, "_pps");
  }
  if (gf_avc_is_rext_profile(_profile)) {
    w.Write8(_chroma_format | 252);
    w.Write8(_luma_bit_depth | 248);
    w.Write8(_chroma_bit_depth | 248);
    w.Write8(0);  // no SPS extensions
  }
}

bool cavcC::parse(IO& io) {
  BoxReader in(io, *this);
  IOIntReader r(in);
  _sps = _pps = nullptr;
  _sps_size = _pps_size = 0;
  _pps_count = 0;

  _configuration_version = r.Read8();
  _profile = r.Read8();
  _compatibility = r.Read8();
  _level = r.Read8();
  _length_size = r.Read8();
  _sps_count = r.Read8() & 31;
  if (_sps_count) {
    _sps = _buffer;
    _sps_size = r.Read16be();
    LOGI << "sps size: " << _sps_size;
  }
  // One SPS and one PPS at most are kept, whatever the counts say.
  if (_sps_size > kBufferSize) {
    LOGE << "sps bigger than avcC buffer!!";
    _sps_size = static_cast<uint16_t>(fitLength(in, kBufferSize, "sps"));
    in.Bytes(_buffer, _sps_size);
    _pps_size = 0;
  } else {
    _sps_size = static_cast<uint16_t>(fitLength(in, _sps_size, "sps"));
    in.Bytes(_buffer, _sps_size);
    _pps_count = r.Read8();
    if (_pps_count) {
      _pps_size = r.Read16be();
      LOGI << "pps size: " << _pps_size;
      if (_sps_size + _pps_size > static_cast<int>(kBufferSize)) {
        LOGE << "pps bigger than avcC buffer!!";
        _pps_size = 0;
        _pps_count = 0;
      } else {
        _pps = _buffer + _sps_size;
        _pps_size = static_cast<uint16_t>(fitLength(in, _pps_size, "pps"));
        in.Bytes(_buffer + _sps_size, _pps_size);
      }
    }
  }
  // Range-extension profiles carry chroma format and depths behind the sets, when there is room.
  if (in.Left() != 0 && gf_avc_is_rext_profile(_profile)) {
    unsigned char ext[4];
    in.Bytes(ext, sizeof ext);
    _chroma_format = ext[0] & 3;
    _luma_bit_depth = ext[1] & 7;
    _chroma_bit_depth = ext[2] & 0xf8;  // not the writer's mask; kept as files have been read so far
  }
  in.SkipRest();
  return !r.Failed();
}

void cavcC::fields(AttrSet& out) const {
  IBox::fields(out);
  out.SetOrAdd("configuration_version", static_cast<unsigned>(_configuration_version));
  out.SetOrAdd("profile", static_cast<unsigned>(_profile));
  out.SetOrAdd("compatibility", static_cast<unsigned>(_compatibility));
  out.SetOrAdd("level", static_cast<unsigned>(_level));
  out.SetOrAdd("sps", HexBytes(_sps, _sps_size));
  out.SetOrAdd("sps_size", static_cast<unsigned>(_sps_size));
  out.SetOrAdd("pps", HexBytes(_pps, _pps_size));
  out.SetOrAdd("pps_size", static_cast<unsigned>(_pps_size));
  if (gf_avc_is_rext_profile(_profile)) {
    out.SetOrAdd("chroma_format", static_cast<unsigned>(_chroma_format));
    out.SetOrAdd("luma_bit_depth", static_cast<unsigned>(_luma_bit_depth));
    out.SetOrAdd("chroma_bit_depth", static_cast<unsigned>(_chroma_bit_depth));
  }
}

// ---- ccolr

ccolr::ccolr() : IBox("colr", 0) {}

unsigned long long ccolr::statisticsSize() const { return _colour_type == FCC("nclx") ? 19u : 18u; }

void ccolr::fill(IO& io) {
  IBox::fill(io);
  IOIntWriter w(io);
  w.Write32(_colour_type);
  w.Write16be(_primaries);
  w.Write16be(_transfer);
  w.Write16be(_matrix);
  if (_colour_type == FCC("nclx")) w.Write8(_full_range ? 0x80 : 0);
}

bool ccolr::parse(IO& io) {
  BoxReader in(io, *this);
  IOIntReader r(in);
  _colour_type = r.Read32();
  _primaries = r.Read16be();
  _transfer = r.Read16be();
  _matrix = r.Read16be();
  _not_bt709 = _primaries != 1;
  if (_colour_type == FCC("nclx")) _full_range = r.Read8() >> 7;
  in.SkipRest();
  return !r.Failed();
}

void ccolr::fields(AttrSet& out) const {
  IBox::fields(out);
  out.SetOrAdd("colour_type", FccText(_colour_type));
  out.SetOrAdd("primaries", static_cast<unsigned>(_primaries));
  out.SetOrAdd("transfer", static_cast<unsigned>(_transfer));
  out.SetOrAdd("matrix", static_cast<unsigned>(_matrix));
  if (_colour_type == FCC("nclx")) out.SetOrAdd("full_range", static_cast<unsigned>(_full_range));
}

// ---- cesds

namespace {
// Bytes add_descr writes for a length.
unsigned descrHeader(uint32_t len) {
  if (len >= 0x10000000) return 1;
  return 1u + (len < 0x80 ? 1u : len < 0x4000 ? 2u : len < 0x200000 ? 3u : 4u);
}
int asInt(uint32_t v) { return static_cast<int>(std::min<uint32_t>(v, INT_MAX)); }
}  // namespace

cesds::cesds() : IBox("esds", 0) {}

int cesds::getDescrLength(int n) {
  if (n < 128) return n + 2;
  if (n < 16384) return n + 3;
  if (n < 0x200000) return n + 4;
  return n + 5;
}

void cesds::add_descr(IO& io) {
  IOIntWriter w(io);
  w.Write8(_descr_tag);
  const uint32_t len = _descr_len;
  if (len >= 0x10000000) return;
  const int groups = len < 0x80 ? 1 : len < 0x4000 ? 2 : len < 0x200000 ? 3 : 4;
  for (int i = groups - 1; i >= 0; --i) {
    uint8_t b = static_cast<uint8_t>((len >> (7 * i)) & 0x7f);
    if (i) b |= 0x80;
    w.Write8(b);
  }
}

void cesds::getType_indication() {
  if (_fcc == FCC("mp4a") || _fcc == FCC("aac "))
    _type_indication = 64;
  else if (_fcc == FCC("mp4v"))
    _type_indication = 32;
  else if (_fcc == FCC("mpgv"))
    _type_indication = 96;
  else if (_fcc == FCC("mpga"))
    _type_indication = _sample_rate < 32000 ? 105 : 107;
  else
    _type_indication = 0;
}

unsigned long long cesds::statisticsSize() const {
  const bool extra = hasExtra();
  const int d = 13 + (extra ? getDescrLength(asInt(_extra_size)) : 0);
  const int es = getDescrLength(d) + getDescrLength(1) + 3;
  unsigned long long n = 8 + 4;
  n += descrHeader(static_cast<uint32_t>(es)) + (_has_es_id ? 3u : 0u);
  n += descrHeader(static_cast<uint32_t>(d)) + 13u;
  if (extra) n += descrHeader(_extra_size) + _extra_size;
  n += descrHeader(1) + 1u;
  return n;
}

void cesds::fill(IO& io) {
  // The object type follows the codec code when one is given.
  if (_fcc) getType_indication();
  IBox::fill(io);
  IOIntWriter w(io);
  w.Write32be(0);  // version and flags
  const bool extra = hasExtra();
  const int d = 13 + (extra ? getDescrLength(asInt(_extra_size)) : 0);

  _descr_tag = 3;  // ES descriptor
  _descr_len = static_cast<uint32_t>(getDescrLength(d) + getDescrLength(1) + 3);
  add_descr(io);
  if (_has_es_id) {
    w.Write16be(_es_id);
    w.Write8(_priority & 31);
  }

  _descr_tag = 4;  // decoder configuration
  _descr_len = static_cast<uint32_t>(d);
  add_descr(io);
  w.Write8(_type_indication);
  w.Write8(_has_es_id ? 21 : 17);
  w.Write24be(_buffer_size);
  w.Write32be(_avg_bitrate);
  w.Write32be(_max_bitrate);

  if (extra) {
    _descr_tag = 5;  // decoder specific data
    _descr_len = _extra_size;
    add_descr(io);
    io.Write(_extra, _extra_size);
  }

  _descr_tag = 6;  // sync layer configuration
  _descr_len = 1;
  add_descr(io);
  w.Write8(2);
}

bool cesds::parse(IO& io) {
  BoxReader in(io, *this);
  IOIntReader r(in);
  // Only the one-byte-length layout written above is understood.
  in.SkipUpTo(16);
  _avg_bitrate = r.Read32be();
  _max_bitrate = r.Read32be();
  in.SkipUpTo(1);  // tag 5
  size_t n = r.Read8();
  if (n > kExtraSize) n = kExtraSize;
  n = fitLength(in, n, "esds extra");
  in.Bytes(_extra_buf, n);
  _extra_size = static_cast<uint32_t>(n);
  _extra = _extra_buf;
  in.SkipUpTo(3);
  in.SkipRest();
  return !r.Failed();
}

void cesds::fields(AttrSet& out) const {
  IBox::fields(out);
  out.SetOrAdd("type_indication", static_cast<unsigned>(_type_indication));
  out.SetOrAdd("avg_bitrate", _avg_bitrate);
  out.SetOrAdd("max_bitrate", _max_bitrate);
  out.SetOrAdd("extra", HexBytes(_extra, _extra_size));
  out.SetOrAdd("extra_size", _extra_size);
  if (_has_es_id) {
    out.SetOrAdd("es_id", static_cast<unsigned>(_es_id));
    out.SetOrAdd("priority", static_cast<unsigned>(_priority & 31));
  }
  out.SetOrAdd("buffer_size", _buffer_size);
}

// ---- wave, frma, the small mp4a, chan

cwave::cwave() : IBox("wave", 0) {}

cfrma::cfrma() : IBox("frma", 0) { _statistics_size = 12; }

void cfrma::fill(IO& io) {
  IBox::fill(io);
  IOIntWriter(io).Write32(_format);
}

bool cfrma::parse(IO& io) {
  BoxReader in(io, *this);
  IOIntReader r(in);
  _format = r.Read32();
  in.SkipRest();
  return !r.Failed();
}

void cfrma::fields(AttrSet& out) const {
  IBox::fields(out);
  out.SetOrAdd("format", FccText(_format));
}

cmp4asub::cmp4asub() : IBox("mp4a", 0) { _statistics_size = 12; }

void cmp4asub::fill(IO& io) {
  IBox::fill(io);
  IOIntWriter(io).Write32be(_value);
}

bool cmp4asub::parse(IO& io) {
  BoxReader in(io, *this);
  IOIntReader r(in);
  _value = r.Read32be();
  in.SkipRest();
  return !r.Failed();
}

void cmp4asub::fields(AttrSet& out) const {
  IBox::fields(out);
  out.SetOrAdd("value", _value);
}

namespace {
constexpr uint16_t kDiscreteInOrder = 147;  // layout tag: channels in order, no labels
}

cchan::cchan() : IMoov("chan", 0) { _statistics_size = 24; }

void cchan::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter w(io);
  w.Write16be(kDiscreteInOrder);
  w.Write16be(_channels);
  w.Write32be(0);  // channel bitmap
  w.Write32be(0);  // number of channel descriptions
}

bool cchan::parse(IO& io) {
  BoxReader in(io, *this);
  IOIntReader r(in);
  _version = r.Read8();
  _flags = r.Read24be();
  r.Read16be();  // layout tag
  _channels = r.Read16be();
  unsigned char rest[8];
  in.Bytes(rest, sizeof rest);
  in.SkipRest();
  return !r.Failed();
}

void cchan::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("channels", static_cast<unsigned>(_channels));
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
