// The event loop's turns, timers on simulated time, and file descriptors.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Kiln/EventLoop.h"

namespace {

class Timer : public Kiln::Clock::NotifieeConst {
 public:
  explicit Timer(std::vector<std::string>* log, std::string name) : log_(log), name_(std::move(name)) {}
  std::function<void()> then;
  void onTimeMin() override {
    log_->push_back(name_ + "@" + std::to_string(static_cast<int>(Kiln::System::currentTime())));
    if (then) then();
  }

 private:
  std::vector<std::string>* log_;
  std::string name_;
};

class EventLoopTest : public testing::Test {
 protected:
  EventLoopTest() { Kiln::System::timeSourceIs(&time); }
  ~EventLoopTest() override { Kiln::System::timeSourceIs(nullptr); }
  Kiln::EventLoop& loop() { return scoped.loop(); }

  Kiln::SimulatedTimeSource time{1000.0};
  Kiln::ScopedEventLoop scoped;
  std::vector<std::string> log;
};

TEST_F(EventLoopTest, pastTimeFiresOnTheNextTurnNeverInsideTheCall) {
  Timer t(&log, "t");
  t.notifierIs(loop().clock());
  t.timeMinIs(Kiln::System::currentTime() - 5);
  EXPECT_TRUE(log.empty());
  loop().runOnce(0);
  EXPECT_EQ(log, std::vector<std::string>{"t@1000"});
  loop().runOnce(0);
  EXPECT_EQ(log.size(), 1u);  // fires once
}

TEST_F(EventLoopTest, timerArmedWhileTimersRunWaitsForTheNextTurn) {
  Timer t(&log, "t");
  t.notifierIs(loop().clock());
  int rearmed = 0;
  t.then = [&] {
    if (rearmed++ < 2) t.timeMinIs(Kiln::System::currentTime());
  };
  t.timeMinIs(1000);
  loop().runOnce(0);
  EXPECT_EQ(log.size(), 1u);
  loop().runOnce(0);
  EXPECT_EQ(log.size(), 2u);
  loop().runOnce(0);
  EXPECT_EQ(log.size(), 3u);
  loop().runOnce(0);
  EXPECT_EQ(log.size(), 3u);
}

TEST_F(EventLoopTest, timerArmedEarlierInATurnWaitsForTheNextTurn) {
  Timer t(&log, "t");
  t.notifierIs(loop().clock());
  loop().post([&] { t.timeMinIs(Kiln::System::currentTime()); });
  loop().runOnce(0);
  EXPECT_TRUE(log.empty());
  loop().runOnce(0);
  EXPECT_EQ(log, std::vector<std::string>{"t@1000"});
}

TEST_F(EventLoopTest, simulatedTimeRunsLongTimersInOrderWithoutWaiting) {
  Timer reconnect(&log, "reconnect");
  Timer shortTimer(&log, "short");
  Timer never(&log, "never");
  for (Timer* t : {&reconnect, &shortTimer, &never}) t->notifierIs(loop().clock());
  reconnect.then = [&] { reconnect.timeMinIs(Kiln::System::currentTime() + 15.0); };
  reconnect.timeMinIs(1015.0);
  shortTimer.timeMinIs(1020.0);
  never.timeMinIs(Kiln::plusInfinity);
  loop().advanceTo(time, 1000.0 + 3600.0);
  ASSERT_EQ(log.size(), 241u);  // every 15 s for an hour, plus the short one
  EXPECT_EQ(log[0], "reconnect@1015");
  EXPECT_EQ(log[1], "short@1020");
  EXPECT_EQ(log[2], "reconnect@1030");
  EXPECT_EQ(log.back(), "reconnect@4600");
  EXPECT_EQ(Kiln::System::currentTime(), 4600.0);
  EXPECT_EQ(loop().nextTimerTime(), 4615.0);
}

TEST_F(EventLoopTest, movingAnArmedTimerOutOrDisarmingIt) {
  Timer t(&log, "t");
  t.notifierIs(loop().clock());
  t.timeMinIs(1010);
  t.timeMinIs(1030);  // a later disconnect pushes the expiry out
  loop().advanceTo(time, 1020);
  EXPECT_TRUE(log.empty());
  t.timeMinIs(Kiln::plusInfinity);
  loop().advanceTo(time, 2000);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(loop().nextTimerTime(), Kiln::plusInfinity);
}

TEST_F(EventLoopTest, timerSetBeforeAttachmentArmsOnAttachment) {
  Timer t(&log, "t");
  t.timeMinIs(1005);
  loop().advanceTo(time, 1010);
  EXPECT_TRUE(log.empty());
  t.notifierIs(loop().clock());
  loop().runOnce(0);
  EXPECT_EQ(log, std::vector<std::string>{"t@1010"});
}

TEST_F(EventLoopTest, destroyedTimerNeverFires) {
  {
    Timer t(&log, "t");
    t.notifierIs(loop().clock());
    t.timeMinIs(1001);
  }
  loop().advanceTo(time, 1100);
  EXPECT_TRUE(log.empty());
}

TEST_F(EventLoopTest, postedCallsRunOnTheNextTurnInOrder) {
  loop().post([&] {
    log.push_back("a");
    loop().post([&] { log.push_back("c"); });
  });
  loop().post([&] { log.push_back("b"); });
  EXPECT_TRUE(log.empty());
  loop().runOnce(0);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b"}));
  loop().runOnce(0);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b", "c"}));
}

class Reader : public Kiln::FileDescriptor::NotifieeConst {
 public:
  int reads = 0;
  int chunk = 1;
  std::function<void()> then;
  void onReadable() override {
    ++reads;
    char buf[16];
    [[maybe_unused]] auto n = read(notifier()->descriptor(), buf, static_cast<size_t>(chunk));
    if (then) then();
  }

 private:
  Kiln::Ptr<const Kiln::FileDescriptor> notifier() const {
    return Kiln::Ptr<const Kiln::FileDescriptor>(
        static_cast<const Kiln::FileDescriptor*>(notifierBase().get()));
  }
};

struct Pipe {
  int fds[2];
  Pipe() { EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0); }
  ~Pipe() {
    close(fds[0]);
    close(fds[1]);
  }
  void put(const char* text) { ASSERT_GT(write(fds[1], text, strlen(text)), 0); }
};

TEST_F(EventLoopTest, readableDescriptorFiresEachTurnUntilDrained) {
  Pipe p;
  auto fd = Kiln::newPtr<Kiln::FileDescriptor>("pipe");
  fd->descriptorIs(p.fds[0]);
  EXPECT_TRUE(fd->nonBlockingIs(true));
  fd->notifyOnReadableIs(true);
  Reader r;
  r.notifierIs(fd);
  loop().runOnce(0);
  EXPECT_EQ(r.reads, 0);
  p.put("abc");
  loop().runOnce(0);
  loop().runOnce(0);
  loop().runOnce(0);
  loop().runOnce(0);
  EXPECT_EQ(r.reads, 3);  // one byte per turn, then quiet

  fd->notifyOnReadableIs(false);
  p.put("d");
  loop().runOnce(0);
  EXPECT_EQ(r.reads, 3);
  fd->notifyOnReadableIs(true);
  loop().runOnce(0);
  EXPECT_EQ(r.reads, 4);
}

TEST_F(EventLoopTest, reactorMayDropAnotherDescriptorOfTheSameTurn) {
  Pipe a;
  Pipe b;
  auto fa = Kiln::newPtr<Kiln::FileDescriptor>("a");
  auto fb = Kiln::newPtr<Kiln::FileDescriptor>("b");
  fa->descriptorIs(a.fds[0]);
  fb->descriptorIs(b.fds[0]);
  fa->notifyOnReadableIs(true);
  fb->notifyOnReadableIs(true);
  Reader ra;
  Reader rb;
  ra.notifierIs(fa);
  rb.notifierIs(fb);
  // Whichever runs first drops the other; the other must not run.
  ra.then = [&] {
    rb.notifierIs(nullptr);
    fb = nullptr;
  };
  rb.then = [&] {
    ra.notifierIs(nullptr);
    fa = nullptr;
  };
  a.put("x");
  b.put("y");
  loop().runOnce(0);
  EXPECT_EQ(ra.reads + rb.reads, 1);
}

TEST(SimulatedTime, neverMovesBackwards) {
  Kiln::SimulatedTimeSource t(5.0);
  t.advance(2.5);
  EXPECT_EQ(t.now(), 7.5);
  t.nowIs(9.0);
  EXPECT_EQ(t.now(), 9.0);
  EXPECT_DEATH(t.nowIs(1.0), "");
}

}  // namespace
