// Sample descriptions: entries, avcC, colr, esds and the QuickTime audio boxes, written against
// hand-laid bytes, those bytes read back, and damaged input.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

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

// The 16-byte head of an entry with data reference index 1; the video part of an "avc1" as the
// H.264 track fills it; the audio part of a version-0 entry.
const char kHead[] = "000000000000 0001 ";
const char kVideo[] = "0000 0000 'appl' 00000200 00000200 0780 0438 00480000 00480000 00000000 0001"
                      " 0b 'Quorel AVCC' 20*00 0018 ffff ";
const char kAvcC[] = "01 4d 40 1f ff e1 0004 674d401f 01 0002 68ee";
// esds for a 48 kHz AAC track with two bytes of decoder data, lengths of one byte.
const char kEsds[] = "00000000 03 19 0002 1f 04 11 40 15 100000 0001f400 0001f400 05 02 1190 06 01 02";
// The version-2 audio part: 3 channels at 48000 as a double, 16 bits, 12 bytes a packet.
const char kAudioV2[] = "0002 0000 00000000 0003 0010 fffe 0000 0001 0000 00000048 40e77000 00000000 ";

const unsigned char kSps[] = {0x67, 0x4d, 0x40, 0x1f};
const unsigned char kPps[] = {0x68, 0xee};
const unsigned char kAac[] = {0x11, 0x90};  // AAC LC, 48 kHz, stereo

void FillEsds(cesds& e) {
  e._fcc = FCC("mp4a");
  e._sample_rate = 48000; e._es_id = 2; e._priority = 31; e._avg_bitrate = e._max_bitrate = 128000; e._extra = kAac;
  e._extra_size = sizeof kAac;
}

}  // namespace

TEST(StsdBox, VisualEntryWithAvcCAndColrWrittenAndRead) {
  cstsd stsd;
  auto* avc1 = static_cast<cavc1*>(stsd.Add(new cavc1));
  avc1->_vendor = FCC("appl");
  avc1->_temporal_quality = avc1->_spatial_quality = 512; avc1->_width = 1920; avc1->_height = 1080;
  avc1->_frame_count = 1;
  avc1->CompressorName(11, "Quorel AVCC", 11);
  auto* avcc = new cavcC;
  avc1->Add(avcc); avcc->_profile = 77; avcc->_compatibility = 0x40; avcc->_level = 31; avcc->_sps = kSps;
  avcc->_sps_size = sizeof kSps; avcc->_pps = kPps; avcc->_pps_size = sizeof kPps;
  auto* colr = new ccolr;
  colr->_colour_type = FCC("nclc");
  colr->_primaries = colr->_matrix = 6; avc1->Add(colr);
  const Bytes entry = Box("avc1", Cat({H(std::string(kHead) + kVideo), B("avcC", kAvcC), B("colr", "'nclc' 0006 0001 0006")}));
  const Bytes expected = Box("stsd", Cat({H("00000000 00000001"), entry}));
  EXPECT_EQ(Written(stsd), expected);
  EXPECT_EQ(stsd.StatisticsSize(), expected.size());
  LogCapture log;
  Tree p(expected);
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.shape(), "stsd(avc1(avcC colr))");
  EXPECT_EQ(p.at<cstsd>(0)->Num(), 1u);  // counted from the entries, not taken from the file
  EXPECT_EQ(p.ap.GetOrDef("codec_fcc", std::string()), std::to_string(FCC("avc1")));
  auto* ra = dynamic_cast<cavcC*>(p.at(0)->Child()->Child());
  ASSERT_NE(ra, nullptr);
  EXPECT_EQ(ra->_sps, ra->_buffer);  // the sets are kept in the box's own buffer
  EXPECT_EQ(ra->_pps, ra->_buffer + sizeof kSps);
  EXPECT_FALSE(log.Has("|E|"));
  EXPECT_EQ(Written(*p.at(0)), expected);  // what was read writes the same bytes again
}

TEST(StsdBox, AddNumbersEntriesFromOne) {
  cstsd stsd;
  auto* a = new cjpeg;
  a->_data_reference_index = 7;  // what Add sets wins
  stsd.Add(a); stsd.Add(new chvc1);
  EXPECT_EQ(stsd.Num(), 2u);
  const Bytes bytes = Written(stsd);
  ASSERT_EQ(bytes.size(), 16u + 86u + 86u);
  EXPECT_EQ(Bytes(bytes.begin() + 12, bytes.begin() + 32), H("00000002 00000056 'jpeg' 000000000000 0001"));
  EXPECT_EQ(Bytes(bytes.begin() + 102, bytes.begin() + 118), H("00000056 'hvc1' 000000000000 0002"));
}

TEST(StsdBox, AvcCWithoutSetsAndRangeExtensionBytes) {
  cavcC plain;
  plain._profile = 66;
  EXPECT_EQ(Written(plain), B("avcC", "01 42 00 00 ff e0 00"));
  cavcC high;  // High profile carries chroma format and depths, with the reserved bits set
  high._profile = 100; high._chroma_format = 1; high._luma_bit_depth = high._chroma_bit_depth = 2;
  EXPECT_EQ(Written(high), B("avcC", "01 64 00 00 ff e0 00 fd fa fa 00"));
  EXPECT_EQ(high.statisticsSize(), 19u);
  // Chroma depth keeps its upper bits when read: the reader's mask is not the writer's. Without
  // the four bytes there is nothing to read.
  LogCapture log;
  Tree p(Cat({B("avcC", "01 64 00 28 ff e0 00 fe fa fb 00"), B("avcC", "01 64 00 28 ff e0 00")}));
  auto* a = p.at<cavcC>(0);
  auto* b = p.at<cavcC>(1);
  ASSERT_TRUE(a && b);
  EXPECT_EQ(a->_chroma_format, 2);
  EXPECT_EQ(a->_luma_bit_depth, 2);
  EXPECT_EQ(a->_chroma_bit_depth, 0xf8);
  EXPECT_EQ(b->_chroma_format, 0);
  EXPECT_FALSE(log.Has("|E|"));
}

TEST(StsdBox, ColrNclxCarriesTheFullRangeBit) {
  ccolr on;
  on._colour_type = FCC("nclx");
  EXPECT_EQ(Written(on), B("colr", "'nclx' 0001 0001 0001 80"));
  ccolr off;
  off._colour_type = FCC("nclx");
  off._full_range = 0; off._primaries = off._matrix = 9; off._transfer = 16;
  const Bytes bytes = B("colr", "'nclx' 0009 0010 0009 00");
  EXPECT_EQ(Written(off), bytes);
  EXPECT_EQ(off.statisticsSize(), 19u);
  Tree p(Cat({B("colr", "'nclx' 0001 0001 0001 80"), bytes}));
  ASSERT_TRUE(p.at<ccolr>(0) && p.at<ccolr>(1));
  EXPECT_EQ(p.at<ccolr>(0)->_not_bt709, 0);
  EXPECT_EQ(p.at<ccolr>(1)->_not_bt709, 1);
  EXPECT_EQ(Written(*p.at(1)), bytes);
}

TEST(StsdBox, Mp4aVersionZeroWithEsdsWrittenAndRead) {
  cmp4a mp4a;
  mp4a._channels = 2; mp4a._sample_size = 16; mp4a._compression_id = 0xfffe; mp4a._sample_rate = 48000;
  auto* esds = new cesds;
  FillEsds(*esds);
  mp4a.Add(esds);
  const Bytes expected = Box("mp4a", Cat({H(std::string(kHead) + "0000 0000 00000000 0002 0010 fffe 0000 bb80 0000"),
                                          B("esds", kEsds)}));
  EXPECT_EQ(Written(mp4a), expected);
  EXPECT_EQ(esds->_type_indication, 64);
  EXPECT_EQ(mp4a.StatisticsSize(), expected.size());
  // Read back, the entry writes the same 36 bytes; esds keeps the rates and its own copy of the
  // decoder data (the ids and the type are not read).
  Tree p(expected);
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.shape(), "mp4a(esds)");
  const Bytes again = Written(*p.at(0));
  EXPECT_EQ(Bytes(again.begin(), again.begin() + 36), Bytes(expected.begin(), expected.begin() + 36));
  auto* e = dynamic_cast<cesds*>(p.at(0)->Child());
  EXPECT_EQ(e->_avg_bitrate, 128000u);
  EXPECT_EQ(e->_max_bitrate, 128000u);
  EXPECT_EQ(e->_extra, e->_extra_buf);
  EXPECT_EQ(Bytes(e->_extra, e->_extra + e->_extra_size), Bytes(kAac, kAac + 2));
}

// The QuickTime form for many channels: a version-2 entry and a "wave" with frma, mp4a, esds, chan.
TEST(StsdBox, Mp4aVersionTwoWithWaveWrittenAndRead) {
  cmp4a mp4a;
  mp4a._version = 2; mp4a._channels = 3; mp4a._sample_size = 16; mp4a._compression_id = 0xfffe; mp4a._sample_rate = 1;
  mp4a._word_a = 72; mp4a._word_b = camsi::RateHighWord(48000); mp4a._word_d = 6; mp4a._bits_per_channel = 16;
  mp4a._format_flags = 12; mp4a._bytes_per_audio_packet = 12;
  auto* wave = mp4a.Add(new cwave);
  auto* frma = new cfrma;
  frma->_format = FCC("mp4a");
  wave->Add(frma); wave->Add(new cmp4asub);
  auto* esds = new cesds;
  FillEsds(*esds);
  wave->Add(esds);
  auto* chan = new cchan;
  chan->_channels = 6; wave->Add(chan);
  const Bytes waveBytes = Box("wave", Cat({B("frma", "'mp4a'"), B("mp4a", "00000000"), B("esds", kEsds),
                                           B("chan", "00000000 0093 0006 8*00")}));
  const Bytes expected = Box(
      "mp4a", Cat({H(std::string(kHead) + kAudioV2 + "00000006 7f000000 00000010 0000000c 0000000c 00000000"), waveBytes}));
  EXPECT_EQ(Written(mp4a), expected);
  EXPECT_EQ(mp4a.statisticsSize(), 72u);
  EXPECT_EQ(mp4a.StatisticsSize(), expected.size());
  Tree p(Cat({expected, Box("free")}));
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.shape(), "mp4a(wave) free");  // the wave is a fake box: its children are skipped
  auto* m = p.at<cmp4a>(0);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->_sample_rate, 48000);
  EXPECT_EQ(m->_channels, 6);
}

TEST(StsdBox, SowtWrittenAndReadBesideAnLpcm) {
  csowt sowt;
  sowt._channels = 1; sowt._sample_size = 16; sowt._sample_rate = 8000;
  const Bytes sowtBytes = Box("sowt", H(std::string(kHead) + "0000 0000 00000000 0001 0010 0000 0000 1f40 0000"));
  EXPECT_EQ(Written(sowt), sowtBytes);
  const std::string lpcmFields = std::string(kHead) +
                                 "0002 0000 00000000 0003 0010 fffe 0000 0001 0000 00000048 40e58880 00000000 00000003"
                                 " 7f000000 00000010 0000000c 00000006 00000001";
  // In a description, "sowt" reports frame-sized chunks; "lpcm" is kept only as a fake box.
  const Bytes lpcmBytes = Box("lpcm", Cat({H(lpcmFields), B("chan", "00000000 0093 0004 8*00")}));
  Tree p(Box("stsd", Cat({H("00000000 00000002"), sowtBytes, lpcmBytes})));
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.shape(), "stsd(sowt lpcm)");
  auto* s = dynamic_cast<csowt*>(p.at(0)->Child());
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->_channels, 1);
  EXPECT_EQ(s->_sample_rate, 8000);
  bool frames = false;
  EXPECT_TRUE(p.ap.Get("frame_with_chunk", frames));
  EXPECT_TRUE(frames);
  EXPECT_NE(dynamic_cast<cfakebox*>(s->Next()), nullptr);
  EXPECT_EQ(s->Next()->RealSize(), lpcmBytes.size());
}

TEST(StsdBox, TextEntryKeepsWhatTheFileHoldsButAlwaysWritesHelvetica) {
  Tree p(Box("text", H(std::string(kHead) + "00000020 00000002 0001 0002 0003 0004 0005 0006 0007 0000000000000009"
                                            " 000a 000b 000c 05 'Times'")));
  auto* t = p.at<ctext>(0);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->_display_flags, 0x20u);
  EXPECT_EQ(t->_text_align, 2u);
  EXPECT_EQ(t->_box_words[6], 7);
  EXPECT_EQ(t->_reserved, 9u);
  EXPECT_EQ(t->_fore_words[2], 12);
  EXPECT_STREQ(t->_font_name, "Times");
  const Bytes again = Written(*t);
  EXPECT_EQ(Bytes(again.begin() + 52, again.end()), H("09 'Helvetica'"));
}

TEST(StsdBox, EsdsTypeIndicationAndLongExtra) {
  const struct {
    const char* fcc;
    unsigned rate;
    unsigned type;
  } types[] = {{"mp4a", 0, 64}, {"aac ", 0, 64}, {"mp4v", 0, 32}, {"mpgv", 0, 96},
               {"mpga", 22050, 105}, {"mpga", 32000, 107}, {"h264", 0, 0}};
  for (const auto& t : types) {
    cesds e;
    std::memcpy(&e._fcc, t.fcc, 4);
    e._sample_rate = t.rate; e.getType_indication();
    EXPECT_EQ(e._type_indication, t.type) << t.fcc;
  }
  // 200 bytes of decoder data need two length bytes in three descriptors: 216 = 81 58, 225 = 81 61;
  // the announced size counts them too.
  const Bytes extra(200, 0x5a);
  cesds big;
  big._fcc = FCC("mp4a");
  big._has_es_id = 0; big._extra = extra.data(); big._extra_size = static_cast<uint32_t>(extra.size());
  const Bytes expected = B("esds", "00000000 03 8161 04 8158 40 11 100000 00000000 00000000 05 8148 200*5a 06 01 02");
  EXPECT_EQ(Written(big), expected);
  EXPECT_EQ(big.statisticsSize(), expected.size());
}

// esds is read in the one-byte layout only; whatever it holds, it stays inside its box.
TEST(StsdBox, EsdsReadingOddLayouts) {
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
  Tree p(Cat({Box("avc1", H(std::string(kHead) + "0000 0000 'appl' 00000001 00000002")),  // cut after 32 bytes
              B("avcC", "01 4d 00 1e ff e1 0028 010203"),                               // SPS of 40, 3 there
              Box("text", H(std::string(kHead) + "36*00 c8 'AB'")),                        // font name of 200
              B("colr", "'nclc' 0001 0001 0001 00000008 'free'"),  // bytes like a box inside
              Box("stsd", H("00000000 00000000")), Box("free", Fill(120, 0xee))}));
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.shape(), "avc1 avcC text colr stsd free");
  auto* e = p.at<cavc1>(0);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->_spatial_quality, 2u);
  EXPECT_EQ(e->_width, 0);
  EXPECT_EQ(e->_depth, 0);
  EXPECT_EQ(e->_compressor_name[0], 0);
  EXPECT_TRUE(log.Has("avc1: "));
  EXPECT_EQ(p.at<cavcC>(1)->_sps_size, 3);
  EXPECT_EQ(p.at<cavcC>(1)->_pps_size, 0);
  EXPECT_EQ(p.at<ctext>(2)->_font_name_len, 2);
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
