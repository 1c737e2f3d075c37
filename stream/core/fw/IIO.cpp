#include "stream/core/fw/IIO.h"

#include <cstring>

#include "stream/base/dbg/Log.h"

namespace kiv {
namespace stream {

IIO::~IIO() { Close(); }

bool IIO::Open(const char* mode) {
  if (io) {
    LOGN << "io open already: " << url;
    return true;
  }
  _ioError.clear();
  if (url.empty()) {
    LOGE << "!url";
    return false;
  }
  io = kiv::base::IO::New(url.c_str(), mode ? mode : "rb", this);
  if (!io) {
    LOGE << "!IO::New(url, mode) " << url << " " << (mode ? mode : "");
    return false;
  }
  return true;
}

bool IIO::Close() {
  if (!io) return true;
  const bool ok = io->Close();
  if (!ok) LOGE << "!io->Close() " << url;
  _ioError = io->Error();
  if (!ok && _ioError.empty()) _ioError = "the stream did not close";
  delete io;
  io = nullptr;
  return ok;
}

kiv::base::object* IIO::getChild(const char* name) {
  if (name && std::strcmp(name, "io") == 0) return io;
  return nullptr;
}

}  // namespace stream
}  // namespace kiv
