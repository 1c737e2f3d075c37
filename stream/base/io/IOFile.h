// A stream over a file of the file system.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "stream/base/io/IO.h"

namespace kiv {
namespace base {

// Modes: "rb" read; "wb" create or truncate (what was written can be read back); "rwb" read and write
// an existing file; "rwbc" read and write, created when missing; "ab" append (writes go to the end);
// "wbt" a temporary file: as "wb", but its name is removed as soon as it is open, so that the file lives
// only as long as the stream and nothing is left behind, even by a process that is killed.
// Paths are resolved through ResolvePath, so "d:/name" lands in the directory mapped for drive d.
class IOFile : public IO {
 public:
  IOFile() = default;
  ~IOFile() override;
  IOFile(const IOFile&) = delete;
  IOFile& operator=(const IOFile&) = delete;

  // False with a log line ("!open", the path and the reason) when the file can't be opened.
  bool Open(const char* url, const char* mode);
  bool IsOpen() const { return _f != nullptr; }
  // The file system path behind the stream.
  const std::string& Path() const { return _path; }

  long long Size() override;
  long long Position() override { return _pos; }
  bool Seek(long long offset, kiv::Position whence) override;
  long long Read(void* data, long long size) override;
  long long Write(const void* data, long long size) override;
  using IO::Write;
  // Pushes buffered bytes to the file and the file to the medium.
  bool Flush() override;
  // Closes the stream and deletes its file; the size is 0 afterwards.
  bool Remove(int flags) override;
  bool HasFileData() const override { return _f != nullptr; }
  bool Close() override;
  // Kept after Close, cleared by Open.
  std::string Error() const override { return _error; }

  // The first failure of any temporary ("wbt") file of the process, opening or writing it, as the
  // system says it (the log line names the file). Temporary files belong to writers that do not check their writes, so the owner of the
  // work asks here. Empty while there was none.
  static std::string TemporaryError();
  static void ClearTemporaryError();

  // True for the mode strings above.
  static bool ValidMode(const char* mode);

 private:
  enum class Op { none, read, write };
  bool sync(Op op);
  // Logs the first failure of the stream and keeps its reason.
  void fail(const char* what, int err);

  // Writes of a few hundred bytes each (a sample, a length) go out in blocks of this size.
  static constexpr size_t kWriteBuffer = 16 * 1024;

  FILE* _f = nullptr;
  std::unique_ptr<char[]> _wbuf;  // the C stream's buffer while a writable file is open
  std::string _path;
  bool _readable = false;
  bool _writable = false;
  bool _append = false;
  long long _pos = 0;   // logical position
  long long _fpos = 0;  // where the C stream stands
  long long _size = 0;  // bytes in the file, counting what is still buffered
  Op _last = Op::none;
  std::string _error;
  bool _temporary = false;
};

}  // namespace base
}  // namespace kiv
