// Bridging::VlanId and Bridging::VlanIdOrNone: 802.1Q VLAN ids.
//
// A VlanId is 1 to 4094; it defaults to 1, the default VLAN of a port. A
// VlanIdOrNone is 0 to 4094, with 0 meaning no VLAN (the untagged binding of
// a port), and defaults to 0. 4095 is reserved by 802.1Q and refused by both.
// Building either from a number out of range throws Kiln::RangeException
// with the fixed texts below; text forms and parsing are those of
// Ipkit::BoundedNumber.
#pragma once

#include <cstdint>

#include "Ipkit/BoundedNumber.h"

namespace Bridging {

class VlanId : public Ipkit::BoundedNumber<VlanId, 1, 4094> {
 public:
  static constexpr const char* typeText = "VLAN id";
  static constexpr const char* rangeText(std::int64_t) {
    return "VlanId::value < 1 or > 4094 not allowed";
  }

  constexpr VlanId() : BoundedNumber(1) {}
  constexpr explicit VlanId(std::int64_t value) : BoundedNumber(value) {}
};

class VlanIdOrNone : public Ipkit::BoundedNumber<VlanIdOrNone, 0, 4094> {
 public:
  static constexpr const char* typeText = "VLAN id";
  static constexpr const char* rangeText(std::int64_t value) {
    return value < 0 ? "VlanIdOrNone::value < 0 not allowed"
                     : "VlanIdOrNone::value > 4094 not allowed";
  }

  constexpr VlanIdOrNone() : BoundedNumber(0) {}
  constexpr explicit VlanIdOrNone(std::int64_t value) : BoundedNumber(value) {}
  constexpr VlanIdOrNone(VlanId vlan) : BoundedNumber(vlan.value()) {}  // NOLINT: every VLAN is one

  constexpr bool isNone() const { return value() == 0; }
  // The VLAN; none is refused with VlanId's range text.
  constexpr VlanId vlanId() const { return VlanId(value()); }
};

}  // namespace Bridging
