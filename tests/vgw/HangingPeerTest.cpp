// Database peers that are not what the agent needs: a server that serves
// another database, and peers that accept a connection and then never
// answer, before or after the schema.
#include <gtest/gtest.h>

#include "HandPeer.h"
#include "SessionSupport.h"

namespace Vgw::Test {
namespace {

// The agent cannot serve a socket without the hardware_vtep database and
// stops, but says first, in one line, what it found there.
TEST(VgwPeerDeathTest, ASocketWithoutTheHardwareVtepDatabaseIsNamedBeforeTheAgentStops) {
  freshLocalData();
  OvsdbServer vswitch("/usr/share/openvswitch/vswitch.ovsschema");
  LoopRunner runner;
  SessionRoot root(vswitch.socketPath());
  EXPECT_DEATH(root.enable(), "KXT_VGW_OVSDB_NO_DATABASE error: The database server at unix:" + vswitch.socketPath() +
                                  " serves no hardware_vtep database: .*unknown database.*\n"
                                  "Assertion failed: ovsdb error");
}

}  // namespace
}  // namespace Vgw::Test
