// The module's one entry: a static initialiser that hands the registration function to the host.
#include "stream/plugin/mp4/BoxWeave.h"

#include "stream/base/reflect/IClass.h"

namespace kiv {
namespace plugin {
namespace mov {



}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterBoxWeave() {
  // Strictly in the order of the class table.
}

int __cb_register_BoxWeave = ReflectAdd(RegisterBoxWeave, 0, "BoxWeave", BOXWEAVE_BANNER);
