// Kiln::EventLoop: the one loop that runs everything, and its timers and
// file descriptors.
//
// The process has one current loop on one thread. A turn of the loop runs,
// in this order:
//   1. the calls posted before the turn began (post());
//   2. the reactors of file descriptors that are ready (level-triggered: a
//      readable descriptor fires on every turn until it is drained);
//   3. the clock reactors whose time has come, in time order.
// A timer armed during a turn, even for a time already past, fires on a later
// turn and never inside the call that armed it. Plus infinity disarms.
//
// Time comes from Kiln::System::currentTime(). With a SimulatedTimeSource,
// the loop never sleeps for a timer: tests move the time with advanceTo(),
// which runs every timer due up to the target in order, so hours of timers
// take microseconds. Descriptor readiness is always real.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Kiln/Entity.h"
#include "Kiln/System.h"

namespace Kiln {

class Clock;
class FileDescriptor;

// What the loop calls when a timer comes due.
class TimerTarget {
 public:
  virtual void onTimerDue() = 0;

 protected:
  ~TimerTarget() = default;
};

class EventLoop {
 public:
  EventLoop();
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // The loop of this process. Tests may install their own (ScopedEventLoop).
  static EventLoop& current();
  static void currentIs(EventLoop* loop);

  // Runs one turn, waiting at most `maxWait` seconds of real time for a
  // descriptor when nothing else is due. Returns true when anything ran.
  bool runOnce(double maxWait);
  // Runs turns until stop() is called.
  void run();
  void stop() { stopping_ = true; }
  bool stopping() const { return stopping_; }

  // Runs `fn` at the start of the next turn.
  void post(std::function<void()> fn);

  // The earliest armed timer, or plus infinity.
  double nextTimerTime() const;
  // For simulated time: moves the time source forward to `target`, running
  // every turn in between, timer by timer. The time source must be the
  // simulated one installed with System::timeSourceIs.
  void advanceTo(SimulatedTimeSource& time, double target);

  // The activity clock, on which every timer of the process is armed.
  const Ptr<Clock>& clock() const { return clock_; }

 private:
  friend class Clock;
  friend class FileDescriptor;
  struct TimerKey {
    double time;
    std::uint64_t sequence;
    friend bool operator<(const TimerKey& a, const TimerKey& b) {
      return a.time < b.time || (a.time == b.time && a.sequence < b.sequence);
    }
  };
  using TimerMap = std::map<TimerKey, TimerTarget*>;

  TimerMap::iterator armTimer(double time, TimerTarget* target);
  void disarmTimer(TimerMap::iterator it);

  std::uint64_t watch(int fd, std::uint32_t events, FileDescriptor* owner);
  void rewatch(int fd, std::uint64_t id, std::uint32_t events);
  void unwatch(int fd, std::uint64_t id);

  bool runPosted();
  bool runDescriptors(double maxWait);
  bool runTimers(std::uint64_t armedBefore);

  int epoll_ = -1;
  bool stopping_ = false;
  std::vector<std::function<void()>> posted_;
  TimerMap timers_;
  std::uint64_t timerSequence_ = 0;
  std::unordered_map<std::uint64_t, FileDescriptor*> descriptors_;
  std::uint64_t nextDescriptorId_ = 1;
  Ptr<Clock> clock_;
};

// Installs a loop as the current one for a scope, restoring the previous.
class ScopedEventLoop {
 public:
  ScopedEventLoop() : previous_(&EventLoop::current()) { EventLoop::currentIs(&loop_); }
  ~ScopedEventLoop() { EventLoop::currentIs(previous_); }
  EventLoop& loop() { return loop_; }

 private:
  EventLoop* previous_;
  EventLoop loop_;
};

// The clock on which timers are armed. Each reactor has its own timeMin: its
// onTimeMin() runs once when the current time reaches that value.
class Clock : public Entity {
 public:
  explicit Clock(EventLoop& loop) : loop_(&loop) {}

  class NotifieeConst : public Entity::NotifieeConst, private TimerTarget {
   public:
    NotifieeConst() = default;
    ~NotifieeConst() override;
    // Moves the reactor to `clock`, keeping its timeMin.
    void notifierIs(const Ptr<Clock>& clock);
    Ptr<Clock> notifier() const;

    double timeMin() const { return timeMin_; }
    // Arms the reactor for `t`; plus infinity disarms. A time at or before
    // now fires on the next turn, never inside this call.
    void timeMinIs(double t);
    virtual void onTimeMin() = 0;

   private:
    void onTimerDue() override;
    void disarm();
    void arm();
    double timeMin_ = plusInfinity;
    EventLoop* loop_ = nullptr;
    EventLoop::TimerMap::iterator armed_;
    bool isArmed_ = false;
  };

  EventLoop& loop() const { return *loop_; }

 private:
  EventLoop* loop_;
};

// A descriptor watched by the loop. It never closes the descriptor: the
// owner of the descriptor does, after the FileDescriptor is gone or its
// descriptor reset to -1.
class FileDescriptor : public Entity {
 public:
  explicit FileDescriptor(Name name);
  ~FileDescriptor() override;

  class NotifieeConst : public Entity::NotifieeConst {
   public:
    void notifierIs(const Ptr<FileDescriptor>& fd) { PtrInterface::NotifieeConst::notifierIs(fd); }
    virtual void onReadable() {}
    virtual void onWritable() {}
    void onNotification(const AttrInfo* attr, const void* key) override;
  };
  static const AttrInfo readableAttr_;
  static const AttrInfo writableAttr_;

  int descriptor() const { return fd_; }
  void descriptorIs(int fd);
  bool nonBlocking() const { return nonBlocking_; }
  // Sets O_NONBLOCK on the descriptor; returns false (and changes nothing)
  // when fcntl fails.
  bool nonBlockingIs(bool nonBlocking);
  bool notifyOnReadable() const { return onReadable_; }
  void notifyOnReadableIs(bool on);
  bool notifyOnWritable() const { return onWritable_; }
  void notifyOnWritableIs(bool on);

 private:
  friend class EventLoop;
  void update();
  void dispatch(std::uint32_t events);

  EventLoop* loop_;
  int fd_ = -1;
  std::uint64_t id_ = 0;
  bool nonBlocking_ = false;
  bool onReadable_ = false;
  bool onWritable_ = false;
};

}  // namespace Kiln
