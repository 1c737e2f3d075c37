// The demuxer element in a graph: ports, the end of a run, the play range, the clock offset across
// starts, properties before Open and what Open makes of the file's top level.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stream/plugin/mp4/core/demux/FMp4Parser.h"
#include "stream/plugin/mp4/core/demux/Mp4Demuxer.h"
#include "tests/LogCapture.h"
#include "tests/MovieBytes.h"
#include "tests/PlayRig.h"

using namespace playtest;

namespace {

// A player over bytes in memory.
struct MemPlayer : Player {
  explicit MemPlayer(const movie::Bytes& b) : Player("mem://element", new CountingIO(b)) {}
};

std::vector<long long> Times(const std::vector<Got>& got, bool video = true) {
  std::vector<long long> out;
  for (const Got& g : got)
    if (g.video == video) out.push_back(g.ms);
  return out;
}

}  // namespace

TEST(DemuxElement, PortsAreNamedByIndexAndCaps) {
  LogCapture quiet(kiv::dbg::E);
  Player p("unused");
  ASSERT_NE(p.dmx, nullptr) << "found by the keywords demuxer-mov";
  EXPECT_STREQ(p.audio->Name(), "1_out_audio");
  EXPECT_EQ(p.dmx->CreatePortOut(nullptr, 3), nullptr);
  EXPECT_NE(dynamic_cast<IDemuxer::PortNoDropOut*>(p.video), nullptr);
}

// A file that parses but has no track (a recording cut before its moov was written): "eos" at the
// first pass, with the clock still zero.
TEST(DemuxElement, AFileWithoutPacketsEndsAtOnceWithClockZero) {
  LogCapture quiet(kiv::dbg::E);
  const movie::Bytes bytes = boxtest::Cat({boxtest::kit::B("ftyp", "'isom' 00000200 'isom'"),
                                           boxtest::Box("mdat", movie::Bytes(300, 0x41))});
  MemPlayer p(bytes);
  EXPECT_EQ(p.Run(), "eos");
  EXPECT_EQ(p.Messages(), std::vector<std::string>{"eos:0"});
  EXPECT_EQ(p.sink.Count(), 0u);
  EXPECT_EQ(p.video->Media(), nullptr) << "no track, no media on the port";
}

// The play range: Start seeks to the first time (when it is 1 ms or more), and the packet whose time
// passes the last time ends the run unsent; a packet exactly at it plays.
TEST(DemuxElement, PlayRangeFromAndTo) {
  LogCapture quiet(kiv::dbg::E);
  movie::Layout s;
  s.tracks = {movie::Video(6, 5, 1)};  // a key frame every 5 ms: 0 5 10 15 20 25
  const movie::Bytes bytes = movie::Build(s).bytes;
  struct Case {
    long long from, to;  // -1: not set
    std::vector<long long> times;
  } cases[] = {
      {-1, -1, {0, 5, 10, 15, 20, 25}},
      {-1, 0, {0, 5, 10, 15, 20, 25}},  // 0: no limit
      {-1, 5, {0, 5}},
      {0, -1, {0, 5, 10, 15, 20, 25}},  // 0 seeks nothing
      {1, -1, {5, 10, 15, 20, 25}},     // 1 ms seeks forward to the frame at 5 ms
      {12, 20, {15, 20}},
      {25, 25, {25}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("from " + std::to_string(c.from) + " to " + std::to_string(c.to));
    MemPlayer p(bytes);
    if (c.from >= 0) p.dmx->PlayRangeFrom(c.from);
    if (c.to >= 0) p.dmx->PlayRangeTo(c.to);
    EXPECT_EQ(p.Run(), "eos");
    const std::vector<Got> got = p.sink.Packets();
    EXPECT_EQ(Times(got), c.times);
    ASSERT_FALSE(got.empty());
    // "clock" is the last packet's time on the steady clock, also when the range ends the run.
    EXPECT_EQ(p.Messages(), std::vector<std::string>{"eos:" + std::to_string(got.back().ms * kMs + got.back().clock)});
    EXPECT_EQ(p.dmx->PlayTime(), (got.back().ms * kMs + got.back().clock) / kMs);
  }
}

// The offset between file time and steady clock is fixed by the first packet of the first run: a later
// Start keeps it, so the time line runs on.
TEST(DemuxElement, ALaterStartKeepsTheFirstOffset) {
  LogCapture quiet(kiv::dbg::E);
  movie::Layout s;
  s.tracks = {movie::Video(10), movie::Audio(20)};
  MemPlayer p(movie::Build(s).bytes);
  EXPECT_EQ(p.Run(), "eos");
  const std::vector<Got> first = p.sink.Packets();
  ASSERT_EQ(first.size(), 30u);
  const long long base = first[0].clock;
  EXPECT_NE(base, 0);
  EXPECT_EQ(p.dmx->_time_offset, base);
  EXPECT_TRUE(p.dmx->Set("seek", 0LL));
  p.sink.Clear();
  ASSERT_TRUE(p.dmx->Start());
  EXPECT_EQ(p.WaitMessage(2), "eos:" + std::to_string(first.back().ms * kMs + base));
  const std::vector<Got> second = p.sink.Packets();
  ASSERT_EQ(second.size(), 30u) << "the seek to 0 plays the file again";
  for (const Got& g : second) EXPECT_EQ(g.clock, base);
  EXPECT_EQ(Times(second), Times(first));
}

// "duration" and the thumbnail before Open, and for an ordinary file after it.
TEST(DemuxElement, PropertiesBeforeAndAfterOpen) {
  movie::Layout s;
  s.tracks = {movie::Video(25), movie::Audio(10)};
  LogCapture log;
  MemPlayer p(movie::Build(s).bytes);
  unsigned long long duration = 7;
  EXPECT_TRUE(p.dmx->Get("duration", duration));
  EXPECT_EQ(duration, 0u);
  EXPECT_TRUE(log.Has("!_demuxer"));
  EXPECT_FALSE(p.dmx->Set("seek", 5LL)) << "nothing to seek";
  ASSERT_TRUE(p.dmx->Open());
  EXPECT_TRUE(p.dmx->Get("duration", duration));
  EXPECT_EQ(duration, 1000u);
  unsigned thumbSize = 9;
  unsigned char* thumb = reinterpret_cast<unsigned char*>(&thumbSize);
  EXPECT_TRUE(p.dmx->Get("thumbsize", thumbSize) && p.dmx->Get("thumbdata", thumb));
  EXPECT_EQ(thumbSize, 0u);
  EXPECT_EQ(thumb, nullptr);
  // The ports took their media before any packet: a host sees the H.264 parameter sets.
  ASSERT_NE(p.video->Media(), nullptr);
  EXPECT_STREQ(p.video->Media()->Codec(), "h264");
  ASSERT_NE(p.audio->Media(), nullptr);
  EXPECT_STREQ(p.audio->Media()->Codec(), "aac");
}

// What Open makes of the file's top level: a "moof" before any box of 64-bit size means a fragmented
// file and its own engine, anything else an ordinary one.
TEST(DemuxElement, OpenTellsFragmentedFilesByATopLevelMoof) {
  movie::Layout s;
  s.tracks = {movie::Video(3)};
  const movie::Bytes plain = movie::Build(s).bytes;
  const movie::Bytes moof = boxtest::Box("moof", boxtest::kit::B("mfhd", "00000000 00000001"));
  struct Case {
    const char* name;
    movie::Bytes bytes;
    bool fragmented;
    const char* line;  // a line the log must hold
    const char* not_line;
  } cases[] = {
      // Neither has a box that can be read: each opens as a movie without tracks, and plays nothing.
      {"an empty file", {}, false, nullptr, "size==0"},
      {"a first box of size 0", boxtest::Cat({boxtest::Header(0, "ftyp"), plain}), false, ":size==0", nullptr},
      {"moof behind ftyp and moov", boxtest::Cat({plain, moof}), true, nullptr, nullptr},
      {"moof behind a box of 64-bit size", boxtest::Cat({plain, boxtest::Header64(16, "free"), moof}), false, nullptr,
       nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    MemPlayer p(c.bytes);
    ASSERT_TRUE(p.dmx->Open());
    EXPECT_TRUE(!c.line || log.Has(c.line)) << c.line;
    EXPECT_TRUE(!c.not_line || !log.Has(c.not_line)) << c.not_line;
    auto* dmx = dynamic_cast<kiv::plugin::mov::Mp4Demuxer*>(p.dmx.get());
    ASSERT_NE(dmx, nullptr);
    ASSERT_NE(dmx->Engine(), nullptr);
    EXPECT_EQ(dynamic_cast<kiv::plugin::mov::FMp4Parser*>(dmx->Engine()) != nullptr, c.fragmented);
  }
}
