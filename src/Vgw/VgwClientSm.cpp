#include "Vgw/VgwClientSm.h"

#include "Kiln/Assert.h"
#include "Kiln/System.h"
#include "RingTape/RingTape.h"

RINGTAPE_HANDLE("VgwClient");

namespace Vgw {

VgwClientSm::VgwClientSm(Kiln::Ptr<const OvsdbSessionStatus> sessionStatus, Kiln::Ptr<OvsdbRequestQueue> requestQueue)
    : sessionStatus_(std::move(sessionStatus)),
      requestQueue_(std::move(requestQueue)),
      kilnSessionStatus_(this),
      clock_(this) {
  kilnSessionStatus_.notifierIs(sessionStatus_);
  clock_.notifierIs(Kiln::EventLoop::current().clock());
  handleInitialized();
}

Kiln::Ptr<VgwClientSm> vgwClientSmFactory(Kiln::Ptr<const OvsdbSessionStatus> sessionStatus,
                                          Kiln::Ptr<OvsdbRequestQueue> requestQueue) {
  return Kiln::newPtr<VgwClientSm>(std::move(sessionStatus), std::move(requestQueue));
}

Kiln::Ptr<OvsdbMonitorRequest> VgwClientSm::createMonitorRequest(const std::map<Kiln::String, bool>& tables) {
  auto request = Kiln::newPtr<OvsdbMonitorRequest>();
  for (const auto& [table, everyEvent] : tables) {
    MonitorRequest member(table);
    if (!everyEvent) {
      member.initialIs(true);
      member.insertIs(false);
      member.removeIs(false);
      member.modifyIs(false);
    }
    request->monitorEnq(member);
  }
  return request;
}

void VgwClientSm::handleInitialized() {
  clock_.timeMinIs(Kiln::plusInfinity);
  initialized_ = true;
  // The tables on false are written by this agent alone.
  const std::map<Kiln::String, bool> tables = {
      {"Logical_Switch", true},       {"Logical_Router", true},    {"Logical_Binding_Stats", true},
      {"Tunnel", true},               {"Physical_Port", true},     {"Physical_Switch", false},
      {"Physical_Locator", true},     {"Physical_Locator_Set", true}, {"Ucast_Macs_Remote", true},
      {"Mcast_Macs_Remote", true},    {"Ucast_Macs_Local", false}, {"Mcast_Macs_Local", false},
      {"Arp_Sources_Remote", true},   {"Arp_Sources_Local", false}, {"Global", true},
  };
  Kiln::Ptr<OvsdbMonitorRequest> request = createMonitorRequest(tables);
  request->dbNameIs("hardware_vtep");
  MonitorRequest manager("Manager");
  manager.columnIs("target", true);
  manager.columnIs("is_connected", true);
  request->monitorEnq(manager);
  monitorRequest_ = request;
  handleSessionState();
}

void VgwClientSm::handleSessionState() {
  if (!initialized_) return;
  const SessionState state = sessionStatus_->sessionState();
  VGW_TRACE(6, "Session State: " << state);
  switch (state) {
    case SessionState::stateInit: requestQueue_->requestEnq(monitorRequest_); return;
    case SessionState::stateDisconnected:
      clock_.timeMinIs(Kiln::System::currentTime() + reconnectInterval_);
      return;
    case SessionState::stateConnecting:
    case SessionState::stateConnected: return;
    default: KILN_ASSERT(false, "Unexpected session state.");
  }
}

void VgwClientSm::handleReconnect() {
  if (!initialized_) return;
  VGW_TRACE(6, "Reconnecting");
  requestQueue_->requestEnq(monitorRequest_);
}

}  // namespace Vgw
