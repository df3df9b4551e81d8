// Request objects without a server: the transaction message, the replies
// that are refused whole and those that break the agent's bookkeeping, and
// the request queue.
#include <gtest/gtest.h>

#include "TransactionSupport.h"
#include "Vgw/LocalTypes.h"
#include "Vgw/OvsdbTableOps.h"
#include "Vgw/VgwUtils.h"

namespace Vgw::Test {
namespace {

Uuid realUuid(unsigned n) { return Uuid(n, 0, 0x80000000u, n); }
OvsdbTable& ovsdbTable() { return *Kiln::Entity::singletonIs<OvsdbTable>(); }

std::string insertReply(unsigned n) {
  return R"({"uuid": ["uuid", ")" + realUuid(n).hexText().stringValue() + R"("]})";
}

class VgwTransactReply : public ::testing::Test {
 protected:
  // A transaction on the mirror holding `ops`, in this order.
  Kiln::Ptr<OvsdbTransactRequest> transaction(std::initializer_list<Kiln::Ptr<OpRequest>> ops) const {
    auto tx = Kiln::newPtr<OvsdbTransactRequest>();
    tx->ovsdbIs(ovsdb_);
    for (const auto& op : ops) tx->opEnq(op);
    return tx;
  }

  Kiln::Ptr<OpInsertRequest> portInsert() const { return buildInsert(Kiln::newPtr<PhysicalPort>(genNamedUuid())); }

  Kiln::Ptr<HwVtepOvsdb> ovsdb_ = Kiln::newPtr<HwVtepOvsdb>();
};

TEST_F(VgwTransactReply, ShortLongAndFailedRepliesAreRefusedWhole) {
  auto tx = transaction({portInsert(), portInsert()});
  TraceCapture trace("OvsdbRequest/0,VgwUtils/0");
  const std::string one = insertReply(1), two = insertReply(2);
  EXPECT_FALSE(tx->processResult(*parseJson("[" + one + "]")));
  EXPECT_FALSE(tx->processResult(*parseJson("[" + one + ", " + two + ", " + insertReply(3) + "]")));
  // A transaction that failed at commit has one element more, an error.
  EXPECT_FALSE(tx->processResult(
      *parseJson("[" + one + ", " + two + R"(, {"error": "referential integrity violation", "details": "x"}])")));
  // One that failed at its second operation ends there with the error.
  EXPECT_FALSE(tx->processResult(*parseJson("[" + one + R"(, {"error": "constraint violation"}])")));
  EXPECT_TRUE(ovsdb_->physicalPort().empty());
  EXPECT_TRUE(ovsdbTable().namedUuidToUuid().empty());
  EXPECT_TRUE(trace.contains("json transact size does not match"));
  EXPECT_TRUE(trace.contains("array->n: 1 i: 2"));
  EXPECT_TRUE(trace.contains("Json Error found : constraint violation"));
  EXPECT_TRUE(trace.contains(R"(Request: )" "\n" R"(["hardware_vtep",)")) << trace.text();

  EXPECT_TRUE(tx->processResult(*parseJson("[" + one + ", " + two + "]")));
  EXPECT_EQ(ovsdb_->physicalPort().size(), 2u);
  EXPECT_TRUE(ovsdbTable().namedUuidToUuid().empty());
}

TEST_F(VgwTransactReply, IgnoredReplyIsNeitherReadNorCounted) {
  auto tx = transaction({portInsert()});
  tx->ignoreProcessResultIs(true);
  const auto before = Kiln::Entity::singletonIs<LocalData>()->transactCounter(OvsdbDataType::physicalPort);
  EXPECT_TRUE(tx->processResult(*parseJson("[]")));
  EXPECT_EQ(Kiln::Entity::singletonIs<LocalData>()->transactCounter(OvsdbDataType::physicalPort), before);
  EXPECT_TRUE(ovsdb_->physicalPort().empty());
}

TEST_F(VgwTransactReply, DeleteCountIsCheckedOnlyWhenExpected) {
  ovsdb_->physicalPortIs(realUuid(1));
  auto any = buildDelete(realUuid(1), OvsdbDataType::physicalPort);
  any->resultCountIs(0);
  EXPECT_TRUE(transaction({any})->processResult(*parseJson(R"([{"count": 3}])")));
  EXPECT_FALSE(ovsdb_->physicalPort(realUuid(1)));

  auto exact = buildDelete(realUuid(2), OvsdbDataType::physicalPort);
  EXPECT_DEATH(transaction({exact})->processResult(*parseJson(R"([{"count": 0}])")),
               literally("Delete should only affect 1 row"));
}

TEST_F(VgwTransactReply, DeletesTolerateRowsGoneOrReadFromTheDatabase) {
  // A switch of an earlier run, read from the database, has no fabric identity.
  auto earlier = ovsdb_->physicalSwitchRawIs(realUuid(1));
  earlier->displayNameIs("leaf9");
  ovsdb_->physicalSwitchIs("leaf9", earlier);
  ovsdb_->tunnelRawIs(realUuid(2));
  TraceCapture trace("OvsdbTableOps/6");
  auto tx = transaction({buildDelete(realUuid(1), OvsdbDataType::physicalSwitch),
                         buildDelete(realUuid(3), OvsdbDataType::physicalSwitch),
                         buildDelete(realUuid(4), OvsdbDataType::manager),
                         buildDelete(realUuid(2), OvsdbDataType::tunnel)});
  EXPECT_TRUE(tx->processResult(*parseJson(R"([{"count": 1}, {"count": 1}, {"count": 1}, {"count": 1}])")));
  EXPECT_TRUE(ovsdb_->physicalSwitchRaw().empty());
  EXPECT_TRUE(ovsdb_->physicalSwitch().empty());
  EXPECT_TRUE(trace.contains(" return Physical Switch already deleted"));
  EXPECT_TRUE(trace.contains(" return Manager already deleted"));
  // The tunnel goes only because no switch names it any more.
  EXPECT_TRUE(ovsdb_->tunnelRaw().empty());
}

TEST_F(VgwTransactReply, RepliesThatContradictTheRequestAssert) {
  EXPECT_DEATH(transaction({portInsert()})->processResult(*parseJson("[]")), literally("array size is zero"));
  EXPECT_DEATH(transaction({portInsert()})->processResult(*parseJson(R"([{"uuid": ["uuid"]}])")),
               literally("Json Uuid array should be size 2"));
  EXPECT_DEATH(transaction({portInsert()})->processResult(*parseJson(R"([{"uuid": ["uuid", "x"], "count": 1}])")),
               literally("Unexpected reply size."));

  auto port = Kiln::newPtr<PhysicalPort>(realUuid(1));
  EXPECT_DEATH(transaction({buildUpdate(realUuid(1), port)})->processResult(*parseJson(R"([{"count": 0}])")),
               literally("Num of affected rows unexpected"));
  EXPECT_DEATH(transaction({buildUpdate(realUuid(1), port)})->processResult(*parseJson(R"([{"count": "1"}])")),
               literally("Unexpected json type."));

  // A reference to a row that no insert of the transaction made.
  auto global = Kiln::newPtr<Global>(realUuid(2));
  global->pSwitchIs(genNamedUuid());
  EXPECT_DEATH(transaction({buildUpdate(realUuid(2), global)})->processResult(*parseJson(R"([{"count": 1}])")),
               literally("!!pSwitchUuid && \"Uuid mapping to named uuid doesn't exist.\""));

  ovsdb_->physicalLocatorRawIs(realUuid(3));
  EXPECT_DEATH(transaction({buildUpdate(realUuid(3), Kiln::newPtr<PhysicalLocator>(realUuid(3)))})
                   ->processResult(*parseJson(R"([{"count": 1}])")),
               literally("!ovsdb->physicalLocatorRaw( uuid ) && \"Do not support physical locator updates\""));

  auto update = buildUpdate(realUuid(1), port);
  update->resultCountIs(0);
  EXPECT_DEATH(Ovs::JsonPtr(update->toJson()), literally("Must specify the expected num of row updates"));
  EXPECT_DEATH(Ovs::JsonPtr(buildUpdate(Uuid(), port)->toJson()), literally("Must specify the update object's uuid"));
}

TEST(VgwTransactMessage, OperationsGoOutInTransactionOrder) {
  OvsdbTransactRequest tx;
  EXPECT_EQ(tx.toJsonMsg(), nullptr);

  auto global = Kiln::newPtr<Global>(realUuid(1));
  auto mac = Kiln::newPtr<UcastMacsLocal>(genNamedUuid(), Ipkit::EthAddr::parse("00:aa:00:00:00:01"));
  auto pSwitch = Kiln::newPtr<PhysicalSwitch>(genNamedUuid());
  auto tunnel = Kiln::newPtr<Tunnel>(genNamedUuid());
  tx.opEnq(buildUpdate(global->uuid(), global));
  tx.opEnq(buildInsert(mac));
  tx.opEnq(buildInsert(pSwitch));
  tx.opEnq(buildInsert(tunnel));
  tx.opEnq(buildDelete(realUuid(2), OvsdbDataType::physicalSwitch));
  tx.opIs(OvsdbDataType::physicalPort);  // a table without operations

  const Ovs::JsonRpcMsgPtr msg(tx.toJsonMsg());
  ASSERT_TRUE(msg);
  EXPECT_STREQ(ovsc_jsonrpc_msg_method(msg.get()), "transact");
  const struct json_array* params = json_array(ovsc_jsonrpc_msg_params(msg.get()));
  ASSERT_EQ(params->n, 6u);
  EXPECT_STREQ(json_string(params->elems[0]), "hardware_vtep");
  std::vector<std::string> sent;
  for (std::size_t i = 1; i < params->n; ++i) {
    sent.push_back(std::string(json_string(column(params->elems[i], "op"))) + " " +
                   json_string(column(params->elems[i], "table")));
  }
  EXPECT_EQ(sent, (std::vector<std::string>{"insert Tunnel", "insert Physical_Switch", "delete Physical_Switch",
                                            "update Global", "insert Ucast_Macs_Local"}));
  EXPECT_STREQ(json_string(column(params->elems[1], "uuid-name")), tunnel->uuid().stringValue().charPtr());
  for (const auto& [table, ops] : tx.op()) {
    for (const auto& op : ops.op()) EXPECT_EQ(op->request(), &tx);
  }
}

TEST(VgwRequestQueue, MembersAreNumberedAndEveryChangeNotifies) {
  struct Watcher : OvsdbRequestQueue::NotifieeConst {
    std::vector<std::uint32_t> seen;
    void onRequest(std::uint32_t index) override { seen.push_back(index); }
  };
  auto queue = Kiln::newPtr<OvsdbRequestQueue>();
  Watcher watcher;
  watcher.notifierIs(queue);
  auto first = Kiln::newPtr<OvsdbTransactRequest>();
  auto second = Kiln::newPtr<OvsdbMonitorRequest>();
  queue->requestEnq(first);
  queue->requestEnq(second);
  EXPECT_EQ(queue->requestFront(), first);
  EXPECT_EQ(queue->requestBack(), second);
  EXPECT_EQ(queue->requestDeq(), first);
  EXPECT_EQ(queue->requestDeq(), second);
  EXPECT_EQ(queue->requestDeq(), nullptr);
  queue->requestEnq(first);
  EXPECT_EQ(queue->toJson()["request"]["3"]["type"], "transact");
  EXPECT_EQ(watcher.seen, (std::vector<std::uint32_t>{1, 2, 1, 2, 3}));
}

TEST(VgwRequest, DestroyLetsARequestBeSentAgain) {
  OvsdbMonitorRequest monitor;
  monitor.requestIdIs(parseJson(R"(["id", 1])"));
  monitor.ovsdbSchemaIs(schemaFromFile());
  MonitorRequest table("Physical_Switch");
  table.insertIs(false);
  table.removeIs(false);
  table.modifyIs(false);
  monitor.monitorEnq(table);
  EXPECT_TRUE(monitor.initialOnly());
  monitor.monitorEnq(MonitorRequest("Manager"));
  EXPECT_FALSE(monitor.initialOnly());

  TraceCapture trace("OvsdbRequest/6");
  monitor.destroy();
  EXPECT_EQ(monitor.requestId(), nullptr);
  EXPECT_EQ(monitor.ovsdbSchema(), nullptr);
  EXPECT_EQ(monitor.monitor().size(), 2u);
  EXPECT_EQ(trace.text(), "");
  monitor.destroy();
  EXPECT_TRUE(trace.contains(" requestId is NULL"));
  EXPECT_TRUE(trace.contains(" ovsdbSchema is NULL"));

  OvsdbCancelRequest cancel;
  cancel.monitorIdIs(parseJson(R"(["id", 7])"));
  const Ovs::JsonRpcMsgPtr msg(cancel.toJsonMsg());
  EXPECT_STREQ(ovsc_jsonrpc_msg_method(msg.get()), "monitor_cancel");
  EXPECT_EQ(toText(ovsc_jsonrpc_msg_params(msg.get())), R"([["id",7]])");
  EXPECT_DEATH(cancel.processResult(*parseJson("[]")), literally("Base class method should never be called."));
}

}  // namespace
}  // namespace Vgw::Test
