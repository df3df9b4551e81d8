// Ledger::Store: the in-process state store's tree and its bookkeeping.
//
// The store is a tree under a root Kiln::Dir. Interior nodes are
// directories; mounted and loaded entities are directory entries; below an
// entity a path continues through its attributes and collection members
// (see Path.h and resolve()). Next to the tree the store keeps what the tree
// alone does not say: the type declared for a path before anything is there,
// and the mounts made on it, which decide who may write where.
//
// Entity managers (EntityManager.h) are the handles through which the agent
// and the operators use a store, and several may share one. The store
// resolves paths, places entities, plans whole-entity writes and answers
// questions about mounts and declarations; the managers build the
// operations on it. Everything here runs on the one event loop thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Kiln/Dir.h"
#include "Ledger/Mount.h"
#include "Ledger/Path.h"

namespace Ledger {

// A rule of an entity type: judges an entity as a write would leave it and
// throws Kiln::JsonError, its where() relative to the entity (an attribute,
// "attribute/key"), when the write must be refused.
using EntityCheck = std::function<void(const Kiln::Entity&)>;

// Who writes through a path operation: the agent itself, or anybody else
// (an operator, a configuration file). See the mount flags in Mount.h.
enum class Writer : std::uint8_t { agent, external };

// Where a path leads. Every place but the root is named by an owner and an
// attribute: an entry is member `key` of a directory's entries
// (Kiln::Dir::entityPtrAttr_), an attribute is `attr` of the owner entity,
// and a member is member `key` of the owner's collection `attr`.
struct Location {
  enum class Kind : std::uint8_t { root, entry, attribute, member };
  Kind kind = Kind::root;
  Kiln::Ptr<Kiln::Entity> owner;
  const Kiln::AttrInfo* attr = nullptr;
  std::string key;             // entry name or member key, unescaped
  std::size_t ownerDepth = 0;  // how many segments lead to the owner
  // The entity found here: the root, an entry, a child, an entity member.
  Kiln::Ptr<Kiln::Entity> target;
  // False when the last named entry or member is absent; for an entry,
  // `interiorMissing` says directories before it are absent too.
  bool exists = true;
  bool interiorMissing = false;
  std::string missing;  // what is absent, for messages
};

// A whole entity to be written at a directory path, checked and read into a
// scratch entity, so that applying it cannot fail.
struct EntityPlan {
  Path path;
  std::string where;  // the path as given, for messages
  const Kiln::TypeInfo* type = nullptr;
  Kiln::Ptr<Kiln::Entity> existing;
  Kiln::Ptr<Kiln::Entity> scratch;
};

class Store : public Kiln::PtrInterface {
 public:
  Store();

  const Kiln::Ptr<Kiln::Dir>& root() const { return root_; }

  // Walks `path`: through directory entries while the node is a directory,
  // then through attributes, entity members and children. Throws
  // Kiln::JsonError(where, problem) when the path cannot name anything:
  // a missing member before the last segment, an unknown attribute, a
  // segment below a value.
  Location resolve(const Path& path, std::string_view where) const;

  // Reads `json` (an entity's JSON, "@type" optional where the type is
  // otherwise known) for the directory path `path` into a scratch entity.
  // The type is that of the entity there, else "@type", else the declared
  // type, else the parent directory's entry type. Throws Kiln::JsonError
  // whose where() starts with `where`.
  EntityPlan planEntity(const Path& path, std::string_view where, const Kiln::Json& json) const;
  // Brings the store to a plan: creates the entity (and the directories
  // leading to it) when absent, then sets it to the scratch's content
  // through its setters.
  Kiln::Ptr<Kiln::Entity> applyEntity(const EntityPlan& plan);

  // Rules (EntityManager::entityCheckIs). check() runs every rule of the
  // candidate's type and its bases, placing a refusal below `where`.
  void entityCheckIs(const Kiln::TypeInfo& type, EntityCheck check);
  bool hasChecks(const Kiln::TypeInfo& type) const;
  void check(const Kiln::Entity& candidate, std::string_view where) const;

  // Declarations (EntityManager::pathTypeIs).
  void declaredTypeIs(const Path& path, std::string_view where, const Kiln::TypeInfo& type);
  const Kiln::TypeInfo* declaredType(const Path& path) const;

  // Mounts. checkMount throws Kiln::JsonError(where, problem) when mounting
  // `type` at `path` with `flags` by `mounter` cannot be made, and returns
  // the entity there or null; placeMount creates the entity when absent.
  Kiln::Ptr<Kiln::Entity> checkMount(const Path& path, std::string_view where, const Kiln::TypeInfo& type,
                                     std::string_view flags, const MounterLifeline& mounter) const;
  Kiln::Ptr<Kiln::Entity> placeMount(const Path& path, const Kiln::TypeInfo& type);
  void mountIs(const Path& path, const Kiln::String& flags, const Kiln::Ptr<MounterLifeline>& mounter);
  // The flags of the live mount with the longest path that covers `path`.
  const Kiln::String* mountFlags(const Path& path) const;

  // Refuse, with a Kiln::JsonError naming `where` and the mount, a writer
  // that the mount covering the path excludes, and a write over (or a
  // removal of) a mounted entity.
  void checkWrite(const Path& path, std::string_view where, Writer writer) const;
  void checkRemove(const Path& path, std::string_view where, Writer writer) const;

 private:
  struct MountRecord {
    Kiln::String flags;
    std::vector<Kiln::Ptr<MounterLifeline>> mounters;
    bool live() const;
  };
  using MountMap = std::map<std::string, MountRecord, std::less<>>;

  // The deepest node on the directory walk along `path`, and how many
  // segments lead to it.
  std::pair<Kiln::Ptr<Kiln::Entity>, std::size_t> walkDirs(const Path& path) const;
  // Throws unless `path` names a directory entry (existing or not).
  void requireDirPath(const Path& path, std::string_view where, const Kiln::Entity& deepest,
                      std::size_t depth) const;
  Kiln::Ptr<Kiln::Entity> place(const Path& path, const Kiln::TypeInfo& type);
  // The type a mount of `type` at the absent `path` creates.
  const Kiln::TypeInfo& mountedType(const Path& path, std::string_view where, const Kiln::TypeInfo& type) const;
  // The live mount covering `path`, with its path, or end.
  MountMap::const_iterator covering(const Path& path) const;
  // The first live mount strictly below `path` (or also at it), or end.
  MountMap::const_iterator mountBelow(const Path& path, bool orAt) const;
  void checkWriter(const Path& path, std::string_view where, Writer writer) const;

  Kiln::Ptr<Kiln::Dir> root_;
  std::map<std::string, const Kiln::TypeInfo*, std::less<>> declared_;
  std::vector<std::pair<const Kiln::TypeInfo*, EntityCheck>> checks_;
  MountMap mounts_;
};

// What read() gives at a place named by owner, attribute and (for entries
// and members) key: the entry's or member's JSON, or the attribute's; null
// when absent.
Kiln::Json valueAt(const Kiln::Entity& owner, const Kiln::AttrInfo& attr, const std::string* key);
// True for attributes that paths name: those with a JSON form.
bool visibleAttr(const Kiln::AttrInfo& attr);
// The key texts of a collection attribute (directory entries included).
std::vector<std::string> memberKeys(const Kiln::Entity& owner, const Kiln::AttrInfo& attr);

}  // namespace Ledger
