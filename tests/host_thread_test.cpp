// The element thread: passes, the loop-end flag, pause and resume, and stops from the element's own
// thread, which the demuxing side relies on.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "stream/base/Message.h"
#include "stream/core/fw/IElement.h"
#include "stream/core/fw/IElementWithThread.h"

using namespace kiv::stream;
using kiv::base::Message;
using kiv::base::Release;

namespace {

// Waits up to a generous limit for a condition that another thread makes true.
template <class F>
bool eventually(F cond) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!cond() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  return cond();
}

class Ticker : public ISource, public IElementWithThread {
 public:
  std::atomic<int> passes{0}, endAt{-1};
  ~Ticker() override { StatusDown(); }
  int ProcessPacket() override {
    const int n = ++passes;
    if (n == endAt) {
      Message* msg = new Message("eos", this);
      msg->Add("clock", n);
      SendMessageUp(*msg);
      Release(msg);
      LoopEnd(true);
    }
    return 0;
  }
  // True when no pass is made for a while.
  bool standsStill(int ms) {
    const int was = passes;
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    return passes == was;
  }
};

}  // namespace

TEST(HostThread, PassesRunUntilTheLoopEndFlagAndResumeWhenCleared) {
  Ticker t;
  EXPECT_TRUE(t.WaitLoopEnd(0)) << "no thread, no passes";
  ASSERT_TRUE(t.Open() && t.Start());
  ASSERT_TRUE(eventually([&] { return t.passes >= 5; }));
  EXPECT_FALSE(t.InThread());

  t.LoopEnd(true);
  ASSERT_TRUE(t.WaitLoopEnd(5000));
  EXPECT_TRUE(t.standsStill(100)) << "no pass while the flag stands";
  EXPECT_EQ(t.Status(), IStatus::started);
  int was = t.passes;
  t.LoopEnd(false);
  ASSERT_TRUE(eventually([&] { return t.passes > was + 3; })) << "clearing the flag resumes the passes";

  ASSERT_TRUE(t.Pause());
  EXPECT_TRUE(t.standsStill(50)) << "Pause returns after the pass under way";
  EXPECT_FALSE(t.WaitLoopEnd(20)) << "paused is not the end of the run";
  was = t.passes;
  ASSERT_TRUE(t.Resume());
  ASSERT_TRUE(eventually([&] { return t.passes > was; }));

  ASSERT_TRUE(t.Stop());
  EXPECT_EQ(t.Status(), IStatus::opened);
  EXPECT_TRUE(t.standsStill(50));
  EXPECT_TRUE(t.WaitLoopEnd(0)) << "the thread has ended";

  // A flag left standing does not hold back the next run: a launch clears it.
  t.LoopEnd(true);
  was = t.passes;
  ASSERT_TRUE(t.StartToPause());
  EXPECT_FALSE(t.LoopEnd());
  EXPECT_TRUE(t.standsStill(30)) << "launched paused: no passes yet";
  ASSERT_TRUE(t.Resume());
  ASSERT_TRUE(eventually([&] { return t.passes > was; }));
  ASSERT_TRUE(t.Close()) << "down the whole ladder from started";
  EXPECT_EQ(t.Status(), IStatus::closed);
}

TEST(HostThread, AnEndOfRunReachesTheApplicationASeekGoesOnAndAHandlerMayStop) {
  std::mutex m;
  std::vector<std::string> msgs;
  std::atomic<bool> stopInHandler{false};
  Ticker t;
  t.SetMessageHandler([&](Message& msg) {
    EXPECT_TRUE(t.InThread()) << "sent on the element's thread";
    EXPECT_TRUE(!stopInHandler || t.Stop()) << "does not wait for the pass it is called from";
    std::lock_guard<std::mutex> lock(m);
    msgs.push_back(std::string(msg.Name()) + ":" + msg.Get("clock"));
  });
  t.endAt = 10;
  ASSERT_TRUE(t.Open() && t.Start());
  ASSERT_TRUE(t.WaitLoopEnd(5000));
  EXPECT_EQ(t.passes, 10);
  // What a seek does: clear the flag, and the run goes on from where it stands.
  t.endAt = 15;
  t.LoopEnd(false);
  ASSERT_TRUE(eventually([&] { return t.LoopEnd(); }));
  ASSERT_TRUE(t.WaitLoopEnd(5000));
  EXPECT_EQ(t.passes, 15);

  // A Stop from the handler, on the element's own thread.
  stopInHandler = true;
  t.endAt = 18;
  t.LoopEnd(false);
  ASSERT_TRUE(eventually([&] { return t.Status() == IStatus::opened; }));
  ASSERT_TRUE(t.WaitLoopEnd(5000));
  EXPECT_EQ(t.passes, 18);
  // The next launch joins the old thread first.
  stopInHandler = false;
  t.endAt = 21;
  ASSERT_TRUE(t.Start());
  ASSERT_TRUE(t.WaitLoopEnd(5000));
  EXPECT_EQ(t.passes, 21);
  std::lock_guard<std::mutex> lock(m);
  EXPECT_EQ(msgs, (std::vector<std::string>{"eos:10", "eos:15", "eos:18", "eos:21"}));
}  // the destructor brings the status down and joins

TEST(HostThread, AHandlerStoppingAtTheFirstPassWinsOverAStartStillUnderWay) {
  // The first pass may run before Start has recorded "started"; the handler's Stop must not be undone.
  for (int round = 0; round < 100; ++round) {
    SCOPED_TRACE(round);
    Ticker t;
    std::atomic<bool> stopped{false};
    t.SetMessageHandler([&](Message&) { stopped = t.Stop(); });
    t.endAt = 1;
    ASSERT_TRUE(t.Open());
    t.Start();
    ASSERT_TRUE(eventually([&] { return stopped.load(); }));
    ASSERT_TRUE(t.WaitLoopEnd(5000));
    EXPECT_EQ(t.Status(), IStatus::opened);
    EXPECT_EQ(t.passes, 1);
  }
}
