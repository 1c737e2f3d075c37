// "stss" on file: whether a sample is a key frame. The reader holds two neighbouring entries and walks
// to the pair around the sample; a far sample is reached by one jump that takes the distance between
// the two held keys as the stride of all of them (recorders keep a fixed key interval), and the walk
// corrects what the guess misses.
#pragma once

#include "stream/plugin/mp4/demux/extern/IStblReader.h"

namespace kiv {
namespace plugin {
namespace mov {

class StssReader : public IStblReader {
 public:
  StssReader();
  // item.sample to item.is_key.
  bool Parse(Item& item) override;

 protected:
  bool init(kiv::base::AttrSet& ap) override;
  // 1: moved; 0: at the table's end; -1: a read failed.
  int LoadNext();
  int LoadPrev();
  int LoadJump(uint32_t sample);

 private:
  uint32_t _key = 0;       // sample numbers of two neighbouring key frames; 0 for an entry the table
  uint32_t _next_key = 0;  // does not have
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterStssReader();
