// The track classes of every codec through one rig: the class a codec word finds, the trak each builds
// for a profile, what each needs of its media, and samples in to bytes and tables out.
#include <gtest/gtest.h>

#include <iterator>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "LogCapture.h"
#include "StblTestUtil.h"
#include "StreamRig.h"
#include "stream/plugin/mp4/common/StreamAac.h"
#include "stream/plugin/mp4/common/StreamH264.h"
#include "stream/plugin/mp4/common/StreamHevc.h"
#include "stream/plugin/mp4/common/StreamJpeg.h"
#include "stream/plugin/mp4/common/StreamPcm.h"
#include "stream/plugin/mp4/common/StreamTxt.h"

using namespace streamtest;
using namespace kiv::plugin::mov;
using boxtest::kit::B;
using stbltest::H;
using stbltest::Table;

namespace {

H264Sets h264Sets;
HevcSets hevcSets;

MediaPtr H264() { return NewH264Media(h264Sets); }
MediaPtr Hevc() { return NewHevcMedia(hevcSets); }
MediaPtr Aac() { return NewAacMedia(); }
MediaPtr Pcm() { return NewPcmMedia(48000, 2, 960); }
MediaPtr Jpeg() { return NewJpegMedia(320, 240); }
MediaPtr Txt() { return MediaPtr(IMedia::New("txt")); }

using Prep = void (*)(videoTags&, IMedia&, IStream&);
void None(videoTags&, IMedia&, IStream&) {}
void Mp4(videoTags& t, IMedia&, IStream&) { t.Mp4Flavour(); }

// The track of that codec word configured on the rig, as the engine makes it; video at 25 frames a second.
IStream* Configured(MuxRig& rig, const char* word, IMedia* media, Prep prep = None) {
  IStream* st = rig.New(word, 2);
  if (!st) return nullptr;
  st->setString("frameRate", "25/1");
  prep(*rig.tags, *media, *st);
  return rig.Config(st, media) ? st : nullptr;
}

// ---- the trak of each codec and profile: its shape, and parts of boxes against hand-laid bytes

struct Part {
  const char* code;
  size_t from;  // 0: the whole box
  Bytes bytes;
};

struct Trak {
  const char* name;
  const char* word;
  MediaPtr (*media)();
  Prep prep;
  const char* shape;
  std::vector<Part> parts;
};
void PrintTo(const Trak& t, std::ostream* os) { *os << t.name; }

const std::string kHead = "000000000000 0001 ";
const char kMovVideoHdlr[] = "00000000 'mhlr' 'vide' 'quor' 00000000 00000000 0e 'Video Handler' 00";
const char kMovEsds[] = "00000000 03 19 0002 1f 04 11 40 15 100000 0001f400 0001f400 05 02 1190 06 01 02";

std::vector<Trak> Traks() {
  const Bytes avcC = Cat({H("00000027 'avcC' 01 64000a ff e1 000a"), h264Sets.sps, H("01 0006"), h264Sets.pps,
                          H("fdf8f800")});  // profile 100 carries its range-extension bytes
  return {
      {"H264Mov", "h264", H264, None,
       "tkhd mdia(mdhd hdlr minf(vmhd hdlr dinf(dref(alis)) stbl(stsd(avc1(avcC)) stts stss stsc stsz stco)))",
       {{"avcC", 0, avcC}, {"mdhd", 20, H("0000ea60 00000000 0000")}, {"avc1", 32, H("0040 0030")}}},
      {"H264Mp4", "h264", H264, Mp4,
       "tkhd mdia(mdhd hdlr minf(vmhd dinf(dref(url )) stbl(stsd(avc1(avcC colr)) stts stss stsc stsz stco)))",
       {{"mdhd", 20, H("0000ea60 00000000 55c4")}, {"url ", 0, H("0000000c 'url ' 00000001")}}},
      // Interlaced: two fields a frame in the apertures and tkhd; version 1 where the engine asks for it.
      {"H264TagsAndInterlace", "h264", H264,
       [](videoTags& t, IMedia& m, IStream& st) {
         t.ios_support_box_add = true, t.video_has_edts = 1, t.stbl_order = 1, t.video_has_color_param = 1;
         t.video_color_param = 0x81;
         m.Set("struct", Fcc("ibbp")), m.Set("interlace", true);
         st._use64 = st._version1 = true;
       },
       "tkhd tapt(clef prof enof) edts(elst) mdia(mdhd hdlr minf(vmhd hdlr dinf(dref(alis)) stbl(stsd(avc1(avcC colr)) "
       "stts ctts sdtp stsc stsz co64 stss)))",
       {{"enof", 0, B("enof", "00000000 0040 0000 0060 0000")}, {"tkhd", 8, H("0100000f")},
        {"tkhd", 96, H("00400000 00600000")}, {"mdhd", 8, H("01")}, {"elst", 8, H("01")}}},
      {"H264AllIntraHasNoSyncTable", "h264", H264, [](videoTags&, IMedia& m, IStream&) { m.Set("struct", Fcc("iiii")); },
       "tkhd mdia(mdhd hdlr minf(vmhd hdlr dinf(dref(alis)) stbl(stsd(avc1(avcC)) stts stsc stsz stco)))", {}},
      // HEVC always has an edit list and a sync table, never sdtp or tapt.
      {"HevcMov", "hevc", Hevc, [](videoTags& t, IMedia&, IStream&) { t.video_has_edts = 0; },
       "tkhd edts(elst) mdia(mdhd hdlr minf(vmhd hdlr dinf(dref(alis)) stbl(stsd(hvc1(hvcC)) stts stss stsc stsz stco)))",
       // Profile, tier and level from the VPS without its emulation prevention bytes; the media's sets.
       {{"hvc1", 32, H("0040 0030")}, {"hdlr", 0, B("hdlr", kMovVideoHdlr)}, {"hvcC", 9, H("01 600000009000000000003c")},
        {"hvcC", 30, Cat({H("03 20 0001 0018"), Bytes(std::begin(HevcSets::kVps), std::end(HevcSets::kVps)), H("21 0001 001f"),
                          Bytes(std::begin(HevcSets::kSps), std::end(HevcSets::kSps)), H("22 0001 0007"),
                          Bytes(std::begin(HevcSets::kPps), std::end(HevcSets::kPps))})}}},
      {"HevcMp4", "hevc", Hevc, Mp4,
       "tkhd edts(elst) mdia(mdhd hdlr minf(vmhd dinf(dref(url )) stbl(stsd(hvc1(hvcC colr)) stts stss stsc stsz stco)))",
       {}},
      {"HevcBFramesIosBoxesStssLast", "hevc", Hevc,
       [](videoTags& t, IMedia& m, IStream&) { t.ios_support_box_add = true, t.stbl_order = 1, m.Set("struct", Fcc("ibbp")); },
       "tkhd edts(elst) mdia(mdhd hdlr minf(vmhd hdlr dinf(dref(alis)) stbl(stsd(hvc1(hvcC)) stts ctts stsc stsz stco stss)))",
       {}},
      {"HevcAllIntraKeepsStss", "hevc", Hevc, [](videoTags&, IMedia& m, IStream&) { m.Set("struct", Fcc("iiii")); },
       "tkhd edts(elst) mdia(mdhd hdlr minf(vmhd hdlr dinf(dref(alis)) stbl(stsd(hvc1(hvcC)) stts stss stsc stsz stco)))",
       {}},
      {"AacMov", "aac", Aac, None,
       "tkhd mdia(mdhd hdlr minf(smhd hdlr dinf(dref(alis)) stbl(stsd(mp4a(esds)) stts stsc stsz stco)))",
       {{"esds", 0, B("esds", kMovEsds)}, {"tkhd", 44, H("0100")}, {"mdhd", 20, H("0000bb80")}}},
      // Many channels stay a plain entry outside QuickTime.
      {"AacMp4SixChannels", "aac", [] { return NewAacMedia(44100, 6); }, Mp4,
       "tkhd mdia(mdhd hdlr minf(smhd dinf(dref(url )) stbl(stsd(mp4a(esds)) stts stsc stsz stco)))",
       {{"mp4a", 0,
         boxtest::Box("mp4a", Cat({H(kHead + "0000 0000 00000000 0006 0010 0000 0000 ac44 0000"),
                                   B("esds", "00000000 03 19 0000 00 04 11 40 15 100000 0001f400 0001f400 05 02 1190 06 01 02")}))},
        {"mdhd", 20, H("0000ac44 00000000 55c4")}}},
      {"AacQuickTimeStereo", "aac", Aac, [](videoTags& t, IMedia&, IStream&) { t.file_type = StreamAac::kQuickTimeType; },
       "tkhd mdia(mdhd hdlr minf(smhd hdlr dinf(dref(alis)) stbl(stsd(mp4a(esds)) stts stsc stsz stco)))",
       {{"mp4a", 16, H("0000 0000 00000000 0002 0010 fffe")}}},
      // From three channels on: version 2 with the rate as a double, then "wave".
      {"AacQuickTimeSixChannels", "aac", [] { return NewAacMedia(48000, 6); },
       [](videoTags& t, IMedia&, IStream&) { t.file_type = StreamAac::kQuickTimeType; },
       "tkhd mdia(mdhd hdlr minf(smhd hdlr dinf(dref(alis)) stbl(stsd(mp4a(wave(frma mp4a esds chan))) stts stsc stsz stco)))",
       {{"mp4a", 16, H("0002 0000 00000000 0003 0010 fffe 0000 0001 0000 00000048 40e77000 00000000 00000006 7f000000"
                       " 00000010 0000000c 0000000c 00000000")},
        {"mp4a", 76, H("'wave'")},
        {"frma", 0, B("frma", "'mp4a'")}, {"chan", 0, B("chan", "00000000 0093 0006 8*00")}}},
      // A rate without a double of its own is written as 11025.
      {"AacQuickTimeOddRate", "aac", [] { return NewAacMedia(32000, 3); },
       [](videoTags& t, IMedia&, IStream&) { t.file_type = StreamAac::kQuickTimeType; },
       "tkhd mdia(mdhd hdlr minf(smhd hdlr dinf(dref(alis)) stbl(stsd(mp4a(wave(frma mp4a esds chan))) stts stsc stsz stco)))",
       {{"mp4a", 40, H("40c58880")}}},
      // A record stands for its frames: one size for every frame.
      {"PcmStereo", "pcm", Pcm, None,
       "tkhd mdia(mdhd hdlr minf(smhd hdlr dinf(dref(alis)) stbl(stsd(sowt) stts stsc stsz stco)))",
       {{"sowt", 0, boxtest::Box("sowt", H(kHead + "0000 0000 00000000 0002 0010 0000 0000 bb80 0000"))},
        {"stsz", 0, B("stsz", "00000000 00000004 00000000")}}},
      {"PcmThreeChannels", "pcm", [] { return NewPcmMedia(48000, 3, 960); }, None,
       "tkhd mdia(mdhd hdlr minf(smhd hdlr dinf(dref(alis)) stbl(stsd(lpcm(chan)) stts stsc stsz stco)))",
       {{"lpcm", 16, H("0002 0000 00000000 0003 0010 fffe 0000 0001 0000 00000048 40e77000 00000000 00000003 7f000000"
                       " 00000010 0000000c 00000006 00000001")},
        {"stsz", 0, B("stsz", "00000000 00000006 00000000")}}},
      {"Jpeg", "mjpg", Jpeg, None,
       "tkhd edts(elst) mdia(mdhd hdlr minf(vmhd hdlr dinf(dref(alis)) stbl(stsd(jpeg) stts stss stsc stsz stco)))",
       {{"tkhd", 84, H("01400000 00f00000")}, {"jpeg", 24, H("00000200 00000200 0140 00f0")},
        {"hdlr", 0, B("hdlr", kMovVideoHdlr)}}},
      {"Txt", "txt", Txt, None,
       "tkhd mdia(mdhd hdlr minf(gmhd(gmin) dinf(dref(alis)) stbl(stsd(text) stts stsc stsz stco)))",
       {{"hdlr", 16, H("'text'")}, {"tkhd", 84, H("00000000 00000000")}}},
  };
}

class StreamTrak : public ::testing::TestWithParam<Trak> {};

TEST_P(StreamTrak, ShapeAndFields) {
  const Trak& c = GetParam();
  MuxRig rig;
  MediaPtr media = c.media();
  IStream* st = Configured(rig, c.word, media.get(), c.prep);
  ASSERT_NE(st, nullptr);
  EXPECT_EQ(boxtest::kit::Shape(*st->Track()), c.shape);
  for (const Part& p : c.parts) {
    const Bytes b = WrittenBox(st->Track(), p.code);
    const Bytes got = p.from && p.from + p.bytes.size() <= b.size()
                          ? Bytes(b.begin() + static_cast<long>(p.from), b.begin() + static_cast<long>(p.from + p.bytes.size()))
                          : b;
    EXPECT_EQ(got, p.bytes) << p.code << " from " << p.from;
  }
}
INSTANTIATE_TEST_SUITE_P(Codecs, StreamTrak, ::testing::ValuesIn(Traks()),
                         [](const ::testing::TestParamInfo<Trak>& i) { return std::string(i.param.name); });

// The colour rules of the video tracks, the same for each: the mp4 default, the parameter's two senses
// of the range bit, and a custom triple.
TEST(StreamTrack, ColourBoxOfEveryVideoTrack) {
  const struct {
    bool mp4;
    unsigned param;
    uint64_t custom;
    Bytes colr;
  } cases[] = {
      {true, 0, 0, B("colr", "'nclx' 0001 0001 0001 80")},
      {false, 0x81, 0, B("colr", "'nclc' 0006 0001 0006")},
      {true, 0x80, (0x05ull << 32) | (0x10ull << 16) | 0x09, B("colr", "'nclx' 0009 0010 0005 00")},
  };
  const std::pair<const char*, MediaPtr (*)()> codecs[] = {{"h264", H264}, {"hevc", Hevc}, {"jpeg", Jpeg}};
  for (const auto& codec : codecs) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(codec.first) + " " + std::to_string(c.param));
      MuxRig rig;
      if (c.mp4) rig.tags->Mp4Flavour();
      rig.tags->video_has_color_param = 1;
      rig.tags->video_color_param = c.param;
      rig.tags->video_cus_color_param = c.custom;
      MediaPtr media = codec.second();
      IStream* st = Configured(rig, codec.first, media.get());
      ASSERT_NE(st, nullptr);
      EXPECT_EQ(WrittenBox(st->Track(), "colr"), c.colr);
    }
  }
}

TEST(StreamTrack, CodecWordsFindTheirClasses) {
  const std::pair<const char*, const char*> cases[] = {
      {"h264", "h264"}, {"hevc", "hevc"}, {"h265", "hevc"}, {"hvc1", "hevc"}, {"aac", "aac"}, {"pcm", "pcm"},
      {"sowt", "pcm"},  {"s16le", "pcm"}, {"jpeg", "jpeg"}, {"mjpg", "jpeg"}, {"jpg", "jpeg"}, {"txt", "txt"},
      {"text", ""},     {"lpcm", ""}};
  for (const auto& c : cases) {
    MuxRig r;
    IStream* st = r.New(c.first);
    const char* cls = dynamic_cast<StreamH264*>(st)   ? "h264"
                      : dynamic_cast<StreamHevc*>(st) ? "hevc"
                      : dynamic_cast<StreamAac*>(st)  ? "aac"
                      : dynamic_cast<StreamPcm*>(st)  ? "pcm"
                      : dynamic_cast<StreamJpeg*>(st) ? "jpeg"
                      : dynamic_cast<StreamTxt*>(st)  ? "txt"
                      : st                            ? "other"
                                                      : "";
    EXPECT_STREQ(cls, c.second) << c.first;
  }
}

TEST(StreamTrack, EachMissingAttributeFailsTheConfiguration) {
  const struct {
    const char* word;
    MediaPtr (*media)();
    std::vector<const char*> keys;
  } cases[] = {
      {"h264", H264, {"width", "height", "interlace", "profile", "level", "pps", "ipps", "sps", "isps",
                      "chroma_format_idc", "bit_depth_luma_minus8", "bit_depth_chroma_minus8"}},
      {"hevc", Hevc, {"width", "height", "interlace", "profile", "level", "pps", "ipps", "sps", "isps", "vps", "ivps"}},
      {"aac", Aac, {"rate", "channel", "width", "depth", "bitrate"}},
      {"pcm", Pcm, {"rate", "channel", "width", "depth", "samples"}},
      {"jpeg", Jpeg, {"width", "height", "interlace"}},
  };
  LogCapture quiet(kiv::dbg::E);
  for (const auto& c : cases) {
    MediaPtr full = c.media();
    for (const char* key : c.keys) {
      MuxRig rig;
      MediaPtr media = WithoutAttr(full.get(), c.word, key);
      EXPECT_EQ(Configured(rig, c.word, media.get()), nullptr) << c.word << " without " << key;
    }
    MuxRig rig;
    EXPECT_NE(Configured(rig, c.word, full.get()), nullptr) << c.word;
  }
  MuxRig rig;  // a rate the plain PCM entry cannot hold
  MediaPtr pcm96 = NewPcmMedia(96000, 2, 1920);
  EXPECT_EQ(Configured(rig, "pcm", pcm96.get()), nullptr);
}

// ---- samples in, the bytes behind the mdat header and the tables out

struct Sample {
  Bytes data;
  long long ms, durMs;
  bool key;
};

struct Feed {
  const char* name;
  const char* word;
  MediaPtr (*media)();
  Prep prep;
  std::vector<Sample> samples;
  Bytes mdat;
  Bytes stts, stsc, stco;
};
void PrintTo(const Feed& f, std::ostream* os) { *os << f.name; }

std::vector<Sample> Samples(int n, Bytes (*make)(int), long long durMs) {
  std::vector<Sample> out;
  for (int i = 0; i < n; ++i) out.push_back({make(i), i * durMs, durMs, i == 0});
  return out;
}
Bytes Joined(const std::vector<Sample>& s, size_t n, Bytes (*stored)(const Bytes&)) {
  Bytes out;
  for (size_t i = 0; i < n; ++i) {
    const Bytes b = stored(s[i].data);
    out.insert(out.end(), b.begin(), b.end());
  }
  return out;
}
Bytes Same(const Bytes& b) { return b; }
// HEVC keeps one length in front of the sample, for the start code it drops.
Bytes OneLength(const Bytes& b) {
  const uint32_t n = static_cast<uint32_t>(b.size() - 4);
  Bytes out = b;  // the length over the start code
  for (int i = 0; i < 4; ++i) out[static_cast<size_t>(i)] = static_cast<unsigned char>(n >> (24 - 8 * i));
  return out;
}

std::vector<Feed> Feeds() {
  auto groupsOfThree = [](videoTags& t, IMedia&, IStream&) { t.videosampleperchunk = 3, t.audio_chunk_first = 0; };
  std::vector<Feed> f;
  // Groups of three: a group's bytes go out with its third sample, the short rest is dropped at the end.
  auto h264 = Samples(7, [](int) { return Nal(0x41, 15); }, 40);
  f.push_back({"H264GroupsOfThree", "h264", H264, groupsOfThree, h264, Joined(h264, 6, LengthPrefixed),
               Table("stts", {1, 6, 2400}), Table("stsc", {1, 1, 3, 1}), Table("stco", {2, 8, 68})});
  auto hevc = Samples(7, [](int i) { return HNal(i ? 1 : 19, 10 + static_cast<size_t>(i)); }, 40);
  f.push_back({"HevcGroupsOfThree", "hevc", Hevc, groupsOfThree, hevc, Joined(hevc, 6, OneLength),
               Table("stts", {1, 6, 2400}), Table("stsc", {1, 1, 3, 1}), Table("stco", {2, 8, 59})});
  auto jpeg = Samples(3, [](int i) { return Counting(static_cast<size_t>(i) * 100, 100); }, 40);
  f.push_back({"JpegSampleAChunk", "jpeg", Jpeg, None, jpeg, Counting(0, 300), Table("stts", {1, 3, 2400}),
               Table("stsc", {1, 1, 1, 1}), Table("stco", {3, 8, 108, 208})});
  // Chunks of 2048 samples hold three frames of 1024, then two: the chunks end on whole frames.
  auto aac = Samples(9, [](int i) { return Bytes(10, static_cast<unsigned char>(i)); }, 21);
  f.push_back({"AacChunksOf2048Samples", "aac", Aac,
               [](videoTags& t, IMedia&, IStream&) { t.audiosampleperchunk = 2048, t.audio_chunk_first = 1; }, aac,
               Joined(aac, 9, Same), Table("stts", {1, 9, 1024}), Table("stsc", {2, 1, 3, 1, 2, 2, 1}),
               Table("stco", {4, 8, 38, 58, 78})});
  // A PCM packet is a chunk of its frames; a packet with a broken frame writes every byte and counts
  // whole frames.
  std::vector<Sample> pcm = {{Counting(0, 640), 0, 20, true}, {Counting(640, 640), 20, 20, true},
                             {Counting(1280, 643), 40, 20, true}};
  f.push_back({"PcmPacketsAsChunks", "pcm", [] { return NewPcmMedia(8000, 2, 160); }, None, pcm, Counting(0, 1923),
               Table("stts", {1, 480, 1}), Table("stsc", {1, 1, 160, 1}), Table("stco", {3, 8, 648, 1288})});
  // Text samples with their length prefix, stamped at their end, each its own chunk, durations as told.
  std::vector<Sample> txt = {{H("0000"), 500, 500, true}, {H("0002 'hi'"), 1000, 500, true},
                             {H("0001 '!'"), 3000, 2000, true}};
  f.push_back({"TxtSamplesAsTheyCome", "txt", Txt, None, txt, Joined(txt, 3, Same), Table("stts", {2, 2, 30000, 1, 120000}),
               Table("stsc", {1, 1, 1, 1}), Table("stco", {3, 8, 10, 14})});
  // What each codec stores of a sample, a sample a chunk.
  auto alone = [](videoTags& t, IMedia&, IStream&) { t.audio_chunk_first = 1; };
  auto row = [&f](const char* name, const char* word, MediaPtr (*media)(), Prep prep,
                  std::vector<std::pair<Bytes, Bytes>> in, uint32_t duration) {  // sample, stored
    Feed r{name, word, media, prep, {}, {}, Table("stts", {1, static_cast<uint32_t>(in.size()), duration}),
           Table("stsc", {1, 1, 1, 1}), {}};
    std::vector<uint32_t> stco = {static_cast<uint32_t>(in.size())};
    for (size_t i = 0; i < in.size(); ++i) {
      r.samples.push_back({in[i].first, static_cast<long long>(i) * 40, 40, i == 0});
      stco.push_back(static_cast<uint32_t>(8 + r.mdat.size()));
      r.mdat.insert(r.mdat.end(), in[i].second.begin(), in[i].second.end());
    }
    Bytes payload(4, 0);
    for (uint32_t w : stco) boxtest::Be32(payload, w);
    r.stco = boxtest::Box("stco", payload);
    f.push_back(r);
  };
  // Start codes become lengths: a unit of another type stays inside the unit before it, and so does a
  // second slice; a head too long for the track's buffer; no slice at all.
  const Bytes full = Cat({Nal(0x09, 1, 0xf0), Nal(0x67, 9), Nal(0x68, 5), Nal(0x06, 12), Nal(0x65, 30)});
  const Bytes bigHead = Cat({Nal(0x06, 300), Nal(0x25, 20)}), noSlice = Cat({Nal(0x67, 9), Nal(0x68, 5)});
  row("H264StartCodesBecomeLengths", "h264", H264, None,
      {{full, LengthPrefixed(full)},
       {Cat({Nal(0x67, 9), Nal(0x0c, 3), Nal(0x65, 8), Nal(0x01, 6)}),
        Cat({H("00000012 67"), Bytes(9, 0xAB), Nal(0x0c, 3), H("00000014 65"), Bytes(8, 0xAB), Nal(0x01, 6)})},
       {bigHead, LengthPrefixed(bigHead)},
       {noSlice, noSlice}},
      2400);
  // HEVC cuts the sets in front of an IDR slice, keeps an SEI with its slice, and keeps what it does not
  // look for whole: one length over the first start code.
  const Bytes sets = Cat({HNal(32, 8), HNal(33, 12), HNal(34, 4)}), idr = HNal(19, 30), odd = HNal(20, 11);
  const Bytes seiTrail = Cat({HNal(39, 6), HNal(1, 17)});
  row("HevcSetsCutAndOneLength", "hevc", Hevc, None,
      {{Cat({sets, idr}), OneLength(idr)}, {seiTrail, OneLength(seiTrail)}, {Cat({sets, odd}), OneLength(Cat({sets, odd}))}},
      2400);
  // ADTS headers, with and without CRC, stay out of the file.
  row("AacAdtsHeadersNotWritten", "aac", [] { return NewAacMedia(48000, 2, 7); }, alone,
      {{Cat({Bytes(7, 0xFF), Bytes(100, 1)}), Bytes(100, 1)}, {Cat({Bytes(7, 0xFF), Bytes(101, 2)}), Bytes(101, 2)}}, 1024);
  row("AacAdtsWithCrcNotWritten", "aac", [] { return NewAacMedia(48000, 2, 9); }, alone,
      {{Cat({Bytes(9, 0xFF), Bytes(100, 1)}), Bytes(100, 1)}, {Cat({Bytes(9, 0xFF), Bytes(101, 2)}), Bytes(101, 2)}}, 1024);
  return f;
}

class StreamFeed : public ::testing::TestWithParam<Feed> {};

TEST_P(StreamFeed, BytesAndTables) {
  const Feed& c = GetParam();
  MuxRig rig;
  MediaPtr media = c.media();
  IStream* st = Configured(rig, c.word, media.get(), c.prep);
  ASSERT_NE(st, nullptr);
  for (const Sample& s : c.samples) {
    PacketPtr p = MakePacket(media.get(), s.data, s.ms * kMs, s.durMs * kMs, s.key);
    ASSERT_TRUE(st->AddPacket(*p, rig.io, 0));
  }
  ASSERT_TRUE(st->CleanFifoData(rig.io, 0));
  EXPECT_EQ(rig.At(8, static_cast<size_t>(rig.io.Size()) - 8), c.mdat);
  EXPECT_EQ(rig.mdat->RealSize(), static_cast<unsigned long long>(rig.io.Size())) << "the mdat grows with its payload";
  EXPECT_EQ(WrittenBox(st->Track(), "stts"), c.stts);
  EXPECT_EQ(WrittenBox(st->Track(), "stsc"), c.stsc);
  EXPECT_EQ(WrittenBox(st->Track(), "stco"), c.stco);
}
INSTANTIATE_TEST_SUITE_P(Codecs, StreamFeed, ::testing::ValuesIn(Feeds()),
                         [](const ::testing::TestParamInfo<Feed>& i) { return std::string(i.param.name); });

// PCM with a chunk size: chunks are cut from the byte stream whatever the packets' sizes, and a
// following track holds them until the end.
TEST(StreamPcm, ChunksAreCutFromTheByteStreamAtAFixedFrameCount) {
  const struct {
    bool leads;
    size_t packet, packets, chunks;  // whole chunks of 1920 bytes in the file at the end
  } cases[] = {{true, 700, 20, 7}, {true, 5000, 4, 10}, {false, 1900, 60, 59}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.packet) + (c.leads ? " leading" : " following"));
    MuxRig r;
    r.tags->audiosampleperchunk = 480;  // 1920 bytes of stereo
    r.tags->audio_chunk_first = c.leads;
    MediaPtr m = NewPcmMedia(48000, 2, 175);
    IStream* st = Configured(r, "pcm", m.get());
    ASSERT_NE(st, nullptr);
    for (size_t i = 0; i < c.packets; ++i) {
      PacketPtr p = MakePacket(m.get(), Counting(i * c.packet, c.packet), 0, 10 * kMs, true);
      ASSERT_TRUE(st->AddPacket(*p, r.io, 0));
    }
    ASSERT_TRUE(st->CleanFifoData(r.io, 0));
    ASSERT_EQ(r.io.Size(), static_cast<long long>(8 + c.chunks * 1920));
    EXPECT_EQ(r.At(8, c.chunks * 1920), Counting(0, c.chunks * 1920));
    const std::vector<ChunkParam>& list = *st->MuxChunkList();
    ASSERT_EQ(list.size(), c.chunks);
    for (size_t k = 0; k < list.size(); ++k)
      EXPECT_EQ(std::make_tuple(list[k].offset, list[k].size, list[k].count), std::make_tuple(8 + k * 1920, 480u, 480u));
  }
}

}  // namespace
