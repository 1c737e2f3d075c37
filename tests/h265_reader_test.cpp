// The H.265 Annex-B reader of the command-line host: the SPS fields and picture size, access units,
// key pictures, the parameter sets that travel as media attributes, and input it cannot take.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <fstream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "LogCapture.h"
#include "stream/base/Helpers.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "tests/ToolRun.h"
#include "tools/H265Reader.h"

using boxweave::H265AccessUnit;
using boxweave::H265Description;
using boxweave::H265Reader;
using boxweave::H265Sps;
using Bytes = std::vector<uint8_t>;

namespace {

// Writes syntax elements, most significant bit first.
class BitWriter {
 public:
  void U(uint64_t v, int n) {
    for (int i = n - 1; i >= 0; --i) bit((v >> i) & 1);
  }
  void Ue(uint32_t v) {
    const uint64_t x = uint64_t(v) + 1;
    int len = 0;
    while ((x >> len) > 1) ++len;
    U(0, len);
    U(x, len + 1);
  }
  // rbsp_stop_one_bit and alignment; then the emulation prevention bytes a NAL unit needs.
  Bytes Nal(int type) {
    bit(1);
    while (_bits % 8) bit(0);
    Bytes out = {static_cast<uint8_t>(type << 1), 0x01};
    int zeros = 0;
    for (uint8_t b : _bytes) {
      if (zeros >= 2 && b <= 3) {
        out.push_back(3);
        zeros = 0;
      }
      zeros = b == 0 ? zeros + 1 : 0;
      out.push_back(b);
    }
    return out;
  }

 private:
  void bit(unsigned b) {
    if (_bits % 8 == 0) _bytes.push_back(0);
    if (b) _bytes.back() |= static_cast<uint8_t>(0x80 >> (_bits % 8));
    ++_bits;
  }
  Bytes _bytes;
  size_t _bits = 0;
};

struct SpsShape {
  unsigned subLayersMinus1 = 0;
  bool subProfile = false, subLevel = false;
  unsigned profile = 1, level = 93, spsId = 0, chroma = 1;
  bool separatePlanes = false;
  unsigned width = 320, height = 240;
  bool window = false;
  unsigned left = 0, right = 0, top = 0, bottom = 0;
  unsigned lumaMinus8 = 0, chromaMinus8 = 0;
};

Bytes MakeSps(const SpsShape& s) {
  BitWriter w;
  w.U(0, 4);  // vps id
  w.U(s.subLayersMinus1, 3);
  w.U(1, 1);
  w.U(0, 2);  // profile space
  w.U(0, 1);  // tier
  w.U(s.profile, 5);
  w.U(0x60000000, 32);  // compatibility
  w.U(0x900000000000ULL, 48);
  w.U(s.level, 8);
  for (unsigned i = 0; i < s.subLayersMinus1; ++i) {
    w.U(s.subProfile, 1);
    w.U(s.subLevel, 1);
  }
  if (s.subLayersMinus1) w.U(0, 2 * (8 - s.subLayersMinus1));
  for (unsigned i = 0; i < s.subLayersMinus1; ++i) {
    if (s.subProfile) w.U(0x5a5a5a5a5a5aULL, 44), w.U(0x5a5a5a5a5a5aULL, 44);
    if (s.subLevel) w.U(0xff, 8);
  }
  w.Ue(s.spsId);
  w.Ue(s.chroma);
  if (s.chroma == 3) w.U(s.separatePlanes, 1);
  w.Ue(s.width);
  w.Ue(s.height);
  w.U(s.window, 1);
  if (s.window) {
    w.Ue(s.left);
    w.Ue(s.right);
    w.Ue(s.top);
    w.Ue(s.bottom);
  }
  w.Ue(s.lumaMinus8);
  w.Ue(s.chromaMinus8);
  w.Ue(4);  // log2_max_pic_order_cnt_lsb_minus4 and more: not read
  return w.Nal(33);
}

// A slice segment NAL unit: first_slice_segment_in_pic_flag, the IRAP flag, PPS id 0, then the type.
Bytes Slice(int type, bool first, unsigned sliceType = 2, size_t filler = 6) {
  BitWriter w;
  w.U(first, 1);
  if (first) {
    if (type >= 16 && type <= 23) w.U(0, 1);
    w.Ue(0);
    w.Ue(sliceType);
  } else {
    w.U(0x55, 8);
  }
  for (size_t i = 0; i < filler; ++i) w.U(0xA5, 8);
  return w.Nal(type);
}

Bytes Other(int type, size_t n, uint8_t fill = 0x5A) {
  Bytes b;
  b.reserve(2 + n);
  b.push_back(static_cast<uint8_t>(type << 1));
  b.push_back(0x01);
  b.resize(2 + n, fill);
  return b;
}

Bytes Join(const std::vector<Bytes>& nals, size_t startCode = 4) {
  Bytes out;
  for (const Bytes& n : nals) {
    out.insert(out.end(), startCode, 0);
    out.back() = 1;
    out.insert(out.end(), n.begin(), n.end());
  }
  return out;
}

struct Scratch {
  std::string dir = boxtest::ProcessScratch() + "/h265r" + std::to_string(::getpid());
  Scratch() { Shell("rm -rf " + dir + " && mkdir -p " + dir); }
  ~Scratch() { Shell("rm -rf " + dir); }
  std::string Write(const std::string& name, const Bytes& b) const {
    const std::string path = dir + "/" + name;
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
    return path;
  }
};

const Bytes kVps = Other(32, 20, 0x11);
const Bytes kPps = [] {
  BitWriter w;
  w.Ue(0);
  w.Ue(0);
  w.U(0, 2);
  w.U(0, 3);  // no extra slice header bits
  w.U(0x3c, 8);
  return w.Nal(34);
}();

}  // namespace

TEST(H265Sps, PictureSizeFromTheConformanceWindowAndTheFieldsAroundIt) {
  auto shape = [](auto change) {
    SpsShape s;
    change(s);
    return s;
  };
  const struct {
    const char* what;
    SpsShape sps;
    unsigned width, height;
  } cases[] = {
      {"4:2:0 without a window", shape([](SpsShape&) {}), 320, 240},
      {"4:2:0 window on every side", shape([](SpsShape& s) { s.width = 328, s.height = 248, s.window = true, s.left = 1, s.right = 2, s.top = 1, s.bottom = 2; }), 322, 242},
      {"4:2:2 crops rows one by one", shape([](SpsShape& s) { s.chroma = 2, s.window = true, s.right = 2, s.bottom = 3; }), 316, 237},
      {"4:4:4 crops one by one", shape([](SpsShape& s) { s.chroma = 3, s.window = true, s.right = 3, s.bottom = 1; }), 317, 239},
      {"4:4:4 as separate planes", shape([](SpsShape& s) { s.chroma = 3, s.separatePlanes = true, s.window = true, s.left = 5; }), 315, 240},
      {"monochrome", shape([](SpsShape& s) { s.chroma = 0, s.window = true, s.top = 7; }), 320, 233},
      {"sub-layers with profile and level", shape([](SpsShape& s) { s.subLayersMinus1 = 2, s.subProfile = true, s.subLevel = true, s.width = 640, s.height = 360; }), 640, 360},
      {"sub-layers without", shape([](SpsShape& s) { s.subLayersMinus1 = 6, s.width = 96, s.height = 64; }), 96, 64},
      {"large exp-Golomb values", shape([](SpsShape& s) { s.width = 8192, s.height = 4320, s.spsId = 15; }), 8192, 4320},
      // A bit out of place before the depths moves them.
      {"depths behind the window", shape([](SpsShape& s) { s.window = true, s.right = 1, s.lumaMinus8 = 2, s.chromaMinus8 = 1; }), 318, 240},
  };
  for (const auto& c : cases) {
    H265Sps sps;
    std::string why;
    const Bytes nal = MakeSps(c.sps);
    ASSERT_TRUE(boxweave::ParseH265Sps(nal.data(), nal.size(), sps, why)) << c.what << ": " << why;
    EXPECT_EQ(std::make_tuple(sps.width, sps.height), std::make_tuple(c.width, c.height)) << c.what;
    EXPECT_EQ(std::make_tuple(sps.profile_idc, sps.level_idc, sps.chroma_format_idc, sps.sps_id, sps.max_sub_layers,
                              sps.bit_depth_luma_minus8, sps.bit_depth_chroma_minus8),
              std::make_tuple(c.sps.profile, c.sps.level, c.sps.chroma, c.sps.spsId, c.sps.subLayersMinus1 + 1,
                              c.sps.lumaMinus8, c.sps.chromaMinus8))
        << c.what;
  }
}

TEST(H265Sps, RefusesWhatCannotBeAPictureWithTheReason) {
  auto with = [](auto change) {
    SpsShape s;
    change(s);
    return MakeSps(s);
  };
  const Bytes full = MakeSps(SpsShape());
  const struct {
    const char* what;
    Bytes nal;
    const char* says;
  } cases[] = {
      {"too short", Bytes{0x42, 0x01, 0x01}, "too short"},
      {"a PPS", Bytes{0x44, 0x01, 0xc1, 0x72, 0xb4}, "is not an SPS"},
      {"window as wide as the picture", with([](SpsShape& s) { s.window = true, s.left = 80, s.right = 80; }), "conformance window"},
      {"window as high as the picture", with([](SpsShape& s) { s.window = true, s.bottom = 120; }), "conformance window"},
      {"chroma format 4", with([](SpsShape& s) { s.chroma = 4; }), "chroma_format_idc"},
      {"SPS id 16", with([](SpsShape& s) { s.spsId = 16; }), "sps_seq_parameter_set_id"},
      {"width 0", with([](SpsShape& s) { s.width = 0; }), "picture size"},
      {"height beyond every level", with([](SpsShape& s) { s.height = 20000; }), "picture size"},
      {"seven sub-layers", with([](SpsShape& s) { s.subLayersMinus1 = 7; }), "sps_max_sub_layers_minus1"},
      {"cut in the profile", Bytes(full.begin(), full.begin() + 10), "ends before"},
  };
  for (const auto& c : cases) {
    H265Sps sps;
    std::string why;
    EXPECT_FALSE(boxweave::ParseH265Sps(c.nal.data(), c.nal.size(), sps, why)) << c.what;
    EXPECT_NE(why.find(c.says), std::string::npos) << c.what << ": " << why;
  }
}

TEST(H265Reader, AccessUnitsKeysSetsAndWhatTheTrackKeepsWhateverTheBlockSize) {
  const Bytes sps = MakeSps(SpsShape());
  BitWriter pw;
  pw.Ue(1);  // another PPS id, and no extra slice header bits either
  pw.Ue(0);
  pw.U(0, 5);
  const Bytes otherPps = pw.Nal(34);
  // Pictures: IDR with the sets; a P picture of two slices; a prefix SEI and a B picture; a repeated
  // set of sets in front of a CRA with a suffix SEI; a changed PPS in front of a trailing picture;
  // an IDR_N_LP; a trailing picture behind a delimiter.
  const std::vector<Bytes> nals = {kVps, sps, kPps, Slice(19, true, 2),
                                   Slice(1, true, 1), Slice(1, false),
                                   Other(39, 5), Slice(0, true, 0),
                                   kVps, sps, kPps, Slice(21, true, 2), Other(40, 4),
                                   otherPps, Slice(1, true, 1),
                                   Slice(20, true, 2),
                                   Other(35, 1), Slice(1, true, 1)};
  struct Want {
    bool key;
    int units, kept;
    unsigned types;
  };
  const Want want[] = {{true, 1, 1, boxweave::kHevcSliceI},  {false, 2, 2, boxweave::kHevcSliceP},
                       {false, 2, 2, boxweave::kHevcSliceB}, {true, 2, 2, boxweave::kHevcSliceI},
                       {false, 2, 1, boxweave::kHevcSliceP}, {true, 1, 1, boxweave::kHevcSliceI},
                       {false, 2, 1, boxweave::kHevcSliceP}};
  Scratch s;
  // Three-byte start codes, four-byte ones, and a mix of both with zero padding in front and between
  // units (the start code reader is the H.264 reader's too).
  for (size_t startCode : {3u, 4u, 0u}) {
    Bytes stream = startCode ? Join(nals, startCode) : Bytes(5, 0);
    for (size_t i = 0; !startCode && i < nals.size(); ++i) {
      const Bytes one = Join({nals[i]}, 3 + i % 4);
      stream.insert(stream.end(), one.begin(), one.end());
    }
    stream.insert(stream.end(), 3, 0);  // trailing zeros
    const std::string path = s.Write("s.h265", stream);
    for (size_t block : {1u, 7u, 1u << 20}) {
      SCOPED_TRACE("start code " + std::to_string(startCode) + ", block " + std::to_string(block));
      H265Reader r(block);
      ASSERT_TRUE(r.Open(path)) << r.Error();
      H265AccessUnit au;
      size_t n = 0;
      for (; r.Next(au); ++n) {
        ASSERT_LT(n, std::size(want));
        EXPECT_EQ(std::make_tuple(au.key, au.units, au.unitsKept, au.sliceTypes),
                  std::make_tuple(want[n].key, want[n].units, want[n].kept, want[n].types))
            << "picture " << n;
        // Units stand behind four-byte start codes; the sets equal to the first are gone.
        ASSERT_TRUE(au.data && au.size >= 6);
        EXPECT_EQ(Bytes(au.data, au.data + 4), (Bytes{0, 0, 0, 1}));
        const Bytes bytes(au.data, au.data + au.size);
        EXPECT_EQ(std::search(bytes.begin(), bytes.end(), kVps.begin(), kVps.end()), bytes.end()) << "picture " << n;
      }
      EXPECT_FALSE(r.Failed()) << r.Error();
      EXPECT_EQ(n, std::size(want));
      EXPECT_TRUE(r.ParamSetsChange());
      EXPECT_EQ(r.FirstPps(), kPps);
    }
  }
  H265Description d;
  std::string why;
  ASSERT_TRUE(boxweave::DescribeH265(s.Write("d.h265", Join(nals)), d, why)) << why;
  EXPECT_EQ(std::make_tuple(d.pictures, d.keys, d.firstKey, d.gop, d.hasB, d.maxSlices, d.sharedLength, d.firstShared),
            std::make_tuple(7LL, 3LL, 0LL, 3LL, true, 2, 3LL, 1LL));
  EXPECT_EQ(std::make_tuple(d.sps.width, d.sps.height), std::make_tuple(320u, 240u));
  const std::vector<std::string> warnings = boxweave::H265Warnings(d);
  ASSERT_EQ(warnings.size(), 2u);
  EXPECT_NE(warnings[0].find("3 pictures (the first is number 1) hold more than one NAL unit"), std::string::npos) << warnings[0];
  EXPECT_NE(warnings[1].find("changes its VPS, SPS or PPS"), std::string::npos) << warnings[1];
}

TEST(H265Reader, MediaAndPacketsCarryTheSetsSizeTimesAndStructure) {
  Scratch s;
  const Bytes sps = MakeSps(SpsShape());
  const std::string path = s.Write("m.h265", Join({kVps, sps, kPps, Slice(19, true, 2), Slice(0, true, 0), Slice(1, true, 1)}));
  H265Description d;
  std::string why;
  ASSERT_TRUE(boxweave::DescribeH265(path, d, why)) << why;
  EXPECT_TRUE(boxweave::H265Warnings(d).empty());
  const kiv::base::Fraction fps(25, 1);
  kiv::stream::IMedia* m = boxweave::NewH265Media(d, fps);
  ASSERT_NE(m, nullptr);
  const Bytes extra(m->Extra(), m->Extra() + m->ExtraSize());
  EXPECT_EQ(extra, Join({kVps, sps, kPps}));
  unsigned char *vps = nullptr, *spsAt = nullptr, *pps = nullptr;
  unsigned iv = 0, is = 0, ip = 0, profile = 0, level = 0;
  uint32_t structure = 0;
  int width = 0, height = 0;
  ASSERT_TRUE(m->Get("vps", vps) && m->Get("ivps", iv) && m->Get("sps", spsAt) && m->Get("isps", is) && m->Get("pps", pps) &&
              m->Get("ipps", ip) && m->Get("width", width) && m->Get("height", height) && m->Get("profile", profile) &&
              m->Get("level", level) && m->Get("struct", structure));
  EXPECT_EQ(Bytes(vps, vps + iv), kVps);
  EXPECT_EQ(Bytes(spsAt, spsAt + is), sps);
  EXPECT_EQ(Bytes(pps, pps + ip), kPps);
  EXPECT_EQ(std::make_tuple(width, height, profile, level), std::make_tuple(320, 240, 1u, 93u));
  uint32_t ibbp = 0;
  kiv::Convert32(ibbp, "ibbp");
  EXPECT_EQ(structure, ibbp);

  H265Reader r;
  ASSERT_TRUE(r.Open(path) && r.FrameRate(fps));
  long long n = 0;
  for (kiv::stream::Packet* p; (p = r.NextPacket(m)) != nullptr; ++n) {
    ASSERT_NE(p, boxweave::PacketError()) << r.Error();
    EXPECT_EQ(std::make_tuple(p->IsKey(), p->pts, p->duration, p->media), std::make_tuple(n == 0, n * 40000000LL, 40000000LL, m));
    p->Release();
  }
  EXPECT_EQ(n, 3);
  m->Release();
  EXPECT_FALSE(r.FrameRate(kiv::base::Fraction(0, 1)));
}

// What the command line says of an empty file, text, H.264 or a missing VPS: record_hevc_test.
TEST(H265Reader, RefusesWhatItCannotReadWithTheReason) {
  LogCapture log(kiv::dbg::E);
  Scratch s;
  const Bytes sps = MakeSps(SpsShape());
  SpsShape bad;
  bad.window = true;
  bad.left = 200;
  const struct {
    std::string path;
    const char* says;
  } cases[] = {
      {s.dir + "/missing.h265", "cannot open"},
      {s.Write("lone.h265", Bytes{0, 0, 0, 1}), "nothing behind the first start code"},
      {s.Write("nosps.h265", Join({kVps, kPps, Slice(19, true)})), "no SPS"},
      {s.Write("nopps.h265", Join({kVps, sps, Slice(19, true)})), "no PPS"},
      {s.Write("sets.h265", Join({kVps, sps, kPps})), "no picture"},
      {s.Write("badsps.h265", Join({kVps, MakeSps(bad), kPps, Slice(19, true)})), "unparsable SPS: conformance window"},
  };
  for (const auto& c : cases) {
    H265Description d;
    std::string why;
    EXPECT_FALSE(boxweave::DescribeH265(c.path, d, why)) << c.path;
    EXPECT_EQ(why.rfind(c.path + ": ", 0), 0u) << why;
    EXPECT_NE(why.find(c.says), std::string::npos) << why;
  }
  EXPECT_TRUE(H265Reader::HandlesPath("a/b.H265") && H265Reader::HandlesPath("x.HEVC"));
  EXPECT_FALSE(H265Reader::HandlesPath("x.h264") || H265Reader::HandlesPath("hevc") || H265Reader::HandlesPath("x.265"));
}

TEST(H265Reader, CutAndRandomInputEndsInPicturesOrAnError) {
  LogCapture quiet(kiv::dbg::E);
  Scratch s;
  std::vector<Bytes> nals = {kVps, MakeSps(SpsShape()), kPps, Slice(19, true)};
  for (int i = 0; i < 12; ++i) nals.push_back(Slice(i % 3 ? 1 : 0, true, i % 3 ? 1 : 0, 5 + i));
  const Bytes whole = Join(nals);
  std::mt19937 rng(1234);
  long long described = 0;
  for (size_t cut = 0; cut <= whole.size(); cut += 3) {
    for (int variant = 0; variant < 2; ++variant) {
      Bytes b(whole.begin(), whole.begin() + static_cast<long>(cut));
      // The second variant flips bytes at random places of the cut stream.
      if (variant)
        for (int k = 0; k < 4 && !b.empty(); ++k) b[rng() % b.size()] ^= static_cast<uint8_t>(1 + rng() % 255);
      const std::string path = s.Write("cut.h265", b);
      H265Description d;
      std::string why;
      const bool ok = boxweave::DescribeH265(path, d, why);
      EXPECT_TRUE(ok || !why.empty()) << cut;
      if (ok) {
        ++described;
        EXPECT_LE(d.pictures, 13) << cut;
      }
      H265Reader r(1 + rng() % 64);
      if (!r.Open(path)) continue;
      H265AccessUnit au;
      long long n = 0;
      while (r.Next(au)) ++n;
      EXPECT_LE(n, 40) << cut;
    }
  }
  EXPECT_GT(described, 0) << "streams cut behind their first picture describe";
  for (int i = 0; i < 200; ++i) {
    Bytes b(rng() % 300);
    for (uint8_t& x : b) x = static_cast<uint8_t>(rng() % 4 == 0 ? 0 : rng());
    if (i % 2 && b.size() > 6) b[0] = 0, b[1] = 0, b[2] = 0, b[3] = 1, b[4] = 0x40, b[5] = 1;
    const std::string path = s.Write("random.h265", b);
    H265Description d;
    std::string why;
    const bool ok = boxweave::DescribeH265(path, d, why);
    EXPECT_TRUE(ok || !why.empty());
  }
}
