#include "stream/plugin/mp4/stream/IMp4MuxerStreamFragment.h"

#include <cstdlib>
#include <cstring>

#include "stream/base/dbg/Log.h"
#include "stream/base/io/IO.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/BoxFMp4.h"
#include "stream/plugin/mp4/common/IMov.h"

namespace kiv {
namespace plugin {
namespace mov {

using namespace fmp4;

IMp4MuxerStreamFragment::IMp4MuxerStreamFragment(const char* name) : IStream(name) { _fragmented = true; }

IMp4MuxerStreamFragment::~IMp4MuxerStreamFragment() {
  releasePackets();
  delete _moof;
  _moof = nullptr;
}

void IMp4MuxerStreamFragment::releasePackets() {
  for (Packet*& p : _packets) kiv::base::Release(p);
  _packets.clear();
}

IMov* IMp4MuxerStreamFragment::engine() const { return reinterpret_cast<IMov*>(_container); }

bool IMp4MuxerStreamFragment::fromAttrSet(const AttrSet& ap) {
  if (const char* v = ap.Get("framesPerSegment")) framesPerSegment = static_cast<unsigned>(std::strtol(v, nullptr, 0));
  if (const char* v = ap.Get("pDurationPreSegment"))
    _pDurationPreSegment = reinterpret_cast<long long*>(static_cast<uintptr_t>(std::strtoull(v, nullptr, 16)));
  if (const char* v = ap.Get("pmoofidx"))
    _pmoofIndex = reinterpret_cast<int*>(static_cast<uintptr_t>(std::strtoull(v, nullptr, 16)));
  return IStream::fromAttrSet(ap);
}

bool IMp4MuxerStreamFragment::demuxConfig(kiv::base::Object*) { return true; }

void IMp4MuxerStreamFragment::findDurationBoxes() {
  _movieScaleBoxes.clear();
  _mediaScaleBoxes.clear();
  if (!_trak) return;
  for (const char* code : {"tkhd", "elst"})
    if (IBox* b = _trak->Find(code)) _movieScaleBoxes.push_back(b);
  for (const char* code : {"mdhd", "mehd"})
    if (IBox* b = _trak->Find(code)) _mediaScaleBoxes.push_back(b);
}

bool IMp4MuxerStreamFragment::muxConfig(kiv::base::Object*) {
  _firstPtsNs = kNoPts;
  _lastPtsNs = kNoPts;
  _sampleCount = 0;
  findDurationBoxes();
  return createMoof();
}

bool IMp4MuxerStreamFragment::createMoof() {
  if (_moof) return false;
  _moof = new cmoof();
  _mfhd = new cmfhd();
  _moof->Add(_mfhd);
  _traf = new ctraf();
  _moof->Add(_traf);
  // tfdt stands behind trun: readers of these files expect it there.
  _tfhd = new ctfhd(static_cast<unsigned>(_trackId));
  _traf->Add(_tfhd);
  _trun = new ctrun();
  _traf->Add(_trun);
  _tfdt = new ctfdt(1);
  _traf->Add(_tfdt);
  return true;
}

bool IMp4MuxerStreamFragment::AddPacket(Packet& packet, IO& io, unsigned long long) {
  if (packet.media != _media) return false;
  if (_firstPtsNs == kNoPts) _firstPtsNs = packet.pts;
  packet.Hold();
  _packets.push_back(&packet);
  return CheckCreateSegment(io);
}

bool IMp4MuxerStreamFragment::CleanFifoData(IO& io, unsigned long long) { return createSegment(io); }

int IMp4MuxerStreamFragment::GetFrameOffset(Packet&) { return 0; }

int IMp4MuxerStreamFragment::GetFrameSize(Packet& packet) { return packet.Size() - GetFrameOffset(packet); }

bool IMp4MuxerStreamFragment::WriteFrame(IO& io, Packet& packet) {
  const int offset = GetFrameOffset(packet);
  const int size = packet.Size();
  if (offset < 0 || size <= offset || !packet.Data()) return false;
  io.Write(packet.Data() + offset, size - offset);
  return true;
}

bool IMp4MuxerStreamFragment::CheckCreateSegment(IO& io) {
  const size_t n = _packets.size();
  if (n == 0) return true;
  if (_pDurationPreSegment) {
    const long long want = *_pDurationPreSegment;
    if (want >= 1) {
      const Packet* last = _packets.back();
      const long long have = last->pts + last->duration - _packets.front()->pts;
      if (want > have) return true;
    } else if (framesPerSegment > n) {
      return true;
    }
  } else if (n < framesPerSegment) {
    return true;
  }
  return createSegment(io);
}

bool IMp4MuxerStreamFragment::createSegment(IO& io) {
  if (_packets.empty()) return true;
  fillMoof(io);
  fillMdat(io);
  _sampleCount += static_cast<unsigned>(_packets.size());
  computeDuration();
  if (IMov* mov = engine()) {
    mov->_duration_ms = static_cast<unsigned long long>(Duration());
    mov->Update(this, &io);
  }
  releasePackets();
  return true;
}

bool IMp4MuxerStreamFragment::fillMoof(IO& io) {
  if (!_pmoofIndex) {
    LOGE << "!_pmoofIndex";
    return false;
  }
  if (!_moof || !_mfhd || !_trun || !_tfdt) {
    LOGE << "!_moof";
    return false;
  }
  _mfhd->SequenceNumber(static_cast<unsigned>(*_pmoofIndex));
  ++*_pmoofIndex;
  if (_lastPtsNs == kNoPts) _lastPtsNs = _packets.front()->pts - kFirstSampleNs;
  _trun->ClearItems();
  for (Packet* p : _packets) {
    // Time stamps that go back, and payloads shorter than the header cut off, count as nothing.
    const long long step = p->pts - _lastPtsNs;
    const unsigned duration = step > 0 ? static_cast<unsigned>(_scale.From(step)) : 0;
    const int size = GetFrameSize(*p);
    _trun->AddItem(duration, size > 0 ? static_cast<unsigned>(size) : 0);
    _lastPtsNs = p->pts;
    _totalDuration += duration;
  }
  // From the start of moof to the first payload byte, behind mdat's 8-byte header.
  _trun->DataOffset(static_cast<unsigned>(_moof->StatisticsSize() + 8));
  _trun->Flags(_trun->Flags() | ctrun::kDataOffset);
  updatetfdf();
  _mfraInfo.emplace_back(static_cast<uint32_t>(_tfdt->BaseMediaDecodeTime()),
                         static_cast<uint32_t>(static_cast<unsigned long long>(io.Position())));
  _moofBytes.Bytes().clear();
  _moofBytes.Seek(0, kiv::Position::front);
  _moof->Fill(_moofBytes, true);
  io.Write(_moofBytes.Data(), _moofBytes.Size());
  return true;
}

bool IMp4MuxerStreamFragment::fillMdat(IO& io) {
  unsigned long long total = 8;
  for (Packet* p : _packets) {
    const int n = GetFrameSize(*p);
    if (n > 0) total += static_cast<unsigned long long>(n);
  }
  const unsigned char head[8] = {static_cast<unsigned char>(total >> 24), static_cast<unsigned char>(total >> 16),
                                 static_cast<unsigned char>(total >> 8),  static_cast<unsigned char>(total),
                                 'm', 'd', 'a', 't'};
  io.Write(head, sizeof head);
  for (Packet* p : _packets) WriteFrame(io, *p);
  return true;
}

void IMp4MuxerStreamFragment::computeDuration() {
  if (_packets.empty() || _firstPtsNs == kNoPts) return;
  const Packet* last = _packets.back();
  _durationNs = last->pts + last->duration - _firstPtsNs;
  _duration = _durationNs / 1000000;
}

void IMp4MuxerStreamFragment::updatetfdf() {
  if (_tfdt) _tfdt->BaseMediaDecodeTime(static_cast<unsigned long long>(_scale.From(_durationNs)));
}

void IMp4MuxerStreamFragment::MuxUpdateDuration(IO& io) { updateDuration(io); }

void IMp4MuxerStreamFragment::updateDuration(IO& io) {
  const long long ms = Duration();
  IMov* mov = engine();
  const long long movieScale = mov ? mov->_scale.Scale() : 1000;
  const unsigned long long inMovie = static_cast<unsigned long long>(ms * movieScale / 1000);
  const unsigned long long inTrack = static_cast<unsigned long long>(_scale.FromMs(ms));
  for (IBox* b : _movieScaleBoxes) b->Duration(inMovie, &io);
  for (IBox* b : _mediaScaleBoxes) b->Duration(inTrack, &io);
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
