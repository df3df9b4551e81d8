// The row model: the table chain that orders a monitor message, partial rows
// (the names they use, clone and comparison), defaults and the keyed indexes
// of the mirror.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "model/Rows.h"

namespace {

using Vgw::OvsdbDataType;
using Vgw::Uuid;

Uuid rowId(std::uint32_t n) { return Uuid(n, 0x1234, 0x80000000u, 0); }

std::set<std::string> invalidNames(const Vgw::OvsdbDataModelMutable& row) {
  std::set<std::string> names;
  for (const auto& [name, invalid] : row.invalidAttrib()) {
    if (invalid) names.insert(name.stringValue());
  }
  return names;
}

template <class Row>
std::set<std::string> partialNamesOf() {
  auto row = Kiln::newPtr<Row>(rowId(1));
  row->invalidateAllAttribs();
  return invalidNames(*row);
}

Kiln::Ptr<Vgw::PhysicalPort> port(const char* name, std::uint16_t vlan, const Uuid& logicalSwitch) {
  auto p = Kiln::newPtr<Vgw::PhysicalPort>(rowId(10));
  p->displayNameIs(name);
  p->descIs("uplink");
  p->vlanBindingIs(Bridging::VlanIdOrNone(vlan), logicalSwitch);
  p->otherConfigIs("k", "v");
  p->faultIs("port_fault", true);
  return p;
}

TEST(OvsdbDataType, theChainVisitsEveryTableOnceReferencedTablesFirst) {
  std::vector<OvsdbDataType> chain;
  for (OvsdbDataType t = Vgw::nextOvsdbDataType(OvsdbDataType::none); t != OvsdbDataType::none;
       t = Vgw::nextOvsdbDataType(t)) {
    chain.push_back(t);
    ASSERT_LE(chain.size(), 17u) << "the chain does not end";
  }
  using T = OvsdbDataType;
  EXPECT_EQ(chain, (std::vector<T>{T::logicalSwitch, T::logicalBindingStats, T::physicalLocator, T::tunnel,
                                   T::physicalLocatorSet, T::physicalPort, T::physicalSwitch, T::arpSourcesLocal,
                                   T::arpSourcesRemote, T::ucastMacsRemote, T::mcastMacsRemote, T::ucastMacsLocal,
                                   T::mcastMacsLocal, T::logicalRouter, T::manager, T::global, T::acl}));
  EXPECT_EQ(std::set<T>(chain.begin(), chain.end()).size(), 17u);

  EXPECT_EQ(Vgw::nextOvsdbDataType(Vgw::OvsdbDataTypeInstance(18)), T::none);
  EXPECT_EQ(Vgw::nextOvsdbDataType(Vgw::OvsdbDataTypeInstance(0xffffffffu)), T::none);
}

TEST(OvsdbDataType, tableNamesExistOnlyForTheSeventeenTables) {
  EXPECT_STREQ(Vgw::ovsdbTableName(OvsdbDataType::none), "");
  EXPECT_STREQ(Vgw::ovsdbTableName(Vgw::OvsdbDataTypeInstance(18)), "");
  EXPECT_STREQ(Vgw::ovsdbTableName(Vgw::OvsdbDataTypeInstance(0xffffffffu)), "");
  EXPECT_STREQ(Vgw::ovsdbTableName(OvsdbDataType::logicalSwitch), "Logical_Switch");
  EXPECT_STREQ(Vgw::ovsdbTableName(OvsdbDataType::acl), "ACL");
  EXPECT_STREQ(Vgw::ovsdbTableName(OvsdbDataType::arpSourcesRemote), "Arp_Sources_Remote");
  for (unsigned i = 1; i <= 17; ++i) {
    const OvsdbDataType t = Vgw::OvsdbDataTypeInstance(i);
    EXPECT_EQ(Vgw::ovsdbDataTypeOfTable(Vgw::ovsdbTableName(t)), t) << i;
  }
  EXPECT_EQ(Vgw::ovsdbDataTypeOfTable(""), OvsdbDataType::none);
  EXPECT_EQ(Vgw::ovsdbDataTypeOfTable("logical_switch"), OvsdbDataType::none);
}

TEST(PartialRow, eachRowMarksExactlyTheColumnsAnUpdateMayLeaveOut) {
  using Names = std::set<std::string>;
  EXPECT_EQ(partialNamesOf<Vgw::Global>(), (Names{"pSwitch", "manager", "otherConfig"}));
  EXPECT_EQ(partialNamesOf<Vgw::Manager>(), (Names{"target", "otherConfig"}));
  EXPECT_EQ(partialNamesOf<Vgw::PhysicalSwitch>(),
            (Names{"displayName", "desc", "port", "mgmtIp", "tunnelIp", "tunnels", "otherConfig", "fault"}));
  EXPECT_EQ(partialNamesOf<Vgw::PhysicalPort>(),
            (Names{"displayName", "desc", "vlanBinding", "vlanStat", "otherConfig", "fault"}));
  EXPECT_EQ(partialNamesOf<Vgw::PhysicalLocator>(), (Names{"key"}));
  EXPECT_EQ(partialNamesOf<Vgw::Tunnel>(),
            (Names{"local", "remote", "bfdConfigLocal", "bfdConfigRemote", "bfdParam", "bfdStatus"}));
  EXPECT_EQ(partialNamesOf<Vgw::ArpSourcesLocal>(), Names{});
  EXPECT_EQ(partialNamesOf<Vgw::PhysicalLocatorSet>(), Names{});
  EXPECT_EQ(partialNamesOf<Vgw::LogicalBindingStats>(), Names{});

  auto local = Kiln::newPtr<Vgw::UcastMacsLocal>(rowId(1), Ipkit::EthAddr::parse("00:00:00:00:00:01"));
  local->invalidateAllAttribs();
  EXPECT_EQ(invalidNames(*local), Names{"ipAddr"});
  auto mcast = Kiln::newPtr<Vgw::McastMacsLocal>(rowId(1), Ipkit::EthAddr());
  mcast->invalidateAllAttribs();
  EXPECT_EQ(invalidNames(*mcast), Names{});
}

TEST(PartialRow, cloneOfARowCarryingNothingChangesNothing) {
  auto target = port("et1", 10, rowId(2));
  const Kiln::Json before = target->toJson();
  auto empty = port("et9", 20, rowId(3));
  empty->descIs("other");
  empty->invalidateAllAttribs();
  target->clone(*empty);
  EXPECT_EQ(target->toJson(), before);
}

TEST(PartialRow, cloneCopiesTheCarriedColumnsWhole) {
  auto target = port("et1", 10, rowId(2));
  auto update = port("et9", 20, rowId(3));
  update->invalidateAllAttribs();
  update->invalidAttribDel("vlanBinding");
  update->invalidAttribIs("fault", false);
  update->faultDel("port_fault");
  target->clone(*update);

  EXPECT_EQ(target->displayName(), "et1");
  EXPECT_EQ(target->desc(), "uplink");
  EXPECT_EQ(target->otherConfig("k"), "v");
  EXPECT_EQ(target->vlanBinding().size(), 1u);
  EXPECT_EQ(target->vlanBinding(Bridging::VlanIdOrNone(20)), rowId(3));
  EXPECT_TRUE(target->fault().empty());
}

TEST(PartialRow, physicalSwitchTunnelsGoUnderThePluralName) {
  auto target = Kiln::newPtr<Vgw::PhysicalSwitch>(rowId(1));
  target->tunnelIs(rowId(5), true);
  auto update = Kiln::newPtr<Vgw::PhysicalSwitch>(rowId(1));
  update->tunnelIs(rowId(6), true);
  update->displayNameIs("leaf1");
  update->invalidateAllAttribs();
  EXPECT_TRUE(update->invalidAttrib("tunnels"));
  EXPECT_FALSE(update->invalidAttrib("tunnel"));

  target->clone(*update);
  EXPECT_TRUE(target->tunnel(rowId(5)));
  EXPECT_TRUE(target->displayName().empty());

  update->invalidAttribDel("tunnels");
  target->clone(*update);
  EXPECT_FALSE(target->tunnel(rowId(5)));
  EXPECT_TRUE(target->tunnel(rowId(6)));
}

TEST(PartialRow, equalityLooksOnlyAtColumnsBothRowsCarry) {
  auto full = port("et1", 10, rowId(2));
  auto partial = port("et9", 10, rowId(2));
  partial->invalidateAllAttribs();
  partial->invalidAttribDel("vlanBinding");
  EXPECT_TRUE(full->isEqualTo(*partial));
  EXPECT_TRUE(partial->isEqualTo(*full));

  partial->vlanBindingIs(Bridging::VlanIdOrNone(10), rowId(3));
  EXPECT_FALSE(full->isEqualTo(*partial));
  EXPECT_FALSE(partial->isEqualTo(*full));

  // A column left out on the receiving side is not compared either.
  auto other = port("et1", 10, rowId(2));
  other->faultIs("another_fault", true);
  EXPECT_FALSE(full->isEqualTo(*other));
  full->invalidAttribIs("fault", true);
  EXPECT_TRUE(full->isEqualTo(*other));

  // Rows of different tables are never equal.
  auto sw = Kiln::newPtr<Vgw::PhysicalSwitch>(rowId(10));
  EXPECT_FALSE(full->isEqualTo(*sw));
}

TEST(LogicalSwitch, aRowWithoutTunnelKeyHoldsTheInvalidVni) {
  auto ovsdb = Kiln::newPtr<Vgw::HwVtepOvsdb>();
  auto ls = ovsdb->logicalSwitchIs(rowId(1));
  EXPECT_EQ(ls->tunnelKey().value(), 16777216u);
  EXPECT_FALSE(ls->tunnelKey().isValid());
  EXPECT_EQ(ls->tunnelKey(), Vxlan::VniOrNone::invalidVni());
  EXPECT_THROW(ls->tunnelKey().vni(), Kiln::RangeException);
}

TEST(HwVtepOvsdb, aKeyedIndexHoldsTheLatestRowOfAKeyBesideTheRawRows) {
  auto ovsdb = Kiln::newPtr<Vgw::HwVtepOvsdb>();
  const auto address = Ipkit::IpGenAddr::parse("10.0.0.1");
  auto first = ovsdb->physicalLocatorRawIs(rowId(1));
  EXPECT_EQ(ovsdb->physicalLocatorRawIs(rowId(1)), first);
  auto second = ovsdb->physicalLocatorRawIs(rowId(2));
  for (const auto& row : {first, second}) {
    row->keyIs(Vgw::PhysicalLocatorKey(Vgw::EncapsulationType::vxlan_over_ipv4, address));
  }

  ovsdb->physicalLocatorIs(address, first);
  ovsdb->physicalLocatorIs(address, second);
  EXPECT_EQ(ovsdb->physicalLocator(address), second);
  EXPECT_EQ(ovsdb->physicalLocator().size(), 1u);
  EXPECT_EQ(ovsdb->physicalLocatorRaw().size(), 2u);

  // The raw collection gives back what it removes, so a writer can tell
  // whether the index still points at that row before removing it there.
  auto removed = ovsdb->physicalLocatorRawDel(rowId(1));
  EXPECT_EQ(removed, first);
  EXPECT_FALSE(ovsdb->physicalLocatorRawDel(rowId(1)));
  EXPECT_NE(ovsdb->physicalLocator(removed->key().dstIp()), removed);
  EXPECT_EQ(ovsdb->physicalLocatorDel(address), second);
  EXPECT_FALSE(ovsdb->physicalLocator(address));
}

}  // namespace
