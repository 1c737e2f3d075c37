// The HEVC configuration record: the parameter-set scan on writing, reading back, and damaged records.
#include <gtest/gtest.h>

#include <cctype>
#include <functional>
#include <string>

#include "stream/plugin/mp4/common/Hvcc.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stsd.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"

using namespace boxtest;
using namespace boxtest::kit;
using kiv::base::IOBuffer;
using namespace kiv::plugin::mov;

namespace {

// Parameter sets of a 64x48 test picture made by x265 through ffmpeg
// (ffmpeg -f lavfi -i testsrc=size=64x48 -frames:v 1 -c:v libx265 -f hevc). ffprobe reports Main
// profile, level 30, yuv420p; the 10-bit stream Main 10, yuv420p10le; the 4:4:4 stream Rext, yuv444p.
const Bytes kVps8 = H("40010c01ffff01600000030090000003000003001e959809");
const Bytes kSps8 = H("42010101600000030090000003000003001ea02083165959ae4caf016808000003000800000300c840");
const Bytes kPps8 = H("4401c173d089");
const Bytes kVps10 = H("40010c01ffff02200000030090000003000003001e959809");
const Bytes kSps10 = H("42010102200000030090000003000003001ea020831365959ae4caf0168080000003008000000c84");
const Bytes kVps444 = H("40010c01ffff0408000003009e0800000300001e959809");
const Bytes kSps444 = H("4201010408000003009e0800000300001e90041062cb2b35c995e02d010000030001000003001908");
const Bytes kPps444 = H("4401c17318310890");
const Bytes kStart = {0, 0, 0, 1};

// The record's fixed part for the x265 Main stream, up to the array count.
const char kMainHead[] = "01 01 600000009000000000001e f000 fc fd f8 f8 0000 0f";

// One array of one set: type, count 1, size, bytes.
Bytes Array(unsigned type, const Bytes& set) {
  return Cat({Bytes{static_cast<unsigned char>(type), 0, 1, static_cast<unsigned char>(set.size() >> 8),
                    static_cast<unsigned char>(set.size())},
              set});
}

// An SPS laid out bit by bit: '0' and '1', or x and hex digits for four bits each; spaces only
// separate fields. The payload gets the emulation prevention of a stream.
Bytes Sps(const char* bits) {
  Bytes raw;
  int used = 0;
  auto bit = [&](int b) {
    if (used == 0) raw.push_back(0);
    raw.back() = static_cast<unsigned char>(raw.back() | b << (7 - used)); used = (used + 1) % 8;
  };
  for (const char* p = bits; *p; ++p) {
    if (*p == '0' || *p == '1') bit(*p - '0');
    if (*p != 'x') continue;
    for (; std::isxdigit(static_cast<unsigned char>(p[1])); ++p) {
      const int v = std::isdigit(static_cast<unsigned char>(p[1])) ? p[1] - '0' : std::tolower(p[1]) - 'a' + 10;
      for (int i = 3; i >= 0; --i) bit(v >> i & 1);
    }
  }
  Bytes out = {0x42, 0x01};
  int zeros = 0;
  for (unsigned char c : raw) {
    if (zeros >= 2 && c <= 3) {
      out.push_back(3); zeros = 0;
    }
    out.push_back(c); zeros = c == 0 ? zeros + 1 : 0;
  }
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
    p = box._nal_buf + at + 4; n = static_cast<uint16_t>(s.size());
    at += 4 + s.size();
  };
  place(vps, box._vps, box._vps_size);
  place(sps, box._sps, box._sps_size);
  place(pps, box._pps, box._pps_size);
}

Bytes Slice(const Bytes& b, size_t from, size_t n) {
  return Bytes(b.begin() + static_cast<long>(from), b.begin() + static_cast<long>(from + n));
}

}  // namespace

// The record matches what ffmpeg writes for the same stream, apart from the array completeness bit
// ffmpeg sets on each array type; read back, it gives the same sets and writes the same bytes.
TEST(HvcC, RecordFromX265ParameterSetsWrittenAndRead) {
  chvcC box;
  LoadSets(box, kVps8, kSps8, kPps8);
  const Bytes expected = Box("hvcC", Cat({H(kMainHead), H("03"), Array(0x20, kVps8), Array(0x21, kSps8), Array(0x22, kPps8)}));
  EXPECT_EQ(Written(box), expected);
  EXPECT_EQ(box.statisticsSize(), expected.size());
  Tree p(Cat({expected, Box("free")}));
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.shape(), "hvcC free");
  auto* r = p.at<chvcC>(0);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->_i_numTemporalLayer, 1);
  EXPECT_EQ(r->_b_temporalIdNested, 1);
  EXPECT_EQ(Bytes(r->_nal_buf, r->_nal_buf + r->_nal_size), Cat({kStart, kVps8, kStart, kSps8, kStart, kPps8}));
  EXPECT_EQ(Written(*r), expected);
}

TEST(HvcC, ProfileAndDepthsFromTheScannedSets) {
  struct Case {
    const char* name;
    Bytes vps, sps, pps;
    Bytes ptl;     // the 12 profile bytes
    Bytes depths;  // chroma format and the two depth bytes
    Bytes layers;  // the byte of temporal layers and nesting
  } cases[] = {
      {"10 bit", kVps10, kSps10, kPps8, H("02 200000009000000000001e"), H("fd fa fa"), H("0f")},
      // Chroma 3, then the separate-plane bit skipped.
      {"4:4:4", kVps444, kSps444, kPps444, H("04 08 00 00 00 9e 08 00 00 00 00 1e"), H("ff f8 f8"), H("0f")},
      // Sub-layers skipped right, a window; the luma depth stands in both depth bytes.
      {"sub-layers and window", H("40010c04ffff01600000030090000003000003001e959809"),
       // Two sub-layers, the first with profile and level, the second with level only; chroma 2, a
       // window, luma depth 2, chroma depth 0.
       Sps("0000 010 1 000 00001 x60000000 x900000000000 x5d 11 01 000000000000 xffffffffffffffffffffffff xff"
           " 1 011 0000000000 11110000001 0000000000 10000111001 1 1 0001000 1 00101 011 1 x5a5a5a5a 1"),
       kPps8, H("01 600000009000000000001e"), H("fe fa fa"), H("1b")},
      {"no sub-layers, chroma 0", kVps8,
       Sps("0000 000 1 000 00001 x60000000 x900000000000 x5d 1 1 0000000000 11110000001 0000000000 10000111001 0"
           " 00101 010 x5a5a5a5a 1"),
       kPps8, H("01 600000009000000000001e"),
       H("fc fc fc"), H("0f")},
      // Eleven bytes of SPS leave too few to decode: the defaults stay.
      {"sps too short", kVps8, Slice(kSps8, 0, 11), {}, H("01 600000009000000000001e"), H("fd f8 f8"), H("0f")},
      // One byte more and it is decoded: the fields behind its end read as zero.
      {"sps just long enough", kVps8, Slice(kSps8, 0, 12), {}, H("01 600000009000000000001e"), H("fc f8 f8"), H("0f")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    chvcC box;
    box._i_chroma_idc = 3;  // writing starts from the defaults, not from what the box held
    LoadSets(box, c.vps, c.sps, c.pps);
    const Bytes bytes = Written(box);
    EXPECT_EQ(Slice(bytes, 9, 12), c.ptl);
    EXPECT_EQ(Slice(bytes, 24, 3), c.depths);
    EXPECT_EQ(Slice(bytes, 29, 1), c.layers);
    EXPECT_EQ(bytes[30], c.pps.empty() ? 2 : 3);
    EXPECT_EQ(Bytes(bytes.end() - static_cast<long>(c.pps.empty() ? c.sps.size() + 5 : c.pps.size() + 5), bytes.end()),
              c.pps.empty() ? Array(0x21, c.sps) : Array(0x22, c.pps));
  }
}

TEST(HvcC, OversizedInputsAreRefused) {
  LogCapture log;
  chvcC box;
  const Bytes big(chvcC::kNalBufSize + 1, 0x11);
  EXPECT_FALSE(box.SetNal(big.data(), big.size()));
  EXPECT_EQ(box._nal_size, 0u);
  EXPECT_TRUE(box.SetNal(big.data(), chvcC::kNalBufSize));
  // A size set by hand beyond the buffer is cut; a size without bytes writes zeros.
  box._nal_size = 100000; box._sps_size = 3;
  const Bytes bytes = Written(box);
  EXPECT_EQ(box._nal_size, chvcC::kNalBufSize);
  EXPECT_EQ(Bytes(bytes.end() - 8, bytes.end()), H("21 0001 0003 000000"));
  EXPECT_TRUE(log.Has("!set"));
}

TEST(HvcC, ReadingOddRecords) {
  const std::string head = "01 000000000000000000000000 f000 fc fd ";
  LogCapture log;
  Tree p(Cat({B("hvcC", head + "fa f8 1234 17 00"), B("hvcC", head + "f8 fa 0000 0f 00"),
              // Without the VPS array the SPS type is passed over and its count bytes are taken as types.
              Box("hvcC", Cat({H(head + "f8 f8 0000 0f 02"), Array(0x21, kSps8), Array(0x22, kPps8)}))}));
  ASSERT_TRUE(p.ok);
  auto *a = p.at<chvcC>(0), *b = p.at<chvcC>(1), *c = p.at<chvcC>(2);
  ASSERT_TRUE(a && b && c);
  // Both depth bytes land in luma.
  EXPECT_EQ(a->_i_bit_depth_luma_minus8, 0);
  EXPECT_EQ(a->_i_bit_depth_chroma_minus8, 0);
  EXPECT_EQ(a->_avg_frame_rate, 0x1234);
  EXPECT_EQ(a->_i_numTemporalLayer, 2);
  EXPECT_EQ(a->_b_temporalIdNested, 1);
  EXPECT_EQ(b->_i_bit_depth_luma_minus8, 2);
  EXPECT_EQ(c->_sps_size, 0);
  EXPECT_EQ(c->_pps_size, 0);
  EXPECT_EQ(c->_nal_size, 0u);
}

TEST(HvcCDamage, ForgedCountsAndSizes) {
  const Bytes head = H(std::string(kMainHead) + "03");
  struct Case {
    const char* name;
    Bytes arrays;
    const char* log;
    std::function<void(const chvcC&)> check;
  } cases[] = {
      {"count of 65535 with room for two", H("20 ffff 0001 40 0000"), "vps count 65535>",
       [](const chvcC& r) { EXPECT_LE(r._vps_count, 2); }},
      {"size beyond the box", Cat({H("20 0001 8000 40 01"), Bytes(20, 0xee)}), "vps size 32768>22",
       [](const chvcC& r) { EXPECT_EQ(r._vps_size, 22); }},
      // Together the sets outgrow the buffer: the first fits, the second is refused.
      {"sets larger than the buffer",
       Cat({Array(0x20, Bytes(400, 0x40)), Array(0x21, Bytes(300, 0x42)), Array(0x22, kPps8)}),
       "bigger than hvcC buffer",
       [](const chvcC& r) {
         EXPECT_EQ(r._vps_size, 400); EXPECT_EQ(r._sps_size, 0); EXPECT_LE(r._nal_size, chvcC::kNalBufSize);
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    Tree p(Cat({Box("hvcC", Cat({head, c.arrays})), Box("free")}));
    EXPECT_EQ(p.shape(), "hvcC free");
    ASSERT_NE(p.at<chvcC>(0), nullptr);
    c.check(*p.at<chvcC>(0));
    EXPECT_TRUE(log.Has(c.log));
  }
}

// Every cut and every flipped bit of a full description tree reads without fault, and a record read
// from it writes again within its buffer.
TEST(SampleDescriptionDamage, TruncatedAndBitFlippedTrees) {
  const unsigned char sps[] = {0x67, 0x4d, 0x40, 0x1f}, pps[] = {0x68, 0xee}, aac[] = {0x11, 0x90};
  cstsd stsd;
  auto* avc1 = stsd.Add(new cavc1);
  auto* avcc = new cavcC;
  avcc->_profile = 100; avcc->_sps = sps; avcc->_sps_size = sizeof sps; avcc->_pps = pps;
  avcc->_pps_size = sizeof pps; avc1->Add(avcc);
  auto* hvcc = new chvcC;
  LoadSets(*hvcc, kVps8, kSps8, kPps8);
  stsd.Add(new chvc1)->Add(hvcc);
  auto* esds = new cesds;
  esds->_extra = aac; esds->_extra_size = sizeof aac; stsd.Add(new cmp4a)->Add(esds); stsd.Add(new ctext);
  const Bytes bytes = Written(stsd);
  LogCapture quiet(kiv::dbg::E - 1);  // nothing printed; the run only has to survive
  auto check = [](const Bytes& b) {
    Tree p(b);
    EXPECT_LE(p.io.Position(), static_cast<long long>(b.size()));
    if (auto* h = dynamic_cast<chvcC*>(p.root.Find("hvcC"))) {
      EXPECT_LE(h->_nal_size, chvcC::kNalBufSize);
      Written(*h);
    }
  };
  for (size_t cut = 0; cut < bytes.size(); ++cut) check(Bytes(bytes.begin(), bytes.begin() + static_cast<long>(cut)));
  for (size_t bit = 0; bit < bytes.size() * 8; ++bit) {
    Bytes damaged = bytes;
    damaged[bit / 8] ^= static_cast<unsigned char>(1u << (bit % 8));
    check(damaged);
  }
}
