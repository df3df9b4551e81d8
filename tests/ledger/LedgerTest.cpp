// The state store: paths; reads, writes, removals, lists and documents at
// every depth, with the creation and writer rules and refusals that name the
// place and change nothing; mount groups; and watches of every change at and
// below a path.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Kiln/EventLoop.h"
#include "Ledger/EntityManager.h"
#include "Ledger/Path.h"
#include "ledger/LedgerTestTypes.h"

namespace {

using Kiln::Json;
using Ledger::Mount;
using Ledger::Path;
using Ledger::Writer;
using Changes = std::vector<std::pair<std::string, Json>>;
using Statuses = std::vector<Ledger::MountStatus>;

// The text of the JsonError that `fn` throws, or "no error".
template <class Fn>
std::string errorOf(Fn fn) {
  try {
    fn();
  } catch (const Kiln::JsonError& e) {
    return e.what();
  }
  return "no error";
}

// An event loop of its own, and a store with two managers on it.
class LedgerFixture : public testing::Test {
 protected:
  Kiln::ScopedEventLoop scoped;
  Kiln::Ptr<Ledger::Store> store = Kiln::newPtr<Ledger::Store>();
  Kiln::Ptr<Ledger::EntityManager> manager = Kiln::newPtr<Ledger::EntityManager>(store);
  Kiln::Ptr<Ledger::EntityManager> serviceManager = Kiln::newPtr<Ledger::EntityManager>(store);

  // The store's whole content, to show that a failed operation changed nothing.
  Kiln::Json everything() const { return manager->read(""); }
};

class RecordingMounter : public Ledger::Mounter {
 public:
  Statuses statuses;
  Kiln::Ptr<Ledger::EntityManager> manager;
  void doMountsComplete(Ledger::MountStatus s, Kiln::Ptr<Ledger::EntityManager> m) override {
    statuses.push_back(s);
    manager = m;
  }
};

TEST(Path, keysWithSlashOrPercentAreEscapedAndReadBack) {
  EXPECT_EQ(Ledger::escapeSegment("50%/x"), "50%25%2Fx");
  for (std::string text : {"Ethernet1/1", "%", "a%2Fb", "//%%"})
    EXPECT_EQ(Ledger::unescapeSegment(Ledger::escapeSegment(text)), text);
  const Path p = Path::parse("vgw/config/ports/Ethernet1%2f1/speed");
  EXPECT_EQ(p.segments(), (std::vector<std::string>{"vgw", "config", "ports", "Ethernet1/1", "speed"}));
  EXPECT_EQ(p.text(), "vgw/config/ports/Ethernet1%2F1/speed");
  EXPECT_EQ(p.prefix(0), "");
  EXPECT_EQ(p.prefix(4), "vgw/config/ports/Ethernet1%2F1");
  EXPECT_TRUE(Path::parse("").empty());
}

class PathOpsTest : public LedgerFixture {
 protected:
  PathOpsTest() {
    manager->pathTypeIs("vgw/config", LedgerTest::Config::typeInfo_);
    manager->loadDocument(Json::parse(R"({
      "vgw/config": {"name": "c", "limits": {"macs": 5},
                     "ports": {"Ethernet1/1": {"speed": 40, "vlans": {"7": true}}, "e1": {"speed": 1}}},
      "vgw/status": {"@type": "LedgerTest::Status", "peers": {"3": {"address": "10.0.0.3"}}},
      "routes": {"@type": "Kiln::Dir", "10.0.0.0/24": {"@type": "LedgerTest::Status"}}
    })"));
    config = manager->getEntity<LedgerTest::Config>("vgw/config");
    config->portIndexIs("first", config->ports("Ethernet1/1"));
  }

  struct Refusal {
    std::string op;  // read, list, watch, write, remove, load; "agent write" and "agent remove" write as the agent
    const char* path;
    const char* json;
    const char* error;
  };
  // Each refusal's error, and the store unchanged after it.
  void expectRefused(const std::vector<Refusal>& refusals) {
    const Json before = everything();
    for (const Refusal& r : refusals) {
      const Writer writer = r.op.starts_with("agent ") ? Writer::agent : Writer::external;
      const std::string op = r.op.substr(r.op.find(' ') + 1);
      const std::string error = errorOf([&] {
        if (op == "read") manager->read(r.path);
        if (op == "list") manager->list(r.path);
        if (op == "watch") manager->watch(r.path, [](const std::string&, const Json&) {});
        if (op == "write") manager->write(r.path, Json::parse(r.json), writer);
        if (op == "remove") manager->remove(r.path, writer);
        if (op == "load") manager->loadDocument(Json::parse(r.json));
      });
      EXPECT_EQ(error, r.error) << r.op << " " << r.path << " " << (r.json ? r.json : "");
      EXPECT_EQ(everything(), before) << r.op << " " << r.path;
    }
  }

  Kiln::Ptr<LedgerTest::Config> config;
};

TEST_F(PathOpsTest, readsAndListsEntitiesAttributesAndMembersAndGetsEntitiesOfTheirType) {
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
  // A list names what lies below, escaped.
  EXPECT_EQ(manager->list(""), (std::vector<std::string>{"routes", "vgw"}));
  EXPECT_EQ(manager->list("routes"), std::vector<std::string>{"10.0.0.0%2F24"});
  EXPECT_EQ(manager->list("vgw/config"),
            (std::vector<std::string>{"enabled", "name", "limits", "ports", "portIndex", "detail"}));
  EXPECT_EQ(manager->list("vgw/config/ports/Ethernet1%2F1"), (std::vector<std::string>{"name", "speed", "vlans"}));
  EXPECT_EQ(manager->list("vgw/config/ports/Ethernet1%2F1/vlans"), std::vector<std::string>{"7"});
  EXPECT_TRUE(manager->list("vgw/config/detail").empty());
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

  // An absent entity is created when its type is known: given, the
  // directory's entry type, or declared (with the directories on the way).
  manager->write("vgw/extra", Json::parse(R"({"@type": "LedgerTest::Status", "running": true})"), Writer::external);
  EXPECT_TRUE(manager->getEntity<LedgerTest::Status>("vgw/extra")->running());
  manager->getEntity<Kiln::Dir>("routes")->entryTypeIs(&LedgerTest::Status::typeInfo_);
  manager->write("routes/10.1.0.0%2F16", Json::parse(R"({"running": true})"), Writer::external);
  EXPECT_TRUE(manager->getEntity<Kiln::Dir>("routes")->entityPtr<LedgerTest::Status>("10.1.0.0/16"));
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
}

TEST_F(PathOpsTest, refusalsNameThePlaceAndTheReasonAndChangeNothing) {
  expectRefused({
      {"read", "/vgw", nullptr, "/vgw: empty segment; a path has no leading, trailing or doubled '/'"},
      {"read", "vgw/", nullptr, "vgw/: empty segment; a path has no leading, trailing or doubled '/'"},
      {"read", "a/b%2", nullptr, "a/b%2: bad escape \"%2\" in segment \"b%2\"; only %2F ('/') and %25 ('%') are escapes"},
      {"read", "a/%41", nullptr,
       "a/%41: bad escape \"%41\" in segment \"%41\"; only %2F ('/') and %25 ('%') are escapes"},
      {"read", "vgw/nothing", nullptr, "vgw/nothing: no entry \"nothing\" in \"vgw\""},
      {"read", "none/config", nullptr, "none/config: no entry \"none\" in the root"},
      {"read", "vgw/config/colour", nullptr,
       "vgw/config/colour: no attribute \"colour\" in the LedgerTest::Config \"vgw/config\""},
      {"read", "vgw/config/name/x", nullptr,
       "vgw/config/name/x: \"vgw/config/name\" is a single value; nothing lies below it"},
      {"read", "vgw/config/limits/none", nullptr, "vgw/config/limits/none: no member \"none\" in \"vgw/config/limits\""},
      {"read", "vgw/config/detail/note", nullptr, "vgw/config/detail/note: \"vgw/config/detail\" holds no entity"},
      {"read", "vgw/config/ports/Ethernet1/1", nullptr,
       "vgw/config/ports/Ethernet1/1: no member \"Ethernet1\" in \"vgw/config/ports\""},
      {"list", "vgw/config/name", nullptr, "vgw/config/name: is a single value; nothing lies below it"},
      {"watch", "vgw/config/limits/a", nullptr, "vgw/config/limits/a: no member \"a\" in \"vgw/config/limits\""},
      {"watch", "vgw/status/peers/003", nullptr,
       "vgw/status/peers/003: name the key as the store writes it; list \"vgw/status/peers\" shows the keys"},
      {"write", "vgw/config/enabled", R"("yes")", "vgw/config/enabled: expected true or false, got the string \"yes\""},
      {"write", "vgw/config", R"({"name": "x", "limits": {"a": "b"}})",
       "vgw/config/limits/a: expected an integer, got the string \"b\""},
      {"write", "vgw/config/ports/e1", R"({"speed": 1, "bogus": 2})",
       "vgw/config/ports/e1/bogus: no such attribute in LedgerTest::Port"},
      {"write", "vgw/config/ports/Ethernet1%2F1/name", R"("other")",
       "vgw/config/ports/Ethernet1%2F1/name: is a key and cannot be changed"},
      {"write", "vgw/config/portIndex", "{}", "vgw/config/portIndex: is an index kept by the agent and cannot be written"},
      {"write", "vgw/config/portIndex/first", R"("x")",
       "vgw/config/portIndex/first: is an index kept by the agent and cannot be written"},
      {"write", "vgw/status/peers/x", "{}", "vgw/status/peers/x: bad key: expected an integer in range, got \"x\""},
      {"write", "", "{}", "the root cannot be written; write below it"},
      {"write", "vgw/config", R"({"@type": "LedgerTest::Status"})",
       "vgw/config: holds a LedgerTest::Config, not a LedgerTest::Status"},
      {"write", "vgw/extra", R"({"running": true})", "vgw/extra: no entry \"extra\" in \"vgw\"; give \"@type\" to create one"},
      {"write", "nowhere/extra", R"({"@type": "LedgerTest::Status"})", "nowhere/extra: no entry \"nowhere\" in the root"},
      {"remove", "vgw/config/portIndex/first", nullptr,
       "vgw/config/portIndex/first: is an index kept by the agent and cannot be written"},
      {"remove", "vgw/status/running", nullptr, "vgw/status/running: is a single value; write it instead"},
      {"remove", "vgw/status/counters", nullptr,
       "vgw/status/counters: is a collection; remove its members one by one, or write {} to empty it"},
      {"remove", "vgw/status/counters/x", nullptr, "vgw/status/counters/x: no member \"x\" in \"vgw/status/counters\""},
      {"remove", "", nullptr, "the root cannot be removed"},
      {"load", "", R"({"vgw/config": {"name": "new"}, "vgw//status": {"@type": "LedgerTest::Status"}})",
       "vgw//status: empty segment; a path has no leading, trailing or doubled '/'"},
      {"load", "", R"({"vgw/config": {"name": "new"}, "vgw/status": {"@type": "No::Such"}})",
       "vgw/status: unknown entity type \"No::Such\""},
      {"load", "", R"({"vgw/config": {"name": "new", "colour": 1}})",
       "vgw/config/colour: no such attribute in LedgerTest::Config"},
      {"load", "", R"({"vgw/config": {"ports": {"e1": {"speed": -1}}}})",
       "vgw/config/ports/e1/speed: integer -1 out of range 0..4294967295"},
      {"load", "", R"({"vgw/config": {"scratchpad": 1}})", "vgw/config/scratchpad: no such attribute in LedgerTest::Config"},
      {"load", "", R"({"vgw/config": {"name": "new"}, "vgw/new": {"running": true}})",
       "vgw/new: needs an \"@type\" member naming its entity type"},
      {"load", "", R"({"vgw/config/detail": {"@type": "LedgerTest::Detail"}})",
       "vgw/config/detail: \"vgw/config\" is a LedgerTest::Config, not a directory; whole entities stand only in "
       "directories"},
      {"load", "", R"({"vgw": {"@type": "Kiln::Dir"}, "vgw/status": {"@type": "LedgerTest::Status"}})",
       "vgw/status: lies inside \"vgw\", which the document also gives"},
      {"load", "", R"({"a%2Fb": {"@type": "Kiln::Dir"}, "a%2fb": {"@type": "Kiln::Dir"}})",
       "a%2fb: given twice in the document"},
      {"load", "", R"({"": {"@type": "Kiln::Dir"}})", "the root holds the whole store; name a path below it"},
      {"load", "", R"({"vgw/config": []})", "vgw/config: expected an object, got an array"},
      {"load", "", R"({"routes": {"@type": "Kiln::Dir", "x": {"@type": 1}}})", "routes/x: \"@type\" must be a string"},
      {"load", "", R"(["vgw/config"])", "a document is an object from path to entity, got an array"},
  });
}

class ConfigLog : public LedgerTest::Config::NotifieeConst {
 public:
  std::vector<std::string> seen;
  void onEnabled() override { seen.push_back("enabled"); }
  void onName() override { seen.push_back("name"); }
  void onLimits(const Kiln::String& k) override { seen.push_back("limits:" + k.stringValue()); }
};

TEST_F(PathOpsTest, reloadingBringsEntitiesToTheDocumentThroughTheirSetters) {
  ConfigLog log;
  log.notifierIs(config);
  manager->loadDocument(Json::parse(R"({"vgw/config": {"name": "c", "limits": {"x": 1}, "enabled": true}})"));
  EXPECT_EQ(manager->getEntity("vgw/config"), config);
  EXPECT_EQ(log.seen, (std::vector<std::string>{"enabled", "limits:macs", "limits:x"}));

  // A directory in the document keeps the entries it names again, in
  // directories nested in it too.
  manager->write("routes/sub", Json::parse(R"({"@type": "Kiln::Dir", "w": {"@type": "LedgerTest::Status"}})"),
                 Writer::external);
  auto entry = manager->getEntity("routes/sub/w");
  manager->loadDocument(Json::object({{"routes", manager->read("routes")}}));
  EXPECT_EQ(manager->getEntity("routes/sub/w"), entry);
}

TEST_F(PathOpsTest, aDeclarationMustAgreeWithTheDocumentAndTheStore) {
  manager->pathTypeIs("vgw/declared", LedgerTest::Config::typeInfo_);
  expectRefused({{"load", "", R"({"vgw/declared": {"@type": "LedgerTest::Status"}})",
                  "vgw/declared: is declared as a LedgerTest::Config, not a LedgerTest::Status"}});
  manager->loadDocument(Json::parse(R"({"vgw/declared": {"@type": "LedgerTest::SiteConfig", "site": "s"}})"));
  EXPECT_TRUE(manager->getEntity<LedgerTest::SiteConfig>("vgw/declared"));
  EXPECT_EQ(errorOf([&] { manager->pathTypeIs("vgw/declared", LedgerTest::Status::typeInfo_); }),
            "vgw/declared: holds a LedgerTest::SiteConfig, not a LedgerTest::Status");
  EXPECT_EQ(errorOf([&] { manager->pathTypeIs("vgw/peer", LedgerTest::Peer::typeInfo_); }),
            "vgw/peer: entities of type LedgerTest::Peer cannot be made by name");
}

// A type's rules judge the entity as a write would leave it, on every road:
// a whole entity, an attribute, a member, a removal and a document. The
// rules of a base type hold for derived ones.
TEST_F(PathOpsTest, aTypesRulesRefuseWhatWouldBreakThemOnEveryRoad) {
  int checks = 0;
  manager->entityCheckIs(LedgerTest::Config::typeInfo_, [&](const Kiln::Entity& entity) {
    ++checks;
    const auto& c = dynamic_cast<const LedgerTest::Config&>(entity);
    if (c.name().empty()) throw Kiln::JsonError("name", "must not be empty");
    for (const auto& [key, limit] : c.limits()) {
      if (limit == 0) throw Kiln::JsonError("limits/" + key.stringValue(), "must be at least 1");
    }
    if (c.limits().empty()) throw Kiln::JsonError("limits", "needs at least one limit");
  });
  manager->pathTypeIs("vgw/site", LedgerTest::SiteConfig::typeInfo_);
  expectRefused({
      {"write", "vgw/config", R"({"limits": {"macs": 5}})", "vgw/config/name: must not be empty"},
      {"write", "vgw/config/name", R"("")", "vgw/config/name: must not be empty"},
      {"write", "vgw/config/limits/macs", "0", "vgw/config/limits/macs: must be at least 1"},
      {"write", "vgw/config/limits", R"({"x": 0})", "vgw/config/limits/x: must be at least 1"},
      {"remove", "vgw/config/limits/macs", nullptr, "vgw/config/limits: needs at least one limit"},
      {"load", "", R"({"vgw/config": {"name": "c", "limits": {"macs": 0}}})", "vgw/config/limits/macs: must be at least 1"},
      {"load", "", R"({"vgw/site": {"site": "s", "limits": {"a": 1}}})", "vgw/site/name: must not be empty"},
  });
  EXPECT_EQ(checks, 7);
  // What keeps the rules goes through, and the rules see only their type.
  manager->write("vgw/config/limits/macs", 6, Writer::external);
  manager->write("vgw/config/name", "d", Writer::external);
  manager->write("vgw/status/running", true, Writer::external);
  EXPECT_EQ(manager->read("vgw/config/limits/macs"), 6);
  EXPECT_EQ(manager->read("vgw/config/name"), "d");
  EXPECT_EQ(checks, 9);
}

TEST_F(PathOpsTest, theMountsDecideWhoMayWrite) {
  RecordingMounter agent;
  auto group = manager->getMountGroup(&agent);
  group->doMount(Mount("vgw/config", "LedgerTest::Config", "r"));
  group->doMount(Mount("vgw/status", "LedgerTest::Status", "wi"));
  group->doMount(Mount("routes", "Kiln::Dir", "ri"));
  group->doClose(false, "", 0.0);
  expectRefused({
      {"write", "vgw/status", "{}", "vgw/status: owned by the agent (mounted \"wi\"); it cannot be written from outside"},
      {"write", "vgw/status/peers/3/address", R"("x")",
       "vgw/status/peers/3/address: owned by the agent (mounted \"wi\" at vgw/status); it cannot be written from "
       "outside"},
      {"remove", "vgw/status/peers/3", nullptr,
       "vgw/status/peers/3: owned by the agent (mounted \"wi\" at vgw/status); it cannot be written from outside"},
      {"load", "", R"({"vgw/status": {"running": true}})",
       "vgw/status: owned by the agent (mounted \"wi\"); it cannot be written from outside"},
      {"agent write", "vgw/config/name", R"("x")",
       "vgw/config/name: read-only to the agent (mounted \"r\" at vgw/config); the agent cannot write it"},
      {"agent remove", "routes/10.0.0.0%2F24", nullptr,
       "routes/10.0.0.0%2F24: read-only to the agent (mounted \"ri\" at routes); the agent cannot write it"},
      // Nobody replaces or removes what a mounter holds.
      {"write", "vgw", "{}",
       "vgw: holds the mounted entity \"vgw/config\", which a write here would replace; write at or below it instead"},
      {"remove", "vgw/config", nullptr, "vgw/config: mounted \"r\"; a mounted entity cannot be removed"},
      {"agent remove", "vgw", nullptr, "vgw: holds the mounted entity \"vgw/config\", which cannot be removed"},
  });
  manager->write("vgw/status/running", true, Writer::agent);
  manager->write("vgw/config/name", "ok", Writer::external);
  manager->remove("routes/10.0.0.0%2F24", Writer::external);
  manager->write("elsewhere", Json::parse(R"({"@type": "Kiln::Dir"})"), Writer::agent);
  EXPECT_EQ(manager->read("vgw/status/running"), true);
  EXPECT_EQ(manager->read("vgw/config/name"), "ok");
  EXPECT_TRUE(manager->list("routes").empty());
  // A path's flags are those of its longest mounted prefix, whole segments only.
  EXPECT_EQ(serviceManager->mountFlags("vgw/status/peers/3"), Kiln::String("wi"));
  EXPECT_FALSE(manager->mountFlags("vgw/statusX"));
}

class MountTest : public LedgerFixture {
 protected:
  Kiln::Ptr<Ledger::MountGroup> mountAll(Ledger::Mounter& mounter, const std::vector<Mount>& mounts) {
    auto group = manager->getMountGroup(&mounter);
    for (const Mount& m : mounts) group->doMount(m);
    group->doClose(false, "", 0.0);
    return group;
  }
  std::string failureOf(const std::vector<Mount>& mounts) {
    RecordingMounter mounter;
    return mountAll(mounter, mounts)->failureReason();
  }
  RecordingMounter agent;
};

TEST_F(MountTest, absentEntitiesAreCreatedExistingOnesKeptAndTheMounterHearsOnALaterTurn) {
  manager->loadDocument(Kiln::Json::parse(R"({"vgw/config": {"@type": "LedgerTest::SiteConfig", "site": "a"}})"));
  auto existing = manager->getEntity("vgw/config");
  manager->pathTypeIs("vgw/declared", LedgerTest::SiteConfig::typeInfo_);
  auto group = serviceManager->getMountGroup(&agent);
  group->doMount(Mount("vgw/config", "LedgerTest::Config", "r"));  // a kind of the mounted type will do
  group->doMount(Mount("vgw/status", "LedgerTest::Status", "wi"));
  group->doMount(Mount("vgw/declared", "LedgerTest::Config", "r"));
  group->doMount(Mount("fleet/cluster/statusDir", "Kiln::Dir", "r"));
  // "i" asks for the entity at once; the others come with the close.
  EXPECT_TRUE(manager->getEntity<LedgerTest::Status>("vgw/status"));
  EXPECT_FALSE(manager->getEntity("fleet/cluster"));

  group->doClose(false, "local", 0.0);
  EXPECT_TRUE(agent.statuses.empty());  // never inside doClose
  EXPECT_FALSE(group->completed());
  EXPECT_EQ(manager->getEntity("vgw/config"), existing);
  EXPECT_TRUE(manager->getEntity<LedgerTest::SiteConfig>("vgw/declared"));
  EXPECT_TRUE(manager->getEntity<Kiln::Dir>("fleet/cluster/statusDir"));

  scoped.loop().runOnce(0);
  EXPECT_EQ(agent.statuses, Statuses{Ledger::mountSuccess});
  EXPECT_EQ(agent.manager, serviceManager);
  EXPECT_TRUE(group->completed());
  scoped.loop().runOnce(0);
  EXPECT_EQ(agent.statuses.size(), 1u);
}

TEST_F(MountTest, oneBadMountFailsTheWholeGroupAndRecordsNothing) {
  manager->loadDocument(Kiln::Json::parse(R"({"vgw/config": {"@type": "LedgerTest::Config"}})"));
  const Kiln::Json before = everything();
  auto group = mountAll(agent, {Mount("fleet/config", "LedgerTest::Config", "r"),
                                Mount("vgw/config", "LedgerTest::Status", "w"), Mount("vgw/status", "No::Such", "w")});
  EXPECT_EQ(group->status(), Ledger::mountFailed);
  EXPECT_EQ(group->failureReason(), "vgw/config: holds a LedgerTest::Config, not a LedgerTest::Status");
  EXPECT_EQ(everything(), before);  // fleet/config was not created
  EXPECT_FALSE(manager->mountFlags("fleet/config"));
  EXPECT_TRUE(agent.statuses.empty());
  scoped.loop().runOnce(0);
  EXPECT_EQ(agent.statuses, Statuses{Ledger::mountFailed});
}

TEST_F(MountTest, eachKindOfBadMountIsNamed) {
  manager->loadDocument(Kiln::Json::parse(R"({"vgw/config": {"@type": "LedgerTest::Config"}})"));
  manager->pathTypeIs("vgw/late", LedgerTest::Config::typeInfo_);
  const std::pair<Mount, const char*> cases[] = {
      {Mount("vgw/status", "No::Such", "r"), "vgw/status: unknown entity type \"No::Such\""},
      {Mount("vgw/status", "LedgerTest::Status", "rw"),
       "vgw/status: bad mount flags \"rw\"; they are \"r\", \"ri\", \"w\" or \"wi\""},
      {Mount("vgw/config/detail", "LedgerTest::Detail", "r"),
       "vgw/config/detail: \"vgw/config\" is a LedgerTest::Config, not a directory; whole entities stand only in "
       "directories"},
      {Mount("vgw/peer", "LedgerTest::Peer", "r"), "vgw/peer: entities of type LedgerTest::Peer cannot be made by name"},
      {Mount("", "Kiln::Dir", "r"), "the root holds the whole store; name a path below it"},
      {Mount("vgw//status", "LedgerTest::Status", "r"),
       "vgw//status: empty segment; a path has no leading, trailing or doubled '/'"},
      {Mount("vgw/late", "LedgerTest::Status", "r"),
       "vgw/late: is declared as a LedgerTest::Config, not a LedgerTest::Status"},
  };
  for (const auto& [mount, reason] : cases) EXPECT_EQ(failureOf({mount}), reason);
  auto group = manager->getMountGroup(&agent);
  group->doMount(Mount("vgw/status", "LedgerTest::Status", "r"));
  group->doMount(Mount("vgw/status", "LedgerTest::Status", "w"));
  group->doClose(false, "service", 0.0);
  EXPECT_EQ(group->failureReason(), "service: vgw/status: mounted twice in the group, \"r\" and \"w\"");
}

TEST_F(MountTest, aPathHasOneWriterAndReadersAgreeOnTheFlags) {
  mountAll(agent, {Mount("vgw/status", "LedgerTest::Status", "wi"), Mount("vgw/config", "LedgerTest::Config", "r")});
  EXPECT_EQ(failureOf({Mount("vgw/status", "LedgerTest::Status", "wi")}),
            "vgw/status: already mounted \"wi\" by another mounter; an entity has one writer");
  EXPECT_EQ(failureOf({Mount("vgw/status", "LedgerTest::Status", "r")}),
            "vgw/status: already mounted \"wi\", so it cannot be mounted \"r\"");
  EXPECT_EQ(failureOf({Mount("vgw/config", "LedgerTest::Config", "r")}), "");
  // The writer itself may mount its path again.
  EXPECT_EQ(mountAll(agent, {Mount("vgw/status", "LedgerTest::Status", "wi")})->status(), Ledger::mountSuccess);
}

TEST_F(MountTest, theMountsOfADestroyedMounterNoLongerCount) {
  auto first = std::make_unique<RecordingMounter>();
  auto group = mountAll(*first, {Mount("vgw/status", "LedgerTest::Status", "w")});
  first.reset();  // before completion: the group completes to nobody
  scoped.loop().runOnce(0);
  EXPECT_TRUE(group->completed());
  EXPECT_FALSE(manager->mountFlags("vgw/status"));
  manager->write("vgw/status/running", true, Ledger::Writer::external);
  mountAll(agent, {Mount("vgw/status", "LedgerTest::Status", "r")});
  EXPECT_EQ(manager->mountFlags("vgw/status"), Kiln::String("r"));
}

class WatchTest : public PathOpsTest {
 protected:
  std::unique_ptr<Ledger::Watch> watch(const char* path) {
    return manager->watch(path, [this](const std::string& changed, const Json& value) {
      seen.emplace_back(changed, value);
      // The value is what a read of the changed path gives at that moment.
      EXPECT_EQ(value, value.is_null() ? Json() : manager->read(changed)) << changed;
    });
  }

  Changes seen;
};

TEST_F(WatchTest, streamsAttributesMembersAndNestedEntities) {
  auto w = watch("vgw/config");
  config->enabledIs(true);
  config->enabledIs(true);  // no change, no report
  config->limitsIs("macs", 6);
  config->ports("e1")->speedIs(2);
  config->ports("e1")->vlansIs(10);
  config->limitsDel("macs");
  config->scratchpadIs(3);  // not part of the JSON form
  EXPECT_EQ(seen, (Changes{{"vgw/config/enabled", true},
                           {"vgw/config/limits/macs", 6},
                           {"vgw/config/ports/e1/speed", 2},
                           {"vgw/config/ports/e1/vlans/10", true},
                           {"vgw/config/limits/macs", Json()}}));
}

TEST_F(WatchTest, followsEntriesAndEntitiesThatAppearAndLeavesThoseThatGo) {
  auto w = watch("vgw");
  manager->write("vgw/extra", Json::parse(R"({"@type": "LedgerTest::Status", "running": true})"), Writer::external);
  manager->getEntity<LedgerTest::Status>("vgw/extra")->peersIs(3)->addressIs("a");
  manager->remove("vgw/extra", Writer::external);
  manager->write("vgw/config/ports/Ethernet1%2F2", Json::parse(R"({"speed": 7})"), Writer::external);
  auto port = config->ports("Ethernet1/2");
  auto detail = config->detailIs("detail");
  detail->hitsIs(1, "one");
  EXPECT_EQ(seen, (Changes{{"vgw/extra", Json::parse(R"({"running": false, "counters": {}, "peers": {}})")},
                           {"vgw/extra/running", true},
                           {"vgw/extra/peers/3", Json::parse(R"({"id": 3, "address": ""})")},
                           {"vgw/extra/peers/3/address", "a"},
                           {"vgw/extra", Json()},
                           {"vgw/config/ports/Ethernet1%2F2", Json::parse(R"({"name": "Ethernet1/2", "speed": 10, "vlans": {}})")},
                           {"vgw/config/ports/Ethernet1%2F2/speed", 7},
                           {"vgw/config/detail", Json::parse(R"({"note": "", "hits": {}})")},
                           {"vgw/config/detail/hits/1", "one"}}));
  seen.clear();
  config->portsDel("Ethernet1/2");
  config->detailDel();
  EXPECT_EQ(port->notifieeCount(), 0u);
  EXPECT_EQ(detail->notifieeCount(), 0u);
  port->speedIs(8);
  detail->noteIs("gone");
  EXPECT_EQ(seen, (Changes{{"vgw/config/ports/Ethernet1%2F2", Json()}, {"vgw/config/detail", Json()}}));
}

TEST_F(WatchTest, aWatchOnAnEntryOutlivesItsRemovalAndRecreation) {
  auto w = watch("vgw/status");
  manager->remove("vgw/status", Writer::external);
  manager->write("vgw/status", Json::parse(R"({"@type": "LedgerTest::Status"})"), Writer::external);
  manager->write("vgw/status/running", true, Writer::external);
  manager->write("vgw/config/name", "elsewhere", Writer::external);
  EXPECT_EQ(seen, (Changes{{"vgw/status", Json()},
                           {"vgw/status", Json::parse(R"({"running": false, "counters": {}, "peers": {}})")},
                           {"vgw/status/running", true}}));
}

TEST_F(WatchTest, attributeAndMemberWatchesSeeOnlyTheirPlace) {
  config->limitsIs("a", 1);
  auto limits = watch("vgw/config/limits");
  auto speed = watch("vgw/config/ports/e1/speed");
  auto member = watch("vgw/config/limits/a");
  config->limitsIs("a", 2);
  config->limitsIs("b", 3);
  config->nameIs("x");
  config->ports("e1")->speedIs(5);
  config->ports("e1")->vlansIs(1);
  EXPECT_EQ(seen, (Changes{{"vgw/config/limits/a", 2},
                           {"vgw/config/limits/a", 2},
                           {"vgw/config/limits/b", 3},
                           {"vgw/config/ports/e1/speed", 5}}));
}

TEST_F(WatchTest, destroyingTheHandleStopsTheStream) {
  auto w = watch("");
  config->nameIs("a");
  EXPECT_EQ(seen, (Changes{{"vgw/config/name", "a"}}));
  w.reset();
  config->nameIs("b");
  config->ports("e1")->speedIs(9);
  EXPECT_EQ(seen.size(), 1u);
  EXPECT_EQ(config->ports("e1")->notifieeCount(), 0u);
  EXPECT_EQ(store->root()->notifieeCount(), 0u);

  // The callback itself may end the watch.
  std::unique_ptr<Ledger::Watch> self;
  int calls = 0;
  self = manager->watch("vgw/config/ports/e1", [&](const std::string&, const Json&) {
    ++calls;
    self.reset();
  });
  config->ports("e1")->speedIs(10);
  config->ports("e1")->speedIs(11);
  EXPECT_EQ(calls, 1);
}

}  // namespace
