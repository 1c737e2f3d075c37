// The frames of a track whose tables stay in the file. No per-frame data is kept: each question passes
// one item through the track's table readers in a fixed order (stsc first, to learn the chunk or the
// sample; then the chunk offsets; then sizes, durations and key frames), and the last answer is kept
// for the next question, which in play is its neighbour.
#pragma once

#include <cstdint>
#include <vector>

#include "stream/plugin/mp4/demux/IStblParser.h"
#include "stream/plugin/mp4/demux/extern/IStblReader.h"

namespace kiv {
namespace plugin {
namespace mov {

class StscReader;
class StszReader;
class SttsReader;

class StblParser : public IStblParser {
 public:
  StblParser() = default;

  bool Init(IBox* box) override;
  bool GetFrame(int idx, FrameInfo& frm) override;
  int GetFrameCount() override;
  long long GetTotalSize() override;
  long long GetFrameSize(int idx) override;
  long long GetFrameDuration(int idx) override;
  bool GetFrameIsKey(int idx) override;
  int SameDurationFirst(int idx) override;
  int SameDurationLast(int idx) override;
  // Without a sync table the last frame. With one the question goes to the stss reader, which has no
  // answer: 0, with a log line. A forward seek past the last key frame of such a track lands on frame
  // 0 (the list in memory gives the last key frame).
  int GetLastKeyFrame() override;

  bool Parse(IStblReader::Item& item);
  bool toFrame(IStblReader::Item& item, int idx, FrameInfo& frm);
  unsigned long long xSampleNum(const IStblReader::Item& item, unsigned long long value) const;
  void SetFrameIndex(IStblReader::Item& item, int idx) const;
  long long getFrameIndex(const IStblReader::Item& item) const;
  int GetChunkCount();
  int GetSampleCount();

  // The readers in the order they are asked.
  const std::vector<IStblReader*>& Readers() const { return _parsers; }

 private:
  // The file position of a sample inside its chunk, from the chunk's start and the sizes before it.
  bool positionInChunk(const IStblReader::Item& item, int64_t& pos);
  bool beyond(int idx);

  IStblReader* _cttsparser = nullptr;  // none of them owned: the table boxes own their readers
  IStblReader* _stcoparser = nullptr;
  IStblReader* _stscparser = nullptr;
  IStblReader* _stssparser = nullptr;
  IStblReader* _stszparser = nullptr;
  IStblReader* _sttsparser = nullptr;
  // The same readers by their own types, for what only they can tell.
  StscReader* _stsc = nullptr;
  StszReader* _stsz = nullptr;
  SttsReader* _stts = nullptr;
  std::vector<IStblReader*> _parsers;
  int _chunk_cnt = 0;
  int _sample_cnt = 0;
  int _frame_cnt = 0;
  int _last_key = 0;  // counted from 1; 0 while not known
  bool _frame_is_sample = true;
  long long _total_size = 0;
  IStblReader::Item _item;
  int64_t _last_pos = 0;
  uint32_t _last_sample = 0;
  int32_t _last_size = 0;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterStblParser();
