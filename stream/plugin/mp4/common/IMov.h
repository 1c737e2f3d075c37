// The small base that the engines of both sides share: the box tree of one file, its tracks, its
// creation time, its running length and its movie time scale.
#pragma once

#include <vector>

#include "stream/base/Convert.h"
#include "stream/base/io/IO.h"

namespace kiv {
namespace plugin {
namespace mov {

class IBox;
class IStream;

class IMov {
 public:
  IMov() = default;
  IMov(const IMov&) = delete;
  IMov& operator=(const IMov&) = delete;
  // The tree and the tracks belong to the engine that made them; each side frees its own.
  virtual ~IMov();

  // Called by a track when it has put something into the file that the engine may want to follow
  // (a fragment on the fragmented side). Nothing to do here.
  virtual bool Update(IStream* stream, kiv::base::IO* io);

  IBox* _root = nullptr;
  std::vector<IStream*> _streams;
  unsigned long long _create_time = 0;  // seconds since 1904-01-01
  // Milliseconds. While muxing, the leading track's length, which the other tracks follow; when
  // reading, the length of the file.
  unsigned long long _duration_ms = 0;
  kiv::base::TimeScale _scale;  // the movie time scale
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
