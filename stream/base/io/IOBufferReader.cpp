#include "stream/base/io/IOBufferReader.h"

#include <algorithm>
#include <cstring>

#include "stream/base/dbg/Log.h"

namespace kiv {
namespace base {

IOBufferReader::IOBufferReader(long long size) {
  if (size < 0) {
    LOGE << "!(size>=0) " << size;
    size = 0;
  }
  _data.resize(static_cast<size_t>(size));
}

bool IOBufferReader::Seek(long long offset, kiv::Position whence) {
  long long base = whence == kiv::Position::front ? 0 : whence == kiv::Position::current ? Position() : Size();
  long long to = 0;
  if (__builtin_add_overflow(base, offset, &to) || to < _offset0) return false;
  _pos = to - _offset0;
  return true;
}

long long IOBufferReader::Read(void* data, long long size) {
  if (size < 0 || (!data && size)) return -1;
  const long long left = std::max(0LL, static_cast<long long>(_data.size()) - _pos);
  const long long n = std::min(size, left);
  if (n > 0) std::memcpy(data, _data.data() + _pos, static_cast<size_t>(n));
  _pos += n;
  return n;
}

long long IOBufferReader::Write(const void* /*data*/, long long /*size*/) {
  LOGE << "!write: read-only buffer reader";
  return -1;
}

}  // namespace base
}  // namespace kiv
