#include "stream/core/fw/IElementWithThread.h"

#include <chrono>
#include <system_error>

#include "stream/base/dbg/Log.h"

namespace kiv {
namespace stream {

// ---- Thread

Thread::~Thread() {
  std::lock_guard<std::mutex> lock(_m);
  if (!_t.joinable()) return;
  // A thread cannot join itself; it is let go to finish on its own.
  if (IsCurrent()) _t.detach();
  else _t.join();
}

bool Thread::Start(std::function<void()> fn) {
  std::lock_guard<std::mutex> lock(_m);
  if (_t.joinable()) {
    LOGE << "_t.joinable()";
    return false;
  }
  try {
    // The new thread notes its own id first, so that it knows itself before Start has returned.
    _t = std::thread([this, fn = std::move(fn)] {
      _id = std::this_thread::get_id();
      fn();
    });
  } catch (const std::system_error& e) {
    LOGE << "!std::thread " << e.what();
    return false;
  }
  _id = _t.get_id();
  return true;
}

bool Thread::Join() {
  if (IsCurrent()) return false;
  std::lock_guard<std::mutex> lock(_m);
  if (_t.joinable()) _t.join();
  _id = std::thread::id();
  return true;
}

bool Thread::Joinable() const {
  std::lock_guard<std::mutex> lock(_m);
  return _t.joinable();
}

// ---- IElementWithThread

IElementWithThread::~IElementWithThread() {
  bool running;
  {
    std::lock_guard<std::mutex> lock(_m);
    running = _alive && !_quit;
    _quit = true;
    _run = false;
  }
  _cv.notify_all();
  if (running) LOGE << "thread still running at destruction: " << Name();
  _thread.Join();
}

void IElementWithThread::LoopEnd(bool on) {
  {
    std::lock_guard<std::mutex> lock(_m);
    _loopEnd = on ? 1 : 0;
  }
  _cv.notify_all();
}

bool IElementWithThread::WaitLoopEnd(int timeoutMs) {
  // The thread cannot wait for the end of its own pass.
  if (_thread.IsCurrent()) return LoopEnd();
  std::unique_lock<std::mutex> lock(_m);
  auto done = [this] { return !_alive || (_loopEnd.load() && !_inPass); };
  if (timeoutMs < 0) {
    _cv.wait(lock, done);
    return true;
  }
  return _cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), done);
}

void IElementWithThread::joinEnded() {
  if (_thread.IsCurrent()) return;
  {
    std::lock_guard<std::mutex> lock(_m);
    if (!_quit) return;
  }
  _thread.Join();
}

bool IElementWithThread::Start() {
  joinEnded();
  return IStatus::Start();
}

bool IElementWithThread::StartToPause() {
  joinEnded();
  return IStatus::StartToPause();
}

void IElementWithThread::Loop() {
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(_m);
      _cv.wait(lock, [this] { return _quit || passAllowed(); });
      if (_quit) break;
      _inPass = true;
    }
    ProcessPacket();
    {
      std::lock_guard<std::mutex> lock(_m);
      _inPass = false;
      ++_passes;
    }
    _cv.notify_all();
  }
  {
    std::lock_guard<std::mutex> lock(_m);
    _alive = false;
  }
  _cv.notify_all();
}

bool IElementWithThread::statusStep(int from, int to) {
  if (from == opened && to == paused) {
    if (_thread.IsCurrent()) {
      LOGE << "launch from the element's own thread";
      return false;
    }
    // Normally joined already (Start, StartToPause); a thread still standing here has been told to end.
    joinEnded();
    {
      std::lock_guard<std::mutex> lock(_m);
      if (_alive) {
        LOGE << "_alive";
        return false;
      }
      _run = false;
      _quit = false;
      _inPass = false;
      _alive = true;
      _loopEnd = 0;
    }
    if (!_thread.Start([this] { Loop(); })) {
      std::lock_guard<std::mutex> lock(_m);
      _alive = false;
      return false;
    }
    return true;
  }
  if (from == paused && to == started) {
    {
      std::lock_guard<std::mutex> lock(_m);
      _run = true;
    }
    _cv.notify_all();
    return true;
  }
  if (from == started && to == paused) {
    {
      std::lock_guard<std::mutex> lock(_m);
      _run = false;
    }
    _cv.notify_all();
    return true;
  }
  if (from == paused && to == opened) {
    {
      std::lock_guard<std::mutex> lock(_m);
      _quit = true;
      _run = false;
    }
    _cv.notify_all();
    return true;
  }
  return true;
}

void IElementWithThread::statusSettle(int from, int to) {
  // On the element's own thread there is nothing to wait for: the pass under way is this call's own.
  if (_thread.IsCurrent()) return;
  if (from == started && to == paused) {
    std::unique_lock<std::mutex> lock(_m);
    _cv.wait(lock, [this] { return !_inPass || _run; });
  } else if (from == paused && to == opened) {
    joinEnded();
  }
}

}  // namespace stream
}  // namespace kiv
