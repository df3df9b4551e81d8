// Ledger::Watch: a stream of the changes at and below one path.
//
// EntityManager::watch attaches generic reactors to the entity that holds
// the watched place and to every entity the place reaches below it
// (directory entries, entity members of collections, children), attaching
// to those that appear later and detaching from those that go. Each change
// calls the callback synchronously, inside the setter that made it, with
// the path of what changed (canonical, see Path.h) and its new value: what
// read() of that path gives at that moment, or null when it is gone. A new
// entry or member is reported first with its content at creation; what is
// set in it afterwards is reported one attribute at a time.
//
// A watch follows the entities it attached to: when the entity that holds
// the watched place leaves the tree, the watch falls silent. The callback
// may write to the store and may destroy the watch. Destroying the Watch
// detaches every reactor and stops the stream.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Kiln/Entity.h"

namespace Ledger {

using WatchCallback = std::function<void(const std::string& changedPath, const Kiln::Json& value)>;

class Watch {
 public:
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  const std::string& path() const { return path_; }

 private:
  friend class EntityManager;
  class Node;
  // Watches `attr` of `owner` (only member `key` when given), or all of
  // `owner` when `attr` is null; `ownerPath` is the owner's canonical path.
  Watch(std::string path, WatchCallback callback, Kiln::Ptr<const Kiln::Entity> owner, std::string ownerPath,
        const Kiln::AttrInfo* attr, std::optional<std::string> key);

  std::string path_;
  std::unique_ptr<Node> root_;
};

}  // namespace Ledger
