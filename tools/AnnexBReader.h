// What the H.264 and H.265 readers share: an Annex-B file read block by block and cut into NAL units at
// their start codes, the units of a picture gathered into an access unit behind four-byte start codes,
// the first parameter sets kept, and the packet times of a frame rate.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "stream/base/Convert.h"
#include "stream/core/Packet.h"

namespace boxweave {

// What an access unit tells of itself, whatever its codec.
struct AnnexBAccessUnit {
  const unsigned char* data = nullptr;  // the units behind four-byte start codes; valid until the next read
  size_t size = 0;                      // bytes in that form (also counted when the reader only scans)
  long long index = 0;                  // picture number in stream (decoding) order
  unsigned long long position = 0;      // file offset of the first unit's header byte
  bool key = false;                     // holds a slice a decoder can start at
  unsigned sliceTypes = 0;              // the codec's bits of the slice types whose header could be read
  int slices = 0;                       // slice NAL units
  int units = 0;                        // NAL units
};

// The key pictures of a pass over a stream: their count, the first two, and the "gop" they make.
struct KeyPictures {
  long long count = 0;
  long long first = -1;   // index of the first one, -1 without any
  long long second = -1;
  void Note(const AnnexBAccessUnit& au);
  // The distance between the first two; with one, the pictures from it to the end; without one, all.
  long long Gop(long long pictures) const;
};

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
  // Scan only: access units are split and described, but their bytes are not assembled (data stays
  // null). Set before the first Next.
  void ScanOnly(bool on) { _copy = !on; }
  // NAL units passed over: damaged ones, or left at the end without a picture.
  long long DroppedUnits() const { return _droppedUnits; }
  // Slices whose header could not be read (counted, kept in their picture).
  long long BadSlices() const { return _badSlices; }

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

  // What every codec counts of the access unit being built; the codec readers add their own.
  struct Building {
    size_t size = 0;
    unsigned long long position = 0;
    bool hasVcl = false;
    bool key = false;
    unsigned sliceTypes = 0;
    int slices = 0;
    int units = 0;
  };
  // A unit into the access unit being built, behind a four-byte start code (its bytes only when not
  // scanning). False with the error set when the access unit would grow past kMaxUnit.
  bool add(Building& cur, const uint8_t* nal, size_t size, unsigned long long position);
  // The access unit built so far into au: its bytes, the next picture number and cur's counts.
  void handOut(const Building& cur, AnnexBAccessUnit& au);
  // Units left at the end of the stream without a picture of their own are dropped.
  void dropUnits(const Building& cur);

  std::string _path;
  std::FILE* _file = nullptr;
  std::vector<uint8_t> _buf;  // [0, _end) read from the file at _bufPos
  size_t _begin = 0;          // start of the unit being delimited
  size_t _end = 0;
  kiv::base::Fraction _fps{30, 1};
  bool _paramSetsChange = false;
  std::string _error;
  bool _copy = true;
  long long _droppedUnits = 0;
  long long _badSlices = 0;

 private:
  bool fill();

  size_t _block;
  size_t _scan = 0;                // search for the next start code goes on from here
  unsigned long long _bufPos = 0;  // file offset of _buf[0]
  bool _eof = false;
  bool _atEnd = false;  // the last unit has been handed out
  std::vector<uint8_t> _au;   // the access unit being built
  std::vector<uint8_t> _out;  // the one handed out last
  long long _pictures = 0;
};

}  // namespace boxweave
