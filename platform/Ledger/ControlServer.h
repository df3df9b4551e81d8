// Ledger::ControlServer: the control socket through which operators and
// scripts (vgwctl) read, write and watch the state store of a running agent.
//
// The server listens on a Unix stream socket and serves every client on the
// process's event loop, with non-blocking descriptors only: no call made on
// the loop ever waits for a client. The protocol is newline-delimited JSON.
// A request is one line holding an object with "op" and, optionally, "id",
// which every line answering it echoes (null when the request gave none or
// could not be read):
//   {"id":..,"ok":true,"value":...}      the request was carried out
//   {"id":..,"ok":false,"error":"..."}   it was refused; the text names the
//                                        problem and the store is unchanged
// Operations, with their members:
//   get    {path}          the JSON at a path (EntityManager::read)
//   set    {path, value}   replaces an entity, an attribute or a member
//   del    {path}          removes an entry, a member or a child
//   load   {document}      a configuration document (loadDocument)
//   list   {path}          the names below a path, as an array
//   watch  {path}          an ok reply, then one line per change at or below
//                          the path: {"id":..,"event":"change","path":..,
//                          "value":..} with the id of the watch request,
//                          until `unwatch` {path} or the client closes
//   and the operations the embedding program adds with opIs().
// Writes are made as Writer::external, so paths the agent owns ("w", "wi"
// mounts) are refused with the store's message, and every accepted write
// reaches the entities through their setters: reactors run exactly as for
// any other writer.
//
// A client's mistakes stay the client's: a line that is not JSON, not an
// object, lacks a member or has one of the wrong type, names an unknown
// operation or path, or gives a value of the wrong type gets an error reply,
// and the connection stays open. Two bounds protect the process:
//   - a request line longer than maxRequestBytes gets an error reply, and the
//     connection is closed once that reply is sent;
//   - a connection whose unsent output would pass maxPendingOutputBytes
//     because of watch events (a watcher that does not read) is closed with
//     a log line. Replies to requests never do that: the server stops
//     reading a client's requests while readPauseBytes of its output are
//     unsent, so a client that pipelines requests slows down instead;
//   - when a watch event would bring the unsent output of all connections
//     together past maxTotalPendingOutputBytes, the watcher with the most
//     unsent output (the slowest) is closed with a log line first, so that
//     many slow watchers cannot add up to what one may not hold.
//
// The socket file: listen() creates missing parent directories with mode
// 0700 and the socket with mode 0600. A socket file at the path on which no
// server answers (left by a process that died) is removed and replaced; a
// path on which a server answers, or that is not a socket, is refused. The
// destructor closes every connection and removes the socket file when it is
// still the one the server made.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Kiln/EventLoop.h"
#include "Kiln/Json.h"
#include "Ledger/EntityManager.h"

namespace Ledger {

// Where the agent's control socket is when nobody says otherwise.
inline constexpr std::string_view defaultControlSocketPath = "/run/vgw/vgw-agent.sock";
// VGW_SOCKET from the environment when set and not empty, else the default;
// the agent and vgwctl both take their default from here.
std::string controlSocketPath();

// A control socket that cannot be set up; the text names the path.
class ControlSocketError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct ControlServerLimits {
  std::size_t maxRequestBytes = std::size_t{16} << 20;
  std::size_t maxPendingOutputBytes = std::size_t{64} << 20;
  std::size_t readPauseBytes = std::size_t{1} << 20;
  std::size_t maxTotalPendingOutputBytes = std::size_t{256} << 20;
};

class ControlServer {
 public:
  // Answers one request of an added operation with the reply's value. It
  // refuses by throwing Kiln::JsonError (or any std::exception), whose text
  // becomes the error reply.
  using OpHandler = std::function<Kiln::Json(const Kiln::Json& request)>;

  explicit ControlServer(Kiln::Ptr<EntityManager> manager, ControlServerLimits limits = {});
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Binds and listens on `path` (see the socket file rules above). Throws
  // ControlSocketError, leaving no socket file behind, when that cannot be
  // done.
  void listen(const std::string& path);
  const std::string& path() const { return path_; }

  // Adds the operation `name`; a null handler removes it. The built-in
  // operations cannot be replaced.
  void opIs(const std::string& name, OpHandler handler);

  std::size_t connections() const { return connections_.size(); }
  std::size_t watches() const;

 private:
  class Connection;
  class ListenReactor;
  friend class Connection;

  void accept();
  void dropped(Connection& connection);
  // Makes room for `bytes` more of watched changes within the total bound,
  // closing the slowest watchers.
  void makeRoom(std::size_t bytes);
  Kiln::Json perform(Connection& connection, const Kiln::Json& request);

  Kiln::Ptr<EntityManager> manager_;
  ControlServerLimits limits_;
  std::map<std::string, OpHandler, std::less<>> ops_;
  std::string path_;
  int listenFd_ = -1;
  // The socket file's identity, so that only our own file is removed.
  unsigned long socketDevice_ = 0;
  unsigned long socketInode_ = 0;
  Kiln::Ptr<Kiln::FileDescriptor> listenDescriptor_;
  std::unique_ptr<ListenReactor> listenReactor_;
  std::map<std::uint64_t, Kiln::Ptr<Connection>> connections_;
  std::uint64_t nextConnection_ = 1;
};

}  // namespace Ledger
