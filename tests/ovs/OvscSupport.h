// Helpers for the tests of the C layer over Open vSwitch. Every object the
// layer hands out is held by an owning handle (those of Ovs/OvsHandles.h and
// the connection handles here), so a failing assertion leaks nothing into the
// next test.
#pragma once

#include <gtest/gtest.h>
#include <openvswitch/json.h>

#include <cstring>
#include <memory>
#include <string>

#include "Ovs/OvsHandles.h"
#include "ovsc.h"

namespace Vgw::Test {

using JsonPtr = Ovs::JsonPtr;
using MsgPtr = Ovs::JsonRpcMsgPtr;
using SchemaPtr = Ovs::SchemaPtr;
using DatumPtr = Ovs::DatumPtr;
using CString = Ovs::CString;

struct RpcClose {
  void operator()(jsonrpc* r) const { ovsc_jsonrpc_close(r); }
};
using RpcPtr = std::unique_ptr<jsonrpc, RpcClose>;

inline constexpr uint8_t kDscp = 0x30;

// Parses a JSON value of any kind; the library itself takes only objects and
// arrays at the top level, so the text is parsed inside an array.
inline JsonPtr parseJson(const std::string& text) {
  JsonPtr wrapped(json_from_string(("[" + text + "]").c_str()));
  if (wrapped->type != JSON_ARRAY || json_array(wrapped.get())->n != 1) {
    ADD_FAILURE() << "bad JSON in the test: " << text;
    return JsonPtr(json_null_create());
  }
  return JsonPtr(json_clone(json_array(wrapped.get())->elems[0]));
}

inline std::string toText(const json* j) {
  CString text(json_to_string(j, JSSF_SORT));
  return text.get();
}

// Connects to 'target' ("unix:<path>") and wraps the stream in a JSON-RPC
// connection; null when the connection fails.
inline RpcPtr connect(const std::string& target) {
  stream* s = nullptr;
  int error = ovsc_jsonrpc_stream_open_block(target.c_str(), kDscp, -1, &s);
  EXPECT_EQ(error, 0) << "connecting to " << target << ": " << std::strerror(error);
  return RpcPtr(error ? nullptr : ovsc_jsonrpc_open(s));
}

// Parses a schema given as JSON; a parse error fails the test.
inline SchemaPtr parseSchema(const json* j) {
  ovsdb_schema* schema = nullptr;
  CString error(ovsc_ovsdb_schema_from_json(j, &schema));
  EXPECT_EQ(error, nullptr) << error.get();
  return SchemaPtr(schema);
}

// The hardware_vtep schema as the installed schema file has it.
inline SchemaPtr schemaFromFile() {
  JsonPtr j(json_from_file("/usr/share/openvswitch/vtep.ovsschema"));
  return parseSchema(j.get());
}

inline const ovsc_column* column(const ovsdb_schema* schema, const char* table,
                                 const char* name) {
  const ovsdb_table_schema* t = ovsc_ovsdb_schema_table(schema, table);
  return t ? ovsc_ovsdb_table_schema_get_column(t, name) : nullptr;
}

}  // namespace Vgw::Test
