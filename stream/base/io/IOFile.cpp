#include "stream/base/io/IOFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "stream/base/dbg/Log.h"
#include "stream/base/io/IUrl.h"

namespace kiv {
namespace base {

namespace {

struct ModeInfo {
  const char* name;
  int flags;
  const char* stdioMode;
  bool readable, writable, append, temporary;
};

const ModeInfo kModes[] = {
    {"rb", O_RDONLY, "rb", true, false, false, false},
    {"wb", O_RDWR | O_CREAT | O_TRUNC, "r+b", true, true, false, false},
    {"rwb", O_RDWR, "r+b", true, true, false, false},
    {"rwbc", O_RDWR | O_CREAT, "r+b", true, true, false, false},
    {"ab", O_RDWR | O_CREAT | O_APPEND, "a+b", true, true, true, false},
    {"wbt", O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW, "r+b", true, true, false, true},
};

const ModeInfo* findMode(const char* mode) {
  if (!mode) return nullptr;
  for (const ModeInfo& m : kModes)
    if (std::strcmp(m.name, mode) == 0) return &m;
  return nullptr;
}

std::mutex& temporaryMutex() {
  static std::mutex m;
  return m;
}
std::string& temporaryError() {
  static std::string e;
  return e;
}
void noteTemporary(int err) {
  std::lock_guard<std::mutex> lock(temporaryMutex());
  if (temporaryError().empty()) temporaryError() = std::strerror(err ? err : EIO);
}

}  // namespace

std::string IOFile::TemporaryError() {
  std::lock_guard<std::mutex> lock(temporaryMutex());
  return temporaryError();
}

void IOFile::ClearTemporaryError() {
  std::lock_guard<std::mutex> lock(temporaryMutex());
  temporaryError().clear();
}

void IOFile::fail(const char* what, int err) {
  if (!err) err = EIO;
  if (!_error.empty()) return;  // one line per stream: a full card fails every write after
  LOGE << what << " " << _path << " " << std::strerror(err);
  _error = std::strerror(err);
  if (_temporary) noteTemporary(err);
}

bool IOFile::ValidMode(const char* mode) { return findMode(mode) != nullptr; }

IOFile::~IOFile() { Close(); }

bool IOFile::Open(const char* url, const char* mode) {
  Close();
  const ModeInfo* m = findMode(mode);
  if (!m) {
    LOGE << "!mode " << (mode ? mode : "(null)") << " " << (url ? url : "(null)");
    return false;
  }
  if (!url || !*url) {
    LOGE << "!url";
    return false;
  }
  _url = url;
  _path = ResolvePath(url);
  int fd = ::open(_path.c_str(), m->flags | O_CLOEXEC, 0644);
  if (fd < 0) {
    const int err = errno;
    LOGE << "!open " << _path << " " << mode << " " << std::strerror(err);
    if (m->temporary) noteTemporary(err);
    return false;
  }
  struct stat st;
  const bool statFailed = ::fstat(fd, &st) != 0;
  if (statFailed || S_ISDIR(st.st_mode)) {
    const int err = statFailed ? errno : EISDIR;
    LOGE << "!open " << _path << " " << mode << " " << std::strerror(err);
    if (m->temporary) noteTemporary(err);
    ::close(fd);
    return false;
  }
  if (m->temporary && ::unlink(_path.c_str()) != 0) {
    const int err = errno;
    LOGE << "!unlink " << _path << " " << std::strerror(err);
    if (m->temporary) noteTemporary(err);
    ::close(fd);
    return false;
  }
  _f = ::fdopen(fd, m->stdioMode);
  if (!_f) {
    const int err = errno;
    LOGE << "!open " << _path << " " << mode << " " << std::strerror(err);
    if (m->temporary) noteTemporary(err);
    ::close(fd);
    return false;
  }
  if (m->writable) {
    _wbuf.reset(new char[kWriteBuffer]);
    ::setvbuf(_f, _wbuf.get(), _IOFBF, kWriteBuffer);
  }
  _readable = m->readable;
  _writable = m->writable;
  _append = m->append;
  _size = static_cast<long long>(st.st_size);
  _pos = _fpos = _append ? _size : 0;
  _last = Op::none;
  _error.clear();
  _temporary = m->temporary;
  if (_append && ::fseeko(_f, 0, SEEK_END) != 0) _fpos = -1;
  return true;
}

long long IOFile::Size() {
  if (!_f) return 0;
  if (!_writable) {
    // Someone else may be writing the file: ask the file system.
    struct stat st;
    if (::fstat(::fileno(_f), &st) == 0) _size = static_cast<long long>(st.st_size);
  }
  return _size;
}

bool IOFile::Seek(long long offset, kiv::Position whence) {
  if (!_f) return false;
  long long base = 0;
  switch (whence) {
    case kiv::Position::front: base = 0; break;
    case kiv::Position::current: base = _pos; break;
    case kiv::Position::back: base = Size(); break;
  }
  long long to = 0;
  if (__builtin_add_overflow(base, offset, &to) || to < 0) return false;
  _pos = to;  // the C stream follows when bytes move
  return true;
}

// Brings the C stream to the logical position; a change of direction needs a seek (C rule).
bool IOFile::sync(Op op) {
  if (_fpos == _pos && (_last == op || _last == Op::none)) {
    _last = op;
    return true;
  }
  if (::fseeko(_f, static_cast<off_t>(_pos), SEEK_SET) != 0) {
    fail("!fseeko", errno);  // mostly buffered bytes that would not go out: as a failed write
    _fpos = -1;
    return false;
  }
  _fpos = _pos;
  _last = op;
  return true;
}

long long IOFile::Read(void* data, long long size) {
  if (!_f || !_readable || size < 0 || (!data && size)) return -1;
  if (size == 0) return 0;
  if (!sync(Op::read)) return -1;
  const size_t n = ::fread(data, 1, static_cast<size_t>(size), _f);
  if (n < static_cast<size_t>(size) && ::ferror(_f)) {
    const int err = errno;
    LOGE << "!read " << _path << " " << std::strerror(err);
    ::clearerr(_f);
    _fpos = -1;  // position unknown: seek before the next access
    if (n == 0) return -1;
  }
  ::clearerr(_f);  // an end-of-file mark must not stick across later writes
  _pos += static_cast<long long>(n);
  if (_fpos >= 0) _fpos = _pos;
  return static_cast<long long>(n);
}

long long IOFile::Write(const void* data, long long size) {
  if (!_f || !_writable || size < 0 || (!data && size)) return -1;
  if (size == 0) return 0;
  if (_append) {
    // Every write lands at the end, whatever the position.
    if (_last != Op::write && ::fseeko(_f, 0, SEEK_END) != 0) return -1;
    _last = Op::write;
  } else if (!sync(Op::write)) {
    return -1;
  }
  const size_t n = ::fwrite(data, 1, static_cast<size_t>(size), _f);
  if (n < static_cast<size_t>(size)) {
    const int err = errno;
    fail("!write", err);
    ::clearerr(_f);
    _fpos = -1;
  }
  if (_append) {
    _size += static_cast<long long>(n);
    _pos = _size;
  } else {
    _pos += static_cast<long long>(n);
    if (_pos > _size) _size = _pos;
  }
  if (_fpos >= 0) _fpos = _pos;
  if (n == 0) return -1;
  return static_cast<long long>(n);
}

bool IOFile::Flush() {
  if (!_f) return false;
  if (!_writable) return true;
  if (::fflush(_f) != 0) {
    fail("!fflush", errno);
    return false;
  }
  if (::fdatasync(::fileno(_f)) != 0 && errno != EINVAL && errno != EROFS) {
    fail("!fdatasync", errno);
    return false;
  }
  return true;
}

bool IOFile::Close() {
  if (!_f) return true;
  FILE* f = _f;
  _f = nullptr;
  _pos = _fpos = 0;
  _last = Op::none;
  const bool closed = ::fclose(f) == 0;
  const int err = errno;
  _wbuf.reset();  // only now: fclose flushes from it
  if (!closed) {
    fail("!fclose", err);
    return false;
  }
  return true;
}

bool IOFile::Remove(int /*flags*/) {
  if (_path.empty()) return false;
  Close();
  _size = 0;
  if (_temporary) return true;  // it has no name since it was opened
  // A device or pipe opened as the output ("/dev/full") is no file of the recording's own.
  struct stat st;
  if (::stat(_path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) return false;
  if (::unlink(_path.c_str()) != 0) {
    const int err = errno;
    LOGE << "!unlink " << _path << " " << std::strerror(err);
    return false;
  }
  return true;
}

}  // namespace base
}  // namespace kiv
