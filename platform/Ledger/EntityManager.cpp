#include "Ledger/EntityManager.h"

#include <algorithm>
#include <set>

#include "Kiln/Assert.h"

namespace Ledger {

namespace {

[[noreturn]] void fail(std::string_view where, std::string problem) {
  throw Kiln::JsonError(std::string(where), std::move(problem));
}

bool isCollection(Kiln::AttrKind kind) {
  return kind == Kiln::AttrKind::valueMap || kind == Kiln::AttrKind::set || kind == Kiln::AttrKind::entityMap ||
         kind == Kiln::AttrKind::refMap;
}

// Runs an attribute operation, placing its errors below `where`.
template <class Fn>
void within(std::string_view where, Fn fn) {
  try {
    fn();
  } catch (const Kiln::JsonError& e) {
    throw e.within(where);
  }
}

}  // namespace

Kiln::Ptr<Kiln::Entity> EntityManager::getEntity(std::string_view path) const {
  try {
    const Location loc = store_->resolve(Path::parse(path), path);
    return loc.exists ? loc.target : nullptr;
  } catch (const Kiln::JsonError&) {
    return nullptr;
  }
}

Kiln::Ptr<MountGroup> EntityManager::getMountGroup(Mounter* mounter) {
  KILN_ASSERT(mounter != nullptr, "mount group without a mounter");
  return Kiln::Ptr<MountGroup>(new MountGroup(Kiln::Ptr<EntityManager>(this), mounter));
}

std::optional<Kiln::String> EntityManager::mountFlags(std::string_view path) const {
  try {
    if (const Kiln::String* flags = store_->mountFlags(Path::parse(path))) return *flags;
  } catch (const Kiln::JsonError&) {
  }
  return std::nullopt;
}

void EntityManager::entityCheckIs(const Kiln::TypeInfo& type, EntityCheck check) {
  store_->entityCheckIs(type, std::move(check));
}

template <class Change>
void EntityManager::checkChange(const Location& loc, const Path& path, std::string_view where, Change change) const {
  const Kiln::TypeInfo& type = loc.owner->typeInfo();
  if (!store_->hasChecks(type)) return;
  const Kiln::Ptr<Kiln::Entity> candidate = type.scratchLike(*loc.owner);
  type.assignFrom(*candidate, *loc.owner);
  within(where, [&] { change(*candidate); });
  store_->check(*candidate, path.prefix(loc.ownerDepth));
}

void EntityManager::pathTypeIs(std::string_view path, const Kiln::TypeInfo& type) {
  store_->declaredTypeIs(Path::parse(path), path, type);
}

void EntityManager::loadDocument(const Kiln::Json& document) {
  if (!document.is_object())
    fail("", "a document is an object from path to entity, got " + Kiln::jsonTypeName(document));
  std::vector<EntityPlan> plans;
  std::set<std::string, std::less<>> given;
  for (const auto& [where, json] : document.items()) {
    const Path path = Path::parse(where);
    store_->checkWrite(path, where, Writer::external);
    plans.push_back(store_->planEntity(path, where, json));
    store_->check(*plans.back().scratch, where);
    if (!given.insert(path.text()).second) fail(where, "given twice in the document");
  }
  for (const EntityPlan& plan : plans) {
    for (std::size_t k = 1; k < plan.path.size(); ++k) {
      if (given.contains(plan.path.prefix(k)))
        fail(plan.where, "lies inside " + Kiln::quoted(plan.path.prefix(k)) + ", which the document also gives");
    }
  }
  for (const EntityPlan& plan : plans) store_->applyEntity(plan);
}

Location EntityManager::locate(const Path& path, std::string_view where) const {
  Location loc = store_->resolve(path, where);
  if (!loc.exists) fail(where, loc.missing);
  return loc;
}

Kiln::Json EntityManager::read(std::string_view path) const {
  const Location loc = locate(Path::parse(path), path);
  if (loc.kind == Location::Kind::root) return loc.target->toJson();
  return valueAt(*loc.owner, *loc.attr, loc.kind == Location::Kind::attribute ? nullptr : &loc.key);
}

void EntityManager::write(std::string_view path, const Kiln::Json& json, Writer writer) {
  const Path p = Path::parse(path);
  if (p.empty()) fail(path, "the root cannot be written; write below it");
  store_->checkWrite(p, path, writer);
  const Location loc = store_->resolve(p, path);
  if (loc.kind == Location::Kind::entry) {
    if (!loc.exists && !store_->declaredType(p)) {
      if (loc.interiorMissing) fail(path, loc.missing);
      const auto& dir = static_cast<const Kiln::Dir&>(*loc.owner);
      if (json.is_object() && !json.contains("@type") && !dir.entryType())
        fail(path, loc.missing + "; give \"@type\" to create one");
    }
    const EntityPlan plan = store_->planEntity(p, path, json);
    store_->check(*plan.scratch, path);
    store_->applyEntity(plan);
  } else if (loc.kind == Location::Kind::member) {
    checkChange(loc, p, path, [&](Kiln::Entity& e) { loc.attr->memberAssignJson(e, loc.key, json); });
    within(path, [&] { loc.attr->memberAssignJson(*loc.owner, loc.key, json); });
  } else {
    if (loc.attr->kind == Kiln::AttrKind::key) fail(path, "is a key and cannot be changed");
    if (!loc.attr->writable) fail(path, "is an index kept by the agent and cannot be written");
    checkChange(loc, p, path, [&](Kiln::Entity& e) { loc.attr->assignJson(e, json); });
    within(path, [&] { loc.attr->assignJson(*loc.owner, json); });
  }
}

void EntityManager::remove(std::string_view path, Writer writer) {
  const Path p = Path::parse(path);
  if (p.empty()) fail(path, "the root cannot be removed");
  store_->checkRemove(p, path, writer);
  const Location loc = locate(p, path);
  if (loc.kind == Location::Kind::entry) {
    static_cast<Kiln::Dir&>(*loc.owner).deleteEntity(Kiln::Name(loc.key));
  } else if (loc.kind == Location::Kind::member) {
    checkChange(loc, p, path, [&](Kiln::Entity& e) { loc.attr->memberDel(e, loc.key); });
    within(path, [&] { loc.attr->memberDel(*loc.owner, loc.key); });
  } else if (loc.attr->kind == Kiln::AttrKind::child) {
    loc.attr->assignJson(*loc.owner, Kiln::Json());
  } else if (isCollection(loc.attr->kind)) {
    fail(path, "is a collection; remove its members one by one, or write {} to empty it");
  } else {
    fail(path, "is a single value; write it instead");
  }
}

std::vector<std::string> EntityManager::list(std::string_view path) const {
  const Location loc = locate(Path::parse(path), path);
  std::vector<std::string> names;
  if (loc.kind == Location::Kind::attribute && isCollection(loc.attr->kind)) {
    for (const std::string& key : memberKeys(*loc.owner, *loc.attr)) names.push_back(escapeSegment(key));
    return names;
  }
  if (!loc.target) {
    if (loc.kind == Location::Kind::attribute && loc.attr->kind == Kiln::AttrKind::child) return names;
    fail(path, "is a single value; nothing lies below it");
  }
  if (const auto* dir = dynamic_cast<const Kiln::Dir*>(loc.target.get())) {
    for (const auto& [name, entry] : dir->entityPtr()) names.push_back(escapeSegment(name.stringValue()));
    return names;
  }
  loc.target->typeInfo().forEachAttr([&](const Kiln::AttrInfo& attr) {
    if (visibleAttr(attr)) names.emplace_back(attr.name);
  });
  return names;
}

std::unique_ptr<Watch> EntityManager::watch(std::string_view path, WatchCallback callback) const {
  const Path p = Path::parse(path);
  const Location loc = locate(p, path);
  std::optional<std::string> key;
  if (loc.kind == Location::Kind::member) {
    const std::vector<std::string> keys = memberKeys(*loc.owner, *loc.attr);
    if (std::find(keys.begin(), keys.end(), loc.key) == keys.end())
      fail(path, "name the key as the store writes it; list " + Kiln::quoted(p.prefix(p.size() - 1)) +
                     " shows the keys");
  }
  if (loc.kind == Location::Kind::entry || loc.kind == Location::Kind::member) key = loc.key;
  return std::unique_ptr<Watch>(new Watch(std::string(path), std::move(callback), loc.owner,
                                          std::string(p.prefix(loc.ownerDepth)),
                                          loc.kind == Location::Kind::root ? nullptr : loc.attr, std::move(key)));
}

}  // namespace Ledger
