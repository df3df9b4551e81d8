#include <gtest/gtest.h>

#include <string>

#include "Ipkit/IntfId.h"
#include "ValueChecks.h"

using namespace Ipkit;
using namespace ipkit_test;

namespace {

// The answers of all the predicates for one name, as one comparable string:
// E ethernet, U unconnected, P port-channel, R recirc, C ECMP, S sub, M MLAG.
std::string predicates(const char* name) {
  IntfId id = IntfId::parse(name);
  std::string flags;
  if (EthIntfId::isEthIntfId(id)) flags += 'E';
  if (EthIntfId::isUnconnected(id)) flags += 'U';
  if (PortChannelIntfId::isPortChannelIntfId(id)) flags += 'P';
  if (PortChannelIntfId::isRecirc(id)) flags += 'R';
  if (PortChannelIntfId::isEcmp(id)) flags += 'C';
  if (SubIntfId::isSubIntfId(id)) flags += 'S';
  if (MlagIntfId::isMlagIntfId(id)) flags += 'M';
  return flags;
}

}  // namespace

TEST(IntfId, EveryKnownKindRoundTrips) {
  for (const char* name : {"", "Ethernet1", "Ethernet1/2", "Ethernet3/1/2", "Ethernet65535",
                           "UnconnectedEthernet1", "UnconnectedEthernet2/1", "Port-Channel10",
                           "Recirc-Channel1", "Ecmp-Channel7", "Ethernet1/1.100", "Ethernet5.1",
                           "Port-Channel10.20", "Mlag1", "Vlan1", "Vlan4094", "Loopback0",
                           "Management0", "Management1/1", "Vxlan1"}) {
    expectRoundTrip<IntfId>(name);
  }
  EXPECT_TRUE(IntfId().isEmpty());
  EXPECT_EQ(IntfId::parse("Port-Channel10.20").kind(), IntfKind::portChannel);
  EXPECT_EQ(IntfId::parse("Management1/1").kind(), IntfKind::management);
}

TEST(IntfId, PredicatesSortNamesIntoKinds) {
  EXPECT_EQ(predicates("Ethernet1"), "E");
  EXPECT_EQ(predicates("Ethernet3/1/2"), "E");
  EXPECT_EQ(predicates("Ethernet1/1.100"), "ES");
  EXPECT_EQ(predicates("UnconnectedEthernet4"), "EU");
  EXPECT_EQ(predicates("Port-Channel10"), "P");
  EXPECT_EQ(predicates("Port-Channel10.20"), "PS");
  EXPECT_EQ(predicates("Recirc-Channel1"), "PR");
  EXPECT_EQ(predicates("Ecmp-Channel2"), "PC");
  EXPECT_EQ(predicates("Mlag5"), "M");
  for (const char* name : {"", "Vlan10", "Loopback0", "Management1", "Vxlan1"}) {
    EXPECT_EQ(predicates(name), "") << name;
  }
}

TEST(IntfId, UnknownOrMalformedNamesAreRefused) {
  EXPECT_EQ(rangeMessage([] { IntfId::parse("Et1"); }), "invalid interface name \"Et1\"");
  for (const char* name : {"Ethernet", "Ethernet0", "Ethernet01", "Ethernet65536", "Ethernet1/",
                           "Ethernet/1", "Ethernet1//2", "Ethernet1/2/3/4", "Ethernet1.",
                           "Ethernet1.0", "Ethernet1.1.1", "Ethernet1.65536", "ethernet1",
                           "ETHERNET1", "Ethernet 1", " Ethernet1", "Ethernet1 ", "Ethernet-1",
                           "Ethernet+1", "UnconnectedEthernet1.5", "Port-Channel", "Port-Channel0",
                           "Port-Channel1/1", "PortChannel1", "Recirc-Channel1.1",
                           "Ecmp-Channel1.1", "Mlag", "Mlag0", "Mlag1.1", "Vlan0", "Vlan4095",
                           "Vlan1.1", "Loopback", "Loopback00", "Management1/1/1", "Vxlan0",
                           "Tunnel1", "Ethernet1x", "1"}) {
    expectRefused<IntfId>(name);
  }
}

TEST(IntfId, NumbersOrderByValue) {
  expectAscending<IntfId>({"", "Ethernet1", "Ethernet1/1", "Ethernet1/1.2", "Ethernet1/1.10",
                           "Ethernet1/2", "Ethernet1/10", "Ethernet2", "Ethernet10", "Ethernet10/1",
                           "Ethernet100", "Management0", "Port-Channel2", "Port-Channel10",
                           "Port-Channel10.1", "UnconnectedEthernet1", "Vlan9", "Vlan10"});
}
