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
namespace kiv {
namespace base {
class Message;
}
}  // namespace kiv

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
Verb AddPlay(CLI::App& app);
Verb AddRemux(CLI::App& app);

// Prints "boxweave: MESSAGE" and a hint to stderr; returns kUsage.
int UsageError(const std::string& message, const std::string& verb = "");

struct RecordOptions {
  std::string out;
  std::string format;  // "mov", "mp4" or "fmp4"; empty: from the extension of out
  std::string video;
  std::string audio;
  std::string text;         // SubRip cues for a text track
  std::string audioFormat;  // "s16le:RATE:CHANNELS" of a raw audio file
  kiv::base::Fraction fps{30, 1};
  bool thumb = false;
  long long cacheBlock = 0;
  long long cacheBlocks = 0;
  bool spill = false;
  bool tableFiles = false;
  bool use64 = false;  // --64bit; also chosen when the inputs could take the file past 4 GiB
  std::string tmp;
  std::vector<std::pair<std::string, std::string>> tags;
  bool fragmented = false;  // moof/mdat pairs (also by --format fmp4)
  long long fragmentMs = 0;  // 0: each track cuts by its own count
  bool flush = false;       // every fragment to the medium before the next
};
int Record(RecordOptions o);

struct InfoOptions {
  std::string path;
  bool json = false;
  bool summary = false;
  long long switchSize = 0x10000;  // the size from which play --tables-on-file leaves a track's tables on file
};
int Info(const InfoOptions& o);

struct PlayOptions {
  std::string path;
  std::string videoOut, audioOut, thumbOut;
  std::string textOut;  // the text track as SubRip
  bool packets = false;
  bool live = false;
  long long from = -1, to = -1, seek = -1;  // ms; -1: not given
  bool messages = true;                      // print the element's messages
  bool tablesOnFile = false;                 // big sample tables read where they lie in the file
  long long switchSize = 0x10000;            // bytes of a "stbl" from which its tables stay on file
};
int Play(const PlayOptions& o);

struct RemuxOptions {
  std::string in, out;
  std::string format;  // "mov", "mp4" or "fmp4"; empty: from the extension of out
  bool fragmented = false;    // same as format "fmp4"
  long long fragmentMs = 0;   // with fragmented: length of a fragment; 0: the muxer's own cut
};
int Remux(RemuxOptions o);

// Directory of the running program.
std::string OwnDirectory();

// ---- shared by the verbs

// The extension of a path's last component, in lower case; "" without one.
std::string Extension(const std::string& path);
// The same file under two names (a link, another path): one device and inode.
bool SameFile(const std::string& a, const std::string& b);
// Why a path cannot be read as a movie at all; empty for a regular file. Anything else may never
// end (/dev/zero) or block the open (a FIFO without a writer), so it is not opened.
std::string NotAFile(const std::string& path);
// What a failed write left is no playable movie: it goes (a device, such as /dev/full, stays).
void RemoveOutput(const std::string& path);
// A line on stdout; lines printed from several threads do not mix.
void PrintLine(const std::string& line);
// "name key=value ...": every message of an element, as it comes.
void PrintMessage(kiv::base::Message& msg);
// The text of a log line behind its place ("file:line func:\ttext").
std::string LogText(const std::string& line);

// Keeps the log's lines off the terminal while it lives: the host says what went wrong itself.
struct QuietLog {
  QuietLog();
  ~QuietLog();
  QuietLog(const QuietLog&) = delete;
  QuietLog& operator=(const QuietLog&) = delete;
};

}  // namespace boxweave
