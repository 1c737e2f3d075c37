// Write-behind cache in front of a slow stream ("io-cache-writer").
#pragma once

#include <vector>

#include "stream/base/io/IODelegate.h"

namespace kiv {
namespace base {

// Gathers writes in memory, at most blockCount blocks of blockSize bytes, and hands the inner stream
// whole blocks in file order, so that a card sees few large sequential writes. Blocks are counted from
// the inner stream's position at construction. What is cached is handed over at Flush, Close and
// destruction; a Flush keeps the last partial block in memory so the block grid stays where it was.
//
// Seeks cost nothing. A write into bytes still cached patches the cache; a write before the cache goes
// straight to the inner stream; a write that jumps past the end hands everything over and starts the
// cache anew there. Reads see the cache over the inner stream. An inner write failure is reported by
// the next Flush or Close.
class IOCacheWriter : public IODelegate {
 public:
  IOCacheWriter(IO* io, int blockSize, int blockCount);
  ~IOCacheWriter() override;

  long long Size() override;
  long long Position() override { return _pos; }
  bool Seek(long long offset, kiv::Position whence) override;
  long long Read(void* data, long long size) override;
  long long Write(const void* data, long long size) override;
  using IO::Write;
  bool Flush() override;
  bool Remove(int flags) override;
  bool Close() override;

  int BlockSize() const { return _blockSize; }
  int BlockCount() const { return _blockCount; }
  // Bytes held in memory now.
  long long Cached() const { return _len; }

 private:
  bool writeInner(long long pos, const unsigned char* data, long long size);
  long long readInner(long long pos, unsigned char* data, long long size);
  void handOverBlock();
  void handOverAll(bool keepTail);

  int _blockSize = 0;
  int _blockCount = 0;
  long long _cap = 0;                // blockSize * blockCount; 0: plain pass-through
  std::vector<unsigned char> _ring;  // blocks in a ring, allocated on the first write
  long long _head = 0;               // ring offset of the first cached byte, a multiple of the block size
  long long _start = 0;              // file position of the first cached byte
  long long _len = 0;                // cached bytes
  long long _pos = 0;
  long long _innerSize = 0;
  bool _dirty = false;  // cached bytes that the inner stream doesn't hold yet
  bool _failed = false;
};

}  // namespace base
}  // namespace kiv
