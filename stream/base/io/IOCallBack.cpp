#include "stream/base/io/IOCallBack.h"

#include <utility>

namespace kiv {
namespace base {

IOCallBack::IOCallBack(IO& io, long long user, Fn fn) : IODelegate(&io), _user(user), _fn(std::move(fn)) {}

long long IOCallBack::Read(void* data, long long size) {
  const long long n = IODelegate::Read(data, size);
  if (n > 0) {
    _read += n;
    if (_fn && !_fn(*_io, _user, n)) return -1;
  }
  return n;
}

long long IOCallBack::Write(const void* data, long long size) {
  const long long n = IODelegate::Write(data, size);
  if (n > 0) {
    _written += n;
    if (_fn && !_fn(*_io, _user, n)) return -1;
  }
  return n;
}

}  // namespace base
}  // namespace kiv
