// The HEVC configuration record: the bit reader, the parameter-set scan on writing, reading back,
// and damaged records.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "stream/plugin/mp4/common/Hvcc.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stsd.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"

using namespace boxtest;
using kiv::base::IOBuffer;
using namespace kiv::plugin::mov;

namespace {

// Parameter sets of a 64x48 test picture made by x265 through ffmpeg
// (ffmpeg -f lavfi -i testsrc=size=64x48 -frames:v 1 -c:v libx265 -f hevc). ffprobe reports Main
// profile, level 30, yuv420p; the 10-bit stream Main 10, yuv420p10le; the 4:4:4 stream Rext, yuv444p.
const Bytes kVps8 = {0x40, 0x01, 0x0c, 0x01, 0xff, 0xff, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00,
                     0x90, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x1e, 0x95, 0x98, 0x09};
const Bytes kSps8 = {0x42, 0x01, 0x01, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00, 0x00, 0x03, 0x00,
                     0x00, 0x03, 0x00, 0x1e, 0xa0, 0x20, 0x83, 0x16, 0x59, 0x59, 0xae, 0x4c, 0xaf, 0x01,
                     0x68, 0x08, 0x00, 0x00, 0x03, 0x00, 0x08, 0x00, 0x00, 0x03, 0x00, 0xc8, 0x40};
const Bytes kPps8 = {0x44, 0x01, 0xc1, 0x73, 0xd0, 0x89};
const Bytes kVps10 = {0x40, 0x01, 0x0c, 0x01, 0xff, 0xff, 0x02, 0x20, 0x00, 0x00, 0x03, 0x00,
                      0x90, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x1e, 0x95, 0x98, 0x09};
const Bytes kSps10 = {0x42, 0x01, 0x01, 0x02, 0x20, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00, 0x00, 0x03, 0x00,
                      0x00, 0x03, 0x00, 0x1e, 0xa0, 0x20, 0x83, 0x13, 0x65, 0x95, 0x9a, 0xe4, 0xca, 0xf0,
                      0x16, 0x80, 0x80, 0x00, 0x00, 0x03, 0x00, 0x80, 0x00, 0x00, 0x0c, 0x84};
const Bytes kVps444 = {0x40, 0x01, 0x0c, 0x01, 0xff, 0xff, 0x04, 0x08, 0x00, 0x00, 0x03, 0x00,
                       0x9e, 0x08, 0x00, 0x00, 0x03, 0x00, 0x00, 0x1e, 0x95, 0x98, 0x09};
const Bytes kSps444 = {0x42, 0x01, 0x01, 0x04, 0x08, 0x00, 0x00, 0x03, 0x00, 0x9e, 0x08, 0x00, 0x00, 0x03,
                       0x00, 0x00, 0x1e, 0x90, 0x04, 0x10, 0x62, 0xcb, 0x2b, 0x35, 0xc9, 0x95, 0xe0, 0x2d,
                       0x01, 0x00, 0x00, 0x03, 0x00, 0x01, 0x00, 0x00, 0x03, 0x00, 0x19, 0x08};
const Bytes kPps444 = {0x44, 0x01, 0xc1, 0x73, 0x18, 0x31, 0x08, 0x90};

const Bytes kStart = {0, 0, 0, 1};

struct Lay {
  Bytes b;
  Lay& u8(unsigned v) {
    b.push_back(static_cast<unsigned char>(v));
    return *this;
  }
  Lay& u16(unsigned v) { return u8(v >> 8).u8(v); }
  Lay& raw(const Bytes& more) {
    Append(b, more);
    return *this;
  }
  Lay& array(unsigned type, const Bytes& set) { return u8(type).u16(1).u16(static_cast<unsigned>(set.size())).raw(set); }
};

// Bits, most significant first, with exponential Golomb codes; Escaped() adds emulation prevention.
struct Bits {
  Bytes bytes;
  int used = 0;
  void bit(unsigned b) {
    if (used == 0) bytes.push_back(0);
    if (b) bytes.back() = static_cast<unsigned char>(bytes.back() | (0x80u >> used));
    used = (used + 1) % 8;
  }
  void put(uint64_t v, int n) {
    for (int i = n - 1; i >= 0; --i) bit(static_cast<unsigned>((v >> i) & 1));
  }
  void ue(uint32_t v) {
    const uint64_t x = static_cast<uint64_t>(v) + 1;
    int len = 0;
    while ((x >> len) != 0) ++len;
    put(0, len - 1);
    put(x, len);
  }
  Bytes Escaped() const {
    Bytes out;
    int zeros = 0;
    for (unsigned char c : bytes) {
      if (zeros >= 2 && c <= 3) {
        out.push_back(3);
        zeros = 0;
      }
      out.push_back(c);
      zeros = c == 0 ? zeros + 1 : 0;
    }
    return out;
  }
};

struct SpsParams {
  int sub_layers = 0;
  std::vector<int> profile_present;
  std::vector<int> level_present;
  uint32_t chroma = 1;
  bool window = false;
  uint32_t luma_depth = 0;
  uint32_t chroma_depth = 0;
};

// An SPS laid out field by field, with a tail long enough for the scan to decode it.
Bytes MakeSps(const SpsParams& p) {
  Bits b;
  b.put(0, 4);  // VPS id
  b.put(static_cast<uint64_t>(p.sub_layers), 3);
  b.put(1, 1);                   // temporal id nesting
  b.put(0, 3);                   // profile space, tier
  b.put(1, 5);                   // Main
  b.put(0x60000000, 32);         // compatibility
  b.put(0x900000000000ull, 48);  // constraint flags
  b.put(93, 8);                  // level 3.1
  for (int i = 0; i < p.sub_layers; ++i) {
    b.put(static_cast<uint64_t>(p.profile_present[static_cast<size_t>(i)]), 1);
    b.put(static_cast<uint64_t>(p.level_present[static_cast<size_t>(i)]), 1);
  }
  if (p.sub_layers > 0)
    for (int i = p.sub_layers; i < 8; ++i) b.put(0, 2);
  for (int i = 0; i < p.sub_layers; ++i) {
    // Sub-layer profile bits that would decode as nonsense if the skip were off.
    if (p.profile_present[static_cast<size_t>(i)]) {
      b.put(0xffffffffffull, 40);
      b.put(0xffffffffffffull, 48);
    }
    if (p.level_present[static_cast<size_t>(i)]) b.put(0xff, 8);
  }
  b.ue(0);  // SPS id
  b.ue(p.chroma);
  if (p.chroma == 3) b.put(0, 1);
  b.ue(1920);
  b.ue(1080);
  b.put(p.window ? 1 : 0, 1);
  if (p.window) {
    for (uint32_t v : {0u, 7u, 0u, 4u}) b.ue(v);
  }
  b.ue(p.luma_depth);
  b.ue(p.chroma_depth);
  b.put(0x5a5a5a5a, 32);  // more of the SPS, not looked at
  b.put(1, 1);            // stop bit
  return Cat({Bytes{0x42, 0x01}, b.Escaped()});
}

Bytes AnnexB(std::initializer_list<const Bytes*> sets) {
  Bytes out;
  for (const Bytes* s : sets) out = Cat({out, kStart, *s});
  return out;
}

// The box as the HEVC track sets it up: the sets in start-code form in the box's buffer, and the
// pointers and sizes of each set.
void LoadSets(chvcC& box, const Bytes& vps, const Bytes& sps, const Bytes& pps) {
  Bytes nal;
  for (const Bytes* s : {&vps, &sps, &pps})
    if (!s->empty()) nal = Cat({nal, kStart, *s});
  ASSERT_TRUE(box.SetNal(nal.data(), nal.size()));
  size_t at = 0;
  auto place = [&](const Bytes& s, const unsigned char*& p, uint16_t& n) {
    if (s.empty()) return;
    at += 4;
    p = box._nal_buf + at;
    n = static_cast<uint16_t>(s.size());
    at += s.size();
  };
  place(vps, box._vps, box._vps_size);
  place(sps, box._sps, box._sps_size);
  place(pps, box._pps, box._pps_size);
}

Bytes Written(IBox& box) {
  IOBuffer io;
  box.Fill(io, true);
  return io.Bytes();
}

struct RootParse {
  explicit RootParse(const Bytes& bytes) {
    Load(io, bytes);
    ok = root.Parse(io, attrs, true);
  }
  IOBuffer io;
  AttrSet attrs;
  croot root;
  bool ok = false;
};

Bytes Slice(const Bytes& b, size_t from, size_t n) {
  return Bytes(b.begin() + static_cast<long>(from), b.begin() + static_cast<long>(from + n));
}

}  // namespace

// ---------------------------------------------------------------- bit reader

TEST(HvcCBits, ExpGolombAndFixedWidths) {
  // 1 | 010 | 00101 | 0001000 -> 0, 1, 4, 7
  const unsigned char codes[] = {0xa2, 0x88};
  bs_t s;
  bs_init(&s, codes, sizeof codes);
  EXPECT_EQ(bs_read_ue(&s), 0u);
  EXPECT_EQ(bs_read_ue(&s), 1u);
  EXPECT_EQ(bs_read_ue(&s), 4u);
  EXPECT_EQ(bs_read_ue(&s), 7u);

  const unsigned char bytes[] = {0xde, 0xad, 0xbe, 0xef, 0x12};
  bs_init(&s, bytes, sizeof bytes);
  EXPECT_EQ(bs_read(&s, 4), 0xdu);
  EXPECT_EQ(bs_read(&s, 12), 0xeadu);  // across a byte boundary
  EXPECT_EQ(bs_read1(&s), 1u);
  bs_skip(&s, 7);
  EXPECT_EQ(bs_read(&s, 32), 0xef12u << 16);  // past the end: what it has, in the upper bits
  EXPECT_EQ(bs_read1(&s), 0u);
  EXPECT_EQ(bs_read(&s, 8), 0u);
  EXPECT_EQ(bs_read_ue(&s), 0u);

  bs_init(&s, bytes, sizeof bytes);
  EXPECT_EQ(bs_read(&s, 32), 0xdeadbeefu);
  bs_init(&s, bytes, sizeof bytes);
  bs_skip(&s, 1000);  // stops at the end instead of running on
  EXPECT_EQ(s.p, s.p_end);
  EXPECT_EQ(bs_read(&s, 3), 0u);
}

TEST(HvcCBits, NalDecodeDropsEmulationPrevention) {
  const unsigned char in[] = {0x01, 0x00, 0x00, 0x03, 0x01, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03};
  unsigned char out[sizeof in] = {};
  const size_t n = nal_decode(in, out, sizeof in);
  // The last three bytes are not tested: their 03 stays.
  const Bytes expected = {0x01, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x03};
  EXPECT_EQ(Bytes(out, out + n), expected);
  EXPECT_EQ(nal_decode(in, out, 0), 0u);
  EXPECT_EQ(nal_decode(in + 1, out, 2), 2u);
}

// ---------------------------------------------------------------- writing

// The record matches what ffmpeg writes for the same stream, apart from the array completeness bit
// ffmpeg sets on each array type.
TEST(HvcCWrite, RecordFromX265ParameterSets) {
  chvcC box;
  LoadSets(box, kVps8, kSps8, kPps8);
  const Bytes ptl = {0x01, 0x60, 0x00, 0x00, 0x00, 0x90, 0x00, 0x00, 0x00, 0x00, 0x00, 0x1e};
  const Bytes expected = Box("hvcC", Lay()
                                         .u8(1).raw(ptl).u16(0xf000).u8(0xfc).u8(0xfd).u8(0xf8).u8(0xf8).u16(0)
                                         .u8(0x0f).u8(3)
                                         .array(0x20, kVps8).array(0x21, kSps8).array(0x22, kPps8)
                                         .b);
  const Bytes bytes = Written(box);
  EXPECT_EQ(bytes, expected);
  EXPECT_EQ(bytes.size(), 31u + 15u + kVps8.size() + kSps8.size() + kPps8.size());
  EXPECT_EQ(box._i_chroma_idc, 1);
  EXPECT_EQ(box._i_numTemporalLayer, 1);
  EXPECT_EQ(box._b_temporalIdNested, 1);
  EXPECT_EQ(box._num_of_arrays, 3);
  EXPECT_EQ(box.statisticsSize(), bytes.size());
}

TEST(HvcCWrite, TenBitAndFourFourFourStreams) {
  chvcC ten;
  LoadSets(ten, kVps10, kSps10, kPps8);
  const Bytes a = Written(ten);
  EXPECT_EQ(Slice(a, 9, 12), (Bytes{0x02, 0x20, 0x00, 0x00, 0x00, 0x90, 0x00, 0x00, 0x00, 0x00, 0x00, 0x1e}));
  EXPECT_EQ(Slice(a, 24, 3), (Bytes{0xfd, 0xfa, 0xfa}));
  EXPECT_EQ(ten._i_bit_depth_chroma_minus8, 2);

  chvcC full;
  LoadSets(full, kVps444, kSps444, kPps444);
  const Bytes b = Written(full);
  EXPECT_EQ(Slice(b, 9, 12), (Bytes{0x04, 0x08, 0x00, 0x00, 0x00, 0x9e, 0x08, 0x00, 0x00, 0x00, 0x00, 0x1e}));
  EXPECT_EQ(Slice(b, 24, 3), (Bytes{0xff, 0xf8, 0xf8}));  // chroma 3, then the separate-plane bit skipped
}

TEST(HvcCWrite, HandMadeSpsWithSubLayersAndWindow) {
  SpsParams p;
  p.sub_layers = 2;
  p.profile_present = {1, 0};
  p.level_present = {1, 1};
  p.chroma = 2;
  p.window = true;
  p.luma_depth = 2;
  p.chroma_depth = 0;
  const Bytes sps = MakeSps(p);
  Bytes vps = kVps8;
  vps[3] = 0x04;  // three temporal layers, not nested
  chvcC box;
  LoadSets(box, vps, sps, kPps8);
  const Bytes bytes = Written(box);
  EXPECT_EQ(box._i_chroma_idc, 2);
  EXPECT_EQ(box._i_bit_depth_luma_minus8, 2);
  EXPECT_EQ(box._i_bit_depth_chroma_minus8, 0);
  // The luma depth stands in both depth bytes.
  EXPECT_EQ(Slice(bytes, 24, 3), (Bytes{0xfe, 0xfa, 0xfa}));
  EXPECT_EQ(bytes[29], (3 << 3) | 3);

  // Without sub-layers and window the same values come out.
  SpsParams q;
  q.chroma = 0;
  q.luma_depth = 4;
  q.chroma_depth = 1;
  chvcC plain;
  LoadSets(plain, kVps8, MakeSps(q), kPps8);
  Written(plain);
  EXPECT_EQ(plain._i_chroma_idc, 0);
  EXPECT_EQ(plain._i_bit_depth_luma_minus8, 4);
  EXPECT_EQ(plain._i_bit_depth_chroma_minus8, 1);
}

TEST(HvcCWrite, WithoutPpsTwoArrays) {
  chvcC box;
  LoadSets(box, kVps8, kSps8, Bytes());
  const Bytes bytes = Written(box);
  EXPECT_EQ(bytes.size(), 31u + 10u + kVps8.size() + kSps8.size());
  EXPECT_EQ(bytes[30], 2);
  EXPECT_EQ(box._pps_count, 0);
  EXPECT_EQ(Bytes(bytes.end() - static_cast<long>(kSps8.size() + 5), bytes.end()), Lay().array(0x21, kSps8).b);
}

TEST(HvcCWrite, ShortSpsAtTheEndKeepsDefaults) {
  // Eleven bytes of SPS and the closing start code leave 15 bytes: too few to decode.
  const Bytes sps(kSps8.begin(), kSps8.begin() + 11);
  chvcC box;
  box._i_chroma_idc = 3;
  LoadSets(box, kVps8, sps, Bytes());
  const Bytes bytes = Written(box);
  EXPECT_EQ(Slice(bytes, 24, 3), (Bytes{0xfd, 0xf8, 0xf8}));

  // One byte more and it is decoded: the fields behind its end read as zero.
  const Bytes sps12(kSps8.begin(), kSps8.begin() + 12);
  chvcC box2;
  LoadSets(box2, kVps8, sps12, Bytes());
  const Bytes bytes2 = Written(box2);
  EXPECT_EQ(box2._i_chroma_idc, 0);
  EXPECT_EQ(Slice(bytes2, 24, 3), (Bytes{0xfc, 0xf8, 0xf8}));
}

// The kind test has no bit 2: a PPS ahead of the VPS is decoded as the VPS.
TEST(HvcCWrite, PpsAheadOfTheVpsIsTakenForIt) {
  chvcC box;
  const Bytes nal = AnnexB({&kPps8, &kVps8, &kSps8});
  ASSERT_TRUE(box.SetNal(nal.data(), nal.size()));
  Written(box);
  // Byte 3 of the PPS is 0x73: two temporal layers, nested; the profile bytes are the start code
  // and VPS behind it.
  EXPECT_EQ(box._i_numTemporalLayer, 2);
  EXPECT_EQ(box._b_temporalIdNested, 1);
  EXPECT_EQ(Bytes(box._profile_tier_level, box._profile_tier_level + 4), (Bytes{0x00, 0x00, 0x00, 0x01}));
}

TEST(HvcCWrite, OversizedInputsAreRefused) {
  LogCapture log;
  chvcC box;
  const Bytes big(chvcC::kNalBufSize + 1, 0x11);
  EXPECT_FALSE(box.SetNal(big.data(), big.size()));
  EXPECT_EQ(box._nal_size, 0u);
  EXPECT_TRUE(box.SetNal(big.data(), chvcC::kNalBufSize));

  // A size set by hand beyond the buffer is cut; a size without bytes writes zeros.
  box._nal_size = 100000;
  box._sps_size = 3;
  const Bytes bytes = Written(box);
  EXPECT_EQ(box._nal_size, chvcC::kNalBufSize);
  EXPECT_EQ(Bytes(bytes.end() - 8, bytes.end()), (Bytes{0x21, 0, 1, 0, 3, 0, 0, 0}));
  EXPECT_TRUE(log.Has("!set"));
}

// ---------------------------------------------------------------- reading

TEST(HvcCRead, RoundTripRebuildsTheBuffer) {
  chvcC box;
  LoadSets(box, kVps8, kSps8, kPps8);
  const Bytes bytes = Written(box);
  RootParse p(Cat({bytes, Box("free")}));
  ASSERT_TRUE(p.ok);
  auto* r = dynamic_cast<chvcC*>(p.root.Child());
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->_configuration_version, 1);
  EXPECT_EQ(Bytes(r->_profile_tier_level, r->_profile_tier_level + 12), Slice(bytes, 9, 12));
  EXPECT_EQ(r->_i_chroma_idc, 1);
  EXPECT_EQ(r->_level, 0x0f);
  EXPECT_EQ(r->_i_numTemporalLayer, 1);
  EXPECT_EQ(r->_b_temporalIdNested, 1);
  EXPECT_EQ(r->_num_of_arrays, 3);
  ASSERT_EQ(r->_vps_size, kVps8.size());
  ASSERT_EQ(r->_sps_size, kSps8.size());
  ASSERT_EQ(r->_pps_size, kPps8.size());
  EXPECT_EQ(Bytes(r->_vps, r->_vps + r->_vps_size), kVps8);
  EXPECT_EQ(Bytes(r->_sps, r->_sps + r->_sps_size), kSps8);
  EXPECT_EQ(Bytes(r->_pps, r->_pps + r->_pps_size), kPps8);
  const Bytes annexB = AnnexB({&kVps8, &kSps8, &kPps8});
  ASSERT_EQ(r->_nal_size, annexB.size());
  EXPECT_EQ(Bytes(r->_nal_buf, r->_nal_buf + r->_nal_size), annexB);
  ASSERT_NE(r->Next(), nullptr);
  EXPECT_STREQ(r->Next()->FCCString(), "free");
  // What was read writes the same record.
  EXPECT_EQ(Written(*r), bytes);
}

TEST(HvcCRead, BothDepthBytesLandInLuma) {
  const Bytes ptl(12, 0);
  auto record = [&](unsigned luma, unsigned chroma) {
    return Box("hvcC", Lay().u8(1).raw(ptl).u16(0xf000).u8(0xfc).u8(0xfd).u8(luma).u8(chroma).u16(0x1234).u8(0x17).u8(0).b);
  };
  RootParse a(record(0xfa, 0xf8));
  auto* r = dynamic_cast<chvcC*>(a.root.Child());
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->_i_bit_depth_luma_minus8, 0);
  EXPECT_EQ(r->_i_bit_depth_chroma_minus8, 0);
  EXPECT_EQ(r->_avg_frame_rate, 0x1234);
  EXPECT_EQ(r->_i_numTemporalLayer, 2);
  EXPECT_EQ(r->_b_temporalIdNested, 1);
  RootParse b(record(0xf8, 0xfa));
  r = dynamic_cast<chvcC*>(b.root.Child());
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->_i_bit_depth_luma_minus8, 2);
}

TEST(HvcCRead, MissingVpsArrayShiftsTheTypeBytes) {
  // Without the VPS array the SPS type is passed over and its count bytes are taken as types.
  const Bytes ptl(12, 0);
  LogCapture log;
  RootParse p(Box("hvcC", Lay().u8(1).raw(ptl).u16(0xf000).u8(0xfc).u8(0xfd).u8(0xf8).u8(0xf8).u16(0).u8(0x0f).u8(2)
                              .array(0x21, kSps8).array(0x22, kPps8).b));
  ASSERT_TRUE(p.ok);
  auto* r = dynamic_cast<chvcC*>(p.root.Child());
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->_sps_size, 0);
  EXPECT_EQ(r->_pps_size, 0);
  EXPECT_EQ(r->_nal_size, 0u);
}

// ---------------------------------------------------------------- damaged input

TEST(HvcCDamage, ForgedCountsAndSizes) {
  const Bytes ptl(12, 0);
  const Bytes head = Lay().u8(1).raw(ptl).u16(0xf000).u8(0xfc).u8(0xfd).u8(0xf8).u8(0xf8).u16(0).u8(0x0f).u8(3).b;
  LogCapture log;

  // A count of 65535 with room for two entries.
  RootParse a(Box("hvcC", Cat({head, Lay().u8(0x20).u16(0xffff).u16(1).u8(0x40).u16(0).b})));
  auto* r = dynamic_cast<chvcC*>(a.root.Child());
  ASSERT_NE(r, nullptr);
  EXPECT_LE(r->_vps_count, 2);
  EXPECT_TRUE(log.Has("vps count 65535>"));

  // A size beyond the box.
  RootParse b(Box("hvcC", Cat({head, Lay().u8(0x20).u16(1).u16(0x8000).u8(0x40).u8(0x01).b, Bytes(20, 0xee)})));
  r = dynamic_cast<chvcC*>(b.root.Child());
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->_vps_size, 22);
  EXPECT_TRUE(log.Has("vps size 32768>22"));

  // Sets that together outgrow the buffer: the first fits, the second is refused.
  const Bytes vps(400, 0x40);
  const Bytes sps(300, 0x42);
  RootParse c(Cat({Box("hvcC", Cat({head, Lay().array(0x20, vps).array(0x21, sps).array(0x22, kPps8).b})), Box("free")}));
  ASSERT_TRUE(c.ok);
  r = dynamic_cast<chvcC*>(c.root.Child());
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->_vps_size, 400);
  EXPECT_EQ(r->_sps_size, 0);
  EXPECT_LE(r->_nal_size, chvcC::kNalBufSize);
  EXPECT_TRUE(log.Has("bigger than hvcC buffer"));
  ASSERT_NE(r->Next(), nullptr);
  EXPECT_STREQ(r->Next()->FCCString(), "free");
}

TEST(HvcCDamage, TruncatedAndBitFlippedRecords) {
  chvcC box;
  LoadSets(box, kVps8, kSps8, kPps8);
  const Bytes bytes = Cat({Box("hvc1", Cat({Bytes(78, 0), Written(box)})), Box("free")});
  LogCapture quiet(kiv::dbg::E - 1);
  for (size_t cut = 0; cut < bytes.size(); ++cut) {
    RootParse p(Bytes(bytes.begin(), bytes.begin() + static_cast<long>(cut)));
    EXPECT_LE(p.io.Position(), static_cast<long long>(cut));
  }
  for (size_t bit = 0; bit < bytes.size() * 8; ++bit) {
    Bytes damaged = bytes;
    damaged[bit / 8] ^= static_cast<unsigned char>(1u << (bit % 8));
    RootParse p(damaged);
    // A read record writes again within its buffer.
    for (IBox* b = p.root.Child(); b; b = b->Next())
      for (IBox* c = b->Child(); c; c = c->Next())
        if (auto* h = dynamic_cast<chvcC*>(c)) {
          EXPECT_LE(h->_nal_size, chvcC::kNalBufSize);
          Written(*h);
        }
  }
}

// Random parameter-set bytes go through the scan and the SPS decoder without leaving the buffer.
TEST(HvcCDamage, GarbageParameterSets) {
  LogCapture quiet(kiv::dbg::E - 1);
  uint32_t seed = 12345;
  auto next = [&seed]() {
    seed = seed * 1103515245u + 12345u;
    return static_cast<unsigned char>(seed >> 16);
  };
  for (int round = 0; round < 300; ++round) {
    Bytes nal(static_cast<size_t>(next()) + 1);
    for (auto& c : nal) c = next() < 40 ? 0 : next();
    nal[0] = static_cast<unsigned char>(round % 2 ? 0x42 : 0x40);
    const Bytes buf = Cat({kStart, nal, kStart, kSps8});
    chvcC box;
    ASSERT_TRUE(box.SetNal(buf.data(), buf.size()));
    const Bytes bytes = Written(box);
    EXPECT_EQ(bytes.size(), 31u);
    uint8_t chroma = 0, luma = 0, cd = 0;
    chvcC::hevcParseSPS(nal.data(), nal.size(), chroma, luma, cd);
    uint8_t ptl[12];
    chvcC::hevcParseVPS(nal.data(), nal.size(), ptl, luma, cd);
  }
}
