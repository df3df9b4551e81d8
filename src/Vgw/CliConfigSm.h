// The operator's configuration towards the database and the agent's status.
//
// CliConfigSm keeps the Manager table equal to the configured controllers:
// every target that vgw/cliconfig's managerAddress holds with the value true
// gets a Manager row, named in the managers column of the one Global row,
// and every Manager row whose target is not so configured goes, together
// with its reference. Each add or delete is one transaction. A key present
// with the value false counts as not configured. While the session is
// connected, the first manager seen (added, deleted or found in place)
// starts the manager convergence of the root state machine.
//
// It also copies the VTEP list type and the routing mode of the
// configuration into vgw/status, where the machines that use them follow
// them.
//
// The machine exists only while the session is connected and the fabric has
// converged: the root state machine builds it and drops it on a disconnect.
// destroy() removes nothing from the database. A Global row missing from the
// mirror when a manager is added, or a missing mirror, asserts.
//
// The rules of the operator's configuration live here too, and hold on every
// road a value takes into the agent (the configuration file, vgwctl set and
// vgwctl load all write through the state store, which applies them before it
// changes anything; see declareConfigRules in VgwAgent.h): a database socket
// and a non-zero maxOps, and controller targets in the forms of an OVSDB
// connection method, so that nothing the database server cannot use is
// written into its Manager table.
#pragma once

#include <string>
#include <string_view>

#include "Kiln/Ptr.h"
#include "Vgw/LocalTypes.h"
#include "Vgw/OvsdbRequest.h"
#include "entities/FabricMapV3.h"
#include "entities/OverlaySvc.h"
#include "model/Status.h"

namespace Vgw {

// Empty when `target` is one of ssl:HOST[:PORT], tcp:HOST[:PORT], unix:FILE,
// pssl:[PORT][:IP], ptcp:[PORT][:IP] or punix:FILE, at most 1024 bytes,
// without spaces or control characters: HOST an IPv4 address, an IPv6
// address in brackets or a host name, IP an address only. Otherwise the
// problem, in words that do not repeat a long target.
std::string managerTargetProblem(std::string_view target);

// The rules of vgw/config and vgw/cliconfig. Each throws Kiln::JsonError
// naming the attribute (below the entity) and the problem.
void checkConfig(const Config& config);
void checkCliConfig(const CliConfig& cliConfig);

class CliConfigSm : public Kiln::PtrInterface {
 public:
  // Runs handleInitialized(): the managers are brought in line at once.
  CliConfigSm(Kiln::Ptr<Status> status, Kiln::Ptr<const Config> config, Kiln::Ptr<const CliConfig> cliConfig,
              Kiln::Ptr<const FabricMapV3::Status> topoStatus, Kiln::Ptr<const OverlaySvc::VniStatusDirV2> vniStatusDir,
              Kiln::Ptr<OvsdbRequestQueue> requestQueue);

  const Kiln::Ptr<Status>& status() const { return status_; }
  const Kiln::Ptr<const Config>& config() const { return config_; }
  const Kiln::Ptr<const CliConfig>& cliConfig() const { return cliConfig_; }
  const Kiln::Ptr<const FabricMapV3::Status>& topoStatus() const { return topoStatus_; }
  const Kiln::Ptr<const OverlaySvc::VniStatusDirV2>& vniStatusDir() const { return vniStatusDir_; }
  const Kiln::Ptr<OvsdbRequestQueue>& requestQueue() const { return requestQueue_; }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  // Every target: stale rows first, then each configured key.
  void updateManager();
  void updateManager(const Kiln::String& target);
  void addManager(const Kiln::String& target);
  void deleteManager(const Kiln::String& target);
  void deleteStaleManagers();
  void handleVtepListType();
  void handleRoutingModeType();
  // Stops the machine; the database keeps its rows.
  void destroy();

 private:
  class KilnCliConfig : public CliConfig::NotifieeConst {
   public:
    explicit KilnCliConfig(CliConfigSm* sm) : sm_(sm) {}
    void onManagerAddress(const Kiln::String& target) override { sm_->updateManager(target); }
    void onVtepListType() override { sm_->handleVtepListType(); }
    void onRoutingModeType() override { sm_->handleRoutingModeType(); }

   private:
    CliConfigSm* sm_;
  };

  bool configured(const Kiln::String& target) const;

  const Kiln::Ptr<Status> status_;
  const Kiln::Ptr<const Config> config_;
  const Kiln::Ptr<const CliConfig> cliConfig_;
  const Kiln::Ptr<const FabricMapV3::Status> topoStatus_;
  const Kiln::Ptr<const OverlaySvc::VniStatusDirV2> vniStatusDir_;
  const Kiln::Ptr<OvsdbRequestQueue> requestQueue_;
  bool initialized_ = false;
  KilnCliConfig kilnCliConfig_;
};

Kiln::Ptr<CliConfigSm> cliConfigSmFactory(Kiln::Ptr<Status> status, Kiln::Ptr<const Config> config,
                                          Kiln::Ptr<const CliConfig> cliConfig,
                                          Kiln::Ptr<const FabricMapV3::Status> topoStatus,
                                          Kiln::Ptr<const OverlaySvc::VniStatusDirV2> vniStatusDir,
                                          Kiln::Ptr<OvsdbRequestQueue> requestQueue);

}  // namespace Vgw
