// The agent frame: the process's entry object, its mounts and service
// publication, and the root state machine that owns everything else.
//
// Agent is what the runtime builds through agentFactory() and drives through
// the hooks of Hearth::ServiceAgent. It starts the ring trace and the tape
// lock file, mounts the agent's local entities, decides once whether this
// node may run the agent at all, publishes the service towards the fleet and
// mounts the fleet-wide entities; when those are in, it builds RootSm and
// does nothing more. A node that may not run the agent (disabled in the
// configuration, fleet store disabled, or not the standalone node or the
// leader) stays loaded doing nothing until it is stopped: the agent never
// ends itself, and there is no way back out of that decision in one life.
// A missing or failed mount is a deployment fault and asserts.
//
// RootSm owns the request queue, the database session (request handler and
// session client), the mirror's upkeep machine and every state machine that
// works on the mirror, and builds and drops them as the session and the
// fabric come and go:
//   - enable (configuration, fleet store and leadership all allow it): a
//     fresh queue, session status and mirror, and the session machines;
//   - connected: the machines that read the mirror towards the fabric at
//     once, and those that write the fabric into the database once the
//     topology, the overlay service and the error status have converged;
//   - disconnected: the session-bound machines are dropped on the next turn
//     of the loop, without writing anything, and the working data reset;
//   - disable: the machines' teardowns run in a fixed order; after a lost
//     leadership the request handler discards what they queue, so that the
//     database is left to the next leader.
// Manager convergence holds back two gates towards the fabric after a
// manager change until the controller has been quiet for the short interval,
// and at most for the long one. Each child creator (fooSmIs) keeps a child
// built with equal arguments and replaces one built with others.
//
// Single-threaded: every hook, reactor and timer runs on the event loop; a
// setter's reactors run inside the setter, which is why the disconnect
// teardown is deferred to a timer.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Hearth/ServiceAgent.h"
#include "Kiln/Dir.h"
#include "Kiln/EventLoop.h"
#include "Ledger/EntityManager.h"
#include "Ledger/Mount.h"
#include "Vgw/HwVtepRequestHandlerSm.h"
#include "Vgw/LocalTypes.h"
#include "Vgw/LogicalRouterSm.h"
#include "Vgw/VgwClientSm.h"
#include "entities/FabricMapV3.h"
#include "entities/Fleet.h"
#include "entities/OverlaySvc.h"
#include "model/Status.h"

namespace Vgw {

class Agent;
class CliConfigSm;
class InventorySm;
class LocalHostSm;
class RemoteHostSm;
class VlanToVniSm;

// The agent's mounts in mount order: the local ones, on this node's state,
// and the service-side ones, on the fleet-wide paths. A program declares
// these paths with their types before it loads a configuration document.
const std::vector<Ledger::Mount>& localMounts();
const std::vector<Ledger::Mount>& serviceMounts();
// Gives the store the rules of the agent's configuration entities, so that
// every road into it refuses the same values (see CliConfigSm.h). A program
// declares them with the paths, before it loads a configuration document.
void declareConfigRules(Ledger::EntityManager& manager);

class RootSm : public Kiln::PtrInterface, public RootSmInterface {
 public:
  // Runs handleInitialized(), which enables the agent: the agent is built
  // only once its start test has passed.
  RootSm(Kiln::Ptr<const Config> config, Kiln::Ptr<const CliConfig> cliConfig, Kiln::Ptr<Status> status,
         Kiln::Ptr<const FleetStore::Config> fleetStoreConfig,
         Kiln::Ptr<const FleetCluster::ClusterStatus> defaultClusterStatus, Kiln::Ptr<Kiln::Dir> dynVtepConfig,
         Kiln::Ptr<OverlaySvc::DynVtepConfigReadyV2> dynVtepConfigReady, Kiln::Ptr<const Kiln::Dir> errorStatusDir,
         Kiln::Ptr<const FabricMapV3::Status> topoStatus, Kiln::Ptr<const OverlaySvc::VniStatusDirV2> vniStatusDirIn,
         Kiln::Ptr<OverlaySvc::VniStatusDirV2> vniStatusDirOut, Kiln::Ptr<const Kiln::Dir> vtepStatusDirAgg,
         Kiln::Ptr<const OverlaySvc::OfcStateV2> ofcState, Kiln::Ptr<OverlaySvc::OfcStateClientViewV2> ofcStateReply,
         Kiln::Ptr<Kiln::Dir> lrConfigDir, Kiln::Ptr<OverlaySvc::ServiceReadyV2> lrConfigReady,
         Kiln::Ptr<const OverlaySvc::ErrorStatusV2> ofcErrorStatus, Agent* agent);
  ~RootSm() override;

  const Kiln::Ptr<const Config>& config() const { return config_; }
  const Kiln::Ptr<const CliConfig>& cliConfig() const { return cliConfig_; }
  const Kiln::Ptr<Status>& status() const { return status_; }
  const Kiln::Ptr<LocalData>& localData() const { return localData_; }
  const Kiln::Ptr<const FleetStore::Config>& fleetStoreConfig() const { return fleetStoreConfig_; }
  const Kiln::Ptr<const FleetCluster::ClusterStatus>& defaultClusterStatus() const { return defaultClusterStatus_; }
  const Kiln::Ptr<Kiln::Dir>& dynVtepConfig() const { return dynVtepConfig_; }
  const Kiln::Ptr<OverlaySvc::DynVtepConfigReadyV2>& dynVtepConfigReady() const { return dynVtepConfigReady_; }
  const Kiln::Ptr<const Kiln::Dir>& errorStatusDir() const { return errorStatusDir_; }
  const Kiln::Ptr<const FabricMapV3::Status>& topoStatus() const { return topoStatus_; }
  const Kiln::Ptr<const OverlaySvc::VniStatusDirV2>& vniStatusDirIn() const { return vniStatusDirIn_; }
  const Kiln::Ptr<OverlaySvc::VniStatusDirV2>& vniStatusDirOut() const { return vniStatusDirOut_; }
  const Kiln::Ptr<const Kiln::Dir>& vtepStatusDirAgg() const { return vtepStatusDirAgg_; }
  const Kiln::Ptr<const OverlaySvc::OfcStateV2>& ofcState() const { return ofcState_; }
  const Kiln::Ptr<OverlaySvc::OfcStateClientViewV2>& ofcStateReply() const { return ofcStateReply_; }
  const Kiln::Ptr<Kiln::Dir>& lrConfigDir() const { return lrConfigDir_; }
  const Kiln::Ptr<OverlaySvc::ServiceReadyV2>& lrConfigReady() const { return lrConfigReady_; }
  const Kiln::Ptr<const OverlaySvc::ErrorStatusV2>& ofcErrorStatus() const { return ofcErrorStatus_; }
  Agent* agent() const { return agent_; }

  const Kiln::Ptr<OvsdbRequestQueue>& requestQueue() const { return requestQueue_; }
  const Kiln::Ptr<HwVtepRequestHandlerSm>& requestHandler() const { return requestHandler_; }
  const Kiln::Ptr<VgwClientSm>& vgwClientSm() const { return vgwClientSm_; }
  const Kiln::Ptr<HwVtepOvsdbSm>& ovsdbSm() const { return ovsdbSm_; }
  const Kiln::Ptr<CliConfigSm>& cliConfigSm() const { return cliConfigSm_; }
  const Kiln::Ptr<InventorySm>& inventorySm() const { return inventorySm_; }
  const Kiln::Ptr<VlanToVniSm>& vlanToVniSm() const { return vlanToVniSm_; }
  const Kiln::Ptr<LocalHostSm>& localHostSm() const { return localHostSm_; }
  // The session's view of the children (RootSmInterface). The tunnel
  // machine is not part of this agent yet.
  RemoteHostSm* remoteHostSm() const override { return remoteHostSm_.get(); }
  LrSm* lrSm() const override { return lrSm_.get(); }
  TunnelSmInterface* tunnelSm() const override { return nullptr; }

  bool initialized() const { return initialized_; }
  bool errorStatusMountReady() const { return errorStatusMountReady_; }
  // Sets the flag; a change re-evaluates the session with the trigger "errorStatus".
  void errorStatusMountReadyIs(bool ready);
  // When each timer fires next; plus infinity when it is not armed.
  double disconnectTime() const { return disconnectTimer_.timeMin(); }
  double mgrConvergenceShortTime() const { return mgrConvergenceShort_.timeMin(); }
  double mgrConvergenceLongTime() const { return mgrConvergenceLong_.timeMin(); }
  // The entities the two reactors follow; null while there is none.
  Kiln::Ptr<const OvsdbSessionStatus> statusSm() const { return statusSm_.notifier(); }
  void statusSmIs(const Kiln::Ptr<const OvsdbSessionStatus>& sessionStatus);
  Kiln::Ptr<const FabricMapV3::ConvergenceStatus> topoCvg() const { return topoCvg_.notifier(); }
  void topoCvgIs(const Kiln::Ptr<const FabricMapV3::ConvergenceStatus>& convergenceStatus);

  // Child creators: a child built with equal arguments is kept.
  void ovsdbSmIs(const Kiln::Ptr<HwVtepOvsdb>& ovsdb);
  void requestHandlerIs(const Kiln::Ptr<const Config>& config, const Kiln::Ptr<OvsdbSessionStatus>& sessionStatus,
                        const Kiln::Ptr<HwVtepOvsdb>& ovsdb, const Kiln::Ptr<OvsdbRequestQueue>& requestQueue);
  void vgwClientSmIs(const Kiln::Ptr<OvsdbSessionStatus>& sessionStatus,
                     const Kiln::Ptr<OvsdbRequestQueue>& requestQueue);
  void cliConfigSmIs(const Kiln::Ptr<Status>& status, const Kiln::Ptr<const Config>& config,
                     const Kiln::Ptr<const CliConfig>& cliConfig, const Kiln::Ptr<const FabricMapV3::Status>& topoStatus,
                     const Kiln::Ptr<const OverlaySvc::VniStatusDirV2>& vniStatusDir,
                     const Kiln::Ptr<OvsdbRequestQueue>& requestQueue);
  void remoteHostSmIs(const Kiln::Ptr<Status>& status, const Kiln::Ptr<OverlaySvc::VniStatusDirV2>& vniStatusDir);
  void inventorySmIs(const Kiln::Ptr<const FabricMapV3::Status>& topoStatus,
                     const Kiln::Ptr<const Kiln::Dir>& vtepStatusDir, const Kiln::Ptr<const Kiln::Dir>& errorStatusDir,
                     const Kiln::Ptr<HwVtepOvsdb>& ovsdb, const Kiln::Ptr<OvsdbRequestQueue>& requestQueue);
  void localHostSmIs(const Kiln::Ptr<Kiln::Clock>& clock, const Kiln::Ptr<const OverlaySvc::VniStatusDirV2>& vniStatusDir,
                     const Kiln::Ptr<HwVtepOvsdb>& ovsdb, const Kiln::Ptr<const CliConfig>& cliConfig,
                     const Kiln::Ptr<OvsdbRequestQueue>& requestQueue);
  void vlanToVniSmIs(const Kiln::Ptr<HwVtepOvsdb>& ovsdb, const Kiln::Ptr<const CliConfig>& cliConfig,
                     const Kiln::Ptr<const FabricMapV3::Status>& topoStatus,
                     const Kiln::Ptr<const Kiln::Dir>& vtepStatusDirAgg, const Kiln::Ptr<Kiln::Dir>& dynVtepConfig);
  void lrSmIs(const Kiln::Ptr<HwVtepOvsdb>& ovsdb, const Kiln::Ptr<const CliConfig>& cliConfig,
              const Kiln::Ptr<Kiln::Dir>& lrConfigDir);

  void handleInitialized();
  void handleInitialSwitchMountsComplete();
  void handleEnableAgent();
  void handleDisableAgent();
  void handleAgentRunnability();
  // Re-evaluates the whole from the session state; `trigger` names the
  // input that changed, for the trace.
  void handleSessionState(const char* trigger);
  void handleConnected();
  void handleDisconnected();
  void handleManagerConvergence();
  void handleTimeout();
  // True when the topology's convergence status is there and not in progress.
  bool topologyReady() const;

 private:
  class KilnCliConfig : public CliConfig::NotifieeConst {
   public:
    explicit KilnCliConfig(RootSm* sm) : sm_(sm) {}
    void onEnableAgent() override { sm_->handleAgentRunnability(); }

   private:
    RootSm* sm_;
  };
  class KilnDefaultClusterStatus : public FleetCluster::ClusterStatus::NotifieeConst {
   public:
    explicit KilnDefaultClusterStatus(RootSm* sm) : sm_(sm) {}
    void onIsStandaloneOrLeader() override { sm_->handleAgentRunnability(); }

   private:
    RootSm* sm_;
  };
  class KilnStatus : public Status::NotifieeConst {
   public:
    explicit KilnStatus(RootSm* sm) : sm_(sm) {}
    void onOvsdbSessionStatus() override { sm_->statusSmIs(sm_->status_->ovsdbSessionStatus()); }

   private:
    RootSm* sm_;
  };
  class KilnStatusSm : public OvsdbSessionStatus::NotifieeConst {
   public:
    explicit KilnStatusSm(RootSm* sm) : sm_(sm) {}
    void onSessionState() override { sm_->handleSessionState("ovsdb"); }

   private:
    RootSm* sm_;
  };
  class KilnTopoStatus : public FabricMapV3::Status::NotifieeConst {
   public:
    explicit KilnTopoStatus(RootSm* sm) : sm_(sm) {}
    void onConvergenceStatus() override { sm_->topoCvgIs(sm_->topoStatus_->convergenceStatus()); }

   private:
    RootSm* sm_;
  };
  class KilnTopoCvg : public FabricMapV3::ConvergenceStatus::NotifieeConst {
   public:
    explicit KilnTopoCvg(RootSm* sm) : sm_(sm) {}
    void onConvergenceInProgress() override { sm_->handleSessionState("topology"); }

   private:
    RootSm* sm_;
  };
  class KilnOfcState : public OverlaySvc::OfcStateV2::NotifieeConst {
   public:
    explicit KilnOfcState(RootSm* sm) : sm_(sm) {}
    void onConvergenceInProgress() override;

   private:
    RootSm* sm_;
  };
  class KilnLocalData : public LocalData::NotifieeConst {
   public:
    explicit KilnLocalData(RootSm* sm) : sm_(sm) {}
    void onMgrConverged() override { sm_->handleManagerConvergence(); }

   private:
    RootSm* sm_;
  };
  // One clock reactor calling one handler.
  class KilnTimer : public Kiln::Clock::NotifieeConst {
   public:
    KilnTimer(RootSm* sm, void (RootSm::*handler)()) : sm_(sm), handler_(handler) {}
    void onTimeMin() override { (sm_->*handler_)(); }

   private:
    RootSm* sm_;
    void (RootSm::*handler_)();
  };

  void copyOfcState();
  void traceLocalData() const;

  const Kiln::Ptr<const Config> config_;
  const Kiln::Ptr<const CliConfig> cliConfig_;
  const Kiln::Ptr<Status> status_;
  Kiln::Ptr<LocalData> localData_;
  const Kiln::Ptr<const FleetStore::Config> fleetStoreConfig_;
  const Kiln::Ptr<const FleetCluster::ClusterStatus> defaultClusterStatus_;
  const Kiln::Ptr<Kiln::Dir> dynVtepConfig_;
  const Kiln::Ptr<OverlaySvc::DynVtepConfigReadyV2> dynVtepConfigReady_;
  const Kiln::Ptr<const Kiln::Dir> errorStatusDir_;
  const Kiln::Ptr<const FabricMapV3::Status> topoStatus_;
  const Kiln::Ptr<const OverlaySvc::VniStatusDirV2> vniStatusDirIn_;
  const Kiln::Ptr<OverlaySvc::VniStatusDirV2> vniStatusDirOut_;
  const Kiln::Ptr<const Kiln::Dir> vtepStatusDirAgg_;
  const Kiln::Ptr<const OverlaySvc::OfcStateV2> ofcState_;
  const Kiln::Ptr<OverlaySvc::OfcStateClientViewV2> ofcStateReply_;
  const Kiln::Ptr<Kiln::Dir> lrConfigDir_;
  const Kiln::Ptr<OverlaySvc::ServiceReadyV2> lrConfigReady_;
  const Kiln::Ptr<const OverlaySvc::ErrorStatusV2> ofcErrorStatus_;
  Agent* const agent_;
  Kiln::Ptr<OvsdbRequestQueue> requestQueue_;
  Kiln::Ptr<HwVtepRequestHandlerSm> requestHandler_;
  Kiln::Ptr<VgwClientSm> vgwClientSm_;
  Kiln::Ptr<RemoteHostSm> remoteHostSm_;
  Kiln::Ptr<VlanToVniSm> vlanToVniSm_;
  Kiln::Ptr<LrSm> lrSm_;
  Kiln::Ptr<HwVtepOvsdbSm> ovsdbSm_;
  Kiln::Ptr<CliConfigSm> cliConfigSm_;
  Kiln::Ptr<InventorySm> inventorySm_;
  Kiln::Ptr<LocalHostSm> localHostSm_;
  bool initialized_ = false;
  KilnTimer disconnectTimer_;
  bool errorStatusMountReady_ = false;
  KilnTopoCvg topoCvg_;
  KilnTimer mgrConvergenceShort_;
  KilnTimer mgrConvergenceLong_;
  KilnStatusSm statusSm_;
  KilnCliConfig kilnCliConfig_;
  KilnDefaultClusterStatus kilnDefaultClusterStatus_;
  KilnStatus kilnStatus_;
  KilnTopoStatus kilnTopoStatus_;
  KilnOfcState kilnOfcState_;
  KilnLocalData kilnLocalData_;
};

// Receives the events of the agent's service mount group.
class ServiceMounter final : public Fleet::FleetStoreServiceMounter {
 public:
  explicit ServiceMounter(Agent* agent) : agent_(agent) {}

  Agent* agent() const { return agent_; }
  // Whether the first per-switch mounts are in. The root state machine reads
  // it when it is built, so the event counts in whichever order it comes.
  bool initialSwitchMountsComplete() const { return initialSwitchMountsComplete_; }

  void doMountsComplete(Kiln::String group, Kiln::Ptr<Ledger::EntityManager> manager) override;
  void doInitialSwitchMountsComplete(Kiln::String group, Kiln::Ptr<Ledger::EntityManager> manager) override;

 private:
  Agent* const agent_;
  bool initialSwitchMountsComplete_ = false;
};

class Agent : public Hearth::ServiceAgent {
 public:
  // Told once, with the facts, when the agent decides that it may not run
  // on this node and waits for its end.
  using ExitingHandler = std::function<void(const std::string& reason)>;

  Agent(Kiln::Ptr<Ledger::EntityManager> localEntityManager, Kiln::Name name);
  ~Agent() override;

  const Kiln::Ptr<RootSm>& rootSm() const { return rootSm_; }
  const Kiln::Ptr<const Config>& config() const { return config_; }
  const Kiln::Ptr<const CliConfig>& cliConfig() const { return cliConfig_; }
  const Kiln::Ptr<Status>& status() const { return status_; }
  const Kiln::Ptr<const FleetStore::Config>& fleetStoreConfig() const { return fleetStoreConfig_; }
  const Kiln::Ptr<const FleetCluster::ClusterStatus>& defaultClusterStatus() const { return defaultClusterStatus_; }
  const Kiln::Ptr<LocalData>& localData() const { return localData_; }
  void localDataIs(Kiln::Ptr<LocalData> localData) { localData_ = std::move(localData); }
  bool exiting() const { return exiting_; }
  const Kiln::String& tapeLockFilePath() const { return tapeLockFilePath_; }
  ServiceMounter* serviceMounter() const { return serviceMounter_.get(); }
  ServiceMounter* serviceMounterIs(Agent* agent);
  void exitingHandlerIs(ExitingHandler handler) { exitingHandler_ = std::move(handler); }

  // Builds the root state machine from its inputs, given in the order of
  // RootSm's constructor; this agent is its agent.
  template <class... Inputs>
  const Kiln::Ptr<RootSm>& rootSmIs(Inputs&&... inputs) {
    rootSm_ = nullptr;
    rootSm_ = Kiln::newPtr<RootSm>(std::forward<Inputs>(inputs)..., this);
    return rootSm_;
  }

  // The tape lock file says, while it exists, that the agent is enabled; one
  // found at start means the last life ended without cleaning up. Returns
  // the descriptor number open() gave (closed again at once), or -1.
  int enableTapeLockFile();
  void disableTapeLockFile();

  void doMountsComplete(Ledger::MountStatus mountStatus, Kiln::Ptr<Ledger::EntityManager> entityManager) override;
  void doInit() override;
  void doControllerMounts() override;
  void doControllerMountsComplete(Ledger::MountStatus mountStatus,
                                  Kiln::Ptr<Ledger::EntityManager> entityManager) override;
  void doServiceAgentInit() override;
  // Declares the service, its white list and its mount group to the fleet.
  void doPublishMounts();

 private:
  Kiln::Ptr<RootSm> rootSm_;
  Kiln::Ptr<const Config> config_;
  Kiln::Ptr<const CliConfig> cliConfig_;
  Kiln::Ptr<Status> status_;
  Kiln::Ptr<const FleetStore::Config> fleetStoreConfig_;
  Kiln::Ptr<const FleetCluster::ClusterStatus> defaultClusterStatus_;
  Kiln::Ptr<LocalData> localData_;
  bool exiting_ = false;
  Kiln::String tapeLockFilePath_;
  std::unique_ptr<ServiceMounter> serviceMounter_;
  ExitingHandler exitingHandler_;
};

// The runtime's entry: a new agent of that name, on the current runner's
// local entity manager.
Kiln::Ptr<Agent> agentFactory(Kiln::String name);

}  // namespace Vgw
