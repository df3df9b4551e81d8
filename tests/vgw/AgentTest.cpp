// The agent's start on the event loop, run by the agent host without a
// database: the ring trace, the start test, the service publication, the
// initial switch mounts, and an agent that may not run.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "Hearth/AgentRunner.h"
#include "LoopRunner.h"
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
    freshLocalData();
    typeAgentPaths(*runner.localEntityManager());
    document = {{"vgw/config", {{"ovsdbSocketPath", (dir / "no-database.sock").string()}}},
                {"vgw/cliconfig", {{"enableAgent", true}}},
                {"fleet/cluster/statusDir", {{"status", {{"default", Json::object()}}}}}};
  }
  ~AgentTest() override {
    agent = nullptr;
    RingTape::close();
    fs::remove_all(dir);
  }

  fs::path lockFile() const { return dir / "lock"; }
  fs::path tape() const { return dir / (std::string(agentName) + ".tape"); }
  void start() {
    runner.localEntityManager()->loadDocument(document);
    running.notifierIs(runner.localEntityManager()->getEntity<Status>("vgw/status"));
    agent = Kiln::staticPtrCast<Agent>(runner.agentIs(agentFactory));
    agent->exitingHandlerIs([this](const std::string& reason) { exitReasons.push_back(reason); });
  }

  TraceCapture traces{"VgwAgent/6"};
  LoopRunner loop;
  fs::path dir;
  Hearth::AgentRunner runner{agentName};
  Json document;
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
  ASSERT_TRUE(loop.runUntil([&] { return agent->rootSm() != nullptr; }));
  const RootSm& root = *agent->rootSm();
  EXPECT_TRUE(root.topoStatus() && root.vniStatusDirIn() && root.vniStatusDirOut() && root.errorStatusDir() &&
              root.vtepStatusDirAgg() && root.dynVtepConfig() && root.dynVtepConfigReady() && root.lrConfigDir() &&
              root.lrConfigReady() && root.ofcErrorStatus() && root.ofcState() && root.ofcStateReply());
  EXPECT_TRUE(agent->status()->running());
  EXPECT_FALSE(root.errorStatusMountReady()) << "the switches join on the turn after";
  loop.settle();
  EXPECT_TRUE(root.errorStatusMountReady());
  EXPECT_TRUE(runner.localEntityManager()->getEntity<OverlaySvc::VtepConfigDirV2>(
      std::string("overlaysvc/version2/input/dynVtepConfig/vgw/switch/") + switchId));
  EXPECT_TRUE(exitReasons.empty());
}

TEST_F(AgentTest, AgentThatMayNotRunWaitsToDieWithoutPublishing) {
  document["vgw/status"] = {{"running", true}};
  document["vgw/cliconfig"]["enableAgent"] = false;
  start();
  for (int turn = 0; turn < 5; ++turn) loop.settle();
  EXPECT_TRUE(agent->exiting());
  EXPECT_EQ(running.values, std::vector<bool>{false}) << "what a last life left is cleared, and stays so";
  EXPECT_TRUE(traces.contains("Config: 0 Controller Status: 1 ClusterStatus: 1 Waiting to die.")) << traces.text();
  ASSERT_EQ(exitReasons.size(), 1u);
  EXPECT_NE(exitReasons[0].find("enableAgent is false"), std::string::npos) << exitReasons[0];
  EXPECT_FALSE(agent->fleetStoreService() || agent->serviceEntityManager() || agent->rootSm());
}

}  // namespace
}  // namespace Vgw::Test
