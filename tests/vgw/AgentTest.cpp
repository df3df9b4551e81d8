// The agent's start on the event loop, run by the agent host without a
// database: the ring trace and its lock file, the start test, the service
// publication, and the initial switch mounts in either order.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "Hearth/AgentRunner.h"
#include "LoopRunner.h"
#include "RingTape/RingTape.h"
#include "SessionSupport.h"
#include "Vgw/ErrorReportSm.h"
#include "Vgw/VgwAgent.h"

namespace Vgw::Test {
namespace {

namespace fs = std::filesystem;
using Kiln::Json;

constexpr const char* agentName = "VgwAgentTest";
constexpr const char* switchId = "00:1c:73:00:00:01";

// The values of Status.running, in the order they were set.
class RunningRecorder : public Status::NotifieeConst {
 public:
  void onRunning() override { values.push_back(notifier()->running()); }
  std::vector<bool> values;
};

class AgentTest : public testing::Test {
 protected:
  AgentTest() : dir(fs::temp_directory_path() / ("vgw-agent-test-" + std::to_string(getpid()))) {
    fs::create_directories(dir);
    unsetenv("RINGTAPE_DISABLE");
    setenv("RINGTAPEDIR", dir.c_str(), 1);
    setenv("VGW_TAPELOCK_FILEPATH", lockFile().c_str(), 1);
    setenv("VGW_TRACE", "VgwAgent/6", 1);
    RingTape::reloadLevels();
    RingTape::streamIs(&traces);
    freshLocalData();
    for (const auto* mounts : {&localMounts(), &serviceMounts()}) {
      for (const Ledger::Mount& m : *mounts)
        runner.localEntityManager()->pathTypeIs(m.path.stringValue(), *Kiln::TypeInfo::find(m.typeName.stringValue()));
    }
    document = {{"vgw/config", {{"ovsdbSocketPath", (dir / "no-database.sock").string()}}},
                {"vgw/cliconfig", {{"enableAgent", true}}},
                {"fleet/cluster/statusDir", {{"status", {{"default", Json::object()}}}}}};
  }
  ~AgentTest() override {
    agent = nullptr;
    RingTape::close();
    RingTape::streamIs(nullptr);
    unsetenv("VGW_TRACE");
    RingTape::reloadLevels();
    fs::remove_all(dir);
  }

  fs::path lockFile() const { return dir / "lock"; }
  fs::path tape() const { return dir / (std::string(agentName) + ".tape"); }
  void start() {
    runner.localEntityManager()->loadDocument(document);
    status = runner.localEntityManager()->getEntity<Status>("vgw/status");
    if (status) running.notifierIs(status);
    agent = Kiln::staticPtrCast<Agent>(runner.agentIs(agentFactory));
    agent->exitingHandlerIs([this](const std::string& reason) { exitReasons.push_back(reason); });
  }
  void runUntilRoot() { ASSERT_TRUE(loop.runUntil([&] { return agent->rootSm() != nullptr; })); }

  LoopRunner loop;
  fs::path dir;
  std::ostringstream traces;
  Hearth::AgentRunner runner{agentName};
  Json document;
  Kiln::Ptr<Status> status;
  RunningRecorder running;
  Kiln::Ptr<Agent> agent;
  std::vector<std::string> exitReasons;
};

TEST_F(AgentTest, StartsThroughItsMountsAndPublishesPerSwitchConfiguration) {
  document[std::string("interface/status/vxlan/errorStatus/version2/ofc/switch/") + switchId] = {
      {"@type", "OverlaySvc::ErrorStatusV2"}};
  std::ofstream(tape()) << "last life";
  start();
  EXPECT_EQ(RingTape::ringPath(), tape().string());
  EXPECT_TRUE(RingTape::isOpen());
  EXPECT_FALSE(fs::exists(tape() += ".prev")) << "a clean start replaces the tape";
  EXPECT_TRUE(fs::exists(lockFile()));
  runUntilRoot();
  const RootSm& root = *agent->rootSm();
  EXPECT_TRUE(root.topoStatus() && root.vniStatusDirIn() && root.vniStatusDirOut() && root.errorStatusDir() &&
              root.vtepStatusDirAgg() && root.dynVtepConfig() && root.dynVtepConfigReady() && root.lrConfigDir() &&
              root.lrConfigReady() && root.ofcErrorStatus() && root.ofcState() && root.ofcStateReply());
  EXPECT_TRUE(agent->status()->running());
  EXPECT_FALSE(root.errorStatusMountReady()) << "the switches join on the turn after";
  loop.settle();
  EXPECT_TRUE(root.errorStatusMountReady());
  const auto published = runner.localEntityManager()->getEntity<OverlaySvc::VtepConfigDirV2>(
      std::string("overlaysvc/version2/input/dynVtepConfig/vgw/switch/") + switchId);
  EXPECT_TRUE(published);
  EXPECT_TRUE(exitReasons.empty());
}

TEST_F(AgentTest, InitialSwitchMountsBeforeTheRootStateMachineStillCount) {
  start();
  ASSERT_TRUE(loop.runUntil([&] { return agent->serviceMounter() != nullptr; }));
  ASSERT_FALSE(agent->rootSm());
  agent->serviceMounter()->doInitialSwitchMountsComplete("mg1", agent->serviceEntityManager());
  runUntilRoot();
  EXPECT_TRUE(agent->rootSm()->errorStatusMountReady());
}

TEST_F(AgentTest, LockFileLeftByALastLifeKeepsItsTape) {
  std::ofstream(lockFile()).put('\n');
  std::ofstream(tape()) << "last life";
  start();
  EXPECT_TRUE(fs::exists(tape() += ".prev"));
}

TEST_F(AgentTest, RingTapeDisabledTouchesNoLockFile) {
  setenv("RINGTAPE_DISABLE", "", 1);
  start();
  runUntilRoot();
  EXPECT_TRUE(agent->tapeLockFilePath().empty());
  EXPECT_FALSE(RingTape::isOpen());
  EXPECT_FALSE(fs::exists(lockFile()));
  unsetenv("RINGTAPE_DISABLE");
}

TEST_F(AgentTest, WithoutRingTapeDirTheTapeIsNamedByProcess) {
  unsetenv("RINGTAPEDIR");
  start();
  const std::string expected = "/tmp/" + std::string(agentName) + "-" + std::to_string(getpid()) + ".tape";
  EXPECT_EQ(RingTape::ringPath(), expected);
  RingTape::close();
  fs::remove(expected);
}

TEST_F(AgentTest, RunningLeftSetIsClearedBeforeTheStart) {
  document["vgw/status"] = {{"running", true}};
  start();
  runUntilRoot();
  EXPECT_EQ(running.values, (std::vector<bool>{false, true}));
}

TEST_F(AgentTest, AgentThatMayNotRunWaitsToDieWithoutPublishing) {
  document["vgw/status"] = {{"running", true}};
  document["vgw/cliconfig"]["enableAgent"] = false;
  start();
  for (int turn = 0; turn < 5; ++turn) loop.settle();
  EXPECT_TRUE(agent->exiting());
  EXPECT_EQ(running.values, std::vector<bool>{false});
  EXPECT_NE(traces.str().find("Config: 0 Controller Status: 1 ClusterStatus: 1 Waiting to die."), std::string::npos)
      << traces.str();
  ASSERT_EQ(exitReasons.size(), 1u);
  EXPECT_NE(exitReasons[0].find("enableAgent is false"), std::string::npos) << exitReasons[0];
  // Hooks called anyway publish and mount nothing.
  agent->doServiceAgentInit();
  agent->doControllerMounts();
  loop.settle();
  EXPECT_FALSE(agent->fleetStoreService());
  EXPECT_FALSE(agent->serviceEntityManager());
  EXPECT_FALSE(agent->rootSm());
}

TEST(LogCatalogue, EveryMessageGoesOutWithItsArguments) {
  Kiln::logSyslogIs(false);
  std::ostringstream out;
  Kiln::logStreamIs(&out);
  for (int i = 0; i < 3; ++i) Kiln::log(KXT_VGW_MANAGER_CONNECTED, "ssl:192.0.2.10:6640");
  Kiln::log(KXT_VGW_IP_PORT_ERROR, "leaf1", "lr1", "Ethernet1", "no resources");
  Kiln::logStreamIs(nullptr);
  Kiln::logSyslogIs(true);
  const std::string text = out.str();
  std::size_t connected = 0;
  for (std::size_t at = 0; (at = text.find("KXT_VGW_MANAGER_CONNECTED informational: Network virtualization "
                                           "controller ssl:192.0.2.10:6640 is connected to OVSDB",
                                           at)) != std::string::npos;
       ++at) {
    ++connected;
  }
  EXPECT_EQ(connected, 3u) << text;
  EXPECT_NE(text.find("KXT_VGW_IP_PORT_ERROR warning: [ leaf1 ]: lr1: Ethernet1: no resources"), std::string::npos)
      << text;
  EXPECT_EQ(text.find("<missing>"), std::string::npos);
}

}  // namespace
}  // namespace Vgw::Test
