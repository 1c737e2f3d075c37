// Packets, media descriptions, messages and fifos of the host runtime.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <sstream>
#include <thread>
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
}  // namespace

// ---- Packet

TEST(HostPacket, ReferenceCountDestroysOnLastRelease) {
  const long long live = object_base::LiveObjects();
  Packet* p = PacketAlloc(16, 0, 0);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(object_base::LiveObjects(), live + 1);
  EXPECT_EQ(p->Count(), 1);
  EXPECT_EQ(p->Hold(), 2);
  EXPECT_EQ(p->Release(), 1);
  EXPECT_EQ(object_base::LiveObjects(), live + 1);
  Release(p);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(object_base::LiveObjects(), live);

  Packet* empty = new Packet();
  EXPECT_EQ(empty->Data(), nullptr);
  EXPECT_EQ(empty->Size(), 0);
  EXPECT_EQ(empty->Max(), 0);
  EXPECT_TRUE(empty->Append("ab", 2)) << "an empty packet grows on demand";
  EXPECT_EQ(std::memcmp(empty->Data(), "ab", 2), 0);
  Release(empty);
  EXPECT_EQ(object_base::LiveObjects(), live);
}

TEST(HostPacket, HeadRoomTakesAHeaderWithoutMovingThePayload) {
  Packet* p = PacketAlloc(100, 64, 16);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->Offset(), 64);
  EXPECT_EQ(p->Size(), 100);
  EXPECT_EQ(p->Max(), 100);
  EXPECT_EQ(p->Tailroom(), 16);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(p->Data()[i], 0) << "payload starts zeroed";

  const unsigned char payload[] = {1, 2, 3, 4, 5};
  std::memcpy(p->Data(), payload, sizeof payload);
  ASSERT_TRUE(p->Size(5));
  unsigned char* const payloadAt = p->Data();

  const unsigned char adts[7] = {0xff, 0xf1, 0x50, 0x80, 0, 0x1f, 0xfc};
  ASSERT_TRUE(p->Prepend(adts, 7));
  EXPECT_EQ(p->Offset(), 57);
  EXPECT_EQ(p->Size(), 12);
  EXPECT_EQ(p->Data() + 7, payloadAt) << "payload bytes stay where they were";
  EXPECT_EQ(std::memcmp(p->Data(), adts, 7), 0);
  EXPECT_EQ(std::memcmp(p->Data() + 7, payload, 5), 0);

  EXPECT_FALSE(p->Prepend(adts, 58)) << "more than the head room";
  EXPECT_EQ(p->Offset(), 57);
  EXPECT_EQ(p->Size(), 12);

  // Skipping the header again by raising the offset keeps the end of the payload.
  ASSERT_TRUE(p->Offset(p->Offset() + 7));
  EXPECT_EQ(bytes(*p), std::vector<unsigned char>(payload, payload + 5));
  // Lowering the offset by hand, as a producer that writes the header itself does.
  ASSERT_TRUE(p->Offset(p->Offset() - 2));
  EXPECT_EQ(p->Size(), 7);
  EXPECT_FALSE(p->Offset(-1));
  EXPECT_FALSE(p->Offset(p->Offset() + p->Size() + 1));
  EXPECT_EQ(p->Size(), 7);
  Release(p);
}

TEST(HostPacket, SizeMaxAndAppendStayWithinTheBuffer) {
  Packet* p = PacketAlloc(8, 4, 4);
  ASSERT_NE(p, nullptr);
  EXPECT_FALSE(p->Size(9));
  EXPECT_FALSE(p->Size(-1));
  ASSERT_TRUE(p->Size(0));

  std::vector<unsigned char> big(1000);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<unsigned char>(i * 7);
  ASSERT_TRUE(p->Append(big.data(), 600));
  ASSERT_TRUE(p->Append(big.data() + 600, 400));
  EXPECT_EQ(bytes(*p), big);
  EXPECT_EQ(p->Offset(), 4) << "growing keeps the head room";
  EXPECT_EQ(p->Tailroom(), 4) << "and the tail room";
  EXPECT_TRUE(p->Prepend("hd", 2));
  EXPECT_EQ(p->Size(), 1002);

  ASSERT_TRUE(p->Max(5000));
  EXPECT_GE(p->Max(), 5000);
  EXPECT_EQ(p->Size(), 1002);
  EXPECT_EQ(std::memcmp(p->Data() + 2, big.data(), big.size()), 0);

  ASSERT_TRUE(p->Assign("xyz", 3));
  EXPECT_EQ(p->Size(), 3);
  EXPECT_FALSE(p->Append(nullptr, 3));
  EXPECT_TRUE(p->Append(nullptr, 0));
  Release(p);
}

TEST(HostPacket, RefusesForgedSizes) {
  LogCapture log;
  EXPECT_EQ(PacketAlloc(-1, 0, 0), nullptr);
  EXPECT_EQ(PacketAlloc(16, -1, 0), nullptr);
  EXPECT_EQ(PacketAlloc(Packet::kMaxBuffer, 1, 0), nullptr);
  EXPECT_EQ(PacketAlloc(0x7fffffff, 0x7fffffff, 0x7fffffff), nullptr) << "no overflow in the sum";
  EXPECT_TRUE(log.Has("!validRequest"));

  Packet* p = PacketAlloc(4, 0, 0);
  ASSERT_NE(p, nullptr);
  EXPECT_FALSE(p->Max(Packet::kMaxBuffer + 1));
  EXPECT_FALSE(p->Append("x", -1));
  EXPECT_EQ(p->Size(), 4);
  Release(p);
}

TEST(HostPacket, CheckKeyReadsTheAccessUnit) {
  IMedia* avc = IMedia::New("h264");
  IMedia* hevc = IMedia::New("hevc");
  IMedia* aac = IMedia::New("aac");
  ASSERT_TRUE(avc && hevc && aac);
  auto make = [](IMedia* m, std::vector<unsigned char> data, bool key) {
    Packet* p = PacketAlloc(static_cast<int>(data.size()), 0, 0);
    std::memcpy(p->Data(), data.data(), data.size());
    p->media = m;
    p->SetKey(key);
    return p;
  };
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
    Packet* p = make(c.media, c.data, c.before);
    EXPECT_EQ(p->CheckKey(), c.after) << c.what;
    EXPECT_EQ(p->IsKey(), c.after) << c.what;
    Release(p);
  }
  Release(avc);
  Release(hevc);
  Release(aac);
}

TEST(HostPacket, FieldsCopyAndPrint) {
  IMedia* m = IMedia::New("aac");
  Packet* p = PacketAlloc(3, 2, 0);
  p->index = 7;
  p->pts = 40000000;
  p->clock = 123;
  p->duration = 20000000;
  p->flags = 0x400000;
  p->media = m;
  p->SetKey(true);
  Packet* c = p->Copy();
  p->Data()[0] = 9;
  EXPECT_EQ(c->Data()[0], 0) << "a copy has its own buffer";
  EXPECT_EQ(c->index, 7);
  EXPECT_EQ(c->pts, 40000000);
  EXPECT_EQ(c->clock, 123);
  EXPECT_EQ(c->duration, 20000000);
  EXPECT_EQ(c->flags, 0x400000u);
  EXPECT_EQ(c->media, m);
  EXPECT_TRUE(c->IsKey());
  EXPECT_EQ(c->Offset(), 2);
  EXPECT_EQ(c->Count(), 1);

  std::ostringstream os;
  os << *p;
  const std::string s = os.str();
  EXPECT_NE(s.find("idx=7"), std::string::npos) << s;
  EXPECT_NE(s.find("pts=40000000"), std::string::npos) << s;
  EXPECT_NE(s.find("size=3"), std::string::npos) << s;
  EXPECT_NE(s.find("media=aac"), std::string::npos) << s;
  Release(p);
  Release(c);
  Release(m);
}

// ---- IMedia

TEST(HostMedia, NewTakesAWordAKindOrAttributes) {
  struct Case {
    const char* text;
    const char* codec;
    bool video, audio;
  } cases[] = {
      {"h264", "h264", true, false},       {"video/h264", "h264", true, false}, {"HEVC", "hevc", true, false},
      {"audio/aac", "aac", false, true},   {"pcm;rate=8000", "pcm", false, true},
      {"codec=jpeg;width=64", "jpeg", true, false}, {"video/newcodec", "newcodec", true, false},
      {"newcodec", "newcodec", false, false}, {"txt", "txt", false, false},
  };
  for (auto& c : cases) {
    IMedia* m = IMedia::New(c.text);
    ASSERT_NE(m, nullptr) << c.text;
    EXPECT_STREQ(m->Codec(), c.codec) << c.text;
    EXPECT_STREQ(m->Name(), c.codec) << "the object name is the codec word";
    EXPECT_EQ(m->IsVideo(), c.video) << c.text;
    EXPECT_EQ(m->IsAudio(), c.audio) << c.text;
    Release(m);
  }
  IMedia* t = IMedia::New("txt");
  EXPECT_TRUE(t->IsText());
  EXPECT_EQ(t->Caps(), "text/txt");
  Release(t);

  LogCapture log;
  EXPECT_EQ(IMedia::New(nullptr), nullptr);
  EXPECT_EQ(IMedia::New(""), nullptr);
  EXPECT_EQ(IMedia::New("width=640"), nullptr) << "no codec word";
  EXPECT_EQ(IMedia::New("codec=\"h264"), nullptr) << "unclosed quote";
  EXPECT_TRUE(log.Has("!codec"));
}

TEST(HostMedia, AttributesOfAnyKeyRoundTrip) {
  IMedia* m = IMedia::New("codec=h264;width=640;height=360");
  ASSERT_NE(m, nullptr);
  int w = 0, h = 0;
  EXPECT_TRUE(m->Get("width", w));
  EXPECT_TRUE(m->GetIntT("height", h));
  EXPECT_EQ(w, 640);
  EXPECT_EQ(h, 360);

  EXPECT_TRUE(m->Set("bitrate", 5));
  long long br = 0;
  EXPECT_TRUE(m->GetIntT("bitrate", br));
  EXPECT_EQ(br, 5);
  EXPECT_TRUE(m->Set("gop", 30LL));
  EXPECT_TRUE(m->SetWithType("framerate", Fraction(30000, 1001)));
  Fraction fr;
  EXPECT_TRUE(m->Get("framerate", fr));
  EXPECT_EQ(fr, Fraction(30000, 1001));
  EXPECT_TRUE(m->Set("hasadts", true));
  bool adts = false;
  EXPECT_TRUE(m->Get("hasadts", adts));
  EXPECT_TRUE(adts);

  // Byte pointers go in as pointers and come back as the same pointer.
  unsigned char sps[] = {0x67, 0x42, 0xc0, 0x1e};
  unsigned char* spsp = sps;
  EXPECT_TRUE(m->Set("sps", spsp));
  EXPECT_TRUE(m->Set("isps", static_cast<int>(sizeof sps)));
  unsigned char* back = nullptr;
  int isps = 0;
  EXPECT_TRUE(m->Get("sps", back));
  EXPECT_TRUE(m->Get("isps", isps));
  EXPECT_EQ(back, sps);
  EXPECT_EQ(isps, 4);
  void* asVoid = nullptr;
  EXPECT_TRUE(m->Get("sps", asVoid));
  EXPECT_EQ(asVoid, static_cast<void*>(sps));

  // Text form.
  std::string text;
  EXPECT_TRUE(m->getString("width", text));
  EXPECT_EQ(text, "640");
  EXPECT_TRUE(m->Set("profile", "high"));
  EXPECT_TRUE(m->getString("profile", text));
  EXPECT_EQ(text, "high");
  EXPECT_TRUE(m->getString("codec", text));
  EXPECT_EQ(text, "h264");
  EXPECT_FALSE(m->Set("codec", "hevc")) << "the codec word is fixed";

  int missing = 0;
  EXPECT_FALSE(m->Get("depth", missing));
  EXPECT_FALSE(m->Get("profile", missing)) << "text that is no number";
  EXPECT_TRUE(m->HasProperty("bitrate"));
  EXPECT_FALSE(m->HasProperty("depth"));
  std::vector<std::string> names;
  m->getPropertyNameList(names);
  EXPECT_NE(std::find(names.begin(), names.end(), "isps"), names.end());

  // The text form makes an equal media.
  IMedia* again = IMedia::New(m->ToString().c_str());
  ASSERT_NE(again, nullptr);
  EXPECT_STREQ(again->Codec(), "h264");
  EXPECT_TRUE(again->IsVideo());
  int w2 = 0;
  EXPECT_TRUE(again->Get("width", w2));
  EXPECT_EQ(w2, 640);
  unsigned char* back2 = nullptr;
  EXPECT_TRUE(again->Get("sps", back2));
  EXPECT_EQ(back2, sps);
  Release(again);
  Release(m);
}

TEST(HostMedia, ExtraDataIsACopy) {
  const long long live = object_base::LiveObjects();
  IMedia* m = IMedia::New("aac");
  EXPECT_EQ(m->Extra(), nullptr);
  EXPECT_EQ(m->ExtraSize(), 0);
  unsigned char cfg[] = {0x12, 0x10, 0x56, 0xe5};
  EXPECT_TRUE(m->Extra(cfg, 4));
  cfg[0] = 0;
  ASSERT_EQ(m->ExtraSize(), 4);
  EXPECT_EQ(m->Extra()[0], 0x12) << "kept as a copy";
  EXPECT_NE(m->Extra(), cfg);

  LogCapture log;
  EXPECT_FALSE(m->Extra(nullptr, 4));
  EXPECT_FALSE(m->Extra(cfg, -1));
  EXPECT_FALSE(m->Extra(cfg, IMedia::kMaxExtra + 1));
  EXPECT_EQ(m->ExtraSize(), 4) << "a refused call keeps what was there";
  EXPECT_TRUE(m->Extra(nullptr, 0));
  EXPECT_EQ(m->ExtraSize(), 0);

  EXPECT_EQ(m->Hold(), 2);
  m->Release();
  Release(m);
  EXPECT_EQ(object_base::LiveObjects(), live);
}

// ---- Message

TEST(HostMessage, UpReachesTheHandlerThenTheParent) {
  const long long live = object_base::LiveObjects();
  IMessageProcesser graph;
  IMessageProcesser node;
  node.MessageParent(&graph);
  std::vector<std::string> seen;
  Message* kept = nullptr;
  node.SetMessageHandler([&](Message& m) {
    seen.push_back(std::string("node:") + m.Name());
    long long clock = 0;
    EXPECT_TRUE(m.Get("clock", clock));
    EXPECT_EQ(clock, 42);
  });
  graph.SetMessageHandler([&](Message& m) {
    seen.push_back(std::string("graph:") + m.Name() + ":" + m.Text());
    EXPECT_GE(m.Count(), 2) << "held while it is delivered";
    m.Hold();
    kept = &m;
  });

  Message* msg = new Message("eos", nullptr, "end");
  EXPECT_TRUE(msg->Add("clock", 42LL));
  EXPECT_FALSE(msg->Attrs.Add("clock", 1)) << "a key once";
  EXPECT_TRUE(node.SendMessageUp(*msg));
  Release(msg);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0], "node:eos");
  EXPECT_EQ(seen[1], "graph:eos:end");

  // The handler's own reference outlives the sender's.
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept->Count(), 1);
  EXPECT_STREQ(kept->Get("clock"), "42");
  EXPECT_NE(kept->ToString().find("eos(end) clock=42"), std::string::npos) << kept->ToString();
  kept->Release();
  EXPECT_EQ(object_base::LiveObjects(), live);

  // Without a handler anywhere nobody sees it.
  IMessageProcesser alone;
  Message* m2 = new Message("x");
  EXPECT_FALSE(alone.SendMessageUp(*m2));
  EXPECT_FALSE(alone.SendMessageForward(*m2));
  Release(m2);
  node.SetMessageHandler(nullptr);
  EXPECT_FALSE(node.HasMessageHandler());
}

TEST(HostMessage, AHandlerMayUnsubscribeAndALoopedPathEnds) {
  IMessageProcesser a, b;
  int calls = 0;
  a.SetMessageHandler([&](Message&) {
    ++calls;
    a.SetMessageHandler(nullptr);
  });
  Message* m = new Message("once");
  a.SendMessageUp(*m);
  a.SendMessageUp(*m);
  EXPECT_EQ(calls, 1);

  LogCapture log;
  a.MessageParent(&b);
  b.MessageParent(&a);
  int hops = 0;
  b.SetMessageHandler([&](Message&) { ++hops; });
  a.SendMessageUp(*m);
  EXPECT_GT(hops, 0);
  EXPECT_LE(hops, 64);
  EXPECT_TRUE(log.Has("kMaxUpHops"));
  EXPECT_EQ(m->Count(), 1);
  Release(m);
}

// ---- Fifo

TEST(HostFifo, BoundsOrderPeekAndRemax) {
  Fifo<int> f(3);
  EXPECT_TRUE(f.Empty());
  EXPECT_EQ(f.Max(), 3);
  EXPECT_TRUE(f.push(1));
  EXPECT_TRUE(f.push(2));
  EXPECT_TRUE(f.push(3));
  EXPECT_TRUE(f.Full());
  EXPECT_FALSE(f.push(4)) << "bounded";
  EXPECT_EQ(f.Size(), 3);
  int v = 0;
  EXPECT_TRUE(f.peek(0, &v));
  EXPECT_EQ(v, 1);
  EXPECT_TRUE(f.peek(2, &v));
  EXPECT_EQ(v, 3);
  EXPECT_FALSE(f.peek(3, &v));
  EXPECT_FALSE(f.peek(-1, &v));
  EXPECT_FALSE(f.Remax(2)) << "below the present count";
  EXPECT_FALSE(f.Remax(0));
  EXPECT_TRUE(f.Remax(4));
  EXPECT_TRUE(f.push(4));
  for (int want = 1; want <= 4; ++want) {
    ASSERT_TRUE(f.pop(v));
    EXPECT_EQ(v, want);
  }
  EXPECT_FALSE(f.pop(v));
  EXPECT_EQ(f.Core().size(), 0u);
}

TEST(HostFifo, ClearAndDestructionReleasePackets) {
  const long long live = object_base::LiveObjects();
  using PacketFifo = Fifo<Packet*, void (*)(Packet*&)>;
  Packet* watch = PacketAlloc(1, 0, 0);
  {
    PacketFifo f(8, [](Packet*& p) { Release(p); });
    watch->Hold();
    EXPECT_TRUE(f.push(watch));
    EXPECT_TRUE(f.push(PacketAlloc(1, 0, 0)));
    EXPECT_TRUE(f.push(PacketAlloc(1, 0, 0)));
    EXPECT_EQ(watch->Count(), 2);
    f.Clear();
    EXPECT_TRUE(f.Empty());
    EXPECT_EQ(watch->Count(), 1) << "Clear released the fifo's reference";
    EXPECT_EQ(object_base::LiveObjects(), live + 1);

    watch->Hold();
    EXPECT_TRUE(f.push(watch));
    EXPECT_TRUE(f.push(PacketAlloc(1, 0, 0)));
    EXPECT_TRUE(f.pop(static_cast<Packet**>(nullptr))) << "a pop with no place disposes";
    EXPECT_EQ(watch->Count(), 1);
    EXPECT_EQ(f.Size(), 1);
  }
  EXPECT_EQ(watch->Count(), 1);
  Release(watch);
  EXPECT_EQ(object_base::LiveObjects(), live) << "the destructor released the rest";
}

TEST(HostFifo, WaitsForElementsAndAborts) {
  Fifo<int> f(1);
  std::thread producer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    f.push(7);
  });
  int v = 0;
  EXPECT_TRUE(f.pop(v, 10000));
  EXPECT_EQ(v, 7);
  producer.join();

  EXPECT_TRUE(f.push(1));
  EXPECT_FALSE(f.push(2, 20)) << "stays full for the whole wait";

  std::atomic<bool> done{false};
  std::thread blocked([&] {
    EXPECT_FALSE(f.push(3, -1));
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  f.WaitAbort(true);
  blocked.join();
  EXPECT_TRUE(done);
  EXPECT_EQ(f.Flags() & Fifo<int>::kAbort, Fifo<int>::kAbort);
  EXPECT_FALSE(f.push(9, -1)) << "no waiting while aborted";
  EXPECT_EQ(f.Size(), 1);
  f.WaitAbort(false);
  EXPECT_EQ(f.Flags(), 0u);
  EXPECT_TRUE(f.pop(v, -1));
  EXPECT_EQ(v, 1);
}
