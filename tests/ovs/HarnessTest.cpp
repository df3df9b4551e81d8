// The test harness's private ovsdb-server: what a fresh one holds, where it
// keeps its files, and that a restart keeps the database.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "OvsdbServer.h"
#include "OvscSupport.h"

namespace Vgw::Test {
namespace {

namespace fs = std::filesystem;

TEST(OvsHarness, FreshServerHoldsOneGlobalRow) {
  OvsdbServer server;
  EXPECT_TRUE(server.running());
  auto global = nlohmann::json::parse(server.dump("Global"));
  ASSERT_EQ(global.size(), 1u) << global;
  EXPECT_EQ(global[0]["switches"], nlohmann::json::parse(R"(["set", []])"));
  EXPECT_EQ(nlohmann::json::parse(server.dump("Physical_Switch")), nlohmann::json::array());
}

TEST(OvsHarness, FilesStayInItsDirectory) {
  fs::path directory;
  {
    OvsdbServer server;
    directory = server.directory();
    EXPECT_EQ(fs::path(server.socketPath()).parent_path(), directory);
    EXPECT_EQ(server.target(), "unix:" + server.socketPath());
    EXPECT_TRUE(fs::is_socket(server.socketPath()));
    EXPECT_TRUE(fs::exists(directory / "vtep.db"));
    EXPECT_TRUE(fs::exists(directory / "ovsdb-server.log"));
    EXPECT_TRUE(fs::exists(directory / "ovsdb-server.pid"));
    EXPECT_TRUE(fs::is_socket(directory / "ovsdb-server.ctl"));

    OvsdbServer other;
    EXPECT_NE(other.directory(), directory);
  }
  EXPECT_FALSE(fs::exists(directory));
}

TEST(OvsHarness, RestartKeepsTheDatabase) {
  OvsdbServer server;
  server.vtepCtl("add-ps", "sw0");
  server.vtepCtl("add-ls", "ls0");
  server.vtepCtl("set", "Logical_Switch", "ls0", "tunnel_key=5000");

  server.stop();
  EXPECT_FALSE(server.running());
  EXPECT_FALSE(fs::exists(server.socketPath()));
  EXPECT_THROW(server.dump("Physical_Switch"), std::runtime_error);
  server.stop();  // Stopping twice is harmless.

  // Changed contents while it was down, as a restarted controller's
  // database would have.
  server.start();
  EXPECT_TRUE(server.running());
  EXPECT_THROW(server.start(), std::runtime_error);
  EXPECT_EQ(server.vtepCtl("list-ps"), "sw0");
  EXPECT_EQ(server.vtepCtl("get", "Logical_Switch", "ls0", "tunnel_key"), "5000");
  auto global = nlohmann::json::parse(server.dump("Global"));
  ASSERT_EQ(global.size(), 1u);
  EXPECT_EQ(global[0]["switches"][0], "uuid");  // The one switch, as a single reference.

  RpcPtr rpc = connect(server.target());
  EXPECT_TRUE(rpc);
}

TEST(OvsHarness, FailuresNameTheProblem) {
  OvsdbServer server;
  std::optional<std::string> message;
  try {
    server.vtepCtl("del-ps", "no-such-switch");
  } catch (const std::runtime_error& e) {
    message = e.what();
  }
  ASSERT_TRUE(message);
  EXPECT_NE(message->find("vtep-ctl"), std::string::npos) << *message;
  EXPECT_NE(message->find("no-such-switch"), std::string::npos) << *message;
  EXPECT_NE(message->find("ovsdb-server.log"), std::string::npos) << *message;

  message.reset();
  try {
    server.dump("No_Such_Table");
  } catch (const std::runtime_error& e) {
    message = e.what();
  }
  ASSERT_TRUE(message);
  EXPECT_NE(message->find("No_Such_Table"), std::string::npos) << *message;
}

TEST(OvsHarness, TransactReturnsTheReplyIncludingErrors) {
  OvsdbServer server;
  auto inserted = nlohmann::json::parse(server.transact(
      R"(["hardware_vtep", {"op": "insert", "table": "Logical_Switch", "row": {"name": "ls1"}}])"));
  ASSERT_TRUE(inserted[0].contains("uuid")) << inserted;

  auto refused = nlohmann::json::parse(server.transact(
      R"(["hardware_vtep", {"op": "insert", "table": "Logical_Switch", "row": {"nom": "x"}}])"));
  ASSERT_TRUE(refused[0].contains("error")) << refused;

  auto rows = nlohmann::json::parse(server.dump("Logical_Switch"));
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0]["_uuid"], inserted[0]["uuid"]);
}

}  // namespace
}  // namespace Vgw::Test
