// Fragmented recordings of 16-bit PCM, alone and with H.264, from sources ffmpeg makes at test time:
// the fragments' layout, cut by count or by duration; ffprobe, ffmpeg and GStreamer's qtdemux give
// back every sample as the source has it; a finished file cut short keeps its complete fragments.
// Finished files are decoded with "-use_mfra_for dts" (see fmp4_record_generated_test.cpp: tfdt
// stands behind trun), cut files with tfdt moved in front of trun, as they have no index.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stream/plugin/mp4/common/IMovMuxer.h"
#include "stream/plugin/mp4/core/FMp4Muxer.h"
#include "tests/FragmentOracles.h"
#include "tests/StreamRig.h"

namespace {

using namespace fragoracle;
using fragbytes::File;
using fragbytes::Fragment;

// ---- the track in memory, driven as the element drives the muxer

struct UnitCase {
  const char* name;
  int rate, channels, samples, packets;
  long long dps;  // ns a fragment; 0: the track's own count
  size_t counts[4];  // packets of each fragment, 0 after the last
};

class PcmFragmentUnit : public ::testing::TestWithParam<UnitCase> {};

// Fragment sizes, the default duration, and the tfdt: the length in whole milliseconds of the
// packets before, in track units.
TEST_P(PcmFragmentUnit, CutsAndDecodeTimes) {
  const UnitCase& c = GetParam();
  kiv::base::AttrSet ap;
  kiv::base::Object::AttrSetInit(ap, nullptr, "mp4-muxer-fragment");
  std::unique_ptr<kiv::plugin::mov::FMp4Muxer> mux(kiv::base::Object::New<kiv::plugin::mov::FMp4Muxer>(ap));
  ASSERT_TRUE(mux);
  mux->durationPreSegment.ns = c.dps;
  streamtest::MediaPtr media(kiv::stream::IMedia::New("pcm"));
  media->Set("rate", c.rate);
  media->Set("channel", c.channels);
  media->Set("width", 2);
  media->Set("depth", 16);
  media->Set("samples", c.samples);
  std::vector<kiv::stream::IMedia*> list(1, media.get());
  kiv::base::IOBuffer io;
  kiv::plugin::mov::IMovMuxer& engine = *mux;
  kiv::base::AttrSet open;
  ASSERT_TRUE(engine.Open(io, list, open));
  const size_t bytes = static_cast<size_t>(c.samples ? c.samples : 1) * static_cast<size_t>(c.channels) * 2;
  const long long step = c.samples ? 1000000000LL * c.samples / c.rate : 20 * streamtest::kMs;
  for (int i = 0; i < c.packets; ++i) {
    const Bytes payload(bytes, static_cast<unsigned char>(i));
    streamtest::PacketPtr p = streamtest::MakePacket(media.get(), payload, i * step, step, true);
    ASSERT_TRUE(engine.Process(io, *p)) << i;
  }
  ASSERT_TRUE(engine.Close(io));
  const Bytes file(io.Data(), io.Data() + io.Size());
  const File f = fragbytes::Read(file);
  ASSERT_TRUE(f.whole) << f.types();
  size_t k = 0, before = 0;
  for (; k < 4 && c.counts[k]; ++k) {
    ASSERT_LT(k, f.fragments.size()) << "fragments";
    const Fragment& g = f.fragments[k];
    EXPECT_EQ(g.samples.size(), c.counts[k]) << "fragment " << k;
    EXPECT_EQ(g.defaultDuration, static_cast<uint32_t>(c.samples)) << "fragment " << k;
    const unsigned long long ms =
        c.rate ? static_cast<unsigned long long>(c.samples) * 1000 * before / static_cast<unsigned>(c.rate) : 0;
    EXPECT_EQ(g.tfdt, ms * static_cast<unsigned>(c.rate) / 1000) << "fragment " << k;
    // Each payload lands whole, in order, in the mdat behind its moof.
    for (size_t i = 0; i < g.samples.size(); ++i) {
      ASSERT_EQ(g.samples[i].size, bytes);
      const size_t at = g.mdatPos + 8 + i * bytes;
      ASSERT_LE(at + bytes, file.size());
      EXPECT_EQ(file[at], static_cast<unsigned char>(before + i)) << "fragment " << k << " sample " << i;
      EXPECT_EQ(file[at + bytes - 1], static_cast<unsigned char>(before + i));
    }
    before += g.samples.size();
  }
  EXPECT_EQ(f.fragments.size(), k);
  EXPECT_EQ(before, static_cast<size_t>(c.packets));
}

INSTANTIATE_TEST_SUITE_P(
    Rules, PcmFragmentUnit,
    ::testing::Values(
        // (rate / samples) / 2: 23 at 48 kHz with 1024; the second tfdt is 490 ms, not 491.
        UnitCase{"Rate48kOf1024", 48000, 2, 1024, 50, 0, {23, 23, 4, 0}},
        UnitCase{"Rate16kOf320", 16000, 1, 320, 60, 0, {25, 25, 10, 0}},
        // No samples a packet: no count, every packet is a fragment, and no time passes.
        UnitCase{"NoSamples", 8000, 1, 0, 3, 0, {1, 1, 1, 0}},
        // 100 ms of 20 ms packets.
        UnitCase{"ByDuration", 48000, 2, 960, 12, 100 * streamtest::kMs, {5, 5, 2, 0}},
        UnitCase{"LongerThanAll", 16000, 2, 320, 9, 60000 * streamtest::kMs, {9, 0, 0, 0}}),
    [](const ::testing::TestParamInfo<UnitCase>& i) { return std::string(i.param.name); });

// ---- recordings through the command-line host

struct Pcm {
  std::string path, args;  // args: the record tool's options for it
  std::string input;       // ffmpeg's options in front of a raw input
  unsigned rate = 0, channels = 0, perPacket = 0;
  std::string raw;  // every sample as ffmpeg decodes the source
  unsigned packetBytes() const { return perPacket * channels * 2; }
};

struct Sources {
  std::string dir, why;
  bool missingTools = false;
  Pcm stereo48, mono16;
  std::string video;
  std::vector<std::string> videoFrames;
  bool ok = false;
};

std::string decodeAudio(const std::string& dir, const std::string& input) {
  const std::string raw = dir + "/decoded.s16le";
  Shell("rm -f " + raw + " && ffmpeg -nostdin -v error " + input + " -map 0:a:0 -f s16le -y " + raw);
  const std::string bytes = ReadWhole(raw);
  Shell("rm -f " + raw);
  return bytes;
}

Sources& sources() {
  static Sources s = [] {
    Sources s;
    s.dir = generated::ScratchDir("fmp4pcm", s.why);
    s.missingTools = s.dir.empty();
    if (s.dir.empty()) return s;
    // Three seconds each: whole packets of 20 ms, so the recording holds every sample.
    s.stereo48 = Pcm{s.dir + "/stereo48.wav", "", "", 48000, 2, 960, ""};
    s.stereo48.args = "--audio '" + s.stereo48.path + "'";
    s.mono16 = Pcm{s.dir + "/mono16.s16le", "", "-f s16le -ar 16000 -ac 1 ", 16000, 1, 320, ""};
    s.mono16.args = "--audio '" + s.mono16.path + "' --audio-format s16le:16000:1";
    s.video = s.dir + "/plain.h264";
    const bool made =
        Shell("ffmpeg -nostdin -v error -y -f lavfi -i sine=frequency=440:sample_rate=48000:duration=3 -ac 2 "
              "-c:a pcm_s16le " + s.stereo48.path) &&
        Shell("ffmpeg -nostdin -v error -y -f lavfi -i sine=frequency=300:sample_rate=16000:duration=3 -ac 1 "
              "-f s16le " + s.mono16.path) &&
        Shell("ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=160x120:rate=30 -pix_fmt yuv420p -c:v libx264 "
              "-frames:v 90 -bf 0 -g 15 -f h264 " + s.video);
    if (!made) {
      s.why = "ffmpeg could not make the test streams";
      return s;
    }
    for (Pcm* p : {&s.stereo48, &s.mono16}) p->raw = decodeAudio(s.dir, p->input + "-i '" + p->path + "'");
    s.videoFrames = FrameMd5s(s.video, "v", "");
    s.ok = s.stereo48.raw.size() == 3 * 48000 * 4 && s.mono16.raw.size() == 3 * 16000 * 2 && s.videoFrames.size() == 90;
    if (!s.ok) s.why = "ffmpeg could not decode the sources";
    return s;
  }();
  return s;
}

// The audio track's fragments (the only track, or the second behind video).
std::vector<const Fragment*> audioFragments(const File& f, bool withVideo) {
  std::vector<const Fragment*> a;
  for (const Fragment& g : f.fragments)
    if (g.track == (withVideo ? 2u : 1u)) a.push_back(&g);
  return a;
}

// Audio samples in fragments that lie wholly in the file.
size_t completeAudio(const File& f, bool withVideo) {
  size_t n = 0;
  for (const Fragment* g : audioFragments(f, withVideo))
    if (g->mdatSize != 0) n += g->samples.size();
  return n;
}

// The layout of the audio fragments: packets a fragment, sizes, durations, data offsets and the
// running tfdt. Every fragment but the last holds `perFragment` packets.
::testing::AssertionResult checkLayout(const File& f, const Pcm& pcm, bool withVideo, size_t perFragment) {
  const std::vector<const Fragment*> frags = audioFragments(f, withVideo);
  if (frags.empty()) return ::testing::AssertionFailure() << "no audio fragment";
  uint64_t start = 0;
  uint32_t sequence = 0;
  for (const Fragment& g : f.fragments) {
    if (g.sequence != ++sequence) return ::testing::AssertionFailure() << "mfhd " << g.sequence << ", want " << sequence;
  }
  for (size_t i = 0; i < frags.size(); ++i) {
    const Fragment& g = *frags[i];
    const size_t n = g.samples.size();
    const bool last = i + 1 == frags.size();
    if (last ? (n == 0 || n > perFragment) : n != perFragment)
      return ::testing::AssertionFailure() << "fragment " << i << ": " << n << " packets, want " << perFragment;
    if (g.trafChildren != "tfhd,trun,tfdt") return ::testing::AssertionFailure() << "traf " << g.trafChildren;
    if ((g.tfhdFlags & 0x20008) != 0x20008 || g.defaultDuration != pcm.perPacket)
      return ::testing::AssertionFailure() << "fragment " << i << ": tfhd flags " << g.tfhdFlags << ", duration "
                                           << g.defaultDuration;
    if (g.trunFlags != 0x201) return ::testing::AssertionFailure() << "fragment " << i << ": trun flags " << g.trunFlags;
    if (g.tfdt != start) return ::testing::AssertionFailure() << "fragment " << i << ": tfdt " << g.tfdt << ", want " << start;
    for (const fragbytes::Sample& s : g.samples)
      if (s.size != pcm.packetBytes())
        return ::testing::AssertionFailure() << "fragment " << i << ": a sample of " << s.size << " bytes";
    if (g.dataOffset != g.moofSize + 8 || g.mdatSize != 8 + n * pcm.packetBytes())
      return ::testing::AssertionFailure() << "fragment " << i << ": data offset " << g.dataOffset << ", mdat "
                                           << g.mdatSize;
    start += static_cast<uint64_t>(n) * pcm.perPacket;
  }
  return ::testing::AssertionSuccess();
}

// What GStreamer's qtdemux gives of the audio track, converted to interleaved 16-bit samples, and
// whether it reached the end of the stream.
struct GstAudio {
  std::string raw, log;
  bool eos = false;
};
GstAudio gstAudio(const std::string& file, const std::string& dir) {
  const std::string raw = dir + "/gst.s16le";
  const std::string out = Capture("timeout 120 gst-launch-1.0 filesrc location='" + file +
                                  "' ! qtdemux name=d d.audio_0 ! queue ! audioconvert ! audio/x-raw,format=S16LE ! "
                                  "filesink location='" + raw + "' 2>&1");
  GstAudio g;
  g.eos = out.find("Got EOS") != std::string::npos;
  g.raw = ReadWhole(raw);
  if (out.find("ERROR") != std::string::npos || out.find("WARN") != std::string::npos) g.log = out;
  Shell("rm -f " + raw);
  return g;
}

struct PcmCase {
  const char* name;
  Pcm Sources::*audio;
  bool video;
  const char* options;
  size_t perFragment;  // audio packets a fragment: half a second by default, else the first that reach --fragment-ms
};

class PcmFragmentRecord : public ::testing::TestWithParam<PcmCase> {
 protected:
  void SetUp() override {
    if (sources().missingTools) GTEST_SKIP() << sources().why;
    ASSERT_TRUE(sources().ok) << sources().why;
  }
};

TEST_P(PcmFragmentRecord, PlayersGetEverySample) {
  const PcmCase& c = GetParam();
  const Sources& s = sources();
  const Pcm& pcm = s.*(c.audio);
  const std::string out = s.dir + "/" + c.name + ".mp4";
  const ToolResult r = RunTool("record -o '" + out + "' " + c.options + " " + pcm.args +
                               (c.video ? " --video '" + s.video + "'" : ""));
  ASSERT_EQ(r.status, 0) << r.err;

  const Bytes bytes = Load(out);
  const File f = fragbytes::Read(bytes);
  ASSERT_TRUE(f.whole) << f.types();
  ASSERT_GE(f.top.size(), 4u);
  EXPECT_EQ(f.top.front().type, "ftyp");
  EXPECT_EQ(f.top[1].type, "moov");
  EXPECT_EQ(f.top.back().type, "mfra");
  EXPECT_EQ(completeAudio(f, c.video), pcm.raw.size() / pcm.packetBytes());
  EXPECT_TRUE(checkLayout(f, pcm, c.video, c.perFragment));

  const Fields probed = Probe(out)["audio"];
  EXPECT_EQ(Count(probed, "sample_rate"), static_cast<long long>(pcm.rate));
  EXPECT_EQ(Count(probed, "channels"), static_cast<long long>(pcm.channels));
  const std::string moved = out + ".tfdt-first.mp4";
  Save(moved, fragbytes::TfdtFirst(bytes), bytes.size());
  EXPECT_EQ(ProbeWarnings(moved), "");

  // Every sample, by the file's index and with tfdt in front of trun.
  EXPECT_TRUE(decodeAudio(s.dir, "-use_mfra_for dts -i '" + out + "'") == pcm.raw) << "audio by mfra";
  EXPECT_TRUE(decodeAudio(s.dir, "-i '" + moved + "'") == pcm.raw) << "audio, tfdt first";
  if (c.video) {
    const auto v = FrameMd5s(out, "v", "-use_mfra_for dts");
    EXPECT_EQ(v.size(), s.videoFrames.size());
    EXPECT_TRUE(SameFrames(v, s.videoFrames, s.videoFrames.size(), "video, by mfra"));
  }

  if (!Shell("command -v gst-launch-1.0")) {
    std::printf("note: gst-launch-1.0 is not installed; qtdemux not tried\n");
    return;
  }
  const GstAudio g = gstAudio(out, s.dir);
  EXPECT_TRUE(g.eos) << g.log;
  EXPECT_EQ(g.raw.size(), pcm.raw.size()) << g.log;
  EXPECT_TRUE(g.raw == pcm.raw) << "qtdemux's samples differ";
  if (c.video) {
    const GstRun v = GstPlay(out, "video");
    EXPECT_TRUE(v.eos) << v.log;
    EXPECT_EQ(v.buffers, static_cast<long long>(s.videoFrames.size())) << v.log;
  }
}

// 20 ms packets: 25 make the default half second; --fragment-ms takes the first count that reaches it.
INSTANTIATE_TEST_SUITE_P(
    Streams, PcmFragmentRecord,
    ::testing::Values(PcmCase{"Stereo48HalfSecond", &Sources::stereo48, false, "--fragmented", 25},
                      PcmCase{"Stereo48Flush100ms", &Sources::stereo48, false, "--fragmented --flush --fragment-ms 100", 5},
                      PcmCase{"Stereo48Uneven250ms", &Sources::stereo48, false, "--fragmented --fragment-ms 250", 13},
                      PcmCase{"Mono16HalfSecond", &Sources::mono16, false, "--format fmp4", 25},
                      PcmCase{"Mono16Flush2500ms", &Sources::mono16, false, "--fragmented --flush --fragment-ms 2500", 125},
                      PcmCase{"Mono16LongerThanAll", &Sources::mono16, false, "--fragmented --fragment-ms 7000", 150},
                      PcmCase{"H264Stereo48HalfSecond", &Sources::stereo48, true, "--fragmented", 25},
                      PcmCase{"H264Stereo48Flush1s", &Sources::stereo48, true, "--fragmented --flush --fragment-ms 1000", 50},
                      PcmCase{"H264Mono16Flush40ms", &Sources::mono16, true, "--fragmented --flush --fragment-ms 40", 2},
                      PcmCase{"H264Mono16Several", &Sources::mono16, true, "--fragmented --fragment-ms 2000", 100}),
    [](const ::testing::TestParamInfo<PcmCase>& i) { return std::string(i.param.name); });

// Fragment times wrap after 2^32 / (1000 × rate) seconds: record warns of a longer input, and only then.
TEST(PcmFragmentWrap, RecordWarnsOfInputsThatOutlastIt) {
  std::string why;
  const std::string dir = generated::ScratchDir("bw_pcmwrap", why);
  if (dir.empty()) GTEST_SKIP() << why;
  Save(dir + "/a.s16le", Bytes(8640000), 8640000);  // 90 s of 48 kHz mono
  for (const int rate : {48000, 16000}) {
    const ToolResult r = RunTool("record -o " + dir + "/w.mp4 --fragmented --audio " + dir +
                                 "/a.s16le --audio-format s16le:" + std::to_string(rate) + ":1");
    ASSERT_EQ(r.status, 0) << r.err;
    const bool warned = r.err.find("a.s16le lasts 90.0 s; fragmented PCM times wrap after 89.5 s at 48000 Hz") !=
                        std::string::npos;
    EXPECT_EQ(warned, rate == 48000) << r.err;
  }
  Shell("rm -rf " + dir);
}

class PcmFragmentCut : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (sources().missingTools) GTEST_SKIP() << sources().why;
    ASSERT_TRUE(sources().ok) << sources().why;
  }
};

// A finished file cut at fragment boundaries, a few bytes into a fragment, and at odd lengths: the
// samples of every complete fragment decode as the source has them.
TEST_P(PcmFragmentCut, CompleteFragmentsDecode) {
  const bool withVideo = GetParam();
  const Sources& s = sources();
  const Pcm& pcm = s.stereo48;
  const std::string out = s.dir + "/cut" + (withVideo ? "_av" : "") + ".mp4";
  const std::string part = s.dir + "/part.mp4";
  const ToolResult r =
      RunTool("record -o '" + out + "' --fragmented --fragment-ms 300 " + pcm.args + (withVideo ? " --video '" + s.video + "'" : ""));
  ASSERT_EQ(r.status, 0) << r.err;
  const Bytes whole = Load(out);
  const File f = fragbytes::Read(whole);
  ASSERT_GE(f.fragments.size(), 6u);
  std::vector<size_t> cuts;
  cuts.reserve(12);
  for (const size_t k : {size_t{1}, size_t{3}, f.fragments.size() - 1}) {
    cuts.push_back(f.fragments[k].pos);
    cuts.push_back(f.fragments[k].pos + 20);
    cuts.push_back(f.fragments[k].mdatPos + 100);
  }
  for (const size_t n : {whole.size() / 3, whole.size() * 5 / 7, whole.size() - 1}) cuts.push_back(n);
  size_t nonEmpty = 0;
  for (const size_t n : cuts) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
    const File g = fragbytes::Read(cut);
    const size_t complete = completeAudio(g, withVideo);
    if (complete == 0) continue;
    ++nonEmpty;
    Save(part, fragbytes::TfdtFirst(cut), cut.size());
    const std::string got = decodeAudio(s.dir, "-i '" + part + "'");
    const size_t want = complete * pcm.packetBytes();
    ASSERT_GE(got.size(), want) << "cut at " << n << " of " << whole.size();
    EXPECT_TRUE(got.compare(0, want, pcm.raw, 0, want) == 0) << "cut at " << n << " of " << whole.size();
  }
  EXPECT_GE(nonEmpty, cuts.size() - 3) << "too few cuts kept a complete fragment";
}

INSTANTIATE_TEST_SUITE_P(Files, PcmFragmentCut, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& i) { return i.param ? "WithH264" : "PcmAlone"; });

}  // namespace
