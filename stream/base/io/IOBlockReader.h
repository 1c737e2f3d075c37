// Buffered reading in blocks over another stream.
#pragma once

#include <vector>

#include "stream/base/io/IODelegate.h"

namespace kiv {
namespace base {

// A read-only view that reads the inner stream in blocks aligned to the block size and serves
// neighbouring reads from memory; a seek only moves the view's position. It starts at the inner
// stream's position; when it does not own the inner stream it leaves that stream at its own position
// when destroyed, so the owner goes on from where the view stopped. The inner stream must not change
// under the view.
class IOBlockReader : public IODelegate {
 public:
  IOBlockReader(IO& io, int blockSize);
  ~IOBlockReader() override;

  long long Size() override;
  long long Position() override { return _pos; }
  bool Seek(long long offset, kiv::Position whence) override;
  long long Read(void* data, long long size) override;
  // Read-only: -1.
  long long Write(const void* data, long long size) override;
  using IO::Write;
  bool Flush() override { return true; }

  int BlockSize() const { return _blockSize; }
  // Reads made on the inner stream so far.
  long long InnerReads() const { return _innerReads; }

 private:
  int load(long long pos);

  int _blockSize;
  std::vector<unsigned char> _block;
  long long _blockPos = 0;  // file position of the block's first byte
  long long _blockLen = 0;  // valid bytes in the block
  long long _pos = 0;
  long long _innerReads = 0;
};

}  // namespace base
}  // namespace kiv
