#include "Kiln/EventLoop.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <string>

#include "Kiln/Assert.h"

namespace Kiln {

namespace {

EventLoop* currentLoop = nullptr;

bool simulatedTime() { return dynamic_cast<const SimulatedTimeSource*>(&System::timeSource()) != nullptr; }

int toMilliseconds(double seconds) {
  if (seconds <= 0) return 0;
  if (std::isinf(seconds) || seconds > 86400.0) return -1;
  return static_cast<int>(std::ceil(seconds * 1000.0));
}

}  // namespace

EventLoop::EventLoop() : epoll_(epoll_create1(EPOLL_CLOEXEC)), clock_(newPtr<Clock>(*this)) {
  KILN_ASSERT(epoll_ >= 0, "epoll_create1 failed");
}

EventLoop::~EventLoop() {
  if (currentLoop == this) currentLoop = nullptr;
  close(epoll_);
}

EventLoop& EventLoop::current() {
  if (!currentLoop) {
    static EventLoop processLoop;
    currentLoop = &processLoop;
  }
  return *currentLoop;
}

void EventLoop::currentIs(EventLoop* loop) { currentLoop = loop; }

void EventLoop::post(std::function<void()> fn) { posted_.push_back(std::move(fn)); }

double EventLoop::nextTimerTime() const { return timers_.empty() ? plusInfinity : timers_.begin()->first.time; }

bool EventLoop::runOnce(double maxWait) {
  // Timers armed from here on belong to a later turn, even when already due.
  const std::uint64_t armedBefore = timerSequence_;
  bool ran = runPosted();
  double wait = maxWait;
  // A stop asked for by this turn's calls must not wait for an event first.
  if (!posted_.empty() || stopping_) {
    wait = 0;
  } else if (!timers_.empty()) {
    const double untilTimer = nextTimerTime() - System::currentTime();
    if (untilTimer <= 0) {
      wait = 0;
    } else if (!simulatedTime() && untilTimer < wait) {
      wait = untilTimer;
    }
  }
  ran |= runDescriptors(wait);
  ran |= runTimers(armedBefore);
  return ran;
}

void EventLoop::run() {
  stopping_ = false;
  while (!stopping_) runOnce(plusInfinity);
}

void EventLoop::advanceTo(SimulatedTimeSource& time, double target) {
  KILN_ASSERT(&System::timeSource() == &time, "advancing a time source that is not installed");
  runOnce(0);
  for (double next = nextTimerTime(); next <= target; next = nextTimerTime()) {
    if (next > time.now()) time.nowIs(next);
    runOnce(0);
  }
  if (target > time.now()) time.nowIs(target);
  runOnce(0);
}

bool EventLoop::runPosted() {
  if (posted_.empty()) return false;
  std::vector<std::function<void()>> batch;
  batch.swap(posted_);
  for (auto& fn : batch) fn();
  return true;
}

bool EventLoop::runDescriptors(double maxWait) {
  if (descriptors_.empty() && maxWait > 0 && simulatedTime()) return false;
  epoll_event events[64];
  const int n = epoll_wait(epoll_, events, 64, toMilliseconds(maxWait));
  if (n < 0) {
    KILN_ASSERT(errno == EINTR, "epoll_wait failed");
    return false;
  }
  for (int i = 0; i < n; ++i) {
    // A reactor may have removed a later descriptor of this batch.
    auto it = descriptors_.find(events[i].data.u64);
    if (it != descriptors_.end()) it->second->dispatch(events[i].events);
  }
  return n > 0;
}

bool EventLoop::runTimers(std::uint64_t armedBefore) {
  const double now = System::currentTime();
  bool ran = false;
  auto due = [&](const TimerMap::iterator& it) {
    return it != timers_.end() && it->first.time <= now && it->first.sequence < armedBefore;
  };
  for (auto it = timers_.begin(); due(it); it = timers_.begin()) {
    TimerTarget* target = it->second;
    timers_.erase(it);
    target->onTimerDue();
    ran = true;
  }
  return ran;
}

EventLoop::TimerMap::iterator EventLoop::armTimer(double time, TimerTarget* target) {
  return timers_.emplace(TimerKey{time, timerSequence_++}, target).first;
}

void EventLoop::disarmTimer(TimerMap::iterator it) { timers_.erase(it); }

std::uint64_t EventLoop::watch(int fd, std::uint32_t events, FileDescriptor* owner) {
  const std::uint64_t id = nextDescriptorId_++;
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = id;
  KILN_ASSERT(epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &ev) == 0, "epoll_ctl add failed");
  descriptors_.emplace(id, owner);
  return id;
}

void EventLoop::rewatch(int fd, std::uint64_t id, std::uint32_t events) {
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = id;
  KILN_ASSERT(epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &ev) == 0, "epoll_ctl modify failed");
}

void EventLoop::unwatch(int fd, std::uint64_t id) {
  // The descriptor may already be closed, which removed it from the set.
  epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
  descriptors_.erase(id);
}

// ---- Clock ---------------------------------------------------------------------

Clock::NotifieeConst::~NotifieeConst() { disarm(); }

void Clock::NotifieeConst::notifierIs(const Ptr<Clock>& clock) {
  disarm();
  PtrInterface::NotifieeConst::notifierIs(clock);
  loop_ = clock ? &clock->loop() : nullptr;
  arm();
}

Ptr<Clock> Clock::NotifieeConst::notifier() const {
  return Ptr<Clock>(const_cast<Clock*>(static_cast<const Clock*>(notifierBase().get())));
}

void Clock::NotifieeConst::timeMinIs(double t) {
  disarm();
  timeMin_ = t;
  arm();
}

void Clock::NotifieeConst::arm() {
  if (!loop_ || std::isinf(timeMin_)) return;
  armed_ = loop_->armTimer(timeMin_, this);
  isArmed_ = true;
}

void Clock::NotifieeConst::disarm() {
  if (!isArmed_) return;
  loop_->disarmTimer(armed_);
  isArmed_ = false;
}

void Clock::NotifieeConst::onTimerDue() {
  isArmed_ = false;
  if (hasNotificationActive()) onTimeMin();
}

// ---- FileDescriptor ---------------------------------------------------------------

const AttrInfo FileDescriptor::readableAttr_{"readable", AttrKind::value, nullptr, 0, nullptr, false,
                                             nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                             nullptr, nullptr, nullptr, nullptr, nullptr};
const AttrInfo FileDescriptor::writableAttr_{"writable", AttrKind::value, nullptr, 1, nullptr, false,
                                             nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                             nullptr, nullptr, nullptr, nullptr, nullptr};

void FileDescriptor::NotifieeConst::onNotification(const AttrInfo* attr, const void*) {
  if (attr == &readableAttr_) {
    onReadable();
  } else if (attr == &writableAttr_) {
    onWritable();
  }
}

FileDescriptor::FileDescriptor(Name name) : Entity(std::move(name)), loop_(&EventLoop::current()) {}

FileDescriptor::~FileDescriptor() {
  if (id_) loop_->unwatch(fd_, id_);
}

void FileDescriptor::descriptorIs(int fd) {
  if (fd == fd_) return;
  if (id_) {
    loop_->unwatch(fd_, id_);
    id_ = 0;
  }
  fd_ = fd;
  update();
}

bool FileDescriptor::nonBlockingIs(bool nonBlocking) {
  if (fd_ < 0) return false;
  const int flags = fcntl(fd_, F_GETFL);
  if (flags < 0) return false;
  const int wanted = nonBlocking ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  if (wanted != flags && fcntl(fd_, F_SETFL, wanted) < 0) return false;
  nonBlocking_ = nonBlocking;
  return true;
}

void FileDescriptor::notifyOnReadableIs(bool on) {
  if (on == onReadable_) return;
  onReadable_ = on;
  update();
}

void FileDescriptor::notifyOnWritableIs(bool on) {
  if (on == onWritable_) return;
  onWritable_ = on;
  update();
}

void FileDescriptor::update() {
  const std::uint32_t events = (onReadable_ ? EPOLLIN : 0u) | (onWritable_ ? EPOLLOUT : 0u);
  if (fd_ < 0 || events == 0) {
    if (id_) loop_->unwatch(fd_, id_);
    id_ = 0;
    return;
  }
  if (id_) {
    loop_->rewatch(fd_, id_, events);
  } else {
    id_ = loop_->watch(fd_, events, this);
  }
}

void FileDescriptor::dispatch(std::uint32_t events) {
  // The reactors may drop the last reference to this object.
  Ptr<FileDescriptor> self(references() > 0 ? this : nullptr);
  if (onReadable_ && (events & (EPOLLIN | EPOLLHUP | EPOLLERR))) notify(&readableAttr_, nullptr);
  if (onWritable_ && id_ && (events & (EPOLLOUT | EPOLLERR))) notify(&writableAttr_, nullptr);
}

}  // namespace Kiln
