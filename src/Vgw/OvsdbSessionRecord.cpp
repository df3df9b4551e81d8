#include "Vgw/OvsdbSessionRecord.h"

#include "Kiln/System.h"

namespace Vgw {

void updateOvsdbRequest(const Kiln::Ptr<OvsdbSessionStatus>& sessionStatus, OvsdbRequestType requestType,
                        const Kiln::String& text) {
  OvsdbSessionStatus& status = *sessionStatus;
  status.lastRequestTypeIs(requestType);
  status.lastRequestIs(text);
  status.lastRequestTimeIs(Kiln::System::currentTime());
  status.requestCountIs(status.requestCount() + 1);
}

void updateOvsdbRequestResult(const Kiln::Ptr<OvsdbSessionStatus>& sessionStatus, SessionState sessionState,
                              OvsdbRequestType requestType, const Kiln::String& text) {
  // The watchers of the state may drop every other reference to the entity.
  const Kiln::Ptr<OvsdbSessionStatus> status = sessionStatus;
  status->lastResultTypeIs(requestType);
  status->lastResultIs(text);
  status->lastResultTimeIs(Kiln::System::currentTime());
  if (sessionState == SessionState::stateDisconnected && status->sessionState() != sessionState) {
    status->disconnectCountIs(status->disconnectCount() + 1);
  }
  status->sessionStateIs(sessionState);
}

}  // namespace Vgw
