// Random access to a track's frames: the record of one frame, and the interface of the two ways to
// reach the frames (a list in memory, or tables left on file and read in blocks).
#pragma once

#include <cstdint>
#include <ostream>

#include "stream/base/reflect/Object.h"

namespace kiv {
namespace plugin {
namespace mov {

class IBox;

struct FrameInfo {
  enum : uint32_t { kKey = 1, kInvalid = 2, kUsed = 4 };

  int32_t Index = 0;
  uint32_t Flags = kKey;
  int64_t Pos = 0;
  int64_t Pts = 0;       // track units
  int64_t Duration = 0;  // track units
  int32_t Size = 0;

  // The file position of the frame's first byte (spelled as the rest of the system spells it).
  int64_t Postion() const { return Pos; }
  // A reset record counts as a key frame.
  void Reset() {
    Index = 0;
    Pos = 0;
    Pts = 0;
    Duration = 0;
    Size = 0;
    Flags = kKey;
  }
  void InvalidFrameInfo(int index) {
    Reset();
    Index = index;
    Flags |= kInvalid;
  }
  std::ostream& operator>>(std::ostream& os) const;
};

class IStblParser : public virtual kiv::base::Object {
 public:
  ~IStblParser() override = default;
  // Given the "stbl" box.
  virtual bool Init(IBox* box) = 0;
  // Fills everything but Pts: the tables hold durations only.
  virtual bool GetFrame(int idx, FrameInfo& frm) = 0;
  virtual int GetFrameCount() = 0;
  virtual long long GetTotalSize() = 0;
  virtual long long GetFrameSize(int idx) = 0;
  virtual long long GetFrameDuration(int idx) = 0;
  virtual bool GetFrameIsKey(int idx) = 0;
  // Right after GetFrameDuration(idx): the frames around idx that GetFrameDuration would give the same
  // duration now, without any table moving; a walk by durations steps over them in one go. The first
  // and the last of them; idx itself when the parser cannot tell.
  virtual int SameDurationFirst(int idx) { return idx; }
  virtual int SameDurationLast(int idx) { return idx; }
  virtual int GetLastKeyFrame() = 0;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
