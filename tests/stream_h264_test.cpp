// The H.264 track: the wait for the leader, the edit list of B frames, and start codes put back on the
// way out of a file.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "LogCapture.h"
#include "StblTestUtil.h"
#include "StreamRig.h"
#include "stream/plugin/mp4/common/StreamH264.h"
#include "stream/plugin/mp4/common/Stsd.h"

using namespace streamtest;
using namespace kiv::plugin::mov;
using stbltest::H;

namespace {

struct H264Rig : MuxRig {
  H264Sets sets;
  MediaPtr media = NewH264Media(sets);
  IStream* st = nullptr;

  bool Make() {
    st = New("h264", 1);
    return st && st->setString("frameRate", "25/1") && Config(st, media.get());
  }
  bool Add(const Bytes& sample, long long pts, bool key = false, unsigned long long leader = 0) {
    PacketPtr p = MakePacket(media.get(), sample, pts, 40 * kMs, key);
    return st->AddPacket(*p, io, leader);
  }
  std::vector<ChunkParam>& List() { return *st->MuxChunkList(); }
};

}  // namespace

TEST(StreamH264, AFollowingTrackWaitsForTheLeader) {
  H264Rig r;
  r.tags->videosampleperchunk = 2;
  r.tags->audio_chunk_first = 1;
  ASSERT_TRUE(r.Make());
  const Bytes sample = Nal(0x41, 11);
  // Records after a sample at ms with the leader's duration.
  auto add = [&](long long ms, unsigned long long leader) {
    EXPECT_TRUE(r.Add(sample, ms * kMs, ms == 0, leader));
    return r.List().size();
  };
  EXPECT_EQ(add(0, 1000), 0u);
  EXPECT_EQ(add(40, 1000), 0u) << "nothing before the mdat has content";
  r.mdat->Size(1);  // the 64-bit form counts its longer header
  r.mdat->ExtendedSize(16);
  EXPECT_EQ(add(80, 1000), 0u);
  r.mdat->ExtendedSize(17);  // the leader has written
  EXPECT_EQ(add(120, 0), 2u) << "the first group never waits for the duration";
  EXPECT_EQ(r.st->Duration(), 80);
  EXPECT_EQ(add(160, 119), 2u) << "half a chunk ahead of the leader at most: 80 + 40 must not pass it";
  EXPECT_EQ(add(200, 120), 4u);
  EXPECT_EQ(add(240, 0), 4u);
  // At the end the whole groups go out and grow the mdat's size field; the odd one stays out.
  const unsigned long long before = r.mdat->ExtendedSize();
  const long long pos = r.io.Size();
  ASSERT_TRUE(r.st->CleanFifoData(r.io, 0));
  EXPECT_EQ(r.List().size(), 6u);
  EXPECT_EQ(r.List().back().offset, static_cast<unsigned long long>(pos));
  EXPECT_EQ(r.mdat->ExtendedSize(), before + 2 * sample.size());
}

// B frames: the first time stamp hides behind the edit list.
TEST(StreamH264, EditListStartsAtTheFirstTimeStamp) {
  H264Rig r;
  r.tags->video_has_edts = 1;
  r.media->Set("struct", Fcc("ibbp"));
  ASSERT_TRUE(r.Make());
  ASSERT_TRUE(r.Add(Nal(0x65, 10), 80 * kMs, true));
  ASSERT_TRUE(r.Add(Nal(0x41, 10), 120 * kMs));
  ASSERT_TRUE(r.st->MuxUpdate(600, false));
  auto* elst = FindBox<celst>(r.st->Track(), "elst");
  ASSERT_TRUE(elst && elst->_items.size() == 1u);
  EXPECT_EQ(elst->_items[0].media_time, 4800);
  EXPECT_EQ(elst->_items[0].segment_duration, 48u);
}

TEST(StreamH264, DemuxedSamplesGetTheirStartCodesBack) {
  H264Rig mux;
  ASSERT_TRUE(mux.Make());
  StreamH264 st;
  st._trak = mux.st->Track();
  ASSERT_TRUE(st.demuxConfig(nullptr));
  IMedia* m = st.Media();
  int w = 0, h = 0;
  unsigned profile = 0;
  EXPECT_TRUE(m->Get("width", w) && m->Get("height", h) && m->Get("profile", profile));
  EXPECT_EQ(std::make_tuple(w, h, profile), std::make_tuple(64, 48, 100u));
  const Bytes sps = Cat({H("00000001"), mux.sets.sps}), pps = Cat({H("00000001"), mux.sets.pps});
  EXPECT_EQ(Bytes(m->Extra(), m->Extra() + m->ExtraSize()), Cat({sps, pps}));

  const Bytes oneByte = Nal(0x0c, 0), aud = Nal(0x09, 1, 0xf0), idr = Nal(0x65, 20);
  struct Case {
    Bytes in;        // as the muxer saw it
    Bytes restored;  // the head that comes back; the rest stays as stored
    bool key;
  } cases[] = {
      {Cat({aud, sps, pps, idr}), Cat({aud, sps, pps, idr}), true},
      {Cat({oneByte, sps, pps, oneByte, idr}), Cat({oneByte, sps, pps, oneByte}), true},
      {Cat({sps, pps, Nal(0x06, 5), idr}), Cat({sps, pps}), true},
      {Cat({Nal(0x41, 20), Nal(0x01, 9)}), Nal(0x41, 20), false},
      {Cat({Nal(0x67, 3), idr}), Bytes(), true},
  };
  for (const Case& c : cases) {
    const Bytes stored = LengthPrefixed(c.in);
    PacketPtr p = MakePacket(m, stored, 0, 0, false);
    ASSERT_EQ(st.demuxUpdatePacket(mux.io, p.get()), p.get());
    Bytes expect = c.restored;
    expect.insert(expect.end(), stored.begin() + static_cast<long>(expect.size()), stored.end());
    EXPECT_EQ(Bytes(p->Data(), p->Data() + p->Size()), expect);
    EXPECT_EQ(p->IsKey(), c.key);
  }

  LogCapture log(kiv::dbg::E);
  EXPECT_EQ(st.demuxUpdatePacket(mux.io, nullptr), nullptr);
  Packet* bad = reinterpret_cast<Packet*>(intptr_t(-1));
  EXPECT_EQ(st.demuxUpdatePacket(mux.io, bad), bad);
  // A length that points past the sample reads nothing beyond it.
  PacketPtr cut = MakePacket(m, H("00000001 09 000010 00"), 0, 0, false, 0);
  EXPECT_EQ(st.demuxUpdatePacket(mux.io, cut.get()), cut.get());
  st.Track(nullptr);
}
