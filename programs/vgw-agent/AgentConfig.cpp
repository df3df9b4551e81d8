#include "AgentConfig.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "Ledger/Path.h"
#include "Vgw/VgwAgent.h"

namespace VgwAgent {

namespace {

[[noreturn]] void refuse(const std::string& file, std::string_view where, const std::string& problem) {
  throw ConfigError(file + ": " + (where.empty() ? std::string() : std::string(where) + ": ") + problem);
}

// Far above any real configuration; a device or a wrong file of unbounded
// size is refused before it takes the memory.
constexpr std::size_t maxConfigBytes = std::size_t{16} << 20;

Kiln::Json readDocument(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw ConfigError("cannot read " + file + ": " + std::strerror(errno));
  std::string text;
  std::array<char, 64 * 1024> chunk;
  while (in.read(chunk.data(), chunk.size()) || in.gcount() > 0) {
    text.append(chunk.data(), static_cast<std::size_t>(in.gcount()));
    if (text.size() > maxConfigBytes) {
      throw ConfigError(file + ": larger than " + std::to_string(maxConfigBytes) +
                        " bytes; a configuration file is smaller");
    }
  }
  if (in.bad()) throw ConfigError("cannot read " + file + ": " + std::strerror(errno));
  try {
    return Kiln::Json::parse(text);
  } catch (const Kiln::Json::parse_error& e) {
    // The library's text starts with its own exception tag.
    std::string what = e.what();
    if (const std::size_t tag = what.find("] "); tag != std::string::npos) what.erase(0, tag + 2);
    throw ConfigError(file + " is not JSON: " + what);
  }
}

bool within(const Ledger::Path& path, const Ledger::Path& base) {
  return path.size() >= base.size() && path.prefix(base.size()) == base.text();
}

// Refuses a path the agent does not mount, or one it writes.
void checkPath(const std::string& file, const std::string& where) {
  Ledger::Path path;
  try {
    path = Ledger::Path::parse(where);
  } catch (const Kiln::JsonError& e) {
    refuse(file, where, e.problem());
  }
  bool known = false;
  for (const auto* mounts : {&Vgw::localMounts(), &Vgw::serviceMounts()}) {
    for (const Ledger::Mount& mount : *mounts) {
      if (!within(path, Ledger::Path::parse(mount.path.stringValue()))) continue;
      if (Ledger::writerMountFlags(mount.flags.stringValue()))
        refuse(file, where, "is written by the agent itself and cannot be configured");
      known = true;
    }
  }
  if (!known) refuse(file, where, "unknown path; the agent reads no entity there");
}

// The values themselves are judged by the configuration's rules as the
// document goes in; what is left is what must be there at all.
void checkLoaded(const Ledger::EntityManager& manager, const std::string& file) {
  if (!manager.getEntity<Vgw::Config>("vgw/config"))
    refuse(file, "vgw/config", "ovsdbSocketPath is required: the socket of the hardware_vtep database server");
  const auto clusters = manager.getEntity<FleetCluster::ClusterStatusDir>("fleet/cluster/statusDir");
  if (!clusters || !clusters->status("default"))
    refuse(file, "fleet/cluster/statusDir", "needs the cluster status named \"default\" under \"status\"");
}

}  // namespace

void loadAgentConfig(Ledger::EntityManager& manager, const std::string& file) {
  const Kiln::Json document = readDocument(file);
  if (!document.is_object())
    refuse(file, "", "expected an object from state-store path to entity, got " + Kiln::jsonTypeName(document));
  for (const auto* mounts : {&Vgw::localMounts(), &Vgw::serviceMounts()}) {
    for (const Ledger::Mount& mount : *mounts) {
      const Kiln::TypeInfo* type = Kiln::TypeInfo::find(mount.typeName.stringValue());
      if (!type) throw ConfigError("the agent's type " + mount.typeName.stringValue() + " is not linked in");
      manager.pathTypeIs(mount.path.stringValue(), *type);
    }
  }
  Vgw::declareConfigRules(manager);
  for (const auto& [where, entity] : document.items()) checkPath(file, where);
  try {
    manager.loadDocument(document);
  } catch (const Kiln::JsonError& e) {
    refuse(file, e.where(), e.problem());
  }
  checkLoaded(manager, file);
}

}  // namespace VgwAgent
