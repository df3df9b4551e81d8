#include "Ipkit/IpGenAddr.h"

#include <algorithm>
#include <string>

namespace Ipkit {

std::optional<IpGenAddr> IpGenAddr::tryParse(std::string_view text) noexcept {
  if (text.empty()) return IpGenAddr();
  // A colon settles the family at once, so each text is scanned by one
  // parser only.
  if (text.find(':') != std::string_view::npos) {
    if (auto v6 = Ip6Addr::tryParse(text)) return IpGenAddr(*v6);
    return std::nullopt;
  }
  if (auto v4 = IpAddr::tryParse(text)) return IpGenAddr(*v4);
  return std::nullopt;
}

char* IpGenAddr::formatTo(char* out) const noexcept {
  switch (af_) {
    case AddressFamily::ipv4:
      return v4Addr().formatTo(out);
    case AddressFamily::ipv6:
      return v6Addr().formatTo(out);
    case AddressFamily::none:
      break;
  }
  return out;
}

Kiln::String IpGenAddr::stringValue() const {
  char text[maxTextSize];
  return Kiln::String(std::string_view(text, static_cast<std::size_t>(formatTo(text) - text)));
}

std::size_t IpGenAddr::hash() const noexcept {
  switch (af_) {
    case AddressFamily::ipv4:
      return v4Addr().hash();
    case AddressFamily::ipv6:
      return v6Addr().hash();
    case AddressFamily::none:
      break;
  }
  return 0;
}

namespace detail {

std::optional<AddressAndLength> scanAddressAndLength(std::string_view text) noexcept {
  if (text.empty()) return AddressAndLength{};
  auto slash = text.rfind('/');
  if (slash == std::string_view::npos || slash == 0) return std::nullopt;
  auto address = IpGenAddr::tryParse(text.substr(0, slash));
  auto length = parseDecimal(text.substr(slash + 1));
  if (!address || !length || *length > address->maxLength()) return std::nullopt;
  return AddressAndLength{*address, static_cast<unsigned>(*length)};
}

Kiln::String formatAddressAndLength(const IpGenAddr& address, unsigned length) {
  if (address.isEmpty() && length == 0) return Kiln::String();
  char text[IpGenAddr::maxTextSize + 1 + 20];
  char* end = address.formatTo(text);
  *end++ = '/';
  end = formatDecimal(end, length);
  return Kiln::String(std::string_view(text, static_cast<std::size_t>(end - text)));
}

void throwBadLength(const char* typeText, const IpGenAddr& address, unsigned length) {
  std::string text(address.stringValue());
  text += '/';
  text += std::to_string(length);
  throwInvalid(typeText, text);
}

}  // namespace detail

namespace {

IpGenAddr masked(const IpGenAddr& address, unsigned length) {
  if (address.isV4()) {
    std::uint32_t bits = length == 0 ? 0 : ~std::uint32_t{0} << (32 - std::min(length, 32u));
    return IpAddr(address.v4Addr().value() & bits);
  }
  if (address.isV6()) {
    auto bytes = address.v6Addr().bytes();
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      unsigned first = static_cast<unsigned>(i) * 8;
      if (length <= first) {
        bytes[i] = 0;
      } else if (length < first + 8) {
        bytes[i] = static_cast<std::uint8_t>(bytes[i] & (0xff00u >> (length - first)));
      }
    }
    return Ip6Addr(bytes);
  }
  return address;
}

}  // namespace

IpGenPrefix::IpGenPrefix(const IpGenAddr& address, unsigned length)
    : AddressWithLength(masked(address, length), length) {}

bool IpGenPrefix::contains(const IpGenAddr& address) const noexcept {
  return masked(address, length_) == address_;
}

}  // namespace Ipkit
