#include "stream/base/io/IODelegate.h"

#include "stream/base/dbg/Log.h"

namespace kiv {
namespace base {

IODelegate::~IODelegate() {
  if (_freeIO) delete _io;
  _io = nullptr;
}

bool IODelegate::hasIO() const {
  if (_io) return true;
  LOGE << "!_io";
  return false;
}

long long IODelegate::Size() { return hasIO() ? _io->Size() : 0; }
long long IODelegate::Position() { return hasIO() ? _io->Position() : 0; }
bool IODelegate::Seek(long long offset, kiv::Position whence) { return hasIO() && _io->Seek(offset, whence); }
long long IODelegate::Read(void* data, long long size) { return hasIO() ? _io->Read(data, size) : -1; }
long long IODelegate::Write(const void* data, long long size) { return hasIO() ? _io->Write(data, size) : -1; }
bool IODelegate::Flush() { return hasIO() && _io->Flush(); }
bool IODelegate::Remove(int flags) { return hasIO() && _io->Remove(flags); }
const char* IODelegate::URL() const { return _io ? _io->URL() : IO::URL(); }
bool IODelegate::HasFileData() const { return _io && _io->HasFileData(); }
std::string IODelegate::Error() const { return _io ? _io->Error() : std::string(); }
bool IODelegate::Close() { return !_io || _io->Close(); }

}  // namespace base
}  // namespace kiv
