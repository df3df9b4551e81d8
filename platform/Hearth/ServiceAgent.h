// Hearth::ServiceAgent: the base of an agent that serves the fleet.
//
// An agent works on two entity managers over one state store: the local one,
// towards the state of this node, given at construction, and the service-side
// one, towards the fleet-wide paths, which the base makes in doInit(). The
// agent is the mounter of its local mount groups (it is a Ledger::Mounter);
// the base owns a second mounter, controllerMounter(), for the service-side
// groups.
//
// The runtime (AgentRunner.h) builds the agent and calls doInit(). From then
// on everything comes back through the hooks, one at a time, on the event
// loop. Each hook has a base implementation; an agent overrides what it
// needs. The order, with the base implementations:
//
//   doInit()                    base: makes the service-side manager, then
//                               runs doServiceAgentInit() on a later turn.
//                               An agent with local mounts overrides it to
//                               mount them, and calls the base once they are
//                               complete.
//   doMountsComplete(status, localManager)
//                               the local mount groups' completion (the agent
//                               is their mounter); base: nothing.
//   doServiceAgentInit()        base: doControllerMounts(). An agent that
//                               publishes a service does it here, through
//                               fleetStoreServiceIs() (see FleetStoreService.h
//                               for the events that follow), then calls
//                               doControllerMounts().
//   doControllerMounts()        base: closes an empty service-side group with
//                               controllerMounter(), so the completion below
//                               always comes. An agent overrides it to mount
//                               its service-side entities through
//                               serviceEntityManager()->getMountGroup(
//                               controllerMounter()).
//   doControllerMountsComplete(status, serviceManager)
//                               that group's completion, on a later turn;
//                               base: nothing.
//
// Writing a service agent with kilngen: declare
//   entity Agent : Hearth::ServiceAgent(Hearth::localEntityManager()) { ... }
// so that the generated constructor takes only the name, as an agent factory
// does, and the local manager comes from the runner that is building it.
#pragma once

#include "Hearth/FleetStoreService.h"
#include "Kiln/Entity.h"
#include "Ledger/EntityManager.h"
#include "Ledger/Mount.h"

namespace Hearth {

class ServiceAgent : public Kiln::Entity, public Ledger::Mounter {
 public:
  ServiceAgent(Kiln::Ptr<Ledger::EntityManager> localEntityManager, Kiln::Name name);
  ~ServiceAgent() override;

  static const Kiln::TypeInfo typeInfo_;
  const Kiln::TypeInfo& typeInfo() const override { return typeInfo_; }

  const Kiln::Ptr<Ledger::EntityManager>& localEntityManager() const { return localEntityManager_; }
  // Null until the base's doInit() has run.
  const Kiln::Ptr<Ledger::EntityManager>& serviceEntityManager() const { return serviceEntityManager_; }
  // The mounter of service-side groups; their completion is doControllerMountsComplete.
  Ledger::Mounter* controllerMounter() { return &controllerMounter_; }

  // Creates the agent's service and keeps it; asking again with the same
  // arguments gives the same service, and with others throws
  // Fleet::ServiceError (an agent offers one service).
  Kiln::Ptr<Fleet::FleetStoreService> fleetStoreServiceIs(Kiln::String name,
                                                          Kiln::Ptr<Ledger::EntityManager> serviceEntityManager,
                                                          Kiln::Ptr<Ledger::EntityManager> localEntityManager);
  const Kiln::Ptr<Fleet::FleetStoreService>& fleetStoreService() const { return fleetStoreService_; }

  virtual void doInit();
  void doMountsComplete(Ledger::MountStatus status, Kiln::Ptr<Ledger::EntityManager> manager) override;
  virtual void doServiceAgentInit();
  virtual void doControllerMounts();
  virtual void doControllerMountsComplete(Ledger::MountStatus status, Kiln::Ptr<Ledger::EntityManager> manager);

 private:
  class ControllerMounter final : public Ledger::Mounter {
   public:
    explicit ControllerMounter(ServiceAgent& agent) : agent_(agent) {}
    void doMountsComplete(Ledger::MountStatus status, Kiln::Ptr<Ledger::EntityManager> manager) override {
      agent_.doControllerMountsComplete(status, std::move(manager));
    }

   private:
    ServiceAgent& agent_;
  };

  Kiln::Ptr<Ledger::EntityManager> localEntityManager_;
  Kiln::Ptr<Ledger::EntityManager> serviceEntityManager_;
  ControllerMounter controllerMounter_{*this};
  Kiln::Ptr<Fleet::FleetStoreService> fleetStoreService_;
};

}  // namespace Hearth
