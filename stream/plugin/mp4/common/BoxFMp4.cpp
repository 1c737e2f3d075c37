#include "stream/plugin/mp4/common/BoxFMp4.h"

#include <sstream>
#include <string>

#include "stream/base/Convert.h"
#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/common/BoxReader.h"
#include "stream/plugin/mp4/common/BoxText.h"

namespace kiv {
namespace plugin {
namespace mov {
namespace fmp4 {

using kiv::base::Hex;
using kiv::base::IOIntReader;
using kiv::base::IOIntWriter;

namespace {

// A trun whose flags give its samples no field holds any count in no bytes; this many entries of zeros
// is more than one fragment of this system ever has.
constexpr unsigned kMaxBareSamples = 1u << 16;
// Entries shown when a box is printed.
constexpr size_t kShownEntries = 4;

// Version and flags, by the base's parse.
bool head(BoxReader& f, IMoov& box, IO& io) {
  if (!f.Has(4)) {
    LOGE << box.Name() << ": no room for version and flags";
    return false;
  }
  return box.IMoov::parse(io);
}

// A count of entries of `each` bytes, cut to what `left` bytes hold.
unsigned fitCount(const IBox& box, const char* what, unsigned count, unsigned each, long long left) {
  if (each == 0 || left < 0) return count;
  const unsigned long long fit = static_cast<unsigned long long>(left) / each;
  if (count <= fit) return count;
  LOGE << box.Name() << ": " << what << "*" << each << ">" << left << ", " << count << " clamped to " << fit;
  return static_cast<unsigned>(fit);
}

// The first few entries of a list and the number of the others.
template <class List, class Print>
std::string shortList(const List& list, Print print) {
  std::ostringstream os;
  size_t i = 0;
  for (const auto& e : list) {
    if (i == kShownEntries) break;
    if (i++) os << ' ';
    print(os, e);
  }
  if (list.size() > kShownEntries) os << " ...(+" << list.size() - kShownEntries << ")";
  return os.str();
}

}  // namespace

// ---- cfmp4

cfmp4::cfmp4() : IBox("mfp4", 0) {}

long long cfmp4::Fill(IO& io, bool recurse) {
  const long long offset = io.Position();
  Offset(offset);
  if (recurse)
    for (IBox* c = _child; c; c = c->Next()) c->Fill(io, true);
  return io.Position() - offset;
}

void cfmp4::fill(IO&) {}

bool cfmp4::parse(IO& io) {
  const long long size = io.Size();
  _size = size > 0 ? static_cast<unsigned long long>(size) : 0;
  return true;
}

bool cfmp4::Parse(IO& io, AttrSet& ap, bool recurse) {
  ChildWalk walk;
  walk.stopAtMoof = true;
  // The header is counted before it is read, so a box that ends exactly at the end stops the walk.
  walk.headerCounted = true;
  walk.sizeHint = false;
  walk.depthLimited = false;
  walk.spansStream = true;
  return parseWalk(io, ap, recurse, walk);
}

// ---- containers

cmoof::cmoof() : IBox("moof", 0) {}
ctraf::ctraf() : IBox("traf", 0) {}
cmfra::cmfra() : IBox("mfra", 0) {}

// ---- mfhd

cmfhd::cmfhd(unsigned int sequenceNumber) : IMoov("mfhd", 0), _sequence_number(sequenceNumber) {
  _statistics_size += 4;
}

void cmfhd::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter(io).Write32be(_sequence_number);
}

bool cmfhd::parse(IO& io) {
  BoxReader f(io, *this, BoxReader::Rest::skip);
  if (!head(f, *this, io)) return false;
  _sequence_number = f.U32("_sequence_number");
  return !f.Short();
}

void cmfhd::update() { ++_sequence_number; }

void cmfhd::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("sequence_number", _sequence_number);
}

// ---- tfhd

ctfhd::ctfhd(unsigned int duration, bool withFlags)
    : IMoov("tfhd", 0),
      _default_sample_duration(duration),
      _default_sample_flags(withFlags ? 0x1010000u : 0u) {
  _flags = withFlags ? 0x20028u : 0x20008u;
}

ctfhd::ctfhd(unsigned int trackId) : IMoov("tfhd", 0), _track_id(trackId) {}

unsigned long long ctfhd::statisticsSize() const {
  unsigned long long n = IMoov::statisticsSize() + 4;
  if (_flags & kBaseDataOffset) n += 8;
  if (_flags & kSampleDescriptionIndex) n += 4;
  if (_flags & kDefaultSampleDuration) n += 4;
  if (_flags & kDefaultSampleSize) n += 4;
  if (_flags & kDefaultSampleFlags) n += 4;
  return n;
}

void ctfhd::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter w(io);
  w.Write32be(_track_id);
  if (_flags & kBaseDataOffset) w.Write64be(_base_data_offset);
  if (_flags & kSampleDescriptionIndex) w.Write32be(_sample_description_index);
  if (_flags & kDefaultSampleDuration) w.Write32be(_default_sample_duration);
  if (_flags & kDefaultSampleSize) w.Write32be(_default_sample_size);
  if (_flags & kDefaultSampleFlags) w.Write32be(_default_sample_flags);
}

bool ctfhd::parse(IO& io) {
  BoxReader f(io, *this, BoxReader::Rest::skip);
  if (!head(f, *this, io)) return false;
  _track_id = f.U32("_track_id");
  _base_data_offset = _flags & kBaseDataOffset ? f.U64("_base_data_offset") : 0;
  _sample_description_index = _flags & kSampleDescriptionIndex ? f.U32("_sample_description_index") : 0;
  _default_sample_duration = _flags & kDefaultSampleDuration ? f.U32("_default_sample_duration") : 0;
  _default_sample_size = _flags & kDefaultSampleSize ? f.U32("_default_sample_size") : 0;
  _default_sample_flags = _flags & kDefaultSampleFlags ? f.U32("_default_sample_flags") : 0;
  return !f.Short();
}

void ctfhd::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("flags", HexText(_flags));
  out.SetOrAdd("track_id", _track_id);
  if (_flags & kBaseDataOffset) out.SetOrAdd("base_data_offset", _base_data_offset);
  if (_flags & kSampleDescriptionIndex) out.SetOrAdd("sample_description_index", _sample_description_index);
  if (_flags & kDefaultSampleDuration) out.SetOrAdd("default_sample_duration", _default_sample_duration);
  if (_flags & kDefaultSampleSize) out.SetOrAdd("default_sample_size", _default_sample_size);
  if (_flags & kDefaultSampleFlags) out.SetOrAdd("default_sample_flags", HexText(_default_sample_flags));
}

// ---- tfdt

ctfdt::ctfdt(unsigned char version) : IMoov("tfdt", version) { _statistics_size += version == 1 ? 8 : 4; }

void ctfdt::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter w(io);
  if (_version == 1)
    w.Write64be(_base_media_decode_time);
  else
    w.Write32be(static_cast<uint32_t>(_base_media_decode_time));
}

bool ctfdt::parse(IO& io) {
  BoxReader f(io, *this, BoxReader::Rest::skip);
  if (!head(f, *this, io)) return false;
  _base_media_decode_time = _version == 1 ? f.U64("_base_media_decode_time") : f.U32("_base_media_decode_time");
  return !f.Short();
}

void ctfdt::update() {}

void ctfdt::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("base_media_decode_time", _base_media_decode_time);
}

// ---- trun

namespace {

// Bytes each sample takes in the box with these flags.
unsigned trunSampleBytes(unsigned flags) {
  unsigned n = 0;
  if (flags & ctrun::kSampleDuration) n += 4;
  if (flags & ctrun::kSampleSize) n += 4;
  if (flags & ctrun::kSampleFlags) n += 4;
  if (flags & ctrun::kSampleCompositionOffset) n += 4;
  return n;
}

}  // namespace

ctrun::ctrun() : IMoov("trun", 0) {}

unsigned long long ctrun::statisticsSize() const {
  unsigned long long n = IMoov::statisticsSize() + 4;
  if (_flags & kDataOffset) n += 4;
  if (_flags & kFirstSampleFlags) n += 4;
  return n + static_cast<unsigned long long>(trunSampleBytes(_flags)) * _items.size();
}

void ctrun::fill(IO& io) {
  _sample_count = static_cast<unsigned int>(_items.size());
  IMoov::fill(io);
  IOIntWriter w(io);
  w.Write32be(_sample_count);
  if (_flags & kDataOffset) w.Write32be(_data_offset);
  if (_flags & kFirstSampleFlags) w.Write32be(_first_sample_flags);
  for (const Item& it : _items) {
    if (_flags & kSampleDuration) w.Write32be(it.duration);
    if (_flags & kSampleSize) w.Write32be(it.size);
    if (_flags & kSampleFlags) w.Write32be(it.flags);
    if (_flags & kSampleCompositionOffset) w.Write32be(it.composition_offset);
  }
  _items.clear();
}

bool ctrun::parse(IO& io) {
  _items.clear();
  _sample_count = 0;
  BoxReader f(io, *this, BoxReader::Rest::skip);
  if (!head(f, *this, io)) return false;
  unsigned count = f.U32("_sample_count");
  _data_offset = _flags & kDataOffset ? f.U32("_data_offset") : 0;
  _first_sample_flags = _flags & kFirstSampleFlags ? f.U32("_first_sample_flags") : 0;
  if (f.Short()) count = 0;

  const unsigned each = trunSampleBytes(_flags);
  count = fitCount(*this, "_sample_count", count, each, f.Left());
  if (each == 0 && count > kMaxBareSamples) {
    LOGE << Name() << ": _sample_count>" << kMaxBareSamples << ", " << count << " clamped";
    count = kMaxBareSamples;
  }
  _sample_count = count;
  _items.reserve(count);
  for (unsigned i = 0; i < count; ++i) {
    Item it{0, 0, 0, 0};
    if (_flags & kSampleDuration) it.duration = f.U32("sample_duration");
    if (_flags & kSampleSize) it.size = f.U32("sample_size");
    if (_flags & kSampleFlags) it.flags = f.U32("sample_flags");
    if (_flags & kSampleCompositionOffset) it.composition_offset = f.U32("sample_composition_time_offset");
    _items.push_back(it);
  }
  if (Debug()) LOGL << Name() << ": " << count << " samples, data offset " << _data_offset;
  return !f.Short();
}

bool ctrun::parseFinal() { return true; }

void ctrun::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("flags", HexText(_flags));
  out.SetOrAdd("sample_count", _sample_count);
  if (_flags & kDataOffset) out.SetOrAdd("data_offset", _data_offset);
  if (_flags & kFirstSampleFlags) out.SetOrAdd("first_sample_flags", HexText(_first_sample_flags));
  if (_items.empty() || trunSampleBytes(_flags) == 0) return;
  // Only the members the box holds, joined by '/', in file order.
  const unsigned flags = _flags;
  out.SetOrAdd("samples", shortList(_items, [flags](std::ostream& os, const Item& it) {
                 const char* sep = "";
                 if (flags & kSampleDuration) {
                   os << sep << it.duration;
                   sep = "/";
                 }
                 if (flags & kSampleSize) {
                   os << sep << it.size;
                   sep = "/";
                 }
                 if (flags & kSampleFlags) {
                   os << sep << Hex(it.flags);
                   sep = "/";
                 }
                 if (flags & kSampleCompositionOffset) os << sep << it.composition_offset;
               }));
}

// ---- tfra

namespace {
constexpr unsigned kTfraEntryBytes = 11;
constexpr uint32_t kTfraNumbers = 0x010101;  // traf, trun and sample number, one byte each
}  // namespace

ctfra::ctfra() : IMoov("tfra", 0) {}

ctfra::ctfra(unsigned char version, unsigned int num, unsigned int* items)
    : IMoov("tfra", version), _num(num), _items(items) {
  _statistics_size += static_cast<unsigned long long>(kTfraEntryBytes) * num + 12;
}

void ctfra::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter w(io);
  w.Write32be(_track_id);
  w.Write32be(_length_sizes);
  // A box read from a file has no outside array: it writes what it read.
  const unsigned num = _items ? _num : static_cast<unsigned>(_entries.size());
  w.Write32be(num);
  for (unsigned i = 0; i < num; ++i) {
    w.Write32be(_items ? _items[2 * static_cast<size_t>(i)] : _entries[i].first);
    w.Write32be(_items ? _items[2 * static_cast<size_t>(i) + 1] : _entries[i].second);
    w.Write24be(kTfraNumbers);
  }
}

bool ctfra::parse(IO& io) {
  _entries.clear();
  _items = nullptr;
  _num = 0;
  BoxReader f(io, *this, BoxReader::Rest::skip);
  if (!head(f, *this, io)) return false;
  _track_id = f.U32("_track_id");
  _length_sizes = f.U32("_length_sizes");
  unsigned num = f.U32("_num");
  if (f.Short()) num = 0;
  num = fitCount(*this, "_num", num, kTfraEntryBytes, f.Left());
  _entries.reserve(num);
  for (unsigned i = 0; i < num; ++i) {
    const unsigned time = f.U32("time");
    const unsigned offset = f.U32("moof_offset");
    f.U24("numbers");
    _entries.emplace_back(time, offset);
  }
  _num = num;
  return !f.Short();
}

bool ctfra::parseFinal() { return true; }

unsigned int ctfra::getEntryNum() const { return _num; }

void ctfra::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("track_id", _track_id);
  out.SetOrAdd("length_sizes", _length_sizes);
  out.SetOrAdd("entry_count", _num);
  if (!_entries.empty())
    out.SetOrAdd("entries", shortList(_entries, [](std::ostream& os, const Entry& e) {
                   os << e.first << "@" << e.second;
                 }));
}

// ---- mfro

cmfro::cmfro(unsigned char version) : IMoov("mfro", version) { _statistics_size += 4; }

void cmfro::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter(io).Write32be(_size);
}

bool cmfro::parse(IO& io) {
  BoxReader f(io, *this, BoxReader::Rest::skip);
  if (!head(f, *this, io)) return false;
  _size = f.U32("_size");
  return !f.Short();
}

bool cmfro::parseFinal() { return true; }

void cmfro::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("mfra_size", _size);
}

}  // namespace fmp4
}  // namespace mov
}  // namespace plugin
}  // namespace kiv
