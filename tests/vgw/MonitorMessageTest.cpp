// Monitor messages applied by hand, without a server: what first contents
// remove and keep, the controller's placeholder switch and the tables the
// agent writes itself; stale local rows, and the mirror's switch and port
// upkeep.
#include <gtest/gtest.h>

#include "SessionSupport.h"

namespace Vgw::Test {
namespace {

using Ipkit::EthAddr;
using Kiln::Json;

std::string S(unsigned n) { return rowId(n).stringValue().stringValue(); }
Json ref(unsigned n) { return Json::array({"uuid", S(n)}); }

class NoRemoteHostRoot : public RootSmInterface {
 public:
  RemoteHostSm* remoteHostSm() const override { return nullptr; }
  LrSmInterface* lrSm() const override { return &dependents; }
  TunnelSmInterface* tunnelSm() const override { return &dependents; }
  mutable Dependents dependents;
};

class VgwMonitorMessage : public ::testing::Test {
 protected:
  void SetUp() override {
    freshLocalData();
    request->ovsdbSchemaIs(schemaFromFile());
  }
  void TearDown() override { freshLocalData(); }

  bool apply(const Json& message) {
    const Ovs::JsonPtr j = parseJson(message.dump());
    return handler->handleMonitorNotification(j.get(), request.get());
  }
  void stateIs(SessionState state) { sessionStatus->sessionStateIs(state); }
  LocalData& local() const { return *Kiln::Entity::singletonIs<LocalData>(); }

  // A message adding logical switch `ls` (VNI `vni`) and locators for `ips`,
  // numbered from `firstLocator`.
  static Json switchAndLocators(unsigned ls, int vni, unsigned firstLocator, std::vector<std::string> ips) {
    Json message = {{"Logical_Switch", {{S(ls), {{"new", {{"name", "ls"}, {"tunnel_key", vni}}}}}}}};
    for (const std::string& address : ips) {
      message["Physical_Locator"][S(firstLocator++)] = {
          {"new", {{"encapsulation_type", "vxlan_over_ipv4"}, {"dst_ip", address}}}};
    }
    return message;
  }
  static Json ucast(const char* m, unsigned ls, unsigned locator, const char* ipaddr) {
    return {{"MAC", m}, {"logical_switch", ref(ls)}, {"locator", ref(locator)}, {"ipaddr", ipaddr}};
  }

  Kiln::Ptr<Config> config = Kiln::newPtr<Config>();
  Kiln::Ptr<OvsdbSessionStatus> sessionStatus = Kiln::newPtr<OvsdbSessionStatus>();
  Kiln::Ptr<HwVtepOvsdb> ovsdb = Kiln::newPtr<HwVtepOvsdb>();
  Kiln::Ptr<OvsdbRequestQueue> queue = Kiln::newPtr<OvsdbRequestQueue>();
  NoRemoteHostRoot root;
  Kiln::Ptr<HwVtepRequestHandlerSm> handler = hwVtepRequestHandlerSmFactory(config, sessionStatus, ovsdb, queue, &root);
  Kiln::Ptr<OvsdbMonitorRequest> request = Kiln::newPtr<OvsdbMonitorRequest>();
};

TEST_F(VgwMonitorMessage, FirstContentsRemoveWhatTheyLackAndKeepWhatOnlyTheyCarry) {
  ovsdb->logicalSwitchIs(rowId(1));  // from an earlier session
  local().remoteHostTableIs(rowId(1));
  stateIs(SessionState::stateConnecting);
  Json message = switchAndLocators(2, 7, 3, {"10.0.0.1", "10.0.0.2"});
  message["Tunnel"][S(5)]["new"] = {{"local", ref(3)}, {"remote", ref(4)}};
  message["Physical_Port"][S(6)]["new"] = {{"name", "p1"}};
  ASSERT_TRUE(apply(message));
  EXPECT_FALSE(ovsdb->logicalSwitch(rowId(1)) || local().remoteHostTable(rowId(1)));
  const LocalRemoteVtepPair vteps(ip("10.0.0.1"), ip("10.0.0.2"));
  EXPECT_TRUE(ovsdb->tunnelRaw(rowId(5)) && ovsdb->tunnel(vteps) == ovsdb->tunnelRaw(rowId(5)));
  EXPECT_TRUE(ovsdb->physicalPort(rowId(6)));

  // Connected, a port is not stored, and a tunnel's delete leaves the mirror alone.
  stateIs(SessionState::stateConnected);
  ASSERT_TRUE(apply({{"Physical_Port", {{S(7), {{"new", {{"name", "p2"}}}}}}},
                     {"Tunnel", {{S(5), {{"old", {{"local", ref(3)}, {"remote", ref(4)}}}}}}}}));
  EXPECT_FALSE(ovsdb->physicalPort(rowId(7)));
  EXPECT_TRUE(ovsdb->tunnel(vteps));
}

TEST_F(VgwMonitorMessage, ThePlaceholderSwitchAndItsRowsAreNeverMirrored) {
  stateIs(SessionState::stateConnected);
  Json message = switchAndLocators(2, 7, 3, {"10.0.0.1"});
  message["Logical_Switch"][S(1)] = {{"new", {{"name", "_nvp_internal"}}}};
  message["Ucast_Macs_Remote"][S(10)] = {{"new", ucast("00:00:00:00:00:01", 1, 3, "10.1.1.1")}};
  ASSERT_TRUE(apply(message));
  EXPECT_EQ(local().nvpInternalLogicalSwitch(), rowId(1));
  EXPECT_FALSE(ovsdb->logicalSwitch(rowId(1)) || local().remoteHostTable(rowId(1)));
  EXPECT_TRUE(local().remoteHostTable(rowId(2))->macVtep().empty());

  // Its delete comes with the delete of a row that still names it: the row
  // is recognised, and the switch is forgotten at the message's end.
  ASSERT_TRUE(apply({{"Logical_Switch", {{S(1), {{"old", {{"name", "_nvp_internal"}}}}}}},
                     {"Ucast_Macs_Remote", {{S(10), {{"old", ucast("00:00:00:00:00:01", 1, 3, "10.1.1.1")}}}}}}));
  EXPECT_TRUE(local().nvpInternalLogicalSwitch().isNull() && local().delNvpInternalLogicalSwitch().isNull());
}

TEST_F(VgwMonitorMessage, TheAgentsOwnTablesAcceptFirstContentsOnly) {
  stateIs(SessionState::stateConnecting);
  Json message = switchAndLocators(1, 10, 2, {"10.0.0.1"});
  message["Ucast_Macs_Local"][S(10)]["new"] = {{"MAC", "00:00:00:00:00:01"}, {"logical_switch", ref(1)}};
  message["Ucast_Macs_Local"][S(10)]["new"]["locator"] = ref(2);
  message["Physical_Switch"][S(11)] = {{"new", {{"name", "leaf1"}}}};
  ASSERT_TRUE(apply(message));
  EXPECT_TRUE(local().ucastMacsLocalTable(Vxlan::Vni(10))->ucastMacsLocal(mac("00:00:00:00:00:01")));
  EXPECT_EQ(ovsdb->physicalSwitch("leaf1")->uuid(), rowId(11));
  EXPECT_TRUE(local().localLocator(PhysicalLocatorKey(EncapsulationType::vxlan_over_ipv4, ip("10.0.0.1"))));

  stateIs(SessionState::stateConnected);
  for (const Json& refused :
       {Json{{"Physical_Switch", {{S(12), {{"new", {{"name", "leaf2"}}}}}}}},
        Json{{"Ucast_Macs_Local", {{S(10), {{"old", {{"MAC", "00:00:00:00:00:01"}}}}}}}},
        Json{{"Arp_Sources_Local", {{S(13), {{"new", {{"src_mac", "00:00:00:00:00:02"}, {"locator", ref(2)}}}}}}}}}) {
    EXPECT_DEATH(apply(refused), literally("false && \"Unexpected\"")) << refused.dump();
  }
}

// The agent's own local MAC rows on a switch that has lost its VNI (the key
// cleared or set beyond the range while the agent was away) are left in the
// database; the first contents are applied around them.
TEST_F(VgwMonitorMessage, LocalMacRowsOnASwitchWithoutAVniAreLeftOut) {
  for (const Json& key : {Json(16777216), Json(-1), Json::array({"set", Json::array()})}) {
    SCOPED_TRACE(key.dump());
    freshLocalData();
    TraceCapture trace("VgwRequestHandler/0");
    stateIs(SessionState::stateConnecting);
    Json message = switchAndLocators(1, 10, 2, {"10.0.0.1", "10.0.0.2"});
    message["Logical_Switch"][S(1)]["new"]["tunnel_key"] = key;
    message["Physical_Locator_Set"][S(4)]["new"] = {{"locators", Json::array({"set", Json::array({ref(2), ref(3)})})}};
    message["Ucast_Macs_Local"][S(10)]["new"] = {
        {"MAC", "00:00:00:00:00:01"}, {"logical_switch", ref(1)}, {"locator", ref(2)}};
    message["Mcast_Macs_Local"][S(11)]["new"] = {
        {"MAC", "unknown-dst"}, {"logical_switch", ref(1)}, {"locator_set", ref(4)}};
    ASSERT_TRUE(apply(message));
    EXPECT_TRUE(local().ucastMacsLocalTable().empty() && local().mcastMacsLocalTable().empty());
    EXPECT_TRUE(trace.contains("Local MAC row " + S(10) + " on logical switch " + S(1) + " without a VNI"))
        << trace.text();
    EXPECT_TRUE(trace.contains("Local MAC row " + S(11))) << trace.text();
    EXPECT_FALSE(ovsdb->logicalSwitch(rowId(1))->tunnelKey().isValid());
  }
}

// Rows the controller may write that mean nothing to the fabric: an ARP
// source without a MAC is kept but indexed nowhere, and a remote row that
// reflects one of the agent's bridge MACs without an address, or on a
// switch without a VNI, makes no transit VNI. Each is traced; the message
// is applied.
TEST_F(VgwMonitorMessage, RowsThatMeanNothingToTheFabricAreKeptAndIndexedNowhere) {
  TraceCapture trace("VgwRequestHandler/0");
  stateIs(SessionState::stateConnecting);
  Json message = switchAndLocators(1, 10, 2, {"10.0.0.1"});
  message["Logical_Switch"][S(5)]["new"] = {{"name", "no-vni"}};
  message["Arp_Sources_Local"][S(20)]["new"] = {{"src_mac", "00:aa:00:00:00:01"}, {"locator", ref(2)}};
  ASSERT_TRUE(apply(message));
  stateIs(SessionState::stateConnected);
  ASSERT_TRUE(apply({{"Arp_Sources_Remote",
                      {{S(21), {{"new", {{"src_mac", ""}, {"locator", ref(2)}}}}},
                       {S(22), {{"new", {{"src_mac", "not-a-mac"}, {"locator", ref(2)}}}}}}},
                     {"Ucast_Macs_Remote",
                      {{S(30), {{"new", ucast("00:aa:00:00:00:01", 1, 2, "")}}},
                       {S(31), {{"new", ucast("00:aa:00:00:00:01", 5, 2, "10.1.1.1")}}}}}}));
  EXPECT_EQ(keysOf(ovsdb->arpSourcesRemoteRaw()), (std::set<Uuid>{rowId(21), rowId(22)}));
  EXPECT_TRUE(ovsdb->arpSourcesRemote().empty());
  EXPECT_TRUE(local().transitVni().empty());
  EXPECT_EQ(trace.count("names no MAC, indexed nowhere"), 2u) << trace.text();
  EXPECT_EQ(trace.count("reflects bridge MAC 00:aa:00:00:00:01"), 2u) << trace.text();
  EXPECT_TRUE(local().remoteHostTable(rowId(1))->macVtep().contains(mac("00:aa:00:00:00:01")));
  // Their changes and deletes find them where they are.
  ASSERT_TRUE(apply({{"Arp_Sources_Remote",
                      {{S(21), {{"new", {{"src_mac", "00:99:00:00:00:01"}, {"locator", ref(2)}}}, {"old", {{"src_mac", ""}}}}},
                       {S(22), {{"old", {{"src_mac", "not-a-mac"}, {"locator", ref(2)}}}}}}}}));
  EXPECT_EQ(keysOf(ovsdb->arpSourcesRemote()), std::set<EthAddr>{mac("00:99:00:00:00:01")});
  EXPECT_EQ(keysOf(ovsdb->arpSourcesRemoteRaw()), std::set<Uuid>{rowId(21)});
}

TEST(VgwStaleRows, LocalMacsAreJudgedByMacAndVniAndOrphanedIndexEntriesGo) {
  freshLocalData();
  LocalData& local = *Kiln::Entity::singletonIs<LocalData>();
  const auto ucast = local.ucastMacsLocalTableIs(Vxlan::Vni(10));
  ucast->ucastMacsLocalIs(rowId(1), mac("00:00:00:00:00:01"));
  ucast->ucastMacsLocalIs(rowId(2), mac("00:00:00:00:00:02"));
  local.mcastMacsLocalTableIs(Vxlan::Vni(20))->mcastMacsLocalIs(rowId(3), EthAddr());

  auto ovsdb = Kiln::newPtr<HwVtepOvsdb>();
  ovsdb->physicalLocatorIs(ip("10.0.0.5"), Kiln::newPtr<PhysicalLocator>(rowId(4)));  // no raw row behind it
  const auto arp = ovsdb->arpSourcesRemoteRawIs(rowId(5));  // indexed under a MAC it no longer has
  arp->srcMacIs(mac("00:00:00:00:00:05"));
  ovsdb->arpSourcesRemoteIs(mac("00:00:00:00:00:06"), arp);
  ovsdb->arpSourcesRemoteIs(mac("00:00:00:00:00:05"), arp);

  removeStaleOvsdb(ovsdb, {rowId(5)}, {MacVniPair(mac("00:00:00:00:00:01"), Vxlan::Vni(10))});
  EXPECT_EQ(keysOf(ucast->ucastMacsLocal()), std::set<EthAddr>{mac("00:00:00:00:00:01")});
  EXPECT_FALSE(local.mcastMacsLocalTable(Vxlan::Vni(20)));
  EXPECT_TRUE(ovsdb->physicalLocator().empty());
  EXPECT_EQ(keysOf(ovsdb->arpSourcesRemote()), std::set<EthAddr>{mac("00:00:00:00:00:05")});
  freshLocalData();
}

TEST(VgwHwVtepOvsdbSm, SwitchesAndPortsTheirOwnersStopNamingLeaveTheMirror) {
  freshLocalData();
  auto ovsdb = Kiln::newPtr<HwVtepOvsdb>();
  const auto global = ovsdb->rootIs(rowId(1));
  for (unsigned s : {10u, 20u}) {
    const auto pSwitch = ovsdb->physicalSwitchRawIs(rowId(s));
    pSwitch->displayNameIs("leaf" + std::to_string(s));
    ovsdb->physicalSwitchIs(pSwitch->displayName(), pSwitch);
    for (unsigned p : {s + 1, s + 2}) pSwitch->portIs(ovsdb->physicalPortIs(rowId(p))->uuid());
    global->pSwitchIs(rowId(s));
  }
  const Fleet::SystemId id = Fleet::SystemId::parse("00:1c:73:00:00:01");
  ovsdb->physicalSwitchRaw(rowId(10))->systemIdIs(id);
  Kiln::Entity::singletonIs<LocalData>()->physicalSwitchIs(id, ovsdb->physicalSwitchRaw(rowId(10)));
  ovsdb->tunnelIs(LocalRemoteVtepPair(ip("10.0.0.1"), ip("10.0.0.2")), ovsdb->tunnelRawIs(rowId(15)));
  ovsdb->physicalSwitchRaw(rowId(10))->tunnelIs(rowId(15));

  auto sm = hwVtepOvsdbSmFactory(ovsdb);
  global->pSwitchDel(rowId(10));
  EXPECT_EQ(keysOf(ovsdb->physicalSwitchRaw()), std::set<Uuid>{rowId(20)});
  EXPECT_FALSE(ovsdb->physicalSwitch("leaf10"));
  EXPECT_EQ(keysOf(ovsdb->physicalPort()), (std::set<Uuid>{rowId(21), rowId(22)}));
  EXPECT_TRUE(ovsdb->tunnelRaw().empty() && ovsdb->tunnel().empty());
  EXPECT_FALSE(Kiln::Entity::singletonIs<LocalData>()->physicalSwitch(id));
  ovsdb->physicalSwitchRaw(rowId(20))->portDel(rowId(21));
  EXPECT_EQ(keysOf(ovsdb->physicalPort()), std::set<Uuid>{rowId(22)});
  freshLocalData();
}

}  // namespace
}  // namespace Vgw::Test
