// The database server killed and restarted, several times, while a
// controller keeps writing: after each restart the agent resubscribes on its
// own, and once the controller pauses the database, the agent's mirror and
// what it publishes agree. VGW_ROBUST_ITERATIONS sets the number of restarts.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "RobustSupport.h"

namespace Vgw::Test {
namespace {

using Kiln::Json;

constexpr int switchCount = 3;
constexpr int hostCount = 64;
const std::vector<std::string> vteps = {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"};

// The controller in a child process: moves, re-addresses and removes hosts
// as fast as the server takes them, each in one transaction, and connects
// again whenever the server is gone. It writes only rows that cannot
// contradict each other (a host's MAC and address are its own), so that the
// agent has no conflict to resolve. It runs until it is killed.
[[noreturn]] void controllerLoad(const std::string& target, const std::vector<Uuid>& switches,
                                 const std::vector<Uuid>& locators, unsigned seed) {
  std::mt19937 random(seed);
  jsonrpc* rpc = nullptr;
  for (;;) {
    if (!rpc) {
      stream* s = nullptr;
      if (ovsc_jsonrpc_stream_open_block(target.c_str(), 0, 200, &s)) {
        usleep(20000);
        continue;
      }
      rpc = ovsc_jsonrpc_open(s);
    }
    const int host = static_cast<int>(random() % hostCount);
    char mac[18];
    std::snprintf(mac, sizeof mac, "00:00:00:00:01:%02x", host);
    Json params = Json::array({"hardware_vtep", deleteOp("Ucast_Macs_Remote", "MAC", mac)});
    if (random() % 4 != 0) {
      Json row = {{"MAC", mac},
                  {"logical_switch", uuidRef(switches[random() % switches.size()])},
                  {"locator", uuidRef(locators[random() % locators.size()])}};
      if (random() % 2) row["ipaddr"] = "10.1.1." + std::to_string(host);
      params.push_back({{"op", "insert"}, {"table", "Ucast_Macs_Remote"}, {"row", row}});
    }
    jsonrpc_msg* reply = nullptr;
    const int error = ovsc_jsonrpc_transact_timed(
        rpc, ovsc_jsonrpc_create_request("transact", parseJson(params.dump()).release(), nullptr), 500, &reply);
    ovsc_jsonrpc_msg_destroy(reply);
    if (error) {
      ovsc_jsonrpc_close(rpc);
      rpc = nullptr;
    }
    usleep(1000);
  }
}

TEST(Restart, theServerKilledUnderAControllersWritesIsFollowedAndTheThreeViewsAgree) {
  LoopRunner loop;
  OvsdbServer server;
  Controller db{server};
  AgentUnderTest agent{loop, server};
  // The switches, and one host that never moves per VTEP, which keeps every
  // locator in the database for the controller to name.
  std::vector<Uuid> switches;
  for (int s = 0; s < switchCount; ++s) switches.push_back(db.addLogicalSwitch("ls" + std::to_string(s), 5000 + s));
  Json ops = Json::array();
  for (std::size_t v = 0; v < vteps.size(); ++v) {
    db.ucastRemote(ops, switches[0], "00:00:00:00:00:0" + std::to_string(v + 1), vteps[v]);
  }
  db.transact(ops);
  std::vector<Uuid> locators;
  for (const std::string& vtep : vteps) locators.push_back(db.locatorUuid(vtep));
  agent.start();

  const pid_t writer = fork();
  if (writer == 0) controllerLoad(server.target(), switches, locators, 42);
  const int restarts = robustIterations(3);
  for (int round = 1; round <= restarts; ++round) {
    SCOPED_TRACE("restart " + std::to_string(round));
    // The agent follows the writes for a while, then the server dies.
    loop.runUntil([] { return false; }, 0.3);
    server.kill();
    ASSERT_TRUE(loop.runUntil([&] { return agent.state() == SessionState::stateDisconnected; }));
    server.start();
    loop.advance(15.0);
    ASSERT_TRUE(loop.runUntil([&] { return agent.converged(); }))
        << agent.agent()->status()->ovsdbSessionStatus()->lastResult();
    loop.runUntil([] { return false; }, 0.2);

    // With the controller paused, the three views agree.
    kill(writer, SIGSTOP);
    ASSERT_TRUE(db.synced(loop, [&] { return agent.mirror(); }));
    expectThreeWayAgreement(db, agent);
    kill(writer, SIGCONT);
  }
  kill(writer, SIGKILL);
  waitpid(writer, nullptr, 0);
  EXPECT_GT(db.rows("Ucast_Macs_Remote").size(), vteps.size()) << "the controller wrote";
  agent.stop();
}

}  // namespace
}  // namespace Vgw::Test
