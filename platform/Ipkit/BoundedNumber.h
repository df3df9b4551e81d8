// Ipkit::BoundedNumber: an unsigned number held to a closed range, the
// common ground of VNIs and VLAN ids.
//
// Self derives from BoundedNumber<Self, Min, Max> and supplies typeText and
//   static constexpr const char* rangeText(std::int64_t value);
// the exact message of the Kiln::RangeException that building Self from a
// number outside [Min, Max] throws. Numbers come in as 64-bit signed values
// so that a negative or oversized integer from the database is refused as
// what it is rather than wrapped into range first.
//
// The text form is the number in decimal. The parser takes canonical decimal
// only (no sign, no leading zeros, no white space) and refuses a number out
// of range as malformed text, 'invalid <typeText> "<text>"': a text names
// its offending input, a number its range.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "Ipkit/TextValue.h"
#include "Ipkit/detail/Scan.h"
#include "Kiln/String.h"

namespace Ipkit {

template <class Self, std::uint32_t Min, std::uint32_t Max>
class BoundedNumber : public TextValue<Self> {
 public:
  static constexpr std::uint32_t min = Min;
  static constexpr std::uint32_t max = Max;

  constexpr std::uint32_t value() const { return value_; }

  static std::optional<Self> tryParse(std::string_view text) noexcept {
    auto value = detail::parseDecimal(text);
    if (!value || *value < Min || *value > Max) return std::nullopt;
    return Self(static_cast<std::int64_t>(*value));
  }

  Kiln::String stringValue() const {
    char text[20];
    return Kiln::String(std::string_view(
        text, static_cast<std::size_t>(detail::formatDecimal(text, value_) - text)));
  }
  std::size_t hash() const noexcept { return detail::mixHash(value_); }

  constexpr std::uint32_t key() const { return value_; }

 protected:
  constexpr explicit BoundedNumber(std::int64_t value) : value_(static_cast<std::uint32_t>(value)) {
    if (value < std::int64_t{Min} || value > std::int64_t{Max}) {
      detail::throwRange(Self::rangeText(value));
    }
  }

 private:
  std::uint32_t value_;
};

}  // namespace Ipkit
