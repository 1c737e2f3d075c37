#include "stream/core/Packet.h"

#include <cstring>
#include <string>

#include "stream/base/Convert.h"
#include "stream/base/dbg/Log.h"
#include "stream/core/IMedia.h"

namespace kiv {
namespace stream {

namespace {

bool validRequest(long long size, long long headroom, long long tailroom) {
  return size >= 0 && headroom >= 0 && tailroom >= 0 && size + headroom + tailroom <= Packet::kMaxBuffer;
}

// Calls fn(nalHeaderIndex) for each unit of an Annex-B payload (three or four byte start codes), or, when
// the payload does not open with a start code, of a payload of four-byte big-endian lengths. fn returns
// false to stop.
template <class F>
void forEachNal(const unsigned char* p, int size, F fn) {
  if (!p || size < 4) return;
  const bool annexB = (p[0] == 0 && p[1] == 0 && p[2] == 1) || (size >= 5 && p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1);
  if (annexB) {
    for (int i = 0; i + 3 < size; ++i) {
      if (p[i] == 0 && p[i + 1] == 0 && p[i + 2] == 1) {
        if (!fn(i + 3)) return;
        i += 2;
      }
    }
    return;
  }
  long long at = 0;
  while (at + 4 < size) {
    const long long len = (static_cast<long long>(p[at]) << 24) | (p[at + 1] << 16) | (p[at + 2] << 8) | p[at + 3];
    if (len <= 0 || at + 4 + len > size) return;
    if (!fn(static_cast<int>(at + 4))) return;
    at += 4 + len;
  }
}

}  // namespace

Packet::Packet() = default;

Packet::Packet(int size, int headroom, int tailroom) {
  if (!validRequest(size, headroom, tailroom)) return;
  _buf.assign(static_cast<size_t>(headroom) + size + tailroom, 0);
  _off = headroom;
  _size = size;
  _cap = headroom + size;
}

Packet::~Packet() = default;

bool Packet::Size(int size) {
  if (size < 0 || size > Max()) return false;
  _size = size;
  return true;
}

bool Packet::Offset(int offset) {
  const int end = _off + _size;
  if (offset < 0 || offset > end) return false;
  _off = offset;
  _size = end - offset;
  return true;
}

bool Packet::grow(int room) {
  const long long tail = Tailroom();
  if (!validRequest(room, _off, tail)) {
    LOGE << "!validRequest(room, _off, tail) room=" << room << " off=" << _off << " tail=" << tail;
    return false;
  }
  std::vector<unsigned char> buf(static_cast<size_t>(_off) + room + tail, 0);
  if (!_buf.empty()) std::memcpy(buf.data(), _buf.data(), static_cast<size_t>(_off) + _size);
  _buf.swap(buf);
  _cap = _off + room;
  return true;
}

bool Packet::Max(int size) {
  if (size < 0) return false;
  return size <= Max() || grow(size);
}

bool Packet::Prepend(const void* data, int size) {
  if (size < 0 || (!data && size > 0) || size > _off) return false;
  _off -= size;
  _size += size;
  if (size) std::memcpy(_buf.data() + _off, data, static_cast<size_t>(size));
  return true;
}

bool Packet::Append(const void* data, int size) {
  if (size < 0 || (!data && size > 0)) return false;
  const long long want = static_cast<long long>(_size) + size;
  if (want > kMaxBuffer || !Max(static_cast<int>(want))) return false;
  if (size) std::memcpy(_buf.data() + _off + _size, data, static_cast<size_t>(size));
  _size += size;
  return true;
}

bool Packet::Assign(const void* data, int size) {
  if (size < 0 || (!data && size > 0) || !Max(size)) return false;
  if (size) std::memmove(_buf.data() + _off, data, static_cast<size_t>(size));
  _size = size;
  return true;
}

bool Packet::CheckKey() {
  if (!media) return _key;
  const std::string codec = media->Codec();
  const unsigned char* p = Data();
  if (media->IsAudio() || media->IsText() || codec == "jpeg" || codec == "mjpg" || codec == "mjpeg" || codec == "jpg") {
    _key = true;
    return _key;
  }
  if (codec == "h264" || codec == "avc" || codec == "avc1") {
    // The first picture's slices decide; a parameter set alone also makes a key unit.
    int verdict = -1;
    bool paramSet = false;
    forEachNal(p, _size, [&](int i) {
      const int type = p[i] & 0x1f;
      if (type == 5) verdict = 1;
      else if (type >= 1 && type <= 4) verdict = 0;
      else if (type == 7) paramSet = true;
      return verdict < 0;
    });
    if (verdict >= 0) _key = verdict == 1;
    else if (paramSet) _key = true;
    return _key;
  }
  if (codec == "hevc" || codec == "h265" || codec == "hvc1" || codec == "hev1") {
    int verdict = -1;
    bool paramSet = false;
    forEachNal(p, _size, [&](int i) {
      const int type = (p[i] >> 1) & 0x3f;
      if (type >= 16 && type <= 21) verdict = 1;
      else if (type < 16) verdict = 0;
      else if (type >= 32 && type <= 34) paramSet = true;
      return verdict < 0;
    });
    if (verdict >= 0) _key = verdict == 1;
    else if (paramSet) _key = true;
    return _key;
  }
  return _key;
}

Packet* Packet::Copy() const {
  auto* c = new Packet();
  c->_buf = _buf;
  c->_off = _off;
  c->_size = _size;
  c->_cap = _cap;
  c->_key = _key;
  c->index = index;
  c->pts = pts;
  c->clock = clock;
  c->duration = duration;
  c->flags = flags;
  c->media = media;
  return c;
}

std::ostream& Packet::operator>>(std::ostream& os) const {
  os << "packet{idx=" << index << ",pts=" << pts << ",clock=" << clock << ",dur=" << duration
     << ",size=" << _size << ",off=" << _off << ",key=" << (_key ? 1 : 0) << ",flags=" << kiv::base::Hex(flags)
     << ",media=" << (media ? media->Codec() : "null") << "}";
  return os;
}

std::ostream& operator<<(std::ostream& os, const Packet& p) { return p >> os; }

Packet* PacketAlloc(int size, int headroom, int tailroom) {
  if (!validRequest(size, headroom, tailroom)) {
    LOGE << "!validRequest(size, headroom, tailroom) size=" << size << " headroom=" << headroom
         << " tailroom=" << tailroom;
    return nullptr;
  }
  return new Packet(size, headroom, tailroom);
}

}  // namespace stream
}  // namespace kiv
