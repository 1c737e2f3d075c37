// Tables that playing does not need ("sdtp", and the boxes the factory has no class for): accepted
// without a read, and nothing reaches an item.
#pragma once

#include "stream/plugin/mp4/demux/extern/IStblReader.h"

namespace kiv {
namespace plugin {
namespace mov {

class FakeReader : public IStblReader {
 public:
  FakeReader() { _list_item_size = 8; }
  bool Init(kiv::base::AttrSet&) override { return true; }
  bool Parse(Item&) override { return true; }
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterFakeReader();
