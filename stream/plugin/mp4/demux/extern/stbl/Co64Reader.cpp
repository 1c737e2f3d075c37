#include "stream/plugin/mp4/demux/extern/stbl/Co64Reader.h"

#include "stream/plugin/mp4/BoxWeave.h"

extern "C" void RegisterCo64Reader() {
  kiv::plugin::mov::Reflect<kiv::plugin::mov::Co64Reader>("mov-stbl-reader-extern-co64", {}, "quor");
}
