// fabric-load: how long a whole fabric takes to appear for the controller
// through the agent, beside how long the database server takes to commit
// the same rows from a bare client.
//
// The program starts a private ovsdb-server with a hardware_vtep database
// (the test harness's). First a bare client in this process, with its own
// JSON-RPC connection, commits what the agent would write for the fabric in
// one transaction (every Physical_Port, Physical_Switch, the VTEPs' locators
// and Arp_Sources_Local rows, and Global's switches naming them) and then
// withdraws it (Global's switches emptied, the ARP sources deleted), timing
// both from request to reply. Then the agent starts in this process from the
// example configuration, as vgw-agent starts it, and each run loads the
// fabric into its state store as `vgwctl load` does (the topology with every
// host and its interfaces, and one VTEP status and one error status entry
// per switch) and measures:
//   load      the state store applying the document;
//   named     from the start of the load until the mirror's Global row,
//             which the agent updates from the server's reply, names every
//             switch; it includes the inventory's coalescing delay;
//   refresh   the part of `named` after that delay: the agent's own work and
//             its transactions;
// then removes the fabric from the store and times the same way until
// Global names none ("withdraw"). Every run checks in the database that each
// switch has its row, its ports, its tunnel address and its ARP source. Peak
// RSS growth is this process's high-water mark during the load over its
// resident size before it.
//
// All times are CLOCK_MONOTONIC. A fabric that does not appear within the
// time limit, or that the database holds wrongly, ends the program with
// status 1 saying what is missing.
#include <malloc.h>
#include <openvswitch/json.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "BareClient.h"
#include "BenchSupport.h"
#include "Kiln/System.h"
#include "Ovs/OvsHandles.h"
#include "Vgw/InventorySm.h"

namespace {

using Kiln::Json;
using Vgw::Bench::BareClient;
using Vgw::Bench::members;
using Vgw::Bench::named;
using Vgw::Bench::Failure;
using Vgw::Bench::msBetween;
using Vgw::Bench::nowNs;
using Vgw::Bench::statusKib;
using Vgw::Bench::turnUntil;

constexpr const char* usageText = R"(usage: fabric-load [--switches N] [--ports N] [--runs N] [--limit SECONDS]
Times the load of a fabric of N switches (default 500) with P Ethernet ports
each (default 48) into an in-process vgw agent until Global names every
switch, and its removal until Global names none, beside the same server
committing and withdrawing the same rows from a bare client; repeats it
(default 3 runs) and prints each run, the median and the spread. --limit
bounds the wait for one load (default 120 s). Set RINGTAPE_DISABLE to run
the agent without its ring trace.
)";

constexpr const char* topologyPath = "topology/version3/global/status";
constexpr const char* vtepStatusPath = "vxlan/version2/vtepStatusDir/switch/";
constexpr const char* errorStatusPath = "interface/status/vxlan/errorStatus/version2/ofc/switch/";

struct Options {
  std::uint32_t switches = 500;
  std::uint32_t ports = 48;
  std::uint32_t runs = 3;
  double limit = 120.0;
};

// ---- the fabric ---------------------------------------------------------------------------

// Switch n: its system id, hostname and addresses.
std::string byteText(std::uint32_t value) {
  char text[3];
  std::snprintf(text, sizeof text, "%02x", value & 0xff);
  return text;
}
std::string systemId(std::uint32_t n) { return "00:1c:73:00:" + byteText(n >> 8) + ":" + byteText(n); }
std::string vtepMac(std::uint32_t n) { return "00:1c:74:00:" + byteText(n >> 8) + ":" + byteText(n); }
std::string hostname(std::uint32_t n) { return "leaf" + std::to_string(n + 1); }
std::string address(const char* prefix, std::uint32_t n) {
  return std::string(prefix) + std::to_string(n >> 8) + "." + std::to_string(n & 0xff);
}
std::string mgmtIp(std::uint32_t n) { return address("192.168.", n); }
std::string vtepIp(std::uint32_t n) { return address("10.1.", n); }
std::string portName(std::uint32_t p) { return "Ethernet" + std::to_string(p + 1); }

// The fabric as a configuration document for the agent's state store.
Json fabricDocument(const Options& options) {
  Json hosts = Json::object();
  Json document = Json::object();
  for (std::uint32_t n = 0; n < options.switches; ++n) {
    Json ports = Json::object();
    for (std::uint32_t p = 0; p < options.ports; ++p) ports[portName(p)] = Json::object();
    hosts[systemId(n)] = {{"hostname", hostname(n)}, {"mgmtIp", {{mgmtIp(n), true}}}, {"logicalPort", ports}};
    document[vtepStatusPath + systemId(n)] = {
        {"@type", "OverlaySvc::VtepStatusDirV2"},
        {"vtepStatus",
         {{"Vxlan1", {{"linkStatus", "linkUp"}, {"vtepAddr", vtepIp(n)}, {"vtepLocalMac", vtepMac(n)}}}}}};
    document[errorStatusPath + systemId(n)] = {{"@type", "OverlaySvc::ErrorStatusV2"}};
  }
  document[topologyPath] = {{"convergenceStatus", {{"convergenceInProgress", false}}}, {"host", hosts}};
  return document;
}

// ---- the bare client's rows ---------------------------------------------------------------

// What the agent writes for the fabric, as one transaction.
Json bareInsert(const Options& options) {
  Json ops = Json::array({"hardware_vtep"});
  Json switches = Json::array();
  for (std::uint32_t n = 0; n < options.switches; ++n) {
    const std::string sw = "s" + std::to_string(n);
    Json ports = Json::array();
    for (std::uint32_t p = 0; p < options.ports; ++p) {
      const std::string port = sw + "p" + std::to_string(p);
      ops.push_back({{"op", "insert"},
                     {"table", "Physical_Port"},
                     {"uuid-name", port},
                     {"row", {{"name", portName(p)}, {"description", ""}}}});
      ports.push_back(named(port));
    }
    ops.push_back({{"op", "insert"},
                   {"table", "Physical_Switch"},
                   {"uuid-name", sw},
                   {"row",
                    {{"name", hostname(n)},
                     {"description", ""},
                     {"ports", Json::array({"set", ports})},
                     {"management_ips", mgmtIp(n)},
                     {"tunnel_ips", vtepIp(n)}}}});
    switches.push_back(named(sw));
    ops.push_back({{"op", "insert"},
                   {"table", "Physical_Locator"},
                   {"uuid-name", sw + "l"},
                   {"row", {{"encapsulation_type", "vxlan_over_ipv4"}, {"dst_ip", vtepIp(n)}}}});
    ops.push_back({{"op", "insert"},
                   {"table", "Arp_Sources_Local"},
                   {"row", {{"src_mac", vtepMac(n)}, {"locator", named(sw + "l")}}}});
  }
  ops.push_back({{"op", "update"},
                 {"table", "Global"},
                 {"where", Json::array()},
                 {"row", {{"switches", Json::array({"set", switches})}}}});
  return ops;
}

Json bareWithdraw() {
  return Json::array({"hardware_vtep",
                      {{"op", "update"},
                       {"table", "Global"},
                       {"where", Json::array()},
                       {"row", {{"switches", Json::array({"set", Json::array()})}}}},
                      {{"op", "delete"}, {"table", "Arp_Sources_Local"}, {"where", Json::array()}}});
}

// Checks, in the database, that every switch of the fabric is named in
// Global with its ports, tunnel address and ARP source.
void verifyFabric(BareClient& client, const Options& options) {
  const std::size_t globalSwitches = members(client.select("Global", {"switches"}).at(0)["switches"]).size();
  if (globalSwitches != options.switches) {
    throw Failure("Global names " + std::to_string(globalSwitches) + " switches, expected " +
                  std::to_string(options.switches));
  }
  std::map<std::string, std::string> portNames;
  for (const Json& row : client.select("Physical_Port", {"_uuid", "name"})) portNames[row["_uuid"][1]] = row["name"];
  std::map<std::string, Json> switches;
  for (const Json& row : client.select("Physical_Switch", {"name", "ports", "tunnel_ips"})) switches[row["name"]] = row;
  std::map<std::string, std::string> locators;
  for (const Json& row : client.select("Physical_Locator", {"_uuid", "dst_ip"}))
    locators[row["_uuid"][1]] = row["dst_ip"];
  std::map<std::string, std::string> arpSources;
  for (const Json& row : client.select("Arp_Sources_Local", {"src_mac", "locator"})) {
    arpSources[row["src_mac"]] = locators[row["locator"][1]];
  }
  for (std::uint32_t n = 0; n < options.switches; ++n) {
    const auto found = switches.find(hostname(n));
    if (found == switches.end()) throw Failure("switch " + hostname(n) + " is missing");
    const std::vector<Json> ports = members(found->second["ports"]);
    std::vector<std::string> names;
    for (const Json& port : ports) names.push_back(portNames[port[1]]);
    std::sort(names.begin(), names.end());
    std::vector<std::string> wanted;
    for (std::uint32_t p = 0; p < options.ports; ++p) wanted.push_back(portName(p));
    std::sort(wanted.begin(), wanted.end());
    if (names != wanted) throw Failure("switch " + hostname(n) + " has " + std::to_string(names.size()) + " ports");
    if (found->second["tunnel_ips"] != vtepIp(n)) throw Failure("switch " + hostname(n) + " has the wrong tunnel_ips");
    if (arpSources[vtepMac(n)] != vtepIp(n)) throw Failure("the ARP source of " + hostname(n) + " is missing or wrong");
  }
}

// ---- the agent's side -------------------------------------------------------------------------

// Stamps the moment the mirror's Global row names `expected` switches.
class GlobalSwitches : public Vgw::Global::NotifieeConst {
 public:
  void expect(std::size_t count) {
    expected_ = count;
    at_ = 0;
  }
  std::int64_t at() const { return at_; }
  void onPSwitch(const Vgw::Uuid&) override {
    if (!at_ && notifier()->pSwitch().size() == expected_) at_ = nowNs();
  }

 private:
  std::size_t expected_ = 0;
  std::int64_t at_ = 0;
};

// The agent from the example configuration, once its inventory exists.
Kiln::Ptr<Vgw::Agent> startAgent(Hearth::AgentRunner& runner, const Vgw::Test::OvsdbServer& server,
                                 const Options& options) {
  const Kiln::Ptr<Vgw::Agent> agent = Vgw::Bench::startAgent(runner, server, EXAMPLE_CONFIG);
  turnUntil(options.limit, "the agent's inventory", [&] {
    return agent->rootSm() && agent->rootSm()->inventorySm() && agent->status()->ovsdb() &&
           !agent->status()->ovsdb()->root().empty();
  });
  return agent;
}

// ---- the report ----------------------------------------------------------------------------------

Options parseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::cout << usageText;
      std::exit(0);
    }
    const bool known = arg == "--switches" || arg == "--ports" || arg == "--runs" || arg == "--limit";
    if (!known) throw std::invalid_argument("unexpected argument " + std::string(arg));
    if (i + 1 >= argc) throw std::invalid_argument(std::string(arg) + " needs a value");
    const char* value = argv[++i];
    if (arg == "--switches") {
      options.switches = Vgw::Bench::wholeNumber("--switches", value, 1, 65535);
    } else if (arg == "--ports") {
      options.ports = Vgw::Bench::wholeNumber("--ports", value, 1, 1000);
    } else if (arg == "--runs") {
      options.runs = Vgw::Bench::wholeNumber("--runs", value, 1, 1000);
    } else {
      options.limit = Vgw::Bench::wholeNumber("--limit", value, 1, 100000);
    }
  }
  return options;
}

int run(const Options& options) {
  Vgw::Test::OvsdbServer server;
  setenv("RINGTAPEDIR", server.directory().c_str(), 0);
  setenv("VGW_TAPELOCK_FILEPATH", (server.directory() / "Vgw-tape.lock").c_str(), 0);
  std::printf("fabric-load: %u switches with %u ports each, %u runs\n", options.switches, options.ports, options.runs);
  std::printf("agent in-process on this event loop (ring trace %s); bare client in this process before the agent\n\n",
              std::getenv("RINGTAPE_DISABLE") ? "off" : "on");

  BareClient client(server.target());
  const Ovs::JsonPtr insertAll(json_from_string(bareInsert(options).dump().c_str()));
  const Ovs::JsonPtr withdrawAll(json_from_string(bareWithdraw().dump().c_str()));
  // The bare client's commit and withdrawal of each run.
  std::vector<std::pair<double, double>> bare(options.runs);
  for (auto& [commit, withdraw] : bare) {
    client.transact(insertAll.get(), &commit);
    verifyFabric(client, options);
    client.transact(withdrawAll.get(), &withdraw);
  }

  Hearth::AgentRunner runner("Vgw");
  const Kiln::Ptr<Vgw::Agent> agent = startAgent(runner, server, options);
  Ledger::EntityManager& store = *runner.localEntityManager();
  const Kiln::Ptr<Vgw::HwVtepOvsdb> mirror = agent->status()->ovsdb();
  GlobalSwitches global;
  global.notifierIs(mirror->root().begin()->second);
  const Json fabric = fabricDocument(options);

  Vgw::Bench::RunTable table({{"load ms", 1},
                              {"named ms", 1},
                              {"refresh ms", 1},
                              {"bare commit ms", 1},
                              {"refresh/bare", 2},
                              {"withdraw ms", 1},
                              {"bare withdraw ms", 1},
                              {"RSS growth MiB", 1}});
  for (const auto& [bareCommit, bareWithdraw] : bare) {
    malloc_trim(0);
    Vgw::Bench::resetPeakRss();
    const long before = statusKib("VmRSS:");
    global.expect(options.switches);
    const std::int64_t start = nowNs();
    store.loadDocument(fabric);
    const std::int64_t loaded = nowNs();
    const double delay = agent->rootSm()->inventorySm()->refreshTime() - Kiln::System::currentTime();
    turnUntil(options.limit, "Global naming all " + std::to_string(options.switches) + " switches",
              [&] { return global.at() != 0; });
    const long peak = statusKib("VmHWM:");
    const double refresh = msBetween(loaded, global.at()) - delay * 1e3;
    const std::int64_t named = global.at();
    verifyFabric(client, options);

    global.expect(0);
    const std::int64_t removing = nowNs();
    store.write(topologyPath, {{"convergenceStatus", {{"convergenceInProgress", false}}}, {"host", Json::object()}},
                Ledger::Writer::external);
    for (std::uint32_t n = 0; n < options.switches; ++n) {
      store.remove(vtepStatusPath + systemId(n), Ledger::Writer::external);
      store.remove(errorStatusPath + systemId(n), Ledger::Writer::external);
    }
    turnUntil(options.limit, "Global naming no switch", [&] { return global.at() != 0; });
    table.add({msBetween(start, loaded), msBetween(start, named), refresh, bareCommit, refresh / bareCommit,
               msBetween(removing, global.at()), bareWithdraw, static_cast<double>(peak - before) / 1024.0});
    if (!client.select("Arp_Sources_Local", {"_uuid"}).empty()) throw Failure("ARP sources stay after the removal");
    // The database collects the ports and the VTEPs' locators; the next run
    // starts once the mirror has heard of it, as it would have in the time a
    // fabric takes to come back.
    turnUntil(options.limit, "the mirror's removal of the ports and locators",
              [&] { return mirror->physicalPort().empty() && mirror->physicalLocatorRaw().empty(); });
  }
  if (const std::uint64_t drops = agent->status()->ovsdbSessionStatus()->disconnectCount()) {
    throw Failure("the agent's session dropped " + std::to_string(drops) +
                  " times: " + agent->status()->ovsdbSessionStatus()->lastResult().stringValue());
  }
  table.print();
  std::printf(
      "\nnamed: from the load to Global naming every switch, with the inventory's %.1f s coalescing delay;\n"
      "refresh: the same without the load and the delay; withdraw: from the removal to Global naming\n"
      "none, with the delay; every run's switches, ports, tunnel addresses\n"
      "and ARP sources were checked in the database\n",
      Vgw::InventorySm::defaultCoalesceInterval);
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return Vgw::Bench::benchMain("fabric-load", argc, argv, parseOptions, run); }
