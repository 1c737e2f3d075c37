// Elements: the nodes of a stream graph, their status ladder, and the sink and source kinds.
//
// Status ladder, one step at a time:   closed <-> opened <-> paused <-> started
// Each step runs beforeStatusUp/Down(from, to) (false stops the move), then the element's own machinery
// for the step (statusStep: a thread element launches, runs, pauses and stops its thread there), then
// records the new status and runs afterStatusUp/Down(from, to). These run under the element's ladder
// lock, so steps from different threads do not interleave. After the lock is left, statusSettle(from,
// to) does what waits on other threads (the end of a pass, a join). Open, Start, Pause, ... are moves on
// this ladder; a subclass that wraps one of them calls the IStatus one for the move itself. A move whose
// status was changed by another caller between two of its steps ends there.
//
// Element classes join these bases with virtual inheritance (IElement, IStatus and Object are shared),
// so `class MovMuxer : public ISink, public IIO, public IMovMuxer` has one object and one status.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <string>

#include "stream/base/Message.h"
#include "stream/base/reflect/Object.h"
#include "stream/core/fw/IPort.h"

namespace kiv {
namespace stream {

class IMedia;
class Packet;

class IStatus : public virtual kiv::base::Object {
 public:
  enum State : int { closed = 0, opened = 1, paused = 2, started = 3 };
  static const char* StatusName(int status);

  IStatus() = default;
  ~IStatus() override;

  int Status() const { return _status.load(); }

  // closed -> opened; true when already open or above.
  virtual bool Open();
  // Down to closed from wherever the element stands.
  virtual bool Close();
  // Up to started through every step.
  virtual bool Start();
  // Down to opened; true when not above it.
  virtual bool Stop();
  // started -> paused; true when paused already, false below.
  virtual bool Pause();
  // paused -> started; true when started already, false below paused.
  virtual bool Resume();
  // Up to paused: ready to run, not running.
  virtual bool StartToPause();
  // paused -> opened.
  virtual bool StopFromPause();

  // Moves up to the target; false when the target lies below or a step fails.
  bool StatusUp(int target);
  // Moves down to the target (closed by default); false when the target lies above or a step fails.
  bool StatusDown(int target = closed);
  // Moves to the target in whichever direction.
  bool StatusChange(int target);

 protected:
  // Hooks around each step. A false from a before-hook leaves the status as it was.
  virtual bool beforeStatusUp(int from, int to);
  virtual void afterStatusUp(int from, int to);
  virtual bool beforeStatusDown(int from, int to);
  virtual void afterStatusDown(int from, int to);
  // The element's own work for one step (to is from + 1 or from - 1); false fails the move. Runs under
  // the ladder lock: it must not wait for other threads.
  virtual bool statusStep(int from, int to);
  // Runs after a step, outside the ladder lock: waits for other threads that the step asked for.
  virtual void statusSettle(int from, int to);

 private:
  // dir > 0 moves up only, dir < 0 down only, 0 either way.
  bool move(int target, int dir);
  bool step(int from, int to);
  std::atomic<int> _status{closed};
  std::recursive_mutex _ladder;
};

class IElement : public virtual IStatus, public kiv::base::IMessageProcesser {
 public:
  IElement() = default;
  // Destroys the ports, which unlinks them.
  ~IElement() override;

  // The flag word: capability bits that element classes set in their constructors.
  unsigned Flags() const { return _flags.load(); }
  void FlagsSet(unsigned bits) { _flags |= bits; }
  void FlagsClear(unsigned bits) { _flags &= ~bits; }

  // The element's ports, in order of creation; owned by the element.
  std::list<IPort*>& Ports() { return _ports; }
  IPort* Port(const char* name) const;
  // Takes over a port made for this element (its Owner() must be this).
  bool AddPort(IPort* port);
  virtual IPort* CreatePort(const char* name, const char* caps);
  virtual int InitPort() { return 0; }
  virtual void CapsSet(const char* caps) { _caps = caps ? caps : ""; }
  const char* Caps() const { return _caps.c_str(); }
  virtual bool CanThread() { return false; }
  virtual unsigned InputMode() const { return 0; }
  virtual unsigned OutputMode() const { return 0; }

  // Messages. sendMessage (the object hook) sends up. SendMessageForward reaches the application and
  // every element downstream (ReceiveMessage). ReceiveMessage offers the message to receiveMessage and,
  // when that does not take it, passes it on downstream.
  bool sendMessage(kiv::base::Message& msg) override;
  bool SendMessageForward(kiv::base::Message& msg) override;
  virtual bool ReceiveMessage(kiv::base::Message& msg);

  // Packets. The element entry; user is the input port for packets that come through a port.
  virtual bool ReceivePacket(Packet& packet, void* user);
  // The port entry: calls ReceivePacket(packet, &port). A packet the element refuses comes back with
  // one more reference, which the sender drops together with its own.
  virtual bool ReceivePacket(Packet& packet, IPort& port, bool wait);
  // A packet made by this element (the caller owns one reference), null at the end, or the pointer
  // value -1 on an error.
  virtual Packet* GeneratePacket(void* user);
  virtual int ReceiveNullPacket(IPort& port);
  virtual int GenerateNullPacket(IPort& port);
  // One pass of the element's work; the thread of a thread element calls it over and over.
  virtual int ProcessPacket() { return 0; }

  // Linking. The element base links nothing: sources link to, sinks link from.
  virtual bool LinkTo(IElement* next);
  virtual bool LinkTo(IPort* in);
  virtual bool LinkFrom(IPort* out);
  virtual bool LinkFrom(IElement* prev);

  // Visits the elements downstream (upstream), each once; fn returns false to stop the walk, which
  // then returns false.
  bool EleGraphForward(const std::function<bool(IElement*)>& fn);
  bool EleGraphBackward(const std::function<bool(IElement*)>& fn);

 protected:
  // Hands the message to every element behind this one's output ports.
  bool forwardDown(kiv::base::Message& msg);

 private:
  std::list<IPort*> _ports;
  std::atomic<unsigned> _flags{0};
  std::string _caps;
};

// An element with input ports.
class ISink : public virtual IElement {
 public:
  // An input port of that name and caps.
  IPort* CreatePort(const char* name, const char* caps) override;
  // An input port named index + "_in_" + caps.
  virtual IPort* CreatePortIn(const char* caps, int index);
  // Links an output port of another element to a free input port of this one that accepts it, or to a
  // new one.
  bool LinkFrom(IPort* out) override;
  bool LinkFrom(IElement* prev) override;
  // The input port that carries this media.
  virtual IPort* SelectPortIn(IMedia* media);
  unsigned InputMode() const override { return _inputMode; }
  virtual bool ConsultInputMode(unsigned mode);
  virtual bool ConsultBegin() { return true; }
  virtual bool Consult() { return true; }
  virtual bool ConsultEnd() { return true; }
  // True while the element stands below started.
  virtual bool CheckInputStatusIsLeftFromPlay() { return Status() < started; }

 private:
  unsigned _inputMode = 0;
};

// An element with output ports.
class ISource : public virtual IElement {
 public:
  // An output port of that name and caps.
  IPort* CreatePort(const char* name, const char* caps) override;
  // An output port named index + "_out_" + caps; null for null caps.
  virtual IPort* CreatePortOut(const char* caps, int index);
  // Links every unlinked output port to the next element (which takes or makes input ports for them);
  // false when none could be linked.
  bool LinkTo(IElement* next) override;
  // Links the first unlinked output port to that input port.
  bool LinkTo(IPort* in) override;
  // The output port whose media is this media.
  virtual IPort* SelectPortOut(IMedia* media);
  unsigned OutputMode() const override { return _outputMode; }
  virtual bool ConsultOutputMode(unsigned mode);
  virtual bool ConsultBegin() { return true; }
  virtual bool Consult() { return true; }
  virtual bool ConsultEnd() { return true; }
  // True while the element stands below started.
  virtual bool CheckOutputStatusIsLeftFromPlay() { return Status() < started; }

 private:
  unsigned _outputMode = 0;
};

}  // namespace stream
}  // namespace kiv
