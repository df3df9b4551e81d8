// What the control socket tests share: a state store of real entity types, a
// control server listening in a temporary directory, and clients on real
// sockets. Everything runs in the test's thread: a client that waits for an
// answer turns the event loop meanwhile, up to a few seconds of real time,
// so a lost reply fails the test instead of hanging it.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

#include "Kiln/EventLoop.h"
#include "Kiln/Log.h"
#include "Ledger/ControlServer.h"
#include "Ledger/EntityManager.h"
#include "entities/Fleet.h"
#include "entities/OverlaySvc.h"

namespace ControlTest {

using Kiln::Json;

// Turns the loop until `done` holds; false when a few seconds pass first.
inline bool runUntil(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    Kiln::EventLoop::current().runOnce(0.005);
  }
  return true;
}

// A client as any program would write it, on a non-blocking socket so that
// it never stalls the loop it shares with the server.
class TestClient {
 public:
  explicit TestClient(const std::string& path) {
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    connected_ = connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;  // NOLINT
  }
  ~TestClient() { close(fd_); }
  TestClient(const TestClient&) = delete;
  TestClient& operator=(const TestClient&) = delete;

  bool connected() const { return connected_; }

  // Writes all of `bytes` at once: what the tests send fits the socket's buffer.
  bool write(std::string_view bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  bool send(const Json& request) { return write(request.dump() + "\n"); }

  // The next line from the server as JSON; "no reply" at the end of the
  // stream or when none comes in time.
  Json message() {
    std::optional<std::string> line;
    runUntil([&] {
      const bool more = fill();
      if (const auto newline = input_.find('\n'); newline != std::string::npos) {
        line = input_.substr(0, newline);
        input_.erase(0, newline + 1);
        return true;
      }
      return !more;
    });
    return line ? Json::parse(*line) : Json("no reply");
  }
  Json call(const Json& request) {
    send(request);
    return message();
  }

  // True when the server closes the connection (after whatever it sent).
  bool closedByServer() {
    runUntil([&] { return !fill(); });
    return eof_;
  }
  void shutdownWrite() { shutdown(fd_, SHUT_WR); }

 private:
  // Reads what is there; false at the end of the stream.
  bool fill() {
    char buffer[65536];
    ssize_t n;
    while ((n = recv(fd_, buffer, sizeof buffer, 0)) > 0) input_.append(buffer, static_cast<std::size_t>(n));
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return true;
    eof_ = true;
    return false;
  }

  int fd_ = -1;
  bool connected_ = false;
  bool eof_ = false;
  std::string input_;
};

// A loop, a temporary directory, an empty store and the log captured.
class ControlBase : public testing::Test {
 protected:
  ControlBase() {
    Kiln::logSyslogIs(false);
    Kiln::logStreamIs(&logged);
    if (!mkdtemp(dir.data())) throw std::runtime_error("mkdtemp failed");
  }
  ~ControlBase() override {
    std::filesystem::remove_all(dir);
    Kiln::logStreamIs(nullptr);
    Kiln::logSyslogIs(true);
  }

  Kiln::ScopedEventLoop scoped;
  std::string dir = (std::filesystem::temp_directory_path() / "vgw-control-XXXXXX").string();
  std::ostringstream logged;
  Kiln::Ptr<Ledger::EntityManager> manager = Kiln::newPtr<Ledger::EntityManager>(Kiln::newPtr<Ledger::Store>());
};

// A server on a store with a little of everything.
class ControlFixture : public ControlBase {
 protected:
  ControlFixture() {
    manager->loadDocument(Json::parse(R"({
      "fleet/config": {"@type": "FleetStore::Config", "enabled": true},
      "fleet/cluster/statusDir": {"@type": "FleetCluster::ClusterStatusDir",
                                  "status": {"default": {"isStandaloneOrLeader": true}}},
      "overlaysvc/version2/errorStatus": {"@type": "OverlaySvc::ErrorStatusV2", "genericError": {"e1": "down"}}
    })"));
    config = manager->getEntity<FleetStore::Config>("fleet/config");
    errors = manager->getEntity<OverlaySvc::ErrorStatusV2>("overlaysvc/version2/errorStatus");
    restart({});
  }
  ~ControlFixture() override { server.reset(); }

  void restart(const Ledger::ControlServerLimits& limits) {
    server.reset();
    server = std::make_unique<Ledger::ControlServer>(manager, limits);
    server->listen(socketPath);
  }
  Json everything() const { return manager->read(""); }
  // Whether a new client is answered.
  bool serves() {
    TestClient client(socketPath);
    return client.call({{"op", "get"}, {"path", "fleet/config/enabled"}, {"id", 1}}).value("ok", false);
  }
  static Json ok(const Json& id, const Json& value) { return {{"id", id}, {"ok", true}, {"value", value}}; }

  std::string socketPath = dir + "/run/vgw/ctl.sock";
  Kiln::Ptr<FleetStore::Config> config;
  Kiln::Ptr<OverlaySvc::ErrorStatusV2> errors;
  std::unique_ptr<Ledger::ControlServer> server;
};

}  // namespace ControlTest
