#include "tools/MjpegReader.h"

#include <cerrno>
#include <cstring>

#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"

namespace boxweave {

std::string LowerExtension(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  std::string e = path.substr(dot + 1);
  for (char& c : e) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return e;
}

namespace {

// Start-of-frame markers: C0 to CF without DHT (C4), JPG (C8) and DAC (CC).
bool isSof(uint8_t m) { return m >= 0xC0 && m <= 0xCF && m != 0xC4 && m != 0xC8 && m != 0xCC; }
// Markers that stand alone, without a length: TEM and the restart markers.
bool isStandalone(uint8_t m) { return m == 0x01 || (m >= 0xD0 && m <= 0xD7); }

}  // namespace

MjpegReader::MjpegReader(size_t block) : _block(block ? block : 1) {}

MjpegReader::~MjpegReader() {
  if (_file) std::fclose(_file);
}

bool MjpegReader::HandlesPath(const std::string& path) {
  const std::string e = LowerExtension(path);
  return e == "mjpeg" || e == "mjpg";
}

bool MjpegReader::fail(const std::string& message) {
  if (_error.empty()) {
    _error = _path + ": " + message;
    LOGE << _error;
  }
  return false;
}

bool MjpegReader::Open(const std::string& path) {
  _path = path;
  errno = 0;
  _file = std::fopen(path.c_str(), "rb");
  if (!_file) return fail(std::strerror(errno ? errno : EIO));
  if (!need(2)) {
    if (!_error.empty()) return false;
    return fail(_end == _begin ? "empty file" : "not a Motion-JPEG stream: too short for a JPEG picture");
  }
  if (_buf[_begin] != 0xFF || _buf[_begin + 1] != 0xD8)
    return fail("not a Motion-JPEG stream: no JPEG picture (SOI marker FF D8) at its start");
  return true;
}

bool MjpegReader::need(size_t n) {
  while (_end - _begin < n) {
    if (_eof || !_error.empty()) return false;
    if (_begin > 0 && _begin >= _buf.size() / 2) {
      // What is held moves to the front; the buffer grows only with the picture being read.
      std::memmove(_buf.data(), _buf.data() + _begin, _end - _begin);
      _end -= _begin;
      _bufPos += _begin;
      _begin = 0;
    }
    if (_buf.size() - _end < _block) _buf.resize(_end + _block);
    errno = 0;
    const size_t got = std::fread(_buf.data() + _end, 1, _block, _file);
    if (got < _block) {
      if (std::ferror(_file)) return fail(std::strerror(errno ? errno : EIO));
      _eof = true;
    }
    _end += got;
  }
  return true;
}

bool MjpegReader::at(size_t i, uint8_t& b) {
  if (_end - _begin <= i && !need(i + 1)) return false;
  b = _buf[_begin + i];
  return true;
}

bool MjpegReader::Next(JpegPicture& picture) {
  if (!_file || !_error.empty()) return false;
  // Bytes in front of the next SOI belong to no picture.
  for (;;) {
    if (!need(2)) {
      _skipped += _end - _begin;
      _begin = _end;
      return false;
    }
    const uint8_t* p = _buf.data() + _begin;
    if (p[0] == 0xFF && p[1] == 0xD8) break;
    const void* ff = std::memchr(p + 1, 0xFF, _end - _begin - 1);
    const size_t step = ff ? static_cast<size_t>(static_cast<const uint8_t*>(ff) - p) : _end - _begin - 1;
    _skipped += step;
    _begin += step;
  }

  picture = JpegPicture();
  picture.position = _bufPos + _begin;
  size_t i = 2;
  uint8_t b = 0, m = 0;
  auto cut = [&]() {
    if (!_error.empty()) return false;
    // The end of the file inside a picture: what there is of it is no picture.
    _truncated = true;
    _skipped += _end - _begin;
    _begin = _end;
    return false;
  };
  auto tooLarge = [&]() {
    return fail("picture " + std::to_string(_index) + " at byte " + std::to_string(picture.position) +
                " is larger than " + std::to_string(kMaxPicture) + " bytes or has no end");
  };
  for (;;) {
    if (i > kMaxPicture) return tooLarge();
    if (!at(i, b)) return cut();
    if (b != 0xFF)
      return fail("picture " + std::to_string(_index) + ": no marker at byte " + std::to_string(picture.position + i));
    // Fill bytes: any number of 0xFF in front of the marker.
    do {
      if (++i > kMaxPicture) return tooLarge();
      if (!at(i, m)) return cut();
    } while (m == 0xFF);
    ++i;
    if (m == 0xD9) break;
    if (m == 0xD8)
      return fail("picture " + std::to_string(_index) + ": a new picture starts at byte " +
                  std::to_string(picture.position + i - 2) + " before this one ends");
    if (isStandalone(m)) continue;
    uint8_t hi = 0, lo = 0;
    if (!at(i, hi) || !at(i + 1, lo)) return cut();
    const size_t len = static_cast<size_t>(hi) << 8 | lo;
    if (len < 2)
      return fail("picture " + std::to_string(_index) + ": segment length " + std::to_string(len) + " at byte " +
                  std::to_string(picture.position + i));
    if (!need(i + len)) return cut();
    if (isSof(m) && picture.width == 0 && len >= 7) {
      const uint8_t* s = _buf.data() + _begin + i;
      picture.height = static_cast<unsigned>(s[3]) << 8 | s[4];
      picture.width = static_cast<unsigned>(s[5]) << 8 | s[6];
    }
    i += len;
    if (m != 0xDA) continue;
    // Entropy-coded data runs to the next marker: 0xFF followed by neither a stuffed 0 nor a restart.
    for (;;) {
      if (i > kMaxPicture) break;  // told above
      if (!need(i + 2)) return cut();
      const uint8_t* from = _buf.data() + _begin + i;
      const size_t held = _end - _begin - i;
      const void* ff = std::memchr(from, 0xFF, held - 1);
      if (!ff) {
        i += held - 1;
        continue;
      }
      i = static_cast<size_t>(static_cast<const uint8_t*>(ff) - (_buf.data() + _begin));
      const uint8_t next = _buf[_begin + i + 1];
      if (next == 0x00 || (next >= 0xD0 && next <= 0xD7)) {
        i += 2;
        continue;
      }
      break;  // a marker: the loop above takes it
    }
  }
  _out.assign(_buf.data() + _begin, _buf.data() + _begin + i);
  _begin += i;
  picture.data = _out.data();
  picture.size = _out.size();
  picture.index = _index++;
  return true;
}

bool MjpegReader::FrameRate(const kiv::base::Fraction& fps) {
  if (fps.Num() <= 0 || fps.Den() <= 0 || fps.Den() > 1000000000LL) return false;
  _fps = fps;
  return true;
}

long long MjpegReader::TimeOf(long long index) const {
  // index * den / num seconds in nanoseconds, without overflow for the lengths a file can have.
  const long double t = static_cast<long double>(index) * _fps.Den() * 1e9L / _fps.Num();
  return static_cast<long long>(t);
}

kiv::stream::Packet* MjpegReader::NextPacket(kiv::stream::IMedia* media) {
  JpegPicture pic;
  if (!Next(pic)) return Failed() ? PacketError() : nullptr;
  kiv::stream::Packet* p = kiv::stream::PacketAlloc(static_cast<int>(pic.size));
  if (!p) {
    fail("no packet for " + std::to_string(pic.size) + " bytes");
    return PacketError();
  }
  std::memcpy(p->Data(), pic.data, pic.size);
  p->SetKey(true);  // every picture stands alone
  p->index = pic.index;
  p->pts = TimeOf(pic.index);
  p->duration = TimeOf(pic.index + 1) - p->pts;
  p->media = media;
  return p;
}

bool DescribeMjpeg(const std::string& path, MjpegDescription& out, std::string& error) {
  MjpegDescription d;
  d.path = path;
  MjpegReader r;
  if (!r.Open(path)) {
    error = r.Error();
    return false;
  }
  JpegPicture pic;
  while (r.Next(pic)) {
    if (d.pictures == 0) {
      d.width = pic.width;
      d.height = pic.height;
    } else if (pic.width != d.width || pic.height != d.height) {
      ++d.sizeChanges;
    }
    if (pic.width == 0) ++d.withoutSof;
    ++d.pictures;
    d.bytes += pic.size;
  }
  if (r.Failed()) {
    error = r.Error();
    return false;
  }
  d.skippedBytes = r.SkippedBytes();
  d.truncatedTail = r.TruncatedTail();
  if (d.pictures == 0) {
    error = path + ": not a Motion-JPEG stream: no whole JPEG picture in it";
    return false;
  }
  if (d.width == 0 || d.height == 0) {
    error = path + ": the first picture has no picture size (no SOF segment)";
    return false;
  }
  out = d;
  return true;
}

kiv::stream::IMedia* NewMjpegMedia(const MjpegDescription& d, const kiv::base::Fraction& fps) {
  if (fps.Num() <= 0 || fps.Den() <= 0) return nullptr;
  kiv::stream::IMedia* m = kiv::stream::IMedia::New("jpeg");
  if (!m) return nullptr;
  m->Set("width", static_cast<int>(d.width));
  m->Set("height", static_cast<int>(d.height));
  m->Set("interlace", false);
  m->SetWithType("framerate", fps);
  return m;
}

std::vector<std::string> MjpegWarnings(const MjpegDescription& d) {
  std::vector<std::string> w;
  if (d.sizeChanges)
    w.push_back(d.path + ": " + std::to_string(d.sizeChanges) + " pictures differ in size from the first (" +
                std::to_string(d.width) + "x" + std::to_string(d.height) + "), which the track tells for all");
  if (d.skippedBytes)
    w.push_back(d.path + ": " + std::to_string(d.skippedBytes) + " bytes between pictures belong to none and are left out");
  if (d.truncatedTail) w.push_back(d.path + ": the last picture is cut off by the end of the file and is left out");
  return w;
}

}  // namespace boxweave
