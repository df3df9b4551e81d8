#include "OvsdbServer.h"

#include <cerrno>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace Vgw::Test {
namespace {

namespace fs = std::filesystem;

// How long an external process may take to come up or go down. These bound
// waits on ovsdb-server and its tools, so that a broken installation fails a
// test instead of hanging it; no test result depends on them.
constexpr auto kProcessDeadline = std::chrono::seconds(10);
constexpr auto kPollInterval = std::chrono::milliseconds(5);
constexpr const char* kToolTimeout = "--timeout=10";

std::string errnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

// The tools live in /usr/sbin (ovsdb-server) and /usr/bin; PATH may hold
// neither for an unprivileged user.
std::string findProgram(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::istringstream dirs(std::string(path ? path : "") + ":/usr/sbin:/usr/bin:/sbin:/bin");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    const fs::path candidate = fs::path(dir) / name;
    if (!dir.empty() && ::access(candidate.c_str(), X_OK) == 0) return candidate.string();
  }
  throw std::runtime_error("OvsdbServer: " + name + " not found on PATH or in /usr/sbin; run scripts/install-deps");
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Forks and execs 'argv' with 'env', standard input from /dev/null and the
// two outputs into the given files (opened for appending). Only
// async-signal-safe calls happen between fork and exec.
pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env, const fs::path& outFile,
            const fs::path& errFile, bool truncate) {
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::vector<char*> envp;
  for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);
  const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (truncate ? O_TRUNC : O_APPEND);

  const pid_t parent = ::getpid();
  pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error(errnoText("OvsdbServer: fork"));
  if (pid == 0) {
    // A test that dies without running its destructors (an assertion, a
    // sanitizer report) takes its server with it.
    if (::prctl(PR_SET_PDEATHSIG, SIGTERM) < 0 || ::getppid() != parent) ::_exit(125);
    int in = ::open("/dev/null", O_RDONLY);
    int out = ::open(outFile.c_str(), flags, 0644);
    int err = outFile == errFile ? out : ::open(errFile.c_str(), flags, 0644);
    if (in < 0 || out < 0 || err < 0 || ::dup2(in, 0) < 0 || ::dup2(out, 1) < 0 || ::dup2(err, 2) < 0) {
      ::_exit(126);
    }
    // Sockets of the test (client connections, listeners) must not live on
    // in the server, or closing them in the test would not close them.
    ::close_range(3, ~0U, 0);
    // A test that blocks SIGTERM for its own loop must still be able to stop
    // the server with it.
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execve(args[0], args.data(), envp.data());
    ::_exit(127);
  }
  return pid;
}

}  // namespace

OvsdbServer::OvsdbServer(std::string schema) {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/vgw-ovsdb.XXXXXX";
  if (!::mkdtemp(pattern.data())) throw std::runtime_error(errnoText("OvsdbServer: cannot create " + pattern));
  directory_ = pattern;
  socketPath_ = (directory_ / "db.sock").string();

  // The tools keep their run, database and log files in the directory, not
  // in whatever OVS_*DIR the test inherited.
  const std::vector<std::string> ours = {"OVS_RUNDIR=", "OVS_DBDIR=", "OVS_LOGDIR="};
  for (char** e = environ; *e; ++e) {
    const std::string_view var(*e);
    if (std::none_of(ours.begin(), ours.end(), [&](const std::string& name) { return var.starts_with(name); })) {
      environment_.emplace_back(var);
    }
  }
  for (const std::string& name : ours) environment_.push_back(name + directory_.string());

  try {
    run("ovsdb-tool", {"create", (directory_ / "vtep.db").string(), schema});
    start();
    if (schema == vtepSchema) {
      std::string reply = transact(R"(["hardware_vtep",{"op":"insert","table":"Global","row":{}}])");
      if (reply.find("\"error\"") != std::string::npos) fail("inserting the Global row failed: " + reply);
    }
  } catch (...) {
    discard();
    throw;
  }
}

OvsdbServer::~OvsdbServer() { discard(); }

void OvsdbServer::discard() noexcept {
  try {
    stop();
  } catch (const std::exception&) {
    // stop() has SIGKILLed a server that ignored SIGTERM; the directory goes
    // all the same.
  }
  std::error_code ignored;
  fs::remove_all(directory_, ignored);
}

void OvsdbServer::start() {
  if (running()) fail("start() while the server is running");
  const fs::path log = directory_ / "ovsdb-server.log";
  // Anything printed before the log file is open (a bad option, a missing
  // database) lands in the log as well.
  pid_ = spawn({findProgram("ovsdb-server"), (directory_ / "vtep.db").string(), "--remote=punix:" + socketPath_,
                "--unixctl=" + (directory_ / "ovsdb-server.ctl").string(),
                "--pidfile=" + (directory_ / "ovsdb-server.pid").string(), "--log-file=" + log.string(),
                "-vconsole:off"},
               environment_, log, log, false);

  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath_.size() >= sizeof address.sun_path) fail("socket path too long: " + socketPath_);
  std::memcpy(address.sun_path, socketPath_.c_str(), socketPath_.size() + 1);
  const auto deadline = std::chrono::steady_clock::now() + kProcessDeadline;
  for (;;) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      fail("ovsdb-server exited while starting (status " + std::to_string(status) + ")");
    }
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) fail(errnoText("socket"));
    bool connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    if (connected) return;
    if (std::chrono::steady_clock::now() > deadline) {
      stop();
      fail("ovsdb-server did not accept connections on " + socketPath_ + " within " +
           std::to_string(kProcessDeadline.count()) + " s");
    }
    std::this_thread::sleep_for(kPollInterval);
  }
}

void OvsdbServer::stop() {
  if (!running()) return;
  const pid_t pid = pid_;
  pid_ = -1;
  ::kill(pid, SIGTERM);
  // A paused server takes the signal once it runs again.
  ::kill(pid, SIGCONT);
  const auto deadline = std::chrono::steady_clock::now() + kProcessDeadline;
  int status = 0;
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      fail("ovsdb-server ignored SIGTERM for " + std::to_string(kProcessDeadline.count()) + " s and was killed");
    }
    std::this_thread::sleep_for(kPollInterval);
  }
}

void OvsdbServer::kill() {
  if (!running()) return;
  const pid_t pid = pid_;
  pid_ = -1;
  ::kill(pid, SIGKILL);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
}

void OvsdbServer::pause() {
  if (running()) ::kill(pid_, SIGSTOP);
}

void OvsdbServer::resume() {
  if (running()) ::kill(pid_, SIGCONT);
}

std::string OvsdbServer::transact(std::string_view transaction) {
  return run("ovsdb-client", {kToolTimeout, "transact", target(), std::string(transaction)});
}

std::string OvsdbServer::vtepCtlArgs(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"--db=" + target(), kToolTimeout};
  argv.insert(argv.end(), args.begin(), args.end());
  return run("vtep-ctl", argv);
}

std::string OvsdbServer::dump(std::string_view table) {
  const nlohmann::json select =
      nlohmann::json::array({"hardware_vtep", {{"op", "select"}, {"table", table}, {"where", nlohmann::json::array()}}});
  const std::string reply = transact(select.dump());
  const nlohmann::json parsed = nlohmann::json::parse(reply, nullptr, false);
  if (parsed.is_discarded() || !parsed.is_array() || parsed.empty() || !parsed[0].contains("rows")) {
    fail("selecting the rows of " + std::string(table) + " failed: " + reply);
  }
  return parsed[0]["rows"].dump();
}

std::string OvsdbServer::run(const std::string& tool, const std::vector<std::string>& args) {
  std::vector<std::string> argv = {findProgram(tool)};
  argv.insert(argv.end(), args.begin(), args.end());
  const fs::path out = directory_ / (tool + ".out");
  const fs::path err = directory_ / (tool + ".err");
  const pid_t pid = spawn(argv, environment_, out, err, true);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) fail(errnoText("waitpid for " + tool));
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::string command = tool;
    for (const auto& a : args) command += " " + a;
    fail(command + " failed (status " + std::to_string(status) + "): " + readFile(err));
  }
  std::string result = readFile(out);
  while (!result.empty() && result.back() == '\n') result.pop_back();
  return result;
}

void OvsdbServer::fail(const std::string& what) const {
  const fs::path log = directory_ / "ovsdb-server.log";
  std::string tail = readFile(log);
  // The last lines are the ones that tell why.
  if (tail.size() > 2000) tail = "..." + tail.substr(tail.find('\n', tail.size() - 2000) + 1);
  throw std::runtime_error("OvsdbServer in " + directory_.string() + ": " + what + "\n--- tail of " + log.string() +
                           " ---\n" + (tail.empty() ? "(empty)\n" : tail));
}

}  // namespace Vgw::Test
