#include "stream/plugin/mp4/common/VideoChunks.h"

#include <cstring>

#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/Box.h"

namespace kiv {
namespace plugin {
namespace mov {

namespace {

void releasePacket(Packet*& p) { kiv::base::Release(p); }

}  // namespace

void VideoChunks::Setup(unsigned n, const videoTags& tags, bool scratch) {
  const int capacity = static_cast<int>(2 * n);
  if (!_fifo || !_fifo->Remax(capacity)) {
    if (!_fifo) _fifo = new IStream::PacketFifo(capacity, releasePacket);
  }
  if (scratch && _track._fragmented) _track.allocScratch(2 * n);
  _track._chunkLeads = tags.audio_chunk_first ? 0 : 1;
  _firstChunkMs = 0;
}

long long VideoChunks::writeGroup(IO& io, unsigned n) {
  long long sum = 0;
  for (unsigned i = 0; i < n; ++i) {
    Packet* p = nullptr;
    if (!_fifo->pop(p) || !p) break;
    _track.AddChunk(*p, 0, 0);
    sum += _write(_track, io, *p);
    if (i + 1 < n) _track.concateFill();
    kiv::base::Release(p);
  }
  return sum;
}

long long VideoChunks::Add(IO& io, Packet& packet, unsigned long long leader, unsigned n) {
  IStream& t = _track;
  const long long pos = io.Position();
  const int size = packet.Size();
  if (!_fifo) {
    t.AddChunk(packet, size ? static_cast<unsigned long long>(pos) : 0, 0);
    const long long written = _write(t, io, packet);
    t.concateFill();
    return written;
  }

  const bool held = t.holdInFifo(*_fifo, packet);
  if (t._fragmented) {
    if (held)
      t.pushScratch(static_cast<unsigned>(size), static_cast<uint16_t>(t._scale.FromMs(packet.duration / 1000000)));
  } else if (t._chunkLeads == 0 && !t.mdatHasContent()) {
    return 0;  // a following track writes nothing before the leader has
  }
  if (_fifo->Size() < static_cast<int>(n)) return 0;
  if (t._chunkLeads == 0 && static_cast<unsigned long long>(t._duration) + _firstChunkMs / 2 > leader) return 0;

  if (t._fragmented) {
    t.createmoof(io, true, n, static_cast<unsigned>(t._firstPts), false);
    // What came in behind the group moves to the front of the scratch arrays.
    const unsigned rest = t._sizeCount > n ? t._sizeCount - n : 0;
    if (rest) {
      std::memmove(t._sizeList, t._sizeList + n, rest * sizeof(unsigned));
      std::memmove(t._ptsList, t._ptsList + n, rest * sizeof(unsigned));
    }
    t._sizeCount = rest;
    t._ptsCount = rest;
  }

  const long long sum = writeGroup(io, n);
  // The group's position closes its chunk, in the group's last record.
  if (t._chunkList && !t._chunkList->empty()) t._chunkList->back().offset = size ? static_cast<unsigned long long>(pos) : 0;
  ++_chunkCount;
  if (_chunkCount == 1) _firstChunkMs = static_cast<unsigned long long>(t._duration);
  t.concateFill();
  return sum;
}

void VideoChunks::Flush(IO& io, unsigned n) {
  IStream& t = _track;
  if (!_fifo || n == 0) return;
  while (_fifo->Size() >= static_cast<int>(n)) {
    const long long pos = io.Position();
    if (t._fragmented) {
      t.createmoof(io, true, n, static_cast<unsigned>(t._firstPts), false);
      t._sizeCount = 0;
      t._ptsCount = 0;
    }
    const long long sum = writeGroup(io, n);
    if (t._chunkList && !t._chunkList->empty()) t._chunkList->back().offset = static_cast<unsigned long long>(pos);
    t.growMdat(sum);
    t.concateFill();
  }
}

int VideoChunks::Record(IStream& track, const Packet& packet, unsigned long long offset, int flag, unsigned count,
                        kiv::base::Fraction& frameRate) {
  const size_t before = track._chunkList ? track._chunkList->size() : 0;
  const int size = track.IStream::AddChunk(packet, offset, flag);
  if (!track._chunkList || track._chunkList->size() == before) return size;
  ChunkParam& r = track._chunkList->back();
  if (count > 1) r.count = count;
  if (track._addSamples) r.count += track._addSamples;
  if (track.param().fixedRate) {
    auto zero = [](const kiv::base::Fraction& f) { return f.Den() == 0 || f.Num() / f.Den() == 0; };
    if (zero(frameRate) && packet.media) packet.media->Get("framerate", frameRate);
    if (zero(frameRate)) return size;
    r.duration = static_cast<uint32_t>(frameRate.Den() * track._scale.Scale() / frameRate.Num());
  }
  return size;
}

void VideoChunks::HideFirstPts(IStream& track, uint32_t structure) {
  if (!track._trak || structure != FCC("ibbp")) return;
  auto* elst = dynamic_cast<celst*>(track._trak->Find("elst"));
  if (elst && !elst->_items.empty()) elst->_items[0].media_time = track._firstPts & 0xffffffffLL;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
