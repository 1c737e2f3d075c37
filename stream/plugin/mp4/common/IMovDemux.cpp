#include "stream/plugin/mp4/common/IMovDemux.h"

#include <cstring>
#include <string>

#include "stream/base/AttrSet.h"
#include "stream/base/dbg/Log.h"
#include "stream/base/io/IOBlockReader.h"
#include "stream/core/IMedia.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/IStream.h"
#include "stream/plugin/mp4/common/Stsd.h"
#include "stream/plugin/mp4/demux/StreamDemuxer.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::AttrSet;
using kiv::base::IO;
using kiv::stream::Packet;

IMovDemux::~IMovDemux() { closeTree(); }

bool IMovDemux::Parse(IO& io) {
  kiv::base::IOBlockReader reader(io, 32768);
  if (_root) return true;
  _root = IBox::New("root");
  if (!_root) {
    LOGE << "!_root";
    return false;
  }
  AttrSet ap;
  ap.Add("stbl_extern_parser_enable", _stbl_extern_enable ? "true" : "false");
  ap.Add("stbl_extern_parser_switch_stbl_size", std::to_string(_stbl_switch_size));
  ap.Add("stbl_extern_parser_keywords", _stbl_keywords);
  ap.Add("stbl_extern_parser_blksize", std::to_string(_stbl_blk_size));
  reader.Seek(0, kiv::Position::front);
  return _root->Parse(reader, ap, true);
}

bool IMovDemux::Open(IO& io) {
  LOGI << "io.URL()=" << (io.URL() ? io.URL() : "");
  if (!Parse(io)) {
    LOGE << "!Parse(io)";
    return false;
  }
  IBox* mdat = _root->Find("mdat");
  if (!mdat) mdat = cutMdat(io);
  for (IBox* trak = _root->Find("trak"); trak && trak->FourCC() == FCC("trak"); trak = trak->Next()) {
    auto* stsd = dynamic_cast<cstsd*>(trak->Find("stsd"));
    if (!stsd || stsd->Num() < 1 || !stsd->Child()) continue;
    const std::string name = stsd->Child()->FCCString();
    // An hvc1 track counts one more: the track ids of the two codecs stand apart.
    const int id = static_cast<int>(_streams.size()) + (name == "hvc1" ? 1 : 0);
    IStream* st = IStream::New(name.c_str(), name.c_str(), id);
    if (!st) continue;
    _streams.push_back(st);
    st->DemuxConfig(mdat, trak, nullptr);
    st->DemuxReset();
  }
  Update(io);
  return true;
}

IBox* IMovDemux::cutMdat(IO& io) {
  // The tree keeps no box that runs past the end of the file. A file cut inside its media data (its
  // tables in front) still has frames to play up to the cut: the mdat is kept by its header, and the
  // first frame behind the cut ends the run in "error".
  const long long end = io.Size();
  kiv::base::IOIntReader in(io);
  long long pos = 0;
  while (pos + 8 <= end && io.Seek(pos, kiv::Position::front)) {
    const uint32_t size = in.Read32be();
    const uint32_t code = in.Read32();
    const uint64_t extended = size == 1 ? in.Read64be() : 0;
    const unsigned long long real = size == 1 ? extended : size;
    const unsigned header = size == 1 ? 16u : 8u;
    if (in.Failed() || real < header) return nullptr;
    if (code == FCC("mdat")) {
      if (static_cast<unsigned long long>(end - pos) >= real) return nullptr;
      LOGE << "mdat at " << pos << " claims " << real << " bytes; the file ends at " << end << ": cut";
      auto* mdat = dynamic_cast<cmdat*>(IBox::New(FCC("mdat")));
      if (!mdat) return nullptr;
      mdat->Size(size);
      mdat->ExtendedSize(extended);
      mdat->Offset(pos);
      mdat->_pos = static_cast<unsigned long long>(pos) + header;
      _root->Add(mdat);
      return mdat;
    }
    if (real > static_cast<unsigned long long>(end - pos)) return nullptr;
    pos += static_cast<long long>(real);
  }
  return nullptr;
}

bool IMovDemux::Update(IO& io) {
  if (auto* mvhd = _root ? dynamic_cast<cmvhd*>(_root->Find("mvhd")) : nullptr) {
    _scale.Scale(mvhd->_timescale);
    _create_time = mvhd->_createtime;
    _duration_ms = static_cast<unsigned long long>(_scale.ToMs(static_cast<long long>(mvhd->_duration)));
  }
  if (auto* mdat = _root ? dynamic_cast<cmdat*>(_root->Find("mdat")) : nullptr) {
    const long long pos = static_cast<long long>(mdat->_pos);
    io.Seek(pos, kiv::Position::front);
    LOGI << "_pos=" << pos;
    LOGI << "mdat->_pos=" << pos - (mdat->Size() == 1 ? 16 : 8);
  }
  return true;
}

bool IMovDemux::Close(IO&) { return closeTree(); }

bool IMovDemux::closeTree() {
  for (IStream*& st : _streams) {
    delete st;
    st = nullptr;
  }
  _streams.clear();
  delete _root;
  _root = nullptr;
  return true;
}

Packet* IMovDemux::produce(IStream* st, IO& io) {
  StreamDemuxer* d = st->_demuxer;
  _pts = d->CurrentPts();
  Packet* packet = d->GetPacket(io, d->GetTotalCount() - 1);
  d->Next(false);
  return packet;
}

Packet* IMovDemux::ProcessNormal(IO& io) {
  IStream* chosen = nullptr;
  int videos = 0;
  for (IStream* st : _streams) {
    StreamDemuxer* d = st ? st->_demuxer : nullptr;
    if (!d) continue;
    if (st->Media() && st->Media()->IsVideo() && videos++ != _video_index) continue;
    if (d->CurrentIsInvalid() || (d->CurrentIsEnd() && d->CurrentIsUsed())) continue;
    if (!chosen || d->CurrentPos() < chosen->_demuxer->CurrentPos()) chosen = st;
  }
  if (!chosen || chosen->_demuxer->CurrentIsInvalid()) return nullptr;
  return produce(chosen, io);
}

IStream* IMovDemux::videoTrack() {
  int videos = 0;
  for (IStream* st : _streams)
    if (st && st->_demuxer && st->Media() && st->Media()->IsVideo() && videos++ == _video_index) return st;
  return nullptr;
}

IStream* IMovDemux::audioTrack() {
  for (IStream* st : _streams)
    if (st && st->_demuxer && st->Media() && st->Media()->IsAudio()) return st;
  return nullptr;
}

Packet* IMovDemux::ProcessVideo(IO& io) {
  IStream* st = videoTrack();
  if (!st || st->_demuxer->CurrentIsInvalid() || (st->_demuxer->CurrentIsEnd() && st->_demuxer->CurrentIsUsed()))
    return nullptr;
  return produce(st, io);
}

Packet* IMovDemux::ProcessAudio(IO& io) {
  IStream* st = audioTrack();
  if (!st || st->_demuxer->CurrentIsInvalid() || (st->_demuxer->CurrentIsEnd() && st->_demuxer->CurrentIsUsed()))
    return nullptr;
  return produce(st, io);
}

Packet* IMovDemux::ProcessFast(IO& io) {
  IStream* st = videoTrack();
  if (!st) return nullptr;
  StreamDemuxer* d = st->_demuxer;
  if (!d->Next(true) || d->CurrentIsInvalid()) return nullptr;
  if (d->CurrentIsLastKey() && d->CurrentIsUsed()) return nullptr;
  _pts = d->CurrentPts();
  return d->GetPacket(io, d->GetLastKeyFrame());
}

Packet* IMovDemux::ProcessBack(IO& io) {
  IStream* st = videoTrack();
  if (!st) return nullptr;
  StreamDemuxer* d = st->_demuxer;
  if (!d->Prev(true) || d->CurrentIsInvalid()) return nullptr;
  if (d->CurrentIsBegin() && d->CurrentIsUsed()) return nullptr;
  _pts = d->CurrentPts();
  return d->GetPacket(io, 0);
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
