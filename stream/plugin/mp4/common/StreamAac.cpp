#include "stream/plugin/mp4/common/StreamAac.h"

#include <algorithm>
#include <cstring>

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/AudioEntry.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/Mp4aEntry.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "stream/plugin/mp4/common/StblFile.h"
#include "stream/plugin/mp4/common/Stsd.h"

namespace kiv {
namespace plugin {
namespace mov {


namespace {

void releasePacket(Packet*& p) { kiv::base::Release(p); }

constexpr unsigned kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
constexpr unsigned kChannels[] = {0, 1, 2, 3, 4, 5, 6, 8};

}  // namespace

StreamAac::StreamAac() : IStream("mp4a") {}

StreamAac::~StreamAac() {
  delete _fifo;
  _fifo = nullptr;
}

// ---------------------------------------------------------------- the trak tree

bool StreamAac::muxConfig(kiv::base::Object* tagsObject) {
  videoTags* tags = profileOf(tagsObject);
  if (!tags) return false;
  int rate = 0, chn = 0, width = 0, depth = 0, bitrate = 0;
  const std::string missing = ReadAudioKeys(_media, rate, chn, width, depth, "bitrate", bitrate);
  if (!missing.empty()) {
    LOGI << missing;
    return false;
  }

  const MuxerParam& para = param();
  ctkhd* tkhd = nullptr;
  const MediaBoxes media = NewAudioTrak(*tags, _version1, _trak, tkhd);

  // Printed ahead of the computation, so it shows the reservation the track had before.
  if (Debug()) LOGL << "Audio rsvdSize: " << _rsvdSize;
  if (para.rsvdSeconds > 0 && !_concate)
    _rsvdSize = static_cast<unsigned>(static_cast<long long>(rate) * para.rsvdSeconds / 1024);

  auto* stbl = new cstbl(_rsvdSize);
  media.minf->Add(stbl);
  auto* stsd = new cstsd();
  stbl->Add(stsd);

  // Reservations of the tables on file for the planned number of frames, rate * planSeconds / 1024,
  // truncated once.
  const long long frames64 = static_cast<long long>(rate) * _planSeconds;
  auto reserve = [&](long long k) -> long long { return (k * frames64) >> 10; };
  const unsigned aspc = tags->audiosampleperchunk;
  // The reservations count only for tables on file.
  addTable(stbl, StblKind::stts, tags, para.fixedRate ? 32 : reserve(8));
  addTable(stbl, StblKind::stsc, tags, aspc <= 1 ? 32 : reserve(12) / aspc);
  addTable(stbl, StblKind::stsz, tags, reserve(4));
  if (_use64)
    addTable(stbl, StblKind::co64, tags, reserve(8));
  else
    addTable(stbl, StblKind::stco, tags, reserve(4));
  stsd->Add(NewMp4aEntry(*tags, *_media, rate, chn, depth, bitrate));

  // ---- the fields
  _chunkList = stbl->ChunkList();
  _scale.Scale(rate);
  FillAudioHeaders(*tkhd, media, *tags, _trackId, static_cast<unsigned>(rate));

  _media->Get("adtslen", _adtslen);
  _media->Get("frmSampNum", _frmSampNum);

  _spc = tags->audiosampleperchunk;
  if (_spc < 2) return true;
  _groupFrames = static_cast<int>(_frmSampNum ? _spc / _frmSampNum + 1 : 1);
  _chunkExcess = static_cast<uint32_t>(_groupFrames) * _frmSampNum - _spc;
  const int capacity = 2 * _groupFrames;
  delete _fifo;
  _fifo = new PacketFifo(capacity, releasePacket);
  if (_fragmented) allocScratch(static_cast<unsigned>(capacity));
  _chunkLeads = tags->audio_chunk_first;
  _chunkMs = rate ? 1000ull * _spc / static_cast<unsigned>(rate) : 0;
  return true;
}

void StreamAac::ConcateModeUpdate() { concateFill(); }

// ---------------------------------------------------------------- samples

int StreamAac::MuxOffset(const Packet&) { return static_cast<int>(_adtslen); }

int StreamAac::AddChunk(const Packet& packet, unsigned long long offset, int) {
  if (packet.Size() < 0) return 0;
  // Audio time comes from the sample count, not from the packets' time stamps.
  ChunkParam r;
  r.offset = offset;
  r.size = static_cast<uint32_t>(packet.Size());
  r.duration = static_cast<uint16_t>(_frmSampNum);
  r.count = static_cast<uint32_t>(_groupFrames);
  r.packetSpan = static_cast<uint16_t>(_scale.FromMs(packet.clock / 1000000));
  r.descIndex = 1;
  r.flags = 0;
  if (_chunkList)
    _chunkList->push_back(r);
  else
    LOGE << "!_chunkList";
  ++_entryCount;
  _sampleTotal += _frmSampNum;
  _duration = _scale.ToMs(static_cast<long long>(_sampleTotal));
  return packet.Size();
}

long long StreamAac::writeGroup(IO& io, unsigned n) {
  long long sum = 0;
  for (unsigned i = 0; i < n; ++i) {
    Packet* p = nullptr;
    if (!_fifo->pop(p) || !p) break;
    AddChunk(*p, 0, 0);
    if (p->Size() > 0) {
      const long long w = io.Write(p->Data(), p->Size());
      if (w > 0) sum += w;
    }
    if (i + 1 < n) ConcateModeUpdate();
    kiv::base::Release(p);
  }
  return sum;
}

long long StreamAac::AddData(IO& io, Packet& packet, unsigned long long leader) {
  const long long pos = io.Position();
  if (!_fifo) {
    AddChunk(packet, static_cast<unsigned long long>(pos), 0);
    long long written = 0;
    if (packet.Size() > 0) written = io.Write(packet.Data(), packet.Size());
    ConcateModeUpdate();
    return written;
  }

  const bool held = holdInFifo(*_fifo, packet);
  if (_fragmented) {
    if (held) pushScratch(static_cast<unsigned>(packet.Size()), _frmSampNum);
  } else if (_chunkLeads == 0 && !mdatHasContent()) {
    return 0;  // a following track writes nothing before the leader has
  }
  if (_fifo->Size() < _groupFrames) return 0;
  if (_chunkLeads == 0 && static_cast<unsigned long long>(_duration) + _chunkMs / 2 > leader) return 0;

  const unsigned group = static_cast<unsigned>(_groupFrames);
  if (_fragmented) {
    createmoof(io, false, group, static_cast<unsigned>(_firstPts), false);
    const unsigned rest = _sizeCount > group ? _sizeCount - group : 0;
    if (rest) std::memmove(_sizeList, _sizeList + group, rest * sizeof(unsigned));
    for (unsigned i = 0; i < rest; ++i) _ptsList[i] = _frmSampNum;
    _sizeCount = rest;
    _ptsCount = rest;
  }

  const long long sum = writeGroup(io, group);

  // The next chunk: whole frames, but on the long run _spc samples a chunk. Records made so far are
  // the samples written; the list itself may have spilled or been handed to the tables.
  ++_chunkCount;
  _chunkExcess = _spc * _chunkCount - _frmSampNum * _entryCount;
  _groupFrames = static_cast<int>(_frmSampNum ? (_spc + _chunkExcess) / _frmSampNum + 1 : 1);

  if (_chunkList && !_chunkList->empty()) _chunkList->back().offset = static_cast<unsigned long long>(pos);
  ConcateModeUpdate();
  return sum;
}

bool StreamAac::CleanFifoData(IO& io, unsigned long long videoDuration) {
  if (!_fifo) return true;
  unsigned long long frmcnt = 0;
  if (videoDuration == 0) {
    // No video: everything goes out.
    frmcnt = static_cast<unsigned long long>(_fifo->Size());
  } else {
    // Audio behind the end of the video stays out of the file.
    if (static_cast<long long>(videoDuration) < _duration) return true;
    int rate = 0;
    if (!_media || !_media->Get("rate", rate)) {
      LOGI << "!_media->Get(\"rate\", rate)";
      return false;
    }
    frmcnt = _frmSampNum ? (videoDuration - static_cast<unsigned long long>(_duration)) *
                               static_cast<unsigned long long>(rate) / 1000 / _frmSampNum
                         : 0;
    LOGI << "rate=" << rate;
    LOGI << "_duration=" << _duration;
    LOGI << "videodur=" << videoDuration;
    LOGI << "frmcnt=" << frmcnt;
    LOGI << "_frmSampNum=" << _frmSampNum;
    frmcnt = std::min<unsigned long long>(frmcnt, static_cast<unsigned long long>(_fifo->Size()));
    LOGI << "_fifo->Size()=" << _fifo->Size();
  }
  while (frmcnt) {
    unsigned long long n = static_cast<unsigned>(_groupFrames);
    if (n > frmcnt) {
      n = frmcnt;
      _groupFrames = static_cast<int>(frmcnt);
    }
    if (n == 0) break;
    const long long pos = io.Position();
    if (_fragmented) {
      createmoof(io, false, static_cast<unsigned>(_groupFrames), static_cast<unsigned>(_firstPts), true);
      _sizeCount = 0;
      _ptsCount = 0;
    }
    const long long sum = writeGroup(io, static_cast<unsigned>(n));
    if (_chunkList && !_chunkList->empty()) _chunkList->back().offset = static_cast<unsigned long long>(pos);
    growMdat(sum);
    frmcnt -= n;
    ConcateModeUpdate();
  }
  return true;
}

// ---------------------------------------------------------------- ADTS

void StreamAac::AdtsHeader(unsigned rate, unsigned channels, unsigned char out[7]) {
  unsigned ri = 13;
  for (unsigned i = 0; i < sizeof kRates / sizeof kRates[0]; ++i)
    if (kRates[i] == rate) {
      ri = i;
      break;
    }
  unsigned ci = 8;
  for (unsigned i = 0; i < sizeof kChannels / sizeof kChannels[0]; ++i)
    if (kChannels[i] == channels) {
      ci = i;
      break;
    }
  out[0] = 0xFF;
  out[1] = 0xF1;  // MPEG-4, layer 0, no CRC
  out[2] = static_cast<unsigned char>(0x40 | (ri << 2) | (ci >> 2));  // AAC LC
  out[3] = static_cast<unsigned char>((ci << 6) & 0xFF);
  out[4] = 0x00;
  out[5] = 0x1F;  // buffer fullness 0x7FF
  out[6] = 0xFC;  // and one raw data block
}

void StreamAac::AdtsLength(unsigned char adts[7], unsigned length) {
  adts[3] = static_cast<unsigned char>((adts[3] & 0xFC) | ((length >> 11) & 3));
  adts[4] = static_cast<unsigned char>((length >> 3) & 0xFF);
  adts[5] = static_cast<unsigned char>((adts[5] & 0x1F) | ((length & 7) << 5));
}

bool StreamAac::CreateAdts() {
  IMedia* media = _media;
  if (!media) {
    LOGE << "!media";
    return false;
  }
  if (!media->Get("channel", _ch)) {
    LOGE << "!media->Get(\"channel\", _ch)";
    return false;
  }
  if (!media->Get("rate", _rate)) {
    LOGE << "!media->Get(\"rate\", _rate)";
    return false;
  }
  AdtsHeader(_rate, _ch, _adts);
  _adtslen = 7;
  return true;
}

bool StreamAac::AdtsUpdate(unsigned int frameSize) {
  AdtsLength(_adts, frameSize + _adtslen);
  return true;
}

// ---------------------------------------------------------------- demuxing

bool StreamAac::setExtraData(IMedia* media) {
  auto* esds = _trak ? dynamic_cast<cesds*>(_trak->Find("esds")) : nullptr;
  if (!esds) {
    LOGE << "!esds";
    return false;
  }
  if (!media || !media->Extra(esds->_extra, esds->_extra ? static_cast<int>(esds->_extra_size) : 0)) {
    LOGE << "!_media->Extra(esds->_extraBuf,esds->_extraLen)";
    return false;
  }
  return true;
}

bool StreamAac::demuxConfig(kiv::base::Object*) {
  if (!newDemuxMedia("aac")) return false;
  if (!DemuxMedia(_trak, _media, _frmSampNum, _rate, _ch)) return false;
  _adtslen = 0;
  if (CreateAdts()) _adtslen = 7;
  if (const char* refused = TellAdts(_media, _adtslen)) {
    LOGE << refused;
    return false;
  }
  _adtslenTold = _adtslen;
  return true;
}

const char* StreamAac::TellAdts(IMedia* media, unsigned adtslen) {
  if (!media->Set("adtslen", static_cast<long long>(adtslen))) return "!_media->Set(\"adtslen\",_adtslen)";
  if (!media->Set("hasadts", adtslen != 0)) return "!_media->Set(\"hasadts\",(bool)_adtslen)";
  return nullptr;
}

bool StreamAac::DemuxMedia(IBox* trak, IMedia* media, unsigned frmSampNum, unsigned& rate, unsigned& channels) {
  auto* esds = trak && media ? dynamic_cast<cesds*>(trak->Find("esds")) : nullptr;
  if (!esds) {
    LOGE << "!esds";
    return false;
  }
  if (!media->Set("bitrate", static_cast<int>(esds->_avg_bitrate))) {
    LOGE << "!_media->Set(\"bitrate\", (int)esds->_bitrate_avg)";
    return false;
  }
  if (!media->Extra(esds->_extra, esds->_extra ? static_cast<int>(esds->_extra_size) : 0)) {
    LOGE << "!_media->Extra(esds->_extraBuf,esds->_extraLen)";
    return false;
  }

  auto* mp4a = dynamic_cast<cmp4a*>(trak->Find("mp4a"));
  if (!mp4a) {
    LOGE << "!mp4a";
    return false;
  }
  if (!media->Set("rate", static_cast<int>(mp4a->_sample_rate))) {
    LOGE << "!_media->Set(\"rate\", (int)mp4a->_rate0)";
    return false;
  }
  if (!media->Set("channel", static_cast<int>(mp4a->_channels))) {
    LOGE << "!_media->Set(\"channel\",(int)mp4a->_channels)";
    return false;
  }
  if (!media->Set("depth", static_cast<int>(mp4a->_sample_size))) {
    LOGE << "!_media->Set(\"depth\",(int)mp4a->_depth)";
    return false;
  }
  if (!media->Set("width", static_cast<int>(mp4a->_sample_size + 7) / 8)) {
    LOGE << "!_media->Set(\"width\", (int)(mp4a->_depth+7)/8)";
    return false;
  }
  if (!media->Set("frmSampNum", static_cast<int>(frmSampNum))) {
    LOGE << "!_media->Set(\"frmSampNum\", (int)_frmSampNum)";
    return false;
  }
  if (!trak->Find("stts")) {
    LOGE << "!stts";
    return false;
  }
  channels = mp4a->_channels;
  rate = mp4a->_sample_rate;
  return true;
}

Packet* StreamAac::demuxUpdatePacket(IO&, Packet* packet) {
  return PutAdts(packet, _media, _adts, _adtslen, _adtslenTold);
}

Packet* StreamAac::PutAdts(Packet* packet, IMedia* media, unsigned char adts[7], unsigned& adtslen, long long& told) {
  if (!packet) {
    LOGE << "!pkt" << "," << "IStream GetPacket null!";
    return packet;
  }
  if (packet == kiv::stream::PacketError()) {
    LOGE << "(pkt == (Packet*)-1)" << "," << "IStream GetPacket failed!";
    return packet;
  }
  const unsigned char* d = packet->Data();
  if (d && packet->Size() >= 2 && d[0] == 0xFF && (d[1] >> 4) == 0xF) {
    adtslen = 7;  // the frame carries its header already
  } else if (adtslen >= static_cast<unsigned>(packet->Offset())) {
    adtslen = 0;  // no room in front of the payload
    return packet;
  } else if (adtslen) {
    AdtsLength(adts, static_cast<unsigned>(packet->Size()) + adtslen);
    const unsigned n = std::min<unsigned>(adtslen, 7);
    if (n < adtslen) LOGE << "adtslen " << adtslen << " > " << 7;
    packet->Prepend(adts, static_cast<int>(n));
  }
  packet->CheckKey();
  if (media && told != static_cast<long long>(adtslen)) {
    told = adtslen;
    if (!media->Set("adtslen", static_cast<long long>(adtslen))) LOGE << "!_media->Set(\"adtslen\",_adtslen)";
    if (!media->Set("hasadts", adtslen != 0)) LOGE << "!_media->Set(\"hasadts\",(bool)_adtslen)";
  }
  return packet;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMovStreamAac() {
  kiv::plugin::mov::Reflect<kiv::plugin::mov::StreamAac>("MovStreamAac-mov-stream-mp4a-aac", {}, "quor");
}
