// vgwctl: the operator's command line to a running vgw-agent.
//
// It sends one request over the agent's control socket (see
// Ledger/ControlServer.h for the protocol) and prints the answer: data on
// standard output, messages on standard error. Exit status: 0 when the
// command was carried out, 1 when the agent refused it or stopped answering,
// 2 on a usage error, input that cannot be read, or a socket that cannot be
// reached. The command line is declared once, in defineCommandLine(): its
// --help, its manual page and its bash completion are made from there.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "BashCompletion.h"
#include "CommandLine.h"
#include "Kiln/Json.h"
#include "Ledger/ControlServer.h"

namespace {

using Kiln::Json;

constexpr int exitOk = VgwCommandLine::exitOk;
constexpr int exitRefused = 1;
constexpr int exitUsage = VgwCommandLine::exitUsage;
// Longest value in a `show` table cell, in characters.
constexpr std::size_t cellWidth = 64;

// A failure that ends the command with an exit status and a message.
struct Failure {
  int status;
  std::string message;
  bool pointToHelp = false;
};

[[noreturn]] void fail(int status, std::string message) { throw Failure{status, std::move(message)}; }
[[noreturn]] void usageError(std::string message) { throw Failure{exitUsage, std::move(message), true}; }

struct Options {
  std::string socket = Ledger::controlSocketPath();
  double timeout = 30.0;
  std::string command;
  std::string path;  // also load's FILE
  std::string value;
  bool compact = false;
  bool json = false;
  // --compact and --json given before the command, where they were always
  // accepted; they must still fit the command that follows.
  bool compactBefore = false;
  bool jsonBefore = false;
};

// ---- talking to the agent -------------------------------------------------------

class Connection {
 public:
  Connection(const std::string& path, double timeout) : path_(path), timeout_(timeout) {
    sockaddr_un address{};
    if (path.size() >= sizeof address.sun_path)
      fail(exitUsage, "cannot reach the agent at " + path + ": the path is too long for a Unix socket");
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) fail(exitUsage, std::string("cannot make a socket: ") + std::strerror(errno));
    if (connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)  // NOLINT
      fail(exitUsage, "cannot reach the agent at " + path + ": " + std::strerror(errno));
  }
  ~Connection() {
    if (fd_ >= 0) close(fd_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void send(const Json& request) {
    const std::string text = request.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
    for (std::size_t sent = 0; sent < text.size();) {
      const ssize_t n = ::send(fd_, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) fail(exitRefused, "lost the connection to the agent at " + path_ + ": " + std::strerror(errno));
      sent += static_cast<std::size_t>(n);
    }
  }

  // The next message; `limited` applies the timeout.
  Json receive(bool limited) {
    std::size_t newline;
    std::size_t scanned = 0;
    while ((newline = buffer_.find('\n', scanned)) == std::string::npos) {
      scanned = buffer_.size();
      if (limited && timeout_ > 0) waitReadable();
      char chunk[65536];
      const ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) fail(exitRefused, "lost the connection to the agent at " + path_ + ": " + std::strerror(errno));
      if (n == 0) fail(exitRefused, "the agent at " + path_ + " closed the connection");
      buffer_.append(chunk, static_cast<std::size_t>(n));
    }
    const std::string text = buffer_.substr(0, newline);
    buffer_.erase(0, newline + 1);
    Json message = Json::parse(text, nullptr, false);
    if (!message.is_object()) fail(exitRefused, "unreadable answer from the agent: " + text);
    return message;
  }

  // The value of the answer to `request`; a refusal ends the command.
  Json call(Json request) {
    request["id"] = 1;
    send(request);
    Json reply = receive(true);
    if (reply.value("ok", false)) return reply.value("value", Json());
    const Json error = reply.value("error", Json("the agent refused without saying why"));
    fail(exitRefused, error.is_string() ? error.get<std::string>() : error.dump());
  }

 private:
  void waitReadable() {
    pollfd p{fd_, POLLIN, 0};
    const int ms = static_cast<int>(std::min(timeout_ * 1000.0, 2147483647.0));
    int rc;
    do {
      rc = poll(&p, 1, ms);
    } while (rc < 0 && errno == EINTR);
    if (rc == 0) {
      std::ostringstream seconds;
      seconds << timeout_;
      fail(exitRefused, "no answer from the agent at " + path_ + " within " + seconds.str() + " s");
    }
  }

  std::string path_;
  double timeout_;
  int fd_ = -1;
  std::string buffer_;
};

// ---- values given on the command line -----------------------------------------------

Json parseValue(const std::string& text) {
  Json value = Json::parse(text, nullptr, false);
  if (!value.is_discarded()) return value;
  const bool bareWord = !text.empty() && text.find_first_of(" \t\r\n\"',{}[]") == std::string::npos;
  if (bareWord) return text;
  usageError("the value is neither JSON nor a bare word: " + text);
}

Json readDocument(const std::string& file) {
  std::string text;
  if (file == "-") {
    text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  } else {
    std::ifstream in(file, std::ios::binary);
    if (!in) fail(exitUsage, "cannot read " + file + ": " + std::strerror(errno));
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  try {
    return Json::parse(text);
  } catch (const Json::parse_error& e) {
    fail(exitUsage, file + " is not JSON: " + e.what());
  }
}

// ---- the show table ----------------------------------------------------------------

// One line of text for a table cell: strings as they are, anything else as
// compact JSON; control characters become blanks and long texts are cut.
std::string cell(const Json& value) {
  std::string text = value.is_string() ? value.get<std::string>()
                                       : value.dump(-1, ' ', false, Json::error_handler_t::replace);
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
  }
  std::size_t characters = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xc0) == 0x80) continue;  // inside a UTF-8 sequence
    if (++characters > cellWidth - 3) {
      // Cut only if what follows is longer than the ellipsis.
      std::size_t rest = 0;
      for (std::size_t j = i; j < text.size(); ++j) rest += (static_cast<unsigned char>(text[j]) & 0xc0) != 0x80;
      if (rest > 3) return text.substr(0, i) + "...";
      break;
    }
  }
  return text;
}

std::size_t displayWidth(std::string_view text) {
  std::size_t width = 0;
  for (const char c : text) width += (static_cast<unsigned char>(c) & 0xc0) != 0x80;
  return width;
}

// Sections of key/value pairs, whatever the agent puts in them.
void printTable(const Json& summary) {
  if (!summary.is_object()) {
    std::cout << cell(summary) << '\n';
    return;
  }
  bool first = true;
  for (const auto& [name, section] : summary.items()) {
    if (!section.is_object()) {
      std::cout << (first ? "" : "\n") << name << ": " << cell(section) << '\n';
      first = false;
      continue;
    }
    std::cout << (first ? "" : "\n") << name << ":\n";
    first = false;
    std::size_t width = 0;
    for (const auto& [key, value] : section.items()) width = std::max(width, displayWidth(key));
    for (const auto& [key, value] : section.items())
      std::cout << "  " << key << std::string(width - displayWidth(key) + 2, ' ') << cell(value) << '\n';
    if (section.empty()) std::cout << "  (none)\n";
  }
}

// ---- the command line ----------------------------------------------------------------

constexpr const char* valueHelp =
    "VALUE is JSON text. For convenience a bare word is taken as a string when it\n"
    "is not valid JSON and holds no white space and none of  \" ' , { } [ ]  so\n"
    "10.0.0.1, 00:1c:73:00:00:01, ssl:10.0.0.1:6640 and /run/db.sock are strings.\n"
    "Quote what would read as JSON otherwise: '\"123\"', '\"true\"'.\n";

constexpr const char* pathHelp =
    "A PATH is names separated by '/'; a '/' or '%' inside a name is written %2F\n"
    "or %25 (Ethernet1%2F1).\n";

// What the bash completion offers: files for FILE and SOCKET, and for a
// PATH the names the agent lists below what is typed so far.
const VgwCommandLine::Completions completions = {
    {"FILE", R"(      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$cur"))"},
    {"SOCKET", R"(      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$cur"))"},
    {"PATH", R"(      local dir= name candidate
      [[ $cur == */* ]] && dir=${cur%/*}
      while IFS= read -r name; do
        name=${name//%/%25}
        candidate=${dir:+$dir/}${name//\//%2F}
        [[ $candidate == "$cur"* ]] && COMPREPLY+=("$candidate")
      done < <("$program" --timeout 2 "${options[@]}" list "$dir" 2>/dev/null)
      # A single match with names below it is completed up to its '/'.
      if ((${#COMPREPLY[@]} == 1)) &&
        [[ -n $("$program" --timeout 2 "${options[@]}" list "${COMPREPLY[0]}" 2>/dev/null) ]]; then
        COMPREPLY[0]+=/
        compopt -o nospace 2>/dev/null
      fi)"},
};

// The commands and options, declared once: parsing, --help, the manual page
// and the bash completion all come from here. The type names PATH (a store
// path), FILE and SOCKET tell the completion what to offer.
void defineCommandLine(CLI::App& app, Options& o) {
  VgwCommandLine::prepare(app, VGW_VERSION);
  app.set_help_all_flag("--help-all", "print this help with every command's options and exit");
  app.require_subcommand(1);
  // As with most tools, the last of a repeated option counts.
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  // The program's options may also follow the command.
  app.fallthrough();
  app.add_option("--socket", o.socket,
                 "the agent's control socket (default: $VGW_SOCKET, else " +
                     std::string(Ledger::defaultControlSocketPath) + ")")
      ->type_name("SOCKET")
      ->check(VgwCommandLine::nonEmpty);
  const CLI::Validator seconds(
      [](const std::string& text) {
        char* end = nullptr;
        const double value = std::strtod(text.c_str(), &end);
        if (text.empty() || *end != '\0' || !std::isfinite(value) || value < 0)
          return "needs a number of seconds, got \"" + text + "\"";
        return std::string();
      },
      "", "seconds");
  app.add_option("--timeout", o.timeout, "how long to wait for an answer, in seconds (0: no limit)")
      ->type_name("SECONDS")
      ->check(seconds)
      ->capture_default_str();
  app.add_flag("--compact", o.compactBefore)->group("");
  app.add_flag("--json", o.jsonBefore)->group("");

  const auto command = [&](const std::string& name, const std::string& description) {
    CLI::App* sub = app.add_subcommand(name, description);
    sub->group("Commands");
    // One help flag per command is enough; --help-all is the program's.
    sub->set_help_all_flag();
    sub->callback([&o, name] { o.command = name; });
    return sub;
  };
  const auto optionalPath = [&](CLI::App* sub, const std::string& description) {
    VgwCommandLine::addPositional(*sub, "PATH", o.path, description);
    sub->footer(pathHelp);
  };

  CLI::App* get = command("get", "print the JSON at PATH, the whole store when PATH is left out");
  optionalPath(get, "where to read");
  get->add_flag("--compact", o.compact, "print the JSON on one line");

  CLI::App* set = command("set", "replace the entity, attribute or member at PATH");
  VgwCommandLine::addPositional(*set, "PATH", o.path, "what to replace")->required();
  VgwCommandLine::addPositional(*set, "VALUE", o.value, "its new value")->required();
  set->footer(std::string(valueHelp) + '\n' + pathHelp);

  CLI::App* del = command("del", "remove the entry, member or child at PATH");
  VgwCommandLine::addPositional(*del, "PATH", o.path, "what to remove")->required();
  del->footer(pathHelp);

  CLI::App* load = command("load", "apply a configuration document: an object from path to entity JSON");
  VgwCommandLine::addPositional(*load, "FILE", o.path, "the document (\"-\": standard input)")->required();

  optionalPath(command("list", "print the names below PATH, one per line"), "where to look");
  optionalPath(command("watch", "print \"PATH VALUE\" for every change at or below PATH until interrupted"),
               "what to watch");

  CLI::App* show = command("show", "print the agent's summary as a table");
  show->add_flag("--json", o.json, "print the summary as a JSON object");

  app.footer(std::string(pathHelp) +
             "\nExit status: 0 done; 1 the agent refused or did not answer; 2 usage errors,\n"
             "unreadable input, or a socket that cannot be reached.\n");
  app.add_flag_callback(
         "--bash-completion",
         [&app] {
           std::cout << VgwCommandLine::bashCompletion(app, completions);
           throw CLI::Success();
         })
      ->group("")
      ->trigger_on_parse();
}

// ---- commands ----------------------------------------------------------------------

void watch(Connection& agent, const std::string& path) {
  agent.call({{"op", "watch"}, {"path", path}});
  for (;;) {
    const Json message = agent.receive(false);
    if (message.value("event", "") != "change") {
      const Json error = message.value("error", Json(message.dump()));
      fail(exitRefused, error.is_string() ? error.get<std::string>() : error.dump());
    }
    std::cout << message.value("path", "") << ' '
              << message.value("value", Json()).dump(-1, ' ', false, Json::error_handler_t::replace) << std::endl;
  }
}

int run(const Options& o) {
  if (o.compactBefore && o.command != "get") usageError("--compact applies to get only");
  if (o.jsonBefore && o.command != "show") usageError("--json applies to show only");
  Json request;
  if (o.command == "set") {
    request = {{"op", "set"}, {"path", o.path}, {"value", parseValue(o.value)}};
  } else if (o.command == "load") {
    request = {{"op", "load"}, {"document", readDocument(o.path)}};
  } else if (o.command == "show") {
    request = {{"op", "show"}};
  } else {
    request = {{"op", o.command}, {"path", o.path}};
  }

  Connection agent(o.socket, o.timeout);
  if (o.command == "watch") watch(agent, o.path);
  const Json value = agent.call(request);
  if (o.command == "get") {
    const bool compact = o.compact || o.compactBefore;
    std::cout << value.dump(compact ? -1 : 2, ' ', false, Json::error_handler_t::replace) << '\n';
  } else if (o.command == "list") {
    for (const Json& name : value) std::cout << (name.is_string() ? name.get<std::string>() : name.dump()) << '\n';
  } else if (o.command == "show") {
    if (o.json || o.jsonBefore) {
      std::cout << value.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
    } else {
      printTable(value);
    }
  }
  std::cout.flush();
  return std::cout ? exitOk : exitRefused;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Reads, writes and watches the state store of a running vgw-agent.", "vgwctl");
  Options options;
  defineCommandLine(app, options);
  if (const auto status = VgwCommandLine::parse(app, argc, argv)) return *status;
  try {
    return run(options);
  } catch (const Failure& failure) {
    if (failure.pointToHelp) return VgwCommandLine::usageError(app, failure.message);
    std::cerr << "vgwctl: " << failure.message << '\n';
    return failure.status;
  }
}
