// Kiln::System: the process's view of time.
//
// Time in the runtime is a double in seconds on a monotonic scale. Every
// reader of time (timers, rate limits, convergence intervals) goes through
// currentTime(), and the scale comes from one TimeSource for the whole
// process. The default source is CLOCK_MONOTONIC; tests install a
// SimulatedTimeSource so that hours of timers run in milliseconds. Plus
// infinity is a valid time that is never reached.
#pragma once

#include <limits>

namespace Kiln {

inline constexpr double plusInfinity = std::numeric_limits<double>::infinity();

class TimeSource {
 public:
  virtual ~TimeSource() = default;
  virtual double now() const = 0;
};

// CLOCK_MONOTONIC in seconds.
class MonotonicTimeSource final : public TimeSource {
 public:
  double now() const override;
};

// A clock that moves only when told. It never goes backwards.
class SimulatedTimeSource final : public TimeSource {
 public:
  explicit SimulatedTimeSource(double start = 1000.0) : now_(start) {}
  double now() const override { return now_; }
  void advance(double seconds);
  void nowIs(double t);

 private:
  double now_;
};

namespace System {

double currentTime();

// Installs the source that currentTime() reads; nullptr restores the
// monotonic default. The caller keeps ownership and must outlive its use.
void timeSourceIs(const TimeSource* source);
const TimeSource& timeSource();

}  // namespace System
}  // namespace Kiln
