// The walk by durations over tables left on file steps over a run of equal durations in one go. It
// must land where the walk a frame at a time lands, whatever the runs, the jumps and their order:
// the same table parser driven twice, once with the runs hidden from the walk.
#include <gtest/gtest.h>

#include "tests/ToolRun.h"
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "stream/base/io/IO.h"
#include "stream/base/reflect/IClass.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/core/demux/Mp4Parser.h"
#include "stream/plugin/mp4/demux/IStblParser.h"
#include "stream/plugin/mp4/demux/StreamParser.h"
#include "tests/MovieBytes.h"

namespace {

using kiv::plugin::mov::FrameInfo;
using kiv::plugin::mov::IBox;
using kiv::plugin::mov::IStblParser;
using kiv::plugin::mov::StreamParser;

// The table parser as the demuxer makes it, counting the duration lookups; with `runs` false it tells
// the walk of no run, so that every step is made.
class Counting : public IStblParser {
 public:
  Counting(IStblParser* inner, bool runs) : _inner(inner), _runs(runs) {}
  bool Init(IBox* box) override { return _inner->Init(box); }
  bool GetFrame(int idx, FrameInfo& frm) override { return _inner->GetFrame(idx, frm); }
  int GetFrameCount() override { return _inner->GetFrameCount(); }
  long long GetTotalSize() override { return _inner->GetTotalSize(); }
  long long GetFrameSize(int idx) override { return _inner->GetFrameSize(idx); }
  long long GetFrameDuration(int idx) override {
    ++lookups;
    return _inner->GetFrameDuration(idx);
  }
  bool GetFrameIsKey(int idx) override { return _inner->GetFrameIsKey(idx); }
  int GetLastKeyFrame() override { return _inner->GetLastKeyFrame(); }
  int SameDurationFirst(int idx) override { return _runs ? _inner->SameDurationFirst(idx) : idx; }
  int SameDurationLast(int idx) override { return _runs ? _inner->SameDurationLast(idx) : idx; }

  long long lookups = 0;

 private:
  std::unique_ptr<IStblParser> _inner;
  bool _runs;
};

// The walk with the track's length, which the demuxer takes from the track's header.
struct Walk : StreamParser {
  void length(long long units) { _total_pts = units; }
};

// The file opened with every table on file, read through small blocks; the table parser of its first
// track, made as the demuxer makes it.
struct OnFile {
  std::unique_ptr<kiv::base::IO> io;
  kiv::plugin::mov::Mp4Parser engine;
  Walk walk;
  Counting* parser = nullptr;  // owned by the walk

  bool open(const std::string& path, bool runs) {
    engine._stbl_extern_enable = true;
    engine._stbl_switch_size = 1;
    engine._stbl_blk_size = 64;
    io.reset(kiv::base::IO::New(path.c_str(), "rb"));
    if (!io || !engine.OpenDemuxer(*io)) return false;
    IBox* root = engine.IBoxRootGet();
    IBox* trak = root ? root->Find("trak") : nullptr;
    IBox* stbl = trak ? trak->Find("stbl") : nullptr;
    kiv::base::AttrSet na;
    kiv::base::Object::AttrSetInit(na, nullptr, "mov-stbl-parser-extern");
    IStblParser* made = kiv::base::Object::New<IStblParser>(na);
    if (!stbl || !made) return false;
    parser = new Counting(made, runs);
    if (!parser->Init(stbl)) return false;
    walk.init(parser);
    return true;
  }
};

// Drives both walks through the same seeded mix of searches by time, times of frames, seeks and
// play on a file of one video track with these runs (count, duration) and an audio track behind it;
// every answer must be the same. Gives the duration lookups of each: {with runs, step by step}.
std::pair<long long, long long> SameAnswers(const std::vector<std::pair<uint32_t, uint32_t>>& runs) {
  movie::Layout layout;
  movie::Track video;
  int n = 0;
  long long length = 0;
  for (const auto& [count, duration] : runs) {
    for (uint32_t i = 0; i < count; ++i, ++n) video.samples.push_back({16, duration, n % 13 == 0 || n % 29 == 5});
    length += static_cast<long long>(count) * duration;
  }
  movie::Track audio;
  audio.codec = "mp4a";
  audio.scale = 48000;
  for (int i = 0; i < 300; ++i) audio.samples.push_back({8, 1024, true});
  layout.tracks = {video, audio};
  const movie::Movie m = movie::Build(layout);
  const std::string path = boxtest::ProcessScratch() + "/bw_walk_" + std::to_string(::getpid()) + ".mp4";
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(m.bytes.data()), static_cast<std::streamsize>(m.bytes.size()));
  OnFile fast, steps;
  const bool opened = fast.open(path, true) && steps.open(path, false);
  ::unlink(path.c_str());
  EXPECT_TRUE(opened);
  if (!opened) return {0, 0};
  EXPECT_EQ(fast.walk.GetTotalCount(), n);
  fast.walk.length(length);
  steps.walk.length(length);

  std::mt19937 pick(7);
  for (int round = 0; round < 2000; ++round) {
    const long long pts = static_cast<long long>(pick() % static_cast<uint32_t>(length + 200)) - 100;
    const int idx = static_cast<int>(pick() % static_cast<uint32_t>(n + 4)) - 2;
    const int op = static_cast<int>(pick() % 4);
    const std::string trace = "round " + std::to_string(round) + " op " + std::to_string(op) + " pts " +
                              std::to_string(pts) + " idx " + std::to_string(idx);
    switch (op) {
      case 0: {
        const auto approx = static_cast<kiv::plugin::mov::Approximate>(static_cast<int>(pick() % 3) - 1);
        EXPECT_EQ(fast.walk.GetIndex(pts, approx), steps.walk.GetIndex(pts, approx)) << trace;
        break;
      }
      case 1:
        EXPECT_EQ(fast.walk.GetTimeStamp(idx), steps.walk.GetTimeStamp(idx)) << trace;
        break;
      case 2: {
        const bool align = pick() % 2;
        EXPECT_EQ(fast.walk.Seek(pts, align), steps.walk.Seek(pts, align)) << trace;
        break;
      }
      default:
        // Play on a little, as the demuxer does between seeks.
        for (int k = 0; k < 5; ++k) EXPECT_EQ(fast.walk.Next(false), steps.walk.Next(false)) << trace;
        break;
    }
    EXPECT_EQ(fast.walk.CurrentIndex(), steps.walk.CurrentIndex()) << trace;
    EXPECT_EQ(fast.walk.CurrentPtsInUnits(), steps.walk.CurrentPtsInUnits()) << trace;
    if (::testing::Test::HasFailure()) break;
  }
  return {fast.parser->lookups, steps.parser->lookups};
}

TEST(TablesOnFileWalk, RunsAreSteppedOverAndLandWhereTheStepByStepWalkLands) {
  // One run, as recordings have it: the long jumps cost a lookup or two.
  const auto one = SameAnswers({{3000, 33}});
  EXPECT_LT(one.first * 50, one.second) << one.first << " " << one.second;
  // Runs long and short with zero durations among them: the walk back and on over their edges goes
  // through the tables' own turns there, the same both ways.
  const auto many = SameAnswers({{40, 33}, {1, 34}, {7, 0}, {90, 33}, {3, 1000}, {1, 0}, {200, 40}, {2, 7}, {60, 33}});
  EXPECT_LT(many.first, many.second);
}

}  // namespace
