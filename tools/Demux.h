// The demuxer element as the play and remux verbs drive it: found by keywords through the registry,
// one output port for video and one for audio, the end of its run awaited on the host's thread, and
// the log's complaints kept to be told once.
#pragma once

#include <signal.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "stream/base/Message.h"
#include "stream/core/fw/IPort.h"
#include "stream/plugin/mp4/core/demux/IDemuxer.h"

namespace boxweave {

// While it lives, the log's error lines are kept (each text once) instead of printed; from
// --log-level I on every line is also passed to stderr as it comes.
class LogNotes {
 public:
  LogNotes();
  ~LogNotes();
  LogNotes(const LogNotes&) = delete;
  LogNotes& operator=(const LogNotes&) = delete;
  // "boxweave: note: TEXT" for the first few (all from --log-level I on).
  void Print() const;
  std::vector<std::string> Notes() const;

 private:
  mutable std::mutex _m;
  std::vector<std::string> _notes;
};

// The end of a run: the element's thread hands over "eos" or "error", the host's thread waits for
// it. The host never stops the element from inside the handler, which runs on the element's thread.
class RunEnd {
 public:
  // For the message handler: true when the message ends the run.
  bool Take(const kiv::base::Message& msg);
  // Ends the run by `name` unless it has ended already.
  void End(const std::string& name);
  // The name of the message that ended the run.
  std::string Wait();
  // Waits until the run has ended or `ready` (checked under the lock) holds; true for `ready`.
  template <class Ready>
  bool WaitFor(Ready ready) {
    std::unique_lock<std::mutex> lock(_m);
    _cv.wait(lock, [&] { return ready() || !_end.empty(); });
    return ready();
  }
  // Wakes WaitFor after a change that `ready` reads; `change` runs under the lock.
  template <class Change>
  void Notify(Change change) {
    {
      std::lock_guard<std::mutex> lock(_m);
      change();
    }
    _cv.notify_all();
  }

 private:
  std::mutex _m;
  std::condition_variable _cv;
  std::string _end;
};

// While it lives, SIGINT and SIGTERM end the run ("SIGINT" or "SIGTERM" from RunEnd::Wait) instead
// of the process, so that outputs are closed whole: the signals are blocked in this thread and in
// every thread started meanwhile, and one thread of its own waits for them. A second signal ends the
// process at once.
class StopOnSignal {
 public:
  explicit StopOnSignal(RunEnd& end);
  ~StopOnSignal();
  StopOnSignal(const StopOnSignal&) = delete;
  StopOnSignal& operator=(const StopOnSignal&) = delete;
  // The exit status of a run that a signal ended (128 + its number).
  static int Status(const std::string& end);

 private:
  sigset_t _old;
  std::thread _waiter;
};

// A demuxer element for a file, with the ports "video" (index 0) and "audio" (index 1) made before
// Open: Open gives each the media of the first track of its kind, and a port left without media
// means the file has no such track.
struct Demux {
  std::unique_ptr<kiv::stream::IDemuxer> element;
  kiv::stream::IPort* video = nullptr;
  kiv::stream::IPort* audio = nullptr;
};

// Creates the element by keywords and gives it the url and its ports; "" on success, else the reason.
std::string NewDemux(const std::string& path, Demux& d);

}  // namespace boxweave
