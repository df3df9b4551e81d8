#include "Ipkit/detail/Scan.h"

#include <limits>
#include <string>

#include "Kiln/Exception.h"

namespace Ipkit::detail {

std::optional<std::uint64_t> parseDecimal(std::string_view text) noexcept {
  if (text.empty() || (text.size() > 1 && text[0] == '0')) return std::nullopt;
  constexpr std::uint64_t limit = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t value = 0;
  for (char c : text) {
    if (!isDigit(c)) return std::nullopt;
    auto digit = static_cast<std::uint64_t>(c - '0');
    value = value > (limit - digit) / 10 ? limit : value * 10 + digit;
  }
  return value;
}

char* formatDecimal(char* out, std::uint64_t value) noexcept {
  char reversed[20];
  int n = 0;
  do {
    reversed[n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (n > 0) *out++ = reversed[--n];
  return out;
}

std::size_t mixHash(std::uint64_t value) noexcept {
  // The finaliser of SplitMix64: every input bit moves about half the
  // output bits, so neighbouring addresses land in distant buckets.
  value ^= value >> 30;
  value *= 0xbf58476d1ce4e5b9ULL;
  value ^= value >> 27;
  value *= 0x94d049bb133111ebULL;
  value ^= value >> 31;
  return static_cast<std::size_t>(value);
}

void throwInvalid(std::string_view what, std::string_view text) {
  // Long enough for any real address or interface name, short enough that a
  // runaway value cannot flood a log line.
  constexpr std::size_t shown = 80;
  static constexpr char hex[] = "0123456789abcdef";
  std::string message = "invalid ";
  message.append(what);
  message.append(" \"");
  for (char c : text.substr(0, shown)) {
    auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte >= 0x7f || c == '"' || c == '\\') {
      message.append("\\x");
      message.push_back(hex[byte >> 4]);
      message.push_back(hex[byte & 0xf]);
    } else {
      message.push_back(c);
    }
  }
  if (text.size() > shown) message.append("...");
  message.push_back('"');
  throw Kiln::RangeException(message);
}

void throwRange(const char* message) { throw Kiln::RangeException(message); }

}  // namespace Ipkit::detail
