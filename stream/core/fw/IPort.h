// Ports: the points where elements meet. An output port of one element links to an input port of
// another; packets pass from output to input by Push, synchronously, on the caller's thread.
//
// The media of a stream sits on the output port. The linked input port shows it: Media() on an input
// port gives its own media if one was set on it, otherwise the linked output port's.
#pragma once

#include <string>

#include "stream/base/Message.h"
#include "stream/base/reflect/Object.h"

namespace kiv {
namespace stream {

class IElement;
class IMedia;
class Packet;

class IPort : public kiv::base::Object {
 public:
  IPort(IElement* owner, const char* name, const char* caps, bool input);
  ~IPort() override;

  bool IsInput() const { return _input; }
  IElement* Owner() const { return _owner; }
  IPort* Linked() const { return _peer; }

  // Joins an output port and an input port, neither linked yet; false (with a log line) otherwise.
  bool Link(IPort* peer);
  void Unlink();

  // The media carried; see above.
  IMedia* Media() const;
  // Takes over one reference on the media from the caller. A port that carries another media already
  // refuses (false, the caller keeps its reference); handing the same media again drops the extra
  // reference and succeeds.
  bool Media(IMedia& media);
  // Drops the port's media.
  void MediaClear();

  // Hands a packet to the linked peer's element, ReceivePacket(packet, peerPort, wait), and returns 1
  // when it took it, 0 otherwise. The caller keeps its own reference either way. A null packet ends the
  // stream: this element's GenerateNullPacket(this), then the peer element's ReceiveNullPacket(peer).
  virtual int Push(Packet* packet, bool wait);
  // Asks the element upstream for a packet (the caller gets a reference), or null.
  virtual Packet* Pull(bool wait);
  // Hands a message to the linked peer's element (ReceiveMessage).
  virtual bool Send(kiv::base::Message& msg);

  // The kinds of media accepted: words between ',' ';' '|' or blanks, each a codec ("h264"), a kind
  // ("video", "audio", "text"), a kind and codec ("video/h264"), or "*"/"any". Empty accepts all.
  const char* Caps() const { return _caps.c_str(); }
  void Caps(const char* caps) { _caps = caps ? caps : ""; }
  // Does one of the caps words accept this codec or kind/codec text?
  bool Match(const char* codec) const;
  bool Match(const IMedia* media) const;
  virtual int ConsultMode() const { return 0; }

  std::ostream& operator>>(std::ostream& os) override;

 private:
  IElement* _owner;
  bool _input;
  IPort* _peer = nullptr;
  IMedia* _media = nullptr;
  std::string _caps;
};

class PortOut : public IPort {
 public:
  PortOut(IElement* owner, const char* name, const char* caps) : IPort(owner, name, caps, false) {}
};

class PortIn : public IPort {
 public:
  PortIn(IElement* owner, const char* name, const char* caps) : IPort(owner, name, caps, true) {}
};

}  // namespace stream
}  // namespace kiv
