#include "stream/plugin/mp4/demux/extern/stbl/StscReader.h"

#include <climits>

#include "stream/base/Convert.h"
#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/BoxWeave.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::Hex;

StscReader::StscReader() {
  _list_item_size = StscEntry::kBytes;
  _order = -1000;
}

unsigned long long StscReader::samplesBetween(const StscEntry& e, const StscEntry& next) {
  const unsigned long long chunks = next.first_chunk > e.first_chunk ? next.first_chunk - e.first_chunk : 0;
  return chunks * e.samples_per_chunk;
}

bool StscReader::init(kiv::base::AttrSet& ap) {
  if (!IStblReader::init(ap)) return false;
  if (Entries() < 1) {
    LOGE << "_stbl->_num<1";
    return false;
  }
  if (!read(_cur)) return false;
  _first_sample = 1;
  _list_begin_pos = -static_cast<long long>(StscEntry::kBytes);
  if (Entries() < 2) {
    // The one entry covers every chunk.
    _next = StscEntry{0x7fffffff, 1, 1};
  } else {
    if (!read(_next)) return false;
    _list_begin_pos = -2 * static_cast<long long>(StscEntry::kBytes);
  }
  _next_first_sample = _first_sample + samplesBetween(_cur, _next);
  return true;
}

int StscReader::LoadNext() {
  if (position() >= _list_end_pos) return 0;
  _cur = _next;
  if (!read(_next)) return -1;
  _first_sample = _next_first_sample;
  _next_first_sample = _first_sample + samplesBetween(_cur, _next);
  return 1;
}

int StscReader::LoadPrev() {
  if (_next.first_chunk <= 1) return 0;
  const long long back = static_cast<long long>(_list_item_size) * 3;
  if (position() < _list_begin_pos + back) {
    LOGE << "_reader->Offset()<_list_begin_pos+_list_item_size*3 " << Hex(static_cast<uint64_t>(position()), 8)
         << "<" << Hex(static_cast<uint64_t>(_list_begin_pos + back), 8);
    return 0;
  }
  if (!seek(position() - back)) {
    LOGE << "!_reader->Seek(-_list_item_size*3,Position::current)";
    return -1;
  }
  if (!read(_cur) || !read(_next)) return -1;
  _next_first_sample = _first_sample;
  _first_sample = _next_first_sample - samplesBetween(_cur, _next);
  return 1;
}

bool StscReader::Parse(Item& item) {
  if (item.chunk) return ParseByChunkIndex(item);
  if (item.sample) return ParseBySampleIndex(item);
  LOGE << "idx==0";
  return false;
}

bool StscReader::ParseByChunkIndex(Item& item) {
  const uint32_t chunk = item.chunk;
  unsigned long long sample = 0;
  if (Entries() < 2) {
    item.samples_per_chunk = _cur.samples_per_chunk;
    item.desc_index = _cur.desc_index;
    sample = static_cast<unsigned long long>(_cur.samples_per_chunk) * (chunk - 1ull) + 1;
  } else {
    int r = 1;
    while (r > 0 && chunk < _cur.first_chunk) r = LoadPrev();
    if (r >= 0) {
      r = 1;
      while (r > 0 && chunk > _next.first_chunk) r = LoadNext();
    }
    if (r < 0) return false;
    const bool cur = chunk < _next.first_chunk;
    const StscEntry& e = cur ? _cur : _next;
    const unsigned long long first = cur ? _first_sample : _next_first_sample;
    const unsigned long long chunks = chunk > e.first_chunk ? chunk - e.first_chunk : 0;
    item.samples_per_chunk = e.samples_per_chunk;
    sample = first + e.samples_per_chunk * chunks;
  }
  item.sample = static_cast<uint32_t>(sample);
  item.chunk_first_sample = item.sample;
  return true;
}

bool StscReader::ParseBySampleIndex(Item& item) {
  const unsigned long long sample = item.sample;
  const StscEntry* e = &_cur;
  unsigned long long first = 1;
  if (Entries() < 2) {
    item.desc_index = _cur.desc_index;
  } else {
    int r = 1;
    while (r > 0 && sample < _first_sample) r = LoadPrev();
    if (r >= 0) {
      r = 1;
      while (r > 0 && sample > _next_first_sample) r = LoadNext();
    }
    if (r < 0) return false;
    const bool cur = sample < _next_first_sample;
    e = cur ? &_cur : &_next;
    first = cur ? _first_sample : _next_first_sample;
  }
  if (!e->samples_per_chunk) {
    LOGE << "samples_per_chunk==0 for sample " << sample;
    return false;
  }
  const unsigned long long inside = sample > first ? (sample - first) / e->samples_per_chunk : 0;
  const unsigned long long chunk = (Entries() < 2 ? 1 : e->first_chunk) + inside;
  item.chunk = static_cast<uint32_t>(chunk);
  item.samples_per_chunk = e->samples_per_chunk;
  item.chunk_first_sample = static_cast<uint32_t>(first + inside * e->samples_per_chunk);
  return true;
}

unsigned long long StscReader::StillLast(unsigned long long sample) const {
  if (Entries() < 2) return _cur.samples_per_chunk ? ~0ull : sample;
  if (sample < _first_sample || sample > _next_first_sample || !_cur.samples_per_chunk) return sample;
  return _next.samples_per_chunk ? _next_first_sample : _next_first_sample - 1;
}

unsigned long long StscReader::StillFirst(unsigned long long sample) const {
  if (Entries() < 2) return _cur.samples_per_chunk ? 1 : sample;
  if (sample < _first_sample || sample >= _next_first_sample || !_cur.samples_per_chunk) return sample;
  return _first_sample;
}

int StscReader::GetSampleNumber(int chunkCount) {
  const long long back = position();
  if (!seek(_list_begin_pos)) {
    LOGE << "!_reader->Seek(_list_begin_pos,Position::front)";
    return 0;
  }
  // The same count as the table in memory gives.
  StscSamples samples;
  bool ok = true;
  for (uint32_t i = 0; ok && i < Entries(); ++i) {
    StscEntry e{};
    ok = read(e);
    if (ok) samples.add(e);
  }
  seek(back);
  if (!ok) return 0;
  const unsigned long long n = samples.total(chunkCount);
  return n > static_cast<unsigned long long>(INT_MAX) ? INT_MAX : static_cast<int>(n);
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterStscReader() {
  using kiv::plugin::mov::StscReader;
  using P = kiv::base::TProperty<StscReader>;
  kiv::plugin::mov::Reflect<StscReader>("mov-stbl-reader-extern-stsc",
                                        {P::Getter("get_sample_cnt", &StscReader::GetSampleNumber)}, "quor");
}
