#include "stream/plugin/mp4/demux/extern/stbl/StszReader.h"

#include <algorithm>

#include "stream/base/Helpers.h"
#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/common/Stbl.h"

namespace kiv {
namespace plugin {
namespace mov {

StszReader::StszReader() { _list_item_size = 4; }

bool StszReader::init(kiv::base::AttrSet&) {
  // The uniform size stands ahead of the count in this table.
  uint32_t head = 0;
  if (!read32(head) || !read32(_sample_size) || !read32(_count)) return false;
  _stbl->Version(static_cast<unsigned char>(head >> 24));
  _stbl->Flags(head & 0xffffffu);
  if (auto* box = dynamic_cast<cstsz*>(_stbl)) box->_size = _sample_size;
  _entry_num = _count;
  const unsigned long long payload = _stbl->PayloadSize();
  if (payload < 12 || payload - 12 < 4ull * _count) {
    // No table behind the count: normal for samples of one size (PCM counts its sample frames here).
    LOGE << "_entry_num=" << _entry_num << " _sample_size=" << _sample_size
         << " stsz->PayloadSize()=" << payload;
    if (!_sample_size) {
      LOGE << "!_sample_size";
      return false;
    }
    _entry_num = 0;
  }
  tableAt(position(), _entry_num);
  _stbl->Num(_count);
  return true;
}

bool StszReader::Parse(Item& item) {
  if (_entry_num == 0) {
    item.size = _sample_size;
    return true;
  }
  if (item.sample == 0) {
    LOGE << "item.sample==0";
    return false;
  }
  const long long offset = _list_begin_pos + 4ll * (item.sample - 1ll);
  if (offset >= _list_end_pos) {
    LOGE << "!offset>=_list_end_pos" << " sample=" << item.sample << " entries=" << _entry_num;
    return false;
  }
  if (!seek(offset)) {
    LOGE << "!_reader->Seek(offset,Position::front)" << " offset=" << offset;
    return false;
  }
  return read32(item.size);
}

long long StszReader::GetTotalSize(int count) {
  if (_entry_num == 0) return static_cast<long long>(std::max(count, 0)) * _sample_size;
  if (!seek(_list_begin_pos)) {
    LOGE << "!_reader->Seek(_list_begin_pos,Position::front)";
    return 0;
  }
  // Block by block: a long recording's table is read once, at open, for the bit rate.
  long long total = 0;
  unsigned char buf[4096];
  uint32_t left = Entries();
  while (left) {
    const uint32_t n = std::min<uint32_t>(left, sizeof buf / 4);
    const long long want = 4ll * n;
    if (_reader->io().Read(buf, want) != want) {
      LOGE << "stsz: the table ends " << left << " entries early; total size so far " << total;
      break;
    }
    for (uint32_t i = 0; i < n; ++i) total += Read32BE(buf + 4 * i);
    left -= n;
  }
  return total;
}

unsigned long long StszReader::DescribedSamples() const {
  unsigned long long n = _count;
  if (_sample_size) n = std::min<unsigned long long>(n, _file_size > 0 ? static_cast<unsigned long long>(_file_size) / _sample_size : 0);
  return n;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterStszReader() {
  using kiv::plugin::mov::StszReader;
  using P = kiv::base::TProperty<StszReader>;
  kiv::plugin::mov::Reflect<StszReader>("mov-stbl-reader-extern-stsz",
                                        {P::Getter("get_total_size", &StszReader::GetTotalSize)}, "quor");
}
