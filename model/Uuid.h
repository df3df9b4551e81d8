// Vgw::Uuid: the identity of a database row.
//
// Four 32-bit words; the all-zero value is the null uuid and means "none".
// A real uuid, as the database server makes them, prints as
// "%08x-%04x-%04x-%04x-%04x%08x". A named uuid is a placeholder for a row
// inserted by a transaction that has not been answered yet: genNamedUuid()
// makes one by clearing the top bit of word 2, which every uuid the server
// makes has set, so isNamed() tells them apart. A named uuid prints as an
// identifier the server accepts in "uuid-name" and ["named-uuid", ...]:
// "row" followed by the 32 hex digits. Both texts parse back.
//
// Equality and order are over the four words; hash() is the one-at-a-time
// hash over the sixteen bytes, word by word, each word's bytes from the
// least significant up.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string_view>

#include "Ipkit/TextValue.h"
#include "Kiln/String.h"

namespace RingTape {
class Args;
}

namespace Vgw {

class Uuid : public Ipkit::TextValue<Uuid> {
 public:
  static constexpr const char* typeText = "uuid";

  constexpr Uuid() = default;
  constexpr Uuid(std::uint32_t w0, std::uint32_t w1, std::uint32_t w2, std::uint32_t w3) : words_{w0, w1, w2, w3} {}

  static constexpr Uuid nullUuid() { return Uuid(); }
  static std::optional<Uuid> tryParse(std::string_view text) noexcept;

  constexpr std::uint32_t word(unsigned i) const { return words_[i]; }
  constexpr bool isNull() const { return words_ == std::array<std::uint32_t, 4>{}; }
  explicit constexpr operator bool() const { return !isNull(); }
  // A placeholder of one transaction, not a row of the database.
  constexpr bool isNamed() const { return (words_[2] & 0x80000000u) == 0; }

  Kiln::String stringValue() const;
  // The "%08x-%04x-%04x-%04x-%04x%08x" text, also for a named uuid.
  Kiln::String hexText() const;
  std::size_t hash() const noexcept;

  // Equality and order read the four words (Ipkit::TextValue).
  constexpr const std::array<std::uint32_t, 4>& key() const { return words_; }

 private:
  std::array<std::uint32_t, 4> words_{};
};

// A trace keeps a uuid as its four words, and its text reads as stringValue().
void ringTapeArg(RingTape::Args& args, const Uuid& uuid);

// A fresh random uuid (request identifiers).
Uuid genUuid();
// A fresh placeholder for a row inserted within one transaction.
Uuid genNamedUuid();

}  // namespace Vgw
