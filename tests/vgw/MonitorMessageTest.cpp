// Monitor messages applied by hand, without a server: the notify types of a
// first snapshot and of a running session, the stale rows a snapshot
// removes, the controller's placeholder switch, what one message asks of the
// machines that depend on the mirror, remote MAC modifies, and the tables
// the agent writes itself. Also the mirror's switch and port upkeep, the
// session status record and the session client's timing.
#include <gtest/gtest.h>

#include "SessionSupport.h"
#include "TransactionSupport.h"
#include "Vgw/OvsdbSessionRecord.h"

namespace Vgw::Test {
namespace {

using Ipkit::EthAddr;
using Ipkit::IpGenAddr;
using Kiln::Json;

// Server-made uuids have the top bit of word 2 set.
Uuid U(unsigned n) {
  char text[40];
  std::snprintf(text, sizeof text, "00000000-0000-0000-8000-%012x", n);
  return Uuid::parse(text);
}
std::string S(unsigned n) { return U(n).stringValue().stringValue(); }
Json ref(unsigned n) { return Json::array({"uuid", S(n)}); }
EthAddr mac(const char* text) { return EthAddr::parse(text); }
IpGenAddr ip(const char* text) { return IpGenAddr::parse(text); }

class NoRemoteHostRoot : public RootSmInterface {
 public:
  RemoteHostSm* remoteHostSm() const override { return nullptr; }
  LrSmInterface* lrSm() const override { return &lr; }
  TunnelSmInterface* tunnelSm() const override { return &tunnel; }
  mutable LrSmRecorder lr;
  mutable TunnelSmRecorder tunnel;
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
    Json message = {{"Logical_Switch", {{S(ls), {{"new", {{"name", "ls" + std::to_string(ls)}, {"tunnel_key", vni}}}}}}}};
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

TEST_F(VgwMonitorMessage, FirstContentsAreInitialRowsAndRemoveWhatTheyLack) {
  // What the mirror held from an earlier session.
  ovsdb->logicalSwitchIs(U(1))->displayNameIs("gone");
  local().remoteHostTableIs(U(1));
  const auto oldLocator = ovsdb->physicalLocatorRawIs(U(9));
  oldLocator->keyIs(PhysicalLocatorKey(EncapsulationType::vxlan_over_ipv4, ip("10.9.9.9")));
  ovsdb->physicalLocatorIs(ip("10.9.9.9"), oldLocator);

  stateIs(SessionState::stateConnecting);
  Json message = switchAndLocators(2, 7, 3, {"10.0.0.1", "10.0.0.2"});
  message["Tunnel"][S(5)] = {{"new", {{"local", ref(3)}, {"remote", ref(4)}}}};
  message["Physical_Port"][S(6)] = {{"new", {{"name", "p1"}}}};
  ASSERT_TRUE(apply(message));

  EXPECT_FALSE(ovsdb->logicalSwitch(U(1)));
  EXPECT_FALSE(local().remoteHostTable(U(1)));
  EXPECT_EQ(ovsdb->logicalSwitch(U(2))->tunnelKey(), Vxlan::VniOrNone(7));
  EXPECT_TRUE(local().remoteHostTable(U(2)));
  EXPECT_FALSE(ovsdb->physicalLocatorRaw(U(9)));
  EXPECT_FALSE(ovsdb->physicalLocator(ip("10.9.9.9")));
  EXPECT_EQ(ovsdb->tunnel(LocalRemoteVtepPair(ip("10.0.0.1"), ip("10.0.0.2")))->uuid(), U(5));
  EXPECT_TRUE(ovsdb->physicalPort(U(6)));  // a port of the snapshot is stored
  EXPECT_EQ(local().vniToLogicalSwitch(Vxlan::Vni(7))->logicalSwitch(), std::set<Uuid>{U(2)});
  EXPECT_TRUE(local().monitorUpdateComplete());

  // Connected, a row without "old" is an insert: a port is then not stored,
  // and a tunnel's delete leaves the mirror alone.
  stateIs(SessionState::stateConnected);
  ASSERT_TRUE(apply({{"Physical_Port", {{S(7), {{"new", {{"name", "p2"}}}}}}},
                     {"Tunnel", {{S(5), {{"old", {{"local", ref(3)}, {"remote", ref(4)}}}}}}}}));
  EXPECT_FALSE(ovsdb->physicalPort(U(7)));
  EXPECT_TRUE(ovsdb->physicalLocatorRaw(U(3)));
  EXPECT_TRUE(ovsdb->tunnelRaw(U(5)));
  EXPECT_TRUE(ovsdb->tunnel(LocalRemoteVtepPair(ip("10.0.0.1"), ip("10.0.0.2"))));
}

TEST_F(VgwMonitorMessage, ThePlaceholderSwitchAndItsRowsAreNeverMirrored) {
  stateIs(SessionState::stateConnected);
  Json message = switchAndLocators(2, 7, 3, {"10.0.0.1"});
  message["Logical_Switch"][S(1)] = {{"new", {{"name", "_nvp_internal"}}}};
  message["Ucast_Macs_Remote"][S(10)] = {{"new", ucast("00:00:00:00:00:01", 1, 3, "10.1.1.1")}};
  ASSERT_TRUE(apply(message));
  EXPECT_EQ(local().nvpInternalLogicalSwitch(), U(1));
  EXPECT_FALSE(ovsdb->logicalSwitch(U(1)));
  EXPECT_FALSE(local().remoteHostTable(U(1)));
  EXPECT_TRUE(local().remoteHostTable(U(2))->macVtep().empty());

  // Its delete comes with the delete of a row that still names it: the row
  // is recognised, and the switch is forgotten at the message's end.
  ASSERT_TRUE(apply({{"Logical_Switch", {{S(1), {{"old", {{"name", "_nvp_internal"}}}}}}},
                     {"Ucast_Macs_Remote", {{S(10), {{"old", ucast("00:00:00:00:00:01", 1, 3, "10.1.1.1")}}}}}}));
  EXPECT_TRUE(local().nvpInternalLogicalSwitch().isNull());
  EXPECT_TRUE(local().delNvpInternalLogicalSwitch().isNull());
}

TEST_F(VgwMonitorMessage, EachMessageWakesTheDependentMachinesOnceAndPassesManagerConvergence) {
  class Convergence : public LocalData::NotifieeConst {
   public:
    void onMgrConverged() override { seen.push_back(notifier()->mgrConverged()); }
    std::vector<MgrConvergenceState> seen;
  } convergence;
  convergence.notifierIs(Kiln::Entity::singletonIs<LocalData>());
  local().mgrConvergedIs(MgrConvergenceState::mgrWaiting);
  convergence.seen.clear();

  stateIs(SessionState::stateConnected);
  Json message = switchAndLocators(2, 7, 3, {"10.0.0.1"});
  message["Logical_Router"][S(20)] = {{"new", {{"name", "lr"}}}};
  ASSERT_TRUE(apply(message));
  EXPECT_EQ(convergence.seen,
            (std::vector<MgrConvergenceState>{MgrConvergenceState::mgrProcessing, MgrConvergenceState::mgrWaiting}));
  EXPECT_EQ(root.lr.reconciles, 1);
  EXPECT_EQ(root.lr.dirty, std::set<Uuid>{U(20)});
  EXPECT_EQ(root.tunnel.refreshes, 1);
  EXPECT_TRUE(root.tunnel.lastForce);

  // Once converged, messages leave the state alone.
  local().mgrConvergedIs(MgrConvergenceState::mgrConverged);
  convergence.seen.clear();
  ASSERT_TRUE(apply({{"Logical_Router", {{S(20), {{"old", {{"name", "lr"}}}}}}}}));
  EXPECT_TRUE(convergence.seen.empty());
  EXPECT_FALSE(ovsdb->logicalRouterRaw(U(20)));
  EXPECT_EQ(root.lr.reconciles, 2);
  EXPECT_EQ(root.tunnel.refreshes, 2);
}

TEST_F(VgwMonitorMessage, RemoteMacModifiesReleaseOnlyWhatChangedAndConflictsFailTheMessage) {
  stateIs(SessionState::stateConnected);
  Json message = switchAndLocators(1, 10, 2, {"10.0.0.1", "10.0.0.2", "10.0.0.3"});
  message["Ucast_Macs_Remote"][S(10)] = {{"new", ucast("00:00:00:00:00:01", 1, 2, "10.1.1.1")}};
  ASSERT_TRUE(apply(message));
  const Kiln::Ptr<RemoteHostTable> table = local().remoteHostTable(U(1));
  local().switchBindingDirtyIs(false);

  // Only the address changed: the MAC keeps its VTEP.
  ASSERT_TRUE(apply({{"Ucast_Macs_Remote",
                      {{S(10), {{"new", ucast("00:00:00:00:00:01", 1, 2, "10.1.1.2")}, {"old", {{"ipaddr", "10.1.1.1"}}}}}}}}));
  EXPECT_FALSE(table->ipToMac().contains(ip("10.1.1.1")));
  EXPECT_EQ(table->ipToMac(ip("10.1.1.2")).mac(), mac("00:00:00:00:00:01"));
  EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:01")).physicalLocator(), U(2));
  EXPECT_TRUE(local().switchBindingDirty());

  // Only the locator changed: the MAC moves, the address stays bound.
  ASSERT_TRUE(apply({{"Ucast_Macs_Remote",
                      {{S(10), {{"new", ucast("00:00:00:00:00:01", 1, 3, "10.1.1.2")}, {"old", {{"locator", ref(2)}}}}}}}}));
  EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:01")).physicalLocator(), U(3));
  EXPECT_EQ(table->ipToMac(ip("10.1.1.2")).physicalLocator(), U(3));

  // A second row for the MAC behind another VTEP, with no delete.
  EXPECT_FALSE(apply({{"Ucast_Macs_Remote", {{S(11), {{"new", ucast("00:00:00:00:00:01", 1, 4, "")}}}}}}));
  EXPECT_FALSE(local().monitorUpdateComplete());
  EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:01")).physicalLocator(), U(3));
}

TEST_F(VgwMonitorMessage, TheAgentsOwnTablesAcceptFirstContentsOnly) {
  stateIs(SessionState::stateConnecting);
  Json message = switchAndLocators(1, 10, 2, {"10.0.0.1"});
  message["Ucast_Macs_Local"][S(10)] = {{"new", {{"MAC", "00:00:00:00:00:01"}, {"logical_switch", ref(1)}, {"locator", ref(2)}}}};
  message["Physical_Switch"][S(11)] = {{"new", {{"name", "leaf1"}}}};
  ASSERT_TRUE(apply(message));
  EXPECT_TRUE(local().ucastMacsLocalTable(Vxlan::Vni(10))->ucastMacsLocal(mac("00:00:00:00:00:01")));
  EXPECT_EQ(ovsdb->physicalSwitch("leaf1")->uuid(), U(11));
  EXPECT_TRUE(local().localLocator(PhysicalLocatorKey(EncapsulationType::vxlan_over_ipv4, ip("10.0.0.1"))));

  stateIs(SessionState::stateConnected);
  const auto expectRefused = [&](const Json& m) {
    EXPECT_DEATH(apply(m), literally("false && \"Unexpected\"")) << m.dump();
  };
  expectRefused({{"Physical_Switch", {{S(12), {{"new", {{"name", "leaf2"}}}}}}}});
  expectRefused({{"Ucast_Macs_Local", {{S(10), {{"old", {{"MAC", "00:00:00:00:00:01"}}}}}}}});
  expectRefused({{"Arp_Sources_Local", {{S(13), {{"new", {{"src_mac", "00:00:00:00:00:02"}, {"locator", ref(2)}}}}}}}});
}

TEST(VgwStaleRows, LocalMacsAreJudgedByMacAndVniAndOrphanedIndexEntriesGo) {
  freshLocalData();
  LocalData& local = *Kiln::Entity::singletonIs<LocalData>();
  const auto ucast = local.ucastMacsLocalTableIs(Vxlan::Vni(10));
  ucast->ucastMacsLocalIs(U(1), mac("00:00:00:00:00:01"));
  ucast->ucastMacsLocalIs(U(2), mac("00:00:00:00:00:02"));
  local.mcastMacsLocalTableIs(Vxlan::Vni(20))->mcastMacsLocalIs(U(3), EthAddr());

  auto ovsdb = Kiln::newPtr<HwVtepOvsdb>();
  const auto locator = Kiln::newPtr<PhysicalLocator>(U(4));  // an index entry without its raw row
  ovsdb->physicalLocatorIs(ip("10.0.0.5"), locator);
  const auto arp = ovsdb->arpSourcesRemoteRawIs(U(5));  // indexed under a MAC it no longer has
  arp->srcMacIs(mac("00:00:00:00:00:05"));
  ovsdb->arpSourcesRemoteIs(mac("00:00:00:00:00:06"), arp);
  ovsdb->arpSourcesRemoteIs(mac("00:00:00:00:00:05"), arp);

  removeStaleOvsdb(ovsdb, {U(5)}, {MacVniPair(mac("00:00:00:00:00:01"), Vxlan::Vni(10))});
  EXPECT_EQ(keysOf(ucast->ucastMacsLocal()), std::set<EthAddr>{mac("00:00:00:00:00:01")});
  EXPECT_FALSE(local.mcastMacsLocalTable(Vxlan::Vni(20)));
  EXPECT_TRUE(ovsdb->physicalLocator().empty());
  EXPECT_EQ(keysOf(ovsdb->arpSourcesRemote()), std::set<EthAddr>{mac("00:00:00:00:00:05")});
  freshLocalData();
}

TEST(VgwHwVtepOvsdbSm, SwitchesAndPortsTheirOwnersStopNamingLeaveTheMirror) {
  freshLocalData();
  auto ovsdb = Kiln::newPtr<HwVtepOvsdb>();
  const auto global = ovsdb->rootIs(U(1));
  const Fleet::SystemId id = Fleet::SystemId::parse("00:1c:73:00:00:01");
  for (unsigned s : {10u, 20u}) {
    const auto pSwitch = ovsdb->physicalSwitchRawIs(U(s));
    pSwitch->displayNameIs("leaf" + std::to_string(s));
    ovsdb->physicalSwitchIs(pSwitch->displayName(), pSwitch);
    ovsdb->physicalPortIs(U(s + 1));
    ovsdb->physicalPortIs(U(s + 2));
    pSwitch->portIs(U(s + 1));
    pSwitch->portIs(U(s + 2));
    global->pSwitchIs(U(s));
  }
  ovsdb->physicalSwitchRaw(U(10))->systemIdIs(id);
  Kiln::Entity::singletonIs<LocalData>()->physicalSwitchIs(id, ovsdb->physicalSwitchRaw(U(10)));
  const auto tunnel = ovsdb->tunnelRawIs(U(15));
  ovsdb->tunnelIs(LocalRemoteVtepPair(ip("10.0.0.1"), ip("10.0.0.2")), tunnel);
  ovsdb->physicalSwitchRaw(U(10))->tunnelIs(U(15));

  auto sm = hwVtepOvsdbSmFactory(ovsdb);
  EXPECT_EQ(sm->pSwitch().size(), 2u);
  global->pSwitchDel(U(10));
  EXPECT_FALSE(ovsdb->physicalSwitchRaw(U(10)));
  EXPECT_FALSE(ovsdb->physicalSwitch("leaf10"));
  EXPECT_FALSE(ovsdb->physicalPort(U(11)));
  EXPECT_FALSE(ovsdb->physicalPort(U(12)));
  EXPECT_TRUE(ovsdb->tunnelRaw().empty());
  EXPECT_TRUE(ovsdb->tunnel().empty());
  EXPECT_FALSE(Kiln::Entity::singletonIs<LocalData>()->physicalSwitch(id));
  EXPECT_EQ(sm->pSwitch().size(), 1u);

  ovsdb->physicalSwitchRaw(U(20))->portDel(U(21));
  EXPECT_FALSE(ovsdb->physicalPort(U(21)));
  EXPECT_TRUE(ovsdb->physicalPort(U(22)));
  freshLocalData();
}

TEST(VgwSessionRecord, TheOutcomeIsInPlaceWhenTheStateChangesAndDropsAreCounted) {
  auto status = Kiln::newPtr<OvsdbSessionStatus>();
  class Watcher : public OvsdbSessionStatus::NotifieeConst {
   public:
    void onSessionState() override { seen.push_back(notifier()->lastResult().stringValue()); }
    std::vector<std::string> seen;
  } watcher;
  watcher.notifierIs(status);
  updateOvsdbRequest(status, OvsdbRequestType::monitor, "subscribe");
  EXPECT_EQ(status->requestCount(), 1u);
  EXPECT_EQ(status->lastRequest(), "subscribe");
  updateOvsdbRequestResult(status, SessionState::stateDisconnected, OvsdbRequestType::monitor, "lost");
  updateOvsdbRequestResult(status, SessionState::stateDisconnected, OvsdbRequestType::monitor, "still lost");
  EXPECT_EQ(watcher.seen, std::vector<std::string>{"lost"});
  EXPECT_EQ(status->disconnectCount(), 1u);
  EXPECT_EQ(status->lastResult(), "still lost");
}

TEST(VgwClient, SubscribesAtOnceThenEveryIntervalAfterADropWithTheSameRequest) {
  LoopRunner runner;
  auto status = Kiln::newPtr<OvsdbSessionStatus>();
  auto queue = Kiln::newPtr<OvsdbRequestQueue>();
  auto client = vgwClientSmFactory(status, queue);
  ASSERT_EQ(queue->request().size(), 1u);
  EXPECT_EQ(queue->requestDeq(), client->monitorRequest());

  status->sessionStateIs(SessionState::stateDisconnected);
  runner.advance(10.0);
  // A connect that fails again moves the expiry out; connecting does not disarm it.
  status->sessionStateIs(SessionState::stateConnecting);
  status->sessionStateIs(SessionState::stateDisconnected);
  runner.advance(14.5);
  EXPECT_TRUE(queue->request().empty());
  runner.advance(0.5);
  ASSERT_EQ(queue->request().size(), 1u);
  EXPECT_EQ(queue->requestDeq(), client->monitorRequest());

  status->sessionStateIs(SessionState::stateConnecting);
  status->sessionStateIs(SessionState::stateDisconnected);
  client = nullptr;
  runner.advance(60.0);
  EXPECT_TRUE(queue->request().empty());
}

}  // namespace
}  // namespace Vgw::Test
