// Owning handles for the Open vSwitch objects that C++ code keeps.
//
// A JsonPtr, JsonRpcMsgPtr or SchemaPtr frees its object with the library's
// own destructor when it goes; a null handle owns nothing. Raw pointers taken
// with get() are borrowed.
#pragma once

#include <memory>

#include "Ovs/ovsc.h"
#include "openvswitch/json.h"

namespace Ovs {

struct JsonDeleter {
  void operator()(json* j) const { json_destroy(j); }
};
struct JsonRpcMsgDeleter {
  void operator()(jsonrpc_msg* m) const { ovsc_jsonrpc_msg_destroy(m); }
};
struct SchemaDeleter {
  void operator()(ovsdb_schema* s) const { ovsc_ovsdb_schema_destroy(s); }
};
struct DatumDeleter {
  void operator()(ovsc_datum* d) const { ovsc_datum_destroy(d); }
};
struct CStringDeleter {
  void operator()(char* s) const;
};

using JsonPtr = std::unique_ptr<json, JsonDeleter>;
using JsonRpcMsgPtr = std::unique_ptr<jsonrpc_msg, JsonRpcMsgDeleter>;
using SchemaPtr = std::unique_ptr<ovsdb_schema, SchemaDeleter>;
using DatumPtr = std::unique_ptr<ovsc_datum, DatumDeleter>;
// Texts that the C layer hands over (error texts, printed datums).
using CString = std::unique_ptr<char, CStringDeleter>;

}  // namespace Ovs
