// Remote host publication: what the fabric sees in the VNI status directory
// for the controller's remote MAC rows, how it follows moves, deletes, the
// VTEP list type and the VNI of each logical switch, and that a refresh over
// unchanged data writes nothing.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <initializer_list>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "RingTape/RingTape.h"
#include "Vgw/RemoteHostSm.h"

namespace Vgw {
namespace {

using Ipkit::EthAddr;
using Ipkit::IpAddr;
using Ipkit::IpGenAddr;
using OverlaySvc::IpToMacV2;
using OverlaySvc::MacVtepFloodListV2;
using OverlaySvc::MacVtepV2;
using OverlaySvc::VniStatusV2;

Uuid rowId(std::uint32_t n) { return Uuid(n, 0x4242, 0x80000000u, 0); }
EthAddr mac(const char* text) { return EthAddr::parse(text); }
IpGenAddr ip(const char* text) { return IpGenAddr::parse(text); }
IpAddr ip4(const char* text) { return IpAddr::parse(text); }

const EthAddr hostA = mac("00:00:00:00:00:0a");
const EthAddr hostB = mac("00:00:00:00:00:0b");
const EthAddr unknownDst;
const IpGenAddr addrA = ip("192.168.0.10");

// The VTEP IPs of a published flood list or multi-path entry.
template <class List>
std::set<IpAddr> vteps(const List& list) {
  std::set<IpAddr> out;
  for (const auto& [address, member] : list) out.insert(address);
  return out;
}

// Counts every change of the published tables of a VNI.
class WriteCounter : public VniStatusV2::NotifieeConst {
 public:
  int writes = 0;
  void onMacVtepTable(const EthAddr&) override { ++writes; }
  void onMacVtepMultiPathTable(const EthAddr&) override { ++writes; }
  void onMacVtepFloodListTable(const EthAddr&) override { ++writes; }
  void onIpToMacTable(const IpGenAddr&) override { ++writes; }
};

// Records the edits of one flood list, in order.
class FloodListLog : public MacVtepFloodListV2::NotifieeConst {
 public:
  std::vector<std::string> seen;
  void onVtepIpFloodList(const IpAddr& key) override {
    seen.push_back((notifier()->vtepIpFloodList().contains(key) ? "+" : "-") + key.stringValue().stringValue());
  }
};

class RemoteHostSmTest : public ::testing::Test {
 protected:
  void SetUp() override { localData->reset(); }
  void TearDown() override { localData->reset(); }

  Uuid locator(std::uint32_t n, const char* address) {
    auto row = ovsdb->physicalLocatorRawIs(rowId(n));
    row->keyIs(PhysicalLocatorKey(EncapsulationType::vxlan_over_ipv4, ip(address)));
    return row->uuid();
  }

  Uuid locatorSet(std::uint32_t n, std::initializer_list<Uuid> locators) {
    auto row = ovsdb->physicalLocatorSetIs(rowId(n));
    for (const Uuid& member : locators) row->locatorIs(member);
    return row->uuid();
  }

  // A Logical_Switch row with its remote host table, as the monitor adds it.
  Uuid logicalSwitch(std::uint32_t n, Vxlan::VniOrNone key) {
    ovsdb->logicalSwitchIs(rowId(n))->tunnelKeyIs(key);
    localData->remoteHostTableIs(rowId(n));
    indexVnis();
    return rowId(n);
  }

  void tunnelKeyIs(const Uuid& uuid, Vxlan::VniOrNone key) {
    ovsdb->logicalSwitch(uuid)->tunnelKeyIs(key);
    indexVnis();
  }

  // The VNI index as every monitor message leaves it.
  void indexVnis() {
    localData->vniToLogicalSwitchDelAll();
    for (const auto& [uuid, row] : ovsdb->logicalSwitch()) {
      if (row->tunnelKey().isValid()) localData->vniToLogicalSwitchIs(row->tunnelKey().vni())->logicalSwitchIs(uuid);
    }
  }

  // A remote MAC row folded in as at the end of a monitor message.
  Kiln::Ptr<UcastMacsRemote> ucast(std::uint32_t n, const Uuid& ls, const EthAddr& m, const Uuid& loc,
                                   const IpGenAddr& address = IpGenAddr()) {
    auto row = Kiln::newPtr<UcastMacsRemote>(rowId(n));
    row->macIs(m);
    row->logicalSwitchIs(ls);
    row->physicalLocatorIs(loc);
    row->ipAddrIs(address);
    localData->remoteHostTable(ls)->pendingUcastMacsRemoteRawIs(row->uuid(), row);
    EXPECT_TRUE(localData->remoteHostTable(ls)->processPendingMacs(ovsdb));
    return row;
  }

  Kiln::Ptr<McastMacsRemote> mcast(std::uint32_t n, const Uuid& ls, const EthAddr& m, const Uuid& set) {
    auto row = Kiln::newPtr<McastMacsRemote>(rowId(n));
    row->macIs(m);
    row->logicalSwitchIs(ls);
    row->physicalLocatorSetIs(set);
    localData->remoteHostTable(ls)->pendingMcastMacsRemoteRawIs(row->uuid(), row);
    EXPECT_TRUE(localData->remoteHostTable(ls)->processPendingMacs(ovsdb));
    return row;
  }

  void remove(const Kiln::Ptr<UcastMacsRemote>& row) {
    localData->remoteHostTable(row->logicalSwitch())->ucastMacRemove(row);
  }
  void remove(const Kiln::Ptr<McastMacsRemote>& row) {
    localData->remoteHostTable(row->logicalSwitch())->mcastMacRemove(row);
  }

  void arpSource(std::uint32_t n, const EthAddr& m, const Uuid& loc) {
    auto row = ovsdb->arpSourcesRemoteRawIs(rowId(n));
    row->srcMacIs(m);
    row->locatorIs(loc);
    ovsdb->arpSourcesRemoteIs(m, row);
  }

  Kiln::Ptr<RemoteHostSm> start() { return remoteHostSmFactory(status, dir); }

  Kiln::Ptr<VniStatusV2> published(std::int64_t vni) const { return dir->vniStatusV2(Vxlan::Vni(vni)); }

  static MacVtepV2 macEntry(const EthAddr& m, const char* vtep) { return MacVtepV2(m, ip4(vtep), 1, 32); }
  static IpToMacV2 ipEntry(const IpGenAddr& address, const EthAddr& m) { return IpToMacV2(address, m, 1, 32); }

  Kiln::Ptr<LocalData> localData = Kiln::Entity::singletonIs<LocalData>();
  Kiln::Ptr<Status> status = Kiln::newPtr<Status>();
  Kiln::Ptr<HwVtepOvsdb> ovsdb = status->ovsdbIs("ovsdb");
  Kiln::Ptr<OverlaySvc::VniStatusDirV2> dir = Kiln::newPtr<OverlaySvc::VniStatusDirV2>();
  const Uuid vtepA = locator(801, "10.0.0.1");
  const Uuid vtepB = locator(802, "10.0.0.2");
  const Uuid vtepC = locator(803, "10.0.0.3");
};

TEST_F(RemoteHostSmTest, aUnicastHostFollowsItsRowsThroughAMoveAndADelete) {
  const Uuid blue = logicalSwitch(1, Vxlan::Vni(5000));
  auto row = ucast(10, blue, hostA, vtepA, addrA);
  auto sm = start();
  EXPECT_EQ(published(5000)->macVtepTable(), (VniStatusV2::MacVtepTableType{{hostA, macEntry(hostA, "10.0.0.1")}}));
  EXPECT_EQ(published(5000)->ipToMacTable(), (VniStatusV2::IpToMacTableType{{addrA, ipEntry(addrA, hostA)}}));

  // A move by a delete and an insert in one message, published key by key
  // as the monitor path does; then the address goes to another host.
  LogicalSwitchSm* machine = sm->logicalSwitchSm(blue);
  remove(row);
  row = ucast(11, blue, hostA, vtepB, addrA);
  machine->handleUcastMacVtep(hostA);
  machine->handleIpToMac(addrA);
  EXPECT_EQ(published(5000)->macVtepTable(hostA), macEntry(hostA, "10.0.0.2"));
  remove(row);
  row = ucast(12, blue, hostB, vtepB, addrA);
  for (const EthAddr& host : {hostA, hostB}) machine->handleUcastMacVtep(host);
  machine->handleIpToMac(addrA);
  EXPECT_EQ(published(5000)->macVtepTable(), (VniStatusV2::MacVtepTableType{{hostB, macEntry(hostB, "10.0.0.2")}}));
  EXPECT_EQ(published(5000)->ipToMacTable(addrA), ipEntry(addrA, hostB));

  remove(row);
  machine->handleUcastMacVtep(hostB);
  machine->handleIpToMac(addrA);
  EXPECT_TRUE(published(5000)->macVtepTable().empty());
  EXPECT_TRUE(published(5000)->ipToMacTable().empty());
}

TEST_F(RemoteHostSmTest, aUselessLocatorWithdrawsTheHostWhileItsRowStays) {
  const Uuid blue = logicalSwitch(1, Vxlan::Vni(5000));
  auto onA = ucast(10, blue, hostA, vtepA, addrA);
  auto onB = ucast(11, blue, hostB, vtepB);
  auto sm = start();
  LogicalSwitchSm* machine = sm->logicalSwitchSm(blue);
  ASSERT_EQ(published(5000)->macVtepTable().size(), 2u);

  std::uint32_t n = 20;
  for (const char* useless : {"0.0.0.0", "::"}) {
    SCOPED_TRACE(useless);
    const Uuid nowhere = locator(n, useless);
    remove(onB);
    auto stuck = ucast(++n, blue, hostB, nowhere);
    machine->handleUcastMacVtep(hostB);
    EXPECT_FALSE(published(5000)->macVtepTable().contains(hostB));
    EXPECT_EQ(localData->remoteHostTable(blue)->macVtep(hostB).physicalLocator(), nowhere);
    sm->handleInitialized();
    EXPECT_FALSE(published(5000)->macVtepTable().contains(hostB));

    remove(stuck);
    onB = ucast(++n, blue, hostB, vtepB);
    machine->handleUcastMacVtep(hostB);
    ASSERT_EQ(published(5000)->macVtepTable(hostB), macEntry(hostB, "10.0.0.2"));
  }

  // On a loopback locator the host keeps only its address binding, which is
  // not published either; the old association stays until the next full pass.
  remove(onA);
  ucast(30, blue, hostA, locator(31, "127.0.0.1"), addrA);
  machine->handleUcastMacVtep(hostA);
  machine->handleIpToMac(addrA);
  EXPECT_FALSE(published(5000)->macVtepTable().contains(hostA));
  EXPECT_TRUE(published(5000)->ipToMacTable().contains(addrA));
  sm->handleInitialized();
  EXPECT_FALSE(published(5000)->ipToMacTable().contains(addrA));
  EXPECT_TRUE(localData->remoteHostTable(blue)->ipToMac().contains(addrA));
  sm->handleInitialized();
  EXPECT_FALSE(published(5000)->ipToMacTable().contains(addrA));
}

TEST_F(RemoteHostSmTest, unknownDstFloodsToEveryVtepOfItsSetAndIsEditedInPlace) {
  const Uuid blue = logicalSwitch(1, Vxlan::Vni(5000));
  auto flood = mcast(10, blue, unknownDst, locatorSet(50, {vtepA, vtepB}));
  auto sm = start();

  const Kiln::Ptr<MacVtepFloodListV2> entry = published(5000)->macVtepFloodListTable(unknownDst);
  ASSERT_TRUE(entry);
  EXPECT_EQ(vteps(entry->vtepIpFloodList()), (std::set<IpAddr>{ip4("10.0.0.1"), ip4("10.0.0.2")}));
  EXPECT_TRUE(published(5000)->macVtepMultiPathTable().empty());

  // The controller replaces the set: A leaves, C joins, B stays throughout.
  FloodListLog log;
  log.notifierIs(entry);
  remove(flood);
  flood = mcast(11, blue, unknownDst, locatorSet(51, {vtepB, vtepC}));
  sm->handleInitialized();
  EXPECT_EQ(published(5000)->macVtepFloodListTable(unknownDst), entry);
  EXPECT_EQ(log.seen, (std::vector<std::string>{"-10.0.0.1", "+10.0.0.3"}));
  EXPECT_EQ(vteps(entry->vtepIpFloodList()), (std::set<IpAddr>{ip4("10.0.0.2"), ip4("10.0.0.3")}));

  remove(flood);
  sm->logicalSwitchSm(blue)->handleMcastMacVtep(unknownDst);
  EXPECT_TRUE(published(5000)->macVtepFloodListTable().empty());
}

// Captures this unit's trace stream while it lives.
struct TraceCapture {
  std::ostringstream text;
  TraceCapture() { setTrace("VgwRemoteHost/*", &text); }
  ~TraceCapture() { setTrace(nullptr, nullptr); }
  static void setTrace(const char* levels, std::ostream* stream) {
    levels ? setenv("VGW_TRACE", levels, 1) : unsetenv("VGW_TRACE");
    RingTape::streamIs(stream);
    RingTape::reloadLevels();
  }
};

TEST_F(RemoteHostSmTest, theVtepListTypeMovesMulticastEntriesBetweenTheTablesAndBack) {
  const Uuid blue = logicalSwitch(1, Vxlan::Vni(5000));
  const Uuid green = logicalSwitch(2, Vxlan::Vni(6000));
  mcast(10, blue, unknownDst, locatorSet(50, {vtepA, vtepB}));
  mcast(11, blue, mac("01:00:5e:00:00:01"), locatorSet(51, {vtepC}));
  mcast(12, green, unknownDst, locatorSet(52, {vtepA, vtepC}));
  auto sm = start();

  // What each VNI floods, read from whichever table holds it.
  const auto floods = [&](bool multiPath) {
    std::map<std::pair<std::uint32_t, EthAddr>, std::set<IpAddr>> out;
    for (const auto& [vni, entry] : dir->vniStatusV2()) {
      for (const auto& [m, list] : entry->macVtepFloodListTable()) {
        EXPECT_FALSE(multiPath);
        out[{vni.value(), m}] = vteps(list->vtepIpFloodList());
      }
      for (const auto& [m, value] : entry->macVtepMultiPathTable()) {
        EXPECT_TRUE(multiPath);
        out[{vni.value(), m}] = vteps(value.vtepIpList());
      }
    }
    return out;
  };
  const auto asFloodList = floods(false);
  ASSERT_EQ(asFloodList.size(), 3u);
  EXPECT_EQ(asFloodList.at({6000, unknownDst}), (std::set<IpAddr>{ip4("10.0.0.1"), ip4("10.0.0.3")}));

  {
    TraceCapture trace;
    status->vtepListTypeIs(VtepListType::multiPath);
    EXPECT_NE(trace.text.str().find("VtepListType changed to 2 entries"), std::string::npos) << trace.text.str();
  }
  EXPECT_EQ(floods(true), asFloodList);
  // A full pass publishes by the new type and finds nothing to change.
  sm->handleInitialized();
  EXPECT_EQ(floods(true), asFloodList);

  status->vtepListTypeIs(VtepListType::floodList);
  EXPECT_EQ(floods(false), asFloodList);
  sm->handleInitialized();
  EXPECT_EQ(floods(false), asFloodList);
}

TEST_F(RemoteHostSmTest, onlyAVniOfExactlyOneLogicalSwitchIsPublished) {
  // An earlier session left VNI 5000 published.
  dir->vniStatusV2Is(Vxlan::Vni(5000))->macVtepTableIs(hostB, macEntry(hostB, "10.0.0.2"));
  const Uuid blue = logicalSwitch(1, Vxlan::Vni(5000));
  const Uuid red = logicalSwitch(2, Vxlan::Vni(5000));
  const Uuid green = logicalSwitch(3, Vxlan::VniOrNone());
  ucast(10, blue, hostA, vtepA, addrA);
  ucast(11, red, hostB, vtepB);
  ucast(12, green, hostA, vtepC);
  auto sm = start();
  EXPECT_TRUE(dir->vniStatusV2().empty());
  EXPECT_FALSE(sm->logicalSwitchSm(blue)->vni().isValid());
  EXPECT_FALSE(sm->logicalSwitchSm(red)->vni().isValid());
  sm->logicalSwitchSm(green)->handleUcastMacVtep(hostA);
  EXPECT_TRUE(dir->vniStatusV2().empty());

  // Red lets go of the key and blue takes the VNI; green gets a key of its own.
  tunnelKeyIs(red, Vxlan::VniOrNone());
  tunnelKeyIs(green, Vxlan::Vni(6000));
  sm->handleInitialized();
  EXPECT_EQ(published(5000)->macVtepTable(), (VniStatusV2::MacVtepTableType{{hostA, macEntry(hostA, "10.0.0.1")}}));
  EXPECT_EQ(published(5000)->ipToMacTable(addrA), ipEntry(addrA, hostA));
  EXPECT_EQ(published(6000)->macVtepTable(hostA), macEntry(hostA, "10.0.0.3"));

  // A deleted switch's VNI goes with the next full pass, and its machine too.
  localData->remoteHostTableDel(blue);
  ovsdb->logicalSwitchDel(blue);
  indexVnis();
  sm->handleInitialized();
  EXPECT_FALSE(published(5000));
  EXPECT_EQ(sm->logicalSwitchSm(blue), nullptr);
  EXPECT_EQ(sm->logicalSwitchSm().size(), 2u);
  EXPECT_TRUE(published(6000));
}

TEST_F(RemoteHostSmTest, aFullPassOverUnchangedDataWritesNothingToTheMacTables) {
  const Uuid blue = logicalSwitch(1, Vxlan::Vni(5000));
  const Uuid green = logicalSwitch(2, Vxlan::Vni(6000));
  for (std::uint32_t n = 0; n < 50; ++n) {
    const EthAddr host = EthAddr::parse("00:00:00:00:01:" + std::to_string(10 + n));
    const IpGenAddr address = IpGenAddr::parse("192.168.1." + std::to_string(n + 1));
    ucast(100 + n, n % 2 ? blue : green, host, n % 3 ? vtepA : vtepB, address);
  }
  mcast(10, blue, unknownDst, locatorSet(50, {vtepA, vtepB}));
  mcast(11, green, unknownDst, locatorSet(51, {vtepC}));
  arpSource(60, mac("00:00:00:00:00:ee"), vtepC);
  auto sm = start();

  for (VtepListType type : {VtepListType::floodList, VtepListType::multiPath}) {
    SCOPED_TRACE(static_cast<int>(type));
    status->vtepListTypeIs(type);
    std::map<std::uint32_t, std::string> before;
    std::vector<std::unique_ptr<WriteCounter>> counters;
    std::vector<std::unique_ptr<FloodListLog>> floodLogs;
    for (const auto& [vni, entry] : dir->vniStatusV2()) {
      before[vni.value()] = entry->toJson().dump();
      counters.push_back(std::make_unique<WriteCounter>());
      counters.back()->notifierIs(entry);
      for (const auto& [m, list] : entry->macVtepFloodListTable()) {
        floodLogs.push_back(std::make_unique<FloodListLog>());
        floodLogs.back()->notifierIs(list);
      }
    }
    ASSERT_EQ(before.size(), 2u);

    sm->handleInitialized();
    for (const auto& counter : counters) EXPECT_EQ(counter->writes, 0);
    for (const auto& log : floodLogs) EXPECT_TRUE(log->seen.empty());
    for (const auto& [vni, entry] : dir->vniStatusV2()) EXPECT_EQ(entry->toJson().dump(), before.at(vni.value()));
  }
}

TEST_F(RemoteHostSmTest, anArpSourceIsPublishedInEveryVniAndLeavesWithItsRow) {
  const Uuid blue = logicalSwitch(1, Vxlan::Vni(5000));
  const Uuid green = logicalSwitch(2, Vxlan::Vni(6000));
  ucast(10, blue, hostA, vtepA);
  ucast(11, green, hostB, vtepB);
  const EthAddr router = mac("00:00:00:00:00:ee");
  arpSource(60, router, vtepC);
  auto sm = start();

  for (std::int64_t vni : {5000, 6000}) {
    SCOPED_TRACE(vni);
    EXPECT_EQ(published(vni)->macVtepTable(router), macEntry(router, "10.0.0.3"));
  }
  // The sweep keeps it although no logical switch holds the MAC.
  sm->handleInitialized();
  EXPECT_EQ(published(5000)->macVtepTable(router), macEntry(router, "10.0.0.3"));
  EXPECT_EQ(published(5000)->macVtepTable().size(), 2u);

  ovsdb->arpSourcesRemoteDel(router);
  ovsdb->arpSourcesRemoteRawDel(rowId(60));
  sm->handleInitialized();
  for (std::int64_t vni : {5000, 6000}) EXPECT_FALSE(published(vni)->macVtepTable().contains(router));
  EXPECT_EQ(published(5000)->macVtepTable(hostA), macEntry(hostA, "10.0.0.1"));
  EXPECT_EQ(published(6000)->macVtepTable(hostB), macEntry(hostB, "10.0.0.2"));

  // Asked directly about a MAC without a row, it withdraws the MAC everywhere.
  sm->handleArpSourcesRemote(hostA);
  EXPECT_FALSE(published(5000)->macVtepTable().contains(hostA));
  EXPECT_EQ(published(6000)->macVtepTable(hostB), macEntry(hostB, "10.0.0.2"));
}

TEST_F(RemoteHostSmTest, destroyLeavesTheDirectoryAndTheRemoteHostTablesEmpty) {
  const Uuid blue = logicalSwitch(1, Vxlan::Vni(5000));
  const Uuid green = logicalSwitch(2, Vxlan::Vni(6000));
  logicalSwitch(3, Vxlan::VniOrNone());
  ucast(10, blue, hostA, vtepA, addrA);
  mcast(11, green, unknownDst, locatorSet(50, {vtepA, vtepB}));
  arpSource(60, mac("00:00:00:00:00:ee"), vtepC);
  auto sm = start();
  ASSERT_EQ(dir->vniStatusV2().size(), 2u);

  sm->destroy();
  EXPECT_TRUE(dir->vniStatusV2().empty());
  EXPECT_TRUE(sm->logicalSwitchSm().empty());
  EXPECT_FALSE(sm->initialized());
  EXPECT_TRUE(localData->remoteHostTable().empty());
  EXPECT_TRUE(localData->vniToLogicalSwitch().empty());
}

using RemoteHostSmDeathTest = RemoteHostSmTest;

TEST_F(RemoteHostSmDeathTest, breachesOfTheMirrorEndTheProcess) {
  const Uuid blue = logicalSwitch(1, Vxlan::Vni(5000));
  mcast(10, blue, unknownDst, locatorSet(50, {vtepA, locator(804, "10.0.0.1")}));
  EXPECT_DEATH(start(), "Assertion failed: result.second && \"Duplicate Vtep Ip found in flood set.\" \\(");
  // The multi-path table keeps a set of addresses and takes the same set.
  status->vtepListTypeIs(VtepListType::multiPath);
  auto sm = start();
  EXPECT_EQ(vteps(published(5000)->macVtepMultiPathTable(unknownDst).vtepIpList()),
            std::set<IpAddr>{ip4("10.0.0.1")});

  EXPECT_DEATH(status->vtepListTypeIs(static_cast<VtepListType>(2)), "Assertion failed: 0 && \"Vtep list type\" \\(");

  ucast(11, blue, hostA, vtepC);
  ovsdb->physicalLocatorRawDel(vtepC);
  EXPECT_DEATH(sm->handleInitialized(), "Assertion failed: physicalLocator \\(");
}

// A machine keeps the VNI that it adopted when its key turns duplicate,
// finds the VNI's status gone, and stops the agent at its first entry.
TEST_F(RemoteHostSmDeathTest, aHeldVniThatTurnsDuplicateIsABreach) {
  const Uuid blue = logicalSwitch(1, Vxlan::Vni(5000));
  ucast(10, blue, hostA, vtepA);
  auto sm = start();
  ASSERT_TRUE(published(5000));
  logicalSwitch(2, Vxlan::Vni(5000));
  EXPECT_DEATH(sm->handleInitialized(), "Assertion failed: vniStatus \\(");
}

}  // namespace
}  // namespace Vgw
