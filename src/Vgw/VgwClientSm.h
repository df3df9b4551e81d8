// The session client: what the agent subscribes to in the database, and
// when it asks again.
//
// VgwClientSm holds one OvsdbMonitorRequest, built once, and puts that same
// object on the request queue whenever the session is new (stateInit) and
// reconnectInterval seconds after each drop (stateDisconnected). It opens no
// connection itself: the request handler does, when it takes the request off
// the queue. There is no back-off and no retry limit: every failure of the
// session shows here only as stateDisconnected, which arms the timer again,
// so the agent asks every reconnectInterval seconds for as long as it runs.
// A further drop before the timer fires moves the expiry out.
//
// The subscription: the tables that the controller writes with every event,
// the tables that only this agent writes for their first contents alone (the
// mirror follows the agent's own transaction replies after that), and of
// Manager only the target and is_connected columns.
#pragma once

#include <map>

#include "Kiln/EventLoop.h"
#include "Kiln/Ptr.h"
#include "Vgw/OvsdbRequest.h"
#include "model/Status.h"

namespace Vgw {

class VgwClientSm : public Kiln::PtrInterface {
 public:
  // Subscribes at once when the session status is fresh (stateInit); with a
  // live request handler the subscription is on its way before this returns.
  VgwClientSm(Kiln::Ptr<const OvsdbSessionStatus> sessionStatus, Kiln::Ptr<OvsdbRequestQueue> requestQueue);

  const Kiln::Ptr<const OvsdbSessionStatus>& sessionStatus() const { return sessionStatus_; }
  const Kiln::Ptr<OvsdbRequestQueue>& requestQueue() const { return requestQueue_; }
  const Kiln::Ptr<OvsdbMonitorRequest>& monitorRequest() const { return monitorRequest_; }
  double reconnectInterval() const { return reconnectInterval_; }
  bool initialized() const { return initialized_; }
  // When the next subscription is due; plus infinity when none is.
  double reconnectTime() const { return clock_.timeMin(); }

  void handleInitialized();
  void handleSessionState();
  void handleReconnect();

  // A subscription of the tables in `tables`: true asks for every event,
  // false for the rows present at subscribe time only. Every column of the
  // schema is asked for.
  static Kiln::Ptr<OvsdbMonitorRequest> createMonitorRequest(const std::map<Kiln::String, bool>& tables);

 private:
  class KilnSessionStatus : public OvsdbSessionStatus::NotifieeConst {
   public:
    explicit KilnSessionStatus(VgwClientSm* sm) : sm_(sm) {}
    void onSessionState() override { sm_->handleSessionState(); }

   private:
    VgwClientSm* sm_;
  };
  class KilnClock : public Kiln::Clock::NotifieeConst {
   public:
    explicit KilnClock(VgwClientSm* sm) : sm_(sm) {}
    void onTimeMin() override { sm_->handleReconnect(); }

   private:
    VgwClientSm* sm_;
  };

  const Kiln::Ptr<const OvsdbSessionStatus> sessionStatus_;
  const Kiln::Ptr<OvsdbRequestQueue> requestQueue_;
  Kiln::Ptr<OvsdbMonitorRequest> monitorRequest_;
  double reconnectInterval_ = 15.0;
  bool initialized_ = false;
  KilnSessionStatus kilnSessionStatus_;
  KilnClock clock_;
};

Kiln::Ptr<VgwClientSm> vgwClientSmFactory(Kiln::Ptr<const OvsdbSessionStatus> sessionStatus,
                                          Kiln::Ptr<OvsdbRequestQueue> requestQueue);

}  // namespace Vgw
