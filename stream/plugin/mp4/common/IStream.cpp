#include "stream/plugin/mp4/common/IStream.h"


#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "stream/base/dbg/Log.h"
#include "stream/base/io/File.h"
#include "stream/base/io/IOFileBuffer.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "stream/plugin/mp4/common/StblFile.h"
#include "stream/plugin/mp4/demux/StreamDemuxer.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::Fraction;
using kiv::base::IOFileBuffer;

IStream::IStream(const char* name) { Name(name); }

IStream::~IStream() {
  for (const TableFile& t : _tableFiles) delete t.buffer;
  delete _listFile;
  _listFile = nullptr;
  if (_demuxSide && _media) _media->Release();
  _media = nullptr;
  delete _demuxer;
  _demuxer = nullptr;
  delete[] _sizeList;
  delete[] _ptsList;
  // A muxing trak belongs to "moov" once the engine has added it; one that never got there (the
  // engine drops a stream whose muxConfig failed) would be lost otherwise.
  if (!_demuxSide && _trak && !_trak->Parent()) delete _trak;
  _trak = nullptr;
}

IStream* IStream::New(AttrSet& ap) {
  const char* fcc = ap.Get("fcc");
  if (!fcc) {
    LOGE << "!fcc";
    return nullptr;
  }
  std::string type = std::string("mov-stream-") + fcc;
  if (const char* keys = ap.Get("keys")) type += std::string("-") + keys;
  ap.SetOrAdd("type", type);
  IStream* st = kiv::base::Object::New<IStream>(ap);
  if (!st) return nullptr;
  // The registry applies only attributes that name properties; the track's own keys come here.
  st->fromAttrSet(ap);
  return st;
}

IStream* IStream::New(const char* fcc, const char* /*keys*/, int trackId) {
  char type[64];
  std::snprintf(type, sizeof type, "mov-stream-%s", fcc ? fcc : "");
  AttrSet ap;
  ap.SetOrAdd("type", type);
  kiv::base::Object* obj = kiv::base::Object::New<kiv::base::Object>(ap);
  IStream* st = obj ? dynamic_cast<IStream*>(obj) : nullptr;
  if (!st) {
    delete obj;
    LOGE << "!obj";
    return nullptr;
  }
  st->TrackID(trackId);
  return st;
}

bool IStream::fromAttrSet(const AttrSet& ap) {
  if (const char* v = ap.Get("trunkid")) _trackId = static_cast<int>(std::strtol(v, nullptr, 0));
  if (const char* v = ap.Get("container")) _container = static_cast<uintptr_t>(std::strtoull(v, nullptr, 16));
  return kiv::base::Object::fromAttrSet(ap);
}

bool IStream::SetTfra(IBox*) { return true; }
bool IStream::createmoof(IO&, bool, unsigned int, unsigned int, bool) { return true; }
void IStream::MuxUpdateDuration(IO&) {}
void IStream::muxReset() {}
bool IStream::muxUpdate() { return true; }
bool IStream::muxTagSet(videoTags*) { return true; }
bool IStream::CleanFifoData(IO&, unsigned long long) { return true; }
int IStream::MuxOffset(const Packet&) { return 0; }
int IStream::MuxAlign(int align) { return align; }
bool IStream::demuxReset() { return true; }
Packet* IStream::GetPacket(IO&) { return nullptr; }
Packet* IStream::demuxUpdatePacket(IO&, Packet* packet) { return packet; }

const MuxerParam& IStream::param() const {
  static const MuxerParam kDefaults;
  return _para ? *_para : kDefaults;
}

// ---------------------------------------------------------------- muxing

void IStream::MuxReset() {
  _firstPts = -1;
  _duration = 0;
  muxReset();
  _elapsed = 0;
  _elapsedExtra = 0;
}

bool IStream::MuxConfig(IBox* mdat, IMedia* media, kiv::base::Object* tags, MuxerParam* para) {
  _media = media;
  _mdat = mdat;
  _para = para;
  if (para && para->planSeconds > 0) _planSeconds = para->planSeconds;

  const bool ok = muxConfig(tags);
  if (!ok) {
    LOGE;
    return false;
  }
  if (para && para->rsvdSeconds >= 0) {
    // "<drive>:/<name>.<address>": every track of every recording has a file of its own.
    char path[128];
    std::snprintf(path, sizeof path, "%c:/%s.%p", para->drive, Name(), static_cast<void*>(this));
    delete _listFile;
    _listFile = new IListFile(_chunkList, path, 4096);
  }
  _gop = 1;
  long long gop = 0;
  if (media && media->Get("gop", gop)) _gop = static_cast<int>(gop);
  return ok;
}

bool IStream::AddPacket(Packet& packet, IO& io, unsigned long long leader) {
  if (packet.media != _media) return false;
  if (!_concate && _listFile && _listFile->ListIsFull()) _listFile->WriteTmpFile();

  if (_firstPts < 0) {
    const long long scale = _scale.Scale();
    _firstPts = (packet.pts / 1000000) * scale / 1000;
    if (param().fixedRate) {
      // In this mode _firstPts is the one sample duration of the track.
      if (_media && _media->IsVideo()) {
        Fraction rate(0, 1);
        Get("frameRate", rate);
        if (rate.Num() != 0) {
          _firstPts = rate.Den() * scale / rate.Num();
        } else {
          LOGE << "frameRate " << rate.ToString() << " gives no sample duration";
          _firstPts = 0;
        }
      }
      int frm = 0;
      if (std::strcmp(Name(), "aac") == 0 && _media && _media->Get("frmSampNum", frm)) _firstPts = frm;
    }
  }

  const int skip = MuxOffset(packet);
  if (skip && !packet.Offset(packet.Offset() + skip)) LOGE << "!packet.Offset(packet.Offset()+" << skip << ")";

  const long long written = AddData(io, packet, leader);
  if (_mdat && written > 0) _mdat->RealSize(_mdat->RealSize() + static_cast<unsigned long long>(written));
  return true;
}

int IStream::AddChunk(const Packet& packet, unsigned long long offset, int) {
  if (packet.Size() < 0) return 0;
  ChunkParam r;
  r.offset = offset;
  r.size = static_cast<uint32_t>(packet.Size());
  r.count = 1;
  r.descIndex = 1;
  r.packetSpan = static_cast<uint16_t>(_scale.From(packet.clock));
  // A sample lasts from the previous time stamp to its own; only the first uses its own duration.
  const long long step = _lastPts == 0 ? packet.duration : packet.pts - _lastPts;
  r.duration = static_cast<uint32_t>(_scale.From(step));
  if (packet.IsKey())
    r.flags = 1;
  else if (packet.flags & 0x400000)
    r.flags = 2;
  if (_chunkList)
    _chunkList->push_back(r);
  else
    LOGE << "!_chunkList";
  ++_entryCount;
  _elapsed += step;
  _lastPts = packet.pts;
  _duration = _elapsed / 1000000;
  return packet.Size();
}

long long IStream::AddData(IO& io, Packet& packet, unsigned long long) {
  const long long pos = io.Position();
  AddChunk(packet, static_cast<unsigned long long>(pos), 0);
  if (packet.Size() <= 0) return 0;
  return io.Write(packet.Data(), packet.Size());
}

bool IStream::UpdateChunkList(long long delta) {
  if (!_chunkList) return true;
  for (ChunkParam& r : *_chunkList)
    if (r.offset != 0) r.offset += static_cast<unsigned long long>(delta);
  return true;
}

bool IStream::UpdateVfiChunkList(long long delta) {
  if (!_chunkList) return true;
  for (size_t i = 1; i < _chunkList->size(); ++i) {
    ChunkParam& r = (*_chunkList)[i];
    if (static_cast<long long>(r.offset) < static_cast<long long>((*_chunkList)[i - 1].offset))
      r.offset += static_cast<unsigned long long>(delta);
  }
  return true;
}

long long IStream::DurationRenew() {
  if (!param().fixedRate) return _duration;
  if (!_chunkList || _chunkList->empty()) return _duration;
  const long long first = (*_chunkList)[0].duration;
  _duration = _scale.ToMs(first * static_cast<long long>(_chunkList->size()));
  _firstPts = first;
  return _duration;
}

long long IStream::DurationInTimeScale() {
  if (!param().fixedRate) return _duration * _scale.Scale() / 1000;
  const long long listed = _chunkList ? static_cast<long long>(_chunkList->size()) : 0;
  if (_demuxSide) return (_chunkList && !_chunkList->empty()) ? (*_chunkList)[0].duration * listed : 0;
  const long long count = _concate ? static_cast<long long>(_entryCount) : listed;
  return count * _firstPts;
}

bool IStream::MuxUpdate(long long movieScale, bool keepEmpty) {
  if (!_concate && _listFile) _listFile->ReadTmpFile();
  const long long count =
      _concate ? static_cast<long long>(_entryCount) : (_chunkList ? static_cast<long long>(_chunkList->size()) : 0);
  const long long scale = _scale.Scale();
  const bool fixedRate = param().fixedRate;

  long long trackDuration = 0;  // in the movie's time scale
  if (fixedRate) {
    _duration = scale ? count * _firstPts * 1000 / scale : 0;
    trackDuration = scale ? count * _firstPts * movieScale / scale : 0;
  } else {
    trackDuration = scale ? _scale.FromMs(_duration) * movieScale / scale : 0;
  }
  const unsigned long long tkhdDuration = static_cast<unsigned long long>(trackDuration) & 0xffffffffull;

  if (_trak) {
    if (auto* tkhd = dynamic_cast<ctkhd*>(_trak->Find("tkhd"))) {
      tkhd->_duration = tkhdDuration;
      tkhd->_createtime = static_cast<unsigned long long>(_createTime);
      tkhd->_modifytime = static_cast<unsigned long long>(_createTime);
      tkhd->_track_id = static_cast<unsigned>(_trackId);
    }
    if (auto* elst = dynamic_cast<celst*>(_trak->Find("elst"))) {
      elst->reset();
      elst->Add(celst::Item{tkhdDuration, 0, 0x10000});
    }
    if (auto* mdhd = dynamic_cast<cmdhd*>(_trak->Find("mdhd"))) {
      mdhd->_duration = static_cast<unsigned long long>(fixedRate ? count * _firstPts : _scale.FromMs(_duration));
      mdhd->_createtime = static_cast<unsigned long long>(_createTime);
      mdhd->_modifytime = static_cast<unsigned long long>(_createTime);
      mdhd->_timescale = static_cast<unsigned>(scale);
    }
    if (count == 0 && !keepEmpty) {
      if (IBox* parent = _trak->Parent()) parent->Del(_trak);
      LOGE << "delete stream: " << Name() << " due to size 0!";
      delete _trak;
      _trak = nullptr;
    }
  }
  return muxUpdate();
}

bool IStream::MuxUpdateTkhdDuration(unsigned long long duration) {
  if (!_trak) return false;
  auto* tkhd = dynamic_cast<ctkhd*>(_trak->Find("tkhd"));
  if (!tkhd) return false;
  tkhd->_duration = duration;
  auto* elst = dynamic_cast<celst*>(_trak->Find("elst"));
  if (elst && !elst->_items.empty()) elst->_items[0].segment_duration = duration;
  return true;
}

bool IStream::MuxUpdateMdhdDuration(unsigned long long duration) {
  if (!_trak) return false;
  auto* mdhd = dynamic_cast<cmdhd*>(_trak->Find("mdhd"));
  if (!mdhd) return false;
  mdhd->_duration = duration;
  return true;
}

// ---------------------------------------------------------------- demuxing

videoTags* IStream::profileOf(kiv::base::Object* tags) {
  auto* profile = tags ? dynamic_cast<videoTags*>(tags) : nullptr;
  if (tags && !profile) LOGE << "!tags";
  return profile;
}

bool IStream::newDemuxMedia(const char* codec) {
  if (_demuxSide && _media) _media->Release();
  _media = IMedia::New(codec);
  _demuxSide = _media != nullptr;
  if (!_media) LOGE << "!_media";
  return _demuxSide;
}

bool IStream::DemuxConfig(IBox* mdat, IBox* trak, kiv::base::Object* param) {
  _mdat = mdat;
  _demuxSide = true;
  _trak = trak;
  if (!mdat) {
    LOGE << "!_mdat";
    return false;
  }
  if (!trak) {
    LOGE << "!_trak";
    return false;
  }
  auto* stbl = dynamic_cast<cstbl*>(trak->Find("stbl"));
  if (!stbl) {
    LOGE << "!stbl";
    return false;
  }
  _chunkList = stbl->ChunkList();
  auto* mdhd = dynamic_cast<cmdhd*>(trak->Find("mdhd"));
  if (!mdhd) {
    LOGE << "!mdhd";
    return false;
  }
  _scale.Scale(mdhd->_timescale);
  _createTime = static_cast<long long>(mdhd->_createtime);
  _duration = _scale.ToMs(static_cast<long long>(mdhd->_duration));
  if (auto* tkhd = dynamic_cast<ctkhd*>(trak->Find("tkhd"))) _trackId = static_cast<int>(tkhd->_track_id);
  delete _demuxer;
  _demuxer = new StreamDemuxer(this);
  _gop = _demuxer->GetGop();
  _entryCount = static_cast<unsigned>(_demuxer->GetTotalCount());
  return demuxConfig(param);
}

bool IStream::DemuxReset() {
  _firstPts = 0;
  if (!_demuxer) {
    LOGE << "!_demuxer";
    return false;
  }
  if (!_demuxer->SeekToBegin(true)) {
    LOGE << "!_demuxer->SeekToBegin(true)";
    return false;
  }
  return demuxReset();
}

// ---------------------------------------------------------------- helpers of the codec classes

void IStream::allocScratch(unsigned n) {
  delete[] _sizeList;
  delete[] _ptsList;
  _sizeList = new unsigned[n ? n : 1]();
  _ptsList = new unsigned[n ? n : 1]();
  _scratchMax = n ? n : 1;
  _sizeCount = 0;
  _ptsCount = 0;
}

void IStream::pushScratch(unsigned size, unsigned pts) {
  if (!_sizeList || !_ptsList || _sizeCount >= _scratchMax || _ptsCount >= _scratchMax) {
    LOGE << "scratch full: " << _sizeCount << "/" << _scratchMax;
    return;
  }
  _sizeList[_sizeCount++] = size;
  _ptsList[_ptsCount++] = pts;
}

void IStream::addTable(IBox* stbl, StblKind kind, const void* tags, long long reserved) {
  addTableOf(stbl, kind, tags, reserved, false);
}

void IStream::addCountedStts(IBox* stbl, const void* tags, long long reserved) {
  addTableOf(stbl, StblKind::stts, tags, reserved, true);
}

void IStream::addTableOf(IBox* stbl, StblKind kind, const void* tags, long long reserved, bool countedStts) {
  auto make = [&](IO* onFile) -> IStbl* {
    if (!countedStts) return NewTable(kind, onFile);
    if (onFile) return new cstts_file(*onFile);
    return new cstts();
  };
  if (!_concate) {
    stbl->Add(make(nullptr));
    return;
  }
  char path[128];
  std::snprintf(path, sizeof path, "%c:/%s.%s.%p", param().drive, StblKindName(kind), Name(), tags);
  auto* buffer = new IOFileBuffer(path, reserved < 0 ? 0 : reserved, nullptr);
  // The filler pads only when the table will be joined from a file of its own.
  stbl->Add(new cfree_concate(GetClusterSize(path), [buffer](void*) { return buffer->HasFileData(); }));
  IStbl* table = make(buffer);
  stbl->Add(table);
  _tableFiles.push_back({dynamic_cast<IStblFile*>(table), buffer});
}

void IStream::concateFill() {
  if (!_concate || !_chunkList || _chunkList->empty()) return;
  for (const TableFile& t : _tableFiles) t.table->fill(*t.buffer, _chunkList);
  _chunkList->clear();
}

bool IStream::mdatHasContent() const {
  if (!_mdat) return false;
  if (_mdat->Size() == 1) return _mdat->ExtendedSize() > 16;
  return _mdat->Size() > 8;
}

void IStream::growMdat(long long n) {
  if (!_mdat || n <= 0) return;
  if (_mdat->Size() == 1)
    _mdat->ExtendedSize(_mdat->ExtendedSize() + static_cast<unsigned long long>(n));
  else
    _mdat->Size(static_cast<unsigned>(_mdat->Size() + static_cast<unsigned long long>(n)));
}

IStream::MediaBoxes IStream::addMediaBoxes(IBox* trak, unsigned char version, bool edts, uint16_t language,
                                           IBox* mediaHeader, bool dataHandler, const void* dataHandlerName,
                                           unsigned nameLength, uint32_t dataRefType) {
  if (edts) {
    auto* box = new cedts();
    trak->Add(box);
    box->Add(new celst(version));
  }
  auto* mdia = new cmdia();
  trak->Add(mdia);
  auto* mdhd = new cmdhd(version);
  mdhd->_language = language;
  mdia->Add(mdhd);
  auto* hdlr = new chdlr();
  mdia->Add(hdlr);
  auto* minf = new cminf();
  mdia->Add(minf);
  minf->Add(mediaHeader);
  if (dataHandler) {
    auto* dhlr = new chdlr();
    dhlr->_component_type = FCC("dhlr");
    dhlr->_component_subtype = dataRefType;
    dhlr->ComponentName(dataHandlerName, nameLength);
    minf->Add(dhlr);
  }
  auto* dinf = new cdinf();
  minf->Add(dinf);
  auto* dref = new cdref();
  dinf->Add(dref);
  auto* alis = new calis(dataRefType);
  dref->Add(alis);
  return {mdhd, hdlr, minf, alis};
}

bool IStream::holdInFifo(PacketFifo& fifo, Packet& packet) {
  // A following track whose chunks are short against the leader's gets more packets than the fifo
  // was made for while it waits for the leader: the fifo grows then, so that no frame is lost. Not in
  // fragment mode, whose scratch arrays are as long as the fifo.
  constexpr int kMaxHeld = 1 << 14;
  if (fifo.Full() && !_fragmented && fifo.Max() < kMaxHeld) fifo.Remax(std::min(kMaxHeld, fifo.Max() * 2));
  packet.Hold();
  Packet* held = &packet;
  if (fifo.push(held)) return true;
  LOGE << "!_fifo->push(pkt) " << fifo.Size() << "/" << fifo.Max();
  kiv::base::Release(held);
  return false;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
