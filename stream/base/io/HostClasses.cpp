// The host's own registered classes, entered into the registry when the host runs its registrations.
#include "stream/base/io/IOCacheWriter.h"
#include "stream/base/reflect/IClass.h"

extern "C" void RegisterHostClasses() {
  kiv::base::ReflectClass<kiv::base::IOCacheWriter, kiv::base::IO*, int, int>(
      "IOCacheWriter-io-cache-writer", {}, true, "kiv", 0x10000, "kiv", "host");
}

[[maybe_unused]] static const int g_registerHostClasses = ReflectAdd(RegisterHostClasses, 0, "kiv", "host");
