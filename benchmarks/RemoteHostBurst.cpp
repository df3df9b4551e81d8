// remote-host-burst: how long a controller's burst of remote hosts takes to
// reach the fabric through the agent, beside how long the database server
// takes to hand the same rows to a client that only reads them.
//
// The program starts a private ovsdb-server with a hardware_vtep database
// (the test harness's) and two helper processes, each with its own JSON-RPC
// connection through the C layer: the controller, which writes, and a bare
// monitor client, which subscribes to Ucast_Macs_Remote with the columns the
// agent asks for and does nothing but receive and parse. The controller
// creates a logical switch with a tunnel key and one locator per VTEP (held
// by the switch's unknown-dst row). Then the agent starts in this process,
// from the example configuration as vgw-agent starts it, and publishes the
// switch's VNI. Each run then has the controller insert the hosts' rows,
// with addresses and spread over the VTEPs, in one transaction, and measures
// from the transaction's reply:
//   agent    until the last host is in the VNI's macVtepTable, and the
//            stages of that time: receive and parse (until the agent holds
//            the whole update, parsed), rows (the update's rows applied to
//            the mirror), table (the rows folded into the remote host
//            table), publish (until the last host is published);
//   monitor  until the bare client holds the whole update, parsed;
// checks every published entry against its row, and reads the heap the
// agent keeps per host beyond its size before the burst. Then the reconnect:
// the bare client takes the initial dump of the remote MAC, locator and
// logical switch tables on a new connection, timed from its request to the
// parsed reply; the agent is disabled and enabled again, and timed from the
// enable (its new subscription) to the last host published again. Last the
// controller deletes all the rows in one transaction, timed as the insert
// until the table is empty. Peak RSS growth is this process's high-water
// mark during the insert over its resident size before it.
//
// The agent runs in-process, on this process's event loop, so that a reactor
// on the published VniStatusV2 stamps the very write that completes the
// table and adds nothing to the agent's path (a control-socket watch would
// make the agent serialize every change). The helpers are forked before the
// agent exists: they share neither its memory nor its CPU time, and this
// process's RSS and heap are the agent's. All times are CLOCK_MONOTONIC,
// which the processes share.
//
// A host that is not published within the time limit, or whose entry
// differs from its row, ends the program with status 1 naming it.
#include <fcntl.h>
#include <malloc.h>
#include <openvswitch/json.h>
#include <openvswitch/shash.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "BenchHosts.h"
#include "BenchSupport.h"
#include "Hearth/AgentRunner.h"
#include "Ovs/OvsHandles.h"
#include "OvsdbServer.h"
#include "Vgw/VgwAgent.h"

namespace {

using Kiln::Json;
using Vgw::Bench::hostIp;
using Vgw::Bench::hostMac;
using Vgw::Bench::vtepIp;

constexpr const char* usageText = R"(usage: remote-host-burst [--hosts N] [--vteps N] [--runs N] [--limit SECONDS]
Times a controller transaction of N remote hosts (default 10000, over 32
VTEPs) through an in-process vgw agent into its VNI status, beside the same
server's delivery of the rows to a bare monitor client, and the agent's
reconnect to a database holding them beside a bare client's initial dump;
repeats it (default 5 runs) and prints each run, the median and the spread.
--limit bounds the wait for one burst (default 120 s). Set RINGTAPE_DISABLE
to run the agent without its ring trace.
)";

const Vxlan::Vni burstVni(5000);

struct Options {
  std::uint32_t hosts = 10000;
  std::uint32_t vteps = 32;
  std::uint32_t runs = 5;
  double limit = 120.0;
};

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

double msBetween(std::int64_t from, std::int64_t to) { return static_cast<double>(to - from) / 1e6; }

// ---- helper processes ------------------------------------------------------------------

void writeLine(int fd, const std::string& line) {
  const std::string text = line + "\n";
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

// Lines from a pipe: next() gives a complete line, or nothing when none is
// there yet; closed() once the writer is gone and every line was taken.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd) {}
  std::optional<std::string> next() {
    for (;;) {
      if (const std::size_t end = buffer_.find('\n'); end != std::string::npos) {
        std::string line = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        return line;
      }
      char chunk[4096];
      const ssize_t n = ::read(fd_, chunk, sizeof chunk);
      if (n > 0) {
        buffer_.append(chunk, static_cast<std::size_t>(n));
        continue;
      }
      if (n == 0) closed_ = true;
      return std::nullopt;
    }
  }
  bool closed() const { return closed_; }
  int fd() const { return fd_; }

 private:
  int fd_;
  std::string buffer_;
  bool closed_ = false;
};

// A forked helper that takes command lines and answers with result lines.
// The child runs `body` with its command reader (blocking) and its result
// descriptor, and ends when the body returns or throws ("error <text>").
// A helper holds nothing that needs cleaning up, so the parent ends it with
// SIGTERM, whatever it is doing.
class Helper {
 public:
  using Body = std::function<void(LineReader& commands, int results)>;

  Helper(std::string name, const Body& body) : name_(std::move(name)) {
    int commands[2];
    int results[2];
    if (::pipe2(commands, O_CLOEXEC) != 0 || ::pipe2(results, O_CLOEXEC) != 0) {
      throw Failure("pipe: " + std::string(std::strerror(errno)));
    }
    pid_ = ::fork();
    if (pid_ < 0) throw Failure("fork: " + std::string(std::strerror(errno)));
    if (pid_ == 0) {
      ::close(commands[1]);
      ::close(results[0]);
      ovsc_fatal_signal_disable();
      int status = 0;
      try {
        LineReader reader(commands[0]);
        body(reader, results[1]);
      } catch (const std::exception& e) {
        writeLine(results[1], std::string("error ") + e.what());
        status = 1;
      }
      ::_exit(status);
    }
    ::close(commands[0]);
    ::close(results[1]);
    toChild_ = commands[1];
    fromChild_ = results[0];
    ::fcntl(fromChild_, F_SETFL, O_NONBLOCK);
    reader_ = std::make_unique<LineReader>(fromChild_);
  }
  ~Helper() {
    ::close(toChild_);
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
    ::close(fromChild_);
  }
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;

  void send(const std::string& line) const { writeLine(toChild_, line); }

  // The next result line, or nothing yet. A helper that failed or went away
  // ends the benchmark.
  std::optional<std::string> result() {
    std::optional<std::string> line = reader_->next();
    if (line && line->starts_with("error ")) throw Failure(name_ + ": " + line->substr(6));
    if (!line && reader_->closed()) throw Failure(name_ + " ended unexpectedly");
    return line;
  }

 private:
  std::string name_;
  pid_t pid_ = -1;
  int toChild_ = -1;
  int fromChild_ = -1;
  std::unique_ptr<LineReader> reader_;
};

// Blocking read of one command in a helper; nothing when the parent closed.
std::optional<std::string> nextCommand(LineReader& commands) {
  for (;;) {
    if (std::optional<std::string> line = commands.next()) return line;
    if (commands.closed()) return std::nullopt;
  }
}

// ---- JSON-RPC in the helpers --------------------------------------------------------------

struct RpcClose {
  void operator()(jsonrpc* rpc) const { ovsc_jsonrpc_close(rpc); }
};
using Rpc = std::unique_ptr<jsonrpc, RpcClose>;

Rpc connect(const std::string& target) {
  stream* s = nullptr;
  if (const int error = ovsc_jsonrpc_stream_open_block(target.c_str(), 0, 10000, &s)) {
    throw Failure("cannot connect to " + target + ": " + std::strerror(error));
  }
  return Rpc(ovsc_jsonrpc_open(s));
}

std::string text(const json* value) {
  const Ovs::CString printed(json_to_string(value, 0));
  return printed.get();
}

// The times a request went out and its reply came in, taken right at the
// call, so that building and reading the JSON stay outside them.
struct Exchange {
  std::int64_t sent = 0;
  std::int64_t replied = 0;
};

// One request, taking `params`, and its result.
Json call(jsonrpc* rpc, const char* method, json* params, Exchange* times = nullptr) {
  jsonrpc_msg* request = ovsc_jsonrpc_create_request(method, params, nullptr);
  jsonrpc_msg* raw = nullptr;
  const std::int64_t sent = nowNs();
  const int error = ovsc_jsonrpc_transact_block(rpc, request, &raw);
  if (times) *times = {sent, nowNs()};
  const Ovs::JsonRpcMsgPtr reply(raw);
  if (error) throw Failure(std::string(method) + ": " + std::strerror(error));
  const json* result = ovsc_jsonrpc_msg_result(reply.get());
  if (!result) throw Failure(std::string(method) + " refused: " + text(ovsc_jsonrpc_msg_error(reply.get())));
  return Json::parse(text(result));
}

Ovs::JsonPtr parsed(const Json& value) { return Ovs::JsonPtr(json_from_string(value.dump().c_str())); }

// The results of a transaction; one that failed names its first error.
Json transact(jsonrpc* rpc, json* params, Exchange* times = nullptr) {
  Json results = call(rpc, "transact", params, times);
  for (const Json& result : results) {
    if (result.is_object() && result.contains("error")) throw Failure("transaction failed: " + result.dump());
  }
  return results;
}

Json reference(const char* kind, const std::string& id) { return Json::array({kind, id}); }

// The controller: sets up the logical switch and its VTEPs, answers "ready",
// then runs "insert" and "delete" bursts, each answered "done <sent ns>
// <reply ns>".
void controller(const std::string& target, const Options& options, LineReader& commands, int results) {
  const Rpc rpc = connect(target);
  Json setup = Json::array({"hardware_vtep",
                            {{"op", "insert"},
                             {"table", "Logical_Switch"},
                             {"uuid-name", "ls"},
                             {"row", {{"name", "burst"}, {"tunnel_key", burstVni.value()}}}}});
  Json vteps = Json::array();
  for (std::uint32_t v = 0; v < options.vteps; ++v) {
    const std::string name = "vtep" + std::to_string(v);
    setup.push_back({{"op", "insert"},
                     {"table", "Physical_Locator"},
                     {"uuid-name", name},
                     {"row", {{"encapsulation_type", "vxlan_over_ipv4"}, {"dst_ip", vtepIp(v).stringValue().stringValue()}}}});
    vteps.push_back(reference("named-uuid", name));
  }
  setup.push_back({{"op", "insert"}, {"table", "Physical_Locator_Set"}, {"uuid-name", "all"}, {"row", {{"locators", Json::array({"set", vteps})}}}});
  setup.push_back({{"op", "insert"},
                   {"table", "Mcast_Macs_Remote"},
                   {"row",
                    {{"MAC", "unknown-dst"},
                     {"logical_switch", reference("named-uuid", "ls")},
                     {"locator_set", reference("named-uuid", "all")}}}});
  const Json made = transact(rpc.get(), parsed(setup).release());
  const std::string logicalSwitch = made[0]["uuid"][1];
  std::vector<std::string> locators;
  for (std::uint32_t v = 0; v < options.vteps; ++v) locators.push_back(made[1 + v]["uuid"][1]);

  // The one transaction of every insert burst.
  Json burst = Json::array({"hardware_vtep"});
  for (std::uint32_t n = 0; n < options.hosts; ++n) {
    burst.push_back({{"op", "insert"},
                     {"table", "Ucast_Macs_Remote"},
                     {"row",
                      {{"MAC", hostMac(n).stringValue().stringValue()},
                       {"ipaddr", hostIp(n).stringValue().stringValue()},
                       {"locator", reference("uuid", locators[n % options.vteps])},
                       {"logical_switch", reference("uuid", logicalSwitch)}}}});
  }
  const Ovs::JsonPtr insertAll = parsed(burst);
  const Ovs::JsonPtr deleteAll =
      parsed(Json::array({"hardware_vtep", {{"op", "delete"}, {"table", "Ucast_Macs_Remote"}, {"where", Json::array()}}}));
  writeLine(results, "ready");

  while (const std::optional<std::string> command = nextCommand(commands)) {
    Exchange times;
    if (*command == "insert") {
      transact(rpc.get(), json_clone(insertAll.get()), &times);
    } else if (*command == "delete") {
      const Json result = transact(rpc.get(), json_clone(deleteAll.get()), &times);
      if (result[0]["count"] != options.hosts) throw Failure("the delete removed " + result[0]["count"].dump() + " rows");
    } else {
      throw Failure("unknown command " + *command);
    }
    writeLine(results, "done " + std::to_string(times.sent) + " " + std::to_string(times.replied));
  }
}

// How many rows of an update's Ucast_Macs_Remote are inserted and deleted.
void countRows(const json* params, std::uint64_t& inserted, std::uint64_t& deleted) {
  if (!params || params->type != JSON_ARRAY || json_array(params)->n < 2) return;
  const json* tables = json_array(params)->elems[1];
  if (tables->type != JSON_OBJECT) return;
  const json* rows = static_cast<const json*>(shash_find_data(json_object(tables), "Ucast_Macs_Remote"));
  if (!rows || rows->type != JSON_OBJECT) return;
  const hmap& map = json_object(rows)->map;
  // A shash node starts with its hmap node (the library's iteration macros
  // do not compile as C++).
  for (const hmap_node* at = hmap_first(&map); at; at = hmap_next(&map, at)) {
    const auto* node = reinterpret_cast<const shash_node*>(at);
    const shash* change = json_object(static_cast<const json*>(node->data));
    const bool isNew = shash_find(change, "new") != nullptr;
    const bool isOld = shash_find(change, "old") != nullptr;
    if (isNew && !isOld) ++inserted;
    if (isOld && !isNew) ++deleted;
  }
}

// The tables whose initial dump the bare client takes in the reconnect
// case: all that the agent needs of them to publish the hosts.
constexpr const char* dumpedTables[] = {"Logical_Switch", "Physical_Locator", "Physical_Locator_Set",
                                        "Mcast_Macs_Remote", "Ucast_Macs_Remote"};

// The initial dump of dumpedTables on a new connection, every column, as a
// client subscribing afresh gets it: "dumped <request ns> <parsed ns>".
std::string initialDump(const std::string& target, const Options& options) {
  const Rpc rpc = connect(target);
  Json tables = Json::object();
  for (const char* table : dumpedTables) tables[table] = Json::object();
  jsonrpc_msg* request =
      ovsc_jsonrpc_create_request("monitor", parsed(Json::array({"hardware_vtep", nullptr, tables})).release(), nullptr);
  jsonrpc_msg* raw = nullptr;
  const std::int64_t sent = nowNs();
  const int error = ovsc_jsonrpc_transact_block(rpc.get(), request, &raw);
  const std::int64_t received = nowNs();
  const Ovs::JsonRpcMsgPtr reply(raw);
  if (error) throw Failure(std::string("initial dump: ") + std::strerror(error));
  const json* result = ovsc_jsonrpc_msg_result(reply.get());
  const json* rows = result && result->type == JSON_OBJECT
                         ? static_cast<const json*>(shash_find_data(json_object(result), "Ucast_Macs_Remote"))
                         : nullptr;
  const std::size_t hosts = rows && rows->type == JSON_OBJECT ? shash_count(json_object(rows)) : 0;
  if (hosts != options.hosts) throw Failure("the initial dump holds " + std::to_string(hosts) + " hosts");
  return "dumped " + std::to_string(sent) + " " + std::to_string(received);
}

// The bare monitor client: subscribes, answers "ready", then reports
// "inserted <ns>" and "deleted <ns>" each time the updates it has parsed
// add up to a whole burst, and answers "dump" with initialDump().
void bareMonitor(const std::string& target, const Options& options, LineReader& commands, int results) {
  const Rpc rpc = connect(target);
  const Json columns = Json::array({"MAC", "ipaddr", "locator", "logical_switch"});
  call(rpc.get(), "monitor", parsed(Json::array({"hardware_vtep", nullptr, {{"Ucast_Macs_Remote", {{"columns", columns}}}}})).release());
  writeLine(results, "ready");
  const int fd = ovsc_stream_get_fd(ovsc_jsonrpc_get_stream(rpc.get()));
  if (fd < 0) throw Failure("the monitor connection has no descriptor");
  std::uint64_t inserted = 0;
  std::uint64_t deleted = 0;
  for (;;) {
    ovsc_jsonrpc_run(rpc.get());
    jsonrpc_msg* raw = nullptr;
    const int error = ovsc_jsonrpc_recv(rpc.get(), &raw);
    if (error == EAGAIN) {
      pollfd watched[2] = {{fd, POLLIN, 0}, {commands.fd(), POLLIN, 0}};
      ::poll(watched, 2, -1);
      if (watched[1].revents) {
        const std::optional<std::string> command = commands.next();
        if (commands.closed()) return;
        if (command == "dump") writeLine(results, initialDump(target, options));
        if (command && *command != "dump") throw Failure("unknown command " + *command);
      }
      continue;
    }
    if (error) throw Failure(std::string("monitor connection: ") + std::strerror(error));
    const Ovs::JsonRpcMsgPtr message(raw);
    const char* method = ovsc_jsonrpc_msg_method(message.get());
    const std::string_view name = method ? method : "";
    if (ovsc_jsonrpc_msg_type(message.get()) == OVSC_JSONRPC_REQUEST && name == "echo") {
      ovsc_jsonrpc_send(rpc.get(), ovsc_jsonrpc_create_reply(json_clone(ovsc_jsonrpc_msg_params(message.get())),
                                                             ovsc_jsonrpc_msg_id(message.get())));
      continue;
    }
    if (name != "update") continue;
    countRows(ovsc_jsonrpc_msg_params(message.get()), inserted, deleted);
    const std::int64_t at = nowNs();
    if (inserted >= options.hosts) {
      writeLine(results, "inserted " + std::to_string(at));
      inserted = 0;
    }
    if (deleted >= options.hosts) {
      writeLine(results, "deleted " + std::to_string(at));
      deleted = 0;
    }
  }
}

// ---- the agent's side -----------------------------------------------------------------------

// Stamps the moment the VNI's unicast table reaches the expected size.
class TableSize : public OverlaySvc::VniStatusV2::NotifieeConst {
 public:
  void expect(std::size_t size) {
    expected_ = size;
    at_ = 0;
  }
  std::int64_t at() const { return at_; }
  void onMacVtepTable(const Ipkit::EthAddr&) override {
    if (!at_ && notifier()->macVtepTable().size() == expected_) at_ = nowNs();
  }

 private:
  std::size_t expected_ = 0;
  std::int64_t at_ = 0;
};

// Turns the loop until `done` holds, or fails naming `what`.
void turnUntil(double limit, const std::string& what, const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(limit);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw Failure(what + " did not happen within " + std::to_string(static_cast<int>(limit)) + " s");
    }
    Kiln::EventLoop::current().runOnce(0.002);
  }
}

// The times carried by a helper's result line "<word> <ns> ...".
std::optional<std::vector<std::int64_t>> stamps(Helper& helper, std::string_view word) {
  const std::optional<std::string> line = helper.result();
  if (!line) return std::nullopt;
  std::istringstream fields(*line);
  std::string first;
  fields >> first;
  std::vector<std::int64_t> times;
  for (std::int64_t t = 0; fields >> t;) times.push_back(t);
  if (first != word || times.empty()) throw Failure("unexpected answer: " + *line);
  return times;
}

void verifyPublished(const OverlaySvc::VniStatusV2& status, const Options& options) {
  if (status.macVtepTable().size() != options.hosts || status.ipToMacTable().size() != options.hosts) {
    throw Failure("published " + std::to_string(status.macVtepTable().size()) + " MACs and " +
                  std::to_string(status.ipToMacTable().size()) + " addresses, expected " + std::to_string(options.hosts));
  }
  for (std::uint32_t n = 0; n < options.hosts; ++n) {
    const OverlaySvc::MacVtepV2 mac = status.macVtepTable(hostMac(n));
    const OverlaySvc::IpToMacV2 ip = status.ipToMacTable(hostIp(n));
    if (mac != OverlaySvc::MacVtepV2(hostMac(n), vtepIp(n % options.vteps), 1, 32) ||
        ip != OverlaySvc::IpToMacV2(hostIp(n), hostMac(n), 1, 32)) {
      throw Failure("host " + std::to_string(n) + " (" + hostMac(n).stringValue().stringValue() +
                    ") is published behind " + mac.vtepIp().stringValue().stringValue() + " with address " +
                    ip.ip().stringValue().stringValue() + ", expected " + vtepIp(n % options.vteps).stringValue().stringValue() +
                    " and " + hostIp(n).stringValue().stringValue());
    }
  }
}

// A line of /proc/self/status, in KiB.
long statusKib(const char* field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(field)) return std::stol(line.substr(std::strlen(field)));
  }
  throw Failure(std::string("no ") + field + " in /proc/self/status");
}

// Starts the high-water mark over from the present resident size.
void resetPeakRss() {
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5";
  clear.flush();
  if (!clear.good()) throw Failure("cannot reset the peak RSS through /proc/self/clear_refs");
}

// One run's measures, in the order of `titles`, printed in the groups of
// `tables`.
enum Measure : std::size_t {
  commitMs, agentMs, monitorMs, agentRatio, receiveMs, rowsMs, tableMs, publishMs, heapPerHost, rssGrowth,
  reconnectMs, dumpMs, reconnectRatio, reconnectReceiveMs, reconnectRowsMs, reconnectTableMs, reconnectPublishMs,
  deleteMs, monitorDeleteMs, measures
};
using Sample = std::array<double, measures>;
constexpr std::array<const char*, measures> titles = {
    "commit ms",  "agent ms",  "monitor ms", "agent/monitor", "recv+parse", "rows", "table",
    "publish",    "heap B/host", "RSS growth MiB", "agent ms", "dump ms", "agent/dump", "recv+parse",
    "rows",       "table",     "publish",    "delete ms", "monitor delete ms"};
struct Table {
  const char* heading;
  std::vector<Measure> columns;
};
const std::array<Table, 3> tables = {
    Table{"burst: from the controller's reply; the agent's time in stages (ms); heap kept per host after it",
          {commitMs, agentMs, monitorMs, agentRatio, receiveMs, rowsMs, tableMs, publishMs, heapPerHost, rssGrowth}},
    Table{"reconnect: from the agent's enable, and the bare client's request of an initial dump; the agent's stages (ms)",
          {reconnectMs, dumpMs, reconnectRatio, reconnectReceiveMs, reconnectRowsMs, reconnectTableMs,
           reconnectPublishMs}},
    Table{"delete: from the controller's reply", {deleteMs, monitorDeleteMs}}};

void printRow(const std::string& label, const Sample& values, const Table& table) {
  std::printf("%-7s", label.c_str());
  for (Measure m : table.columns) {
    const bool ratio = m == agentRatio || m == reconnectRatio;
    std::printf(" %*.*f", static_cast<int>(std::strlen(titles[m])), ratio ? 2 : (m == heapPerHost ? 0 : 1), values[m]);
  }
  std::printf("\n");
}

// Per group of measures: each run, then the median and the spread (smallest
// and largest) of each measure over the runs.
void report(const std::vector<Sample>& samples) {
  Sample median{};
  Sample low{};
  Sample high{};
  for (std::size_t i = 0; i < measures; ++i) {
    std::vector<double> values;
    for (const Sample& sample : samples) values.push_back(sample[i]);
    std::sort(values.begin(), values.end());
    const std::size_t mid = values.size() / 2;
    median[i] = values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
    low[i] = values.front();
    high[i] = values.back();
  }
  for (const Table& table : tables) {
    std::printf("%s\n%-7s", table.heading, "run");
    for (Measure m : table.columns) std::printf(" %s", titles[m]);
    std::printf("\n");
    for (std::size_t run = 0; run < samples.size(); ++run) printRow(std::to_string(run + 1), samples[run], table);
    printRow("median", median, table);
    printRow("min", low, table);
    printRow("max", high, table);
    std::printf("\n");
  }
}

std::uint32_t count(const char* option, const char* value, std::uint32_t least) {
  char* end = nullptr;
  errno = 0;
  const unsigned long n = std::strtoul(value, &end, 10);
  if (!*value || *end || errno || n < least || n > 1000000) {
    throw std::invalid_argument(std::string(option) + " wants a whole number from " + std::to_string(least) +
                                " to 1000000, not '" + value + "'");
  }
  return static_cast<std::uint32_t>(n);
}

Options parseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::cout << usageText;
      std::exit(0);
    }
    const bool known = arg == "--hosts" || arg == "--vteps" || arg == "--runs" || arg == "--limit";
    if (!known) throw std::invalid_argument("unexpected argument " + std::string(arg));
    if (i + 1 >= argc) throw std::invalid_argument(std::string(arg) + " needs a value");
    const char* value = argv[++i];
    if (arg == "--hosts") {
      options.hosts = count("--hosts", value, 1);
    } else if (arg == "--vteps") {
      options.vteps = count("--vteps", value, 1);
    } else if (arg == "--runs") {
      options.runs = count("--runs", value, 1);
    } else {
      options.limit = count("--limit", value, 1);
    }
  }
  if (options.vteps > 62500) throw std::invalid_argument("--vteps wants at most 62500");
  if (options.hosts > (1u << 22)) throw std::invalid_argument("--hosts wants at most 4194304");
  return options;
}

// Follows the burst VNI's VniStatusV2 in the agent's directory, which a
// reconnect replaces with a new entity, and stamps on it when the unicast
// table reaches the size expected.
class Published : public OverlaySvc::VniStatusDirV2::NotifieeConst {
 public:
  explicit Published(const Kiln::Ptr<OverlaySvc::VniStatusDirV2>& dir) {
    notifierIs(dir);
    onVniStatusV2(burstVni);
  }
  void onVniStatusV2(const Vxlan::Vni& vni) override {
    if (vni == burstVni) table_.notifierIs(status());
  }
  Kiln::Ptr<OverlaySvc::VniStatusV2> status() const {
    return static_cast<const OverlaySvc::VniStatusDirV2&>(*notifierBase()).vniStatusV2(burstVni);
  }
  void expect(std::size_t size) { table_.expect(size); }
  std::int64_t at() const { return table_.at(); }

 private:
  TableSize table_;
};

// Starts the agent in this process from the example configuration, on the
// database of `server`, and waits until it publishes the burst's VNI with
// its flood list.
void startAgent(Hearth::AgentRunner& runner, const Vgw::Test::OvsdbServer& server, const Options& options) {
  Ledger::EntityManager& store = *runner.localEntityManager();
  for (const auto* mounts : {&Vgw::localMounts(), &Vgw::serviceMounts()}) {
    for (const Ledger::Mount& m : *mounts) {
      store.pathTypeIs(m.path.stringValue(), *Kiln::TypeInfo::find(m.typeName.stringValue()));
    }
  }
  std::ifstream example(EXAMPLE_CONFIG);
  if (!example) throw Failure("cannot read " + std::string(EXAMPLE_CONFIG));
  Json document = Json::parse(std::string(std::istreambuf_iterator<char>(example), {}));
  document["vgw/config"]["ovsdbSocketPath"] = server.socketPath();
  store.loadDocument(document);
  runner.agentIs(Vgw::agentFactory);
  turnUntil(options.limit, "the agent's publication of VNI 5000", [&] {
    const auto dir = store.getEntity<OverlaySvc::VniStatusDirV2>("vgw/version2/vniStatusDir");
    const auto status = dir ? dir->vniStatusV2(burstVni) : nullptr;
    const auto flood = status ? status->macVtepFloodListTable(Ipkit::EthAddr()) : nullptr;
    return flood && flood->vtepIpFloodList().size() == options.vteps;
  });
}

// The agent's record of the last monitor message it applied.
Vgw::MonitorMessageTimes lastMessageTimes(const Hearth::AgentRunner& runner) {
  const auto* agent = dynamic_cast<const Vgw::Agent*>(runner.agent().get());
  const auto& rootSm = agent ? agent->rootSm() : nullptr;
  if (!rootSm || !rootSm->requestHandler()) throw Failure("the agent has no session");
  return rootSm->requestHandler()->lastMessageTimes();
}

// A time of the agent's clock (CLOCK_MONOTONIC in seconds) in nanoseconds.
std::int64_t ns(double agentTime) { return static_cast<std::int64_t>(agentTime * 1e9); }

// The heap in use, mapped chunks included, in bytes.
double heapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

int run(const Options& options) {
  Vgw::Test::OvsdbServer server;
  // The agent's ring trace and lock file stay with the database unless the
  // caller put them elsewhere.
  setenv("RINGTAPEDIR", server.directory().c_str(), 0);
  setenv("VGW_TAPELOCK_FILEPATH", (server.directory() / "Vgw-tape.lock").c_str(), 0);

  Helper nvc("controller", [&](LineReader& commands, int results) { controller(server.target(), options, commands, results); });
  Helper monitor("bare monitor",
                 [&](LineReader& commands, int results) { bareMonitor(server.target(), options, commands, results); });
  bool nvcReady = false;
  bool monitorReady = false;
  turnUntil(options.limit, "the helpers' start", [&] {
    nvcReady = nvcReady || nvc.result() == "ready";
    monitorReady = monitorReady || monitor.result() == "ready";
    return nvcReady && monitorReady;
  });

  Hearth::AgentRunner runner("Vgw");
  startAgent(runner, server, options);
  Ledger::EntityManager& store = *runner.localEntityManager();
  Published published(store.getEntity<OverlaySvc::VniStatusDirV2>("vgw/version2/vniStatusDir"));
  const Kiln::Ptr<Vgw::CliConfig> cliConfig = store.getEntity<Vgw::CliConfig>("vgw/cliconfig");

  std::printf("remote-host-burst: %u hosts with addresses over %u VTEPs in one transaction, %u runs\n", options.hosts,
              options.vteps, options.runs);
  std::printf("agent in-process on this event loop (ring trace %s); controller and bare monitor in their own processes\n",
              std::getenv("RINGTAPE_DISABLE") ? "off" : "on");
  std::printf("negative times: done before the controller's reply was in; RSS growth: peak during the insert over\n"
              "the RSS before it; heap: what the agent holds after publishing, over its heap before the burst\n\n");

  std::vector<Sample> samples;
  for (std::uint32_t run = 0; run < options.runs; ++run) {
    Sample sample{};
    // Memory the last run freed goes back first, so each run's growth is
    // what the burst itself needs.
    malloc_trim(0);
    resetPeakRss();
    const long before = statusKib("VmRSS:");
    const double heapBefore = heapInUse();

    std::optional<std::vector<std::int64_t>> commit;
    std::optional<std::vector<std::int64_t>> delivered;
    published.expect(options.hosts);
    nvc.send("insert");
    turnUntil(options.limit, "publication of all " + std::to_string(options.hosts) + " hosts", [&] {
      if (!commit) commit = stamps(nvc, "done");
      if (!delivered) delivered = stamps(monitor, "inserted");
      return commit && delivered && published.at();
    });
    const long peak = statusKib("VmHWM:");
    verifyPublished(*published.status(), options);
    const std::int64_t replied = commit->back();
    const Vgw::MonitorMessageTimes burst = lastMessageTimes(runner);
    sample[commitMs] = msBetween(commit->front(), replied);
    sample[agentMs] = msBetween(replied, published.at());
    sample[monitorMs] = msBetween(replied, delivered->front());
    sample[agentRatio] = sample[agentMs] / sample[monitorMs];
    sample[receiveMs] = msBetween(replied, ns(burst.received));
    sample[rowsMs] = msBetween(ns(burst.received), ns(burst.rowsApplied));
    sample[tableMs] = msBetween(ns(burst.rowsApplied), ns(burst.tablesFolded));
    sample[publishMs] = msBetween(ns(burst.tablesFolded), published.at());
    sample[heapPerHost] = (heapInUse() - heapBefore) / options.hosts;
    sample[rssGrowth] = static_cast<double>(peak - before) / 1024.0;

    // The reconnect: the bare client's initial dump first, then the agent's
    // new session, one after the other so that neither waits for the server
    // while it serves the other.
    monitor.send("dump");
    delivered.reset();
    turnUntil(options.limit, "the bare client's initial dump", [&] { return (delivered = stamps(monitor, "dumped")).has_value(); });
    sample[dumpMs] = msBetween(delivered->front(), delivered->back());
    cliConfig->enableAgentIs(false);
    if (published.status()) throw Failure("the disabled agent left its VNI status published");
    published.expect(options.hosts);
    const std::int64_t enabled = nowNs();
    cliConfig->enableAgentIs(true);
    turnUntil(options.limit, "publication of all hosts after the reconnect", [&] { return published.at() != 0; });
    verifyPublished(*published.status(), options);
    const Vgw::MonitorMessageTimes snapshot = lastMessageTimes(runner);
    sample[reconnectMs] = msBetween(enabled, published.at());
    sample[reconnectRatio] = sample[reconnectMs] / sample[dumpMs];
    sample[reconnectReceiveMs] = msBetween(enabled, ns(snapshot.received));
    sample[reconnectRowsMs] = msBetween(ns(snapshot.received), ns(snapshot.rowsApplied));
    sample[reconnectTableMs] = msBetween(ns(snapshot.rowsApplied), ns(snapshot.tablesFolded));
    sample[reconnectPublishMs] = msBetween(ns(snapshot.tablesFolded), published.at());

    commit.reset();
    delivered.reset();
    published.expect(0);
    nvc.send("delete");
    turnUntil(options.limit, "withdrawal of all " + std::to_string(options.hosts) + " hosts", [&] {
      if (!commit) commit = stamps(nvc, "done");
      if (!delivered) delivered = stamps(monitor, "deleted");
      return commit && delivered && published.at();
    });
    const Kiln::Ptr<OverlaySvc::VniStatusV2> status = published.status();
    if (!status->macVtepTable().empty() || !status->ipToMacTable().empty()) {
      throw Failure(std::to_string(status->macVtepTable().size()) + " MACs and " +
                    std::to_string(status->ipToMacTable().size()) + " addresses stay published after the delete");
    }
    sample[deleteMs] = msBetween(commit->back(), published.at());
    sample[monitorDeleteMs] = msBetween(commit->back(), delivered->front());
    samples.push_back(sample);
  }
  report(samples);
  std::printf("all %u hosts were published with their VTEPs and addresses in every run, again after every\n"
              "reconnect, and withdrawn\n",
              options.hosts);
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return Vgw::Bench::benchMain("remote-host-burst", argc, argv, parseOptions, run); }
