// Recording every codec the command-line host reads, from the bundled samples and streams that
// ffmpeg makes at test time, judged by ffprobe and ffmpeg, and played back. The files are read back
// byte by byte, not through the plug-in's parser.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/GeneratedMedia.h"
#include "tests/MuxTestUtil.h"
#include "tests/ToolRun.h"
#include "tools/SrtReader.h"

namespace {

using namespace muxtest;
using namespace generated;

// Children; sample descriptions and their entries carry fields ahead of theirs.
std::vector<BoxAt> Kids(const Bytes& b, const BoxAt& x) {
  const uint16_t version = Be16(b, x.body() + 8);
  const size_t skip = x.type == "stsd" ? 8 : x.type == "avc1" ? 78 : x.type != "mp4a" ? 0 : version == 2 ? 64
                      : version == 1 ? 44 : 28;
  return x.type.empty() ? std::vector<BoxAt>() : Boxes(b, x.body() + skip, x.end());
}

// The box at a path of codes ("mdia/minf/stbl") below `x`; without a type when there is none.
BoxAt Find(const Bytes& b, BoxAt x, const std::string& path) {
  std::istringstream parts(path);
  for (std::string code; !x.type.empty() && std::getline(parts, code, '/');) {
    const auto k = OfType(Kids(b, x), code);
    x = k.empty() ? BoxAt() : k[0];
  }
  return x;
}

struct Movie {
  explicit Movie(const std::string& path) : b(ReadFile(path)), root{"file", 0, b.size(), 0} {}
  // The trak whose media handler is "vide" or "soun".
  BoxAt Track(const std::string& handler) const {
    for (const BoxAt& t : OfType(Kids(b, Find(b, root, "moov")), "trak")) {
      const BoxAt h = Find(b, t, "mdia/hdlr");
      if (!h.type.empty() && Code(b, h.body() + 8) == handler) return t;
    }
    return BoxAt();
  }
  BoxAt Table(const std::string& h, const std::string& code) const { return Find(b, Track(h), "mdia/minf/stbl/" + code); }
  // The bodies of the sample tables of a track, by code.
  std::map<std::string, Bytes> Tables(const std::string& handler) const {
    std::map<std::string, Bytes> out;
    for (const BoxAt& t : Kids(b, Find(b, Track(handler), "mdia/minf/stbl")))
      if (std::string(" stts ctts stsc stsz stco co64 stss ").find(" " + t.type + " ") != std::string::npos)
        out[t.type] = Slice(b, t.body(), t.end() - t.body());
    return out;
  }
  std::vector<uint64_t> ChunkOffsets(const std::string& handler) const {
    BoxAt t = Table(handler, "stco");
    const size_t width = t.type.empty() ? 8 : 4;
    if (t.type.empty()) t = Table(handler, "co64");
    std::vector<uint64_t> out;
    for (size_t at = t.body() + 8; out.size() < Be32(b, t.body() + 4) && at + width <= t.end(); at += width)
      out.push_back(width == 4 ? Be32(b, at) : Be64(b, at));
    return out;
  }
  // Samples of each chunk, as "stsc" gives them for the chunks of "stco".
  std::vector<uint64_t> ChunkSamples(const std::string& handler) const {
    const size_t chunks = ChunkOffsets(handler).size();
    const BoxAt t = Table(handler, "stsc");
    std::vector<uint64_t> out;
    for (uint64_t i = 0, n = Be32(b, t.body() + 4); i < n; ++i) {
      const size_t at = t.body() + 8 + i * 12;
      const uint64_t next = i + 1 < n ? Be32(b, at + 12) : chunks + 1;
      for (uint64_t c = Be32(b, at); c < next && out.size() < chunks; ++c) out.push_back(Be32(b, at + 4));
    }
    return out;
  }
  uint64_t SampleCount(const std::string& handler) const { return Be32(b, Table(handler, "stsz").body() + 8); }
  Bytes b;
  BoxAt root;
};


// ---- sources, made on first use: each test process makes only those it records

struct Source : Stream {
  std::string record, codec;  // the record options that take it; its codec as ffprobe names it
  double fps = 0, seconds = 0;  // of pictures; of PCM sound
  std::string input;            // what ffmpeg must be told to read it
};

struct Scratch {
  std::string dir, why;
};
const Scratch& Here() {
  static const Scratch s = [] {
    Scratch s;
    s.dir = ScratchDir("bw_record_", s.why);
    if (!s.dir.empty()) Shell("mkdir -p " + s.dir + "/tmp");
    return s;
  }();
  return s;
}

constexpr const char* kSrt =
    "1\n00:00:00,300 --> 00:00:00,900\nFirst cue\n\n"
    "2\n00:00:00,900 --> 00:00:01,250\nSecond, right behind\nover two lines\n\n"
    "3\n00:00:01,600 --> 00:00:01,900\nGPS 48.1371 N 11.5754 E \xC2\xB0\n";

// The cues of a SubRip text, or one cue that tells why it did not parse, as text to compare.
std::string Cues(const std::string& text) {
  std::vector<boxweave::SrtCue> cues;
  std::string why, s;
  if (!boxweave::ParseSrt(text, cues, why)) return why;
  for (const auto& c : cues) s += std::to_string(c.start) + "-" + std::to_string(c.end) + " '" + c.text + "'\n";
  return s;
}

// A source by name; its md5 is empty when ffmpeg could not make it.
const Source& Src(const std::string& name) {
  static std::map<std::string, Source> made;
  if (made.count(name)) return made[name];
  const std::string pictures = kPictures, samples = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/";
  const std::string x265 = " -pix_fmt yuv420p -c:v libx265 -x265-params log-level=none";
  const struct {
    const char *name, *file;
    std::string make, record, input;
    double fps, seconds;
  } recipes[] = {
      {"h264b", "bframes.h264", pictures + "-preset ultrafast -bf 2 -g 30 -f h264", "", "", 30, 0},
      {"h264", "baseline.h264", pictures + "-profile:v baseline -bf 0 -g 30 -f h264", "", "", 30, 0},
      {"sample.h264", "", "", "", "", 30, 0},
      // An odd size, so that the picture size comes through the conformance window.
      {"hevc", "plain.h265", "-f lavfi -i testsrc2=size=162x122:rate=30 -frames:v 45" + x265 + ":info=0:bframes=0 -f hevc",
       "", "", 30, 0},
      {"hevcb", "bframes.h265", "-f lavfi -i testsrc2=size=160x120:rate=30 -frames:v 60" + x265 + ":info=0 -f hevc", "", "",
       30, 0},
      // The encoder's SEI stands in front of the first picture.
      {"hevcsei", "sei.h265", "-f lavfi -i testsrc2=size=160x120:rate=30 -frames:v 20" + x265 + ":bframes=0 -f hevc", "",
       "", 30, 0},
      {"mjpeg", "pictures.mjpeg", "-f lavfi -i testsrc2=size=160x120:rate=25 -frames:v 50 -c:v mjpeg -q:v 4 -f mjpeg",
       "--fps 25", "", 25, 0},
      {"aac48", "stereo48.aac", "-f lavfi -i sine=frequency=440:sample_rate=48000 -t 2 -ac 2 -b:a 96k -c:a aac -f adts", "",
       "", 0, 0},
      {"aac44", "mono44.aac", "-f lavfi -i sine=frequency=330:sample_rate=44100 -t 2 -ac 1 -b:a 64k -c:a aac -f adts", "",
       "", 0, 0},
      {"sample.aac", "", "", "", "", 0, 0},
      {"wav48", "stereo48.wav", "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 -ac 2 -c:a pcm_s16le", "", "",
       0, 2},
      {"raw16", "mono16.s16le", "-f lavfi -i sine=frequency=300:sample_rate=16000:duration=2 -ac 1 -f s16le",
       "--audio-format s16le:16000:1", "-f s16le -ar 16000 -ac 1", 0, 2},
      // More than 4095 samples in each track, so that the sample lists spill.
      {"long.h264", "long.h264",
       "-f lavfi -i testsrc2=size=64x64:rate=30 -frames:v 4200 -pix_fmt yuv420p -c:v libx264 -preset ultrafast -bf 2 "
       "-g 60 -f h264", "", "", 30, 0},
      {"long.aac", "long.aac", "-f lavfi -i sine=frequency=300:sample_rate=48000 -t 140 -ac 1 -b:a 24k -c:a aac -f adts", "",
       "", 0, 0},
  };
  Source& s = made[name];
  const std::string& dir = Here().dir;
  for (const auto& r : recipes) {
    if (name != r.name || dir.empty()) continue;
    s.path = *r.file ? dir + "/" + r.file : samples + r.name;
    std::tie(s.record, s.input, s.fps, s.seconds) = std::make_tuple(r.record, r.input, r.fps, r.seconds);
    if (!r.make.empty() && !Shell("ffmpeg -nostdin -v error -y " + r.make + " " + s.path)) break;
    const bool video = s.fps > 0;
    s.codec = Capture("ffprobe -v error " + s.input + " -show_entries stream=codec_name -of csv=p=0 " + s.path);
    if (!s.codec.empty()) s.codec.pop_back();
    if (s.input.empty()) {
      const Fields f = Probe(s.path)[video ? "video" : "audio"];
      s.frames = Count(f, video ? "nb_read_frames" : "nb_read_packets");
      std::tie(s.width, s.height, s.rate, s.channels) =
          std::make_tuple(Count(f, "width"), Count(f, "height"), Count(f, "sample_rate"), Count(f, "channels"));
    } else {
      std::tie(s.rate, s.channels) = std::make_tuple(16000, 1);
    }
    s.bframes = video && Capture("ffprobe -v error -show_entries frame=pict_type -of csv=p=0 " + s.path).find('B') !=
                             std::string::npos;
    const Decoded d = DecodeWith(dir, s.path, video, !video, false, s.input);
    s.md5 = video ? d.video : d.audio;
  }
  return s;
}

// The md5s of what a source decodes to, or a skip when ffmpeg could not make it.
#define NEED(source)                                                                      \
  if (Src(source).md5.empty()) GTEST_SKIP() << "ffmpeg cannot make " << source << ": " << Here().why

// ---- every codec alone and together, in both flavours

struct Case {
  const char* file;           // name and flavour of the recording
  const char *video, *audio;  // sources, or none
  bool text;
  const char* extra;  // more record options; "--tmp" gets the scratch folder
  const char* warns;  // the warning record gives, or none
};

class RecordCodecs : public ::testing::TestWithParam<Case> {};

TEST_P(RecordCodecs, DecodeAsTheSourcesAndPlayBack) {
  const Case& c = GetParam();
  if (c.video) NEED(c.video);
  if (c.audio) NEED(c.audio);
  const Source* v = c.video ? &Src(c.video) : nullptr;
  const Source* a = c.audio ? &Src(c.audio) : nullptr;
  const std::string d = Here().dir, out = d + "/" + c.file, base = out.substr(0, out.rfind('.'));
  std::string args = "record -o " + out, extra = c.extra;
  if (v) args += " --video " + v->path + " " + v->record;
  if (a) args += " --audio " + a->path + " " + a->record;
  if (c.text) {
    std::ofstream(d + "/cues.srt") << kSrt;
    args += " --text " + d + "/cues.srt";
  }
  if (extra.find("--tmp") != std::string::npos) extra.insert(extra.find("--tmp") + 5, " " + d + "/tmp");
  const ToolResult r = RunTool(args + " " + extra);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("fileClose duration="), std::string::npos) << "the notices are printed\n" << r.out;
  if (c.warns) {
    EXPECT_NE(r.err.find(std::string("warning: ") + v->path + ": " + c.warns), std::string::npos) << r.err;
  } else {
    EXPECT_EQ(r.err.find("warning"), std::string::npos) << r.err;
  }

  std::map<std::string, Fields> p = Probe(out);
  ASSERT_EQ(p.size(), static_cast<size_t>(!!v + !!a + c.text)) << "ffprobe sees every track";
  const auto codec = [&out](const char* kind) {
    return Capture("ffprobe -v error -select_streams " + std::string(kind) + " -show_entries stream=codec_name -of csv=p=0 " + out);
  };
  // A B-frame H.265 track's composition offsets are a fixed pattern that puts its last picture behind
  // the edit list, which ffmpeg obeys: the edit list is left aside to see every picture.
  const bool behindEdit = v && v->codec == "hevc" && v->bframes;
  if (v) {
    const Fields& f = p["video"];
    EXPECT_EQ(codec("v"), v->codec + "\n");
    EXPECT_EQ(std::make_tuple(Count(f, "width"), Count(f, "height"), Count(f, "nb_read_frames")),
              std::make_tuple(v->width, v->height, v->frames - behindEdit));
    EXPECT_NEAR(Seconds(f), v->frames / v->fps, 1e-3);
    // Composition offsets exactly when the stream has B-frames.
    EXPECT_EQ(Movie(out).Table("vide", "ctts").type.empty(), !v->bframes);
  }
  if (v && v->codec == "hevc") {
    EXPECT_EQ(ReadWhole(out).substr(4, 20), std::string("ftypiso4\0\0\0\1iso4hvc1", 20)) << "the HEVC brands, whatever the flavour";
  }
  if (a) {
    const Fields& f = p["audio"];
    EXPECT_EQ(codec("a"), a->codec == "aac" ? "aac\n" : "pcm_s16le\n");
    EXPECT_EQ(std::make_tuple(Count(f, "sample_rate"), Count(f, "channels")), std::make_tuple(a->rate, a->channels));
    if (a->seconds > 0) {
      EXPECT_NEAR(Seconds(f), a->seconds, 1e-3);
    }
  }
  const Decoded got = DecodeWith(d, out, v, a, v && v->bframes, behindEdit ? "-ignore_editlist 1" : "");
  EXPECT_EQ(std::make_tuple(got.status, got.errors), std::make_tuple(0, std::string()));
  EXPECT_EQ(got.video, v ? v->md5 : "") << "every picture of the source";
  EXPECT_EQ(got.audio, a ? a->md5 : "") << "every sample of the source";
  if (c.text) {
    EXPECT_EQ(Capture("ffprobe -v error -select_streams s -count_packets -show_entries stream=nb_read_packets -of csv=p=0 " +
                      out),
              "6\n")
        << "three cues, two gaps and the end of the last cue";
    EXPECT_EQ(Cues(Capture("ffmpeg -nostdin -v error -i " + out + " -map 0:s -f srt -")), Cues(kSrt));
  }

  // Played back: the streams written out decode as the sources do. (H.264 comes back with the length
  // prefixes play keeps: its own tests and README tell of them.)
  const bool jpeg = v && v->codec == "mjpeg", hevc = v && v->codec == "hevc", aac = a && a->codec == "aac";
  std::string outs;
  if (jpeg || hevc) outs += " --video-out " + base + (jpeg ? "_back.mjpeg" : "_back.h265");
  if (a) outs += " --audio-out " + base + (aac ? "_back.aac" : "_back.wav");
  if (c.text) outs += " --text-out " + base + "_back.srt";
  if (outs.empty()) return;
  const ToolResult back = RunTool("play " + out + outs);
  ASSERT_EQ(back.status, 0) << back.err;
  if (jpeg) {
    EXPECT_EQ(ReadWhole(base + "_back.mjpeg"), ReadWhole(v->path)) << "the pictures come back byte for byte";
  }
  if (hevc) {
    EXPECT_EQ(Decode(d, base + "_back.h265", true, false, false).video, v->md5);
    EXPECT_NE(back.out.find("video: hevc " + std::to_string(v->width) + "x" + std::to_string(v->height) + ", " +
                            std::to_string(v->frames) + " packets"),
              std::string::npos)
        << back.out;
  }
  if (a) {
    EXPECT_EQ(Decode(d, base + (aac ? "_back.aac" : "_back.wav"), false, true, false).audio, a->md5);
  }
  if (c.text) {
    EXPECT_EQ(Cues(ReadWhole(base + "_back.srt")), Cues(kSrt));
    EXPECT_NE(back.out.find("text: txt, 6 samples (3 with text)"), std::string::npos) << back.out;
  }
}

const Case kCases[] = {
    {"h264b_aac48.mov", "h264b", "aac48", false, "", nullptr},
    {"h264_aac44.mp4", "h264", "aac44", false, "", nullptr},
    {"samples.mov", "sample.h264", "sample.aac", false, "", nullptr},
    {"hevc.mov", "hevc", nullptr, false, "", nullptr},
    {"hevcb_aac48.mp4", "hevcb", "aac48", false, "", nullptr},
    {"hevcb_aac48_grouped.mp4", "hevcb", "aac48", false, "--set videosampleperchunk=4 --spill --table-files --tmp", nullptr},
    {"hevc_pcm16.mp4", "hevc", "raw16", false, "", nullptr},
    // Pictures of several units are warned of and still come back through play.
    {"hevcsei.mov", "hevcsei", nullptr, false, "", "1 pictures (the first is number 0) hold more than one NAL unit"},
    {"mjpeg_pcm16.mov", "mjpeg", "raw16", false, "", nullptr},
    {"h264_pcm48.mp4", "h264", "wav48", false, "", nullptr},
    {"h264_aac_text.mov", "h264", "aac48", true, "", nullptr},
    {"mjpeg_text.mp4", "mjpeg", nullptr, true, "", nullptr},
    // PCM cut into chunks from its byte stream, alone and behind video; tables in files of their own.
    {"pcm48_chunked.mp4", nullptr, "wav48", false, "--set audiosampleperchunk=4800", nullptr},
    {"mjpeg_pcm48_chunked.mov", "mjpeg", "wav48", false, "--set audiosampleperchunk=4800", nullptr},
    {"mjpeg_pcm16_text_files.mov", "mjpeg", "raw16", true, "--table-files --spill --tmp", nullptr},
};
INSTANTIATE_TEST_SUITE_P(Codecs, RecordCodecs, ::testing::ValuesIn(kCases), [](const auto& info) {
  std::string name = info.param.file;
  std::replace(name.begin(), name.end(), '.', '_');
  return name;
});

// ---- the boxes of H.264 and AAC recordings

class GeneratedRecord : public ::testing::Test {
 protected:
  static ToolResult Record(const std::string& out, const Stream& v, const Stream& a, const std::string& extra = "") {
    return RunTool("record -o " + Here().dir + "/" + out + " --video " + v.path + " --audio " + a.path + " --tmp " +
                   Here().dir + "/tmp " + extra);
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
    const std::string path = Here().dir + "/" + c.file, spc = " --set audiosampleperchunk=" + std::to_string(c.aspc);
    const ToolResult r = Record(c.file, *c.video, *c.audio, "--set videosampleperchunk=" + std::to_string(c.vspc) + spc +
                                                                " --set audio_chunk_first=" + (c.audioFirst ? "1 " : "0 ") + c.extra);
    ASSERT_EQ(r.status, 0) << r.err;
    const Movie m(path);
    const double fps = 30, rate = static_cast<double>(c.audio->rate), frame = 1024 / rate;
    // Video ends on a whole group; audio ends at the video's length, give or take a chunk.
    const long long pictures = c.video->frames / c.vspc * c.vspc;
    std::map<std::string, Fields> p = Probe(path);
    EXPECT_EQ(std::make_pair(m.SampleCount("vide"), Count(p["video"], "nb_read_frames")),
              std::make_pair(static_cast<uint64_t>(pictures), pictures));
    EXPECT_NEAR(Seconds(p["video"]), pictures / fps, 1 / fps);
    const long long frames = static_cast<long long>(m.SampleCount("soun"));
    EXPECT_LE(frames, c.audio->frames);
    EXPECT_EQ(Count(p["audio"], "nb_read_frames"), frames);
    EXPECT_NEAR(Seconds(p["audio"]), frames * frame, frame);
    EXPECT_NEAR(Seconds(p["audio"]), Seconds(p["video"]), c.aspc / rate) << "audio as long as the video";
    const Decoded d = Decode(Here().dir, path, true, true, c.video->bframes);
    EXPECT_EQ(std::make_pair(d.status, d.errors), std::make_pair(0, std::string()));
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
    ASSERT_GT(seq.size(), 4u);
    EXPECT_EQ(seq[0], lead) << seq;
    std::string body = seq;
    for (int k = 0; k < 3 && !body.empty() && body.back() == 'A'; ++k) body.pop_back();
    for (int k = 0; k < 2 && !body.empty() && body.back() == 'V'; ++k) body.pop_back();
    EXPECT_EQ(body.find(std::string(2, lead)), std::string::npos) << seq;
    EXPECT_EQ(body.find(std::string(static_cast<size_t>(std::ceil(ratio - 1e-9)) + 1, follow)), std::string::npos)
        << seq;
    // Every video chunk holds its group; audio chunks hold whole frames, so many that after k chunks
    // the track has k times the samples asked for, rounded up to a frame.
    const std::vector<uint64_t> vs = m.ChunkSamples("vide"), as = m.ChunkSamples("soun");
    ASSERT_TRUE(!vs.empty() && !as.empty());
    for (size_t k = 0; k + 1 < vs.size(); ++k) EXPECT_EQ(vs[k], c.vspc) << "video chunk " << k;
    EXPECT_LE(vs.back(), c.vspc);
    uint64_t total = 0;
    for (size_t k = 0; k + 1 < as.size(); ++k) {
      total += as[k];
      EXPECT_EQ(total, uint64_t{c.aspc} * (k + 1) / 1024 + 1) << "audio chunk " << k;
    }
    EXPECT_LE(total + as.back(), uint64_t{c.aspc} * as.size() / 1024 + 1);
  }
};

// A following track with short chunks gets more packets than its queue of two chunks holds before the
// leader writes its next chunk (the "outpaced" cases); none of them may be lost.
TEST_F(GeneratedRecord, ChunkGroupsAlternateTheLeaderFirstAndAnOutpacedFollowerKeepsItsFrames) {
  for (const char* s : {"h264b", "h264", "aac48", "aac44"}) NEED(s);
  const Grouped cases[] = {
      {&Src("h264b"), &Src("aac48"), 8, 12800, true, "groups_v8_a12800_audiofirst.mov", ""},  // 4 pictures left out
      {&Src("h264"), &Src("aac44"), 4, 5880, false, "groups_v4_a5880_files.mp4", "--table-files"},
      {&Src("h264"), &Src("aac48"), 7, 3072, false, "outpaced_audio.mov", ""},
      {&Src("h264"), &Src("aac48"), 2, 12000, true, "outpaced_video.mov", ""},
  };
  for (const Grouped& c : cases) CheckGrouped(c);
}

TEST_F(GeneratedRecord, LongRecordingsKeepTheirTablesWithSpillListsAndTableFiles) {
  NEED("long.h264");
  NEED("long.aac");
  const Source &video = Src("long.h264"), &audio = Src("long.aac");
  ASSERT_GT(audio.frames, 4095);
  const std::string groups = " --set videosampleperchunk=4 --set audiosampleperchunk=4096";
  struct Case {
    const char* file;
    std::string args;
    const char* same;  // the recording whose tables and sound it must have
  } cases[] = {
      {"plain.mov", "", nullptr},
      {"spill.mov", "--spill", "plain.mov"},
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
    const Movie m(Here().dir + "/" + c.file);
    EXPECT_EQ(m.SampleCount("vide"), 4200u);
    EXPECT_GT(m.SampleCount("soun"), 4095u);
    const Decoded& d = decoded[c.file] = Decode(Here().dir, Here().dir + "/" + c.file, true, true, true);
    EXPECT_EQ(std::make_tuple(d.status, d.errors, d.video), std::make_tuple(0, std::string(), video.md5))
        << "every picture of the source";
    if (c.args.empty()) {
      EXPECT_EQ(d.audio, audio.md5) << "all of the sound";
      // A constant frame rate keeps one frame duration to the end (one stts entry), and the two
      // tracks, 140 s each, end within a frame of one another.
      EXPECT_EQ(Be32(m.Tables("vide")["stts"], 4), 1u) << "video stts entries";
      auto seconds = [&m](const char* handler) {
        const BoxAt mdhd = Find(m.b, m.Track(handler), "mdia/mdhd");
        return static_cast<double>(Be32(m.b, mdhd.body() + 16)) / Be32(m.b, mdhd.body() + 12);
      };
      EXPECT_NEAR(seconds("vide"), 140.0, 1e-9);
      EXPECT_NEAR(seconds("soun"), seconds("vide"), 1.0 / 30);
    }
    if (!c.same) continue;
    EXPECT_EQ(d.audio, decoded[c.same].audio) << "the sound of " << c.same;
    const Movie plain(Here().dir + "/" + c.same);
    for (const char* handler : {"vide", "soun"}) {
      const auto tables = m.Tables(handler);
      EXPECT_EQ(tables.size(), std::string(handler) == "vide" ? 6u : 4u);
      EXPECT_TRUE(tables == plain.Tables(handler)) << handler << " tables differ";
    }
  }
  EXPECT_EQ(Capture("ls -A " + Here().dir + "/tmp"), "") << "temporary files left behind";
}

// The flavour's profile reaches the file through the command line (its boxes field by field are the
// tracks' own tests).
TEST_F(GeneratedRecord, EachFlavourWritesItsProfileAndBrandsIntoTheBoxes) {
  NEED("h264b");
  NEED("aac48");
  // Where a box is missing, want is "-"; else bytes from `at` in its body, and from 0 the whole body.
  struct Row {
    const char* handler;  // "" for the top of the file
    const char* path;
    size_t at;
    const char *mov, *mp4;
  } rows[] = {
      {"", "ftyp", 0, "'qt  ' 00000000 'qt  ' 00000000", "'mp42' 00000001 'mp42' 00000000"},
      {"vide", "tkhd", 1, "00000f", "000001"},
      {"soun", "mdia/hdlr", 0, "00000000 'mhlr' 'soun' 'quor' 00000000 00000000 0e 'Audio Handler' 00",
       "00000000 00000000 'soun' 00000000 00000000 00000000 01 00"},
      {"vide", "mdia/minf/hdlr", 0, "00000000 'dhlr' 'alis' 00000000 00000000 00000000 20 'Quorel Alias Data Handler' 7*00",
       "-"},
      // Vendor and qualities, then the compressor name, counted in 32 bytes.
      {"vide", "mdia/minf/stbl/stsd/avc1", 12, "'quor' 00000200 00000200", "00000000 00000000 00000000"},
      {"vide", "mdia/minf/stbl/stsd/avc1", 42, "20 'Quorel AVCC' 20*00", "20 'AVC CodingC' 20*00"},
      // ES id and priority of each profile.
      {"soun", "mdia/minf/stbl/stsd/mp4a/esds", 4, "03 19 0002 1f 04 11 40 15 100000", "03 19 0000 00 04 11 40 15 100000"},
  };
  std::map<std::string, Movie> files;
  for (const char* ext : {"mov", "mp4"}) {
    const std::string file = std::string("profile.") + ext;
    const ToolResult r = Record(file, Src("h264b"), Src("aac48"));
    ASSERT_EQ(r.status, 0) << r.err;
    files.emplace(ext, Movie(Here().dir + "/" + file));
  }
  for (const Row& row : rows) {
    for (const char* ext : {"mov", "mp4"}) {
      SCOPED_TRACE(std::string(ext) + " " + row.handler + " " + row.path);
      const Movie& m = files.at(ext);
      const BoxAt box = Find(m.b, *row.handler ? m.Track(row.handler) : m.root, row.path);
      const std::string want = std::string(ext) == "mov" ? row.mov : row.mp4;
      ASSERT_EQ(box.type.empty(), want == "-");
      if (box.type.empty()) continue;
      const Bytes expect = Hex(want);
      const size_t from = box.body() + row.at, to = row.at ? std::min(box.end(), from + expect.size()) : box.end();
      EXPECT_EQ(Slice(m.b, from, to - from), expect);
    }
  }
  // A reader takes the colour box of the mp4 profile: BT.709, full range.
  std::map<std::string, Fields> p = Probe(Here().dir + "/profile.mp4");
  EXPECT_EQ(p["video"]["color_primaries"] + " " + p["video"]["color_range"], "bt709 pc");
}

// The JPEG beside the output fills the thumbnail reservation, and readers pass over the box.
TEST_F(GeneratedRecord, ThumbnailBesideTheOutputFillsTheReservation) {
  NEED("h264");
  NEED("aac44");
  const std::string d = Here().dir;
  if (d.find('.') != std::string::npos) GTEST_SKIP() << "the JPEG's name ends at the first dot of " << d;
  ASSERT_TRUE(Shell("ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=160x120 -frames:v 1 " + d + "/thumbed.jpg"));
  const Bytes image = ReadFile(d + "/thumbed.jpg");
  ASSERT_TRUE(image.size() > 100u && Record("thumbed.mov", Src("h264"), Src("aac44"), "--thumb").status == 0);
  const Movie m(d + "/thumbed.mov");
  // The JPEG, then a free box for the rest of the reservation, at the end of moov and of the file.
  const std::vector<BoxAt> kids = Kids(m.b, Find(m.b, m.root, "moov"));
  ASSERT_GE(kids.size(), 2u);
  const BoxAt &thumb = kids[kids.size() - 2], &rest = kids.back();
  EXPECT_EQ(thumb.type + " " + rest.type, "thum free");
  EXPECT_EQ(Slice(m.b, thumb.body(), thumb.end() - thumb.body()), image);
  EXPECT_TRUE(rest.end() - thumb.end() == 204800 - image.size() && rest.end() == m.b.size()) << "the rest of the reserve";
  const Decoded got = Decode(d, d + "/thumbed.mov", true, true, false);
  EXPECT_EQ(std::make_tuple(got.status, got.errors, got.video, got.audio),
            std::make_tuple(0, std::string(), Src("h264").md5, Src("aac44").md5));
}

// ---- H.265 beyond the codec table

// The NAL unit type of an H.265 unit.
int HevcType(const std::string& unit) { return unit.empty() ? -1 : (static_cast<unsigned char>(unit[0]) >> 1) & 63; }

TEST(HevcRecord, TheSampleDescriptionCarriesTheStreamsParameterSetsForFfmpeg) {
  NEED("hevc");
  const std::string out = Here().dir + "/sets.mp4", annexB = Here().dir + "/sets.h265";
  ASSERT_EQ(RunTool("record -o " + out + " --video " + Src("hevc").path).status, 0);
  // ffmpeg puts the sets of the track's hvcC in front of the first picture.
  ASSERT_TRUE(Shell("ffmpeg -nostdin -v error -y -i " + out + " -c:v copy -bsf:v hevc_mp4toannexb -f hevc " + annexB));
  const std::vector<std::string> source = AnnexBUnits(ReadWhole(Src("hevc").path)), copied = AnnexBUnits(ReadWhole(annexB));
  ASSERT_TRUE(source.size() >= 4u && copied.size() >= 4u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(HevcType(copied[i]), 32 + static_cast<int>(i));
    EXPECT_EQ(copied[i], source[i]) << "parameter set " << i;
  }
  // The sets stand in the file once: the samples do not repeat them.
  EXPECT_EQ(std::count_if(copied.begin(), copied.end(), [](const std::string& u) { return HevcType(u) >= 32 && HevcType(u) <= 34; }),
            3);
}

// HEVC files that ffmpeg writes, played through the demuxer element.
TEST(HevcRecord, FfmpegsHevcFilesPlayWithinTheTracksLimits) {
  NEED("hevc");
  NEED("hevcsei");
  const struct {
    const char* file;
    std::string from;
    int status;
    std::string says;  // on the standard output for status 0, the error output otherwise
  } cases[] = {
      // Every sample one unit: all packets come. ffmpeg marks its hvcC arrays complete, a flag the
      // record does not expect: the parameter sets are not read from them.
      {"ff_hvc1.mp4", Src("hevc").path + " -c:v libx265 -x265-params log-level=none -tag:v hvc1", 0,
       "video: hevc 162x122, 45 packets (1 key)"},
      // A sample entry without a box class of its own: the file does not open.
      {"ff_hev1.mov", Src("hevc").path + " -c:v libx265 -x265-params log-level=none -tag:v hev1", 1,
       "cannot open it as a movie the plug-in plays"},
      // Copied from a stream with an SEI in front of its first picture: that sample holds two units,
      // each with its length, and the track refuses it.
      {"ff_sei.mp4", Src("hevcsei").path + " -c:v copy -tag:v hvc1", 1, "reading stopped with an error after 0 packets"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string out = Here().dir + "/" + c.file;
    ASSERT_TRUE(Shell("ffmpeg -nostdin -v error -y -i " + c.from + " " + out));
    const ToolResult r = RunTool("play " + out + " --video-out " + Here().dir + "/ff_back.h265");
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_NE((c.status == 0 ? r.out : r.err).find(c.says), std::string::npos) << r.out << r.err;
  }
}

}  // namespace
