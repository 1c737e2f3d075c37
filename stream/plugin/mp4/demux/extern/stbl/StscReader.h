// "stsc" on file: from a chunk number to its first sample and shape, or from a sample number to its
// chunk. The reader holds two neighbouring entries (the current one and the next) with the numbers of
// their first samples, and walks entry by entry to the pair that covers what is asked; its entries are
// few, so the walk is short.
#pragma once

#include "stream/plugin/mp4/demux/extern/IStblReader.h"

namespace kiv {
namespace plugin {
namespace mov {

class StscReader : public IStblReader {
 public:
  StscReader();
  // With item.chunk: sample, samples_per_chunk, chunk_first_sample (and desc_index for a table of one
  // entry). Otherwise with item.sample: chunk, samples_per_chunk, chunk_first_sample.
  bool Parse(Item& item) override;
  // Property "get_sample_cnt": the samples of chunkCount chunks.
  int GetSampleNumber(int chunkCount);
  // The samples from `sample` on (or back) that Parse by sample answers without loading an entry and
  // without failing; `sample` itself when it is not such a sample.
  unsigned long long StillLast(unsigned long long sample) const;
  unsigned long long StillFirst(unsigned long long sample) const;

 protected:
  bool init(kiv::base::AttrSet& ap) override;
  // 1: moved; 0: at the table's end; -1: a read failed.
  int LoadNext();
  int LoadPrev();
  bool ParseByChunkIndex(Item& item);
  bool ParseBySampleIndex(Item& item);

 private:
  // Samples in the chunks from e's first chunk up to the next entry's.
  static unsigned long long samplesBetween(const StscEntry& e, const StscEntry& next);

  StscEntry _cur{};
  StscEntry _next{};
  unsigned long long _first_sample = 1;       // of _cur, from 1
  unsigned long long _next_first_sample = 1;  // of _next
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterStscReader();
