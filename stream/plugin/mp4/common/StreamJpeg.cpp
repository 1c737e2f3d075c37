#include "stream/plugin/mp4/common/StreamJpeg.h"

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "stream/plugin/mp4/common/StblFile.h"
#include "stream/plugin/mp4/common/Stsd.h"
#include "stream/plugin/mp4/common/VideoChunks.h"
#include "stream/plugin/mp4/common/VideoEntry.h"
#include "stream/plugin/mp4/demux/StreamDemuxer.h"

namespace kiv {
namespace plugin {
namespace mov {

namespace {

void releasePacket(Packet*& p) { kiv::base::Release(p); }

// The picture's bytes go to the file untouched.
long long writeSample(IStream&, IO& io, Packet& packet) {
  if (!packet.Data() || packet.Size() <= 0) return 0;
  const long long written = io.Write(packet.Data(), packet.Size());
  return written > 0 ? written : 0;
}

// A group closed by an empty packet is recorded without its bytes.
long long recordOnly(IStream&, IO&, Packet&) { return 0; }

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
  // The record's count stays 1 in a group: stsc comes from the walk over the records' offsets.
  return VideoChunks::Record(*this, packet, offset, flag, 1, _frameRate);
}

long long StreamJpeg::AddData(IO& io, Packet& packet, unsigned long long leader) {
  const VideoChunks::Write write = packet.Size() != 0 ? writeSample : recordOnly;
  return VideoChunks(*this, _fifo, _firstChunkMs, _chunkCount, write)
      .Add(io, packet, leader, static_cast<unsigned>(_groupFrames));
}

bool StreamJpeg::CleanFifoData(IO& io, unsigned long long) {
  if (_groupFrames < 1) return true;
  VideoChunks(*this, _fifo, _firstChunkMs, _chunkCount, writeSample).Flush(io, static_cast<unsigned>(_groupFrames));
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
