// The fault reporter's unit: for now, the catalogue of the agent's operator
// log messages.
//
// Every message an operator may see from the agent has one handle here,
// built at static start-up with its identifier, severity, format (one "%s"
// per argument), explanation and recommended action; Kiln::log() emits it
// (see Kiln/Log.h). None of them is rate limited: each is built with the
// limit values 0.0, 1.0 and 0, which let every message through. Units that
// log include this header and pass the handle with their arguments, for
// example
//   Kiln::log(KXT_VGW_MANAGER_CONNECTED, target);
// KXT_VGW_HOSTNAME_COLLISION is part of the catalogue but never raised: a
// colliding hostname is given a suffix without a log line.
#pragma once

#include "Kiln/Log.h"

namespace Vgw {

// The controller asked for a VLAN to logical switch mapping the switch
// cannot carry out: switch, interface, VLAN, error.
extern Kiln::LogHandle KXT_VGW_INVALID_VLAN_MAP;
// An error without further detail: switch, key, text.
extern Kiln::LogHandle KXT_VGW_UNSPECIFIED_FAULT;
// Logical router errors: switch, router, [key,] text.
extern Kiln::LogHandle KXT_VGW_LR_CREATION_ERROR;
extern Kiln::LogHandle KXT_VGW_IP_PORT_ERROR;
extern Kiln::LogHandle KXT_VGW_IP_UPLINK_ERROR;
extern Kiln::LogHandle KXT_VGW_VIRTUAL_ROUTER_MAC_ERROR;
extern Kiln::LogHandle KXT_VGW_STATIC_ROUTES_ERROR;
extern Kiln::LogHandle KXT_VGW_MAC_TABLE_EXHAUSTION_ERROR;
// Hostname, the name given instead.
extern Kiln::LogHandle KXT_VGW_HOSTNAME_COLLISION;
// Manager target.
extern Kiln::LogHandle KXT_VGW_MANAGER_DISCONNECTED;
extern Kiln::LogHandle KXT_VGW_MANAGER_CONNECTED;

}  // namespace Vgw
