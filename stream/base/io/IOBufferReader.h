// A read-only stream over a block of memory that stands for a stretch of a file.
#pragma once

#include "stream/base/io/IO.h"

namespace kiv {
namespace base {

// Data() is filled by the owner; Offset0 names the file position of byte 0, and from then on
// Position, Seek and Size count in file positions (Size is the position behind the last byte).
class IOBufferReader : public IOBuffer {
 public:
  explicit IOBufferReader(long long size);

  void Offset0(long long offset) { _offset0 = offset; }
  long long Offset0() const { return _offset0; }

  long long Size() override { return _offset0 + static_cast<long long>(_data.size()); }
  long long Position() override { return _offset0 + _pos; }
  bool Seek(long long offset, kiv::Position whence) override;
  long long Read(void* data, long long size) override;
  // Read-only: -1.
  long long Write(const void* data, long long size) override;
  using IO::Write;

 private:
  long long _offset0 = 0;
};

}  // namespace base
}  // namespace kiv
