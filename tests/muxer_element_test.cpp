// The muxer elements in a graph: ports, properties, messages, the write cache, empty recordings, and
// real H.264 and AAC tracks.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "stream/base/Message.h"
#include "stream/base/io/IOCacheWriter.h"
#include "stream/base/io/IODelegate.h"
#include "stream/core/fw/IElement.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/core/Mp4Muxer.h"
#include "tests/LogCapture.h"
#include "tests/MuxTestUtil.h"
#include "tests/ToolRun.h"
#include "tools/AdtsReader.h"
#include "tools/H264Reader.h"

using kiv::base::AttrSet;
using kiv::base::IClass;
using kiv::base::Message;
using kiv::base::Object;
using kiv::base::Release;
using kiv::plugin::mov::IMovMuxer;
using kiv::plugin::mov::MovMuxer;
using kiv::plugin::mov::Mp4Muxer;
using kiv::plugin::mov::videoTags;
using kiv::stream::IPort;
using kiv::stream::ISource;
using namespace muxtest;

namespace {

class Source : public ISource {};

struct Notice {
  std::string name;
  AttrSet attrs;
  std::string get(const char* key) const { return attrs.GetOrDef(key, ""); }
};

template <class T>
std::unique_ptr<T> makeByKeywords(const char* words) {
  AttrSet ap;
  Object::AttrSetInit(ap, nullptr, words);
  return std::unique_ptr<T>(Object::New<T>(ap));
}

// A source with one output port a media, linked to a muxer that records what it says.
class Graph {
 public:
  explicit Graph(MovMuxer* mux) : _mux(mux) {
    mux->SetMessageHandler([this](Message& m) { notices.push_back({m.Name(), m.Attrs}); });
  }
  ~Graph() {
    _mux->SetMessageHandler(nullptr);
    for (IMedia* m : _media) Release(m);
  }
  Graph(const Graph&) = delete;
  Graph& operator=(const Graph&) = delete;

  // The port takes one reference; the graph keeps another for its packets.
  IPort* output(IMedia* media) {
    IPort* p = source.CreatePortOut(media->Caps().c_str(), static_cast<int>(_media.size()));
    media->Hold();
    p->Media(*media);
    _media.push_back(media);
    return p;
  }
  bool link() { return source.LinkTo(_mux); }

  // A packet through the port, as the host delivers it.
  bool push(IPort* out, int n, unsigned char fill, long long ptsMs, long long durMs, bool key = true) {
    Packet* p = NewPacket(out->Media(), n, fill, ptsMs, durMs, key);
    const bool ok = out->Push(p, true) == 1;
    Release(p);
    return ok;
  }

  std::vector<Notice> named(const std::string& name) const {
    std::vector<Notice> out;
    for (const auto& n : notices)
      if (n.name == name) out.push_back(n);
    return out;
  }

  Source source;
  std::vector<Notice> notices;

 private:
  MovMuxer* _mux;
  std::vector<IMedia*> _media;
};

class MuxerElement : public ::testing::Test {
 protected:
  void SetUp() override {
    RegisterTestTrack();
    path = TempPath("muxer_element") + "_" + ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".mov";
    std::remove(path.c_str());
  }
  void TearDown() override { std::remove(path.c_str()); }

  std::string path;
};

// Creation time fields of mvhd, tkhd and mdhd (version 0) zeroed: two recordings made a second apart
// differ only there.
void blankTimes(Bytes& b) {
  auto blank = [&b](const BoxAt& x) {
    for (size_t i = x.offset + 12; i < x.offset + 20 && i < b.size(); ++i) b[i] = 0;
  };
  for (const auto& moov : OfType(Boxes(b, 0, b.size()), "moov")) {
    for (const auto& x : Children(b, moov)) {
      if (x.type == "mvhd") blank(x);
      if (x.type != "trak") continue;
      for (const auto& y : Children(b, x)) {
        if (y.type == "tkhd") blank(y);
        if (y.type != "mdia") continue;
        for (const auto& z : Children(b, y))
          if (z.type == "mdhd") blank(z);
      }
    }
  }
}

}  // namespace

TEST_F(MuxerElement, RegisteredFirstWithTheirKeywordsAndProperties) {
  const auto& all = IClass::Globle();
  IClass* mov = IClass::Find("MovMuxer-mov-muxer", true);
  IClass* mp4 = IClass::Find("Mp4Muxer-mp4-muxer", true);
  ASSERT_TRUE(mov && mp4);
  size_t iMov = all.size(), iMp4 = all.size(), iVideoTags = all.size();
  for (size_t i = 0; i < all.size(); ++i) {
    if (all[i] == mov) iMov = i;
    if (all[i] == mp4) iMp4 = i;
    if (std::string(all[i]->Name()) == "videoTags") iVideoTags = i;
  }
  EXPECT_EQ(iMp4, iMov + 1);
  EXPECT_LT(iMp4, iVideoTags);
  EXPECT_STREQ(mov->Module(), "boxweave");
  EXPECT_EQ(mov->Version(), 0x20002);
  EXPECT_STREQ(mp4->Vendor(), "Quorelvan");

  const auto& props = mov->Properties();
  ASSERT_EQ(props.size(), 4u);
  const char* names[] = {"vidtag", "ioCacheBlk", "ioCacheNum", "thumb"};
  const kiv::base::IProperty::Kind kinds[] = {kiv::base::IProperty::Member, kiv::base::IProperty::Setter,
                                              kiv::base::IProperty::Setter, kiv::base::IProperty::Member};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_STREQ(props[i]->Name(), names[i]);
    EXPECT_EQ(props[i]->kind(), kinds[i]) << names[i];
  }
  EXPECT_TRUE(mp4->Properties().empty());

  auto m = makeByKeywords<MovMuxer>("mov-muxer");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(dynamic_cast<Mp4Muxer*>(m.get()), nullptr);
  EXPECT_EQ(m->ioCacheBlk, 0x80000);
  EXPECT_EQ(m->ioCacheNum, 0);
  EXPECT_EQ(m->Flags() & 0xC0108u, 0xC0108u);
  auto m4 = makeByKeywords<MovMuxer>("mp4-muxer");
  ASSERT_NE(m4, nullptr);
  EXPECT_NE(dynamic_cast<Mp4Muxer*>(m4.get()), nullptr);
  // Mp4Muxer has no list of its own; the base's properties serve.
  EXPECT_TRUE(m4->Set("ioCacheNum", 3));
  EXPECT_TRUE(m4->Set("ioCacheBlk", "4096"));
  EXPECT_TRUE(m4->Set("thumb", true));
  EXPECT_EQ(m4->ioCacheNum, 3);
  EXPECT_EQ(m4->ioCacheBlk, 4096);
  EXPECT_TRUE(m4->thumb);
  int readBack = 0;
  EXPECT_FALSE(m4->Get("ioCacheNum", readBack)) << "a setter cannot be read";
}

TEST_F(MuxerElement, Mp4MuxerRewritesItsProfile) {
  Mp4Muxer m;
  ASSERT_NE(m._vidtag, nullptr);
  EXPECT_EQ(m._file_type, IMovMuxer::kFileTypeMp4);
  EXPECT_EQ(m._vidtag->file_type, IMovMuxer::kFileTypeMp4);
  EXPECT_EQ(m._vidtag->tkhd_flags, 1u);
  EXPECT_EQ(m._vidtag->audio_tkhd_same_duration, 1u);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(m._vidtag->compressorname)), "AVC CodingC");
  MovMuxer mov;
  EXPECT_EQ(mov._file_type, 0u);
  EXPECT_EQ(mov._vidtag->tkhd_flags, 15u);
}

TEST_F(MuxerElement, RecordingThroughPortsSendsEachNoticeInItsTime) {
  MovMuxer mux;
  Graph g(&mux);
  IPort* v = g.output(VideoMedia());
  IPort* a = g.output(AudioMedia());
  ASSERT_TRUE(g.link());
  mux.url = "file://" + path;
  ASSERT_TRUE(mux.Open());
  EXPECT_EQ(mux.Status(), kiv::stream::IStatus::opened);
  ASSERT_EQ(g.notices.size(), 1u);
  EXPECT_EQ(g.notices[0].name, "fileurl");
  EXPECT_EQ(g.notices[0].get("url"), path) << "the path of the url";
  EXPECT_GT(std::stoll(g.notices[0].get("clock")), 0);

  // Video every 100 ms from 0; the first picture's time is 0, so first PTS comes with the second.
  EXPECT_TRUE(g.push(v, 40, 1, 0, 100));
  EXPECT_TRUE(g.named("firstPTS").empty());
  ASSERT_EQ(g.named("media").size(), 1u);
  EXPECT_EQ(g.named("media")[0].get("width"), "640");
  EXPECT_EQ(g.named("media")[0].get("height"), "360");
  EXPECT_TRUE(g.push(a, 10, 2, 0, 20));
  for (int i = 1; i < 12; ++i) {
    EXPECT_TRUE(g.push(v, 40, 1, i * 100, 100));
    EXPECT_TRUE(g.push(a, 10, 2, i * 20, 20));
  }
  ASSERT_EQ(g.named("firstPTS").size(), 1u) << "once";
  EXPECT_EQ(g.named("firstPTS")[0].get("pts"), "100");
  EXPECT_EQ(g.named("media").size(), 1u) << "once";
  // The running length is 100 ms per picture: 500 is not more than 500, 600 is.
  auto d = g.named("currentDuration");
  ASSERT_EQ(d.size(), 2u);
  EXPECT_EQ(d[0].get("duration"), "600");
  EXPECT_EQ(d[1].get("duration"), "1200");

  // A packet of a media the muxer has no track for is refused.
  Packet* stray = NewPacket(nullptr, 4, 0, 0, 10);
  IMedia* other = IMedia::New("codec=audio/testa");
  stray->media = other;
  EXPECT_FALSE(mux.ReceivePacket(*stray, nullptr));
  Release(stray);
  Release(other);

  ASSERT_TRUE(mux.Close());
  EXPECT_EQ(mux.Status(), kiv::stream::IStatus::closed);
  auto c = g.named("fileClose");
  ASSERT_EQ(c.size(), 1u);
  EXPECT_EQ(g.notices.back().name, "fileClose");
  const Bytes b = ReadFile(path);
  EXPECT_EQ(c[0].get("url"), "file://" + path);
  EXPECT_EQ(c[0].get("filename"), path);
  EXPECT_EQ(c[0].get("filesize"), std::to_string(b.size()));
  EXPECT_EQ(c[0].get("duration"), "240") << "the shortest track's length";

  auto top = Boxes(b, 0, b.size());
  ASSERT_EQ(top.size(), 3u);
  EXPECT_EQ(top[0].type, "ftyp");
  EXPECT_EQ(Code(b, 8), "qt  ");
  EXPECT_EQ(top[1].type, "mdat");
  EXPECT_EQ(top[1].size, 8u + 12 * 50u);
  EXPECT_EQ(top[2].type, "moov");
  EXPECT_EQ(top[2].end(), b.size());
}

TEST_F(MuxerElement, DurationNoticesUseAnUnsignedDistance) {
  MovMuxer mux;
  Graph g(&mux);
  IPort* v = g.output(VideoMedia());
  ASSERT_TRUE(g.link());
  mux.url = path;
  ASSERT_TRUE(mux.Open());
  for (int i = 0; i < 7; ++i) EXPECT_TRUE(g.push(v, 8, 1, 1000 + i * 100, 100));
  ASSERT_EQ(g.named("currentDuration").size(), 1u);
  EXPECT_EQ(g.named("currentDuration")[0].get("duration"), "600");
  // A time stamp that goes back shortens the track: 700 - 500 = 200 ms, below the last notice.
  EXPECT_TRUE(g.push(v, 8, 1, 1100, 100));
  auto d = g.named("currentDuration");
  ASSERT_EQ(d.size(), 2u) << "told at once";
  EXPECT_EQ(d[1].get("duration"), "200");
  EXPECT_EQ(g.named("firstPTS")[0].get("pts"), "1000");
  ASSERT_TRUE(mux.Close());
}

TEST_F(MuxerElement, AnEmptyRecordingIsRemovedAndStillClosedWithANotice) {
  for (bool cached : {false, true}) {
    LogCapture log;
    MovMuxer mux;
    Graph g(&mux);
    g.output(VideoMedia());
    ASSERT_TRUE(g.link());
    mux.url = path;
    if (cached) {
      ASSERT_TRUE(mux.Set("ioCacheBlk", 4096));
      ASSERT_TRUE(mux.Set("ioCacheNum", 2));
    }
    ASSERT_TRUE(mux.Open());
    EXPECT_TRUE(FileExists(path));
    ASSERT_TRUE(mux.Close());
    EXPECT_FALSE(FileExists(path)) << "empty recordings stay off the card";
    EXPECT_TRUE(log.Has("|I|"));
    EXPECT_TRUE(log.Has("del file:" + path));
    auto c = g.named("fileClose");
    ASSERT_EQ(c.size(), 1u);
    EXPECT_EQ(c[0].get("filesize"), "0") << "the size after the removal";
    EXPECT_EQ(c[0].get("url"), path);
    EXPECT_TRUE(g.named("firstPTS").empty());
    EXPECT_TRUE(g.named("media").empty());
  }
  // From the first packet on, even one refused, the file counts as holding data.
  MovMuxer mux;
  Graph g(&mux);
  g.output(VideoMedia());
  ASSERT_TRUE(g.link());
  mux.url = path;
  ASSERT_TRUE(mux.Open());
  Packet* p = NewPacket(nullptr, 4, 0, 0, 10);
  EXPECT_FALSE(mux.ReceivePacket(*p, nullptr));
  Release(p);
  ASSERT_TRUE(mux.Close());
  EXPECT_TRUE(FileExists(path));
}

TEST_F(MuxerElement, OpenFailuresAndPacketsWithoutAFile) {
  LogCapture log;
  MovMuxer mux;
  Graph g(&mux);
  g.output(VideoMedia());
  ASSERT_TRUE(g.link());
  Packet* p = NewPacket(nullptr, 4, 0, 0, 10);
  EXPECT_FALSE(mux.ReceivePacket(*p, nullptr)) << "nothing open";
  Release(p);
  EXPECT_FALSE(mux.Open()) << "no url";
  EXPECT_TRUE(log.Has("!Open(\"wb\")"));
  EXPECT_TRUE(g.named("fileurl").empty());

  // No input port: the engine has nothing to record and the element does not open.
  MovMuxer lonely;
  lonely.url = path;
  EXPECT_FALSE(lonely.Open());
  EXPECT_TRUE(log.Has("!Open(*_io,list,ap)"));
  EXPECT_EQ(lonely.Status(), kiv::stream::IStatus::closed);
  EXPECT_NE(lonely.io, nullptr) << "the stream stays open";
  EXPECT_TRUE(lonely.Close());
}

TEST_F(MuxerElement, TheWriteCacheGivesTheSameFileAsDirectWrites) {
  std::map<std::string, Bytes> files;
  struct Setup {
    const char* name;
    int blk, num;
    bool delegate;
  } setups[] = {{"direct", 0x80000, 0, false}, {"blk0", 0, 4, false}, {"cache", 4096, 3, true}, {"tiny", 64, 2, true}};
  for (const auto& s : setups) {
    const std::string file = path + "." + s.name;
    {
      MovMuxer mux;
      mux.thumb = true;
      Graph g(&mux);
      IPort* v = g.output(VideoMedia());
      IPort* a = g.output(AudioMedia());
      ASSERT_TRUE(g.link());
      mux.url = file;
      ASSERT_TRUE(mux.Set("ioCacheBlk", s.blk));
      ASSERT_TRUE(mux.Set("ioCacheNum", s.num));
      ASSERT_TRUE(mux.Open());
      auto* d = dynamic_cast<kiv::base::IOCacheWriter*>(mux.io);
      EXPECT_EQ(d != nullptr, s.delegate) << s.name;
      if (d) {
        EXPECT_EQ(d->BlockSize(), s.blk);
        EXPECT_EQ(d->BlockCount(), s.num);
        EXPECT_TRUE(d->FreeDelegateIO());
      }
      for (int i = 0; i < 40; ++i) {
        EXPECT_TRUE(g.push(v, 700 + i * 13, static_cast<unsigned char>(i), i * 40, 40, i % 10 == 0));
        EXPECT_TRUE(g.push(a, 90 + i, static_cast<unsigned char>(0x80 + i), i * 40, 40));
      }
      ASSERT_TRUE(mux.Close());
      ASSERT_EQ(g.named("fileClose").size(), 1u);
      EXPECT_EQ(g.named("fileClose")[0].get("filesize"), std::to_string(ReadFile(file).size())) << s.name;
    }
    files[s.name] = ReadFile(file);
    blankTimes(files[s.name]);
    std::remove(file.c_str());
  }
  ASSERT_GT(files["direct"].size(), 204808u);
  for (const char* name : {"blk0", "cache", "tiny"}) EXPECT_TRUE(files[name] == files["direct"]) << name;
}

TEST_F(MuxerElement, ProfileAndThumbnailThroughProperties) {
  const long long live = kiv::object_base::LiveObjects();
  {
    Mp4Muxer mux;
    Graph g(&mux);
    IPort* v = g.output(VideoMedia());
    ASSERT_TRUE(g.link());
    videoTags* tags = new videoTags();
    tags->movie_time_scale = 1000;
    ASSERT_TRUE(mux.Set("vidtag", tags));
    EXPECT_EQ(mux._vidtag, tags);
    ASSERT_TRUE(mux.Set("thumb", true));
    mux.url = path;
    ASSERT_TRUE(mux.Open());
    EXPECT_TRUE(g.push(v, 16, 1, 0, 300));
    ASSERT_TRUE(mux.Close());
    const Bytes b = ReadFile(path);
    auto top = Boxes(b, 0, b.size());
    ASSERT_EQ(top.size(), 3u);
    // A host profile replaces the mp4 column, but the file type stays mp4: the brands are the mp4 ones.
    EXPECT_EQ(Code(b, 8), "mp42");
    EXPECT_EQ(Be32(b, 12), 1u);
    auto kids = Children(b, top[2]);
    ASSERT_FALSE(kids.empty());
    EXPECT_EQ(kids[0].type, "mvhd");
    EXPECT_EQ(Be32(b, kids[0].offset + 20), 1000u) << "the host's movie time scale";
    EXPECT_EQ(Be32(b, kids[0].offset + 24), 300u);
    EXPECT_EQ(kids.back().type, "thum");
  }
  EXPECT_EQ(kiv::object_base::LiveObjects(), live) << "the profile went with the element";
}

// ---- real tracks

namespace {

// What a shell command prints; false when it fails.
bool capture(const std::string& cmd, std::string& out) {
  std::FILE* f = ::popen(cmd.c_str(), "r");
  if (!f) return false;
  char buf[512];
  size_t n = 0;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
  return ::pclose(f) == 0;
}

struct Recorded {
  long long pictures = 0;
  long long frames = 0;
  std::vector<Notice> notices;
};

// The sample H.264 and AAC streams, interleaved by time, recorded by the muxer at `file`.
Recorded recordSamples(MovMuxer& mux, const std::string& file) {
  Recorded out;
  const std::string dir = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/";
  boxweave::H264Description hd;
  boxweave::AdtsDescription ad;
  std::string error;
  if (!boxweave::DescribeH264(dir + "sample.h264", hd, error) || !boxweave::DescribeAdts(dir + "sample.aac", ad, error)) {
    ADD_FAILURE() << error;
    return out;
  }
  const kiv::base::Fraction fps(25, 1);
  Graph g(&mux);
  IPort* v = g.output(boxweave::NewH264Media(hd, fps));
  IPort* a = g.output(boxweave::NewAdtsMedia(ad));
  if (!g.link()) {
    ADD_FAILURE() << "link";
    return out;
  }
  mux.url = file;
  if (!mux.Open()) {
    ADD_FAILURE() << "Open";
    return out;
  }
  boxweave::H264Reader hr;
  boxweave::AdtsReader ar;
  hr.FrameRate(fps);
  if (!hr.Open(hd.path) || !ar.Open(ad.path)) {
    ADD_FAILURE() << "readers";
    return out;
  }
  Packet* pv = hr.NextPacket(v->Media());
  Packet* pa = ar.NextPacket(a->Media());
  while ((pv && pv != boxweave::PacketError()) || (pa && pa != boxweave::PacketError())) {
    const bool takeVideo = pv && pv != boxweave::PacketError() &&
                           (!pa || pa == boxweave::PacketError() || pv->pts <= pa->pts);
    Packet*& p = takeVideo ? pv : pa;
    EXPECT_EQ((takeVideo ? v : a)->Push(p, true), 1);
    ++(takeVideo ? out.pictures : out.frames);
    Release(p);
    p = takeVideo ? hr.NextPacket(v->Media()) : ar.NextPacket(a->Media());
  }
  EXPECT_TRUE(mux.Close());
  out.notices = g.notices;
  return out;
}

}  // namespace

TEST_F(MuxerElement, RealH264AndAacTracksMakeAPlayableMp4) {
  const std::string file = path + ".mp4";
  Recorded r;
  {
    Mp4Muxer mux;
    r = recordSamples(mux, file);
  }
  ASSERT_GT(r.pictures, 10);
  ASSERT_GT(r.frames, 10);
  const Bytes b = ReadFile(file);
  auto top = Boxes(b, 0, b.size());
  ASSERT_EQ(top.size(), 3u);
  EXPECT_EQ(top[0].type, "ftyp");
  EXPECT_EQ(Code(b, 8), "mp42");
  EXPECT_EQ(top[1].type, "mdat");
  EXPECT_EQ(top[2].type, "moov");
  EXPECT_EQ(top[2].end(), b.size());
  EXPECT_EQ(OfType(Children(b, top[2]), "trak").size(), 2u);

  bool sawMedia = false, sawClose = false;
  for (const auto& n : r.notices) {
    sawMedia = sawMedia || n.name == "media";
    if (n.name == "fileClose") {
      sawClose = true;
      EXPECT_EQ(n.get("filesize"), std::to_string(b.size()));
    }
  }
  EXPECT_TRUE(sawMedia && sawClose);

  if (!Shell("command -v ffprobe")) {
    std::remove(file.c_str());
    GTEST_SKIP() << "ffprobe is not installed";
  }
  std::string probe;
  ASSERT_TRUE(capture("ffprobe -v error -count_frames -show_entries stream=codec_name,nb_read_frames -of csv=p=0 '" +
                          file + "' 2>&1",
                      probe));
  EXPECT_NE(probe.find("h264," + std::to_string(r.pictures)), std::string::npos) << probe;
  EXPECT_NE(probe.find("aac," + std::to_string(r.frames)), std::string::npos) << probe;
  EXPECT_TRUE(Shell("ffmpeg -v error -xerror -i '" + file + "' -f null -")) << "decodes without an error";
  std::remove(file.c_str());
}

TEST_F(MuxerElement, RealTracksThroughTheCacheGiveTheSameFile) {
  Bytes direct, cached;
  {
    MovMuxer mux;
    recordSamples(mux, path);
    direct = ReadFile(path);
  }
  {
    MovMuxer mux;
    mux.IOCacheBlk(8192);
    mux.IOCacheNum(4);
    recordSamples(mux, path);
    cached = ReadFile(path);
  }
  ASSERT_GT(direct.size(), 1000u);
  EXPECT_EQ(Code(direct, 8), "qt  ");
  blankTimes(direct);
  blankTimes(cached);
  EXPECT_TRUE(direct == cached);
}
