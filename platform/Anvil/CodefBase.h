// Anvil::CodefBase: a cooperative worker that yields to the event loop.
//
// Work that may be large (thousands of rows to write) is kept as a backlog
// and done in slices: once scheduled, the worker's processBacklog(deadline)
// runs on a turn of the loop and is expected to stop at `deadline`, the end
// of its quantum; while backlogSize() is not zero it runs again on the next
// turn, so file descriptors and timers get their turns in between. The
// worker never runs inside the call that schedules it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Kiln/EventLoop.h"

namespace Anvil {

class CodefBase : private Kiln::Clock::NotifieeConst {
 public:
  // The quantum used when the subclass does not choose one: short enough to
  // keep the loop responsive, long enough to amortize a turn.
  static constexpr double defaultQuantum = 0.010;

  explicit CodefBase(const Kiln::Ptr<Kiln::Clock>& clock, double quantum = defaultQuantum);
  ~CodefBase() override = default;

  // Does work until `deadline` (in Kiln::System::currentTime() seconds) or
  // until the backlog is empty.
  virtual void processBacklog(double deadline) = 0;
  virtual std::size_t backlogSize() const = 0;
  // Told after each slice how much was done and how much is left.
  virtual void updateWorkStats(std::size_t /*done*/, std::size_t /*left*/) {}

  // Runs a slice on the next turn.
  void scheduleCodef() { scheduleCodefDelay(0.0); }
  // Runs a slice once `delay` seconds have passed.
  void scheduleCodefDelay(double delay);
  void unscheduleCodef() { timeMinIs(Kiln::plusInfinity); }
  bool scheduled() const { return timeMin() != Kiln::plusInfinity; }

  double quantum() const { return quantum_; }
  std::uint64_t updatesSeen() const { return updatesSeen_; }
  void updatesSeenInc(std::uint64_t n) { updatesSeen_ += n; }
  std::uint64_t slices() const { return slices_; }

 private:
  void onTimeMin() override;

  const double quantum_;
  std::uint64_t updatesSeen_ = 0;
  std::uint64_t slices_ = 0;
};

}  // namespace Anvil
