// Publication of the remote host tables as overlay-service VNI status.
//
// Everything here is a refresh: each handler computes the entry the fabric
// should see from the remote host table and the mirror, compares it with the
// published one and writes only a difference. A full reconciliation over an
// unchanged table therefore writes nothing to the MAC tables and costs one
// pass over each table; the address table alone is rewritten with equal
// values, which its setter drops.
//
// Per-entry traces that fire on every pass (the entry of a per-key handler,
// a no-op) sit above level 6, so that the ring, which keeps levels 0 to 6 by
// default, sees only what changed.
#include "Vgw/RemoteHostSm.h"

#include <algorithm>
#include <cstdint>
#include <set>
#include <utility>
#include <vector>

#include "Kiln/Assert.h"
#include "RingTape/RingTape.h"

RINGTAPE_HANDLE("VgwRemoteHost");

namespace Vgw {

namespace {

// The fabric ranks what this agent publishes by these; the database carries
// neither, so they are constants and not counters.
constexpr std::uint32_t publishedMoves = 1;
constexpr std::uint8_t publishedPreference = 32;

// The VTEP address of a locator that a remote host entry names.
const Ipkit::IpGenAddr& vtepAddress(const HwVtepOvsdb* ovsdb, const Uuid& locator) {
  KILN_ASSERT(ovsdb, "physicalLocator");
  const auto found = ovsdb->physicalLocatorRaw().find(locator);
  KILN_ASSERT(found != ovsdb->physicalLocatorRaw().end() && found->second, "physicalLocator");
  return found->second->key().dstIp();
}

// Whether a locator's address names a VTEP of the fabric at all. The
// fabric's VTEPs are IPv4: an IPv6 address, the all-zero one and one that did
// not parse (read as no address) name none, and publishing them would send
// the fabric to 0.0.0.0.
bool isFabricVtep(const Ipkit::IpGenAddr& ip) { return ip.isV4() && !ip.v4Addr().isAny(); }

// An address behind which no remote host can be reached.
bool isUselessVtep(const Ipkit::IpGenAddr& ip) { return !isFabricVtep(ip) || ip.isLoopback(); }

// Publishes the VTEP of one host that the remote host table holds. The
// whole-table passes call this with the entry in hand, so that a pass costs
// one lookup per table and host.
void publishUcast(OverlaySvc::VniStatusV2& status, const HwVtepOvsdb* ovsdb, Vxlan::VniOrNone vni,
                  const MacVtep& entry) {
  const Ipkit::EthAddr& mac = entry.mac();
  const Ipkit::IpGenAddr& vtep = vtepAddress(ovsdb, entry.physicalLocator());
  VGW_TRACE(7, "Process ucast mac " << mac << ", vtep IpAddr: " << vtep << ", vni: " << vni
                                    << ", moves: " << publishedMoves << ", preference: " << +publishedPreference);
  // The row stays in the database, but the fabric must not send to it.
  if (isUselessVtep(vtep)) {
    status.macVtepTableDel(mac);
    VGW_TRACE(5, " return del existing mac entry");
    return;
  }
  const OverlaySvc::MacVtepV2 wanted(mac, vtep.v4Addr(), publishedMoves, publishedPreference);
  const auto& table = status.macVtepTable();
  const auto current = table.find(mac);
  if (current == table.end() || current->second == OverlaySvc::MacVtepV2()) {
    VGW_TRACE(6, "Add ucast mac");
  } else if (current->second == wanted) {
    VGW_TRACE(8, "No-op ucast mac");
    return;
  } else {
    VGW_TRACE(6, "Update ucast mac");
  }
  status.macVtepTableIs(mac, wanted);
}

// Publishes one address of the remote host table. It has no no-op test: the
// setter drops an equal value.
void publishIpToMac(OverlaySvc::VniStatusV2& status, const HwVtepOvsdb* ovsdb, const IpToMac& entry) {
  // Left published until the next full reconciliation removes it.
  if (vtepAddress(ovsdb, entry.physicalLocator()).isLoopback()) {
    VGW_TRACE(5, " return ignoring loopback VtepIps");
    return;
  }
  VGW_TRACE(7, "Associate IP: " << entry.ip() << " to MAC: " << entry.mac());
  status.ipToMacTableIs(entry.ip(),
                        OverlaySvc::IpToMacV2(entry.ip(), entry.mac(), publishedMoves, publishedPreference));
}

// Calls `take` with the published address of every VTEP of a locator set.
// Loopback addresses are not filtered; members that name no VTEP of the
// fabric are left out.
template <class Take>
void forEachVtep(const HwVtepOvsdb* ovsdb, const Uuid& locatorSet, Take take) {
  const Kiln::Ptr<PhysicalLocatorSet> locators = ovsdb->physicalLocatorSet(locatorSet);
  KILN_ASSERT(locators, "physicalLocatorSet");
  for (const Uuid& locator : locators->locator()) {
    const Ipkit::IpGenAddr& vtep = vtepAddress(ovsdb, locator);
    if (!isFabricVtep(vtep)) {
      VGW_TRACE(6, "Vtep Ip: " << vtep << " of locator " << locator << " names no IPv4 VTEP, left out");
      continue;
    }
    VGW_TRACE(7, "Vtep Ip: " << vtep);
    take(vtep.v4Addr());
  }
}

// The ARP source of `mac` that the fabric is told about: one whose locator
// names a VTEP of the fabric.
Kiln::Ptr<ArpSourcesRemote> publishedArpSource(const HwVtepOvsdb& ovsdb, const Ipkit::EthAddr& mac) {
  Kiln::Ptr<ArpSourcesRemote> row = ovsdb.arpSourcesRemote(mac);
  if (!row || !isFabricVtep(vtepAddress(&ovsdb, row->locator()))) return nullptr;
  return row;
}

template <class Container>
std::vector<typename Container::key_type> keysOf(const Container& c) {
  return Kiln::keysToDrop(c, [](const auto&) { return false; });
}

// Removes from one published VNI what the logical switch's table no longer
// holds. `table` is null for a switch whose table is gone, which makes every
// entry but the ARP sources stale.
void sweepStaleEntries(OverlaySvc::VniStatusV2& status, const RemoteHostTable* table, const HwVtepOvsdb* ovsdb) {
  // ARP sources share the unicast table and have no place in macVtep.
  const auto staleUcast = Kiln::keysToDrop(status.macVtepTable(), [&](const Ipkit::EthAddr& mac) {
    return (table && table->macVtep().contains(mac)) || (ovsdb && publishedArpSource(*ovsdb, mac));
  });
  for (const Ipkit::EthAddr& mac : staleUcast) {
    VGW_TRACE(6, "Cleaning up stale ucast mac: " << mac);
    status.macVtepTableDel(mac);
  }
  const auto hasMcast = [&](const Ipkit::EthAddr& mac) { return table && table->macVtepList().contains(mac); };
  for (const Ipkit::EthAddr& mac : Kiln::keysToDrop(status.macVtepMultiPathTable(), hasMcast)) {
    VGW_TRACE(6, "Cleaning up stale mcast mac: " << mac);
    status.macVtepMultiPathTableDel(mac);
  }
  for (const Ipkit::EthAddr& mac : Kiln::keysToDrop(status.macVtepFloodListTable(), hasMcast)) {
    VGW_TRACE(6, "Cleaning up stale mcast mac: " << mac);
    status.macVtepFloodListTableDel(mac);
  }
  // An address on a loopback locator is left in place by the per-address
  // handler; this is where it goes.
  const auto staleIp = Kiln::keysToDrop(status.ipToMacTable(), [&](const Ipkit::IpGenAddr& ip) {
    if (!table) return false;
    const auto found = table->ipToMac().find(ip);
    if (found == table->ipToMac().end()) return false;
    return !vtepAddress(ovsdb, found->second.physicalLocator()).isLoopback();
  });
  for (const Ipkit::IpGenAddr& ip : staleIp) {
    VGW_TRACE(6, "Cleaning up stale ipToMac: " << ip);
    status.ipToMacTableDel(ip);
  }
}

void moveToMultiPath(OverlaySvc::VniStatusV2& status) {
  for (const Ipkit::EthAddr& mac : keysOf(status.macVtepFloodListTable())) {
    const Kiln::Ptr<OverlaySvc::MacVtepFloodListV2> floodList = status.macVtepFloodListTableDel(mac);
    OverlaySvc::MacVtepMultiPathV2 multiPath(mac);
    for (const auto& [ip, member] : floodList->vtepIpFloodList()) multiPath.vtepIpListIs(ip, true);
    VGW_TRACE(6, "Updating MacVtepMultiPath (" << mac << ", " << status.vni() << ")");
    status.macVtepMultiPathTableIs(mac, multiPath);
  }
}

void moveToFloodList(OverlaySvc::VniStatusV2& status) {
  for (const Ipkit::EthAddr& mac : keysOf(status.macVtepMultiPathTable())) {
    const OverlaySvc::MacVtepMultiPathV2 multiPath = status.macVtepMultiPathTable(mac);
    status.macVtepMultiPathTableDel(mac);
    const Kiln::Ptr<OverlaySvc::MacVtepFloodListV2> floodList = status.macVtepFloodListTableIs(mac);
    for (const auto& [ip, member] : multiPath.vtepIpList()) floodList->vtepIpFloodListIs(ip, true);
    VGW_TRACE(6, "Updating MacVtepFloodList (" << mac << ", " << status.vni() << ")");
  }
}

}  // namespace

// ---- LogicalSwitchSm ---------------------------------------------------------------

LogicalSwitchSm::LogicalSwitchSm(Kiln::Ptr<Status> status, Kiln::Ptr<const LogicalSwitch> logicalSwitch,
                                 Kiln::Ptr<RemoteHostTable> remoteHostTable,
                                 Kiln::Ptr<const HwVtepOvsdb> hwVtepOvsdb,
                                 Kiln::Ptr<OverlaySvc::VniStatusDirV2> vniStatusDir)
    : status_(std::move(status)),
      logicalSwitch_(std::move(logicalSwitch)),
      remoteHostTable_(std::move(remoteHostTable)),
      hwVtepOvsdb_(std::move(hwVtepOvsdb)),
      vniStatusDir_(std::move(vniStatusDir)) {
  handleInitialized();
}

Kiln::Ptr<OverlaySvc::VniStatusV2> LogicalSwitchSm::vniStatus() const {
  Kiln::Ptr<OverlaySvc::VniStatusV2> status = vniStatusDir_->vniStatusV2(vni_.vni());
  KILN_ASSERT(status, "vniStatus");
  return status;
}

void LogicalSwitchSm::handleInitialized() {
  VGW_TRACE(5, "LogicalSwitchSm::handleInitialized() " << logicalSwitch_->uuid());
  initialized_ = true;
  handleTunnelKey();
  handleUcastMacVtep();
  handleMcastMacVtep();
  handleIpToMac();
  VGW_TRACE(5, " return");
}

void LogicalSwitchSm::handleTunnelKey() {
  // The machine holds a VNI only while its row alone claims it. A key that
  // the controller clears, or gives to a second switch too, releases it: the
  // full reconciliation has swept that VniStatusV2 already, and a machine
  // still holding the VNI would publish into a status that is gone.
  const Vxlan::VniOrNone tunnelKey = logicalSwitch_->tunnelKey();
  Vxlan::VniOrNone held = Vxlan::VniOrNone::invalidVni();
  if (tunnelKey.isValid()) {
    const Kiln::Ptr<VniToLogicalSwitch> claim =
        Kiln::Entity::singletonIs<LocalData>()->vniToLogicalSwitch(tunnelKey.vni());
    if (claim && claim->logicalSwitch().size() == 1) held = tunnelKey;
  }
  if (held.isValid()) {
    VGW_TRACE(6, "Adding (" << held << ") to VniStatusDir");
    vniStatusDir_->vniStatusV2Is(held.vni());
  } else if (vni_.isValid()) {
    VGW_TRACE(6, "Releasing (" << vni_ << "), tunnel key " << tunnelKey);
  }
  vni_ = held;
}

void LogicalSwitchSm::handleUcastMacVtep() {
  if (!vni_.isValid()) {
    VGW_TRACE(5, " return invalidVni");
    return;
  }
  OverlaySvc::VniStatusV2& status = *vniStatus();
  for (const auto& [mac, entry] : remoteHostTable_->macVtep()) publishUcast(status, hwVtepOvsdb_.get(), vni_, entry);
}

void LogicalSwitchSm::handleUcastMacVtep(const Ipkit::EthAddr& mac) {
  if (!vni_.isValid()) {
    VGW_TRACE(5, " return invalidVni");
    return;
  }
  const Kiln::Ptr<OverlaySvc::VniStatusV2> status = vniStatus();
  const MacVtep entry = remoteHostTable_->macVtep(mac);
  if (entry == MacVtep()) {
    VGW_TRACE(6, "Delete ucast mac " << mac << ", vni: " << vni_);
    status->macVtepTableDel(mac);
    return;
  }
  publishUcast(*status, hwVtepOvsdb_.get(), vni_, entry);
}

void LogicalSwitchSm::handleMcastMacVtep() {
  if (!vni_.isValid()) {
    VGW_TRACE(5, " return invalidVni");
    return;
  }
  for (const auto& [mac, entry] : remoteHostTable_->macVtepList()) handleMcastMacVtep(mac);
}

void LogicalSwitchSm::handleMcastMacVtep(const Ipkit::EthAddr& mac) {
  if (!vni_.isValid()) {
    VGW_TRACE(5, " return invalidVni");
    return;
  }
  switch (status_->vtepListType()) {
    case VtepListType::multiPath:
      handleMacVtepMultiPath(mac);
      return;
    case VtepListType::floodList:
      handleMacVtepFloodList(mac);
      return;
  }
  KILN_ASSERT(false, "0 && \"Vtep list type\"");
}

void LogicalSwitchSm::handleMacVtepMultiPath(const Ipkit::EthAddr& mac) {
  const Kiln::Ptr<OverlaySvc::VniStatusV2> status = vniStatus();
  const MacVtepList entry = remoteHostTable_->macVtepList(mac);
  if (entry == MacVtepList()) {
    VGW_TRACE(6, "Delete mcast mac " << mac << ", vni: " << vni_);
    status->macVtepMultiPathTableDel(mac);
    return;
  }
  VGW_TRACE(7, "Process mcast mac " << mac << ", vni: " << vni_);
  OverlaySvc::MacVtepMultiPathV2 wanted(mac);
  forEachVtep(hwVtepOvsdb_.get(), entry.physicalLocatorSet(),
              [&](const Ipkit::IpAddr& vtep) { wanted.vtepIpListIs(vtep, true); });
  if (wanted.vtepIpList().empty()) {
    VGW_TRACE(6, "Delete mcast mac " << mac << ", vni: " << vni_ << ", no VTEP of the fabric in its set");
    status->macVtepMultiPathTableDel(mac);
    return;
  }
  const auto& table = status->macVtepMultiPathTable();
  const auto current = table.find(mac);
  if (current == table.end() || current->second == OverlaySvc::MacVtepMultiPathV2()) {
    VGW_TRACE(6, "Add mcast mac");
  } else if (current->second == wanted) {
    VGW_TRACE(8, "No-op mcast mac");
    return;
  } else {
    VGW_TRACE(6, "Update mcast mac");
  }
  status->macVtepMultiPathTableIs(mac, wanted);
}

void LogicalSwitchSm::handleMacVtepFloodList(const Ipkit::EthAddr& mac) {
  const Kiln::Ptr<OverlaySvc::VniStatusV2> status = vniStatus();
  const MacVtepList entry = remoteHostTable_->macVtepList(mac);
  if (entry == MacVtepList()) {
    VGW_TRACE(6, "Delete mcast mac " << mac << ", vni: " << vni_);
    status->macVtepFloodListTableDel(mac);
    return;
  }
  VGW_TRACE(7, "Process mcast mac " << mac << ", vni: " << vni_);
  // Two locators of one set may carry one address (the controller may key
  // them apart by tunnel key); the fabric floods to that VTEP once.
  std::set<Ipkit::IpAddr> wanted;
  forEachVtep(hwVtepOvsdb_.get(), entry.physicalLocatorSet(), [&](const Ipkit::IpAddr& vtep) {
    if (!wanted.insert(vtep).second) VGW_TRACE(6, "Duplicate Vtep Ip found in flood set: " << vtep);
  });
  if (wanted.empty()) {
    VGW_TRACE(6, "Delete mcast mac " << mac << ", vni: " << vni_ << ", no VTEP of the fabric in its set");
    status->macVtepFloodListTableDel(mac);
    return;
  }
  const Kiln::Ptr<OverlaySvc::MacVtepFloodListV2> current = status->macVtepFloodListTable(mac);
  if (!current) {
    VGW_TRACE(6, "Add flood list mac");
    const Kiln::Ptr<OverlaySvc::MacVtepFloodListV2> created = status->macVtepFloodListTableIs(mac);
    for (const Ipkit::IpAddr& ip : wanted) created->vtepIpFloodListIs(ip, true);
    return;
  }
  const auto& published = current->vtepIpFloodList();
  const bool same = published.size() == wanted.size() && std::ranges::all_of(wanted, [&](const Ipkit::IpAddr& ip) {
                      const auto found = published.find(ip);
                      return found != published.end() && found->second;
                    });
  if (same) {
    VGW_TRACE(8, "No-op flood list mac");
    return;
  }
  // Edited in place, deletes first: a reader never sees the list without
  // the VTEPs that stay in it.
  VGW_TRACE(6, "Update flood list mac");
  for (const Ipkit::IpAddr& ip : Kiln::keysToDrop(published, [&](const Ipkit::IpAddr& k) { return wanted.contains(k); })) {
    VGW_TRACE(6, "Del stale Vtep Flood Ip: " << ip);
    current->vtepIpFloodListDel(ip);
  }
  for (const Ipkit::IpAddr& ip : wanted) {
    VGW_TRACE(6, "Add new Vtep Flood Ip: " << ip);
    current->vtepIpFloodListIs(ip, true);
  }
}

void LogicalSwitchSm::handleIpToMac() {
  if (!vni_.isValid()) {
    VGW_TRACE(5, " return invalidVni");
    return;
  }
  OverlaySvc::VniStatusV2& status = *vniStatus();
  for (const auto& [ip, entry] : remoteHostTable_->ipToMac()) publishIpToMac(status, hwVtepOvsdb_.get(), entry);
}

void LogicalSwitchSm::handleIpToMac(const Ipkit::IpGenAddr& ip) {
  if (!vni_.isValid()) {
    VGW_TRACE(5, " return invalidVni");
    return;
  }
  const Kiln::Ptr<OverlaySvc::VniStatusV2> status = vniStatus();
  const IpToMac entry = remoteHostTable_->ipToMac(ip);
  if (entry == IpToMac()) {
    const OverlaySvc::IpToMacV2 previous = status->ipToMacTable(ip);
    status->ipToMacTableDel(ip);
    if (!(previous == OverlaySvc::IpToMacV2())) {
      VGW_TRACE(6, "Delete associated IP " << ip << " from MAC " << previous.mac());
    }
    return;
  }
  publishIpToMac(*status, hwVtepOvsdb_.get(), entry);
}

void LogicalSwitchSm::destroy() {
  VGW_TRACE(5, "LogicalSwitchSm::destroy() " << logicalSwitch_->uuid());
  initialized_ = false;
  if (vni_.isValid()) vniStatusDir_->vniStatusV2Del(vni_.vni());
}

// ---- RemoteHostSm ------------------------------------------------------------------

RemoteHostSm::RemoteHostSm(Kiln::Ptr<Status> status, Kiln::Ptr<OverlaySvc::VniStatusDirV2> vniStatusDir)
    : status_(std::move(status)),
      vniStatusDir_(std::move(vniStatusDir)),
      localData_(Kiln::Entity::singletonIs<LocalData>()),
      kilnStatus_(this) {
  kilnStatus_.notifierIs(status_);
  handleInitialized();
}

RemoteHostSm::~RemoteHostSm() = default;

void RemoteHostSm::KilnStatus::onVtepListType() { sm_->handleVtepListType(); }

Kiln::Ptr<const HwVtepOvsdb> RemoteHostSm::hwVtepOvsdb() const { return status_->ovsdb(); }

LogicalSwitchSm* RemoteHostSm::logicalSwitchSm(const Uuid& uuid) const {
  const auto found = logicalSwitchSm_.find(uuid);
  return found == logicalSwitchSm_.end() ? nullptr : found->second.get();
}

void RemoteHostSm::handleInitialized() {
  VGW_TRACE(5, "RemoteHostSm::handleInitialized()");
  VGW_TRACE_BLOCK_TIME(5, "RemoteHostSm::handleInitialized");
  initialized_ = true;
  const Kiln::Ptr<const HwVtepOvsdb> ovsdb = hwVtepOvsdb();
  // Stale state goes first, so that what the logical switches add below is
  // never swept by the same pass.
  const auto& published = vniStatusDir_->vniStatusV2();
  for (auto next = published.begin(); next != published.end();) {
    const Vxlan::Vni vni = next->first;
    const Kiln::Ptr<OverlaySvc::VniStatusV2> status = next->second;
    ++next;
    VGW_TRACE(7, "Process Vni: " << vni);
    const Kiln::Ptr<VniToLogicalSwitch> claim = localData_->vniToLogicalSwitch(vni);
    if (!claim || claim->logicalSwitch().size() != 1) {
      VGW_TRACE(6, "Cleaning up stale VniStatus");
      vniStatusDir_->vniStatusV2Del(vni);
      continue;
    }
    const Kiln::Ptr<RemoteHostTable> table = localData_->remoteHostTable(*claim->logicalSwitch().begin());
    sweepStaleEntries(*status, table.get(), ovsdb.get());
  }
  handleLogicalSwitch();
  handleVtepListType();
  handleArpSourcesRemote();
  VGW_TRACE(5, " return");
}

void RemoteHostSm::handleLogicalSwitch() {
  if (!initialized_) return;
  const Kiln::Ptr<const HwVtepOvsdb> ovsdb = hwVtepOvsdb();
  // A deleted switch's VniStatusV2 went in the stale sweep; dropping the
  // machine without destroy leaves the directory to that sweep.
  for (auto it = logicalSwitchSm_.begin(); it != logicalSwitchSm_.end();) {
    if (ovsdb && ovsdb->logicalSwitch().contains(it->first)) {
      ++it;
    } else {
      VGW_TRACE(6, "Del logicalSwitchSm " << it->first);
      it = logicalSwitchSm_.erase(it);
    }
  }
  if (!ovsdb) return;
  for (const auto& [uuid, row] : ovsdb->logicalSwitch()) handleLogicalSwitch(uuid);
}

void RemoteHostSm::handleLogicalSwitch(const Uuid& uuid) {
  if (LogicalSwitchSm* machine = logicalSwitchSm(uuid)) {
    VGW_TRACE(7, "Upd logicalSwitchSm " << uuid);
    machine->handleInitialized();
    return;
  }
  const Kiln::Ptr<const HwVtepOvsdb> ovsdb = hwVtepOvsdb();
  Kiln::Ptr<const LogicalSwitch> row = ovsdb ? ovsdb->logicalSwitch(uuid) : nullptr;
  if (!row) return;
  VGW_TRACE(6, "Add logicalSwitchSm " << uuid);
  logicalSwitchSm_.emplace(uuid, Kiln::newPtr<LogicalSwitchSm>(status_, std::move(row),
                                                               localData_->remoteHostTableIs(uuid), ovsdb,
                                                               vniStatusDir_));
}

void RemoteHostSm::handleVtepListType() {
  VGW_TRACE(5, "RemoteHostSm::handleVtepListType()");
  std::size_t count = 0;
  for (const auto& [vni, status] : vniStatusDir_->vniStatusV2()) {
    ++count;
    switch (status_->vtepListType()) {
      case VtepListType::multiPath:
        moveToMultiPath(*status);
        continue;
      case VtepListType::floodList:
        moveToFloodList(*status);
        continue;
    }
    KILN_ASSERT(false, "0 && \"Vtep list type\"");
  }
  VGW_TRACE(6, "VtepListType changed to " << count << " entries");
}

void RemoteHostSm::handleArpSourcesRemote() {
  const Kiln::Ptr<const HwVtepOvsdb> ovsdb = hwVtepOvsdb();
  if (!ovsdb) return;
  for (const auto& [mac, row] : ovsdb->arpSourcesRemote()) handleArpSourcesRemote(mac);
}

void RemoteHostSm::handleArpSourcesRemote(const Ipkit::EthAddr& mac) {
  const Kiln::Ptr<const HwVtepOvsdb> ovsdb = hwVtepOvsdb();
  const Kiln::Ptr<ArpSourcesRemote> row = ovsdb ? ovsdb->arpSourcesRemote(mac) : nullptr;
  if (row && !publishedArpSource(*ovsdb, mac)) {
    // Its earlier entry goes in the next full reconciliation's sweep, which
    // can tell it from a host of the same MAC.
    VGW_TRACE(6, "Arp source mac " << mac << " names no IPv4 VTEP, not published");
    return;
  }
  if (!row) {
    // A unicast entry of the same MAC goes too, until the logical switch
    // publishes it again.
    VGW_TRACE(6, "Deleting arp source macs");
    for (const auto& [vni, status] : vniStatusDir_->vniStatusV2()) {
      status->macVtepTableDel(mac);
      VGW_TRACE(6, "Deleting arp source mac: " << mac << ", for vni: " << vni);
    }
    return;
  }
  // The controller assigns an ARP source to no logical switch, so every VNI
  // gets it.
  const Ipkit::IpGenAddr vtep = vtepAddress(ovsdb.get(), row->locator());
  VGW_TRACE(7, "Process arp source mac " << mac << ", vtep IpAddr: " << vtep << " moves: " << publishedMoves
                                         << " preference: " << +publishedPreference);
  const OverlaySvc::MacVtepV2 wanted(mac, vtep.v4Addr(), publishedMoves, publishedPreference);
  for (const auto& [vni, status] : vniStatusDir_->vniStatusV2()) {
    const auto& table = status->macVtepTable();
    const auto current = table.find(mac);
    if (current != table.end() && current->second == wanted) {
      VGW_TRACE(8, "No-op arp source mac");
      continue;
    }
    VGW_TRACE(6, "Add/Update arp source mac to " << vni);
    status->macVtepTableIs(mac, wanted);
  }
}

void RemoteHostSm::destroy() {
  VGW_TRACE(5, "RemoteHostSm::" << "destroy" << "()");
  initialized_ = false;
  while (!logicalSwitchSm_.empty()) {
    const Kiln::Ptr<LogicalSwitchSm> machine = std::move(logicalSwitchSm_.extract(logicalSwitchSm_.begin()).mapped());
    machine->destroy();
  }
  localData_->vniToLogicalSwitchDelAll();
  localData_->remoteHostTableDelAll();
}

Kiln::Ptr<RemoteHostSm> remoteHostSmFactory(Kiln::Ptr<Status> status,
                                            Kiln::Ptr<OverlaySvc::VniStatusDirV2> vniStatusDir) {
  return Kiln::newPtr<RemoteHostSm>(std::move(status), std::move(vniStatusDir));
}

}  // namespace Vgw
