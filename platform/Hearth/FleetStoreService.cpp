#include "Hearth/FleetStoreService.h"

#include <algorithm>

#include "Kiln/Dir.h"
#include "Kiln/EventLoop.h"
#include "Kiln/Log.h"
#include "Ledger/Path.h"
#include "RingTape/RingTape.h"

RINGTAPE_HANDLE("FleetStoreService");

namespace Fleet {

namespace {

Kiln::LogHandle publishBlocked(
    "KXT_FLEET_PUBLISH_BLOCKED", Kiln::LogSeverity::warning,
    "Service %s cannot publish %s for switch %s: an entry of type %s stands there",
    "The service publishes one entity per switch, and the place of one already holds an entity of another type, "
    "which it leaves alone. The switch does not get this service's data until the place is cleared.",
    "Remove the entry named in the message from the state store.", 0.0, 1.0, 0);

// A directory that a group needs: where it is, what its entries are, and
// whether the group may make it.
struct DirNeed {
  Ledger::Path path;
  const Kiln::TypeInfo* entryType;
  bool create;
};

const Kiln::TypeInfo& knownType(const Kiln::String& typeName, const std::string& where) {
  const Kiln::TypeInfo* type = Kiln::TypeInfo::find(typeName.stringValue());
  if (!type) throw ServiceError(where + ": unknown entity type " + Kiln::quoted(typeName.stringValue()));
  return *type;
}

Ledger::Path directoryPath(const Kiln::String& text, const std::string& where) {
  try {
    Ledger::Path path = Ledger::Path::parse(text.stringValue());
    if (path.empty()) throw ServiceError(where + ": the root cannot be a per-switch directory");
    return path;
  } catch (const Kiln::JsonError& e) {
    throw ServiceError(where + ": " + e.what());
  }
}

// Throws unless `need` can be met: every node on the way is a directory,
// and what stands at the end is a directory without entries of another type.
void checkDirectory(const Kiln::Dir& root, const DirNeed& need, const std::string& where) {
  Kiln::Ptr<const Kiln::Entity> node(&root);
  for (std::size_t i = 0; i < need.path.size(); ++i) {
    const auto* dir = dynamic_cast<const Kiln::Dir*>(node.get());
    if (!dir)
      throw ServiceError(where + ": " + std::string(need.path.prefix(i)) + " is a " + node->typeInfo().name +
                         ", not a directory");
    node = dir->entityPtr(Kiln::Name(need.path.segments()[i]));
    if (!node) {
      if (need.create) return;
      throw ServiceError(where + ": " + need.path.text() + " does not exist, and the mount may not create it");
    }
  }
  const auto* dir = dynamic_cast<const Kiln::Dir*>(node.get());
  if (!dir) throw ServiceError(where + ": " + need.path.text() + " holds a " + node->typeInfo().name + ", not a directory");
  if (dir->entryType() && dir->entryType() != need.entryType)
    throw ServiceError(where + ": " + need.path.text() + " is a directory of " + dir->entryType()->name + ", not of " +
                       need.entryType->name);
}

void makeDirectory(Kiln::Dir& root, const DirNeed& need) {
  Kiln::Ptr<Kiln::Dir> dir(&root);
  for (const std::string& segment : need.path.segments())
    dir = Kiln::staticPtrCast<Kiln::Dir>(dir->createEntity(Kiln::Dir::typeInfo_, Kiln::Name(segment)));
  dir->entryTypeIs(need.entryType);
}

// The directories a group needs: the switch directories of its controller
// mounts, and those of its publish mounts.
std::vector<DirNeed> directoryNeeds(const std::vector<FleetStoreServiceMountGroup::ControllerMount>& controllerMounts,
                                    const std::vector<FleetStoreServiceMountGroup::PublishMount>& publishMounts) {
  std::vector<DirNeed> needs;
  for (const auto& m : controllerMounts)
    needs.push_back({Ledger::Path::parse(m.switchPath.stringValue()), m.type,
                     m.flags.stringValue().find('c') != std::string::npos});
  for (const auto& m : publishMounts) needs.push_back({Ledger::Path::parse(m.path.stringValue()), m.type, true});
  return needs;
}

}  // namespace

void VersionWhiteListBase::allowedVersionIs(std::uint32_t version, bool allowed) {
  if (allowed) {
    allowed_.insert(version);
  } else {
    allowed_.erase(version);
  }
}

void FleetStoreServiceMounter::doHandleControllerMountState(Kiln::String group, Kiln::String switchPath,
                                                            Kiln::String switchName, bool mounted) {
  VGW_TRACE(6, "group " << group << " switch " << switchName << (mounted ? " mounted at " : " unmounted from ")
                        << switchPath);
}

// ---- the tracked directory of a controller mount ----------------------------------------

class FleetStoreServiceMountGroup::SwitchDirReactor final : public Kiln::Dir::NotifieeConst {
 public:
  SwitchDirReactor(FleetStoreServiceMountGroup& group, const ControllerMount& mount, const Kiln::Ptr<const Kiln::Dir>& dir)
      : group_(group), mount_(mount) {
    notifierIs(dir);
  }

  // Reports every switch in the directory now. The names are taken first:
  // publishing may add entries to directories while this runs.
  void joinPresent() {
    std::vector<Kiln::Name> names;
    for (const auto& [name, entry] : notifier()->entityPtr()) names.push_back(name);
    for (const Kiln::Name& name : names) onEntityPtr(name);
  }

  void onEntityPtr(const Kiln::Name& name) override {
    const bool present = notifier()->entityPtr(name) != nullptr;
    if (present == present_.contains(name)) return;
    if (present) {
      present_.insert(name);
    } else {
      present_.erase(name);
    }
    group_.switchSeen(mount_, name, present);
  }

 private:
  FleetStoreServiceMountGroup& group_;
  const ControllerMount& mount_;
  std::set<Kiln::Name> present_;
};

// ---- groups --------------------------------------------------------------------------

FleetStoreServiceMountGroup::FleetStoreServiceMountGroup(FleetStoreService& service, Kiln::String name,
                                                         FleetStoreServiceMounter* mounter)
    : service_(&service),
      manager_(service.serviceEntityManager()),
      name_(std::move(name)),
      mounter_(mounter),
      mounterAlive_(mounter->self_) {}

FleetStoreServiceMountGroup::~FleetStoreServiceMountGroup() = default;

std::string FleetStoreServiceMountGroup::where() const {
  return "service mount group " + Kiln::quoted(name_.stringValue());
}

void FleetStoreServiceMountGroup::requireOpen(const char* what) const {
  if (closed_) throw ServiceError(where() + " is closed; " + what + " must come before closedIs(true)");
}

void FleetStoreServiceMountGroup::versionWhiteListIs(Kiln::Ptr<VersionWhiteListBase> whiteList) {
  requireOpen("the white list");
  whiteList_ = std::move(whiteList);
}

void FleetStoreServiceMountGroup::controllerMountIs(Kiln::String path, Kiln::String switchPath, Kiln::String typeName,
                                                    Kiln::String flags) {
  requireOpen("mounts");
  const std::string at = where() + ": controller mount " + switchPath.stringValue();
  const Ledger::Path parent = directoryPath(path, at);
  const Ledger::Path switches = directoryPath(switchPath, at);
  if (switches.size() <= parent.size() || switches.prefix(parent.size()) != parent.text())
    throw ServiceError(at + ": the switch directory must lie below " + parent.text());
  const std::string_view letters = flags.stringValue();
  const bool valid = letters.find_first_not_of("rct") == std::string_view::npos &&
                     std::all_of(letters.begin(), letters.end(),
                                 [&](char c) { return std::count(letters.begin(), letters.end(), c) == 1; }) &&
                     letters.find('r') != std::string_view::npos;
  if (!valid)
    throw ServiceError(at + ": bad flags " + Kiln::quoted(letters) +
                       "; they are 'r' and optionally 'c' (create) and 't' (track), each once");
  controllerMounts_.push_back({parent.text(), switches.text(), &knownType(typeName, at), std::move(flags)});
}

void FleetStoreServiceMountGroup::perSwitchPublishMountIs(Kiln::String path, Kiln::String prefix,
                                                          Kiln::String typeName) {
  requireOpen("mounts");
  const std::string at = where() + ": per-switch publish mount " + path.stringValue();
  const Ledger::Path dir = directoryPath(path, at);
  const Kiln::TypeInfo& type = knownType(typeName, at);
  if (!type.create) throw ServiceError(at + ": entities of type " + type.name + " cannot be made by name");
  publishMounts_.push_back({dir.text(), std::move(prefix), &type});
}

void FleetStoreServiceMountGroup::closedIs(bool closed) {
  if (closed == closed_) return;
  if (!closed) throw ServiceError(where() + " is closed and cannot be opened again");
  if (!service_) throw ServiceError(where() + " belongs to a service that is gone");
  if (!whiteList_) throw ServiceError(where() + " closed without a version white list");
  if (whiteList_->allowedVersions().empty())
    throw ServiceError(where() + ": the white list " + Kiln::quoted(whiteList_->name().stringValue()) +
                       " admits no version");
  if (service_->closed()) start();
  closed_ = true;
}

void FleetStoreServiceMountGroup::check() const {
  const std::vector<DirNeed> needs = directoryNeeds(controllerMounts_, publishMounts_);
  const Kiln::Dir& root = *manager_->store()->root();
  for (std::size_t i = 0; i < needs.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      if (needs[j].path.text() == needs[i].path.text() && needs[j].entryType != needs[i].entryType)
        throw ServiceError(where() + ": " + needs[i].path.text() + " is mounted with two entry types, " +
                           needs[j].entryType->name + " and " + needs[i].entryType->name);
    }
    checkDirectory(root, needs[i], where());
  }
}

void FleetStoreServiceMountGroup::start() {
  if (started_) return;
  check();
  for (const DirNeed& need : directoryNeeds(controllerMounts_, publishMounts_))
    makeDirectory(*manager_->store()->root(), need);
  started_ = true;
  Kiln::EventLoop::current().post([group = Kiln::Ptr<FleetStoreServiceMountGroup>(this)] { group->completeMounts(); });
}

FleetStoreServiceMounter* FleetStoreServiceMountGroup::mounter() const {
  return mounterAlive_.expired() ? nullptr : mounter_;
}

void FleetStoreServiceMountGroup::completeMounts() {
  mountsComplete_ = true;
  VGW_TRACE(6, "group " << name_ << " mounts complete");
  if (FleetStoreServiceMounter* m = mounter()) m->doMountsComplete(name_, manager_);
  Kiln::EventLoop::current().post(
      [group = Kiln::Ptr<FleetStoreServiceMountGroup>(this)] { group->completeInitialSwitches(); });
}

void FleetStoreServiceMountGroup::completeInitialSwitches() {
  for (const ControllerMount& m : controllerMounts_) {
    if (m.flags.stringValue().find('t') == std::string::npos) continue;
    auto dir = manager_->getEntity<const Kiln::Dir>(m.switchPath.stringValue());
    if (!dir) {
      VGW_TRACE(0, "group " << name_ << ": the switch directory " << m.switchPath << " is gone; not tracked");
      continue;
    }
    tracking_.push_back(std::make_unique<SwitchDirReactor>(*this, m, dir));
    tracking_.back()->joinPresent();
  }
  initialSwitchMountsComplete_ = true;
  VGW_TRACE(6, "group " << name_ << " initial switch mounts complete, " << switches_.size() << " switches");
  if (FleetStoreServiceMounter* m = mounter()) m->doInitialSwitchMountsComplete(name_, manager_);
}

void FleetStoreServiceMountGroup::switchSeen(const ControllerMount& mount, const Kiln::Name& name, bool present) {
  unsigned& count = switches_[name];
  if (present) {
    ++count;
  } else {
    --count;
  }
  if (count == (present ? 1u : 0u)) publish(name, present);
  if (count == 0) switches_.erase(name);
  if (FleetStoreServiceMounter* m = mounter()) m->doHandleControllerMountState(name_, mount.switchPath, name, present);
}

void FleetStoreServiceMountGroup::publish(const Kiln::Name& switchName, bool joined) {
  for (const PublishMount& m : publishMounts_) {
    auto dir = manager_->getEntity<Kiln::Dir>(m.path.stringValue());
    if (!dir) continue;
    const Kiln::Name entryName(m.prefix.stringValue() + switchName.stringValue());
    const Kiln::Ptr<Kiln::Entity> existing = dir->entityPtr(entryName);
    if (existing && !existing->typeInfo().isA(*m.type)) {
      if (joined)
        Kiln::log(publishBlocked, service_ ? service_->name() : Kiln::String(), Ledger::joinPath(m.path.stringValue(),
                  Ledger::escapeSegment(entryName.stringValue())), switchName, existing->typeInfo().name);
      continue;
    }
    if (joined) {
      dir->createEntity(*m.type, entryName);
    } else if (existing) {
      dir->deleteEntity(entryName);
    }
  }
}

// ---- the service ------------------------------------------------------------------------

FleetStoreService::FleetStoreService(Kiln::String name, Kiln::Ptr<Ledger::EntityManager> serviceManager,
                                     Kiln::Ptr<Ledger::EntityManager> localManager)
    : name_(std::move(name)), serviceManager_(std::move(serviceManager)), localManager_(std::move(localManager)) {}

FleetStoreService::~FleetStoreService() {
  for (auto& [name, group] : groups_) group->service_ = nullptr;
}

Kiln::Ptr<VersionWhiteListBase> FleetStoreService::versionWhiteListIs(Kiln::String name) {
  auto& list = whiteLists_[name];
  if (!list) list = Kiln::newPtr<VersionWhiteListBase>(std::move(name));
  return list;
}

Kiln::Ptr<FleetStoreServiceMountGroup> FleetStoreService::serviceMountGroupIs(Kiln::String name,
                                                                           FleetStoreServiceMounter* mounter) {
  if (!mounter) throw ServiceError("service " + name_.stringValue() + ": a mount group needs a mounter");
  if (auto it = groups_.find(name); it != groups_.end()) {
    if (it->second->mounter_ != mounter)
      throw ServiceError("service " + name_.stringValue() + ": mount group " + Kiln::quoted(name.stringValue()) +
                         " already belongs to another mounter");
    return it->second;
  }
  if (closed_)
    throw ServiceError("service " + name_.stringValue() + " is closed; mount groups must come before closedIs(true)");
  Kiln::Ptr<FleetStoreServiceMountGroup> group(new FleetStoreServiceMountGroup(*this, name, mounter));
  groups_.emplace(std::move(name), group);
  return group;
}

Kiln::Ptr<FleetStoreServiceMountGroup> FleetStoreService::serviceMountGroup(const Kiln::String& name) const {
  auto it = groups_.find(name);
  return it == groups_.end() ? nullptr : it->second;
}

void FleetStoreService::closedIs(bool closed) {
  if (closed == closed_) return;
  if (!closed) throw ServiceError("service " + name_.stringValue() + " is closed and cannot be opened again");
  for (auto& [name, group] : groups_) {
    if (group->closed()) group->check();
  }
  for (auto& [name, group] : groups_) {
    if (group->closed()) group->start();
  }
  closed_ = true;
}

}  // namespace Fleet
