// The physical model: a switch's rows, its VTEPs, its port errors and its
// ARP sources.
//
// A refresh builds a partial row with every attribute invalid and turns on
// only what differs from the mirror, so the update carries the changed
// columns alone and an unchanged switch sends nothing. The mirror holds the
// agent's own writes as soon as a transaction returns (transactions are
// blocking), which is what makes the comparison safe to repeat.
#include "Vgw/PhysicalModelSm.h"

#include <sstream>
#include <utility>
#include <vector>

#include "Kiln/System.h"
#include "RingTape/RingTape.h"
#include "Vgw/ErrorReportSm.h"
#include "Vgw/InventorySm.h"
#include "Vgw/VgwUtils.h"

RINGTAPE_HANDLE("VgwPhysicalModel");

namespace Vgw {

namespace {

constexpr const char* invalidVlanMap = "invalid_vlan_map";

template <class Container>
std::string listText(const Container& members) {
  std::ostringstream text;
  text << '[';
  const char* separator = "";
  for (const auto& member : members) {
    text << separator << member;
    separator = ", ";
  }
  text << ']';
  return text.str();
}

Kiln::Ptr<OvsdbTransactRequest> transactionOn(const Kiln::Ptr<HwVtepOvsdb>& ovsdb) {
  auto transact = Kiln::newPtr<OvsdbTransactRequest>();
  transact->ovsdbIs(ovsdb);
  return transact;
}

// Removes the entry of `name` from `machines` and returns it; null when absent.
template <class Sm>
Kiln::Ptr<Sm> takeOut(std::map<Kiln::String, Kiln::Ptr<Sm>>& machines, const Kiln::String& name) {
  const auto found = machines.find(name);
  if (found == machines.end()) return nullptr;
  Kiln::Ptr<Sm> sm = std::move(found->second);
  machines.erase(found);
  return sm;
}

template <class Sm>
Kiln::Ptr<Sm> entryOf(const std::map<Kiln::String, Kiln::Ptr<Sm>>& machines, const Kiln::String& name) {
  const auto found = machines.find(name);
  return found == machines.end() ? nullptr : found->second;
}

}  // namespace

// ---- interface names and addresses ---------------------------------------------------

bool vtepUp(const OverlaySvc::VtepStatusV2* vtepStatus) {
  const bool up =
      vtepStatus && vtepStatus->linkStatus() == OverlaySvc::VtepLinkStatus::linkUp && !vtepStatus->vtepAddr().isAny();
  VGW_TRACE(7, "vtepUp " << (vtepStatus ? vtepStatus->name() : Kiln::String()) << ": " << up);
  return up;
}

bool mlagStateValid(const FabricMapV3::Host& host) {
  return host.mlagState() == Mlag::MlagState::disabled || host.mlagState() == Mlag::MlagState::active;
}

std::set<Ipkit::IpGenAddr> getMgmtIps(const PhysicalSwitchSm& sm) { return sm.topoStatusHost()->mgmtIp(); }

std::set<Ipkit::IpGenAddr> getTunnelIps(const PhysicalSwitchSm& sm) {
  std::set<Ipkit::IpGenAddr> ips;
  for (const auto& [name, vtep] : sm.vtepStatusSm()) {
    if (vtepUp(vtep->vtepStatus().get())) ips.insert(Ipkit::IpGenAddr(vtep->vtepStatus()->vtepAddr()));
  }
  return ips;
}

Kiln::Ptr<PhysicalPort> getPhysicalPort(const HwVtepOvsdb& ovsdb, const Kiln::String& switchName,
                                        std::string_view portName) {
  if (const Kiln::Ptr<PhysicalSwitch> pSwitch = ovsdb.physicalSwitch(switchName)) {
    for (const Uuid& uuid : pSwitch->port()) {
      const Kiln::Ptr<PhysicalPort> port = ovsdb.physicalPort(uuid);
      if (port && port->displayName().stringValue() == portName) {
        VGW_TRACE(7, "getPhysicalPort(" << switchName << ", " << portName << ") found");
        return port;
      }
    }
  }
  VGW_TRACE(7, "getPhysicalPort(" << switchName << ", " << portName << ") not found");
  return nullptr;
}

Kiln::Ptr<PhysicalPort> createPhysicalPort(const Kiln::String& displayName, bool hasError) {
  auto port = Kiln::newPtr<PhysicalPort>(genNamedUuid());
  port->displayNameIs(displayName);
  port->descIs(Kiln::String());
  if (hasError) port->faultIs(invalidVlanMap, true);
  VGW_TRACE(7, "createPhysicalPort DisplayName: " << displayName << " Desc: " << port->desc()
                                                  << " Faults: " << listText(port->fault()));
  return port;
}

// ---- VtepStatusSm ------------------------------------------------------------------------

VtepStatusSm::VtepStatusSm(Kiln::Ptr<const OverlaySvc::VtepStatusV2> vtepStatus,
                           Kiln::Ptr<const FabricMapV3::Host> topoStatusHost, PhysicalSwitchSm* parent)
    : vtepStatus_(std::move(vtepStatus)),
      topoStatusHost_(std::move(topoStatusHost)),
      parent_(parent),
      localData_(Kiln::Entity::singletonIs<LocalData>()),
      kilnVtepStatus_(this),
      kilnTopoStatusHost_(this) {
  kilnVtepStatus_.notifierIs(vtepStatus_);
  kilnTopoStatusHost_.notifierIs(topoStatusHost_);
  handleInitialized();
}

void VtepStatusSm::handleInitialized() {
  VGW_TRACE(5, "PhysicalSwitchSm(" << parent_->displayName() << ")::VtepStatusSm(" << name() << ")::handleInitialized");
  initialized_ = true;
  // A new VTEP always makes its switch recompute.
  handleLinkStatus();
  handleVtepAddr();
}

void VtepStatusSm::handleLinkStatus() {
  if (!initialized_) return;
  VGW_TRACE(6, "PhysicalSwitchSm(" << parent_->displayName() << ")::VtepStatusSm(" << name() << ")::handleLinkStatus "
                                   << vtepStatus_->linkStatus());
  parent_->switchDirtyIs(true);
}

void VtepStatusSm::handleVtepAddr() {
  if (!initialized_) return;
  VGW_TRACE(6, "PhysicalSwitchSm(" << parent_->displayName() << ")::VtepStatusSm(" << name() << ")::handleVtepAddr "
                                   << vtepStatus_->vtepAddr());
  localData_->tunnelDirtyIs(true);
  parent_->switchDirtyIs(true);
}

void VtepStatusSm::handleBfdSupported() { localData_->tunnelDirtyIs(true); }
void VtepStatusSm::handleBfdLocalMac() { localData_->tunnelDirtyIs(true); }
void VtepStatusSm::handleBfdPeerStatus(const Ipkit::IpAddr&) { localData_->tunnelDirtyIs(true); }
void VtepStatusSm::handleMlagState() { localData_->tunnelDirtyIs(true); }

void VtepStatusSm::destroy() {
  VGW_TRACE(5, "PhysicalSwitchSm(" << parent_->displayName() << ")::VtepStatusSm(" << name() << ")::destroy");
  initialized_ = false;
  parent_->switchDirtyIs(true);
  localData_->tunnelDirtyIs(true);
}

// ---- PortErrorSm ---------------------------------------------------------------------------

PortErrorSm::PortErrorSm(Kiln::Ptr<const OverlaySvc::PortErrorV2> portError, PhysicalSwitchSm* parent)
    : portError_(std::move(portError)),
      parent_(parent),
      localData_(Kiln::Entity::singletonIs<LocalData>()),
      kilnPortError_(this) {
  kilnPortError_.notifierIs(portError_);
  handleInitialized();
}

void PortErrorSm::handleInitialized() {
  initialized_ = true;
  handleVlanVniError();
}

void PortErrorSm::handleVlanVniError() {
  for (const auto& [vlan, vni] : portError_->vlanVniError()) handleVlanVniError(vlan);
}

void PortErrorSm::handleVlanVniError(const Bridging::VlanId& vlan) {
  if (!initialized_) return;
  parent_->switchDirtyIs(true);
  const Vxlan::VniOrNone vni = portError_->vlanVniError(vlan);
  // An MLAG interface's errors belong to the pair's row.
  const MlagSwitchSmInterface* mlag = parent_->mlagSwitchSm();
  const Kiln::String& switchName = mlag && isMlag(portName()) ? mlag->displayName() : parent_->displayName();
  VGW_TRACE(
      6, "PortErrorSm(" << switchName << ", " << portName() << ")::handleVlanVniError vlan " << vlan << " vni " << vni);
  if (vni.isValid()) Kiln::log(KXT_VGW_INVALID_VLAN_MAP, switchName, portName(), vlan, vni);
}

void PortErrorSm::destroy() {
  initialized_ = false;
  parent_->switchDirtyIs(true);
}

// ---- ArpSourceLocalSm ----------------------------------------------------------------------

ArpSourceLocalSm::ArpSourceLocalSm(const Fleet::SystemId& systemId,
                                   Kiln::Ptr<const OverlaySvc::VtepStatusV2> vtepStatus,
                                   Kiln::Ptr<const FabricMapV3::Host> topoStatusHost, Kiln::Ptr<HwVtepOvsdb> ovsdb,
                                   Kiln::Ptr<OvsdbRequestQueue> requestQueue)
    : systemId_(systemId),
      vtepStatus_(std::move(vtepStatus)),
      topoStatusHost_(std::move(topoStatusHost)),
      ovsdb_(std::move(ovsdb)),
      requestQueue_(std::move(requestQueue)),
      kilnVtepStatus_(this),
      kilnTopoStatusHost_(this) {
  kilnVtepStatus_.notifierIs(vtepStatus_);
  kilnTopoStatusHost_.notifierIs(topoStatusHost_);
  handleInitialized();
}

void ArpSourceLocalSm::handleInitialized() {
  initialized_ = true;
  updateArpSourcesLocal();
}

Kiln::Ptr<OvsdbTransactRequest> ArpSourceLocalSm::newTransaction() const { return transactionOn(ovsdb_); }

void ArpSourceLocalSm::updateArpSourcesLocal() {
  VGW_TRACE(5, "ArpSourceLocalSm(" << systemId_ << ", " << name() << ")::updateArpSourcesLocal");
  const Ipkit::EthAddr srcMac = vtepStatus_->vtepLocalMac();
  // An unknown MAC says nothing about the row: it stays as it is.
  if (srcMac.isZero()) {
    VGW_TRACE(5, "ArpSourceLocalSm::updateArpSourcesLocal() return srcMac is ethAddrZero");
    return;
  }
  const Ipkit::IpAddr vtepIp = vtepStatus_->vtepAddr();
  const Kiln::Ptr<OvsdbTransactRequest> transact = newTransaction();
  const Kiln::Ptr<ArpSourcesLocal> existing = ovsdb_->arpSourcesLocal(srcMac);

  if (vtepIp.isAny() || !mlagStateValid(*topoStatusHost_)) {
    if (existing) {
      VGW_TRACE(6, " Deleting invalid ArpSourcesLocal entry: " << vtepLocalMac_);
      transact->opEnq(buildDelete(existing->uuid(), OvsdbDataType::arpSourcesLocal));
    }
    if (transact->opCount()) requestQueue_->requestEnq(transact);
    VGW_TRACE(5, "ArpSourceLocalSm::updateArpSourcesLocal return invalid");
    return;
  }

  const Kiln::Ptr<const PhysicalLocator> locator = getPhysicalLocator(*ovsdb_, Ipkit::IpGenAddr(vtepIp), *transact);
  VGW_TRACE(6, " Physical Locator: " << locator->uuid() << " srcMac: " << srcMac);
  auto row = Kiln::newPtr<ArpSourcesLocal>(genNamedUuid());
  row->srcMacIs(srcMac);
  row->locatorIs(locator->uuid());
  if (!existing) {
    VGW_TRACE(6, " Inserting a new ArpSourcesLocal entry");
    transact->opEnq(buildInsert(row));
  } else if (row->isEqualTo(*existing)) {
    // The locator insert that getPhysicalLocator may have added goes with the transaction.
    VGW_TRACE(5, "ArpSourceLocalSm::updateArpSourcesLocal() return Nop");
    return;
  } else {
    const Kiln::Ptr<PhysicalLocator> oldLocator = ovsdb_->physicalLocatorRaw(existing->locator());
    VGW_TRACE(6, " Updating ArpSrcLocal. Old Entry[ srcMac: "
                     << existing->srcMac() << ", vtepIp: "
                     << (oldLocator ? oldLocator->key().dstIp().stringValue() : Kiln::String("<unknown>"))
                     << " ] New Entry[ srcMac: " << srcMac << ", vtepIp: " << vtepIp);
    transact->opEnq(buildUpdate(existing->uuid(), row));
  }
  // The MAC moved: the row of the old one goes in the same transaction.
  if (!vtepLocalMac_.isZero() && vtepLocalMac_ != srcMac) {
    if (const Kiln::Ptr<ArpSourcesLocal> stale = ovsdb_->arpSourcesLocal(vtepLocalMac_)) {
      VGW_TRACE(6, " Deleting stale ArpSourcesLocal entry: " << vtepLocalMac_);
      transact->opEnq(buildDelete(stale->uuid(), OvsdbDataType::arpSourcesLocal));
    }
  }
  vtepLocalMac_ = srcMac;
  // The VTEP's own MAC must not also stand as a local host.
  for (const auto& [vni, table] : Kiln::Entity::singletonIs<LocalData>()->ucastMacsLocalTable()) {
    if (const Kiln::Ptr<UcastMacsLocal> host = table->ucastMacsLocal(srcMac)) {
      VGW_TRACE(6, " Deleting UcastMacsLocal entry for MAC: " << srcMac);
      const Kiln::Ptr<OpDeleteRequest> op = buildDelete(host->uuid(), OvsdbDataType::ucastMacsLocal);
      op->ovsdbDataModelIs(host);
      transact->opEnq(op);
    }
  }
  if (transact->opCount()) requestQueue_->requestEnq(transact);
  VGW_TRACE(5, "ArpSourceLocalSm::updateArpSourcesLocal return");
}

void ArpSourceLocalSm::destroy() {
  VGW_TRACE(5, "ArpSourceLocalSm(" << systemId_ << ", " << name() << ")::destroy");
  initialized_ = false;
  const Ipkit::EthAddr srcMac = vtepStatus_->vtepLocalMac();
  if (srcMac.isZero()) return;
  if (const Kiln::Ptr<ArpSourcesLocal> row = ovsdb_->arpSourcesLocal(srcMac)) {
    VGW_TRACE(6, " Deleting MAC entry: " << srcMac);
    const Kiln::Ptr<OvsdbTransactRequest> transact = newTransaction();
    transact->opEnq(buildDelete(row->uuid(), OvsdbDataType::arpSourcesLocal));
    requestQueue_->requestEnq(transact);
  }
}

// ---- PhysicalSwitchSm ----------------------------------------------------------------------

PhysicalSwitchSm::PhysicalSwitchSm(const Fleet::SystemId& systemId, const Kiln::String& displayName,
                                   Kiln::Ptr<const FabricMapV3::Host> topoStatusHost,
                                   Kiln::Ptr<const OverlaySvc::VtepStatusDirV2> vtepStatusDir,
                                   Kiln::Ptr<const OverlaySvc::ErrorStatusV2> errorStatus, Kiln::Ptr<HwVtepOvsdb> ovsdb,
                                   Kiln::Ptr<OvsdbRequestQueue> requestQueue)
    : systemId_(systemId),
      displayName_(displayName),
      topoStatusHost_(std::move(topoStatusHost)),
      vtepStatusDir_(std::move(vtepStatusDir)),
      errorStatus_(std::move(errorStatus)),
      ovsdb_(std::move(ovsdb)),
      requestQueue_(std::move(requestQueue)),
      localData_(Kiln::Entity::singletonIs<LocalData>()),
      clock_(this),
      kilnTopoStatusHost_(this),
      kilnVtepStatusDir_(this),
      kilnErrorStatus_(this) {
  kilnTopoStatusHost_.notifierIs(topoStatusHost_);
  kilnVtepStatusDir_.notifierIs(vtepStatusDir_);
  kilnErrorStatus_.notifierIs(errorStatus_);
  handleInitialized();
}

Kiln::Ptr<PhysicalSwitch> PhysicalSwitchSm::physicalSwitch() const { return ovsdb_->physicalSwitch(displayName_); }

void PhysicalSwitchSm::handleInitialized() {
  VGW_TRACE(5, "PhysicalSwitchSm(" << displayName_ << ")::handleInitialized");
  clock_.notifierIs(Kiln::EventLoop::current().clock());
  clock_.timeMinIs(Kiln::plusInfinity);
  initialized_ = true;
  handleVtepStatus();
  // Errors standing at creation are followed (and logged) like later ones:
  // otherwise a change to such an entry would never reach the port's fault.
  handlePortError();
  VGW_TRACE(5, "PhysicalSwitchSm(" << displayName_ << ")::handleInitialized return");
}

void PhysicalSwitchSm::switchDirtyIs(bool dirty) {
  if (switchDirty_ == dirty) return;
  switchDirty_ = dirty;
  handleDirtySwitch();
}

void PhysicalSwitchSm::handleDirtySwitch() {
  clock_.timeMinIs(switchDirty_ ? Kiln::System::currentTime() + coalesceInterval_ : Kiln::plusInfinity);
}

void PhysicalSwitchSm::handleLogicalPort(const Kiln::String& name) {
  if (!initialized_) return;
  VGW_TRACE(6, "PhysicalSwitchSm(" << displayName_ << ")::handleLogicalPort " << name);
  switchDirtyIs(true);
}

void PhysicalSwitchSm::handleMgmtIp(const Ipkit::IpGenAddr& ip) {
  if (!initialized_) return;
  VGW_TRACE(6, "PhysicalSwitchSm(" << displayName_ << ")::handleMgmtIp " << ip);
  switchDirtyIs(true);
}

void PhysicalSwitchSm::handleMlagPeerLink() {
  if (!initialized_) return;
  VGW_TRACE(6, "PhysicalSwitchSm(" << displayName_ << ")::handleMlagPeerLink");
  switchDirtyIs(true);
}

void PhysicalSwitchSm::handleVtepStatus() {
  VGW_TRACE(5, "PhysicalSwitchSm(" << displayName_ << ")::handleVtepStatus");
  for (const auto& [name, vtepStatus] : vtepStatusDir_->vtepStatus()) handleVtepStatus(name);
}

void PhysicalSwitchSm::handleVtepStatus(const Kiln::String& name) {
  if (!initialized_) return;
  const Kiln::Ptr<const OverlaySvc::VtepStatusV2> vtepStatus = vtepStatusDir_->vtepStatus(name);
  if (!vtepStatus) {
    VGW_TRACE(6, "PhysicalSwitchSm(" << displayName_ << ") VTEP gone: " << name);
    if (const Kiln::Ptr<VtepStatusSm> vtep = takeOut(vtepStatusSm_, name)) vtep->destroy();
    if (const Kiln::Ptr<ArpSourceLocalSm> arp = takeOut(arpSourceLocalSm_, name)) arp->destroy();
    return;
  }
  const Kiln::Ptr<VtepStatusSm> vtep = entryOf(vtepStatusSm_, name);
  if (!vtep || vtep->vtepStatus() != vtepStatus || vtep->topoStatusHost() != topoStatusHost_) {
    if (vtep) vtep->destroy();
    vtepStatusSm_[name] = Kiln::newPtr<VtepStatusSm>(vtepStatus, topoStatusHost_, this);
  }
  const Kiln::Ptr<ArpSourceLocalSm> arp = entryOf(arpSourceLocalSm_, name);
  if (!arp || arp->vtepStatus() != vtepStatus || arp->topoStatusHost() != topoStatusHost_ || arp->ovsdb() != ovsdb_ ||
      arp->requestQueue() != requestQueue_) {
    if (arp) arp->destroy();
    arpSourceLocalSm_[name] =
        Kiln::newPtr<ArpSourceLocalSm>(systemId_, vtepStatus, topoStatusHost_, ovsdb_, requestQueue_);
  }
}

void PhysicalSwitchSm::handlePortError() {
  for (const auto& [name, portError] : errorStatus_->portError()) handlePortError(name);
}

void PhysicalSwitchSm::handlePortError(const Kiln::String& name) {
  if (!initialized_) return;
  const Kiln::Ptr<const OverlaySvc::PortErrorV2> portError = errorStatus_->portError(name);
  if (!portError) {
    if (const Kiln::Ptr<PortErrorSm> sm = takeOut(portErrorSm_, name)) sm->destroy();
    return;
  }
  const Kiln::Ptr<PortErrorSm> existing = entryOf(portErrorSm_, name);
  if (existing && existing->portError() == portError) return;
  if (existing) existing->destroy();
  portErrorSm_[name] = Kiln::newPtr<PortErrorSm>(portError, this);
}

std::map<Kiln::String, bool> PhysicalSwitchSm::wantedPorts() const {
  std::map<Kiln::String, bool> ports;
  for (const auto& [name, port] : topoStatusHost_->logicalPort()) {
    if (name == topoStatusHost_->mlagPeerLink()) continue;
    if (!isEthernetPort(name) && !isPortChannel(name)) {
      VGW_TRACE(7, "Not a database port: " << name);
      continue;
    }
    const Kiln::Ptr<const OverlaySvc::PortErrorV2> portError = errorStatus_->portError(name);
    ports.emplace(name, portError && !portError->vlanVniError().empty());
  }
  return ports;
}

Kiln::Ptr<PhysicalSwitch> PhysicalSwitchSm::createPhysicalSwitch(OvsdbTransactRequest& transact) const {
  auto value = Kiln::newPtr<PhysicalSwitch>(genNamedUuid());
  value->displayNameIs(displayName_);
  value->descIs(Kiln::String());
  for (const Ipkit::IpGenAddr& ip : getMgmtIps(*this)) value->mgmtIpIs(ip);
  for (const Ipkit::IpGenAddr& ip : getTunnelIps(*this)) value->tunnelIpIs(ip);
  std::vector<Kiln::String> names;
  for (const auto& [name, hasError] : wantedPorts()) {
    const Kiln::Ptr<PhysicalPort> port = createPhysicalPort(name, hasError);
    transact.opEnq(buildInsert(port));
    value->portIs(port->uuid());
    names.push_back(name);
  }
  value->systemIdIs(systemId_);
  VGW_TRACE(6, " DisplayName: " << value->displayName() << " Desc: " << value->desc() << " MgmtIps: "
                                << listText(value->mgmtIp()) << " TunnelIps: " << listText(value->tunnelIp())
                                << " Ports: " << listText(names) << " SystemId: " << systemId_);
  return value;
}

bool PhysicalSwitchSm::updateDisplayName(const PhysicalSwitch& old, PhysicalSwitch& value) const {
  if (old.displayName() == displayName_) return false;
  VGW_TRACE(6, "  Update displayName: " << displayName_);
  value.displayNameIs(displayName_);
  value.invalidAttribDel("displayName");
  return true;
}

bool PhysicalSwitchSm::updateDescription(const PhysicalSwitch& old, PhysicalSwitch& value) const {
  if (old.desc().empty()) return false;
  VGW_TRACE(6, "  Update desc: " << old.desc());
  value.descIs(Kiln::String());
  value.invalidAttribDel("desc");
  return true;
}

bool PhysicalSwitchSm::updateMgmtIps(const PhysicalSwitch& old, PhysicalSwitch& value) const {
  const std::set<Ipkit::IpGenAddr> ips = getMgmtIps(*this);
  if (old.mgmtIp() == ips) return false;
  for (const Ipkit::IpGenAddr& ip : ips) value.mgmtIpIs(ip);
  VGW_TRACE(6, "Update MgmtIp: " << listText(ips));
  value.invalidAttribDel("mgmtIp");
  return true;
}

bool PhysicalSwitchSm::updateTunnelIps(const PhysicalSwitch& old, PhysicalSwitch& value) const {
  const std::set<Ipkit::IpGenAddr> ips = getTunnelIps(*this);
  if (old.tunnelIp() == ips) return false;
  for (const Ipkit::IpGenAddr& ip : ips) value.tunnelIpIs(ip);
  VGW_TRACE(6, "Update TunnelIp: " << listText(ips));
  value.invalidAttribDel("tunnelIp");
  return true;
}

bool PhysicalSwitchSm::updatePorts(const PhysicalSwitch& old, PhysicalSwitch& value,
                                   OvsdbTransactRequest& transact) const {
  // The mirror's ports of this row by name, read once for the whole pass.
  std::map<Kiln::String, Kiln::Ptr<PhysicalPort>> current;
  for (const Uuid& uuid : old.port()) {
    if (const Kiln::Ptr<PhysicalPort> port = ovsdb_->physicalPort(uuid)) current.emplace(port->displayName(), port);
  }
  bool changed = false;
  for (const auto& [name, hasError] : wantedPorts()) {
    const Kiln::Ptr<PhysicalPort> port = createPhysicalPort(name, hasError);
    // Only the columns the agent owns are compared and written: the VLAN
    // bindings are the controller's.
    port->invalidateAllAttribs();
    for (const char* attr : {"displayName", "desc", "vlanStat", "otherConfig", "fault"}) port->invalidAttribDel(attr);
    const auto found = current.find(name);
    if (found == current.end()) {
      VGW_TRACE(6, "  Add Physical Port " << name << " on " << displayName_);
      transact.opEnq(buildInsert(port));
      value.portIs(port->uuid());
      changed = true;
    } else if (port->isEqualTo(*found->second)) {
      VGW_TRACE(7, "  No-op Physical Port " << name << " on " << displayName_);
      value.portIs(found->second->uuid());
    } else {
      VGW_TRACE(6, "  Update Physical Port " << name << " on " << displayName_);
      transact.opEnq(buildUpdate(found->second->uuid(), port));
      value.portIs(found->second->uuid());
      changed = true;
    }
  }
  if (!changed && old.port().size() == value.port().size()) return false;
  if (!changed) VGW_TRACE(6, "  Remove stale Physical Port");
  value.invalidAttribDel("port");
  return true;
}

Uuid PhysicalSwitchSm::handleRefresh(OvsdbTransactRequest& transact) {
  if (!initialized_) return Uuid();
  VGW_TRACE(5, "PhysicalSwitchSm(" << displayName_ << ")::handleRefresh(transact)");
  Uuid uuid;
  if (const Kiln::Ptr<PhysicalSwitch> row = physicalSwitch()) {
    VGW_TRACE(6, " Upd Physical Switch");
    auto value = Kiln::newPtr<PhysicalSwitch>(row->uuid());
    value->invalidateAllAttribs();
    // All five run: each adds its column to the update when it differs.
    const bool nameChanged = updateDisplayName(*row, *value);
    const bool descChanged = updateDescription(*row, *value);
    const bool mgmtChanged = updateMgmtIps(*row, *value);
    const bool tunnelChanged = updateTunnelIps(*row, *value);
    const bool portsChanged = updatePorts(*row, *value, transact);
    // The fabric identity is the agent's alone; a row read from the database
    // after a restart gets it here. The update carries it too, since its
    // reply copies the value into the row.
    if (row->systemId() != std::set<Fleet::SystemId>{systemId_}) {
      row->systemIdDelAll();
      row->systemIdIs(systemId_);
    }
    value->systemIdIs(systemId_);
    if (!nameChanged && !descChanged && !mgmtChanged && !tunnelChanged && !portsChanged) {
      VGW_TRACE(6, "  No-op Upd, but update localData still");
      localData_->physicalSwitchIs(systemId_, row);
    } else {
      transact.opEnq(buildUpdate(row->uuid(), value));
    }
    uuid = row->uuid();
  } else {
    VGW_TRACE(6, " Add Physical Switch and Physical Ports");
    const Kiln::Ptr<PhysicalSwitch> value = createPhysicalSwitch(transact);
    transact.opEnq(buildInsert(value));
    uuid = value->uuid();
  }
  // The only road by which a member's change reaches its pair's row between
  // inventory refreshes.
  if (mlagSwitchSm_ && switchDirty_) mlagSwitchSm_->handleRefresh(transact);
  switchDirtyIs(false);
  VGW_TRACE(5, "PhysicalSwitchSm(" << displayName_ << ")::handleRefresh(transact) return " << uuid);
  return uuid;
}

void PhysicalSwitchSm::handleRefresh() {
  if (!initialized_) return;
  VGW_TRACE(5, "PhysicalSwitchSm(" << displayName_ << ")::handleRefresh");
  const Kiln::Ptr<OvsdbTransactRequest> transact = transactionOn(ovsdb_);
  handleRefresh(*transact);
  if (transact->opCount()) requestQueue_->requestEnq(transact);
  switchDirtyIs(false);
  VGW_TRACE(5, "PhysicalSwitchSm(" << displayName_ << ")::handleRefresh return");
}

void PhysicalSwitchSm::destroy() {
  if (!initialized_) return;
  VGW_TRACE(5, "PhysicalSwitchSm(" << displayName_ << ")::destroy");
  while (!arpSourceLocalSm_.empty()) takeOut(arpSourceLocalSm_, arpSourceLocalSm_.begin()->first)->destroy();
  if (mlagSwitchSm_) {
    VGW_TRACE(6, "Remove myself from my Mlag switch's peer");
    mlagSwitchSm_->mlagPeer()->peerSmDel(systemId_);
  }
  initialized_ = false;
  clock_.timeMinIs(Kiln::plusInfinity);
}

}  // namespace Vgw
