// Ipkit::IntfId: the name of an interface of a switch of the fabric.
//
// A name is valid only when it has one of these forms; every other text,
// including another case ("ethernet1"), abbreviations ("Et1"), white space
// and leading zeros in numbers, is refused:
//
//   Ethernet<p>, Ethernet<m>/<p>, Ethernet<l>/<m>/<p>   front-panel ports
//   UnconnectedEthernet<p> (and the same slotted forms)  ports without a plug
//   Port-Channel<n>                                     link aggregations
//   Recirc-Channel<n>                                   recirculation channels
//   Ecmp-Channel<n>                                     ECMP groups
//   Ethernet...<.s>, Port-Channel<n>.<s>                 sub-interfaces
//   Mlag<n>                                             MLAG interfaces
//   Vlan<v>, Loopback<n>, Management<n>[/<n>], Vxlan<n>
//
// Numbers are decimal, 1 to 65535, except a VLAN (1 to 4094) and Loopback
// and Management numbers, which start at 0 (Loopback0 is the usual router
// id). The empty name is the default value and is valid.
//
// Recirculation channels and ECMP groups are port-channels with names of
// their own: they are link groups inside the switch, and naming them apart
// is what lets isRecirc and isEcmp answer without any table. Only Ethernet
// and Port-Channel interfaces have sub-interfaces, and a sub-interface counts
// as an interface of its parent's kind.
//
// Names compare equal only when their texts do. They order naturally, runs
// of digits by value, so that Ethernet2 comes before Ethernet10.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "Ipkit/TextValue.h"
#include "Kiln/String.h"

namespace Ipkit {

enum class IntfKind : std::uint8_t {
  none,
  ethernet,
  unconnectedEthernet,
  portChannel,
  recircChannel,
  ecmpChannel,
  mlag,
  vlan,
  loopback,
  management,
  vxlan,
};

// A text compared the way people read interface lists: runs of digits by
// value, everything else by character. Texts compare equal only when they
// are the same, provided that no number has a leading zero.
class NaturalText {
 public:
  explicit NaturalText(std::string_view text) : text_(text) {}

  friend bool operator==(NaturalText a, NaturalText b) { return a.text_ == b.text_; }
  friend std::strong_ordering operator<=>(NaturalText a, NaturalText b) noexcept;

 private:
  std::string_view text_;
};

class IntfId : public TextValue<IntfId> {
 public:
  static constexpr const char* typeText = "interface name";

  IntfId() = default;

  static std::optional<IntfId> tryParse(std::string_view text);

  IntfKind kind() const { return kind_; }
  bool isEmpty() const { return kind_ == IntfKind::none; }
  bool isSubIntf() const { return subIntf_; }

  const Kiln::String& stringValue() const { return name_; }
  std::size_t hash() const noexcept { return name_.hash(); }

  NaturalText key() const { return NaturalText(name_); }

 private:
  IntfId(std::string_view name, IntfKind kind, bool subIntf)
      : name_(name), kind_(kind), subIntf_(subIntf) {}

  Kiln::String name_;
  IntfKind kind_ = IntfKind::none;
  bool subIntf_ = false;
};

namespace EthIntfId {
// Ethernet or UnconnectedEthernet, sub-interfaces included.
inline bool isEthIntfId(const IntfId& id) {
  return id.kind() == IntfKind::ethernet || id.kind() == IntfKind::unconnectedEthernet;
}
inline bool isUnconnected(const IntfId& id) { return id.kind() == IntfKind::unconnectedEthernet; }
}  // namespace EthIntfId

namespace PortChannelIntfId {
// Port-Channel, Recirc-Channel or Ecmp-Channel, sub-interfaces included.
inline bool isPortChannelIntfId(const IntfId& id) {
  return id.kind() == IntfKind::portChannel || id.kind() == IntfKind::recircChannel ||
         id.kind() == IntfKind::ecmpChannel;
}
inline bool isRecirc(const IntfId& id) { return id.kind() == IntfKind::recircChannel; }
inline bool isEcmp(const IntfId& id) { return id.kind() == IntfKind::ecmpChannel; }
}  // namespace PortChannelIntfId

namespace SubIntfId {
inline bool isSubIntfId(const IntfId& id) { return id.isSubIntf(); }
}  // namespace SubIntfId

namespace MlagIntfId {
inline bool isMlagIntfId(const IntfId& id) { return id.kind() == IntfKind::mlag; }
}  // namespace MlagIntfId

}  // namespace Ipkit
