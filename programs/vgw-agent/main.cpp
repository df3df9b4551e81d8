// vgw-agent: the gateway agent as a process.
//
// It loads the configuration file into a fresh state store, opens the control
// socket through which vgwctl reads and writes that store, builds the agent
// and runs the event loop until SIGTERM or SIGINT. Stopping leaves the
// database and the store as they are: the next start takes over from there.
// Exit status: 0 after a stop by signal, 1 when the agent cannot be started
// (the control socket cannot be set up), 2 on a bad argument or
// configuration file. The usage text below is the command's manual.
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>

#include "AgentConfig.h"
#include "AgentSummary.h"
#include "Hearth/AgentRunner.h"
#include "Kiln/Log.h"
#include "Ledger/ControlServer.h"
#include "Vgw/VgwAgent.h"

namespace {

constexpr const char* usageText = R"(usage: vgw-agent --config FILE [--socket PATH]
Runs the vgw agent: presents the VXLAN fabric to the network virtualization
controller through the hardware_vtep database named in FILE.

Options:
  --config FILE   the configuration: a JSON object from state-store path to
                  entity, for example
                    {"vgw/config": {"ovsdbSocketPath": "/run/openvswitch/db.sock"},
                     "vgw/cliconfig": {"enableAgent": true,
                                       "managerAddress": {"ssl:192.0.2.10:6640": true}},
                     "fleet/cluster/statusDir": {"status": {"default": {}}}}
                  (see examples/single-node.json for a complete one)
  --socket PATH   the control socket for vgwctl (default: $VGW_SOCKET, else
                  /run/vgw/vgw-agent.sock)
  --log-catalogue print every message the agent may log, with its
                  explanation and recommended action, and exit
  --help, --version

The agent runs until SIGTERM or SIGINT and leaves the database as it is.
Environment: RINGTAPE_DISABLE, RINGTAPEDIR and VGW_TAPELOCK_FILEPATH control
the ring trace and its lock file; VGW_TRACE and VGW_RINGTAPE_LEVELS select
trace levels.

Exit status: 0 stopped by a signal; 1 the control socket cannot be set up;
2 a bad argument or configuration file.
)";

constexpr int exitOk = 0;
constexpr int exitStartFailed = 1;
constexpr int exitUsage = 2;

struct Options {
  std::string config;
  std::string socket = Ledger::controlSocketPath();
};

struct UsageError {
  std::string message;
};

Options parseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    const std::size_t equals = arg.find('=');
    const std::string_view name = arg.substr(0, equals);
    auto valueOf = [&]() -> std::string {
      if (equals != std::string_view::npos) return std::string(arg.substr(equals + 1));
      if (i + 1 >= argc) throw UsageError{std::string(name) + " needs a value"};
      return argv[++i];
    };
    if (arg == "--help" || arg == "-h") {
      std::cout << usageText;
      std::exit(exitOk);
    } else if (arg == "--log-catalogue") {
      Kiln::printLogCatalogue(std::cout);
      std::exit(exitOk);
    } else if (arg == "--version") {
      std::cout << "vgw-agent " << VGW_VERSION << '\n';
      std::exit(exitOk);
    } else if (name == "--config") {
      options.config = valueOf();
      if (options.config.empty()) throw UsageError{"--config needs a file"};
    } else if (name == "--socket") {
      options.socket = valueOf();
      if (options.socket.empty()) throw UsageError{"--socket needs a path"};
    } else {
      throw UsageError{"unexpected argument " + std::string(arg)};
    }
  }
  if (options.config.empty()) throw UsageError{"--config FILE is required"};
  return options;
}

int run(const Options& options) {
  Hearth::AgentRunner runner("Vgw");
  try {
    VgwAgent::loadAgentConfig(*runner.localEntityManager(), options.config);
  } catch (const VgwAgent::ConfigError& e) {
    std::cerr << "vgw-agent: " << e.what() << '\n';
    return exitUsage;
  }
  Ledger::ControlServer control(runner.localEntityManager());
  try {
    control.listen(options.socket);
  } catch (const Ledger::ControlSocketError& e) {
    std::cerr << "vgw-agent: " << e.what() << '\n';
    return exitStartFailed;
  }
  runner.stopOnSignals();
  const auto agent = Kiln::staticPtrCast<Vgw::Agent>(runner.agentIs(Vgw::agentFactory));
  agent->exitingHandlerIs([](const std::string& reason) {
    std::cerr << "vgw-agent: the agent may not run on this node (" << reason
              << "); it stays idle until it is stopped and restarted" << std::endl;
  });
  control.opIs("show", [agent](const Kiln::Json&) { return VgwAgent::agentSummary(*agent); });
  runner.run();
  return exitOk;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  try {
    options = parseOptions(argc, argv);
  } catch (const UsageError& e) {
    std::cerr << "vgw-agent: " << e.message << "\nTry 'vgw-agent --help'.\n";
    return exitUsage;
  }
  try {
    return run(options);
  } catch (const std::exception& e) {
    std::cerr << "vgw-agent: " << e.what() << '\n';
    return exitStartFailed;
  }
}
