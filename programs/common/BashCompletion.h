// BashCompletion: a bash completion script made from a program's CLI::App.
//
// The script knows what the App declares: its commands, which options each
// of them takes, which options take a value and of what type, and the names
// of the positional arguments (PATH, FILE), so it cannot drift from the
// parser. What to offer for a value of a given type or for a positional of a
// given name is the program's to say, as a bash
// snippet that fills COMPREPLY. A snippet may use $cur (the word being
// completed, as typed), $program (the program as typed on the line) and the
// array "${options[@]}" (the program's own options given so far with their
// values, so that it can call the program the way the line will).
#pragma once

#include <CLI/CLI.hpp>

#include <map>
#include <string>

namespace VgwCommandLine {

// Type name or positional name -> bash snippet. Types without one are completed with nothing.
using Completions = std::map<std::string, std::string>;

// The script for `app`, defining a function _<name> and registering it with
// `complete` for the program's name.
std::string bashCompletion(const CLI::App& app, const Completions& completions);

}  // namespace VgwCommandLine
