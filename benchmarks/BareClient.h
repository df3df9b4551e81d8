// The benchmarks' bare database client: one JSON-RPC connection of its own
// to the server, blocking transactions timed from request to reply, and the
// JSON forms its transactions use. It is what the agent is set beside: the
// least any client pays for the same rows on the same server.
#pragma once

#include <openvswitch/json.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "Kiln/Json.h"
#include "Ovs/OvsHandles.h"

namespace Vgw::Bench {

inline std::string text(const json* value) {
  const Ovs::CString printed(json_to_string(value, 0));
  return printed.get();
}

class BareClient {
 public:
  explicit BareClient(const std::string& target) {
    stream* s = nullptr;
    if (const int error = ovsc_jsonrpc_stream_open_block(target.c_str(), 0, 10000, &s)) {
      throw Failure("cannot connect to " + target + ": " + std::strerror(error));
    }
    rpc_.reset(ovsc_jsonrpc_open(s));
  }

  // Runs one transaction ("transact" params); `took` gets the time from the
  // request to the reply, with the JSON built before and read after.
  Kiln::Json transact(const json* params, double* took = nullptr) {
    jsonrpc_msg* request = ovsc_jsonrpc_create_request("transact", json_clone(params), nullptr);
    jsonrpc_msg* raw = nullptr;
    const std::int64_t sent = nowNs();
    const int error = ovsc_jsonrpc_transact_block(rpc_.get(), request, &raw);
    if (took) *took = msBetween(sent, nowNs());
    const Ovs::JsonRpcMsgPtr reply(raw);
    if (error) throw Failure(std::string("transact: ") + std::strerror(error));
    const json* result = ovsc_jsonrpc_msg_result(reply.get());
    if (!result) throw Failure("transact refused: " + text(ovsc_jsonrpc_msg_error(reply.get())));
    Kiln::Json results = Kiln::Json::parse(text(result));
    for (const Kiln::Json& one : results) {
      if (one.is_object() && one.contains("error")) throw Failure("transaction failed: " + one.dump());
    }
    return results;
  }
  Kiln::Json transact(const Kiln::Json& params, double* took = nullptr) {
    const Ovs::JsonPtr parsed(json_from_string(params.dump().c_str()));
    return transact(parsed.get(), took);
  }

  // The rows of `table`, with `columns`.
  Kiln::Json select(const char* table, const Kiln::Json& columns) {
    return transact(Kiln::Json::array(
        {"hardware_vtep",
         {{"op", "select"}, {"table", table}, {"where", Kiln::Json::array()}, {"columns", columns}}}))[0]["rows"];
  }

 private:
  struct RpcClose {
    void operator()(jsonrpc* rpc) const { ovsc_jsonrpc_close(rpc); }
  };
  std::unique_ptr<jsonrpc, RpcClose> rpc_;
};

// The members of an OVSDB set value.
inline std::vector<Kiln::Json> members(const Kiln::Json& value) {
  if (value.is_array() && value.size() == 2 && value[0] == "set")
    return std::vector<Kiln::Json>(value[1].begin(), value[1].end());
  return {value};
}

inline Kiln::Json named(const std::string& name) { return Kiln::Json::array({"named-uuid", name}); }

}  // namespace Vgw::Bench
