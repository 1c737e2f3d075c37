// Streams that ffmpeg makes at test time, and what ffmpeg decodes from a file: shared by the tests that
// record them and the tests that play the recordings back.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/ToolRun.h"

namespace generated {

struct Stream {
  std::string path, md5;                                                // md5 of what ffmpeg decodes from it
  long long frames = 0, width = 0, height = 0, rate = 0, channels = 0;  // pictures, or AAC frames
  bool bframes = false;
};

struct Decoded {
  int status = -1;
  std::string errors, video, audio;  // what ffmpeg said at error level less what is allowed; md5 of each
};

// A fresh scratch folder for one test process, named by prefix and process id, or "" with why set
// when ffmpeg or ffprobe is missing.
inline std::string ScratchDir(const std::string& prefix, std::string& why) {
  if (!Shell("command -v ffmpeg") || !Shell("command -v ffprobe")) {
    why = "ffmpeg or ffprobe is not installed";
    return "";
  }
  std::string tmp = ::testing::TempDir();
  if (!tmp.empty() && tmp.back() == '/') tmp.pop_back();
  const std::string dir = tmp + "/" + prefix + std::to_string(::getpid());
  if (!Shell("rm -rf " + dir + " && mkdir -p " + dir)) return "";
  boxtest::RemoveAtExit(dir);
  return dir;
}

// Decodes every picture and every sound frame. Pictures keep their decoding count (no frame dropped
// or repeated for timing). A B-frame track carries a fixed pattern of composition offsets, so the
// pictures come out with repeated time stamps: the raw writer's notes about them are allowed there.
// `input` tells ffmpeg how to read the file ("-f s16le -ar 16000 -ac 1", "-ignore_editlist 1").
inline Decoded DecodeWith(const std::string& dir, const std::string& file, bool video, bool audio, bool bframes,
                          const std::string& input) {
  const std::string v = dir + "/decoded_v", a = dir + "/decoded_a", e = dir + "/decoded_err";
  std::string cmd = "ffmpeg -nostdin -v error -xerror " + input + " -i " + file;
  if (video) cmd += " -map 0:v -fps_mode passthrough -f rawvideo -y " + v;
  if (audio) cmd += " -map 0:a -f s16le -y " + a;
  cmd += " 2>" + e + "; echo $?" + (video ? "; md5sum <" + v : "") + (audio ? "; md5sum <" + a : "");
  std::istringstream out(Capture(cmd)), err(ReadWhole(e));
  Decoded d;
  std::string line;
  if (std::getline(out, line)) d.status = std::atoi(line.c_str());
  if (video && std::getline(out, line)) d.video = line.substr(0, 32);
  if (audio && std::getline(out, line)) d.audio = line.substr(0, 32);
  while (std::getline(err, line))
    if (!(bframes && line.find("non monotonically increasing dts to muxer") != std::string::npos))
      d.errors += line + "\n";
  Shell("rm -f " + v + " " + a + " " + e);
  return d;
}
inline Decoded Decode(const std::string& dir, const std::string& file, bool video, bool audio, bool bframes) {
  return DecodeWith(dir, file, video, audio, bframes, "");
}

// The md5 of each decoded frame of the file's first stream of a kind ("v" or "a"), in the order the
// decoder gives them, times left out: frame for frame what a player shows. Empty when ffmpeg fails.
// inputOptions go in front of the input (demuxer options).
inline std::vector<std::string> FrameMd5s(const std::string& file, const char* kind,
                                          const std::string& inputOptions = "") {
  std::istringstream out(Capture("ffmpeg -nostdin -v error " + inputOptions + " -i '" + file + "' -map 0:" + kind +
                                 ":0 -fps_mode passthrough -f framemd5 - 2>/dev/null"));
  std::vector<std::string> md5s;
  for (std::string line; std::getline(out, line);)
    if (!line.empty() && line[0] != '#') md5s.push_back(line.substr(line.rfind(',') + 1));
  for (std::string& m : md5s) m.erase(0, m.find_first_not_of(' '));
  return md5s;
}

inline double Seconds(const Fields& f) { return f.count("duration") ? std::atof(f.at("duration").c_str()) : -1; }

// Makes a stream in `dir` with ffmpeg when `args` are given (a path from '/' is taken as it is), then
// learns from ffprobe and ffmpeg what it holds. False when it is not what was asked for.
inline bool MakeStream(Stream& s, const std::string& dir, const std::string& file, const std::string& args,
                       bool bframes = false) {
  s.path = file[0] == '/' ? file : dir + "/" + file;
  const bool video = file.find(".h264") != std::string::npos;
  if (!args.empty() &&
      !Shell("ffmpeg -nostdin -v error -y " + args + (video ? " -f h264 " : " -c:a aac -f adts ") + s.path))
    return false;
  const Fields f = Probe(s.path)[video ? "video" : "audio"];
  s.frames = Count(f, video ? "nb_read_frames" : "nb_read_packets");
  std::tie(s.width, s.height, s.rate, s.channels) =
      std::make_tuple(Count(f, "width"), Count(f, "height"), Count(f, "sample_rate"), Count(f, "channels"));
  if (video)
    s.bframes =
        Capture("ffprobe -v error -show_entries frame=pict_type -of csv=p=0 " + s.path).find('B') != std::string::npos;
  s.md5 = video ? Decode(dir, s.path, true, false, false).video : Decode(dir, s.path, false, true, false).audio;
  return s.frames > 0 && s.bframes == bframes && !s.md5.empty();
}

// The units of an Annex-B stream, without their start codes (three or four bytes), and a unit's type.
inline std::vector<std::string> AnnexBUnits(const std::string& b) {
  std::vector<std::string> units;
  size_t start = std::string::npos;
  for (size_t i = 0; i + 3 <= b.size(); ++i) {
    if (b[i] != 0 || b[i + 1] != 0 || b[i + 2] != 1) continue;
    if (start != std::string::npos) units.push_back(b.substr(start, i - (b[i - 1] == 0 ? 1 : 0) - start));
    start = i + 3;
    i += 2;
  }
  if (start != std::string::npos) units.push_back(b.substr(start));
  return units;
}
inline unsigned UnitType(const std::string& unit) {
  return unit.empty() ? 0 : static_cast<unsigned char>(unit[0]) & 31u;
}

// The pictures of the test streams: 60 of 160x120 at 30 fps.
inline constexpr const char* kPictures = "-f lavfi -i testsrc2=size=160x120:rate=30 -frames:v 60 -pix_fmt yuv420p -c:v libx264 ";

}  // namespace generated
