#include "Kiln/System.h"

#include "Kiln/Assert.h"

#include <ctime>

namespace Kiln {

double MonotonicTimeSource::now() const {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

void SimulatedTimeSource::advance(double seconds) {
  KILN_ASSERT(seconds >= 0.0, "simulated time cannot move backwards");
  now_ += seconds;
}

void SimulatedTimeSource::nowIs(double t) {
  KILN_ASSERT(t >= now_, "simulated time cannot move backwards");
  now_ = t;
}

namespace System {
namespace {
const MonotonicTimeSource monotonic;
const TimeSource* current = &monotonic;
}  // namespace

double currentTime() { return current->now(); }
void timeSourceIs(const TimeSource* source) { current = source ? source : &monotonic; }
const TimeSource& timeSource() { return *current; }

}  // namespace System
}  // namespace Kiln
