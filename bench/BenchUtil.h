// What the benchmark programs share: children started and waited for with their wall time, CPU time
// and peak memory, small file and /proc helpers, and the generated input (H.264 and AAC elementary
// streams made with ffmpeg, kept in a data directory).
//
// Nothing here holds large buffers: a child begins its high-water mark of memory with the pages it
// holds of its parent at the fork, so the benchmark's own memory is a floor under every child figure.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace boxweave {
namespace bench {

// The generated input. Changing any of these changes the cached files' names.
constexpr int kWidth = 128;
constexpr int kHeight = 96;
constexpr int kFps = 30;
constexpr int kAudioRate = 48000;
constexpr int kAacFrame = 1024;  // samples of one AAC-LC frame

// The name in front of every error line ("record_bench: ...").
void SetProgramName(const char* name);
const char* ProgramName();

double Now();  // monotonic, seconds
long long FileSize(const std::string& path);  // -1 unless a regular file
bool IsDir(const std::string& path);
bool MakeDirs(const std::string& path);  // mkdir -p
std::string OwnDirectory();  // where this program lies
// Modification time in nanoseconds; -1 when the path is not there.
long long ModifiedNs(const std::string& path);
// A "VmHWM:"-style field of /proc/<pid>/status in KiB; -1 when the process or the field is gone.
long StatusKiB(pid_t pid, const char* field);
// The value of "key=" in a message line such as "fileClose duration=59999 url=... filesize=123".
bool LineValue(const std::string& line, const char* key, long long& value);
bool StartsWith(const std::string& s, const char* prefix);
double CpuOf(const rusage& ru);  // user + system, seconds
std::string LoadAverage();  // the first three fields of /proc/loadavg
std::string DescribeStatus(int status);  // "exit status 1", "signal Killed"
std::string TailOf(const std::string& path, size_t maxBytes = 2000);  // the last lines of a log
std::string Kib(long v);  // "-" for an unknown figure
// A line under the figures when this code was built with AddressSanitizer, which raises them all.
void PrintSanitizerNote();
// A whole decimal number from 1 to max.
bool Positive(const char* text, long max, long& v);
// The median of the values (the mean of the middle two for an even count); 0 for none.
double Median(std::vector<double> values);

// A child with its standard input from /dev/null and its output into the files given (null:
// /dev/null), started by fork and exec. The program is looked up on PATH when argv[0] has no slash.
// A program that cannot be started is told on stderr; pid is -1 then.
bool Spawn(const std::vector<std::string>& argv, const char* stdoutPath, const char* stderrPath, pid_t& pid);
bool WaitChild(pid_t pid, int& status, rusage* usage);

// One child run to its end: wall time from before the start to after the wait, and its rusage.
struct ChildRun {
  int status = 0;
  double seconds = 0;
  double cpuSeconds = 0;
  long maxKiB = -1;  // ru_maxrss: the peak over the child's whole life
  bool Succeeded() const;  // exited with status 0
};
bool RunChild(const std::vector<std::string>& argv, const char* stdoutPath, const char* stderrPath, ChildRun& run);

// The options both programs take, with their defaults beside this program.
struct CommonOptions {
  std::string boxweave;  // the host program
  std::string ffmpeg = "ffmpeg";
  std::string data;     // inputs (and recordings) kept between runs
  std::string scratch;  // what a run writes and removes
  std::string format = "mov";
  int longMinutes = 60;
  int runs = 3;

  explicit CommonOptions(int defaultRuns);
  // One "--name value" of the shared options; false for another name or a bad value.
  bool Take(const std::string& name, const char* value);
};

// Reads the command line as "--name value" pairs, each handed to take. Returns -1 when all were
// taken; 0 after -h/--help has printed the help; 2 after a message for a wrong command line.
template <typename Take>
int ParseArguments(int argc, char** argv, void (*help)(), Take take);
int ArgumentError(const std::string& message);  // prints it with the way to the help; gives 2

// The generated input of one length: a video and an audio elementary stream.
struct Input {
  int minutes = 0;
  std::string video;  // H.264 Annex-B, SPS/PPS/IDR every second, no SEI
  std::string audio;  // AAC-LC in ADTS, stereo
  long long bytes = 0;  // both files together
};
// Made with ffmpeg once (both encoders at once) and kept in dir; the one-hour input takes minutes.
bool MakeInput(const std::string& ffmpeg, const std::string& dir, int minutes, Input& in);
// The same length as H.265 Annex-B (libx265 ultrafast, no B-frames, a key picture every second with
// its parameter sets) and raw 16-bit PCM at kAudioRate stereo (.s16le), made with ffmpeg once.
bool MakeHevcPcmInput(const std::string& ffmpeg, const std::string& dir, int minutes, Input& in);
// The record options a raw PCM input needs ("--audio-format s16le:RATE:2"); none for another input.
std::vector<std::string> AudioFormatOptions(const Input& in);
// The input `times` as long, made by putting `one` end to end and kept in dir: each stream begins
// with a key frame and its parameter sets, and ADTS frames stand alone, so the copies join into one
// valid stream in seconds where the encoders would take minutes. The picture's clock restarts at each
// joint; nothing that reads the streams looks at it.
bool RepeatInput(const Input& one, int times, const std::string& dir, Input& out);

template <typename Take>
int ParseArguments(int argc, char** argv, void (*help)(), Take take) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "-h" || a == "--help") {
      help();
      return 0;
    }
    if (i + 1 >= argc)
      return ArgumentError(a.size() > 1 && a[0] == '-' ? "option " + a + " needs a value"
                                                       : "unknown argument '" + a + "'");
    const char* v = argv[++i];
    if (!take(a, v)) return ArgumentError("bad argument: " + a + " " + v);
  }
  return -1;
}

}  // namespace bench
}  // namespace boxweave
