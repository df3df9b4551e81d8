// Configuration documents: declared paths, "@type", all-or-nothing loading
// with errors that name the path, and reloads that notify only differences.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LedgerFixture.h"

namespace {

using Kiln::Json;
using LedgerTest::errorOf;
using LedgerTest::LedgerFixture;

class ConfigLog : public LedgerTest::Config::NotifieeConst {
 public:
  std::vector<std::string> seen;
  void onEnabled() override { seen.push_back("enabled"); }
  void onName() override { seen.push_back("name"); }
  void onLimits(const Kiln::String& k) override { seen.push_back("limits:" + k.stringValue()); }
  void onPorts(const Kiln::String& k) override { seen.push_back("ports:" + k.stringValue()); }
};

class DocumentTest : public LedgerFixture {
 protected:
  DocumentTest() { manager->pathTypeIs("vgw/config", LedgerTest::Config::typeInfo_); }

  std::string loadError(const char* document) {
    return errorOf([&] { manager->loadDocument(Json::parse(document)); });
  }
};

TEST_F(DocumentTest, declaredPathsNeedNoTypeAndOthersNameIt) {
  manager->loadDocument(Json::parse(R"({
    "vgw/config": {"enabled": true, "limits": {"macs": 100}, "ports": {"Ethernet1/1": {"speed": 40}}},
    "vgw/status": {"@type": "LedgerTest::Status", "running": true},
    "fleet/cluster/statusDir": {"@type": "Kiln::Dir", "default": {"@type": "LedgerTest::Status"}},
    "topology/site": {"@type": "LedgerTest::SiteConfig", "site": "east", "name": "t"}
  })"));
  auto config = manager->getEntity<LedgerTest::Config>("vgw/config");
  ASSERT_TRUE(config);
  EXPECT_TRUE(config->enabled());
  EXPECT_EQ(config->limits("macs"), 100u);
  EXPECT_EQ(config->ports("Ethernet1/1")->speed(), 40u);
  EXPECT_TRUE(manager->getEntity<LedgerTest::Status>("vgw/status")->running());
  EXPECT_TRUE(manager->getEntity<LedgerTest::Status>("fleet/cluster/statusDir/default"));
  EXPECT_EQ(manager->getEntity<LedgerTest::SiteConfig>("topology/site")->site(), "east");
}

TEST_F(DocumentTest, reloadingBringsEntitiesToTheDocumentThroughTheirSetters) {
  manager->loadDocument(Json::parse(R"({"vgw/config": {"name": "a", "limits": {"x": 1, "y": 2}}})"));
  auto config = manager->getEntity<LedgerTest::Config>("vgw/config");
  ConfigLog log;
  log.notifierIs(config);
  manager->loadDocument(Json::parse(R"({"vgw/config": {"name": "a", "limits": {"x": 1, "z": 3}, "enabled": true}})"));
  EXPECT_EQ(manager->getEntity("vgw/config"), config);
  EXPECT_EQ(log.seen, (std::vector<std::string>{"enabled", "limits:y", "limits:z"}));

  // A directory in the document keeps the entries it names again.
  manager->loadDocument(Json::parse(R"({"dir": {"@type": "Kiln::Dir", "a": {"@type": "LedgerTest::Status"}, "sub": {"@type": "Kiln::Dir"}}})"));
  auto a = manager->getEntity("dir/a");
  manager->loadDocument(Json::object({{"dir", manager->read("dir")}}));
  EXPECT_EQ(manager->getEntity("dir/a"), a);
  EXPECT_TRUE(manager->getEntity<Kiln::Dir>("dir/sub"));
}

TEST_F(DocumentTest, aBadEntryChangesNothingAndItsErrorStartsWithThePath) {
  manager->loadDocument(Json::parse(R"({"vgw/config": {"name": "kept"}})"));
  const Json before = everything();
  struct Case {
    const char* document;
    const char* error;
  };
  const Case cases[] = {
      {R"({"vgw/config": {"name": "new"}, "vgw//status": {"@type": "LedgerTest::Status"}})",
       "vgw//status: empty segment; a path has no leading, trailing or doubled '/'"},
      {R"({"vgw/config": {"name": "new"}, "vgw/status": {"@type": "No::Such"}})",
       "vgw/status: unknown entity type \"No::Such\""},
      {R"({"vgw/config": {"name": "new", "colour": 1}})", "vgw/config/colour: no such attribute in LedgerTest::Config"},
      {R"({"vgw/config": {"enabled": "yes"}})", "vgw/config/enabled: expected true or false, got the string \"yes\""},
      {R"({"vgw/config": {"ports": {"e1": {"speed": -1}}}})",
       "vgw/config/ports/e1/speed: integer -1 out of range 0..4294967295"},
      {R"({"vgw/config": {"scratchpad": 1}})", "vgw/config/scratchpad: no such attribute in LedgerTest::Config"},
      {R"({"vgw/config": {"name": "new"}, "vgw/status": {"running": true}})",
       "vgw/status: needs an \"@type\" member naming its entity type"},
      {R"({"vgw/config": {"@type": "LedgerTest::Status"}})", "vgw/config: holds a LedgerTest::Config, not a LedgerTest::Status"},
      {R"({"vgw/config/detail": {"@type": "LedgerTest::Detail"}})",
       "vgw/config/detail: \"vgw/config\" is a LedgerTest::Config, not a directory; whole entities stand only in "
       "directories"},
      {R"({"vgw": {"@type": "Kiln::Dir"}, "vgw/status": {"@type": "LedgerTest::Status"}})",
       "vgw/status: lies inside \"vgw\", which the document also gives"},
      {R"({"a%2Fb": {"@type": "Kiln::Dir"}, "a%2fb": {"@type": "Kiln::Dir"}})", "a%2fb: given twice in the document"},
      {R"({"": {"@type": "Kiln::Dir"}})", "the root holds the whole store; name a path below it"},
      {R"({"vgw/config": []})", "vgw/config: expected an object, got an array"},
      {R"(["vgw/config"])", "a document is an object from path to entity, got an array"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(loadError(c.document), c.error) << c.document;
    EXPECT_EQ(everything(), before) << c.document;
  }
}

TEST_F(DocumentTest, aDeclarationMustAgreeWithTheDocumentAndTheStore) {
  EXPECT_EQ(loadError(R"({"vgw/config": {"@type": "LedgerTest::Status"}})"),
            "vgw/config: is declared as a LedgerTest::Config, not a LedgerTest::Status");
  manager->loadDocument(Json::parse(R"({"vgw/config": {"@type": "LedgerTest::SiteConfig", "site": "s"}})"));
  EXPECT_TRUE(manager->getEntity<LedgerTest::SiteConfig>("vgw/config"));
  EXPECT_EQ(errorOf([&] { manager->pathTypeIs("vgw/config", LedgerTest::Status::typeInfo_); }),
            "vgw/config: holds a LedgerTest::SiteConfig, not a LedgerTest::Status");
  EXPECT_EQ(errorOf([&] { manager->pathTypeIs("vgw/peer", LedgerTest::Peer::typeInfo_); }),
            "vgw/peer: entities of type LedgerTest::Peer cannot be made by name");
}

}  // namespace
