// The one table from four-character code to box class.
#pragma once

#include <cstddef>

namespace kiv {
namespace plugin {
namespace mov {

class IBox;

struct BoxCreator {
  unsigned fcc;
  IBox* (*create)(unsigned size);  // only "mdat" uses the size
};

// Every code the factory knows; count receives the number of rows.
const BoxCreator* BoxCreators(size_t& count);

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
