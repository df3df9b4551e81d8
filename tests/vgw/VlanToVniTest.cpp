// Port bindings as fabric configuration, against a real ovsdb-server: the
// controller's vtep-ctl bind-ls and tunnel keys become vlanToVniMap pairs of
// the switch's VTEP configuration, transit VNIs follow the routing mode,
// switches that leave the topology lose their configuration, a reconnection
// sweeps what the database no longer backs, and destroy takes back every
// binding.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "SessionSupport.h"
#include "Vgw/InventorySm.h"
#include "Vgw/VlanToVniSm.h"

namespace Vgw::Test {
namespace {

using OverlaySvc::PortVlanPairV2;
using OverlaySvc::VtepLinkStatus;
using Pairs = std::map<std::pair<std::string, int>, int>;

constexpr const char* leaf1 = "00:1c:73:00:00:01";
constexpr const char* leaf2 = "00:1c:73:00:00:02";

class VlanToVniTest : public testing::Test {
 protected:
  VlanToVniTest() { freshLocalData(); }
  ~VlanToVniTest() override {
    vlanToVni = nullptr;
    inventory = nullptr;
  }

  // Connects, builds the inventory over the given switches and waits for
  // their rows, then starts the machine under test as the agent does.
  void start(std::initializer_list<const char*> ids) {
    for (const char* id : ids) addSwitch(id);
    root.enable();
    ASSERT_TRUE(loop.runUntil([&] { return root.state() == SessionState::stateConnected; }));
    inventory = inventorySmFactory(topo, vteps, errors, root.ovsdb, root.queue);
    loop.advance(InventorySm::defaultCoalesceInterval);
    ASSERT_TRUE(loop.runUntil([&] { return root.ovsdb->physicalSwitch().size() == ids.size(); }));
    local().ovsdbSynchronizedIs(true);
    vlanToVni = vlanToVniSmFactory(root.ovsdb, cliConfig, topo, vteps, dyn);
  }
  void addSwitch(const char* id) {
    const std::string n(1, id[16]);
    const Kiln::Ptr<FabricMapV3::Host> host = topo->hostIs(id);
    host->hostnameIs("leaf" + n);
    for (const char* port : {"Ethernet1", "Ethernet2"}) host->logicalPortIs(port);
    const auto vtep = vteps->createEntity<OverlaySvc::VtepStatusDirV2>(id)->vtepStatusIs("Vxlan1");
    vtep->linkStatusIs(VtepLinkStatus::linkUp);
    vtep->vtepAddrIs(Ipkit::IpAddr::parse("10.0.0." + n));
    vtep->vtepLocalMacIs(mac("00:aa:00:00:00:0" + n));
    errors->createEntity<OverlaySvc::ErrorStatusV2>(id);
    // The fleet store gives each switch its configuration directory.
    dyn->createEntity<OverlaySvc::VtepConfigDirV2>(id);
  }
  // Runs until the agent has applied everything the server has sent, and
  // the work it deferred to the next turn.
  void settle() {
    ASSERT_TRUE(db.synced(loop, [&] { return root.ovsdb; }));
    loop.advance(0.0);
  }
  void vtepCtl(const std::string& args) {
    std::vector<std::string> words;
    std::istringstream in(args);
    for (std::string word; in >> word;) words.push_back(word);
    server.vtepCtlArgs(words);
    settle();
  }

  Kiln::Ptr<OverlaySvc::VtepConfigV2> config(const char* id, const char* vtep = "Vxlan1") {
    const auto dir = dyn->entityPtr<OverlaySvc::VtepConfigDirV2>(id);
    return dir ? dir->vtepConfig(vtep) : nullptr;
  }
  Pairs pairs(const char* id) {
    Pairs out;
    if (const auto c = config(id)) {
      for (const auto& [pair, vni] : c->vlanToVniMap()) {
        out[{pair.port(), static_cast<int>(pair.vlanId().value())}] = static_cast<int>(vni.value());
      }
    }
    return out;
  }
  std::set<int> transit(const char* id) {
    std::set<int> out;
    if (const auto c = config(id)) {
      for (const auto& [vni, on] : c->vniWithoutVlan()) out.insert(static_cast<int>(vni.value()));
    }
    return out;
  }
  LocalData& local() { return *Kiln::Entity::singletonIs<LocalData>(); }

  LoopRunner loop;
  OvsdbServer server;
  Controller db{server};
  SessionRoot root{server.socketPath()};
  const Kiln::Ptr<FabricMapV3::Status> topo = Kiln::newPtr<FabricMapV3::Status>();
  const Kiln::Ptr<Kiln::Dir> vteps = Kiln::newPtr<Kiln::Dir>();
  const Kiln::Ptr<Kiln::Dir> errors = Kiln::newPtr<Kiln::Dir>();
  const Kiln::Ptr<Kiln::Dir> dyn = Kiln::newPtr<Kiln::Dir>();
  const Kiln::Ptr<CliConfig> cliConfig = Kiln::newPtr<CliConfig>();
  Kiln::Ptr<InventorySm> inventory;
  Kiln::Ptr<VlanToVniSm> vlanToVni;
};

TEST(VlanToVniKey, EachRoleTakesItsVtep) {
  struct Case {
    std::vector<const char*> vteps;
    const char* ordinary;
    const char* mlag;
  };
  const Case cases[] = {
      {{}, "", ""},
      {{"Vxlan1"}, "Vxlan1", "Vxlan1"},
      {{"Vxlan1", "Vxlan1-mlag"}, "Vxlan1", "Vxlan1-mlag"},
      {{"Vxlan1-mlag"}, "", "Vxlan1-mlag"},
      {{"Vxlan1", "Vxlan2"}, "Vxlan1", "Vxlan2"},
      // Only a Vxlan interface can be the MLAG VTEP.
      {{"Other-mlag", "Vxlan1-mlag"}, "Other-mlag", "Vxlan1-mlag"},
  };
  for (const Case& c : cases) {
    const auto dir = Kiln::newPtr<OverlaySvc::VtepStatusDirV2>();
    for (const char* name : c.vteps) dir->vtepStatusIs(name);
    EXPECT_EQ(VlanToVni::getVtepKey(dir.get(), false), c.ordinary) << c.vteps.size();
    EXPECT_EQ(VlanToVni::getVtepKey(dir.get(), true), c.mlag) << c.vteps.size();
  }
  EXPECT_EQ(VlanToVni::getVtepKey(nullptr, false), "");

  const auto config = Kiln::newPtr<OverlaySvc::VtepConfigV2>("Vxlan1");
  config->bfdVniIs(Vxlan::VniOrNone(0));
  for (const char* peer : {"10.0.0.7", "10.0.0.8"}) {
    config->bfdPeerConfigIs(Ipkit::IpAddr::parse(peer), OverlaySvc::BfdPeerConfigV2());
  }
  VlanToVni::delBfdPeerConfig(config.get(), ip("10.0.0.7"));
  EXPECT_EQ(config->bfdPeerConfig().size(), 1u);
  EXPECT_EQ(config->bfdVni(), Vxlan::VniOrNone(0)) << "a session remains";
  VlanToVni::delBfdPeerConfig(config.get(), ip("10.0.0.8"));
  EXPECT_FALSE(config->bfdVni().isValid());
  VlanToVni::delBfdPeerConfig(nullptr, ip("10.0.0.8"));
}

TEST_F(VlanToVniTest, BindingsFollowTheControllersPortVlansAndTunnelKeys) {
  start({leaf1, leaf2});
  EXPECT_TRUE(config(leaf1)) << "each VTEP of a served switch has its configuration";
  db.addLogicalSwitch("ls0", 5000);
  settle();
  vtepCtl("bind-ls leaf1 Ethernet1 100 ls0");
  EXPECT_EQ(pairs(leaf1), (Pairs{{{"Ethernet1", 100}, 5000}}));
  EXPECT_TRUE(pairs(leaf2).empty()) << "only the switch of the port";

  vtepCtl("bind-ls leaf1 Ethernet1 200 ls0");
  vtepCtl("bind-ls leaf1 Ethernet2 0 ls0");
  EXPECT_EQ(pairs(leaf1), (Pairs{{{"Ethernet1", 100}, 5000}, {{"Ethernet1", 200}, 5000}, {{"Ethernet2", 0}, 5000}}));
  vtepCtl("unbind-ls leaf1 Ethernet1 200");
  EXPECT_EQ(pairs(leaf1), (Pairs{{{"Ethernet1", 100}, 5000}, {{"Ethernet2", 0}, 5000}}));

  // A key change touches no port row: the end of the update carries it.
  vtepCtl("set Logical_Switch ls0 tunnel_key=5001");
  EXPECT_EQ(pairs(leaf1), (Pairs{{{"Ethernet1", 100}, 5001}, {{"Ethernet2", 0}, 5001}}));
  vtepCtl("clear Logical_Switch ls0 tunnel_key");
  EXPECT_TRUE(pairs(leaf1).empty());
  vtepCtl("set Logical_Switch ls0 tunnel_key=5000");
  EXPECT_EQ(pairs(leaf1), (Pairs{{{"Ethernet1", 100}, 5000}, {{"Ethernet2", 0}, 5000}}));

  // Two logical switches on one VNI: neither is bound anywhere.
  db.addLogicalSwitch("ls1", 6000);
  settle();
  vtepCtl("bind-ls leaf2 Ethernet1 300 ls1");
  EXPECT_EQ(pairs(leaf2), (Pairs{{{"Ethernet1", 300}, 6000}}));
  vtepCtl("set Logical_Switch ls1 tunnel_key=5000");
  EXPECT_TRUE(pairs(leaf1).empty());
  EXPECT_TRUE(pairs(leaf2).empty());
  vtepCtl("set Logical_Switch ls1 tunnel_key=6001");
  EXPECT_EQ(pairs(leaf1), (Pairs{{{"Ethernet1", 100}, 5000}, {{"Ethernet2", 0}, 5000}}));
  EXPECT_EQ(pairs(leaf2), (Pairs{{{"Ethernet1", 300}, 6001}}));

  // Disabling the agent takes back every binding it gave.
  vlanToVni->destroy();
  EXPECT_TRUE(pairs(leaf1).empty());
  EXPECT_TRUE(pairs(leaf2).empty());
  EXPECT_FALSE(config(leaf1));
  vtepCtl("bind-ls leaf1 Ethernet2 400 ls0");
  EXPECT_TRUE(pairs(leaf1).empty()) << "a destroyed machine writes nothing";
}

TEST_F(VlanToVniTest, ASwitchOutsideTheTopologyHasNoConfiguration) {
  start({leaf1});
  db.addLogicalSwitch("ls0", 5000);
  settle();
  vtepCtl("bind-ls leaf1 Ethernet1 100 ls0");
  ASSERT_EQ(pairs(leaf1).size(), 1u);

  const Kiln::Ptr<FabricMapV3::Host> host = topo->host(leaf1);
  host->hostnameIs("");
  EXPECT_TRUE(pairs(leaf1).empty()) << "a host without a name is not a switch";
  EXPECT_FALSE(config(leaf1));
  host->hostnameIs("leaf1");
  EXPECT_EQ(pairs(leaf1), (Pairs{{{"Ethernet1", 100}, 5000}}));

  // An MLAG VTEP joins: the ordinary role keeps its VTEP, and a VTEP that
  // leaves takes its configuration along.
  vteps->entityPtr<OverlaySvc::VtepStatusDirV2>(leaf1)->vtepStatusIs("Vxlan1-mlag");
  EXPECT_TRUE(config(leaf1, "Vxlan1-mlag"));
  EXPECT_EQ(pairs(leaf1), (Pairs{{{"Ethernet1", 100}, 5000}}));
  vteps->entityPtr<OverlaySvc::VtepStatusDirV2>(leaf1)->vtepStatusDel("Vxlan1-mlag");
  EXPECT_FALSE(config(leaf1, "Vxlan1-mlag"));

  // A configuration taken away from outside is written again.
  dyn->entityPtr<OverlaySvc::VtepConfigDirV2>(leaf1)->vtepConfigDel("Vxlan1");
  EXPECT_EQ(pairs(leaf1), (Pairs{{{"Ethernet1", 100}, 5000}}));

  topo->hostDel(leaf1);
  EXPECT_FALSE(config(leaf1));
  vtepCtl("bind-ls leaf1 Ethernet2 200 ls0");
  EXPECT_FALSE(config(leaf1));
  addSwitch(leaf1);
  EXPECT_EQ(pairs(leaf1), (Pairs{{{"Ethernet1", 100}, 5000}, {{"Ethernet2", 200}, 5000}}));
}

TEST_F(VlanToVniTest, TransitVnisFollowTheBridgeMacRowsAndTheRoutingMode) {
  cliConfig->routingModeTypeIs(RoutingModeType::localIpPortsOnly);
  start({leaf1});
  const Uuid ls0 = db.addLogicalSwitch("ls0", 5000);
  const Uuid ls1 = db.addLogicalSwitch("ls1", 5001);
  settle();
  // The controller reflects the switch's own bridge MAC with an address.
  Kiln::Json ops = Kiln::Json::array();
  db.ucastRemote(ops, ls0, "00:aa:00:00:00:01", "10.9.0.1", "192.168.0.1");
  db.ucastRemote(ops, ls1, "00:aa:00:00:00:01", "10.9.0.1");  // no address: routes nothing
  db.transact(ops);
  EXPECT_EQ(vlanToVni->transitVniTime(), Kiln::plusInfinity) << "nothing happens inside the update";
  settle();
  EXPECT_EQ(transit(leaf1), std::set<int>{5000});

  cliConfig->routingModeTypeIs(RoutingModeType::directRouting);
  EXPECT_TRUE(transit(leaf1).empty());
  cliConfig->routingModeTypeIs(RoutingModeType::localIpPortsOnly);
  EXPECT_EQ(transit(leaf1), std::set<int>{5000});

  db.transact(Kiln::Json::array({{{"op", "delete"}, {"table", "Ucast_Macs_Remote"},
                                  {"where", Kiln::Json::array({Kiln::Json::array({"ipaddr", "==", "192.168.0.1"})})}}}));
  settle();
  EXPECT_TRUE(transit(leaf1).empty());
}

TEST_F(VlanToVniTest, AReconnectionSweepsWhatTheDatabaseNoLongerBacks) {
  start({leaf1, leaf2});
  db.addLogicalSwitch("ls0", 5000);
  settle();
  vtepCtl("bind-ls leaf1 Ethernet1 100 ls0");
  vtepCtl("bind-ls leaf1 Ethernet2 200 ls0");
  ASSERT_EQ(pairs(leaf1).size(), 2u);

  // The session drops without a teardown, as on a lost server; meanwhile a
  // binding goes and an earlier life's pairs name ports that do not exist.
  vlanToVni = nullptr;
  local().ovsdbSynchronizedIs(false);
  server.vtepCtl("unbind-ls", "leaf1", "Ethernet2", "200");
  config(leaf1)->vlanToVniMapIs(PortVlanPairV2("Ethernet9", Bridging::VlanIdOrNone(100)), Vxlan::Vni(5000));
  const auto gone = dyn->createEntity<OverlaySvc::VtepConfigDirV2>("00:1c:73:00:00:09");
  gone->vtepConfigIs("Vxlan1")->vlanToVniMapIs(PortVlanPairV2("Ethernet1", Bridging::VlanIdOrNone(100)), Vxlan::Vni(5000));
  settle();

  TraceCapture trace("VgwVlanToVni/6");
  vlanToVni = vlanToVniSmFactory(root.ovsdb, cliConfig, topo, vteps, dyn);
  EXPECT_EQ(pairs(leaf1).size(), 3u) << "nothing changes before the session is synchronized";
  const Kiln::Ptr<OverlaySvc::VtepConfigV2> kept = config(leaf1);
  local().ovsdbSynchronizedIs(true);
  EXPECT_EQ(pairs(leaf1), (Pairs{{{"Ethernet1", 100}, 5000}}));
  EXPECT_EQ(config(leaf1), kept) << "configuration the database backs is left in place";
  EXPECT_TRUE(gone->vtepConfig().empty()) << "a switch that is no more loses its configuration";
  EXPECT_TRUE(trace.contains("Port missing, deleting configuration."));
  EXPECT_TRUE(trace.contains("Map missing from OVSDB, deleting configuration."));
}

}  // namespace
}  // namespace Vgw::Test
