// The remote hosts and VTEPs that the benchmarks use, so that their numbers
// speak of the same population: host n has one MAC and one address of its
// own, and VTEP v one address, all distinct for up to 2^22 hosts and 62,500
// VTEPs.
#pragma once

#include <cstdint>
#include <cstdio>

#include "Ipkit/EthAddr.h"
#include "Ipkit/IpAddr.h"

namespace Vgw::Bench {

inline Ipkit::EthAddr hostMac(std::uint32_t n) {
  char text[18];
  std::snprintf(text, sizeof text, "00:00:%02x:%02x:%02x:01", (n >> 16) & 0xff, (n >> 8) & 0xff, n & 0xff);
  return Ipkit::EthAddr::parse(text);
}

inline Ipkit::IpAddr hostIp(std::uint32_t n) {
  return Ipkit::IpAddr(10, static_cast<std::uint8_t>(128 + ((n >> 16) & 0x3f)), static_cast<std::uint8_t>(n >> 8),
                       static_cast<std::uint8_t>(n));
}

inline Ipkit::IpAddr vtepIp(std::uint32_t v) {
  return Ipkit::IpAddr(10, 0, static_cast<std::uint8_t>(1 + v / 250), static_cast<std::uint8_t>(1 + v % 250));
}

}  // namespace Vgw::Bench
