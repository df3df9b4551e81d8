// Everything the agent says to the database is a request object in one queue.
//
// A state machine builds a request (a monitor subscription, or a transaction
// holding operations sorted by table), puts it on the OvsdbRequestQueue, and
// the request handler takes it off and sends it. A transaction renders its
// operations table by table in the transaction order of OvsdbTable, and
// spreads the database's reply back over the same operations in the same
// order; each operation then updates the mirror through its table's response
// handler. A reply that is short or ends in an error is refused whole
// (processResult returns false and no operation runs), and so is one in
// which an update, mutate or delete touched another number of rows than it
// named: another client removed rows the agent writes, and the mirror must be
// read again from the database. A reply whose shape
// contradicts the operation that asked for it is a breach and asserts.
//
// JSON values here are libopenvswitch's; the request owns what it holds
// (JsonPtr) and hands out borrowed pointers.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>

#include "Ipkit/IpGenAddr.h"
#include "Kiln/Entity.h"
#include "Ovs/OvsHandles.h"
#include "model/Rows.h"

namespace Vgw {

class OvsdbTransactRequest;

class OvsdbRequest : public Kiln::PtrInterface {
 public:
  const Uuid& id() const { return id_; }
  OvsdbRequestType type() const { return type_; }

  // The message to send, owned by the caller; null when there is nothing to send.
  virtual jsonrpc_msg* toJsonMsg() const;
  // Applies the reply's result; false when the reply is refused.
  virtual bool processResult(const json& result);
  // Frees the request id and the schema, so the request can be sent again.
  virtual void destroy();
  // The params of toJsonMsg() as text, for diagnostics.
  std::string jsonMsg() const;

  json* requestId() const { return requestId_.get(); }
  void requestIdIs(Ovs::JsonPtr id) { requestId_ = std::move(id); }
  ovsdb_schema* ovsdbSchema() const { return ovsdbSchema_.get(); }
  void ovsdbSchemaIs(Ovs::SchemaPtr schema) { ovsdbSchema_ = std::move(schema); }

 protected:
  explicit OvsdbRequest(OvsdbRequestType type);

 private:
  const Uuid id_;
  const OvsdbRequestType type_;
  Ovs::JsonPtr requestId_;
  Ovs::SchemaPtr ovsdbSchema_;
};

// One table of a subscription. An empty column map asks for every column of
// the schema.
class MonitorRequest {
 public:
  explicit MonitorRequest(Kiln::String table = Kiln::String()) : table_(std::move(table)) {}
  const Kiln::String& table() const { return table_; }
  void tableIs(const Kiln::String& t) { table_ = t; }
  const std::map<Kiln::String, bool>& column() const { return column_; }
  void columnIs(const Kiln::String& name, bool on) { column_.insert_or_assign(name, on); }
  bool initial() const { return initial_; }
  void initialIs(bool v) { initial_ = v; }
  bool insert() const { return insert_; }
  void insertIs(bool v) { insert_ = v; }
  bool remove() const { return remove_; }
  void removeIs(bool v) { remove_ = v; }
  bool modify() const { return modify_; }
  void modifyIs(bool v) { modify_ = v; }
  bool initialOnly() const { return initial_ && !insert_ && !remove_ && !modify_; }

 private:
  Kiln::String table_;
  std::map<Kiln::String, bool> column_;
  bool initial_ = true;
  bool insert_ = true;
  bool remove_ = true;
  bool modify_ = true;
};

class OvsdbMonitorRequest : public OvsdbRequest {
 public:
  OvsdbMonitorRequest() : OvsdbRequest(OvsdbRequestType::monitor) {}
  const Kiln::String& dbName() const { return dbName_; }
  void dbNameIs(const Kiln::String& name) { dbName_ = name; }

  const std::deque<MonitorRequest>& monitor() const { return monitor_; }
  void monitorEnq(MonitorRequest m) { monitor_.push_back(std::move(m)); }
  void monitorDeq() { monitor_.pop_front(); }
  const MonitorRequest& monitorFront() const { return monitor_.front(); }
  const MonitorRequest& monitorBack() const { return monitor_.back(); }
  void monitorDelAll() { monitor_.clear(); }
  bool initialOnly() const;

  // The subscription needs the schema; the handler builds its message.
  jsonrpc_msg* toJsonMsg() const override { return nullptr; }

 private:
  Kiln::String dbName_;
  std::deque<MonitorRequest> monitor_;
};

class OvsdbCancelRequest : public OvsdbRequest {
 public:
  OvsdbCancelRequest() : OvsdbRequest(OvsdbRequestType::cancel) {}
  json* monitorId() const { return monitorId_.get(); }
  void monitorIdIs(Ovs::JsonPtr id) { monitorId_ = std::move(id); }
  jsonrpc* rpc() const { return rpc_; }
  void rpcIs(jsonrpc* rpc) { rpc_ = rpc; }

  jsonrpc_msg* toJsonMsg() const override;
  void destroy() override;

 private:
  Ovs::JsonPtr monitorId_;
  jsonrpc* rpc_ = nullptr;  // not owned
};

enum class OpType : std::uint8_t {
  unknownOpType = 0,
  insertOpType = 1,
  selectOpType = 2,
  updateOpType = 3,
  mutateOpType = 4,
  deleteOpType = 5,
  waitOpType = 6,
};

enum class MutaterOp : std::uint8_t {
  mutaterOpInsert = 0,
  mutaterOpDelete = 1,
};

// One operation of a transaction.
class OpRequest : public Kiln::PtrInterface {
 public:
  OpType type() const { return type_; }
  OvsdbDataType table() const { return table_; }
  const Uuid& uuid() const { return uuid_; }
  void uuidIs(const Uuid& uuid) { uuid_ = uuid; }
  const Kiln::Ptr<OvsdbDataModel>& ovsdbDataModel() const { return ovsdbDataModel_; }
  void ovsdbDataModelIs(Kiln::Ptr<OvsdbDataModel> row) { ovsdbDataModel_ = std::move(row); }
  const Kiln::Ptr<HwVtepOvsdb>& ovsdb() const { return ovsdb_; }
  void ovsdbIs(Kiln::Ptr<HwVtepOvsdb> ovsdb) { ovsdb_ = std::move(ovsdb); }
  OvsdbTransactRequest* request() const { return request_; }
  void requestIs(OvsdbTransactRequest* request) { request_ = request; }

  // The operation's JSON object, owned by the caller.
  virtual json* toJson() const;
  // Applies this operation's element of the reply.
  virtual void processResult(const json& result);

 protected:
  OpRequest(OpType type, OvsdbDataType table) : type_(type), table_(table) {}

 private:
  const OpType type_;
  const OvsdbDataType table_;
  Uuid uuid_;
  Kiln::Ptr<OvsdbDataModel> ovsdbDataModel_;
  Kiln::Ptr<HwVtepOvsdb> ovsdb_;
  OvsdbTransactRequest* request_ = nullptr;  // the transaction holding this operation
};

class OpInsertRequest : public OpRequest {
 public:
  explicit OpInsertRequest(OvsdbDataType table);
  json* row() const { return row_.get(); }
  void rowIs(Ovs::JsonPtr row) { row_ = std::move(row); }
  const Uuid& uuidNamed() const { return uuidNamed_; }
  void uuidNamedIs(const Uuid& named) { uuidNamed_ = named; }
  json* toJson() const override;
  void processResult(const json& result) override;

 private:
  Ovs::JsonPtr row_;
  Uuid uuidNamed_;
};

class OpUpdateRequest : public OpRequest {
 public:
  explicit OpUpdateRequest(OvsdbDataType table) : OpRequest(OpType::updateOpType, table) {}
  json* where() const { return where_.get(); }
  void whereIs(Ovs::JsonPtr where) { where_ = std::move(where); }
  json* row() const { return row_.get(); }
  void rowIs(Ovs::JsonPtr row) { row_ = std::move(row); }
  unsigned resultCount() const { return resultCount_; }
  void resultCountIs(unsigned n) { resultCount_ = n; }
  json* toJson() const override;
  void processResult(const json& result) override;

 private:
  Ovs::JsonPtr where_;
  Ovs::JsonPtr row_;
  unsigned resultCount_ = 0;
};

// A presence check of one row inside a transaction: a select of the row's
// uuid, whose reply tells whether the row still exists. The table's handler
// drops a row found gone from the mirror, as the monitor's delete would:
// the server collects unreferenced locators and locator sets at commit, and
// the agent's monitor may tell of it only after its next transaction.
class OpSelectRequest : public OpRequest {
 public:
  explicit OpSelectRequest(OvsdbDataType table) : OpRequest(OpType::selectOpType, table) {}
  // Whether the reply held the row; false until the reply is applied.
  bool found() const { return found_; }
  json* toJson() const override;
  void processResult(const json& result) override;

 private:
  bool found_ = false;
};

class OpMutateRequest : public OpRequest {
 public:
  explicit OpMutateRequest(OvsdbDataType table) : OpRequest(OpType::mutateOpType, table) {}
  json* where() const { return where_.get(); }
  void whereIs(Ovs::JsonPtr where) { where_ = std::move(where); }
  json* mutations() const { return mutations_.get(); }
  void mutationsIs(Ovs::JsonPtr mutations) { mutations_ = std::move(mutations); }
  unsigned resultCount() const { return resultCount_; }
  void resultCountIs(unsigned n) { resultCount_ = n; }
  MutaterOp mutaterOp() const { return mutaterOp_; }
  void mutaterOpIs(MutaterOp op) { mutaterOp_ = op; }
  const Kiln::String& mutateColumn() const { return mutateColumn_; }
  void mutateColumnIs(const Kiln::String& column) { mutateColumn_ = column; }
  const std::map<Uuid, bool>& mutateSet() const { return mutateSet_; }
  void mutateSetIs(const Uuid& uuid, bool v) { mutateSet_.insert_or_assign(uuid, v); }
  json* toJson() const override;
  void processResult(const json& result) override;

 private:
  Ovs::JsonPtr where_;
  Ovs::JsonPtr mutations_;
  unsigned resultCount_ = 0;
  MutaterOp mutaterOp_ = MutaterOp::mutaterOpInsert;
  Kiln::String mutateColumn_;
  std::map<Uuid, bool> mutateSet_;
};

class OpDeleteRequest : public OpRequest {
 public:
  explicit OpDeleteRequest(OvsdbDataType table) : OpRequest(OpType::deleteOpType, table) {}
  json* where() const { return where_.get(); }
  void whereIs(Ovs::JsonPtr where) { where_ = std::move(where); }
  unsigned resultCount() const { return resultCount_; }
  void resultCountIs(unsigned n) { resultCount_ = n; }
  json* toJson() const override;
  void processResult(const json& result) override;

 private:
  Ovs::JsonPtr where_;
  unsigned resultCount_ = 0;
};

// The operations of one table, in the order they were enqueued.
class OpRequestColl {
 public:
  const std::deque<Kiln::Ptr<OpRequest>>& op() const { return op_; }
  void opEnq(Kiln::Ptr<OpRequest> op) { op_.push_back(std::move(op)); }
  void opDeq() { op_.pop_front(); }
  const Kiln::Ptr<OpRequest>& opFront() const { return op_.front(); }
  const Kiln::Ptr<OpRequest>& opBack() const { return op_.back(); }
  void opDelAll() { op_.clear(); }

 private:
  std::deque<Kiln::Ptr<OpRequest>> op_;
};

class OvsdbTransactRequest : public OvsdbRequest {
 public:
  OvsdbTransactRequest() : OvsdbRequest(OvsdbRequestType::transact) {}

  const Kiln::String& dbName() const { return dbName_; }
  void dbNameIs(const Kiln::String& name) { dbName_ = name; }
  const std::map<OvsdbDataType, OpRequestColl>& op() const { return op_; }
  // The operations of one table, created empty when absent.
  OpRequestColl& opIs(OvsdbDataType table) { return op_[table]; }
  const OpRequestColl* op(OvsdbDataType table) const;
  // Appends an operation to its table's queue and makes this its transaction.
  void opEnq(Kiln::Ptr<OpRequest> op);
  std::size_t opCount() const;

  const Kiln::Ptr<HwVtepOvsdb>& ovsdb() const { return ovsdb_; }
  void ovsdbIs(Kiln::Ptr<HwVtepOvsdb> ovsdb) { ovsdb_ = std::move(ovsdb); }
  bool ignoreProcessResult() const { return ignoreProcessResult_; }
  void ignoreProcessResultIs(bool v) { ignoreProcessResult_ = v; }

  // Locators inserted by this transaction, so that later operations of the
  // same transaction share them.
  const std::map<Ipkit::IpGenAddr, Kiln::Ptr<const PhysicalLocator>>& vtepIpToPhysicalLocator() const {
    return vtepIpToPhysicalLocator_;
  }
  Kiln::Ptr<const PhysicalLocator> vtepIpToPhysicalLocator(const Ipkit::IpGenAddr& ip) const;
  void vtepIpToPhysicalLocatorIs(const Ipkit::IpGenAddr& ip, Kiln::Ptr<const PhysicalLocator> locator) {
    vtepIpToPhysicalLocator_.insert_or_assign(ip, std::move(locator));
  }
  Kiln::Ptr<const PhysicalLocator> namedUuidToPhysicalLocator(const Uuid& named) const;
  void namedUuidToPhysicalLocatorIs(const Uuid& named, Kiln::Ptr<const PhysicalLocator> locator) {
    namedUuidToPhysicalLocator_.insert_or_assign(named, std::move(locator));
  }

  jsonrpc_msg* toJsonMsg() const override;
  bool processResult(const json& result) override;
  // Why processResult refused the reply; empty until it does.
  const std::string& refusal() const { return refusal_; }

 private:
  // Removes from the mirror the tunnels that no physical switch refers to.
  void sweepStaleTunnels();

  Kiln::String dbName_ = "hardware_vtep";
  std::map<OvsdbDataType, OpRequestColl> op_;
  Kiln::Ptr<HwVtepOvsdb> ovsdb_;
  bool ignoreProcessResult_ = false;
  std::string refusal_;
  std::map<Ipkit::IpGenAddr, Kiln::Ptr<const PhysicalLocator>> vtepIpToPhysicalLocator_;
  std::map<Uuid, Kiln::Ptr<const PhysicalLocator>> namedUuidToPhysicalLocator_;
};

// The one queue towards the database. Members are numbered by a running
// index; enqueue and dequeue both notify the reactors of `request` with the
// member's index. With a live handler, a request is taken off, sent and
// answered before requestEnq returns.
class OvsdbRequestQueue : public Kiln::Entity {
 public:
  static const Kiln::TypeInfo typeInfo_;
  const Kiln::TypeInfo& typeInfo() const override { return typeInfo_; }
  static const Kiln::AttrInfo requestAttr_;

  class NotifieeConst : public Kiln::Entity::NotifieeConst {
   public:
    void notifierIs(const Kiln::Ptr<const OvsdbRequestQueue>& q) { Kiln::PtrInterface::NotifieeConst::notifierIs(q); }
    virtual void onRequest(std::uint32_t /*index*/) {}
    void onNotification(const Kiln::AttrInfo* attr, const void* key) override;
  };

  const std::map<std::uint32_t, Kiln::Ptr<OvsdbRequest>>& request() const { return request_; }
  Kiln::Ptr<OvsdbRequest> request(std::uint32_t index) const;
  void requestEnq(Kiln::Ptr<OvsdbRequest> request);
  // Takes the oldest request off the queue; null when it is empty.
  Kiln::Ptr<OvsdbRequest> requestDeq();
  Kiln::Ptr<OvsdbRequest> requestFront() const;
  Kiln::Ptr<OvsdbRequest> requestBack() const;
  bool requestDel(std::uint32_t index);
  void requestDelAll();

 private:
  std::map<std::uint32_t, Kiln::Ptr<OvsdbRequest>> request_;
  std::uint32_t lastIndex_ = 0;
};

}  // namespace Vgw
