#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "Ipkit/EthAddr.h"
#include "Ipkit/SystemId.h"
#include "ValueChecks.h"

using Ipkit::EthAddr;
using Fleet::SystemId;
using namespace ipkit_test;

TEST(EthAddr, ColonAndDottedFormsParseAndPrintCanonically) {
  expectRoundTrips<EthAddr>({"00:11:22:33:44:55", "ff:ff:ff:ff:ff:ff", "00:00:00:00:00:00"});
  expectPrintsAs<EthAddr>({{"00:1C:73:AB:CD:EF", "00:1c:73:ab:cd:ef"}, {"001C.73ab.CDEF", "00:1c:73:ab:cd:ef"}});
  const EthAddr expected(EthAddr::Bytes{0x00, 0x1c, 0x73, 0xab, 0xcd, 0xef});
  EXPECT_EQ(EthAddr::parse("001c.73ab.cdef"), expected);
  EXPECT_EQ(expected[3], 0xab);
  EXPECT_EQ(expected.value(), 0x001c73abcdefULL);
  EXPECT_EQ((std::ostringstream() << expected).str(), "00:1c:73:ab:cd:ef");
}

TEST(EthAddr, MalformedTextIsRefusedWithItsTextEscapedAndShortened) {
  expectRefused<EthAddr>({"", "00:11:22:33:44", "00:11:22:33:44:55:66", "00:11:22:33:44:555",
                          "00-11-22-33-44-55", "00:11:zz:33:44:55", " 00:11:22:33:44:55", "0011.2233.445",
                          "0011:2233:4455", "0011.2233.44g5", "+0:11:22:33:44:55", "unknown-dst"});
  // A refused text leaves a set value alone.
  expectRefused<EthAddr>({"bad"}, EthAddr::parse("00:11:22:33:44:55"));
  EXPECT_EQ(rangeMessage([] { EthAddr::parse("a\"b\n"); }), "invalid Ethernet address \"a\\x22b\\x0a\"");
  EXPECT_EQ(rangeMessage([] { EthAddr::parse(std::string(500, 'x')); }),
            "invalid Ethernet address \"" + std::string(80, 'x') + "...\"");
}

TEST(EthAddr, PredicatesReadTheGroupBitAndZero) {
  EXPECT_TRUE(EthAddr::parse("02:00:00:00:00:01").isUnicast());  // locally administered
  EXPECT_FALSE(EthAddr::parse("01:00:5e:00:00:01").isUnicast());
  EXPECT_TRUE(EthAddr().isZero());
  EXPECT_TRUE(EthAddr().isUnicast());
  EXPECT_FALSE(EthAddr::parse("00:00:00:00:00:01").isZero());
  EXPECT_FALSE(EthAddr::parse("80:00:00:00:00:00").isZero());
}

TEST(EthAddr, OrderIsByteOrderAndHashSpreadsOverEveryByte) {
  expectAscending<EthAddr>({"00:00:00:00:00:00", "00:00:00:00:00:01", "00:00:00:00:01:00",
                            "00:ff:ff:ff:ff:ff", "01:00:00:00:00:00", "ff:ff:ff:ff:ff:fe"});
  std::vector<EthAddr> low;
  std::vector<EthAddr> high;
  for (unsigned i = 0; i < 4096; ++i) {
    auto a = static_cast<std::uint8_t>(i >> 8);
    auto b = static_cast<std::uint8_t>(i);
    low.emplace_back(EthAddr::Bytes{0x00, 0x1c, 0x73, 0x00, a, b});
    high.emplace_back(EthAddr::Bytes{a, b, 0x73, 0x00, 0x00, 0x01});
  }
  expectHashSpread(low);
  expectHashSpread(high);
}

TEST(SystemId, SharesTheEthernetFormAndMarksTheServiceByZero) {
  expectRoundTrips<SystemId>({"00:1c:73:00:00:01"});
  const auto id = SystemId::parse("001c.7300.0001");
  EXPECT_EQ(id.ethAddr(), EthAddr::parse("00:1c:73:00:00:01"));
  EXPECT_EQ(SystemId(id.ethAddr()), id);
  EXPECT_FALSE(id.isZero());
  EXPECT_TRUE(SystemId().isZero());
  expectRefused<SystemId>({"switch-1", "00:1c:73:00:00:0"});
  expectAscending<SystemId>({"00:00:00:00:00:00", "00:1c:73:00:00:01", "00:1c:73:00:00:02"});
}
