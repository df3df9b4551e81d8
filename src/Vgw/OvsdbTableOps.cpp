#include "Vgw/OvsdbTableOps.h"

#include <openvswitch/json.h>

#include <vector>

#include "Kiln/Assert.h"
#include "RingTape/RingTape.h"
#include "Vgw/LocalTypes.h"
#include "Vgw/VgwUtils.h"

RINGTAPE_HANDLE("OvsdbTableOps");

namespace Vgw {

namespace {

constexpr const char* notImplemented = "false && \"Not implemented\"";
constexpr const char* unmappedSetMember = "Uuid mapping to named uuid doesn't exist.";
constexpr const char* unmappedUuid = "Named Uuid not mapped to Uuid";

const OvsdbTable& ovsdbTable() { return *Kiln::Entity::singletonIs<OvsdbTable>(); }
LocalData& localData() { return *Kiln::Entity::singletonIs<LocalData>(); }

HwVtepOvsdb& mirror(const OpRequest& op) {
  KILN_ASSERT(op.ovsdb(), "ovsdb && \"Transaction response without a mirror\"");
  return *op.ovsdb();
}

template <class Row>
Row& rowOf(const OpRequest& op, const char* failText) {
  auto* row = dynamic_cast<Row*>(op.ovsdbDataModel().get());
  KILN_ASSERT(row, failText);
  return *row;
}

std::string assertText(const char* variable, const char* message) {
  return std::string("!!") + variable + " && \"" + message + "\"";
}

// Replaces each named member of a uuid set by the uuid its insert got.
template <class Row>
void remapSet(Row& row, const std::set<Uuid>& members, void (Row::*add)(const Uuid&, bool),
              bool (Row::*del)(const Uuid&), const char* variable, const char* joiner) {
  std::vector<Uuid> named;
  for (const Uuid& m : members) {
    if (m.isNamed()) named.push_back(m);
  }
  for (const Uuid& n : named) {
    const Uuid real = ovsdbTable().namedUuidToUuid(n);
    KILN_ASSERT(!real.isNull(), assertText(variable, unmappedSetMember).c_str());
    VGW_TRACE(6, "Re-map " << n << joiner << real);
    (row.*add)(real, true);
    (row.*del)(n);
  }
}

// The uuid itself when it is real, else the uuid its insert got.
Uuid remapped(const Uuid& uuid, const char* variable) {
  if (!uuid.isNamed() || uuid.isNull()) return uuid;
  const Uuid real = ovsdbTable().namedUuidToUuid(uuid);
  KILN_ASSERT(!real.isNull(), assertText(variable, unmappedUuid).c_str());
  VGW_TRACE(6, "Re-map " << uuid << " to " << real);
  return real;
}

std::string setText(const std::set<Uuid>& members) {
  std::string text;
  for (const Uuid& m : members) text += " " + m.stringValue().stringValue();
  return text;
}

// The key of a switch in LocalData: its MLAG id when it is a pair, else its
// only system id.
Fleet::SystemId switchKey(const PhysicalSwitch& pSwitch) {
  if (!pSwitch.mlagSystemId().isZero()) return pSwitch.mlagSystemId();
  KILN_ASSERT(pSwitch.systemId().size() == 1, "pSwitch->systemIds() == 1 && \"Non-mlag\"");
  return *pSwitch.systemId().begin();
}

// The VNI of a local MAC row: the one it carries, else its logical switch's.
Vxlan::VniOrNone localRowVni(const HwVtepOvsdb& ovsdb, const Vxlan::VniOrNone& own, const Uuid& logicalSwitch) {
  if (own.isValid()) return own;
  const Kiln::Ptr<LogicalSwitch> ls = ovsdb.logicalSwitch(logicalSwitch);
  return ls ? ls->tunnelKey() : Vxlan::VniOrNone();
}

// The VNI of a local MAC row being written; one out of range throws.
Vxlan::Vni logicalSwitchVni(const HwVtepOvsdb& ovsdb, const Uuid& logicalSwitch) {
  const Kiln::Ptr<LogicalSwitch> ls = ovsdb.logicalSwitch(logicalSwitch);
  return (ls ? ls->tunnelKey() : Vxlan::VniOrNone()).vni();
}

// Whether a delete names all rows of the row's logical switch rather than
// the row itself.
bool deletesLogicalSwitch(const OpDeleteRequest& op, const Uuid& logicalSwitch) {
  const Ovs::JsonPtr wholeSwitch(json_array_create_1(createConditionUuid("logical_switch", "==", logicalSwitch).release()));
  return op.where() && json_equal(op.where(), wholeSwitch.get());
}

// Removes the local MAC rows a delete took away: the row's MAC, or every MAC
// of its VNI for a delete of the whole logical switch. The table object stays.
template <class Row, class Table, class Removed>
void deleteLocalMacs(const OpDeleteRequest& op, Kiln::Ptr<Table> (LocalData::*tableOf)(const Vxlan::Vni&) const,
                     void (Table::*delAll)(), Removed (Table::*del)(const Ipkit::EthAddr&), const char* allText) {
  VGW_TRACE(6, " uuid: " << op.uuid());
  const Row& row = rowOf<Row>(op, "row && \"Delete of a local MAC without its row\"");
  const Vxlan::VniOrNone vni = localRowVni(mirror(op), row.vniOrNone(), row.logicalSwitch());
  if (!vni.isValid()) {
    VGW_TRACE(6, " return no vni for " << row.mac());
    return;
  }
  const Kiln::Ptr<Table> table = (localData().*tableOf)(vni.vni());
  if (!table) return;
  if (deletesLogicalSwitch(op, row.logicalSwitch())) {
    VGW_TRACE(6, allText << vni);
    ((*table).*delAll)();
  } else {
    ((*table).*del)(row.mac());
  }
}

}  // namespace

// ---- OvsdbTableOp ------------------------------------------------------------

void OvsdbTableOp::processInsertResp(const Kiln::Ptr<OpInsertRequest>&) const { KILN_ASSERT(false, notImplemented); }
void OvsdbTableOp::processUpdateResp(const Kiln::Ptr<OpUpdateRequest>&) const { KILN_ASSERT(false, notImplemented); }
void OvsdbTableOp::processDeleteResp(const Kiln::Ptr<OpDeleteRequest>&) const { KILN_ASSERT(false, notImplemented); }
void OvsdbTableOp::processMutateResp(const Kiln::Ptr<OpMutateRequest>&) const { KILN_ASSERT(false, notImplemented); }
void OvsdbTableOp::processSelectResp(const Kiln::Ptr<OpSelectRequest>&) const { KILN_ASSERT(false, notImplemented); }

// ---- Global ------------------------------------------------------------------

void GlobalOp::processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const { processGlobalInsertUpdateResp(*op); }
void GlobalOp::processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const { processGlobalInsertUpdateResp(*op); }

void GlobalOp::processGlobalInsertUpdateResp(const OpRequest& op) const {
  Global& row = rowOf<Global>(op, "newGlobal && \"New Global cast failed.\"");
  VGW_TRACE(6, "Global switches:" << setText(row.pSwitch()));
  remapSet(row, row.pSwitch(), &Global::pSwitchIs, &Global::pSwitchDel, "pSwitchUuid", " to ");
  VGW_TRACE(6, "Global managers:" << setText(row.manager()));
  remapSet(row, row.manager(), &Global::managerIs, &Global::managerDel, "uuid", " to ");
  mirror(op).rootIs(op.uuid())->clone(row);
}

void GlobalOp::processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const {
  VGW_TRACE(6, " uuid: " << op->uuid());
  mirror(*op).rootDel(op->uuid());
}

void GlobalOp::processMutateResp(const Kiln::Ptr<OpMutateRequest>& op) const {
  if (op->mutateColumn() == "pSwitch") {
    processMutateRespPSwitch(*op);
  } else if (op->mutateColumn() == "otherConfig") {
    processMutateRespOtherConfig(*op);
  } else {
    KILN_ASSERT(false, "false && \"Unsupported mutateColumn\"");
  }
}

void GlobalOp::processMutateRespPSwitch(const OpMutateRequest& op) const {
  KILN_ASSERT(op.mutateColumn() == "pSwitch", "op->mutateColumn() == \"pSwitch\"");
  HwVtepOvsdb& ovsdb = mirror(op);
  const Kiln::Ptr<Global> global = ovsdb.rootIs(op.uuid());
  VGW_TRACE(6, "pSwitch set: " << setText(global->pSwitch()));
  switch (op.mutaterOp()) {
    case MutaterOp::mutaterOpInsert:
      for (const auto& [member, in] : op.mutateSet()) {
        const Uuid pSwitchId = member.isNamed() ? ovsdbTable().namedUuidToUuid(member) : member;
        KILN_ASSERT(!pSwitchId.isNull(), "!!pSwitchId && \"Uuid mapping to named uuid doesn't exist.\"");
        if (ovsdb.physicalSwitchRaw(pSwitchId)) global->pSwitchIs(pSwitchId, true);
      }
      break;
    case MutaterOp::mutaterOpDelete:
      for (const auto& [member, in] : op.mutateSet()) {
        if (!ovsdb.physicalSwitchRaw(member)) continue;
        VGW_TRACE(6, member << " deleted");
        global->pSwitchDel(member);
      }
      break;
    default: KILN_ASSERT(false, "false && \"Unsupported mutaterOp\"");
  }
}

void GlobalOp::processMutateRespOtherConfig(const OpMutateRequest& op) const {
  KILN_ASSERT(op.mutateColumn() == "otherConfig", "op->mutateColumn() == \"otherConfig\"");
  // The mirror's other_config follows the monitor.
  switch (op.mutaterOp()) {
    case MutaterOp::mutaterOpInsert: VGW_TRACE(6, "Op: insert"); break;
    case MutaterOp::mutaterOpDelete: VGW_TRACE(6, "Op: delete"); break;
    default: KILN_ASSERT(false, "false && \"Unsupported mutaterOp\"");
  }
}

// ---- Manager -----------------------------------------------------------------

void ManagerOp::processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const { processManagerInsertUpdateResp(*op); }
void ManagerOp::processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const { processManagerInsertUpdateResp(*op); }

void ManagerOp::processManagerInsertUpdateResp(const OpRequest& op) const {
  const Manager& row = rowOf<Manager>(op, "newManager && \"New Manager cast failed.\"");
  HwVtepOvsdb& ovsdb = mirror(op);
  const Kiln::Ptr<Manager> manager = ovsdb.managerRawIs(op.uuid());
  manager->clone(row);
  ovsdb.managerIs(manager->target(), manager);
}

void ManagerOp::processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const {
  VGW_TRACE(6, " uuid: " << op->uuid());
  HwVtepOvsdb& ovsdb = mirror(*op);
  if (const Kiln::Ptr<Manager> row = ovsdb.managerRawDel(op->uuid())) {
    ovsdb.managerDel(row->target());
  } else {
    VGW_TRACE(6, " return Manager already deleted");
  }
}

// ---- Physical_Switch -----------------------------------------------------------

void PhysicalSwitchOp::processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const {
  processPhysicalSwitchInsertUpdateResp(*op);
}
void PhysicalSwitchOp::processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const {
  processPhysicalSwitchInsertUpdateResp(*op);
}

void PhysicalSwitchOp::processPhysicalSwitchInsertUpdateResp(const OpRequest& op) const {
  HwVtepOvsdb& ovsdb = mirror(op);
  Kiln::String oldDisplayName;
  if (const Kiln::Ptr<PhysicalSwitch> existing = ovsdb.physicalSwitchRaw(op.uuid())) {
    oldDisplayName = existing->displayName();
  }
  PhysicalSwitch& row = rowOf<PhysicalSwitch>(op, "newPswitch && \"New Physical Switch cast failed.\"");
  VGW_TRACE(6, "Physical Switch ports:" << setText(row.port()));
  remapSet(row, row.port(), &PhysicalSwitch::portIs, &PhysicalSwitch::portDel, "portUuid", " to ");
  VGW_TRACE(6, "Physical Switch tunnels:" << setText(row.tunnel()));
  remapSet(row, row.tunnel(), &PhysicalSwitch::tunnelIs, &PhysicalSwitch::tunnelDel, "tunnelUuid", " to ");

  const Kiln::Ptr<PhysicalSwitch> pSwitch = ovsdb.physicalSwitchRawIs(op.uuid());
  pSwitch->clone(row);
  VGW_TRACE(6, "New pSwitch tunnels" << setText(pSwitch->tunnel()));
  if (!oldDisplayName.empty() && oldDisplayName != pSwitch->displayName()) {
    const bool removed = ovsdb.physicalSwitchDel(oldDisplayName) != nullptr;
    KILN_ASSERT(removed, "ovsdb->physicalSwitchDel( oldDisplayName ) && \"Failed to remove old switch name index\"");
  }
  ovsdb.physicalSwitchIs(pSwitch->displayName(), pSwitch);
  localData().physicalSwitchIs(switchKey(*pSwitch), pSwitch);
}

void PhysicalSwitchOp::processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const {
  VGW_TRACE(6, " uuid: " << op->uuid());
  HwVtepOvsdb& ovsdb = mirror(*op);
  const Kiln::Ptr<PhysicalSwitch> row = ovsdb.physicalSwitchRawDel(op->uuid());
  if (!row) {
    VGW_TRACE(6, " return Physical Switch already deleted");
    return;
  }
  ovsdb.physicalSwitchDel(row->displayName());
  // Only a switch this agent wrote carries its fabric identity; one read
  // from the database was never indexed by it.
  if (!row->mlagSystemId().isZero() || row->systemId().size() == 1) localData().physicalSwitchDel(switchKey(*row));
}

// ---- Physical_Port -------------------------------------------------------------

void PhysicalPortOp::processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const {
  processPhysicalPortInsertUpdateResp(*op);
}
void PhysicalPortOp::processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const {
  processPhysicalPortInsertUpdateResp(*op);
}

void PhysicalPortOp::processPhysicalPortInsertUpdateResp(const OpRequest& op) const {
  const PhysicalPort& row = rowOf<PhysicalPort>(op, "newPport && \"New Physical Port cast failed.\"");
  mirror(op).physicalPortIs(op.uuid())->clone(row);
}

void PhysicalPortOp::processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const {
  VGW_TRACE(6, " uuid: " << op->uuid());
  mirror(*op).physicalPortDel(op->uuid());
}

// ---- Physical_Locator ----------------------------------------------------------

void PhysicalLocatorOp::processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const {
  processPhysicalLocatorInsertUpdateResp(*op);
}
void PhysicalLocatorOp::processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const {
  processPhysicalLocatorInsertUpdateResp(*op);
}

void PhysicalLocatorOp::processPhysicalLocatorInsertUpdateResp(const OpRequest& op) const {
  HwVtepOvsdb& ovsdb = mirror(op);
  KILN_ASSERT(!ovsdb.physicalLocatorRaw(op.uuid()),
              "!ovsdb->physicalLocatorRaw( uuid ) && \"Do not support physical locator updates\"");
  const PhysicalLocator& row = rowOf<PhysicalLocator>(op, "newLocator && \"New Physical Locator cast failed.\"");
  const Kiln::Ptr<PhysicalLocator> locator = ovsdb.physicalLocatorRawIs(op.uuid());
  locator->clone(row);
  ovsdb.physicalLocatorIs(locator->key().dstIp(), locator);
  localData().localLocatorIs(locator->key(), locator);
}

void PhysicalLocatorOp::processSelectResp(const Kiln::Ptr<OpSelectRequest>& op) const {
  if (op->found()) return;
  HwVtepOvsdb& ovsdb = mirror(*op);
  const Kiln::Ptr<PhysicalLocator> locator = ovsdb.physicalLocatorRaw(op->uuid());
  if (!locator) return;
  VGW_TRACE(6, "Physical locator " << op->uuid() << " of " << locator->key().dstIp() << " was collected");
  if (localData().localLocator(locator->key()) == locator) localData().localLocatorDel(locator->key());
  if (ovsdb.physicalLocator(locator->key().dstIp()) == locator) ovsdb.physicalLocatorDel(locator->key().dstIp());
  // The row itself stays until the monitor's delete: rows of other tables
  // that named it may still be on their way out of the mirror.
}

void PhysicalLocatorOp::processDeleteResp(const Kiln::Ptr<OpDeleteRequest>&) const {
  KILN_ASSERT(false, "0 && \"Do not support physical locator deletes\"");
}

// ---- Physical_Locator_Set ------------------------------------------------------

void PhysicalLocatorSetOp::processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const {
  processPhysicalLocatorSetInsertUpdateResp(*op);
}
void PhysicalLocatorSetOp::processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const {
  processPhysicalLocatorSetInsertUpdateResp(*op);
}

void PhysicalLocatorSetOp::processPhysicalLocatorSetInsertUpdateResp(const OpRequest& op) const {
  const PhysicalLocatorSet& row =
      rowOf<PhysicalLocatorSet>(op, "newLocatorSet && \"New Physical Locator Set cast failed.\"");
  const Kiln::Ptr<PhysicalLocatorSet> set = mirror(op).physicalLocatorSetIs(op.uuid());
  set->clone(row);
  remapSet(*set, set->locator(), &PhysicalLocatorSet::locatorIs, &PhysicalLocatorSet::locatorDel, "locatorUuid",
           " with ");
}

void PhysicalLocatorSetOp::processDeleteResp(const Kiln::Ptr<OpDeleteRequest>&) const {
  KILN_ASSERT(false, "0 && \"Do not support physical locator set deletes\"");
}

void PhysicalLocatorSetOp::processSelectResp(const Kiln::Ptr<OpSelectRequest>& op) const {
  if (op->found()) return;
  VGW_TRACE(6, "Physical locator set " << op->uuid() << " was collected");
  mirror(*op).physicalLocatorSetDel(op->uuid());
}

// ---- Ucast_Macs_Local ----------------------------------------------------------

void UcastMacsLocalOp::processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const {
  processUcastMacsLocalInsertUpdateResp(*op);
}
void UcastMacsLocalOp::processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const {
  processUcastMacsLocalInsertUpdateResp(*op);
}

void UcastMacsLocalOp::processUcastMacsLocalInsertUpdateResp(const OpRequest& op) const {
  HwVtepOvsdb& ovsdb = mirror(op);
  UcastMacsLocal& row = rowOf<UcastMacsLocal>(op, "newMac && \"New Ucast Macs Local cast failed.\"");
  row.logicalSwitchIs(remapped(row.logicalSwitch(), "logicalSwitchUuid"));
  row.locatorIs(remapped(row.locator(), "locatorUuid"));
  const Kiln::Ptr<LogicalSwitch> ls = ovsdb.logicalSwitch(row.logicalSwitch());
  const Kiln::Ptr<PhysicalLocator> locator = ovsdb.physicalLocatorRaw(row.locator());
  VGW_TRACE(6, "Uuid: " << op.uuid() << " Mac: " << row.mac() << " Logical Switch: " << row.logicalSwitch()
                        << " Vni: " << (ls ? ls->tunnelKey() : Vxlan::VniOrNone()) << " Locator: " << row.locator()
                        << " Vtep: " << (locator ? locator->key().dstIp() : Ipkit::IpGenAddr()));
  const Vxlan::Vni vni = logicalSwitchVni(ovsdb, row.logicalSwitch());
  const Kiln::Ptr<UcastMacsLocal> mac = localData().ucastMacsLocalTableIs(vni)->ucastMacsLocalIs(op.uuid(), row.mac());
  // A row that doesn't carry an address keeps the one it has.
  if (!row.invalidAttrib("ipAddr") && row.ipAddr().isEmpty()) row.ipAddrIs(mac->ipAddr());
  mac->clone(row);
}

void UcastMacsLocalOp::processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const {
  deleteLocalMacs<UcastMacsLocal>(*op, &LocalData::ucastMacsLocalTable, &UcastMacsLocalTable::ucastMacsLocalDelAll,
                                  &UcastMacsLocalTable::ucastMacsLocalDel, "Process all ucast mac delete for ");
}

// ---- Mcast_Macs_Local ----------------------------------------------------------

void McastMacsLocalOp::processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const {
  processMcastMacsLocalInsertUpdateResp(*op);
}
void McastMacsLocalOp::processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const {
  processMcastMacsLocalInsertUpdateResp(*op);
}

void McastMacsLocalOp::processMcastMacsLocalInsertUpdateResp(const OpRequest& op) const {
  HwVtepOvsdb& ovsdb = mirror(op);
  McastMacsLocal& row = rowOf<McastMacsLocal>(op, "newMac && \"New Mcast Macs Local cast failed.\"");
  row.logicalSwitchIs(remapped(row.logicalSwitch(), "logicalSwitchUuid"));
  row.physicalLocatorSetIs(remapped(row.physicalLocatorSet(), "locatorSetUuid"));
  VGW_TRACE(6, "Uuid: " << op.uuid() << " Mac: " << row.mac() << " Logical Switch: " << row.logicalSwitch()
                        << " Locator Set: " << row.physicalLocatorSet());
  const Vxlan::Vni vni = logicalSwitchVni(ovsdb, row.logicalSwitch());
  localData().mcastMacsLocalTableIs(vni)->mcastMacsLocalIs(op.uuid(), row.mac())->clone(row);
}

void McastMacsLocalOp::processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const {
  deleteLocalMacs<McastMacsLocal>(*op, &LocalData::mcastMacsLocalTable, &McastMacsLocalTable::mcastMacsLocalDelAll,
                                  &McastMacsLocalTable::mcastMacsLocalDel, "Process all mcast mac delete for ");
}

// ---- Tunnel --------------------------------------------------------------------

void TunnelOp::processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const { processTunnelInsertUpdateResp(*op); }
void TunnelOp::processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const { processTunnelInsertUpdateResp(*op); }

void TunnelOp::processTunnelInsertUpdateResp(const OpRequest& op) const {
  HwVtepOvsdb& ovsdb = mirror(op);
  Tunnel& row = rowOf<Tunnel>(op, "newTunnel && \"New Tunnel cast failed.\"");
  row.localLocatorIs(remapped(row.localLocator(), "localLocatorUuid"));
  row.remoteLocatorIs(remapped(row.remoteLocator(), "remoteLocatorUuid"));
  const Kiln::Ptr<Tunnel> tunnel = ovsdb.tunnelRawIs(op.uuid());
  tunnel->clone(row);
  const Kiln::Ptr<PhysicalLocator> local = ovsdb.physicalLocatorRaw(tunnel->localLocator());
  const Kiln::Ptr<PhysicalLocator> remote = ovsdb.physicalLocatorRaw(tunnel->remoteLocator());
  if (local && remote && !local->key().dstIp().isEmpty() && !remote->key().dstIp().isEmpty()) {
    ovsdb.tunnelIs(LocalRemoteVtepPair(local->key().dstIp(), remote->key().dstIp()), tunnel);
  }
}

void TunnelOp::processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const {
  VGW_TRACE(6, " uuid: " << op->uuid());
}

// ---- Arp_Sources_Local ---------------------------------------------------------

void ArpSourcesLocalOp::processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const {
  processArpSourcesLocalInsertUpdateResp(*op);
}
void ArpSourcesLocalOp::processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const {
  processArpSourcesLocalInsertUpdateResp(*op);
}

void ArpSourcesLocalOp::processArpSourcesLocalInsertUpdateResp(const OpRequest& op) const {
  HwVtepOvsdb& ovsdb = mirror(op);
  ArpSourcesLocal& row = rowOf<ArpSourcesLocal>(op, "newArp && \"New Arp Sources Local cast failed.\"");
  row.locatorIs(remapped(row.locator(), "locatorUuid"));
  const Kiln::Ptr<ArpSourcesLocal> arp = ovsdb.arpSourcesLocalRawIs(op.uuid());
  arp->clone(row);
  ovsdb.arpSourcesLocalIs(arp->srcMac(), arp);
}

void ArpSourcesLocalOp::processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const {
  VGW_TRACE(6, " uuid: " << op->uuid());
  HwVtepOvsdb& ovsdb = mirror(*op);
  if (const Kiln::Ptr<ArpSourcesLocal> row = ovsdb.arpSourcesLocalRawDel(op->uuid())) {
    ovsdb.arpSourcesLocalDel(row->srcMac());
  } else {
    VGW_TRACE(6, " return ArpSourceLocal already deleted");
  }
}

// ---- OvsdbTable ----------------------------------------------------------------

const Kiln::TypeInfo OvsdbTable::typeInfo_{
    "Vgw::OvsdbTable", &Kiln::Entity::typeInfo_, {},
    [](const Kiln::Name& name) { return Kiln::Ptr<Kiln::Entity>(Kiln::newPtr<OvsdbTable>(name)); },
    [](const Kiln::Entity& like) { return Kiln::Ptr<Kiln::Entity>(Kiln::newPtr<OvsdbTable>(like.name())); }};
static const Kiln::TypeRegistration ovsdbTableRegistration(OvsdbTable::typeInfo_);

OvsdbTable::OvsdbTable(Kiln::Name name) : Kiln::Entity(std::move(name)) { handleInitialized(); }

void OvsdbTable::handleInitialized() {
  if (initialized_) return;
  using T = OvsdbDataType;
  const auto add = [&](Kiln::Ptr<const OvsdbTableOp> op) { ovsdbTableOp_.emplace(op->type(), std::move(op)); };
  add(Kiln::newPtr<PhysicalPortOp>(T::physicalPort));
  add(Kiln::newPtr<PhysicalSwitchOp>(T::physicalSwitch));
  add(Kiln::newPtr<PhysicalLocatorOp>(T::physicalLocator));
  add(Kiln::newPtr<PhysicalLocatorSetOp>(T::physicalLocatorSet));
  add(Kiln::newPtr<ManagerOp>(T::manager));
  add(Kiln::newPtr<GlobalOp>(T::global));
  add(Kiln::newPtr<UcastMacsLocalOp>(T::ucastMacsLocal));
  add(Kiln::newPtr<McastMacsLocalOp>(T::mcastMacsLocal));
  add(Kiln::newPtr<TunnelOp>(T::tunnel));
  add(Kiln::newPtr<ArpSourcesLocalOp>(T::arpSourcesLocal));

  ovsdbTransactOrder_ = {T::logicalSwitch,      T::logicalBindingStats, T::tunnel, T::physicalPort,
                         T::physicalSwitch,     T::physicalLocator,     T::physicalLocatorSet,
                         T::manager,            T::global,              T::ucastMacsLocal,
                         T::mcastMacsLocal,     T::arpSourcesLocal};

  using B = OverlaySvc::BfdOperState;
  ovsdbBfdOperState_ = {{B::bfdDown, "down"}, {B::bfdInit, "init"}, {B::bfdUp, "up"}, {B::bfdAdminDown, "admin_down"}};
  initialized_ = true;
}

Kiln::Ptr<const OvsdbTableOp> OvsdbTable::ovsdbTableOp(OvsdbDataType type) const {
  auto it = ovsdbTableOp_.find(type);
  return it == ovsdbTableOp_.end() ? nullptr : it->second;
}

Kiln::String OvsdbTable::ovsdbBfdOperState(OverlaySvc::BfdOperState state) const {
  auto it = ovsdbBfdOperState_.find(state);
  return it == ovsdbBfdOperState_.end() ? Kiln::String() : it->second;
}

Uuid OvsdbTable::namedUuidToUuid(const Uuid& named) const {
  auto it = namedUuidToUuid_.find(named);
  return it == namedUuidToUuid_.end() ? Uuid() : it->second;
}

}  // namespace Vgw
