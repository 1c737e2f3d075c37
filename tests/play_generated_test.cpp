// Playing back through the command-line host: recordings of the bundled sample and of streams that
// ffmpeg makes at test time, and files that ffmpeg writes itself; remuxing them. Judged by ffmpeg: what
// it decodes from play's output and from remux's files, and how it copies the same packets.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/GeneratedMedia.h"
#include "tests/ToolRun.h"

namespace {

using namespace generated;

// ---- H.264 units and packets, as bytes in strings

// The units in the form the plug-in gives a sample: the first `k` behind four-byte start codes, the
// rest behind four-byte lengths.
std::string Form(const std::vector<std::string>& units, size_t k) {
  std::string out;
  for (size_t i = 0; i < units.size(); ++i) {
    const size_t n = units[i].size();
    const char head[4] = {0, 0, 0, 1};
    const char length[4] = {static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
                            static_cast<char>(n)};
    out.append(i < k ? head : length, 4);
    out += units[i];
  }
  return out;
}

// How many of the units stand behind start codes in a packet made of exactly these units (all of them
// for an Annex-B packet); -1 when the packet holds other bytes.
int StartCoded(const std::string& packet, const std::vector<std::string>& units) {
  for (size_t k = units.size() + 1; k-- > 0;)
    if (Form(units, k) == packet) return static_cast<int>(k);
  return -1;
}

// Cuts a stream into packets by their sizes; what stands in front of them is `head`.
std::vector<std::string> Cut(const std::string& b, const std::vector<long long>& sizes, std::string* head) {
  long long total = 0;
  for (long long s : sizes) total += s;
  std::vector<std::string> out;
  if (total > static_cast<long long>(b.size())) return out;
  size_t at = b.size() - static_cast<size_t>(total);
  if (head) *head = b.substr(0, at);
  for (long long s : sizes) {
    out.push_back(b.substr(at, static_cast<size_t>(s)));
    at += static_cast<size_t>(s);
  }
  return out;
}

// The H.264 packets ffmpeg copies from a file to Annex-B: the raw stream it writes, cut by the sizes
// its framemd5 lists for the same copy.
std::vector<std::string> FfmpegH264(const std::string& dir, const std::string& in) {
  const std::string raw = dir + "/ffmpeg_copy.h264", args = " -map 0:v -c copy -bsf:v h264_mp4toannexb ";
  std::istringstream list(Capture("ffmpeg -nostdin -v error -i " + in + args + "-f framemd5 - 2>/dev/null"));
  std::vector<long long> sizes;
  for (std::string line; std::getline(list, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string field;
    for (int i = 0; i < 5 && std::getline(fields, field, ','); ++i) {
    }
    sizes.push_back(std::atoll(field.c_str()));  // stream, dts, pts, duration, size
  }
  if (!Shell("ffmpeg -nostdin -v error -y -i " + in + args + "-f h264 " + raw)) return {};
  auto packets = Cut(ReadWhole(raw), sizes, nullptr);
  Shell("rm -f " + raw);
  return packets;
}

// The AAC packets ffmpeg copies from a file to ADTS, each with its header.
std::vector<std::string> FfmpegAdts(const std::string& dir, const std::string& in) {
  const std::string raw = dir + "/ffmpeg_copy.aac";
  if (!Shell("ffmpeg -nostdin -v error -y -i " + in + " -map 0:a -c copy -f adts " + raw)) return {};
  const std::string b = ReadWhole(raw);
  Shell("rm -f " + raw);
  std::vector<std::string> frames;
  for (size_t at = 0; at + 7 <= b.size();) {
    const size_t n = (static_cast<size_t>(b[at + 3] & 3) << 11) |
                     (static_cast<size_t>(static_cast<unsigned char>(b[at + 4])) << 3) |
                     (static_cast<unsigned char>(b[at + 5]) >> 5);
    if (n < 7 || at + n > b.size()) break;
    frames.push_back(b.substr(at, n));
    at += n;
  }
  return frames;
}

// ---- what play prints

struct PacketLine {
  double time = 0, duration = 0;
  long long size = 0;
  bool key = false;
};

struct Played {
  ToolResult run;
  std::vector<PacketLine> video, audio;
  std::string Summary(const char* kind) const {
    const size_t at = run.out.find(std::string("\n") + kind + ": ");
    return at == std::string::npos ? "" : run.out.substr(at + 1, run.out.find('\n', at + 1) - at - 1);
  }
  std::vector<long long> Sizes(const std::vector<PacketLine>& lines) const {
    std::vector<long long> sizes;
    for (const PacketLine& p : lines) sizes.push_back(p.size);
    return sizes;
  }
};

double Field(const std::string& line, const std::string& key) {
  const size_t at = line.find("|" + key + "=");
  return at == std::string::npos ? -1 : std::atof(line.c_str() + at + key.size() + 2);
}

Played Play(const std::string& args) {
  Played p;
  p.run = RunTool("play --packets " + args);
  std::istringstream out(p.run.out);
  for (std::string line; std::getline(out, line);) {
    if (line.rfind("packet|", 0) != 0) continue;
    PacketLine l{Field(line, "pts_time"), Field(line, "duration_time"), static_cast<long long>(Field(line, "size")),
                 line.find("|flags=K") != std::string::npos};
    (line.find("codec_type=video") != std::string::npos ? p.video : p.audio).push_back(l);
  }
  return p;
}

// The first n entries.
std::vector<std::string> Head(const std::vector<std::string>& v, size_t n) {
  return std::vector<std::string>(v.begin(), v.begin() + static_cast<long>(std::min(n, v.size())));
}

// ---- the fixture: sources made once a run, each when first asked for

class PlayGenerated : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = generated::ScratchDir("bw_play_", why_);
    ready_ = !dir_.empty();
  }
  static void TearDownTestSuite() {
    if (!dir_.empty()) Shell("rm -rf " + dir_);
    streams_.clear();
    frames_.clear();
  }
  void SetUp() override {
    if (!ready_) GTEST_SKIP() << why_;
  }

  // A stream by name: 60 pictures (x264 with and without B-frames; "_plain" without the SEI that
  // x264 puts in front of its first picture, as a camera's stream and the bundled sample have none),
  // 2 s of AAC, or the bundled sample.
  static const Stream& Src(const std::string& name) {
    auto found = streams_.find(name);
    if (found != streams_.end()) return found->second;
    const std::string pictures = kPictures, samples = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/";
    const std::string noSei = " -c:v copy -bsf:v filter_units=remove_types=6";
    Stream s;
    bool ok = false;
    if (name == "bframes") ok = MakeStream(s, dir_, "bframes.h264", pictures + "-preset ultrafast -bf 2 -g 30", true);
    if (name == "baseline") ok = MakeStream(s, dir_, "baseline.h264", pictures + "-profile:v baseline -bf 0 -g 30");
    if (name == "bframes_plain")
      ok = MakeStream(s, dir_, "bframes_plain.h264", "-i " + Src("bframes").path + noSei, true);
    if (name == "baseline_plain") ok = MakeStream(s, dir_, "baseline_plain.h264", "-i " + Src("baseline").path + noSei);
    if (name == "stereo48")
      ok = MakeStream(s, dir_, "stereo48.aac", "-f lavfi -i sine=frequency=440:sample_rate=48000 -t 2 -ac 2 -b:a 96k");
    if (name == "mono44")
      ok = MakeStream(s, dir_, "mono44.aac", "-f lavfi -i sine=frequency=330:sample_rate=44100 -t 2 -ac 1 -b:a 64k");
    if (name == "bundled_video") ok = MakeStream(s, dir_, samples + "sample.h264", "", true);
    if (name == "bundled_audio") ok = MakeStream(s, dir_, samples + "sample.aac", "");
    if (!ok) ADD_FAILURE() << "ffmpeg cannot make the stream " << name << " (libx264 and the AAC encoder are needed)";
    return streams_[name] = s;
  }
  // What ffmpeg decodes from a source, frame by frame.
  static const std::vector<std::string>& Frames(const Stream& s) {
    auto found = frames_.find(s.path);
    if (found != frames_.end()) return found->second;
    std::vector<std::string>& f = frames_[s.path] =
        FrameMd5s(s.path, s.path.find(".h264") != std::string::npos ? "v" : "a");
    EXPECT_EQ(static_cast<long long>(f.size()), s.frames) << s.path;
    return f;
  }
  // A file written by ffmpeg: mp4 or mov, with or without B-frames, AAC of 48 kHz stereo (mp4) or
  // 44.1 kHz mono (mov); 2 s; "faststart" puts the movie box in front of the media data.
  static std::string Ff(const std::string& name) {
    const std::string path = dir_ + "/" + name;
    if (FileExists(path)) return path;
    const bool mov = name.find(".mov") != std::string::npos, bframes = name.find("bframes") != std::string::npos;
    const bool made = Shell(
        "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=160x120:rate=30 -f lavfi -i "
        "sine=frequency=440:sample_rate=" +
        std::string(mov ? "44100" : "48000") + " -t 2 -map 0:v -map 1:a -pix_fmt yuv420p -c:v libx264 -g 30 " +
        (bframes ? "-preset ultrafast -bf 2" : "-profile:v baseline -bf 0") + " -c:a aac -ac " + (mov ? "1 " : "2 ") +
        (name.find("faststart") != std::string::npos ? "-movflags +faststart " : "") + path);
    EXPECT_TRUE(made) << name;
    return path;
  }
  static bool FileExists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }
  static ToolResult Record(const std::string& out, const Stream& v, const Stream& a, const std::string& extra = "") {
    return RunTool("record -o " + dir_ + "/" + out + " --video " + v.path + " --audio " + a.path + " --tmp " + dir_ +
                   " " + extra);
  }
  static std::string dir_, why_;
  static bool ready_;
  static std::map<std::string, Stream> streams_;
  static std::map<std::string, std::vector<std::string>> frames_;
};

std::string PlayGenerated::dir_, PlayGenerated::why_;
bool PlayGenerated::ready_ = false;
std::map<std::string, Stream> PlayGenerated::streams_;
std::map<std::string, std::vector<std::string>> PlayGenerated::frames_;

// Recorded, then played to files: every packet of the recording, and the pictures and sound of the
// sources frame for frame. Chunk groups divide the 60 pictures, so that the recordings keep them all.
TEST_F(PlayGenerated, RecordingsPlayBackToTheirSourcesFrameForFrame) {
  const struct {
    const char *video, *audio, *file;
    std::string args;
  } cases[] = {
      {"bundled_video", "bundled_audio", "bundled.mov", ""},
      {"bframes_plain", "stereo48", "groups.mov", "--set videosampleperchunk=3 --set audiosampleperchunk=4800"},
      {"baseline_plain", "mono44", "groups_audiofirst.mp4",
       "--set videosampleperchunk=4 --set audiosampleperchunk=5880 --set audio_chunk_first=1"},
      {"baseline_plain", "stereo48", "files_groups.mp4",
       "--table-files --set videosampleperchunk=5 --set audiosampleperchunk=3072 --set audio_chunk_first=1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string path = dir_ + "/" + c.file, v = path + ".h264", a = path + ".aac";
    const Stream &video = Src(c.video), &audio = Src(c.audio);
    const ToolResult r = Record(c.file, video, audio, c.args);
    ASSERT_EQ(r.status, 0) << r.err;
    const Played p = Play(path + " --video-out " + v + " --audio-out " + a);
    ASSERT_EQ(p.run.status, 0) << p.run.err;
    EXPECT_EQ(p.run.err, "") << "no warning: every unit behind a start code, every frame with its ADTS header";
    std::map<std::string, Fields> probe = Probe(path);
    EXPECT_EQ(static_cast<long long>(p.video.size()), Count(probe["video"], "nb_read_packets"));
    EXPECT_EQ(static_cast<long long>(p.audio.size()), Count(probe["audio"], "nb_read_packets"));
    EXPECT_EQ(static_cast<long long>(p.video.size()), video.frames) << "every picture recorded";
    EXPECT_NE(p.Summary("video").find(std::to_string(p.video.size()) + " packets"), std::string::npos) << p.run.out;
    const std::vector<std::string> pictures = FrameMd5s(v, "v"), sound = FrameMd5s(a, "a");
    EXPECT_EQ(pictures, Frames(video));
    // The recorder ends the sound near the video's end: what it kept is the source's beginning.
    EXPECT_EQ(sound.size(), p.audio.size());
    EXPECT_EQ(sound, Head(Frames(audio), p.audio.size()));
  }
}

// x264's first picture carries an SEI between the parameter sets and the slice. The plug-in turns back
// into start codes only the units a sample of its own begins with, so the SEI and the slice behind it
// keep their lengths: play warns, a reader of the Annex-B stream loses the pictures up to the next key
// frame, and a remux, whose muxer finds units by start codes, loses them from the file. Nothing else of
// the stream differs.
TEST_F(PlayGenerated, AnSeiInTheFirstPictureCostsTheFirstGroupOfPictures) {
  const Stream* s = &Src("bframes");
  const std::string path = s->path + ".mov", v = path + ".h264";
  ASSERT_EQ(RunTool("record -o " + path + " --video " + s->path).status, 0);
  const Played p = Play(path + " --video-out " + v);
  ASSERT_EQ(p.run.status, 0) << p.run.err;
  EXPECT_NE(p.run.err.find("warning: " + v +
                           ": 1 of 60 video packets hold units in length-prefix form, not behind "
                           "start codes (the first: packet 0)"),
            std::string::npos)
      << p.run.err;
  // The pictures of the source, each its units up to its slice. The first: parameter sets, SEI,
  // slice, of which the first two behind start codes and the others behind lengths; every other
  // picture (the second key frame with its parameter sets again) all behind start codes.
  std::vector<std::vector<std::string>> pictures(1);
  for (const std::string& u : AnnexBUnits(ReadWhole(s->path))) {
    pictures.back().push_back(u);
    if (UnitType(u) == 1 || UnitType(u) == 5) pictures.emplace_back();
  }
  pictures.pop_back();
  ASSERT_EQ(pictures.size(), 60u);
  ASSERT_EQ(pictures[0].size(), 4u);
  std::vector<unsigned> types;
  for (const std::string& u : pictures[0]) types.push_back(UnitType(u));
  EXPECT_EQ(types, std::vector<unsigned>({7, 8, 6, 5}));
  std::string head;
  const std::vector<std::string> packets = Cut(ReadWhole(v), p.Sizes(p.video), &head);
  ASSERT_EQ(packets.size(), 60u);
  EXPECT_EQ(head, Form({pictures[0][0], pictures[0][1]}, 2)) << "the extra data in front";
  EXPECT_EQ(StartCoded(packets[0], pictures[0]), 2);
  for (size_t i = 1; i < packets.size(); ++i)
    EXPECT_EQ(StartCoded(packets[i], pictures[i]), static_cast<int>(pictures[i].size())) << i;
  // The second key frame is picture 30: what stands before it is lost, the rest decodes as the source.
  ASSERT_TRUE(p.video[30].key);
  const std::vector<std::string>& all = Frames(*s);
  EXPECT_EQ(FrameMd5s(v, "v"), std::vector<std::string>(all.begin() + 30, all.end()));
  const ToolResult remux = RunTool("remux " + path + " " + path + ".mp4");
  ASSERT_EQ(remux.status, 0) << remux.err;
  EXPECT_EQ(FrameMd5s(path + ".mp4", "v"), std::vector<std::string>(all.begin() + 30, all.end()));
}

// Every packet of a file that ffmpeg wrote, as ffmpeg copies it to H.264 Annex-B and to ADTS, within
// what the plug-in keeps: the first sample keeps its lengths, the sound of a mov file comes without
// ADTS headers, times come from the tables in whole milliseconds with one mean duration a track.
TEST_F(PlayGenerated, FfmpegFilesPlayEveryPacketAsFfmpegCopiesIt) {
  for (const char* name : {"ff_bframes.mp4", "ff_baseline.mov"}) {
    SCOPED_TRACE(name);
    const std::string path = Ff(name), v = path + ".h264", a = path + ".aac";
    const bool mov = std::string(name).find(".mov") != std::string::npos;
    const Played p = Play(path + " --video-out " + v + " --audio-out " + a);
    ASSERT_EQ(p.run.status, 0) << p.run.err;
    std::map<std::string, Fields> probe = Probe(path);
    ASSERT_EQ(static_cast<long long>(p.video.size()), Count(probe["video"], "nb_read_packets"));
    ASSERT_EQ(static_cast<long long>(p.audio.size()), Count(probe["audio"], "nb_read_packets"));

    // Video: the parameter sets in front, then each packet as ffmpeg copies it, but for the first.
    const std::vector<std::string> copied = FfmpegH264(dir_, path);
    ASSERT_EQ(copied.size(), p.video.size());
    std::string head;
    const std::vector<std::string> packets = Cut(ReadWhole(v), p.Sizes(p.video), &head);
    ASSERT_EQ(packets.size(), copied.size());
    std::vector<std::string> sets, first;
    for (const std::string& u : AnnexBUnits(copied[0]))
      (UnitType(u) == 7 || UnitType(u) == 8 ? sets : first).push_back(u);
    EXPECT_EQ(head, Form(sets, sets.size()));
    EXPECT_EQ(StartCoded(packets[0], first), 0) << "the whole first sample keeps its lengths";
    EXPECT_EQ(std::vector<unsigned>({UnitType(first[0]), UnitType(first.back())}), std::vector<unsigned>({6, 5}));
    int same = 0;
    for (size_t i = 1; i < packets.size(); ++i) {
      std::vector<std::string> units;
      for (const std::string& u : AnnexBUnits(copied[i]))
        if (UnitType(u) != 7 && UnitType(u) != 8) units.push_back(u);  // ffmpeg repeats them at each key frame
      same += StartCoded(packets[i], units) == static_cast<int>(units.size());
    }
    EXPECT_EQ(same, static_cast<int>(packets.size()) - 1);
    EXPECT_NE(p.run.err.find("1 of 60 video packets hold units in length-prefix form"), std::string::npos);

    // Sound: ffmpeg's ADTS copy, byte for byte; from a mov file (the decoder configuration inside a
    // "wave" box, which the plug-in keeps unread) the bare frames behind those headers, with a warning.
    const std::vector<std::string> adts = FfmpegAdts(dir_, path);
    ASSERT_EQ(adts.size(), p.audio.size());
    std::string frames;
    for (const std::string& f : adts) frames += mov ? f.substr(7) : f;
    EXPECT_TRUE(ReadWhole(a) == frames);
    EXPECT_EQ(p.run.err.find("audio packets came without an ADTS header") != std::string::npos, mov) << p.run.err;
    EXPECT_EQ(p.Summary("audio").find(" Hz") != std::string::npos, !mov) << "rate and channels unknown in mov";

    // Times against ffmpeg's decoding times, counted from the first packet: video within the rounding to
    // whole milliseconds; sound within one frame, since ffmpeg's last AAC frame is shorter and the
    // plug-in gives every frame the track's mean duration.
    const struct {
      const char* kind;
      const std::vector<PacketLine>& played;
      double bound;
    } tracks[] = {{"v", p.video, 0.0005}, {"a", p.audio, 1024.0 / (mov ? 44100 : 48000)}};
    for (const auto& t : tracks) {
      std::istringstream dts(Capture("ffprobe -v error -select_streams " + std::string(t.kind) +
                                     " -show_entries packet=dts_time -of csv=p=0 " + path));
      std::vector<double> times;
      for (std::string line; std::getline(dts, line);)
        if (!line.empty() && (std::isdigit(static_cast<unsigned char>(line[0])) || line[0] == '-'))
          times.push_back(std::atof(line.c_str()));
      ASSERT_EQ(times.size(), t.played.size()) << t.kind;
      double worst = 0;
      for (size_t i = 0; i < times.size(); ++i)
        worst = std::max(worst, std::fabs(t.played[i].time - (times[i] - times[0])));
      EXPECT_LT(worst, t.bound) << t.kind;
      if (*t.kind == 'a') {
        EXPECT_GT(worst, 0.004) << "the mean duration shows";
      }
    }
  }
}

// A remux decodes frame for frame like its input: recordings, and ffmpeg's mp4 files (whose edit list,
// which hides the AAC encoder's first frame from a player, is not carried over: that frame is played in
// the remux). ffmpeg's mov files cannot be remuxed: the muxer takes no track for their sound.
TEST_F(PlayGenerated, RemuxedFilesDecodeLikeTheirInput) {
  ASSERT_EQ(Record("r_bundled.mov", Src("bundled_video"), Src("bundled_audio")).status, 0);
  const struct {
    const char *in, *out;
    size_t primer;  // audio frames that the remux plays and the input hides
  } cases[] = {
      {"r_bundled.mov", "r_bundled.remux.mp4", 0},
      {"ff_bframes.mp4", "ff_bframes.remux.mov", 1},
      {"ff_baseline_faststart.mp4", "ff_faststart.remux.mov", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.in);
    const std::string in = c.in[0] == 'f' ? Ff(c.in) : dir_ + "/" + c.in, out = dir_ + "/" + c.out;
    const ToolResult r = RunTool("remux " + in + " " + out);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("fileurl ", 0), 0u) << "the muxer's messages:\n" << r.out;
    EXPECT_NE(r.out.find("\neos clock="), std::string::npos) << "the demuxer's";
    EXPECT_NE(r.out.find("\nfileClose duration="), std::string::npos);
    // ffmpeg's decoder configuration is misread (its descriptors have lengths of four bytes): remux
    // writes the one the ADTS headers are made from, and says so.
    EXPECT_EQ(r.err.find("the AAC decoder configuration read from the file does not agree") != std::string::npos,
              c.primer == 1)
        << r.err;
    const std::vector<std::string> pictures = FrameMd5s(in, "v"), sound = FrameMd5s(in, "a");
    ASSERT_FALSE(pictures.empty() || sound.empty());
    EXPECT_EQ(FrameMd5s(out, "v"), pictures);
    std::vector<std::string> remuxed = FrameMd5s(out, "a");
    ASSERT_GE(remuxed.size(), c.primer);
    remuxed.erase(remuxed.begin(), remuxed.begin() + static_cast<long>(c.primer));
    EXPECT_EQ(remuxed, sound);
  }
  const std::string out = dir_ + "/ff_baseline.mov.remux.mp4";
  const ToolResult r = RunTool("remux " + Ff("ff_baseline.mov") + " " + out);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("the muxer takes no track for its audio (aac)"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("note: !esds"), std::string::npos) << r.err;
  EXPECT_FALSE(Shell("test -e " + out)) << "nothing left behind";
}

// The thumbnail of a recording made with --thumb: the element gives none for an ordinary file, so it
// comes from the file's box.
TEST_F(PlayGenerated, ThumbnailComesBackOutOfTheRecording) {
  if (dir_.find('.') != std::string::npos) GTEST_SKIP() << "the JPEG's name ends at the first dot of " << dir_;
  ASSERT_TRUE(
      Shell("ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=160x120 -frames:v 1 " + dir_ + "/thumbed.jpg"));
  ASSERT_EQ(Record("thumbed.mov", Src("baseline_plain"), Src("mono44"), "--thumb").status, 0);
  const std::string jpeg = dir_ + "/back.jpg";
  const ToolResult r = RunTool("play " + dir_ + "/thumbed.mov --thumb-out " + jpeg);
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string image = ReadWhole(dir_ + "/thumbed.jpg");
  EXPECT_NE(r.out.find("thumbnail: " + std::to_string(image.size()) + " bytes from the file's 'thum' box"),
            std::string::npos)
      << r.out;
  EXPECT_TRUE(ReadWhole(jpeg) == image);
  EXPECT_NE(r.out.find("video: h264 160x120, 60 packets"), std::string::npos) << "and the file is played";
}

}  // namespace
