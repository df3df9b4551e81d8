#include "Ledger/Mount.h"

#include "Kiln/Assert.h"
#include "Kiln/EventLoop.h"
#include "Ledger/EntityManager.h"

namespace Ledger {

std::ostream& operator<<(std::ostream& os, MountStatus status) {
  switch (status) {
    case mountSuccess: return os << "mountSuccess";
    case mountFailed: return os << "mountFailed";
  }
  return os << "MountStatus(" << static_cast<int>(status) << ")";
}

bool validMountFlags(std::string_view flags) {
  return flags == "r" || flags == "ri" || flags == "w" || flags == "wi";
}

MountGroup::MountGroup(Kiln::Ptr<EntityManager> manager, Mounter* mounter)
    : manager_(std::move(manager)), mounter_(mounter), lifeline_(mounter->lifeline()) {}

void MountGroup::doMount(const Mount& mount) {
  KILN_ASSERT(!closed_, "mount added to a closed mount group");
  mounts_.push_back(mount);
  if (!failure_) check(mounts_.size() - 1, immediateMountFlags(mount.flags.stringValue()));
}

void MountGroup::doClose(bool blocking, Kiln::String label, double timeout) {
  KILN_ASSERT(!closed_, "mount group closed twice");
  closed_ = true;
  blocking_ = blocking;
  label_ = std::move(label);
  timeout_ = timeout;
  for (std::size_t i = 0; i < mounts_.size() && !failure_; ++i) check(i, false);
  if (!failure_) {
    Store& store = *manager_->store();
    for (const Mount& mount : mounts_) {
      const Path path = Path::parse(mount.path.stringValue());
      store.placeMount(path, *Kiln::TypeInfo::find(mount.typeName.stringValue()));
      store.mountIs(path, mount.flags, lifeline_);
    }
  }
  Kiln::EventLoop::current().post([group = Kiln::Ptr<MountGroup>(this)] { group->complete(); });
}

void MountGroup::check(std::size_t index, bool create) {
  const Mount& mount = mounts_[index];
  const std::string& where = mount.path.stringValue();
  try {
    const Path path = Path::parse(where);
    const Kiln::TypeInfo* type = Kiln::TypeInfo::find(mount.typeName.stringValue());
    if (!type) Kiln::throwJsonError("unknown entity type " + Kiln::quoted(mount.typeName.stringValue()));
    for (std::size_t i = 0; i < index; ++i) {
      if (Path::parse(mounts_[i].path.stringValue()).text() == path.text() && mounts_[i].flags != mount.flags)
        Kiln::throwJsonError("mounted twice in the group, " + Kiln::quoted(mounts_[i].flags.stringValue()) +
                             " and " + Kiln::quoted(mount.flags.stringValue()));
    }
    Store& store = *manager_->store();
    if (!store.checkMount(path, where, *type, mount.flags.stringValue(), *lifeline_) && create)
      store.placeMount(path, *type);
  } catch (const Kiln::JsonError& e) {
    failure_ = e.where().empty() ? Kiln::JsonError(where, e.problem()) : e;
  }
}

std::string MountGroup::failureReason() const {
  if (!failure_) return {};
  return label_.empty() ? failure_->what() : label_.stringValue() + ": " + failure_->what();
}

void MountGroup::complete() {
  completed_ = true;
  if (lifeline_->alive()) mounter_->doMountsComplete(status(), manager_);
}

}  // namespace Ledger
