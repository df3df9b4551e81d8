#include "Kiln/Dir.h"

#include <vector>

#include "Kiln/Assert.h"

namespace Kiln {

namespace {

const AttrInfo* const dirAttrs[] = {&Dir::entityPtrAttr_};

Entity* dirChild(const Entity& e, std::string_view name) {
  return static_cast<const Dir&>(e).entityPtr(Name(name)).get();
}

void dirChildren(const Entity& e, const ChildVisitor& visit) {
  for (const auto& [name, entry] : static_cast<const Dir&>(e).entityPtr()) visit(name.stringValue(), *entry);
}

std::string dirKeyText(const void* key) { return static_cast<const Name*>(key)->stringValue(); }

// Brings target's entries to source's: an entry whose name and type both
// match is kept and brought to the source entry's content in place, so its
// reactors hear only differences; the others are replaced.
void dirAssignFrom(Entity& t, const Entity& s) {
  auto& target = static_cast<Dir&>(t);
  const auto& source = static_cast<const Dir&>(s);
  std::vector<Name> drop;
  for (const auto& [name, entry] : target.entityPtr()) {
    Ptr<Entity> wanted = source.entityPtr(name);
    if (!wanted || &wanted->typeInfo() != &entry->typeInfo()) drop.push_back(name);
  }
  for (const Name& name : drop) target.deleteEntity(name);
  for (const auto& [name, wanted] : source.entityPtr()) {
    wanted->typeInfo().assignFrom(*target.createEntity(wanted->typeInfo(), name), *wanted);
  }
}

Ptr<Entity> dirScratchLike(const Entity& like) {
  Ptr<Dir> scratch = newPtr<Dir>(like.name());
  scratch->entryTypeIs(static_cast<const Dir&>(like).entryType());
  return scratch;
}

}  // namespace

const AttrInfo Dir::entityPtrAttr_{"entityPtr", AttrKind::entityMap, &Dir::typeInfo_, 0, &Entity::typeInfo_,
                                   true, nullptr, nullptr, nullptr, nullptr, nullptr, &dirChild, &dirChildren,
                                   &dirKeyText, &dirAssignFrom, nullptr, nullptr};

const TypeInfo Dir::typeInfo_{"Kiln::Dir",
                              &Entity::typeInfo_,
                              dirAttrs,
                              [](const Name& name) { return Ptr<Entity>(newPtr<Dir>(name)); },
                              &dirScratchLike,
                              &Dir::assignDirJson};
static const TypeRegistration dirRegistration(Dir::typeInfo_);

void Dir::NotifieeConst::onNotification(const AttrInfo* attr, const void* key) {
  if (attr == &entityPtrAttr_) onEntityPtr(*static_cast<const Name*>(key));
}

Ptr<Entity> Dir::entityPtr(const Name& name) const {
  auto it = entries_.find(name);
  return it == entries_.end() ? nullptr : it->second;
}

Ptr<Entity> Dir::createEntity(const TypeInfo& type, const Name& name) {
  if (auto it = entries_.find(name); it != entries_.end()) {
    KILN_ASSERT(it->second->typeInfo().isA(type), "directory entry exists with another type");
    return it->second;
  }
  KILN_ASSERT(type.create != nullptr, "directory entries must be constructible by name");
  Ptr<Entity> entry = type.create(name);
  entry->parentIs(this);
  entries_.emplace(name, entry);
  const Name key = name;
  notify(&entityPtrAttr_, &key);
  return entry;
}

bool Dir::deleteEntity(const Name& name) {
  auto it = entries_.find(name);
  if (it == entries_.end()) return false;
  Ptr<Entity> entry = std::move(it->second);
  entries_.erase(it);
  entry->parentIs(nullptr);
  entry->deletedIs(true);
  const Name key = name;
  notify(&entityPtrAttr_, &key);
  return true;
}

Json Dir::toJson() const {
  Json out = Json::object();
  for (const auto& [name, entry] : entries_) {
    Json j = entry->toJson();
    j["@type"] = entry->typeInfo().name;
    out[name.stringValue()] = std::move(j);
  }
  return out;
}

const TypeInfo& entryTypeOf(const Json& entry, const TypeInfo* fallback) {
  if (!entry.is_object()) throwJsonError("expected an object, got " + jsonTypeName(entry));
  auto it = entry.find("@type");
  if (it == entry.end()) {
    if (!fallback) throwJsonError("needs an \"@type\" member naming its entity type");
    return *fallback;
  }
  if (!it->is_string()) throwJsonError("\"@type\" must be a string");
  const TypeInfo* type = TypeInfo::find(it->get_ref<const std::string&>());
  if (!type) throwJsonError("unknown entity type " + it->dump());
  if (!type->create) throwJsonError("entities of type " + it->dump() + " cannot be made by name");
  return *type;
}

void Dir::assignDirJson(Entity& target, const Json& json) {
  auto& dir = static_cast<Dir&>(target);
  if (!json.is_object()) throwJsonError("expected an object, got " + jsonTypeName(json));
  // Read every entry into a scratch directory first, so a bad entry changes nothing.
  Ptr<Dir> scratch = newPtr<Dir>(dir.name());
  for (const auto& [name, value] : json.items()) {
    // A directory held in another one carries its own "@type" among its
    // entries (see toJson); it names the directory, not an entry.
    if (name == "@type") {
      if (!value.is_string() || value.get_ref<const std::string&>() != dir.typeInfo().name)
        throw JsonError(name, "directory is of type " + std::string(dir.typeInfo().name) + ", not " + value.dump());
      continue;
    }
    try {
      const TypeInfo& type = entryTypeOf(value, dir.entryType_);
      Ptr<Entity> entry = type.create(Name(name));
      entry->assignJson(value);
      scratch->entries_.emplace(Name(name), std::move(entry));
    } catch (const JsonError& e) {
      throw e.within(name);
    }
  }
  dirAssignFrom(dir, *scratch);
}

}  // namespace Kiln
