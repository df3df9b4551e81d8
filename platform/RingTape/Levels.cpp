#include "RingTape/Levels.h"

#include <cctype>

namespace RingTape {
namespace {

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) {
    text.remove_prefix(1);
  }
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) {
    text.remove_suffix(1);
  }
  return text;
}

bool isNameChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.' ||
         c == ':';
}

std::optional<int> digit(std::string_view text) {
  if (text.size() != 1 || text[0] < '0' || text[0] > '9') return std::nullopt;
  return text[0] - '0';
}

std::optional<LevelMask> parseItem(std::string_view item, std::string* error) {
  if (item == "*") return allLevels;
  if (item == "none") return LevelMask{0};
  const auto dash = item.find('-');
  const auto first = digit(trimmed(item.substr(0, dash)));
  const auto last = dash == std::string_view::npos ? first : digit(trimmed(item.substr(dash + 1)));
  if (!first || !last) {
    *error = "level \"" + std::string(item) + "\" is not a digit 0-9, a range such as 0-6, '*' or 'none'";
    return std::nullopt;
  }
  if (*first > *last) {
    *error = "level range \"" + std::string(item) + "\" runs backwards";
    return std::nullopt;
  }
  LevelMask mask = 0;
  for (int level = *first; level <= *last; ++level) mask |= LevelMask(1u << level);
  return mask;
}

std::optional<LevelMask> parseLevels(std::string_view levels, std::string* error) {
  LevelMask mask = 0;
  while (true) {
    const auto plus = levels.find('+');
    const auto item = trimmed(levels.substr(0, plus));
    const auto itemMask = parseItem(item, error);
    if (!itemMask) return std::nullopt;
    mask |= *itemMask;
    if (plus == std::string_view::npos) return mask;
    levels.remove_prefix(plus + 1);
  }
}

}  // namespace

std::optional<LevelSelection> LevelSelection::parse(std::string_view text, std::string* error) {
  LevelSelection selection;
  if (trimmed(text).empty()) return selection;
  while (true) {
    const auto comma = text.find(',');
    const auto entry = trimmed(text.substr(0, comma));
    const auto slash = entry.find('/');
    auto pattern = trimmed(entry.substr(0, slash));
    if (pattern.empty()) {
      *error = entry.empty() ? "empty entry" : "entry \"" + std::string(entry) + "\" has no handle name";
      return std::nullopt;
    }
    const bool prefix = pattern.back() == '*';
    if (prefix) pattern.remove_suffix(1);
    for (char c : pattern) {
      if (!isNameChar(c)) {
        *error = "handle pattern \"" + std::string(trimmed(entry.substr(0, slash))) +
                 "\" may hold letters, digits, '_', '-', '.', ':' and one final '*'";
        return std::nullopt;
      }
    }
    LevelMask levels = allLevels;
    if (slash != std::string_view::npos) {
      std::string itemError;
      const auto parsed = parseLevels(entry.substr(slash + 1), &itemError);
      if (!parsed) {
        *error = "entry \"" + std::string(entry) + "\": " + itemError;
        return std::nullopt;
      }
      levels = *parsed;
    }
    selection.entries_.push_back({std::string(pattern), prefix, levels});
    if (comma == std::string_view::npos) return selection;
    text.remove_prefix(comma + 1);
  }
}

LevelMask LevelSelection::levelsFor(std::string_view handleName) const {
  for (const Entry& entry : entries_) {
    const bool matches = entry.prefix ? handleName.starts_with(entry.pattern)
                                      : handleName == entry.pattern;
    if (matches) return entry.levels;
  }
  return 0;
}

}  // namespace RingTape
