// Ipkit::IpGenAddr, Ipkit::IpGenAddrWithMask and Ipkit::IpGenPrefix: an
// address of either family, an interface address with its mask length, and
// a network prefix.
//
// IpGenAddr is empty (the default), IPv4 or IPv6. Its text form is that of
// IpAddr or Ip6Addr, and the empty text for the empty address; the parser
// takes exactly those, so "" parses to the empty address and every value
// survives a round trip through its text. Addresses order empty first, then
// IPv4, then IPv6, and within a family by value. 0.0.0.0 and :: are
// addresses, not the empty one: a caller that gives them another meaning
// says so itself.
//
// IpGenAddrWithMask is an address as configured on an interface,
// "10.1.1.1/24": the host bits stay. IpGenPrefix is a network, "10.1.1.0/24":
// the host bits are cleared when one is built, from a value or from a text,
// so "10.1.1.1/24" reads as 10.1.1.0/24. A controller that writes a route
// with host bits set means the network that holds them, and refusing the
// route would drop it for a cosmetic fault.
//
// Both need an explicit length ("10.1.1.1" alone is refused) of 0 to 32 for
// IPv4 and 0 to 128 for IPv6, in canonical decimal. Their empty value is the
// empty address with length 0, whose text is ""; they order by address, then
// by length.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <tuple>

#include "Ipkit/IpAddr.h"
#include "Ipkit/TextValue.h"
#include "Kiln/String.h"

namespace Ipkit {

enum class AddressFamily : std::uint8_t { none, ipv4, ipv6 };

class IpGenAddr : public TextValue<IpGenAddr> {
 public:
  static constexpr const char* typeText = "IP address";
  static constexpr std::size_t maxTextSize = Ip6Addr::maxTextSize;

  constexpr IpGenAddr() = default;
  constexpr IpGenAddr(IpAddr v4)  // NOLINT: every IPv4 address is an IpGenAddr
      : af_(AddressFamily::ipv4),
        bytes_{v4.bytes()[0], v4.bytes()[1], v4.bytes()[2], v4.bytes()[3]} {}
  constexpr IpGenAddr(const Ip6Addr& v6)  // NOLINT: likewise for IPv6
      : af_(AddressFamily::ipv6), bytes_(v6.bytes()) {}

  static std::optional<IpGenAddr> tryParse(std::string_view text) noexcept;

  constexpr AddressFamily af() const { return af_; }
  constexpr bool isEmpty() const { return af_ == AddressFamily::none; }
  constexpr bool isV4() const { return af_ == AddressFamily::ipv4; }
  constexpr bool isV6() const { return af_ == AddressFamily::ipv6; }
  // The address of the family, or the zero address of the family asked for
  // when this is not one, so that a caller that checked the family first
  // pays nothing and one that did not gets an inert value.
  constexpr IpAddr v4Addr() const {
    return isV4() ? IpAddr(bytes_[0], bytes_[1], bytes_[2], bytes_[3]) : IpAddr();
  }
  constexpr Ip6Addr v6Addr() const { return isV6() ? Ip6Addr(bytes_) : Ip6Addr(); }
  // 127.0.0.0/8 or ::1. An IPv4-mapped IPv6 address is not loopback: the
  // fabric carries IPv6 locators as such.
  constexpr bool isLoopback() const {
    return isV4() ? v4Addr().isLoopback() : isV6() && v6Addr().isLoopback();
  }
  // 32, 128, or 0 for the empty address.
  constexpr unsigned maxLength() const { return isV4() ? 32 : isV6() ? 128 : 0; }

  Kiln::String stringValue() const;
  char* formatTo(char* out) const noexcept;
  std::size_t hash() const noexcept;

  constexpr auto key() const { return std::tie(af_, bytes_); }

 private:
  AddressFamily af_ = AddressFamily::none;
  // IPv4 uses the first four bytes; the rest stay zero.
  std::array<std::uint8_t, 16> bytes_{};
};

namespace detail {

// An address and a length as read from "<address>/<length>", with the
// length checked against the family; "" gives the empty address and 0.
struct AddressAndLength {
  IpGenAddr address;
  unsigned length = 0;
};
std::optional<AddressAndLength> scanAddressAndLength(std::string_view text) noexcept;
Kiln::String formatAddressAndLength(const IpGenAddr& address, unsigned length);
[[noreturn]] void throwBadLength(const char* typeText, const IpGenAddr& address, unsigned length);

}  // namespace detail

// What IpGenAddrWithMask and IpGenPrefix share: the pair, its text, its
// hash and its order. Self decides what a pair means in its constructor.
template <class Self>
class AddressWithLength : public TextValue<Self> {
 public:
  const IpGenAddr& address() const { return address_; }
  unsigned length() const { return length_; }

  static std::optional<Self> tryParse(std::string_view text) noexcept {
    auto scanned = detail::scanAddressAndLength(text);
    if (!scanned) return std::nullopt;
    return Self(scanned->address, scanned->length);
  }

  Kiln::String stringValue() const { return detail::formatAddressAndLength(address_, length_); }
  std::size_t hash() const noexcept {
    return address_.hash() ^ (std::size_t{length_} * 0x9e3779b97f4a7c15ULL);
  }

  auto key() const { return std::tie(address_, length_); }

 protected:
  AddressWithLength() = default;
  // Refuses a length beyond the family's width with
  // 'invalid <typeText> "<address>/<length>"'.
  AddressWithLength(const IpGenAddr& address, unsigned length)
      : address_(address), length_(static_cast<std::uint8_t>(length)) {
    if (length > address.maxLength()) detail::throwBadLength(Self::typeText, address, length);
  }

  IpGenAddr address_;
  std::uint8_t length_ = 0;
};

class IpGenPrefix;

class IpGenAddrWithMask : public AddressWithLength<IpGenAddrWithMask> {
 public:
  static constexpr const char* typeText = "IP address with mask";

  IpGenAddrWithMask() = default;
  IpGenAddrWithMask(const IpGenAddr& address, unsigned length)
      : AddressWithLength(address, length) {}

  // The network that the address lies in.
  IpGenPrefix prefix() const;
};

class IpGenPrefix : public AddressWithLength<IpGenPrefix> {
 public:
  static constexpr const char* typeText = "IP prefix";

  IpGenPrefix() = default;
  // Clears the host bits of address.
  IpGenPrefix(const IpGenAddr& address, unsigned length);

  // True when address lies within the prefix; never for another family.
  bool contains(const IpGenAddr& address) const noexcept;
};

inline IpGenPrefix IpGenAddrWithMask::prefix() const { return IpGenPrefix(address_, length_); }

}  // namespace Ipkit
