#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "Ipkit/Bridging.h"
#include "Ipkit/Vxlan.h"
#include "ValueChecks.h"

using namespace ipkit_test;
using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using Vxlan::Vni;
using Vxlan::VniOrNone;

namespace {
const std::string vniRange = "Vni::value < Vni::min or > Vni::max not allowed";
const std::string vniOrNoneRange = "VniOrNone::value < 0 or > 0x1000000 not allowed";
const std::string vlanRange = "VlanId::value < 1 or > 4094 not allowed";
const std::string vlanOrNoneRange = "VlanIdOrNone::value > 4094 not allowed";
}  // namespace

TEST(Vni, RangeEndsAndExactRangeText) {
  EXPECT_EQ(Vni().value(), 0u);
  EXPECT_EQ(Vni(0xffffff).value(), 0xffffffu);
  EXPECT_EQ(rangeMessage([] { Vni(0x1000000); }), vniRange);
  EXPECT_EQ(rangeMessage([] { Vni(-1); }), vniRange);
  EXPECT_EQ(rangeMessage([] { Vni(std::int64_t{1} << 40); }), vniRange);
}

TEST(VniOrNone, InvalidValueIsTheDefaultAndNotAVni) {
  EXPECT_FALSE(VniOrNone().isValid());
  EXPECT_EQ(VniOrNone().value(), 16777216u);
  EXPECT_EQ(VniOrNone::invalidVni(), VniOrNone(0x1000000));
  EXPECT_TRUE(VniOrNone(0).isValid());
  EXPECT_TRUE(VniOrNone(0xffffff).isValid());
  EXPECT_EQ(VniOrNone(5000).vni(), Vni(5000));
  EXPECT_EQ(VniOrNone(Vni(5000)), VniOrNone(5000));
  EXPECT_EQ(rangeMessage([] { VniOrNone::invalidVni().vni(); }), vniRange);
  EXPECT_EQ(rangeMessage([] { VniOrNone(0x1000001); }), vniOrNoneRange);
  EXPECT_EQ(rangeMessage([] { VniOrNone(-1); }), vniOrNoneRange);
}

TEST(VlanId, RangeEndsAndExactRangeTexts) {
  EXPECT_EQ(VlanId().value(), 1u);
  EXPECT_EQ(VlanId(4094).value(), 4094u);
  EXPECT_EQ(rangeMessage([] { VlanId(0); }), vlanRange);
  EXPECT_EQ(rangeMessage([] { VlanId(4095); }), vlanRange);
  EXPECT_TRUE(VlanIdOrNone().isNone());
  EXPECT_FALSE(VlanIdOrNone(1).isNone());
  EXPECT_EQ(VlanIdOrNone(4094).vlanId(), VlanId(4094));
  EXPECT_EQ(VlanIdOrNone(VlanId(7)), VlanIdOrNone(7));
  EXPECT_EQ(rangeMessage([] { VlanIdOrNone().vlanId(); }), vlanRange);
  EXPECT_EQ(rangeMessage([] { VlanIdOrNone(4095); }), vlanOrNoneRange);
  EXPECT_EQ(rangeMessage([] { VlanIdOrNone(std::int64_t{1} << 33); }), vlanOrNoneRange);
  EXPECT_EQ(rangeMessage([] { VlanIdOrNone(-1); }), "VlanIdOrNone::value < 0 not allowed");
}

TEST(Numbers, DecimalTextRoundTripsWithinRangeOnly) {
  expectRoundTrip<Vni>("0");
  expectRoundTrip<Vni>("16777215");
  expectRoundTrip<VniOrNone>("16777216");
  expectRoundTrip<VlanId>("4094");
  expectRoundTrip<VlanIdOrNone>("0");
  // Out-of-range text names its input, like any other malformed text.
  for (const char* text :
       {"16777216", "", "-1", "+5", "05", "5 ", "0x10", "1e3", "99999999999999999999999"}) {
    expectRefused<Vni>(text);
  }
  expectRefused<VniOrNone>("16777217");
  expectRefused<VlanId>("0");
  expectRefused<VlanId>("4095");
  expectRefused<VlanIdOrNone>("4095");
  EXPECT_EQ(rangeMessage([] { VlanId::parse("x"); }), "invalid VLAN id \"x\"");
}

TEST(Numbers, OrderAndHashFollowTheValue) {
  expectAscending<Vni>({"0", "1", "9", "10", "4096", "16777215"});
  expectAscending<VniOrNone>({"0", "5000", "16777216"});
  expectAscending<VlanIdOrNone>({"0", "1", "4094"});
}
