#include "stream/base/io/IOCacheWriter.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "stream/base/dbg/Log.h"

namespace kiv {
namespace base {

namespace {
// Beyond this a configuration is taken for a mistake: the cache is there to save memory, not use it.
const long long kMaxCache = 256LL << 20;
}  // namespace

IOCacheWriter::IOCacheWriter(IO* io, int blockSize, int blockCount)
    : IODelegate(io), _blockSize(blockSize), _blockCount(blockCount) {
  if (blockSize <= 0 || blockCount <= 0) {
    LOGE << "!(blockSize>0&&blockCount>0) " << blockSize << "," << blockCount << ": writes pass through";
    _blockSize = _blockCount = 0;
  } else if (static_cast<long long>(blockSize) * blockCount > kMaxCache) {
    _blockCount = static_cast<int>(std::max(1LL, kMaxCache / blockSize));
    LOGE << "cache " << blockSize << "x" << blockCount << " too large, blocks " << _blockCount;
  }
  _cap = static_cast<long long>(_blockSize) * _blockCount;
  if (_io) {
    _start = _pos = std::max(0LL, _io->Position());
    _innerSize = std::max(0LL, _io->Size());
  }
}

IOCacheWriter::~IOCacheWriter() {
  if (_io && _dirty) handOverAll(false);
}

bool IOCacheWriter::writeInner(long long pos, const unsigned char* data, long long size) {
  if (size <= 0) return true;
  if (!_io->Seek(pos, kiv::Position::front) || _io->Write(data, size) != size) {
    if (!_failed && _io->Error().empty()) LOGE << "!_io->Write(data," << size << ") at " << pos;  // else told below
    _failed = true;
    return false;
  }
  _innerSize = std::max(_innerSize, pos + size);
  return true;
}

long long IOCacheWriter::readInner(long long pos, unsigned char* data, long long size) {
  if (!_io->Seek(pos, kiv::Position::front)) return -1;
  return _io->Read(data, size);
}

// The first cached block goes to the inner stream; only called with a full cache.
void IOCacheWriter::handOverBlock() {
  if (Debug()) LOGL << "block " << _start << "+" << _blockSize;
  if (_dirty) writeInner(_start, &_ring[static_cast<size_t>(_head)], _blockSize);
  _head = (_head + _blockSize) % _cap;
  _start += _blockSize;
  _len -= _blockSize;
}

void IOCacheWriter::handOverAll(bool keepTail) {
  while (_len >= _blockSize && _len > 0) {
    if (_dirty) writeInner(_start, &_ring[static_cast<size_t>(_head)], _blockSize);
    _head = (_head + _blockSize) % _cap;
    _start += _blockSize;
    _len -= _blockSize;
  }
  if (_len > 0) {
    // A partial block never wraps: the ring holds whole blocks.
    if (_dirty) writeInner(_start, &_ring[static_cast<size_t>(_head)], _len);
    if (!keepTail) {
      _start += _len;
      _len = 0;
    }
  }
  _dirty = false;
}

long long IOCacheWriter::Size() {
  if (!_io) return 0;
  return std::max(_innerSize, _start + _len);
}

bool IOCacheWriter::Seek(long long offset, kiv::Position whence) {
  if (!hasIO()) return false;
  long long base = whence == kiv::Position::front ? 0 : whence == kiv::Position::current ? _pos : Size();
  long long to = 0;
  if (__builtin_add_overflow(base, offset, &to) || to < 0) return false;
  _pos = to;
  return true;
}

long long IOCacheWriter::Write(const void* data, long long size) {
  if (!hasIO() || size < 0 || (!data && size)) return -1;
  if (_pos > std::numeric_limits<long long>::max() - size) return -1;
  const unsigned char* p = static_cast<const unsigned char*>(data);
  if (_cap == 0) {
    if (!writeInner(_pos, p, size)) return -1;
    _pos += size;
    return size;
  }
  if (_ring.empty() && size) _ring.resize(static_cast<size_t>(_cap));
  long long left = size;
  while (left > 0) {
    if (_pos < _start) {
      // Bytes already handed over: the inner stream takes the change.
      const long long k = std::min(left, _start - _pos);
      if (!writeInner(_pos, p, k)) return size == left ? -1 : size - left;
      p += k;
      _pos += k;
      left -= k;
      continue;
    }
    if (_pos > _start + _len) {
      // A jump past the end: what is cached goes out and the cache begins at the new place.
      handOverAll(false);
      _start = _pos;
    }
    long long off = _pos - _start;
    if (off == _cap) {
      handOverBlock();
      off = _pos - _start;
    }
    const long long at = (_head + off) % _cap;
    const long long k = std::min({left, _cap - off, _cap - at});
    std::memcpy(&_ring[static_cast<size_t>(at)], p, static_cast<size_t>(k));
    _len = std::max(_len, off + k);
    _dirty = true;
    p += k;
    _pos += k;
    left -= k;
  }
  return size;
}

long long IOCacheWriter::Read(void* data, long long size) {
  if (!hasIO() || size < 0 || (!data && size)) return -1;
  unsigned char* out = static_cast<unsigned char*>(data);
  long long done = 0;
  while (done < size) {
    const long long left = size - done;
    const long long end = _start + _len;
    if (_len > 0 && _pos >= _start && _pos < end) {
      const long long off = _pos - _start;
      const long long at = (_head + off) % _cap;
      const long long k = std::min({left, end - _pos, _cap - at});
      std::memcpy(out + done, &_ring[static_cast<size_t>(at)], static_cast<size_t>(k));
      done += k;
      _pos += k;
      continue;
    }
    const bool beforeCache = _len > 0 && _pos < _start;
    const long long k = beforeCache ? std::min(left, _start - _pos) : left;
    long long r = readInner(_pos, out + done, k);
    if (r < 0) return done ? done : -1;
    if (r < k) {
      if (!beforeCache) {
        done += r;
        _pos += r;
        break;
      }
      // A hole that was jumped over and never written reads as zeros.
      std::memset(out + done + r, 0, static_cast<size_t>(k - r));
      r = k;
    }
    done += r;
    _pos += r;
  }
  return done;
}

bool IOCacheWriter::Flush() {
  if (!hasIO()) return false;
  handOverAll(true);
  const bool ok = _io->Flush();
  return ok && !_failed;
}

bool IOCacheWriter::Remove(int flags) {
  if (!hasIO()) return false;
  // Nothing cached is worth writing into a file about to go.
  _len = 0;
  _head = 0;
  _dirty = false;
  _start = _pos = 0;
  _innerSize = 0;
  return _io->Remove(flags);
}

bool IOCacheWriter::Close() {
  if (!_io) return true;
  handOverAll(false);
  const bool ok = !_failed;
  return _io->Close() && ok;
}

}  // namespace base
}  // namespace kiv
