// The length of a fragmented file without a demuxer and without reading a sample: the host creates
// the object by class name ("FMp4Info-fmp4-info"), sets its "url" and reads "duration" (ms). The head
// of the file is parsed once, up to the first fragment; the length is what "mehd" holds, 0 when the
// file has none.
#pragma once

#include "stream/base/reflect/Object.h"
#include "stream/core/fw/IIO.h"
#include "stream/plugin/mp4/common/IMov.h"

namespace kiv {
namespace plugin {
namespace mov {

class FMp4Info : public IMov, public kiv::stream::IIO, public virtual kiv::base::Object {
 public:
  FMp4Info() = default;
  ~FMp4Info() override;

  // Milliseconds; the answer once found is kept, and a tree once read is not read again.
  unsigned long long Duration();

  unsigned long long _duration = 0;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterFMp4Info();
