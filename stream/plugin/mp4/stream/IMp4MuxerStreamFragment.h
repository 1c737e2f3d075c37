// A track of a fragmented file. It writes no tables at the end: it keeps the packets of the fragment
// in progress (by reference, so that the payload is copied once, into the file) and, when its codec
// class says the fragment is complete, writes one moof and one mdat straight to the file and forgets
// them. The codec classes build the track's trak for the init segment, set the flags of the moof's
// boxes and say where a fragment may be cut.
//
// The moof of a track:  moof { mfhd, traf { tfhd, trun, tfdt } }, built once and written again for
// every fragment. mfhd's number comes from a counter that all tracks of the file share.
#pragma once

#include <cstdint>
#include <vector>

#include "stream/plugin/mp4/common/IStream.h"

namespace kiv {
namespace plugin {
namespace mov {
namespace fmp4 {
class cmoof;
class cmfhd;
class ctraf;
class ctfhd;
class ctrun;
class ctfdt;
}  // namespace fmp4

class IMov;

class IMp4MuxerStreamFragment : public IStream {
 public:
  // No packet yet.
  static constexpr long long kNoPts = static_cast<long long>(0x8000000000000000ull);
  // The first sample of a track lasts this long, for want of a sample before it.
  static constexpr long long kFirstSampleNs = 33000000;

  explicit IMp4MuxerStreamFragment(const char* name);
  ~IMp4MuxerStreamFragment() override;

  // ---- IStream
  // "framesPerSegment", "pDurationPreSegment" and "pmoofidx" when present, then the base's.
  bool fromAttrSet(const AttrSet& ap) override;
  void MuxUpdateDuration(IO& io) override;
  // The base part, for a codec class that has made its trak: the moof tree and the counters.
  bool muxConfig(kiv::base::Object* tags) override;
  bool AddPacket(Packet& packet, IO& io, unsigned long long leader) override;
  // The fragment in progress goes out.
  bool CleanFifoData(IO& io, unsigned long long limit) override;
  bool demuxConfig(kiv::base::Object* param) override;

  // ---- own virtual operations, in table order
  // Bytes of a packet's head that the file does not keep.
  virtual int GetFrameOffset(Packet& packet);
  virtual int GetFrameSize(Packet& packet);
  virtual bool WriteFrame(IO& io, Packet& packet);
  // Cuts the fragment when it is long enough.
  virtual bool CheckCreateSegment(IO& io);
  virtual bool createMoof();
  // The stream's length after a fragment.
  virtual void computeDuration();
  // The tfdt of the fragment about to be written.
  virtual void updatetfdf();

  // Writes the fragment in progress as one moof and one mdat; nothing for an empty one.
  bool createSegment(IO& io);
  bool fillMoof(IO& io);
  bool fillMdat(IO& io);
  void updateDuration(IO& io);

  const std::vector<Packet*>& Packets() const { return _packets; }
  unsigned SampleCount() const { return _sampleCount; }
  unsigned long long TotalDuration() const { return _totalDuration; }

  std::vector<Packet*> _packets;
  unsigned framesPerSegment = 0;
  long long* _pDurationPreSegment = nullptr;  // owned by the muxer
  long long _firstPtsNs = kNoPts;
  long long _lastPtsNs = kNoPts;
  unsigned long long _totalDuration = 0;  // track units
  std::vector<IBox*> _movieScaleBoxes;    // tkhd, elst
  std::vector<IBox*> _mediaScaleBoxes;    // mdhd, mehd
  int* _pmoofIndex = nullptr;             // owned by the muxer
  unsigned _sampleCount = 0;
  long long _durationNs = 0;
  fmp4::cmoof* _moof = nullptr;
  fmp4::cmfhd* _mfhd = nullptr;
  fmp4::ctraf* _traf = nullptr;
  fmp4::ctfhd* _tfhd = nullptr;
  fmp4::ctrun* _trun = nullptr;
  fmp4::ctfdt* _tfdt = nullptr;

 protected:
  // The moof is laid out here and goes to the file in one write: patching each box's size in the
  // file would cost a seek and a write a box.
  kiv::base::IOBuffer _moofBytes;

  // The engine that made the track ("container"), or null.
  IMov* engine() const;
  // The trak's boxes whose durations follow the recording.
  void findDurationBoxes();
  void releasePackets();
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
