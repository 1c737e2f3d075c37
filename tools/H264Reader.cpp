#include "tools/H264Reader.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "stream/base/Helpers.h"
#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "tools/BitReader.h"

namespace boxweave {

namespace {

const uint8_t kStartCode[4] = {0, 0, 0, 1};

bool isVcl(int type) { return type == 1 || type == 2 || type == 5; }

// Types that open a new access unit when they follow a picture's slices.
bool opensUnit(int type) { return type == 6 || type == 7 || type == 8 || type == 9 || (type >= 14 && type <= 18); }

bool highProfile(unsigned p) {
  switch (p) {
    case 100: case 110: case 122: case 244: case 44: case 83: case 86: case 118: case 128: case 138:
    case 139: case 134: case 135:
      return true;
    default:
      return false;
  }
}

void skipScalingList(BitReader& br, int size) {
  int64_t last = 8, next = 8;
  for (int j = 0; j < size; ++j) {
    if (next != 0) {
      const int64_t delta = br.Se();
      next = ((last + delta) % 256 + 256) % 256;
      if (br.Failed()) return;
    }
    last = next == 0 ? last : next;
  }
}

}  // namespace

bool ParseSps(const uint8_t* nal, size_t size, H264Sps& sps, std::string& why) {
  if (!nal || size < 4) {
    why = "SPS of " + std::to_string(size) + " bytes is too short";
    return false;
  }
  if ((nal[0] & 0x1f) != 7) {
    why = "NAL unit type " + std::to_string(nal[0] & 0x1f) + " is not an SPS";
    return false;
  }
  std::vector<uint8_t> rbsp;
  UnescapeRbsp(nal + 1, size - 1, rbsp);
  BitReader br(rbsp.data(), rbsp.size());
  H264Sps s;
  s.profile_idc = br.U(8);
  s.constraint_flags = br.U(8);
  s.level_idc = br.U(8);
  s.sps_id = br.Ue();
  if (s.sps_id > 31) {
    why = "seq_parameter_set_id " + std::to_string(s.sps_id) + " out of range";
    return false;
  }
  bool separateColourPlanes = false;
  if (highProfile(s.profile_idc)) {
    s.chroma_format_idc = br.Ue();
    if (s.chroma_format_idc > 3) {
      why = "chroma_format_idc " + std::to_string(s.chroma_format_idc) + " out of range";
      return false;
    }
    if (s.chroma_format_idc == 3) separateColourPlanes = br.Flag();
    s.bit_depth_luma_minus8 = br.Ue();
    s.bit_depth_chroma_minus8 = br.Ue();
    if (s.bit_depth_luma_minus8 > 6 || s.bit_depth_chroma_minus8 > 6) {
      why = "bit depth out of range";
      return false;
    }
    br.Flag();  // qpprime_y_zero_transform_bypass_flag
    if (br.Flag()) {
      const int lists = s.chroma_format_idc != 3 ? 8 : 12;
      for (int i = 0; i < lists && !br.Failed(); ++i)
        if (br.Flag()) skipScalingList(br, i < 6 ? 16 : 64);
    }
  }
  const uint32_t log2MaxFrameNumMinus4 = br.Ue();
  if (log2MaxFrameNumMinus4 > 12) {
    why = "log2_max_frame_num_minus4 out of range";
    return false;
  }
  const uint32_t pocType = br.Ue();
  if (pocType == 0) {
    if (br.Ue() > 12) {
      why = "log2_max_pic_order_cnt_lsb_minus4 out of range";
      return false;
    }
  } else if (pocType == 1) {
    br.Flag();
    br.Se();
    br.Se();
    const uint32_t cycle = br.Ue();
    if (cycle > 255) {
      why = "num_ref_frames_in_pic_order_cnt_cycle out of range";
      return false;
    }
    for (uint32_t i = 0; i < cycle && !br.Failed(); ++i) br.Se();
  } else if (pocType != 2) {
    why = "pic_order_cnt_type " + std::to_string(pocType) + " out of range";
    return false;
  }
  br.Ue();    // max_num_ref_frames
  br.Flag();  // gaps_in_frame_num_value_allowed_flag
  const uint32_t widthMbs = br.Ue() + 1;
  const uint32_t heightMapUnits = br.Ue() + 1;
  s.frame_mbs_only = br.Flag();
  if (!s.frame_mbs_only) br.Flag();  // mb_adaptive_frame_field_flag
  br.Flag();                         // direct_8x8_inference_flag
  uint32_t crop[4] = {0, 0, 0, 0};   // left, right, top, bottom
  if (br.Flag())
    for (uint32_t& c : crop) c = br.Ue();
  if (br.Failed()) {
    why = "SPS ends before its picture size";
    return false;
  }
  // 16384 samples a side is beyond every level; larger values are damage.
  if (widthMbs > 1024 || heightMapUnits > 1024) {
    why = "picture size out of range";
    return false;
  }
  const unsigned chromaArrayType = separateColourPlanes ? 0 : s.chroma_format_idc;
  const unsigned subWidth = chromaArrayType == 1 || chromaArrayType == 2 ? 2 : 1;
  const unsigned subHeight = chromaArrayType == 1 ? 2 : 1;
  const unsigned frameFactor = s.frame_mbs_only ? 1 : 2;
  const unsigned cropX = chromaArrayType == 0 ? 1 : subWidth;
  const unsigned cropY = (chromaArrayType == 0 ? 1 : subHeight) * frameFactor;
  const uint64_t fullW = uint64_t(widthMbs) * 16;
  const uint64_t fullH = uint64_t(heightMapUnits) * 16 * frameFactor;
  const uint64_t cutW = (uint64_t(crop[0]) + crop[1]) * cropX;
  const uint64_t cutH = (uint64_t(crop[2]) + crop[3]) * cropY;
  if (cutW >= fullW || cutH >= fullH) {
    why = "cropping larger than the picture";
    return false;
  }
  s.width = static_cast<unsigned>(fullW - cutW);
  s.height = static_cast<unsigned>(fullH - cutH);
  sps = s;
  return true;
}

// ---- reader

H264Reader::H264Reader(size_t block) : AnnexBReader(block) {}

bool H264Reader::HandlesPath(const std::string& path) { return EndsWith(path, ".h264") || EndsWith(path, ".264"); }

bool H264Reader::Open(const std::string& path) {
  if (!openStream(path, "H.264", 1)) return false;
  // The first unit's header byte must look like H.264 (an HEVC or MPEG-2 stream also opens with a
  // start code, and its first byte reads as type 0 or with the forbidden bit).
  const uint8_t h = _buf[_begin];
  const int type = h & 0x1f;
  if ((h & 0x80) || type == 0 || type >= 24) {
    std::ostringstream m;
    m << "not an H.264 stream: first NAL unit header 0x" << std::hex << int(h);
    return fail(m.str());
  }
  return true;
}

void H264Reader::deliver(H264AccessUnit& au) {
  au = H264AccessUnit();
  handOut(_cur, au);
  au.head = _cur.head;
  au.hasSps = _cur.hasSps;
  au.hasPps = _cur.hasPps;
  _cur = Building();
}

bool H264Reader::Next(H264AccessUnit& au) {
  if (Failed() || !_file) return false;
  const uint8_t* nal = nullptr;
  size_t size = 0;
  unsigned long long position = 0;
  while (nextNal(nal, size, position)) {
    const uint8_t h = nal[0];
    if (h & 0x80) {
      // forbidden_zero_bit: a damaged unit; a decoder drops it too.
      ++_droppedUnits;
      LOGE << _path << ": NAL unit with the forbidden bit at byte " << position << " dropped";
      continue;
    }
    const int type = h & 0x1f;
    bool starts = false;
    int firstMb = -1;
    unsigned sliceBit = 0;
    if (isVcl(type)) {
      // first_mb_in_slice and slice_type open the slice header.
      uint8_t head[16];
      const size_t n = UnescapeRbsp(nal + 1, size - 1, head, sizeof head);
      BitReader br(head, n);
      const uint32_t mb = br.Ue();
      const uint32_t st = br.Ue();
      if (br.Failed() || st > 9) {
        ++_badSlices;
      } else {
        firstMb = mb > 0x7fffffff ? 0x7fffffff : static_cast<int>(mb);
        sliceBit = 1u << (st % 5);
      }
      starts = _cur.hasVcl && firstMb == 0;
    } else {
      starts = _cur.hasVcl && opensUnit(type);
    }
    if (starts) {
      deliver(au);
      if (!add(_cur, nal, size, position)) return false;
    } else if (!add(_cur, nal, size, position)) {
      return false;
    }
    if (isVcl(type)) {
      if (!_cur.hasVcl) _cur.head = _cur.size - 4 - size;
      _cur.hasVcl = true;
      ++_cur.slices;
      _cur.sliceTypes |= sliceBit;
      if (type == 5) _cur.key = true;
    } else if (type == 7) {
      _cur.hasSps = true;
      noteParamSet(_sps, nal, size);
    } else if (type == 8) {
      _cur.hasPps = true;
      noteParamSet(_pps, nal, size);
    }
    if (starts) return true;
  }
  if (Failed()) return false;
  if (_cur.hasVcl) {
    deliver(au);
    return true;
  }
  // Units behind the last picture (parameter sets, end of stream) without a picture of their own.
  dropUnits(_cur);
  _cur = Building();
  return false;
}

kiv::stream::Packet* H264Reader::NextPacket(kiv::stream::IMedia* media) {
  H264AccessUnit au;
  if (!Next(au)) return Failed() ? PacketError() : nullptr;
  return packetOf(au.data, au.size, au.key, au.index, media);
}

// ---- description

bool DescribeH264(const std::string& path, H264Description& out, std::string& error) {
  H264Description d;
  d.path = path;
  H264Reader r;
  r.ScanOnly(true);
  if (!r.Open(path)) {
    error = r.Error();
    return false;
  }
  bool spsParsed = false;
  KeyPictures keyPictures;
  bool allIntra = true;
  H264AccessUnit au;
  while (r.Next(au)) {
    if (!spsParsed && !r.FirstSps().empty()) {
      std::string why;
      if (!ParseSps(r.FirstSps().data(), r.FirstSps().size(), d.sps, why)) {
        error = path + ": unparsable SPS: " + why;
        LOGE << error;
        return false;
      }
      spsParsed = true;
    }
    ++d.pictures;
    d.bytes += au.size;
    keyPictures.Note(au);
    if (au.sliceTypes & kSliceB) d.hasB = true;
    if (!au.Intra()) allIntra = false;
    d.maxSlices = std::max(d.maxSlices, au.slices);
    d.maxHead = std::max(d.maxHead, au.head);
  }
  if (r.Failed()) {
    error = r.Error();
    return false;
  }
  const auto fault = [&](const char* what) {
    error = path + ": " + what;
    LOGE << error;
    return false;
  };
  if (d.pictures == 0) return fault("no picture in the stream");
  if (r.FirstSps().empty()) return fault("no SPS in the stream");
  if (r.FirstPps().empty()) return fault("no PPS in the stream");
  if (!spsParsed) {
    std::string why;
    if (!ParseSps(r.FirstSps().data(), r.FirstSps().size(), d.sps, why)) {
      error = path + ": unparsable SPS: " + why;
      LOGE << error;
      return false;
    }
  }
  d.spsBytes = r.FirstSps();
  d.ppsBytes = r.FirstPps();
  d.allIntra = allIntra;
  d.keys = keyPictures.count;
  d.firstKey = keyPictures.first;
  d.gop = keyPictures.Gop(d.pictures);
  d.paramSetsChange = r.ParamSetsChange();
  d.droppedUnits = r.DroppedUnits();
  d.badSlices = r.BadSlices();
  out = std::move(d);
  return true;
}

kiv::stream::IMedia* NewH264Media(const H264Description& d, const kiv::base::Fraction& fps) {
  if (fps.Num() <= 0 || fps.Den() <= 0) {
    LOGE << "framerate " << fps.ToString() << " is not positive";
    return nullptr;
  }
  kiv::stream::IMedia* m = kiv::stream::IMedia::New("h264");
  if (!m) return nullptr;
  // Extra data in the form the demuxing side gives it; the SPS and PPS pointers live in it.
  std::vector<uint8_t> extra;
  extra.reserve(d.spsBytes.size() + d.ppsBytes.size() + 8);
  extra.insert(extra.end(), kStartCode, kStartCode + 4);
  extra.insert(extra.end(), d.spsBytes.begin(), d.spsBytes.end());
  extra.insert(extra.end(), kStartCode, kStartCode + 4);
  extra.insert(extra.end(), d.ppsBytes.begin(), d.ppsBytes.end());
  bool ok = m->Extra(extra.data(), static_cast<int>(extra.size())) && m->Extra();
  if (ok) {
    unsigned char* base = const_cast<unsigned char*>(m->Extra());
    unsigned char* sps = base + 4;
    unsigned char* pps = base + 8 + d.spsBytes.size();
    const unsigned height = d.interlace() ? d.sps.height / 2 : d.sps.height;
    ok = m->Set("width", static_cast<int>(d.sps.width)) && m->Set("height", static_cast<int>(height)) &&
         m->Set("interlace", d.interlace()) && m->Set("profile", d.sps.profile_idc) &&
         m->Set("level", d.sps.level_idc) && m->Set("chroma_format_idc", d.sps.chroma_format_idc) &&
         m->Set("bit_depth_luma_minus8", d.sps.bit_depth_luma_minus8) &&
         m->Set("bit_depth_chroma_minus8", d.sps.bit_depth_chroma_minus8) && m->Set("sps", sps) &&
         m->Set("isps", static_cast<unsigned>(d.spsBytes.size())) && m->Set("pps", pps) &&
         m->Set("ipps", static_cast<unsigned>(d.ppsBytes.size())) && m->Set("gop", d.gop) &&
         m->SetWithType("framerate", fps);
    uint32_t structure = 0;
    if (d.hasB) {
      kiv::Convert32(structure, "ibbp");
    } else if (d.allIntra) {
      kiv::Convert32(structure, "iiii");
    }
    if (ok && structure) ok = m->Set("struct", structure);
  }
  if (!ok) {
    LOGE << "!h264 media attributes";
    m->Release();
    return nullptr;
  }
  return m;
}

std::vector<std::string> H264Warnings(const H264Description& d) {
  std::vector<std::string> w;
  if (d.multiSlice()) {
    std::ostringstream m;
    m << d.path << ": pictures have up to " << d.maxSlices
      << " slices; the H.264 track writes one length over everything behind the first slice, so the "
         "recorded file does not keep these pictures faithfully";
    w.push_back(m.str());
  }
  if (d.paramSetsChange)
    w.push_back(d.path + ": the stream changes its SPS or PPS; the file's sample description keeps the first ones");
  if (d.firstKey != 0) {
    std::ostringstream m;
    if (d.firstKey < 0) {
      m << d.path << ": no IDR picture in the stream";
    } else {
      m << d.path << ": " << d.firstKey << " pictures before the first IDR picture cannot be decoded on their own";
    }
    w.push_back(m.str());
  }
  if (d.droppedUnits) w.push_back(d.path + ": " + std::to_string(d.droppedUnits) + " damaged or stray NAL units dropped");
  if (d.badSlices) w.push_back(d.path + ": " + std::to_string(d.badSlices) + " slices with an unreadable header");
  return w;
}

}  // namespace boxweave
