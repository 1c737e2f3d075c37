#include "stream/plugin/mp4/common/ThumbBox.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "stream/base/Convert.h"
#include "stream/base/dbg/Log.h"
#include "stream/base/io/File.h"
#include "stream/base/io/IUrl.h"
#include "stream/plugin/mp4/common/BoxReader.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::IOIntWriter;

cthumb::cthumb() : IBox("thum", 0) { _statistics_size = 8ull + _reserve_size; }

bool cthumb::hold(unsigned int bytes) {
  bytes = std::min(bytes, _capacity);
  if (_data && _held >= bytes) return true;
  std::unique_ptr<unsigned char[]> more(new (std::nothrow) unsigned char[bytes ? bytes : 1]());
  if (!more) return false;
  if (_data) std::memcpy(more.get(), _data.get(), _held);
  _data = std::move(more);
  _held = bytes;
  return true;
}

void cthumb::fill(IO& io) {
  if (_reserve_size == 0) return;
  _pos = static_cast<unsigned long long>(io.Position());
  IBox::fill(io);
  const unsigned fromData = _data ? std::min(_reserve_size, _held) : 0;
  if (fromData) io.Write(_data.get(), fromData);
  // Without a buffer the reserve is still laid out, as zeros.
  static const unsigned char zeros[4096] = {};
  for (unsigned left = _reserve_size - fromData; left;) {
    const unsigned n = std::min<unsigned>(left, sizeof zeros);
    io.Write(zeros, n);
    left -= n;
  }
}

bool cthumb::parse(IO& io) {
  const unsigned long long payload = PayloadSize();
  _size = static_cast<unsigned int>(payload & 0xffffffffull);
  if (_size > _capacity) {
    LOGE << "thum: " << _size << ">" << _capacity << ", clamped";
    _size = _capacity;
  }
  // Only what the box holds: a box whose bytes the file has not got fails the read of its parent.
  if (!hold(_size)) {
    LOGE << "!_data";
    _size = 0;
    return false;
  }
  if (!io.Seek(PayloadPostion(), kiv::Position::front)) {
    LOGE << "!io.Seek(PayloadPostion(), Position::front)";
    _size = 0;
    return false;
  }
  BoxReader in(io, *this);
  const long long want = std::min<long long>(_size, in.Left());
  long long got = want > 0 ? io.Read(_data.get(), want) : 0;
  if (got < 0) got = 0;
  if (got < static_cast<long long>(_size)) {
    LOGE << "thum: " << got << " of " << _size << " bytes";
    std::memset(_data.get() + got, 0, _size - static_cast<size_t>(got));
  }
  in.SkipRest();
  return true;
}

void cthumb::fields(AttrSet& out) const {
  IBox::fields(out);
  out.SetOrAdd("thumb_size", _size);
  out.SetOrAdd("reserve_size", _reserve_size);
}

bool cthumb::ThumbDataUpdate(IO& io, std::string& url) {
  if (!hold(_capacity)) return false;
  if (url.empty()) return true;

  // Everything from the first dot on goes, even a dot in a directory name.
  const std::string path = kiv::base::IUrl::Path(url);
  const kiv::base::Spliter parts(path.c_str(), '.');
  const char* stem = parts.Items() ? parts[0] : "";
  const std::string name = std::string(stem) + ".jpg";

  void* f = kiv::File::Open(name.c_str(), "rb");
  if (!f) return true;
  const long long fileSize = kiv::File::Size(f);
  kiv::File::Seek(f, 0, kiv::Position::front);
  if (fileSize < 0) {
    kiv::File::Close(f);
    return true;
  }
  _size = fileSize > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(fileSize);
  // Too big: the number stays in _size, the reserve stays as it is.
  if (_reserve_size < kFreeRoom || _size > _reserve_size - kFreeRoom || _size > _capacity) {
    kiv::File::Close(f);
    return true;
  }

  long long got = _size ? kiv::File::Read(f, _data.get(), _size) : 0;
  if (got < 0) got = 0;
  if (got < static_cast<long long>(_size))
    std::memset(_data.get() + got, 0, _size - static_cast<size_t>(got));

  const long long pos = static_cast<long long>(_pos);
  IOIntWriter w(io);
  io.Seek(pos, kiv::Position::front);
  w.Write32be(_size + 8);
  io.Seek(pos + 8, kiv::Position::front);
  if (_size) io.Write(_data.get(), _size);
  w.Write32be(_reserve_size - _size);
  w.Write32(FCC("free"));

  kiv::File::Close(f);
  return true;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
