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

// A number out of range names the range; a text out of range names itself,
// like any other malformed text.
TEST(Numbers, NumbersOutOfRangeAreRefusedWithTheirRangeText) {
  const std::string vniRange = "Vni::value < Vni::min or > Vni::max not allowed";
  const std::string vniOrNoneRange = "VniOrNone::value < 0 or > 0x1000000 not allowed";
  const std::string vlanRange = "VlanId::value < 1 or > 4094 not allowed";
  const std::string vlanOrNoneRange = "VlanIdOrNone::value > 4094 not allowed";
  EXPECT_EQ(Vni(0xffffff).value(), 0xffffffu);
  EXPECT_EQ(rangeMessage([] { Vni(0x1000000); }), vniRange);
  EXPECT_EQ(rangeMessage([] { Vni(-1); }), vniRange);
  EXPECT_EQ(rangeMessage([] { Vni(std::int64_t{1} << 40); }), vniRange);
  EXPECT_EQ(rangeMessage([] { VniOrNone::invalidVni().vni(); }), vniRange);
  EXPECT_EQ(rangeMessage([] { VniOrNone(0x1000001); }), vniOrNoneRange);
  EXPECT_EQ(rangeMessage([] { VniOrNone(-1); }), vniOrNoneRange);
  EXPECT_EQ(VlanId(4094).value(), 4094u);
  EXPECT_EQ(rangeMessage([] { VlanId(0); }), vlanRange);
  EXPECT_EQ(rangeMessage([] { VlanId(4095); }), vlanRange);
  EXPECT_EQ(rangeMessage([] { VlanIdOrNone().vlanId(); }), vlanRange);
  EXPECT_EQ(rangeMessage([] { VlanIdOrNone(4095); }), vlanOrNoneRange);
  EXPECT_EQ(rangeMessage([] { VlanIdOrNone(std::int64_t{1} << 33); }), vlanOrNoneRange);
  EXPECT_EQ(rangeMessage([] { VlanIdOrNone(-1); }), "VlanIdOrNone::value < 0 not allowed");

  expectRoundTrips<Vni>({"0", "16777215"});
  expectRoundTrips<VniOrNone>({"16777216"});
  expectRoundTrips<VlanId>({"4094"});
  expectRoundTrips<VlanIdOrNone>({"0"});
  expectRefused<Vni>({"16777216", "", "-1", "+5", "05", "5 ", "0x10", "1e3", "99999999999999999999999"});
  expectRefused<VniOrNone>({"16777217"});
  expectRefused<VlanId>({"0", "4095"});
  expectRefused<VlanIdOrNone>({"4095"});
}

TEST(Numbers, NoneIsTheDefaultAndNotAValue) {
  EXPECT_FALSE(VniOrNone().isValid());
  EXPECT_TRUE(VniOrNone(0).isValid());
  EXPECT_TRUE(VniOrNone(0xffffff).isValid());
  EXPECT_EQ(VniOrNone(Vni(5000)).vni(), Vni(5000));
  EXPECT_TRUE(VlanIdOrNone().isNone());
  EXPECT_FALSE(VlanIdOrNone(1).isNone());
  EXPECT_EQ(VlanIdOrNone(VlanId(7)).vlanId(), VlanId(7));
}

TEST(Numbers, OrderAndHashFollowTheValue) {
  expectAscending<Vni>({"0", "1", "9", "10", "4096", "16777215"});
  expectAscending<VniOrNone>({"0", "5000", "16777216"});
  expectAscending<VlanIdOrNone>({"0", "1", "4094"});
}
