// Ipkit::detail: the scanning and formatting pieces that the value types of
// Ipkit share. Internal to the library; users include the type headers.
//
// The scanners never throw and never allocate: they run for every address of
// every database row, and a failed scan is an ordinary outcome that the
// caller turns into its own refusal. throwInvalid is the one place where a
// refusal message is built, so every type words its refusals alike.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace Ipkit::detail {

// The value of a hexadecimal digit of either case, or -1.
constexpr int hexDigit(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

constexpr bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// A decimal number in canonical form: digits only, no sign, no white space,
// no leading zero except in "0" itself. Values beyond 64 bits saturate at
// UINT64_MAX so that callers see them as out of range rather than wrapped.
std::optional<std::uint64_t> parseDecimal(std::string_view text) noexcept;

// Writes value in decimal at out and returns the end of what was written
// (at most 20 characters).
char* formatDecimal(char* out, std::uint64_t value) noexcept;

// Spreads the bits of a packed value over the whole hash.
std::size_t mixHash(std::uint64_t value) noexcept;

// Throws Kiln::RangeException with the message
//   invalid <what> "<text>"
// in which the text is cut to a readable length and its unprintable bytes
// are shown as \xNN, because it comes from outside and ends up in logs.
[[noreturn]] void throwInvalid(std::string_view what, std::string_view text);

// Throws Kiln::RangeException with message as it stands.
[[noreturn]] void throwRange(const char* message);

}  // namespace Ipkit::detail
