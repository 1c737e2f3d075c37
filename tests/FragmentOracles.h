// What other players make of a fragmented recording: ffmpeg frame by frame, GStreamer's qtdemux, the
// streams' own frames; and the sources the recordings are made from.
#pragma once

#include <gtest/gtest.h>

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
inline void Save(const std::string& path, const Bytes& b, size_t n) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(std::min(n, b.size())));
}

// The md5 of each decoded frame (video "v" or audio "a"), as generated::FrameMd5s, with extra
// demuxer options in front of the input.
inline std::vector<std::string> FrameMd5s(const std::string& file, const char* kind, const std::string& inputOptions) {
  std::istringstream out(Capture("ffmpeg -nostdin -v quiet " + inputOptions + " -i '" + file + "' -map 0:" + kind +
                                 ":0 -fps_mode passthrough -f framemd5 - 2>/dev/null"));
  std::vector<std::string> md5s;
  for (std::string line; std::getline(out, line);)
    if (!line.empty() && line[0] != '#') md5s.push_back(line.substr(line.rfind(',') + 1));
  for (std::string& m : md5s) m.erase(0, m.find_first_not_of(' '));
  return md5s;
}

// What ffprobe says at warning level and above while reading every packet.
inline std::string ProbeWarnings(const std::string& file) {
  return Capture("ffprobe -v warning -count_packets -show_entries stream=nb_read_packets -of csv '" + file +
                 "' 2>&1 >/dev/null");
}

// Buffers that reached the end of a qtdemux pipeline for one stream ("video" or "audio"), and whether
// it got to the end of the stream. One pipeline a stream: with two sinks, the printed notices of the
// two streaming threads do not count buffers reliably.
struct GstRun {
  long long buffers = 0;
  bool eos = false;
  std::string log;
};
inline GstRun GstPlay(const std::string& file, const std::string& kind) {
  const std::string branch = kind == "video" ? "d.video_0 ! queue ! h264parse ! avdec_h264"
                                             : "d.audio_0 ! queue ! aacparse ! avdec_aac";
  const std::string out = Capture("timeout 120 gst-launch-1.0 -v filesrc location='" + file + "' ! qtdemux name=d " +
                                  branch + " ! fakesink name=s silent=false sync=false 2>&1");
  GstRun r;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    if (line.find("GstFakeSink:s: last-message = chain") != std::string::npos) ++r.buffers;
    if (line.find("Got EOS") != std::string::npos) r.eos = true;
    if (line.find("ERROR") != std::string::npos || line.find("WARN") != std::string::npos) r.log += line + "\n";
  }
  return r;
}

// The sources of a recording and what a decoder makes of them, frame by frame.
struct Source {
  std::string name, video, audio;  // paths; empty when the recording has no such track
  std::vector<std::string> videoFrames, audioFrames;
  std::string recordArgs() const {
    return (video.empty() ? "" : " --video '" + video + "'") + (audio.empty() ? "" : " --audio '" + audio + "'");
  }
  bool learn() {
    if (!video.empty()) videoFrames = FrameMd5s(video, "v", "");
    if (!audio.empty()) audioFrames = FrameMd5s(audio, "a", "");
    return (video.empty() || !videoFrames.empty()) && (audio.empty() || !audioFrames.empty());
  }
};

// Decoded frames of a recording, checked against the source's first n and m frames.
inline ::testing::AssertionResult SameFrames(const std::vector<std::string>& got, const std::vector<std::string>& want,
                                             size_t n, const char* what) {
  if (got.size() < n) return ::testing::AssertionFailure() << what << ": " << got.size() << " frames decoded, want " << n;
  for (size_t i = 0; i < n; ++i)
    if (i >= want.size() || got[i] != want[i]) return ::testing::AssertionFailure() << what << ": frame " << i << " differs";
  return ::testing::AssertionSuccess();
}

}  // namespace fragoracle
