#include "Ledger/ControlServer.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Kiln/Assert.h"
#include "Kiln/Log.h"

namespace Ledger {

namespace {

Kiln::LogHandle clientDropped(
    "KXT_CONTROL_CLIENT_DROPPED", Kiln::LogSeverity::warning, "Control socket %s: closed the connection of %s: %s",
    "A client of the agent's control socket did not read the changes it watches, and the agent closed its "
    "connection rather than hold an ever-growing backlog for it.",
    "Restart the watching client; if it falls behind again, watch a narrower path.", 0.0, 1.0, 0);
Kiln::LogHandle acceptFailed(
    "KXT_CONTROL_ACCEPT_FAILED", Kiln::LogSeverity::error, "Control socket %s: cannot accept a connection: %s",
    "The agent could not accept a connection on its control socket, most often because it has run out of file "
    "descriptors. It tries again a second later.",
    "Close idle control clients, or raise the agent's limit on open files.", 60.0, 1.0, 0);
Kiln::LogHandle staleSocket(
    "KXT_CONTROL_STALE_SOCKET", Kiln::LogSeverity::informational,
    "Control socket %s: replaced the socket file of a server that is gone",
    "An earlier agent left its control socket file behind; nothing answered on it, so the agent replaced it.", "",
    0.0, 1.0, 0);

constexpr std::size_t readChunkBytes = 64 * 1024;
// The parser keeps its own stack, but reading entities and writing replies
// recurse; a bound on nesting keeps one hostile line from exhausting the stack.
constexpr std::size_t maxNesting = 128;
constexpr double acceptRetrySeconds = 1.0;
constexpr std::array<std::string_view, 7> builtinOps = {"get", "set", "del", "load", "list", "watch", "unwatch"};

std::string errnoText(int error) { return std::strerror(error); }

ControlSocketError socketError(const std::string& path, const std::string& problem) {
  return ControlSocketError("control socket " + path + ": " + problem);
}

std::size_t nestingDepth(std::string_view text) {
  bool inString = false;
  bool escaped = false;
  std::size_t depth = 0;
  std::size_t deepest = 0;
  for (const char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      deepest = std::max(deepest, ++depth);
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return deepest;
}

Kiln::Json parseRequest(std::string_view line) {
  if (nestingDepth(line) > maxNesting)
    throw Kiln::JsonError("", "nested deeper than " + std::to_string(maxNesting) + " levels");
  try {
    return Kiln::Json::parse(line);
  } catch (const Kiln::Json::parse_error& e) {
    // Drop the library's "[json.exception.parse_error.101] " tag.
    std::string_view text = e.what();
    if (const auto tagEnd = text.find("] "); text.starts_with("[json.exception") && tagEnd != text.npos)
      text.remove_prefix(tagEnd + 2);
    throw Kiln::JsonError("", "not JSON: " + std::string(text));
  }
}

const Kiln::Json& requiredMember(const Kiln::Json& request, const char* name) {
  const auto it = request.find(name);
  if (it == request.end()) throw Kiln::JsonError("", "missing member " + Kiln::quoted(name));
  return *it;
}

const std::string& stringMember(const Kiln::Json& request, const char* name) {
  const Kiln::Json& value = requiredMember(request, name);
  if (!value.is_string())
    throw Kiln::JsonError("", "member " + Kiln::quoted(name) + " must be a string, got " + Kiln::jsonTypeName(value));
  return value.get_ref<const std::string&>();
}

std::string line(const Kiln::Json& message) {
  return message.dump(-1, ' ', false, Kiln::Json::error_handler_t::replace) + '\n';
}

std::string peerName(int fd) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return "a client";
  return "pid " + std::to_string(credentials.pid) + " uid " + std::to_string(credentials.uid);
}

sockaddr_un socketAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

const sockaddr* asSockaddr(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);  // NOLINT: the socket API's own cast
}

// Creates the directories leading to `path`, mode 0700 for those it makes.
void makeParentDirectories(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    const std::string dir = path.substr(0, slash);
    if (dir.ends_with('/')) continue;
    if (mkdir(dir.c_str(), 0700) == 0) {
      // The umask may have taken bits away; the mode is the promise.
      if (chmod(dir.c_str(), 0700) != 0) throw socketError(path, "cannot set the mode of " + dir + ": " + errnoText(errno));
      continue;
    }
    const int error = errno;
    struct stat st {};
    if (error == EEXIST && stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) continue;
    if (error == EEXIST) throw socketError(path, dir + " exists and is not a directory");
    throw socketError(path, "cannot create the directory " + dir + ": " + errnoText(error));
  }
}

// Removes a socket file on which nobody answers; refuses anything else.
void clearStaleSocket(const std::string& path, const sockaddr_un& address) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) {
    if (errno == ENOENT) return;
    throw socketError(path, errnoText(errno));
  }
  if (!S_ISSOCK(st.st_mode)) throw socketError(path, "exists and is not a socket; it is left alone");
  const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (probe < 0) throw socketError(path, "cannot make a socket: " + errnoText(errno));
  const int rc = connect(probe, asSockaddr(address), sizeof address);
  const int error = errno;
  close(probe);
  if (rc == 0 || error == EAGAIN || error == EINPROGRESS)
    throw socketError(path, "another server is answering on it");
  if (error != ECONNREFUSED) throw socketError(path, "cannot tell whether a server answers on it: " + errnoText(error));
  if (unlink(path.c_str()) != 0) throw socketError(path, "cannot remove the stale socket file: " + errnoText(errno));
  Kiln::log(staleSocket, path);
}

}  // namespace

std::string controlSocketPath() {
  const char* fromEnvironment = std::getenv("VGW_SOCKET");
  if (fromEnvironment && *fromEnvironment) return fromEnvironment;
  return std::string(defaultControlSocketPath);
}

// ---- one client ---------------------------------------------------------------------

class ControlServer::Connection final : public Kiln::PtrInterface {
 public:
  Connection(ControlServer& server, std::uint64_t id, int fd)
      : server_(&server),
        id_(id),
        fd_(fd),
        peer_(peerName(fd)),
        descriptor_(Kiln::newPtr<Kiln::FileDescriptor>("control client")),
        reactor_(*this) {
    descriptor_->descriptorIs(fd_);
    descriptor_->nonBlockingIs(true);
    reactor_.notifierIs(descriptor_);
    descriptor_->notifyOnReadableIs(true);
  }

  ~Connection() override {
    if (!dead_) {
      descriptor_->descriptorIs(-1);
      close(fd_);
    }
  }

  std::uint64_t id() const { return id_; }
  std::size_t watches() const { return watches_.size(); }
  std::size_t pending() const { return output_.size() - sent_; }
  void drop(const std::string& reason) {
    Kiln::Ptr<Connection> self(this);
    Kiln::log(clientDropped, server_->path_, peer_, reason);
    closeNow();
  }
  // The server goes first: the connection closes without reporting back.
  void serverGone() {
    server_ = nullptr;
    closeNow();
  }

  void watch(const std::string& path, const Kiln::Json& requestId) {
    const std::string key = Path::parse(path).text();
    if (watches_.contains(key)) throw Kiln::JsonError(path, "already watched on this connection");
    watches_[key] = server_->manager_->watch(path, [this, requestId](const std::string& changed, const Kiln::Json& value) {
      changeSeen(requestId, changed, value);
    });
  }

  void unwatch(const std::string& path) {
    if (watches_.erase(Path::parse(path).text()) == 0)
      throw Kiln::JsonError(path, "not watched on this connection");
  }

 private:
  class Reactor final : public Kiln::FileDescriptor::NotifieeConst {
   public:
    explicit Reactor(Connection& owner) : owner_(owner) {}
    void onReadable() override { owner_.onReadable(); }
    void onWritable() override { owner_.flush(); }

   private:
    Connection& owner_;
  };

  void onReadable() {
    Kiln::Ptr<Connection> self(this);
    std::array<char, readChunkBytes> buffer;
    ssize_t n;
    do {
      n = recv(fd_, buffer.data(), buffer.size(), 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
      if (errno != EAGAIN && errno != EWOULDBLOCK) closeNow();
      return;
    }
    if (n == 0) {
      inputEnded_ = true;
      descriptor_->notifyOnReadableIs(false);
      processInput();
      return;
    }
    input_.append(buffer.data(), static_cast<std::size_t>(n));
    processInput();
  }

  // Answers the complete lines of the input while the client reads what it
  // is sent. Once the client has closed its side, the rest of the input is
  // answered and the connection closes when the output is out.
  void processInput() {
    const std::size_t limit = server_->limits_.maxRequestBytes;
    std::size_t start = 0;
    bool exhausted = false;  // no newline after start
    while (!dead_ && !closing_ && pending() < server_->limits_.readPauseBytes) {
      const std::size_t newline = input_.find('\n', std::max(start, scanned_));
      if (newline == std::string::npos) {
        exhausted = true;
        break;
      }
      if (newline - start > limit) {
        refuseOversize();
        return;
      }
      handleLine(std::string_view(input_).substr(start, newline - start));
      start = newline + 1;
    }
    if (dead_ || closing_) return;
    input_.erase(0, start);
    scanned_ = exhausted ? input_.size() : 0;
    if (exhausted && input_.size() > limit) {
      refuseOversize();
      return;
    }
    if (!inputEnded_) {
      descriptor_->notifyOnReadableIs(pending() < server_->limits_.readPauseBytes);
      return;
    }
    if (!exhausted) return;
    // A last request without its newline still counts.
    handleLine(input_);
    if (dead_) return;
    input_.clear();
    watches_.clear();
    closing_ = true;
    flush();
  }

  void refuseOversize() {
    queue(line({{"id", nullptr},
                {"ok", false},
                {"error", "request line longer than " + std::to_string(server_->limits_.maxRequestBytes) +
                              " bytes; closing the connection"}}));
    input_.clear();
    watches_.clear();
    closing_ = true;
    descriptor_->notifyOnReadableIs(false);
  }

  void handleLine(std::string_view text) {
    if (text.ends_with('\r')) text.remove_suffix(1);
    if (text.find_first_not_of(" \t") == std::string_view::npos) return;
    Kiln::Json id;
    Kiln::Json reply;
    try {
      const Kiln::Json request = parseRequest(text);
      if (!request.is_object())
        throw Kiln::JsonError("", "a request is a JSON object, got " + Kiln::jsonTypeName(request));
      if (const auto it = request.find("id"); it != request.end()) id = *it;
      Kiln::Json value = server_->perform(*this, request);
      reply = {{"id", id}, {"ok", true}, {"value", std::move(value)}};
    } catch (const std::exception& e) {
      reply = {{"id", id}, {"ok", false}, {"error", e.what()}};
    }
    // The request may have ended this connection (its own watch overflowed).
    if (!dead_) queue(line(reply));
  }

  void changeSeen(const Kiln::Json& requestId, const std::string& path, const Kiln::Json& value) {
    if (dead_ || closing_) return;
    std::string text = line({{"id", requestId}, {"event", "change"}, {"path", path}, {"value", value}});
    if (pending() + text.size() > server_->limits_.maxPendingOutputBytes) {
      drop("more than " + std::to_string(server_->limits_.maxPendingOutputBytes) + " bytes of watched changes unread");
      return;
    }
    Kiln::Ptr<Connection> self(this);
    server_->makeRoom(text.size());
    if (dead_) return;
    queue(std::move(text));
  }

  void queue(std::string text) {
    output_ += text;
    descriptor_->notifyOnWritableIs(true);
  }

  void flush() {
    Kiln::Ptr<Connection> self(this);
    while (sent_ < output_.size()) {
      const ssize_t n = send(fd_, output_.data() + sent_, output_.size() - sent_, MSG_NOSIGNAL);
      if (n < 0) {
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) break;
        closeNow();  // the client went away
        return;
      }
      sent_ += static_cast<std::size_t>(n);
    }
    if (sent_ == output_.size()) {
      output_.clear();
      sent_ = 0;
      descriptor_->notifyOnWritableIs(false);
      if (closing_) {
        closeNow();
        return;
      }
    } else if (sent_ >= readChunkBytes && sent_ * 2 >= output_.size()) {
      output_.erase(0, sent_);
      sent_ = 0;
    }
    // Requests held back while the output was high may go on now.
    if (!closing_ && pending() < server_->limits_.readPauseBytes) processInput();
  }

  void closeNow() {
    if (dead_) return;
    Kiln::Ptr<Connection> self(this);
    dead_ = true;
    watches_.clear();
    descriptor_->descriptorIs(-1);
    close(fd_);
    fd_ = -1;
    input_.clear();
    output_.clear();
    sent_ = 0;
    if (server_) server_->dropped(*this);
  }

  ControlServer* server_;
  std::uint64_t id_;
  int fd_;
  std::string peer_;
  Kiln::Ptr<Kiln::FileDescriptor> descriptor_;
  Reactor reactor_;
  std::string input_;
  std::size_t scanned_ = 0;  // input_ holds no newline before this
  std::string output_;
  std::size_t sent_ = 0;
  bool inputEnded_ = false;  // the client closed its side
  bool closing_ = false;     // close once the output is sent; answer nothing more
  bool dead_ = false;
  std::map<std::string, std::unique_ptr<Watch>> watches_;  // by canonical path
};

// ---- the listening socket ---------------------------------------------------------

class ControlServer::ListenReactor final : public Kiln::FileDescriptor::NotifieeConst {
 public:
  explicit ListenReactor(ControlServer& server) : server_(server) { retry_.owner = this; }
  void onReadable() override { server_.accept(); }

  // Out of descriptors, the socket stays readable; listening pauses for a
  // while instead of spinning on the failure.
  void pause() {
    server_.listenDescriptor_->notifyOnReadableIs(false);
    retry_.notifierIs(Kiln::EventLoop::current().clock());
    retry_.timeMinIs(Kiln::System::currentTime() + acceptRetrySeconds);
  }

 private:
  struct Retry final : Kiln::Clock::NotifieeConst {
    ListenReactor* owner = nullptr;
    void onTimeMin() override { owner->server_.listenDescriptor_->notifyOnReadableIs(true); }
  };
  ControlServer& server_;
  Retry retry_;
};

ControlServer::ControlServer(Kiln::Ptr<EntityManager> manager, ControlServerLimits limits)
    : manager_(std::move(manager)), limits_(limits) {}

ControlServer::~ControlServer() {
  // Closing a connection may run reactors; each leaves the map only here.
  auto connections = std::move(connections_);
  for (auto& [id, connection] : connections) connection->serverGone();
  listenReactor_.reset();
  if (listenFd_ < 0) return;
  listenDescriptor_->descriptorIs(-1);
  close(listenFd_);
  struct stat st {};
  if (lstat(path_.c_str(), &st) == 0 && st.st_dev == socketDevice_ && st.st_ino == socketInode_)
    unlink(path_.c_str());
}

void ControlServer::listen(const std::string& path) {
  KILN_ASSERT(listenFd_ < 0, "control server listening twice");
  sockaddr_un address{};
  if (path.empty()) throw ControlSocketError("control socket: the path is empty");
  if (path.size() >= sizeof address.sun_path)
    throw socketError(path, "longer than the " + std::to_string(sizeof address.sun_path - 1) +
                                " bytes a Unix socket path may have");
  address = socketAddress(path);
  makeParentDirectories(path);
  clearStaleSocket(path, address);

  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) throw socketError(path, "cannot make a socket: " + errnoText(errno));
  // Nobody but the owner may connect, from the first moment the file exists.
  const mode_t oldMask = umask(0177);
  const int bound = bind(fd, asSockaddr(address), sizeof address);
  const int bindError = errno;
  umask(oldMask);
  if (bound != 0) {
    close(fd);
    throw socketError(path, "cannot bind: " + errnoText(bindError));
  }
  struct stat st {};
  if (chmod(path.c_str(), 0600) != 0 || ::listen(fd, SOMAXCONN) != 0 || stat(path.c_str(), &st) != 0) {
    const int error = errno;
    close(fd);
    unlink(path.c_str());
    throw socketError(path, errnoText(error));
  }
  listenFd_ = fd;
  path_ = path;
  socketDevice_ = st.st_dev;
  socketInode_ = st.st_ino;
  listenDescriptor_ = Kiln::newPtr<Kiln::FileDescriptor>("control socket");
  listenDescriptor_->descriptorIs(fd);
  listenDescriptor_->nonBlockingIs(true);
  listenReactor_ = std::make_unique<ListenReactor>(*this);
  listenReactor_->notifierIs(listenDescriptor_);
  listenDescriptor_->notifyOnReadableIs(true);
}

void ControlServer::opIs(const std::string& name, OpHandler handler) {
  KILN_ASSERT(std::find(builtinOps.begin(), builtinOps.end(), name) == builtinOps.end(),
              "a built-in control operation cannot be replaced");
  if (handler) {
    ops_[name] = std::move(handler);
  } else {
    ops_.erase(name);
  }
}

std::size_t ControlServer::watches() const {
  std::size_t count = 0;
  for (const auto& [id, connection] : connections_) count += connection->watches();
  return count;
}

void ControlServer::accept() {
  // A bounded batch per turn, so that a flood of clients cannot starve the
  // rest of the loop.
  for (int i = 0; i < 64; ++i) {
    const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      const int error = errno;
      if (error == EINTR || error == ECONNABORTED) continue;
      if (error == EAGAIN || error == EWOULDBLOCK) return;
      Kiln::log(acceptFailed, path_, errnoText(error));
      listenReactor_->pause();
      return;
    }
    const std::uint64_t id = nextConnection_++;
    connections_.emplace(id, Kiln::newPtr<Connection>(*this, id, fd));
  }
}

void ControlServer::dropped(Connection& connection) { connections_.erase(connection.id()); }

void ControlServer::makeRoom(std::size_t bytes) {
  while (true) {
    std::size_t total = bytes;
    Connection* slowest = nullptr;
    for (const auto& [id, connection] : connections_) {
      total += connection->pending();
      if (connection->watches() > 0 && (!slowest || connection->pending() > slowest->pending()))
        slowest = connection.get();
    }
    if (total <= limits_.maxTotalPendingOutputBytes || !slowest || slowest->pending() == 0) return;
    slowest->drop("the slowest watcher, while the unread output of all clients passed " +
                  std::to_string(limits_.maxTotalPendingOutputBytes) + " bytes");
  }
}

Kiln::Json ControlServer::perform(Connection& connection, const Kiln::Json& request) {
  const std::string& op = stringMember(request, "op");
  if (op == "get") return manager_->read(stringMember(request, "path"));
  if (op == "set") {
    manager_->write(stringMember(request, "path"), requiredMember(request, "value"), Writer::external);
    return nullptr;
  }
  if (op == "del") {
    manager_->remove(stringMember(request, "path"), Writer::external);
    return nullptr;
  }
  if (op == "load") {
    manager_->loadDocument(requiredMember(request, "document"));
    return nullptr;
  }
  if (op == "list") return manager_->list(stringMember(request, "path"));
  if (op == "watch") {
    connection.watch(stringMember(request, "path"), request.value("id", Kiln::Json()));
    return nullptr;
  }
  if (op == "unwatch") {
    connection.unwatch(stringMember(request, "path"));
    return nullptr;
  }
  if (const auto it = ops_.find(op); it != ops_.end()) {
    // The handler may remove itself; it runs from a copy.
    const OpHandler handler = it->second;
    return handler(request);
  }
  std::string known;
  for (const std::string_view name : builtinOps) known += std::string(known.empty() ? "" : ", ") + std::string(name);
  for (const auto& [name, handler] : ops_) known += ", " + name;
  throw Kiln::JsonError("", "unknown op " + Kiln::quoted(op) + "; the ops are " + known);
}

}  // namespace Ledger
