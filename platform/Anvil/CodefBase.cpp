#include "Anvil/CodefBase.h"

namespace Anvil {

CodefBase::CodefBase(const Kiln::Ptr<Kiln::Clock>& clock, double quantum) : quantum_(quantum) { notifierIs(clock); }

void CodefBase::scheduleCodefDelay(double delay) {
  const double at = Kiln::System::currentTime() + delay;
  // An earlier slice already asked for stays in force.
  if (scheduled() && timeMin() <= at) return;
  timeMinIs(at);
}

void CodefBase::onTimeMin() {
  timeMinIs(Kiln::plusInfinity);
  const std::size_t before = backlogSize();
  ++slices_;
  processBacklog(Kiln::System::currentTime() + quantum_);
  const std::size_t left = backlogSize();
  updateWorkStats(before > left ? before - left : 0, left);
  if (left != 0) scheduleCodef();
}

}  // namespace Anvil
