// Sample descriptions: entries, avcC, colr, esds and the QuickTime audio boxes, written against
// hand-laid bytes, those bytes read back, and damaged input.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "stream/plugin/mp4/common/Stsd.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"

using namespace boxtest;
using namespace boxtest::kit;
using kiv::base::IOBuffer;
using namespace kiv::plugin::mov;

namespace {

// The 16-byte head of an entry with data reference index 1.
const std::string kHead = "000000000000 0001 ";
// esds for a 48 kHz AAC track with two bytes of decoder data, lengths of one byte.
const char kEsds[] = "00000000 03 19 0002 1f 04 11 40 15 100000 0001f400 0001f400 05 02 1190 06 01 02";

const unsigned char kSps[] = {0x67, 0x4d, 0x40, 0x1f};
const unsigned char kPps[] = {0x68, 0xee};
const unsigned char kAac[] = {0x11, 0x90};  // AAC LC, 48 kHz, stereo

cesds* NewEsds() {
  auto* e = new cesds;
  e->_fcc = FCC("mp4a");
  e->_sample_rate = 48000, e->_es_id = 2, e->_priority = 31, e->_avg_bitrate = e->_max_bitrate = 128000;
  e->_extra = kAac, e->_extra_size = sizeof kAac;
  return e;
}
ccolr* NewColr(const char (&type)[5], int range, int primaries, int transfer, int matrix) {
  auto* c = new ccolr;
  c->_colour_type = FCC(type);
  c->_full_range = static_cast<uint8_t>(range), c->_primaries = static_cast<uint16_t>(primaries);
  c->_transfer = static_cast<uint16_t>(transfer), c->_matrix = static_cast<uint16_t>(matrix);
  return c;
}

std::vector<RoundTrip> Entries() {
  return {
      {"StsdAvc1WithAvcCAndColr",
       [] {
         auto* stsd = new cstsd;
         auto* avc1 = static_cast<cavc1*>(stsd->Add(new cavc1));
         avc1->_vendor = FCC("appl"), avc1->_temporal_quality = avc1->_spatial_quality = 512;
         avc1->_width = 1920, avc1->_height = 1080, avc1->_frame_count = 1;
         avc1->CompressorName(11, "Quorel AVCC", 11);
         auto* avcc = static_cast<cavcC*>(avc1->Add(new cavcC));
         avcc->_profile = 77, avcc->_compatibility = 0x40, avcc->_level = 31;
         avcc->_sps = kSps, avcc->_sps_size = sizeof kSps, avcc->_pps = kPps, avcc->_pps_size = sizeof kPps;
         avc1->Add(NewColr("nclc", 1, 6, 1, 6));
         return stsd;
       },
       Box("stsd", Cat({H("00000000 00000001"),
                        Box("avc1", Cat({H(kHead + "0000 0000 'appl' 00000200 00000200 0780 0438 00480000 00480000"
                                                   " 00000000 0001 0b 'Quorel AVCC' 20*00 0018 ffff"),
                                         B("avcC", "01 4d 40 1f ff e1 0004 674d401f 01 0002 68ee"),
                                         B("colr", "'nclc' 0006 0001 0006")}))}))},
      {"AvcCWithoutSets", [] { auto* a = new cavcC; a->_profile = 66; return a; }, B("avcC", "01 42 00 00 ff e0 00")},
      // High profile carries chroma format and depths, with the reserved bits set.
      {"AvcCHigh",
       [] {
         auto* a = new cavcC;
         a->_profile = 100, a->_chroma_format = 1, a->_luma_bit_depth = a->_chroma_bit_depth = 2;
         return a;
       },
       B("avcC", "01 64 00 00 ff e0 00 fd fa fa 00"), false},  // read back below
      {"ColrNclxFullRange", [] { return NewColr("nclx", 1, 1, 1, 1); }, B("colr", "'nclx' 0001 0001 0001 80")},
      {"ColrNclx", [] { return NewColr("nclx", 0, 9, 16, 9); }, B("colr", "'nclx' 0009 0010 0009 00")},
      {"Sowt",
       [] {
         auto* s = new csowt;
         s->_channels = 1, s->_sample_size = 16, s->_sample_rate = 8000;
         return s;
       },
       Box("sowt", H(kHead + "0000 0000 00000000 0001 0010 0000 0000 1f40 0000"))},
      // The ids and the type of esds are not read: the entry is checked on writing only.
      {"Mp4aVersion0",
       [] {
         auto* m = new cmp4a;
         m->_channels = 2, m->_sample_size = 16, m->_compression_id = 0xfffe, m->_sample_rate = 48000;
         m->Add(NewEsds());
         return m;
       },
       Box("mp4a", Cat({H(kHead + "0000 0000 00000000 0002 0010 fffe 0000 bb80 0000"), B("esds", kEsds)})), false},
      // QuickTime's form for many channels: version 2 and a "wave" with frma, mp4a, esds, chan.
      {"Mp4aVersion2WithWave",
       [] {
         auto* m = new cmp4a;
         m->_version = 2, m->_channels = 3, m->_sample_size = 16, m->_compression_id = 0xfffe, m->_sample_rate = 1;
         m->_word_a = 72, m->_word_b = camsi::RateHighWord(48000), m->_word_d = 6, m->_bits_per_channel = 16;
         m->_format_flags = 12, m->_bytes_per_audio_packet = 12;
         auto* wave = m->Add(new cwave);
         auto* frma = new cfrma;
         frma->_format = FCC("mp4a");
         wave->Add(frma), wave->Add(new cmp4asub), wave->Add(NewEsds());
         auto* chan = new cchan;
         chan->_channels = 6, wave->Add(chan);
         return m;
       },
       Box("mp4a", Cat({H(kHead + "0002 0000 00000000 0003 0010 fffe 0000 0001 0000 00000048 40e77000 00000000"
                                  " 00000006 7f000000 00000010 0000000c 0000000c 00000000"),
                        Box("wave", Cat({B("frma", "'mp4a'"), B("mp4a", "00000000"), B("esds", kEsds),
                                         B("chan", "00000000 0093 0006 8*00")}))})),
       false},
      // 200 bytes of decoder data need two length bytes in three descriptors: 216 = 81 58, 225 = 81 61.
      {"EsdsLongExtra",
       [] {
         static const Bytes extra(200, 0x5a);
         auto* e = new cesds;
         e->_fcc = FCC("mp4a"), e->_has_es_id = 0, e->_extra = extra.data();
         e->_extra_size = static_cast<uint32_t>(extra.size());
         return e;
       },
       B("esds", "00000000 03 8161 04 8158 40 11 100000 00000000 00000000 05 8148 200*5a 06 01 02"), false},
  };
}

class StsdBox : public ::testing::TestWithParam<RoundTrip> {};
TEST_P(StsdBox, WrittenAndReadBack) { ExpectRoundTrip(GetParam()); }
INSTANTIATE_TEST_SUITE_P(Kinds, StsdBox, ::testing::ValuesIn(Entries()),
                         [](const ::testing::TestParamInfo<RoundTrip>& i) { return std::string(i.param.name); });

}  // namespace

// What reading keeps of the entries beyond their bytes: the codec for the demuxer, esds's own copy of the
// decoder data, the wave's rate and channels, "sowt"'s frame-sized chunks, the range bit of colr.
TEST(StsdRead, WhatTheEntriesTellTheReader) {
  LogCapture quiet;  // wave's and lpcm's codes are unknown to the factory
  Tree avc(Box("stsd", Cat({H("00000000 00000001"), Box("avc1", Cat({H(kHead + "70*00"), B("avcC", "01 4d 40 1f ff e0 00")}))})));
  EXPECT_EQ(avc.shape(), "stsd(avc1(avcC))");
  EXPECT_EQ(avc.ap.GetOrDef("codec_fcc", std::string()), std::to_string(FCC("avc1")));

  Tree aac(Box("mp4a", Cat({H(kHead + "0000 0000 00000000 0002 0010 fffe 0000 bb80 0000"), B("esds", kEsds)})));
  auto* e = dynamic_cast<cesds*>(aac.at(0)->Child());
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->_avg_bitrate, 128000u);
  EXPECT_EQ(Bytes(e->_extra, e->_extra + e->_extra_size), Bytes(kAac, kAac + 2));
  EXPECT_EQ(e->_extra, e->_extra_buf);

  Tree wave(Cat({Box("mp4a", Cat({H(kHead + "0002 0000 00000000 0003 0010 fffe 0000 0001 0000 00000048 40e77000 00000000"
                                            " 00000006 7f000000 00000010 0000000c 0000000c 00000000"),
                                  Box("wave", B("chan", "00000000 0093 0006 8*00"))})),
                 Box("free")}));
  EXPECT_EQ(wave.shape(), "mp4a(wave) free");  // the wave is a fake box: its children are skipped
  ASSERT_NE(wave.at<cmp4a>(0), nullptr);
  EXPECT_EQ(wave.at<cmp4a>(0)->_sample_rate, 48000);
  EXPECT_EQ(wave.at<cmp4a>(0)->_channels, 6);

  Tree pcm(Box("stsd", Cat({H("00000000 00000002"), Box("sowt", H(kHead + "0000 0000 00000000 0001 0010 0000 0000 1f40 0000")),
                            Box("lpcm", H(kHead + "28*00"))})));
  EXPECT_EQ(pcm.shape(), "stsd(sowt lpcm)");  // lpcm is kept as a fake box
  bool frames = false;
  EXPECT_TRUE(pcm.ap.Get("frame_with_chunk", frames) && frames);

}

// The chroma depth keeps its upper bits when read: the reader's mask is not the writer's.
TEST(StsdRead, AvcCDepthsAndColrRange) {
  LogCapture log;
  Tree depth(Cat({B("avcC", "01 64 00 28 ff e0 00 fe fa fb 00"), B("avcC", "01 64 00 28 ff e0 00"),
                  B("colr", "'nclx' 0001 0001 0001 80"), B("colr", "'nclx' 0009 0010 0009 00")}));
  ASSERT_TRUE(depth.at<cavcC>(0) && depth.at<cavcC>(1) && depth.at<ccolr>(2) && depth.at<ccolr>(3));
  EXPECT_EQ(std::make_tuple(depth.at<cavcC>(0)->_chroma_format, depth.at<cavcC>(0)->_luma_bit_depth,
                            depth.at<cavcC>(0)->_chroma_bit_depth),
            std::make_tuple(2, 2, 0xf8));
  EXPECT_EQ(depth.at<cavcC>(1)->_chroma_format, 0) << "without the four bytes there is nothing to read";
  EXPECT_EQ(depth.at<ccolr>(2)->_not_bt709, 0);
  EXPECT_EQ(depth.at<ccolr>(3)->_not_bt709, 1);
  EXPECT_FALSE(log.Has("|E|"));
}

TEST(StsdRead, TextEntryKeepsWhatTheFileHoldsButAlwaysWritesHelvetica) {
  Tree p(Box("text", H(kHead + "00000020 00000002 0001 0002 0003 0004 0005 0006 0007 0000000000000009"
                               " 000a 000b 000c 05 'Times'")));
  auto* t = p.at<ctext>(0);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(std::make_tuple(t->_display_flags, t->_text_align, t->_box_words[6], t->_reserved, t->_fore_words[2]),
            std::make_tuple(0x20u, 2u, 7, 9u, 12));
  EXPECT_STREQ(t->_font_name, "Times");
  const Bytes again = Written(*t);
  EXPECT_EQ(Bytes(again.begin() + 52, again.end()), H("09 'Helvetica'"));
}

TEST(StsdBoxEsds, TypeIndicationByCodec) {
  const struct {
    const char* fcc;
    unsigned rate;
    unsigned type;
  } types[] = {{"mp4a", 0, 64}, {"aac ", 0, 64}, {"mp4v", 0, 32}, {"mpgv", 0, 96},
               {"mpga", 22050, 105}, {"mpga", 32000, 107}, {"h264", 0, 0}};
  for (const auto& t : types) {
    cesds e;
    std::memcpy(&e._fcc, t.fcc, 4);
    e._sample_rate = t.rate;
    e.getType_indication();
    EXPECT_EQ(e._type_indication, t.type) << t.fcc;
  }
}

// esds is read in the one-byte layout only; whatever it holds, it stays inside its box.
TEST(StsdBoxEsds, ReadingOddLayouts) {
  struct Case {
    const char* name;
    Bytes bytes;
    uint32_t avg;
    Bytes extra;
    bool quiet;  // no error logged
  } cases[] = {
      {"no decoder data: the sync descriptor's byte is taken",
       B("esds", "00000000 03 15 0002 1f 04 0d 40 15 100000 0000fa00 0000fa00 06 01 02"), 64000, {2}, true},
      {"more than four bytes of decoder data",
       B("esds", "00000000 03 1b 0002 1f 04 13 40 15 100000 00000001 00000001 05 06 010203040506 06 01 02"), 1,
       {1, 2, 3, 4}, true},
      {"extra length beyond the box", B("esds", "00000000 03 00 0000 00 04 00 00 00 000000 00000007 00000008 05 04 77"), 7,
       {0x77}, false},
      {"ffmpeg's four-byte lengths, misread",
       B("esds", "00000000 03808080 25 000100 04808080 17 4015 000000 00012b02 00012b02 05808080 05 1208 56e500"
                 " 06808080 01 02"),
       0x17401500, {}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    Tree p(Cat({c.bytes, Box("free", Fill(4))}));
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.shape(), "esds free");
    auto* e = p.at<cesds>(0);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->_avg_bitrate, c.avg);
    if (!c.extra.empty()) {
      EXPECT_EQ(Bytes(e->_extra_buf, e->_extra_buf + e->_extra_size), c.extra);
    }
    EXPECT_EQ(log.Has("|E|"), !c.quiet);
  }
}

// Fields behind a box's end read as zero, lengths are cut to the box, and the next box is read.
TEST(StsdBoxDamage, ShortBoxesAndForgedLengthsStayInsideTheBox) {
  LogCapture log;
  Tree p(Cat({Box("avc1", H(kHead + "0000 0000 'appl' 00000001 00000002")),  // cut after 32 bytes
              B("avcC", "01 4d 00 1e ff e1 0028 010203"),                 // SPS of 40, 3 there
              Box("text", H(kHead + "36*00 c8 'AB'")),                     // font name of 200
              B("colr", "'nclc' 0001 0001 0001 00000008 'free'"),          // bytes like a box inside
              Box("stsd", H("00000000 00000000")), Box("free", Fill(120, 0xee))}));
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.shape(), "avc1 avcC text colr stsd free");
  auto* e = p.at<cavc1>(0);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(std::make_tuple(e->_spatial_quality, e->_width, e->_depth, e->_compressor_name[0]),
            std::make_tuple(2u, 0, 0, '\0'));
  EXPECT_TRUE(log.Has("avc1: "));
  EXPECT_EQ(p.at<cavcC>(1)->_sps_size, 3);
  EXPECT_EQ(p.at<cavcC>(1)->_pps_size, 0);
  EXPECT_STREQ(p.at<ctext>(2)->_font_name, "AB");
  EXPECT_GE(log.Count("|E|"), 4u);  // the empty description is logged too
}

TEST(StsdBoxDamage, AvcCSetsLargerThanTheBuffer) {
  struct Case {
    const char* name;
    Bytes bytes;
    int sps;
    const char* log;
  } cases[] = {
      // 56 bytes of the SPS kept, the PPS lost, the sibling read all the same.
      {"sps of 60", Cat({H("01 4d 00 1e ff e1 003c"), Bytes(60, 0x42), H("01 0002 68ee")}), 56,
       "sps bigger than avcC buffer!!"},
      {"sps of 50 and pps of 7", Cat({H("01 4d 00 1e ff e1 0032"), Bytes(50, 0x42), H("01 0007 14*68")}), 50,
       "pps bigger than avcC buffer!!"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    Tree p(Cat({Box("avcC", c.bytes), Box("free")}));
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.shape(), "avcC free");
    auto* a = p.at<cavcC>(0);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(Bytes(a->_sps, a->_sps + a->_sps_size), Bytes(static_cast<size_t>(c.sps), 0x42));
    EXPECT_EQ(a->_pps_size, 0);
    EXPECT_EQ(a->_pps_count, 0);
    EXPECT_TRUE(log.Has(c.log));
  }
}
