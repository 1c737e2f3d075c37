#include "stream/plugin/mp4/common/StreamH264.h"


#include <algorithm>
#include <cstdint>
#include <cstring>

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/AvcNal.h"
#include "stream/plugin/mp4/common/AvcTrak.h"
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

long long writeSample(IStream& track, IO& io, Packet& packet) {
  return static_cast<StreamH264&>(track).WriteData(io, packet);
}

}  // namespace

StreamH264::StreamH264() : IStream("h264") {}

StreamH264::~StreamH264() {
  // The fifo's element destructor releases the packets still waiting.
  delete _fifo;
  _fifo = nullptr;
}

// ---------------------------------------------------------------- the trak tree

bool StreamH264::muxConfig(kiv::base::Object* tagsObject) {
  videoTags* tags = profileOf(tagsObject);
  if (!tags) return false;
  const MuxerParam& para = param();

  const long long num = _frameRate.Num();
  const long long den = _frameRate.Den();
  if (para.rsvdSeconds > 0 && !_concate) _rsvdSize = den ? static_cast<unsigned>(num * para.rsvdSeconds / den) : 0;
  if (Debug()) LOGL << "Video rsvdSize: " << _rsvdSize;

  AvcTrakSetup setup = AvcTrakSetupFor(*this, tags);
  setup.listCapacity = _rsvdSize;
  setup.addTable = [&](IBox* stbl, StblKind kind) {
    addTable(stbl, kind, tags, VideoTableReserve(kind, _frameRate, _planSeconds, para.fixedRate, tags->videosampleperchunk));
  };
  AvcTrak built;
  const bool ok = BuildAvcTrak(setup, built);
  _trak = built.trak;
  _struct = built.structure;
  _chunkList = built.stbl ? built.stbl->ChunkList() : nullptr;
  _extraSize = built.extraSize;
  if (!ok) return false;

  if (tags->videosampleperchunk < 2) return true;
  _spc = tags->videosampleperchunk;
  VideoChunks(*this, _fifo, _firstChunkMs, _chunkCount, writeSample).Setup(_spc, *tags, true);
  return true;
}

bool StreamH264::muxTagSet(videoTags* tags) {
  if (tags && tags->videosampleperchunk > 1) {
    _spc = tags->videosampleperchunk;
    VideoChunks(*this, _fifo, _firstChunkMs, _chunkCount, writeSample).Setup(_spc, *tags, false);
  }
  return true;
}

bool StreamH264::muxUpdate() {
  VideoChunks::HideFirstPts(*this, _struct);
  return true;
}

void StreamH264::ConcateModeUpdate() { concateFill(); }

// ---------------------------------------------------------------- samples

int StreamH264::MuxOffset(const Packet&) { return 0; }

int StreamH264::AddChunk(const Packet& packet, unsigned long long offset, int flag) {
  return VideoChunks::Record(*this, packet, offset, flag, _spc, _frameRate);
}

long long StreamH264::AddData(IO& io, Packet& packet, unsigned long long leader) {
  return VideoChunks(*this, _fifo, _firstChunkMs, _chunkCount, writeSample).Add(io, packet, leader, _spc);
}

bool StreamH264::CleanFifoData(IO& io, unsigned long long) {
  VideoChunks(*this, _fifo, _firstChunkMs, _chunkCount, writeSample).Flush(io, _spc);
  return true;
}

long long StreamH264::WriteData(IO& io, Packet& packet) {
  const long long head = WriteNaluHeader(io, packet);
  if (head > 0) {
    // The head went out rewritten; the rest goes from the packet as it is.
    const int step = static_cast<int>(std::min<long long>(head, packet.Size()));
    if (step < head) LOGE << "head " << head << " > size " << packet.Size();
    packet.Offset(packet.Offset() + step);
  }
  long long written = 0;
  if (packet.Size() > 0) {
    written = io.Write(packet.Data(), packet.Size());
    if (written < 0) written = 0;
  }
  return head + written;
}

int StreamH264::GetSliceDataOffset(const Packet& packet) { return AvcSliceOffset(packet.Data(), packet.Size()); }

long long StreamH264::WriteNaluHeader(IO& io, const Packet& packet) {
  return WriteAvcHead(io, packet.Data(), packet.Size(), _naluHeader);
}

void StreamH264::UpdateNaluHeader(unsigned char* buffer, unsigned int headerLength, unsigned int packetSize) {
  AvcHeadToLengths(buffer, headerLength, packetSize);
}

bool StreamH264::SetAVCInfo(const Packet& packet) {
  auto* avcc = _trak ? dynamic_cast<cavcC*>(_trak->Find("avcC")) : nullptr;
  if (!avcc) return false;
  const unsigned char* d = packet.Data();
  const int n = packet.Size();
  if (!d) return true;
  // The sets found, laid out in the box's own buffer as a read box has them: SPS, then PPS.
  TakeSpsPps<cavcC::kBufferSize>(d, n, *avcc, avcc->_buffer, _extraSize, nullptr, [](unsigned sps, unsigned pps) {
    LOGE << "sps " << sps << " + pps " << pps << " cut to the avcC buffer";
  });
  return true;
}

// ---------------------------------------------------------------- demuxing

bool StreamH264::demuxConfig(kiv::base::Object*) {
  if (!newDemuxMedia("h264")) return false;
  auto* avc1 = _trak ? dynamic_cast<cavc1*>(_trak->Find("avc1")) : nullptr;
  if (!avc1) {
    LOGE << "can not find avc1";
    return false;
  }
  PictureFromAvc1(_trak, *avc1, _media);
  if (_demuxer) {
    _media->SetWithType("framerate", _demuxer->GetFrameRate());
    _media->Set("bitrate", static_cast<int>(_demuxer->GetBitRate()));
  }
  setExtraData(_media);
  _media->Set("gop", static_cast<long long>(_gop));
  return true;
}

void StreamH264::PictureFromAvc1(IBox* trak, const cavc1& avc1, IMedia* media) {
  media->Set("width", static_cast<int>(avc1._width));
  media->Set("height", static_cast<int>(avc1._height));
  if (auto* avcc = dynamic_cast<cavcC*>(trak->Find("avcC"))) {
    media->Set("profile", static_cast<unsigned>(avcc->_profile));
    media->Set("level", static_cast<unsigned>(avcc->_level));
  }
}

bool StreamH264::setExtraData(IMedia* media) { return ExtraFromAvcC(_trak, media, _spsSize, _ppsSize); }

bool StreamH264::ExtraFromAvcC(IBox* trak, IMedia* media, unsigned& spsSize, unsigned& ppsSize) {
  auto* avcc = trak ? dynamic_cast<cavcC*>(trak->Find("avcC")) : nullptr;
  if (!avcc) {
    LOGI << "can not find avcc";
    return false;
  }
  unsigned char buffer[64] = {};
  unsigned sps = avcc->_sps ? avcc->_sps_size : 0;
  unsigned pps = avcc->_pps ? avcc->_pps_size : 0;
  spsSize = avcc->_sps_size;
  ppsSize = avcc->_pps_size;
  if (8 + sps + pps > sizeof buffer) {
    LOGE << "sps " << sps << " + pps " << pps << " do not fit the extra data buffer";
    sps = std::min<unsigned>(sps, sizeof buffer - 8);
    pps = std::min<unsigned>(pps, static_cast<unsigned>(sizeof buffer) - 8 - sps);
  }
  std::memcpy(buffer, kAvcStartCode, 4);
  if (sps) std::memcpy(buffer + 4, avcc->_sps, sps);
  std::memcpy(buffer + 4 + sps, kAvcStartCode, 4);
  if (pps) std::memcpy(buffer + 8 + sps, avcc->_pps, pps);
  if (!media || !media->Extra(buffer, static_cast<int>(sps + pps + 8))) {
    LOGE << "!media->Extra(pbuf, nSpsPpsSize)";
    return false;
  }
  return true;
}

Packet* StreamH264::demuxUpdatePacket(IO&, Packet* packet) { return RestoreStartCodes(packet, _spsSize, _ppsSize); }

Packet* StreamH264::RestoreStartCodes(Packet* packet, unsigned spsSize, unsigned ppsSize) {
  if (!packet) {
    LOGE << "!pkt" << "," << "IStream GetPacket null!";
    return packet;
  }
  if (packet == kiv::stream::PacketError()) {
    LOGE << "(pkt == (Packet*)-1)" << "," << "IStream GetPacket failed!";
    return packet;
  }
  unsigned char* const data = packet->Data();
  const long long size = data ? packet->Size() : 0;
  long long at = 0;
  bool warned = false;
  // Bytes beyond the sample read as 0; a length that points past the end is reported once.
  auto byteAt = [&](long long i) -> unsigned {
    if (i >= 0 && i < size) return data[i];
    if (!warned) LOGE << "unit at " << at << " runs past the sample of " << size << " bytes";
    warned = true;
    return 0;
  };
  auto length = [&]() -> uint32_t {
    return (byteAt(at) << 24) | (byteAt(at + 1) << 16) | (byteAt(at + 2) << 8) | byteAt(at + 3);
  };
  auto nal = [&]() -> unsigned { return byteAt(at + 4); };
  auto toStartCode = [&]() {
    if (at >= 0 && at + 4 <= size) std::memcpy(data + at, kAvcStartCode, 4);
  };
  auto next = [&](uint32_t len) { at += 4 + static_cast<long long>(len); };

  // The order of the units in a sample of this system: an optional delimiter or one-byte unit, SPS,
  // PPS, an optional one-byte unit, a slice. Further units keep their length prefix.
  uint32_t len = length();
  if (len == 1 || (len == 2 && (nal() & 31) == 9)) {
    toStartCode();
    next(len);
  }
  len = length();
  if (((nal() & 31) == 7 && len == spsSize) || len == 1) {
    toStartCode();
    next(len);
  }
  len = length();
  if (((nal() & 31) == 8 && len == ppsSize) || len == 1) {
    toStartCode();
    next(len);
    len = length();
    if (len == 1 || AvcIsSlice(static_cast<unsigned char>(nal()))) toStartCode();
  } else if (AvcIsSlice(static_cast<unsigned char>(nal()))) {
    toStartCode();
  }
  packet->CheckKey();
  return packet;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMovStreamH264() {
  using kiv::plugin::mov::StreamH264;
  using P = kiv::base::TProperty<StreamH264>;
  kiv::plugin::mov::Reflect<StreamH264>("MovStreamH264-mov-stream-avc1-h264",
                                        {P::Member("frameRate", &StreamH264::_frameRate)}, "quor");
}
