// The buffer of a sample table written while the recording runs (table-on-file mode).
#pragma once

#include <functional>
#include <string>

#include "stream/base/io/IO.h"

namespace kiv {
namespace base {

class IOFile;

// Holds the table in memory up to the reserved size; IOBuffer::Data() and Size() give it. A write that
// would pass the reservation moves the content into the temporary file named by url ("d:/name" forms
// are mapped), and from then on the stream works on that file and HasFileData() is true: the table box
// then has the output take the file's content, aligned to a cluster, instead of copying Data(). So a
// short recording never touches the file system, and a long one never holds more than the reservation
// in memory. A reservation of 0 means the file from the first byte; a null url keeps everything in
// memory. If the file can't be made, the buffer goes on growing in memory.
//
// flush(io) is called by Flush() with this stream, after the file (if any) was pushed to the medium.
// The table boxes flush their buffer once, when the table is final, so the owner learns there that the
// table is complete; the callback's result is Flush's result. Null: Flush only flushes.
//
// The temporary file has no name from the moment it is made (IOFile's "wbt"): it goes with the buffer,
// and with the process whatever ends it.
class IOFileBuffer : public IOBuffer {
 public:
  using FlushFn = std::function<bool(IO*)>;
  IOFileBuffer(const char* url, long long size, FlushFn flush);
  ~IOFileBuffer() override;
  IOFileBuffer(const IOFileBuffer&) = delete;
  IOFileBuffer& operator=(const IOFileBuffer&) = delete;

  long long Size() override;
  long long Position() override;
  bool Seek(long long offset, kiv::Position whence) override;
  long long Read(void* data, long long size) override;
  long long Write(const void* data, long long size) override;
  using IO::Write;
  bool Flush() override;
  bool HasFileData() const override { return _file != nullptr; }
  // Drops the content and the temporary file; the buffer starts empty again, in memory.
  bool Remove(int flags) override;
  std::string Error() const override;

  long long Reserved() const { return _reserve; }
  // The file system path of the temporary file (empty without url).
  const std::string& Path() const { return _path; }

 private:
  bool toFile();

  long long _reserve;
  FlushFn _flush;
  std::string _path;
  IOFile* _file = nullptr;
  bool _fileFailed = false;
};

}  // namespace base
}  // namespace kiv
