// The timed text track: QuickTime text samples, each stored exactly as it comes (the format's 16-bit
// length and the text are upstream's business), each its own chunk, outside the interleaving of
// audio and video. Demuxing: a "txt" media; samples go downstream as they were read.
#pragma once

#include "stream/base/Convert.h"
#include "stream/plugin/mp4/common/IStream.h"

namespace kiv {
namespace plugin {
namespace mov {

class StreamTxt : public IStream {
 public:
  StreamTxt();

  // ---- IStream
  bool muxConfig(kiv::base::Object* tags) override;
  int AddChunk(const Packet& packet, unsigned long long offset, int flag) override;
  long long AddData(IO& io, Packet& packet, unsigned long long leader) override;
  bool demuxConfig(kiv::base::Object* param) override;

  // ---- own virtual operation: writes the sample's bytes; returns the bytes written.
  virtual long long WriteData(IO& io, Packet& packet);

  void ConcateModeUpdate();

  kiv::base::Fraction _frameRate{0, 0};  // property "frameRate"; muxConfig takes the media's "framerate"
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
