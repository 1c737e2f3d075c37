#include "stream/plugin/mp4/common/Hvcc.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/common/BoxReader.h"
#include "stream/plugin/mp4/common/BoxText.h"
#include "stream/plugin/mp4/common/Stsd.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::IOIntReader;
using kiv::base::IOIntWriter;

// ---- bit reader

void bs_init(bs_t* s, const void* data, size_t size) {
  s->p = static_cast<const uint8_t*>(data);
  s->p_end = s->p + size;
  s->i_left = 8;
}

uint32_t bs_read(bs_t* s, int n) {
  if (n > 32) n = 32;
  uint32_t result = 0;
  while (n > 0) {
    if (s->p >= s->p_end) break;
    const int shr = s->i_left - n;
    if (shr >= 0) {
      // The rest fits in the current byte.
      result |= (static_cast<uint32_t>(*s->p) >> shr) & ((1u << n) - 1u);
      s->i_left -= n;
      if (s->i_left == 0) {
        s->p++;
        s->i_left = 8;
      }
      return result;
    }
    result |= (static_cast<uint32_t>(*s->p) & ((1u << s->i_left) - 1u)) << -shr;
    n -= s->i_left;
    s->p++;
    s->i_left = 8;
  }
  return result;
}

uint32_t bs_read1(bs_t* s) {
  if (s->p >= s->p_end) return 0;
  s->i_left--;
  const uint32_t bit = (*s->p >> s->i_left) & 1u;
  if (s->i_left == 0) {
    s->p++;
    s->i_left = 8;
  }
  return bit;
}

void bs_skip(bs_t* s, int n) {
  if (n <= 0 || s->p >= s->p_end) return;
  const long long bits = static_cast<long long>(s->p_end - s->p - 1) * 8 + s->i_left;
  if (n >= bits) {
    // Nothing is left to read; the pointer stays at the end rather than running past it.
    s->p = s->p_end;
    s->i_left = 8;
    return;
  }
  s->i_left -= n;
  if (s->i_left <= 0) {
    const int bytes = (-s->i_left + 8) / 8;
    s->p += bytes;
    s->i_left += 8 * bytes;
  }
}

uint32_t bs_read_ue(bs_t* s) {
  int zeros = 0;
  while (bs_read1(s) == 0 && s->p < s->p_end && zeros < 32) zeros++;
  return static_cast<uint32_t>((1ull << zeros) - 1ull + bs_read(s, zeros));
}

size_t nal_decode(const uint8_t* src, uint8_t* dst, size_t size) {
  size_t i = 0;
  size_t o = 0;
  while (i < size) {
    if (size - i > 3 && src[i] == 0 && src[i + 1] == 0 && src[i + 2] == 3) {
      dst[o++] = 0;
      dst[o++] = 0;
      i += 3;
      continue;
    }
    dst[o++] = src[i++];
  }
  return o;
}

// ---- chvcC

namespace {

constexpr size_t kDecodeSize = 512;
constexpr unsigned char kStartCode[4] = {0, 0, 0, 1};

void writeArray(IO& io, uint8_t type, const unsigned char* set, uint16_t size) {
  if (!size) return;
  IOIntWriter w(io);
  w.Write8(type);
  w.Write16be(1);
  w.Write16be(size);
  if (set) {
    io.Write(set, size);
    return;
  }
  // A size without bytes: keep the announced length.
  LOGE << "!set, type " << static_cast<unsigned>(type) << ", size " << size;
  for (uint16_t i = 0; i < size; ++i) w.Write8(0);
}

}  // namespace

chvcC::chvcC() : IBox("hvcC", 0) { LOGI << "hvcC create"; }

unsigned long long chvcC::statisticsSize() const {
  unsigned long long n = 31;
  for (uint16_t size : {_vps_size, _sps_size, _pps_size})
    if (size) n += 5u + size;
  return n;
}

bool chvcC::SetNal(const void* data, size_t size) {
  if (size > kNalBufSize || (!data && size)) {
    LOGE << "parameter sets of " << size << " bytes do not fit the hvcC buffer of " << kNalBufSize;
    return false;
  }
  if (size) std::memcpy(_nal_buf, data, size);
  _nal_size = static_cast<uint32_t>(size);
  return true;
}

void chvcC::hevcParseVPS(const uint8_t* data, size_t size, uint8_t* ptl, uint8_t& numTemporalLayer,
                         uint8_t& temporalIdNested) {
  uint8_t buf[kDecodeSize] = {};
  const size_t n = data ? nal_decode(data, buf, std::min(size, kDecodeSize)) : 0;
  // NAL header, ids and layer counts, reserved word, then the 12 bytes of profile, tier and level.
  if (n < 18) LOGE << "vps of " << n << " bytes, 18 needed";
  numTemporalLayer = static_cast<uint8_t>(((buf[3] >> 1) & 7) + 1);
  temporalIdNested = buf[3] & 1;
  std::memcpy(ptl, buf + 6, 12);
}

void chvcC::hevcParseSPS(const uint8_t* data, size_t size, uint8_t& chroma, uint8_t& lumaDepth,
                         uint8_t& chromaDepth) {
  if (!data || size < 2) {
    LOGE << "sps of " << size << " bytes";
    return;
  }
  uint8_t buf[kDecodeSize] = {};
  const size_t n = nal_decode(data + 2, buf, std::min(size - 2, kDecodeSize));

  bs_t s;
  bs_init(&s, buf, n);
  s.i_left = 4;  // behind the VPS id
  const int sub_layers = static_cast<int>(bs_read(&s, 3));
  bs_skip(&s, 1);   // temporal id nesting
  bs_skip(&s, 96);  // general profile, tier and level
  uint8_t profile_present[8] = {};
  uint8_t level_present[8] = {};
  for (int i = 0; i < sub_layers; ++i) {
    profile_present[i] = static_cast<uint8_t>(bs_read1(&s));
    level_present[i] = static_cast<uint8_t>(bs_read1(&s));
  }
  if (sub_layers > 0) {
    bs_skip(&s, 2 * (8 - sub_layers));
    for (int i = 0; i < sub_layers; ++i) {
      if (profile_present[i]) bs_skip(&s, 88);
      if (level_present[i]) bs_skip(&s, 8);
    }
  }
  bs_read_ue(&s);  // SPS id
  chroma = static_cast<uint8_t>(bs_read_ue(&s));
  if (chroma == 3) bs_skip(&s, 1);  // separate colour planes
  bs_read_ue(&s);                   // width
  bs_read_ue(&s);                   // height
  if (bs_read1(&s)) {
    // conformance window
    for (int i = 0; i < 4; ++i) bs_read_ue(&s);
  }
  lumaDepth = static_cast<uint8_t>(bs_read_ue(&s));
  chromaDepth = static_cast<uint8_t>(bs_read_ue(&s));
}

void chvcC::fill(IO& io) {
  _i_bit_depth_luma_minus8 = 0;
  _i_bit_depth_chroma_minus8 = 0;
  _num_of_arrays = 0;
  _i_numTemporalLayer = 0;
  _b_temporalIdNested = 0;
  _i_chroma_idc = 1;
  if (_nal_size > kNalBufSize) {
    LOGE << "_nal_size " << _nal_size << ">" << kNalBufSize;
    _nal_size = static_cast<uint32_t>(kNalBufSize);
  }

  // Walk the sets in start-code form. A start code behind the last one closes the last unit.
  std::memcpy(_nal_buf + _nal_size, kStartCode, sizeof kStartCode);
  const size_t n = _nal_size + sizeof kStartCode;
  struct Nal {
    size_t start;
    size_t size;
  };
  Nal vps[kMaxNalOfKind];
  Nal sps[kMaxNalOfKind];
  size_t vps_n = 0;
  size_t sps_n = 0;
  bool vps_seen = false;
  bool sps_seen = false;
  bool open = false;
  unsigned kind = 0;
  size_t start = 0;
  uint32_t shift = 0xffffffffu;
  for (size_t i = 0; i < n; ++i) {
    shift = (shift << 8) | _nal_buf[i];
    if ((shift & 0xffffffu) != 1u) continue;
    const size_t header = i + 1;
    if (open) {
      // Up to the next start code's three bytes: a four-byte start code leaves its zero here.
      const Nal nal{start, header - start - 3};
      if (kind == 0x40) {
        if (vps_n < kMaxNalOfKind)
          vps[vps_n++] = nal;
        else
          LOGE << "more than " << kMaxNalOfKind << " vps";
      } else if (kind == 0x42) {
        if (sps_n < kMaxNalOfKind)
          sps[sps_n++] = nal;
        else
          LOGE << "more than " << kMaxNalOfKind << " sps";
      }
    }
    if (header >= n) break;  // the closing start code starts nothing
    open = true;
    start = header;
    // Without bit 2 in the mask a PPS (0x44) reads as a VPS: only the first VPS is decoded, so the
    // PPS behind it changes nothing.
    kind = _nal_buf[header] & 0x72u;
    const size_t left = n - header;
    if (kind == 0x40 && !vps_seen) {
      vps_seen = true;
      LOGI << "vps";
      hevcParseVPS(_nal_buf + header, left, _profile_tier_level, _i_numTemporalLayer, _b_temporalIdNested);
      LOGI << "_i_numTemporalLayer: " << static_cast<unsigned>(_i_numTemporalLayer);
      LOGI << "_b_temporalIdNested: " << static_cast<unsigned>(_b_temporalIdNested);
    } else if (kind == 0x42 && !sps_seen) {
      sps_seen = true;
      LOGI << "sps";
      if (left > 15) {
        hevcParseSPS(_nal_buf + header, left, _i_chroma_idc, _i_bit_depth_luma_minus8, _i_bit_depth_chroma_minus8);
        LOGI << "_i_chroma_idc: " << static_cast<unsigned>(_i_chroma_idc);
        LOGI << "_i_bit_depth_luma_minus8: " << static_cast<unsigned>(_i_bit_depth_luma_minus8);
        LOGI << "_i_bit_depth_chroma_minus8: " << static_cast<unsigned>(_i_bit_depth_chroma_minus8);
      }
    }
  }
  if (Debug()) LOGL << "scan: " << vps_n << " vps, " << sps_n << " sps";

  const long long pos = io.Position();
  IBox::fill(io);
  IOIntWriter w(io);
  w.Write8(_configuration_version);
  io.Write(_profile_tier_level, sizeof _profile_tier_level);
  w.Write16be(0xf000);  // min spatial segmentation 0
  w.Write8(0xfc);       // parallelism unknown
  w.Write8(_i_chroma_idc | 0xfc);
  w.Write8(_i_bit_depth_luma_minus8 | 0xf8);
  w.Write8(_i_bit_depth_luma_minus8 | 0xf8);  // the luma value here too, as files have always had it
  w.Write16be(0);                             // average frame rate
  w.Write8(static_cast<uint8_t>(((_i_numTemporalLayer & 7) << 3) | (_b_temporalIdNested << 2) | 3));
  _vps_count = _vps_size ? 1 : 0;
  _sps_count = _sps_size ? 1 : 0;
  _pps_count = _pps_size ? 1 : 0;
  _num_of_arrays = static_cast<uint8_t>(_vps_count + _sps_count + _pps_count);
  w.Write8(_num_of_arrays);
  writeArray(io, 0x20, _vps, _vps_size);
  writeArray(io, 0x21, _sps, _sps_size);
  writeArray(io, 0x22, _pps, _pps_size);
  LOGI << "number of vps:" << _vps_count;
  LOGI << "number of sps: " << _sps_count;
  LOGI << "number of pps: " << _pps_count;
  for (uint16_t size : {_vps_size, _sps_size, _pps_size})
    if (size) LOGI << "sps: " << size;

  const unsigned long long expected = statisticsSize();
  const long long written = io.Position() - pos;
  if (written < 0 || static_cast<unsigned long long>(written) != expected) {
    LOGE << "Expected Size: " << expected;
    LOGE << "Written Size: " << written;
    LOGE << "write hvcC box error!";
  }
}

void chvcC::parseArray(BoxReader& in, const char* what, size_t& used, const unsigned char*& set,
                       uint16_t& size, uint16_t& count) {
  IOIntReader r(in);
  if (used + sizeof kStartCode > kNalBufSize) {
    LOGE << what << ": hvcC buffer full";
    return;
  }
  std::memcpy(_nal_buf + used, kStartCode, sizeof kStartCode);
  used += sizeof kStartCode;
  count = r.Read16be();
  // Every entry takes at least its two length bytes.
  const long long most = in.Left() / 2;
  if (count > most) {
    LOGE << what << " count " << count << ">" << most;
    count = static_cast<uint16_t>(most);
  }
  for (uint16_t i = 0; i < count; ++i) {
    size_t n = r.Read16be();
    const long long left = in.Left();
    if (static_cast<long long>(n) > left) {
      LOGE << what << " size " << n << ">" << left;
      n = static_cast<size_t>(left);
    }
    if (n > kNalBufSize - used) {
      LOGE << what << " of " << n << " bytes bigger than hvcC buffer";
      in.SkipUpTo(static_cast<long long>(n));
      return;
    }
    in.Bytes(_nal_buf + used, n);
    set = _nal_buf + used;
    size = static_cast<uint16_t>(n);
    used += n;
  }
}

bool chvcC::parse(IO& io) {
  BoxReader in(io, *this);
  IOIntReader r(in);
  _configuration_version = r.Read8();
  in.Bytes(_profile_tier_level, sizeof _profile_tier_level);
  r.Read16be();  // min spatial segmentation
  r.Read8();     // parallelism
  _i_chroma_idc = r.Read8() & 3;
  // Both depth bytes land in the luma field: the chroma one wins.
  _i_bit_depth_luma_minus8 = r.Read8() & 7;
  _i_bit_depth_luma_minus8 = r.Read8() & 7;
  _avg_frame_rate = r.Read16be();
  _level = r.Read8();
  _b_temporalIdNested = (_level >> 2) & 1;
  _i_numTemporalLayer = (_level >> 3) & 7;
  _num_of_arrays = r.Read8();

  _vps = _sps = _pps = nullptr;
  _vps_size = _sps_size = _pps_size = 0;
  _vps_count = _sps_count = _pps_count = 0;
  // The arrays are expected in the order VPS, SPS, PPS; a type byte that is not the expected one is
  // passed over, and the next byte is taken as the next array's type.
  size_t used = 0;
  if (in.Left() > 0 && r.Read8() == 0x20) parseArray(in, "vps", used, _vps, _vps_size, _vps_count);
  if (in.Left() > 0 && r.Read8() == 0x21) parseArray(in, "sps", used, _sps, _sps_size, _sps_count);
  if (in.Left() > 0 && r.Read8() == 0x22) parseArray(in, "pps", used, _pps, _pps_size, _pps_count);
  _nal_size = static_cast<uint32_t>(used);
  in.SkipRest();
  return !r.Failed();
}

void chvcC::fields(AttrSet& out) const {
  IBox::fields(out);
  out.SetOrAdd("configuration_version", static_cast<unsigned>(_configuration_version));
  out.SetOrAdd("profile_tier_level", HexBytes(_profile_tier_level, sizeof _profile_tier_level));
  out.SetOrAdd("chroma_idc", static_cast<unsigned>(_i_chroma_idc));
  out.SetOrAdd("bit_depth_luma_minus8", static_cast<unsigned>(_i_bit_depth_luma_minus8));
  out.SetOrAdd("numTemporalLayer", static_cast<unsigned>(_i_numTemporalLayer));
  out.SetOrAdd("temporalIdNested", static_cast<unsigned>(_b_temporalIdNested));
  out.SetOrAdd("arrays", static_cast<unsigned>(_num_of_arrays));
  out.SetOrAdd("vps_size", static_cast<unsigned>(_vps_size));
  out.SetOrAdd("sps_size", static_cast<unsigned>(_sps_size));
  out.SetOrAdd("pps_size", static_cast<unsigned>(_pps_size));
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
