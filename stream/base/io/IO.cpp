#include "stream/base/io/IO.h"

#include <algorithm>
#include <cstring>

#include "stream/base/dbg/Log.h"

namespace kiv {
namespace base {

long long IO::Write(const void* data, long long size, long long position, kiv::Position whence) {
  const long long back = Position();
  if (!Seek(position, whence)) return -1;
  const long long n = Write(data, size);
  if (!Seek(back, kiv::Position::front)) return -1;
  return n;
}

long long IO::Copy(IO& from) {
  const long long keep = from.Position();
  if (!from.Seek(0, kiv::Position::front)) return -1;
  std::vector<unsigned char> buf(1 << 16);
  long long total = 0;
  for (;;) {
    const long long n = from.Read(buf.data(), static_cast<long long>(buf.size()));
    if (n < 0) return -1;
    if (n == 0) break;
    if (Write(buf.data(), n) != n) return -1;
    total += n;
  }
  from.Seek(keep, kiv::Position::front);
  return total;
}

IOBuffer::IOBuffer(long long reserve) {
  if (reserve > 0) _data.reserve(static_cast<size_t>(reserve));
  _url = "mem://";
}

bool IOBuffer::Seek(long long offset, kiv::Position whence) {
  long long base = whence == kiv::Position::front ? 0 : whence == kiv::Position::current ? _pos : Size();
  const long long to = base + offset;
  if (to < 0) return false;
  _pos = to;
  return true;
}

long long IOBuffer::Read(void* data, long long size) {
  if (size < 0 || !data) return -1;
  const long long left = std::max(0LL, Size() - _pos);
  const long long n = std::min(size, left);
  if (n > 0) std::memcpy(data, _data.data() + _pos, static_cast<size_t>(n));
  _pos += n;
  return n;
}

long long IOBuffer::Write(const void* data, long long size) {
  if (size < 0 || (!data && size)) return -1;
  const size_t end = static_cast<size_t>(_pos + size);
  if (end > _data.size()) _data.resize(end);  // a write behind the end fills the gap with zeros
  if (size) std::memcpy(_data.data() + _pos, data, static_cast<size_t>(size));
  _pos += size;
  return size;
}

IOIntReader::~IOIntReader() {
  if (_free) delete &_io;
}

bool IOIntReader::bytes(unsigned char* p, int n) {
  if (_io.Read(p, n) == n) return true;
  std::memset(p, 0, static_cast<size_t>(n));
  _failed = true;
  return false;
}

namespace {
template <class T>
T le(const unsigned char* p, int n) {
  T v = 0;
  for (int i = n - 1; i >= 0; --i) v = static_cast<T>((v << 8) | p[i]);
  return v;
}
template <class T>
T be(const unsigned char* p, int n) {
  T v = 0;
  for (int i = 0; i < n; ++i) v = static_cast<T>((v << 8) | p[i]);
  return v;
}
}  // namespace

#define KIV_READ(NAME, T, N, ORDER)      \
  T IOIntReader::NAME() {                \
    unsigned char b[8];                  \
    bytes(b, N);                         \
    return ORDER<T>(b, N);               \
  }                                      \
  bool IOIntReader::NAME(T& v) {         \
    unsigned char b[8];                  \
    const bool ok = bytes(b, N);         \
    v = ORDER<T>(b, N);                  \
    return ok;                           \
  }
KIV_READ(Read8, uint8_t, 1, le)
KIV_READ(Read16, uint16_t, 2, le)
KIV_READ(Read32, uint32_t, 4, le)
KIV_READ(Read64, uint64_t, 8, le)
KIV_READ(Read16be, uint16_t, 2, be)
KIV_READ(Read24be, uint32_t, 3, be)
KIV_READ(Read32be, uint32_t, 4, be)
KIV_READ(Read64be, uint64_t, 8, be)
#undef KIV_READ

bool IOIntWriter::bytes(const unsigned char* p, int n) { return _io.Write(p, n) == n; }

namespace {
void putLe(unsigned char* b, uint64_t v, int n) {
  for (int i = 0; i < n; ++i) b[i] = static_cast<unsigned char>(v >> (8 * i));
}
void putBe(unsigned char* b, uint64_t v, int n) {
  for (int i = 0; i < n; ++i) b[i] = static_cast<unsigned char>(v >> (8 * (n - 1 - i)));
}
}  // namespace

bool IOIntWriter::Write8(uint8_t v) { return bytes(&v, 1); }
bool IOIntWriter::Write16(uint16_t v) {
  unsigned char b[2];
  putLe(b, v, 2);
  return bytes(b, 2);
}
bool IOIntWriter::Write32(uint32_t v) {
  unsigned char b[4];
  putLe(b, v, 4);
  return bytes(b, 4);
}
bool IOIntWriter::Write64(uint64_t v) {
  unsigned char b[8];
  putLe(b, v, 8);
  return bytes(b, 8);
}
bool IOIntWriter::Write16be(uint16_t v) {
  unsigned char b[2];
  putBe(b, v, 2);
  return bytes(b, 2);
}
bool IOIntWriter::Write24be(uint32_t v) {
  unsigned char b[3];
  putBe(b, v, 3);
  return bytes(b, 3);
}
bool IOIntWriter::Write32be(uint32_t v) {
  unsigned char b[4];
  putBe(b, v, 4);
  return bytes(b, 4);
}
bool IOIntWriter::Write64be(uint64_t v) {
  unsigned char b[8];
  putBe(b, v, 8);
  return bytes(b, 8);
}
bool IOIntWriter::Write32be(uint32_t v, long long position, kiv::Position whence) {
  unsigned char b[4];
  putBe(b, v, 4);
  return _io.Write(b, 4, position, whence) == 4;
}
bool IOIntWriter::Write64be(uint64_t v, long long position, kiv::Position whence) {
  unsigned char b[8];
  putBe(b, v, 8);
  return _io.Write(b, 8, position, whence) == 8;
}

}  // namespace base
}  // namespace kiv
