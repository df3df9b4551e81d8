// JSON-RPC through the C layer against a real ovsdb-server: blocking
// transactions, the non-blocking monitor connection, the passive-stream
// fallback, and what a client sees when the server goes away.
#include <gtest/gtest.h>
#include <openvswitch/json.h>
#include <openvswitch/shash.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <nlohmann/json.hpp>
#include <string>

#include "OvsdbServer.h"
#include "OvscSupport.h"

namespace Vgw::Test {
namespace {

// Sends one request on 'rpc' and waits for its reply.
MsgPtr transact(jsonrpc* rpc, const char* method, const std::string& params) {
  jsonrpc_msg* request = ovsc_jsonrpc_create_request(method, parseJson(params).release(), nullptr);
  jsonrpc_msg* reply = nullptr;
  int error = ovsc_jsonrpc_transact_block(rpc, request, &reply);
  EXPECT_EQ(error, 0) << method << ": " << std::strerror(error);
  return MsgPtr(reply);
}

TEST(OvsJsonRpc, EchoTransactionReturnsItsParams) {
  OvsdbServer server;
  RpcPtr rpc = connect(server.target());
  ASSERT_TRUE(rpc);

  MsgPtr reply = transact(rpc.get(), "echo", R"([1, "two", {"three": [3]}])");
  ASSERT_TRUE(reply);
  EXPECT_EQ(ovsc_jsonrpc_msg_type(reply.get()), OVSC_JSONRPC_REPLY);
  EXPECT_EQ(ovsc_jsonrpc_msg_method(reply.get()), nullptr);
  EXPECT_EQ(ovsc_jsonrpc_msg_error(reply.get()), nullptr);
  EXPECT_EQ(toText(ovsc_jsonrpc_msg_result(reply.get())), R"([1,"two",{"three":[3]}])");
}

TEST(OvsJsonRpc, UnknownMethodGivesErrorReply) {
  OvsdbServer server;
  RpcPtr rpc = connect(server.target());
  ASSERT_TRUE(rpc);

  MsgPtr reply = transact(rpc.get(), "no_such_method", "[]");
  ASSERT_TRUE(reply);
  EXPECT_EQ(ovsc_jsonrpc_msg_type(reply.get()), OVSC_JSONRPC_ERROR);
  EXPECT_EQ(ovsc_jsonrpc_msg_result(reply.get()), nullptr);
  ASSERT_NE(ovsc_jsonrpc_msg_error(reply.get()), nullptr);
  EXPECT_NE(toText(ovsc_jsonrpc_msg_error(reply.get())).find("unknown method"), std::string::npos);
}

TEST(OvsJsonRpc, InsertedRowIsReadBack) {
  OvsdbServer server;
  RpcPtr rpc = connect(server.target());
  ASSERT_TRUE(rpc);

  // A switch exists only while Global refers to it; an unreferenced row of
  // a non-root table is dropped at commit.
  MsgPtr reply = transact(rpc.get(), "transact", R"(["hardware_vtep",
      {"op": "insert", "table": "Physical_Switch", "uuid-name": "sw0",
       "row": {"name": "sw0", "tunnel_ips": ["set", ["10.0.0.1", "10.0.0.2"]]}},
      {"op": "mutate", "table": "Global", "where": [],
       "mutations": [["switches", "insert", ["set", [["named-uuid", "sw0"]]]]]}])");
  ASSERT_TRUE(reply);
  ASSERT_EQ(ovsc_jsonrpc_msg_type(reply.get()), OVSC_JSONRPC_REPLY) << toText(reply.get());
  auto inserted = nlohmann::json::parse(toText(ovsc_jsonrpc_msg_result(reply.get())));
  ASSERT_TRUE(inserted[0].contains("uuid")) << inserted;
  const std::string uuid = inserted[0]["uuid"][1];

  MsgPtr selected = transact(rpc.get(), "transact", R"(["hardware_vtep",
      {"op": "select", "table": "Physical_Switch", "where": [["name", "==", "sw0"]],
       "columns": ["_uuid", "tunnel_ips"]}])");
  ASSERT_TRUE(selected);
  auto rows = nlohmann::json::parse(toText(ovsc_jsonrpc_msg_result(selected.get())))[0]["rows"];
  ASSERT_EQ(rows.size(), 1u) << rows;
  EXPECT_EQ(rows[0]["_uuid"][1], uuid);
  EXPECT_EQ(rows[0]["tunnel_ips"], nlohmann::json::parse(R"(["set", ["10.0.0.1", "10.0.0.2"]])"));

  // What another client of the server sees.
  auto dumped = nlohmann::json::parse(server.dump("Physical_Switch"));
  ASSERT_EQ(dumped.size(), 1u);
  EXPECT_EQ(dumped[0]["name"], "sw0");
  EXPECT_EQ(dumped[0]["_uuid"][1], uuid);
}

TEST(OvsJsonRpc, MonitorDeliversInitialRowsThenUpdates) {
  OvsdbServer server;
  server.vtepCtl("add-ps", "sw0");
  RpcPtr rpc = connect(server.target());
  ASSERT_TRUE(rpc);
  const int fd = ovsc_stream_get_fd(ovsc_jsonrpc_get_stream(rpc.get()));
  ASSERT_GE(fd, 0);
  struct stat st {};
  ASSERT_EQ(::fstat(fd, &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));

  json* id = nullptr;
  jsonrpc_msg* request = ovsc_jsonrpc_create_request(
      "monitor",
      parseJson(R"(["hardware_vtep", null, {"Physical_Switch": [{"columns": ["name"],
          "select": {"initial": true, "insert": true, "delete": true, "modify": true}}]}])")
          .release(),
      &id);
  JsonPtr requestId(id);
  ASSERT_TRUE(requestId);
  EXPECT_EQ(ovsc_jsonrpc_send(rpc.get(), request), 0);

  // Nothing has been answered the moment the request is out: the
  // connection does not block.
  jsonrpc_msg* none = nullptr;
  struct pollfd p {fd, POLLIN, 0};
  if (::poll(&p, 1, 0) == 0) {
    EXPECT_EQ(ovsc_jsonrpc_recv(rpc.get(), &none), EAGAIN);
    EXPECT_EQ(none, nullptr);
  }

  MsgPtr initial = receiveUntil(rpc.get(), [&](const jsonrpc_msg* m) {
    return ovsc_jsonrpc_msg_type(m) == OVSC_JSONRPC_REPLY &&
           json_equal(ovsc_jsonrpc_msg_id(m), requestId.get());
  });
  ASSERT_TRUE(initial);
  auto contents = nlohmann::json::parse(toText(ovsc_jsonrpc_msg_result(initial.get())));
  ASSERT_EQ(contents["Physical_Switch"].size(), 1u) << contents;
  EXPECT_EQ(contents["Physical_Switch"].begin().value()["new"]["name"], "sw0");

  server.vtepCtl("add-ps", "sw1");
  MsgPtr update = receiveUntil(rpc.get(), [](const jsonrpc_msg* m) {
    return ovsc_jsonrpc_msg_type(m) == OVSC_JSONRPC_NOTIFY &&
           std::string(ovsc_jsonrpc_msg_method(m)) == "update";
  });
  ASSERT_TRUE(update);
  EXPECT_EQ(ovsc_jsonrpc_msg_id(update.get()), nullptr);
  auto params = nlohmann::json::parse(toText(ovsc_jsonrpc_msg_params(update.get())));
  ASSERT_EQ(params.size(), 2u) << params;
  EXPECT_TRUE(params[0].is_null());
  ASSERT_EQ(params[1]["Physical_Switch"].size(), 1u) << params;
  auto row = params[1]["Physical_Switch"].begin().value();
  EXPECT_EQ(row["new"]["name"], "sw1");
  EXPECT_FALSE(row.contains("old"));
}

// A passive target cannot be opened as a stream; the caller listens on it
// instead and takes the peer that connects. The two ends then talk
// JSON-RPC, the listening end answering an echo as a client of the
// controller must.
TEST(OvsJsonRpc, PassiveTargetListensAndAcceptsPeer) {
  OvsdbServer server;  // Only for its private directory.
  const std::string path = (server.directory() / "passive.sock").string();
  const std::string passive = "punix:" + path;

  stream* s = nullptr;
  EXPECT_EQ(ovsc_jsonrpc_stream_open_block(passive.c_str(), kDscp, -1, &s), EAFNOSUPPORT);
  EXPECT_EQ(s, nullptr);

  pstream* listener = nullptr;
  ASSERT_EQ(ovsc_jsonrpc_pstream_open(passive.c_str(), kDscp, &listener), 0);
  PstreamPtr listening(listener);

  // A Unix connect completes against the listen backlog, so the peer is
  // waiting before the accept is called.
  RpcPtr peer = connect("unix:" + path);
  ASSERT_TRUE(peer);
  stream* accepted = nullptr;
  ASSERT_EQ(ovsc_pstream_accept_block(listener, &accepted), 0);
  ASSERT_NE(accepted, nullptr);
  RpcPtr local(ovsc_jsonrpc_open(accepted));
  listening.reset();

  json* id = nullptr;
  ASSERT_EQ(ovsc_jsonrpc_send_block(
                peer.get(), ovsc_jsonrpc_create_request("echo", parseJson(R"(["ping", 7])").release(), &id)),
            0);
  JsonPtr echoId(id);

  MsgPtr echo = receiveUntil(local.get(), [](const jsonrpc_msg*) { return true; });
  ASSERT_TRUE(echo);
  ASSERT_EQ(ovsc_jsonrpc_msg_type(echo.get()), OVSC_JSONRPC_REQUEST);
  EXPECT_STREQ(ovsc_jsonrpc_msg_method(echo.get()), "echo");
  ASSERT_EQ(ovsc_jsonrpc_send(local.get(),
                              ovsc_jsonrpc_create_reply(json_clone(ovsc_jsonrpc_msg_params(echo.get())),
                                                        ovsc_jsonrpc_msg_id(echo.get()))),
            0);

  MsgPtr answer = receiveUntil(peer.get(), [](const jsonrpc_msg*) { return true; });
  ASSERT_TRUE(answer);
  EXPECT_EQ(ovsc_jsonrpc_msg_type(answer.get()), OVSC_JSONRPC_REPLY);
  EXPECT_TRUE(json_equal(ovsc_jsonrpc_msg_id(answer.get()), echoId.get()));
  EXPECT_EQ(toText(ovsc_jsonrpc_msg_result(answer.get())), R"(["ping",7])");
}

TEST(OvsJsonRpc, AbsentServerCannotBeOpened) {
  OvsdbServer server;
  const std::string missing = "unix:" + (server.directory() / "nobody-here.sock").string();
  stream* s = nullptr;
  EXPECT_EQ(ovsc_jsonrpc_stream_open_block(missing.c_str(), kDscp, -1, &s), ENOENT);
  EXPECT_EQ(s, nullptr);

  server.stop();
  EXPECT_NE(ovsc_jsonrpc_stream_open_block(server.target().c_str(), kDscp, -1, &s), 0);
  EXPECT_EQ(s, nullptr);
}

TEST(OvsJsonRpc, StoppedServerFailsBothConnections) {
  OvsdbServer server;
  RpcPtr monitor = connect(server.target());
  RpcPtr updater = connect(server.target());
  ASSERT_TRUE(monitor && updater);
  ASSERT_TRUE(transact(updater.get(), "echo", "[]"));

  server.stop();

  ASSERT_TRUE(waitReadable(monitor.get()));
  jsonrpc_msg* msg = nullptr;
  int error = ovsc_jsonrpc_recv(monitor.get(), &msg);
  EXPECT_NE(error, 0);
  EXPECT_NE(error, EAGAIN);
  EXPECT_EQ(msg, nullptr);

  // Writing to the dead peer raises SIGPIPE, which the caller of a blocking
  // transaction ignores for its length.
  jsonrpc_msg* reply = nullptr;
  jsonrpc_msg* request = ovsc_jsonrpc_create_request("echo", json_array_create_empty(), nullptr);
  auto previous = std::signal(SIGPIPE, SIG_IGN);
  int transactError = ovsc_jsonrpc_transact_block(updater.get(), request, &reply);
  std::signal(SIGPIPE, previous);
  EXPECT_NE(transactError, 0);
  EXPECT_EQ(reply, nullptr);
}

}  // namespace
}  // namespace Vgw::Test
