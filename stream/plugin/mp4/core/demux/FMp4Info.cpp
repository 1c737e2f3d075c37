#include "stream/plugin/mp4/core/demux/FMp4Info.h"

#include "stream/base/AttrSet.h"
#include "stream/base/dbg/Log.h"
#include "stream/base/io/IOBlockReader.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/IBox.h"

namespace kiv {
namespace plugin {
namespace mov {

FMp4Info::~FMp4Info() {
  delete _root;
  _root = nullptr;
}

unsigned long long FMp4Info::Duration() {
  if (_duration) return _duration;
  if (!_root) {
    if (!_io && !IIO::Open("rb")) {
      LOGE << "!IIO::Open(\"rb\")";
      return 0;
    }
    if (!_io) {
      LOGE << "!_io";
      return 0;
    }
    if (!_io->Seek(0, kiv::Position::front)) {
      LOGE << "!_io->Seek(0,Position::front)";
      return 0;
    }
    kiv::base::IOBlockReader br(*_io, 32768);
    _root = IBox::New("fmp4", 0);
    if (!_root) {
      LOGE << "!_root";
      return 0;
    }
    kiv::base::AttrSet ap;
    // What a failed parse leaves is kept: a second question looks at it without reading again.
    if (!_root->Parse(br, ap, true)) {
      LOGE << "!_root->Parse(br,ap,true)";
      return 0;
    }
  }
  auto* mvhd = dynamic_cast<cmvhd*>(_root->Find("mvhd"));
  if (!mvhd) return _duration;
  _scale.Scale(mvhd->_timescale);
  auto* mehd = dynamic_cast<cmehd*>(_root->Find("mehd"));
  if (!mehd) return _duration;
  const long long ms = _scale.ToMs(static_cast<long long>(mehd->Duration()));
  _duration = ms > 0 ? static_cast<unsigned long long>(ms) : 0;
  return _duration;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterFMp4Info() {
  using kiv::plugin::mov::FMp4Info;
  using P = kiv::base::TProperty<FMp4Info>;
  kiv::plugin::mov::Reflect<FMp4Info>("FMp4Info-fmp4-info", {P::Getter("duration", &FMp4Info::Duration)}, "quor");
}
