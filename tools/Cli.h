// Shared pieces of the command-line host: the verbs, their options and usage errors.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "stream/base/Convert.h"

namespace CLI {
class App;
}

namespace boxweave {

// Exit statuses: 0 success, 1 the work failed, 2 the command line was wrong.
enum Exit { kOk = 0, kFailed = 1, kUsage = 2 };

// A verb: its subcommand, and the work to run once the whole command line has been read (the
// plug-in registers its classes in between).
struct Verb {
  CLI::App* command;
  std::function<int()> run;
};

Verb AddInspect(CLI::App& app);
Verb AddInfo(CLI::App& app);
Verb AddRecord(CLI::App& app);
Verb AddDemo(CLI::App& app);

// Prints "boxweave: MESSAGE" and a hint to stderr; returns kUsage.
int UsageError(const std::string& message, const std::string& verb = "");

struct RecordOptions {
  std::string out;
  std::string format;  // "mov" or "mp4"; empty: from the extension of out
  std::string video;
  std::string audio;
  kiv::base::Fraction fps{30, 1};
  bool thumb = false;
  long long cacheBlock = 0;
  long long cacheBlocks = 0;
  bool spill = false;
  bool tableFiles = false;
  std::string tmp;
  std::vector<std::pair<std::string, std::string>> tags;
};
int Record(RecordOptions o);

struct InfoOptions {
  std::string path;
  bool json = false;
  bool summary = false;
};
int Info(const InfoOptions& o);

// Directory of the running program.
std::string OwnDirectory();

}  // namespace boxweave
