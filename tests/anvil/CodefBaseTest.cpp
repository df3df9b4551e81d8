// The cooperative worker on simulated time: slices of one quantum, resumed on
// later turns until the backlog is empty.
#include <gtest/gtest.h>

#include <vector>

#include "Anvil/CodefBase.h"

namespace {

// Each item costs one simulated millisecond.
class Worker : public Anvil::CodefBase {
 public:
  Worker(const Kiln::Ptr<Kiln::Clock>& clock, Kiln::SimulatedTimeSource& time, double quantum)
      : CodefBase(clock, quantum), time_(time) {}
  std::size_t items = 0;
  std::vector<std::size_t> perSlice;
  std::vector<std::pair<std::size_t, std::size_t>> stats;

  void processBacklog(double deadline) override {
    std::size_t n = 0;
    while (items > 0 && Kiln::System::currentTime() < deadline) {
      --items;
      ++n;
      time_.advance(0.001);
    }
    updatesSeenInc(n);
    perSlice.push_back(n);
  }
  std::size_t backlogSize() const override { return items; }
  void updateWorkStats(std::size_t done, std::size_t left) override { stats.emplace_back(done, left); }

 private:
  Kiln::SimulatedTimeSource& time_;
};

class CodefTest : public testing::Test {
 protected:
  CodefTest() { Kiln::System::timeSourceIs(&time); }
  ~CodefTest() override { Kiln::System::timeSourceIs(nullptr); }
  Kiln::SimulatedTimeSource time{100.0};
  Kiln::ScopedEventLoop scoped;
};

TEST_F(CodefTest, yieldsAfterItsQuantumAndResumesOnLaterTurns) {
  Worker w(scoped.loop().clock(), time, 0.0045);
  w.items = 12;
  w.scheduleCodef();
  EXPECT_TRUE(w.perSlice.empty());  // never inside the call
  scoped.loop().runOnce(0);
  EXPECT_EQ(w.perSlice, std::vector<std::size_t>{5});
  EXPECT_TRUE(w.scheduled());
  scoped.loop().runOnce(0);
  scoped.loop().runOnce(0);
  EXPECT_EQ(w.perSlice, (std::vector<std::size_t>{5, 5, 2}));
  EXPECT_FALSE(w.scheduled());
  EXPECT_EQ(w.updatesSeen(), 12u);
  EXPECT_EQ(w.stats.back(), (std::pair<std::size_t, std::size_t>{2, 0}));
  scoped.loop().runOnce(0);
  EXPECT_EQ(w.slices(), 3u);
}

TEST_F(CodefTest, delayedAndCancelledSlices) {
  Worker w(scoped.loop().clock(), time, 1.0);
  w.items = 1;
  w.scheduleCodefDelay(2.0);
  w.scheduleCodefDelay(5.0);  // the earlier request stands
  scoped.loop().advanceTo(time, 101.5);
  EXPECT_TRUE(w.perSlice.empty());
  scoped.loop().advanceTo(time, 102.0);
  EXPECT_EQ(w.items, 0u);

  w.items = 3;
  w.scheduleCodef();
  w.unscheduleCodef();
  scoped.loop().advanceTo(time, 200.0);
  EXPECT_EQ(w.items, 3u);
}

}  // namespace
