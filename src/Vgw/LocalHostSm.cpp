// Local hosts of the fabric as local MAC rows of the database.
//
// Reactors only fill the backlog; processBacklog() is the one place that
// reads the service's state and writes the database, so each MAC is judged
// on what holds when its turn comes and never on the notification that
// dirtied it.
#include "Vgw/LocalHostSm.h"

#include <algorithm>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include "Kiln/System.h"
#include "RingTape/RingTape.h"
#include "Vgw/VgwUtils.h"

RINGTAPE_HANDLE("VgwLocalHost");

namespace Vgw {

namespace {

// The MAC's row of a VNI's local table; null when there is none.
template <class Table, class Row>
Kiln::Ptr<Row> localRow(const Kiln::Ptr<Table>& table, Kiln::Ptr<Row> (Table::*find)(const Ipkit::EthAddr&) const,
                        const Ipkit::EthAddr& mac) {
  return table ? ((*table).*find)(mac) : nullptr;
}

// A delete of the row of `existing`, carrying a copy of it for the
// response. The response finds the VNI's table through the row's logical
// switch; when that switch is gone or has another key now, the copy names
// the VNI the row was filed under.
template <class Row>
Kiln::Ptr<OpDeleteRequest> deleteLocalRow(const HwVtepOvsdb& ovsdb, OvsdbDataType type, const Row& existing,
                                          const Vxlan::Vni& vni, const char* movedText) {
  const Kiln::Ptr<Row> row = Kiln::newPtr<Row>(existing.uuid(), existing.mac());
  row->clone(existing);
  const Kiln::Ptr<LogicalSwitch> ls = ovsdb.logicalSwitch(existing.logicalSwitch());
  if (!ls || ls->tunnelKey() != Vxlan::VniOrNone(vni)) {
    VGW_TRACE(6, movedText << vni);
    row->vniOrNoneIs(Vxlan::VniOrNone(vni));
  }
  const Kiln::Ptr<OpDeleteRequest> op = buildDelete(existing.uuid(), type);
  op->ovsdbDataModelIs(row);
  return op;
}

// One delete of every row of `table` on logical switch `ls`; the response
// empties the VNI's table.
template <class Row>
Kiln::Ptr<OpDeleteRequest> deleteSwitchRows(OvsdbDataType type, const Uuid& ls, const Vxlan::Vni& vni) {
  const Kiln::Ptr<OpDeleteRequest> op = buildDeleteWhere(type, createConditionUuid("logical_switch", "==", ls));
  op->resultCountIs(0);
  const Kiln::Ptr<Row> row = Kiln::newPtr<Row>(Uuid(), Ipkit::EthAddr());
  row->logicalSwitchIs(ls);
  row->vniOrNoneIs(Vxlan::VniOrNone(vni));
  op->ovsdbDataModelIs(row);
  return op;
}

// The distinct logical switches of a local table's rows: rows filed under
// one VNI normally share one.
template <class Map>
std::set<Uuid> rowSwitches(const Map& rows) {
  std::set<Uuid> out;
  for (const auto& [mac, row] : rows) out.insert(row->logicalSwitch());
  return out;
}

template <class Map>
std::set<Ipkit::IpGenAddr> vtepSet(const Map& vteps) {
  std::set<Ipkit::IpGenAddr> out;
  for (const auto& [vtep, on] : vteps) out.insert(Ipkit::IpGenAddr(vtep));
  return out;
}

}  // namespace

bool isUnicastMac(const Ipkit::EthAddr& mac) { return mac.isUnicast() && !mac.isZero(); }

// ---- FloodListSm --------------------------------------------------------------------------------

FloodListSm::FloodListSm(Kiln::Ptr<const OverlaySvc::MacVtepFloodListV2> macVtepFloodListTable, VniStatusSm* parent)
    : macVtepFloodListTable_(std::move(macVtepFloodListTable)), parent_(parent), kilnMacVtepFloodListTable_(this) {
  kilnMacVtepFloodListTable_.notifierIs(macVtepFloodListTable_);
  handleInitialized();
}

void FloodListSm::handleInitialized() {
  initialized_ = true;
  handleVtepIp();
}

void FloodListSm::handleVtepIp() {
  if (!initialized_) return;
  parent_->handleMac(macAddr());
}

void FloodListSm::destroy() {
  VGW_TRACE(6, "FloodListSm(" << macAddr() << ")::destroy");
  kilnMacVtepFloodListTable_.notifierIs(nullptr);
  parent_->handleMac(macAddr());
  initialized_ = false;
}

// ---- VniStatusSm --------------------------------------------------------------------------------

VniStatusSm::VniStatusSm(Kiln::Ptr<const OverlaySvc::VniStatusV2> vniStatus, LocalHostSm* parent)
    : vniStatus_(std::move(vniStatus)), parent_(parent), kilnVniStatus_(this) {
  kilnVniStatus_.notifierIs(vniStatus_);
  handleInitialized();
}

Ipkit::IpGenAddr VniStatusSm::macToIp(const Ipkit::EthAddr& mac) const {
  const auto found = macToIpTable_.find(mac);
  return found == macToIpTable_.end() ? Ipkit::IpGenAddr() : found->second;
}

void VniStatusSm::handleInitialized() {
  VGW_TRACE(5, "VniStatusSm(" << vni() << ")::handleInitialized");
  initialized_ = true;
  for (const auto& [ip, entry] : vniStatus_->ipToMacTable()) {
    VGW_TRACE(6, "Associate ip " << ip << " to " << entry.mac());
    saveMacIp(entry.mac(), ip);
  }
  handleMacVtepTable();
  handleMacVtepMultiPathTable();
  handleMacVtepFloodListTable();
}

void VniStatusSm::handleMac(const Ipkit::EthAddr& mac) {
  if (!initialized_) return;
  parent_->handleMacVni(mac, vni());
}

void VniStatusSm::handleMacVtepTable() {
  if (!initialized_) return;
  for (const auto& [mac, entry] : vniStatus_->macVtepTable()) handleMac(mac);
}

void VniStatusSm::handleMacVtepMultiPathTable() {
  if (!initialized_) return;
  for (const auto& [mac, entry] : vniStatus_->macVtepMultiPathTable()) handleMac(mac);
}

void VniStatusSm::handleMacVtepFloodListTable() {
  if (!initialized_) return;
  for (const auto& [mac, entry] : vniStatus_->macVtepFloodListTable()) handleMacVtepFloodListTable(mac);
}

void VniStatusSm::handleMacVtepFloodListTable(const Ipkit::EthAddr& mac) {
  if (!initialized_) return;
  if (const Kiln::Ptr<OverlaySvc::MacVtepFloodListV2> entry = vniStatus_->macVtepFloodListTable(mac)) {
    const auto found = floodListSm_.find(mac);
    if (found == floodListSm_.end() || found->second->macVtepFloodListTable() != entry) {
      floodListSm_.insert_or_assign(mac, Kiln::newPtr<FloodListSm>(entry, this));
    }
    return;
  }
  const auto found = floodListSm_.find(mac);
  if (found == floodListSm_.end()) return;
  const Kiln::Ptr<FloodListSm> sm = std::move(found->second);
  floodListSm_.erase(found);
  sm->destroy();
}

void VniStatusSm::handleIpToMacTable(const Ipkit::IpGenAddr& ip) {
  if (!initialized_) return;
  const auto& table = vniStatus_->ipToMacTable();
  const auto entry = table.find(ip);
  if (entry == table.end()) {
    VGW_TRACE(6, "Delete ip " << ip);
    const Ipkit::EthAddr mac = deleteMacIp(ip);
    // The service deleted an address it never published here: nothing
    // carries it.
    if (mac.isZero()) {
      VGW_TRACE(0, "VNI " << vni() << ": delete of unknown ip " << ip << " ignored");
      return;
    }
    handleMac(mac);
    return;
  }
  const Ipkit::EthAddr mac = entry->second.mac();
  VGW_TRACE(6, "Associate ip " << ip << " to " << mac);
  saveMacIp(mac, ip);
  handleMac(mac);
}

void VniStatusSm::saveMacIp(const Ipkit::EthAddr& mac, const Ipkit::IpGenAddr& ip) {
  const auto [held, inserted] = ipToMacTable_.try_emplace(ip, mac);
  if (!inserted && held->second != mac) {
    const Ipkit::EthAddr previous = std::exchange(held->second, mac);
    const auto old = macToIpTable_.find(previous);
    if (old != macToIpTable_.end() && old->second == ip) {
      macToIpTable_.erase(old);
      handleMac(previous);
    }
  }
  macToIpTable_.insert_or_assign(mac, ip);
}

Ipkit::EthAddr VniStatusSm::deleteMacIp(const Ipkit::IpGenAddr& ip) {
  const auto held = ipToMacTable_.find(ip);
  if (held == ipToMacTable_.end()) return Ipkit::EthAddr();
  const Ipkit::EthAddr mac = held->second;
  ipToMacTable_.erase(held);
  // A MAC with two addresses shows the newer; losing the other leaves it.
  const auto found = macToIpTable_.find(mac);
  if (found != macToIpTable_.end() && found->second == ip) macToIpTable_.erase(found);
  return mac;
}

// ---- LocalHostSm --------------------------------------------------------------------------------

LocalHostSm::LocalHostSm(const Kiln::Ptr<Kiln::Clock>& clock, Kiln::Ptr<const OverlaySvc::VniStatusDirV2> vniStatusDir,
                         Kiln::Ptr<HwVtepOvsdb> ovsdb, Kiln::Ptr<const CliConfig> cliConfig,
                         Kiln::Ptr<OvsdbRequestQueue> requestQueue)
    : CodefBase(clock),
      vniStatusDir_(std::move(vniStatusDir)),
      ovsdb_(std::move(ovsdb)),
      cliConfig_(std::move(cliConfig)),
      requestQueue_(std::move(requestQueue)),
      localData_(Kiln::Entity::singletonIs<LocalData>()),
      kilnVniStatusDir_(this) {
  kilnVniStatusDir_.notifierIs(vniStatusDir_);
  handleInitialized();
}

LocalHostSm::~LocalHostSm() {
  // The VNI machines call back into this one while they go.
  initialized_ = false;
  vniStatusSm_.clear();
}

VniStatusSm* LocalHostSm::vniStatusSm(const Vxlan::Vni& vni) const {
  const auto found = vniStatusSm_.find(vni);
  return found == vniStatusSm_.end() ? nullptr : found->second.get();
}

void LocalHostSm::handleInitialized() {
  VGW_TRACE(5, "LocalHostSm::handleInitialized");
  initialized_ = true;
  removeStaleMacs();
  handleVniStatus();
}

void LocalHostSm::handleVniStatus() {
  if (!initialized_) return;
  for (const auto& [vni, entry] : vniStatusDir_->vniStatusV2()) handleVniStatus(vni);
}

void LocalHostSm::handleVniStatus(const Vxlan::Vni& vni) {
  if (!initialized_) return;
  const auto found = vniStatusSm_.find(vni);
  if (const Kiln::Ptr<OverlaySvc::VniStatusV2> entry = vniStatusDir_->vniStatusV2(vni)) {
    VGW_TRACE(6, "Add VniStatusSm for " << vni);
    if (found != vniStatusSm_.end() && found->second->vniStatus() == entry) return;
    // An entry replaced whole: the rows of the old one are judged afresh.
    if (found != vniStatusSm_.end()) handleVniRows(vni);
    vniStatusSm_.insert_or_assign(vni, Kiln::newPtr<VniStatusSm>(entry, this));
    return;
  }
  VGW_TRACE(6, "Del VniStatusSm for " << vni);
  if (found == vniStatusSm_.end()) return;
  vniStatusSm_.erase(found);
  handleVniRows(vni);
}

void LocalHostSm::handleVniRows(const Vxlan::Vni& vni) {
  if (const Kiln::Ptr<UcastMacsLocalTable> table = localData_->ucastMacsLocalTable(vni)) {
    for (const auto& [mac, row] : table->ucastMacsLocal()) handleMacVni(mac, vni);
  }
  if (const Kiln::Ptr<McastMacsLocalTable> table = localData_->mcastMacsLocalTable(vni)) {
    for (const auto& [mac, row] : table->mcastMacsLocal()) handleMacVni(mac, vni);
  }
}

void LocalHostSm::handleMacVni(const Ipkit::EthAddr& mac, const Vxlan::Vni& vni) {
  if (!initialized_) return;
  updatesSeenInc(1);
  const MacVniPair pair(mac, vni);
  const auto [it, inserted] = backlog_.try_emplace(pair, true);
  if (!inserted) {
    VGW_TRACE(7, "Ignoring " << pair << " from backlog");
    return;
  }
  VGW_TRACE(7, "Adding " << pair << " to backlog");
  scheduleCodef();
}

Kiln::Ptr<OvsdbTransactRequest> LocalHostSm::newTransaction() const {
  const Kiln::Ptr<OvsdbTransactRequest> transact = Kiln::newPtr<OvsdbTransactRequest>();
  transact->ovsdbIs(ovsdb_);
  return transact;
}

void LocalHostSm::processBacklog(double deadline) {
  if (!initialized_) return;
  std::uint64_t processed = 0;
  VGW_TRACE(6, "Commencing backlog processing");
  auto it = backlog_.find(bookmark_);
  if (it == backlog_.end()) it = backlog_.begin();
  while (it != backlog_.end()) {
    // The clock is read between batches only: every slice does one.
    if (processed != 0 && Kiln::System::currentTime() >= deadline) {
      bookmark_ = it->first;
      VGW_TRACE(6, "Yielding backlog processing at " << bookmark_);
      break;
    }
    checkSuspects();
    const Kiln::Ptr<OvsdbTransactRequest> transact = newTransaction();
    // The configuration refuses a zero, which would make no progress.
    const unsigned maxOps = std::max<unsigned>(1, cliConfig_->maxOps());
    unsigned batch = 0;
    while (it != backlog_.end() && batch < maxOps) {
      const MacVniPair pair = it->first;
      VGW_TRACE(7, "Backlog processing " << pair);
      processItem(pair, *transact);
      it = backlog_.erase(it);
      if (it == backlog_.end()) it = backlog_.begin();
      ++batch;
    }
    if (transact->opCount() != 0) {
      requestQueue_->requestEnq(transact);
      ++transactions_;
    }
    processed += batch;
  }
  itemsProcessed_ += processed;
  VGW_TRACE(6, "Backlog processing done. Processed " << processed << " items");
}

void LocalHostSm::processItem(const MacVniPair& pair, OvsdbTransactRequest& transact) {
  const Ipkit::EthAddr& mac = pair.mac();
  const Vxlan::Vni& vni = pair.vni();
  const Kiln::Ptr<OverlaySvc::VniStatusV2> status = vniStatusDir_->vniStatusV2(vni);
  if (!isUnicastMac(mac)) {
    const OverlaySvc::MacVtepMultiPathV2 multiPath =
        status ? status->macVtepMultiPathTable(mac) : OverlaySvc::MacVtepMultiPathV2();
    if (multiPath != OverlaySvc::MacVtepMultiPathV2()) {
      updateBumMac(mac, vtepSet(multiPath.vtepIpList()), vni, transact);
      return;
    }
    if (const auto floodList = status ? status->macVtepFloodListTable(mac) : nullptr) {
      updateBumMac(mac, vtepSet(floodList->vtepIpFloodList()), vni, transact);
      return;
    }
    delBumMac(mac, vni, transact);
    return;
  }
  const OverlaySvc::MacVtepV2 host = status ? status->macVtepTable(mac) : OverlaySvc::MacVtepV2();
  if (host == OverlaySvc::MacVtepV2()) {
    delUcastMac(mac, vni, transact);
    return;
  }
  const VniStatusSm* sm = vniStatusSm(vni);
  updateUcastMac(mac, sm ? sm->macToIp(mac) : Ipkit::IpGenAddr(), Ipkit::IpGenAddr(host.vtepIp()), vni, transact);
}

Uuid LocalHostSm::soleLogicalSwitch(const Vxlan::Vni& vni) const {
  const Kiln::Ptr<VniToLogicalSwitch> entry = localData_->vniToLogicalSwitch(vni);
  if (!entry || entry->logicalSwitch().empty()) {
    VGW_TRACE(6, "VniToLogicalSwitch not set returning");
    return Uuid();
  }
  if (entry->logicalSwitch().size() >= 2) {
    VGW_TRACE(6, "More than one logical switch returning");
    return Uuid();
  }
  return *entry->logicalSwitch().begin();
}

void LocalHostSm::updateUcastMac(const Ipkit::EthAddr& mac, const Ipkit::IpGenAddr& ip,
                                 const Ipkit::IpGenAddr& vtepIp, const Vxlan::Vni& vni,
                                 OvsdbTransactRequest& transact) {
  VGW_TRACE(6, "LocalHostSm::updateUcastMac(" << mac << ", " << ip << ", " << vtepIp << ", " << vni << ")");
  const Uuid ls = soleLogicalSwitch(vni);
  if (!ls) return;
  if (ovsdb_->arpSourcesLocal(mac)) {
    VGW_TRACE(6, "MAC: " << mac << " in ArpSourcesLocal table. Not adding in UcastmacsLocal");
    return;
  }
  VGW_TRACE(6, "LogicalSwitch: " << ls);
  const Uuid locator = getPhysicalLocator(*ovsdb_, vtepIp, transact)->uuid();
  const Kiln::Ptr<UcastMacsLocal> existing =
      localRow(localData_->ucastMacsLocalTable(vni), &UcastMacsLocalTable::ucastMacsLocal, mac);
  if (existing && existing->locator() == locator && existing->logicalSwitch() == ls && existing->ipAddr() == ip) {
    VGW_TRACE(6, "Nop UcastMacs Local " << mac << " on " << vni);
    return;
  }
  const Kiln::Ptr<UcastMacsLocal> row = Kiln::newPtr<UcastMacsLocal>(existing ? existing->uuid() : genNamedUuid(), mac);
  row->ipAddrIs(ip);
  row->locatorIs(locator);
  row->logicalSwitchIs(ls);
  if (existing) {
    VGW_TRACE(6, "Update UcastMacsLocal with uuid: " << existing->uuid());
    if (existing->ipAddr() == ip) row->invalidAttribIs("ipAddr", true);
    transact.opEnq(buildUpdate(existing->uuid(), row));
    return;
  }
  VGW_TRACE(6, "Add new UcastMacsLocal " << mac);
  transact.opEnq(buildInsert(row));
}

void LocalHostSm::updateBumMac(const Ipkit::EthAddr& mac, const std::set<Ipkit::IpGenAddr>& vteps,
                               const Vxlan::Vni& vni, OvsdbTransactRequest& transact) {
  VGW_TRACE(6, "LocalHostSm::updateBumMac(" << mac << ", " << vni << ")");
  if (vteps.empty()) {
    VGW_TRACE(6, "Ignoring since vtepList is zero");
    return;
  }
  const Uuid ls = soleLogicalSwitch(vni);
  if (!ls) return;
  if (VGW_TRACE_ENABLED(6)) {
    std::ostringstream list;
    for (const Ipkit::IpGenAddr& vtep : vteps) list << vtep << " ";
    VGW_TRACE(6, "Flood list: " << list.str());
  }
  const Uuid locatorSet = getPhysicalLocatorSet(*ovsdb_, vteps, transact)->uuid();
  updateMcastMacs(mac, vni, ls, locatorSet, transact);
}

void LocalHostSm::updateMcastMacs(const Ipkit::EthAddr& mac, const Vxlan::Vni& vni, const Uuid& logicalSwitch,
                                  const Uuid& locatorSet, OvsdbTransactRequest& transact) {
  const Kiln::Ptr<McastMacsLocal> existing =
      localRow(localData_->mcastMacsLocalTable(vni), &McastMacsLocalTable::mcastMacsLocal, mac);
  if (existing && existing->physicalLocatorSet() == locatorSet && existing->logicalSwitch() == logicalSwitch) {
    VGW_TRACE(6, "Nop McastMacs Local " << mac << " on " << vni);
    return;
  }
  const Kiln::Ptr<McastMacsLocal> row = Kiln::newPtr<McastMacsLocal>(existing ? existing->uuid() : genNamedUuid(), mac);
  row->physicalLocatorSetIs(locatorSet);
  row->logicalSwitchIs(logicalSwitch);
  if (existing) {
    VGW_TRACE(6, "Update McastMacsLocal with uuid: " << existing->uuid());
    transact.opEnq(buildUpdate(existing->uuid(), row));
    return;
  }
  VGW_TRACE(6, "Add new McastMacsLocal");
  transact.opEnq(buildInsert(row));
}

void LocalHostSm::delUcastMac(const Ipkit::EthAddr& mac, const Vxlan::Vni& vni, OvsdbTransactRequest& transact) {
  const Kiln::Ptr<UcastMacsLocal> existing =
      localRow(localData_->ucastMacsLocalTable(vni), &UcastMacsLocalTable::ucastMacsLocal, mac);
  if (!existing) {
    VGW_TRACE(7, " return no Mac");
    return;
  }
  suspectIs(*existing);
  transact.opEnq(deleteLocalRow(*ovsdb_, OvsdbDataType::ucastMacsLocal, *existing, vni,
                                "Vni has changed, processing UcastMac del against "));
}

void LocalHostSm::delBumMac(const Ipkit::EthAddr& mac, const Vxlan::Vni& vni, OvsdbTransactRequest& transact) {
  const Kiln::Ptr<McastMacsLocal> existing =
      localRow(localData_->mcastMacsLocalTable(vni), &McastMacsLocalTable::mcastMacsLocal, mac);
  if (!existing) {
    VGW_TRACE(7, " return no Mac");
    return;
  }
  suspectIs(*existing);
  transact.opEnq(deleteLocalRow(*ovsdb_, OvsdbDataType::mcastMacsLocal, *existing, vni,
                                "Vni has changed, processing McastMac del against "));
}

void LocalHostSm::removeStaleMacs() {
  VGW_TRACE(5, "LocalHostSm::removeStaleMacs");
  const Kiln::Ptr<OvsdbTransactRequest> transact = newTransaction();
  // Marking a MAC dirty only touches the backlog, so the tables can be
  // walked while it happens.
  for (const auto& [vni, table] : localData_->ucastMacsLocalTable()) {
    VGW_TRACE(6, "Ucast Vni: " << vni);
    const Kiln::Ptr<OverlaySvc::VniStatusV2> status = vniStatusDir_->vniStatusV2(vni);
    if (status && !status->macVtepTable().empty()) {
      for (const auto& [mac, row] : table->ucastMacsLocal()) handleMacVni(mac, vni);
    } else if (!table->ucastMacsLocal().empty()) {
      for (const auto& [mac, row] : table->ucastMacsLocal()) suspectIs(*row);
      for (const Uuid& ls : rowSwitches(table->ucastMacsLocal())) {
        transact->opEnq(deleteSwitchRows<UcastMacsLocal>(OvsdbDataType::ucastMacsLocal, ls, vni));
      }
      VGW_TRACE(6, "Deleting all local ucast macs for " << vni);
    }
  }
  for (const auto& [vni, table] : localData_->mcastMacsLocalTable()) {
    const Kiln::Ptr<OverlaySvc::VniStatusV2> status = vniStatusDir_->vniStatusV2(vni);
    VGW_TRACE(6, "Mcast Vni: " << vni << " vniStatus: " << status.get());
    if (status && (!status->macVtepMultiPathTable().empty() || !status->macVtepFloodListTable().empty())) {
      for (const auto& [mac, row] : table->mcastMacsLocal()) handleMacVni(mac, vni);
    } else if (!table->mcastMacsLocal().empty()) {
      for (const auto& [mac, row] : table->mcastMacsLocal()) suspectIs(*row);
      for (const Uuid& ls : rowSwitches(table->mcastMacsLocal())) {
        transact->opEnq(deleteSwitchRows<McastMacsLocal>(OvsdbDataType::mcastMacsLocal, ls, vni));
      }
      VGW_TRACE(6, "Deleting all local mcast macs for " << vni);
    }
  }
  if (transact->opCount() != 0) {
    requestQueue_->requestEnq(transact);
    ++transactions_;
  }
}

void LocalHostSm::suspectIs(const UcastMacsLocal& row) {
  suspects_.emplace(row.locator(), OvsdbDataType::physicalLocator);
}

void LocalHostSm::suspectIs(const McastMacsLocal& row) {
  suspects_.emplace(row.physicalLocatorSet(), OvsdbDataType::physicalLocatorSet);
  if (const Kiln::Ptr<PhysicalLocatorSet> set = ovsdb_->physicalLocatorSet(row.physicalLocatorSet())) {
    for (const Uuid& locator : set->locator()) suspects_.emplace(locator, OvsdbDataType::physicalLocator);
  }
}

void LocalHostSm::checkSuspects() {
  if (suspects_.empty()) return;
  VGW_TRACE(6, "Checking " << suspects_.size() << " locators and locator sets of deleted rows");
  const Kiln::Ptr<OvsdbTransactRequest> transact = newTransaction();
  for (const auto& [uuid, type] : suspects_) transact->opEnq(buildPresenceCheck(uuid, type));
  suspects_.clear();
  requestQueue_->requestEnq(transact);
}

void LocalHostSm::destroy(bool ignoreProcessResult) {
  VGW_TRACE(5, "LocalHostSm::destroy(" << ignoreProcessResult << ")");
  const Kiln::Ptr<OvsdbTransactRequest> transact = newTransaction();
  // The responses need a row to read; one without a switch or a VNI
  // removes nothing from the working data, which the teardown resets.
  const auto deleteAll = [&](OvsdbDataType type, Kiln::Ptr<OvsdbDataModel> row) {
    const Kiln::Ptr<OpDeleteRequest> op = buildDeleteWhere(type, nullptr);
    op->resultCountIs(0);
    op->ovsdbDataModelIs(std::move(row));
    transact->opEnq(op);
  };
  deleteAll(OvsdbDataType::ucastMacsLocal, Kiln::newPtr<UcastMacsLocal>(Uuid(), Ipkit::EthAddr()));
  deleteAll(OvsdbDataType::mcastMacsLocal, Kiln::newPtr<McastMacsLocal>(Uuid(), Ipkit::EthAddr()));
  transact->ignoreProcessResultIs(ignoreProcessResult);
  requestQueue_->requestEnq(transact);
  ++transactions_;
  initialized_ = false;
  unscheduleCodef();
  backlog_.clear();
  vniStatusSm_.clear();
  kilnVniStatusDir_.notifierIs(nullptr);
}

Kiln::Ptr<LocalHostSm> localHostSmFactory(const Kiln::Ptr<Kiln::Clock>& clock,
                                          const Kiln::Ptr<const OverlaySvc::VniStatusDirV2>& vniStatusDir,
                                          const Kiln::Ptr<HwVtepOvsdb>& ovsdb,
                                          const Kiln::Ptr<const CliConfig>& cliConfig,
                                          const Kiln::Ptr<OvsdbRequestQueue>& requestQueue) {
  return Kiln::newPtr<LocalHostSm>(clock, vniStatusDir, ovsdb, cliConfig, requestQueue);
}

}  // namespace Vgw
