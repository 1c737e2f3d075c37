#include "stream/plugin/mp4/core/Mp4Muxer.h"

#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/VideoTag.h"

namespace kiv {
namespace plugin {
namespace mov {

Mp4Muxer::Mp4Muxer() { FileTypeSet(); }

void Mp4Muxer::FileTypeSet() {
  if (_vidtag) _vidtag->Mp4Flavour();
  _file_type = kFileTypeMp4;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterMp4Muxer() {
  // No property list of its own: the host finds vidtag, ioCacheBlk, ioCacheNum and thumb on MovMuxer.
  kiv::plugin::mov::Reflect<kiv::plugin::mov::Mp4Muxer>("Mp4Muxer-mp4-muxer", {}, "quor");
}
