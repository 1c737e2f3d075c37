// The record verb's inputs besides H.264 and ADTS: Motion-JPEG video, 16-bit PCM audio and SubRip
// text, each opened and described in one step before the muxer is made.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "stream/base/Convert.h"
#include "tools/PacketSource.h"

namespace boxweave {

struct OpenedInput {
  kiv::stream::IMedia* media = nullptr;  // count 1, the caller's
  std::unique_ptr<PacketSource> reader;
  double seconds = 0;                    // how long the stream lasts
  std::vector<std::string> warnings;
};

// Each: "" with `out` filled, or the reason the input cannot be recorded.
std::string OpenMjpegInput(const std::string& path, const kiv::base::Fraction& fps, OpenedInput& out);
// audioFormat: "s16le:RATE:CHANNELS" for a raw file, empty for a WAVE file.
std::string OpenPcmInput(const std::string& path, const std::string& audioFormat, OpenedInput& out);
std::string OpenSrtInput(const std::string& path, OpenedInput& out);

}  // namespace boxweave
