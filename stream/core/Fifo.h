// Bounded first-in first-out queues.
//
// Fifo<T, D> holds at most Max() elements. A deleter of type D (by default a plain function taking T&)
// disposes of elements that the queue drops itself: in Clear, in the destructor, and in pop with no
// place to put the element. For packets:
//
//   Fifo<Packet*, void (*)(Packet*&)> fifo(16, [](Packet*& p) { kiv::base::Release(p); });
//
// Every operation is safe across threads. push and pop do not wait by default; with a timeout in
// milliseconds (-1: no limit) they wait for room or for an element. WaitAbort(true) wakes all waiters
// and makes waits fail at once until WaitAbort(false).
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <type_traits>
#include <utility>

#include "stream/base/reflect/Object.h"

namespace kiv {
namespace stream {

class IContainer : public virtual kiv::object_base {
 public:
  virtual int Size() const = 0;
  virtual int Max() const = 0;
  virtual bool Empty() const = 0;
  virtual bool Full() const = 0;
  virtual void Clear() = 0;
};

class IFifo : public IContainer {
 public:
  enum : unsigned { kAbort = 0x1 };
  // Changes the bound; false (nothing changed) for a bound below 1 or below the present count.
  virtual bool Remax(int max) = 0;
  virtual void WaitAbort(bool abort) = 0;
  virtual unsigned Flags() const = 0;
};

template <class T, class D = void (*)(T&)>
class Fifo : public IFifo {
 public:
  explicit Fifo(int max, D deleter = D()) : _max(max > 0 ? max : 1), _deleter(std::move(deleter)) {}
  Fifo(const Fifo&) = delete;
  Fifo& operator=(const Fifo&) = delete;
  ~Fifo() override { Clear(); }

  // Appends at the tail; false when the queue stays full for the whole wait, or on abort. A refused
  // element stays with the caller.
  bool push(const T& v, int timeoutMs = 0) {
    std::unique_lock<std::mutex> lock(_m);
    if (!waitFor(lock, timeoutMs, _notFull, [this] { return static_cast<int>(_q.size()) < _max; })) return false;
    _q.push_back(v);
    _notEmpty.notify_one();
    return true;
  }
  bool push(T&& v, int timeoutMs = 0) {
    std::unique_lock<std::mutex> lock(_m);
    if (!waitFor(lock, timeoutMs, _notFull, [this] { return static_cast<int>(_q.size()) < _max; })) return false;
    _q.push_back(std::move(v));
    _notEmpty.notify_one();
    return true;
  }

  // Takes the head into out; false when the queue stays empty for the whole wait, or on abort.
  bool pop(T& out, int timeoutMs = 0) {
    std::unique_lock<std::mutex> lock(_m);
    if (!waitFor(lock, timeoutMs, _notEmpty, [this] { return !_q.empty(); })) return false;
    out = std::move(_q.front());
    _q.pop_front();
    _notFull.notify_one();
    return true;
  }
  // Takes the head into *out, or disposes of it with the deleter when out is null.
  bool pop(T* out) {
    T v;
    {
      std::unique_lock<std::mutex> lock(_m);
      if (_q.empty()) return false;
      v = std::move(_q.front());
      _q.pop_front();
      _notFull.notify_one();
    }
    if (out) *out = std::move(v);
    else dispose(v);
    return true;
  }

  // Copies the i-th element from the head (0 is the head) into *out without taking it.
  bool peek(int i, T* out) const {
    std::lock_guard<std::mutex> lock(_m);
    if (i < 0 || i >= static_cast<int>(_q.size())) return false;
    if (out) *out = _q[static_cast<size_t>(i)];
    return true;
  }

  int Size() const override {
    std::lock_guard<std::mutex> lock(_m);
    return static_cast<int>(_q.size());
  }
  int Max() const override {
    std::lock_guard<std::mutex> lock(_m);
    return _max;
  }
  bool Empty() const override { return Size() == 0; }
  bool Full() const override {
    std::lock_guard<std::mutex> lock(_m);
    return static_cast<int>(_q.size()) >= _max;
  }
  // Drops every element through the deleter, head first.
  void Clear() override {
    std::deque<T> gone;
    {
      std::lock_guard<std::mutex> lock(_m);
      gone.swap(_q);
      _notFull.notify_all();
    }
    // The deleter runs outside the lock: it may touch the queue or other locks of its own.
    for (auto& v : gone) dispose(v);
  }
  bool Remax(int max) override {
    std::lock_guard<std::mutex> lock(_m);
    if (max < 1 || max < static_cast<int>(_q.size())) return false;
    _max = max;
    _notFull.notify_all();
    return true;
  }
  void WaitAbort(bool abort) override {
    std::lock_guard<std::mutex> lock(_m);
    _flags = abort ? (_flags | kAbort) : (_flags & ~static_cast<unsigned>(kAbort));
    _notFull.notify_all();
    _notEmpty.notify_all();
  }
  unsigned Flags() const override {
    std::lock_guard<std::mutex> lock(_m);
    return _flags;
  }
  // The bare storage, for a single-threaded owner that wants to walk it; no lock is taken.
  std::deque<T>& Core() { return _q; }

 private:
  template <class Pred>
  bool waitFor(std::unique_lock<std::mutex>& lock, int timeoutMs, std::condition_variable& cv, Pred ready) {
    if (ready()) return true;
    if (timeoutMs == 0 || (_flags & kAbort)) return false;
    auto done = [&] { return ready() || (_flags & kAbort); };
    if (timeoutMs < 0) cv.wait(lock, done);
    else cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), done);
    return ready() && !(_flags & kAbort);
  }
  void dispose(T& v) {
    if constexpr (std::is_pointer<D>::value) {
      if (_deleter) _deleter(v);
    } else {
      _deleter(v);
    }
  }

  mutable std::mutex _m;
  std::condition_variable _notFull;
  std::condition_variable _notEmpty;
  std::deque<T> _q;
  int _max;
  unsigned _flags = 0;
  D _deleter;
};

}  // namespace stream
}  // namespace kiv
