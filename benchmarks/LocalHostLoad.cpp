// local-host-load: how long the fabric's own hosts take to reach the
// controller through the agent, beside a bare client inserting the same
// rows into the same server in batches of the same size.
//
// The program starts a private ovsdb-server with a hardware_vtep database
// (the test harness's) and, as the controller would, gives it one logical
// switch per VNI. First a bare client in this process, with its own JSON-RPC
// connection, inserts one Ucast_Macs_Local row per host in transactions of
// --max-ops rows each, one after the other as the agent sends them (the
// first also inserts the VTEPs' locators), and then deletes them all in one
// transaction; each timed from the first request to the last reply. Then the
// agent starts in this process from the example configuration, with maxOps
// set to the same size, and each run writes the hosts into the overlay
// service's VNI status entries in its state store, as a feeder's `vgwctl
// load` does, and measures:
//   load       the state store applying the document (the worker has not
//              run yet: notifications only mark the backlog);
//   committed  from the start of the load until the working data holds
//              every row, which happens as the server's replies come in;
//   worker     the part of `committed` after the load;
//   txns       the transactions the worker sent;
// then removes the VNI entries and times until every row is gone
// ("withdraw"). Every run checks the row count in the database. RSS growth
// is this process's high-water mark during the run over its resident size
// before it.
//
// All times are CLOCK_MONOTONIC. Rows that do not appear within the time
// limit, or a wrong count, end the program with status 1.
#include <malloc.h>
#include <stdlib.h>

#include <cstdio>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

#include "BareClient.h"
#include "BenchSupport.h"
#include "Vgw/LocalHostSm.h"

namespace {

using Kiln::Json;
using Vgw::Bench::BareClient;
using Vgw::Bench::Failure;
using Vgw::Bench::msBetween;
using Vgw::Bench::named;
using Vgw::Bench::nowNs;
using Vgw::Bench::statusKib;
using Vgw::Bench::turnUntil;

constexpr const char* usageText = R"(usage: local-host-load [--hosts N] [--vnis N] [--vteps N] [--max-ops N] [--runs N] [--limit SECONDS]
Times N local hosts (default 100000) spread over V VNIs (default 100) behind
T fabric VTEPs (default 16) from the overlay service's entries to committed
Ucast_Macs_Local rows through an in-process vgw agent whose maxOps is M
(default 1000), and their removal, beside a bare client inserting the same
rows in transactions of M rows into the same server; repeats it (default 3
runs) and prints each run, the median and the spread. --limit bounds each
wait (default 300 s). Set RINGTAPE_DISABLE to run the agent without its ring
trace.
)";

constexpr const char* vniStatusDirPath = "overlaysvc/version2/vgw/vniStatusDir";
constexpr std::uint32_t firstVni = 10000;

struct Options {
  std::uint32_t hosts = 100000;
  std::uint32_t vnis = 100;
  std::uint32_t vteps = 16;
  std::uint32_t maxOps = 1000;
  std::uint32_t runs = 3;
  double limit = 300.0;
};

// Host n: its MAC, VNI and VTEP.
std::string hostMac(std::uint32_t n) {
  char text[18];
  std::snprintf(text, sizeof text, "02:00:%02x:%02x:%02x:%02x", (n >> 24) & 0xff, (n >> 16) & 0xff, (n >> 8) & 0xff,
                n & 0xff);
  return text;
}
std::uint32_t hostVni(const Options& options, std::uint32_t n) { return firstVni + n % options.vnis; }
std::string vtepIp(const Options& options, std::uint32_t n) {
  return "10.0." + std::to_string((n % options.vteps) / 250) + "." + std::to_string((n % options.vteps) % 250 + 1);
}

// The overlay service's entries, as a configuration document of the store.
Json serviceDocument(const Options& options) {
  std::map<std::uint32_t, Json> tables;
  for (std::uint32_t n = 0; n < options.hosts; ++n) {
    const std::string mac = hostMac(n);
    tables[hostVni(options, n)][mac] = {{"mac", mac}, {"vtepIp", vtepIp(options, n)}};
  }
  Json entries = Json::object();
  for (auto& [vni, table] : tables) entries[std::to_string(vni)] = {{"macVtepTable", table}};
  return {{vniStatusDirPath, {{"vniStatusV2", entries}}}};
}

// The controller's logical switches, one per VNI; their uuids by VNI.
std::map<std::uint32_t, std::string> addLogicalSwitches(BareClient& client, const Options& options) {
  Json ops = Json::array({"hardware_vtep"});
  for (std::uint32_t i = 0; i < options.vnis; ++i) {
    ops.push_back({{"op", "insert"},
                   {"table", "Logical_Switch"},
                   {"uuid-name", "ls" + std::to_string(i)},
                   {"row", {{"name", "ls" + std::to_string(i)}, {"tunnel_key", firstVni + i}}}});
  }
  const Json results = client.transact(ops);
  std::map<std::uint32_t, std::string> out;
  for (std::uint32_t i = 0; i < options.vnis; ++i) out[firstVni + i] = results.at(i)["uuid"][1];
  return out;
}

// The bare client's inserts in transactions of maxOps rows; the time from
// the first request to the last reply.
double bareInsert(BareClient& client, const Options& options, const std::map<std::uint32_t, std::string>& switches) {
  std::map<std::string, Json> locators;
  double total = 0;
  for (std::uint32_t first = 0; first < options.hosts; first += options.maxOps) {
    Json ops = Json::array({"hardware_vtep"});
    std::map<std::size_t, std::string> inserted;
    const std::uint32_t end = std::min(options.hosts, first + options.maxOps);
    for (std::uint32_t n = first; n < end; ++n) {
      const std::string vtep = vtepIp(options, n);
      if (!locators.contains(vtep)) {
        const std::string name = "loc" + std::to_string(locators.size());
        inserted[ops.size() - 1] = vtep;
        ops.push_back({{"op", "insert"},
                       {"table", "Physical_Locator"},
                       {"uuid-name", name},
                       {"row", {{"encapsulation_type", "vxlan_over_ipv4"}, {"dst_ip", vtep}}}});
        locators[vtep] = named(name);
      }
      ops.push_back({{"op", "insert"},
                     {"table", "Ucast_Macs_Local"},
                     {"row",
                      {{"MAC", hostMac(n)},
                       {"logical_switch", Json::array({"uuid", switches.at(hostVni(options, n))})},
                       {"locator", locators[vtep]}}}});
    }
    double took = 0;
    const Json results = client.transact(ops, &took);
    total += took;
    for (const auto& [index, vtep] : inserted) locators[vtep] = Json::array({"uuid", results.at(index)["uuid"][1]});
  }
  return total;
}

std::size_t databaseRows(BareClient& client) { return client.select("Ucast_Macs_Local", {"_uuid"}).size(); }

std::size_t workingRows(const Vgw::LocalData& local) {
  std::size_t rows = 0;
  for (const auto& [vni, table] : local.ucastMacsLocalTable()) rows += table->ucastMacsLocal().size();
  return rows;
}

Options parseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::cout << usageText;
      std::exit(0);
    }
    std::uint32_t* target = arg == "--hosts"     ? &options.hosts
                            : arg == "--vnis"    ? &options.vnis
                            : arg == "--vteps"   ? &options.vteps
                            : arg == "--max-ops" ? &options.maxOps
                            : arg == "--runs"    ? &options.runs
                                                 : nullptr;
    if (!target && arg != "--limit") throw std::invalid_argument("unexpected argument " + std::string(arg));
    if (i + 1 >= argc) throw std::invalid_argument(std::string(arg) + " needs a value");
    const char* value = argv[++i];
    if (!target) {
      options.limit = Vgw::Bench::wholeNumber("--limit", value, 1, 100000);
    } else if (target == &options.maxOps) {
      *target = Vgw::Bench::wholeNumber("--max-ops", value, 1, 65535);
    } else if (target == &options.vteps) {
      *target = Vgw::Bench::wholeNumber("--vteps", value, 1, 2500);
    } else {
      *target = Vgw::Bench::wholeNumber(std::string(arg).c_str(), value, 1, 10000000);
    }
  }
  return options;
}

int run(const Options& options) {
  Vgw::Test::OvsdbServer server;
  setenv("RINGTAPEDIR", server.directory().c_str(), 0);
  setenv("VGW_TAPELOCK_FILEPATH", (server.directory() / "Vgw-tape.lock").c_str(), 0);
  std::printf("local-host-load: %u hosts over %u VNIs behind %u VTEPs, %u items a transaction, %u runs\n",
              options.hosts, options.vnis, options.vteps, options.maxOps, options.runs);
  std::printf("agent in-process on this event loop (ring trace %s); bare client in this process before the agent\n\n",
              std::getenv("RINGTAPE_DISABLE") ? "off" : "on");

  BareClient client(server.target());
  const std::map<std::uint32_t, std::string> switches = addLogicalSwitches(client, options);
  const Json deleteAll = Json::array(
      {"hardware_vtep", {{"op", "delete"}, {"table", "Ucast_Macs_Local"}, {"where", Json::array()}}});
  std::vector<std::pair<double, double>> bare(options.runs);
  for (auto& [commit, withdraw] : bare) {
    commit = bareInsert(client, options, switches);
    if (databaseRows(client) != options.hosts) throw Failure("the bare client's rows are not all there");
    client.transact(deleteAll, &withdraw);
  }

  Hearth::AgentRunner runner("Vgw");
  const Kiln::Ptr<Vgw::Agent> agent = Vgw::Bench::startAgent(runner, server, EXAMPLE_CONFIG);
  Ledger::EntityManager& store = *runner.localEntityManager();
  store.write("vgw/cliconfig/maxOps", Json(options.maxOps), Ledger::Writer::external);
  const Kiln::Ptr<Vgw::LocalData> local = Kiln::Entity::singletonIs<Vgw::LocalData>();
  turnUntil(options.limit, "the agent's local host machine and the controller's switches", [&] {
    return agent->rootSm() && agent->rootSm()->localHostSm() && local->vniToLogicalSwitch().size() == options.vnis;
  });
  const Kiln::Ptr<Vgw::LocalHostSm> localHost = agent->rootSm()->localHostSm();
  const Json service = serviceDocument(options);

  Vgw::Bench::RunTable table({{"load ms", 1},
                              {"committed ms", 1},
                              {"worker ms", 1},
                              {"bare ms", 1},
                              {"committed/bare", 2},
                              {"txns", 0},
                              {"bare txns", 0},
                              {"withdraw ms", 1},
                              {"bare withdraw ms", 1},
                              {"RSS growth MiB", 1}});
  const double bareTxns = (options.hosts + options.maxOps - 1) / options.maxOps;
  for (const auto& [bareCommit, bareWithdraw] : bare) {
    malloc_trim(0);
    Vgw::Bench::resetPeakRss();
    const long before = statusKib("VmRSS:");
    const std::uint64_t txnsBefore = localHost->transactions();
    const std::int64_t start = nowNs();
    store.loadDocument(service);
    const std::int64_t loaded = nowNs();
    turnUntil(options.limit, std::to_string(options.hosts) + " committed rows",
              [&] { return workingRows(*local) == options.hosts; });
    const std::int64_t committed = nowNs();
    const long peak = statusKib("VmHWM:");
    const double txns = static_cast<double>(localHost->transactions() - txnsBefore);
    if (const std::size_t rows = databaseRows(client); rows != options.hosts) {
      throw Failure("the database holds " + std::to_string(rows) + " rows, expected " + std::to_string(options.hosts));
    }

    const std::int64_t removing = nowNs();
    store.write(vniStatusDirPath, {{"vniStatusV2", Json::object()}}, Ledger::Writer::external);
    turnUntil(options.limit, "the removal of every row", [&] { return workingRows(*local) == 0; });
    const std::int64_t removed = nowNs();
    if (databaseRows(client) != 0) throw Failure("rows stay in the database after the removal");
    const double total = msBetween(start, committed);
    table.add({msBetween(start, loaded), total, msBetween(loaded, committed), bareCommit, total / bareCommit, txns,
               bareTxns, msBetween(removing, removed), bareWithdraw, static_cast<double>(peak - before) / 1024.0});
  }
  if (const std::uint64_t drops = agent->status()->ovsdbSessionStatus()->disconnectCount()) {
    throw Failure("the agent's session dropped " + std::to_string(drops) + " times");
  }
  table.print();
  std::printf(
      "\ncommitted: from the start of the load until the agent's working data holds every row, which\n"
      "it fills from the server's replies; worker: the same after the load; bare: the bare client's\n"
      "transactions of the same size; every run's row count was checked in the database\n");
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return Vgw::Bench::benchMain("local-host-load", argc, argv, parseOptions, run); }
