// play_bench: what playing a recording costs through the real product path, against a plain read of
// the file and against ffmpeg reading every packet of it. It records a generated stream (small
// pictures at 30 frames a second with AAC) of one minute, one hour and three hours with
// `boxweave record`, then runs on each recording, in turns: `cat FILE` into /dev/null, the player
// both ways (`boxweave play FILE`: the demuxer element with its sample tables in memory, and
// `boxweave play --tables-on-file FILE`: every table answered from the file a block at a time),
// every packet to a sink that counts it, and `ffmpeg -i FILE -map 0 -c copy -f null -`. Each is a
// child of its own, so its wall time and its peak memory (ru_maxrss from wait4) are its own.
//
// Then, in this process, the plug-in's demuxer element on the longest recording both ways: the time
// from creating the element to its first packet, and the time of random seeks (the seek and the
// first packet after it).
//
// Then the fragmented case: the one-minute and the long input recorded with `record --fragmented`,
// played by `boxweave play FILE` in turns with `cat` and ffmpeg as above; the peak memory of the
// long recording against the one-minute one tells whether the player's memory grows with the file.
//
// The long inputs are the one-minute input put end to end: the encoders would take minutes for what
// a copy does in a second, and nothing here looks at the pictures.
//
// Children start by fork and exec: a child's peak counts the pages of this program it holds until it
// execs (a vfork would lend it all of them, and its figure could not be below this program's peak).
// The program keeps itself small until the children have run, and prints its own peak.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "BenchUtil.h"
#include "stream/base/AttrSet.h"
#include "stream/base/dbg/Log.h"
#include "stream/base/reflect/IClass.h"
#include "stream/core/Packet.h"
#include "stream/core/fw/IElement.h"
#include "stream/plugin/mp4/core/demux/IDemuxer.h"
#include "stream/plugin/mp4/core/demux/Mp4Demuxer.h"

namespace boxweave {
namespace {

using namespace bench;

// Of ffmpeg's figures on the one-hour recording: the player's time at most a third, its memory a quarter.
constexpr double kTimeTarget = 1.0 / 3;
constexpr double kMemoryTarget = 1.0 / 4;
// With the tables on file: peak memory the same for every length (within 1 MiB) and under 10 MB; the
// first packet of the longest recording within 50 ms; a seek within 1 ms on average.
constexpr long kFlatKiB = 1024;
constexpr long kOnFileMaxKiB = 10 * 1000 * 1000 / 1024;
constexpr double kFirstPacketTargetMs = 50;
constexpr double kSeekTargetMs = 1;
constexpr int kSeeks = 100;

struct Options : CommonOptions {
  Options() : CommonOptions(5) {}
  std::vector<std::string> player;  // the command; the file goes last
  int longestMinutes = 180;
  bool fragmented = true;  // the fragmented case runs unless turned off
};

// The programs that read a recording, in the order they take turns.
enum Tool { kCat, kPlay, kOnFile, kFfmpeg, kTools };
const char* const kToolNames[kTools] = {"cat", "play", "play-on-file", "ffmpeg"};

// One recording and what each program gave on it over the runs.
struct Recording {
  Input input;
  std::string path;
  long long bytes = 0;
  long long videoPackets = 0;  // what the input holds, so what a player must give
  long long audioPackets = 0;
  std::vector<double> seconds[kTools];
  std::vector<double> cpuSeconds[kTools];
  long maxKiB[kTools] = {-1, -1, -1, -1};
  bool countsSeen = false;  // the player printed its packet counts (and they were right)
  bool fragmented = false;  // recorded with --fragmented
};

// The frames of an ADTS stream, header after header; -1 for a stream that breaks off or loses its
// sync word. Header by header with pread: no buffer that would raise this program's peak.
long long countAdtsFrames(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  long long count = 0;
  off_t at = 0;
  for (;;) {
    unsigned char h[7];
    const ssize_t n = pread(fd, h, sizeof h, at);
    if (n == 0) break;
    if (n != static_cast<ssize_t>(sizeof h) || h[0] != 0xff || (h[1] & 0xf6) != 0xf0) {
      count = -1;
      break;
    }
    const off_t length = (h[3] & 3) << 11 | h[4] << 3 | h[5] >> 5;
    if (length < static_cast<off_t>(sizeof h)) {
      count = -1;
      break;
    }
    at += length;
    ++count;
  }
  close(fd);
  return count;
}

// "<kind>: ..., N packets ..." in the player's summary: N, or -1 without such a line.
long long summaryPackets(const std::string& path, const char* kind) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return -1;
  const std::string head = std::string(kind) + ":";
  long long packets = -1;
  char buf[1024];
  while (std::fgets(buf, sizeof buf, f)) {
    const std::string line(buf);
    if (!StartsWith(line, head.c_str())) continue;
    const size_t word = line.find(" packets");
    if (word == std::string::npos) continue;
    size_t digits = word;
    while (digits > 0 && line[digits - 1] >= '0' && line[digits - 1] <= '9') --digits;
    if (digits < word) packets = std::strtoll(line.c_str() + digits, nullptr, 10);
  }
  std::fclose(f);
  return packets;
}

// Counts the packets the element hands over.
class CountingSink : public kiv::stream::ISink {
 public:
  bool ReceivePacket(kiv::stream::Packet&, void*) override {
    ++packets;
    return true;
  }
  using ISink::ReceivePacket;
  long long packets = 0;
};

// The demuxer element found by keywords on one file, its passes made on this thread one at a time as
// its own thread makes them.
class Player {
 public:
  bool Open(const std::string& path, bool onFile) {
    kiv::base::AttrSet ap;
    kiv::base::Object::AttrSetInit(ap, nullptr, "demuxer-mov");
    _dmx.reset(kiv::base::Object::New<kiv::stream::IDemuxer>(ap));
    auto* mp4 = dynamic_cast<kiv::plugin::mov::Mp4Demuxer*>(_dmx.get());
    if (!mp4) return false;
    mp4->TablesOnFile(onFile);
    mp4->setString("url", path.c_str());
    kiv::stream::IPort* video = _dmx->CreatePortOut("video", 0);
    kiv::stream::IPort* audio = _dmx->CreatePortOut("audio", 1);
    return video && audio && _video.LinkFrom(video) && _audio.LinkFrom(audio) && _dmx->Open();
  }
  // Passes until a packet arrives; false when the run ends first.
  bool NextPacket() {
    const long long before = _video.packets + _audio.packets;
    while (_video.packets + _audio.packets == before) {
      if (_dmx->LoopEnd()) return false;
      _dmx->ProcessPacket();
    }
    return true;
  }
  bool Seek(long long ms) { return _dmx->Seek(ms) && NextPacket(); }
  unsigned long long Duration() { return _dmx->Duration(); }
  ~Player() {
    if (_dmx) _dmx->Close();
  }

 private:
  CountingSink _video, _audio;
  std::unique_ptr<kiv::stream::IDemuxer> _dmx;  // goes first: its ports point at the sinks
};

// What the element does on the longest recording one way.
struct Probe {
  std::vector<double> firstMs;  // from creating the element to its first packet, a round each
  double seekMeanMs = 0;
  double seekMaxMs = 0;
  int seekFailures = 0;
};

bool probe(const std::string& path, bool onFile, int rounds, Probe& p) {
  for (int round = 0; round <= rounds; ++round) {  // round 0 warms the caches
    const double start = Now();
    Player player;
    if (!player.Open(path, onFile) || !player.NextPacket()) {
      std::fprintf(stderr, "play_bench: the demuxer element gives no packet of %s\n", path.c_str());
      return false;
    }
    if (round > 0) p.firstMs.push_back((Now() - start) * 1e3);
  }
  Player player;
  if (!player.Open(path, onFile) || player.Duration() == 0) {
    std::fprintf(stderr, "play_bench: the demuxer element cannot open %s\n", path.c_str());
    return false;
  }
  std::mt19937_64 pick(20261124);  // the same points every run and both ways
  std::uniform_int_distribution<unsigned long long> at(0, player.Duration() - 1);
  double total = 0;
  for (int i = 0; i < kSeeks; ++i) {
    const long long ms = static_cast<long long>(at(pick));
    const double start = Now();
    if (!player.Seek(ms)) ++p.seekFailures;
    const double took = (Now() - start) * 1e3;
    total += took;
    p.seekMaxMs = std::max(p.seekMaxMs, took);
  }
  p.seekMeanMs = total / kSeeks;
  return true;
}

class PlayBench {
 public:
  explicit PlayBench(Options o) : _o(std::move(o)) {}

  int Run();

 private:
  bool prepare(const Input& in, Recording& rec, bool fragmented = false);
  int runFragmented(const Input& one, const Input& lng);
  bool runOnce(Recording& rec, Tool tool, bool counted);
  void printTable(const char* title, const std::vector<Recording>& recs, bool cpu) const;

  Options _o;
  std::string _outDir;
};

// The recording of one input, kept in the data directory; made again when the host program or the
// input is newer than it, so that a changed recorder is what gets played.
bool PlayBench::prepare(const Input& in, Recording& rec, bool fragmented) {
  rec.input = in;
  rec.fragmented = fragmented;
  std::string base = in.video.substr(0, in.video.rfind('.')) + (fragmented ? "-fragmented" : "");
  const std::string format = fragmented ? "mp4" : _o.format;
  rec.path = base + "." + format;
  rec.videoPackets = static_cast<long long>(in.minutes) * 60 * kFps;
  rec.audioPackets = countAdtsFrames(in.audio);
  if (rec.audioPackets <= 0) {
    std::fprintf(stderr, "play_bench: %s is no ADTS stream\n", in.audio.c_str());
    return false;
  }
  const long long made = ModifiedNs(rec.path);
  if (FileSize(rec.path) <= 0 || made < ModifiedNs(_o.boxweave) || made < ModifiedNs(in.video) ||
      made < ModifiedNs(in.audio)) {
    std::printf("recording the %d-minute input with %s record%s into %s ...\n", in.minutes, _o.boxweave.c_str(),
                fragmented ? " --fragmented" : "", rec.path.c_str());
    std::fflush(stdout);
    // The format comes from the name's extension; the half-made file never has the final name.
    const std::string part = base + "-part." + format;
    const std::string log = _outDir + "/record.log";
    std::vector<std::string> argv = {_o.boxweave, "record", "-o", part, "--video", in.video, "--audio", in.audio};
    if (fragmented) argv.push_back("--fragmented");
    ChildRun run;
    if (!RunChild(argv, log.c_str(), log.c_str(), run)) return false;
    if (!run.Succeeded() || FileSize(part) <= 0) {
      std::fprintf(stderr, "play_bench: the recording failed (%s):\n%s\n", DescribeStatus(run.status).c_str(),
                   TailOf(log).c_str());
      unlink(part.c_str());
      return false;
    }
    if (rename(part.c_str(), rec.path.c_str()) != 0) {
      std::fprintf(stderr, "play_bench: cannot rename %s: %s\n", part.c_str(), std::strerror(errno));
      return false;
    }
    unlink(log.c_str());
    std::printf("  done in %.1f s\n", run.seconds);
  }
  rec.bytes = FileSize(rec.path);
  return rec.bytes > 0;
}

// One program over one recording; a run that is not counted warms the caches.
bool PlayBench::runOnce(Recording& rec, Tool tool, bool counted) {
  const std::string out = _outDir + "/" + kToolNames[tool] + ".out";
  const std::string log = _outDir + "/" + kToolNames[tool] + ".log";
  std::vector<std::string> argv;
  const char* stdoutPath = nullptr;  // /dev/null
  switch (tool) {
    case kCat:
      argv = {"cat", rec.path};
      break;
    case kPlay:
      argv = _o.player;
      argv.push_back(rec.path);
      stdoutPath = out.c_str();  // its messages and summary, a few lines, looked at below
      break;
    case kOnFile:
      argv = {_o.boxweave, "play", "--tables-on-file", rec.path};
      stdoutPath = out.c_str();
      break;
    default:
      argv = {_o.ffmpeg, "-v", "error", "-i", rec.path, "-map", "0", "-c", "copy", "-f", "null", "-"};
      break;
  }
  ChildRun run;
  if (!RunChild(argv, stdoutPath, log.c_str(), run)) return false;
  const std::string what = std::string(kToolNames[tool]) + " of the " + std::to_string(rec.input.minutes) +
                           "-minute recording " + rec.path;
  if (!run.Succeeded()) {
    std::fprintf(stderr, "play_bench: %s failed (%s):\n%s%s\n", what.c_str(), DescribeStatus(run.status).c_str(),
                 stdoutPath ? TailOf(out, 1000).c_str() : "", TailOf(log).c_str());
    return false;
  }
  if (tool == kPlay || tool == kOnFile) {
    // A player that is fast because it left packets out would prove nothing.
    const long long video = summaryPackets(out, "video");
    const long long audio = summaryPackets(out, "audio");
    if (video >= 0 || audio >= 0) {
      if (video != rec.videoPackets || audio != rec.audioPackets) {
        std::fprintf(stderr, "play_bench: %s gave %lld video and %lld audio packets, not %lld and %lld:\n%s\n",
                     what.c_str(), video, audio, rec.videoPackets, rec.audioPackets, TailOf(out, 1000).c_str());
        return false;
      }
      rec.countsSeen = true;
    }
  }
  if (counted) {
    rec.seconds[tool].push_back(run.seconds);
    rec.cpuSeconds[tool].push_back(run.cpuSeconds);
    rec.maxKiB[tool] = std::max(rec.maxKiB[tool], run.maxKiB);
  }
  unlink(out.c_str());
  unlink(log.c_str());
  return true;
}

void PlayBench::printTable(const char* title, const std::vector<Recording>& recs, bool cpu) const {
  std::printf("\n%s, s: median of %d run(s), in brackets the best; then play / ffmpeg and on file / in memory\n",
              title, _o.runs);
  std::printf("  %-8s", "length");
  for (const char* name : kToolNames) std::printf(" %17s", name);
  std::printf(" %12s %12s\n", "play/ffmpeg", "file/memory");
  for (const Recording& r : recs) {
    std::printf("  %3d min ", r.input.minutes);
    double median[kTools];
    for (int t = 0; t < kTools; ++t) {
      const std::vector<double>& v = cpu ? r.cpuSeconds[t] : r.seconds[t];
      median[t] = Median(v);
      char cell[48];
      std::snprintf(cell, sizeof cell, "%.3f (%.3f)", median[t], *std::min_element(v.begin(), v.end()));
      std::printf(" %17s", cell);
    }
    std::printf(" %11.2fx %11.2fx\n", median[kFfmpeg] > 0 ? median[kPlay] / median[kFfmpeg] : 0.0,
                median[kPlay] > 0 ? median[kOnFile] / median[kPlay] : 0.0);
  }
}

int PlayBench::Run() {
  _outDir = _o.scratch + "/out";
  for (const std::string& d : {_o.data, _outDir}) {
    if (!MakeDirs(d)) {
      std::fprintf(stderr, "play_bench: cannot make the directory %s: %s\n", d.c_str(), std::strerror(errno));
      return 1;
    }
  }
  for (const std::string& program : {_o.boxweave, _o.player[0]}) {
    if (program.find('/') != std::string::npos && access(program.c_str(), X_OK) != 0) {
      std::fprintf(stderr, "play_bench: no program %s (build the target boxweave, or give --boxweave/--player)\n",
                   program.c_str());
      return 1;
    }
  }

  Input one, lng, longest;
  if (!MakeInput(_o.ffmpeg, _o.data, 1, one) || !RepeatInput(one, _o.longMinutes, _o.data, lng) ||
      !RepeatInput(one, _o.longestMinutes, _o.data, longest))
    return 1;
  std::vector<Recording> recs(3);
  if (!prepare(one, recs[0]) || !prepare(lng, recs[1]) || !prepare(longest, recs[2])) return 1;

  std::string player;
  for (const std::string& a : _o.player) player += (player.empty() ? "" : " ") + a;
  std::printf("\nplay_bench: '%s FILE' (tables in memory) and '%s play --tables-on-file FILE'\n", player.c_str(),
              _o.boxweave.c_str());
  std::printf("  on .%s recordings of %dx%d H.264 at %d fps + AAC %d Hz stereo\n", _o.format.c_str(), kWidth,
              kHeight, kFps, kAudioRate);
  std::printf("  against 'cat FILE' into /dev/null and '%s -v error -i FILE -map 0 -c copy -f null -'\n",
              _o.ffmpeg.c_str());
  for (const Recording& r : recs)
    std::printf("  %3d min: %lld bytes, %lld video + %lld audio packets (%s)\n", r.input.minutes, r.bytes,
                r.videoPackets, r.audioPackets, r.path.c_str());
  std::fflush(stdout);

  // One round to warm the page cache and the programs' libraries, then the counted rounds; the
  // programs take turns, so that a slow moment of the machine does not fall on one of them only.
  const std::string loadBefore = LoadAverage();
  for (Recording& r : recs) {
    for (int round = 0; round <= _o.runs; ++round) {
      for (int t = 0; t < kTools; ++t)
        if (!runOnce(r, static_cast<Tool>(t), round > 0)) return 1;
    }
  }
  const long selfKiB = StatusKiB(getpid(), "VmHWM");

  printTable("wall time", recs, false);
  printTable("CPU time (user + system)", recs, true);
  std::printf("  (load average %s before the runs, %s after, on %ld CPU(s))\n", loadBefore.c_str(),
              LoadAverage().c_str(), sysconf(_SC_NPROCESSORS_ONLN));

  std::printf("\npeak RSS, KiB (ru_maxrss, the highest of the runs); last column play / ffmpeg\n");
  std::printf("  %-8s", "length");
  for (const char* name : kToolNames) std::printf(" %12s", name);
  std::printf(" %12s\n", "play/ffmpeg");
  for (const Recording& r : recs) {
    std::printf("  %3d min ", r.input.minutes);
    for (long kib : r.maxKiB) std::printf(" %12s", Kib(kib).c_str());
    std::printf(" %11.2fx\n", r.maxKiB[kFfmpeg] > 0 ? static_cast<double>(r.maxKiB[kPlay]) / r.maxKiB[kFfmpeg] : 0.0);
  }
  std::printf("  (a figure counts the part of this program's %ld KiB that the child holds until it execs)\n",
              selfKiB);
  const bool countsSeen = std::all_of(recs.begin(), recs.end(), [](const Recording& r) { return r.countsSeen; });
  if (countsSeen)
    std::printf("\nthe player gave every packet of every recording in every run (its summary's counts)\n");
  else
    std::printf("\nnote: the player printed no \"video: ..., N packets\" summary: its packet counts were not checked\n");

  // The element in this process, after the children: its memory no longer matters to theirs.
  const Recording& last = recs[2];
  Probe ways[2];
  for (int onFile = 0; onFile < 2; ++onFile)
    if (!probe(last.path, onFile == 1, _o.runs, ways[onFile])) return 1;
  std::printf("\nthe demuxer element in this process on the %d-minute recording, ms\n", last.input.minutes);
  std::printf("  %-16s %22s %22s %8s\n", "tables", "first packet (best)", "seek mean (slowest)", "failed");
  for (int onFile = 0; onFile < 2; ++onFile) {
    const Probe& p = ways[onFile];
    char first[48], seek[48];
    std::snprintf(first, sizeof first, "%.2f (%.2f)", Median(p.firstMs),
                  *std::min_element(p.firstMs.begin(), p.firstMs.end()));
    std::snprintf(seek, sizeof seek, "%.3f (%.3f)", p.seekMeanMs, p.seekMaxMs);
    std::printf("  %-16s %22s %22s %8d\n", onFile ? "on file" : "in memory", first, seek, p.seekFailures);
  }
  std::printf("  (first packet: median of %d element(s) from creation, in brackets the best; %d random seeks,\n"
              "   each the seek and the first packet after it)\n",
              _o.runs, kSeeks);

  const Recording& r = recs[1];
  const double timeRatio = Median(r.seconds[kPlay]) / Median(r.seconds[kFfmpeg]);
  const double memoryRatio = static_cast<double>(r.maxKiB[kPlay]) / static_cast<double>(r.maxKiB[kFfmpeg]);
  long lowKiB = recs[0].maxKiB[kOnFile], highKiB = lowKiB;
  bool noSlower = true;
  for (const Recording& x : recs) {
    lowKiB = std::min(lowKiB, x.maxKiB[kOnFile]);
    highKiB = std::max(highKiB, x.maxKiB[kOnFile]);
    noSlower = noSlower && Median(x.seconds[kOnFile]) <= Median(x.seconds[kPlay]);
  }
  const auto verdict = [](bool met) { return met ? "met" : "MISSED"; };
  std::printf("\ntargets\n");
  std::printf("  tables in memory, %3d min: wall time at most 1/3 of ffmpeg's (median)   %8.2fx  %s\n",
              r.input.minutes, timeRatio, verdict(timeRatio <= kTimeTarget));
  std::printf("  tables in memory, %3d min: peak RSS at most 1/4 of ffmpeg's             %8.2fx  %s\n",
              r.input.minutes, memoryRatio, verdict(memoryRatio <= kMemoryTarget));
  std::printf("  tables on file: peak RSS of all lengths within %ld KiB of each other  %6ld KiB  %s\n", kFlatKiB,
              highKiB - lowKiB, verdict(highKiB - lowKiB <= kFlatKiB));
  std::printf("  tables on file: peak RSS under 10 MB                                 %6ld KiB  %s\n", highKiB,
              verdict(highKiB < kOnFileMaxKiB));
  std::printf("  tables on file: median wall time no worse than in memory, every length     %s\n",
              verdict(noSlower));
  std::printf("  tables on file, %3d min: first packet within %.0f ms                  %8.2f ms  %s\n",
              last.input.minutes, kFirstPacketTargetMs, Median(ways[1].firstMs),
              verdict(Median(ways[1].firstMs) <= kFirstPacketTargetMs));
  std::printf("  tables on file, %3d min: a seek within %.0f ms on average              %8.3f ms  %s\n",
              last.input.minutes, kSeekTargetMs, ways[1].seekMeanMs,
              verdict(ways[1].seekMeanMs <= kSeekTargetMs && ways[1].seekFailures == 0));
  if (_o.fragmented) {
    const int status = runFragmented(one, lng);
    if (status != 0) return status;
  }
  PrintSanitizerNote();
  return 0;
}

// The fragmented recordings: cat, the player and ffmpeg in turns, as for the plain ones (a fragmented
// file has no sample tables, so there is no way on file).
int PlayBench::runFragmented(const Input& one, const Input& lng) {
  std::vector<Recording> recs(2);
  if (!prepare(one, recs[0], true) || !prepare(lng, recs[1], true)) return 1;
  const Tool tools[] = {kCat, kPlay, kFfmpeg};
  std::printf("\nfragmented: '%s play FILE' on recordings made with 'record --fragmented'\n", _o.boxweave.c_str());
  for (const Recording& r : recs)
    std::printf("  %3d min: %lld bytes, %lld video + %lld audio packets (%s)\n", r.input.minutes, r.bytes,
                r.videoPackets, r.audioPackets, r.path.c_str());
  std::fflush(stdout);
  const std::string loadBefore = LoadAverage();
  for (Recording& r : recs)
    for (int round = 0; round <= _o.runs; ++round)
      for (Tool t : tools)
        if (!runOnce(r, t, round > 0)) return 1;

  for (int cpu = 0; cpu < 2; ++cpu) {
    std::printf("\nfragmented, %s, s: median of %d run(s), in brackets the best; then play / ffmpeg\n",
                cpu ? "CPU time (user + system)" : "wall time", _o.runs);
    std::printf("  %-8s", "length");
    for (Tool t : tools) std::printf(" %17s", kToolNames[t]);
    std::printf(" %12s\n", "play/ffmpeg");
    for (const Recording& r : recs) {
      std::printf("  %3d min ", r.input.minutes);
      for (Tool t : tools) {
        const std::vector<double>& v = cpu ? r.cpuSeconds[t] : r.seconds[t];
        char cell[48];
        std::snprintf(cell, sizeof cell, "%.3f (%.3f)", Median(v), *std::min_element(v.begin(), v.end()));
        std::printf(" %17s", cell);
      }
      const double play = Median(cpu ? r.cpuSeconds[kPlay] : r.seconds[kPlay]);
      const double ffmpeg = Median(cpu ? r.cpuSeconds[kFfmpeg] : r.seconds[kFfmpeg]);
      std::printf(" %11.2fx\n", ffmpeg > 0 ? play / ffmpeg : 0.0);
    }
  }
  std::printf("  (load average %s before the runs, %s after)\n", loadBefore.c_str(), LoadAverage().c_str());

  std::printf("\nfragmented, peak RSS, KiB (the highest of the runs); last column play / ffmpeg\n");
  std::printf("  %-8s", "length");
  for (Tool t : tools) std::printf(" %12s", kToolNames[t]);
  std::printf(" %12s\n", "play/ffmpeg");
  for (const Recording& r : recs) {
    std::printf("  %3d min ", r.input.minutes);
    for (Tool t : tools) std::printf(" %12s", Kib(r.maxKiB[t]).c_str());
    std::printf(" %11.2fx\n", r.maxKiB[kFfmpeg] > 0 ? static_cast<double>(r.maxKiB[kPlay]) / r.maxKiB[kFfmpeg] : 0.0);
  }
  const long grown = recs[1].maxKiB[kPlay] - recs[0].maxKiB[kPlay];
  std::printf("  player's peak, %d min against %d min: %+ld KiB (%.2fx)\n", recs[1].input.minutes,
              recs[0].input.minutes, grown,
              recs[0].maxKiB[kPlay] > 0 ? static_cast<double>(recs[1].maxKiB[kPlay]) / recs[0].maxKiB[kPlay] : 0.0);
  if (recs[0].countsSeen && recs[1].countsSeen)
    std::printf("  the player gave every packet of both fragmented recordings in every run\n");
  return 0;
}

void printHelp() {
  std::printf(
      "Usage: play_bench [options]\n"
      "\n"
      "Plays recordings of one minute, --long-minutes and --longest-minutes with the player both ways:\n"
      "'boxweave play FILE' (by default; the demuxer element with the sample tables in memory) and\n"
      "'boxweave play --tables-on-file FILE' (each table answered from the file, a block at a time),\n"
      "and prints their wall time, CPU time and peak memory (RSS) against a plain read of the file\n"
      "('cat FILE' into /dev/null) and against 'ffmpeg -v error -i FILE -map 0 -c copy -f null -',\n"
      "which reads every packet of the file too. Each program runs as a child of its own; its time is\n"
      "the wall time from start to exit, its memory ru_maxrss from wait4. After one round that is not\n"
      "counted (it warms the page cache and the libraries), the programs take turns --runs times; the\n"
      "tables give the median time (the best in brackets) and the highest peak RSS.\n"
      "\n"
      "Then the demuxer element runs in this program on the longest recording, both ways: the time\n"
      "from creating it to its first packet (median of --runs), and %d random seeks (the seek and the\n"
      "first packet after it; mean and slowest).\n"
      "\n"
      "Targets: in memory, on the --long-minutes recording, at most a third of ffmpeg's wall time and\n"
      "a quarter of its peak RSS; on file, the peak RSS of all three lengths within 1 MiB of each\n"
      "other and under 10 MB, the median wall time no worse than in memory at every length, the first\n"
      "packet of the longest recording within 50 ms and a seek within 1 ms on average.\n"
      "\n"
      "The recordings are %dx%d H.264 at %d frames a second with AAC-LC %d Hz stereo, made with\n"
      "'boxweave record' from generated streams: the one-minute input made once with ffmpeg (libx264\n"
      "ultrafast, the native aac encoder), the long ones that input end to end.\n"
      "Inputs and recordings are kept in the data directory; a recording is made again when the\n"
      "boxweave program or its input is newer than it. The player must exit with status 0 every time;\n"
      "when it prints a summary line a track (\"video: ..., N packets\", \"audio: ..., N packets\", as\n"
      "'boxweave play' does), the counts must be those of the input.\n"
      "\n"
      "  --player CMD         the player with the tables in memory, words split at spaces; FILE is put\n"
      "                       last (default: the program of --boxweave with 'play')\n"
      "  --boxweave PATH      the host program that records and plays with the tables on file\n"
      "                       (default: boxweave beside this program)\n"
      "  --ffmpeg PATH        ffmpeg to make the input and to compare with (default: ffmpeg on PATH)\n"
      "  --data DIR           where inputs and recordings are kept (default: bench-data beside this\n"
      "                       program)\n"
      "  --scratch DIR        the programs' output and logs (default: bench-scratch beside this program)\n"
      "  --long-minutes N     length of the long recording (default 60; 2 or so for a quick trial)\n"
      "  --longest-minutes N  length of the longest recording (default 180; 3 or so for a quick trial)\n"
      "  --runs N             counted runs of each program on each recording (default 5)\n"
      "  --format mov|mp4     the recorded format (default mov)\n"
      "  --fragmented on|off  the fragmented case (default on): the one-minute and --long-minutes\n"
      "                       inputs recorded with 'record --fragmented', played by 'boxweave play',\n"
      "                       against cat and ffmpeg; peak RSS of the long against the short\n"
      "  -h, --help           this help\n"
      "\n"
      "Exit status: 0 when every measurement was taken (whether the targets hold or not), 1 when a\n"
      "program failed, a player gave the wrong packet counts or the inputs could not be made, 2 for a\n"
      "wrong command line.\n",
      kSeeks, kWidth, kHeight, kFps, kAudioRate);
}

std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> out;
  size_t at = 0;
  while ((at = text.find_first_not_of(' ', at)) != std::string::npos) {
    const size_t end = text.find(' ', at);
    out.push_back(text.substr(at, end == std::string::npos ? std::string::npos : end - at));
    at = end;
  }
  return out;
}

}  // namespace
}  // namespace boxweave

int main(int argc, char** argv) {
  using namespace boxweave;
  using namespace boxweave::bench;
  SetProgramName("play_bench");
  Options o;
  const int parsed = ParseArguments(argc, argv, printHelp, [&o](const std::string& name, const char* value) {
    if (name == "--longest-minutes") {
      long n = 0;
      if (!Positive(value, 24 * 60, n)) return false;
      o.longestMinutes = static_cast<int>(n);
      return true;
    }
    if (name == "--fragmented") {
      const std::string v = value;
      if (v != "on" && v != "off") return false;
      o.fragmented = v == "on";
      return true;
    }
    if (name != "--player") return o.Take(name, value);
    o.player = words(value);
    return !o.player.empty();
  });
  if (parsed >= 0) return parsed;
  if (o.player.empty()) o.player = {o.boxweave, "play"};
  kiv::dbg::SetLevel(kiv::dbg::E);  // the element's lines at open would fill the figures' page
  kiv::ReflectRun();
  PlayBench bench(o);
  return bench.Run();
}
