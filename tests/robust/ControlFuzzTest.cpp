// The control socket of a running agent fed at random: bytes that are no
// JSON, requests cut short, hostile paths, values of the wrong type, values
// the configuration's rules refuse, writes to what the agent owns, and
// clients that go away in the middle. Every write among them is refused,
// the store is as it was after each, and the agent goes on serving the
// socket and the database. VGW_ROBUST_ITERATIONS multiplies the requests.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "ControlClient.h"
#include "Ledger/ControlServer.h"
#include "RobustSupport.h"

namespace Vgw::Test {
namespace {

using Kiln::Json;

// A request that must be refused, drawn at random.
class HostileRequests {
 public:
  explicit HostileRequests(unsigned seed) : random_(seed) {}

  std::string next() {
    switch (pick(7)) {
      case 0: return noise();
      case 1: return cut(Json({{"op", "set"}, {"path", "vgw/cliconfig/maxOps"}, {"value", 0}}).dump());
      case 2:  // written by hand: a path may hold bytes that are no UTF-8
        return std::string(R"({"op": ")") + pickOf({"set", "del", "load", "watch", "get"}) + R"(", "path": ")" +
               hostilePath() + R"(", "value": 1, "document": {")" + hostilePath() + R"(": {}}})";
      case 3: return wrongType().dump();
      case 4: return ruleBreach().dump();
      case 5: return agentOwned().dump();
      default: return Json({{"op", pickOf({"shutdown", "", "SET", "eval"})}, {"path", "vgw/cliconfig"}}).dump();
    }
  }

 private:
  std::size_t pick(std::size_t n) { return random_() % n; }
  template <std::size_t N>
  const char* pickOf(const char* const (&choices)[N]) {
    return choices[pick(N)];
  }
  std::string noise() {
    std::string bytes(1 + pick(200), '\0');
    for (char& c : bytes) {
      c = static_cast<char>(random_());
      if (c == '\n') c = ' ';
    }
    // A line of blanks only is no request at all, and gets no answer.
    bytes[0] = '#';
    return bytes;
  }
  // A valid request cut short somewhere, or with a byte changed.
  std::string cut(std::string request) {
    if (pick(2)) return request.substr(0, 1 + pick(request.size() - 1));
    request[pick(request.size())] = static_cast<char>("{}[]\",:\\"[pick(8)]);
    return request;
  }
  std::string hostilePath() {
    const char* const paths[] = {"", "/", "//", "../../etc/passwd", "vgw/../vgw/cliconfig", "vgw//cliconfig", "%",
                                 "%zz", "vgw/cliconfig/managerAddress/%2F%2F", "vgw/cliconfig/\xff\xfe",
                                 "vgw/cliconfig/maxOps/deeper", "vgw/cliconfig/enableAgent/x/y/z",
                                 "fleet/cluster/statusDir/status/default/isStandaloneOrLeader/x"};
    std::string path = paths[pick(std::size(paths))];
    if (pick(8) == 0) path = std::string(20000, 'a') + "/" + path;
    return path;
  }
  Json wrongType() {
    // None of these is a value of any of these paths.
    const Json values[] = {"1000", -1, 65536, Json::array(), Json::object(), nullptr, "yes"};
    const char* const paths[] = {"vgw/cliconfig/maxOps", "vgw/cliconfig/enableAgent", "vgw/cliconfig/vtepListType",
                                 "vgw/config/ovsdbDeadline", "vgw/cliconfig/managerAddress/ssl:10.0.0.1:6640"};
    switch (pick(4)) {
      case 0: return {{"op", "set"}, {"path", paths[pick(std::size(paths))]}, {"value", values[pick(std::size(values))]}};
      case 1: return {{"op", 42}, {"path", "vgw/cliconfig/maxOps"}, {"value", 1}};
      case 2: return {{"op", "set"}, {"path", Json::array({"vgw", "cliconfig"})}, {"value", 1}};
      default: return {{"op", "set"}, {"path", "vgw/cliconfig/maxOps"}};
    }
  }
  Json ruleBreach() {
    const Json breaches[] = {
        {{"op", "set"}, {"path", "vgw/cliconfig/maxOps"}, {"value", 0}},
        {{"op", "set"}, {"path", "vgw/config/ovsdbSocketPath"}, {"value", ""}},
        {{"op", "set"}, {"path", "vgw/config/ovsdbDeadline"}, {"value", 0}},
        {{"op", "set"}, {"path", "vgw/cliconfig/managerAddress/not-a-target"}, {"value", true}},
        {{"op", "set"}, {"path", "vgw/cliconfig/managerAddress/tcp:10.0.0.1:70000"}, {"value", true}},
        {{"op", "load"}, {"document", {{"vgw/cliconfig", {{"maxOps", 0}, {"enableAgent", true}}}}}},
        {{"op", "set"}, {"path", "vgw/cliconfig"}, {"value", {{"enableAgent", true}, {"maxOps", 0}}}},
    };
    return breaches[pick(std::size(breaches))];
  }
  Json agentOwned() {
    const Json writes[] = {
        {{"op", "set"}, {"path", "vgw/status/running"}, {"value", false}},
        {{"op", "del"}, {"path", "vgw/status/ovsdb"}},
        {{"op", "set"}, {"path", "vgw/version2/vniStatusDir"}, {"value", Json::object()}},
        {{"op", "del"}, {"path", "vgw/version2/vniStatusDir/vniStatusV2/5000"}},
        {{"op", "load"}, {"document", {{"vgw/status", {{"running", false}}}}}},
        {{"op", "del"}, {"path", "vgw/cliconfig"}},
        {{"op", "set"}, {"path", "vgw"}, {"value", Json::object()}},
    };
    return writes[pick(std::size(writes))];
  }

  std::mt19937 random_;
};

TEST(ControlFuzz, hostileClientsChangeNothingTheyWereRefusedAndTheAgentServesOn) {
  LoopRunner loop;
  OvsdbServer server;
  Controller db{server};
  AgentUnderTest agent{loop, server};
  const Uuid blue = db.addLogicalSwitch("blue", 5000);
  Json ops = Json::array();
  db.ucastRemote(ops, blue, "00:00:00:00:00:0a", "10.0.0.1", "10.1.1.10");
  db.transact(ops);
  agent.start();
  ASSERT_TRUE(db.synced(loop, [&] { return agent.mirror(); }));
  Ledger::ControlServer control(Kiln::Ptr<Ledger::EntityManager>(&agent.store()));
  const std::string socketPath = (server.directory() / "control.sock").string();
  control.listen(socketPath);

  HostileRequests requests(7);
  const Json before = agent.store().read("");
  const int count = 1000 * robustIterations(1);
  int refused = 0;
  for (int i = 0; i < count; ++i) {
    const std::string request = requests.next();
    SCOPED_TRACE(request.substr(0, 200));
    TestClient client(socketPath);
    switch (i % 5) {
      case 0:  // goes before the line is complete
        client.write(request.substr(0, request.size() / 2));
        break;
      case 1:  // goes before the reply is read
        client.write(request + "\n");
        break;
      default: {
        client.write(request + "\n");
        const Json reply = client.message();
        ASSERT_TRUE(reply.is_object()) << "no reply";
        // Reading even a hostile path may succeed; a write may not.
        const Json parsed = Json::parse(request, nullptr, false);
        const std::string op = parsed.is_object() && parsed.contains("op") && parsed["op"].is_string() ? parsed["op"] : "";
        if (op == "get" || op == "watch" || op == "list") break;
        EXPECT_EQ(reply.value("ok", true), false) << reply.dump().substr(0, 300);
        ++refused;
      }
    }
    loop.settle();
    ASSERT_EQ(agent.store().read(""), before);
  }
  loop.runUntil([&] { return control.connections() == 0; });
  EXPECT_EQ(control.connections(), 0u) << "every client that went is gone";
  EXPECT_GT(refused, count / 2);

  // The socket and the database are served as before.
  TestClient client(socketPath);
  EXPECT_EQ(client.call({{"op", "get"}, {"path", "vgw/cliconfig/maxOps"}, {"id", 1}}),
            Json({{"id", 1}, {"ok", true}, {"value", 1000}}));
  ops = Json::array();
  db.ucastRemote(ops, blue, "00:00:00:00:00:0b", "10.0.0.2");
  db.transact(ops);
  ASSERT_TRUE(db.synced(loop, [&] { return agent.mirror(); }));
  expectThreeWayAgreement(db, agent);
  agent.stop();
}

}  // namespace
}  // namespace Vgw::Test
