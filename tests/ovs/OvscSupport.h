// Helpers for the tests of the C layer over Open vSwitch. Every object the
// layer hands out is held by an owning handle (those of Ovs/OvsHandles.h and
// the connection handles here), so a failing assertion leaks nothing into the
// next test.
#pragma once

#include <gtest/gtest.h>
#include <openvswitch/json.h>
#include <poll.h>

#include <cerrno>
#include <cstdlib>
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
struct PstreamClose {
  void operator()(pstream* p) const { ovsc_pstream_close(p); }
};
using RpcPtr = std::unique_ptr<jsonrpc, RpcClose>;
using PstreamPtr = std::unique_ptr<pstream, PstreamClose>;

inline constexpr uint8_t kDscp = 0x30;
inline constexpr const char* kSchemaFile = "/usr/share/openvswitch/vtep.ovsschema";

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

inline std::string toText(const jsonrpc_msg* msg) {
  CString text(ovsc_jsonrpc_msg_to_string(msg));
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

// The hardware_vtep schema as the installed schema file has it.
inline SchemaPtr schemaFromFile() {
  JsonPtr j(json_from_file(kSchemaFile));
  ovsdb_schema* schema = nullptr;
  CString error(ovsc_ovsdb_schema_from_json(j.get(), &schema));
  EXPECT_EQ(error, nullptr) << error.get();
  return SchemaPtr(schema);
}

inline const ovsc_column* column(const ovsdb_schema* schema, const char* table,
                                 const char* name) {
  const ovsdb_table_schema* t = ovsc_ovsdb_schema_table(schema, table);
  return t ? ovsc_ovsdb_table_schema_get_column(t, name) : nullptr;
}

// Waits until the connection has input. This waits on the server process,
// not on time: the bound only keeps a broken server from hanging the test.
inline bool waitReadable(jsonrpc* rpc) {
  pollfd p{ovsc_stream_get_fd(ovsc_jsonrpc_get_stream(rpc)), POLLIN, 0};
  return p.fd >= 0 && ::poll(&p, 1, 10000) == 1;
}

// Reads messages until one arrives that 'wanted' accepts or the connection
// fails, answering nothing and dropping the rest.
template <typename Pred>
MsgPtr receiveUntil(jsonrpc* rpc, Pred wanted) {
  for (;;) {
    jsonrpc_msg* raw = nullptr;
    int error = ovsc_jsonrpc_recv(rpc, &raw);
    if (error == EAGAIN) {
      ovsc_jsonrpc_run(rpc);
      if (!waitReadable(rpc)) {
        ADD_FAILURE() << "no message arrived";
        return nullptr;
      }
      continue;
    }
    if (error) {
      ADD_FAILURE() << "receive failed: " << error;
      return nullptr;
    }
    MsgPtr msg(raw);
    if (wanted(msg.get())) return msg;
  }
}

}  // namespace Vgw::Test
