// LocalData: what a session's end clears and what it keeps, the order in
// which reactors hear of it, and the local MAC tables.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestSupport.h"
#include "Vgw/LocalTypes.h"

namespace Vgw::Test {
namespace {

// The attributes of one object whose change it heard, in order, a run of
// changes to the same attribute counting once.
class ChangeLog : public Kiln::Entity::NotifieeConst {
 public:
  std::vector<std::string> seen;
  void onNotification(const Kiln::AttrInfo* attr, const void*) override {
    if (seen.empty() || seen.back() != attr->name) seen.emplace_back(attr->name);
  }
};

TEST(LocalData, resetClearsTheSessionInOrderAndKeepsWhatOutlivesIt) {
  // Every attribute given a value that reset would change, or must keep.
  auto data = Kiln::newPtr<LocalData>();
  const Vxlan::Vni vni(5000);
  data->remoteHostTableIs(rowId(1));
  data->vniToLogicalSwitchIs(vni)->logicalSwitchIs(rowId(1));
  data->nvpInternalLogicalSwitchIs(rowId(2));
  data->delNvpInternalLogicalSwitchIs(rowId(2));
  data->uplinkPortVlanTableIs(rowId(3))->portVlanIs(PortVlanPair(rowId(4), Bridging::VlanIdOrNone(10)));
  data->transitVniIs(vni)->ucastMacsRemoteRefIs(rowId(5));
  data->localLocatorIs(PhysicalLocatorKey(EncapsulationType::vxlan_over_ipv4, ip("10.0.0.1")),
                       Kiln::newPtr<PhysicalLocator>(rowId(6)));
  data->ucastMacsLocalTableIs(vni)->ucastMacsLocalIs(rowId(7), mac("00:00:00:00:00:07"));
  data->mcastMacsLocalTableIs(vni)->mcastMacsLocalIs(rowId(8), Ipkit::EthAddr());
  data->physicalSwitchIs(Fleet::SystemId::parse("00:1c:73:00:00:01"), Kiln::newPtr<PhysicalSwitch>(rowId(9)));
  data->monitorUpdateCompleteIs(true);
  data->mgrConvergedIs(MgrConvergenceState::mgrWaiting);
  data->lastMsgSentDetailIs("[\"hardware_vtep\"]");
  data->ovsdbSynchronizedIs(true);
  data->transactCounterIs(OvsdbDataType::ucastMacsLocal, 12);
  data->switchBindingDirtyIs(true);
  data->transitVniDirtyIs(true);
  data->tunnelDirtyIs(true);
  data->errorReportDirtyIs(true);
  data->inventoryDirtyIs(true);
  ChangeLog log;
  log.notifierIs(data);
  data->reset();

  // Tables first, so that the reactors of the flags find them settled.
  EXPECT_EQ(log.seen, (std::vector<std::string>{
                          "remoteHostTable", "vniToLogicalSwitch", "uplinkPortVlanTable", "localLocator",
                          "ucastMacsLocalTable", "mcastMacsLocalTable", "physicalSwitch", "monitorUpdateComplete",
                          "ovsdbSynchronized", "lastMsgSentDetail", "switchBindingDirty", "transitVniDirty",
                          "tunnelDirty", "errorReportDirty", "inventoryDirty"}));
  EXPECT_TRUE(data->remoteHostTable().empty() && data->ucastMacsLocalTable().empty() && !data->inventoryDirty());

  // A transit VNI is forgotten only through its rows, whose delete may come
  // in the next session and must still find the reference.
  EXPECT_TRUE(data->transitVni(Vxlan::Vni(5000)) && data->transitVni(Vxlan::Vni(5000))->ucastMacsRemoteRef(rowId(5)));
  EXPECT_EQ(data->nvpInternalLogicalSwitch(), rowId(2));
  EXPECT_EQ(data->delNvpInternalLogicalSwitch(), rowId(2));
  EXPECT_EQ(data->mgrConverged(), MgrConvergenceState::mgrWaiting);
  EXPECT_EQ(data->transactCounter(OvsdbDataType::ucastMacsLocal), 12u);

  // Writes of the present value notify nobody.
  log.seen.clear();
  data->reset();
  data->mgrConvergedIs(MgrConvergenceState::mgrWaiting);
  data->tunnelDirtyIs(true);
  data->tunnelDirtyIs(true);
  EXPECT_EQ(log.seen, std::vector<std::string>{"tunnelDirty"});
}

TEST(LocalDataDeathTest, aLocalMacRowIsMadeOnceAndAnotherUuidForItIsABreach) {
  const auto mac7 = mac("00:00:00:00:00:07");
  auto table = Kiln::newPtr<UcastMacsLocalTable>(Vxlan::Vni(5000));
  auto row = table->ucastMacsLocalIs(rowId(7), mac7);
  EXPECT_EQ(table->ucastMacsLocalIs(rowId(7), mac7), row);
  EXPECT_EQ(table->ucastMacsLocal().size(), 1u);
  EXPECT_DEATH(table->ucastMacsLocalIs(rowId(70), mac7), "re-instantiated under another uuid");

  auto mcastTable = Kiln::newPtr<McastMacsLocalTable>(Vxlan::Vni(5000));
  auto unknownDst = mcastTable->mcastMacsLocalIs(rowId(8), Ipkit::EthAddr());
  EXPECT_EQ(mcastTable->mcastMacsLocalIs(rowId(8), Ipkit::EthAddr()), unknownDst);
  EXPECT_DEATH(mcastTable->mcastMacsLocalIs(rowId(80), Ipkit::EthAddr()), "re-instantiated under another uuid");
}

}  // namespace
}  // namespace Vgw::Test
