// The agent's start-up and its root state machine.
//
// Start-up runs as a chain of hooks, each on a later turn of the loop: doInit
// (ring trace, lock file, local mounts), doMountsComplete (the start test),
// doServiceAgentInit (publication, service-side mounts) and
// doControllerMountsComplete, which builds the root state machine.
//
// The root state machine re-evaluates the whole from the session state on
// every change of one of its four inputs (session, topology, overlay
// service, error status mounts), so a late or repeated change never leaves a
// child missing: handleConnected only creates what is absent, and the
// creators keep a child built with equal arguments.
#include "Vgw/VgwAgent.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "Hearth/AgentRunner.h"
#include "Kiln/Assert.h"
#include "Kiln/System.h"
#include "Ovs/ovsc.h"
#include "RingTape/RingTape.h"
#include "Vgw/CliConfigSm.h"
#include "Vgw/InventorySm.h"
#include "Vgw/LocalHostSm.h"
#include "Vgw/RemoteHostSm.h"
#include "Vgw/VlanToVniSm.h"

RINGTAPE_HANDLE("VgwAgent");

namespace Vgw {

namespace {

constexpr const char* defaultTapeLockFilePath = "/tmp/Vgw-tape.lock";
// Ring sizes per trace level, in KiB: events and handler traces get the room.
constexpr RingTape::LevelSizes ringSizes = {32, 32, 32, 32, 32, 512, 512, 512, 128, 128};
constexpr int keepOldTapes = 0;
constexpr int oldTapeMaxAgeHours = 24;
constexpr std::uint32_t ringMaxMessageBytes = 512;

constexpr const char* mountFailed = "mountStatus == Ledger::mountSuccess_";

bool environmentHas(const char* name) { return std::getenv(name) != nullptr; }

template <class T>
Kiln::Ptr<T> mounted(const Ledger::EntityManager& manager, const char* path, const char* missing) {
  Kiln::Ptr<T> entity = manager.getEntity<T>(path);
  KILN_ASSERT(entity, missing);
  return entity;
}

}  // namespace

const std::vector<Ledger::Mount>& localMounts() {
  static const std::vector<Ledger::Mount> mounts = {
      Ledger::Mount("vgw/config", "Vgw::Config", "r"),
      Ledger::Mount("vgw/cliconfig", "Vgw::CliConfig", "r"),
      Ledger::Mount("vgw/status", "Vgw::Status", "wi"),
      Ledger::Mount("fleet/config", "FleetStore::Config", "r"),
      Ledger::Mount("fleet/status", "FleetStore::Status", "r"),
      Ledger::Mount("fleet/cluster/statusDir", "FleetCluster::ClusterStatusDir", "r"),
  };
  return mounts;
}

void declareConfigRules(Ledger::EntityManager& manager) {
  manager.entityCheckIs(Config::typeInfo_, [](const Kiln::Entity& e) { checkConfig(static_cast<const Config&>(e)); });
  manager.entityCheckIs(CliConfig::typeInfo_,
                        [](const Kiln::Entity& e) { checkCliConfig(static_cast<const CliConfig&>(e)); });
}

const std::vector<Ledger::Mount>& serviceMounts() {
  static const std::vector<Ledger::Mount> mounts = {
      Ledger::Mount("overlaysvc/version2/vgw/vniStatusDir", "OverlaySvc::VniStatusDirV2", "r"),
      Ledger::Mount("vxlan/version2/vtepStatusDir/switch", "Kiln::Dir", "ri"),
      Ledger::Mount("topology/version3/global/status", "FabricMapV3::Status", "ri"),
      Ledger::Mount("vgw/version2/vniStatusDir", "OverlaySvc::VniStatusDirV2", "wi"),
      Ledger::Mount("overlaysvc/version2/input/dynVtepConfig/vgw/switch", "Kiln::Dir", "wi"),
      Ledger::Mount("overlaysvc/version2/input/dynVtepConfigReady/vgw", "OverlaySvc::DynVtepConfigReadyV2", "w"),
      Ledger::Mount("interface/status/vxlan/errorStatus/version2/ofc/switch", "Kiln::Dir", "ri"),
      Ledger::Mount("overlaysvc/version2/input/lRConfig", "Kiln::Dir", "wi"),
      Ledger::Mount("overlaysvc/version2/input/lRConfigReady/vgw", "OverlaySvc::ServiceReadyV2", "w"),
      Ledger::Mount("overlaysvc/version2/errorStatus", "OverlaySvc::ErrorStatusV2", "r"),
      Ledger::Mount("overlaysvc/version2/vgw/ofcState", "OverlaySvc::OfcStateV2", "r"),
      Ledger::Mount("vgw/version2/ofcStateClientView", "OverlaySvc::OfcStateClientViewV2", "w"),
  };
  return mounts;
}

// ---- RootSm --------------------------------------------------------------------------

RootSm::RootSm(Kiln::Ptr<const Config> config, Kiln::Ptr<const CliConfig> cliConfig, Kiln::Ptr<Status> status,
               Kiln::Ptr<const FleetStore::Config> fleetStoreConfig,
               Kiln::Ptr<const FleetCluster::ClusterStatus> defaultClusterStatus, Kiln::Ptr<Kiln::Dir> dynVtepConfig,
               Kiln::Ptr<OverlaySvc::DynVtepConfigReadyV2> dynVtepConfigReady,
               Kiln::Ptr<const Kiln::Dir> errorStatusDir, Kiln::Ptr<const FabricMapV3::Status> topoStatus,
               Kiln::Ptr<const OverlaySvc::VniStatusDirV2> vniStatusDirIn,
               Kiln::Ptr<OverlaySvc::VniStatusDirV2> vniStatusDirOut, Kiln::Ptr<const Kiln::Dir> vtepStatusDirAgg,
               Kiln::Ptr<const OverlaySvc::OfcStateV2> ofcState,
               Kiln::Ptr<OverlaySvc::OfcStateClientViewV2> ofcStateReply, Kiln::Ptr<Kiln::Dir> lrConfigDir,
               Kiln::Ptr<OverlaySvc::ServiceReadyV2> lrConfigReady,
               Kiln::Ptr<const OverlaySvc::ErrorStatusV2> ofcErrorStatus, Agent* agent)
    : config_(std::move(config)),
      cliConfig_(std::move(cliConfig)),
      status_(std::move(status)),
      fleetStoreConfig_(std::move(fleetStoreConfig)),
      defaultClusterStatus_(std::move(defaultClusterStatus)),
      dynVtepConfig_(std::move(dynVtepConfig)),
      dynVtepConfigReady_(std::move(dynVtepConfigReady)),
      errorStatusDir_(std::move(errorStatusDir)),
      topoStatus_(std::move(topoStatus)),
      vniStatusDirIn_(std::move(vniStatusDirIn)),
      vniStatusDirOut_(std::move(vniStatusDirOut)),
      vtepStatusDirAgg_(std::move(vtepStatusDirAgg)),
      ofcState_(std::move(ofcState)),
      ofcStateReply_(std::move(ofcStateReply)),
      lrConfigDir_(std::move(lrConfigDir)),
      lrConfigReady_(std::move(lrConfigReady)),
      ofcErrorStatus_(std::move(ofcErrorStatus)),
      agent_(agent),
      disconnectTimer_(this, &RootSm::handleDisconnected),
      topoCvg_(this),
      mgrConvergenceShort_(this, &RootSm::handleTimeout),
      mgrConvergenceLong_(this, &RootSm::handleTimeout),
      statusSm_(this),
      kilnCliConfig_(this),
      kilnDefaultClusterStatus_(this),
      kilnStatus_(this),
      kilnTopoStatus_(this),
      kilnOfcState_(this),
      kilnLocalData_(this) {
  localData_ = Kiln::Entity::singletonIs<LocalData>();
  copyOfcState();
  handleInitialized();
  topoCvgIs(topoStatus_ ? topoStatus_->convergenceStatus() : nullptr);
  statusSmIs(status_->ovsdbSessionStatus());
  // The watched inputs are followed from here on; handleInitialized has
  // read their present values.
  kilnCliConfig_.notifierIs(cliConfig_);
  kilnDefaultClusterStatus_.notifierIs(defaultClusterStatus_);
  kilnStatus_.notifierIs(status_);
  kilnTopoStatus_.notifierIs(topoStatus_);
  kilnOfcState_.notifierIs(ofcState_);
  kilnLocalData_.notifierIs(localData_);
}

RootSm::~RootSm() {
  // The session client goes first, so that nothing is queued while the
  // others go; the handler keeps a pointer to this object until it is gone.
  vgwClientSm_ = nullptr;
  inventorySm_ = nullptr;
  localHostSm_ = nullptr;
  cliConfigSm_ = nullptr;
  remoteHostSm_ = nullptr;
  vlanToVniSm_ = nullptr;
  lrSm_ = nullptr;
  requestHandler_ = nullptr;
  ovsdbSm_ = nullptr;
}

void RootSm::KilnOfcState::onConvergenceInProgress() {
  sm_->handleSessionState("OFC");
  sm_->copyOfcState();
}

void RootSm::copyOfcState() {
  if (!ofcStateReply_) return;
  ofcStateReply_->convergenceInProgressIs(ofcState_ ? ofcState_->convergenceInProgress() : false);
}

void RootSm::statusSmIs(const Kiln::Ptr<const OvsdbSessionStatus>& sessionStatus) {
  statusSm_.notifierIs(sessionStatus);
}

void RootSm::topoCvgIs(const Kiln::Ptr<const FabricMapV3::ConvergenceStatus>& convergenceStatus) {
  topoCvg_.notifierIs(convergenceStatus);
}

void RootSm::errorStatusMountReadyIs(bool ready) {
  if (errorStatusMountReady_ == ready) return;
  errorStatusMountReady_ = ready;
  handleSessionState("errorStatus");
}

// ---- child creators ------------------------------------------------------------------------

void RootSm::ovsdbSmIs(const Kiln::Ptr<HwVtepOvsdb>& ovsdb) {
  if (ovsdbSm_ && ovsdbSm_->ovsdb() == ovsdb) return;
  ovsdbSm_ = nullptr;
  ovsdbSm_ = hwVtepOvsdbSmFactory(ovsdb);
}

void RootSm::requestHandlerIs(const Kiln::Ptr<const Config>& config,
                              const Kiln::Ptr<OvsdbSessionStatus>& sessionStatus, const Kiln::Ptr<HwVtepOvsdb>& ovsdb,
                              const Kiln::Ptr<OvsdbRequestQueue>& requestQueue) {
  if (requestHandler_ && requestHandler_->config() == config && requestHandler_->sessionStatus() == sessionStatus &&
      requestHandler_->ovsdb() == ovsdb && requestHandler_->requestQueue() == requestQueue) {
    return;
  }
  requestHandler_ = nullptr;
  requestHandler_ = hwVtepRequestHandlerSmFactory(config, sessionStatus, ovsdb, requestQueue, this);
}

void RootSm::vgwClientSmIs(const Kiln::Ptr<OvsdbSessionStatus>& sessionStatus,
                           const Kiln::Ptr<OvsdbRequestQueue>& requestQueue) {
  if (vgwClientSm_ && vgwClientSm_->sessionStatus() == sessionStatus && vgwClientSm_->requestQueue() == requestQueue) {
    return;
  }
  vgwClientSm_ = nullptr;
  vgwClientSm_ = vgwClientSmFactory(sessionStatus, requestQueue);
}

void RootSm::cliConfigSmIs(const Kiln::Ptr<Status>& status, const Kiln::Ptr<const Config>& config,
                           const Kiln::Ptr<const CliConfig>& cliConfig,
                           const Kiln::Ptr<const FabricMapV3::Status>& topoStatus,
                           const Kiln::Ptr<const OverlaySvc::VniStatusDirV2>& vniStatusDir,
                           const Kiln::Ptr<OvsdbRequestQueue>& requestQueue) {
  if (cliConfigSm_ && cliConfigSm_->status() == status && cliConfigSm_->config() == config &&
      cliConfigSm_->cliConfig() == cliConfig && cliConfigSm_->topoStatus() == topoStatus &&
      cliConfigSm_->vniStatusDir() == vniStatusDir && cliConfigSm_->requestQueue() == requestQueue) {
    return;
  }
  cliConfigSm_ = nullptr;
  cliConfigSm_ = cliConfigSmFactory(status, config, cliConfig, topoStatus, vniStatusDir, requestQueue);
}

void RootSm::remoteHostSmIs(const Kiln::Ptr<Status>& status,
                            const Kiln::Ptr<OverlaySvc::VniStatusDirV2>& vniStatusDir) {
  if (remoteHostSm_ && remoteHostSm_->status() == status && remoteHostSm_->vniStatusDir() == vniStatusDir) return;
  remoteHostSm_ = nullptr;
  remoteHostSm_ = remoteHostSmFactory(status, vniStatusDir);
}

void RootSm::inventorySmIs(const Kiln::Ptr<const FabricMapV3::Status>& topoStatus,
                           const Kiln::Ptr<const Kiln::Dir>& vtepStatusDir,
                           const Kiln::Ptr<const Kiln::Dir>& errorStatusDir, const Kiln::Ptr<HwVtepOvsdb>& ovsdb,
                           const Kiln::Ptr<OvsdbRequestQueue>& requestQueue) {
  if (inventorySm_ && inventorySm_->topoStatus() == topoStatus && inventorySm_->vtepStatusDir() == vtepStatusDir &&
      inventorySm_->errorStatusDir() == errorStatusDir && inventorySm_->ovsdb() == ovsdb &&
      inventorySm_->requestQueue() == requestQueue) {
    return;
  }
  inventorySm_ = nullptr;
  inventorySm_ = inventorySmFactory(topoStatus, vtepStatusDir, errorStatusDir, ovsdb, requestQueue);
}

void RootSm::localHostSmIs(const Kiln::Ptr<Kiln::Clock>& clock,
                           const Kiln::Ptr<const OverlaySvc::VniStatusDirV2>& vniStatusDir,
                           const Kiln::Ptr<HwVtepOvsdb>& ovsdb, const Kiln::Ptr<const CliConfig>& cliConfig,
                           const Kiln::Ptr<OvsdbRequestQueue>& requestQueue) {
  if (localHostSm_ && localHostSm_->vniStatusDir() == vniStatusDir && localHostSm_->ovsdb() == ovsdb &&
      localHostSm_->cliConfig() == cliConfig && localHostSm_->requestQueue() == requestQueue) {
    return;
  }
  localHostSm_ = nullptr;
  localHostSm_ = localHostSmFactory(clock, vniStatusDir, ovsdb, cliConfig, requestQueue);
}

void RootSm::vlanToVniSmIs(const Kiln::Ptr<HwVtepOvsdb>& ovsdb, const Kiln::Ptr<const CliConfig>& cliConfig,
                           const Kiln::Ptr<const FabricMapV3::Status>& topoStatus,
                           const Kiln::Ptr<const Kiln::Dir>& vtepStatusDirAgg,
                           const Kiln::Ptr<Kiln::Dir>& dynVtepConfig) {
  if (vlanToVniSm_ && vlanToVniSm_->ovsdb() == ovsdb && vlanToVniSm_->cliConfig() == cliConfig &&
      vlanToVniSm_->topoStatus() == topoStatus && vlanToVniSm_->vtepStatusAggregate() == vtepStatusDirAgg &&
      vlanToVniSm_->dynVtepConfig() == dynVtepConfig) {
    return;
  }
  vlanToVniSm_ = nullptr;
  vlanToVniSm_ = vlanToVniSmFactory(ovsdb, cliConfig, topoStatus, vtepStatusDirAgg, dynVtepConfig);
}

void RootSm::lrSmIs(const Kiln::Ptr<HwVtepOvsdb>& ovsdb, const Kiln::Ptr<const CliConfig>& cliConfig,
                    const Kiln::Ptr<Kiln::Dir>& lrConfigDir) {
  if (lrSm_ && lrSm_->ovsdb() == ovsdb && lrSm_->cliConfig() == cliConfig && lrSm_->lrConfigDir() == lrConfigDir) {
    return;
  }
  lrSm_ = nullptr;
  lrSm_ = lrSmFactory(ovsdb, cliConfig, lrConfigDir);
}

// ---- handlers --------------------------------------------------------------------------------

void RootSm::handleInitialized() {
  VGW_TRACE(5, "RootSm::handleInitialized");
  const Kiln::Ptr<Kiln::Clock>& clock = Kiln::EventLoop::current().clock();
  mgrConvergenceShort_.notifierIs(clock);
  mgrConvergenceShort_.timeMinIs(Kiln::plusInfinity);
  mgrConvergenceLong_.notifierIs(clock);
  mgrConvergenceLong_.timeMinIs(Kiln::plusInfinity);
  disconnectTimer_.notifierIs(clock);
  disconnectTimer_.timeMinIs(Kiln::plusInfinity);
  initialized_ = true;
  handleEnableAgent();
  if (agent_ && agent_->serviceMounter() && agent_->serviceMounter()->initialSwitchMountsComplete()) {
    VGW_TRACE(6, "Initial switch mounts completed");
    handleInitialSwitchMountsComplete();
  }
  VGW_TRACE(5, "RootSm::handleInitialized return");
}

void RootSm::handleInitialSwitchMountsComplete() {
  VGW_TRACE(5, "RootSm::handleInitialSwitchMountsComplete");
  errorStatusMountReadyIs(true);
}

void RootSm::handleEnableAgent() {
  VGW_TRACE(5, "RootSm::handleEnableAgent");
  if (agent_) agent_->enableTapeLockFile();
  requestQueue_ = Kiln::newPtr<OvsdbRequestQueue>();
  status_->ovsdbSessionStatusDel();
  const Kiln::Ptr<OvsdbSessionStatus> sessionStatus = status_->ovsdbSessionStatusIs("sessionStatus");
  status_->ovsdbDel();
  const Kiln::Ptr<HwVtepOvsdb> ovsdb = status_->ovsdbIs("ovsdb");
  ovsdbSmIs(ovsdb);
  requestHandlerIs(config_, sessionStatus, ovsdb, requestQueue_);
  vgwClientSmIs(sessionStatus, requestQueue_);
  status_->runningIs(true);
  VGW_TRACE(5, "RootSm::handleEnableAgent return");
}

void RootSm::handleAgentRunnability() {
  const bool enableAgent = cliConfig_->enableAgent();
  const bool leader = defaultClusterStatus_->isStandaloneOrLeader();
  const bool fleetEnabled = fleetStoreConfig_->enabled();
  VGW_TRACE(5, "RootSm::handleAgentRunnability" << "( cliConfig::enableAgent: " << enableAgent
                                                << ", clusterStatus::isStandaloneOrLeader: " << leader
                                                << ", fleetStoreConfig::enabled: " << fleetEnabled);
  if (enableAgent && leader && fleetEnabled) {
    handleEnableAgent();
  } else {
    handleDisableAgent();
  }
}

void RootSm::handleDisableAgent() {
  VGW_TRACE(5, "RootSm::handleDisableAgent");
  const bool fleetEnabled = fleetStoreConfig_->enabled();
  // Configuration and fleet store both still want the agent: it is stopping
  // because another node leads now, and the database is that node's.
  if (cliConfig_->enableAgent() && fleetEnabled && requestHandler_) {
    VGW_TRACE(6, "Lost leadership, discarding requests");
    requestHandler_->discardRequestIs(true);
  }
  vgwClientSm_ = nullptr;
  // No tunnel machine yet to lower the flag the switches' VTEPs raise: the
  // teardown does, as the tunnel machine's own would.
  localData_->tunnelDirtyIs(false);
  if (const Kiln::Ptr<RemoteHostSm> remoteHost = std::exchange(remoteHostSm_, nullptr)) remoteHost->destroy();
  if (const Kiln::Ptr<VlanToVniSm> vlanToVni = std::exchange(vlanToVniSm_, nullptr)) vlanToVni->destroy();
  if (const Kiln::Ptr<LrSm> lr = std::exchange(lrSm_, nullptr)) lr->destroyConfig();
  if (const Kiln::Ptr<InventorySm> inventory = std::exchange(inventorySm_, nullptr)) inventory->destroy(true);
  if (const Kiln::Ptr<LocalHostSm> localHost = std::exchange(localHostSm_, nullptr)) localHost->destroy(true);
  KILN_ASSERT(requestHandler_, "requestHandler is NULL");
  requestHandler_->destroy();
  cliConfigSm_ = nullptr;
  ovsdbSm_ = nullptr;
  status_->ovsdbDel();
  status_->ovsdbSessionStatusDel();
  dynVtepConfigReady_->publishMountIs(false);
  lrConfigReady_->convergenceInProgressIs(true);
  traceLocalData();
  KILN_ASSERT(localData_->remoteHostTable().empty(), "remoteHostTables dirty");
  KILN_ASSERT(localData_->vniToLogicalSwitch().empty(), "vniToLogicalSwitch dirty");
  KILN_ASSERT(!localData_->tunnelDirty(), "tunnelDirty dirty");
  localData_->reset();
  if (agent_) agent_->disableTapeLockFile();
  status_->runningIs(false);
  VGW_TRACE(5, "RootSm::handleDisableAgent return");
}

void RootSm::traceLocalData() const {
  if (!VGW_TRACE_ENABLED(6)) return;
  std::ostringstream text;
  localData_->dump(text);
  VGW_TRACE(6, text.str());
}

void RootSm::handleSessionState(const char* trigger) {
  VGW_TRACE(5, "RootSm::handleSessionState" << " triggered by " << trigger);
  const Kiln::Ptr<OvsdbSessionStatus> sessionStatus = status_->ovsdbSessionStatus();
  if (!sessionStatus) {
    VGW_TRACE(5, "RootSm::handleSessionState return no session");
    return;
  }
  const SessionState state = sessionStatus->sessionState();
  VGW_TRACE(6, "Session State: " << state);
  switch (state) {
    case SessionState::stateDisconnected:
      // The teardown must not run inside the notification that told of the
      // drop: the handler that reported it is still on the stack.
      disconnectTimer_.timeMinIs(Kiln::System::currentTime());
      break;
    case SessionState::stateInit:
    case SessionState::stateConnecting: break;
    case SessionState::stateConnected: handleConnected(); break;
    default: KILN_ASSERT(false, "Unexpected session statte.");
  }
  VGW_TRACE(5, "RootSm::handleSessionState return");
}

bool RootSm::topologyReady() const {
  return topoStatus_ && topoStatus_->convergenceStatus() && !topoStatus_->convergenceStatus()->convergenceInProgress();
}

void RootSm::handleConnected() {
  VGW_TRACE(5, "RootSm::handleConnected");
  if (!topologyReady()) {
    VGW_TRACE(6, "Topology has not converged yet, waiting.");
  } else if (ofcState_ && ofcState_->convergenceInProgress()) {
    VGW_TRACE(6, "Topology has converged, waiting for OFC.");
  } else if (!errorStatusMountReady_) {
    VGW_TRACE(6, "Topology and OFC has converged, waiting for errorStatus");
  } else {
    VGW_TRACE(6, "Topology, OFC, and errorStatus has converged.");
    inventorySmIs(topoStatus_, vtepStatusDirAgg_, errorStatusDir_, status_->ovsdb(), requestQueue_);
    localHostSmIs(Kiln::EventLoop::current().clock(), vniStatusDirIn_, status_->ovsdb(), cliConfig_, requestQueue_);
    cliConfigSmIs(status_, config_, cliConfig_, topoStatus_, vniStatusDirIn_, requestQueue_);
    localData_->ovsdbSynchronizedIs(true);
  }
  if (!remoteHostSm_) remoteHostSmIs(status_, vniStatusDirOut_);
  // Like the router machine, this one holds the mirror.
  vlanToVniSmIs(status_->ovsdb(), cliConfig_, topoStatus_, vtepStatusDirAgg_, dynVtepConfig_);
  // Unlike the remote host machine, this one holds the mirror: after a
  // repeated enable it must follow the new one.
  lrSmIs(status_->ovsdb(), cliConfig_, lrConfigDir_);
  VGW_TRACE(5, "RootSm::handleConnected return");
}

void RootSm::handleDisconnected() {
  if (!initialized_) return;
  VGW_TRACE(5, "RootSm::handleDisconnected");
  inventorySm_ = nullptr;
  localHostSm_ = nullptr;
  cliConfigSm_ = nullptr;
  remoteHostSm_ = nullptr;
  vlanToVniSm_ = nullptr;
  lrSm_ = nullptr;
  localData_->reset();
  VGW_TRACE(5, "RootSm::handleDisconnected return");
}

void RootSm::handleManagerConvergence() {
  const MgrConvergenceState state = localData_->mgrConverged();
  VGW_TRACE(6, "mgrConverged: " << state);
  const double now = Kiln::System::currentTime();
  switch (state) {
    case MgrConvergenceState::mgrUp:
      mgrConvergenceLong_.timeMinIs(now + static_cast<double>(config_->mgrConvergenceLongInterval()));
      localData_->mgrConvergedIs(MgrConvergenceState::mgrWaiting);
      break;
    case MgrConvergenceState::mgrWaiting:
      // Every monitor message passes through here again: the quiet period
      // starts over after each.
      mgrConvergenceShort_.timeMinIs(now + static_cast<double>(config_->mgrConvergenceShortInterval()));
      break;
    case MgrConvergenceState::mgrConverged:
      dynVtepConfigReady_->publishMountIs(true);
      lrConfigReady_->convergenceInProgressIs(false);
      break;
    default: break;
  }
}

void RootSm::handleTimeout() {
  if (!initialized_ || !localData_) return;
  VGW_TRACE(5, "RootSm::handleTimeout");
  localData_->mgrConvergedIs(MgrConvergenceState::mgrConverged);
}

// ---- ServiceMounter ------------------------------------------------------------------------------

void ServiceMounter::doMountsComplete(Kiln::String group, Kiln::Ptr<Ledger::EntityManager> manager) {
  VGW_TRACE(6, "ServiceMounter::doMountsComplete group: " << group << " entityManager: " << manager.get());
}

void ServiceMounter::doInitialSwitchMountsComplete(Kiln::String group, Kiln::Ptr<Ledger::EntityManager>) {
  VGW_TRACE(6, "ServiceMounter::doInitialSwitchMountsComplete group: " << group);
  initialSwitchMountsComplete_ = true;
  if (agent_->rootSm()) agent_->rootSm()->handleInitialSwitchMountsComplete();
}

// ---- Agent ----------------------------------------------------------------------------------------

Agent::Agent(Kiln::Ptr<Ledger::EntityManager> localEntityManager, Kiln::Name name)
    : Hearth::ServiceAgent(std::move(localEntityManager), std::move(name)) {}

Agent::~Agent() {
  rootSm_ = nullptr;
  serviceMounter_.reset();
}

Kiln::Ptr<Agent> agentFactory(Kiln::String name) {
  auto agent = Kiln::newPtr<Agent>(Hearth::localEntityManager(), std::move(name));
  agent->localDataIs(Kiln::Entity::singletonIs<LocalData>());
  return agent;
}

ServiceMounter* Agent::serviceMounterIs(Agent* agent) {
  serviceMounter_ = std::make_unique<ServiceMounter>(agent);
  return serviceMounter_.get();
}

int Agent::enableTapeLockFile() {
  if (environmentHas("RINGTAPE_DISABLE")) return -1;
  const int fd = open(tapeLockFilePath_.charPtr(), O_RDWR | O_CREAT | O_CLOEXEC, 0777);
  if (fd < 0) {
    VGW_TRACE(6, "can't create tapeLockFilePath. check log file permission\n");
    return -1;
  }
  close(fd);
  return fd;
}

void Agent::disableTapeLockFile() {
  if (std::remove(tapeLockFilePath_.charPtr()) != 0) VGW_TRACE(6, "deleting tapeLockFilePath failed.\n");
}

void Agent::doInit() {
  Kiln::assertionHookIs(&RingTape::recordAssertion);
  if (!environmentHas("RINGTAPE_DISABLE")) {
    const char* lockPath = std::getenv("VGW_TAPELOCK_FILEPATH");
    tapeLockFilePath_ = lockPath ? lockPath : defaultTapeLockFilePath;
    const bool stale = access(tapeLockFilePath_.charPtr(), F_OK) == 0;
    const bool created = enableTapeLockFile() >= 0;
    // Without RINGTAPEDIR the tape goes to a shared directory, where the
    // process id keeps lives apart.
    std::string tapeName = name().stringValue();
    if (!environmentHas("RINGTAPEDIR")) tapeName += "-%d";
    tapeName += ".tape";
    // A lock file found at start means the last life did not disable
    // itself: its tape is kept beside the new one.
    RingTape::initialize(tapeName.c_str(), ringSizes, nullptr, keepOldTapes, oldTapeMaxAgeHours,
                         RingTape::ThreadingMode::singleThreaded, !created || stale, ringMaxMessageBytes);
  }
  const Kiln::Ptr<Ledger::MountGroup> group = localEntityManager()->getMountGroup(this);
  for (const Ledger::Mount& mount : localMounts()) group->doMount(mount);
  group->doClose(false, "", 0.0);
}

void Agent::doMountsComplete(Ledger::MountStatus mountStatus, Kiln::Ptr<Ledger::EntityManager> entityManager) {
  VGW_TRACE(5, "Agent::doMountsComplete " << mountStatus);
  KILN_ASSERT(mountStatus == Ledger::mountSuccess_, mountFailed);
  const Ledger::EntityManager& manager = *entityManager;
  config_ = mounted<const Config>(manager, "vgw/config", "Config not found");
  cliConfig_ = mounted<const CliConfig>(manager, "vgw/cliconfig", "CLI Config not found");
  status_ = mounted<Status>(manager, "vgw/status", "Status not found");
  const auto fleetStoreStatus = mounted<const FleetStore::Status>(manager, "fleet/status", "fleetStoreStatus not found");
  fleetStoreConfig_ = mounted<const FleetStore::Config>(manager, "fleet/config", "fleetStoreConfig not found");
  const auto clusterStatusDir =
      mounted<const FleetCluster::ClusterStatusDir>(manager, "fleet/cluster/statusDir", "clusterStatusDir not found");
  defaultClusterStatus_ = clusterStatusDir->status("default");
  KILN_ASSERT(defaultClusterStatus_, "default cluster not found");

  if (status_->running()) {
    VGW_TRACE(6, "Unknown state, clearing status");
    status_->ovsdbDel();
    status_->ovsdbSessionStatusDel();
    status_->runningIs(false);
  }

  const bool enableAgent = cliConfig_->enableAgent();
  const bool fleetEnabled = fleetStoreStatus->enabled();
  const bool leader = defaultClusterStatus_->isStandaloneOrLeader();
  if (enableAgent && fleetEnabled && leader) {
    if (!serviceEntityManager()) Hearth::ServiceAgent::doInit();
    return;
  }
  RINGTAPE_TRACE_(6, ::RingTape::streamTape, streamEnabled,
                  "Config: " << enableAgent << " Controller Status: " << fleetEnabled << " ClusterStatus: " << leader
                             << " Waiting to die.");
  VGW_TRACE_RING(6, "Config: " << enableAgent << " Controller Status: " << fleetEnabled << " ClusterStatus: "
                               << leader << ". Waiting to die.");
  status_->runningIs(false);
  exiting_ = true;
  if (exitingHandler_) {
    std::ostringstream reason;
    reason << std::boolalpha << "vgw/cliconfig enableAgent is " << enableAgent << ", fleet/status enabled is "
           << fleetEnabled << ", fleet/cluster/statusDir default isStandaloneOrLeader is " << leader;
    exitingHandler_(reason.str());
  }
}

void Agent::doServiceAgentInit() {
  if (exiting_) {
    VGW_TRACE(5, " agent marked for exit, return");
    return;
  }
  doPublishMounts();
  doControllerMounts();
}

void Agent::doPublishMounts() {
  ServiceMounter* mounter = serviceMounterIs(this);
  try {
    const Kiln::Ptr<Fleet::FleetStoreService> service =
        fleetStoreServiceIs("Vgw", serviceEntityManager(), localEntityManager());
    const Kiln::Ptr<Fleet::VersionWhiteListBase> whiteList = service->versionWhiteListIs("v2");
    whiteList->allowedVersionIs(2, true);
    const Kiln::Ptr<Fleet::FleetStoreServiceMountGroup> group = service->serviceMountGroupIs("mg1", mounter);
    group->versionWhiteListIs(whiteList);
    group->controllerMountIs("interface/status/vxlan/errorStatus/version2/ofc",
                             "interface/status/vxlan/errorStatus/version2/ofc/switch", "OverlaySvc::ErrorStatusV2",
                             "rct");
    group->perSwitchPublishMountIs("overlaysvc/version2/input/dynVtepConfig/vgw/switch", "",
                                   "OverlaySvc::VtepConfigDirV2");
    group->closedIs(true);
    service->closedIs(true);
  } catch (const Fleet::ServiceError& error) {
    // The store refused what this agent always declares: a deployment fault.
    VGW_TRACE(0, "Service publication failed: " << error.what());
    KILN_ASSERT(false, error.what());
  }
}

void Agent::doControllerMounts() {
  if (exiting_) {
    VGW_TRACE(5, " agent marked for exit, return");
    return;
  }
  const Kiln::Ptr<Ledger::MountGroup> group = serviceEntityManager()->getMountGroup(controllerMounter());
  for (const Ledger::Mount& mount : serviceMounts()) group->doMount(mount);
  group->doClose(false, "", 0.0);
}

void Agent::doControllerMountsComplete(Ledger::MountStatus mountStatus,
                                       Kiln::Ptr<Ledger::EntityManager> entityManager) {
  if (exiting_) {
    VGW_TRACE(5, " agent marked for exit, return");
    return;
  }
  VGW_TRACE(5, "Agent::doControllerMountsComplete " << mountStatus);
  KILN_ASSERT(mountStatus == Ledger::mountSuccess_, mountFailed);
  ovsc_uuid_init();
  ovsc_fatal_signal_disable();
  // Standard error carries the agent's own messages only; the library's
  // warnings (a poll interval that the agent's loop made long, connection
  // trouble the session reports itself) would only mislead.
  ovsc_vlog_off();
  const Ledger::EntityManager& manager = *entityManager;
  auto vniStatusDirOut = mounted<OverlaySvc::VniStatusDirV2>(manager, "vgw/version2/vniStatusDir",
                                                             "VniStatusDir (Monitor) not found");
  auto vniStatusDirIn = mounted<const OverlaySvc::VniStatusDirV2>(manager, "overlaysvc/version2/vgw/vniStatusDir",
                                                                  "VniStatusDir (Updater) not found");
  auto topoStatus = mounted<const FabricMapV3::Status>(manager, "topology/version3/global/status",
                                                       "Topology global status not found");
  auto vtepStatusDirAgg =
      mounted<const Kiln::Dir>(manager, "vxlan/version2/vtepStatusDir/switch", "Vxlan vtepStatusDir not found");
  auto dynVtepConfig = mounted<Kiln::Dir>(manager, "overlaysvc/version2/input/dynVtepConfig/vgw/switch",
                                          "dynVtepConfig dir not found");
  auto dynVtepConfigReady = mounted<OverlaySvc::DynVtepConfigReadyV2>(
      manager, "overlaysvc/version2/input/dynVtepConfigReady/vgw", "dynVtepConfigReady dir not found");
  auto errorStatusDir = mounted<const Kiln::Dir>(manager, "interface/status/vxlan/errorStatus/version2/ofc/switch",
                                                 "Dir for ErrorStatusV2 not found");
  auto lrConfigDir = mounted<Kiln::Dir>(manager, "overlaysvc/version2/input/lRConfig", "Dir for LRConfigV2 not found");
  auto lrConfigReady = mounted<OverlaySvc::ServiceReadyV2>(manager, "overlaysvc/version2/input/lRConfigReady/vgw",
                                                           "lRConfigReady not found");
  auto ofcErrorStatus =
      mounted<const OverlaySvc::ErrorStatusV2>(manager, "overlaysvc/version2/errorStatus", "ErrorStatus not found");
  auto ofcState = mounted<const OverlaySvc::OfcStateV2>(manager, "overlaysvc/version2/vgw/ofcState", "ofcState not found");
  auto ofcStateReply = manager.getEntity<OverlaySvc::OfcStateClientViewV2>("vgw/version2/ofcStateClientView");
  localData_ = Kiln::Entity::singletonIs<LocalData>();
  rootSmIs(config_, cliConfig_, status_, fleetStoreConfig_, defaultClusterStatus_, dynVtepConfig, dynVtepConfigReady,
           errorStatusDir, topoStatus, vniStatusDirIn, vniStatusDirOut, vtepStatusDirAgg, ofcState, ofcStateReply,
           lrConfigDir, lrConfigReady, ofcErrorStatus);
}

}  // namespace Vgw
