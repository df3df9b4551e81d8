#include "Vgw/VgwUtils.h"

#include <openvswitch/dynamic-string.h>
#include <openvswitch/json.h>
#include <openvswitch/shash.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "Kiln/Assert.h"
#include "Kiln/Exception.h"
#include "RingTape/RingTape.h"
#include "RingTape/Args.h"
#include "Vgw/LocalTypes.h"

RINGTAPE_HANDLE("VgwUtils");

namespace Vgw {

namespace {

constexpr std::string_view unknownDst = "unknown-dst";
constexpr const char* zeroMacText = "00:00:00:00:00:00";
constexpr const char* nvpInternalName = "_nvp_internal";

constexpr const char* unexpectedColumn = "processed && \"Unexpected column name\"";
constexpr const char* defaultKey = "!ovsdb_atom_is_default( &key, type.key.type )";
constexpr const char* defaultValue = "!ovsdb_atom_is_default( &value, type.value.type )";
constexpr const char* keyIsUuid = "type.key.type == OVSDB_TYPE_UUID";
constexpr const char* keyIsString = "type.key.type == OVSDB_TYPE_STRING";
constexpr const char* keyIsInteger = "type.key.type == OVSDB_TYPE_INTEGER";
constexpr const char* valueIsUuid = "type.value.type == OVSDB_TYPE_UUID";
constexpr const char* valueIsString = "type.value.type == OVSDB_TYPE_STRING";

Uuid toUuid(const uuid& u) { return Uuid(u.parts[0], u.parts[1], u.parts[2], u.parts[3]); }

const shash_node* nextMember(const shash* members, const shash_node* node) {
  // A shash node begins with its hmap node.
  return reinterpret_cast<const shash_node*>(hmap_next(&members->map, &node->node));
}

const json* member(const json* object, const char* name) {
  return static_cast<const json*>(shash_find_data(json_object(object), name));
}

// One column of a row object, parsed against its schema column.
class Cell {
 public:
  Cell(std::string_view name, const ovsc_column* column, const ovsc_datum* datum)
      : name_(name), column_(column), datum_(datum) {}

  std::string_view name() const { return name_; }
  const ovsc_column* column() const { return column_; }
  unsigned count() const { return ovsc_datum_count(datum_); }
  ovsc_atomic_type keyType() const { return ovsc_column_key_type(column_); }
  ovsc_atomic_type valueType() const { return ovsc_column_value_type(column_); }
  bool isDefault(unsigned i, ovsc_atom_role role = OVSC_KEY) const {
    return ovsc_ovsdb_atom_is_default(datum_, role, i);
  }

  // Atoms read as their type; an atom of another type reads as the zero value.
  std::string_view text(unsigned i = 0, ovsc_atom_role role = OVSC_KEY) const {
    const char* s = nullptr;
    return ovsc_datum_string(datum_, role, i, &s) ? std::string_view(s) : std::string_view();
  }
  Uuid uuidAt(unsigned i = 0, ovsc_atom_role role = OVSC_KEY) const {
    uuid u{};
    return ovsc_datum_uuid(datum_, role, i, &u) ? toUuid(u) : Uuid();
  }
  std::int64_t integer(unsigned i = 0, ovsc_atom_role role = OVSC_KEY) const {
    std::int64_t v = 0;
    ovsc_datum_integer(datum_, role, i, &v);
    return v;
  }
  bool boolean() const {
    bool v = false;
    ovsc_datum_boolean(datum_, OVSC_KEY, 0, &v);
    return v;
  }

 private:
  std::string_view name_;
  const ovsc_column* column_;
  const ovsc_datum* datum_;
};

// Calls fn(cell) for each column of the schema that the row object holds,
// "_uuid" and "_version" aside. The walk runs over the object's members and
// looks each up in the schema, which visits exactly the schema's columns
// present in the object without sorting the schema per row. A value that
// doesn't parse as its column's type is skipped.
template <class Fn>
void forEachColumn(const json* data, const ovsdb_table_schema& schema, Fn&& fn) {
  KILN_ASSERT(data, "row && \"row should not be NULL\"");
  KILN_ASSERT(data->type == JSON_OBJECT, "row && \"row is not an object\"");
  const shash* members = json_object(data);
  for (const shash_node* node = shash_first(members); node; node = nextMember(members, node)) {
    if (isIgnoreColumn(node->name)) continue;
    const ovsc_column* column = ovsc_ovsdb_table_schema_get_column(&schema, node->name);
    if (!column) continue;
    ovsc_datum* parsed = nullptr;
    Ovs::CString error(ovsc_ovsdb_datum_from_json(column, static_cast<const json*>(node->data), &parsed));
    if (error) continue;
    const Ovs::DatumPtr datum(parsed);
    fn(Cell(node->name, column, datum.get()));
  }
}

// Brings a set attribute to the atoms of a set column: each atom that
// `convert` turns into a member is added, then members the column no longer
// holds are removed. The setters skip what is already there.
template <class Row, class Key, class Convert>
void readSet(const Cell& cell, Row& row, const std::set<Key>& current, void (Row::*add)(const Key&, bool),
             bool (Row::*del)(const Key&), const char* notASetText, ovsc_atomic_type keyType,
             const char* keyTypeText, Convert convert) {
  KILN_ASSERT(ovsc_column_is_set(cell.column()), notASetText);
  KILN_ASSERT(cell.keyType() == keyType, keyTypeText);
  const unsigned n = cell.count();
  std::vector<Key> seen;
  seen.reserve(n);
  for (unsigned i = 0; i < n; ++i) {
    KILN_ASSERT(!cell.isDefault(i), defaultKey);
    std::optional<Key> key = convert(i);
    if (!key) continue;
    (row.*add)(*key, true);
    seen.push_back(std::move(*key));
  }
  std::sort(seen.begin(), seen.end());
  for (const Key& stale :
       Kiln::keysToDrop(current, [&](const Key& k) { return std::binary_search(seen.begin(), seen.end(), k); })) {
    (row.*del)(stale);
  }
}

template <class Row>
void readUuidSet(const Cell& cell, Row& row, const std::set<Uuid>& current, void (Row::*add)(const Uuid&, bool),
                 bool (Row::*del)(const Uuid&), const char* notASetText) {
  readSet(cell, row, current, add, del, notASetText, OVSC_TYPE_UUID, keyIsUuid,
          [&](unsigned i) { return std::optional<Uuid>(cell.uuidAt(i)); });
}

template <class Row>
void readStringSet(const Cell& cell, Row& row, const std::set<Kiln::String>& current,
                   void (Row::*add)(const Kiln::String&, bool), bool (Row::*del)(const Kiln::String&),
                   const char* notASetText) {
  readSet(cell, row, current, add, del, notASetText, OVSC_TYPE_STRING, keyIsString,
          [&](unsigned i) { return std::optional<Kiln::String>(cell.text(i)); });
}

template <class Row>
void readAddressSet(const Cell& cell, Row& row, const std::set<Ipkit::IpGenAddr>& current,
                    void (Row::*add)(const Ipkit::IpGenAddr&, bool), bool (Row::*del)(const Ipkit::IpGenAddr&),
                    const char* notASetText) {
  readSet(cell, row, current, add, del, notASetText, OVSC_TYPE_STRING, keyIsString,
          [&](unsigned i) -> std::optional<Ipkit::IpGenAddr> {
            Ipkit::IpGenAddr addr = toIpGenAddr(cell.text(i));
            if (addr.isEmpty()) return std::nullopt;
            return addr;
          });
}

// Brings a map attribute to the pairs of a map column: each pair that
// `convert` accepts is set, then keys the column no longer holds are
// removed. Integer keys may be 0 (the untagged VLAN) and string values may
// be empty; every other default atom breaks the schema's contract.
template <class Row, class Key, class Value, class Convert>
void readMap(const Cell& cell, Row& row, const std::map<Key, Value>& current,
             void (Row::*set)(const Key&, const Value&), bool (Row::*del)(const Key&), const char* notAMapText,
             ovsc_atomic_type keyType, const char* keyTypeText, ovsc_atomic_type valueType,
             const char* valueTypeText, Convert convert) {
  KILN_ASSERT(ovsc_column_is_map(cell.column()), notAMapText);
  KILN_ASSERT(cell.keyType() == keyType, keyTypeText);
  KILN_ASSERT(cell.valueType() == valueType, valueTypeText);
  const unsigned n = cell.count();
  std::vector<Key> seen;
  seen.reserve(n);
  for (unsigned i = 0; i < n; ++i) {
    KILN_ASSERT(keyType == OVSC_TYPE_INTEGER || !cell.isDefault(i), defaultKey);
    KILN_ASSERT(valueType != OVSC_TYPE_UUID || !cell.isDefault(i, OVSC_VALUE), defaultValue);
    std::optional<std::pair<Key, Value>> entry = convert(i);
    if (!entry) continue;
    (row.*set)(entry->first, entry->second);
    seen.push_back(std::move(entry->first));
  }
  std::sort(seen.begin(), seen.end());
  for (const Key& stale :
       Kiln::keysToDrop(current, [&](const Key& k) { return std::binary_search(seen.begin(), seen.end(), k); })) {
    (row.*del)(stale);
  }
}

template <class Row>
void readStringMap(const Cell& cell, Row& row, const std::map<Kiln::String, Kiln::String>& current,
                   void (Row::*set)(const Kiln::String&, const Kiln::String&), bool (Row::*del)(const Kiln::String&),
                   const char* notAMapText) {
  readMap(cell, row, current, set, del, notAMapText, OVSC_TYPE_STRING, keyIsString, OVSC_TYPE_STRING, valueIsString,
          [&](unsigned i) {
            return std::optional<std::pair<Kiln::String, Kiln::String>>(
                std::in_place, Kiln::String(cell.text(i)), Kiln::String(cell.text(i, OVSC_VALUE)));
          });
}

// vlan_bindings and vlan_stats: VLAN to row. A VLAN the agent can't hold
// (4095) drops its entry only.
template <class Row>
void readVlanMap(const Cell& cell, Row& row, const std::map<Bridging::VlanIdOrNone, Uuid>& current,
                 void (Row::*set)(const Bridging::VlanIdOrNone&, const Uuid&),
                 bool (Row::*del)(const Bridging::VlanIdOrNone&), const char* notAMapText, const char* discardText) {
  readMap(cell, row, current, set, del, notAMapText, OVSC_TYPE_INTEGER, keyIsInteger, OVSC_TYPE_UUID, valueIsUuid,
          [&](unsigned i) -> std::optional<std::pair<Bridging::VlanIdOrNone, Uuid>> {
            const std::int64_t vlan = cell.integer(i);
            try {
              return std::pair(Bridging::VlanIdOrNone(vlan), cell.uuidAt(i, OVSC_VALUE));
            } catch (const Kiln::RangeException&) {
              VGW_TRACE(6, discardText << vlan);
              return std::nullopt;
            }
          });
}

// An optional integer column holding a VNI: none reads as the invalid VNI.
// The schema lets the controller write any integer, so a value outside the
// VNI range reads as no key too, with a trace naming the row: refusing it
// would end the agent at every start while the row exists.
Vxlan::VniOrNone readTunnelKey(const Cell& cell, const OvsdbDataModel& row) {
  KILN_ASSERT(cell.keyType() == OVSC_TYPE_INTEGER, keyIsInteger);
  const unsigned n = cell.count();
  if (n == 0) return Vxlan::VniOrNone::invalidVni();
  KILN_ASSERT(n == 1, "datum.n == 1");
  const std::int64_t key = cell.integer();
  if (key < std::int64_t{Vxlan::Vni::min} || key > std::int64_t{Vxlan::Vni::max}) {
    VGW_TRACE(0, ovsdbTableName(row.type()) << " " << row.uuid() << ": tunnel_key " << key
                                            << " is outside the VNI range, read as no key");
    return Vxlan::VniOrNone::invalidVni();
  }
  return Vxlan::Vni(key);
}

// The next hops of a static route: addresses separated by ";".
StaticRoute staticRoute(const Ipkit::IpGenPrefix& prefix, std::string_view nexthops) {
  StaticRoute route(prefix);
  while (!nexthops.empty()) {
    const std::size_t end = nexthops.find(';');
    const Ipkit::IpGenAddr hop = toIpGenAddr(nexthops.substr(0, end));
    if (!hop.isEmpty()) route.nexthopIs(hop);
    if (end == std::string_view::npos) break;
    nexthops.remove_prefix(end + 1);
  }
  return route;
}

template <class Row>
void traceRow(const Row& row) {
  VGW_TRACE(6, "Unmarshal " << ovsdbTableName(row.type()) << " " << row.uuid() << ": " << row.toJson().dump());
}

// The remote MAC rows come by the hundred thousand: their JSON text, keys
// in order, is traced from its parts, which the ring keeps in binary.
void traceRow(const UcastMacsRemote& row) {
  VGW_TRACE(6, "Unmarshal " << ovsdbTableName(row.type()) << " " << row.uuid() << ": {\"ipAddr\":\"" << row.ipAddr()
                            << "\",\"logicalSwitch\":\"" << row.logicalSwitch() << "\",\"mac\":\"" << row.mac()
                            << "\",\"physicalLocator\":\"" << row.physicalLocator() << "\"}");
}

void traceRow(const McastMacsRemote& row) {
  VGW_TRACE(6, "Unmarshal " << ovsdbTableName(row.type()) << " " << row.uuid() << ": {\"ipAddr\":\"" << row.ipAddr()
                            << "\",\"logicalSwitch\":\"" << row.logicalSwitch() << "\",\"mac\":\"" << row.mac()
                            << "\",\"physicalLocatorSet\":\"" << row.physicalLocatorSet() << "\"}");
}

// ---- marshalling --------------------------------------------------------------

json* jsonString(std::string_view text) { return json_string_create(std::string(text).c_str()); }

json* tagged(const char* tag, json* content) { return json_array_create_2(json_string_create(tag), content); }

template <class Container, class Element>
json* setOf(const Container& members, Element element) {
  json* elements = json_array_create_empty();
  for (const auto& m : members) json_array_add(elements, element(m));
  return tagged("set", elements);
}

template <class Map, class Key, class Value>
json* mapOf(const Map& members, Key key, Value value) {
  json* pairs = json_array_create_empty();
  for (const auto& [k, v] : members) json_array_add(pairs, json_array_create_2(key(k), value(v)));
  return tagged("map", pairs);
}

json* uuidJson(const Uuid& uuid) { return uuidToJson(uuid).release(); }
json* stringJson(const Kiln::String& s) { return json_string_create(s.charPtr()); }
json* addressJson(const Ipkit::IpGenAddr& a) { return stringJson(a.stringValue()); }
json* vlanJson(const Bridging::VlanIdOrNone& v) { return json_integer_create(v.value()); }

json* uuidSet(const std::set<Uuid>& s) { return setOf(s, uuidJson); }
json* stringSet(const std::set<Kiln::String>& s) { return setOf(s, stringJson); }
json* addressSet(const std::set<Ipkit::IpGenAddr>& s) { return setOf(s, addressJson); }
json* stringMap(const std::map<Kiln::String, Kiln::String>& m) { return mapOf(m, stringJson, stringJson); }
json* vlanMap(const std::map<Bridging::VlanIdOrNone, Uuid>& m) { return mapOf(m, vlanJson, uuidJson); }

// The row object under construction; a column whose attribute the row marks
// invalid is left out.
class RowWriter {
 public:
  explicit RowWriter(const OvsdbDataModelMutable& row) : row_(row), object_(json_object_create()) {}

  bool carries(const char* partialName) const { return !row_.invalidAttrib(partialName); }
  void put(const char* column, json* value) { json_object_put(object_.get(), column, value); }
  template <class Make>
  void putIfCarried(const char* partialName, const char* column, Make make) {
    if (carries(partialName)) put(column, make());
  }
  Ovs::JsonPtr done() { return std::move(object_); }

 private:
  const OvsdbDataModelMutable& row_;
  Ovs::JsonPtr object_;
};

// 0.0.0.0 and ::, which the database uses for "no address".
bool isUnspecified(const Ipkit::IpGenAddr& addr) {
  return (addr.isV4() && addr.v4Addr().isAny()) || (addr.isV6() && addr.v6Addr().isUnspecified());
}

template <class To, class From>
To& rowCast(From& row, const char* failText) {
  auto* cast = dynamic_cast<To*>(&row);
  KILN_ASSERT(cast, failText);
  return *cast;
}

}  // namespace

// ---- values ----------------------------------------------------------------

Ipkit::EthAddr toEthAddr(std::string_view text) {
  if (auto mac = Ipkit::EthAddr::tryParse(text)) return *mac;
  VGW_TRACE(6, "Discarding unexpected MAC Addr: " << text);
  return Ipkit::EthAddr();
}

Ipkit::IpGenAddr toIpGenAddr(std::string_view text) {
  const std::optional<Ipkit::IpGenAddr> addr = Ipkit::IpGenAddr::tryParse(text);
  if (!addr) {
    VGW_TRACE(6, "Discarding unexpected IP address: " << text);
    return Ipkit::IpGenAddr();
  }
  return isUnspecified(*addr) ? Ipkit::IpGenAddr() : *addr;
}

Ipkit::IpGenAddrWithMask toIpGenAddrWithMask(std::string_view text) {
  const std::optional<Ipkit::IpGenAddrWithMask> addr = Ipkit::IpGenAddrWithMask::tryParse(text);
  if (!addr || addr->address().isEmpty() || isUnspecified(addr->address())) {
    VGW_TRACE(0, "Discarding unexpected IP address with mask: " << text);
    return Ipkit::IpGenAddrWithMask();
  }
  return *addr;
}

Ipkit::IntfId toIntfId(std::string_view text) {
  if (auto id = Ipkit::IntfId::tryParse(text)) return *id;
  VGW_TRACE(6, "Discarding unexpected port name: " << text);
  return Ipkit::IntfId();
}

Kiln::String stripQuotes(std::string_view text) {
  if (text.size() >= 2 && text.front() == text.back() && (text.front() == '"' || text.front() == '\'')) {
    text = text.substr(1, text.size() - 2);
  }
  return Kiln::String(text);
}

Kiln::String stripQuotes(const ds& text) { return stripQuotes(std::string_view(text.string, text.length)); }

Kiln::String sysidToMac(const Fleet::SystemId& id) { return id.ethAddr().stringValue(); }

Kiln::String sysidToMac(std::string_view sysidText) {
  const std::optional<Fleet::SystemId> id = Fleet::SystemId::tryParse(sysidText);
  return id ? sysidToMac(*id) : Kiln::String(zeroMacText);
}

Fleet::SystemId macToSysid(std::string_view mac) {
  const std::optional<Ipkit::EthAddr> addr = Ipkit::EthAddr::tryParse(mac);
  return addr ? Fleet::SystemId(*addr) : Fleet::SystemId();
}

bool isEthernetPort(std::string_view name) {
  const std::optional<Ipkit::IntfId> id = Ipkit::IntfId::tryParse(name);
  return id && Ipkit::EthIntfId::isEthIntfId(*id) && !Ipkit::EthIntfId::isUnconnected(*id) &&
         !Ipkit::SubIntfId::isSubIntfId(*id);
}

bool isPortChannel(std::string_view name) {
  const std::optional<Ipkit::IntfId> id = Ipkit::IntfId::tryParse(name);
  return id && Ipkit::PortChannelIntfId::isPortChannelIntfId(*id) && !Ipkit::PortChannelIntfId::isRecirc(*id) &&
         !Ipkit::PortChannelIntfId::isEcmp(*id) && !Ipkit::SubIntfId::isSubIntfId(*id);
}

bool isMlag(std::string_view name) {
  const std::optional<Ipkit::IntfId> id = Ipkit::IntfId::tryParse(name);
  return id && Ipkit::MlagIntfId::isMlagIntfId(*id);
}

Kiln::String mlagSwitchName(std::string_view name) { return Kiln::String("mlag-" + std::string(name)); }

bool isIgnoreColumn(std::string_view column) { return column == "_uuid" || column == "_version"; }

namespace {

// Appends the text of `value` to `out` until `out` holds `limit` bytes. The
// library writes the members of an object in the order of its hash map, as
// this walk does; leaves are written by the library itself.
void appendJson(std::string& out, const json* value, std::size_t limit) {
  if (out.size() >= limit) return;
  const auto leaf = [&](const json* j) {
    const Ovs::CString text(json_to_string(j, 0));
    out += text.get();
  };
  switch (value->type) {
    case JSON_ARRAY: {
      out += '[';
      const struct json_array* array = json_array(value);
      for (std::size_t i = 0; i < array->n && out.size() < limit; ++i) {
        if (i) out += ',';
        appendJson(out, array->elems[i], limit);
      }
      // A value cut short stays open: what is written is always a beginning.
      if (out.size() < limit) out += ']';
      return;
    }
    case JSON_OBJECT: {
      out += '{';
      const shash* members = json_object(value);
      for (const shash_node* node = shash_first(members); node && out.size() < limit;
           node = nextMember(members, node)) {
        if (node != shash_first(members)) out += ',';
        const Ovs::JsonPtr key(json_string_create(node->name));
        leaf(key.get());
        out += ':';
        appendJson(out, static_cast<const json*>(node->data), limit);
      }
      if (out.size() < limit) out += '}';
      return;
    }
    default: leaf(value); return;
  }
}

}  // namespace

std::string jsonText(const json* value, std::size_t limit) {
  std::string out;
  if (value) appendJson(out, value, limit);
  return out;
}

void ringTapeArg(RingTape::Args& args, const TracedJson& value) {
  args.boundedText([&](std::string& out, std::size_t wanted) {
    if (value.value) appendJson(out, value.value, wanted);
  });
}

bool isJsonError(const json& element) {
  if (element.type != JSON_OBJECT) return false;
  const json* error = member(&element, "error");
  if (!error) return false;
  const auto text = [](const json* j) {
    if (j->type == JSON_STRING) return std::string(json_string(j));
    const Ovs::CString rendered(json_to_string(j, 0));
    return std::string(rendered.get());
  };
  const json* ioError = member(&element, "io-error");
  const json* details = member(&element, "details");
  VGW_TRACE(0, "Json Error found : " << text(error) << (ioError ? ", " + text(ioError) : std::string())
                                     << (details ? "details = " + text(details) : std::string()));
  return true;
}

// ---- conditions ------------------------------------------------------------

Ovs::JsonPtr createConditionInternal(std::string_view column, std::string_view function, Ovs::JsonPtr value) {
  return Ovs::JsonPtr(json_array_create_3(jsonString(column), jsonString(function), value.release()));
}

Ovs::JsonPtr createCondition(std::string_view column, std::string_view function, std::string_view text) {
  return createConditionInternal(column, function, Ovs::JsonPtr(jsonString(text)));
}

Ovs::JsonPtr createConditionUuid(std::string_view column, std::string_view function, const Uuid& uuid) {
  return createConditionInternal(column, function, Ovs::JsonPtr(tagged("uuid", stringJson(uuid.hexText()))));
}

Ovs::JsonPtr createUuidCondition(const Uuid& uuid) { return createConditionUuid("_uuid", "==", uuid); }

Ovs::JsonPtr uuidToJson(const Uuid& uuid) {
  return Ovs::JsonPtr(uuid.isNamed() ? tagged("named-uuid", stringJson(uuid.stringValue()))
                                     : tagged("uuid", stringJson(uuid.hexText())));
}

// ---- rows in ---------------------------------------------------------------

void unmarshal(OvsdbDataModel& row, const json* data, const ovsdb_table_schema& schema) {
  constexpr const char* castFailed = "rhs && \"Dynamic cast failed.\"";
  switch (row.type()) {
    case OvsdbDataType::logicalSwitch: return unmarshal(rowCast<LogicalSwitch>(row, castFailed), data, schema);
    case OvsdbDataType::logicalBindingStats:
      return unmarshal(rowCast<LogicalBindingStats>(row, castFailed), data, schema);
    case OvsdbDataType::physicalPort: return unmarshal(rowCast<PhysicalPort>(row, castFailed), data, schema);
    case OvsdbDataType::physicalSwitch: return unmarshal(rowCast<PhysicalSwitch>(row, castFailed), data, schema);
    case OvsdbDataType::physicalLocator: return unmarshal(rowCast<PhysicalLocator>(row, castFailed), data, schema);
    case OvsdbDataType::physicalLocatorSet:
      return unmarshal(rowCast<PhysicalLocatorSet>(row, castFailed), data, schema);
    case OvsdbDataType::ucastMacsRemote: return unmarshal(rowCast<UcastMacsRemote>(row, castFailed), data, schema);
    case OvsdbDataType::mcastMacsRemote: return unmarshal(rowCast<McastMacsRemote>(row, castFailed), data, schema);
    case OvsdbDataType::global: return unmarshal(rowCast<Global>(row, castFailed), data, schema);
    case OvsdbDataType::acl: return;
    case OvsdbDataType::manager: return unmarshal(rowCast<Manager>(row, castFailed), data, schema);
    case OvsdbDataType::tunnel: return unmarshal(rowCast<Tunnel>(row, castFailed), data, schema);
    case OvsdbDataType::logicalRouter: return unmarshal(rowCast<LogicalRouter>(row, castFailed), data, schema);
    case OvsdbDataType::arpSourcesLocal: return unmarshal(rowCast<ArpSourcesLocal>(row, castFailed), data, schema);
    case OvsdbDataType::arpSourcesRemote:
      return unmarshal(rowCast<ArpSourcesRemote>(row, castFailed), data, schema);
    default: KILN_ASSERT(false, "false && \"Unexpected type\"");
  }
}

void unmarshal(Global& row, const json* data, const ovsdb_table_schema& schema) {
  forEachColumn(data, schema, [&](const Cell& cell) {
    const std::string_view name = cell.name();
    if (name == "switches") {
      readUuidSet(cell, row, row.pSwitch(), &Global::pSwitchIs, &Global::pSwitchDel,
                  "ovsdb_type_is_set( &type ) && \"switches is not a set\"");
    } else if (name == "managers") {
      readUuidSet(cell, row, row.manager(), &Global::managerIs, &Global::managerDel,
                  "ovsdb_type_is_set( &type ) && \"managers is not a set\"");
    } else if (name == "other_config") {
      readStringMap(cell, row, row.otherConfig(), &Global::otherConfigIs, &Global::otherConfigDel,
                    "ovsdb_type_is_map( &type ) && \"other_config is not a map\"");
    } else {
      KILN_ASSERT(false, unexpectedColumn);
    }
  });
  traceRow(row);
}

void unmarshal(Manager& row, const json* data, const ovsdb_table_schema& schema) {
  forEachColumn(data, schema, [&](const Cell& cell) {
    const std::string_view name = cell.name();
    if (name == "target") {
      row.targetIs(cell.text());
    } else if (name == "is_connected") {
      row.isConnectedIs(cell.boolean());
    } else if (name == "other_config") {
      readStringMap(cell, row, row.otherConfig(), &Manager::otherConfigIs, &Manager::otherConfigDel,
                    "ovsdb_type_is_map( &type ) && \"other_config is not a map\"");
    } else {
      KILN_ASSERT(false, unexpectedColumn);
    }
  });
  traceRow(row);
}

void unmarshal(PhysicalSwitch& row, const json* data, const ovsdb_table_schema& schema) {
  forEachColumn(data, schema, [&](const Cell& cell) {
    const std::string_view name = cell.name();
    if (name == "name") {
      row.displayNameIs(cell.text());
    } else if (name == "description") {
      row.descIs(cell.text());
    } else if (name == "ports") {
      readUuidSet(cell, row, row.port(), &PhysicalSwitch::portIs, &PhysicalSwitch::portDel,
                  "ovsdb_type_is_set( &type ) && \"ports is not a set\"");
    } else if (name == "management_ips") {
      readAddressSet(cell, row, row.mgmtIp(), &PhysicalSwitch::mgmtIpIs, &PhysicalSwitch::mgmtIpDel,
                     "ovsdb_type_is_set( &type ) && \"management_ips is not a set\"");
    } else if (name == "tunnel_ips") {
      readAddressSet(cell, row, row.tunnelIp(), &PhysicalSwitch::tunnelIpIs, &PhysicalSwitch::tunnelIpDel,
                     "ovsdb_type_is_set( &type ) && \"tunnel_ips is not a set\"");
    } else if (name == "tunnels") {
      readUuidSet(cell, row, row.tunnel(), &PhysicalSwitch::tunnelIs, &PhysicalSwitch::tunnelDel,
                  "ovsdb_type_is_set( &type ) && \"tunnels is not a set\"");
    } else if (name == "other_config") {
      readStringMap(cell, row, row.otherConfig(), &PhysicalSwitch::otherConfigIs, &PhysicalSwitch::otherConfigDel,
                    "ovsdb_type_is_map( &type ) && \"other_config is not a map\"");
    } else if (name == "switch_fault_status") {
      readStringSet(cell, row, row.fault(), &PhysicalSwitch::faultIs, &PhysicalSwitch::faultDel,
                    "ovsdb_type_is_set( &type ) && \"switch_fault_status is not a set\"");
    } else {
      KILN_ASSERT(false, unexpectedColumn);
    }
  });
  traceRow(row);
}

void unmarshal(PhysicalPort& row, const json* data, const ovsdb_table_schema& schema) {
  forEachColumn(data, schema, [&](const Cell& cell) {
    const std::string_view name = cell.name();
    if (name == "name") {
      row.displayNameIs(cell.text());
    } else if (name == "description") {
      row.descIs(cell.text());
    } else if (name == "vlan_bindings") {
      readVlanMap(cell, row, row.vlanBinding(), &PhysicalPort::vlanBindingIs, &PhysicalPort::vlanBindingDel,
                  "ovsdb_type_is_map( &type ) && \"vlan_binding is not map\"",
                  "Discarding vlan binding with out of range VLAN: ");
    } else if (name == "vlan_stats") {
      readVlanMap(cell, row, row.vlanStat(), &PhysicalPort::vlanStatIs, &PhysicalPort::vlanStatDel,
                  "ovsdb_type_is_map( &type ) && \"vlan_stats is not map\"",
                  "Discarding vlan stats with out of range VLAN: ");
    } else if (name == "other_config") {
      readStringMap(cell, row, row.otherConfig(), &PhysicalPort::otherConfigIs, &PhysicalPort::otherConfigDel,
                    "ovsdb_type_is_map( &type ) && \"other_config is not a map\"");
    } else if (name == "port_fault_status") {
      readStringSet(cell, row, row.fault(), &PhysicalPort::faultIs, &PhysicalPort::faultDel,
                    "ovsdb_type_is_set( &type ) && \"port_fault_status is not a set\"");
    } else {
      KILN_ASSERT(name == "acl_bindings", unexpectedColumn);
    }
  });
  traceRow(row);
}

void unmarshal(LogicalSwitch& row, const json* data, const ovsdb_table_schema& schema) {
  forEachColumn(data, schema, [&](const Cell& cell) {
    const std::string_view name = cell.name();
    if (name == "name") {
      row.displayNameIs(cell.text());
    } else if (name == "description") {
      row.descIs(cell.text());
    } else if (name == "tunnel_key") {
      row.tunnelKeyIs(readTunnelKey(cell, row));
    } else if (name == "replication_mode") {
      ReplicationMode mode = ReplicationMode::replicationModeNone;
      if (cell.count() == 1) enumFromName(cell.text(), mode);
      row.replicationModeIs(mode);
    } else if (name == "other_config") {
      readStringMap(cell, row, row.otherConfig(), &LogicalSwitch::otherConfigIs, &LogicalSwitch::otherConfigDel,
                    "ovsdb_type_is_map( &type ) && \"other_config is not a map\"");
    } else if (name == "acl_bindings") {
      VGW_TRACE(8, "Ignoring acl_bindings");
    } else {
      KILN_ASSERT(false, unexpectedColumn);
    }
  });
  traceRow(row);
}

void unmarshal(LogicalRouter& row, const json* data, const ovsdb_table_schema& schema) {
  forEachColumn(data, schema, [&](const Cell& cell) {
    const std::string_view name = cell.name();
    if (name == "name") {
      row.displayNameIs(cell.text());
    } else if (name == "description") {
      row.descIs(cell.text());
    } else if (name == "switch_binding") {
      readMap(cell, row, row.switchBinding(), &LogicalRouter::switchBindingIs, &LogicalRouter::switchBindingDel,
              "ovsdb_type_is_map( &type ) && \"switch_binding is not a map\"", OVSC_TYPE_STRING, keyIsString,
              OVSC_TYPE_UUID, valueIsUuid,
              [&](unsigned i) -> std::optional<std::pair<Ipkit::IpGenAddrWithMask, Uuid>> {
                // The controller may key a binding with any text; one that
                // names no interface address binds nothing.
                const Ipkit::IpGenAddrWithMask key = toIpGenAddrWithMask(cell.text(i));
                if (key.address().isEmpty()) return std::nullopt;
                return std::pair(key, cell.uuidAt(i, OVSC_VALUE));
              });
    } else if (name == "static_routes") {
      readMap(cell, row, row.staticRoute(), &LogicalRouter::staticRouteIs, &LogicalRouter::staticRouteDel,
              "ovsdb_type_is_map( &type ) && \"static_routes is not a map\"", OVSC_TYPE_STRING, keyIsString,
              OVSC_TYPE_STRING, valueIsString,
              [&](unsigned i) -> std::optional<std::pair<Ipkit::IpGenPrefix, StaticRoute>> {
                const std::optional<Ipkit::IpGenPrefix> prefix = Ipkit::IpGenPrefix::tryParse(cell.text(i));
                if (!prefix) {
                  VGW_TRACE(6, "Discarding unexpected static route prefix: " << cell.text(i));
                  return std::nullopt;
                }
                return std::pair(*prefix, staticRoute(*prefix, cell.text(i, OVSC_VALUE)));
              });
    } else if (name == "other_config") {
      readStringMap(cell, row, row.otherConfig(), &LogicalRouter::otherConfigIs, &LogicalRouter::otherConfigDel,
                    "ovsdb_type_is_map( &type ) && \"other_config is not a map\"");
    } else {
      KILN_ASSERT(name == "acl_binding" || name == "LR_fault_status", unexpectedColumn);
    }
  });
  traceRow(row);
}

void unmarshal(LogicalBindingStats& row, const json* data, const ovsdb_table_schema& schema) {
  forEachColumn(data, schema, [&](const Cell& cell) {
    const std::string_view name = cell.name();
    const auto counter = static_cast<std::uint64_t>(cell.integer());
    if (name == "bytes_to_local") {
      row.bytesToLocalIs(counter);
    } else if (name == "packets_to_local") {
      row.packetsToLocalIs(counter);
    } else if (name == "bytes_from_local") {
      row.bytesFromLocalIs(counter);
    } else if (name == "packets_from_local") {
      row.packetsFromLocalIs(counter);
    } else {
      KILN_ASSERT(false, unexpectedColumn);
    }
  });
  traceRow(row);
}

void unmarshal(PhysicalLocator& row, const json* data, const ovsdb_table_schema& schema) {
  EncapsulationType encapType = EncapsulationType::encapsulationNone;
  Ipkit::IpGenAddr dstIp;
  forEachColumn(data, schema, [&](const Cell& cell) {
    const std::string_view name = cell.name();
    if (name == "encapsulation_type") {
      enumFromName(cell.text(), encapType);
    } else if (name == "dst_ip") {
      dstIp = toIpGenAddr(cell.text());
    } else if (name == "tunnel_key") {
      row.tunnelKeyIs(readTunnelKey(cell, row).value());
    } else if (name == "acl_binding") {
      VGW_TRACE(8, "Ignoring acl_bindings");
    } else if (name == "LR_fault_status") {
      VGW_TRACE(8, "Ignoring LR_fault_status");
    } else {
      KILN_ASSERT(false, unexpectedColumn);
    }
  });
  row.keyIs(PhysicalLocatorKey(encapType, dstIp));
  traceRow(row);
}

void unmarshal(PhysicalLocatorSet& row, const json* data, const ovsdb_table_schema& schema) {
  forEachColumn(data, schema, [&](const Cell& cell) {
    KILN_ASSERT(cell.name() == "locators", unexpectedColumn);
    readUuidSet(cell, row, row.locator(), &PhysicalLocatorSet::locatorIs, &PhysicalLocatorSet::locatorDel,
                "ovsdb_type_is_set( &type ) && \"locators is not a set\"");
  });
  traceRow(row);
}

void unmarshal(Tunnel& row, const json* data, const ovsdb_table_schema& schema) {
  forEachColumn(data, schema, [&](const Cell& cell) {
    const std::string_view name = cell.name();
    if (name == "local") {
      row.localLocatorIs(cell.uuidAt());
    } else if (name == "remote") {
      row.remoteLocatorIs(cell.uuidAt());
    } else if (name == "bfd_config_local") {
      readStringMap(cell, row, row.bfdConfigLocal(), &Tunnel::bfdConfigLocalIs, &Tunnel::bfdConfigLocalDel,
                    "ovsdb_type_is_map( &type ) && \"bfd_config_local is not a map\"");
    } else if (name == "bfd_config_remote") {
      readStringMap(cell, row, row.bfdConfigRemote(), &Tunnel::bfdConfigRemoteIs, &Tunnel::bfdConfigRemoteDel,
                    "ovsdb_type_is_map( &type ) && \"bfd_config_remote is not a map\"");
    } else if (name == "bfd_params") {
      readStringMap(cell, row, row.bfdParam(), &Tunnel::bfdParamIs, &Tunnel::bfdParamDel,
                    "ovsdb_type_is_map( &type ) && \"bfd_params is not a map\"");
    } else if (name == "bfd_status") {
      readStringMap(cell, row, row.bfdStatus(), &Tunnel::bfdStatusIs, &Tunnel::bfdStatusDel,
                    "ovsdb_type_is_map( &type ) && \"bfd_status is not a map\"");
    } else {
      KILN_ASSERT(false, unexpectedColumn);
    }
  });
  traceRow(row);
}

namespace {

// src_mac is a string the controller may leave empty or fill with what is
// no MAC; either reads as the zero MAC, which the mirror indexes nowhere.
template <class Row>
void unmarshalArpSource(Row& row, const json* data, const ovsdb_table_schema& schema, const char* locatorText) {
  forEachColumn(data, schema, [&](const Cell& cell) {
    const std::string_view name = cell.name();
    if (name == "src_mac") {
      row.srcMacIs(toEthAddr(cell.text()));
    } else if (name == "locator") {
      const Uuid locator = cell.uuidAt();
      KILN_ASSERT(locator != Uuid::nullUuid(), locatorText);
      row.locatorIs(locator);
    } else {
      KILN_ASSERT(false, unexpectedColumn);
    }
  });
  traceRow(row);
}

}  // namespace

void unmarshal(ArpSourcesLocal& row, const json* data, const ovsdb_table_schema& schema) {
  unmarshalArpSource(row, data, schema, "locator != Uuid::nullUuid() && \"Invalid locator\"");
}

void unmarshal(ArpSourcesRemote& row, const json* data, const ovsdb_table_schema& schema) {
  unmarshalArpSource(row, data, schema, "locator != Uuid::nullUuid() && \"Unexpected locator data\"");
}

void extractMacLocBindings(const json* data, const ovsdb_table_schema& schema, MacLocBindings& out) {
  out = MacLocBindings();
  forEachColumn(data, schema, [&](const Cell& cell) {
    const std::string_view name = cell.name();
    if (name == "MAC") {
      const std::string_view mac = cell.text();
      out.mac = mac.starts_with(unknownDst) ? Kiln::String(zeroMacText) : Kiln::String(mac);
    } else if (name == "logical_switch") {
      out.logicalSwitch = cell.uuidAt();
    } else if (name == "locator") {
      out.locator = cell.uuidAt();
    } else if (name == "locator_set") {
      out.locatorSet = cell.uuidAt();
    } else if (name == "ipaddr") {
      out.ipAddr = cell.text();
    } else {
      KILN_ASSERT(false, unexpectedColumn);
    }
  });
}

namespace {

// What the remote MAC rows share: the MAC and address texts, of which an
// absent column leaves the empty text and so the zero value without a trace.
template <class Row>
void setMacAndAddress(Row& row, const MacLocBindings& b) {
  row.logicalSwitchIs(b.logicalSwitch);
  row.macIs(b.mac.empty() ? Ipkit::EthAddr() : toEthAddr(b.mac));
  row.ipAddrIs(toIpGenAddr(b.ipAddr));
}

}  // namespace

void unmarshal(UcastMacsRemote& row, const json* data, const ovsdb_table_schema& schema) {
  MacLocBindings b;
  extractMacLocBindings(data, schema, b);
  KILN_ASSERT(b.locatorSet == Uuid::nullUuid(), "locatorSet == Uuid::nullUuid() && \"Invalid locator set\"");
  setMacAndAddress(row, b);
  row.physicalLocatorIs(b.locator);
  traceRow(row);
}

void unmarshal(McastMacsRemote& row, const json* data, const ovsdb_table_schema& schema) {
  MacLocBindings b;
  extractMacLocBindings(data, schema, b);
  KILN_ASSERT(b.locator == Uuid::nullUuid(), "locator == Uuid::nullUuid() && \"Invalid locator\"");
  setMacAndAddress(row, b);
  row.physicalLocatorSetIs(b.locatorSet);
  traceRow(row);
}

Uuid unmarshalLogicalSwitchUuid(const json* data) {
  KILN_ASSERT(data, "row && \"row should not be NULL\"");
  const json* value = member(data, "logical_switch");
  if (!value || value->type != JSON_ARRAY) return Uuid();
  const struct json_array* uuidArray = json_array(value);
  KILN_ASSERT(uuidArray->n == 2, "uuidArray->n == 2 && \"uuid not size 2\"");
  const json* text = uuidArray->elems[1];
  if (text->type != JSON_STRING) return Uuid();
  return Uuid::tryParse(stripQuotes(json_string(text)).stringValue()).value_or(Uuid());
}

bool isLogicalSwitchNvpInternal(const json* data) {
  KILN_ASSERT(data, "row && \"row should not be NULL\"");
  const json* name = member(data, "name");
  if (!name || name->type != JSON_STRING || std::string_view(json_string(name)) != nvpInternalName) return false;
  VGW_TRACE(6, "dummy logical switch, ignoring row");
  return true;
}

bool isUcastMacsRemoteOnNvpInternal(const json* data) {
  const Uuid logicalSwitch = unmarshalLogicalSwitchUuid(data);
  if (logicalSwitch.isNull()) return false;
  return logicalSwitch == Kiln::Entity::singletonIs<LocalData>()->nvpInternalLogicalSwitch();
}

bool isUcastMacsRemoteOnNvpInternal(const json* oldData, const json* newData, const HwVtepOvsdb& ovsdb) {
  KILN_ASSERT(oldData, "oldRow && \"old row should not be NULL\"");
  KILN_ASSERT(newData, "newRow && \"new row should not be NULL\"");
  const Uuid oldUuid = unmarshalLogicalSwitchUuid(oldData);
  const Uuid newUuid = unmarshalLogicalSwitchUuid(newData);
  const Uuid internal = Kiln::Entity::singletonIs<LocalData>()->nvpInternalLogicalSwitch();
  const bool fromInternal = !oldUuid.isNull() && oldUuid == internal;
  const bool toInternal = !newUuid.isNull() && newUuid == internal;
  if (!fromInternal && !toInternal) return false;
  if (toInternal && !oldUuid.isNull()) {
    KILN_ASSERT(!ovsdb.logicalSwitch(oldUuid),
                "!hwVtepOvsdb->logicalSwitch( oldUuid ) && \"Updating logical switch to _nvp_internal is not "
                "allowed\"");
  }
  if (fromInternal && !newUuid.isNull()) {
    KILN_ASSERT(!ovsdb.logicalSwitch(newUuid),
                "!hwVtepOvsdb->logicalSwitch( newUuid ) && \"Updating logical switch from _nvp_internal is not "
                "allowed\"");
  }
  return true;
}

// ---- rows out --------------------------------------------------------------

Ovs::JsonPtr marshal(const OvsdbDataModelMutable& row) {
  constexpr const char* castFailed = "lhs && \"Dynamic cast failed.\"";
  switch (row.type()) {
    case OvsdbDataType::global: return marshal(rowCast<const Global>(row, castFailed));
    case OvsdbDataType::manager: return marshal(rowCast<const Manager>(row, castFailed));
    case OvsdbDataType::physicalSwitch: return marshal(rowCast<const PhysicalSwitch>(row, castFailed));
    case OvsdbDataType::physicalPort: return marshal(rowCast<const PhysicalPort>(row, castFailed));
    case OvsdbDataType::physicalLocator: return marshal(rowCast<const PhysicalLocator>(row, castFailed));
    case OvsdbDataType::physicalLocatorSet: return marshal(rowCast<const PhysicalLocatorSet>(row, castFailed));
    case OvsdbDataType::ucastMacsLocal: return marshal(rowCast<const UcastMacsLocal>(row, castFailed));
    case OvsdbDataType::mcastMacsLocal: return marshal(rowCast<const McastMacsLocal>(row, castFailed));
    case OvsdbDataType::tunnel: return marshal(rowCast<const Tunnel>(row, castFailed));
    case OvsdbDataType::arpSourcesLocal: return marshal(rowCast<const ArpSourcesLocal>(row, castFailed));
    case OvsdbDataType::acl: return nullptr;
    case OvsdbDataType::logicalBindingStats:
    case OvsdbDataType::ucastMacsRemote:
    case OvsdbDataType::mcastMacsRemote: KILN_ASSERT(false, "0 && \"Not implemented.\""); return nullptr;
    default: KILN_ASSERT(false, "false && \"Unexpected type\""); return nullptr;
  }
}

Ovs::JsonPtr marshal(const Global& row) {
  RowWriter w(row);
  w.putIfCarried("pSwitch", "switches", [&] { return uuidSet(row.pSwitch()); });
  w.putIfCarried("manager", "managers", [&] { return uuidSet(row.manager()); });
  w.putIfCarried("otherConfig", "other_config", [&] { return stringMap(row.otherConfig()); });
  return w.done();
}

Ovs::JsonPtr marshal(const Manager& row) {
  RowWriter w(row);
  w.putIfCarried("target", "target", [&] { return stringJson(row.target()); });
  w.putIfCarried("otherConfig", "other_config", [&] { return stringMap(row.otherConfig()); });
  return w.done();
}

Ovs::JsonPtr marshal(const PhysicalSwitch& row) {
  RowWriter w(row);
  w.putIfCarried("displayName", "name", [&] { return stringJson(row.displayName()); });
  w.putIfCarried("desc", "description", [&] { return stringJson(row.desc()); });
  w.putIfCarried("port", "ports", [&] { return uuidSet(row.port()); });
  w.putIfCarried("mgmtIp", "management_ips", [&] { return addressSet(row.mgmtIp()); });
  w.putIfCarried("tunnelIp", "tunnel_ips", [&] { return addressSet(row.tunnelIp()); });
  w.putIfCarried("tunnels", "tunnels", [&] { return uuidSet(row.tunnel()); });
  w.putIfCarried("otherConfig", "other_config", [&] { return stringMap(row.otherConfig()); });
  w.putIfCarried("fault", "switch_fault_status", [&] { return stringSet(row.fault()); });
  return w.done();
}

Ovs::JsonPtr marshal(const PhysicalPort& row) {
  RowWriter w(row);
  w.putIfCarried("displayName", "name", [&] { return stringJson(row.displayName()); });
  w.putIfCarried("desc", "description", [&] { return stringJson(row.desc()); });
  w.putIfCarried("vlanBinding", "vlan_bindings", [&] { return vlanMap(row.vlanBinding()); });
  w.putIfCarried("vlanStat", "vlan_stats", [&] { return vlanMap(row.vlanStat()); });
  w.putIfCarried("otherConfig", "other_config", [&] { return stringMap(row.otherConfig()); });
  w.putIfCarried("fault", "port_fault_status", [&] { return stringSet(row.fault()); });
  return w.done();
}

Ovs::JsonPtr marshal(const PhysicalLocator& row) {
  RowWriter w(row);
  if (w.carries("key")) {
    w.put("encapsulation_type", json_string_create(enumName(row.key().encapType())));
    w.put("dst_ip", addressJson(row.key().dstIp()));
  }
  return w.done();
}

Ovs::JsonPtr marshal(const PhysicalLocatorSet& row) {
  KILN_ASSERT(!row.invalidAttribs(), "!lhs->invalidAttribs() && \"Invalid attribs in PhysicalLocatorSet\"");
  RowWriter w(row);
  w.put("locators", uuidSet(row.locator()));
  return w.done();
}

Ovs::JsonPtr marshal(const UcastMacsLocal& row) {
  RowWriter w(row);
  w.putIfCarried("ipAddr", "ipaddr", [&] { return addressJson(row.ipAddr()); });
  w.put("MAC", stringJson(row.mac().stringValue()));
  w.put("logical_switch", uuidJson(row.logicalSwitch()));
  w.put("locator", uuidJson(row.locator()));
  return w.done();
}

Ovs::JsonPtr marshal(const McastMacsLocal& row) {
  KILN_ASSERT(!row.invalidAttribs(), "!lhs->invalidAttribs() && \"Invalid attribs in McastMacsLocal\"");
  RowWriter w(row);
  w.put("MAC", row.mac().isZero() ? jsonString(unknownDst) : stringJson(row.mac().stringValue()));
  w.put("logical_switch", uuidJson(row.logicalSwitch()));
  w.put("locator_set", uuidJson(row.physicalLocatorSet()));
  return w.done();
}

Ovs::JsonPtr marshal(const Tunnel& row) {
  RowWriter w(row);
  w.putIfCarried("local", "local", [&] { return uuidJson(row.localLocator()); });
  w.putIfCarried("remote", "remote", [&] { return uuidJson(row.remoteLocator()); });
  w.putIfCarried("bfdConfigLocal", "bfd_config_local", [&] { return stringMap(row.bfdConfigLocal()); });
  w.putIfCarried("bfdStatus", "bfd_status", [&] { return stringMap(row.bfdStatus()); });
  return w.done();
}

Ovs::JsonPtr marshal(const ArpSourcesLocal& row) {
  KILN_ASSERT(!row.invalidAttribs(), "!lhs->invalidAttribs() && \"Invalid attribs in ArpSourcesLocal\"");
  RowWriter w(row);
  w.put("src_mac", stringJson(row.srcMac().stringValue()));
  w.put("locator", uuidJson(row.locator()));
  return w.done();
}

// ---- operations --------------------------------------------------------------

Kiln::Ptr<OpInsertRequest> buildInsert(const Kiln::Ptr<OvsdbDataModelMutable>& row) {
  auto op = Kiln::newPtr<OpInsertRequest>(row->type());
  op->rowIs(marshal(*row));
  op->ovsdbDataModelIs(row);
  op->uuidNamedIs(row->uuid());
  return op;
}

Kiln::Ptr<OpUpdateRequest> buildUpdate(const Uuid& uuid, const Kiln::Ptr<OvsdbDataModelMutable>& row,
                                       Ovs::JsonPtr where) {
  auto op = Kiln::newPtr<OpUpdateRequest>(row->type());
  op->whereIs(Ovs::JsonPtr(json_array_create_1(where ? where.release() : createUuidCondition(uuid).release())));
  op->uuidIs(uuid);
  op->rowIs(marshal(*row));
  op->ovsdbDataModelIs(row);
  op->resultCountIs(1);
  return op;
}

Kiln::Ptr<OpDeleteRequest> buildDeleteWhere(OvsdbDataType type, Ovs::JsonPtr condition) {
  auto op = Kiln::newPtr<OpDeleteRequest>(type);
  Ovs::JsonPtr where(json_array_create_empty());
  if (condition) json_array_add(where.get(), condition.release());
  op->whereIs(std::move(where));
  op->resultCountIs(1);
  return op;
}

Kiln::Ptr<OpDeleteRequest> buildDelete(const Uuid& uuid, OvsdbDataType type) {
  auto op = buildDeleteWhere(type, createUuidCondition(uuid));
  op->uuidIs(uuid);
  return op;
}

Kiln::Ptr<OpSelectRequest> buildPresenceCheck(const Uuid& uuid, OvsdbDataType type) {
  auto op = Kiln::newPtr<OpSelectRequest>(type);
  op->uuidIs(uuid);
  return op;
}

Kiln::Ptr<OpMutateRequest> buildMutate(const Uuid& uuid, MutaterOp mutaterOp, const Kiln::String& column,
                                       const std::set<Uuid>& uuids, OvsdbDataType type, Ovs::JsonPtr mutations) {
  auto op = Kiln::newPtr<OpMutateRequest>(type);
  op->whereIs(Ovs::JsonPtr(json_array_create_1(createUuidCondition(uuid).release())));
  op->uuidIs(uuid);
  op->mutationsIs(std::move(mutations));
  op->mutaterOpIs(mutaterOp);
  op->mutateColumnIs(column);
  for (const Uuid& member : uuids) op->mutateSetIs(member, true);
  op->resultCountIs(1);
  return op;
}

Kiln::Ptr<Global> createGlobal(const std::set<Uuid>& pSwitches, const std::set<Uuid>& managers) {
  auto global = Kiln::newPtr<Global>(genNamedUuid());
  for (const Uuid& s : pSwitches) global->pSwitchIs(s);
  for (const Uuid& m : managers) global->managerIs(m);
  return global;
}

Kiln::Ptr<Manager> createManager(const Kiln::String& target) {
  auto manager = Kiln::newPtr<Manager>(genNamedUuid());
  manager->targetIs(target);
  return manager;
}

Kiln::Ptr<const PhysicalLocator> getPhysicalLocator(const HwVtepOvsdb& ovsdb, const Ipkit::IpGenAddr& ip,
                                                    OvsdbTransactRequest& transact) {
  if (Kiln::Ptr<const PhysicalLocator> locator = ovsdb.physicalLocator(ip)) {
    VGW_TRACE(6, "Re-using OVSDB physical locator: " << locator->uuid());
    return locator;
  }
  if (Kiln::Ptr<const PhysicalLocator> locator = transact.vtepIpToPhysicalLocator(ip)) {
    VGW_TRACE(6, "Re-using transact physical locator: " << locator->uuid());
    return locator;
  }
  auto locator = Kiln::newPtr<PhysicalLocator>(genNamedUuid());
  locator->keyIs(PhysicalLocatorKey(EncapsulationType::vxlan_over_ipv4, ip));
  transact.opEnq(buildInsert(locator));
  transact.vtepIpToPhysicalLocatorIs(ip, locator);
  transact.namedUuidToPhysicalLocatorIs(locator->uuid(), locator);
  return locator;
}

Kiln::Ptr<const PhysicalLocatorSet> getPhysicalLocatorSet(const HwVtepOvsdb& ovsdb,
                                                          const std::set<Ipkit::IpGenAddr>& ips,
                                                          OvsdbTransactRequest& transact) {
  // A set matches when it has as many locators as there are addresses and
  // each of its locators has one of them.
  const auto matches = [&](const PhysicalLocatorSet& set, auto resolve) {
    if (set.locator().size() != ips.size()) return false;
    return std::all_of(set.locator().begin(), set.locator().end(), [&](const Uuid& uuid) {
      const Kiln::Ptr<const PhysicalLocator> locator = resolve(uuid);
      return locator && ips.contains(locator->key().dstIp());
    });
  };

  for (const auto& [uuid, set] : ovsdb.physicalLocatorSet()) {
    if (matches(*set, [&](const Uuid& u) { return Kiln::Ptr<const PhysicalLocator>(ovsdb.physicalLocatorRaw(u)); })) {
      VGW_TRACE(6, "Re-using OVSDB physical locator set: " << uuid);
      return set;
    }
  }
  if (const OpRequestColl* pending = transact.op(OvsdbDataType::physicalLocatorSet)) {
    for (const Kiln::Ptr<OpRequest>& op : pending->op()) {
      const auto* o = dynamic_cast<const PhysicalLocatorSet*>(op->ovsdbDataModel().get());
      KILN_ASSERT(o, "o && \"Dynamic cast failed.\"");
      const bool found = matches(*o, [&](const Uuid& u) {
        const Kiln::Ptr<const PhysicalLocator> pl = u.isNamed() ? transact.namedUuidToPhysicalLocator(u)
                                                                : Kiln::Ptr<const PhysicalLocator>(ovsdb.physicalLocatorRaw(u));
        KILN_ASSERT(pl, "pl && \"Transact physical locator not found.\"");
        return pl;
      });
      if (found) {
        VGW_TRACE(6, "Re-using transact physical locator set: " << o->uuid());
        return Kiln::Ptr<const PhysicalLocatorSet>(o);
      }
    }
  }
  auto set = Kiln::newPtr<PhysicalLocatorSet>(genNamedUuid());
  for (const Ipkit::IpGenAddr& ip : ips) set->locatorIs(getPhysicalLocator(ovsdb, ip, transact)->uuid());
  auto insert = buildInsert(set);
  VGW_TRACE(6, "Adding physical locator set: " << set->uuid());
  transact.opEnq(insert);
  return set;
}

}  // namespace Vgw
