#include "BashCompletion.h"

#include <sstream>
#include <vector>

namespace VgwCommandLine {

namespace {

// A word in single quotes, safe for bash whatever it holds.
std::string quoted(const std::string& word) {
  std::string text = "'";
  for (const char c : word) text += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return text + "'";
}

std::string functionName(const std::string& program) {
  std::string name = "_";
  for (const char c : program) name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
  return name;
}

bool shown(const CLI::Option* option) { return !option->get_group().empty(); }

// Help and version are shown like any other option, but CLI11 may keep them
// in a group of their own; what matters here is the name.
std::vector<const CLI::Option*> namedOptions(const CLI::App& app) {
  return app.get_options([](const CLI::Option* option) { return option->nonpositional() && shown(option); });
}

std::vector<const CLI::Option*> positionals(const CLI::App& app) {
  return app.get_options([](const CLI::Option* option) { return option->get_positional(); });
}

std::vector<std::string> longNames(const CLI::Option* option) {
  std::vector<std::string> names;
  for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  for (const std::string& name : option->get_snames()) names.push_back("-" + name);
  return names;
}

// The tables the script's fixed part works from: for every scope (the
// program itself, named "", and each command) the options it offers, the
// type name of each option that takes a value, and its positionals' names,
// which say what they are as a type name does.
void writeTables(std::ostream& out, const CLI::App& app) {
  std::vector<std::string> commands;
  std::ostringstream offered;
  std::ostringstream valued;
  std::ostringstream positional;
  const auto scope = [&](const CLI::App& sub, const std::string& name) {
    std::string names;
    for (const CLI::Option* option : namedOptions(sub)) {
      for (const std::string& optionName : longNames(option)) {
        names += (names.empty() ? "" : " ") + optionName;
        if (option->get_type_size_max() > 0)
          valued << "    [" << quoted(name + ":" + optionName) << "]=" << quoted(option->get_type_name()) << '\n';
      }
    }
    offered << "    [" << quoted(name) << "]=" << quoted(names) << '\n';
    std::string types;
    for (const CLI::Option* option : positionals(sub)) types += (types.empty() ? "" : " ") + option->get_name();
    positional << "    [" << quoted(name) << "]=" << quoted(types) << '\n';
  };
  scope(app, "");
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
    commands.push_back(sub->get_name());
    scope(*sub, sub->get_name());
  }
  std::string commandList;
  for (const std::string& command : commands) commandList += (commandList.empty() ? "" : " ") + command;
  out << "  local commands=" << quoted(commandList) << "\n"
      << "  local -A offered=(\n" << offered.str() << "  )\n"
      << "  local -A valued=(\n" << valued.str() << "  )\n"
      << "  local -A positional=(\n" << positional.str() << "  )\n";
}

}  // namespace

std::string bashCompletion(const CLI::App& app, const Completions& completions) {
  const std::string program = app.get_name();
  const std::string function = functionName(program);
  std::ostringstream out;
  out << "# bash completion for " << program << ", generated from its command line definitions\n"
      << "# by `" << program << " --bash-completion`.\n\n"
      << function << "_offer() {\n"
      << "  local type=$1\n"
      << "  case $type in\n";
  for (const auto& [type, snippet] : completions) out << "    " << quoted(type) << ")\n" << snippet << "\n      ;;\n";
  out << "  esac\n}\n\n" << function << "() {\n";
  writeTables(out, app);
  // The line is split on white space up to the cursor rather than taken from
  // COMP_WORDS, which bash also breaks at ':' and '=' (addresses and store
  // paths hold colons).
  out << R"(  local line=${COMP_LINE:0:COMP_POINT}
  local -a words
  read -ra words <<<"$line"
  [[ -z $line || $line =~ [[:space:]]$ ]] && words+=("")
  local program=${words[0]} cur=${words[${#words[@]} - 1]}
  local command= type= ended=false word i last=$((${#words[@]} - 1))
  local -a options=() arguments=()
  for ((i = 1; i < last; i++)); do
    word=${words[i]}
    if ! $ended && [[ $word == -- ]]; then
      ended=true
    elif ! $ended && [[ $word == -* ]]; then
      local key=$command:$word
      [[ -v valued[$key] ]] || key=:$word
      if [[ -v valued[$key] && $word != *=* ]]; then
        if ((i + 1 == last)); then
          type=${valued[$key]}
        elif [[ $key == :* ]]; then
          options+=("$word" "${words[i + 1]}")
        fi
        ((i++))
      elif [[ $key == :* && $word == *=* ]]; then
        options+=("$word")
      fi
    elif [[ -z $command ]]; then
      command=$word
    else
      arguments+=("$word")
    fi
  done
  COMPREPLY=()
  if [[ -z $type && $cur == -* ]] && ! $ended; then
    local names=${offered[""]}
    [[ -n $command ]] && names="${offered[$command]} $names"
    mapfile -t COMPREPLY < <(compgen -W "$names" -- "$cur")
  elif [[ -n $type ]]; then
    )" << function << R"(_offer "$type"
  elif [[ -z $command ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$cur")
  elif [[ -v positional[$command] ]]; then
    local -a types
    read -ra types <<<"${positional[$command]}"
    ((${#arguments[@]} < ${#types[@]})) && )" << function << R"(_offer "${types[${#arguments[@]}]}"
  fi
  # bash replaces only what follows the last ':' of the word.
  if [[ $cur == *:* && $COMP_WORDBREAKS == *:* ]]; then
    local colon=${cur%"${cur##*:}"} n
    for n in "${!COMPREPLY[@]}"; do COMPREPLY[n]=${COMPREPLY[n]#"$colon"}; done
  fi
  return 0
}
complete -F )" << function << ' ' << program << '\n';
  return out.str();
}

}  // namespace VgwCommandLine
