#include "stream/plugin/mp4/core/demux/Mp4Demuxer.h"

#include <cstring>
#include <list>

#include "stream/base/dbg/Log.h"
#include "stream/base/Helpers.h"
#include "stream/base/io/IO.h"
#include "stream/base/reflect/IClass.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/core/demux/FMp4Parser.h"
#include "stream/plugin/mp4/core/demux/Mp4Parser.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::IOIntReader;
using kiv::stream::Packet;

Mp4Demuxer::Mp4Demuxer() { FlagsSet(0x8040c); }

Mp4Demuxer::~Mp4Demuxer() {
  StatusDown(closed);
  dropEngine();
}

void Mp4Demuxer::dropEngine() {
  delete _demuxer;
  _demuxer = nullptr;
}

bool Mp4Demuxer::FindTopFcc(const char* fcc) {
  const long long pos1 = _io->Position() + _io->Size();
  if (pos1 > _io->Size()) {
    LOGE << "pos1>_io->Size()";
    return false;
  }
  uint32_t want = 0;
  const bool any = !fcc || !*fcc;
  if (!any) kiv::Convert32(want, fcc, 0, 4);
  IOIntReader in(*_io);
  while (_io->Position() < pos1) {
    const long long rest = pos1 - _io->Position();
    const uint32_t size = in.Read32be();
    if (size == 0) {
      LOGE << Name() << ":size==0";
      return false;
    }
    if (size > rest) {
      LOGE << Name() << size << ">" << rest << Name();
      return false;
    }
    const uint32_t code = in.Read32();
    if (code == 0) {
      LOGE << Name();
      return false;
    }
    if (!any && code == want) return true;
    // A 64-bit size (1) is not understood here: the walk goes on from a wrong place and stops at a
    // check above. Only a "moof" before the first such box is seen.
    if (!_io->Seek(_io->Position() + static_cast<long long>(size) - 8, kiv::Position::front)) return false;
  }
  return false;
}

bool Mp4Demuxer::Open() {
  if (!IDemuxer::Open()) {
    LOGE << "!IDemuxer::Open()";
    return false;
  }
  if (!_io) {
    LOGE << "!_io";
    return false;
  }
  if (!_io->Seek(0, kiv::Position::front)) {
    LOGE << "!_io->Seek(0,Position::front)";
    return false;
  }
  dropEngine();
  if (FindTopFcc("moof")) {
    auto* parser = new FMp4Parser();
    _demuxer = parser->AsParser();
  } else {
    auto* parser = new Mp4Parser();
    parser->_stbl_extern_enable = _tables_on_file;
    parser->_stbl_switch_size = _switch_size;
    parser->_stbl_blk_size = _block_size;
    _demuxer = parser->AsParser();
    if (!_io->Seek(0, kiv::Position::front)) {
      LOGE << "!_io->Seek(0,Position::front)";
      return false;
    }
  }
  if (!_demuxer) {
    LOGE << "!_demuxer";
    return false;
  }
  if (!_demuxer->OpenDemuxer(*_io)) {
    LOGE << "!_demuxer->OpenDemuxer(*_io)";
    return false;
  }
  std::list<kiv::stream::IPort*> ports = Ports();
  return _demuxer->PortInfoUpdate(ports);
}

void Mp4Demuxer::TablesOnFile(bool onFile, int switchSize, int blockSize) {
  _tables_on_file = onFile;
  _switch_size = switchSize;
  _block_size = blockSize;
}

bool Mp4Demuxer::Close() {
  if (!IDemuxer::Close()) {
    LOGE << "!IDemuxer::Close()";
    return false;
  }
  if (_demuxer) {
    _demuxer->CloseDemuxer();
    dropEngine();
  }
  return true;
}

bool Mp4Demuxer::ParseFile(std::function<bool(kiv::stream::IMedia*)>) { return false; }

bool Mp4Demuxer::Seek(long long ms) {
  if (!_demuxer) {
    LOGE << "!_demuxer";
    return false;
  }
  LoopEnd(true);
  const bool ok = _demuxer->Seek(ms);
  LoopEnd(false);
  return ok;
}

unsigned long long Mp4Demuxer::Duration() {
  if (!_demuxer) {
    LOGE << "!_demuxer";
    return 0;
  }
  return _demuxer->Duration();
}

unsigned char* Mp4Demuxer::GetThumbData() {
  if (!_demuxer) {
    LOGE << "!_demuxer";
    return nullptr;
  }
  return _demuxer->GetThumbData();
}

unsigned Mp4Demuxer::GetThumbSize() {
  if (!_demuxer) {
    LOGE << "!_demuxer";
    return 0;
  }
  return _demuxer->GetThumbSize();
}

Packet* Mp4Demuxer::GeneratePacket(void* user) {
  if (!_demuxer) {
    LOGE << "!_demuxer";
    return nullptr;
  }
  return _demuxer->GeneratePacket(user);
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMp4Demuxer() {
  using kiv::plugin::mov::Mp4Demuxer;
  using P = kiv::base::TProperty<Mp4Demuxer>;
  kiv::plugin::mov::Reflect<Mp4Demuxer>("Mp4Demuxer-demuxer-mp4-fmp4-mov",
                                        {P::Getter("duration", &Mp4Demuxer::Duration),
                                         P::Getter("thumbsize", &Mp4Demuxer::GetThumbSize),
                                         P::Getter("thumbdata", &Mp4Demuxer::GetThumbData),
                                         P::Setter("seek", &Mp4Demuxer::Seek)},
                                        "quor");
}
