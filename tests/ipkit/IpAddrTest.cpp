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
  expectRoundTrips<IpAddr>({"0.0.0.0", "10.1.2.3", "255.255.255.255", "1.0.0.10"});
  EXPECT_EQ(IpAddr::parse("10.1.2.3").value(), 0x0a010203u);
  EXPECT_TRUE(IpAddr().isAny());
  EXPECT_FALSE(IpAddr::parse("0.0.0.1").isAny());
  expectRefused<IpAddr>({"", "10.1.2", "10.1.2.3.4", "256.1.1.1", "010.1.2.3", "0x0a.1.2.3", "10.1.2.3 ",
                         "10..2.3", "10.1.2.", "10.1.2.3/32", "-1.1.1.1", "1.1.1.1111"});
}

TEST(Ip6Addr, TextIsCanonicalWhateverTheSpelling) {
  expectRoundTrips<Ip6Addr>({"::", "::1", "1::", "2001:db8::1", "1:2:3:4:5:6:7:8", "fe80::1:0:0:1",
                             "::ffff:10.1.2.3", "1:0:0:2::3"});
  expectPrintsAs<Ip6Addr>({
      {"2001:DB8:0000:0000:0000:0000:0000:0001", "2001:db8::1"},
      {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},  // first of equal runs
      {"2001:db8:0:1:0:0:0:1", "2001:db8:0:1::1"},    // longest run, not first
      {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},         // one zero group stays
      {"::10.1.2.3", "::a01:203"},
      {"::FFFF:0a01:0203", "::ffff:10.1.2.3"},
      {"1:2:3:4:5:6:10.1.2.3", "1:2:3:4:5:6:a01:203"},
  });
  EXPECT_TRUE(Ip6Addr().isUnspecified());
  EXPECT_FALSE(Ip6Addr::parse("::1").isUnspecified());
  EXPECT_TRUE(Ip6Addr::parse("::ffff:1.2.3.4").isV4Mapped());
  EXPECT_FALSE(Ip6Addr::parse("::fffe:1.2.3.4").isV4Mapped());
  expectRefused<Ip6Addr>({"", ":", ":::", "1:", ":1", "1::2::3", "1:2:3:4:5:6:7", "1:2:3:4:5:6:7:8:9",
                          "::1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8::", "1::2:", "12345::", "g::", "fe80::1%eth0",
                          "10.1.2.3", "::10.1.2", "::10.1.2.3:1", "1:2:3:4:5:6:7:10.1.2.3"});
}

// Addresses have a hash of their own; IPv4 ones share that of the Ethernet
// address.
TEST(Ip6Addr, HashSpreadsOverEveryByte) {
  std::vector<Ip6Addr> low;
  std::vector<Ip6Addr> high;
  for (std::uint32_t i = 0; i < 4096; ++i) {
    const auto a = static_cast<std::uint8_t>(i >> 8);
    const auto b = static_cast<std::uint8_t>(i);
    low.emplace_back(Ip6Addr::Bytes{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, a, b});
    high.emplace_back(Ip6Addr::Bytes{a, b, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1});
  }
  expectHashSpread(low);
  expectHashSpread(high);
}

TEST(IpGenAddr, EitherFamilyOrEmptyOrderedInThatOrder) {
  expectRoundTrips<IpGenAddr>({"", "10.1.2.3", "2001:db8::1"});
  EXPECT_TRUE(IpGenAddr::parse("").isEmpty());
  const auto v4 = IpGenAddr::parse("10.1.2.3");
  EXPECT_TRUE(v4.isV4());
  EXPECT_EQ(v4.v4Addr(), IpAddr(10, 1, 2, 3));
  EXPECT_EQ(v4.v6Addr(), Ip6Addr());
  EXPECT_EQ(IpGenAddr(IpAddr(10, 1, 2, 3)), v4);
  const auto v6 = IpGenAddr::parse("2001:db8::1");
  EXPECT_TRUE(v6.isV6());
  EXPECT_EQ(v6.v6Addr(), Ip6Addr::parse("2001:db8::1"));
  EXPECT_EQ(v6.v4Addr(), IpAddr());
  // The zero address of a family is an address, not the empty one.
  EXPECT_FALSE(IpGenAddr::parse("0.0.0.0").isEmpty());
  EXPECT_NE(IpGenAddr::parse("::"), IpGenAddr::parse("0.0.0.0"));
  expectRefused<IpGenAddr>({" ", "10.1", "10.1.2.3/24", "::1%lo", "localhost"});
  expectAscending<IpGenAddr>({"", "0.0.0.0", "10.0.0.1", "255.255.255.255", "::", "::1", "::ffff:0.0.0.0", "ffff::"});

  for (const char* text : {"127.0.0.1", "127.255.0.9", "::1"}) {
    EXPECT_TRUE(IpGenAddr::parse(text).isLoopback()) << text;
  }
  for (const char* text : {"", "126.255.255.255", "128.0.0.1", "::2", "::ffff:127.0.0.1"}) {
    EXPECT_FALSE(IpGenAddr::parse(text).isLoopback()) << text;
  }
}

TEST(IpGenAddrWithMask, KeepsHostBits) {
  expectRoundTrips<IpGenAddrWithMask>({"10.1.1.1/24", "0.0.0.0/0", "2001:db8::1/64", ""});
  const auto value = IpGenAddrWithMask::parse("10.1.1.1/24");
  EXPECT_EQ(value.address(), IpGenAddr::parse("10.1.1.1"));
  EXPECT_EQ(value.length(), 24u);
  EXPECT_EQ(value.prefix(), IpGenPrefix::parse("10.1.1.0/24"));
  EXPECT_EQ(rangeMessage([] { IpGenAddrWithMask(IpGenAddr::parse("10.1.1.1"), 33); }),
            "invalid IP address with mask \"10.1.1.1/33\"");
  EXPECT_EQ(rangeMessage([] { IpGenAddrWithMask(IpGenAddr(), 8); }), "invalid IP address with mask \"/8\"");
  EXPECT_EQ(IpGenAddrWithMask(IpGenAddr::parse("::1"), 128).length(), 128u);
  expectRefused<IpGenAddrWithMask>({"10.1.1.1", "10.1.1.1/", "10.1.1.1/33", "10.1.1.1/024", "/24", "10.1/24",
                                    "::1/129", "10.1.1.1/24/24", "10.1.1.1/99999999999999999999999"});
  expectAscending<IpGenAddrWithMask>({"", "10.1.1.1/8", "10.1.1.1/24", "10.1.1.2/8", "::1/64"});
}

TEST(IpGenPrefix, HostBitsAreClearedOnEveryPathAndOnlyItsNetworkIsContained) {
  expectRoundTrips<IpGenPrefix>({"10.1.1.0/24", "0.0.0.0/0", "2001:db8::/32"});
  expectPrintsAs<IpGenPrefix>({{"10.1.1.1/24", "10.1.1.0/24"},
                               {"10.255.255.255/9", "10.128.0.0/9"},
                               {"10.1.1.1/32", "10.1.1.1/32"},
                               {"10.1.1.1/0", "0.0.0.0/0"},
                               {"2001:db8:ffff:ffff::1/33", "2001:db8:8000::/33"},
                               {"2001:db8::ff/127", "2001:db8::fe/127"}});
  EXPECT_EQ(std::string(IpGenPrefix(IpGenAddr::parse("192.168.7.9"), 20).stringValue()), "192.168.0.0/20");
  // Texts of one network are one value, hash alike and key one entry.
  const auto masked = IpGenPrefix::parse("10.1.1.7/24");
  EXPECT_EQ(masked, IpGenPrefix::parse("10.1.1.0/24"));
  EXPECT_EQ(masked.hash(), IpGenPrefix::parse("10.1.1.0/24").hash());
  EXPECT_EQ(rangeMessage([] { IpGenPrefix(IpGenAddr::parse("::"), 129); }), "invalid IP prefix \"::/129\"");
  expectRefused<IpGenPrefix>({"10.1.1.0", "10.1.1.0/33", "10.1.1.0/ 24", "2001:db8::/", "x/8"});

  const auto prefix = IpGenPrefix::parse("10.1.0.0/16");
  EXPECT_TRUE(prefix.contains(IpGenAddr::parse("10.1.0.0")));
  EXPECT_TRUE(prefix.contains(IpGenAddr::parse("10.1.255.255")));
  EXPECT_FALSE(prefix.contains(IpGenAddr::parse("10.2.0.0")));
  EXPECT_FALSE(prefix.contains(IpGenAddr::parse("::ffff:10.1.0.1")));
  EXPECT_TRUE(IpGenPrefix::parse("0.0.0.0/0").contains(IpGenAddr::parse("255.1.1.1")));
  EXPECT_FALSE(IpGenPrefix::parse("0.0.0.0/0").contains(IpGenAddr::parse("::1")));
  const auto v6 = IpGenPrefix::parse("2001:db8::/125");
  EXPECT_TRUE(v6.contains(IpGenAddr::parse("2001:db8::7")));
  EXPECT_FALSE(v6.contains(IpGenAddr::parse("2001:db8::8")));
}
