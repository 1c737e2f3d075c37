#include "stream/plugin/mp4/stream/IMp4DemuxerStreamFragment.h"

#include <algorithm>
#include <memory>
#include <string>

#include "stream/base/dbg/Log.h"
#include "stream/base/io/IOBlockReader.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/BoxFMp4.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stbl.h"

namespace kiv {
namespace plugin {
namespace mov {

using fmp4::ctfhd;
using fmp4::ctfra;
using fmp4::ctrun;

namespace {

struct PacketRelease {
  void operator()(Packet* p) const {
    if (p) p->Release();
  }
};

// Frames up to this size are left to the short read; bigger ones are checked against the file first,
// so that a forged size never becomes an allocation.
constexpr uint32_t kCheckedSize = 1u << 20;

// The track fragment header that stands beside a run, or null.
ctfhd* headerOf(IBox* trun) {
  IBox* traf = trun ? trun->Parent() : nullptr;
  return traf ? dynamic_cast<ctfhd*>(traf->Find("tfhd")) : nullptr;
}

}  // namespace

IMp4DemuxerStreamFragment::IMp4DemuxerStreamFragment(const char* name) : IStream(name) {}

IMp4DemuxerStreamFragment::~IMp4DemuxerStreamFragment() = default;

IMp4DemuxerStreamFragment* IMp4DemuxerStreamFragment::New(AttrSet& ap) {
  const char* fcc = ap.Get("fcc");
  if (!fcc) {
    LOGE << "!fcc";
    return nullptr;
  }
  std::string type = std::string("mp4-stream-") + fcc;
  if (const char* keys = ap.Get("keys")) type += std::string("-") + keys;
  ap.SetOrAdd("type", type);
  return kiv::base::Object::New<IMp4DemuxerStreamFragment>(ap);
}

bool IMp4DemuxerStreamFragment::SetTfra(IBox* tfra) {
  _tfra = tfra;
  return true;
}

bool IMp4DemuxerStreamFragment::muxConfig(kiv::base::Object*) { return true; }
bool IMp4DemuxerStreamFragment::demuxConfig(kiv::base::Object*) { return true; }
bool IMp4DemuxerStreamFragment::setExtraData(IMedia*) { return true; }

long long IMp4DemuxerStreamFragment::CurrentPts() { return _firstPts; }
size_t IMp4DemuxerStreamFragment::FrameListSizeGet() { return _frames.size(); }

bool IMp4DemuxerStreamFragment::NextTrunSet(IBox* box, unsigned long long position) {
  if (!box) {
    LOGI << "!bx";
    return false;
  }
  _nextTurnBox = box;
  _moofOffset = position;
  return true;
}

bool IMp4DemuxerStreamFragment::DemuxConfig0(IBox* trak, kiv::base::Object* param) {
  _trak = trak;
  _demuxSide = true;
  if (!trak) {
    LOGE << "!_trak";
    return false;
  }
  if (!dynamic_cast<cstbl*>(trak->Find("stbl"))) {
    LOGE << "!stbl";
    return false;
  }
  auto* mdhd = dynamic_cast<cmdhd*>(trak->Find("mdhd"));
  if (!mdhd) {
    LOGE << "!mdhd";
    return false;
  }
  _scale.Scale(mdhd->_timescale);
  _createTime = static_cast<long long>(mdhd->_createtime);
  _duration = _scale.ToMs(static_cast<long long>(mdhd->_duration));
  LOGI << "mdhd->_duration=" << mdhd->_duration;
  LOGI << "_duration=" << _duration;
  if (auto* tkhd = dynamic_cast<ctkhd*>(trak->Find("tkhd"))) _trackId = static_cast<int>(tkhd->_track_id);
  // From here on the duration counts what was read.
  _firstPts = 0;
  _duration = 0;
  return demuxConfig(param);
}

bool IMp4DemuxerStreamFragment::updateMoofEntry() {
  auto* tfra = dynamic_cast<ctfra*>(_tfra);
  if (!tfra) return false;
  _moofItems = &tfra->getItems();
  // The count as read, never more than the entries that were really read.
  _moofEntryCount = std::min<uint32_t>(tfra->getEntryNum(), static_cast<uint32_t>(_moofItems->size()));
  return true;
}

long long IMp4DemuxerStreamFragment::entryMs(uint32_t i) const {
  return _scale.ToMs(static_cast<long long>((*_moofItems)[i].first));
}

bool IMp4DemuxerStreamFragment::moofParse(IO& io) {
  if (!_moofItems) {
    LOGI << "!_moofItems";
    return false;
  }
  if (_moofIndex >= _moofEntryCount) return false;
  _moofOffset = (*_moofItems)[_moofIndex].second;
  ++_moofIndex;
  _nextTurnBox = nullptr;
  if (!io.Seek(static_cast<long long>(_moofOffset), kiv::Position::front)) {
    LOGI << "!io.Seek(_moofOffset,Position::front) " << _moofOffset;
    return false;
  }
  std::unique_ptr<IBox> moof(IBox::New("moof"));
  if (!moof) {
    LOGI << "!moof";
    return false;
  }
  kiv::base::IOBlockReader br(io, 32768);
  kiv::base::IOIntReader in(br);
  const uint32_t size = in.Read32be();
  in.Read32();  // the code is not looked at: the index says a moof stands here
  moof->Size(size);
  moof->Offset(static_cast<long long>(_moofOffset));
  AttrSet ap;
  if (!moof->Parse(br, ap, true)) {
    LOGI << "!moof->Parse(br,ap,true)";
    return false;
  }
  // A moof may carry a track fragment for each track: this track's run is in the one with its id.
  for (IBox* traf = moof->Find("traf"); traf && traf->FourCC() == FCC("traf"); traf = traf->Next()) {
    auto* tfhd = dynamic_cast<ctfhd*>(traf->Find("tfhd"));
    if (!tfhd || static_cast<int>(tfhd->TrackId()) != _trackId) continue;
    _nextTurnBox = traf->Find("trun");
    break;
  }
  if (!_nextTurnBox) {
    LOGI << "!_nextTurnBox";
    return false;
  }
  const bool read = TrunRead();
  _nextTurnBox = nullptr;  // it goes with the moof
  if (!read) {
    LOGI << "!TrunRead()";
    return false;
  }
  return true;
}

bool IMp4DemuxerStreamFragment::TrunRead() {
  auto* trun = dynamic_cast<ctrun*>(_nextTurnBox);
  if (!trun) {
    LOGI << "!_nextTurnBox";
    return false;
  }
  const ctfhd* tfhd = headerOf(trun);
  const unsigned tfhdFlags = tfhd ? tfhd->Flags() : 0;
  // The run's data offset counts from the moof, or from the base the header states.
  long long position = static_cast<long long>(_moofOffset);
  if (tfhdFlags & ctfhd::kBaseDataOffset) {
    const unsigned long long base = tfhd->BaseDataOffset();
    position = base > static_cast<unsigned long long>(INT64_MAX / 2) ? -1 : static_cast<long long>(base);
  }
  position += static_cast<int32_t>(trun->DataOffset());
  const unsigned defaultDuration =
      (tfhdFlags & ctfhd::kDefaultSampleDuration) ? tfhd->DefaultSampleDuration() : 0;
  const unsigned defaultSize = (tfhdFlags & ctfhd::kDefaultSampleSize) ? tfhd->DefaultSampleSize() : 0;
  const bool sized = (trun->Flags() & ctrun::kSampleSize) != 0;
  const std::vector<ctrun::Item>& items = trun->Items();
  for (size_t i = 0; i < items.size(); ++i) {
    ++_sampleCount;
    ChunkParam frame;
    long long ms = 0;
    if (items[i].duration != 0) {
      ms = _scale.ToMs(static_cast<long long>(items[i].duration));
    } else {
      ms = updateDuration();
      // A track whose codec has no frame length of its own takes the header's default.
      if (ms == 0 && defaultDuration) ms = _scale.ToMs(static_cast<long long>(defaultDuration));
    }
    frame.duration = static_cast<uint32_t>(std::min<long long>(std::max<long long>(ms, 0), UINT32_MAX));
    frame.size = sized ? items[i].size : defaultSize;
    // A position before the file reads nothing: the frame ends its packet in an error.
    frame.offset = position < 0 ? UINT64_MAX : static_cast<uint64_t>(position);
    frame.count = 1;
    frame.descIndex = 1;
    frame.flags = i == 0 ? 1 : 0;
    _frames.push_back(frame);
    if (position >= 0) position += frame.size;
  }
  return true;
}

Packet* IMp4DemuxerStreamFragment::GetPacket(IO& io) {
  if (_frames.empty()) {
    if (!moofParse(io)) {
      _demuxEnd = true;
      return nullptr;
    }
    if (_frames.empty()) return nullptr;
  }
  const ChunkParam frame = _frames.front();
  _frames.pop_front();
  const long long fileSize = frame.size > kCheckedSize || frame.offset > INT64_MAX ? io.Size() : -1;
  if (frame.offset > INT64_MAX || frame.size > static_cast<uint32_t>(Packet::kMaxBuffer - 128) ||
      (fileSize >= 0 && (frame.size > fileSize || static_cast<long long>(frame.offset) > fileSize - frame.size))) {
    LOGE << "(size<=0) || (size != para.size)" << " frame at " << frame.offset << " of " << frame.size
         << " bytes lies beyond the file's " << fileSize << " bytes";
    return kiv::stream::PacketError();
  }
  std::unique_ptr<Packet, PacketRelease> packet(kiv::stream::PacketAlloc(static_cast<int>(frame.size) + 128, 64));
  if (!packet) {
    LOGE << "!PacketAlloc(" << frame.size << "+128)";
    return kiv::stream::PacketError();
  }
  packet->pts = _firstPts * 1000000;
  packet->duration = static_cast<long long>(frame.duration) * 1000000;
  packet->SetKey(frame.flags != 0);
  packet->media = Media();
  packet->index = static_cast<long long>(_packetIndex++);
  if (!io.Seek(static_cast<long long>(frame.offset), kiv::Position::front)) {
    LOGE << "!io.Seek(para.pos,Position::front)" << " pos=" << frame.offset << " size=" << frame.size
         << " file=" << io.Size();
    return kiv::stream::PacketError();
  }
  const long long size = io.Read(packet->Data(), frame.size);
  if (size <= 0 || size != frame.size) {
    LOGE << "(size<=0) || (size != para.size)" << " read=" << size << " size=" << frame.size
         << " pos=" << frame.offset;
    return kiv::stream::PacketError();
  }
  packet->Size(static_cast<int>(size));
  _duration += frame.duration;
  _firstPts = _duration;
  return demuxUpdatePacket(io, packet.release());
}

bool IMp4DemuxerStreamFragment::Seek(long long ms, bool alignToKeyFrame) {
  long long cur = 0;
  if (alignToKeyFrame && _moofItems && _moofEntryCount > 0) {
    // The walk stays within the listed fragments: a time beyond the last lands on the last.
    if (_moofIndex >= _moofEntryCount) _moofIndex = _moofEntryCount - 1;
    cur = entryMs(_moofIndex);
    if (cur >= ms) {
      while (cur > ms && _moofIndex > 0) cur = entryMs(--_moofIndex);
    } else {
      while (cur < ms && _moofIndex + 1 < _moofEntryCount) cur = entryMs(++_moofIndex);
    }
    // The track plays again from there, also after it had come to its end.
    _demuxEnd = false;
  }
  LOGE << cur;
  _frames.clear();
  _duration = cur;
  _firstPts = cur;
  return true;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
