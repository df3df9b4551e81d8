// The managers of the configuration, one transaction per change.
//
// The mirror answers "is there a row for this target" through its index by
// target, and each transaction's reply is applied to the mirror before the
// enqueue returns, so a later step of the same pass sees the previous one.
#include "Vgw/CliConfigSm.h"

#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <vector>

#include "Ipkit/IpAddr.h"
#include "Kiln/Assert.h"
#include "Kiln/Json.h"
#include "Ledger/Path.h"
#include "RingTape/RingTape.h"
#include "Vgw/VgwUtils.h"

RINGTAPE_HANDLE("VgwCliConfig");

namespace Vgw {

namespace {

// The Global row of the mirror: there is one in a hardware_vtep database.
Kiln::Ptr<Global> globalRow(const HwVtepOvsdb& ovsdb) {
  return ovsdb.root().empty() ? nullptr : ovsdb.root().begin()->second;
}

// ---- the rules of the configuration ----

constexpr std::size_t maxTargetBytes = 1024;
constexpr const char* targetForms =
    "not an OVSDB connection method: expected ssl:HOST[:PORT], tcp:HOST[:PORT], unix:FILE, pssl:[PORT][:IP], "
    "ptcp:[PORT][:IP] or punix:FILE";

bool isDigits(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Empty when `text` is a port from `lowest` to 65535.
std::string portProblem(std::string_view text, unsigned lowest) {
  if (!isDigits(text) || text.size() > 5) return "port " + std::string(text) + " is not a number";
  const unsigned port = static_cast<unsigned>(std::stoul(std::string(text)));
  if (port < lowest || port > 65535) {
    return "port " + std::string(text) + " is not in " + std::to_string(lowest) + " to 65535";
  }
  return "";
}

// A host name: dot-separated labels of letters, digits and inner hyphens.
bool isHostName(std::string_view name) {
  if (name.empty() || name.size() > 253) return false;
  std::size_t start = 0;
  while (true) {
    const std::size_t dot = name.find('.', start);
    const std::string_view label = name.substr(start, dot == std::string_view::npos ? dot : dot - start);
    if (label.empty() || label.size() > 63 || label.front() == '-' || label.back() == '-') return false;
    for (char c : label) {
      if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-')) return false;
    }
    if (dot == std::string_view::npos) return true;
    start = dot + 1;
  }
}

bool isIpv6(std::string_view text) { return Ipkit::Ip6Addr::tryParse(text).has_value(); }
bool isIpv4(std::string_view text) { return Ipkit::IpAddr::tryParse(text).has_value(); }

// Splits "[IPv6]rest" or "host:rest" into the address and what follows it;
// the problem when the address is malformed. `names` allows host names.
std::string splitAddress(std::string_view text, bool names, std::string_view& rest) {
  std::string_view address;
  if (text.starts_with('[')) {
    const std::size_t close = text.find(']');
    if (close == std::string_view::npos) return "an IPv6 address in brackets lacks its ']'";
    address = text.substr(1, close - 1);
    rest = text.substr(close + 1);
    if (!isIpv6(address)) return "[" + std::string(address) + "] is no IPv6 address";
    if (!rest.empty() && !rest.starts_with(':')) return "expected :PORT after the address in brackets";
    return "";
  }
  const std::size_t colon = text.find(':');
  address = text.substr(0, colon);
  rest = colon == std::string_view::npos ? std::string_view() : text.substr(colon);
  if (rest.find(':', 1) != std::string_view::npos) return "an IPv6 address goes in brackets: [ADDRESS]:PORT";
  if (address.empty()) return names ? "needs a host" : "needs an address after the port";
  const bool numeric = std::all_of(address.begin(), address.end(), [](char c) { return c == '.' || (c >= '0' && c <= '9'); });
  if (numeric || !names) {
    if (isIpv4(address)) return "";
    return names ? std::string(address) + " is no IPv4 address"
                 : std::string(address) + " is no IP address; a passive target listens on an address, not a name";
  }
  return isHostName(address) ? "" : std::string(address) + " is no host name";
}

// ssl: and tcp:, HOST[:PORT].
std::string activeProblem(std::string_view rest) {
  if (rest.empty()) return "needs a host";
  std::string_view port;
  if (std::string problem = splitAddress(rest, true, port); !problem.empty()) return problem;
  return port.empty() ? "" : portProblem(port.substr(1), 1);
}

// pssl: and ptcp:, [PORT][:IP].
std::string passiveProblem(std::string_view rest) {
  const std::size_t colon = rest.find(':');
  const std::string_view port = rest.substr(0, colon);
  if (!port.empty()) {
    if (std::string problem = portProblem(port, 0); !problem.empty()) return problem;
  }
  if (colon == std::string_view::npos) return "";
  std::string_view after;
  if (std::string problem = splitAddress(rest.substr(colon + 1), false, after); !problem.empty()) return problem;
  return after.empty() ? "" : "nothing may follow the address";
}

// A collection key as a refusal names it: escaped, and cut when long.
std::string keyWhere(std::string_view attribute, std::string_view key) {
  constexpr std::size_t shown = 40;
  std::string text = Ledger::escapeSegment(key.substr(0, shown));
  if (key.size() > shown) text += "...";
  return std::string(attribute) + "/" + text;
}

}  // namespace

std::string managerTargetProblem(std::string_view target) {
  if (target.size() > maxTargetBytes) {
    return "is " + std::to_string(target.size()) + " bytes long; a target has at most " +
           std::to_string(maxTargetBytes);
  }
  if (std::any_of(target.begin(), target.end(), [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == 0x7f; })) {
    return "holds a space or a control character";
  }
  const std::size_t colon = target.find(':');
  const std::string_view scheme = target.substr(0, colon);
  const std::string_view rest = colon == std::string_view::npos ? std::string_view() : target.substr(colon + 1);
  if (colon == std::string_view::npos) return targetForms;
  if (scheme == "ssl" || scheme == "tcp") return activeProblem(rest);
  if (scheme == "pssl" || scheme == "ptcp") return passiveProblem(rest);
  if (scheme == "unix" || scheme == "punix") return rest.empty() ? "needs a file" : "";
  return targetForms;
}

void checkConfig(const Config& config) {
  // Long enough for a transaction of a whole fabric, short enough that a
  // hung server does not silence the agent for good.
  constexpr double longestDeadline = 3600;
  if (!(config.ovsdbDeadline() > 0 && config.ovsdbDeadline() <= longestDeadline)) {
    throw Kiln::JsonError("ovsdbDeadline", "must be more than 0 and at most 3600 seconds");
  }
  const std::string_view path = config.ovsdbSocketPath().stringValue();
  if (path.empty()) {
    throw Kiln::JsonError("ovsdbSocketPath", "is required: the socket of the hardware_vtep database server");
  }
  // A path with a scheme is used as a connection method as it stands.
  const std::size_t colon = path.find(':');
  const bool scheme = colon != std::string_view::npos && colon > 0 &&
                      std::all_of(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(colon),
                                  [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); });
  const std::string problem = scheme ? managerTargetProblem(path) : managerTargetProblem("unix:" + std::string(path));
  if (!problem.empty()) {
    throw Kiln::JsonError("ovsdbSocketPath",
                          (path.size() <= 80 ? Kiln::quoted(path) + " " : std::string()) +
                              "is no socket path or connection method: " + problem);
  }
}

void checkCliConfig(const CliConfig& cliConfig) {
  if (cliConfig.maxOps() == 0) throw Kiln::JsonError("maxOps", "must be at least 1");
  for (const auto& [target, enabled] : cliConfig.managerAddress()) {
    const std::string problem = managerTargetProblem(target.stringValue());
    if (!problem.empty()) throw Kiln::JsonError(keyWhere("managerAddress", target.stringValue()), problem);
  }
}

CliConfigSm::CliConfigSm(Kiln::Ptr<Status> status, Kiln::Ptr<const Config> config,
                         Kiln::Ptr<const CliConfig> cliConfig, Kiln::Ptr<const FabricMapV3::Status> topoStatus,
                         Kiln::Ptr<const OverlaySvc::VniStatusDirV2> vniStatusDir,
                         Kiln::Ptr<OvsdbRequestQueue> requestQueue)
    : status_(std::move(status)),
      config_(std::move(config)),
      cliConfig_(std::move(cliConfig)),
      topoStatus_(std::move(topoStatus)),
      vniStatusDir_(std::move(vniStatusDir)),
      requestQueue_(std::move(requestQueue)),
      kilnCliConfig_(this) {
  kilnCliConfig_.notifierIs(cliConfig_);
  handleInitialized();
}

Kiln::Ptr<CliConfigSm> cliConfigSmFactory(Kiln::Ptr<Status> status, Kiln::Ptr<const Config> config,
                                          Kiln::Ptr<const CliConfig> cliConfig,
                                          Kiln::Ptr<const FabricMapV3::Status> topoStatus,
                                          Kiln::Ptr<const OverlaySvc::VniStatusDirV2> vniStatusDir,
                                          Kiln::Ptr<OvsdbRequestQueue> requestQueue) {
  return Kiln::newPtr<CliConfigSm>(std::move(status), std::move(config), std::move(cliConfig), std::move(topoStatus),
                                   std::move(vniStatusDir), std::move(requestQueue));
}

void CliConfigSm::handleInitialized() {
  VGW_TRACE(5, "CliConfigSm::handleInitialized");
  initialized_ = true;
  updateManager();
  handleVtepListType();
  handleRoutingModeType();
  VGW_TRACE(5, "CliConfigSm::handleInitialized return");
}

void CliConfigSm::destroy() {
  VGW_TRACE(5, "CliConfigSm::destroy");
  initialized_ = false;
}

bool CliConfigSm::configured(const Kiln::String& target) const { return cliConfig_->managerAddress(target); }

void CliConfigSm::updateManager() {
  if (!initialized_) return;
  VGW_TRACE(5, "CliConfigSm::updateManager");
  deleteStaleManagers();
  // Copied: a transaction's reactors may run configuration writers.
  const CliConfig::ManagerAddressType targets = cliConfig_->managerAddress();
  for (const auto& [target, enabled] : targets) updateManager(target);
  VGW_TRACE(5, "CliConfigSm::updateManager return");
}

void CliConfigSm::updateManager(const Kiln::String& target) {
  if (!initialized_) return;
  VGW_TRACE(5, "CliConfigSm::updateManager " << target);
  const Kiln::Ptr<HwVtepOvsdb> ovsdb = status_->ovsdb();
  KILN_ASSERT(ovsdb, "ovsdb object is NULL");
  const bool wanted = configured(target);
  const bool present = ovsdb->manager(target) != nullptr;
  if (wanted && !present) {
    VGW_TRACE(6, "Manager not in OVSDB. Adding manager: " << target);
    addManager(target);
  } else if (!wanted && present) {
    VGW_TRACE(6, "Manager in OVSDB. Deleting manager: " << target);
    deleteManager(target);
  }
  // A manager found in place starts convergence as well: the controller may
  // be about to connect to it.
  const Kiln::Ptr<OvsdbSessionStatus> session = status_->ovsdbSessionStatus();
  const Kiln::Ptr<LocalData> localData = Kiln::Entity::singletonIs<LocalData>();
  if (session && session->sessionState() == SessionState::stateConnected &&
      localData->mgrConverged() == MgrConvergenceState::mgrInitial) {
    localData->mgrConvergedIs(MgrConvergenceState::mgrUp);
  }
  VGW_TRACE(5, "CliConfigSm::updateManager return");
}

void CliConfigSm::addManager(const Kiln::String& target) {
  VGW_TRACE(5, "Add Manager:  " << target);
  auto transact = Kiln::newPtr<OvsdbTransactRequest>();
  const Kiln::Ptr<HwVtepOvsdb> ovsdb = status_->ovsdb();
  KILN_ASSERT(ovsdb, "ovsdb object is NULL");
  transact->ovsdbIs(ovsdb);

  const Kiln::Ptr<Global> global = globalRow(*ovsdb);
  std::set<Uuid> managers;
  if (global) {
    for (const Uuid& uuid : global->manager()) {
      VGW_TRACE(6, "Existing manager in global table: " << uuid);
      managers.insert(uuid);
    }
  }

  const Kiln::Ptr<Manager> manager = createManager(target);
  transact->opEnq(buildInsert(manager));
  VGW_TRACE(6, "Adding manager " << target << " to the manager table");

  KILN_ASSERT(global, "Global Table is empty");
  managers.insert(manager->uuid());
  const Kiln::Ptr<Global> update = createGlobal({}, managers);
  // Only the managers column goes out: the switches belong to the inventory
  // and other_config to the controller.
  update->invalidAttribIs("pSwitch", true);
  update->invalidAttribIs("otherConfig", true);
  VGW_TRACE(6, "Updating Global table with the new manager");
  transact->opEnq(buildUpdate(global->uuid(), update));
  requestQueue_->requestEnq(transact);
}

void CliConfigSm::deleteManager(const Kiln::String& target) {
  VGW_TRACE(5, "manager to delete " << target);
  const Kiln::Ptr<HwVtepOvsdb> ovsdb = status_->ovsdb();
  KILN_ASSERT(ovsdb, "ovsdb object is NULL");
  const Kiln::Ptr<Manager> manager = ovsdb->manager(target);
  if (!manager) {
    VGW_TRACE(6, "Manager " << target << " already deleted");
    return;
  }
  auto transact = Kiln::newPtr<OvsdbTransactRequest>();
  transact->ovsdbIs(ovsdb);

  std::set<Uuid> managers;
  Uuid globalUuid;
  if (const Kiln::Ptr<Global> global = globalRow(*ovsdb)) {
    globalUuid = global->uuid();
    for (const Uuid& uuid : global->manager()) {
      if (uuid == manager->uuid()) continue;
      VGW_TRACE(6, "Existing manager in global table: " << uuid);
      managers.insert(uuid);
    }
  }
  const Kiln::Ptr<Global> update = createGlobal({}, managers);
  // Unlike an add, this update carries other_config.
  update->invalidAttribIs("pSwitch", true);
  transact->opEnq(buildUpdate(globalUuid, update));

  transact->opEnq(buildDelete(manager->uuid(), OvsdbDataType::manager));
  VGW_TRACE(6, "Deleted Manager " << target);
  requestQueue_->requestEnq(transact);
}

void CliConfigSm::deleteStaleManagers() {
  VGW_TRACE(5, "CliConfigSm::deleteStaleManagers");
  const Kiln::Ptr<HwVtepOvsdb> ovsdb = status_->ovsdb();
  KILN_ASSERT(ovsdb, "ovsdb object is NULL");
  // Each delete's reply changes the index walked here.
  std::vector<Kiln::String> stale;
  for (const auto& [target, row] : ovsdb->manager()) {
    if (!configured(target)) stale.push_back(target);
  }
  for (const Kiln::String& target : stale) {
    VGW_TRACE(6, "Deleting stale manager from OVSDB: " << target);
    deleteManager(target);
  }
}

void CliConfigSm::handleVtepListType() {
  VGW_TRACE(5, " vtepListType changed from " << status_->vtepListType() << " to " << cliConfig_->vtepListType());
  status_->vtepListTypeIs(cliConfig_->vtepListType());
}

void CliConfigSm::handleRoutingModeType() {
  VGW_TRACE(5, " routingModeType changed from " << status_->routingModeType() << " to "
                                                << cliConfig_->routingModeType());
  status_->routingModeTypeIs(cliConfig_->routingModeType());
}

}  // namespace Vgw
