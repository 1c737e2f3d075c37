// Byte streams of the host: the abstract IO, integer readers and writers, and the memory stream.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "stream/base/reflect/Object.h"

namespace kiv {

enum class Position { front = 0, current = 1, back = 2 };

namespace base {

class IO : public Object {
 public:
  // Opens a stream: a plain path or "file://path" is a file ("d:/name" paths land in the directory
  // mapped for drive d), "mem://" a growing memory stream. Modes: "rb", "wb", "rwb", "rwbc" (read and
  // write, created when missing), "ab". Null on failure, with a log line.
  static IO* New(const char* url, const char* mode, object* parent = nullptr);

  virtual long long Size() = 0;
  virtual long long Position() = 0;
  virtual bool Seek(long long offset, kiv::Position whence) = 0;
  // Bytes read (0 at the end), -1 on failure.
  virtual long long Read(void* data, long long size) = 0;
  // Bytes written, -1 on failure.
  virtual long long Write(const void* data, long long size) = 0;
  virtual bool Flush() { return true; }
  // Drops the file behind the stream (the argument is reserved, 0).
  virtual bool Remove(int /*flags*/) { return false; }
  virtual const char* URL() const { return _url.empty() ? nullptr : _url.c_str(); }
  // True when the stream stands for a file of its own that holds data to copy.
  virtual bool HasFileData() const { return false; }
  virtual bool Close() { return true; }
  // Why the stream first failed to keep bytes (a write, a flush, a close), as the system says it;
  // empty while it has not. Writers may go on without checking each write: whoever owns the
  // recording asks here.
  virtual std::string Error() const { return std::string(); }

  // Writes at a place and returns to where the stream was.
  long long Write(const void* data, long long size, long long position, kiv::Position whence);
  // Writes the other stream's whole contents at the present position; bytes copied or -1.
  virtual long long Copy(IO& from);

 protected:
  std::string _url;
};

// A stream over memory that grows as it is written.
class IOBuffer : public IO {
 public:
  explicit IOBuffer(long long reserve = 0);
  long long Size() override { return static_cast<long long>(_data.size()); }
  long long Position() override { return _pos; }
  bool Seek(long long offset, kiv::Position whence) override;
  long long Read(void* data, long long size) override;
  long long Write(const void* data, long long size) override;
  using IO::Write;
  unsigned char* Data() { return _data.data(); }
  const unsigned char* Data() const { return _data.data(); }
  std::vector<unsigned char>& Bytes() { return _data; }

 protected:
  std::vector<unsigned char> _data;
  long long _pos = 0;
};

// Integers at the present position. Short reads give 0 and mark the reader as failed.
class IOIntReader {
 public:
  explicit IOIntReader(IO& io) : _io(io) {}
  // A copy reads the same stream but never owns it.
  IOIntReader(const IOIntReader& o) : _io(o._io), _failed(o._failed) {}
  IOIntReader& operator=(const IOIntReader&) = delete;
  ~IOIntReader();
  // With true the reader owns the stream (one made on the heap) and destroys it with itself.
  void SetFreeDelegateIO(bool free) { _free = free; }
  uint8_t Read8();
  uint16_t Read16();
  uint32_t Read32();
  uint64_t Read64();
  uint16_t Read16be();
  uint32_t Read24be();
  uint32_t Read32be();
  uint64_t Read64be();
  bool Read8(uint8_t& v);
  bool Read16(uint16_t& v);
  bool Read32(uint32_t& v);
  bool Read64(uint64_t& v);
  bool Read16be(uint16_t& v);
  bool Read24be(uint32_t& v);
  bool Read32be(uint32_t& v);
  bool Read64be(uint64_t& v);
  bool Failed() const { return _failed; }
  IO& io() { return _io; }

 private:
  bool bytes(unsigned char* p, int n);
  IO& _io;
  bool _failed = false;
  bool _free = false;
};

// Integers at the present position; raw order keeps four-character codes in file order.
class IOIntWriter {
 public:
  explicit IOIntWriter(IO& io) : _io(io) {}
  bool Write8(uint8_t v);
  bool Write16(uint16_t v);
  bool Write32(uint32_t v);
  bool Write64(uint64_t v);
  bool Write16be(uint16_t v);
  bool Write24be(uint32_t v);
  bool Write32be(uint32_t v);
  bool Write64be(uint64_t v);
  // Seek, write, and back to where the stream was.
  bool Write32be(uint32_t v, long long position, kiv::Position whence);
  bool Write64be(uint64_t v, long long position, kiv::Position whence);
  IO& io() { return _io; }

 private:
  bool bytes(const unsigned char* p, int n);
  IO& _io;
};

}  // namespace base
}  // namespace kiv
