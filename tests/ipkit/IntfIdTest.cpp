#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <utility>

#include "Ipkit/IntfId.h"
#include "ValueChecks.h"

using namespace Ipkit;
using namespace ipkit_test;

TEST(IntfId, EveryKnownKindRoundTripsOrdersByItsNumbersAndMalformedNamesAreRefused) {
  expectRoundTrips<IntfId>({"", "Ethernet1", "Ethernet3/1/2", "Ethernet65535", "UnconnectedEthernet2/1",
                            "Port-Channel10", "Recirc-Channel1", "Ecmp-Channel7", "Ethernet1/1.100",
                            "Port-Channel10.20", "Mlag1", "Vlan4094", "Loopback0", "Management1/1", "Vxlan1"});
  EXPECT_TRUE(IntfId().isEmpty());
  EXPECT_EQ(IntfId::parse("Port-Channel10.20").kind(), IntfKind::portChannel);
  EXPECT_EQ(IntfId::parse("Management1/1").kind(), IntfKind::management);
  expectAscending<IntfId>({"", "Ethernet1", "Ethernet1/1", "Ethernet1/1.2", "Ethernet1/1.10", "Ethernet1/2",
                           "Ethernet1/10", "Ethernet2", "Ethernet10", "Ethernet10/1", "Ethernet100", "Management0",
                           "Port-Channel2", "Port-Channel10", "Port-Channel10.1", "UnconnectedEthernet1", "Vlan9",
                           "Vlan10"});
  expectRefused<IntfId>({"Et1", "ethernet1", " Ethernet1", "Tunnel1", "1", "Ethernet", "Ethernet0", "Ethernet01",
                         "Ethernet65536", "Ethernet1/", "Ethernet1//2", "Ethernet1/2/3/4", "Ethernet1.",
                         "Ethernet1.0", "Ethernet1.65536", "Ethernet1.1.1", "Ethernet1x", "Ethernet+1",
                         "UnconnectedEthernet1.5", "Port-Channel1/1", "Mlag0", "Vlan0", "Vlan4095", "Loopback00",
                         "Management1/1/1", "Vxlan0"});
}

TEST(IntfId, PredicatesSortNamesIntoKinds) {
  // The answers of all the predicates for one name: E ethernet, U
  // unconnected, P port-channel, R recirc, C ECMP, S sub, M MLAG.
  const auto predicates = [](const char* name) {
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
  };
  for (const auto& [name, flags] : std::initializer_list<std::pair<const char*, const char*>>{
           {"Ethernet3/1/2", "E"}, {"Ethernet1/1.100", "ES"}, {"UnconnectedEthernet4", "EU"},
           {"Port-Channel10", "P"}, {"Port-Channel10.20", "PS"}, {"Recirc-Channel1", "PR"}, {"Ecmp-Channel2", "PC"},
           {"Mlag5", "M"}, {"", ""}, {"Vlan10", ""}, {"Loopback0", ""}, {"Management1", ""}, {"Vxlan1", ""}}) {
    EXPECT_EQ(predicates(name), flags) << name;
  }
}
