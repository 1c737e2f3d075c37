// "demo": the main job on the built-in default: the bundled sample recorded as .mov and .mp4, and
// each recording played back.
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>

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

int demo(const std::string& dir) {
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
    RecordOptions o;
    o.out = out;
    o.video = samples + "/sample.h264";
    o.audio = samples + "/sample.aac";
    const int status = Record(o);
    if (status != kOk) return status;
    InfoOptions summary;
    summary.path = out;
    summary.summary = true;
    const int info = Info(summary);
    if (info != kOk) return info;
    // And back through the plug-in's own demuxer: a line a track of what it delivers.
    std::printf("== playing %s\n", out.c_str());
    std::fflush(stdout);
    PlayOptions play;
    play.path = out;
    play.messages = false;
    const int played = Play(play);
    if (played != kOk) return played;
  }
  return kOk;
}

}  // namespace

Verb AddDemo(CLI::App& app) {
  auto dir = std::make_shared<std::string>("boxweave-demo");
  CLI::App* cmd = app.add_subcommand("demo", "record the bundled sample into DIR as .mov and .mp4 at 30 fps, and play both back");
  cmd->add_option("DIR", *dir, "the directory to record into")->capture_default_str();
  return {cmd, [dir] { return demo(*dir); }};
}

}  // namespace boxweave
