// Vxlan::Vni and Vxlan::VniOrNone: VXLAN network identifiers.
//
// A Vni is 0 to 0xffffff (the 24 bits of the VXLAN header); the default is 0.
// A VniOrNone also holds 0x1000000 (16777216), the invalid VNI, which stands
// for "no VNI": a logical switch without a tunnel key, a VLAN that maps to
// nothing. It is the default, so a VniOrNone that was never set publishes
// nothing. Building either from a number out of range throws
// Kiln::RangeException with the fixed texts below; text forms and parsing
// are those of Ipkit::BoundedNumber.
#pragma once

#include <cstdint>

#include "Ipkit/BoundedNumber.h"

namespace Vxlan {

class Vni : public Ipkit::BoundedNumber<Vni, 0, 0xffffff> {
 public:
  static constexpr const char* typeText = "VNI";
  static constexpr const char* rangeText(std::int64_t) {
    return "Vni::value < Vni::min or > Vni::max not allowed";
  }

  constexpr Vni() : BoundedNumber(0) {}
  constexpr explicit Vni(std::int64_t value) : BoundedNumber(value) {}
};

class VniOrNone : public Ipkit::BoundedNumber<VniOrNone, 0, 0x1000000> {
 public:
  static constexpr const char* typeText = "VNI";
  static constexpr std::uint32_t none = 0x1000000;
  static constexpr const char* rangeText(std::int64_t) {
    return "VniOrNone::value < 0 or > 0x1000000 not allowed";
  }

  constexpr VniOrNone() : BoundedNumber(none) {}
  constexpr explicit VniOrNone(std::int64_t value) : BoundedNumber(value) {}
  constexpr VniOrNone(Vni vni) : BoundedNumber(vni.value()) {}  // NOLINT: every VNI is one

  static constexpr VniOrNone invalidVni() { return VniOrNone(); }
  constexpr bool isValid() const { return value() != none; }
  // The VNI; the invalid one is refused with Vni's range text.
  constexpr Vni vni() const { return Vni(value()); }
};

}  // namespace Vxlan
