// "co64" on file: a chunk's 64-bit offset, read as StcoReader reads the 32-bit one.
#pragma once

#include "stream/plugin/mp4/demux/extern/stbl/StcoReader.h"

namespace kiv {
namespace plugin {
namespace mov {

class Co64Reader : public StcoReader {
 public:
  Co64Reader() { _list_item_size = 8; }
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterCo64Reader();
