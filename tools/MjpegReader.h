// Motion-JPEG for the command-line host: a file of JPEG pictures one behind the other, split into
// pictures by walking their marker segments (SOI, segments with their lengths, the entropy-coded data
// behind SOS up to the next marker, EOI), so that bytes 0xFF 0xD9 inside a segment do not end a
// picture. The picture size comes from each picture's SOF segment. The file is read in blocks; a
// picture may grow the buffer up to kMaxPicture.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "stream/base/Convert.h"
#include "tools/PacketSource.h"

namespace boxweave {

struct JpegPicture {
  const unsigned char* data = nullptr;  // SOI to EOI; valid until the next read
  size_t size = 0;
  long long index = 0;
  unsigned long long position = 0;  // file offset of the SOI
  unsigned width = 0, height = 0;   // from the SOF segment; 0 without one
};

class MjpegReader : public PacketSource {
 public:
  static constexpr size_t kBlock = 1 << 20;
  static constexpr size_t kMaxPicture = 64u << 20;

  explicit MjpegReader(size_t block = kBlock);
  ~MjpegReader() override;
  MjpegReader(const MjpegReader&) = delete;
  MjpegReader& operator=(const MjpegReader&) = delete;

  // ".mjpeg" or ".mjpg", in any case.
  static bool HandlesPath(const std::string& path);

  // Opens the file and checks that it begins with a JPEG picture's SOI. False with Error() set.
  bool Open(const std::string& path);
  // The next picture; false at the end or on a failure (then Error() is set).
  bool Next(JpegPicture& picture);
  bool FrameRate(const kiv::base::Fraction& fps);
  // The next picture as a key packet, pts from its index at the frame rate.
  kiv::stream::Packet* NextPacket(kiv::stream::IMedia* media) override;
  long long TimeOf(long long index) const;

  bool Failed() const { return !_error.empty(); }
  const std::string& Error() const override { return _error; }
  // Bytes between pictures that belong to none, and whether a picture cut off by the end was dropped.
  unsigned long long SkippedBytes() const { return _skipped; }
  bool TruncatedTail() const { return _truncated; }

 private:
  bool fail(const std::string& message);
  // At least n bytes from _begin held, unless the file ends first.
  bool need(size_t n);
  // The byte at _begin + i; false past the end of the file.
  bool at(size_t i, uint8_t& b);

  std::string _path;
  std::FILE* _file = nullptr;
  size_t _block;
  std::vector<uint8_t> _buf;
  size_t _begin = 0, _end = 0;
  unsigned long long _bufPos = 0;
  bool _eof = false;
  long long _index = 0;
  kiv::base::Fraction _fps{30, 1};
  unsigned long long _skipped = 0;
  bool _truncated = false;
  std::vector<uint8_t> _out;
  std::string _error;
};

struct MjpegDescription {
  std::string path;
  long long pictures = 0;
  unsigned width = 0, height = 0;  // of the first picture
  long long sizeChanges = 0;       // pictures whose size differs from the first's
  long long withoutSof = 0;        // pictures without a SOF segment
  unsigned long long bytes = 0;
  unsigned long long skippedBytes = 0;
  bool truncatedTail = false;
};

// One pass over the file. False with the reason in `error` for a file that cannot be read, is not
// Motion-JPEG, or holds no picture with a size.
bool DescribeMjpeg(const std::string& path, MjpegDescription& out, std::string& error);
// A new "jpeg" media (count 1) with "width", "height", "interlace" false and "framerate".
kiv::stream::IMedia* NewMjpegMedia(const MjpegDescription& d, const kiv::base::Fraction& fps);
std::vector<std::string> MjpegWarnings(const MjpegDescription& d);

}  // namespace boxweave
