#include "tools/Demux.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <mutex>

#include "stream/base/AttrSet.h"
#include "stream/base/dbg/Log.h"
#include "stream/base/reflect/Object.h"
#include "tools/Cli.h"

namespace boxweave {

LogNotes::LogNotes() {
  kiv::dbg::SetSink([this](int level, const std::string& line) {
    // Boxes without a class of their own are many and no fault; a failed child is told again by each
    // box around it.
    if (level == kiv::dbg::E && line.find("unknow box:") == std::string::npos &&
        line.find("!bx->Parse(") == std::string::npos) {
      const std::string text = LogText(line);
      std::lock_guard<std::mutex> lock(_m);
      // A damaged file repeats the same few complaints many times.
      if (!text.empty() && _notes.size() < 100 && std::find(_notes.begin(), _notes.end(), text) == _notes.end())
        _notes.push_back(text);
    }
    if (kiv::dbg::GetLevel() >= kiv::dbg::I) std::cerr << line;
  });
}

LogNotes::~LogNotes() { kiv::dbg::SetSink(nullptr); }

std::vector<std::string> LogNotes::Notes() const {
  std::lock_guard<std::mutex> lock(_m);
  return _notes;
}

void LogNotes::Print() const {
  constexpr size_t kShown = 3;
  const bool all = kiv::dbg::GetLevel() >= kiv::dbg::I;
  const std::vector<std::string> notes = Notes();
  for (size_t i = 0; i < notes.size() && (i < kShown || all); ++i)
    std::fprintf(stderr, "boxweave: note: %s\n", kiv::base::Printable(notes[i].substr(0, 160)).c_str());
  if (notes.size() > kShown && !all)
    std::fprintf(stderr, "boxweave: note: %zu more; --log-level I shows them\n", notes.size() - kShown);
}

bool RunEnd::Take(const kiv::base::Message& msg) {
  const std::string name = msg.Name();
  if (name != "eos" && name != "error") return false;
  End(name);
  return true;
}

void RunEnd::End(const std::string& name) {
  Notify([&] {
    if (_end.empty()) _end = name;
  });
}

namespace {
// SIGUSR2 only wakes the waiter to let it go.
sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : {SIGINT, SIGTERM, SIGUSR2}) sigaddset(&set, sig);
  return set;
}
}  // namespace

StopOnSignal::StopOnSignal(RunEnd& end) {
  const sigset_t set = stopSignals();
  pthread_sigmask(SIG_BLOCK, &set, &_old);
  _waiter = std::thread([&end, set] {
    bool stopping = false;
    for (int sig = 0; sigwait(&set, &sig) == 0;) {
      if (sig == SIGUSR2) return;
      if (stopping) _exit(128 + sig);
      stopping = true;
      end.End(sig == SIGINT ? "SIGINT" : "SIGTERM");
    }
  });
}

StopOnSignal::~StopOnSignal() {
  pthread_kill(_waiter.native_handle(), SIGUSR2);
  _waiter.join();
  pthread_sigmask(SIG_SETMASK, &_old, nullptr);
}

int StopOnSignal::Status(const std::string& end) {
  return end == "SIGINT" ? 128 + SIGINT : end == "SIGTERM" ? 128 + SIGTERM : 0;
}

std::string RunEnd::Wait() {
  std::unique_lock<std::mutex> lock(_m);
  _cv.wait(lock, [&] { return !_end.empty(); });
  return _end;
}

std::string NewDemux(const std::string& path, Demux& d) {
  // The plug-in leaves the demuxer base's class record ("parse", "live") to a host that wants those
  // properties by name: this one sets "live".
  static std::once_flag registered;
  std::call_once(registered, [] { RegisterIFileDemuxer(); });
  kiv::base::AttrSet ap;
  kiv::base::Object::AttrSetInit(ap, nullptr, "demuxer-mov");
  d.element.reset(kiv::base::Object::New<kiv::stream::IDemuxer>(ap));
  if (!d.element) return "the plug-in has no demuxer";
  if (!d.element->setString("url", path.c_str())) return "the demuxer takes no url";
  d.video = d.element->CreatePortOut("video", 0);
  d.audio = d.element->CreatePortOut("audio", 1);
  if (!d.video || !d.audio) return "the demuxer makes no output ports";
  return "";
}

}  // namespace boxweave
