// The mux engine: the file's layout, brands, the leading track, the end of a recording, threads.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "stream/base/io/IO.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/IMovMuxer.h"
#include "tests/LogCapture.h"
#include "tests/MuxTestUtil.h"

using kiv::base::AttrSet;
using kiv::base::IOBuffer;
using kiv::base::Release;
using namespace kiv::plugin::mov;
using namespace muxtest;

namespace {

uint32_t fcc(const char* t) {
  uint32_t v = 0;
  return kiv::Convert32(v, t), v;
}

// An engine writing into memory.
struct Recording {
  IMovMuxer eng;
  IOBuffer buffer;
  bool open(std::vector<IMedia*> list) {
    AttrSet ap;
    return eng.Open(buffer, list, ap);
  }
  bool push(IMedia* m, int n, unsigned char fill, long long ptsMs, long long durMs) {
    Packet* p = NewPacket(m, n, fill, ptsMs, durMs);
    const bool ok = eng.Process(buffer, *p);
    Release(p);
    return ok;
  }
  TestTrack* track(size_t i) { return i < eng._streams.size() ? dynamic_cast<TestTrack*>(eng._streams[i]) : nullptr; }
  const Bytes& bytes() { return buffer.Bytes(); }
};

class MuxEngine : public ::testing::Test {
 protected:
  void SetUp() override {
    RegisterTestTrack();
    cleanLog.clear();
    video = VideoMedia();
    audio = AudioMedia();
    ASSERT_TRUE(video && audio && video->IsVideo() && audio->IsAudio());
  }
  void TearDown() override {
    Release(video);
    Release(audio);
  }
  IMedia* video = nullptr;
  IMedia* audio = nullptr;
};

}  // namespace

TEST_F(MuxEngine, MovFileIsFtypThenMdatThenMoovWithTheSizePatched) {
  Recording r;
  std::vector<IMedia*> list{video, audio};
  AttrSet ap;
  const unsigned long long before = IMovMuxer::getTimeStamp();
  EXPECT_GT(before, 2082844800ull + 1500000000ull) << "seconds since 1904";
  ASSERT_TRUE(r.eng.Open(r.buffer, list, ap));
  EXPECT_EQ(r.bytes(), Hex("00000018 'ftyp' 'qt  ' 00000000 'qt  ' 00000000  00000008 'mdat'")) << "mdat empty";
  void* container = nullptr;
  EXPECT_TRUE(ap.Get("container", container) && container == static_cast<kiv::plugin::mov::IMov*>(&r.eng));
  // Video 0, 40, 80 ms (100 bytes, 40 ms each) and audio 0..60 ms (30 bytes, 20 ms), as a camera delivers them.
  const unsigned char order[] = {0x11, 0x21, 0x12, 0x22, 0x13, 0x23, 0x24};
  long long pts[2] = {0, 0};
  for (unsigned char fill : order) {
    const bool v = fill < 0x20;
    EXPECT_TRUE(r.push(v ? video : audio, v ? 100 : 30, fill, pts[v], v ? 40 : 20));
    pts[v] += v ? 40 : 20;
  }
  EXPECT_EQ(r.buffer.Size(), 32 + 420);
  EXPECT_EQ(r.eng._duration_ms, 120u) << "the running duration follows video";
  ASSERT_TRUE(r.track(0) && r.track(1));
  EXPECT_EQ(r.track(0)->leaders, (std::vector<unsigned long long>{0, 40, 80}));
  EXPECT_EQ(r.track(1)->leaders, (std::vector<unsigned long long>{40, 80, 120, 120})) << "the video's length";
  ASSERT_TRUE(r.eng.Close(r.buffer));
  const unsigned long long after = IMovMuxer::getTimeStamp();
  EXPECT_TRUE(r.eng._root == nullptr && r.eng._streams.empty());
  EXPECT_EQ(r.eng._duration_ms, 80u) << "at the end: the shortest track's length";
  EXPECT_EQ(cleanLog, (CleanCalls{{"testv", 0}, {"testa", 120}}));
  const Bytes& b = r.bytes();
  const FileView v = View(b);
  EXPECT_EQ(Slice(b, 0, 32), Hex("00000018 'ftyp' 'qt  ' 00000000 'qt  ' 00000000  000001ac 'mdat'"))
      << "the final size, patched in place";
  size_t at = 32;  // the payloads in the order they came, moov right behind them
  for (unsigned char fill : order) {
    const size_t n = fill < 0x20 ? 100 : 30;
    EXPECT_EQ(Slice(b, at, n), Bytes(n, fill)) << std::hex << int(fill);
    at += n;
  }
  EXPECT_EQ(v.top[2].offset, at);
  EXPECT_EQ(v.mvhd, (Mvhd{0, 108, 60000, 4800, 256, 3})) << "80 ms of audio in 60000ths";
  EXPECT_EQ(v.created, v.modified);
  EXPECT_TRUE(v.created >= (before & 0xffffffffull) && v.created <= (after & 0xffffffffull));
  EXPECT_EQ(v.tracks, (Tracks{{1, 7200, 10800, 0}, {2, 4800, 3840, 0}}));
  EXPECT_TRUE(OfType(Children(b, v.top[2]), "thum").empty()) << "no thumbnail unless asked";
}

// Video 120 ms and audio 160 or 80 ms in each flavour: the movie is the video's length.
TEST_F(MuxEngine, FlavoursSetTheMdatFormTheVersionAndTheAudioDurations) {
  struct Case {
    const char* name;
    bool mp4, use64, version1, mdhdSame;
    int audioPackets;  // of 40 ms
    uint64_t version, audioTkhd, audioMdhd;
  } cases[] = {
      {"mov", false, false, false, false, 4, 0, 9600, 7680},
      {"mp4: a longer audio's tkhd takes the movie duration", true, false, false, false, 4, 0, 7200, 7680},
      {"mp4: so does a shorter one's, which the movie does not follow", true, false, false, false, 2, 0, 7200, 3840},
      {"mp4 with audio_mdhd_same_duration", true, false, false, true, 2, 0, 7200, 5760},
      {"mov 64-bit keeps version 1", false, true, true, false, 4, 1, 9600, 7680},
      {"mp4 64-bit clears version 1", true, true, true, false, 4, 0, 7200, 7680},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Recording r;
    if (c.mp4) r.eng._vidtag->Mp4Flavour(), r.eng._file_type = IMovMuxer::kFileTypeMp4;
    r.eng._vidtag->audio_mdhd_same_duration = c.mdhdSame;
    r.eng._use64 = c.use64;
    r.eng._version1 = c.version1;
    ASSERT_TRUE(r.open({video, audio}));
    EXPECT_EQ(r.eng._version1, c.version == 1);
    EXPECT_EQ(Slice(r.bytes(), 24, r.bytes().size() - 24),
              Hex(c.use64 ? "00000001 'mdat' 00000000 00000010" : "00000008 'mdat'"));
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(r.push(video, 1000, 1, i * 40, 40));
    for (int i = 0; i < c.audioPackets; ++i) EXPECT_TRUE(r.push(audio, 10, 2, i * 40, 40));
    ASSERT_TRUE(r.eng.Close(r.buffer));
    const FileView v = View(r.bytes());
    const size_t head = c.use64 ? 16 : 8;
    EXPECT_EQ(std::make_pair(v.top[1].header, v.top[1].size), std::make_pair(head, head + 3000 + 10u * c.audioPackets))
        << "the final size in the header's own form";
    EXPECT_EQ(std::make_tuple(v.mvhd[0], v.mvhd[1], v.mvhd[3]), std::make_tuple(c.version, c.version ? 120u : 108u, 7200u));
    EXPECT_EQ(v.tracks, (Tracks{{1, 7200, 10800, 0}, {2, c.audioTkhd, c.audioMdhd, 0}}));
  }
}

TEST_F(MuxEngine, BrandsFromTheFlavourTheProfileListTheIframeFlagAndHevc) {
  uint32_t list3[4] = {fcc("isom"), fcc("avc1"), fcc("mp41"), 0};  // the host's count is 3
  uint32_t list4[4] = {fcc("isom"), fcc("avc1"), fcc("mp41"), fcc("iso2")};
  struct Case {
    const char* name;
    bool mp4, profile, hevc;
    uint32_t minor, *list, count;
    const char* ftyp;
  } cases[] = {
      {"mp4 keeps the zero second brand", true, true, false, 0, nullptr, 0,
       "00000018 'ftyp' 'mp42' 00000001 'mp42' 00000000"},
      {"the profile's list, ifrm behind it", false, true, false, 512, list3, 3,
       "00000020 'ftyp' 'isom' 00000200 'isom' 'avc1' 'mp41' 'ifrm'"},
      {"a list without its count leaves the engine's brands", false, true, false, 512, list3, 0,
       "0000001c 'ftyp' 'qt  ' 00000000 'qt  ' 00000000 'ifrm'"},
      {"no room for ifrm", false, true, false, 0, list4, 4,
       "00000020 'ftyp' 'isom' 00000000 'isom' 'avc1' 'mp41' 'iso2'"},
      {"no profile: the box's defaults, whatever the file type", true, false, false, 0, nullptr, 0,
       "00000018 'ftyp' 'qt  ' 00000000 'qt  ' 00000000"},
      {"hevc overrides the profile", true, true, true, 512, list3, 3, "00000018 'ftyp' 'iso4' 00000001 'iso4' 'hvc1'"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;  // also keeps quiet what the bare hevc media may log
    IMovMuxer eng;
    if (c.mp4) eng._vidtag->Mp4Flavour(), eng._file_type = IMovMuxer::kFileTypeMp4;
    videoTags& t = *eng._vidtag;
    if (c.list) std::tie(t.major_brand, t.minor_version, t.compatible_brands, t.compatible_brands_cnt, t.iframe_brand) =
                    std::make_tuple(fcc("isom"), c.minor, c.list, c.count, 1);
    t.track_id_start = 5;
    if (!c.profile) eng._vidtag = nullptr;  // the host took the profile away
    ASSERT_TRUE(eng.Config());
    EXPECT_EQ(eng._next_track_id, c.profile ? 5u : 0u);
    if (c.hevc) {
      IMedia* hevc = IMedia::New("hevc");
      AttrSet ap;
      eng.AddStream(hevc, ap);
      EXPECT_STREQ(ap.Get("trunkid"), "1") << "numbering restarts at 1 whatever the profile says";
      const size_t before = eng._streams.size();
      IStream* st = eng.AddStream(video, ap);
      EXPECT_TRUE(st && st->TrackID() == static_cast<int>(1 + before));
      Release(hevc);
    }
    IOBuffer io;
    eng._ftyp->Fill(io, true);
    EXPECT_EQ(io.Bytes(), Hex(c.ftyp));
  }
  EXPECT_EQ(list3[3], 0u) << "ifrm goes into the box's copy, not the host's list";
}

TEST_F(MuxEngine, LeaderFollowerFirstPtsAndTheOrderOfRemainingData) {
  {
    // Audio alone: no first PTS, the running duration stays, and audio is emptied with limit 0.
    Recording r;
    ASSERT_TRUE(r.open({audio}));
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(r.push(audio, 8, 1, 1000 + i * 20, 20));
    EXPECT_EQ(std::make_pair(r.eng._first_pts, r.eng._duration_ms), std::make_pair(0LL, 0ULL));
    ASSERT_TRUE(r.eng.Close(r.buffer));
    EXPECT_EQ(cleanLog, (CleanCalls{{"testa", 0}}));
  }
  {
    // First PTS: the first non-zero millisecond value of a video packet, then fixed.
    Recording r;
    ASSERT_TRUE(r.open({video, audio}));
    EXPECT_TRUE(r.push(audio, 8, 1, 3000, 20) && r.eng._first_pts == 0) << "audio does not set it";
    Packet* p = NewPacket(video, 8, 1, 0, 40);
    p->pts = 999999;  // below a millisecond
    EXPECT_TRUE(r.eng.Process(r.buffer, *p) && r.eng._first_pts == 0);
    Release(p);
    EXPECT_TRUE(r.push(video, 8, 1, 2040, 40) && r.push(video, 8, 1, 2080, 40));
    EXPECT_EQ(r.eng._first_pts, 2040);
    ASSERT_TRUE(r.eng.Close(r.buffer));
  }
  {
    // What the tracks hold back: every video track first, then audio up to the last video's length.
    cleanLog.clear();
    IMedia* video2 = VideoMedia();
    Recording r;
    ASSERT_TRUE(r.open({audio, video, video2}));
    EXPECT_TRUE(r.push(video, 8, 1, 0, 40) && r.push(video, 8, 1, 40, 40) && r.push(video2, 8, 1, 0, 100));
    ASSERT_TRUE(r.eng.ClearRemainData(r.buffer));
    EXPECT_EQ(cleanLog, (CleanCalls{{"testv", 0}, {"testv", 0}, {"testa", 100}}));
    ASSERT_TRUE(r.eng.Close(r.buffer));
    Release(video2);
  }
}

TEST_F(MuxEngine, FailuresLeaveATrackLessAndItsPacketsRefused) {
  LogCapture log;
  EXPECT_FALSE(Recording().open({}));
  IMedia* broken = VideoMedia(";fail=1");
  IMedia* unknown = IMedia::New("codec=video/zzzz");
  {
    Recording r;
    ASSERT_TRUE(r.open({nullptr, broken, unknown, audio})) << "the other tracks still make a file";
    ASSERT_EQ(r.eng._streams.size(), 1u);
    EXPECT_EQ(r.eng._streams[0]->Media(), audio);
    const long long written = r.buffer.Size();
    EXPECT_FALSE(r.push(broken, 8, 1, 0, 40) || r.push(video, 8, 1, 0, 40)) << "no track for them";
    EXPECT_EQ(r.buffer.Size(), written);
    EXPECT_TRUE(r.push(audio, 8, 1, 0, 40));
    AttrSet ap;
    EXPECT_EQ(r.eng.AddStream(nullptr, ap), nullptr);
    ASSERT_TRUE(r.eng.Close(r.buffer));
    EXPECT_FALSE(r.eng.Close(r.buffer)) << "a second Close finds no tree";
    EXPECT_EQ(r.eng.AddStream(audio, ap), nullptr);
  }
  Release(broken);
  Release(unknown);
}

// A host's profile passes to the engine and goes with it; fields read at Close take a late change. The
// audio track gets no packet: it leaves moov, and the next track id still counts it.
TEST_F(MuxEngine, TracksGetTheHostProfileAndAnEmptyOneLeavesMoov) {
  const long long live = kiv::object_base::LiveObjects();
  {
    LogCapture log;
    Recording r;
    videoTags* mine = new videoTags();
    mine->movie_time_scale = 1000;
    mine->sphericaltag = 1;
    mine->track_id_start = 100;
    r.eng._vidtag = mine;  // what the property "vidtag" does
    r.eng._frame_rate = kiv::base::Fraction(30000, 1001);
    r.eng._add_samples = 3;
    ASSERT_TRUE(r.open({video, audio}));
    TestTrack *vt = r.track(0), *at = r.track(1);
    ASSERT_TRUE(vt && at);
    EXPECT_TRUE(vt->frameRate == kiv::base::Fraction(30000, 1001) && at->frameRate == kiv::base::Fraction(0, 0))
        << "audio gets no frame rate";
    EXPECT_TRUE(vt->seenTags == mine && at->seenTags == mine);
    EXPECT_TRUE(vt->Track()->Find("uuid") && !at->Track()->Find("uuid")) << "the spherical box on video only";
    EXPECT_TRUE(r.push(video, 8, 1, 0, 250));
    EXPECT_EQ(vt->addSamplesSeen, 3u);
    mine->pref_volume = 0x40;
    ASSERT_TRUE(r.eng.Close(r.buffer));
    const FileView v = View(r.bytes());
    EXPECT_EQ(v.mvhd, (Mvhd{0, 108, 1000, 0, 0x40, 3}))
        << "the empty audio track is the shortest; the next id counts the streams, not from track_id_start";
    EXPECT_EQ(v.tracks, (Tracks{{100, 250, 22500, 1}})) << "numbered from track_id_start";
    const auto trak = OfType(Children(r.bytes(), v.top[2]), "trak");
    ASSERT_EQ(trak.size(), 1u);
    EXPECT_EQ(OfType(Children(r.bytes(), trak[0]), "uuid")[0].size, 454u);
  }
  EXPECT_EQ(kiv::object_base::LiveObjects(), live) << "both profiles went with the engine";
}

TEST_F(MuxEngine, ProcessIsSerialisedAcrossThreads) {
  Recording r;
  ASSERT_TRUE(r.open({video, audio}));
  overlaps = 0;
  constexpr int kEach = 3000;
  std::atomic<int> refused{0}, ready{0};
  auto run = [&](IMedia* m, int n, unsigned char fill, int step) {
    for (++ready; ready < 2;) {
    }  // both start together
    for (int i = 0; i < kEach; ++i) refused += !r.push(m, n, fill, i * step, step);
  };
  std::thread tv(run, video, 37, 0x5a, 40), ta(run, audio, 11, 0xa5, 20);
  tv.join();
  ta.join();
  EXPECT_TRUE(refused == 0 && overlaps == 0) << "all taken, one packet at a time";
  ASSERT_TRUE(r.eng.Close(r.buffer));
  const Bytes& b = r.bytes();
  const BoxAt mdat = View(b).top[1];
  EXPECT_EQ(mdat.size, 8u + kEach * (37u + 11u));
  // Every payload whole: runs of 37 x 0x5a and 11 x 0xa5, never mixed.
  size_t at = mdat.body(), count[2] = {0, 0};
  while (at < mdat.end()) {
    const bool v = b[at] == 0x5a;
    const size_t n = v ? 37 : 11;
    if (Slice(b, at, n) != Bytes(n, v ? 0x5a : 0xa5)) break;
    ++count[v];
    at += n;
  }
  EXPECT_EQ(at, mdat.end()) << "torn payload at " << at;
  EXPECT_TRUE(count[0] == kEach && count[1] == kEach) << count[0] << " " << count[1];
}
