// 16-bit PCM for the command-line host: RIFF/WAVE files (rate and channels from the "fmt " chunk)
// and raw little-endian files (.s16le, .pcm) whose format the user names. The samples are handed on
// in packets of a fixed number of sample frames, 20 ms where the rate allows it: the PCM track
// counts every packet as that many frames, so a last packet shorter than the others is left out
// (and told), and so are bytes that make no whole frame.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "tools/PacketSource.h"

namespace boxweave {

struct PcmFormat {
  unsigned rate = 0;
  unsigned channels = 0;
};

// "s16le:RATE:CHANNELS". False with the reason in `why`.
bool ParsePcmFormat(const std::string& text, PcmFormat& format, std::string& why);

class PcmReader : public PacketSource {
 public:
  // The rates and channel counts the PCM track keeps in its sample description.
  static constexpr unsigned kMaxRate = 65535;
  static constexpr unsigned kMaxChannels = 2;

  PcmReader() = default;
  ~PcmReader() override;
  PcmReader(const PcmReader&) = delete;
  PcmReader& operator=(const PcmReader&) = delete;

  // ".wav", ".s16le" or ".pcm", in any case; IsRaw for the two without a header.
  static bool HandlesPath(const std::string& path);
  static bool IsRaw(const std::string& path);
  // Sample frames of a packet at a rate: 20 ms when the rate is a multiple of 50, else 1024.
  static unsigned FramesPerPacket(unsigned rate);

  // Opens a WAVE file (raw null) or a raw file of the given format. False with Error() set.
  bool Open(const std::string& path, const PcmFormat* raw);
  const PcmFormat& Format() const { return _format; }
  // Whole sample frames of the data, and those that fill whole packets.
  unsigned long long Frames() const { return _frames; }
  unsigned long long PacketFrames() const { return _frames - _frames % _perPacket; }
  unsigned PerPacket() const { return _perPacket; }
  // Bytes of the data that make no whole frame.
  unsigned long long OddBytes() const { return _oddBytes; }
  bool DataSizeClamped() const { return _clamped; }

  kiv::stream::Packet* NextPacket(kiv::stream::IMedia* media) override;
  long long TimeOf(unsigned long long frame) const;
  bool Failed() const { return !_error.empty(); }
  const std::string& Error() const override { return _error; }

 private:
  bool fail(const std::string& message);
  bool readWave();
  bool check();

  std::string _path;
  std::FILE* _file = nullptr;
  PcmFormat _format;
  unsigned long long _dataPos = 0;
  unsigned long long _frames = 0;
  unsigned long long _oddBytes = 0;
  bool _clamped = false;
  unsigned _perPacket = 1024;
  unsigned long long _next = 0;  // next frame to hand out
  long long _index = 0;
  std::string _error;
};

struct PcmDescription {
  std::string path;
  PcmFormat format;
  unsigned long long frames = 0;        // whole frames in the data
  unsigned long long packetFrames = 0;  // of them, those recorded
  unsigned perPacket = 0;
  unsigned long long oddBytes = 0;
  bool clamped = false;
};

bool DescribePcm(const std::string& path, const PcmFormat* raw, PcmDescription& out, std::string& error);
// A new "pcm" media (count 1) with "rate", "channel", "width" 2, "depth" 16 and "samples".
kiv::stream::IMedia* NewPcmMedia(const PcmDescription& d);
std::vector<std::string> PcmWarnings(const PcmDescription& d);

// The 44-byte header of a 16-bit PCM WAVE file of dataBytes bytes.
std::string WaveHeader(unsigned rate, unsigned channels, unsigned long long dataBytes);

}  // namespace boxweave

namespace boxweave {
// Rewrites the header at the front of a WAVE file written with a provisional one; "" or why not.
std::string PatchWaveHeader(const std::string& path, unsigned rate, unsigned channels, unsigned long long dataBytes);
}  // namespace boxweave
