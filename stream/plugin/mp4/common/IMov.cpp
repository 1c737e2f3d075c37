#include "stream/plugin/mp4/common/IMov.h"

namespace kiv {
namespace plugin {
namespace mov {

IMov::~IMov() = default;

bool IMov::Update(IStream*, kiv::base::IO*) { return true; }

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
