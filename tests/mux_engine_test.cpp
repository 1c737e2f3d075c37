// The mux engine: the file's layout, brands, the leading track, the end of a recording, the thumbnail.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <thread>

#include "stream/base/io/IO.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/IMovMuxer.h"
#include "tests/LogCapture.h"
#include "tests/MuxTestUtil.h"

using kiv::base::AttrSet;
using kiv::base::IO;
using kiv::base::IOBuffer;
using kiv::base::Release;
using kiv::plugin::mov::IMovMuxer;
using kiv::plugin::mov::IStream;
using kiv::plugin::mov::videoTags;
using namespace muxtest;

namespace {

uint32_t fcc(const char* t) {
  uint32_t v = 0;
  kiv::Convert32(v, t);
  return v;
}

Bytes ftypBytes(const char* major, uint32_t minor, std::initializer_list<const char*> brands) {
  Bytes b;
  const uint32_t size = 16 + 4 * static_cast<uint32_t>(brands.size());
  for (int i = 3; i >= 0; --i) b.push_back(static_cast<unsigned char>(size >> (8 * i)));
  b.insert(b.end(), {'f', 't', 'y', 'p'});
  b.insert(b.end(), major, major + 4);
  for (int i = 3; i >= 0; --i) b.push_back(static_cast<unsigned char>(minor >> (8 * i)));
  for (const char* br : brands) {
    if (br)
      b.insert(b.end(), br, br + 4);
    else
      b.insert(b.end(), 4, 0);
  }
  return b;
}

Bytes slice(const Bytes& b, size_t at, size_t n) {
  return at + n <= b.size() ? Bytes(b.begin() + static_cast<long>(at), b.begin() + static_cast<long>(at + n)) : Bytes();
}

// The top level of a whole file, which must be covered by its boxes.
std::vector<BoxAt> topLevel(const Bytes& b) {
  auto boxes = Boxes(b, 0, b.size());
  size_t covered = 0;
  for (const auto& x : boxes) covered += static_cast<size_t>(x.size);
  EXPECT_EQ(covered, b.size()) << "the top-level boxes cover the file";
  return boxes;
}

struct MovieHeader {
  int version = -1;
  uint64_t create = 0, modify = 0, duration = 0;
  uint32_t scale = 0, next = 0;
  uint16_t volume = 0;
  uint64_t size = 0;
};

MovieHeader mvhdOf(const Bytes& b, const BoxAt& moov) {
  MovieHeader h;
  auto mv = OfType(Children(b, moov), "mvhd");
  if (mv.empty()) return h;
  const size_t at = mv[0].offset;
  h.size = mv[0].size;
  h.version = b[at + 8];
  if (h.version == 1) {
    h.create = Be64(b, at + 12);
    h.modify = Be64(b, at + 20);
    h.scale = Be32(b, at + 28);
    h.duration = Be64(b, at + 32);
    h.volume = Be16(b, at + 44);
    h.next = Be32(b, at + 116);
  } else {
    h.create = Be32(b, at + 12);
    h.modify = Be32(b, at + 16);
    h.scale = Be32(b, at + 20);
    h.duration = Be32(b, at + 24);
    h.volume = Be16(b, at + 32);
    h.next = Be32(b, at + 104);
  }
  return h;
}

// Track id and duration of a version-0 tkhd, and the mdhd duration.
struct TrackHeader {
  uint32_t id = 0;
  uint32_t duration = 0;
  uint32_t mdhdDuration = 0;
  bool hasUuid = false;
};

std::vector<TrackHeader> tracksOf(const Bytes& b, const BoxAt& moov) {
  std::vector<TrackHeader> out;
  for (const auto& trak : OfType(Children(b, moov), "trak")) {
    TrackHeader t;
    auto kids = Children(b, trak);
    auto tk = OfType(kids, "tkhd");
    if (!tk.empty()) {
      t.id = Be32(b, tk[0].offset + 20);
      t.duration = Be32(b, tk[0].offset + 28);
    }
    auto md = OfType(kids, "mdia");
    if (!md.empty()) {
      auto mh = OfType(Children(b, md[0]), "mdhd");
      if (!mh.empty()) t.mdhdDuration = Be32(b, mh[0].offset + 24);
    }
    t.hasUuid = !OfType(kids, "uuid").empty();
    out.push_back(t);
  }
  return out;
}

class MuxEngine : public ::testing::Test {
 protected:
  void SetUp() override {
    RegisterTestTrack();
    CleanLog().clear();
    video = VideoMedia();
    audio = AudioMedia();
    ASSERT_TRUE(video && audio);
    ASSERT_TRUE(video->IsVideo() && audio->IsAudio());
  }
  void TearDown() override {
    Release(video);
    Release(audio);
  }

  static bool push(IMovMuxer& eng, IO& io, IMedia* m, int n, unsigned char fill, long long ptsMs, long long durMs) {
    Packet* p = NewPacket(m, n, fill, ptsMs, durMs);
    const bool ok = eng.Process(io, *p);
    Release(p);
    return ok;
  }

  // Video 0, 40, 80 ms (100 bytes each, 40 ms long) and audio 0, 20, 40, 60 ms (30 bytes, 20 ms),
  // interleaved as a camera delivers them.
  static void recordDefault(IMovMuxer& eng, IO& io, IMedia* v, IMedia* a) {
    EXPECT_TRUE(push(eng, io, v, 100, 0x11, 0, 40));
    EXPECT_TRUE(push(eng, io, a, 30, 0x21, 0, 20));
    EXPECT_TRUE(push(eng, io, v, 100, 0x12, 40, 40));
    EXPECT_TRUE(push(eng, io, a, 30, 0x22, 20, 20));
    EXPECT_TRUE(push(eng, io, v, 100, 0x13, 80, 40));
    EXPECT_TRUE(push(eng, io, a, 30, 0x23, 40, 20));
    EXPECT_TRUE(push(eng, io, a, 30, 0x24, 60, 20));
  }

  IMedia* video = nullptr;
  IMedia* audio = nullptr;
};

}  // namespace

TEST_F(MuxEngine, MovFileIsFtypThenMdatThenMoovWithTheSizePatched) {
  IMovMuxer eng;
  IOBuffer io;
  std::vector<IMedia*> list{video, audio};
  AttrSet ap;
  const unsigned long long before = IMovMuxer::getTimeStamp();
  ASSERT_TRUE(eng.Open(io, list, ap));
  ASSERT_EQ(eng._streams.size(), 2u);
  EXPECT_EQ(io.Position(), 32) << "ftyp and the mdat header";
  EXPECT_EQ(eng._written_size, 32u);
  EXPECT_EQ(Be32(io.Bytes(), 24), 8u) << "an empty mdat until Close";
  EXPECT_EQ(Code(io.Bytes(), 28), "mdat");
  void* container = nullptr;
  EXPECT_TRUE(ap.Get("container", container));
  EXPECT_EQ(container, static_cast<kiv::plugin::mov::IMov*>(&eng));

  recordDefault(eng, io, video, audio);
  EXPECT_EQ(eng._written_size, 32u + 300u + 120u);
  EXPECT_EQ(eng._duration_ms, 120u) << "the running duration follows video";
  auto* vt = dynamic_cast<TestTrack*>(eng._streams[0]);
  auto* at = dynamic_cast<TestTrack*>(eng._streams[1]);
  ASSERT_TRUE(vt && at);
  EXPECT_EQ(vt->leaders, (std::vector<unsigned long long>{0, 40, 80}));
  EXPECT_EQ(at->leaders, (std::vector<unsigned long long>{40, 80, 120, 120})) << "audio is handed the video's length";

  ASSERT_TRUE(eng.Close(io));
  const unsigned long long after = IMovMuxer::getTimeStamp();
  EXPECT_EQ(eng._root, nullptr);
  EXPECT_TRUE(eng._streams.empty());
  EXPECT_EQ(eng._duration_ms, 80u) << "at the end: the shortest track's length";

  const Bytes& b = io.Bytes();
  auto top = topLevel(b);
  ASSERT_EQ(top.size(), 3u);
  EXPECT_EQ(top[0].type, "ftyp");
  EXPECT_EQ(top[1].type, "mdat");
  EXPECT_EQ(top[2].type, "moov");
  EXPECT_EQ(slice(b, 0, 24), ftypBytes("qt  ", 0, {"qt  ", nullptr}));
  EXPECT_EQ(top[1].offset, 24u);
  EXPECT_EQ(top[1].size, 8u + 420u) << "the final size, patched in place";
  // The payloads in the order they came.
  const unsigned char order[] = {0x11, 0x21, 0x12, 0x22, 0x13, 0x23, 0x24};
  size_t at0 = 32;
  for (unsigned char fill : order) {
    const size_t n = (fill & 0xf0) == 0x10 ? 100 : 30;
    EXPECT_EQ(slice(b, at0, n), Bytes(n, fill)) << std::hex << int(fill);
    at0 += n;
  }
  EXPECT_EQ(top[2].offset, top[1].end()) << "moov right behind the last payload";

  const MovieHeader h = mvhdOf(b, top[2]);
  EXPECT_EQ(h.version, 0);
  EXPECT_EQ(h.size, 108u);
  EXPECT_EQ(h.scale, 60000u);
  EXPECT_EQ(h.duration, 4800u) << "80 ms of audio in 60000ths";
  EXPECT_EQ(h.volume, 256u);
  EXPECT_EQ(h.next, 3u);
  EXPECT_EQ(h.create, h.modify);
  EXPECT_GE(h.create, before & 0xffffffffull);
  EXPECT_LE(h.create, after & 0xffffffffull);
  EXPECT_GT(before, 2082844800ull + 1500000000ull) << "seconds since 1904";

  auto tracks = tracksOf(b, top[2]);
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_EQ(tracks[0].id, 1u);
  EXPECT_EQ(tracks[1].id, 2u);
  EXPECT_EQ(tracks[0].duration, 7200u);
  EXPECT_EQ(tracks[1].duration, 4800u);
  EXPECT_TRUE(OfType(Children(b, top[2]), "thum").empty()) << "no thumbnail unless asked";
  EXPECT_EQ(CleanLog(), (std::vector<std::pair<std::string, unsigned long long>>{{"testv", 0}, {"testa", 120}}));
}

TEST_F(MuxEngine, Mp4FlavourWritesItsBrandsAndGivesAudioTheVideoLength) {
  for (bool mdhdSame : {false, true}) {
    IMovMuxer eng;
    eng._vidtag->Mp4Flavour();
    eng._file_type = IMovMuxer::kFileTypeMp4;
    eng._vidtag->audio_mdhd_same_duration = mdhdSame;
    IOBuffer io;
    std::vector<IMedia*> list{video, audio};
    AttrSet ap;
    ASSERT_TRUE(eng.Open(io, list, ap));
    EXPECT_EQ(slice(io.Bytes(), 0, 24), ftypBytes("mp42", 1, {"mp42", nullptr})) << "the zero second brand stays";
    // Video 120 ms, audio 160 ms: the audio track is longer than the picture.
    EXPECT_TRUE(push(eng, io, video, 10, 1, 0, 40));
    EXPECT_TRUE(push(eng, io, video, 10, 1, 40, 40));
    EXPECT_TRUE(push(eng, io, video, 10, 1, 80, 40));
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(push(eng, io, audio, 10, 2, i * 40, 40));
    ASSERT_TRUE(eng.Close(io));

    const Bytes& b = io.Bytes();
    auto top = topLevel(b);
    ASSERT_EQ(top.size(), 3u);
    EXPECT_EQ(mvhdOf(b, top[2]).duration, 7200u) << "the video's length, audio not counted";
    auto tracks = tracksOf(b, top[2]);
    ASSERT_EQ(tracks.size(), 2u);
    EXPECT_EQ(tracks[1].duration, 7200u) << "audio tkhd takes the movie duration";
    EXPECT_EQ(tracks[1].mdhdDuration, mdhdSame ? 5760u : 7680u) << "mdhd only with audio_mdhd_same_duration";
    EXPECT_EQ(tracks[0].mdhdDuration, 10800u);
    EXPECT_EQ(eng._duration_ms, 120u);
  }
}

TEST_F(MuxEngine, BrandsFromTheProfileListAndTheIframeBrand) {
  uint32_t list3[3] = {fcc("isom"), fcc("avc1"), fcc("mp41")};
  {
    IMovMuxer eng;
    eng._vidtag->major_brand = fcc("isom");
    eng._vidtag->minor_version = 512;
    eng._vidtag->compatible_brands = list3;
    eng._vidtag->compatible_brands_cnt = 3;
    eng._vidtag->iframe_brand = 1;
    ASSERT_TRUE(eng.Config());
    IOBuffer io;
    eng._ftyp->Fill(io, true);
    EXPECT_EQ(io.Bytes(), ftypBytes("isom", 512, {"isom", "avc1", "mp41", "ifrm"}));
    EXPECT_EQ(list3[2], fcc("mp41")) << "the host's list is not written into";
    EXPECT_TRUE(eng.Config()) << "a second Config keeps the tree";
  }
  {
    // A list of its own without the profile's count keeps the engine's brands.
    IMovMuxer eng;
    eng._vidtag->major_brand = fcc("isom");
    eng._vidtag->compatible_brands = list3;
    eng._vidtag->iframe_brand = 1;
    ASSERT_TRUE(eng.Config());
    IOBuffer io;
    eng._ftyp->Fill(io, true);
    EXPECT_EQ(io.Bytes(), ftypBytes("qt  ", 0, {"qt  ", nullptr, "ifrm"}));
  }
  {
    uint32_t list4[4] = {fcc("isom"), fcc("avc1"), fcc("mp41"), fcc("iso2")};
    LogCapture log;
    IMovMuxer eng;
    eng._vidtag->major_brand = fcc("isom");
    eng._vidtag->compatible_brands = list4;
    eng._vidtag->compatible_brands_cnt = 4;
    eng._vidtag->iframe_brand = 1;
    ASSERT_TRUE(eng.Config());
    EXPECT_TRUE(log.Has("|E|")) << "logged as a failure";
    EXPECT_TRUE(log.Has("Too many compatible brands in ftyp box!"));
    IOBuffer io;
    eng._ftyp->Fill(io, true);
    EXPECT_EQ(io.Bytes(), ftypBytes("isom", 0, {"isom", "avc1", "mp41", "iso2"}));
  }
  {
    // Without a profile the box keeps its own defaults, whatever the file type.
    IMovMuxer eng;
    eng._vidtag = nullptr;  // the host took the profile away
    eng._file_type = IMovMuxer::kFileTypeMp4;
    ASSERT_TRUE(eng.Config());
    IOBuffer io;
    eng._ftyp->Fill(io, true);
    EXPECT_EQ(io.Bytes(), ftypBytes("qt  ", 0, {"qt  ", nullptr}));
    EXPECT_EQ(eng._next_track_id, 0u);
  }
}

TEST_F(MuxEngine, HevcForcesIsoBrandsAndTrackOne) {
  IMovMuxer eng;
  eng._vidtag->track_id_start = 5;
  ASSERT_TRUE(eng.Config());
  EXPECT_EQ(eng._next_track_id, 5u);
  IMedia* hevc = IMedia::New("hevc");
  AttrSet ap;
  {
    LogCapture quiet(kiv::dbg::E - 1);  // the bare media may not make a real HEVC track
    eng.AddStream(hevc, ap);
  }
  EXPECT_STREQ(ap.Get("fcc"), "hevc");
  EXPECT_STREQ(ap.Get("trunkid"), "1") << "numbering restarts at 1 whatever the profile says";
  EXPECT_EQ(eng._next_track_id, 1u);
  IOBuffer io;
  eng._ftyp->Fill(io, true);
  EXPECT_EQ(io.Bytes(), ftypBytes("iso4", 1, {"iso4", "hvc1"}));

  const size_t before = eng._streams.size();
  IStream* st = eng.AddStream(video, ap);
  ASSERT_NE(st, nullptr);
  EXPECT_EQ(st->TrackID(), static_cast<int>(1 + before));
  eng.clearStream();
  Release(hevc);
}

TEST_F(MuxEngine, SixtyFourBitMdatAndTheVersionRule) {
  {
    // The mov flavour keeps version 1 with the 64-bit form.
    IMovMuxer eng;
    eng._use64 = true;
    eng._version1 = true;
    IOBuffer io;
    std::vector<IMedia*> list{video};
    AttrSet ap;
    ASSERT_TRUE(eng.Open(io, list, ap));
    ASSERT_EQ(eng._streams.size(), 1u);
    EXPECT_TRUE(eng._streams[0]->_use64) << "the flags go to the tracks";
    EXPECT_TRUE(eng._streams[0]->_version1);
    EXPECT_FALSE(eng._streams[0]->_concate);
    EXPECT_FALSE(eng._streams[0]->_fragmented);
    const Bytes& b = io.Bytes();
    ASSERT_EQ(b.size(), 40u) << "ftyp and a 16-byte mdat header";
    EXPECT_EQ(Be32(b, 24), 1u);
    EXPECT_EQ(Code(b, 28), "mdat");
    EXPECT_EQ(Be64(b, 32), 16u);
    EXPECT_TRUE(push(eng, io, video, 1000, 7, 0, 40));
    EXPECT_TRUE(push(eng, io, video, 500, 8, 40, 40));
    ASSERT_TRUE(eng.Close(io));
    auto top = topLevel(b);
    ASSERT_EQ(top.size(), 3u);
    EXPECT_EQ(Be32(b, 24), 1u) << "the size field stays 1";
    EXPECT_EQ(Be64(b, 32), 16u + 1500u) << "the 64-bit size patched";
    EXPECT_EQ(top[2].offset, 40u + 1500u);
    const MovieHeader h = mvhdOf(b, top[2]);
    EXPECT_EQ(h.version, 1);
    EXPECT_EQ(h.size, 120u);
    EXPECT_EQ(h.duration, 4800u);
  }
  {
    // The mp4 flavour clears version 1 when the size is 64-bit.
    IMovMuxer eng;
    eng._file_type = IMovMuxer::kFileTypeMp4;
    eng._use64 = true;
    eng._version1 = true;
    IOBuffer io;
    std::vector<IMedia*> list{video};
    AttrSet ap;
    ASSERT_TRUE(eng.Open(io, list, ap));
    EXPECT_FALSE(eng._version1);
    EXPECT_TRUE(push(eng, io, video, 10, 7, 0, 40));
    ASSERT_TRUE(eng.Close(io));
    auto top = topLevel(io.Bytes());
    ASSERT_EQ(top.size(), 3u);
    EXPECT_EQ(top[1].header, 16u);
    EXPECT_EQ(mvhdOf(io.Bytes(), top[2]).version, 0);
  }
}

TEST_F(MuxEngine, AnEmptyTrackLeavesMoovAndTheCountsStayTheStreams) {
  LogCapture log;
  IMovMuxer eng;
  eng._vidtag->track_id_start = 100;
  IOBuffer io;
  std::vector<IMedia*> list{video, audio};
  AttrSet ap;
  ASSERT_TRUE(eng.Open(io, list, ap));
  EXPECT_TRUE(push(eng, io, video, 10, 1, 0, 40));
  EXPECT_TRUE(push(eng, io, video, 10, 1, 40, 40));
  ASSERT_TRUE(eng.Close(io));
  EXPECT_TRUE(log.Has("delete stream: test due to size 0!"));
  auto top = topLevel(io.Bytes());
  ASSERT_EQ(top.size(), 3u);
  auto tracks = tracksOf(io.Bytes(), top[2]);
  ASSERT_EQ(tracks.size(), 1u);
  EXPECT_EQ(tracks[0].id, 100u) << "numbered from track_id_start";
  const MovieHeader h = mvhdOf(io.Bytes(), top[2]);
  EXPECT_EQ(h.duration, 0u) << "the empty audio track is the shortest";
  EXPECT_EQ(h.next, 3u) << "counted from the streams, the deleted one too, not from track_id_start";
}

TEST_F(MuxEngine, TheLeaderIsVideoUnlessAudioChunkFirst) {
  {
    // Audio alone: no first PTS, and the running duration does not move.
    IMovMuxer eng;
    IOBuffer io;
    std::vector<IMedia*> list{audio};
    AttrSet ap;
    ASSERT_TRUE(eng.Open(io, list, ap));
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(push(eng, io, audio, 8, 1, 1000 + i * 20, 20));
    EXPECT_EQ(eng._first_pts, 0);
    EXPECT_EQ(eng._duration_ms, 0u);
    ASSERT_TRUE(eng.Close(io));
    EXPECT_EQ(CleanLog(), (std::vector<std::pair<std::string, unsigned long long>>{{"testa", 0}}))
        << "no video: audio is emptied with limit 0";
  }
  {
    IMovMuxer eng;
    eng._vidtag->audio_chunk_first = 1;
    IOBuffer io;
    std::vector<IMedia*> list{video, audio};
    AttrSet ap;
    ASSERT_TRUE(eng.Open(io, list, ap));
    EXPECT_TRUE(push(eng, io, audio, 8, 1, 0, 20));
    EXPECT_EQ(eng._duration_ms, 20u);
    EXPECT_TRUE(push(eng, io, video, 8, 1, 500, 40));
    EXPECT_EQ(eng._duration_ms, 20u) << "video follows";
    EXPECT_EQ(eng._first_pts, 0) << "first PTS is taken only while video leads";
    EXPECT_TRUE(push(eng, io, audio, 8, 1, 20, 20));
    EXPECT_TRUE(push(eng, io, video, 8, 1, 540, 40));
    auto* vt = dynamic_cast<TestTrack*>(eng._streams[0]);
    ASSERT_NE(vt, nullptr);
    EXPECT_EQ(vt->leaders, (std::vector<unsigned long long>{20, 40}));
    ASSERT_TRUE(eng.Close(io));
  }
  {
    // First PTS: the first non-zero value of a video packet, in ms, then fixed.
    IMovMuxer eng;
    IOBuffer io;
    std::vector<IMedia*> list{video, audio};
    AttrSet ap;
    ASSERT_TRUE(eng.Open(io, list, ap));
    EXPECT_TRUE(push(eng, io, audio, 8, 1, 3000, 20));
    EXPECT_EQ(eng._first_pts, 0) << "audio does not set it";
    Packet* p = NewPacket(video, 8, 1, 0, 40);
    p->pts = 999999;  // below a millisecond
    EXPECT_TRUE(eng.Process(io, *p));
    Release(p);
    EXPECT_EQ(eng._first_pts, 0);
    EXPECT_TRUE(push(eng, io, video, 8, 1, 2040, 40));
    EXPECT_EQ(eng._first_pts, 2040);
    EXPECT_TRUE(push(eng, io, video, 8, 1, 2080, 40));
    EXPECT_EQ(eng._first_pts, 2040);
    ASSERT_TRUE(eng.Close(io));
  }
}

TEST_F(MuxEngine, RemainingDataVideoFirstThenAudioToTheLastVideoLength) {
  IMedia* video2 = VideoMedia();
  {
    IMovMuxer eng;
    IOBuffer io;
    std::vector<IMedia*> list{audio, video, video2};
    AttrSet ap;
    ASSERT_TRUE(eng.Open(io, list, ap));
    EXPECT_TRUE(push(eng, io, video, 8, 1, 0, 40));
    EXPECT_TRUE(push(eng, io, video, 8, 1, 40, 40));
    EXPECT_TRUE(push(eng, io, video2, 8, 1, 0, 100));
    ASSERT_TRUE(eng.ClearRemainData(io));
    EXPECT_EQ(CleanLog(),
              (std::vector<std::pair<std::string, unsigned long long>>{{"testv", 0}, {"testv", 0}, {"testa", 100}}))
        << "the last video track's length is the limit";
    ASSERT_TRUE(eng.Close(io));
  }
  Release(video2);
}

TEST_F(MuxEngine, FailuresLeaveATrackLessAndItsPacketsRefused) {
  LogCapture log;
  {
    IMovMuxer eng;
    IOBuffer io;
    std::vector<IMedia*> none;
    AttrSet ap;
    EXPECT_FALSE(eng.Open(io, none, ap));
    EXPECT_TRUE(log.Has("list.empty()"));
    EXPECT_TRUE(log.Has("!StreamConfig(io,list,ap)"));
  }
  IMedia* broken = VideoMedia(";fail=1");
  IMedia* unknown = IMedia::New("codec=video/zzzz");
  {
    IMovMuxer eng;
    IOBuffer io;
    std::vector<IMedia*> list{nullptr, broken, unknown, audio};
    AttrSet ap;
    ASSERT_TRUE(eng.Open(io, list, ap)) << "the other tracks still make a file";
    EXPECT_TRUE(log.Has("!st->MuxConfig(_mdat, media, _vidtag, &_para)"));
    EXPECT_TRUE(log.Has(":\t!st\n")) << "no class for the codec";
    ASSERT_EQ(eng._streams.size(), 1u);
    EXPECT_EQ(eng._streams[0]->Media(), audio);
    const auto written = eng._written_size;
    EXPECT_FALSE(push(eng, io, broken, 8, 1, 0, 40));
    EXPECT_FALSE(push(eng, io, video, 8, 1, 0, 40)) << "no track for it";
    EXPECT_EQ(eng._written_size, written);
    EXPECT_TRUE(push(eng, io, audio, 8, 1, 0, 40));
    EXPECT_EQ(eng.AddStream(nullptr, ap), nullptr);
    EXPECT_TRUE(log.Has(":\t!media\n"));
    ASSERT_TRUE(eng.Close(io));
    EXPECT_FALSE(eng.Close(io)) << "a second Close finds no tree";
    EXPECT_EQ(eng.AddStream(audio, ap), nullptr);
    EXPECT_TRUE(log.Has("!_moov"));
  }
  Release(broken);
  Release(unknown);
}

TEST_F(MuxEngine, TracksGetTheFrameRateTheProfileAndTheAddSamplesCount) {
  IMovMuxer eng;
  eng._frame_rate = kiv::base::Fraction(30000, 1001);
  eng._vidtag->sphericaltag = 1;
  eng._add_samples = 3;
  IOBuffer io;
  std::vector<IMedia*> list{video, audio};
  AttrSet ap;
  ASSERT_TRUE(eng.Open(io, list, ap));
  auto* vt = dynamic_cast<TestTrack*>(eng._streams[0]);
  auto* at = dynamic_cast<TestTrack*>(eng._streams[1]);
  ASSERT_TRUE(vt && at);
  EXPECT_EQ(vt->frameRate, kiv::base::Fraction(30000, 1001));
  EXPECT_EQ(at->frameRate, kiv::base::Fraction(0, 0)) << "audio gets no frame rate";
  EXPECT_EQ(vt->seenTags, eng._vidtag);
  EXPECT_TRUE(eng._has_audio);
  EXPECT_TRUE(push(eng, io, video, 8, 1, 0, 40));
  EXPECT_TRUE(push(eng, io, audio, 8, 1, 0, 40));
  EXPECT_EQ(vt->addSamplesSeen, 3u);
  ASSERT_TRUE(eng.Close(io));
  auto top = topLevel(io.Bytes());
  ASSERT_EQ(top.size(), 3u);
  auto tracks = tracksOf(io.Bytes(), top[2]);
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_TRUE(tracks[0].hasUuid) << "the spherical box on video";
  EXPECT_FALSE(tracks[1].hasUuid);
  auto uuid = OfType(Children(io.Bytes(), OfType(Children(io.Bytes(), top[2]), "trak")[0]), "uuid");
  ASSERT_EQ(uuid.size(), 1u);
  EXPECT_EQ(uuid[0].size, 454u);
}

TEST_F(MuxEngine, ThumbnailReservedAtTheEndOfMoovAndSplitWhenAJpegExists) {
  const std::string base = TempPath("mux_engine_thumb");
  const std::string path = base + ".mov";
  const std::string jpg = base + ".jpg";
  for (bool withJpeg : {false, true}) {
    std::remove(jpg.c_str());
    Bytes jpeg(300);
    for (size_t i = 0; i < jpeg.size(); ++i) jpeg[i] = static_cast<unsigned char>(i * 7 + 1);
    if (withJpeg) {
      std::FILE* f = std::fopen(jpg.c_str(), "wb");
      ASSERT_NE(f, nullptr);
      std::fwrite(jpeg.data(), 1, jpeg.size(), f);
      std::fclose(f);
    }
    {
      IMovMuxer eng;
      eng.thumb = true;
      IO* io = IO::New(path.c_str(), "wb");
      ASSERT_NE(io, nullptr);
      std::vector<IMedia*> list{video};
      AttrSet ap;
      ASSERT_TRUE(eng.Open(*io, list, ap));
      EXPECT_TRUE(push(eng, *io, video, 50, 9, 0, 40));
      ASSERT_TRUE(eng.Close(*io));
      EXPECT_EQ(eng._thumb, nullptr) << "gone with the tree";
      EXPECT_TRUE(io->Close());
      delete io;
    }
    const Bytes b = ReadFile(path);
    auto top = topLevel(b);
    ASSERT_EQ(top.size(), 3u);
    EXPECT_EQ(top[1].size, 58u) << "mdat patched behind the thumbnail's writes";
    auto kids = Children(b, top[2]);
    ASSERT_FALSE(kids.empty());
    if (!withJpeg) {
      EXPECT_EQ(kids.back().type, "thum") << "the last box of moov";
      EXPECT_EQ(kids.back().size, 204808u);
      EXPECT_EQ(slice(b, kids.back().body(), 204800), Bytes(204800, 0));
    } else {
      ASSERT_GE(kids.size(), 2u);
      const BoxAt& th = kids[kids.size() - 2];
      const BoxAt& fr = kids.back();
      EXPECT_EQ(th.type, "thum");
      EXPECT_EQ(th.size, 308u);
      EXPECT_EQ(slice(b, th.body(), 300), jpeg);
      EXPECT_EQ(fr.type, "free");
      EXPECT_EQ(fr.size, 204500u);
      EXPECT_EQ(fr.end(), top[2].end()) << "the two fill the reserve exactly";
    }
  }
  std::remove(jpg.c_str());
  std::remove(path.c_str());
}

TEST_F(MuxEngine, ProcessIsSerialisedAcrossThreads) {
  IMovMuxer eng;
  IOBuffer io;
  std::vector<IMedia*> list{video, audio};
  AttrSet ap;
  ASSERT_TRUE(eng.Open(io, list, ap));
  constexpr int kEach = 300;
  std::atomic<int> refused{0};
  auto run = [&](IMedia* m, int n, unsigned char fill, int step) {
    for (int i = 0; i < kEach; ++i)
      if (!push(eng, io, m, n, fill, i * step, step)) ++refused;
  };
  std::thread tv(run, video, 37, 0x5a, 40);
  std::thread ta(run, audio, 11, 0xa5, 20);
  tv.join();
  ta.join();
  EXPECT_EQ(refused.load(), 0);
  const unsigned long long payload = kEach * 37ull + kEach * 11ull;
  EXPECT_EQ(eng._written_size, 32u + payload);
  ASSERT_TRUE(eng.Close(io));
  const Bytes& b = io.Bytes();
  auto top = topLevel(b);
  ASSERT_EQ(top.size(), 3u);
  EXPECT_EQ(top[1].size, 8u + payload);
  // Every payload whole: runs of 37 x 0x5a and 11 x 0xa5, never mixed.
  size_t at = top[1].body(), v = 0, a = 0;
  while (at < top[1].end()) {
    if (b[at] == 0x5a && slice(b, at, 37) == Bytes(37, 0x5a)) {
      ++v;
      at += 37;
    } else if (b[at] == 0xa5 && slice(b, at, 11) == Bytes(11, 0xa5)) {
      ++a;
      at += 11;
    } else {
      ADD_FAILURE() << "torn payload at " << at;
      break;
    }
  }
  EXPECT_EQ(v, static_cast<size_t>(kEach));
  EXPECT_EQ(a, static_cast<size_t>(kEach));
}

TEST_F(MuxEngine, AProfileHandedInPassesToTheEngine) {
  const long long live = kiv::object_base::LiveObjects();
  {
    IMovMuxer eng;
    videoTags* mine = new videoTags();
    mine->movie_time_scale = 1000;
    mine->pref_volume = 0x80;
    eng._vidtag = mine;  // what the property "vidtag" does
    IOBuffer io;
    std::vector<IMedia*> list{video};
    AttrSet ap;
    ASSERT_TRUE(eng.Open(io, list, ap));
    EXPECT_EQ(dynamic_cast<TestTrack*>(eng._streams[0])->seenTags, mine);
    EXPECT_TRUE(push(eng, io, video, 8, 1, 0, 250));
    // Fields read at Close take a change made while recording.
    mine->pref_volume = 0x40;
    ASSERT_TRUE(eng.Close(io));
    auto top = topLevel(io.Bytes());
    ASSERT_EQ(top.size(), 3u);
    const MovieHeader h = mvhdOf(io.Bytes(), top[2]);
    EXPECT_EQ(h.scale, 1000u);
    EXPECT_EQ(h.duration, 250u);
    EXPECT_EQ(h.volume, 0x40u);
  }
  EXPECT_EQ(kiv::object_base::LiveObjects(), live) << "both profiles went with the engine";
}
