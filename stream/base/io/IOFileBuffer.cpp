#include "stream/base/io/IOFileBuffer.h"

#include <algorithm>
#include <utility>

#include "stream/base/dbg/Log.h"
#include "stream/base/io/IOFile.h"
#include "stream/base/io/IUrl.h"

namespace kiv {
namespace base {

IOFileBuffer::IOFileBuffer(const char* url, long long size, FlushFn flush)
    : _reserve(std::max(0LL, size)), _flush(std::move(flush)) {
  if (url && *url) {
    _url = url;
    _path = ResolvePath(url);
  }
}

IOFileBuffer::~IOFileBuffer() { delete _file; }

// Moves what is in memory into the temporary file and frees the memory.
bool IOFileBuffer::toFile() {
  if (_path.empty() || _fileFailed) return false;
  IOFile* f = new IOFile();
  if (!f->Open(_url.c_str(), "wbt")) {
    delete f;
    _fileFailed = true;  // logged by Open; memory takes over
    return false;
  }
  const long long n = static_cast<long long>(_data.size());
  if ((n && f->Write(_data.data(), n) != n) || !f->Seek(_pos, kiv::Position::front)) {
    LOGE << "!toFile " << _path;
    f->Remove(0);
    delete f;
    _fileFailed = true;
    return false;
  }
  if (Debug()) LOGL << _path << " takes " << n << " bytes";
  _file = f;
  std::vector<unsigned char>().swap(_data);
  _pos = 0;
  return true;
}

long long IOFileBuffer::Size() { return _file ? _file->Size() : IOBuffer::Size(); }
long long IOFileBuffer::Position() { return _file ? _file->Position() : IOBuffer::Position(); }

bool IOFileBuffer::Seek(long long offset, kiv::Position whence) {
  return _file ? _file->Seek(offset, whence) : IOBuffer::Seek(offset, whence);
}

long long IOFileBuffer::Read(void* data, long long size) {
  return _file ? _file->Read(data, size) : IOBuffer::Read(data, size);
}

long long IOFileBuffer::Write(const void* data, long long size) {
  if (size < 0 || (!data && size)) return -1;
  if (!_file) {
    long long end = 0;
    if (__builtin_add_overflow(_pos, size, &end)) return -1;
    if (end > _reserve && toFile()) return _file->Write(data, size);
    if (!_file && end > static_cast<long long>(_data.capacity())) {
      // Grow within the reservation; past it (no file) grow as a vector would.
      const long long cap = static_cast<long long>(_data.capacity());
      long long want = std::max(end, cap * 2);
      if (end <= _reserve) want = std::min(want, _reserve);
      _data.reserve(static_cast<size_t>(want));
    }
    return IOBuffer::Write(data, size);
  }
  return _file->Write(data, size);
}

bool IOFileBuffer::Flush() {
  bool ok = !_file || _file->Flush();
  if (_flush) ok = _flush(this) && ok;
  return ok;
}

std::string IOFileBuffer::Error() const {
  if (_file) return _file->Error();
  return _fileFailed ? "cannot move to " + _path : std::string();
}

bool IOFileBuffer::Remove(int /*flags*/) {
  bool ok = true;
  if (_file) {
    ok = _file->Remove(0);
    delete _file;
    _file = nullptr;
  }
  std::vector<unsigned char>().swap(_data);
  _pos = 0;
  return ok;
}

}  // namespace base
}  // namespace kiv
