// The event loop's turns, timers on simulated time, and file descriptors.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "Kiln/EventLoop.h"

namespace {

using Seen = std::vector<std::string>;

class Timer : public Kiln::Clock::NotifieeConst {
 public:
  Timer(Seen* log, std::string name) : log_(log), name_(std::move(name)) {}
  std::function<void()> then;
  void onTimeMin() override {
    log_->push_back(name_ + "@" + std::to_string(static_cast<int>(Kiln::System::currentTime())));
    if (then) then();
  }

 private:
  Seen* log_;
  std::string name_;
};

class EventLoopTest : public testing::Test {
 protected:
  EventLoopTest() { Kiln::System::timeSourceIs(&time); }
  ~EventLoopTest() override { Kiln::System::timeSourceIs(nullptr); }
  Kiln::EventLoop& loop() { return scoped.loop(); }
  // Runs `n` turns and gives how many entries the log has then.
  std::size_t turns(int n) {
    for (int i = 0; i < n; ++i) loop().runOnce(0);
    return log.size();
  }

  Kiln::SimulatedTimeSource time{1000.0};
  Kiln::ScopedEventLoop scoped;
  Seen log;
  Timer t{&log, "t"};
};

TEST_F(EventLoopTest, pastTimeFiresOnTheNextTurnNeverInsideTheCall) {
  t.notifierIs(loop().clock());
  t.timeMinIs(Kiln::System::currentTime() - 5);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(turns(1), 1u);
  EXPECT_EQ(log, Seen{"t@1000"});
  EXPECT_EQ(turns(1), 1u);  // fires once
}

TEST_F(EventLoopTest, whatATurnPostsOrArmsWaitsForTheNextTurn) {
  t.notifierIs(loop().clock());
  loop().post([&] {
    log.push_back("a");
    loop().post([&] { log.push_back("c"); });
    t.timeMinIs(Kiln::System::currentTime());  // before this turn's timers run
  });
  loop().post([&] { log.push_back("b"); });
  EXPECT_TRUE(log.empty());
  turns(1);
  EXPECT_EQ(log, (Seen{"a", "b"}));
  turns(1);
  EXPECT_EQ(log, (Seen{"a", "b", "c", "t@1000"}));
  // Armed again by its own callback, while the timers run.
  int rearmed = 0;
  t.then = [&] {
    if (rearmed++ < 2) t.timeMinIs(Kiln::System::currentTime());
  };
  t.timeMinIs(1000);
  EXPECT_EQ(turns(1), 5u);
  EXPECT_EQ(turns(1), 6u);
  EXPECT_EQ(turns(1), 7u);
  EXPECT_EQ(turns(1), 7u);
}

TEST_F(EventLoopTest, simulatedTimeRunsLongTimersInOrderWithoutWaiting) {
  Timer shortTimer(&log, "short");
  Timer never(&log, "never");
  Timer& reconnect = t;
  for (Timer* each : {&reconnect, &shortTimer, &never}) each->notifierIs(loop().clock());
  reconnect.then = [&] { reconnect.timeMinIs(Kiln::System::currentTime() + 15.0); };
  reconnect.timeMinIs(1015.0);
  shortTimer.timeMinIs(1020.0);
  never.timeMinIs(Kiln::plusInfinity);
  loop().advanceTo(time, 1000.0 + 3600.0);
  ASSERT_EQ(log.size(), 241u);  // every 15 s for an hour, plus the short one
  EXPECT_EQ(Seen(log.begin(), log.begin() + 3), (Seen{"t@1015", "short@1020", "t@1030"}));
  EXPECT_EQ(log.back(), "t@4600");
  EXPECT_EQ(Kiln::System::currentTime(), 4600.0);
  EXPECT_EQ(loop().nextTimerTime(), 4615.0);
}

TEST_F(EventLoopTest, timersMoveDisarmArmOnAttachmentAndDieWithTheirReactor) {
  t.timeMinIs(1005);  // not attached yet
  loop().advanceTo(time, 1010);
  EXPECT_TRUE(log.empty());
  t.notifierIs(loop().clock());
  EXPECT_EQ(turns(1), 1u);
  EXPECT_EQ(log, Seen{"t@1010"});

  t.timeMinIs(1020);
  t.timeMinIs(1030);  // a later disconnect pushes the expiry out
  loop().advanceTo(time, 1025);
  t.timeMinIs(Kiln::plusInfinity);
  loop().advanceTo(time, 2000);
  EXPECT_EQ(log.size(), 1u);
  EXPECT_EQ(loop().nextTimerTime(), Kiln::plusInfinity);
  {
    Timer gone(&log, "gone");
    gone.notifierIs(loop().clock());
    gone.timeMinIs(2001);
  }
  loop().advanceTo(time, 2100);
  EXPECT_EQ(log.size(), 1u);
}

// Reads one byte per notification.
class Reader : public Kiln::FileDescriptor::NotifieeConst {
 public:
  int reads = 0;
  std::function<void()> then;
  void onReadable() override {
    ++reads;
    const auto* fd = static_cast<const Kiln::FileDescriptor*>(notifierBase().get());
    char c;
    [[maybe_unused]] auto n = read(fd->descriptor(), &c, 1);
    if (then) then();
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
  Kiln::Ptr<Kiln::FileDescriptor> reader() {
    auto fd = Kiln::newPtr<Kiln::FileDescriptor>("pipe");
    fd->descriptorIs(fds[0]);
    fd->notifyOnReadableIs(true);
    return fd;
  }
};

TEST_F(EventLoopTest, readableDescriptorFiresEachTurnUntilDrained) {
  Pipe p;
  auto fd = p.reader();
  EXPECT_TRUE(fd->nonBlockingIs(true));
  Reader r;
  r.notifierIs(fd);
  turns(1);
  EXPECT_EQ(r.reads, 0);
  p.put("abc");
  turns(4);
  EXPECT_EQ(r.reads, 3);  // one byte per turn, then quiet

  fd->notifyOnReadableIs(false);
  p.put("d");
  turns(1);
  EXPECT_EQ(r.reads, 3);
  fd->notifyOnReadableIs(true);
  turns(1);
  EXPECT_EQ(r.reads, 4);
}

TEST_F(EventLoopTest, reactorMayDropAnotherDescriptorOfTheSameTurn) {
  Pipe a;
  Pipe b;
  auto fa = a.reader();
  auto fb = b.reader();
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
  turns(1);
  EXPECT_EQ(ra.reads + rb.reads, 1);
}

}  // namespace
