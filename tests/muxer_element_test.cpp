// The muxer elements in a graph: registration, notices, the write cache, empty recordings, real tracks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "stream/base/io/IOCacheWriter.h"
#include "stream/core/fw/IElement.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/core/Mp4Muxer.h"
#include "tests/LogCapture.h"
#include "tests/MuxTestUtil.h"
#include "tools/AdtsReader.h"
#include "tools/H264Reader.h"

using namespace kiv::base;
using namespace kiv::plugin::mov;
using namespace muxtest;

namespace {

class Source : public kiv::stream::ISource {};

struct Notice {
  std::string name;
  AttrSet attrs;
  std::string operator[](const char* key) const { return attrs.GetOrDef(key, ""); }
};

// A source with one output port a media (the graph takes them over), linked to the muxer, whose notices
// it keeps.
class Graph {
 public:
  Graph(MovMuxer& mux, std::vector<IMedia*> media) : _mux(mux), _media(std::move(media)) {
    mux.SetMessageHandler([this](Message& m) { notices.push_back({m.Name(), m.Attrs}); });
    for (IMedia* m : _media) {
      ports.push_back(source.CreatePortOut(m->Caps().c_str(), static_cast<int>(ports.size())));
      m->Hold();  // the port's reference
      ports.back()->Media(*m);
    }
    linked = source.LinkTo(&mux);
  }
  ~Graph() {
    _mux.SetMessageHandler(nullptr);
    for (IMedia* m : _media) Release(m);
  }
  // A packet through a port, as the host delivers it.
  bool push(size_t port, int n, unsigned char fill, long long ptsMs, long long durMs) {
    Packet* p = NewPacket(ports[port]->Media(), n, fill, ptsMs, durMs);
    const bool ok = ports[port]->Push(p, true) == 1;
    Release(p);
    return ok;
  }
  std::vector<Notice> named(const std::string& name) const {
    std::vector<Notice> out;
    for (const Notice& n : notices)
      if (n.name == name) out.push_back(n);
    return out;
  }
  std::string durations() const {
    std::string out;
    for (const Notice& n : named("currentDuration")) out += n["duration"] + " ";
    return out;
  }
  Source source;
  std::vector<kiv::stream::IPort*> ports;
  std::vector<Notice> notices;
  bool linked = false;
 private:
  MovMuxer& _mux;
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

// A packet the muxer has no track for.
bool pushStray(MovMuxer& mux) {
  IMedia* other = IMedia::New("codec=audio/testa");
  Packet* p = NewPacket(other, 4, 0, 0, 10);
  const bool ok = mux.ReceivePacket(*p, nullptr);
  Release(p);
  Release(other);
  return ok;
}

// The file with the creation times of mvhd, tkhd and mdhd (version 0) zeroed: two recordings a second
// apart differ only there.
Bytes timeless(const std::string& file) {
  Bytes b = ReadFile(file);
  std::vector<BoxAt> boxes = Boxes(b, 0, b.size());
  for (size_t i = 0; i < boxes.size(); ++i) {
    const BoxAt x = boxes[i];
    if (x.type == "mvhd" || x.type == "tkhd" || x.type == "mdhd")
      std::fill(b.begin() + static_cast<long>(x.offset) + 12, b.begin() + static_cast<long>(x.offset) + 20, 0);
    if (x.type == "moov" || x.type == "trak" || x.type == "mdia")
      for (const BoxAt& k : Children(b, x)) boxes.push_back(k);
  }
  return b;
}

}  // namespace

TEST_F(MuxerElement, RegisteredByKeywordsWithTheirProfiles) {
  for (const std::string words : {"mov-muxer", "mp4-muxer"}) {
    SCOPED_TRACE(words);
    AttrSet ap;
    Object::AttrSetInit(ap, nullptr, words.c_str());
    std::unique_ptr<MovMuxer> m(Object::New<MovMuxer>(ap));
    ASSERT_NE(m, nullptr);
    const bool isMp4 = words == "mp4-muxer";
    EXPECT_EQ(dynamic_cast<Mp4Muxer*>(m.get()) != nullptr, isMp4);
    EXPECT_EQ(m->_file_type, isMp4 ? MovMuxer::kFileTypeMp4 : 0u);
    EXPECT_EQ(m->_vidtag->tkhd_flags, isMp4 ? 1u : 15u) << "mp4 rewrites the profile it has";
  }
}

TEST_F(MuxerElement, RecordingThroughPortsSendsEachNoticeInItsTime) {
  MovMuxer mux;
  Graph g(mux, {VideoMedia(), AudioMedia()});
  EXPECT_FALSE(pushStray(mux)) << "nothing open";
  mux.url = "file://" + path;
  ASSERT_TRUE(g.linked && mux.Open());
  EXPECT_EQ(mux.Status(), kiv::stream::IStatus::opened);
  ASSERT_EQ(g.notices.size(), 1u);
  EXPECT_EQ(g.notices[0].name + " " + g.notices[0]["url"], "fileurl " + path) << "the path of the url";
  EXPECT_GT(std::stoll(g.notices[0]["clock"]), 0);
  // Audio first: "media" waits for video. Video every 100 ms from 0; the first picture's time is 0, so
  // first PTS comes with the second.
  EXPECT_TRUE(g.push(1, 10, 2, 0, 20));
  EXPECT_TRUE(g.named("media").empty());
  EXPECT_TRUE(g.push(0, 40, 1, 0, 100));
  EXPECT_TRUE(g.named("firstPTS").empty());
  ASSERT_EQ(g.named("media").size(), 1u);
  EXPECT_EQ(g.named("media")[0]["width"] + "x" + g.named("media")[0]["height"], "640x360");
  for (int i = 1; i < 12; ++i) EXPECT_TRUE(g.push(0, 40, 1, i * 100, 100) && g.push(1, 10, 2, i * 20, 20));
  ASSERT_EQ(g.named("firstPTS").size(), 1u) << "once";
  EXPECT_EQ(g.named("firstPTS")[0]["pts"], "100");
  EXPECT_EQ(g.named("media").size(), 1u) << "once";
  // The running length grows 100 ms a picture: 500 is not more than 500, 600 is. A time stamp that goes
  // back shortens the track below the last notice: the distance is unsigned, so that is told at once.
  EXPECT_EQ(g.durations(), "600 1200 ");
  EXPECT_TRUE(g.push(0, 40, 1, 200, 100));
  EXPECT_EQ(g.durations(), "600 1200 300 ");
  EXPECT_FALSE(pushStray(mux));
  ASSERT_TRUE(mux.Close());
  EXPECT_EQ(mux.Status(), kiv::stream::IStatus::closed);
  ASSERT_EQ(g.named("fileClose").size(), 1u);
  const Notice& c = g.notices.back();
  const Bytes b = ReadFile(path);
  EXPECT_EQ(c.name + " " + c["url"] + " " + c["filename"] + " " + c["filesize"] + " " + c["duration"],
            "fileClose file://" + path + " " + path + " " + std::to_string(b.size()) + " 240")
      << "the last notice; the length is the shortest track's";
  EXPECT_EQ(View(b).top[1].size, 8u + 13 * 40u + 12 * 10u);
}

TEST_F(MuxerElement, AnEmptyRecordingIsRemovedAndStillClosedWithANotice) {
  for (int cached : {0, 2, -1}) {  // -1: one packet, refused
    SCOPED_TRACE(cached);
    MovMuxer mux;
    Graph g(mux, {VideoMedia()});
    mux.url = path;
    mux.IOCacheBlk(4096);
    mux.IOCacheNum(std::max(cached, 0));
    ASSERT_TRUE(g.linked && mux.Open());
    EXPECT_TRUE(FileExists(path));
    if (cached < 0) {
      EXPECT_FALSE(pushStray(mux));
    }
    ASSERT_TRUE(mux.Close());
    EXPECT_EQ(FileExists(path), cached < 0) << "empty recordings stay off the card; a packet, even refused, counts";
    if (cached < 0) break;
    ASSERT_EQ(g.named("fileClose").size(), 1u);
    EXPECT_EQ(g.named("fileClose")[0]["filesize"] + " " + g.named("fileClose")[0]["url"], "0 " + path)
        << "the size after the removal";
    EXPECT_TRUE(g.named("firstPTS").empty() && g.named("media").empty());
  }
}

TEST_F(MuxerElement, OpenFailuresLeaveTheElementClosed) {
  LogCapture log;
  MovMuxer mux, lonely;  // without a url; without an input port, so with nothing to record
  Graph g(mux, {VideoMedia()});
  lonely.url = path;
  EXPECT_FALSE(mux.Open());
  EXPECT_FALSE(lonely.Open());
  EXPECT_TRUE(g.notices.empty() && lonely.Status() == kiv::stream::IStatus::closed);
  EXPECT_NE(lonely.io, nullptr) << "the stream stays open";
  EXPECT_TRUE(lonely.Close());
}

// The H.264 track rewrites heads in place, and the AAC track cuts headers: through the write cache, in
// any block size, the file comes out as written directly. The host's profile and the thumbnail go in
// through the base's properties.
TEST_F(MuxerElement, TheWriteCacheGivesTheSameFileAsDirectWritesWithProfileAndThumbnail) {
  const long long live = kiv::object_base::LiveObjects();
  const std::string dir = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/";
  boxweave::H264Description hd;
  boxweave::AdtsDescription ad;
  std::string error;
  ASSERT_TRUE(boxweave::DescribeH264(dir + "sample.h264", hd, error) &&
              boxweave::DescribeAdts(dir + "sample.aac", ad, error))
      << error;
  const kiv::base::Fraction fps(25, 1);
  std::map<std::string, Bytes> files;
  const struct {
    const char* name;
    int blk, num;  // -1: the element's default
  } setups[] = {{"default", -1, -1}, {"blk0", 0, 4}, {"cache", 8192, 4}, {"tiny", 64, 2}};
  for (const auto& s : setups) {
    SCOPED_TRACE(s.name);
    Mp4Muxer mux;
    videoTags* tags = new videoTags();
    tags->movie_time_scale = 1000;
    ASSERT_TRUE(mux.Set("vidtag", tags) && mux.Set("thumb", true));
    if (s.blk >= 0) {
      ASSERT_TRUE(mux.Set("ioCacheBlk", s.blk) && mux.Set("ioCacheNum", s.num));
    }
    Graph g(mux, {boxweave::NewH264Media(hd, fps), boxweave::NewAdtsMedia(ad)});
    mux.url = path;
    ASSERT_TRUE(g.linked && mux.Open());
    auto* cache = dynamic_cast<IOCacheWriter*>(mux.io);
    ASSERT_EQ(cache != nullptr, s.blk > 0 && s.num > 0);
    EXPECT_TRUE(!cache || (cache->BlockSize() == s.blk && cache->BlockCount() == s.num && cache->FreeDelegateIO()));
    boxweave::H264Reader hr;
    boxweave::AdtsReader ar;
    ASSERT_TRUE(hr.FrameRate(fps) && hr.Open(hd.path) && ar.Open(ad.path));
    // Interleaved by time, as a camera delivers them.
    Packet* p[2] = {hr.NextPacket(g.ports[0]->Media()), ar.NextPacket(g.ports[1]->Media())};
    int count[2] = {0, 0};
    while (p[0] || p[1]) {
      ASSERT_TRUE(p[0] != boxweave::PacketError() && p[1] != boxweave::PacketError());
      const int i = p[0] && (!p[1] || p[0]->pts <= p[1]->pts) ? 0 : 1;
      EXPECT_EQ(g.ports[i]->Push(p[i], true), 1);
      ++count[i];
      Release(p[i]);
      p[i] = i == 0 ? hr.NextPacket(g.ports[0]->Media()) : ar.NextPacket(g.ports[1]->Media());
    }
    ASSERT_TRUE(mux.Close());
    EXPECT_TRUE(count[0] == 120 && count[1] > 180);
    ASSERT_EQ(g.named("fileClose").size(), 1u);
    EXPECT_EQ(g.named("fileClose")[0]["filesize"], std::to_string(ReadFile(path).size()));
    files[s.name] = timeless(path);
  }
  EXPECT_EQ(kiv::object_base::LiveObjects(), live) << "the profiles went with the elements";
  for (const char* name : {"blk0", "cache", "tiny"}) EXPECT_TRUE(files[name] == files["default"]) << name;
  // The host's profile replaces the mp4 column, but the file type stays mp4, and so do the brands.
  const Bytes& b = files["default"];
  const FileView view = View(b);
  EXPECT_EQ(Slice(b, 8, 8), muxtest::Hex("'mp42' 00000001"));
  EXPECT_EQ(view.mvhd[2], 1000u) << "the host's time scale";
  const BoxAt thumb = Children(b, view.top[2]).back();
  EXPECT_EQ(Slice(b, thumb.offset, thumb.size), muxtest::Hex("00032008 'thum' 204800*00")) << "the reserve, last in moov";
}
