// Local hosts against a real ovsdb-server: the overlay service's hosts of a
// VNI become Ucast_Macs_Local and Mcast_Macs_Local rows, the backlog
// coalesces and batches them, the guards keep rows out, the start-up sweep
// clears what an earlier life left, and destroy takes every row back.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "SessionSupport.h"
#include "Vgw/InventorySm.h"
#include "Vgw/LocalHostSm.h"

namespace Vgw::Test {
namespace {

constexpr const char* leaf1 = "00:1c:73:00:00:01";
// The VTEP's own MAC: an ARP source of the inventory.
constexpr const char* vtepMac = "00:aa:00:00:00:01";

struct Host {
  Host() = default;
  Host(std::string vtepIp, std::string address, Uuid row = Uuid())
      : vtep(std::move(vtepIp)), ipaddr(std::move(address)), uuid(row) {}
  std::string vtep;
  std::string ipaddr;
  Uuid uuid;
  bool operator==(const Host& o) const { return vtep == o.vtep && ipaddr == o.ipaddr; }
};
std::ostream& operator<<(std::ostream& os, const Host& h) { return os << h.vtep << "/" << h.ipaddr; }
using Hosts = std::map<std::string, Host>;
using Floods = std::map<std::string, std::set<std::string>>;

Ipkit::IpAddr v4(const std::string& text) { return Ipkit::IpAddr::parse(text); }

Ipkit::EthAddr nthMac(unsigned i) {
  char text[18];
  std::snprintf(text, sizeof text, "02:00:00:00:%02x:%02x", (i >> 8) & 0xff, i & 0xff);
  return mac(text);
}

// The members of a set column, a lone atom being a set of one.
std::vector<Kiln::Json> members(const Kiln::Json& column) {
  if (column.is_array() && column.at(0) == "set") return {column.at(1).begin(), column.at(1).end()};
  return {column};
}

class LocalHostTest : public testing::Test {
 protected:
  LocalHostTest() {
    freshLocalData();
    cliConfig->maxOpsIs(1000);
  }
  ~LocalHostTest() override {
    localHost = nullptr;
    inventory = nullptr;
  }

  // Connects, builds the inventory of leaf1 (VTEP 10.0.0.1, whose MAC is an
  // ARP source) and logical switch ls0 on VNI 5000, then the machine.
  void start() {
    connect();
    ls0 = db.addLogicalSwitch("ls0", 5000);
    settle();
    startMachine();
  }
  void connect() {
    const Kiln::Ptr<FabricMapV3::Host> host = topo->hostIs(leaf1);
    host->hostnameIs("leaf1");
    const auto vtep = vteps->createEntity<OverlaySvc::VtepStatusDirV2>(leaf1)->vtepStatusIs("Vxlan1");
    vtep->linkStatusIs(OverlaySvc::VtepLinkStatus::linkUp);
    vtep->vtepAddrIs(v4("10.0.0.1"));
    vtep->vtepLocalMacIs(mac(vtepMac));
    errors->createEntity<OverlaySvc::ErrorStatusV2>(leaf1);
    root.enable();
    ASSERT_TRUE(loop.runUntil([&] { return root.state() == SessionState::stateConnected; }));
    inventory = inventorySmFactory(topo, vteps, errors, root.ovsdb, root.queue);
    loop.advance(InventorySm::defaultCoalesceInterval);
    ASSERT_TRUE(loop.runUntil([&] { return !root.ovsdb->arpSourcesLocal().empty(); }));
  }
  void startMachine() {
    localHost = localHostSmFactory(loop.loop().clock(), service, root.ovsdb, cliConfig, root.queue);
  }
  // Lets the worker drain its backlog and the server apply every answer.
  void settle() {
    ASSERT_TRUE(loop.runUntil([&] { return !localHost || localHost->backlogSize() == 0; }));
    ASSERT_TRUE(db.synced(loop, [&] { return root.ovsdb; }));
  }

  Kiln::Ptr<OverlaySvc::VniStatusV2> vni(std::uint32_t id) { return service->vniStatusV2Is(Vxlan::Vni(id)); }
  void host(std::uint32_t id, const char* address, const char* vtep) {
    vni(id)->macVtepTableIs(mac(address), OverlaySvc::MacVtepV2(mac(address), v4(vtep), 0, 16));
  }
  void hostIp(std::uint32_t id, const char* address, const char* hostIp) {
    vni(id)->ipToMacTableIs(ip(hostIp), OverlaySvc::IpToMacV2(ip(hostIp), mac(address), 0, 16));
  }

  // The address of each locator, by its reference.
  std::map<Kiln::Json, std::string> locatorIps() {
    std::map<Kiln::Json, std::string> out;
    for (const Kiln::Json& row : db.rows("Physical_Locator")) out[row["_uuid"]] = row["dst_ip"].get<std::string>();
    return out;
  }
  Hosts ucast() {
    const std::map<Kiln::Json, std::string> locators = locatorIps();
    Hosts out;
    for (const Kiln::Json& row : db.rows("Ucast_Macs_Local")) {
      out[row["MAC"].get<std::string>()] = {locators.at(row["locator"]), row["ipaddr"].get<std::string>(),
                                            uuidOf(row["_uuid"])};
    }
    return out;
  }
  Floods mcast() {
    const std::map<Kiln::Json, std::string> locators = locatorIps();
    Floods out;
    for (const Kiln::Json& row : db.rows("Mcast_Macs_Local")) {
      std::set<std::string>& vtepIps = out[row["MAC"].get<std::string>()];
      for (const Kiln::Json& set : db.rows("Physical_Locator_Set")) {
        if (set["_uuid"] != row["locator_set"]) continue;
        for (const Kiln::Json& locator : members(set["locators"])) vtepIps.insert(locators.at(locator));
      }
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
  const Kiln::Ptr<OverlaySvc::VniStatusDirV2> service = Kiln::newPtr<OverlaySvc::VniStatusDirV2>();
  const Kiln::Ptr<CliConfig> cliConfig = Kiln::newPtr<CliConfig>();
  Kiln::Ptr<InventorySm> inventory;
  Kiln::Ptr<LocalHostSm> localHost;
  Uuid ls0;
};

TEST_F(LocalHostTest, HostsOfTheServiceBecomeLocalRows) {
  start();
  host(5000, "00:00:00:00:0a:01", "10.0.0.1");
  settle();
  EXPECT_EQ(ucast(), (Hosts{{"00:00:00:00:0a:01", {"10.0.0.1", ""}}}));
  const Uuid first = ucast().at("00:00:00:00:0a:01").uuid;

  // The address comes after the MAC, then the host moves: one row throughout.
  hostIp(5000, "00:00:00:00:0a:01", "10.1.1.5");
  settle();
  EXPECT_EQ(ucast(), (Hosts{{"00:00:00:00:0a:01", {"10.0.0.1", "10.1.1.5"}}}));
  host(5000, "00:00:00:00:0a:01", "10.0.0.2");
  settle();
  EXPECT_EQ(ucast(), (Hosts{{"00:00:00:00:0a:01", {"10.0.0.2", "10.1.1.5"}}}));
  EXPECT_EQ(ucast().at("00:00:00:00:0a:01").uuid, first) << "updated in place";

  // The VTEP's own MAC belongs to Arp_Sources_Local.
  host(5000, vtepMac, "10.0.0.1");
  settle();
  EXPECT_EQ(ucast().count(vtepMac), 0u);

  // BUM MACs: the unknown-dst flood list, then a multi-path entry that wins.
  const auto flood = vni(5000)->macVtepFloodListTableIs(Ipkit::EthAddr());
  flood->vtepIpFloodListIs(v4("10.0.0.1"), true);
  flood->vtepIpFloodListIs(v4("10.0.0.2"), true);
  settle();
  EXPECT_EQ(mcast(), (Floods{{"unknown-dst", {"10.0.0.1", "10.0.0.2"}}}));
  OverlaySvc::MacVtepMultiPathV2 paths(Ipkit::EthAddr{});
  paths.vtepIpListIs(v4("10.0.0.3"), true);
  vni(5000)->macVtepMultiPathTableIs(Ipkit::EthAddr(), paths);
  settle();
  EXPECT_EQ(mcast(), (Floods{{"unknown-dst", {"10.0.0.3"}}}));
  vni(5000)->macVtepMultiPathTableDel(Ipkit::EthAddr());
  settle();
  EXPECT_EQ(mcast(), (Floods{{"unknown-dst", {"10.0.0.1", "10.0.0.2"}}}));
  // A list that empties keeps the row as it was.
  flood->vtepIpFloodListDelAll();
  settle();
  EXPECT_EQ(mcast(), (Floods{{"unknown-dst", {"10.0.0.1", "10.0.0.2"}}}));
  vni(5000)->macVtepFloodListTableDel(Ipkit::EthAddr());
  settle();
  EXPECT_TRUE(mcast().empty());

  // The switch moves to another key; the host's row, filed under the old
  // VNI, still leaves both the database and the working data.
  server.vtepCtl("set", "Logical_Switch", "ls0", "tunnel_key=5001");
  settle();
  vni(5000)->macVtepTableDel(mac("00:00:00:00:0a:01"));
  settle();
  EXPECT_TRUE(ucast().empty());
  const auto table = local().ucastMacsLocalTable(Vxlan::Vni(5000));
  EXPECT_TRUE(!table || table->ucastMacsLocal().empty());
}

TEST_F(LocalHostTest, TheBacklogCoalescesAndBatches) {
  start();
  cliConfig->maxOpsIs(100);
  const std::uint64_t before = localHost->transactions();
  // A host that comes and goes while it waits costs no operation.
  host(5000, "00:00:00:00:0b:01", "10.0.0.1");
  host(5000, "00:00:00:00:0b:01", "10.0.0.2");
  EXPECT_EQ(localHost->backlogSize(), 1u);
  EXPECT_EQ(localHost->updatesSeen(), 2u) << "a repeated pair still counts";
  vni(5000)->macVtepTableDel(mac("00:00:00:00:0b:01"));
  settle();
  EXPECT_EQ(localHost->transactions(), before);
  EXPECT_TRUE(ucast().empty());

  // A thousand hosts at once: batches of maxOps items, one transaction each.
  const auto status = vni(5000);
  for (unsigned i = 0; i < 1000; ++i) {
    const Ipkit::EthAddr address = nthMac(i);
    status->macVtepTableIs(address, OverlaySvc::MacVtepV2(address, v4(i % 2 ? "10.0.0.2" : "10.0.0.3"), 0, 16));
  }
  ASSERT_EQ(localHost->backlogSize(), 1000u);
  // A slice whose time is already up still does one batch, and no more.
  localHost->processBacklog(loop.now() - 1.0);
  EXPECT_EQ(localHost->backlogSize(), 900u);
  settle();
  EXPECT_EQ(localHost->transactions(), before + 10);
  EXPECT_EQ(ucast().size(), 1000u);
  EXPECT_EQ(local().ucastMacsLocalTable(Vxlan::Vni(5000))->ucastMacsLocal().size(), 1000u);

  // Unchanged rows send nothing.
  for (unsigned i = 0; i < 10; ++i) localHost->handleMacVni(nthMac(i), Vxlan::Vni(5000));
  settle();
  EXPECT_EQ(localHost->transactions(), before + 10);

  // The service drops the VNI's entry whole: its rows go the same way.
  service->vniStatusV2Del(Vxlan::Vni(5000));
  EXPECT_EQ(localHost->backlogSize(), 1000u);
  settle();
  EXPECT_TRUE(ucast().empty());
  EXPECT_EQ(localHost->transactions(), before + 20);
}

TEST_F(LocalHostTest, AVniWithoutOneLogicalSwitchGetsNoRows) {
  start();
  host(6000, "00:00:00:00:0c:01", "10.0.0.1");
  settle();
  EXPECT_TRUE(ucast().empty()) << "no logical switch on 6000";

  db.addLogicalSwitch("ls1", 5000);
  settle();
  host(5000, "00:00:00:00:0c:02", "10.0.0.1");
  settle();
  EXPECT_TRUE(ucast().empty()) << "two logical switches claim 5000";

  // Once the claim is single, the next change of the host is served.
  server.vtepCtl("set", "Logical_Switch", "ls1", "tunnel_key=5002");
  settle();
  hostIp(5000, "00:00:00:00:0c:02", "10.1.1.9");
  settle();
  EXPECT_EQ(ucast(), (Hosts{{"00:00:00:00:0c:02", {"10.0.0.1", "10.1.1.9"}}}));
}

TEST_F(LocalHostTest, AStartSweepsWhatTheServiceNoLongerHasAndDestroyTakesAll) {
  // An earlier life left rows on ls0 (VNI 5000, still served) and ls1
  // (VNI 6000, which the service no longer has); the agent reads them when
  // it connects.
  ls0 = db.addLogicalSwitch("ls0", 5000);
  const Uuid ls1 = db.addLogicalSwitch("ls1", 6000);
  Kiln::Json ops = Kiln::Json::array();
  int rows = 0;
  const auto row = [&](const Uuid& ls, const char* address, const char* vtep) {
    ops.push_back(insertOp("Ucast_Macs_Local", "row" + std::to_string(++rows),
                           {{"MAC", address}, {"logical_switch", uuidRef(ls)}, {"locator", db.locator(vtep, ops)}}));
  };
  row(ls0, "00:00:00:00:0d:01", "10.0.0.1");
  row(ls0, "00:00:00:00:0d:02", "10.0.0.1");
  row(ls1, "00:00:00:00:0d:03", "10.0.0.1");
  row(ls1, "00:00:00:00:0d:04", "10.0.0.2");
  ops.push_back(insertOp("Mcast_Macs_Local", "flood",
                         {{"MAC", "unknown-dst"},
                          {"logical_switch", uuidRef(ls1)},
                          {"locator_set", Kiln::Json::array({"named-uuid", "set"})}}));
  ops.push_back(insertOp("Physical_Locator_Set", "set", {{"locators", db.locator("10.0.0.1", ops)}}));
  db.transact(ops);
  const Uuid kept = ucast().at("00:00:00:00:0d:01").uuid;
  connect();

  host(5000, "00:00:00:00:0d:01", "10.0.0.1");
  // Behind 10.0.0.2, whose locator the sweep's delete leaves to the
  // server's collection: the insert must not name the collected row, whether
  // or not the monitor has told of it yet.
  host(5000, "00:00:00:00:0d:05", "10.0.0.2");
  TraceCapture trace("VgwLocalHost/6");
  startMachine();
  settle();
  EXPECT_EQ(ucast(), (Hosts{{"00:00:00:00:0d:01", {"10.0.0.1", ""}}, {"00:00:00:00:0d:05", {"10.0.0.2", ""}}}));
  EXPECT_EQ(ucast().at("00:00:00:00:0d:01").uuid, kept) << "a row still right is left alone";
  EXPECT_TRUE(mcast().empty());
  EXPECT_EQ(trace.count("Deleting all local ucast macs for 6000"), 1u);
  EXPECT_EQ(trace.count("Deleting all local mcast macs for 6000"), 1u);

  localHost->destroy(true);
  settle();
  EXPECT_TRUE(ucast().empty());
  EXPECT_TRUE(mcast().empty());
  host(5000, "00:00:00:00:0d:06", "10.0.0.1");
  settle();
  EXPECT_TRUE(ucast().empty()) << "a destroyed machine writes nothing";
}

}  // namespace
}  // namespace Vgw::Test
