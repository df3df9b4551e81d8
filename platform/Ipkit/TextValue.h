// Ipkit::TextValue: the text half that every value type of Ipkit shares.
//
// A value type T derives from TextValue<T> and supplies
//   static constexpr const char* typeText;   // "Ethernet address", "VNI", ...
//   static std::optional<T> tryParse(std::string_view);  // refuses by nullopt
//   Kiln::String stringValue() const;        // or a const reference to one
//   std::size_t hash() const noexcept;
//   constexpr auto key() const;              // what equality and order read
// and gets in return equality and order from key(), T::parse (which refuses with Kiln::RangeException
// 'invalid <typeText> "<text>"'), stringValueIs (which parses in place and
// leaves the value untouched when it refuses), operator<< writing the text
// form, and std::hash<T>.
//
// tryParse is the form for hot paths: a refusal costs no exception and no
// allocation, where parse spends microseconds on the throw. For every value
// v of T, T::parse(v.stringValue()) == v.
//
// The base holds nothing. Deriving both equality and order from one key
// keeps them consistent with each other; hash() must agree with them.
#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <optional>
#include <ostream>
#include <string_view>

#include "Ipkit/detail/Scan.h"
#include "Kiln/String.h"

namespace Ipkit {

template <class T>
class TextValue {
 public:
  static T parse(std::string_view text) {
    if (auto value = T::tryParse(text)) return *value;
    detail::throwInvalid(T::typeText, text);
  }

  void stringValueIs(std::string_view text) { static_cast<T&>(*this) = parse(text); }

  friend constexpr bool operator==(const T& a, const T& b) { return a.key() == b.key(); }
  friend constexpr auto operator<=>(const T& a, const T& b) { return a.key() <=> b.key(); }

  friend std::ostream& operator<<(std::ostream& os, const T& value) {
    return os << value.stringValue();
  }

 protected:
  TextValue() = default;
};

}  // namespace Ipkit

template <class T>
requires std::derived_from<T, Ipkit::TextValue<T>>
struct std::hash<T> {
  std::size_t operator()(const T& value) const noexcept { return value.hash(); }
};
