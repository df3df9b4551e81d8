// The agent host's service layer: declarations refused where they are made,
// white lists, directories checked all or nothing before any is made, switches
// followed by the publish mounts, and a mounter that goes before its events.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Hearth/FleetStoreService.h"
#include "Kiln/EventLoop.h"
#include "Kiln/Log.h"
#include "entities/Fleet.h"
#include "entities/OverlaySvc.h"

namespace {

using Kiln::Json;
using Lines = std::vector<std::string>;

const std::string controllerRoot = "interface/status/vxlan/errorStatus/version2/ofc";
const std::string switches = controllerRoot + "/switch";
const std::string publishDir = "overlaysvc/version2/input/dynVtepConfig/vgw/switch";

// What happened, and on which turn of the loop.
struct Journal {
  int turn = 0;
  Lines lines;
  void note(const std::string& what) { lines.push_back(std::to_string(turn) + " " + what); }
};

class ServiceMounter final : public Fleet::FleetStoreServiceMounter {
 public:
  explicit ServiceMounter(Journal& j) : journal(j) {}
  void doMountsComplete(Kiln::String group, Kiln::Ptr<Ledger::EntityManager>) override {
    journal.note("complete " + group.stringValue());
  }
  void doInitialSwitchMountsComplete(Kiln::String group, Kiln::Ptr<Ledger::EntityManager>) override {
    journal.note("initial " + group.stringValue());
  }
  void doHandleControllerMountState(Kiln::String, Kiln::String path, Kiln::String name, bool mounted) override {
    const std::string where = path.stringValue() == switches ? "" : " at " + path.stringValue();
    journal.note((mounted ? "+" : "-") + name.stringValue() + where);
  }
  Journal& journal;
};

class ServiceTest : public testing::Test {
 protected:
  ServiceTest() {
    Kiln::logSyslogIs(false);
    Kiln::logStreamIs(&logged);
    whiteList->allowedVersionIs(2, true);
  }
  ~ServiceTest() override {
    Kiln::logStreamIs(nullptr);
    Kiln::logSyslogIs(true);
  }

  void turns(int n) {
    for (int i = 0; i < n; ++i) {
      ++journal.turn;
      scoped.loop().runOnce(0);
    }
  }
  template <class Fn>
  static std::string errorOf(Fn fn) {
    try {
      fn();
    } catch (const Fleet::ServiceError& e) {
      return e.what();
    }
    return "no error";
  }
  // Group "mg1" for `m`, tracking the switches, with a publish mount unless
  // `prefix` is null.
  Kiln::Ptr<Fleet::FleetStoreServiceMountGroup> group(ServiceMounter* m, const char* prefix = "") {
    auto g = service->serviceMountGroupIs("mg1", m);
    g->versionWhiteListIs(whiteList);
    g->controllerMountIs(controllerRoot, switches, "OverlaySvc::ErrorStatusV2", "rct");
    if (prefix) g->perSwitchPublishMountIs(publishDir, prefix, "OverlaySvc::VtepConfigDirV2");
    return g;
  }

  Kiln::ScopedEventLoop scoped;
  std::ostringstream logged;
  Journal journal;
  ServiceMounter mounter{journal};
  Kiln::Ptr<Ledger::Store> store = Kiln::newPtr<Ledger::Store>();
  Kiln::Ptr<Ledger::EntityManager> manager = Kiln::newPtr<Ledger::EntityManager>(store);
  Kiln::Ptr<Ledger::EntityManager> local = Kiln::newPtr<Ledger::EntityManager>(store);
  Kiln::Ptr<Fleet::FleetStoreService> service = Kiln::newPtr<Fleet::FleetStoreService>("Vgw", manager, local);
  Kiln::Ptr<Fleet::VersionWhiteListBase> whiteList = service->versionWhiteListIs("v2");
};

TEST_F(ServiceTest, badDeclarationsAreRefusedWhereTheyAreMade) {
  auto g = service->serviceMountGroupIs("mg1", &mounter);
  const std::string at = "service mount group \"mg1\": controller mount ";
  EXPECT_EQ(errorOf([&] { g->controllerMountIs(controllerRoot, switches, "OverlaySvc::ErrorStatusV2", "rw"); }),
            at + switches + ": bad flags \"rw\"; they are 'r' and optionally 'c' (create) and 't' (track), each once");
  for (const char* flags : {"", "ct", "rr", "rctt"})
    EXPECT_NE(errorOf([&] { g->controllerMountIs(controllerRoot, switches, "OverlaySvc::ErrorStatusV2", flags); }),
              "no error");
  EXPECT_EQ(errorOf([&] { g->controllerMountIs(controllerRoot, switches, "OverlaySvc::NoSuchThing", "r"); }),
            at + switches + ": unknown entity type \"OverlaySvc::NoSuchThing\"");
  EXPECT_EQ(errorOf([&] { g->controllerMountIs(switches, controllerRoot, "OverlaySvc::ErrorStatusV2", "r"); }),
            at + controllerRoot + ": the switch directory must lie below " + switches);
  EXPECT_NE(errorOf([&] { g->controllerMountIs("a//b", "a//b/c", "OverlaySvc::ErrorStatusV2", "r"); }).find("a//b"),
            std::string::npos);
  EXPECT_EQ(errorOf([&] { g->perSwitchPublishMountIs(publishDir, "", "FleetCluster::ClusterStatus"); }),
            "service mount group \"mg1\": per-switch publish mount " + publishDir +
                ": entities of type FleetCluster::ClusterStatus cannot be made by name");
  EXPECT_TRUE(g->controllerMounts().empty());
  EXPECT_TRUE(g->publishMounts().empty());
  ServiceMounter other(journal);
  EXPECT_NE(errorOf([&] { service->serviceMountGroupIs("mg1", &other); }).find("already belongs to another mounter"),
            std::string::npos);

  // A group closes only with a white list that admits a version, and for good.
  EXPECT_EQ(errorOf([&] { g->closedIs(true); }), "service mount group \"mg1\" closed without a version white list");
  g->versionWhiteListIs(service->versionWhiteListIs("none"));
  EXPECT_EQ(errorOf([&] { g->closedIs(true); }), "service mount group \"mg1\": the white list \"none\" admits no version");
  EXPECT_FALSE(g->closed());
  g->versionWhiteListIs(whiteList);
  g->closedIs(true);
  EXPECT_EQ(errorOf([&] { g->closedIs(false); }), "service mount group \"mg1\" is closed and cannot be opened again");
  EXPECT_NE(errorOf([&] { g->perSwitchPublishMountIs(publishDir, "", "OverlaySvc::VtepConfigDirV2"); }).find("is closed"),
            std::string::npos);
  service->closedIs(true);
  EXPECT_NE(errorOf([&] { service->serviceMountGroupIs("mg2", &mounter); }).find("is closed"), std::string::npos);
}

TEST_F(ServiceTest, completionWaitsForBothClosesAndComesOnLaterTurns) {
  auto g = group(&mounter);
  service->closedIs(true);
  turns(2);
  EXPECT_TRUE(journal.lines.empty());  // the group is still open
  EXPECT_FALSE(manager->getEntity(publishDir));
  g->closedIs(true);
  EXPECT_TRUE(manager->getEntity(publishDir));  // the directories come with the close
  EXPECT_TRUE(journal.lines.empty());           // the events do not
  turns(1);
  EXPECT_TRUE(g->mountsComplete());
  EXPECT_FALSE(g->initialSwitchMountsComplete());
  turns(4);
  EXPECT_EQ(journal.lines, (Lines{"3 complete mg1", "4 initial mg1"}));
}

TEST_F(ServiceTest, directoriesAreCheckedAllBeforeAnyIsMade) {
  // Something that is not a directory on the way to the switch directory.
  manager->loadDocument(Json::parse(R"({"interface/status": {"@type": "FleetStore::Config"}})"));
  group(&mounter)->closedIs(true);
  const Json before = manager->read("");
  EXPECT_EQ(errorOf([&] { service->closedIs(true); }),
            "service mount group \"mg1\": interface/status is a FleetStore::Config, not a directory");
  EXPECT_EQ(manager->read(""), before);  // the publish directory was not made either
  EXPECT_FALSE(service->closed());
  turns(2);
  EXPECT_TRUE(journal.lines.empty());

  manager->remove("interface/status", Ledger::Writer::external);
  manager->loadDocument(Json::parse(R"({"overlaysvc/version2/input/dynVtepConfig/vgw/switch": {"@type": "Kiln::Dir"}})"));
  manager->getEntity<Kiln::Dir>(publishDir)->entryTypeIs(&FleetStore::Config::typeInfo_);
  EXPECT_EQ(errorOf([&] { service->closedIs(true); }),
            "service mount group \"mg1\": " + publishDir +
                " is a directory of FleetStore::Config, not of OverlaySvc::VtepConfigDirV2");

  // Without 'c' the switch directory must be there already.
  auto strict = Kiln::newPtr<Fleet::FleetStoreService>("Strict", manager, local);
  auto s = strict->serviceMountGroupIs("mg", &mounter);
  s->versionWhiteListIs(whiteList);
  s->controllerMountIs(controllerRoot, switches, "OverlaySvc::ErrorStatusV2", "rt");
  strict->closedIs(true);
  EXPECT_EQ(errorOf([&] { s->closedIs(true); }),
            "service mount group \"mg\": " + switches + " does not exist, and the mount may not create it");
}

TEST_F(ServiceTest, publishEntriesFollowTheSwitches) {
  manager->loadDocument(Json::parse(R"({
    "interface/status/vxlan/errorStatus/version2/ofc/switch/s1": {"@type": "OverlaySvc::ErrorStatusV2"},
    "interface/status/vxlan/errorStatus/version2/ofc/switch/s2": {"@type": "OverlaySvc::ErrorStatusV2"},
    "overlaysvc/version2/input/plain/s2": {"@type": "FleetStore::Config"}
  })"));
  auto g = group(&mounter, "cfg-");
  g->perSwitchPublishMountIs("overlaysvc/version2/input/plain", "", "OverlaySvc::VtepConfigDirV2");
  g->closedIs(true);
  service->closedIs(true);
  turns(2);
  auto published = manager->getEntity<Kiln::Dir>(publishDir);
  auto plain = manager->getEntity<Kiln::Dir>("overlaysvc/version2/input/plain");
  EXPECT_EQ(published->entryType(), &OverlaySvc::VtepConfigDirV2::typeInfo_);
  EXPECT_TRUE(published->entityPtr<OverlaySvc::VtepConfigDirV2>("cfg-s1"));
  EXPECT_TRUE(published->entityPtr<OverlaySvc::VtepConfigDirV2>("cfg-s2"));
  EXPECT_TRUE(plain->entityPtr<OverlaySvc::VtepConfigDirV2>("s1"));
  // A foreign entry in a switch's place is left alone, and said so.
  EXPECT_TRUE(plain->entityPtr<FleetStore::Config>("s2"));
  EXPECT_NE(logged.str().find("KXT_FLEET_PUBLISH_BLOCKED"), std::string::npos);
  EXPECT_NE(logged.str().find("Service Vgw cannot publish overlaysvc/version2/input/plain/s2 for switch s2: an entry "
                              "of type FleetStore::Config stands there"),
            std::string::npos)
      << logged.str();

  manager->getEntity<Kiln::Dir>(switches)->deleteEntity("s2");
  EXPECT_FALSE(published->entityPtr("cfg-s2"));
  EXPECT_TRUE(plain->entityPtr<FleetStore::Config>("s2"));
  // An entry replaced in place is still the same switch.
  manager->write(switches + "/s1", Json::parse(R"({"genericError": {"x": "y"}})"), Ledger::Writer::external);
  EXPECT_EQ(journal.lines, (Lines{"1 complete mg1", "2 +s1", "2 +s2", "2 initial mg1", "2 -s2"}));
}

TEST_F(ServiceTest, aMounterThatIsGoneHearsNothing) {
  auto gone = std::make_unique<ServiceMounter>(journal);
  auto g = group(gone.get(), nullptr);
  g->closedIs(true);
  service->closedIs(true);
  gone.reset();
  turns(2);
  EXPECT_TRUE(g->initialSwitchMountsComplete());
  manager->getEntity<Kiln::Dir>(switches)->createEntity<OverlaySvc::ErrorStatusV2>("s1");
  EXPECT_EQ(g->switches().size(), 1u);
  EXPECT_TRUE(journal.lines.empty());
}

}  // namespace
