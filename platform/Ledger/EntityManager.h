// Ledger::EntityManager: a handle on a state store, for the agent and for
// the operators.
//
// The agent uses a manager to mount its entities (getMountGroup) and to
// fetch them once (getEntity); afterwards it works on the Ptrs. Several
// managers may share one Store, as the agent's local and service-side
// managers do; they see the same tree, declarations and mounts.
//
// Operators reach the store through the path operations, built for a
// command line or a control socket (see Path.h for path syntax):
//   read    the JSON of an entity (a directory gives its entries), of one
//           attribute, or of one collection member;
//   write   replaces an entity, an attribute or a member with the JSON given;
//   remove  deletes a directory entry, a collection member or a child;
//   list    the escaped names below a path: entries of a directory,
//           attributes of an entity, keys of a collection;
//   watch   streams every change at or below a path.
// Each checks everything before it changes anything: on error it throws
// Kiln::JsonError whose where() starts with the path as given and whose
// problem() says what is wrong, and the store is as it was. Writes go
// through the entities' setters, so reactors hear exactly the differences.
//
// Who may write is decided by the mounts (Mount.h): a path covered by a "w"
// or "wi" mount belongs to the agent and is refused to Writer::external; a
// path covered by an "r" or "ri" mount is refused to Writer::agent. A write
// over a directory that holds a mounted entity, and the removal of a
// mounted entity, are refused to everyone: the mounter holds that entity.
//
// Rules (entityCheckIs) keep an entity type's values within what its
// readers can use, whoever writes: every path operation and document
// judges the entity as it would leave it (a whole entity, or the one that
// holds the attribute or member written) before changing anything, and a
// refusal names the attribute and the problem.
//
// A whole entity is created at a directory path only when its type is
// known: from "@type" in the JSON, from a declaration (pathTypeIs), or from
// the directory's entry type. Missing directories on the way are created for
// declared paths and for configuration documents.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Ledger/Mount.h"
#include "Ledger/Store.h"
#include "Ledger/Watch.h"

namespace Ledger {

class EntityManager : public Kiln::PtrInterface {
 public:
  explicit EntityManager(Kiln::Ptr<Store> store) : store_(std::move(store)) {}

  const Kiln::Ptr<Store>& store() const { return store_; }

  // The entity a path leads to (a directory entry, a child, an entity
  // member), or null when there is none or the path is malformed.
  Kiln::Ptr<Kiln::Entity> getEntity(std::string_view path) const;
  template <class T>
  Kiln::Ptr<T> getEntity(std::string_view path) const {
    return Kiln::dynamicPtrCast<T>(getEntity(path));
  }

  Kiln::Ptr<MountGroup> getMountGroup(Mounter* mounter);
  // The flags of the mount covering `path` (the longest mounted prefix).
  std::optional<Kiln::String> mountFlags(std::string_view path) const;

  // Declares the type that lives at a directory path before anything is
  // there, so that a document or a write may leave out "@type", and a write
  // may create it. Throws Kiln::JsonError when the path is malformed, is
  // inside an entity, holds an entity of another type, or the type cannot
  // be made by name.
  void pathTypeIs(std::string_view path, const Kiln::TypeInfo& type);

  // Adds a rule for `type` and the types derived from it; see Store.h.
  void entityCheckIs(const Kiln::TypeInfo& type, EntityCheck check);

  // Loads a configuration document: an object from directory path to
  // entity JSON. All or nothing: every entry is checked and read into a
  // scratch entity first; an entry at an absent, undeclared path needs
  // "@type"; entries may not lie inside one another; the writer is
  // Writer::external. Existing entities are brought to the document's
  // content through their setters; absent ones are created.
  void loadDocument(const Kiln::Json& document);

  Kiln::Json read(std::string_view path) const;
  void write(std::string_view path, const Kiln::Json& json, Writer writer);
  void remove(std::string_view path, Writer writer);
  std::vector<std::string> list(std::string_view path) const;
  // Throws Kiln::JsonError when the path does not exist (yet).
  std::unique_ptr<Watch> watch(std::string_view path, WatchCallback callback) const;

 private:
  Location locate(const Path& path, std::string_view where) const;
  // Runs `change` on a copy of the owner of `loc` and checks the copy, when
  // the owner's type has rules.
  template <class Change>
  void checkChange(const Location& loc, const Path& path, std::string_view where, Change change) const;
  Kiln::Ptr<Store> store_;
};

}  // namespace Ledger
