// Remote hosts below the session: the remote host table's reference counting
// and conflicts, and what RemoteHostSm publishes as the VTEP list type
// changes and for ARP sources, where a full pass over unchanged data writes
// nothing.
#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "Vgw/RemoteHostSm.h"

namespace Vgw::Test {
namespace {

using Ipkit::EthAddr;
using Ipkit::IpAddr;
using Ipkit::IpGenAddr;
using OverlaySvc::MacVtepV2;
using OverlaySvc::VniStatusV2;

const EthAddr hostA = mac("00:00:00:00:00:0a");
const EthAddr hostB = mac("00:00:00:00:00:0b");
const EthAddr unknownDst;
const IpGenAddr addrA = ip("192.168.0.10");

IpAddr ip4(const char* text) { return IpAddr::parse(text); }
MacVtepV2 macEntry(const EthAddr& m, const char* vtep) { return MacVtepV2(m, ip4(vtep), 1, 32); }

class RemoteHostRows : public ::testing::Test {
 protected:
  Uuid locator(std::uint32_t n, const char* address) {
    ovsdb->physicalLocatorRawIs(rowId(n))->keyIs(PhysicalLocatorKey(EncapsulationType::vxlan_over_ipv4, ip(address)));
    return rowId(n);
  }
  Uuid locatorSet(std::uint32_t n, std::initializer_list<Uuid> locators) {
    for (const Uuid& member : locators) ovsdb->physicalLocatorSetIs(rowId(n))->locatorIs(member);
    return rowId(n);
  }
  static Kiln::Ptr<UcastMacsRemote> ucastRow(std::uint32_t n, const Uuid& ls, const EthAddr& m, const Uuid& loc,
                                             const IpGenAddr& address = IpGenAddr()) {
    auto row = Kiln::newPtr<UcastMacsRemote>(rowId(n));
    row->macIs(m);
    row->logicalSwitchIs(ls);
    row->physicalLocatorIs(loc);
    row->ipAddrIs(address);
    return row;
  }
  static Kiln::Ptr<McastMacsRemote> mcastRow(std::uint32_t n, const Uuid& ls, const EthAddr& m, const Uuid& set) {
    auto row = Kiln::newPtr<McastMacsRemote>(rowId(n));
    row->macIs(m);
    row->logicalSwitchIs(ls);
    row->physicalLocatorSetIs(set);
    return row;
  }

  Kiln::Ptr<Status> status = Kiln::newPtr<Status>();
  Kiln::Ptr<HwVtepOvsdb> ovsdb = status->ovsdbIs("ovsdb");
  const Uuid vtepA = locator(801, "10.0.0.1");
  const Uuid vtepB = locator(802, "10.0.0.2");
  const Uuid vtepC = locator(803, "10.0.0.3");
};

// ---- the remote host table of one logical switch ----

// Records each change of an answer and checks, at that moment, that an
// answer present is backed by a reference entry holding at least one row:
// the publisher that reacts to the answer relies on it.
class AnswerLog : public RemoteHostTable::NotifieeConst {
 public:
  std::vector<std::string> seen;
  bool alwaysBacked = true;

  void onMacVtep(const EthAddr& key) override {
    auto refs = notifier()->macVtepRef(key);
    note("mac ", key, notifier()->macVtep().contains(key), refs && !refs->ucastMacsRemoteRef().empty());
  }
  void onMacVtepList(const EthAddr& key) override {
    auto refs = notifier()->macVtepListRef(key);
    note("list ", key, notifier()->macVtepList().contains(key), refs && !refs->mcastMacsRemoteRef().empty());
  }
  void onIpToMac(const IpGenAddr& key) override {
    auto refs = notifier()->ipToMacRef(key);
    note("ip ", key, notifier()->ipToMac().contains(key), refs && !refs->ucastMacsRemoteRef().empty());
  }

 private:
  template <class Key>
  void note(const char* answer, const Key& key, bool present, bool backed) {
    if (present) alwaysBacked = alwaysBacked && backed;
    seen.push_back(std::string(present ? "+" : "-").append(answer).append(key.stringValue().stringValue()));
  }
};

class RemoteHostTableTest : public RemoteHostRows {
 protected:
  void SetUp() override { log.notifierIs(table); }
  void TearDown() override { EXPECT_TRUE(log.alwaysBacked); }

  Kiln::Ptr<UcastMacsRemote> ucast(std::uint32_t n, const char* m, const Uuid& loc, const char* address = "") {
    return ucastRow(n, rowId(900), mac(m), loc, *address ? ip(address) : IpGenAddr());
  }
  Kiln::Ptr<McastMacsRemote> mcast(std::uint32_t n, const char* m, const Uuid& set) {
    return mcastRow(n, rowId(900), mac(m), set);
  }
  void pend(const Kiln::Ptr<UcastMacsRemote>& row) { table->pendingUcastMacsRemoteRawIs(row->uuid(), row); }
  void pend(const Kiln::Ptr<McastMacsRemote>& row) { table->pendingMcastMacsRemoteRawIs(row->uuid(), row); }
  std::size_t macRefs(const char* m) const {
    auto refs = table->macVtepRef(mac(m));
    return refs ? refs->ucastMacsRemoteRef().size() : 0;
  }
  std::size_t ipRefs(const char* address) const {
    auto refs = table->ipToMacRef(ip(address));
    return refs ? refs->ucastMacsRemoteRef().size() : 0;
  }

  Kiln::Ptr<RemoteHostTable> table = Kiln::newPtr<RemoteHostTable>(rowId(900));
  AnswerLog log;
  const Uuid loopback = locator(804, "127.0.0.1");
};

TEST_F(RemoteHostTableTest, rowsOfOneHostShareOneAnswerCountingEachRowOnceUntilTheLastGoes) {
  auto a = ucast(1, "00:00:00:00:00:0a", vtepA, "192.168.0.10");
  auto b = ucast(2, "00:00:00:00:00:0a", vtepA, "192.168.0.10");
  EXPECT_TRUE(table->ucastMacInsert(a, false));
  EXPECT_TRUE(table->ucastMacInsert(a, false));
  EXPECT_TRUE(table->ucastMacInsert(b, false));
  EXPECT_EQ(table->macVtep(hostA), MacVtep(hostA, vtepA));
  EXPECT_EQ(table->ipToMac(addrA), IpToMac(addrA, hostA, vtepA));
  EXPECT_EQ(macRefs("00:00:00:00:00:0a"), 2u);
  EXPECT_EQ(ipRefs("192.168.0.10"), 2u);

  // A modify may release one row through two paths; it still counts once.
  table->macVtepRemove(a->mac(), a->uuid());
  table->ipToMacRemove(a->ipAddr(), a->uuid());
  EXPECT_TRUE(table->ucastMacRemove(a));
  EXPECT_EQ(log.seen, (std::vector<std::string>{"+mac 00:00:00:00:00:0a", "+ip 192.168.0.10"}));
  EXPECT_TRUE(table->ucastMacRemove(b));
  EXPECT_TRUE(table->macVtep().empty() && table->ipToMac().empty());
  EXPECT_EQ(log.seen, (std::vector<std::string>{"+mac 00:00:00:00:00:0a", "+ip 192.168.0.10",
                                                "-mac 00:00:00:00:00:0a", "-ip 192.168.0.10"}));

  // The emptied reference entry stays and is taken up again.
  auto refs = table->macVtepRef(hostA);
  ASSERT_TRUE(refs);
  EXPECT_TRUE(table->ucastMacInsert(b, false));
  EXPECT_EQ(table->macVtepRef(hostA), refs);
  EXPECT_TRUE(refs->ucastMacsRemoteRef(b->uuid()));

  // A row on a loopback locator binds only its address, and takes it over.
  auto onLoopback = ucast(3, "00:00:00:00:00:0a", loopback, "192.168.0.10");
  pend(onLoopback);
  ASSERT_TRUE(table->processPendingMacs(ovsdb));
  EXPECT_EQ(macRefs("00:00:00:00:00:0a"), 1u);
  EXPECT_EQ(table->ipToMac(addrA), IpToMac(addrA, hostA, loopback));
  EXPECT_EQ(ipRefs("192.168.0.10"), 1u);
  EXPECT_TRUE(table->ucastMacRemove(b));
  EXPECT_EQ(table->ipToMac(addrA).physicalLocator(), loopback);
  EXPECT_TRUE(table->ucastMacRemove(onLoopback));
  EXPECT_TRUE(table->ipToMac().empty());
}

TEST_F(RemoteHostTableTest, aSecondVtepForAMacOrASecondMacForAnAddressIsAConflictThatKeepsTheFirst) {
  TraceCapture trace("VgwLocalTypes/*");
  ASSERT_TRUE(table->ucastMacInsert(ucast(1, "00:00:00:00:00:0a", vtepA), false));
  pend(ucast(2, "00:00:00:00:00:0a", vtepB));
  EXPECT_FALSE(table->processPendingMacs(ovsdb));
  EXPECT_EQ(table->macVtep(hostA).physicalLocator(), vtepA);
  EXPECT_EQ(macRefs("00:00:00:00:00:0a"), 1u);
  EXPECT_TRUE(trace.contains("Inserting (00:00:00:00:00:0a, " + vtepB.stringValue().stringValue() +
                             ") conflicts with (00:00:00:00:00:0a, " + vtepA.stringValue().stringValue() + ")"));
  EXPECT_TRUE(trace.contains(" return conflicting Mac, Vtep"));

  ASSERT_TRUE(table->ucastMacInsert(ucast(3, "00:00:00:00:00:0c", vtepA, "192.168.0.10"), false));
  EXPECT_FALSE(table->ucastMacInsert(ucast(4, "00:00:00:00:00:0d", vtepB, "192.168.0.10"), false));
  EXPECT_EQ(table->ipToMac(addrA).mac(), mac("00:00:00:00:00:0c"));
  EXPECT_EQ(ipRefs("192.168.0.10"), 1u);
  // The MAC step comes first; the session is dropped on the conflict anyway.
  EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:0d")).physicalLocator(), vtepB);
  EXPECT_TRUE(trace.contains("Inserting (192.168.0.10, 00:00:00:00:00:0d) conflicts with (192.168.0.10, "
                             "00:00:00:00:00:0c)"));
  EXPECT_TRUE(trace.contains(" return conflicting Ip, Mac"));

  // Multicast rows are counted and conflict the same way.
  auto m1 = mcast(5, "01:00:5e:00:00:01", rowId(701));
  auto m2 = mcast(6, "01:00:5e:00:00:01", rowId(701));
  EXPECT_TRUE(table->mcastMacInsert(m1));
  EXPECT_TRUE(table->mcastMacInsert(m2));
  pend(mcast(7, "01:00:5e:00:00:01", rowId(702)));
  EXPECT_FALSE(table->processPendingMacs(ovsdb));
  EXPECT_EQ(table->macVtepList(mac("01:00:5e:00:00:01")).physicalLocatorSet(), rowId(701));
  EXPECT_TRUE(trace.contains(" return conflicting Mac, Vtep flood"));
  EXPECT_TRUE(table->mcastMacRemove(m1) && table->macVtepList().size() == 1);
  EXPECT_TRUE(table->mcastMacRemove(m2) && table->macVtepList().empty());

  // An answer without a locator (set) never conflicts; the first row naming one supplies it.
  ASSERT_TRUE(table->ucastMacInsert(ucast(8, "00:00:00:00:00:0e", Uuid()), false));
  EXPECT_TRUE(table->ucastMacInsert(ucast(9, "00:00:00:00:00:0e", vtepA), false));
  EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:0e")).physicalLocator(), vtepA);
  EXPECT_TRUE(table->mcastMacInsert(mcast(10, "01:00:5e:00:00:02", Uuid())));
  EXPECT_TRUE(table->mcastMacInsert(mcast(11, "01:00:5e:00:00:02", rowId(700))));
  EXPECT_EQ(table->macVtepList(mac("01:00:5e:00:00:02")).physicalLocatorSet(), rowId(700));
}

using RemoteHostTableDeathTest = RemoteHostTableTest;

TEST_F(RemoteHostTableDeathTest, answersOutOfStepWithTheirReferencesOrLocatorsAreBreaches) {
  log.notifierIs(nullptr);
  auto row = ucast(1, "00:00:00:00:00:0a", vtepA, "192.168.0.10");
  table->macVtepIs(row->mac(), MacVtep(row->mac(), vtepA));
  EXPECT_DEATH(table->macVtepRemove(row->mac(), row->uuid()), "Mac Vtep Ref and Mac Vtep desync");
  EXPECT_DEATH(table->macVtepInsert(row), "Mac Vtep Ref and Mac Vtep desync");
  EXPECT_DEATH(table->macVtepInsert(ucast(2, "00:00:00:00:00:0a", vtepB)), "method does not handle update");
  table->ipToMacIs(row->ipAddr(), IpToMac(row->ipAddr(), row->mac(), vtepA));
  EXPECT_DEATH(table->ipToMacRemove(row->ipAddr(), row->uuid()), "ipToMacRefs && \"Mac Vtep Ref and Mac Vtep desync\"");
  EXPECT_DEATH(table->ipToMacInsert(row), "Ip Mac Ref and Ip Mac desync");
  table->macVtepListIs(row->mac(), MacVtepList(row->mac(), rowId(700)));
  EXPECT_DEATH(table->mcastMacRemove(mcast(2, "00:00:00:00:00:0a", rowId(700))), "Mac Flood Vtep Ref and Mac Flood");
  pend(ucast(3, "00:00:00:00:00:0b", rowId(899)));
  EXPECT_DEATH(table->processPendingMacs(ovsdb), "Invalid physicalLocator uuid");
}

// ---- the publication of every logical switch's answers ----

// Counts every change of the published tables of a VNI.
class WriteCounter : public VniStatusV2::NotifieeConst {
 public:
  int writes = 0;
  void onMacVtepTable(const EthAddr&) override { ++writes; }
  void onMacVtepMultiPathTable(const EthAddr&) override { ++writes; }
  void onMacVtepFloodListTable(const EthAddr&) override { ++writes; }
  void onIpToMacTable(const IpGenAddr&) override { ++writes; }
};

class RemoteHostSmTest : public RemoteHostRows {
 protected:
  void SetUp() override { localData->reset(); }
  void TearDown() override { localData->reset(); }

  // A Logical_Switch row with its remote host table and the VNI index, as
  // the monitor leaves them.
  Uuid logicalSwitch(std::uint32_t n, Vxlan::Vni vni) {
    ovsdb->logicalSwitchIs(rowId(n))->tunnelKeyIs(vni);
    localData->remoteHostTableIs(rowId(n));
    localData->vniToLogicalSwitchIs(vni)->logicalSwitchIs(rowId(n));
    return rowId(n);
  }
  // Remote MAC rows folded in as at the end of a monitor message.
  Kiln::Ptr<UcastMacsRemote> ucast(std::uint32_t n, const Uuid& ls, const EthAddr& m, const Uuid& loc,
                                   const IpGenAddr& address = IpGenAddr()) {
    auto row = ucastRow(n, ls, m, loc, address);
    localData->remoteHostTable(ls)->pendingUcastMacsRemoteRawIs(row->uuid(), row);
    EXPECT_TRUE(localData->remoteHostTable(ls)->processPendingMacs(ovsdb));
    return row;
  }
  Kiln::Ptr<McastMacsRemote> mcast(std::uint32_t n, const Uuid& ls, const EthAddr& m, const Uuid& set) {
    auto row = mcastRow(n, ls, m, set);
    localData->remoteHostTable(ls)->pendingMcastMacsRemoteRawIs(row->uuid(), row);
    EXPECT_TRUE(localData->remoteHostTable(ls)->processPendingMacs(ovsdb));
    return row;
  }
  Kiln::Ptr<RemoteHostSm> start() { return remoteHostSmFactory(status, dir); }
  Kiln::Ptr<VniStatusV2> published(std::int64_t vni) const { return dir->vniStatusV2(Vxlan::Vni(vni)); }

  Kiln::Ptr<LocalData> localData = Kiln::Entity::singletonIs<LocalData>();
  Kiln::Ptr<OverlaySvc::VniStatusDirV2> dir = Kiln::newPtr<OverlaySvc::VniStatusDirV2>();
};

TEST_F(RemoteHostSmTest, multicastEntriesFollowTheVtepListTypeArpSourcesReachEveryVniAndAFullPassWritesNothing) {
  const Uuid blue = logicalSwitch(1, Vxlan::Vni(5000));
  const Uuid green = logicalSwitch(2, Vxlan::Vni(6000));
  mcast(10, blue, unknownDst, locatorSet(50, {vtepA, vtepB}));
  mcast(11, blue, mac("01:00:5e:00:00:01"), locatorSet(51, {vtepC}));
  mcast(12, green, unknownDst, locatorSet(52, {vtepA, vtepC}));
  ucast(13, blue, hostA, vtepA, addrA);
  ucast(14, green, hostB, vtepB);
  const EthAddr router = mac("00:00:00:00:00:ee");
  const auto arp = ovsdb->arpSourcesRemoteRawIs(rowId(60));
  arp->srcMacIs(router);
  arp->locatorIs(vtepC);
  ovsdb->arpSourcesRemoteIs(router, arp);
  auto sm = start();
  // The ARP source belongs to no logical switch: every VNI gets it.
  for (std::int64_t vni : {5000, 6000}) EXPECT_EQ(published(vni)->macVtepTable(router), macEntry(router, "10.0.0.3"));

  // What each VNI floods, read from the table the type names.
  const auto floods = [&](bool multiPath) {
    std::map<std::pair<std::uint32_t, EthAddr>, std::set<IpAddr>> out;
    for (const auto& [vni, entry] : dir->vniStatusV2()) {
      EXPECT_EQ(entry->macVtepFloodListTable().empty(), multiPath);
      EXPECT_EQ(entry->macVtepMultiPathTable().empty(), !multiPath);
      const std::uint32_t v = vni.value();
      for (const auto& [m, list] : entry->macVtepFloodListTable()) out[{v, m}] = keysOf(list->vtepIpFloodList());
      for (const auto& [m, paths] : entry->macVtepMultiPathTable()) out[{v, m}] = keysOf(paths.vtepIpList());
    }
    return out;
  };
  const auto asFloodList = floods(false);
  ASSERT_EQ(asFloodList.size(), 3u);
  EXPECT_EQ(asFloodList.at({6000, unknownDst}), (std::set<IpAddr>{ip4("10.0.0.1"), ip4("10.0.0.3")}));

  {
    TraceCapture trace("VgwRemoteHost/*");
    status->vtepListTypeIs(VtepListType::multiPath);
    EXPECT_TRUE(trace.contains("VtepListType changed to 2 entries")) << trace.text();
  }
  EXPECT_EQ(floods(true), asFloodList);

  // A full pass publishes by the new type and finds nothing to change.
  std::map<std::uint32_t, std::string> before;
  std::vector<std::unique_ptr<WriteCounter>> counters;
  for (const auto& [vni, entry] : dir->vniStatusV2()) {
    before[vni.value()] = entry->toJson().dump();
    counters.push_back(std::make_unique<WriteCounter>());
    counters.back()->notifierIs(entry);
  }
  sm->handleInitialized();
  for (const auto& counter : counters) EXPECT_EQ(counter->writes, 0);
  for (const auto& [vni, entry] : dir->vniStatusV2()) EXPECT_EQ(entry->toJson().dump(), before.at(vni.value()));

  status->vtepListTypeIs(VtepListType::floodList);
  EXPECT_EQ(floods(false), asFloodList);

  // The ARP source leaves every VNI with its row; asked directly about a MAC
  // without a row, the machine withdraws it everywhere.
  ovsdb->arpSourcesRemoteDel(router);
  ovsdb->arpSourcesRemoteRawDel(rowId(60));
  sm->handleInitialized();
  for (std::int64_t vni : {5000, 6000}) EXPECT_FALSE(published(vni)->macVtepTable().contains(router));
  sm->handleArpSourcesRemote(hostA);
  EXPECT_FALSE(published(5000)->macVtepTable().contains(hostA));
  EXPECT_EQ(published(6000)->macVtepTable(hostB), macEntry(hostB, "10.0.0.2"));
}

// Controller work that changes which switch holds a VNI: a machine holds its
// VNI only while its row alone claims it, and a full pass publishes exactly
// the VNIs that one switch claims, each with its switch's hosts.
TEST_F(RemoteHostSmTest, aVniFollowsItsOnlyClaimantThroughClearedSharedAndChangedKeys) {
  const Uuid blue = logicalSwitch(1, Vxlan::Vni(5000));
  const Uuid green = logicalSwitch(2, Vxlan::Vni(6000));
  ucast(10, blue, hostA, vtepA);
  auto sm = start();
  // What the monitor leaves after a Logical_Switch change: the mirror's key
  // and the VNI index rebuilt from all keys.
  const auto key = [&](const Uuid& ls, std::optional<std::int64_t> vni) {
    if (!ovsdb->logicalSwitch(ls)) {
      ovsdb->logicalSwitchIs(ls);
      localData->remoteHostTableIs(ls);
    }
    ovsdb->logicalSwitch(ls)->tunnelKeyIs(vni ? Vxlan::VniOrNone(*vni) : Vxlan::VniOrNone::invalidVni());
  };
  const auto drop = [&](const Uuid& ls) {
    localData->remoteHostTableDel(ls);
    ovsdb->logicalSwitchDel(ls);
  };
  const auto reconcile = [&] {
    localData->vniToLogicalSwitchDelAll();
    for (const auto& [uuid, ls] : ovsdb->logicalSwitch()) {
      if (ls->tunnelKey().isValid()) localData->vniToLogicalSwitchIs(ls->tunnelKey().vni())->logicalSwitchIs(uuid);
    }
    sm->handleInitialized();
  };
  const Uuid red = rowId(3);
  struct Step {
    const char* what;
    std::function<void()> change;
    std::map<std::int64_t, std::set<EthAddr>> published;
  };
  const std::vector<Step> steps = {
      {"blue's key cleared, with a host", [&] { key(blue, std::nullopt); }, {{6000, {}}}},
      {"blue's key back", [&] { key(blue, 5000); }, {{5000, {hostA}}, {6000, {}}}},
      {"green's key cleared, without hosts", [&] { key(green, std::nullopt); }, {{5000, {hostA}}}},
      {"red takes blue's key", [&] { key(red, 5000); }, {}},
      {"red deleted", [&] { drop(red); }, {{5000, {hostA}}}},
      {"green takes blue's key", [&] { key(green, 5000); }, {}},
      {"blue moves to 7000", [&] { key(blue, 7000); }, {{5000, {}}, {7000, {hostA}}}},
      {"green and blue swap", [&] { key(green, 7000), key(blue, 5000); }, {{5000, {hostA}}, {7000, {}}}},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    step.change();
    reconcile();
    std::map<std::int64_t, std::set<EthAddr>> seen;
    for (const auto& [vni, entry] : dir->vniStatusV2()) seen[vni.value()] = keysOf(entry->macVtepTable());
    EXPECT_EQ(seen, step.published);
    // The per-key handlers of every machine agree with the full pass.
    for (const auto& [uuid, machine] : sm->logicalSwitchSm()) machine->handleUcastMacVtep(hostA);
    for (const auto& [vni, entry] : dir->vniStatusV2()) EXPECT_EQ(keysOf(entry->macVtepTable()), seen[vni.value()]);
  }
}

// The fabric's VTEPs are IPv4: a locator with an IPv6 address, or one that
// did not parse (read as no address, as the all-zero one is), names no VTEP.
// Such a host leaves the fabric while its row stays, a flood set goes out
// without such members, and an ARP source behind one is published nowhere.
TEST_F(RemoteHostSmTest, locatorsWithoutAnIpv4VtepArePublishedNowhere) {
  const Uuid blue = logicalSwitch(1, Vxlan::Vni(5000));
  const Uuid v6 = locator(805, "2001:db8::1");
  const Uuid v6b = locator(806, "2001:db8::2");
  ovsdb->physicalLocatorRawIs(rowId(807));  // a dst_ip that did not parse
  const Uuid unparsed = rowId(807);
  const EthAddr router = mac("00:00:00:00:00:ee");
  const auto arp = ovsdb->arpSourcesRemoteRawIs(rowId(60));
  arp->srcMacIs(router);
  arp->locatorIs(vtepA);
  ovsdb->arpSourcesRemoteIs(router, arp);
  const auto hostOnA = ucast(10, blue, hostA, vtepA);
  ucast(11, blue, hostB, v6);
  ucast(12, blue, mac("00:00:00:00:00:0c"), unparsed);
  const EthAddr group1 = mac("01:00:5e:00:00:01");
  const EthAddr group2 = mac("01:00:5e:00:00:02");
  mcast(20, blue, unknownDst, locatorSet(50, {vtepB, v6, unparsed}));
  mcast(21, blue, group1, locatorSet(51, {v6, v6b}));
  mcast(22, blue, group2, locatorSet(52, {unparsed}));
  auto sm = start();

  const auto check = [&](const char* what) {
    SCOPED_TRACE(what);
    const Kiln::Ptr<VniStatusV2> entry = published(5000);
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->macVtepTable(), (VniStatusV2::MacVtepTableType{{hostA, macEntry(hostA, "10.0.0.1")},
                                                                     {router, macEntry(router, "10.0.0.1")}}));
    std::map<EthAddr, std::set<IpAddr>> floods;
    for (const auto& [m, list] : entry->macVtepFloodListTable()) floods[m] = keysOf(list->vtepIpFloodList());
    for (const auto& [m, paths] : entry->macVtepMultiPathTable()) floods[m] = keysOf(paths.vtepIpList());
    EXPECT_EQ(floods, (std::map<EthAddr, std::set<IpAddr>>{{unknownDst, {ip4("10.0.0.2")}}}));
  };
  check("flood list");
  status->vtepListTypeIs(VtepListType::multiPath);
  sm->handleInitialized();
  check("multi path");

  // A published host and ARP source moved behind an IPv6 VTEP leave the fabric.
  localData->remoteHostTable(blue)->ucastMacRemove(hostOnA);
  ucast(13, blue, hostA, v6b);
  arp->locatorIs(v6);
  sm->handleInitialized();
  EXPECT_TRUE(published(5000)->macVtepTable().empty());
  sm->handleArpSourcesRemote(router);
  EXPECT_TRUE(published(5000)->macVtepTable().empty());
}

using RemoteHostSmDeathTest = RemoteHostSmTest;

TEST_F(RemoteHostSmDeathTest, breachesOfTheMirrorEndTheProcess) {
  const Uuid blue = logicalSwitch(1, Vxlan::Vni(5000));
  // Two locators of one address (the controller may key them apart by
  // tunnel key) are one VTEP to the fabric, in either table.
  mcast(10, blue, unknownDst, locatorSet(50, {vtepA, locator(804, "10.0.0.1")}));
  auto sm = start();
  EXPECT_EQ(keysOf(published(5000)->macVtepFloodListTable(unknownDst)->vtepIpFloodList()),
            std::set<IpAddr>{ip4("10.0.0.1")});
  status->vtepListTypeIs(VtepListType::multiPath);
  EXPECT_EQ(keysOf(published(5000)->macVtepMultiPathTable(unknownDst).vtepIpList()), std::set<IpAddr>{ip4("10.0.0.1")});
  EXPECT_DEATH(status->vtepListTypeIs(static_cast<VtepListType>(2)), "Assertion failed: 0 && \"Vtep list type\" \\(");

  auto stray = ucast(11, blue, hostA, vtepC);
  ovsdb->physicalLocatorRawDel(vtepC);
  EXPECT_DEATH(sm->handleInitialized(), "Assertion failed: physicalLocator \\(");
  localData->remoteHostTable(blue)->ucastMacRemove(stray);

  // The status of a VNI that the machine holds, removed behind its back.
  dir->vniStatusV2Del(Vxlan::Vni(5000));
  EXPECT_DEATH(sm->logicalSwitchSm(blue)->handleUcastMacVtep(hostA), "Assertion failed: vniStatus \\(");
}

}  // namespace
}  // namespace Vgw::Test
