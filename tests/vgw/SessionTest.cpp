// The database session against a real ovsdb-server: the subscription and the
// first contents, what the controller writes reaching the mirror, the remote
// host tables and the published VNI status, host moves and real conflicts,
// a server that goes away and comes back changed, the agent's own rows, and
// the requests the handler must not send. Timers run on simulated time; the
// loop waits only for the server's answers.
#include <gtest/gtest.h>

#include "SessionSupport.h"
#include "Vgw/VgwUtils.h"

namespace Vgw::Test {
namespace {

using Ipkit::EthAddr;
using Ipkit::IpAddr;
using Kiln::Json;

class VgwSession : public ::testing::Test {
 protected:
  void SetUp() override { freshLocalData(); }
  void TearDown() override { freshLocalData(); }

  void connect() {
    root.enable();
    ASSERT_TRUE(reach(SessionState::stateConnected)) << status().lastResult();
  }

  bool reach(SessionState state) { return runner.runUntil([&] { return root.state() == state; }); }
  void sync() { ASSERT_TRUE(db.synced(runner, [&] { return root.ovsdb; })); }

  const LocalData& local() const { return *Kiln::Entity::singletonIs<LocalData>(); }
  Kiln::Ptr<RemoteHostTable> hosts(const Uuid& ls) const { return local().remoteHostTable(ls); }
  Kiln::Ptr<OverlaySvc::VniStatusV2> published(int vni) const {
    return root.vniStatusDir->vniStatusV2(Vxlan::Vni(vni));
  }
  IpAddr vtepOf(int vni, const char* host) const {
    return published(vni) ? published(vni)->macVtepTable(mac(host)).vtepIp() : IpAddr();
  }
  const OvsdbSessionStatus& status() const { return *root.sessionStatus; }

  LoopRunner runner;
  OvsdbServer server;
  Controller db{server};
  SessionRoot root{server.socketPath()};
};

TEST_F(VgwSession, ControllerRowsReachTheMirrorAndTheRemoteHostTables) {
  connect();
  const int refreshesBefore = root.dependents.forcedRefreshes;
  const Uuid blue = db.addLogicalSwitch("blue", 5000);
  const Uuid uplink = db.addLogicalSwitch("uplink", -1);
  Json ops = Json::array();
  db.ucastRemote(ops, blue, "00:11:22:33:44:55", "10.0.0.1", "10.1.1.5");
  const Json locators = Json::array({db.locator("10.0.0.1", ops), db.locator("10.0.0.2", ops)});
  ops.push_back(insertOp("Physical_Locator_Set", "set", {{"locators", Json::array({"set", locators})}}));
  const Json unknownDst = {{"MAC", "unknown-dst"}, {"logical_switch", uuidRef(blue)}};
  ops.push_back(insertOp("Mcast_Macs_Remote", "mcast", unknownDst));
  ops.back()["row"]["locator_set"] = Json::array({"named-uuid", "set"});
  ops.push_back(insertOp("Arp_Sources_Remote", "arp", {{"src_mac", "00:99:00:00:00:01"}}));
  ops.back()["row"]["locator"] = db.locator("10.0.0.1", ops);
  const Json switchBinding = mapOf("10.1.1.1/24", uuidRef(blue));
  ops.push_back(insertOp("Logical_Router", "lr", {{"name", "lr1"}, {"switch_binding", switchBinding}}));
  ops.push_back(insertOp("Physical_Port", "port", {{"name", "p1"}, {"vlan_bindings", mapOf(10, uuidRef(uplink))}}));
  ops.push_back(insertOp("Physical_Switch", "ps", {{"name", "ps1"}, {"ports", Json::array({"named-uuid", "port"})}}));
  ops.push_back(addToGlobalOp("switches", "ps"));
  const auto named = db.transact(ops);
  sync();

  ASSERT_EQ(root.state(), SessionState::stateConnected);
  const HwVtepOvsdb& mirror = *root.ovsdb;
  EXPECT_EQ(mirror.arpSourcesRemote(mac("00:99:00:00:00:01"))->locator(), db.locatorUuid("10.0.0.1"));
  EXPECT_EQ(mirror.logicalRouterRaw(named.at("lr"))->switchBinding().size(), 1u);
  EXPECT_TRUE(root.dependents.dirtyRouters.contains(named.at("lr")));
  EXPECT_GT(root.dependents.forcedRefreshes, refreshesBefore);
  // The switch is the agent's table: its insert never reaches the mirror, and
  // Global's switches follow the agent's own transactions only.
  EXPECT_TRUE(mirror.physicalSwitchRaw().empty());
  EXPECT_TRUE(mirror.root().begin()->second->pSwitch().empty());
  // A port inserted by anyone is not stored, but its uplink bindings count.
  EXPECT_TRUE(mirror.physicalPort().empty());
  const PortVlanPair binding(named.at("port"), Bridging::VlanIdOrNone(10));
  EXPECT_TRUE(local().uplinkPortVlanTable(uplink) && local().uplinkPortVlanTable(uplink)->portVlan(binding));

  EXPECT_EQ(hosts(blue)->macVtepList(EthAddr()).physicalLocatorSet(), named.at("set"));
  ASSERT_TRUE(published(5000) && published(5000)->macVtepFloodListTable(EthAddr()));
  EXPECT_EQ(published(5000)->ipToMacTable(ip("10.1.1.5")).mac(), mac("00:11:22:33:44:55"));
  EXPECT_EQ(published(5000)->macVtepFloodListTable(EthAddr())->vtepIpFloodList().size(), 2u);
  EXPECT_EQ(vtepOf(5000, "00:99:00:00:00:01"), IpAddr::parse("10.0.0.1"));
}

TEST_F(VgwSession, HostMoveIsNoConflictButTwoLocatorsForOneMacDropTheSession) {
  const Uuid blue = db.addLogicalSwitch("blue", 5000);
  Json ops = Json::array();
  db.ucastRemote(ops, blue, "00:11:22:33:44:55", "10.0.0.1");
  db.transact(ops);
  connect();

  // The host moves to 10.0.0.2: its row is deleted and another inserted in
  // one transaction, so in one update.
  ops = Json::array({deleteOp("Ucast_Macs_Remote", "MAC", "00:11:22:33:44:55")});
  db.ucastRemote(ops, blue, "00:11:22:33:44:55", "10.0.0.2");
  db.transact(ops);
  sync();
  EXPECT_EQ(root.state(), SessionState::stateConnected);
  EXPECT_EQ(hosts(blue)->macVtep(mac("00:11:22:33:44:55")).physicalLocator(), db.locatorUuid("10.0.0.2"));
  EXPECT_EQ(vtepOf(5000, "00:11:22:33:44:55"), IpAddr::parse("10.0.0.2"));

  // The same MAC behind a second VTEP without a delete contradicts it.
  ops = Json::array();
  db.ucastRemote(ops, blue, "00:11:22:33:44:55", "10.0.0.3");
  db.transact(ops);
  ASSERT_TRUE(reach(SessionState::stateDisconnected));
  EXPECT_EQ(status().lastResult(), "Transaction update introduced an inconsistent state.");
  EXPECT_EQ(status().disconnectCount(), 1u);
  const double dropped = runner.now();
  EXPECT_EQ(root.client->reconnectTime(), dropped + 15.0);

  // Nothing is asked before the interval is over; then the first contents
  // hold both rows, and the new session drops again.
  const std::uint64_t requests = status().requestCount();
  runner.advance(14.5);
  EXPECT_EQ(status().requestCount(), requests);
  EXPECT_EQ(root.disconnects, 1);  // the working data was reset on the next turn
  runner.advance(0.5);
  EXPECT_EQ(status().requestCount(), requests + 1);
  EXPECT_EQ(status().lastRequestTime(), dropped + 15.0);
  ASSERT_TRUE(runner.runUntil([&] { return status().disconnectCount() == 2; }));
  EXPECT_EQ(status().lastResult(), "Monitor update introduced an inconsistent state.");
  EXPECT_FALSE(local().monitorUpdateComplete());

  // The controller resolves it while the agent waits; the next session is clean.
  db.transact(Json::array({deleteOp("Ucast_Macs_Remote", "locator", uuidRef(db.locatorUuid("10.0.0.3")))}));
  runner.advance(15.0);
  ASSERT_TRUE(reach(SessionState::stateConnected)) << status().lastResult();
  expectMirrorMatchesServer(db, *root.ovsdb);
  EXPECT_EQ(vtepOf(5000, "00:11:22:33:44:55"), IpAddr::parse("10.0.0.2"));
}

TEST_F(VgwSession, FirstContentsLandInTheMirrorAndAServerAwayIsRetriedUntilItsChangedContentsReplaceThem) {
  const Uuid red = db.addLogicalSwitch("red", 100);
  const Uuid green = db.addLogicalSwitch("green", 200);
  Json ops = Json::array();
  db.ucastRemote(ops, red, "00:00:00:00:01:01", "10.0.0.9");
  db.ucastRemote(ops, green, "00:00:00:00:02:01", "10.0.0.2");
  ops.push_back(insertOp("Logical_Router", "lr", {{"name", "old-router"}}));
  db.transact(ops);
  connect();
  // Fifteen tables in name order, then Manager's two columns; the agent's
  // own tables are read once.
  const Kiln::Ptr<OvsdbMonitorRequest> subscription = root.client->monitorRequest();
  ASSERT_EQ(subscription->monitor().size(), 16u);
  EXPECT_EQ(subscription->monitor().front().table(), "Arp_Sources_Local");
  const Json tables = Json::parse(status().lastRequest().stringValue())[2];
  const Json initialOnly = {{"initial", true}, {"insert", false}, {"delete", false}, {"modify", false}};
  for (const char* table : {"Physical_Switch", "Ucast_Macs_Local", "Mcast_Macs_Local", "Arp_Sources_Local"}) {
    EXPECT_EQ(tables[table][0]["select"], initialOnly) << table;
  }
  EXPECT_EQ(tables["Manager"][0]["columns"], Json::array({"is_connected", "target"}));
  EXPECT_EQ(status().lastResultType(), OvsdbRequestType::monitor);
  EXPECT_TRUE(local().monitorUpdateComplete());
  expectMirrorMatchesServer(db, *root.ovsdb);
  EXPECT_EQ(vtepOf(100, "00:00:00:00:01:01"), IpAddr::parse("10.0.0.9"));
  const std::string firstId = toText(subscription->requestId());

  // The agent's own rows are in the mirror when the enqueue returns; rows
  // of its tables that someone else writes are not followed.
  root.queue->requestEnq(agentInventory(root.ovsdb, green));
  ASSERT_TRUE(root.ovsdb->physicalSwitch("leaf1"));
  const Uuid leaf1 = root.ovsdb->physicalSwitch("leaf1")->uuid();
  EXPECT_EQ(db.uuids("Physical_Switch"), std::set<Uuid>{leaf1});
  ops = Json::array({insertOp("Physical_Switch", "ps", {{"name", "leaf2"}}), addToGlobalOp("switches", "ps")});
  ops.push_back(insertOp("Ucast_Macs_Local", "m", {{"MAC", "00:aa:00:00:00:03"}, {"logical_switch", uuidRef(green)}}));
  ops.back()["row"]["locator"] = db.locator("10.0.0.1", ops);
  const Uuid leaf2 = db.transact(ops).at("ps");
  sync();
  EXPECT_FALSE(root.ovsdb->physicalSwitchRaw(leaf2));
  EXPECT_EQ(local().ucastMacsLocalTable(Vxlan::Vni(200))->ucastMacsLocal().size(), 2u);

  server.stop();
  ASSERT_TRUE(reach(SessionState::stateDisconnected));
  EXPECT_EQ(status().lastResult(), "JSON RPC connection error");
  const double dropped = runner.now();
  for (int attempt = 1; attempt <= 3; ++attempt) {
    runner.advance(15.0);
    EXPECT_EQ(root.state(), SessionState::stateDisconnected);
    EXPECT_EQ(status().lastResult(), "Unable to open JSON RPC connection.");
    EXPECT_EQ(status().lastResultTime(), dropped + 15.0 * attempt) << "attempt " << attempt;
    EXPECT_EQ(status().disconnectCount(), 1u + attempt);
  }

  // While the agent is away the controller removes red and the router and
  // adds blue on a new VTEP.
  server.start();
  db.transact(Json::array({deleteOp("Ucast_Macs_Remote", "MAC", "00:00:00:00:01:01"),
                           deleteOp("Logical_Switch", "name", "red"),
                           deleteOp("Logical_Router", "name", "old-router")}));
  const Uuid blue = db.addLogicalSwitch("blue", 300);
  ops = Json::array();
  db.ucastRemote(ops, blue, "00:00:00:00:03:01", "10.0.0.3");
  db.transact(ops);

  runner.advance(15.0);
  ASSERT_TRUE(reach(SessionState::stateConnected)) << status().lastResult();
  expectMirrorMatchesServer(db, *root.ovsdb);
  EXPECT_FALSE(root.ovsdb->logicalSwitch(red));
  EXPECT_FALSE(hosts(red));
  EXPECT_FALSE(root.ovsdb->physicalLocator(ip("10.0.0.9")));
  EXPECT_TRUE(hosts(green)->macVtep().contains(mac("00:00:00:00:02:01")));
  // The same subscription object, under a new request id.
  EXPECT_EQ(root.client->monitorRequest(), subscription);
  EXPECT_NE(toText(subscription->requestId()), firstId);
  EXPECT_FALSE(published(100));
  EXPECT_EQ(vtepOf(300, "00:00:00:00:03:01"), IpAddr::parse("10.0.0.3"));
  // The first contents hold the agent's tables as the server does.
  EXPECT_EQ(root.ovsdb->physicalSwitch("leaf2")->uuid(), leaf2);
  EXPECT_EQ(local().ucastMacsLocalTable(Vxlan::Vni(200))->ucastMacsLocal().size(), 3u);

  // The agent takes leaf2 out of Global: the mirror lets the switch go.
  auto tx = Kiln::newPtr<OvsdbTransactRequest>();
  tx->ovsdbIs(root.ovsdb);
  tx->opEnq(buildMutate(root.ovsdb->root().begin()->first, MutaterOp::mutaterOpDelete, "pSwitch", {leaf2},
                        OvsdbDataType::global,
                        parseJson(R"([["switches", "delete", ["set", [)" + toText(uuidToJson(leaf2).get()) + "]]]]")));
  root.queue->requestEnq(tx);
  EXPECT_FALSE(root.ovsdb->physicalSwitch("leaf2"));
  EXPECT_TRUE(root.ovsdb->physicalSwitchRaw(leaf1));
}

TEST_F(VgwSession, TransactionsAreDroppedUnlessConnectedAndHeldWhileDiscarding) {
  const Uuid blue = db.addLogicalSwitch("blue", 5000);
  TraceCapture trace("VgwRequestHandler/5-6");
  root.enable();
  // The subscription is out; its reply has not been read yet.
  ASSERT_EQ(root.state(), SessionState::stateConnecting);
  root.queue->requestEnq(Kiln::newPtr<OvsdbTransactRequest>());
  EXPECT_TRUE(trace.contains(" return not connected"));
  EXPECT_TRUE(root.queue->request().empty());

  ASSERT_TRUE(reach(SessionState::stateConnected));
  root.handler->discardRequestIs(true);
  const std::uint64_t requests = status().requestCount();
  root.queue->requestEnq(agentInventory(root.ovsdb, blue));
  EXPECT_TRUE(trace.contains("discardRequest is True, not updating ovsdb."));
  EXPECT_EQ(root.queue->request().size(), 1u);
  EXPECT_EQ(status().requestCount(), requests);
  EXPECT_TRUE(db.uuids("Physical_Switch").empty());
}

}  // namespace
}  // namespace Vgw::Test
