#include "CommandLine.h"

#include <iostream>
#include <sstream>
#include <vector>

namespace VgwCommandLine {

namespace {

const CLI::App& root(const CLI::App& app) {
  const CLI::App* top = &app;
  while (top->get_parent() != nullptr) top = top->get_parent();
  return *top;
}

// CLI11 says only that a command is missing, also when the word in its place
// is a misspelt command or an option the program does not have; the message
// names that word, or the commands there are.
std::string missingCommand(const CLI::App& app) {
  const std::vector<std::string> rest = app.remaining();
  if (!rest.empty()) return (rest.front().starts_with('-') ? "unknown option " : "unknown command ") + rest.front();
  std::string names;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
    names += (names.empty() ? "" : ", ") + command->get_name();
  return "no command given; the commands are " + names;
}

std::string failureMessage(const CLI::App* app, const CLI::Error& error) {
  const std::string name = root(*app).get_name();
  const bool commandMissing = error.get_name() == "RequiredError" && app->get_require_subcommand_min() > 0 &&
                              app->get_subcommands().empty();
  return name + ": " + (commandMissing ? missingCommand(*app) : error.what()) + "\nTry '" + name + " --help'.\n";
}

// CLI11's layout with the usage line on top and lower-case labels for the
// command words, as the Unix tools beside ours print them.
class HelpFormatter final : public CLI::Formatter {
 public:
  HelpFormatter() {
    label("Usage", "usage");
    label("SUBCOMMAND", "COMMAND");
    label("SUBCOMMANDS", "COMMANDS");
    label("Subcommands", "Commands");
    column_width(24);
  }

  std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override {
    if (mode == CLI::AppFormatMode::Sub) return make_expanded(app);
    std::ostringstream out;
    out << make_usage(app, name) << make_description(app) << make_positionals(app) << make_groups(app, mode)
        << make_subcommands(app, mode) << '\n'
        << make_footer(app);
    // Hidden options leave an empty group's blank line behind.
    std::string text = out.str();
    for (std::size_t at; (at = text.find("\n\n\n")) != std::string::npos;) text.erase(at, 1);
    return text;
  }
};

}  // namespace

const CLI::Validator nonEmpty(
    [](const std::string& value) { return value.empty() ? std::string("must not be empty") : std::string(); }, "",
    "non-empty");

void prepare(CLI::App& app, const std::string& version) {
  app.formatter(std::make_shared<HelpFormatter>());
  app.failure_message(failureMessage);
  app.set_version_flag("--version", app.get_name() + " " + version, "print the version and exit");
  app.set_help_flag("-h,--help", "print this help and exit");
}

std::optional<int> parse(CLI::App& app, int argc, const char* const* argv) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    return status == exitOk ? exitOk : exitUsage;
  }
  return std::nullopt;
}

CLI::Option* addPositional(CLI::App& app, const std::string& name, std::string& value,
                          const std::string& description) {
  return app.add_option(name, value, description)->type_name("");
}

int usageError(const CLI::App& app, const std::string& message) {
  std::cerr << failureMessage(&app, CLI::Error("UsageError", message)) << std::flush;
  return exitUsage;
}

}  // namespace VgwCommandLine
