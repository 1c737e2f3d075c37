// Registration of the stream framework's own classes, so that element properties declared on these
// bases are found by name on every element that derives from them.
#include "stream/base/reflect/IClass.h"
#include "stream/core/fw/IIO.h"

namespace {

void RegisterStreamClasses() {
  using kiv::base::ReflectClass;
  using kiv::base::TProperty;
  using kiv::stream::IIO;
  // Abstract: no constructor; a subclass reaches "url" through the search over registered bases.
  ReflectClass<IIO>("IIO", {TProperty<IIO>::Member("url", &IIO::url)}, false, "kiv", 0x10000, "kiv", "stream");
}

}  // namespace

[[maybe_unused]] static const int s_registerStreamClasses = ReflectAdd(RegisterStreamClasses, 0, "StreamClasses", "kiv-stream");
