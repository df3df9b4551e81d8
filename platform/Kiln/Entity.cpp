#include "Kiln/Entity.h"

#include <map>
#include <unordered_map>

#include "Kiln/Assert.h"

namespace Kiln {

namespace {

std::map<std::string, const TypeInfo*, std::less<>>& typeRegistry() {
  static std::map<std::string, const TypeInfo*, std::less<>> registry;
  return registry;
}

std::unordered_map<Name, Ptr<Entity>>& singletons() {
  static std::unordered_map<Name, Ptr<Entity>> registry;
  return registry;
}

}  // namespace

const TypeInfo Entity::typeInfo_{
    "Kiln::Entity", nullptr, {}, [](const Name& name) { return Ptr<Entity>(newPtr<Entity>(name)); },
    [](const Entity& like) { return Ptr<Entity>(newPtr<Entity>(like.name())); }};
static const TypeRegistration entityRegistration(Entity::typeInfo_);

const AttrInfo* TypeInfo::attr(std::string_view attrName) const {
  for (const TypeInfo* t = this; t; t = t->base) {
    for (const AttrInfo* a : t->attrs) {
      if (attrName == a->name) return a;
    }
  }
  return nullptr;
}

void TypeInfo::forEachAttr(const std::function<void(const AttrInfo&)>& fn) const {
  if (base) base->forEachAttr(fn);
  for (const AttrInfo* a : attrs) fn(*a);
}

void TypeInfo::assignJson(Entity& target, const Json& json) const {
  if (assignJsonHook) {
    assignJsonHook(target, json);
    return;
  }
  if (!json.is_object()) throwJsonError("expected an object, got " + jsonTypeName(json));
  Ptr<Entity> scratch = scratchLike(target);
  for (const auto& [member, value] : json.items()) {
    if (member == "@type") {
      if (!value.is_string() || value.get_ref<const std::string&>() != name)
        throw JsonError(member, "entity is of type " + std::string(name) + ", not " + value.dump());
      continue;
    }
    const AttrInfo* a = attr(member);
    if (!a || !a->assignJson) throw JsonError(member, std::string("no such attribute in ") + name);
    try {
      a->assignJson(*scratch, value);
    } catch (const JsonError& e) {
      throw e.within(member);
    }
  }
  assignFrom(target, *scratch);
}

void TypeInfo::assignFrom(Entity& target, const Entity& source) const {
  forEachAttr([&](const AttrInfo& a) {
    if (a.writable) a.assignFrom(target, source);
  });
}

bool TypeInfo::isA(const TypeInfo& other) const {
  for (const TypeInfo* t = this; t; t = t->base) {
    if (t == &other) return true;
  }
  return false;
}

const TypeInfo* TypeInfo::find(std::string_view typeName) {
  auto& registry = typeRegistry();
  auto it = registry.find(typeName);
  return it == registry.end() ? nullptr : it->second;
}

void TypeInfo::registerType(const TypeInfo& type) {
  auto [it, inserted] = typeRegistry().emplace(type.name, &type);
  KILN_ASSERT(inserted || it->second == &type, "two entity types with one name");
}

Json Entity::toJson() const {
  Json out = Json::object();
  typeInfo().forEachAttr([&](const AttrInfo& a) {
    if (a.toJson) out[a.name] = a.toJson(*this);
  });
  return out;
}

bool Entity::singletonExists(const Name& name) { return singletons().contains(name); }

void Entity::singletonDel(const Name& name) { singletons().erase(name); }

Entity* Entity::singletonLookup(const Name& name) {
  auto& registry = singletons();
  auto it = registry.find(name);
  return it == registry.end() ? nullptr : it->second.get();
}

void Entity::singletonInsert(const Name& name, Ptr<Entity> entity) {
  entity->name_ = name;
  singletons().emplace(name, std::move(entity));
}

std::string entityPath(const Entity& entity) {
  std::string path = entity.name().stringValue();
  for (const Entity* e = entity.parent(); e; e = e->parent()) {
    if (e->name().empty()) continue;
    path.insert(0, e->name().stringValue() + "/");
  }
  return path;
}

}  // namespace Kiln
