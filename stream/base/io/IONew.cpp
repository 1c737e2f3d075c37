// IO::New: the one way streams are opened by url.
#include <cstring>

#include "stream/base/dbg/Log.h"
#include "stream/base/io/IO.h"
#include "stream/base/io/IOFile.h"
#include "stream/base/io/IUrl.h"

namespace kiv {
namespace base {

IO* IO::New(const char* url, const char* mode, object* /*parent*/) {
  if (!url || !*url) {
    LOGE << "!url";
    return nullptr;
  }
  if (!IOFile::ValidMode(mode)) {
    LOGE << "!mode " << (mode ? mode : "(null)") << " " << url;
    return nullptr;
  }
  if (std::strncmp(url, "mem://", 6) == 0) {
    IOBuffer* b = new IOBuffer();
    b->_url = url;
    return b;
  }
  if (IUrl::IsOtherScheme(url)) {
    LOGE << "!scheme " << url;
    return nullptr;
  }
  IOFile* f = new IOFile();
  if (!f->Open(url, mode)) {
    delete f;
    return nullptr;
  }
  return f;
}

}  // namespace base
}  // namespace kiv
