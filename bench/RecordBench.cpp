// record_bench: what a long recording costs through the real product path. It records a generated
// stream (small pictures at 30 frames a second with AAC) of one minute and of one hour with
// `boxweave record`, and prints the wall time against a plain copy of the same input bytes and the
// peak memory (RSS) of the recording process, during the recording and including Close, for each of
// the memory options (none, --spill, --table-files, both) and for fragmented recording (--fragmented,
// with and without --flush).
//
// Two kinds of runs. A timed run is the plain program with its output going to a file: its wall time
// and ru_maxrss from wait4 (the peak including Close). A traced run measures the peak during the
// recording: the child runs under ptrace with a seccomp filter that stops it at each write to its
// standard output, which is where the muxer's messages leave, one a line; at a stop before a
// "currentDuration" line its VmHWM is read while it stands still. The value at the last such line is
// the peak during the recording. (Reading VmHWM when the line arrives through a pipe is racy: the
// child may be well into Close by then, and at one minute it often was.) The filter stops only those
// writes, so the child runs at nearly full speed; its time is not used all the same.
//
// Children start by fork and exec: a child's peak counts the pages of this program it holds until it
// execs (a vfork would lend it all of them, and its figure could not be below this program's peak).
// The program keeps itself small and prints its own peak.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "BenchUtil.h"

extern char** environ;

namespace boxweave {
namespace {

using namespace bench;

constexpr long kDefaultToleranceKiB = 1024;
constexpr double kTimeTarget = 1.5;

struct Options : CommonOptions {
  Options() : CommonOptions(3) {}
  long toleranceKiB = kDefaultToleranceKiB;
  bool hevcPcm = false;  // --codecs hevc-pcm: H.265 and raw PCM in place of H.264 and AAC
};

// One of the four memory configurations of `boxweave record`.
struct Mode {
  const char* name;
  std::vector<const char*> flags;
};

// Fractions of the planned length at which a traced run keeps VmHWM, to show how the peak moves.
constexpr int kMarks = 3;  // at 1/4, 2/4 and 3/4

// What one recording gave.
struct RecordRun {
  double seconds = 0;
  double cpuSeconds = 0;       // user + system time of the child
  long duringKiB = -1;         // traced: VmHWM at the last "currentDuration" line
  long marksKiB[kMarks] = {-1, -1, -1};     // traced: VmHWM at the marks
  long marksRssKiB[kMarks] = {-1, -1, -1};  // traced: VmRSS there
  long totalKiB = -1;          // ru_maxrss: the peak including Close
  long long lastNoticeMs = 0;  // the "duration" of the last "currentDuration" line
  long long outBytes = 0;
};

// One recording configuration over its runs: the best time of the timed runs, the highest memory
// figures of all.
struct Cell {
  double bestSeconds = -1;
  double bestCpuSeconds = -1;
  long duringKiB = -1;
  long marksKiB[kMarks] = {-1, -1, -1};
  long marksRssKiB[kMarks] = {-1, -1, -1};
  long totalKiB = -1;
  long long lastNoticeMs = 0;

  void add(const RecordRun& r, bool traced) {
    if (!traced) {
      bestSeconds = bestSeconds < 0 ? r.seconds : std::min(bestSeconds, r.seconds);
      bestCpuSeconds = bestCpuSeconds < 0 ? r.cpuSeconds : std::min(bestCpuSeconds, r.cpuSeconds);
    }
    duringKiB = std::max(duringKiB, r.duringKiB);
    for (int i = 0; i < kMarks; ++i) {
      marksKiB[i] = std::max(marksKiB[i], r.marksKiB[i]);
      marksRssKiB[i] = std::max(marksRssKiB[i], r.marksRssKiB[i]);
    }
    totalKiB = std::max(totalKiB, r.totalKiB);
    if (traced) lastNoticeMs = r.lastNoticeMs;
  }
};

class RecordBench {
 public:
  explicit RecordBench(Options o) : _o(std::move(o)), _copyBuffer(1 << 16) {}

  int Run();

 private:
  bool startTraced(const std::vector<std::string>& argv, const std::string& stdoutPath, const std::string& stderrPath,
                   pid_t& pid);
  bool traceChild(pid_t pid, long long plannedMs, int& status, rusage& usage, RecordRun& run);
  bool copyOnce(const Input& in, double& seconds, double& cpuSeconds);
  bool recordOnce(const Input& in, const Mode& mode, bool traced, RecordRun& run);
  bool processStart(double& seconds);
  void clearTmp(const char* mode);

  Options _o;
  std::vector<char> _copyBuffer;
  std::string _outDir;
  std::string _tmpDir;
  bool _tmpWarned = false;
};
// The reference: both input files read and written into one file beside the recording, with ordinary
// buffered I/O. Closing the output is part of it, as it is of a recording.
bool RecordBench::copyOnce(const Input& in, double& seconds, double& cpuSeconds) {
  const std::string out = _outDir + "/copy.bin";
  unlink(out.c_str());
  rusage before{}, after{};
  getrusage(RUSAGE_SELF, &before);
  const double t0 = Now();
  FILE* o = std::fopen(out.c_str(), "wb");
  if (!o) {
    std::fprintf(stderr, "record_bench: cannot write %s: %s\n", out.c_str(), std::strerror(errno));
    return false;
  }
  long long copied = 0;
  bool ok = true;
  for (const std::string& path : {in.video, in.audio}) {
    FILE* i = std::fopen(path.c_str(), "rb");
    if (!i) {
      ok = false;
      break;
    }
    size_t n;
    while ((n = std::fread(_copyBuffer.data(), 1, _copyBuffer.size(), i)) > 0) {
      if (std::fwrite(_copyBuffer.data(), 1, n, o) != n) {
        ok = false;
        break;
      }
      copied += static_cast<long long>(n);
    }
    std::fclose(i);
  }
  if (std::fclose(o) != 0) ok = false;
  seconds = Now() - t0;
  getrusage(RUSAGE_SELF, &after);
  cpuSeconds = CpuOf(after) - CpuOf(before);
  if (!ok || copied != in.bytes) {
    std::fprintf(stderr, "record_bench: the copy into %s failed (%lld of %lld bytes)\n", out.c_str(), copied, in.bytes);
    return false;
  }
  unlink(out.c_str());
  return true;
}

// The fixed cost of a child: start the program, load the plug-in, print the banner.
bool RecordBench::processStart(double& seconds) {
  seconds = 0;
  for (int r = 0; r < std::max(3, _o.runs); ++r) {
    ChildRun run;
    if (!RunChild({_o.boxweave, "--version"}, nullptr, nullptr, run)) return false;
    if (!run.Succeeded()) {
      std::fprintf(stderr, "record_bench: %s --version failed (%s)\n", _o.boxweave.c_str(),
                   DescribeStatus(run.status).c_str());
      return false;
    }
    seconds = r == 0 ? run.seconds : std::min(seconds, run.seconds);
  }
  return true;
}

// Temporary files a recording left behind: reported once, then removed so the next run starts clean.
void RecordBench::clearTmp(const char* mode) {
  DIR* d = opendir(_tmpDir.c_str());
  if (!d) return;
  std::vector<std::string> left;
  while (dirent* e = readdir(d))
    if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) left.push_back(e->d_name);
  closedir(d);
  if (!left.empty() && !_tmpWarned) {
    std::printf("warning: a recording (%s) left %zu temporary file(s) in %s, e.g. %s\n", mode, left.size(),
                _tmpDir.c_str(), left[0].c_str());
    _tmpWarned = true;
  }
  for (const std::string& f : left) unlink((_tmpDir + "/" + f).c_str());
}

// A child that stops (for its tracer) at every write to its standard output and at nothing else. Between
// fork and exec only async-signal-safe calls.
bool RecordBench::startTraced(const std::vector<std::string>& argv, const std::string& stdoutPath,
                              const std::string& stderrPath, pid_t& pid) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  // write(1, ...) goes to the tracer; everything else runs. The first argument's low word is compared;
  // where it lies depends on the byte order. No check of the architecture: a foreign call number could
  // only cause a stop that the tracer passes over.
  constexpr unsigned kArg0 = offsetof(seccomp_data, args[0]) + (__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? 4 : 0);
  sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_write, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kArg0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 1, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog prog{static_cast<unsigned short>(sizeof code / sizeof code[0]), code};
  // A sanitizer build checks for leaks at exit by stopping its threads with ptrace, which a traced
  // process cannot do: the check is left to the timed runs.
  std::vector<std::string> env;
  bool asanOptions = false;
  for (char** e = environ; *e; ++e) {
    env.push_back(*e);
    if (StartsWith(env.back(), "ASAN_OPTIONS=")) {
      env.back() += ":detect_leaks=0";
      asanOptions = true;
    }
  }
  if (!asanOptions) env.push_back("ASAN_OPTIONS=detect_leaks=0");
  std::vector<char*> envp;
  for (std::string& e : env) envp.push_back(&e[0]);
  envp.push_back(nullptr);
  std::fflush(stdout);
  pid = fork();
  if (pid < 0) {
    std::fprintf(stderr, "record_bench: fork: %s\n", std::strerror(errno));
    return false;
  }
  if (pid == 0) {
    const int in = open("/dev/null", O_RDONLY);
    const int out = open(stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0 || err < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(125);
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(124);
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog) != 0)
      _exit(123);
    execve(args[0], args.data(), envp.data());
    _exit(127);
  }
  return true;
}

// Runs a traced child to its end. At each stop before a write to its standard output, the bytes about
// to be written are looked at; before a "currentDuration" line, VmHWM is read while the child stands.
bool RecordBench::traceChild(pid_t pid, long long plannedMs, int& status, rusage& usage, RecordRun& run) {
  bool optionsSet = false;
  int nextMark = 0;
  char text[4096];
  for (;;) {
    int st = 0;
    rusage ru{};
    const pid_t who = wait4(-1, &st, __WALL, &ru);
    if (who < 0) {
      if (errno == EINTR) continue;
      std::fprintf(stderr, "record_bench: wait4: %s\n", std::strerror(errno));
      kill(pid, SIGKILL);
      return false;
    }
    if (WIFEXITED(st) || WIFSIGNALED(st)) {
      if (who != pid) continue;  // a thread
      status = st;
      usage = ru;
      return true;
    }
    if (!WIFSTOPPED(st)) continue;
    int inject = 0;
    const int sig = WSTOPSIG(st);
    const int event = st >> 16;
    if (!optionsSet && who == pid && sig == SIGTRAP) {
      // The stop after exec: from here on the seccomp stops come, and threads are traced too (an
      // untraced thread's traced write would fail).
      if (ptrace(PTRACE_SETOPTIONS, pid, nullptr,
                 PTRACE_O_TRACESECCOMP | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL) != 0) {
        std::fprintf(stderr, "record_bench: ptrace(SETOPTIONS): %s\n", std::strerror(errno));
        kill(pid, SIGKILL);
        return false;
      }
      optionsSet = true;
    } else if (sig == SIGTRAP && event == PTRACE_EVENT_SECCOMP) {
      __ptrace_syscall_info info{};
      if (ptrace(PTRACE_GET_SYSCALL_INFO, who, reinterpret_cast<void*>(sizeof info), &info) > 0 &&
          info.op == PTRACE_SYSCALL_INFO_SECCOMP && info.seccomp.nr == __NR_write && info.seccomp.args[0] == 1) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(info.seccomp.args[2], sizeof text - 1));
        iovec local{text, n};
        iovec remote{reinterpret_cast<void*>(static_cast<uintptr_t>(info.seccomp.args[1])), n};
        const ssize_t got = process_vm_readv(who, &local, 1, &remote, 1, 0);
        text[got > 0 ? got : 0] = '\0';
        // A write may carry lines printed without a flush in front of the message; the message is last.
        for (const char* line = text; line && *line;) {
          if (StartsWith(line, "currentDuration")) {
            const char* nl = std::strchr(line, '\n');
            long long ms = 0;
            if (LineValue(std::string(line, nl ? static_cast<size_t>(nl - line) : std::strlen(line)), "duration", ms)) {
              const long hwm = StatusKiB(who, "VmHWM");
              run.lastNoticeMs = ms;
              run.duringKiB = hwm;
              while (nextMark < kMarks && ms >= plannedMs * (nextMark + 1) / (kMarks + 1)) {
                run.marksKiB[nextMark] = hwm;
                run.marksRssKiB[nextMark++] = StatusKiB(who, "VmRSS");
              }
            }
          }
          line = std::strchr(line, '\n');
          if (line) ++line;
        }
      }
    } else if (sig != SIGTRAP && sig != SIGSTOP && event == 0) {
      inject = sig;  // a signal of its own: deliver it (a new thread's first stop is the tracer's)
    }
    ptrace(PTRACE_CONT, who, nullptr, reinterpret_cast<void*>(static_cast<uintptr_t>(inject)));
  }
}

bool RecordBench::recordOnce(const Input& in, const Mode& mode, bool traced, RecordRun& run) {
  const std::string out = _outDir + "/rec." + _o.format;
  const std::string log = _outDir + "/rec.log";
  const std::string messages = _outDir + "/rec.out";
  unlink(out.c_str());
  std::vector<std::string> argv = {_o.boxweave, "record",   "-o",  out,       "--video",
                                   in.video,    "--audio", in.audio, "--tmp", _tmpDir};
  for (const std::string& a : AudioFormatOptions(in)) argv.push_back(a);
  for (const char* f : mode.flags) argv.push_back(f);
  const long long plannedMs = in.minutes * 60000LL;

  pid_t pid;
  int status = 0;
  rusage ru{};
  const double t0 = Now();
  if (traced) {
    if (!startTraced(argv, messages, log, pid) || !traceChild(pid, plannedMs, status, ru, run)) return false;
  } else {
    if (!Spawn(argv, messages.c_str(), log.c_str(), pid) || !WaitChild(pid, status, &ru)) return false;
  }
  run.seconds = Now() - t0;
  run.cpuSeconds = CpuOf(ru);
  run.totalKiB = ru.ru_maxrss;

  const std::string what =
      std::to_string(in.minutes) + "-minute recording (" + mode.name + (traced ? ", traced" : "") + ")";
  if (traced && WIFEXITED(status) && WEXITSTATUS(status) >= 123 && WEXITSTATUS(status) <= 125) {
    std::fprintf(stderr, "record_bench: cannot start the %s under ptrace with a seccomp filter (status %d)\n",
                 what.c_str(), WEXITSTATUS(status));
    return false;
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "record_bench: the %s failed (%s):\n%s\n", what.c_str(), DescribeStatus(status).c_str(),
                 TailOf(log).c_str());
    return false;
  }

  // The messages: the last "currentDuration" and "fileClose".
  // A fragmented recording tells the length of its audio track, and 0 between two audio fragments
  // (its video track counts no length): the largest notice shows how far the notices got.
  long long closeMs = -1, closeSize = -1, lastNotice = -1, maxNotice = -1;
  if (FILE* f = std::fopen(messages.c_str(), "rb")) {
    char buf[1024];
    while (std::fgets(buf, sizeof buf, f)) {
      const std::string line(buf);
      if (StartsWith(line, "currentDuration")) {
        LineValue(line, "duration", lastNotice);
        maxNotice = std::max(maxNotice, lastNotice);
      } else if (StartsWith(line, "fileClose")) {
        LineValue(line, "duration", closeMs);
        LineValue(line, "filesize", closeSize);
      }
    }
    std::fclose(f);
  }
  run.outBytes = FileSize(out);
  const long long videoFrames = in.minutes * 60LL * kFps;
  // PCM goes in packets of 20 ms.
  const long long audioFrames = _o.hevcPcm ? in.minutes * 60LL * 50
                                           : (in.minutes * 60LL * kAudioRate + kAacFrame - 1) / kAacFrame;
  // The payload loses start codes and ADTS headers; the tables add some bytes a sample.
  const long long low = in.bytes * 9 / 10;
  const long long high = in.bytes + 64 * (videoFrames + audioFrames) + (1 << 20);
  std::string problem;
  if (closeMs < 0)
    problem = "no fileClose message";
  else if (std::llabs(closeMs - plannedMs) > plannedMs / 100 + 100)
    problem = "fileClose tells " + std::to_string(closeMs) + " ms, not about " + std::to_string(plannedMs);
  else if (run.outBytes < low || run.outBytes > high)
    problem = "the file has " + std::to_string(run.outBytes) + " bytes, not between " + std::to_string(low) +
              " and " + std::to_string(high);
  else if (closeSize != (run.outBytes & 0xffffffffLL))
    problem = "fileClose tells " + std::to_string(closeSize) + " bytes, the file has " + std::to_string(run.outBytes);
  else if (maxNotice < plannedMs - 2000)
    problem = "too few currentDuration lines (the furthest at " + std::to_string(maxNotice) + " ms)";
  else if (traced && (run.duringKiB <= 0 || run.lastNoticeMs != lastNotice))
    problem = "the traced run saw the last currentDuration at " + std::to_string(run.lastNoticeMs) +
              " ms, the output has it at " + std::to_string(lastNotice) + " ms";
  if (!problem.empty()) {
    std::fprintf(stderr, "record_bench: the %s is wrong: %s\n%s\n", what.c_str(), problem.c_str(),
                 TailOf(log).c_str());
    return false;
  }
  run.lastNoticeMs = lastNotice;
  unlink(out.c_str());
  unlink(log.c_str());
  unlink(messages.c_str());
  clearTmp(mode.name);
  return true;
}

int RecordBench::Run() {
  _outDir = _o.scratch + "/out";
  _tmpDir = _o.scratch + "/tmp";
  for (const std::string& d : {_o.data, _outDir, _tmpDir}) {
    if (!MakeDirs(d)) {
      std::fprintf(stderr, "record_bench: cannot make the directory %s: %s\n", d.c_str(), std::strerror(errno));
      return 1;
    }
  }
  if (access(_o.boxweave.c_str(), X_OK) != 0) {
    std::fprintf(stderr, "record_bench: no program %s (build the target boxweave, or give --boxweave)\n",
                 _o.boxweave.c_str());
    return 1;
  }
  clearTmp("an earlier run");
  _tmpWarned = false;

  std::vector<Input> inputs(2);
  if (_o.hevcPcm) {
    // The long H.265 input is the short one end to end: libx265 would take most of an hour.
    if (!MakeHevcPcmInput(_o.ffmpeg, _o.data, 1, inputs[0]) ||
        !RepeatInput(inputs[0], _o.longMinutes, _o.data, inputs[1]))
      return 1;
  } else if (!MakeInput(_o.ffmpeg, _o.data, 1, inputs[0]) ||
             !MakeInput(_o.ffmpeg, _o.data, _o.longMinutes, inputs[1])) {
    return 1;
  }

  // The fragmented recordings keep no tables: their memory must be flat without any option. They
  // take H.264 and AAC.
  std::vector<Mode> modes = {{"plain", {}},
                             {"--spill", {"--spill"}},
                             {"--table-files", {"--table-files"}},
                             {"both", {"--spill", "--table-files"}}};
  if (!_o.hevcPcm) {
    modes.push_back({"--fragmented", {"--fragmented"}});
    modes.push_back({"fragmented+flush", {"--fragmented", "--flush"}});
  }

  double start = 0;
  if (!processStart(start)) return 1;

  std::printf("\nrecord_bench: %s record into .%s, %dx%d %s at %d fps + %s %d Hz stereo, best of %d run(s)\n",
              _o.boxweave.c_str(), _o.format.c_str(), kWidth, kHeight, _o.hevcPcm ? "H.265" : "H.264", kFps,
              _o.hevcPcm ? "16-bit PCM" : "AAC", kAudioRate, _o.runs);
  for (const Input& in : inputs)
    std::printf("  %3d min input: %lld bytes (%s, %s)\n", in.minutes, in.bytes, in.video.c_str(), in.audio.c_str());
  std::printf("  process start (boxweave --version): %.1f ms\n", start * 1000);
  std::fflush(stdout);

  // cells[length][mode]; the copy and the four recordings take turns, so that a slow moment of the
  // machine does not fall on one of them only.
  std::vector<std::vector<Cell>> cells(inputs.size(), std::vector<Cell>(modes.size()));
  std::vector<double> copyBest(inputs.size(), 0), copyBestCpu(inputs.size(), 0);
  const std::string loadBefore = LoadAverage();
  for (size_t l = 0; l < inputs.size(); ++l) {
    for (int r = 0; r < _o.runs; ++r) {
      double c = 0, cpu = 0;
      if (!copyOnce(inputs[l], c, cpu)) return 1;
      copyBest[l] = r == 0 ? c : std::min(copyBest[l], c);
      copyBestCpu[l] = r == 0 ? cpu : std::min(copyBestCpu[l], cpu);
      for (size_t m = 0; m < modes.size(); ++m) {
        for (const bool traced : {false, true}) {
          RecordRun run;
          if (!recordOnce(inputs[l], modes[m], traced, run)) return 1;
          cells[l][m].add(run, traced);
        }
      }
    }
  }
  const long selfKiB = StatusKiB(getpid(), "VmHWM");

  // ---- time
  auto timeTable = [&](const char* title, const std::vector<double>& copy, double Cell::*best) {
    std::printf("\n%s, best of %d (s); in brackets: recording / copy\n", title, _o.runs);
    std::printf("  %-8s %10s", "length", "copy");
    for (const Mode& m : modes) std::printf(" %21s", m.name);
    std::printf("\n");
    for (size_t l = 0; l < inputs.size(); ++l) {
      std::printf("  %3d min  %10.3f", inputs[l].minutes, copy[l]);
      for (size_t m = 0; m < modes.size(); ++m) {
        const double v = cells[l][m].*best;
        char cell[64];
        std::snprintf(cell, sizeof cell, "%.3f (%.2fx)", v, copy[l] > 0 ? v / copy[l] : 0.0);
        std::printf(" %21s", cell);
      }
      std::printf("\n");
    }
  };
  timeTable("wall time", copyBest, &Cell::bestSeconds);
  timeTable("CPU time (user + system)", copyBestCpu, &Cell::bestCpuSeconds);
  std::printf("  (load average %s before the runs, %s after, on %ld CPU(s))\n", loadBefore.c_str(),
              LoadAverage().c_str(), sysconf(_SC_NPROCESSORS_ONLN));

  // ---- memory
  std::printf("\npeak RSS of the recording process, KiB: during the recording / including Close\n");
  std::printf("  %-8s", "length");
  for (const Mode& m : modes) std::printf(" %21s", m.name);
  std::printf("\n");
  for (size_t l = 0; l < inputs.size(); ++l) {
    std::printf("  %3d min ", inputs[l].minutes);
    for (size_t m = 0; m < modes.size(); ++m) {
      const std::string cell = Kib(cells[l][m].duringKiB) + " / " + Kib(cells[l][m].totalKiB);
      std::printf(" %21s", cell.c_str());
    }
    std::printf("\n");
  }
  std::printf("  (\"during\": VmHWM at the last currentDuration line, %lld ms into the %d-minute recording;\n"
              "   \"including Close\": ru_maxrss; highest of %d run(s); a figure counts the part of this\n"
              "   program's %ld KiB that the child holds until it execs)\n",
              cells[1][0].lastNoticeMs, inputs[1].minutes, _o.runs, selfKiB);
  std::printf("\nduring the %d-minute recording, KiB: VmHWM (VmRSS) at a quarter, half and three quarters of it,\n"
              "and VmHWM at the last currentDuration line\n",
              inputs[1].minutes);
  for (size_t m = 0; m < modes.size(); ++m) {
    const Cell& c = cells[1][m];
    std::printf("  %-14s", modes[m].name);
    for (int i = 0; i < kMarks; ++i) {
      const std::string cell = Kib(c.marksKiB[i]) + " (" + Kib(c.marksRssKiB[i]) + ")";
      std::printf(" %16s", cell.c_str());
    }
    std::printf(" %8s\n", Kib(c.duringKiB).c_str());
  }

  // ---- targets
  const Input& lng = inputs[1];
  const Input& sht = inputs[0];
  std::printf("\ntargets (judged on the %d-minute recording; flat = %d-minute figure at most %ld KiB above the "
              "%d-minute one)\n",
              lng.minutes, lng.minutes, _o.toleranceKiB, sht.minutes);
  for (size_t m = 0; m < modes.size(); ++m) {
    const double ratio = copyBest[1] > 0 ? cells[1][m].bestSeconds / copyBest[1] : 0;
    std::printf("  time within %.1fx the copy, %-14s %6.2fx  %s\n", kTimeTarget, modes[m].name, ratio,
                ratio <= kTimeTarget ? "met" : "MISSED");
  }
  auto flat = [&](size_t m, bool includingClose) {
    const long a = includingClose ? cells[0][m].totalKiB : cells[0][m].duringKiB;
    const long b = includingClose ? cells[1][m].totalKiB : cells[1][m].duringKiB;
    const long grow = b - a;
    std::printf("  %s flat, %-14s %+7ld KiB  %s\n", includingClose ? "memory including Close" : "memory during recording",
                modes[m].name, grow, grow <= _o.toleranceKiB ? "met" : "MISSED");
  };
  flat(1, false);  // --spill
  flat(3, false);  // both
  flat(2, true);   // --table-files
  flat(3, true);   // both
  if (modes.size() > 5) {
    flat(4, false);  // --fragmented
    flat(4, true);
    flat(5, true);  // --fragmented --flush
  }
  std::printf("  (for comparison, plain: %+ld KiB during, %+ld KiB including Close)\n",
              cells[1][0].duringKiB - cells[0][0].duringKiB, cells[1][0].totalKiB - cells[0][0].totalKiB);
  PrintSanitizerNote();
  return 0;
}

void printHelp() {
  std::printf(
      "Usage: record_bench [options]\n"
      "\n"
      "Records a generated stream (%dx%d H.264 at %d frames a second, Annex-B, with AAC-LC %d Hz stereo\n"
      "in ADTS) of one minute and of --long-minutes with 'boxweave record', once with each of: no memory\n"
      "option, --spill, --table-files, both, --fragmented, and --fragmented --flush. Prints the wall and CPU time of each recording against a\n"
      "plain copy of the same input bytes (best of --runs), and the peak memory (RSS) of the recording process\n"
      "during the recording and including Close (ru_maxrss from wait4), then whether the targets hold: the\n"
      "long recording within %.1f times the copy's time; memory during the recording flat in its length\n"
      "with --spill, and flat including Close with --table-files and with --fragmented.\n"
      "\n"
      "Each configuration runs --runs times timed (the program alone, its messages into a file) and as\n"
      "many times traced: under ptrace, with a seccomp filter that stops the child at each write to its\n"
      "standard output, where VmHWM is read before every \"currentDuration\" message; the value at the\n"
      "last one is the peak during the recording. Times come from the timed runs only; memory figures are\n"
      "the highest of all runs. Every recording must exit with status 0 and give a file of plausible size\n"
      "and duration.\n"
      "\n"
      "The inputs are made once with ffmpeg (libx264 ultrafast, the native aac encoder) and kept in the\n"
      "data directory; the one-hour input takes some minutes to make.\n"
      "\n"
      "  --boxweave PATH      the host program (default: boxweave beside this program)\n"
      "  --ffmpeg PATH        ffmpeg to make the inputs with (default: ffmpeg on PATH)\n"
      "  --data DIR           where the inputs are kept (default: bench-data beside this program)\n"
      "  --scratch DIR        recordings, copies and temporary files (default: bench-scratch beside\n"
      "                       this program); the files are removed after each run\n"
      "  --long-minutes N     length of the long recording (default 60; 2 or so for a quick trial)\n"
      "  --runs N             runs of each recording and of each copy (default 3)\n"
      "  --format mov|mp4     the recorded format (default mov)\n"
      "  --tolerance-kib N    how far the long figure may lie above the short one and still count as\n"
      "                       flat (default %ld)\n"
      "  --codecs hevc-pcm    record H.265 (libx265 ultrafast, no B-frames) and raw 16-bit PCM stereo\n"
      "                       in place of H.264 and AAC, in the four memory configurations (the\n"
      "                       fragmented ones take H.264 and AAC only); the long input is the\n"
      "                       one-minute one end to end (default: avc-aac)\n"
      "  -h, --help           this help\n"
      "\n"
      "Exit status: 0 when every measurement was taken (whether the targets hold or not), 1 when a\n"
      "recording, the copy or the making of the inputs failed, 2 for a wrong command line.\n",
      kWidth, kHeight, kFps, kAudioRate, kTimeTarget, kDefaultToleranceKiB);
}

}  // namespace
}  // namespace boxweave

int main(int argc, char** argv) {
  using namespace boxweave;
  using namespace boxweave::bench;
  SetProgramName("record_bench");
  Options o;
  const int parsed = ParseArguments(argc, argv, printHelp, [&o](const std::string& name, const char* value) {
    long n = 0;
    if (name == "--tolerance-kib" && Positive(value, 1L << 30, n)) {
      o.toleranceKiB = n;
      return true;
    }
    if (name == "--codecs") {
      o.hevcPcm = std::string(value) == "hevc-pcm";
      return o.hevcPcm || std::string(value) == "avc-aac";
    }
    return o.Take(name, value);
  });
  if (parsed >= 0) return parsed;
  RecordBench bench(o);
  return bench.Run();
}
