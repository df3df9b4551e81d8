// CommandLine: how vgw's programs read their command lines.
//
// Every program declares its options and commands once, as a CLI::App; this
// unit gives all of them one look and one set of exit statuses. --help prints
// CLI11's help with the usage line first ("usage: PROGRAM ..."), so that the
// first line says how to call the program and help2man finds the synopsis;
// --version prints "PROGRAM VERSION". Both go to standard output and end the
// program with status 0. A command line the program cannot use is a usage
// error: "PROGRAM: what is wrong" and "Try 'PROGRAM --help'." on standard
// error, status 2. Status 1 is left to each program for what it refuses or
// fails to do once its command line is good.
#pragma once

#include <CLI/CLI.hpp>

#include <optional>
#include <string>

namespace VgwCommandLine {

constexpr int exitOk = 0;
constexpr int exitUsage = 2;

// Sets `app` up as described above; `version` is what --version prints
// after the program's name.
void prepare(CLI::App& app, const std::string& version);

// Parses the command line. The exit status when it ends the program (help,
// version, a flag that did its work and threw CLI::Success, or a usage
// error, each already printed); nothing when the program goes on.
std::optional<int> parse(CLI::App& app, int argc, const char* const* argv);

// A usage error found after parsing (an option that does not fit the command
// given, a value that does not parse): printed and answered like CLI11's own.
int usageError(const CLI::App& app, const std::string& message);

// A positional argument, shown in help by its name alone ("PATH", not
// "PATH TEXT").
CLI::Option* addPositional(CLI::App& app, const std::string& name, std::string& value, const std::string& description);

// Refuses an empty value: an empty path or file name is never what was meant.
extern const CLI::Validator nonEmpty;

}  // namespace VgwCommandLine
