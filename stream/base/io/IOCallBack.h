// A stream that reports the bytes passing through it.
#pragma once

#include <cstdint>
#include <functional>

#include "stream/base/io/IODelegate.h"

namespace kiv {
namespace base {

// Forwards to io (not owned). After each read or write that moved bytes, fn is called with the inner
// stream, the user value given at construction and the byte count; a false result makes that read or
// write report failure (-1), which lets the caller stop a long walk. A null fn is a plain pass-through.
class IOCallBack : public IODelegate {
 public:
  using Fn = std::function<bool(IO& io, long long user, long long bytes)>;
  IOCallBack(IO& io, long long user, Fn fn = nullptr);
  // The user value as a pointer (an engine, an element).
  template <class T>
  IOCallBack(IO& io, T* user, Fn fn = nullptr)
      : IOCallBack(io, static_cast<long long>(reinterpret_cast<intptr_t>(user)), std::move(fn)) {}

  long long Read(void* data, long long size) override;
  long long Write(const void* data, long long size) override;
  using IO::Write;

  long long User() const { return _user; }
  // Bytes read and written through this stream.
  long long BytesRead() const { return _read; }
  long long BytesWritten() const { return _written; }

 private:
  long long _user;
  Fn _fn;
  long long _read = 0;
  long long _written = 0;
};

}  // namespace base
}  // namespace kiv
