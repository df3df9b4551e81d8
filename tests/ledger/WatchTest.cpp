// Watches: every change at and below a path, including entities that
// appear after the watch began, values that match read(), and a stream that
// stops when the handle goes.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "LedgerFixture.h"

namespace {

using Kiln::Json;
using Ledger::Writer;
using LedgerTest::LedgerFixture;

using Changes = std::vector<std::pair<std::string, Json>>;

class WatchTest : public LedgerFixture {
 protected:
  WatchTest() {
    manager->loadDocument(Json::parse(R"({
      "vgw/config": {"@type": "LedgerTest::Config", "ports": {"e1": {"speed": 1}}},
      "vgw/status": {"@type": "LedgerTest::Status"}
    })"));
    config = manager->getEntity<LedgerTest::Config>("vgw/config");
  }

  std::unique_ptr<Ledger::Watch> watch(const char* path) {
    return manager->watch(path, [this](const std::string& changed, const Json& value) {
      seen.emplace_back(changed, value);
      // The value is what a read of the changed path gives at that moment.
      EXPECT_EQ(value, value.is_null() ? Json() : manager->read(changed)) << changed;
    });
  }

  Kiln::Ptr<LedgerTest::Config> config;
  Changes seen;
};

TEST_F(WatchTest, streamsAttributesMembersAndNestedEntities) {
  auto w = watch("vgw/config");
  config->enabledIs(true);
  config->enabledIs(true);  // no change, no report
  config->limitsIs("macs", 5);
  config->ports("e1")->speedIs(2);
  config->ports("e1")->vlansIs(10);
  config->limitsDel("macs");
  config->scratchpadIs(3);  // not part of the JSON form
  EXPECT_EQ(seen, (Changes{{"vgw/config/enabled", true},
                           {"vgw/config/limits/macs", 5},
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
  EXPECT_EQ(config->notifieeCount(), 0u);
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
