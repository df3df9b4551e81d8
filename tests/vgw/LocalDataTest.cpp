// LocalData: what a session's end clears and what it keeps, the order in
// which reactors hear of it, the local MAC tables and the shutdown dump.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "Vgw/LocalTypes.h"

namespace {

using Vgw::LocalData;
using Vgw::Uuid;

Uuid rowId(std::uint32_t n) { return Uuid(n, 0x1234, 0x80000000u, 0); }

// The attributes of one object whose change it heard, in order, a run of
// changes to the same attribute counting once.
class ChangeLog : public Kiln::Entity::NotifieeConst {
 public:
  std::vector<std::string> seen;
  void onNotification(const Kiln::AttrInfo* attr, const void*) override {
    if (seen.empty() || seen.back() != attr->name) seen.emplace_back(attr->name);
  }
};

// Every attribute given a value that reset would change, or must keep.
void fill(LocalData& data) {
  const Vxlan::Vni vni(5000);
  const auto locatorKey = Vgw::PhysicalLocatorKey(Vgw::EncapsulationType::vxlan_over_ipv4,
                                                  Ipkit::IpGenAddr::parse("10.0.0.1"));
  data.remoteHostTableIs(rowId(1));
  data.vniToLogicalSwitchIs(vni)->logicalSwitchIs(rowId(1));
  data.nvpInternalLogicalSwitchIs(rowId(2));
  data.delNvpInternalLogicalSwitchIs(rowId(2));
  data.uplinkPortVlanTableIs(rowId(3))->portVlanIs(Vgw::PortVlanPair(rowId(4), Bridging::VlanIdOrNone(10)));
  data.transitVniIs(vni)->ucastMacsRemoteRefIs(rowId(5));
  data.localLocatorIs(locatorKey, Kiln::newPtr<Vgw::PhysicalLocator>(rowId(6)));
  data.ucastMacsLocalTableIs(vni)->ucastMacsLocalIs(rowId(7), Ipkit::EthAddr::parse("00:00:00:00:00:07"));
  data.mcastMacsLocalTableIs(vni)->mcastMacsLocalIs(rowId(8), Ipkit::EthAddr());
  data.physicalSwitchIs(Fleet::SystemId::parse("00:1c:73:00:00:01"), Kiln::newPtr<Vgw::PhysicalSwitch>(rowId(9)));
  data.monitorUpdateCompleteIs(true);
  data.mgrConvergedIs(Vgw::MgrConvergenceState::mgrWaiting);
  data.lastMsgSentDetailIs("[\"hardware_vtep\"]");
  data.ovsdbSynchronizedIs(true);
  data.transactCounterIs(Vgw::OvsdbDataType::ucastMacsLocal, 12);
  data.switchBindingDirtyIs(true);
  data.transitVniDirtyIs(true);
  data.tunnelDirtyIs(true);
  data.errorReportDirtyIs(true);
  data.inventoryDirtyIs(true);
}

TEST(LocalData, resetClearsTheSessionInOrderAndKeepsWhatOutlivesIt) {
  auto data = Kiln::newPtr<LocalData>();
  fill(*data);
  ChangeLog log;
  log.notifierIs(data);
  data->reset();

  // Tables first, so that the reactors of the flags find them settled.
  EXPECT_EQ(log.seen, (std::vector<std::string>{
                          "remoteHostTable", "vniToLogicalSwitch", "uplinkPortVlanTable", "localLocator",
                          "ucastMacsLocalTable", "mcastMacsLocalTable", "physicalSwitch", "monitorUpdateComplete",
                          "ovsdbSynchronized", "lastMsgSentDetail", "switchBindingDirty", "transitVniDirty",
                          "tunnelDirty", "errorReportDirty", "inventoryDirty"}));
  EXPECT_TRUE(data->remoteHostTable().empty());
  EXPECT_TRUE(data->vniToLogicalSwitch().empty());
  EXPECT_TRUE(data->uplinkPortVlanTable().empty());
  EXPECT_TRUE(data->localLocator().empty());
  EXPECT_TRUE(data->ucastMacsLocalTable().empty());
  EXPECT_TRUE(data->mcastMacsLocalTable().empty());
  EXPECT_TRUE(data->physicalSwitch().empty());
  EXPECT_TRUE(data->lastMsgSentDetail().empty());
  EXPECT_FALSE(data->inventoryDirty());

  // A transit VNI is forgotten only through its rows, whose delete may come
  // in the next session and must still find the reference.
  auto transit = data->transitVni(Vxlan::Vni(5000));
  ASSERT_TRUE(transit);
  EXPECT_TRUE(transit->ucastMacsRemoteRef(rowId(5)));
  EXPECT_EQ(data->nvpInternalLogicalSwitch(), rowId(2));
  EXPECT_EQ(data->delNvpInternalLogicalSwitch(), rowId(2));
  EXPECT_EQ(data->mgrConverged(), Vgw::MgrConvergenceState::mgrWaiting);
  EXPECT_EQ(data->transactCounter(Vgw::OvsdbDataType::ucastMacsLocal), 12u);
}

TEST(LocalData, writesOfThePresentValueNotifyNobody) {
  auto data = Kiln::newPtr<LocalData>();
  ChangeLog log;
  log.notifierIs(data);
  data->reset();
  data->mgrConvergedIs(Vgw::MgrConvergenceState::mgrInitial);
  EXPECT_TRUE(log.seen.empty());

  data->mgrConvergedIs(Vgw::MgrConvergenceState::mgrUp);
  data->tunnelDirtyIs(true);
  data->tunnelDirtyIs(true);
  data->mgrConvergedIs(Vgw::MgrConvergenceState::mgrUp);
  EXPECT_EQ(log.seen, (std::vector<std::string>{"mgrConverged", "tunnelDirty"}));
}

TEST(LocalData, aLocalMacRowIsMadeOnceAndFoundAgainByItsUuid) {
  auto table = Kiln::newPtr<Vgw::UcastMacsLocalTable>(Vxlan::Vni(5000));
  const auto mac = Ipkit::EthAddr::parse("00:00:00:00:00:07");
  auto row = table->ucastMacsLocalIs(rowId(7), mac);
  ASSERT_TRUE(row);
  EXPECT_EQ(row->uuid(), rowId(7));
  EXPECT_EQ(row->mac(), mac);
  EXPECT_EQ(table->ucastMacsLocal(mac), row);
  EXPECT_EQ(table->ucastMacsLocalIs(rowId(7), mac), row);
  EXPECT_EQ(table->ucastMacsLocal().size(), 1u);

  auto mcastTable = Kiln::newPtr<Vgw::McastMacsLocalTable>(Vxlan::Vni(5000));
  auto unknownDst = mcastTable->mcastMacsLocalIs(rowId(8), Ipkit::EthAddr());
  EXPECT_EQ(mcastTable->mcastMacsLocalIs(rowId(8), Ipkit::EthAddr()), unknownDst);
}

TEST(LocalDataDeathTest, aLocalMacUnderAnotherUuidIsABreach) {
  const auto mac = Ipkit::EthAddr::parse("00:00:00:00:00:07");
  auto table = Kiln::newPtr<Vgw::UcastMacsLocalTable>(Vxlan::Vni(5000));
  table->ucastMacsLocalIs(rowId(7), mac);
  EXPECT_DEATH(table->ucastMacsLocalIs(rowId(70), mac), "re-instantiated under another uuid");

  auto mcastTable = Kiln::newPtr<Vgw::McastMacsLocalTable>(Vxlan::Vni(5000));
  mcastTable->mcastMacsLocalIs(rowId(8), Ipkit::EthAddr());
  EXPECT_DEATH(mcastTable->mcastMacsLocalIs(rowId(80), Ipkit::EthAddr()), "re-instantiated under another uuid");
}

TEST(LocalData, theDumpNamesEveryAttributeButTheInventoryFlagInOrder) {
  auto data = Kiln::newPtr<LocalData>();
  fill(*data);
  std::ostringstream os;
  data->dump(os);
  const std::string text = os.str();

  EXPECT_EQ(text.rfind("Dump LocalData: ", 0), 0u) << text;
  std::size_t at = 0;
  for (const char* label :
       {" remoteHostTable: ", " vniToLogicalSwitch: ", " nvpInternalLogicalSwitch: ", " delNvpInternalLogicalSwitch: ",
        " uplinkPortVlanTable: ", " switchBindingDirty: ", " transitVni: ", " transitVniDirty: ", " tunnelDirty: ",
        " errorReportDirty: ", " localLocator: ", " ucastMacsLocalTable: ", " mcastMacsLocalTable: ",
        " physicalSwitch: ", " monitorUpdateComplete: ", " mgrConverged: ", " lastMsgSentDetail: ",
        " ovsdbSynchronized: ", " transactCounter: "}) {
    const std::size_t found = text.find(label, at);
    ASSERT_NE(found, std::string::npos) << label << " missing or out of order in " << text;
    at = found;
  }
  EXPECT_EQ(text.find("inventoryDirty"), std::string::npos);
  EXPECT_NE(text.find(" mgrConverged: \"mgrWaiting\""), std::string::npos);
  EXPECT_NE(text.find(rowId(5).stringValue().stringValue()), std::string::npos);
}

}  // namespace
