// The model of the database: uuids (the text forms the database accepts,
// named placeholders, order and the hash), the table chain that orders a
// monitor message, and partial rows (the names they use, clone and
// comparison).
#include <gtest/gtest.h>

#include <cstdint>
#include <regex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Kiln/Exception.h"
#include "model/Rows.h"
#include "model/Uuid.h"

namespace {

using Vgw::OvsdbDataType;
using Vgw::Uuid;

std::string text(const Uuid& u) { return u.stringValue().stringValue(); }

TEST(Uuid, aRealUuidPrintsInTheDashedFormAndParsesBackAndMalformedTextIsRefused) {
  const Uuid u(0x0123abcd, 0x4567cdef, 0x89ab0123, 0xfedc4567);
  EXPECT_EQ(text(u), "0123abcd-4567-cdef-89ab-0123fedc4567");
  EXPECT_EQ(Uuid::parse("0123ABCD-4567-CDEF-89AB-0123FEDC4567"), u);
  EXPECT_EQ(text(Uuid(1, 2, 0x80000003, 4)), "00000001-0000-0002-8000-000300000004");
  // The null uuid has the placeholders' clear top bit but is no placeholder.
  EXPECT_EQ(text(Uuid::nullUuid()), "00000000-0000-0000-0000-000000000000");
  EXPECT_EQ(Uuid::parse("00000000-0000-0000-0000-000000000000"), Uuid());
  EXPECT_FALSE(Uuid(0, 0, 0, 1).isNull());

  for (const char* bad : {"", "0123abcd-4567-cdef-89ab-0123fedc456", "0123abcd-4567-cdef-89ab-0123fedc45678",
                          "0123abcd_4567-cdef-89ab-0123fedc4567", "0123abcd-4567-cdef-89ab-0123fedc456g",
                          "0123abcd4567-cdef-89ab-0123fedc45678",
                          // The identifier form belongs to placeholders; this one has the top bit of word 2.
                          "row0123abcd4567cdef89ab0123fedc4567"}) {
    EXPECT_FALSE(Uuid::tryParse(bad)) << bad;
  }
  Uuid kept(1, 2, 0x80000003, 4);
  EXPECT_THROW(kept.stringValueIs("not-a-uuid"), Kiln::RangeException);
  EXPECT_EQ(kept, Uuid(1, 2, 0x80000003, 4));
}

// What the server takes as a "uuid-name".
bool isIdentifier(const std::string& s) {
  static const std::regex identifier("[A-Za-z_][A-Za-z0-9_]*");
  return std::regex_match(s, identifier);
}

TEST(Uuid, placeholdersPrintAsIdentifiersTheServerAcceptsAndNeverLookLikeRealUuids) {
  const Uuid fixed(0xdeadbeef, 0x01234567, 0x7fffffff, 0x00000001);
  ASSERT_TRUE(fixed.isNamed());
  EXPECT_TRUE(isIdentifier(text(fixed))) << text(fixed);
  EXPECT_EQ(Uuid::parse(text(fixed)), fixed);
  EXPECT_EQ(Uuid::parse(fixed.hexText().stringValue()), fixed);  // The dashed form still reads back.

  std::set<Uuid> named;
  for (int i = 0; i < 2000; ++i) {
    const Uuid n = Vgw::genNamedUuid();
    ASSERT_TRUE(n.isNamed()) << text(n);
    ASSERT_TRUE(isIdentifier(text(n))) << text(n);
    ASSERT_EQ(Uuid::parse(text(n)), n);
    named.insert(n);
    const Uuid r = Vgw::genUuid();
    ASSERT_FALSE(r.isNamed()) << text(r);
    ASSERT_FALSE(isIdentifier(text(r))) << text(r);
  }
  EXPECT_EQ(named.size(), 2000u);
}

// Jenkins' one-at-a-time hash, written out from its definition.
std::uint32_t oneAtATime(const unsigned char* bytes, std::size_t size) {
  std::uint32_t h = 0;
  for (std::size_t i = 0; i < size; ++i) {
    h += bytes[i];
    h += h << 10;
    h ^= h >> 6;
  }
  h += h << 3;
  h ^= h >> 11;
  h += h << 15;
  return h;
}

TEST(Uuid, orderIsOverTheFourWordsInTurnAndTheHashIsOneAtATimeWordByWord) {
  EXPECT_LT(Uuid(0, 0xffffffff, 0xffffffff, 0xffffffff), Uuid(1, 0, 0, 0));
  EXPECT_LT(Uuid(1, 0, 0, 0), Uuid(1, 0, 0, 1));
  EXPECT_LT(Uuid(1, 0, 0, 1), Uuid(1, 0, 1, 0));
  EXPECT_NE(Uuid(0, 0, 0, 1), Uuid(1, 0, 0, 0));

  // The reference itself against a published value.
  const std::string_view fox = "The quick brown fox jumps over the lazy dog";
  ASSERT_EQ(oneAtATime(reinterpret_cast<const unsigned char*>(fox.data()), fox.size()), 0x519e91f5u);
  for (const Uuid& u : {Uuid(), Uuid(0x01234567, 0x89abcdef, 0xfedcba98, 0x76543210), Vgw::genUuid()}) {
    unsigned char bytes[16];
    for (int w = 0; w < 4; ++w) {
      for (int b = 0; b < 4; ++b) bytes[4 * w + b] = static_cast<unsigned char>(u.word(w) >> (8 * b));
    }
    EXPECT_EQ(u.hash(), oneAtATime(bytes, sizeof bytes)) << text(u);
    EXPECT_EQ(std::hash<Uuid>{}(u), u.hash());
  }
}

Uuid rowId(std::uint32_t n) { return Uuid(n, 0x1234, 0x80000000u, 0); }

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

TEST(OvsdbDataType, tableNamesExistOnlyForTheSeventeenTablesAndNameThemBack) {
  for (unsigned i : {0u, 18u, 0xffffffffu}) EXPECT_STREQ(Vgw::ovsdbTableName(Vgw::OvsdbDataTypeInstance(i)), "");
  EXPECT_STREQ(Vgw::ovsdbTableName(OvsdbDataType::logicalSwitch), "Logical_Switch");
  EXPECT_STREQ(Vgw::ovsdbTableName(OvsdbDataType::acl), "ACL");
  for (unsigned i = 1; i <= 17; ++i) {
    const OvsdbDataType t = Vgw::OvsdbDataTypeInstance(i);
    EXPECT_EQ(Vgw::ovsdbDataTypeOfTable(Vgw::ovsdbTableName(t)), t) << i;
  }
  EXPECT_EQ(Vgw::ovsdbDataTypeOfTable(""), OvsdbDataType::none);
  EXPECT_EQ(Vgw::ovsdbDataTypeOfTable("logical_switch"), OvsdbDataType::none);
}

TEST(PartialRow, cloneCopiesTheCarriedColumnsWholeAndNothingElse) {
  auto target = port("et1", 10, rowId(2));
  const Kiln::Json before = target->toJson();
  auto update = port("et9", 20, rowId(3));
  update->invalidateAllAttribs();
  target->clone(*update);
  EXPECT_EQ(target->toJson(), before);

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

}  // namespace
