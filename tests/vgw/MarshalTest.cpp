// Rows between the mirror and the database's JSON: what the server holds
// reads into the mirror and, for the tables the agent writes, marshals back
// to the same values; reconciliation in place; the schema contract; the
// conversions and builders the writers share.
#include <gtest/gtest.h>

#include <map>

#include "Kiln/Exception.h"
#include "TransactionSupport.h"
#include "Vgw/LocalTypes.h"
#include "Vgw/VgwUtils.h"

namespace Vgw::Test {
namespace {

using Ipkit::EthAddr;
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

IpGenAddr ip(const char* text) { return IpGenAddr::parse(text); }
EthAddr mac(const char* text) { return EthAddr::parse(text); }

// Everything a controller and an earlier agent could have written, one row
// or more per mirrored table.
constexpr const char* everyTable = R"(
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
  {"op": "insert", "table": "Physical_Switch", "uuid-name": "sw", "row": {"name": "leaf1",
   "description": "rack 1", "ports": ["named-uuid", "p1"], "management_ips": ["set", ["192.168.0.1"]],
   "tunnel_ips": ["set", ["10.0.0.1", "fd00::1"]], "tunnels": ["named-uuid", "tun"],
   "other_config": ["map", [["x", "y"]]], "switch_fault_status": ["set", ["unreachable"]]}},
  {"op": "insert", "table": "Manager", "uuid-name": "mgr", "row": {"target": "ssl:10.9.9.9:6640",
   "other_config": ["map", [["dscp", "46"]]]}},
  {"op": "mutate", "table": "Global", "where": [], "mutations": [
   ["switches", "insert", ["set", [["named-uuid", "sw"]]]], ["managers", "insert", ["set", [["named-uuid", "mgr"]]]],
   ["other_config", "insert", ["map", [["g", "h"]]]]]},
  {"op": "insert", "table": "Logical_Router", "row": {"name": "lr",
   "switch_binding": ["map", [["10.1.1.1/24", ["named-uuid", "ls"]]]],
   "static_routes": ["map", [["10.2.0.0/16", "10.1.1.2;10.1.1.3"], ["10.3.0.0/16", "bogus;10.1.1.4"]]]}},
  {"op": "insert", "table": "Ucast_Macs_Remote", "row": {"MAC": "00:11:22:33:44:55",
   "logical_switch": ["named-uuid", "ls"], "locator": ["named-uuid", "loc2"], "ipaddr": "10.1.1.9"}},
  {"op": "insert", "table": "Mcast_Macs_Remote", "row": {"MAC": "unknown-dst",
   "logical_switch": ["named-uuid", "ls"], "locator_set": ["named-uuid", "set"]}},
  {"op": "insert", "table": "Ucast_Macs_Local", "row": {"MAC": "00:aa:bb:cc:dd:01",
   "logical_switch": ["named-uuid", "ls"], "locator": ["named-uuid", "loc1"], "ipaddr": "10.1.1.5"}},
  {"op": "insert", "table": "Mcast_Macs_Local", "row": {"MAC": "unknown-dst",
   "logical_switch": ["named-uuid", "ls"], "locator_set": ["named-uuid", "set"]}},
  {"op": "insert", "table": "Arp_Sources_Local", "row": {"src_mac": "00:aa:bb:cc:dd:02",
   "locator": ["named-uuid", "loc1"]}},
  {"op": "insert", "table": "Arp_Sources_Remote", "row": {"src_mac": "00:aa:bb:cc:dd:03",
   "locator": ["named-uuid", "loc2"]}})";

TEST(VgwMarshal, ServerRowsOfEveryTableReadIntoTheMirrorAndMarshalBack) {
  OvsdbServer server;
  Session session(server);
  ASSERT_TRUE(session.ok());
  const std::vector<Uuid> id = controllerInsert(server, everyTable);
  ASSERT_EQ(id.size(), 16u);
  const Uuid ls = id[0], stats = id[1], loc1 = id[2], loc2 = id[3], set = id[4], tun = id[5], p1 = id[6],
             sw = id[7], mgr = id[8];

  std::map<Uuid, Kiln::Ptr<OvsdbDataModel>> read;
  for (OvsdbDataType type = nextOvsdbDataType(OvsdbDataType::none); type != OvsdbDataType::none;
       type = nextOvsdbDataType(type)) {
    const char* name = ovsdbTableName(type);
    for (const Ovs::JsonPtr& data : serverRows(server, name)) {
      if (type == OvsdbDataType::manager) {
        // The agent monitors only these columns of Manager.
        for (const char* other : {"inactivity_probe", "max_backoff", "status"}) {
          json_destroy(static_cast<json*>(shash_find_and_delete(json_object(data.get()), other)));
        }
      }
      const Uuid uuid = rowUuid(data.get());
      if (type == OvsdbDataType::ucastMacsLocal || type == OvsdbDataType::mcastMacsLocal) {
        MacLocBindings b;
        extractMacLocBindings(data.get(), session.table(name), b);
        Kiln::Ptr<OvsdbDataModelMutable> row;
        if (type == OvsdbDataType::ucastMacsLocal) {
          auto ucast = Kiln::newPtr<UcastMacsLocal>(uuid, toEthAddr(b.mac));
          ucast->logicalSwitchIs(b.logicalSwitch);
          ucast->locatorIs(b.locator);
          ucast->ipAddrIs(toIpGenAddr(b.ipAddr));
          EXPECT_TRUE(b.locatorSet.isNull());
          row = ucast;
        } else {
          auto mcast = Kiln::newPtr<McastMacsLocal>(uuid, toEthAddr(b.mac));
          mcast->logicalSwitchIs(b.logicalSwitch);
          mcast->physicalLocatorSetIs(b.locatorSet);
          EXPECT_TRUE(mcast->mac().isZero());
          EXPECT_TRUE(b.locator.isNull());
          row = mcast;
        }
        EXPECT_EQ(b.logicalSwitch, ls);
        expectColumnsMatch(session.table(name), marshal(*row).get(), data.get());
        continue;
      }
      Kiln::Ptr<OvsdbDataModel> row = makeRow(type, uuid);
      ASSERT_TRUE(row) << name;
      unmarshal(*row, data.get(), session.table(name));
      if (auto* mutableRow = dynamic_cast<OvsdbDataModelMutable*>(row.get());
          mutableRow && type != OvsdbDataType::logicalBindingStats) {
        expectColumnsMatch(session.table(name), marshal(*mutableRow).get(), data.get());
      }
      read.emplace(uuid, row);
    }
  }

  const auto& logicalSwitch = as<LogicalSwitch>(read.at(ls));
  EXPECT_EQ(logicalSwitch.displayName(), "blue");
  EXPECT_EQ(logicalSwitch.desc(), "tenant blue");
  EXPECT_EQ(logicalSwitch.tunnelKey(), Vxlan::VniOrNone(100));
  EXPECT_EQ(logicalSwitch.replicationMode(), ReplicationMode::source_node);
  EXPECT_EQ(logicalSwitch.otherConfig("k"), "v");

  const auto& counters = as<LogicalBindingStats>(read.at(stats));
  EXPECT_EQ(counters.bytesToLocal(), 1000u);
  EXPECT_EQ(counters.packetsFromLocal(), 20u);

  EXPECT_EQ(as<PhysicalLocator>(read.at(loc1)).key(), PhysicalLocatorKey(EncapsulationType::vxlan_over_ipv4, ip("10.0.0.1")));
  EXPECT_EQ(as<PhysicalLocator>(read.at(loc1)).tunnelKey(), Vxlan::VniOrNone::none);
  EXPECT_EQ(as<PhysicalLocator>(read.at(loc2)).tunnelKey(), 77u);
  EXPECT_EQ(as<PhysicalLocatorSet>(read.at(set)).locator(), (std::set<Uuid>{loc1, loc2}));

  const auto& tunnel = as<Tunnel>(read.at(tun));
  EXPECT_EQ(tunnel.localLocator(), loc1);
  EXPECT_EQ(tunnel.remoteLocator(), loc2);
  EXPECT_EQ(tunnel.bfdConfigRemote("bfd_dst_ip"), "169.254.1.2");
  EXPECT_EQ(tunnel.bfdParam("enable"), "true");

  const auto& port = as<PhysicalPort>(read.at(p1));
  EXPECT_EQ(port.vlanBinding(), (std::map<Bridging::VlanIdOrNone, Uuid>{{Bridging::VlanIdOrNone(0), ls},
                                                                        {Bridging::VlanIdOrNone(4094), ls}}));
  EXPECT_EQ(port.vlanStat(Bridging::VlanIdOrNone(4094)), stats);
  EXPECT_TRUE(port.fault("down"));

  const auto& pSwitch = as<PhysicalSwitch>(read.at(sw));
  EXPECT_EQ(pSwitch.port(), std::set<Uuid>{p1});
  EXPECT_EQ(pSwitch.tunnelIp(), (std::set<IpGenAddr>{ip("10.0.0.1"), ip("fd00::1")}));
  EXPECT_EQ(pSwitch.mgmtIp(), std::set<IpGenAddr>{ip("192.168.0.1")});
  EXPECT_EQ(pSwitch.tunnel(), std::set<Uuid>{tun});
  EXPECT_TRUE(pSwitch.fault("unreachable"));

  const auto& manager = as<Manager>(read.at(mgr));
  EXPECT_EQ(manager.target(), "ssl:10.9.9.9:6640");
  EXPECT_FALSE(manager.isConnected());

  const auto& global = as<Global>(read.at(rowUuid(serverRows(server, "Global")[0].get())));
  EXPECT_EQ(global.pSwitch(), std::set<Uuid>{sw});
  EXPECT_EQ(global.manager(), std::set<Uuid>{mgr});
  EXPECT_EQ(global.otherConfig("g"), "h");

  const auto& router = as<LogicalRouter>(read.at(id[9]));
  EXPECT_EQ(router.switchBinding(Ipkit::IpGenAddrWithMask::parse("10.1.1.1/24")), ls);
  EXPECT_EQ(router.staticRoute(Ipkit::IpGenPrefix::parse("10.2.0.0/16")).nexthop(),
            (std::set<IpGenAddr>{ip("10.1.1.2"), ip("10.1.1.3")}));
  // A next hop that is no address drops alone; the route stands.
  EXPECT_EQ(router.staticRoute(Ipkit::IpGenPrefix::parse("10.3.0.0/16")).nexthop(), std::set<IpGenAddr>{ip("10.1.1.4")});

  const auto& ucast = as<UcastMacsRemote>(read.at(id[10]));
  EXPECT_EQ(ucast.mac(), mac("00:11:22:33:44:55"));
  EXPECT_EQ(ucast.logicalSwitch(), ls);
  EXPECT_EQ(ucast.physicalLocator(), loc2);
  EXPECT_EQ(ucast.ipAddr(), ip("10.1.1.9"));

  const auto& mcast = as<McastMacsRemote>(read.at(id[11]));
  EXPECT_TRUE(mcast.mac().isZero());
  EXPECT_EQ(mcast.physicalLocatorSet(), set);
  EXPECT_TRUE(mcast.ipAddr().isEmpty());

  EXPECT_EQ(as<ArpSourcesLocal>(read.at(id[14])).srcMac(), mac("00:aa:bb:cc:dd:02"));
  EXPECT_EQ(as<ArpSourcesRemote>(read.at(id[15])).locator(), loc2);
}

TEST(VgwMarshal, VlanOutOfRangeDropsOnlyItsEntry) {
  OvsdbServer server;
  Session session(server);
  ASSERT_TRUE(session.ok());
  const std::vector<Uuid> id = controllerInsert(server, R"(
    {"op": "insert", "table": "Logical_Switch", "uuid-name": "ls", "row": {"name": "ls"}},
    {"op": "insert", "table": "Physical_Port", "uuid-name": "p", "row": {"name": "Ethernet2",
     "vlan_bindings": ["map", [[4094, ["named-uuid", "ls"]], [4095, ["named-uuid", "ls"]]]]}},
    {"op": "insert", "table": "Physical_Switch", "uuid-name": "sw", "row": {"name": "leaf2", "ports": ["named-uuid", "p"]}},
    {"op": "mutate", "table": "Global", "where": [], "mutations": [["switches", "insert", ["set", [["named-uuid", "sw"]]]]]})");
  ASSERT_EQ(id.size(), 3u);
  const std::vector<Ovs::JsonPtr> rows = serverRows(server, "Physical_Port");
  ASSERT_EQ(rows.size(), 1u);

  PhysicalPort port(id[1]);
  TraceCapture trace("VgwUtils/6");
  unmarshal(port, rows[0].get(), session.table("Physical_Port"));
  EXPECT_EQ(port.vlanBinding(), (std::map<Bridging::VlanIdOrNone, Uuid>{{Bridging::VlanIdOrNone(4094), id[0]}}));
  EXPECT_TRUE(trace.contains("Discarding vlan binding with out of range VLAN: 4095")) << trace.text();
}

// ---- without a server: rows written here against the installed schema ----

class VgwMarshalRows : public ::testing::Test {
 protected:
  const ovsdb_table_schema& table(const char* name) const { return tableOf(schema_, name); }

  Uuid uuid(unsigned n) const { return Uuid(n, 0, 0x80000000u, n); }
  std::string uuidJson(unsigned n) const { return R"(["uuid", ")" + uuid(n).hexText().stringValue() + R"("])"; }

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
  auto row = Kiln::newPtr<PhysicalSwitch>(uuid(1));
  row->displayNameIs("leaf1");
  row->portIs(uuid(2));
  row->portIs(uuid(3));
  row->otherConfigIs("x", "1");
  row->otherConfigIs("y", "2");
  Counter counter;
  counter.notifierIs(row);

  const Ovs::JsonPtr data = parseJson(R"({"name": "leaf1", "ports": ["set", [)" + uuidJson(3) + ", " + uuidJson(4) +
                                      R"(]], "other_config": ["map", [["y", "2"], ["z", "3"]]]})");
  unmarshal(*row, data.get(), table("Physical_Switch"));
  EXPECT_EQ(row->port(), (std::set<Uuid>{uuid(3), uuid(4)}));
  EXPECT_EQ(row->otherConfig(), (std::map<Kiln::String, Kiln::String>{{"y", "2"}, {"z", "3"}}));
  std::sort(counter.changes.begin(), counter.changes.end());
  EXPECT_EQ(counter.changes,
            (std::vector<std::string>{"other_config x", "other_config z", "port " + uuid(2).hexText().stringValue(),
                                      "port " + uuid(4).hexText().stringValue()}));

  // The partial "old" object of a modify leaves the columns it lacks alone.
  PhysicalSwitch old(uuid(1));
  unmarshal(old, parseJson(R"({"description": "moved"})").get(), table("Physical_Switch"));
  EXPECT_EQ(old.desc(), "moved");
  EXPECT_TRUE(old.displayName().empty());
  EXPECT_TRUE(old.port().empty());
}

TEST_F(VgwMarshalRows, TunnelKeyAndUnknownDst) {
  LogicalSwitch ls(uuid(1));
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

  McastMacsRemote remote(uuid(2));
  remote.macIs(mac("00:00:00:00:00:01"));
  unmarshal(remote, parseJson(R"({"MAC": "unknown-dst", "locator_set": )" + uuidJson(3) + "}").get(),
            table("Mcast_Macs_Remote"));
  EXPECT_TRUE(remote.mac().isZero());
  // The remote MAC rows take every column from the object, absent ones as zero.
  EXPECT_TRUE(remote.logicalSwitch().isNull());

  McastMacsLocal local(uuid(4), EthAddr());
  local.logicalSwitchIs(uuid(5));
  local.physicalLocatorSetIs(uuid(3));
  EXPECT_EQ(toText(column(marshal(local).get(), "MAC")), R"("unknown-dst")");
}

TEST_F(VgwMarshalRows, PartialRowsLeaveOutWhatTheyDoNotCarry) {
  PhysicalSwitch pSwitch(uuid(1));
  pSwitch.displayNameIs("leaf1");
  pSwitch.tunnelIs(uuid(2));
  pSwitch.invalidAttribIs("tunnels", true);
  const Ovs::JsonPtr written = marshal(pSwitch);
  EXPECT_EQ(column(written.get(), "tunnels"), nullptr);
  EXPECT_EQ(toText(column(written.get(), "switch_fault_status")), R"(["set",[]])");
  EXPECT_EQ(toText(column(written.get(), "name")), R"("leaf1")");

  auto port = Kiln::newPtr<PhysicalPort>(genNamedUuid());
  port->invalidateAllAttribs();
  port->invalidAttribDel("vlanBinding");
  port->vlanBindingIs(Bridging::VlanIdOrNone(7), port->uuid());
  const Ovs::JsonPtr partial = marshal(*port);
  EXPECT_EQ(toText(partial.get()),
            R"({"vlan_bindings":["map",[[7,["named-uuid",")" + port->uuid().stringValue().stringValue() + R"("]]]]})");

  UcastMacsLocal ucast(uuid(3), mac("00:aa:00:00:00:01"));
  ucast.invalidAttribIs("ipAddr", true);
  EXPECT_EQ(column(marshal(ucast).get(), "ipaddr"), nullptr);
  ucast.invalidAttribDel("ipAddr");
  EXPECT_EQ(toText(column(marshal(ucast).get(), "ipaddr")), R"("")");
}

TEST_F(VgwMarshalRows, SchemaBreachesAssert) {
  Manager manager(uuid(1));
  EXPECT_DEATH(unmarshal(manager, parseJson(R"({"inactivity_probe": 5000})").get(), table("Manager")),
               literally("processed && \"Unexpected column name\""));
  PhysicalSwitch pSwitch(uuid(2));
  EXPECT_DEATH(unmarshal(pSwitch, parseJson(R"({"switch_fault_status": ["set", [""]]})").get(), table("Physical_Switch")),
               literally("!ovsdb_atom_is_default( &key, type.key.type )"));
  ArpSourcesLocal arp(uuid(3));
  EXPECT_DEATH(unmarshal(arp, parseJson(R"({"src_mac": ""})").get(), table("Arp_Sources_Local")),
               literally("srcMac.size() && \"Invalid mac\""));
  LogicalRouter router(uuid(4));
  EXPECT_DEATH(unmarshal(router, parseJson(R"({"switch_binding": ["map", [["0.0.0.0/0", )" + uuidJson(5) + "]]]}").get(),
                         table("Logical_Router")),
               literally("false && \"toIpGenAddrWithMask\""));
  EXPECT_DEATH(marshal(LogicalBindingStats(uuid(6))), literally("0 && \"Not implemented.\""));
}

TEST(VgwValues, ConversionsOfDatabaseText) {
  TraceCapture trace("VgwUtils/6");
  EXPECT_TRUE(toIpGenAddr("0.0.0.0").isEmpty());
  EXPECT_TRUE(toIpGenAddr("::").isEmpty());
  EXPECT_TRUE(toIpGenAddr("").isEmpty());
  EXPECT_EQ(trace.text(), "");
  EXPECT_TRUE(toIpGenAddr("10.0.0.256").isEmpty());
  EXPECT_TRUE(trace.contains("Discarding unexpected IP address: 10.0.0.256"));
  EXPECT_TRUE(toEthAddr("00:11:22").isZero());
  EXPECT_TRUE(trace.contains("Discarding unexpected MAC Addr: 00:11:22"));
  EXPECT_TRUE(toIntfId("eth1").isEmpty());
  EXPECT_TRUE(trace.contains("Discarding unexpected port name: eth1"));

  EXPECT_EQ(stripQuotes("\"a b\""), "a b");
  EXPECT_EQ(stripQuotes("'x'"), "x");
  EXPECT_EQ(stripQuotes("\"x'"), "\"x'");
  EXPECT_EQ(stripQuotes("\""), "\"");

  EXPECT_EQ(macToSysid("00:1C:73:00:00:01"), Fleet::SystemId(mac("00:1c:73:00:00:01")));
  EXPECT_TRUE(macToSysid("not a mac").isZero());
  EXPECT_EQ(sysidToMac("00:1C:73:00:00:01"), "00:1c:73:00:00:01");

  EXPECT_TRUE(isEthernetPort("Ethernet3/1"));
  EXPECT_FALSE(isEthernetPort("UnconnectedEthernet1"));
  EXPECT_FALSE(isEthernetPort("Ethernet1.10"));
  EXPECT_TRUE(isPortChannel("Port-Channel10"));
  EXPECT_FALSE(isPortChannel("Recirc-Channel1"));
  EXPECT_FALSE(isPortChannel("Ecmp-Channel1"));
  EXPECT_TRUE(isMlag("Mlag7"));
  EXPECT_EQ(mlagSwitchName("pairA"), "mlag-pairA");
}

TEST(VgwValues, ErrorRepliesAreRecognisedAndTraced) {
  TraceCapture trace("VgwUtils/0");
  EXPECT_FALSE(isJsonError(*parseJson(R"({"count": 1})")));
  EXPECT_TRUE(isJsonError(*parseJson(R"({"error": "constraint violation", "details": "duplicate name"})")));
  EXPECT_TRUE(trace.contains("Json Error found : constraint violationdetails = duplicate name")) << trace.text();
  EXPECT_TRUE(isJsonError(*parseJson(R"({"error": "I/O error", "io-error": "Broken pipe"})")));
  EXPECT_TRUE(trace.contains("Json Error found : I/O error, Broken pipe")) << trace.text();
}

TEST(VgwBuilders, OperationsCarryTheirConditions) {
  auto global = createGlobal({Uuid(1, 0, 0x80000000u, 1)}, {});
  EXPECT_TRUE(global->uuid().isNamed());
  const Uuid rowId(9, 9, 0x80000009u, 9);

  auto byUuid = buildUpdate(rowId, global);
  EXPECT_EQ(toText(byUuid->where()), R"([["_uuid","==",["uuid",")" + rowId.hexText().stringValue() + R"("]]])");
  EXPECT_EQ(byUuid->resultCount(), 1u);
  EXPECT_EQ(byUuid->ovsdbDataModel(), Kiln::Ptr<OvsdbDataModel>(global));

  auto byName = buildUpdate(rowId, createManager("tcp:1.1.1.1:6640"), createCondition("target", "==", "tcp:1.1.1.1:6640"));
  EXPECT_EQ(toText(byName->where()), R"([["target","==","tcp:1.1.1.1:6640"]])");
  EXPECT_EQ(toText(byName->row()), R"({"other_config":["map",[]],"target":"tcp:1.1.1.1:6640"})");

  EXPECT_EQ(toText(buildDeleteWhere(OvsdbDataType::ucastMacsLocal, nullptr)->where()), "[]");
  auto del = buildDelete(rowId, OvsdbDataType::physicalPort);
  EXPECT_EQ(del->uuid(), rowId);
  EXPECT_EQ(toText(del->where()), toText(byUuid->where()));

  auto mutate = buildMutate(rowId, MutaterOp::mutaterOpDelete, "pSwitch", {Uuid(2, 0, 0x80000000u, 2)},
                            OvsdbDataType::global, parseJson(R"([["switches", "delete", ["set", []]]])"));
  EXPECT_EQ(mutate->mutateSet().size(), 1u);
  EXPECT_EQ(toText(mutate->mutations()), R"([["switches","delete",["set",[]]]])");
}

TEST(VgwBuilders, LocatorSetsMatchExactlyTheirAddresses) {
  auto ovsdb = Kiln::newPtr<HwVtepOvsdb>();
  const auto locator = [&](unsigned n, const char* addr) {
    auto row = ovsdb->physicalLocatorRawIs(Uuid(n, 0, 0x80000000u, n));
    row->keyIs(PhysicalLocatorKey(EncapsulationType::vxlan_over_ipv4, ip(addr)));
    ovsdb->physicalLocatorIs(ip(addr), row);
    return row->uuid();
  };
  const Uuid a = locator(1, "10.0.0.1"), b = locator(2, "10.0.0.2"), c = locator(3, "10.0.0.3");
  ovsdb->physicalLocatorSetIs(Uuid(10, 0, 0x80000000u, 10))->locatorIs(a);
  auto abc = ovsdb->physicalLocatorSetIs(Uuid(11, 0, 0x80000000u, 11));
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
