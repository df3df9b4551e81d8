// Ipkit::IpAddr and Ipkit::Ip6Addr: IPv4 and IPv6 addresses.
//
// IpAddr's text form is the dotted quad "10.1.2.3". The parser wants exactly
// four decimal parts of 0 to 255 without leading zeros: "10.1", "010.1.2.3",
// "0x0a.1.2.3" and trailing characters are refused, so a text never means an
// address other than the one a reader sees in it.
//
// Ip6Addr's text form is the canonical one of RFC 5952: lower-case hex, no
// leading zeros in a group, the longest run of two or more zero groups (the
// first of equal runs) written "::", and an IPv4-mapped address written
// "::ffff:10.1.2.3". The parser takes any RFC 4291 text: groups of one to
// four hex digits in either case, at most one "::" standing for at least one
// zero group, and a dotted quad as the last 32 bits. Zone indexes ("%eth0")
// and prefix lengths are refused.
//
// Both default to the all-zero address and order as big-endian numbers.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "Ipkit/TextValue.h"
#include "Kiln/String.h"

namespace Ipkit {

class IpAddr : public TextValue<IpAddr> {
 public:
  static constexpr const char* typeText = "IPv4 address";
  // "255.255.255.255"
  static constexpr std::size_t maxTextSize = 15;

  constexpr IpAddr() = default;
  // The address as a host-order number: 10.1.2.3 is 0x0a010203.
  constexpr explicit IpAddr(std::uint32_t value) : value_(value) {}
  constexpr IpAddr(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d)
      : value_(std::uint32_t{a} << 24 | std::uint32_t{b} << 16 | std::uint32_t{c} << 8 | d) {}

  static std::optional<IpAddr> tryParse(std::string_view text) noexcept;

  constexpr std::uint32_t value() const { return value_; }
  constexpr std::array<std::uint8_t, 4> bytes() const {
    return {static_cast<std::uint8_t>(value_ >> 24), static_cast<std::uint8_t>(value_ >> 16),
            static_cast<std::uint8_t>(value_ >> 8), static_cast<std::uint8_t>(value_)};
  }

  // 0.0.0.0
  constexpr bool isAny() const { return value_ == 0; }
  // 127.0.0.0/8
  constexpr bool isLoopback() const { return (value_ >> 24) == 127; }

  Kiln::String stringValue() const;
  // Writes the text form at out, at most maxTextSize characters, and
  // returns its end.
  char* formatTo(char* out) const noexcept;
  std::size_t hash() const noexcept;

  constexpr std::uint32_t key() const { return value_; }

 private:
  std::uint32_t value_ = 0;
};

class Ip6Addr : public TextValue<Ip6Addr> {
 public:
  using Bytes = std::array<std::uint8_t, 16>;
  static constexpr const char* typeText = "IPv6 address";
  // Eight full groups; a text with a dotted quad is always shorter.
  static constexpr std::size_t maxTextSize = 39;

  constexpr Ip6Addr() = default;
  constexpr explicit Ip6Addr(const Bytes& bytes) : bytes_(bytes) {}

  static std::optional<Ip6Addr> tryParse(std::string_view text) noexcept;

  constexpr const Bytes& bytes() const { return bytes_; }
  // Group i (0 to 7) in host order.
  constexpr std::uint16_t group(std::size_t i) const {
    return static_cast<std::uint16_t>(bytes_[2 * i] << 8 | bytes_[2 * i + 1]);
  }

  // ::
  constexpr bool isUnspecified() const { return bytes_ == Bytes{}; }
  // ::1
  constexpr bool isLoopback() const {
    return bytes_ == Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  }
  // ::ffff:0:0/96
  constexpr bool isV4Mapped() const {
    for (std::size_t i = 0; i < 10; ++i) {
      if (bytes_[i] != 0) return false;
    }
    return bytes_[10] == 0xff && bytes_[11] == 0xff;
  }

  Kiln::String stringValue() const;
  // Writes the text form at out, at most maxTextSize characters, and
  // returns its end.
  char* formatTo(char* out) const noexcept;
  std::size_t hash() const noexcept;

  constexpr const Bytes& key() const { return bytes_; }

 private:
  Bytes bytes_{};
};

}  // namespace Ipkit
