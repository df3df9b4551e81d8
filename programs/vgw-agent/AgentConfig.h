// The configuration file of vgw-agent.
//
// The file is a JSON document from state-store path to entity JSON, as
// Ledger::EntityManager::loadDocument reads it. loadAgentConfig() declares
// every path the agent mounts with its type first, so that the document
// needs no "@type" for them, and accepts only those paths and entries of the
// directories among them. Paths the agent writes itself (its status and what
// it publishes) cannot be configured. After the document is in, it checks
// what the agent cannot start without: a database socket in vgw/config, a
// non-zero maxOps in vgw/cliconfig, and the "default" cluster status.
//
// Every refusal is a ConfigError whose text names the file, the path in it
// and the problem; nothing is half-loaded unless the process then exits.
#pragma once

#include <stdexcept>
#include <string>

#include "Ledger/EntityManager.h"

namespace VgwAgent {

class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

void loadAgentConfig(Ledger::EntityManager& manager, const std::string& file);

}  // namespace VgwAgent
