// An element with a thread of its own that calls ProcessPacket() pass after pass.
//
// The thread follows the status ladder:
//   opened -> paused    the thread is launched, waiting (StartToPause, or the first step of Start)
//   paused -> started   passes run
//   started -> paused   passes stop; the move returns once the pass under way has finished
//   paused -> opened    the thread ends and is joined
// Launching clears the loop-end flag. While the flag stands (set by the element itself at the end of
// its run, or around a seek) the thread makes no passes: it sleeps until the flag is cleared or the
// thread is stopped. Setting the flag does not wait for the pass under way.
//
// A status move made on the element's own thread (say from a message handler) does not wait for the
// pass it is in: a Stop there ends the thread after the pass and the join happens on the next launch or
// at destruction. A class that derives from this one brings its status down in its own destructor, so
// that no pass runs while its part of the object is being destroyed.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "stream/core/fw/IElement.h"

namespace kiv {
namespace stream {

// A joinable thread that knows whether it is the calling one. Start and Join may come from different
// threads; a second joiner waits for the first.
class Thread {
 public:
  Thread() = default;
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;
  ~Thread();
  // False (with a log line) when a thread runs already or none can be made.
  bool Start(std::function<void()> fn);
  // Waits for the thread's end; false when called from the thread itself (it is not joined then).
  bool Join();
  bool Joinable() const;
  bool IsCurrent() const { return _id.load() == std::this_thread::get_id(); }

 private:
  mutable std::mutex _m;
  std::thread _t;
  std::atomic<std::thread::id> _id{};
};

class IElementWithThread : public virtual IElement {
 public:
  IElementWithThread() = default;
  ~IElementWithThread() override;

  // The moves of the ladder above, named here so that subclasses can call them qualified.
  bool Start() override;
  bool StartToPause() override;
  bool Stop() override { return IStatus::Stop(); }
  bool Pause() override { return IStatus::Pause(); }
  bool Resume() override { return IStatus::Resume(); }
  bool CanThread() override { return true; }

  // The loop-end flag.
  void LoopEnd(bool on);
  bool LoopEnd() const { return _loopEnd.load() != 0; }
  // Waits until the thread makes no more passes: the loop-end flag stands and no pass is under way, or
  // the thread is not running. timeoutMs < 0 waits without limit. False on timeout.
  bool WaitLoopEnd(int timeoutMs);
  // Passes completed since construction.
  unsigned long long Passes() const { return _passes.load(); }
  // Is the calling thread the element's thread?
  bool InThread() const { return _thread.IsCurrent(); }

 protected:
  // The thread's body: waits while passes are not allowed, runs ProcessPacket otherwise.
  virtual void Loop();
  bool statusStep(int from, int to) override;
  void statusSettle(int from, int to) override;

 private:
  // Joins a thread that has been told to end (a Stop made on the thread itself).
  void joinEnded();
  bool passAllowed() const { return _run && !_loopEnd.load(); }

  Thread _thread;
  mutable std::mutex _m;
  std::condition_variable _cv;
  bool _run = false;     // passes allowed by the status (started)
  bool _quit = false;    // the thread is to end
  bool _inPass = false;  // a ProcessPacket call is under way
  bool _alive = false;   // the thread's loop is running
  std::atomic<unsigned char> _loopEnd{0};
  std::atomic<unsigned long long> _passes{0};
};

}  // namespace stream
}  // namespace kiv
