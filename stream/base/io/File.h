// Plain file operations on a handle, for helpers that keep a file of their own (the spill list).
#pragma once

#include "stream/base/io/IO.h"

namespace kiv {
namespace base {

class IOFile;

// A handle is a File*; the operations also take it as a plain pointer, which is how owners keep it.
// Paths and modes are those of IOFile ("d:/name" is mapped, "rwbc" creates when missing).
class File {
 public:
  // Null with a log line on failure.
  static File* Open(const char* path, const char* mode);
  // Bytes moved, -1 on failure (or for a null handle).
  static long long Read(void* h, void* data, long long size);
  static long long Write(void* h, const void* data, long long size);
  static bool Seek(void* h, long long offset, kiv::Position whence);
  static long long Position(void* h);
  static long long Size(void* h);
  static bool Flush(void* h);
  // Closes the file and frees the handle.
  static bool Close(void* h);
  static bool Delete(const char* path);

  File(const File&) = delete;
  File& operator=(const File&) = delete;

 private:
  File();
  ~File();
  IOFile* _io;
};

}  // namespace base

using base::File;

}  // namespace kiv

// The cluster (allocation block) size of the file system behind a path, always a power of two;
// 4096 when it is unknown or the path is no file path. "d:/name" paths are mapped first.
extern "C" unsigned GetClusterSize(const char* path);
