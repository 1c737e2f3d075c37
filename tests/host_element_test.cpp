// Elements of the host runtime: the status ladder, ports and links, messages through a graph, the
// stream-owning mix-in and the thread element.
#include <gtest/gtest.h>

#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "stream/base/Message.h"
#include "stream/base/reflect/IClass.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/core/fw/IElement.h"
#include "stream/core/fw/IElementWithThread.h"
#include "stream/core/fw/IIO.h"
#include "tests/LogCapture.h"

using namespace kiv::stream;
using kiv::object_base;
using kiv::base::IMessageProcesser;
using kiv::base::Message;
using kiv::base::Release;

namespace {

// Waits up to a generous limit for a condition that another thread makes true.
template <class F>
bool eventually(F cond, int ms = 5000) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (std::chrono::steady_clock::now() < end) {
    if (cond()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return cond();
}

std::string statusLadderWord(int from, int to) {
  return std::string(IStatus::StatusName(from)) + ">" + IStatus::StatusName(to);
}

class LadderSink : public ISink {
 public:
  std::vector<std::string> trail;
  int vetoUpTo = -1;
  int vetoDownTo = -1;

 protected:
  bool beforeStatusUp(int from, int to) override {
    trail.push_back("before-up " + statusLadderWord(from, to));
    return to != vetoUpTo;
  }
  void afterStatusUp(int from, int to) override { trail.push_back("after-up " + statusLadderWord(from, to)); }
  bool beforeStatusDown(int from, int to) override {
    trail.push_back("before-down " + statusLadderWord(from, to));
    return to != vetoDownTo;
  }
  void afterStatusDown(int from, int to) override { trail.push_back("after-down " + statusLadderWord(from, to)); }
};

class TestSource : public ISource {};

class TestSink : public ISink {
 public:
  struct Seen {
    long long pts;
    IMedia* packetMedia;
    IMedia* portMedia;
    std::string port;
  };
  std::vector<Seen> seen;
  std::vector<std::string> messages;
  int nulls = 0;
  bool refuse = false;
  bool consume = true;

  bool ReceivePacket(Packet& packet, void* user) override {
    if (refuse) return false;
    auto* port = static_cast<IPort*>(user);
    seen.push_back({packet.pts, packet.media, port ? port->Media() : nullptr, port ? port->Name() : ""});
    return true;
  }
  using ISink::ReceivePacket;
  int ReceiveNullPacket(IPort&) override { return ++nulls; }
  bool receiveMessage(Message& msg) override {
    messages.push_back(msg.Name());
    return consume;
  }
};

// An element with inputs and outputs, in the middle of a chain.
class TestFilter : public ISink, public ISource {
 public:
  std::vector<std::string> messages;
  bool consume = false;
  IPort* CreatePort(const char* name, const char* caps) override {
    return std::string(name ? name : "").find("_out_") != std::string::npos ? ISource::CreatePort(name, caps)
                                                                              : ISink::CreatePort(name, caps);
  }
  bool receiveMessage(Message& msg) override {
    messages.push_back(msg.Name());
    return consume;
  }
};

}  // namespace

// ---- Status ladder

TEST(HostStatus, StepsRunTheHooksInLadderOrder) {
  LadderSink e;
  EXPECT_EQ(e.Status(), IStatus::closed);
  ASSERT_TRUE(e.Start());
  EXPECT_EQ(e.Status(), IStatus::started);
  const std::vector<std::string> up = {
      "before-up closed>opened", "after-up closed>opened", "before-up opened>paused",
      "after-up opened>paused",  "before-up paused>started", "after-up paused>started"};
  EXPECT_EQ(e.trail, up);

  e.trail.clear();
  ASSERT_TRUE(e.Pause());
  EXPECT_EQ(e.Status(), IStatus::paused);
  EXPECT_TRUE(e.Pause()) << "paused already";
  ASSERT_TRUE(e.Resume());
  ASSERT_TRUE(e.Close());
  EXPECT_EQ(e.Status(), IStatus::closed);
  const std::vector<std::string> rest = {
      "before-down started>paused", "after-down started>paused",  "before-up paused>started",
      "after-up paused>started",    "before-down started>paused", "after-down started>paused",
      "before-down paused>opened",  "after-down paused>opened",   "before-down opened>closed",
      "after-down opened>closed"};
  EXPECT_EQ(e.trail, rest);

  e.trail.clear();
  EXPECT_TRUE(e.Close()) << "closed already";
  EXPECT_TRUE(e.Open());
  EXPECT_TRUE(e.Open()) << "a second Open stays open";
  EXPECT_EQ(e.trail.size(), 2u);
}

TEST(HostStatus, MovesThatDoNotFitAndVetoes) {
  LogCapture log;
  LadderSink e;
  EXPECT_FALSE(e.Pause()) << "not started";
  EXPECT_FALSE(e.Resume()) << "not paused";
  EXPECT_FALSE(e.StopFromPause());
  EXPECT_TRUE(e.Stop()) << "nothing to stop";
  EXPECT_EQ(e.Status(), IStatus::closed);

  ASSERT_TRUE(e.Open());
  ASSERT_TRUE(e.StartToPause());
  EXPECT_EQ(e.Status(), IStatus::paused);
  ASSERT_TRUE(e.StopFromPause());
  EXPECT_EQ(e.Status(), IStatus::opened);
  EXPECT_FALSE(e.StatusUp(IStatus::closed));
  EXPECT_FALSE(e.StatusDown(IStatus::started));
  EXPECT_FALSE(e.StatusChange(7));

  e.vetoUpTo = IStatus::started;
  EXPECT_FALSE(e.Start());
  EXPECT_EQ(e.Status(), IStatus::paused) << "the steps before the veto stand";
  EXPECT_TRUE(log.Has("!beforeStatusUp(paused,started)"));
  e.vetoDownTo = IStatus::closed;
  EXPECT_FALSE(e.Close());
  EXPECT_EQ(e.Status(), IStatus::opened);
  e.vetoDownTo = -1;
  EXPECT_TRUE(e.Close());
}

// ---- Ports, links and packets

TEST(HostElement, LinkingCarriesTheMediaToTheSink) {
  const long long live = object_base::LiveObjects();
  {
    TestSource src;
    TestSink sink;
    IPort* video = src.CreatePortOut("video", 0);
    IPort* audio = src.CreatePortOut("audio", 1);
    ASSERT_TRUE(video && audio);
    EXPECT_STREQ(video->Name(), "0_out_video");
    EXPECT_STREQ(audio->Name(), "1_out_audio");
    EXPECT_FALSE(video->IsInput());
    EXPECT_EQ(video->Owner(), &src);
    EXPECT_EQ(src.CreatePortOut(nullptr, 2), nullptr);

    IMedia* h264 = IMedia::New("h264");
    IMedia* aac = IMedia::New("aac");
    ASSERT_TRUE(video->Media(*h264));
    ASSERT_TRUE(audio->Media(*aac));
    EXPECT_EQ(src.SelectPortOut(aac), audio);
    EXPECT_EQ(src.SelectPortOut(nullptr), nullptr);

    IPort* in = sink.CreatePortIn("audio", 0);
    ASSERT_NE(in, nullptr);
    EXPECT_TRUE(in->IsInput());
    EXPECT_EQ(in->Media(), nullptr);
    ASSERT_TRUE(src.LinkTo(&sink));
    EXPECT_EQ(in->Linked(), audio) << "the waiting audio input took the audio output";
    IPort* made = sink.Port("1_in_video");
    ASSERT_NE(made, nullptr) << "a new input for the video output";
    EXPECT_EQ(made->Linked(), video);
    EXPECT_EQ(in->Media(), aac);
    EXPECT_EQ(made->Media(), h264);
    EXPECT_EQ(sink.SelectPortIn(h264), made);
    EXPECT_EQ(src.Ports().size(), 2u);
    EXPECT_EQ(sink.Ports().size(), 2u);

    for (int i = 0; i < 3; ++i) {
      Packet* p = PacketAlloc(4, 0, 0);
      p->pts = i * 40000000LL;
      EXPECT_EQ((i % 2 ? audio : video)->Push(p, true), 1);
      EXPECT_EQ(p->Count(), 1) << "the sender keeps its reference";
      Release(p);
    }
    ASSERT_EQ(sink.seen.size(), 3u);
    EXPECT_EQ(sink.seen[0].packetMedia, h264) << "the port stamps its media on the packet";
    EXPECT_EQ(sink.seen[0].portMedia, h264);
    EXPECT_EQ(sink.seen[0].port, "1_in_video");
    EXPECT_EQ(sink.seen[1].packetMedia, aac);
    EXPECT_EQ(sink.seen[1].port, "0_in_audio");
    EXPECT_EQ(sink.seen[2].pts, 80000000LL);

    // A sink that refuses: Push says 0 and the sender still holds exactly its own reference.
    sink.refuse = true;
    Packet* p = PacketAlloc(4, 0, 0);
    EXPECT_EQ(video->Push(p, true), 0);
    EXPECT_EQ(p->Count(), 1);
    // Straight at the element's port entry, a refused packet comes back with one more reference.
    EXPECT_FALSE(sink.ReceivePacket(*p, *made, true));
    EXPECT_EQ(p->Count(), 2);
    p->Release();
    Release(p);

    // A null packet ends the stream on the receiving side.
    EXPECT_EQ(video->Push(nullptr, true), 0);
    EXPECT_EQ(sink.nulls, 1);

    // The media of the linked output shows through the input even when set later.
    audio->MediaClear();
    EXPECT_EQ(in->Media(), nullptr);
  }
  EXPECT_EQ(object_base::LiveObjects(), live) << "ports released their media with the elements";
}

TEST(HostElement, LinkRulesAndWrongDirections) {
  LogCapture log;
  TestSource src;
  TestSink sink;
  EXPECT_FALSE(src.LinkFrom(static_cast<IElement*>(&sink)));
  EXPECT_FALSE(src.LinkFrom(static_cast<IPort*>(nullptr)));
  EXPECT_TRUE(log.Has("!LinkFrom"));
  EXPECT_FALSE(sink.LinkTo(static_cast<IElement*>(&src)));
  EXPECT_FALSE(src.LinkTo(&sink)) << "no output port to link";
  EXPECT_EQ(src.InitPort(), 0);
  EXPECT_EQ(src.OutputMode(), 0u);
  EXPECT_TRUE(src.ConsultOutputMode(3));
  EXPECT_EQ(src.OutputMode(), 3u);
  EXPECT_FALSE(src.CanThread());

  IPort* out = src.CreatePortOut("video", 0);
  IPort* out2 = src.CreatePortOut("video", 1);
  IPort* in = sink.CreatePortIn("video", 0);
  EXPECT_FALSE(out->Link(out2)) << "two outputs";
  EXPECT_FALSE(out->Link(out));
  ASSERT_TRUE(sink.LinkFrom(&src));
  EXPECT_EQ(in->Linked(), out);
  EXPECT_FALSE(in->Link(out2)) << "linked already";
  EXPECT_EQ(in->Push(nullptr, true), 0) << "inputs do not push";
  out->Unlink();
  EXPECT_EQ(in->Linked(), nullptr);
  Packet* lost = PacketAlloc(0, 0, 0);
  EXPECT_EQ(out->Push(lost, true), 0) << "unlinked";
  EXPECT_EQ(lost->Count(), 1);
  Release(lost);

  // Element destruction unlinks the peer.
  ASSERT_TRUE(src.LinkTo(in));
  {
    TestSource gone;
    IPort* g = gone.CreatePortOut("audio", 0);
    IPort* in2 = sink.CreatePortIn("audio", 1);
    ASSERT_TRUE(g->Link(in2));
    EXPECT_EQ(in2->Linked(), g);
  }
  EXPECT_EQ(sink.Port("1_in_audio")->Linked(), nullptr);
}

TEST(HostElement, PortMediaAndCaps) {
  const long long live = object_base::LiveObjects();
  {
    TestSource src;
    IPort* p = src.CreatePortOut("video", 0);
    IMedia* a = IMedia::New("h264");
    IMedia* b = IMedia::New("hevc");
    ASSERT_TRUE(p->Media(*a)) << "the port takes over the reference";
    a->Hold();
    EXPECT_TRUE(p->Media(*a)) << "the same media again drops the extra reference";
    EXPECT_EQ(a->Count(), 1);
    EXPECT_FALSE(p->Media(*b)) << "a port with a media refuses another";
    EXPECT_EQ(p->Media(), a);
    Release(b);

    struct Case {
      const char* caps;
      const char* what;
      bool match;
    } cases[] = {
        {"video", "h264", true},          {"video", "aac", false},        {"audio", "aac", true},
        {"h264", "video/h264", true},     {"video/h264", "h264", true},   {"video/h264", "hevc", false},
        {"audio/aac", "video/aac", false}, {"", "anything", true},        {"*", "aac", true},
        {"h264,aac", "aac", true},        {"h264; pcm", "pcm", true},     {"video/*", "jpeg", true},
        {"video", "video", true},         {"VIDEO", "H264", true},        {"text", "txt", true},
    };
    for (auto& c : cases) {
      p->Caps(c.caps);
      EXPECT_EQ(p->Match(c.what), c.match) << c.caps << " ~ " << c.what;
    }
    p->Caps("audio");
    EXPECT_FALSE(p->Match(a));
    EXPECT_FALSE(p->Match(static_cast<const IMedia*>(nullptr)));
    EXPECT_FALSE(p->Match(""));
  }
  EXPECT_EQ(object_base::LiveObjects(), live);
}

TEST(HostElement, MessagesGoUpAndForwardThroughTheGraph) {
  IMessageProcesser graph;
  TestSource src;
  TestFilter mid;
  TestSink end;
  src.MessageParent(&graph);
  src.CreatePortOut("video", 0);
  mid.CreatePortOut("video", 0);
  ASSERT_TRUE(src.LinkTo(&mid));
  ASSERT_TRUE(mid.LinkTo(&end));
  EXPECT_STREQ(mid.Ports().front()->Name(), "0_out_video");

  std::vector<std::string> app;
  graph.SetMessageHandler([&](Message& m) { app.push_back(std::string("graph:") + m.Name()); });
  src.SetMessageHandler([&](Message& m) { app.push_back(std::string("src:") + m.Name()); });

  Message* up = new Message("firstPTS", &src);
  EXPECT_TRUE(src.SendMessageUp(*up));
  EXPECT_TRUE(src.sendMessage(*up)) << "the object hook sends up";
  Release(up);
  EXPECT_EQ(app, (std::vector<std::string>{"src:firstPTS", "graph:firstPTS", "src:firstPTS", "graph:firstPTS"}));
  EXPECT_TRUE(mid.messages.empty()) << "up does not go down the graph";

  app.clear();
  Message* fwd = new Message("fileurl", &src);
  fwd->Add("url", std::string("/a.mp4"));
  EXPECT_TRUE(src.SendMessageForward(*fwd));
  EXPECT_EQ(app, (std::vector<std::string>{"src:fileurl", "graph:fileurl"})) << "the application sees it once";
  EXPECT_EQ(mid.messages, std::vector<std::string>{"fileurl"});
  EXPECT_EQ(end.messages, std::vector<std::string>{"fileurl"}) << "passed on by an element that did not take it";

  mid.consume = true;
  EXPECT_TRUE(src.Ports().front()->Send(*fwd));
  EXPECT_EQ(mid.messages.size(), 2u);
  EXPECT_EQ(end.messages.size(), 1u) << "taken in the middle";
  EXPECT_EQ(fwd->Count(), 1);
  Release(fwd);

  std::vector<IElement*> down, back;
  src.EleGraphForward([&](IElement* e) {
    down.push_back(e);
    return true;
  });
  end.EleGraphBackward([&](IElement* e) {
    back.push_back(e);
    return true;
  });
  EXPECT_EQ(down, (std::vector<IElement*>{&mid, &end}));
  EXPECT_EQ(back, (std::vector<IElement*>{&mid, &src}));
  EXPECT_FALSE(src.EleGraphForward([](IElement*) { return false; }));
}

// ---- The stream-owning mix-in

namespace {

// A minimal recorder: writes each payload to its stream.
class FileSink : public ISink, public IIO {
 public:
  FileSink() { FlagsSet(0x8 | 0x100 | 0x40000 | 0x80000); }
  bool Open() override { return IIO::Open("wb") && IStatus::Open(); }
  bool Close() override {
    const bool ok = IIO::Close();
    return IStatus::Close() && ok;
  }
  bool ReceivePacket(Packet& p, void*) override { return io && io->Write(p.Data(), p.Size()) == p.Size(); }
  using ISink::ReceivePacket;
};

class FileSource : public ISource, public IIO {
 public:
  bool Open() override { return IStatus::Open() && IIO::Open("rb") && IStatus::Open(); }
  bool Close() override {
    IIO::Close();
    return IStatus::Close();
  }
};

std::string tempPath(const char* name) {
  std::string dir = ::testing::TempDir();
  if (!dir.empty() && dir.back() != '/') dir += '/';
  return dir + "host_element_" + name + "_" + std::to_string(::getpid());
}

}  // namespace

TEST(HostIIO, OpensTheStreamNamedByTheUrlProperty) {
  kiv::base::IClass* cls = kiv::base::IClass::Find("IIO", true);
  ASSERT_NE(cls, nullptr);
  EXPECT_TRUE(cls->Abstract());

  const std::string path = tempPath("iio");
  std::remove(path.c_str());
  {
    FileSink sink;
    EXPECT_EQ(sink.Flags(), 0xc0108u);
    EXPECT_TRUE(sink.HasProperty("url")) << "found on the registered base";
    ASSERT_TRUE(sink.Set("url", path.c_str()));
    EXPECT_EQ(sink.url, path);
    std::string back;
    EXPECT_TRUE(sink.getString("url", back));
    EXPECT_EQ(back, path);

    EXPECT_EQ(sink.getChild("io"), nullptr);
    ASSERT_TRUE(sink.Open());
    ASSERT_NE(sink.io, nullptr);
    EXPECT_EQ(sink._io, sink.io);
    EXPECT_EQ(sink.getChild("io"), sink.io);
    EXPECT_EQ(sink.Status(), IStatus::opened);

    IPort* in = sink.CreatePortIn("video", 0);
    TestSource src;
    IPort* out = src.CreatePortOut("video", 0);
    ASSERT_TRUE(out->Link(in));
    Packet* p = PacketAlloc(0, 0, 0);
    p->Append("hello ", 6);
    EXPECT_EQ(out->Push(p, true), 1);
    p->Assign("world", 5);
    EXPECT_EQ(out->Push(p, true), 1);
    Release(p);
    ASSERT_TRUE(sink.Close());
    EXPECT_EQ(sink.io, nullptr);
    EXPECT_EQ(sink.Status(), IStatus::closed);
  }
  std::ifstream f(path, std::ios::binary);
  const std::string content((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  EXPECT_EQ(content, "hello world");

  // Set by attribute text, as a host configures an element, and read back.
  FileSource reader;
  ASSERT_TRUE(kiv::base::IAttributes::fromString(reader, ("url=" + path).c_str()));
  ASSERT_TRUE(reader.Open());
  ASSERT_NE(reader.io, nullptr);
  EXPECT_EQ(reader.io->Size(), 11);
  EXPECT_TRUE(reader.Close());
  EXPECT_TRUE(reader.IIO::Close()) << "nothing left to close";
  std::remove(path.c_str());

  LogCapture log;
  FileSource nourl;
  EXPECT_FALSE(nourl.IIO::Open("rb"));
  EXPECT_TRUE(log.Has("!url"));
  FileSource missing;
  missing.url = path + ".missing";
  EXPECT_FALSE(missing.Open());
  EXPECT_EQ(missing.io, nullptr);
}

// ---- The thread element

namespace {

// Makes one packet a pass and, at `endAt`, ends its run the way a demuxer does: "eos" up, loop-end flag.
class Ticker : public ISource, public IElementWithThread {
 public:
  std::atomic<int> passes{0};
  std::atomic<int> endAt{-1};
  IMedia* media;

  Ticker() : media(IMedia::New("h264")) {
    IPort* out = CreatePortOut("video", 0);
    out->Media(*media);
  }
  ~Ticker() override { StatusDown(); }

  int ProcessPacket() override {
    const int n = ++passes;
    if (IPort* port = SelectPortOut(media)) {
      if (port->Linked()) {
        Packet* p = PacketAlloc(8, 0, 0);
        p->pts = n * 40000000LL;
        port->Push(p, true);
        Release(p);
      }
    }
    if (n == endAt) {
      Message* msg = new Message("eos", this);
      msg->Add("clock", n);
      SendMessageUp(*msg);
      Release(msg);
      LoopEnd(true);
    }
    return 0;
  }
};

class LockedSink : public ISink {
 public:
  bool ReceivePacket(Packet& p, void* user) override {
    std::lock_guard<std::mutex> lock(m);
    pts.push_back(p.pts);
    medias.push_back(static_cast<IPort*>(user)->Media());
    return true;
  }
  using ISink::ReceivePacket;
  std::mutex m;
  std::vector<long long> pts;
  std::vector<IMedia*> medias;
};

double cpuSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

}  // namespace

TEST(HostThread, PassesRunUntilTheLoopEndFlagAndResumeWhenCleared) {
  Ticker t;
  EXPECT_TRUE(t.CanThread());
  EXPECT_TRUE(t.WaitLoopEnd(0)) << "no thread, no passes";
  ASSERT_TRUE(t.Open());
  ASSERT_TRUE(t.Start());
  ASSERT_TRUE(eventually([&] { return t.passes >= 5; }));
  EXPECT_FALSE(t.InThread());

  t.LoopEnd(true);
  EXPECT_TRUE(t.LoopEnd());
  ASSERT_TRUE(t.WaitLoopEnd(5000));
  const int stood = t.passes;
  const double cpu0 = cpuSeconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(t.passes, stood) << "no pass while the flag stands";
  EXPECT_LT(cpuSeconds() - cpu0, 0.15) << "and no hot spin either";
  EXPECT_EQ(t.Status(), IStatus::started);

  t.LoopEnd(false);
  ASSERT_TRUE(eventually([&] { return t.passes > stood + 3; })) << "clearing the flag resumes the passes";

  ASSERT_TRUE(t.Pause());
  const int paused = t.passes;
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(t.passes, paused) << "Pause returns after the pass under way";
  EXPECT_EQ(t.Passes(), static_cast<unsigned long long>(paused));
  EXPECT_FALSE(t.WaitLoopEnd(20)) << "paused is not the end of the run";
  ASSERT_TRUE(t.Resume());
  ASSERT_TRUE(eventually([&] { return t.passes > paused; }));

  ASSERT_TRUE(t.Stop());
  EXPECT_EQ(t.Status(), IStatus::opened);
  const int stopped = t.passes;
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(t.passes, stopped);
  EXPECT_TRUE(t.WaitLoopEnd(0)) << "the thread has ended";

  // A flag left standing does not hold back the next run: a launch clears it.
  t.LoopEnd(true);
  ASSERT_TRUE(t.StartToPause());
  EXPECT_FALSE(t.LoopEnd());
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(t.passes, stopped) << "launched paused: no passes yet";
  ASSERT_TRUE(t.Resume());
  ASSERT_TRUE(eventually([&] { return t.passes > stopped; }));
  ASSERT_TRUE(t.Close()) << "down the whole ladder from started";
  EXPECT_EQ(t.Status(), IStatus::closed);
}

TEST(HostThread, AnEndOfRunReachesTheApplicationAndASeekGoesOn) {
  Ticker t;
  LockedSink sink;
  ASSERT_TRUE(t.LinkTo(&sink));
  std::mutex m;
  std::vector<std::string> msgs;
  std::thread::id from;
  t.SetMessageHandler([&](Message& msg) {
    std::lock_guard<std::mutex> lock(m);
    msgs.push_back(std::string(msg.Name()) + ":" + msg.Get("clock"));
    from = std::this_thread::get_id();
  });
  t.endAt = 10;
  ASSERT_TRUE(t.Open());
  ASSERT_TRUE(t.Start());
  ASSERT_TRUE(t.WaitLoopEnd(5000));
  EXPECT_EQ(t.passes, 10);
  {
    std::lock_guard<std::mutex> lock(m);
    EXPECT_EQ(msgs, std::vector<std::string>{"eos:10"});
    EXPECT_NE(from, std::this_thread::get_id()) << "sent on the element's thread";
  }
  {
    std::lock_guard<std::mutex> lock(sink.m);
    ASSERT_EQ(sink.pts.size(), 10u);
    EXPECT_EQ(sink.pts.back(), 400000000LL);
    EXPECT_EQ(sink.medias.front(), t.media) << "the sink sees the source's media";
  }

  // What a seek does: clear the flag, and the run goes on from where it stands.
  t.endAt = 15;
  t.LoopEnd(false);
  ASSERT_TRUE(eventually([&] { return t.LoopEnd(); }));
  ASSERT_TRUE(t.WaitLoopEnd(5000));
  EXPECT_EQ(t.passes, 15);
  ASSERT_TRUE(t.Stop());
  std::lock_guard<std::mutex> lock(sink.m);
  EXPECT_EQ(sink.pts.size(), 15u);
}

TEST(HostThread, StopFromTheElementsOwnThread) {
  auto* t = new Ticker();
  std::atomic<bool> stopped{false};
  t->SetMessageHandler([&](Message&) {
    EXPECT_TRUE(t->InThread());
    EXPECT_TRUE(t->Stop()) << "does not wait for the pass it is called from";
    stopped = true;
  });
  t->endAt = 3;
  ASSERT_TRUE(t->Open());
  ASSERT_TRUE(t->Start());
  ASSERT_TRUE(eventually([&] { return stopped.load(); }));
  ASSERT_TRUE(t->WaitLoopEnd(5000));
  EXPECT_EQ(t->Status(), IStatus::opened);
  EXPECT_EQ(t->passes, 3);

  // The next launch joins the old thread first.
  t->SetMessageHandler(nullptr);
  t->endAt = 6;
  ASSERT_TRUE(t->Start());
  ASSERT_TRUE(t->WaitLoopEnd(5000));
  EXPECT_EQ(t->passes, 6);
  delete t;  // brings the status down and joins
}

TEST(HostThread, AHandlerStoppingAtTheFirstPassWinsOverAStartStillUnderWay) {
  // The first pass may run before Start has recorded "started"; the handler's Stop must not be undone.
  for (int round = 0; round < 100; ++round) {
    Ticker t;
    std::atomic<bool> stopped{false};
    t.SetMessageHandler([&](Message&) { stopped = t.Stop(); });
    t.endAt = 1;
    ASSERT_TRUE(t.Open());
    t.Start();
    ASSERT_TRUE(eventually([&] { return stopped.load(); })) << "round " << round;
    ASSERT_TRUE(t.WaitLoopEnd(5000));
    EXPECT_EQ(t.Status(), IStatus::opened) << "round " << round;
    EXPECT_EQ(t.passes, 1) << "round " << round;
  }
}
