// Vgw::Test::LoopRunner: the event loop and the clock of one test.
//
// The runner installs a fresh Kiln event loop and a simulated time source
// for its lifetime, and restores the previous ones when it goes; objects
// that arm timers or watch descriptors must be gone before it is. Time moves
// only when the test says so: advance() runs every timer due on the way, in
// order, without sleeping. Descriptor readiness is always real, so
// runUntil() waits on the loop for a peer process (a database server) to
// answer, bounded by a limit in real time that only a broken peer reaches.
#pragma once

#include <chrono>
#include <functional>

#include "Kiln/EventLoop.h"
#include "Kiln/System.h"

namespace Vgw::Test {

class LoopRunner {
 public:
  explicit LoopRunner(double start = 1000.0) : time_(start) { Kiln::System::timeSourceIs(&time_); }
  ~LoopRunner() { Kiln::System::timeSourceIs(nullptr); }
  LoopRunner(const LoopRunner&) = delete;
  LoopRunner& operator=(const LoopRunner&) = delete;

  Kiln::EventLoop& loop() { return scoped_.loop(); }
  Kiln::SimulatedTimeSource& time() { return time_; }
  double now() const { return time_.now(); }

  // Runs turns of the loop until `done` holds; false when `realLimit`
  // seconds of real time pass first. Simulated time stands still; timers
  // already due run.
  bool runUntil(const std::function<bool()>& done, double realLimit = 20.0) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(realLimit);
    while (!done()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      loop().runOnce(0.05);
    }
    return true;
  }

  // Runs the turns that are ready now, without waiting for anything.
  void settle() { loop().runOnce(0); }

  // Moves simulated time forward, running every timer due up to the target.
  void advance(double seconds) { loop().advanceTo(time_, time_.now() + seconds); }

 private:
  Kiln::SimulatedTimeSource time_;
  Kiln::ScopedEventLoop scoped_;
};

}  // namespace Vgw::Test
