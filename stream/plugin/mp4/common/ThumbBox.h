// The "thum" box: a JPEG thumbnail kept inside the movie file.
//
// The thumbnail exists only once the recording is over, so the writer reserves a fixed space at the
// box's place; at the end the space is split into a "thum" of the JPEG's size and a "free" for the rest.
// The file never moves, and it is valid whether a thumbnail arrives or not.
#pragma once

#include <memory>
#include <string>

#include "stream/plugin/mp4/common/IBox.h"

namespace kiv {
namespace plugin {
namespace mov {

class cthumb : public IBox {
 public:
  static constexpr unsigned int kReserve = 204800;
  // Room kept behind the JPEG: the 8-byte header of the "free" box and 8 bytes more.
  static constexpr unsigned int kFreeRoom = 16;

  cthumb();

  // Reserves the space: the header and _reserve_size zero bytes (nothing when there is no reserve).
  void fill(IO& io) override;
  // Reads the JPEG the box holds, up to the buffer's size.
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;

  // The JPEG beside the output file (its name up to the first dot, plus ".jpg") goes into the reserved
  // space. Any trouble with the JPEG leaves the reserve as it is and still gives true; false only
  // without a buffer.
  bool ThumbDataUpdate(IO& io, std::string& url);
  // Null while no JPEG is held.
  const unsigned char* ThumbDataGet() const { return _size ? _data.get() : nullptr; }
  unsigned int ThumbSizeGet() const { return _size; }

 protected:
  // Taken when first needed, and no bigger than needed: a read file may hold any number of
  // "thum" boxes, and 200 KiB for each header would let a small file claim gigabytes.
  std::unique_ptr<unsigned char[]> _data;  // _held bytes, zeroed when taken; never more than _capacity
  unsigned int _held = 0;
  unsigned int _size = 0;
  unsigned int _reserve_size = kReserve;
  unsigned int _capacity = kReserve;
  unsigned long long _pos = 0;  // the box's place in the file, from fill

 private:
  // At least bytes (up to _capacity) in _data, what was there kept; false when that can't be had.
  bool hold(unsigned int bytes);
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
