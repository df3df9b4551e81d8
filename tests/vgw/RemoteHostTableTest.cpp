// The remote host table: reference counting of the controller's rows,
// conflicts, pending rows and what the answers' reactors get to see.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <sstream>
#include <string>
#include <vector>

#include "RingTape/RingTape.h"
#include "Vgw/LocalTypes.h"

namespace {

using Ipkit::EthAddr;
using Ipkit::IpGenAddr;
using Vgw::IpToMac;
using Vgw::MacVtep;
using Vgw::MacVtepList;
using Vgw::McastMacsRemote;
using Vgw::RemoteHostTable;
using Vgw::UcastMacsRemote;
using Vgw::Uuid;

// A uuid as the server makes them; `n` orders them.
Uuid rowId(std::uint32_t n) { return Uuid(n, 0x1234, 0x80000000u, 0); }

EthAddr mac(const char* text) { return EthAddr::parse(text); }
IpGenAddr ip(const char* text) { return IpGenAddr::parse(text); }

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
    seen.push_back((present ? "+" : "-") + std::string(answer) + key.stringValue().stringValue());
  }
};

class RemoteHostTableTest : public ::testing::Test {
 protected:
  void SetUp() override { log.notifierIs(table); }

  Uuid locator(std::uint32_t n, const char* address) {
    auto row = ovsdb->physicalLocatorRawIs(rowId(n));
    row->keyIs(Vgw::PhysicalLocatorKey(Vgw::EncapsulationType::vxlan_over_ipv4, ip(address)));
    return row->uuid();
  }

  static Kiln::Ptr<UcastMacsRemote> ucast(std::uint32_t n, const char* m, const Uuid& loc,
                                          const char* address = nullptr) {
    auto row = Kiln::newPtr<UcastMacsRemote>(rowId(n));
    row->macIs(mac(m));
    row->logicalSwitchIs(rowId(900));
    row->physicalLocatorIs(loc);
    if (address) row->ipAddrIs(ip(address));
    return row;
  }

  static Kiln::Ptr<McastMacsRemote> mcast(std::uint32_t n, const char* m, const Uuid& set) {
    auto row = Kiln::newPtr<McastMacsRemote>(rowId(n));
    row->macIs(mac(m));
    row->logicalSwitchIs(rowId(900));
    row->physicalLocatorSetIs(set);
    return row;
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

  Kiln::Ptr<Vgw::HwVtepOvsdb> ovsdb = Kiln::newPtr<Vgw::HwVtepOvsdb>();
  Kiln::Ptr<RemoteHostTable> table = Kiln::newPtr<RemoteHostTable>(rowId(900));
  AnswerLog log;
  const Uuid vtepA = locator(801, "10.0.0.1");
  const Uuid vtepB = locator(802, "10.0.0.2");
  const Uuid loopback = locator(803, "127.0.0.1");
};

// Captures the trace stream of the unit for the tests that read it.
class TraceCapture {
 public:
  TraceCapture() {
    setenv("VGW_TRACE", "VgwLocalTypes/*", 1);
    RingTape::streamIs(&text);
    RingTape::reloadLevels();
  }
  ~TraceCapture() {
    unsetenv("VGW_TRACE");
    RingTape::reloadLevels();
    RingTape::streamIs(nullptr);
  }
  std::string str() const { return text.str(); }

 private:
  std::ostringstream text;
};

TEST_F(RemoteHostTableTest, rowsOfOneHostShareOneAnswerUntilTheLastGoes) {
  auto a = ucast(1, "00:00:00:00:00:0a", vtepA, "192.168.0.10");
  auto b = ucast(2, "00:00:00:00:00:0a", vtepA, "192.168.0.10");
  EXPECT_TRUE(table->ucastMacInsert(a, false));
  EXPECT_TRUE(table->ucastMacInsert(b, false));

  EXPECT_EQ(table->macVtep().size(), 1u);
  EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:0a")), MacVtep(mac("00:00:00:00:00:0a"), vtepA));
  EXPECT_EQ(macRefs("00:00:00:00:00:0a"), 2u);
  EXPECT_EQ(table->ipToMac(ip("192.168.0.10")), IpToMac(ip("192.168.0.10"), mac("00:00:00:00:00:0a"), vtepA));
  EXPECT_EQ(ipRefs("192.168.0.10"), 2u);
  EXPECT_EQ(log.seen, (std::vector<std::string>{"+mac 00:00:00:00:00:0a", "+ip 192.168.0.10"}));

  EXPECT_TRUE(table->ucastMacRemove(a));
  EXPECT_EQ(table->macVtep().size(), 1u);
  EXPECT_EQ(table->ipToMac().size(), 1u);
  EXPECT_EQ(log.seen.size(), 2u);

  EXPECT_TRUE(table->ucastMacRemove(b));
  EXPECT_TRUE(table->macVtep().empty());
  EXPECT_TRUE(table->ipToMac().empty());
  EXPECT_EQ(log.seen, (std::vector<std::string>{"+mac 00:00:00:00:00:0a", "+ip 192.168.0.10",
                                                "-mac 00:00:00:00:00:0a", "-ip 192.168.0.10"}));

  // The emptied reference entry stays and is taken up again.
  auto refs = table->macVtepRef(mac("00:00:00:00:00:0a"));
  ASSERT_TRUE(refs);
  EXPECT_TRUE(table->ucastMacInsert(b, false));
  EXPECT_EQ(table->macVtepRef(mac("00:00:00:00:00:0a")), refs);
  EXPECT_TRUE(refs->ucastMacsRemoteRef(b->uuid()));
  EXPECT_TRUE(log.alwaysBacked);
}

TEST_F(RemoteHostTableTest, aRowCountsOnceHoweverOftenItIsFoldedInOrReleased) {
  auto a = ucast(1, "00:00:00:00:00:0a", vtepA, "192.168.0.10");
  auto b = ucast(2, "00:00:00:00:00:0a", vtepA, "192.168.0.10");
  EXPECT_TRUE(table->ucastMacInsert(a, false));
  EXPECT_TRUE(table->ucastMacInsert(a, false));
  EXPECT_EQ(macRefs("00:00:00:00:00:0a"), 1u);
  EXPECT_EQ(ipRefs("192.168.0.10"), 1u);
  EXPECT_TRUE(table->ucastMacInsert(b, false));

  // A modify may release one row through two paths.
  table->macVtepRemove(a->mac(), a->uuid());
  table->ipToMacRemove(a->ipAddr(), a->uuid());
  EXPECT_TRUE(table->ucastMacRemove(a));
  EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:0a")).physicalLocator(), vtepA);
  EXPECT_EQ(table->ipToMac(ip("192.168.0.10")).mac(), mac("00:00:00:00:00:0a"));

  EXPECT_TRUE(table->ucastMacRemove(b));
  EXPECT_TRUE(table->macVtep().empty());
  EXPECT_TRUE(table->ipToMac().empty());
}

TEST_F(RemoteHostTableTest, aHostMovedByDeleteAndInsertInOneMessageDoesNotConflict) {
  for (bool insertFirst : {true, false}) {
    SCOPED_TRACE(insertFirst ? "insert row before delete row" : "delete row before insert row");
    auto old = ucast(1, "00:00:00:00:00:0a", vtepA, "192.168.0.10");
    auto moved = ucast(2, "00:00:00:00:00:0a", vtepB, "192.168.0.10");
    ASSERT_TRUE(table->ucastMacInsert(old, false));

    // Within the message, deletes apply as they come and inserts wait.
    if (insertFirst) pend(moved);
    EXPECT_TRUE(table->ucastMacRemove(old));
    if (!insertFirst) pend(moved);
    EXPECT_TRUE(table->processPendingMacs(ovsdb));

    EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:0a")), MacVtep(mac("00:00:00:00:00:0a"), vtepB));
    EXPECT_EQ(table->ipToMac(ip("192.168.0.10")), IpToMac(ip("192.168.0.10"), mac("00:00:00:00:00:0a"), vtepB));
    EXPECT_TRUE(table->pendingUcastMacsRemoteRaw().empty());
    EXPECT_TRUE(log.alwaysBacked);
    table->ucastMacRemove(moved);
    ASSERT_TRUE(table->macVtep().empty());
  }
}

TEST_F(RemoteHostTableTest, aMacOnAnotherVtepWithoutADeleteIsAConflict) {
  TraceCapture trace;
  auto a = ucast(1, "00:00:00:00:00:0a", vtepA);
  auto b = ucast(2, "00:00:00:00:00:0a", vtepB);
  ASSERT_TRUE(table->ucastMacInsert(a, false));
  pend(b);
  EXPECT_FALSE(table->processPendingMacs(ovsdb));

  EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:0a")).physicalLocator(), vtepA);
  EXPECT_EQ(macRefs("00:00:00:00:00:0a"), 1u);
  EXPECT_TRUE(table->pendingUcastMacsRemoteRaw().empty());
  const std::string expected = "Inserting (00:00:00:00:00:0a, " + vtepB.stringValue().stringValue() +
                               ") conflicts with (00:00:00:00:00:0a, " + vtepA.stringValue().stringValue() + ")";
  EXPECT_NE(trace.str().find(expected), std::string::npos) << trace.str();
  EXPECT_NE(trace.str().find(" return conflicting Mac, Vtep"), std::string::npos);
}

TEST_F(RemoteHostTableTest, anAddressOnTwoMacsIsAConflictAfterTheMacIsCounted) {
  TraceCapture trace;
  auto a = ucast(1, "00:00:00:00:00:0a", vtepA, "192.168.0.10");
  auto b = ucast(2, "00:00:00:00:00:0b", vtepB, "192.168.0.10");
  ASSERT_TRUE(table->ucastMacInsert(a, false));
  EXPECT_FALSE(table->ucastMacInsert(b, false));

  EXPECT_EQ(table->ipToMac(ip("192.168.0.10")).mac(), mac("00:00:00:00:00:0a"));
  EXPECT_EQ(ipRefs("192.168.0.10"), 1u);
  // The MAC step comes first; the session is dropped on the conflict anyway.
  EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:0b")).physicalLocator(), vtepB);
  EXPECT_NE(trace.str().find("Inserting (192.168.0.10, 00:00:00:00:00:0b) conflicts with (192.168.0.10, "
                             "00:00:00:00:00:0a)"),
            std::string::npos)
      << trace.str();
  EXPECT_NE(trace.str().find(" return conflicting Ip, Mac"), std::string::npos);
}

TEST_F(RemoteHostTableTest, anAddressThatMovesVtepTakesOverAndForgetsTheEarlierRows) {
  auto a = ucast(1, "00:00:00:00:00:0a", vtepA, "192.168.0.10");
  auto c = ucast(3, "00:00:00:00:00:0a", vtepA, "192.168.0.10");
  auto d = ucast(4, "00:00:00:00:00:0a", loopback, "192.168.0.10");
  ASSERT_TRUE(table->ucastMacInsert(a, false));
  ASSERT_TRUE(table->ucastMacInsert(c, false));
  pend(d);
  ASSERT_TRUE(table->processPendingMacs(ovsdb));

  // The loopback row binds only its address, and that binding replaces the
  // one of the other rows; their MAC answer is untouched.
  EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:0a")).physicalLocator(), vtepA);
  EXPECT_EQ(macRefs("00:00:00:00:00:0a"), 2u);
  EXPECT_EQ(table->ipToMac(ip("192.168.0.10")), IpToMac(ip("192.168.0.10"), mac("00:00:00:00:00:0a"), loopback));
  EXPECT_EQ(ipRefs("192.168.0.10"), 1u);

  // An earlier row is no longer counted for the address.
  EXPECT_TRUE(table->ucastMacRemove(a));
  EXPECT_EQ(table->ipToMac(ip("192.168.0.10")).physicalLocator(), loopback);
  EXPECT_TRUE(table->ucastMacRemove(d));
  EXPECT_TRUE(table->ipToMac().empty());
  EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:0a")).physicalLocator(), vtepA);
  EXPECT_TRUE(log.alwaysBacked);
}

TEST_F(RemoteHostTableTest, aRowOnALoopbackLocatorBindsOnlyItsAddress) {
  auto row = ucast(1, "00:00:00:00:00:0c", loopback, "192.168.0.12");
  pend(row);
  ASSERT_TRUE(table->processPendingMacs(ovsdb));
  EXPECT_TRUE(table->macVtep().empty());
  EXPECT_FALSE(table->macVtepRef(mac("00:00:00:00:00:0c")));
  EXPECT_EQ(table->ipToMac(ip("192.168.0.12")).physicalLocator(), loopback);

  EXPECT_TRUE(table->ucastMacRemove(row));
  EXPECT_TRUE(table->ipToMac().empty());
  EXPECT_EQ(log.seen, (std::vector<std::string>{"+ip 192.168.0.12", "-ip 192.168.0.12"}));
}

TEST_F(RemoteHostTableTest, theZeroMacIsIgnoredForUnicastAndIsTheFloodListForMulticast) {
  auto row = ucast(1, "00:00:00:00:00:00", vtepA, "192.168.0.10");
  EXPECT_TRUE(table->ucastMacInsert(row, false));
  EXPECT_TRUE(table->macVtep().empty());
  EXPECT_TRUE(table->macVtepRef().empty());
  EXPECT_TRUE(table->ipToMac().empty());
  EXPECT_TRUE(table->ipToMacRef().empty());
  EXPECT_TRUE(table->ucastMacRemove(row));
  EXPECT_TRUE(log.seen.empty());

  const Uuid set = rowId(700);
  EXPECT_TRUE(table->mcastMacInsert(mcast(2, "00:00:00:00:00:00", set)));
  EXPECT_EQ(table->macVtepList(mac("00:00:00:00:00:00")), MacVtepList(mac("00:00:00:00:00:00"), set));
}

TEST_F(RemoteHostTableTest, anAnswerWithoutALocatorNeverConflicts) {
  auto unlocated = ucast(1, "00:00:00:00:00:0a", Uuid());
  auto located = ucast(2, "00:00:00:00:00:0a", vtepA);
  ASSERT_TRUE(table->ucastMacInsert(unlocated, false));
  EXPECT_TRUE(table->ucastMacInsert(located, false));
  EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:0a")).physicalLocator(), vtepA);
  EXPECT_EQ(macRefs("00:00:00:00:00:0a"), 2u);
  EXPECT_TRUE(log.alwaysBacked);

  auto unset = mcast(3, "01:00:5e:00:00:01", Uuid());
  EXPECT_TRUE(table->mcastMacInsert(unset));
  EXPECT_TRUE(table->mcastMacInsert(mcast(4, "01:00:5e:00:00:01", rowId(700))));
  EXPECT_EQ(table->macVtepList(mac("01:00:5e:00:00:01")).physicalLocatorSet(), rowId(700));
}

TEST_F(RemoteHostTableTest, multicastRowsAreCountedAndConflictLikeUnicastRows) {
  TraceCapture trace;
  const Uuid set1 = rowId(701);
  const Uuid set2 = rowId(702);
  auto a = mcast(1, "01:00:5e:00:00:01", set1);
  auto b = mcast(2, "01:00:5e:00:00:01", set1);
  EXPECT_TRUE(table->mcastMacInsert(a));
  EXPECT_TRUE(table->mcastMacInsert(b));
  EXPECT_EQ(table->macVtepListRef(mac("01:00:5e:00:00:01"))->mcastMacsRemoteRef().size(), 2u);

  pend(mcast(3, "01:00:5e:00:00:01", set2));
  EXPECT_FALSE(table->processPendingMacs(ovsdb));
  EXPECT_EQ(table->macVtepList(mac("01:00:5e:00:00:01")).physicalLocatorSet(), set1);
  EXPECT_NE(trace.str().find(" return conflicting Mac, Vtep flood"), std::string::npos);

  EXPECT_TRUE(table->mcastMacRemove(a));
  EXPECT_EQ(table->macVtepList().size(), 1u);
  EXPECT_TRUE(table->mcastMacRemove(b));
  EXPECT_TRUE(table->macVtepList().empty());
  EXPECT_EQ(log.seen, (std::vector<std::string>{"+list 01:00:5e:00:00:01", "-list 01:00:5e:00:00:01"}));
  EXPECT_TRUE(log.alwaysBacked);
}

TEST_F(RemoteHostTableTest, pendingRowsLeaveBeforeFoldingAndAConflictLeavesTheRestWaiting) {
  ASSERT_TRUE(table->ucastMacInsert(ucast(10, "00:00:00:00:00:0a", vtepA), false));
  pend(ucast(1, "00:00:00:00:00:01", vtepA));
  pend(ucast(2, "00:00:00:00:00:0a", vtepB));
  pend(ucast(3, "00:00:00:00:00:03", vtepB));
  pend(mcast(4, "01:00:5e:00:00:04", rowId(700)));

  EXPECT_FALSE(table->processPendingMacs(ovsdb));
  EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:01")).physicalLocator(), vtepA);
  EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:0a")).physicalLocator(), vtepA);
  EXPECT_TRUE(table->macVtep(mac("00:00:00:00:00:03")) == MacVtep());
  EXPECT_FALSE(table->pendingUcastMacsRemoteRaw(rowId(2)));
  EXPECT_TRUE(table->pendingUcastMacsRemoteRaw(rowId(3)));
  EXPECT_EQ(table->pendingUcastMacsRemoteRaw().size(), 1u);
  EXPECT_EQ(table->pendingMcastMacsRemoteRaw().size(), 1u);
  EXPECT_TRUE(table->macVtepList().empty());

  EXPECT_TRUE(table->processPendingMacs(ovsdb));
  EXPECT_EQ(table->macVtep(mac("00:00:00:00:00:03")).physicalLocator(), vtepB);
  EXPECT_EQ(table->macVtepList().size(), 1u);
  EXPECT_TRUE(table->pendingUcastMacsRemoteRaw().empty());
  EXPECT_TRUE(table->pendingMcastMacsRemoteRaw().empty());
}

TEST_F(RemoteHostTableTest, aTableThatGoesEmptiesTheReferenceEntriesHeldElsewhere) {
  ASSERT_TRUE(table->ucastMacInsert(ucast(1, "00:00:00:00:00:0a", vtepA, "192.168.0.10"), false));
  ASSERT_TRUE(table->mcastMacInsert(mcast(2, "01:00:5e:00:00:01", rowId(700))));
  Kiln::Ptr<Vgw::MacVtepRef> macRef = table->macVtepRef(mac("00:00:00:00:00:0a"));
  Kiln::Ptr<Vgw::MacVtepListRef> listRef = table->macVtepListRef(mac("01:00:5e:00:00:01"));
  Kiln::Ptr<Vgw::IpToMacRef> ipRef = table->ipToMacRef(ip("192.168.0.10"));
  ASSERT_EQ(macRef->parent(), table.get());

  log.notifierIs(nullptr);
  table = nullptr;
  EXPECT_TRUE(macRef->ucastMacsRemoteRef().empty());
  EXPECT_TRUE(listRef->mcastMacsRemoteRef().empty());
  EXPECT_TRUE(ipRef->ucastMacsRemoteRef().empty());
  EXPECT_EQ(macRef->parent(), nullptr);
  EXPECT_EQ(ipRef->parent(), nullptr);
}

using RemoteHostTableDeathTest = RemoteHostTableTest;

TEST_F(RemoteHostTableDeathTest, answersOutOfStepWithTheirReferencesAreBreaches) {
  auto row = ucast(1, "00:00:00:00:00:0a", vtepA, "192.168.0.10");
  table->macVtepIs(row->mac(), MacVtep(row->mac(), vtepA));
  EXPECT_DEATH(table->macVtepRemove(row->mac(), row->uuid()), "Mac Vtep Ref and Mac Vtep desync");
  EXPECT_DEATH(table->macVtepInsert(row), "Mac Vtep Ref and Mac Vtep desync");
  EXPECT_DEATH(table->macVtepInsert(ucast(2, "00:00:00:00:00:0a", vtepB)), "method does not handle update");

  table->ipToMacIs(row->ipAddr(), IpToMac(row->ipAddr(), row->mac(), vtepA));
  EXPECT_DEATH(table->ipToMacRemove(row->ipAddr(), row->uuid()), "ipToMacRefs && \"Mac Vtep Ref and Mac Vtep desync\"");
  EXPECT_DEATH(table->ipToMacInsert(row), "Ip Mac Ref and Ip Mac desync");

  table->macVtepListIs(row->mac(), MacVtepList(row->mac(), rowId(700)));
  EXPECT_DEATH(table->mcastMacRemove(mcast(2, "00:00:00:00:00:0a", rowId(700))), "Mac Flood Vtep Ref and Mac Flood Vtep desync");
}

TEST_F(RemoteHostTableDeathTest, aPendingRowOnAnUnknownLocatorIsABreach) {
  pend(ucast(1, "00:00:00:00:00:0a", rowId(899)));
  EXPECT_DEATH(table->processPendingMacs(ovsdb), "Invalid physicalLocator uuid");
}

}  // namespace
