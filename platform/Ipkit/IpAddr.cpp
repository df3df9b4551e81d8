#include "Ipkit/IpAddr.h"

#include <cstring>

namespace Ipkit {

std::optional<IpAddr> IpAddr::tryParse(std::string_view text) noexcept {
  std::uint32_t value = 0;
  std::size_t pos = 0;
  for (int part = 0; part < 4; ++part) {
    if (part != 0) {
      if (pos >= text.size() || text[pos] != '.') return std::nullopt;
      ++pos;
    }
    std::size_t end = pos;
    while (end < text.size() && end - pos < 4 && detail::isDigit(text[end])) ++end;
    auto byte = detail::parseDecimal(text.substr(pos, end - pos));
    if (!byte || *byte > 255) return std::nullopt;
    value = value << 8 | static_cast<std::uint32_t>(*byte);
    pos = end;
  }
  if (pos != text.size()) return std::nullopt;
  return IpAddr(value);
}

char* IpAddr::formatTo(char* out) const noexcept {
  auto parts = bytes();
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i != 0) *out++ = '.';
    out = detail::formatDecimal(out, parts[i]);
  }
  return out;
}

Kiln::String IpAddr::stringValue() const {
  char text[maxTextSize];
  return Kiln::String(std::string_view(text, static_cast<std::size_t>(formatTo(text) - text)));
}

std::size_t IpAddr::hash() const noexcept { return detail::mixHash(value_); }

namespace {

constexpr std::size_t groups = 8;

// Reads one group of one to four hex digits at text[pos]; pos moves past it.
bool scanGroup(std::string_view text, std::size_t& pos, std::uint16_t& group) noexcept {
  std::uint32_t value = 0;
  std::size_t start = pos;
  while (pos < text.size() && pos - start < 5) {
    int d = detail::hexDigit(text[pos]);
    if (d < 0) break;
    value = value << 4 | static_cast<std::uint32_t>(d);
    ++pos;
  }
  if (pos == start || pos - start > 4) return false;
  group = static_cast<std::uint16_t>(value);
  return true;
}

}  // namespace

std::optional<Ip6Addr> Ip6Addr::tryParse(std::string_view text) noexcept {
  std::uint16_t words[groups] = {};
  std::size_t count = 0;
  // Where "::" stands, counted in groups read before it; -1 when absent.
  long gap = -1;
  std::size_t pos = 0;
  if (text.starts_with("::")) {
    gap = 0;
    pos = 2;
  }
  while (pos < text.size()) {
    if (count == groups) return std::nullopt;
    std::size_t start = pos;
    if (!scanGroup(text, pos, words[count])) return std::nullopt;
    if (pos < text.size() && text[pos] == '.') {
      // A dotted quad ends the text and fills the last two groups.
      auto v4 = IpAddr::tryParse(text.substr(start));
      if (!v4 || count + 2 > groups) return std::nullopt;
      words[count++] = static_cast<std::uint16_t>(v4->value() >> 16);
      words[count++] = static_cast<std::uint16_t>(v4->value());
      pos = text.size();
      break;
    }
    ++count;
    if (pos == text.size()) break;
    if (text[pos] != ':') return std::nullopt;
    ++pos;
    if (pos < text.size() && text[pos] == ':') {
      if (gap >= 0) return std::nullopt;
      gap = static_cast<long>(count);
      ++pos;
    } else if (pos == text.size()) {
      return std::nullopt;
    }
  }
  if (gap < 0 ? count != groups : count == groups) return std::nullopt;
  Bytes bytes{};
  // Groups before the gap go first; those after it go to the end.
  std::size_t before = gap < 0 ? count : static_cast<std::size_t>(gap);
  for (std::size_t i = 0; i < count; ++i) {
    std::size_t slot = i < before ? i : groups - count + i;
    bytes[2 * slot] = static_cast<std::uint8_t>(words[i] >> 8);
    bytes[2 * slot + 1] = static_cast<std::uint8_t>(words[i]);
  }
  return Ip6Addr(bytes);
}

char* Ip6Addr::formatTo(char* out) const noexcept {
  static constexpr char hex[] = "0123456789abcdef";
  if (isV4Mapped()) {
    static constexpr std::string_view prefix = "::ffff:";
    std::memcpy(out, prefix.data(), prefix.size());
    return IpAddr(bytes_[12], bytes_[13], bytes_[14], bytes_[15]).formatTo(out + prefix.size());
  }
  // The longest run of at least two zero groups, the first of equal ones.
  std::size_t bestStart = groups;
  std::size_t bestLength = 1;
  for (std::size_t i = 0; i < groups;) {
    std::size_t j = i;
    while (j < groups && group(j) == 0) ++j;
    if (j - i > bestLength) {
      bestStart = i;
      bestLength = j - i;
    }
    i = j == i ? i + 1 : j;
  }
  for (std::size_t i = 0; i < groups; ++i) {
    if (i == bestStart) {
      *out++ = ':';
      *out++ = ':';
      i += bestLength - 1;
      continue;
    }
    if (i != 0 && i != bestStart + bestLength) *out++ = ':';
    std::uint16_t g = group(i);
    bool started = false;
    for (int shift = 12; shift >= 0; shift -= 4) {
      unsigned d = (g >> shift) & 0xf;
      if (d != 0 || started || shift == 0) {
        *out++ = hex[d];
        started = true;
      }
    }
  }
  return out;
}

Kiln::String Ip6Addr::stringValue() const {
  char text[maxTextSize];
  return Kiln::String(std::string_view(text, static_cast<std::size_t>(formatTo(text) - text)));
}

std::size_t Ip6Addr::hash() const noexcept {
  std::uint64_t high = 0;
  std::uint64_t low = 0;
  for (std::size_t i = 0; i < 8; ++i) {
    high = high << 8 | bytes_[i];
    low = low << 8 | bytes_[i + 8];
  }
  return detail::mixHash(high ^ detail::mixHash(low));
}

}  // namespace Ipkit
