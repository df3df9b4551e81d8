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
#include <tuple>
#include <vector>

#include "OvsdbServer.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

// Waits for external processes: bounded, in short real-time steps.
bool waitFor(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
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

// One child process, its standard output and error going to one file.
class Process {
 public:
  Process(const std::string& program, std::vector<std::string> args, const fs::path& dir) {
    static int count = 0;
    output_ = dir / ("process" + std::to_string(++count) + ".out");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, output_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    args.insert(args.begin(), program);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const int error = posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("cannot start " + program + ": " + std::strerror(error));
  }
  ~Process() {
    if (running()) kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  bool running() {
    int raw = 0;
    if (status_ < 0 && waitpid(pid_, &raw, WNOHANG) == pid_) {
      status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    }
    return status_ < 0;
  }
  // The exit status (128 + the signal for a process a signal ended), -1
  // while it runs.
  int wait() {
    waitFor([&] { return !running(); });
    return status_;
  }
  void signal(int sig) const { kill(pid_, sig); }
  std::string output() const { return readFile(output_); }

 private:
  pid_t pid_ = -1;
  int status_ = -1;
  fs::path output_;
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
  // Starts the agent on 'config' and waits until its session is in 'state'.
  std::unique_ptr<Process> startAgent(const std::string& state = "stateConnected") {
    auto agent = std::make_unique<Process>(
        VGW_AGENT_PATH, std::vector<std::string>{"--config", writeConfig(config.dump()), "--socket", socket}, dir);
    EXPECT_TRUE(waitFor([&] { return sessionIs(state) || !agent->running(); })) << agent->output();
    EXPECT_TRUE(agent->running()) << agent->output();
    return agent;
  }
  // vgwctl's exit status and output.
  std::pair<int, std::string> vgwctl(std::vector<std::string> args) {
    args.insert(args.begin(), {"--socket", socket});
    Process ctl(VGWCTL_PATH, args, dir);
    const int status = ctl.wait();
    return {status, ctl.output()};
  }
  Json show() {
    const auto [status, output] = vgwctl({"show", "--json"});
    return status == 0 ? Json::parse(output) : Json();
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

TEST_F(VgwAgentProgram, ExampleConfigurationServesTheDatabaseRefusesBadRequestsAndStopsOnSignal) {
  auto agent = startAgent();
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
  const auto [unknown, unknownText] = vgwctl({"get", "vgw/nothing"});
  EXPECT_EQ(unknown, 1);
  EXPECT_NE(unknownText.find("vgw/nothing"), std::string::npos) << unknownText;
  const auto [owned, ownedText] = vgwctl({"set", "vgw/status/running", "false"});
  EXPECT_EQ(owned, 1);
  EXPECT_NE(ownedText.find("vgw/status"), std::string::npos) << ownedText;
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socket.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const std::string garbled = "{\"op\": get\n";
  ASSERT_EQ(write(fd, garbled.data(), garbled.size()), static_cast<ssize_t>(garbled.size()));
  char reply[512] = {};
  ASSERT_GT(read(fd, reply, sizeof reply - 1), 0);
  close(fd);
  EXPECT_EQ(Json::parse(std::string(reply).substr(0, std::string(reply).find('\n')))["ok"], false) << reply;
  EXPECT_TRUE(sessionIs("stateConnected"));

  // One validation on every road: what the configuration file refuses (see
  // below), vgwctl set and vgwctl load refuse with the same words.
  const auto cliConfig = [&] { return vgwctl({"get", "--compact", "vgw/cliconfig"}).second; };
  const std::string cliBefore = cliConfig();
  for (const auto& [path, value, error] : std::vector<std::tuple<std::string, Json, std::string>>{
           {"vgw/cliconfig/maxOps", 0, "vgw/cliconfig/maxOps: must be at least 1"},
           {"vgw/config/ovsdbSocketPath", "", "vgw/config/ovsdbSocketPath: is required"},
           {"vgw/cliconfig/managerAddress/not-a-target", true,
            "vgw/cliconfig/managerAddress/not-a-target: not an OVSDB connection method"}}) {
    const auto [setStatus, setText] = vgwctl({"set", path, value.dump()});
    EXPECT_EQ(setStatus, 1) << path;
    EXPECT_NE(setText.find(error), std::string::npos) << setText;
    const std::size_t slash = path.find('/', path.find('/') + 1);
    Json document = {{path.substr(0, slash), config[path.substr(0, slash)]}};
    document[path.substr(0, slash)][Json::json_pointer(path.substr(slash))] = value;
    const auto [loadStatus, loadText] = vgwctl({"load", writeConfig(document.dump())});
    EXPECT_EQ(loadStatus, 1) << path;
    EXPECT_NE(loadText.find(error), std::string::npos) << loadText;
  }
  EXPECT_EQ(cliConfig(), cliBefore);
  EXPECT_EQ(managerRows(), rows);

  // A manager added and removed again.
  ASSERT_EQ(vgwctl({"set", "vgw/cliconfig/managerAddress/ptcp:6641", "true"}).first, 0);
  EXPECT_TRUE(waitFor([&] { return managerRows().size() == 2; }));
  ASSERT_EQ(vgwctl({"del", "vgw/cliconfig/managerAddress/ptcp:6641"}).first, 0);
  EXPECT_TRUE(waitFor([&] { return managerRows().size() == 1; }));
  EXPECT_EQ(Json::parse(server.dump("Global"))[0]["managers"], managerRows()[0]["_uuid"]);

  agent->signal(SIGTERM);
  EXPECT_EQ(agent->wait(), 0) << agent->output();
  EXPECT_EQ(managerRows(), rows);
}

TEST_F(VgwAgentProgram, LeadershipAndTheOperatorSwitchGovernTheSessionThroughVgwctl) {
  auto agent = startAgent();
  const Json before = managerRows();
  const std::string leader = "fleet/cluster/statusDir/status/default/isStandaloneOrLeader";

  // Lost leadership: another node's agent owns the database now.
  ASSERT_EQ(vgwctl({"set", leader, "false"}).first, 0);
  Json summary = show();
  EXPECT_EQ(summary["agent"]["running"], false);
  EXPECT_EQ(summary["agent"]["discardRequest"], true);
  EXPECT_TRUE(summary["session"].empty());
  EXPECT_EQ(managerRows(), before);

  ASSERT_EQ(vgwctl({"set", leader, "true"}).first, 0);
  ASSERT_TRUE(waitFor([&] { return sessionIs("stateConnected"); }));
  EXPECT_EQ(show()["agent"]["discardRequest"], false);

  // The operator's switch keeps the teardown's writes.
  ASSERT_EQ(vgwctl({"set", "vgw/cliconfig/enableAgent", "false"}).first, 0);
  summary = show();
  EXPECT_EQ(summary["agent"]["running"], false);
  EXPECT_EQ(summary["agent"]["discardRequest"], false);
  EXPECT_TRUE(agent->running());
}

TEST_F(VgwAgentProgram, BadConfigurationsAndArgumentsAreRefusedByNameAndADisabledAgentStaysUp) {
  Json noSocket = config;
  noSocket.erase("vgw/config");
  Json noOps = config;
  noOps["vgw/cliconfig"]["maxOps"] = 0;
  Json badTarget = config;
  badTarget["vgw/cliconfig"]["managerAddress"]["not-a-target"] = true;
  const std::string missing = (dir / "missing.json").string();
  const std::string huge = writeConfig("{}");
  fs::resize_file(huge, std::uintmax_t{1} << 30);
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--config", missing}, "cannot read " + missing},
      {{"--config", writeConfig("{\"vgw/config\": ")}, "is not JSON"},
      {{"--config", writeConfig("[]")}, "expected an object"},
      {{"--config", "/dev/zero"}, "/dev/zero: larger than 16777216 bytes; a configuration file is smaller"},
      {{"--config", huge}, huge + ": larger than 16777216 bytes"},
      {{"--config", writeConfig(R"({"vgw/nothing": {}})")}, "vgw/nothing: unknown path"},
      {{"--config", writeConfig(R"({"vgw/cliconfig": {"enable": true}})")}, "vgw/cliconfig/enable: no such attribute"},
      {{"--config", writeConfig(R"({"vgw/cliconfig": {"enableAgent": "yes"}})")},
       "vgw/cliconfig/enableAgent: expected true or false"},
      {{"--config", writeConfig(R"({"vgw/status": {"running": true}})")}, "vgw/status: is written by the agent"},
      {{"--config", writeConfig(noSocket.dump())}, "vgw/config: ovsdbSocketPath is required"},
      {{"--config", writeConfig(noOps.dump())}, "vgw/cliconfig/maxOps: must be at least 1"},
      {{"--config", writeConfig(badTarget.dump())},
       "vgw/cliconfig/managerAddress/not-a-target: not an OVSDB connection method"},
      {{}, "vgw-agent: --config is required"},
      {{"--config"}, "vgw-agent: --config: 1 required FILE missing"},
      {{"--config", missing, "--verbose"}, "not expected: --verbose\nTry 'vgw-agent --help'."},
  };
  for (const auto& [args, expected] : cases) {
    Process agent(VGW_AGENT_PATH, args, dir);
    EXPECT_EQ(agent.wait(), 2) << expected;
    EXPECT_NE(agent.output().find(expected), std::string::npos) << agent.output();
  }
  Process version(VGW_AGENT_PATH, {"--version"}, dir);
  EXPECT_EQ(version.wait(), 0);
  EXPECT_EQ(version.output().rfind("vgw-agent ", 0), 0u) << version.output();
  Process catalogue(VGW_AGENT_PATH, {"--log-catalogue"}, dir);
  EXPECT_EQ(catalogue.wait(), 0);
  EXPECT_NE(catalogue.output().find("KXT_VGW_INVALID_VLAN_MAP (warning)\n  Format: [ %s ]: Invalid Vlan map on %s"),
            std::string::npos)
      << catalogue.output();

  config["vgw/cliconfig"]["enableAgent"] = false;
  auto agent = startAgent("");
  ASSERT_TRUE(waitFor([&] { return show()["agent"].value("exiting", false); })) << agent->output();
  EXPECT_NE(agent->output().find("may not run on this node (vgw/cliconfig enableAgent is false"), std::string::npos)
      << agent->output();
  EXPECT_TRUE(managerRows().empty());
  agent->signal(SIGINT);
  EXPECT_EQ(agent->wait(), 0);
}

TEST_F(VgwAgentProgram, ControllerHostsShowThroughVgwctlAndFollowTheVtepListTypeItSets) {
  auto agent = startAgent();
  server.vtepCtl("add-ls", "blue");
  server.vtepCtl("set", "Logical_Switch", "blue", "tunnel_key=5000");
  server.vtepCtl("add-ucast-remote", "blue", "00:11:22:33:44:55", "10.0.0.1");
  server.vtepCtl("add-mcast-remote", "blue", "unknown-dst", "10.0.0.1");
  server.vtepCtl("add-mcast-remote", "blue", "unknown-dst", "10.0.0.2");
  // The VniStatusV2 of VNI 5000 as vgwctl shows the whole directory.
  const auto vni5000 = [&] {
    const auto [status, output] = vgwctl({"get", "--compact", "vgw/version2/vniStatusDir"});
    EXPECT_EQ(status, 0) << output;
    const Json all = status == 0 ? Json::parse(output) : Json();
    return all.is_object() && all["vniStatusV2"].contains("5000") ? all["vniStatusV2"]["5000"] : Json();
  };
  const Json vteps = {{"10.0.0.1", true}, {"10.0.0.2", true}};
  const Json floodList = {{"00:00:00:00:00:00", {{"mac", "00:00:00:00:00:00"}, {"vtepIpFloodList", vteps}}}};
  ASSERT_TRUE(waitFor([&] { return vni5000()["macVtepFloodListTable"] == floodList; })) << vni5000().dump();
  Json published = vni5000();
  EXPECT_EQ(published["vni"], 5000);
  EXPECT_EQ(published["macVtepTable"],
            Json({{"00:11:22:33:44:55", {{"mac", "00:11:22:33:44:55"}, {"vtepIp", "10.0.0.1"}, {"moves", 1}, {"preference", 32}}}}));
  EXPECT_EQ(published["macVtepMultiPathTable"], Json::object());

  // The agent has moved the entries when the set is answered.
  ASSERT_EQ(vgwctl({"set", "vgw/cliconfig/vtepListType", "1"}).first, 0);
  published = vni5000();
  EXPECT_EQ(published["macVtepMultiPathTable"],
            Json({{"00:00:00:00:00:00", {{"mac", "00:00:00:00:00:00"}, {"vtepIpList", vteps}}}}));
  EXPECT_EQ(published["macVtepFloodListTable"], Json::object());
}

}  // namespace
