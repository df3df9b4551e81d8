// The JSON form of values and entities.
//
// Every attribute type has one JSON form and one text form (the text form is
// what a collection key becomes in JSON, and what a control-socket path
// names). The forms are:
//  - bool: true/false; text "true"/"false".
//  - integers: JSON numbers, range-checked; text in decimal.
//  - Kiln::String: JSON string; text as is.
//  - TextForm<T> (addresses, MACs, uuids): JSON string of stringValue(),
//    parsed with T::parse(); text the same.
//  - NumberForm<T> (VNIs, VLANs): JSON number of value(), built with T(n);
//    text in decimal.
//  - EnumForm<E>: the enumerator's name; a number is accepted on input.
//  - ValueForm<V> (generated value types): a JSON object of its attributes.
// Reading never half-applies: a form either yields a value or throws
// JsonError naming the place and the problem.
#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "Kiln/Exception.h"
#include "Kiln/String.h"

namespace Kiln {

using Json = nlohmann::json;

// An error in JSON or text given from outside. where() is the path to the
// offending item ("vgw/cliconfig/managerAddress"), problem() says what is
// wrong with it.
class JsonError : public std::runtime_error {
 public:
  JsonError(std::string where, std::string problem);
  const std::string& where() const noexcept { return where_; }
  const std::string& problem() const noexcept { return problem_; }
  // The same error seen from one level up: `outer` is prefixed to where().
  JsonError within(std::string_view outer) const;

 private:
  std::string where_;
  std::string problem_;
};

[[noreturn]] void throwJsonError(std::string problem);
std::string jsonTypeName(const Json& j);
std::string quoted(std::string_view text);

template <class T>
struct BuiltinForm;

template <>
struct BuiltinForm<bool> {
  static Json toJson(bool v) { return v; }
  static bool fromJson(const Json& j) {
    if (!j.is_boolean()) throwJsonError("expected true or false, got " + jsonTypeName(j));
    return j.get<bool>();
  }
  static std::string toText(bool v) { return v ? "true" : "false"; }
  static bool fromText(std::string_view t) {
    if (t == "true") return true;
    if (t == "false") return false;
    throwJsonError("expected true or false, got " + quoted(t));
  }
};

template <std::integral T>
  requires(!std::same_as<T, bool>)
struct BuiltinForm<T> {
  static Json toJson(T v) { return v; }
  static T fromJson(const Json& j) {
    if (j.is_number_unsigned()) return check(j.get<std::uint64_t>());
    if (j.is_number_integer()) {
      const auto v = j.get<std::int64_t>();
      if (v < 0) {
        if constexpr (std::is_signed_v<T>) {
          if (v >= static_cast<std::int64_t>(std::numeric_limits<T>::min())) return static_cast<T>(v);
        }
        throwJsonError(outOfRange(std::to_string(v)));
      }
      return check(static_cast<std::uint64_t>(v));
    }
    throwJsonError("expected an integer, got " + jsonTypeName(j));
  }
  static std::string toText(T v) { return std::to_string(v); }
  static T fromText(std::string_view t) {
    T v{};
    const auto* end = t.data() + t.size();
    auto [p, ec] = std::from_chars(t.data(), end, v);
    if (t.empty() || ec != std::errc() || p != end) throwJsonError("expected an integer in range, got " + quoted(t));
    return v;
  }

 private:
  static T check(std::uint64_t v) {
    if (v > static_cast<std::uint64_t>(std::numeric_limits<T>::max())) throwJsonError(outOfRange(std::to_string(v)));
    return static_cast<T>(v);
  }
  static std::string outOfRange(const std::string& v) {
    return "integer " + v + " out of range " + std::to_string(std::numeric_limits<T>::min()) + ".." +
           std::to_string(std::numeric_limits<T>::max());
  }
};

template <>
struct BuiltinForm<double> {
  static Json toJson(double v) { return v; }
  static double fromJson(const Json& j) {
    if (!j.is_number()) throwJsonError("expected a number, got " + jsonTypeName(j));
    return j.get<double>();
  }
  static std::string toText(double v) { return Json(v).dump(); }
  static double fromText(std::string_view t) {
    double v = 0;
    const auto* end = t.data() + t.size();
    auto [p, ec] = std::from_chars(t.data(), end, v);
    if (t.empty() || ec != std::errc() || p != end) throwJsonError("expected a number, got " + quoted(t));
    return v;
  }
};

template <>
struct BuiltinForm<String> {
  static Json toJson(const String& v) { return v.stringValue(); }
  static String fromJson(const Json& j) {
    if (!j.is_string()) throwJsonError("expected a string, got " + jsonTypeName(j));
    return String(j.get<std::string>());
  }
  static std::string toText(const String& v) { return v.stringValue(); }
  static String fromText(std::string_view t) { return String(t); }
};

template <class T>
struct TextForm {
  static Json toJson(const T& v) { return std::string(v.stringValue()); }
  static T fromJson(const Json& j) {
    if (!j.is_string()) throwJsonError("expected a string, got " + jsonTypeName(j));
    return fromText(j.get_ref<const std::string&>());
  }
  static std::string toText(const T& v) { return std::string(v.stringValue()); }
  static T fromText(std::string_view t) {
    try {
      return T::parse(t);
    } catch (const RangeException& e) {
      throwJsonError(e.what());
    }
  }
};

template <class T>
struct NumberForm {
  static Json toJson(const T& v) { return v.value(); }
  static T fromJson(const Json& j) { return make(BuiltinForm<std::int64_t>::fromJson(j)); }
  static std::string toText(const T& v) { return std::to_string(v.value()); }
  static T fromText(std::string_view t) { return make(BuiltinForm<std::int64_t>::fromText(t)); }

 private:
  static T make(std::int64_t n) {
    using Raw = decltype(std::declval<T>().value());
    if (n < 0 || static_cast<std::uint64_t>(n) > std::numeric_limits<Raw>::max())
      throwJsonError("value " + std::to_string(n) + " out of range");
    try {
      return T(static_cast<Raw>(n));
    } catch (const RangeException& e) {
      throwJsonError(e.what());
    }
  }
};

// Enumerations declare a table of names; see the generator.
template <class E>
struct EnumForm {
  static Json toJson(E v) { return std::string(enumName(v)); }
  static E fromJson(const Json& j) {
    if (j.is_string()) return fromText(j.get_ref<const std::string&>());
    if (j.is_number_integer()) {
      E v{};
      if (enumFromValue(j.get<std::int64_t>(), v)) return v;
      throwJsonError("no enumerator with value " + j.dump());
    }
    throwJsonError("expected an enumerator name, got " + jsonTypeName(j));
  }
  static std::string toText(E v) { return std::string(enumName(v)); }
  static E fromText(std::string_view t) {
    E v{};
    if (enumFromName(t, v)) return v;
    std::int64_t n = 0;
    const auto* end = t.data() + t.size();
    auto [p, ec] = std::from_chars(t.data(), end, n);
    if (!t.empty() && ec == std::errc() && p == end && enumFromValue(n, v)) return v;
    throwJsonError("unknown enumerator " + quoted(t));
  }
};

// Generated value types carry their own JSON conversion.
template <class V>
struct ValueForm {
  static Json toJson(const V& v) { return v.toJson(); }
  static V fromJson(const Json& j) { return V::fromJson(j); }
  static std::string toText(const V& v) { return v.toJson().dump(); }
  static V fromText(std::string_view t) {
    Json j = Json::parse(t, nullptr, false);
    if (j.is_discarded()) throwJsonError("not valid JSON: " + quoted(t));
    return fromJson(j);
  }
};

}  // namespace Kiln
