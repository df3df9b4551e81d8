// A session whose target is passive: the agent listens and the database
// server connects to it. The server here is a scripted peer in a child
// process, which also checks what only a peer can see: that an "echo" is
// answered with its own params, and that a reply under a foreign id is
// dropped without effect.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "SessionSupport.h"

namespace Vgw::Test {
namespace {

// A monitor update adding logical switch `n`.
json* logicalSwitch(unsigned n, int vni) {
  return parseJson(R"({"Logical_Switch": {")" + rowId(n).stringValue().stringValue() + R"(": {"new": {"name": "ls", "tunnel_key": )" +
                   std::to_string(vni) + "}}}}")
      .release();
}

// The peer's side, in the child: every exit status but 0 names the step
// that went wrong. Waits are bounded so that a broken agent fails the test
// instead of leaving a process behind.
[[noreturn]] void scriptedServer(const std::string& path) {
  stream* s = nullptr;
  for (int attempt = 0; attempt < 2000 && ovsc_jsonrpc_stream_open_block(("unix:" + path).c_str(), 0, 1000, &s); ++attempt) {
    usleep(10000);
  }
  if (!s) _exit(10);
  jsonrpc* rpc = ovsc_jsonrpc_open(s);
  const auto check = [](bool ok, int step) {
    if (!ok) _exit(step);
  };
  const auto receive = [&]() -> Ovs::JsonRpcMsgPtr {
    for (int waited = 0; waited < 200; ++waited) {
      jsonrpc_msg* msg = nullptr;
      const int error = ovsc_jsonrpc_recv(rpc, &msg);
      if (!error) return Ovs::JsonRpcMsgPtr(msg);
      if (error != EAGAIN) return nullptr;
      ovsc_jsonrpc_run(rpc);
      pollfd fd{ovsc_stream_get_fd(ovsc_jsonrpc_get_stream(rpc)), POLLIN, 0};
      poll(&fd, 1, 100);
    }
    return nullptr;
  };
  const auto request = [&](const char* method, int step) {
    Ovs::JsonRpcMsgPtr msg = receive();
    check(msg && ovsc_jsonrpc_msg_type(msg.get()) == OVSC_JSONRPC_REQUEST &&
              std::string_view(ovsc_jsonrpc_msg_method(msg.get())) == method,
          step);
    return msg;
  };

  const Ovs::JsonRpcMsgPtr getSchema = request("get_schema", 11);
  check(!ovsc_jsonrpc_send_block(rpc, ovsc_jsonrpc_create_reply(json_from_file("/usr/share/openvswitch/vtep.ovsschema"),
                                                                 ovsc_jsonrpc_msg_id(getSchema.get()))),
        12);
  const Ovs::JsonRpcMsgPtr monitor = request("monitor", 13);
  // A reply to a request the agent never made.
  const Ovs::JsonPtr foreignId(json_integer_create(999999));
  check(!ovsc_jsonrpc_send_block(rpc, ovsc_jsonrpc_create_reply(logicalSwitch(3, 5003), foreignId.get())), 14);

  json* echoId = nullptr;
  const Ovs::JsonPtr ping = parseJson(R"(["ping", 7, {"k": [1]}])");
  check(!ovsc_jsonrpc_send_block(rpc, ovsc_jsonrpc_create_request("echo", json_clone(ping.get()), &echoId)), 15);
  const Ovs::JsonRpcMsgPtr echoReply = receive();
  check(echoReply && ovsc_jsonrpc_msg_type(echoReply.get()) == OVSC_JSONRPC_REPLY &&
            json_equal(ovsc_jsonrpc_msg_id(echoReply.get()), echoId) &&
            json_equal(ovsc_jsonrpc_msg_result(echoReply.get()), ping.get()),
        16);

  check(!ovsc_jsonrpc_send_block(rpc, ovsc_jsonrpc_create_reply(logicalSwitch(1, 5001), ovsc_jsonrpc_msg_id(monitor.get()))),
        17);
  // An update notification: a message without an id, written as it stands.
  const std::string update = std::string(R"({"id": null, "method": "update", "params": [null, )") +
                             toText(Ovs::JsonPtr(logicalSwitch(2, 5002)).get()) + "]}";
  const int fd = ovsc_stream_get_fd(ovsc_jsonrpc_get_stream(rpc));
  check(write(fd, update.data(), update.size()) == static_cast<ssize_t>(update.size()), 18);
  // The agent closes the connection when it is done.
  while (receive()) {
  }
  _exit(0);
}

TEST(VgwPassiveSession, ListensForTheServerAnswersItsEchoAndDropsForeignReplies) {
  freshLocalData();
  char dir[] = "/tmp/vgw-passive-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string path = std::string(dir) + "/agent.sock";
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) scriptedServer(path);
  {
    LoopRunner runner;
    SessionRoot root("punix:" + path);
    // Blocks until the peer has connected and delivered the schema.
    root.enable();
    EXPECT_EQ(root.state(), SessionState::stateConnecting);
    EXPECT_TRUE(runner.runUntil([&] { return root.ovsdb->logicalSwitch(rowId(2)) != nullptr; }));
    EXPECT_EQ(root.state(), SessionState::stateConnected);
    EXPECT_TRUE(root.ovsdb->logicalSwitch(rowId(1)));
    EXPECT_FALSE(root.ovsdb->logicalSwitch(rowId(3)));
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "the scripted server failed at its step " << WEXITSTATUS(status);
  std::filesystem::remove_all(dir);
  freshLocalData();
}

}  // namespace
}  // namespace Vgw::Test
