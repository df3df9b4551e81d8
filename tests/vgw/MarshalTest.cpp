// Rows between the mirror and the database's JSON: what the server holds
// reads into the mirror and, for the tables the agent writes, marshals back
// to the same values; reconciliation in place; the schema contract; the
// conversions and the locator lookups the writers share.
#include <gtest/gtest.h>

#include <map>
#include <tuple>
#include <vector>

#include "Kiln/Exception.h"
#include "SessionSupport.h"
#include "Vgw/VgwUtils.h"

namespace Vgw::Test {
namespace {

using Ipkit::IpGenAddr;

Kiln::Ptr<OvsdbDataModel> makeRow(OvsdbDataType type, const Uuid& uuid) {
  switch (type) {
    case OvsdbDataType::logicalSwitch: return Kiln::newPtr<LogicalSwitch>(uuid);
    case OvsdbDataType::logicalBindingStats: return Kiln::newPtr<LogicalBindingStats>(uuid);
    case OvsdbDataType::physicalPort: return Kiln::newPtr<PhysicalPort>(uuid);
    case OvsdbDataType::physicalSwitch: return Kiln::newPtr<PhysicalSwitch>(uuid);
    case OvsdbDataType::physicalLocator: return Kiln::newPtr<PhysicalLocator>(uuid);
    case OvsdbDataType::physicalLocatorSet: return Kiln::newPtr<PhysicalLocatorSet>(uuid);
    case OvsdbDataType::ucastMacsRemote: return Kiln::newPtr<UcastMacsRemote>(uuid);
    case OvsdbDataType::mcastMacsRemote: return Kiln::newPtr<McastMacsRemote>(uuid);
    case OvsdbDataType::global: return Kiln::newPtr<Global>(uuid);
    case OvsdbDataType::manager: return Kiln::newPtr<Manager>(uuid);
    case OvsdbDataType::tunnel: return Kiln::newPtr<Tunnel>(uuid);
    case OvsdbDataType::logicalRouter: return Kiln::newPtr<LogicalRouter>(uuid);
    case OvsdbDataType::arpSourcesLocal: return Kiln::newPtr<ArpSourcesLocal>(uuid);
    case OvsdbDataType::arpSourcesRemote: return Kiln::newPtr<ArpSourcesRemote>(uuid);
    default: return nullptr;
  }
}

template <class Row>
const Row& as(const Kiln::Ptr<OvsdbDataModel>& row) {
  return dynamic_cast<const Row&>(*row);
}

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

TEST(VgwMarshal, ServerRowsOfEveryTableReadIntoTheMirrorAndMarshalBack) {
  OvsdbServer server;
  const std::map<std::string, Uuid> id = Controller(server).transact(Kiln::Json::parse(everyTable));
  const Ovs::SchemaPtr schema = schemaFromFile();
  TraceCapture trace("VgwUtils/6");

  std::map<Uuid, Kiln::Ptr<OvsdbDataModel>> read;
  for (OvsdbDataType type = nextOvsdbDataType(OvsdbDataType::none); type != OvsdbDataType::none;
       type = nextOvsdbDataType(type)) {
    const char* name = ovsdbTableName(type);
    const ovsdb_table_schema& table = tableOf(schema, name);
    for (const Ovs::JsonPtr& data : serverRows(server, name)) {
      if (type == OvsdbDataType::manager) {
        // The agent monitors only these columns of Manager.
        for (const char* other : {"inactivity_probe", "max_backoff", "status"}) {
          json_destroy(static_cast<json*>(shash_find_and_delete(json_object(data.get()), other)));
        }
      }
      const Uuid uuid = rowUuid(data.get());
      Kiln::Ptr<OvsdbDataModelMutable> written;
      if (type == OvsdbDataType::ucastMacsLocal || type == OvsdbDataType::mcastMacsLocal) {
        MacLocBindings b;
        extractMacLocBindings(data.get(), table, b);
        EXPECT_EQ(b.logicalSwitch, id.at("ls"));
        if (type == OvsdbDataType::ucastMacsLocal) {
          auto ucast = Kiln::newPtr<UcastMacsLocal>(uuid, toEthAddr(b.mac));
          ucast->logicalSwitchIs(b.logicalSwitch);
          ucast->locatorIs(b.locator);
          ucast->ipAddrIs(toIpGenAddr(b.ipAddr));
          EXPECT_TRUE(b.locatorSet.isNull());
          written = ucast;
        } else {
          auto mcast = Kiln::newPtr<McastMacsLocal>(uuid, toEthAddr(b.mac));
          mcast->logicalSwitchIs(b.logicalSwitch);
          mcast->physicalLocatorSetIs(b.locatorSet);
          EXPECT_TRUE(mcast->mac().isZero());
          EXPECT_TRUE(b.locator.isNull());
          written = mcast;
        }
      } else {
        Kiln::Ptr<OvsdbDataModel> row = makeRow(type, uuid);
        ASSERT_TRUE(row) << name;
        unmarshal(*row, data.get(), table);
        read.emplace(uuid, row);
        if (type != OvsdbDataType::logicalBindingStats && uuid != id.at("p2")) {
          written = Kiln::dynamicPtrCast<OvsdbDataModelMutable>(row);
        }
      }
      if (written) expectColumnsMatch(table, marshal(*written).get(), data.get());
    }
  }

  // What only the mirror reads, and what the comparison above skips.
  const auto& logicalSwitch = as<LogicalSwitch>(read.at(id.at("ls")));
  EXPECT_EQ(logicalSwitch.displayName(), "blue");
  EXPECT_EQ(logicalSwitch.desc(), "tenant blue");
  EXPECT_EQ(logicalSwitch.tunnelKey(), Vxlan::VniOrNone(100));
  EXPECT_EQ(logicalSwitch.replicationMode(), ReplicationMode::source_node);
  EXPECT_EQ(logicalSwitch.otherConfig("k"), "v");
  EXPECT_EQ(as<LogicalBindingStats>(read.at(id.at("stats"))).packetsFromLocal(), 20u);
  EXPECT_EQ(as<PhysicalLocator>(read.at(id.at("loc2"))).tunnelKey(), 77u);

  // A VLAN out of range drops only its own binding.
  EXPECT_EQ(as<PhysicalPort>(read.at(id.at("p2"))).vlanBinding(),
            (std::map<Bridging::VlanIdOrNone, Uuid>{{Bridging::VlanIdOrNone(4094), id.at("ls")}}));
  EXPECT_TRUE(trace.contains("Discarding vlan binding with out of range VLAN: 4095")) << trace.text();

  const auto& router = as<LogicalRouter>(read.at(id.at("lr")));
  EXPECT_EQ(router.switchBinding(Ipkit::IpGenAddrWithMask::parse("10.1.1.1/24")), id.at("ls"));
  EXPECT_EQ(router.staticRoute(Ipkit::IpGenPrefix::parse("10.2.0.0/16")).nexthop(),
            (std::set<IpGenAddr>{ip("10.1.1.2"), ip("10.1.1.3")}));
  // A next hop that is no address drops alone; the route stands.
  EXPECT_EQ(router.staticRoute(Ipkit::IpGenPrefix::parse("10.3.0.0/16")).nexthop(), std::set<IpGenAddr>{ip("10.1.1.4")});

  const auto& ucast = as<UcastMacsRemote>(read.at(id.at("ucast")));
  EXPECT_EQ(ucast.mac(), mac("00:11:22:33:44:55"));
  EXPECT_EQ(ucast.logicalSwitch(), id.at("ls"));
  EXPECT_EQ(ucast.physicalLocator(), id.at("loc2"));
  EXPECT_EQ(ucast.ipAddr(), ip("10.1.1.9"));
  const auto& mcast = as<McastMacsRemote>(read.at(id.at("mcast")));
  EXPECT_TRUE(mcast.mac().isZero());
  EXPECT_EQ(mcast.physicalLocatorSet(), id.at("set"));
  EXPECT_EQ(as<ArpSourcesRemote>(read.at(id.at("arp"))).locator(), id.at("loc2"));
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
  PhysicalSwitch old(rowId(1));
  unmarshal(old, parseJson(R"({"description": "moved"})").get(), table("Physical_Switch"));
  EXPECT_EQ(old.desc(), "moved");
  EXPECT_TRUE(old.displayName().empty());
  EXPECT_TRUE(old.port().empty());
}

TEST_F(VgwMarshalRows, TunnelKeyAndUnknownDst) {
  LogicalSwitch ls(rowId(1));
  unmarshal(ls, parseJson(R"({"tunnel_key": 16777215})").get(), table("Logical_Switch"));
  EXPECT_EQ(ls.tunnelKey(), Vxlan::VniOrNone(16777215));
  unmarshal(ls, parseJson(R"({"tunnel_key": ["set", []]})").get(), table("Logical_Switch"));
  EXPECT_FALSE(ls.tunnelKey().isValid());
  try {
    unmarshal(ls, parseJson(R"({"tunnel_key": 16777216})").get(), table("Logical_Switch"));
    ADD_FAILURE() << "a tunnel key beyond the VNI range was accepted";
  } catch (const Kiln::RangeException& e) {
    EXPECT_STREQ(e.what(), "Vni::value < Vni::min or > Vni::max not allowed");
  }

  McastMacsRemote remote(rowId(2));
  remote.macIs(mac("00:00:00:00:00:01"));
  remote.logicalSwitchIs(rowId(5));
  unmarshal(remote, parseJson(R"({"MAC": "unknown-dst", "locator_set": )" + uuidJson(3) + "}").get(),
            table("Mcast_Macs_Remote"));
  EXPECT_TRUE(remote.mac().isZero());
  // The remote MAC rows take every column from the object, absent ones as zero.
  EXPECT_TRUE(remote.logicalSwitch().isNull());

  McastMacsLocal local(rowId(4), Ipkit::EthAddr());
  local.logicalSwitchIs(rowId(5));
  local.physicalLocatorSetIs(rowId(3));
  EXPECT_EQ(toText(column(marshal(local).get(), "MAC")), R"("unknown-dst")");
}

TEST_F(VgwMarshalRows, PartialRowsLeaveOutWhatTheyDoNotCarry) {
  PhysicalSwitch pSwitch(rowId(1));
  pSwitch.displayNameIs("leaf1");
  pSwitch.tunnelIs(rowId(2));
  pSwitch.invalidAttribIs("tunnels", true);
  const Ovs::JsonPtr written = marshal(pSwitch);
  EXPECT_EQ(column(written.get(), "tunnels"), nullptr);
  EXPECT_EQ(toText(column(written.get(), "switch_fault_status")), R"(["set",[]])");
  EXPECT_EQ(toText(column(written.get(), "name")), R"("leaf1")");

  auto port = Kiln::newPtr<PhysicalPort>(genNamedUuid());
  port->invalidateAllAttribs();
  port->invalidAttribDel("vlanBinding");
  port->vlanBindingIs(Bridging::VlanIdOrNone(7), port->uuid());
  EXPECT_EQ(toText(marshal(*port).get()),
            R"({"vlan_bindings":["map",[[7,["named-uuid",")" + port->uuid().stringValue().stringValue() + R"("]]]]})");
}

TEST_F(VgwMarshalRows, SchemaBreachesAssert) {
  Manager manager(rowId(1));
  EXPECT_DEATH(unmarshal(manager, parseJson(R"({"inactivity_probe": 5000})").get(), table("Manager")),
               literally("processed && \"Unexpected column name\""));
  PhysicalSwitch pSwitch(rowId(2));
  EXPECT_DEATH(unmarshal(pSwitch, parseJson(R"({"switch_fault_status": ["set", [""]]})").get(), table("Physical_Switch")),
               literally("!ovsdb_atom_is_default( &key, type.key.type )"));
  ArpSourcesLocal arp(rowId(3));
  EXPECT_DEATH(unmarshal(arp, parseJson(R"({"src_mac": ""})").get(), table("Arp_Sources_Local")),
               literally("srcMac.size() && \"Invalid mac\""));
  LogicalRouter router(rowId(4));
  EXPECT_DEATH(unmarshal(router, parseJson(R"({"switch_binding": ["map", [["0.0.0.0/0", )" + uuidJson(5) + "]]]}").get(),
                         table("Logical_Router")),
               literally("false && \"toIpGenAddrWithMask\""));
  EXPECT_DEATH(marshal(LogicalBindingStats(rowId(6))), literally("0 && \"Not implemented.\""));
}

TEST(VgwValues, ConversionsOfDatabaseTextAndErrorReplies) {
  TraceCapture trace("VgwUtils/0+6");
  for (const char* none : {"0.0.0.0", "::", ""}) EXPECT_TRUE(toIpGenAddr(none).isEmpty()) << none;
  EXPECT_EQ(trace.text(), "");
  EXPECT_TRUE(toIpGenAddr("10.0.0.256").isEmpty());
  EXPECT_TRUE(toEthAddr("00:11:22").isZero());
  EXPECT_TRUE(toIntfId("eth1").isEmpty());
  for (const char* traced : {"Discarding unexpected IP address: 10.0.0.256", "Discarding unexpected MAC Addr: 00:11:22",
                             "Discarding unexpected port name: eth1"}) {
    EXPECT_TRUE(trace.contains(traced)) << traced;
  }

  for (const auto& [text, stripped] : std::map<std::string, std::string>{
           {"\"a b\"", "a b"}, {"'x'", "x"}, {"\"x'", "\"x'"}, {"\"", "\""}}) {
    EXPECT_EQ(stripQuotes(text), stripped) << text;
  }
  EXPECT_EQ(macToSysid("00:1C:73:00:00:01"), Fleet::SystemId(mac("00:1c:73:00:00:01")));
  EXPECT_TRUE(macToSysid("not a mac").isZero());
  EXPECT_EQ(sysidToMac("00:1C:73:00:00:01"), "00:1c:73:00:00:01");
  for (const auto& [name, ethernet, channel] : std::vector<std::tuple<const char*, bool, bool>>{
           {"Ethernet3/1", true, false}, {"UnconnectedEthernet1", false, false}, {"Ethernet1.10", false, false},
           {"Port-Channel10", false, true}, {"Recirc-Channel1", false, false}, {"Ecmp-Channel1", false, false}}) {
    EXPECT_EQ(isEthernetPort(name), ethernet) << name;
    EXPECT_EQ(isPortChannel(name), channel) << name;
  }
  EXPECT_TRUE(isMlag("Mlag7"));
  EXPECT_EQ(mlagSwitchName("pairA"), "mlag-pairA");

  EXPECT_FALSE(isJsonError(*parseJson(R"({"count": 1})")));
  EXPECT_TRUE(isJsonError(*parseJson(R"({"error": "constraint violation", "details": "duplicate name"})")));
  EXPECT_TRUE(trace.contains("Json Error found : constraint violationdetails = duplicate name")) << trace.text();
  EXPECT_TRUE(isJsonError(*parseJson(R"({"error": "I/O error", "io-error": "Broken pipe"})")));
  EXPECT_TRUE(trace.contains("Json Error found : I/O error, Broken pipe")) << trace.text();
}

TEST(VgwBuilders, LocatorSetsMatchExactlyTheirAddresses) {
  auto ovsdb = Kiln::newPtr<HwVtepOvsdb>();
  const auto locator = [&](unsigned n, const char* addr) {
    auto row = ovsdb->physicalLocatorRawIs(rowId(n));
    row->keyIs(PhysicalLocatorKey(EncapsulationType::vxlan_over_ipv4, ip(addr)));
    ovsdb->physicalLocatorIs(ip(addr), row);
    return row->uuid();
  };
  const Uuid a = locator(1, "10.0.0.1"), b = locator(2, "10.0.0.2"), c = locator(3, "10.0.0.3");
  ovsdb->physicalLocatorSetIs(rowId(10))->locatorIs(a);
  auto abc = ovsdb->physicalLocatorSetIs(rowId(11));
  for (const Uuid& u : {a, b, c}) abc->locatorIs(u);

  OvsdbTransactRequest tx;
  // Neither {A} nor {A, B, C} is the set of {A, B}: a new set, reusing both locators.
  auto ab = getPhysicalLocatorSet(*ovsdb, {ip("10.0.0.1"), ip("10.0.0.2")}, tx);
  EXPECT_TRUE(ab->uuid().isNamed());
  EXPECT_EQ(ab->locator(), (std::set<Uuid>{a, b}));
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
