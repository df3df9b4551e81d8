#include "AgentSummary.h"

#include <map>
#include <string>

namespace VgwAgent {

namespace {

using Kiln::Json;

// Requests and results can be whole transactions; the summary keeps a line.
constexpr std::size_t textLimit = 160;

std::string shortened(const std::string& text) {
  if (text.size() <= textLimit) return text;
  std::size_t cut = textLimit - 3;
  // Never inside a UTF-8 sequence.
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xc0) == 0x80) --cut;
  return text.substr(0, cut) + "...";
}

Json agentSection(const Vgw::Agent& agent) {
  const auto& status = agent.status();
  Json section = {{"running", status ? status->running() : false}, {"exiting", agent.exiting()}};
  if (const auto& root = agent.rootSm(); root && root->requestHandler())
    section["discardRequest"] = root->requestHandler()->discardRequest();
  return section;
}

Json sessionSection(const Vgw::Agent& agent) {
  Json section = Json::object();
  const auto& status = agent.status();
  const auto session = status ? status->ovsdbSessionStatus() : nullptr;
  if (!session) return section;
  section["state"] = Vgw::enumName(session->sessionState());
  section["lastRequestType"] = Vgw::enumName(session->lastRequestType());
  section["lastRequest"] = shortened(session->lastRequest().stringValue());
  section["lastResultType"] = Vgw::enumName(session->lastResultType());
  section["lastResult"] = shortened(session->lastResult().stringValue());
  section["disconnects"] = session->disconnectCount();
  return section;
}

Json managersSection(const Vgw::Agent& agent) {
  struct Seen {
    bool configured = false;
    bool row = false;
    bool connected = false;
  };
  std::map<std::string, Seen> targets;
  if (const auto& cliConfig = agent.cliConfig()) {
    for (const auto& [target, enabled] : cliConfig->managerAddress()) targets[target.stringValue()].configured = enabled;
  }
  const auto& status = agent.status();
  if (const auto ovsdb = status ? status->ovsdb() : nullptr) {
    for (const auto& [target, row] : ovsdb->manager()) {
      Seen& seen = targets[target.stringValue()];
      seen.row = true;
      seen.connected = row->isConnected();
    }
  }
  Json section = Json::object();
  for (const auto& [target, seen] : targets) {
    std::string text = seen.configured ? "configured" : "not configured";
    text += seen.row ? (seen.connected ? ", is_connected true" : ", is_connected false") : ", no row";
    section[target] = text;
  }
  return section;
}

Json localDataSection(const Vgw::Agent& agent) {
  const auto& local = agent.localData();
  if (!local) return Json::object();
  Json counters = Json::object();
  for (const auto& [table, count] : local->transactCounter()) counters[Vgw::ovsdbTableName(table)] = count;
  return {{"remoteHostTables", local->remoteHostTable().size()},
          {"vnis", local->vniToLogicalSwitch().size()},
          {"transactCounter", counters},
          {"mgrConverged", Vgw::enumName(local->mgrConverged())},
          {"monitorUpdateComplete", local->monitorUpdateComplete()},
          {"ovsdbSynchronized", local->ovsdbSynchronized()}};
}

}  // namespace

Json agentSummary(const Vgw::Agent& agent) {
  // nlohmann keeps object members sorted; the sections are read by name.
  return {{"agent", agentSection(agent)},
          {"session", sessionSection(agent)},
          {"managers", managersSection(agent)},
          {"localData", localDataSection(agent)}};
}

}  // namespace VgwAgent
