// Packets, media descriptions, messages and fifos of the host runtime.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "stream/base/Message.h"
#include "stream/core/Fifo.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "tests/LogCapture.h"

using kiv::object_base;
using kiv::base::Fraction;
using kiv::base::IMessageProcesser;
using kiv::base::Message;
using kiv::base::Release;
using kiv::stream::Fifo;
using kiv::stream::IMedia;
using kiv::stream::Packet;
using kiv::stream::PacketAlloc;

namespace {
std::vector<unsigned char> bytes(const Packet& p) { return {p.Data(), p.Data() + p.Size()}; }
// Head room, payload and tail room of a packet, as "64+100+16".
std::string room(const Packet& p) {
  return std::to_string(p.Offset()) + "+" + std::to_string(p.Size()) + "+" + std::to_string(p.Tailroom());
}
}  // namespace

TEST(HostPacket, HeadRoomTakesAHeaderWithoutMovingThePayloadAndForgedSizesAreRefused) {
  Packet* p = PacketAlloc(100, 64, 16);
  EXPECT_EQ(room(*p), "64+100+16");
  EXPECT_EQ(bytes(*p), std::vector<unsigned char>(100, 0)) << "payload starts zeroed";
  const std::vector<unsigned char> payload = {1, 2, 3, 4, 5};
  std::memcpy(p->Data(), payload.data(), 5);
  ASSERT_TRUE(p->Size(5));
  unsigned char* const payloadAt = p->Data();
  ASSERT_TRUE(p->Prepend("\xff\xf1\x50\x80\x00\x1f\xfc", 7));
  EXPECT_EQ(room(*p), "57+12+16");
  EXPECT_EQ(p->Data() + 7, payloadAt) << "payload bytes stay where they were";
  EXPECT_EQ(std::memcmp(p->Data(), "\xff\xf1\x50\x80\x00\x1f\xfc", 7), 0);
  EXPECT_FALSE(p->Prepend(std::string(58, 0).data(), 58)) << "more than the head room";
  // Raising the offset skips the header and keeps the end of the payload; lowering it takes bytes back.
  ASSERT_TRUE(p->Offset(p->Offset() + 7));
  EXPECT_EQ(bytes(*p), payload);
  ASSERT_TRUE(p->Offset(p->Offset() - 2));
  EXPECT_FALSE(p->Offset(-1));
  EXPECT_FALSE(p->Offset(p->Offset() + p->Size() + 1));
  EXPECT_FALSE(p->Size(p->Max() + 1));
  EXPECT_FALSE(p->Size(-1));
  EXPECT_EQ(room(*p), "62+7+16");
  Release(p);

  LogCapture quiet;
  const int forged[][3] = {{-1, 0, 0}, {16, -1, 0}, {Packet::kMaxBuffer, 1, 0}, {0x7fffffff, 0x7fffffff, 0x7fffffff}};
  for (const auto& r : forged) EXPECT_EQ(PacketAlloc(r[0], r[1], r[2]), nullptr) << r[0] << "," << r[1] << "," << r[2];
}

TEST(HostPacket, CheckKeyReadsTheAccessUnit) {
  IMedia* avc = IMedia::New("h264");
  IMedia* hevc = IMedia::New("hevc");
  IMedia* aac = IMedia::New("aac");
  struct Case {
    IMedia* media;
    std::vector<unsigned char> data;
    bool before, after;
    const char* what;
  } cases[] = {
      {avc, {0, 0, 0, 1, 0x67, 0x42, 0, 0, 0, 1, 0x68, 0xce, 0, 0, 1, 0x65, 0x88}, false, true, "SPS PPS IDR"},
      {avc, {0, 0, 0, 1, 0x09, 0xf0, 0, 0, 0, 1, 0x41, 0x9a, 0x20}, true, false, "delimiter, P slice"},
      {avc, {0, 0, 0, 2, 0x09, 0xf0, 0, 0, 0, 2, 0x65, 0x88}, false, true, "length prefixed IDR"},
      {avc, {0, 0, 0, 1, 0x06, 0x05}, true, true, "SEI alone decides nothing"},
      {hevc, {0, 0, 0, 1, 0x40, 0x01, 0, 0, 0, 1, 0x26, 0x01, 0xaf}, false, true, "VPS, IDR_W_RADL"},
      {hevc, {0, 0, 0, 1, 0x02, 0x01, 0xd0}, true, false, "TRAIL_R"},
      {aac, {0x21, 0x10}, false, true, "audio frames are all keys"},
      {nullptr, {0, 0, 0, 1, 0x65}, false, false, "no media, nothing to decide by"},
  };
  for (auto& c : cases) {
    Packet* p = PacketAlloc(0, 0, 0);
    p->Assign(c.data.data(), static_cast<int>(c.data.size()));
    p->media = c.media;
    p->SetKey(c.before);
    EXPECT_EQ(p->CheckKey(), c.after) << c.what;
    EXPECT_EQ(p->IsKey(), c.after) << c.what;
    Release(p);
  }
  for (IMedia* m : {avc, hevc, aac}) Release(m);
}

TEST(HostMedia, NewTakesAWordAKindOrAttributes) {
  struct Case {
    const char* text;
    const char* codec;
    const char* caps;
  } cases[] = {
      {"h264", "h264", "video/h264"},           {"video/h264", "h264", "video/h264"},
      {"HEVC", "hevc", "video/hevc"},           {"audio/aac", "aac", "audio/aac"},
      {"pcm;rate=8000", "pcm", "audio/pcm"},    {"codec=jpeg;width=64", "jpeg", "video/jpeg"},
      {"video/newcodec", "newcodec", "video/newcodec"}, {"txt", "txt", "text/txt"},
  };
  for (auto& c : cases) {
    IMedia* m = IMedia::New(c.text);
    ASSERT_NE(m, nullptr) << c.text;
    EXPECT_STREQ(m->Codec(), c.codec) << c.text;
    EXPECT_EQ(m->Caps(), c.caps);
    EXPECT_EQ(std::string(m->IsVideo() ? "video" : m->IsAudio() ? "audio" : m->IsText() ? "text" : "?"),
              std::string(c.caps).substr(0, std::string(c.caps).find('/')));
    Release(m);
  }
  IMedia* unknown = IMedia::New("newcodec");
  EXPECT_FALSE(unknown->IsVideo() || unknown->IsAudio() || unknown->IsText()) << "a word of no known kind";
  Release(unknown);
  LogCapture quiet;
  for (const char* bad : {"", "width=640", "codec=\"h264"}) EXPECT_EQ(IMedia::New(bad), nullptr) << bad;
  EXPECT_EQ(IMedia::New(nullptr), nullptr);
}

TEST(HostMedia, AttributesOfAnyKeyReadBackTyped) {
  IMedia* m = IMedia::New("codec=h264;width=640");
  EXPECT_TRUE(m->Set("bitrate", 5));
  EXPECT_TRUE(m->SetWithType("framerate", Fraction(30000, 1001)));
  EXPECT_TRUE(m->Set("hasadts", true));
  EXPECT_TRUE(m->Set("profile", "high"));
  // Byte pointers go in as pointers and come back as the same pointer.
  unsigned char sps[] = {0x67, 0x42, 0xc0, 0x1e};
  unsigned char* spsp = sps;
  EXPECT_TRUE(m->Set("sps", spsp));
  EXPECT_FALSE(m->Set("codec", "hevc")) << "the codec word is fixed";
  int missing = 0;
  EXPECT_FALSE(m->Get("depth", missing));
  EXPECT_FALSE(m->Get("profile", missing)) << "text that is no number";

  int w = 0;
  long long br = 0;
  Fraction fr;
  bool adts = false;
  unsigned char* back = nullptr;
  std::string text;
  EXPECT_TRUE(m->IsVideo() && m->Get("width", w) && w == 640);
  EXPECT_TRUE(m->GetIntT("bitrate", br) && br == 5);
  EXPECT_TRUE(m->Get("framerate", fr) && fr == Fraction(30000, 1001));
  EXPECT_TRUE(m->Get("hasadts", adts) && adts);
  EXPECT_TRUE(m->Get("sps", back) && back == sps);
  EXPECT_TRUE(m->getString("profile", text) && text == "high");

  // Extra data is kept as a copy; a refused call keeps what was there.
  unsigned char cfg[] = {0x12, 0x10, 0x56, 0xe5};
  EXPECT_TRUE(m->Extra(cfg, 4));
  cfg[0] = 0;
  ASSERT_EQ(m->ExtraSize(), 4);
  EXPECT_EQ(m->Extra()[0], 0x12);
  LogCapture quiet;
  EXPECT_FALSE(m->Extra(nullptr, 4) || m->Extra(cfg, -1) || m->Extra(cfg, IMedia::kMaxExtra + 1));
  EXPECT_EQ(m->ExtraSize(), 4);
  EXPECT_TRUE(m->Extra(nullptr, 0));
  EXPECT_EQ(m->ExtraSize(), 0);
  Release(m);
}

TEST(HostMessage, UpReachesTheHandlerThenTheParentAndEndsOnALoop) {
  const long long live = object_base::LiveObjects();
  IMessageProcesser graph, node;
  node.MessageParent(&graph);
  std::vector<std::string> seen;
  Message* kept = nullptr;
  node.SetMessageHandler([&](Message& m) {
    long long clock = 0;
    EXPECT_TRUE(m.Get("clock", clock) && clock == 42);
    seen.push_back(std::string("node:") + m.Name());
  });
  graph.SetMessageHandler([&](Message& m) {
    seen.push_back(std::string("graph:") + m.Name() + ":" + m.Text());
    EXPECT_GE(m.Count(), 2) << "held while it is delivered";
    kept = &m;
    m.Hold();
  });
  Message* msg = new Message("eos", nullptr, "end");
  EXPECT_TRUE(msg->Add("clock", 42LL));
  EXPECT_TRUE(node.SendMessageUp(*msg));
  Release(msg);
  EXPECT_EQ(seen, (std::vector<std::string>{"node:eos", "graph:eos:end"}));
  // The handler's own reference outlives the sender's.
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept->Count(), 1);
  EXPECT_NE(kept->ToString().find("eos(end) clock=42"), std::string::npos) << kept->ToString();
  kept->Release();
  EXPECT_EQ(object_base::LiveObjects(), live);

  // Nobody sees it without a handler; a handler may unsubscribe itself; a looped path ends.
  IMessageProcesser a, b;
  Message* m = new Message("x");
  EXPECT_FALSE(a.SendMessageUp(*m) || a.SendMessageForward(*m));
  int calls = 0;
  a.SetMessageHandler([&](Message&) { ++calls, a.SetMessageHandler(nullptr); });
  a.SendMessageUp(*m);
  a.SendMessageUp(*m);
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(a.HasMessageHandler());
  LogCapture quiet;
  a.MessageParent(&b);
  b.MessageParent(&a);
  int hops = 0;
  b.SetMessageHandler([&](Message&) { ++hops; });
  a.SendMessageUp(*m);
  EXPECT_TRUE(hops > 0 && hops <= 64) << hops;
  EXPECT_EQ(m->Count(), 1);
  Release(m);
}

TEST(HostFifo, BoundsOrderAndRemax) {
  Fifo<int> f(3);
  for (int v : {1, 2, 3}) EXPECT_TRUE(f.push(v));
  EXPECT_TRUE(f.Full());
  EXPECT_FALSE(f.push(4)) << "bounded";
  int v = 0;
  EXPECT_FALSE(f.Remax(2)) << "below the present count";
  EXPECT_TRUE(f.Remax(4) && f.push(4));
  for (int want = 1; want <= 4; ++want) EXPECT_TRUE(f.pop(v) && v == want) << want;
  EXPECT_FALSE(f.pop(v));
}

TEST(HostFifo, ClearPopAndDestructionReleasePackets) {
  const long long live = object_base::LiveObjects();
  Packet* watch = PacketAlloc(1, 0, 0);
  {
    Fifo<Packet*, void (*)(Packet*&)> f(8, [](Packet*& p) { Release(p); });
    for (int round = 0; round < 2; ++round) {
      watch->Hold();
      EXPECT_TRUE(f.push(watch) && f.push(PacketAlloc(1, 0, 0)));
      if (round == 0) {
        f.Clear();
        EXPECT_TRUE(f.Empty());
        EXPECT_EQ(object_base::LiveObjects(), live + 1) << "Clear released the fifo's references";
      } else {
        EXPECT_TRUE(f.pop(static_cast<Packet**>(nullptr))) << "a pop with no place disposes";
        EXPECT_EQ(f.Size(), 1);
      }
      EXPECT_EQ(watch->Count(), 1);
    }
  }
  Release(watch);
  EXPECT_EQ(object_base::LiveObjects(), live) << "the destructor released the rest";
}
