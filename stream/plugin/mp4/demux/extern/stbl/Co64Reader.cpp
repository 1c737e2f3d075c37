#include "stream/plugin/mp4/demux/extern/stbl/Co64Reader.h"

#include <string>

#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/BoxWeave.h"

namespace kiv {
namespace plugin {
namespace mov {

Co64Reader::Co64Reader() {
  _list_item_size = 8;
  _order = -100;
}

bool Co64Reader::init(kiv::base::AttrSet& ap) {
  if (!IStblReader::init(ap)) {
    LOGE << "!IStblReader::init(ap)";
    return false;
  }
  ap.SetOrAdd("chunk_cnt", std::to_string(Entries()));
  return true;
}

bool Co64Reader::Parse(Item& item) {
  if (item.chunk == 0) return false;
  const long long offset = _list_begin_pos + static_cast<long long>(_list_item_size) * (item.chunk - 1ll);
  if (offset >= _list_end_pos) return false;
  if (!seek(offset)) {
    LOGE << "!_reader->Seek(offset,Position::front)" << " offset=" << offset;
    return false;
  }
  uint64_t pos = 0;
  const bool ok = read64(pos);
  item.pos = pos;
  return ok;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterCo64Reader() {
  kiv::plugin::mov::Reflect<kiv::plugin::mov::Co64Reader>("mov-stbl-reader-extern-co64", {}, "quor");
}
