// Ledger paths: how operators and configuration files name places in the
// store.
//
// A path is a sequence of segments separated by '/'. No segment is empty,
// so a path has no leading, trailing or doubled '/'; the empty path names
// the root. A segment is a directory entry name, an attribute name, or the
// text form of a collection key. A segment whose text holds '/' or '%' is
// written with "%2F" and "%25" in their place ("10.0.0.0%2F24",
// "Ethernet1%2F1"); no other escape exists, and a '%' followed by anything
// else is an error.
//
// Path::parse checks the syntax and keeps the segments unescaped, together
// with the canonical text (every segment escaped again, so "%2f" reads as
// "%2F"), by which the store keys its mounts and declarations. Errors are
// Kiln::JsonError whose where() is the path as given.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Ledger {

// The segment form of a text: '%' and '/' escaped.
std::string escapeSegment(std::string_view text);
// The text of a segment; throws Kiln::JsonError (with an empty where()) on
// an escape other than %2F, %2f and %25.
std::string unescapeSegment(std::string_view segment);

class Path {
 public:
  Path() = default;  // the root
  static Path parse(std::string_view text);

  const std::vector<std::string>& segments() const { return segments_; }
  std::size_t size() const { return segments_.size(); }
  bool empty() const { return segments_.empty(); }
  const std::string& back() const { return segments_.back(); }

  // The canonical text, and that of the first `n` segments.
  const std::string& text() const { return text_; }
  std::string_view prefix(std::size_t n) const;

 private:
  void append(std::string segment);
  std::vector<std::string> segments_;
  std::string text_;
  std::vector<std::size_t> ends_;  // end of each segment in text_
};

// `base` and `segment` (already escaped) joined with '/'.
std::string joinPath(std::string_view base, std::string_view segment);

}  // namespace Ledger
