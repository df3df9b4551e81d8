#include "Vgw/OvsdbRequest.h"

#include <openvswitch/json.h>
#include <openvswitch/shash.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <optional>
#include <set>
#include <sstream>
#include <vector>

#include "Kiln/Assert.h"
#include "RingTape/RingTape.h"
#include "Vgw/LocalTypes.h"
#include "Vgw/OvsdbTableOps.h"
#include "Vgw/VgwUtils.h"

RINGTAPE_HANDLE("OvsdbRequest");

namespace Vgw {

namespace {

constexpr const char* baseMethod = "Base class method should never be called.";

OvsdbTable& ovsdbTable() { return *Kiln::Entity::singletonIs<OvsdbTable>(); }

std::string render(const json* j) {
  const Ovs::CString text(json_to_string(j, 0));
  return text.get();
}

// {"op": <op>, "table": <name>} with the members that follow added by the caller.
json* operation(const char* op, OvsdbDataType table) {
  json* object = json_object_create();
  json_object_put_string(object, "op", op);
  json_object_put_string(object, "table", ovsdbTableName(table));
  return object;
}

json* cloneOrEmpty(const json* j, json* (*empty)()) { return j ? json_clone(j) : empty(); }

// The one member of an operation's reply object.
const json* replyMember(const json& result, const char* name) {
  KILN_ASSERT(result.type == JSON_OBJECT && shash_count(json_object(&result)) == 1, "Unexpected reply size.");
  return static_cast<const json*>(shash_find_data(json_object(&result), name));
}

// The "count" of an update, mutate or delete reply.
std::int64_t replyCount(const json& result) {
  const json* count = replyMember(result, "count");
  KILN_ASSERT(count && count->type == JSON_INTEGER, "Unexpected json type.");
  return json_integer(count);
}

// The number of rows an update, mutate or delete asked to touch; none for an
// insert, and for a delete that takes whatever matches.
std::optional<std::int64_t> expectedCount(const OpRequest& op) {
  switch (op.type()) {
    case OpType::updateOpType: return static_cast<const OpUpdateRequest&>(op).resultCount();
    case OpType::mutateOpType: return static_cast<const OpMutateRequest&>(op).resultCount();
    case OpType::deleteOpType: {
      const unsigned count = static_cast<const OpDeleteRequest&>(op).resultCount();
      return count ? std::optional<std::int64_t>(count) : std::nullopt;
    }
    default: return std::nullopt;
  }
}

const OvsdbTableOp& tableOp(OvsdbDataType table) {
  const Kiln::Ptr<const OvsdbTableOp> op = ovsdbTable().ovsdbTableOp(table);
  KILN_ASSERT(op, "tableOp && \"No response handler for the table\"");
  return *op;
}

}  // namespace

// ---- OvsdbRequest ------------------------------------------------------------

OvsdbRequest::OvsdbRequest(OvsdbRequestType type) : id_(genUuid()), type_(type) {}

jsonrpc_msg* OvsdbRequest::toJsonMsg() const {
  KILN_ASSERT(false, baseMethod);
  return nullptr;
}

bool OvsdbRequest::processResult(const json&) {
  KILN_ASSERT(false, baseMethod);
  return false;
}

void OvsdbRequest::destroy() {
  if (requestId_) {
    requestId_.reset();
  } else {
    VGW_TRACE(6, " requestId is NULL");
  }
  if (ovsdbSchema_) {
    ovsdbSchema_.reset();
  } else {
    VGW_TRACE(6, " ovsdbSchema is NULL");
  }
}

std::string OvsdbRequest::jsonMsg() const {
  const Ovs::JsonRpcMsgPtr msg(toJsonMsg());
  if (!msg) return std::string();
  const json* params = ovsc_jsonrpc_msg_params(msg.get());
  return params ? render(params) : std::string();
}

bool OvsdbMonitorRequest::initialOnly() const {
  for (const MonitorRequest& m : monitor_) {
    if (!m.initialOnly()) return false;
  }
  return true;
}

jsonrpc_msg* OvsdbCancelRequest::toJsonMsg() const {
  json* id = monitorId_ ? json_clone(monitorId_.get()) : json_null_create();
  return ovsc_jsonrpc_create_request("monitor_cancel", json_array_create_1(id), nullptr);
}

void OvsdbCancelRequest::destroy() {
  monitorId_.reset();
  OvsdbRequest::destroy();
}

// ---- operations ----------------------------------------------------------------

json* OpRequest::toJson() const {
  KILN_ASSERT(false, baseMethod);
  return nullptr;
}

void OpRequest::processResult(const json&) { KILN_ASSERT(false, baseMethod); }

OpInsertRequest::OpInsertRequest(OvsdbDataType table)
    : OpRequest(OpType::insertOpType, table), uuidNamed_(genNamedUuid()) {}

json* OpInsertRequest::toJson() const {
  json* object = operation("insert", table());
  json_object_put_string(object, "uuid-name", uuidNamed_.stringValue().charPtr());
  json_object_put(object, "row", cloneOrEmpty(row_.get(), json_object_create));
  return object;
}

void OpInsertRequest::processResult(const json& result) {
  const json* uuidArray = replyMember(result, "uuid");
  KILN_ASSERT(uuidArray && uuidArray->type == JSON_ARRAY && json_array(uuidArray)->n == 2,
              "Json Uuid array should be size 2");
  const json* text = json_array(uuidArray)->elems[1];
  uuidIs(text->type == JSON_STRING ? Uuid::tryParse(json_string(text)).value_or(Uuid()) : Uuid());
  tableOp(table()).processInsertResp(Kiln::Ptr<OpInsertRequest>(this));
  if (uuidNamed_.isNamed()) {
    VGW_TRACE(6, "map " << uuidNamed_ << " <> " << uuid());
    ovsdbTable().namedUuidToUuidIs(uuidNamed_, uuid());
  }
}

json* OpUpdateRequest::toJson() const {
  KILN_ASSERT(resultCount_ != 0, "Must specify the expected num of row updates");
  KILN_ASSERT(!uuid().isNull() && ovsdbDataModel(), "Must specify the update object's uuid");
  json* object = operation("update", table());
  json_object_put(object, "where", cloneOrEmpty(where_.get(), json_array_create_empty));
  json_object_put(object, "row", cloneOrEmpty(row_.get(), json_object_create));
  return object;
}

void OpUpdateRequest::processResult(const json& result) {
  KILN_ASSERT(replyCount(result) == resultCount_, "Num of affected rows unexpected");
  tableOp(table()).processUpdateResp(Kiln::Ptr<OpUpdateRequest>(this));
}

json* OpMutateRequest::toJson() const {
  KILN_ASSERT(resultCount_ != 0, "Must specify the expected num of row updates");
  json* object = operation("mutate", table());
  json_object_put(object, "where", cloneOrEmpty(where_.get(), json_array_create_empty));
  json_object_put(object, "mutations", cloneOrEmpty(mutations_.get(), json_array_create_empty));
  return object;
}

void OpMutateRequest::processResult(const json& result) {
  KILN_ASSERT(replyCount(result) == resultCount_, "Num of affected rows unexpected");
  tableOp(table()).processMutateResp(Kiln::Ptr<OpMutateRequest>(this));
}

json* OpDeleteRequest::toJson() const {
  json* object = operation("delete", table());
  json_object_put(object, "where", cloneOrEmpty(where_.get(), json_array_create_empty));
  return object;
}

void OpDeleteRequest::processResult(const json& result) {
  const std::int64_t count = replyCount(result);
  KILN_ASSERT(resultCount_ == 0 || count == resultCount_, "Delete should only affect 1 row");
  tableOp(table()).processDeleteResp(Kiln::Ptr<OpDeleteRequest>(this));
}

json* OpSelectRequest::toJson() const {
  json* object = operation("select", table());
  json_object_put(object, "where", json_array_create_1(createUuidCondition(uuid()).release()));
  json_object_put(object, "columns", json_array_create_1(json_string_create("_uuid")));
  return object;
}

void OpSelectRequest::processResult(const json& result) {
  const json* rows = replyMember(result, "rows");
  KILN_ASSERT(rows && rows->type == JSON_ARRAY, "Unexpected json type.");
  found_ = json_array(rows)->n != 0;
  tableOp(table()).processSelectResp(Kiln::Ptr<OpSelectRequest>(this));
}

// ---- OvsdbTransactRequest ----------------------------------------------------------

const OpRequestColl* OvsdbTransactRequest::op(OvsdbDataType table) const {
  auto it = op_.find(table);
  return it == op_.end() ? nullptr : &it->second;
}

void OvsdbTransactRequest::opEnq(Kiln::Ptr<OpRequest> op) {
  op->requestIs(this);
  opIs(op->table()).opEnq(std::move(op));
}

std::size_t OvsdbTransactRequest::opCount() const {
  std::size_t n = 0;
  for (const auto& [table, coll] : op_) n += coll.op().size();
  return n;
}

Kiln::Ptr<const PhysicalLocator> OvsdbTransactRequest::vtepIpToPhysicalLocator(const Ipkit::IpGenAddr& ip) const {
  auto it = vtepIpToPhysicalLocator_.find(ip);
  return it == vtepIpToPhysicalLocator_.end() ? nullptr : it->second;
}

Kiln::Ptr<const PhysicalLocator> OvsdbTransactRequest::namedUuidToPhysicalLocator(const Uuid& named) const {
  auto it = namedUuidToPhysicalLocator_.find(named);
  return it == namedUuidToPhysicalLocator_.end() ? nullptr : it->second;
}

jsonrpc_msg* OvsdbTransactRequest::toJsonMsg() const {
  if (op_.empty()) return nullptr;
  const std::size_t count = opCount();
  VGW_TRACE(6, "Total operations: " << count);
  // The params array is allocated once for the whole burst; the library
  // takes the element array over.
  auto** elements = static_cast<json**>(std::malloc(sizeof(json*) * (count + 1)));
  std::size_t n = 0;
  elements[n++] = json_string_create(dbName_.charPtr());
  for (OvsdbDataType table : ovsdbTable().ovsdbTransactOrder()) {
    const OpRequestColl* coll = op(table);
    if (!coll || coll->op().empty()) continue;
    VGW_TRACE(6, "Table " << ovsdbTableName(table));
    for (const Kiln::Ptr<OpRequest>& o : coll->op()) elements[n++] = o->toJson();
  }
  KILN_ASSERT(n == count + 1, "i == count && \"Operation on a table outside the transaction order\"");
  return ovsc_jsonrpc_create_request("transact", json_array_create(elements, n), nullptr);
}

bool OvsdbTransactRequest::processResult(const json& result) {
  if (ignoreProcessResult_) return true;
  KILN_ASSERT(result.type == JSON_ARRAY, "result.type == JSON_ARRAY && \"Transaction reply is not an array\"");
  const struct json_array* array = json_array(&result);

  std::vector<OpRequest*> ops;
  ops.reserve(opCount());
  const Kiln::Ptr<LocalData> localData = Kiln::Entity::singletonIs<LocalData>();
  for (OvsdbDataType table : ovsdbTable().ovsdbTransactOrder()) {
    const OpRequestColl* coll = op(table);
    if (!coll || coll->op().empty()) continue;
    for (const Kiln::Ptr<OpRequest>& o : coll->op()) ops.push_back(o.get());
    localData->transactCounterIs(table, localData->transactCounter(table) +
                                            static_cast<std::uint32_t>(coll->op().size()));
  }

  KILN_ASSERT(array->n != 0, "array size is zero");
  if (isJsonError(*array->elems[array->n - 1]) || array->n != ops.size()) {
    VGW_TRACE(0, "json transact size does not match");
    VGW_TRACE(0, "array->n: " << array->n << " i: " << ops.size());
    VGW_TRACE(0, "Request: \n" << jsonMsg());
    VGW_TRACE(0, "Reply: \n" << TracedJson{&result});
    refusal_ = "ovsdb reply error";
    return false;
  }

  // The agent names the rows it writes by uuid, and it learns of no other
  // writer in the tables it owns. A row that an operator or controller
  // deleted there (vtep-ctl del-ps, say) leaves the operation touching
  // nothing: the mirror no longer matches the database, so none of the reply
  // is applied and the session starts over from what the database holds.
  for (std::size_t i = 0; i < ops.size(); ++i) {
    const OpRequest* o = ops[i];
    const std::optional<std::int64_t> expected = expectedCount(*o);
    if (!expected) continue;
    const std::int64_t count = replyCount(*array->elems[i]);
    if (count == *expected) continue;
    std::ostringstream text;
    text << "Num of affected rows unexpected: " << ovsdbTableName(o->table()) << " row " << o->uuid() << " expected "
         << *expected << ", touched " << count << "; another client changed rows this agent writes, resynchronising";
    refusal_ = text.str();
    VGW_TRACE(0, refusal_);
    return false;
  }

  for (std::size_t i = 0; i < ops.size(); ++i) {
    ops[i]->ovsdbIs(ovsdb_);
    ops[i]->processResult(*array->elems[i]);
  }

  OvsdbTable& table = ovsdbTable();
  if (VGW_TRACE_ENABLED(6)) {
    for (const auto& [named, real] : table.namedUuidToUuid()) VGW_TRACE(6, named << " <> " << real);
  }
  table.namedUuidToUuidDelAll();

  if (ovsdb_) sweepStaleTunnels();
  return true;
}

void OvsdbTransactRequest::sweepStaleTunnels() {
  HwVtepOvsdb& ovsdb = *ovsdb_;
  std::set<Uuid> referenced;
  for (const auto& [uuid, pSwitch] : ovsdb.physicalSwitchRaw()) {
    referenced.insert(pSwitch->tunnel().begin(), pSwitch->tunnel().end());
  }
  std::vector<Uuid> stale;
  for (const auto& [uuid, tunnel] : ovsdb.tunnelRaw()) {
    if (!referenced.contains(uuid)) stale.push_back(uuid);
  }
  if (stale.empty()) return;
  std::vector<LocalRemoteVtepPair> indexed;
  for (const auto& [pair, tunnel] : ovsdb.tunnel()) {
    if (std::binary_search(stale.begin(), stale.end(), tunnel->uuid())) indexed.push_back(pair);
  }
  for (const Uuid& uuid : stale) VGW_TRACE(6, "Delete stale tunnel " << uuid);
  for (const LocalRemoteVtepPair& pair : indexed) ovsdb.tunnelDel(pair);
  for (const Uuid& uuid : stale) ovsdb.tunnelRawDel(uuid);
}

// ---- OvsdbRequestQueue ----------------------------------------------------------------

namespace {

std::string requestIndexText(const void* key) { return std::to_string(*static_cast<const std::uint32_t*>(key)); }

Kiln::Json requestJson(const OvsdbRequest& request) {
  return Kiln::Json{{"id", request.id().stringValue().stringValue()},
                    {"type", enumName(request.type())}};
}

Kiln::Json requestsToJson(const Kiln::Entity& e) {
  Kiln::Json out = Kiln::Json::object();
  for (const auto& [index, request] : static_cast<const OvsdbRequestQueue&>(e).request()) {
    out[std::to_string(index)] = requestJson(*request);
  }
  return out;
}

bool requestToJson(const Kiln::Entity& e, std::string_view key, Kiln::Json& out) {
  std::uint32_t index = 0;
  const auto [end, error] = std::from_chars(key.data(), key.data() + key.size(), index);
  if (error != std::errc() || end != key.data() + key.size()) return false;
  const Kiln::Ptr<OvsdbRequest> request = static_cast<const OvsdbRequestQueue&>(e).request(index);
  if (!request) return false;
  out = requestJson(*request);
  return true;
}

const Kiln::AttrInfo* const queueAttrs[] = {&OvsdbRequestQueue::requestAttr_};

}  // namespace

const Kiln::AttrInfo OvsdbRequestQueue::requestAttr_{
    "request", Kiln::AttrKind::valueMap, &OvsdbRequestQueue::typeInfo_, 0, nullptr, false, &requestsToJson, nullptr,
    &requestToJson, nullptr, nullptr, nullptr, nullptr, &requestIndexText, nullptr, nullptr, nullptr};

const Kiln::TypeInfo OvsdbRequestQueue::typeInfo_{
    "Vgw::OvsdbRequestQueue", &Kiln::Entity::typeInfo_, queueAttrs,
    [](const Kiln::Name&) { return Kiln::Ptr<Kiln::Entity>(Kiln::newPtr<OvsdbRequestQueue>()); },
    [](const Kiln::Entity&) { return Kiln::Ptr<Kiln::Entity>(Kiln::newPtr<OvsdbRequestQueue>()); }};
static const Kiln::TypeRegistration queueRegistration(OvsdbRequestQueue::typeInfo_);

void OvsdbRequestQueue::NotifieeConst::onNotification(const Kiln::AttrInfo* attr, const void* key) {
  if (attr == &requestAttr_) onRequest(*static_cast<const std::uint32_t*>(key));
}

Kiln::Ptr<OvsdbRequest> OvsdbRequestQueue::request(std::uint32_t index) const {
  auto it = request_.find(index);
  return it == request_.end() ? nullptr : it->second;
}

void OvsdbRequestQueue::requestEnq(Kiln::Ptr<OvsdbRequest> request) {
  const std::uint32_t index = ++lastIndex_;
  request_.emplace(index, std::move(request));
  notify(&requestAttr_, &index);
}

Kiln::Ptr<OvsdbRequest> OvsdbRequestQueue::requestDeq() {
  if (request_.empty()) return nullptr;
  auto front = request_.begin();
  const std::uint32_t index = front->first;
  Kiln::Ptr<OvsdbRequest> request = std::move(front->second);
  request_.erase(front);
  notify(&requestAttr_, &index);
  return request;
}

Kiln::Ptr<OvsdbRequest> OvsdbRequestQueue::requestFront() const {
  return request_.empty() ? nullptr : request_.begin()->second;
}

Kiln::Ptr<OvsdbRequest> OvsdbRequestQueue::requestBack() const {
  return request_.empty() ? nullptr : request_.rbegin()->second;
}

bool OvsdbRequestQueue::requestDel(std::uint32_t index) {
  if (request_.erase(index) == 0) return false;
  notify(&requestAttr_, &index);
  return true;
}

void OvsdbRequestQueue::requestDelAll() {
  while (!request_.empty()) requestDel(request_.begin()->first);
}

}  // namespace Vgw
