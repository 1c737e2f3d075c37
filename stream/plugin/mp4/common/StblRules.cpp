#include "stream/plugin/mp4/common/StblRules.h"

#include <climits>

#include "stream/base/dbg/Log.h"

namespace kiv {
namespace plugin {
namespace mov {

void PatchCount(kiv::base::IO& io, long long countPos, uint32_t num) {
  kiv::base::IOIntWriter(io).Write32be(num, countPos, kiv::Position::front);
}

void StscSamples::sum(unsigned long long v) { _sum = v > ULLONG_MAX - _sum ? ULLONG_MAX : _sum + v; }

void StscSamples::add(const StscEntry& e) {
  if (_have && _prev.samples_per_chunk) {
    if (e.first_chunk < _prev.first_chunk)
      LOGE << "first_chunk " << e.first_chunk << " < " << _prev.first_chunk;
    else
      sum(static_cast<unsigned long long>(_prev.samples_per_chunk) * (e.first_chunk - _prev.first_chunk));
  }
  _prev = e;
  _have = true;
}

unsigned long long StscSamples::total(long long chunkCount) const {
  if (!_have) return 0;
  StscSamples all = *this;
  const long long chunks = chunkCount - _prev.first_chunk + 1;
  if (_prev.samples_per_chunk && chunks > 0)
    all.sum(static_cast<unsigned long long>(_prev.samples_per_chunk) * static_cast<unsigned long long>(chunks));
  return all._sum;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
