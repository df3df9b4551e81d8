// The record of the database session kept in its OvsdbSessionStatus.
//
// The request handler is the only writer. updateOvsdbRequest() notes a
// request as sent: its type, its text, the time and a running count.
// updateOvsdbRequestResult() notes the outcome the same way and then sets
// the session state; the state is written last, so that the watchers of the
// state, which run inside this call, find the outcome's text in place. A
// change into stateDisconnected is counted, so an operator reading the
// entity sees how often the session dropped and why it last did.
#pragma once

#include "Kiln/Ptr.h"
#include "Kiln/String.h"
#include "model/Status.h"

namespace Vgw {

void updateOvsdbRequest(const Kiln::Ptr<OvsdbSessionStatus>& sessionStatus, OvsdbRequestType requestType,
                        const Kiln::String& text);

void updateOvsdbRequestResult(const Kiln::Ptr<OvsdbSessionStatus>& sessionStatus, SessionState sessionState,
                              OvsdbRequestType requestType, const Kiln::String& text);

}  // namespace Vgw
