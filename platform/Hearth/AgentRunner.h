// Hearth::AgentRunner: the host that runs one agent in a process.
//
// The runner owns the state store and the local entity manager on it, builds
// the agent through a factory and starts it with doInit(), and runs the event
// loop of the process (Kiln::EventLoop::current(), so that a test's
// ScopedEventLoop and simulated time apply) until it is stopped. A program's
// main() makes one runner, loads its configuration into the store, opens its
// control socket, and calls run():
//
//   Hearth::AgentRunner runner("Vgw");
//   runner.localEntityManager()->loadDocument(config);
//   runner.stopOnSignals();
//   runner.agentIs(Vgw::agentFactory);
//   runner.run();
//
// Stopping: stop(), or SIGTERM or SIGINT once stopOnSignals() is in place.
// The signals are then blocked and read from a signalfd watched by the loop,
// so they arrive as an ordinary loop event: the turn that reads one stops the
// loop and nothing is interrupted half-way. A stop ends the loop and nothing
// else: the agent is not asked to clean up, so what it published in the
// store stays as it was, and its next life starts from it. Destroying the
// runner drops the agent and restores the signal mask it found.
//
// While a runner exists it is the process's current runner:
// Hearth::localEntityManager() gives its local manager, so that an agent
// factory taking only a name can hand it to the ServiceAgent base.
// Single-threaded, like the loop.
#pragma once

#include <signal.h>

#include <functional>
#include <memory>

#include "Hearth/ServiceAgent.h"
#include "Kiln/EventLoop.h"
#include "Ledger/EntityManager.h"

namespace Hearth {

class AgentRunner {
 public:
  using AgentFactory = std::function<Kiln::Ptr<ServiceAgent>(Kiln::String name)>;

  explicit AgentRunner(Kiln::String agentName);
  ~AgentRunner();
  AgentRunner(const AgentRunner&) = delete;
  AgentRunner& operator=(const AgentRunner&) = delete;

  const Kiln::String& agentName() const { return agentName_; }
  const Kiln::Ptr<Ledger::Store>& store() const { return store_; }
  const Kiln::Ptr<Ledger::EntityManager>& localEntityManager() const { return localEntityManager_; }

  // Builds the agent with `factory(agentName())`, keeps it and calls its
  // doInit(). Once per runner.
  const Kiln::Ptr<ServiceAgent>& agentIs(const AgentFactory& factory);
  const Kiln::Ptr<ServiceAgent>& agent() const { return agent_; }

  // Stops the loop on SIGTERM and SIGINT (see above). Throws
  // std::system_error when the signalfd cannot be made.
  void stopOnSignals();
  // The signal that stopped the loop, or 0.
  int stopSignal() const { return stopSignal_; }

  // Runs the loop until stop() or a stop signal; at once when stopped before.
  void run();
  void stop();
  bool stopped() const { return stopped_; }

 private:
  class SignalReactor;
  void signalsReadable();

  Kiln::String agentName_;
  Kiln::Ptr<Ledger::Store> store_;
  Kiln::Ptr<Ledger::EntityManager> localEntityManager_;
  Kiln::Ptr<ServiceAgent> agent_;
  AgentRunner* previous_;
  int signalFd_ = -1;
  sigset_t savedMask_{};
  Kiln::Ptr<Kiln::FileDescriptor> signalDescriptor_;
  std::unique_ptr<SignalReactor> signalReactor_;
  int stopSignal_ = 0;
  bool stopped_ = false;
};

// The local entity manager of the current runner, or null when there is none.
Kiln::Ptr<Ledger::EntityManager> localEntityManager();

}  // namespace Hearth
