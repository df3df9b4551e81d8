// Kiln::PtrInterface and Kiln::Ptr: shared objects and their reactors.
//
// Every shared object derives from PtrInterface, which holds an intrusive
// reference count and the list of reactors (notifiees) attached to it. A
// Ptr<T> or Ptr<T const> is a counted reference; the object's
// onZeroReferences() runs when the last one goes, and by default deletes the
// object. Plain pointers are used only for back pointers from a child to its
// owner.
//
// A reactor derives from PtrInterface::NotifieeConst and is attached to one
// object with notifierIs(). When an attribute of that object changes, the
// object calls every attached, active reactor synchronously, inside the
// setter, in the order of attachment. Guarantees of the notification walk:
//  - a reactor detached (or destroyed) during the walk is not called again;
//  - a reactor attached during the walk first hears of the next change;
//  - the notifying object stays alive until the walk ends, even if a reactor
//    drops the last other reference to it;
//  - a reactor whose notification is inactive, or that is attached to no
//    object, receives nothing.
// A reactor holds a counted reference to its notifier, so an object never
// dies under its reactors. Objects that are never shared (a scratch row on
// the stack) may be used without any Ptr as long as no reactor is attached.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace Kiln {

struct AttrInfo;

class PtrInterface {
 public:
  class NotifieeConst;

  PtrInterface() = default;
  PtrInterface(const PtrInterface&) = delete;
  PtrInterface& operator=(const PtrInterface&) = delete;

  void newRef() const noexcept { ++references_; }
  void deleteRef() const noexcept {
    if (--references_ == 0) const_cast<PtrInterface*>(this)->onZeroReferences();
  }
  std::uint32_t references() const noexcept { return references_; }

  // Marks an object that its owner has let go of while references remain.
  bool deleted() const noexcept { return deleted_; }
  void deletedIs(bool deleted) noexcept { deleted_ = deleted; }

  std::size_t notifieeCount() const noexcept;

 protected:
  virtual ~PtrInterface();
  virtual void onZeroReferences() { delete this; }

  // Calls the active reactors for a change of `attr`; `key` points at the
  // member's key for a collection and is null for a single value.
  void notify(const AttrInfo* attr, const void* key) const;
  bool hasNotifiees() const noexcept { return notifiees_ != nullptr; }

 private:
  friend class NotifieeConst;
  struct NotifieeList {
    std::vector<NotifieeConst*> members;
    int walking = 0;
    bool holes = false;
  };
  void attach(NotifieeConst* n) const;
  void detach(NotifieeConst* n) const;

  mutable std::uint32_t references_ = 0;
  bool deleted_ = false;
  mutable std::unique_ptr<NotifieeList> notifiees_;
};

template <class T>
class Ptr {
 public:
  using element_type = T;

  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}  // NOLINT: implicit by design
  Ptr(T* p) noexcept : p_(p) { acquire(); }  // NOLINT: intrusive, any raw pointer may be adopted
  Ptr(const Ptr& o) noexcept : p_(o.p_) { acquire(); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
    requires std::is_convertible_v<U*, T*>
  Ptr(const Ptr<U>& o) noexcept : p_(o.get()) {  // NOLINT
    acquire();
  }
  ~Ptr() { release(); }

  Ptr& operator=(Ptr o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }

  T* get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  template <class U>
  friend bool operator==(const Ptr& a, const Ptr<U>& b) noexcept {
    return a.get() == b.get();
  }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }
  friend auto operator<=>(const Ptr& a, const Ptr& b) noexcept { return a.p_ <=> b.p_; }

 private:
  void acquire() const noexcept {
    if (p_) p_->newRef();
  }
  void release() noexcept {
    if (p_) std::exchange(p_, nullptr)->deleteRef();
  }
  T* p_ = nullptr;
};

template <class T, class... Args>
Ptr<T> newPtr(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

template <class T, class U>
Ptr<T> dynamicPtrCast(const Ptr<U>& p) noexcept {
  return Ptr<T>(dynamic_cast<T*>(p.get()));
}

template <class T, class U>
Ptr<T> staticPtrCast(const Ptr<U>& p) noexcept {
  return Ptr<T>(static_cast<T*>(p.get()));
}

// The base of every reactor. Subclasses generated per entity type turn the
// generic onNotification() into one virtual callback per attribute.
class PtrInterface::NotifieeConst {
 public:
  NotifieeConst() = default;
  NotifieeConst(const NotifieeConst&) = delete;
  NotifieeConst& operator=(const NotifieeConst&) = delete;
  virtual ~NotifieeConst();

  // Attaches to `notifier`, detaching from any previous one; null detaches.
  void notifierIs(Ptr<const PtrInterface> notifier);
  const Ptr<const PtrInterface>& notifierBase() const noexcept { return notifier_; }

  bool hasNotificationActive() const noexcept { return active_; }
  void hasNotificationActiveIs(bool active) noexcept { active_ = active; }

  // One change of one attribute of the notifier.
  virtual void onNotification(const AttrInfo* attr, const void* key) = 0;

 private:
  Ptr<const PtrInterface> notifier_;
  bool active_ = true;
};

}  // namespace Kiln

template <class T>
struct std::hash<Kiln::Ptr<T>> {
  std::size_t operator()(const Kiln::Ptr<T>& p) const noexcept {
    return std::hash<const void*>{}(p.get());
  }
};
