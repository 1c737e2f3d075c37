// "ctts" on file: refused. Composition offsets are not read from tables on file, so a track that has
// them must not be read that way: its init fails, and with it the file's open. Such files play when
// their "stbl" stays below the switch size.
#pragma once

#include "stream/plugin/mp4/demux/extern/IStblReader.h"

namespace kiv {
namespace plugin {
namespace mov {

class CttsReader : public IStblReader {
 public:
  CttsReader() { _list_item_size = 4; }
  bool Init(kiv::base::AttrSet& ap) override;
  // Nothing: no offsets reach an item.
  bool Parse(Item&) override { return true; }
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterCttsReader();
