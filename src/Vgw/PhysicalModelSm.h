// The physical model: one switch of the fabric as the controller sees it.
//
// A PhysicalSwitchSm stands for one ready host of the topology (InventorySm
// decides which). It keeps the switch's Physical_Switch row and its
// Physical_Port rows equal to what the fabric says:
//   - name: the display name the inventory gives (the hostname, or the
//     hostname with "-" and the system id while two hosts share it);
//   - description: always empty, so one the controller writes is taken away
//     at the next refresh;
//   - management_ips: the host's management addresses;
//   - tunnel_ips: the addresses of the VTEPs whose link is up and whose
//     address is known;
//   - ports: one Physical_Port per Ethernet or port-channel interface (no
//     unconnected, recirculation, ECMP or sub-interface, and never the MLAG
//     peer link), each with port_fault_status "invalid_vlan_map" while the
//     overlay service reports VLANs it cannot map on it. A port that leaves
//     the switch only drops out of `ports`; the database collects the row.
//     The vlan_bindings of a port are the controller's and never written.
// Every refresh recomputes the wanted rows, compares them with the mirror
// and sends only the difference, so a refresh of an unchanged switch sends
// nothing (it only re-files the row under the system id in LocalData).
//
// Changes reach the rows along two roads that both end in
// handleRefresh(transact): the inventory's refresh, which passes its one
// transaction (so that a new switch and Global naming it go together), and
// the switch's own coalescing timer, 0.3 s after the first change of a
// burst, with a transaction of its own.
//
// Companions, owned by the switch and keyed by name:
//   - VtepStatusSm per VTEP: a change of link or address marks the switch
//     dirty; an address, BFD or MLAG state change raises LocalData's
//     tunnelDirty for the tunnel machine;
//   - PortErrorSm per interface with an error entry: logs each VLAN it cannot
//     map (KXT_VGW_INVALID_VLAN_MAP) and marks the switch dirty; the refresh
//     reads the fault itself;
//   - ArpSourceLocalSm per VTEP: the Arp_Sources_Local row of the VTEP's
//     source MAC, written at once on each change (no timer). It is written
//     while the VTEP has a MAC and an address and the host is outside any
//     MLAG pair or settled in one, moved when the MAC changes (the old row
//     goes in the same transaction), and deleted when the conditions fail or
//     the VTEP goes; a Ucast_Macs_Local row of the same MAC is deleted with
//     it. A MAC that becomes zero leaves the row as it was.
//
// A switch that belongs to an MLAG pair keeps its own row; the pair's row is
// one more switch (MlagSwitchSmInterface), refreshed in the member's
// transaction when the member changed.
//
// Entities from the fabric are only read. Single-threaded, on the agent's
// event loop; every reactor runs inside the setter that notified it.
#pragma once

#include <map>
#include <set>
#include <string_view>

#include "Ipkit/IpGenAddr.h"
#include "Ipkit/SystemId.h"
#include "Kiln/EventLoop.h"
#include "Kiln/Ptr.h"
#include "Vgw/LocalTypes.h"
#include "Vgw/OvsdbRequest.h"
#include "entities/FabricMapV3.h"
#include "entities/OverlaySvc.h"
#include "model/Rows.h"

namespace Vgw {

class MlagPeer;
class PhysicalSwitchSm;

// What a member switch needs of the MLAG pair it belongs to.
class MlagSwitchSmInterface {
 public:
  virtual ~MlagSwitchSmInterface() = default;
  // The name of the pair's Physical_Switch row.
  virtual const Kiln::String& displayName() const = 0;
  // The members that have a switch machine; a member leaving takes itself out.
  virtual const Kiln::Ptr<MlagPeer>& mlagPeer() const = 0;
  // Adds the pair's row operations to `transact`; returns the row's uuid.
  virtual Uuid handleRefresh(OvsdbTransactRequest& transact) = 0;
};

// ---- interface names and the switch's addresses ----------------------------

// Whether the VTEP carries traffic: it exists, its link is up and its
// address is known.
bool vtepUp(const OverlaySvc::VtepStatusV2* vtepStatus);
// Whether the host's MLAG state lets its VTEPs be published: outside any
// pair, or settled in one.
bool mlagStateValid(const FabricMapV3::Host& host);
// The host's management addresses.
std::set<Ipkit::IpGenAddr> getMgmtIps(const PhysicalSwitchSm& sm);
// The addresses of the switch's VTEPs that are up.
std::set<Ipkit::IpGenAddr> getTunnelIps(const PhysicalSwitchSm& sm);
// The mirror's port of that name among the ports of the switch row of that
// name; null when either is missing.
Kiln::Ptr<PhysicalPort> getPhysicalPort(const HwVtepOvsdb& ovsdb, const Kiln::String& switchName,
                                        std::string_view portName);
// A new port row under a named uuid, with an empty description and no VLAN
// statistics; `hasError` sets the fault "invalid_vlan_map".
Kiln::Ptr<PhysicalPort> createPhysicalPort(const Kiln::String& displayName, bool hasError);

// ---- companions ----------------------------------------------------------------

// One VTEP of a switch: turns its changes into dirty flags.
class VtepStatusSm : public Kiln::PtrInterface {
 public:
  VtepStatusSm(Kiln::Ptr<const OverlaySvc::VtepStatusV2> vtepStatus, Kiln::Ptr<const FabricMapV3::Host> topoStatusHost,
               PhysicalSwitchSm* parent);

  const Kiln::String& name() const { return vtepStatus_->name(); }
  const Kiln::Ptr<const OverlaySvc::VtepStatusV2>& vtepStatus() const { return vtepStatus_; }
  const Kiln::Ptr<const FabricMapV3::Host>& topoStatusHost() const { return topoStatusHost_; }
  PhysicalSwitchSm* parent() const { return parent_; }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  void handleLinkStatus();
  void handleVtepAddr();
  void handleBfdSupported();
  void handleBfdLocalMac();
  void handleBfdPeerStatus(const Ipkit::IpAddr& ip);
  void handleMlagState();
  // The VTEP is gone: its switch and the tunnels are to be recomputed.
  void destroy();

 private:
  class KilnVtepStatus : public OverlaySvc::VtepStatusV2::NotifieeConst {
   public:
    explicit KilnVtepStatus(VtepStatusSm* sm) : sm_(sm) {}
    void onLinkStatus() override { sm_->handleLinkStatus(); }
    void onVtepAddr() override { sm_->handleVtepAddr(); }
    void onBfdSupported() override { sm_->handleBfdSupported(); }
    void onBfdLocalMac() override { sm_->handleBfdLocalMac(); }
    void onBfdPeerStatus(const Ipkit::IpAddr& ip) override { sm_->handleBfdPeerStatus(ip); }

   private:
    VtepStatusSm* sm_;
  };
  class KilnTopoStatusHost : public FabricMapV3::Host::NotifieeConst {
   public:
    explicit KilnTopoStatusHost(VtepStatusSm* sm) : sm_(sm) {}
    void onMlagState() override { sm_->handleMlagState(); }

   private:
    VtepStatusSm* sm_;
  };

  const Kiln::Ptr<const OverlaySvc::VtepStatusV2> vtepStatus_;
  const Kiln::Ptr<const FabricMapV3::Host> topoStatusHost_;
  PhysicalSwitchSm* const parent_;
  const Kiln::Ptr<LocalData> localData_;
  bool initialized_ = false;
  KilnVtepStatus kilnVtepStatus_;
  KilnTopoStatusHost kilnTopoStatusHost_;
};

// The errors of one interface of a switch.
class PortErrorSm : public Kiln::PtrInterface {
 public:
  PortErrorSm(Kiln::Ptr<const OverlaySvc::PortErrorV2> portError, PhysicalSwitchSm* parent);

  const Kiln::String& portName() const { return portError_->intfName(); }
  const Kiln::Ptr<const OverlaySvc::PortErrorV2>& portError() const { return portError_; }
  PhysicalSwitchSm* parent() const { return parent_; }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  // Every VLAN of the entry.
  void handleVlanVniError();
  // Marks the switch dirty and logs the VLAN when it has an error.
  void handleVlanVniError(const Bridging::VlanId& vlan);
  void destroy();

 private:
  class KilnPortError : public OverlaySvc::PortErrorV2::NotifieeConst {
   public:
    explicit KilnPortError(PortErrorSm* sm) : sm_(sm) {}
    void onVlanVniError(const Bridging::VlanId& vlan) override { sm_->handleVlanVniError(vlan); }

   private:
    PortErrorSm* sm_;
  };

  const Kiln::Ptr<const OverlaySvc::PortErrorV2> portError_;
  PhysicalSwitchSm* const parent_;
  const Kiln::Ptr<LocalData> localData_;
  bool initialized_ = false;
  KilnPortError kilnPortError_;
};

// The Arp_Sources_Local row of one VTEP.
class ArpSourceLocalSm : public Kiln::PtrInterface {
 public:
  // Writes the row at once when the VTEP qualifies.
  ArpSourceLocalSm(const Fleet::SystemId& systemId, Kiln::Ptr<const OverlaySvc::VtepStatusV2> vtepStatus,
                   Kiln::Ptr<const FabricMapV3::Host> topoStatusHost, Kiln::Ptr<HwVtepOvsdb> ovsdb,
                   Kiln::Ptr<OvsdbRequestQueue> requestQueue);

  const Kiln::String& name() const { return vtepStatus_->name(); }
  const Fleet::SystemId& systemId() const { return systemId_; }
  const Kiln::Ptr<const OverlaySvc::VtepStatusV2>& vtepStatus() const { return vtepStatus_; }
  const Kiln::Ptr<const FabricMapV3::Host>& topoStatusHost() const { return topoStatusHost_; }
  const Kiln::Ptr<HwVtepOvsdb>& ovsdb() const { return ovsdb_; }
  const Kiln::Ptr<OvsdbRequestQueue>& requestQueue() const { return requestQueue_; }
  // The MAC of the row this machine last wrote; zero before the first.
  const Ipkit::EthAddr& vtepLocalMac() const { return vtepLocalMac_; }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  // Brings the row in line with the VTEP, in one transaction when anything changes.
  void updateArpSourcesLocal();
  // Deletes the row of the VTEP's MAC.
  void destroy();

 private:
  class KilnVtepStatus : public OverlaySvc::VtepStatusV2::NotifieeConst {
   public:
    explicit KilnVtepStatus(ArpSourceLocalSm* sm) : sm_(sm) {}
    void onVtepAddr() override { sm_->updateArpSourcesLocal(); }
    void onVtepLocalMac() override { sm_->updateArpSourcesLocal(); }

   private:
    ArpSourceLocalSm* sm_;
  };
  class KilnTopoStatusHost : public FabricMapV3::Host::NotifieeConst {
   public:
    explicit KilnTopoStatusHost(ArpSourceLocalSm* sm) : sm_(sm) {}
    void onMlagState() override { sm_->updateArpSourcesLocal(); }

   private:
    ArpSourceLocalSm* sm_;
  };

  Kiln::Ptr<OvsdbTransactRequest> newTransaction() const;

  const Fleet::SystemId systemId_;
  const Kiln::Ptr<const OverlaySvc::VtepStatusV2> vtepStatus_;
  const Kiln::Ptr<const FabricMapV3::Host> topoStatusHost_;
  const Kiln::Ptr<HwVtepOvsdb> ovsdb_;
  const Kiln::Ptr<OvsdbRequestQueue> requestQueue_;
  Ipkit::EthAddr vtepLocalMac_;
  bool initialized_ = false;
  KilnVtepStatus kilnVtepStatus_;
  KilnTopoStatusHost kilnTopoStatusHost_;
};

// ---- the switch ----------------------------------------------------------------

class PhysicalSwitchSm : public Kiln::PtrInterface {
 public:
  static constexpr double defaultCoalesceInterval = 0.3;

  // Runs handleInitialized(): the VTEP and port error companions are made
  // and the ARP sources written. The rows come with the first
  // handleRefresh(transact).
  PhysicalSwitchSm(const Fleet::SystemId& systemId, const Kiln::String& displayName,
                   Kiln::Ptr<const FabricMapV3::Host> topoStatusHost,
                   Kiln::Ptr<const OverlaySvc::VtepStatusDirV2> vtepStatusDir,
                   Kiln::Ptr<const OverlaySvc::ErrorStatusV2> errorStatus, Kiln::Ptr<HwVtepOvsdb> ovsdb,
                   Kiln::Ptr<OvsdbRequestQueue> requestQueue);

  const Fleet::SystemId& systemId() const { return systemId_; }
  const Kiln::String& displayName() const { return displayName_; }
  // Changed by the inventory only; the next refresh looks the row up by it.
  void displayNameIs(const Kiln::String& name) { displayName_ = name; }
  const Kiln::Ptr<const FabricMapV3::Host>& topoStatusHost() const { return topoStatusHost_; }
  const Kiln::Ptr<const OverlaySvc::VtepStatusDirV2>& vtepStatusDir() const { return vtepStatusDir_; }
  const Kiln::Ptr<const OverlaySvc::ErrorStatusV2>& errorStatus() const { return errorStatus_; }
  const Kiln::Ptr<HwVtepOvsdb>& ovsdb() const { return ovsdb_; }
  const Kiln::Ptr<OvsdbRequestQueue>& requestQueue() const { return requestQueue_; }
  const Kiln::Ptr<LocalData>& localData() const { return localData_; }
  // The pair this switch belongs to; null outside one. Set by the inventory.
  MlagSwitchSmInterface* mlagSwitchSm() const { return mlagSwitchSm_; }
  void mlagSwitchSmIs(MlagSwitchSmInterface* sm) { mlagSwitchSm_ = sm; }
  const std::map<Kiln::String, Kiln::Ptr<ArpSourceLocalSm>>& arpSourceLocalSm() const { return arpSourceLocalSm_; }
  const std::map<Kiln::String, Kiln::Ptr<VtepStatusSm>>& vtepStatusSm() const { return vtepStatusSm_; }
  const std::map<Kiln::String, Kiln::Ptr<PortErrorSm>>& portErrorSm() const { return portErrorSm_; }
  bool switchDirty() const { return switchDirty_; }
  // A rise arms the timer for now + coalesceInterval; further rises before
  // the refresh change nothing; lowering disarms it.
  void switchDirtyIs(bool dirty);
  double coalesceInterval() const { return coalesceInterval_; }
  void coalesceIntervalIs(double seconds) { coalesceInterval_ = seconds; }
  // When the timer fires next; plus infinity when it is not armed.
  double refreshTime() const { return clock_.timeMin(); }
  bool initialized() const { return initialized_; }

  // The mirror's row for displayName, or null.
  Kiln::Ptr<PhysicalSwitch> physicalSwitch() const;

  void handleInitialized();
  // Adds the operations that bring the rows in line to `transact`, and
  // returns the switch row's uuid (a named one for a row inserted by this
  // transaction; null while not initialized). Enqueues nothing.
  Uuid handleRefresh(OvsdbTransactRequest& transact);
  // The timer's refresh, in a transaction of its own.
  void handleRefresh();
  void handleLogicalPort(const Kiln::String& name);
  void handleMgmtIp(const Ipkit::IpGenAddr& ip);
  void handleMlagPeerLink();
  // Every VTEP of the directory; one VTEP.
  void handleVtepStatus();
  void handleVtepStatus(const Kiln::String& name);
  void handlePortError();
  void handlePortError(const Kiln::String& name);
  // Deletes the switch's ARP sources and leaves its pair; the rows of the
  // switch stay until Global stops naming them.
  void destroy();

 private:
  class KilnTopoStatusHost : public FabricMapV3::Host::NotifieeConst {
   public:
    explicit KilnTopoStatusHost(PhysicalSwitchSm* sm) : sm_(sm) {}
    void onLogicalPort(const Kiln::String& name) override { sm_->handleLogicalPort(name); }
    void onMgmtIp(const Ipkit::IpGenAddr& ip) override { sm_->handleMgmtIp(ip); }
    void onMlagPeerLink() override { sm_->handleMlagPeerLink(); }

   private:
    PhysicalSwitchSm* sm_;
  };
  class KilnVtepStatusDir : public OverlaySvc::VtepStatusDirV2::NotifieeConst {
   public:
    explicit KilnVtepStatusDir(PhysicalSwitchSm* sm) : sm_(sm) {}
    void onVtepStatus(const Kiln::String& name) override { sm_->handleVtepStatus(name); }

   private:
    PhysicalSwitchSm* sm_;
  };
  class KilnErrorStatus : public OverlaySvc::ErrorStatusV2::NotifieeConst {
   public:
    explicit KilnErrorStatus(PhysicalSwitchSm* sm) : sm_(sm) {}
    void onPortError(const Kiln::String& name) override { sm_->handlePortError(name); }

   private:
    PhysicalSwitchSm* sm_;
  };
  class KilnClock : public Kiln::Clock::NotifieeConst {
   public:
    explicit KilnClock(PhysicalSwitchSm* sm) : sm_(sm) {}
    void onTimeMin() override { sm_->handleRefresh(); }

   private:
    PhysicalSwitchSm* sm_;
  };

  void handleDirtySwitch();
  Kiln::Ptr<PhysicalSwitch> createPhysicalSwitch(OvsdbTransactRequest& transact) const;
  // The interfaces that are database ports, with whether each has errors.
  std::map<Kiln::String, bool> wantedPorts() const;
  bool updateDisplayName(const PhysicalSwitch& old, PhysicalSwitch& value) const;
  bool updateDescription(const PhysicalSwitch& old, PhysicalSwitch& value) const;
  bool updateMgmtIps(const PhysicalSwitch& old, PhysicalSwitch& value) const;
  bool updateTunnelIps(const PhysicalSwitch& old, PhysicalSwitch& value) const;
  bool updatePorts(const PhysicalSwitch& old, PhysicalSwitch& value, OvsdbTransactRequest& transact) const;

  const Fleet::SystemId systemId_;
  Kiln::String displayName_;
  const Kiln::Ptr<const FabricMapV3::Host> topoStatusHost_;
  const Kiln::Ptr<const OverlaySvc::VtepStatusDirV2> vtepStatusDir_;
  const Kiln::Ptr<const OverlaySvc::ErrorStatusV2> errorStatus_;
  const Kiln::Ptr<HwVtepOvsdb> ovsdb_;
  const Kiln::Ptr<OvsdbRequestQueue> requestQueue_;
  const Kiln::Ptr<LocalData> localData_;
  MlagSwitchSmInterface* mlagSwitchSm_ = nullptr;
  std::map<Kiln::String, Kiln::Ptr<ArpSourceLocalSm>> arpSourceLocalSm_;
  std::map<Kiln::String, Kiln::Ptr<VtepStatusSm>> vtepStatusSm_;
  std::map<Kiln::String, Kiln::Ptr<PortErrorSm>> portErrorSm_;
  KilnClock clock_;
  bool switchDirty_ = false;
  double coalesceInterval_ = defaultCoalesceInterval;
  bool initialized_ = false;
  KilnTopoStatusHost kilnTopoStatusHost_;
  KilnVtepStatusDir kilnVtepStatusDir_;
  KilnErrorStatus kilnErrorStatus_;
};

}  // namespace Vgw
