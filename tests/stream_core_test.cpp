// The track stream core: lookup by codec word, records from packets, the spill list, the closing of
// a track's headers, and the demux side's start without a packet producer.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LogCapture.h"
#include "StreamRig.h"
#include "io_test_util.h"
#include "stream/base/io/IUrl.h"
#include "stream/base/reflect/IClass.h"
#include "stream/plugin/mp4/common/StreamAac.h"
#include "stream/plugin/mp4/common/StreamH264.h"

using namespace streamtest;
using namespace kiv::plugin::mov;

namespace {

// The least a concrete track needs: a trak with the headers and the tables, time in milliseconds.
class TestStream : public IStream {
 public:
  TestStream() : IStream("test") {}
  bool muxConfig(kiv::base::Object* tags) override {
    if (!tags) return false;
    auto* trak = new ctrak();
    _trak = trak;
    trak->Add(new ctkhd(0));
    auto* edts = new cedts();
    trak->Add(edts);
    edts->Add(new celst(0));
    auto* mdia = new cmdia();
    trak->Add(mdia);
    mdia->Add(new cmdhd(0));
    auto* minf = new cminf();
    mdia->Add(minf);
    auto* stbl = new cstbl(_rsvdSize);
    minf->Add(stbl);
    stbl->Add(new cstts());
    stbl->Add(new cstsc());
    stbl->Add(new cstsz());
    stbl->Add(new cstco());
    _chunkList = stbl->ChunkList();
    _scale.Scale(1000);
    return true;
  }
  bool demuxConfig(kiv::base::Object*) override { return true; }
};

struct CoreRig : MuxRig {
  MediaPtr media{IMedia::New("h264")};
  TestStream* st = new TestStream();
  CoreRig() { streams.push_back(st); }
  bool Config() { return MuxRig::Config(st, media.get()); }
  bool Add(long long pts, long long dur, bool key, size_t size = 10, uint32_t flags = 0, long long span = 0,
           unsigned long long leader = 0) {
    Bytes payload(size, static_cast<unsigned char>(pts / kMs));
    PacketPtr p = MakePacket(media.get(), payload, pts, dur, key);
    p->flags = flags;
    p->clock = span;
    return st->AddPacket(*p, io, leader);
  }
};

}  // namespace

TEST(StreamCore, NewFindsTrackClassesByCodecWord) {
  AttrSet ap;
  ap.Add("fcc", "h264");
  ap.Add("trunkid", "0x3");
  ap.Add("container", "1f40");
  IStream* h264 = IStream::New(ap);
  ASSERT_NE(h264, nullptr);
  EXPECT_NE(dynamic_cast<StreamH264*>(h264), nullptr);
  EXPECT_STREQ(h264->Name(), "h264");
  EXPECT_EQ(h264->TrackID(), 3);
  EXPECT_EQ(h264->_container, 0x1f40u);
  delete h264;

  AttrSet aac;
  aac.Add("fcc", "aac");
  IStream* a = IStream::New(aac);
  ASSERT_NE(a, nullptr);
  EXPECT_NE(dynamic_cast<StreamAac*>(a), nullptr);
  EXPECT_STREQ(a->Name(), "mp4a");
  delete a;

  IStream* demux = IStream::New("avc1", nullptr, 7);
  ASSERT_NE(demux, nullptr);
  EXPECT_NE(dynamic_cast<StreamH264*>(demux), nullptr);
  EXPECT_EQ(demux->TrackID(), 7);
  delete demux;

  LogCapture log(kiv::dbg::E);
  AttrSet none;
  EXPECT_EQ(IStream::New(none), nullptr);
  EXPECT_TRUE(log.Has("!fcc"));
  EXPECT_EQ(IStream::New("nosuchcodec", nullptr, 1), nullptr);
  EXPECT_TRUE(log.Has("!obj"));
}

TEST(StreamCore, RegisteredBeforeTheProfileWithTheirProperties) {
  auto& all = kiv::base::IClass::Globle();
  auto pos = [&](const char* name) {
    for (size_t i = 0; i < all.size(); ++i)
      if (std::string(all[i]->Name()) == name) return static_cast<long>(i);
    return -1L;
  };
  const long h264 = pos("MovStreamH264-mov-stream-avc1-h264");
  const long aac = pos("MovStreamAac-mov-stream-mp4a-aac");
  const long tags = pos("videoTags");
  ASSERT_GE(h264, 0);
  EXPECT_LT(h264, aac);
  EXPECT_LT(aac, tags);
  auto* h = all[static_cast<size_t>(h264)];
  ASSERT_EQ(h->Properties().size(), 1u);
  EXPECT_STREQ(h->Properties()[0]->Name(), "frameRate");
  EXPECT_EQ(h->Properties()[0]->ValueType(), typeid(kiv::base::Fraction));
  EXPECT_TRUE(all[static_cast<size_t>(aac)]->Properties().empty());
  StreamH264 st;
  EXPECT_TRUE(st.setString("frameRate", "30000/1001"));
  EXPECT_EQ(st._frameRate, kiv::base::Fraction(30000, 1001));
}

TEST(StreamCore, RecordsTakeDurationsFromTimeStampDeltas) {
  CoreRig r;
  ASSERT_TRUE(r.Config());
  // The first packet's own duration, then the distances of the time stamps.
  ASSERT_TRUE(r.Add(0, 40 * kMs, true, 10, 0, 3 * kMs));
  EXPECT_EQ(r.st->_firstPts, 0);
  ASSERT_TRUE(r.Add(0, 40 * kMs, false, 20, 0x400000));  // again 0: the next uses its own duration
  ASSERT_TRUE(r.Add(50 * kMs, 30 * kMs, false, 30));
  ASSERT_TRUE(r.Add(90 * kMs, 10 * kMs, false, 40, 0x400000));

  const auto& list = *r.st->MuxChunkList();
  ASSERT_EQ(list.size(), 4u);
  const uint32_t durations[] = {40, 40, 30, 40};
  const uint32_t sizes[] = {10, 20, 30, 40};
  const uint8_t flags[] = {1, 2, 0, 2};
  unsigned long long pos = 8;
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(list[i].offset, pos) << i;
    EXPECT_EQ(list[i].size, sizes[i]);
    EXPECT_EQ(list[i].duration, durations[i]) << i;
    EXPECT_EQ(list[i].count, 1u);
    EXPECT_EQ(list[i].descIndex, 1u);
    EXPECT_EQ(list[i].flags, flags[i]) << i;
    EXPECT_EQ(*r.At(pos), static_cast<unsigned char>(i == 0 || i == 1 ? 0 : i == 2 ? 50 : 90));
    pos += sizes[i];
  }
  EXPECT_EQ(list[0].packetSpan, 3u);
  EXPECT_EQ(r.st->EntryCount(), 4u);
  EXPECT_EQ(r.st->Duration(), 150);
  EXPECT_EQ(r.mdat->RealSize(), 8u + 100u);
  EXPECT_EQ(r.io.Size(), 108);

  // A packet of another media is no failure, and changes nothing.
  MediaPtr other(IMedia::New("aac"));
  PacketPtr foreign = MakePacket(other.get(), Bytes(5, 1), 200 * kMs, kMs, true);
  EXPECT_FALSE(r.st->AddPacket(*foreign, r.io, 0));
  EXPECT_EQ(list.size(), 4u);
  EXPECT_EQ(r.io.Size(), 108);
}

TEST(StreamCore, FirstTimeStampInTrackUnitsAndTheResets) {
  CoreRig r;
  ASSERT_TRUE(r.Config());
  ASSERT_TRUE(r.Add(1234567891, 40 * kMs, true));
  EXPECT_EQ(r.st->_firstPts, 1234);  // truncated to ms, then to units of 1/1000
  r.st->MuxResetPts();
  ASSERT_TRUE(r.Add(2000 * kMs, 40 * kMs, true));
  EXPECT_EQ(r.st->_firstPts, 2000);
  r.st->MuxReset();
  EXPECT_EQ(r.st->_firstPts, -1);
  EXPECT_EQ(r.st->Duration(), 0);
  EXPECT_EQ(r.st->_elapsed, 0);
}

TEST(StreamCore, ChunkPositionsMoveWithTheMdat) {
  CoreRig r;
  ASSERT_TRUE(r.Config());
  auto& list = *r.st->MuxChunkList();
  list = {ChunkParam{100, 1, 1, 1, 0, 1, 0}, ChunkParam{0, 1, 1, 1, 0, 1, 0}, ChunkParam{300, 1, 1, 1, 0, 1, 0}};
  EXPECT_TRUE(r.st->UpdateChunkList(50));
  EXPECT_EQ(list[0].offset, 150u);
  EXPECT_EQ(list[1].offset, 0u);
  EXPECT_EQ(list[2].offset, 350u);

  // Only a record that falls behind the one before it (after that one moved) is shifted.
  list = {ChunkParam{500, 0, 0, 0, 0, 0, 0}, ChunkParam{600, 0, 0, 0, 0, 0, 0}, ChunkParam{100, 0, 0, 0, 0, 0, 0},
          ChunkParam{700, 0, 0, 0, 0, 0, 0}};
  EXPECT_TRUE(r.st->UpdateVfiChunkList(1000));
  EXPECT_EQ(list[0].offset, 500u);
  EXPECT_EQ(list[1].offset, 600u);
  EXPECT_EQ(list[2].offset, 1100u);
  EXPECT_EQ(list[3].offset, 1700u);
}

TEST(StreamCore, MuxUpdateClosesHeadersAndEditList) {
  CoreRig r;
  ASSERT_TRUE(r.Config());
  r.st->TrackID(4);
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(r.Add(i * 40 * kMs, 40 * kMs, i == 0));
  r.st->CreateTime(3700000000LL);
  auto* elst = FindBox<celst>(r.st->Track(), "elst");
  ASSERT_NE(elst, nullptr);
  elst->Add(celst::Item{9, 9, 9});
  elst->Add(celst::Item{9, 9, 9});
  ASSERT_TRUE(r.st->MuxUpdate(600, false));

  auto* tkhd = FindBox<ctkhd>(r.st->Track(), "tkhd");
  auto* mdhd = FindBox<cmdhd>(r.st->Track(), "mdhd");
  ASSERT_TRUE(tkhd && mdhd);
  EXPECT_EQ(tkhd->_duration, 120u);  // 200 ms in the movie's 600 units
  EXPECT_EQ(tkhd->_createtime, 3700000000u);
  EXPECT_EQ(tkhd->_modifytime, 3700000000u);
  EXPECT_EQ(tkhd->_track_id, 4u);
  ASSERT_EQ(elst->_items.size(), 1u);
  EXPECT_EQ(elst->_num, 1u);
  EXPECT_EQ(elst->_items[0].segment_duration, 120u);
  EXPECT_EQ(elst->_items[0].media_time, 0);
  EXPECT_EQ(elst->_items[0].rate, 0x10000u);
  EXPECT_EQ(mdhd->_duration, 200u);
  EXPECT_EQ(mdhd->_timescale, 1000u);
  EXPECT_EQ(r.st->DurationInTimeScale(), 200);

  EXPECT_TRUE(r.st->MuxUpdateTkhdDuration(777));
  EXPECT_EQ(tkhd->_duration, 777u);
  EXPECT_EQ(elst->_items[0].segment_duration, 777u);
  EXPECT_TRUE(r.st->MuxUpdateMdhdDuration(555));
  EXPECT_EQ(mdhd->_duration, 555u);
}

TEST(StreamCore, AnEmptyTrackLeavesTheMovieUnlessKept) {
  {
    CoreRig r;
    ASSERT_TRUE(r.Config());
    ASSERT_EQ(r.moov->Child(), r.st->Track());
    LogCapture log(kiv::dbg::E);
    ASSERT_TRUE(r.st->MuxUpdate(600, false));
    EXPECT_EQ(r.st->Track(), nullptr);
    EXPECT_EQ(r.moov->Child(), nullptr);
    EXPECT_TRUE(log.Has("delete stream: test due to size 0!"));
  }
  CoreRig kept;
  ASSERT_TRUE(kept.Config());
  ASSERT_TRUE(kept.st->MuxUpdate(600, true));
  EXPECT_EQ(kept.moov->Child(), kept.st->Track());
}

TEST(StreamCore, FixedRateCountsEqualSamples) {
  MuxRig rig;
  rig.para.fixedRate = true;
  H264Sets sets;
  MediaPtr media = NewH264Media(sets);
  IStream* st = rig.New("h264");
  ASSERT_NE(st, nullptr);
  ASSERT_TRUE(st->setString("frameRate", "25/1"));
  ASSERT_TRUE(rig.Config(st, media.get()));
  // Time stamps that jitter: in this mode every sample lasts 1/25 s of 60000 units.
  const long long pts[] = {1000 * kMs, 1043 * kMs, 1077 * kMs};
  for (long long t : pts) {
    PacketPtr p = MakePacket(media.get(), Nal(0x65, 20), t, 40 * kMs, t == pts[0]);
    ASSERT_TRUE(st->AddPacket(*p, rig.io, 0));
  }
  EXPECT_EQ(st->_firstPts, 2400);
  for (const ChunkParam& c : *st->MuxChunkList()) EXPECT_EQ(c.duration, 2400u);
  EXPECT_EQ(st->DurationInTimeScale(), 3 * 2400);
  ASSERT_TRUE(st->MuxUpdate(600, false));
  EXPECT_EQ(st->Duration(), 120);
  EXPECT_EQ(FindBox<ctkhd>(st->Track(), "tkhd")->_duration, 72u);
  EXPECT_EQ(FindBox<cmdhd>(st->Track(), "mdhd")->_duration, 7200u);
  EXPECT_EQ(st->DurationRenew(), 120);
}

TEST(StreamCore, SpillListBringsBackEveryRecordAndLeavesNoFile) {
  iotest::TempDir dir;
  kiv::base::DriveMap('q', dir.path().c_str());
  std::vector<ChunkParam> spilled, plain;
  for (int rsvd : {0, -1}) {
    CoreRig r;
    r.para.rsvdSeconds = rsvd;
    r.para.drive = 'q';
    ASSERT_TRUE(r.Config());
    EXPECT_EQ(r.st->_listFile != nullptr, rsvd == 0);
    for (int i = 0; i < 5000; ++i) ASSERT_TRUE(r.Add(i * 40 * kMs, 40 * kMs, i % 25 == 0, 3 + i % 7));
    if (rsvd == 0) {
      // Spilled once at 4095 records: the list holds the rest, the file the first part.
      EXPECT_EQ(r.st->MuxChunkList()->size(), 5000u - 4095u);
      ASSERT_EQ(dir.entries().size(), 1u);
      EXPECT_NE(dir.entries()[0].find("test."), std::string::npos);
      EXPECT_NE(dir.entries()[0].find(".quorel"), std::string::npos);
    }
    ASSERT_TRUE(r.st->MuxUpdate(600, false));
    (rsvd == 0 ? spilled : plain) = *r.st->MuxChunkList();
    EXPECT_EQ(FindBox<cmdhd>(r.st->Track(), "mdhd")->_duration, 200000u);
  }
  kiv::base::DriveMap('q', nullptr);
  EXPECT_TRUE(dir.entries().empty());
  ASSERT_EQ(spilled.size(), 5000u);
  ASSERT_EQ(plain.size(), 5000u);
  for (size_t i = 0; i < plain.size(); ++i)
    ASSERT_EQ(std::memcmp(&spilled[i], &plain[i], sizeof(ChunkParam)), 0) << i;
}

TEST(StreamCore, DemuxStartReadsTheHeadersAndFailsWithoutProducer) {
  LogCapture log(kiv::dbg::E);
  TestStream st;
  EXPECT_FALSE(st.DemuxConfig(nullptr, nullptr, nullptr));
  EXPECT_TRUE(log.Has("!_mdat"));

  cmdat mdat;
  ctrak trak;
  EXPECT_FALSE(st.DemuxConfig(&mdat, &trak, nullptr));
  EXPECT_TRUE(log.Has("!stbl"));

  auto* tkhd = new ctkhd(0);
  tkhd->_track_id = 9;
  trak.Add(tkhd);
  auto* mdia = new cmdia();
  trak.Add(mdia);
  auto* mdhd = new cmdhd(0);
  mdhd->_timescale = 48000;
  mdhd->_duration = 96000;
  mdhd->_createtime = 77;
  mdia->Add(mdhd);
  auto* minf = new cminf();
  mdia->Add(minf);
  auto* stbl = new cstbl(0);
  minf->Add(stbl);
  EXPECT_FALSE(st.DemuxConfig(&mdat, &trak, nullptr));
  EXPECT_TRUE(log.Has("!_demuxer"));
  EXPECT_EQ(st.TimeScale(), 48000);
  EXPECT_EQ(st.Duration(), 2000);
  EXPECT_EQ(st.CreateTime(), 77);
  EXPECT_EQ(st.TrackID(), 9);
  EXPECT_EQ(st.MuxChunkList(), stbl->ChunkList());
  EXPECT_FALSE(st.DemuxReset());
  EXPECT_EQ(st._firstPts, 0);
  st.Track(nullptr);  // the trak above is the test's
}
