// "stco" on file: a chunk's 32-bit offset, read straight from its place in the table; Co64Reader reads
// the 64-bit form the same way.
#pragma once

#include "stream/plugin/mp4/demux/extern/IStblReader.h"

namespace kiv {
namespace plugin {
namespace mov {

class StcoReader : public IStblReader {
 public:
  StcoReader();
  // item.chunk to item.pos.
  bool Parse(Item& item) override;
  // The table's entries (no property leads here: the parse hands "chunk_cnt" on).
  int GetFrameCount() const { return static_cast<int>(Entries()); }

 protected:
  // Also hands the chunk count to the "stbl" through the parse's attributes, as the in-memory table does.
  bool init(kiv::base::AttrSet& ap) override;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterStcoReader();
