// The roads between the controller and the fabric, with the whole agent
// in-process: started by the agent host on the example configuration,
// against a real ovsdb-server, so that the root state machine builds the
// session and the machines as in production. A remote host goes from the
// controller's rows to the fabric (the monitor's narrow and full paths both
// run); the controller writes with JSON transactions and vtep-ctl, and what
// the fabric sees is read from the state store at vgw/version2/vniStatusDir.
// The example fabric goes the other way, loaded as an operator loads it, and
// read back with vtep-ctl.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>

#include "Hearth/AgentRunner.h"
#include "SessionSupport.h"
#include "Vgw/InventorySm.h"
#include "Vgw/VgwAgent.h"

namespace Vgw::Test {
namespace {

using Ipkit::EthAddr;
using Ipkit::IpAddr;
using Kiln::Json;
using OverlaySvc::IpToMacV2;
using OverlaySvc::MacVtepV2;

constexpr const char* vniStatusPath = "vgw/version2/vniStatusDir";

MacVtepV2 macEntry(const char* m, const char* vtep) { return MacVtepV2(mac(m), IpAddr::parse(vtep), 1, 32); }
IpToMacV2 ipEntry(const char* address, const char* m) { return IpToMacV2(ip(address), mac(m), 1, 32); }

class VgwRoad : public testing::Test {
 protected:
  void SetUp() override {
    freshLocalData();
    setenv("RINGTAPEDIR", server.directory().c_str(), 1);
    setenv("VGW_TAPELOCK_FILEPATH", (server.directory() / "tape.lock").c_str(), 1);
    Ledger::EntityManager& store = *runner.localEntityManager();
    typeAgentPaths(store);
    std::ifstream example(EXAMPLE_CONFIG);
    Json document = Json::parse(std::string(std::istreambuf_iterator<char>(example), {}));
    document["vgw/config"]["ovsdbSocketPath"] = server.socketPath();
    store.loadDocument(document);
    agent = Kiln::staticPtrCast<Agent>(runner.agentIs(agentFactory));
    ASSERT_TRUE(loop.runUntil([&] {
      const Kiln::Ptr<RootSm>& root = agent->rootSm();
      return root && root->cliConfigSm() && root->remoteHostSm();
    })) << "the agent did not reach a converged session";
    vniStatusDir = store.getEntity<OverlaySvc::VniStatusDirV2>(vniStatusPath);
    ASSERT_TRUE(vniStatusDir);
  }
  void TearDown() override {
    agent = nullptr;
    RingTape::close();
  }

  Kiln::Ptr<OverlaySvc::VniStatusV2> published(int vni) const { return vniStatusDir->vniStatusV2(Vxlan::Vni(vni)); }
  bool publishes(int vni, const char* m) const {
    return published(vni) && published(vni)->macVtepTable().contains(mac(m));
  }
  // Waits until the published entry of `m` in `vni` is behind `vtep`.
  bool publishedBehind(int vni, const char* m, const char* vtep) {
    const auto behind = [&] { return published(vni)->macVtepTable(mac(m)).vtepIp() == IpAddr::parse(vtep); };
    return loop.runUntil([&] { return publishes(vni, m) && behind(); });
  }

  // The mark is an update of Global, so the agent takes the full path.
  void sync() { ASSERT_TRUE(db.synced(loop, [&] { return agent->status()->ovsdb(); })); }

  // One host move in one transaction, as a controller makes it: the old row
  // out, a new row behind `vtep` in.
  void move(const Uuid& ls, const char* m, const char* vtep, const char* address) {
    Json ops = Json::array({deleteOp("Ucast_Macs_Remote", "MAC", m)});
    db.ucastRemote(ops, ls, m, vtep, address);
    db.transact(ops);
  }

  LoopRunner loop;
  OvsdbServer server;
  Controller db{server};
  Hearth::AgentRunner runner{"VgwRoadTest"};
  Kiln::Ptr<Agent> agent;
  Kiln::Ptr<OverlaySvc::VniStatusDirV2> vniStatusDir;
};

TEST_F(VgwRoad, RemoteMacIsPublishedWithItsVtepAndFollowsMovesOnBothPathsAndItsDelete) {
  TraceCapture trace("VgwRequestHandler/6");
  const Uuid blue = db.addLogicalSwitch("blue", 5000);
  Json ops = Json::array();
  db.ucastRemote(ops, blue, "00:00:00:00:00:0a", "10.0.0.1", "10.1.1.10");
  db.ucastRemote(ops, blue, "00:00:00:00:00:0b", "10.0.0.2");
  // Keeps the first VTEP's locator referenced while host a moves away.
  db.ucastRemote(ops, blue, "00:00:00:00:00:0c", "10.0.0.1");
  db.transact(ops);
  ASSERT_TRUE(publishedBehind(5000, "00:00:00:00:00:0a", "10.0.0.1"));
  ASSERT_TRUE(publishedBehind(5000, "00:00:00:00:00:0c", "10.0.0.1"));
  EXPECT_EQ(published(5000)->macVtepTable(mac("00:00:00:00:00:0a")), macEntry("00:00:00:00:00:0a", "10.0.0.1"));
  EXPECT_EQ(published(5000)->macVtepTable(mac("00:00:00:00:00:0b")), macEntry("00:00:00:00:00:0b", "10.0.0.2"));
  EXPECT_EQ(published(5000)->ipToMacTable(),
            (OverlaySvc::VniStatusV2::IpToMacTableType{{ip("10.1.1.10"), ipEntry("10.1.1.10", "00:00:00:00:00:0a")}}));
  const std::size_t narrowBefore = trace.count("Optimal path");

  // To a VTEP the database knows: the update holds only remote MAC rows.
  move(blue, "00:00:00:00:00:0a", "10.0.0.2", "10.1.1.10");
  ASSERT_TRUE(publishedBehind(5000, "00:00:00:00:00:0a", "10.0.0.2"));
  EXPECT_EQ(trace.count("Optimal path"), narrowBefore + 1);
  EXPECT_EQ(published(5000)->macVtepTable(mac("00:00:00:00:00:0a")), macEntry("00:00:00:00:00:0a", "10.0.0.2"));
  EXPECT_EQ(published(5000)->ipToMacTable(ip("10.1.1.10")), ipEntry("10.1.1.10", "00:00:00:00:00:0a"));

  // To a new VTEP: the update brings its locator, and the full path runs.
  move(blue, "00:00:00:00:00:0a", "10.0.0.3", "10.1.1.10");
  ASSERT_TRUE(publishedBehind(5000, "00:00:00:00:00:0a", "10.0.0.3"));
  EXPECT_EQ(trace.count("Optimal path"), narrowBefore + 1);
  EXPECT_EQ(published(5000)->ipToMacTable(ip("10.1.1.10")), ipEntry("10.1.1.10", "00:00:00:00:00:0a"));

  db.transact(Json::array({deleteOp("Ucast_Macs_Remote", "MAC", "00:00:00:00:00:0a")}));
  ASSERT_TRUE(loop.runUntil([&] { return !publishes(5000, "00:00:00:00:00:0a"); }));
  EXPECT_TRUE(published(5000)->ipToMacTable().empty());
  EXPECT_EQ(published(5000)->macVtepTable(),
            (OverlaySvc::VniStatusV2::MacVtepTableType{
                {mac("00:00:00:00:00:0b"), macEntry("00:00:00:00:00:0b", "10.0.0.2")},
                {mac("00:00:00:00:00:0c"), macEntry("00:00:00:00:00:0c", "10.0.0.1")}}));
}

TEST_F(VgwRoad, UnknownDstFloodsToTheVtepsOfItsLocatorSetAsTheControllerEditsIt) {
  server.vtepCtl("add-ls", "blue");
  server.vtepCtl("set", "Logical_Switch", "blue", "tunnel_key=5000");
  server.vtepCtl("add-mcast-remote", "blue", "unknown-dst", "10.0.0.1");
  server.vtepCtl("add-mcast-remote", "blue", "unknown-dst", "10.0.0.2");
  const auto floodsTo = [&](std::set<IpAddr> vteps) {
    return loop.runUntil([&] {
      if (!published(5000)) return false;
      const auto entry = published(5000)->macVtepFloodListTable(EthAddr());
      return entry && keysOf(entry->vtepIpFloodList()) == vteps;
    });
  };
  EXPECT_TRUE(floodsTo({IpAddr::parse("10.0.0.1"), IpAddr::parse("10.0.0.2")}));
  EXPECT_EQ(published(5000)->macVtepFloodListTable().size(), 1u);
  EXPECT_TRUE(published(5000)->macVtepMultiPathTable().empty());

  server.vtepCtl("add-mcast-remote", "blue", "unknown-dst", "10.0.0.3");
  EXPECT_TRUE(floodsTo({IpAddr::parse("10.0.0.1"), IpAddr::parse("10.0.0.2"), IpAddr::parse("10.0.0.3")}));
  server.vtepCtl("del-mcast-remote", "blue", "unknown-dst", "10.0.0.1");
  EXPECT_TRUE(floodsTo({IpAddr::parse("10.0.0.2"), IpAddr::parse("10.0.0.3")}));
  server.vtepCtl("clear-remote-macs", "blue");
  EXPECT_TRUE(loop.runUntil([&] { return published(5000)->macVtepFloodListTable().empty(); }));
}

TEST_F(VgwRoad, ADuplicateTunnelKeyPublishesNothingUntilOneSwitchHoldsIt) {
  // Both claim VNI 5000 from the start; green has a VNI of its own.
  Json ops = Json::array();
  for (const auto& [name, key] : std::map<std::string, int>{{"blue", 5000}, {"red", 5000}, {"green", 6000}}) {
    ops.push_back(insertOp("Logical_Switch", name, {{"name", name}, {"tunnel_key", key}}));
  }
  const std::map<std::string, Uuid> switches = db.transact(ops);
  ops = Json::array();
  db.ucastRemote(ops, switches.at("blue"), "00:00:00:00:00:0a", "10.0.0.1", "10.1.1.10");
  db.ucastRemote(ops, switches.at("red"), "00:00:00:00:00:0b", "10.0.0.2");
  db.ucastRemote(ops, switches.at("green"), "00:00:00:00:00:0c", "10.0.0.1");
  db.transact(ops);
  ASSERT_TRUE(publishedBehind(6000, "00:00:00:00:00:0c", "10.0.0.1"));
  sync();
  EXPECT_FALSE(published(5000));
  EXPECT_EQ(keysOf(vniStatusDir->vniStatusV2()), std::set<Vxlan::Vni>{Vxlan::Vni(6000)});

  // Red goes; blue alone holds the key and its hosts reach the fabric.
  db.transact(Json::array({deleteOp("Ucast_Macs_Remote", "MAC", "00:00:00:00:00:0b"),
                           deleteOp("Logical_Switch", "name", "red")}));
  ASSERT_TRUE(publishedBehind(5000, "00:00:00:00:00:0a", "10.0.0.1"));
  EXPECT_EQ(published(5000)->macVtepTable().size(), 1u);
  EXPECT_EQ(published(5000)->ipToMacTable(ip("10.1.1.10")), ipEntry("10.1.1.10", "00:00:00:00:00:0a"));
}

TEST_F(VgwRoad, AHostOnALoopbackOrAllZeroVtepLeavesTheFabricWhileItsRowStays) {
  const Uuid blue = db.addLogicalSwitch("blue", 5000);
  Json ops = Json::array();
  db.ucastRemote(ops, blue, "00:00:00:00:00:01", "127.0.0.1", "10.1.1.1");
  db.ucastRemote(ops, blue, "00:00:00:00:00:02", "0.0.0.0");
  db.ucastRemote(ops, blue, "00:00:00:00:00:0a", "10.0.0.1", "10.1.1.10");
  db.transact(ops);
  ASSERT_TRUE(publishedBehind(5000, "00:00:00:00:00:0a", "10.0.0.1"));
  EXPECT_EQ(keysOf(published(5000)->macVtepTable()), std::set<EthAddr>{mac("00:00:00:00:00:0a")});
  EXPECT_FALSE(published(5000)->ipToMacTable().contains(ip("10.1.1.1")));

  // The controller points host a at the all-zero VTEP.
  db.transact(Json::array({{{"op", "update"},
                            {"table", "Ucast_Macs_Remote"},
                            {"where", Json::array({Json::array({"MAC", "==", "00:00:00:00:00:0a"})})},
                            {"row", {{"locator", uuidRef(db.locatorUuid("0.0.0.0"))}}}}}));
  ASSERT_TRUE(loop.runUntil([&] { return !publishes(5000, "00:00:00:00:00:0a"); }));
  sync();
  EXPECT_TRUE(published(5000)->macVtepTable().empty());
  EXPECT_EQ(db.rows("Ucast_Macs_Remote").size(), 3u);
  const Kiln::Ptr<RemoteHostTable> table = Kiln::Entity::singletonIs<LocalData>()->remoteHostTable(blue);
  EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:0a")).physicalLocator(), db.locatorUuid("0.0.0.0"));
}

TEST_F(VgwRoad, ASecondFullReconciliationOfAnUnchangedDatabaseWritesNoMacEntry) {
  const Uuid blue = db.addLogicalSwitch("blue", 5000);
  Json ops = Json::array();
  db.ucastRemote(ops, blue, "00:00:00:00:00:0a", "10.0.0.1", "10.1.1.10");
  db.ucastRemote(ops, blue, "00:00:00:00:00:0b", "10.0.0.2", "10.1.1.11");
  db.transact(ops);
  server.vtepCtl("add-mcast-remote", "blue", "unknown-dst", "10.0.0.1");
  server.vtepCtl("add-mcast-remote", "blue", "unknown-dst", "10.0.0.2");
  server.vtepCtl("add-mcast-remote", "blue", "01:00:5e:00:00:01", "10.0.0.2");
  ASSERT_TRUE(loop.runUntil([&] { return published(5000) && published(5000)->macVtepFloodListTable().size() == 2; }));
  ASSERT_TRUE(publishedBehind(5000, "00:00:00:00:00:0b", "10.0.0.2"));
  sync();

  // What the overlay service would hear: every change below the directory.
  std::map<std::string, int> writes;
  const auto watch = runner.localEntityManager()->watch(vniStatusPath, [&](const std::string& path, const Json&) {
    for (const char* table : {"/macVtepTable", "/macVtepMultiPathTable", "/macVtepFloodListTable", "/ipToMacTable"}) {
      if (path.find(table) != std::string::npos) ++writes[table];
    }
  });
  TraceCapture trace("VgwRemoteHost/5");
  sync();
  EXPECT_EQ(trace.count("RemoteHostSm::handleInitialized()"), 1u);
  EXPECT_EQ(writes, (std::map<std::string, int>{})) << "a full pass over what is published changes nothing";

  // The same watch hears a real change.
  move(blue, "00:00:00:00:00:0a", "10.0.0.2", "10.1.1.10");
  ASSERT_TRUE(publishedBehind(5000, "00:00:00:00:00:0a", "10.0.0.2"));
  EXPECT_GT(writes["/macVtepTable"], 0);
}

TEST_F(VgwRoad, TheExampleFabricAppearsForTheControllerAndLeavesWithTheAgent) {
  Ledger::EntityManager& store = *runner.localEntityManager();
  std::ifstream fabric(EXAMPLE_FABRIC);
  store.loadDocument(Json::parse(std::string(std::istreambuf_iterator<char>(fabric), {})));
  const auto switchesInGlobal = [&] {
    const Json switches = db.rows("Global").at(0)["switches"];
    return switches[0] == "set" ? switches[1].size() : 1u;
  };
  loop.advance(0.5);
  EXPECT_EQ(server.vtepCtl("list-ps"), "leaf1\nleaf2");
  EXPECT_EQ(server.vtepCtl("list-ports", "leaf2"), "Ethernet1\nEthernet2\nEthernet3\nPort-Channel10");
  EXPECT_EQ(switchesInGlobal(), 2u);
  EXPECT_EQ(db.rows("Arp_Sources_Local").size(), 2u);

  // A port VLAN the controller binds becomes the VTEP's configuration.
  const std::string bindings =
      "overlaysvc/version2/input/dynVtepConfig/vgw/switch/00:1c:73:00:00:01/vtepConfig/Vxlan1/vlanToVniMap";
  db.addLogicalSwitch("ls0", 5000);
  server.vtepCtl("bind-ls", "leaf1", "Ethernet1", "100", "ls0");
  ASSERT_TRUE(loop.runUntil([&] { return !store.read(bindings).empty(); }));
  EXPECT_EQ(store.read(bindings), Json::parse(R"({"{\"port\":\"Ethernet1\",\"vlanId\":100}": 5000})"));

  // As `vgwctl set vgw/cliconfig/enableAgent false` and back.
  store.write("vgw/cliconfig/enableAgent", false, Ledger::Writer::external);
  EXPECT_FALSE(agent->status()->running());
  EXPECT_EQ(switchesInGlobal(), 0u);
  EXPECT_THROW(store.read(bindings), std::exception) << "the agent's bindings leave with it";
  EXPECT_EQ(server.vtepCtl("list-ps"), "");
  store.write("vgw/cliconfig/enableAgent", true, Ledger::Writer::external);
  ASSERT_TRUE(loop.runUntil([&] { return agent->rootSm()->inventorySm() != nullptr; }));
  EXPECT_EQ(server.vtepCtl("list-ps"), "leaf1\nleaf2");
  EXPECT_EQ(db.rows("Arp_Sources_Local").size(), 2u);
  // The ports are new rows, which the controller has not bound yet.
  EXPECT_TRUE(store.read(bindings).empty());
}

}  // namespace
}  // namespace Vgw::Test
