// The frames of a track whose tables were expanded into the "stbl"'s list: one record a frame (or a
// chunk of equal samples), every lookup an array access.
#pragma once

#include <vector>

#include "stream/plugin/mp4/common/IListFile.h"
#include "stream/plugin/mp4/demux/IStblParser.h"

namespace kiv {
namespace plugin {
namespace mov {

class ListParser : public IStblParser {
 public:
  bool Init(IBox* box) override;
  bool GetFrame(int idx, FrameInfo& frm) override;
  int GetFrameCount() override;
  long long GetTotalSize() override;
  long long GetFrameSize(int idx) override;
  long long GetFrameDuration(int idx) override;
  bool GetFrameIsKey(int idx) override;
  int GetLastKeyFrame() override;

 private:
  const ChunkParam* entry(int idx) const;

  IBox* _stbl = nullptr;                   // not owned
  std::vector<ChunkParam>* _list = nullptr;  // the box's
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterListParser();
