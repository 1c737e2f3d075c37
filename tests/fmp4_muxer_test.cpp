// The fragmented muxer driven as the element drives its engine, into memory: where fragments are cut,
// what each moof says about the bytes behind it, the shared sequence numbers, tfdt, mehd, mfra; PCM.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "stream/plugin/mp4/common/IMovMuxer.h"
#include "stream/plugin/mp4/core/FMp4Muxer.h"
#include "tests/FragmentBytes.h"
#include "tests/StreamRig.h"

using namespace kiv::plugin::mov;
using namespace streamtest;
using fragbytes::Fragment;

namespace {

// How a test's stream looks: frames of 40 ms with a key frame every `keyEvery`, AAC frames of 1024
// samples or 16-bit PCM packets of `pcmSamples`; packets alternate in time order.
struct Plan {
  int videoFrames = 0;
  int keyEvery = 10;
  long long gop = 10;  // the media's "gop"; below 0: not set
  int audioFrames = 0;
  int rate = 48000;
  int adtslen = 0;
  long long dps = 0;  // ns
  bool flush = false;
  int pcmSamples = -1;  // below 0: AAC
  int channels = 2;
};

constexpr long long kFrameNs = 40 * kMs;

struct Rig {
  IOBuffer io;
  std::unique_ptr<FMp4Muxer> mux;
  H264Sets sets;
  MediaPtr video, audio;
  std::vector<IMedia*> list;
  std::vector<Bytes> videoPayloads, audioPayloads;
  size_t pcmBytes = 0;  // each PCM packet's; 0 for AAC
  long long audioStep = 1024LL * 1000000000LL / 48000;

  explicit Rig(const Plan& plan) {
    AttrSet ap;
    kiv::base::Object::AttrSetInit(ap, nullptr, "mp4-muxer-fragment");
    mux.reset(kiv::base::Object::New<FMp4Muxer>(ap));
    if (!mux) return;
    mux->flush = plan.flush;
    mux->durationPreSegment.ns = plan.dps;
    if (plan.videoFrames) {
      video = NewH264Media(sets);
      if (plan.gop >= 0) video->Set("gop", plan.gop);
      list.push_back(video.get());
    }
    if (plan.audioFrames && plan.pcmSamples < 0) audio = NewAacMedia(plan.rate, plan.channels, plan.adtslen);
    if (plan.audioFrames && plan.pcmSamples >= 0) {
      audio.reset(IMedia::New("pcm"));
      audio->Set("rate", plan.rate);
      audio->Set("channel", plan.channels);
      audio->Set("width", 2);
      audio->Set("depth", 16);
      audio->Set("samples", plan.pcmSamples);
      pcmBytes = static_cast<size_t>(plan.pcmSamples ? plan.pcmSamples : 1) * static_cast<size_t>(plan.channels) * 2;
      // A packet of no samples still lasts: 20 ms.
      audioStep = plan.pcmSamples ? 1000000000LL * plan.pcmSamples / plan.rate : 20 * kMs;
    }
    if (audio) list.push_back(audio.get());
  }
  IMovMuxer& engine() { return *mux; }
  bool open() {
    AttrSet ap;
    return mux && engine().Open(io, list, ap);
  }
  bool pushVideo(int i, bool key, size_t n = 0) {
    Bytes payload = Nal(key ? 0x65 : 0x41, n ? n : 20 + i % 13, static_cast<unsigned char>(1 + i % 200));
    PacketPtr p = MakePacket(video.get(), payload, i * kFrameNs, kFrameNs, key);
    videoPayloads.push_back(payload);
    return engine().Process(io, *p);
  }
  bool pushAudio(int i, int adtslen, size_t n = 0) {
    Bytes payload(pcmBytes ? pcmBytes : adtslen + (n ? n : 30 + i % 11), static_cast<unsigned char>(0x10 + i % 100));
    PacketPtr p = MakePacket(audio.get(), payload, i * audioStep, audioStep, true);
    audioPayloads.push_back(payload);
    return engine().Process(io, *p);
  }
  // Everything of the plan, in time order, then Close.
  bool run(const Plan& plan) {
    if (!open()) return false;
    if (!pcmBytes) audioStep = 1024LL * 1000000000LL / plan.rate;
    int v = 0, a = 0;
    while (v < plan.videoFrames || a < plan.audioFrames) {
      const bool takeVideo = v < plan.videoFrames && (a >= plan.audioFrames || v * kFrameNs <= a * audioStep);
      if (takeVideo ? !pushVideo(v, v % plan.keyEvery == 0) : !pushAudio(a, plan.adtslen)) return false;
      takeVideo ? ++v : ++a;
    }
    return engine().Close(io);
  }
  Bytes bytes() const { return Bytes(io.Data(), io.Data() + const_cast<IOBuffer&>(io).Size()); }
};

std::vector<size_t> countsOf(const fragbytes::File& f, uint32_t track) {
  std::vector<size_t> out;
  for (const Fragment& g : f.fragments)
    if (g.track == track) out.push_back(g.samples.size());
  return out;
}

// Track numbers as the default profile gives them: video first.
constexpr uint32_t kVideoTrack = 1;

struct CutCase {
  const char* name;
  Plan plan;
  std::vector<size_t> video, audio;  // samples of each fragment of the track
};

class FragmentCuts : public ::testing::TestWithParam<CutCase> {};

TEST_P(FragmentCuts, FragmentsHoldTheExpectedSamples) {
  const CutCase& c = GetParam();
  Rig rig(c.plan);
  ASSERT_TRUE(rig.mux);
  ASSERT_TRUE(rig.run(c.plan));
  const fragbytes::File f = fragbytes::Read(rig.bytes());
  ASSERT_TRUE(f.whole) << f.types();
  const uint32_t audioTrack = c.plan.videoFrames ? kVideoTrack + 1 : kVideoTrack;
  if (c.plan.videoFrames) {
    EXPECT_EQ(countsOf(f, kVideoTrack), c.video);
  }
  if (c.plan.audioFrames) {
    EXPECT_EQ(countsOf(f, audioTrack), c.audio);
  }
}

Plan video(int frames, int keyEvery, long long gop, long long dps = 0) {
  Plan p;
  p.videoFrames = frames, p.keyEvery = keyEvery, p.gop = gop, p.dps = dps;
  return p;
}
Plan audio(int frames, int rate, long long dps = 0) {
  Plan p;
  p.audioFrames = frames, p.rate = rate, p.dps = dps;
  return p;
}

INSTANTIATE_TEST_SUITE_P(
    Rules, FragmentCuts,
    ::testing::Values(
        // One GOP a fragment; the key frame that cuts opens the next one.
        CutCase{"OneGop", video(25, 10, 10), {10, 10, 5}, {}},
        // A gop shorter than the key frame distance: cut at the next key frame after gop frames.
        CutCase{"GopBetweenKeys", video(25, 5, 7), {10, 10, 5}, {}},
        // No gop: every key frame cuts.
        CutCase{"NoGop", video(10, 3, -1), {3, 3, 3, 1}, {}},
        // 250 ms: 6 frames of 40 ms are too short, the key frame after 8 cuts.
        CutCase{"ByDuration", video(25, 2, 10, 250 * kMs), {8, 8, 8, 1}, {}},
        // Ten frames before a key frame last exactly the 400 ms: no longer too short, so it cuts.
        CutCase{"ExactlyTheDuration", video(25, 5, -1, 400 * kMs), {10, 10, 5}, {}},
        // A duration longer than the recording: one fragment, written at Close.
        CutCase{"LongerThanAll", video(12, 4, 4, 60000 * kMs), {12}, {}},
        // Audio: rate / 2048 frames, 23 at 48 kHz, 3 at 8 kHz.
        CutCase{"Aac8k", audio(7, 8000), {}, {3, 3, 1}},
        // 100 ms of 21.3 ms frames: 5 a fragment.
        CutCase{"AacByDuration", audio(12, 48000, 100 * kMs), {}, {5, 5, 2}}),
    [](const ::testing::TestParamInfo<CutCase>& i) { return std::string(i.param.name); });

// What a player takes from each moof matches the bytes behind it, for both tracks; tfdt: video from
// the trun durations so far (the first sample counts 33 ms), audio from the length in whole
// milliseconds. The init segment: brands, mvex behind the trak boxes with one trex a track; mfra
// last, indexing every moof; the mfro holding the size of the mfra.
TEST(FragmentLayout, EveryBoxDescribesTheBytes) {
  Plan plan = video(30, 10, 10);
  plan.audioFrames = 69;
  plan.adtslen = 7;
  Rig rig(plan);
  ASSERT_TRUE(rig.run(plan));
  const Bytes b = rig.bytes();
  const fragbytes::File f = fragbytes::Read(b);
  ASSERT_TRUE(f.whole);
  ASSERT_GE(f.fragments.size(), 4u);
  ASSERT_EQ(f.types().substr(0, 10), "ftyp,moov,");
  EXPECT_EQ(f.top.back().type, "mfra");

  size_t nextVideo = 0, nextAudio = 0;
  uint32_t expectSequence = 1;
  unsigned long long videoTime = 0;
  for (const Fragment& g : f.fragments) {
    SCOPED_TRACE("moof at " + std::to_string(g.pos));
    EXPECT_EQ(g.sequence, expectSequence++) << "one counter for all tracks";
    EXPECT_EQ(g.trafChildren, "tfhd,trun,tfdt");
    EXPECT_EQ(g.mdatPos, g.pos + g.moofSize) << "mdat right behind its moof";
    EXPECT_EQ(g.dataOffset, g.moofSize + 8);
    // 60000 units a second: 40 ms is 2400, the very first sample 33 ms.
    EXPECT_EQ(g.tfdt, g.track == kVideoTrack ? videoTime : nextAudio * 1024 * 1000 / 48000 * 48);
    size_t sum = 8;
    size_t at = g.pos + g.dataOffset;
    for (size_t i = 0; i < g.samples.size(); ++i) {
      const uint32_t size = g.samples[i].size;
      sum += size;
      ASSERT_LE(at + size, b.size());
      if (g.track == kVideoTrack) {
        EXPECT_EQ(g.samples[i].duration, videoTime ? 2400u : 1980u);
        videoTime += g.samples[i].duration;
        const Bytes& src = rig.videoPayloads.at(nextVideo++);
        // The start code became the unit's length; the rest is the packet's.
        ASSERT_EQ(size, src.size());
        EXPECT_EQ(fragbytes::U32(&b[at]), src.size() - 4);
        EXPECT_TRUE(std::equal(src.begin() + 4, src.end(), b.begin() + static_cast<long>(at + 4)));
      } else {
        const Bytes& src = rig.audioPayloads.at(nextAudio++);
        ASSERT_EQ(size, src.size() - 7) << "the ADTS header stays out";
        EXPECT_TRUE(std::equal(src.begin() + 7, src.end(), b.begin() + static_cast<long>(at)));
      }
      at += size;
    }
    EXPECT_EQ(g.mdatSize, sum);
    if (g.track == kVideoTrack) {
      EXPECT_EQ(g.tfhdFlags, 0x20020u);
      EXPECT_EQ(g.defaultFlags, 0x1010000u);
      EXPECT_EQ(g.trunFlags, 0x305u);
      EXPECT_EQ(g.firstFlags, 0x2000000u);
    } else {
      EXPECT_EQ(g.tfhdFlags, 0x20008u);
      EXPECT_EQ(g.defaultDuration, 1024u);
      EXPECT_EQ(g.trunFlags, 0x201u);
    }
  }
  EXPECT_EQ(nextVideo, rig.videoPayloads.size());
  EXPECT_EQ(nextAudio, rig.audioPayloads.size());

  const fragbytes::Top& ftyp = f.top[0];
  EXPECT_EQ(std::string(b.begin() + 8, b.begin() + 12), "mp42");
  const Bytes brands(b.begin() + 16, b.begin() + static_cast<long>(ftyp.size));
  const Bytes want = Cat({{'m', 'p', '4', '2'}, {0, 0, 0, 0}, {'i', 's', 'o', '5'}});
  EXPECT_EQ(brands, want);

  const fragbytes::Top& moov = f.top[1];
  std::string kids;
  size_t mvexPos = 0, mvexSize = 0;
  for (const auto& c : fragbytes::Children(b, moov.pos + 8, moov.pos + moov.size)) {
    kids += (kids.empty() ? "" : ",") + c.type;
    if (c.type == "mvex") mvexPos = c.pos, mvexSize = c.size;
  }
  EXPECT_EQ(kids, "mvhd,trak,trak,mvex");
  std::string mvex;
  std::vector<uint32_t> trexTracks;
  for (const auto& c : fragbytes::Children(b, mvexPos + 8, mvexPos + mvexSize)) {
    mvex += (mvex.empty() ? "" : ",") + c.type;
    if (c.type == "trex") trexTracks.push_back(fragbytes::U32(&b[c.pos + 12]));
  }
  EXPECT_EQ(mvex, "mehd,trex,trex");
  EXPECT_EQ(trexTracks, (std::vector<uint32_t>{1, 2}));

  // mfra: a tfra a track listing (tfdt, moof position) of each of its fragments, then mfro.
  const fragbytes::Top& mfra = f.top.back();
  const auto parts = fragbytes::Children(b, mfra.pos + 8, mfra.pos + mfra.size);
  ASSERT_EQ(parts.size(), 3u);
  EXPECT_EQ(parts[2].type, "mfro");
  EXPECT_EQ(fragbytes::U32(&b[parts[2].pos + 12]), mfra.size);
  for (int t = 0; t < 2; ++t) {
    const size_t at = parts[t].pos;
    ASSERT_EQ(parts[t].type, "tfra");
    const uint32_t track = fragbytes::U32(&b[at + 12]);
    const uint32_t n = fragbytes::U32(&b[at + 20]);
    std::vector<const Fragment*> own;
    for (const Fragment& g : f.fragments)
      if (g.track == track) own.push_back(&g);
    ASSERT_EQ(n, own.size());
    EXPECT_EQ(parts[t].size, 24 + 11u * n);
    for (uint32_t i = 0; i < n; ++i) {
      EXPECT_EQ(fragbytes::U32(&b[at + 24 + 11 * i]), static_cast<uint32_t>(own[i]->tfdt));
      EXPECT_EQ(fragbytes::U32(&b[at + 28 + 11 * i]), own[i]->pos);
    }
  }
}

unsigned long long mehdOf(const Bytes& b) {
  for (size_t i = 4; i + 16 <= b.size(); ++i)
    if (std::memcmp(&b[i], "mehd", 4) == 0) return b[i + 4] == 1 ? fragbytes::U64(&b[i + 8]) : fragbytes::U32(&b[i + 8]);
  return ~0ull;
}

// With flush, mehd follows each fragment; without, it is written once, at Close. Its value is the
// audio track's length (movie units), whichever track wrote the last fragment; the video track adds
// nothing. The element's running duration (its notices, "fileClose") is the same length.
TEST(FragmentDuration, MehdFollowsTheAudioTrack) {
  struct Case {
    bool flush;
    int audioFrames;  // 46: two whole fragments, nothing left for Close
    unsigned long long whileRecording;  // after 46 audio frames and the video frames between them
    unsigned long long atClose;
  };
  // 46 frames: 981 ms; 60 frames: 1280 ms; movie scale 60000.
  const Case cases[] = {{true, 60, 981 * 60, 1280 * 60}, {false, 60, 0, 1280 * 60}, {false, 46, 0, 981 * 60}, {true, 0, 0, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.flush ? "flush, " : "no flush, ") + std::to_string(c.audioFrames) + " audio frames");
    Plan plan = video(40, 10, 10);
    plan.audioFrames = c.audioFrames;
    plan.flush = c.flush;
    Rig rig(plan);
    ASSERT_TRUE(rig.open());
    int v = 0;
    for (int a = 0; a < 46 && a < c.audioFrames; ++a) {
      ASSERT_TRUE(rig.pushAudio(a, 0));
      if (a % 2 == 0) {
        ASSERT_TRUE(rig.pushVideo(v, v % 10 == 0));
        ++v;
      }
    }
    EXPECT_EQ(mehdOf(rig.bytes()), c.whileRecording);
    for (int a = 46; a < c.audioFrames; ++a) ASSERT_TRUE(rig.pushAudio(a, 0));
    for (; v < 40; ++v) {
      ASSERT_TRUE(rig.pushVideo(v, v % 10 == 0));
      // The audio written so far: the frames behind the second fragment are not yet.
      EXPECT_EQ(rig.engine()._duration_ms, c.audioFrames ? 981u : 0u) << "frame " << v;
    }
    if (c.flush) {
      EXPECT_EQ(mehdOf(rig.bytes()), c.whileRecording) << "after the video fragments";
    }
    ASSERT_TRUE(rig.engine().Close(rig.io));
    EXPECT_EQ(mehdOf(rig.bytes()), c.atClose);
    EXPECT_EQ(rig.engine()._duration_ms * 60, c.atClose);
  }
}

// Packets the file cannot hold as they are: AAC frames no longer than their header and H.264 packets
// too short for a length prefix keep the sizes in trun and mdat in step.
TEST(FragmentLayout, ShortPacketsKeepSizesInStep) {
  Plan plan;
  plan.videoFrames = 1;
  plan.audioFrames = 1;
  plan.adtslen = 7;
  Rig rig(plan);
  ASSERT_TRUE(rig.open());
  const std::pair<bool, size_t> packets[] = {{false, 3}, {false, 7}, {false, 8}, {true, 2}, {true, 0}, {true, 5}};
  for (int i = 0; i < 6; ++i) {  // (video, bytes): their sizes in trun are below
    PacketPtr p = MakePacket(packets[i].first ? rig.video.get() : rig.audio.get(), Bytes(packets[i].second, 9),
                             i * kFrameNs, kFrameNs, true);
    ASSERT_TRUE(rig.engine().Process(rig.io, *p));
  }
  ASSERT_TRUE(rig.engine().Close(rig.io));
  const fragbytes::File f = fragbytes::Read(rig.bytes());
  ASSERT_TRUE(f.whole) << f.types();
  std::vector<uint32_t> video, audio;
  for (const Fragment& g : f.fragments) {
    size_t sum = 8;
    for (const auto& s : g.samples) (g.track == kVideoTrack ? video : audio).push_back(s.size), sum += s.size;
    EXPECT_EQ(g.mdatSize, sum);
  }
  EXPECT_EQ(audio, (std::vector<uint32_t>{0, 0, 1}));
  EXPECT_EQ(video, (std::vector<uint32_t>{4, 4, 5}));
}

// A Close right after a cut writes no empty moof; a track that never got a packet has an empty tfra.
TEST(FragmentLayout, NothingWrittenForNothing) {
  Plan plan = video(11, 10, 10);  // the 11th frame, a key frame, cuts the first ten
  plan.audioFrames = 1;
  Rig rig(plan);
  ASSERT_TRUE(rig.open());
  for (int v = 0; v < 11; ++v) ASSERT_TRUE(rig.pushVideo(v, v % 10 == 0));
  ASSERT_TRUE(rig.engine().Close(rig.io));
  const Bytes b = rig.bytes();
  const fragbytes::File f = fragbytes::Read(b);
  EXPECT_EQ(countsOf(f, kVideoTrack), (std::vector<size_t>{10, 1}));
  EXPECT_TRUE(countsOf(f, 2).empty());
  ASSERT_EQ(f.top.back().type, "mfra");
  const auto parts = fragbytes::Children(b, f.top.back().pos + 8, f.top.back().pos + f.top.back().size);
  ASSERT_EQ(parts.size(), 3u);
  EXPECT_EQ(fragbytes::U32(&b[parts[0].pos + 20]), 2u);
  EXPECT_EQ(fragbytes::U32(&b[parts[1].pos + 20]), 0u);
}

// The fragment length as a property: nanoseconds, or text with a unit.
TEST(FragmentRegistry, DurationPropertyTakesTextAndNumbers) {
  AttrSet ap;
  kiv::base::Object::AttrSetInit(ap, nullptr, "FMp4Muxer-mp4-muxer-fmp4-fragment");
  std::unique_ptr<FMp4Muxer> mux(kiv::base::Object::New<FMp4Muxer>(ap));
  ASSERT_TRUE(mux);
  struct Case {
    const char* text;
    bool ok;
    long long ns;
  };
  const Case cases[] = {{"2s", true, 2000000000LL}, {"500ms", true, 500000000LL}, {"40000000", true, 40000000LL},
                        {"soon", false, 40000000LL}, {"-1s", false, 40000000LL}};
  for (const Case& c : cases) {
    EXPECT_EQ(mux->Set("durationPreSegment-dps", c.text), c.ok) << c.text;
    EXPECT_EQ(mux->durationPreSegment.ns, c.ns) << c.text;
  }
  EXPECT_TRUE(mux->Set("durationPreSegment-dps", 7000000LL));
  EXPECT_EQ(mux->durationPreSegment.ns, 7000000LL);
}

// A PCM track: fragments of (rate / samples) / 2 packets or by duration, the packets' length as the
// default duration, tfdt from the length in whole milliseconds before; each payload whole, in order,
// in the mdat behind its moof.
TEST(FragmentPcm, CutsDecodeTimesAndPayloads) {
  struct Case {
    const char* name;
    int rate, channels, samples, packets;
    long long dps;
    std::vector<size_t> counts;
  };
  const Case cases[] = {
      // 23 at 48 kHz with 1024; the second tfdt is 490 ms, not 491.
      {"48 kHz of 1024", 48000, 2, 1024, 50, 0, {23, 23, 4}},
      // No samples a packet: no count, every packet is a fragment, and no time passes.
      {"no samples", 8000, 1, 0, 3, 0, {1, 1, 1}},
      {"100 ms of 20 ms packets", 16000, 1, 320, 12, 100 * kMs, {5, 5, 2}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Plan plan = audio(c.packets, c.rate, c.dps);
    plan.pcmSamples = c.samples;
    plan.channels = c.channels;
    Rig rig(plan);
    ASSERT_TRUE(rig.run(plan));
    const Bytes b = rig.bytes();
    const fragbytes::File f = fragbytes::Read(b);
    ASSERT_TRUE(f.whole) << f.types();
    EXPECT_EQ(countsOf(f, 1), c.counts);
    size_t before = 0;
    for (const Fragment& g : f.fragments) {
      EXPECT_EQ(g.defaultDuration, static_cast<uint32_t>(c.samples));
      const unsigned long long ms = static_cast<unsigned long long>(c.samples) * 1000 * before / static_cast<unsigned>(c.rate);
      EXPECT_EQ(g.tfdt, ms * static_cast<unsigned>(c.rate) / 1000);
      for (size_t i = 0; i < g.samples.size(); ++i, ++before) {
        ASSERT_EQ(g.samples[i].size, rig.pcmBytes);
        ASSERT_LE(g.mdatPos + 8 + (i + 1) * rig.pcmBytes, b.size());
        EXPECT_TRUE(std::equal(rig.audioPayloads[before].begin(), rig.audioPayloads[before].end(),
                               b.begin() + static_cast<long>(g.mdatPos + 8 + i * rig.pcmBytes)));
      }
    }
    EXPECT_EQ(before, static_cast<size_t>(c.packets));
  }
}

}  // namespace
