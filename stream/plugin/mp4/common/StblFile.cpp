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

void IStblFile::finishTable(uint32_t count) {
  PatchCount(*_io, _countPos, count);
  _io->Flush();
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

namespace {
const auto kPut = [](BeOut& out, const auto& e) { out.put(e); };
const auto kPut32 = [](BeOut& out, uint32_t v) { out.u32(v); };
}  // namespace

cstts_file::cstts_file(IO& io) : TStblFile(io) {}
cxstts_file::cxstts_file(IO& io) : cstts_file(io) { _unitRun = true; }

void cstts_file::begin() {
  writeHeader();
  _rule = SttsRule(_unitRun);
}

void cstts_file::fill(IO&, std::vector<ChunkParam>* list) {
  const ChunkParam& r = lastOf(list);
  if (_first) begin();
  feed(_rule, r, kPut);
  _num = _rule.count();
  _total_samples = _rule.samples();
}

void cstts_file::fillFinal(IO&) {
  if (_first) begin();
  {
    BeOut out(*_io);
    _rule.finish([&](const SttsEntry& e) { out.put(e); });
  }
  _total_samples = _rule.samples();
  finishTable(_num = _rule.count());
}

// ============================================================ ctts

cctts_file::cctts_file(IO& io) : TStblFile(io) {}

void cctts_file::begin() {
  writeHeader();
  _rule = CttsRule();
}

void cctts_file::fill(IO&, std::vector<ChunkParam>* list) {
  const ChunkParam& r = lastOf(list);
  if (_first) begin();
  feed(_rule, r, kPut);
  _num = _rule.count();
}

// A torn group of one or two records is left out here, unlike in the whole-list table.
void cctts_file::fillFinal(IO&) {
  if (_first) begin();
  finishTable(_rule.count());
}

// ============================================================ stsc

cstsc_file::cstsc_file(IO& io) : TStblFile(io) {}

void cstsc_file::begin() {
  writeHeader();
  _rule = StscRule();
}

void cstsc_file::fill(IO&, std::vector<ChunkParam>* list) {
  const ChunkParam& r = lastOf(list);
  if (_first) begin();
  feed(_rule, r, kPut);
  _num = _rule.count();
}

void cstsc_file::fillFinal(IO&) {
  if (_first) begin();
  finishTable(_rule.count());
}

// ============================================================ stsz

cstsz_file::cstsz_file(IO& io) : TStblFile(io) {}

// The uniform size comes first, the count behind it.
void cstsz_file::begin() {
  _first = false;
  _num = 0;
  IMoov::fill(*_io);
  IOIntWriter w(*_io);
  w.Write32be(_size);
  _countPos = _io->Position();
  w.Write32be(0);
  _rule = StszRule(_size);
}

// The sample sizes take the list's first record.
void cstsz_file::fill(IO&, std::vector<ChunkParam>* list) {
  const ChunkParam& r = firstOf(list);
  if (_first) begin();
  feed(_rule, r, kPut32);
  _num = _rule.records();
}

void cstsz_file::fillFinal(IO&) {
  if (_first) begin();
  finishTable(_num = _rule.count());
}

// ============================================================ stco, co64

template <class Table, class Entry>
void TChunkOffsetFile<Table, Entry>::fill(IO&, std::vector<ChunkParam>* list) {
  const ChunkParam& r = this->lastOf(list);
  if (this->_first) {
    this->writeHeader();
    _rule = ChunkOffsetRule();
  }
  // "stco" keeps only the low 32 bits: a track that needs more writes "co64".
  this->feed(_rule, r, [](BeOut& out, uint64_t v) {
    if (sizeof(Entry) == 4)
      out.u32(static_cast<uint32_t>(v));
    else
      out.u64(v);
  });
  this->_num = _rule.records();
}

// The box's _num counts records; the file holds the offsets really written.
template <class Table, class Entry>
void TChunkOffsetFile<Table, Entry>::fillFinal(IO&) {
  if (this->_first) {
    this->writeHeader();
    _rule = ChunkOffsetRule();
  }
  this->finishTable(_rule.count());
}

template <class Table, class Entry>
bool TChunkOffsetFile<Table, Entry>::fromAttrSet(const AttrSet& ap) {
  return ShiftOffsets<Entry>(*this, ap);
}

template class TChunkOffsetFile<cstco, uint32_t>;
template class TChunkOffsetFile<cco64, uint64_t>;

// ============================================================ stss

cstss_file::cstss_file(IO& io) : TStblFile(io) {}

void cstss_file::begin() {
  writeHeader();
  _rule = StssRule();
}

void cstss_file::fill(IO&, std::vector<ChunkParam>* list) {
  const ChunkParam& r = lastOf(list);
  if (_first) begin();
  feed(_rule, r, kPut32);
  _num = _rule.count();
}

void cstss_file::fillFinal(IO&) {
  if (_first) begin();
  finishTable(_rule.count());
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
  IOIntWriter(*_io).Write8(SdtpRule::Byte(r));
}

void csdtp_file::fillFinal(IO&) {
  if (_first) begin();
  _io->Flush();
}

// ============================================================ kinds

const char* StblKindName(StblKind kind) {
  switch (kind) {
    case StblKind::stts: return "stts";
    case StblKind::ctts: return "ctts";
    case StblKind::stss: return "stss";
    case StblKind::sdtp: return "sdtp";
    case StblKind::stsc: return "stsc";
    case StblKind::stsz: return "stsz";
    case StblKind::stco: return "stco";
    case StblKind::co64: return "co64";
  }
  return "";
}

namespace {
template <class Plain, class OnFile>
IStbl* Make(IO* onFile) {
  if (onFile) return new OnFile(*onFile);
  return new Plain();
}
}  // namespace

IStbl* NewTable(StblKind kind, IO* onFile) {
  switch (kind) {
    case StblKind::stts: return Make<cxstts, cxstts_file>(onFile);
    case StblKind::ctts: return Make<cctts, cctts_file>(onFile);
    case StblKind::stss: return Make<cstss, cstss_file>(onFile);
    case StblKind::sdtp: return Make<csdtp, csdtp_file>(onFile);
    case StblKind::stsc: return Make<cstsc, cstsc_file>(onFile);
    case StblKind::stsz: return Make<cstsz, cstsz_file>(onFile);
    case StblKind::stco: return Make<cstco, cstco_file>(onFile);
    case StblKind::co64: return Make<cco64, cco64_file>(onFile);
  }
  return nullptr;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
