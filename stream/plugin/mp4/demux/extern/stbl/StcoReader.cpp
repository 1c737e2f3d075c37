#include "stream/plugin/mp4/demux/extern/stbl/StcoReader.h"

#include <string>

#include "stream/base/Convert.h"
#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/BoxWeave.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::Hex;

StcoReader::StcoReader() {
  _list_item_size = 4;
  _order = -100;
}

bool StcoReader::init(kiv::base::AttrSet& ap) {
  if (!IStblReader::init(ap)) {
    LOGE << "!IStblReader::init(ap)";
    return false;
  }
  ap.SetOrAdd("chunk_cnt", std::to_string(Entries()));
  return true;
}

bool StcoReader::Parse(Item& item) {
  // A 64-bit table answers a chunk outside it with a plain false, as it always has.
  const bool wide = _list_item_size == 8;
  if (item.chunk == 0) {
    if (!wide) LOGE << "item.chunk==0";
    return false;
  }
  const long long offset = _list_begin_pos + static_cast<long long>(_list_item_size) * (item.chunk - 1ll);
  if (offset >= _list_end_pos) {
    if (!wide)
      LOGE << "offset>=_list_end_pos " << Hex(static_cast<uint64_t>(_list_begin_pos), 8) << "<"
           << Hex(static_cast<uint64_t>(offset), 8) << "<" << Hex(static_cast<uint64_t>(_list_end_pos), 8);
    return false;
  }
  if (!seek(offset)) {
    LOGE << "!_reader->Seek(offset,Position::front)" << " offset=" << offset;
    return false;
  }
  bool ok;
  if (wide) {
    uint64_t pos = 0;
    ok = read64(pos);
    item.pos = pos;
  } else {
    uint32_t pos = 0;
    ok = read32(pos);
    item.pos = pos;
  }
  return ok;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterStcoReader() {
  kiv::plugin::mov::Reflect<kiv::plugin::mov::StcoReader>("mov-stbl-reader-extern-stco", {}, "quor");
}
