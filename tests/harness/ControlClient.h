// Vgw::Test::TestClient: a client of the control socket as any program
// would write it, on a non-blocking socket so that it never stalls the event
// loop it shares with the server in the test's process.
#pragma once

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Kiln/EventLoop.h"
#include "Kiln/Json.h"

namespace Vgw::Test {

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
    connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address);  // NOLINT
  }
  ~TestClient() { close(fd_); }
  TestClient(const TestClient&) = delete;
  TestClient& operator=(const TestClient&) = delete;

  // Writes all of `bytes` at once: what the tests send fits the socket's buffer.
  bool write(std::string_view bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  bool send(const Kiln::Json& request) { return write(request.dump() + "\n"); }

  // The next line from the server as JSON; "no reply" at the end of the
  // stream or when none comes in time.
  Kiln::Json message() {
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
    return line ? Kiln::Json::parse(*line) : Kiln::Json("no reply");
  }
  Kiln::Json call(const Kiln::Json& request) {
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
  bool eof_ = false;
  std::string input_;
};

}  // namespace Vgw::Test
