// The demuxer element the host creates for mov, mp4 and fragmented mp4 files. At Open it tells the two
// kinds of file apart by a top-level "moof" and builds the matching engine; every later request goes
// to that engine.
//
// Properties, beside "url" and "live": "duration" (ms, read), "thumbsize" and "thumbdata" (read),
// "seek" (ms, write: moves every track to the key frame for that time; the run goes on from there,
// also after "eos").
#pragma once

#include <functional>

#include "stream/plugin/mp4/core/demux/IDemuxer.h"

namespace kiv {
namespace plugin {
namespace mov {

class IParser;

class Mp4Demuxer : public kiv::stream::IDemuxer {
 public:
  Mp4Demuxer();
  ~Mp4Demuxer() override;

  bool Open() override;
  bool Close() override;
  // Gives no result here: the engine's own ParseFile is for a caller that holds the engine.
  bool ParseFile(std::function<bool(kiv::stream::IMedia*)> fn) override;
  bool Seek(long long ms) override;
  unsigned long long Duration() override;
  unsigned char* GetThumbData() override;
  unsigned GetThumbSize() override;
  kiv::stream::Packet* GeneratePacket(void* user) override;

  // The host's one seam for reading big sample tables where they lie in the file instead of expanding
  // them into a list in memory; no element property carries it (a device sets it from its own
  // configuration). With onFile, a track whose "stbl" box has at least switchSize bytes is read through
  // table readers, each with a block of blockSize bytes, so that memory stays flat however long the
  // recording; smaller ones stay in memory. Off by default; set before Open. A track with composition
  // offsets ("ctts") cannot be read that way: such a file fails to open when its "stbl" reaches the size.
  void TablesOnFile(bool onFile, int switchSize = 0x10000, int blockSize = 32768);

  // Looks for a box of this code at the top level, from the stream's present position, by headers only.
  bool FindTopFcc(const char* fcc);

  IParser* Engine() const { return _demuxer; }

 private:
  void dropEngine();

  IParser* _demuxer = nullptr;
  bool _tables_on_file = false;
  int _switch_size = 0x10000;
  int _block_size = 32768;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMp4Demuxer();
