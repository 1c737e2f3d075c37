#include "BenchUtil.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

extern char** environ;

namespace boxweave {
namespace bench {

namespace {
const char* programName = "bench";
}  // namespace

void SetProgramName(const char* name) { programName = name; }
const char* ProgramName() { return programName; }

double Now() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

long long FileSize(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  return static_cast<long long>(st.st_size);
}

bool IsDir(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool MakeDirs(const std::string& path) {
  if (path.empty() || IsDir(path)) return true;
  const size_t slash = path.find_last_of('/');
  if (slash != std::string::npos && slash > 0 && !MakeDirs(path.substr(0, slash))) return false;
  return mkdir(path.c_str(), 0777) == 0 || errno == EEXIST;
}

std::string OwnDirectory() {
  char buf[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return ".";
  const std::string path(buf, static_cast<size_t>(n));
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

long long ModifiedNs(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return -1;
  return static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
}

// Plain read(2) into a fixed buffer: sampling must not grow this program's own memory.
long StatusKiB(pid_t pid, const char* field) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/status", static_cast<int>(pid));
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  char buf[8192];
  size_t used = 0;
  for (;;) {
    const ssize_t got = read(fd, buf + used, sizeof buf - 1 - used);
    if (got <= 0) break;
    used += static_cast<size_t>(got);
    if (used == sizeof buf - 1) break;
  }
  close(fd);
  buf[used] = '\0';
  const size_t len = std::strlen(field);
  for (const char* p = buf; p && *p;) {
    if (std::strncmp(p, field, len) == 0 && p[len] == ':') return std::strtol(p + len + 1, nullptr, 10);
    p = std::strchr(p, '\n');
    if (p) ++p;
  }
  return -1;
}

bool LineValue(const std::string& line, const char* key, long long& value) {
  const std::string k = std::string(" ") + key + "=";
  const size_t at = line.find(k);
  if (at == std::string::npos) return false;
  char* end = nullptr;
  value = std::strtoll(line.c_str() + at + k.size(), &end, 10);
  return end != line.c_str() + at + k.size();
}

bool StartsWith(const std::string& s, const char* prefix) { return s.compare(0, std::strlen(prefix), prefix) == 0; }

double CpuOf(const rusage& ru) {
  return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
         static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

std::string LoadAverage() {
  char buf[128] = {};
  const int fd = open("/proc/loadavg", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return "?";
  const ssize_t n = read(fd, buf, sizeof buf - 1);
  close(fd);
  std::string s(buf, n > 0 ? static_cast<size_t>(n) : 0);
  size_t cut = 0;
  for (int field = 0; field < 3 && cut != std::string::npos; ++field) cut = s.find(' ', cut + (field ? 1 : 0));
  return s.substr(0, cut);
}

std::string DescribeStatus(int status) {
  if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return std::string("signal ") + strsignal(WTERMSIG(status));
  return "status " + std::to_string(status);
}

std::string TailOf(const std::string& path, size_t maxBytes) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return "";
  std::string text;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) {
    text.append(buf, n);
    if (text.size() > 4 * maxBytes) text.erase(0, text.size() - maxBytes);
  }
  std::fclose(f);
  if (text.size() > maxBytes) text.erase(0, text.size() - maxBytes);
  return text;
}

std::string Kib(long v) { return v < 0 ? std::string("-") : std::to_string(v); }

void PrintSanitizerNote() {
#if defined(__SANITIZE_ADDRESS__)
  std::printf("note: this program was built with AddressSanitizer; its own shadow memory raises every figure\n");
#endif
}

bool Positive(const char* text, long max, long& v) {
  char* end = nullptr;
  errno = 0;
  v = std::strtol(text, &end, 10);
  return errno == 0 && end != text && *end == '\0' && v >= 1 && v <= max;
}

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t mid = values.size() / 2;
  return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

CommonOptions::CommonOptions(int defaultRuns) : runs(defaultRuns) {
  const std::string own = OwnDirectory();
  boxweave = own + "/boxweave";
  data = own + "/bench-data";
  scratch = own + "/bench-scratch";
}

bool CommonOptions::Take(const std::string& name, const char* value) {
  long n = 0;
  if (name == "--boxweave") {
    boxweave = value;
  } else if (name == "--ffmpeg") {
    ffmpeg = value;
  } else if (name == "--data") {
    data = value;
  } else if (name == "--scratch") {
    scratch = value;
  } else if (name == "--format" && (std::strcmp(value, "mov") == 0 || std::strcmp(value, "mp4") == 0)) {
    format = value;
  } else if (name == "--long-minutes" && Positive(value, 24 * 60, n)) {
    longMinutes = static_cast<int>(n);
  } else if (name == "--runs" && Positive(value, 100, n)) {
    runs = static_cast<int>(n);
  } else {
    return false;
  }
  return true;
}

int ArgumentError(const std::string& message) {
  std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", programName, message.c_str(), programName);
  return 2;
}

namespace {

// argv0 itself when it names a path, else the first executable of that name on PATH; "" for none.
std::string findProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  const char* path = std::getenv("PATH");
  const std::string dirs = path && *path ? path : "/usr/local/bin:/usr/bin:/bin";
  for (size_t at = 0; at <= dirs.size();) {
    size_t end = dirs.find(':', at);
    if (end == std::string::npos) end = dirs.size();
    const std::string dir = end > at ? dirs.substr(at, end - at) : ".";
    const std::string candidate = dir + "/" + name;
    if (FileSize(candidate) >= 0 && access(candidate.c_str(), X_OK) == 0) return candidate;
    at = end + 1;
  }
  return "";
}

}  // namespace

// By fork and exec, not posix_spawn: a child made by vfork (as posix_spawn does) runs in this program's
// memory until it execs, and the kernel keeps that memory's whole high-water mark as the child's
// ru_maxrss. A forked child starts its mark at the pages it holds of this program at the fork, about
// its anonymous memory, so a small program such as cat shows its own figure.
bool Spawn(const std::vector<std::string>& argv, const char* stdoutPath, const char* stderrPath, pid_t& pid) {
  pid = -1;
  const std::string program = findProgram(argv[0]);
  if (program.empty()) {
    std::fprintf(stderr, "%s: cannot start %s: %s\n", programName, argv[0].c_str(), std::strerror(ENOENT));
    return false;
  }
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const char* out = stdoutPath ? stdoutPath : "/dev/null";
  const char* err = stderrPath ? stderrPath : "/dev/null";
  // The child tells a failed exec's errno through a pipe that the exec closes.
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) {
    std::fprintf(stderr, "%s: pipe: %s\n", programName, std::strerror(errno));
    return false;
  }
  std::fflush(stdout);
  pid = fork();
  if (pid == 0) {
    // Between fork and exec only async-signal-safe calls.
    int failure = 0;
    const int in = open("/dev/null", O_RDONLY);
    const int o = open(out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int e = open(err, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || o < 0 || e < 0 || dup2(in, 0) < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) {
      failure = errno;
    } else {
      execve(program.c_str(), args.data(), environ);
      failure = errno;
    }
    const ssize_t ignored = write(report[1], &failure, sizeof failure);
    (void)ignored;
    _exit(127);
  }
  const int forkError = errno;
  close(report[1]);
  if (pid < 0) {
    close(report[0]);
    pid = -1;
    std::fprintf(stderr, "%s: fork: %s\n", programName, std::strerror(forkError));
    return false;
  }
  int failure = 0;
  ssize_t got;
  do got = read(report[0], &failure, sizeof failure);
  while (got < 0 && errno == EINTR);
  close(report[0]);
  if (got == static_cast<ssize_t>(sizeof failure)) {
    int status = 0;
    WaitChild(pid, status, nullptr);
    pid = -1;
    std::fprintf(stderr, "%s: cannot start %s: %s\n", programName, program.c_str(), std::strerror(failure));
    return false;
  }
  return true;
}

bool WaitChild(pid_t pid, int& status, rusage* usage) {
  rusage ru{};
  for (;;) {
    const pid_t got = wait4(pid, &status, 0, &ru);
    if (got == pid) break;
    if (got < 0 && errno == EINTR) continue;
    std::fprintf(stderr, "%s: wait4: %s\n", programName, std::strerror(errno));
    return false;
  }
  if (usage) *usage = ru;
  return true;
}

bool ChildRun::Succeeded() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }

bool RunChild(const std::vector<std::string>& argv, const char* stdoutPath, const char* stderrPath, ChildRun& run) {
  pid_t pid;
  rusage ru{};
  const double t0 = Now();
  if (!Spawn(argv, stdoutPath, stderrPath, pid) || !WaitChild(pid, run.status, &ru)) return false;
  run.seconds = Now() - t0;
  run.cpuSeconds = CpuOf(ru);
  run.maxKiB = ru.ru_maxrss;
  return true;
}

namespace {

std::string baseName(const std::string& dir, int minutes) {
  char base[160];
  std::snprintf(base, sizeof base, "gen-%dmin-%dx%d-%dfps", minutes, kWidth, kHeight, kFps);
  return dir + "/" + base;
}

std::string audioSuffix() { return "-aac" + std::to_string(kAudioRate / 1000) + "k.aac"; }

bool finishInput(Input& in) {
  const long long v = FileSize(in.video);
  const long long a = FileSize(in.audio);
  if (v <= 0 || a <= 0) {
    std::fprintf(stderr, "%s: the input %s or %s is missing\n", programName, in.video.c_str(), in.audio.c_str());
    return false;
  }
  in.bytes = v + a;
  return true;
}

// `from` put `times` times end to end into `to`, through a ".part" file renamed at the end.
bool repeatFile(const std::string& from, int times, const std::string& to) {
  const std::string part = to + ".part";
  const int out = open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (out < 0) {
    std::fprintf(stderr, "%s: cannot write %s: %s\n", programName, part.c_str(), std::strerror(errno));
    return false;
  }
  char buf[1 << 16];
  bool ok = true;
  for (int i = 0; i < times && ok; ++i) {
    const int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) {
      std::fprintf(stderr, "%s: cannot read %s: %s\n", programName, from.c_str(), std::strerror(errno));
      ok = false;
      break;
    }
    for (;;) {
      const ssize_t n = read(in, buf, sizeof buf);
      if (n == 0) break;
      if (n < 0) {
        if (errno == EINTR) continue;
        std::fprintf(stderr, "%s: cannot read %s: %s\n", programName, from.c_str(), std::strerror(errno));
        ok = false;
        break;
      }
      for (ssize_t done = 0; done < n;) {
        const ssize_t w = write(out, buf + done, static_cast<size_t>(n - done));
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) {
          std::fprintf(stderr, "%s: cannot write %s: %s\n", programName, part.c_str(), std::strerror(errno));
          ok = false;
          break;
        }
        done += w;
      }
      if (!ok) break;
    }
    close(in);
  }
  if (close(out) != 0) ok = false;
  if (ok && rename(part.c_str(), to.c_str()) != 0) {
    std::fprintf(stderr, "%s: cannot rename %s: %s\n", programName, part.c_str(), std::strerror(errno));
    ok = false;
  }
  if (!ok) unlink(part.c_str());
  return ok;
}

}  // namespace

bool MakeInput(const std::string& ffmpeg, const std::string& dir, int minutes, Input& in) {
  const std::string base = baseName(dir, minutes);
  in.minutes = minutes;
  in.video = base + ".h264";
  in.audio = base + audioSuffix();
  const std::string seconds = std::to_string(minutes * 60);

  struct Job {
    std::string path;
    std::vector<std::string> argv;
    pid_t pid = -1;
  };
  std::vector<Job> jobs;
  if (FileSize(in.video) <= 0) {
    Job j;
    j.path = in.video;
    char src[128];
    std::snprintf(src, sizeof src, "testsrc=size=%dx%d:rate=%d:duration=%s", kWidth, kHeight, kFps, seconds.c_str());
    // Annex-B without the encoder's SEI (its banner), as a camera sends it; a key frame every second.
    j.argv = {ffmpeg, "-hide_banner", "-nostdin", "-loglevel", "error", "-y", "-f", "lavfi", "-i", src,
              "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-g", std::to_string(kFps),
              "-keyint_min", std::to_string(kFps), "-sc_threshold", "0", "-bsf:v", "filter_units=remove_types=6",
              "-f", "h264", in.video + ".part"};
    jobs.push_back(j);
  }
  if (FileSize(in.audio) <= 0) {
    Job j;
    j.path = in.audio;
    char src[128];
    std::snprintf(src, sizeof src, "sine=frequency=440:sample_rate=%d:duration=%s", kAudioRate, seconds.c_str());
    j.argv = {ffmpeg, "-hide_banner", "-nostdin", "-loglevel", "error", "-y", "-f", "lavfi", "-i", src,
              "-c:a", "aac", "-b:a", "96k", "-ar", std::to_string(kAudioRate), "-ac", "2", "-f", "adts",
              in.audio + ".part"};
    jobs.push_back(j);
  }
  if (!jobs.empty()) {
    std::printf("generating the %d-minute input with ffmpeg into %s ...\n", minutes, dir.c_str());
    std::fflush(stdout);
  }
  const double t0 = Now();
  // Both encoders at once: they are independent, and the long input takes minutes.
  bool ok = true;
  for (Job& j : jobs) {
    const std::string log = j.path + ".log";
    if (!Spawn(j.argv, nullptr, log.c_str(), j.pid)) ok = false;
  }
  for (Job& j : jobs) {
    if (j.pid < 0) continue;
    int status = 0;
    if (!WaitChild(j.pid, status, nullptr)) return false;
    const std::string part = j.path + ".part";
    const std::string log = j.path + ".log";
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || FileSize(part) <= 0) {
      std::fprintf(stderr, "%s: ffmpeg failed (%s) making %s:\n%s\n", programName, DescribeStatus(status).c_str(),
                   j.path.c_str(), TailOf(log).c_str());
      unlink(part.c_str());
      ok = false;
      continue;
    }
    if (rename(part.c_str(), j.path.c_str()) != 0) {
      std::fprintf(stderr, "%s: cannot rename %s: %s\n", programName, part.c_str(), std::strerror(errno));
      ok = false;
    }
    unlink(log.c_str());
  }
  if (!ok) return false;
  if (!jobs.empty()) std::printf("  done in %.1f s\n", Now() - t0);
  return finishInput(in);
}

bool MakeHevcPcmInput(const std::string& ffmpeg, const std::string& dir, int minutes, Input& in) {
  const std::string base = baseName(dir, minutes);
  in.minutes = minutes;
  in.video = base + "-hevc.h265";
  in.audio = base + "-pcm" + std::to_string(kAudioRate / 1000) + "k.s16le";
  const std::string seconds = std::to_string(minutes * 60);
  char video[128], audio[128];
  std::snprintf(video, sizeof video, "testsrc=size=%dx%d:rate=%d:duration=%s", kWidth, kHeight, kFps, seconds.c_str());
  std::snprintf(audio, sizeof audio, "sine=frequency=440:sample_rate=%d:duration=%s", kAudioRate, seconds.c_str());
  const std::vector<std::pair<std::string, std::vector<std::string>>> jobs = {
      {in.video,
       {ffmpeg, "-hide_banner", "-nostdin", "-loglevel", "error", "-y", "-f", "lavfi", "-i", video, "-c:v", "libx265",
        "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-x265-params",
        "log-level=none:bframes=0:keyint=" + std::to_string(kFps) + ":min-keyint=" + std::to_string(kFps) +
            ":scenecut=0:info=0",
        "-f", "hevc", in.video + ".part"}},
      {in.audio,
       {ffmpeg, "-hide_banner", "-nostdin", "-loglevel", "error", "-y", "-f", "lavfi", "-i", audio, "-ac", "2", "-f",
        "s16le", in.audio + ".part"}}};
  for (const auto& [path, argv] : jobs) {
    if (FileSize(path) > 0) continue;
    std::printf("generating %s with ffmpeg ...\n", path.c_str());
    std::fflush(stdout);
    const std::string log = path + ".log", part = path + ".part";
    ChildRun run;
    if (!RunChild(argv, nullptr, log.c_str(), run) || !run.Succeeded() || FileSize(part) <= 0 ||
        rename(part.c_str(), path.c_str()) != 0) {
      std::fprintf(stderr, "%s: ffmpeg failed making %s:\n%s\n", programName, path.c_str(), TailOf(log).c_str());
      unlink(part.c_str());
      return false;
    }
    unlink(log.c_str());
  }
  return finishInput(in);
}

std::vector<std::string> AudioFormatOptions(const Input& in) {
  const std::string suffix = ".s16le";
  if (in.audio.size() < suffix.size() || in.audio.compare(in.audio.size() - suffix.size(), suffix.size(), suffix) != 0)
    return {};
  return {"--audio-format", "s16le:" + std::to_string(kAudioRate) + ":2"};
}

bool RepeatInput(const Input& one, int times, const std::string& dir, Input& out) {
  const std::string oneBase = baseName(dir, one.minutes);
  const std::string base = oneBase + "-x" + std::to_string(times);
  out.minutes = one.minutes * times;
  // The copies keep the names' tails (codec and suffix) of the pieces.
  out.video = base + one.video.substr(std::min(one.video.size(), oneBase.size()));
  out.audio = base + one.audio.substr(std::min(one.audio.size(), oneBase.size()));
  // A copy made from an older piece is made again.
  for (const auto& [from, to] : {std::make_pair(one.video, out.video), std::make_pair(one.audio, out.audio)}) {
    if (FileSize(to) > 0 && ModifiedNs(to) >= ModifiedNs(from)) continue;
    if (!repeatFile(from, times, to)) return false;
  }
  return finishInput(out);
}

}  // namespace bench
}  // namespace boxweave
