// Ledger mounts: how a service gets hold of the entities it works on.
//
// A mounter (the agent, a service) opens a mount group on an entity manager,
// names each entity it needs with a Mount (path, type name, flags) and
// closes the group. On a later turn of the event loop, never inside
// doClose, the group calls the mounter's doMountsComplete with the outcome
// and the manager. From then on the mounter holds its entities through the
// Ptrs it fetched with getEntity; its hot path never goes through paths.
//
// Flags, as given in a Mount:
//   "r"   the mounter only reads the entity. The path operations refuse the
//         agent (Writer::agent) at or below it; others may write it.
//   "w"   the mounter is the entity's one writer. The path operations refuse
//         any writer from outside (Writer::external) at or below it.
//   "ri", "wi"  the same, immediate: the mounter needs the entity before the
//         group completes. doMount itself creates an absent entity, so it
//         can be fetched at once, and it stays even if the group fails.
//         Without 'i' an absent entity is created when the group closes,
//         and only when every mount of the group is valid.
// A mount of an absent path creates the entity with default content, and
// the directories leading to it; when the path is declared (pathTypeIs) with
// a more specific type, that type is created. The group fails as a whole,
// and records no mount, when any mount names an unknown type or bad flags, a
// path that holds an entity that is not of the mounted type, a path inside
// an entity (only directory entries are mounted), a type that cannot be made
// by name, or clashes with an earlier mount of the same path (other flags,
// or a second writer). doMountsComplete then gets mountFailed, and
// failureReason() names the mount and the problem.
//
// Mounts are kept by the store for its life (path -> flags, mounter); those
// of a mounter that has been destroyed no longer count, and a group whose
// mounter is gone completes to nobody.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <vector>

#include "Kiln/Json.h"
#include "Kiln/Ptr.h"
#include "Kiln/String.h"

namespace Ledger {

class EntityManager;
class Path;

enum MountStatus : std::uint8_t {
  mountSuccess = 0,
  mountFailed = 1,
};
// The name under which callers compare a status with success.
inline constexpr MountStatus mountSuccess_ = mountSuccess;
std::ostream& operator<<(std::ostream& os, MountStatus status);

struct Mount {
  Mount(Kiln::String mountPath, Kiln::String mountTypeName, Kiln::String mountFlags)
      : path(std::move(mountPath)), typeName(std::move(mountTypeName)), flags(std::move(mountFlags)) {}
  Kiln::String path;
  Kiln::String typeName;  // a registered entity type: "Vgw::Status", "Kiln::Dir"
  Kiln::String flags;     // "r", "ri", "w" or "wi"
};

bool validMountFlags(std::string_view flags);
inline bool writerMountFlags(std::string_view flags) { return flags.starts_with('w'); }
inline bool immediateMountFlags(std::string_view flags) { return flags.ends_with('i'); }

// Tells whether its mounter still exists; mount records and closed groups
// hold it instead of the mounter itself.
class MounterLifeline : public Kiln::PtrInterface {
 public:
  bool alive() const { return alive_; }

 private:
  friend class Mounter;
  bool alive_ = true;
};

class Mounter {
 public:
  Mounter() : lifeline_(Kiln::newPtr<MounterLifeline>()) {}
  Mounter(const Mounter&) = delete;
  Mounter& operator=(const Mounter&) = delete;

  virtual void doMountsComplete(MountStatus status, Kiln::Ptr<EntityManager> manager) = 0;

  const Kiln::Ptr<MounterLifeline>& lifeline() const { return lifeline_; }

 protected:
  virtual ~Mounter() { lifeline_->alive_ = false; }

 private:
  Kiln::Ptr<MounterLifeline> lifeline_;
};

class MountGroup : public Kiln::PtrInterface {
 public:
  // Adds a mount. A failure is kept for the completion; the mounts after it
  // are recorded and not checked.
  void doMount(const Mount& mount);
  // Closes the group: checks every mount again (the store may have changed
  // since doMount), then creates the absent entities and records the
  // mounts, or does neither when a mount fails. The mounter hears the
  // outcome on a later turn of the event loop. `label` names the group in
  // failureReason(). `blocking` and `timeout` are what a store reached over
  // a network would use to wait inside doClose and to give up on a slow
  // peer; this store answers on the next turn, so they are recorded as
  // given and change nothing.
  void doClose(bool blocking, Kiln::String label, double timeout);

  bool closed() const { return closed_; }
  bool completed() const { return completed_; }
  MountStatus status() const { return failure_ ? mountFailed : mountSuccess; }
  // "<label>: <path>: <problem>", empty while no mount has failed.
  std::string failureReason() const;
  const std::vector<Mount>& mounts() const { return mounts_; }
  bool blocking() const { return blocking_; }
  const Kiln::String& label() const { return label_; }
  double timeout() const { return timeout_; }

 private:
  friend class EntityManager;
  MountGroup(Kiln::Ptr<EntityManager> manager, Mounter* mounter);

  // Checks mounts_[index] against the store and the earlier mounts of the
  // group; creates the entity when `create` says so. Records the first failure.
  void check(std::size_t index, bool create);
  void complete();

  Kiln::Ptr<EntityManager> manager_;
  Mounter* mounter_;
  Kiln::Ptr<MounterLifeline> lifeline_;
  std::vector<Mount> mounts_;
  std::optional<Kiln::JsonError> failure_;
  bool closed_ = false;
  bool completed_ = false;
  bool blocking_ = false;
  Kiln::String label_;
  double timeout_ = 0.0;
};

}  // namespace Ledger
