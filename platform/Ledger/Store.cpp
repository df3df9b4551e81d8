#include "Ledger/Store.h"

#include <algorithm>

namespace Ledger {

namespace {

[[noreturn]] void fail(std::string_view where, std::string problem) {
  throw Kiln::JsonError(std::string(where), std::move(problem));
}

Kiln::Dir* asDir(Kiln::Entity* entity) { return dynamic_cast<Kiln::Dir*>(entity); }
const Kiln::Dir* asDir(const Kiln::Entity* entity) { return dynamic_cast<const Kiln::Dir*>(entity); }

// How a message names the node that the first `depth` segments lead to.
std::string placeName(const Path& path, std::size_t depth) {
  return depth == 0 ? std::string("the root") : Kiln::quoted(path.prefix(depth));
}

std::string typeName(const Kiln::Entity& entity) { return entity.typeInfo().name; }

}  // namespace

bool visibleAttr(const Kiln::AttrInfo& attr) {
  return attr.toJson != nullptr || &attr == &Kiln::Dir::entityPtrAttr_;
}

Kiln::Json valueAt(const Kiln::Entity& owner, const Kiln::AttrInfo& attr, const std::string* key) {
  if (&attr == &Kiln::Dir::entityPtrAttr_) {
    const Kiln::Entity* entry = attr.childEntity(owner, *key);
    return entry ? entry->toJson() : Kiln::Json();
  }
  if (key) {
    Kiln::Json out;
    return attr.memberToJson(owner, *key, out) ? out : Kiln::Json();
  }
  return attr.toJson(owner);
}

std::vector<std::string> memberKeys(const Kiln::Entity& owner, const Kiln::AttrInfo& attr) {
  std::vector<std::string> keys;
  if (attr.kind == Kiln::AttrKind::entityMap) {
    attr.forEachChild(owner, [&](const std::string& key, Kiln::Entity&) { keys.push_back(key); });
  } else {
    const Kiln::Json members = attr.toJson(owner);
    for (const auto& [key, value] : members.items()) keys.push_back(key);
  }
  return keys;
}

Store::Store() : root_(Kiln::newPtr<Kiln::Dir>()) {}

Location Store::resolve(const Path& path, std::string_view where) const {
  const auto& segments = path.segments();
  const std::size_t n = segments.size();
  Location loc;
  loc.owner = root_;
  loc.target = root_;
  Kiln::Ptr<Kiln::Entity> node = root_;
  std::size_t i = 0;
  while (i < n) {
    loc = Location();
    loc.owner = node;
    loc.ownerDepth = i;
    if (Kiln::Dir* dir = asDir(node.get())) {
      loc.kind = Location::Kind::entry;
      loc.attr = &Kiln::Dir::entityPtrAttr_;
      loc.key = segments[i];
      loc.target = dir->entityPtr(Kiln::Name(loc.key));
      ++i;
      if (!loc.target) {
        loc.exists = false;
        loc.interiorMissing = i < n;
        loc.missing = "no entry " + Kiln::quoted(loc.key) + " in " + placeName(path, i - 1);
        return loc;
      }
      node = loc.target;
      continue;
    }
    const Kiln::AttrInfo* attr = node->typeInfo().attr(segments[i]);
    if (!attr || !visibleAttr(*attr))
      fail(where, "no attribute " + Kiln::quoted(segments[i]) + " in the " + typeName(*node) + " " +
                      placeName(path, i));
    loc.kind = Location::Kind::attribute;
    loc.attr = attr;
    ++i;
    switch (attr->kind) {
      case Kiln::AttrKind::child:
        loc.target = attr->childEntity(*node, {});
        if (i < n && !loc.target) fail(where, placeName(path, i) + " holds no entity");
        node = loc.target;
        break;
      case Kiln::AttrKind::entityMap:
      case Kiln::AttrKind::valueMap:
      case Kiln::AttrKind::set:
      case Kiln::AttrKind::refMap: {
        if (i == n) return loc;
        loc.kind = Location::Kind::member;
        loc.key = segments[i];
        ++i;
        bool present = false;
        try {
          if (attr->kind == Kiln::AttrKind::entityMap) {
            loc.target = attr->childEntity(*node, loc.key);
            present = loc.target != nullptr;
          } else {
            Kiln::Json ignored;
            present = attr->memberToJson(*node, loc.key, ignored);
          }
        } catch (const Kiln::JsonError& e) {
          fail(where, e.problem());
        }
        if (!present) {
          loc.missing = "no member " + Kiln::quoted(loc.key) + " in " + placeName(path, i - 1);
          if (i < n) fail(where, loc.missing);
          loc.exists = false;
          return loc;
        }
        if (i < n && !loc.target)
          fail(where, placeName(path, i) + " is a single value; nothing lies below it");
        node = loc.target;
        break;
      }
      case Kiln::AttrKind::key:
      case Kiln::AttrKind::value:
        if (i < n) fail(where, placeName(path, i) + " is a single value; nothing lies below it");
        return loc;
    }
  }
  return loc;
}

std::pair<Kiln::Ptr<Kiln::Entity>, std::size_t> Store::walkDirs(const Path& path) const {
  Kiln::Ptr<Kiln::Entity> node = root_;
  std::size_t depth = 0;
  while (depth < path.size()) {
    const Kiln::Dir* dir = asDir(node.get());
    if (!dir) break;
    Kiln::Ptr<Kiln::Entity> next = dir->entityPtr(Kiln::Name(path.segments()[depth]));
    if (!next) break;
    node = std::move(next);
    ++depth;
  }
  return {node, depth};
}

void Store::requireDirPath(const Path& path, std::string_view where, const Kiln::Entity& deepest,
                           std::size_t depth) const {
  if (path.empty()) fail(where, "the root holds the whole store; name a path below it");
  if (depth < path.size() && !asDir(&deepest))
    fail(where, placeName(path, depth) + " is a " + typeName(deepest) +
                    ", not a directory; whole entities stand only in directories");
}

Kiln::Ptr<Kiln::Entity> Store::place(const Path& path, const Kiln::TypeInfo& type) {
  Kiln::Ptr<Kiln::Entity> node = root_;
  for (std::size_t i = 0; i + 1 < path.size(); ++i)
    node = asDir(node.get())->createEntity(Kiln::Dir::typeInfo_, Kiln::Name(path.segments()[i]));
  return asDir(node.get())->createEntity(type, Kiln::Name(path.back()));
}

EntityPlan Store::planEntity(const Path& path, std::string_view where, const Kiln::Json& json) const {
  if (!json.is_object()) fail(where, "expected an object, got " + Kiln::jsonTypeName(json));
  auto [node, depth] = walkDirs(path);
  requireDirPath(path, where, *node, depth);
  EntityPlan plan;
  plan.path = path;
  plan.where = std::string(where);
  try {
    if (depth == path.size()) {
      plan.existing = node;
      plan.type = &node->typeInfo();
      if (json.contains("@type")) {
        const Kiln::TypeInfo& given = Kiln::entryTypeOf(json, nullptr);
        if (!plan.type->isA(given))
          Kiln::throwJsonError("holds a " + typeName(*node) + ", not a " + given.name);
      }
      plan.scratch = plan.type->scratchLike(*node);
    } else {
      const Kiln::TypeInfo* declared = declaredType(path);
      const Kiln::TypeInfo* fallback = declared;
      if (!fallback && depth + 1 == path.size()) fallback = asDir(node.get())->entryType();
      plan.type = &Kiln::entryTypeOf(json, fallback);
      if (declared && !plan.type->isA(*declared))
        Kiln::throwJsonError(std::string("is declared as a ") + declared->name + ", not a " + plan.type->name);
      if (!plan.type->create)
        Kiln::throwJsonError(std::string("entities of type ") + plan.type->name + " cannot be made by name");
      plan.scratch = plan.type->create(Kiln::Name(path.back()));
    }
    Kiln::Json content = json;
    content.erase("@type");
    plan.scratch->assignJson(content);
  } catch (const Kiln::JsonError& e) {
    throw e.within(where);
  }
  return plan;
}

Kiln::Ptr<Kiln::Entity> Store::applyEntity(const EntityPlan& plan) {
  Kiln::Ptr<Kiln::Entity> live = plan.existing ? plan.existing : place(plan.path, *plan.type);
  plan.type->assignFrom(*live, *plan.scratch);
  return live;
}

void Store::entityCheckIs(const Kiln::TypeInfo& type, EntityCheck check) {
  checks_.emplace_back(&type, std::move(check));
}

bool Store::hasChecks(const Kiln::TypeInfo& type) const {
  return std::any_of(checks_.begin(), checks_.end(), [&](const auto& c) { return type.isA(*c.first); });
}

void Store::check(const Kiln::Entity& candidate, std::string_view where) const {
  for (const auto& [type, rule] : checks_) {
    if (!candidate.typeInfo().isA(*type)) continue;
    try {
      rule(candidate);
    } catch (const Kiln::JsonError& e) {
      throw e.within(where);
    }
  }
}

void Store::declaredTypeIs(const Path& path, std::string_view where, const Kiln::TypeInfo& type) {
  if (!type.create) fail(where, std::string("entities of type ") + type.name + " cannot be made by name");
  auto [node, depth] = walkDirs(path);
  requireDirPath(path, where, *node, depth);
  if (depth == path.size() && !node->typeInfo().isA(type))
    fail(where, "holds a " + typeName(*node) + ", not a " + type.name);
  declared_[path.text()] = &type;
}

const Kiln::TypeInfo* Store::declaredType(const Path& path) const {
  auto it = declared_.find(path.text());
  return it == declared_.end() ? nullptr : it->second;
}

bool Store::MountRecord::live() const {
  return std::any_of(mounters.begin(), mounters.end(), [](const auto& m) { return m->alive(); });
}

const Kiln::TypeInfo& Store::mountedType(const Path& path, std::string_view where,
                                         const Kiln::TypeInfo& type) const {
  const Kiln::TypeInfo* made = &type;
  if (const Kiln::TypeInfo* declared = declaredType(path)) {
    if (declared->isA(type)) {
      made = declared;
    } else if (!type.isA(*declared)) {
      fail(where, std::string("is declared as a ") + declared->name + ", not a " + type.name);
    }
  }
  if (!made->create) fail(where, std::string("entities of type ") + made->name + " cannot be made by name");
  return *made;
}

Kiln::Ptr<Kiln::Entity> Store::checkMount(const Path& path, std::string_view where, const Kiln::TypeInfo& type,
                                          std::string_view flags, const MounterLifeline& mounter) const {
  if (!validMountFlags(flags))
    fail(where, "bad mount flags " + Kiln::quoted(flags) + "; they are \"r\", \"ri\", \"w\" or \"wi\"");
  auto [node, depth] = walkDirs(path);
  requireDirPath(path, where, *node, depth);
  if (auto it = mounts_.find(path.text()); it != mounts_.end() && it->second.live()) {
    const MountRecord& record = it->second;
    if (record.flags.stringValue() != flags)
      fail(where, "already mounted " + Kiln::quoted(record.flags) + ", so it cannot be mounted " +
                      Kiln::quoted(flags));
    const bool mine = std::any_of(record.mounters.begin(), record.mounters.end(),
                                  [&](const auto& m) { return m.get() == &mounter; });
    if (writerMountFlags(flags) && !mine)
      fail(where, "already mounted " + Kiln::quoted(flags) + " by another mounter; an entity has one writer");
  }
  if (depth == path.size()) {
    if (!node->typeInfo().isA(type)) fail(where, "holds a " + typeName(*node) + ", not a " + type.name);
    return node;
  }
  mountedType(path, where, type);
  return nullptr;
}

Kiln::Ptr<Kiln::Entity> Store::placeMount(const Path& path, const Kiln::TypeInfo& type) {
  auto [node, depth] = walkDirs(path);
  if (depth == path.size()) return node;
  return place(path, mountedType(path, path.text(), type));
}

void Store::mountIs(const Path& path, const Kiln::String& flags, const Kiln::Ptr<MounterLifeline>& mounter) {
  MountRecord& record = mounts_[path.text()];
  if (!record.live()) record.flags = flags;
  std::erase_if(record.mounters, [](const auto& m) { return !m->alive(); });
  if (std::find(record.mounters.begin(), record.mounters.end(), mounter) == record.mounters.end())
    record.mounters.push_back(mounter);
}

Store::MountMap::const_iterator Store::covering(const Path& path) const {
  for (std::size_t k = path.size(); k > 0; --k) {
    auto it = mounts_.find(path.prefix(k));
    if (it != mounts_.end() && it->second.live()) return it;
  }
  return mounts_.end();
}

Store::MountMap::const_iterator Store::mountBelow(const Path& path, bool orAt) const {
  if (orAt) {
    auto it = mounts_.find(path.text());
    if (it != mounts_.end() && it->second.live()) return it;
  }
  const std::string below = path.empty() ? std::string() : path.text() + "/";
  for (auto it = mounts_.lower_bound(below); it != mounts_.end() && it->first.starts_with(below); ++it) {
    if (it->second.live()) return it;
  }
  return mounts_.end();
}

const Kiln::String* Store::mountFlags(const Path& path) const {
  auto it = covering(path);
  return it == mounts_.end() ? nullptr : &it->second.flags;
}

void Store::checkWriter(const Path& path, std::string_view where, Writer writer) const {
  auto it = covering(path);
  if (it == mounts_.end()) return;
  const std::string mounted = "mounted " + Kiln::quoted(it->second.flags.stringValue()) +
                              (it->first == path.text() ? "" : " at " + it->first);
  const bool agentWrites = writerMountFlags(it->second.flags.stringValue());
  if (writer == Writer::external && agentWrites)
    fail(where, "owned by the agent (" + mounted + "); it cannot be written from outside");
  if (writer == Writer::agent && !agentWrites)
    fail(where, "read-only to the agent (" + mounted + "); the agent cannot write it");
}

void Store::checkWrite(const Path& path, std::string_view where, Writer writer) const {
  checkWriter(path, where, writer);
  auto it = mountBelow(path, false);
  if (it != mounts_.end())
    fail(where, "holds the mounted entity " + Kiln::quoted(it->first) +
                    ", which a write here would replace; write at or below it instead");
}

void Store::checkRemove(const Path& path, std::string_view where, Writer writer) const {
  checkWriter(path, where, writer);
  auto it = mountBelow(path, true);
  if (it == mounts_.end()) return;
  if (it->first == path.text())
    fail(where, "mounted " + Kiln::quoted(it->second.flags.stringValue()) + "; a mounted entity cannot be removed");
  fail(where, "holds the mounted entity " + Kiln::quoted(it->first) + ", which cannot be removed");
}

}  // namespace Ledger
