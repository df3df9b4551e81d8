// Data a controller may legally write, however odd: each case is written
// into the database in turn, and after each the agent must still serve, its
// mirror hold what the server holds and its published state be what the
// rows call for. At the end a fresh agent starts on all of it.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "RobustSupport.h"

namespace Vgw::Test {
namespace {

using Kiln::Json;

// A tunnel key as the controller writes it: a number, or none.
Json keyValue(const Json& key) { return key.is_null() ? Json::array({"set", Json::array()}) : key; }

Json updateSwitch(const std::string& name, const Json& row) {
  return {{"op", "update"},
          {"table", "Logical_Switch"},
          {"where", Json::array({Json::array({"name", "==", name})})},
          {"row", row}};
}

class OddData : public ::testing::Test {
 protected:
  void TearDown() override { agent.stop(); }

  void setKey(const std::string& name, const Json& key) {
    db.transact(Json::array({updateSwitch(name, {{"tunnel_key", keyValue(key)}})}));
  }
  void host(const std::string& ls, const std::string& m, const std::string& vtep, const std::string& address = "") {
    Json ops = Json::array();
    db.ucastRemote(ops, switches.at(ls), m, vtep, address);
    db.transact(ops);
  }
  // A flood set of `vteps` for `m` on `ls`, each a new locator of that
  // address with its own tunnel key, so that one address may appear twice.
  void flood(const std::string& ls, const std::string& m, const std::vector<std::string>& vteps) {
    Json ops = Json::array();
    Json members = Json::array();
    for (const std::string& vtep : vteps) {
      const std::string name = "l" + std::to_string(++locators);
      ops.push_back(insertOp("Physical_Locator", name,
                             {{"encapsulation_type", "vxlan_over_ipv4"}, {"dst_ip", vtep}, {"tunnel_key", locators}}));
      members.push_back(Json::array({"named-uuid", name}));
    }
    ops.push_back(insertOp("Physical_Locator_Set", "set", {{"locators", Json::array({"set", members})}}));
    ops.push_back(insertOp("Mcast_Macs_Remote", "m", {{"MAC", m}, {"logical_switch", uuidRef(switches.at(ls))}}));
    ops.back()["row"]["locator_set"] = Json::array({"named-uuid", "set"});
    db.transact(ops);
  }
  void addSwitch(const std::string& name, const Json& key) {
    Json row = {{"name", name}};
    if (!key.is_null()) row["tunnel_key"] = key;
    switches[name] = db.transact(Json::array({insertOp("Logical_Switch", "ls", row)})).at("ls");
  }

  LoopRunner loop;
  OvsdbServer server;
  Controller db{server};
  AgentUnderTest agent{loop, server};
  std::map<std::string, Uuid> switches;
  int locators = 0;
};

TEST_F(OddData, legalButOddControllerDataLeavesTheAgentServingAndItsPublishedStateRight) {
  agent.start();
  addSwitch("blue", 5000);
  addSwitch("green", 6000);
  host("blue", "00:00:00:00:00:0a", "10.0.0.1", "10.1.1.10");
  host("green", "00:00:00:00:00:0b", "10.0.0.2");
  const std::string longName(20 * 1024, 'n');
  const std::vector<std::pair<const char*, std::function<void()>>> cases = {
      {"a key cleared on a switch with hosts", [&] { setKey("blue", nullptr); }},
      {"a key cleared on a switch without hosts", [&] { setKey("green", nullptr); }},
      {"keys back", [&] { setKey("blue", 5000), setKey("green", 6000); }},
      {"a second switch takes a held key", [&] { addSwitch("red", 5000); }},
      {"the second switch goes again", [&] { db.transact(Json::array({deleteOp("Logical_Switch", "name", "red")})); }},
      {"a second switch takes a held key and is re-keyed", [&] { addSwitch("red", 5000), setKey("red", 7000); }},
      {"the first holder re-keyed onto a held key", [&] { setKey("blue", 7000); }},
      {"and back", [&] { setKey("blue", 5000); }},
      {"a key one past the VNI range", [&] { setKey("red", 16777216); }},
      {"a negative key", [&] { setKey("red", -1); }},
      {"a key of 2^32", [&] { setKey("red", 4294967296LL); }},
      {"VNI 0 and the highest VNI", [&] { setKey("red", 0), setKey("green", 16777215); }},
      {"a host behind an IPv6 VTEP", [&] { host("blue", "00:00:00:00:00:0c", "2001:db8::1", "10.1.1.12"); }},
      {"a host behind a VTEP that is no address", [&] { host("blue", "00:00:00:00:00:0d", "not-an-address"); }},
      {"a host behind the all-zero VTEP", [&] { host("blue", "00:00:00:00:00:0e", "0.0.0.0"); }},
      {"a host behind a loopback VTEP", [&] { host("blue", "00:00:00:00:00:0f", "127.0.0.1", "10.1.1.15"); }},
      {"a flood set with IPv6 and unreadable members", [&] { flood("blue", "unknown-dst", {"10.0.0.3", "2001:db8::2", "x"}); }},
      {"a flood set of IPv6 members only", [&] { flood("blue", "01:00:5e:00:00:01", {"2001:db8::3", "2001:db8::4"}); }},
      {"a flood set naming one address twice", [&] { flood("green", "unknown-dst", {"10.0.0.4", "10.0.0.4"}); }},
      {"a unicast MAC of zero", [&] { host("green", "00:00:00:00:00:00", "10.0.0.2"); }},
      {"very long names and texts",
       [&] {
         db.transact(Json::array({updateSwitch("blue", {{"description", longName}}),
                                  insertOp("Logical_Switch", "long", {{"name", longName}, {"tunnel_key", 8000}})}));
         host("green", "00:00:00:00:00:1" + longName, "10.0.0.2", longName);
       }},
      {"ARP sources without a MAC", [&] {
         Json ops = Json::array();
         for (const char* m : {"", "not-a-mac"}) {
           ops.push_back(insertOp("Arp_Sources_Remote", "a", {{"src_mac", m}}));
           ops.back()["row"]["locator"] = db.locator("10.0.0.1", ops);
           ops.back().erase("uuid-name");
         }
         db.transact(ops);
       }},
      {"a switch binding keyed by no address", [&] {
         db.transact(Json::array({insertOp("Logical_Router", "lr",
                                           {{"name", "lr1"},
                                            {"switch_binding", Json::array({"map", Json::array({Json::array({"nonsense", uuidRef(switches.at("blue"))}),
                                                                                                Json::array({"10.1.1.1/24", uuidRef(switches.at("blue"))})})})}})}));
       }},
      {"10,000 logical switches in one transaction", [&] {
         Json ops = Json::array();
         for (int i = 0; i < 10000; ++i) {
           ops.push_back({{"op", "insert"}, {"table", "Logical_Switch"}, {"row", {{"name", "bulk" + std::to_string(i)}, {"tunnel_key", 100000 + i}}}});
         }
         ASSERT_TRUE(transactLarge(server, ops));
       }},
  };
  for (const auto& [what, write] : cases) {
    SCOPED_TRACE(what);
    write();
    ASSERT_TRUE(db.synced(loop, [&] { return agent.mirror(); })) << "the agent stopped following the database";
    expectThreeWayAgreement(db, agent);
  }
  EXPECT_EQ(agent.agent()->status()->ovsdbSessionStatus()->disconnectCount(), 0u);

  // A fresh agent on all of it.
  agent.stop();
  agent.start();
  ASSERT_TRUE(db.synced(loop, [&] { return agent.mirror(); }));
  expectThreeWayAgreement(db, agent);
}

}  // namespace
}  // namespace Vgw::Test
