// The managers of the configuration, one transaction per change.
//
// The mirror answers "is there a row for this target" through its index by
// target, and each transaction's reply is applied to the mirror before the
// enqueue returns, so a later step of the same pass sees the previous one.
#include "Vgw/CliConfigSm.h"

#include <set>
#include <vector>

#include "Kiln/Assert.h"
#include "RingTape/RingTape.h"
#include "Vgw/VgwUtils.h"

RINGTAPE_HANDLE("VgwCliConfig");

namespace Vgw {

namespace {

// The Global row of the mirror: there is one in a hardware_vtep database.
Kiln::Ptr<Global> globalRow(const HwVtepOvsdb& ovsdb) {
  return ovsdb.root().empty() ? nullptr : ovsdb.root().begin()->second;
}

}  // namespace

CliConfigSm::CliConfigSm(Kiln::Ptr<Status> status, Kiln::Ptr<const Config> config,
                         Kiln::Ptr<const CliConfig> cliConfig, Kiln::Ptr<const FabricMapV3::Status> topoStatus,
                         Kiln::Ptr<const OverlaySvc::VniStatusDirV2> vniStatusDir,
                         Kiln::Ptr<OvsdbRequestQueue> requestQueue)
    : status_(std::move(status)),
      config_(std::move(config)),
      cliConfig_(std::move(cliConfig)),
      topoStatus_(std::move(topoStatus)),
      vniStatusDir_(std::move(vniStatusDir)),
      requestQueue_(std::move(requestQueue)),
      kilnCliConfig_(this) {
  kilnCliConfig_.notifierIs(cliConfig_);
  handleInitialized();
}

Kiln::Ptr<CliConfigSm> cliConfigSmFactory(Kiln::Ptr<Status> status, Kiln::Ptr<const Config> config,
                                          Kiln::Ptr<const CliConfig> cliConfig,
                                          Kiln::Ptr<const FabricMapV3::Status> topoStatus,
                                          Kiln::Ptr<const OverlaySvc::VniStatusDirV2> vniStatusDir,
                                          Kiln::Ptr<OvsdbRequestQueue> requestQueue) {
  return Kiln::newPtr<CliConfigSm>(std::move(status), std::move(config), std::move(cliConfig), std::move(topoStatus),
                                   std::move(vniStatusDir), std::move(requestQueue));
}

void CliConfigSm::handleInitialized() {
  VGW_TRACE(5, "CliConfigSm::handleInitialized");
  initialized_ = true;
  updateManager();
  handleVtepListType();
  handleRoutingModeType();
  VGW_TRACE(5, "CliConfigSm::handleInitialized return");
}

void CliConfigSm::destroy() {
  VGW_TRACE(5, "CliConfigSm::destroy");
  initialized_ = false;
}

bool CliConfigSm::configured(const Kiln::String& target) const { return cliConfig_->managerAddress(target); }

void CliConfigSm::updateManager() {
  if (!initialized_) return;
  VGW_TRACE(5, "CliConfigSm::updateManager");
  deleteStaleManagers();
  // Copied: a transaction's reactors may run configuration writers.
  const CliConfig::ManagerAddressType targets = cliConfig_->managerAddress();
  for (const auto& [target, enabled] : targets) updateManager(target);
  VGW_TRACE(5, "CliConfigSm::updateManager return");
}

void CliConfigSm::updateManager(const Kiln::String& target) {
  if (!initialized_) return;
  VGW_TRACE(5, "CliConfigSm::updateManager " << target);
  const Kiln::Ptr<HwVtepOvsdb> ovsdb = status_->ovsdb();
  KILN_ASSERT(ovsdb, "ovsdb object is NULL");
  const bool wanted = configured(target);
  const bool present = ovsdb->manager(target) != nullptr;
  if (wanted && !present) {
    VGW_TRACE(6, "Manager not in OVSDB. Adding manager: " << target);
    addManager(target);
  } else if (!wanted && present) {
    VGW_TRACE(6, "Manager in OVSDB. Deleting manager: " << target);
    deleteManager(target);
  }
  // A manager found in place starts convergence as well: the controller may
  // be about to connect to it.
  const Kiln::Ptr<OvsdbSessionStatus> session = status_->ovsdbSessionStatus();
  const Kiln::Ptr<LocalData> localData = Kiln::Entity::singletonIs<LocalData>();
  if (session && session->sessionState() == SessionState::stateConnected &&
      localData->mgrConverged() == MgrConvergenceState::mgrInitial) {
    localData->mgrConvergedIs(MgrConvergenceState::mgrUp);
  }
  VGW_TRACE(5, "CliConfigSm::updateManager return");
}

void CliConfigSm::addManager(const Kiln::String& target) {
  VGW_TRACE(5, "Add Manager:  " << target);
  auto transact = Kiln::newPtr<OvsdbTransactRequest>();
  const Kiln::Ptr<HwVtepOvsdb> ovsdb = status_->ovsdb();
  KILN_ASSERT(ovsdb, "ovsdb object is NULL");
  transact->ovsdbIs(ovsdb);

  const Kiln::Ptr<Global> global = globalRow(*ovsdb);
  std::set<Uuid> managers;
  if (global) {
    for (const Uuid& uuid : global->manager()) {
      VGW_TRACE(6, "Existing manager in global table: " << uuid);
      managers.insert(uuid);
    }
  }

  const Kiln::Ptr<Manager> manager = createManager(target);
  transact->opEnq(buildInsert(manager));
  VGW_TRACE(6, "Adding manager " << target << " to the manager table");

  KILN_ASSERT(global, "Global Table is empty");
  managers.insert(manager->uuid());
  const Kiln::Ptr<Global> update = createGlobal({}, managers);
  // Only the managers column goes out: the switches belong to the inventory
  // and other_config to the controller.
  update->invalidAttribIs("pSwitch", true);
  update->invalidAttribIs("otherConfig", true);
  VGW_TRACE(6, "Updating Global table with the new manager");
  transact->opEnq(buildUpdate(global->uuid(), update));
  requestQueue_->requestEnq(transact);
}

void CliConfigSm::deleteManager(const Kiln::String& target) {
  VGW_TRACE(5, "manager to delete " << target);
  const Kiln::Ptr<HwVtepOvsdb> ovsdb = status_->ovsdb();
  KILN_ASSERT(ovsdb, "ovsdb object is NULL");
  const Kiln::Ptr<Manager> manager = ovsdb->manager(target);
  if (!manager) {
    VGW_TRACE(6, "Manager " << target << " already deleted");
    return;
  }
  auto transact = Kiln::newPtr<OvsdbTransactRequest>();
  transact->ovsdbIs(ovsdb);

  std::set<Uuid> managers;
  Uuid globalUuid;
  if (const Kiln::Ptr<Global> global = globalRow(*ovsdb)) {
    globalUuid = global->uuid();
    for (const Uuid& uuid : global->manager()) {
      if (uuid == manager->uuid()) continue;
      VGW_TRACE(6, "Existing manager in global table: " << uuid);
      managers.insert(uuid);
    }
  }
  const Kiln::Ptr<Global> update = createGlobal({}, managers);
  // Unlike an add, this update carries other_config.
  update->invalidAttribIs("pSwitch", true);
  transact->opEnq(buildUpdate(globalUuid, update));

  transact->opEnq(buildDelete(manager->uuid(), OvsdbDataType::manager));
  VGW_TRACE(6, "Deleted Manager " << target);
  requestQueue_->requestEnq(transact);
}

void CliConfigSm::deleteStaleManagers() {
  VGW_TRACE(5, "CliConfigSm::deleteStaleManagers");
  const Kiln::Ptr<HwVtepOvsdb> ovsdb = status_->ovsdb();
  KILN_ASSERT(ovsdb, "ovsdb object is NULL");
  // Each delete's reply changes the index walked here.
  std::vector<Kiln::String> stale;
  for (const auto& [target, row] : ovsdb->manager()) {
    if (!configured(target)) stale.push_back(target);
  }
  for (const Kiln::String& target : stale) {
    VGW_TRACE(6, "Deleting stale manager from OVSDB: " << target);
    deleteManager(target);
  }
}

void CliConfigSm::handleVtepListType() {
  VGW_TRACE(5, " vtepListType changed from " << status_->vtepListType() << " to " << cliConfig_->vtepListType());
  status_->vtepListTypeIs(cliConfig_->vtepListType());
}

void CliConfigSm::handleRoutingModeType() {
  VGW_TRACE(5, " routingModeType changed from " << status_->routingModeType() << " to "
                                                << cliConfig_->routingModeType());
  status_->routingModeTypeIs(cliConfig_->routingModeType());
}

}  // namespace Vgw
