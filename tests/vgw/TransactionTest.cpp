// Transactions against a real ovsdb-server: what the agent builds is what
// the server stores, and the reply writes the mirror and the local working
// data under the server's uuids, with its indexes and stale rows in step.
#include <gtest/gtest.h>

#include "SessionSupport.h"
#include "Vgw/OvsdbTableOps.h"

namespace Vgw::Test {
namespace {

const Fleet::SystemId leafId = Fleet::SystemId::parse("00:1c:73:00:00:01");
const Vxlan::Vni vni(5000);

class VgwTransaction : public ::testing::Test {
 protected:
  void SetUp() override {
    localData_->reset();
    // Global and the controller's logical switch, mirrored as the monitor would.
    const Ovs::JsonPtr global = std::move(serverRows(server_, "Global").at(0));
    unmarshal(*ovsdb_->rootIs(rowUuid(global.get())), global.get(), table("Global"));
    ls_ = Controller(server_).addLogicalSwitch("blue", 5000);
    const Ovs::JsonPtr blue = std::move(serverRows(server_, "Logical_Switch").at(0));
    unmarshal(*ovsdb_->logicalSwitchIs(ls_), blue.get(), table("Logical_Switch"));
    EXPECT_TRUE(send(agentInventory(ovsdb_, ls_)));
  }

  // Sends the transaction and applies the reply.
  bool send(const Kiln::Ptr<OvsdbTransactRequest>& tx) {
    const Ovs::JsonRpcMsgPtr msg(tx->toJsonMsg());
    return tx->processResult(*parseJson(server_.transact(toText(ovsc_jsonrpc_msg_params(msg.get())))));
  }
  bool send(std::initializer_list<Kiln::Ptr<OpRequest>> ops) {
    auto tx = Kiln::newPtr<OvsdbTransactRequest>();
    tx->ovsdbIs(ovsdb_);
    for (const auto& op : ops) tx->opEnq(op);
    return send(tx);
  }

  // A partial update of the switch carrying only `attribute` (and the
  // agent-side identity, which every row of the switch carries).
  Kiln::Ptr<PhysicalSwitch> switchUpdate(const char* attribute) const {
    auto row = Kiln::newPtr<PhysicalSwitch>(ovsdb_->physicalSwitchRaw().begin()->first);
    row->invalidateAllAttribs();
    row->invalidAttribDel(attribute);
    row->systemIdIs(leafId);
    return row;
  }

  // Expects the server's rows of table `name` to be exactly the rows of the
  // mirror's map `rows`, column by column.
  template <class Map>
  void expectServerHolds(const char* name, const Map& rows) {
    const std::vector<Ovs::JsonPtr> stored = serverRows(server_, name);
    EXPECT_EQ(stored.size(), rows.size()) << name;
    for (const Ovs::JsonPtr& row : stored) {
      const auto it = std::find_if(rows.begin(), rows.end(),
                                   [&](const auto& entry) { return entry.second->uuid() == rowUuid(row.get()); });
      if (it == rows.end()) {
        ADD_FAILURE() << name << " row " << rowUuid(row.get()) << " is not in the mirror";
      } else {
        expectColumnsMatch(table(name), marshal(*it->second).get(), row.get());
      }
    }
  }

  const ovsdb_table_schema& table(const char* name) const { return tableOf(schema_, name); }

  OvsdbServer server_;
  Ovs::SchemaPtr schema_ = schemaFromFile();
  Kiln::Ptr<HwVtepOvsdb> ovsdb_ = Kiln::newPtr<HwVtepOvsdb>();
  Kiln::Ptr<LocalData> localData_ = Kiln::Entity::singletonIs<LocalData>();
  Uuid ls_;
};

TEST_F(VgwTransaction, OneTransactionWritesInventoryUnderTheServersUuids) {
  EXPECT_TRUE(Kiln::Entity::singletonIs<OvsdbTable>()->namedUuidToUuid().empty());
  const Kiln::Ptr<PhysicalSwitch> pSwitch = ovsdb_->physicalSwitch("leaf1");
  ASSERT_TRUE(pSwitch);
  EXPECT_EQ(localData_->physicalSwitch(leafId), pSwitch);
  EXPECT_EQ(ovsdb_->root().begin()->second->pSwitch(), std::set<Uuid>{pSwitch->uuid()});
  EXPECT_EQ(keysOf(ovsdb_->physicalPort()), pSwitch->port());

  const Kiln::Ptr<PhysicalLocator> shared = ovsdb_->physicalLocator(ip("10.0.0.1"));
  ASSERT_TRUE(shared);
  EXPECT_EQ(localData_->localLocator(shared->key()), Kiln::Ptr<const PhysicalLocator>(shared));
  ASSERT_EQ(ovsdb_->physicalLocatorSet().size(), 1u);
  const Kiln::Ptr<PhysicalLocatorSet> set = ovsdb_->physicalLocatorSet().begin()->second;
  EXPECT_EQ(set->locator(), keysOf(ovsdb_->physicalLocatorRaw()));
  EXPECT_EQ(set->locator().size(), 2u);

  const Kiln::Ptr<UcastMacsLocalTable> ucast = localData_->ucastMacsLocalTable(vni);
  const Kiln::Ptr<McastMacsLocalTable> mcast = localData_->mcastMacsLocalTable(vni);
  ASSERT_TRUE(ucast && mcast && mcast->mcastMacsLocal(Ipkit::EthAddr()));
  ASSERT_EQ(ucast->ucastMacsLocal().size(), 2u);
  for (const auto& [mac, row] : ucast->ucastMacsLocal()) EXPECT_EQ(row->locator(), shared->uuid());
  EXPECT_EQ(mcast->mcastMacsLocal(Ipkit::EthAddr())->physicalLocatorSet(), set->uuid());

  // The server holds what the mirror says, references included: a named
  // uuid left anywhere would differ.
  expectServerHolds("Physical_Switch", ovsdb_->physicalSwitchRaw());
  expectServerHolds("Physical_Port", ovsdb_->physicalPort());
  expectServerHolds("Physical_Locator", ovsdb_->physicalLocatorRaw());
  expectServerHolds("Physical_Locator_Set", ovsdb_->physicalLocatorSet());
  expectServerHolds("Global", ovsdb_->root());
  expectServerHolds("Ucast_Macs_Local", ucast->ucastMacsLocal());
  expectServerHolds("Mcast_Macs_Local", mcast->mcastMacsLocal());
}

TEST_F(VgwTransaction, TunnelLeavesTheMirrorWhenNoSwitchNamesIt) {
  auto tunnel = Kiln::newPtr<Tunnel>(genNamedUuid());
  tunnel->localLocatorIs(ovsdb_->physicalLocator(ip("10.0.0.1"))->uuid());
  tunnel->remoteLocatorIs(ovsdb_->physicalLocator(ip("10.0.0.2"))->uuid());
  tunnel->bfdConfigLocalIs("bfd_dst_ip", "169.254.1.0");
  auto named = switchUpdate("tunnels");
  named->tunnelIs(tunnel->uuid());
  ASSERT_TRUE(send({buildInsert(tunnel), buildUpdate(named->uuid(), named)}));

  ASSERT_EQ(ovsdb_->tunnelRaw().size(), 1u);
  const Kiln::Ptr<Tunnel> mirrored = ovsdb_->tunnelRaw().begin()->second;
  EXPECT_EQ(ovsdb_->tunnel(LocalRemoteVtepPair(ip("10.0.0.1"), ip("10.0.0.2"))), mirrored);
  EXPECT_EQ(ovsdb_->physicalSwitch("leaf1")->tunnel(), std::set<Uuid>{mirrored->uuid()});
  EXPECT_EQ(ovsdb_->physicalSwitch("leaf1")->port().size(), 2u);  // the partial update left the ports alone
  expectServerHolds("Tunnel", ovsdb_->tunnelRaw());

  TraceCapture trace("OvsdbRequest/6");
  auto none = switchUpdate("tunnels");
  ASSERT_TRUE(send({buildUpdate(none->uuid(), none)}));
  EXPECT_TRUE(ovsdb_->tunnelRaw().empty());
  EXPECT_TRUE(ovsdb_->tunnel().empty());
  EXPECT_TRUE(serverRows(server_, "Tunnel").empty());
  EXPECT_TRUE(trace.contains("Delete stale tunnel " + mirrored->uuid().stringValue().stringValue())) << trace.text();
}

TEST_F(VgwTransaction, UpdatesAndDeletesKeepIndexesInStep) {
  auto renamed = switchUpdate("displayName");
  renamed->displayNameIs("leaf1-r2");
  ASSERT_TRUE(send({buildUpdate(renamed->uuid(), renamed)}));
  EXPECT_FALSE(ovsdb_->physicalSwitch("leaf1"));
  ASSERT_TRUE(ovsdb_->physicalSwitch("leaf1-r2"));
  EXPECT_EQ(ovsdb_->physicalSwitch("leaf1-r2")->tunnelIp(), std::set<Ipkit::IpGenAddr>{ip("10.0.0.1")});

  const Kiln::Ptr<UcastMacsLocalTable> table = localData_->ucastMacsLocalTable(vni);
  auto one = buildDelete(table->ucastMacsLocal(mac("00:aa:00:00:00:01"))->uuid(), OvsdbDataType::ucastMacsLocal);
  one->ovsdbDataModelIs(table->ucastMacsLocal(mac("00:aa:00:00:00:01")));
  ASSERT_TRUE(send({one}));
  EXPECT_EQ(keysOf(table->ucastMacsLocal()), std::set<Ipkit::EthAddr>{mac("00:aa:00:00:00:02")});

  // The delete of every row of the logical switch empties the VNI's table.
  auto all = buildDeleteWhere(OvsdbDataType::ucastMacsLocal, createConditionUuid("logical_switch", "==", ls_));
  all->resultCountIs(0);
  all->ovsdbDataModelIs(table->ucastMacsLocal(mac("00:aa:00:00:00:02")));
  ASSERT_TRUE(send({all}));
  EXPECT_EQ(localData_->ucastMacsLocalTable(vni), table);
  EXPECT_TRUE(table->ucastMacsLocal().empty());
  EXPECT_TRUE(serverRows(server_, "Ucast_Macs_Local").empty());
}

}  // namespace
}  // namespace Vgw::Test
