#include "stream/plugin/mp4/core/demux/IDemuxer.h"

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "stream/base/Message.h"
#include "stream/base/dbg/Log.h"
#include "stream/base/reflect/IClass.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/BoxWeave.h"

namespace kiv {
namespace stream {

using kiv::base::Message;

namespace {

long long steadyNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Drops the generator's reference on every way out.
struct PacketGuard {
  Packet* p;
  ~PacketGuard() {
    if (p && p != PacketError()) p->Release();
  }
};
}  // namespace

int IDemuxer::PortNoDropOut::Push(Packet* packet, bool wait) {
  IPort* peer = Linked();
  if (!packet) {
    if (Owner()) Owner()->GenerateNullPacket(*this);
    if (peer && peer->Owner()) peer->Owner()->ReceiveNullPacket(*peer);
    return 0;
  }
  if (!peer || !peer->Owner()) {
    LOGE << "!_peer " << Name();
    packet->Hold();  // a refusal hands one reference back, as a receiver's refusal does
    return 0;
  }
  packet->media = Media();
  return peer->Owner()->ReceivePacket(*packet, *peer, wait) ? 1 : 0;
}

IDemuxer::IDemuxer() { FlagsSet(0x400 | 0x4); }

IPort* IDemuxer::CreatePortOut(const char* caps, int index) {
  if (!caps) return nullptr;
  std::string name = std::string("0_out_") + caps;
  name[0] = static_cast<char>(name[0] + index);
  LOGL << "CreatePortOut " << name;
  auto* port = new PortNoDropOut(this, name.c_str(), caps);
  AddPort(port);
  return port;
}

bool IDemuxer::Open() {
  LOGI << "Open " << url;
  _flag_b = false;
  if (!IStatus::Open()) return false;
  if (!IIO::Open("rb")) return false;
  // Once more around the opened input, as the status ladder of this element has always done.
  return IStatus::Open();
}

bool IDemuxer::Close() {
  // The thread reads the input: it ends before the input goes.
  if (Status() > opened) IStatus::StatusDown(opened);
  IIO::Close();
  IStatus::Close();
  return IStatus::Close();
}

bool IDemuxer::Start() {
  _flag_b = false;
  if (_play_from >= 1) Seek(_play_from / 1000000);
  _clock_base = _time_offset.load();
  const unsigned long long d = Duration();
  if (d <= 0xffffffffull && d < _start_hold) _start_hold = static_cast<unsigned>(Duration());
  return IElementWithThread::Start();
}

bool IDemuxer::endRun(const char* name, const char* failure) {
  Message* msg = new Message(name, this);
  if (!msg->Attrs.Add("clock", _clock.load())) {
    LOGE << failure;
    msg->Release();
    return false;
  }
  SendMessageUp(*msg);
  msg->Release();
  LoopEnd(true);
  return true;
}

int IDemuxer::ProcessPacket() {
  PacketGuard guard{GeneratePacket(nullptr)};
  Packet* packet = guard.p;
  if (!packet) {
    endRun("eos", "!msg->Attrs.Add(\"clock\",_clock)");
    return 0;
  }
  if (packet == PacketError()) {
    LOGE << "Error";
    endRun("error", "!msg->Attrs.Add(\"clock\", _clock)");
    return 0;
  }
  if (_play_to && _play_to < packet->pts) {
    endRun("eos", "!msg->Attrs.Add(\"clock\", _clock)");
    return 0;
  }
  if (_clock_base.load() == 0) {
    const long long base = steadyNs() - packet->pts;
    _clock_base = base;
    _time_offset = base;
  }
  packet->pts += _time_offset.load();
  _clock = packet->pts;
  packet->clock = _clock_base.load();
  if (_live) std::this_thread::sleep_until(std::chrono::steady_clock::time_point(std::chrono::nanoseconds(packet->pts)));

  IPort* port = SelectPortOut(packet->media);
  if (!port) {
    LOGE << "!port";
    return 0;
  }
  const int pushed = port->Push(packet, true);
  if (!pushed) packet->Release();
  return pushed;
}

}  // namespace stream
}  // namespace kiv

extern "C" void RegisterIFileDemuxer() {
  using kiv::stream::IDemuxer;
  using P = kiv::base::TProperty<IDemuxer>;
  kiv::plugin::mov::Reflect<IDemuxer>("IDemuxer",
                                      {P::Setter("parse", &IDemuxer::ParseFile), P::Member("live", &IDemuxer::_live)},
                                      "quor", false);
}
