#include "stream/plugin/mp4/demux/ListParser.h"

#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/common/Stbl.h"

namespace kiv {
namespace plugin {
namespace mov {

std::ostream& FrameInfo::operator>>(std::ostream& os) const {
  return os << Index << std::hex << ",0x" << Pos << ",0x" << Size << ",0x" << Flags << std::dec << "&";
}

namespace {
// A record that stands for a whole chunk of equal samples counts them all.
long long times(uint32_t value, uint32_t count) {
  return count == 1 ? static_cast<long long>(value) : static_cast<long long>(value) * count;
}
}  // namespace

bool ListParser::Init(IBox* box) {
  if (!box || box->FourCC() != FCC("stbl")) {
    LOGE << "box->FourCC()!=::Convert4low(\"stbl\")";
    return false;
  }
  _stbl = box;
  auto* stbl = dynamic_cast<cstbl*>(box);
  _list = stbl ? stbl->ChunkList() : nullptr;
  if (!_list) {
    LOGE << "!_list";
    return false;
  }
  if (_list->empty()) {
    LOGE << "_list->empty()";
    return false;
  }
  // Without a sync table every frame is a key frame.
  if (!box->Find("stss"))
    for (ChunkParam& r : *_list) r.flags |= 1;
  return true;
}

const ChunkParam* ListParser::entry(int idx) const {
  if (!_list || idx < 0 || static_cast<size_t>(idx) >= _list->size()) {
    LOGE << "(idx<0 || idx>=_list->size())" << " idx=" << idx;
    return nullptr;
  }
  return &(*_list)[static_cast<size_t>(idx)];
}

bool ListParser::GetFrame(int idx, FrameInfo& frm) {
  const ChunkParam* r = entry(idx);
  if (!r) return false;
  frm.Index = idx;
  frm.Flags = r->flags;
  frm.Pos = static_cast<int64_t>(r->offset);
  frm.Duration = times(r->duration, r->count);
  // A frame larger than a packet can be is no frame; the read of it fails, not the walk.
  const long long size = times(r->size, r->count);
  frm.Size = size > 0x7fffffff ? 0x7fffffff : static_cast<int32_t>(size);
  return true;
}

int ListParser::GetFrameCount() { return _list ? static_cast<int>(_list->size()) : 0; }

long long ListParser::GetTotalSize() {
  long long total = 0;
  if (_list)
    for (const ChunkParam& r : *_list) total += times(r.size, r.count);
  return total;
}

long long ListParser::GetFrameSize(int idx) {
  const ChunkParam* r = entry(idx);
  return r ? times(r->size, r->count) : 0;
}

long long ListParser::GetFrameDuration(int idx) {
  const ChunkParam* r = entry(idx);
  return r ? times(r->duration, r->count) : 0;
}

bool ListParser::GetFrameIsKey(int idx) {
  const ChunkParam* r = entry(idx);
  return r && (r->flags & 1);
}

int ListParser::GetLastKeyFrame() {
  if (!_list) return 0;
  for (size_t i = _list->size(); i-- > 0;)
    if ((*_list)[i].flags & 1) return static_cast<int>(i);
  return 0;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterListParser() {
  kiv::plugin::mov::Reflect<kiv::plugin::mov::ListParser>("MovStblParserList-mov-stbl-parser-list", {}, "quor");
}
