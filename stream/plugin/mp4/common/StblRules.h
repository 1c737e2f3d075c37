// How a track's records become the entries of its sample tables, one record at a time. A rule is fed
// every record in list order (add), hands out each entry as soon as it is complete through the emit
// callable, closes what is still open at the end (finish), and knows the count that the table's
// header carries (count). The whole-list tables (Stbl.cpp) run a rule over the list when the file is
// closed; the table-on-file forms (StblFile.cpp) keep one in the box and feed it each record as it is
// recorded, so both write the same bytes by construction.
//
// Also here: the entry layouts, shared with everything that reads tables back, and the chunk
// arithmetic of "stsc" for readers that walk its entries one at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "stream/base/io/IO.h"
#include "stream/plugin/mp4/common/IListFile.h"

namespace kiv {
namespace plugin {
namespace mov {

// ------------------------------------------------------------ entries, big-endian in this field order

struct SttsEntry {
  static constexpr unsigned kBytes = 8;
  uint32_t run;    // samples
  uint32_t delta;  // duration of each, in track units
};

struct CttsEntry {
  static constexpr unsigned kBytes = 8;
  uint32_t count;
  uint32_t offset;
};

struct StscEntry {
  static constexpr unsigned kBytes = 12;
  uint32_t first_chunk;  // from 1
  uint32_t samples_per_chunk;
  uint32_t desc_index;
};

// ------------------------------------------------------------ output

// Big-endian entries gathered into one block, so that a table of many thousand entries costs a few
// writes on the output and not one a field. Flush before patching a count behind the entries.
class BeOut {
 public:
  explicit BeOut(kiv::base::IO& io) : _io(io) {}
  ~BeOut() { flush(); }
  BeOut(const BeOut&) = delete;
  BeOut& operator=(const BeOut&) = delete;

  void u8(uint8_t v) {
    room(1);
    _buf[_n++] = v;
  }
  void u32(uint32_t v) { be(v, 4); }
  void u64(uint64_t v) { be(v, 8); }
  void put(const SttsEntry& e) {
    u32(e.run);
    u32(e.delta);
  }
  void put(const CttsEntry& e) {
    u32(e.count);
    u32(e.offset);
  }
  void put(const StscEntry& e) {
    u32(e.first_chunk);
    u32(e.samples_per_chunk);
    u32(e.desc_index);
  }
  void flush() {
    if (_n) _io.Write(_buf, static_cast<long long>(_n));
    _n = 0;
  }

 private:
  void be(uint64_t v, int bytes) {
    room(static_cast<size_t>(bytes));
    for (int i = bytes - 1; i >= 0; --i) _buf[_n++] = static_cast<unsigned char>(v >> (8 * i));
  }
  void room(size_t k) {
    if (_n + k > sizeof _buf) flush();
  }
  kiv::base::IO& _io;
  unsigned char _buf[4096];
  size_t _n = 0;
};

// Writes a table's count at countPos (right behind its header); the stream returns to where it was.
void PatchCount(kiv::base::IO& io, long long countPos, uint32_t num);

// ------------------------------------------------------------ rules

// "stts": a run is a maximal stretch of equal durations. The first comparison is against 0, so leading
// records of duration 0 get their entry without a count for it: kept, the files carry it.
class SttsRule {
 public:
  // unitRun: a record is one sample, whatever its count says (video with several frames a chunk).
  explicit SttsRule(bool unitRun = false) : _unitRun(unitRun) {}

  template <class Emit>
  void add(const ChunkParam& r, Emit&& emit) {
    if (r.duration != _last) {
      ++_count;
      if (_run) close(emit);
    }
    _run += _unitRun ? 1 : r.count;
    _last = r.duration;
  }
  // Closes the open run; a second call emits nothing.
  template <class Emit>
  void finish(Emit&& emit) {
    if (_run) close(emit);
  }
  uint32_t count() const { return _count; }
  uint32_t samples() const { return _samples; }  // in the entries emitted so far

 private:
  template <class Emit>
  void close(Emit& emit) {
    _samples += _run;
    emit(SttsEntry{_run, _last});
    _run = 0;
  }
  bool _unitRun;
  uint32_t _last = 0;  // delta of the open run
  uint32_t _run = 0;   // samples of the open run
  uint32_t _count = 0;
  uint32_t _samples = 0;
};

// "ctts": not derived from presentation times. It assumes the "ibbp" shape: a group of three records
// gives (1, sum of their durations) and (2, 0).
class CttsRule {
 public:
  template <class Emit>
  void add(const ChunkParam& r, Emit&& emit) {
    _acc += r.duration;
    if (++_seen % 3 == 0) group(emit);
  }
  // A torn last group, its missing records counted as 0. The table-on-file form leaves it out.
  template <class Emit>
  void finish(Emit&& emit) {
    if (_seen % 3) group(emit);
    _seen = 0;
  }
  uint32_t count() const { return _count; }
  bool torn() const { return _seen % 3 != 0; }

 private:
  template <class Emit>
  void group(Emit& emit) {
    emit(CttsEntry{1, _acc});
    emit(CttsEntry{2, 0});
    _count += 2;
    _acc = 0;
  }
  uint32_t _acc = 0;  // durations of the open group
  uint32_t _seen = 0;
  uint32_t _count = 0;
};

// "stsc": a chunk is count consecutive records; an entry whenever the chunk shape (samples a chunk,
// description) changes.
class StscRule {
 public:
  template <class Emit>
  void add(const ChunkParam& r, Emit&& emit) {
    ++_idx;
    if (_end < _idx) _end += r.count;
    if (r.count != _lastCount || r.descIndex != _lastDesc) {
      ++_count;
      emit(StscEntry{_chunk, r.count, r.descIndex});
      _lastCount = r.count;
      _lastDesc = r.descIndex;
    }
    if (_end == _idx) ++_chunk;
  }
  template <class Emit>
  void finish(Emit&&) {}
  uint32_t count() const { return _count; }

 private:
  unsigned long long _idx = 0;  // records so far
  unsigned long long _end = 0;  // records up to the end of the open chunk
  uint32_t _chunk = 1;
  uint32_t _lastCount = 0;
  uint8_t _lastDesc = 0;
  uint32_t _count = 0;
};

// "stsz": a size a record. With a uniform size (PCM: bytes a sample frame, records of sample frames)
// there is no table, and the count is records times the first record's frames: the track's sample
// frames for records of equal length.
class StszRule {
 public:
  explicit StszRule(uint32_t uniform = 0) : _uniform(uniform) {}

  template <class Emit>
  void add(const ChunkParam& r, Emit&& emit) {
    if (!_records++) _firstSize = r.size;
    if (!_uniform) emit(r.size);
  }
  template <class Emit>
  void finish(Emit&&) {}
  uint32_t count() const { return _uniform ? _records * _firstSize : _records; }
  uint32_t records() const { return _records; }

 private:
  uint32_t _uniform;
  uint32_t _records = 0;
  uint32_t _firstSize = 0;
};

// "stco", "co64": the offset of each record that closes a chunk (offset not 0). The box keeps the
// number of records as its count; the header gets the offsets written.
class ChunkOffsetRule {
 public:
  template <class Emit>
  void add(const ChunkParam& r, Emit&& emit) {
    ++_records;
    if (!r.offset) return;
    ++_count;
    emit(r.offset);
  }
  template <class Emit>
  void finish(Emit&&) {}
  uint32_t count() const { return _count; }
  uint32_t records() const { return _records; }

 private:
  uint32_t _records = 0;
  uint32_t _count = 0;
};

// "stss": the 1-based numbers of the sync records.
class StssRule {
 public:
  template <class Emit>
  void add(const ChunkParam& r, Emit&& emit) {
    ++_index;
    if (!(r.flags & 1)) return;
    ++_count;
    emit(_index);
  }
  template <class Emit>
  void finish(Emit&&) {}
  uint32_t count() const { return _count; }

 private:
  uint32_t _index = 0;
  uint32_t _count = 0;
};

// "sdtp": a dependency byte a record, no count field.
class SdtpRule {
 public:
  static uint8_t Byte(const ChunkParam& r) { return (r.flags & 1) ? 32 : (r.flags & 2) ? 24 : 16; }
  template <class Emit>
  void add(const ChunkParam& r, Emit&& emit) {
    emit(Byte(r));
  }
  template <class Emit>
  void finish(Emit&&) {}
};

// Runs a rule over a whole list (none: no records) and returns it finished, for its count.
template <class Rule, class Emit>
Rule RunRule(Rule rule, const std::vector<ChunkParam>* list, Emit&& emit) {
  if (list)
    for (const ChunkParam& r : *list) rule.add(r, emit);
  rule.finish(emit);
  return rule;
}

// Entries a rule gives for a whole list, for the size of a table before it is written.
template <class Rule>
unsigned long long EntriesOf(Rule rule, const std::vector<ChunkParam>* list) {
  unsigned long long n = 0;
  RunRule(rule, list, [&n](const auto&) { ++n; });
  return n;
}

// ------------------------------------------------------------ reading

// Samples that "stsc" entries give for a number of chunks, fed entry by entry in table order: each
// entry covers the chunks up to the next entry's first chunk, the last one the chunks left. Entries
// of 0 samples a chunk add nothing; products are 64-bit and the sum saturates instead of wrapping.
class StscSamples {
 public:
  void add(const StscEntry& e);
  // 0 without an entry.
  unsigned long long total(long long chunkCount) const;
  bool empty() const { return !_have; }

 private:
  void sum(unsigned long long v);
  StscEntry _prev{};
  bool _have = false;
  unsigned long long _sum = 0;  // of the entries before _prev
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
