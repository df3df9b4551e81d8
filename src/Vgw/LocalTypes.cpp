// The hand-written members of the working data: folding the controller's
// remote MAC rows into per-switch answers, the local MAC tables, and
// LocalData's reset and dump.
//
// Every answer of a RemoteHostTable (macVtep, macVtepList, ipToMac) is
// counted by the uuids of the rows that support it. The reference entry is
// always written before the answer, so a reactor of an answer finds the
// reference in place; it may outlive its answer with an empty set and is
// reused by the next insert. Each step costs a fixed number of hash lookups
// whatever the size of the table.
#include <ostream>

#include "Kiln/Assert.h"
#include "RingTape/RingTape.h"
#include "Vgw/LocalTypes.h"

RINGTAPE_HANDLE("VgwLocalTypes");

namespace Vgw {

RemoteHostTable::~RemoteHostTable() {
  // Reference entries may be held beyond this table; they must not keep
  // counting rows of a switch that is gone, nor point back at it.
  for (auto& [mac, refs] : macVtepRef_) {
    refs->ucastMacsRemoteRefDelAll();
    refs->parentIs(nullptr);
  }
  for (auto& [mac, refs] : macVtepListRef_) {
    refs->mcastMacsRemoteRefDelAll();
    refs->parentIs(nullptr);
  }
  for (auto& [ip, refs] : ipToMacRef_) {
    refs->ucastMacsRemoteRefDelAll();
    refs->parentIs(nullptr);
  }
}

bool RemoteHostTable::ucastMacInsert(const Kiln::Ptr<UcastMacsRemote>& row, bool locatorIsLoopback) {
  if (row->mac().isZero()) {
    VGW_TRACE(6, "Ignoring zero mac addr for UcastMacsRemote");
    return true;
  }
  // A loopback locator is no VTEP: such a row only binds its address.
  if (!locatorIsLoopback) {
    const MacVtep existing = macVtep(row->mac());
    if (existing != MacVtep() && !existing.physicalLocator().isNull() &&
        existing.physicalLocator() != row->physicalLocator()) {
      VGW_TRACE(0, "Inserting (" << row->mac() << ", " << row->physicalLocator() << ") conflicts with ("
                                 << row->mac() << ", " << existing.physicalLocator() << ")");
      VGW_TRACE(5, " return conflicting Mac, Vtep");
      return false;
    }
    macVtepInsert(row);
  }
  if (!row->ipAddr().isEmpty()) {
    const IpToMac existing = ipToMac(row->ipAddr());
    if (existing != IpToMac() && existing.mac() != row->mac()) {
      // The ring keeps this case in its historical wording.
      RINGTAPE_TRACE_(0, ::RingTape::streamTape, streamEnabled,
                      "Inserting (" << row->ipAddr() << ", " << row->mac() << ") conflicts with ("
                                    << row->ipAddr() << ", " << existing.mac() << ")");
      VGW_TRACE_RING(0, "Inserting (" << row->ipAddr() << ", " << row->mac() << ") will conflicts with ("
                                      << row->ipAddr() << ", " << existing.mac() << ")");
      VGW_TRACE(5, " return conflicting Ip, Mac");
      return false;
    }
    ipToMacInsert(row);
  }
  return true;
}

bool RemoteHostTable::ucastMacRemove(const Kiln::Ptr<UcastMacsRemote>& row) {
  macVtepRemove(row->mac(), row->uuid());
  ipToMacRemove(row->ipAddr(), row->uuid());
  return true;
}

bool RemoteHostTable::mcastMacInsert(const Kiln::Ptr<McastMacsRemote>& row) {
  // The zero MAC is welcome here: it is the switch's unknown-dst flood list.
  const MacVtepList existing = macVtepList(row->mac());
  if (existing != MacVtepList() && !existing.physicalLocatorSet().isNull() &&
      existing.physicalLocatorSet() != row->physicalLocatorSet()) {
    VGW_TRACE(0, "Inserting (" << row->mac() << ", " << row->physicalLocatorSet() << ") conflicts with ("
                               << row->mac() << ", " << existing.physicalLocatorSet() << ")");
    VGW_TRACE(5, " return conflicting Mac, Vtep flood");
    return false;
  }
  macVtepListInsert(row);
  return true;
}

bool RemoteHostTable::mcastMacRemove(const Kiln::Ptr<McastMacsRemote>& row) {
  macVtepListRemove(row->mac(), row->uuid());
  return true;
}

void RemoteHostTable::macVtepInsert(const Kiln::Ptr<UcastMacsRemote>& row) {
  const MacVtep macVtepPair = macVtep(row->mac());
  // An answer without a locator has no VTEP to disagree with; the first row
  // that names one supplies it.
  if (macVtepPair != MacVtep() && !macVtepPair.physicalLocator().isNull()) {
    KILN_ASSERT(macVtepPair.physicalLocator() == row->physicalLocator(),
                "macVtepPair.physicalLocator() == mac->physicalLocator() && \"method does not handle update\"");
    const Kiln::Ptr<MacVtepRef> macVtepRefs = macVtepRef(row->mac());
    KILN_ASSERT(macVtepRefs, "macVtepRefs && \"Mac Vtep Ref and Mac Vtep desync\"");
    VGW_TRACE(7, "Incr refs to " << macVtepPair);
    macVtepRefs->ucastMacsRemoteRefIs(row->uuid());
    return;
  }
  const MacVtep value(row->mac(), row->physicalLocator());
  VGW_TRACE(6, "Inserting " << value);
  macVtepRefIs(row->mac())->ucastMacsRemoteRefIs(row->uuid());
  macVtepIs(row->mac(), value);
}

void RemoteHostTable::macVtepRemove(const Ipkit::EthAddr& mac, const Vgw::Uuid& uuid) {
  const MacVtep existing = macVtep(mac);
  if (existing == MacVtep()) return;
  const Kiln::Ptr<MacVtepRef> macVtepRefs = macVtepRef(mac);
  KILN_ASSERT(macVtepRefs, "macVtepRefs && \"Mac Vtep Ref and Mac Vtep desync\"");
  macVtepRefs->ucastMacsRemoteRefDel(uuid);
  VGW_TRACE(7, "Dec refs to " << existing);
  if (macVtepRefs->ucastMacsRemoteRef().empty()) {
    VGW_TRACE(6, "Removing " << existing);
    macVtepDel(mac);
  }
}

void RemoteHostTable::macVtepListInsert(const Kiln::Ptr<McastMacsRemote>& row) {
  const MacVtepList macVtepListPair = macVtepList(row->mac());
  if (macVtepListPair != MacVtepList() && !macVtepListPair.physicalLocatorSet().isNull()) {
    KILN_ASSERT(macVtepListPair.physicalLocatorSet() == row->physicalLocatorSet(),
                "macVtepListPair.physicalLocatorSet() == mac->physicalLocatorSet() && \"method does not handle "
                "update\"");
    const Kiln::Ptr<MacVtepListRef> macVtepListRefs = macVtepListRef(row->mac());
    KILN_ASSERT(macVtepListRefs, "macVtepListRefs && \"Mac Flood Vtep Ref and Mac Flood Vtep desync\"");
    VGW_TRACE(7, "Incr refs to " << macVtepListPair);
    macVtepListRefs->mcastMacsRemoteRefIs(row->uuid());
    return;
  }
  const MacVtepList value(row->mac(), row->physicalLocatorSet());
  VGW_TRACE(6, "Inserting " << value);
  macVtepListRefIs(row->mac())->mcastMacsRemoteRefIs(row->uuid());
  macVtepListIs(row->mac(), value);
}

void RemoteHostTable::macVtepListRemove(const Ipkit::EthAddr& mac, const Vgw::Uuid& uuid) {
  const MacVtepList existing = macVtepList(mac);
  if (existing == MacVtepList()) return;
  const Kiln::Ptr<MacVtepListRef> macVtepListRefs = macVtepListRef(mac);
  KILN_ASSERT(macVtepListRefs, "macVtepListRefs && \"Mac Flood Vtep Ref and Mac Flood Vtep desync\"");
  macVtepListRefs->mcastMacsRemoteRefDel(uuid);
  VGW_TRACE(7, "Dec refs to " << existing);
  if (macVtepListRefs->mcastMacsRemoteRef().empty()) {
    VGW_TRACE(6, "Removing " << existing);
    macVtepListDel(mac);
  }
}

void RemoteHostTable::ipToMacInsert(const Kiln::Ptr<UcastMacsRemote>& row) {
  if (row->ipAddr().isEmpty()) return;
  const IpToMac existing = ipToMac(row->ipAddr());
  if (existing != IpToMac() && existing.mac() == row->mac() &&
      existing.physicalLocator() == row->physicalLocator()) {
    const Kiln::Ptr<IpToMacRef> ipToMacRefs = ipToMacRef(row->ipAddr());
    KILN_ASSERT(ipToMacRefs, "ipToMacRefs && \"Ip Mac Ref and Ip Mac desync\"");
    VGW_TRACE(7, "Incr refs to " << existing);
    ipToMacRefs->ucastMacsRemoteRefIs(row->uuid());
    return;
  }
  // A new binding, or the address moved to another VTEP: the newest row
  // takes over and the rows that said otherwise no longer count.
  ipToMacRefDel(row->ipAddr());
  const IpToMac value(row->ipAddr(), row->mac(), row->physicalLocator());
  VGW_TRACE(6, "Inserting " << value);
  ipToMacRefIs(row->ipAddr())->ucastMacsRemoteRefIs(row->uuid());
  ipToMacIs(row->ipAddr(), value);
}

void RemoteHostTable::ipToMacRemove(const Ipkit::IpGenAddr& ip, const Vgw::Uuid& uuid) {
  if (ip.isEmpty()) return;
  const IpToMac existing = ipToMac(ip);
  if (existing == IpToMac()) return;
  const Kiln::Ptr<IpToMacRef> ipToMacRefs = ipToMacRef(ip);
  KILN_ASSERT(ipToMacRefs, "ipToMacRefs && \"Mac Vtep Ref and Mac Vtep desync\"");
  ipToMacRefs->ucastMacsRemoteRefDel(uuid);
  VGW_TRACE(7, "Dec refs to " << existing);
  if (ipToMacRefs->ucastMacsRemoteRef().empty()) {
    VGW_TRACE(6, "Removing " << existing);
    ipToMacDel(ip);
  }
}

bool RemoteHostTable::processPendingMacs(const Kiln::Ptr<HwVtepOvsdb>& ovsdb) {
  // Each row leaves the pending map before it is folded in, so a conflict
  // drops the row that caused it and leaves the rest waiting.
  while (!pendingUcastMacsRemoteRaw_.empty()) {
    const Kiln::Ptr<UcastMacsRemote> row = pendingUcastMacsRemoteRawDel(pendingUcastMacsRemoteRaw_.begin()->first);
    const Kiln::Ptr<PhysicalLocator> physicalLocator = ovsdb->physicalLocatorRaw(row->physicalLocator());
    KILN_ASSERT(physicalLocator, "!!physicalLocator && \"Invalid physicalLocator uuid\"");
    if (!ucastMacInsert(row, physicalLocator->key().dstIp().isLoopback())) return false;
  }
  while (!pendingMcastMacsRemoteRaw_.empty()) {
    const Kiln::Ptr<McastMacsRemote> row = pendingMcastMacsRemoteRawDel(pendingMcastMacsRemoteRaw_.begin()->first);
    if (!mcastMacInsert(row)) return false;
  }
  return true;
}

Kiln::Ptr<UcastMacsLocal> UcastMacsLocalTable::ucastMacsLocalIs(const Vgw::Uuid& uuid, const Ipkit::EthAddr& mac) {
  if (Kiln::Ptr<UcastMacsLocal> row = ucastMacsLocal(mac)) {
    KILN_ASSERT(row->uuid() == uuid, "row->uuid() == uuid && \"Ucast_Macs_Local row re-instantiated under another uuid\"");
    return row;
  }
  auto row = Kiln::newPtr<UcastMacsLocal>(uuid, mac);
  ucastMacsLocalIs(mac, row);
  return row;
}

Kiln::Ptr<McastMacsLocal> McastMacsLocalTable::mcastMacsLocalIs(const Vgw::Uuid& uuid, const Ipkit::EthAddr& mac) {
  if (Kiln::Ptr<McastMacsLocal> row = mcastMacsLocal(mac)) {
    KILN_ASSERT(row->uuid() == uuid, "row->uuid() == uuid && \"Mcast_Macs_Local row re-instantiated under another uuid\"");
    return row;
  }
  auto row = Kiln::newPtr<McastMacsLocal>(uuid, mac);
  mcastMacsLocalIs(mac, row);
  return row;
}

void LocalData::reset() {
  remoteHostTableDelAll();
  vniToLogicalSwitchDelAll();
  uplinkPortVlanTableDelAll();
  localLocatorDelAll();
  ucastMacsLocalTableDelAll();
  mcastMacsLocalTableDelAll();
  physicalSwitchDelAll();

  monitorUpdateCompleteIs(false);
  ovsdbSynchronizedIs(false);
  lastMsgSentDetailIs(Kiln::String());

  switchBindingDirtyIs(false);
  transitVniDirtyIs(false);
  tunnelDirtyIs(false);
  errorReportDirtyIs(false);
  inventoryDirtyIs(false);
  // transitVni survives on purpose: a VNI stops being transit only when the
  // rows that made it so are deleted, and those deletes may come in the
  // next session. The convergence state and the counters span sessions.
}

void LocalData::dump(std::ostream& os) const {
  static const Kiln::AttrInfo* const shown[] = {
      &remoteHostTableAttr_,     &vniToLogicalSwitchAttr_, &nvpInternalLogicalSwitchAttr_,
      &delNvpInternalLogicalSwitchAttr_, &uplinkPortVlanTableAttr_, &switchBindingDirtyAttr_,
      &transitVniAttr_,          &transitVniDirtyAttr_,    &tunnelDirtyAttr_,
      &errorReportDirtyAttr_,    &localLocatorAttr_,       &ucastMacsLocalTableAttr_,
      &mcastMacsLocalTableAttr_, &physicalSwitchAttr_,     &monitorUpdateCompleteAttr_,
      &mgrConvergedAttr_,        &lastMsgSentDetailAttr_,  &ovsdbSynchronizedAttr_,
      &transactCounterAttr_};
  os << "Dump LocalData: ";
  for (const Kiln::AttrInfo* attr : shown) {
    os << ' ' << attr->name << ": " << attr->toJson(*this).dump(-1, ' ', false, Kiln::Json::error_handler_t::replace);
  }
}

}  // namespace Vgw
