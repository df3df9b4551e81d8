// VLAN to VNI configuration of the fabric's switches.
//
// Every reactor of the upper level ends in the per-switch reconciliation,
// which decides afresh from the mounts, the topology and the mirror whether
// each role of the switch is served and by which machine; the machines below
// then write only what their rows say, and the setters of the configuration
// drop values equal to those in place.
#include "Vgw/VlanToVniSm.h"

#include <utility>
#include <vector>

#include "Kiln/Assert.h"
#include "Kiln/System.h"
#include "RingTape/RingTape.h"
#include "Vgw/VgwUtils.h"

RINGTAPE_HANDLE("VgwVlanToVni");

namespace Vgw {

namespace VlanToVni {

namespace {

bool isMlagVtep(std::string_view name) { return name.starts_with("Vxlan") && name.ends_with("-mlag"); }

template <class Map>
typename Map::mapped_type takeOut(Map& machines, const typename Map::key_type& key) {
  const auto found = machines.find(key);
  if (found == machines.end()) return nullptr;
  typename Map::mapped_type sm = std::move(found->second);
  machines.erase(found);
  return sm;
}

}  // namespace

Kiln::String getVtepKey(const OverlaySvc::VtepStatusDirV2* vtepStatusDir, bool mlag) {
  VGW_TRACE(6, "getVtepKey(" << vtepStatusDir << ", " << mlag << ")");
  Kiln::String key;
  if (vtepStatusDir) {
    for (const auto& [name, status] : vtepStatusDir->vtepStatus()) {
      if (isMlagVtep(name) == mlag) {
        key = name;
        break;
      }
      // A switch without an MLAG VTEP serves its MLAG role with an ordinary one.
      if (mlag) key = name;
    }
  }
  VGW_TRACE(6, "getVtepKey returning " << key);
  return key;
}

void delBfdPeerConfig(OverlaySvc::VtepConfigV2* vtepConfig, const Ipkit::IpGenAddr& peerIp) {
  if (!vtepConfig) {
    VGW_TRACE(6, " return vtepConfig already deleted");
    return;
  }
  vtepConfig->bfdPeerConfigDel(peerIp.v4Addr());
  if (vtepConfig->bfdPeerConfig().empty()) vtepConfig->bfdVniIs(Vxlan::VniOrNone::invalidVni());
}

Kiln::String hostMlagDomainId(const FabricMapV3::Status& topoStatus, const Kiln::String& hostKey) {
  for (const auto& [systemId, mlagHost] : topoStatus.mlagHost()) {
    if (mlagHost->peer(hostKey)) return mlagHost->domainId();
  }
  return Kiln::String();
}

// ---- PhysicalPortSm ---------------------------------------------------------------------

PhysicalPortSm::PhysicalPortSm(Kiln::Ptr<const PhysicalPort> physicalPort, Kiln::Ptr<const HwVtepOvsdb> ovsdb,
                               Kiln::Ptr<OverlaySvc::VtepConfigV2> vtepConfig)
    : physicalPort_(std::move(physicalPort)),
      ovsdb_(std::move(ovsdb)),
      vtepConfig_(std::move(vtepConfig)),
      localData_(Kiln::Entity::singletonIs<LocalData>()),
      kilnPhysicalPort_(this) {
  kilnPhysicalPort_.notifierIs(physicalPort_);
  handleInitialized();
}

void PhysicalPortSm::handleInitialized() {
  initialized_ = true;
  handleVlanBinding();
}

void PhysicalPortSm::handleVlanBinding() {
  for (const auto& [vlan, logicalSwitch] : physicalPort_->vlanBinding()) handleVlanBinding(vlan);
}

void PhysicalPortSm::pairDel(const OverlaySvc::PortVlanPairV2& pair) {
  if (vtepConfig_) vtepConfig_->vlanToVniMapDel(pair);
}

void PhysicalPortSm::handleVlanBinding(const Bridging::VlanIdOrNone& vlan) {
  if (!initialized_) return;
  const Kiln::String& port = switchPortName();
  const OverlaySvc::PortVlanPairV2 pair(port, vlan);
  deferred_.erase(vlan);
  const Uuid lsUuid = physicalPort_->vlanBinding(vlan);
  if (lsUuid.isNull()) {
    VGW_TRACE(6, "Removing " << port << ", " << vlan);
    pairDel(pair);
    return;
  }
  // The controller's internal switch is not mirrored; it carries no VNI.
  const Kiln::Ptr<LogicalSwitch> logicalSwitch = ovsdb_->logicalSwitch(lsUuid);
  const Vxlan::VniOrNone tunnelKey = logicalSwitch ? logicalSwitch->tunnelKey() : Vxlan::VniOrNone();
  if (!tunnelKey.isValid()) {
    VGW_TRACE(6, "invalid tunnelKey");
    pairDel(pair);
    return;
  }
  const Vxlan::Vni vni = tunnelKey.vni();
  const Kiln::Ptr<VniToLogicalSwitch> sharing = localData_->vniToLogicalSwitch(vni);
  if (!sharing) {
    VGW_TRACE(6, "vniToLogicalSwitch(" << vni << ") is not set yet..returning");
    deferred_.insert(vlan);
    return;
  }
  if (sharing->logicalSwitch().size() >= 2) {
    VGW_TRACE(6, "Removing " << port << ", " << vlan << " (multiple logical switches with same vni)");
    pairDel(pair);
    return;
  }
  if (!vtepConfig_) return;
  const auto& map = vtepConfig_->vlanToVniMap();
  const auto found = map.find(pair);
  if (found == map.end()) {
    VGW_TRACE(6, "Adding " << port << ", " << vlan << " <> " << vni);
  } else if (found->second == vni) {
    VGW_TRACE(6, "Nop " << port << ", " << vlan << " <> " << vni);
    return;
  } else {
    VGW_TRACE(6, "Updating " << port << ", " << vlan << " <> " << vni << " from " << found->second);
  }
  vtepConfig_->vlanToVniMapIs(pair, vni);
}

void PhysicalPortSm::refreshBindings(const Uuid& logicalSwitch) {
  for (const auto& [vlan, bound] : physicalPort_->vlanBinding()) {
    if (bound == logicalSwitch) {
      handleVlanBinding(vlan);
      return;
    }
  }
}

void PhysicalPortSm::handleDeferred() {
  for (const Bridging::VlanIdOrNone& vlan : std::set(deferred_)) handleVlanBinding(vlan);
}

void PhysicalPortSm::destroy() {
  initialized_ = false;
  if (!vtepConfig_) return;
  std::vector<OverlaySvc::PortVlanPairV2> mine;
  for (const auto& [pair, vni] : vtepConfig_->vlanToVniMap()) {
    if (pair.port() != switchPortName()) continue;
    VGW_TRACE(6, "Deleting " << pair.vlanId() << " <> " << vni << " on " << pair.port());
    mine.push_back(pair);
  }
  for (const OverlaySvc::PortVlanPairV2& pair : mine) vtepConfig_->vlanToVniMapDel(pair);
}

// ---- VtepStatusSm -----------------------------------------------------------------------

VtepStatusSm::VtepStatusSm(Kiln::Ptr<const OverlaySvc::VtepStatusV2> vtepStatus, PhysicalSwitchSm* parent)
    : vtepStatus_(std::move(vtepStatus)), parent_(parent), kilnVtepStatus_(this) {
  kilnVtepStatus_.notifierIs(vtepStatus_);
  initialized_ = true;
}

void VtepStatusSm::handleVtepAddr() {
  if (initialized_) parent_->handleVtepStatus(name());
}

// ---- PhysicalSwitchSm ------------------------------------------------------------------

PhysicalSwitchSm::PhysicalSwitchSm(const Fleet::SystemId& systemId, Kiln::Ptr<const PhysicalSwitch> physicalSwitch,
                                   Kiln::Ptr<const HwVtepOvsdb> ovsdb, Kiln::Ptr<const CliConfig> cliConfig,
                                   Kiln::Ptr<const OverlaySvc::VtepStatusDirV2> vtepStatusDir,
                                   Kiln::Ptr<OverlaySvc::VtepConfigDirV2> vtepConfigDir, const Kiln::String& vtepKey,
                                   VlanToVniSm* parent)
    : systemId_(systemId),
      physicalSwitch_(std::move(physicalSwitch)),
      ovsdb_(std::move(ovsdb)),
      cliConfig_(std::move(cliConfig)),
      vtepStatusDir_(std::move(vtepStatusDir)),
      vtepConfigDir_(std::move(vtepConfigDir)),
      vtepKey_(vtepKey),
      parent_(parent),
      localData_(Kiln::Entity::singletonIs<LocalData>()),
      kilnPhysicalSwitch_(this),
      kilnCliConfig_(this) {
  kilnPhysicalSwitch_.notifierIs(physicalSwitch_);
  kilnCliConfig_.notifierIs(cliConfig_);
  handleInitialized();
}

void PhysicalSwitchSm::handleInitialized() {
  VGW_TRACE(5, "VlanToVni::PhysicalSwitchSm(" << systemId_ << ", " << physicalSwitch_->displayName()
                                              << ")::handleInitialized vtepKey=" << vtepKey_);
  initialized_ = true;
  for (const auto& [name, status] : vtepStatusDir_->vtepStatus()) {
    vtepStatusSm_.emplace(name, Kiln::newPtr<VtepStatusSm>(status, this));
  }
  handleVtepStatus();
}

void PhysicalSwitchSm::handleVtepStatus() {
  for (const auto& [name, sm] : vtepStatusSm_) handleVtepStatus(name);
}

void PhysicalSwitchSm::handleVtepStatus(const Kiln::String& name) {
  if (name != vtepKey_) return;
  // The parent builds a machine only for a key that has both; losing either
  // rebuilds the machine before it can be used again.
  const bool validVtepKey = vtepStatusDir_->vtepStatus(name) && vtepConfigDir_->vtepConfig(name);
  KILN_ASSERT(validVtepKey, "validVtepKey && \"VtepKey invalid\"");
  vtepConfig_ = vtepConfigDir_->vtepConfig(name);
  ready_ = true;
  handlePhysicalPort();
  handleTransitVni();
}

void PhysicalSwitchSm::handlePhysicalPort() {
  if (!ready_) return;
  for (const Uuid& uuid : physicalSwitch_->port()) handlePhysicalPort(uuid);
}

void PhysicalSwitchSm::handlePhysicalPort(const Uuid& uuid) {
  if (!ready_) return;
  if (!physicalSwitch_->port(uuid)) {
    VGW_TRACE(6, "Del physical port: " << uuid);
    if (const Kiln::Ptr<PhysicalPortSm> sm = takeOut(portSm_, uuid)) sm->destroy();
    return;
  }
  VGW_TRACE(6, "Add physical port: " << uuid);
  if (portSm_.contains(uuid)) return;
  const Kiln::Ptr<PhysicalPort> row = ovsdb_->physicalPort(uuid);
  if (!row) {
    // Within one message the switch may name a port before its row is in;
    // the end of the message looks again.
    VGW_TRACE(6, " return physical port " << uuid << " not mirrored yet");
    return;
  }
  portSm_.emplace(uuid, Kiln::newPtr<PhysicalPortSm>(row, ovsdb_, vtepConfig_));
}

void PhysicalSwitchSm::handleSystemId(const Fleet::SystemId& id) {
  if (!initialized_) return;
  if (id != Fleet::SystemId()) parent_->handleSwitch(id);
}

void PhysicalSwitchSm::handleTransitVni() {
  if (!initialized_) return;
  if (parent_->mlagSwitchSm(systemId_)) {
    // Both roles of a switch in a pair go on: each writes its own VTEP.
    VGW_TRACE(6, " return ignoring update from Mlag instance");
  }
  const Kiln::Ptr<OverlaySvc::VtepConfigV2> config =
      vtepConfigDir_->vtepConfig().empty() ? nullptr : vtepConfigDir_->vtepConfig().begin()->second;
  if (cliConfig_->routingModeType() == RoutingModeType::directRouting) {
    VGW_TRACE(6, "Clear all transit Vni requests for direct routing");
    if (config) config->vniWithoutVlanDelAll();
    return;
  }
  if (!config) return;
  const auto held = [&](const Vxlan::Vni& vni) { return localData_->transitVni(vni) != nullptr; };
  for (const Vxlan::Vni& vni : Kiln::keysToDrop(config->vniWithoutVlan(), held)) {
    VGW_TRACE(6, "Del stale transit Vni(" << vni << ")");
    config->vniWithoutVlanDel(vni);
  }
  for (const auto& [vni, ref] : localData_->transitVni()) {
    VGW_TRACE(6, "Add transit Vni(" << vni << ")");
    config->vniWithoutVlanIs(vni, true);
  }
}

void PhysicalSwitchSm::refreshBindings(const Uuid& logicalSwitch) {
  for (const auto& [uuid, sm] : portSm_) {
    VGW_TRACE(6, "Processing " << systemId_ << "'s " << uuid);
    sm->refreshBindings(logicalSwitch);
  }
}

void PhysicalSwitchSm::handleDeferred() {
  for (const auto& [uuid, sm] : portSm_) sm->handleDeferred();
}

void PhysicalSwitchSm::cleanup() {
  while (!portSm_.empty()) takeOut(portSm_, portSm_.begin()->first)->destroy();
}

void PhysicalSwitchSm::destroy() {
  VGW_TRACE(5, "VlanToVni::PhysicalSwitchSm(" << systemId_ << ")::destroy");
  cleanup();
  vtepStatusSm_.clear();
  ready_ = false;
  initialized_ = false;
  // The configuration entity goes with the last role of the switch, which
  // the parent decides.
  if (parent_->switchSm(systemId_) && parent_->mlagSwitchSm(systemId_)) {
    VGW_TRACE(6, " return not deleting vtepConfig as switchSm and mlagSwitchSm exist");
  }
}

// ---- VtepStatusDirSm -------------------------------------------------------------------

VtepStatusDirSm::VtepStatusDirSm(const Fleet::SystemId& systemId,
                                 Kiln::Ptr<const OverlaySvc::VtepStatusDirV2> vtepStatusDir,
                                 Kiln::Ptr<const OverlaySvc::VtepConfigDirV2> vtepConfigDir, VlanToVniSm* parent)
    : systemId_(systemId),
      vtepStatusDir_(std::move(vtepStatusDir)),
      vtepConfigDir_(std::move(vtepConfigDir)),
      parent_(parent),
      kilnVtepStatusDir_(this),
      kilnVtepConfigDir_(this) {
  kilnVtepStatusDir_.notifierIs(vtepStatusDir_);
  kilnVtepConfigDir_.notifierIs(vtepConfigDir_);
}

void VtepStatusDirSm::handleVtepStatus(const Kiln::String& name) {
  VGW_TRACE(6, "VtepStatusDirSm(" << systemId_ << ")::handleVtepStatus " << name);
  parent_->handleSwitch(systemId_);
}

}  // namespace VlanToVni

// ---- VlanToVniSm ------------------------------------------------------------------------

using VlanToVni::getVtepKey;
using VlanToVni::PhysicalSwitchSm;
using VlanToVni::takeOut;

VlanToVniSm::VlanToVniSm(Kiln::Ptr<const HwVtepOvsdb> ovsdb, Kiln::Ptr<const CliConfig> cliConfig,
                         Kiln::Ptr<const FabricMapV3::Status> topoStatus,
                         Kiln::Ptr<const Kiln::Dir> vtepStatusAggregate, Kiln::Ptr<Kiln::Dir> dynVtepConfig)
    : ovsdb_(std::move(ovsdb)),
      cliConfig_(std::move(cliConfig)),
      topoStatus_(std::move(topoStatus)),
      vtepStatusAggregate_(std::move(vtepStatusAggregate)),
      dynVtepConfig_(std::move(dynVtepConfig)),
      localData_(Kiln::Entity::singletonIs<LocalData>()),
      clock_(this),
      kilnOvsdb_(this),
      kilnTopoStatus_(this),
      kilnVtepStatusAggregate_(this),
      kilnDynVtepConfig_(this),
      kilnLocalData_(this) {
  clock_.notifierIs(Kiln::EventLoop::current().clock());
  clock_.timeMinIs(Kiln::plusInfinity);
  kilnOvsdb_.notifierIs(ovsdb_);
  kilnTopoStatus_.notifierIs(topoStatus_);
  kilnVtepStatusAggregate_.notifierIs(vtepStatusAggregate_);
  kilnDynVtepConfig_.notifierIs(dynVtepConfig_);
  kilnLocalData_.notifierIs(localData_);
  for (const auto& [name, host] : topoStatus_->host()) handleTopoHost(name);
  handleInitialized();
}

VlanToVniSm::~VlanToVniSm() = default;

PhysicalSwitchSm* VlanToVniSm::switchSm(const Fleet::SystemId& id) const {
  const auto found = switchSm_.find(id);
  return found == switchSm_.end() ? nullptr : found->second.get();
}

PhysicalSwitchSm* VlanToVniSm::mlagSwitchSm(const Fleet::SystemId& id) const {
  const auto found = mlagSwitchSm_.find(id);
  return found == mlagSwitchSm_.end() ? nullptr : found->second.get();
}

void VlanToVniSm::handleInitialized() {
  VGW_TRACE(5, "VlanToVniSm::handleInitialized");
  initialized_ = true;
  handleOvsdbSync();
}

void VlanToVniSm::handleSwitch(const Fleet::SystemId& systemId) {
  if (!initialized_) return;
  // The pass writes the switch's configuration, which notifies back here; it
  // reads every input afresh, so its own echoes need no second pass.
  if (!reconciling_.insert(systemId).second) return;
  reconcileSwitch(systemId);
  reconciling_.erase(systemId);
}

void VlanToVniSm::switchSmIs(SwitchSmMap& map, bool mlag, const Fleet::SystemId& systemId,
                             const Kiln::Ptr<const PhysicalSwitch>& row,
                             const Kiln::Ptr<const OverlaySvc::VtepStatusDirV2>& vtepStatusDir,
                             const Kiln::Ptr<OverlaySvc::VtepConfigDirV2>& vtepConfigDir,
                             const Kiln::String& vtepKey) {
  if (const auto found = map.find(systemId); found != map.end()) {
    VGW_TRACE(6, (mlag ? "mlag switchSm already exists vtepKey=" : "switchSm already exists vtepKey=")
                     << found->second->vtepKey());
    const PhysicalSwitchSm& sm = *found->second;
    // A configuration taken away from outside is written again by a new
    // machine, as is one whose row or key has changed.
    const bool stands = sm.physicalSwitch() == row && sm.vtepKey() == vtepKey && sm.vtepConfigDir() == vtepConfigDir &&
                        sm.vtepStatusDir() == vtepStatusDir && sm.vtepConfig() &&
                        sm.vtepConfig() == vtepConfigDir->vtepConfig(vtepKey);
    if (stands) return;
    VGW_TRACE(6, (mlag ? "DELETE mlag switchSm" : "DELETE switchSm"));
    const Kiln::Ptr<PhysicalSwitchSm> stale = takeOut(map, systemId);
    if (mlag) {
      stale->cleanup();
    } else {
      stale->destroy();
    }
  }
  VGW_TRACE(6, (mlag ? "VlanToVni CREATE Mlag SwitchSm" : "VlanToVni CREATE physicalSwitchSm"));
  // Entered before it runs, so that the machine finds itself in its role.
  auto& slot = map[systemId];
  slot = Kiln::newPtr<PhysicalSwitchSm>(systemId, row, ovsdb_, cliConfig_, vtepStatusDir, vtepConfigDir, vtepKey,
                                        this);
}

Kiln::Ptr<const PhysicalSwitch> VlanToVniSm::mlagSwitchRow(const Fleet::SystemId& systemId,
                                                           const Kiln::String& hostKey) const {
  const Kiln::String domainId = VlanToVni::hostMlagDomainId(*topoStatus_, hostKey);
  if (domainId.empty()) return nullptr;
  const Kiln::String name = mlagSwitchName(domainId);
  const Kiln::Ptr<PhysicalSwitch> row = ovsdb_->physicalSwitch(name);
  VGW_TRACE(6, "DomainId " << domainId << "MlagName " << name);
  if (!row || !row->systemId(systemId)) return nullptr;
  VGW_TRACE(6, "MlagSwitch" << row->uuid());
  return row;
}

void VlanToVniSm::reconcileSwitch(const Fleet::SystemId& systemId) {
  const Kiln::String mac = sysidToMac(systemId);
  const Kiln::String name = systemId.stringValue();
  VGW_TRACE(5, "VlanToVniSm::handleSwitch(" << name << ")");
  const auto vtepStatusDir = vtepStatusAggregate_->entityPtr<const OverlaySvc::VtepStatusDirV2>(name);
  const Kiln::String vtepKey = vtepStatusDir ? getVtepKey(vtepStatusDir.get(), false) : Kiln::String();
  const auto vtepConfigDir = dynVtepConfig_->entityPtr<OverlaySvc::VtepConfigDirV2>(name);
  const Kiln::Ptr<FabricMapV3::Host> host = topoStatus_->host(mac);

  bool rowFound = false;
  bool mlagConfirmed = false;
  if (vtepStatusDir && !vtepKey.empty() && vtepConfigDir && host && !host->hostname().empty()) {
    VGW_TRACE(6, "All mounts ready, hostname is " << host->hostname());
    for (const auto& [vtep, status] : vtepStatusDir->vtepStatus()) {
      if (vtepConfigDir->vtepConfig(vtep)) continue;
      VGW_TRACE(6, "add vtepConfig (" << vtep << ")");
      vtepConfigDir->vtepConfigIs(vtep);
    }
    const Kiln::Ptr<PhysicalSwitch> row = ovsdb_->physicalSwitch(host->hostname());
    if (row && !row->systemId().empty()) {
      rowFound = true;
      switchSmIs(switchSm_, false, systemId, row, vtepStatusDir, vtepConfigDir, vtepKey);
      physicalSwitchRef_[host->hostname()] = row;
    }
    if (const Kiln::Ptr<const PhysicalSwitch> mlagRow = mlagSwitchRow(systemId, mac)) {
      mlagConfirmed = true;
      switchSmIs(mlagSwitchSm_, true, systemId, mlagRow, vtepStatusDir, vtepConfigDir,
                 getVtepKey(vtepStatusDir.get(), true));
    }
    for (const Kiln::String& vtep : Kiln::keysToDrop(vtepConfigDir->vtepConfig(), [&](const Kiln::String& n) {
           return vtepStatusDir->vtepStatus(n) != nullptr;
         })) {
      VGW_TRACE(6, "del vtepConfig (" << vtep << ")");
      vtepConfigDir->vtepConfigDel(vtep);
    }
  } else {
    VGW_TRACE(6, "Some mounts missing: status is " << vtepStatusDir.get() << ", config is " << vtepConfigDir.get()
                                                   << ", host is " << host.get()
                                                   << ", statusReady is " << !vtepKey.empty());
  }
  if (!rowFound) {
    if (const Kiln::Ptr<PhysicalSwitchSm> sm = takeOut(switchSm_, systemId)) {
      VGW_TRACE(6, "SwitchFound: " << systemId);
      sm->destroy();
    }
  }
  if (!mlagConfirmed) {
    if (const Kiln::Ptr<PhysicalSwitchSm> sm = takeOut(mlagSwitchSm_, systemId)) {
      VGW_TRACE(6, "MlagSwitchFound: " << systemId);
      sm->destroy();
    }
  }
  if (!switchSm(systemId) && !mlagSwitchSm(systemId) && vtepConfigDir) vtepConfigDir->vtepConfigDelAll();
  VGW_TRACE(5, " return");
}

void VlanToVniSm::handleSwitch() {
  physicalSwitchRef_.clear();
  for (const auto& [name, row] : ovsdb_->physicalSwitch()) handleOvsdbSwitch(name);
  const auto lost = [&](const Fleet::SystemId& id) { return topoStatus_->host(sysidToMac(id)) != nullptr; };
  for (const Fleet::SystemId& id : Kiln::keysToDrop(switchSm_, lost)) {
    VGW_TRACE(6, "Switch not found in topology");
    takeOut(switchSm_, id)->destroy();
    handleSwitch(id);
  }
  for (const Fleet::SystemId& id : Kiln::keysToDrop(mlagSwitchSm_, lost)) {
    VGW_TRACE(6, "switch not found in topology");
    takeOut(mlagSwitchSm_, id)->destroy();
    handleSwitch(id);
  }
}

void VlanToVniSm::handleOvsdbSwitch(const Kiln::String& name) {
  if (!initialized_) return;
  Kiln::Ptr<const PhysicalSwitch> row = ovsdb_->physicalSwitch(name);
  if (!row) {
    VGW_TRACE(6, "Looking for old physical switch");
    const auto found = physicalSwitchRef_.find(name);
    if (found == physicalSwitchRef_.end()) {
      VGW_TRACE(6, " return old physical switch NULL");
      return;
    }
    row = std::move(found->second);
    physicalSwitchRef_.erase(found);
  }
  // Copied: reconciling may change the row's ids.
  const std::set<Fleet::SystemId> ids = row->systemId();
  for (const Fleet::SystemId& id : ids) handleSwitch(id);
}

void VlanToVniSm::handleTopoSwitch(const Kiln::String& name) { handleSwitch(macToSysid(name)); }

void VlanToVniSm::handleTopoHost(const Kiln::String& name) {
  const Kiln::Ptr<FabricMapV3::Host> host = topoStatus_->host(name);
  if (host) {
    auto& instance = topoStatusInstance_[name];
    if (!instance) instance = std::make_unique<KilnTopoStatusInstance>(this, name);
    instance->notifierIs(host);
  } else {
    topoStatusInstance_.erase(name);
  }
  handleTopoSwitch(name);
}

void VlanToVniSm::handleTopoMlagHost(const Ipkit::EthAddr& systemId) {
  // A pair that forms, changes or breaks moves its members' MLAG roles.
  const Kiln::Ptr<FabricMapV3::MlagHost> mlagHost = topoStatus_->mlagHost(systemId);
  if (!mlagHost) {
    handleSwitch();
    return;
  }
  for (const auto& [peer, entry] : mlagHost->peer()) handleTopoSwitch(peer);
}

void VlanToVniSm::handleVxlanSwitch(const Kiln::Name& name) {
  if (!initialized_) return;
  const std::optional<Fleet::SystemId> systemId = Fleet::SystemId::tryParse(name);
  if (!systemId) {
    VGW_TRACE(0, "VTEP directory entry " << name << " does not name a switch; ignored");
    return;
  }
  const auto statusDir = vtepStatusAggregate_->entityPtr<const OverlaySvc::VtepStatusDirV2>(name);
  const auto configDir = dynVtepConfig_->entityPtr<const OverlaySvc::VtepConfigDirV2>(name);
  if (statusDir && configDir) {
    const auto found = vtepStatusDirSm_.find(*systemId);
    if (found == vtepStatusDirSm_.end() || found->second->vtepStatusDir() != statusDir ||
        found->second->vtepConfigDir() != configDir) {
      vtepStatusDirSm_[*systemId] = Kiln::newPtr<VlanToVni::VtepStatusDirSm>(*systemId, statusDir, configDir, this);
    }
  } else {
    vtepStatusDirSm_.erase(*systemId);
  }
  handleSwitch(*systemId);
}

void VlanToVniSm::handleVxlanSwitch() {
  std::set<Kiln::Name> names;
  for (const auto& [name, entry] : vtepStatusAggregate_->entityPtr()) names.insert(name);
  for (const auto& [name, entry] : dynVtepConfig_->entityPtr()) names.insert(name);
  for (const Kiln::Name& name : names) handleVxlanSwitch(name);
}

void VlanToVniSm::handleLocalSwitch(const Fleet::SystemId& key) {
  if (!initialized_) return;
  // The row of a switch gains its fabric identities when the transaction
  // that wrote it is answered, after the monitor has already shown the row.
  const Kiln::Ptr<PhysicalSwitch> row = localData_->physicalSwitch(key);
  if (!row) {
    handleSwitch(key);
    return;
  }
  const std::set<Fleet::SystemId> ids = row->systemId();
  for (const Fleet::SystemId& id : ids) handleSwitch(id);
}

void VlanToVniSm::handleMonitorUpdateComplete() {
  if (!initialized_ || !localData_->monitorUpdateComplete()) return;
  VGW_TRACE(5, "VlanToVniSm::handleMonitorUpdateComplete");
  for (const SwitchSmMap* map : {&switchSm_, &mlagSwitchSm_}) {
    for (const auto& [id, sm] : *map) {
      // Ports whose rows came later in the message than their switch's.
      sm->handlePhysicalPort();
      sm->handleDeferred();
      for (const auto& [uuid, logicalSwitch] : ovsdb_->logicalSwitch()) sm->refreshBindings(uuid);
    }
  }
}

void VlanToVniSm::handleDirtyTransitVni() {
  if (localData_->transitVniDirty()) triggerClock();
}

void VlanToVniSm::triggerClock() {
  if (initialized_) clock_.timeMinIs(Kiln::System::currentTime());
}

void VlanToVniSm::handleClock() {
  clock_.timeMinIs(Kiln::plusInfinity);
  if (!initialized_) return;
  if (!localData_->transitVniDirty()) {
    VGW_TRACE(6, " return clean transit Vni");
    return;
  }
  for (const auto& [id, sm] : switchSm_) sm->handleTransitVni();
  localData_->transitVniDirtyIs(false);
}

bool VlanToVniSm::vtepConfigObsolete(const Kiln::Name& name, const OverlaySvc::VtepConfigDirV2& vtepConfigDir) const {
  VGW_TRACE(6, "Config: " << name << " VtepConfigs: " << vtepConfigDir.vtepConfig().size());
  if (vtepConfigDir.vtepConfig().empty()) {
    VGW_TRACE(6, " return true");
    return true;
  }
  const auto statusDir = vtepStatusAggregate_->entityPtr<const OverlaySvc::VtepStatusDirV2>(name);
  VGW_TRACE(6, "Status dir: " << statusDir.get() << " VtepStatus: " << (statusDir ? statusDir->vtepStatus().size() : 0));
  if (!statusDir || statusDir->vtepStatus().empty()) {
    VGW_TRACE(6, " return true");
    return true;
  }
  const Kiln::Ptr<FabricMapV3::Host> host = topoStatus_->host(sysidToMac(std::string_view(name)));
  VGW_TRACE(6, "Host: " << host.get() << " HostName: " << (host ? host->hostname() : Kiln::String()));
  if (!host || host->hostname().empty() || !ovsdb_->physicalSwitch(host->hostname())) {
    VGW_TRACE(6, " return true");
    return true;
  }
  VGW_TRACE(6, " return false");
  return false;
}

void VlanToVniSm::syncVtepConfig(const Kiln::Name& name, OverlaySvc::VtepConfigDirV2& vtepConfigDir) {
  VGW_TRACE(6, "Syncing VTEP " << name);
  if (vtepConfigObsolete(name, vtepConfigDir)) {
    for (const auto& [key, config] : std::map(vtepConfigDir.vtepConfig())) {
      VGW_TRACE(6, "VTEP config is obsolete, deleting.");
      vtepConfigDir.vtepConfigDel(key);
    }
    return;
  }
  const Kiln::String mac = sysidToMac(std::string_view(name));
  const Kiln::Ptr<FabricMapV3::Host> host = topoStatus_->host(mac);
  std::vector<Kiln::Ptr<const PhysicalSwitch>> rows{ovsdb_->physicalSwitch(host->hostname())};
  if (const std::optional<Fleet::SystemId> id = Fleet::SystemId::tryParse(name)) {
    if (const Kiln::Ptr<const PhysicalSwitch> mlagRow = mlagSwitchRow(*id, mac)) rows.push_back(mlagRow);
  }
  std::map<Kiln::String, Uuid> ports;
  for (const Kiln::Ptr<const PhysicalSwitch>& row : rows) {
    for (const Uuid& uuid : row->port()) {
      const Kiln::Ptr<PhysicalPort> port = ovsdb_->physicalPort(uuid);
      if (!port) continue;
      VGW_TRACE(6, "Switch " << row->displayName() << " Port " << port->displayName());
      ports.emplace(port->displayName(), uuid);
    }
  }
  for (const auto& [key, config] : vtepConfigDir.vtepConfig()) {
    std::vector<OverlaySvc::PortVlanPairV2> stale;
    for (const auto& [pair, vni] : config->vlanToVniMap()) {
      VGW_TRACE(6, "Checking VLAN " << pair.vlanId() << " on port " << pair.port());
      const auto found = ports.find(pair.port());
      if (found == ports.end()) {
        VGW_TRACE(6, "Port missing, deleting configuration.");
        stale.push_back(pair);
        continue;
      }
      const Kiln::Ptr<PhysicalPort> port = ovsdb_->physicalPort(found->second);
      if (!port || port->vlanBinding(pair.vlanId()).isNull()) {
        VGW_TRACE(6, "Map missing from OVSDB, deleting configuration.");
        stale.push_back(pair);
      }
    }
    for (const OverlaySvc::PortVlanPairV2& pair : stale) config->vlanToVniMapDel(pair);
  }
}

void VlanToVniSm::handleOvsdbSync() {
  if (!initialized_ || !localData_->ovsdbSynchronized()) return;
  VGW_TRACE(5, "VlanToVniSm::handleOvsdbSync");
  for (const auto& [name, entry] : dynVtepConfig_->entityPtr()) {
    if (const auto config = Kiln::dynamicPtrCast<OverlaySvc::VtepConfigDirV2>(entry)) syncVtepConfig(name, *config);
  }
  handleVxlanSwitch();
  handleSwitch();
  VGW_TRACE(5, " return");
}

void VlanToVniSm::destroy() {
  VGW_TRACE(5, "VlanToVniSm::destroy");
  while (!switchSm_.empty()) takeOut(switchSm_, switchSm_.begin()->first)->destroy();
  while (!mlagSwitchSm_.empty()) takeOut(mlagSwitchSm_, mlagSwitchSm_.begin()->first)->destroy();
  vtepStatusDirSm_.clear();
  for (const auto& [name, entry] : dynVtepConfig_->entityPtr()) {
    if (const auto config = Kiln::dynamicPtrCast<OverlaySvc::VtepConfigDirV2>(entry)) config->vtepConfigDelAll();
  }
  clock_.timeMinIs(Kiln::plusInfinity);
  initialized_ = false;
  VGW_TRACE(5, " return");
}

Kiln::Ptr<VlanToVniSm> vlanToVniSmFactory(Kiln::Ptr<const HwVtepOvsdb> ovsdb, Kiln::Ptr<const CliConfig> cliConfig,
                                          Kiln::Ptr<const FabricMapV3::Status> topoStatus,
                                          Kiln::Ptr<const Kiln::Dir> vtepStatusAggregate,
                                          Kiln::Ptr<Kiln::Dir> dynVtepConfig) {
  return Kiln::newPtr<VlanToVniSm>(std::move(ovsdb), std::move(cliConfig), std::move(topoStatus),
                                   std::move(vtepStatusAggregate), std::move(dynVtepConfig));
}

}  // namespace Vgw
