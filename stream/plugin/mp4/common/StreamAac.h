// The AAC track. Muxing: cuts the ADTS header off every frame, counts time in samples (the time
// stamps of the packets play no part), groups frames into chunks of a size given in samples, and at
// the end writes only as much buffered audio as the video lasts. Demuxing: rebuilds a media from
// "esds" and "mp4a" and puts an ADTS header in front of every frame.
#pragma once

#include <cstdint>

#include "stream/core/Fifo.h"
#include "stream/plugin/mp4/common/IStream.h"
#include "stream/plugin/mp4/common/Mp4aEntry.h"

namespace kiv {
namespace plugin {
namespace mov {

class StreamAac : public IStream {
 public:
  // The file type of the QuickTime flavour (hash of "mov"), which picks the entry form.
  static constexpr uint32_t kQuickTimeType = kQuickTimeFileType;

  StreamAac();
  ~StreamAac() override;

  // ---- IStream
  bool muxConfig(kiv::base::Object* tags) override;
  bool CleanFifoData(IO& io, unsigned long long videoDuration) override;
  int AddChunk(const Packet& packet, unsigned long long offset, int flag) override;
  long long AddData(IO& io, Packet& packet, unsigned long long leader) override;
  // The ADTS header that a packet carries ("adtslen") is not written.
  int MuxOffset(const Packet& packet) override;
  bool demuxConfig(kiv::base::Object* param) override;
  Packet* demuxUpdatePacket(IO& io, Packet* packet) override;

  // Extra data of a demuxed media: the decoder configuration of "esds".
  virtual bool setExtraData(IMedia* media);

  void ConcateModeUpdate();
  // Puts the frame length (frameSize plus the header) into the header.
  bool AdtsUpdate(unsigned int frameSize);
  // The 7-byte header from the media's "rate" and "channel"; the frame length stays 0.
  bool CreateAdts();

  // Shared with the fragment demuxer: the header for a rate and a channel count, and its length field.
  static void AdtsHeader(unsigned rate, unsigned channels, unsigned char out[7]);
  static void AdtsLength(unsigned char adts[7], unsigned length);

  // The demuxing side of every AAC track, plain or fragmented. DemuxMedia: the media's attributes from
  // the track's "esds" and "mp4a" (its "stts" must stand); rate and channels come back. PutAdts: a
  // frame read from the file gets the header (adts, adtslen) in front, unless it has one already or
  // no room; the media is told a changed header length (told: the length it knows).
  static bool DemuxMedia(IBox* trak, IMedia* media, unsigned frmSampNum, unsigned& rate, unsigned& channels);
  static Packet* PutAdts(Packet* packet, IMedia* media, unsigned char adts[7], unsigned& adtslen, long long& told);
  // The media told "adtslen" and "hasadts"; the failure text of the one it refused, null when none.
  static const char* TellAdts(IMedia* media, unsigned adtslen);

  unsigned _rate = 0;
  unsigned _ch = 1;
  unsigned _adtslen = 0;
  unsigned char _adts[7] = {};
  // The header length the media was last told: the attributes are text, and telling them again the
  // same value costs a lookup and a conversion a packet.
  long long _adtslenTold = -1;
  unsigned _frmSampNum = 1024;
  PacketFifo* _fifo = nullptr;
  unsigned _spc = 0;          // samples a chunk
  uint32_t _chunkExcess = 0;  // planned minus written samples, modulo 2^32
  unsigned _chunkCount = 0;
  unsigned long long _chunkMs = 0;
  unsigned long long _sampleTotal = 0;

 protected:
  // Pops n frames and writes them as the records of one chunk; returns the bytes written.
  long long writeGroup(IO& io, unsigned n);
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
