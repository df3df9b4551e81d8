// The control socket's file: directories and modes, a stale file replaced,
// a live server's file and foreign files refused, and removal at the end
// of only what the server made.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "ControlFixture.h"

namespace {

using ControlTest::TempDir;
using ControlTest::TestClient;
using Kiln::Json;

class SocketFileTest : public testing::Test {
 protected:
  SocketFileTest() {
    Kiln::logSyslogIs(false);
    Kiln::logStreamIs(&logged);
  }
  ~SocketFileTest() override {
    Kiln::logStreamIs(nullptr);
    Kiln::logSyslogIs(true);
  }

  static mode_t modeOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
    return st.st_mode;
  }

  template <class Fn>
  static std::string errorOf(Fn fn) {
    try {
      fn();
    } catch (const Ledger::ControlSocketError& e) {
      return e.what();
    }
    return "no error";
  }

  // A socket file with nobody behind it, as a killed server leaves it.
  static void leaveStaleSocket(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);  // NOLINT
    close(fd);
  }

  bool answers(const std::string& path) {
    TestClient client(path);
    return client.connected() && client.call({{"op", "list"}, {"path", ""}}).value("ok", false);
  }

  Kiln::ScopedEventLoop scoped;
  TempDir dir;
  std::ostringstream logged;
  Kiln::Ptr<Ledger::EntityManager> manager = Kiln::newPtr<Ledger::EntityManager>(Kiln::newPtr<Ledger::Store>());
};

TEST_F(SocketFileTest, makesPrivateDirectoriesAndAnOwnerOnlySocket) {
  const std::string path = dir.path() + "/a/b/ctl.sock";
  Ledger::ControlServer server(manager);
  server.listen(path);
  EXPECT_EQ(modeOf(dir.path() + "/a") & 07777, 0700u);
  EXPECT_EQ(modeOf(dir.path() + "/a/b") & 07777, 0700u);
  EXPECT_TRUE(S_ISSOCK(modeOf(path)));
  EXPECT_EQ(modeOf(path) & 07777, 0600u);
  EXPECT_EQ(server.path(), path);
  EXPECT_TRUE(answers(path));
}

TEST_F(SocketFileTest, aStaleSocketIsReplacedAndALiveOneRefused) {
  const std::string path = dir.path() + "/ctl.sock";
  leaveStaleSocket(path);
  Ledger::ControlServer first(manager);
  first.listen(path);
  EXPECT_NE(logged.str().find("KXT_CONTROL_STALE_SOCKET"), std::string::npos) << logged.str();
  EXPECT_TRUE(answers(path));

  Ledger::ControlServer second(manager);
  EXPECT_EQ(errorOf([&] { second.listen(path); }), "control socket " + path + ": another server is answering on it");
  EXPECT_TRUE(answers(path));
}

TEST_F(SocketFileTest, whatIsNotASocketIsLeftAlone) {
  const std::string file = dir.path() + "/notes";
  std::ofstream(file) << "keep me";
  Ledger::ControlServer server(manager);
  EXPECT_EQ(errorOf([&] { server.listen(file); }), "control socket " + file + ": exists and is not a socket; it is left alone");
  EXPECT_TRUE(S_ISREG(modeOf(file)));
  EXPECT_EQ(errorOf([&] { server.listen(file + "/ctl.sock"); }),
            "control socket " + file + "/ctl.sock: " + file + " exists and is not a directory");
  EXPECT_NE(errorOf([&] { server.listen(dir.path() + "/" + std::string(200, 'x')); }).find("bytes a Unix socket path may have"),
            std::string::npos);
}

TEST_F(SocketFileTest, theServerRemovesOnlyItsOwnSocketFile) {
  const std::string path = dir.path() + "/ctl.sock";
  {
    Ledger::ControlServer server(manager);
    server.listen(path);
  }
  EXPECT_NE(access(path.c_str(), F_OK), 0);

  // A server whose file was taken over leaves the new owner's file in place.
  auto old = std::make_unique<Ledger::ControlServer>(manager);
  old->listen(path);
  ASSERT_EQ(unlink(path.c_str()), 0);
  Ledger::ControlServer successor(manager);
  successor.listen(path);
  old.reset();
  EXPECT_TRUE(answers(path));
}

}  // namespace
