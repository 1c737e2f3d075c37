// The walker of one track's frames, in the track's own time units. It keeps a current frame and a time
// cursor: the tables hold only durations, so a frame's time is the sum of the durations before it, and
// the cursor keeps that sum cheap for neighbouring frames. Sequential play costs one table lookup a
// frame; a jump costs one a frame jumped.
#pragma once

#include <cstdint>

#include "stream/plugin/mp4/demux/IStblParser.h"

namespace kiv {
namespace plugin {
namespace mov {

// Which of two neighbouring frames a time search takes.
enum Approximate : int { kApproxLower = -1, kApproxNearest = 0, kApproxUpper = 1 };

class StreamParser {
 public:
  StreamParser() = default;
  StreamParser(const StreamParser&) = delete;
  StreamParser& operator=(const StreamParser&) = delete;
  virtual ~StreamParser();

  // Takes the table parser (owned from now on) and stands on frame 0.
  void init(IStblParser* parser);

  int CurrentIndex() const { return _frm.Index; }
  long long CurrentPtsInUnits() const { return _frm.Pts; }
  long long CurrentDurationInUnits() const { return _frm.Duration; }
  long long CurrentPos() const { return _frm.Pos; }
  int CurrentSize() const { return _frm.Size; }
  unsigned CurrentFlags() const { return _frm.Flags; }
  bool CurrentIsBegin() const { return _frm.Index < 1; }
  bool CurrentIsKey() const { return (_frm.Flags & FrameInfo::kKey) != 0; }
  bool CurrentIsInvalid() const { return (_frm.Flags & FrameInfo::kInvalid) != 0; }
  bool CurrentIsUsed() const { return (_frm.Flags & FrameInfo::kUsed) != 0; }
  bool IsEnd(int idx) { return static_cast<long long>(idx) + 1 >= GetTotalCount(); }
  bool CurrentIsEnd() { return IsEnd(_frm.Index); }
  bool CheckIndex(int idx) { return idx >= 0 && idx < GetTotalCount(); }
  int LimitIndex(int idx);

  int GetTotalCount();
  long long GetTotalSize();
  int GetLastKeyFrame();
  bool CurrentIsLastKey() { return _frm.Index == GetLastKeyFrame(); }
  int GetGop();
  // A copy of a frame's record, its time included; an invalid record for a bad index.
  FrameInfo GetFrameInfo(int idx);
  // The frame's start time, in track units; moves the cursor there.
  long long GetTimeStamp(int idx);

  bool SeekByIndex(int idx, bool align);
  bool SeekToBegin(bool align) { return SeekByIndex(0, align); }
  bool SeekToEnd(bool align) { return SeekByIndex(GetTotalCount() - 1, align); }
  bool Next(bool align);
  bool Prev(bool align);

  bool Seek(long long pts, bool align);
  int FindIndex(long long pts, bool align);
  int FindIndexAlign(int idx);
  int GetIndex(long long pts, Approximate approx);

  IStblParser* Parser() const { return _stblparser; }

 protected:
  static int ApproximateIndex(long long pts, int lowIdx, long long lowPts, int highIdx, long long highPts,
                              Approximate approx, long long& chosenPts);
  // Duration of a frame in track units, 0 for one the tables do not hold.
  long long frameDuration(int idx);
  int sameDurationLast(int idx);
  int sameDurationFirst(int idx);
  // The cursor moved by frames (back when negative) that each last duration.
  void moveCursor(long long frames, long long duration);
  // The current frame is the used one: it has been made into a packet.
  void markUsed() { _frm.Flags |= FrameInfo::kUsed; }

  FrameInfo _frm;
  IStblParser* _stblparser = nullptr;
  int32_t _last_key = -1;
  long long _total_size = 0;
  uint32_t _gop = 0;
  int32_t _total_count = 0;
  int64_t _total_pts = 0;
  int64_t _cursor_pts = 0;
  int32_t _cursor_idx = 0;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
