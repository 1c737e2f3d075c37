#include "stream/plugin/mp4/demux/extern/stbl/StssReader.h"

#include <algorithm>

#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/BoxWeave.h"

namespace kiv {
namespace plugin {
namespace mov {

StssReader::StssReader() { _list_item_size = 4; }

bool StssReader::init(kiv::base::AttrSet& ap) {
  if (!IStblReader::init(ap)) return false;
  // A table of one entry (or none) has nothing behind it: the missing key is 0, no sample's number.
  if (!read32(_key) || !read32(_next_key)) return false;
  _list_begin_pos = -8;
  return true;
}

int StssReader::LoadNext() {
  if (position() >= _list_end_pos) return 0;
  _key = _next_key;
  return read32(_next_key) ? 1 : -1;
}

int StssReader::LoadPrev() {
  if (position() < _list_begin_pos + 12) return 0;
  if (!seek(position() - 12)) {
    LOGE << "!_reader->Seek(-12,Position::current)";
    return -1;
  }
  return read32(_key) && read32(_next_key) ? 1 : -1;
}

int StssReader::LoadJump(uint32_t sample) {
  if (Entries() < 2) return 0;
  const uint32_t stride = _next_key > _key ? _next_key - _key : _key - _next_key;
  const long long idx = stride ? (sample - 1ll) / stride : 0;
  const long long offset = std::min(std::max(_list_begin_pos + 4 * idx, _list_begin_pos), _list_end_pos - 8);
  if (!seek(offset)) {
    LOGE << "!_reader->Seek(offset,Position::front)" << " offset=" << offset;
    return -1;
  }
  return read32(_key) && read32(_next_key) ? 1 : -1;
}

bool StssReader::Parse(Item& item) {
  const uint32_t sample = item.sample;
  // More than two strides away, in unsigned terms: a sample behind one of the two in the other
  // direction jumps too, and the walk below corrects it.
  const unsigned long long gap = 2ull * (_next_key > _key ? _next_key - _key : _key - _next_key);
  int r = 1;
  if (gap && (gap < static_cast<uint32_t>(_key - sample) || gap < static_cast<uint32_t>(sample - _next_key)))
    r = LoadJump(sample);
  // The pair only ever moves one way here, so the walk ends within the table.
  while (r >= 0) {
    if (sample < _key) r = LoadPrev();
    else if (sample > _next_key) r = LoadNext();
    else break;
    if (r == 0) break;
  }
  item.is_key = sample == _key || sample == _next_key;
  return r >= 0;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterStssReader() {
  kiv::plugin::mov::Reflect<kiv::plugin::mov::StssReader>("mov-stbl-reader-extern-stss", {}, "quor");
}
