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
#include <memory>

#include "SessionSupport.h"

namespace Vgw::Test {
namespace {

constexpr const char* blueUuid = "00000000-0000-0000-8000-000000000001";
constexpr const char* greenUuid = "00000000-0000-0000-8000-000000000002";
constexpr const char* foreignUuid = "00000000-0000-0000-8000-000000000003";

struct RpcClose {
  void operator()(jsonrpc* r) const { ovsc_jsonrpc_close(r); }
};

// The peer's side, in the child: every exit status but 0 names the step
// that went wrong. Waits are bounded so that a broken agent fails the test
// instead of leaving a process behind.
class ScriptedServer {
 public:
  [[noreturn]] static void run(const std::string& path) {
    stream* s = nullptr;
    const std::string target = "unix:" + path;
    for (int attempt = 0; attempt < 2000 && !s; ++attempt) {
      if (ovsc_jsonrpc_stream_open_block(target.c_str(), 0, 1000, &s) != 0) usleep(10000);
    }
    if (!s) _exit(10);
    ScriptedServer server(ovsc_jsonrpc_open(s));
    server.script();
  }

 private:
  explicit ScriptedServer(jsonrpc* rpc) : rpc_(rpc) {}

  Ovs::JsonRpcMsgPtr receive() {
    for (int waited = 0; waited < 200; ++waited) {
      jsonrpc_msg* msg = nullptr;
      const int error = ovsc_jsonrpc_recv(rpc_.get(), &msg);
      if (!error) return Ovs::JsonRpcMsgPtr(msg);
      if (error != EAGAIN) return nullptr;
      ovsc_jsonrpc_run(rpc_.get());
      pollfd fd{ovsc_stream_get_fd(ovsc_jsonrpc_get_stream(rpc_.get())), POLLIN, 0};
      poll(&fd, 1, 100);
    }
    return nullptr;
  }

  Ovs::JsonRpcMsgPtr request(const char* method, int failure) {
    Ovs::JsonRpcMsgPtr msg = receive();
    if (!msg || ovsc_jsonrpc_msg_type(msg.get()) != OVSC_JSONRPC_REQUEST ||
        std::string_view(ovsc_jsonrpc_msg_method(msg.get())) != method) {
      _exit(failure);
    }
    return msg;
  }

  void send(jsonrpc_msg* msg, int failure) {
    if (ovsc_jsonrpc_send_block(rpc_.get(), msg) != 0) _exit(failure);
  }

  static json* logicalSwitch(const char* uuid, const char* name, int vni) {
    return parseJson(std::string(R"({"Logical_Switch": {")") + uuid + R"(": {"new": {"name": ")" + name +
                     R"(", "tunnel_key": )" + std::to_string(vni) + "}}}}")
        .release();
  }

  [[noreturn]] void script() {
    const Ovs::JsonRpcMsgPtr getSchema = request("get_schema", 11);
    send(ovsc_jsonrpc_create_reply(json_from_file("/usr/share/openvswitch/vtep.ovsschema"),
                                   ovsc_jsonrpc_msg_id(getSchema.get())),
         12);
    const Ovs::JsonRpcMsgPtr monitor = request("monitor", 13);

    // A reply to a request the agent never made.
    const Ovs::JsonPtr foreignId(json_integer_create(999999));
    send(ovsc_jsonrpc_create_reply(logicalSwitch(foreignUuid, "foreign", 5003), foreignId.get()), 14);

    json* echoId = nullptr;
    send(ovsc_jsonrpc_create_request("echo", parseJson(R"(["ping", 7, {"k": [1]}])").release(), &echoId), 15);
    const Ovs::JsonPtr echoIdOwned(echoId);
    const Ovs::JsonRpcMsgPtr echoReply = receive();
    if (!echoReply || ovsc_jsonrpc_msg_type(echoReply.get()) != OVSC_JSONRPC_REPLY ||
        !json_equal(ovsc_jsonrpc_msg_id(echoReply.get()), echoId) ||
        !json_equal(ovsc_jsonrpc_msg_result(echoReply.get()), parseJson(R"(["ping", 7, {"k": [1]}])").get())) {
      _exit(16);
    }

    send(ovsc_jsonrpc_create_reply(logicalSwitch(blueUuid, "blue", 5001), ovsc_jsonrpc_msg_id(monitor.get())), 17);
    // An update notification: a message without an id, written as it stands.
    const std::string update = std::string(R"({"id": null, "method": "update", "params": [null, )") +
                               toText(Ovs::JsonPtr(logicalSwitch(greenUuid, "green", 5002)).get()) + "]}";
    const int fd = ovsc_stream_get_fd(ovsc_jsonrpc_get_stream(rpc_.get()));
    if (write(fd, update.data(), update.size()) != static_cast<ssize_t>(update.size())) _exit(18);

    // The agent closes the connection when it is done.
    while (receive()) {
    }
    _exit(0);
  }

  std::unique_ptr<jsonrpc, RpcClose> rpc_;
};

TEST(VgwPassiveSession, ListensForTheServerAnswersItsEchoAndDropsForeignReplies) {
  freshLocalData();
  char dir[] = "/tmp/vgw-passive-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string path = std::string(dir) + "/agent.sock";
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) ScriptedServer::run(path);
  {
    LoopRunner runner;
    SessionRoot root("punix:" + path);
    // Blocks until the peer has connected and delivered the schema.
    root.enable();
    EXPECT_EQ(root.state(), SessionState::stateConnecting);
    EXPECT_TRUE(runner.runUntil([&] { return root.ovsdb->logicalSwitch(Uuid::parse(greenUuid)) != nullptr; }));
    EXPECT_EQ(root.state(), SessionState::stateConnected);
    EXPECT_TRUE(root.ovsdb->logicalSwitch(Uuid::parse(blueUuid)));
    EXPECT_FALSE(root.ovsdb->logicalSwitch(Uuid::parse(foreignUuid)));
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
