// The muxer elements in a graph: registration, notices, the write cache, empty recordings, real tracks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "stream/base/Message.h"
#include "stream/base/io/IOCacheWriter.h"
#include "stream/core/fw/IElement.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/core/Mp4Muxer.h"
#include "tests/LogCapture.h"
#include "tests/MuxTestUtil.h"
#include "tools/AdtsReader.h"
#include "tools/H264Reader.h"

using kiv::base::AttrSet;
using kiv::base::IClass;
using kiv::base::IOCacheWriter;
using kiv::base::Message;
using kiv::base::Object;
using kiv::base::Release;
using kiv::plugin::mov::MovMuxer;
using kiv::plugin::mov::Mp4Muxer;
using kiv::plugin::mov::videoTags;
using kiv::stream::IPort;
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
  bool push(size_t port, int n, unsigned char fill, long long ptsMs, long long durMs, bool key = true) {
    Packet* p = NewPacket(ports[port]->Media(), n, fill, ptsMs, durMs, key);
    const bool ok = ports[port]->Push(p, true) == 1;
    Release(p);
    return ok;
  }
  std::vector<Notice> named(const std::string& name) const {
    std::vector<Notice> out;
    std::copy_if(notices.begin(), notices.end(), std::back_inserter(out),
                 [&](const Notice& n) { return n.name == name; });
    return out;
  }

  Source source;
  std::vector<IPort*> ports;
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
  Packet* p = NewPacket(nullptr, 4, 0, 0, 10);
  IMedia* other = IMedia::New("codec=audio/testa");
  p->media = other;
  const bool ok = mux.ReceivePacket(*p, nullptr);
  Release(p);
  Release(other);
  return ok;
}

// The file with the creation times of mvhd, tkhd and mdhd (version 0) zeroed: two recordings a second
// apart differ only there.
Bytes timeless(const std::string& file) {
  Bytes b = ReadFile(file);
  auto blank = [&b](const BoxAt& x) {
    std::fill(b.begin() + static_cast<long>(x.offset) + 12, b.begin() + static_cast<long>(x.offset) + 20, 0);
  };
  for (const auto& moov : OfType(Boxes(b, 0, b.size()), "moov"))
    for (const auto& x : Children(b, moov)) {
      if (x.type == "mvhd") blank(x);
      for (const auto& y : x.type == "trak" ? Children(b, x) : std::vector<BoxAt>()) {
        if (y.type == "tkhd") blank(y);
        for (const auto& z : y.type == "mdia" ? Children(b, y) : std::vector<BoxAt>())
          if (z.type == "mdhd") blank(z);
      }
    }
  return b;
}

}  // namespace

TEST_F(MuxerElement, RegisteredByKeywordsWithTheirPropertiesAndProfiles) {
  const auto& all = IClass::Globle();
  IClass* mov = IClass::Find("MovMuxer-mov-muxer", true);
  IClass* mp4 = IClass::Find("Mp4Muxer-mp4-muxer", true);
  ASSERT_TRUE(mov && mp4);
  size_t iMov = 0, iMp4 = 0, iVideoTags = 0;
  for (size_t i = 0; i < all.size(); ++i) {
    if (all[i] == mov) iMov = i;
    if (all[i] == mp4) iMp4 = i;
    if (std::string(all[i]->Name()) == "videoTags") iVideoTags = i;
  }
  EXPECT_TRUE(iMp4 == iMov + 1 && iMp4 < iVideoTags) << "registered first, one after the other";
  EXPECT_STREQ(mov->Module(), "boxweave");
  EXPECT_EQ(mov->Version(), 0x20002);
  EXPECT_STREQ(mp4->Vendor(), "Quorelvan");
  std::string props;
  for (auto* p : mov->Properties())
    props += std::string(p->Name()) + (p->kind() == kiv::base::IProperty::Setter ? "(set) " : " ");
  EXPECT_EQ(props, "vidtag ioCacheBlk(set) ioCacheNum(set) thumb ");
  EXPECT_TRUE(mp4->Properties().empty()) << "the base's list serves";

  for (const std::string words : {"mov-muxer", "mp4-muxer"}) {
    SCOPED_TRACE(words);
    AttrSet ap;
    Object::AttrSetInit(ap, nullptr, words.c_str());
    std::unique_ptr<MovMuxer> m(Object::New<MovMuxer>(ap));
    ASSERT_NE(m, nullptr);
    const bool isMp4 = words == "mp4-muxer";
    EXPECT_EQ(dynamic_cast<Mp4Muxer*>(m.get()) != nullptr, isMp4);
    EXPECT_EQ(m->Flags() & 0xC0108u, 0xC0108u);
    EXPECT_EQ(m->_file_type, isMp4 ? MovMuxer::kFileTypeMp4 : 0u);
    EXPECT_EQ(m->_vidtag->tkhd_flags, isMp4 ? 1u : 15u) << "mp4 rewrites the profile it has";
  }
}

TEST_F(MuxerElement, RecordingThroughPortsSendsEachNoticeInItsTime) {
  MovMuxer mux;
  Graph g(mux, {VideoMedia(), AudioMedia()});
  ASSERT_TRUE(g.linked);
  mux.url = "file://" + path;
  ASSERT_TRUE(mux.Open());
  EXPECT_EQ(mux.Status(), kiv::stream::IStatus::opened);
  ASSERT_EQ(g.notices.size(), 1u);
  EXPECT_EQ(g.notices[0].name, "fileurl");
  EXPECT_EQ(g.notices[0]["url"], path) << "the path of the url";
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
  // The running length grows 100 ms a picture: 500 is not more than 500, 600 is.
  auto d = g.named("currentDuration");
  ASSERT_EQ(d.size(), 2u);
  EXPECT_EQ(d[0]["duration"] + " " + d[1]["duration"], "600 1200");
  EXPECT_FALSE(pushStray(mux));

  ASSERT_TRUE(mux.Close());
  EXPECT_EQ(mux.Status(), kiv::stream::IStatus::closed);
  ASSERT_EQ(g.named("fileClose").size(), 1u);
  const Notice& c = g.notices.back();
  EXPECT_EQ(c.name, "fileClose");
  const Bytes b = ReadFile(path);
  EXPECT_EQ(c["url"], "file://" + path);
  EXPECT_EQ(c["filename"], path);
  EXPECT_EQ(c["filesize"], std::to_string(b.size()));
  EXPECT_EQ(c["duration"], "240") << "the shortest track's length";
  EXPECT_EQ(View(b).top[1].size, 8u + 12 * 50u);
  EXPECT_EQ(Code(b, 8), "qt  ");
}

TEST_F(MuxerElement, DurationNoticesUseAnUnsignedDistance) {
  MovMuxer mux;
  Graph g(mux, {VideoMedia()});
  mux.url = path;
  ASSERT_TRUE(g.linked && mux.Open());
  for (int i = 0; i < 7; ++i) EXPECT_TRUE(g.push(0, 8, 1, 1000 + i * 100, 100));
  EXPECT_EQ(g.named("firstPTS")[0]["pts"], "1000");
  // A time stamp that goes back shortens the track to 200 ms, below the last notice: told at once.
  EXPECT_TRUE(g.push(0, 8, 1, 1100, 100));
  auto d = g.named("currentDuration");
  ASSERT_EQ(d.size(), 2u);
  EXPECT_EQ(d[0]["duration"] + " " + d[1]["duration"], "600 200");
  ASSERT_TRUE(mux.Close());
}

TEST_F(MuxerElement, AnEmptyRecordingIsRemovedAndStillClosedWithANotice) {
  for (bool cached : {false, true}) {
    SCOPED_TRACE(cached ? "cached" : "direct");
    LogCapture log;
    MovMuxer mux;
    Graph g(mux, {VideoMedia()});
    mux.url = path;
    mux.IOCacheBlk(4096);
    mux.IOCacheNum(cached ? 2 : 0);
    ASSERT_TRUE(g.linked && mux.Open());
    EXPECT_TRUE(FileExists(path));
    ASSERT_TRUE(mux.Close());
    EXPECT_FALSE(FileExists(path)) << "empty recordings stay off the card";
    const auto lines = log.Lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const std::string& l) {
      return l.find("|I|") != std::string::npos && l.find("del file:" + path) != std::string::npos;
    }));
    ASSERT_EQ(g.named("fileClose").size(), 1u);
    EXPECT_EQ(g.named("fileClose")[0]["filesize"], "0") << "the size after the removal";
    EXPECT_EQ(g.named("fileClose")[0]["url"], path);
    EXPECT_TRUE(g.named("firstPTS").empty() && g.named("media").empty());
  }
  // From the first packet on, even one refused, the file counts as holding data.
  MovMuxer mux;
  Graph g(mux, {VideoMedia()});
  mux.url = path;
  ASSERT_TRUE(g.linked && mux.Open());
  EXPECT_FALSE(pushStray(mux));
  ASSERT_TRUE(mux.Close());
  EXPECT_TRUE(FileExists(path));
}

TEST_F(MuxerElement, OpenFailuresAndPacketsWithoutAFile) {
  LogCapture log;
  MovMuxer mux;
  Graph g(mux, {VideoMedia()});
  EXPECT_FALSE(pushStray(mux)) << "nothing open";
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
  const struct {
    const char* name;
    int blk, num;  // -1: the element's default
  } setups[] = {{"default", -1, -1}, {"blk0", 0, 4}, {"cache", 4096, 3}, {"tiny", 64, 2}};
  for (const auto& s : setups) {
    SCOPED_TRACE(s.name);
    const std::string file = path + "." + s.name;
    {
      MovMuxer mux;
      mux.thumb = true;
      Graph g(mux, {VideoMedia(), AudioMedia()});
      mux.url = file;
      if (s.blk >= 0) {
        ASSERT_TRUE(mux.Set("ioCacheBlk", s.blk) && mux.Set("ioCacheNum", s.num));
      }
      ASSERT_TRUE(g.linked && mux.Open());
      auto* cache = dynamic_cast<IOCacheWriter*>(mux.io);
      ASSERT_EQ(cache != nullptr, s.blk > 0 && s.num > 0);
      EXPECT_TRUE(!cache || (cache->BlockSize() == s.blk && cache->BlockCount() == s.num && cache->FreeDelegateIO()));
      for (int i = 0; i < 40; ++i) {
        EXPECT_TRUE(g.push(0, 700 + i * 13, static_cast<unsigned char>(i), i * 40, 40, i % 10 == 0));
        EXPECT_TRUE(g.push(1, 90 + i, static_cast<unsigned char>(0x80 + i), i * 40, 40));
      }
      ASSERT_TRUE(mux.Close());
      ASSERT_EQ(g.named("fileClose").size(), 1u);
      EXPECT_EQ(g.named("fileClose")[0]["filesize"], std::to_string(ReadFile(file).size()));
    }
    files[s.name] = timeless(file);
    std::remove(file.c_str());
  }
  ASSERT_GT(files["default"].size(), 204808u) << "the thumbnail's reserve is in it";
  for (const char* name : {"blk0", "cache", "tiny"}) EXPECT_TRUE(files[name] == files["default"]) << name;
}

TEST_F(MuxerElement, Mp4MuxerTakesProfileCacheAndThumbnailThroughTheBaseProperties) {
  const long long live = kiv::object_base::LiveObjects();
  {
    Mp4Muxer mux;
    Graph g(mux, {VideoMedia()});
    videoTags* tags = new videoTags();
    tags->movie_time_scale = 1000;
    ASSERT_TRUE(mux.Set("vidtag", tags) && mux.Set("thumb", true));
    ASSERT_TRUE(mux.Set("ioCacheBlk", "4096") && mux.Set("ioCacheNum", 3));
    EXPECT_EQ(mux._vidtag, tags);
    mux.url = path;
    ASSERT_TRUE(g.linked && mux.Open());
    auto* cache = dynamic_cast<IOCacheWriter*>(mux.io);
    ASSERT_NE(cache, nullptr);
    EXPECT_TRUE(cache->BlockSize() == 4096 && cache->BlockCount() == 3);
    EXPECT_TRUE(g.push(0, 16, 1, 0, 300));
    ASSERT_TRUE(mux.Close());
    const Bytes b = ReadFile(path);
    const FileView view = View(b);
    // A host profile replaces the mp4 column, but the file type stays mp4, and so do the brands.
    EXPECT_EQ(Slice(b, 8, 8), Hex("'mp42' 00000001"));
    EXPECT_EQ(view.mvhd[2], 1000u) << "the host's time scale";
    EXPECT_EQ(view.mvhd[3], 300u);
    EXPECT_EQ(Children(b, view.top[2]).back().type, "thum");
  }
  EXPECT_EQ(kiv::object_base::LiveObjects(), live) << "the profile went with the element";
}

// The H.264 track rewrites heads in place, and the AAC track cuts headers: real tracks must come out of
// the cache the same too. (That such a file plays is checked through the command-line host.)
TEST_F(MuxerElement, RealH264AndAacTracksGiveTheSameFileThroughTheCache) {
  const std::string dir = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/";
  boxweave::H264Description hd;
  boxweave::AdtsDescription ad;
  std::string error;
  ASSERT_TRUE(boxweave::DescribeH264(dir + "sample.h264", hd, error) &&
              boxweave::DescribeAdts(dir + "sample.aac", ad, error))
      << error;
  const kiv::base::Fraction fps(25, 1);
  Bytes files[2];
  for (int cached : {0, 1}) {
    Mp4Muxer mux;
    mux.IOCacheBlk(8192);
    mux.IOCacheNum(cached ? 4 : 0);
    Graph g(mux, {boxweave::NewH264Media(hd, fps), boxweave::NewAdtsMedia(ad)});
    mux.url = path;
    ASSERT_TRUE(g.linked && mux.Open());
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
    EXPECT_EQ(count[0], 120);
    EXPECT_GT(count[1], 180);
    files[cached] = timeless(path);
    EXPECT_EQ(View(files[cached]).tracks.size(), 2u);
  }
  EXPECT_EQ(Code(files[0], 8), "mp42");
  EXPECT_TRUE(files[0] == files[1]);
}
