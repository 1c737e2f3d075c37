#include "stream/base/Message.h"

#include <ostream>

#include "stream/base/dbg/Log.h"

namespace kiv {
namespace base {

namespace {
// A parent chain that loops back on itself would recurse without end.
constexpr int kMaxUpHops = 64;
thread_local int t_upDepth = 0;
}  // namespace

Message::Message(const char* name, object* sender, const char* text) : _sender(sender), _text(text ? text : "") {
  Name(name);
}

Message::~Message() = default;

std::string Message::ToString() const {
  std::string s = Name();
  if (!_text.empty()) s += "(" + _text + ")";
  if (Attrs.Size()) s += " " + Attrs.ToString();
  return s;
}

std::ostream& operator<<(std::ostream& os, const Message& msg) { return os << msg.ToString(); }

IMessageProcesser::~IMessageProcesser() = default;

void IMessageProcesser::SetMessageHandler(MessageHandler fn) {
  std::lock_guard<std::mutex> lock(_m);
  _handler = std::move(fn);
}

bool IMessageProcesser::HasMessageHandler() const {
  std::lock_guard<std::mutex> lock(_m);
  return static_cast<bool>(_handler);
}

void IMessageProcesser::MessageParent(IMessageProcesser* parent) {
  std::lock_guard<std::mutex> lock(_m);
  _parent = parent == this ? nullptr : parent;
}

IMessageProcesser* IMessageProcesser::MessageParent() const {
  std::lock_guard<std::mutex> lock(_m);
  return _parent;
}

bool IMessageProcesser::deliverUp(Message& msg) {
  if (t_upDepth >= kMaxUpHops) {
    LOGE << "t_upDepth>=kMaxUpHops " << msg;
    return false;
  }
  MessageHandler handler;
  IMessageProcesser* parent;
  {
    // The handler runs outside the lock: it may well change the subscription or send messages itself.
    std::lock_guard<std::mutex> lock(_m);
    handler = _handler;
    parent = _parent;
  }
  bool seen = false;
  msg.Hold();
  ++t_upDepth;
  if (handler) {
    handler(msg);
    seen = true;
  }
  if (parent) seen = parent->SendMessageUp(msg) || seen;
  --t_upDepth;
  msg.Release();
  return seen;
}

bool IMessageProcesser::SendMessageUp(Message& msg) { return deliverUp(msg); }
bool IMessageProcesser::SendMessageForward(Message& msg) { return deliverUp(msg); }

}  // namespace base
}  // namespace kiv
