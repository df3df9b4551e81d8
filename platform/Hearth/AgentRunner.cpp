#include "Hearth/AgentRunner.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "Kiln/Assert.h"
#include "Kiln/Log.h"

namespace Hearth {

namespace {

Kiln::LogHandle stopRequested("KXT_AGENT_STOP_REQUESTED", Kiln::LogSeverity::notice, "Agent %s stopping on %s",
                              "The agent was asked to stop by a signal and leaves its event loop; what it published "
                              "stays in place for its next start.",
                              "", 0.0, 1.0, 0);

AgentRunner* currentRunner = nullptr;

}  // namespace

class AgentRunner::SignalReactor final : public Kiln::FileDescriptor::NotifieeConst {
 public:
  explicit SignalReactor(AgentRunner& runner) : runner_(runner) {}
  void onReadable() override { runner_.signalsReadable(); }

 private:
  AgentRunner& runner_;
};

AgentRunner::AgentRunner(Kiln::String agentName)
    : agentName_(std::move(agentName)),
      store_(Kiln::newPtr<Ledger::Store>()),
      localEntityManager_(Kiln::newPtr<Ledger::EntityManager>(store_)),
      previous_(currentRunner) {
  currentRunner = this;
}

AgentRunner::~AgentRunner() {
  agent_ = nullptr;
  if (signalFd_ >= 0) {
    signalReactor_.reset();
    signalDescriptor_->descriptorIs(-1);
    close(signalFd_);
    sigprocmask(SIG_SETMASK, &savedMask_, nullptr);
  }
  currentRunner = previous_;
}

const Kiln::Ptr<ServiceAgent>& AgentRunner::agentIs(const AgentFactory& factory) {
  KILN_ASSERT(agent_ == nullptr, "agent runner asked for a second agent");
  agent_ = factory(agentName_);
  KILN_ASSERT(agent_ != nullptr, "agent factory returned no agent");
  agent_->doInit();
  return agent_;
}

void AgentRunner::stopOnSignals() {
  if (signalFd_ >= 0) return;
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  // Blocked first, so that a signal arriving now waits for the descriptor.
  if (sigprocmask(SIG_BLOCK, &stopSignals, &savedMask_) != 0)
    throw std::system_error(errno, std::generic_category(), "blocking SIGTERM and SIGINT");
  signalFd_ = signalfd(-1, &stopSignals, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signalFd_ < 0) {
    const int error = errno;
    sigprocmask(SIG_SETMASK, &savedMask_, nullptr);
    throw std::system_error(error, std::generic_category(), "making a signalfd for SIGTERM and SIGINT");
  }
  signalDescriptor_ = Kiln::newPtr<Kiln::FileDescriptor>("stop signals");
  signalDescriptor_->descriptorIs(signalFd_);
  signalReactor_ = std::make_unique<SignalReactor>(*this);
  signalReactor_->notifierIs(signalDescriptor_);
  signalDescriptor_->notifyOnReadableIs(true);
}

void AgentRunner::signalsReadable() {
  signalfd_siginfo info{};
  ssize_t n;
  while ((n = read(signalFd_, &info, sizeof info)) == static_cast<ssize_t>(sizeof info)) {
    if (stopSignal_ == 0) {
      stopSignal_ = static_cast<int>(info.ssi_signo);
      Kiln::log(stopRequested, agentName_, sigabbrev_np(stopSignal_) ? std::string("SIG") + sigabbrev_np(stopSignal_)
                                                                    : std::to_string(stopSignal_));
    }
  }
  if (stopSignal_ != 0) stop();
}

void AgentRunner::run() {
  Kiln::EventLoop& loop = Kiln::EventLoop::current();
  while (!stopped_) loop.runOnce(Kiln::plusInfinity);
}

void AgentRunner::stop() {
  stopped_ = true;
  Kiln::EventLoop::current().stop();
}

Kiln::Ptr<Ledger::EntityManager> localEntityManager() {
  return currentRunner ? currentRunner->localEntityManager() : nullptr;
}

}  // namespace Hearth
