// "stsz" on file: a sample's size, read straight from its place in the table, or the one size of all
// samples when the box holds no table.
#pragma once

#include "stream/plugin/mp4/demux/extern/IStblReader.h"

namespace kiv {
namespace plugin {
namespace mov {

class StszReader : public IStblReader {
 public:
  StszReader();
  // item.sample to item.size.
  bool Parse(Item& item) override;
  // Property "get_total_size": the sum of all sizes; count (samples) matters only with one size for all.
  long long GetTotalSize(int count);
  // Samples this table describes: its count, and with one size for all no more than the file's bytes
  // hold. The in-memory list is cut to the same number.
  unsigned long long DescribedSamples() const;
  uint32_t SampleSize() const { return _sample_size; }

 protected:
  bool init(kiv::base::AttrSet& ap) override;

 private:
  uint32_t _sample_size = 0;  // one size for all; 0: a table
  uint32_t _entry_num = 0;    // entries present; 0 with one size for all
  uint32_t _count = 0;        // as the header says
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterStszReader();
