// The AAC track: its trak tree and the two forms of its sample entry, ADTS headers cut off on the way
// to the file, chunks planned in samples, and the end of a recording.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "LogCapture.h"
#include "StblTestUtil.h"
#include "StreamRig.h"
#include "stream/plugin/mp4/common/StreamAac.h"
#include "stream/plugin/mp4/common/Stsd.h"

using namespace streamtest;
using namespace kiv::plugin::mov;
using stbltest::Fields;
using stbltest::Rec;
using stbltest::H;
using stbltest::Table;

namespace {

struct AacRig : MuxRig {
  MediaPtr media;
  StreamAac* st = nullptr;
  long long pts = 0;

  explicit AacRig(int rate = 48000, int channels = 2, int adtslen = 0) : media(NewAacMedia(rate, channels, adtslen)) {}
  bool Make(unsigned samplesPerChunk = 1, bool audioLeads = true) {
    tags->audiosampleperchunk = samplesPerChunk;
    tags->audio_chunk_first = audioLeads;
    st = dynamic_cast<StreamAac*>(New("aac", 2));
    return st && Config(st, media.get());
  }
  // A frame of n bytes of v, with the leading track's duration.
  bool Add(size_t n, unsigned char v, unsigned long long leader = 1u << 30) {
    PacketPtr p = MakePacket(media.get(), Bytes(n, v), pts, 21 * kMs, true);
    pts += 21 * kMs;
    return st->AddPacket(*p, io, leader);
  }
  std::vector<ChunkParam>& List() { return *st->MuxChunkList(); }
};

}  // namespace

TEST(StreamAac, TrakTreeOfBothProfilesAndBothSampleEntryForms) {
  for (bool mp4 : {false, true}) {
    SCOPED_TRACE(mp4 ? "mp4" : "mov");
    const unsigned rate = mp4 ? 44100 : 48000;
    AacRig r(static_cast<int>(rate), mp4 ? 6 : 2);  // many channels stay plain outside QuickTime
    if (mp4) r.tags->Mp4Flavour();
    ASSERT_TRUE(r.Make());
    IBox* trak = r.st->Track();
    EXPECT_EQ(ChildCodes(trak), "tkhd,mdia");
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "minf")), mp4 ? "smhd,dinf,stbl" : "smhd,hdlr,dinf,stbl");
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "dref")), mp4 ? "url " : "alis");
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "stbl")), "stsd,stts,stsc,stsz,stco");
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "mp4a")), "esds");
    EXPECT_NE(FindBox<cxstts>(trak, "stts"), nullptr);
    auto* tkhd = FindBox<ctkhd>(trak, "tkhd");
    EXPECT_EQ(std::make_tuple(tkhd->Flags(), tkhd->_volume, tkhd->_track_id), std::make_tuple(mp4 ? 1u : 15u, 256, 2u));
    auto* mdhd = FindBox<cmdhd>(trak, "mdhd");
    EXPECT_EQ(std::make_tuple(mdhd->_timescale, mdhd->_language), std::make_tuple(rate, mp4 ? 21956 : 0));
    EXPECT_EQ(r.st->TimeScale(), rate);
    auto* hdlr = FindBox<chdlr>(trak, "hdlr");
    EXPECT_EQ(std::make_tuple(hdlr->_component_type, hdlr->_component_subtype, hdlr->_component_manufacturer),
              std::make_tuple(mp4 ? 0u : Fcc("mhlr"), Fcc("soun"), mp4 ? 0u : Fcc("quor")));
    EXPECT_EQ(Name(hdlr), mp4 ? std::string(1, '\0') : std::string("Audio Handler\0", 14));
    if (!mp4) {
      auto* dhlr = dynamic_cast<chdlr*>(FindBox<IBox>(trak, "minf")->Child()->Next());
      ASSERT_NE(dhlr, nullptr);
      EXPECT_EQ(std::make_tuple(dhlr->_component_type, dhlr->_name_len), std::make_tuple(Fcc("dhlr"), 24));
    }
    auto* mp4a = FindBox<cmp4a>(trak, "mp4a");
    EXPECT_EQ(std::make_tuple(mp4a->_version, mp4a->_channels, mp4a->_sample_size, mp4a->_compression_id,
                              mp4a->_sample_rate),
              std::make_tuple(0, mp4 ? 6 : 2, 16, 0, rate));
    auto* esds = FindBox<cesds>(trak, "esds");
    EXPECT_EQ(std::make_tuple(esds->_es_id, esds->_priority, esds->_buffer_size, esds->_type_indication,
                              esds->_avg_bitrate, esds->_max_bitrate, esds->_sample_rate),
              std::make_tuple(mp4 ? 0 : 2, mp4 ? 0 : 31, 0x100000u, 64, 128000u, 128000u, rate));
    EXPECT_EQ(Bytes(esds->_extra, esds->_extra + esds->_extra_size), H("1190"));
    EXPECT_EQ(r.st->_fifo, nullptr);
  }

  // QuickTime: a plain entry of compression id -2 for two channels; from three on, version 2 and "wave".
  AacRig stereo;
  stereo.tags->file_type = StreamAac::kQuickTimeType;
  ASSERT_TRUE(stereo.Make());
  EXPECT_EQ(FindBox<cmp4a>(stereo.st->Track(), "mp4a")->_compression_id, 0xFFFE);
  EXPECT_EQ(ChildCodes(FindBox<IBox>(stereo.st->Track(), "mp4a")), "esds");
  AacRig r(48000, 6);
  r.tags->file_type = StreamAac::kQuickTimeType;
  ASSERT_TRUE(r.Make());
  IBox* wave = FindBox<IBox>(r.st->Track(), "wave");
  EXPECT_EQ(ChildCodes(FindBox<IBox>(r.st->Track(), "mp4a")), "wave");
  EXPECT_EQ(ChildCodes(wave), "frma,mp4a,esds,chan");
  EXPECT_EQ(FindBox<cfrma>(wave, "frma")->_format, Fcc("mp4a"));
  EXPECT_EQ(FindBox<cchan>(wave, "chan")->_channels, 6);
  // The entry as written: version, the fixed fields of version 2 (the rate as a double), then "wave".
  const Bytes e = WrittenBox(r.st->Track(), "mp4a");
  ASSERT_GT(e.size(), 80u);
  EXPECT_EQ(Bytes(e.begin() + 16, e.begin() + 18), H("0002"));
  EXPECT_EQ(Bytes(e.begin() + 24, e.begin() + 72),
            H("0003 0010 fffe 0000 0001 0000 00000048 40e77000 00000000 00000006 7f000000 00000010 0000000c "
              "0000000c 00000000"));
  EXPECT_EQ(Bytes(e.begin() + 76, e.begin() + 80), H("'wave'"));
  AacRig odd(32000, 3);  // a rate without a double of its own is taken as 11025
  odd.tags->file_type = StreamAac::kQuickTimeType;
  ASSERT_TRUE(odd.Make());
  EXPECT_EQ(FindBox<cmp4a>(odd.st->Track(), "mp4a")->_word_b, 0x40C58880u);
}

TEST(StreamAac, AdtsHeadersAreNotWritten) {
  for (int header : {7, 9}) {
    AacRig r(48000, 2, header);
    ASSERT_TRUE(r.Make());
    for (unsigned i = 0; i < 3; ++i) {
      PacketPtr p = MakePacket(r.media.get(), Cat({Bytes(header, 0xFF), Bytes(100 + i, i + 1)}), r.pts, 21 * kMs, true);
      r.pts += 21 * kMs;
      const unsigned long long at = static_cast<unsigned long long>(r.io.Size());
      ASSERT_TRUE(r.st->AddPacket(*p, r.io, 1u << 30));
      ASSERT_EQ(r.List().size(), i + 1);
      EXPECT_EQ(Fields({r.List().back()}), Fields({Rec(at, 100 + i, 1024)}));
      EXPECT_EQ(r.At(at, 1)[0], i + 1) << "the payload starts behind the header";
      EXPECT_EQ(r.io.Size(), static_cast<long long>(at + 100 + i));
    }
    EXPECT_EQ(r.st->Duration(), 64);  // 3072 samples at 48 kHz
    EXPECT_EQ(r.mdat->RealSize(), 8u + 303u);
  }
}

TEST(StreamAac, ChunksOf2048SamplesHoldThreeFramesThenTwo) {
  AacRig r;
  ASSERT_TRUE(r.Make(2048));  // audio leads: no waiting here
  std::vector<size_t> sizes;
  for (int i = 0; i < 9; ++i) {
    ASSERT_TRUE(r.Add(10, static_cast<unsigned char>(i)));
    sizes.push_back(r.List().size());
  }
  EXPECT_EQ(sizes, (std::vector<size_t>{0, 0, 3, 3, 5, 5, 7, 7, 9}));
  EXPECT_EQ(Fields(r.List()), Fields({Rec(0, 10, 1024, 3), Rec(0, 10, 1024, 3), Rec(8, 10, 1024, 3),
                                      Rec(0, 10, 1024, 2), Rec(38, 10, 1024, 2), Rec(0, 10, 1024, 2),
                                      Rec(58, 10, 1024, 2), Rec(0, 10, 1024, 2), Rec(78, 10, 1024, 2)}));
  EXPECT_EQ(WrittenBox(r.st->Track(), "stsc"), Table("stsc", {2, 1, 3, 1, 2, 2, 1}));
  EXPECT_EQ(WrittenBox(r.st->Track(), "stts"), Table("stts", {1, 9, 1024}));
}

TEST(StreamAac, FollowingAudioWaitsAndTheEndMatchesTheVideo) {
  AacRig r;
  ASSERT_TRUE(r.Make(2048, false));
  // Records after a frame with the video's duration.
  auto add = [&](unsigned long long video) {
    EXPECT_TRUE(r.Add(10, 1, video));
    return r.List().size();
  };
  for (int i = 0; i < 3; ++i) EXPECT_EQ(add(1000), 0u) << "no audio before the video has written";
  r.mdat->Size(100);
  EXPECT_EQ(add(20), 0u) << "even the first chunk waits for half a chunk of video";
  EXPECT_EQ(add(21), 3u);
  EXPECT_EQ(r.st->Duration(), 64);
  EXPECT_EQ(add(84), 3u) << "half a chunk (21 ms) past the video at most";
  EXPECT_EQ(add(85), 5u);
  EXPECT_EQ(r.st->Duration(), 107) << "5 x 1024 samples at 48 kHz: 106.67 ms, rounded";
  for (int i = 0; i < 4; ++i) add(0);
  EXPECT_EQ(r.st->_fifo->Size(), 6);

  // The video ends where the audio stands, or before: nothing more.
  EXPECT_TRUE(r.st->CleanFifoData(r.io, 107));
  EXPECT_TRUE(r.st->CleanFifoData(r.io, 100));
  EXPECT_EQ(r.List().size(), 5u);
  // 43 ms more video: two frames of 1024 samples fit.
  const unsigned long long mdatBefore = r.mdat->Size();
  EXPECT_TRUE(r.st->CleanFifoData(r.io, 150));
  EXPECT_EQ(r.List().size(), 7u);
  EXPECT_EQ(r.mdat->Size(), mdatBefore + 20u);
  EXPECT_EQ(r.st->_fifo->Size(), 4);
  // No video at all: the rest goes out, the last chunk as short as needed.
  const long long pos = r.io.Size();
  EXPECT_TRUE(r.st->CleanFifoData(r.io, 0));
  EXPECT_EQ(r.List().size(), 11u);
  EXPECT_EQ(r.st->_fifo->Size(), 0);
  EXPECT_EQ(r.List().back().offset, static_cast<unsigned long long>(pos + 20));
  EXPECT_EQ(r.List()[8].count, 2u);

  // A group left short at the end sets the group size.
  AacRig s;
  ASSERT_TRUE(s.Make(4096));  // groups of five frames
  ASSERT_EQ(s.st->_groupFrames, 5);
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(s.Add(8, 1));
  EXPECT_TRUE(s.List().empty());
  ASSERT_TRUE(s.st->CleanFifoData(s.io, 0));
  ASSERT_EQ(s.List().size(), 3u);
  EXPECT_EQ(s.st->_groupFrames, 3);
  for (const ChunkParam& c : s.List()) EXPECT_EQ(c.count, 3u);
  EXPECT_EQ(s.List()[2].offset, 8u);
}

TEST(StreamAac, AdtsHeaderBytes) {
  AacRig r;
  ASSERT_TRUE(r.Make());
  ASSERT_TRUE(r.st->CreateAdts());
  r.st->AdtsUpdate(0x1FF0);  // the length's top bits go to byte 3, the rest stays
  EXPECT_EQ(Bytes(r.st->_adts, r.st->_adts + 7), H("fff14c83fefffc"));
  unsigned char odd[7];
  StreamAac::AdtsHeader(1234, 7, odd);  // rate index 13, channel index 8
  EXPECT_EQ(Bytes(odd, odd + 7), H("fff17600001ffc"));

  StreamAac bare;
  LogCapture quiet(kiv::dbg::E);
  EXPECT_FALSE(bare.CreateAdts());
}

TEST(StreamAac, DemuxedFramesGetAnAdtsHeader) {
  AacRig mux;
  ASSERT_TRUE(mux.Make());
  StreamAac st;
  st._trak = mux.st->Track();
  ASSERT_TRUE(st.demuxConfig(nullptr));
  IMedia* m = st.Media();
  int rate = 0, channel = 0, depth = 0, width = 0, frm = 0, bitrate = 0;
  long long adtslen = 0;
  bool hasadts = false;
  ASSERT_TRUE(m->Get("rate", rate) && m->Get("channel", channel) && m->Get("depth", depth) &&
              m->Get("width", width) && m->Get("frmSampNum", frm) && m->Get("bitrate", bitrate) &&
              m->Get("adtslen", adtslen) && m->Get("hasadts", hasadts));
  EXPECT_EQ(std::make_tuple(rate, channel, depth, width, frm, bitrate, adtslen, hasadts),
            std::make_tuple(48000, 2, 16, 2, 1024, 128000, 7, true));
  EXPECT_EQ(Bytes(m->Extra(), m->Extra() + m->ExtraSize()), H("1190"));

  PacketPtr p = MakePacket(m, Bytes(100, 0x33), 0, 0, false, 16);
  ASSERT_EQ(st.demuxUpdatePacket(mux.io, p.get()), p.get());
  ASSERT_EQ(p->Size(), 107);
  EXPECT_EQ(p->Offset(), 9);
  EXPECT_EQ(Bytes(p->Data(), p->Data() + 8), H("fff14c800d7ffc 33"));
  EXPECT_TRUE(p->IsKey());
  // A frame with its own header is left alone.
  const Bytes own = H("fff9 010203");
  PacketPtr q = MakePacket(m, own, 0, 0, false, 16);
  st.demuxUpdatePacket(mux.io, q.get());
  EXPECT_EQ(Bytes(q->Data(), q->Data() + q->Size()), own);
  // No room in front: the track stops adding headers, and the media says so with the next frame.
  PacketPtr tight = MakePacket(m, Bytes(20, 1), 0, 0, false, 7);
  st.demuxUpdatePacket(mux.io, tight.get());
  EXPECT_EQ(tight->Size(), 20);
  PacketPtr after = MakePacket(m, Bytes(20, 1), 0, 0, false, 16);
  st.demuxUpdatePacket(mux.io, after.get());
  EXPECT_EQ(after->Size(), 20);
  EXPECT_TRUE(m->Get("hasadts", hasadts));
  EXPECT_FALSE(hasadts);

  LogCapture log(kiv::dbg::E);
  EXPECT_EQ(st.demuxUpdatePacket(mux.io, nullptr), nullptr);
  st.Track(nullptr);
  StreamAac empty;
  ctrak trak;
  empty._trak = &trak;
  EXPECT_FALSE(empty.demuxConfig(nullptr));
  EXPECT_TRUE(log.Has("!esds"));
  empty.Track(nullptr);
}
