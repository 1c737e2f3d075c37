// The interface under which the demuxer element drives an engine: open, give ports their media, one
// packet at a time, seek, close. One engine for ordinary files, one for fragmented files.
#pragma once

#include <functional>
#include <list>
#include <vector>

#include "stream/base/Convert.h"
#include "stream/base/io/IO.h"

namespace kiv {
namespace stream {
class IMedia;
class IPort;
class Packet;
}  // namespace stream
namespace plugin {
namespace mov {

class IBox;
class IStream;

class IParser {
 public:
  IParser() = default;
  IParser(const IParser&) = delete;
  IParser& operator=(const IParser&) = delete;
  virtual ~IParser() = default;

  virtual bool OpenDemuxer(kiv::base::IO& io) = 0;
  // Must not read the stream: the element has closed it already.
  virtual bool CloseDemuxer() = 0;
  virtual kiv::stream::Packet* GeneratePacket(void* user) = 0;
  // Gives each track's media to the first port that accepts its codec and holds no other media.
  virtual bool PortInfoUpdate(std::list<kiv::stream::IPort*> ports);
  // The file's length in ms from the movie header; 0 without one.
  virtual unsigned long long Duration();
  virtual unsigned char* GetThumbData() { return nullptr; }
  virtual unsigned GetThumbSize() { return 0; }
  virtual bool Seek(long long ms) = 0;

 protected:
  // The engine's tree and tracks.
  virtual IBox* parserRoot() = 0;
  virtual std::vector<IStream*> parserStreams() = 0;

  kiv::base::TimeScale _parserScale;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
