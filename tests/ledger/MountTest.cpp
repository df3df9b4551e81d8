// Mount groups: creation of absent entities, completion on a later turn,
// failures of the whole group, and the mount records the store keeps.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "LedgerFixture.h"

namespace {

using Ledger::Mount;
using LedgerTest::LedgerFixture;

class RecordingMounter : public Ledger::Mounter {
 public:
  std::vector<Ledger::MountStatus> statuses;
  Kiln::Ptr<Ledger::EntityManager> manager;
  // What the mounter finds at completion, as the agent would fetch it.
  Kiln::Ptr<LedgerTest::Status> status;
  void doMountsComplete(Ledger::MountStatus s, Kiln::Ptr<Ledger::EntityManager> m) override {
    statuses.push_back(s);
    manager = m;
    status = m->getEntity<LedgerTest::Status>("vgw/status");
  }
};

class MountTest : public LedgerFixture {
 protected:
  Kiln::Ptr<Ledger::MountGroup> mountAll(Ledger::Mounter& mounter, const std::vector<Mount>& mounts,
                                         Kiln::Ptr<Ledger::EntityManager> via = nullptr) {
    auto group = (via ? via : manager)->getMountGroup(&mounter);
    for (const Mount& m : mounts) group->doMount(m);
    group->doClose(false, "", 0.0);
    return group;
  }
  RecordingMounter agent;
};

TEST_F(MountTest, absentEntitiesAreCreatedAndTheMounterHearsOnALaterTurn) {
  auto group = manager->getMountGroup(&agent);
  group->doMount(Mount("vgw/config", "LedgerTest::Config", "r"));
  group->doMount(Mount("vgw/status", "LedgerTest::Status", "wi"));
  group->doMount(Mount("fleet/cluster/statusDir", "Kiln::Dir", "r"));
  // "i" asks for the entity at once; the others come with the close.
  EXPECT_TRUE(manager->getEntity<LedgerTest::Status>("vgw/status"));
  EXPECT_FALSE(manager->getEntity("vgw/config"));

  group->doClose(false, "local", 0.0);
  EXPECT_TRUE(group->closed());
  EXPECT_TRUE(agent.statuses.empty());  // never inside doClose
  EXPECT_FALSE(group->completed());
  auto config = manager->getEntity<LedgerTest::Config>("vgw/config");
  ASSERT_TRUE(config);
  EXPECT_FALSE(config->enabled());  // default content
  EXPECT_TRUE(manager->getEntity<Kiln::Dir>("fleet/cluster"));
  EXPECT_TRUE(manager->getEntity<Kiln::Dir>("fleet/cluster/statusDir"));

  scoped.loop().runOnce(0);
  ASSERT_EQ(agent.statuses, std::vector<Ledger::MountStatus>{Ledger::mountSuccess});
  EXPECT_EQ(agent.statuses[0], Ledger::mountSuccess_);
  EXPECT_EQ(agent.manager, manager);
  EXPECT_EQ(agent.status, manager->getEntity("vgw/status"));
  EXPECT_TRUE(group->completed());
  EXPECT_EQ(group->failureReason(), "");
  EXPECT_EQ(group->label(), "local");
  scoped.loop().runOnce(0);
  EXPECT_EQ(agent.statuses.size(), 1u);
}

TEST_F(MountTest, anExistingEntityIsMountedAsItIs) {
  manager->loadDocument(Kiln::Json::parse(R"({"vgw/config": {"@type": "LedgerTest::SiteConfig", "site": "a"}})"));
  auto before = manager->getEntity("vgw/config");
  // A kind of the mounted type will do.
  mountAll(agent, {Mount("vgw/config", "LedgerTest::Config", "r")}, serviceManager);
  scoped.loop().runOnce(0);
  ASSERT_EQ(agent.statuses, std::vector<Ledger::MountStatus>{Ledger::mountSuccess});
  EXPECT_EQ(agent.manager, serviceManager);
  EXPECT_EQ(manager->getEntity("vgw/config"), before);
  EXPECT_EQ(manager->read("vgw/config/site"), "a");
}

TEST_F(MountTest, aDeclaredPathIsCreatedWithItsDeclaredType) {
  manager->pathTypeIs("vgw/config", LedgerTest::SiteConfig::typeInfo_);
  mountAll(agent, {Mount("vgw/config", "LedgerTest::Config", "r")});
  EXPECT_TRUE(manager->getEntity<LedgerTest::SiteConfig>("vgw/config"));
  // A declaration that the mounted type is no kind of fails the group.
  RecordingMounter other;
  manager->pathTypeIs("vgw/late", LedgerTest::Config::typeInfo_);
  auto group = mountAll(other, {Mount("vgw/late", "LedgerTest::Status", "r")});
  EXPECT_EQ(group->failureReason(), "vgw/late: is declared as a LedgerTest::Config, not a LedgerTest::Status");
}

TEST_F(MountTest, oneBadMountFailsTheWholeGroupAndRecordsNothing) {
  manager->loadDocument(Kiln::Json::parse(R"({"vgw/config": {"@type": "LedgerTest::Config"}})"));
  const Kiln::Json before = everything();
  auto group = mountAll(agent, {Mount("fleet/config", "LedgerTest::Config", "r"),
                                Mount("vgw/config", "LedgerTest::Status", "w"),
                                Mount("vgw/status", "No::Such", "w")});
  EXPECT_EQ(group->status(), Ledger::mountFailed);
  EXPECT_EQ(group->failureReason(), "vgw/config: holds a LedgerTest::Config, not a LedgerTest::Status");
  EXPECT_EQ(everything(), before);  // fleet/config was not created
  EXPECT_FALSE(manager->mountFlags("fleet/config"));
  EXPECT_TRUE(agent.statuses.empty());
  scoped.loop().runOnce(0);
  EXPECT_EQ(agent.statuses, std::vector<Ledger::MountStatus>{Ledger::mountFailed});
}

TEST_F(MountTest, eachKindOfBadMountIsNamed) {
  manager->loadDocument(Kiln::Json::parse(R"({"vgw/config": {"@type": "LedgerTest::Config"}})"));
  struct Case {
    Mount mount;
    const char* reason;
  };
  const std::vector<Case> cases = {
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
  };
  for (const Case& c : cases) {
    RecordingMounter mounter;
    auto group = mountAll(mounter, {c.mount});
    EXPECT_EQ(group->failureReason(), c.reason);
  }
  RecordingMounter mounter;
  auto group = manager->getMountGroup(&mounter);
  group->doMount(Mount("vgw/status", "LedgerTest::Status", "r"));
  group->doMount(Mount("vgw/status", "LedgerTest::Status", "w"));
  group->doClose(false, "service", 0.0);
  EXPECT_EQ(group->failureReason(), "service: vgw/status: mounted twice in the group, \"r\" and \"w\"");
}

TEST_F(MountTest, aPathHasOneWriterAndReadersAgreeOnTheFlags) {
  mountAll(agent, {Mount("vgw/status", "LedgerTest::Status", "wi"), Mount("vgw/config", "LedgerTest::Config", "r")});
  RecordingMounter other;
  EXPECT_EQ(mountAll(other, {Mount("vgw/status", "LedgerTest::Status", "wi")})->failureReason(),
            "vgw/status: already mounted \"wi\" by another mounter; an entity has one writer");
  EXPECT_EQ(mountAll(other, {Mount("vgw/status", "LedgerTest::Status", "r")})->failureReason(),
            "vgw/status: already mounted \"wi\", so it cannot be mounted \"r\"");
  EXPECT_EQ(mountAll(other, {Mount("vgw/config", "LedgerTest::Config", "r")})->status(), Ledger::mountSuccess);
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

TEST_F(MountTest, flagsComeFromTheLongestMountedPrefix) {
  mountAll(agent, {Mount("fleet", "Kiln::Dir", "w"), Mount("fleet/cluster/statusDir", "Kiln::Dir", "ri")});
  EXPECT_EQ(manager->mountFlags("fleet"), Kiln::String("w"));
  EXPECT_EQ(manager->mountFlags("fleet/config/x"), Kiln::String("w"));
  EXPECT_EQ(manager->mountFlags("fleet/cluster"), Kiln::String("w"));
  EXPECT_EQ(manager->mountFlags("fleet/cluster/statusDir"), Kiln::String("ri"));
  EXPECT_EQ(manager->mountFlags("fleet/cluster/statusDir/default/isLeader"), Kiln::String("ri"));
  EXPECT_FALSE(manager->mountFlags("fleetX"));
  EXPECT_FALSE(manager->mountFlags("vgw"));
  EXPECT_FALSE(manager->mountFlags("bad//path"));
  EXPECT_EQ(serviceManager->mountFlags("fleet/cluster/statusDir%2Fx"), Kiln::String("w"));
}

}  // namespace
