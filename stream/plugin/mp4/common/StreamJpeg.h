// The Motion-JPEG track: every picture a key frame, its bytes written untouched. Samples may be
// grouped into chunks through a fifo as the H.264 track groups them. Demuxing: the media comes from
// the "jpeg" entry and a sample goes downstream as it was read.
#pragma once

#include "stream/base/Convert.h"
#include "stream/plugin/mp4/common/IStream.h"

namespace kiv {
namespace plugin {
namespace mov {

class StreamJpeg : public IStream {
 public:
  StreamJpeg();
  ~StreamJpeg() override;

  // ---- IStream
  bool muxConfig(kiv::base::Object* tags) override;
  bool CleanFifoData(IO& io, unsigned long long videoDuration) override;
  int AddChunk(const Packet& packet, unsigned long long offset, int flag) override;
  long long AddData(IO& io, Packet& packet, unsigned long long leader) override;
  int MuxOffset(const Packet& packet) override;
  bool demuxConfig(kiv::base::Object* param) override;

  void ConcateModeUpdate();

  PacketFifo* _fifo = nullptr;
  unsigned long long _firstChunkMs = 0;
  unsigned _chunkCount = 0;
  kiv::base::Fraction _frameRate{0, 0};  // property "frameRate", set by the engine
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
