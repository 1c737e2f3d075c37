// "co64" on file: a chunk's 64-bit offset, read straight from its place in the table.
#pragma once

#include "stream/plugin/mp4/demux/extern/IStblReader.h"

namespace kiv {
namespace plugin {
namespace mov {

class Co64Reader : public IStblReader {
 public:
  Co64Reader();
  // item.chunk to item.pos; a chunk outside the table is false without a line.
  bool Parse(Item& item) override;
  int GetFrameCount() const { return static_cast<int>(Entries()); }

 protected:
  bool init(kiv::base::AttrSet& ap) override;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterCo64Reader();
