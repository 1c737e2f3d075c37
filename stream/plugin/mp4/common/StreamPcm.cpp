#include "stream/plugin/mp4/common/StreamPcm.h"

#include <algorithm>
#include <cstring>

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/AudioEntry.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "stream/plugin/mp4/common/StblFile.h"
#include "stream/plugin/mp4/common/Stsd.h"

namespace kiv {
namespace plugin {
namespace mov {

StreamPcm::StreamPcm() : IStream("araw") {}

StreamPcm::~StreamPcm() {
  delete _fifo;
  _fifo = nullptr;
}

// ---------------------------------------------------------------- the trak tree

bool StreamPcm::muxConfig(kiv::base::Object* tagsObject) {
  videoTags* tags = profileOf(tagsObject);
  if (!tags) return false;
  int rate = 0, chn = 0, width = 0, depth = 0, samples = 0;
  const std::string missing = ReadAudioKeys(_media, rate, chn, width, depth, "samples", samples);
  if (!missing.empty()) {
    LOGI << missing;
    return false;
  }
  // A forged media could ask for anything; the file's fields hold 16 bits.
  if (rate <= 0 || (chn < 3 && rate > 0xffff) || chn <= 0 || chn > 0xffff || width <= 0 || width > 8 || samples < 0) {
    LOGE << "rate " << rate << ", channel " << chn << ", width " << width << ", samples " << samples;
    return false;
  }

  const MuxerParam& para = param();
  ctkhd* tkhd = nullptr;
  const MediaBoxes media = NewAudioTrak(*tags, _version1, _trak, tkhd);

  if (para.rsvdSeconds > 0 && !_concate)
    _rsvdSize = samples ? static_cast<unsigned>(static_cast<long long>(rate) * para.rsvdSeconds / samples) : 0;
  if (Debug()) LOGL << "Audio rsvdSize: " << _rsvdSize;

  auto* stbl = new cstbl(_rsvdSize);
  media.minf->Add(stbl);
  auto* stsd = new cstsd();
  stbl->Add(stsd);

  // Reservations of the tables on file for the planned number of packets.
  const long long planned = samples ? static_cast<long long>(rate) * _planSeconds / samples : 0;
  const unsigned aspc = tags->audiosampleperchunk;
  addCountedStts(stbl, tags, para.fixedRate ? 32 : 8 * planned);
  addTable(stbl, StblKind::stsc, tags, aspc <= 1 ? 32 : 12 * planned / aspc);
  addTable(stbl, StblKind::stsz, tags, 32);
  if (_use64)
    addTable(stbl, StblKind::co64, tags, 8 * planned);
  else
    addTable(stbl, StblKind::stco, tags, 4 * planned);

  // A record counts sample frames, so every "sample" of the table is one frame of this size.
  _audSampSize = static_cast<unsigned>(chn * width);
  if (auto* stsz = dynamic_cast<cstsz*>(stbl->Find("stsz"))) stsz->_size = _audSampSize;
  LOGI << "_sample_size: " << _audSampSize;
  LOGI << "_audSampSize: " << _audSampSize;
  LOGI << "width: " << width << ", chn: " << chn;

  if (chn < 3) {
    auto* sowt = new csowt();
    sowt->_channels = static_cast<uint16_t>(chn);
    sowt->_sample_size = static_cast<uint16_t>(depth);
    sowt->_compression_id = tags->audio_compression_id;
    sowt->_packet_size = 0;
    sowt->_sample_rate = static_cast<uint16_t>(rate);
    sowt->_sample_rate_fraction = 0;
    stsd->Add(sowt);
  } else {
    // More channels than the plain entry tells: the version-2 form with its channel layout.
    auto* lpcm = new clpcm();
    lpcm->_word_b = camsi::RateHighWord(static_cast<unsigned>(rate));
    lpcm->_word_c = 0;
    lpcm->_word_d = static_cast<uint32_t>(chn);
    lpcm->_bytes_per_audio_packet = 2u * static_cast<unsigned>(chn);
    auto* chan = new cchan();
    chan->_channels = static_cast<uint16_t>(chn);
    lpcm->Add(chan);
    stsd->Add(lpcm);
  }

  // ---- the fields
  _chunkList = stbl->ChunkList();
  _rate = static_cast<unsigned>(rate);
  _scale.Scale(rate);
  FillAudioHeaders(*tkhd, media, *tags, _trackId, static_cast<unsigned>(rate));

  if (aspc <= 1) return true;
  const unsigned long long chunkBytes = static_cast<unsigned long long>(aspc) * _audSampSize;
  if (chunkBytes * 2 > static_cast<unsigned long long>(Packet::kMaxBuffer)) {
    LOGE << "audiosampleperchunk " << aspc << " makes chunks of " << chunkBytes << " bytes";
    return false;
  }
  _chunkBytes = static_cast<unsigned>(chunkBytes);
  delete _fifo;
  _fifo = new kiv::base::FifoBuffer(Name(), static_cast<int>(2 * _chunkBytes));
  if (_fragmented) allocScratch(2 * _chunkBytes);
  _chunkLeads = tags->audio_chunk_first;
  _chunkMs = 1000ull * aspc / static_cast<unsigned>(rate);
  return true;
}

void StreamPcm::ConcateModeUpdate() { concateFill(); }

bool StreamPcm::muxUpdate() {
  if (!_fifo || !_trak || !param().fixedRate || !_chunkList || _chunkList->empty()) return true;
  if (auto* mdhd = dynamic_cast<cmdhd*>(_trak->Find("mdhd")))
    mdhd->_duration = static_cast<unsigned long long>(_chunkList->front().count) * _chunkList->size();
  return true;
}

// ---------------------------------------------------------------- samples

int StreamPcm::AddChunk(const Packet& packet, unsigned long long offset, int) {
  if (packet.Size() < 1) return 0;
  const unsigned frames = _audSampSize ? static_cast<unsigned>(packet.Size()) / _audSampSize : 0;
  ChunkParam r;
  r.offset = offset;
  r.size = frames;
  r.duration = 1;
  r.count = frames;
  r.packetSpan = static_cast<uint16_t>(_scale.FromMs(packet.clock / 1000000));
  r.descIndex = 1;
  r.flags = 0;
  if (_chunkList)
    _chunkList->push_back(r);
  else
    LOGE << "!_chunkList";
  ++_entryCount;
  _elapsed += packet.duration;
  _duration = _elapsed / 1000000;
  return packet.Size();
}

void StreamPcm::dropScratch(unsigned bytes) {
  unsigned i = 0;
  while (i < _sizeCount && bytes >= _sizeList[i]) bytes -= _sizeList[i++];
  if (i < _sizeCount) _sizeList[i] -= bytes;
  const unsigned rest = _sizeCount - i;
  if (rest && i) {
    std::memmove(_sizeList, _sizeList + i, rest * sizeof(unsigned));
    std::memmove(_ptsList, _ptsList + i, rest * sizeof(unsigned));
  }
  _sizeCount = rest;
  _ptsCount = rest;
}

void StreamPcm::growFifo(int more) {
  // A following track waiting for its leader (or for the end, when there is none) holds more than
  // two chunks; the fifo grows then, as the packet fifos of the other tracks do, so that no sample is
  // lost. Not in fragment mode, whose scratch arrays are sized from the fifo.
  if (_fragmented) return;
  const long long want = static_cast<long long>(_fifo->Size()) + more;
  long long cap = _fifo->Capacity();
  while (cap < want && cap < kMaxFifoBytes) cap *= 2;
  if (cap > kMaxFifoBytes) cap = kMaxFifoBytes;
  if (cap <= _fifo->Capacity()) return;
  auto* grown = new kiv::base::FifoBuffer(Name(), static_cast<int>(cap));
  const int held = _fifo->Size();
  if (held > 0) grown->Write(_fifo->Read(held), held);
  delete _fifo;
  _fifo = grown;
}

long long StreamPcm::writeChunk(IO& io, long long durationNs) {
  const long long pos = io.Position();
  const unsigned char* bytes = _fifo->Read(static_cast<int>(_chunkBytes));
  if (!bytes) return 0;
  // A packet for the record only; it dies here.
  Packet* chunk = kiv::stream::PacketAlloc(0);
  if (!chunk || !chunk->Assign(bytes, static_cast<int>(_chunkBytes))) {
    LOGE << "!chunk";
    if (chunk) kiv::base::Release(chunk);
    return 0;
  }
  chunk->duration = durationNs;
  AddChunk(*chunk, static_cast<unsigned long long>(pos), 0);
  const long long written = io.Write(chunk->Data(), chunk->Size());
  kiv::base::Release(chunk);
  return written > 0 ? written : 0;
}

long long StreamPcm::AddData(IO& io, Packet& packet, unsigned long long leader) {
  if (!_fifo) {
    const long long pos = io.Position();
    AddChunk(packet, static_cast<unsigned long long>(pos), 0);
    long long written = 0;
    if (packet.Data() && packet.Size() > 0) written = io.Write(packet.Data(), packet.Size());
    if (written > 0) ConcateModeUpdate();
    return written > 0 ? written : 0;
  }

  if (packet.Size() > 0 && packet.Data()) {
    if (packet.Size() > _fifo->Free()) growFifo(packet.Size());
    const int taken = _fifo->Write(packet.Data(), packet.Size());
    if (_fragmented && taken > 0) pushScratch(static_cast<unsigned>(taken), 1);
  }
  if (!_fragmented && _chunkLeads == 0 && !mdatHasContent()) return 0;
  if (static_cast<unsigned>(_fifo->Size()) < _chunkBytes) return 0;
  if (_chunkLeads == 0 && static_cast<unsigned long long>(_duration) + _chunkMs / 2 > leader) return 0;

  // The chunk lasts its share of the packet that completed it.
  const long long duration = packet.Size() > 0 ? packet.duration * static_cast<long long>(_chunkBytes) / packet.Size() : 0;
  const long long written = writeChunk(io, duration);
  if (_fragmented) {
    createmoof(io, false, _chunkBytes, static_cast<unsigned>(_firstPts), false);
    dropScratch(_chunkBytes);
  }
  if (written > 0) ConcateModeUpdate();
  return written;
}

bool StreamPcm::CleanFifoData(IO& io, unsigned long long videoDuration) {
  if (!_fifo) return true;
  // The audio has reached the end of the picture.
  if (videoDuration != 0 && videoDuration < static_cast<unsigned long long>(_duration) + _chunkMs) return true;
  while (static_cast<unsigned>(_fifo->Size()) >= _chunkBytes && _chunkBytes) {
    // A byte count taken as a count of samples: the tail's records last that long.
    const long long duration = _scale.ToMs(_chunkBytes) * 1000000;
    if (_fragmented) {
      createmoof(io, false, _chunkBytes, static_cast<unsigned>(_firstPts), true);
      _sizeCount = 0;
      _ptsCount = 0;
    }
    const long long written = writeChunk(io, duration);
    growMdat(written);
    ConcateModeUpdate();
    if (written <= 0) break;
  }
  return true;
}

// ---------------------------------------------------------------- demuxing

bool StreamPcm::demuxConfig(kiv::base::Object*) {
  if (!newDemuxMedia("pcm")) return false;
  auto* sowt = _trak ? dynamic_cast<csowt*>(_trak->Find("sowt")) : nullptr;
  if (!sowt) {
    LOGE << "!sowt";
    return false;
  }
  _media->Set("rate", static_cast<int>(sowt->_sample_rate));
  _media->Set("channel", static_cast<int>(sowt->_channels));
  _media->Set("depth", static_cast<int>(sowt->_sample_size));
  _media->Set("width", static_cast<int>(sowt->_sample_size >> 3));
  _rate = sowt->_sample_rate;
  return _trak->Find("stsz") != nullptr;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMovStreamPcm() {
  kiv::plugin::mov::Reflect<kiv::plugin::mov::StreamPcm>("MovStreamPcm-mov-stream-pcm-sowt-s16le", {}, "quor");
}
