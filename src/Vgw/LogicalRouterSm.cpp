// Publication of the controller's logical routers as overlay-service
// configuration.
//
// An entry is always rebuilt from its row and the working data, never
// patched: each pass writes what the row says now, and the setters of the
// published entity drop values equal to those in place, so the fabric hears
// only what changed.
#include "Vgw/LogicalRouterSm.h"

#include <sstream>
#include <utility>
#include <vector>

#include "Kiln/Assert.h"
#include "RingTape/RingTape.h"

RINGTAPE_HANDLE("VgwLogicalRouter");

namespace Vgw {

namespace {

constexpr const char* configName = "vgw";

// An address behind which nothing can be reached: none, 0.0.0.0 or ::.
bool isZeroAddress(const Ipkit::IpGenAddr& ip) {
  return ip.isEmpty() || (ip.isV4() && ip.v4Addr().isAny()) || (ip.isV6() && ip.v6Addr().isUnspecified());
}

}  // namespace

// ---- LrEntrySm ---------------------------------------------------------------------

LrEntrySm::LrEntrySm(Uuid uuid, Kiln::String name, Kiln::Ptr<const LogicalRouter> logicalRouter,
                     Kiln::Ptr<const CliConfig> cliConfig, Kiln::Ptr<const HwVtepOvsdb> ovsdb,
                     Kiln::Ptr<OverlaySvc::LRConfigV2> lrConfig)
    : uuid_(uuid),
      name_(std::move(name)),
      logicalRouter_(std::move(logicalRouter)),
      ovsdb_(std::move(ovsdb)),
      lrConfig_(std::move(lrConfig)),
      localData_(Kiln::Entity::singletonIs<LocalData>()),
      kilnCliConfig_(this) {
  kilnCliConfig_.notifierIs(cliConfig);
  handleInitialized();
}

void LrEntrySm::handleInitialized() {
  VGW_TRACE(5, "LrEntrySm::handleInitialized() " << name_ << " " << uuid_);
  initialized_ = true;
  lrConfigEntry_ = lrConfig_->routerIs(name_);
  reconcileSwitchBinding();
  reconcileStaticRoute();
  handleRoutingModeType();
  VGW_TRACE(5, " return");
}

void LrEntrySm::reconcileSwitchBinding() {
  if (!initialized_) return;
  const auto bound = [&](const Ipkit::IpGenAddrWithMask& ip) { return !logicalRouter_->switchBinding(ip).isNull(); };
  for (const Ipkit::IpGenAddrWithMask& ip : Kiln::keysToDrop(lrConfigEntry_->ipPort(), bound)) {
    lrConfigEntry_->ipPortDel(ip);
    VGW_TRACE(6, "Del stale IP port: " << ip);
  }
  for (const Ipkit::IpGenAddrWithMask& ip : Kiln::keysToDrop(lrConfigEntry_->ipUplinkPort(), bound)) {
    lrConfigEntry_->ipUplinkPortDel(ip);
    VGW_TRACE(6, "Del stale IP Uplink port: " << ip);
  }
  for (const auto& [ip, logicalSwitch] : logicalRouter_->switchBinding()) reconcileSwitchBinding(ip);
}

void LrEntrySm::reconcileSwitchBinding(const Ipkit::IpGenAddrWithMask& ip) {
  if (!initialized_) return;
  const Uuid lsUuid = logicalRouter_->switchBinding(ip);
  if (lsUuid.isNull()) {
    VGW_TRACE(6, "Del switch binding: " << ip);
    // The router may have had either form.
    lrConfigEntry_->ipPortDel(ip);
    lrConfigEntry_->ipUplinkPortDel(ip);
    return;
  }
  VGW_TRACE(6, "Processing switch binding: " << ip << " <> " << lsUuid);
  // The database keeps the reference valid, but the controller's internal
  // switch is not mirrored: an interface on it has nothing to publish.
  const Kiln::Ptr<LogicalSwitch> logicalSwitch = ovsdb_->logicalSwitch(lsUuid);
  if (!logicalSwitch) {
    VGW_TRACE(6, " return logical switch " << lsUuid << " of " << ip << " not mirrored");
    return;
  }
  const Vxlan::VniOrNone vni = logicalSwitch->tunnelKey();
  const Kiln::Ptr<RemoteHostTable> remoteHostTable = localData_->remoteHostTable(lsUuid);
  KILN_ASSERT(remoteHostTable, "remoteHostTable && \"Invalid remoteHostTable\"");

  // A binding moved between an overlay and an uplink segment must not leave
  // the interface on the segment it left while the new form waits.
  if (vni.isValid() ? lrConfigEntry_->ipUplinkPortDel(ip) : lrConfigEntry_->ipPortDel(ip)) {
    VGW_TRACE(6, "Del " << (vni.isValid() ? "IP Uplink port" : "IP port") << " of another segment kind: " << ip);
  }

  const IpToMac host = remoteHostTable->ipToMac(ip.address());
  if (host == IpToMac()) {
    VGW_TRACE(5, " return Ucast Macs Remote for SVI: " << ip.address() << " not found.");
    return;
  }
  const Kiln::Ptr<PhysicalLocator> locator = ovsdb_->physicalLocatorRaw(host.physicalLocator());
  const Ipkit::IpGenAddr vtep = locator ? locator->key().dstIp() : Ipkit::IpGenAddr();
  if (vni.isValid()) {
    publishIpPort(ip, host.mac(), vni.vni(), vtep);
  } else {
    publishIpUplinkPort(ip, lsUuid, host.mac(), vtep);
  }
}

void LrEntrySm::publishIpPort(const Ipkit::IpGenAddrWithMask& ip, const Ipkit::EthAddr& mac, Vxlan::Vni vni,
                              const Ipkit::IpGenAddr& vtep) {
  const bool add = !mac.isZero() && !isZeroAddress(vtep);
  if (add) lrConfigEntry_->ipPortIs(ip, OverlaySvc::LRIpPortV2(ip, mac, vni, vtep));
  VGW_TRACE(6, (add ? "Add" : "Defer") << " IP Port:" << "\tIp: " << ip << "\tMac: " << mac << "\tVni: " << vni
                                       << "\tVtep: " << vtep);
}

void LrEntrySm::publishIpUplinkPort(const Ipkit::IpGenAddrWithMask& ip, const Uuid& logicalSwitch,
                                    const Ipkit::EthAddr& mac, const Ipkit::IpGenAddr& vtep) {
  const Kiln::Ptr<UplinkPortVlanTable> table = localData_->uplinkPortVlanTable(logicalSwitch);
  bool portsPresent = table && !table->portVlan().empty();
  OverlaySvc::LRIpUplinkPortV2 port(ip, mac, vtep);
  std::ostringstream portVlans;
  if (table) {
    for (const PortVlanPair& pair : table->portVlan()) {
      const Kiln::Ptr<PhysicalPort> row = ovsdb_->physicalPort(pair.port());
      if (!row) {
        VGW_TRACE(6, "Port " << pair.port() << " not in inventory");
        portsPresent = false;
        continue;
      }
      port.portVlanIs(OverlaySvc::PortVlanPairV2(row->displayName(), pair.vlanId()), true);
      portVlans << "(" << row->displayName() << ", " << pair.vlanId() << ")";
    }
  }
  const bool add = !mac.isZero() && !isZeroAddress(vtep) && portsPresent;
  if (add) lrConfigEntry_->ipUplinkPortIs(ip, port);
  VGW_TRACE(6, (add ? "Add" : "Defer") << " IP Uplink Port:" << "\tIp: " << ip << "\tMac: " << mac
                                       << "\tPort,Vlans: " << portVlans.str() << "\tVtep: " << vtep);
}

void LrEntrySm::reconcileStaticRoute() {
  if (!initialized_) return;
  const auto held = [&](const Ipkit::IpGenPrefix& prefix) {
    return !(logicalRouter_->staticRoute(prefix) == StaticRoute());
  };
  for (const Ipkit::IpGenPrefix& prefix : Kiln::keysToDrop(lrConfigEntry_->route(), held)) {
    lrConfigEntry_->routeDel(prefix);
    VGW_TRACE(6, "Del stale static route: " << prefix);
  }
  for (const auto& [prefix, route] : logicalRouter_->staticRoute()) reconcileStaticRoute(prefix);
}

void LrEntrySm::reconcileStaticRoute(const Ipkit::IpGenPrefix& prefix) {
  if (!initialized_) return;
  const StaticRoute route = logicalRouter_->staticRoute(prefix);
  if (route == StaticRoute()) {
    VGW_TRACE(6, "Del static route: " << prefix);
    lrConfigEntry_->routeDel(prefix);
    return;
  }
  OverlaySvc::LRRouteV2 published(prefix);
  std::ostringstream nexthops;
  for (const Ipkit::IpGenAddr& nexthop : route.nexthop()) {
    published.nexthopIs(nexthop, true);
    nexthops << " " << nexthop;
  }
  VGW_TRACE(6, "Add static route: " << prefix << " <>" << nexthops.str());
  lrConfigEntry_->routeIs(prefix, published);
}

void LrEntrySm::handleRoutingModeType() {
  if (!initialized_) return;
  const RoutingModeType mode = cliConfig()->routingModeType();
  VGW_TRACE(6, "LrEntrySm::handleRoutingModeType() " << name_ << " " << mode);
  lrConfigEntry_->createLocalIpPortsOnlyIs(mode == RoutingModeType::localIpPortsOnly);
}

void LrEntrySm::destroy() {
  VGW_TRACE(5, "LrEntrySm::destroy() " << name_ << " " << uuid_);
  if (!initialized_) return;
  lrConfig_->routerDel(name_);
  KILN_ASSERT(lrConfigEntry_, "entry && \"LRConfigEntry should exist\"");
  lrConfigEntry_ = nullptr;
  initialized_ = false;
}

// ---- LrSm --------------------------------------------------------------------------

LrSm::LrSm(Kiln::Ptr<const HwVtepOvsdb> ovsdb, Kiln::Ptr<const CliConfig> cliConfig, Kiln::Ptr<Kiln::Dir> lrConfigDir)
    : ovsdb_(std::move(ovsdb)),
      cliConfig_(std::move(cliConfig)),
      lrConfigDir_(std::move(lrConfigDir)),
      localData_(Kiln::Entity::singletonIs<LocalData>()) {
  handleInitialized();
}

LrSm::~LrSm() = default;

LrEntrySm* LrSm::lrEntrySm(const Uuid& uuid) const {
  const auto found = lrEntrySm_.find(uuid);
  return found == lrEntrySm_.end() ? nullptr : found->second.get();
}

Kiln::Ptr<LrEntrySm> LrSm::lrEntrySmIs(const Uuid& uuid, const Kiln::Ptr<const LogicalRouter>& row) {
  VGW_TRACE(6, "Add LrEntrySm " << row->displayName() << " " << uuid);
  auto machine = Kiln::newPtr<LrEntrySm>(uuid, row->displayName(), row, cliConfig_, ovsdb_, lrConfig_);
  lrEntrySm_[uuid] = machine;
  return machine;
}

Kiln::Ptr<LrEntrySm> LrSm::lrEntrySmDel(const Uuid& uuid) {
  auto node = lrEntrySm_.extract(uuid);
  if (node.empty()) return nullptr;
  VGW_TRACE(6, "Del LrEntrySm " << node.mapped()->name() << " " << uuid);
  return std::move(node.mapped());
}

bool LrSm::nameHeld(const Kiln::String& name) const {
  for (const auto& [uuid, machine] : lrEntrySm_) {
    if (machine->name() == name) return true;
  }
  return false;
}

void LrSm::handleInitialized() {
  VGW_TRACE(5, "LrSm::handleInitialized()");
  initialized_ = true;
  lrConfig_ = lrConfigDir_->createEntity<OverlaySvc::LRConfigV2>(configName);
  initializeConfig();
  VGW_TRACE(5, " return");
}

void LrSm::initializeConfig() {
  VGW_TRACE(5, "LrSm::initializeConfig()");
  KILN_ASSERT(lrEntrySm_.empty(), "lrEntrySmColl().members() == 0");
  // The name is the key of the published entry: two routers of one name
  // could not be told apart.
  std::set<Kiln::String> names;
  for (const auto& [uuid, row] : ovsdb_->logicalRouterRaw()) {
    const auto pair = names.insert(row->displayName());
    KILN_ASSERT(pair.second, "pair.second && \"multiple uses of the same displayName found\"");
  }
  for (const Kiln::String& name :
       Kiln::keysToDrop(lrConfig_->router(), [&](const Kiln::String& n) { return names.contains(n); })) {
    VGW_TRACE(6, "Del stale LR Config Entry: " << name);
    lrConfig_->routerDel(name);
  }
  for (const auto& [uuid, row] : ovsdb_->logicalRouterRaw()) lrEntrySmIs(uuid, row);
  VGW_TRACE(5, " return");
}

void LrSm::dirtyUuidIs(const Uuid& uuid) { dirtyUuid_.insert(uuid); }

void LrSm::reconcileConfig() {
  if (!initialized_) return;
  VGW_TRACE(5, "LrSm::reconcileConfig()");
  // Rows waiting for a name are looked at again with every message: the
  // holder may have let it go.
  const std::set<Uuid> waiting = std::exchange(nameTaken_, {});
  std::set<Uuid> marked = std::exchange(dirtyUuid_, {});
  marked.insert(waiting.begin(), waiting.end());

  std::vector<std::pair<Uuid, Kiln::Ptr<const LogicalRouter>>> created;
  for (const Uuid& uuid : marked) {
    const Kiln::Ptr<const LogicalRouter> row = ovsdb_->logicalRouterRaw(uuid);
    if (LrEntrySm* machine = lrEntrySm(uuid)) {
      if (row && machine->name() == row->displayName()) {
        machine->handleInitialized();
        continue;
      }
      // Renamed or gone: the name is the key, so the entry goes with the old name.
      lrEntrySmDel(uuid)->destroy();
    }
    if (row) created.emplace_back(uuid, row);
  }
  // After every removal, so that a name released in this message can be taken.
  for (const auto& [uuid, row] : created) {
    if (nameHeld(row->displayName())) {
      if (!waiting.contains(uuid)) {
        VGW_TRACE(0, "Logical router " << uuid << " takes the name " << row->displayName()
                                       << " of another router; not published until the name is free");
      }
      nameTaken_.insert(uuid);
      continue;
    }
    lrEntrySmIs(uuid, row);
  }

  if (localData_->switchBindingDirty()) {
    VGW_TRACE(6, "Reconciling every switch binding");
    for (const auto& [uuid, machine] : lrEntrySm_) machine->reconcileSwitchBinding();
    localData_->switchBindingDirtyIs(false);
  }
  VGW_TRACE(5, " return");
}

void LrSm::destroyConfig() {
  VGW_TRACE(5, "LrSm::destroyConfig()");
  if (!initialized_) return;
  while (!lrEntrySm_.empty()) lrEntrySmDel(lrEntrySm_.begin()->first)->destroy();
  dirtyUuid_.clear();
  nameTaken_.clear();
  lrConfigDir_->deleteEntity(configName);
  lrConfig_ = nullptr;
  initialized_ = false;
  VGW_TRACE(5, " return");
}

Kiln::Ptr<LrSm> lrSmFactory(Kiln::Ptr<const HwVtepOvsdb> ovsdb, Kiln::Ptr<const CliConfig> cliConfig,
                            Kiln::Ptr<Kiln::Dir> lrConfigDir) {
  return Kiln::newPtr<LrSm>(std::move(ovsdb), std::move(cliConfig), std::move(lrConfigDir));
}

}  // namespace Vgw
