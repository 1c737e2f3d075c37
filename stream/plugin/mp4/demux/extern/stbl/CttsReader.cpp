#include "stream/plugin/mp4/demux/extern/stbl/CttsReader.h"

#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/BoxWeave.h"

namespace kiv {
namespace plugin {
namespace mov {

bool CttsReader::Init(kiv::base::AttrSet&) {
  LOGE << "ctts: composition offsets are not read from tables on file; a track with them plays only "
          "from a list in memory (its stbl below the switch size)";
  return false;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterCttsReader() {
  kiv::plugin::mov::Reflect<kiv::plugin::mov::CttsReader>("mov-stbl-reader-extern-ctts", {}, "quor");
}
