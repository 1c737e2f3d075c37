// What the H.264 and H.265 readers share: an Annex-B file read block by block and cut into NAL units at
// their start codes, the first parameter sets kept, and the packet times of a frame rate.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "stream/base/Convert.h"
#include "stream/core/Packet.h"

namespace boxweave {

class AnnexBReader {
 public:
  static constexpr size_t kBlock = 1 << 20;
  // The largest NAL unit and the largest access unit taken; a larger one fails the read.
  static constexpr size_t kMaxUnit = 64u << 20;

  AnnexBReader(const AnnexBReader&) = delete;
  AnnexBReader& operator=(const AnnexBReader&) = delete;

  // Frame rate for packet times; false (and unchanged) for a rate that is not positive or so large
  // that nanosecond times would overflow.
  bool FrameRate(const kiv::base::Fraction& fps);
  // Presentation time in nanoseconds of the picture `index` at the frame rate.
  long long TimeOf(long long index) const;

  bool Failed() const { return !_error.empty(); }
  const std::string& Error() const { return _error; }
  const std::string& Path() const { return _path; }
  // Whether parameter sets other than the first of their kind followed.
  bool ParamSetsChange() const { return _paramSetsChange; }

 protected:
  // `block` is the size of one read; small values are for tests.
  explicit AnnexBReader(size_t block);
  ~AnnexBReader();

  static bool EndsWith(const std::string& s, const char* tail);  // in any case
  bool fail(const std::string& message);
  // Opens the file and steps over its first start code (behind optional zero bytes), with at least
  // `header` bytes of the first unit held at _buf[_begin]. False with the error set ("empty file",
  // "not an <codec> Annex-B stream: ...").
  bool openStream(const std::string& path, const char* codec, size_t header);
  // The next NAL unit, without its start code and trailing zero bytes. The bytes stay valid until the
  // next call. False at the end of the file or on a failure.
  bool nextNal(const uint8_t*& nal, size_t& size, unsigned long long& position);
  // An access unit as a packet: its bytes, key flag, index, pts = index / rate and duration in
  // nanoseconds, and `media` (borrowed). PacketError() when it cannot be made.
  kiv::stream::Packet* packetOf(const uint8_t* data, size_t size, bool key, long long index,
                                kiv::stream::IMedia* media);
  // Keeps the first parameter set of a kind; a different one later marks a change.
  void noteParamSet(std::vector<uint8_t>& first, const uint8_t* nal, size_t size);

  std::string _path;
  std::FILE* _file = nullptr;
  std::vector<uint8_t> _buf;  // [0, _end) read from the file at _bufPos
  size_t _begin = 0;          // start of the unit being delimited
  size_t _end = 0;
  kiv::base::Fraction _fps{30, 1};
  bool _paramSetsChange = false;
  std::string _error;

 private:
  bool fill();

  size_t _block;
  size_t _scan = 0;                // search for the next start code goes on from here
  unsigned long long _bufPos = 0;  // file offset of _buf[0]
  bool _eof = false;
  bool _atEnd = false;  // the last unit has been handed out
};

}  // namespace boxweave
