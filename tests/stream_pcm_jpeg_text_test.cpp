// The PCM, JPEG and text tracks on the muxing side: which class a codec word finds, the trees they
// build, how their records count samples, how PCM chunks are cut from a byte fifo and JPEG samples
// grouped, and that the bytes reach the file unchanged and in order.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "StblTestUtil.h"
#include "StreamRig.h"
#include "stream/plugin/mp4/common/StreamJpeg.h"
#include "stream/plugin/mp4/common/StreamPcm.h"
#include "stream/plugin/mp4/common/StreamTxt.h"
#include "stream/plugin/mp4/common/Stsd.h"

using namespace streamtest;
using namespace kiv::plugin::mov;
using stbltest::Fields;
using stbltest::Rec;
using stbltest::Table;

namespace {

MediaPtr pcmMedia(int rate, int channels, int samples) {
  MediaPtr m(IMedia::New("pcm"));
  m->Set("rate", rate);
  m->Set("channel", channels);
  m->Set("width", 2);
  m->Set("depth", 16);
  m->Set("samples", samples);
  return m;
}
MediaPtr jpegMedia(int width, int height) {
  MediaPtr m(IMedia::New("jpeg"));
  m->Set("width", width);
  m->Set("height", height);
  m->Set("interlace", false);
  return m;
}
// Bytes 0, 1, 2, ... from `from` on: a stream whose every byte tells where it stood.
Bytes counting(size_t from, size_t n) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<unsigned char>((from + i) * 7 + (from + i) / 251);
  return b;
}

}  // namespace

TEST(StreamPcmJpegTxt, CodecWordsFindTheirClasses) {
  struct Case {
    const char* word;
    const char* cls;  // "" for none
  } cases[] = {{"pcm", "pcm"}, {"sowt", "pcm"}, {"s16le", "pcm"}, {"jpeg", "jpeg"}, {"mjpg", "jpeg"},
               {"jpg", "jpeg"}, {"txt", "txt"}, {"text", ""}, {"lpcm", ""}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.word);
    MuxRig r;
    IStream* st = r.New(c.word);
    const std::string cls = dynamic_cast<StreamPcm*>(st) ? "pcm" : dynamic_cast<StreamJpeg*>(st) ? "jpeg"
                            : dynamic_cast<StreamTxt*>(st) ? "txt" : st ? "other" : "";
    EXPECT_EQ(cls, c.cls);
  }
}

TEST(StreamPcm, TreeAndSampleEntryByChannelCount) {
  for (int channels : {1, 2, 3}) {
    SCOPED_TRACE(channels);
    MuxRig r;
    MediaPtr m = pcmMedia(48000, channels, 960);
    auto* st = dynamic_cast<StreamPcm*>(r.New("pcm", 2));
    ASSERT_NE(st, nullptr);
    ASSERT_TRUE(r.Config(st, m.get()));
    IBox* trak = st->Track();
    EXPECT_EQ(ChildCodes(trak), "tkhd,mdia");
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "stbl")), "stsd,stts,stsc,stsz,stco");
    // A record stands for `count` frames: the counting stts, and one size for every frame.
    EXPECT_EQ(FindBox<cxstts>(trak, "stts"), nullptr);
    EXPECT_NE(FindBox<cstts>(trak, "stts"), nullptr);
    EXPECT_EQ(FindBox<cstsz>(trak, "stsz")->_size, 2u * static_cast<unsigned>(channels));
    EXPECT_EQ(st->_audSampSize, 2u * static_cast<unsigned>(channels));
    EXPECT_EQ(st->TimeScale(), 48000);
    EXPECT_EQ(FindBox<cmdhd>(trak, "mdhd")->_timescale, 48000u);
    EXPECT_EQ(FindBox<chdlr>(trak, "hdlr")->_component_subtype, Fcc("soun"));
    EXPECT_EQ(FindBox<ctkhd>(trak, "tkhd")->_volume, 256);
    if (channels < 3) {
      auto* sowt = FindBox<csowt>(trak, "sowt");
      ASSERT_NE(sowt, nullptr);
      EXPECT_EQ(std::make_tuple(sowt->_channels, sowt->_sample_size, sowt->_sample_rate, sowt->_packet_size),
                std::make_tuple(channels, 16, 48000, 0));
    } else {
      auto* lpcm = FindBox<clpcm>(trak, "lpcm");
      ASSERT_NE(lpcm, nullptr);
      EXPECT_EQ(ChildCodes(lpcm), "chan");
      EXPECT_EQ(std::make_tuple(lpcm->_version, lpcm->_word_b, lpcm->_word_d, lpcm->_bytes_per_audio_packet),
                std::make_tuple(2, camsi::RateHighWord(48000), 3u, 6u));
      EXPECT_EQ(FindBox<cchan>(trak, "chan")->_channels, 3);
    }
  }
}

TEST(StreamPcm, EveryMediaAttributeIsNeeded) {
  MediaPtr full = pcmMedia(16000, 1, 320);
  for (const char* key : {"rate", "channel", "width", "depth", "samples"}) {
    SCOPED_TRACE(key);
    MuxRig r;
    MediaPtr m = WithoutAttr(full.get(), "pcm", key);
    IStream* st = r.New("pcm");
    ASSERT_NE(st, nullptr);
    EXPECT_FALSE(r.Config(st, m.get()));
  }
  MuxRig r;  // a rate the plain entry cannot hold
  MediaPtr m = pcmMedia(96000, 2, 1920);
  EXPECT_FALSE(r.Config(r.New("pcm"), m.get()));
}

TEST(StreamPcm, APacketIsAChunkOfItsFramesWithoutAFifo) {
  MuxRig r;
  MediaPtr m = pcmMedia(8000, 2, 160);
  auto* st = dynamic_cast<StreamPcm*>(r.New("pcm"));
  ASSERT_TRUE(r.Config(st, m.get()));
  // 160 frames, 160 frames, then a packet of 10 frames and 3 bytes: the bytes all go to the file,
  // the count holds whole frames.
  const size_t sizes[] = {640, 640, 43};
  size_t at = 0;
  const unsigned long long start = r.io.Size();
  for (size_t n : sizes) {
    PacketPtr p = MakePacket(m.get(), counting(at, n), static_cast<long long>(at) * kMs, 20 * kMs, true);
    ASSERT_TRUE(st->AddPacket(*p, r.io, 0));
    at += n;
  }
  EXPECT_EQ(r.At(start, at), counting(0, at));
  EXPECT_EQ(Fields(*st->MuxChunkList()),
            Fields({Rec(start, 160, 1, 160), Rec(start + 640, 160, 1, 160), Rec(start + 1280, 10, 1, 10)}));
  EXPECT_EQ(st->Duration(), 60);
  // One run of 330 frames of one unit each.
  EXPECT_EQ(WrittenBox(st->Track(), "stts"), Table("stts", {1, 330, 1}));
}

TEST(StreamPcm, ChunksAreCutFromTheByteStreamAtAFixedFrameCount) {
  struct Case {
    const char* name;
    bool leads;             // audio_chunk_first: the track writes without a leader
    size_t packet;          // bytes a packet
    size_t packets;
    size_t chunksAtTheEnd;  // whole chunks in the file after CleanFifoData
  } cases[] = {
      {"leading, packets smaller than a chunk", true, 700, 20, 7},
      {"leading, packets larger than a chunk", true, 5000, 4, 10},
      {"following with no leader: all held, then written", false, 700, 20, 7},
      {"following, far more than two chunks held", false, 1900, 60, 59},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    MuxRig r;
    r.tags->audiosampleperchunk = 480;  // 1920 bytes of stereo
    r.tags->audio_chunk_first = c.leads;
    MediaPtr m = pcmMedia(48000, 2, 175);
    auto* st = dynamic_cast<StreamPcm*>(r.New("pcm"));
    ASSERT_TRUE(r.Config(st, m.get()));
    ASSERT_EQ(st->_chunkBytes, 1920u);
    const unsigned long long start = r.io.Size();
    for (size_t i = 0; i < c.packets; ++i) {
      PacketPtr p = MakePacket(m.get(), counting(i * c.packet, c.packet), 0, 10 * kMs, true);
      ASSERT_TRUE(st->AddPacket(*p, r.io, 0));
    }
    ASSERT_TRUE(st->CleanFifoData(r.io, 0));
    const size_t written = c.chunksAtTheEnd * 1920;
    ASSERT_EQ(r.io.Size(), start + written);
    EXPECT_EQ(r.At(start, written), counting(0, written));
    const std::vector<ChunkParam>& list = *st->MuxChunkList();
    ASSERT_EQ(list.size(), c.chunksAtTheEnd);
    for (size_t k = 0; k < list.size(); ++k) {
      EXPECT_EQ(Fields({list[k]}), Fields({Rec(start + k * 1920, 480, 1, 480)})) << k;
    }
  }
}

TEST(StreamJpeg, TreeFieldsAndWhatItNeeds) {
  for (bool colr : {false, true}) {
    MuxRig r;
    r.tags->video_has_color_param = colr;
    MediaPtr m = jpegMedia(320, 240);
    auto* st = dynamic_cast<StreamJpeg*>(r.New("mjpg", 1));
    ASSERT_NE(st, nullptr);
    st->_frameRate = kiv::base::Fraction(25, 1);
    ASSERT_TRUE(r.Config(st, m.get()));
    IBox* trak = st->Track();
    EXPECT_EQ(ChildCodes(trak), "tkhd,edts,mdia");
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "stbl")), "stsd,stts,stss,stsc,stsz,stco");
    EXPECT_EQ(FindBox<cxstts>(trak, "stts"), nullptr);
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "jpeg")), colr ? "colr" : "");
    auto* tkhd = FindBox<ctkhd>(trak, "tkhd");
    EXPECT_EQ(std::make_tuple(tkhd->Flags(), tkhd->_width, tkhd->_height), std::make_tuple(15u, 320, 240));
    auto* jpeg = FindBox<cjpeg>(trak, "jpeg");
    EXPECT_EQ(std::make_tuple(jpeg->_width, jpeg->_height, jpeg->_temporal_quality, jpeg->_spatial_quality, jpeg->_depth),
              std::make_tuple(320, 240, 512u, 512u, 24));
    auto* hdlr = FindBox<chdlr>(trak, "hdlr");
    EXPECT_EQ(std::make_tuple(hdlr->_component_type, hdlr->_component_subtype), std::make_tuple(Fcc("mhlr"), Fcc("vide")));
  }
  MediaPtr full = jpegMedia(64, 48);
  for (const char* key : {"width", "height", "interlace"}) {
    SCOPED_TRACE(key);
    MuxRig r;
    MediaPtr m = WithoutAttr(full.get(), "jpeg", key);
    EXPECT_FALSE(r.Config(r.New("jpeg"), m.get()));
  }
}

TEST(StreamJpeg, SamplesAreKeyAndGroupedIntoChunks) {
  struct Case {
    unsigned perChunk;
    size_t pictures, written;
  } cases[] = {{1, 7, 7}, {3, 7, 6}, {4, 8, 8}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.perChunk);
    MuxRig r;
    r.tags->videosampleperchunk = c.perChunk;
    MediaPtr m = jpegMedia(64, 48);
    auto* st = dynamic_cast<StreamJpeg*>(r.New("jpeg"));
    st->_frameRate = kiv::base::Fraction(25, 1);
    ASSERT_TRUE(r.Config(st, m.get()));
    const unsigned long long start = r.io.Size();
    for (size_t i = 0; i < c.pictures; ++i) {
      PacketPtr p = MakePacket(m.get(), counting(i * 100, 100), static_cast<long long>(i) * 40 * kMs, 40 * kMs, true);
      ASSERT_TRUE(st->AddPacket(*p, r.io, 1u << 30));
    }
    ASSERT_TRUE(st->CleanFifoData(r.io, 0));
    ASSERT_EQ(r.io.Size(), start + c.written * 100);
    EXPECT_EQ(r.At(start, c.written * 100), counting(0, c.written * 100));
    // Each record one key sample; the chunk's position in the last record of its group only.
    std::vector<ChunkParam> want;
    for (size_t i = 0; i < c.written; ++i) {
      const bool last = (i + 1) % c.perChunk == 0;
      const size_t first = i - i % c.perChunk;
      want.push_back(Rec(last ? start + first * 100 : 0, 100, 2400, 1, 1));
    }
    EXPECT_EQ(Fields(*st->MuxChunkList()), Fields(want));
  }
}

TEST(StreamTxt, TreeAndSamplesStoredAsTheyCome) {
  for (bool rate : {false, true}) {
    SCOPED_TRACE(rate);
    MuxRig r;
    MediaPtr m(IMedia::New("txt"));
    if (rate) m->SetWithType("framerate", kiv::base::Fraction(2, 1));
    auto* st = dynamic_cast<StreamTxt*>(r.New("txt", 3));
    ASSERT_NE(st, nullptr);
    ASSERT_TRUE(r.Config(st, m.get()));
    EXPECT_EQ(st->_frameRate.Num(), rate ? 2 : 0);
    IBox* trak = st->Track();
    EXPECT_EQ(ChildCodes(trak), "tkhd,mdia");
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "minf")), "gmhd,dinf,stbl");
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "gmhd")), "gmin");
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "stbl")), "stsd,stts,stsc,stsz,stco");
    EXPECT_NE(FindBox<ctext>(trak, "text"), nullptr);
    EXPECT_EQ(FindBox<chdlr>(trak, "hdlr")->_component_subtype, Fcc("text"));
    auto* tkhd = FindBox<ctkhd>(trak, "tkhd");
    EXPECT_EQ(std::make_tuple(tkhd->_width, tkhd->_height, tkhd->_track_id), std::make_tuple(0, 0, 3u));

    // Samples with their length prefix, stamped at their end: each its own chunk, durations as told.
    const unsigned long long start = r.io.Size();
    const Bytes samples[] = {{0, 0}, {0, 2, 'h', 'i'}, {0, 1, '!'}};
    const long long ends[] = {500, 1000, 3000}, lengths[] = {500, 500, 2000};
    unsigned long long at = start;
    std::vector<ChunkParam> want;
    for (int i = 0; i < 3; ++i) {
      PacketPtr p = MakePacket(m.get(), samples[i], ends[i] * kMs, lengths[i] * kMs, true);
      ASSERT_TRUE(st->AddPacket(*p, r.io, 0));
      want.push_back(Rec(at, static_cast<uint32_t>(samples[i].size()), static_cast<uint32_t>(lengths[i] * 60), 1, 1));
      at += samples[i].size();
    }
    EXPECT_EQ(r.At(start, at - start), Bytes({0, 0, 0, 2, 'h', 'i', 0, 1, '!'}));
    EXPECT_EQ(Fields(*st->MuxChunkList()), Fields(want));
    EXPECT_EQ(st->Duration(), 3000);
  }
}
