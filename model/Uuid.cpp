#include "model/Uuid.h"

#include <cstdio>

#include "Ovs/ovsc.h"
#include "RingTape/Args.h"

namespace Vgw {

namespace {

constexpr const char* namedPrefix = "row";
constexpr std::size_t hexDigits = 32;

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads 32 hex digits, skipping dashes at the positions of the dashed form
// when `dashed` is set.
std::optional<Uuid> readDigits(std::string_view text, bool dashed) {
  std::uint32_t words[4] = {};
  std::size_t digit = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (dashed && (i == 8 || i == 13 || i == 18 || i == 23)) {
      if (c != '-') return std::nullopt;
      continue;
    }
    const int v = hexValue(c);
    if (v < 0 || digit >= hexDigits) return std::nullopt;
    words[digit / 8] = (words[digit / 8] << 4) | static_cast<std::uint32_t>(v);
    ++digit;
  }
  if (digit != hexDigits) return std::nullopt;
  return Uuid(words[0], words[1], words[2], words[3]);
}

}  // namespace

std::optional<Uuid> Uuid::tryParse(std::string_view text) noexcept {
  if (text.size() == 36) return readDigits(text, true);
  const std::string_view prefix(namedPrefix);
  if (text.size() == prefix.size() + hexDigits && text.substr(0, prefix.size()) == prefix) {
    auto uuid = readDigits(text.substr(prefix.size()), false);
    if (uuid && uuid->isNamed()) return uuid;
  }
  return std::nullopt;
}

Kiln::String Uuid::hexText() const {
  char buf[40];
  std::snprintf(buf, sizeof buf, "%08x-%04x-%04x-%04x-%04x%08x", words_[0], words_[1] >> 16, words_[1] & 0xffff,
                words_[2] >> 16, words_[2] & 0xffff, words_[3]);
  return Kiln::String(buf);
}

Kiln::String Uuid::stringValue() const {
  if (!isNamed() || isNull()) return hexText();
  char buf[40];
  std::snprintf(buf, sizeof buf, "%s%08x%08x%08x%08x", namedPrefix, words_[0], words_[1], words_[2], words_[3]);
  return Kiln::String(buf);
}

void ringTapeArg(RingTape::Args& args, const Uuid& uuid) {
  if (uuid.isNamed() && !uuid.isNull()) {
    args << uuid.stringValue();
  } else {
    args.uuid(uuid.key());
  }
}

std::size_t Uuid::hash() const noexcept {
  std::uint32_t h = 0;
  for (std::uint32_t word : words_) {
    for (int byte = 0; byte < 4; ++byte) {
      h += (word >> (8 * byte)) & 0xff;
      h *= 1025;
      h ^= h >> 6;
    }
  }
  h *= 9;
  h ^= h >> 11;
  h *= 32769;
  return h;
}

namespace {
Uuid fromOvs(const uuid& u) { return Uuid(u.parts[0], u.parts[1], u.parts[2], u.parts[3]); }
}  // namespace

Uuid genUuid() {
  uuid u;
  ovsc_uuid_generate(&u);
  return fromOvs(u);
}

Uuid genNamedUuid() {
  uuid u;
  ovsc_uuid_generate(&u);
  u.parts[2] &= 0x7fffffffu;
  return fromOvs(u);
}

}  // namespace Vgw
