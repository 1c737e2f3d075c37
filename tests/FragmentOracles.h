// What other players make of a fragmented recording: ffmpeg frame by frame and sample by sample,
// GStreamer's qtdemux; and the sources the recordings are made from.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "tests/FragmentBytes.h"
#include "tests/GeneratedMedia.h"
#include "tests/ToolRun.h"

namespace fragoracle {

using fragbytes::Bytes;

inline Bytes Load(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}
inline void Save(const std::string& path, const Bytes& b, size_t n = ~size_t{0}) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(std::min(n, b.size())));
}

using generated::FrameMd5s;

// Every sample of the first audio stream as ffmpeg decodes it, 16-bit interleaved; `input` is the
// options and the -i. Through a file: a pipe read as text stops at the first zero byte.
inline std::string DecodeAudio(const std::string& input) {
  static int n = 0;
  const std::string raw = boxtest::ProcessScratch() + "/fragaudio" + std::to_string(::getpid()) + "_" + std::to_string(n++);
  Shell("ffmpeg -nostdin -v error " + input + " -map 0:a:0 -f s16le -y " + raw);
  const std::string bytes = ReadWhole(raw);
  Shell("rm -f " + raw);
  return bytes;
}

// What ffprobe says at warning level and above while reading every packet.
inline std::string ProbeWarnings(const std::string& file) {
  return Capture("ffprobe -v warning -count_packets -show_entries stream=nb_read_packets -of csv '" + file +
                 "' 2>&1 >/dev/null");
}

// One stream of a file through qtdemux ("video", AAC "audio", or "pcm"): the buffers that reached the
// end, whether it got to the end of the stream, and for "pcm" the samples. One pipeline a stream:
// with two sinks, the printed notices of the two streaming threads do not count buffers reliably.
struct GstRun {
  long long buffers = 0;
  bool eos = false;
  std::string log, raw;
};
inline GstRun GstPlay(const std::string& file, const std::string& kind) {
  const std::string rawPath = file + ".gst.s16le";
  const std::string branch =
      kind == "video"   ? "d.video_0 ! queue ! h264parse ! avdec_h264 ! fakesink name=s silent=false sync=false"
      : kind == "audio" ? "d.audio_0 ! queue ! aacparse ! avdec_aac ! fakesink name=s silent=false sync=false"
                        : "d.audio_0 ! queue ! audioconvert ! audio/x-raw,format=S16LE ! filesink location='" + rawPath + "'";
  const std::string out =
      Capture("timeout 120 gst-launch-1.0 -v filesrc location='" + file + "' ! qtdemux name=d " + branch + " 2>&1");
  GstRun r;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    if (line.find("GstFakeSink:s: last-message = chain") != std::string::npos) ++r.buffers;
    if (line.find("Got EOS") != std::string::npos) r.eos = true;
    if (line.find("ERROR") != std::string::npos || line.find("WARN") != std::string::npos) r.log += line + "\n";
  }
  if (kind == "pcm") r.raw = ReadWhole(rawPath);
  Shell("rm -f '" + rawPath + "'");
  return r;
}

// The sources of a recording and what a decoder makes of them: the pictures frame by frame, the sound
// sample by sample.
struct Source {
  std::string video, audio;  // paths; empty when the recording has no such track
  std::string audioFormat;   // record's --audio-format for raw PCM, as "s16le:RATE:CHANNELS"
  std::vector<std::string> videoFrames;
  std::string sound;
  long long rate = 0, channels = 0;
  size_t audioUnit = 0;  // decoded bytes a packet: 1024 samples of AAC, 20 ms of PCM
  bool pcm = false;

  std::string recordArgs() const {
    return (video.empty() ? "" : " --video '" + video + "'") + (audio.empty() ? "" : " --audio '" + audio + "'") +
           (audioFormat.empty() ? "" : " --audio-format " + audioFormat);
  }
  std::string audioInput() const {  // ffmpeg's options and input for the sound
    std::string format;
    if (!audioFormat.empty()) {
      const size_t a = audioFormat.find(':'), b = audioFormat.rfind(':');
      format = "-f s16le -ar " + audioFormat.substr(a + 1, b - a - 1) + " -ac " + audioFormat.substr(b + 1) + " ";
    }
    return format + "-i '" + audio + "'";
  }
  size_t audioPackets() const { return audioUnit ? sound.size() / audioUnit : 0; }
  bool learn() {
    if (!video.empty()) videoFrames = FrameMd5s(video, "v", "");
    if (!audio.empty()) {
      sound = DecodeAudio(audioInput());
      std::istringstream info(Capture("ffprobe -v error " + audioInput() +
                                      " -show_entries stream=codec_name,sample_rate,channels -of csv=p=0"));
      std::string codec, r, ch;
      std::getline(info, codec, ',');
      std::getline(info, r, ',');
      std::getline(info, ch);
      pcm = codec.rfind("pcm", 0) == 0;
      rate = std::atoll(r.c_str()), channels = std::atoll(ch.c_str());
      audioUnit = static_cast<size_t>((pcm ? rate / 50 : 1024) * 2 * channels);
    }
    return (video.empty() || !videoFrames.empty()) && (audio.empty() || (!sound.empty() && audioUnit > 0));
  }
};

// Decoded frames of a recording, checked against the source's first n.
inline ::testing::AssertionResult SameFrames(const std::vector<std::string>& got, const std::vector<std::string>& want,
                                             size_t n, const char* what) {
  if (got.size() < n) return ::testing::AssertionFailure() << what << ": " << got.size() << " frames decoded, want " << n;
  for (size_t i = 0; i < n; ++i)
    if (i >= want.size() || got[i] != want[i]) return ::testing::AssertionFailure() << what << ": frame " << i << " differs";
  return ::testing::AssertionSuccess();
}

// Decoded sound of a recording, checked against the source's first n packets.
inline ::testing::AssertionResult SameSound(const std::string& got, const Source& src, size_t n, const char* what) {
  const size_t want = n * src.audioUnit;
  if (got.size() < want || want > src.sound.size())
    return ::testing::AssertionFailure() << what << ": " << got.size() << " bytes decoded, want " << want;
  for (size_t i = 0; i < want; ++i)
    if (got[i] != src.sound[i]) return ::testing::AssertionFailure() << what << ": differs at byte " << i;
  return ::testing::AssertionSuccess();
}

}  // namespace fragoracle
