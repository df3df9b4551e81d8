// The configuration file of vgw-agent.
//
// The file is a JSON document from state-store path to entity JSON, as
// Ledger::EntityManager::loadDocument reads it. loadAgentConfig() declares
// every path the agent mounts with its type first, so that the document
// needs no "@type" for them, together with the rules of the configuration
// (Vgw::declareConfigRules), which then hold for vgwctl's writes too; it
// accepts only those paths and entries of the directories among them. Paths
// the agent writes itself (its status and what it publishes) cannot be
// configured. After the document is in, it checks what the agent cannot
// start without: vgw/config, and the "default" cluster status.
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
