// Recording streams that ffmpeg makes at test time, through the command-line host. Every file opens in
// ffprobe and decodes in ffmpeg to the very pictures and sound of its sources; chunk groups of the two
// tracks alternate in the file; spill lists and tables on file change no table of a long recording; each
// flavour writes its profile into the boxes; a JPEG beside the output lands in the thumbnail box.
// The files are read back here byte by byte, not through the plug-in's own parser.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/ToolRun.h"

namespace {

using Bytes = std::vector<unsigned char>;

// ---- reading a written file

uint64_t Be(const Bytes& b, size_t at, int n) {
  uint64_t v = 0;
  for (int i = 0; i < n; ++i) v = v << 8 | (at + i < b.size() ? b[at + i] : 0);
  return v;
}

// Hex digit pairs; 'text' stands for its characters, N*HH for N bytes of HH.
Bytes Hex(const std::string& s) {
  Bytes out;
  for (size_t i = 0; i < s.size();) {
    if (s[i] == '\'') {
      const size_t end = s.find('\'', i + 1);
      out.insert(out.end(), s.begin() + static_cast<long>(i) + 1, s.begin() + static_cast<long>(end));
      i = end + 1;
    } else if (std::isxdigit(static_cast<unsigned char>(s[i]))) {
      size_t n = 1;
      const size_t star = s.find('*', i);
      if (star != std::string::npos && star < s.find(' ', i)) {
        n = std::stoul(s.substr(i, star - i));
        i = star + 1;
      }
      const unsigned char v = static_cast<unsigned char>(std::stoul(s.substr(i, 2), nullptr, 16));
      out.insert(out.end(), n, v);
      i += 2;
    } else {
      ++i;
    }
  }
  return out;
}

struct Box {
  std::string type;  // empty: no such box
  size_t body = 0, end = 0;
};

std::vector<Box> Boxes(const Bytes& b, size_t from, size_t to) {
  std::vector<Box> out;
  while (from + 8 <= to) {
    uint64_t size = Be(b, from, 4);
    size_t head = 8;
    if (size == 1) {
      size = Be(b, from + 8, 8);
      head = 16;
    }
    if (size < head || from + size > to) break;
    out.push_back({std::string(b.begin() + static_cast<long>(from) + 4, b.begin() + static_cast<long>(from) + 8),
                   from + head, static_cast<size_t>(from + size)});
    from += static_cast<size_t>(size);
  }
  return out;
}

// Sample descriptions and their entries carry fields ahead of their children.
std::vector<Box> Kids(const Bytes& b, const Box& x) {
  size_t at = x.body;
  if (x.type == "stsd") at += 8;
  if (x.type == "avc1") at += 78;
  if (x.type == "mp4a") {
    const uint64_t version = Be(b, x.body + 8, 2);
    at += version == 2 ? 64 : version == 1 ? 44 : 28;
  }
  return x.type.empty() ? std::vector<Box>() : Boxes(b, at, x.end);
}

// The box at a path of codes ("mdia/minf/stbl") below `from`.
Box Find(const Bytes& b, Box from, const std::string& path) {
  std::istringstream parts(path);
  std::string code;
  while (std::getline(parts, code, '/')) {
    Box next;
    for (const Box& k : Kids(b, from))
      if (k.type == code) {
        next = k;
        break;
      }
    if (next.type.empty()) return Box();
    from = next;
  }
  return from;
}

struct Movie {
  explicit Movie(const std::string& path) {
    const std::string s = ReadWhole(path);
    b.assign(s.begin(), s.end());
    root = {"file", 0, b.size()};
  }
  // The trak whose media handler is "vide" or "soun".
  Box Track(const std::string& handler) const {
    for (const Box& t : Kids(b, Find(b, root, "moov"))) {
      const Box h = Find(b, t, "mdia/hdlr");
      if (t.type == "trak" && !h.type.empty() &&
          std::string(b.begin() + static_cast<long>(h.body) + 8, b.begin() + static_cast<long>(h.body) + 12) == handler)
        return t;
    }
    return Box();
  }
  Box Table(const std::string& handler, const std::string& code) const {
    return Find(b, Track(handler), "mdia/minf/stbl/" + code);
  }
  // The bodies of the sample tables of a track, by code.
  std::map<std::string, Bytes> Tables(const std::string& handler) const {
    static const std::set<std::string> kTables = {"stts", "ctts", "stsc", "stsz", "stco", "co64", "stss"};
    std::map<std::string, Bytes> out;
    for (const Box& t : Kids(b, Find(b, Track(handler), "mdia/minf/stbl")))
      if (kTables.count(t.type))
        out[t.type] = Bytes(b.begin() + static_cast<long>(t.body), b.begin() + static_cast<long>(t.end));
    return out;
  }
  std::vector<uint64_t> ChunkOffsets(const std::string& handler) const {
    std::vector<uint64_t> out;
    Box t = Table(handler, "stco");
    const int width = t.type.empty() ? 8 : 4;
    if (t.type.empty()) t = Table(handler, "co64");
    const uint64_t n = Be(b, t.body + 4, 4);
    for (uint64_t i = 0; i < n && t.body + 8 + (i + 1) * width <= t.end; ++i)
      out.push_back(Be(b, t.body + 8 + i * width, width));
    return out;
  }
  // Samples of each chunk, as "stsc" gives them for the chunks of "stco".
  std::vector<uint64_t> ChunkSamples(const std::string& handler) const {
    const size_t chunks = ChunkOffsets(handler).size();
    const Box t = Table(handler, "stsc");
    const uint64_t n = Be(b, t.body + 4, 4);
    std::vector<uint64_t> out;
    for (uint64_t i = 0; i < n; ++i) {
      const size_t at = t.body + 8 + i * 12;
      const uint64_t next = i + 1 < n ? Be(b, at + 12, 4) : chunks + 1;
      for (uint64_t c = Be(b, at, 4); c < next && out.size() < chunks; ++c) out.push_back(Be(b, at + 4, 4));
    }
    return out;
  }
  uint64_t SampleCount(const std::string& handler) const { return Be(b, Table(handler, "stsz").body + 8, 4); }

  Bytes b;
  Box root;
};

// ---- the sources and the oracles

struct Stream {
  std::string path;
  long long frames = 0;  // pictures, or AAC frames
  int width = 0, height = 0;
  bool bframes = false;
  int rate = 0, channels = 0;
  std::string md5;  // of what ffmpeg decodes from it
};

// The AAC frames of an ADTS file and the rate and channels of the first.
bool CountAdts(Stream& s) {
  static const int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000};
  const std::string d = ReadWhole(s.path);
  const auto* p = reinterpret_cast<const unsigned char*>(d.data());
  for (size_t at = 0; at + 7 <= d.size(); ++s.frames) {
    if (p[at] != 0xFF || (p[at + 1] & 0xF0) != 0xF0) return false;
    if (at == 0) {
      const int index = (p[2] >> 2) & 15;
      s.rate = index < 12 ? kRates[index] : 0;
      s.channels = (p[2] & 1) << 2 | p[3] >> 6;
    }
    const size_t length = static_cast<size_t>((p[at + 3] & 3) << 11 | p[at + 4] << 3 | p[at + 5] >> 5);
    if (length < 7) return false;
    at += length;
  }
  return s.frames > 0;
}

struct Decoded {
  int status = -1;
  std::string errors;        // what ffmpeg said at error level, less what the caller allows
  std::string video, audio;  // md5 of the decoded pictures and sound
};

// Decodes every picture and every sound frame. Pictures keep their decoding count (no frame dropped
// or repeated for timing). A B-frame track carries a fixed pattern of composition offsets, so the
// pictures come out with repeated time stamps: the raw writer's notes about them are allowed there.
Decoded Decode(const std::string& dir, const std::string& file, bool video, bool audio, bool bframes) {
  const std::string v = dir + "/decoded_v", a = dir + "/decoded_a", e = dir + "/decoded_err";
  std::string cmd = "ffmpeg -nostdin -v error -xerror -i " + file;
  if (video) cmd += " -map 0:v -fps_mode passthrough -f rawvideo -y " + v;
  if (audio) cmd += " -map 0:a -f s16le -y " + a;
  cmd += " 2>" + e + "; echo $?";
  if (video) cmd += "; md5sum <" + v;
  if (audio) cmd += "; md5sum <" + a;
  std::istringstream out(Capture(cmd));
  Decoded d;
  std::string line;
  if (std::getline(out, line)) d.status = std::atoi(line.c_str());
  if (video && std::getline(out, line)) d.video = line.substr(0, 32);
  if (audio && std::getline(out, line)) d.audio = line.substr(0, 32);
  std::istringstream err(ReadWhole(e));
  while (std::getline(err, line))
    if (!(bframes && line.find("non monotonically increasing dts to muxer") != std::string::npos))
      d.errors += line + "\n";
  Shell("rm -f " + v + " " + a + " " + e);
  return d;
}

using Fields = std::map<std::string, std::string>;

// ffprobe's view of each stream, frames counted by decoding.
std::map<std::string, Fields> Probe(const std::string& file) {
  std::istringstream out(
      Capture("ffprobe -v error -count_frames -show_entries stream=codec_type,width,height,"
              "nb_read_frames,duration,sample_rate,channels,color_primaries,color_range -of default " +
              file));
  std::map<std::string, Fields> streams;
  Fields f;
  std::string line;
  while (std::getline(out, line)) {
    const size_t eq = line.find('=');
    if (line == "[/STREAM]") streams[f["codec_type"]] = f;
    if (line == "[STREAM]") f.clear();
    if (eq != std::string::npos) f[line.substr(0, eq)] = line.substr(eq + 1);
  }
  return streams;
}

double Seconds(const Fields& f) { return f.count("duration") ? std::atof(f.at("duration").c_str()) : -1; }
long long Count(const Fields& f, const char* key) { return f.count(key) ? std::atoll(f.at(key).c_str()) : -1; }

// ---- the fixture: sources made once a run

class GeneratedRecord : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!Shell("command -v ffmpeg") || !Shell("command -v ffprobe")) {
      why_ = "ffmpeg or ffprobe is not installed";
      return;
    }
    std::string tmp = ::testing::TempDir();
    if (!tmp.empty() && tmp.back() == '/') tmp.pop_back();
    dir_ = tmp + "/bw_generated_" + std::to_string(::getpid());
    Shell("rm -rf " + dir_ + " && mkdir -p " + dir_ + "/tmp");
    const std::string pictures =
        "-f lavfi -i testsrc2=size=160x120:rate=30 -frames:v 60 -pix_fmt yuv420p -c:v libx264 ";
    if (!Video(bframes_, "bframes", pictures + "-preset ultrafast -bf 2 -g 30", 160, 120, true) ||
        !Video(baseline_, "baseline", pictures + "-profile:v baseline -bf 0 -g 30", 160, 120, false)) {
      why_ = "ffmpeg cannot encode H.264 with and without B-frames through libx264";
      return;
    }
    if (!Audio(stereo48_, "stereo48", "-f lavfi -i sine=frequency=440:sample_rate=48000 -t 2 -ac 2 -b:a 96k") ||
        !Audio(mono44_, "mono44", "-f lavfi -i sine=frequency=330:sample_rate=44100 -t 2 -ac 1 -b:a 64k")) {
      why_ = "ffmpeg cannot encode AAC";
      return;
    }
    ready_ = true;
  }
  static void TearDownTestSuite() {
    if (!dir_.empty()) Shell("rm -rf " + dir_);
  }
  void SetUp() override {
    if (!ready_) GTEST_SKIP() << why_;
  }

  // An H.264 stream, with B-frames or without as wanted.
  static bool Video(Stream& s, const std::string& name, const std::string& args, int w, int h, bool bframes) {
    s.path = dir_ + "/" + name + ".h264";
    s.width = w;
    s.height = h;
    if (!Shell("ffmpeg -nostdin -v error -y " + args + " -f h264 " + s.path)) return false;
    const std::string types = Capture("ffprobe -v error -show_entries frame=pict_type -of csv=p=0 " + s.path);
    std::istringstream lines(types);
    std::string type;
    s.frames = 0;
    s.bframes = false;
    while (std::getline(lines, type)) {
      s.frames += !type.empty() && std::strchr("IPB", type[0]);
      s.bframes |= !type.empty() && type[0] == 'B';
    }
    s.md5 = Decode(dir_, s.path, true, false, false).video;
    return s.frames > 0 && s.bframes == bframes && !s.md5.empty();
  }
  static bool Audio(Stream& s, const std::string& name, const std::string& args) {
    s.path = dir_ + "/" + name + ".aac";
    if (!Shell("ffmpeg -nostdin -v error -y " + args + " -c:a aac -f adts " + s.path) || !CountAdts(s)) return false;
    s.md5 = Decode(dir_, s.path, false, true, false).audio;
    return !s.md5.empty();
  }

  static ToolResult Record(const std::string& out, const Stream& v, const Stream& a, const std::string& extra = "") {
    return RunTool("record -o " + dir_ + "/" + out + " --video " + v.path + " --audio " + a.path + " --tmp " + dir_ +
                   "/tmp " + extra);
  }

  // A recording with chunk groups: the counts, the lengths and the order of the chunks in the file.
  struct Grouped {
    const Stream* video;
    const Stream* audio;
    unsigned vspc, aspc;  // video samples a chunk; audio samples (PCM) a chunk
    bool audioFirst;
    std::string file, extra;
  };
  void CheckGrouped(const Grouped& c) {
    SCOPED_TRACE(c.file);
    const ToolResult r = Record(c.file, *c.video, *c.audio,
                                "--set videosampleperchunk=" + std::to_string(c.vspc) +
                                    " --set audiosampleperchunk=" + std::to_string(c.aspc) +
                                    " --set audio_chunk_first=" + (c.audioFirst ? "1 " : "0 ") + c.extra);
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string path = dir_ + "/" + c.file;
    const Movie m(path);
    const double fps = 30, rate = c.audio->rate, frame = 1024 / rate;

    // Video ends on a whole group; audio ends at the video's length, give or take a chunk.
    const long long pictures = c.video->frames / c.vspc * c.vspc;
    EXPECT_EQ(m.SampleCount("vide"), static_cast<uint64_t>(pictures));
    std::map<std::string, Fields> p = Probe(path);
    EXPECT_EQ(Count(p["video"], "nb_read_frames"), pictures);
    EXPECT_NEAR(Seconds(p["video"]), pictures / fps, 1 / fps);
    const long long frames = static_cast<long long>(m.SampleCount("soun"));
    EXPECT_LE(frames, c.audio->frames);
    EXPECT_EQ(Count(p["audio"], "nb_read_frames"), frames);
    EXPECT_NEAR(Seconds(p["audio"]), frames * frame, frame);
    EXPECT_NEAR(Seconds(p["audio"]), Seconds(p["video"]), c.aspc / rate) << "audio as long as the video";
    const Decoded d = Decode(dir_, path, true, true, c.video->bframes);
    EXPECT_EQ(d.status, 0);
    EXPECT_EQ(d.errors, "");

    // The chunks interleave, the leader's first: a follower chunk goes out once the leader has passed
    // its time, so each leader chunk is followed by as many follower chunks as fit in its length (one
    // when both are as long: they alternate). Only Close may leave more behind: what the queues still
    // hold, up to two video chunks, then up to three audio chunks.
    std::map<uint64_t, char> order;
    for (uint64_t o : m.ChunkOffsets("vide")) order[o] = 'V';
    for (uint64_t o : m.ChunkOffsets("soun")) order[o] = 'A';
    std::string seq;
    for (const auto& o : order) seq += o.second;
    const char lead = c.audioFirst ? 'A' : 'V', follow = c.audioFirst ? 'V' : 'A';
    const double videoChunk = c.vspc / fps, audioChunk = c.aspc / rate;
    const double ratio = c.audioFirst ? audioChunk / videoChunk : videoChunk / audioChunk;
    ASSERT_GE(ratio, 1.0) << "the cases give the leader the longer chunks";
    const size_t maxRun = static_cast<size_t>(std::ceil(ratio - 1e-9));
    ASSERT_GT(seq.size(), 4u);
    EXPECT_EQ(seq[0], lead) << seq;
    std::string body = seq;
    for (int k = 0; k < 3 && !body.empty() && body.back() == 'A'; ++k) body.pop_back();
    for (int k = 0; k < 2 && !body.empty() && body.back() == 'V'; ++k) body.pop_back();
    EXPECT_EQ(body.find(std::string(2, lead)), std::string::npos) << seq;
    EXPECT_EQ(body.find(std::string(maxRun + 1, follow)), std::string::npos) << seq;

    // Every video chunk holds its group; audio chunks hold whole frames, so many that after k chunks
    // the track has k times the samples asked for, rounded up to a frame.
    const std::vector<uint64_t> vs = m.ChunkSamples("vide"), as = m.ChunkSamples("soun");
    ASSERT_FALSE(vs.empty());
    ASSERT_FALSE(as.empty());
    for (size_t k = 0; k + 1 < vs.size(); ++k) EXPECT_EQ(vs[k], c.vspc) << "video chunk " << k;
    EXPECT_LE(vs.back(), c.vspc);
    uint64_t total = 0;
    for (size_t k = 0; k + 1 < as.size(); ++k) {
      total += as[k];
      EXPECT_EQ(total, uint64_t{c.aspc} * (k + 1) / 1024 + 1) << "audio chunk " << k;
    }
    EXPECT_LE(total + as.back(), uint64_t{c.aspc} * as.size() / 1024 + 1);
  }

  static std::string dir_, why_;
  static bool ready_;
  static Stream bframes_, baseline_, stereo48_, mono44_;
};

std::string GeneratedRecord::dir_, GeneratedRecord::why_;
bool GeneratedRecord::ready_ = false;
Stream GeneratedRecord::bframes_, GeneratedRecord::baseline_, GeneratedRecord::stereo48_, GeneratedRecord::mono44_;

TEST_F(GeneratedRecord, EveryStreamInBothFlavoursDecodesToItsSource) {
  struct Case {
    const Stream* video;
    const Stream* audio;
  } cases[] = {{&bframes_, &stereo48_}, {&baseline_, &mono44_}};
  for (const Case& c : cases) {
    for (const char* ext : {"mov", "mp4"}) {
      const std::string file = "whole_" + std::to_string(c.audio->rate) + "." + ext, path = dir_ + "/" + file;
      SCOPED_TRACE(file);
      const ToolResult r = Record(file, *c.video, *c.audio);
      ASSERT_EQ(r.status, 0) << r.err;
      std::map<std::string, Fields> p = Probe(path);
      ASSERT_EQ(p.size(), 2u) << "ffprobe opens the file with both tracks";
      Fields& v = p["video"];
      EXPECT_EQ(Count(v, "width"), c.video->width);
      EXPECT_EQ(Count(v, "height"), c.video->height);
      EXPECT_EQ(Count(v, "nb_read_frames"), c.video->frames);
      EXPECT_NEAR(Seconds(v), c.video->frames / 30.0, 1 / 30.0);
      Fields& a = p["audio"];
      const double frame = 1024.0 / c.audio->rate;
      EXPECT_EQ(Count(a, "sample_rate"), c.audio->rate);
      EXPECT_EQ(Count(a, "channels"), c.audio->channels);
      EXPECT_EQ(Count(a, "nb_read_frames"), c.audio->frames);
      EXPECT_NEAR(Seconds(a), c.audio->frames * frame, frame);

      const Decoded d = Decode(dir_, path, true, true, c.video->bframes);
      EXPECT_EQ(d.status, 0);
      EXPECT_EQ(d.errors, "");
      EXPECT_EQ(d.video, c.video->md5) << "the pictures of the source";
      EXPECT_EQ(d.audio, c.audio->md5) << "the sound of the source";
      // Composition offsets exactly when the stream has B-frames.
      EXPECT_EQ(Movie(path).Table("vide", "ctts").type.empty(), !c.video->bframes);
    }
  }
}

TEST_F(GeneratedRecord, ChunkGroupsOfBothTracksAlternateTheLeaderFirst) {
  const Grouped cases[] = {
      {&bframes_, &stereo48_, 3, 4800, false, "groups_v3_a4800.mov", ""},
      {&bframes_, &stereo48_, 8, 12800, true, "groups_v8_a12800_audiofirst.mov", ""},  // 4 pictures left out
      {&baseline_, &mono44_, 4, 5880, false, "groups_v4_a5880_files.mp4", "--table-files"},
      {&baseline_, &mono44_, 4, 5880, true, "groups_v4_a5880_audiofirst.mp4", ""},
  };
  for (const Grouped& c : cases) CheckGrouped(c);
}

// A following track with short chunks gets more packets than its queue of two chunks holds before the
// leader writes its next chunk; none of them may be lost.
TEST_F(GeneratedRecord, AFollowerOutpacedByItsLeaderKeepsItsFrames) {
  const Grouped cases[] = {
      {&baseline_, &stereo48_, 7, 3072, false, "outpaced_audio.mov", ""},
      {&baseline_, &stereo48_, 2, 12000, true, "outpaced_video.mov", ""},
  };
  for (const Grouped& c : cases) CheckGrouped(c);
}

TEST_F(GeneratedRecord, LongRecordingsKeepTheirTablesWithSpillListsAndTableFiles) {
  // More than 4095 samples in each track, so that the sample lists spill.
  Stream video, audio;
  ASSERT_TRUE(Video(video, "long",
                    "-f lavfi -i testsrc2=size=64x64:rate=30 -frames:v 4200 -pix_fmt yuv420p -c:v libx264 "
                    "-preset ultrafast -bf 2 -g 60",
                    64, 64, true));
  ASSERT_TRUE(Audio(audio, "long", "-f lavfi -i sine=frequency=300:sample_rate=48000 -t 140 -ac 1 -b:a 24k"));
  ASSERT_GT(audio.frames, 4095);

  const std::string groups = " --set videosampleperchunk=4 --set audiosampleperchunk=4096";
  struct Case {
    const char* file;
    std::string args;
    const char* same;  // the recording whose tables and sound it must have
  } cases[] = {
      {"plain.mov", "", nullptr},
      {"spill.mov", "--spill", "plain.mov"},
      {"files.mov", "--table-files", "plain.mov"},
      {"both.mov", "--spill --table-files", "plain.mov"},
      {"grouped.mp4", groups, nullptr},
      {"grouped_both.mp4", groups + " --spill --table-files", "grouped.mp4"},
  };
  std::map<std::string, Decoded> decoded;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    const ToolResult r = Record(c.file, video, audio, c.args);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err.find("|E|"), std::string::npos) << r.err;
    const Movie m(dir_ + "/" + c.file);
    EXPECT_EQ(m.SampleCount("vide"), 4200u);
    EXPECT_GT(m.SampleCount("soun"), 4095u);
    if (c.same) {
      const Movie plain(dir_ + "/" + c.same);
      for (const char* handler : {"vide", "soun"}) {
        const auto tables = m.Tables(handler);
        EXPECT_EQ(tables.size(), std::string(handler) == "vide" ? 6u : 4u);
        EXPECT_TRUE(tables == plain.Tables(handler)) << handler << " tables differ";
      }
    }
    const Decoded& d = decoded[c.file] = Decode(dir_, dir_ + "/" + c.file, true, true, true);
    EXPECT_EQ(d.status, 0);
    EXPECT_EQ(d.errors, "");
    EXPECT_EQ(d.video, video.md5) << "every picture of the source";
    if (c.same) {
      EXPECT_EQ(d.audio, decoded[c.same].audio) << "the sound of " << c.same;
    }
    if (c.args.empty()) {
      EXPECT_EQ(d.audio, audio.md5) << "all of the sound";
    }
  }
  EXPECT_EQ(Capture("ls -A " + dir_ + "/tmp"), "") << "temporary files left behind";

  // The temporary files go where --tmp says, so the empty directory above means something: a directory
  // that is missing is named in the failures, spill lists of both tracks, and the video's tables.
  const struct {
    const char* option;
    const char* names[2];
  } probes[] = {{"--spill", {"/h264.", "/mp4a."}}, {"--table-files", {"/stts.h264.", "/stsz.h264."}}};
  for (const auto& probe : probes) {
    const ToolResult r = RunTool("record -o " + dir_ + "/nowhere.mov --video " + video.path + " --audio " + audio.path +
                                 " --tmp " + dir_ + "/missing " + probe.option);
    for (const char* name : probe.names)
      EXPECT_NE(r.err.find(dir_ + "/missing" + name), std::string::npos) << probe.option << "\n" << r.err;
  }
}

TEST_F(GeneratedRecord, EachFlavourWritesItsProfileIntoTheBoxes) {
  // Where a box is missing, want is "-"; "[a b]" lists its children; else bytes from `at` in its body,
  // and from 0 the whole body.
  struct Row {
    const char* ext;
    const char* handler;  // "" for the top of the file
    const char* path;
    size_t at;
    const char* want;
  } rows[] = {
      {"mov", "", "ftyp", 0, "'qt  ' 00000000 'qt  ' 00000000"},
      {"mp4", "", "ftyp", 0, "'mp42' 00000001 'mp42' 00000000"},
      {"mov", "vide", "tkhd", 1, "00000f"},
      {"mov", "soun", "tkhd", 1, "00000f"},
      {"mp4", "vide", "tkhd", 1, "000001"},
      {"mp4", "soun", "tkhd", 1, "000001"},
      {"mov", "vide", "edts", 0, "-"},
      {"mp4", "vide", "edts", 0, "-"},
      {"mov", "vide", "mdia/hdlr", 0, "00000000 'mhlr' 'vide' 'quor' 00000000 00000000 0e 'Video Handler' 00"},
      {"mov", "vide", "mdia/minf/hdlr", 0,
       "00000000 'dhlr' 'alis' 00000000 00000000 00000000 20 'Quorel Alias Data Handler' 7*00"},
      {"mov", "soun", "mdia/hdlr", 0, "00000000 'mhlr' 'soun' 'quor' 00000000 00000000 0e 'Audio Handler' 00"},
      {"mov", "soun", "mdia/minf/hdlr", 0,
       "00000000 'dhlr' 'alis' 00000000 00000000 00000000 18 'Quor Alias Data Handler' 00"},
      {"mp4", "vide", "mdia/hdlr", 0, "00000000 00000000 'vide' 00000000 00000000 00000000 01 00"},
      {"mp4", "soun", "mdia/hdlr", 0, "00000000 00000000 'soun' 00000000 00000000 00000000 01 00"},
      {"mp4", "vide", "mdia/minf/hdlr", 0, "-"},
      {"mp4", "soun", "mdia/minf/hdlr", 0, "-"},
      // Vendor and qualities, then the compressor name, counted in 32 bytes.
      {"mov", "vide", "mdia/minf/stbl/stsd/avc1", 12, "'quor' 00000200 00000200"},
      {"mp4", "vide", "mdia/minf/stbl/stsd/avc1", 12, "00000000 00000000 00000000"},
      {"mov", "vide", "mdia/minf/stbl/stsd/avc1", 42, "20 'Quorel AVCC' 20*00"},
      {"mp4", "vide", "mdia/minf/stbl/stsd/avc1", 42, "20 'AVC CodingC' 20*00"},
      {"mov", "vide", "mdia/minf/stbl/stsd/avc1/colr", 0, "-"},
      {"mp4", "vide", "mdia/minf/stbl/stsd/avc1/colr", 0, "'nclx' 0001 0001 0001 80"},
      // The plain sound entry in both: the element of the mov flavour leaves the profile's file type
      // unset, and the other form is for QuickTime files of three channels or more.
      {"mov", "soun", "mdia/minf/stbl/stsd/mp4a", 0, "[esds]"},
      {"mp4", "soun", "mdia/minf/stbl/stsd/mp4a", 0, "[esds]"},
      {"mov", "soun", "mdia/minf/stbl/stsd/mp4a", 8, "0000 0000 00000000 0002 0010 0000 0000 bb800000"},
      {"mp4", "soun", "mdia/minf/stbl/stsd/mp4a", 8, "0000 0000 00000000 0002 0010 0000 0000 bb800000"},
      // ES id and priority of each profile.
      {"mov", "soun", "mdia/minf/stbl/stsd/mp4a/esds", 4, "03 19 0002 1f 04 11 40 15 100000"},
      {"mp4", "soun", "mdia/minf/stbl/stsd/mp4a/esds", 4, "03 19 0000 00 04 11 40 15 100000"},
  };
  std::map<std::string, Movie> files;
  for (const char* ext : {"mov", "mp4"}) {
    const std::string file = std::string("profile.") + ext;
    const ToolResult r = Record(file, bframes_, stereo48_);
    ASSERT_EQ(r.status, 0) << r.err;
    files.emplace(ext, Movie(dir_ + "/" + file));
  }
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.ext) + " " + row.handler + " " + row.path);
    const Movie& m = files.at(row.ext);
    const Box box = Find(m.b, *row.handler ? m.Track(row.handler) : m.root, row.path);
    const std::string want = row.want;
    if (want == "-") {
      EXPECT_TRUE(box.type.empty());
      continue;
    }
    ASSERT_FALSE(box.type.empty());
    if (want[0] == '[') {
      std::string kids;
      for (const Box& k : Kids(m.b, box)) kids += (kids.empty() ? "" : " ") + k.type;
      EXPECT_EQ("[" + kids + "]", want);
      continue;
    }
    const Bytes expect = Hex(want);
    const size_t from = box.body + row.at, to = row.at ? std::min(box.end, from + expect.size()) : box.end;
    EXPECT_EQ(Bytes(m.b.begin() + static_cast<long>(from), m.b.begin() + static_cast<long>(to)), expect);
  }
  // A reader takes the colour box of the mp4 profile: BT.709, full range.
  std::map<std::string, Fields> p = Probe(dir_ + "/profile.mp4");
  EXPECT_EQ(p["video"]["color_primaries"], "bt709");
  EXPECT_EQ(p["video"]["color_range"], "pc");
}

TEST_F(GeneratedRecord, ThumbnailBesideTheOutputFillsTheReservation) {
  if (dir_.find('.') != std::string::npos) GTEST_SKIP() << "the JPEG's name ends at the first dot of " << dir_;
  const std::string jpeg = dir_ + "/thumbed.jpg";
  ASSERT_TRUE(Shell("ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=160x120 -frames:v 1 " + jpeg));
  const std::string image = ReadWhole(jpeg);
  ASSERT_GT(image.size(), 100u);
  ASSERT_EQ(Record("thumbed.mov", baseline_, mono44_, "--thumb").status, 0);
  ASSERT_EQ(Record("reserved.mp4", baseline_, mono44_, "--thumb").status, 0);
  ASSERT_EQ(Record("unasked.mp4", baseline_, mono44_).status, 0);

  const size_t n = image.size();
  const Movie with(dir_ + "/thumbed.mov"), without(dir_ + "/reserved.mp4"), unasked(dir_ + "/unasked.mp4");
  // The JPEG, then a free box for the rest of the reservation, at the end of moov and of the file.
  std::vector<Box> kids = Kids(with.b, Find(with.b, with.root, "moov"));
  ASSERT_GE(kids.size(), 2u);
  const Box thumb = kids[kids.size() - 2], rest = kids.back();
  EXPECT_EQ(thumb.type, "thum");
  EXPECT_EQ(std::string(with.b.begin() + static_cast<long>(thumb.body), with.b.begin() + static_cast<long>(thumb.end)),
            image);
  EXPECT_EQ(rest.type, "free");
  EXPECT_EQ(rest.end - thumb.end, 204800 - n);
  EXPECT_EQ(rest.end, with.b.size());
  // Without the JPEG the reservation stays: one zero-filled box.
  kids = Kids(without.b, Find(without.b, without.root, "moov"));
  ASSERT_FALSE(kids.empty());
  EXPECT_EQ(kids.back().type, "thum");
  EXPECT_EQ(Bytes(without.b.begin() + static_cast<long>(kids.back().body),
                  without.b.begin() + static_cast<long>(kids.back().end)),
            Bytes(204800, 0));
  for (const Box& k : Kids(unasked.b, Find(unasked.b, unasked.root, "moov"))) EXPECT_NE(k.type, "thum");
  // Readers pass over the box.
  for (const char* file : {"thumbed.mov", "reserved.mp4"}) {
    const Decoded d = Decode(dir_, dir_ + "/" + file, true, true, false);
    EXPECT_EQ(d.status, 0) << file;
    EXPECT_EQ(d.errors, "") << file;
    EXPECT_EQ(d.video, baseline_.md5) << file;
  }
}

}  // namespace
