// Sample descriptions: entries, avcC, colr, esds and the QuickTime audio boxes, written against
// hand-laid bytes, read back through the factory, and fed damaged input.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "stream/plugin/mp4/common/Stsd.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"

using namespace boxtest;
using kiv::base::IOBuffer;
using namespace kiv::plugin::mov;

namespace {

// Bytes in file order, laid out field by field.
struct Lay {
  Bytes b;
  Lay& u8(unsigned v) {
    b.push_back(static_cast<unsigned char>(v));
    return *this;
  }
  Lay& u16(unsigned v) { return u8(v >> 8).u8(v); }
  Lay& u24(unsigned v) { return u8(v >> 16).u16(v); }
  Lay& u32(uint32_t v) { return u16(v >> 16).u16(v); }
  Lay& u64(uint64_t v) { return u32(static_cast<uint32_t>(v >> 32)).u32(static_cast<uint32_t>(v)); }
  Lay& fcc(const char* s) {
    Code(b, s);
    return *this;
  }
  Lay& text(const char* s, size_t n) {
    for (size_t i = 0; i < n; ++i) u8(i < std::strlen(s) ? static_cast<unsigned char>(s[i]) : 0);
    return *this;
  }
  Lay& zeros(size_t n) { return text("", n); }
  Lay& raw(const Bytes& more) {
    Append(b, more);
    return *this;
  }
};

Bytes Written(IBox& box) {
  IOBuffer io;
  box.Fill(io, true);
  return io.Bytes();
}

// The 16-byte head of an entry with the given data reference index.
Bytes Head(uint16_t dri) { return Lay().zeros(6).u16(dri).b; }

// An "avc1"-style video part as the H.264 track fills it.
Bytes VideoPart(const char* vendor, uint16_t w, uint16_t h) {
  return Lay()
      .u16(0)
      .u16(0)
      .fcc(vendor)
      .u32(512)
      .u32(512)
      .u16(w)
      .u16(h)
      .u32(0x480000)
      .u32(0x480000)
      .u32(0)
      .u16(1)
      .u8(11)
      .text("Quorel AVCC", 31)
      .u16(24)
      .u16(0xffff)
      .b;
}

void FillVideo(cvmsi& e, uint16_t w, uint16_t h) {
  e._vendor = FCC("appl");
  e._temporal_quality = 512;
  e._spatial_quality = 512;
  e._width = w;
  e._height = h;
  e._frame_count = 1;
  e.CompressorName(11, "Quorel AVCC", 11);
}

const unsigned char kSps[] = {0x67, 0x4d, 0x40, 0x1f};
const unsigned char kPps[] = {0x68, 0xee};
const unsigned char kAac[] = {0x11, 0x90};  // AAC LC, 48 kHz, stereo

Bytes AvcCBytes() {
  return Box("avcC", Lay().u8(1).u8(77).u8(0x40).u8(31).u8(0xff).u8(0xe1).u16(4).raw(Bytes(kSps, kSps + 4)).u8(1).u16(2)
                         .raw(Bytes(kPps, kPps + 2)).b);
}

// esds as written for a 48 kHz AAC track with two bytes of decoder data.
Bytes EsdsBytes() {
  return Box("esds", Lay()
                         .u32(0)
                         .u8(3).u8(25).u16(2).u8(31)
                         .u8(4).u8(17).u8(64).u8(21).u24(0x100000).u32(128000).u32(128000)
                         .u8(5).u8(2).u8(0x11).u8(0x90)
                         .u8(6).u8(1).u8(2)
                         .b);
}

void FillEsds(cesds& e) {
  e._fcc = FCC("mp4a");
  e._sample_rate = 48000;
  e._es_id = 2;
  e._priority = 31;
  e._avg_bitrate = e._max_bitrate = 128000;
  e._extra = kAac;
  e._extra_size = sizeof kAac;
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

// Reads one box whose class the factory does not make: header by hand, then its Parse.
bool ParseAs(IBox& box, const Bytes& bytes, IOBuffer& io, AttrSet& ap) {
  Load(io, bytes);
  box.Offset(0);
  box.Size(static_cast<unsigned>(bytes.size()));
  io.Seek(8, kiv::Position::front);
  return box.Parse(io, ap, true);
}

template <class T>
T* As(IBox* box) {
  return dynamic_cast<T*>(box);
}

}  // namespace

// ---------------------------------------------------------------- writing

TEST(StsdBoxWrite, VisualEntryWithAvcCAndNclcColr) {
  cstsd stsd;
  auto* avc1 = new cavc1;
  stsd.Add(avc1);
  FillVideo(*avc1, 1920, 1080);
  auto* avcc = new cavcC;
  avcc->_profile = 77;
  avcc->_compatibility = 0x40;
  avcc->_level = 31;
  avcc->_sps = kSps;
  avcc->_sps_size = sizeof kSps;
  avcc->_pps = kPps;
  avcc->_pps_size = sizeof kPps;
  avc1->Add(avcc);
  auto* colr = new ccolr;
  colr->_colour_type = FCC("nclc");
  colr->_primaries = 6;
  colr->_matrix = 6;
  avc1->Add(colr);

  const Bytes colrBytes = Box("colr", Lay().fcc("nclc").u16(6).u16(1).u16(6).b);
  const Bytes entry = Box("avc1", Cat({Head(1), VideoPart("appl", 1920, 1080), AvcCBytes(), colrBytes}));
  const Bytes expected = Box("stsd", Cat({Lay().u32(0).u32(1).b, entry}));
  EXPECT_EQ(Written(stsd), expected);
  EXPECT_EQ(avc1->RealSize(), 86u + 25u + 18u);
  EXPECT_EQ(stsd.StatisticsSize(), expected.size());
}

TEST(StsdBoxWrite, AddNumbersEntriesFromOne) {
  cstsd stsd;
  auto* a = new cjpeg;
  auto* b = new chvc1;
  a->_data_reference_index = 7;  // what Add sets wins
  stsd.Add(a);
  stsd.Add(b);
  EXPECT_EQ(a->_data_reference_index, 1);
  EXPECT_EQ(b->_data_reference_index, 2);
  EXPECT_EQ(stsd.Num(), 2u);
  const Bytes bytes = Written(stsd);
  ASSERT_EQ(bytes.size(), 16u + 86u + 86u);
  EXPECT_EQ(Bytes(bytes.begin() + 12, bytes.begin() + 16), Lay().u32(2).b);
  EXPECT_EQ(Bytes(bytes.begin() + 20, bytes.begin() + 24), Lay().fcc("jpeg").b);
  EXPECT_EQ(Bytes(bytes.begin() + 30, bytes.begin() + 32), Lay().u16(1).b);
  EXPECT_EQ(Bytes(bytes.begin() + 106, bytes.begin() + 110), Lay().fcc("hvc1").b);
  EXPECT_EQ(Bytes(bytes.begin() + 116, bytes.begin() + 118), Lay().u16(2).b);
}

TEST(StsdBoxWrite, AvcCWithoutSetsAndRangeExtensionBytes) {
  cavcC plain;
  plain._profile = 66;
  EXPECT_EQ(Written(plain), Box("avcC", Lay().u8(1).u8(66).u8(0).u8(0).u8(0xff).u8(0xe0).u8(0).b));

  // High profile carries chroma format and depths, with the reserved bits set.
  cavcC high;
  high._profile = 100;
  high._chroma_format = 1;
  high._luma_bit_depth = 2;
  high._chroma_bit_depth = 2;
  const Bytes bytes = Written(high);
  EXPECT_EQ(bytes, Box("avcC", Lay().u8(1).u8(100).u8(0).u8(0).u8(0xff).u8(0xe0).u8(0).u8(0xfd).u8(0xfa).u8(0xfa).u8(0).b));
  EXPECT_EQ(high.statisticsSize(), bytes.size());

  for (unsigned p : {44u, 83u, 86u, 100u, 110u, 118u, 122u, 128u, 134u, 135u, 138u, 139u, 244u})
    EXPECT_TRUE(gf_avc_is_rext_profile(static_cast<unsigned char>(p))) << p;
  for (unsigned p : {66u, 77u, 88u, 99u, 101u, 245u}) EXPECT_FALSE(gf_avc_is_rext_profile(static_cast<unsigned char>(p))) << p;
}

TEST(StsdBoxWrite, ColrNclxCarriesTheFullRangeBit) {
  ccolr on;
  on._colour_type = FCC("nclx");
  EXPECT_EQ(Written(on), Box("colr", Lay().fcc("nclx").u16(1).u16(1).u16(1).u8(0x80).b));
  ccolr off;
  off._colour_type = FCC("nclx");
  off._full_range = 0;
  off._primaries = 9;
  off._transfer = 16;
  off._matrix = 9;
  EXPECT_EQ(Written(off), Box("colr", Lay().fcc("nclx").u16(9).u16(16).u16(9).u8(0).b));
  EXPECT_EQ(off.statisticsSize(), 19u);
}

TEST(StsdBoxWrite, Mp4aVersionZeroWithEsds) {
  cmp4a mp4a;
  mp4a._channels = 2;
  mp4a._sample_size = 16;
  mp4a._compression_id = 0xfffe;
  mp4a._sample_rate = 48000;
  auto* esds = new cesds;
  FillEsds(*esds);
  mp4a.Add(esds);
  const Bytes expected =
      Box("mp4a", Cat({Head(1), Lay().u16(0).u16(0).u32(0).u16(2).u16(16).u16(0xfffe).u16(0).u16(48000).u16(0).b,
                       EsdsBytes()}));
  EXPECT_EQ(Written(mp4a), expected);
  EXPECT_EQ(esds->_type_indication, 64);
  EXPECT_EQ(mp4a.StatisticsSize(), expected.size());
}

// The QuickTime form for many channels: a version-2 entry and a "wave" with frma, mp4a, esds, chan.
TEST(StsdBoxWrite, Mp4aVersionTwoWithWave) {
  cmp4a mp4a;
  mp4a._version = 2;
  mp4a._channels = 3;
  mp4a._sample_size = 16;
  mp4a._compression_id = 0xfffe;
  mp4a._sample_rate = 1;
  mp4a._word_a = 72;
  mp4a._word_b = camsi::RateHighWord(48000);
  mp4a._word_c = 0;
  mp4a._word_d = 6;
  mp4a._bits_per_channel = 16;
  mp4a._format_flags = 12;
  mp4a._bytes_per_audio_packet = 12;
  mp4a._frames_per_audio_packet = 0;
  auto* wave = new cwave;
  mp4a.Add(wave);
  auto* frma = new cfrma;
  frma->_format = FCC("mp4a");
  wave->Add(frma);
  wave->Add(new cmp4asub);
  auto* esds = new cesds;
  FillEsds(*esds);
  wave->Add(esds);
  auto* chan = new cchan;
  chan->_channels = 6;
  wave->Add(chan);

  const Bytes entry = Lay()
                          .u16(2).u16(0).u32(0)
                          .u16(3).u16(16).u16(0xfffe).u16(0).u16(1).u16(0)
                          .u32(72).u32(0x40e77000).u32(0).u32(6)
                          .u32(0x7f000000).u32(16).u32(12).u32(12).u32(0)
                          .b;
  const Bytes waveBytes = Box("wave", Cat({Box("frma", Lay().fcc("mp4a").b), Box("mp4a", Lay().u32(0).b), EsdsBytes(),
                                           Box("chan", Lay().u32(0).u16(147).u16(6).zeros(8).b)}));
  const Bytes expected = Box("mp4a", Cat({Head(1), entry, waveBytes}));
  EXPECT_EQ(Written(mp4a), expected);
  EXPECT_EQ(mp4a.statisticsSize(), 72u);
  EXPECT_EQ(mp4a.StatisticsSize(), expected.size());
}

TEST(StsdBoxWrite, SowtAndPresetLpcm) {
  csowt sowt;
  sowt._channels = 1;
  sowt._sample_size = 16;
  sowt._sample_rate = 8000;
  EXPECT_EQ(Written(sowt), Box("sowt", Cat({Head(1), Lay().u16(0).u16(0).u32(0).u16(1).u16(16).u16(0).u16(0).u16(8000).u16(0).b})));

  clpcm lpcm;
  lpcm._word_b = camsi::RateHighWord(44100);
  lpcm._word_d = 3;
  lpcm._bytes_per_audio_packet = 6;
  const Bytes expected = Box("lpcm", Cat({Head(1), Lay()
                                                       .u16(2).u16(0).u32(0)
                                                       .u16(3).u16(16).u16(0xfffe).u16(0).u16(1).u16(0)
                                                       .u32(72).u32(0x40e58880).u32(0).u32(3)
                                                       .u32(0x7f000000).u32(16).u32(12).u32(6).u32(1)
                                                       .b}));
  EXPECT_EQ(Written(lpcm), expected);
}

TEST(StsdBoxWrite, TextEntryAlwaysNamesHelvetica) {
  ctext text;
  text._display_flags = 0x60;
  text._text_align = 1;
  std::strcpy(text._font_name, "Courier");
  text._font_name_len = 7;
  const Bytes expected =
      Box("text", Cat({Head(1), Lay().u32(0x60).u32(1).zeros(14).u64(0).u16(255).u16(255).u16(255).u8(9).text("Helvetica", 9).b}));
  EXPECT_EQ(Written(text), expected);
  EXPECT_EQ(text.statisticsSize(), expected.size());
}

TEST(StsdBoxWrite, EsdsDescriptorLengths) {
  EXPECT_EQ(cesds::getDescrLength(0), 2);
  EXPECT_EQ(cesds::getDescrLength(127), 129);
  EXPECT_EQ(cesds::getDescrLength(128), 131);
  EXPECT_EQ(cesds::getDescrLength(16383), 16386);
  EXPECT_EQ(cesds::getDescrLength(16384), 16388);
  EXPECT_EQ(cesds::getDescrLength(0x200000), 0x200005);

  struct Case {
    uint32_t len;
    Bytes bytes;
  };
  const Case cases[] = {
      {0, {5, 0x00}},
      {127, {5, 0x7f}},
      {128, {5, 0x81, 0x00}},
      {16383, {5, 0xff, 0x7f}},
      {16384, {5, 0x81, 0x80, 0x00}},
      {0x200000, {5, 0x81, 0x80, 0x80, 0x00}},
      {0x0fffffff, {5, 0xff, 0xff, 0xff, 0x7f}},
      {0x10000000, {5}},  // too long for four groups: the tag alone
  };
  for (const Case& c : cases) {
    cesds e;
    e._descr_tag = 5;
    e._descr_len = c.len;
    IOBuffer io;
    e.add_descr(io);
    EXPECT_EQ(io.Bytes(), c.bytes) << c.len;
  }
}

TEST(StsdBoxWrite, EsdsTypeIndicationAndLongExtra) {
  cesds e;
  const struct {
    const char* fcc;
    unsigned rate;
    unsigned type;
  } types[] = {{"mp4a", 0, 64}, {"aac ", 0, 64}, {"mp4v", 0, 32}, {"mpgv", 0, 96},
               {"mpga", 22050, 105}, {"mpga", 32000, 107}, {"h264", 0, 0}};
  for (const auto& t : types) {
    uint32_t code = 0;
    std::memcpy(&code, t.fcc, 4);
    e._fcc = code;
    e._sample_rate = t.rate;
    e.getType_indication();
    EXPECT_EQ(e._type_indication, t.type) << t.fcc;
  }

  // 200 bytes of decoder data need two length bytes in three descriptors.
  std::vector<unsigned char> extra(200, 0x5a);
  cesds big;
  big._fcc = FCC("mp4a");
  big._has_es_id = 0;
  big._extra = extra.data();
  big._extra_size = static_cast<uint32_t>(extra.size());
  const int d = 13 + 203;  // 216
  const int es = d + 3 + 3 + 3;
  const Bytes expected = Box("esds", Lay()
                                         .u32(0)
                                         .u8(3).u8(0x80 | (es >> 7)).u8(es & 0x7f)
                                         .u8(4).u8(0x80 | (d >> 7)).u8(d & 0x7f).u8(64).u8(17).u24(0x100000).u32(0).u32(0)
                                         .u8(5).u8(0x81).u8(0x48).raw(extra)
                                         .u8(6).u8(1).u8(2)
                                         .b);
  EXPECT_EQ(Written(big), expected);
  EXPECT_EQ(big.statisticsSize(), expected.size());
}

// ---------------------------------------------------------------- reading

TEST(StsdBoxRead, VisualEntryRoundTrip) {
  cstsd stsd;
  auto* avc1 = new cavc1;
  stsd.Add(avc1);
  FillVideo(*avc1, 1280, 720);
  auto* avcc = new cavcC;
  avcc->_profile = 77;
  avcc->_level = 40;
  avcc->_sps = kSps;
  avcc->_sps_size = sizeof kSps;
  avcc->_pps = kPps;
  avcc->_pps_size = sizeof kPps;
  avc1->Add(avcc);
  auto* colr = new ccolr;
  colr->_colour_type = FCC("nclx");
  colr->_primaries = 9;
  colr->_full_range = 0;
  avc1->Add(colr);
  const Bytes bytes = Written(stsd);

  LogCapture log;
  RootParse p(bytes);
  ASSERT_TRUE(p.ok);
  auto* rs = As<cstsd>(p.root.Child());
  ASSERT_NE(rs, nullptr);
  EXPECT_EQ(rs->Num(), 1u);  // counted from the entries, not taken from the file
  auto* e = As<cavc1>(rs->Child());
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->_data_reference_index, 1);
  EXPECT_EQ(e->_vendor, FCC("appl"));
  EXPECT_EQ(e->_width, 1280);
  EXPECT_EQ(e->_height, 720);
  EXPECT_EQ(e->_frame_count, 1);
  EXPECT_STREQ(e->_compressor_name, "Quorel AVCC");
  EXPECT_EQ(e->_depth, 24);
  EXPECT_EQ(e->_color_table_id, 0xffff);
  EXPECT_EQ(p.attrs.GetOrDef("codec_fcc", std::string()), std::to_string(FCC("avc1")));

  auto* ra = As<cavcC>(e->Child());
  ASSERT_NE(ra, nullptr);
  EXPECT_EQ(ra->_profile, 77);
  EXPECT_EQ(ra->_level, 40);
  EXPECT_EQ(ra->_length_size, 0xff);
  EXPECT_EQ(ra->_sps_count, 1);
  ASSERT_EQ(ra->_sps_size, sizeof kSps);
  EXPECT_EQ(0, std::memcmp(ra->_sps, kSps, sizeof kSps));
  ASSERT_EQ(ra->_pps_size, sizeof kPps);
  EXPECT_EQ(ra->_pps, ra->_buffer + sizeof kSps);
  EXPECT_EQ(0, std::memcmp(ra->_pps, kPps, sizeof kPps));

  auto* rc = As<ccolr>(ra->Next());
  ASSERT_NE(rc, nullptr);
  EXPECT_EQ(rc->_colour_type, FCC("nclx"));
  EXPECT_EQ(rc->_primaries, 9);
  EXPECT_EQ(rc->_not_bt709, 1);
  EXPECT_EQ(rc->_full_range, 0);
  EXPECT_FALSE(log.Has("|E|"));

  // What was read writes the same bytes again.
  EXPECT_EQ(Written(*rs), bytes);
}

TEST(StsdBoxRead, EmptyListIsLoggedAndReadOn) {
  LogCapture log;
  RootParse p(Cat({Box("stsd", Lay().u32(0).u32(0).b), Box("free")}));
  ASSERT_TRUE(p.ok);
  ASSERT_NE(As<cstsd>(p.root.Child()), nullptr);
  EXPECT_EQ(log.Count("|E|"), 1u);
  ASSERT_NE(p.root.Child()->Next(), nullptr);
  EXPECT_STREQ(p.root.Child()->Next()->FCCString(), "free");
}

TEST(StsdBoxRead, AudioEntriesAndQuickTimeBoxesThatStayFake) {
  // "sowt" reports frame-sized chunks; "lpcm", "wave" and "chan" are kept only as fake boxes.
  const Bytes sowt = Box("sowt", Cat({Head(1), Lay().u16(0).u16(0).u32(0).u16(2).u16(16).u16(0).u16(0).u16(16000).u16(0).b}));
  const Bytes lpcm = Box("lpcm", Cat({Head(2), Lay().u16(2).zeros(6).u16(3).u16(16).u16(0xfffe).u16(0).u16(1).u16(0)
                                                  .u32(72).u32(0x40e77000).u32(0).u32(4).u32(0x7f000000).u32(16).u32(12).u32(8).u32(1).b,
                                      Box("chan", Lay().u32(0).u16(147).u16(4).zeros(8).b)}));
  LogCapture log;
  RootParse p(Box("stsd", Cat({Lay().u32(0).u32(2).b, sowt, lpcm})));
  ASSERT_TRUE(p.ok);
  auto* s = As<csowt>(p.root.Child()->Child());
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->_channels, 2);
  EXPECT_EQ(s->_sample_rate, 16000);
  bool frames = false;
  EXPECT_TRUE(p.attrs.Get("frame_with_chunk", frames));
  EXPECT_TRUE(frames);
  IBox* l = s->Next();
  ASSERT_NE(l, nullptr);
  EXPECT_EQ(As<clpcm>(l), nullptr);
  EXPECT_NE(As<cfakebox>(l), nullptr);
  EXPECT_EQ(l->RealSize(), lpcm.size());
  EXPECT_EQ(l->Child(), nullptr);
  for (const char* code : {"wave", "frma", "chan", "lpcm", "wide"}) {
    IBox* b = IBox::New(code);
    EXPECT_NE(As<cfakebox>(b), nullptr) << code;
    delete b;
  }
}

TEST(StsdBoxRead, VersionTwoRateComesFromTheDouble) {
  const struct {
    uint32_t high;
    unsigned rate;
  } cases[] = {{0x40e77000, 48000}, {0x40e58880, 44100}, {0x40d77000, 24000}, {0x40d58880, 22050},
               {0x40c77000, 12000}, {0x40c58880, 11025}, {0x40f77000, 0} /* 96000 */};
  for (const auto& c : cases) {
    const Bytes bytes = Box("lpcm", Cat({Head(1), Lay().u16(2).zeros(6).u16(3).u16(16).u16(0xfffe).u16(0).u16(1).u16(0)
                                                     .u32(72).u32(c.high).u32(0).u32(5).u32(0x12345678).u32(24).u32(12).u32(15).u32(1).b}));
    clpcm lpcm;
    IOBuffer io;
    AttrSet ap;
    ASSERT_TRUE(ParseAs(lpcm, bytes, io, ap));
    EXPECT_EQ(lpcm._sample_rate, c.rate) << std::hex << c.high;
    EXPECT_EQ(lpcm._channels, 5);
    EXPECT_EQ(lpcm._bits_per_channel, 24u);
    EXPECT_EQ(lpcm._bytes_per_audio_packet, 15u);
    EXPECT_EQ(io.Position(), static_cast<long long>(bytes.size()));
    EXPECT_EQ(ap.GetOrDef("frame_with_chunk", std::string()).empty(), false);
  }
}

TEST(StsdBoxRead, Mp4aVersionTwoEntryReadsBeforeItsWave) {
  cmp4a w;
  w._version = 2;
  w._word_a = 72;
  w._word_b = 0x40e58880;
  w._word_d = 6;
  auto* wave = new cwave;
  w.Add(wave);
  auto* esds = new cesds;
  FillEsds(*esds);
  wave->Add(esds);
  RootParse p(Cat({Written(w), Box("free")}));
  ASSERT_TRUE(p.ok);
  auto* m = As<cmp4a>(p.root.Child());
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->_sample_rate, 44100);
  EXPECT_EQ(m->_channels, 6);
  ASSERT_NE(m->Child(), nullptr);
  EXPECT_STREQ(m->Child()->FCCString(), "wave");
  EXPECT_EQ(m->Child()->Child(), nullptr);  // a fake box: its children are skipped
  ASSERT_NE(m->Next(), nullptr);
  EXPECT_STREQ(m->Next()->FCCString(), "free");
}

TEST(StsdBoxRead, EsdsReadsTheOneByteLengthLayout) {
  RootParse p(EsdsBytes());
  ASSERT_TRUE(p.ok);
  auto* e = As<cesds>(p.root.Child());
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->_avg_bitrate, 128000u);
  EXPECT_EQ(e->_max_bitrate, 128000u);
  ASSERT_EQ(e->_extra_size, 2u);
  EXPECT_EQ(e->_extra, e->_extra_buf);
  EXPECT_EQ(e->_extra_buf[0], 0x11);
  EXPECT_EQ(e->_extra_buf[1], 0x90);
  EXPECT_EQ(p.io.Position(), static_cast<long long>(EsdsBytes().size()));
}

TEST(StsdBoxRead, EsdsWithoutExtraTakesTheSyncDescriptor) {
  cesds e;
  e._fcc = FCC("mp4a");
  e._avg_bitrate = 64000;
  const Bytes bytes = Written(e);
  ASSERT_EQ(bytes.size(), 8u + 4 + 2 + 3 + 2 + 13 + 3);
  LogCapture log;
  RootParse p(Cat({bytes, Box("free", Fill(4))}));
  ASSERT_TRUE(p.ok);
  auto* r = As<cesds>(p.root.Child());
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->_avg_bitrate, 64000u);
  ASSERT_EQ(r->_extra_size, 1u);
  EXPECT_EQ(r->_extra_buf[0], 2);
  // The last skip stops at the box's end, and the sibling is read where it starts.
  ASSERT_NE(r->Next(), nullptr);
  EXPECT_STREQ(r->Next()->FCCString(), "free");
  EXPECT_FALSE(log.Has("|E|"));
}

TEST(StsdBoxRead, EsdsLongExtraIsCutToFourBytes) {
  std::vector<unsigned char> extra = {1, 2, 3, 4, 5, 6};
  cesds e;
  e._extra = extra.data();
  e._extra_size = 6;
  RootParse p(Written(e));
  auto* r = As<cesds>(p.root.Child());
  ASSERT_NE(r, nullptr);
  ASSERT_EQ(r->_extra_size, 4u);
  EXPECT_EQ(Bytes(r->_extra_buf, r->_extra_buf + 4), (Bytes{1, 2, 3, 4}));
}

TEST(StsdBoxRead, AvcCOversizedSpsKeepsTheBuffer) {
  // A 60-byte SPS: 56 bytes kept, the PPS lost, the sibling read all the same.
  Bytes sps(60);
  for (size_t i = 0; i < sps.size(); ++i) sps[i] = static_cast<unsigned char>(i + 1);
  const Bytes big = Box("avcC", Lay().u8(1).u8(77).u8(0).u8(30).u8(0xff).u8(0xe1).u16(60).raw(sps).u8(1).u16(2).u8(0x68).u8(0xee).b);
  LogCapture log;
  RootParse p(Cat({big, Box("free")}));
  ASSERT_TRUE(p.ok);
  auto* a = As<cavcC>(p.root.Child());
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->_sps_size, 56);
  EXPECT_EQ(a->_pps_size, 0);
  EXPECT_EQ(Bytes(a->_sps, a->_sps + 56), Bytes(sps.begin(), sps.begin() + 56));
  EXPECT_TRUE(log.Has("sps bigger than avcC buffer!!"));
  ASSERT_NE(a->Next(), nullptr);
  EXPECT_STREQ(a->Next()->FCCString(), "free");

  // 50 + 7 bytes do not fit either: the PPS goes.
  const Bytes both = Box("avcC", Lay().u8(1).u8(77).u8(0).u8(30).u8(0xff).u8(0xe1).u16(50).raw(Bytes(50, 0x42)).u8(1).u16(7).raw(Bytes(7, 0x68)).b);
  LogCapture log2;
  RootParse q(both);
  auto* b = As<cavcC>(q.root.Child());
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->_sps_size, 50);
  EXPECT_EQ(b->_pps_size, 0);
  EXPECT_EQ(b->_pps_count, 0);
  EXPECT_EQ(b->_pps, nullptr);
  EXPECT_TRUE(log2.Has("pps bigger than avcC buffer!!"));
}

TEST(StsdBoxRead, AvcCRangeExtensionMasks) {
  // Chroma depth keeps its upper bits when read: the reader's mask is not the writer's.
  RootParse p(Box("avcC", Lay().u8(1).u8(100).u8(0).u8(40).u8(0xff).u8(0xe0).u8(0).u8(0xfe).u8(0xfa).u8(0xfb).u8(0).b));
  auto* a = As<cavcC>(p.root.Child());
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->_chroma_format, 2);
  EXPECT_EQ(a->_luma_bit_depth, 2);
  EXPECT_EQ(a->_chroma_bit_depth, 0xf8);

  // Without the four bytes there is nothing to read.
  LogCapture log;
  RootParse q(Box("avcC", Lay().u8(1).u8(100).u8(0).u8(40).u8(0xff).u8(0xe0).u8(0).b));
  auto* b = As<cavcC>(q.root.Child());
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->_chroma_format, 0);
  EXPECT_FALSE(log.Has("|E|"));
}

TEST(StsdBoxRead, TextEntryKeepsWhatTheFileHolds) {
  const Bytes bytes = Box("text", Cat({Head(1), Lay().u32(0x20).u32(2).u16(1).u16(2).u16(3).u16(4).u16(5).u16(6).u16(7).u64(9)
                                                   .u16(10).u16(11).u16(12).u8(5).text("Times", 5).b}));
  RootParse p(bytes);
  auto* t = As<ctext>(p.root.Child());
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->_display_flags, 0x20u);
  EXPECT_EQ(t->_text_align, 2u);
  EXPECT_EQ(t->_box_words[6], 7);
  EXPECT_EQ(t->_reserved, 9u);
  EXPECT_EQ(t->_fore_words[2], 12);
  EXPECT_STREQ(t->_font_name, "Times");
  // Written again, the font is Helvetica.
  const Bytes again = Written(*t);
  ASSERT_EQ(again.size(), 62u);
  EXPECT_EQ(Bytes(again.begin() + 52, again.end()), Lay().u8(9).text("Helvetica", 9).b);
}

// ---------------------------------------------------------------- damaged input

// Fields behind a box's end read as zero, not as the neighbour's bytes.
TEST(StsdBoxDamage, ShortEntryDoesNotReadItsNeighbour) {
  const Bytes entry = Box("avc1", Cat({Head(1), Lay().u16(0).u16(0).fcc("appl").u32(1).u32(2).b}));  // cut after 32 bytes
  LogCapture log;
  RootParse p(Cat({entry, Box("free", Fill(120, 0xee))}));
  ASSERT_TRUE(p.ok);
  auto* e = As<cavc1>(p.root.Child());
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->_spatial_quality, 2u);
  EXPECT_EQ(e->_width, 0);
  EXPECT_EQ(e->_height, 0);
  EXPECT_EQ(e->_depth, 0);
  EXPECT_EQ(e->_compressor_name[0], 0);
  EXPECT_TRUE(log.Has("avc1: "));
  ASSERT_NE(e->Next(), nullptr);
  EXPECT_STREQ(e->Next()->FCCString(), "free");
}

TEST(StsdBoxDamage, ForgedLengthsAreCutToTheBox) {
  LogCapture log;
  // SPS claims 40 bytes with 3 in the box; a font name claims 200 with 2 left; esds extra length 4
  // with 1 byte left.
  RootParse a(Cat({Box("avcC", Lay().u8(1).u8(77).u8(0).u8(30).u8(0xff).u8(0xe1).u16(40).u8(1).u8(2).u8(3).b),
                   Box("text", Cat({Head(1), Lay().zeros(36).u8(200).u8('A').u8('B').b})),
                   Box("esds", Lay().zeros(16).u32(7).u32(8).u8(5).u8(4).u8(0x77).b), Box("free", Fill(8, 0xee))}));
  ASSERT_TRUE(a.ok);
  auto* avcc = As<cavcC>(a.root.Child());
  ASSERT_NE(avcc, nullptr);
  EXPECT_EQ(avcc->_sps_size, 3);
  EXPECT_EQ(avcc->_pps_size, 0);
  auto* text = As<ctext>(avcc->Next());
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(text->_font_name_len, 2);
  EXPECT_STREQ(text->_font_name, "AB");
  auto* esds = As<cesds>(text->Next());
  ASSERT_NE(esds, nullptr);
  EXPECT_EQ(esds->_avg_bitrate, 7u);
  ASSERT_EQ(esds->_extra_size, 1u);
  EXPECT_EQ(esds->_extra_buf[0], 0x77);
  EXPECT_GE(log.Count("|E|"), 3u);
  ASSERT_NE(esds->Next(), nullptr);
  EXPECT_STREQ(esds->Next()->FCCString(), "free");
}

// Every cut and every flipped bit of a full description tree reads without fault.
TEST(StsdBoxDamage, TruncatedAndBitFlippedTrees) {
  cstsd stsd;
  auto* avc1 = new cavc1;
  stsd.Add(avc1);
  FillVideo(*avc1, 640, 480);
  auto* avcc = new cavcC;
  avcc->_profile = 100;
  avcc->_sps = kSps;
  avcc->_sps_size = sizeof kSps;
  avcc->_pps = kPps;
  avcc->_pps_size = sizeof kPps;
  avc1->Add(avcc);
  auto* colr = new ccolr;
  colr->_colour_type = FCC("nclx");
  avc1->Add(colr);
  auto* mp4a = new cmp4a;
  stsd.Add(mp4a);
  auto* esds = new cesds;
  FillEsds(*esds);
  mp4a->Add(esds);
  stsd.Add(new ctext);
  const Bytes bytes = Written(stsd);

  LogCapture quiet(kiv::dbg::E - 1);  // nothing printed; the run only has to survive
  for (size_t cut = 0; cut < bytes.size(); ++cut) {
    RootParse p(Bytes(bytes.begin(), bytes.begin() + static_cast<long>(cut)));
    EXPECT_LE(p.io.Position(), static_cast<long long>(cut));
  }
  for (size_t bit = 0; bit < bytes.size() * 8; ++bit) {
    Bytes damaged = bytes;
    damaged[bit / 8] ^= static_cast<unsigned char>(1u << (bit % 8));
    RootParse p(damaged);
    EXPECT_LE(p.io.Position(), static_cast<long long>(damaged.size()));
  }
}

// Leaf boxes end where their size says: bytes they do not understand are not read as children.
TEST(StsdBoxDamage, LeafBoxesPassOverWhatTheyDoNotRead) {
  // esds as ffmpeg writes it, with four-byte descriptor lengths: misread, but kept in its bounds.
  const Bytes ffmpegEsds = {0x00, 0x00, 0x00, 0x36, 0x65, 0x73, 0x64, 0x73, 0x00, 0x00, 0x00, 0x00, 0x03, 0x80,
                            0x80, 0x80, 0x25, 0x00, 0x01, 0x00, 0x04, 0x80, 0x80, 0x80, 0x17, 0x40, 0x15, 0x00,
                            0x00, 0x00, 0x00, 0x01, 0x2b, 0x02, 0x00, 0x01, 0x2b, 0x02, 0x05, 0x80, 0x80, 0x80,
                            0x05, 0x12, 0x08, 0x56, 0xe5, 0x00, 0x06, 0x80, 0x80, 0x80, 0x01, 0x02};
  // A colr followed, inside its own size, by bytes that look like a box.
  const Bytes colr = Box("colr", Cat({Lay().fcc("nclc").u16(1).u16(1).u16(1).b, Box("free", Fill(4))}));
  LogCapture log;
  RootParse p(Cat({ffmpegEsds, colr, Box("free")}));
  ASSERT_TRUE(p.ok);
  auto* e = As<cesds>(p.root.Child());
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->Child(), nullptr);
  EXPECT_EQ(e->_avg_bitrate, 0x17401500u);  // the one-byte layout laid over the four-byte one
  auto* c = As<ccolr>(e->Next());
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->Child(), nullptr);
  ASSERT_NE(c->Next(), nullptr);
  EXPECT_STREQ(c->Next()->FCCString(), "free");
  EXPECT_FALSE(log.Has("|E|"));
}
