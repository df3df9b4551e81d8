// Transactions against a real ovsdb-server: what the agent builds is what
// the server stores, the reply writes the mirror and the local working data
// under the server's uuids, and replies that don't fit the request are
// refused whole or, when they contradict it, end the process.
#include <gtest/gtest.h>

#include "TransactionSupport.h"
#include "Vgw/LocalTypes.h"
#include "Vgw/OvsdbTableOps.h"
#include "Vgw/VgwUtils.h"

namespace Vgw::Test {
namespace {

using Ipkit::EthAddr;
using Ipkit::IpGenAddr;

IpGenAddr ip(const char* text) { return IpGenAddr::parse(text); }
OvsdbTable& ovsdbTable() { return *Kiln::Entity::singletonIs<OvsdbTable>(); }

const Fleet::SystemId leafId = Fleet::SystemId::parse("00:1c:73:00:00:01");
const Vxlan::Vni vni(5000);

// The rows of the inventory transaction, as the agent built them.
struct Inventory {
  Kiln::Ptr<PhysicalSwitch> pSwitch;
  std::vector<Kiln::Ptr<UcastMacsLocal>> macs;
};

class VgwTransaction : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(session_.ok());
    localData_->reset();
    // Global and the controller's logical switch, mirrored as the monitor would.
    const std::vector<Ovs::JsonPtr> globals = serverRows(server_, "Global");
    ASSERT_EQ(globals.size(), 1u);
    globalUuid_ = rowUuid(globals[0].get());
    unmarshal(*ovsdb_->rootIs(globalUuid_), globals[0].get(), session_.table("Global"));
    ls_ = controllerInsert(server_, R"({"op": "insert", "table": "Logical_Switch", "row": {"name": "blue",
                                        "tunnel_key": 5000}})")
              .at(0);
    unmarshal(*ovsdb_->logicalSwitchIs(ls_), serverRows(server_, "Logical_Switch").at(0).get(),
              session_.table("Logical_Switch"));
  }

  Kiln::Ptr<OvsdbTransactRequest> transaction() const {
    auto tx = Kiln::newPtr<OvsdbTransactRequest>();
    tx->ovsdbIs(ovsdb_);
    return tx;
  }

  // Sends the transaction and applies the reply.
  bool send(OvsdbTransactRequest& tx) const {
    const Ovs::JsonPtr result = session_.transact(tx.toJsonMsg());
    return result && tx.processResult(*result);
  }

  // A switch with two ports, two local MACs behind one new locator, the
  // flood row on a new locator set, and Global naming the switch: one
  // transaction.
  Inventory writeInventory() {
    auto tx = transaction();
    Inventory inv;
    inv.pSwitch = Kiln::newPtr<PhysicalSwitch>(genNamedUuid());
    inv.pSwitch->displayNameIs("leaf1");
    inv.pSwitch->descIs("rack 1");
    for (unsigned i = 1; i <= 2; ++i) {
      auto port = Kiln::newPtr<PhysicalPort>(genNamedUuid());
      port->displayNameIs("Ethernet" + std::to_string(i));
      port->vlanBindingIs(Bridging::VlanIdOrNone(10 * i), ls_);
      tx->opEnq(buildInsert(port));
      inv.pSwitch->portIs(port->uuid());
    }
    inv.pSwitch->tunnelIpIs(ip("10.0.0.1"));
    inv.pSwitch->mgmtIpIs(ip("192.168.0.1"));
    inv.pSwitch->systemIdIs(leafId);
    tx->opEnq(buildInsert(inv.pSwitch));

    const Kiln::Ptr<const PhysicalLocator> locator = getPhysicalLocator(*ovsdb_, ip("10.0.0.1"), *tx);
    for (const char* text : {"00:aa:00:00:00:01", "00:aa:00:00:00:02"}) {
      auto mac = Kiln::newPtr<UcastMacsLocal>(genNamedUuid(), EthAddr::parse(text));
      mac->logicalSwitchIs(ls_);
      mac->locatorIs(locator->uuid());
      if (inv.macs.empty()) mac->ipAddrIs(ip("10.1.1.5"));
      tx->opEnq(buildInsert(mac));
      inv.macs.push_back(mac);
    }

    const Kiln::Ptr<const PhysicalLocatorSet> set =
        getPhysicalLocatorSet(*ovsdb_, {ip("10.0.0.1"), ip("10.0.0.2")}, *tx);
    auto flood = Kiln::newPtr<McastMacsLocal>(genNamedUuid(), EthAddr());
    flood->logicalSwitchIs(ls_);
    flood->physicalLocatorSetIs(set->uuid());
    tx->opEnq(buildInsert(flood));

    auto global = Kiln::newPtr<Global>(globalUuid_);
    global->pSwitchIs(inv.pSwitch->uuid());
    global->invalidAttribIs("manager", true);
    global->invalidAttribIs("otherConfig", true);
    tx->opEnq(buildUpdate(globalUuid_, global));

    EXPECT_TRUE(send(*tx));
    return inv;
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

  // Expects the server's rows of `table` to be exactly `rows`, column by column.
  template <class Rows>
  void expectServerHolds(const char* table, const Rows& rows) {
    const std::vector<Ovs::JsonPtr> stored = serverRows(server_, table);
    EXPECT_EQ(stored.size(), rows.size()) << table;
    for (const Ovs::JsonPtr& row : stored) {
      const Uuid uuid = rowUuid(row.get());
      auto it = std::find_if(rows.begin(), rows.end(), [&](const auto& r) { return r->uuid() == uuid; });
      if (it == rows.end()) {
        ADD_FAILURE() << table << " row " << uuid << " is not in the mirror";
        continue;
      }
      expectColumnsMatch(session_.table(table), marshal(**it).get(), row.get());
    }
  }

  template <class Map>
  static std::vector<typename Map::mapped_type> values(const Map& map) {
    std::vector<typename Map::mapped_type> out;
    for (const auto& [key, value] : map) out.push_back(value);
    return out;
  }

  OvsdbServer server_;
  Session session_{server_};
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
  EXPECT_EQ(pSwitch->port().size(), 2u);
  for (const Uuid& port : pSwitch->port()) EXPECT_TRUE(ovsdb_->physicalPort(port)) << port;

  ASSERT_EQ(ovsdb_->physicalLocatorRaw().size(), 2u);
  const Kiln::Ptr<PhysicalLocator> shared = ovsdb_->physicalLocator(ip("10.0.0.1"));
  ASSERT_TRUE(shared);
  EXPECT_EQ(localData_->localLocator(shared->key()), Kiln::Ptr<const PhysicalLocator>(shared));
  ASSERT_EQ(ovsdb_->physicalLocatorSet().size(), 1u);
  const Kiln::Ptr<PhysicalLocatorSet> set = ovsdb_->physicalLocatorSet().begin()->second;
  EXPECT_EQ(set->locator(), (std::set<Uuid>{shared->uuid(), ovsdb_->physicalLocator(ip("10.0.0.2"))->uuid()}));

  const Kiln::Ptr<UcastMacsLocalTable> ucast = localData_->ucastMacsLocalTable(vni);
  ASSERT_TRUE(ucast);
  ASSERT_EQ(ucast->ucastMacsLocal().size(), 2u);
  for (const auto& [mac, row] : ucast->ucastMacsLocal()) {
    EXPECT_EQ(row->locator(), shared->uuid());
    EXPECT_EQ(row->logicalSwitch(), ls_);
  }
  EXPECT_EQ(ucast->ucastMacsLocal(EthAddr::parse("00:aa:00:00:00:01"))->ipAddr(), ip("10.1.1.5"));
  const Kiln::Ptr<McastMacsLocalTable> mcast = localData_->mcastMacsLocalTable(vni);
  ASSERT_TRUE(mcast);
  ASSERT_TRUE(mcast->mcastMacsLocal(EthAddr()));
  EXPECT_EQ(mcast->mcastMacsLocal(EthAddr())->physicalLocatorSet(), set->uuid());

  // No placeholder is left anywhere.
  std::vector<Uuid> all{pSwitch->uuid(), set->uuid()};
  all.insert(all.end(), pSwitch->port().begin(), pSwitch->port().end());
  all.insert(all.end(), set->locator().begin(), set->locator().end());
  for (const auto& [uuid, locator] : ovsdb_->physicalLocatorRaw()) all.push_back(uuid);
  for (const auto& [mac, row] : ucast->ucastMacsLocal()) all.push_back(row->uuid());
  all.push_back(mcast->mcastMacsLocal(EthAddr())->uuid());
  for (const Uuid& u : all) EXPECT_FALSE(u.isNamed()) << u;

  // What the server holds is what the mirror says.
  expectServerHolds("Physical_Switch", values(ovsdb_->physicalSwitchRaw()));
  expectServerHolds("Physical_Port", values(ovsdb_->physicalPort()));
  expectServerHolds("Physical_Locator", values(ovsdb_->physicalLocatorRaw()));
  expectServerHolds("Physical_Locator_Set", values(ovsdb_->physicalLocatorSet()));
  expectServerHolds("Global", values(ovsdb_->root()));
  expectServerHolds("Ucast_Macs_Local", values(ucast->ucastMacsLocal()));
  expectServerHolds("Mcast_Macs_Local", values(mcast->mcastMacsLocal()));
  EXPECT_EQ(toText(column(serverRows(server_, "Mcast_Macs_Local").at(0).get(), "MAC")), R"("unknown-dst")");

  const auto counted = [&](OvsdbDataType t) {
    auto it = countedBefore.find(t);
    return localData_->transactCounter(t) - (it == countedBefore.end() ? 0 : it->second);
  };
  EXPECT_EQ(counted(OvsdbDataType::physicalPort), 2u);
  EXPECT_EQ(counted(OvsdbDataType::physicalSwitch), 1u);
  EXPECT_EQ(counted(OvsdbDataType::physicalLocator), 2u);
  EXPECT_EQ(counted(OvsdbDataType::physicalLocatorSet), 1u);
  EXPECT_EQ(counted(OvsdbDataType::global), 1u);
  EXPECT_EQ(counted(OvsdbDataType::ucastMacsLocal), 2u);
  EXPECT_EQ(counted(OvsdbDataType::mcastMacsLocal), 1u);
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
  expectServerHolds("Tunnel", values(ovsdb_->tunnelRaw()));

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
  Inventory inv = writeInventory();

  auto rename = transaction();
  auto renamed = switchUpdate("displayName");
  renamed->displayNameIs("leaf1-r2");
  rename->opEnq(buildUpdate(renamed->uuid(), renamed));
  ASSERT_TRUE(send(*rename));
  EXPECT_FALSE(ovsdb_->physicalSwitch("leaf1"));
  ASSERT_TRUE(ovsdb_->physicalSwitch("leaf1-r2"));
  EXPECT_EQ(ovsdb_->physicalSwitch("leaf1-r2")->tunnelIp(), std::set<IpGenAddr>{ip("10.0.0.1")});

  const Kiln::Ptr<UcastMacsLocalTable> table = localData_->ucastMacsLocalTable(vni);
  const Kiln::Ptr<UcastMacsLocal> first = table->ucastMacsLocal(inv.macs[0]->mac());
  const Kiln::Ptr<UcastMacsLocal> second = table->ucastMacsLocal(inv.macs[1]->mac());
  auto one = transaction();
  auto del = buildDelete(first->uuid(), OvsdbDataType::ucastMacsLocal);
  del->ovsdbDataModelIs(first);
  one->opEnq(del);
  ASSERT_TRUE(send(*one));
  EXPECT_EQ(values(table->ucastMacsLocal()), std::vector<Kiln::Ptr<UcastMacsLocal>>{second});

  // The delete of every row of the logical switch empties the VNI's table.
  auto all = transaction();
  auto wholeSwitch =
      buildDeleteWhere(OvsdbDataType::ucastMacsLocal, createConditionUuid("logical_switch", "==", ls_));
  wholeSwitch->resultCountIs(0);
  wholeSwitch->ovsdbDataModelIs(second);
  all->opEnq(wholeSwitch);
  ASSERT_TRUE(send(*all));
  EXPECT_EQ(localData_->ucastMacsLocalTable(vni), table);
  EXPECT_TRUE(table->ucastMacsLocal().empty());
  EXPECT_TRUE(serverRows(server_, "Ucast_Macs_Local").empty());

  // Taking the switch out of Global by mutation.
  auto mutate = transaction();
  const Uuid switchUuid = ovsdb_->physicalSwitch("leaf1-r2")->uuid();
  mutate->opEnq(buildMutate(globalUuid_, MutaterOp::mutaterOpDelete, "pSwitch", {switchUuid}, OvsdbDataType::global,
                            parseJson(R"([["switches", "delete", ["set", [["uuid", ")" +
                                      switchUuid.hexText().stringValue() + R"("]]]]])")));
  ASSERT_TRUE(send(*mutate));
  EXPECT_TRUE(ovsdb_->root(globalUuid_)->pSwitch().empty());
}

}  // namespace
}  // namespace Vgw::Test
