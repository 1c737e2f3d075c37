#include "stream/plugin/mp4/common/Stbl.h"

#include <algorithm>
#include <climits>
#include <string>

#include "stream/base/Helpers.h"
#include "stream/base/dbg/Log.h"
#include "stream/base/reflect/IClass.h"
#include "stream/plugin/mp4/common/BoxReader.h"
#include "stream/plugin/mp4/common/BoxText.h"
#include "stream/plugin/mp4/common/StblRules.h"
#include "stream/plugin/mp4/common/Stsd.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::IOIntReader;
using kiv::base::IOIntWriter;
using kiv::base::Object;

namespace {

// A count read from the file never asks for more entries than the box's bytes hold, nor for more
// than a list may hold records: a sparse file holds gigabytes of table that cost it nothing.
uint32_t ClampCount(BoxReader& in, IStbl& box, uint32_t num, unsigned entryBytes) {
  box._refused = false;
  const unsigned long long fit = static_cast<unsigned long long>(in.Left()) / entryBytes;
  if (num > fit) {
    LOGE << box.Name() << ": _num " << num << " > " << fit << ", the entries the box holds";
    num = static_cast<uint32_t>(fit);
  }
  if (num > cstbl::kMaxListRecords) {
    LOGE << box.Name() << ": _num " << num << " > " << cstbl::kMaxListRecords
         << ", the records a list may hold in memory";
    box._refused = true;
    return 0;
  }
  return num;
}

// Reads n entries of entryBytes each, block by block, handing each entry's bytes to decode. Entries
// that do not come (a failing stream) are left as they are and reported.
template <class Decode>
bool ReadEntries(BoxReader& in, const IBox& box, unsigned long long n, unsigned entryBytes, Decode decode) {
  unsigned char buf[4080];  // a multiple of 4, 8 and 12
  const unsigned long long perBlock = sizeof buf / entryBytes;
  unsigned long long done = 0;
  while (done < n) {
    const unsigned long long want = std::min(perBlock, n - done);
    const long long got = in.Read(buf, static_cast<long long>(want * entryBytes));
    const unsigned long long whole = got > 0 ? static_cast<unsigned long long>(got) / entryBytes : 0;
    for (unsigned long long i = 0; i < whole; ++i) decode(buf + i * entryBytes);
    done += whole;
    if (whole < want) {
      LOGE << box.Name() << ": " << n - done << " entries not read";
      return false;
    }
  }
  return true;
}

// A table has no children: whatever follows its entries inside the box is passed over, so that the
// box walk does not take it for boxes.
class TableEnd {
 public:
  explicit TableEnd(BoxReader& in) : _in(in) {}
  ~TableEnd() { _in.SkipRest(); }
  TableEnd(const TableEnd&) = delete;
  TableEnd& operator=(const TableEnd&) = delete;

 private:
  BoxReader& _in;
};

template <class T>
void FreeItems(std::vector<T>& items) {
  std::vector<T>().swap(items);
}

// The first direct child with this code and class.
template <class T>
T* ChildOf(const IBox& box, unsigned fcc) {
  for (IBox* c = box.Child(); c; c = c->Next())
    if (c->FourCC() == fcc)
      if (T* t = dynamic_cast<T*>(c)) return t;
  return nullptr;
}

// The first entries of a table as text, for dumps; a long table ends in "...".
template <class T, class Fmt>
std::string ShortList(const std::vector<T>& items, Fmt fmt) {
  std::string s;
  const size_t show = std::min<size_t>(items.size(), 6);
  for (size_t i = 0; i < show; ++i) s += (i ? "," : "") + fmt(items[i]);
  if (items.size() > show) s += ",...";
  return s;
}

}  // namespace

// ============================================================ IStbl

IStbl::IStbl(const char* fcc) : IMoovList(fcc) {}
IStbl::IStbl(unsigned fcc) : IMoovList(fcc) {}

IStbl::~IStbl() { delete _parser; }

bool IStbl::parseFinal() { return true; }

std::vector<ChunkParam>* IStbl::ChunkList() const {
  if (cstbl* s = dynamic_cast<cstbl*>(Parent())) return s->ChunkList();
  return nullptr;
}

bool IStbl::Parse(IO& io, AttrSet& ap, bool flag) {
  bool ext = false;
  if (!ap.Get("stbl_extern_parser_en", ext) || !ext) return IBox::Parse(io, ap, flag);

  // Block-wise: the reader class is found by the keywords and this box's code, e.g.
  // mov-stbl-reader-extern-stts; it takes the table from the file itself.
  std::string prefix = "mov-stbl-reader";
  prefix += "-";
  prefix += ap.GetOrDef("stbl_extern_parser_keywords", "extern");
  prefix += "-";
  const std::string type = prefix + FCCString();

  delete _parser;
  _parser = nullptr;
  // A box without a class of its own ("sgpd" and "sbgp" of other recorders, "pasp" and "btrt" in a
  // sample entry) holds nothing that playing needs: the reader that reads nothing stands for it, as
  // for "sdtp".
  const bool fake = dynamic_cast<cfakebox*>(this) && !kiv::base::IClass::Find(type.c_str(), false);
  AttrSet na;
  Object::AttrSetInit(na, nullptr, fake ? (prefix + "fake").c_str() : type.c_str());
  _parser = Object::New<Object>(na);
  if (!_parser) {
    LOGE << "!_parser";
    return false;
  }

  ap.SetOrAdd<const void*>("stbl", static_cast<IStbl*>(this));
  ap.SetOrAdd<const void*>("io", &io);
  const bool ok = _parser->Set("init", ap);
  // The pointers are good only for this call.
  ap.Invalid("stbl");
  ap.Invalid("io");
  if (!ok) {
    LOGE << "!_parser->Set(\"init\",(AttrSet&)ap)";
    return false;
  }

  long long end = 0;
  if (!EndOf(_offset, RealSize(), end) || !io.Seek(end, kiv::Position::front)) {
    LOGE << "!io.Seek(_offset+RealSize(),Position::front)";
    return false;
  }
  return true;
}

// ============================================================ stbl

cstbl::cstbl(unsigned int capacity) : IBox("stbl", 0) { _list.reserve(capacity ? capacity : 4096); }

void cstbl::reset() { _list.clear(); }

bool cstbl::checkExternParserEnable(AttrSet& ap) {
  bool enable = false;
  if (!ap.Get("stbl_extern_parser_enable", enable) || !enable) return false;
  long long limit = 0x10000;
  if (!ap.Get("stbl_extern_parser_switch_stbl_size", limit)) limit = 0x10000;
  return static_cast<long long>(RealSize()) >= limit;
}

bool cstbl::Parse(IO& io, AttrSet& ap, bool flag) {
  _codec_fcc = 0;
  _frame_cnt = 0;
  _chunk_cnt = 0;
  _frame_with_chunk = false;
  _list.clear();

  const bool ext = checkExternParserEnable(ap);
  ap.SetOrAdd("stbl_extern_parser_en", ext);
  _keywords = ext ? ap.GetOrDef("stbl_extern_parser_keywords", "extern")
                  : ap.GetOrDef("stbl_inside_parser_keywords", "list");

  if (!IBox::Parse(io, ap, flag)) return false;

  if (!ap.Get("chunk_cnt", _chunk_cnt)) {
    LOGE << "!ap.Get(\"chunk_cnt\",_chunk_cnt)";
    return false;
  }
  ap.Invalid("chunk_cnt");
  if (!ap.Get("codec_fcc", _codec_fcc)) {
    LOGE << "!ap.Get(\"codec_fcc\",_codec_fcc)";
    return false;
  }
  ap.Invalid("codec_fcc");
  bool fwc = false;
  if (ap.Get("frame_with_chunk", fwc)) {
    _frame_with_chunk = fwc;
    ap.Invalid("frame_with_chunk");
  }

  // The tables stay in the file; the readers answer from there.
  if (ext) return true;
  for (IBox* c = Child(); c; c = c->Next()) {
    const IStbl* table = dynamic_cast<IStbl*>(c);
    if (table && table->_refused) {
      LOGE << "!stbl: " << table->Name() << " refused";
      return false;
    }
  }

  unsigned long long frames = _frame_with_chunk ? _chunk_cnt : getSampleCount();
  const unsigned long long limit = describedSamples(io);
  if (frames > limit) {
    LOGE << "samples " << frames << " > " << limit << ", what the tables describe";
    frames = limit;
  }
  if (frames > kMaxListRecords) {
    LOGE << "samples " << frames << " > " << kMaxListRecords << ", the records a list may hold in memory";
    return false;
  }
  _frame_cnt = static_cast<unsigned>(frames);
  _list.resize(_frame_cnt);

  for (IBox* c = Child(); c; c = c->Next()) {
    IStbl* stbl = dynamic_cast<IStbl*>(c);
    if (stbl && !stbl->parseFinal()) {
      LOGE << "!stbl->parseFinal()";
      return false;
    }
  }

  if (Debug())
    LOGL << "frames " << _frame_cnt << " chunks " << _chunk_cnt << (_frame_with_chunk ? " a frame a chunk" : "");
  if (_frame_with_chunk || _chunk_cnt == _frame_cnt) return true;
  if (!adjustChunkToFrame()) {
    LOGE << "!adjustChunkToFrame()";
    return false;
  }
  return true;
}

// The sample count that "stsc" gives is a product of numbers from the file. Every sample takes its
// size from "stsz": an entry of its table, or the uniform size, with the samples inside the file. A
// list longer than that (or than one record a chunk) is no list these tables describe.
unsigned long long cstbl::describedSamples(IO& io) {
  unsigned long long n = _chunk_cnt;
  if (const cstsz* sz = ChildOf<cstsz>(*this, FCC("stsz"))) {
    unsigned long long m = sz->Num();
    if (sz->_size) {
      const long long bytes = io.Size();
      m = std::min<unsigned long long>(m, bytes > 0 ? static_cast<unsigned long long>(bytes) / sz->_size : 0);
    }
    n = std::max(n, m);
  }
  return n;
}

unsigned cstbl::getChunkCount() {
  if (const cstco* co = ChildOf<cstco>(*this, FCC("stco"))) return co->Num();
  if (const cco64* co = ChildOf<cco64>(*this, FCC("co64"))) return co->Num();
  LOGE << "!stco";
  return 0;
}

unsigned long long cstbl::getSampleCount() {
  if (_chunk_cnt == 0) return 0;
  const cstsc* sc = ChildOf<cstsc>(*this, FCC("stsc"));
  if (!sc) {
    LOGE << "!stsc";
    return 0;
  }
  return sc->GetSampleNumber(static_cast<int>(std::min<unsigned>(_chunk_cnt, INT_MAX)));
}

bool cstbl::adjustChunkToFrame() {
  const size_t size = _list.size();
  if (_chunk_cnt == size) return true;
  if (_chunk_cnt > size) {
    LOGE << "chunk_num > _list.size() " << _chunk_cnt << " > " << size;
    return false;
  }

  // The first records hold the chunk offsets (a record index was a chunk index until now).
  std::vector<uint64_t> chunks(_chunk_cnt);
  for (size_t i = 0; i < _chunk_cnt; ++i) chunks[i] = _list[i].offset;

  size_t k = 0;  // next chunk
  bool short_of_chunks = false;
  for (size_t p = 0; p < size;) {
    uint64_t pos = 0;
    if (k < chunks.size()) {
      pos = chunks[k];
    } else {
      short_of_chunks = true;
    }
    ++k;
    ChunkParam& head = _list[p];
    if (head.count < 2) {
      head.offset = pos;
      ++p;
      continue;
    }
    // The samples of a chunk follow one another from the chunk's start.
    const uint32_t c = head.count;
    for (uint32_t j = 0; j < c && p < size; ++j, ++p) {
      _list[p].offset = pos;
      pos += _list[p].size;
      _list[p].count = 1;
    }
  }
  if (short_of_chunks) LOGE << "records behind chunk " << _chunk_cnt << " get offset 0";
  return true;
}

bool cstbl::toAttrSet(AttrSet& ap) const {
  ap.SetOrAdd("codec_fcc", _codec_fcc);
  ap.SetOrAdd("chunk_cnt", _chunk_cnt);
  ap.SetOrAdd("frame_cnt", _frame_cnt);
  ap.SetOrAdd("frame_with_chunk", _frame_with_chunk);
  ap.SetOrAdd("stbl_parser_keywords", _keywords);
  return IBox::toAttrSet(ap);
}

void cstbl::fields(AttrSet& out) const {
  IBox::fields(out);
  if (_codec_fcc) out.SetOrAdd("codec", FccText(static_cast<uint32_t>(_codec_fcc)));
  out.SetOrAdd("chunks", _chunk_cnt);
  out.SetOrAdd("frames", _frame_cnt);
  if (_frame_with_chunk) out.SetOrAdd("frame_with_chunk", true);
  if (!_keywords.empty()) out.SetOrAdd("parser", _keywords);
  out.SetOrAdd("records", static_cast<unsigned long long>(_list.size()));
  if (!_list.empty()) {
    // offset/size/duration/count/flags of the first records
    std::string s;
    const size_t show = std::min<size_t>(_list.size(), 4);
    for (size_t i = 0; i < show; ++i) {
      const ChunkParam& r = _list[i];
      s += (i ? "," : "") + std::to_string(r.offset) + "/" + std::to_string(r.size) + "/" +
           std::to_string(r.duration) + "/" + std::to_string(r.count) + "/" + std::to_string(r.flags);
    }
    if (_list.size() > show) s += ",...";
    out.SetOrAdd("list", s);
  }
}

// ============================================================ stts

cstts::cstts() : IStbl("stts") {}
cxstts::cxstts() { _unitRun = true; }

namespace {

// A table whose count sits right behind its header: the header, the entries that the rule gives for
// the whole list, then the count. Returns the finished rule.
template <class Rule, class Put>
Rule FillTable(IStbl& box, IO& io, Rule rule, Put put) {
  box.IMoovList::fill(io);
  const long long countPos = io.Position() - 4;
  {
    BeOut out(io);
    rule = RunRule(rule, box.ChunkList(), [&](const auto& e) { put(out, e); });
  }
  PatchCount(io, countPos, rule.count());
  return rule;
}

const auto kPut = [](BeOut& out, const auto& e) { out.put(e); };
const auto kPut32 = [](BeOut& out, uint32_t v) { out.u32(v); };

}  // namespace

void cstts::fill(IO& io) {
  const SttsRule rule = FillTable(*this, io, SttsRule(_unitRun), kPut);
  _num = rule.count();
  _total_samples += rule.samples();
}

unsigned long long cstts::statisticsSize() const {
  return IMoovList::statisticsSize() + SttsEntry::kBytes * EntriesOf(SttsRule(_unitRun), ChunkList());
}

bool cstts::parse(IO& io) {
  BoxReader in(io, *this);
  const bool head = IMoovList::parse(in);
  FreeItems(_items);
  _total_samples = 0;
  _total_duration = 0;
  _num = ClampCount(in, *this, _num, 8);
  TableEnd end(in);
  if (!_num) return head;
  _items.resize(_num);
  size_t i = 0;
  const bool ok = ReadEntries(in, *this, _num, 8, [&](const unsigned char* p) {
    Item& it = _items[i++];
    it.run = Read32BE(p);
    it.delta = Read32BE(p + 4);
    _total_samples += it.run;
    _total_duration += static_cast<uint32_t>(it.run * it.delta);  // a 32-bit product, as written
  });
  return head && ok;
}

bool cstts::parseFinal() {
  if (_items.empty()) return true;
  std::vector<ChunkParam>* list = ChunkList();
  if (!list) {
    LOGE << "!list";
    return false;
  }
  if (_items.size() < 2) {
    for (ChunkParam& r : *list) r.duration = _items[0].delta;
  } else {
    // Several entries give every sample the mean duration: readers see constant durations.
    if (!_total_samples) LOGE << "_total_samples==0";
    const uint32_t mean = _total_samples ? static_cast<uint32_t>(_total_duration / _total_samples) : 0;
    unsigned long long ii0 = 0;
    for (const Item& it : _items) {
      const unsigned long long ii1 = ii0 + it.run;
      if (ii1 > list->size()) {
        LOGE << "ii1 > list->size()";
        return false;
      }
      for (unsigned long long k = ii0; k < ii1; ++k) (*list)[k].duration = mean;
      ii0 = ii1;
    }
  }
  FreeItems(_items);
  return true;
}

void cstts::fields(AttrSet& out) const {
  IMoovList::fields(out);
  out.SetOrAdd("total_samples", _total_samples);
  if (_total_duration) out.SetOrAdd("total_duration", _total_duration);
  if (!_items.empty())
    out.SetOrAdd("items", ShortList(_items, [](const Item& it) {
                   return std::to_string(it.run) + "x" + std::to_string(it.delta);
                 }));
}

// ============================================================ ctts

cctts::cctts() : IStbl("ctts") {}

void cctts::fill(IO& io) {
  const CttsRule rule = FillTable(*this, io, CttsRule(), kPut);
  _num = rule.count();
  const std::vector<ChunkParam>* list = ChunkList();
  if (list && list->size() % 3)
    LOGE << "list->size() " << list->size() << " is no multiple of 3: the last group counts missing records as 0";
}

unsigned long long cctts::statisticsSize() const {
  return IMoovList::statisticsSize() + CttsEntry::kBytes * EntriesOf(CttsRule(), ChunkList());
}

bool cctts::parse(IO& io) {
  BoxReader in(io, *this);
  const bool head = IMoovList::parse(in);
  _num = ClampCount(in, *this, _num, 8);
  in.SkipRest();
  return head;
}

// ============================================================ stsc

cstsc::cstsc() : IStbl("stsc") {}

void cstsc::fill(IO& io) { _num = FillTable(*this, io, StscRule(), kPut).count(); }

unsigned long long cstsc::statisticsSize() const {
  return IMoovList::statisticsSize() + StscEntry::kBytes * EntriesOf(StscRule(), ChunkList());
}

bool cstsc::parse(IO& io) {
  BoxReader in(io, *this);
  const bool head = IMoovList::parse(in);
  FreeItems(_items);
  _num = ClampCount(in, *this, _num, 12);
  TableEnd end(in);
  if (!_num) return head;
  _items.resize(_num);
  size_t i = 0;
  const bool ok = ReadEntries(in, *this, _num, 12, [&](const unsigned char* p) {
    Item& it = _items[i++];
    it.first_chunk = Read32BE(p);
    it.samples_per_chunk = Read32BE(p + 4);
    it.desc_index = Read32BE(p + 8);
  });
  return head && ok;
}

unsigned long long cstsc::GetSampleNumber(int chunkCount) const {
  if (_items.empty()) {
    LOGE << "!_items";
    return 0;
  }
  StscSamples samples;
  for (const Item& it : _items) samples.add(it);
  return samples.total(chunkCount);
}

bool cstsc::parseFinal() {
  if (_items.empty()) return true;
  std::vector<ChunkParam>* list = ChunkList();
  if (!list) {
    LOGE << "!list";
    return false;
  }
  AttrSet ap;
  if (Parent()) Parent()->toAttrSet(ap);
  const bool frameWithChunk = ap.GetOrDef("frame_with_chunk", false);

  const size_t size = list->size();
  size_t p = 0;
  bool over = false;
  for (size_t i = 0; i < _items.size(); ++i) {
    const Item& it = _items[i];
    unsigned long long cnt = size - p;  // the last entry covers the records left
    if (i + 1 < _items.size()) {
      const uint32_t next = _items[i + 1].first_chunk;
      const unsigned long long chunks = next > it.first_chunk ? next - it.first_chunk : 0;
      cnt = frameWithChunk ? chunks : chunks * it.samples_per_chunk;
    }
    if (cnt > size - p) {
      over = true;
      cnt = size - p;
    }
    for (unsigned long long k = 0; k < cnt; ++k, ++p) {
      (*list)[p].count = it.samples_per_chunk;
      (*list)[p].descIndex = static_cast<uint8_t>(it.desc_index);
    }
  }
  if (over) LOGE << "stsc covers more records than the list's " << size;
  FreeItems(_items);
  return true;
}

void cstsc::fields(AttrSet& out) const {
  IMoovList::fields(out);
  if (!_items.empty())
    out.SetOrAdd("items", ShortList(_items, [](const Item& it) {
                   return std::to_string(it.first_chunk) + ":" + std::to_string(it.samples_per_chunk) + ":" +
                          std::to_string(it.desc_index);
                 }));
}

// ============================================================ stsz

cstsz::cstsz() : IStbl("stsz") { _statistics_size = 20; }

void cstsz::fill(IO& io) {
  // The uniform size comes first, the count behind it.
  IMoov::fill(io);
  BeOut out(io);
  out.u32(_size);
  out.u32(0);
  out.flush();
  const long long countPos = io.Position() - 4;
  const StszRule rule = RunRule(StszRule(_size), ChunkList(), [&](uint32_t size) { out.u32(size); });
  out.flush();
  _num = rule.count();
  PatchCount(io, countPos, _num);
}

unsigned long long cstsz::statisticsSize() const { return 20 + 4 * EntriesOf(StszRule(_size), ChunkList()); }

bool cstsz::parse(IO& io) {
  BoxReader in(io, *this);
  const bool head = IMoov::parse(in);
  IOIntReader r(in);
  _size = r.Read32be();
  _num = r.Read32be();
  FreeItems(_items);
  TableEnd end(in);
  if (!_num || _size) return head && !r.Failed();
  _num = ClampCount(in, *this, _num, 4);
  if (!_num) return false;
  _items.resize(_num);
  size_t i = 0;
  const bool ok = ReadEntries(in, *this, _num, 4, [&](const unsigned char* p) { _items[i++] = Read32BE(p); });
  return head && !r.Failed() && ok;
}

bool cstsz::parseFinal() {
  if (_num == 0) return true;
  std::vector<ChunkParam>* list = ChunkList();
  if (!list) {
    LOGE << "!list";
    return false;
  }
  if (!_items.empty()) {
    if (_items.size() > list->size()) {
      LOGE << "_num > list->size()";
      return false;
    }
    const size_t n = _items.size();
    for (size_t i = 0; i < n; ++i) (*list)[i].size = _items[i];
    for (size_t i = n; i < list->size(); ++i) (*list)[i].size = _items[n - 1];
    FreeItems(_items);
  } else {
    for (ChunkParam& r : *list) r.size = _size;
  }
  return true;
}

void cstsz::fields(AttrSet& out) const {
  IMoovList::fields(out);
  out.SetOrAdd("sample_size", _size);
  if (!_items.empty())
    out.SetOrAdd("items", ShortList(_items, [](uint32_t v) { return std::to_string(v); }));
}

// ============================================================ stco, co64

cstco::cstco() : IStbl("stco") {}
cco64::cco64() : IStbl("co64") {}

namespace {

// Offsets into the first records: at this point a record index is a chunk index.
template <class T>
bool OffsetsToList(IStbl& box, std::vector<T>& items) {
  if (box.Num() == 0) return true;
  std::vector<ChunkParam>* list = box.ChunkList();
  if (!list) {
    LOGE << "!list";
    return false;
  }
  if (box.Num() > list->size()) {
    LOGE << "_num>list->size()" << box.Num();
    return false;
  }
  for (size_t i = 0; i < items.size(); ++i) (*list)[i].offset = items[i];
  FreeItems(items);
  return true;
}

}  // namespace

// The box keeps the number of records as its count; only the file holds the number of offsets.
void cstco::fill(IO& io) {
  // Only the low 32 bits: a track that needs more writes "co64".
  const auto put = [](BeOut& out, uint64_t v) { out.u32(static_cast<uint32_t>(v)); };
  _num = FillTable(*this, io, ChunkOffsetRule(), put).records();
}

void cco64::fill(IO& io) {
  _num = FillTable(*this, io, ChunkOffsetRule(), [](BeOut& out, uint64_t v) { out.u64(v); }).records();
}

unsigned long long cstco::statisticsSize() const { return 16 + 4 * EntriesOf(ChunkOffsetRule(), ChunkList()); }
unsigned long long cco64::statisticsSize() const { return 16 + 8 * EntriesOf(ChunkOffsetRule(), ChunkList()); }

bool cstco::parse(IO& io) {
  BoxReader in(io, *this);
  const bool head = IMoovList::parse(in);
  FreeItems(_items);
  _num = ClampCount(in, *this, _num, 4);
  TableEnd end(in);
  bool ok = true;
  if (_num) {
    _items.resize(_num);
    size_t i = 0;
    ok = ReadEntries(in, *this, _num, 4, [&](const unsigned char* p) { _items[i++] = Read32BE(p); });
  }
  if (_parse_ap) _parse_ap->SetOrAdd("chunk_cnt", _num);
  return head && ok;
}

bool cco64::parse(IO& io) {
  BoxReader in(io, *this);
  const bool head = IMoovList::parse(in);
  FreeItems(_items);
  _num = ClampCount(in, *this, _num, 8);
  TableEnd end(in);
  bool ok = true;
  if (_num) {
    _items.resize(_num);
    size_t i = 0;
    ok = ReadEntries(in, *this, _num, 8, [&](const unsigned char* p) { _items[i++] = Read64BE(p); });
  }
  if (_parse_ap) _parse_ap->SetOrAdd("chunk_cnt", _num);
  return head && ok;
}

bool cstco::parseFinal() { return OffsetsToList(*this, _items); }
bool cco64::parseFinal() { return OffsetsToList(*this, _items); }

// ============================================================ stss

cstss::cstss() : IStbl("stss") {}

void cstss::fill(IO& io) { _num = FillTable(*this, io, StssRule(), kPut32).count(); }

unsigned long long cstss::statisticsSize() const { return 16 + 4 * EntriesOf(StssRule(), ChunkList()); }

bool cstss::parse(IO& io) {
  BoxReader in(io, *this);
  const bool head = IMoovList::parse(in);
  FreeItems(_items);
  _num = ClampCount(in, *this, _num, 4);
  TableEnd end(in);
  if (!_num) return head;
  _items.resize(_num);
  size_t i = 0;
  const bool ok = ReadEntries(in, *this, _num, 4, [&](const unsigned char* p) { _items[i++] = Read32BE(p); });
  return head && ok;
}

bool cstss::parseFinal() {
  if (_num == 0) return true;
  std::vector<ChunkParam>* list = ChunkList();
  if (_items.empty() || !list) {
    LOGE << "!_items || !list";
    return false;
  }
  size_t outside = 0;
  for (uint32_t e : _items) {
    if (e == 0 || e > list->size()) {
      ++outside;
      continue;
    }
    (*list)[e - 1].flags |= 1;
  }
  if (outside) LOGE << outside << " sync samples outside the list's " << list->size();
  FreeItems(_items);
  return true;
}

// ============================================================ sdtp

csdtp::csdtp() : IStbl("sdtp") { _statistics_size = 12; }

void csdtp::fill(IO& io) {
  IMoov::fill(io);
  BeOut out(io);
  RunRule(SdtpRule(), ChunkList(), [&](uint8_t b) { out.u8(b); });
}

unsigned long long csdtp::statisticsSize() const { return 12 + EntriesOf(SdtpRule(), ChunkList()); }

// Nothing is read: the dependency flags of a read file do not reach the list.
bool csdtp::parse(IO& io) {
  BoxReader in(io, *this);
  in.SkipRest();
  return true;
}

// ============================================================ cfakebox

cfakebox::cfakebox(unsigned fcc) : IStbl(fcc) {
  // What fill writes: a bare header, or a 12-byte full box for "url ".
  _statistics_size = fcc == FCC("url ") ? 12 : 8;
}

void cfakebox::fill(IO& io) {
  if (_fourcc == FCC("url ")) {
    // A data reference with flag 1: the media is in this same file.
    _version = 0;
    _flags = 1;
    IMoov::fill(io);
    return;
  }
  IBox::fill(io);
}

bool cfakebox::parse(IO& io) {
  // Nothing of the body is read; the box ends where its size says, or at the end of the file.
  const long long header = PayloadOffset();
  _offset = io.Position() - header;
  const unsigned long long n = std::max<unsigned long long>(RealSize(), static_cast<unsigned long long>(header));
  const long long r = io.Size() - _offset;
  long long span = 0;
  if (r > 0) span = n < static_cast<unsigned long long>(r) ? static_cast<long long>(n) : r;
  const long long step = span - header;
  if (step > 0 && !io.Seek(step, kiv::Position::current)) {
    LOGE << "!io.Seek(step, Position::current)";
    return false;
  }
  return true;
}

void cfakebox::fields(AttrSet& out) const { IBox::fields(out); }

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
