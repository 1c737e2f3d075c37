// Host elements: the status ladder, ports and links, messages through a graph (up the parents is
// host_stream_test's), the stream-owning mix-in.
#include <gtest/gtest.h>

#include "tests/ToolRun.h"

#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "stream/base/Message.h"
#include "stream/base/reflect/IClass.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/core/fw/IElement.h"
#include "stream/core/fw/IIO.h"
#include "tests/LogCapture.h"

using namespace kiv::stream;
using kiv::object_base;
using kiv::base::IMessageProcesser;
using kiv::base::Message;
using kiv::base::Release;

namespace {

// The hooks a move along `rungs` runs: "before-up closed>opened,after-up closed>opened,...".
std::string step(const char* dir, std::initializer_list<const char*> rungs) {
  std::string out;
  for (auto it = rungs.begin(); it + 1 != rungs.end(); ++it)
    for (const char* when : {"before-", "after-"}) out += std::string(when) + dir + " " + *it + ">" + it[1] + ",";
  return out;
}

// Notes every hook of the ladder in the form above; vetoes a chosen step.
class LadderSink : public ISink {
 public:
  std::string trail;
  int vetoUpTo = -1, vetoDownTo = -1;

 protected:
  bool beforeStatusUp(int from, int to) override { return note("before-up", from, to) && to != vetoUpTo; }
  void afterStatusUp(int from, int to) override { note("after-up", from, to); }
  bool beforeStatusDown(int from, int to) override { return note("before-down", from, to) && to != vetoDownTo; }
  void afterStatusDown(int from, int to) override { note("after-down", from, to); }

 private:
  bool note(const char* what, int from, int to) {
    trail += std::string(what) + " " + IStatus::StatusName(from) + ">" + IStatus::StatusName(to) + ",";
    return true;
  }
};

class TestSource : public ISource {};

// A sink that can also have outputs, to sit in the middle of a chain; notes what reaches it.
class TestNode : public ISink, public ISource {
 public:
  std::vector<std::string> seen;  // "pts@port:packet media/port media"
  std::vector<std::string> messages;
  int nulls = 0;
  bool refuse = false, consume = false;

  IPort* CreatePort(const char* name, const char* caps) override {
    return std::string(name ? name : "").find("_out_") != std::string::npos ? ISource::CreatePort(name, caps)
                                                                              : ISink::CreatePort(name, caps);
  }
  bool ReceivePacket(Packet& packet, void* user) override {
    auto* port = static_cast<IPort*>(user);
    auto codec = [](IMedia* m) { return std::string(m ? m->Codec() : "-"); };
    if (!refuse)
      seen.push_back(std::to_string(packet.pts) + "@" + port->Name() + ":" + codec(packet.media) + "/" +
                     codec(port->Media()));
    return !refuse;
  }
  using ISink::ReceivePacket;
  int ReceiveNullPacket(IPort&) override { return ++nulls; }
  bool receiveMessage(Message& msg) override {
    messages.push_back(msg.Name());
    return consume;
  }
};

}  // namespace

// One element through a row of moves: each move's answer, the status after it and the hooks it ran.
TEST(HostStatus, MovesRunTheHooksInLadderOrderAndStopAtWhatDoesNotFit) {
#define MOVE(call) #call, [](LadderSink& e) { return e.call; }
  struct Case {
    const char* name;
    bool (*move)(LadderSink&);
    bool ok;
    int status;
    std::string trail;
  } cases[] = {
      {MOVE(Pause()), false, IStatus::closed, ""},  // not started
      {MOVE(Resume()), false, IStatus::closed, ""},
      {MOVE(StopFromPause()), false, IStatus::closed, ""},
      {MOVE(Stop()), true, IStatus::closed, ""},  // nothing to stop
      {MOVE(Start()), true, IStatus::started, step("up", {"closed", "opened", "paused", "started"})},
      {MOVE(Pause()), true, IStatus::paused, step("down", {"started", "paused"})},
      {MOVE(Pause()), true, IStatus::paused, ""},
      {MOVE(Resume()), true, IStatus::started, step("up", {"paused", "started"})},
      {MOVE(Close()), true, IStatus::closed, step("down", {"started", "paused", "opened", "closed"})},
      {MOVE(Close()), true, IStatus::closed, ""},
      {MOVE(Open()), true, IStatus::opened, step("up", {"closed", "opened"})},
      {MOVE(Open()), true, IStatus::opened, ""},
      {MOVE(StartToPause()), true, IStatus::paused, step("up", {"opened", "paused"})},
      {MOVE(StopFromPause()), true, IStatus::opened, step("down", {"paused", "opened"})},
      {MOVE(StatusUp(IStatus::closed)), false, IStatus::opened, ""},
      {MOVE(StatusDown(IStatus::started)), false, IStatus::opened, ""},
      {MOVE(StatusChange(7)), false, IStatus::opened, ""},
      // A veto stops the move; the steps before it stand.
      {"Start, vetoed at started", [](LadderSink& e) { return e.vetoUpTo = IStatus::started, e.Start(); }, false,
       IStatus::paused, step("up", {"opened", "paused"}) + "before-up paused>started,"},
      {"Close, vetoed at closed", [](LadderSink& e) { return e.vetoDownTo = IStatus::closed, e.Close(); }, false,
       IStatus::opened, step("down", {"paused", "opened"}) + "before-down opened>closed,"},
      {"Close", [](LadderSink& e) { return e.vetoDownTo = -1, e.Close(); }, true, IStatus::closed,
       step("down", {"opened", "closed"})},
  };
#undef MOVE
  LogCapture quiet;
  LadderSink e;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    e.trail.clear();
    EXPECT_EQ(c.move(e), c.ok);
    EXPECT_EQ(e.Status(), c.status);
    EXPECT_EQ(e.trail, c.trail);
  }
}

TEST(HostElement, LinkingCarriesTheMediaToTheSink) {
  const long long live = object_base::LiveObjects();
  {
    TestSource src;
    TestNode sink;
    IPort* video = src.CreatePortOut("video", 0);
    IPort* audio = src.CreatePortOut("audio", 1);
    ASSERT_TRUE(video && audio);
    EXPECT_STREQ(audio->Name(), "1_out_audio");
    EXPECT_EQ(src.CreatePortOut(nullptr, 2), nullptr);
    IMedia* h264 = IMedia::New("h264");
    IMedia* aac = IMedia::New("aac");
    ASSERT_TRUE(video->Media(*h264) && audio->Media(*aac));

    IPort* in = sink.CreatePortIn("audio", 0);
    ASSERT_TRUE(in && in->IsInput() && !in->Media());
    ASSERT_TRUE(src.LinkTo(&sink));
    EXPECT_EQ(in->Linked(), audio) << "the waiting audio input took the audio output";
    IPort* made = sink.Port("1_in_video");
    ASSERT_NE(made, nullptr) << "a new input for the video output";
    EXPECT_EQ(made->Linked(), video);
    EXPECT_EQ(in->Media(), aac);
    EXPECT_EQ(sink.Ports().size(), 2u);

    for (int i = 0; i < 3; ++i) {
      Packet* p = PacketAlloc(4, 0, 0);
      p->pts = i;
      EXPECT_EQ((i % 2 ? audio : video)->Push(p, true), 1);
      EXPECT_EQ(p->Count(), 1) << "the sender keeps its reference";
      Release(p);
    }
    // The port stamps its media on the packet.
    EXPECT_EQ(sink.seen,
              (std::vector<std::string>{"0@1_in_video:h264/h264", "1@0_in_audio:aac/aac", "2@1_in_video:h264/h264"}));

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
    // The input shows the media of the linked output as it is now.
    audio->MediaClear();
    EXPECT_EQ(in->Media(), nullptr);
  }
  EXPECT_EQ(object_base::LiveObjects(), live) << "ports released their media with the elements";
}

TEST(HostElement, LinkRulesAndWrongDirections) {
  LogCapture quiet;
  TestSource src;
  TestNode sink;
  EXPECT_FALSE(sink.LinkTo(static_cast<IElement*>(&src)));
  EXPECT_FALSE(src.LinkTo(&sink)) << "no output port to link";
  IPort* out = src.CreatePortOut("video", 0);
  IPort* out2 = src.CreatePortOut("video", 1);
  IPort* in = sink.CreatePortIn("video", 0);
  EXPECT_FALSE(out->Link(out2)) << "two outputs";
  EXPECT_FALSE(out->Link(out));
  ASSERT_TRUE(out->Link(in));
  EXPECT_FALSE(in->Link(out2)) << "linked already";
  EXPECT_EQ(in->Push(nullptr, true), 0) << "inputs do not push";
  out->Unlink();
  EXPECT_EQ(in->Linked(), nullptr);
  Packet* lost = PacketAlloc(0, 0, 0);
  EXPECT_EQ(out->Push(lost, true), 0) << "unlinked";
  EXPECT_EQ(lost->Count(), 1);
  Release(lost);
  IPort* in2 = sink.CreatePortIn("audio", 1);
  {
    TestSource gone;
    ASSERT_TRUE(gone.CreatePortOut("audio", 0)->Link(in2));
  }
  EXPECT_EQ(in2->Linked(), nullptr) << "element destruction unlinks the peer";
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
      const char *caps, *what;
      bool match;
    } cases[] = {
        {"video", "h264", true},      {"video", "aac", false},          {"h264", "video/h264", true},
        {"video/h264", "hevc", false}, {"audio/aac", "video/aac", false}, {"", "anything", true},
        {"*", "aac", true},           {"h264,aac", "aac", true},        {"h264; pcm", "pcm", true},
        {"video/*", "jpeg", true},    {"VIDEO", "H264", true},          {"text", "txt", true},
        {"video", "", false},
    };
    for (auto& c : cases) {
      p->Caps(c.caps);
      EXPECT_EQ(p->Match(c.what), c.match) << c.caps << " ~ " << c.what;
    }
    p->Caps("audio");
    EXPECT_FALSE(p->Match(a));
    EXPECT_FALSE(p->Match(static_cast<const IMedia*>(nullptr)));
  }
  EXPECT_EQ(object_base::LiveObjects(), live);
}

TEST(HostElement, ForwardMessagesReachTheApplicationOnceAndTheGraphUntilTaken) {
  IMessageProcesser graph;
  TestSource src;
  TestNode mid, end;
  src.MessageParent(&graph);
  src.CreatePortOut("video", 0);
  mid.CreatePortOut("video", 0);
  ASSERT_TRUE(src.LinkTo(&mid) && mid.LinkTo(&end));
  end.consume = true;

  std::vector<std::string> app;
  graph.SetMessageHandler([&](Message& m) { app.push_back(std::string("graph:") + m.Name()); });
  src.SetMessageHandler([&](Message& m) { app.push_back(std::string("src:") + m.Name()); });
  Message* fwd = new Message("fileurl", &src);
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
}

namespace {

// An element that owns its stream, as a recorder or a reader does.
class FileElement : public ISource, public IIO {
 public:
  explicit FileElement(const char* mode) : _mode(mode) {}
  bool Open() override { return IIO::Open(_mode) && IStatus::Open(); }
  bool Close() override {
    const bool ok = IIO::Close();
    return IStatus::Close() && ok;
  }

 private:
  const char* _mode;
};

}  // namespace

// Recording through the mix-in is the muxer's business and tested there; here the url property found on
// the registered base and the stream's life.
TEST(HostIIO, OpensTheStreamNamedByTheUrlProperty) {
  const std::string path = boxtest::ProcessScratch() + "/host_element_iio_" + std::to_string(::getpid());
  FileElement writer("wb");
  ASSERT_TRUE(kiv::base::IAttributes::fromString(writer, ("url=" + path).c_str()));
  ASSERT_TRUE(writer.Open());
  ASSERT_NE(writer.io, nullptr);
  EXPECT_EQ(writer.getChild("io"), writer.io);
  ASSERT_TRUE(writer.Close());
  EXPECT_EQ(writer.io, nullptr);
  EXPECT_TRUE(writer.IIO::Close()) << "nothing left to close";
  std::remove(path.c_str());
}
