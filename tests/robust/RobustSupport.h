// What the robustness tests share: the whole agent in-process on the example
// configuration against a private ovsdb-server, the number of iterations a
// run makes, and the three-way check that the database, the agent's mirror
// and what it publishes towards the fabric agree.
//
// The published state that the database calls for is computed here from the
// server's rows by the rules the agent promises, independently of how it
// computes them: a VNI is published when exactly one logical switch holds it;
// a remote row of the zero MAC (or of text that is no MAC) binds nothing;
// a remote host goes out behind its locator's IPv4 VTEP unless that is
// loopback or names no IPv4 VTEP (IPv6, all zero, text that is no address);
// an address goes out with its MAC unless its locator is loopback; a flood
// set goes out with its members' IPv4 VTEPs, and not at all without one;
// ARP sources with a MAC and an IPv4 VTEP reach every published VNI.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>

#include "Hearth/AgentRunner.h"
#include "SessionSupport.h"
#include "Vgw/VgwAgent.h"
#include "Vgw/VgwUtils.h"

namespace Vgw::Test {

// VGW_ROBUST_ITERATIONS, for longer runs by hand; `fallback` otherwise.
inline int robustIterations(int fallback) {
  const char* text = std::getenv("VGW_ROBUST_ITERATIONS");
  const int n = text ? std::atoi(text) : 0;
  return n > 0 ? n : fallback;
}

// Runs a transaction too large for a command line on a connection of its
// own, as a controller would; true when every operation succeeded.
inline bool transactLarge(OvsdbServer& server, const Kiln::Json& ops) {
  Kiln::Json params = Kiln::Json::array({"hardware_vtep"});
  for (const Kiln::Json& op : ops) params.push_back(op);
  stream* connected = nullptr;
  if (ovsc_jsonrpc_stream_open_block(server.target().c_str(), 0, 10000, &connected)) return false;
  jsonrpc* rpc = ovsc_jsonrpc_open(connected);
  jsonrpc_msg* raw = nullptr;
  const int error = ovsc_jsonrpc_transact_timed(
      rpc, ovsc_jsonrpc_create_request("transact", parseJson(params.dump()).release(), nullptr), 60000, &raw);
  const Ovs::JsonRpcMsgPtr reply(raw);
  ovsc_jsonrpc_close(rpc);
  const json* result = reply ? ovsc_jsonrpc_msg_result(reply.get()) : nullptr;
  return !error && result && toText(result).find("\"error\"") == std::string::npos;
}

// The agent as vgw-agent runs it, in this process, with its store.
class AgentUnderTest {
 public:
  AgentUnderTest(LoopRunner& loop, OvsdbServer& server) : loop_(loop), server_(server) {
    setenv("RINGTAPEDIR", server.directory().c_str(), 1);
    setenv("VGW_TAPELOCK_FILEPATH", (server.directory() / "tape.lock").c_str(), 1);
  }

  // Starts a fresh agent and waits for its converged session.
  void start(double deadline = 10.0) {
    freshLocalData();
    runner_ = std::make_unique<Hearth::AgentRunner>("VgwRobustTest");
    Ledger::EntityManager& store = *runner_->localEntityManager();
    typeAgentPaths(store);
    declareConfigRules(store);
    std::ifstream example(EXAMPLE_CONFIG);
    Kiln::Json document = Kiln::Json::parse(std::string(std::istreambuf_iterator<char>(example), {}));
    document["vgw/config"]["ovsdbSocketPath"] = server_.socketPath();
    document["vgw/config"]["ovsdbDeadline"] = deadline;
    store.loadDocument(document);
    agent_ = Kiln::staticPtrCast<Agent>(runner_->agentIs(agentFactory));
    ASSERT_TRUE(loop_.runUntil([&] { return converged(); })) << "the agent did not reach a converged session";
  }
  void stop() {
    agent_ = nullptr;
    runner_.reset();
    RingTape::close();
  }

  const Kiln::Ptr<Agent>& agent() const { return agent_; }
  Ledger::EntityManager& store() const { return *runner_->localEntityManager(); }
  SessionState state() const {
    const Kiln::Ptr<OvsdbSessionStatus> status = agent_->status()->ovsdbSessionStatus();
    return status ? status->sessionState() : SessionState::stateInit;
  }
  bool converged() const {
    const Kiln::Ptr<RootSm>& root = agent_->rootSm();
    return root && root->cliConfigSm() && root->remoteHostSm() && state() == SessionState::stateConnected;
  }
  Kiln::Ptr<HwVtepOvsdb> mirror() const { return agent_->status()->ovsdb(); }
  Kiln::Ptr<OverlaySvc::VniStatusDirV2> published() const {
    return store().getEntity<OverlaySvc::VniStatusDirV2>("vgw/version2/vniStatusDir");
  }

 private:
  LoopRunner& loop_;
  OvsdbServer& server_;
  std::unique_ptr<Hearth::AgentRunner> runner_;
  Kiln::Ptr<Agent> agent_;
};

// What one VNI should publish.
struct ExpectedVni {
  std::map<Ipkit::EthAddr, Ipkit::IpAddr> hosts;
  std::map<Ipkit::IpGenAddr, Ipkit::EthAddr> addresses;
  std::map<Ipkit::EthAddr, std::set<Ipkit::IpAddr>> floods;
  bool operator==(const ExpectedVni&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const ExpectedVni& v) {
  out << "{hosts";
  for (const auto& [m, ip] : v.hosts) out << " " << m << ">" << ip;
  out << "; addresses";
  for (const auto& [ip, m] : v.addresses) out << " " << ip << ">" << m;
  out << "; floods";
  for (const auto& [m, ips] : v.floods) {
    out << " " << m << ">";
    for (const auto& ip : ips) out << ip << ",";
  }
  return out << "}";
}

// The published state the server's rows call for, VNI by VNI.
inline std::map<std::uint32_t, ExpectedVni> publishedFor(Controller& db) {
  const auto text = [](const Kiln::Json& value) { return value.is_string() ? value.get<std::string>() : std::string(); };
  const auto refOf = [](const Kiln::Json& value) { return value.is_array() && value.size() == 2 && value[0] == "uuid" ? uuidOf(value) : Uuid(); };
  std::map<Uuid, Ipkit::IpGenAddr> vtep;
  for (const Kiln::Json& row : db.rows("Physical_Locator")) vtep[uuidOf(row["_uuid"])] = toIpGenAddr(text(row["dst_ip"]));
  const auto fabricVtep = [&](const Uuid& locator) {
    const Ipkit::IpGenAddr& address = vtep[locator];
    return address.isV4() && !address.v4Addr().isAny();
  };
  std::map<Uuid, std::uint32_t> keyOf;
  std::map<std::uint32_t, int> claims;
  for (const Kiln::Json& row : db.rows("Logical_Switch")) {
    const Kiln::Json& key = row["tunnel_key"];
    if (!key.is_number_integer() || text(row["name"]) == "_nvp_internal") continue;
    const std::int64_t value = key.get<std::int64_t>();
    if (value < 0 || value > 0xffffff) continue;
    keyOf[uuidOf(row["_uuid"])] = static_cast<std::uint32_t>(value);
    ++claims[static_cast<std::uint32_t>(value)];
  }
  std::map<std::uint32_t, ExpectedVni> out;
  for (const auto& [vni, count] : claims) {
    if (count == 1) out[vni];
  }
  const auto published = [&](const Kiln::Json& logicalSwitch) -> ExpectedVni* {
    const auto key = keyOf.find(refOf(logicalSwitch));
    if (key == keyOf.end()) return nullptr;
    const auto entry = out.find(key->second);
    return entry == out.end() ? nullptr : &entry->second;
  };
  const auto macOf = [&](const Kiln::Json& row) {
    const std::string m = text(row["MAC"]);
    return m.starts_with("unknown-dst") ? Ipkit::EthAddr() : toEthAddr(m);
  };
  for (const Kiln::Json& row : db.rows("Ucast_Macs_Remote")) {
    ExpectedVni* vni = published(row["logical_switch"]);
    if (!vni) continue;
    const Uuid locator = refOf(row["locator"]);
    const Ipkit::IpGenAddr& address = vtep[locator];
    if (macOf(row).isZero()) continue;
    if (fabricVtep(locator) && !address.isLoopback()) vni->hosts[macOf(row)] = address.v4Addr();
    const Ipkit::IpGenAddr ip = toIpGenAddr(text(row["ipaddr"]));
    if (!ip.isEmpty() && !address.isLoopback()) vni->addresses[ip] = macOf(row);
  }
  std::map<Uuid, std::set<Uuid>> sets;
  for (const Kiln::Json& row : db.rows("Physical_Locator_Set")) {
    const Kiln::Json& locators = row["locators"];
    std::set<Uuid>& members = sets[uuidOf(row["_uuid"])];
    if (locators.is_array() && locators[0] == "set") {
      for (const Kiln::Json& member : locators[1]) members.insert(refOf(member));
    } else {
      members.insert(refOf(locators));
    }
  }
  for (const Kiln::Json& row : db.rows("Mcast_Macs_Remote")) {
    ExpectedVni* vni = published(row["logical_switch"]);
    if (!vni) continue;
    std::set<Ipkit::IpAddr> vteps;
    for (const Uuid& locator : sets[refOf(row["locator_set"])]) {
      if (fabricVtep(locator)) vteps.insert(vtep[locator].v4Addr());
    }
    if (!vteps.empty()) vni->floods[macOf(row)] = vteps;
  }
  for (const Kiln::Json& row : db.rows("Arp_Sources_Remote")) {
    const Ipkit::EthAddr m = toEthAddr(text(row["src_mac"]));
    const Uuid locator = refOf(row["locator"]);
    if (m.isZero() || !fabricVtep(locator)) continue;
    for (auto& [number, vni] : out) vni.hosts[m] = vtep[locator].v4Addr();
  }
  return out;
}

// What the agent publishes, in the same form.
inline std::map<std::uint32_t, ExpectedVni> publishedBy(const OverlaySvc::VniStatusDirV2& dir) {
  std::map<std::uint32_t, ExpectedVni> out;
  for (const auto& [vni, status] : dir.vniStatusV2()) {
    ExpectedVni& entry = out[vni.value()];
    for (const auto& [m, host] : status->macVtepTable()) entry.hosts[m] = host.vtepIp();
    for (const auto& [ip, address] : status->ipToMacTable()) entry.addresses[ip] = address.mac();
    for (const auto& [m, list] : status->macVtepFloodListTable()) entry.floods[m] = keysOf(list->vtepIpFloodList());
    for (const auto& [m, paths] : status->macVtepMultiPathTable()) entry.floods[m] = keysOf(paths.vtepIpList());
  }
  return out;
}

// The three-way check, on a settled agent: connected, its mirror holding
// what the server holds, and publishing what the server's rows call for.
inline void expectThreeWayAgreement(Controller& db, const AgentUnderTest& agent) {
  ASSERT_EQ(agent.state(), SessionState::stateConnected);
  expectMirrorMatchesServer(db, *agent.mirror());
  const auto wanted = publishedFor(db);
  const auto seen = publishedBy(*agent.published());
  EXPECT_EQ(keysOf(seen), keysOf(wanted)) << "published VNIs";
  for (const auto& [vni, entry] : wanted) {
    const auto it = seen.find(vni);
    if (it != seen.end()) {
      EXPECT_EQ(it->second, entry) << "VNI " << vni;
    }
  }
}

}  // namespace Vgw::Test
