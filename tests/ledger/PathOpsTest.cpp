// Paths and the operators' path operations: escapes and the canonical text,
// read, write, remove and list at entity, attribute and member depth,
// creation rules, the writer rules of the mounts, and errors that change
// nothing.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Ledger/Path.h"
#include "LedgerFixture.h"

namespace {

using Kiln::Json;
using Ledger::Mount;
using Ledger::Path;
using Ledger::Writer;
using LedgerTest::errorOf;
using LedgerTest::LedgerFixture;

TEST(Path, keysWithSlashOrPercentAreEscapedAndMalformedPathsRefused) {
  EXPECT_EQ(Ledger::escapeSegment("50%/x"), "50%25%2Fx");
  for (std::string text : {"Ethernet1/1", "%", "a%2Fb", "//%%"})
    EXPECT_EQ(Ledger::unescapeSegment(Ledger::escapeSegment(text)), text);
  const Path p = Path::parse("vgw/config/ports/Ethernet1%2f1/speed");
  EXPECT_EQ(p.segments(), (std::vector<std::string>{"vgw", "config", "ports", "Ethernet1/1", "speed"}));
  EXPECT_EQ(p.text(), "vgw/config/ports/Ethernet1%2F1/speed");
  EXPECT_EQ(p.prefix(0), "");
  EXPECT_EQ(p.prefix(4), "vgw/config/ports/Ethernet1%2F1");
  EXPECT_TRUE(Path::parse("").empty());

  const std::string empty = ": empty segment; a path has no leading, trailing or doubled '/'";
  const std::string escapes = "; only %2F ('/') and %25 ('%') are escapes";
  const std::pair<const char*, std::string> bad[] = {
      {"/vgw", "/vgw" + empty},
      {"vgw/", "vgw/" + empty},
      {"vgw//config", "vgw//config" + empty},
      {"a/b%2", "a/b%2: bad escape \"%2\" in segment \"b%2\"" + escapes},
      {"a/%41", "a/%41: bad escape \"%41\" in segment \"%41\"" + escapes},
  };
  for (const auto& [path, error] : bad) EXPECT_EQ(errorOf([&] { Path::parse(path); }), error);
}

class PathOpsTest : public LedgerFixture {
 protected:
  PathOpsTest() {
    manager->pathTypeIs("vgw/config", LedgerTest::Config::typeInfo_);
    manager->loadDocument(Json::parse(R"({
      "vgw/config": {"name": "c", "limits": {"macs": 5}, "ports": {"Ethernet1/1": {"speed": 40, "vlans": {"7": true}}}},
      "vgw/status": {"@type": "LedgerTest::Status", "peers": {"3": {"address": "10.0.0.3"}}},
      "routes": {"@type": "Kiln::Dir", "10.0.0.0/24": {"@type": "LedgerTest::Status"}}
    })"));
    config = manager->getEntity<LedgerTest::Config>("vgw/config");
    config->portIndexIs("first", config->ports("Ethernet1/1"));
  }

  std::string writeError(const char* path, const Json& json, Writer writer = Writer::external) {
    return errorOf([&] { manager->write(path, json, writer); });
  }
  std::string removeError(const char* path, Writer writer = Writer::external) {
    return errorOf([&] { manager->remove(path, writer); });
  }

  Kiln::Ptr<LedgerTest::Config> config;
};

TEST_F(PathOpsTest, readsEntitiesAttributesAndMembersAndGetsEntitiesOfTheirType) {
  EXPECT_EQ(manager->read("vgw/config"), config->toJson());
  EXPECT_EQ(manager->read("vgw/config/name"), "c");
  EXPECT_EQ(manager->read("vgw/config/limits"), Json::parse(R"({"macs": 5})"));
  EXPECT_EQ(manager->read("vgw/config/limits/macs"), 5);
  EXPECT_EQ(manager->read("vgw/config/ports/Ethernet1%2F1"),
            Json::parse(R"({"name": "Ethernet1/1", "speed": 40, "vlans": {"7": true}})"));
  EXPECT_EQ(manager->read("vgw/config/ports/Ethernet1%2F1/vlans/7"), true);
  EXPECT_EQ(manager->read("vgw/config/portIndex/first"), "Ethernet1/1");
  EXPECT_EQ(manager->read("vgw/config/detail"), Json());
  EXPECT_EQ(manager->read("routes/10.0.0.0%2F24/running"), false);
  // A directory gives its entries, each with its type.
  EXPECT_EQ(manager->read("vgw")["status"]["@type"], "LedgerTest::Status");
  EXPECT_EQ(manager->read("")["vgw"]["config"]["name"], "c");

  EXPECT_FALSE(manager->getEntity<LedgerTest::Status>("vgw/config"));
  EXPECT_EQ(manager->getEntity<LedgerTest::Port>("vgw/config/ports/Ethernet1%2F1"), config->ports("Ethernet1/1"));
  EXPECT_FALSE(manager->getEntity("vgw/config/name"));
  EXPECT_FALSE(manager->getEntity("vgw//config"));
  EXPECT_EQ(serviceManager->getEntity<const LedgerTest::Config>("vgw/config"), config);
}

TEST_F(PathOpsTest, pathsThatLeadNowhereSayWhere) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"vgw/nothing", "vgw/nothing: no entry \"nothing\" in \"vgw\""},
      {"none/config", "none/config: no entry \"none\" in the root"},
      {"vgw/config/colour", "vgw/config/colour: no attribute \"colour\" in the LedgerTest::Config \"vgw/config\""},
      {"vgw/config/name/x", "vgw/config/name/x: \"vgw/config/name\" is a single value; nothing lies below it"},
      {"vgw/config/limits/none", "vgw/config/limits/none: no member \"none\" in \"vgw/config/limits\""},
      {"vgw/config/ports/e9/speed", "vgw/config/ports/e9/speed: no member \"e9\" in \"vgw/config/ports\""},
      {"vgw/config/detail/note", "vgw/config/detail/note: \"vgw/config/detail\" holds no entity"},
      {"vgw/status/peers/x", "vgw/status/peers/x: bad key: expected an integer in range, got \"x\""},
      {"vgw/config/ports/Ethernet1/1", "vgw/config/ports/Ethernet1/1: no member \"Ethernet1\" in \"vgw/config/ports\""},
  };
  for (const auto& [path, error] : cases) {
    EXPECT_EQ(errorOf([&] { manager->read(path); }), error);
    EXPECT_FALSE(manager->getEntity(path));
  }
}

TEST_F(PathOpsTest, writesReplaceAnEntityAnAttributeOrAMember) {
  manager->write("vgw/config/ports/Ethernet1%2F1/speed", 100, Writer::external);
  EXPECT_EQ(config->ports("Ethernet1/1")->speed(), 100u);
  manager->write("vgw/config/limits/arps", 9, Writer::external);
  EXPECT_EQ(config->limits("arps"), 9u);
  manager->write("vgw/config/ports/Ethernet2%2F1", Json::parse(R"({"speed": 25})"), Writer::external);
  EXPECT_EQ(config->ports("Ethernet2/1")->speed(), 25u);
  manager->write("vgw/config/ports/Ethernet1%2F1/vlans/8", true, Writer::external);
  manager->write("vgw/config/ports/Ethernet1%2F1/vlans/7", false, Writer::external);
  EXPECT_EQ(manager->read("vgw/config/ports/Ethernet1%2F1/vlans"), Json::parse(R"({"8": true})"));
  manager->write("vgw/config/detail", Json::parse(R"({"note": "n"})"), Writer::external);
  manager->write("vgw/config/detail/hits/4", "four", Writer::external);
  EXPECT_EQ(config->detail()->hits(4), "four");

  // A whole entity is replaced: what the JSON leaves out returns to its default.
  manager->write("vgw/config", Json::parse(R"({"enabled": true})"), Writer::external);
  EXPECT_EQ(manager->getEntity("vgw/config"), config);
  EXPECT_TRUE(config->enabled());
  EXPECT_EQ(config->name(), "");
  EXPECT_TRUE(config->ports().empty());
}

TEST_F(PathOpsTest, badWritesChangeNothingAndSayWhy) {
  const Json before = everything();
  EXPECT_EQ(writeError("vgw/config/enabled", "yes"), "vgw/config/enabled: expected true or false, got the string \"yes\"");
  EXPECT_EQ(writeError("vgw/config", Json::parse(R"({"name": "x", "limits": {"a": "b"}})")),
            "vgw/config/limits/a: expected an integer, got the string \"b\"");
  EXPECT_EQ(writeError("vgw/config/ports/e1", Json::parse(R"({"speed": 1, "bogus": 2})")),
            "vgw/config/ports/e1/bogus: no such attribute in LedgerTest::Port");
  EXPECT_EQ(writeError("vgw/config/ports/Ethernet1%2F1/name", "other"), "vgw/config/ports/Ethernet1%2F1/name: is a key and cannot be changed");
  EXPECT_EQ(writeError("vgw/config/portIndex", Json::object()), "vgw/config/portIndex: is an index kept by the agent and cannot be written");
  EXPECT_EQ(writeError("vgw/config/portIndex/first", "x"), "vgw/config/portIndex/first: is an index kept by the agent and cannot be written");
  EXPECT_EQ(removeError("vgw/config/portIndex/first"),
            "vgw/config/portIndex/first: is an index kept by the agent and cannot be written");
  EXPECT_EQ(writeError("vgw/status/peers/x", Json::object()), "vgw/status/peers/x: bad key: expected an integer in range, got \"x\"");
  EXPECT_EQ(writeError("", Json::object()), "the root cannot be written; write below it");
  EXPECT_EQ(writeError("vgw/config", Json::parse(R"({"@type": "LedgerTest::Status"})")),
            "vgw/config: holds a LedgerTest::Config, not a LedgerTest::Status");
  EXPECT_EQ(everything(), before);
}

TEST_F(PathOpsTest, anAbsentEntityIsCreatedOnlyWhenItsTypeIsKnown) {
  EXPECT_EQ(writeError("vgw/extra", Json::parse(R"({"running": true})")),
            "vgw/extra: no entry \"extra\" in \"vgw\"; give \"@type\" to create one");
  EXPECT_EQ(writeError("nowhere/extra", Json::parse(R"({"@type": "LedgerTest::Status"})")),
            "nowhere/extra: no entry \"nowhere\" in the root");
  manager->write("vgw/extra", Json::parse(R"({"@type": "LedgerTest::Status", "running": true})"), Writer::external);
  EXPECT_TRUE(manager->getEntity<LedgerTest::Status>("vgw/extra")->running());

  // A directory with an entry type needs no "@type".
  manager->getEntity<Kiln::Dir>("routes")->entryTypeIs(&LedgerTest::Status::typeInfo_);
  manager->write("routes/10.1.0.0%2F16", Json::parse(R"({"running": true})"), Writer::external);
  EXPECT_TRUE(manager->getEntity<Kiln::Dir>("routes")->entityPtr<LedgerTest::Status>("10.1.0.0/16"));

  // A declared path is created with the directories that lead to it.
  manager->pathTypeIs("deep/er/status", LedgerTest::Status::typeInfo_);
  manager->write("deep/er/status", Json::parse(R"({"running": true})"), Writer::agent);
  EXPECT_TRUE(manager->getEntity<LedgerTest::Status>("deep/er/status")->running());
}

TEST_F(PathOpsTest, removeDeletesEntriesMembersAndChildren) {
  manager->write("vgw/config/detail", Json::parse(R"({"note": "n"})"), Writer::external);
  manager->remove("vgw/config/detail", Writer::external);
  EXPECT_FALSE(config->detail());
  manager->remove("vgw/config/limits/macs", Writer::external);
  EXPECT_TRUE(config->limits().empty());
  manager->remove("vgw/config/ports/Ethernet1%2F1/vlans/7", Writer::external);
  EXPECT_TRUE(config->ports("Ethernet1/1")->vlans().empty());
  auto port = config->ports("Ethernet1/1");
  manager->remove("vgw/config/ports/Ethernet1%2F1", Writer::external);
  EXPECT_TRUE(port->deleted());
  manager->remove("routes/10.0.0.0%2F24", Writer::external);
  EXPECT_TRUE(manager->list("routes").empty());
  manager->remove("vgw/config", Writer::external);
  EXPECT_FALSE(manager->getEntity("vgw/config"));

  const Json before = everything();
  EXPECT_EQ(removeError("vgw/status/running"), "vgw/status/running: is a single value; write it instead");
  EXPECT_EQ(removeError("vgw/status/counters"),
            "vgw/status/counters: is a collection; remove its members one by one, or write {} to empty it");
  EXPECT_EQ(removeError("vgw/status/counters/x"), "vgw/status/counters/x: no member \"x\" in \"vgw/status/counters\"");
  EXPECT_EQ(removeError("vgw/gone"), "vgw/gone: no entry \"gone\" in \"vgw\"");
  EXPECT_EQ(removeError(""), "the root cannot be removed");
  EXPECT_EQ(everything(), before);
}

TEST_F(PathOpsTest, listNamesWhatLiesBelowEscaped) {
  EXPECT_EQ(manager->list(""), (std::vector<std::string>{"routes", "vgw"}));
  EXPECT_EQ(manager->list("routes"), std::vector<std::string>{"10.0.0.0%2F24"});
  EXPECT_EQ(manager->list("vgw/config"),
            (std::vector<std::string>{"enabled", "name", "limits", "ports", "portIndex", "detail"}));
  EXPECT_EQ(manager->list("vgw/config/ports"), std::vector<std::string>{"Ethernet1%2F1"});
  EXPECT_EQ(manager->list("vgw/config/ports/Ethernet1%2F1"), (std::vector<std::string>{"name", "speed", "vlans"}));
  EXPECT_EQ(manager->list("vgw/config/ports/Ethernet1%2F1/vlans"), std::vector<std::string>{"7"});
  EXPECT_TRUE(manager->list("vgw/config/detail").empty());
  EXPECT_EQ(errorOf([&] { manager->list("vgw/config/name"); }), "vgw/config/name: is a single value; nothing lies below it");
}

class AgentMounter : public Ledger::Mounter {
 public:
  void doMountsComplete(Ledger::MountStatus, Kiln::Ptr<Ledger::EntityManager>) override {}
};

TEST_F(PathOpsTest, theMountsDecideWhoMayWrite) {
  AgentMounter agent;
  auto group = manager->getMountGroup(&agent);
  group->doMount(Mount("vgw/config", "LedgerTest::Config", "r"));
  group->doMount(Mount("vgw/status", "LedgerTest::Status", "wi"));
  group->doMount(Mount("routes", "Kiln::Dir", "ri"));
  group->doClose(false, "", 0.0);
  const Json before = everything();

  EXPECT_EQ(writeError("vgw/status", Json::object()),
            "vgw/status: owned by the agent (mounted \"wi\"); it cannot be written from outside");
  EXPECT_EQ(writeError("vgw/status/peers/3/address", "x"),
            "vgw/status/peers/3/address: owned by the agent (mounted \"wi\" at vgw/status); it cannot be written from "
            "outside");
  EXPECT_EQ(removeError("vgw/status/peers/3"),
            "vgw/status/peers/3: owned by the agent (mounted \"wi\" at vgw/status); it cannot be written from outside");
  EXPECT_EQ(writeError("vgw/config/name", "x", Writer::agent),
            "vgw/config/name: read-only to the agent (mounted \"r\" at vgw/config); the agent cannot write it");
  EXPECT_EQ(removeError("routes/10.0.0.0%2F24", Writer::agent),
            "routes/10.0.0.0%2F24: read-only to the agent (mounted \"ri\" at routes); the agent cannot write it");
  // Nobody replaces or removes what a mounter holds.
  EXPECT_EQ(writeError("vgw", Json::object()),
            "vgw: holds the mounted entity \"vgw/config\", which a write here would replace; write at or below it "
            "instead");
  EXPECT_EQ(removeError("vgw/config"), "vgw/config: mounted \"r\"; a mounted entity cannot be removed");
  EXPECT_EQ(removeError("vgw", Writer::agent), "vgw: holds the mounted entity \"vgw/config\", which cannot be removed");
  EXPECT_EQ(errorOf([&] { manager->loadDocument(Json::parse(R"({"vgw/status": {"running": true}})")); }),
            "vgw/status: owned by the agent (mounted \"wi\"); it cannot be written from outside");
  EXPECT_EQ(everything(), before);

  manager->write("vgw/status/running", true, Writer::agent);
  manager->write("vgw/config/name", "ok", Writer::external);
  manager->remove("routes/10.0.0.0%2F24", Writer::external);
  manager->write("elsewhere", Json::parse(R"({"@type": "Kiln::Dir"})"), Writer::agent);
  EXPECT_EQ(manager->read("vgw/status/running"), true);
  EXPECT_EQ(manager->read("vgw/config/name"), "ok");
  EXPECT_TRUE(manager->list("routes").empty());
}

}  // namespace
