// RingTape::LevelSelection: which trace levels of which handles are written.
//
// A selection is the text of one environment variable (VGW_TRACE for the trace
// stream, VGW_RINGTAPE_LEVELS for the ring), a comma-separated list of
// entries:
//
//   entry   := pattern [ "/" levels ]
//   pattern := Name | Prefix "*" | "*"        a handle name, a name prefix,
//                                             or every handle
//   levels  := item { "+" item }              no levels part: all of them
//   item    := D | D "-" D | "*" | "none"     D is one digit, 0 to 9
//
// Example: "VgwRemoteHost/0-6,VgwRoot/*,Vgw*/0+5,*/none".
//
// The first entry whose pattern matches a handle decides that handle's
// levels; a handle that no entry matches gets none. Blanks around entries,
// patterns and levels are ignored. Anything else (an empty entry, a level
// above 9, a range that runs backwards, a '*' inside a name) makes the whole
// text invalid, and parse() names the first fault.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace RingTape {

inline constexpr int levelCount = 10;

// Bit n stands for level n.
using LevelMask = std::uint16_t;
inline constexpr LevelMask allLevels = (1u << levelCount) - 1;

class LevelSelection {
 public:
  // Selects nothing.
  LevelSelection() = default;

  // nullopt on malformed text, with the reason in *error.
  static std::optional<LevelSelection> parse(std::string_view text, std::string* error);

  LevelMask levelsFor(std::string_view handleName) const;

 private:
  struct Entry {
    std::string pattern;
    bool prefix;
    LevelMask levels;
  };
  std::vector<Entry> entries_;
};

}  // namespace RingTape
