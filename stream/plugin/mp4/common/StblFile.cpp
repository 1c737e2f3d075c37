#include "stream/plugin/mp4/common/StblFile.h"

#include <algorithm>
#include <string>

#include "stream/base/dbg/Log.h"
#include "stream/base/io/File.h"
#include "stream/base/io/IUrl.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::IOIntWriter;

namespace {

const ChunkParam kNoRecord{};

void PatchCount(IO& io, long long countPos, uint32_t num) {
  IOIntWriter(io).Write32be(num, countPos, kiv::Position::front);
}

// Adds a shift to every chunk offset of a table written in io, which stands at the box's start.
// The blocks are counted in table bytes but read from the box's start, so a table that fills its
// blocks exactly keeps its last header's worth of bytes unshifted; the caller places the stream. The
// blocks never reach behind the box.
template <class Entry>
bool ShiftOffsets(const IBox& box, const AttrSet& ap) {
  constexpr unsigned kEntry = sizeof(Entry);
  void* pio = nullptr;
  if (!ap.Get("io", pio)) {
    LOGE << "!ap.Get(\"io\",pio)";
    return false;
  }
  if (!pio) {
    LOGE << "!pio";
    return false;
  }
  IO& io = *static_cast<IO*>(pio);
  long long shiftOffset = 0;
  if (!ap.Get("shift_offset", shiftOffset)) {
    LOGE << "!ap.Get(\"shift_offset\",shiftOffset)";
    return false;
  }

  const unsigned header = box.Size() == 1 ? 24 : 16;
  const unsigned long long boxBytes = box.RealSize();
  if (boxBytes <= header) return true;
  const unsigned long long table = boxBytes - header;

  const char* url = io.URL();
  const unsigned cluster = GetClusterSize(url ? kiv::base::IUrl::Path(url).c_str() : "");
  const unsigned long long blk = std::min<unsigned long long>(table, cluster) / kEntry * kEntry;
  if (blk == 0) return true;
  std::vector<unsigned char> block(static_cast<size_t>(blk));

  unsigned long long done = 0;
  unsigned long long consumed = 0;
  unsigned skip = header;
  do {
    const unsigned long long want = std::min(blk, boxBytes - consumed);
    if (want == 0) break;
    const long long got = io.Read(block.data(), static_cast<long long>(want));
    if (got <= 0) {
      LOGE << box.Name() << ": !io.Read at " << consumed;
      break;
    }
    for (unsigned long long p = skip; p + kEntry <= static_cast<unsigned long long>(got); p += kEntry) {
      unsigned char* e = block.data() + p;
      Entry v = 0;
      for (unsigned k = 0; k < kEntry; ++k) v = static_cast<Entry>((v << 8) | e[k]);
      v = static_cast<Entry>(v + static_cast<Entry>(shiftOffset));
      for (unsigned k = 0; k < kEntry; ++k) e[k] = static_cast<unsigned char>(v >> (8 * (kEntry - 1 - k)));
    }
    skip = 0;
    io.Seek(-got, kiv::Position::current);
    io.Write(block.data(), got);
    io.Flush();
    done += static_cast<unsigned long long>(got);
    consumed += static_cast<unsigned long long>(got);
  } while (done < table);
  return true;
}

}  // namespace

// ============================================================ IStblFile

const ChunkParam& IStblFile::lastOf(const std::vector<ChunkParam>* list) {
  if (list && !list->empty()) return list->back();
  LOGE << "!list || list->empty()";
  return kNoRecord;
}

const ChunkParam& IStblFile::firstOf(const std::vector<ChunkParam>* list) {
  if (list && !list->empty()) return list->front();
  LOGE << "!list || list->empty()";
  return kNoRecord;
}

void IStblFile::copyTable(IO& out) {
  if (_io->HasFileData()) {
    out.Copy(*_io);
    return;
  }
  if (auto* buffer = dynamic_cast<kiv::base::IOBuffer*>(_io)) {
    out.Write(buffer->Data(), buffer->Size());
    return;
  }
  // No memory buffer and no file of its own: the stream can still be read through.
  LOGE << "!dynamic_cast<IOFileBuffer*>(_io)";
  out.Copy(*_io);
}

// ============================================================ stts

cstts_file::cstts_file(IO& io) : TStblFile(io) {}
cxstts_file::cxstts_file(IO& io) : cstts_file(io) { _unitRun = true; }

void cstts_file::begin() {
  writeHeader();
  _last = 0;
  _run = 0;
}

void cstts_file::fill(IO&, std::vector<ChunkParam>* list) {
  const ChunkParam& r = lastOf(list);
  if (_first) begin();
  _current = r.duration;
  if (_current != _last) {
    ++_num;
    if (_run) {
      _total_samples += _run;
      IOIntWriter w(*_io);
      w.Write32be(_run);
      w.Write32be(_last);
      _run = 0;
    }
  }
  _run += _unitRun ? 1 : r.count;
  _last = _current;
}

void cstts_file::fillFinal(IO&) {
  if (_first) begin();
  if (_run) {
    _total_samples += _run;
    IOIntWriter w(*_io);
    w.Write32be(_run);
    w.Write32be(_last);
    _run = 0;
  }
  PatchCount(*_io, _countPos, _num);
  _io->Flush();
}

// ============================================================ ctts

cctts_file::cctts_file(IO& io) : TStblFile(io) {}

void cctts_file::begin() {
  writeHeader();
  _acc = 0;
  _seen = 0;
}

void cctts_file::fill(IO&, std::vector<ChunkParam>* list) {
  const ChunkParam& r = lastOf(list);
  if (_first) begin();
  _acc += r.duration;
  // A trailing group of one or two records writes nothing.
  if (++_seen % 3) return;
  IOIntWriter w(*_io);
  w.Write32be(1);
  w.Write32be(_acc);
  w.Write32be(2);
  w.Write32be(0);
  _num += 2;
  _acc = 0;
}

void cctts_file::fillFinal(IO&) {
  if (_first) begin();
  PatchCount(*_io, _countPos, _num);
  _io->Flush();
}

// ============================================================ stsc

cstsc_file::cstsc_file(IO& io) : TStblFile(io) {}

void cstsc_file::begin() {
  writeHeader();
  _chunk = 1;
  _idx = 0;
  _end = 0;
  _lastCount = 0;
  _lastDesc = 0;
}

void cstsc_file::fill(IO&, std::vector<ChunkParam>* list) {
  const ChunkParam& r = lastOf(list);
  if (_first) begin();
  ++_idx;
  if (_end < _idx) _end += r.count;
  if (r.count != _lastCount || r.descIndex != _lastDesc) {
    ++_num;
    IOIntWriter w(*_io);
    w.Write32be(_chunk);
    w.Write32be(r.count);
    w.Write32be(r.descIndex);
    _lastCount = r.count;
    _lastDesc = r.descIndex;
  }
  if (_end == _idx) ++_chunk;
}

void cstsc_file::fillFinal(IO&) {
  if (_first) begin();
  PatchCount(*_io, _countPos, _num);
  _io->Flush();
}

// ============================================================ stsz

cstsz_file::cstsz_file(IO& io) : TStblFile(io) {}

void cstsz_file::begin(const std::vector<ChunkParam>* list) {
  _first = false;
  _num = 0;
  IMoov::fill(*_io);
  IOIntWriter w(*_io);
  w.Write32be(_size);
  _countPos = _io->Position();
  if (_size && list && !list->empty()) _firstSize = list->front().size;
  w.Write32be(list && !list->empty() ? 1 : 0);  // the count so far; patched at the end
}

void cstsz_file::fill(IO&, std::vector<ChunkParam>* list) {
  const ChunkParam& r = firstOf(list);
  if (_first) begin(list);
  ++_num;
  if (!_size) IOIntWriter(*_io).Write32be(r.size);
}

void cstsz_file::fillFinal(IO&) {
  if (_first) begin(nullptr);
  // With a uniform size the count is records times the first record's sample frames.
  if (_size) _num *= _firstSize;
  _firstSize = 1;  // a second final pass leaves the count as it is
  PatchCount(*_io, _countPos, _num);
  _io->Flush();
}

// ============================================================ stco, co64

cstco_file::cstco_file(IO& io) : TStblFile(io) {}
cco64_file::cco64_file(IO& io) : TStblFile(io) {}

void cstco_file::begin() {
  writeHeader();
  _real = 0;
}

void cco64_file::begin() {
  writeHeader();
  _real = 0;
}

void cstco_file::fill(IO&, std::vector<ChunkParam>* list) {
  const ChunkParam& r = lastOf(list);
  if (_first) begin();
  ++_num;
  if (!r.offset) return;
  IOIntWriter(*_io).Write32be(static_cast<uint32_t>(r.offset));
  ++_real;
}

void cco64_file::fill(IO&, std::vector<ChunkParam>* list) {
  const ChunkParam& r = lastOf(list);
  if (_first) begin();
  ++_num;
  if (!r.offset) return;
  IOIntWriter(*_io).Write64be(r.offset);
  ++_real;
}

// The box's _num counts records; the file holds the offsets really written.
void cstco_file::fillFinal(IO&) {
  if (_first) begin();
  PatchCount(*_io, _countPos, _real);
  _io->Flush();
}

void cco64_file::fillFinal(IO&) {
  if (_first) begin();
  PatchCount(*_io, _countPos, _real);
  _io->Flush();
}

bool cstco_file::fromAttrSet(const AttrSet& ap) { return ShiftOffsets<uint32_t>(*this, ap); }
bool cco64_file::fromAttrSet(const AttrSet& ap) { return ShiftOffsets<uint64_t>(*this, ap); }

// ============================================================ stss

cstss_file::cstss_file(IO& io) : TStblFile(io) {}

void cstss_file::begin() {
  writeHeader();
  _index = 0;
}

void cstss_file::fill(IO&, std::vector<ChunkParam>* list) {
  const ChunkParam& r = lastOf(list);
  if (_first) begin();
  ++_index;
  if (!(r.flags & 1)) return;
  IOIntWriter(*_io).Write32be(_index);
  ++_num;
}

void cstss_file::fillFinal(IO&) {
  if (_first) begin();
  PatchCount(*_io, _countPos, _num);
  _io->Flush();
}

// ============================================================ sdtp

csdtp_file::csdtp_file(IO& io) : TStblFile(io) {}

void csdtp_file::begin() {
  _first = false;
  IMoov::fill(*_io);
}

void csdtp_file::fill(IO&, std::vector<ChunkParam>* list) {
  const ChunkParam& r = lastOf(list);
  if (_first) begin();
  IOIntWriter(*_io).Write8(Flags(r));
}

void csdtp_file::fillFinal(IO&) {
  if (_first) begin();
  _io->Flush();
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
