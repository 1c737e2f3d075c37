// What the record verb asks of every elementary stream reader besides H.264 and ADTS: the next
// packet, and why there is none.
#pragma once

#include <string>

#include "stream/core/Packet.h"

namespace kiv {
namespace stream {
class IMedia;
}
}  // namespace kiv

namespace boxweave {

using kiv::stream::PacketError;

class PacketSource {
 public:
  virtual ~PacketSource() = default;
  // The next packet with `media` (borrowed); null at the end, PacketError() on a failure.
  virtual kiv::stream::Packet* NextPacket(kiv::stream::IMedia* media) = 0;
  virtual const std::string& Error() const = 0;
};

// A path's last extension, lower case, without the dot ("" without one).
std::string LowerExtension(const std::string& path);

}  // namespace boxweave
