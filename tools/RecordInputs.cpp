#include "tools/RecordInputs.h"

#include "stream/core/IMedia.h"
#include "tools/MjpegReader.h"
#include "tools/PcmReader.h"
#include "tools/SrtReader.h"

namespace boxweave {

std::string OpenMjpegInput(const std::string& path, const kiv::base::Fraction& fps, OpenedInput& out) {
  MjpegDescription d;
  std::string error;
  if (!DescribeMjpeg(path, d, error)) return error;
  auto reader = std::make_unique<MjpegReader>();
  if (!reader->Open(path) || !reader->FrameRate(fps)) return "cannot read " + path + ": " + reader->Error();
  out.media = NewMjpegMedia(d, fps);
  if (!out.media) return "cannot describe " + path;
  out.reader = std::move(reader);
  out.warnings = MjpegWarnings(d);
  out.seconds = static_cast<double>(d.pictures) * static_cast<double>(fps.Den()) / static_cast<double>(fps.Num());
  return "";
}

std::string OpenPcmInput(const std::string& path, const std::string& audioFormat, OpenedInput& out) {
  PcmFormat format;
  const bool raw = PcmReader::IsRaw(path);
  if (raw) {
    std::string why;
    if (!ParsePcmFormat(audioFormat, format, why)) return path + ": --audio-format " + why;
  }
  PcmDescription d;
  std::string error;
  if (!DescribePcm(path, raw ? &format : nullptr, d, error)) return error;
  auto reader = std::make_unique<PcmReader>();
  if (!reader->Open(path, raw ? &format : nullptr)) return "cannot read " + path + ": " + reader->Error();
  out.media = NewPcmMedia(d);
  if (!out.media) return "cannot describe " + path;
  out.reader = std::move(reader);
  out.warnings = PcmWarnings(d);
  out.seconds = static_cast<double>(d.packetFrames) / d.format.rate;
  return "";
}

std::string OpenSrtInput(const std::string& path, OpenedInput& out) {
  auto reader = std::make_unique<SrtReader>();
  if (!reader->Open(path)) return reader->Error();
  out.media = NewTextMedia(reader->Rate());
  if (!out.media) return "cannot describe " + path;
  if (reader->Dropped())
    out.warnings.push_back(path + ": " + std::to_string(reader->Dropped()) +
                           " cues last no time before the next cue starts and are left out");
  out.seconds = static_cast<double>(reader->Samples().back().end) / 1000.0;
  out.reader = std::move(reader);
  return "";
}

}  // namespace boxweave
