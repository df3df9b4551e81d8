// Transactions without a server: the order of the message, the replies
// that are refused whole and those that break the agent's bookkeeping.
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "Vgw/LocalTypes.h"
#include "Vgw/OvsdbTableOps.h"
#include "Vgw/VgwUtils.h"

namespace Vgw::Test {
namespace {

OvsdbTable& ovsdbTable() { return *Kiln::Entity::singletonIs<OvsdbTable>(); }
std::string insertReply(unsigned n) { return R"({"uuid": ["uuid", ")" + rowId(n).hexText().stringValue() + R"("]})"; }

class VgwTransactReply : public ::testing::Test {
 protected:
  // A transaction on the mirror holding `ops`, in this order.
  Kiln::Ptr<OvsdbTransactRequest> transaction(std::initializer_list<Kiln::Ptr<OpRequest>> ops) const {
    auto tx = Kiln::newPtr<OvsdbTransactRequest>();
    tx->ovsdbIs(ovsdb_);
    for (const auto& op : ops) tx->opEnq(op);
    return tx;
  }
  bool reply(std::initializer_list<Kiln::Ptr<OpRequest>> ops, const std::string& result) const {
    return transaction(ops)->processResult(*parseJson(result));
  }
  static Kiln::Ptr<OpInsertRequest> portInsert() { return buildInsert(Kiln::newPtr<PhysicalPort>(genNamedUuid())); }

  Kiln::Ptr<HwVtepOvsdb> ovsdb_ = Kiln::newPtr<HwVtepOvsdb>();
};

TEST_F(VgwTransactReply, ShortLongAndFailedRepliesAreRefusedWhole) {
  auto tx = transaction({portInsert(), portInsert()});
  TraceCapture trace("OvsdbRequest/0,VgwUtils/0");
  const std::string one = insertReply(1), two = insertReply(2);
  for (const std::string& refused : {
           "[" + one + "]", "[" + one + ", " + two + ", " + insertReply(3) + "]",
           // Failed at commit: one element more, an error.
           "[" + one + ", " + two + R"(, {"error": "referential integrity violation", "details": "x"}])",
           // Failed at its second operation: it ends there with the error.
           "[" + one + R"(, {"error": "constraint violation"}])"}) {
    EXPECT_FALSE(tx->processResult(*parseJson(refused))) << refused;
  }
  EXPECT_TRUE(ovsdb_->physicalPort().empty());
  EXPECT_TRUE(ovsdbTable().namedUuidToUuid().empty());
  EXPECT_TRUE(trace.contains("json transact size does not match"));
  EXPECT_TRUE(trace.contains("array->n: 1 i: 2"));
  EXPECT_TRUE(trace.contains("Json Error found : constraint violation"));
  EXPECT_TRUE(trace.contains(R"(Request: )" "\n" R"(["hardware_vtep",)")) << trace.text();

  EXPECT_TRUE(tx->processResult(*parseJson("[" + one + ", " + two + "]")));
  EXPECT_EQ(ovsdb_->physicalPort().size(), 2u);
  EXPECT_TRUE(ovsdbTable().namedUuidToUuid().empty());

  // An ignored reply is neither read nor counted.
  auto ignored = transaction({portInsert()});
  ignored->ignoreProcessResultIs(true);
  const auto counted = Kiln::Entity::singletonIs<LocalData>()->transactCounter(OvsdbDataType::physicalPort);
  EXPECT_TRUE(ignored->processResult(*parseJson("[]")));
  EXPECT_EQ(Kiln::Entity::singletonIs<LocalData>()->transactCounter(OvsdbDataType::physicalPort), counted);
  EXPECT_EQ(ovsdb_->physicalPort().size(), 2u);
}

TEST_F(VgwTransactReply, DeletesTolerateRowsGoneOrReadFromTheDatabase) {
  // A switch of an earlier run, read from the database, has no fabric identity.
  auto earlier = ovsdb_->physicalSwitchRawIs(rowId(1));
  earlier->displayNameIs("leaf9");
  ovsdb_->physicalSwitchIs("leaf9", earlier);
  ovsdb_->tunnelRawIs(rowId(2));
  ovsdb_->physicalPortIs(rowId(5));
  auto anyCount = buildDelete(rowId(5), OvsdbDataType::physicalPort);
  anyCount->resultCountIs(0);
  TraceCapture trace("OvsdbTableOps/6");
  EXPECT_TRUE(reply({buildDelete(rowId(1), OvsdbDataType::physicalSwitch), buildDelete(rowId(2), OvsdbDataType::tunnel),
                     buildDelete(rowId(3), OvsdbDataType::physicalSwitch),
                     buildDelete(rowId(4), OvsdbDataType::manager)},
                    R"([{"count": 1}, {"count": 1}, {"count": 1}, {"count": 1}])"));
  EXPECT_TRUE(ovsdb_->physicalSwitchRaw().empty());
  EXPECT_TRUE(ovsdb_->physicalSwitch().empty());
  EXPECT_TRUE(trace.contains(" return Physical Switch already deleted"));
  EXPECT_TRUE(trace.contains(" return Manager already deleted"));
  // The tunnel goes only because no switch names it any more.
  EXPECT_TRUE(ovsdb_->tunnelRaw().empty());
  // A delete of any number of rows takes any count.
  EXPECT_TRUE(reply({anyCount}, R"([{"count": 3}])"));
  EXPECT_FALSE(ovsdb_->physicalPort(rowId(5)));
}

// Another client may delete rows the agent wrote (vtep-ctl del-ps): an
// operation on such a row touches nothing, and the reply is refused whole
// with the reason, so the session reads the database again.
TEST_F(VgwTransactReply, RowsAnotherClientRemovedRefuseTheReplyWhole) {
  ovsdb_->physicalPortIs(rowId(2));
  auto port = Kiln::newPtr<PhysicalPort>(rowId(1));
  port->displayNameIs("Ethernet1");
  struct Case {
    Kiln::Ptr<OpRequest> op;
    const char* count;
    const char* table;
  };
  const Case cases[] = {
      {buildUpdate(rowId(1), port), "0", "Physical_Port"},
      {buildUpdate(rowId(1), port), "2", "Physical_Port"},
      {buildDelete(rowId(2), OvsdbDataType::physicalPort), "0", "Physical_Port"},
  };
  for (const Case& c : cases) {
    auto tx = transaction({portInsert(), c.op});
    TraceCapture trace("OvsdbRequest/0");
    EXPECT_FALSE(tx->processResult(*parseJson("[" + insertReply(7) + R"(, {"count": )" + c.count + "}]")));
    const std::string expected = std::string("Num of affected rows unexpected: ") + c.table + " row " +
                                 rowId(c.op->uuid() == rowId(1) ? 1 : 2).hexText().stringValue() +
                                 " expected 1, touched " + c.count;
    EXPECT_EQ(tx->refusal().rfind(expected, 0), 0u) << tx->refusal();
    EXPECT_TRUE(trace.contains(expected)) << trace.text();
    // Nothing of the reply reached the mirror: neither the insert nor the update.
    EXPECT_EQ(ovsdb_->physicalPort().size(), 1u);
    EXPECT_FALSE(ovsdb_->physicalPort(rowId(1)));
    EXPECT_TRUE(ovsdb_->physicalPort(rowId(2)));
  }
}

TEST_F(VgwTransactReply, RepliesThatContradictTheRequestAssert) {
  EXPECT_DEATH(reply({portInsert()}, "[]"), literally("array size is zero"));
  EXPECT_DEATH(reply({portInsert()}, R"([{"uuid": ["uuid"]}])"), literally("Json Uuid array should be size 2"));
  EXPECT_DEATH(reply({portInsert()}, R"([{"uuid": ["uuid", "x"], "count": 1}])"), literally("Unexpected reply size."));

  auto port = Kiln::newPtr<PhysicalPort>(rowId(1));
  EXPECT_DEATH(reply({buildUpdate(rowId(1), port)}, R"([{"count": "1"}])"), literally("Unexpected json type."));

  // A reference to a row that no insert of the transaction made.
  auto global = Kiln::newPtr<Global>(rowId(2));
  global->pSwitchIs(genNamedUuid());
  EXPECT_DEATH(reply({buildUpdate(rowId(2), global)}, R"([{"count": 1}])"),
               literally("!!pSwitchUuid && \"Uuid mapping to named uuid doesn't exist.\""));

  ovsdb_->physicalLocatorRawIs(rowId(3));
  EXPECT_DEATH(reply({buildUpdate(rowId(3), Kiln::newPtr<PhysicalLocator>(rowId(3)))}, R"([{"count": 1}])"),
               literally("!ovsdb->physicalLocatorRaw( uuid ) && \"Do not support physical locator updates\""));

  auto update = buildUpdate(rowId(1), port);
  update->resultCountIs(0);
  EXPECT_DEATH(Ovs::JsonPtr(update->toJson()), literally("Must specify the expected num of row updates"));
  EXPECT_DEATH(Ovs::JsonPtr(buildUpdate(Uuid(), port)->toJson()), literally("Must specify the update object's uuid"));
  OvsdbCancelRequest cancel;
  EXPECT_DEATH(cancel.processResult(*parseJson("[]")), literally("Base class method should never be called."));
}

// The reply is read in the order the operations went out, which is fixed
// by table whatever the order of the enqueues.
TEST(VgwTransactMessage, OperationsGoOutInTheFixedTableOrder) {
  OvsdbTransactRequest tx;
  EXPECT_EQ(tx.toJsonMsg(), nullptr);
  auto global = Kiln::newPtr<Global>(rowId(1));
  tx.opEnq(buildUpdate(global->uuid(), global));
  tx.opEnq(buildInsert(Kiln::newPtr<UcastMacsLocal>(genNamedUuid(), mac("00:aa:00:00:00:01"))));
  tx.opEnq(buildInsert(Kiln::newPtr<PhysicalSwitch>(genNamedUuid())));
  tx.opEnq(buildInsert(Kiln::newPtr<Tunnel>(genNamedUuid())));
  tx.opEnq(buildDelete(rowId(2), OvsdbDataType::physicalSwitch));
  tx.opIs(OvsdbDataType::physicalPort);  // a table without operations
  const Ovs::JsonRpcMsgPtr msg(tx.toJsonMsg());
  ASSERT_TRUE(msg);
  const struct json_array* params = json_array(ovsc_jsonrpc_msg_params(msg.get()));
  std::vector<std::string> sent;
  for (std::size_t i = 1; i < params->n; ++i) {
    sent.push_back(std::string(json_string(column(params->elems[i], "op"))) + " " +
                   json_string(column(params->elems[i], "table")));
  }
  EXPECT_EQ(sent, (std::vector<std::string>{"insert Tunnel", "insert Physical_Switch", "delete Physical_Switch",
                                            "update Global", "insert Ucast_Macs_Local"}));
}

}  // namespace
}  // namespace Vgw::Test
