// The switches the controller sees, against a real ovsdb-server: which hosts
// become switches and when (the four readiness inputs, the coalesced
// refresh on simulated time), their names, their rows and ports as a
// controller reads them with vtep-ctl, what a switch's own timer carries,
// ARP sources, and that a refresh of an unchanged fabric sends nothing.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Kiln/Log.h"
#include "SessionSupport.h"
#include "Vgw/InventorySm.h"

namespace Vgw::Test {
namespace {

using Kiln::Json;
using OverlaySvc::VtepLinkStatus;

constexpr const char* leaf1 = "00:1c:73:00:00:01";
constexpr const char* leaf2 = "00:1c:73:00:00:02";
constexpr const char* leaf3 = "00:1c:73:00:00:03";
constexpr const char* leaf4 = "00:1c:73:00:00:04";
constexpr const char* leaf5 = "00:1c:73:00:00:05";

// The atoms of an OVSDB column value: a set's members, or the one atom.
std::vector<Json> atoms(const Json& value) {
  if (value.is_array() && value.size() == 2 && value[0] == "set")
    return std::vector<Json>(value[1].begin(), value[1].end());
  if (value.is_array() && value.size() == 2 && value[0] == "map")
    return std::vector<Json>(value[1].begin(), value[1].end());
  return {value};
}
std::set<std::string> texts(const Json& value) {
  std::set<std::string> out;
  for (const Json& atom : atoms(value)) out.insert(atom.get<std::string>());
  return out;
}
std::set<Uuid> uuidsIn(const Json& value) {
  std::set<Uuid> out;
  for (const Json& atom : atoms(value)) out.insert(uuidOf(atom));
  return out;
}
std::set<std::string> lines(const std::string& text) {
  std::set<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty()) out.insert(line);
  }
  return out;
}

class InventoryTest : public testing::Test {
 protected:
  InventoryTest() { freshLocalData(); }
  ~InventoryTest() override {
    inventory = nullptr;
    Kiln::logStreamIs(nullptr);
    Kiln::logSyslogIs(true);
  }

  void connect() {
    root.enable();
    ASSERT_TRUE(loop.runUntil([&] { return root.state() == SessionState::stateConnected; }));
  }
  void start() { inventory = inventorySmFactory(topo, vteps, errors, root.ovsdb, root.queue); }
  // Runs the coalesced refresh that the changes so far have armed.
  void refresh() { loop.advance(InventorySm::defaultCoalesceInterval); }

  // The last digit of a switch id, which numbers its addresses.
  static std::string digit(const char* id) { return std::string(id).substr(16); }

  Kiln::Ptr<FabricMapV3::Host> addHost(const char* id, const char* hostname) {
    const Kiln::Ptr<FabricMapV3::Host> host = topo->hostIs(id);
    host->hostnameIs(hostname);
    host->mgmtIpIs(ip("192.0.2.1" + digit(id)));
    for (const char* port : {"Ethernet1", "Ethernet2", "Port-Channel10"}) host->logicalPortIs(port);
    return host;
  }
  Kiln::Ptr<OverlaySvc::VtepStatusV2> addVtep(const char* id, const char* address, const char* vtepMac) {
    const auto vtep = vteps->createEntity<OverlaySvc::VtepStatusDirV2>(id)->vtepStatusIs("Vxlan1");
    vtep->linkStatusIs(VtepLinkStatus::linkUp);
    vtep->vtepAddrIs(Ipkit::IpAddr::parse(address));
    vtep->vtepLocalMacIs(mac(vtepMac));
    return vtep;
  }
  Kiln::Ptr<OverlaySvc::ErrorStatusV2> addErrors(const char* id) {
    return errors->createEntity<OverlaySvc::ErrorStatusV2>(id);
  }
  // A host with every input: management address 192.0.2.1<n>, VTEP
  // 10.0.0.<n> with MAC 00:aa:00:00:00:0<n>, and an empty error status.
  void addSwitch(const char* id, const char* hostname) {
    addHost(id, hostname);
    addVtep(id, ("10.0.0." + digit(id)).c_str(), ("00:aa:00:00:00:0" + digit(id)).c_str());
    addErrors(id);
  }

  // What the controller sees: the Physical_Switch rows that Global names, by name.
  std::map<std::string, Json> switches() {
    const std::set<Uuid> named = uuidsIn(db.rows("Global").at(0)["switches"]);
    std::map<std::string, Json> out;
    for (const Json& row : db.rows("Physical_Switch")) {
      if (named.contains(uuidOf(row["_uuid"]))) out.emplace(row["name"].get<std::string>(), row);
    }
    EXPECT_EQ(out.size(), named.size()) << "Global names a switch that is not there";
    return out;
  }
  std::set<std::string> switchNames() {
    std::set<std::string> out;
    for (const auto& [name, row] : switches()) out.insert(name);
    EXPECT_EQ(lines(server.vtepCtl("list-ps")), out) << "vtep-ctl sees the same switches";
    return out;
  }
  std::set<std::string> ports(const std::string& name) { return lines(server.vtepCtl("list-ports", name)); }
  Json port(const std::string& switchName, const std::string& portName) {
    for (const Uuid& uuid : uuidsIn(switches().at(switchName)["ports"])) {
      for (const Json& row : db.rows("Physical_Port")) {
        if (uuidOf(row["_uuid"]) == uuid && row["name"] == portName) return row;
      }
    }
    return Json();
  }
  // Arp_Sources_Local as MAC to the address of its locator.
  std::map<std::string, std::string> arpSources() {
    std::map<Uuid, std::string> locators;
    for (const Json& row : db.rows("Physical_Locator")) locators[uuidOf(row["_uuid"])] = row["dst_ip"];
    std::map<std::string, std::string> out;
    for (const Json& row : db.rows("Arp_Sources_Local")) out[row["src_mac"]] = locators[uuidOf(row["locator"])];
    return out;
  }
  std::uint64_t sent() const { return root.sessionStatus->requestCount(); }
  LocalData& local() { return *Kiln::Entity::singletonIs<LocalData>(); }
  PhysicalSwitchSm& switchSm(const char* id) { return *inventory->physicalSwitchSm(Fleet::SystemId::parse(id)); }

  LoopRunner loop;
  OvsdbServer server;
  Controller db{server};
  SessionRoot root{server.socketPath()};
  const Kiln::Ptr<FabricMapV3::Status> topo = Kiln::newPtr<FabricMapV3::Status>();
  const Kiln::Ptr<Kiln::Dir> vteps = Kiln::newPtr<Kiln::Dir>();
  const Kiln::Ptr<Kiln::Dir> errors = Kiln::newPtr<Kiln::Dir>();
  Kiln::Ptr<InventorySm> inventory;
};

TEST_F(InventoryTest, AFabricWrittenInABurstAppearsInOneRefreshHalfASecondAfterItsFirstChange) {
  connect();
  std::uint64_t before = sent();
  start();
  EXPECT_EQ(sent(), before) << "an empty fabric writes nothing";

  const double first = loop.now();
  addSwitch(leaf1, "leaf1");
  loop.advance(0.2);
  addSwitch(leaf2, "leaf2");
  // Interfaces that are no database port, and the MLAG peer link.
  const Kiln::Ptr<FabricMapV3::Host> host = topo->host(leaf1);
  for (const char* name : {"Ethernet3.100", "UnconnectedEthernet5", "Recirc-Channel1", "Ecmp-Channel2", "Vlan10",
                           "Management1", "Mlag5", "Port-Channel2000", "not-an-interface"}) {
    host->logicalPortIs(name);
  }
  host->mlagPeerLinkIs("Port-Channel2000");
  EXPECT_EQ(inventory->refreshTime(), first + 0.5);
  loop.advance(0.29);
  EXPECT_TRUE(switchNames().empty());
  EXPECT_EQ(sent(), before);

  loop.advance(0.01);
  EXPECT_EQ(switchNames(), (std::set<std::string>{"leaf1", "leaf2"}));
  EXPECT_EQ(sent(), before + 3) << "the ARP source of each VTEP, then one transaction for both switches";
  EXPECT_EQ(ports("leaf1"), (std::set<std::string>{"Ethernet1", "Ethernet2", "Port-Channel10"}));
  EXPECT_EQ(ports("leaf2"), (std::set<std::string>{"Ethernet1", "Ethernet2", "Port-Channel10"}));
  const std::map<std::string, Json> rows = switches();
  EXPECT_EQ(texts(rows.at("leaf1")["management_ips"]), std::set<std::string>{"192.0.2.11"});
  EXPECT_EQ(texts(rows.at("leaf2")["tunnel_ips"]), std::set<std::string>{"10.0.0.2"});
  EXPECT_EQ(rows.at("leaf1")["description"], "");
  EXPECT_EQ(arpSources(),
            (std::map<std::string, std::string>{{"00:aa:00:00:00:01", "10.0.0.1"}, {"00:aa:00:00:00:02", "10.0.0.2"}}));
  for (const char* id : {leaf1, leaf2}) {
    const Kiln::Ptr<PhysicalSwitch> filed = local().physicalSwitch(Fleet::SystemId::parse(id));
    ASSERT_TRUE(filed) << id;
    EXPECT_EQ(filed->displayName(), switchSm(id).displayName());
  }
  EXPECT_EQ(inventory->refreshTime(), Kiln::plusInfinity);
  EXPECT_EQ(switchSm(leaf1).refreshTime(), Kiln::plusInfinity) << "the inventory's refresh covered the switch's own";
}

// Each switch lacks one input; the last to come makes it appear, and losing
// any input takes it away.
TEST_F(InventoryTest, ASwitchExistsExactlyWhileAllFourInputsDo) {
  struct Input {
    const char* name;
    std::function<void(const char* id)> add;
    std::function<void(const char* id)> remove;
  };
  const std::vector<Input> inputs = {
      {"host", [&](const char* id) { addHost(id, id); }, [&](const char* id) { topo->hostDel(id); }},
      {"hostname", [&](const char* id) { topo->host(id)->hostnameIs(id); },
       [&](const char* id) { topo->host(id)->hostnameIs(""); }},
      {"VTEP status", [&](const char* id) { addVtep(id, "10.0.0.1", "00:aa:00:00:00:01"); },
       [&](const char* id) { vteps->deleteEntity(id); }},
      {"error status", [&](const char* id) { addErrors(id); }, [&](const char* id) { errors->deleteEntity(id); }},
      // An entry of the wrong type in a directory counts as absent.
      {"VTEP status of the right type",
       [&](const char* id) {
         vteps->deleteEntity(id);
         addVtep(id, "10.0.0.1", "00:aa:00:00:00:01");
       },
       [&](const char* id) {
         vteps->deleteEntity(id);
         vteps->createEntity<OverlaySvc::ErrorStatusV2>(id);
       }},
  };
  const std::vector<const char*> ids = {leaf1, leaf2, leaf3, leaf4, leaf5};
  for (const char* id : ids) {
    addHost(id, id);
    addVtep(id, "10.0.0.1", "00:aa:00:00:00:01");
    addErrors(id);
  }
  for (std::size_t i = 0; i < inputs.size(); ++i) inputs[i].remove(ids[i]);
  connect();
  start();
  EXPECT_TRUE(switchNames().empty());

  for (std::size_t i = 0; i < inputs.size(); ++i) inputs[i].add(ids[i]);
  refresh();
  EXPECT_EQ(switchNames(), std::set<std::string>(ids.begin(), ids.end()));

  for (std::size_t i = 0; i < inputs.size(); ++i) {
    SCOPED_TRACE(inputs[i].name);
    inputs[i].remove(ids[(i + 1) % ids.size()]);
    refresh();
    EXPECT_FALSE(switchNames().contains(ids[(i + 1) % ids.size()]));
    EXPECT_FALSE(inventory->physicalSwitchSm(Fleet::SystemId::parse(ids[(i + 1) % ids.size()])));
  }
  EXPECT_TRUE(switchNames().empty());
}

TEST_F(InventoryTest, HostsSharingAHostnameAreAllSuffixedUntilTheCollisionEnds) {
  const auto suffixed = [](const char* id) { return "h-" + std::string(id); };
  addSwitch(leaf1, "h");
  addHost(leaf2, "h");  // not ready, but it counts
  addVtep(leaf2, "10.0.0.2", "00:aa:00:00:00:02");
  connect();
  start();
  EXPECT_EQ(switchNames(), std::set<std::string>{suffixed(leaf1)});

  struct Step {
    const char* what;
    std::function<void()> change;
    std::set<std::string> names;
  };
  const std::vector<Step> steps = {
      {"the second host becomes ready", [&] { addErrors(leaf2); }, {suffixed(leaf1), suffixed(leaf2)}},
      {"a third joins the name", [&] { addSwitch(leaf3, "h"); }, {suffixed(leaf1), suffixed(leaf2), suffixed(leaf3)}},
      {"the third takes another name",
       [&] { topo->host(leaf3)->hostnameIs("k"); },
       {suffixed(leaf1), suffixed(leaf2), "k"}},
      {"the second takes another name", [&] { topo->host(leaf2)->hostnameIs("m"); }, {"h", "m", "k"}},
      {"the first takes a taken name",
       [&] { topo->host(leaf1)->hostnameIs("m"); },
       {"m-" + std::string(leaf1), "m-" + std::string(leaf2), "k"}},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    step.change();
    refresh();
    EXPECT_EQ(switchNames(), step.names);
    EXPECT_EQ(db.rows("Physical_Switch").size(), step.names.size()) << "renamed rows are collected";
  }
  for (const char* id : {leaf1, leaf2, leaf3}) {
    EXPECT_EQ(local().physicalSwitch(Fleet::SystemId::parse(id)), switchSm(id).physicalSwitch())
        << "a renamed switch is filed under its new row";
  }
}

TEST_F(InventoryTest, ASwitchFollowsItsHostVtepsAndErrorsOnItsOwnTimer) {
  addSwitch(leaf1, "leaf1");
  connect();
  start();
  std::ostringstream logs;
  Kiln::logSyslogIs(false);
  Kiln::logStreamIs(&logs);
  const Kiln::Ptr<OverlaySvc::VtepStatusV2> vtep =
      vteps->entityPtr<OverlaySvc::VtepStatusDirV2>(leaf1)->vtepStatus("Vxlan1");
  const Kiln::Ptr<FabricMapV3::Host> host = topo->host(leaf1);
  const Kiln::Ptr<OverlaySvc::ErrorStatusV2> error = errors->entityPtr<OverlaySvc::ErrorStatusV2>(leaf1);
  const auto row = [&] { return switches().at("leaf1"); };
  const auto fault = [&](const char* name) { return texts(port("leaf1", name)["port_fault_status"]); };

  local().tunnelDirtyIs(false);
  vtep->linkStatusIs(VtepLinkStatus::linkDown);
  EXPECT_EQ(switchSm(leaf1).refreshTime(), loop.now() + PhysicalSwitchSm::defaultCoalesceInterval);
  loop.advance(0.29);
  EXPECT_EQ(texts(row()["tunnel_ips"]), std::set<std::string>{"10.0.0.1"});
  loop.advance(0.01);
  EXPECT_TRUE(texts(row()["tunnel_ips"]).empty());
  EXPECT_FALSE(local().tunnelDirty()) << "a link state is no tunnel address";
  EXPECT_EQ(arpSources().size(), 1u) << "the ARP source stays while the link is down";

  vtep->linkStatusIs(VtepLinkStatus::linkUp);
  vtep->vtepAddrIs(Ipkit::IpAddr::parse("10.0.0.9"));
  EXPECT_TRUE(local().tunnelDirty());
  host->mgmtIpIs(ip("192.0.2.200"));
  host->logicalPortIs("Ethernet7");
  host->mlagPeerLinkIs("Port-Channel10");
  error->portErrorIs("Ethernet2")->vlanVniErrorIs(Bridging::VlanId(10), Vxlan::VniOrNone(5000));
  loop.advance(PhysicalSwitchSm::defaultCoalesceInterval);
  EXPECT_EQ(texts(row()["tunnel_ips"]), std::set<std::string>{"10.0.0.9"});
  EXPECT_EQ(texts(row()["management_ips"]), (std::set<std::string>{"192.0.2.11", "192.0.2.200"}));
  EXPECT_EQ(ports("leaf1"), (std::set<std::string>{"Ethernet1", "Ethernet2", "Ethernet7"}));
  EXPECT_EQ(fault("Ethernet2"), std::set<std::string>{"invalid_vlan_map"});
  EXPECT_TRUE(fault("Ethernet1").empty());
  EXPECT_NE(logs.str().find("KXT_VGW_INVALID_VLAN_MAP"), std::string::npos);
  EXPECT_NE(logs.str().find("[ leaf1 ]: Invalid Vlan map on Ethernet2 VlanId: 10, Error: 5000"), std::string::npos)
      << logs.str();
  EXPECT_EQ(arpSources(), (std::map<std::string, std::string>{{"00:aa:00:00:00:01", "10.0.0.9"}}));

  // A second VLAN on a port whose entry stood before, then the errors go.
  error->portError("Ethernet2")->vlanVniErrorIs(Bridging::VlanId(20), Vxlan::VniOrNone());
  error->portError("Ethernet2")->vlanVniErrorDel(Bridging::VlanId(10));
  loop.advance(PhysicalSwitchSm::defaultCoalesceInterval);
  EXPECT_EQ(fault("Ethernet2"), std::set<std::string>{"invalid_vlan_map"}) << "a VLAN without a VNI is an error too";
  error->portError("Ethernet2")->vlanVniErrorDelAll();
  loop.advance(PhysicalSwitchSm::defaultCoalesceInterval);
  EXPECT_TRUE(fault("Ethernet2").empty());

  // The controller writes a description; the next refresh takes it away.
  db.transact(Json::array({{{"op", "update"},
                            {"table", "Physical_Switch"},
                            {"where", Json::array({Json::array({"name", "==", "leaf1"})})},
                            {"row", {{"description", "written by the controller"}}}}}));
  // The agent reads the column only in the first contents of a session.
  switchSm(leaf1).physicalSwitch()->descIs("written by the controller");
  host->logicalPortDel("Ethernet7");
  loop.advance(PhysicalSwitchSm::defaultCoalesceInterval);
  EXPECT_EQ(row()["description"], "");
  EXPECT_EQ(ports("leaf1"), (std::set<std::string>{"Ethernet1", "Ethernet2"}));
}

TEST_F(InventoryTest, RefreshesOfAnUnchangedFabricSendNothing) {
  addSwitch(leaf1, "leaf1");
  addSwitch(leaf2, "leaf2");
  connect();
  start();
  ASSERT_EQ(switchNames().size(), 2u);
  const std::uint64_t before = sent();
  const auto counted = local().transactCounter();

  inventory->handleRefresh(true);
  switchSm(leaf1).switchDirtyIs(true);
  loop.advance(PhysicalSwitchSm::defaultCoalesceInterval);
  // A change that comes back before the refresh.
  topo->host(leaf2)->hostnameIs("other");
  topo->host(leaf2)->hostnameIs("leaf2");
  refresh();
  EXPECT_EQ(sent(), before);
  EXPECT_EQ(local().transactCounter(), counted);

  // After a restart the rows come from the database: a refresh files them
  // under their system ids without writing.
  local().physicalSwitchDelAll();
  inventory->handleRefresh(true);
  EXPECT_EQ(sent(), before);
  EXPECT_EQ(keysOf(local().physicalSwitch()),
            (std::set<Fleet::SystemId>{Fleet::SystemId::parse(leaf1), Fleet::SystemId::parse(leaf2)}));
}

// One VTEP's ARP source through the states of its MAC, address and MLAG
// state; each step sends at most one transaction.
TEST_F(InventoryTest, AnArpSourceFollowsItsVtepMacAddressAndMlagState) {
  addSwitch(leaf1, "leaf1");
  connect();
  start();
  const Kiln::Ptr<OverlaySvc::VtepStatusV2> vtep =
      vteps->entityPtr<OverlaySvc::VtepStatusDirV2>(leaf1)->vtepStatus("Vxlan1");
  const Kiln::Ptr<FabricMapV3::Host> host = topo->host(leaf1);
  using Rows = std::map<std::string, std::string>;
  struct Step {
    const char* what;
    std::function<void()> change;
    Rows rows;
    std::uint64_t transactions;
  };
  const std::vector<Step> steps = {
      {"the address moves: updated in place",
       [&] { vtep->vtepAddrIs(Ipkit::IpAddr::parse("10.0.0.9")); },
       {{"00:aa:00:00:00:01", "10.0.0.9"}},
       1},
      {"the MAC changes: moved",
       [&] { vtep->vtepLocalMacIs(mac("00:aa:00:00:00:0b")); },
       {{"00:aa:00:00:00:0b", "10.0.0.9"}},
       1},
      {"the MAC becomes unknown: kept",
       [&] { vtep->vtepLocalMacIs(Ipkit::EthAddr()); },
       {{"00:aa:00:00:00:0b", "10.0.0.9"}},
       0},
      {"the MAC is back: nothing to do",
       [&] { vtep->vtepLocalMacIs(mac("00:aa:00:00:00:0b")); },
       {{"00:aa:00:00:00:0b", "10.0.0.9"}},
       0},
      {"the MLAG state is in transition", [&] { host->mlagStateIs(Mlag::MlagState::negotiating); }, {}, 1},
      {"the pair has settled",
       [&] { host->mlagStateIs(Mlag::MlagState::active); },
       {{"00:aa:00:00:00:0b", "10.0.0.9"}},
       1},
      {"the address is unknown", [&] { vtep->vtepAddrIs(Ipkit::IpAddr()); }, {}, 1},
      {"the address is back",
       [&] { vtep->vtepAddrIs(Ipkit::IpAddr::parse("10.0.0.1")); },
       {{"00:aa:00:00:00:0b", "10.0.0.1"}},
       1},
      {"the VTEP goes", [&] { vteps->entityPtr<OverlaySvc::VtepStatusDirV2>(leaf1)->vtepStatusDel("Vxlan1"); }, {}, 1},
  };
  ASSERT_EQ(arpSources(), (Rows{{"00:aa:00:00:00:01", "10.0.0.1"}}));
  const std::set<Uuid> firstRow = db.uuids("Arp_Sources_Local");
  for (std::size_t i = 0; i < steps.size(); ++i) {
    SCOPED_TRACE(steps[i].what);
    const std::uint64_t before = sent();
    steps[i].change();
    EXPECT_EQ(arpSources(), steps[i].rows);
    EXPECT_EQ(sent() - before, steps[i].transactions);
    // The database collects a locator that nothing names any more; the
    // mirror learns it from the monitor before the fabric's next change.
    ASSERT_TRUE(db.synced(loop, [&] { return root.ovsdb; }));
    EXPECT_EQ(root.state(), SessionState::stateConnected);
    if (i == 0) {
      EXPECT_EQ(db.uuids("Arp_Sources_Local"), firstRow) << "updated in place";
    }
  }
}

TEST_F(InventoryTest, StartDeletesArpSourcesOfEarlierLivesAndLocalHostsWithAVtepMac) {
  // Left by an earlier life: a local host with the VTEP's MAC, an ARP source
  // of that MAC on an old address, and one of a MAC no VTEP has.
  const Uuid blue = db.addLogicalSwitch("blue", 5000);
  Json ops = Json::array();
  const Json oldVtep = db.locator("10.9.9.9", ops);
  ops.push_back(insertOp("Ucast_Macs_Local", "host",
                         {{"MAC", "00:aa:00:00:00:01"}, {"logical_switch", uuidRef(blue)}, {"locator", oldVtep}}));
  ops.push_back(insertOp("Arp_Sources_Local", "own", {{"src_mac", "00:aa:00:00:00:01"}, {"locator", oldVtep}}));
  ops.push_back(insertOp("Arp_Sources_Local", "stale", {{"src_mac", "00:bb:00:00:00:01"}, {"locator", oldVtep}}));
  db.transact(ops);
  addSwitch(leaf1, "leaf1");
  connect();
  ASSERT_TRUE(local().ucastMacsLocalTable(Vxlan::Vni(5000)));
  start();
  EXPECT_EQ(arpSources(), (std::map<std::string, std::string>{{"00:aa:00:00:00:01", "10.0.0.1"}}));
  EXPECT_TRUE(db.rows("Ucast_Macs_Local").empty());
  EXPECT_FALSE(local().ucastMacsLocalTable(Vxlan::Vni(5000))->ucastMacsLocal(mac("00:aa:00:00:00:01")));
}

TEST_F(InventoryTest, DestroyEmptiesGlobalsSwitchesAndLeavesTheRest) {
  addSwitch(leaf1, "leaf1");
  connect();
  start();
  ASSERT_EQ(switchNames().size(), 1u);
  inventory->destroy(false);
  EXPECT_TRUE(switchNames().empty());
  EXPECT_EQ(arpSources().size(), 1u);
  const std::uint64_t before = sent();
  inventory->destroy(false);
  addSwitch(leaf2, "leaf2");
  refresh();
  EXPECT_EQ(sent(), before) << "a destroyed inventory writes nothing";
}

}  // namespace
}  // namespace Vgw::Test
