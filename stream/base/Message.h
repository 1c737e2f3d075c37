// Notices that elements send to the application and along the graph.
//
// A Message is reference counted: the sender creates it (count 1), sends it and releases it. Whoever
// wants to keep it past the delivery call Holds it. Delivery is synchronous, on the sender's thread.
#pragma once

#include <functional>
#include <mutex>
#include <string>

#include "stream/base/AttrSet.h"
#include "stream/base/reflect/Object.h"

namespace kiv {
namespace base {

class Message : public object_keywords, public Reference {
 public:
  // name: the notice ("eos", "fileClose", ...); sender: the object it is about; text: free text.
  explicit Message(const char* name, object* sender = nullptr, const char* text = nullptr);

  object* Sender() const { return _sender; }
  const char* Text() const { return _text.c_str(); }
  void Text(const char* text) { _text = text ? text : ""; }

  bool Add(const char* key, const char* value) { return Attrs.Add(key, value); }
  bool Add(const char* key, const std::string& value) { return Attrs.Add(key, value); }
  template <class T>
  bool Add(const char* key, const T& v) {
    return Attrs.Add(key, v);
  }
  const char* Get(const char* key) const { return Attrs.Get(key); }
  template <class T>
  bool Get(const char* key, T& v) const {
    return Attrs.Get(key, v);
  }

  // "name(text) key=value;..." for log lines.
  std::string ToString() const;

  AttrSet Attrs;

 protected:
  ~Message() override;

 private:
  object* _sender;
  std::string _text;
};

std::ostream& operator<<(std::ostream& os, const Message& msg);

using MessageHandler = std::function<void(Message&)>;

// A node of the message path. Alone it is the application's end of the path (a "graph" object): give it
// a handler and make it the parent of elements. Elements derive from it.
class IMessageProcesser {
 public:
  IMessageProcesser() = default;
  IMessageProcesser(const IMessageProcesser&) = delete;
  IMessageProcesser& operator=(const IMessageProcesser&) = delete;
  virtual ~IMessageProcesser();

  // Towards the application: this node's handler first, then the parent's path. True when some handler
  // saw the message.
  virtual bool SendMessageUp(Message& msg);
  // Along the graph. Here the same as SendMessageUp; elements also hand it to the elements downstream.
  virtual bool SendMessageForward(Message& msg);

  // The application's callback, called on the sender's thread. An empty function unsubscribes. The
  // message stays valid while the handler runs; Hold it to keep it longer.
  void SetMessageHandler(MessageHandler fn);
  bool HasMessageHandler() const;
  // Where SendMessageUp goes on after this node's handler (an owner or graph); null ends the path.
  void MessageParent(IMessageProcesser* parent);
  IMessageProcesser* MessageParent() const;

 protected:
  // Handler and parent chain, without the graph.
  bool deliverUp(Message& msg);

 private:
  mutable std::mutex _m;
  MessageHandler _handler;
  IMessageProcesser* _parent = nullptr;
};

}  // namespace base
}  // namespace kiv
