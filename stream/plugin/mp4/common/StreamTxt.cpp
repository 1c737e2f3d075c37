#include "stream/plugin/mp4/common/StreamTxt.h"

#include <cstring>

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "stream/plugin/mp4/common/StblFile.h"
#include "stream/plugin/mp4/common/Stsd.h"

namespace kiv {
namespace plugin {
namespace mov {

StreamTxt::StreamTxt() : IStream("text") {}

bool StreamTxt::muxConfig(kiv::base::Object* tagsObject) {
  if (!tagsObject) return false;
  videoTags* tags = profileOf(tagsObject);
  if (!tags) return false;
  if (_media) _media->Get("framerate", _frameRate);  // a track without a rate still works

  const unsigned char version = _version1 ? 1 : 0;
  auto* trak = new ctrak();
  _trak = trak;
  auto* tkhd = new ctkhd(version);
  trak->Add(tkhd);
  auto* gmhd = new cgmhd();
  gmhd->Add(new cgmin());
  const MediaBoxes media = addMediaBoxes(trak, version, false, tags->video_track_lang_id, gmhd, false, nullptr, 0,
                                         tags->datareftype);
  auto* stbl = new cstbl(_rsvdSize);
  media.minf->Add(stbl);
  auto* stsd = new cstsd();
  stbl->Add(stsd);

  // Reservations on file for the samples the media's rate plans for.
  const long long num = _frameRate.Num();
  const long long den = _frameRate.Den();
  const long long planned = den ? static_cast<long long>(_planSeconds) * num / den : 0;
  const unsigned vspc = tags->videosampleperchunk;
  addTable(stbl, StblKind::stts, tags, 8 * planned);
  addTable(stbl, StblKind::stsc, tags, vspc <= 1 ? 32 : 12 * planned / vspc);
  addTable(stbl, StblKind::stsz, tags, 4 * planned);
  if (_use64)
    addTable(stbl, StblKind::co64, tags, 8 * planned);
  else
    addTable(stbl, StblKind::stco, tags, 4 * planned);
  stsd->Add(new ctext());
  _chunkList = stbl->ChunkList();

  _scale.Scale(tags->timescale);
  tkhd->_width = 0;
  tkhd->_height = 0;
  tkhd->_track_id = static_cast<unsigned>(_trackId);
  tkhd->Flags(tags->tkhd_flags);
  if (tags->video_track_matrix) std::memcpy(tkhd->_matrix, tags->video_track_matrix, sizeof tkhd->_matrix);
  media.mdhd->_timescale = tags->timescale;
  media.hdlr->_component_type = tags->video_handler_type;
  media.hdlr->_component_subtype = FCC("text");
  media.hdlr->_component_manufacturer = tags->manufacturer;
  media.hdlr->ComponentName(tags->vidhandercomname, tags->vidhandercomnamelen);
  media.alis->Flags(1);
  return true;
}

void StreamTxt::ConcateModeUpdate() { concateFill(); }

int StreamTxt::AddChunk(const Packet& packet, unsigned long long offset, int flag) {
  return IStream::AddChunk(packet, offset, flag);
}

long long StreamTxt::WriteData(IO& io, Packet& packet) {
  if (!packet.Data() || packet.Size() <= 0) return 0;
  const long long written = io.Write(packet.Data(), packet.Size());
  return written > 0 ? written : 0;
}

long long StreamTxt::AddData(IO& io, Packet& packet, unsigned long long) {
  const long long pos = io.Position();
  AddChunk(packet, static_cast<unsigned long long>(pos), 0);
  const long long written = WriteData(io, packet);
  ConcateModeUpdate();
  return written;
}

bool StreamTxt::demuxConfig(kiv::base::Object*) { return newDemuxMedia("txt"); }

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMovStreamTxt() {
  using kiv::plugin::mov::StreamTxt;
  using P = kiv::base::TProperty<StreamTxt>;
  kiv::plugin::mov::Reflect<StreamTxt>("MovStreamTxt-mov-stream-txt", {P::Member("frameRate", &StreamTxt::_frameRate)},
                                       "quor");
}
