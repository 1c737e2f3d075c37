// The AAC track: its trak tree and the two forms of its sample entry, ADTS headers cut off on the way
// to the file and put back on the way out, chunks planned in samples, and the end of a recording.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LogCapture.h"
#include "StreamRig.h"
#include "stream/plugin/mp4/common/StreamAac.h"
#include "stream/plugin/mp4/common/Stsd.h"

using namespace streamtest;
using namespace kiv::plugin::mov;

namespace {

struct AacRig : MuxRig {
  MediaPtr media;
  StreamAac* st = nullptr;
  long long pts = 0;

  explicit AacRig(int rate = 48000, int channels = 2, int adtslen = 0) : media(NewAacMedia(rate, channels, adtslen)) {}
  bool Make() {
    st = dynamic_cast<StreamAac*>(New("aac", 2));
    return st && Config(st, media.get());
  }
  bool Add(const Bytes& frame, unsigned long long leader = 1u << 30) {
    PacketPtr p = MakePacket(media.get(), frame, pts, 21 * kMs, true);
    pts += 21 * kMs;
    return st->AddPacket(*p, io, leader);
  }
  std::vector<ChunkParam>& List() { return *st->MuxChunkList(); }
};

Bytes Frame(size_t n, unsigned char v) { return Bytes(n, v); }

std::string Name(const chdlr* h) { return std::string(reinterpret_cast<const char*>(h->_name), h->_name_len); }

}  // namespace

TEST(StreamAac, TrakTreeWithAPlainSoundEntry) {
  AacRig r;
  ASSERT_TRUE(r.Make());
  IBox* trak = r.st->Track();
  EXPECT_EQ(ChildCodes(trak), "tkhd,mdia");
  auto* tkhd = FindBox<ctkhd>(trak, "tkhd");
  EXPECT_EQ(tkhd->Flags(), 15u);
  EXPECT_EQ(tkhd->_volume, 256);
  EXPECT_EQ(tkhd->_track_id, 2u);
  EXPECT_EQ(FindBox<cmdhd>(trak, "mdhd")->_timescale, 48000u);
  EXPECT_EQ(r.st->TimeScale(), 48000);
  auto* hdlr = FindBox<chdlr>(trak, "hdlr");
  EXPECT_EQ(hdlr->_component_type, Fcc("mhlr"));
  EXPECT_EQ(hdlr->_component_subtype, Fcc("soun"));
  EXPECT_EQ(hdlr->_component_manufacturer, Fcc("quor"));
  EXPECT_EQ(Name(hdlr), std::string("Audio Handler\0", 14));
  IBox* minf = FindBox<IBox>(trak, "minf");
  EXPECT_EQ(ChildCodes(minf), "smhd,hdlr,dinf,stbl");
  auto* dhlr = dynamic_cast<chdlr*>(minf->Child()->Next());
  EXPECT_EQ(dhlr->_component_type, Fcc("dhlr"));
  EXPECT_EQ(dhlr->_name_len, 24);
  EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "dref")), "alis");
  EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "stbl")), "stsd,stts,stsc,stsz,stco");
  EXPECT_NE(FindBox<cxstts>(trak, "stts"), nullptr);

  auto* mp4a = FindBox<cmp4a>(trak, "mp4a");
  ASSERT_NE(mp4a, nullptr);
  EXPECT_EQ(ChildCodes(mp4a), "esds");
  EXPECT_EQ(mp4a->_version, 0);
  EXPECT_EQ(mp4a->_channels, 2);
  EXPECT_EQ(mp4a->_sample_size, 16);
  EXPECT_EQ(mp4a->_compression_id, 0);
  EXPECT_EQ(mp4a->_sample_rate, 48000);
  auto* esds = FindBox<cesds>(trak, "esds");
  EXPECT_EQ(esds->_es_id, 2);
  EXPECT_EQ(esds->_priority, 31);
  EXPECT_EQ(esds->_buffer_size, 0x100000u);
  EXPECT_EQ(esds->_type_indication, 64);
  EXPECT_EQ(esds->_avg_bitrate, 128000u);
  EXPECT_EQ(esds->_max_bitrate, 128000u);
  EXPECT_EQ(esds->_sample_rate, 48000u);
  ASSERT_EQ(esds->_extra_size, 2u);
  EXPECT_EQ(esds->_extra[0], 0x11);
  EXPECT_EQ(esds->_extra[1], 0x90);
  EXPECT_EQ(r.st->_fifo, nullptr);

  // The mp4 profile: no data handler, "url " references, no ES id; the entry stays plain.
  AacRig mp4(44100, 6);
  mp4.tags->Mp4Flavour();
  ASSERT_TRUE(mp4.Make());
  trak = mp4.st->Track();
  EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "minf")), "smhd,dinf,stbl");
  EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "dref")), "url ");
  EXPECT_EQ(FindBox<cmdhd>(trak, "mdhd")->_language, 21956);
  EXPECT_EQ(FindBox<ctkhd>(trak, "tkhd")->Flags(), 1u);
  EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "mp4a")), "esds");
  EXPECT_EQ(FindBox<cmp4a>(trak, "mp4a")->_channels, 6);
  EXPECT_EQ(FindBox<cesds>(trak, "esds")->_es_id, 0);
}

TEST(StreamAac, QuickTimeWithManyChannelsWritesAVersionTwoEntry) {
  AacRig stereo;
  stereo.tags->file_type = StreamAac::kQuickTimeType;
  ASSERT_TRUE(stereo.Make());
  EXPECT_EQ(FindBox<cmp4a>(stereo.st->Track(), "mp4a")->_compression_id, 0xFFFE);
  EXPECT_EQ(ChildCodes(FindBox<IBox>(stereo.st->Track(), "mp4a")), "esds");

  AacRig r(48000, 6);
  r.tags->file_type = StreamAac::kQuickTimeType;
  ASSERT_TRUE(r.Make());
  IBox* mp4aBox = FindBox<IBox>(r.st->Track(), "mp4a");
  EXPECT_EQ(ChildCodes(mp4aBox), "wave");
  IBox* wave = FindBox<IBox>(r.st->Track(), "wave");
  EXPECT_EQ(ChildCodes(wave), "frma,mp4a,esds,chan");
  EXPECT_EQ(FindBox<cfrma>(wave, "frma")->_format, Fcc("mp4a"));
  EXPECT_EQ(FindBox<cchan>(wave, "chan")->_channels, 6);

  // The entry as written: head, the version-2 fields, then "wave".
  const Bytes e = MuxRig::Written(mp4aBox);
  ASSERT_GT(e.size(), 72u);
  auto be16 = [&](size_t at) { return (e[at] << 8) | e[at + 1]; };
  EXPECT_EQ(be16(16), 2);       // version
  EXPECT_EQ(be16(24), 3);       // always 3
  EXPECT_EQ(be16(26), 16);      // always 16
  EXPECT_EQ(be16(28), 0xFFFE);  // always -2
  EXPECT_EQ(be16(30), 0);
  EXPECT_EQ(be16(32), 1);  // the two rate words of version 0: 1 and 0
  EXPECT_EQ(be16(34), 0);
  const uint32_t words[] = {72, 0x40E77000, 0, 6, 0x7F000000, 16, 12, 12, 0};
  for (size_t i = 0; i < 9; ++i) EXPECT_EQ(Be32(&e[36 + 4 * i]), words[i]) << i;
  EXPECT_EQ(std::string(e.begin() + 76, e.begin() + 80), "wave");

  AacRig odd(32000, 3);
  odd.tags->file_type = StreamAac::kQuickTimeType;
  ASSERT_TRUE(odd.Make());
  EXPECT_EQ(FindBox<cmp4a>(odd.st->Track(), "mp4a")->_word_b, 0x40C58880u);  // taken as 11025
}

TEST(StreamAac, MissingAttributesFailBeforeAnyBox) {
  const char* keys[] = {"rate", "channel", "width", "depth", "bitrate"};
  const char* said[] = {"!_media->Get(\"rate\", rate)", "!_media->Get(\"channel\", chn)",
                        "!_media->Get(\"width\", width)", "!_media->Get(\"depth\", depth)",
                        "!_media->Get(\"bitrate\", bitrate)"};
  for (size_t k = 0; k < 5; ++k) {
    MuxRig rig;
    MediaPtr full = NewAacMedia();
    AttrSet attrs = full->Attrs();
    MediaPtr media(IMedia::New("aac"));
    for (size_t i = 0; i < attrs.Size(); ++i)
      if (std::string(attrs.Key(i)) != keys[k]) media->setString(attrs.Key(i), attrs.Value(i));
    IStream* st = rig.New("aac");
    LogCapture log(kiv::dbg::I);
    EXPECT_FALSE(rig.Config(st, media.get()));
    bool atInfo = false;
    for (const std::string& line : log.Lines())
      atInfo = atInfo || (line.find(said[k]) != std::string::npos && line.find("|I|kiv: ") != std::string::npos);
    EXPECT_TRUE(atInfo) << said[k];
    EXPECT_EQ(st->Track(), nullptr);
  }
}

TEST(StreamAac, AdtsHeadersAreNotWritten) {
  for (int header : {7, 9}) {
    AacRig r(48000, 2, header);
    ASSERT_TRUE(r.Make());
    EXPECT_EQ(r.st->_adtslen, static_cast<unsigned>(header));
    for (int i = 0; i < 3; ++i) {
      Bytes frame = Frame(static_cast<size_t>(header), 0xFF);
      Append(frame, Frame(100 + static_cast<size_t>(i), static_cast<unsigned char>(i + 1)));
      const long long at = r.io.Size();
      ASSERT_TRUE(r.Add(frame));
      ASSERT_EQ(r.List().size(), static_cast<size_t>(i + 1));
      const ChunkParam& rec = r.List().back();
      EXPECT_EQ(rec.offset, static_cast<unsigned long long>(at));
      EXPECT_EQ(rec.size, 100u + static_cast<unsigned>(i));
      EXPECT_EQ(rec.duration, 1024u);
      EXPECT_EQ(rec.count, 1u);
      EXPECT_EQ(rec.flags, 0);
      EXPECT_EQ(r.io.Size(), at + 100 + i);
      EXPECT_EQ(r.io.Data()[at], i + 1) << "payload starts behind the header";
    }
    EXPECT_EQ(r.st->Duration(), 64);  // 3072 samples at 48 kHz
    EXPECT_EQ(r.mdat->RealSize(), 8u + 303u);
  }
}

TEST(StreamAac, ChunksOf2048SamplesHoldThreeFramesThenTwo) {
  AacRig r;
  r.tags->audiosampleperchunk = 2048;
  r.tags->audio_chunk_first = 1;  // audio leads: no waiting here
  ASSERT_TRUE(r.Make());
  EXPECT_EQ(r.st->_groupFrames, 3);
  EXPECT_EQ(r.st->_chunkExcess, 1024u);
  EXPECT_EQ(r.st->_fifo->Max(), 6);
  EXPECT_EQ(r.st->_chunkMs, 42u);
  EXPECT_EQ(r.st->_chunkLeads, 1);
  std::vector<size_t> sizes;
  for (int i = 0; i < 9; ++i) {
    ASSERT_TRUE(r.Add(Frame(10, static_cast<unsigned char>(i))));
    sizes.push_back(r.List().size());
  }
  EXPECT_EQ(sizes, (std::vector<size_t>{0, 0, 3, 3, 5, 5, 7, 7, 9}));
  const uint32_t counts[] = {3, 3, 3, 2, 2, 2, 2, 2, 2};
  const unsigned long long offsets[] = {0, 0, 8, 0, 38, 0, 58, 0, 78};
  for (size_t i = 0; i < 9; ++i) {
    EXPECT_EQ(r.List()[i].count, counts[i]) << i;
    EXPECT_EQ(r.List()[i].offset, offsets[i]) << i;
  }
  Bytes stsc = MuxRig::Written(FindBox<IBox>(r.st->Track(), "stsc"));
  EXPECT_EQ(Bytes(stsc.begin() + 12, stsc.end()),
            (Bytes{0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 1}));
  Bytes stts = MuxRig::Written(FindBox<IBox>(r.st->Track(), "stts"));
  EXPECT_EQ(Bytes(stts.begin() + 12, stts.end()), (Bytes{0, 0, 0, 1, 0, 0, 0, 9, 0, 0, 4, 0}));
}

TEST(StreamAac, FollowingAudioWaitsAndTheEndMatchesTheVideo) {
  AacRig r;
  r.tags->audiosampleperchunk = 2048;
  ASSERT_TRUE(r.Make());
  EXPECT_EQ(r.st->_chunkLeads, 0);
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(r.Add(Frame(10, 1), 1000));
  EXPECT_TRUE(r.List().empty()) << "no audio before the video has written";
  r.mdat->Size(100);
  ASSERT_TRUE(r.Add(Frame(10, 1), 20));  // even the first chunk waits for half a chunk of video
  EXPECT_TRUE(r.List().empty());
  ASSERT_TRUE(r.Add(Frame(10, 1), 21));
  EXPECT_EQ(r.List().size(), 3u);
  EXPECT_EQ(r.st->Duration(), 64);
  // Half a chunk (21 ms) past the video at most.
  ASSERT_TRUE(r.Add(Frame(10, 2), 84));
  EXPECT_EQ(r.List().size(), 3u);
  ASSERT_TRUE(r.Add(Frame(10, 3), 85));
  EXPECT_EQ(r.List().size(), 5u);
  EXPECT_EQ(r.st->Duration(), 106);
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(r.Add(Frame(10, 4), 0));
  EXPECT_EQ(r.st->_fifo->Size(), 6);

  // The video ends where the audio stands, or before: nothing more.
  EXPECT_TRUE(r.st->CleanFifoData(r.io, 106));
  EXPECT_TRUE(r.st->CleanFifoData(r.io, 100));
  EXPECT_EQ(r.List().size(), 5u);
  // 43 ms more video: two frames of 1024 samples fit.
  const unsigned mdatBefore = static_cast<unsigned>(r.mdat->Size());
  LogCapture log(kiv::dbg::I);
  EXPECT_TRUE(r.st->CleanFifoData(r.io, 149));
  EXPECT_TRUE(log.Has("frmcnt=2"));
  EXPECT_TRUE(log.Has("_fifo->Size()=6"));
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
}

TEST(StreamAac, ShortGroupAtTheEndSetsTheGroupSize) {
  AacRig r;
  r.tags->audiosampleperchunk = 4096;  // groups of five frames
  r.tags->audio_chunk_first = 1;
  ASSERT_TRUE(r.Make());
  ASSERT_EQ(r.st->_groupFrames, 5);
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(r.Add(Frame(8, 1)));
  EXPECT_TRUE(r.List().empty());
  ASSERT_TRUE(r.st->CleanFifoData(r.io, 0));
  ASSERT_EQ(r.List().size(), 3u);
  EXPECT_EQ(r.st->_groupFrames, 3);
  for (const ChunkParam& c : r.List()) EXPECT_EQ(c.count, 3u);
  EXPECT_EQ(r.List()[2].offset, 8u);
}

TEST(StreamAac, AdtsHeaderBytes) {
  AacRig r;
  ASSERT_TRUE(r.Make());
  ASSERT_TRUE(r.st->CreateAdts());
  EXPECT_EQ(r.st->_adtslen, 7u);
  r.st->AdtsUpdate(100);
  EXPECT_EQ(Bytes(r.st->_adts, r.st->_adts + 7), (Bytes{0xFF, 0xF1, 0x4C, 0x80, 0x0D, 0x7F, 0xFC}));
  r.st->AdtsUpdate(0x1FF0);  // the length's top bits go to byte 3, the rest stays
  EXPECT_EQ(Bytes(r.st->_adts, r.st->_adts + 7), (Bytes{0xFF, 0xF1, 0x4C, 0x83, 0xFE, 0xFF, 0xFC}));

  unsigned char odd[7];
  StreamAac::AdtsHeader(1234, 7, odd);  // rate index 13, channel index 8
  EXPECT_EQ(Bytes(odd, odd + 7), (Bytes{0xFF, 0xF1, 0x76, 0x00, 0x00, 0x1F, 0xFC}));

  StreamAac bare;
  LogCapture log(kiv::dbg::E);
  EXPECT_FALSE(bare.CreateAdts());
  EXPECT_TRUE(log.Has("!media"));
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
  EXPECT_EQ(rate, 48000);
  EXPECT_EQ(channel, 2);
  EXPECT_EQ(depth, 16);
  EXPECT_EQ(width, 2);
  EXPECT_EQ(frm, 1024);
  EXPECT_EQ(bitrate, 128000);
  EXPECT_EQ(adtslen, 7);
  EXPECT_TRUE(hasadts);
  EXPECT_EQ(Bytes(m->Extra(), m->Extra() + m->ExtraSize()), (Bytes{0x11, 0x90}));

  PacketPtr p = MakePacket(m, Frame(100, 0x33), 0, 0, false, 16);
  ASSERT_EQ(st.demuxUpdatePacket(mux.io, p.get()), p.get());
  ASSERT_EQ(p->Size(), 107);
  EXPECT_EQ(p->Offset(), 9);
  EXPECT_EQ(Bytes(p->Data(), p->Data() + 8), (Bytes{0xFF, 0xF1, 0x4C, 0x80, 0x0D, 0x7F, 0xFC, 0x33}));
  EXPECT_TRUE(p->IsKey());

  // A frame with its own header is left alone.
  Bytes own = {0xFF, 0xF9, 1, 2, 3};
  PacketPtr q = MakePacket(m, own, 0, 0, false, 16);
  st.demuxUpdatePacket(mux.io, q.get());
  EXPECT_EQ(Bytes(q->Data(), q->Data() + q->Size()), own);
  // No room in front: the track stops adding headers, and the media says so with the next frame.
  PacketPtr tight = MakePacket(m, Frame(20, 1), 0, 0, false, 7);
  st.demuxUpdatePacket(mux.io, tight.get());
  EXPECT_EQ(tight->Size(), 20);
  EXPECT_EQ(st._adtslen, 0u);
  PacketPtr after = MakePacket(m, Frame(20, 1), 0, 0, false, 16);
  st.demuxUpdatePacket(mux.io, after.get());
  EXPECT_EQ(after->Size(), 20);
  EXPECT_TRUE(m->Get("hasadts", hasadts));
  EXPECT_FALSE(hasadts);

  LogCapture log(kiv::dbg::E);
  EXPECT_EQ(st.demuxUpdatePacket(mux.io, nullptr), nullptr);
  EXPECT_TRUE(log.Has("!pkt,IStream GetPacket null!"));
  st.Track(nullptr);

  StreamAac empty;
  ctrak trak;
  empty._trak = &trak;
  EXPECT_FALSE(empty.demuxConfig(nullptr));
  EXPECT_TRUE(log.Has("!esds"));
  empty.Track(nullptr);
}
