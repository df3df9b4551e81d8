// The real vgwctl binary against a control server over a state store: every
// command, its output and its exit status, and the errors of each kind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "ControlFixture.h"

extern char** environ;

namespace {

using ControlTest::ControlFixture;
using ControlTest::runUntil;
using Kiln::Json;

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

// One run of vgwctl, its output collected while the loop turns, so that the
// server in this process answers it.
class Vgwctl {
 public:
  Vgwctl(const std::vector<std::string>& args, const std::string& socket, const std::string& input = "") {
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
      throw std::runtime_error("pipe2 failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    std::vector<std::string> argStrings{VGWCTL_PATH};
    argStrings.insert(argStrings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : argStrings) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> envStrings;
    for (char** e = environ; *e; ++e) {
      if (std::strncmp(*e, "VGW_SOCKET=", 11) != 0) envStrings.emplace_back(*e);
    }
    if (!socket.empty()) envStrings.push_back("VGW_SOCKET=" + socket);
    std::vector<char*> envp;
    for (std::string& e : envStrings) envp.push_back(e.data());
    envp.push_back(nullptr);
    if (posix_spawn(&pid_, VGWCTL_PATH, &actions, nullptr, argv.data(), envp.data()) != 0)
      throw std::runtime_error("cannot start vgwctl");
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    close(err[1]);
    if (!input.empty() && write(in[1], input.data(), input.size()) != static_cast<ssize_t>(input.size()))
      throw std::runtime_error("cannot feed vgwctl");
    close(in[1]);
    outFd_ = out[0];
    errFd_ = err[0];
    fcntl(outFd_, F_SETFL, O_NONBLOCK);
    fcntl(errFd_, F_SETFL, O_NONBLOCK);
  }
  ~Vgwctl() {
    if (outcome_.status < 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(outFd_);
    close(errFd_);
  }
  Vgwctl(const Vgwctl&) = delete;
  Vgwctl& operator=(const Vgwctl&) = delete;

  // What it printed so far.
  const std::string& out() {
    collect();
    return outcome_.out;
  }
  void signal(int number) { kill(pid_, number); }

  Outcome finish() {
    EXPECT_TRUE(runUntil([&] {
      collect();
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) != pid_) return false;
      outcome_.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return true;
    })) << "vgwctl did not end";
    collect();
    return outcome_;
  }

 private:
  void collect() {
    drain(outFd_, outcome_.out);
    drain(errFd_, outcome_.err);
  }
  static void drain(int fd, std::string& into) {
    char buffer[4096];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0) into.append(buffer, static_cast<std::size_t>(n));
  }
  pid_t pid_ = -1;
  int outFd_ = -1;
  int errFd_ = -1;
  Outcome outcome_;
};

class VgwctlTest : public ControlFixture {
 protected:
  Outcome run(const std::vector<std::string>& args, const std::string& input = "") {
    return Vgwctl(args, socketPath, input).finish();
  }
  Kiln::Ptr<FleetStore::Config> config = manager->getEntity<FleetStore::Config>("fleet/config");
  Kiln::Ptr<OverlaySvc::ErrorStatusV2> errors =
      manager->getEntity<OverlaySvc::ErrorStatusV2>("overlaysvc/version2/errorStatus");
};

TEST_F(VgwctlTest, getPrintsPrettyOrCompactJson) {
  Outcome o = run({"get", "fleet/config"});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_EQ(o.out, "{\n  \"enabled\": true\n}\n");
  EXPECT_EQ(o.err, "");
  o = run({"--compact", "get", "overlaysvc/version2/errorStatus/genericError"});
  EXPECT_EQ(o.out, "{\"e1\":\"down\"}\n");
  // --socket wins over the environment.
  o = Vgwctl({"--socket", socketPath, "get", "fleet/config/enabled"}, dir.path() + "/elsewhere.sock").finish();
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_EQ(o.out, "true\n");
}

TEST_F(VgwctlTest, setTakesJsonOrAnUnambiguousBareWord) {
  Outcome o = run({"set", "fleet/config/enabled", "false"});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_EQ(o.out, "");
  EXPECT_FALSE(config->enabled());
  EXPECT_EQ(run({"set", "overlaysvc/version2/errorStatus/genericError/e1", "10.0.0.1"}).status, 0);
  EXPECT_EQ(errors->genericError("e1"), "10.0.0.1");
  EXPECT_EQ(run({"set", "overlaysvc/version2/errorStatus/genericError/e2", R"("two words")"}).status, 0);
  EXPECT_EQ(errors->genericError("e2"), "two words");
  EXPECT_EQ(run({"set", "overlaysvc/version2/errorStatus/genericError", R"({"e3": "ssl:10.0.0.1:6640"})"}).status, 0);
  EXPECT_EQ(errors->genericError().size(), 1u);

  // "123" is JSON, a number: the store says what it wanted instead.
  o = run({"set", "overlaysvc/version2/errorStatus/genericError/e3", "123"});
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "vgwctl: overlaysvc/version2/errorStatus/genericError/e3: expected a string, got the integer 123\n");
  o = run({"set", "fleet/config/enabled", "{broken"});
  EXPECT_EQ(o.status, 2);
  EXPECT_EQ(o.err, "vgwctl: the value is neither JSON nor a bare word: {broken\nTry 'vgwctl --help'.\n");
  EXPECT_EQ(run({"set", "fleet/config/enabled", "two words"}).status, 2);
  EXPECT_EQ(errors->genericError("e3"), "ssl:10.0.0.1:6640");
}

TEST_F(VgwctlTest, delListAndLoad) {
  Outcome o = run({"list", "fleet"});
  EXPECT_EQ(o.out, "cluster\nconfig\n");
  o = run({"list"});
  EXPECT_EQ(o.out, "fleet\noverlaysvc\n");
  EXPECT_EQ(run({"del", "overlaysvc/version2/errorStatus/genericError/e1"}).status, 0);
  EXPECT_TRUE(errors->genericError().empty());
  o = run({"del", "overlaysvc/version2/errorStatus/genericError/e1"});
  EXPECT_EQ(o.status, 1);
  EXPECT_NE(o.err.find("no member \"e1\""), std::string::npos) << o.err;

  const std::string file = dir.path() + "/config.json";
  std::ofstream(file) << R"({"fleet/config": {"enabled": false}, "fleet/status": {"@type": "FleetStore::Status"}})";
  o = run({"load", file});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_FALSE(config->enabled());
  EXPECT_TRUE(manager->getEntity("fleet/status"));
  EXPECT_EQ(run({"load", "-"}, R"({"fleet/config": {"enabled": true}})").status, 0);
  EXPECT_TRUE(config->enabled());

  o = run({"load", dir.path() + "/missing.json"});
  EXPECT_EQ(o.status, 2);
  EXPECT_EQ(o.err, "vgwctl: cannot read " + dir.path() + "/missing.json: No such file or directory\n");
  std::ofstream(file) << "{ not json";
  EXPECT_EQ(run({"load", file}).status, 2);
  o = run({"load", "-"}, R"({"fleet/config": {"enabled": "no"}})");
  EXPECT_EQ(o.status, 1);
  EXPECT_TRUE(config->enabled());
}

TEST_F(VgwctlTest, watchPrintsALinePerChangeUntilInterrupted) {
  Vgwctl watcher({"watch", "fleet"}, socketPath);
  ASSERT_TRUE(runUntil([&] { return server->watches() == 1; }));
  config->enabledIs(false);
  manager->write("fleet/cluster/statusDir/status/default/isStandaloneOrLeader", false, Ledger::Writer::external);
  const std::string expected =
      "fleet/config/enabled false\nfleet/cluster/statusDir/status/default/isStandaloneOrLeader false\n";
  EXPECT_TRUE(runUntil([&] { return watcher.out().size() >= expected.size(); }));
  EXPECT_EQ(watcher.out(), expected);
  watcher.signal(SIGINT);
  const Outcome o = watcher.finish();
  EXPECT_EQ(o.status, 128 + SIGINT);
  EXPECT_TRUE(runUntil([&] { return server->watches() == 0; }));
}

TEST_F(VgwctlTest, watchEndsWithAnErrorWhenTheAgentGoes) {
  Vgwctl watcher({"watch", "fleet/nowhere"}, socketPath);
  Outcome o = watcher.finish();
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "vgwctl: fleet/nowhere: no entry \"nowhere\" in \"fleet\"\n");

  Vgwctl lasting({"watch"}, socketPath);
  ASSERT_TRUE(runUntil([&] { return server->watches() == 1; }));
  server.reset();
  o = lasting.finish();
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "vgwctl: the agent at " + socketPath + " closed the connection\n");
}

TEST_F(VgwctlTest, showRendersAnySectionsAsATable) {
  const std::string longRequest = R"({"method":"transact","params":["hardware_vtep",{"op":"insert","table":"Physical_Switch"}]})";
  server->opIs("show", [&](const Json&) -> Json {
    return {{"running", true},
            {"session", {{"sessionState", "stateConnected"}, {"lastRequest", longRequest}, {"requestCount", 12}}},
            {"managers", Json::object()}};
  });
  Outcome o = run({"show"});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_EQ(o.out,
            "managers:\n"
            "  (none)\n"
            "\n"
            "running: true\n"
            "\n"
            "session:\n"
            "  lastRequest   " + longRequest.substr(0, 61) + "...\n"
            "  requestCount  12\n"
            "  sessionState  stateConnected\n");
  o = run({"show", "--json"});
  EXPECT_EQ(Json::parse(o.out)["session"]["lastRequest"], longRequest);
  server->opIs("show", nullptr);
  o = run({"show"});
  EXPECT_EQ(o.status, 1);
  EXPECT_NE(o.err.find("unknown op \"show\""), std::string::npos);
}

TEST_F(VgwctlTest, usageErrorsAndAnUnreachableAgentExitWithTwo) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {}, {"frobnicate"}, {"get", "a", "b"}, {"set", "fleet/config/enabled"}, {"del"}, {"show", "x"},
           {"--compact", "list"}, {"--json", "get"}, {"--bogus", "get"}, {"--timeout", "soon", "get"}, {"--socket"}}) {
    const Outcome o = run(args);
    EXPECT_EQ(o.status, 2) << testing::PrintToString(args);
    EXPECT_NE(o.err.find("Try 'vgwctl --help'."), std::string::npos) << o.err;
    EXPECT_EQ(o.out, "");
  }
  Outcome o = run({"--help"});
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.out.rfind("usage: vgwctl", 0), 0u);
  o = run({"--version"});
  EXPECT_EQ(o.out, std::string("vgwctl ") + VGW_VERSION + "\n");

  const std::string nowhere = dir.path() + "/no/such.sock";
  o = Vgwctl({"get", "fleet"}, nowhere).finish();
  EXPECT_EQ(o.status, 2);
  EXPECT_EQ(o.err, "vgwctl: cannot reach the agent at " + nowhere + ": No such file or directory\n");
}

}  // namespace
