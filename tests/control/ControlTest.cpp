// The control socket on real sockets over a store of real entity types: each
// operation, bad requests of every kind, the bounds, owned paths, watches, the
// socket's file, and the real vgwctl binary with its exit statuses. A client
// waiting for an answer turns the loop meanwhile, for a few seconds at most,
// so a lost reply fails the test instead of hanging it.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "ControlClient.h"
#include "Kiln/EventLoop.h"
#include "Kiln/Log.h"
#include "Ledger/ControlServer.h"
#include "Ledger/EntityManager.h"
#include "entities/Fleet.h"
#include "entities/OverlaySvc.h"

extern char** environ;

namespace {

using Kiln::Json;

using Vgw::Test::runUntil;
using Vgw::Test::TestClient;

// A loop, the log captured, and a server in a temporary directory on a store
// with a little of everything.
class ControlFixture : public testing::Test {
 protected:
  ControlFixture() {
    Kiln::logSyslogIs(false);
    Kiln::logStreamIs(&logged);
    if (!mkdtemp(dir.data())) throw std::runtime_error("mkdtemp failed");
    socketPath = dir + "/run/vgw/ctl.sock";
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
  ~ControlFixture() override {
    server.reset();
    std::filesystem::remove_all(dir);
    Kiln::logStreamIs(nullptr);
    Kiln::logSyslogIs(true);
  }

  void restart(const Ledger::ControlServerLimits& limits) {
    server.reset();
    server = std::make_unique<Ledger::ControlServer>(manager, limits);
    server->listen(socketPath);
  }
  Json everything() const { return manager->read(""); }
  // Whether a new client is answered.
  bool serves() {
    TestClient client(socketPath);
    return client.call({{"op", "get"}, {"path", "fleet/config/enabled"}}).contains("value");
  }
  static Json ok(const Json& id, const Json& value) { return {{"id", id}, {"ok", true}, {"value", value}}; }

  Kiln::ScopedEventLoop scoped;
  std::string dir = (std::filesystem::temp_directory_path() / "vgw-control-XXXXXX").string();
  std::ostringstream logged;
  Kiln::Ptr<Ledger::EntityManager> manager = Kiln::newPtr<Ledger::EntityManager>(Kiln::newPtr<Ledger::Store>());
  std::string socketPath;  // in the directory, once it exists
  Kiln::Ptr<FleetStore::Config> config;
  Kiln::Ptr<OverlaySvc::ErrorStatusV2> errors;
  std::unique_ptr<Ledger::ControlServer> server;
};

// The error text of a reply, or what the reply was when it is no error.
std::string errorOf(const Json& reply) {
  return reply.value("ok", true) ? "no error: " + reply.dump() : reply.value("error", std::string());
}

using ControlServerTest = ControlFixture;

class Mounter : public Ledger::Mounter {
 public:
  void doMountsComplete(Ledger::MountStatus, Kiln::Ptr<Ledger::EntityManager>) override {}
};

TEST_F(ControlServerTest, everyOperationReachesTheStoreAndEchoesItsId) {
  TestClient client(socketPath);
  EXPECT_EQ(client.call({{"op", "get"}, {"path", "fleet/config"}, {"id", 1}}), ok(1, {{"enabled", true}}));
  EXPECT_EQ(client.call({{"op", "set"}, {"path", "fleet/config/enabled"}, {"value", false}, {"id", "s"}}), ok("s", nullptr));
  EXPECT_FALSE(config->enabled());
  EXPECT_EQ(client.call({{"op", "list"}, {"path", ""}, {"id", {{"nested", true}}}}),
            ok({{"nested", true}}, {"fleet", "overlaysvc"}));
  EXPECT_EQ(client.call({{"op", "del"}, {"path", "overlaysvc/version2/errorStatus/genericError/e1"}}), ok(nullptr, nullptr));
  EXPECT_TRUE(errors->genericError().empty());
  EXPECT_EQ(client.call({{"op", "load"}, {"document", {{"fleet/config", {{"enabled", true}}}}}}), ok(nullptr, nullptr));
  EXPECT_TRUE(config->enabled());
}

TEST_F(ControlServerTest, badRequestsGetAnErrorNamingTheProblemAndChangeNothing) {
  Mounter agent;
  auto group = manager->getMountGroup(&agent);
  group->doMount(Ledger::Mount("vgw/version2/vniStatusDir", "OverlaySvc::VniStatusDirV2", "wi"));
  group->doMount(Ledger::Mount("fleet/config", "FleetStore::Config", "r"));
  group->doClose(false, "", 0.0);
  const Json before = everything();
  TestClient client(socketPath);
  const std::string deep = std::string(1000, '[') + std::string(1000, ']');
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"garbage", "not JSON: "},
      {"{\"op\": \"get\", \"path\": \"fleet\"} trailing", "not JSON: "},
      {"[1, 2]", "a request is a JSON object, got an array"},
      {"{}", "missing member \"op\""},
      {R"({"op": 5})", "member \"op\" must be a string, got the integer 5"},
      {R"({"op": "frobnicate"})", "unknown op \"frobnicate\"; the ops are get, set, del, load, list, watch, unwatch"},
      {R"({"op": "get"})", "missing member \"path\""},
      {R"({"op": "get", "path": ["fleet"]})", "member \"path\" must be a string, got an array"},
      {R"({"op": "get", "path": "nowhere/at/all"})", "nowhere/at/all: no entry \"nowhere\" in the root"},
      {R"({"op": "set", "path": "fleet/config/enabled"})", "missing member \"value\""},
      {R"({"op": "set", "path": "fleet/config/enabled", "value": "yes"})",
       "fleet/config/enabled: expected true or false, got the string \"yes\""},
      {R"({"op": "load", "document": {"fleet/config": {"enabled": 1}}})", "fleet/config/enabled: expected true or false"},
      {R"({"op": "unwatch", "path": "fleet"})", "fleet: not watched on this connection"},
      {R"({"op": "set", "path": "vgw/version2/vniStatusDir", "value": {}})",
       "vgw/version2/vniStatusDir: owned by the agent (mounted \"wi\"); it cannot be written from outside"},
      {deep, "nested deeper than 128 levels"},
  };
  for (const auto& [request, expected] : cases) {
    ASSERT_TRUE(client.write(request + "\n"));
    const Json reply = client.message();
    EXPECT_EQ(reply.value("id", Json("missing")), nullptr) << request;
    EXPECT_NE(errorOf(reply).find(expected), std::string::npos) << request << " -> " << reply.dump();
  }
  EXPECT_EQ(everything(), before);
  // Blank lines and CRLF endings are no requests; the connection still serves.
  client.write("\n  \r\n{\"op\": \"get\", \"path\": \"fleet/config/enabled\", \"id\": 9}\r\n");
  EXPECT_EQ(client.message(), ok(9, true));
  // What the agent only reads stays the operator's to write.
  EXPECT_EQ(client.call({{"op", "set"}, {"path", "fleet/config/enabled"}, {"value", false}}), ok(nullptr, nullptr));

  // Lines may arrive in pieces or many at once, and the last without its
  // newline when the client closes its side.
  client.write(R"({"op": "get", "pa)");
  Kiln::EventLoop::current().runOnce(0.01);
  client.write("th\": \"fleet/config/enabled\", \"id\": 1}\n{\"op\": \"list\", \"path\": \"fleet\", \"id\": 2}\n{\"op\": \"get");
  Kiln::EventLoop::current().runOnce(0.01);
  client.write(R"(", "path": "fleet/config", "id": 3})");
  client.shutdownWrite();
  EXPECT_EQ(client.message(), ok(1, false));
  EXPECT_EQ(client.message(), ok(2, {"cluster", "config"}));
  EXPECT_EQ(client.message(), ok(3, {{"enabled", false}}));
  EXPECT_TRUE(client.closedByServer());
  EXPECT_TRUE(runUntil([&] { return server->connections() == 0; }));
}

TEST_F(ControlServerTest, theBoundsOnRequestLinesAndUnreadOutputHold) {
  restart({.maxRequestBytes = 1024, .maxPendingOutputBytes = 64 * 1024, .readPauseBytes = 4096});
  errors->genericErrorIs("e1", std::string(1000, 'x'));
  // The server stops reading requests while a few kilobytes of replies
  // wait, and takes them up again as the client reads: no reply is lost.
  TestClient late(socketPath);
  std::string requests;
  for (int i = 0; i < 300; ++i) requests += Json({{"op", "get"}, {"path", "overlaysvc"}, {"id", i}}).dump() + "\n";
  ASSERT_TRUE(late.write(requests));
  late.shutdownWrite();
  for (int i = 0; i < 20; ++i) Kiln::EventLoop::current().runOnce(0.001);
  for (int i = 0; i < 300; ++i) {
    const Json reply = late.message();
    ASSERT_EQ(reply.value("id", Json()), i);
    EXPECT_EQ(reply["value"]["version2"]["errorStatus"]["genericError"]["e1"].get<std::string>().size(), 1000u);
  }
  EXPECT_TRUE(late.closedByServer());

  // A line too long gets its refusal after the replies before it, and the
  // connection closes; so does one that never ends.
  const std::string refusal = "request line longer than 1024 bytes; closing the connection";
  TestClient terminated(socketPath);
  const std::string big = Json({{"op", "get"}, {"path", std::string(2000, 'a')}}).dump();
  terminated.write(R"({"op": "get", "path": "fleet/config/enabled", "id": 1})" "\n" + big + "\n");
  EXPECT_EQ(terminated.message(), ok(1, true));
  EXPECT_EQ(terminated.message(), Json({{"id", nullptr}, {"ok", false}, {"error", refusal}}));
  EXPECT_TRUE(terminated.closedByServer());
  TestClient unterminated(socketPath);
  unterminated.write(std::string(3000, ' '));
  EXPECT_EQ(errorOf(unterminated.message()), refusal);
  EXPECT_TRUE(unterminated.closedByServer());

  // A watcher that does not read is dropped, with a log line, once its
  // unread changes pass the bound.
  TestClient sleeper(socketPath);
  sleeper.call({{"op", "watch"}, {"path", "overlaysvc"}});
  for (int i = 0; i < 20000 && server->connections() > 0; ++i) {
    errors->genericErrorIs("e1", std::to_string(i) + std::string(1000, 'x'));
    Kiln::EventLoop::current().runOnce(0);
  }
  EXPECT_EQ(server->connections(), 0u);
  EXPECT_NE(logged.str().find("KXT_CONTROL_CLIENT_DROPPED"), std::string::npos) << logged.str();
  EXPECT_NE(logged.str().find("more than 65536 bytes of watched changes unread"), std::string::npos);
  EXPECT_TRUE(sleeper.closedByServer());
  EXPECT_TRUE(serves());
}

// Watchers that each stay within their own bound still share one: the
// slowest goes first, and a watcher that reads hears every change.
TEST_F(ControlServerTest, slowWatchersTogetherStayWithinOneBoundSlowestFirst) {
  restart({.maxPendingOutputBytes = 1 << 20, .maxTotalPendingOutputBytes = 96 * 1024});
  const auto change = [&](int i) { errors->genericErrorIs("e1", std::to_string(i) + std::string(1000, 'x')); };
  TestClient reader(socketPath);
  ASSERT_EQ(reader.call({{"op", "watch"}, {"path", "overlaysvc"}, {"id", "r"}})["ok"], true);
  std::vector<std::unique_ptr<TestClient>> sleepers;
  int changes = 0;
  int heard = 0;
  const auto hear = [&] {
    for (Kiln::EventLoop::current().runOnce(0); true;) {
      const Json event = reader.message();
      if (!event.contains("event")) break;
      if (++heard == changes) break;
    }
  };
  for (int s = 0; s < 3; ++s) {
    sleepers.push_back(std::make_unique<TestClient>(socketPath));
    ASSERT_EQ(sleepers.back()->call({{"op", "watch"}, {"path", "overlaysvc"}})["ok"], true);
    // The first sleeper falls furthest behind.
    for (int i = 0; i < 20; ++i, hear()) change(++changes);
  }
  const auto changeUntil = [&](std::size_t connections) {
    while (server->connections() > connections && changes < 20000) {
      change(++changes);
      hear();
    }
  };
  changeUntil(3);
  EXPECT_TRUE(sleepers[0]->closedByServer());
  changeUntil(1);
  EXPECT_EQ(server->connections(), 1u) << "only the reader stays";
  EXPECT_EQ(heard, changes);
  const std::string log = logged.str();
  EXPECT_NE(log.find("the slowest watcher, while the unread output of all clients passed 98304 bytes"),
            std::string::npos)
      << log;
  EXPECT_EQ(log.find("bytes of watched changes unread"), std::string::npos) << "no one passed its own bound";
  EXPECT_TRUE(serves());
}

TEST_F(ControlServerTest, watchesStreamChangesFromEveryWriterUntilUnwatched) {
  TestClient watcher(socketPath);
  TestClient writer(socketPath);
  EXPECT_EQ(watcher.call({{"op", "watch"}, {"path", "fleet"}, {"id", "w1"}}), ok("w1", nullptr));
  EXPECT_EQ(watcher.call({{"op", "watch"}, {"path", "overlaysvc/version2/errorStatus/genericError"}, {"id", "w2"}}),
            ok("w2", nullptr));
  EXPECT_EQ(server->watches(), 2u);

  writer.call({{"op", "set"}, {"path", "fleet/config/enabled"}, {"value", false}});
  EXPECT_EQ(watcher.message(), Json({{"id", "w1"}, {"event", "change"}, {"path", "fleet/config/enabled"}, {"value", false}}));
  // The agent's own writes stream the same way.
  errors->genericErrorIs("e1", "up");
  EXPECT_EQ(watcher.message(),
            Json({{"id", "w2"}, {"event", "change"}, {"path", "overlaysvc/version2/errorStatus/genericError/e1"}, {"value", "up"}}));
  writer.call({{"op", "del"}, {"path", "fleet/cluster/statusDir/status/default"}});
  EXPECT_EQ(watcher.message(),
            Json({{"id", "w1"}, {"event", "change"}, {"path", "fleet/cluster/statusDir/status/default"}, {"value", nullptr}}));

  EXPECT_NE(errorOf(watcher.call({{"op", "watch"}, {"path", "fleet"}})).find("fleet: already watched"), std::string::npos);
  EXPECT_EQ(watcher.call({{"op", "unwatch"}, {"path", "fleet"}, {"id", "u"}}), ok("u", nullptr));
  writer.call({{"op", "set"}, {"path", "fleet/config/enabled"}, {"value", true}});
  writer.call({{"op", "set"}, {"path", "overlaysvc/version2/errorStatus/genericError/e1"}, {"value", "down"}});
  // Only the change under the remaining watch arrives.
  EXPECT_EQ(watcher.message()["path"], "overlaysvc/version2/errorStatus/genericError/e1");
  EXPECT_EQ(watcher.call({{"op", "get"}, {"path", "fleet/config/enabled"}}), ok(nullptr, true));
}

TEST_F(ControlServerTest, aClientGoingMidReplyTakesItsWatchesAlong) {
  for (int i = 0; i < 2000; ++i) errors->genericErrorIs(std::string("e").append(std::to_string(i)), std::string(1000, 'x'));
  const std::size_t reactorsBefore = config->notifieeCount();
  {
    TestClient watcher(socketPath);
    watcher.call({{"op", "watch"}, {"path", "fleet/config"}});
    watcher.call({{"op", "watch"}, {"path", "fleet"}});
    EXPECT_GT(config->notifieeCount(), reactorsBefore);
    config->enabledIs(false);
    watcher.send(Json({{"op", "get"}, {"path", ""}}));  // megabytes on their way while the client goes
    Kiln::EventLoop::current().runOnce(0.01);
  }
  ASSERT_TRUE(runUntil([&] { return server->connections() == 0; }));
  EXPECT_EQ(server->watches(), 0u);
  EXPECT_EQ(config->notifieeCount(), reactorsBefore);
  EXPECT_TRUE(serves());
}

class SocketFileTest : public ControlFixture {
 protected:
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

};

TEST_F(SocketFileTest, privateModesAStaleFileReplacedALiveOrForeignOneRefusedAndOnlyItsOwnRemoved) {
  const std::string path = dir + "/a/b/ctl.sock";
  auto first = std::make_unique<Ledger::ControlServer>(manager);
  first->listen(path);
  EXPECT_EQ(modeOf(dir + "/a") & 07777, 0700u);
  EXPECT_EQ(modeOf(dir + "/a/b") & 07777, 0700u);
  EXPECT_TRUE(S_ISSOCK(modeOf(path)));
  EXPECT_EQ(modeOf(path) & 07777, 0600u);
  Ledger::ControlServer second(manager);
  EXPECT_EQ(errorOf([&] { second.listen(path); }), "control socket " + path + ": another server is answering on it");
  const std::string file = dir + "/notes";
  std::ofstream(file) << "keep me";
  EXPECT_EQ(errorOf([&] { second.listen(file); }), "control socket " + file + ": exists and is not a socket; it is left alone");
  EXPECT_TRUE(S_ISREG(modeOf(file)));
  EXPECT_EQ(errorOf([&] { second.listen(file + "/ctl.sock"); }),
            "control socket " + file + "/ctl.sock: " + file + " exists and is not a directory");
  EXPECT_NE(errorOf([&] { second.listen(dir + "/" + std::string(200, 'x')); }).find("bytes a Unix socket path may have"),
            std::string::npos);
  const std::string stale = dir + "/stale.sock";
  leaveStaleSocket(stale);
  second.listen(stale);
  EXPECT_NE(logged.str().find("KXT_CONTROL_STALE_SOCKET"), std::string::npos) << logged.str();
  EXPECT_TRUE(TestClient(stale).call({{"op", "list"}, {"path", ""}}).contains("value"));

  // A server whose file was taken over leaves the new owner's file in place.
  ASSERT_EQ(unlink(path.c_str()), 0);
  {
    Ledger::ControlServer successor(manager);
    successor.listen(path);
    first.reset();
    EXPECT_TRUE(TestClient(path).call({{"op", "list"}, {"path", ""}}).contains("value"));
  }
  EXPECT_NE(access(path.c_str(), F_OK), 0);
}

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

std::string contentOf(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// One run of vgwctl with VGW_SOCKET=`socket`, its input and output in files
// in `dir`, waited for while the loop turns so that the server in this
// process answers it.
class Vgwctl {
 public:
  Vgwctl(const std::vector<std::string>& args, const std::string& socket, const std::string& dir,
         const std::string& input = "")
      : files_(dir + "/vgwctl" + std::to_string(++runs_)) {
    std::ofstream(files_ + ".in") << input;
    std::string command = "exec " VGWCTL_PATH;
    for (const std::string& arg : args) command += " '" + arg + "'";  // no argument here holds a quote
    command += " <" + files_ + ".in >" + files_ + ".out 2>" + files_ + ".err";
    setenv("VGW_SOCKET", socket.c_str(), 1);
    const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    EXPECT_EQ(posix_spawn(&pid_, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ), 0);
  }
  ~Vgwctl() {
    if (outcome_.status < 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  Vgwctl(const Vgwctl&) = delete;
  Vgwctl& operator=(const Vgwctl&) = delete;

  // What it printed so far.
  std::string out() const { return contentOf(files_ + ".out"); }
  void signal(int number) { kill(pid_, number); }

  Outcome finish() {
    EXPECT_TRUE(runUntil([&] {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) != pid_) return false;
      outcome_.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return true;
    })) << "vgwctl did not end";
    outcome_.out = out();
    outcome_.err = contentOf(files_ + ".err");
    return outcome_;
  }

 private:
  static inline int runs_ = 0;
  std::string files_;
  pid_t pid_ = -1;
  Outcome outcome_;
};

class VgwctlTest : public ControlFixture {
 protected:
  Outcome run(const std::vector<std::string>& args, const std::string& input = "") {
    return Vgwctl(args, socketPath, dir, input).finish();
  }
};

TEST_F(VgwctlTest, eachCommandPrintsItsResultAndExitsWithItsStatus) {
  const std::string file = dir + "/config.json";
  std::ofstream(file) << R"({"fleet/config": {"enabled": false}, "fleet/status": {"@type": "FleetStore::Status"}})";
  std::ofstream(dir + "/broken.json") << "{ not json";
  const std::string e = "overlaysvc/version2/errorStatus/genericError";
  const std::string usage = "\nTry 'vgwctl --help'.\n";
  struct Step {
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err = "";
    std::string input = "";
  };
  const Step steps[] = {
      {{"get", "fleet/config"}, 0, "{\n  \"enabled\": true\n}\n"},
      {{"list"}, 0, "fleet\noverlaysvc\n"},
      {{"set", "fleet/config/enabled", "false"}, 0, ""},
      {{"set", e + "/e1", "10.0.0.1"}, 0, ""},  // a bare word
      {{"set", e + "/e2", R"("two words")"}, 0, ""},
      {{"--compact", "get", e}, 0, R"({"e1":"10.0.0.1","e2":"two words"})" "\n"},
      // "123" is JSON, a number: the store says what it wanted instead.
      {{"set", e + "/e3", "123"}, 1, "", "vgwctl: " + e + "/e3: expected a string, got the integer 123\n"},
      {{"set", e + "/e3", "{broken"}, 2, "", "vgwctl: the value is neither JSON nor a bare word: {broken" + usage},
      {{"set", e + "/e3", "two words"}, 2, "", "vgwctl: the value is neither JSON nor a bare word: two words" + usage},
      {{"del", e + "/e2"}, 0, ""},
      {{"--compact", "get", e}, 0, R"({"e1":"10.0.0.1"})" "\n"},
      {{"load", file}, 0, ""},
      {{"list", "fleet"}, 0, "cluster\nconfig\nstatus\n"},
      {{"load", "-"}, 0, "", "", R"({"fleet/config": {"enabled": true}})"},
      {{"load", "-"}, 1, "", "vgwctl: fleet/config/enabled: expected true or false, got the string \"no\"\n",
       R"({"fleet/config": {"enabled": "no"}})"},
      {{"load", dir + "/missing.json"}, 2, "", "vgwctl: cannot read " + dir + "/missing.json: No such file or directory\n"},
      {{"load", dir + "/broken.json"}, 2, "", "vgwctl: " + dir + "/broken.json is not JSON: "},
      {{"get", "fleet/config/enabled"}, 0, "true\n"},
  };
  for (const Step& step : steps) {
    const Outcome o = run(step.args, step.input);
    const std::string command = testing::PrintToString(step.args);
    EXPECT_EQ(o.status, step.status) << command;
    EXPECT_EQ(o.out, step.out) << command;
    // The error text, or its beginning where a parser's own words follow.
    EXPECT_EQ(o.err.substr(0, step.err.empty() ? std::string::npos : step.err.size()), step.err) << command;
  }
}

TEST_F(VgwctlTest, watchPrintsALinePerChangeUntilInterruptedOrTheAgentGoes) {
  Outcome o = Vgwctl({"watch", "fleet/nowhere"}, socketPath, dir).finish();
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "vgwctl: fleet/nowhere: no entry \"nowhere\" in \"fleet\"\n");

  Vgwctl watcher({"watch", "fleet"}, socketPath, dir);
  Vgwctl lasting({"watch"}, socketPath, dir);
  ASSERT_TRUE(runUntil([&] { return server->watches() == 2; }));
  config->enabledIs(false);
  manager->write("fleet/cluster/statusDir/status/default/isStandaloneOrLeader", false, Ledger::Writer::external);
  const std::string expected =
      "fleet/config/enabled false\nfleet/cluster/statusDir/status/default/isStandaloneOrLeader false\n";
  EXPECT_TRUE(runUntil([&] { return watcher.out().size() >= expected.size(); }));
  EXPECT_EQ(watcher.out(), expected);
  watcher.signal(SIGINT);
  EXPECT_EQ(watcher.finish().status, 128 + SIGINT);
  EXPECT_TRUE(runUntil([&] { return server->watches() == 1; }));

  server.reset();
  o = lasting.finish();
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "vgwctl: the agent at " + socketPath + " closed the connection\n");
}

TEST_F(VgwctlTest, showRendersAnySectionsAsATableForPeopleAndWholeForScripts) {
  const std::string longRequest = R"({"method":"transact","params":["hardware_vtep",{"op":"insert","table":"Physical_Switch"}]})";
  server->opIs("show", [&](const Json&) -> Json {
    return {{"running", true},
            {"session", {{"sessionState", "stateConnected"}, {"lastRequest", longRequest}, {"requestCount", 12}}},
            {"managers", Json::object()}};
  });
  const Outcome o = run({"show"});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_EQ(o.out, "managers:\n  (none)\n\nrunning: true\n\nsession:\n  lastRequest   " + longRequest.substr(0, 61) +
                       "...\n  requestCount  12\n  sessionState  stateConnected\n");
  EXPECT_EQ(Json::parse(run({"show", "--json"}).out)["session"]["lastRequest"], longRequest);
}

TEST_F(VgwctlTest, usageErrorsAndAnUnreachableAgentExitWithTwoAndTheSocketOptionWins) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {}, {"frobnicate"}, {"get", "a", "b"}, {"set", "fleet/config/enabled"}, {"del"}, {"show", "x"},
           {"--compact", "list"}, {"--json", "get"}, {"--bogus", "get"}, {"--timeout", "soon", "get"}, {"--socket"}}) {
    const Outcome o = run(args);
    EXPECT_EQ(o.status, 2) << testing::PrintToString(args);
    EXPECT_NE(o.err.find("Try 'vgwctl --help'."), std::string::npos) << o.err;
    EXPECT_EQ(o.out, "");
  }
  // Where the command should be, the message names what stands there instead.
  for (const auto& [args, said] : std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{}, "vgwctl: no command given; the commands are get, set, del, load, list, watch, show\n"},
           {{"frobnicate"}, "vgwctl: unknown command frobnicate\n"},
           {{"--bogus"}, "vgwctl: unknown option --bogus\n"}}) {
    EXPECT_TRUE(run(args).err.starts_with(said)) << run(args).err;
  }
  EXPECT_TRUE(run({"--help"}).out.starts_with("usage: vgwctl"));
  EXPECT_EQ(run({"--version"}).out, std::string("vgwctl ") + VGW_VERSION + "\n");

  const std::string nowhere = dir + "/no/such.sock";
  Outcome o = Vgwctl({"get", "fleet"}, nowhere, dir).finish();
  EXPECT_EQ(o.status, 2);
  EXPECT_EQ(o.err, "vgwctl: cannot reach the agent at " + nowhere + ": No such file or directory\n");
  o = Vgwctl({"--socket", socketPath, "get", "fleet/config/enabled"}, nowhere, dir).finish();
  EXPECT_EQ(o.out, "true\n");
}

}  // namespace
