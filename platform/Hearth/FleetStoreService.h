// Fleet::FleetStoreService: how an agent declares the service it offers to
// the fleet, and gets the per-switch places it shares with the switches.
//
// An agent names its service (FleetStoreService), the versions of the
// service's data it speaks (a VersionWhiteListBase) and one or more mount
// groups (FleetStoreServiceMountGroup). A group holds:
//   - controller mounts: a directory `switchPath` (below `path`) with one
//     entry per switch, of `typeName`, which the switches' side fills and
//     this service reads. Its flags are letters, each at most once:
//       'r'  required: the service reads the entries (it never writes them);
//       'c'  the directory is created when absent; without 'c' it must exist
//            when the group starts;
//       't'  the service tracks the switches: an entry that appears in the
//            directory is a switch that joined, one that goes a switch that
//            left; the mounter hears each through doHandleControllerMountState
//            and the group's per-switch publish mounts follow them.
//   - per-switch publish mounts: a directory `path` where the service
//     publishes one entity of `typeName` per tracked switch, named `prefix`
//     followed by the switch's entry name. The entry is created when the
//     switch joins (an entry already there of that type is kept as it is,
//     so what an earlier life of the agent published survives a restart)
//     and removed when it leaves.
// Every directory named by a group is a Kiln::Dir whose entry type is the
// mount's type, so entries written by name alone get that type.
//
// Calling order. The group and the service are closed with closedIs(true).
// When both are, the group starts, inside that call: every mount is checked
// and its directory made, all or nothing, or the call throws ServiceError
// naming the problem; a group without a white list, or with one that admits
// no version, is refused in the same way. Then, on later turns of the event
// loop and never inside closedIs:
//   1. the mounter's doMountsComplete(group, serviceManager);
//   2. on the next turn, the switches present in the tracked directories
//      join (doHandleControllerMountState(..., true) each, publish entries
//      made), then doInitialSwitchMountsComplete(group, serviceManager), once;
//   3. from then on, switches join and leave as their entries come and go,
//      synchronously with the change.
// A mounter that is destroyed hears nothing more. Declaring anything on a
// closed group or service throws ServiceError; so do malformed paths,
// unknown types and bad flags, at the call that gives them.
//
// Everything runs on the one event loop; nothing here blocks.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Kiln/Entity.h"
#include "Kiln/Ptr.h"
#include "Kiln/String.h"
#include "Ledger/EntityManager.h"

namespace Fleet {

class FleetStoreService;
class FleetStoreServiceMountGroup;

// A declaration the service layer cannot carry out; the text says why.
class ServiceError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The versions of a service's data that an agent speaks.
class VersionWhiteListBase : public Kiln::PtrInterface {
 public:
  explicit VersionWhiteListBase(Kiln::String name) : name_(std::move(name)) {}
  const Kiln::String& name() const { return name_; }

  bool allowedVersion(std::uint32_t version) const { return allowed_.contains(version); }
  void allowedVersionIs(std::uint32_t version, bool allowed);
  const std::set<std::uint32_t>& allowedVersions() const { return allowed_; }

 private:
  Kiln::String name_;
  std::set<std::uint32_t> allowed_;
};

// Receives the events of the groups it was given to.
class FleetStoreServiceMounter {
 public:
  FleetStoreServiceMounter() = default;
  FleetStoreServiceMounter(const FleetStoreServiceMounter&) = delete;
  FleetStoreServiceMounter& operator=(const FleetStoreServiceMounter&) = delete;

  virtual void doMountsComplete(Kiln::String group, Kiln::Ptr<Ledger::EntityManager> manager) = 0;
  virtual void doInitialSwitchMountsComplete(Kiln::String group, Kiln::Ptr<Ledger::EntityManager> manager) = 0;
  // A switch joined (mounted) or left the controller mount at switchPath.
  // The base traces it.
  virtual void doHandleControllerMountState(Kiln::String group, Kiln::String switchPath, Kiln::String switchName,
                                            bool mounted);

 protected:
  virtual ~FleetStoreServiceMounter() = default;

 private:
  friend class FleetStoreServiceMountGroup;
  // Groups hold a weak reference, so they never call a mounter that is gone.
  std::shared_ptr<FleetStoreServiceMounter*> self_ = std::make_shared<FleetStoreServiceMounter*>(this);
};

class FleetStoreServiceMountGroup : public Kiln::PtrInterface {
 public:
  struct ControllerMount {
    Kiln::String path;
    Kiln::String switchPath;
    const Kiln::TypeInfo* type;
    Kiln::String flags;
  };
  struct PublishMount {
    Kiln::String path;
    Kiln::String prefix;
    const Kiln::TypeInfo* type;
  };

  ~FleetStoreServiceMountGroup() override;

  const Kiln::String& name() const { return name_; }
  const Kiln::Ptr<VersionWhiteListBase>& versionWhiteList() const { return whiteList_; }
  void versionWhiteListIs(Kiln::Ptr<VersionWhiteListBase> whiteList);
  void controllerMountIs(Kiln::String path, Kiln::String switchPath, Kiln::String typeName, Kiln::String flags);
  void perSwitchPublishMountIs(Kiln::String path, Kiln::String prefix, Kiln::String typeName);
  const std::vector<ControllerMount>& controllerMounts() const { return controllerMounts_; }
  const std::vector<PublishMount>& publishMounts() const { return publishMounts_; }

  bool closed() const { return closed_; }
  // Closing cannot be undone: closedIs(false) on a closed group throws.
  void closedIs(bool closed);
  bool mountsComplete() const { return mountsComplete_; }
  bool initialSwitchMountsComplete() const { return initialSwitchMountsComplete_; }
  // The switches that have joined, by entry name.
  const std::map<Kiln::String, unsigned>& switches() const { return switches_; }

 private:
  friend class FleetStoreService;
  class SwitchDirReactor;
  FleetStoreServiceMountGroup(FleetStoreService& service, Kiln::String name, FleetStoreServiceMounter* mounter);

  std::string where() const;
  void requireOpen(const char* what) const;
  // Throws unless every directory of the group can be made.
  void check() const;
  // Checks, then makes the directories and schedules the completions.
  void start();
  void completeMounts();
  void completeInitialSwitches();
  void switchSeen(const ControllerMount& mount, const Kiln::Name& name, bool present);
  void publish(const Kiln::Name& switchName, bool joined);
  FleetStoreServiceMounter* mounter() const;

  FleetStoreService* service_;  // null once the service is gone
  Kiln::Ptr<Ledger::EntityManager> manager_;
  Kiln::String name_;
  FleetStoreServiceMounter* mounter_;
  std::weak_ptr<FleetStoreServiceMounter*> mounterAlive_;
  Kiln::Ptr<VersionWhiteListBase> whiteList_;
  std::vector<ControllerMount> controllerMounts_;
  std::vector<PublishMount> publishMounts_;
  bool closed_ = false;
  bool started_ = false;
  bool mountsComplete_ = false;
  bool initialSwitchMountsComplete_ = false;
  std::vector<std::unique_ptr<SwitchDirReactor>> tracking_;
  // How many tracked directories hold each switch.
  std::map<Kiln::String, unsigned> switches_;
};

class FleetStoreService : public Kiln::PtrInterface {
 public:
  FleetStoreService(Kiln::String name, Kiln::Ptr<Ledger::EntityManager> serviceManager,
                    Kiln::Ptr<Ledger::EntityManager> localManager);
  ~FleetStoreService() override;

  const Kiln::String& name() const { return name_; }
  const Kiln::Ptr<Ledger::EntityManager>& serviceEntityManager() const { return serviceManager_; }
  const Kiln::Ptr<Ledger::EntityManager>& localEntityManager() const { return localManager_; }

  // The white list of that name, created on first use.
  Kiln::Ptr<VersionWhiteListBase> versionWhiteListIs(Kiln::String name);
  // The group of that name, created on first use for `mounter`; the same
  // name with another mounter throws.
  Kiln::Ptr<FleetStoreServiceMountGroup> serviceMountGroupIs(Kiln::String name, FleetStoreServiceMounter* mounter);
  Kiln::Ptr<FleetStoreServiceMountGroup> serviceMountGroup(const Kiln::String& name) const;

  bool closed() const { return closed_; }
  // Closing cannot be undone: closedIs(false) on a closed service throws.
  // Starting the groups already closed is all or nothing across them.
  void closedIs(bool closed);

 private:

  Kiln::String name_;
  Kiln::Ptr<Ledger::EntityManager> serviceManager_;
  Kiln::Ptr<Ledger::EntityManager> localManager_;
  std::map<Kiln::String, Kiln::Ptr<VersionWhiteListBase>> whiteLists_;
  std::map<Kiln::String, Kiln::Ptr<FleetStoreServiceMountGroup>> groups_;
  bool closed_ = false;
};

}  // namespace Fleet
