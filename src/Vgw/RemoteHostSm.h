// Remote hosts towards the fabric.
//
// The controller writes the hosts it knows behind its own VTEPs as remote MAC
// rows; the remote host tables (LocalTypes) fold them into one answer per
// logical switch. RemoteHostSm publishes those answers as one
// OverlaySvc::VniStatusV2 per VNI under the agent's VNI status directory, so
// the fabric's switches learn which VTEP serves which remote MAC, which VTEPs
// flood a multicast MAC and which address belongs to which MAC.
//
// RemoteHostSm owns one LogicalSwitchSm per Logical_Switch row of the mirror.
// A LogicalSwitchSm holds its row's VNI only while no other logical switch
// claims the same key, gives it up when the key goes or is shared, and
// publishes nothing while it holds no VNI. Neither
// machine follows rows by itself: the monitor path calls handleInitialized()
// after an update (a full reconciliation, free when nothing changed) or the
// per-key handlers for a pure remote-unicast update. The one reactor here
// follows Status.vtepListType, which moves the published multicast entries
// between the flood-list and the multi-path tables.
#pragma once

#include "Kiln/Ptr.h"
#include "Vgw/LocalTypes.h"
#include "entities/OverlaySvc.h"
#include "model/Rows.h"
#include "model/Status.h"

namespace Vgw {

class LogicalSwitchSm : public Kiln::PtrInterface {
 public:
  LogicalSwitchSm(Kiln::Ptr<Status> status, Kiln::Ptr<const LogicalSwitch> logicalSwitch,
                  Kiln::Ptr<RemoteHostTable> remoteHostTable, Kiln::Ptr<const HwVtepOvsdb> hwVtepOvsdb,
                  Kiln::Ptr<OverlaySvc::VniStatusDirV2> vniStatusDir);

  const Kiln::Ptr<Status>& status() const { return status_; }
  const Kiln::Ptr<const LogicalSwitch>& logicalSwitch() const { return logicalSwitch_; }
  const Kiln::Ptr<RemoteHostTable>& remoteHostTable() const { return remoteHostTable_; }
  const Kiln::Ptr<const HwVtepOvsdb>& hwVtepOvsdb() const { return hwVtepOvsdb_; }
  const Kiln::Ptr<OverlaySvc::VniStatusDirV2>& vniStatusDir() const { return vniStatusDir_; }
  Vxlan::VniOrNone vni() const { return vni_; }
  bool initialized() const { return initialized_; }

  // Re-reads everything: the VNI, then every unicast, multicast and address entry.
  void handleInitialized();
  void handleTunnelKey();
  void handleUcastMacVtep();
  void handleUcastMacVtep(const Ipkit::EthAddr& mac);
  void handleMcastMacVtep();
  void handleMcastMacVtep(const Ipkit::EthAddr& mac);
  void handleIpToMac();
  void handleIpToMac(const Ipkit::IpGenAddr& ip);
  // Clears initialized and removes the VniStatusV2 of the adopted VNI.
  void destroy();

 private:
  void handleMacVtepMultiPath(const Ipkit::EthAddr& mac);
  void handleMacVtepFloodList(const Ipkit::EthAddr& mac);
  Kiln::Ptr<OverlaySvc::VniStatusV2> vniStatus() const;

  const Kiln::Ptr<Status> status_;
  const Kiln::Ptr<const LogicalSwitch> logicalSwitch_;
  const Kiln::Ptr<RemoteHostTable> remoteHostTable_;
  const Kiln::Ptr<const HwVtepOvsdb> hwVtepOvsdb_;
  const Kiln::Ptr<OverlaySvc::VniStatusDirV2> vniStatusDir_;
  Vxlan::VniOrNone vni_ = Vxlan::VniOrNone::invalidVni();
  bool initialized_ = false;
};

class RemoteHostSm : public Kiln::PtrInterface {
 public:
  RemoteHostSm(Kiln::Ptr<Status> status, Kiln::Ptr<OverlaySvc::VniStatusDirV2> vniStatusDir);
  ~RemoteHostSm() override;

  const Kiln::Ptr<Status>& status() const { return status_; }
  const Kiln::Ptr<OverlaySvc::VniStatusDirV2>& vniStatusDir() const { return vniStatusDir_; }
  const Kiln::Ptr<LocalData>& localData() const { return localData_; }
  bool initialized() const { return initialized_; }
  const std::map<Uuid, Kiln::Ptr<LogicalSwitchSm>>& logicalSwitchSm() const { return logicalSwitchSm_; }
  // The machine of a logical switch row, or null.
  LogicalSwitchSm* logicalSwitchSm(const Uuid& uuid) const;

  // Full reconciliation: the stale sweep of every published VNI, then the
  // logical switch machines, the VTEP list type and the ARP sources.
  void handleInitialized();
  void handleLogicalSwitch();
  void handleLogicalSwitch(const Uuid& uuid);
  void handleVtepListType();
  void handleArpSourcesRemote();
  void handleArpSourcesRemote(const Ipkit::EthAddr& mac);
  // Removes everything this machine published.
  void destroy();

 private:
  class KilnStatus : public Status::NotifieeConst {
   public:
    explicit KilnStatus(RemoteHostSm* sm) : sm_(sm) {}
    void onVtepListType() override;

   private:
    RemoteHostSm* sm_;
  };

  Kiln::Ptr<const HwVtepOvsdb> hwVtepOvsdb() const;

  const Kiln::Ptr<Status> status_;
  const Kiln::Ptr<OverlaySvc::VniStatusDirV2> vniStatusDir_;
  const Kiln::Ptr<LocalData> localData_;
  std::map<Uuid, Kiln::Ptr<LogicalSwitchSm>> logicalSwitchSm_;
  bool initialized_ = false;
  KilnStatus kilnStatus_;
};

Kiln::Ptr<RemoteHostSm> remoteHostSmFactory(Kiln::Ptr<Status> status,
                                            Kiln::Ptr<OverlaySvc::VniStatusDirV2> vniStatusDir);

}  // namespace Vgw
