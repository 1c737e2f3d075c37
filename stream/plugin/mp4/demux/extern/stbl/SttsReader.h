// "stts" on file: a sample's duration, from the run that holds it. The reader keeps one run and walks
// run by run to the sample asked for.
//
// Kept as the files of the field have been read so far: the reader's begin stands behind the first
// entry, so a walk back re-reads the run it holds (the samples before it get its duration, and the
// run's first sample falls by its length each step until it covers the sample), and the walk forward
// stops one sample late (the first sample of a run gets the duration of the run before).
#pragma once

#include "stream/plugin/mp4/demux/extern/IStblReader.h"

namespace kiv {
namespace plugin {
namespace mov {

class SttsReader : public IStblReader {
 public:
  SttsReader();
  // item.sample to item.duration.
  bool Parse(Item& item) override;
  // Property "get_total_duration": run times delta over the box's count of entries, from behind the
  // first one (so the first run is left out).
  long long GetTotalDuration();
  // The samples Parse answers with the current run's delta without loading an entry (its bounds
  // include the first sample of the next run, as Parse's do).
  long long StillFirst() const { return _first_sample; }
  long long StillLast() const { return _first_sample + _run.run; }

 protected:
  bool init(kiv::base::AttrSet& ap) override;
  // 1: moved; 0: at the table's end; -1: a read failed.
  int LoadNext();
  int LoadPrev();

 private:
  SttsEntry _run{};             // the current run: its count and delta
  long long _first_sample = 1;  // number of its first sample, from 1
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterSttsReader();
