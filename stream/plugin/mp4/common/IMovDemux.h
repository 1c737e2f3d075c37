// The engine that reads one ordinary movie file: it parses the whole box tree (tables in memory, or
// left on file for big tracks), makes one track stream a supported trak, and chooses which track gives
// the next packet. The tracks leave in the order their samples lie in the file, so the read head moves
// forward through it.
#pragma once

#include <string>
#include <vector>

#include "stream/base/io/IO.h"
#include "stream/plugin/mp4/common/IMov.h"

namespace kiv {
namespace stream {
class Packet;
}
namespace plugin {
namespace mov {

class IBox;
class IStream;

class IMovDemux : public IMov {
 public:
  IMovDemux() = default;
  // Frees what a Close has not.
  ~IMovDemux() override;

  // Parses the tree, makes the tracks and reads the movie header. False when the tree cannot be read.
  virtual bool Open(kiv::base::IO& io);
  // Drops the tracks and the tree; the stream is not read.
  virtual bool Close(kiv::base::IO& io);
  // The production modes: the next packet, null at the end, or the pointer value -1 on a failed read.
  // Normal plays every track in file order; the others play one track (Fast and Back its key frames).
  virtual kiv::stream::Packet* ProcessNormal(kiv::base::IO& io);
  virtual kiv::stream::Packet* ProcessFast(kiv::base::IO& io);
  virtual kiv::stream::Packet* ProcessBack(kiv::base::IO& io);
  virtual kiv::stream::Packet* ProcessVideo(kiv::base::IO& io);
  virtual kiv::stream::Packet* ProcessAudio(kiv::base::IO& io);
  virtual IBox* IBoxRootGet() { return _root; }
  virtual std::vector<IStream*> StreamingGet() { return _streams; }
  // The whole tree, once; through a block reader.
  virtual bool Parse(kiv::base::IO& io);
  // Movie header values, and the stream left at the start of the media data.
  virtual bool Update(kiv::base::IO& io);
  using IMov::Update;

  // Time of the packet last produced, ms.
  long long _pts = 0;
  // Which of the file's video tracks plays, counted over video tracks only.
  int _video_index = 0;
  // Whether big sample tables stay on file, and from which "stbl" size.
  bool _stbl_extern_enable = false;
  int _stbl_switch_size = 0x10000;
  int _stbl_blk_size = 32768;
  std::string _stbl_keywords = "extern";

 protected:
  // The track the single-track modes play: the chosen video track, or the first audio track.
  IStream* videoTrack();
  IStream* audioTrack();
  // The mdat of a file cut inside it, added to the tree by its header; null when there is none.
  IBox* cutMdat(kiv::base::IO& io);
  // What Close does; the stream plays no part in it.
  bool closeTree();
  // Steps 6 to 8 of every mode: note the time, read the frame, move on.
  kiv::stream::Packet* produce(IStream* st, kiv::base::IO& io);
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
