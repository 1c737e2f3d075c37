#include "tools/AnnexBReader.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "stream/base/Helpers.h"
#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"

namespace boxweave {

namespace {

const uint8_t kStartCode[4] = {0, 0, 0, 1};
// Tail room of a packet, zeroed, for readers of the payload that look a few bytes ahead.
constexpr int kPacketTail = 16;
// Leading zero bytes accepted before the first start code.
constexpr size_t kMaxLeadingZeros = 4096;

}  // namespace

AnnexBReader::AnnexBReader(size_t block) : _block(std::max<size_t>(block, 1)) {}

AnnexBReader::~AnnexBReader() {
  if (_file) std::fclose(_file);
}

bool AnnexBReader::EndsWith(const std::string& s, const char* tail) {
  const size_t n = std::strlen(tail);
  if (s.size() < n) return false;
  for (size_t i = 0; i < n; ++i)
    if (std::tolower(static_cast<unsigned char>(s[s.size() - n + i])) != tail[i]) return false;
  return true;
}

bool AnnexBReader::fail(const std::string& message) {
  if (_error.empty()) {
    _error = _path + ": " + message;
    LOGE << _error;
  }
  return false;
}

// Reads one more block behind what is held, first moving the unit being delimited to the front.
bool AnnexBReader::fill() {
  if (_eof) return false;
  if (_begin > 0) {
    std::memmove(_buf.data(), _buf.data() + _begin, _end - _begin);
    _bufPos += _begin;
    _end -= _begin;
    _scan -= std::min(_scan, _begin);
    _begin = 0;
  }
  if (_end >= kMaxUnit) {
    std::ostringstream m;
    m << "a NAL unit at byte " << _bufPos << " is larger than " << (kMaxUnit >> 20) << " MiB";
    return fail(m.str());
  }
  // Read into the free room; the buffer grows only when one unit fills it whole.
  if (_buf.size() < _block) _buf.resize(_block);
  else if (_end == _buf.size()) _buf.resize(_buf.size() * 2);
  const size_t got = std::fread(_buf.data() + _end, 1, _buf.size() - _end, _file);
  if (got == 0) {
    if (std::ferror(_file)) return fail(std::string("read error: ") + std::strerror(errno));
    _eof = true;
    return false;
  }
  _end += got;
  return true;
}

bool AnnexBReader::openStream(const std::string& path, const char* codec, size_t header) {
  if (_file) return fail("the reader is open already");
  _path = path;
  _error.clear();
  _file = std::fopen(path.c_str(), "rb");
  if (!_file) return fail(std::string("cannot open: ") + std::strerror(errno));
  // The stream opens with a start code, after optional zero bytes.
  size_t zeros = 0;
  for (;;) {
    while (_begin < _end && _buf[_begin] == 0 && zeros <= kMaxLeadingZeros) {
      ++_begin;
      ++zeros;
    }
    if (_begin < _end || zeros > kMaxLeadingZeros) break;
    if (!fill()) break;
  }
  if (Failed()) return false;
  if (_begin == _end && _eof && _bufPos + _end == 0) return fail("empty file");
  if (_begin == _end || _buf[_begin] != 1 || zeros < 2)
    return fail(std::string("not an ") + codec + " Annex-B stream: no start code at the start of the file");
  ++_begin;
  _scan = _begin;
  // The first unit's header, for the codec's own test of it.
  while (_begin + header > _end && !_eof && fill()) {
  }
  if (Failed()) return false;
  if (_begin + header > _end)
    return fail(std::string("not an ") + codec + " Annex-B stream: nothing behind the first start code");
  return true;
}

bool AnnexBReader::nextNal(const uint8_t*& nal, size_t& size, unsigned long long& position) {
  for (;;) {
    if (_atEnd || !_file) return false;
    const uint8_t* base = _buf.data();
    // A start code is 00 00 01: find the 01, then look behind it. The zeros must lie in this unit.
    size_t from = _scan;
    size_t found = SIZE_MAX;
    while (from < _end) {
      const void* p = std::memchr(base + from, 1, _end - from);
      if (!p) break;
      const size_t k = static_cast<size_t>(static_cast<const uint8_t*>(p) - base);
      if (k >= _begin + 2 && base[k - 1] == 0 && base[k - 2] == 0) {
        found = k;
        break;
      }
      from = k + 1;
    }
    size_t stop;
    if (found != SIZE_MAX) {
      stop = found - 2;
    } else {
      // Every 01 held so far has been looked at together with the bytes in front of it.
      _scan = _end;
      if (!_eof && fill()) continue;
      if (Failed()) return false;
      base = _buf.data();  // the fill may have moved the bytes
      stop = _end;
      _atEnd = true;
    }
    // A four-byte start code's first zero, and zero padding, are not part of the unit.
    while (stop > _begin && base[stop - 1] == 0) --stop;
    nal = base + _begin;
    size = stop - _begin;
    position = _bufPos + _begin;
    if (found != SIZE_MAX) {
      _begin = found + 1;
      _scan = _begin;
    } else {
      _begin = _end;
    }
    if (size > 0) return true;
  }
}

void AnnexBReader::noteParamSet(std::vector<uint8_t>& first, const uint8_t* nal, size_t size) {
  if (first.empty()) {
    first.assign(nal, nal + size);
  } else if (first.size() != size || std::memcmp(first.data(), nal, size) != 0) {
    _paramSetsChange = true;
  }
}

bool AnnexBReader::add(Building& cur, const uint8_t* nal, size_t size, unsigned long long position) {
  if (cur.units == 0) cur.position = position;
  if (cur.size + 4 + size > kMaxUnit) {
    std::ostringstream m;
    m << "the access unit at byte " << cur.position << " is larger than " << (kMaxUnit >> 20) << " MiB";
    return fail(m.str());
  }
  if (_copy) {
    _au.insert(_au.end(), kStartCode, kStartCode + 4);
    _au.insert(_au.end(), nal, nal + size);
  }
  cur.size += 4 + size;
  ++cur.units;
  return true;
}

void AnnexBReader::handOut(const Building& cur, AnnexBAccessUnit& au) {
  _out.swap(_au);
  _au.clear();
  au.data = _copy ? _out.data() : nullptr;
  au.size = cur.size;
  au.index = _pictures++;
  au.position = cur.position;
  au.key = cur.key;
  au.sliceTypes = cur.sliceTypes;
  au.slices = cur.slices;
  au.units = cur.units;
}

void AnnexBReader::dropUnits(const Building& cur) {
  if (!cur.units) return;
  _droppedUnits += cur.units;
  _au.clear();
}

void KeyPictures::Note(const AnnexBAccessUnit& au) {
  if (!au.key) return;
  ++count;
  if (first < 0) {
    first = au.index;
  } else if (second < 0) {
    second = au.index;
  }
}

long long KeyPictures::Gop(long long pictures) const {
  if (second >= 0) return second - first;
  if (first >= 0) return pictures - first;
  return pictures;
}

bool AnnexBReader::FrameRate(const kiv::base::Fraction& fps) {
  // pts = index * 1e9 * den / num must stay within 64 bits for any index of a long recording.
  if (fps.Num() <= 0 || fps.Den() <= 0 || fps.Num() > 1000000 || fps.Den() > 1000000 ||
      fps.Num() * fps.Den() > 9000000000LL) {
    return false;
  }
  _fps = fps;
  return true;
}

long long AnnexBReader::TimeOf(long long index) const {
  return kiv::base::MulDiv(index, 1000000000LL * _fps.Den(), _fps.Num());
}

kiv::stream::Packet* AnnexBReader::packetOf(const uint8_t* data, size_t size, bool key, long long index,
                                            kiv::stream::IMedia* media) {
  if (!data) {
    fail("packets asked from a reader that only scans");
    return kiv::stream::PacketError();
  }
  kiv::stream::Packet* p = kiv::stream::PacketAlloc(static_cast<int>(size), 0, kPacketTail);
  if (!p) {
    fail("no packet for " + std::to_string(size) + " bytes");
    return kiv::stream::PacketError();
  }
  std::memcpy(p->Data(), data, size);
  p->SetKey(key);
  p->index = index;
  p->pts = TimeOf(index);
  p->duration = TimeOf(index + 1) - p->pts;
  p->media = media;
  return p;
}

}  // namespace boxweave
