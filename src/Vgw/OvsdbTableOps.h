// OvsdbTableOps: what the database's answer to each operation of a
// transaction does to the mirror.
//
// Transactions are blocking, so a reply is applied before anything else
// runs and the mirror holds the agent's own writes at once; the monitor's
// later echo finds them in place. OvsdbTable is the process-wide singleton
// of the transaction side: the response handler of each table the agent
// writes (OvsdbTableOp), the order of tables within a transaction, the
// database text of BFD states, and the map from the named uuids of the
// transaction at hand to the uuids the server gave their rows.
//
// The transaction order puts every table after the tables its rows can
// name, and replies are applied in that order, so when a row is applied the
// inserts it refers to are already mapped: each handler replaces the named
// uuids of its row by real ones (a missing mapping asserts) and copies the
// row's valid attributes into the mirror row, keeping the mirror's indexes
// and the local working data in step. Deletes of rows already gone are
// traced and ignored, because a monitor delete may have come first.
// Locators and locator sets are never deleted by the agent (the database
// collects them when unreferenced); a presence check that finds one gone
// drops it from the mirror, so that the next transaction inserts a new one
// instead of naming a row that no longer exists. Tunnels leave the mirror
// through the sweep at the end of each transaction.
#pragma once

#include <deque>
#include <map>
#include <unordered_map>

#include "Kiln/Entity.h"
#include "Vgw/OvsdbRequest.h"
#include "entities/OverlaySvc.h"
#include "model/Rows.h"

namespace Vgw {

// The response handler of one table. The base refuses every response; a
// table's handler overrides those the agent sends for it.
class OvsdbTableOp : public Kiln::PtrInterface {
 public:
  explicit OvsdbTableOp(OvsdbDataType type) : type_(type) {}
  OvsdbDataType type() const { return type_; }

  virtual void processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const;
  virtual void processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const;
  virtual void processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const;
  virtual void processMutateResp(const Kiln::Ptr<OpMutateRequest>& op) const;
  virtual void processSelectResp(const Kiln::Ptr<OpSelectRequest>& op) const;

 private:
  const OvsdbDataType type_;
};

class GlobalOp : public OvsdbTableOp {
 public:
  using OvsdbTableOp::OvsdbTableOp;
  void processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const override;
  void processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const override;
  void processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const override;
  // Dispatches on the mutated attribute: pSwitch or otherConfig.
  void processMutateResp(const Kiln::Ptr<OpMutateRequest>& op) const override;

 private:
  void processGlobalInsertUpdateResp(const OpRequest& op) const;
  void processMutateRespPSwitch(const OpMutateRequest& op) const;
  void processMutateRespOtherConfig(const OpMutateRequest& op) const;
};

class ManagerOp : public OvsdbTableOp {
 public:
  using OvsdbTableOp::OvsdbTableOp;
  void processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const override;
  void processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const override;
  void processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const override;

 private:
  void processManagerInsertUpdateResp(const OpRequest& op) const;
};

class PhysicalSwitchOp : public OvsdbTableOp {
 public:
  using OvsdbTableOp::OvsdbTableOp;
  void processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const override;
  void processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const override;
  void processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const override;

 private:
  void processPhysicalSwitchInsertUpdateResp(const OpRequest& op) const;
};

class PhysicalPortOp : public OvsdbTableOp {
 public:
  using OvsdbTableOp::OvsdbTableOp;
  void processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const override;
  void processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const override;
  void processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const override;

 private:
  void processPhysicalPortInsertUpdateResp(const OpRequest& op) const;
};

// Only inserts: an update of a locator asserts, and so does a delete.
class PhysicalLocatorOp : public OvsdbTableOp {
 public:
  using OvsdbTableOp::OvsdbTableOp;
  void processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const override;
  void processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const override;
  void processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const override;
  void processSelectResp(const Kiln::Ptr<OpSelectRequest>& op) const override;

 private:
  void processPhysicalLocatorInsertUpdateResp(const OpRequest& op) const;
};

class PhysicalLocatorSetOp : public OvsdbTableOp {
 public:
  using OvsdbTableOp::OvsdbTableOp;
  void processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const override;
  void processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const override;
  void processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const override;
  void processSelectResp(const Kiln::Ptr<OpSelectRequest>& op) const override;

 private:
  void processPhysicalLocatorSetInsertUpdateResp(const OpRequest& op) const;
};

// Local MAC rows live in LocalData's per-VNI tables, not in the mirror.
class UcastMacsLocalOp : public OvsdbTableOp {
 public:
  using OvsdbTableOp::OvsdbTableOp;
  void processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const override;
  void processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const override;
  // A delete whose where is the row's logical switch empties the VNI's table.
  void processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const override;

 private:
  void processUcastMacsLocalInsertUpdateResp(const OpRequest& op) const;
};

class McastMacsLocalOp : public OvsdbTableOp {
 public:
  using OvsdbTableOp::OvsdbTableOp;
  void processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const override;
  void processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const override;
  void processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const override;

 private:
  void processMcastMacsLocalInsertUpdateResp(const OpRequest& op) const;
};

class TunnelOp : public OvsdbTableOp {
 public:
  using OvsdbTableOp::OvsdbTableOp;
  void processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const override;
  void processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const override;
  // Does nothing: the transaction's stale tunnel sweep removes the row.
  void processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const override;

 private:
  void processTunnelInsertUpdateResp(const OpRequest& op) const;
};

class ArpSourcesLocalOp : public OvsdbTableOp {
 public:
  using OvsdbTableOp::OvsdbTableOp;
  void processInsertResp(const Kiln::Ptr<OpInsertRequest>& op) const override;
  void processUpdateResp(const Kiln::Ptr<OpUpdateRequest>& op) const override;
  void processDeleteResp(const Kiln::Ptr<OpDeleteRequest>& op) const override;

 private:
  void processArpSourcesLocalInsertUpdateResp(const OpRequest& op) const;
};

// The singleton of the transaction side, reached with
// Kiln::Entity::singletonIs<OvsdbTable>(). Its tables are filled once, when
// it is made, and don't change; namedUuidToUuid holds the mappings of one
// transaction and is empty between transactions.
class OvsdbTable : public Kiln::Entity {
 public:
  static const Kiln::TypeInfo typeInfo_;
  const Kiln::TypeInfo& typeInfo() const override { return typeInfo_; }

  explicit OvsdbTable(Kiln::Name name = Kiln::Name());

  // The response handler of a table the agent writes; null for the others.
  Kiln::Ptr<const OvsdbTableOp> ovsdbTableOp(OvsdbDataType type) const;
  const std::map<OvsdbDataType, Kiln::Ptr<const OvsdbTableOp>>& ovsdbTableOp() const { return ovsdbTableOp_; }
  const std::deque<OvsdbDataType>& ovsdbTransactOrder() const { return ovsdbTransactOrder_; }
  // The database text of a BFD state ("down", "init", "up", "admin_down").
  Kiln::String ovsdbBfdOperState(OverlaySvc::BfdOperState state) const;

  // The server's uuid of a row inserted under `named`; null when unknown.
  Uuid namedUuidToUuid(const Uuid& named) const;
  const std::unordered_map<Uuid, Uuid>& namedUuidToUuid() const { return namedUuidToUuid_; }
  void namedUuidToUuidIs(const Uuid& named, const Uuid& real) { namedUuidToUuid_.insert_or_assign(named, real); }
  void namedUuidToUuidDelAll() { namedUuidToUuid_.clear(); }

  bool initialized() const { return initialized_; }
  // Fills the handlers, the order and the BFD texts; runs once.
  void handleInitialized();

 private:
  std::map<OvsdbDataType, Kiln::Ptr<const OvsdbTableOp>> ovsdbTableOp_;
  std::deque<OvsdbDataType> ovsdbTransactOrder_;
  std::map<OverlaySvc::BfdOperState, Kiln::String> ovsdbBfdOperState_;
  std::unordered_map<Uuid, Uuid> namedUuidToUuid_;
  bool initialized_ = false;
};

}  // namespace Vgw
