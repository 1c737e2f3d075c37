// Recording the bundled samples and streams that ffmpeg makes at test time, through the command-line
// host, judged by ffprobe and ffmpeg. The files are read back byte by byte, not through the plug-in's parser.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/GeneratedMedia.h"
#include "tests/MuxTestUtil.h"
#include "tests/ToolRun.h"

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

// ---- the fixture: sources made once a run

class GeneratedRecord : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = generated::ScratchDir("bw_generated_", why_);
    if (dir_.empty()) return;
    Shell("mkdir -p " + dir_ + "/tmp");
    const std::string samples = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/";
    const std::string pictures = kPictures;
    why_ = "ffmpeg cannot encode H.264 with and without B-frames through libx264, or AAC";
    ready_ = Source(bframes_, "bframes.h264", pictures + "-preset ultrafast -bf 2 -g 30", true) &&
             Source(baseline_, "baseline.h264", pictures + "-profile:v baseline -bf 0 -g 30", false) &&
             Source(stereo48_, "stereo48.aac", "-f lavfi -i sine=frequency=440:sample_rate=48000 -t 2 -ac 2 -b:a 96k") &&
             Source(mono44_, "mono44.aac", "-f lavfi -i sine=frequency=330:sample_rate=44100 -t 2 -ac 1 -b:a 64k") &&
             Source(bundledV_, samples + "sample.h264", "", true) && Source(bundledA_, samples + "sample.aac", "");
  }
  static void TearDownTestSuite() { Shell("rm -rf " + dir_); }
  void SetUp() override { if (!ready_) GTEST_SKIP() << why_; }
  static bool Source(Stream& s, const std::string& file, const std::string& args, bool bframes = false) {
    return MakeStream(s, dir_, file, args, bframes);
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
    const std::string path = dir_ + "/" + c.file, spc = " --set audiosampleperchunk=" + std::to_string(c.aspc);
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
    const Decoded d = Decode(dir_, path, true, true, c.video->bframes);
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
  static std::string dir_, why_;
  static bool ready_;
  static Stream bframes_, baseline_, stereo48_, mono44_, bundledV_, bundledA_;
};

std::string GeneratedRecord::dir_, GeneratedRecord::why_;
bool GeneratedRecord::ready_ = false;
Stream GeneratedRecord::bframes_, GeneratedRecord::baseline_, GeneratedRecord::stereo48_, GeneratedRecord::mono44_,
    GeneratedRecord::bundledV_, GeneratedRecord::bundledA_;

TEST_F(GeneratedRecord, EveryStreamInBothFlavoursDecodesToItsSource) {
  const std::pair<const Stream*, const Stream*> cases[] = {
      {&bframes_, &stereo48_}, {&baseline_, &mono44_}, {&bundledV_, &bundledA_}};
  for (const auto& c : cases) {
    const Stream &video = *c.first, &audio = *c.second;
    for (const char* ext : {"mov", "mp4"}) {
      const std::string file = "whole_" + std::to_string(&c - cases) + "." + ext, path = dir_ + "/" + file;
      SCOPED_TRACE(file);
      const ToolResult r = Record(file, video, audio);
      ASSERT_EQ(r.status, 0) << r.err;
      EXPECT_NE(r.out.find("fileClose duration="), std::string::npos) << "the notices are printed\n" << r.out;
      std::map<std::string, Fields> p = Probe(path);
      ASSERT_EQ(p.size(), 2u) << "ffprobe opens the file with both tracks";
      Fields &v = p["video"], &a = p["audio"];
      EXPECT_EQ(std::make_tuple(Count(v, "width"), Count(v, "height"), Count(v, "nb_read_frames")),
                std::make_tuple(video.width, video.height, video.frames));
      EXPECT_NEAR(Seconds(v), video.frames / 30.0, 1 / 30.0);
      const double frame = 1024.0 / static_cast<double>(audio.rate);
      EXPECT_EQ(std::make_tuple(Count(a, "sample_rate"), Count(a, "channels"), Count(a, "nb_read_frames")),
                std::make_tuple(audio.rate, audio.channels, audio.frames));
      EXPECT_NEAR(Seconds(a), static_cast<double>(audio.frames) * frame, frame);
      const Decoded d = Decode(dir_, path, true, true, video.bframes);
      EXPECT_EQ(std::make_tuple(d.status, d.errors, d.video, d.audio), std::make_tuple(0, std::string(), video.md5, audio.md5))
          << "the pictures and sound of the source";
      // Composition offsets exactly when the stream has B-frames.
      EXPECT_EQ(Movie(path).Table("vide", "ctts").type.empty(), !video.bframes);
    }
  }
}

// A following track with short chunks gets more packets than its queue of two chunks holds before the
// leader writes its next chunk (the "outpaced" cases); none of them may be lost.
TEST_F(GeneratedRecord, ChunkGroupsAlternateTheLeaderFirstAndAnOutpacedFollowerKeepsItsFrames) {
  const Grouped cases[] = {
      {&bframes_, &stereo48_, 3, 4800, false, "groups_v3_a4800.mov", ""},
      {&bframes_, &stereo48_, 8, 12800, true, "groups_v8_a12800_audiofirst.mov", ""},  // 4 pictures left out
      {&baseline_, &mono44_, 4, 5880, false, "groups_v4_a5880_files.mp4", "--table-files"},
      {&baseline_, &mono44_, 4, 5880, true, "groups_v4_a5880_audiofirst.mp4", ""},
      {&baseline_, &stereo48_, 7, 3072, false, "outpaced_audio.mov", ""},
      {&baseline_, &stereo48_, 2, 12000, true, "outpaced_video.mov", ""},
  };
  for (const Grouped& c : cases) CheckGrouped(c);
}

TEST_F(GeneratedRecord, LongRecordingsKeepTheirTablesWithSpillListsAndTableFiles) {
  // More than 4095 samples in each track, so that the sample lists spill.
  Stream video, audio;
  ASSERT_TRUE(Source(video, "long.h264",
                     "-f lavfi -i testsrc2=size=64x64:rate=30 -frames:v 4200 -pix_fmt yuv420p -c:v libx264 "
                     "-preset ultrafast -bf 2 -g 60",
                     true));
  ASSERT_TRUE(Source(audio, "long.aac", "-f lavfi -i sine=frequency=300:sample_rate=48000 -t 140 -ac 1 -b:a 24k"));
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
    const Decoded& d = decoded[c.file] = Decode(dir_, dir_ + "/" + c.file, true, true, true);
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
    const Movie plain(dir_ + "/" + c.same);
    for (const char* handler : {"vide", "soun"}) {
      const auto tables = m.Tables(handler);
      EXPECT_EQ(tables.size(), std::string(handler) == "vide" ? 6u : 4u);
      EXPECT_TRUE(tables == plain.Tables(handler)) << handler << " tables differ";
    }
  }
  EXPECT_EQ(Capture("ls -A " + dir_ + "/tmp"), "") << "temporary files left behind";
  // The temporary files go where --tmp says, so the empty directory above means something: a directory
  // that is missing is refused before anything is recorded.
  for (const char* flag : {"--spill", "--table-files"}) {
    const ToolResult r = Record("nowhere.mov", video, audio, std::string(flag) + " --tmp " + dir_ + "/missing");
    EXPECT_EQ(r.status, 1) << flag;
    EXPECT_NE(r.err.find("cannot write temporary files in " + dir_ + "/missing"), std::string::npos) << flag << "\n" << r.err;
  }
}

TEST_F(GeneratedRecord, EachFlavourWritesItsProfileAndBrandsIntoTheBoxes) {
  // Where a box is missing, want is "-"; "[a b]" lists its children; else bytes from `at` in its body,
  // and from 0 the whole body.
  struct Row {
    const char* handler;  // "" for the top of the file
    const char* path;
    size_t at;
    const char *mov, *mp4;
  } rows[] = {
      {"", "ftyp", 0, "'qt  ' 00000000 'qt  ' 00000000", "'mp42' 00000001 'mp42' 00000000"},
      {"vide", "tkhd", 1, "00000f", "000001"},
      {"soun", "tkhd", 1, "00000f", "000001"},
      {"vide", "edts", 0, "-", "-"},
      {"vide", "mdia/hdlr", 0, "00000000 'mhlr' 'vide' 'quor' 00000000 00000000 0e 'Video Handler' 00",
       "00000000 00000000 'vide' 00000000 00000000 00000000 01 00"},
      {"soun", "mdia/hdlr", 0, "00000000 'mhlr' 'soun' 'quor' 00000000 00000000 0e 'Audio Handler' 00",
       "00000000 00000000 'soun' 00000000 00000000 00000000 01 00"},
      {"vide", "mdia/minf/hdlr", 0, "00000000 'dhlr' 'alis' 00000000 00000000 00000000 20 'Quorel Alias Data Handler' 7*00",
       "-"},
      {"soun", "mdia/minf/hdlr", 0, "00000000 'dhlr' 'alis' 00000000 00000000 00000000 18 'Quor Alias Data Handler' 00",
       "-"},
      // Vendor and qualities, then the compressor name, counted in 32 bytes.
      {"vide", "mdia/minf/stbl/stsd/avc1", 12, "'quor' 00000200 00000200", "00000000 00000000 00000000"},
      {"vide", "mdia/minf/stbl/stsd/avc1", 42, "20 'Quorel AVCC' 20*00", "20 'AVC CodingC' 20*00"},
      {"vide", "mdia/minf/stbl/stsd/avc1/colr", 0, "-", "'nclx' 0001 0001 0001 80"},
      // The plain sound entry in both: the element of the mov flavour leaves the profile's file type
      // unset, and the other form is for QuickTime files of three channels or more.
      {"soun", "mdia/minf/stbl/stsd/mp4a", 0, "[esds]", "[esds]"},
      {"soun", "mdia/minf/stbl/stsd/mp4a", 8, "0000 0000 00000000 0002 0010 0000 0000 bb800000",
       "0000 0000 00000000 0002 0010 0000 0000 bb800000"},
      // ES id and priority of each profile.
      {"soun", "mdia/minf/stbl/stsd/mp4a/esds", 4, "03 19 0002 1f 04 11 40 15 100000", "03 19 0000 00 04 11 40 15 100000"},
  };
  std::map<std::string, Movie> files;
  for (const char* ext : {"mov", "mp4"}) {
    const std::string file = std::string("profile.") + ext;
    const ToolResult r = Record(file, bframes_, stereo48_);
    ASSERT_EQ(r.status, 0) << r.err;
    files.emplace(ext, Movie(dir_ + "/" + file));
  }
  for (const Row& row : rows) {
    for (const char* ext : {"mov", "mp4"}) {
      SCOPED_TRACE(std::string(ext) + " " + row.handler + " " + row.path);
      const Movie& m = files.at(ext);
      const BoxAt box = Find(m.b, *row.handler ? m.Track(row.handler) : m.root, row.path);
      const std::string want = std::string(ext) == "mov" ? row.mov : row.mp4;
      if (want == "-" || want[0] == '[') {
        std::string kids;
        for (const BoxAt& k : Kids(m.b, box)) kids += (kids.empty() ? "" : " ") + k.type;
        EXPECT_EQ(box.type.empty() ? "-" : "[" + kids + "]", want);
        continue;
      }
      ASSERT_FALSE(box.type.empty());
      const Bytes expect = Hex(want);
      const size_t from = box.body() + row.at, to = row.at ? std::min(box.end(), from + expect.size()) : box.end();
      EXPECT_EQ(Slice(m.b, from, to - from), expect);
    }
  }
  // A reader takes the colour box of the mp4 profile: BT.709, full range.
  std::map<std::string, Fields> p = Probe(dir_ + "/profile.mp4");
  EXPECT_EQ(p["video"]["color_primaries"] + " " + p["video"]["color_range"], "bt709 pc");
}

// The JPEG beside the output fills the thumbnail reservation, and readers pass over the box.
TEST_F(GeneratedRecord, ThumbnailBesideTheOutputFillsTheReservation) {
  if (dir_.find('.') != std::string::npos) GTEST_SKIP() << "the JPEG's name ends at the first dot of " << dir_;
  ASSERT_TRUE(Shell("ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=160x120 -frames:v 1 " + dir_ + "/thumbed.jpg"));
  const Bytes image = ReadFile(dir_ + "/thumbed.jpg");
  ASSERT_TRUE(image.size() > 100u && Record("thumbed.mov", baseline_, mono44_, "--thumb").status == 0);
  const Movie m(dir_ + "/thumbed.mov");
  // The JPEG, then a free box for the rest of the reservation, at the end of moov and of the file.
  const std::vector<BoxAt> kids = Kids(m.b, Find(m.b, m.root, "moov"));
  ASSERT_GE(kids.size(), 2u);
  const BoxAt &thumb = kids[kids.size() - 2], &rest = kids.back();
  EXPECT_EQ(thumb.type + " " + rest.type, "thum free");
  EXPECT_EQ(Slice(m.b, thumb.body(), thumb.end() - thumb.body()), image);
  EXPECT_TRUE(rest.end() - thumb.end() == 204800 - image.size() && rest.end() == m.b.size()) << "the rest of the reserve";
  const Decoded d = Decode(dir_, dir_ + "/thumbed.mov", true, true, false);
  EXPECT_EQ(std::make_tuple(d.status, d.errors, d.video, d.audio), std::make_tuple(0, std::string(), baseline_.md5, mono44_.md5));
}

}  // namespace
