#include "Hearth/ServiceAgent.h"

#include "Kiln/Assert.h"
#include "Kiln/EventLoop.h"

namespace Hearth {

const Kiln::TypeInfo ServiceAgent::typeInfo_{"Hearth::ServiceAgent", &Kiln::Entity::typeInfo_, {}, nullptr, nullptr};

ServiceAgent::ServiceAgent(Kiln::Ptr<Ledger::EntityManager> localEntityManager, Kiln::Name name)
    : Kiln::Entity(std::move(name)), localEntityManager_(std::move(localEntityManager)) {}

ServiceAgent::~ServiceAgent() = default;

Kiln::Ptr<Fleet::FleetStoreService> ServiceAgent::fleetStoreServiceIs(
    Kiln::String name, Kiln::Ptr<Ledger::EntityManager> serviceEntityManager,
    Kiln::Ptr<Ledger::EntityManager> localEntityManager) {
  if (fleetStoreService_) {
    if (fleetStoreService_->name() == name && fleetStoreService_->serviceEntityManager() == serviceEntityManager &&
        fleetStoreService_->localEntityManager() == localEntityManager)
      return fleetStoreService_;
    throw Fleet::ServiceError("agent " + this->name().stringValue() + " already offers the service " +
                              fleetStoreService_->name().stringValue() + "; an agent offers one service");
  }
  fleetStoreService_ = Kiln::newPtr<Fleet::FleetStoreService>(std::move(name), std::move(serviceEntityManager),
                                                             std::move(localEntityManager));
  return fleetStoreService_;
}

void ServiceAgent::doInit() {
  KILN_ASSERT(localEntityManager_ != nullptr, "service agent without a local entity manager");
  KILN_ASSERT(serviceEntityManager_ == nullptr, "service agent initialized twice");
  serviceEntityManager_ = Kiln::newPtr<Ledger::EntityManager>(localEntityManager_->store());
  Kiln::EventLoop::current().post([agent = Kiln::Ptr<ServiceAgent>(this)] { agent->doServiceAgentInit(); });
}

void ServiceAgent::doMountsComplete(Ledger::MountStatus, Kiln::Ptr<Ledger::EntityManager>) {}

void ServiceAgent::doServiceAgentInit() { doControllerMounts(); }

void ServiceAgent::doControllerMounts() {
  serviceEntityManager_->getMountGroup(controllerMounter())->doClose(false, "", 0.0);
}

void ServiceAgent::doControllerMountsComplete(Ledger::MountStatus, Kiln::Ptr<Ledger::EntityManager>) {}

}  // namespace Hearth
