// Fleet::SystemId: the identity of a switch of the fabric or of an MLAG pair.
//
// A system id is six bytes with the form of an Ethernet address, usually the
// switch's base MAC, and shares EthAddr's text form and parser: the text is
// "00:1c:73:00:00:01" and directory entries of the state store are named by
// it. The all-zero id, the default, stands for the overlay service itself
// rather than for a switch.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "Ipkit/EthAddr.h"
#include "Ipkit/TextValue.h"
#include "Kiln/String.h"

namespace Fleet {

class SystemId : public Ipkit::TextValue<SystemId> {
 public:
  static constexpr const char* typeText = "system id";

  constexpr SystemId() = default;
  constexpr explicit SystemId(const Ipkit::EthAddr& addr) : addr_(addr) {}

  static std::optional<SystemId> tryParse(std::string_view text) noexcept {
    if (auto addr = Ipkit::EthAddr::tryParse(text)) return SystemId(*addr);
    return std::nullopt;
  }

  constexpr const Ipkit::EthAddr& ethAddr() const { return addr_; }
  constexpr bool isZero() const { return addr_.isZero(); }

  Kiln::String stringValue() const { return addr_.stringValue(); }
  std::size_t hash() const noexcept { return addr_.hash(); }

  constexpr const Ipkit::EthAddr& key() const { return addr_; }

 private:
  Ipkit::EthAddr addr_;
};

}  // namespace Fleet
