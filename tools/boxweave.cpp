// boxweave: a host application of the libboxweave plug-in. The plug-in is linked, so that one copy of
// its classes serves both the registry and the box trees "info" reads; its static initialiser hands
// the registration to the host at load, and the host runs it before the first verb, the way a stream
// framework does after loading a module.
#include <limits.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "stream/base/dbg/Log.h"
#include "stream/base/reflect/IClass.h"
#include "tools/Cli.h"

namespace boxweave {
namespace {

const char* const kHostVersion = "boxweave host 0.1.0";

}  // namespace

std::string OwnDirectory() {
  char buf[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return ".";
  std::string path(buf, static_cast<size_t>(n));
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

namespace {

void printHelp() {
  std::printf(
      "Usage: boxweave [OPTIONS] VERB [ARGS...]\n"
      "\n"
      "Records and inspects QuickTime and MP4 files through the libboxweave plug-in.\n"
      "\n"
      "Verbs:\n");
  for (const Verb& v : Verbs()) std::printf("  %-10s %s\n", v.name, v.synopsis);
  std::printf(
      "\n"
      "Options:\n"
      "  --log-level L     show log lines up to level E, N, I (default N) or L (all, with traces)\n"
      "  -h, --help        show this help\n"
      "  --version         print the plug-in's version banner and the host's version\n"
      "\n"
      "Exit status: 0 success, 1 failure, 2 wrong command line.\n");
}

int levelOf(const std::string& s) {
  if (s == "E") return kiv::dbg::E;
  if (s == "N") return kiv::dbg::N;
  if (s == "I") return kiv::dbg::I;
  if (s == "L") return kiv::dbg::L;
  return -1;
}

}  // namespace

const std::vector<Verb>& Verbs() {
  static const std::vector<Verb> verbs = {
      {"inspect", "[WORDS]  list the registered classes, or show the class that WORDS finds", RunInspect},
      {"info", "[--json|--summary] FILE  print the box tree of a movie file, or its tracks in short", RunInfo},
      {"demo", "[DIR]  record the bundled sample into DIR (default boxweave-demo) as .mov and .mp4", RunDemo},
      {"record", "-o OUT --video FILE.h264 [--audio FILE.aac] [options]  record into a .mov or .mp4 file", RunRecord},
  };
  return verbs;
}

int UsageError(const std::string& message) {
  std::fprintf(stderr, "boxweave: %s\nTry 'boxweave --help'.\n", message.c_str());
  return kUsage;
}

}  // namespace boxweave

int main(int argc, char** argv) {
  using namespace boxweave;
  bool version = false;
  kiv::dbg::SetLevel(kiv::dbg::N);
  int i = 1;
  for (; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "-h" || a == "--help") {
      printHelp();
      return kOk;
    } else if (a == "--version") {
      version = true;
    } else if (a == "--log-level") {
      if (i + 1 >= argc) return UsageError("option " + a + " needs a value");
      const std::string v = argv[++i];
      const int level = levelOf(v);
      if (level < 0) return UsageError("unknown log level '" + v + "' (use E, N, I or L)");
      kiv::dbg::SetLevel(level);
      kiv::base::SetDebugDefault(level >= kiv::dbg::L);
    } else if (!a.empty() && a[0] == '-') {
      return UsageError("unknown option '" + a + "'");
    } else {
      break;
    }
  }

  const Verb* verb = nullptr;
  if (!version) {
    if (i >= argc) return UsageError("no verb given");
    for (const Verb& v : Verbs())
      if (std::strcmp(v.name, argv[i]) == 0) verb = &v;
    if (!verb) return UsageError(std::string("unknown verb '") + argv[i] + "'");
  }

  kiv::ReflectRun();  // the host's own classes and the plug-in's, in the order they were handed over

  if (version) {
    for (const auto& e : kiv::ReflectEntries())
      if (!e.banner.empty()) std::printf("%s\n", e.banner.c_str());
    std::printf("%s\n", kHostVersion);
    return kOk;
  }
  return verb->run(std::vector<std::string>(argv + i + 1, argv + argc));
}
