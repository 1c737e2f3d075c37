#include "stream/plugin/mp4/common/StreamJpeg.h"

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
#include "stream/plugin/mp4/common/VideoEntry.h"
#include "stream/plugin/mp4/demux/StreamDemuxer.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::Fraction;

namespace {

void releasePacket(Packet*& p) { kiv::base::Release(p); }

}  // namespace

StreamJpeg::StreamJpeg() : IStream("mjpg") {}

StreamJpeg::~StreamJpeg() {
  delete _fifo;
  _fifo = nullptr;
}

// ---------------------------------------------------------------- the trak tree

bool StreamJpeg::muxConfig(kiv::base::Object* tagsObject) {
  videoTags* tags = profileOf(tagsObject);
  if (!tags) return false;
  const MuxerParam& para = param();
  const unsigned char version = _version1 ? 1 : 0;

  const long long num = _frameRate.Num();
  const long long den = _frameRate.Den();
  if (para.rsvdSeconds > 0 && !_concate) _rsvdSize = den ? static_cast<unsigned>(num * para.rsvdSeconds / den) : 0;
  if (Debug()) LOGL << "Video rsvdSize: " << _rsvdSize;
  // Reservations of the tables on file for the planned number of frames N.
  const long long planned = den ? static_cast<long long>(_planSeconds) * num / den : 0;
  const unsigned vspc = tags->videosampleperchunk;

  auto* trak = new ctrak();
  _trak = trak;
  auto* tkhd = new ctkhd(version);
  trak->Add(tkhd);
  auto* vmhd = new cvmhd();
  const MediaBoxes media = addMediaBoxes(trak, version, true, tags->video_track_lang_id, vmhd,
                                         tags->video_handler_minf_present, tags->vidhandlerrefcomname,
                                         tags->vidhandlerrefcomnamelen, tags->datareftype);
  auto* stbl = new cstbl(_rsvdSize);
  media.minf->Add(stbl);
  auto* stsd = new cstsd();
  stbl->Add(stsd);
  addCountedStts(stbl, tags, para.fixedRate ? 32 : 8 * planned);
  addTable(stbl, StblKind::stss, tags, 4 * planned);
  addTable(stbl, StblKind::stsc, tags, vspc <= 1 ? 32768 : 12 * planned / vspc);
  addTable(stbl, StblKind::stsz, tags, 4 * planned);
  if (_use64)
    addTable(stbl, StblKind::co64, tags, 8 * planned);
  else
    addTable(stbl, StblKind::stco, tags, 4 * planned);
  auto* jpeg = new cjpeg();
  stsd->Add(jpeg);
  if (tags->video_has_color_param) jpeg->Add(NewVideoColr(*tags));
  _chunkList = stbl->ChunkList();

  // ---- the fields
  int width = 1920;
  int height = 1080;
  if (const char* missing = ReadPictureSize(_media, width, height)) {
    LOGE << missing;
    return false;
  }
  LOGI << "width : " << width << "," << "height : " << height;

  _scale.Scale(tags->timescale);
  tkhd->_track_id = static_cast<unsigned>(_trackId);
  tkhd->_width = static_cast<unsigned short>(width);
  tkhd->_height = static_cast<unsigned short>(height);
  tkhd->Flags(15);
  FillVideoMedia(media, *vmhd, *tags, FCC("mhlr"));
  FillVisualEntry(*jpeg, *tags, width, height, 512, 512);

  if (vspc < 2) return true;
  _groupFrames = static_cast<int>(vspc);
  const int capacity = static_cast<int>(2 * vspc);
  delete _fifo;
  _fifo = new PacketFifo(capacity, releasePacket);
  if (_fragmented) allocScratch(2 * vspc);
  _chunkLeads = tags->audio_chunk_first ? 0 : 1;
  _firstChunkMs = 0;
  return true;
}

void StreamJpeg::ConcateModeUpdate() { concateFill(); }

// ---------------------------------------------------------------- samples

int StreamJpeg::MuxOffset(const Packet&) { return 0; }

int StreamJpeg::AddChunk(const Packet& packet, unsigned long long offset, int flag) {
  const size_t before = _chunkList ? _chunkList->size() : 0;
  const int size = IStream::AddChunk(packet, offset, flag);
  if (!_chunkList || _chunkList->size() == before) return size;
  ChunkParam& r = _chunkList->back();
  // The record's count stays 1 in a group: stsc comes from the walk over the records' offsets.
  if (_addSamples) r.count += _addSamples;
  if (param().fixedRate) {
    auto zero = [](const Fraction& f) { return f.Den() == 0 || f.Num() / f.Den() == 0; };
    if (zero(_frameRate) && packet.media) packet.media->Get("framerate", _frameRate);
    if (zero(_frameRate)) return size;
    r.duration = static_cast<uint32_t>(_frameRate.Den() * _scale.Scale() / _frameRate.Num());
  }
  return size;
}

long long StreamJpeg::writeGroup(IO& io, unsigned n, bool write) {
  long long sum = 0;
  for (unsigned i = 0; i < n; ++i) {
    Packet* p = nullptr;
    if (!_fifo->pop(p) || !p) break;
    AddChunk(*p, 0, 0);
    if (write && p->Data() && p->Size() > 0) {
      const long long w = io.Write(p->Data(), p->Size());
      if (w > 0) sum += w;
    }
    if (i + 1 < n) ConcateModeUpdate();
    kiv::base::Release(p);
  }
  return sum;
}

long long StreamJpeg::AddData(IO& io, Packet& packet, unsigned long long leader) {
  const long long pos = io.Position();
  const int size = packet.Size();
  if (!_fifo) {
    AddChunk(packet, size ? static_cast<unsigned long long>(pos) : 0, 0);
    long long written = 0;
    if (size > 0 && packet.Data()) written = io.Write(packet.Data(), size);
    ConcateModeUpdate();
    return written > 0 ? written : 0;
  }

  const bool held = holdInFifo(*_fifo, packet);
  if (_fragmented) {
    if (held)
      pushScratch(static_cast<unsigned>(size), static_cast<uint16_t>(_scale.FromMs(packet.duration / 1000000)));
  } else if (_chunkLeads == 0 && !mdatHasContent()) {
    return 0;  // a following track writes nothing before the leader has
  }
  const unsigned group = static_cast<unsigned>(_groupFrames);
  if (_fifo->Size() < _groupFrames) return 0;
  if (_chunkLeads == 0 && static_cast<unsigned long long>(_duration) + _firstChunkMs / 2 > leader) return 0;

  if (_fragmented) {
    createmoof(io, true, group, static_cast<unsigned>(_firstPts), false);
    const unsigned rest = _sizeCount > group ? _sizeCount - group : 0;
    if (rest) {
      std::memmove(_sizeList, _sizeList + group, rest * sizeof(unsigned));
      std::memmove(_ptsList, _ptsList + group, rest * sizeof(unsigned));
    }
    _sizeCount = rest;
    _ptsCount = rest;
  }

  const long long sum = writeGroup(io, group, size != 0);
  if (_chunkList && !_chunkList->empty()) _chunkList->back().offset = size ? static_cast<unsigned long long>(pos) : 0;
  ++_chunkCount;
  if (_chunkCount == 1) _firstChunkMs = static_cast<unsigned long long>(_duration);
  ConcateModeUpdate();
  return sum;
}

bool StreamJpeg::CleanFifoData(IO& io, unsigned long long) {
  if (!_fifo || _groupFrames < 1) return true;
  const unsigned group = static_cast<unsigned>(_groupFrames);
  // Only whole groups: a rest smaller than a group goes with the fifo.
  while (_fifo->Size() >= _groupFrames) {
    const long long pos = io.Position();
    if (_fragmented) {
      createmoof(io, true, group, static_cast<unsigned>(_firstPts), false);
      _sizeCount = 0;
      _ptsCount = 0;
    }
    const long long sum = writeGroup(io, group, true);
    if (_chunkList && !_chunkList->empty()) _chunkList->back().offset = static_cast<unsigned long long>(pos);
    growMdat(sum);
    ConcateModeUpdate();
  }
  return true;
}

// ---------------------------------------------------------------- demuxing

bool StreamJpeg::demuxConfig(kiv::base::Object*) {
  if (!newDemuxMedia("jpeg")) return false;
  auto* jpeg = _trak ? dynamic_cast<cjpeg*>(_trak->Find("jpeg")) : nullptr;
  if (!jpeg) {
    LOGE << "!jpeg";
    return false;
  }
  _media->Set("width", static_cast<long long>(jpeg->_width));
  _media->Set("height", static_cast<long long>(jpeg->_height));
  if (_demuxer) {
    _media->SetWithType("framerate", _demuxer->GetFrameRate());
    _media->Set("bitrate", static_cast<long long>(_demuxer->GetBitRate()));
  }
  return true;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMovStreamJpeg() {
  using kiv::plugin::mov::StreamJpeg;
  using P = kiv::base::TProperty<StreamJpeg>;
  kiv::plugin::mov::Reflect<StreamJpeg>("MovStreamJpeg-mov-stream-jpeg-mjpg-jpg",
                                        {P::Member("frameRate", &StreamJpeg::_frameRate)}, "quor");
}
