// The track stream core: lookup, records from packets, the closing of a track's headers. (The spill
// list is its own tests' and the long recordings'.)
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "LogCapture.h"
#include "StblTestUtil.h"
#include "StreamRig.h"
#include "stream/plugin/mp4/common/StreamAac.h"
#include "stream/plugin/mp4/common/StreamH264.h"

using namespace streamtest;
using namespace kiv::plugin::mov;
using stbltest::Fields;
using stbltest::H;
using stbltest::Rec;

namespace {

template <class T>
T* Put(IBox* parent, T* child) {
  parent->Add(child);
  return child;
}

// The least a concrete track needs: a trak with the headers and the tables, time in milliseconds.
class TestStream : public IStream {
 public:
  TestStream() : IStream("test") {}
  bool muxConfig(kiv::base::Object* tags) override {
    if (!tags) return false;
    _trak = new ctrak();
    _trak->Add(new ctkhd(0));
    Put(_trak, new cedts())->Add(new celst(0));
    IBox* mdia = Put(_trak, new cmdia());
    mdia->Add(new cmdhd(0));
    auto* stbl = Put(Put(mdia, new cminf()), new cstbl(_rsvdSize));
    for (IBox* t : std::initializer_list<IBox*>{new cstts(), new cstsc(), new cstsz(), new cstco()}) stbl->Add(t);
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
  // A payload whose first byte is the time stamp in ms.
  bool Add(long long pts, long long dur, bool key, size_t size = 10, uint32_t flags = 0, long long span = 0) {
    PacketPtr p = MakePacket(media.get(), Bytes(size, static_cast<unsigned char>(pts / kMs)), pts, dur, key);
    p->flags = flags;
    p->clock = span;
    return st->AddPacket(*p, io, 0);
  }
};

}  // namespace

TEST(StreamCore, NewFindsTrackClassesByCodecWord) {
  AttrSet ap("fcc=h264;trunkid=0x3;container=1f40");
  std::unique_ptr<IStream> h264(IStream::New(ap));
  ASSERT_NE(dynamic_cast<StreamH264*>(h264.get()), nullptr);
  EXPECT_STREQ(h264->Name(), "h264");
  EXPECT_EQ(h264->TrackID(), 3);
  EXPECT_EQ(h264->_container, 0x1f40u);
  AttrSet aac("fcc=aac");
  std::unique_ptr<IStream> a(IStream::New(aac));
  ASSERT_NE(dynamic_cast<StreamAac*>(a.get()), nullptr);
  EXPECT_STREQ(a->Name(), "mp4a");
  std::unique_ptr<IStream> demux(IStream::New("avc1", nullptr, 7));
  ASSERT_NE(dynamic_cast<StreamH264*>(demux.get()), nullptr);
  EXPECT_EQ(demux->TrackID(), 7);

  LogCapture quiet(kiv::dbg::E);
  AttrSet none;
  EXPECT_EQ(IStream::New(none), nullptr);
  EXPECT_EQ(IStream::New("nosuchcodec", nullptr, 1), nullptr);
}

TEST(StreamCore, RecordsTakeDurationsFromTimeStampDeltas) {
  CoreRig r;
  ASSERT_TRUE(r.Config());
  // The first packet's own duration, then the distances of the time stamps; a distance of 0 takes
  // the packet's own duration. Bit 1 of the flags: a non-key packet with mask 0x400000.
  ASSERT_TRUE(r.Add(0, 40 * kMs, true, 10, 0x400000, 3 * kMs));
  ASSERT_TRUE(r.Add(0, 40 * kMs, false, 20, 0x400000));
  ASSERT_TRUE(r.Add(50 * kMs, 30 * kMs, false, 30));
  ASSERT_TRUE(r.Add(90 * kMs, 10 * kMs, false, 40, 0x400000));
  EXPECT_EQ(Fields(*r.st->MuxChunkList()),
            Fields({Rec(8, 10, 40, 1, 1), Rec(18, 20, 40, 1, 2), Rec(38, 30, 30), Rec(68, 40, 40, 1, 2)}));
  EXPECT_EQ((*r.st->MuxChunkList())[0].packetSpan, 3u);
  EXPECT_EQ(Cat({r.At(8, 1), r.At(18, 1), r.At(38, 1), r.At(68, 1)}), H("00 00 32 5a"));  // the pts in ms
  EXPECT_EQ(std::make_tuple(r.st->EntryCount(), r.st->Duration(), r.mdat->RealSize(), r.io.Size()),
            std::make_tuple(4u, 150, 108u, 108));

  // A packet of another media is no failure, and changes nothing.
  MediaPtr other(IMedia::New("aac"));
  PacketPtr foreign = MakePacket(other.get(), Bytes(5, 1), 200 * kMs, kMs, true);
  EXPECT_FALSE(r.st->AddPacket(*foreign, r.io, 0));
  EXPECT_EQ(r.st->MuxChunkList()->size(), 4u);
  EXPECT_EQ(r.io.Size(), 108);
}

TEST(StreamCore, MuxUpdateClosesHeadersAndEditListAndDropsAnEmptyTrack) {
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
  // 200 ms: 120 in the movie's 600 units, 200 in the track's.
  EXPECT_EQ(std::make_tuple(tkhd->_duration, tkhd->_createtime, tkhd->_modifytime, tkhd->_track_id),
            std::make_tuple(120u, 3700000000u, 3700000000u, 4u));
  ASSERT_EQ(elst->_items.size(), 1u);  // the edits before are replaced by one
  EXPECT_EQ(std::make_tuple(elst->_num, elst->_items[0].segment_duration, elst->_items[0].media_time,
                            elst->_items[0].rate),
            std::make_tuple(1u, 120u, 0, 0x10000u));
  EXPECT_EQ(std::make_tuple(mdhd->_duration, mdhd->_timescale), std::make_tuple(200u, 1000u));

  EXPECT_TRUE(r.st->MuxUpdateTkhdDuration(777));  // the edit follows the track's duration
  EXPECT_EQ(elst->_items[0].segment_duration, 777u);

  // An empty track leaves the movie, unless kept.
  for (bool keep : {false, true}) {
    CoreRig e;
    ASSERT_TRUE(e.Config());
    ASSERT_EQ(e.moov->Child(), e.st->Track());
    LogCapture quiet(kiv::dbg::E);
    ASSERT_TRUE(e.st->MuxUpdate(600, keep));
    EXPECT_EQ(e.st->Track() != nullptr, keep);
    EXPECT_EQ(e.moov->Child(), e.st->Track());
  }
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
  for (long long t : {1000 * kMs, 1043 * kMs, 1077 * kMs}) {
    PacketPtr p = MakePacket(media.get(), Nal(0x65, 20), t, 40 * kMs, t == 1000 * kMs);
    ASSERT_TRUE(st->AddPacket(*p, rig.io, 0));
  }
  EXPECT_EQ(st->_firstPts, 2400);
  for (const ChunkParam& c : *st->MuxChunkList()) EXPECT_EQ(c.duration, 2400u);
  ASSERT_TRUE(st->MuxUpdate(600, false));
  EXPECT_EQ(std::make_tuple(st->Duration(), FindBox<ctkhd>(st->Track(), "tkhd")->_duration,
                            FindBox<cmdhd>(st->Track(), "mdhd")->_duration),
            std::make_tuple(120, 72u, 7200u));
}
