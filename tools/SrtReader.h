// SubRip subtitles for the command-line host, turned into QuickTime text samples: a 16-bit
// big-endian length, then the cue's UTF-8 text (its lines joined by line feeds). The samples cover
// the time line without holes: a cue lasts from its start to its end, or to the next cue's start
// when that comes first, and a gap before a cue becomes an empty sample (length 0). An empty sample
// of no duration closes the last cue.
//
// The text track measures a sample's duration from the time stamp of the sample before to its own,
// so each packet carries as time stamp the end of its sample, and as duration its length.
#pragma once

#include <string>
#include <vector>

#include "stream/base/Convert.h"
#include "tools/PacketSource.h"

namespace boxweave {

struct SrtCue {
  long long start = 0, end = 0;  // ms
  std::string text;              // lines joined by "\n"
};

// A text sample of the track: [start, end) in ms and its text (empty for a gap).
struct TextSample {
  long long start = 0, end = 0;
  std::string text;
};

// Parses SubRip text. False with the reason (line number included) in `why`. Cues that last no time
// after the next cue's start are dropped and counted in `dropped`.
bool ParseSrt(const std::string& text, std::vector<SrtCue>& cues, std::string& why);
// The samples that cover the cues' time line from 0; `dropped` counts cues left without time.
std::vector<TextSample> SamplesOfCues(const std::vector<SrtCue>& cues, long long& dropped);
// "HH:MM:SS,mmm".
std::string SrtTime(long long ms);
// SubRip text of the samples that hold text, numbered from 1.
std::string SrtOfSamples(const std::vector<TextSample>& samples);

class SrtReader : public PacketSource {
 public:
  // A file larger than this is no subtitle file.
  static constexpr long long kMaxFile = 64ll << 20;

  static bool HandlesPath(const std::string& path);
  // Reads and parses the whole file. False with Error() set.
  bool Open(const std::string& path);
  const std::vector<TextSample>& Samples() const { return _samples; }
  long long Dropped() const { return _dropped; }
  // Samples a second over the time line, at least 1/1: what the track plans its tables for.
  kiv::base::Fraction Rate() const;

  kiv::stream::Packet* NextPacket(kiv::stream::IMedia* media) override;
  const std::string& Error() const override { return _error; }

 private:
  bool fail(const std::string& message);
  std::string _path;
  std::vector<TextSample> _samples;
  long long _dropped = 0;
  size_t _next = 0;
  std::string _error;
};

// A new "txt" media (count 1) with "framerate".
kiv::stream::IMedia* NewTextMedia(const kiv::base::Fraction& rate);

}  // namespace boxweave
