// The muxer element for MP4 files: MovMuxer with the mp4 profile. The whole difference between the two
// files lies in that profile and in the brands the engine writes for the mp4 file type.
#pragma once

#include "stream/plugin/mp4/core/MovMuxer.h"

namespace kiv {
namespace plugin {
namespace mov {

class Mp4Muxer : public MovMuxer {
 public:
  Mp4Muxer();
  // Writes the mp4 column over the engine's present profile and sets the engine's file type.
  void FileTypeSet();
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMp4Muxer();
