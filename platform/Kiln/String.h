// Kiln::String and Kiln::Name: the text types of the runtime.
//
// A String holds immutable text once built; attributes of entities hold
// Strings by value and compare, order and hash them. A Name is the short text
// key of an entry in a directory. Both convert to and from std::string and
// string literals, so code at the edges (JSON, sockets, the C library) can use
// the standard forms.
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

namespace Kiln {

class String {
 public:
  String() = default;
  String(const char* text) : text_(text ? text : "") {}  // NOLINT: implicit by design
  String(std::string text) : text_(std::move(text)) {}   // NOLINT
  String(std::string_view text) : text_(text) {}         // NOLINT

  const char* charPtr() const { return text_.c_str(); }
  const std::string& stringValue() const { return text_; }
  operator const std::string&() const { return text_; }  // NOLINT
  operator std::string_view() const { return text_; }    // NOLINT

  std::size_t size() const { return text_.size(); }
  bool empty() const { return text_.empty(); }
  std::size_t hash() const { return std::hash<std::string>{}(text_); }

  friend bool operator==(const String&, const String&) = default;
  friend std::strong_ordering operator<=>(const String& a, const String& b) {
    return a.text_.compare(b.text_) <=> 0;
  }
  friend bool operator==(const String& a, const char* b) { return a.text_ == b; }
  friend std::ostream& operator<<(std::ostream& os, const String& s) { return os << s.text_; }

 private:
  std::string text_;
};

using Name = String;

}  // namespace Kiln

template <>
struct std::hash<Kiln::String> {
  std::size_t operator()(const Kiln::String& s) const noexcept { return s.hash(); }
};
