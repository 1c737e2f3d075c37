#include "stream/base/io/IOBlockReader.h"

#include <algorithm>
#include <cstring>

#include "stream/base/dbg/Log.h"

namespace kiv {
namespace base {

namespace {
const int kDefaultBlock = 32768;
}

IOBlockReader::IOBlockReader(IO& io, int blockSize) : IODelegate(&io), _blockSize(blockSize) {
  if (_blockSize <= 0) {
    LOGE << "!(blockSize>0) " << blockSize;
    _blockSize = kDefaultBlock;
  }
  _pos = std::max(0LL, io.Position());
}

IOBlockReader::~IOBlockReader() {
  if (_io && !_freeIO) _io->Seek(_pos, kiv::Position::front);
}

long long IOBlockReader::Size() { return _io ? _io->Size() : 0; }

bool IOBlockReader::Seek(long long offset, kiv::Position whence) {
  if (!hasIO()) return false;
  long long base = whence == kiv::Position::front ? 0 : whence == kiv::Position::current ? _pos : Size();
  long long to = 0;
  if (__builtin_add_overflow(base, offset, &to) || to < 0) return false;
  _pos = to;
  return true;
}

// Fills the block that holds pos: 1 when it does, 0 at the end of the stream, -1 on failure.
int IOBlockReader::load(long long pos) {
  const long long start = pos - pos % _blockSize;
  if (_block.empty()) _block.resize(static_cast<size_t>(_blockSize));
  _blockLen = 0;
  _blockPos = start;
  if (!_io->Seek(start, kiv::Position::front)) return -1;
  ++_innerReads;
  const long long n = _io->Read(_block.data(), _blockSize);
  if (n < 0) return -1;
  _blockLen = n;
  return pos < start + n ? 1 : 0;
}

long long IOBlockReader::Read(void* data, long long size) {
  if (!hasIO() || size < 0 || (!data && size)) return -1;
  unsigned char* out = static_cast<unsigned char*>(data);
  long long done = 0;
  while (done < size) {
    if (_blockLen > 0 && _pos >= _blockPos && _pos < _blockPos + _blockLen) {
      const long long k = std::min(size - done, _blockPos + _blockLen - _pos);
      std::memcpy(out + done, &_block[static_cast<size_t>(_pos - _blockPos)], static_cast<size_t>(k));
      done += k;
      _pos += k;
      continue;
    }
    const long long left = size - done;
    if (left >= _blockSize) {
      // Large reads go straight into the caller's memory; the rest comes through the block.
      const long long k = left - left % _blockSize;
      if (!_io->Seek(_pos, kiv::Position::front)) return done ? done : -1;
      ++_innerReads;
      const long long n = _io->Read(out + done, k);
      if (n < 0) return done ? done : -1;
      done += n;
      _pos += n;
      if (n < k) break;
      continue;
    }
    const int r = load(_pos);
    if (r < 0) return done ? done : -1;
    if (r == 0) break;
  }
  return done;
}

long long IOBlockReader::Write(const void* /*data*/, long long /*size*/) {
  LOGE << "!write: read-only block reader";
  return -1;
}

}  // namespace base
}  // namespace kiv
