// Streams and JSON-RPC through the C layer against a real ovsdb-server (the
// test harness's, which is tested here too): the schema fetched and
// transactions run on a connection, and OVS's fatal-signal handlers kept out
// of the process. The monitor, the passive fallback and a server going away
// are shown by the session tests, through the agent's own use of them.
#include <gtest/gtest.h>
#include <openvswitch/json.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "HandPeer.h"
#include "OvsdbServer.h"
#include "OvscSupport.h"

namespace Vgw::Test {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

// Sends one request on 'rpc' and waits for its reply.
MsgPtr transact(jsonrpc* rpc, const char* method, const std::string& params) {
  jsonrpc_msg* request = ovsc_jsonrpc_create_request(method, parseJson(params).release(), nullptr);
  jsonrpc_msg* reply = nullptr;
  int error = ovsc_jsonrpc_transact_block(rpc, request, &reply);
  EXPECT_EQ(error, 0) << method << ": " << std::strerror(error);
  return MsgPtr(reply);
}

Json resultOf(const MsgPtr& reply) {
  const json* result = reply ? ovsc_jsonrpc_msg_result(reply.get()) : nullptr;
  return result ? Json::parse(toText(result)) : Json();
}

TEST(OvsJsonRpc, FetchesTheSchemaAndRunsTransactions) {
  OvsdbServer server;
  RpcPtr rpc = connect(server.target());
  ASSERT_TRUE(rpc);
  // The descriptor the event loop waits on is read through mirrors of
  // private library structures; it must be the connection's own socket,
  // on which nothing is waiting yet.
  const int fd = ovsc_stream_get_fd(ovsc_jsonrpc_get_stream(rpc.get()));
  struct stat st {};
  ASSERT_EQ(::fstat(fd, &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  jsonrpc_msg* none = nullptr;
  EXPECT_EQ(ovsc_jsonrpc_recv(rpc.get(), &none), EAGAIN);

  MsgPtr schemaReply = transact(rpc.get(), "get_schema", R"(["hardware_vtep"])");
  ASSERT_TRUE(schemaReply && ovsc_jsonrpc_msg_result(schemaReply.get()));
  SchemaPtr schema = parseSchema(ovsc_jsonrpc_msg_result(schemaReply.get()));
  ASSERT_TRUE(schema);
  EXPECT_STREQ(ovsc_ovsdb_schema_name(schema.get()), "hardware_vtep");
  EXPECT_EQ(ovsc_ovsdb_schema_tables(schema.get(), nullptr, 0), 18u);
  EXPECT_NE(column(schema.get(), "Ucast_Macs_Remote", "locator"), nullptr);

  MsgPtr unknown = transact(rpc.get(), "no_such_method", "[]");
  ASSERT_TRUE(unknown);
  EXPECT_EQ(ovsc_jsonrpc_msg_type(unknown.get()), OVSC_JSONRPC_ERROR);
  EXPECT_EQ(ovsc_jsonrpc_msg_result(unknown.get()), nullptr);
  ASSERT_NE(ovsc_jsonrpc_msg_error(unknown.get()), nullptr);
  EXPECT_NE(toText(ovsc_jsonrpc_msg_error(unknown.get())).find("unknown method"), std::string::npos);

  // A switch exists only while Global refers to it; an unreferenced row of
  // a non-root table is dropped at commit.
  const Json inserted = resultOf(transact(rpc.get(), "transact", R"(["hardware_vtep",
      {"op": "insert", "table": "Physical_Switch", "uuid-name": "sw0",
       "row": {"name": "sw0", "tunnel_ips": ["set", ["10.0.0.1", "10.0.0.2"]]}},
      {"op": "mutate", "table": "Global", "where": [],
       "mutations": [["switches", "insert", ["set", [["named-uuid", "sw0"]]]]]}])"));
  ASSERT_TRUE(inserted[0].contains("uuid")) << inserted;
  const std::string uuid = inserted[0]["uuid"][1];

  const Json selected = resultOf(transact(rpc.get(), "transact", R"(["hardware_vtep",
      {"op": "select", "table": "Physical_Switch", "where": [["name", "==", "sw0"]],
       "columns": ["_uuid", "tunnel_ips"]}])"));
  ASSERT_EQ(selected[0]["rows"].size(), 1u) << selected;
  EXPECT_EQ(selected[0]["rows"][0]["_uuid"][1], uuid);
  EXPECT_EQ(selected[0]["rows"][0]["tunnel_ips"], Json::parse(R"(["set", ["10.0.0.1", "10.0.0.2"]])"));
}

// Milliseconds that `call` took, in real time: the calls under test block on
// a peer that never answers, which simulated time cannot stand in for.
template <class Call>
long long elapsedMs(Call call) {
  const auto start = std::chrono::steady_clock::now();
  call();
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

// Each blocking call has its deadline: a peer that takes the connection and
// never answers, never reads, or never comes makes it fail with ETIMEDOUT
// once the time is up, and not before.
TEST(OvsJsonRpc, BlockingCallsFailAtTheirDeadlineOnAPeerThatNeverAnswers) {
  constexpr long long timeout = 100;
  HandPeer silent;
  RpcPtr rpc = connect(silent.target());
  ASSERT_TRUE(rpc);
  silent.accept();
  jsonrpc_msg* reply = nullptr;
  int error = 0;
  long long took = elapsedMs([&] {
    error = ovsc_jsonrpc_transact_timed(rpc.get(), ovsc_jsonrpc_create_request("get_schema", parseJson(R"(["x"])").release(), nullptr),
                                        timeout, &reply);
  });
  EXPECT_EQ(error, ETIMEDOUT);
  EXPECT_EQ(reply, nullptr);
  EXPECT_GE(took, timeout);
  EXPECT_LT(took, 10 * timeout);

  // A message larger than the socket takes, to a peer that never reads.
  RpcPtr blocked = connect(silent.target());
  silent.accept();
  const std::string big(8 << 20, 'x');
  took = elapsedMs([&] {
    error = ovsc_jsonrpc_send_timed(blocked.get(),
                                    ovsc_jsonrpc_create_request("echo", json_array_create_1(json_string_create(big.c_str())), nullptr),
                                    timeout);
  });
  EXPECT_EQ(error, ETIMEDOUT);
  EXPECT_GE(took, timeout);
  EXPECT_LT(took, 10 * timeout);

  // A passive target that nobody connects to.
  const std::string listening = "punix:" + silent.path() + ".passive";
  pstream* listener = nullptr;
  ASSERT_EQ(ovsc_jsonrpc_pstream_open(listening.c_str(), kDscp, &listener), 0);
  stream* accepted = nullptr;
  took = elapsedMs([&] { error = ovsc_pstream_accept_timed(listener, timeout, &accepted); });
  ovsc_pstream_close(listener);
  EXPECT_EQ(error, ETIMEDOUT);
  EXPECT_EQ(accepted, nullptr);
  EXPECT_GE(took, timeout);
  EXPECT_LT(took, 10 * timeout);
}

// With time to spare, the timed calls do what the blocking ones do.
TEST(OvsJsonRpc, TimedCallsAnswerLikeBlockingOnesWithinTheirDeadline) {
  OvsdbServer server;
  RpcPtr rpc = connect(server.target());
  jsonrpc_msg* reply = nullptr;
  ASSERT_EQ(ovsc_jsonrpc_transact_timed(rpc.get(), ovsc_jsonrpc_create_request("get_schema", parseJson(R"(["hardware_vtep"])").release(), nullptr),
                                        10000, &reply),
            0);
  const MsgPtr owned(reply);
  ASSERT_TRUE(ovsc_jsonrpc_msg_result(reply));
  EXPECT_TRUE(parseSchema(ovsc_jsonrpc_msg_result(reply)));
  EXPECT_EQ(ovsc_jsonrpc_send_timed(rpc.get(), ovsc_jsonrpc_create_request("echo", json_array_create_empty(), nullptr), 10000), 0);
}

// A peer sends what is not JSON, which the library warns about on its own
// log. Exits 0 when standard error stayed empty, 1 when it did not.
[[noreturn]] void garbageFromAPeer(bool silenced) {
  FILE* captured = std::tmpfile();
  ::dup2(::fileno(captured), 2);
  if (silenced) ovsc_vlog_off();
  HandPeer peer;
  RpcPtr rpc = connect(peer.target());
  const std::string garbage = "}{ no JSON\n";
  if (::write(peer.accept(), garbage.data(), garbage.size()) != static_cast<ssize_t>(garbage.size())) std::_Exit(3);
  jsonrpc_msg* message = nullptr;
  for (int i = 0; i < 1000 && ovsc_jsonrpc_recv(rpc.get(), &message) == EAGAIN; ++i) ovsc_jsonrpc_run(rpc.get());
  std::fflush(stderr);
  std::_Exit(std::ftell(captured) == 0 ? 0 : 1);
}

TEST(OvsLog, TheLibrarysOwnLogIsSilencedSoStandardErrorCarriesOnlyTheAgents) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(garbageFromAPeer(false), ::testing::ExitedWithCode(1), "");
  EXPECT_EXIT(garbageFromAPeer(true), ::testing::ExitedWithCode(0), "");
}

// The handlers of the signals the library takes over.
std::array<void (*)(int), 5> dispositions() {
  std::array<void (*)(int), 5> result{};
  const int signals[] = {SIGTERM, SIGINT, SIGHUP, SIGALRM, SIGSEGV};
  for (size_t i = 0; i < result.size(); ++i) {
    struct sigaction action {};
    sigaction(signals[i], nullptr, &action);
    result[i] = action.sa_handler;
  }
  return result;
}

// Any stream call initializes OVS's fatal-signal module; a connection
// attempt to a path that does not exist is the cheapest. Exits 0 when the
// process ends with the dispositions it had before, 2 when the library held
// none of the signals before the disable (the case would prove nothing).
[[noreturn]] void runWithDisable(bool disableFirst) {
  signal(SIGHUP, [](int) {});
  const auto before = dispositions();
  if (disableFirst) ovsc_fatal_signal_disable();
  stream* s = nullptr;
  ovsc_jsonrpc_stream_open_block("unix:/nonexistent/vgw-test.sock", kDscp, -1, &s);
  if (!disableFirst) {
    if (dispositions() == before) std::_Exit(2);
    ovsc_fatal_signal_disable();
  }
  std::_Exit(dispositions() == before ? 0 : 1);
}

// Each case runs in a freshly executed copy of the test binary, because the
// library initializes its signal handling once per process.
TEST(OvsFatalSignal, DisabledBeforeOrAfterFirstUseLeavesTheProcessItsDispositions) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(runWithDisable(true), ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(runWithDisable(false), ::testing::ExitedWithCode(0), "");
}

// The harness itself: what a fresh server holds, where it keeps its files,
// that a restart keeps the database, and how its tools report failures.
TEST(OvsHarness, ServerLivesInItsDirectoryKeepsItsDatabaseOverARestartAndNamesFailures) {
  fs::path directory;
  {
    OvsdbServer server;
    directory = server.directory();
    EXPECT_EQ(server.target(), "unix:" + server.socketPath());
    EXPECT_EQ(fs::path(server.socketPath()).parent_path(), directory);
    EXPECT_NE(OvsdbServer().directory(), directory);
    const Json global = Json::parse(server.dump("Global"));
    ASSERT_EQ(global.size(), 1u) << global;

    server.vtepCtl("add-ps", "sw0");
    server.stop();
    server.stop();  // Stopping twice is harmless.
    EXPECT_FALSE(server.running());
    EXPECT_THROW(server.dump("Physical_Switch"), std::runtime_error);
    server.start();
    EXPECT_THROW(server.start(), std::runtime_error);
    EXPECT_EQ(server.vtepCtl("list-ps"), "sw0");
    EXPECT_TRUE(connect(server.target()));

    const Json refused = Json::parse(server.transact(
        R"(["hardware_vtep", {"op": "insert", "table": "Logical_Switch", "row": {"nom": "x"}}])"));
    EXPECT_TRUE(refused[0].contains("error")) << refused;
    try {
      server.vtepCtl("del-ps", "no-such-switch");
      ADD_FAILURE() << "vtep-ctl's failure was not reported";
    } catch (const std::runtime_error& e) {
      const std::string message = e.what();
      EXPECT_NE(message.find("vtep-ctl"), std::string::npos) << message;
      EXPECT_NE(message.find("no-such-switch"), std::string::npos) << message;
      EXPECT_NE(message.find("ovsdb-server.log"), std::string::npos) << message;
    }
  }
  EXPECT_FALSE(fs::exists(directory));
}

}  // namespace
}  // namespace Vgw::Test
