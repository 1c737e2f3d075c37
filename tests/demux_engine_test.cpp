// The demux engine over files laid out byte by byte: the track walker (seeks by time, key frames,
// zero-length samples, flags on packets) and the choice of the next packet across tracks.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "stream/base/io/IO.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/common/IStream.h"
#include "stream/plugin/mp4/core/demux/Mp4Parser.h"
#include "stream/plugin/mp4/demux/StreamDemuxer.h"
#include "tests/LogCapture.h"
#include "tests/MovieBytes.h"

using namespace kiv::plugin::mov;
using kiv::stream::Packet;

namespace {

Packet* const kError = reinterpret_cast<Packet*>(intptr_t(-1));

// The engine of ordinary files over a file in memory.
struct Engine {
  explicit Engine(const movie::Bytes& bytes) {
    io.Write(bytes.data(), static_cast<long long>(bytes.size()));
    io.Seek(0, kiv::Position::front);
    opened = parser.OpenDemuxer(io);
  }
  ~Engine() { parser.CloseDemuxer(); }
  std::vector<IStream*> streams() { return parser.StreamingGet(); }
  StreamDemuxer* walker(size_t track) { return streams().at(track)->_demuxer; }
  // Every packet to the end as "track/index" (the track by the marker in its bytes), or "error".
  std::vector<std::string> playAll(size_t limit = 100000) {
    std::vector<std::string> out;
    for (Packet* p; out.size() < limit && (p = parser.GeneratePacket(nullptr));) {
      if (p == kError) {
        out.push_back("error");
        break;
      }
      out.push_back(name(*p));
      p->Release();
    }
    return out;
  }
  static std::string name(const Packet& p) {
    const int at = p.media && p.media->IsVideo() ? 5 : 7;
    return p.Size() > at ? std::to_string(p.Data()[at] & 0x7f) + "/" + std::to_string(p.index) : "?";
  }
  kiv::base::IOBuffer io;
  Mp4Parser parser;
  bool opened = false;
};

std::vector<std::string> Names(const std::vector<std::pair<int, int>>& order) {
  std::vector<std::string> out;
  for (const auto& o : order) out.push_back(std::to_string(o.first) + "/" + std::to_string(o.second));
  return out;
}

// Video of 50 frames of 40 ms at 90 kHz, a key frame every 10 (0, 400, ... 1600 ms), and AAC beside it.
movie::Layout AV() {
  movie::Layout s;
  s.tracks = {movie::Video(50, 3600, 10, 90000), movie::Audio(94)};
  return s;
}

}  // namespace

// Where a seek by time lands, from where the walker stands: forward to the key frame at or after the
// frame at or after the time, backward to the key frame at or before the frame at or before it.
TEST(DemuxWalker, SeeksLandOnTheKeyFrameTheDirectionChooses) {
  LogCapture quiet;
  Engine e(movie::Build(AV()).bytes);
  ASSERT_TRUE(e.opened);
  StreamDemuxer* v = e.walker(0);
  struct Case {
    int from;       // frame the walker stands on
    long long ms;   // seek target
    bool align;
    bool ok;
    int index;      // where it stands afterwards
  } cases[] = {
      {0, 500, true, true, 20},     // forward: frame 13 (520 ms), then key frame 20
      {49, 500, true, true, 10},    // backward: frame 12 (480 ms), then key frame 10
      {30, 399, true, true, 0},     // backward to frame 9, key frame 0
      {0, 2000, true, true, 40},    // the duration itself is a time of the track
      {25, 1000, false, true, 25},  // the current time keeps the index without alignment too
      {25, 1000, true, true, 30},   // a frame that is no key frame goes on to the next key frame
      {30, 0, true, true, 0},
      {13, 500, false, true, 12},   // unaligned, backward: the frame at or before the time
      {10, 500, false, true, 13},   // unaligned, forward: the frame at or after the time
      {7, 2001, true, false, 7},    // beyond the track: refused, nothing moves
      {7, -1, true, false, 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("from " + std::to_string(c.from) + " to " + std::to_string(c.ms) + " ms");
    ASSERT_TRUE(v->SeekByIndex(c.from, false));
    EXPECT_EQ(v->Seek(c.ms, c.align), c.ok);
    EXPECT_EQ(v->CurrentIndex(), c.index);
    EXPECT_EQ(v->CurrentPts(), c.index * 40) << "the time goes with the frame";
  }
  EXPECT_TRUE(v->CheckPts(2000));
  EXPECT_FALSE(v->CheckPts(-1));
  EXPECT_EQ(v->GetGop(), 10);
  EXPECT_EQ(v->GetLastKeyFrame(), 40);
}

// A track whose first frame is no key frame: a backward search ends at frame 0 all the same.
TEST(DemuxWalker, BackwardAlignmentEndsAtTheFirstFrame) {
  movie::Layout s;
  s.tracks = {movie::Video(30, 40, 10, 1000)};
  for (size_t i = 0; i < 30; ++i) s.tracks[0].samples[i].key = i == 5 || i == 15;
  LogCapture quiet;
  Engine e(movie::Build(s).bytes);
  StreamDemuxer* v = e.walker(0);
  ASSERT_TRUE(v->SeekByIndex(20, false));
  EXPECT_EQ(v->FindIndexAlign(3), 0);
  EXPECT_TRUE(v->Seek(100, true));
  EXPECT_EQ(v->CurrentIndex(), 0);
  EXPECT_FALSE(v->CurrentIsKey());
  EXPECT_EQ(v->GetGop(), 10);
  EXPECT_EQ(v->GetLastKeyFrame(), 15);
}

// Zero-length samples are never delivered and their time goes to the next frame with bytes; a run of
// them at the end of the table ends the track with a line.
TEST(DemuxWalker, ZeroLengthSamplesAreSkippedWithTheirTimeKept) {
  movie::Layout s;
  s.tracks = {movie::Video(8, 40, 100, 1000)};
  for (int i : {1, 4, 5, 7}) s.tracks[0].samples[size_t(i)].size = 0;
  LogCapture log;
  Engine e(movie::Build(s).bytes);
  std::vector<std::string> got;
  for (Packet* p; (p = e.parser.GeneratePacket(nullptr));) {
    ASSERT_NE(p, kError);
    got.push_back(std::to_string(p->index) + "@" + std::to_string(p->pts / 1000000) + "+" +
                  std::to_string(p->duration / 1000000));
    p->Release();
    ASSERT_LT(got.size(), 10u);
  }
  EXPECT_EQ(got, (std::vector<std::string>{"0@0+40", "2@80+80", "3@120+40", "6@240+120"}));
  EXPECT_TRUE(log.Has("zero-length samples up to the end of the table"));
}

TEST(DemuxWalker, ExtFlagsRideOnOnePacketAndEosFlagsOnTheLastFrame) {
  LogCapture quiet(kiv::dbg::E);
  movie::Layout s;
  s.tracks = {movie::Video(4)};
  Engine e(movie::Build(s).bytes);
  StreamDemuxer* v = e.walker(0);
  v->ExtFlags(0x100);
  v->EosFlags(0x20);
  std::vector<unsigned> flags;
  for (Packet* p; (p = e.parser.GeneratePacket(nullptr)) && p != kError; p->Release()) flags.push_back(p->flags);
  EXPECT_EQ(flags, (std::vector<unsigned>{0x100, 0, 0, 0x20}));
}

// Tracks leave in the order their samples lie in the file, whatever their times.
TEST(DemuxEngine, PacketsFollowTheFilePositionAcrossTracks) {
  LogCapture quiet(kiv::dbg::E);
  movie::Layout s;
  s.tracks = {movie::Video(4), movie::Audio(5)};
  struct Case {
    const char* name;
    std::vector<std::pair<int, int>> order;
  } cases[] = {
      {"audio, video, audio", {{1, 0}, {0, 0}, {1, 1}, {1, 2}, {0, 1}, {0, 2}, {1, 3}, {0, 3}, {1, 4}}},
      {"video last samples first", {{0, 0}, {0, 1}, {0, 2}, {0, 3}, {1, 0}, {1, 1}, {1, 2}, {1, 3}, {1, 4}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    s.order = c.order;
    Engine e(movie::Build(s).bytes);
    ASSERT_TRUE(e.opened);
    EXPECT_EQ(e.playAll(), Names(c.order));
    EXPECT_EQ(e.parser.GeneratePacket(nullptr), nullptr) << "and null after the end, again";
  }
}

// Which tracks a file gives: the first video track only plays; a box between two traks hides the
// later ones; a file without mdat has its tracks, but none can play.
TEST(DemuxEngine, WhichTracksPlay) {
  LogCapture log;
  {
    movie::Layout s;
    s.tracks = {movie::Video(3), movie::Video(3), movie::Audio(2)};
    Engine e(movie::Build(s).bytes);
    ASSERT_EQ(e.streams().size(), 3u);
    EXPECT_EQ(e.playAll(), (std::vector<std::string>{"0/0", "2/0", "2/1", "0/1", "0/2"}));
  }
  {
    movie::Layout s;
    s.tracks = {movie::Video(3), movie::Audio(2)};
    s.afterFirstTrak = boxtest::Box("udta", boxtest::Box("free"));
    Engine e(movie::Build(s).bytes);
    ASSERT_TRUE(e.opened);
    EXPECT_EQ(e.streams().size(), 1u) << "the trak behind udta is not seen";
    EXPECT_EQ(e.playAll(), (std::vector<std::string>{"0/0", "0/1", "0/2"}));
  }
  {
    movie::Layout s;
    s.tracks = {movie::Video(3), movie::Audio(2)};
    s.mdat = false;
    Engine e(movie::Build(s).bytes);
    ASSERT_TRUE(e.opened) << "the tree parses";
    EXPECT_EQ(e.streams().size(), 2u);
    EXPECT_EQ(log.Count("!_mdat"), 2u);
    EXPECT_TRUE(e.playAll().empty()) << "no track can play";
  }
  {
    movie::Layout s;  // a sample entry of a codec without a track class ("text": the text track is "txt") is passed over
    s.tracks = {movie::Video(2), movie::Audio(2)};
    s.tracks[0].codec = "text";
    Engine e(movie::Build(s).bytes);
    ASSERT_EQ(e.streams().size(), 1u);
    EXPECT_EQ(e.playAll(), (std::vector<std::string>{"1/0", "1/1"}));
  }
}
