// A stream that forwards to another stream; the base of the stream wrappers.
#pragma once

#include "stream/base/io/IO.h"

namespace kiv {
namespace base {

class IODelegate : public IO {
 public:
  explicit IODelegate(IO* io = nullptr) : _io(io) {}
  ~IODelegate() override;
  IODelegate(const IODelegate&) = delete;
  IODelegate& operator=(const IODelegate&) = delete;

  // With true the delegate owns the inner stream and destroys it with itself.
  void SetFreeDelegateIO(bool free) { _freeIO = free; }
  bool FreeDelegateIO() const { return _freeIO; }
  IO* DelegateIO() const { return _io; }

  long long Size() override;
  long long Position() override;
  bool Seek(long long offset, kiv::Position whence) override;
  long long Read(void* data, long long size) override;
  long long Write(const void* data, long long size) override;
  using IO::Write;
  bool Flush() override;
  bool Remove(int flags) override;
  const char* URL() const override;
  bool HasFileData() const override;
  std::string Error() const override;
  bool Close() override;

 protected:
  // Logs once when there is no inner stream.
  bool hasIO() const;

  IO* _io;
  bool _freeIO = false;
};

}  // namespace base
}  // namespace kiv
