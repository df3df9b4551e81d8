// Vgw::Test::HandPeer: a Unix socket on which a test plays the database
// server by hand. Connections wait in its backlog until accept(), so a
// client's connect succeeds and then hears nothing, as from a server that
// has stopped; a test that accepts may write anything it likes.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace Vgw::Test {

class HandPeer {
 public:
  HandPeer() {
    char templ[] = "/tmp/vgw-peer-XXXXXX";
    if (!mkdtemp(templ)) throw std::runtime_error("HandPeer: mkdtemp failed");
    dir_ = templ;
    path_ = dir_ + "/peer.sock";
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    if (::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||  // NOLINT
        ::listen(fd_, 8) != 0) {
      throw std::runtime_error("HandPeer: cannot listen on " + path_);
    }
  }
  ~HandPeer() {
    for (int fd : accepted_) ::close(fd);
    ::close(fd_);
    std::filesystem::remove_all(dir_);
  }
  HandPeer(const HandPeer&) = delete;
  HandPeer& operator=(const HandPeer&) = delete;

  const std::string& path() const { return path_; }
  std::string target() const { return "unix:" + path_; }
  // The next waiting connection, kept open until the peer goes.
  int accept() { return accepted_.emplace_back(::accept(fd_, nullptr, nullptr)); }

 private:
  std::string dir_;
  std::string path_;
  int fd_ = -1;
  std::vector<int> accepted_;
};

}  // namespace Vgw::Test
