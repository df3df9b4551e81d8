// Mount groups: creation of absent entities, completion on a later turn,
// failures of the whole group, and the mount records the store keeps.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "LedgerFixture.h"

namespace {

using Ledger::Mount;
using Statuses = std::vector<Ledger::MountStatus>;

class RecordingMounter : public Ledger::Mounter {
 public:
  Statuses statuses;
  Kiln::Ptr<Ledger::EntityManager> manager;
  void doMountsComplete(Ledger::MountStatus s, Kiln::Ptr<Ledger::EntityManager> m) override {
    statuses.push_back(s);
    manager = m;
  }
};

class MountTest : public LedgerTest::LedgerFixture {
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
  EXPECT_TRUE(group->closed());
  EXPECT_TRUE(agent.statuses.empty());  // never inside doClose
  EXPECT_FALSE(group->completed());
  EXPECT_EQ(manager->getEntity("vgw/config"), existing);
  EXPECT_TRUE(manager->getEntity<LedgerTest::SiteConfig>("vgw/declared"));
  EXPECT_TRUE(manager->getEntity<Kiln::Dir>("fleet/cluster/statusDir"));

  scoped.loop().runOnce(0);
  EXPECT_EQ(agent.statuses, Statuses{Ledger::mountSuccess});
  EXPECT_EQ(agent.manager, serviceManager);
  EXPECT_TRUE(group->completed());
  EXPECT_EQ(group->failureReason(), "");
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

}  // namespace
