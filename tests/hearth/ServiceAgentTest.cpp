// A service agent through its whole start on the event loop, run by the
// agent host: local mounts, the service-side manager, the service with its
// controller and publish mounts, the service-side mounts, and the initial
// switch mounts after them; the base's hooks on their own; and the host
// stopping on a signal without touching the agent's state.
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Hearth/AgentRunner.h"
#include "Kiln/EventLoop.h"
#include "Kiln/Log.h"
#include "entities/OverlaySvc.h"
#include "model/Status.h"

namespace {

using Ledger::Mount;

const char* const errorStatusSwitches = "interface/status/vxlan/errorStatus/version2/ofc/switch";
const char* const dynVtepConfig = "overlaysvc/version2/input/dynVtepConfig/vgw/switch";

// What happened, and on which turn of the loop.
struct Journal {
  int turn = 0;
  std::vector<std::string> lines;
  void note(const std::string& what) { lines.push_back(std::to_string(turn) + " " + what); }
  void note(const std::string& hook, Ledger::MountStatus status) {
    std::ostringstream text;
    text << hook << ' ' << status;
    note(text.str());
  }
};

void mountAll(Ledger::EntityManager& manager, Ledger::Mounter* mounter, const std::vector<Mount>& mounts) {
  auto group = manager.getMountGroup(mounter);
  for (const Mount& m : mounts) group->doMount(m);
  group->doClose(false, "", 0.0);
}

class ServiceMounter final : public Fleet::FleetStoreServiceMounter {
 public:
  explicit ServiceMounter(Journal& journal) : journal_(journal) {}
  void doMountsComplete(Kiln::String group, Kiln::Ptr<Ledger::EntityManager>) override {
    journal_.note("service mounts complete " + group.stringValue());
  }
  void doInitialSwitchMountsComplete(Kiln::String group, Kiln::Ptr<Ledger::EntityManager>) override {
    journal_.note("initial switch mounts complete " + group.stringValue());
  }
  void doHandleControllerMountState(Kiln::String, Kiln::String, Kiln::String switchName, bool mounted) override {
    journal_.note("switch " + switchName.stringValue() + (mounted ? " mounted" : " unmounted"));
  }

 private:
  Journal& journal_;
};

// An agent that mounts and publishes as the gateway agent does.
class Agent final : public Hearth::ServiceAgent {
 public:
  Agent(Kiln::Ptr<Ledger::EntityManager> local, Kiln::Name name, Journal& journal)
      : ServiceAgent(std::move(local), std::move(name)), journal_(journal) {}

  void doInit() override {
    journal_.note("doInit");
    mountAll(*localEntityManager(), this, {Mount("vgw/status", "Vgw::Status", "wi")});
  }
  void doMountsComplete(Ledger::MountStatus status, Kiln::Ptr<Ledger::EntityManager> manager) override {
    journal_.note("doMountsComplete", status);
    status_ = manager->getEntity<Vgw::Status>("vgw/status");
    ServiceAgent::doInit();
  }
  void doServiceAgentInit() override {
    journal_.note("doServiceAgentInit");
    serviceMounter = std::make_unique<ServiceMounter>(journal_);
    auto service = fleetStoreServiceIs("Vgw", serviceEntityManager(), localEntityManager());
    auto whiteList = service->versionWhiteListIs("v2");
    whiteList->allowedVersionIs(2, true);
    auto group = service->serviceMountGroupIs("mg1", serviceMounter.get());
    group->versionWhiteListIs(whiteList);
    group->controllerMountIs("interface/status/vxlan/errorStatus/version2/ofc", errorStatusSwitches,
                             "OverlaySvc::ErrorStatusV2", "rct");
    group->perSwitchPublishMountIs(dynVtepConfig, "", "OverlaySvc::VtepConfigDirV2");
    group->closedIs(true);
    service->closedIs(true);
    doControllerMounts();
  }
  void doControllerMounts() override {
    journal_.note("doControllerMounts");
    mountAll(*serviceEntityManager(), controllerMounter(),
             {Mount("vgw/version2/vniStatusDir", "OverlaySvc::VniStatusDirV2", "wi"),
              Mount("overlaysvc/version2/errorStatus", "OverlaySvc::ErrorStatusV2", "r")});
  }
  void doControllerMountsComplete(Ledger::MountStatus status, Kiln::Ptr<Ledger::EntityManager> manager) override {
    journal_.note("doControllerMountsComplete", status);
    if (manager != serviceEntityManager() || !manager->getEntity("overlaysvc/version2/errorStatus"))
      journal_.note("not the service manager's mounts");
  }

  Kiln::Ptr<Vgw::Status> status_;
  std::unique_ptr<ServiceMounter> serviceMounter;

 private:
  Journal& journal_;
};

class ServiceAgentTest : public testing::Test {
 protected:
  ServiceAgentTest() {
    Kiln::System::timeSourceIs(&time);
    Kiln::logSyslogIs(false);
    Kiln::logStreamIs(&logged);
  }
  ~ServiceAgentTest() override {
    Kiln::logStreamIs(nullptr);
    Kiln::logSyslogIs(true);
    Kiln::System::timeSourceIs(nullptr);
  }

  void turns(int n) {
    for (int i = 0; i < n; ++i) {
      ++journal.turn;
      scoped.loop().runOnce(0);
    }
  }
  Kiln::Ptr<Agent> start() {
    runner.agentIs([this](Kiln::String name) -> Kiln::Ptr<Hearth::ServiceAgent> {
      return Kiln::newPtr<Agent>(Hearth::localEntityManager(), std::move(name), journal);
    });
    return Kiln::staticPtrCast<Agent>(runner.agent());
  }

  Kiln::SimulatedTimeSource time;  // an idle turn returns at once instead of waiting
  Kiln::ScopedEventLoop scoped;
  std::ostringstream logged;
  Journal journal;
  Hearth::AgentRunner runner{"Vgw"};
};

TEST_F(ServiceAgentTest, theWholeStartRunsInOrderOnLaterTurns) {
  // A switch that reported before the agent came, and its configuration
  // published by the agent's previous life.
  runner.localEntityManager()->loadDocument(Kiln::Json::parse(R"({
    "interface/status/vxlan/errorStatus/version2/ofc/switch/00:1c:73:00:00:01": {"@type": "OverlaySvc::ErrorStatusV2"},
    "overlaysvc/version2/input/dynVtepConfig/vgw/switch/00:1c:73:00:00:01":
        {"@type": "OverlaySvc::VtepConfigDirV2", "vtepConfig": {"Vxlan1": {}}}
  })"));
  auto agent = start();
  turns(5);
  EXPECT_EQ(journal.lines, (std::vector<std::string>{
                               "0 doInit",
                               "1 doMountsComplete mountSuccess",
                               "2 doServiceAgentInit",
                               "2 doControllerMounts",
                               "3 service mounts complete mg1",
                               "3 doControllerMountsComplete mountSuccess",
                               "4 switch 00:1c:73:00:00:01 mounted",
                               "4 initial switch mounts complete mg1",
                           }));
  EXPECT_EQ(agent->name(), "Vgw");
  ASSERT_TRUE(agent->status_);
  EXPECT_EQ(agent->serviceEntityManager()->store(), runner.store());
  EXPECT_NE(agent->serviceEntityManager(), runner.localEntityManager());

  // The per-switch directories stand with their entry types; what stood in
  // them is kept.
  const auto& manager = *runner.localEntityManager();
  EXPECT_EQ(manager.getEntity<Kiln::Dir>(dynVtepConfig)->entryType(), &OverlaySvc::VtepConfigDirV2::typeInfo_);
  EXPECT_EQ(manager.getEntity<Kiln::Dir>(errorStatusSwitches)->entryType(), &OverlaySvc::ErrorStatusV2::typeInfo_);
  EXPECT_TRUE(manager.getEntity<OverlaySvc::VtepConfigDirV2>(std::string(dynVtepConfig) + "/00:1c:73:00:00:01")
                  ->vtepConfig("Vxlan1"));

  // The service is the agent's one service.
  auto service = agent->fleetStoreService();
  EXPECT_EQ(agent->fleetStoreServiceIs("Vgw", agent->serviceEntityManager(), runner.localEntityManager()), service);
  EXPECT_THROW(agent->fleetStoreServiceIs("Other", agent->serviceEntityManager(), runner.localEntityManager()),
               Fleet::ServiceError);
}

TEST_F(ServiceAgentTest, theBaseHooksCarryAnAgentThatOverridesNothing) {
  struct Bare final : Hearth::ServiceAgent {
    Bare(Kiln::Ptr<Ledger::EntityManager> local, Journal& j) : ServiceAgent(std::move(local), "Bare"), journal(j) {}
    void doControllerMountsComplete(Ledger::MountStatus status, Kiln::Ptr<Ledger::EntityManager> manager) override {
      journal.note(manager == serviceEntityManager() ? "service manager" : "other manager", status);
    }
    Journal& journal;
  };
  runner.agentIs([this](Kiln::String) { return Kiln::newPtr<Bare>(runner.localEntityManager(), journal); });
  EXPECT_TRUE(runner.agent()->serviceEntityManager());
  turns(3);
  EXPECT_EQ(journal.lines, std::vector<std::string>{"2 service manager mountSuccess"});
}

TEST_F(ServiceAgentTest, aStopSignalEndsTheLoopAndLeavesTheAgentsState) {
  auto agent = start();
  turns(5);
  agent->status_->runningIs(true);
  const Kiln::Json before = runner.localEntityManager()->read("");
  runner.stopOnSignals();
  ASSERT_EQ(raise(SIGTERM), 0);  // blocked: it waits for the signalfd
  EXPECT_FALSE(runner.stopped());
  turns(1);
  EXPECT_TRUE(runner.stopped());
  EXPECT_EQ(runner.stopSignal(), SIGTERM);
  runner.run();  // returns at once
  EXPECT_NE(logged.str().find("KXT_AGENT_STOP_REQUESTED"), std::string::npos);
  EXPECT_NE(logged.str().find("Agent Vgw stopping on SIGTERM"), std::string::npos) << logged.str();
  EXPECT_EQ(runner.localEntityManager()->read(""), before);
}

TEST_F(ServiceAgentTest, aStopWithoutSignalAndTheSignalMaskRestoredWithTheRunner) {
  {
    Hearth::AgentRunner inner("Inner");
    EXPECT_EQ(Hearth::localEntityManager(), inner.localEntityManager());
    scoped.loop().post([&] { inner.stop(); });
    inner.run();
    EXPECT_EQ(inner.stopSignal(), 0);
    inner.stopOnSignals();
    sigset_t blocked;
    sigprocmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_TRUE(sigismember(&blocked, SIGINT));
  }
  sigset_t blocked;
  sigprocmask(SIG_BLOCK, nullptr, &blocked);
  EXPECT_FALSE(sigismember(&blocked, SIGINT));
  EXPECT_FALSE(sigismember(&blocked, SIGTERM));
  EXPECT_EQ(Hearth::localEntityManager(), runner.localEntityManager());
}

}  // namespace
