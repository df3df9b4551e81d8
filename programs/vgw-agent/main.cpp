// vgw-agent: the gateway agent as a process.
//
// It loads the configuration file into a fresh state store, opens the control
// socket through which vgwctl reads and writes that store, builds the agent
// and runs the event loop until SIGTERM or SIGINT. Stopping leaves the
// database and the store as they are: the next start takes over from there.
// Exit status: 0 after a stop by signal, 1 when the agent cannot be started
// (the control socket cannot be set up), 2 on a bad argument or
// configuration file. The command line is declared once, in
// defineCommandLine(); --help and the manual page are made from it.
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "AgentConfig.h"
#include "AgentSummary.h"
#include "CommandLine.h"
#include "Hearth/AgentRunner.h"
#include "Kiln/Log.h"
#include "Ledger/ControlServer.h"
#include "Vgw/VgwAgent.h"

namespace {

constexpr const char* description =
    "Runs the vgw agent: presents the VXLAN fabric to the network virtualization\n"
    "controller through the hardware_vtep database named in the configuration.\n";

constexpr const char* footer = R"(The configuration is a JSON object from state-store path to entity, for
example
  {"vgw/config": {"ovsdbSocketPath": "/run/openvswitch/db.sock"},
   "vgw/cliconfig": {"enableAgent": true,
                     "managerAddress": {"ssl:192.0.2.10:6640": true}},
   "fleet/cluster/statusDir": {"status": {"default": {}}}}
(/etc/vgw/vgw-agent.json as installed, or examples/single-node.json in the
source tree, is a complete one).

The agent runs until SIGTERM or SIGINT and leaves the database as it is.
Environment: RINGTAPE_DISABLE, RINGTAPEDIR and VGW_TAPELOCK_FILEPATH control
the ring trace and its lock file; VGW_TRACE and VGW_RINGTAPE_LEVELS select
trace levels; VGW_SOCKET is the default control socket.

Exit status: 0 stopped by a signal; 1 the control socket cannot be set up;
2 a bad argument or configuration file.
)";

constexpr int exitOk = VgwCommandLine::exitOk;
constexpr int exitStartFailed = 1;
constexpr int exitUsage = VgwCommandLine::exitUsage;

struct Options {
  std::string config;
  std::string socket = Ledger::controlSocketPath();
};

void defineCommandLine(CLI::App& app, Options& options) {
  VgwCommandLine::prepare(app, VGW_VERSION);
  app.add_option("--config", options.config, "the configuration file")
      ->type_name("FILE")
      ->required()
      ->check(VgwCommandLine::nonEmpty);
  app.add_option("--socket", options.socket,
                 "the control socket for vgwctl (default: $VGW_SOCKET, else " +
                     std::string(Ledger::defaultControlSocketPath) + ")")
      ->type_name("SOCKET")
      ->check(VgwCommandLine::nonEmpty);
  // Answered as soon as it is seen, without a configuration.
  app.add_flag_callback(
         "--log-catalogue",
         [] {
           Kiln::printLogCatalogue(std::cout);
           throw CLI::Success();
         },
         "print every message the agent may log, with its explanation and recommended action, and exit")
      ->trigger_on_parse();
  app.footer(footer);
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
  CLI::App app(description, "vgw-agent");
  Options options;
  defineCommandLine(app, options);
  if (const auto status = VgwCommandLine::parse(app, argc, argv)) return *status;
  try {
    return run(options);
  } catch (const std::exception& e) {
    std::cerr << "vgw-agent: " << e.what() << '\n';
    return exitStartFailed;
  }
}
