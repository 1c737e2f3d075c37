#include "stream/plugin/mp4/core/demux/IParser.h"

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"
#include "stream/core/fw/IPort.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/IStream.h"

namespace kiv {
namespace plugin {
namespace mov {

unsigned long long IParser::Duration() {
  IBox* root = parserRoot();
  auto* mvhd = root ? dynamic_cast<cmvhd*>(root->Find("mvhd")) : nullptr;
  if (!mvhd) {
    LOGE << "!mvhd";
    return 0;
  }
  if (mvhd->_duration == 0) return 0;
  _parserScale.Scale(mvhd->_timescale);
  const long long ms = _parserScale.ToMs(static_cast<long long>(mvhd->_duration));
  return ms > 0 ? static_cast<unsigned long long>(ms) : 0;
}

bool IParser::PortInfoUpdate(std::list<kiv::stream::IPort*> ports) {
  for (IStream* st : parserStreams()) {
    kiv::stream::IMedia* media = st ? st->Media() : nullptr;
    if (!media) continue;
    for (kiv::stream::IPort* port : ports) {
      if (!port || !port->Match(media)) continue;
      media->Hold();
      if (port->Media(*media)) {
        port->Caps(media->Caps().c_str());
        break;
      }
      media->Release();
    }
  }
  return true;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
