// The `show` operation of vgw-agent's control socket: what an operator needs
// at a glance, in sections that vgwctl prints as a table.
//
//   agent      running (the agent is enabled and serving), exiting (it has
//              decided it may not run on this node and waits to be stopped),
//              discardRequest (nothing reaches the database: set when the
//              agent stopped because another node leads)
//   session    the database session: its state by name, the last request
//              and result with their types (long texts shortened), and how
//              often the session dropped
//   managers   one entry per configured target and per Manager row of the
//              mirror: configured or not, and the row's is_connected
//   localData  the working data's counters: remote host tables, VNIs,
//              operations sent per table, manager convergence, and whether
//              the last monitor update is complete and the database
//              synchronized
// Sections with nothing to say (no session while the agent is disabled)
// still appear, empty.
#pragma once

#include "Kiln/Json.h"
#include "Vgw/VgwAgent.h"

namespace VgwAgent {

Kiln::Json agentSummary(const Vgw::Agent& agent);

}  // namespace VgwAgent
