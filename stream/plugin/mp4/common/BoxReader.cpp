#include "stream/plugin/mp4/common/BoxReader.h"

#include <algorithm>
#include <cstring>

#include "stream/base/dbg/Log.h"

namespace kiv {
namespace plugin {
namespace mov {

BoxReader::BoxReader(IO& io, const IBox& box, Rest rest)
    : _io(io), _box(box), _r(io), _end(box.ReadEnd(io)), _rest(rest) {}

BoxReader::~BoxReader() {
  if (_missing > 0) LOGE << _box.Name() << ": " << _missing << " bytes missing behind the box's end";
  if (_rest == Rest::skip) SkipRest();
}

long long BoxReader::Left() {
  if (_short) return 0;
  const long long left = _end - _io.Position();
  return left > 0 ? left : 0;
}

bool BoxReader::Has(long long n, const char* what) {
  const long long left = Left();
  if (left >= n) return true;
  if (what && !_short) LOGE << _box.Name() << ": " << what << " missing, " << left << " bytes left";
  _short = true;
  return false;
}

bool BoxReader::Seek(long long offset, kiv::Position whence) {
  const long long base = whence == kiv::Position::front ? 0 : whence == kiv::Position::current ? Position() : _end;
  long long to = 0;
  if (__builtin_add_overflow(base, offset, &to) || to < 0 || to > _end) return false;
  return _io.Seek(to, kiv::Position::front);
}

long long BoxReader::Read(void* data, long long size) {
  if (size < 0 || !data) return -1;
  const long long n = std::min(size, Left());
  _missing += size - n;
  if (n == 0) return 0;
  const long long got = _io.Read(data, n);
  if (got < n) _missing += n - std::max(got, 0LL);
  return got;
}

long long BoxReader::Bytes(void* dst, long long n) {
  if (n <= 0) return 0;
  long long got = Read(dst, n);
  if (got < 0) got = 0;
  if (got < n) {
    std::memset(static_cast<unsigned char*>(dst) + got, 0, static_cast<size_t>(n - got));
    _short = true;
  }
  return got;
}

void BoxReader::Skip(long long n) {
  if (n <= 0) return;
  if (!Has(n) || !_io.Seek(n, kiv::Position::current)) _short = true;
}

void BoxReader::SkipUpTo(long long n) {
  const long long step = std::min(n, Left());
  if (step > 0) _io.Seek(step, kiv::Position::current);
}

bool BoxReader::SkipRest() { return _io.Position() >= _end || _io.Seek(_end, kiv::Position::front); }

bool BoxReader::Finish() {
  if (!_short && !_r.Failed()) return true;
  LOGE << _box.FCCString() << ": payload short of its fields at " << _io.Position();
  return false;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
