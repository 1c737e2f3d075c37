// "demo": the main job on the built-in default: the bundled sample recorded as .mov and .mp4.
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tools/Cli.h"

#ifndef BOXWEAVE_SAMPLE_DIR
#define BOXWEAVE_SAMPLE_DIR ""
#endif

namespace boxweave {
namespace {

bool exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// The sample beside the program (an installed copy) or in the source tree it was built from.
std::string sampleDir() {
  for (const std::string& d : {OwnDirectory() + "/samples", OwnDirectory() + "/../samples", std::string(BOXWEAVE_SAMPLE_DIR)})
    if (!d.empty() && exists(d + "/sample.h264") && exists(d + "/sample.aac")) return d;
  return "";
}

}  // namespace

int RunDemo(const std::vector<std::string>& args) {
  if (args.size() > 1) return UsageError("demo takes at most one directory");
  const std::string dir = args.empty() ? "boxweave-demo" : args[0];
  const std::string samples = sampleDir();
  if (samples.empty()) {
    std::fprintf(stderr, "boxweave: the bundled sample (samples/sample.h264, samples/sample.aac) is missing\n");
    return kFailed;
  }
  if (!exists(dir) && mkdir(dir.c_str(), 0777) != 0) {
    std::fprintf(stderr, "boxweave: cannot make the directory %s\n", dir.c_str());
    return kFailed;
  }
  for (const char* ext : {"mov", "mp4"}) {
    const std::string out = dir + "/sample." + ext;
    std::printf("== recording %s\n", out.c_str());
    std::fflush(stdout);
    const int status = RunRecord({"-o", out, "--video", samples + "/sample.h264", "--audio", samples + "/sample.aac",
                                  "--fps", "30"});
    if (status != kOk) return status;
    const int info = RunInfo({"--summary", out});
    if (info != kOk) return info;
  }
  return kOk;
}

}  // namespace boxweave
