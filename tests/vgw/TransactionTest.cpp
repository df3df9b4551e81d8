// Transactions against a real ovsdb-server: what the agent builds is what
// the server stores, the reply writes the mirror and the local working data
// under the server's uuids, and replies that don't fit the request are
// refused whole or, when they contradict it, end the process.
#include <gtest/gtest.h>

#include "SessionSupport.h"
#include "Vgw/OvsdbTableOps.h"
#include "Vgw/VgwUtils.h"

namespace Vgw::Test {
namespace {

using Ipkit::EthAddr;
using Ipkit::IpGenAddr;

OvsdbTable& ovsdbTable() { return *Kiln::Entity::singletonIs<OvsdbTable>(); }

const Fleet::SystemId leafId = Fleet::SystemId::parse("00:1c:73:00:00:01");
const Vxlan::Vni vni(5000);

class VgwTransaction : public ::testing::Test {
 protected:
  void SetUp() override {
    localData_->reset();
    // Global and the controller's logical switch, mirrored as the monitor would.
    const std::vector<Ovs::JsonPtr> globals = serverRows(server_, "Global");
    ASSERT_EQ(globals.size(), 1u);
    globalUuid_ = rowUuid(globals[0].get());
    unmarshal(*ovsdb_->rootIs(globalUuid_), globals[0].get(), table("Global"));
    ls_ = Controller(server_).addLogicalSwitch("blue", 5000);
    unmarshal(*ovsdb_->logicalSwitchIs(ls_), serverRows(server_, "Logical_Switch").at(0).get(),
              table("Logical_Switch"));
  }

  Kiln::Ptr<OvsdbTransactRequest> transaction() const {
    auto tx = Kiln::newPtr<OvsdbTransactRequest>();
    tx->ovsdbIs(ovsdb_);
    return tx;
  }

  // Sends the transaction and applies the reply.
  bool send(OvsdbTransactRequest& tx) {
    const Ovs::JsonRpcMsgPtr msg(tx.toJsonMsg());
    return tx.processResult(*parseJson(server_.transact(toText(ovsc_jsonrpc_msg_params(msg.get())))));
  }

  // A switch with two ports, two local MACs behind one new locator, the
  // flood row on a new locator set, and Global naming the switch: one
  // transaction.
  void writeInventory() {
    auto tx = transaction();
    auto pSwitch = Kiln::newPtr<PhysicalSwitch>(genNamedUuid());
    pSwitch->displayNameIs("leaf1");
    pSwitch->descIs("rack 1");
    for (unsigned i = 1; i <= 2; ++i) {
      auto port = Kiln::newPtr<PhysicalPort>(genNamedUuid());
      port->displayNameIs("Ethernet" + std::to_string(i));
      port->vlanBindingIs(Bridging::VlanIdOrNone(10 * i), ls_);
      tx->opEnq(buildInsert(port));
      pSwitch->portIs(port->uuid());
    }
    pSwitch->tunnelIpIs(ip("10.0.0.1"));
    pSwitch->mgmtIpIs(ip("192.168.0.1"));
    pSwitch->systemIdIs(leafId);
    tx->opEnq(buildInsert(pSwitch));

    const Kiln::Ptr<const PhysicalLocator> locator = getPhysicalLocator(*ovsdb_, ip("10.0.0.1"), *tx);
    for (const char* text : {"00:aa:00:00:00:01", "00:aa:00:00:00:02"}) {
      auto mac = Kiln::newPtr<UcastMacsLocal>(genNamedUuid(), EthAddr::parse(text));
      mac->logicalSwitchIs(ls_);
      mac->locatorIs(locator->uuid());
      mac->ipAddrIs(ip("10.1.1.5"));
      tx->opEnq(buildInsert(mac));
    }

    const Kiln::Ptr<const PhysicalLocatorSet> set =
        getPhysicalLocatorSet(*ovsdb_, {ip("10.0.0.1"), ip("10.0.0.2")}, *tx);
    auto flood = Kiln::newPtr<McastMacsLocal>(genNamedUuid(), EthAddr());
    flood->logicalSwitchIs(ls_);
    flood->physicalLocatorSetIs(set->uuid());
    tx->opEnq(buildInsert(flood));

    auto global = Kiln::newPtr<Global>(globalUuid_);
    global->pSwitchIs(pSwitch->uuid());
    global->invalidAttribIs("manager", true);
    global->invalidAttribIs("otherConfig", true);
    tx->opEnq(buildUpdate(globalUuid_, global));

    EXPECT_TRUE(send(*tx));
  }

  // A partial update of the switch carrying only `attribute` (and the
  // agent-side identity, which every row of the switch carries).
  Kiln::Ptr<PhysicalSwitch> switchUpdate(const char* attribute) const {
    const Kiln::Ptr<PhysicalSwitch> current = ovsdb_->physicalSwitch("leaf1");
    auto row = Kiln::newPtr<PhysicalSwitch>(current->uuid());
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
        continue;
      }
      expectColumnsMatch(table(name), marshal(*it->second).get(), row.get());
    }
  }

  const ovsdb_table_schema& table(const char* name) const { return tableOf(schema_, name); }

  OvsdbServer server_;
  Ovs::SchemaPtr schema_ = schemaFromFile();
  Kiln::Ptr<HwVtepOvsdb> ovsdb_ = Kiln::newPtr<HwVtepOvsdb>();
  Kiln::Ptr<LocalData> localData_ = Kiln::Entity::singletonIs<LocalData>();
  Uuid globalUuid_;
  Uuid ls_;
};

TEST_F(VgwTransaction, OneTransactionWritesInventoryUnderTheServersUuids) {
  const std::map<OvsdbDataType, std::uint32_t> countedBefore = localData_->transactCounter();
  writeInventory();
  EXPECT_TRUE(ovsdbTable().namedUuidToUuid().empty());

  const Kiln::Ptr<PhysicalSwitch> pSwitch = ovsdb_->physicalSwitch("leaf1");
  ASSERT_TRUE(pSwitch);
  EXPECT_EQ(ovsdb_->physicalSwitchRaw(pSwitch->uuid()), pSwitch);
  EXPECT_EQ(localData_->physicalSwitch(leafId), pSwitch);
  EXPECT_EQ(ovsdb_->root(globalUuid_)->pSwitch(), std::set<Uuid>{pSwitch->uuid()});
  EXPECT_EQ(keysOf(ovsdb_->physicalPort()), pSwitch->port());

  const Kiln::Ptr<PhysicalLocator> shared = ovsdb_->physicalLocator(ip("10.0.0.1"));
  ASSERT_TRUE(shared);
  EXPECT_EQ(ovsdb_->physicalLocatorRaw().size(), 2u);
  EXPECT_EQ(localData_->localLocator(shared->key()), Kiln::Ptr<const PhysicalLocator>(shared));
  ASSERT_EQ(ovsdb_->physicalLocatorSet().size(), 1u);
  const Kiln::Ptr<PhysicalLocatorSet> set = ovsdb_->physicalLocatorSet().begin()->second;
  EXPECT_EQ(set->locator(), keysOf(ovsdb_->physicalLocatorRaw()));

  const Kiln::Ptr<UcastMacsLocalTable> ucast = localData_->ucastMacsLocalTable(vni);
  const Kiln::Ptr<McastMacsLocalTable> mcast = localData_->mcastMacsLocalTable(vni);
  ASSERT_TRUE(ucast && mcast && mcast->mcastMacsLocal(EthAddr()));
  ASSERT_EQ(ucast->ucastMacsLocal().size(), 2u);
  for (const auto& [mac, row] : ucast->ucastMacsLocal()) EXPECT_EQ(row->locator(), shared->uuid());
  EXPECT_EQ(mcast->mcastMacsLocal(EthAddr())->physicalLocatorSet(), set->uuid());

  // No placeholder is left anywhere, and the server holds what the mirror says.
  std::vector<Uuid> all{pSwitch->uuid(), set->uuid(), mcast->mcastMacsLocal(EthAddr())->uuid()};
  for (const Uuid& u : pSwitch->port()) all.push_back(u);
  for (const auto& [uuid, locator] : ovsdb_->physicalLocatorRaw()) all.push_back(uuid);
  for (const auto& [mac, row] : ucast->ucastMacsLocal()) all.push_back(row->uuid());
  for (const Uuid& u : all) EXPECT_FALSE(u.isNamed()) << u;
  expectServerHolds("Physical_Switch", ovsdb_->physicalSwitchRaw());
  expectServerHolds("Physical_Port", ovsdb_->physicalPort());
  expectServerHolds("Physical_Locator", ovsdb_->physicalLocatorRaw());
  expectServerHolds("Physical_Locator_Set", ovsdb_->physicalLocatorSet());
  expectServerHolds("Global", ovsdb_->root());
  expectServerHolds("Ucast_Macs_Local", ucast->ucastMacsLocal());
  expectServerHolds("Mcast_Macs_Local", mcast->mcastMacsLocal());

  for (const auto& [type, count] : std::map<OvsdbDataType, std::uint32_t>{
           {OvsdbDataType::physicalPort, 2}, {OvsdbDataType::physicalSwitch, 1}, {OvsdbDataType::physicalLocator, 2},
           {OvsdbDataType::physicalLocatorSet, 1}, {OvsdbDataType::global, 1}, {OvsdbDataType::ucastMacsLocal, 2},
           {OvsdbDataType::mcastMacsLocal, 1}}) {
    const auto before = countedBefore.find(type);
    EXPECT_EQ(localData_->transactCounter(type) - (before == countedBefore.end() ? 0 : before->second), count)
        << ovsdbTableName(type);
  }
}

TEST_F(VgwTransaction, TunnelLeavesTheMirrorWhenNoSwitchNamesIt) {
  writeInventory();
  const Uuid local = ovsdb_->physicalLocator(ip("10.0.0.1"))->uuid();
  const Uuid remote = ovsdb_->physicalLocator(ip("10.0.0.2"))->uuid();

  auto add = transaction();
  auto tunnel = Kiln::newPtr<Tunnel>(genNamedUuid());
  tunnel->localLocatorIs(local);
  tunnel->remoteLocatorIs(remote);
  tunnel->bfdConfigLocalIs("bfd_dst_ip", "169.254.1.0");
  add->opEnq(buildInsert(tunnel));
  auto named = switchUpdate("tunnels");
  named->tunnelIs(tunnel->uuid());
  add->opEnq(buildUpdate(named->uuid(), named));
  ASSERT_TRUE(send(*add));

  ASSERT_EQ(ovsdb_->tunnelRaw().size(), 1u);
  const Kiln::Ptr<Tunnel> mirrored = ovsdb_->tunnelRaw().begin()->second;
  EXPECT_FALSE(mirrored->uuid().isNamed());
  EXPECT_EQ(ovsdb_->tunnel(LocalRemoteVtepPair(ip("10.0.0.1"), ip("10.0.0.2"))), mirrored);
  const Kiln::Ptr<PhysicalSwitch> pSwitch = ovsdb_->physicalSwitch("leaf1");
  EXPECT_EQ(pSwitch->tunnel(), std::set<Uuid>{mirrored->uuid()});
  EXPECT_EQ(pSwitch->port().size(), 2u);  // the partial update left the ports alone
  expectServerHolds("Tunnel", ovsdb_->tunnelRaw());

  auto drop = transaction();
  auto none = switchUpdate("tunnels");
  drop->opEnq(buildUpdate(none->uuid(), none));
  TraceCapture trace("OvsdbRequest/6");
  ASSERT_TRUE(send(*drop));
  EXPECT_TRUE(ovsdb_->tunnelRaw().empty());
  EXPECT_TRUE(ovsdb_->tunnel().empty());
  EXPECT_TRUE(serverRows(server_, "Tunnel").empty());
  EXPECT_TRUE(trace.contains("Delete stale tunnel " + mirrored->uuid().stringValue().stringValue())) << trace.text();
}

TEST_F(VgwTransaction, UpdatesAndDeletesKeepIndexesInStep) {
  writeInventory();
  auto rename = transaction();
  auto renamed = switchUpdate("displayName");
  renamed->displayNameIs("leaf1-r2");
  rename->opEnq(buildUpdate(renamed->uuid(), renamed));
  ASSERT_TRUE(send(*rename));
  EXPECT_FALSE(ovsdb_->physicalSwitch("leaf1"));
  ASSERT_TRUE(ovsdb_->physicalSwitch("leaf1-r2"));
  EXPECT_EQ(ovsdb_->physicalSwitch("leaf1-r2")->tunnelIp(), std::set<IpGenAddr>{ip("10.0.0.1")});

  const Kiln::Ptr<UcastMacsLocalTable> table = localData_->ucastMacsLocalTable(vni);
  auto one = transaction();
  auto del = buildDelete(table->ucastMacsLocal(mac("00:aa:00:00:00:01"))->uuid(), OvsdbDataType::ucastMacsLocal);
  del->ovsdbDataModelIs(table->ucastMacsLocal(mac("00:aa:00:00:00:01")));
  one->opEnq(del);
  ASSERT_TRUE(send(*one));
  EXPECT_EQ(keysOf(table->ucastMacsLocal()), std::set<EthAddr>{mac("00:aa:00:00:00:02")});

  // The delete of every row of the logical switch empties the VNI's table.
  auto all = transaction();
  auto wholeSwitch =
      buildDeleteWhere(OvsdbDataType::ucastMacsLocal, createConditionUuid("logical_switch", "==", ls_));
  wholeSwitch->resultCountIs(0);
  wholeSwitch->ovsdbDataModelIs(table->ucastMacsLocal(mac("00:aa:00:00:00:02")));
  all->opEnq(wholeSwitch);
  ASSERT_TRUE(send(*all));
  EXPECT_EQ(localData_->ucastMacsLocalTable(vni), table);
  EXPECT_TRUE(table->ucastMacsLocal().empty());
  EXPECT_TRUE(serverRows(server_, "Ucast_Macs_Local").empty());
}

}  // namespace
}  // namespace Vgw::Test
