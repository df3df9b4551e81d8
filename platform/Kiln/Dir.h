// Kiln::Dir: a directory of named entities.
//
// A directory owns its entries, which may be of any entity type, and
// notifies per name when an entry comes or goes (onEntityPtr(name)); changes
// inside an entry notify the entry's own reactors. Entries iterate in name
// order. Its JSON form is an object from entry name to the entry's JSON with
// an "@type" member naming the entry's type; "@type" may be left out on
// input when the directory has an entry type. A directory held in another
// one therefore shows its own "@type" among its entries, and reads it back.
// Copying a directory's content (TypeInfo::assignFrom) keeps entries whose
// name and type match and brings them to the source's content in place.
#pragma once

#include <map>

#include "Kiln/Entity.h"

namespace Kiln {

class Dir : public Entity {
 public:
  explicit Dir(Name name = Name()) : Entity(std::move(name)) {}

  static const TypeInfo typeInfo_;
  const TypeInfo& typeInfo() const override { return typeInfo_; }
  static const AttrInfo entityPtrAttr_;

  class NotifieeConst : public Entity::NotifieeConst {
   public:
    Ptr<const Dir> notifier() const { return Ptr<const Dir>(static_cast<const Dir*>(notifierBase().get())); }
    void notifierIs(const Ptr<const Dir>& dir) { PtrInterface::NotifieeConst::notifierIs(dir); }
    virtual void onEntityPtr(const Name& /*name*/) {}
    void onNotification(const AttrInfo* attr, const void* key) override;
  };

  using Entries = std::map<Name, Ptr<Entity>>;
  const Entries& entityPtr() const { return entries_; }
  Ptr<Entity> entityPtr(const Name& name) const;
  template <class T>
  Ptr<T> entityPtr(const Name& name) const {
    return dynamicPtrCast<T>(entityPtr(name));
  }

  // Returns the entry of that name, creating it when absent. An existing
  // entry of another type is a breach of the caller's assumptions.
  Ptr<Entity> createEntity(const TypeInfo& type, const Name& name);
  template <class T>
  Ptr<T> createEntity(const Name& name) {
    return staticPtrCast<T>(createEntity(T::typeInfo_, name));
  }
  bool deleteEntity(const Name& name);

  // The type of entries made from JSON without an "@type"; may be null.
  const TypeInfo* entryType() const { return entryType_; }
  void entryTypeIs(const TypeInfo* type) { entryType_ = type; }

  Json toJson() const override;

 private:
  static void assignDirJson(Entity& target, const Json& json);
  Entries entries_;
  const TypeInfo* entryType_ = nullptr;
};

// The type named by an entry's "@type" member, or `fallback` when it has
// none. Throws JsonError when neither gives a type, or the name is unknown.
const TypeInfo& entryTypeOf(const Json& entry, const TypeInfo* fallback);

}  // namespace Kiln
