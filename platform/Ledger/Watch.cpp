#include "Ledger/Watch.h"

#include <map>
#include <utility>

#include "Kiln/Dir.h"
#include "Ledger/Path.h"
#include "Ledger/Store.h"

namespace Ledger {

// The reactor on one entity. It reports the changes of the selected
// attributes (and members) and keeps a node on every entity held by them.
class Watch::Node final : public Kiln::Entity::NotifieeConst {
 public:
  using Callback = std::shared_ptr<const WatchCallback>;

  Node(Callback callback, const Kiln::Ptr<const Kiln::Entity>& entity, std::string path,
       const Kiln::AttrInfo* onlyAttr, std::optional<std::string> onlyKey)
      : callback_(std::move(callback)), path_(std::move(path)), onlyAttr_(onlyAttr), onlyKey_(std::move(onlyKey)) {
    notifierIs(entity);
    entity->typeInfo().forEachAttr([&](const Kiln::AttrInfo& attr) {
      if (!visibleAttr(attr) || !attr.childEntity || !selected(attr, nullptr, true)) return;
      if (attr.kind == Kiln::AttrKind::child) {
        follow(attr, nullptr);
        return;
      }
      attr.forEachChild(*entity, [&](const std::string& key, Kiln::Entity&) {
        if (selected(attr, &key, false)) follow(attr, &key);
      });
    });
  }

  void onNotification(const Kiln::AttrInfo* attr, const void* key) override {
    if (!visibleAttr(*attr)) return;
    std::optional<std::string> keyText;
    if (key) keyText = attr->keyText(key);
    const std::string* member = keyText ? &*keyText : nullptr;
    if (!selected(*attr, member, false)) return;
    if (attr->childEntity) follow(*attr, member);
    const std::string changed = pathOf(*attr, member);
    const Kiln::Json value = valueAt(entity(), *attr, member);
    // The callback may destroy this node; nothing of it is used afterwards.
    const Callback callback = callback_;
    (*callback)(changed, value);
  }

 private:
  const Kiln::Entity& entity() const { return static_cast<const Kiln::Entity&>(*notifierBase()); }

  // `anyKey` passes every member of the selected attribute.
  bool selected(const Kiln::AttrInfo& attr, const std::string* key, bool anyKey) const {
    if (onlyAttr_ && &attr != onlyAttr_) return false;
    return anyKey || !onlyKey_ || (key && *key == *onlyKey_);
  }

  // Brings the node on the entity held at (attr, key) in line with the store.
  void follow(const Kiln::AttrInfo& attr, const std::string* key) {
    const std::string keyText = key ? *key : std::string();
    const Kiln::Entity* held = attr.childEntity(entity(), keyText);
    const auto slot = std::make_pair(&attr, keyText);
    auto it = children_.find(slot);
    if (!held) {
      if (it != children_.end()) children_.erase(it);
      return;
    }
    if (it != children_.end() && it->second->notifierBase().get() == held) return;
    children_[slot] = std::make_unique<Node>(callback_, Kiln::Ptr<const Kiln::Entity>(held), pathOf(attr, key),
                                             nullptr, std::nullopt);
  }

  std::string pathOf(const Kiln::AttrInfo& attr, const std::string* key) const {
    if (&attr == &Kiln::Dir::entityPtrAttr_) return joinPath(path_, escapeSegment(*key));
    std::string path = joinPath(path_, attr.name);
    return key ? joinPath(path, escapeSegment(*key)) : path;
  }

  Callback callback_;
  std::string path_;
  const Kiln::AttrInfo* onlyAttr_;
  std::optional<std::string> onlyKey_;
  std::map<std::pair<const Kiln::AttrInfo*, std::string>, std::unique_ptr<Node>> children_;
};

Watch::Watch(std::string path, WatchCallback callback, Kiln::Ptr<const Kiln::Entity> owner, std::string ownerPath,
             const Kiln::AttrInfo* attr, std::optional<std::string> key)
    : path_(std::move(path)),
      root_(std::make_unique<Node>(std::make_shared<const WatchCallback>(std::move(callback)), owner,
                                   std::move(ownerPath), attr, std::move(key))) {}

Watch::~Watch() = default;

}  // namespace Ledger
