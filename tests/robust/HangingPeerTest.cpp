// Database peers that are not what the agent needs: a server that serves
// another database, and peers that accept a connection and then never
// answer, before or after the schema.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>

#include "HandPeer.h"
#include "SessionSupport.h"

namespace Vgw::Test {
namespace {

// The agent cannot serve a socket without the hardware_vtep database and
// stops, but says first, in one line, what it found there.
TEST(VgwPeerDeathTest, ASocketWithoutTheHardwareVtepDatabaseIsNamedBeforeTheAgentStops) {
  freshLocalData();
  OvsdbServer vswitch("/usr/share/openvswitch/vswitch.ovsschema");
  LoopRunner runner;
  SessionRoot root(vswitch.socketPath());
  EXPECT_DEATH(root.enable(), "KXT_VGW_OVSDB_NO_DATABASE error: The database server at unix:" + vswitch.socketPath() +
                                  " serves no hardware_vtep database: .*unknown database.*\n"
                                  "Assertion failed: ovsdb error");
}

// The deadline is short here: these peers hang for real, and the agent's
// blocking calls wait in real time.
constexpr double deadline = 0.2;

class VgwHangingPeer : public ::testing::Test {
 protected:
  void SetUp() override { freshLocalData(); }
  void TearDown() override { freshLocalData(); }

  // Enables the session on `path` and the real seconds that took.
  double enable(SessionRoot& root) {
    root.config->ovsdbDeadlineIs(deadline);
    const auto start = std::chrono::steady_clock::now();
    root.enable();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }

  LoopRunner runner;
};

// A peer that takes the connection and never answers the schema request
// holds the agent for the deadline, not longer; the session then starts
// over as after any failure.
TEST_F(VgwHangingPeer, aPeerThatNeverAnswersTheSchemaRequestCostsOneDeadline) {
  HandPeer peer;
  SessionRoot root(peer.path());
  const double took = enable(root);
  EXPECT_GE(took, deadline);
  EXPECT_LT(took, 10 * deadline);
  EXPECT_EQ(root.state(), SessionState::stateDisconnected);
  EXPECT_EQ(root.sessionStatus->lastResult(), "No answer from the database server within 0.2 s");
  EXPECT_EQ(root.client->reconnectTime(), runner.now() + 15.0);
  EXPECT_EQ(root.handler->rpcMonitor(), nullptr);
}

// A server that stops (SIGSTOP) while the agent transacts holds it for the
// deadline; once it runs again, the next subscription finds everything.
TEST_F(VgwHangingPeer, aServerThatStopsDuringATransactionCostsOneDeadlineAndIsFoundAgain) {
  OvsdbServer server;
  Controller db{server};
  const Uuid blue = db.addLogicalSwitch("blue", 5000);
  SessionRoot root(server.socketPath());
  enable(root);
  ASSERT_TRUE(runner.runUntil([&] { return root.state() == SessionState::stateConnected; }));

  server.pause();
  const auto start = std::chrono::steady_clock::now();
  root.queue->requestEnq(agentInventory(root.ovsdb, blue));
  const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GE(took, deadline);
  EXPECT_LT(took, 10 * deadline);
  EXPECT_EQ(root.state(), SessionState::stateDisconnected);
  EXPECT_EQ(root.sessionStatus->lastResult(), "No answer from the database server within 0.2 s");

  server.resume();
  runner.advance(15.0);
  ASSERT_TRUE(runner.runUntil([&] { return root.state() == SessionState::stateConnected; }))
      << root.sessionStatus->lastResult();
  expectMirrorMatchesServer(db, *root.ovsdb);
}

// The peer's side in a child process: it listens on `path`, gives the
// hardware_vtep schema, and then answers nothing until the agent goes.
[[noreturn]] void schemaOnlyPeer(const std::string& path) {
  pstream* listener = nullptr;
  if (ovsc_jsonrpc_pstream_open(("punix:" + path).c_str(), 0, &listener)) _exit(10);
  stream* s = nullptr;
  if (ovsc_pstream_accept_timed(listener, 10000, &s)) _exit(11);
  jsonrpc* rpc = ovsc_jsonrpc_open(s);
  jsonrpc_msg* raw = nullptr;
  for (int i = 0; i < 1000 && ovsc_jsonrpc_recv(rpc, &raw) == EAGAIN; ++i) {
    ovsc_jsonrpc_run(rpc);
    usleep(10000);
  }
  const Ovs::JsonRpcMsgPtr request(raw);
  if (!request) _exit(12);
  if (ovsc_jsonrpc_send_timed(rpc, ovsc_jsonrpc_create_reply(json_from_file(OvsdbServer::vtepSchema),
                                                             ovsc_jsonrpc_msg_id(request.get())),
                              10000)) {
    _exit(13);
  }
  for (int i = 0; i < 1000; ++i) {
    jsonrpc_msg* ignored = nullptr;
    const int error = ovsc_jsonrpc_recv(rpc, &ignored);
    ovsc_jsonrpc_msg_destroy(ignored);
    if (error && error != EAGAIN) _exit(0);
    usleep(10000);
  }
  _exit(14);
}

// A peer that gives the schema and never answers the subscription leaves
// the loop free, and the session is given up at the deadline of the loop's
// clock, as after any failure.
TEST_F(VgwHangingPeer, aSubscriptionThatIsNeverAnsweredIsGivenUpAtTheDeadline) {
  HandPeer place;  // a private directory for the peer's socket
  const std::string path = place.path() + ".schema-only";
  const pid_t child = fork();
  if (child == 0) schemaOnlyPeer(path);
  ASSERT_TRUE(runner.runUntil([&] { return std::filesystem::exists(path); }));
  SessionRoot root(path);
  enable(root);
  EXPECT_EQ(root.state(), SessionState::stateConnecting);
  runner.advance(deadline * 0.9);
  EXPECT_EQ(root.state(), SessionState::stateConnecting);
  runner.advance(deadline * 0.2);
  EXPECT_EQ(root.state(), SessionState::stateDisconnected);
  EXPECT_EQ(root.sessionStatus->lastResult(), "No answer to the subscription within 0.2 s");
  EXPECT_EQ(root.handler->rpcMonitor(), nullptr);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
}  // namespace Vgw::Test
