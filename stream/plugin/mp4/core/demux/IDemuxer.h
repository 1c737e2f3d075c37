// The source element of the play side: no input, a thread of its own, the file opened for reading. Its
// subclass gives one packet at a time; the element puts the packet's file time on the steady clock,
// waits for that time when "live", and pushes the packet down the port of its media. The run ends with
// the message "eos" (or "error" for a packet that could not be made), which carries "clock".
//
// Threads: the element's thread alone runs ProcessPacket and the whole path down to the receivers
// (PortNoDropOut delivers on it, so a slow receiver holds the reading back). The host's control thread
// calls Open, Start, Close, the properties and Seek. The clock fields are atomics so that the host may
// ask PlayTime() while the run goes on.
#pragma once

#include <atomic>
#include <functional>

#include "stream/core/fw/IElement.h"
#include "stream/core/fw/IElementWithThread.h"
#include "stream/core/fw/IIO.h"
#include "stream/core/fw/IPort.h"

namespace kiv {
namespace stream {

class IDemuxer : public ISource, public IIO, public IElementWithThread {
 public:
  // A port that hands each packet straight to the linked peer, on the caller's thread, and never
  // drops one.
  class PortNoDropOut : public PortOut {
   public:
    using PortOut::PortOut;
    int Push(Packet* packet, bool wait) override;
  };

  IDemuxer();

  // A port named "<index>_out_<caps>"; null for null caps.
  IPort* CreatePortOut(const char* caps, int index) override;
  int ProcessPacket() override;
  bool Open() override;
  bool Close() override;
  bool Start() override;

  // The property "parse": offers the file's media to fn.
  virtual bool ParseFile(std::function<bool(IMedia*)> fn) = 0;
  // Moves all tracks to a time in ms.
  virtual bool Seek(long long ms) = 0;
  // The file's length in ms.
  virtual unsigned long long Duration() = 0;
  virtual unsigned char* GetThumbData() { return nullptr; }
  virtual unsigned GetThumbSize() { return 0; }

  // The play range on the file's time line, in ms; set before Start.
  bool PlayRangeFrom(long long ms) {
    _play_from = ms * 1000000;
    return true;
  }
  bool PlayRangeTo(long long ms) {
    _play_to = ms * 1000000;
    return true;
  }
  // The last packet's time on the steady clock, in ms.
  long long PlayTime() const { return _clock.load() / 1000000; }

  bool _live = false;
  unsigned _start_hold = 3000;  // ms; cut to the file's duration at Start when that is shorter
  bool _flag_a = false;
  bool _flag_b = false;
  std::atomic<long long> _time_offset{0};  // ns added to a file time to put it on the steady clock
  std::atomic<long long> _clock_base{0};   // 0 until the first packet of a run fixes the offset
  std::atomic<long long> _clock{0};        // the last packet's time on the steady clock, ns
  long long _play_to = 0x7fffffffffffffffLL;
  long long _play_from = 0;

 private:
  // Ends the run: the message with "clock", then no more passes. False when the message cannot be made.
  bool endRun(const char* name, const char* failure);
};

}  // namespace stream
}  // namespace kiv

extern "C" void RegisterIFileDemuxer();
