// The demuxer element the host creates for mov, mp4 and fragmented mp4 files. At Open it tells the two
// kinds of file apart by a top-level "moof" and builds the matching engine; every later request goes
// to that engine.
//
// Properties, beside "url" and "live": "duration" (ms, read), "thumbsize" and "thumbdata" (read),
// "seek" (ms, write: moves every track to the key frame for that time; the run goes on from there,
// also after "eos").
#pragma once

#include <functional>

#include "stream/plugin/mp4/core/demux/IDemuxer.h"

namespace kiv {
namespace plugin {
namespace mov {

class IParser;

class Mp4Demuxer : public kiv::stream::IDemuxer {
 public:
  Mp4Demuxer();
  ~Mp4Demuxer() override;

  bool Open() override;
  bool Close() override;
  // Gives no result here: the engine's own ParseFile is for a caller that holds the engine.
  bool ParseFile(std::function<bool(kiv::stream::IMedia*)> fn) override;
  bool Seek(long long ms) override;
  unsigned long long Duration() override;
  unsigned char* GetThumbData() override;
  unsigned GetThumbSize() override;
  kiv::stream::Packet* GeneratePacket(void* user) override;

  // Looks for a box of this code at the top level, from the stream's present position, by headers only.
  bool FindTopFcc(const char* fcc);

  IParser* Engine() const { return _demuxer; }

 private:
  void dropEngine();

  IParser* _demuxer = nullptr;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMp4Demuxer();
