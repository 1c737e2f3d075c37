#include "stream/plugin/mp4/demux/extern/stbl/FakeReader.h"

#include "stream/plugin/mp4/BoxWeave.h"

extern "C" void RegisterFakeReader() {
  kiv::plugin::mov::Reflect<kiv::plugin::mov::FakeReader>("mov-stbl-reader-extern-fake-sdtp", {}, "quor");
}
