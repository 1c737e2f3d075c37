// boxweave: a host application of the libboxweave plug-in. The plug-in is linked, so that one copy of
// its classes serves both the registry and the box trees "info" reads; its static initialiser hands
// the registration to the host at load, and the host runs it before the first verb, the way a stream
// framework does after loading a module.
#include <limits.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "stream/base/dbg/Log.h"
#include "stream/base/reflect/IClass.h"
#include "tools/Cli.h"

namespace boxweave {
namespace {

const char* const kHostVersion = "boxweave host 0.1.0";

int levelOf(const std::string& s) {
  if (s == "E") return kiv::dbg::E;
  if (s == "I") return kiv::dbg::I;
  if (s == "L") return kiv::dbg::L;
  return kiv::dbg::N;
}

}  // namespace

std::string OwnDirectory() {
  char buf[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return ".";
  std::string path(buf, static_cast<size_t>(n));
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

int UsageError(const std::string& message, const std::string& verb) {
  std::fprintf(stderr, "boxweave: %s\nTry 'boxweave %s--help'.\n", message.c_str(),
               verb.empty() ? "" : (verb + " ").c_str());
  return kUsage;
}

}  // namespace boxweave

int main(int argc, char** argv) {
  using namespace boxweave;
  CLI::App app("Records, plays and inspects QuickTime and MP4 files through the libboxweave plug-in.", "boxweave");
  app.require_subcommand(0, 1);
  app.footer("Exit status: 0 success, 1 failure, 2 wrong command line.");
  std::string level = "N";
  bool version = false;
  // Checked after the parse, so that a wrong level is told as a fault of the global options.
  app.add_option("--log-level", level, "show log lines up to level E, N (default), I or L (all, with traces)")
      ->type_name("E|N|I|L");
  app.add_flag("--version", version, "print the plug-in's version banner and the host's version");
  const std::vector<Verb> verbs = {AddInspect(app), AddInfo(app), AddDemo(app), AddRecord(app), AddPlay(app),
                                   AddRemux(app)};

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::string verb;
    for (const Verb& v : verbs)
      if (v.command->parsed()) verb = v.command->get_name();
    return UsageError(e.what(), verb);
  }
  const Verb* chosen = nullptr;
  for (const Verb& v : verbs)
    if (v.command->parsed()) chosen = &v;
  if (level.size() != 1 || std::string("ENIL").find(level) == std::string::npos)
    return UsageError("--log-level must be E, N, I or L, not '" + level + "'");
  if (!chosen && !version) return UsageError("no verb given");

  kiv::dbg::SetLevel(levelOf(level));
  kiv::base::SetDebugDefault(levelOf(level) >= kiv::dbg::L);
  kiv::ReflectRun();  // the host's own classes and the plug-in's, in the order they were handed over

  if (version) {
    for (const auto& e : kiv::ReflectEntries())
      if (!e.banner.empty()) std::printf("%s\n", e.banner.c_str());
    std::printf("%s\n", kHostVersion);
    return kOk;
  }
  return chosen->run();
}
