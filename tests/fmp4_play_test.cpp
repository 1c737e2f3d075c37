// Fragmented files through the demuxer element and the command-line host: ffmpeg's files with and
// without their index, with the index rewritten in this system's shape, cut off at random lengths,
// changed by hand where one rule of the reader needs it; our own recordings; their length through the
// information object; remux chains between mov, mp4 and fragmented mp4.
//
// Our files are decoded with "-use_mfra_for dts": ffmpeg takes a fragment's start from a tfdt it has
// already read, and ours stands behind trun, so by default it misplaces every later fragment.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "stream/base/io/IO.h"
#include "stream/base/reflect/Object.h"
#include "stream/plugin/mp4/core/demux/FMp4Parser.h"
#include "tests/FragmentOracles.h"
#include "tests/FragmentedFiles.h"
#include "tests/LogCapture.h"
#include "tests/PlayRig.h"

namespace {

using namespace fragmented;

struct PacketLine {
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
    PacketLine l{Field(line, "pts_time"), static_cast<long long>(Field(line, "size")),
                 line.find("|flags=K") != std::string::npos};
    (line.find("codec_type=video") != std::string::npos ? p.video : p.audio).push_back(l);
  }
  return p;
}

long long Ms(double seconds) { return std::llround(seconds * 1000); }

// A track's time scale ("v" or "a").
long long TimeBase(const std::string& file, const char* kind) {
  const std::string base = Capture("ffprobe -v error -select_streams " + std::string(kind) +
                                   " -show_entries stream=time_base -of csv=p=0 " + file);
  const size_t slash = base.find('/');
  return slash == std::string::npos ? 0 : std::atoll(base.c_str() + slash + 1);
}

class FragmentedPlay : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = generated::ScratchDir("bw_fplay_", why_);
    if (dir_.empty()) return;
    // ffmpeg's files: its own index (version 1), base offsets from the moof, no index, the index
    // rewritten in our shape; its plain copy. Streams of our own recordings, fragmented and plain.
    const std::string frag = Path("frag.mp4"), bf = "-f lavfi -i testsrc2=size=160x120:rate=30 -frames:v 150 "
        "-pix_fmt yuv420p -c:v libx264 -preset ultrafast -bf 2 -g 30 -bsf:v filter_units=remove_types=6 -f h264 ";
    made_ = MakeFragmented(frag, "") && MakeFragmented(Path("base.mp4"), "+default_base_moof") &&
            Shell("ffmpeg -nostdin -v error -y -i " + frag + " -c copy " + Path("plain.mp4")) &&
            Shell("ffmpeg -nostdin -v error -y " + bf + Path("bframes.h264")) &&
            Shell("ffmpeg -nostdin -v error -y -f lavfi -i sine=frequency=330:sample_rate=44100:duration=5 -ac 1 "
                  "-b:a 64k -c:a aac -f adts " + Path("mono.aac"));
    if (!made_) {
      why_ = "ffmpeg cannot make the test files (libx264 and the AAC encoder are needed)";
      return;
    }
    const std::string samples = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/";
    const std::string sample = " --video " + samples + "sample.h264 --audio " + samples + "sample.aac";
    const std::string bframes = " --video " + Path("bframes.h264") + " --audio " + Path("mono.aac");
    for (const std::string& args : {"-o " + Path("sample.plain.mov") + sample, "--fragmented -o " + Path("sample_gop.mp4") + sample,
                                    "-o " + Path("bframes.plain.mp4") + bframes,
                                    "--fragmented --fragment-ms 2000 -o " + Path("bframes_2s.mp4") + bframes})
      if (RunTool("record " + args).status != 0) {
        why_ = "record " + args + " failed";
        return;
      }
    const std::string b = ReadWhole(frag);
    ready_ = WriteFile(Path("noindex.mp4"), WithoutIndex(b)) && WriteFile(Path("indexed.mp4"), WithOwnIndex(b)) &&
             WriteFile(Path("sample_gop.noindex.mp4"), WithoutIndex(ReadWhole(Path("sample_gop.mp4")))) &&
             WriteFile(Path("bframes_2s.noindex.mp4"), WithoutIndex(ReadWhole(Path("bframes_2s.mp4"))));
  }
  static void TearDownTestSuite() {
    if (!dir_.empty()) Shell("rm -rf " + dir_);
  }
  void SetUp() override {
    if (dir_.empty() || !made_) GTEST_SKIP() << why_;
    ASSERT_TRUE(ready_) << why_;
  }
  static std::string Path(const std::string& name) { return dir_ + "/" + name; }
  static std::string dir_, why_;
  static bool made_, ready_;
};
std::string FragmentedPlay::dir_, FragmentedPlay::why_;
bool FragmentedPlay::made_ = false, FragmentedPlay::ready_ = false;

// Every packet as the plain file of the same streams gives it (bytes, sizes, key flags), in the same
// number; times the sum of the durations before, each in whole ms, where the plain file's tables give
// exact times. Only an index of our shape lets the element seek; a refused seek leaves the play going
// on from where it was.
TEST_F(FragmentedPlay, FilesPlayAsTheirPlainCopyWithSeekOnlyByTheirOwnIndex) {
  const struct {
    const char* file;
    const char* plain;
    bool seekable;
    const char* note;  // a log line the element leaves on the way
  } cases[] = {
      {"frag.mp4", "plain.mp4", false, "tfra of another shape: version 1"},
      {"base.mp4", "plain.mp4", false, "tfra of another shape: version 1"},
      {"noindex.mp4", "plain.mp4", false, "!FindMfraBoxOffset(io)"},
      {"indexed.mp4", "plain.mp4", true, ""},
      {"sample_gop.mp4", "sample.plain.mov", true, ""},
      {"sample_gop.noindex.mp4", "sample.plain.mov", false, "no mfra box"},
      {"bframes_2s.mp4", "bframes.plain.mp4", true, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string file = Path(c.file), ref = Path(c.plain);
    const Played plain = Play(ref + " --video-out " + ref + ".h264 --audio-out " + ref + ".aac");
    const Played p = Play(file + " --video-out " + file + ".h264 --audio-out " + file + ".aac");
    ASSERT_EQ(plain.run.status, 0) << plain.run.err;
    ASSERT_EQ(p.run.status, 0) << p.run.err;
    EXPECT_NE(p.run.out.find("\neos clock="), std::string::npos);
    ASSERT_EQ(p.video.size(), plain.video.size());
    ASSERT_EQ(p.audio.size(), plain.audio.size());
    ASSERT_GT(p.audio.size(), 100u);
    EXPECT_TRUE(ReadWhole(file + ".h264") == ReadWhole(ref + ".h264")) << "the video bytes of the plain file";
    EXPECT_TRUE(ReadWhole(file + ".aac") == ReadWhole(ref + ".aac")) << "the sound of the plain file";
    const std::string bytes = ReadWhole(file);
    for (const bool video : {true, false}) {
      const std::vector<PacketLine>& got = video ? p.video : p.audio;
      const std::vector<PacketLine>& want = video ? plain.video : plain.audio;
      const std::vector<TrackSample> samples = TrackSamples(bytes, video ? 1 : 2);
      const double scale = static_cast<double>(TimeBase(file, video ? "v" : "a"));
      ASSERT_EQ(samples.size(), got.size());
      long long expected = 0;
      for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].size, want[i].size) << video << " " << i;
        EXPECT_EQ(got[i].key, want[i].key) << video << " " << i;
        EXPECT_EQ(Ms(got[i].time), expected) << video << " " << i;
        expected += std::llround(samples[i].duration * 1000 / scale);
      }
    }
    const Played seek = Play(file + " --seek 1700", "--log-level I ");
    ASSERT_EQ(seek.run.status, 0) << seek.run.err;
    EXPECT_NE(seek.run.err.find(c.note), std::string::npos) << c.note;
    EXPECT_NE(seek.run.out.find(c.seekable ? "seek ms=1700\n" : "seek ms=1700 refused\n"), std::string::npos)
        << seek.run.out;
    if (!c.seekable) {
      EXPECT_EQ(seek.video.size(), p.video.size());
    }
  }
}

// With the index each track finds its own fragment: coming from the first packet (the video at its
// second fragment) a later time lands on the first fragment at or after it, an earlier one on the
// last at or before it, a time beyond the file on the last. The video goes on at the time the index
// lists (ffmpeg's start half a sound frame late), with the rest of the file from there.
TEST_F(FragmentedPlay, SeekLandsOnTheFragmentTheIndexLists) {
  for (const char* name : {"indexed.mp4", "sample_gop.mp4"}) {
    SCOPED_TRACE(name);
    const std::string file = Path(name), bytes = ReadWhole(file);
    const std::vector<IndexTrack> index = ReadIndex(bytes);
    ASSERT_EQ(index.size(), 2u);
    ASSERT_EQ(index[0].track, 1u);
    const size_t n = index[0].entries.size();
    ASSERT_GE(n, 4u);
    const double scale = static_cast<double>(TimeBase(file, "v"));
    const std::vector<TrackSample> video = TrackSamples(bytes, 1);
    std::vector<long long> listed;  // ms
    std::vector<size_t> rest;       // video samples from each listed fragment to the end
    for (const auto& e : index[0].entries) {
      listed.push_back(std::llround(static_cast<double>(e.first) * 1000 / scale));
      rest.push_back(static_cast<size_t>(
          std::count_if(video.begin(), video.end(), [&](const TrackSample& s) { return s.moof >= e.second; })));
    }
    ASSERT_EQ(listed[0], 0);
    ASSERT_EQ(rest[0], video.size());
    const struct {
      long long seek;
      size_t fragment;  // where the video goes on
    } cases[] = {
        {listed[2] + 100, 3},    // later: the next listed
        {listed[n - 2], n - 2},  // a listed time itself
        {listed[1] - 100, 0},    // earlier: the one before
        {listed[1], 1},          // where it stands
        {99999999, n - 1},       // beyond the end: the last
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

// Cut at random lengths, the file plays every packet of every fragment before the cut. A cut in a
// fragment's header or between fragments ends the run with "eos"; one in the media of a fragment
// whose header is whole ends it with "error" at the first frame that is not there. Each packet that
// arrives is the one the whole file gives at its place.
TEST_F(FragmentedPlay, CutFilesPlayEveryWholeFragmentThenEnd) {
  const std::string whole = ReadWhole(Path("frag.mp4"));
  playtest::Player full(Path("frag.mp4"));
  ASSERT_EQ(full.Run(), "eos");
  const std::vector<playtest::Got> all = full.sink.Packets();
  // Where each fragment's header and media end, and its packets in the whole run's order.
  struct Fragment {
    size_t moofEnd, mdatEnd;
    size_t video, audio;
  };
  std::vector<Fragment> fragments;
  for (const fragbytes::Fragment& g : fragbytes::Read(whole).fragments) {
    if (fragments.empty() || fragments.back().moofEnd != g.pos + g.moofSize)
      fragments.push_back({g.pos + g.moofSize, g.mdatPos + g.mdatSize, 0, 0});
    (g.track == 1 ? fragments.back().video : fragments.back().audio) += g.samples.size();
  }
  ASSERT_EQ(fragments.size(), 8u);
  // 200 random lengths, and for each fragment one inside its header and one at its end.
  std::mt19937 random(20261124);
  std::uniform_int_distribution<size_t> length(0, whole.size() - 1);
  std::vector<size_t> cuts;
  for (int run = 0; run < 200; ++run) cuts.push_back(length(random));
  for (const Fragment& f : fragments) {
    cuts.push_back(f.moofEnd - 100);
    cuts.push_back(f.mdatEnd);
  }
  int errors = 0, ends = 0;
  for (const size_t cut : cuts) {
    SCOPED_TRACE("cut at " + std::to_string(cut));
    size_t k = 0, before = 0;
    for (; k < fragments.size() && fragments[k].mdatEnd <= cut; ++k) before += fragments[k].video + fragments[k].audio;
    const bool error = k < fragments.size() && fragments[k].moofEnd <= cut;
    const std::vector<unsigned char> bytes(whole.begin(), whole.begin() + static_cast<long>(cut));
    playtest::Player p("mem://cut", new playtest::CountingIO(bytes));
    const std::string end = p.Run();
    const std::vector<playtest::Got> got = p.sink.Packets();
    // Until the first fragment is whole the file is not seen as fragmented; there is nothing to play.
    if (cut < fragments[0].moofEnd) {
      EXPECT_TRUE(end == "open failed" || end == "eos") << end;
      EXPECT_TRUE(got.empty());
      continue;
    }
    EXPECT_EQ(end, error ? "error" : "eos");
    if (error) {
      size_t earlier = 0;  // the fragments before the one before the cut: their time is all over
      for (size_t i = 0; i + 1 < k; ++i) earlier += fragments[i].video + fragments[i].audio;
      EXPECT_GE(got.size(), earlier);
      ++errors;
    } else {
      EXPECT_EQ(got.size(), before);
      ++ends;
    }
    // Each packet is the whole run's packet of the same track and number.
    size_t nv = 0, na = 0;
    std::vector<const playtest::Got*> video, audio;
    for (const playtest::Got& g : all) (g.video ? video : audio).push_back(&g);
    for (const playtest::Got& g : got) {
      const std::vector<const playtest::Got*>& track = g.video ? video : audio;
      size_t& n = g.video ? nv : na;
      ASSERT_LT(n, track.size());
      EXPECT_EQ(g.size, track[n]->size);
      EXPECT_EQ(g.ms, track[n]->ms);
      EXPECT_EQ(g.head, track[n]->head);
      ++n;
    }
  }
  EXPECT_GT(errors, 20) << "cuts in the media of fragments";
  EXPECT_GT(ends, 15) << "cuts in headers and between fragments";
}

// Files changed in one place each, against the whole file's packets.
TEST_F(FragmentedPlay, HandShapedFilesFollowTheReaderRules) {
  const std::string whole = ReadWhole(Path("frag.mp4"));
  const std::vector<TopBox> top = TopLevel(whole);
  ASSERT_GE(top.size(), 4u);
  ASSERT_EQ(top[2].type, "moof");
  // The first fragment's video track fragment header, and its count.
  const TopBox videoTraf = Children(whole, top[2])[1];
  ASSERT_EQ(videoTraf.type, "traf");
  ASSERT_EQ(Be32(whole, videoTraf.pos + 20), 1u);
  const std::vector<TopBox> inVideoTraf = Children(whole, videoTraf);
  const size_t firstVideo = Be32(whole, inVideoTraf.back().pos + 12);
  ASSERT_EQ(firstVideo, 15u);

  std::string unknownTrack = WithoutIndex(whole);
  SetBe32(unknownTrack, videoTraf.pos + 20, 9);
  std::string bigTail = WithoutIndex(whole);
  SetBe32(bigTail, bigTail.size() - 4, 0xfffffff0u);
  const struct {
    const char* name;
    std::string bytes;
    const char* end;
    size_t video, audio;  // packets
    bool seek;            // "seek" accepted
    const char* log;
  } cases[] = {
      {"a fragment of a track the file does not have is skipped", unknownTrack, "eos", 120 - firstVideo, 188, false,
       "no mfra box"},
      {"a last word larger than the file", bigTail, "eos", 120, 188, false, "videoszie<=mfrasize"},
      {"an index for the video only: the sound ends at once", WithOwnIndex(whole, [](uint32_t t) { return t == 1; }),
       "eos", 120, 0, true, "!_moofItems"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log(kiv::dbg::I);
    const std::vector<unsigned char> bytes(c.bytes.begin(), c.bytes.end());
    playtest::Player p("mem://shaped", new playtest::CountingIO(bytes));
    ASSERT_TRUE(p.dmx && p.linked);
    const std::string end = p.Run();
    EXPECT_EQ(end, c.end);
    size_t video = 0, audio = 0;
    for (const playtest::Got& g : p.sink.Packets()) ++(g.video ? video : audio);
    EXPECT_EQ(video, c.video);
    if (c.audio != 188) {
      EXPECT_EQ(audio, c.audio);
    } else {
      EXPECT_GT(audio, 180u);
    }
    EXPECT_EQ(p.dmx->Set("seek", 1000LL), c.seek);
    if (*c.log) {
      EXPECT_TRUE(log.Has(c.log)) << c.log;
    }
  }
  // A file too short to end in an index of any size.
  LogCapture log(kiv::dbg::I);
  kiv::base::IOBuffer tiny;
  tiny.Write("\0\0\0\x08", 4);
  kiv::plugin::mov::FMp4Parser parser;
  EXPECT_FALSE(parser.FindMfraBoxOffset(tiny));
  EXPECT_TRUE(log.Has("videoszie<=4"));
}

// The length from "mehd" (version 0 and 1, in the movie's time scale), 0 without one; the object
// reads the file once: after the file is gone it still answers.
TEST_F(FragmentedPlay, InfoGivesTheLengthTheMovieExtendsHeaderHolds) {
  const std::string whole = ReadWhole(Path("frag.mp4"));
  const std::vector<TopBox> top = TopLevel(whole);
  ASSERT_EQ(top[1].type, "moov");
  const uint32_t timescale = Be32(whole, top[1].pos + 8 + 20);  // mvhd version 0: its time scale
  ASSERT_GT(timescale, 0u);
  // "mehd" put first into "mvex"; moov and mvex grow by its size.
  auto withMehd = [&](int version, uint64_t duration) {
    std::string mehd;
    PutBe32(mehd, version ? 20 : 16);
    mehd += "mehd";
    PutBe32(mehd, version ? 0x01000000u : 0);
    if (version) PutBe32(mehd, static_cast<uint32_t>(duration >> 32));
    PutBe32(mehd, static_cast<uint32_t>(duration));
    std::string b = whole;
    const size_t mvex = b.find("mvex") - 4;
    b.insert(mvex + 8, mehd);
    SetBe32(b, mvex, Be32(b, mvex) + static_cast<uint32_t>(mehd.size()));
    SetBe32(b, top[1].pos, Be32(b, top[1].pos) + static_cast<uint32_t>(mehd.size()));
    return b;
  };
  const struct {
    const char* name;
    std::string bytes;
    unsigned long long ms;
  } cases[] = {{"no mehd", whole, 0},
               {"version 0", withMehd(0, 4ull * timescale + timescale / 4), 4250},
               {"version 1, beyond 32 bits", withMehd(1, (1ull << 33) * timescale / 1000), (1ull << 33)}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = Path("info.mp4");
    ASSERT_TRUE(WriteFile(path, c.bytes));
    kiv::base::AttrSet ap;
    kiv::base::Object::AttrSetInit(ap, nullptr, "FMp4Info-fmp4-info");
    std::unique_ptr<kiv::base::Object> info(kiv::base::Object::New<kiv::base::Object>(ap));
    ASSERT_TRUE(info);
    ASSERT_TRUE(info->setString("url", path.c_str()));
    for (const char* when : {"", "with the file gone"}) {
      unsigned long long ms = 1;
      ASSERT_TRUE(info->Get("duration", ms));
      EXPECT_EQ(ms, c.ms) << when;
      Shell("rm -f " + path);
    }
    // The command line says it in its summary.
    if (c.ms && c.ms < 100000) {
      ASSERT_TRUE(WriteFile(path, c.bytes));
      const ToolResult r = RunTool("info --summary " + path);
      EXPECT_NE(r.out.find("fragmented, duration 4.250 s"), std::string::npos) << r.out;
      EXPECT_EQ(r.err.find("BpSC|"), std::string::npos) << "no raw log lines\n" << r.err;
    }
  }
}

// Remux chains between the three forms: each step decodes frame for frame like the file that is the
// judge, and is fragmented exactly when asked.
TEST_F(FragmentedPlay, RemuxChainsKeepEveryFrame) {
  const struct Step {
    const char* out;
    const char* options;
    bool fragmented;
  } ffmpegsToMovToFmp4[] = {{"a1.mov", "", false}, {"a2.mp4", "--fragmented", true}},
    cutToMp4[] = {{"b1.mp4", "", false}},
    movToFmp4ToFmp4[] = {{"c1.mp4", "--format fmp4 --fragment-ms 500", true}, {"c2.mp4", "--fragmented", true}},
    mp4ToFmp4ToMov[] = {{"d1.mp4", "--fragmented", true}, {"d2.mov", "", false}};
  const struct {
    const char* name;
    const char* first;
    const char* truth;  // the file whose frames every step must give
    const Step* steps;
    size_t count;
  } chains[] = {
      // ffmpeg's fragmented files have no edit list: every sound frame is heard in all.
      {"ffmpeg's fmp4 without index > mov > fmp4", "noindex.mp4", "frag.mp4", ffmpegsToMovToFmp4, 2},
      // Without the index ffmpeg misplaces the later fragments: the whole file is the judge.
      {"fmp4 cut off > mp4", "bframes_2s.noindex.mp4", "bframes_2s.mp4", cutToMp4, 1},
      {"mov > fmp4 > fmp4", "sample.plain.mov", "sample.plain.mov", movToFmp4ToFmp4, 2},
      {"mp4 > fmp4 > mov", "bframes.plain.mp4", "bframes.plain.mp4", mp4ToFmp4ToMov, 2},
  };
  for (const auto& chain : chains) {
    SCOPED_TRACE(chain.name);
    const std::vector<std::string> pictures = fragoracle::FrameMd5s(Path(chain.truth), "v", "-use_mfra_for dts"),
                                   sound = fragoracle::FrameMd5s(Path(chain.truth), "a", "-use_mfra_for dts");
    ASSERT_FALSE(pictures.empty());
    ASSERT_FALSE(sound.empty());
    std::string in = Path(chain.first);
    for (const Step* s = chain.steps; s != chain.steps + chain.count; ++s) {
      SCOPED_TRACE(s->out);
      const std::string out = Path(s->out);
      const ToolResult r = RunTool("remux " + in + " " + out + " " + s->options);
      ASSERT_EQ(r.status, 0) << r.err;
      const fragbytes::File f = fragbytes::Read(fragoracle::Load(out));
      EXPECT_EQ(!f.fragments.empty(), s->fragmented) << f.types();
      EXPECT_EQ(!f.top.empty() && f.top.back().type == "mfra", s->fragmented) << f.types();
      EXPECT_EQ(fragoracle::FrameMd5s(out, "v", "-use_mfra_for dts"), pictures);
      EXPECT_EQ(fragoracle::FrameMd5s(out, "a", "-use_mfra_for dts"), sound);
      in = out;
    }
  }
}

// The fragment settings of remux: refused where they do not apply, and their length kept: one
// fragment a GOP (0.5 s) by default; with a length, a fragment ends at the first key frame past it.
TEST_F(FragmentedPlay, RemuxFragmentOptions) {
  const std::string in = Path("plain.mp4");
  const struct {
    const char* options;
    const char* says;    // on stderr when refused
    size_t videoFragments;
  } cases[] = {
      {"--fragment-ms 500", "--fragment-ms needs --fragmented", 0},
      {"--fragmented --format mov", "--fragmented writes MP4, not mov", 0},
      {"--fragmented --fragment-ms 0", "--fragment-ms", 0},
      {"--format fmp5", "--format", 0},
      {"--fragmented", "", 8},
      {"--fragmented --fragment-ms 1400", "", 3},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options);
    const std::string out = Path("len.mp4");
    Shell("rm -f " + out);
    const ToolResult r = RunTool("remux " + in + " " + out + " " + c.options);
    EXPECT_EQ(r.status, *c.says ? 2 : 0) << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    if (c.videoFragments) {
      const std::vector<TrackSample> video = TrackSamples(ReadWhole(out), 1);
      std::vector<size_t> moofs;
      for (const TrackSample& s : video) moofs.push_back(s.moof);
      EXPECT_EQ(static_cast<size_t>(std::unique(moofs.begin(), moofs.end()) - moofs.begin()), c.videoFragments);
    }
  }
  const std::string help = RunTool("remux --help").out;
  EXPECT_NE(help.find("--fragmented"), std::string::npos);
  EXPECT_NE(help.find("mov|mp4|fmp4"), std::string::npos);
}

// The options of play on fragmented files: the thumbnail through the element, a play range.
TEST_F(FragmentedPlay, PlayOptionsWorkOnFragmentedFiles) {
  // A thumbnail box in front of the first fragment: the element gives it.
  const std::string whole = ReadWhole(Path("indexed.mp4"));
  const std::vector<TopBox> top = TopLevel(whole);
  ASSERT_EQ(top[2].type, "moof");
  std::string jpeg = "\xff\xd8\xff\xe0";
  for (int i = 0; i < 300; ++i) jpeg += static_cast<char>(i * 7);
  std::string thum;
  PutBe32(thum, static_cast<uint32_t>(8 + jpeg.size()));
  thum += "thum" + jpeg;
  // Moved by the box: the index's positions and the runs' base positions would have to follow, so
  // the file with a thumbnail has no index and plays from the head.
  std::string thumbed = WithoutIndex(whole);
  thumbed.insert(top[2].pos, thum);
  for (const TopBox& moof : TopLevel(thumbed))
    if (moof.type == "moof")
      for (const TopBox& traf : Children(thumbed, moof))
        for (const TopBox& box : Children(thumbed, traf))
          if (box.type == "tfhd" && (Be32(thumbed, box.pos + 8) & 1))
            SetBe32(thumbed, box.pos + 20, Be32(thumbed, box.pos + 20) + static_cast<uint32_t>(thum.size()));
  ASSERT_TRUE(WriteFile(Path("thumbed.mp4"), thumbed));

  const std::vector<IndexTrack> index = ReadIndex(whole);
  const long long scale = TimeBase(Path("indexed.mp4"), "v");
  ASSERT_GT(scale, 0);
  const long long fifth = std::llround(static_cast<double>(index[0].entries[4].first) * 1000 / scale);
  const struct {
    const char* file;
    std::string args;
    long long firstMs, lastAtMost;  // video times
    size_t video;                   // packets; 0: not checked
    const char* out;                // a text play prints
  } cases[] = {
      {"thumbed.mp4", "--thumb-out " + Path("thumb.jpg"), 0, 4000, 120, "thumbnail: 304 bytes from the element to"},
      {"indexed.mp4", "--from " + std::to_string(fifth - 200), fifth, 4000, 60, ""},
      {"noindex.mp4", "--from 1700", 0, 4000, 120, ""},  // no index: the start cannot move
      {"indexed.mp4", "--to 1000", 0, 1000, 0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.file) + " " + c.args);
    const Played p = Play(Path(c.file) + " " + c.args);
    ASSERT_EQ(p.run.status, 0) << p.run.err;
    ASSERT_FALSE(p.video.empty());
    EXPECT_EQ(Ms(p.video.front().time), c.firstMs);
    EXPECT_LE(Ms(p.video.back().time), c.lastAtMost);
    if (c.video) {
      EXPECT_EQ(p.video.size(), c.video);
    } else {
      EXPECT_GT(Ms(p.video.back().time), c.lastAtMost - 50) << "up to the end of the range";
    }
    if (*c.out) {
      EXPECT_NE(p.run.out.find(c.out), std::string::npos) << p.run.out;
    }
  }
  EXPECT_TRUE(ReadWhole(Path("thumb.jpg")) == jpeg);
}

}  // namespace
