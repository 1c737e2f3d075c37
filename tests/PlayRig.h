// The demuxer element in a small graph, as a host plays a file: the element found by keywords, one
// output port a kind, a sink that keeps what arrives, the end message awaited with a time limit. Also an
// input stream that counts its reads and notes the threads they come from.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "stream/base/Message.h"
#include "stream/base/io/IO.h"
#include "stream/base/reflect/IClass.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/core/fw/IElement.h"
#include "stream/core/fw/IPort.h"
#include "stream/plugin/mp4/core/demux/IDemuxer.h"

namespace playtest {

using Bytes = std::vector<unsigned char>;
using kiv::base::Message;
using kiv::stream::IDemuxer;
using kiv::stream::IMedia;
using kiv::stream::IPort;
using kiv::stream::Packet;

constexpr long long kMs = 1000000;  // nanoseconds

// One packet as it arrived.
struct Got {
  bool video = false;
  long long index = 0;
  long long ms = 0;     // file time: pts less the clock base
  long long durMs = 0;
  long long clock = 0;  // the clock base it carried
  int size = 0;
  bool key = false;
  Bytes head;  // its first 16 bytes
};

inline Got Describe(const Packet& p) {
  Got g;
  g.video = p.media && p.media->IsVideo();
  g.index = p.index;
  g.clock = p.clock;
  g.ms = (p.pts - p.clock) / kMs;
  g.durMs = p.duration / kMs;
  g.size = p.Size();
  g.key = p.IsKey();
  const unsigned char* d = p.Data();
  if (d) g.head.assign(d, d + std::min(p.Size(), 16));
  return g;
}

// Keeps every packet; `check`, when set, sees each on the element's thread as well.
class Sink : public kiv::stream::ISink {
 public:
  std::function<void(const Packet&)> check;
  bool ReceivePacket(Packet& p, void*) override {
    if (check) check(p);
    std::lock_guard<std::mutex> lock(_m);
    _got.push_back(Describe(p));
    return true;
  }
  using ISink::ReceivePacket;
  std::vector<Got> Packets() const {
    std::lock_guard<std::mutex> lock(_m);
    return _got;
  }
  size_t Count() const {
    std::lock_guard<std::mutex> lock(_m);
    return _got.size();
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(_m);
    _got.clear();
  }

 private:
  mutable std::mutex _m;
  std::vector<Got> _got;
};

// A memory stream that counts its reads, and those made on one thread named here (the host's control
// thread, which must never read media).
class CountingIO : public kiv::base::IOBuffer {
 public:
  explicit CountingIO(const std::vector<unsigned char>& b) {
    Write(b.data(), static_cast<long long>(b.size()));
    Seek(0, kiv::Position::front);
    _url = "mem://counting";
  }
  long long Read(void* data, long long size) override {
    ++reads;
    if (forbidden.load() == std::this_thread::get_id()) ++foreign;
    return IOBuffer::Read(data, size);
  }
  std::atomic<long long> reads{0}, foreign{0};
  std::atomic<std::thread::id> forbidden{};
};

// The element by keywords, with a video and an audio port linked to a sink.
class Player {
 public:
  // A file by its path; or, with `io` set, a stream the element takes over (its url is not opened).
  explicit Player(const std::string& url, kiv::base::IO* io = nullptr) {
    kiv::base::AttrSet ap;
    kiv::base::Object::AttrSetInit(ap, nullptr, "demuxer-mov");
    dmx.reset(kiv::base::Object::New<IDemuxer>(ap));
    if (!dmx) {
      delete io;
      return;
    }
    dmx->setString("url", url.c_str());
    if (io) dmx->io = io;
    video = dmx->CreatePortOut("video", 0);
    audio = dmx->CreatePortOut("audio", 1);
    linked = video && audio && sink.LinkFrom(video) && sink.LinkFrom(audio);
    dmx->SetMessageHandler([this](Message& m) {
      std::lock_guard<std::mutex> lock(_m);
      messages.push_back(std::string(m.Name()) + ":" + m.Get("clock"));
      _cv.notify_all();
    });
  }
  ~Player() {
    if (dmx) {
      dmx->Close();
      dmx->SetMessageHandler(nullptr);
    }
  }
  // Waits for the n-th message; its text ("eos:CLOCK"), or "" when none came in time.
  std::string WaitMessage(size_t n = 1, int timeoutMs = 20000) {
    std::unique_lock<std::mutex> lock(_m);
    _cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return messages.size() >= n; });
    return messages.size() >= n ? messages[n - 1] : std::string();
  }
  std::vector<std::string> Messages() {
    std::lock_guard<std::mutex> lock(_m);
    return messages;
  }
  size_t MessageCount() {
    std::lock_guard<std::mutex> lock(_m);
    return messages.size();
  }
  // Open, Start, the first message, Stop: what the run ended with ("eos", "error"), or "" without a
  // message in time; "open failed" when Open refused.
  std::string Run(int timeoutMs = 20000) {
    if (!dmx || !linked) return "no element";
    if (!dmx->Open()) return "open failed";
    if (!dmx->Start()) return "start failed";
    const std::string m = WaitMessage(1, timeoutMs);
    dmx->Stop();
    return m.substr(0, m.find(':'));
  }

  std::unique_ptr<IDemuxer> dmx;
  IPort* video = nullptr;
  IPort* audio = nullptr;
  Sink sink;
  bool linked = false;

 private:
  std::mutex _m;
  std::condition_variable _cv;
  std::vector<std::string> messages;
};

}  // namespace playtest
