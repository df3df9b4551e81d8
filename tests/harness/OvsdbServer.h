// Vgw::Test::OvsdbServer: a real ovsdb-server holding a hardware_vtep
// database, private to one test.
//
// The constructor makes a fresh temporary directory and creates everything
// there: the database file (from /usr/share/openvswitch/vtep.ovsschema), the
// Unix socket clients connect to, the control socket, the pidfile and the
// log. Nothing is written outside it; the OVS tools it runs get OVS_RUNDIR,
// OVS_DBDIR and OVS_LOGDIR pointing there too. It then starts the server,
// waits until the socket accepts connections, and inserts the one Global row
// that a deployed VTEP database holds.
//
// stop() and start() take the server down and bring it back on the same
// database file, which is how tests play a server restart under a running
// client; kill() ends it without warning, and pause() and resume() stop and
// continue it (SIGSTOP, SIGCONT) as a server that hangs. The destructor stops
// the server and removes the directory.
//
// A server of another schema (OvsdbServer(otherSchemaPath)) holds that
// database instead, without rows, for tests of a socket that serves no
// hardware_vtep database.
//
// Every failure throws std::runtime_error with a message naming what failed
// and the tail of the server's log.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace Vgw::Test {

class OvsdbServer {
 public:
  static constexpr const char* vtepSchema = "/usr/share/openvswitch/vtep.ovsschema";
  explicit OvsdbServer(std::string schema = vtepSchema);
  ~OvsdbServer();
  OvsdbServer(const OvsdbServer&) = delete;
  OvsdbServer& operator=(const OvsdbServer&) = delete;

  // The Unix socket path, and the same as an OVS connection target
  // ("unix:<path>").
  const std::string& socketPath() const { return socketPath_; }
  std::string target() const { return "unix:" + socketPath_; }
  const std::filesystem::path& directory() const { return directory_; }
  bool running() const { return pid_ > 0; }

  // Starts the server on the existing database file. Throws when it is
  // already running or does not come up.
  void start();
  // SIGTERM, then waits for the process to end. Nothing happens when it is
  // not running.
  void stop();
  // SIGKILL, then waits for the process to end.
  void kill();
  // SIGSTOP and SIGCONT.
  void pause();
  void resume();

  // Runs one transaction, given as the full "transact" params array
  // (["hardware_vtep", op, ...]), through ovsdb-client as the controller
  // would, and returns the reply text. Operation errors are in the reply;
  // it throws only when the transaction could not be run.
  std::string transact(std::string_view transaction);

  // Runs vtep-ctl against this server and returns its standard output.
  // Throws with vtep-ctl's error text when it fails.
  template <typename... Args>
  std::string vtepCtl(const Args&... args) {
    return vtepCtlArgs({std::string(args)...});
  }
  std::string vtepCtlArgs(const std::vector<std::string>& args);

  // The rows of 'table' as a JSON array text, each row an object with every
  // column ("_uuid" and "_version" included) in OVSDB's wire format.
  std::string dump(std::string_view table);

 private:
  // Runs 'tool' to its end and returns its standard output, trailing
  // newlines removed; throws with its error output when it fails.
  std::string run(const std::string& tool, const std::vector<std::string>& args);
  void discard() noexcept;
  [[noreturn]] void fail(const std::string& what) const;

  std::filesystem::path directory_;
  std::string socketPath_;
  std::vector<std::string> environment_;
  pid_t pid_ = -1;
};

}  // namespace Vgw::Test
