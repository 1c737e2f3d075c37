// One track of a fragmented file on the reading side. It has no sample tables: it walks the "moof"
// boxes that the track's "tfra" lists (or that the engine finds one by one when the file has no
// index), turns the "trun" of each into a list of frames and reads one frame at a time. Times are the
// sum of the frame durations since the last seek, in whole milliseconds; no decode time or composition
// offset of the file enters them.
//
// Abstract: the codec classes give demuxConfig, demuxUpdatePacket, setExtraData and updateDuration.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "stream/base/AttrSet.h"
#include "stream/plugin/mp4/common/IListFile.h"
#include "stream/plugin/mp4/common/IStream.h"

namespace kiv {
namespace plugin {
namespace mov {

class IMp4DemuxerStreamFragment : public IStream {
 public:
  explicit IMp4DemuxerStreamFragment(const char* name);
  ~IMp4DemuxerStreamFragment() override;

  // "mp4-stream-<fcc>[-<keys>]" through the registry; null with a log line.
  static IMp4DemuxerStreamFragment* New(AttrSet& ap);

  // ---- IStream
  bool SetTfra(IBox* tfra) override;
  bool muxConfig(kiv::base::Object* tags) override;
  bool demuxConfig(kiv::base::Object* param) override;
  // The next frame of the track: null at the end of its fragments (or for a fragment without
  // samples), the pointer value -1 when the frame cannot be read.
  Packet* GetPacket(IO& io) override;

  // ---- own virtual operations, in table order
  // Time of the next packet, ms.
  virtual long long CurrentPts();
  // The entries of the trun set by NextTrunSet appended to the frame list.
  virtual bool TrunRead();
  // The trun to read next and the position of its moof.
  virtual bool NextTrunSet(IBox* box, unsigned long long position);
  virtual size_t FrameListSizeGet();
  virtual bool setExtraData(IMedia* media);
  // Parses the next moof the tfra lists and reads this track's run of it.
  virtual bool moofParse(IO& io);
  // The duration in ms of a frame whose run and track fragment header give none.
  virtual unsigned updateDuration() = 0;

  // trak is the parsed box of the track, not owned.
  bool DemuxConfig0(IBox* trak, kiv::base::Object* param);
  bool updateMoofList() const { return _tfra != nullptr; }
  bool updateMoofEntry();
  bool IsDemuxEnd() const { return _demuxEnd; }
  // Moves to the fragment of time ms: with alignment the listed fragment at or before it when coming
  // from behind, at or behind it when coming from before; without, the start of the present one.
  bool Seek(long long ms, bool alignToKeyFrame);

  // Frames of the present run not read yet; duration in ms, offset the absolute position.
  std::deque<ChunkParam> _frames;
  uint32_t _moofEntryCount = 0;
  IBox* _tfra = nullptr;         // not owned: the file's tree keeps it
  IBox* _nextTurnBox = nullptr;  // the trun to read next, valid while its moof lives
  const std::vector<std::pair<unsigned int, unsigned int>>* _moofItems = nullptr;  // the tfra's entries
  uint32_t _moofIndex = 0;
  uint64_t _moofOffset = 0;
  uint32_t _sampleCount = 0;
  bool _demuxEnd = false;

 protected:
  // The time of the listed fragment i in ms (i below the entry count).
  long long entryMs(uint32_t i) const;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
