// How the video tracks (H.264, HEVC, Motion-JPEG) group their samples into chunks: with several
// samples a chunk they wait in the track's fifo until a group is complete, and then go to the file as
// the records of one chunk, behind a fragment header of their own in fragment mode. The state stays in
// the track's own fields; a VideoChunks binds them for one call.
#pragma once

#include <cstdint>

#include "stream/base/Convert.h"
#include "stream/plugin/mp4/common/IStream.h"

namespace kiv {
namespace plugin {
namespace mov {

class VideoChunks {
 public:
  // Writes a packet's sample the track's way; returns the bytes written, never negative.
  using Write = long long (*)(IStream& track, IO& io, Packet& packet);

  VideoChunks(IStream& track, IStream::PacketFifo*& fifo, unsigned long long& firstChunkMs, unsigned& chunkCount,
              Write write)
      : _track(track), _fifo(fifo), _firstChunkMs(firstChunkMs), _chunkCount(chunkCount), _write(write) {}

  // Groups of n samples (n above 1): the fifo made, or its bound changed, while the packets already
  // waiting stay; the scratch arrays of fragment mode when `scratch`; who leads, from the profile.
  void Setup(unsigned n, const videoTags& tags, bool scratch);
  // One packet: written at once without a fifo, else held until n wait, which then go out as a chunk.
  long long Add(IO& io, Packet& packet, unsigned long long leader, unsigned n);
  // At the end of the file: the whole groups still waiting. A smaller rest goes with the fifo.
  void Flush(IO& io, unsigned n);

  // The record of a sample: the base's, then its count when above 1, the samples the engine adds, and
  // with a fixed rate the duration of a frame (the media's "framerate" when the property is 0).
  static int Record(IStream& track, const Packet& packet, unsigned long long offset, int flag, unsigned count,
                    kiv::base::Fraction& frameRate);
  // With B-frames the first time stamp is hidden behind the edit list.
  static void HideFirstPts(IStream& track, uint32_t structure);

 private:
  long long writeGroup(IO& io, unsigned n);

  IStream& _track;
  IStream::PacketFifo*& _fifo;
  unsigned long long& _firstChunkMs;
  unsigned& _chunkCount;
  Write _write;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
