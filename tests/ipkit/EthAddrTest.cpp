#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Ipkit/EthAddr.h"
#include "Ipkit/SystemId.h"
#include "ValueChecks.h"

using Ipkit::EthAddr;
using namespace ipkit_test;

TEST(EthAddr, TextFormsRoundTripAndDottedFormParses) {
  expectRoundTrip<EthAddr>("00:11:22:33:44:55");
  expectRoundTrip<EthAddr>("ff:ff:ff:ff:ff:ff");
  expectRoundTrip<EthAddr>("00:00:00:00:00:00");
  // Other spellings of one address print in the canonical form.
  EthAddr expected(EthAddr::Bytes{0x00, 0x1c, 0x73, 0xab, 0xcd, 0xef});
  EXPECT_EQ(EthAddr::parse("00:1C:73:AB:CD:EF"), expected);
  EXPECT_EQ(EthAddr::parse("001c.73ab.cdef"), expected);
  EXPECT_EQ(EthAddr::parse("001C.73AB.CDEF"), expected);
  expectPrintsAs<EthAddr>("001C.73ab.CDEF", "00:1c:73:ab:cd:ef");
  EXPECT_EQ(expected[3], 0xab);
  EXPECT_EQ(expected.value(), 0x001c73abcdefULL);
}

TEST(EthAddr, MalformedTextIsRefused) {
  EXPECT_EQ(rangeMessage([] { EthAddr::parse("00:11:zz:33:44:55"); }),
            "invalid Ethernet address \"00:11:zz:33:44:55\"");
  for (const char* text :
       {"", "00:11:22:33:44", "00:11:22:33:44:55:66", "0:1:2:3:4:5", "00:11:22:33:44:5",
        "00:11:22:33:44:555", "00-11-22-33-44-55", "00:11:22:33:44:55 ", " 00:11:22:33:44:55",
        "00:11:22.33:44:55", "0011.2233.445", "0011.2233.44556", "0011:2233:4455", "0011.2233.44g5",
        "+0:11:22:33:44:55", "unknown-dst"}) {
    expectRefused<EthAddr>(text);
  }
  // A refused text leaves a set value alone.
  expectRefused<EthAddr>("bad", EthAddr::parse("00:11:22:33:44:55"));
}

TEST(EthAddr, RefusalMessageEscapesAndShortensOutsideText) {
  EXPECT_EQ(rangeMessage([] { EthAddr::parse("a\"b\n"); }),
            "invalid Ethernet address \"a\\x22b\\x0a\"");
  std::string flood(500, 'x');
  std::string message = rangeMessage([&] { EthAddr::parse(flood); });
  EXPECT_EQ(message, "invalid Ethernet address \"" + std::string(80, 'x') + "...\"");
}

TEST(EthAddr, PredicatesReadTheGroupBitAndZero) {
  EXPECT_TRUE(EthAddr::parse("00:1c:73:00:00:01").isUnicast());
  EXPECT_TRUE(EthAddr::parse("02:00:00:00:00:01").isUnicast());  // locally administered
  EXPECT_FALSE(EthAddr::parse("01:00:5e:00:00:01").isUnicast());
  EXPECT_FALSE(EthAddr::parse("ff:ff:ff:ff:ff:ff").isUnicast());
  EXPECT_TRUE(EthAddr().isZero());
  EXPECT_TRUE(EthAddr().isUnicast());
  EXPECT_FALSE(EthAddr::parse("00:00:00:00:00:01").isZero());
  EXPECT_FALSE(EthAddr::parse("80:00:00:00:00:00").isZero());
}

TEST(EthAddr, OrderIsByteOrderAndAgreesWithHash) {
  expectAscending<EthAddr>({"00:00:00:00:00:00", "00:00:00:00:00:01", "00:00:00:00:01:00",
                            "00:ff:ff:ff:ff:ff", "01:00:00:00:00:00", "ff:ff:ff:ff:ff:fe"});
}

TEST(EthAddr, HashSpreadsOverEveryByte) {
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
  expectRoundTrip<Fleet::SystemId>("00:1c:73:00:00:01");
  EXPECT_EQ(Fleet::SystemId::parse("001c.7300.0001"), Fleet::SystemId::parse("00:1c:73:00:00:01"));
  auto id = Fleet::SystemId::parse("00:1c:73:00:00:01");
  EXPECT_EQ(id.ethAddr(), EthAddr::parse("00:1c:73:00:00:01"));
  EXPECT_EQ(Fleet::SystemId(id.ethAddr()), id);
  EXPECT_FALSE(id.isZero());
  EXPECT_TRUE(Fleet::SystemId().isZero());
  EXPECT_EQ(rangeMessage([] { Fleet::SystemId::parse("switch-1"); }),
            "invalid system id \"switch-1\"");
  expectRefused<Fleet::SystemId>("00:1c:73:00:00:0");
  expectAscending<Fleet::SystemId>({"00:00:00:00:00:00", "00:1c:73:00:00:01", "00:1c:73:00:00:02"});
}
