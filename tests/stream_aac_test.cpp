// The AAC track: the wait of a following track and the end of a recording, and ADTS headers put back on
// the way out of a file.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "LogCapture.h"
#include "StblTestUtil.h"
#include "StreamRig.h"
#include "stream/plugin/mp4/common/StreamAac.h"

using namespace streamtest;
using namespace kiv::plugin::mov;
using stbltest::H;

namespace {

struct AacRig : MuxRig {
  MediaPtr media;
  IStream* st = nullptr;
  long long pts = 0;

  AacRig() : media(NewAacMedia()) {}
  bool Make(unsigned samplesPerChunk = 1, bool audioLeads = true) {
    tags->audiosampleperchunk = samplesPerChunk;
    tags->audio_chunk_first = audioLeads;
    st = New("aac", 2);
    return st && Config(st, media.get());
  }
  // A frame of n bytes of v, with the leading track's duration.
  bool Add(const Bytes& frame, unsigned long long leader = 1u << 30) {
    PacketPtr p = MakePacket(media.get(), frame, pts, 21 * kMs, true);
    pts += 21 * kMs;
    return st->AddPacket(*p, io, leader);
  }
  std::vector<ChunkParam>& List() { return *st->MuxChunkList(); }
};

}  // namespace

TEST(StreamAac, FollowingAudioWaitsAndTheEndMatchesTheVideo) {
  AacRig r;
  ASSERT_TRUE(r.Make(2048, false));
  // Records after a frame with the video's duration.
  auto add = [&](unsigned long long video) {
    EXPECT_TRUE(r.Add(Bytes(10, 1), video));
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

  // The video ends where the audio stands, or before: nothing more.
  EXPECT_TRUE(r.st->CleanFifoData(r.io, 107));
  EXPECT_TRUE(r.st->CleanFifoData(r.io, 100));
  EXPECT_EQ(r.List().size(), 5u);
  // 43 ms more video: two frames of 1024 samples fit.
  const unsigned long long mdatBefore = r.mdat->Size();
  EXPECT_TRUE(r.st->CleanFifoData(r.io, 150));
  EXPECT_EQ(r.List().size(), 7u);
  EXPECT_EQ(r.mdat->Size(), mdatBefore + 20u);
  // No video at all: the rest goes out, the last chunk as short as needed.
  const long long pos = r.io.Size();
  EXPECT_TRUE(r.st->CleanFifoData(r.io, 0));
  EXPECT_EQ(r.List().size(), 11u);
  EXPECT_EQ(r.List().back().offset, static_cast<unsigned long long>(pos + 20));
  EXPECT_EQ(r.List()[8].count, 2u);

  // A group left short at the end sets the group size.
  AacRig s;
  ASSERT_TRUE(s.Make(4096));  // groups of five frames
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(s.Add(Bytes(8, 1)));
  EXPECT_TRUE(s.List().empty());
  ASSERT_TRUE(s.st->CleanFifoData(s.io, 0));
  ASSERT_EQ(s.List().size(), 3u);
  for (const ChunkParam& c : s.List()) EXPECT_EQ(c.count, 3u);
  EXPECT_EQ(s.List()[2].offset, 8u);
}

TEST(StreamAac, DemuxedFramesGetAnAdtsHeader) {
  AacRig mux;
  ASSERT_TRUE(mux.Make());
  StreamAac st;
  st._trak = mux.st->Track();
  ASSERT_TRUE(st.demuxConfig(nullptr));
  IMedia* m = st.Media();
  int rate = 0, channel = 0, frm = 0, bitrate = 0;
  long long adtslen = 0;
  bool hasadts = false;
  ASSERT_TRUE(m->Get("rate", rate) && m->Get("channel", channel) && m->Get("frmSampNum", frm) &&
              m->Get("bitrate", bitrate) && m->Get("adtslen", adtslen) && m->Get("hasadts", hasadts));
  EXPECT_EQ(std::make_tuple(rate, channel, frm, bitrate, adtslen, hasadts), std::make_tuple(48000, 2, 1024, 128000, 7, true));
  EXPECT_EQ(Bytes(m->Extra(), m->Extra() + m->ExtraSize()), H("1190"));

  PacketPtr p = MakePacket(m, Bytes(100, 0x33), 0, 0, false, 16);
  ASSERT_EQ(st.demuxUpdatePacket(mux.io, p.get()), p.get());
  ASSERT_EQ(p->Size(), 107);
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
  PacketPtr after = MakePacket(m, Bytes(20, 1), 0, 0, false, 16);
  st.demuxUpdatePacket(mux.io, after.get());
  EXPECT_EQ(tight->Size(), 20);
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
