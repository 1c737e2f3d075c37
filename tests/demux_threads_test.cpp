// Seek, pause, resume and stop from the host's control thread while the demuxer's own thread plays, in a
// seeded random order, with a sink that checks every packet against the file it came from.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "stream/base/dbg/Log.h"
#include "tests/LogCapture.h"
#include "tests/MovieBytes.h"
#include "tests/PlayRig.h"

using namespace playtest;

namespace {

long long MulDiv(long long v, long long mul, long long div) { return (v * mul + div / 2) / div; }

// One track of the file as the walker sees it: starts in track units, keys, sizes.
struct Model {
  explicit Model(const movie::Track& t) : scale(t.scale), starts(movie::Starts(t)) {
    for (const movie::Sample& s : t.samples) keys.push_back(s.key), sizes.push_back(int(s.size));
    total = static_cast<long long>(movie::Length(t));
    for (int i = count() - 1; i >= 0 && last < 0; --i)
      if (keys[size_t(i)]) last = i;
    if (last < 0) last = 0;
  }
  int count() const { return int(starts.size()); }
  long long start(int i) const { return static_cast<long long>(starts[size_t(i)]); }
  long long ms(int i) const { return MulDiv(start(i), 1000, scale); }
  long long units(long long ms) const { return MulDiv(ms, scale, 1000); }
  // The first frame that starts at or after t, the last that starts at or before it.
  int upper(long long t) const {
    if (t < 1) return 0;
    if (t >= total) return count() - 1;
    return int(std::lower_bound(starts.begin(), starts.end(), static_cast<uint64_t>(t)) - starts.begin());
  }
  int lower(long long t) const {
    if (t < 1) return 0;
    if (t >= total) return count() - 1;
    return int(std::upper_bound(starts.begin(), starts.end(), static_cast<uint64_t>(t)) - starts.begin()) - 1;
  }
  int keyAtOrAfter(int i) const {
    while (i < count() && !keys[size_t(i)]) ++i;
    return i < count() ? i : last;
  }
  int keyAtOrBefore(int i) const {
    while (i > 0 && !keys[size_t(i)]) --i;
    return i;
  }
  // Where a seek to t (track units) from frame `cur` lands: forward to the frame at or after t and
  // then on to a key frame, backward to the frame at or before t and back to a key frame.
  int seek(int cur, long long t) const {
    int idx = t == start(cur) ? cur : start(cur) < t ? upper(t) : lower(t);
    return cur > idx ? keyAtOrBefore(idx) : keyAtOrAfter(idx);
  }

  long long scale, total = 0;
  std::vector<uint64_t> starts;
  std::vector<bool> keys;
  std::vector<int> sizes;
  int last = -1;
};

// What the sink knows and expects, under one mutex: the element's thread delivers, the control thread
// seeks. Packets made before a seek made while the run goes on may still arrive while it runs and one
// more just after it: a packet counts as made after a seek only from the second behind the seek's end,
// and what the others tell of the position is not used.
struct Oracle {
  Oracle(const Model& v, const Model& a) : model{v, a} {}

  const Model model[2];
  std::mutex m;
  std::vector<std::string> faults;
  long long seq = 0;        // packets so far
  long long clockBase = 0;  // of the first packet; every later one carries the same
  long long seeksBegun = 0, seeksDone = 0;
  long long wildDone = -2;          // seq when the last seek made while running ended; huge while it runs
  std::vector<std::pair<long long, long long>> done;  // (seek number, seq at its end)
  size_t certain = 0;               // seeks in `done` that every later packet comes after
  int next[2] = {0, 0};             // the frame that continues the track
  int pos[2] = {0, 0};              // the track's current frame in the engine, -1 unknown
  bool used[2] = {false, false};    // that frame has been delivered
  long long lastSeek[2] = {0, 0};   // the last seek the track's last packet surely came after
  int expect[2] = {-1, -1};         // the first packet after a quiet seek; -2: none may come
  std::vector<std::pair<long long, long long>> targets;  // (seek number, ms)
  bool ended = false;
  long long endedAtSeek = -1;
  bool endedDuringSeek = false;
  long long checked[2] = {0, 0}, jumps = 0, afterEos = 0;

  void fault(const std::string& what) {
    if (faults.size() < 20) faults.push_back("packet " + std::to_string(seq) + ": " + what);
  }

  // Is `index` where one of the seeks that the track's last packet may have come before can land?
  bool plausible(int track, int index) const {
    const Model& v = model[0];
    for (const auto& s : targets) {
      if (s.first <= lastSeek[track]) continue;
      const long long t = v.units(s.second);
      const int lo = v.keyAtOrBefore(v.lower(t)), hi = v.keyAtOrAfter(v.upper(t));
      if (track == 0 && (index == lo || index == hi)) return true;
      if (track == 1)
        for (int k : {lo, hi}) {
          const long long ka = model[1].units(v.ms(k));
          if (index == model[1].lower(ka) || index == model[1].upper(ka)) return true;
        }
    }
    return false;
  }

  void packet(const Packet& p) {
    std::lock_guard<std::mutex> lock(m);
    ++seq;
    const int track = p.media && p.media->IsVideo() ? 0 : 1;
    const std::string name = (track ? "audio " : "video ") + std::to_string(p.index);
    const Model& md = model[track];
    const int i = static_cast<int>(p.index);
    if (i < 0 || i >= md.count()) return fault(name + " is not in the table");
    if (seq == 1) clockBase = p.clock;
    if (p.clock != clockBase) fault(name + ": the clock base moved");
    // The bytes are the frame's: its marker, its size (AAC with its 7-byte header), its time and key.
    const int head = track == 0 ? 5 : 7;
    const movie::Bytes mark = movie::Marker(track, i);
    if (p.Size() != md.sizes[size_t(i)] + (track == 1 ? 7 : 0) || !std::equal(mark.begin(), mark.end(), p.Data() + head))
      fault(name + ": the bytes of another frame");
    if ((p.pts - p.clock) / kMs != md.ms(i)) fault(name + ": time " + std::to_string((p.pts - p.clock) / kMs));
    if (p.IsKey() != bool(md.keys[size_t(i)])) fault(name + ": key flag");
    if (ended && seeksBegun == endedAtSeek && !endedDuringSeek) fault(name + " after eos without a seek");
    afterEos += ended;
    ended = false;

    while (certain < done.size() && done[certain].second + 1 < seq) ++certain;
    const long long after = certain ? done[certain - 1].first : 0;
    const bool stale = seq <= wildDone + 1;
    if (expect[track] == -2) {
      fault(name + ": the track played on from its used last frame");
    } else if (expect[track] >= 0) {
      if (i != expect[track]) fault(name + " after a quiet seek, not " + std::to_string(expect[track]));
      ++checked[track];
    } else if (i != next[track]) {
      ++jumps;
      if (lastSeek[track] == seeksBegun) fault(name + ": a jump without a seek");
      else if (track == 0 && !md.keys[size_t(i)]) fault(name + ": a seek landed on no key frame");
      else if (!plausible(track, i)) fault(name + ": no seek since the last packet lands there");
    }
    expect[track] = -1;
    next[track] = i + 1;
    lastSeek[track] = after;
    pos[track] = stale ? -1 : std::min(i + 1, md.count() - 1);
    used[track] = !stale && i == md.count() - 1;
  }

  void eos() {
    std::lock_guard<std::mutex> lock(m);
    ended = true;
    endedAtSeek = seeksBegun;
    endedDuringSeek = seeksBegun != seeksDone;
  }

  // A seek about to be made while the run goes on: the position becomes unknown.
  void wildSeek(long long ms) {
    std::lock_guard<std::mutex> lock(m);
    ++seeksBegun;
    wildDone = 1LL << 62;
    targets.emplace_back(seeksBegun, ms);
    pos[0] = pos[1] = expect[0] = expect[1] = -1;
  }

  // A seek about to be made with the thread quiet (paused or ended): the exact frames it must give.
  void quietSeek(long long ms) {
    std::lock_guard<std::mutex> lock(m);
    ++seeksBegun;
    targets.emplace_back(seeksBegun, ms);
    expect[0] = expect[1] = -1;
    if (pos[0] < 0) return;
    const Model &v = model[0], &a = model[1];
    const int vi = v.seek(pos[0], v.units(ms));
    expect[0] = vi == pos[0] && used[0] ? -2 : vi;
    used[0] = vi == pos[0] && used[0];
    pos[0] = vi;
    if (pos[1] < 0) return;
    const int ai = a.seek(pos[1], a.units(v.ms(vi)));
    expect[1] = ai == pos[1] && used[1] ? -2 : ai;
    used[1] = ai == pos[1] && used[1];
    pos[1] = ai;
  }

  void seekDone(bool wild) {
    std::lock_guard<std::mutex> lock(m);
    ++seeksDone;
    done.emplace_back(seeksDone, seq);
    if (wild) wildDone = seq;
  }
};

}  // namespace

TEST(DemuxThreads, SeekPauseResumeAndStopFromTheControlThread) {
  const unsigned seed = std::getenv("BOXWEAVE_SEED") ? unsigned(std::atoi(std::getenv("BOXWEAVE_SEED"))) : 20240611u;
  SCOPED_TRACE("BOXWEAVE_SEED=" + std::to_string(seed));
  movie::Layout layout;
  layout.tracks = {movie::Video(150, 3600, 12, 90000), movie::Audio(282)};
  const movie::Movie file = movie::Build(layout);
  Oracle oracle{Model(layout.tracks[0]), Model(layout.tracks[1])};

  LogCapture quiet(kiv::dbg::E);
  auto* io = new CountingIO(file.bytes);
  Player play("mem://threads", io);
  ASSERT_TRUE(play.linked);
  std::mt19937 sinkRng(seed + 1);
  play.sink.check = [&](const Packet& p) {
    // A receiver of uneven speed, so that the control thread meets the run in every phase. It waits
    // before it takes the oracle's lock: that lock orders the two threads, and a seek that comes while
    // the packet was being made must find nothing that orders it after the engine's work but the
    // engine's own lock, or the thread sanitizer could not see a missing one.
    std::this_thread::sleep_for(std::chrono::microseconds(sinkRng() % 60));
    oracle.packet(p);
  };
  play.dmx->SetMessageHandler([&](kiv::base::Message& msg) {
    if (std::string(msg.Name()) == "eos") oracle.eos();
    else ADD_FAILURE() << "message " << msg.Name();
  });
  ASSERT_TRUE(play.dmx->Open());
  io->forbidden = std::this_thread::get_id();
  ASSERT_TRUE(play.dmx->Start());

  std::mt19937 rng(seed);
  long long quietSeeks = 0, restarts = 0, pauses = 0, wild = 0, eosSeeks = 0;
  // paused: the thread makes no pass, so that every read would be the seek's. After eos the seek itself
  // lets the run go on, and only the reads on this thread count.
  auto quietSeek = [&](long long ms, bool paused) {
    oracle.quietSeek(ms);
    const long long before = io->reads;
    EXPECT_TRUE(play.dmx->Set("seek", ms));
    if (paused) {
      EXPECT_EQ(io->reads, before) << "a seek reads no media";
    }
    oracle.seekDone(false);
    ++quietSeeks;
  };

  for (int round = 0; round < 400 && !HasFailure(); ++round) {
    const unsigned pick = rng() % 100;
    const long long t = static_cast<long long>(rng() % 6001);
    if (pick < 30) {  // a seek while the run goes on
      oracle.wildSeek(t);
      EXPECT_TRUE(play.dmx->Set("seek", t));
      oracle.seekDone(true);
      ++wild;
    } else if (pick < 55) {  // pause, seek, resume
      ASSERT_TRUE(play.dmx->Pause());
      quietSeek(t, true);
      ASSERT_TRUE(play.dmx->Resume());
    } else if (pick < 65) {
      ASSERT_TRUE(play.dmx->Pause());
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 2000));
      ASSERT_TRUE(play.dmx->Resume());
      ++pauses;
    } else if (pick < 75) {  // stop and start again: the run goes on from where it stood
      ASSERT_TRUE(play.dmx->Stop());
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 2000));
      ASSERT_TRUE(play.dmx->Start());
      ++restarts;
    } else if (pick < 90) {
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
    } else {  // to the end of the run, then a seek: the run plays on
      ASSERT_TRUE(play.dmx->WaitLoopEnd(20000)) << "the run did not end";
      {
        std::lock_guard<std::mutex> lock(oracle.m);
        ASSERT_TRUE(oracle.ended) << "a run ends with eos";
      }
      const size_t had = play.sink.Count();
      quietSeek(t % 5000, false);
      const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
      while (play.sink.Count() == had && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      EXPECT_GT(play.sink.Count(), had) << "a seek after eos plays on";
      ++eosSeeks;
    }
  }
  ASSERT_TRUE(play.dmx->Stop());
  std::lock_guard<std::mutex> lock(oracle.m);
  for (const std::string& f : oracle.faults) ADD_FAILURE() << f;
  EXPECT_EQ(io->foreign, 0) << "media read on the control thread";
  // The run met every kind of move often enough for the checks to mean something.
  EXPECT_GT(oracle.checked[0], 20);
  EXPECT_GT(oracle.checked[1], 20);
  EXPECT_GT(oracle.jumps, 20);
  EXPECT_GT(oracle.afterEos, 10);
  EXPECT_GT(eosSeeks, 10);
  std::printf("seed %u: %lld packets, %lld quiet seeks (%lld video and %lld audio landings checked), %lld seeks while "
              "running (%lld jumps), %lld pauses, %lld restarts, %lld seeks after eos\n",
              seed, oracle.seq, quietSeeks, oracle.checked[0], oracle.checked[1], wild, oracle.jumps, pauses, restarts,
              eosSeeks);
}
