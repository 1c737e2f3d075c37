#include "stream/base/io/FifoBuffer.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "stream/base/dbg/Log.h"

namespace kiv {
namespace base {

FifoBuffer::FifoBuffer(const char* name, int size, Hook read, Hook write)
    : _name(name ? name : ""), _read(std::move(read)), _write(std::move(write)) {
  if (size < 0) {
    LOGE << "!(size>=0) " << _name << " " << size;
    size = 0;
  }
  _buf.resize(static_cast<size_t>(size));
}

int FifoBuffer::Write(const void* data, int size) {
  if (size <= 0 || !data) return 0;
  int n = size;
  if (n > Free()) {
    LOGE << "fifo " << _name << " full: " << size << " bytes, room " << Free();
    n = Free();
  }
  if (n == 0) return 0;
  const unsigned char* p = static_cast<const unsigned char*>(data);
  const int cap = Capacity();
  const int tail = (_head + _count) % cap;
  const int first = std::min(n, cap - tail);
  std::memcpy(&_buf[static_cast<size_t>(tail)], p, static_cast<size_t>(first));
  if (n > first) std::memcpy(_buf.data(), p + first, static_cast<size_t>(n - first));
  _count += n;
  if (_write) _write(p, n);
  return n;
}

const unsigned char* FifoBuffer::Read(int size) {
  if (size <= 0 || size > _count) return nullptr;
  const int cap = Capacity();
  if (_head + size > cap) {
    // The run wraps: turn the ring so that the front is at index 0.
    std::rotate(_buf.begin(), _buf.begin() + _head, _buf.end());
    _head = 0;
  }
  const unsigned char* p = &_buf[static_cast<size_t>(_head)];
  _head = (_head + size) % cap;
  _count -= size;
  if (_count == 0) _head = 0;  // an empty fifo starts over: fewer wrapped runs
  if (_read) _read(p, size);
  return p;
}

void FifoBuffer::Clear() {
  _head = 0;
  _count = 0;
}

}  // namespace base
}  // namespace kiv
