#include "stream/plugin/mp4/core/MovMuxer.h"

#include <chrono>

#include "stream/base/Message.h"
#include "stream/base/dbg/Log.h"
#include "stream/base/io/IODelegate.h"
#include "stream/base/io/IUrl.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/core/fw/IPort.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/VideoTag.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::AttrSet;
using kiv::base::IO;
using kiv::base::IODelegate;
using kiv::base::IUrl;
using kiv::base::Message;
using kiv::base::Object;
using kiv::stream::IMedia;
using kiv::stream::IPort;
using kiv::stream::Packet;

namespace {
// A duration notice goes out when the recording has grown by more than this.
constexpr unsigned long long kDurationStepMs = 500;

long long steadyCount() { return std::chrono::steady_clock::now().time_since_epoch().count(); }
}  // namespace

MovMuxer::MovMuxer() { FlagsSet(0x8 | 0x100 | 0x40000 | 0x80000); }

MovMuxer::~MovMuxer() = default;

bool MovMuxer::initOpenAp(AttrSet&) { return true; }

bool MovMuxer::Open() {
  _no_data = true;
  if (!IIO::Open("wb")) {
    LOGE << "!Open(\"wb\")";
    return false;
  }
  if (!_io) {
    LOGE << "!_io";
    return false;
  }

  if (ioCacheBlk && ioCacheNum) {
    AttrSet cap;
    Object::AttrSetInit(cap, nullptr, "io-cache-writer");
    IODelegate* cache = Object::New<IODelegate>(cap, io, ioCacheBlk, ioCacheNum);
    if (!cache) {
      LOGE << "!io";
      return false;
    }
    cache->SetFreeDelegateIO(true);
    io = cache;
  }

  std::vector<IMedia*> list;
  for (IPort* port : Ports())
    if (port && port->IsInput()) list.push_back(port->Media());

  AttrSet ap;
  initOpenAp(ap);
  IMovMuxer& engine = *this;
  if (!engine.Open(*io, list, ap)) {
    LOGE << "!Open(*_io,list,ap)";
    return false;
  }

  if (const char* u = io->URL()) {
    _url = u;
    const std::string path = IUrl::Path(_url);
    Message* msg = new Message("fileurl", this);
    msg->Add("clock", static_cast<long long>(steadyCount()));
    msg->Add("url", path);
    LOGN << "_url=" << _url;
    SendMessageForward(*msg);
    kiv::base::Release(msg);
  }
  return kiv::stream::IStatus::Open();
}

bool MovMuxer::ReceivePacket(Packet& packet, void*) {
  if (object::Debug()) LOGL << steadyCount() / 1000000 << "," << packet;
  _no_data = false;
  if (!io) {
    LOGE << "!_io";
    return false;
  }
  if (!IMovMuxer::Process(*io, packet)) return false;
  notifyFirstPTS();
  notifyDuration();
  notifyMedia(packet);
  return true;
}

void MovMuxer::notifyFirstPTS() {
  if (_first_pts_notified || _first_pts == 0) return;
  _first_pts_notified = true;
  Message* msg = new Message("firstPTS", this);
  msg->Add("pts", static_cast<unsigned>(static_cast<unsigned long long>(_first_pts) & 0xffffffffull));
  SendMessageUp(*msg);
  kiv::base::Release(msg);
}

void MovMuxer::notifyDuration() {
  // Unsigned on purpose: a length that falls back below the last notice is far away, and told at once.
  if (_duration_ms - _last_notified_duration <= kDurationStepMs) return;
  Message* msg = new Message("currentDuration", this);
  msg->Add("duration", _duration_ms);
  SendMessageUp(*msg);
  kiv::base::Release(msg);
  _last_notified_duration = _duration_ms;
}

void MovMuxer::notifyMedia(Packet& packet) {
  if (_media_notified || !packet.media || !packet.media->IsVideo()) return;
  _media_notified = true;
  int width = 0, height = 0;
  packet.media->GetIntT("width", width);
  packet.media->GetIntT("height", height);
  Message* msg = new Message("media", this);
  msg->Add("width", width);
  msg->Add("height", height);
  SendMessageUp(*msg);
  kiv::base::Release(msg);
}

bool MovMuxer::Close() {
  if (io) {
    IMovMuxer& engine = *this;
    if (!engine.Close(*io)) {
      LOGE << "";
      return false;
    }
    if (_no_data) {
      LOGI << "del file:" << _url;
      io->Remove(0);
    }
  }
  const std::string url = _url;
  const std::string filename = IUrl::Path(url);
  const unsigned filesize = io ? static_cast<unsigned>(static_cast<unsigned long long>(io->Size()) & 0xffffffffull) : 0;
  if (!IIO::Close()) {
    LOGE << "";
    return false;
  }
  Message* msg = new Message("fileClose", this);
  msg->Add("duration", _duration_ms);
  msg->Add("url", url);
  msg->Add("filename", filename);
  msg->Add("filesize", filesize);
  SendMessageUp(*msg);
  kiv::base::Release(msg);
  return kiv::stream::IStatus::Close();
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMovMuxer() {
  using kiv::plugin::mov::IMovMuxer;
  using kiv::plugin::mov::MovMuxer;
  using P = kiv::base::TProperty<MovMuxer>;
  kiv::plugin::mov::Reflect<MovMuxer>("MovMuxer-mov-muxer",
                                      {
                                          P::Member("vidtag", &IMovMuxer::_vidtag),
                                          P::Setter("ioCacheBlk", &MovMuxer::IOCacheBlk),
                                          P::Setter("ioCacheNum", &MovMuxer::IOCacheNum),
                                          P::Member("thumb", &IMovMuxer::thumb),
                                      },
                                      "quor");
}
