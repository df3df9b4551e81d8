// VgwUtils: the rows of the mirror in and out of the database's JSON.
//
// unmarshal() reads one row object of a monitor message or a select into a
// row of the mirror, column by column against the schema the session
// fetched. It reconciles into the row it is given: a set or map column ends
// up holding exactly the members of the data, and only members that change
// go through the setters, so a modify of one column notifies only that
// column's reactors. Columns absent from the object are left alone, which is
// how the partial "old" object of a modify reads into a row of defaults.
// The schema is a contract: a column this unit doesn't know, a set or map of
// another shape, a default atom or a missing mandatory uuid asserts, so an
// agent facing a hardware_vtep schema of another version stops rather than
// keep a mirror of unknown content. Malformed addresses are not structure:
// they are traced and read as the empty value, and a VLAN key out of range
// drops only its entry. A tunnel key outside the VNI range reads as no key,
// with a level-0 trace naming the row.
//
// marshal() writes the columns the agent owns. An attribute that the row
// marks invalid (a partial row) is left out; everything else is written,
// empty sets and maps too, so a column that has become empty is cleared.
// A reference to a row inserted by the same transaction is a named uuid and
// goes out as ["named-uuid", name]; a real one as ["uuid", text].
//
// The builders turn rows into the operations of one OvsdbTransactRequest;
// getPhysicalLocator() and getPhysicalLocatorSet() find the locator (set) of
// some VTEP addresses in the mirror or in the transaction, or add an insert
// for it, so that one transaction inserts each locator once.
//
// JSON values are libopenvswitch's. Everything returned as Ovs::JsonPtr is
// owned by the caller; `const json*` arguments are borrowed.
#pragma once

#include <set>
#include <string_view>

#include "Ipkit/EthAddr.h"
#include "Ipkit/IntfId.h"
#include "Ipkit/IpGenAddr.h"
#include "Ipkit/SystemId.h"
#include "Kiln/String.h"
#include "Ovs/OvsHandles.h"
#include "Vgw/OvsdbRequest.h"
#include "model/Rows.h"

struct ds;

namespace RingTape {
class Args;
}

namespace Vgw {

// ---- values ----------------------------------------------------------------

// The address of the text; the zero address, with a trace, when it is none.
Ipkit::EthAddr toEthAddr(std::string_view text);
// The address of the text. The empty address for "" and for the unspecified
// addresses 0.0.0.0 and ::, which mean "none" in the database, and with a
// trace for text that is no address.
Ipkit::IpGenAddr toIpGenAddr(std::string_view text);
// An interface address with its mask. Anything else (bad text, an
// unspecified or empty address), which a controller may write as a
// switch_binding key, is traced at level 0 and gives the empty value.
Ipkit::IpGenAddrWithMask toIpGenAddrWithMask(std::string_view text);
// The interface of the text; the empty id, with a trace, when it is none.
Ipkit::IntfId toIntfId(std::string_view text);
// The text without one pair of surrounding double or single quotes; text
// without a matching pair comes back as it is.
Kiln::String stripQuotes(std::string_view text);
Kiln::String stripQuotes(const ds& text);

// A system id in the text form of a MAC, and back. Text that is no MAC
// reads as the zero id (which stands for no switch) and the zero MAC.
Kiln::String sysidToMac(const Fleet::SystemId& id);
Kiln::String sysidToMac(std::string_view sysidText);
Fleet::SystemId macToSysid(std::string_view mac);

// Interface names the physical model publishes: a connected Ethernet port,
// a plain port channel (no recirculation or ECMP group), an MLAG interface.
// Sub-interfaces are none of these.
bool isEthernetPort(std::string_view name);
bool isPortChannel(std::string_view name);
bool isMlag(std::string_view name);
// The name of the Physical_Switch row of an MLAG pair: "mlag-<name>".
Kiln::String mlagSwitchName(std::string_view name);

// The columns every table has and no row attribute holds.
bool isIgnoreColumn(std::string_view column);
// Whether a reply element is an error object; traces the error when it is.
bool isJsonError(const json& element);

// The text of a JSON value as json_to_string(value, 0) writes it, or at
// least its first `limit` bytes: a large value is rendered only as far as
// a reader will see it.
std::string jsonText(const json* value, std::size_t limit = std::string::npos);
// A JSON value in a trace, rendered as far as the trace keeps it.
struct TracedJson {
  const json* value;
};
void ringTapeArg(RingTape::Args& args, const TracedJson& value);

// ---- conditions ------------------------------------------------------------

// [column, function, value], taking `value` over.
Ovs::JsonPtr createConditionInternal(std::string_view column, std::string_view function, Ovs::JsonPtr value);
Ovs::JsonPtr createCondition(std::string_view column, std::string_view function, std::string_view text);
Ovs::JsonPtr createConditionUuid(std::string_view column, std::string_view function, const Uuid& uuid);
// ["_uuid", "==", ["uuid", text]]
Ovs::JsonPtr createUuidCondition(const Uuid& uuid);
// ["named-uuid", name] for a named uuid, ["uuid", text] for a real one.
Ovs::JsonPtr uuidToJson(const Uuid& uuid);

// ---- rows in ---------------------------------------------------------------

// Reads `data`, a row object, into `row` by the row's table. ACL rows are
// not mirrored and read as nothing. Ucast_Macs_Local and Mcast_Macs_Local
// rows are read with extractMacLocBindings instead.
void unmarshal(OvsdbDataModel& row, const json* data, const ovsdb_table_schema& schema);
void unmarshal(Global& row, const json* data, const ovsdb_table_schema& schema);
void unmarshal(Manager& row, const json* data, const ovsdb_table_schema& schema);
void unmarshal(PhysicalSwitch& row, const json* data, const ovsdb_table_schema& schema);
void unmarshal(PhysicalPort& row, const json* data, const ovsdb_table_schema& schema);
void unmarshal(LogicalSwitch& row, const json* data, const ovsdb_table_schema& schema);
void unmarshal(LogicalRouter& row, const json* data, const ovsdb_table_schema& schema);
void unmarshal(LogicalBindingStats& row, const json* data, const ovsdb_table_schema& schema);
void unmarshal(PhysicalLocator& row, const json* data, const ovsdb_table_schema& schema);
void unmarshal(PhysicalLocatorSet& row, const json* data, const ovsdb_table_schema& schema);
void unmarshal(Tunnel& row, const json* data, const ovsdb_table_schema& schema);
void unmarshal(ArpSourcesLocal& row, const json* data, const ovsdb_table_schema& schema);
void unmarshal(ArpSourcesRemote& row, const json* data, const ovsdb_table_schema& schema);
// The remote MAC rows take all four columns from the object: a column the
// object lacks reads as its zero value, not as the row's old one.
void unmarshal(UcastMacsRemote& row, const json* data, const ovsdb_table_schema& schema);
void unmarshal(McastMacsRemote& row, const json* data, const ovsdb_table_schema& schema);

// The columns of a row of any of the four MAC tables. Every output is
// cleared first. "unknown-dst" reads as the zero MAC; ipAddr is the text.
struct MacLocBindings {
  Kiln::String mac;
  Uuid logicalSwitch;
  Uuid locator;
  Uuid locatorSet;
  Kiln::String ipAddr;
};
void extractMacLocBindings(const json* data, const ovsdb_table_schema& schema, MacLocBindings& out);

// The logical_switch column of a MAC row, without the schema; null when the
// object has none.
Uuid unmarshalLogicalSwitchUuid(const json* data);
// Whether a Logical_Switch row object is the controller's placeholder
// "_nvp_internal", whose rows the agent ignores.
bool isLogicalSwitchNvpInternal(const json* data);
// Whether a Ucast_Macs_Remote row object lies on _nvp_internal.
bool isUcastMacsRemoteOnNvpInternal(const json* data);
// The same for a modify, whose old object holds only the changed columns.
// A row may not move onto or off _nvp_internal to or from a switch the
// mirror knows: that asserts.
bool isUcastMacsRemoteOnNvpInternal(const json* oldData, const json* newData, const HwVtepOvsdb& ovsdb);

// ---- rows out --------------------------------------------------------------

// The row object of an insert or update of `row`; null for the ACL table.
// Only the tables the agent writes can be marshalled.
Ovs::JsonPtr marshal(const OvsdbDataModelMutable& row);
Ovs::JsonPtr marshal(const Global& row);
Ovs::JsonPtr marshal(const Manager& row);
Ovs::JsonPtr marshal(const PhysicalSwitch& row);
Ovs::JsonPtr marshal(const PhysicalPort& row);
Ovs::JsonPtr marshal(const PhysicalLocator& row);
Ovs::JsonPtr marshal(const PhysicalLocatorSet& row);
Ovs::JsonPtr marshal(const UcastMacsLocal& row);
Ovs::JsonPtr marshal(const McastMacsLocal& row);
Ovs::JsonPtr marshal(const Tunnel& row);
Ovs::JsonPtr marshal(const ArpSourcesLocal& row);

// ---- operations --------------------------------------------------------------

// An insert of the row under its own (named) uuid; the row stays on the
// operation for the response.
Kiln::Ptr<OpInsertRequest> buildInsert(const Kiln::Ptr<OvsdbDataModelMutable>& row);
// An update of one row: where `where` is null, the row of `uuid`.
Kiln::Ptr<OpUpdateRequest> buildUpdate(const Uuid& uuid, const Kiln::Ptr<OvsdbDataModelMutable>& row,
                                       Ovs::JsonPtr where = nullptr);
// A delete of the rows matching `condition`, of every row when it is null.
// One row is expected; a caller deleting more sets resultCountIs(0).
Kiln::Ptr<OpDeleteRequest> buildDeleteWhere(OvsdbDataType type, Ovs::JsonPtr condition);
Kiln::Ptr<OpDeleteRequest> buildDelete(const Uuid& uuid, OvsdbDataType type);
// A check that row `uuid` still exists (see OpSelectRequest).
Kiln::Ptr<OpSelectRequest> buildPresenceCheck(const Uuid& uuid, OvsdbDataType type);
// A mutate of row `uuid` taking `mutations` over; `column` (the attribute
// name) and `uuids` tell the response what changed.
Kiln::Ptr<OpMutateRequest> buildMutate(const Uuid& uuid, MutaterOp mutaterOp, const Kiln::String& column,
                                       const std::set<Uuid>& uuids, OvsdbDataType type, Ovs::JsonPtr mutations);

// A Global row of these switches and managers, under a named uuid.
Kiln::Ptr<Global> createGlobal(const std::set<Uuid>& pSwitches, const std::set<Uuid>& managers);
// A Manager row of this target, under a named uuid.
Kiln::Ptr<Manager> createManager(const Kiln::String& target);

// The locator of `ip`: the mirror's, else one this transaction inserts
// already, else a new one whose insert is added to the transaction.
Kiln::Ptr<const PhysicalLocator> getPhysicalLocator(const HwVtepOvsdb& ovsdb, const Ipkit::IpGenAddr& ip,
                                                    OvsdbTransactRequest& transact);
// The locator set of exactly the addresses `ips`, found the same way; a new
// set brings the inserts of its new locators along.
Kiln::Ptr<const PhysicalLocatorSet> getPhysicalLocatorSet(const HwVtepOvsdb& ovsdb,
                                                          const std::set<Ipkit::IpGenAddr>& ips,
                                                          OvsdbTransactRequest& transact);

}  // namespace Vgw
