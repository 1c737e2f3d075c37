#include "stream/plugin/mp4/demux/extern/StblParser.h"

#include <algorithm>
#include <climits>

#include "stream/base/AttrSet.h"
#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "stream/plugin/mp4/demux/extern/stbl/StscReader.h"
#include "stream/plugin/mp4/demux/extern/stbl/StszReader.h"
#include "stream/plugin/mp4/demux/extern/stbl/SttsReader.h"

namespace kiv {
namespace plugin {
namespace mov {

using Item = IStblReader::Item;

namespace {
// A frame larger than a packet can be is no frame; its read fails later, not the walk.
int32_t FrameBytes(unsigned long long size) { return size > 0x7fffffff ? 0x7fffffff : static_cast<int32_t>(size); }
}  // namespace

bool StblParser::Init(IBox* box) {
  kiv::base::AttrSet ap;
  if (!box || !box->toAttrSet(ap)) {
    LOGE << "!box0->To(ap)";
    return false;
  }
  _chunk_cnt = ap.GetOrDef("chunk_cnt", 0);
  _frame_is_sample = !ap.GetOrDef("frame_with_chunk", false);
  _parsers.clear();
  for (IBox* c = box->Child(); c; c = c->Next()) {
    auto* table = dynamic_cast<IStbl*>(c);
    auto* reader = table ? dynamic_cast<IStblReader*>(table->Parser()) : nullptr;
    if (!reader) continue;
    _parsers.push_back(reader);
    switch (c->FourCC()) {
      case FCC("stss"): _stssparser = reader; break;
      case FCC("stsc"): _stscparser = reader, _stsc = dynamic_cast<StscReader*>(reader); break;
      case FCC("stco"):
      case FCC("co64"): _stcoparser = reader; break;
      case FCC("stts"): _sttsparser = reader, _stts = dynamic_cast<SttsReader*>(reader); break;
      case FCC("stsz"): _stszparser = reader, _stsz = dynamic_cast<StszReader*>(reader); break;
      case FCC("ctts"): _cttsparser = reader; break;
      default: break;
    }
  }
  // stsc first, then the chunk offsets, then the rest in box order.
  std::stable_sort(_parsers.begin(), _parsers.end(),
                   [](const IStblReader* a, const IStblReader* b) { return a->Order() < b->Order(); });
  _item = Item();
  _last_sample = 0;
  return true;
}

bool StblParser::Parse(Item& item) {
  item.is_key = true;
  for (IStblReader* parser : _parsers)
    if (!parser->Parse(item)) {
      LOGE << "!parser->Parse(item)" << " " << (parser->Box() ? parser->Box()->Name() : "");
      return false;
    }
  return true;
}

void StblParser::SetFrameIndex(Item& item, int idx) const {
  if (_frame_is_sample) {
    item.sample = static_cast<uint32_t>(idx) + 1;
    item.chunk = 0;
  } else {
    item.chunk = static_cast<uint32_t>(idx) + 1;
    item.sample = 0;
  }
}

long long StblParser::getFrameIndex(const Item& item) const {
  return static_cast<long long>(_frame_is_sample ? item.sample : item.chunk) - 1;
}

unsigned long long StblParser::xSampleNum(const Item& item, unsigned long long value) const {
  if (_frame_is_sample || item.samples_per_chunk == 1) return value;
  return value * item.samples_per_chunk;
}

bool StblParser::beyond(int idx) {
  if (idx >= 0 && idx < GetFrameCount()) return false;
  LOGE << "idx>=GetFrameCount()" << " idx=" << idx << " samples=" << _sample_cnt;
  return true;
}

bool StblParser::GetFrame(int idx, FrameInfo& frm) {
  if (beyond(idx)) return false;
  if (getFrameIndex(_item) != idx) {
    _item = Item();
    SetFrameIndex(_item, idx);
    if (!Parse(_item)) {
      LOGE << "!Parse(_item)" << " idx=" << idx;
      _item = Item();  // holds no frame
      return false;
    }
  }
  return toFrame(_item, idx, frm);
}

bool StblParser::positionInChunk(const Item& item, int64_t& pos) {
  // From the last frame given out when it lies before this one in the same chunk, else from the
  // chunk's start: in play the loop below does not run at all; after a jump it sums what it skips.
  // Unsigned sums: positions come from the file and may stand next to the largest one.
  uint32_t from = item.chunk_first_sample;
  uint64_t at = item.pos;
  if (_last_sample >= from && _last_sample < item.sample) {
    from = _last_sample + 1;
    at = static_cast<uint64_t>(_last_pos) + static_cast<uint32_t>(_last_size);
  }
  pos = static_cast<int64_t>(at);
  if (!_stszparser) return true;
  if (StszReader* sz = _stsz; sz && sz->SampleSize()) {
    pos = static_cast<int64_t>(at + static_cast<uint64_t>(item.sample - from) * sz->SampleSize());
    return true;
  }
  for (uint32_t s = from; s < item.sample; ++s) {
    Item one;
    one.sample = s;
    if (!_stszparser->Parse(one)) {
      LOGE << "!_stszparser->Parse(item)" << " sample=" << s << " in the chunk of " << item.chunk_first_sample;
      return false;
    }
    at += one.size;
  }
  pos = static_cast<int64_t>(at);
  return true;
}

bool StblParser::toFrame(Item& item, int idx, FrameInfo& frm) {
  frm.Index = idx;
  frm.Pos = static_cast<int64_t>(item.pos);
  frm.Duration = item.duration;
  frm.Size = FrameBytes(item.size);
  frm.Flags = (frm.Flags & ~static_cast<uint32_t>(FrameInfo::kKey)) | (item.is_key ? FrameInfo::kKey : 0u);
  if (!_frame_is_sample) {
    // A frame is a whole chunk of equal samples.
    if (item.samples_per_chunk > 1) {
      frm.Size = FrameBytes(static_cast<unsigned long long>(item.size) * item.samples_per_chunk);
      frm.Duration = static_cast<int64_t>(static_cast<unsigned long long>(item.duration) * item.samples_per_chunk);
    }
  } else if (item.sample != item.chunk_first_sample) {
    // The offset table knows only where the chunk starts.
    if (_last_sample == item.sample) {
      frm.Pos = _last_pos;
    } else if (_last_sample + 1 == item.sample) {
      frm.Pos = static_cast<int64_t>(static_cast<uint64_t>(_last_pos) + static_cast<uint32_t>(_last_size));
    } else if (!positionInChunk(item, frm.Pos)) {
      return false;
    }
  }
  _last_pos = frm.Pos;
  _last_sample = item.sample;
  _last_size = frm.Size;
  return true;
}

long long StblParser::GetFrameSize(int idx) {
  if (getFrameIndex(_item) == idx) return _item.size;
  if (beyond(idx)) return 0;
  if (!_stszparser) return -1;
  Item item;
  SetFrameIndex(item, idx);
  if (!_stscparser || !_stscparser->Parse(item)) {
    LOGE << "!_stscparser->Parse(item)";
    return -1;
  }
  if (!_stszparser->Parse(item)) {
    LOGE << "!_stszparser->Parse(item)";
    return -1;
  }
  return static_cast<long long>(xSampleNum(item, item.size));
}

long long StblParser::GetFrameDuration(int idx) {
  if (getFrameIndex(_item) == idx) return _item.duration;
  if (beyond(idx)) return 0;
  if (!_sttsparser) return -1;
  Item item;
  SetFrameIndex(item, idx);
  if (!_stscparser || !_stscparser->Parse(item)) {
    LOGE << "!_stscparser->Parse(item)";
    return -1;
  }
  if (!_sttsparser->Parse(item)) {
    LOGE << "!_sttsparser->Parse(item)";
    return -1;
  }
  return static_cast<long long>(xSampleNum(item, item.duration));
}

// A frame's duration comes from the stts run that holds its sample, once the stsc walk has found the
// sample (which moves nothing in sample mode but its own reader). Where both readers answer without
// loading an entry, every frame gets the run's delta: a walk over them needs no lookup a frame. The
// frame last given out answers from its own record, so a run stops short of it.
int StblParser::SameDurationLast(int idx) {
  SttsReader* stts = _stts;
  StscReader* stsc = _stsc;
  const long long sample = static_cast<long long>(idx) + 1;
  if (!_frame_is_sample || !stts || !stsc || getFrameIndex(_item) == idx || beyond(idx)) return idx;
  if (sample < stts->StillFirst() || sample > stts->StillLast()) return idx;
  const unsigned long long stscLast = std::min(stsc->StillLast(static_cast<unsigned long long>(sample)),
                                               static_cast<unsigned long long>(INT_MAX));
  long long last =
      std::min({stts->StillLast(), static_cast<long long>(GetFrameCount()), static_cast<long long>(stscLast)}) - 1;
  const long long given = getFrameIndex(_item);
  if (given > idx && given <= last) last = given - 1;
  return last > idx ? static_cast<int>(last) : idx;
}

int StblParser::SameDurationFirst(int idx) {
  SttsReader* stts = _stts;
  StscReader* stsc = _stsc;
  const long long sample = static_cast<long long>(idx) + 1;
  if (!_frame_is_sample || !stts || !stsc || getFrameIndex(_item) == idx || beyond(idx)) return idx;
  if (sample < stts->StillFirst() || sample > stts->StillLast()) return idx;
  long long first = std::max({stts->StillFirst(), 1LL,
                              static_cast<long long>(stsc->StillFirst(static_cast<unsigned long long>(sample)))}) -
                    1;
  const long long given = getFrameIndex(_item);
  if (given >= first && given < idx) first = given + 1;
  return first < idx ? static_cast<int>(first) : idx;
}

bool StblParser::GetFrameIsKey(int idx) {
  if (getFrameIndex(_item) == idx) return _item.is_key;
  if (beyond(idx)) return false;
  if (!_stssparser) return true;
  Item item;
  SetFrameIndex(item, idx);
  if (!_stscparser || !_stscparser->Parse(item)) {
    LOGE << "!_stscparser->Parse(item)";
    return true;
  }
  if (!_stssparser->Parse(item)) {
    LOGE << "!_stssparser->Parse(item)";
    return true;
  }
  return item.is_key;
}

int StblParser::GetChunkCount() {
  if (_chunk_cnt) return _chunk_cnt;
  if (!_stcoparser) {
    LOGE << "!_stcoparser";
    return 0;
  }
  if (!_stcoparser->Get("get_chunk_cnt", _chunk_cnt)) {
    LOGE << "!_stcoparser->Get(\"get_chunk_cnt\",_chunk_cnt)";
    return 0;
  }
  return _chunk_cnt;
}

int StblParser::GetSampleCount() {
  if (_sample_cnt) return _sample_cnt;
  if (!_stscparser) {
    LOGE << "!_stscparser";
    return 0;
  }
  int count = 0;
  if (!_stscparser->Run("get_sample_cnt", count, GetChunkCount())) {
    LOGE << "!_stscparser->Run(\"get_sample_cnt\",_sample_cnt,GetChunkCount())";
    return 0;
  }
  // The count is a product of numbers from the file; no more samples than the sizes describe, or
  // than one a chunk without sizes (as the list in memory is cut), so that no walk runs over samples
  // that are not there.
  unsigned long long described = static_cast<unsigned long long>(std::max(_chunk_cnt, 0));
  if (StszReader* sz = _stsz) described = std::max(described, sz->DescribedSamples());
  if (static_cast<unsigned long long>(count) > described) {
    LOGE << "samples " << count << " > " << described << ", what the tables describe";
    count = static_cast<int>(described);
  }
  _sample_cnt = std::max(count, 0);
  return _sample_cnt;
}

int StblParser::GetFrameCount() {
  if (_frame_cnt) return _frame_cnt;
  _frame_cnt = _frame_is_sample ? GetSampleCount() : GetChunkCount();
  return _frame_cnt;
}

long long StblParser::GetTotalSize() {
  if (_total_size) return _total_size;
  if (!_stszparser) {
    LOGE << "!_stszparser";
    return 0;
  }
  if (!_stszparser->Run("get_total_size", _total_size, GetSampleCount())) {
    LOGE << "!_stszparser->Run(\"get_total_size\",_total_size,GetSampleCount())";
    return 0;
  }
  return _total_size;
}

int StblParser::GetLastKeyFrame() {
  if (_last_key) return _last_key - 1;
  if (!_stssparser) return GetFrameCount() - 1;
  if (!_stssparser->Get("get_last_key", _last_key)) {
    LOGE << "!_stssparser->Get(\"get_last_key\",_last_key)";
    return 0;
  }
  return _last_key - 1;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterStblParser() {
  kiv::plugin::mov::Reflect<kiv::plugin::mov::StblParser>("mov-stbl-parser-extern", {}, "quor");
}
