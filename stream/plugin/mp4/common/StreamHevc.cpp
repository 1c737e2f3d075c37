#include "stream/plugin/mp4/common/StreamHevc.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/AvcNal.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/Hvcc.h"
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

constexpr unsigned char kStartCode[4] = {0, 0, 0, 1};

bool isStartCode(const unsigned char* p) { return p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1; }

long long writeSample(IStream& track, IO& io, Packet& packet) {
  return static_cast<StreamHevc&>(track).WriteData(io, packet);
}

}  // namespace

int HevcPictureOffset(const unsigned char* data, int size) {
  if (!data) return 0;
  for (int i = 0; size - i >= 6; ++i) {
    if (!isStartCode(data + i)) continue;
    const unsigned t = (data[i + 4] >> 1) & 63;
    // Prefix and suffix SEI, and the slice kinds the cameras' encoders write.
    if (t == 39 || t == 40 || (t < 32 && ((0x28010Fu >> t) & 1u))) return i;
  }
  return 0;
}

StreamHevc::StreamHevc() : IStream("hevc") {}

StreamHevc::~StreamHevc() {
  // The fifo's element destructor releases the packets still waiting.
  delete _fifo;
  _fifo = nullptr;
}

// ---------------------------------------------------------------- the trak tree

bool StreamHevc::muxConfig(kiv::base::Object* tagsObject) {
  videoTags* tags = profileOf(tagsObject);
  if (!tags) return false;
  const bool ok = buildTrak(tags);
  if (!ok) return false;
  if (tags->videosampleperchunk > 1) {
    LOGI << "video sample per chunk: " << tags->videosampleperchunk;
    _groupFrames = static_cast<int>(tags->videosampleperchunk);
    VideoChunks(*this, _fifo, _firstChunkMs, _chunkCount, writeSample).Setup(groupSize(), *tags, true);
  }
  // Without a sync table every sample is a sync sample.
  if (_trak && !_trak->Find("stss") && _chunkList)
    for (ChunkParam& r : *_chunkList) r.flags |= 1;
  return true;
}

bool StreamHevc::buildTrak(videoTags* tags) {
  const MuxerParam& para = param();
  const long long num = _frameRate.Num();
  const long long den = _frameRate.Den();
  if (para.rsvdSeconds > 0 && !_concate) _rsvdSize = den ? static_cast<unsigned>(num * para.rsvdSeconds / den) : 0;
  if (Debug()) LOGL << "Video rsvdSize: " << _rsvdSize;

  auto table = [&](IBox* stbl, StblKind kind) {
    addTable(stbl, kind, tags, VideoTableReserve(kind, _frameRate, _planSeconds, para.fixedRate, tags->videosampleperchunk));
  };

  IMedia* media = _media;
  const unsigned char version = _version1 ? 1 : 0;
  // The tree first, then its fields: a failing attribute leaves a half-filled tree behind.
  auto* trak = new ctrak();
  _trak = trak;
  _struct = 0;
  if (media) media->Get("struct", _struct);
  auto* tkhd = new ctkhd(version);
  trak->Add(tkhd);
  // The edit list is always there: it hides the first time stamp of a stream with B-frames.
  auto* vmhd = new cvmhd();
  const MediaBoxes boxes =
      addMediaBoxes(trak, version, true, tags->video_track_lang_id, vmhd, tags->video_handler_minf_present,
                    tags->vidhandlerrefcomname, tags->vidhandlerrefcomnamelen, tags->datareftype);
  auto* stbl = new cstbl(_rsvdSize);
  boxes.minf->Add(stbl);
  auto* stsd = new cstsd();
  stbl->Add(stsd);
  table(stbl, StblKind::stts);
  if (_struct == FCC("ibbp")) table(stbl, StblKind::ctts);
  if (!tags->stbl_order) table(stbl, StblKind::stss);
  table(stbl, StblKind::stsc);
  table(stbl, StblKind::stsz);
  table(stbl, _use64 ? StblKind::co64 : StblKind::stco);
  if (tags->stbl_order) table(stbl, StblKind::stss);
  auto* hvc1 = new chvc1();
  stsd->Add(hvc1);
  auto* hvcc = new chvcC();
  hvc1->Add(hvcc);
  if (tags->video_has_color_param) hvc1->Add(NewVideoColr(*tags));
  _chunkList = stbl->ChunkList();

  // ---- the fields
  int width = 1920;
  int height = 1080;
  if (const char* missing = ReadPictureSize(media, width, height)) {
    LOGE << missing;
    return false;
  }
  LOGI << "width : " << width << "," << "height : " << height;
  _scale.Scale(tags->timescale);

  FillVideoTkhd(*tkhd, *tags, _trackId, width, height);
  FillVideoMedia(boxes, *vmhd, *tags, tags->video_handler_type);
  FillVisualEntry(*hvc1, *tags, width, height, tags->temporal_quality, tags->spatial_quality);

  ParamSetKeys keys;
  if (const char* missing = ReadParamSetKeys(*media, keys)) {
    LOGE << missing;
    return false;
  }
  unsigned ivps = 0;
  unsigned char* vps = nullptr;
  if (!media->Get("vps", vps)) {
    LOGE << "!_media->Get(\"vps\", vps)";
    return false;
  }
  if (!media->Get("ivps", ivps)) {
    LOGE << "!_media->Get(\"ivps\", ivps)";
    return false;
  }
  _extraSize = keys.ipps + keys.isps + ivps;

  hvcc->_configuration_version = 1;
  hvcc->_profile = static_cast<uint8_t>(keys.profile);
  hvcc->_level = static_cast<uint8_t>(keys.level);
  // A set without bytes is left out of the record rather than written as zeros.
  hvcc->_pps = keys.pps;
  hvcc->_pps_size = keys.pps ? static_cast<uint16_t>(std::min(keys.ipps, 0xffffu)) : 0;
  hvcc->_sps = keys.sps;
  hvcc->_sps_size = keys.sps ? static_cast<uint16_t>(std::min(keys.isps, 0xffffu)) : 0;
  hvcc->_vps = vps;
  hvcc->_vps_size = vps ? static_cast<uint16_t>(std::min(ivps, 0xffffu)) : 0;
  // The record decodes its profile, chroma format and depths from the sets in start-code form.
  hvcc->SetNal(media->Extra(), static_cast<size_t>(std::max(0, media->ExtraSize())));
  return true;
}

bool StreamHevc::muxTagSet(videoTags* tags) {
  if (tags && tags->videosampleperchunk > 1) {
    _groupFrames = static_cast<int>(tags->videosampleperchunk);
    VideoChunks(*this, _fifo, _firstChunkMs, _chunkCount, writeSample).Setup(groupSize(), *tags, false);
  }
  return true;
}

bool StreamHevc::muxUpdate() {
  VideoChunks::HideFirstPts(*this, _struct);
  return true;
}

void StreamHevc::ConcateModeUpdate() { concateFill(); }

// ---------------------------------------------------------------- samples

int StreamHevc::MuxOffset(const Packet& packet) {
  if (packet.Size() <= 0) return 0;
  if (_extraSize == 0 && packet.IsKey()) SetHVCInfo(packet);
  return HevcPictureOffset(packet.Data(), packet.Size());
}

int StreamHevc::AddChunk(const Packet& packet, unsigned long long offset, int flag) {
  return VideoChunks::Record(*this, packet, offset, flag, groupSize(), _frameRate);
}

long long StreamHevc::AddData(IO& io, Packet& packet, unsigned long long leader) {
  return VideoChunks(*this, _fifo, _firstChunkMs, _chunkCount, writeSample).Add(io, packet, leader, groupSize());
}

bool StreamHevc::CleanFifoData(IO& io, unsigned long long) {
  VideoChunks(*this, _fifo, _firstChunkMs, _chunkCount, writeSample).Flush(io, groupSize());
  return true;
}

long long StreamHevc::WriteData(IO& io, Packet& packet) {
  const int size = packet.Size();
  unsigned char* d = packet.Data();
  if (size <= 0 || !d) return 0;
  if (size >= 4) {
    const uint32_t len = static_cast<uint32_t>(size - 4);
    d[0] = static_cast<unsigned char>(len >> 24);
    d[1] = static_cast<unsigned char>(len >> 16);
    d[2] = static_cast<unsigned char>(len >> 8);
    d[3] = static_cast<unsigned char>(len);
  } else {
    LOGE << "sample of " << size << " bytes has no room for its length";
  }
  const long long written = io.Write(d, size);
  return written < 0 ? 0 : written;
}

bool StreamHevc::SetHVCInfo(const Packet& packet) {
  auto* hvcc = _trak ? dynamic_cast<chvcC*>(_trak->Find("hvcC")) : nullptr;
  if (!hvcc) return false;
  const unsigned char* d = packet.Data();
  const int n = packet.Size();
  if (!d) return true;
  // The sets found, laid out in the record's own buffer: SPS, then PPS. The type test is the one of
  // H.264 headers, as the devices in the field have always made it.
  TakeSpsPps<chvcC::kNalBufSize>(d, n, *hvcc, hvcc->_nal_buf, _extraSize, &hvcc->_nal_size,
                                 [](unsigned sps, unsigned pps) {
                                   LOGE << "sps " << sps << " + pps " << pps << " cut to the hvcC buffer";
                                 });
  return true;
}

// ---------------------------------------------------------------- demuxing

bool StreamHevc::demuxConfig(kiv::base::Object*) {
  if (!newDemuxMedia("hevc")) return false;
  auto* hvc1 = _trak ? dynamic_cast<chvc1*>(_trak->Find("hvc1")) : nullptr;
  if (!hvc1) {
    LOGE << "can not find hvc1";
    return false;
  }
  _media->Set("width", static_cast<int>(hvc1->_width));
  _media->Set("height", static_cast<int>(hvc1->_height));
  if (_demuxer) {
    _media->SetWithType("framerate", _demuxer->GetFrameRate());
    _media->Set("bitrate", static_cast<int>(_demuxer->GetBitRate()));
  }
  auto* hvcc = dynamic_cast<chvcC*>(_trak->Find("hvcC"));
  if (!hvcc) {
    LOGI << "can not find hvcc";
    return false;
  }
  // Pointers into the record, which lives as long as the tree the stream reads.
  _media->Set("pps", const_cast<unsigned char*>(hvcc->_pps));
  _media->Set("ipps", static_cast<unsigned>(hvcc->_pps_size));
  _media->Set("sps", const_cast<unsigned char*>(hvcc->_sps));
  _media->Set("isps", static_cast<unsigned>(hvcc->_sps_size));
  _media->Set("vps", const_cast<unsigned char*>(hvcc->_vps));
  _media->Set("ivps", static_cast<unsigned>(hvcc->_vps_size));
  LOGI << "GOP: " << _gop;
  _media->Set("gop", static_cast<long long>(_gop));
  return true;
}

bool StreamHevc::setExtraData(IMedia* media) {
  auto* hvcc = _trak ? dynamic_cast<chvcC*>(_trak->Find("hvcC")) : nullptr;
  if (!hvcc) {
    LOGE << "can not find hvcc";
    return false;
  }
  unsigned char buffer[256] = {};
  const unsigned char* sets[3] = {hvcc->_vps, hvcc->_sps, hvcc->_pps};
  const unsigned sizes[3] = {hvcc->_vps_size, hvcc->_sps_size, hvcc->_pps_size};
  size_t used = 0;
  for (int i = 0; i < 3; ++i) {
    const size_t n = sets[i] ? sizes[i] : 0;
    if (used + 4 + n > sizeof buffer) {
      LOGE << "parameter sets do not fit the extra data buffer of " << sizeof buffer;
      return false;
    }
    std::memcpy(buffer + used, kStartCode, 4);
    if (n) std::memcpy(buffer + used + 4, sets[i], n);
    used += 4 + n;
  }
  if (!media || !media->Extra(buffer, static_cast<int>(used))) {
    LOGE << "!media->Extra(pbuf, nVpsSpsPpsSize)";
    return false;
  }
  return true;
}

Packet* StreamHevc::demuxUpdatePacket(IO&, Packet* packet) {
  if (!packet) {
    LOGE << "!pkt" << "," << "IStream GetPacket null!";
    return packet;
  }
  if (packet == kiv::stream::PacketError()) {
    LOGE << "(pkt == (Packet*)-1)" << "," << "IStream GetPacket failed!";
    return packet;
  }
  unsigned char* const d = packet->Data();
  const long long size = d ? packet->Size() : 0;
  if (size >= 4) {
    const uint32_t len = (uint32_t(d[0]) << 24) | (uint32_t(d[1]) << 16) | (uint32_t(d[2]) << 8) | d[3];
    if (len == 1 || static_cast<long long>(len) == size - 4) {
      std::memcpy(d, kStartCode, 4);
      return packet;
    }
  }
  // Samples of several length-prefixed units, or damage: the caller takes it as a read failure. Nobody
  // holds the packet behind the error value, so it goes here.
  LOGE << "HVC codec frame is broken!";
  kiv::base::Release(packet);
  return kiv::stream::PacketError();
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMovStreamHevc() {
  using kiv::plugin::mov::StreamHevc;
  using P = kiv::base::TProperty<StreamHevc>;
  kiv::plugin::mov::Reflect<StreamHevc>("MovStreamHevc-mov-stream-hvc1-hevc-h265",
                                        {P::Member("frameRate", &StreamHevc::_frameRate)}, "quor");
}
