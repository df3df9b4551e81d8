// The request handler, the application of monitor messages, and the upkeep
// of the mirror.
//
// The monitor connection is read until the socket runs dry on each turn in
// which it is readable; the updater connection is used for one blocking
// transaction at a time. SIGPIPE is ignored only for the length of that call,
// so that a server that goes away turns into an error code there, while the
// process's own handling of the signal stays in force everywhere else.
//
// A monitor message is applied without yielding: rows first, table by table
// in the order in which every row comes after the rows it names, then the
// derived state once per message. Remote MAC rows wait as pending rows of
// their logical switch's remote host table until the whole message's deletes
// are in, so that a host moved by a delete and an insert in one message does
// not conflict with itself.
#include "Vgw/HwVtepRequestHandlerSm.h"

#include <openvswitch/json.h>
#include <openvswitch/shash.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <string_view>

#include "Kiln/Assert.h"
#include "Kiln/Log.h"
#include "Kiln/System.h"
#include "RingTape/RingTape.h"
#include "Vgw/OvsdbSessionRecord.h"
#include "Vgw/RemoteHostSm.h"
#include "Vgw/VgwUtils.h"

RINGTAPE_HANDLE("VgwRequestHandler");

namespace Vgw {

namespace {

constexpr std::uint8_t dscp = 0x30;
constexpr const char* connectionError = "JSON RPC connection error";
constexpr const char* unableToOpen = "Unable to open JSON RPC connection.";
constexpr const char* monitorCastFailed = "Dynamic cast to OvsdbMonitorRequest failed";
constexpr const char* unexpected = "false && \"Unexpected\"";
constexpr const char* unexpectedNotification = "false && \"Unexpected notification type.\"";
constexpr const char* invalidLocator = "!!physicalLocator && \"Invalid physicalLocator uuid\"";

std::string render(const json* j) {
  if (!j) return std::string();
  const Ovs::CString text(json_to_string(j, 0));
  return text.get();
}

// The text of a monitor reply that the session status keeps: the whole
// contents of a large database would cost their size in memory for as long
// as the session lasts, and in rendering on every reconnect.
constexpr std::size_t recordedReplyBytes = 4096;

std::string recordedText(const json* result) {
  std::string text = jsonText(result, recordedReplyBytes + 1);
  if (text.size() <= recordedReplyBytes) return text;
  std::size_t cut = recordedReplyBytes - 3;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xc0) == 0x80) --cut;
  text.resize(cut);
  return text + "...";
}

const json* member(const json* object, const char* name) {
  if (!object || object->type != JSON_OBJECT) return nullptr;
  return static_cast<const json*>(shash_find_data(json_object(object), name));
}

// Whether a modify changed the column: its "old" object holds only those.
bool changed(const json* oldRow, const char* column) { return member(oldRow, column) != nullptr; }

// A target with a scheme ("unix:", "punix:", "tcp:") is used as it stands; a
// plain path is a Unix socket.
std::string connectionTarget(std::string_view path) {
  const std::size_t colon = path.find(':');
  if (colon != std::string_view::npos && colon > 0) {
    bool scheme = true;
    for (char c : path.substr(0, colon)) scheme = scheme && ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'));
    if (scheme) return std::string(path);
  }
  return "unix:" + std::string(path);
}

// The session's account of a call that ran out of time.
std::string noAnswerText(const char* what, long long deadlineMs) {
  std::ostringstream text;
  text << "No answer " << what << " within " << static_cast<double>(deadlineMs) / 1000.0 << " s";
  return text.str();
}

void traceOpenError(const std::string& target, int error) {
  VGW_TRACE(0, "Socket: " << target);
  VGW_TRACE(0, "Open Jsonrpc error : " << error);
}

// False, with the reason traced, when a blocking request failed on the way.
bool checkTxn(int error, const jsonrpc_msg* reply) {
  if (!error) return true;
  VGW_TRACE(0, "Jsonrpc return error");
  if (reply) {
    const Ovs::CString text(ovsc_jsonrpc_msg_to_string(reply));
    VGW_TRACE(0, text.get());
  }
  return false;
}

Kiln::LogHandle KXT_VGW_OVSDB_NO_DATABASE(
    "KXT_VGW_OVSDB_NO_DATABASE", Kiln::LogSeverity::error, "The database server at %s serves no %s database: %s",
    "The socket in vgw/config ovsdbSocketPath answers, but without the hardware_vtep database the agent serves. "
    "The agent stops, and its supervisor starts it again.",
    "Point ovsdbSocketPath at the socket of the ovsdb-server that holds the hardware_vtep database, or create that "
    "database there.",
    0.0, 1.0, 0);

// A server without the database: said once on the log, then the agent
// stops, as it cannot serve the controller at all.
void checkOvsdbError(const char* error, jsonrpc* rpc, const Kiln::String& dbName) {
  if (!error) return;
  VGW_TRACE(0, error);
  Kiln::log(KXT_VGW_OVSDB_NO_DATABASE, ovsc_jsonrpc_get_name(rpc), dbName, error);
  KILN_ASSERT(false, "ovsdb error");
}

LocalData& localData() { return *Kiln::Entity::singletonIs<LocalData>(); }

Ipkit::IpGenAddr locatorIp(const HwVtepOvsdb& ovsdb, const Uuid& uuid) {
  const Kiln::Ptr<PhysicalLocator> locator = ovsdb.physicalLocatorRaw(uuid);
  return locator ? locator->key().dstIp() : Ipkit::IpGenAddr();
}

// The tunnel key of a logical switch; the invalid VNI for a switch the mirror
// does not hold (the controller's placeholder switch is never mirrored).
Vxlan::VniOrNone tunnelKeyOf(const HwVtepOvsdb& ovsdb, const Uuid& logicalSwitch) {
  const Kiln::Ptr<LogicalSwitch> ls = ovsdb.logicalSwitch(logicalSwitch);
  return ls ? ls->tunnelKey() : Vxlan::VniOrNone::invalidVni();
}

// A local MAC row is kept per VNI. The controller may clear the key of its
// switch (or set one beyond the range) while the agent is away; such a row
// stays in the database, outside the working data, until the switch has a
// VNI again.
bool hasVni(const LogicalSwitch& ls, const Uuid& row) {
  if (ls.tunnelKey().isValid()) return true;
  VGW_TRACE(0, "Local MAC row " << row << " on logical switch " << ls.uuid() << " without a VNI, left out");
  return false;
}

// An ARP source the controller gave no usable MAC (an empty or malformed
// src_mac) stays a row of the mirror, indexed nowhere: there is no MAC to
// publish or to answer for.
template <class Row>
bool indexableArpSource(const Row& arp) {
  if (!arp.srcMac().isZero()) return true;
  VGW_TRACE(0, ovsdbTableName(arp.type()) << " " << arp.uuid() << " names no MAC, indexed nowhere");
  return false;
}

bool isUplink(const HwVtepOvsdb& ovsdb, const Uuid& logicalSwitch) {
  return ovsdb.logicalSwitch(logicalSwitch) && !tunnelKeyOf(ovsdb, logicalSwitch).isValid();
}

bool delUplinkPortVlan(const Uuid& logicalSwitch, const PortVlanPair& pair) {
  const Kiln::Ptr<UplinkPortVlanTable> table = localData().uplinkPortVlanTable(logicalSwitch);
  return table && table->portVlanDel(pair);
}

bool addUplinkPortVlan(const Uuid& logicalSwitch, const PortVlanPair& pair) {
  const Kiln::Ptr<UplinkPortVlanTable> table = localData().uplinkPortVlanTableIs(logicalSwitch);
  if (table->portVlan(pair)) return false;
  table->portVlanIs(pair, true);
  return true;
}

// A remote MAC row whose "old" object holds only the changed columns takes
// the new row's value for every column that did not change.
template <class Row>
void fillUnchanged(Row& oldRow, const Row& newRow, const json* oldJson, const char* locatorColumn) {
  if (!changed(oldJson, "MAC")) oldRow.macIs(newRow.mac());
  if (!changed(oldJson, "logical_switch")) oldRow.logicalSwitchIs(newRow.logicalSwitch());
  if (!changed(oldJson, "ipaddr")) oldRow.ipAddrIs(newRow.ipAddr());
  if (!changed(oldJson, locatorColumn)) {
    if constexpr (requires { newRow.physicalLocator(); }) {
      oldRow.physicalLocatorIs(newRow.physicalLocator());
    } else {
      oldRow.physicalLocatorSetIs(newRow.physicalLocatorSet());
    }
  }
}

// A table whose rows the mirror keeps as they come: stored on insert,
// re-read on modify when `reread`, dropped on delete.
template <class Store, class Find, class Drop>
void keepRow(NotifyType type, const json* newRow, const ovsdb_table_schema& schema, Store store, Find find, Drop drop,
             const char* notFound, bool reread) {
  switch (type) {
    case NotifyType::notifyInitial:
    case NotifyType::notifyInsert: unmarshal(*store(), newRow, schema); return;
    case NotifyType::notifyModify: {
      const auto row = find();
      KILN_ASSERT(row, notFound);
      if (reread) unmarshal(*row, newRow, schema);
      return;
    }
    case NotifyType::notifyDelete: drop(); return;
    default: KILN_ASSERT(false, unexpectedNotification);
  }
}

}  // namespace

void JsonRpcCloser::operator()(jsonrpc* rpc) const { ovsc_jsonrpc_close(rpc); }

// ---- connections ---------------------------------------------------------------

JsonRpcPtr openJsonRpc(const Kiln::String& path, long long timeoutMs) {
  const std::string target = connectionTarget(path.stringValue());
  stream* connected = nullptr;
  int error = ovsc_jsonrpc_stream_open_block(target.c_str(), dscp, timeoutMs, &connected);
  if (error == EAFNOSUPPORT) {
    // A passive target: listen and wait for the server to connect to us.
    pstream* listener = nullptr;
    error = ovsc_jsonrpc_pstream_open(target.c_str(), dscp, &listener);
    if (!error) {
      error = ovsc_pstream_accept_timed(listener, timeoutMs, &connected);
      ovsc_pstream_close(listener);
    }
  }
  if (error) {
    traceOpenError(target, error);
    return nullptr;
  }
  return JsonRpcPtr(ovsc_jsonrpc_open(connected));
}

Ovs::SchemaPtr fetchSchema(jsonrpc* rpc, const Kiln::String& dbName, long long timeoutMs, int* error) {
  json* params = json_array_create_1(json_string_create(dbName.charPtr()));
  jsonrpc_msg* raw = nullptr;
  const int failed =
      ovsc_jsonrpc_transact_timed(rpc, ovsc_jsonrpc_create_request("get_schema", params, nullptr), timeoutMs, &raw);
  const Ovs::JsonRpcMsgPtr reply(raw);
  if (error) *error = failed;
  if (!checkTxn(failed, reply.get()) || !reply) return nullptr;
  const json* result = ovsc_jsonrpc_msg_result(reply.get());
  if (!result) {
    const std::string text = "get_schema refused: " + render(ovsc_jsonrpc_msg_error(reply.get()));
    checkOvsdbError(text.c_str(), rpc, dbName);
  }
  ovsdb_schema* schema = nullptr;
  const Ovs::CString problem(ovsc_ovsdb_schema_from_json(result, &schema));
  checkOvsdbError(problem.get(), rpc, dbName);
  return Ovs::SchemaPtr(schema);
}

Ovs::JsonPtr addTableToMonitorRequest(const ovsdb_table_schema& tableSchema, const MonitorRequest& monitorRequest) {
  const std::size_t count = ovsc_ovsdb_table_schema_columns(&tableSchema, nullptr, 0);
  KILN_ASSERT(count > 0, "columnsShash is NULL");
  std::vector<const ovsc_column*> columns(count);
  ovsc_ovsdb_table_schema_columns(&tableSchema, columns.data(), count);

  json* names = json_array_create_empty();
  const auto& wanted = monitorRequest.column();
  for (const ovsc_column* column : columns) {
    const char* name = ovsc_column_name(column);
    // Every row carries its uuid in the message; neither column is mirrored.
    if (isIgnoreColumn(name)) continue;
    if (!wanted.empty()) {
      auto it = wanted.find(Kiln::String(name));
      if (it == wanted.end() || !it->second) continue;
    }
    json_array_add(names, json_string_create(name));
  }
  json* select = json_object_create();
  json_object_put(select, "initial", json_boolean_create(monitorRequest.initial()));
  json_object_put(select, "insert", json_boolean_create(monitorRequest.insert()));
  json_object_put(select, "delete", json_boolean_create(monitorRequest.remove()));
  json_object_put(select, "modify", json_boolean_create(monitorRequest.modify()));

  json* object = json_object_create();
  json_object_put(object, "columns", names);
  json_object_put(object, "select", select);
  return Ovs::JsonPtr(object);
}

// ---- the handler -----------------------------------------------------------------

HwVtepRequestHandlerSm::HwVtepRequestHandlerSm(Kiln::Ptr<const Config> config,
                                               Kiln::Ptr<OvsdbSessionStatus> sessionStatus,
                                               Kiln::Ptr<HwVtepOvsdb> ovsdb,
                                               Kiln::Ptr<OvsdbRequestQueue> requestQueue, RootSmInterface* rootSm)
    : config_(std::move(config)),
      sessionStatus_(std::move(sessionStatus)),
      ovsdb_(std::move(ovsdb)),
      requestQueue_(std::move(requestQueue)),
      rootSm_(rootSm),
      localData_(Kiln::Entity::singletonIs<LocalData>()),
      kilnSessionStatus_(this),
      kilnRequestQueue_(this),
      kilnFileDescriptor_(this),
      monitorClock_(this) {
  kilnSessionStatus_.notifierIs(sessionStatus_);
  kilnRequestQueue_.notifierIs(requestQueue_);
  monitorClock_.notifierIs(Kiln::EventLoop::current().clock());
  monitorClock_.timeMinIs(Kiln::plusInfinity);
}

long long HwVtepRequestHandlerSm::deadlineMs() const {
  return std::llround(config_->ovsdbDeadline() * 1000.0);
}

void HwVtepRequestHandlerSm::handleMonitorReplyDeadline() {
  monitorClock_.timeMinIs(Kiln::plusInfinity);
  if (sessionStatus_->sessionState() != SessionState::stateConnecting || !rpcMonitor_) return;
  const std::string text = noAnswerText("to the subscription", deadlineMs());
  VGW_TRACE(0, text);
  updateOvsdbRequestResult(sessionStatus_, SessionState::stateDisconnected, OvsdbRequestType::monitor, text);
}

HwVtepRequestHandlerSm::~HwVtepRequestHandlerSm() {
  kilnSessionStatus_.notifierIs(nullptr);
  kilnRequestQueue_.notifierIs(nullptr);
  clearRpc();
}

Kiln::Ptr<HwVtepRequestHandlerSm> hwVtepRequestHandlerSmFactory(Kiln::Ptr<const Config> config,
                                                                 Kiln::Ptr<OvsdbSessionStatus> sessionStatus,
                                                                 Kiln::Ptr<HwVtepOvsdb> ovsdb,
                                                                 Kiln::Ptr<OvsdbRequestQueue> requestQueue,
                                                                 RootSmInterface* rootSm) {
  return Kiln::newPtr<HwVtepRequestHandlerSm>(std::move(config), std::move(sessionStatus), std::move(ovsdb),
                                              std::move(requestQueue), rootSm);
}

jsonrpc* HwVtepRequestHandlerSm::rpcMonitorIs() {
  if (!rpcMonitor_) rpcMonitor_ = openJsonRpc(config_->ovsdbSocketPath(), deadlineMs());
  return rpcMonitor_.get();
}

jsonrpc* HwVtepRequestHandlerSm::rpcUpdaterIs() {
  if (!rpcUpdater_) rpcUpdater_ = openJsonRpc(config_->ovsdbSocketPath(), deadlineMs());
  return rpcUpdater_.get();
}

void HwVtepRequestHandlerSm::fileDescriptorIs(Kiln::Ptr<Kiln::FileDescriptor> fd) {
  // Unwatched at once, while its descriptor is still open: a later socket
  // may get the same number.
  if (fileDescriptor_ && fileDescriptor_ != fd) fileDescriptor_->descriptorIs(-1);
  fileDescriptor_ = std::move(fd);
  kilnFileDescriptor_.notifierIs(fileDescriptor_);
}

void HwVtepRequestHandlerSm::handleRequestQueue() {
  if (discardRequest_) {
    VGW_TRACE(6, "discardRequest is True, not updating ovsdb.");
    return;
  }
  // The dequeue notifies too, so a nested run takes whatever lies behind.
  if (const Kiln::Ptr<OvsdbRequest> request = requestQueue_->requestDeq()) processRequest(request);
}

void HwVtepRequestHandlerSm::processRequest(const Kiln::Ptr<OvsdbRequest>& request) {
  VGW_TRACE(6, "OvsdbRequestType: " << request->type());
  switch (request->type()) {
    case OvsdbRequestType::transact: return handleTransactRequest(request, *this);
    case OvsdbRequestType::monitor: return handleMonitorRequest(request, *this);
    case OvsdbRequestType::cancel: KILN_ASSERT(false, "should not be called");
    default: KILN_ASSERT(false, "unknown ovsdb request");
  }
}

void handleMonitorRequest(const Kiln::Ptr<OvsdbRequest>& request, HwVtepRequestHandlerSm& handler) {
  VGW_TRACE(5, "handleMonitorRequest id: " << request->id());
  const Kiln::Ptr<OvsdbSessionStatus>& status = handler.sessionStatus();
  status->sessionStateIs(SessionState::stateConnecting);
  auto* monitor = dynamic_cast<OvsdbMonitorRequest*>(request.get());
  KILN_ASSERT(monitor, monitorCastFailed);

  handler.clearRpc();
  jsonrpc* rpc = handler.rpcMonitorIs();
  if (!rpc) {
    updateOvsdbRequestResult(status, SessionState::stateDisconnected, request->type(), unableToOpen);
    return;
  }
  handler.currentOvsdbRequestIs(request);
  int fetchError = 0;
  Ovs::SchemaPtr schema = fetchSchema(rpc, monitor->dbName(), handler.deadlineMs(), &fetchError);
  if (!schema) {
    updateOvsdbRequestResult(
        status, SessionState::stateDisconnected, request->type(),
        fetchError == ETIMEDOUT ? noAnswerText("from the database server", handler.deadlineMs()) : connectionError);
    return;
  }
  monitor->ovsdbSchemaIs(std::move(schema));

  json* tables = json_object_create();
  for (const MonitorRequest& table : monitor->monitor()) {
    const ovsdb_table_schema* tableSchema = ovsc_ovsdb_schema_table(monitor->ovsdbSchema(), table.table().charPtr());
    if (!tableSchema) {
      VGW_TRACE(0, "Table not in schema, not monitored: " << table.table());
      continue;
    }
    json_object_put(tables, table.table().charPtr(),
                    json_array_create_1(addTableToMonitorRequest(*tableSchema, table).release()));
  }
  json* params = json_array_create_3(json_string_create(monitor->dbName().charPtr()), json_null_create(), tables);
  const std::string text = render(params);
  json* id = nullptr;
  jsonrpc_msg* message = ovsc_jsonrpc_create_request("monitor", params, &id);
  monitor->requestIdIs(Ovs::JsonPtr(id));
  updateOvsdbRequest(status, request->type(), text);
  if (const int error = ovsc_jsonrpc_send(rpc, message)) {
    // The monitor socket reports the failure when it is read.
    VGW_TRACE(0, "Monitor request send error: " << error);
  }

  const int descriptor = ovsc_stream_get_fd(ovsc_jsonrpc_get_stream(rpc));
  if (descriptor < 0) {
    // Without readiness the reply would never be read.
    VGW_TRACE(0, "Monitor connection has no file descriptor");
    updateOvsdbRequestResult(status, SessionState::stateDisconnected, request->type(), connectionError);
    return;
  }
  auto fd = Kiln::newPtr<Kiln::FileDescriptor>("monitor");
  fd->descriptorIs(descriptor);
  fd->nonBlockingIs(true);
  fd->notifyOnReadableIs(true);
  handler.fileDescriptorIs(fd);
  handler.monitorReplyDeadlineIs(Kiln::System::currentTime() + handler.config()->ovsdbDeadline());
}

void handleTransactRequest(const Kiln::Ptr<OvsdbRequest>& request, HwVtepRequestHandlerSm& handler) {
  const Kiln::Ptr<OvsdbSessionStatus> status = handler.sessionStatus();
  if (status->sessionState() != SessionState::stateConnected) {
    VGW_TRACE(5, " return not connected");
    return;
  }
  jsonrpc* rpc = handler.rpcUpdaterIs();
  if (!rpc) {
    updateOvsdbRequestResult(status, SessionState::stateDisconnected, request->type(), unableToOpen);
    return;
  }
  auto* transact = dynamic_cast<OvsdbTransactRequest*>(request.get());
  KILN_ASSERT(transact, "Dynamic cast to OvsdbTransactRequest failed");
  jsonrpc_msg* message = transact->toJsonMsg();
  if (!message) {
    VGW_TRACE(5, " return no requests");
    return;
  }
  const std::string text = render(ovsc_jsonrpc_msg_params(message));
  VGW_TRACE(6, "Transaction for id: " << request->id() << " " << text);
  updateOvsdbRequest(status, request->type(), text);
  localData().lastMsgSentDetailIs(text);

  struct sigaction saved{};
  if (sigaction(SIGPIPE, nullptr, &saved) != 0) {
    VGW_TRACE(0, "Error obtaining signal action: " << std::strerror(errno));
    ovsc_jsonrpc_msg_destroy(message);
    updateOvsdbRequestResult(status, SessionState::stateDisconnected, request->type(), "Error obtaining signal action");
    return;
  }
  std::signal(SIGPIPE, SIG_IGN);
  jsonrpc_msg* raw = nullptr;
  const int error = ovsc_jsonrpc_transact_timed(rpc, message, handler.deadlineMs(), &raw);
  const Ovs::JsonRpcMsgPtr reply(raw);
  VGW_TRACE(6, "Restoring current signal action");
  if (sigaction(SIGPIPE, &saved, nullptr) != 0) {
    VGW_TRACE(0, "Error restoring current signal action: " << std::strerror(errno));
    updateOvsdbRequestResult(status, SessionState::stateDisconnected, request->type(), "Error restoring signal action");
    return;
  }

  if (error || !reply) {
    const std::string failure =
        error == ETIMEDOUT ? noAnswerText("from the database server", handler.deadlineMs()) : connectionError;
    VGW_TRACE(0, failure);
    updateOvsdbRequestResult(status, SessionState::stateDisconnected, request->type(), failure);
    return;
  }
  if (const json* replyError = ovsc_jsonrpc_msg_error(reply.get())) {
    const std::string errorText = render(replyError);
    VGW_TRACE(0, "Error: \n" << errorText);
    updateOvsdbRequestResult(status, SessionState::stateDisconnected, request->type(), errorText);
    return;
  }
  if (const json* result = ovsc_jsonrpc_msg_result(reply.get())) {
    const std::string resultText = render(result);
    VGW_TRACE(6, "Reply: \n" << resultText);
    updateOvsdbRequestResult(status, SessionState::stateConnected, request->type(), resultText);
    if (!transact->processResult(*result)) {
      updateOvsdbRequestResult(status, SessionState::stateDisconnected, request->type(), transact->refusal());
    }
  }
}

void handleCancelRequest(const Kiln::Ptr<OvsdbRequest>& request, HwVtepRequestHandlerSm& handler) {
  auto* cancel = dynamic_cast<OvsdbCancelRequest*>(request.get());
  KILN_ASSERT(cancel, "Dynamic cast to OvsdbCancelRequest failed");
  KILN_ASSERT(cancel->rpc(), "rpc is NULL");
  if (const int error = ovsc_jsonrpc_send_timed(cancel->rpc(), cancel->toJsonMsg(), handler.deadlineMs())) {
    VGW_TRACE(0, "Cancel send error: " << error);
  }
}

void HwVtepRequestHandlerSm::handleFileDescriptor() {
  // The reports below may clear the connection and the request's id; the
  // request itself stays alive through this reference.
  const Kiln::Ptr<OvsdbRequest> current = currentOvsdbRequest_;
  auto* request = dynamic_cast<OvsdbMonitorRequest*>(current.get());
  KILN_ASSERT(request, monitorCastFailed);
  jsonrpc* rpc = rpcMonitor_.get();
  while (rpc) {
    jsonrpc_msg* raw = nullptr;
    const int error = ovsc_jsonrpc_recv(rpc, &raw);
    VGW_TRACE(6, "Jsonrpc_recv'ed");
    if (error == EAGAIN) {
      ovsc_jsonrpc_run(rpc);
      VGW_TRACE(6, "Nothing to read");
      return;
    }
    if (error) {
      VGW_TRACE(0, "Received error: abort connection");
      updateOvsdbRequestResult(sessionStatus_, SessionState::stateDisconnected, OvsdbRequestType::monitor,
                               connectionError);
      // A dead socket stays readable; it must not outlive the report.
      if (rpcMonitor_) clearRpc();
      return;
    }
    const Ovs::JsonRpcMsgPtr message(raw);
    const double received = Kiln::System::currentTime();
    const enum ovsc_jsonrpc_msg_type type = ovsc_jsonrpc_msg_type(message.get());
    const char* method = ovsc_jsonrpc_msg_method(message.get());
    const json* id = ovsc_jsonrpc_msg_id(message.get());
    const bool ours = id && request->requestId() && json_equal(id, request->requestId());
    if (type == OVSC_JSONRPC_REQUEST && method && std::string_view(method) == "echo") {
      const json* params = ovsc_jsonrpc_msg_params(message.get());
      ovsc_jsonrpc_send(rpc, ovsc_jsonrpc_create_reply(params ? json_clone(params) : json_array_create_empty(), id));
    } else if (type == OVSC_JSONRPC_REPLY && ours) {
      monitorReplyDeadlineIs(Kiln::plusInfinity);
      lastMessageTimes_ = MonitorMessageTimes{.received = received};
      const json* result = ovsc_jsonrpc_msg_result(message.get());
      VGW_TRACE(6, "Monitor reply:\n" << TracedJson{result});
      if (handleMonitorNotification(result, request)) {
        updateOvsdbRequestResult(sessionStatus_, SessionState::stateConnected, OvsdbRequestType::monitor,
                                 recordedText(result));
      } else {
        updateOvsdbRequestResult(sessionStatus_, SessionState::stateDisconnected, OvsdbRequestType::monitor,
                                 "Monitor update introduced an inconsistent state.");
      }
    } else if (type == OVSC_JSONRPC_ERROR && ours) {
      // The server refused the subscription: nothing would ever arrive.
      const std::string text = render(ovsc_jsonrpc_msg_error(message.get()));
      VGW_TRACE(0, "Monitor refused: " << text);
      updateOvsdbRequestResult(sessionStatus_, SessionState::stateDisconnected, OvsdbRequestType::monitor, text);
    } else if (type == OVSC_JSONRPC_NOTIFY && method && std::string_view(method) == "update") {
      const json* params = ovsc_jsonrpc_msg_params(message.get());
      if (params && params->type == JSON_ARRAY && json_array(params)->n == 2) {
        lastMessageTimes_ = MonitorMessageTimes{.received = received};
        VGW_TRACE(6, "Monitor update:\n" << TracedJson{params});
        if (!handleMonitorNotification(json_array(params)->elems[1], request)) {
          updateOvsdbRequestResult(sessionStatus_, SessionState::stateDisconnected, OvsdbRequestType::monitor,
                                   "Transaction update introduced an inconsistent state.");
        }
      }
    }
    rpc = rpcMonitor_.get();
    if (!rpc) {
      VGW_TRACE(6, "Rpc cleared, wait for next monitor, returning");
      KILN_ASSERT(sessionStatus_->sessionState() == SessionState::stateDisconnected,
                  "sessionStatus()->sessionState() == stateDisconnected()");
      return;
    }
  }
}

void HwVtepRequestHandlerSm::handleSessionState() {
  if (sessionStatus_->sessionState() != SessionState::stateDisconnected) return;
  VGW_TRACE(6, "Disconnected, clearing RPC.");
  clearRpc();
}

void HwVtepRequestHandlerSm::clearRpc() {
  monitorReplyDeadlineIs(Kiln::plusInfinity);
  fileDescriptorIs(nullptr);
  if (currentOvsdbRequest_) currentOvsdbRequest_->destroy();
  rpcMonitor_.reset();
  rpcUpdater_.reset();
}

void HwVtepRequestHandlerSm::destroy() {
  VGW_TRACE(5, "HwVtepRequestHandlerSm::destroy()");
  clearRpc();
}

// ---- monitor messages ------------------------------------------------------------

bool HwVtepRequestHandlerSm::handleMonitorNotification(const json* result, OvsdbMonitorRequest* monitorRequest) {
  KILN_ASSERT(result != nullptr && result->type == JSON_OBJECT, "result != __null && result->type == JSON_OBJECT && \"Not Json Object\"");
  KILN_ASSERT(monitorRequest && monitorRequest->ovsdbSchema(), "ovsdbSchema != __null && \"schema param is NULL\"");
  newMacsLocal_.clear();
  newUcastMacsRemote_.clear();
  const SessionState sessionState = sessionStatus_->sessionState();
  const bool snapshot = sessionState == SessionState::stateConnecting;
  localData_->monitorUpdateCompleteIs(false);
  localData_->vniToLogicalSwitchDelAll();
  if (localData_->mgrConverged() == MgrConvergenceState::mgrWaiting) {
    VGW_TRACE(6, "Mgr converged is processing");
    localData_->mgrConvergedIs(MgrConvergenceState::mgrProcessing);
  }

  std::set<Uuid> freshUuids;
  std::set<OvsdbDataType> tablesSeen;
  for (OvsdbDataType type = nextOvsdbDataType(OvsdbDataType::none); type != OvsdbDataType::none;
       type = nextOvsdbDataType(type)) {
    const char* name = ovsdbTableName(type);
    const json* tableData = member(result, name);
    if (!tableData) continue;
    VGW_TRACE(6, "Processing " << name);
    tablesSeen.insert(type);
    const ovsdb_table_schema* tableSchema = ovsc_ovsdb_schema_table(monitorRequest->ovsdbSchema(), name);
    KILN_ASSERT(tableSchema != nullptr, "tableSchema != __null && \"tableSchema not found\"");
    KILN_ASSERT(tableData->type == JSON_OBJECT, "tableData != __null && \"table Data NULL\"");
    const std::size_t rows = shash_count(json_object(tableData));
    const std::unique_ptr<const shash_node*, void (*)(void*)> sorted(shash_sort(json_object(tableData)), std::free);
    for (std::size_t i = 0; i < rows; ++i) {
      const shash_node* node = sorted.get()[i];
      const std::optional<Uuid> uuid = Uuid::tryParse(node->name);
      KILN_ASSERT(uuid, "uuid && \"Row uuid not parsed\"");
      const auto* row = static_cast<const json*>(node->data);
      const json* newRow = member(row, "new");
      const json* oldRow = member(row, "old");
      NotifyType notifyType;
      if (oldRow) {
        notifyType = newRow ? NotifyType::notifyModify : NotifyType::notifyDelete;
      } else if (snapshot) {
        freshUuids.insert(*uuid);
        notifyType = NotifyType::notifyInitial;
      } else {
        notifyType = NotifyType::notifyInsert;
      }
      ovsdbToLedger(notifyType, *uuid, newRow, oldRow, *tableSchema, type, monitorRequest);
    }
  }

  if (snapshot) removeStaleOvsdb(ovsdb_, freshUuids, newMacsLocal_);
  lastMessageTimes_.rowsApplied = Kiln::System::currentTime();

  for (const auto& [uuid, table] : localData_->remoteHostTable()) {
    if (!table->processPendingMacs(ovsdb_)) {
      VGW_TRACE(5, " return found inconsistent state");
      newMacsLocal_.clear();
      newUcastMacsRemote_.clear();
      return false;
    }
  }

  lastMessageTimes_.tablesFolded = Kiln::System::currentTime();

  VGW_TRACE(6, "LR refresh");
  if (LrSmInterface* lrSm = rootSm_ ? rootSm_->lrSm() : nullptr) lrSm->reconcileConfig();

  VGW_TRACE(6, "RemoteHost refresh");
  refreshVniToLogicalSwitch();
  if (RemoteHostSm* remoteHostSm = rootSm_ ? rootSm_->remoteHostSm() : nullptr) {
    if (tablesSeen.size() == 1 && *tablesSeen.begin() == OvsdbDataType::ucastMacsRemote) {
      VGW_TRACE(6, "Optimal path, only updates are to Ucast_Macs_Remote");
      for (const Kiln::Ptr<const UcastMacsRemote>& row : newUcastMacsRemote_) {
        LogicalSwitchSm* logicalSwitchSm = remoteHostSm->logicalSwitchSm(row->logicalSwitch());
        KILN_ASSERT(logicalSwitchSm, "logicalSwitchSm && \"LogicalSwitch must exist\"");
        logicalSwitchSm->handleUcastMacVtep(row->mac());
        logicalSwitchSm->handleIpToMac(row->ipAddr());
      }
    } else {
      remoteHostSm->handleInitialized();
    }
  }
  newMacsLocal_.clear();
  newUcastMacsRemote_.clear();
  lastMessageTimes_.published = Kiln::System::currentTime();

  VGW_TRACE(6, "TunnelSm refresh");
  if (TunnelSmInterface* tunnelSm = rootSm_ ? rootSm_->tunnelSm() : nullptr) tunnelSm->handleRefresh(true);

  if (const Uuid deleted = localData_->delNvpInternalLogicalSwitch(); !deleted.isNull()) {
    VGW_TRACE(6, "Clearing _nvp_internal logical switch:" << deleted);
    if (localData_->nvpInternalLogicalSwitch() == deleted) localData_->nvpInternalLogicalSwitchIs(Uuid());
    localData_->delNvpInternalLogicalSwitchIs(Uuid());
  }

  localData_->monitorUpdateCompleteIs(true);
  if (localData_->mgrConverged() == MgrConvergenceState::mgrProcessing) {
    localData_->mgrConvergedIs(MgrConvergenceState::mgrWaiting);
    VGW_TRACE(6, "Mgr converged is waiting");
  }
  return true;
}

void HwVtepRequestHandlerSm::ovsdbToLedger(NotifyType notifyType, const Uuid& uuid, const json* newRow,
                                           const json* oldRow, const ovsdb_table_schema& tableSchema,
                                           OvsdbDataType type, OvsdbMonitorRequest*) {
  switch (type) {
    case OvsdbDataType::logicalSwitch: return processLogicalSwitch(notifyType, uuid, newRow, oldRow, tableSchema);
    case OvsdbDataType::logicalBindingStats:
      return keepRow(
          notifyType, newRow, tableSchema, [&] { return ovsdb_->logicalBindingStatsIs(uuid); },
          [&] { return ovsdb_->logicalBindingStats(uuid); }, [&] { ovsdb_->logicalBindingStatsDel(uuid); },
          "logicalBindingStats && \"logicalBindingStats not found\"", true);
    case OvsdbDataType::physicalPort: return processPhysicalPort(notifyType, uuid, newRow, oldRow, tableSchema);
    case OvsdbDataType::physicalSwitch: return processPhysicalSwitch(notifyType, uuid, newRow, tableSchema);
    case OvsdbDataType::physicalLocator: return processPhysicalLocator(notifyType, uuid, newRow, tableSchema);
    case OvsdbDataType::physicalLocatorSet:
      // A locator set never changes its content: a modify is not read.
      return keepRow(
          notifyType, newRow, tableSchema, [&] { return ovsdb_->physicalLocatorSetIs(uuid); },
          [&] { return ovsdb_->physicalLocatorSet(uuid); }, [&] { ovsdb_->physicalLocatorSetDel(uuid); },
          "phyLocSet && \"physical locator set not found\"", false);
    case OvsdbDataType::ucastMacsRemote: return processUcastMacsRemote(notifyType, uuid, newRow, oldRow, tableSchema);
    case OvsdbDataType::mcastMacsRemote: return processMcastMacsRemote(notifyType, uuid, newRow, oldRow, tableSchema);
    case OvsdbDataType::global: return processGlobal(notifyType, uuid, newRow, tableSchema);
    case OvsdbDataType::acl: return;
    case OvsdbDataType::manager: return processManager(notifyType, uuid, newRow, oldRow, tableSchema);
    case OvsdbDataType::ucastMacsLocal: return processUcastMacsLocal(notifyType, uuid, newRow, tableSchema);
    case OvsdbDataType::mcastMacsLocal: return processMcastMacsLocal(notifyType, uuid, newRow, tableSchema);
    case OvsdbDataType::tunnel: return processTunnel(notifyType, uuid, newRow, tableSchema);
    case OvsdbDataType::logicalRouter:
      if (LrSmInterface* lrSm = rootSm_ ? rootSm_->lrSm() : nullptr) lrSm->dirtyUuidIs(uuid);
      return keepRow(
          notifyType, newRow, tableSchema, [&] { return ovsdb_->logicalRouterRawIs(uuid); },
          [&] { return ovsdb_->logicalRouterRaw(uuid); }, [&] { ovsdb_->logicalRouterRawDel(uuid); },
          "!!logicalRouter && \"logicalRouter not found\"", true);
    case OvsdbDataType::arpSourcesLocal: return processArpSourcesLocal(notifyType, uuid, newRow, tableSchema);
    case OvsdbDataType::arpSourcesRemote:
      return processArpSourcesRemote(notifyType, uuid, newRow, oldRow, tableSchema);
    default: KILN_ASSERT(false, "0 && \"Unexpected table name\"");
  }
}

void HwVtepRequestHandlerSm::flagDirty(bool switchBinding, bool transitVni) const {
  VGW_TRACE(6, "DirtySwitchBinding: " << switchBinding);
  if (switchBinding) localData_->switchBindingDirtyIs(true);
  VGW_TRACE(6, "DirtyTransitVni: " << transitVni);
  if (transitVni) localData_->transitVniDirtyIs(true);
}

void HwVtepRequestHandlerSm::processLogicalSwitch(NotifyType type, const Uuid& uuid, const json* newRow,
                                                  const json* oldRow, const ovsdb_table_schema& schema) {
  switch (type) {
    case NotifyType::notifyInitial:
    case NotifyType::notifyInsert:
      if (isLogicalSwitchNvpInternal(newRow)) {
        VGW_TRACE(6, "Adding _nvp_internal logical switch:" << uuid);
        localData_->nvpInternalLogicalSwitchIs(uuid);
        return;
      }
      unmarshal(*ovsdb_->logicalSwitchIs(uuid), newRow, schema);
      localData_->remoteHostTableIs(uuid);
      return;
    case NotifyType::notifyModify: {
      if (uuid == localData_->nvpInternalLogicalSwitch()) return;
      const Kiln::Ptr<LogicalSwitch> ls = ovsdb_->logicalSwitch(uuid);
      KILN_ASSERT(ls, "ls && \"logicalSwitch not found\"");
      unmarshal(*ls, newRow, schema);
      LogicalSwitch previous(uuid);
      unmarshal(previous, oldRow, schema);
      // A key that appears or goes changes which bindings are uplinks.
      if (changed(oldRow, "tunnel_key")) {
        VGW_TRACE(6, "PrevLs tunnel key: " << previous.tunnelKey() << " CurrLs tunnel key: " << ls->tunnelKey());
        localData_->switchBindingDirtyIs(true);
      }
      return;
    }
    case NotifyType::notifyDelete:
      if (isLogicalSwitchNvpInternal(oldRow)) {
        // Rows of this message may still name it; it goes at the message's end.
        localData_->delNvpInternalLogicalSwitchIs(uuid);
        return;
      }
      KILN_ASSERT(ovsdb_->logicalSwitch(uuid), "logicalSwitch && \"logicalSwitch not found during delete\"");
      localData_->remoteHostTableDel(uuid);
      ovsdb_->logicalSwitchDel(uuid);
      return;
    default: KILN_ASSERT(false, unexpectedNotification);
  }
}

void HwVtepRequestHandlerSm::processPhysicalLocator(NotifyType type, const Uuid& uuid, const json* newRow,
                                                    const ovsdb_table_schema& schema) {
  switch (type) {
    case NotifyType::notifyInitial:
    case NotifyType::notifyInsert: {
      // A locator the agent inserted is already here from its transaction.
      const Kiln::Ptr<PhysicalLocator> locator = ovsdb_->physicalLocatorRawIs(uuid);
      unmarshal(*locator, newRow, schema);
      ovsdb_->physicalLocatorIs(locator->key().dstIp(), locator);
      return;
    }
    case NotifyType::notifyModify:
      KILN_ASSERT(ovsdb_->physicalLocatorRaw(uuid), "phyLoc && \"physical locator not found\"");
      return;
    case NotifyType::notifyDelete: {
      const Kiln::Ptr<PhysicalLocator> locator = ovsdb_->physicalLocatorRaw(uuid);
      if (!locator) {
        VGW_TRACE(5, " return deleted");
        return;
      }
      // A newer row of the same address may hold the indexes already.
      if (localData_->localLocator(locator->key()) == locator) localData_->localLocatorDel(locator->key());
      if (ovsdb_->physicalLocator(locator->key().dstIp()) == locator) {
        ovsdb_->physicalLocatorDel(locator->key().dstIp());
      }
      ovsdb_->physicalLocatorRawDel(uuid);
      return;
    }
    default: KILN_ASSERT(false, unexpectedNotification);
  }
}

void HwVtepRequestHandlerSm::processTunnel(NotifyType type, const Uuid& uuid, const json* newRow,
                                           const ovsdb_table_schema& schema) {
  switch (type) {
    case NotifyType::notifyInitial:
    case NotifyType::notifyInsert: {
      const Kiln::Ptr<Tunnel> tunnel = ovsdb_->tunnelRawIs(uuid);
      unmarshal(*tunnel, newRow, schema);
      const Kiln::Ptr<PhysicalLocator> localVtep = ovsdb_->physicalLocatorRaw(tunnel->localLocator());
      KILN_ASSERT(localVtep, "localVtep");
      const Kiln::Ptr<PhysicalLocator> remoteVtep = ovsdb_->physicalLocatorRaw(tunnel->remoteLocator());
      KILN_ASSERT(remoteVtep, "remoteVtep");
      const Ipkit::IpGenAddr& local = localVtep->key().dstIp();
      const Ipkit::IpGenAddr& remote = remoteVtep->key().dstIp();
      if (!local.isEmpty() && !remote.isEmpty()) {
        VGW_TRACE(6, "Add tunnel from " << local << " to " << remote);
        ovsdb_->tunnelIs(LocalRemoteVtepPair(local, remote), tunnel);
      }
      return;
    }
    case NotifyType::notifyModify: {
      const Kiln::Ptr<Tunnel> tunnel = ovsdb_->tunnelRaw(uuid);
      if (!tunnel) {
        VGW_TRACE(5, " return Tunnel already deleted");
        return;
      }
      const Ipkit::IpGenAddr oldLocalVtepIp = locatorIp(*ovsdb_, tunnel->localLocator());
      const Ipkit::IpGenAddr oldRemoteVtepIp = locatorIp(*ovsdb_, tunnel->remoteLocator());
      unmarshal(*tunnel, newRow, schema);
      KILN_ASSERT(locatorIp(*ovsdb_, tunnel->localLocator()) == oldLocalVtepIp,
                  "localVtepIp == oldLocalVtepIp && \"Local vtep Ip changed in the tunnel entry\"");
      KILN_ASSERT(locatorIp(*ovsdb_, tunnel->remoteLocator()) == oldRemoteVtepIp,
                  "remoteVtepIp == oldRemoteVtepIp && \"Remote vtep Ip changed in the tunnel entry\"");
      return;
    }
    case NotifyType::notifyDelete:
      // Tunnels leave the mirror with their switch or in a transaction's sweep.
      return;
    default: KILN_ASSERT(false, unexpectedNotification);
  }
}

bool HwVtepRequestHandlerSm::processUplinkPortVlan(const PhysicalPort& port) {
  bool added = false;
  for (const auto& [vlan, lsUuid] : port.vlanBinding()) {
    VGW_TRACE(6, "Processing Vlan " << vlan << " to lsUuid " << lsUuid);
    if (!isUplink(*ovsdb_, lsUuid)) continue;
    VGW_TRACE(6, "Add uplink port vlan " << vlan << " to " << lsUuid);
    added |= addUplinkPortVlan(lsUuid, PortVlanPair(port.uuid(), vlan));
  }
  return added;
}

void HwVtepRequestHandlerSm::processPhysicalPort(NotifyType type, const Uuid& uuid, const json* newRow,
                                                 const json* oldRow, const ovsdb_table_schema& schema) {
  bool dirty = false;
  switch (type) {
    case NotifyType::notifyInsert: {
      // A port this agent inserted is mirrored from its transaction already.
      PhysicalPort port(uuid);
      unmarshal(port, newRow, schema);
      dirty = processUplinkPortVlan(port);
      break;
    }
    case NotifyType::notifyInitial: {
      const Kiln::Ptr<PhysicalPort> port = ovsdb_->physicalPortIs(uuid);
      unmarshal(*port, newRow, schema);
      dirty = processUplinkPortVlan(*port);
      break;
    }
    case NotifyType::notifyModify: {
      const Kiln::Ptr<PhysicalPort> port = ovsdb_->physicalPort(uuid);
      if (!port) return;
      unmarshal(*port, newRow, schema);
      PhysicalPort previous(uuid);
      unmarshal(previous, oldRow, schema);
      VGW_TRACE(6, "Prev Vlan Binding: " << previous.vlanBinding().size());
      VGW_TRACE(6, "Curr Vlan Binding: " << port->vlanBinding().size());
      if (previous.vlanBinding().empty() && port->vlanBinding().empty()) return;
      for (const auto& [vlan, lsUuid] : port->vlanBinding()) {
        const PortVlanPair pair(uuid, vlan);
        const auto before = previous.vlanBinding().find(vlan);
        if (before == previous.vlanBinding().end()) {
          VGW_TRACE(6, "New Vlan Binding");
          if (isUplink(*ovsdb_, lsUuid)) {
            VGW_TRACE(6, "Add uplink port Vlan " << vlan << " to " << lsUuid);
            dirty |= addUplinkPortVlan(lsUuid, pair);
          }
        } else if (before->second != lsUuid) {
          VGW_TRACE(6, "Upd Vlan Binding");
          if (delUplinkPortVlan(before->second, pair)) {
            VGW_TRACE(6, "Del uplink port Vlan " << vlan << " from " << before->second);
            dirty = true;
          }
          if (isUplink(*ovsdb_, lsUuid)) dirty |= addUplinkPortVlan(lsUuid, pair);
        }
        previous.vlanBindingDel(vlan);
      }
      for (const auto& [vlan, lsUuid] : previous.vlanBinding()) {
        VGW_TRACE(6, "Processing Vlan " << vlan << " to lsUuid " << lsUuid);
        if (delUplinkPortVlan(lsUuid, PortVlanPair(uuid, vlan))) {
          VGW_TRACE(6, "Del uplink port vlan " << vlan << " from " << lsUuid);
          dirty = true;
        }
      }
      break;
    }
    case NotifyType::notifyDelete: {
      // The mirror row stays: ports leave the mirror with their switch.
      PhysicalPort previous(uuid);
      unmarshal(previous, oldRow, schema);
      for (const auto& [vlan, lsUuid] : previous.vlanBinding()) {
        if (delUplinkPortVlan(lsUuid, PortVlanPair(uuid, vlan))) {
          VGW_TRACE(6, "Del uplink port vlan " << vlan << " from " << lsUuid);
          dirty = true;
        }
      }
      break;
    }
    default: KILN_ASSERT(false, unexpectedNotification);
  }
  if (dirty) {
    VGW_TRACE(6, "DirtySwitchBinding: " << dirty);
    localData_->switchBindingDirtyIs(true);
  }
}

void HwVtepRequestHandlerSm::processPhysicalSwitch(NotifyType type, const Uuid& uuid, const json* newRow,
                                                   const ovsdb_table_schema& schema) {
  KILN_ASSERT(type == NotifyType::notifyInitial, unexpected);
  const Kiln::Ptr<PhysicalSwitch> pSwitch = ovsdb_->physicalSwitchRawIs(uuid);
  unmarshal(*pSwitch, newRow, schema);
  ovsdb_->physicalSwitchIs(pSwitch->displayName(), pSwitch);
}

void HwVtepRequestHandlerSm::processArpSourcesLocal(NotifyType type, const Uuid& uuid, const json* newRow,
                                                    const ovsdb_table_schema& schema) {
  KILN_ASSERT(type <= NotifyType::notifyDelete, "false && \"Unexpected notification type\"");
  KILN_ASSERT(type == NotifyType::notifyInitial, unexpected);
  KILN_ASSERT(newRow, "newRow && \"row should not be NULL\"");
  const Kiln::Ptr<ArpSourcesLocal> arp = ovsdb_->arpSourcesLocalRawIs(uuid);
  unmarshal(*arp, newRow, schema);
  const Kiln::Ptr<PhysicalLocator> physicalLocator = ovsdb_->physicalLocatorRaw(arp->locator());
  KILN_ASSERT(physicalLocator, "!!physicalLocator && \"Invalid physical locator uuid\"");
  localData_->localLocatorIs(physicalLocator->key(), physicalLocator);
  if (indexableArpSource(*arp)) ovsdb_->arpSourcesLocalIs(arp->srcMac(), arp);
}

void HwVtepRequestHandlerSm::processArpSourcesRemote(NotifyType type, const Uuid& uuid, const json* newRow,
                                                     const json* oldRow, const ovsdb_table_schema& schema) {
  switch (type) {
    case NotifyType::notifyInitial:
    case NotifyType::notifyInsert: {
      const Kiln::Ptr<ArpSourcesRemote> arp = ovsdb_->arpSourcesRemoteRawIs(uuid);
      unmarshal(*arp, newRow, schema);
      KILN_ASSERT(ovsdb_->physicalLocatorRaw(arp->locator()), "!!physicalLocator && \"Invalid physicalLocator uuid\"");
      if (indexableArpSource(*arp)) ovsdb_->arpSourcesRemoteIs(arp->srcMac(), arp);
      return;
    }
    case NotifyType::notifyModify: {
      const Kiln::Ptr<ArpSourcesRemote> arp = ovsdb_->arpSourcesRemoteRaw(uuid);
      KILN_ASSERT(arp, "!!arp && \"arpSourceRemote not found\"");
      ArpSourcesRemote previous(uuid);
      unmarshal(previous, oldRow, schema);
      unmarshal(*arp, newRow, schema);
      VGW_TRACE(6, "Old Arp locator: " << previous.locator());
      VGW_TRACE(6, "Old Arp srcMac: " << previous.srcMac());
      if (!previous.srcMac().isZero() && ovsdb_->arpSourcesRemote(previous.srcMac()) == arp) {
        ovsdb_->arpSourcesRemoteDel(previous.srcMac());
      }
      KILN_ASSERT(ovsdb_->physicalLocatorRaw(arp->locator()), "!!physicalLocator && \"Invalid physicalLocator uuid\"");
      if (indexableArpSource(*arp)) ovsdb_->arpSourcesRemoteIs(arp->srcMac(), arp);
      return;
    }
    case NotifyType::notifyDelete: {
      const Kiln::Ptr<ArpSourcesRemote> arp = ovsdb_->arpSourcesRemoteRaw(uuid);
      KILN_ASSERT(arp, "!!arp && \"arp already deleted\"");
      ArpSourcesRemote previous(uuid);
      unmarshal(previous, oldRow, schema);
      if (ovsdb_->arpSourcesRemote(previous.srcMac()) == arp) ovsdb_->arpSourcesRemoteDel(previous.srcMac());
      ovsdb_->arpSourcesRemoteRawDel(uuid);
      return;
    }
    default: KILN_ASSERT(false, unexpectedNotification);
  }
}

void HwVtepRequestHandlerSm::publishReleased(const RemoteHostTable& table, const Ipkit::EthAddr& mac,
                                             const Ipkit::IpGenAddr& ip) const {
  RemoteHostSm* remoteHostSm = rootSm_ ? rootSm_->remoteHostSm() : nullptr;
  LogicalSwitchSm* logicalSwitchSm = remoteHostSm ? remoteHostSm->logicalSwitchSm(table.logicalSwitch()) : nullptr;
  if (!logicalSwitchSm) return;
  if (table.macVtep(mac) == MacVtep()) logicalSwitchSm->handleUcastMacVtep(mac);
  if (!ip.isEmpty() && table.ipToMac(ip) == IpToMac()) logicalSwitchSm->handleIpToMac(ip);
}

void HwVtepRequestHandlerSm::processUcastMacsRemote(NotifyType type, const Uuid& uuid, const json* newRow,
                                                    const json* oldRow, const ovsdb_table_schema& schema) {
  bool dirtySwitchBinding = false;
  bool dirtyTransitVni = false;
  switch (type) {
    case NotifyType::notifyInitial:
    case NotifyType::notifyInsert: {
      if (isUcastMacsRemoteOnNvpInternal(newRow)) {
        VGW_TRACE(5, " return _nvp_internal");
        return;
      }
      auto row = Kiln::newPtr<UcastMacsRemote>(uuid);
      unmarshal(*row, newRow, schema);
      const Kiln::Ptr<RemoteHostTable> table = localData_->remoteHostTable(row->logicalSwitch());
      KILN_ASSERT(table, "remoteHostTable && \"Logical switch of the row not found\"");
      table->pendingUcastMacsRemoteRawIs(uuid, row);
      newUcastMacsRemote_.push_back(row);
      dirtySwitchBinding = !row->ipAddr().isEmpty();
      if (ovsdb_->arpSourcesLocal(row->mac())) {
        // The controller reflects one of the agent's own bridge MACs: the
        // row's VNI carries routed traffic through this gateway. Without an
        // address, or on a switch without a VNI, it can route nothing.
        const Vxlan::VniOrNone vni = tunnelKeyOf(*ovsdb_, row->logicalSwitch());
        if (row->ipAddr().isEmpty() || !vni.isValid()) {
          VGW_TRACE(0, "Ucast_Macs_Remote " << uuid << " reflects bridge MAC " << row->mac()
                                            << (row->ipAddr().isEmpty() ? " without an address" : " without a VNI")
                                            << ", no transit VNI");
        } else {
          VGW_TRACE(6, "Vni " << vni << " is Transit");
          localData_->transitVniIs(vni.vni())->ucastMacsRemoteRefIs(uuid);
          dirtyTransitVni = true;
        }
      }
      KILN_ASSERT(ovsdb_->physicalLocatorRaw(row->physicalLocator()), invalidLocator);
      break;
    }
    case NotifyType::notifyDelete: {
      if (isUcastMacsRemoteOnNvpInternal(oldRow)) {
        VGW_TRACE(5, " return _nvp_internal");
        return;
      }
      auto row = Kiln::newPtr<UcastMacsRemote>(uuid);
      unmarshal(*row, oldRow, schema);
      dirtySwitchBinding = !row->ipAddr().isEmpty();
      if (const Kiln::Ptr<RemoteHostTable> table = localData_->remoteHostTable(row->logicalSwitch())) {
        table->ucastMacRemove(row);
        publishReleased(*table, row->mac(), row->ipAddr());
      }
      const Vxlan::VniOrNone vni = tunnelKeyOf(*ovsdb_, row->logicalSwitch());
      if (vni.isValid()) {
        if (const Kiln::Ptr<TransitVniRef> transit = localData_->transitVni(vni.vni())) {
          transit->ucastMacsRemoteRefDel(uuid);
          if (transit->ucastMacsRemoteRef().empty()) {
            VGW_TRACE(6, "Vni " << vni << " is no longer Transit");
            localData_->transitVniDel(vni.vni());
            dirtyTransitVni = true;
          }
        }
      }
      break;
    }
    case NotifyType::notifyModify: {
      KILN_ASSERT(ovsdb_, "hwVtepOvsdb");
      if (isUcastMacsRemoteOnNvpInternal(oldRow, newRow, *ovsdb_)) {
        VGW_TRACE(5, " return _nvp_internal");
        return;
      }
      auto row = Kiln::newPtr<UcastMacsRemote>(uuid);
      unmarshal(*row, newRow, schema);
      UcastMacsRemote previous(uuid);
      unmarshal(previous, oldRow, schema);
      fillUnchanged(previous, *row, oldRow, "locator");
      const bool macChanged = changed(oldRow, "MAC");
      const bool logicalSwitchChanged = changed(oldRow, "logical_switch");
      const bool locatorChanged = changed(oldRow, "locator");
      const bool ipChanged = changed(oldRow, "ipaddr");
      if (macChanged) VGW_TRACE(6, "Upd Mac " << previous.mac() << " to " << row->mac());
      if (logicalSwitchChanged) {
        VGW_TRACE(6, "Upd Logical Switch " << previous.logicalSwitch() << " to " << row->logicalSwitch());
      }
      if (locatorChanged) {
        VGW_TRACE(6, "Upd Physial Locator " << previous.physicalLocator() << " to " << row->physicalLocator());
      }
      if (ipChanged) VGW_TRACE(6, "Upd IpAddr " << previous.ipAddr() << " to " << row->ipAddr());
      dirtySwitchBinding = macChanged || locatorChanged || ipChanged;

      // Release what the row said before from the switch it said it on; a
      // row released twice is counted once.
      if (const Kiln::Ptr<RemoteHostTable> table = localData_->remoteHostTable(previous.logicalSwitch())) {
        if (macChanged || logicalSwitchChanged) {
          table->macVtepRemove(previous.mac(), uuid);
          table->ipToMacRemove(previous.ipAddr(), uuid);
          publishReleased(*table, previous.mac(), previous.ipAddr());
        }
        if (ipChanged) {
          table->ipToMacRemove(previous.ipAddr(), uuid);
          publishReleased(*table, previous.mac(), previous.ipAddr());
        }
        if (locatorChanged) {
          table->macVtepRemove(previous.mac(), uuid);
          publishReleased(*table, previous.mac(), Ipkit::IpGenAddr());
        }
      }
      const Kiln::Ptr<RemoteHostTable> table = localData_->remoteHostTable(row->logicalSwitch());
      KILN_ASSERT(table, "remoteHostTable && \"Logical switch of the row not found\"");
      table->pendingUcastMacsRemoteRawIs(uuid, row);
      newUcastMacsRemote_.push_back(row);
      KILN_ASSERT(ovsdb_->physicalLocatorRaw(row->physicalLocator()), invalidLocator);
      break;
    }
    default: KILN_ASSERT(false, unexpectedNotification);
  }
  flagDirty(dirtySwitchBinding, dirtyTransitVni);
}

void HwVtepRequestHandlerSm::processMcastMacsRemote(NotifyType type, const Uuid& uuid, const json* newRow,
                                                    const json* oldRow, const ovsdb_table_schema& schema) {
  switch (type) {
    case NotifyType::notifyInitial:
    case NotifyType::notifyInsert: {
      auto row = Kiln::newPtr<McastMacsRemote>(uuid);
      unmarshal(*row, newRow, schema);
      const Kiln::Ptr<RemoteHostTable> table = localData_->remoteHostTable(row->logicalSwitch());
      KILN_ASSERT(table, "remoteHostTable && \"Logical switch of the row not found\"");
      table->pendingMcastMacsRemoteRawIs(uuid, row);
      return;
    }
    case NotifyType::notifyDelete: {
      auto row = Kiln::newPtr<McastMacsRemote>(uuid);
      unmarshal(*row, oldRow, schema);
      if (const Kiln::Ptr<RemoteHostTable> table = localData_->remoteHostTable(row->logicalSwitch())) {
        table->mcastMacRemove(row);
      }
      return;
    }
    case NotifyType::notifyModify: {
      auto row = Kiln::newPtr<McastMacsRemote>(uuid);
      unmarshal(*row, newRow, schema);
      McastMacsRemote previous(uuid);
      unmarshal(previous, oldRow, schema);
      fillUnchanged(previous, *row, oldRow, "locator_set");
      const bool macChanged = changed(oldRow, "MAC");
      const bool logicalSwitchChanged = changed(oldRow, "logical_switch");
      const bool locatorSetChanged = changed(oldRow, "locator_set");
      if (macChanged) VGW_TRACE(6, "Upd Mac " << previous.mac() << " to " << row->mac());
      if (logicalSwitchChanged) {
        VGW_TRACE(6, "Upd Logical Switch " << previous.logicalSwitch() << " to " << row->logicalSwitch());
      }
      if (locatorSetChanged) {
        VGW_TRACE(6, "Upd Physial Locator Set " << previous.physicalLocatorSet() << " to "
                                                << row->physicalLocatorSet());
      }
      if (changed(oldRow, "ipaddr")) VGW_TRACE(6, "Upd IpAddr " << previous.ipAddr() << " to " << row->ipAddr());
      if (macChanged || logicalSwitchChanged || locatorSetChanged) {
        if (const Kiln::Ptr<RemoteHostTable> table = localData_->remoteHostTable(previous.logicalSwitch())) {
          table->macVtepListRemove(previous.mac(), uuid);
        }
      }
      const Kiln::Ptr<RemoteHostTable> table = localData_->remoteHostTable(row->logicalSwitch());
      KILN_ASSERT(table, "remoteHostTable && \"Logical switch of the row not found\"");
      table->pendingMcastMacsRemoteRawIs(uuid, row);
      return;
    }
    default: KILN_ASSERT(false, unexpectedNotification);
  }
}

void HwVtepRequestHandlerSm::processUcastMacsLocal(NotifyType type, const Uuid& uuid, const json* newRow,
                                                   const ovsdb_table_schema& schema) {
  KILN_ASSERT(type <= NotifyType::notifyDelete, unexpectedNotification);
  KILN_ASSERT(type == NotifyType::notifyInitial, unexpected);
  KILN_ASSERT(newRow, "newRow && \"row should not be NULL\"");
  MacLocBindings parts;
  extractMacLocBindings(newRow, schema, parts);
  KILN_ASSERT(parts.mac.size(), "mac.size() && \"Invalid mac\"");
  KILN_ASSERT(!parts.logicalSwitch.isNull(), "!!logicalSwitch && \"Invalid logicalSwitch\"");
  KILN_ASSERT(!parts.locator.isNull(), "!!locator && \"Invalid locator\"");
  const Kiln::Ptr<LogicalSwitch> ls = ovsdb_->logicalSwitch(parts.logicalSwitch);
  KILN_ASSERT(ls, "hwVtepOvsdb->logicalSwitch( logicalSwitch )");
  if (!hasVni(*ls, uuid)) return;
  const Vxlan::Vni vni = ls->tunnelKey().vni();
  const Ipkit::EthAddr mac = toEthAddr(parts.mac.stringValue());

  const Kiln::Ptr<UcastMacsLocal> row = localData_->ucastMacsLocalTableIs(vni)->ucastMacsLocalIs(uuid, mac);
  row->logicalSwitchIs(parts.logicalSwitch);
  row->locatorIs(parts.locator);
  if (!parts.ipAddr.empty()) row->ipAddrIs(toIpGenAddr(parts.ipAddr.stringValue()));
  newMacsLocal_.insert(MacVniPair(mac, vni));
  const Kiln::Ptr<PhysicalLocator> physicalLocator = ovsdb_->physicalLocatorRaw(parts.locator);
  KILN_ASSERT(physicalLocator, invalidLocator);
  localData_->localLocatorIs(physicalLocator->key(), physicalLocator);
  VGW_TRACE(6, "Uuid: " << uuid << " Mac: " << mac << " Ip: " << row->ipAddr() << " Logical Switch: "
                        << parts.logicalSwitch << " Vni: " << vni << " Locator: " << parts.locator
                        << " Vtep: " << physicalLocator->key().dstIp());
}

void HwVtepRequestHandlerSm::processMcastMacsLocal(NotifyType type, const Uuid& uuid, const json* newRow,
                                                   const ovsdb_table_schema& schema) {
  KILN_ASSERT(type <= NotifyType::notifyDelete, unexpectedNotification);
  KILN_ASSERT(type == NotifyType::notifyInitial, unexpected);
  KILN_ASSERT(newRow, "newRow && \"row should not be NULL\"");
  MacLocBindings parts;
  extractMacLocBindings(newRow, schema, parts);
  KILN_ASSERT(parts.mac.size(), "mac.size() && \"Invalid mac\"");
  KILN_ASSERT(!parts.logicalSwitch.isNull(), "!!logicalSwitch && \"Invalid logicalSwitch\"");
  KILN_ASSERT(parts.locator.isNull(), "!locator && \"Invalid locator\"");
  KILN_ASSERT(!parts.locatorSet.isNull(), "!!locatorSet && \"Invalid locator set\"");
  const Kiln::Ptr<LogicalSwitch> ls = ovsdb_->logicalSwitch(parts.logicalSwitch);
  KILN_ASSERT(ls, "hwVtepOvsdb->logicalSwitch( logicalSwitch )");
  if (!hasVni(*ls, uuid)) return;
  const Vxlan::Vni vni = ls->tunnelKey().vni();
  const Ipkit::EthAddr mac = toEthAddr(parts.mac.stringValue());

  const Kiln::Ptr<McastMacsLocal> row = localData_->mcastMacsLocalTableIs(vni)->mcastMacsLocalIs(uuid, mac);
  row->logicalSwitchIs(parts.logicalSwitch);
  row->physicalLocatorSetIs(parts.locatorSet);
  newMacsLocal_.insert(MacVniPair(mac, vni));
  const Kiln::Ptr<PhysicalLocatorSet> locatorSet = ovsdb_->physicalLocatorSet(parts.locatorSet);
  KILN_ASSERT(locatorSet, "!!physicalLocatorSet && \"Invalid physicalLocatorSet uuid\"");
  for (const Uuid& locatorUuid : locatorSet->locator()) {
    const Kiln::Ptr<PhysicalLocator> physicalLocator = ovsdb_->physicalLocatorRaw(locatorUuid);
    KILN_ASSERT(physicalLocator, invalidLocator);
    localData_->localLocatorIs(physicalLocator->key(), physicalLocator);
  }
  VGW_TRACE(6, "Uuid: " << uuid << " Mac: " << mac << " Logical Switch: " << parts.logicalSwitch << " Vni: " << vni
                        << " Locator: " << parts.locatorSet);
}

void HwVtepRequestHandlerSm::processManager(NotifyType type, const Uuid& uuid, const json* newRow, const json*,
                                            const ovsdb_table_schema& schema) {
  switch (type) {
    case NotifyType::notifyInitial:
    case NotifyType::notifyInsert: {
      const Kiln::Ptr<Manager> manager = ovsdb_->managerRawIs(uuid);
      unmarshal(*manager, newRow, schema);
      ovsdb_->managerIs(manager->target(), manager);
      return;
    }
    case NotifyType::notifyModify: {
      const Kiln::Ptr<Manager> manager = ovsdb_->managerRaw(uuid);
      KILN_ASSERT(manager, "manager && \"manager not found\"");
      unmarshal(*manager, newRow, schema);
      ovsdb_->managerIs(manager->target(), manager);
      return;
    }
    case NotifyType::notifyDelete:
      if (const Kiln::Ptr<Manager> manager = ovsdb_->managerRawDel(uuid)) {
        ovsdb_->managerDel(manager->target());
      } else {
        VGW_TRACE(5, " manager not found. Return ");
      }
      return;
    default: KILN_ASSERT(false, unexpectedNotification);
  }
}

void HwVtepRequestHandlerSm::processGlobal(NotifyType type, const Uuid& uuid, const json* newRow,
                                           const ovsdb_table_schema& schema) {
  switch (type) {
    case NotifyType::notifyInitial:
    case NotifyType::notifyInsert: unmarshal(*ovsdb_->rootIs(uuid), newRow, schema); return;
    case NotifyType::notifyModify: {
      // switches and managers are the agent's columns: the mirror follows
      // its transactions' replies for them.
      const Kiln::Ptr<Global> global = ovsdb_->root(uuid);
      KILN_ASSERT(global, "global && \"global not found\"");
      Global current(uuid);
      unmarshal(current, newRow, schema);
      for (const Kiln::String& key :
           Kiln::keysToDrop(global->otherConfig(), [&](const Kiln::String& k) { return current.otherConfig().contains(k); })) {
        global->otherConfigDel(key);
      }
      for (const auto& [key, value] : current.otherConfig()) global->otherConfigIs(key, value);
      return;
    }
    case NotifyType::notifyDelete: ovsdb_->rootDel(uuid); return;
    default: KILN_ASSERT(false, unexpectedNotification);
  }
}

void HwVtepRequestHandlerSm::refreshVniToLogicalSwitch() {
  for (const auto& [uuid, ls] : ovsdb_->logicalSwitch()) {
    if (!ls->tunnelKey().isValid()) continue;
    localData_->vniToLogicalSwitchIs(ls->tunnelKey().vni())->logicalSwitchIs(uuid, true);
  }
}

// ---- stale rows ------------------------------------------------------------------

namespace {

template <class Map>
std::vector<Uuid> staleUuids(const Map& rows, const std::set<Uuid>& freshUuids) {
  return Kiln::keysToDrop(rows, [&](const Uuid& uuid) { return freshUuids.contains(uuid); });
}

// The local MAC rows are judged by (MAC, VNI), not by uuid.
template <class TableMap, class Rows, class Del, class TableDel>
void removeStaleLocalMacs(const TableMap& tables, const std::set<MacVniPair>& newMacsLocal, const char* rowText,
                          const char* tableText, Rows rows, Del del, TableDel tableDel) {
  std::vector<Vxlan::Vni> vnis;
  for (const auto& [vni, table] : tables) vnis.push_back(vni);
  for (const Vxlan::Vni& vni : vnis) {
    const auto table = tables.at(vni);
    std::vector<Ipkit::EthAddr> stale;
    for (const auto& [mac, row] : rows(*table)) {
      if (!newMacsLocal.contains(MacVniPair(mac, vni))) stale.push_back(mac);
    }
    for (const Ipkit::EthAddr& mac : stale) {
      VGW_TRACE(6, rowText << rows(*table).at(mac)->uuid() << " mac " << mac);
      del(*table, mac);
    }
    if (rows(*table).empty()) {
      VGW_TRACE(6, tableText << vni);
      tableDel(vni);
    }
  }
}

}  // namespace

void removeStaleOvsdb(const Kiln::Ptr<HwVtepOvsdb>& ovsdb, const std::set<Uuid>& freshUuids,
                      const std::set<MacVniPair>& newMacsLocal) {
  LocalData& local = localData();
  for (OvsdbDataType type = nextOvsdbDataType(OvsdbDataType::none); type != OvsdbDataType::none;
       type = nextOvsdbDataType(type)) {
    switch (type) {
      case OvsdbDataType::logicalSwitch:
        for (const Uuid& uuid : staleUuids(ovsdb->logicalSwitch(), freshUuids)) {
          VGW_TRACE(6, "Del stale Logical_Switch: " << uuid << " name " << ovsdb->logicalSwitch(uuid)->displayName());
          local.remoteHostTableDel(uuid);
          ovsdb->logicalSwitchDel(uuid);
        }
        break;
      case OvsdbDataType::logicalBindingStats:
        for (const Uuid& uuid : staleUuids(ovsdb->logicalBindingStats(), freshUuids)) {
          VGW_TRACE(6, "Del stale Logical_Binding_Stats: " << uuid);
          ovsdb->logicalBindingStatsDel(uuid);
        }
        break;
      case OvsdbDataType::physicalLocator: {
        for (const Uuid& uuid : staleUuids(ovsdb->physicalLocatorRaw(), freshUuids)) {
          VGW_TRACE(6, "Delete stale Physical_Locator: uuid " << uuid);
          const Kiln::Ptr<PhysicalLocator> locator = ovsdb->physicalLocatorRawDel(uuid);
          const Kiln::Ptr<PhysicalLocator> indexed = ovsdb->physicalLocator(locator->key().dstIp());
          if (indexed && indexed->uuid() == uuid) {
            VGW_TRACE(6, "clear HwVtepOvsdb::physicalLocator");
            ovsdb->physicalLocatorDel(locator->key().dstIp());
          }
        }
        // An index entry whose row is gone by another road goes too.
        const auto orphans = Kiln::keysToDrop(ovsdb->physicalLocator(), [&](const Ipkit::IpGenAddr& ip) {
          return ovsdb->physicalLocatorRaw(ovsdb->physicalLocator(ip)->uuid()) != nullptr;
        });
        for (const Ipkit::IpGenAddr& ip : orphans) {
          VGW_TRACE(6, "Deleting stale physical locator with vtepIp: " << ip);
          ovsdb->physicalLocatorDel(ip);
        }
        break;
      }
      case OvsdbDataType::physicalLocatorSet:
        for (const Uuid& uuid : staleUuids(ovsdb->physicalLocatorSet(), freshUuids)) {
          VGW_TRACE(6, "Del stale Physical_Locator_Set: " << uuid);
          ovsdb->physicalLocatorSetDel(uuid);
        }
        break;
      case OvsdbDataType::physicalPort:
        for (const Uuid& uuid : staleUuids(ovsdb->physicalPort(), freshUuids)) {
          VGW_TRACE(6, "Del stale Physical_Port: " << uuid << " displayName " << ovsdb->physicalPort(uuid)->displayName());
          ovsdb->physicalPortDel(uuid);
        }
        break;
      case OvsdbDataType::physicalSwitch:
        for (const Uuid& uuid : staleUuids(ovsdb->physicalSwitchRaw(), freshUuids)) {
          const Kiln::Ptr<PhysicalSwitch> pSwitch = ovsdb->physicalSwitchRaw(uuid);
          VGW_TRACE(6, "Del stale Physical_Switch: " << uuid << " displayName " << pSwitch->displayName());
          const Kiln::Ptr<PhysicalSwitch> indexed = ovsdb->physicalSwitch(pSwitch->displayName());
          if (indexed && indexed->uuid() == uuid) {
            VGW_TRACE(6, "clear HwVtepOvsdb::physicalSwitch");
            ovsdb->physicalSwitchDel(pSwitch->displayName());
          }
          ovsdb->physicalSwitchRawDel(uuid);
        }
        break;
      case OvsdbDataType::arpSourcesLocal:
        for (const Uuid& uuid : staleUuids(ovsdb->arpSourcesLocalRaw(), freshUuids)) {
          VGW_TRACE(6, "Delete stale Arp_sources_local: uuid " << uuid);
          const Ipkit::EthAddr mac = ovsdb->arpSourcesLocalRaw(uuid)->srcMac();
          const Kiln::Ptr<ArpSourcesLocal> indexed = ovsdb->arpSourcesLocal(mac);
          if (indexed && indexed->uuid() == uuid) {
            VGW_TRACE(6, "clear HwVtepOvsdb::arpSourcesLocal");
            ovsdb->arpSourcesLocalDel(mac);
          }
          ovsdb->arpSourcesLocalRawDel(uuid);
        }
        break;
      case OvsdbDataType::arpSourcesRemote: {
        for (const Uuid& uuid : staleUuids(ovsdb->arpSourcesRemoteRaw(), freshUuids)) {
          VGW_TRACE(6, "Delete stale Arp_sources_remote: uuid " << uuid);
          const Ipkit::EthAddr mac = ovsdb->arpSourcesRemoteRaw(uuid)->srcMac();
          const Kiln::Ptr<ArpSourcesRemote> indexed = ovsdb->arpSourcesRemote(mac);
          if (indexed && indexed->uuid() == uuid) {
            VGW_TRACE(6, "clear HwVtepOvsdb::arpSourcesRemote");
            ovsdb->arpSourcesRemoteDel(mac);
          }
          ovsdb->arpSourcesRemoteRawDel(uuid);
        }
        const auto orphans = Kiln::keysToDrop(ovsdb->arpSourcesRemote(), [&](const Ipkit::EthAddr& mac) {
          const Kiln::Ptr<ArpSourcesRemote> raw = ovsdb->arpSourcesRemoteRaw(ovsdb->arpSourcesRemote(mac)->uuid());
          return raw && raw->srcMac() == mac;
        });
        for (const Ipkit::EthAddr& mac : orphans) {
          VGW_TRACE(6, "Del stale ArpSourceRemote: " << mac);
          ovsdb->arpSourcesRemoteDel(mac);
        }
        break;
      }
      case OvsdbDataType::ucastMacsLocal:
        removeStaleLocalMacs(
            local.ucastMacsLocalTable(), newMacsLocal, "Del stale Ucast_Macs_Local: ", "Del stale Ucast_Macs_Local table: ",
            [](const UcastMacsLocalTable& table) -> const auto& { return table.ucastMacsLocal(); },
            [](UcastMacsLocalTable& table, const Ipkit::EthAddr& mac) { table.ucastMacsLocalDel(mac); },
            [&](const Vxlan::Vni& vni) { local.ucastMacsLocalTableDel(vni); });
        break;
      case OvsdbDataType::mcastMacsLocal:
        removeStaleLocalMacs(
            local.mcastMacsLocalTable(), newMacsLocal, "Del stale Mcast_Macs_Local: ", "Del stale Mcast_Macs_Local table : ",
            [](const McastMacsLocalTable& table) -> const auto& { return table.mcastMacsLocal(); },
            [](McastMacsLocalTable& table, const Ipkit::EthAddr& mac) { table.mcastMacsLocalDel(mac); },
            [&](const Vxlan::Vni& vni) { local.mcastMacsLocalTableDel(vni); });
        break;
      case OvsdbDataType::logicalRouter:
        for (const Uuid& uuid : staleUuids(ovsdb->logicalRouterRaw(), freshUuids)) {
          VGW_TRACE(6, "Del stale LogicalRouter Raw: " << uuid << " name " << ovsdb->logicalRouterRaw(uuid)->displayName());
          ovsdb->logicalRouterRawDel(uuid);
        }
        break;
      case OvsdbDataType::manager:
        for (const Uuid& uuid : staleUuids(ovsdb->managerRaw(), freshUuids)) {
          const Kiln::String target = ovsdb->managerRaw(uuid)->target();
          VGW_TRACE(6, "Del stale manager: " << uuid << " target " << target);
          const Kiln::Ptr<Manager> indexed = ovsdb->manager(target);
          if (indexed && indexed->uuid() == uuid) {
            VGW_TRACE(6, "clear HwVtepOvsdb::manager");
            ovsdb->managerDel(target);
          }
          ovsdb->managerRawDel(uuid);
        }
        break;
      case OvsdbDataType::global:
        for (const Uuid& uuid : staleUuids(ovsdb->root(), freshUuids)) {
          VGW_TRACE(6, "Del stale Global: " << uuid);
          ovsdb->rootDel(uuid);
        }
        break;
      case OvsdbDataType::ucastMacsRemote:
      case OvsdbDataType::mcastMacsRemote:
      case OvsdbDataType::acl:
      case OvsdbDataType::tunnel:
        // Remote MAC tables are rebuilt with the session; stale tunnels go
        // in the next transaction's sweep.
        break;
      default: KILN_ASSERT(false, "0 && \"Unexpected table name\"");
    }
  }
}

// ---- HwVtepOvsdbSm -------------------------------------------------------------

HwVtepOvsdbSm::HwVtepOvsdbSm(Kiln::Ptr<HwVtepOvsdb> ovsdb) : ovsdb_(std::move(ovsdb)), kilnOvsdb_(this) {
  kilnOvsdb_.notifierIs(ovsdb_);
  for (const auto& [uuid, row] : ovsdb_->root()) globalIs(row);
  for (const auto& [uuid, row] : ovsdb_->physicalSwitchRaw()) pSwitchIs(row);
}

HwVtepOvsdbSm::~HwVtepOvsdbSm() {
  // The cleanups change the mirror; this machine no longer follows it.
  kilnOvsdb_.notifierIs(nullptr);
  for (const auto& [uuid, sm] : std::exchange(global_, {})) sm->doCleanup();
  for (const auto& [uuid, sm] : std::exchange(pSwitch_, {})) sm->doCleanup();
}

Kiln::Ptr<HwVtepOvsdbSm> hwVtepOvsdbSmFactory(Kiln::Ptr<HwVtepOvsdb> ovsdb) {
  return Kiln::newPtr<HwVtepOvsdbSm>(std::move(ovsdb));
}

void HwVtepOvsdbSm::KilnOvsdb::onRoot(const Uuid& uuid) {
  if (const Kiln::Ptr<Global> row = sm_->ovsdb()->root(uuid)) {
    sm_->globalIs(row);
  } else {
    sm_->globalDel(uuid);
  }
}

void HwVtepOvsdbSm::KilnOvsdb::onPhysicalSwitchRaw(const Uuid& uuid) {
  if (const Kiln::Ptr<PhysicalSwitch> row = sm_->ovsdb()->physicalSwitchRaw(uuid)) {
    sm_->pSwitchIs(row);
  } else {
    sm_->pSwitchDel(uuid);
  }
}

void HwVtepOvsdbSm::globalIs(const Kiln::Ptr<Global>& row) {
  const auto it = global_.find(row->uuid());
  if (it != global_.end() && it->second->global() == row) return;
  global_.insert_or_assign(row->uuid(), Kiln::newPtr<GlobalSm>(row, this));
}

void HwVtepOvsdbSm::globalDel(const Uuid& uuid) {
  const auto it = global_.find(uuid);
  if (it == global_.end()) return;
  const Kiln::Ptr<GlobalSm> sm = it->second;
  global_.erase(it);
  sm->doCleanup();
}

void HwVtepOvsdbSm::pSwitchIs(const Kiln::Ptr<PhysicalSwitch>& row) {
  const auto it = pSwitch_.find(row->uuid());
  if (it != pSwitch_.end() && it->second->pSwitch() == row) return;
  pSwitch_.insert_or_assign(row->uuid(), Kiln::newPtr<PhysicalSwitchSm>(row, this));
}

void HwVtepOvsdbSm::pSwitchDel(const Uuid& uuid) {
  const auto it = pSwitch_.find(uuid);
  if (it == pSwitch_.end()) return;
  const Kiln::Ptr<PhysicalSwitchSm> sm = it->second;
  pSwitch_.erase(it);
  sm->doCleanup();
}

HwVtepOvsdbSm::GlobalSm::GlobalSm(Kiln::Ptr<Global> global, HwVtepOvsdbSm* owner)
    : global_(std::move(global)), hwVtepOvsdbSm_(owner), kilnGlobal_(this) {
  kilnGlobal_.notifierIs(global_);
  handleInitialized();
}

void HwVtepOvsdbSm::GlobalSm::handleInitialized() {
  initialized_ = true;
  VGW_TRACE(6, "GlobalSm initialized: " << global_->uuid());
}

void HwVtepOvsdbSm::GlobalSm::handlePSwitch(const Uuid& uuid) {
  if (!initialized_ || global_->pSwitch(uuid)) return;
  VGW_TRACE(6, "Removing unreferenced physical switch " << uuid);
  HwVtepOvsdb& ovsdb = *hwVtepOvsdbSm_->ovsdb();
  const Kiln::Ptr<PhysicalSwitch> pSwitch = ovsdb.physicalSwitchRaw(uuid);
  if (!pSwitch) return;
  // An MLAG pair's entry belongs to the pair's own machine. A switch renamed
  // in the same transaction is already filed under its new row.
  if (pSwitch->mlagSystemId() == Fleet::SystemId()) {
    for (const Fleet::SystemId& systemId : pSwitch->systemId()) {
      if (localData().physicalSwitch(systemId) == pSwitch) localData().physicalSwitchDel(systemId);
    }
  }
  ovsdb.physicalSwitchDel(pSwitch->displayName());
  ovsdb.physicalSwitchRawDel(uuid);
}

void HwVtepOvsdbSm::GlobalSm::doCleanup() {
  KILN_ASSERT(initialized_, "initialized() && \"Object should be initalized\"");
  for (const Uuid& uuid : std::set<Uuid>(global_->pSwitch())) global_->pSwitchDel(uuid);
  for (const Uuid& uuid : std::set<Uuid>(global_->manager())) global_->managerDel(uuid);
}

HwVtepOvsdbSm::PhysicalSwitchSm::PhysicalSwitchSm(Kiln::Ptr<PhysicalSwitch> pSwitch, HwVtepOvsdbSm* owner)
    : pSwitch_(std::move(pSwitch)), hwVtepOvsdbSm_(owner), kilnPSwitch_(this) {
  kilnPSwitch_.notifierIs(pSwitch_);
  handleInitialized();
}

void HwVtepOvsdbSm::PhysicalSwitchSm::handleInitialized() {
  initialized_ = true;
  VGW_TRACE(6, "PhysicalSwitchSm initialized: " << pSwitch_->uuid());
}

void HwVtepOvsdbSm::PhysicalSwitchSm::handlePort(const Uuid& uuid) {
  if (!initialized_ || pSwitch_->port(uuid)) return;
  VGW_TRACE(6, "Removing unreferenced physical port " << uuid);
  hwVtepOvsdbSm_->ovsdb()->physicalPortDel(uuid);
}

void HwVtepOvsdbSm::PhysicalSwitchSm::doCleanup() {
  KILN_ASSERT(initialized_, "initialized() && \"Object should be initalized\"");
  HwVtepOvsdb& ovsdb = *hwVtepOvsdbSm_->ovsdb();
  for (const Uuid& uuid : std::set<Uuid>(pSwitch_->port())) {
    ovsdb.physicalPortDel(uuid);
    pSwitch_->portDel(uuid);
  }
  std::set<Uuid> tunnels;
  for (const Uuid& uuid : pSwitch_->tunnel()) {
    ovsdb.tunnelRawDel(uuid);
    tunnels.insert(uuid);
  }
  const auto gone = Kiln::keysToDrop(ovsdb.tunnel(), [&](const LocalRemoteVtepPair& pair) {
    return !tunnels.contains(ovsdb.tunnel(pair)->uuid());
  });
  for (const LocalRemoteVtepPair& pair : gone) ovsdb.tunnelDel(pair);
}

}  // namespace Vgw
