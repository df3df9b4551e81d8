// Helpers for the tests of the transaction path: a JSON-RPC connection to
// the harness's ovsdb-server with the schema it serves, the server's rows as
// JSON, and a capture of the trace stream.
#pragma once

#include <gtest/gtest.h>
#include <openvswitch/json.h>
#include <openvswitch/shash.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Ovs/OvsHandles.h"
#include "OvsdbServer.h"
#include "RingTape/RingTape.h"
#include "model/Uuid.h"

namespace Vgw::Test {

struct RpcClose {
  void operator()(jsonrpc* r) const { ovsc_jsonrpc_close(r); }
};
using RpcPtr = std::unique_ptr<jsonrpc, RpcClose>;

inline Ovs::JsonPtr parseJson(std::string_view text) { return Ovs::JsonPtr(json_from_string(std::string(text).c_str())); }

inline std::string toText(const json* j) {
  const Ovs::CString text(json_to_string(j, JSSF_SORT));
  return text.get();
}

// A blocking request on `rpc`; the reply's result, or null (with a test
// failure) when the request failed or the server answered with an error.
inline Ovs::JsonPtr request(jsonrpc* rpc, jsonrpc_msg* msg) {
  jsonrpc_msg* raw = nullptr;
  const int error = ovsc_jsonrpc_transact_block(rpc, msg, &raw);
  const Ovs::JsonRpcMsgPtr reply(raw);
  EXPECT_EQ(error, 0);
  if (error || !reply) return nullptr;
  const json* result = ovsc_jsonrpc_msg_result(reply.get());
  EXPECT_NE(result, nullptr) << toText(ovsc_jsonrpc_msg_error(reply.get()));
  return Ovs::JsonPtr(result ? json_clone(result) : nullptr);
}

// The hardware_vtep schema as installed, for tests that need no server.
inline Ovs::SchemaPtr schemaFromFile() {
  const Ovs::JsonPtr j(json_from_file("/usr/share/openvswitch/vtep.ovsschema"));
  ovsdb_schema* schema = nullptr;
  const Ovs::CString problem(ovsc_ovsdb_schema_from_json(j.get(), &schema));
  EXPECT_EQ(problem, nullptr) << problem.get();
  return Ovs::SchemaPtr(schema);
}

inline const ovsdb_table_schema& tableOf(const Ovs::SchemaPtr& schema, const char* name) {
  return *ovsc_ovsdb_schema_table(schema.get(), name);
}

// The agent's side of one server: a connection and the schema it serves.
class Session {
 public:
  explicit Session(OvsdbServer& server) {
    stream* s = nullptr;
    const int error = ovsc_jsonrpc_stream_open_block(server.target().c_str(), 0x30, -1, &s);
    EXPECT_EQ(error, 0) << "connecting to " << server.target();
    if (error) return;
    rpc_.reset(ovsc_jsonrpc_open(s));
    const Ovs::JsonPtr reply =
        request(rpc_.get(), ovsc_jsonrpc_create_request("get_schema", parseJson(R"(["hardware_vtep"])").release(), nullptr));
    ovsdb_schema* schema = nullptr;
    const Ovs::CString problem(reply ? ovsc_ovsdb_schema_from_json(reply.get(), &schema) : nullptr);
    EXPECT_EQ(problem, nullptr) << problem.get();
    schema_.reset(schema);
  }

  bool ok() const { return rpc_ && schema_; }
  jsonrpc* rpc() const { return rpc_.get(); }
  const ovsdb_table_schema& table(const char* name) const { return tableOf(schema_, name); }

  // Sends a transaction message and returns the reply's result.
  Ovs::JsonPtr transact(jsonrpc_msg* msg) const { return request(rpc_.get(), msg); }

 private:
  RpcPtr rpc_;
  Ovs::SchemaPtr schema_;
};

// The rows of a table as the server holds them, "_uuid" included.
inline std::vector<Ovs::JsonPtr> serverRows(OvsdbServer& server, std::string_view table) {
  const Ovs::JsonPtr rows = parseJson(server.dump(table));
  std::vector<Ovs::JsonPtr> out;
  const struct json_array* array = json_array(rows.get());
  for (std::size_t i = 0; i < array->n; ++i) out.emplace_back(json_clone(array->elems[i]));
  return out;
}

inline Uuid rowUuid(const json* row) {
  const json* u = static_cast<const json*>(shash_find_data(json_object(row), "_uuid"));
  return Uuid::parse(json_string(json_array(u)->elems[1]));
}

inline const json* column(const json* row, const char* name) {
  return static_cast<const json*>(shash_find_data(json_object(row), name));
}

// A column value as OVSDB prints it, so that the bare form of a set of one
// and its ["set", [...]] form read the same.
inline std::string canonical(const ovsdb_table_schema& table, const char* name, const json* value) {
  const ovsc_column* c = ovsc_ovsdb_table_schema_get_column(&table, name);
  if (!c) return "<no column " + std::string(name) + ">";
  if (!value) return "<absent>";
  ovsc_datum* parsed = nullptr;
  const Ovs::CString problem(ovsc_ovsdb_datum_from_json(c, value, &parsed));
  if (problem) return std::string("<") + problem.get() + ">";
  const Ovs::DatumPtr datum(parsed);
  const Ovs::CString text(ovsc_ovsdb_datum_to_string(datum.get()));
  return text.get();
}

// Expects each column of `written`, a row object the agent would send, to
// hold the same value in `stored`, the server's row.
inline void expectColumnsMatch(const ovsdb_table_schema& table, const json* written, const json* stored) {
  const shash_node** nodes = shash_sort(json_object(written));
  const std::size_t n = shash_count(json_object(written));
  for (std::size_t i = 0; i < n; ++i) {
    const char* name = nodes[i]->name;
    EXPECT_EQ(canonical(table, name, static_cast<const json*>(nodes[i]->data)),
              canonical(table, name, column(stored, name)))
        << "column " << name << " of " << toText(stored);
  }
  std::free(nodes);
}

// Runs a controller transaction (the ops after the database name) and
// returns the server's uuid of each insert, in order.
inline std::vector<Uuid> controllerInsert(OvsdbServer& server, std::string_view ops) {
  const std::string reply = server.transact(R"(["hardware_vtep", )" + std::string(ops) + "]");
  const Ovs::JsonPtr result = parseJson(reply);
  std::vector<Uuid> uuids;
  const struct json_array* array = json_array(result.get());
  for (std::size_t i = 0; i < array->n; ++i) {
    const json* element = array->elems[i];
    EXPECT_EQ(shash_find_data(json_object(element), "error"), nullptr) << reply;
    if (const json* u = column(element, "uuid")) uuids.push_back(Uuid::parse(json_string(json_array(u)->elems[1])));
  }
  return uuids;
}

// Collects what the given handles trace at the given levels while it lives.
class TraceCapture {
 public:
  explicit TraceCapture(const char* spec) {
    setenv("VGW_TRACE", spec, 1);
    RingTape::reloadLevels();
    RingTape::streamIs(&stream_);
  }
  ~TraceCapture() {
    RingTape::streamIs(nullptr);
    unsetenv("VGW_TRACE");
    RingTape::reloadLevels();
  }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  std::string text() const { return stream_.str(); }
  bool contains(std::string_view part) const { return stream_.str().find(part) != std::string::npos; }

 private:
  std::ostringstream stream_;
};

// A regular expression matching `text` literally, for EXPECT_DEATH with
// an assertion's exact text.
inline std::string literally(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) out += '\\';
    out += c;
  }
  return out;
}

}  // namespace Vgw::Test
