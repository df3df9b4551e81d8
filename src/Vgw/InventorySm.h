// The inventory: which switches of the fabric the controller sees.
//
// InventorySm reads the topology (FabricMapV3::Status, its hosts and MLAG
// pairs) and two per-switch directories named by the switch's system id
// text: the VTEP status (OverlaySvc::VtepStatusDirV2) and the error status
// (OverlaySvc::ErrorStatusV2). A host is ready, and gets a PhysicalSwitchSm,
// when all four exist: the host, a non-empty hostname, its VTEP status entry
// and its error status entry. Whichever comes last makes the switch appear;
// losing any one removes it.
//
// Nothing here reacts at once. Every watched change (a host coming, going or
// renamed, an MLAG pair's domain or members, a directory entry coming or
// going) only raises LocalData's inventoryDirty; the rise arms a timer of
// coalesceInterval (0.5 s), so the refresh runs once after the first change
// of a burst. The refresh recomputes the whole picture from scratch and
// sends one transaction: the rows of new and changed switches and the
// `switches` column of the one Global row, which names exactly the ready
// switches. A switch Global does not name does not exist for the controller;
// the database collects its rows. An unchanged picture sends nothing.
// Changes inside a switch that do not alter which switches exist are its own
// machine's (PhysicalModelSm.h).
//
// Names: a switch's row is named by its hostname. While two or more hosts
// share a hostname (counting every host, ready or not), each of them is
// named hostname-<system id>; the name is recomputed on every refresh, so
// when the collision ends the remaining switch goes back to the bare
// hostname. The collision is not logged; the suffix is the sign.
//
// At start the refresh runs at once, and Arp_Sources_Local rows left by an
// earlier life (whose MAC is no VTEP's of a ready switch) are deleted in a
// second transaction. destroy() empties Global's switches; the switches'
// rows and ARP sources are left to the database.
//
// A host whose key is not the text of a system id is ignored with a trace.
//
// MLAG pairs: TopoStatusMlagHostSm follows each pair of the topology, so that
// a pair coming or going, its domain and its members mark the inventory
// dirty; MlagPeer lists the members of a pair that have a switch machine.
//
// Single-threaded, on the agent's event loop.
#pragma once

#include <map>

#include "Ipkit/EthAddr.h"
#include "Ipkit/SystemId.h"
#include "Kiln/Dir.h"
#include "Kiln/EventLoop.h"
#include "Kiln/Ptr.h"
#include "Vgw/LocalTypes.h"
#include "Vgw/OvsdbRequest.h"
#include "Vgw/PhysicalModelSm.h"
#include "entities/FabricMapV3.h"
#include "entities/OverlaySvc.h"
#include "model/Rows.h"

namespace Vgw {

// The members of an MLAG pair that have a switch machine, by system id. The
// pointers do not own: a member's destroy() takes itself out.
class MlagPeer : public Kiln::PtrInterface {
 public:
  const std::map<Fleet::SystemId, PhysicalSwitchSm*>& peerSm() const { return peerSm_; }
  PhysicalSwitchSm* peerSm(const Fleet::SystemId& id) const;
  void peerSmIs(const Fleet::SystemId& id, PhysicalSwitchSm* sm) { peerSm_[id] = sm; }
  void peerSmDel(const Fleet::SystemId& id) { peerSm_.erase(id); }
  void peerSmDelAll() { peerSm_.clear(); }
  std::size_t peerSms() const { return peerSm_.size(); }

 private:
  std::map<Fleet::SystemId, PhysicalSwitchSm*> peerSm_;
};

// One host of the topology: its arrival, hostname and departure mark the
// inventory dirty.
class TopoStatusHostSm : public Kiln::PtrInterface {
 public:
  explicit TopoStatusHostSm(Kiln::Ptr<const FabricMapV3::Host> host);

  const Kiln::String& name() const { return host_->name(); }
  const Kiln::Ptr<const FabricMapV3::Host>& host() const { return host_; }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  void handleHostname();
  void destroy();

 private:
  class KilnHost : public FabricMapV3::Host::NotifieeConst {
   public:
    explicit KilnHost(TopoStatusHostSm* sm) : sm_(sm) {}
    void onHostname() override { sm_->handleHostname(); }

   private:
    TopoStatusHostSm* sm_;
  };

  const Kiln::Ptr<const FabricMapV3::Host> host_;
  const Kiln::Ptr<LocalData> localData_;
  bool initialized_ = false;
  KilnHost kilnHost_;
};

// One MLAG pair of the topology: its arrival, domain, members and departure
// mark the inventory dirty.
class TopoStatusMlagHostSm : public Kiln::PtrInterface {
 public:
  explicit TopoStatusMlagHostSm(Kiln::Ptr<const FabricMapV3::MlagHost> mlagHost);

  const Ipkit::EthAddr& systemId() const { return mlagHost_->systemId(); }
  const Kiln::Ptr<const FabricMapV3::MlagHost>& mlagHost() const { return mlagHost_; }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  void handleDomainId();
  void handlePeer(const Kiln::String& name);
  void destroy();

 private:
  class KilnMlagHost : public FabricMapV3::MlagHost::NotifieeConst {
   public:
    explicit KilnMlagHost(TopoStatusMlagHostSm* sm) : sm_(sm) {}
    void onDomainId() override { sm_->handleDomainId(); }
    void onPeer(const Kiln::String& name) override { sm_->handlePeer(name); }

   private:
    TopoStatusMlagHostSm* sm_;
  };

  const Kiln::Ptr<const FabricMapV3::MlagHost> mlagHost_;
  const Kiln::Ptr<LocalData> localData_;
  bool initialized_ = false;
  KilnMlagHost kilnMlagHost_;
};

class InventorySm : public Kiln::PtrInterface {
 public:
  static constexpr double defaultCoalesceInterval = 0.5;

  // Runs handleInitialized(): the first refresh and the ARP source sweep are
  // sent at once. The mirror holds the database's first contents by then.
  InventorySm(Kiln::Ptr<const FabricMapV3::Status> topoStatus, Kiln::Ptr<const Kiln::Dir> vtepStatusDir,
              Kiln::Ptr<const Kiln::Dir> errorStatusDir, Kiln::Ptr<HwVtepOvsdb> ovsdb,
              Kiln::Ptr<OvsdbRequestQueue> requestQueue);

  const Kiln::Ptr<const FabricMapV3::Status>& topoStatus() const { return topoStatus_; }
  const Kiln::Ptr<const Kiln::Dir>& vtepStatusDir() const { return vtepStatusDir_; }
  const Kiln::Ptr<const Kiln::Dir>& errorStatusDir() const { return errorStatusDir_; }
  const Kiln::Ptr<HwVtepOvsdb>& ovsdb() const { return ovsdb_; }
  const Kiln::Ptr<OvsdbRequestQueue>& requestQueue() const { return requestQueue_; }
  const Kiln::Ptr<LocalData>& localData() const { return localData_; }
  // The ready switches.
  const std::map<Fleet::SystemId, Kiln::Ptr<PhysicalSwitchSm>>& physicalSwitchSm() const { return physicalSwitchSm_; }
  PhysicalSwitchSm* physicalSwitchSm(const Fleet::SystemId& id) const;
  const std::map<Kiln::String, Kiln::Ptr<TopoStatusHostSm>>& topoStatusHostSm() const { return topoStatusHostSm_; }
  const std::map<Ipkit::EthAddr, Kiln::Ptr<TopoStatusMlagHostSm>>& topoStatusMlagHostSm() const {
    return topoStatusMlagHostSm_;
  }
  double coalesceInterval() const { return coalesceInterval_; }
  void coalesceIntervalIs(double seconds) { coalesceInterval_ = seconds; }
  // When the coalesced refresh runs next; plus infinity when none is due.
  double refreshTime() const { return clock_.timeMin(); }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  // `ignoreProcessResult`: the Global update's reply is not applied to the
  // mirror (the agent is being disabled and the mirror goes next).
  void destroy(bool ignoreProcessResult);
  void handleTopoStatusHost();
  void handleTopoStatusHost(const Kiln::String& name);
  void handleTopoStatusMlagHost();
  void handleTopoStatusMlagHost(const Ipkit::EthAddr& systemId);
  void handleVtepStatusDir(const Kiln::Name& name);
  void handleErrorStatusDir(const Kiln::Name& name);
  void handleDirtyInventory();
  // Runs when the inventory is dirty, or always with `force`.
  void handleRefresh(bool force);
  // Readiness and life of one switch: its row's uuid, or null when it is
  // not ready (any machine it had is then destroyed).
  Uuid handleMounts(OvsdbTransactRequest& transact, const Fleet::SystemId& systemId, bool nameConflict);

 private:
  class KilnTopoStatus : public FabricMapV3::Status::NotifieeConst {
   public:
    explicit KilnTopoStatus(InventorySm* sm) : sm_(sm) {}
    void onHost(const Kiln::String& name) override { sm_->handleTopoStatusHost(name); }
    void onMlagHost(const Ipkit::EthAddr& systemId) override { sm_->handleTopoStatusMlagHost(systemId); }

   private:
    InventorySm* sm_;
  };
  // One directory reactor calling one handler.
  class KilnDir : public Kiln::Dir::NotifieeConst {
   public:
    KilnDir(InventorySm* sm, void (InventorySm::*handler)(const Kiln::Name&)) : sm_(sm), handler_(handler) {}
    void onEntityPtr(const Kiln::Name& name) override { (sm_->*handler_)(name); }

   private:
    InventorySm* sm_;
    void (InventorySm::*handler_)(const Kiln::Name&);
  };
  class KilnLocalData : public LocalData::NotifieeConst {
   public:
    explicit KilnLocalData(InventorySm* sm) : sm_(sm) {}
    void onInventoryDirty() override { sm_->handleDirtyInventory(); }

   private:
    InventorySm* sm_;
  };
  class KilnClock : public Kiln::Clock::NotifieeConst {
   public:
    explicit KilnClock(InventorySm* sm) : sm_(sm) {}
    void onTimeMin() override { sm_->handleRefresh(false); }

   private:
    InventorySm* sm_;
  };

  // Steps of the refresh; `switches` collects each ready switch's row uuid.
  void refreshPhysicalSwitches(OvsdbTransactRequest& transact, std::map<Fleet::SystemId, Uuid>& switches);
  // Adds the update of Global's switches when they differ; false when the
  // database has no Global row to name them in.
  bool updateGlobal(OvsdbTransactRequest& transact, const std::map<Fleet::SystemId, Uuid>& switches) const;
  void sweepStaleArpSources();
  Kiln::Ptr<OvsdbTransactRequest> newTransaction() const;

  const Kiln::Ptr<const FabricMapV3::Status> topoStatus_;
  const Kiln::Ptr<const Kiln::Dir> vtepStatusDir_;
  const Kiln::Ptr<const Kiln::Dir> errorStatusDir_;
  const Kiln::Ptr<HwVtepOvsdb> ovsdb_;
  const Kiln::Ptr<OvsdbRequestQueue> requestQueue_;
  std::map<Fleet::SystemId, Kiln::Ptr<PhysicalSwitchSm>> physicalSwitchSm_;
  std::map<Kiln::String, Kiln::Ptr<TopoStatusHostSm>> topoStatusHostSm_;
  std::map<Ipkit::EthAddr, Kiln::Ptr<TopoStatusMlagHostSm>> topoStatusMlagHostSm_;
  KilnClock clock_;
  const Kiln::Ptr<LocalData> localData_;
  double coalesceInterval_ = defaultCoalesceInterval;
  bool initialized_ = false;
  KilnTopoStatus kilnTopoStatus_;
  KilnDir kilnVtepStatusDir_;
  KilnDir kilnErrorStatusDir_;
  KilnLocalData kilnLocalData_;
};

Kiln::Ptr<InventorySm> inventorySmFactory(Kiln::Ptr<const FabricMapV3::Status> topoStatus,
                                          Kiln::Ptr<const Kiln::Dir> vtepStatusDir,
                                          Kiln::Ptr<const Kiln::Dir> errorStatusDir, Kiln::Ptr<HwVtepOvsdb> ovsdb,
                                          Kiln::Ptr<OvsdbRequestQueue> requestQueue);

}  // namespace Vgw
