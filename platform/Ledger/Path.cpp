#include "Ledger/Path.h"

#include "Kiln/Json.h"

namespace Ledger {

std::string escapeSegment(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (c == '%') {
      out += "%25";
    } else if (c == '/') {
      out += "%2F";
    } else {
      out += c;
    }
  }
  return out;
}

std::string unescapeSegment(std::string_view segment) {
  std::string out;
  out.reserve(segment.size());
  for (std::size_t i = 0; i < segment.size(); ++i) {
    if (segment[i] != '%') {
      out += segment[i];
      continue;
    }
    const std::string_view code = segment.substr(i + 1, 2);
    if (code == "2F" || code == "2f") {
      out += '/';
    } else if (code == "25") {
      out += '%';
    } else {
      Kiln::throwJsonError("bad escape " + Kiln::quoted(segment.substr(i, 3)) + " in segment " +
                           Kiln::quoted(segment) + "; only %2F ('/') and %25 ('%') are escapes");
    }
    i += 2;
  }
  return out;
}

Path Path::parse(std::string_view text) {
  Path path;
  if (text.empty()) return path;
  std::size_t start = 0;
  while (true) {
    const std::size_t slash = text.find('/', start);
    const std::string_view segment = text.substr(start, slash == std::string_view::npos ? slash : slash - start);
    if (segment.empty())
      throw Kiln::JsonError(std::string(text), "empty segment; a path has no leading, trailing or doubled '/'");
    try {
      path.append(unescapeSegment(segment));
    } catch (const Kiln::JsonError& e) {
      throw Kiln::JsonError(std::string(text), e.problem());
    }
    if (slash == std::string_view::npos) return path;
    start = slash + 1;
  }
}

void Path::append(std::string segment) {
  if (!text_.empty()) text_ += '/';
  text_ += escapeSegment(segment);
  ends_.push_back(text_.size());
  segments_.push_back(std::move(segment));
}

std::string_view Path::prefix(std::size_t n) const {
  return n == 0 ? std::string_view() : std::string_view(text_).substr(0, ends_[n - 1]);
}

std::string joinPath(std::string_view base, std::string_view segment) {
  std::string out(base);
  if (!out.empty()) out += '/';
  out += segment;
  return out;
}

}  // namespace Ledger
