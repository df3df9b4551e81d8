// Ipkit::EthAddr: a 48-bit Ethernet (MAC) address.
//
// The text form is six lower-case two-digit hex bytes joined by colons,
// "00:1c:73:0a:0b:0c". The parser takes that form in either case and the
// dotted form of three four-digit hex groups, "001c.730a.0b0c"; every other
// text (short groups, other separators, white space, trailing characters)
// is refused. The default value is the zero address 00:00:00:00:00:00.
//
// Addresses order as their bytes read as a big-endian number.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "Ipkit/TextValue.h"
#include "Kiln/String.h"

namespace Ipkit {

class EthAddr : public TextValue<EthAddr> {
 public:
  using Bytes = std::array<std::uint8_t, 6>;
  static constexpr const char* typeText = "Ethernet address";
  // "00:11:22:33:44:55"
  static constexpr std::size_t textSize = 17;

  constexpr EthAddr() = default;
  constexpr explicit EthAddr(const Bytes& bytes) : bytes_(bytes) {}

  static std::optional<EthAddr> tryParse(std::string_view text) noexcept;

  constexpr const Bytes& bytes() const { return bytes_; }
  constexpr std::uint8_t operator[](std::size_t i) const { return bytes_[i]; }
  // The address as the low 48 bits of an integer, first byte highest.
  std::uint64_t value() const noexcept;

  // Unicast when the group bit, the lowest bit of the first byte, is clear.
  // The zero address counts as unicast.
  constexpr bool isUnicast() const { return (bytes_[0] & 0x01) == 0; }
  constexpr bool isZero() const { return bytes_ == Bytes{}; }

  Kiln::String stringValue() const;
  // Writes the textSize characters of the text form at out.
  void formatTo(char* out) const noexcept;
  std::size_t hash() const noexcept;

  constexpr const Bytes& key() const { return bytes_; }

 private:
  Bytes bytes_{};
};

}  // namespace Ipkit
