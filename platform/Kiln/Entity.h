// Kiln::Entity: named, typed, reflectable shared objects.
//
// An entity has a name, a plain back pointer to its parent and a type record
// (TypeInfo) that lists its attributes. The type record is what lets the
// state store, the configuration loader and the control socket read and
// write any entity as JSON without knowing its C++ type: every entity type is
// declared once (see platform/kilngen) and its accessors, notifications and
// JSON form are generated from that one declaration.
//
// Process-wide singletons are entities registered by name: singletonIs<T>()
// creates one on first use and returns the same object afterwards.
//
// Writing JSON into an entity (assignJson) is all or nothing: the JSON is
// first read into a scratch entity of the same type and keys, and only when
// every attribute was read without error is the live entity brought to the
// scratch's value through its setters, so reactors hear exactly the
// differences.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "Kiln/Json.h"
#include "Kiln/Ptr.h"
#include "Kiln/String.h"

namespace Kiln {

class Entity;
struct TypeInfo;

enum class AttrKind : std::uint8_t {
  key,        // constant, given at construction
  value,      // single value: foo(), fooIs(v)
  valueMap,   // keyed values: foo(k), fooIs(k, v), fooDel(k)
  set,        // keyed membership: foo(k), fooIs(k, bool), fooDel(k)
  entityMap,  // owned entities: foo(k), fooIs(k) creates, fooDel(k)
  refMap,     // index of shared entities: foo(k), fooIs(k, ptr), fooDel(k)
  child,      // one owned entity: foo(), fooIs(name) creates, fooDel()
};

using ChildVisitor = std::function<void(const std::string& key, Entity& child)>;

// The record of one attribute. Functions that take JSON throw JsonError and
// change nothing when the JSON is wrong.
struct AttrInfo {
  const char* name;
  AttrKind kind;
  const TypeInfo* owner;
  std::uint16_t index;
  const TypeInfo* memberType;  // the entity type of entityMap, refMap and child
  bool writable;               // false for keys and indexes
  Json (*toJson)(const Entity&);
  // Replaces the whole attribute; collections are reconciled member by member.
  void (*assignJson)(Entity&, const Json&);
  // Collection members by the text form of their key.
  bool (*memberToJson)(const Entity&, std::string_view key, Json& out);
  void (*memberAssignJson)(Entity&, std::string_view key, const Json&);
  bool (*memberDel)(Entity&, std::string_view key);
  // Entities held by entityMap and child attributes.
  Entity* (*childEntity)(const Entity&, std::string_view key);
  void (*forEachChild)(const Entity&, const ChildVisitor&);
  // The text form of a notification key of this attribute.
  std::string (*keyText)(const void* key);
  // Brings target's attribute to source's value through the setters.
  void (*assignFrom)(Entity& target, const Entity& source);
  bool (*equal)(const Entity&, const Entity&);
  // The name under which a partial row marks this attribute as absent, or null.
  const char* partialName;
};

struct TypeInfo {
  const char* name;  // "Vgw::Config"
  const TypeInfo* base;
  std::span<const AttrInfo* const> attrs;  // this type's own attributes
  // Builds a default entity of this type; null for types that need keys.
  Ptr<Entity> (*create)(const Name& name);
  // A fresh entity of the same type and keys as `like`, with default attributes.
  Ptr<Entity> (*scratchLike)(const Entity& like);
  // Types whose JSON form is not the object of their attributes (directories)
  // read it themselves.
  void (*assignJsonHook)(Entity& target, const Json& json) = nullptr;

  // Reads `json` into a scratch entity of target's type and keys, then
  // brings target to the scratch's value. Throws JsonError, changing nothing.
  void assignJson(Entity& target, const Json& json) const;
  // Brings every writable attribute of target to source's value.
  void assignFrom(Entity& target, const Entity& source) const;

  const AttrInfo* attr(std::string_view name) const;  // searches the bases too
  void forEachAttr(const std::function<void(const AttrInfo&)>& fn) const;  // bases first
  bool isA(const TypeInfo& other) const;

  static const TypeInfo* find(std::string_view name);
  static void registerType(const TypeInfo& type);
};

// Registers a type record at static initialization.
struct TypeRegistration {
  explicit TypeRegistration(const TypeInfo& type) { TypeInfo::registerType(type); }
};

class Entity : public PtrInterface {
 public:
  // Reactors on any entity; generated types refine it per attribute.
  class NotifieeConst : public PtrInterface::NotifieeConst {
   public:
    void onNotification(const AttrInfo*, const void*) override {}
  };

  explicit Entity(Name name = Name()) : name_(std::move(name)) {}

  const Name& name() const noexcept { return name_; }
  Entity* parent() const noexcept { return parent_; }
  void parentIs(Entity* parent) noexcept { parent_ = parent; }

  static const TypeInfo typeInfo_;
  virtual const TypeInfo& typeInfo() const { return typeInfo_; }

  // The JSON form of all attributes (generated types override).
  virtual Json toJson() const;
  void assignJson(const Json& json) { typeInfo().assignJson(*this, json); }
  // The text that stands for this entity in an index: its first key, or its name.
  virtual std::string identityText() const { return name_.stringValue(); }

  template <class T>
  static Ptr<T> singletonIs(const Name& name = T::typeInfo_.name);
  template <class T>
  static Ptr<T> singleton(const Name& name = T::typeInfo_.name);
  static bool singletonExists(const Name& name);
  // For tests and orderly shutdown: forgets the singleton.
  static void singletonDel(const Name& name);

 private:
  static Entity* singletonLookup(const Name& name);
  static void singletonInsert(const Name& name, Ptr<Entity> entity);

  Name name_;
  Entity* parent_ = nullptr;
};

template <class T>
Ptr<T> Entity::singletonIs(const Name& name) {
  if (Entity* e = singletonLookup(name)) return Ptr<T>(&dynamic_cast<T&>(*e));
  Ptr<T> created = newPtr<T>();
  singletonInsert(name, created);
  return created;
}

template <class T>
Ptr<T> Entity::singleton(const Name& name) {
  return Ptr<T>(dynamic_cast<T*>(singletonLookup(name)));
}

// Path of an entity within its parents, for messages ("status/ovsdb").
std::string entityPath(const Entity& entity);

}  // namespace Kiln
