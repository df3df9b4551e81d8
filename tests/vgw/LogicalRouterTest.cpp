// Logical routers from the controller's rows to the fabric's configuration.
// The root state machine runs against a real ovsdb-server, with the error
// status mounts never complete, so that only the machines reading the
// mirror start and the rows the test writes stay as written. What the
// fabric sees is read from the "vgw" entry of the router directory. The
// database refuses two routers of one name, so the duplicate cases feed a
// hand-made mirror.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "SessionSupport.h"
#include "Vgw/LogicalRouterSm.h"
#include "Vgw/OvsdbSessionRecord.h"
#include "Vgw/VgwAgent.h"

namespace Vgw::Test {
namespace {

using Ipkit::IpGenAddrWithMask;
using Ipkit::IpGenPrefix;
using Kiln::Json;
using OverlaySvc::LRConfigEntryV2;
using OverlaySvc::LRIpPortV2;
using OverlaySvc::LRIpUplinkPortV2;
using OverlaySvc::LRRouteV2;

using Bindings = std::map<std::string, Uuid>;
using Routes = std::map<std::string, std::string>;

Json routerRow(const std::string& name, const Bindings& bindings, const Routes& routes = {}) {
  Json binding = Json::array(), route = Json::array();
  for (const auto& [ip, ls] : bindings) binding.push_back(Json::array({ip, uuidRef(ls)}));
  for (const auto& [prefix, nexthops] : routes) route.push_back(Json::array({prefix, nexthops}));
  return {{"name", name},
          {"switch_binding", Json::array({"map", binding})},
          {"static_routes", Json::array({"map", route})}};
}
Json updateOp(const char* table, const std::string& name, const Json& row) {
  return {{"op", "update"},
          {"table", table},
          {"where", Json::array({Json::array({"name", "==", name})})},
          {"row", row}};
}
Json named(const char* uuidName) { return Json::array({"named-uuid", uuidName}); }
LRRouteV2 route(const char* prefix, std::initializer_list<const char*> nexthops) {
  LRRouteV2 out(IpGenPrefix::parse(prefix));
  for (const char* nexthop : nexthops) out.nexthopIs(ip(nexthop), true);
  return out;
}

class LogicalRouterRoad : public testing::Test {
 protected:
  LogicalRouterRoad() {
    freshLocalData();
    config->ovsdbSocketPathIs(server.socketPath());
    cliConfig->enableAgentIs(true);
    topoStatus->convergenceStatusIs("convergence")->convergenceInProgressIs(false);
  }
  ~LogicalRouterRoad() override { root = nullptr; }

  void start() {
    root = Kiln::newPtr<RootSm>(config, cliConfig, status, Kiln::newPtr<FleetStore::Config>(),
                                Kiln::newPtr<FleetCluster::ClusterStatus>("default"), Kiln::newPtr<Kiln::Dir>(),
                                Kiln::newPtr<OverlaySvc::DynVtepConfigReadyV2>(), Kiln::newPtr<Kiln::Dir>(),
                                topoStatus, Kiln::newPtr<OverlaySvc::VniStatusDirV2>(),
                                Kiln::newPtr<OverlaySvc::VniStatusDirV2>(), Kiln::newPtr<Kiln::Dir>(), nullptr,
                                nullptr, lrConfigDir, Kiln::newPtr<OverlaySvc::ServiceReadyV2>(),
                                Kiln::newPtr<OverlaySvc::ErrorStatusV2>(), nullptr);
    ASSERT_TRUE(loop.runUntil([&] { return root->lrSm() != nullptr; }));
  }
  void sync() { ASSERT_TRUE(db.synced(loop, [&] { return status->ovsdb(); })); }
  Kiln::Ptr<LRConfigEntryV2> router(const char* name) const {
    const auto published = lrConfigDir->entityPtr<OverlaySvc::LRConfigV2>("vgw");
    return published ? published->router(name) : nullptr;
  }

  LoopRunner loop;
  OvsdbServer server;
  Controller db{server};
  Kiln::Ptr<Config> config = Kiln::newPtr<Config>();
  Kiln::Ptr<CliConfig> cliConfig = Kiln::newPtr<CliConfig>();
  Kiln::Ptr<Status> status = Kiln::newPtr<Status>();
  Kiln::Ptr<FabricMapV3::Status> topoStatus = Kiln::newPtr<FabricMapV3::Status>();
  Kiln::Ptr<Kiln::Dir> lrConfigDir = Kiln::newPtr<Kiln::Dir>();
  Kiln::Ptr<RootSm> root;
};

TEST_F(LogicalRouterRoad, AnInterfaceWaitsForTheRemoteMacOfItsOwnAddress) {
  start();
  TraceCapture trace("VgwLogicalRouter/5-6");
  const Uuid blue = db.addLogicalSwitch("blue", 5000);
  db.transact(Json::array({insertOp("Logical_Router", "r", routerRow("r1", {{"192.168.1.1/24", blue}}))}));
  sync();
  ASSERT_TRUE(router("r1"));
  EXPECT_TRUE(router("r1")->ipPort().empty());
  EXPECT_TRUE(trace.contains(" return Ucast Macs Remote for SVI: 192.168.1.1 not found."));

  // The controller's host row alone publishes the interface.
  const std::vector<Json> routerBefore = db.rows("Logical_Router");
  Json ops = Json::array();
  db.ucastRemote(ops, blue, "00:00:5e:00:01:01", "10.0.0.1", "192.168.1.1");
  db.transact(ops);
  const IpGenAddrWithMask address = IpGenAddrWithMask::parse("192.168.1.1/24");
  ASSERT_TRUE(loop.runUntil([&] { return !router("r1")->ipPort().empty(); }));
  EXPECT_EQ(router("r1")->ipPort(address),
            LRIpPortV2(address, mac("00:00:5e:00:01:01"), Vxlan::Vni(5000), ip("10.0.0.1")));
  EXPECT_EQ(db.rows("Logical_Router"), routerBefore);

  // The host goes: the interface stays until its binding goes.
  db.transact(Json::array({deleteOp("Ucast_Macs_Remote", "MAC", "00:00:5e:00:01:01")}));
  sync();
  EXPECT_EQ(router("r1")->ipPort(address).vtep(), ip("10.0.0.1"));
  db.transact(Json::array({updateOp("Logical_Router", "r1", routerRow("r1", {}))}));
  sync();
  EXPECT_TRUE(router("r1")->ipPort().empty());
}

TEST_F(LogicalRouterRoad, UplinkInterfacesCarryThePortVlansOfTheirSwitch) {
  // The inventory of an earlier life: two ports with a VLAN each on an uplink switch.
  const std::map<std::string, Uuid> made = db.transact(Json::array(
      {insertOp("Logical_Switch", "up", {{"name", "uplink"}}), insertOp("Logical_Switch", "bare", {{"name", "bare"}}),
       insertOp("Physical_Port", "p1", {{"name", "Ethernet1"}, {"vlan_bindings", mapOf(100, named("up"))}}),
       insertOp("Physical_Port", "p2", {{"name", "Ethernet2"}, {"vlan_bindings", mapOf(200, named("up"))}}),
       insertOp("Physical_Switch", "leaf1",
                {{"name", "leaf1"}, {"ports", Json::array({"set", Json::array({named("p1"), named("p2")})})}}),
       addToGlobalOp("switches", "leaf1")}));
  const Uuid uplink = made.at("up"), bare = made.at("bare");
  start();
  const Uuid blue = db.addLogicalSwitch("blue", 5000);
  Json ops = Json::array({insertOp("Logical_Router", "r",
                                   routerRow("r1", {{"192.168.1.1/24", blue}, {"172.16.0.1/24", bare}}))});
  db.ucastRemote(ops, blue, "00:00:5e:00:01:01", "10.0.0.1", "192.168.1.1");
  db.ucastRemote(ops, bare, "00:00:5e:00:01:02", "10.0.0.1", "172.16.0.1");
  db.transact(ops);
  sync();
  const IpGenAddrWithMask address = IpGenAddrWithMask::parse("192.168.1.1/24");
  ASSERT_EQ(keysOf(router("r1")->ipPort()), std::set<IpGenAddrWithMask>{address});
  EXPECT_TRUE(router("r1")->ipUplinkPort().empty()) << "an uplink switch without port VLANs defers";

  // The binding moves to the uplink switch, the host row with it.
  ops = Json::array(
      {updateOp("Logical_Router", "r1", routerRow("r1", {{"192.168.1.1/24", uplink}, {"172.16.0.1/24", bare}}))});
  db.ucastRemote(ops, uplink, "00:00:5e:00:01:03", "10.0.0.2", "192.168.1.1");
  db.transact(ops);
  sync();
  LRIpUplinkPortV2 wanted(address, mac("00:00:5e:00:01:03"), ip("10.0.0.2"));
  wanted.portVlanIs(OverlaySvc::PortVlanPairV2("Ethernet1", Bridging::VlanIdOrNone(100)), true);
  wanted.portVlanIs(OverlaySvc::PortVlanPairV2("Ethernet2", Bridging::VlanIdOrNone(200)), true);
  EXPECT_TRUE(router("r1")->ipPort().empty());
  EXPECT_EQ(router("r1")->ipUplinkPort(), (LRConfigEntryV2::IpUplinkPortType{{address, wanted}}));

  // A port leaves the VLAN: the interface follows without a router change.
  const Json noBinding = Json::array({"map", Json::array()});
  db.transact(Json::array({updateOp("Physical_Port", "Ethernet2", {{"vlan_bindings", noBinding}})}));
  sync();
  wanted.portVlanDel(OverlaySvc::PortVlanPairV2("Ethernet2", Bridging::VlanIdOrNone(200)));
  EXPECT_EQ(router("r1")->ipUplinkPort(address), wanted);

  // A port that only the controller's insert names is not in the inventory:
  // the interface on its VLAN keeps waiting.
  db.transact(Json::array(
      {insertOp("Physical_Port", "p3", {{"name", "Ethernet3"}, {"vlan_bindings", mapOf(300, uuidRef(bare))}}),
       {{"op", "mutate"},
        {"table", "Physical_Switch"},
        {"where", Json::array()},
        {"mutations", Json::array({Json::array({"ports", "insert", named("p3")})})}}}));
  sync();
  EXPECT_EQ(keysOf(router("r1")->ipUplinkPort()), std::set<IpGenAddrWithMask>{address});
}

TEST_F(LogicalRouterRoad, RenamesMoveTheEntryInOneUpdateAndNamesSwapInOneTransaction) {
  start();
  const std::map<std::string, Uuid> rows = db.transact(
      Json::array({insertOp("Logical_Router", "a", routerRow("r1", {}, {{"10.1.0.0/16", "192.168.1.254"}})),
                   insertOp("Logical_Router", "b", routerRow("r2", {}, {{"10.2.0.0/16", "192.168.1.254"}}))}));
  sync();
  const auto routesOf = [&](const char* name) { return keysOf(router(name)->route()); };
  const std::set<IpGenPrefix> first{IpGenPrefix::parse("10.1.0.0/16")}, second{IpGenPrefix::parse("10.2.0.0/16")};
  ASSERT_EQ(routesOf("r1"), first);

  db.transact(Json::array({updateOp("Logical_Router", "r1", {{"name", "r3"}})}));
  ASSERT_TRUE(loop.runUntil([&] { return router("r3") != nullptr; }));
  EXPECT_FALSE(router("r1")) << "the old name went with the same update";
  EXPECT_EQ(routesOf("r3"), first);

  // By uuid: the second update must not find the row the first one renamed.
  const auto rename = [](const Uuid& uuid, const char* name) {
    return Json{{"op", "update"},
                {"table", "Logical_Router"},
                {"where", Json::array({Json::array({"_uuid", "==", uuidRef(uuid)})})},
                {"row", {{"name", name}}}};
  };
  db.transact(Json::array({rename(rows.at("a"), "r2"), rename(rows.at("b"), "r3")}));
  sync();
  EXPECT_EQ(routesOf("r2"), first);
  EXPECT_EQ(routesOf("r3"), second);
  EXPECT_EQ(root->lrSm()->lrEntrySm().size(), 2u);
}

TEST_F(LogicalRouterRoad, StaticRoutesFollowTheRowWithEveryNextHop) {
  start();
  db.transact(Json::array({insertOp("Logical_Router", "r", routerRow("r1", {}))}));
  const struct {
    Routes row;
    LRConfigEntryV2::RouteType published;
  } steps[] = {
      {{{"10.2.0.0/16", "192.168.1.254;192.168.1.253"}},
       {{IpGenPrefix::parse("10.2.0.0/16"), route("10.2.0.0/16", {"192.168.1.254", "192.168.1.253"})}}},
      // Host bits of a prefix name its network; a bad next hop is dropped.
      {{{"10.2.3.4/16", "192.168.1.253;bad"}, {"0.0.0.0/0", "192.168.1.1"}},
       {{IpGenPrefix::parse("10.2.0.0/16"), route("10.2.0.0/16", {"192.168.1.253"})},
        {IpGenPrefix::parse("0.0.0.0/0"), route("0.0.0.0/0", {"192.168.1.1"})}}},
      {{}, {}},
  };
  for (const auto& step : steps) {
    db.transact(Json::array({updateOp("Logical_Router", "r1", routerRow("r1", {}, step.row))}));
    sync();
    EXPECT_EQ(router("r1")->route(), step.published) << Json(step.row).dump();
  }
}

TEST_F(LogicalRouterRoad, TheRootBuildsTheMachineOnConnectAndItsTeardownRemovesTheConfiguration) {
  db.transact(Json::array({insertOp("Logical_Router", "a", routerRow("r1", {})),
                           insertOp("Logical_Router", "b", routerRow("r2", {}))}));
  start();
  ASSERT_TRUE(router("r1") && router("r2"));

  // The routing mode reaches every entry at once, without the database.
  const std::uint64_t requests = status->ovsdbSessionStatus()->requestCount();
  cliConfig->routingModeTypeIs(RoutingModeType::localIpPortsOnly);
  EXPECT_TRUE(router("r1")->createLocalIpPortsOnly() && router("r2")->createLocalIpPortsOnly());
  cliConfig->routingModeTypeIs(RoutingModeType::directRouting);
  EXPECT_FALSE(router("r1")->createLocalIpPortsOnly() || router("r2")->createLocalIpPortsOnly());
  EXPECT_EQ(status->ovsdbSessionStatus()->requestCount(), requests);

  // A drop keeps what is published; a router deleted meanwhile is swept
  // when the session is back.
  updateOvsdbRequestResult(status->ovsdbSessionStatus(), SessionState::stateDisconnected, OvsdbRequestType::transact,
                           "dropped");
  loop.settle();
  EXPECT_FALSE(root->lrSm());
  db.transact(Json::array({deleteOp("Logical_Router", "name", "r2")}));
  loop.advance(15.0);
  ASSERT_TRUE(loop.runUntil([&] { return root->lrSm() != nullptr; }));
  EXPECT_TRUE(router("r1"));
  EXPECT_FALSE(router("r2"));

  // A repeated enable makes a new mirror, and the machine follows it.
  root->handleEnableAgent();
  ASSERT_TRUE(loop.runUntil([&] { return root->lrSm()->ovsdb() == status->ovsdb(); }));
  EXPECT_TRUE(router("r1"));

  cliConfig->enableAgentIs(false);
  EXPECT_FALSE(lrConfigDir->entityPtr("vgw"));
  EXPECT_EQ(db.rows("Logical_Router").size(), 1u) << "the controller's rows stay";
}

// Routers of one name, which only a server without the schema's index holds.
class LogicalRouterNames : public testing::Test {
 protected:
  LogicalRouterNames() { freshLocalData(); }
  Kiln::Ptr<LogicalRouter> row(std::uint32_t n, const char* name, const char* prefix) {
    const Kiln::Ptr<LogicalRouter> router = ovsdb->logicalRouterRawIs(rowId(n));
    router->displayNameIs(name);
    router->staticRouteIs(IpGenPrefix::parse(prefix), StaticRoute(IpGenPrefix::parse(prefix)));
    return router;
  }
  Kiln::Ptr<LrSm> start() { return lrSmFactory(ovsdb, Kiln::newPtr<CliConfig>(), dir); }
  std::set<IpGenPrefix> routesOf(const char* name) const {
    return keysOf(dir->entityPtr<OverlaySvc::LRConfigV2>("vgw")->router(name)->route());
  }

  Kiln::Ptr<HwVtepOvsdb> ovsdb = Kiln::newPtr<HwVtepOvsdb>();
  Kiln::Ptr<Kiln::Dir> dir = Kiln::newPtr<Kiln::Dir>();
};

TEST_F(LogicalRouterNames, TwoAtStartEndTheProcess) {
  row(1, "x", "10.1.0.0/16");
  row(2, "x", "10.2.0.0/16");
  EXPECT_DEATH(start(), literally("pair.second && \"multiple uses of the same displayName found\""));
}

TEST_F(LogicalRouterNames, ALaterOneWaitsUntilTheNameIsFree) {
  row(1, "x", "10.1.0.0/16");
  const Kiln::Ptr<LrSm> lr = start();
  row(2, "x", "10.2.0.0/16");
  lr->dirtyUuidIs(rowId(2));
  lr->reconcileConfig();
  EXPECT_EQ(routesOf("x"), std::set<IpGenPrefix>{IpGenPrefix::parse("10.1.0.0/16")});
  EXPECT_EQ(lr->nameTaken(), std::set<Uuid>{rowId(2)});

  // The holder goes: the waiting router takes the name in the same pass.
  ovsdb->logicalRouterRawDel(rowId(1));
  lr->dirtyUuidIs(rowId(1));
  lr->reconcileConfig();
  EXPECT_EQ(routesOf("x"), std::set<IpGenPrefix>{IpGenPrefix::parse("10.2.0.0/16")});
  EXPECT_TRUE(lr->nameTaken().empty());
  lr->destroyConfig();
  EXPECT_FALSE(dir->entityPtr("vgw"));
}

}  // namespace
}  // namespace Vgw::Test
