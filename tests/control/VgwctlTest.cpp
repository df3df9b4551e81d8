// The real vgwctl binary against a control server over a state store: every
// command, its output and its exit status, and the errors of each kind.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ControlFixture.h"

extern char** environ;

namespace {

using ControlTest::runUntil;
using Kiln::Json;

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

class VgwctlTest : public ControlTest::ControlFixture {
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
      {{"set", e, R"({"e3": "ssl:10.0.0.1:6640"})"}, 0, ""},
      // "123" is JSON, a number: the store says what it wanted instead.
      {{"set", e + "/e3", "123"}, 1, "", "vgwctl: " + e + "/e3: expected a string, got the integer 123\n"},
      {{"set", e + "/e3", "{broken"}, 2, "", "vgwctl: the value is neither JSON nor a bare word: {broken" + usage},
      {{"set", e + "/e3", "two words"}, 2, "", "vgwctl: the value is neither JSON nor a bare word: two words" + usage},
      {{"--compact", "get", e}, 0, R"({"e3":"ssl:10.0.0.1:6640"})" "\n"},
      {{"del", e + "/e3"}, 0, ""},
      {{"del", e + "/e3"}, 1, "", "vgwctl: " + e + "/e3: no member \"e3\" in \"" + e + "\"\n"},
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

TEST_F(VgwctlTest, showRendersAnySectionsAsATable) {
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
  Outcome o = run({"--help"});
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.out.rfind("usage: vgwctl", 0), 0u);
  o = run({"--version"});
  EXPECT_EQ(o.out, std::string("vgwctl ") + VGW_VERSION + "\n");

  const std::string nowhere = dir + "/no/such.sock";
  o = Vgwctl({"get", "fleet"}, nowhere, dir).finish();
  EXPECT_EQ(o.status, 2);
  EXPECT_EQ(o.err, "vgwctl: cannot reach the agent at " + nowhere + ": No such file or directory\n");
  o = Vgwctl({"--socket", socketPath, "get", "fleet/config/enabled"}, nowhere, dir).finish();
  EXPECT_EQ(o.out, "true\n");
}

}  // namespace
