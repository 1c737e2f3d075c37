// The H.264 track. Muxing: builds the trak tree from the media and the profile (AvcTrak.h), turns the
// Annex-B start codes of a sample into four-byte lengths while writing (AvcNal.h: only the head of a
// sample is copied for that; the slice data goes to the file from the packet), and groups samples
// into chunks through a fifo when the profile asks for several samples a chunk. Demuxing: rebuilds a media from
// "avc1" and "avcC" and puts the start codes back into a sample read from the file.
#pragma once

#include <cstdint>

#include "stream/base/Convert.h"
#include "stream/core/Fifo.h"
#include "stream/plugin/mp4/common/IStream.h"

namespace kiv {
namespace plugin {
namespace mov {

class cavc1;

class StreamH264 : public IStream {
 public:

  StreamH264();
  ~StreamH264() override;

  // ---- IStream
  bool muxConfig(kiv::base::Object* tags) override;
  bool muxUpdate() override;
  bool muxTagSet(videoTags* tags) override;
  bool CleanFifoData(IO& io, unsigned long long videoDuration) override;
  int AddChunk(const Packet& packet, unsigned long long offset, int flag) override;
  long long AddData(IO& io, Packet& packet, unsigned long long leader) override;
  int MuxOffset(const Packet& packet) override;
  bool demuxConfig(kiv::base::Object* param) override;
  Packet* demuxUpdatePacket(IO& io, Packet* packet) override;

  // ---- own virtual operations, in table order
  // Writes the rewritten head, then the rest of the payload from the packet; returns the bytes.
  virtual long long WriteData(IO& io, Packet& packet);
  // SPS and PPS of a key packet into "avcC" (when the track knows none yet).
  virtual bool SetAVCInfo(const Packet& packet);
  // Start codes of the head in buffer turned into big-endian lengths, in place.
  virtual void UpdateNaluHeader(unsigned char* buffer, unsigned int headerLength, unsigned int packetSize);
  // Where the first slice's start code stands (0 when none is found).
  virtual int GetSliceDataOffset(const Packet& packet);
  // Writes the head of the sample up to and including the first slice's length; returns its size.
  virtual long long WriteNaluHeader(IO& io, const Packet& packet);
  // Extra data of a demuxed media: 00 00 00 01 SPS 00 00 00 01 PPS.
  virtual bool setExtraData(IMedia* media);

  // The demuxing side of every H.264 track, plain or fragmented: the extra data from the track's
  // "avcC" (and the sizes of its parameter sets), and a sample read from the file turned back into
  // start-code form for the units a sample of this system begins with.
  static bool ExtraFromAvcC(IBox* trak, IMedia* media, unsigned& spsSize, unsigned& ppsSize);
  // "width" and "height" of the entry, and "profile" and "level" of the track's "avcC" when it has one.
  static void PictureFromAvc1(IBox* trak, const cavc1& avc1, IMedia* media);
  static Packet* RestoreStartCodes(Packet* packet, unsigned spsSize, unsigned ppsSize);

  // Table-on-file mode: the new records into the tables.
  void ConcateModeUpdate();

  unsigned _extraSize = 0;
  unsigned _spsSize = 0;
  unsigned _ppsSize = 0;
  PacketFifo* _fifo = nullptr;
  unsigned _spc = 1;
  unsigned long long _firstChunkMs = 0;
  unsigned _chunkCount = 0;
  unsigned char _naluHeader[256] = {};
  kiv::base::Fraction _frameRate{0, 0};  // property "frameRate", set by the engine
  uint32_t _struct = 0;                  // media "struct": "ibbp" (B-frames), "iiii" (all intra)

};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
