#include "Ipkit/IntfId.h"

namespace Ipkit {
namespace {

struct Form {
  std::string_view prefix;
  IntfKind kind;
  // Bounds of every number of the name but a sub-interface's.
  std::uint64_t min;
  std::uint64_t max;
  // How many numbers the name may hold, separated by "/".
  int maxNumbers;
  bool hasSubIntf;
};

constexpr std::uint64_t maxNumber = 65535;
constexpr Form forms[] = {
    {"Ethernet", IntfKind::ethernet, 1, maxNumber, 3, true},
    {"UnconnectedEthernet", IntfKind::unconnectedEthernet, 1, maxNumber, 3, false},
    {"Port-Channel", IntfKind::portChannel, 1, maxNumber, 1, true},
    {"Recirc-Channel", IntfKind::recircChannel, 1, maxNumber, 1, false},
    {"Ecmp-Channel", IntfKind::ecmpChannel, 1, maxNumber, 1, false},
    {"Mlag", IntfKind::mlag, 1, maxNumber, 1, false},
    {"Vlan", IntfKind::vlan, 1, 4094, 1, false},
    {"Loopback", IntfKind::loopback, 0, maxNumber, 1, false},
    {"Management", IntfKind::management, 0, maxNumber, 2, false},
    {"Vxlan", IntfKind::vxlan, 1, maxNumber, 1, false},
};

bool inRange(std::string_view text, std::uint64_t min, std::uint64_t max) noexcept {
  auto value = detail::parseDecimal(text);
  return value && *value >= min && *value <= max;
}

// The numbers after the prefix: "1", "3/1/2".
bool scanNumbers(std::string_view text, const Form& form) noexcept {
  for (int n = 0; n < form.maxNumbers; ++n) {
    auto slash = text.find('/');
    if (!inRange(text.substr(0, slash), form.min, form.max)) return false;
    if (slash == std::string_view::npos) return true;
    text.remove_prefix(slash + 1);
  }
  return false;
}

}  // namespace

std::optional<IntfId> IntfId::tryParse(std::string_view text) {
  if (text.empty()) return IntfId();
  for (const Form& form : forms) {
    if (!text.starts_with(form.prefix)) continue;
    std::string_view numbers = text.substr(form.prefix.size());
    bool subIntf = false;
    if (form.hasSubIntf) {
      auto dot = numbers.find('.');
      if (dot != std::string_view::npos) {
        if (!inRange(numbers.substr(dot + 1), 1, maxNumber)) return std::nullopt;
        numbers = numbers.substr(0, dot);
        subIntf = true;
      }
    }
    if (!scanNumbers(numbers, form)) return std::nullopt;
    return IntfId(text, form.kind, subIntf);
  }
  return std::nullopt;
}

std::strong_ordering operator<=>(NaturalText a, NaturalText b) noexcept {
  std::string_view x = a.text_;
  std::string_view y = b.text_;
  std::size_t i = 0;
  std::size_t j = 0;
  while (i < x.size() && j < y.size()) {
    if (detail::isDigit(x[i]) && detail::isDigit(y[j])) {
      // Numbers have no leading zeros, so the longer run is the larger one.
      std::size_t iEnd = i;
      std::size_t jEnd = j;
      while (iEnd < x.size() && detail::isDigit(x[iEnd])) ++iEnd;
      while (jEnd < y.size() && detail::isDigit(y[jEnd])) ++jEnd;
      if (auto order = iEnd - i <=> jEnd - j; order != 0) return order;
      if (auto order = x.substr(i, iEnd - i).compare(y.substr(j, jEnd - j)) <=> 0; order != 0) {
        return order;
      }
      i = iEnd;
      j = jEnd;
    } else {
      if (x[i] != y[j]) {
        return static_cast<unsigned char>(x[i]) <=> static_cast<unsigned char>(y[j]);
      }
      ++i;
      ++j;
    }
  }
  return x.size() - i <=> y.size() - j;
}

}  // namespace Ipkit
