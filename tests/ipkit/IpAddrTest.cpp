#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Ipkit/IpAddr.h"
#include "Ipkit/IpGenAddr.h"
#include "ValueChecks.h"

using namespace Ipkit;
using namespace ipkit_test;

TEST(IpAddr, DottedQuadRoundTripsAndNothingElseParses) {
  for (const char* text : {"0.0.0.0", "10.1.2.3", "255.255.255.255", "127.0.0.1", "1.0.0.10"}) {
    expectRoundTrip<IpAddr>(text);
  }
  EXPECT_EQ(IpAddr::parse("10.1.2.3").value(), 0x0a010203u);
  for (const char* text :
       {"", "10", "10.1", "10.1.2", "10.1.2.3.4", "256.1.1.1", "10.1.2.300", "010.1.2.3",
        "10.01.2.3", "0x0a.1.2.3", "10.1.2.3 ", " 10.1.2.3", "10..2.3", "10.1.2.", ".1.2.3",
        "10.1.2.3/32", "-1.1.1.1", "1.1.1.1111"}) {
    expectRefused<IpAddr>(text);
  }
}

TEST(IpAddr, ZeroAndMappedAddressesInBothFamilies) {
  EXPECT_TRUE(IpAddr().isAny());
  EXPECT_FALSE(IpAddr::parse("0.0.0.1").isAny());
  EXPECT_TRUE(Ip6Addr().isUnspecified());
  EXPECT_FALSE(Ip6Addr::parse("::1").isUnspecified());
  EXPECT_TRUE(Ip6Addr::parse("::ffff:1.2.3.4").isV4Mapped());
  EXPECT_FALSE(Ip6Addr::parse("::fffe:1.2.3.4").isV4Mapped());
}

TEST(IpAddr, HashSpreadsInBothFamilies) {
  std::vector<IpAddr> v4Low;
  std::vector<IpAddr> v4High;
  std::vector<Ip6Addr> v6Low;
  std::vector<Ip6Addr> v6High;
  for (std::uint32_t i = 0; i < 4096; ++i) {
    v4Low.emplace_back(0x0a000000 | i);
    v4High.emplace_back(i << 20 | 1);
    Ip6Addr::Bytes bytes{0x20, 0x01, 0x0d, 0xb8};
    bytes[14] = static_cast<std::uint8_t>(i >> 8);
    bytes[15] = static_cast<std::uint8_t>(i);
    v6Low.emplace_back(bytes);
    Ip6Addr::Bytes other{static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)};
    other[15] = 1;
    v6High.emplace_back(other);
  }
  expectHashSpread(v4Low);
  expectHashSpread(v4High);
  expectHashSpread(v6Low);
  expectHashSpread(v6High);
}

TEST(Ip6Addr, CanonicalTextRoundTrips) {
  for (const char* text :
       {"::", "::1", "1::", "2001:db8::1", "2001:db8:0:1:1:1:1:1", "1:2:3:4:5:6:7:8",
        "fe80::1:0:0:1", "2001:0:0:1::1", "::ffff:10.1.2.3", "1:0:0:2::3"}) {
    expectRoundTrip<Ip6Addr>(text);
  }
}

TEST(Ip6Addr, OtherSpellingsPrintCanonically) {
  expectPrintsAs<Ip6Addr>("2001:DB8:0000:0000:0000:0000:0000:0001", "2001:db8::1");
  expectPrintsAs<Ip6Addr>("2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1");  // first of equal runs
  expectPrintsAs<Ip6Addr>("2001:db8:0:1:0:0:0:1", "2001:db8:0:1::1");    // longest run, not first
  expectPrintsAs<Ip6Addr>("1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0");         // one zero group stays
  expectPrintsAs<Ip6Addr>("::10.1.2.3", "::a01:203");
  expectPrintsAs<Ip6Addr>("::FFFF:0a01:0203", "::ffff:10.1.2.3");
  expectPrintsAs<Ip6Addr>("1:2:3:4:5:6:10.1.2.3", "1:2:3:4:5:6:a01:203");
}

TEST(Ip6Addr, MalformedTextIsRefused) {
  for (const char* text : {"", ":", ":::", "1:", ":1", "1::2::3", "1:2:3:4:5:6:7",
                           "1:2:3:4:5:6:7:8:9", "::1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8::",
                           "1:2:3:4:5:6:7:8:", "1::2:", "12345::", "g::", "fe80::1%eth0",
                           "2001:db8::/32", "::1 ", "10.1.2.3", "::10.1.2", "::10.1.2.3:1",
                           "1:2:3:4:5:6:7:10.1.2.3", "::ffff:010.1.2.3"}) {
    expectRefused<Ip6Addr>(text);
  }
}

TEST(IpGenAddr, EitherFamilyOrEmpty) {
  expectRoundTrip<IpGenAddr>("");
  expectRoundTrip<IpGenAddr>("10.1.2.3");
  expectRoundTrip<IpGenAddr>("2001:db8::1");
  EXPECT_TRUE(IpGenAddr::parse("").isEmpty());
  auto v4 = IpGenAddr::parse("10.1.2.3");
  EXPECT_TRUE(v4.isV4());
  EXPECT_EQ(v4.v4Addr(), IpAddr(10, 1, 2, 3));
  EXPECT_EQ(v4.v6Addr(), Ip6Addr());
  auto v6 = IpGenAddr::parse("2001:db8::1");
  EXPECT_TRUE(v6.isV6());
  EXPECT_EQ(v6.v6Addr(), Ip6Addr::parse("2001:db8::1"));
  EXPECT_EQ(v6.v4Addr(), IpAddr());
  EXPECT_EQ(IpGenAddr(IpAddr(10, 1, 2, 3)), v4);
  // The zero address of a family is an address, not the empty one.
  EXPECT_FALSE(IpGenAddr::parse("0.0.0.0").isEmpty());
  EXPECT_NE(IpGenAddr::parse("0.0.0.0"), IpGenAddr());
  EXPECT_NE(IpGenAddr::parse("::"), IpGenAddr::parse("0.0.0.0"));
  for (const char* text : {" ", "10.1", "10.1.2.3/24", "::1%lo", "localhost", "1:2"}) {
    expectRefused<IpGenAddr>(text);
  }
}

TEST(IpGenAddr, LoopbackInBothFamilies) {
  for (const char* text : {"127.0.0.1", "127.255.0.9", "::1"}) {
    EXPECT_TRUE(IpGenAddr::parse(text).isLoopback()) << text;
  }
  for (const char* text : {"", "126.255.255.255", "128.0.0.1", "0.0.0.0", "::", "::2", "1::1",
                           "::ffff:127.0.0.1"}) {
    EXPECT_FALSE(IpGenAddr::parse(text).isLoopback()) << text;
  }
}

TEST(IpGenAddr, OrderIsEmptyThenV4ThenV6) {
  expectAscending<IpGenAddr>(
      {"", "0.0.0.0", "10.0.0.1", "255.255.255.255", "::", "::1", "::ffff:0.0.0.0", "ffff::"});
}

TEST(IpGenAddrWithMask, KeepsHostBits) {
  expectRoundTrip<IpGenAddrWithMask>("10.1.1.1/24");
  expectRoundTrip<IpGenAddrWithMask>("0.0.0.0/0");
  expectRoundTrip<IpGenAddrWithMask>("2001:db8::1/64");
  expectRoundTrip<IpGenAddrWithMask>("");
  auto value = IpGenAddrWithMask::parse("10.1.1.1/24");
  EXPECT_EQ(value.address(), IpGenAddr::parse("10.1.1.1"));
  EXPECT_EQ(value.length(), 24u);
  EXPECT_EQ(value.prefix(), IpGenPrefix::parse("10.1.1.0/24"));
  EXPECT_NE(value, IpGenAddrWithMask::parse("10.1.1.0/24"));
  EXPECT_EQ(rangeMessage([] { IpGenAddrWithMask(IpGenAddr::parse("10.1.1.1"), 33); }),
            "invalid IP address with mask \"10.1.1.1/33\"");
  EXPECT_EQ(rangeMessage([] { IpGenAddrWithMask(IpGenAddr(), 8); }),
            "invalid IP address with mask \"/8\"");
  EXPECT_EQ(IpGenAddrWithMask(IpGenAddr::parse("::1"), 128).length(), 128u);
  for (const char* text : {"10.1.1.1", "10.1.1.1/", "10.1.1.1/33", "10.1.1.1/024", "10.1.1.1/-1",
                           "/24", "/0", "10.1/24", "10.1.1.1/24 ", "::1/129", "10.1.1.1/24/24",
                           "10.1.1.1/99999999999999999999999"}) {
    expectRefused<IpGenAddrWithMask>(text);
  }
  expectAscending<IpGenAddrWithMask>({"", "10.1.1.1/8", "10.1.1.1/24", "10.1.1.2/8", "::1/64"});
}

TEST(IpGenPrefix, HostBitsAreClearedOnEveryPath) {
  expectRoundTrip<IpGenPrefix>("10.1.1.0/24");
  expectRoundTrip<IpGenPrefix>("0.0.0.0/0");
  expectRoundTrip<IpGenPrefix>("2001:db8::/32");
  expectPrintsAs<IpGenPrefix>("10.1.1.1/24", "10.1.1.0/24");
  expectPrintsAs<IpGenPrefix>("10.255.255.255/9", "10.128.0.0/9");
  expectPrintsAs<IpGenPrefix>("10.1.1.1/32", "10.1.1.1/32");
  expectPrintsAs<IpGenPrefix>("10.1.1.1/0", "0.0.0.0/0");
  expectPrintsAs<IpGenPrefix>("2001:db8:ffff:ffff::1/33", "2001:db8:8000::/33");
  expectPrintsAs<IpGenPrefix>("2001:db8::ff/127", "2001:db8::fe/127");
  expectPrintsAs<IpGenPrefix>("::1/128", "::1/128");
  EXPECT_EQ(std::string(IpGenPrefix(IpGenAddr::parse("192.168.7.9"), 20).stringValue()),
            "192.168.0.0/20");
  // Texts of one network are one value, hash alike and key one entry.
  auto masked = IpGenPrefix::parse("10.1.1.7/24");
  EXPECT_EQ(masked, IpGenPrefix::parse("10.1.1.0/24"));
  EXPECT_EQ(masked.hash(), IpGenPrefix::parse("10.1.1.0/24").hash());
  EXPECT_EQ(rangeMessage([] { IpGenPrefix(IpGenAddr::parse("::"), 129); }),
            "invalid IP prefix \"::/129\"");
  for (const char* text : {"10.1.1.0", "10.1.1.0/33", "10.1.1.0/ 24", "2001:db8::/", "x/8"}) {
    expectRefused<IpGenPrefix>(text);
  }
}

TEST(IpGenPrefix, ContainsItsNetworkOnly) {
  auto prefix = IpGenPrefix::parse("10.1.0.0/16");
  EXPECT_TRUE(prefix.contains(IpGenAddr::parse("10.1.0.0")));
  EXPECT_TRUE(prefix.contains(IpGenAddr::parse("10.1.255.255")));
  EXPECT_FALSE(prefix.contains(IpGenAddr::parse("10.2.0.0")));
  EXPECT_FALSE(prefix.contains(IpGenAddr::parse("::ffff:10.1.0.1")));
  EXPECT_TRUE(IpGenPrefix::parse("0.0.0.0/0").contains(IpGenAddr::parse("255.1.1.1")));
  EXPECT_FALSE(IpGenPrefix::parse("0.0.0.0/0").contains(IpGenAddr::parse("::1")));
  auto v6 = IpGenPrefix::parse("2001:db8::/125");
  EXPECT_TRUE(v6.contains(IpGenAddr::parse("2001:db8::7")));
  EXPECT_FALSE(v6.contains(IpGenAddr::parse("2001:db8::8")));
}
