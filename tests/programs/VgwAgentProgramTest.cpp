// vgw-agent as a process against a private ovsdb-server, driven and read
// through vgwctl: the example configuration reaching the database, the
// operator's changes, refused requests, refused configurations and
// arguments, a stop by signal, and the controller's hosts as the fabric
// sees them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "OvsdbServer.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

// Waits for external processes: bounded, in short real-time steps.
bool waitFor(const std::function<bool()>& done, double seconds = 20.0) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// One child process, its standard output and error going to files.
class Process {
 public:
  Process(const std::string& program, const std::vector<std::string>& args, const fs::path& outputs) {
    static int count = 0;
    const std::string stem = (outputs / fs::path(program).filename()).string() + "." + std::to_string(++count);
    out_ = stem + ".out";
    err_ = stem + ".err";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::vector<std::string> argStrings{program};
    argStrings.insert(argStrings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : argStrings) argv.push_back(a.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ) != 0)
      throw std::runtime_error("cannot start " + program);
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Process() {
    if (status_ < 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  bool running() { return !exited(); }
  // The exit status, -1 while it runs or when it ended by a signal.
  int wait(double seconds = 20.0) {
    waitFor([&] { return exited(); }, seconds);
    return status_ >= 0 ? status_ : -1;
  }
  void signal(int sig) const { kill(pid_, sig); }
  std::string out() const { return readFile(out_); }
  std::string err() const { return readFile(err_); }

 private:
  bool exited() {
    if (status_ >= 0) return true;
    int raw = 0;
    if (waitpid(pid_, &raw, WNOHANG) != pid_) return false;
    status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return true;
  }
  pid_t pid_ = -1;
  int status_ = -1;
  std::string out_;
  std::string err_;
};

class VgwAgentProgram : public testing::Test {
 protected:
  VgwAgentProgram() {
    dir = fs::path(server.directory()) / "agent";
    fs::create_directories(dir);
    socket = (dir / "vgw-agent.sock").string();
    setenv("RINGTAPEDIR", dir.c_str(), 1);
    setenv("VGW_TAPELOCK_FILEPATH", (dir / "tape.lock").c_str(), 1);
    config = Json::parse(readFile(EXAMPLE_CONFIG));
    config["vgw/config"]["ovsdbSocketPath"] = server.socketPath();
  }

  std::string writeConfig(const std::string& text) {
    const fs::path file = dir / ("config" + std::to_string(++configs) + ".json");
    std::ofstream(file) << text;
    return file.string();
  }
  std::unique_ptr<Process> startAgent() {
    auto agent = std::make_unique<Process>(
        VGW_AGENT_PATH, std::vector<std::string>{"--config", writeConfig(config.dump()), "--socket", socket}, dir);
    EXPECT_TRUE(waitFor([&] { return fs::exists(socket) || !agent->running(); })) << agent->err();
    return agent;
  }
  struct Result {
    int status;
    std::string out;
    std::string err;
  };
  Result vgwctl(const std::vector<std::string>& args) {
    std::vector<std::string> all{"--socket", socket};
    all.insert(all.end(), args.begin(), args.end());
    Process ctl(VGWCTL_PATH, all, dir);
    const int status = ctl.wait();
    return {status, ctl.out(), ctl.err()};
  }
  Json show() {
    const Result result = vgwctl({"show", "--json"});
    return result.status == 0 ? Json::parse(result.out) : Json();
  }
  bool sessionIs(const std::string& state) {
    const Json summary = show();
    return summary.is_object() && summary["session"].value("state", "") == state;
  }
  Json managerRows() { return Json::parse(server.dump("Manager")); }

  Vgw::Test::OvsdbServer server;
  fs::path dir;
  std::string socket;
  Json config;
  int configs = 0;
};

TEST_F(VgwAgentProgram, ExampleConfigurationServesTheDatabaseAndStopsOnSignal) {
  auto agent = startAgent();
  ASSERT_TRUE(waitFor([&] { return sessionIs("stateConnected"); })) << agent->err();
  const Json rows = managerRows();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0]["target"], "ssl:192.0.2.10:6640");
  EXPECT_EQ(Json::parse(server.dump("Global"))[0]["managers"], rows[0]["_uuid"]);
  const Json summary = show();
  EXPECT_EQ(summary["agent"]["running"], true);
  EXPECT_EQ(summary["managers"]["ssl:192.0.2.10:6640"], "configured, is_connected false");
  EXPECT_EQ(summary["localData"]["ovsdbSynchronized"], true);
  EXPECT_EQ(summary["localData"]["transactCounter"]["Manager"], 1);

  // Refused requests leave the agent serving.
  const Result unknown = vgwctl({"get", "vgw/nothing"});
  EXPECT_EQ(unknown.status, 1);
  EXPECT_NE(unknown.err.find("vgw/nothing"), std::string::npos) << unknown.err;
  const Result owned = vgwctl({"set", "vgw/status/running", "false"});
  EXPECT_EQ(owned.status, 1);
  EXPECT_NE(owned.err.find("vgw/status"), std::string::npos) << owned.err;
  {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socket.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const std::string garbled = "{\"op\": get\n";
    ASSERT_EQ(write(fd, garbled.data(), garbled.size()), static_cast<ssize_t>(garbled.size()));
    char reply[512] = {};
    ASSERT_GT(read(fd, reply, sizeof reply - 1), 0);
    EXPECT_EQ(Json::parse(std::string(reply).substr(0, std::string(reply).find('\n')))["ok"], false) << reply;
    close(fd);
  }
  EXPECT_TRUE(sessionIs("stateConnected"));

  // A manager added and removed again.
  ASSERT_EQ(vgwctl({"set", "vgw/cliconfig/managerAddress/ptcp:6641", "true"}).status, 0);
  EXPECT_TRUE(waitFor([&] { return managerRows().size() == 2; }));
  ASSERT_EQ(vgwctl({"del", "vgw/cliconfig/managerAddress/ptcp:6641"}).status, 0);
  EXPECT_TRUE(waitFor([&] { return managerRows().size() == 1; }));
  EXPECT_EQ(Json::parse(server.dump("Global"))[0]["managers"], managerRows()[0]["_uuid"]);

  const Json before = managerRows();
  agent->signal(SIGTERM);
  EXPECT_EQ(agent->wait(), 0) << agent->err();
  EXPECT_EQ(managerRows(), before);
}

TEST_F(VgwAgentProgram, LeadershipAndTheOperatorGovernTheSession) {
  auto agent = startAgent();
  ASSERT_TRUE(waitFor([&] { return sessionIs("stateConnected"); })) << agent->err();
  const Json before = managerRows();
  const std::string leader = "fleet/cluster/statusDir/status/default/isStandaloneOrLeader";

  ASSERT_EQ(vgwctl({"set", leader, "false"}).status, 0);
  Json summary = show();
  EXPECT_EQ(summary["agent"]["running"], false);
  EXPECT_EQ(summary["agent"]["discardRequest"], true);
  EXPECT_TRUE(summary["session"].empty());
  EXPECT_EQ(managerRows(), before);

  ASSERT_EQ(vgwctl({"set", leader, "true"}).status, 0);
  ASSERT_TRUE(waitFor([&] { return sessionIs("stateConnected"); }));
  EXPECT_EQ(show()["agent"]["discardRequest"], false);

  ASSERT_EQ(vgwctl({"set", "vgw/cliconfig/enableAgent", "false"}).status, 0);
  summary = show();
  EXPECT_EQ(summary["agent"]["running"], false);
  EXPECT_EQ(summary["agent"]["discardRequest"], false) << "the teardown's deletions go to the database";
  EXPECT_TRUE(agent->running());
}

TEST_F(VgwAgentProgram, AgentThatMayNotRunSaysSoAndStaysUp) {
  config["vgw/cliconfig"]["enableAgent"] = false;
  auto agent = startAgent();
  ASSERT_TRUE(waitFor([&] { return show()["agent"].value("exiting", false); })) << agent->err();
  EXPECT_NE(agent->err().find("may not run on this node (vgw/cliconfig enableAgent is false"), std::string::npos)
      << agent->err();
  EXPECT_TRUE(managerRows().empty());
  agent->signal(SIGINT);
  EXPECT_EQ(agent->wait(), 0);
}

TEST_F(VgwAgentProgram, BadConfigurationsAndArgumentsAreRefusedByName) {
  struct Case {
    std::vector<std::string> args;
    std::string expected;
  };
  Json noSocket = config;
  noSocket.erase("vgw/config");
  Json noOps = config;
  noOps["vgw/cliconfig"]["maxOps"] = 0;
  const std::string missing = (dir / "missing.json").string();
  const std::vector<Case> cases = {
      {{"--config", missing}, "cannot read " + missing},
      {{"--config", writeConfig("{\"vgw/config\": ")}, "is not JSON"},
      {{"--config", writeConfig("[]")}, "expected an object"},
      {{"--config", writeConfig(R"({"vgw/nothing": {}})")}, "vgw/nothing: unknown path"},
      {{"--config", writeConfig(R"({"vgw/cliconfig": {"enable": true}})")}, "vgw/cliconfig/enable: no such attribute"},
      {{"--config", writeConfig(R"({"vgw/cliconfig": {"enableAgent": "yes"}})")},
       "vgw/cliconfig/enableAgent: expected true or false"},
      {{"--config", writeConfig(R"({"vgw/status": {"running": true}})")}, "vgw/status: is written by the agent"},
      {{"--config", writeConfig(noSocket.dump())}, "vgw/config: ovsdbSocketPath is required"},
      {{"--config", writeConfig(noOps.dump())}, "vgw/cliconfig/maxOps: must be at least 1"},
      {{}, "--config FILE is required"},
      {{"--config"}, "--config needs a value"},
      {{"--config", missing, "--verbose"}, "unexpected argument --verbose"},
  };
  for (const Case& c : cases) {
    Process agent(VGW_AGENT_PATH, c.args, dir);
    EXPECT_EQ(agent.wait(), 2) << c.expected;
    EXPECT_NE(agent.err().find(c.expected), std::string::npos) << agent.err();
  }
  Process version(VGW_AGENT_PATH, {"--version"}, dir);
  EXPECT_EQ(version.wait(), 0);
  EXPECT_EQ(version.out().rfind("vgw-agent ", 0), 0u) << version.out();
}

TEST_F(VgwAgentProgram, ControllerHostsShowThroughVgwctlAndFollowTheVtepListTypeItSets) {
  auto agent = startAgent();
  ASSERT_TRUE(waitFor([&] { return sessionIs("stateConnected"); })) << agent->err();
  server.vtepCtl("add-ls", "blue");
  server.vtepCtl("set", "Logical_Switch", "blue", "tunnel_key=5000");
  server.vtepCtl("add-ucast-remote", "blue", "00:11:22:33:44:55", "10.0.0.1");
  server.vtepCtl("add-mcast-remote", "blue", "unknown-dst", "10.0.0.1");
  server.vtepCtl("add-mcast-remote", "blue", "unknown-dst", "10.0.0.2");
  // The VniStatusV2 of VNI 5000 as vgwctl shows the whole directory.
  const auto vni5000 = [&] {
    const Result got = vgwctl({"get", "--compact", "vgw/version2/vniStatusDir"});
    EXPECT_EQ(got.status, 0) << got.err;
    const Json all = got.status == 0 ? Json::parse(got.out) : Json();
    return all.is_object() && all["vniStatusV2"].contains("5000") ? all["vniStatusV2"]["5000"] : Json();
  };
  const Json vteps = {{"10.0.0.1", true}, {"10.0.0.2", true}};
  const Json floodList = {{"00:00:00:00:00:00", {{"mac", "00:00:00:00:00:00"}, {"vtepIpFloodList", vteps}}}};
  const Json multiPath = {{"00:00:00:00:00:00", {{"mac", "00:00:00:00:00:00"}, {"vtepIpList", vteps}}}};
  ASSERT_TRUE(waitFor([&] { return vni5000()["macVtepFloodListTable"] == floodList; })) << vni5000().dump();
  Json published = vni5000();
  EXPECT_EQ(published["vni"], 5000);
  EXPECT_EQ(published["macVtepTable"],
            Json({{"00:11:22:33:44:55", {{"mac", "00:11:22:33:44:55"}, {"vtepIp", "10.0.0.1"}, {"moves", 1}, {"preference", 32}}}}));
  EXPECT_EQ(published["macVtepMultiPathTable"], Json::object());

  // The agent has moved the entries when the set is answered.
  ASSERT_EQ(vgwctl({"set", "vgw/cliconfig/vtepListType", "1"}).status, 0);
  published = vni5000();
  EXPECT_EQ(published["macVtepMultiPathTable"], multiPath);
  EXPECT_EQ(published["macVtepFloodListTable"], Json::object());
  ASSERT_EQ(vgwctl({"set", "vgw/cliconfig/vtepListType", "floodList"}).status, 0);
  published = vni5000();
  EXPECT_EQ(published["macVtepFloodListTable"], floodList);
  EXPECT_EQ(published["macVtepMultiPathTable"], Json::object());
  EXPECT_EQ(published["macVtepTable"].size(), 1u);
}

}  // namespace
