// Shared pieces of the command-line host: verbs, usage errors and plug-in loading.
#pragma once

#include <string>
#include <vector>

namespace boxweave {

// Exit statuses: 0 success, 1 the work failed, 2 the command line was wrong.
enum Exit { kOk = 0, kFailed = 1, kUsage = 2 };

struct Verb {
  const char* name;
  const char* synopsis;  // one line for --help
  int (*run)(const std::vector<std::string>& args);
};

const std::vector<Verb>& Verbs();

// Prints "boxweave: MESSAGE" and a hint to stderr; returns kUsage.
int UsageError(const std::string& message);

int RunInspect(const std::vector<std::string>& args);
int RunInfo(const std::vector<std::string>& args);
int RunRecord(const std::vector<std::string>& args);
int RunDemo(const std::vector<std::string>& args);

// Directory of the running program.
std::string OwnDirectory();

}  // namespace boxweave
