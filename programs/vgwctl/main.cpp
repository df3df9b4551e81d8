// vgwctl: the operator's command line to a running vgw-agent.
//
// It sends one request over the agent's control socket (see
// Ledger/ControlServer.h for the protocol) and prints the answer: data on
// standard output, messages on standard error. Exit status: 0 when the
// command was carried out, 1 when the agent refused it or stopped answering,
// 2 on a usage error, input that cannot be read, or a socket that cannot be
// reached. The usage text below is the command's manual.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Kiln/Json.h"
#include "Ledger/ControlServer.h"

namespace {

using Kiln::Json;

constexpr const char* usageText = R"(usage: vgwctl [OPTIONS] COMMAND [ARGS]
Reads, writes and watches the state store of a running vgw-agent.

Commands:
  get [PATH]         print the JSON at PATH, the whole store when PATH is left
                     out (pretty; --compact prints one line)
  set PATH VALUE     replace the entity, attribute or member at PATH
  del PATH           remove the entry, member or child at PATH
  load FILE          apply a configuration document: an object from path to
                     entity JSON ("-" reads standard input)
  list [PATH]        print the names below PATH, one per line
  watch [PATH]       print "PATH VALUE" for every change at or below PATH,
                     one line each, until interrupted
  show               print the agent's summary as a table (--json: the object)

VALUE is JSON text. For convenience a bare word is taken as a string when it
is not valid JSON and holds no white space and none of  " ' , { } [ ]  so
10.0.0.1, 00:1c:73:00:00:01, ssl:10.0.0.1:6640 and /run/db.sock are strings.
Quote what would read as JSON otherwise: '"123"', '"true"'.

A path is names separated by '/'; a '/' or '%' inside a name is written %2F
or %25 (Ethernet1%2F1).

Options:
  --socket PATH      the agent's control socket (default: $VGW_SOCKET, else
                     /run/vgw/vgw-agent.sock)
  --timeout SECONDS  how long to wait for an answer (default 30; 0: no limit)
  --compact          get: print the JSON on one line
  --json             show: print the raw JSON object
  --help, --version

Exit status: 0 done; 1 the agent refused or did not answer; 2 usage errors,
unreadable input, or a socket that cannot be reached.
)";

constexpr int exitOk = 0;
constexpr int exitRefused = 1;
constexpr int exitUsage = 2;
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
  bool compact = false;
  bool json = false;
  std::vector<std::string> words;  // the command and its arguments
};

bool isOption(std::string_view arg) {
  // "-" is standard input, "-5" a negative number.
  return arg.size() > 1 && arg[0] == '-' && !(arg[1] >= '0' && arg[1] <= '9');
}

Options parseOptions(int argc, char** argv) {
  Options options;
  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (optionsEnded || !isOption(arg)) {
      options.words.emplace_back(arg);
      continue;
    }
    const std::size_t equals = arg.find('=');
    const std::string_view name = arg.substr(0, equals);
    auto valueOf = [&]() -> std::string {
      if (equals != std::string_view::npos) return std::string(arg.substr(equals + 1));
      if (i + 1 >= argc) usageError(std::string(name) + " needs a value");
      return argv[++i];
    };
    if (arg == "--") {
      optionsEnded = true;
    } else if (arg == "--help" || arg == "-h") {
      std::cout << usageText;
      std::exit(exitOk);
    } else if (arg == "--version") {
      std::cout << "vgwctl " << VGW_VERSION << '\n';
      std::exit(exitOk);
    } else if (name == "--socket") {
      options.socket = valueOf();
      if (options.socket.empty()) usageError("--socket needs a path");
    } else if (name == "--timeout") {
      const std::string text = valueOf();
      char* end = nullptr;
      options.timeout = std::strtod(text.c_str(), &end);
      if (text.empty() || *end != '\0' || !std::isfinite(options.timeout) || options.timeout < 0)
        usageError("--timeout needs a number of seconds, got \"" + text + "\"");
    } else if (arg == "--compact") {
      options.compact = true;
    } else if (arg == "--json") {
      options.json = true;
    } else {
      usageError("unknown option " + std::string(arg));
    }
  }
  return options;
}

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

// ---- commands ----------------------------------------------------------------------

void requireArgs(const Options& o, std::size_t least, std::size_t most) {
  const std::size_t given = o.words.size() - 1;
  if (given < least || given > most) usageError("wrong number of arguments for " + o.words[0]);
}

std::string pathArg(const Options& o) { return o.words.size() > 1 ? o.words[1] : std::string(); }

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
  if (o.words.empty()) usageError("no command given");
  const std::string& command = o.words[0];
  if (o.compact && command != "get") usageError("--compact applies to get only");
  if (o.json && command != "show") usageError("--json applies to show only");
  Json request;
  if (command == "get" || command == "list" || command == "watch") {
    requireArgs(o, 0, 1);
    request = {{"op", command}, {"path", pathArg(o)}};
  } else if (command == "set") {
    requireArgs(o, 2, 2);
    request = {{"op", "set"}, {"path", o.words[1]}, {"value", parseValue(o.words[2])}};
  } else if (command == "del") {
    requireArgs(o, 1, 1);
    request = {{"op", "del"}, {"path", o.words[1]}};
  } else if (command == "load") {
    requireArgs(o, 1, 1);
    request = {{"op", "load"}, {"document", readDocument(o.words[1])}};
  } else if (command == "show") {
    requireArgs(o, 0, 0);
    request = {{"op", "show"}};
  } else {
    usageError("unknown command " + command);
  }

  Connection agent(o.socket, o.timeout);
  if (command == "watch") watch(agent, pathArg(o));
  const Json value = agent.call(request);
  if (command == "get") {
    std::cout << value.dump(o.compact ? -1 : 2, ' ', false, Json::error_handler_t::replace) << '\n';
  } else if (command == "list") {
    for (const Json& name : value) std::cout << (name.is_string() ? name.get<std::string>() : name.dump()) << '\n';
  } else if (command == "show") {
    if (o.json) {
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
  try {
    return run(parseOptions(argc, argv));
  } catch (const Failure& failure) {
    std::cerr << "vgwctl: " << failure.message << '\n';
    if (failure.pointToHelp) std::cerr << "Try 'vgwctl --help'.\n";
    return failure.status;
  }
}
