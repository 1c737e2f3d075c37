#include "stream/base/io/File.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "stream/base/dbg/Log.h"
#include "stream/base/io/IOFile.h"
#include "stream/base/io/IUrl.h"

namespace kiv {
namespace base {

File::File() : _io(new IOFile()) {}
File::~File() { delete _io; }

File* File::Open(const char* path, const char* mode) {
  File* f = new File();
  if (!f->_io->Open(path, mode)) {
    delete f;
    return nullptr;
  }
  return f;
}

long long File::Read(void* h, void* data, long long size) {
  return h ? static_cast<File*>(h)->_io->Read(data, size) : -1;
}

long long File::Write(void* h, const void* data, long long size) {
  return h ? static_cast<File*>(h)->_io->Write(data, size) : -1;
}

bool File::Seek(void* h, long long offset, kiv::Position whence) {
  return h && static_cast<File*>(h)->_io->Seek(offset, whence);
}

long long File::Position(void* h) { return h ? static_cast<File*>(h)->_io->Position() : -1; }

long long File::Size(void* h) { return h ? static_cast<File*>(h)->_io->Size() : -1; }

bool File::Flush(void* h) { return h && static_cast<File*>(h)->_io->Flush(); }

bool File::Close(void* h) {
  if (!h) return false;
  File* f = static_cast<File*>(h);
  const bool ok = f->_io->Close();
  delete f;
  return ok;
}

bool File::Delete(const char* path) {
  if (!path || !*path) return false;
  const std::string p = ResolvePath(path);
  if (::unlink(p.c_str()) != 0) {
    const int err = errno;
    LOGE << "!unlink " << p << " " << std::strerror(err);
    return false;
  }
  return true;
}

}  // namespace base
}  // namespace kiv

extern "C" unsigned GetClusterSize(const char* path) {
  const unsigned kDefault = 4096;
  if (!path || !*path || kiv::base::IUrl::IsOtherScheme(path)) return kDefault;
  std::string p = kiv::base::ResolvePath(path);
  // The file itself is often not made yet: ask the nearest directory that exists.
  struct statvfs vfs;
  for (;;) {
    if (::statvfs(p.empty() ? "." : p.c_str(), &vfs) == 0) break;
    const size_t slash = p.find_last_of('/');
    if (p.empty() || p == "/" ) return kDefault;
    if (slash == std::string::npos) {
      p.clear();
    } else {
      p.erase(slash == 0 ? 1 : slash);
    }
  }
  unsigned long bs = vfs.f_bsize ? vfs.f_bsize : vfs.f_frsize;
  if (bs == 0) return kDefault;
  if (bs > 0x80000000UL) bs = 0x80000000UL;
  unsigned v = 1;
  while (v <= bs / 2) v <<= 1;
  return v;
}
