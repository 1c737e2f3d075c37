// Our own fragmented recordings through play and remux: every packet as the plain recording of the
// same streams gives it, with and without the fragment index; seeks by the index; remux chains between
// mov, mp4 and fragmented mp4 that keep every frame.
//
// Fragmented files are decoded with "-use_mfra_for dts": ffmpeg takes a fragment's start from a tfdt
// it has already read, and ours stands behind trun, so by default it misplaces every later fragment.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/FragmentOracles.h"
#include "tests/FragmentedFiles.h"

namespace {

struct PacketLine {
  std::string line;  // as printed, for whole-line comparisons
  double time = 0;
  long long size = 0;
  bool key = false;
};

struct Played {
  ToolResult run;
  std::vector<PacketLine> video, audio;
};

double Field(const std::string& line, const std::string& key) {
  const size_t at = line.find("|" + key + "=");
  return at == std::string::npos ? -1 : std::atof(line.c_str() + at + key.size() + 2);
}

Played Play(const std::string& args, const std::string& global = "") {
  Played p;
  p.run = RunTool(global + "play --packets " + args);
  std::istringstream out(p.run.out);
  for (std::string line; std::getline(out, line);) {
    if (line.rfind("packet|", 0) != 0) continue;
    PacketLine l{line, Field(line, "pts_time"), static_cast<long long>(Field(line, "size")),
                 line.find("|flags=K") != std::string::npos};
    (line.find("codec_type=video") != std::string::npos ? p.video : p.audio).push_back(l);
  }
  return p;
}

long long Ms(double seconds) { return std::llround(seconds * 1000); }

long long TimeScale(const std::string& file, const char* kind) {
  const std::string base = Capture("ffprobe -v error -use_mfra_for dts -select_streams " + std::string(kind) +
                                   " -show_entries stream=time_base -of csv=p=0 " + file);
  const size_t slash = base.find('/');
  return slash == std::string::npos ? 0 : std::atoll(base.c_str() + slash + 1);
}

std::vector<std::string> Frames(const std::string& file, const char* kind) {
  return fragoracle::FrameMd5s(file, kind, "-use_mfra_for dts");
}

// The top-level box types of a file, comma-separated.
std::string TopTypes(const std::string& file) {
  std::string types;
  for (const fragmented::TopBox& b : fragmented::TopLevel(ReadWhole(file))) types += (types.empty() ? "" : ",") + b.code;
  return types;
}

struct Src {
  generated::Stream video, audio;
  std::vector<std::string> pictures, sound;  // decoded frame by frame
};

struct RecCase {
  const char* name;
  const char* source;
  const char* options;  // for record --fragmented
};
const RecCase kRecordings[] = {
    {"sample_gop", "sample", ""},
    {"plain_gop", "plain", ""},
    {"plain_3s", "plain", "--fragment-ms 3000"},
    {"bframes_gop", "bframes", ""},
    {"bframes_2s", "bframes", "--fragment-ms 2000"},
};

class FragmentedOwn : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = generated::ScratchDir("bw_fremux_", why_);
    if (dir_.empty()) return;
    const std::string pics = "-f lavfi -i testsrc2=size=160x120:rate=30 -frames:v 150 -pix_fmt yuv420p -c:v libx264 ";
    const std::string noSei = " -c:v copy -bsf:v filter_units=remove_types=6";
    const std::string samples = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/";
    generated::Stream raw[2];
    Src sample, plain, bframes;
    const bool made =
        generated::MakeStream(raw[0], dir_, "baseline_sei.h264", pics + "-profile:v baseline -bf 0 -g 15") &&
        generated::MakeStream(plain.video, dir_, "plain.h264", "-i " + raw[0].path + noSei) &&
        generated::MakeStream(raw[1], dir_, "bframes_sei.h264", pics + "-preset ultrafast -bf 2 -g 30", true) &&
        generated::MakeStream(bframes.video, dir_, "bframes.h264", "-i " + raw[1].path + noSei, true) &&
        generated::MakeStream(plain.audio, dir_, "tone.aac",
                              "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=5 -ac 2") &&
        generated::MakeStream(bframes.audio, dir_, "mono.aac",
                              "-f lavfi -i sine=frequency=330:sample_rate=44100:duration=5 -ac 1 -b:a 64k") &&
        generated::MakeStream(sample.video, dir_, samples + "sample.h264", "", true) &&
        generated::MakeStream(sample.audio, dir_, samples + "sample.aac", "");
    if (!made) {
      why_ = "ffmpeg cannot make the test streams (libx264 and the AAC encoder are needed)";
      return;
    }
    sources_ = {{"sample", sample}, {"plain", plain}, {"bframes", bframes}};
    for (auto& s : sources_) {
      s.second.pictures = generated::FrameMd5s(s.second.video.path, "v");
      s.second.sound = generated::FrameMd5s(s.second.audio.path, "a");
      // The plain recording of the same streams, the reference each fragmented one is held against.
      if (RunTool("record -o " + Path(s.first + ".plain.mp4") + Args(s.second)).status != 0) {
        why_ = "the plain recording of " + s.first + " failed";
        return;
      }
    }
    for (const RecCase& c : kRecordings) {
      const std::string out = Path(std::string(c.name) + ".mp4");
      if (RunTool("record --fragmented -o " + out + " " + c.options + Args(sources_[c.source])).status != 0 ||
          !fragmented::WriteFile(Path(std::string(c.name) + ".noindex.mp4"), fragmented::WithoutIndex(ReadWhole(out)))) {
        why_ = std::string("the fragmented recording ") + c.name + " failed";
        return;
      }
    }
    ready_ = true;
  }
  static void TearDownTestSuite() {
    if (!dir_.empty()) Shell("rm -rf " + dir_);
  }
  void SetUp() override {
    if (dir_.empty()) GTEST_SKIP() << why_;
    ASSERT_TRUE(ready_) << why_;
  }
  static std::string Args(const Src& s) { return " --video " + s.video.path + " --audio " + s.audio.path; }
  static std::string Path(const std::string& name) { return dir_ + "/" + name; }
  static std::string dir_, why_;
  static bool ready_;
  static std::map<std::string, Src> sources_;
};
std::string FragmentedOwn::dir_, FragmentedOwn::why_;
bool FragmentedOwn::ready_ = false;
std::map<std::string, Src> FragmentedOwn::sources_;

// Each packet as the plain recording gives it: bytes, size and key flag, in the same number; the
// pictures those of the source. Times are the sum of the whole-ms durations before (the fragment
// reader's rule), where the plain file's tables give exact times. Without the index the file plays
// the same, packet line for packet line, and "seek" is refused with the engine's message.
TEST_F(FragmentedOwn, RecordingsPlayPacketForPacketWithAndWithoutTheIndex) {
  for (const RecCase& c : kRecordings) {
    SCOPED_TRACE(c.name);
    const Src& src = sources_[c.source];
    const std::string plain = Path(std::string(c.source) + ".plain.mp4"), file = Path(std::string(c.name) + ".mp4");
    const std::string pv = plain + ".h264", pa = plain + ".aac", fv = file + ".h264", fa = file + ".aac";
    const Played ref = Play(plain + " --video-out " + pv + " --audio-out " + pa);
    const Played got = Play(file + " --video-out " + fv + " --audio-out " + fa);
    ASSERT_EQ(ref.run.status, 0) << ref.run.err;
    ASSERT_EQ(got.run.status, 0) << got.run.err;
    EXPECT_NE(got.run.out.find("\neos clock="), std::string::npos);
    ASSERT_EQ(static_cast<long long>(got.video.size()), src.video.frames);
    ASSERT_EQ(got.video.size(), ref.video.size());
    ASSERT_EQ(got.audio.size(), ref.audio.size());
    ASSERT_FALSE(got.audio.empty());
    for (size_t i = 0; i < got.video.size(); ++i) {
      EXPECT_EQ(got.video[i].size, ref.video[i].size) << i;
      EXPECT_EQ(got.video[i].key, ref.video[i].key) << i;
    }
    for (size_t i = 0; i < got.audio.size(); ++i) EXPECT_EQ(got.audio[i].size, ref.audio[i].size) << i;
    EXPECT_TRUE(ReadWhole(fv) == ReadWhole(pv)) << "the video bytes of the plain recording";
    EXPECT_TRUE(ReadWhole(fa) == ReadWhole(pa)) << "the sound of the plain recording";
    EXPECT_EQ(generated::FrameMd5s(fv, "v"), src.pictures);
    const std::vector<std::string> sound = generated::FrameMd5s(fa, "a");
    ASSERT_LE(sound.size(), src.sound.size());
    EXPECT_EQ(sound, std::vector<std::string>(src.sound.begin(), src.sound.begin() + static_cast<long>(sound.size())));

    const std::string bytes = ReadWhole(file);
    const long long scale = TimeScale(file, "v");
    ASSERT_GT(scale, 0);
    const std::vector<uint32_t> durations = fragmented::SampleDurations(bytes, 1);
    ASSERT_EQ(durations.size(), got.video.size());
    long long expected = 0;
    for (size_t i = 0; i < got.video.size(); ++i) {
      EXPECT_EQ(Ms(got.video[i].time), expected) << i;
      expected += std::llround(static_cast<double>(durations[i]) * 1000 / scale);
    }

    const std::string cut = Path(std::string(c.name) + ".noindex.mp4");
    const Played bare = Play(cut);
    ASSERT_EQ(bare.run.status, 0) << bare.run.err;
    ASSERT_EQ(bare.video.size(), got.video.size());
    ASSERT_EQ(bare.audio.size(), got.audio.size());
    for (size_t i = 0; i < bare.video.size(); ++i) EXPECT_EQ(bare.video[i].line, got.video[i].line);
    for (size_t i = 0; i < bare.audio.size(); ++i) EXPECT_EQ(bare.audio[i].line, got.audio[i].line);
    const Played refused = Play(cut + " --seek 1500", "--log-level I ");
    ASSERT_EQ(refused.run.status, 0) << refused.run.err;
    EXPECT_NE(refused.run.out.find("seek ms=1500 refused\n"), std::string::npos) << refused.run.out;
    EXPECT_NE(refused.run.err.find("no mfra box"), std::string::npos);
    EXPECT_EQ(refused.video.size(), got.video.size()) << "the play goes on from where it was";
  }
}

// With the index each track finds its own fragment: coming from the first packet (the video at its
// second fragment) a later time lands on the first fragment at or after it, an earlier one on the
// last at or before it, a time beyond the file on the last. The video goes on at the time the index
// lists, with the rest of the file from there.
TEST_F(FragmentedOwn, SeekLandsOnTheFragmentOurIndexLists) {
  for (const char* name : {"sample_gop", "plain_gop", "bframes_gop"}) {
    SCOPED_TRACE(name);
    const std::string file = Path(std::string(name) + ".mp4");
    const std::string bytes = ReadWhole(file);
    const std::vector<fragmented::IndexTrack> index = fragmented::ReadIndex(bytes);
    ASSERT_EQ(index.size(), 2u);
    ASSERT_EQ(index[0].track, 1u);
    const size_t n = index[0].entries.size();
    ASSERT_GE(n, 4u);
    const long long scale = TimeScale(file, "v");
    ASSERT_GT(scale, 0);
    std::vector<long long> listed;  // ms
    std::vector<size_t> rest;       // video samples from each listed fragment to the end
    const fragbytes::File f = fragbytes::Read(fragoracle::Load(file));
    for (const auto& e : index[0].entries) {
      listed.push_back(std::llround(static_cast<double>(e.first) * 1000 / scale));
      size_t count = 0;
      for (const fragbytes::Fragment& g : f.fragments)
        if (g.track == 1 && g.pos >= e.second) count += g.samples.size();
      rest.push_back(count);
    }
    ASSERT_EQ(listed[0], 0);
    ASSERT_EQ(rest[0], static_cast<size_t>(sources_[std::string(name).substr(0, std::string(name).find('_'))].video.frames));
    const struct {
      long long seek;
      size_t fragment;
    } cases[] = {
        {listed[2] + 100, 3},      // later: the next listed
        {listed[n - 2], n - 2},    // a listed time itself
        {listed[1] - 100, 0},      // earlier: the one before
        {listed[1], 1},            // where it stands
        {99999999, n - 1},         // beyond the end: the last
    };
    for (const auto& c : cases) {
      SCOPED_TRACE(c.seek);
      const Played p = Play(file + " --seek " + std::to_string(c.seek));
      ASSERT_EQ(p.run.status, 0) << p.run.err;
      EXPECT_NE(p.run.out.find("seek ms=" + std::to_string(c.seek) + "\n"), std::string::npos);
      ASSERT_GE(p.video.size(), 2u);
      EXPECT_EQ(Ms(p.video[0].time), 0);
      EXPECT_EQ(Ms(p.video[1].time), listed[c.fragment]);
      EXPECT_TRUE(p.video[1].key);
      EXPECT_EQ(p.video.size(), 1 + rest[c.fragment]);
    }
  }
}

// Remux chains between the three forms: each step decodes frame for frame like the first file, and
// is fragmented exactly when asked.
TEST_F(FragmentedOwn, RemuxChainsKeepEveryFrame) {
  ASSERT_EQ(RunTool("record -o " + Path("bframes.mov") + Args(sources_["bframes"])).status, 0);
  const struct Step {
    const char* out;
    const char* options;
    bool fragmented;
  } fmp4ToMp4ToFmp4[] = {{"a1.mp4", "", false}, {"a2.mp4", "--fragmented", true}},
    cutToMovToFmp4[] = {{"b1.mov", "", false}, {"b2.mp4", "--format fmp4 --fragment-ms 2000", true}},
    movToFmp4ToMp4[] = {{"c1.mp4", "--fragmented", true}, {"c2.mp4", "", false}, {"c3.mov", "", false}},
    mp4ToFmp4ToMov[] = {{"d1.mp4", "--format fmp4", true}, {"d2.mov", "", false}},
    fmp4ToFmp4[] = {{"e1.mp4", "--fragmented --fragment-ms 500", true}, {"e2.mp4", "--fragmented", true}};
  const struct {
    const char* name;
    std::string first;
    std::string truth;  // the file whose frames every step must give
    const Step* steps;
    size_t count;
  } chains[] = {
      {"fmp4 > mp4 > fmp4", Path("plain_gop.mp4"), Path("plain_gop.mp4"), fmp4ToMp4ToFmp4, 2},
      // Without the index ffmpeg misplaces the later fragments: the whole file is the judge.
      {"fmp4 cut off > mov > fmp4", Path("bframes_gop.noindex.mp4"), Path("bframes_gop.mp4"), cutToMovToFmp4, 2},
      {"mov > fmp4 > mp4 > mov", Path("bframes.mov"), Path("bframes.mov"), movToFmp4ToMp4, 3},
      {"mp4 > fmp4 > mov", Path("sample.plain.mp4"), Path("sample.plain.mp4"), mp4ToFmp4ToMov, 2},
      {"fmp4 > fmp4 > fmp4", Path("sample_gop.mp4"), Path("sample_gop.mp4"), fmp4ToFmp4, 2},
  };
  for (const auto& chain : chains) {
    SCOPED_TRACE(chain.name);
    const std::vector<std::string> pictures = Frames(chain.truth, "v"), sound = Frames(chain.truth, "a");
    ASSERT_FALSE(pictures.empty());
    ASSERT_FALSE(sound.empty());
    std::string in = chain.first;
    for (size_t i = 0; i < chain.count; ++i) {
      const Step& s = chain.steps[i];
      SCOPED_TRACE(s.out);
      const std::string out = Path(s.out);
      const ToolResult r = RunTool("remux " + in + " " + out + " " + s.options);
      ASSERT_EQ(r.status, 0) << r.err;
      const std::string types = TopTypes(out);
      EXPECT_EQ(types.find("moof") != std::string::npos, s.fragmented) << types;
      EXPECT_EQ(types.size() > 5 && types.compare(types.size() - 5, 5, ",mfra") == 0, s.fragmented) << types;
      EXPECT_EQ(Frames(out, "v"), pictures);
      EXPECT_EQ(Frames(out, "a"), sound);
      in = out;
    }
  }
}

// The fragment settings of remux: refused where they do not apply, and their length kept.
TEST_F(FragmentedOwn, RemuxFragmentOptions) {
  const std::string in = Path("plain_gop.mp4");
  const struct {
    std::string args;
    int status;
    const char* says;
  } usage[] = {
      {"remux " + in + " " + Path("u1.mp4") + " --fragment-ms 500", 2, "--fragment-ms needs --fragmented"},
      {"remux " + in + " " + Path("u2.mov") + " --fragmented --format mov", 2, "--fragmented writes MP4, not mov"},
      {"remux " + in + " " + Path("u3.mp4") + " --fragmented --fragment-ms 0", 2, "--fragment-ms"},
      {"remux " + in + " " + Path("u4.mp4") + " --format fmp5", 2, "--format"},
  };
  for (const auto& c : usage) {
    SCOPED_TRACE(c.args);
    const ToolResult r = RunTool(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
  }
  // One fragment a GOP (0.5 s) by default. With a length, a fragment ends at the first key frame
  // that starts past it: the one at 2.5 s for 2 s (the key frame at exactly 2 s ends none).
  const struct {
    const char* options;
    size_t videoFragments;
  } lengths[] = {{"--fragmented", 10}, {"--fragmented --fragment-ms 2000", 2}, {"--fragmented --fragment-ms 1900", 3}};
  for (const auto& c : lengths) {
    SCOPED_TRACE(c.options);
    const std::string out = Path("len.mp4");
    ASSERT_EQ(RunTool("remux " + in + " " + out + " " + c.options).status, 0);
    const fragbytes::File f = fragbytes::Read(fragoracle::Load(out));
    size_t video = 0;
    for (const fragbytes::Fragment& g : f.fragments) video += g.track == 1;
    EXPECT_EQ(video, c.videoFragments);
  }
  const std::string help = RunTool("remux --help").out;
  EXPECT_NE(help.find("--fragmented"), std::string::npos);
  EXPECT_NE(help.find("mov|mp4|fmp4"), std::string::npos);
}

}  // namespace
