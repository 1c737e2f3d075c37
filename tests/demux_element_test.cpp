// The demuxer element in a graph: ports, the end of a run, the play range, the clock offset across
// starts, properties before Open, what Open makes of the file's top level, and packets as a host sees them.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
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
  EXPECT_STREQ(p.video->Name(), "0_out_video");
  EXPECT_STREQ(p.audio->Name(), "1_out_audio");
  kiv::stream::IPort* third = p.dmx->CreatePortOut("video", 2);
  ASSERT_NE(third, nullptr);
  EXPECT_STREQ(third->Name(), "2_out_video");
  EXPECT_EQ(p.dmx->CreatePortOut(nullptr, 3), nullptr);
  EXPECT_NE(dynamic_cast<IDemuxer::PortNoDropOut*>(third), nullptr);
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
      {-1, 7, {0, 5}},
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

// A seek after the end of the run plays on from the key frame for that time, audio from the same time.
TEST(DemuxElement, ASeekAfterEosPlaysOnFromTheKeyFrame) {
  LogCapture quiet(kiv::dbg::E);
  movie::Layout s;
  s.tracks = {movie::Video(50, 3600, 10, 90000), movie::Audio(94)};
  MemPlayer p(movie::Build(s).bytes);
  EXPECT_EQ(p.Run(), "eos");
  EXPECT_EQ(p.sink.Count(), 144u);
  ASSERT_TRUE(p.dmx->Start());
  ASSERT_TRUE(p.dmx->WaitLoopEnd(20000));  // a second "eos": nothing left to play
  ASSERT_EQ(p.MessageCount(), 2u);
  p.sink.Clear();
  auto* io = dynamic_cast<CountingIO*>(p.dmx->io);
  ASSERT_NE(io, nullptr);
  const long long reads = io->reads;
  io->forbidden = std::this_thread::get_id();
  EXPECT_TRUE(p.dmx->Set("seek", 500LL));  // backward from the end: frame 12, key frame 10 (400 ms)
  ASSERT_EQ(p.WaitMessage(3).substr(0, 4), "eos:");
  EXPECT_EQ(io->foreign, 0) << "the seek read nothing on this thread";
  EXPECT_GT(io->reads, reads);
  const std::vector<Got> got = p.sink.Packets();
  ASSERT_FALSE(got.empty());
  // In file order: the audio frame at or before 400 ms (384 ms) lies in front of the key frame.
  ASSERT_GE(got.size(), 2u);
  EXPECT_TRUE(!got[0].video && got[0].index == 18 && got[0].ms == 384) << got[0].index << " " << got[0].ms;
  EXPECT_TRUE(got[1].video && got[1].key && got[1].index == 10 && got[1].ms == 400) << got[1].index << " " << got[1].ms;
  EXPECT_EQ(got.size(), 40u + 94u - 18u);
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
  int offered = 0;
  p.dmx->SetWithType("parse", std::function<bool(kiv::stream::IMedia*)>([&](kiv::stream::IMedia*) { return ++offered; }));
  EXPECT_EQ(offered, 0) << "the element's parse offers nothing";
  // The ports took their media before any packet: a host sees the H.264 parameter sets.
  ASSERT_NE(p.video->Media(), nullptr);
  EXPECT_STREQ(p.video->Media()->Codec(), "h264");
  ASSERT_NE(p.audio->Media(), nullptr);
  EXPECT_STREQ(p.audio->Media()->Codec(), "aac");
}

// Packets leave as a host takes them: H.264 behind start codes, AAC behind an ADTS header.
TEST(DemuxElement, PacketsCarryStartCodesAndAdtsHeaders) {
  LogCapture quiet(kiv::dbg::E);
  movie::Layout s;
  s.tracks = {movie::Video(3), movie::Audio(3)};
  MemPlayer p(movie::Build(s).bytes);
  EXPECT_EQ(p.Run(), "eos");
  for (const Got& g : p.sink.Packets()) {
    SCOPED_TRACE(std::to_string(g.video) + "/" + std::to_string(g.index));
    ASSERT_GE(g.head.size(), 8u);
    if (g.video) {
      EXPECT_EQ(movie::Bytes(g.head.begin(), g.head.begin() + 5), (movie::Bytes{0, 0, 0, 1, static_cast<unsigned char>(g.key ? 0x65 : 0x41)}));
    } else {
      EXPECT_EQ(g.head[0], 0xff);
      EXPECT_EQ(g.head[1] & 0xf6, 0xf0) << "ADTS sync word, layer 0";
      EXPECT_EQ(((g.head[3] & 3) << 11 | g.head[4] << 3 | g.head[5] >> 5), g.size) << "the frame length";
    }
  }
}

// "live" paces the packets against the steady clock: 200 ms of file take about 200 ms. The property is
// found by name once the host has registered the demuxer base, which the module leaves to it.
TEST(DemuxElement, LivePacesThePackets) {
  LogCapture quiet(kiv::dbg::E);
  RegisterIFileDemuxer();
  movie::Layout s;
  s.tracks = {movie::Video(6, 40, 1)};
  for (bool live : {false, true}) {
    SCOPED_TRACE(live);
    MemPlayer p(movie::Build(s).bytes);
    EXPECT_TRUE(p.dmx->Set("live", live));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(p.Run(), "eos");
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(p.sink.Count(), 6u);
    if (live) {
      EXPECT_GE(ms, 195) << "the last packet leaves 200 ms after the first";
    } else {
      EXPECT_LT(ms, 150);
    }
  }
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
