// The root state machine against a real ovsdb-server: the connect ladder,
// the deferred disconnect teardown, enable and disable by configuration and
// by leadership, the managers of the configuration in the database, and
// manager convergence on simulated time.
#include <gtest/gtest.h>

#include <string>

#include "SessionSupport.h"
#include "Vgw/CliConfigSm.h"
#include "Vgw/InventorySm.h"
#include "Vgw/OvsdbSessionRecord.h"
#include "Vgw/VgwAgent.h"
#include "Vgw/VgwUtils.h"

namespace Vgw::Test {
namespace {

using Kiln::Json;

constexpr const char* nvc = "ptcp:6640:127.0.0.1";
constexpr const char* nvc2 = "ptcp:6641:127.0.0.1";
constexpr std::uint32_t shortInterval = 4;
constexpr std::uint32_t longInterval = 20;

class RootSmTest : public testing::Test {
 protected:
  RootSmTest() {
    freshLocalData();
    config->ovsdbSocketPathIs(server.socketPath());
    config->mgrConvergenceShortIntervalIs(shortInterval);
    config->mgrConvergenceLongIntervalIs(longInterval);
    cliConfig->enableAgentIs(true);
    cliConfig->managerAddressIs(nvc, true);
    topoStatus->convergenceStatusIs("convergence")->convergenceInProgressIs(false);
  }
  ~RootSmTest() override { root = nullptr; }

  void start() {
    root = Kiln::newPtr<RootSm>(config, cliConfig, status, fleetConfig, cluster, Kiln::newPtr<Kiln::Dir>(),
                                dynVtepConfigReady, Kiln::newPtr<Kiln::Dir>(), topoStatus,
                                Kiln::newPtr<OverlaySvc::VniStatusDirV2>(), vniStatusDirOut,
                                Kiln::newPtr<Kiln::Dir>(), ofcState, ofcStateReply,
                                Kiln::newPtr<Kiln::Dir>(), lrConfigReady, Kiln::newPtr<OverlaySvc::ErrorStatusV2>(),
                                agent.get());
  }
  SessionState state() const {
    return status->ovsdbSessionStatus() ? status->ovsdbSessionStatus()->sessionState() : SessionState::stateInit;
  }
  void connect() { ASSERT_TRUE(loop.runUntil([&] { return state() == SessionState::stateConnected; })); }
  // Starts a session that goes through the whole ladder.
  void startComplete() {
    start();
    root->handleInitialSwitchMountsComplete();
    connect();
    ASSERT_TRUE(root->cliConfigSm());
  }
  void controllerWrites() { ASSERT_TRUE(db.synced(loop, [&] { return status->ovsdb(); })); }
  std::set<std::string> managerTargets() {
    std::set<std::string> targets;
    for (const Json& row : db.rows("Manager")) targets.insert(row["target"].get<std::string>());
    return targets;
  }
  // The uuids Global.managers names.
  std::set<Uuid> globalManagers() {
    std::set<Uuid> uuids;
    const Json managers = db.rows("Global").at(0)["managers"];
    if (managers[0] == "uuid") uuids.insert(uuidOf(managers));
    if (managers[0] == "set") {
      for (const Json& m : managers[1]) uuids.insert(uuidOf(m));
    }
    return uuids;
  }
  // Logical switch blue, once the fabric sees its VNI.
  Uuid publishBlue() {
    const Uuid blue = db.addLogicalSwitch("blue", 5000);
    EXPECT_TRUE(loop.runUntil([&] { return vniStatusDirOut->vniStatusV2(Vxlan::Vni(5000)) != nullptr; }));
    return blue;
  }
  bool gatesOpen() const { return dynVtepConfigReady->publishMount() && !lrConfigReady->convergenceInProgress(); }
  LocalData& local() { return *Kiln::Entity::singletonIs<LocalData>(); }

  LoopRunner loop;
  OvsdbServer server;
  Controller db{server};
  Kiln::Ptr<Config> config = Kiln::newPtr<Config>();
  Kiln::Ptr<CliConfig> cliConfig = Kiln::newPtr<CliConfig>();
  Kiln::Ptr<Status> status = Kiln::newPtr<Status>();
  Kiln::Ptr<FleetStore::Config> fleetConfig = Kiln::newPtr<FleetStore::Config>();
  Kiln::Ptr<FleetCluster::ClusterStatus> cluster = Kiln::newPtr<FleetCluster::ClusterStatus>("default");
  Kiln::Ptr<OverlaySvc::DynVtepConfigReadyV2> dynVtepConfigReady = Kiln::newPtr<OverlaySvc::DynVtepConfigReadyV2>();
  Kiln::Ptr<FabricMapV3::Status> topoStatus = Kiln::newPtr<FabricMapV3::Status>();
  Kiln::Ptr<OverlaySvc::VniStatusDirV2> vniStatusDirOut = Kiln::newPtr<OverlaySvc::VniStatusDirV2>();
  Kiln::Ptr<OverlaySvc::OfcStateV2> ofcState = Kiln::newPtr<OverlaySvc::OfcStateV2>();
  Kiln::Ptr<OverlaySvc::OfcStateClientViewV2> ofcStateReply = Kiln::newPtr<OverlaySvc::OfcStateClientViewV2>();
  Kiln::Ptr<OverlaySvc::ServiceReadyV2> lrConfigReady = Kiln::newPtr<OverlaySvc::ServiceReadyV2>();
  Kiln::Ptr<Agent> agent =
      Kiln::newPtr<Agent>(Kiln::newPtr<Ledger::EntityManager>(Kiln::newPtr<Ledger::Store>()), "Vgw");
  Kiln::Ptr<RootSm> root;
};

TEST_F(RootSmTest, ConnectedSessionGetsTheReadersAtOnceAndTheWritersAfterConvergence) {
  topoStatus->convergenceStatus()->convergenceInProgressIs(true);
  ofcState->convergenceInProgressIs(true);
  start();
  EXPECT_TRUE(status->running());
  EXPECT_TRUE(ofcStateReply->convergenceInProgress()) << "the overlay service's state is echoed";
  connect();
  EXPECT_TRUE(root->remoteHostSm());
  EXPECT_FALSE(root->cliConfigSm() || root->inventorySm());

  // Each gate holds the writers: the topology, the error status mounts, the overlay service.
  topoStatus->convergenceStatus()->convergenceInProgressIs(false);
  EXPECT_FALSE(root->cliConfigSm());
  root->handleInitialSwitchMountsComplete();
  EXPECT_FALSE(root->cliConfigSm());
  EXPECT_FALSE(local().ovsdbSynchronized());
  ofcState->convergenceInProgressIs(false);
  EXPECT_FALSE(ofcStateReply->convergenceInProgress());
  ASSERT_TRUE(root->cliConfigSm() && root->inventorySm());
  EXPECT_TRUE(local().ovsdbSynchronized());
  EXPECT_EQ(managerTargets(), std::set<std::string>{nvc});
  EXPECT_EQ(globalManagers(), db.uuids("Manager"));

  // Creators keep a child built with equal arguments; losing convergence
  // later tears nothing down.
  CliConfigSm* const cli = root->cliConfigSm().get();
  RemoteHostSm* const remote = root->remoteHostSm();
  root->remoteHostSmIs(status, vniStatusDirOut);
  topoStatus->convergenceStatus()->convergenceInProgressIs(true);
  EXPECT_EQ(root->cliConfigSm().get(), cli);
  EXPECT_EQ(root->remoteHostSm(), remote);
}

TEST_F(RootSmTest, DisconnectTearsDownAfterTheNotificationAndReconnectRebuilds) {
  startComplete();
  publishBlue();

  // A drop as the session reports it: the machines outlive the notification.
  updateOvsdbRequestResult(status->ovsdbSessionStatus(), SessionState::stateDisconnected, OvsdbRequestType::transact,
                           "dropped");
  EXPECT_EQ(root->disconnectTime(), loop.now());
  EXPECT_TRUE(root->cliConfigSm() && root->remoteHostSm());
  loop.settle();
  EXPECT_FALSE(root->cliConfigSm() || root->remoteHostSm() || root->inventorySm());
  EXPECT_TRUE(local().remoteHostTable().empty());
  EXPECT_TRUE(vniStatusDirOut->vniStatusV2(Vxlan::Vni(5000))) << "dropped without destroy, the fabric keeps it";
  EXPECT_TRUE(root->requestHandler() && root->vgwClientSm());
  loop.advance(15.0);
  connect();
  EXPECT_TRUE(root->cliConfigSm() && root->remoteHostSm() && root->inventorySm());
  EXPECT_EQ(managerTargets(), std::set<std::string>{nvc});
}

// A stand-in for the teardown of a machine that writes the database: when
// the remote host machine withdraws its VNIs, this deletes a logical switch.
class TeardownWriter : public OverlaySvc::VniStatusDirV2::NotifieeConst {
 public:
  TeardownWriter(RootSm& root, const Kiln::Ptr<OverlaySvc::VniStatusDirV2>& dir, const Uuid& logicalSwitch)
      : root_(root), logicalSwitch_(logicalSwitch) {
    notifierIs(dir);
  }
  void onVniStatusV2(const Vxlan::Vni&) override {
    if (sent) return;
    sent = true;
    discarding = root_.requestHandler()->discardRequest();
    auto tx = Kiln::newPtr<OvsdbTransactRequest>();
    tx->ignoreProcessResultIs(true);
    tx->opEnq(buildDelete(logicalSwitch_, OvsdbDataType::logicalSwitch));
    queue = root_.requestQueue();
    queue->requestEnq(tx);
  }
  bool sent = false;
  bool discarding = false;
  Kiln::Ptr<OvsdbRequestQueue> queue;

 private:
  RootSm& root_;
  const Uuid logicalSwitch_;
};

TEST_F(RootSmTest, OperatorDisableSendsTheTeardownsWrites) {
  startComplete();
  TeardownWriter teardown(*root, vniStatusDirOut, publishBlue());
  cliConfig->enableAgentIs(false);
  ASSERT_TRUE(teardown.sent);
  EXPECT_FALSE(teardown.discarding);
  EXPECT_TRUE(db.uuids("Logical_Switch").empty());
  EXPECT_TRUE(vniStatusDirOut->vniStatusV2().empty());
  EXPECT_FALSE(status->running());
  EXPECT_FALSE(status->ovsdb() || status->ovsdbSessionStatus());
  EXPECT_FALSE(root->remoteHostSm() || root->cliConfigSm() || root->vgwClientSm());
  EXPECT_FALSE(gatesOpen());
}

TEST_F(RootSmTest, LostLeadershipDiscardsBeforeTheTeardownAndReturnReconnects) {
  startComplete();
  const Uuid blue = publishBlue();
  TeardownWriter teardown(*root, vniStatusDirOut, blue);
  const std::vector<Json> managersBefore = db.rows("Manager");

  cluster->isStandaloneOrLeaderIs(false);
  ASSERT_TRUE(teardown.sent);
  EXPECT_TRUE(teardown.discarding);
  EXPECT_EQ(teardown.queue->request().size(), 2u) << "the delete and the local hosts' teardown wait in the queue";
  EXPECT_EQ(db.uuids("Logical_Switch"), std::set<Uuid>{blue});
  EXPECT_EQ(db.rows("Manager"), managersBefore);
  EXPECT_FALSE(status->running());

  cluster->isStandaloneOrLeaderIs(true);
  EXPECT_TRUE(status->running());
  EXPECT_FALSE(root->requestHandler()->discardRequest());
  connect();
  EXPECT_TRUE(root->cliConfigSm());
  EXPECT_EQ(db.rows("Manager"), managersBefore);
}

TEST_F(RootSmTest, ManagersFollowTheConfiguration) {
  // The database holds a manager nobody configured and the configured one.
  const Uuid kept = db.transact(Json::array({insertOp("Manager", "stale", {{"target", "ptcp:7000"}}),
                                             insertOp("Manager", "kept", {{"target", nvc}}),
                                             addToGlobalOp("managers", "stale"),
                                             addToGlobalOp("managers", "kept")}))
                        .at("kept");
  startComplete();
  EXPECT_EQ(managerTargets(), std::set<std::string>{nvc});
  EXPECT_EQ(globalManagers(), std::set<Uuid>{kept});
  EXPECT_EQ(local().mgrConverged(), MgrConvergenceState::mgrWaiting) << "a manager found in place starts convergence";

  cliConfig->managerAddressIs(nvc2, true);
  EXPECT_EQ(managerTargets(), (std::set<std::string>{nvc, nvc2}));
  EXPECT_EQ(globalManagers(), db.uuids("Manager"));
  cliConfig->managerAddressIs(nvc2, false);
  EXPECT_EQ(managerTargets(), std::set<std::string>{nvc});
  cliConfig->managerAddressDel(nvc);
  EXPECT_TRUE(managerTargets().empty());
  EXPECT_TRUE(globalManagers().empty());
  const std::uint64_t sent = status->ovsdbSessionStatus()->requestCount();
  root->cliConfigSm()->deleteManager(nvc);
  EXPECT_EQ(status->ovsdbSessionStatus()->requestCount(), sent) << "an absent manager costs no transaction";
}

TEST_F(RootSmTest, QuietControllerConvergesAfterTheShortInterval) {
  startComplete();
  EXPECT_EQ(local().mgrConverged(), MgrConvergenceState::mgrWaiting);
  EXPECT_EQ(root->mgrConvergenceLongTime(), loop.now() + longInterval);
  controllerWrites();
  loop.advance(shortInterval - 0.5);
  EXPECT_FALSE(gatesOpen());
  loop.advance(1.0);
  EXPECT_EQ(local().mgrConverged(), MgrConvergenceState::mgrConverged);
  EXPECT_TRUE(gatesOpen());
  controllerWrites();
  EXPECT_EQ(local().mgrConverged(), MgrConvergenceState::mgrConverged);
}

TEST_F(RootSmTest, BusyControllerConvergesAfterTheLongInterval) {
  startComplete();
  // A write every half quiet period, the last one short of the bound.
  const double bound = loop.now() + longInterval;
  while (loop.now() + shortInterval / 2.0 <= bound) {
    controllerWrites();
    EXPECT_FALSE(gatesOpen()) << "at " << loop.now();
    loop.advance(shortInterval / 2.0);
  }
  EXPECT_EQ(loop.now(), bound);
  EXPECT_TRUE(gatesOpen());
}

TEST_F(RootSmTest, NoManagerKeepsTheGatesShut) {
  cliConfig->managerAddressDelAll();
  startComplete();
  controllerWrites();
  loop.advance(longInterval + 1.0);
  EXPECT_EQ(local().mgrConverged(), MgrConvergenceState::mgrInitial);
  EXPECT_FALSE(gatesOpen());
}

}  // namespace
}  // namespace Vgw::Test
