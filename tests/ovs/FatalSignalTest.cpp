// Keeping the fatal-signal handlers of Open vSwitch out of the process.
#include <gtest/gtest.h>
#include <signal.h>

#include <array>
#include <cstdlib>

#include "OvscSupport.h"

namespace Vgw::Test {
namespace {

using Handler = void (*)(int);
using Dispositions = std::array<Handler, 5>;

// The handlers of the signals the library takes over in 3.1.
Dispositions dispositions() {
  Dispositions result{};
  const int signals[] = {SIGTERM, SIGINT, SIGHUP, SIGALRM, SIGSEGV};
  for (size_t i = 0; i < result.size(); ++i) {
    struct sigaction action {};
    sigaction(signals[i], nullptr, &action);
    result[i] = action.sa_handler;
  }
  return result;
}

void customHandler(int) {}

// Any stream call initializes OVS's fatal-signal module; a connection
// attempt to a path that does not exist is the cheapest.
void touchStreams() {
  stream* s = nullptr;
  ovsc_jsonrpc_stream_open_block("unix:/nonexistent/vgw-test.sock", kDscp, -1, &s);
}

// Each case runs in a freshly executed copy of the test binary, because the
// library initializes its signal handling once per process.
class OvsFatalSignal : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(OvsFatalSignal, DisabledBeforeFirstUseLeavesDispositionsAlone) {
  EXPECT_EXIT(
      {
        signal(SIGHUP, customHandler);
        const Dispositions before = dispositions();
        ovsc_fatal_signal_disable();
        touchStreams();
        std::_Exit(dispositions() == before ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(OvsFatalSignal, DisabledAfterFirstUseRestoresDefaults) {
  EXPECT_EXIT(
      {
        signal(SIGHUP, customHandler);
        const Dispositions before = dispositions();
        touchStreams();
        // Without the disable the library holds the signals that were at
        // SIG_DFL; the check that it does keeps this case honest.
        if (dispositions() == before) std::_Exit(2);
        ovsc_fatal_signal_disable();
        std::_Exit(dispositions() == before ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace Vgw::Test
