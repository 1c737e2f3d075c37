// A byte fifo of fixed capacity that hands out contiguous runs of bytes.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "stream/base/reflect/Object.h"

namespace kiv {
namespace base {

// Bytes go in at the back (Write) and come out at the front (Read) as a pointer to the asked number
// of contiguous bytes, valid until the next Write, Read or Clear. The storage is a ring; a run that
// would wrap is made contiguous in place, so the fifo never holds more than its capacity.
//
// The hooks, either may be null, see the bytes as they pass: write(data, n) after bytes were taken in,
// read(data, n) before a run is handed out (a place to tap or account for the stream).
class FifoBuffer : public object_base {
 public:
  using Hook = std::function<void(const unsigned char* data, int size)>;
  FifoBuffer(const char* name, int size, Hook read = nullptr, Hook write = nullptr);
  FifoBuffer(const FifoBuffer&) = delete;
  FifoBuffer& operator=(const FifoBuffer&) = delete;

  // Bytes taken: all of them, or when the fifo is full what fits (logged).
  int Write(const void* data, int size);
  // size contiguous bytes from the front, consumed; null when fewer are there.
  const unsigned char* Read(int size);
  // Bytes held.
  int Size() const { return _count; }
  int Capacity() const { return static_cast<int>(_buf.size()); }
  int Free() const { return Capacity() - _count; }
  bool Empty() const { return _count == 0; }
  void Clear();
  const char* Name() const { return _name.c_str(); }

 private:
  std::string _name;
  std::vector<unsigned char> _buf;
  int _head = 0;  // index of the first byte
  int _count = 0;
  Hook _read;
  Hook _write;
};

}  // namespace base
}  // namespace kiv
