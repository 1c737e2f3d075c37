// The muxer element: a sink that writes its input ports' packets into a QuickTime movie file at its
// "url", through the engine it inherits, and tells the application what happens:
//
//   "fileurl"          at Open, forward along the graph: "clock", "url" (the file's path)
//   "firstPTS"         once, when the first non-zero video time is known: "pts" (ms, low 32 bits)
//   "currentDuration"  when the recording grew more than 500 ms since the last one: "duration" (ms)
//   "media"            once, on the first video packet: "width", "height"
//   "fileClose"        at Close, also for a recording removed for want of packets: "duration",
//                      "url", "filename", "filesize"
//
// Properties: "vidtag" (the profile, which passes to the element), "ioCacheBlk" and "ioCacheNum" (a
// write cache of that many blocks in front of the file; off when either is 0), "thumb".
#pragma once

#include <string>
#include <vector>

#include "stream/core/fw/IElement.h"
#include "stream/core/fw/IIO.h"
#include "stream/plugin/mp4/common/IMovMuxer.h"

namespace kiv {
namespace plugin {
namespace mov {

class MovMuxer : public kiv::stream::ISink, public kiv::stream::IIO, public IMovMuxer {
 public:
  MovMuxer();
  ~MovMuxer() override;

  // The engine's Open and Close stand beside the element's.
  using IMovMuxer::Close;
  using IMovMuxer::Open;
  using kiv::stream::ISink::ReceivePacket;

  bool Open() override;
  bool Close() override;
  bool ReceivePacket(kiv::stream::Packet& packet, void* user) override;
  // Where a descendant adds attributes for the engine's Open.
  virtual bool initOpenAp(kiv::base::AttrSet& ap);

  bool IOCacheBlk(int size) {
    ioCacheBlk = size;
    return true;
  }
  bool IOCacheNum(int count) {
    ioCacheNum = count;
    return true;
  }

  int ioCacheBlk = 0x80000;
  int ioCacheNum = 0;

 protected:
  void notifyFirstPTS();
  void notifyDuration();
  void notifyMedia(kiv::stream::Packet& packet);

  bool _no_data = false;  // from Open until the first packet
  std::string _url;
  bool _first_pts_notified = false;
  bool _media_notified = false;
  unsigned long long _last_notified_duration = 0;  // ms
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMovMuxer();
