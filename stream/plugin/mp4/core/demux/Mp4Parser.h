// The engine of ordinary (non-fragmented) files under the element's interface. Its mutex orders the
// production of a packet on the element's thread against a seek from the caller's thread: a packet is
// made wholly before or wholly after a seek.
#pragma once

#include <functional>
#include <mutex>

#include "stream/plugin/mp4/common/IMovDemux.h"
#include "stream/plugin/mp4/core/demux/IParser.h"

namespace kiv {
namespace plugin {
namespace mov {

class Mp4Parser : public IMovDemux, protected IParser {
 public:
  Mp4Parser() = default;

  bool OpenDemuxer(kiv::base::IO& io) override;
  bool CloseDemuxer() override;
  kiv::stream::Packet* GeneratePacket(void* user) override;
  unsigned long long Duration() override { return IParser::Duration(); }
  bool Seek(long long ms) override;
  using IParser::GetThumbData;
  using IParser::GetThumbSize;
  using IParser::PortInfoUpdate;

  // Offers the tracks' media to fn: every audio track, and of the others those up to the first video.
  // False when the file cannot be parsed or a track lacks its sizes or chunk offsets.
  bool ParseFile(std::function<bool(kiv::stream::IMedia*)> fn);
  bool parseFile();

  // The element holds the engine through this interface.
  IParser* AsParser() { return this; }

 protected:
  IBox* parserRoot() override { return IBoxRootGet(); }
  std::vector<IStream*> parserStreams() override { return StreamingGet(); }

 private:
  std::mutex _mutex;
  kiv::stream::Packet* (IMovDemux::*_process)(kiv::base::IO&) = nullptr;
  kiv::base::IO* _io = nullptr;  // the element's
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
