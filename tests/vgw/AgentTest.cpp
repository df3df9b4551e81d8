// The agent's start on the event loop, run by the agent host without a
// database: the ring trace and its lock file, the root state machine's
// mounts, the initial switch mounts and the per-switch publication.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "HandPeer.h"
#include "Hearth/AgentRunner.h"
#include "LoopRunner.h"
#include "SessionSupport.h"
#include "Ovs/ovsc.h"
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

// Runs the agent to its root state machine with standard error in a file,
// then has a peer send the library what is not JSON, which it would warn
// about on its own log. Exits 0 when standard error carries nothing of the
// library's, 1 when it does.
[[noreturn]] void libraryLogUnderTheAgent(const fs::path& dir) {
  FILE* captured = std::tmpfile();
  ::dup2(::fileno(captured), 2);
  setenv("RINGTAPE_DISABLE", "1", 1);
  setenv("VGW_TAPELOCK_FILEPATH", (dir / "lock").c_str(), 1);
  LoopRunner loop;
  Hearth::AgentRunner runner("VgwAgentTest");
  typeAgentPaths(*runner.localEntityManager());
  runner.localEntityManager()->loadDocument({{"vgw/config", {{"ovsdbSocketPath", (dir / "none.sock").string()}}},
                                             {"vgw/cliconfig", {{"enableAgent", true}}},
                                             {"fleet/cluster/statusDir", {{"status", {{"default", Kiln::Json::object()}}}}}});
  const auto agent = Kiln::staticPtrCast<Agent>(runner.agentIs(agentFactory));
  if (!loop.runUntil([&] { return agent->rootSm() != nullptr; })) std::_Exit(3);
  HandPeer peer;
  stream* connected = nullptr;
  if (ovsc_jsonrpc_stream_open_block(peer.target().c_str(), 0, -1, &connected) != 0) std::_Exit(3);
  jsonrpc* rpc = ovsc_jsonrpc_open(connected);
  const std::string garbage = "}{ no JSON\n";
  if (::write(peer.accept(), garbage.data(), garbage.size()) != static_cast<ssize_t>(garbage.size())) std::_Exit(3);
  jsonrpc_msg* message = nullptr;
  for (int i = 0; i < 1000 && ovsc_jsonrpc_recv(rpc, &message) == EAGAIN; ++i) ovsc_jsonrpc_run(rpc);
  ovsc_jsonrpc_close(rpc);
  std::fflush(stderr);
  std::string text(static_cast<std::size_t>(std::ftell(captured)), '\0');
  std::rewind(captured);
  text.resize(std::fread(text.data(), 1, text.size(), captured));
  std::_Exit(text.find("|jsonrpc|") == std::string::npos ? 0 : 1);
}

TEST(AgentTest, StandardErrorCarriesNothingOfTheLibrarysOwnLog) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const fs::path dir = fs::temp_directory_path() / ("vgw-agent-log-" + std::to_string(getpid()));
  fs::create_directories(dir);
  EXPECT_EXIT(libraryLogUnderTheAgent(dir), ::testing::ExitedWithCode(0), "");
  fs::remove_all(dir);
}

}  // namespace
}  // namespace Vgw::Test
