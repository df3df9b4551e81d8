// The agent's start on the event loop, run by the agent host without a
// database: the ring trace and its lock file, the root state machine's
// mounts, the initial switch mounts and the per-switch publication.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "Hearth/AgentRunner.h"
#include "LoopRunner.h"
#include "SessionSupport.h"
#include "Vgw/VgwAgent.h"

namespace Vgw::Test {
namespace {

namespace fs = std::filesystem;

TEST(AgentTest, StartsThroughItsMountsAndPublishesPerSwitchConfiguration) {
  const fs::path dir = fs::temp_directory_path() / ("vgw-agent-test-" + std::to_string(getpid()));
  const fs::path tape = dir / "VgwAgentTest.tape";
  fs::create_directories(dir);
  std::ofstream(tape) << "last life";
  unsetenv("RINGTAPE_DISABLE");
  setenv("RINGTAPEDIR", dir.c_str(), 1);
  setenv("VGW_TAPELOCK_FILEPATH", (dir / "lock").c_str(), 1);
  freshLocalData();
  {
    LoopRunner loop;
    Hearth::AgentRunner runner("VgwAgentTest");
    typeAgentPaths(*runner.localEntityManager());
    const std::string switchId = "00:1c:73:00:00:01";
    runner.localEntityManager()->loadDocument(
        {{"vgw/config", {{"ovsdbSocketPath", (dir / "no-database.sock").string()}}},
         {"vgw/cliconfig", {{"enableAgent", true}}},
         {"fleet/cluster/statusDir", {{"status", {{"default", Kiln::Json::object()}}}}},
         {"interface/status/vxlan/errorStatus/version2/ofc/switch/" + switchId,
          {{"@type", "OverlaySvc::ErrorStatusV2"}}}});
    const auto agent = Kiln::staticPtrCast<Agent>(runner.agentIs(agentFactory));
    EXPECT_EQ(RingTape::ringPath(), tape.string());
    EXPECT_TRUE(RingTape::isOpen());
    EXPECT_FALSE(fs::exists(dir / "VgwAgentTest.tape.prev")) << "a clean start replaces the tape";
    EXPECT_TRUE(fs::exists(dir / "lock"));

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
        "overlaysvc/version2/input/dynVtepConfig/vgw/switch/" + switchId));
    EXPECT_FALSE(agent->exiting());
  }
  RingTape::close();
  fs::remove_all(dir);
}

}  // namespace
}  // namespace Vgw::Test
