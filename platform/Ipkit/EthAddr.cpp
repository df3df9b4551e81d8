#include "Ipkit/EthAddr.h"

namespace Ipkit {
namespace {

// Reads `digits` hex digits at text[pos] into the low bits of value.
bool scanHex(std::string_view text, std::size_t pos, int digits, std::uint64_t& value) noexcept {
  for (int i = 0; i < digits; ++i) {
    int d = detail::hexDigit(text[pos + static_cast<std::size_t>(i)]);
    if (d < 0) return false;
    value = (value << 4) | static_cast<std::uint64_t>(d);
  }
  return true;
}

// Scans groups of `digits` hex digits, each but the first preceded by sep,
// into a 48-bit value. The caller has checked the length.
bool scanGroups(std::string_view text, int digits, char sep, std::uint64_t& value) noexcept {
  const std::size_t stride = static_cast<std::size_t>(digits) + 1;
  for (std::size_t pos = 0; pos < text.size(); pos += stride) {
    if (pos != 0 && text[pos - 1] != sep) return false;
    if (!scanHex(text, pos, digits, value)) return false;
  }
  return true;
}

}  // namespace

std::optional<EthAddr> EthAddr::tryParse(std::string_view text) noexcept {
  std::uint64_t value = 0;
  bool ok = false;
  if (text.size() == textSize) {
    ok = scanGroups(text, 2, ':', value);
  } else if (text.size() == 14) {
    ok = scanGroups(text, 4, '.', value);
  }
  if (!ok) return std::nullopt;
  Bytes bytes;
  for (std::size_t i = bytes.size(); i-- > 0; value >>= 8) {
    bytes[i] = static_cast<std::uint8_t>(value & 0xff);
  }
  return EthAddr(bytes);
}

std::uint64_t EthAddr::value() const noexcept {
  std::uint64_t value = 0;
  for (auto b : bytes_) value = (value << 8) | b;
  return value;
}

void EthAddr::formatTo(char* out) const noexcept {
  static constexpr char hex[] = "0123456789abcdef";
  for (std::size_t i = 0; i < bytes_.size(); ++i) {
    if (i != 0) *out++ = ':';
    *out++ = hex[bytes_[i] >> 4];
    *out++ = hex[bytes_[i] & 0xf];
  }
}

Kiln::String EthAddr::stringValue() const {
  char text[textSize];
  formatTo(text);
  return Kiln::String(std::string_view(text, textSize));
}

std::size_t EthAddr::hash() const noexcept { return detail::mixHash(value()); }

}  // namespace Ipkit
