#include "stream/plugin/mp4/core/demux/Mp4Parser.h"

#include "stream/base/dbg/Log.h"
#include "stream/base/io/IOCallBack.h"
#include "stream/core/IMedia.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/IStream.h"
#include "stream/plugin/mp4/demux/StreamDemuxer.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::IO;
using kiv::stream::Packet;

bool Mp4Parser::OpenDemuxer(IO& io) {
  _io = &io;
  LOGL << "OpenDemuxer";
  if (!parseFile()) {
    LOGE << "!parseFile()";
    return false;
  }
  _process = &IMovDemux::ProcessNormal;
  return true;
}

bool Mp4Parser::parseFile() {
  if (!_io) {
    LOGE << "!_io";
    return false;
  }
  if (!_streams.empty()) return true;
  if (!IMovDemux::Open(*_io)) {
    LOGE << "!IMovDemux::Open(*_io)";
    return false;
  }
  return true;
}

bool Mp4Parser::CloseDemuxer() {
  LOGI << "CloseDemuxer";
  std::lock_guard<std::mutex> lock(_mutex);
  // The element has closed and destroyed the stream already: the tree and tracks go without it.
  _io = nullptr;
  _process = nullptr;
  if (!closeTree()) {
    LOGE << "!IMovDemux::Close(*_io)";
    return false;
  }
  return true;
}

bool Mp4Parser::ParseFile(std::function<bool(kiv::stream::IMedia*)> fn) {
  if (!parseFile()) return false;
  for (IStream* st : _streams) {
    IBox* trak = st ? st->Track() : nullptr;
    if (!trak || !trak->Find("stsz") || (!trak->Find("stco") && !trak->Find("co64"))) return false;
  }
  if (!fn) return true;
  bool videoSeen = false;
  for (IStream* st : _streams) {
    kiv::stream::IMedia* media = st->Media();
    const bool audio = media && media->IsAudio();
    if (audio || !videoSeen)
      if (!fn(media)) return true;
    if (media && media->IsVideo()) videoSeen = true;
  }
  return true;
}

Packet* Mp4Parser::GeneratePacket(void*) {
  std::lock_guard<std::mutex> lock(_mutex);
  if (!_process || !_io) return nullptr;
  kiv::base::IOCallBack io(*_io, this);
  return (this->*_process)(io);
}

bool Mp4Parser::Seek(long long ms) {
  std::lock_guard<std::mutex> lock(_mutex);
  long long target = ms;
  IStream* video = nullptr;
  for (IStream* st : _streams)
    if (st && st->_demuxer && st->Media() && st->Media()->IsVideo()) {
      video = st;
      break;
    }
  if (video) {
    video->_demuxer->Seek(ms, true);
    // The others follow the key frame the video landed on.
    target = video->_demuxer->CurrentPts();
  }
  for (IStream* st : _streams)
    if (st && st != video && st->_demuxer) st->_demuxer->Seek(target, true);
  return true;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
