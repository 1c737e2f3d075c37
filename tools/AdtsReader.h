// AAC ADTS elementary streams for the command-line host: frames read from a file in blocks, the
// stream's description, and the media and packets that a muxer takes.
//
// Every frame is handed on with a seven-byte header, which is what the AAC track cuts off ("adtslen"
// 7): a frame that carries a CRC (nine-byte header) loses the CRC and gets the short header.
// Damage is met by resynchronising: a header that does not parse, or that does not match the stream's
// first header, is skipped up to the next sync word that starts a matching frame; a frame cut off by
// the end of the file is dropped. Both are logged with their byte position and counted.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "tools/H264Reader.h"  // PacketError

namespace boxweave {

// The fields of the fixed header that describe the stream.
struct AdtsConfig {
  unsigned objectType = 0;     // audio object type: ADTS profile + 1 (2 is AAC LC)
  unsigned rateIndex = 0;
  unsigned rate = 0;           // Hz
  unsigned channelConfig = 0;
  unsigned channels = 0;
  // The two-byte AudioSpecificConfig: object type, rate index, channel configuration, then a
  // GASpecificConfig of 1024-sample frames without core coder or extension.
  void AudioSpecificConfig(uint8_t out[2]) const;
};

struct AdtsFrame {
  const unsigned char* data = nullptr;  // seven-byte header and raw data; valid until the next read
  size_t size = 0;
  long long index = 0;
  unsigned long long position = 0;  // file offset of the frame's header
  unsigned long long sample = 0;    // first sample of the frame, counted from the stream's start
  unsigned blocks = 1;              // raw data blocks in the frame, 1024 samples each
  bool hadCrc = false;              // the file's frame had a nine-byte header
};

class AdtsReader {
 public:
  static constexpr size_t kBlock = 64 << 10;
  static constexpr unsigned kSamplesPerFrame = 1024;

  // `block` is the size of one read; small values are for tests.
  explicit AdtsReader(size_t block = kBlock);
  ~AdtsReader();
  AdtsReader(const AdtsReader&) = delete;
  AdtsReader& operator=(const AdtsReader&) = delete;

  // ".aac", in any case.
  static bool HandlesPath(const std::string& path);

  // Opens the file and checks that it begins with an ADTS frame (an ID3v2 tag in front is passed over)
  // whose successor, if any, is one too. False with Error() set.
  bool Open(const std::string& path);
  const AdtsConfig& Config() const { return _config; }

  // The next frame; false at the end of the stream or on a failure (then Error() is set).
  bool Next(AdtsFrame& frame);
  // The next frame as a key packet with index, pts from the sample count and a duration of 1024
  // samples in nanoseconds, and `media` (borrowed). Null at the end, PacketError() on a failure.
  kiv::stream::Packet* NextPacket(kiv::stream::IMedia* media);
  // Time in nanoseconds of a sample number at the stream's rate.
  long long TimeOf(unsigned long long sample) const;

  bool Failed() const { return !_error.empty(); }
  const std::string& Error() const { return _error; }
  const std::string& Path() const { return _path; }
  // Places where damage was skipped, the bytes skipped there, and whether a cut-off frame ended the file.
  long long Resyncs() const { return _resyncs; }
  unsigned long long SkippedBytes() const { return _skipped; }
  bool TruncatedTail() const { return _truncated; }

 private:
  struct Header {
    AdtsConfig config;
    bool crc = false;
    unsigned length = 0;       // whole frame, header included
    unsigned headerLength = 0;
    unsigned rawBlocks = 0;    // number_of_raw_data_blocks_in_frame + 1
  };
  static bool parse(const uint8_t* p, Header& h);
  bool matches(const Header& h) const;

  bool fail(const std::string& message);
  // At least `n` bytes from _begin held, unless the file ends first.
  bool need(size_t n);
  // Moves _begin to the next sync word that starts a frame of this stream; false at the end.
  bool resync();

  std::string _path;
  std::FILE* _file = nullptr;
  size_t _block;
  std::vector<uint8_t> _buf;
  size_t _begin = 0;
  size_t _end = 0;
  unsigned long long _bufPos = 0;
  bool _eof = false;

  AdtsConfig _config;
  std::vector<uint8_t> _frame;    // the frame handed out, rewritten to a seven-byte header
  long long _index = 0;
  unsigned long long _samples = 0;
  long long _resyncs = 0;
  unsigned long long _skipped = 0;
  bool _truncated = false;
  std::string _error;
};

struct AdtsDescription {
  std::string path;
  AdtsConfig config;
  uint8_t asc[2] = {0, 0};         // AudioSpecificConfig
  long long frames = 0;
  unsigned long long samples = 0;
  unsigned long long payloadBytes = 0;  // raw AAC bytes, headers not counted: what the file stores
  int bitrate = 0;                 // bits per second over the payload
  unsigned samplesPerFrame = AdtsReader::kSamplesPerFrame;
  bool crc = false;                // some frame carried a CRC
  long long resyncs = 0;
  unsigned long long skippedBytes = 0;
  bool truncatedTail = false;
};

// One pass over the whole file. False with the reason in `error` for a file that cannot be read, is not
// ADTS, has no frame, has frames of several raw data blocks, or a channel configuration of 0 (channels
// given in the payload), which a sample description cannot tell.
bool DescribeAdts(const std::string& path, AdtsDescription& out, std::string& error);

// A new "aac" media (count 1) with "rate", "channel", "width" 2, "depth" 16, "bitrate", "adtslen" 7,
// "frmSampNum" 1024 and the AudioSpecificConfig as extra data.
kiv::stream::IMedia* NewAdtsMedia(const AdtsDescription& d);

// Lines a host prints before recording such a stream.
std::vector<std::string> AdtsWarnings(const AdtsDescription& d);

}  // namespace boxweave
