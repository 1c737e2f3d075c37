#include "tools/H265Reader.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <iomanip>
#include <sstream>

#include "stream/base/Helpers.h"
#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "tools/BitReader.h"

namespace boxweave {

namespace {

const uint8_t kStartCode[4] = {0, 0, 0, 1};
// The first bytes of a unit are all a header parse needs.
constexpr size_t kHeadBytes = 64;

// Types that open a new access unit when they follow a picture's slices.
bool opensUnit(int type) {
  return (type >= kHevcVps && type <= kHevcAud) || type == kHevcPrefixSei || (type >= 41 && type <= 44) ||
         (type >= 48 && type <= 55);
}

// The first unit the HEVC track keeps of a sample: the ones in front of it (parameter sets, delimiter)
// are cut, the ones from it on go behind one length.
bool trackKeepsFrom(int type) {
  return type == kHevcPrefixSei || type == kHevcSuffixSei || (type < 32 && ((0x28010Fu >> type) & 1u));
}

// profile_tier_level(1, maxSubLayersMinus1): the general part is kept, the sub-layer parts skipped.
void readProfileTierLevel(BitReader& br, unsigned maxSubLayersMinus1, H265Sps& s) {
  s.profile_space = br.U(2);
  s.tier = br.U(1);
  s.profile_idc = br.U(5);
  br.Skip(32);  // compatibility flags
  br.Skip(48);  // source flags and constraint bits
  s.level_idc = br.U(8);
  bool profilePresent[8] = {};
  bool levelPresent[8] = {};
  for (unsigned i = 0; i < maxSubLayersMinus1; ++i) {
    profilePresent[i] = br.Flag();
    levelPresent[i] = br.Flag();
  }
  if (maxSubLayersMinus1 > 0) br.Skip(2 * (8 - maxSubLayersMinus1));
  for (unsigned i = 0; i < maxSubLayersMinus1; ++i) {
    if (profilePresent[i]) br.Skip(88);
    if (levelPresent[i]) br.Skip(8);
  }
}

}  // namespace

bool ParseH265Sps(const uint8_t* nal, size_t size, H265Sps& sps, std::string& why) {
  if (!nal || size < 4) {
    why = "SPS of " + std::to_string(size) + " bytes is too short";
    return false;
  }
  if (HevcNalType(nal[0]) != kHevcSps) {
    why = "NAL unit type " + std::to_string(HevcNalType(nal[0])) + " is not an SPS";
    return false;
  }
  std::vector<uint8_t> rbsp;
  UnescapeRbsp(nal + 2, size - 2, rbsp);
  BitReader br(rbsp.data(), rbsp.size());
  H265Sps s;
  s.vps_id = br.U(4);
  const unsigned maxSubLayersMinus1 = br.U(3);
  if (maxSubLayersMinus1 > 6) {
    why = "sps_max_sub_layers_minus1 " + std::to_string(maxSubLayersMinus1) + " out of range";
    return false;
  }
  s.max_sub_layers = maxSubLayersMinus1 + 1;
  br.Flag();  // sps_temporal_id_nesting_flag
  readProfileTierLevel(br, maxSubLayersMinus1, s);
  s.sps_id = br.Ue();
  if (s.sps_id > 15) {
    why = "sps_seq_parameter_set_id " + std::to_string(s.sps_id) + " out of range";
    return false;
  }
  s.chroma_format_idc = br.Ue();
  if (s.chroma_format_idc > 3) {
    why = "chroma_format_idc " + std::to_string(s.chroma_format_idc) + " out of range";
    return false;
  }
  if (s.chroma_format_idc == 3) s.separate_colour_planes = br.Flag();
  s.coded_width = br.Ue();
  s.coded_height = br.Ue();
  uint32_t window[4] = {0, 0, 0, 0};  // left, right, top, bottom
  if (br.Flag())
    for (uint32_t& w : window) w = br.Ue();
  s.bit_depth_luma_minus8 = br.Ue();
  s.bit_depth_chroma_minus8 = br.Ue();
  if (br.Failed()) {
    why = "SPS ends before its bit depths";
    return false;
  }
  if (s.bit_depth_luma_minus8 > 8 || s.bit_depth_chroma_minus8 > 8) {
    why = "bit depth out of range";
    return false;
  }
  // 16888 samples a side is the most any level allows; larger values are damage.
  if (s.coded_width == 0 || s.coded_height == 0 || s.coded_width > 16888 || s.coded_height > 16888) {
    why = "picture size " + std::to_string(s.coded_width) + "x" + std::to_string(s.coded_height) + " out of range";
    return false;
  }
  const unsigned chromaArrayType = s.separate_colour_planes ? 0 : s.chroma_format_idc;
  const uint64_t subWidth = chromaArrayType == 1 || chromaArrayType == 2 ? 2 : 1;
  const uint64_t subHeight = chromaArrayType == 1 ? 2 : 1;
  const uint64_t cutW = (uint64_t(window[0]) + window[1]) * subWidth;
  const uint64_t cutH = (uint64_t(window[2]) + window[3]) * subHeight;
  if (cutW >= s.coded_width || cutH >= s.coded_height) {
    why = "conformance window larger than the picture";
    return false;
  }
  s.width = static_cast<unsigned>(s.coded_width - cutW);
  s.height = static_cast<unsigned>(s.coded_height - cutH);
  sps = s;
  return true;
}

bool ParseH265PpsExtraBits(const uint8_t* nal, size_t size, unsigned& extraBits) {
  if (!nal || size < 3 || HevcNalType(nal[0]) != kHevcPps) return false;
  uint8_t head[kHeadBytes];
  const size_t n = UnescapeRbsp(nal + 2, size - 2, head, sizeof head);
  BitReader br(head, n);
  br.Ue();    // pps_pic_parameter_set_id
  br.Ue();    // pps_seq_parameter_set_id
  br.Flag();  // dependent_slice_segments_enabled_flag
  br.Flag();  // output_flag_present_flag
  const unsigned bits = br.U(3);
  if (br.Failed()) return false;
  extraBits = bits;
  return true;
}

// ---- reader

H265Reader::H265Reader(size_t block) : AnnexBReader(block) {}

bool H265Reader::HandlesPath(const std::string& path) { return EndsWith(path, ".h265") || EndsWith(path, ".hevc"); }

bool H265Reader::Open(const std::string& path) {
  if (!openStream(path, "H.265", 2)) return false;
  // The first unit's two header bytes must look like H.265: no forbidden bit, a type an encoder opens
  // a stream with (delimiter, parameter set, SEI or a random access slice), and a temporal id + 1
  // that is not 0. An H.264 stream's first byte (0x09, 0x67, 0x06) fails the type test.
  const uint8_t h0 = _buf[_begin];
  const uint8_t h1 = _buf[_begin + 1];
  const int type = HevcNalType(h0);
  const bool opens = (type >= kHevcVps && type <= kHevcAud) || type == kHevcPrefixSei || HevcIsIrap(type);
  if ((h0 & 0x80) || (h1 & 7) == 0 || !opens) {
    std::ostringstream m;
    m << "not an H.265 stream: first NAL unit header 0x" << std::hex << std::setw(4) << std::setfill('0')
      << (int(h0) << 8 | h1);
    return fail(m.str());
  }
  return true;
}

void H265Reader::deliver(H265AccessUnit& au) {
  au = H265AccessUnit();
  handOut(_cur, au);
  au.unitsKept = _cur.keptFrom < 0 ? _cur.units : _cur.units - _cur.keptFrom;
  au.hasVps = _cur.hasVps;
  au.hasSps = _cur.hasSps;
  au.hasPps = _cur.hasPps;
  _cur = Building();
}

// The slice type of a picture's first slice segment, as a HevcSliceBits bit; 0 for a later segment
// (its type follows an address whose width needs the SPS) and for a header that cannot be read.
unsigned H265Reader::sliceTypeOf(const uint8_t* nal, size_t size, int type, bool& firstInPicture) {
  uint8_t head[kHeadBytes];
  const size_t n = size > 2 ? UnescapeRbsp(nal + 2, size - 2, head, sizeof head) : 0;
  BitReader br(head, n);
  firstInPicture = br.Flag();
  if (br.Failed()) {
    ++_badSlices;
    return 0;
  }
  if (!firstInPicture) return 0;
  if (HevcIsIrap(type)) br.Flag();  // no_output_of_prior_pics_flag
  br.Ue();                          // slice_pic_parameter_set_id
  br.Skip(_extraSliceBits);
  const uint32_t st = br.Ue();
  if (br.Failed() || st > 2) {
    ++_badSlices;
    return 0;
  }
  return st == 0 ? kHevcSliceB : st == 1 ? kHevcSliceP : kHevcSliceI;
}

bool H265Reader::Next(H265AccessUnit& au) {
  if (Failed() || !_file) return false;
  const uint8_t* nal = nullptr;
  size_t size = 0;
  unsigned long long position = 0;
  while (nextNal(nal, size, position)) {
    if ((nal[0] & 0x80) || size < 2) {
      // forbidden_zero_bit, or a unit without its second header byte: damage; a decoder drops it too.
      ++_droppedUnits;
      LOGE << _path << ": damaged NAL unit at byte " << position << " dropped";
      continue;
    }
    const int type = HevcNalType(nal[0]);
    bool starts = false;
    unsigned sliceBit = 0;
    if (HevcIsVcl(type)) {
      bool first = false;
      sliceBit = sliceTypeOf(nal, size, type, first);
      starts = _cur.hasVcl && first;
    } else {
      starts = _cur.hasVcl && opensUnit(type);
    }
    if (starts) deliver(au);
    // A parameter set equal to the first of its kind travels as the media's attribute, not in the
    // packet: left in front of a picture that the track does not look for (IDR_N_LP, BLA), it would
    // stand behind that picture's one length.
    const std::vector<uint8_t>* first = type == kHevcVps ? &_vps : type == kHevcSps ? &_sps : type == kHevcPps ? &_pps : nullptr;
    const bool repeated = first && (first->empty() || (first->size() == size && std::memcmp(first->data(), nal, size) == 0));
    if (!repeated) {
      if (_cur.keptFrom < 0 && trackKeepsFrom(type)) _cur.keptFrom = _cur.units;
      if (!add(_cur, nal, size, position)) return false;
    }
    if (HevcIsVcl(type)) {
      _cur.hasVcl = true;
      ++_cur.slices;
      _cur.sliceTypes |= sliceBit;
      if (HevcIsIrap(type)) _cur.key = true;
    } else if (type == kHevcVps) {
      _cur.hasVps = true;
      noteParamSet(_vps, nal, size);
    } else if (type == kHevcSps) {
      _cur.hasSps = true;
      noteParamSet(_sps, nal, size);
    } else if (type == kHevcPps) {
      _cur.hasPps = true;
      noteParamSet(_pps, nal, size);
      unsigned bits = 0;
      if (ParseH265PpsExtraBits(nal, size, bits)) _extraSliceBits = bits;
    }
    if (starts) return true;
  }
  if (Failed()) return false;
  if (_cur.hasVcl) {
    deliver(au);
    return true;
  }
  // Units behind the last picture without a picture of their own.
  dropUnits(_cur);
  _cur = Building();
  return false;
}

kiv::stream::Packet* H265Reader::NextPacket(kiv::stream::IMedia* media) {
  H265AccessUnit au;
  if (!Next(au)) return Failed() ? PacketError() : nullptr;
  return packetOf(au.data, au.size, au.key, au.index, media);
}

// ---- description

bool DescribeH265(const std::string& path, H265Description& out, std::string& error) {
  H265Description d;
  d.path = path;
  H265Reader r;
  r.ScanOnly(true);
  if (!r.Open(path)) {
    error = r.Error();
    return false;
  }
  KeyPictures keyPictures;
  H265AccessUnit au;
  while (r.Next(au)) {
    ++d.pictures;
    d.bytes += au.size;
    keyPictures.Note(au);
    if (au.sliceTypes & kHevcSliceB) d.hasB = true;
    d.maxSlices = std::max(d.maxSlices, au.slices);
    if (au.unitsKept > 1) {
      if (d.firstShared < 0) d.firstShared = au.index;
      ++d.sharedLength;
    }
  }
  if (r.Failed()) {
    error = r.Error();
    return false;
  }
  const auto fault = [&](const std::string& what) {
    error = path + ": " + what;
    LOGE << error;
    return false;
  };
  if (d.pictures == 0) return fault("no picture in the stream");
  if (r.FirstVps().empty()) return fault("no VPS in the stream");
  if (r.FirstSps().empty()) return fault("no SPS in the stream");
  if (r.FirstPps().empty()) return fault("no PPS in the stream");
  std::string why;
  if (!ParseH265Sps(r.FirstSps().data(), r.FirstSps().size(), d.sps, why)) return fault("unparsable SPS: " + why);
  d.vpsBytes = r.FirstVps();
  d.spsBytes = r.FirstSps();
  d.ppsBytes = r.FirstPps();
  d.keys = keyPictures.count;
  d.firstKey = keyPictures.first;
  d.gop = keyPictures.Gop(d.pictures);
  d.paramSetsChange = r.ParamSetsChange();
  d.droppedUnits = r.DroppedUnits();
  d.badSlices = r.BadSlices();
  out = std::move(d);
  return true;
}

kiv::stream::IMedia* NewH265Media(const H265Description& d, const kiv::base::Fraction& fps) {
  if (fps.Num() <= 0 || fps.Den() <= 0) {
    LOGE << "framerate " << fps.ToString() << " is not positive";
    return nullptr;
  }
  kiv::stream::IMedia* m = kiv::stream::IMedia::New("hevc");
  if (!m) return nullptr;
  // Extra data in start-code form; the three pointers live in it.
  std::vector<uint8_t> extra;
  extra.reserve(d.vpsBytes.size() + d.spsBytes.size() + d.ppsBytes.size() + 12);
  for (const std::vector<uint8_t>* set : {&d.vpsBytes, &d.spsBytes, &d.ppsBytes}) {
    extra.insert(extra.end(), kStartCode, kStartCode + 4);
    extra.insert(extra.end(), set->begin(), set->end());
  }
  bool ok = m->Extra(extra.data(), static_cast<int>(extra.size())) && m->Extra();
  if (ok) {
    unsigned char* base = const_cast<unsigned char*>(m->Extra());
    unsigned char* vps = base + 4;
    unsigned char* sps = vps + d.vpsBytes.size() + 4;
    unsigned char* pps = sps + d.spsBytes.size() + 4;
    ok = m->Set("width", static_cast<int>(d.sps.width)) && m->Set("height", static_cast<int>(d.sps.height)) &&
         m->Set("interlace", false) && m->Set("profile", d.sps.profile_idc) && m->Set("level", d.sps.level_idc) &&
         m->Set("vps", vps) && m->Set("ivps", static_cast<unsigned>(d.vpsBytes.size())) && m->Set("sps", sps) &&
         m->Set("isps", static_cast<unsigned>(d.spsBytes.size())) && m->Set("pps", pps) &&
         m->Set("ipps", static_cast<unsigned>(d.ppsBytes.size())) && m->Set("gop", d.gop) &&
         m->SetWithType("framerate", fps);
    uint32_t structure = 0;
    if (d.hasB) kiv::Convert32(structure, "ibbp");
    if (ok && structure) ok = m->Set("struct", structure);
  }
  if (!ok) {
    LOGE << "!hevc media attributes";
    m->Release();
    return nullptr;
  }
  return m;
}

std::vector<std::string> H265Warnings(const H265Description& d) {
  std::vector<std::string> w;
  if (d.sharedLength) {
    std::ostringstream m;
    m << d.path << ": " << d.sharedLength << " pictures (the first is number " << d.firstShared
      << ") hold more than one NAL unit behind their parameter sets (SEI, several slices, or a slice kind the "
         "track does not look for); the HEVC track writes one length over all of them where players expect one "
         "a unit: boxweave play gives them back as they came, other players may not";
    if (d.maxSlices > 1) m << " (up to " << d.maxSlices << " slices a picture)";
    w.push_back(m.str());
  }
  if (d.paramSetsChange)
    w.push_back(d.path + ": the stream changes its VPS, SPS or PPS; the file's sample description keeps the first ones");
  if (d.firstKey != 0) {
    std::ostringstream m;
    if (d.firstKey < 0) {
      m << d.path << ": no random access picture (IDR, CRA, BLA) in the stream";
    } else {
      m << d.path << ": " << d.firstKey << " pictures before the first random access picture cannot be decoded on their own";
    }
    w.push_back(m.str());
  }
  if (d.droppedUnits) w.push_back(d.path + ": " + std::to_string(d.droppedUnits) + " damaged or stray NAL units dropped");
  if (d.badSlices) w.push_back(d.path + ": " + std::to_string(d.badSlices) + " slices with an unreadable header");
  return w;
}

}  // namespace boxweave
