// The packet producer of one track of an ordinary file: the walker over the track's table parser,
// with times in milliseconds, and the read of the current frame into a new packet.
#pragma once

#include "stream/base/Convert.h"
#include "stream/base/io/IO.h"
#include "stream/plugin/mp4/demux/StreamParser.h"

namespace kiv {
namespace stream {
class Packet;
}
namespace plugin {
namespace mov {

class IStream;

class StreamDemuxer : public StreamParser {
 public:
  // Finds the track's "stbl", creates the table parser its keywords name, and stands on frame 0. A
  // failure is logged and leaves the object without a parser (no frame is valid then).
  explicit StreamDemuxer(IStream* stream);

  // Reads the current frame into a new packet: the packet, null past the end, or the pointer value -1
  // when the file cannot give the frame's bytes. last: the index of the frame that gets the end flags.
  kiv::stream::Packet* GetPacket(kiv::base::IO& io, int last);

  FrameInfo GetFrameInfo(int idx);
  // Milliseconds.
  long long CurrentPts() const;
  long long CurrentDuration() const;
  int FindIndex(long long ms, bool align);
  bool ExtFlags(unsigned flags) {
    _ext_flags = flags;
    return true;
  }
  bool EosFlags(unsigned flags) {
    _eos_flags = flags;
    return true;
  }
  unsigned EosFlags() const { return _eos_flags; }
  // The track's length in milliseconds.
  long long GetDuration() const;
  // Bits a second.
  long long GetBitRate();
  kiv::base::Fraction GetFrameRate();
  long long LimitPts(long long ms) const;
  bool CheckPts(long long ms) const { return ms >= 0 && ms <= GetDuration(); }
  bool Seek(long long ms, bool alignToKeyFrame);

 private:
  const kiv::base::TimeScale& scale() const;

  IStream* _stream;
  unsigned _ext_flags = 0;
  unsigned _eos_flags = 0;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
