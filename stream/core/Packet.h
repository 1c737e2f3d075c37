// One media unit on its way through the graph.
//
// The buffer is laid out as   [ head room | payload | free | tail room ]
//                             0          Offset()   +Size() Capacity   end
// Data() points at the payload. The head room lets a producer put a header in front of a payload that
// is already in place (a start code, an ADTS header) by lowering the offset; the tail room is zeroed
// padding that readers which overshoot a little can touch safely.
//
// Reference counted: created with a count of 1 (by `new Packet()` or PacketAlloc), Hold to keep,
// Release to drop; the last Release destroys.
#pragma once

#include <cstdint>
#include <ostream>
#include <vector>

#include "stream/base/reflect/Object.h"

namespace kiv {
namespace stream {

class IMedia;

class Packet : public kiv::base::Reference, public kiv::object_base {
 public:
  // The largest buffer a packet may have; a larger request is refused, not attempted.
  static constexpr int kMaxBuffer = 1 << 28;

  // An empty packet: no buffer, Data() null, Size() 0.
  Packet();
  // A payload of `size` zeroed bytes with `headroom` free bytes in front and `tailroom` zeroed bytes
  // behind. A request that is negative or too large gives an empty packet (see PacketAlloc).
  Packet(int size, int headroom, int tailroom);

  unsigned char* Data() { return _buf.empty() ? nullptr : _buf.data() + _off; }
  const unsigned char* Data() const { return _buf.empty() ? nullptr : _buf.data() + _off; }
  int Size() const { return _size; }
  // Sets the payload length; false when it is negative or beyond Max().
  bool Size(int size);
  // Start of the payload in the buffer, which is also the head room left.
  int Offset() const { return _off; }
  // Moves the start of the payload and keeps its end: a larger offset skips leading bytes, a smaller one
  // takes head room into the payload. False when the new start lies outside [0, end of payload].
  bool Offset(int offset);
  // Room for the payload from Data() up to the tail room.
  int Max() const { return _cap - _off; }
  // Makes the room from Data() at least `size` bytes, moving the buffer if needed; the head room, the
  // payload and the tail room stay. False when the size is refused.
  bool Max(int size);
  int Tailroom() const { return static_cast<int>(_buf.size()) - _cap; }

  // Puts bytes in front of the payload, into the head room. False (nothing changed) without room.
  bool Prepend(const void* data, int size);
  // Puts bytes behind the payload, growing the buffer when needed.
  bool Append(const void* data, int size);
  // Replaces the payload by a copy of the bytes, growing the buffer when needed.
  bool Assign(const void* data, int size);

  bool IsKey() const { return _key; }
  void SetKey(bool key) { _key = key; }
  // Decides the key flag from the payload where the media's codec tells how (H.264 and HEVC access
  // units, every frame of audio, JPEG and text); other packets keep their flag. Returns the flag.
  bool CheckKey();

  // A new packet with a copy of the buffer and the fields (count 1).
  Packet* Copy() const;

  std::ostream& operator>>(std::ostream& os) const;

  // Fields in this order, reached directly by producers and consumers.
  long long index = 0;       // frame index within its track
  long long pts = 0;         // presentation time, ns
  long long clock = 0;       // a second time span, ns: clock base on the play side, span on the record side
  long long duration = 0;    // ns
  uint32_t flags = 0;        // free for producers and consumers
  IMedia* media = nullptr;   // borrowed: the producer keeps the media alive longer than its packets

 protected:
  ~Packet() override;

 private:
  bool grow(int room);

  std::vector<unsigned char> _buf;
  int _off = 0;   // payload start
  int _size = 0;  // payload length
  int _cap = 0;   // end of the room for the payload, start of the tail room
  bool _key = false;
};

// A new packet as Packet(size, headroom, tailroom) builds it; null (with a log line) for a request that
// is negative or too large.
Packet* PacketAlloc(int size, int headroom = 0, int tailroom = 0);

std::ostream& operator<<(std::ostream& os, const Packet& p);

// What a packet producer returns for an error (null is the end of the stream): the pointer value -1.
inline Packet* PacketError() { return reinterpret_cast<Packet*>(intptr_t(-1)); }

}  // namespace stream
}  // namespace kiv
