#include "stream/core/fw/IElement.h"

#include <deque>
#include <set>
#include <string>

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"

namespace kiv {
namespace stream {

using kiv::base::Message;

// ---- IStatus

const char* IStatus::StatusName(int status) {
  switch (status) {
    case closed: return "closed";
    case opened: return "opened";
    case paused: return "paused";
    case started: return "started";
    default: return "?";
  }
}

IStatus::~IStatus() = default;

bool IStatus::beforeStatusUp(int, int) { return true; }
void IStatus::afterStatusUp(int, int) {}
bool IStatus::beforeStatusDown(int, int) { return true; }
void IStatus::afterStatusDown(int, int) {}
bool IStatus::statusStep(int, int) { return true; }
void IStatus::statusSettle(int, int) {}

bool IStatus::step(int from, int to) {
  const bool up = to > from;
  if (up ? !beforeStatusUp(from, to) : !beforeStatusDown(from, to)) {
    LOGE << (up ? "!beforeStatusUp(" : "!beforeStatusDown(") << StatusName(from) << "," << StatusName(to) << ") "
         << Name();
    return false;
  }
  if (!statusStep(from, to)) {
    LOGE << "!statusStep(" << StatusName(from) << "," << StatusName(to) << ") " << Name();
    return false;
  }
  _status = to;
  if (up) afterStatusUp(from, to);
  else afterStatusDown(from, to);
  if (Debug()) LOGL << Name() << " " << StatusName(from) << "->" << StatusName(to);
  return true;
}

bool IStatus::move(int target, int dir) {
  if (target < closed || target > started) {
    LOGE << "target out of ladder: " << target;
    return false;
  }
  int expect = -1;
  for (;;) {
    int from, to;
    {
      std::lock_guard<std::recursive_mutex> lock(_ladder);
      from = Status();
      if (expect >= 0 && from != expect) {
        // Another caller (say a message handler on the element's thread) moved the status meanwhile.
        LOGN << "status moved meanwhile: " << StatusName(expect) << "->" << StatusName(from) << " " << Name();
        return from == target;
      }
      if (from == target) return true;
      if ((dir > 0 && target < from) || (dir < 0 && target > from)) {
        LOGE << (dir > 0 ? "target<Status() " : "target>Status() ") << StatusName(target)
             << (dir > 0 ? "<" : ">") << StatusName(from);
        return false;
      }
      to = from < target ? from + 1 : from - 1;
      if (!step(from, to)) return false;
    }
    statusSettle(from, to);
    if (to == target) return true;
    expect = to;
  }
}

bool IStatus::StatusChange(int target) { return move(target, 0); }
bool IStatus::StatusUp(int target) { return move(target, 1); }
bool IStatus::StatusDown(int target) { return move(target, -1); }

bool IStatus::Open() { return Status() >= opened || StatusUp(opened); }
bool IStatus::Close() { return StatusDown(closed); }
bool IStatus::Start() { return StatusUp(started); }
bool IStatus::Stop() { return Status() <= opened || StatusDown(opened); }

bool IStatus::Pause() {
  const int s = Status();
  if (s == paused) return true;
  if (s != started) {
    LOGE << "Status()!=started " << StatusName(s);
    return false;
  }
  return StatusDown(paused);
}

bool IStatus::Resume() {
  const int s = Status();
  if (s == started) return true;
  if (s != paused) {
    LOGE << "Status()!=paused " << StatusName(s);
    return false;
  }
  return StatusUp(started);
}

bool IStatus::StartToPause() { return StatusChange(paused); }

bool IStatus::StopFromPause() {
  if (Status() != paused) {
    LOGE << "Status()!=paused " << StatusName(Status());
    return false;
  }
  return StatusDown(opened);
}

// ---- IElement

namespace {
// Forwarding along a graph that loops back would otherwise not end.
constexpr int kMaxForwardHops = 64;
thread_local int t_forwardDepth = 0;
}  // namespace

IElement::~IElement() {
  for (IPort* p : _ports) delete p;
  _ports.clear();
}

IPort* IElement::Port(const char* name) const {
  if (!name) return nullptr;
  for (IPort* p : _ports)
    if (std::string(p->Name()) == name) return p;
  return nullptr;
}

bool IElement::AddPort(IPort* port) {
  if (!port || port->Owner() != this) {
    LOGE << "!port || port->Owner()!=this";
    return false;
  }
  for (IPort* p : _ports)
    if (p == port) return true;
  _ports.push_back(port);
  return true;
}

IPort* IElement::CreatePort(const char* name, const char* caps) {
  LOGE << "no ports on this element: " << (name ? name : "") << " " << (caps ? caps : "");
  return nullptr;
}

bool IElement::sendMessage(Message& msg) { return SendMessageUp(msg); }

bool IElement::SendMessageForward(Message& msg) {
  msg.Hold();
  const bool up = deliverUp(msg);
  const bool down = forwardDown(msg);
  msg.Release();
  return up || down;
}

bool IElement::ReceiveMessage(Message& msg) { return receiveMessage(msg) || forwardDown(msg); }

bool IElement::forwardDown(Message& msg) {
  if (t_forwardDepth >= kMaxForwardHops) {
    LOGE << "t_forwardDepth>=kMaxForwardHops " << msg;
    return false;
  }
  ++t_forwardDepth;
  bool taken = false;
  for (IPort* p : _ports) {
    if (p->IsInput() || !p->Linked() || !p->Linked()->Owner()) continue;
    taken = p->Linked()->Owner()->ReceiveMessage(msg) || taken;
  }
  --t_forwardDepth;
  return taken;
}

bool IElement::ReceivePacket(Packet&, void*) { return false; }

bool IElement::ReceivePacket(Packet& packet, IPort& port, bool) {
  if (ReceivePacket(packet, static_cast<void*>(&port))) return true;
  packet.Hold();
  return false;
}

Packet* IElement::GeneratePacket(void*) { return nullptr; }

int IElement::ReceiveNullPacket(IPort& port) {
  if (Debug()) LOGL << Name() << " end of stream on " << port.Name();
  return 0;
}

int IElement::GenerateNullPacket(IPort&) { return 0; }

bool IElement::LinkTo(IElement*) {
  LOGE << "!LinkTo: " << TypeName() << " has no output";
  return false;
}
bool IElement::LinkTo(IPort*) {
  LOGE << "!LinkTo: " << TypeName() << " has no output";
  return false;
}
bool IElement::LinkFrom(IPort*) {
  LOGE << "!LinkFrom: " << TypeName() << " has no input";
  return false;
}
bool IElement::LinkFrom(IElement*) {
  LOGE << "!LinkFrom: " << TypeName() << " has no input";
  return false;
}

namespace {
bool walk(IElement* from, bool forward, const std::function<bool(IElement*)>& fn) {
  std::set<IElement*> seen{from};
  std::deque<IElement*> todo{from};
  while (!todo.empty()) {
    IElement* e = todo.front();
    todo.pop_front();
    for (IPort* p : e->Ports()) {
      if (p->IsInput() == forward || !p->Linked()) continue;
      IElement* next = p->Linked()->Owner();
      if (!next || !seen.insert(next).second) continue;
      if (!fn(next)) return false;
      todo.push_back(next);
    }
  }
  return true;
}
}  // namespace

bool IElement::EleGraphForward(const std::function<bool(IElement*)>& fn) { return walk(this, true, fn); }
bool IElement::EleGraphBackward(const std::function<bool(IElement*)>& fn) { return walk(this, false, fn); }

// ---- ISink

IPort* ISink::CreatePort(const char* name, const char* caps) {
  auto* p = new PortIn(this, name, caps);
  AddPort(p);
  return p;
}

IPort* ISink::CreatePortIn(const char* caps, int index) {
  if (!caps) return nullptr;
  const std::string name = std::to_string(index) + "_in_" + caps;
  // Qualified: an element with inputs and outputs decides in its own CreatePort by name.
  return ISink::CreatePort(name.c_str(), caps);
}

bool ISink::LinkFrom(IPort* out) {
  if (!out || out->IsInput() || out->Linked()) {
    LOGE << "!out || out->IsInput() || out->Linked()";
    return false;
  }
  int inputs = 0;
  for (IPort* p : Ports()) {
    if (!p->IsInput()) continue;
    ++inputs;
    if (p->Linked()) continue;
    const bool accepts = *p->Caps() == 0 || (out->Media() ? p->Match(out->Media()) : p->Match(out->Caps()));
    if (accepts) return p->Link(out);
  }
  IPort* in = CreatePortIn(out->Caps(), inputs);
  return in && in->Link(out);
}

bool ISink::LinkFrom(IElement* prev) {
  if (!prev) {
    LOGE << "!prev";
    return false;
  }
  return prev->LinkTo(this);
}

IPort* ISink::SelectPortIn(IMedia* media) {
  if (!media) return nullptr;
  for (IPort* p : Ports())
    if (p->IsInput() && p->Media() == media) return p;
  return nullptr;
}

bool ISink::ConsultInputMode(unsigned mode) {
  _inputMode = mode;
  return true;
}

// ---- ISource

IPort* ISource::CreatePort(const char* name, const char* caps) {
  auto* p = new PortOut(this, name, caps);
  AddPort(p);
  return p;
}

IPort* ISource::CreatePortOut(const char* caps, int index) {
  if (!caps) return nullptr;
  const std::string name = std::to_string(index) + "_out_" + caps;
  if (Debug()) LOGL << "CreatePortOut " << name;
  return ISource::CreatePort(name.c_str(), caps);
}

bool ISource::LinkTo(IElement* next) {
  if (!next || next == this) {
    LOGE << "!next";
    return false;
  }
  int linked = 0;
  for (IPort* p : Ports()) {
    if (p->IsInput() || p->Linked()) continue;
    if (next->LinkFrom(p)) ++linked;
  }
  if (!linked) {
    LOGE << "!linked " << TypeName() << " -> " << next->TypeName();
    return false;
  }
  return true;
}

bool ISource::LinkTo(IPort* in) {
  if (!in) {
    LOGE << "!in";
    return false;
  }
  for (IPort* p : Ports())
    if (!p->IsInput() && !p->Linked()) return p->Link(in);
  LOGE << "no free output port on " << TypeName();
  return false;
}

IPort* ISource::SelectPortOut(IMedia* media) {
  if (!media) return nullptr;
  for (IPort* p : Ports())
    if (!p->IsInput() && p->Media() == media) return p;
  return nullptr;
}

bool ISource::ConsultOutputMode(unsigned mode) {
  _outputMode = mode;
  return true;
}

}  // namespace stream
}  // namespace kiv
