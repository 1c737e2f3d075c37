// The PCM track: uncompressed 16-bit audio. Packets are no frames here: their bytes are sample frames,
// a record counts the frames of what it holds (stts and stsz then say one unit a frame), and with
// several frames a chunk the bytes run through a byte fifo from which chunks of a fixed number of
// frames are cut. Demuxing: the media comes from the "sowt" entry; a chunk is read as one packet.
#pragma once

#include <cstdint>

#include "stream/base/io/FifoBuffer.h"
#include "stream/plugin/mp4/common/IStream.h"

namespace kiv {
namespace plugin {
namespace mov {

class StreamPcm : public IStream {
 public:
  // The most bytes the fifo grows to while the track waits: 64 MiB, 5.8 minutes at 48 kHz stereo.
  static constexpr int kMaxFifoBytes = 64 << 20;

  StreamPcm();
  ~StreamPcm() override;

  // ---- IStream
  bool muxConfig(kiv::base::Object* tags) override;
  bool muxUpdate() override;
  bool CleanFifoData(IO& io, unsigned long long videoDuration) override;
  int AddChunk(const Packet& packet, unsigned long long offset, int flag) override;
  long long AddData(IO& io, Packet& packet, unsigned long long leader) override;
  bool demuxConfig(kiv::base::Object* param) override;

  void ConcateModeUpdate();

  unsigned _audSampSize = 0;  // bytes of one sample frame
  unsigned _chunkBytes = 0;
  unsigned _rate = 0;
  kiv::base::FifoBuffer* _fifo = nullptr;
  unsigned long long _chunkMs = 0;

 private:
  // Takes one chunk off the fifo, records and writes it; returns the bytes written. durationNs is
  // the chunk's duration.
  long long writeChunk(IO& io, long long durationNs);
  // Makes room for `more` bytes behind those held, up to kMaxFifoBytes.
  void growFifo(int more);
  // Fragment mode: the scratch entries the chunk just written consumed leave the front.
  void dropScratch(unsigned bytes);
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
