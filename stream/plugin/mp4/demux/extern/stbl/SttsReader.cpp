#include "stream/plugin/mp4/demux/extern/stbl/SttsReader.h"

#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/BoxWeave.h"

namespace kiv {
namespace plugin {
namespace mov {

SttsReader::SttsReader() { _list_item_size = SttsEntry::kBytes; }

bool SttsReader::init(kiv::base::AttrSet& ap) {
  if (!IStblReader::init(ap)) return false;
  // An empty table gives a run of no samples and no duration.
  if (!read(_run)) return false;
  _first_sample = 1;
  return true;
}

int SttsReader::LoadNext() {
  if (position() >= _list_end_pos) return 0;
  _first_sample += _run.run;
  return read(_run) ? 1 : -1;
}

int SttsReader::LoadPrev() {
  if (position() <= _list_begin_pos) return 0;
  if (!seek(position() - SttsEntry::kBytes)) {
    LOGE << "!_reader->Seek(-8,Position::current)";
    return -1;
  }
  if (!read(_run)) return -1;
  // A run of no samples would hold the walk where it is.
  if (_run.run == 0) return 0;
  _first_sample -= _run.run;
  return 1;
}

bool SttsReader::Parse(Item& item) {
  const long long sample = item.sample;
  int r = 1;
  while (r > 0 && sample < _first_sample) r = LoadPrev();
  if (r >= 0) {
    r = 1;
    while (r > 0 && sample > _first_sample + _run.run) r = LoadNext();
  }
  item.duration = _run.delta;
  return r >= 0;
}

long long SttsReader::GetTotalDuration() {
  const long long back = position();
  if (!seek(_list_begin_pos)) {
    LOGE << "!_reader->Seek(_list_begin_pos,Position::front)";
    return 0;
  }
  long long total = 0;
  for (uint32_t i = 0; i < Entries(); ++i) {
    SttsEntry e{};
    if (!read(e)) break;
    total += static_cast<long long>(e.run) * e.delta;
  }
  // The walk goes on from the run it holds.
  seek(back);
  return total;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterSttsReader() {
  using kiv::plugin::mov::SttsReader;
  using P = kiv::base::TProperty<SttsReader>;
  kiv::plugin::mov::Reflect<SttsReader>("mov-stbl-reader-extern-stts",
                                        {P::Getter("get_total_duration", &SttsReader::GetTotalDuration)}, "quor");
}
