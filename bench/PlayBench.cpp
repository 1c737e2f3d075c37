// play_bench: what playing a recording costs through the real product path, against a plain read of
// the file and against ffmpeg reading every packet of it. It records a generated stream (small
// pictures at 30 frames a second with AAC) of one minute and of one hour with `boxweave record`, then
// runs on each recording, in turns: `cat FILE` into /dev/null, the player (`boxweave play FILE`: the
// demuxer element with its sample tables in memory, every packet to a sink that counts it), and
// `ffmpeg -i FILE -map 0 -c copy -f null -`. Each is a child of its own, so its wall time and its peak
// memory (ru_maxrss from wait4) are its own.
//
// The one-hour input is the one-minute input put end to end sixty times: the encoders would take
// minutes for what a copy does in a second, and nothing here looks at the pictures.
//
// Children start by fork and exec: a child's peak counts the pages of this program it holds until it
// execs (a vfork would lend it all of them, and its figure could not be below this program's peak).
// The program keeps itself small and prints its own peak.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "BenchUtil.h"

namespace boxweave {
namespace {

using namespace bench;

// Of ffmpeg's figures on the long recording: the player's time at most a third, its memory a quarter.
constexpr double kTimeTarget = 1.0 / 3;
constexpr double kMemoryTarget = 1.0 / 4;

struct Options : CommonOptions {
  Options() : CommonOptions(5) {}
  std::vector<std::string> player;  // the command; the file goes last
};

// The three programs that read a recording, in the order they take turns.
enum Tool { kCat, kPlay, kFfmpeg, kTools };
const char* const kToolNames[kTools] = {"cat", "play", "ffmpeg"};

// One recording and what each program gave on it over the runs.
struct Recording {
  Input input;
  std::string path;
  long long bytes = 0;
  long long videoPackets = 0;  // what the input holds, so what a player must give
  long long audioPackets = 0;
  std::vector<double> seconds[kTools];
  std::vector<double> cpuSeconds[kTools];
  long maxKiB[kTools] = {-1, -1, -1};
  bool countsSeen = false;  // the player printed its packet counts (and they were right)
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

class PlayBench {
 public:
  explicit PlayBench(Options o) : _o(std::move(o)) {}

  int Run();

 private:
  bool prepare(const Input& in, Recording& rec);
  bool runOnce(Recording& rec, Tool tool, bool counted);
  void printTable(const char* title, const std::vector<Recording>& recs, bool cpu) const;

  Options _o;
  std::string _outDir;
};

// The recording of one input, kept in the data directory; made again when the host program or the
// input is newer than it, so that a changed recorder is what gets played.
bool PlayBench::prepare(const Input& in, Recording& rec) {
  rec.input = in;
  std::string base = in.video.substr(0, in.video.rfind('.'));
  rec.path = base + "." + _o.format;
  rec.videoPackets = static_cast<long long>(in.minutes) * 60 * kFps;
  rec.audioPackets = countAdtsFrames(in.audio);
  if (rec.audioPackets <= 0) {
    std::fprintf(stderr, "play_bench: %s is no ADTS stream\n", in.audio.c_str());
    return false;
  }
  const long long made = ModifiedNs(rec.path);
  if (FileSize(rec.path) <= 0 || made < ModifiedNs(_o.boxweave) || made < ModifiedNs(in.video) ||
      made < ModifiedNs(in.audio)) {
    std::printf("recording the %d-minute input with %s record into %s ...\n", in.minutes, _o.boxweave.c_str(),
                rec.path.c_str());
    std::fflush(stdout);
    // The format comes from the name's extension; the half-made file never has the final name.
    const std::string part = base + "-part." + _o.format;
    const std::string log = _outDir + "/record.log";
    ChildRun run;
    if (!RunChild({_o.boxweave, "record", "-o", part, "--video", in.video, "--audio", in.audio}, log.c_str(),
                  log.c_str(), run))
      return false;
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
                 tool == kPlay ? TailOf(out, 1000).c_str() : "", TailOf(log).c_str());
    return false;
  }
  if (tool == kPlay) {
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
  std::printf("\n%s, s: median of %d run(s), in brackets the best; last column play / ffmpeg\n", title, _o.runs);
  std::printf("  %-8s", "length");
  for (const char* name : kToolNames) std::printf(" %17s", name);
  std::printf(" %12s\n", "play/ffmpeg");
  for (const Recording& r : recs) {
    std::printf("  %3d min ", r.input.minutes);
    for (int t = 0; t < kTools; ++t) {
      const std::vector<double>& v = cpu ? r.cpuSeconds[t] : r.seconds[t];
      char cell[48];
      std::snprintf(cell, sizeof cell, "%.3f (%.3f)", Median(v), *std::min_element(v.begin(), v.end()));
      std::printf(" %17s", cell);
    }
    const double ffmpeg = Median(cpu ? r.cpuSeconds[kFfmpeg] : r.seconds[kFfmpeg]);
    const double play = Median(cpu ? r.cpuSeconds[kPlay] : r.seconds[kPlay]);
    std::printf(" %11.2fx\n", ffmpeg > 0 ? play / ffmpeg : 0.0);
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

  Input one, lng;
  if (!MakeInput(_o.ffmpeg, _o.data, 1, one) || !RepeatInput(one, _o.longMinutes, _o.data, lng)) return 1;
  std::vector<Recording> recs(2);
  if (!prepare(one, recs[0]) || !prepare(lng, recs[1])) return 1;

  std::string player;
  for (const std::string& a : _o.player) player += (player.empty() ? "" : " ") + a;
  std::printf("\nplay_bench: '%s FILE' on .%s recordings of %dx%d H.264 at %d fps + AAC %d Hz stereo\n",
              player.c_str(), _o.format.c_str(), kWidth, kHeight, kFps, kAudioRate);
  std::printf("  against 'cat FILE' into /dev/null and '%s -v error -i FILE -map 0 -c copy -f null -'\n",
              _o.ffmpeg.c_str());
  for (const Recording& r : recs)
    std::printf("  %3d min: %lld bytes, %lld video + %lld audio packets (%s)\n", r.input.minutes, r.bytes,
                r.videoPackets, r.audioPackets, r.path.c_str());
  std::fflush(stdout);

  // One round to warm the page cache and the programs' libraries, then the counted rounds; the three
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
  for (const char* name : kToolNames) std::printf(" %10s", name);
  std::printf(" %12s\n", "play/ffmpeg");
  for (const Recording& r : recs) {
    std::printf("  %3d min ", r.input.minutes);
    for (long kib : r.maxKiB) std::printf(" %10s", Kib(kib).c_str());
    std::printf(" %11.2fx\n", r.maxKiB[kFfmpeg] > 0 ? static_cast<double>(r.maxKiB[kPlay]) / r.maxKiB[kFfmpeg] : 0.0);
  }
  std::printf("  (a figure counts the part of this program's %ld KiB that the child holds until it execs)\n",
              selfKiB);
  if (recs[0].countsSeen && recs[1].countsSeen)
    std::printf("\nthe player gave every packet of both recordings in every run (its summary's counts)\n");
  else
    std::printf("\nnote: the player printed no \"video: ..., N packets\" summary: its packet counts were not checked\n");

  const Recording& r = recs[1];
  const double timeRatio = Median(r.seconds[kPlay]) / Median(r.seconds[kFfmpeg]);
  const double memoryRatio = static_cast<double>(r.maxKiB[kPlay]) / static_cast<double>(r.maxKiB[kFfmpeg]);
  std::printf("\ntargets (judged on the %d-minute recording)\n", r.input.minutes);
  std::printf("  wall time at most 1/3 of ffmpeg's (median)  %6.2fx  %s\n", timeRatio,
              timeRatio <= kTimeTarget ? "met" : "MISSED");
  std::printf("  peak RSS at most 1/4 of ffmpeg's            %6.2fx  %s\n", memoryRatio,
              memoryRatio <= kMemoryTarget ? "met" : "MISSED");
  PrintSanitizerNote();
  return 0;
}

void printHelp() {
  std::printf(
      "Usage: play_bench [options]\n"
      "\n"
      "Plays a recording of one minute and one of --long-minutes with the player (by default\n"
      "'boxweave play FILE': the demuxer element with the sample tables in memory, no output files) and\n"
      "prints its wall time, CPU time and peak memory (RSS) against a plain read of the file ('cat FILE'\n"
      "into /dev/null) and against 'ffmpeg -v error -i FILE -map 0 -c copy -f null -', which reads every\n"
      "packet of the file too. Each program runs as a child of its own; its time is the wall time from\n"
      "start to exit, its memory ru_maxrss from wait4. After one round that is not counted (it warms the\n"
      "page cache and the libraries), the three take turns --runs times; the tables give the median time\n"
      "(the best in brackets) and the highest peak RSS. Then whether the targets hold on the long\n"
      "recording: the player's median wall time at most a third of ffmpeg's, its peak RSS at most a\n"
      "quarter of ffmpeg's.\n"
      "\n"
      "The recordings are %dx%d H.264 at %d frames a second with AAC-LC %d Hz stereo, made with\n"
      "'boxweave record' from generated streams: the one-minute input made once with ffmpeg (libx264\n"
      "ultrafast, the native aac encoder), the long one that input end to end --long-minutes times.\n"
      "Inputs and recordings are kept in the data directory; a recording is made again when the\n"
      "boxweave program or its input is newer than it. The player must exit with status 0 every time;\n"
      "when it prints a summary line a track (\"video: ..., N packets\", \"audio: ..., N packets\", as\n"
      "'boxweave play' does), the counts must be those of the input.\n"
      "\n"
      "  --player CMD         the player, words split at spaces; FILE is put last (default: the\n"
      "                       program of --boxweave with 'play')\n"
      "  --boxweave PATH      the host program that records (default: boxweave beside this program)\n"
      "  --ffmpeg PATH        ffmpeg to make the input and to compare with (default: ffmpeg on PATH)\n"
      "  --data DIR           where inputs and recordings are kept (default: bench-data beside this\n"
      "                       program)\n"
      "  --scratch DIR        the programs' output and logs (default: bench-scratch beside this program)\n"
      "  --long-minutes N     length of the long recording (default 60; 2 or so for a quick trial)\n"
      "  --runs N             counted runs of each program on each recording (default 5)\n"
      "  --format mov|mp4     the recorded format (default mov)\n"
      "  -h, --help           this help\n"
      "\n"
      "Exit status: 0 when every measurement was taken (whether the targets hold or not), 1 when a\n"
      "program failed, a player gave the wrong packet counts or the inputs could not be made, 2 for a\n"
      "wrong command line.\n",
      kWidth, kHeight, kFps, kAudioRate);
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
    if (name != "--player") return o.Take(name, value);
    o.player = words(value);
    return !o.player.empty();
  });
  if (parsed >= 0) return parsed;
  if (o.player.empty()) o.player = {o.boxweave, "play"};
  PlayBench bench(o);
  return bench.Run();
}
