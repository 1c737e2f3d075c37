// The HEVC track. Muxing: builds the trak tree with an "hvc1" entry whose "hvcC" holds the VPS, SPS and
// PPS of the media, cuts the parameter sets from the head of each sample (they stand in "hvcC") and
// writes what is left behind one four-byte length, grouping samples into chunks through a fifo when the
// profile asks for several samples a chunk. Demuxing: rebuilds a media from "hvc1" and "hvcC" and puts
// the start code back in front of a sample read from the file.
//
// One length a sample: a sample of several NAL units (an SEI in front of the slice, several slices)
// keeps its inner start codes behind that length, and reads back only from files of this track.
#pragma once

#include <cstdint>

#include "stream/base/Convert.h"
#include "stream/core/Fifo.h"
#include "stream/plugin/mp4/common/IStream.h"

namespace kiv {
namespace plugin {
namespace mov {

// Where the coded picture of an Annex-B sample starts: the four-byte start code of the first prefix SEI
// or of a slice of the kinds this track expects (trailing, RASL_N, IDR_W_RADL, CRA). 0 when none stands
// within reach, and then the sample is written whole.
int HevcPictureOffset(const unsigned char* data, int size);

class StreamHevc : public IStream {
 public:
  StreamHevc();
  ~StreamHevc() override;

  // ---- IStream
  bool muxConfig(kiv::base::Object* tags) override;
  bool muxUpdate() override;
  bool muxTagSet(videoTags* tags) override;
  bool CleanFifoData(IO& io, unsigned long long videoDuration) override;
  int AddChunk(const Packet& packet, unsigned long long offset, int flag) override;
  long long AddData(IO& io, Packet& packet, unsigned long long leader) override;
  // Bytes of parameter sets (and delimiters) in front of the coded picture.
  int MuxOffset(const Packet& packet) override;
  bool demuxConfig(kiv::base::Object* param) override;
  Packet* demuxUpdatePacket(IO& io, Packet* packet) override;

  // ---- own virtual operations, in table order
  // The sample's start code becomes the length of all the rest; returns the bytes written.
  virtual long long WriteData(IO& io, Packet& packet);
  // SPS and PPS of a key packet into "hvcC" (when the track knows none yet).
  virtual bool SetHVCInfo(const Packet& packet);
  // Extra data of a demuxed media: 00 00 00 01 VPS 00 00 00 01 SPS 00 00 00 01 PPS.
  virtual bool setExtraData(IMedia* media);

  // Table-on-file mode: the new records into the tables.
  void ConcateModeUpdate();

  unsigned _extraSize = 0;
  PacketFifo* _fifo = nullptr;
  unsigned long long _firstChunkMs = 0;
  unsigned _chunkCount = 0;
  kiv::base::Fraction _frameRate{0, 0};  // property "frameRate", set by the engine
  uint32_t _struct = 0;                  // media "struct": "ibbp" (B-frames)

 private:
  bool buildTrak(videoTags* tags);
  unsigned groupSize() const { return _groupFrames > 0 ? static_cast<unsigned>(_groupFrames) : 1u; }
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
