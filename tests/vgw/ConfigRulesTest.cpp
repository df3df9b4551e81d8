// The rules of the operator's configuration: the forms a controller target
// may take, and every rule held on the store's write roads (an attribute, a
// member, a whole entity, a document), so that a configuration file,
// vgwctl set and vgwctl load refuse the same values with the same words.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SessionSupport.h"
#include "Vgw/CliConfigSm.h"

namespace Vgw::Test {
namespace {

using Kiln::Json;

TEST(ConfigRules, controllerTargetsTakeTheFormsOfAnOvsdbConnectionMethod) {
  for (const std::string target :
       {"ssl:192.0.2.10:6640", "tcp:10.0.0.1:6640", "tcp:10.0.0.1", "ssl:[2001:db8::1]:6640", "tcp:[::1]",
        "ssl:nvc-1.example.com:6640", "tcp:localhost:1", "tcp:10.0.0.1:65535", "unix:/run/nvc.sock", "punix:/run/x",
        "ptcp:6641", "ptcp:", "pssl:6640:192.0.2.1", "ptcp:6640:[::1]", "ptcp::10.0.0.1", "ptcp:0"}) {
    EXPECT_EQ(managerTargetProblem(target), "") << target;
  }
  const std::string longName = "tcp:" + std::string(250, 'a') + ".example:6640";
  for (const std::string target :
       {"", "not-a-target", "ssl:", "tcp::6640", "tcp:10.0.0.1:", "tcp:10.0.0.1:0", "tcp:10.0.0.1:65536",
        "tcp:10.0.0.1:6640x", "tcp:10.0.0.1:+6640", "tcp:999.1.1.1:6640", "tcp:1.2.3:6640", "ssl:2001:db8::1:6640",
        "ssl:[2001:db8::1:6640", "ssl:[10.0.0.1]:6640", "tcp:-nvc.example:6640", "tcp:a..b:6640", "unix:", "punix:",
        "ptcp:70000", "ptcp:6640:nvc.example", "ptcp:6640:", "SSL:192.0.2.10:6640", "tcp:10.0.0.1:6640 ",
        "unix:/run/a\nb", "udp:10.0.0.1:6640", longName.c_str()}) {
    EXPECT_NE(managerTargetProblem(target), "") << target;
  }
  EXPECT_EQ(managerTargetProblem(std::string(100 * 1024, 'x')), "is 102400 bytes long; a target has at most 1024");
  EXPECT_EQ(managerTargetProblem("tcp:10.0.0.1:0"), "port 0 is not in 1 to 65535");
}

class ConfigRulesStore : public ::testing::Test {
 protected:
  ConfigRulesStore() {
    typeAgentPaths(*manager);
    declareConfigRules(*manager);
    manager->loadDocument({{"vgw/config", {{"ovsdbSocketPath", "/run/db.sock"}}},
                           {"vgw/cliconfig", {{"managerAddress", {{"ssl:192.0.2.10:6640", true}}}}}});
  }
  std::string refusal(const std::function<void()>& road) {
    try {
      road();
    } catch (const Kiln::JsonError& e) {
      return e.what();
    }
    return "accepted";
  }

  Kiln::ScopedEventLoop scoped;
  Kiln::Ptr<Ledger::EntityManager> manager = Kiln::newPtr<Ledger::EntityManager>(Kiln::newPtr<Ledger::Store>());
};

TEST_F(ConfigRulesStore, everyRoadRefusesTheSameValuesWithTheSameWordsAndChangesNothing) {
  struct Case {
    const char* path;   // written with set
    Json value;
    const char* entity;  // the entity's path, written whole and loaded
    const char* error;
  };
  const std::string hugeTarget(100 * 1024, 'x');
  const std::vector<Case> cases = {
      {"vgw/cliconfig/maxOps", 0, "vgw/cliconfig", "vgw/cliconfig/maxOps: must be at least 1"},
      {"vgw/config/ovsdbSocketPath", "", "vgw/config",
       "vgw/config/ovsdbSocketPath: is required: the socket of the hardware_vtep database server"},
      {"vgw/config/ovsdbSocketPath", "tcp:", "vgw/config",
       "vgw/config/ovsdbSocketPath: \"tcp:\" is no socket path or connection method: needs a host"},
      {"vgw/config/ovsdbDeadline", 0, "vgw/config", "vgw/config/ovsdbDeadline: must be more than 0 and at most 3600 seconds"},
      {"vgw/config/ovsdbDeadline", 86400, "vgw/config",
       "vgw/config/ovsdbDeadline: must be more than 0 and at most 3600 seconds"},
      {"vgw/cliconfig/managerAddress/not-a-target", true, "vgw/cliconfig",
       "vgw/cliconfig/managerAddress/not-a-target: not an OVSDB connection method: expected ssl:HOST[:PORT], "
       "tcp:HOST[:PORT], unix:FILE, pssl:[PORT][:IP], ptcp:[PORT][:IP] or punix:FILE"},
      {"vgw/cliconfig/managerAddress/tcp:10.0.0.1:99999", false, "vgw/cliconfig",
       "vgw/cliconfig/managerAddress/tcp:10.0.0.1:99999: port 99999 is not in 1 to 65535"},
  };
  const Json before = manager->read("");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    // The whole entity as it would be with the value in.
    Json entity = manager->read(c.entity);
    const std::string attribute = std::string(c.path).substr(std::string(c.entity).size() + 1);
    if (attribute.starts_with("managerAddress/")) {
      entity["managerAddress"][attribute.substr(15)] = c.value;
    } else {
      entity[attribute] = c.value;
    }
    EXPECT_EQ(refusal([&] { manager->write(c.path, c.value, Ledger::Writer::external); }), c.error);
    EXPECT_EQ(refusal([&] { manager->write(c.entity, entity, Ledger::Writer::external); }), c.error);
    EXPECT_EQ(refusal([&] { manager->loadDocument({{c.entity, entity}}); }), c.error);
    EXPECT_EQ(manager->read(""), before);
  }
  const std::string huge = refusal([&] {
    manager->write("vgw/cliconfig/managerAddress/" + hugeTarget, true, Ledger::Writer::external);
  });
  EXPECT_LT(huge.size(), 200u) << "the refusal does not repeat the target";
  EXPECT_NE(huge.find("is 102400 bytes long"), std::string::npos) << huge;
  EXPECT_EQ(manager->read(""), before);

  manager->write("vgw/cliconfig/managerAddress/ptcp:6641", true, Ledger::Writer::external);
  manager->write("vgw/cliconfig/maxOps", 1, Ledger::Writer::external);
  manager->write("vgw/config/ovsdbSocketPath", "unix:/run/other.sock", Ledger::Writer::external);
  manager->write("vgw/config/ovsdbDeadline", 0.5, Ledger::Writer::external);
  EXPECT_EQ(manager->read("vgw/cliconfig/maxOps"), 1);
  EXPECT_EQ(manager->read("vgw/config/ovsdbDeadline"), 0.5);
}

}  // namespace
}  // namespace Vgw::Test
