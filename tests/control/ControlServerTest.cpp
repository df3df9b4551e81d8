// The control socket on a real socket: each operation, requests that are
// wrong in every way a client can get them wrong, lines that arrive in
// pieces or together, the bounds on request size and unread output, writes
// refused for what the agent owns, watches that stream and end; and the
// socket's file: directories and modes, a stale file replaced, a live
// server's file and foreign files refused, and removal at the end of only
// what the server made.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>

#include <string>
#include <vector>

#include "ControlFixture.h"

namespace {

using ControlTest::ControlFixture;
using ControlTest::runUntil;
using ControlTest::TestClient;
using Kiln::Json;

using ControlServerTest = ControlFixture;

// The error text of a reply, or what the reply was when it is no error.
std::string errorOf(const Json& reply) {
  return reply.value("ok", true) ? "no error: " + reply.dump() : reply.value("error", std::string());
}

class Mounter : public Ledger::Mounter {
 public:
  void doMountsComplete(Ledger::MountStatus, Kiln::Ptr<Ledger::EntityManager>) override {}
};

TEST_F(ControlServerTest, everyOperationReachesTheStore) {
  TestClient client(socketPath);
  EXPECT_EQ(client.call({{"op", "get"}, {"path", "fleet/config"}, {"id", 1}}), ok(1, {{"enabled", true}}));

  EXPECT_EQ(client.call({{"op", "set"}, {"path", "fleet/config/enabled"}, {"value", false}, {"id", "s"}}), ok("s", nullptr));
  EXPECT_FALSE(config->enabled());

  // A member, then a whole entity replaced at once.
  client.call({{"op", "set"}, {"path", "overlaysvc/version2/errorStatus/genericError/e2"}, {"value", "flapping"}});
  EXPECT_EQ(errors->genericError("e2"), "flapping");
  client.call({{"op", "set"}, {"path", "fleet/config"}, {"value", {{"enabled", true}}}});
  EXPECT_TRUE(config->enabled());

  EXPECT_EQ(client.call({{"op", "list"}, {"path", ""}, {"id", {{"nested", true}}}}),
            ok({{"nested", true}}, {"fleet", "overlaysvc"}));

  EXPECT_EQ(client.call({{"op", "del"}, {"path", "overlaysvc/version2/errorStatus/genericError/e1"}}), ok(nullptr, nullptr));
  EXPECT_EQ(errors->genericError().size(), 1u);

  const Json document = {{"fleet/status", {{"@type", "FleetStore::Status"}, {"enabled", false}}},
                         {"fleet/config", {{"enabled", false}}}};
  EXPECT_EQ(client.call({{"op", "load"}, {"document", document}}), ok(nullptr, nullptr));
  EXPECT_FALSE(config->enabled());
  EXPECT_EQ(client.call({{"op", "get"}, {"path", "fleet/status/enabled"}}), ok(nullptr, false));
}

TEST_F(ControlServerTest, addedOperationsAnswerAndRefuseLikeBuiltIns) {
  server->opIs("show", [](const Json& request) -> Json {
    if (request.contains("section")) throw Kiln::JsonError("section", "no such section");
    return {{"session", {{"sessionState", "stateConnected"}}}};
  });
  TestClient client(socketPath);
  EXPECT_EQ(client.call({{"op", "show"}, {"id", 7}}), ok(7, {{"session", {{"sessionState", "stateConnected"}}}}));
  EXPECT_EQ(errorOf(client.call({{"op", "show"}, {"section", "x"}})), "section: no such section");
  server->opIs("show", nullptr);
  EXPECT_EQ(errorOf(client.call({{"op", "show"}})),
            "unknown op \"show\"; the ops are get, set, del, load, list, watch, unwatch");
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
      {R"({"op": "frobnicate"})", "unknown op \"frobnicate\"; the ops are get, set"},
      {R"({"op": "get"})", "missing member \"path\""},
      {R"({"op": "get", "path": ["fleet"]})", "member \"path\" must be a string, got an array"},
      {R"({"op": "get", "path": "nowhere/at/all"})", "nowhere/at/all: no entry \"nowhere\" in the root"},
      {R"({"op": "set", "path": "fleet/config/enabled"})", "missing member \"value\""},
      {R"({"op": "set", "path": "fleet/config/enabled", "value": "yes"})",
       "fleet/config/enabled: expected true or false, got the string \"yes\""},
      {R"({"op": "del", "path": "fleet/config/enabled"})", "is a single value; write it instead"},
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
  EXPECT_NE(errorOf(watcher.call({{"op", "watch"}, {"path", "fleet/nothing"}})).find("no entry \"nothing\""),
            std::string::npos);
  EXPECT_EQ(watcher.call({{"op", "unwatch"}, {"path", "fleet"}, {"id", "u"}}), ok("u", nullptr));
  writer.call({{"op", "set"}, {"path", "fleet/config/enabled"}, {"value", true}});
  writer.call({{"op", "set"}, {"path", "overlaysvc/version2/errorStatus/genericError/e1"}, {"value", "down"}});
  // Only the change under the remaining watch arrives.
  EXPECT_EQ(watcher.message()["path"], "overlaysvc/version2/errorStatus/genericError/e1");
  EXPECT_EQ(watcher.call({{"op", "get"}, {"path", "fleet/config/enabled"}}), ok(nullptr, true));
}

TEST_F(ControlServerTest, aClientGoingMidReplyTakesItsWatchesAlong) {
  for (int i = 0; i < 2000; ++i) errors->genericErrorIs("e" + std::to_string(i), std::string(1000, 'x'));
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

class SocketFileTest : public ControlTest::ControlBase {
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

  bool answers(const std::string& path) {
    TestClient client(path);
    return client.connected() && client.call({{"op", "list"}, {"path", ""}}).value("ok", false);
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
  EXPECT_TRUE(answers(stale));

  // A server whose file was taken over leaves the new owner's file in place.
  ASSERT_EQ(unlink(path.c_str()), 0);
  {
    Ledger::ControlServer successor(manager);
    successor.listen(path);
    first.reset();
    EXPECT_TRUE(answers(path));
  }
  EXPECT_NE(access(path.c_str(), F_OK), 0);
}

}  // namespace
