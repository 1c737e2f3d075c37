#include "stream/plugin/mp4/demux/StreamParser.h"

#include <algorithm>

#include "stream/base/dbg/Log.h"

namespace kiv {
namespace plugin {
namespace mov {

StreamParser::~StreamParser() { delete _stblparser; }

void StreamParser::init(IStblParser* parser) {
  if (_stblparser != parser) delete _stblparser;
  _stblparser = parser;
  _last_key = -1;
  _total_size = 0;
  _gop = 0;
  if (!parser) return;
  _total_count = parser->GetFrameCount();
  _frm.Reset();
  if (!parser->GetFrame(0, _frm)) {
    LOGE << "!parser->GetFrame(0, _frm)";
    return;
  }
  _cursor_idx = _frm.Index;
  _cursor_pts = _frm.Pts;
}

int StreamParser::LimitIndex(int idx) {
  const int count = GetTotalCount();
  if (idx >= count) idx = count - 1;
  return idx < 0 ? 0 : idx;
}

int StreamParser::GetTotalCount() {
  if (_total_count == 0 && _stblparser) _total_count = _stblparser->GetFrameCount();
  return _total_count;
}

long long StreamParser::GetTotalSize() {
  if (_total_size == 0 && _stblparser) _total_size = _stblparser->GetTotalSize();
  return _total_size;
}

int StreamParser::GetLastKeyFrame() {
  // The cache answers only a 0; the parsers keep their own answer.
  if (_last_key == 0) return 0;
  _last_key = _stblparser ? _stblparser->GetLastKeyFrame() : 0;
  return _last_key;
}

int StreamParser::GetGop() {
  if (_gop) return static_cast<int>(_gop);
  const int count = GetTotalCount();
  int first = -1;
  int i = 0;
  for (; i < count; ++i) {
    if (!_stblparser->GetFrameIsKey(i)) continue;
    if (first < 0) {
      first = i;
      continue;
    }
    break;
  }
  if (first < 0) _gop = static_cast<uint32_t>(count + 1);
  else _gop = static_cast<uint32_t>(i - first);
  return static_cast<int>(_gop);
}

long long StreamParser::frameDuration(int idx) {
  return _stblparser ? _stblparser->GetFrameDuration(idx) : 0;
}

FrameInfo StreamParser::GetFrameInfo(int idx) {
  FrameInfo f;
  if (!CheckIndex(idx) || !_stblparser->GetFrame(idx, f)) {
    f.InvalidFrameInfo(idx);
    return f;
  }
  f.Pts = GetTimeStamp(idx);
  return f;
}

int StreamParser::sameDurationLast(int idx) { return _stblparser ? _stblparser->SameDurationLast(idx) : idx; }

int StreamParser::sameDurationFirst(int idx) { return _stblparser ? _stblparser->SameDurationFirst(idx) : idx; }

void StreamParser::moveCursor(long long frames, long long duration) {
  // As many additions of the duration as frames, wrapping as they would.
  _cursor_idx += static_cast<int>(frames);
  _cursor_pts = static_cast<long long>(static_cast<unsigned long long>(_cursor_pts) +
                                       static_cast<unsigned long long>(duration) * static_cast<unsigned long long>(frames));
}

// The walk steps a frame at a time; over frames that share their duration (a run of the tables, as
// the parser tells) it counts the steps instead of making them, so a long jump costs a lookup a run.
long long StreamParser::GetTimeStamp(int idx) {
  idx = LimitIndex(idx);
  // A failed lookup (-1) is taken a frame at a time, as it comes.
  while (_cursor_idx < idx) {
    const long long d = frameDuration(_cursor_idx);
    moveCursor(d < 0 ? 1 : std::min(sameDurationLast(_cursor_idx), idx - 1) - _cursor_idx + 1, d);
  }
  while (_cursor_idx > idx) {
    const long long d = frameDuration(_cursor_idx - 1);
    moveCursor(d < 0 ? -1 : std::max(sameDurationFirst(_cursor_idx - 1), idx) - _cursor_idx, d);
  }
  return _cursor_pts;
}

bool StreamParser::SeekByIndex(int idx, bool align) {
  LOGI << "idx=" << idx;
  if (align) idx = FindIndexAlign(idx);
  if (!CheckIndex(idx)) {
    _frm.Flags |= FrameInfo::kInvalid;
  } else if (idx == _frm.Index) {
    _frm.Flags &= ~static_cast<uint32_t>(FrameInfo::kInvalid);
  } else {
    const long long pts = GetTimeStamp(idx);
    _frm.Reset();
    if (!_stblparser->GetFrame(idx, _frm)) {
      // A frame the tables cannot give (a table on file that ends early or cannot be read) ends the
      // track here. A reset record would read as frame 0 with no bytes, and Next would play the track
      // again from frame 1, without end.
      LOGE << "!_stblparser->GetFrame(idx, _frm)" << " idx=" << idx;
      _frm.InvalidFrameInfo(idx);
      return false;
    }
    _frm.Pts = pts;
  }
  return !CurrentIsInvalid();
}

bool StreamParser::Next(bool align) {
  bool ok = SeekByIndex(_frm.Index + 1, align);
  long long skipped = 0;
  while (_frm.Size == 0) {
    // Zero-length samples are never delivered; their time goes to the next frame that has bytes.
    if (CurrentIsInvalid()) {
      LOGE << "zero-length samples up to the end of the table at " << _frm.Index;
      return false;
    }
    skipped += _frm.Duration;
    ok = SeekByIndex(_frm.Index + 1, align);
    if (!CurrentIsInvalid() && _frm.Size != 0) _frm.Duration += skipped;
  }
  return ok;
}

bool StreamParser::Prev(bool align) {
  bool ok = SeekByIndex(_frm.Index - 1, align);
  while (_frm.Size == 0) {
    if (CurrentIsInvalid() || _frm.Index <= 0) {
      LOGE << "zero-length samples up to the start of the table";
      return false;
    }
    ok = SeekByIndex(_frm.Index - 1, align);
  }
  return ok;
}

int StreamParser::FindIndexAlign(int idx) {
  const int count = GetTotalCount();
  const bool backward = _frm.Index > idx;
  for (;;) {
    if (_stblparser && _stblparser->GetFrameIsKey(idx)) return idx;
    if (backward) {
      if (idx <= 0) return 0;
      --idx;
    } else {
      ++idx;
      if (idx >= count) return GetLastKeyFrame();
    }
  }
}

int StreamParser::ApproximateIndex(long long pts, int lowIdx, long long lowPts, int highIdx, long long highPts,
                                   Approximate approx, long long& chosenPts) {
  bool upper;
  if (approx == kApproxLower) upper = false;
  else if (approx == kApproxUpper) upper = true;
  else upper = highPts - pts <= pts - lowPts;
  chosenPts = upper ? highPts : lowPts;
  return upper ? highIdx : lowIdx;
}

int StreamParser::GetIndex(long long pts, Approximate approx) {
  if (pts == _cursor_pts) return _cursor_idx;
  if (pts < 1) return 0;
  if (pts >= _total_pts) return GetTotalCount() - 1;
  const int last = GetTotalCount() - 1;
  int lowIdx, highIdx;
  long long lowPts, highPts;
  if (pts < _cursor_pts) {
    for (;;) {
      if (_cursor_idx <= 0) {
        lowIdx = highIdx = 0;
        lowPts = highPts = _cursor_pts;
        break;
      }
      const long long d = frameDuration(_cursor_idx - 1);
      const long long start = _cursor_pts - d;
      if (pts < start) {
        // Back over the frames of this duration while pts stays below the start stepped to.
        long long k = 1;
        if (d >= 0) {
          k = _cursor_idx - sameDurationFirst(_cursor_idx - 1);
          if (d > 0) k = std::min(k, (_cursor_pts - pts - 1) / d);
          k = std::max(1LL, std::min(k, static_cast<long long>(_cursor_idx)));
        }
        moveCursor(-k, d);
        continue;
      }
      lowIdx = _cursor_idx - 1;
      lowPts = start;
      highIdx = _cursor_idx;
      highPts = _cursor_pts;
      break;
    }
  } else {
    for (;;) {
      const long long d = frameDuration(_cursor_idx);
      const long long next = _cursor_pts + d;
      if (_cursor_idx >= last) {
        // The tables end before the track's length says: the last frame is the latest there is.
        lowIdx = highIdx = _cursor_idx;
        lowPts = highPts = _cursor_pts;
        break;
      }
      if (next < pts) {
        // On over the frames of this duration while the next start stays below pts, up to the last.
        long long k = 1;
        if (d >= 0) {
          k = sameDurationLast(_cursor_idx) - _cursor_idx + 1;
          if (d > 0) k = std::min(k, (pts - _cursor_pts - 1) / d);
          k = std::max(1LL, std::min(k, static_cast<long long>(last - _cursor_idx)));
        }
        moveCursor(k, d);
        continue;
      }
      lowIdx = _cursor_idx;
      lowPts = _cursor_pts;
      highIdx = _cursor_idx + 1;
      highPts = next;
      break;
    }
  }
  long long chosenPts = 0;
  const int idx = ApproximateIndex(pts, lowIdx, lowPts, highIdx, highPts, approx, chosenPts);
  _cursor_idx = idx;
  _cursor_pts = chosenPts;
  return idx;
}

int StreamParser::FindIndex(long long pts, bool align) {
  int idx;
  if (pts == _frm.Pts) idx = _frm.Index;
  else idx = GetIndex(pts, _frm.Pts < pts ? kApproxUpper : kApproxLower);
  if (align) idx = FindIndexAlign(idx);
  return idx;
}

bool StreamParser::Seek(long long pts, bool align) {
  const int noted = _frm.Index;
  int idx = FindIndex(pts, align);
  const bool ok = SeekByIndex(idx, false);
  // Land on a frame that has bytes: onwards when the seek went back, backwards otherwise. Bounded by
  // the frame count, so a track of empty samples only cannot hold the seek.
  for (int steps = GetTotalCount(); _frm.Size == 0 && steps > 0; --steps) {
    if (idx < noted) ++idx;
    else idx = idx <= 1 ? 0 : idx - 1;
    SeekByIndex(idx, false);
  }
  return ok;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
