// The inventory's coalesced refresh.
//
// The refresh never trusts what it did last time: it walks every host,
// decides readiness and names afresh, and lets each switch machine compare
// its rows with the mirror. Only the differences travel, in one transaction,
// so a refresh over an unchanged fabric sends nothing at all.
#include "Vgw/InventorySm.h"

#include <utility>
#include <vector>

#include "Kiln/Assert.h"
#include "Kiln/System.h"
#include "RingTape/RingTape.h"
#include "Vgw/VgwUtils.h"

RINGTAPE_HANDLE("VgwInventory");

namespace Vgw {

namespace {

constexpr const char* unexpectedUuid = "Unexpected uuid";
constexpr const char* unexpectedUpdate = "Update of SM is not expected";

template <class Map>
typename Map::mapped_type takeOut(Map& machines, const typename Map::key_type& key) {
  const auto found = machines.find(key);
  if (found == machines.end()) return nullptr;
  typename Map::mapped_type sm = std::move(found->second);
  machines.erase(found);
  return sm;
}

Kiln::Ptr<Global> globalRow(const HwVtepOvsdb& ovsdb) {
  return ovsdb.root().empty() ? nullptr : ovsdb.root().begin()->second;
}

// A Global value that carries only the switches column.
Kiln::Ptr<Global> switchesOnly(const Uuid& uuid) {
  auto value = Kiln::newPtr<Global>(uuid);
  value->invalidAttribIs("manager", true);
  value->invalidAttribIs("otherConfig", true);
  return value;
}

}  // namespace

PhysicalSwitchSm* MlagPeer::peerSm(const Fleet::SystemId& id) const {
  const auto found = peerSm_.find(id);
  return found == peerSm_.end() ? nullptr : found->second;
}

// ---- TopoStatusHostSm ------------------------------------------------------------------------

TopoStatusHostSm::TopoStatusHostSm(Kiln::Ptr<const FabricMapV3::Host> host)
    : host_(std::move(host)), localData_(Kiln::Entity::singletonIs<LocalData>()), kilnHost_(this) {
  kilnHost_.notifierIs(host_);
  handleInitialized();
}

void TopoStatusHostSm::handleInitialized() {
  VGW_TRACE(6, "TopoStatusHostSm(" << name() << ")::handleInitialized");
  initialized_ = true;
  localData_->inventoryDirtyIs(true);
}

void TopoStatusHostSm::handleHostname() {
  VGW_TRACE(6, "TopoStatusHostSm(" << name() << ")::handleHostname " << host_->hostname());
  localData_->inventoryDirtyIs(true);
}

void TopoStatusHostSm::destroy() {
  VGW_TRACE(6, "TopoStatusHostSm(" << name() << ")::destroy");
  initialized_ = false;
  localData_->inventoryDirtyIs(true);
}

// ---- TopoStatusMlagHostSm --------------------------------------------------------------------

TopoStatusMlagHostSm::TopoStatusMlagHostSm(Kiln::Ptr<const FabricMapV3::MlagHost> mlagHost)
    : mlagHost_(std::move(mlagHost)), localData_(Kiln::Entity::singletonIs<LocalData>()), kilnMlagHost_(this) {
  kilnMlagHost_.notifierIs(mlagHost_);
  handleInitialized();
}

void TopoStatusMlagHostSm::handleInitialized() {
  VGW_TRACE(6, "TopoStatusMlagHostSm(" << systemId() << ")::handleInitialized");
  initialized_ = true;
  localData_->inventoryDirtyIs(true);
}

void TopoStatusMlagHostSm::handleDomainId() {
  VGW_TRACE(6, "TopoStatusMlagHostSm(" << systemId() << ")::handleDomainId " << mlagHost_->domainId());
  localData_->inventoryDirtyIs(true);
}

void TopoStatusMlagHostSm::handlePeer(const Kiln::String& name) {
  VGW_TRACE(6, "TopoStatusMlagHostSm(" << systemId() << ")::handlePeer " << name);
  localData_->inventoryDirtyIs(true);
}

void TopoStatusMlagHostSm::destroy() {
  VGW_TRACE(6, "TopoStatusMlagHostSm(" << systemId() << ")::destroy");
  initialized_ = false;
  localData_->inventoryDirtyIs(true);
}

// ---- InventorySm -------------------------------------------------------------------------------

InventorySm::InventorySm(Kiln::Ptr<const FabricMapV3::Status> topoStatus, Kiln::Ptr<const Kiln::Dir> vtepStatusDir,
                         Kiln::Ptr<const Kiln::Dir> errorStatusDir, Kiln::Ptr<HwVtepOvsdb> ovsdb,
                         Kiln::Ptr<OvsdbRequestQueue> requestQueue)
    : topoStatus_(std::move(topoStatus)),
      vtepStatusDir_(std::move(vtepStatusDir)),
      errorStatusDir_(std::move(errorStatusDir)),
      ovsdb_(std::move(ovsdb)),
      requestQueue_(std::move(requestQueue)),
      clock_(this),
      localData_(Kiln::Entity::singletonIs<LocalData>()),
      kilnTopoStatus_(this),
      kilnVtepStatusDir_(this, &InventorySm::handleVtepStatusDir),
      kilnErrorStatusDir_(this, &InventorySm::handleErrorStatusDir),
      kilnLocalData_(this) {
  clock_.notifierIs(Kiln::EventLoop::current().clock());
  clock_.timeMinIs(Kiln::plusInfinity);
  kilnTopoStatus_.notifierIs(topoStatus_);
  kilnVtepStatusDir_.notifierIs(vtepStatusDir_);
  kilnErrorStatusDir_.notifierIs(errorStatusDir_);
  kilnLocalData_.notifierIs(localData_);
  handleInitialized();
}

Kiln::Ptr<InventorySm> inventorySmFactory(Kiln::Ptr<const FabricMapV3::Status> topoStatus,
                                          Kiln::Ptr<const Kiln::Dir> vtepStatusDir,
                                          Kiln::Ptr<const Kiln::Dir> errorStatusDir, Kiln::Ptr<HwVtepOvsdb> ovsdb,
                                          Kiln::Ptr<OvsdbRequestQueue> requestQueue) {
  return Kiln::newPtr<InventorySm>(std::move(topoStatus), std::move(vtepStatusDir), std::move(errorStatusDir),
                                   std::move(ovsdb), std::move(requestQueue));
}

PhysicalSwitchSm* InventorySm::physicalSwitchSm(const Fleet::SystemId& id) const {
  const auto found = physicalSwitchSm_.find(id);
  return found == physicalSwitchSm_.end() ? nullptr : found->second.get();
}

Kiln::Ptr<OvsdbTransactRequest> InventorySm::newTransaction() const {
  auto transact = Kiln::newPtr<OvsdbTransactRequest>();
  transact->ovsdbIs(ovsdb_);
  return transact;
}

void InventorySm::handleInitialized() {
  VGW_TRACE(5, "InventorySm::handleInitialized");
  initialized_ = true;
  handleTopoStatusHost();
  handleTopoStatusMlagHost();
  handleRefresh(true);
  sweepStaleArpSources();
  VGW_TRACE(5, "InventorySm::handleInitialized return");
}

void InventorySm::sweepStaleArpSources() {
  // Rows of earlier lives: a MAC that no VTEP of a ready switch has.
  std::set<Ipkit::EthAddr> macs;
  for (const auto& [id, sm] : physicalSwitchSm_) {
    for (const auto& [name, vtep] : sm->vtepStatusDir()->vtepStatus()) macs.insert(vtep->vtepLocalMac());
  }
  const Kiln::Ptr<OvsdbTransactRequest> transact = newTransaction();
  for (const auto& [uuid, row] : ovsdb_->arpSourcesLocalRaw()) {
    if (macs.contains(row->srcMac())) continue;
    VGW_TRACE(6, "Deleting stale Arp_Sources_Local entry: " << row->srcMac());
    transact->opEnq(buildDelete(uuid, OvsdbDataType::arpSourcesLocal));
  }
  if (transact->opCount()) requestQueue_->requestEnq(transact);
}

void InventorySm::destroy(bool ignoreProcessResult) {
  if (!initialized_) return;
  VGW_TRACE(5, "InventorySm::destroy");
  initialized_ = false;
  clock_.timeMinIs(Kiln::plusInfinity);
  const Kiln::Ptr<Global> row = globalRow(*ovsdb_);
  if (!row) return;
  // Only the switches column is compared: another column that differs is
  // no reason for a write.
  const Kiln::Ptr<Global> value = switchesOnly(row->uuid());
  if (value->isEqualTo(*row)) return;
  VGW_TRACE(6, " Update Global: no physical switches");
  const Kiln::Ptr<OvsdbTransactRequest> transact = newTransaction();
  transact->opEnq(buildUpdate(row->uuid(), value));
  transact->ignoreProcessResultIs(ignoreProcessResult);
  requestQueue_->requestEnq(transact);
}

void InventorySm::handleTopoStatusHost() {
  for (const auto& [name, host] : topoStatus_->host()) handleTopoStatusHost(name);
}

void InventorySm::handleTopoStatusHost(const Kiln::String& name) {
  if (!initialized_) return;
  if (const Kiln::Ptr<const FabricMapV3::Host> host = topoStatus_->host(name)) {
    KILN_ASSERT(!topoStatusHostSm_.contains(name), unexpectedUpdate);
    topoStatusHostSm_.emplace(name, Kiln::newPtr<TopoStatusHostSm>(host));
  } else if (const Kiln::Ptr<TopoStatusHostSm> sm = takeOut(topoStatusHostSm_, name)) {
    sm->destroy();
  }
}

void InventorySm::handleTopoStatusMlagHost() {
  for (const auto& [systemId, mlagHost] : topoStatus_->mlagHost()) handleTopoStatusMlagHost(systemId);
}

void InventorySm::handleTopoStatusMlagHost(const Ipkit::EthAddr& systemId) {
  if (!initialized_) return;
  if (const Kiln::Ptr<const FabricMapV3::MlagHost> mlagHost = topoStatus_->mlagHost(systemId)) {
    KILN_ASSERT(!topoStatusMlagHostSm_.contains(systemId), unexpectedUpdate);
    topoStatusMlagHostSm_.emplace(systemId, Kiln::newPtr<TopoStatusMlagHostSm>(mlagHost));
  } else if (const Kiln::Ptr<TopoStatusMlagHostSm> sm = takeOut(topoStatusMlagHostSm_, systemId)) {
    sm->destroy();
  }
}

void InventorySm::handleVtepStatusDir(const Kiln::Name& name) {
  VGW_TRACE(6, "InventorySm::handleVtepStatusDir " << name);
  localData_->inventoryDirtyIs(true);
}

void InventorySm::handleErrorStatusDir(const Kiln::Name& name) {
  VGW_TRACE(6, "InventorySm::handleErrorStatusDir " << name);
  localData_->inventoryDirtyIs(true);
}

void InventorySm::handleDirtyInventory() {
  // The flag stays up until the refresh, so only the first change of a
  // burst arms the timer.
  if (localData_->inventoryDirty()) clock_.timeMinIs(Kiln::System::currentTime() + coalesceInterval_);
}

void InventorySm::handleRefresh(bool force) {
  if (!initialized_) return;
  if (!localData_->inventoryDirty() && !force) return;
  VGW_TRACE(5, "InventorySm::handleRefresh(" << force << ")");
  const Kiln::Ptr<OvsdbTransactRequest> transact = newTransaction();
  std::map<Fleet::SystemId, Uuid> switches;
  refreshPhysicalSwitches(*transact, switches);
  if (updateGlobal(*transact, switches)) {
    if (transact->opCount()) requestQueue_->requestEnq(transact);
  } else {
    // Rows that Global does not name would be collected at once.
    VGW_TRACE(0, "No Global row in the database: " << switches.size() << " switches cannot be named");
  }
  localData_->inventoryDirtyIs(false);
  clock_.timeMinIs(Kiln::plusInfinity);
  VGW_TRACE(5, "InventorySm::handleRefresh return");
}

void InventorySm::refreshPhysicalSwitches(OvsdbTransactRequest& transact, std::map<Fleet::SystemId, Uuid>& switches) {
  // Hosts by hostname, counting every host, ready or not.
  std::vector<std::pair<Fleet::SystemId, Kiln::String>> hosts;
  std::map<Kiln::String, std::size_t> hostsNamed;
  for (const auto& [key, host] : topoStatus_->host()) {
    const Fleet::SystemId id = macToSysid(key);
    // The per-switch directories are named by the id's text: a host under
    // any other name could never be matched with them.
    if (id.isZero() || sysidToMac(id) != key) {
      VGW_TRACE(6, "Ignoring host " << key << ": its name is not the text of a system id");
      continue;
    }
    VGW_TRACE(6, key << " mapped to " << host->hostname());
    hosts.emplace_back(id, host->hostname());
    ++hostsNamed[host->hostname()];
  }
  for (const auto& [id, hostname] : hosts) {
    VGW_TRACE(6, " Processing host " << id);
    const Uuid uuid = handleMounts(transact, id, hostsNamed[hostname] >= 2);
    if (uuid.isNull()) continue;
    VGW_TRACE(6, " Host uuid: " << uuid);
    switches.emplace(id, uuid);
  }
  for (auto it = physicalSwitchSm_.begin(); it != physicalSwitchSm_.end();) {
    if (switches.contains(it->first)) {
      ++it;
      continue;
    }
    const Kiln::Ptr<PhysicalSwitchSm> stale = std::move(it->second);
    it = physicalSwitchSm_.erase(it);
    VGW_TRACE(6, " Drop stale PhysicalSwitchSm " << stale->systemId());
    stale->destroy();
  }
}

Uuid InventorySm::handleMounts(OvsdbTransactRequest& transact, const Fleet::SystemId& systemId, bool nameConflict) {
  const Kiln::String key = sysidToMac(systemId);
  const Kiln::Ptr<const FabricMapV3::Host> host = topoStatus_->host(key);
  VGW_TRACE(6, key << " topoStatusHost ready? " << bool(host));
  const Kiln::String hostname = host ? host->hostname() : Kiln::String();
  VGW_TRACE(6, key << " hostname ready? " << !hostname.empty());
  const auto vtepStatus = vtepStatusDir_->entityPtr<const OverlaySvc::VtepStatusDirV2>(key);
  VGW_TRACE(6, key << " vtepStatus ready? " << bool(vtepStatus));
  const auto errorStatus = errorStatusDir_->entityPtr<const OverlaySvc::ErrorStatusV2>(key);
  VGW_TRACE(6, key << " errorStatus ready? " << bool(errorStatus));

  if (!host || hostname.empty() || !vtepStatus || !errorStatus) {
    if (const Kiln::Ptr<PhysicalSwitchSm> sm = takeOut(physicalSwitchSm_, systemId)) {
      VGW_TRACE(6, " PhysicalSwitchSm delete " << key);
      sm->destroy();
    }
    return Uuid();
  }

  const Kiln::String displayName =
      nameConflict ? Kiln::String(hostname.stringValue() + "-" + key.stringValue()) : hostname;
  Uuid uuid;
  const auto existing = physicalSwitchSm_.find(systemId);
  if (existing != physicalSwitchSm_.end() && existing->second->topoStatusHost() == host &&
      existing->second->vtepStatusDir() == vtepStatus && existing->second->errorStatus() == errorStatus) {
    PhysicalSwitchSm& sm = *existing->second;
    VGW_TRACE(6, " PhysicalSwitchSm refresh.");
    if (sm.displayName() != displayName) {
      VGW_TRACE(6, "  DisplayName updated to " << displayName);
      sm.displayNameIs(displayName);
    }
    uuid = sm.handleRefresh(transact);
  } else {
    if (existing != physicalSwitchSm_.end()) {
      VGW_TRACE(6, " PhysicalSwitchSm del and add.");
      const Kiln::Ptr<PhysicalSwitchSm> replaced = std::move(existing->second);
      physicalSwitchSm_.erase(existing);
      replaced->destroy();
    } else {
      VGW_TRACE(6, " PhysicalSwitchSm create " << key);
    }
    const auto sm =
        Kiln::newPtr<PhysicalSwitchSm>(systemId, displayName, host, vtepStatus, errorStatus, ovsdb_, requestQueue_);
    physicalSwitchSm_.emplace(systemId, sm);
    uuid = sm->handleRefresh(transact);
  }
  KILN_ASSERT(!uuid.isNull(), unexpectedUuid);
  return uuid;
}

bool InventorySm::updateGlobal(OvsdbTransactRequest& transact, const std::map<Fleet::SystemId, Uuid>& switches) const {
  const Kiln::Ptr<Global> row = globalRow(*ovsdb_);
  if (!row) return false;
  const Kiln::Ptr<Global> value = switchesOnly(row->uuid());
  for (const auto& [id, uuid] : switches) value->pSwitchIs(uuid);
  VGW_TRACE(6, " Global physical switches: " << switches.size());
  if (value->isEqualTo(*row)) return true;
  VGW_TRACE(6, " Update Global");
  transact.opEnq(buildUpdate(row->uuid(), value));
  return true;
}

}  // namespace Vgw
