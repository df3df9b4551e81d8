#include "Kiln/Ptr.h"

#include <algorithm>

#include "Kiln/Assert.h"

namespace Kiln {

PtrInterface::~PtrInterface() {
  // A reactor holds a reference to its notifier, so none can remain here.
  KILN_ASSERT(!notifiees_ || std::all_of(notifiees_->members.begin(), notifiees_->members.end(),
                                          [](NotifieeConst* n) { return n == nullptr; }),
              "object destroyed with reactors attached");
}

std::size_t PtrInterface::notifieeCount() const noexcept {
  if (!notifiees_) return 0;
  return static_cast<std::size_t>(std::count_if(notifiees_->members.begin(),
                                                notifiees_->members.end(),
                                                [](NotifieeConst* n) { return n != nullptr; }));
}

void PtrInterface::attach(NotifieeConst* n) const {
  if (!notifiees_) notifiees_ = std::make_unique<NotifieeList>();
  notifiees_->members.push_back(n);
}

void PtrInterface::detach(NotifieeConst* n) const {
  auto& list = *notifiees_;
  auto it = std::find(list.members.begin(), list.members.end(), n);
  KILN_ASSERT(it != list.members.end(), "detaching a reactor that is not attached");
  if (list.walking > 0) {
    *it = nullptr;
    list.holes = true;
    return;
  }
  list.members.erase(it);
  if (list.members.empty()) notifiees_.reset();
}

void PtrInterface::notify(const AttrInfo* attr, const void* key) const {
  if (!notifiees_) return;
  // The reactors may drop every other reference to this object; keep it
  // alive until the walk is over.
  Ptr<const PtrInterface> self(this);
  NotifieeList* list = notifiees_.get();
  ++list->walking;
  const std::size_t count = list->members.size();
  for (std::size_t i = 0; i < count; ++i) {
    NotifieeConst* n = list->members[i];
    if (n && n->hasNotificationActive()) n->onNotification(attr, key);
  }
  if (--list->walking == 0 && list->holes) {
    std::erase(list->members, nullptr);
    list->holes = false;
    if (list->members.empty()) notifiees_.reset();
  }
}

PtrInterface::NotifieeConst::~NotifieeConst() { notifierIs(nullptr); }

void PtrInterface::NotifieeConst::notifierIs(Ptr<const PtrInterface> notifier) {
  if (notifier == notifier_) return;
  if (notifier_) notifier_->detach(this);
  notifier_ = std::move(notifier);
  if (notifier_) notifier_->attach(this);
}

}  // namespace Kiln
