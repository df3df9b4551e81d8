// Rows between the mirror and the database's JSON: what the server holds
// reads into the mirror and, for the tables the agent writes, marshals back
// to the same values; reconciliation in place; the schema contract; bad
// values; the locator lookups the writers share; JSON text rendered only as
// far as it is read.
#include <gtest/gtest.h>

#include <map>
#include <type_traits>
#include <vector>

#include "Kiln/Exception.h"
#include "SessionSupport.h"
#include "Vgw/VgwUtils.h"

namespace Vgw::Test {
namespace {

using Ipkit::IpGenAddr;

// Everything a controller and an earlier agent could have written, one row
// or more per mirrored table. Port p2 holds a VLAN out of range.
constexpr const char* everyTable = R"([
  {"op": "insert", "table": "Logical_Switch", "uuid-name": "ls", "row": {"name": "blue",
   "description": "tenant blue", "tunnel_key": 100, "replication_mode": "source_node",
   "other_config": ["map", [["k", "v"]]]}},
  {"op": "insert", "table": "Logical_Binding_Stats", "uuid-name": "stats", "row": {"bytes_to_local": 1000,
   "packets_to_local": 10, "bytes_from_local": 2000, "packets_from_local": 20}},
  {"op": "insert", "table": "Physical_Locator", "uuid-name": "loc1",
   "row": {"encapsulation_type": "vxlan_over_ipv4", "dst_ip": "10.0.0.1"}},
  {"op": "insert", "table": "Physical_Locator", "uuid-name": "loc2",
   "row": {"encapsulation_type": "vxlan_over_ipv4", "dst_ip": "10.0.0.2", "tunnel_key": 77}},
  {"op": "insert", "table": "Physical_Locator_Set", "uuid-name": "set",
   "row": {"locators": ["set", [["named-uuid", "loc1"], ["named-uuid", "loc2"]]]}},
  {"op": "insert", "table": "Tunnel", "uuid-name": "tun", "row": {"local": ["named-uuid", "loc1"],
   "remote": ["named-uuid", "loc2"], "bfd_config_local": ["map", [["bfd_dst_ip", "169.254.1.1"]]],
   "bfd_config_remote": ["map", [["bfd_dst_ip", "169.254.1.2"]]], "bfd_params": ["map", [["enable", "true"]]],
   "bfd_status": ["map", [["state", "up"]]]}},
  {"op": "insert", "table": "Physical_Port", "uuid-name": "p1", "row": {"name": "Ethernet1",
   "description": "uplink", "vlan_bindings": ["map", [[0, ["named-uuid", "ls"]], [4094, ["named-uuid", "ls"]]]],
   "vlan_stats": ["map", [[4094, ["named-uuid", "stats"]]]], "other_config": ["map", [["a", "b"]]],
   "port_fault_status": ["set", ["down"]]}},
  {"op": "insert", "table": "Physical_Port", "uuid-name": "p2", "row": {"name": "Ethernet2",
   "vlan_bindings": ["map", [[4094, ["named-uuid", "ls"]], [4095, ["named-uuid", "ls"]]]]}},
  {"op": "insert", "table": "Physical_Switch", "uuid-name": "sw", "row": {"name": "leaf1",
   "description": "rack 1", "ports": ["set", [["named-uuid", "p1"], ["named-uuid", "p2"]]],
   "management_ips": ["set", ["192.168.0.1"]], "tunnel_ips": ["set", ["10.0.0.1", "fd00::1"]],
   "tunnels": ["named-uuid", "tun"], "other_config": ["map", [["x", "y"]]],
   "switch_fault_status": ["set", ["unreachable"]]}},
  {"op": "insert", "table": "Manager", "uuid-name": "mgr", "row": {"target": "ssl:10.9.9.9:6640",
   "other_config": ["map", [["dscp", "46"]]]}},
  {"op": "mutate", "table": "Global", "where": [], "mutations": [
   ["switches", "insert", ["set", [["named-uuid", "sw"]]]], ["managers", "insert", ["set", [["named-uuid", "mgr"]]]],
   ["other_config", "insert", ["map", [["g", "h"]]]]]},
  {"op": "insert", "table": "Logical_Router", "uuid-name": "lr", "row": {"name": "lr",
   "switch_binding": ["map", [["10.1.1.1/24", ["named-uuid", "ls"]]]],
   "static_routes": ["map", [["10.2.0.0/16", "10.1.1.2;10.1.1.3"], ["10.3.0.0/16", "bogus;10.1.1.4"]]]}},
  {"op": "insert", "table": "Ucast_Macs_Remote", "uuid-name": "ucast", "row": {"MAC": "00:11:22:33:44:55",
   "logical_switch": ["named-uuid", "ls"], "locator": ["named-uuid", "loc2"], "ipaddr": "10.1.1.9"}},
  {"op": "insert", "table": "Mcast_Macs_Remote", "uuid-name": "mcast", "row": {"MAC": "unknown-dst",
   "logical_switch": ["named-uuid", "ls"], "locator_set": ["named-uuid", "set"]}},
  {"op": "insert", "table": "Ucast_Macs_Local", "row": {"MAC": "00:aa:bb:cc:dd:01",
   "logical_switch": ["named-uuid", "ls"], "locator": ["named-uuid", "loc1"], "ipaddr": "10.1.1.5"}},
  {"op": "insert", "table": "Mcast_Macs_Local", "row": {"MAC": "unknown-dst",
   "logical_switch": ["named-uuid", "ls"], "locator_set": ["named-uuid", "set"]}},
  {"op": "insert", "table": "Arp_Sources_Local", "row": {"src_mac": "00:aa:bb:cc:dd:02",
   "locator": ["named-uuid", "loc1"]}},
  {"op": "insert", "table": "Arp_Sources_Remote", "uuid-name": "arp", "row": {"src_mac": "00:aa:bb:cc:dd:03",
   "locator": ["named-uuid", "loc2"]}}])";

class VgwMarshal : public ::testing::Test {
 protected:
  // Reads the server's row `name` of `table` into a new Row; for a table the
  // agent writes, expects it to marshal back to the same values.
  template <class Row>
  Kiln::Ptr<Row> read(const char* table, const std::string& name, bool roundTrip = true) {
    Ovs::JsonPtr data = std::move(serverRows(server, table).at(0));
    for (Ovs::JsonPtr& candidate : serverRows(server, table)) {
      if (id.contains(name) && rowUuid(candidate.get()) == id.at(name)) data = std::move(candidate);
    }
    if (std::string_view(table) == "Manager") {  // the agent monitors two of its columns
      for (const char* other : {"inactivity_probe", "max_backoff", "status"}) {
        json_destroy(static_cast<json*>(shash_find_and_delete(json_object(data.get()), other)));
      }
    }
    auto row = Kiln::newPtr<Row>(rowUuid(data.get()));
    unmarshal(*row, data.get(), tableOf(schema, table));
    if constexpr (std::is_base_of_v<OvsdbDataModelMutable, Row>) {
      if (roundTrip) expectColumnsMatch(tableOf(schema, table), marshal(*row).get(), data.get());
    }
    return row;
  }
  // The same for the local MAC tables, which are read as their bindings.
  template <class Row>
  void readMacLocal(const char* table) {
    const Ovs::JsonPtr data = std::move(serverRows(server, table).at(0));
    MacLocBindings b;
    extractMacLocBindings(data.get(), tableOf(schema, table), b);
    auto row = Kiln::newPtr<Row>(rowUuid(data.get()), toEthAddr(b.mac));
    row->logicalSwitchIs(b.logicalSwitch);
    if constexpr (std::is_same_v<Row, UcastMacsLocal>) {
      row->locatorIs(b.locator);
      row->ipAddrIs(toIpGenAddr(b.ipAddr));
    } else {
      row->physicalLocatorSetIs(b.locatorSet);
      EXPECT_TRUE(row->mac().isZero());
    }
    EXPECT_EQ(b.logicalSwitch, id.at("ls"));
    expectColumnsMatch(tableOf(schema, table), marshal(*row).get(), data.get());
  }

  OvsdbServer server;
  const std::map<std::string, Uuid> id = Controller(server).transact(Kiln::Json::parse(everyTable));
  const Ovs::SchemaPtr schema = schemaFromFile();
};

TEST_F(VgwMarshal, ServerRowsOfEveryTableReadIntoTheMirrorAndMarshalBack) {
  for (const char* name : {"loc1", "loc2"}) read<PhysicalLocator>("Physical_Locator", name);
  read<PhysicalLocatorSet>("Physical_Locator_Set", "set");
  read<Tunnel>("Tunnel", "tun");
  read<PhysicalPort>("Physical_Port", "p1");
  read<PhysicalSwitch>("Physical_Switch", "sw");
  read<Manager>("Manager", "mgr");
  read<Global>("Global", "");
  read<ArpSourcesLocal>("Arp_Sources_Local", "");
  readMacLocal<UcastMacsLocal>("Ucast_Macs_Local");
  readMacLocal<McastMacsLocal>("Mcast_Macs_Local");

  // What only the agent reads.
  const auto logicalSwitch = read<LogicalSwitch>("Logical_Switch", "ls");
  EXPECT_EQ(logicalSwitch->desc(), "tenant blue");
  EXPECT_EQ(logicalSwitch->tunnelKey(), Vxlan::VniOrNone(100));
  EXPECT_EQ(logicalSwitch->replicationMode(), ReplicationMode::source_node);
  EXPECT_EQ(logicalSwitch->otherConfig("k"), "v");
  EXPECT_EQ(read<LogicalBindingStats>("Logical_Binding_Stats", "stats", false)->packetsFromLocal(), 20u);

  // A VLAN out of range drops only its own binding.
  TraceCapture trace("VgwUtils/6");
  EXPECT_EQ(read<PhysicalPort>("Physical_Port", "p2", false)->vlanBinding(),
            (std::map<Bridging::VlanIdOrNone, Uuid>{{Bridging::VlanIdOrNone(4094), id.at("ls")}}));
  EXPECT_TRUE(trace.contains("Discarding vlan binding with out of range VLAN: 4095")) << trace.text();

  const auto router = read<LogicalRouter>("Logical_Router", "lr");
  EXPECT_EQ(router->switchBinding(Ipkit::IpGenAddrWithMask::parse("10.1.1.1/24")), id.at("ls"));
  EXPECT_EQ(router->staticRoute(Ipkit::IpGenPrefix::parse("10.2.0.0/16")).nexthop(),
            (std::set<IpGenAddr>{ip("10.1.1.2"), ip("10.1.1.3")}));
  // A next hop that is no address drops alone; the route stands.
  EXPECT_EQ(router->staticRoute(Ipkit::IpGenPrefix::parse("10.3.0.0/16")).nexthop(), std::set{ip("10.1.1.4")});

  const auto ucast = read<UcastMacsRemote>("Ucast_Macs_Remote", "ucast");
  EXPECT_EQ(ucast->mac(), mac("00:11:22:33:44:55"));
  EXPECT_EQ(ucast->physicalLocator(), id.at("loc2"));
  EXPECT_EQ(ucast->ipAddr(), ip("10.1.1.9"));
  const auto mcast = read<McastMacsRemote>("Mcast_Macs_Remote", "mcast");
  EXPECT_TRUE(mcast->mac().isZero());
  EXPECT_EQ(mcast->physicalLocatorSet(), id.at("set"));
  EXPECT_EQ(read<ArpSourcesRemote>("Arp_Sources_Remote", "arp")->locator(), id.at("loc2"));
}

// ---- without a server: rows written here against the installed schema ----

class VgwMarshalRows : public ::testing::Test {
 protected:
  const ovsdb_table_schema& table(const char* name) const { return tableOf(schema_, name); }
  static std::string uuidJson(unsigned n) { return R"(["uuid", ")" + rowId(n).hexText().stringValue() + R"("])"; }

 private:
  Ovs::SchemaPtr schema_ = schemaFromFile();
};

TEST_F(VgwMarshalRows, UnmarshalChangesOnlyWhatDiffers) {
  struct Counter : PhysicalSwitch::NotifieeConst {
    std::vector<std::string> changes;
    void onPort(const Uuid& u) override { changes.push_back("port " + u.hexText().stringValue()); }
    void onOtherConfig(const Kiln::String& k) override { changes.push_back("other_config " + k.stringValue()); }
    void onDisplayName() override { changes.push_back("name"); }
  };
  auto row = Kiln::newPtr<PhysicalSwitch>(rowId(1));
  row->displayNameIs("leaf1");
  row->portIs(rowId(2));
  row->portIs(rowId(3));
  row->otherConfigIs("x", "1");
  row->otherConfigIs("y", "2");
  Counter counter;
  counter.notifierIs(row);

  unmarshal(*row,
            parseJson(R"({"name": "leaf1", "ports": ["set", [)" + uuidJson(3) + ", " + uuidJson(4) +
                      R"(]], "other_config": ["map", [["y", "2"], ["z", "3"]]]})")
                .get(),
            table("Physical_Switch"));
  EXPECT_EQ(row->port(), (std::set<Uuid>{rowId(3), rowId(4)}));
  EXPECT_EQ(row->otherConfig(), (std::map<Kiln::String, Kiln::String>{{"y", "2"}, {"z", "3"}}));
  std::sort(counter.changes.begin(), counter.changes.end());
  EXPECT_EQ(counter.changes,
            (std::vector<std::string>{"other_config x", "other_config z", "port " + rowId(2).hexText().stringValue(),
                                      "port " + rowId(4).hexText().stringValue()}));

  // The partial "old" object of a modify leaves the columns it lacks alone.
  unmarshal(*row, parseJson(R"({"description": "moved"})").get(), table("Physical_Switch"));
  EXPECT_EQ(row->desc(), "moved");
  EXPECT_EQ(row->port().size(), 2u);
}

TEST_F(VgwMarshalRows, TunnelKeyAndUnknownDst) {
  LogicalSwitch ls(rowId(1));
  unmarshal(ls, parseJson(R"({"tunnel_key": 16777215})").get(), table("Logical_Switch"));
  EXPECT_EQ(ls.tunnelKey(), Vxlan::VniOrNone(16777215));
  unmarshal(ls, parseJson(R"({"tunnel_key": ["set", []]})").get(), table("Logical_Switch"));
  EXPECT_FALSE(ls.tunnelKey().isValid());
  // The schema allows any integer: one outside the VNI range is no key.
  PhysicalLocator locator(rowId(9));
  for (const char* key : {"16777216", "-1", "4294967296", "9223372036854775807"}) {
    TraceCapture trace("VgwUtils/0");
    ls.tunnelKeyIs(Vxlan::VniOrNone(0));
    locator.tunnelKeyIs(0);
    unmarshal(ls, parseJson(std::string(R"({"tunnel_key": )") + key + "}").get(), table("Logical_Switch"));
    unmarshal(locator, parseJson(std::string(R"({"tunnel_key": )") + key + "}").get(), table("Physical_Locator"));
    EXPECT_FALSE(ls.tunnelKey().isValid()) << key;
    EXPECT_EQ(locator.tunnelKey(), Vxlan::VniOrNone::none) << key;
    for (const Uuid& row : {ls.uuid(), locator.uuid()}) {
      EXPECT_TRUE(trace.contains(row.stringValue().stringValue() + ": tunnel_key " + key + " is outside the VNI range"))
          << trace.text();
    }
  }
  unmarshal(ls, parseJson(R"({"tunnel_key": 0})").get(), table("Logical_Switch"));
  EXPECT_EQ(ls.tunnelKey(), Vxlan::VniOrNone(0));

  McastMacsRemote remote(rowId(2));
  remote.macIs(mac("00:00:00:00:00:01"));
  remote.logicalSwitchIs(rowId(5));
  unmarshal(remote, parseJson(R"({"MAC": "unknown-dst", "locator_set": )" + uuidJson(3) + "}").get(),
            table("Mcast_Macs_Remote"));
  EXPECT_TRUE(remote.mac().isZero());
  // The remote MAC rows take every column from the object, absent ones as zero.
  EXPECT_TRUE(remote.logicalSwitch().isNull());

  EXPECT_EQ(toText(column(marshal(McastMacsLocal(rowId(4), Ipkit::EthAddr())).get(), "MAC")), R"("unknown-dst")");
}

TEST_F(VgwMarshalRows, SchemaBreachesAssert) {
  Manager manager(rowId(1));
  EXPECT_DEATH(unmarshal(manager, parseJson(R"({"inactivity_probe": 5000})").get(), table("Manager")),
               literally("processed && \"Unexpected column name\""));
  PhysicalSwitch pSwitch(rowId(2));
  EXPECT_DEATH(unmarshal(pSwitch, parseJson(R"({"switch_fault_status": ""})").get(), table("Physical_Switch")),
               literally("!ovsdb_atom_is_default( &key, type.key.type )"));
  EXPECT_DEATH(marshal(LogicalBindingStats(rowId(6))), literally("0 && \"Not implemented.\""));
}

// Text the schema allows but that names no address: a switch binding keyed
// by it is dropped and an ARP source's MAC reads as zero, each with a trace,
// and the rest of the row stands.
TEST_F(VgwMarshalRows, ControllerTextsThatNameNothingReadAsNothing) {
  TraceCapture trace("VgwUtils/0");
  LogicalRouter router(rowId(4));
  unmarshal(router,
            parseJson(R"({"switch_binding": ["map", [["0.0.0.0/0", )" + uuidJson(5) + R"(], ["nonsense", )" +
                      uuidJson(6) + R"(], ["10.1.1.1/33", )" + uuidJson(7) + R"(], ["10.1.1.1/24", )" + uuidJson(8) +
                      "]]]}")
                .get(),
            table("Logical_Router"));
  EXPECT_EQ(router.switchBinding().size(), 1u);
  EXPECT_EQ(router.switchBinding(Ipkit::IpGenAddrWithMask::parse("10.1.1.1/24")), rowId(8));
  for (const char* key : {"0.0.0.0/0", "nonsense", "10.1.1.1/33"}) {
    EXPECT_TRUE(trace.contains(std::string("Discarding unexpected IP address with mask: ") + key)) << trace.text();
  }
  ArpSourcesLocal local(rowId(3));
  ArpSourcesRemote remote(rowId(9));
  unmarshal(local, parseJson(R"({"src_mac": "", "locator": )" + uuidJson(5) + "}").get(), table("Arp_Sources_Local"));
  unmarshal(remote, parseJson(R"({"src_mac": "", "locator": )" + uuidJson(5) + "}").get(), table("Arp_Sources_Remote"));
  EXPECT_TRUE(local.srcMac().isZero() && remote.srcMac().isZero());
  EXPECT_EQ(remote.locator(), rowId(5));
}

TEST(VgwValues, BadAddressesReadAsNoneWithATraceAndErrorRepliesAreTraced) {
  TraceCapture trace("VgwUtils/0+6");
  for (const char* none : {"0.0.0.0", "::", ""}) EXPECT_TRUE(toIpGenAddr(none).isEmpty()) << none;
  EXPECT_EQ(trace.text(), "");
  EXPECT_TRUE(toIpGenAddr("10.0.0.256").isEmpty());
  EXPECT_TRUE(toEthAddr("00:11:22").isZero());
  EXPECT_TRUE(toIntfId("eth1").isEmpty());
  EXPECT_FALSE(isJsonError(*parseJson(R"({"count": 1})")));
  EXPECT_TRUE(isJsonError(*parseJson(R"({"error": "constraint violation", "details": "duplicate name"})")));
  EXPECT_TRUE(isJsonError(*parseJson(R"({"error": "I/O error", "io-error": "Broken pipe"})")));
  for (const char* traced : {"Discarding unexpected IP address: 10.0.0.256", "Discarding unexpected MAC Addr: 00:11:22",
                             "Discarding unexpected port name: eth1",
                             "Json Error found : constraint violationdetails = duplicate name",
                             "Json Error found : I/O error, Broken pipe"}) {
    EXPECT_TRUE(trace.contains(traced)) << traced << " in " << trace.text();
  }
}

TEST(VgwJsonText, IsTheLibrarysTextOrItsBeginning) {
  // Escapes, numbers of both kinds, nesting, and an object large enough that
  // its members come in the order of a grown hash map.
  std::string big = R"({"rows": {)";
  for (int i = 0; i < 300; ++i) {
    big += (i ? "," : "") + std::string("\"") + std::to_string(i * 7919) + R"(": {"new": {"MAC": "00:00:00:00:00:)" +
           std::to_string(i % 10) + R"(", "n": )" + std::to_string(i - 150) + "}}";
  }
  big += "}}";
  const std::string texts[] = {
      R"(null)", R"([])", R"({})", R"("a\"b\\c\n\t\u0001é/")", R"([1, -2.5, 1e300, 0.1, true, false, null])",
      R"({"a": [1, {"b": {}}], "c": "d", "": ""})", R"(["update", {"Ucast_Macs_Remote": {"x": {"old": {}}}}])", big};
  for (const std::string& text : texts) {
    const Ovs::JsonPtr j = parseJson(text);
    ASSERT_TRUE(j) << text;
    const Ovs::CString library(json_to_string(j.get(), 0));
    const std::string full = library.get();
    EXPECT_EQ(jsonText(j.get()), full) << text;
    for (std::size_t limit : {std::size_t{0}, std::size_t{1}, std::size_t{7}, std::size_t{40}, full.size() / 2}) {
      const std::string part = jsonText(j.get(), limit);
      EXPECT_GE(part.size(), std::min(limit, full.size())) << text << " at " << limit;
      EXPECT_TRUE(full.starts_with(part)) << part;
      // Not the whole of a large value.
      if (full.size() > 1000) {
        EXPECT_LT(part.size(), limit + 200) << limit;
      }
    }
  }
}

TEST(VgwBuilders, LocatorSetsMatchExactlyTheirAddresses) {
  auto ovsdb = Kiln::newPtr<HwVtepOvsdb>();
  for (unsigned n : {1u, 2u, 3u}) {
    const auto row = ovsdb->physicalLocatorRawIs(rowId(n));
    row->keyIs(PhysicalLocatorKey(EncapsulationType::vxlan_over_ipv4, ip("10.0.0." + std::to_string(n))));
    ovsdb->physicalLocatorIs(row->key().dstIp(), row);
  }
  ovsdb->physicalLocatorSetIs(rowId(10))->locatorIs(rowId(1));
  auto abc = ovsdb->physicalLocatorSetIs(rowId(11));
  for (unsigned n : {1u, 2u, 3u}) abc->locatorIs(rowId(n));

  OvsdbTransactRequest tx;
  // Neither {A} nor {A, B, C} is the set of {A, B}: a new set, reusing both locators.
  auto ab = getPhysicalLocatorSet(*ovsdb, {ip("10.0.0.1"), ip("10.0.0.2")}, tx);
  EXPECT_TRUE(ab->uuid().isNamed());
  EXPECT_EQ(ab->locator(), (std::set<Uuid>{rowId(1), rowId(2)}));
  EXPECT_EQ(tx.opCount(), 1u);
  EXPECT_EQ(getPhysicalLocatorSet(*ovsdb, {ip("10.0.0.1"), ip("10.0.0.2"), ip("10.0.0.3")}, tx), abc);

  // A set of one real and one new locator, found again through both.
  auto ad = getPhysicalLocatorSet(*ovsdb, {ip("10.0.0.1"), ip("10.0.0.4")}, tx);
  EXPECT_EQ(tx.op(OvsdbDataType::physicalLocator)->op().size(), 1u);
  EXPECT_EQ(getPhysicalLocatorSet(*ovsdb, {ip("10.0.0.4"), ip("10.0.0.1")}, tx), ad);
  EXPECT_EQ(getPhysicalLocator(*ovsdb, ip("10.0.0.4"), tx), tx.vtepIpToPhysicalLocator(ip("10.0.0.4")));
  EXPECT_EQ(tx.opCount(), 3u);
}

}  // namespace
}  // namespace Vgw::Test
