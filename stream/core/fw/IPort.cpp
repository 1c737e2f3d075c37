#include "stream/core/fw/IPort.h"

#include <cstring>

#include "stream/base/Convert.h"
#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/core/fw/IElement.h"

namespace kiv {
namespace stream {

using kiv::base::ToLower;

namespace {

bool isKindWord(const std::string& w) { return w == "video" || w == "audio" || w == "text"; }

// "video/h264" -> ("video", "h264"); "h264" -> (kind known for it, "h264"); "video" -> ("video", "").
void splitCaps(const std::string& text, std::string& kind, std::string& codec) {
  const size_t slash = text.find('/');
  if (slash != std::string::npos) {
    kind = text.substr(0, slash);
    codec = text.substr(slash + 1);
  } else if (isKindWord(text)) {
    kind = text;
    codec.clear();
  } else {
    codec = text;
    kind = IMedia::KindOf(text.c_str());
  }
}

}  // namespace

IPort::IPort(IElement* owner, const char* name, const char* caps, bool input)
    : _owner(owner), _input(input), _caps(caps ? caps : "") {
  Name(name);
}

IPort::~IPort() {
  Unlink();
  MediaClear();
}

bool IPort::Link(IPort* peer) {
  if (!peer || peer == this) {
    LOGE << "!peer " << Name();
    return false;
  }
  if (peer->_input == _input) {
    LOGE << "peer->IsInput()==IsInput() " << Name() << " " << peer->Name();
    return false;
  }
  if (_peer || peer->_peer) {
    LOGE << "already linked " << Name() << " " << peer->Name();
    return false;
  }
  _peer = peer;
  peer->_peer = this;
  return true;
}

void IPort::Unlink() {
  if (_peer) {
    _peer->_peer = nullptr;
    _peer = nullptr;
  }
}

IMedia* IPort::Media() const {
  if (_media) return _media;
  if (_input && _peer) return _peer->_media;
  return nullptr;
}

bool IPort::Media(IMedia& media) {
  if (_media == &media) {
    media.Release();
    return true;
  }
  if (_media) return false;
  _media = &media;
  return true;
}

void IPort::MediaClear() { kiv::base::Release(_media); }

int IPort::Push(Packet* packet, bool wait) {
  if (_input) {
    LOGE << "IsInput() " << Name();
    return 0;
  }
  if (!_peer || !_peer->_owner) {
    LOGE << "!_peer " << Name();
    return 0;
  }
  if (!packet) {
    if (_owner) _owner->GenerateNullPacket(*this);
    _peer->_owner->ReceiveNullPacket(*_peer);
    return 0;
  }
  if (!packet->media) packet->media = Media();
  const bool ok = _peer->_owner->ReceivePacket(*packet, *_peer, wait);
  // A refusing element hands back one reference; ours stays with the caller.
  if (!ok) packet->Release();
  return ok ? 1 : 0;
}

Packet* IPort::Pull(bool) {
  if (_input) return _peer && _peer->_owner ? _peer->_owner->GeneratePacket(_peer) : nullptr;
  return _owner ? _owner->GeneratePacket(this) : nullptr;
}

bool IPort::Send(kiv::base::Message& msg) {
  if (!_peer || !_peer->_owner) return false;
  return _peer->_owner->ReceiveMessage(msg);
}

bool IPort::Match(const char* codec) const {
  if (!codec || !*codec) return false;
  std::string kind, name;
  splitCaps(ToLower(codec), kind, name);
  std::string caps = ToLower(_caps);
  for (char& c : caps)
    if (c == ',' || c == ';' || c == '|' || c == '\t') c = ' ';
  kiv::base::Spliter words(caps.c_str(), ' ', true, true);
  if (words.Items() == 0) return true;
  for (const auto& w : words.All()) {
    if (w == "*" || w == "any") return true;
    std::string wk, wc;
    splitCaps(w, wk, wc);
    if (wc.empty()) {
      if (!kind.empty() && wk == kind) return true;
    } else if (wc == "*") {
      if (wk == kind) return true;
    } else if (wc == name && (w.find('/') == std::string::npos || wk == kind)) {
      return true;
    }
  }
  return false;
}

bool IPort::Match(const IMedia* media) const { return media && Match(media->Caps().c_str()); }

std::ostream& IPort::operator>>(std::ostream& os) {
  os << "port(" << Name() << "," << (_input ? "in" : "out") << ",caps=" << _caps;
  if (IMedia* m = Media()) os << ",media=" << m->Caps();
  os << (_peer ? ",linked" : "") << ")";
  return os;
}

}  // namespace stream
}  // namespace kiv
