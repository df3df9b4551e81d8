// Port bindings towards the fabric: VLAN to VNI and transit VNIs.
//
// The controller binds VLANs of physical ports to logical switches in the
// vlan_bindings of Physical_Port rows. The fabric expects that as per-VTEP
// configuration: under overlaysvc/version2/input/dynVtepConfig/vgw/switch,
// one OverlaySvc::VtepConfigDirV2 per switch (named by its system id) holds
// one OverlaySvc::VtepConfigV2 per VTEP of the switch (named as in the
// switch's VtepStatusDirV2), whose vlanToVniMap maps (port name, VLAN) to the
// VNI of the bound logical switch. This unit keeps those maps equal to the
// database, and also keeps vniWithoutVlan, the transit VNIs the routing mode
// asks the switch to carry without a VLAN.
//
// VlanToVniSm reconciles one switch at a time (handleSwitch(systemId)):
// a switch is served once its VTEP status directory, a VTEP key, its
// configuration directory and a named host all exist, and its
// Physical_Switch row (found by hostname) carries fabric identities. It then
// gets one VlanToVni::PhysicalSwitchSm for its own row and, inside an MLAG
// pair, a second one for the pair's row; the two roles write different VTEP
// configurations (getVtepKey). Each switch machine keeps one PhysicalPortSm
// per port of its row, and each port machine writes the pairs of its
// bindings. A VNI that two logical switches share is bound nowhere; a
// logical switch without a key binds nothing; a tunnel key change reaches
// the ports once the monitor update that carried it is complete. Transit VNIs
// follow LocalData.transitVni on the next turn of the loop after the monitor
// path marks them dirty, and vanish entirely under direct routing.
//
// The machines write only the fabric's configuration entities, never the
// database. On a (re)connection, configuration that the database no longer
// backs (an earlier life's, or a port deleted while the server was away) is
// swept before the machines are built, and configuration the database still
// backs is left untouched. destroy() takes back every binding of this agent.
//
// Single-threaded, on the agent's event loop; every reactor runs inside the
// setter that notified it. A reconciliation's own writes notify back into it
// and are ignored there: the running pass reads every input afresh.
#pragma once

#include <map>
#include <set>

#include "Ipkit/IpGenAddr.h"
#include "Ipkit/SystemId.h"
#include "Kiln/Dir.h"
#include "Kiln/EventLoop.h"
#include "Kiln/Ptr.h"
#include "Vgw/LocalTypes.h"
#include "entities/FabricMapV3.h"
#include "entities/OverlaySvc.h"
#include "model/Rows.h"
#include "model/Status.h"

namespace Vgw {

class VlanToVniSm;

namespace VlanToVni {

// The VTEP configuration a switch role writes: the first VTEP that is not an
// MLAG one ("Vxlan..." ending in "-mlag") for `mlag` false; the MLAG VTEP
// for `mlag` true, or else the last other VTEP. Empty without VTEPs.
Kiln::String getVtepKey(const OverlaySvc::VtepStatusDirV2* vtepStatusDir, bool mlag);
// Removes the BFD session towards `peerIp`; the last one gone, the BFD VNI
// becomes none.
void delBfdPeerConfig(OverlaySvc::VtepConfigV2* vtepConfig, const Ipkit::IpGenAddr& peerIp);
// The MLAG domain of the host of that key; empty outside a pair or while the
// pair has not reported it.
Kiln::String hostMlagDomainId(const FabricMapV3::Status& topoStatus, const Kiln::String& hostKey);

// The bindings of one port.
class PhysicalPortSm : public Kiln::PtrInterface {
 public:
  // Runs handleInitialized(); a null `vtepConfig` makes every write a no-op.
  PhysicalPortSm(Kiln::Ptr<const PhysicalPort> physicalPort, Kiln::Ptr<const HwVtepOvsdb> ovsdb,
                 Kiln::Ptr<OverlaySvc::VtepConfigV2> vtepConfig);

  const Kiln::Ptr<const PhysicalPort>& physicalPort() const { return physicalPort_; }
  const Kiln::Ptr<OverlaySvc::VtepConfigV2>& vtepConfig() const { return vtepConfig_; }
  const Kiln::String& switchPortName() const { return physicalPort_->displayName(); }
  const Uuid& uuid() const { return physicalPort_->uuid(); }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  // Every VLAN of the row; one VLAN.
  void handleVlanBinding();
  void handleVlanBinding(const Bridging::VlanIdOrNone& vlan);
  // The first VLAN bound to that logical switch, which may have a new key.
  void refreshBindings(const Uuid& logicalSwitch);
  // The VLANs whose VNI was not indexed yet when they changed: the monitor
  // path rebuilds that index with each message, and a binding that changed
  // inside one is read again once the message is complete.
  const std::set<Bridging::VlanIdOrNone>& deferred() const { return deferred_; }
  void handleDeferred();
  // Takes back every pair of this port.
  void destroy();

 private:
  class KilnPhysicalPort : public PhysicalPort::NotifieeConst {
   public:
    explicit KilnPhysicalPort(PhysicalPortSm* sm) : sm_(sm) {}
    void onVlanBinding(const Bridging::VlanIdOrNone& vlan) override { sm_->handleVlanBinding(vlan); }

   private:
    PhysicalPortSm* sm_;
  };

  void pairDel(const OverlaySvc::PortVlanPairV2& pair);

  const Kiln::Ptr<const PhysicalPort> physicalPort_;
  const Kiln::Ptr<const HwVtepOvsdb> ovsdb_;
  const Kiln::Ptr<OverlaySvc::VtepConfigV2> vtepConfig_;
  const Kiln::Ptr<LocalData> localData_;
  std::set<Bridging::VlanIdOrNone> deferred_;
  bool initialized_ = false;
  KilnPhysicalPort kilnPhysicalPort_;
};

class PhysicalSwitchSm;

// One VTEP of a served switch: an address change re-runs the switch.
class VtepStatusSm : public Kiln::PtrInterface {
 public:
  VtepStatusSm(Kiln::Ptr<const OverlaySvc::VtepStatusV2> vtepStatus, PhysicalSwitchSm* parent);

  const Kiln::String& name() const { return vtepStatus_->name(); }
  bool initialized() const { return initialized_; }
  void handleVtepAddr();

 private:
  class KilnVtepStatus : public OverlaySvc::VtepStatusV2::NotifieeConst {
   public:
    explicit KilnVtepStatus(VtepStatusSm* sm) : sm_(sm) {}
    void onVtepAddr() override { sm_->handleVtepAddr(); }

   private:
    VtepStatusSm* sm_;
  };

  const Kiln::Ptr<const OverlaySvc::VtepStatusV2> vtepStatus_;
  PhysicalSwitchSm* const parent_;
  bool initialized_ = false;
  KilnVtepStatus kilnVtepStatus_;
};

// One switch in one role: its own row, or the row of its MLAG pair.
class PhysicalSwitchSm : public Kiln::PtrInterface {
 public:
  // Runs handleInitialized().
  PhysicalSwitchSm(const Fleet::SystemId& systemId, Kiln::Ptr<const PhysicalSwitch> physicalSwitch,
                   Kiln::Ptr<const HwVtepOvsdb> ovsdb, Kiln::Ptr<const CliConfig> cliConfig,
                   Kiln::Ptr<const OverlaySvc::VtepStatusDirV2> vtepStatusDir,
                   Kiln::Ptr<OverlaySvc::VtepConfigDirV2> vtepConfigDir, const Kiln::String& vtepKey,
                   VlanToVniSm* parent);

  const Fleet::SystemId& systemId() const { return systemId_; }
  const Kiln::Ptr<const PhysicalSwitch>& physicalSwitch() const { return physicalSwitch_; }
  const Kiln::Ptr<const OverlaySvc::VtepStatusDirV2>& vtepStatusDir() const { return vtepStatusDir_; }
  const Kiln::Ptr<OverlaySvc::VtepConfigDirV2>& vtepConfigDir() const { return vtepConfigDir_; }
  const Kiln::String& vtepKey() const { return vtepKey_; }
  // The configuration this role writes; null until the switch is ready.
  const Kiln::Ptr<OverlaySvc::VtepConfigV2>& vtepConfig() const { return vtepConfig_; }
  const std::map<Uuid, Kiln::Ptr<PhysicalPortSm>>& portSm() const { return portSm_; }
  bool ready() const { return ready_; }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  // Every VTEP; one VTEP, which matters only when it is the key's.
  void handleVtepStatus();
  void handleVtepStatus(const Kiln::String& name);
  // Every port of the row; one port, which the row holds or has let go.
  void handlePhysicalPort();
  void handlePhysicalPort(const Uuid& uuid);
  void handleSystemId(const Fleet::SystemId& id);
  void handleTransitVni();
  // Re-reads the binding of `logicalSwitch` on every port.
  void refreshBindings(const Uuid& logicalSwitch);
  void handleDeferred();
  // Takes back every port's pairs; the configuration entity itself stays.
  void cleanup();
  void destroy();

 private:
  class KilnPhysicalSwitch : public PhysicalSwitch::NotifieeConst {
   public:
    explicit KilnPhysicalSwitch(PhysicalSwitchSm* sm) : sm_(sm) {}
    void onPort(const Uuid& uuid) override { sm_->handlePhysicalPort(uuid); }
    void onSystemId(const Fleet::SystemId& id) override { sm_->handleSystemId(id); }

   private:
    PhysicalSwitchSm* sm_;
  };
  class KilnCliConfig : public CliConfig::NotifieeConst {
   public:
    explicit KilnCliConfig(PhysicalSwitchSm* sm) : sm_(sm) {}
    void onRoutingModeType() override { sm_->handleTransitVni(); }

   private:
    PhysicalSwitchSm* sm_;
  };

  const Fleet::SystemId systemId_;
  const Kiln::Ptr<const PhysicalSwitch> physicalSwitch_;
  const Kiln::Ptr<const HwVtepOvsdb> ovsdb_;
  const Kiln::Ptr<const CliConfig> cliConfig_;
  const Kiln::Ptr<const OverlaySvc::VtepStatusDirV2> vtepStatusDir_;
  const Kiln::Ptr<OverlaySvc::VtepConfigDirV2> vtepConfigDir_;
  const Kiln::String vtepKey_;
  VlanToVniSm* const parent_;
  const Kiln::Ptr<LocalData> localData_;
  Kiln::Ptr<OverlaySvc::VtepConfigV2> vtepConfig_;
  std::map<Kiln::String, Kiln::Ptr<VtepStatusSm>> vtepStatusSm_;
  std::map<Uuid, Kiln::Ptr<PhysicalPortSm>> portSm_;
  bool ready_ = false;
  bool initialized_ = false;
  KilnPhysicalSwitch kilnPhysicalSwitch_;
  KilnCliConfig kilnCliConfig_;
};

// The status and configuration directories of one switch: a VTEP or a VTEP
// configuration that comes or goes re-runs the switch.
class VtepStatusDirSm : public Kiln::PtrInterface {
 public:
  VtepStatusDirSm(const Fleet::SystemId& systemId, Kiln::Ptr<const OverlaySvc::VtepStatusDirV2> vtepStatusDir,
                  Kiln::Ptr<const OverlaySvc::VtepConfigDirV2> vtepConfigDir, VlanToVniSm* parent);

  const Kiln::Ptr<const OverlaySvc::VtepStatusDirV2>& vtepStatusDir() const { return vtepStatusDir_; }
  const Kiln::Ptr<const OverlaySvc::VtepConfigDirV2>& vtepConfigDir() const { return vtepConfigDir_; }
  void handleVtepStatus(const Kiln::String& name);

 private:
  class KilnVtepStatusDir : public OverlaySvc::VtepStatusDirV2::NotifieeConst {
   public:
    explicit KilnVtepStatusDir(VtepStatusDirSm* sm) : sm_(sm) {}
    void onVtepStatus(const Kiln::String& name) override { sm_->handleVtepStatus(name); }

   private:
    VtepStatusDirSm* sm_;
  };
  class KilnVtepConfigDir : public OverlaySvc::VtepConfigDirV2::NotifieeConst {
   public:
    explicit KilnVtepConfigDir(VtepStatusDirSm* sm) : sm_(sm) {}
    void onVtepConfig(const Kiln::String& name) override { sm_->handleVtepStatus(name); }

   private:
    VtepStatusDirSm* sm_;
  };

  const Fleet::SystemId systemId_;
  const Kiln::Ptr<const OverlaySvc::VtepStatusDirV2> vtepStatusDir_;
  const Kiln::Ptr<const OverlaySvc::VtepConfigDirV2> vtepConfigDir_;
  VlanToVniSm* const parent_;
  KilnVtepStatusDir kilnVtepStatusDir_;
  KilnVtepConfigDir kilnVtepConfigDir_;
};

}  // namespace VlanToVni

class VlanToVniSm : public Kiln::PtrInterface {
 public:
  using SwitchSmMap = std::map<Fleet::SystemId, Kiln::Ptr<VlanToVni::PhysicalSwitchSm>>;

  // Runs handleInitialized(), which syncs at once when the session is.
  VlanToVniSm(Kiln::Ptr<const HwVtepOvsdb> ovsdb, Kiln::Ptr<const CliConfig> cliConfig,
              Kiln::Ptr<const FabricMapV3::Status> topoStatus, Kiln::Ptr<const Kiln::Dir> vtepStatusAggregate,
              Kiln::Ptr<Kiln::Dir> dynVtepConfig);
  ~VlanToVniSm() override;

  const Kiln::Ptr<const HwVtepOvsdb>& ovsdb() const { return ovsdb_; }
  const Kiln::Ptr<const CliConfig>& cliConfig() const { return cliConfig_; }
  const Kiln::Ptr<const FabricMapV3::Status>& topoStatus() const { return topoStatus_; }
  const Kiln::Ptr<const Kiln::Dir>& vtepStatusAggregate() const { return vtepStatusAggregate_; }
  const Kiln::Ptr<Kiln::Dir>& dynVtepConfig() const { return dynVtepConfig_; }
  const SwitchSmMap& switchSm() const { return switchSm_; }
  const SwitchSmMap& mlagSwitchSm() const { return mlagSwitchSm_; }
  VlanToVni::PhysicalSwitchSm* switchSm(const Fleet::SystemId& id) const;
  VlanToVni::PhysicalSwitchSm* mlagSwitchSm(const Fleet::SystemId& id) const;
  const std::map<Kiln::String, Kiln::Ptr<const PhysicalSwitch>>& physicalSwitchRef() const {
    return physicalSwitchRef_;
  }
  // When the deferred transit VNI pass runs; plus infinity when not armed.
  double transitVniTime() const { return clock_.timeMin(); }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  // Reconciles the switch of that id in both roles.
  void handleSwitch(const Fleet::SystemId& systemId);
  // Every switch of the mirror, then drops machines of hosts the topology lost.
  void handleSwitch();
  void handleOvsdbSwitch(const Kiln::String& name);
  void handleTopoSwitch(const Kiln::String& name);
  void handleVxlanSwitch(const Kiln::Name& name);
  void handleVxlanSwitch();
  void handleLocalSwitch(const Fleet::SystemId& key);
  void handleMonitorUpdateComplete();
  void handleOvsdbSync();
  void handleDirtyTransitVni();
  void handleClock();
  // Whether a configuration directory of an earlier life has lost its
  // switch, VTEPs, host or row.
  bool vtepConfigObsolete(const Kiln::Name& name, const OverlaySvc::VtepConfigDirV2& vtepConfigDir) const;
  // Every machine goes and every VTEP configuration of this agent is emptied.
  void destroy();

 private:
  class KilnOvsdb : public HwVtepOvsdb::NotifieeConst {
   public:
    explicit KilnOvsdb(VlanToVniSm* sm) : sm_(sm) {}
    void onPhysicalSwitch(const Kiln::String& name) override { sm_->handleOvsdbSwitch(name); }

   private:
    VlanToVniSm* sm_;
  };
  class KilnTopoStatus : public FabricMapV3::Status::NotifieeConst {
   public:
    explicit KilnTopoStatus(VlanToVniSm* sm) : sm_(sm) {}
    void onHost(const Kiln::String& name) override { sm_->handleTopoHost(name); }
    void onMlagHost(const Ipkit::EthAddr& systemId) override { sm_->handleTopoMlagHost(systemId); }

   private:
    VlanToVniSm* sm_;
  };
  class KilnTopoStatusInstance : public FabricMapV3::Host::NotifieeConst {
   public:
    KilnTopoStatusInstance(VlanToVniSm* sm, Kiln::String name) : sm_(sm), name_(std::move(name)) {}
    void onHostname() override { sm_->handleTopoSwitch(name_); }

   private:
    VlanToVniSm* sm_;
    const Kiln::String name_;
  };
  class KilnDir : public Kiln::Dir::NotifieeConst {
   public:
    explicit KilnDir(VlanToVniSm* sm) : sm_(sm) {}
    void onEntityPtr(const Kiln::Name& name) override { sm_->handleVxlanSwitch(name); }

   private:
    VlanToVniSm* sm_;
  };
  class KilnLocalData : public LocalData::NotifieeConst {
   public:
    explicit KilnLocalData(VlanToVniSm* sm) : sm_(sm) {}
    void onMonitorUpdateComplete() override { sm_->handleMonitorUpdateComplete(); }
    void onOvsdbSynchronized() override { sm_->handleOvsdbSync(); }
    void onTransitVniDirty() override { sm_->handleDirtyTransitVni(); }
    void onPhysicalSwitch(const Fleet::SystemId& key) override { sm_->handleLocalSwitch(key); }

   private:
    VlanToVniSm* sm_;
  };
  class KilnClock : public Kiln::Clock::NotifieeConst {
   public:
    explicit KilnClock(VlanToVniSm* sm) : sm_(sm) {}
    void onTimeMin() override { sm_->handleClock(); }

   private:
    VlanToVniSm* sm_;
  };

  void handleTopoHost(const Kiln::String& name);
  void handleTopoMlagHost(const Ipkit::EthAddr& systemId);
  void reconcileSwitch(const Fleet::SystemId& systemId);
  // Keeps the role's machine when it still stands for that row and key,
  // else replaces it; `mlag` picks the map and the words of the traces.
  void switchSmIs(SwitchSmMap& map, bool mlag, const Fleet::SystemId& systemId,
                  const Kiln::Ptr<const PhysicalSwitch>& row,
                  const Kiln::Ptr<const OverlaySvc::VtepStatusDirV2>& vtepStatusDir,
                  const Kiln::Ptr<OverlaySvc::VtepConfigDirV2>& vtepConfigDir, const Kiln::String& vtepKey);
  // The row of the host's MLAG pair when it holds this switch; else null.
  Kiln::Ptr<const PhysicalSwitch> mlagSwitchRow(const Fleet::SystemId& systemId, const Kiln::String& hostKey) const;
  void syncVtepConfig(const Kiln::Name& name, OverlaySvc::VtepConfigDirV2& vtepConfigDir);
  void triggerClock();

  const Kiln::Ptr<const HwVtepOvsdb> ovsdb_;
  const Kiln::Ptr<const CliConfig> cliConfig_;
  const Kiln::Ptr<const FabricMapV3::Status> topoStatus_;
  const Kiln::Ptr<const Kiln::Dir> vtepStatusAggregate_;
  const Kiln::Ptr<Kiln::Dir> dynVtepConfig_;
  const Kiln::Ptr<LocalData> localData_;
  SwitchSmMap switchSm_;
  SwitchSmMap mlagSwitchSm_;
  std::map<Fleet::SystemId, Kiln::Ptr<VlanToVni::VtepStatusDirSm>> vtepStatusDirSm_;
  std::map<Kiln::String, Kiln::Ptr<const PhysicalSwitch>> physicalSwitchRef_;
  std::map<Kiln::String, std::unique_ptr<KilnTopoStatusInstance>> topoStatusInstance_;
  // Switches whose reconciliation is running.
  std::set<Fleet::SystemId> reconciling_;
  KilnClock clock_;
  bool initialized_ = false;
  KilnOvsdb kilnOvsdb_;
  KilnTopoStatus kilnTopoStatus_;
  KilnDir kilnVtepStatusAggregate_;
  KilnDir kilnDynVtepConfig_;
  KilnLocalData kilnLocalData_;
};

Kiln::Ptr<VlanToVniSm> vlanToVniSmFactory(Kiln::Ptr<const HwVtepOvsdb> ovsdb, Kiln::Ptr<const CliConfig> cliConfig,
                                          Kiln::Ptr<const FabricMapV3::Status> topoStatus,
                                          Kiln::Ptr<const Kiln::Dir> vtepStatusAggregate,
                                          Kiln::Ptr<Kiln::Dir> dynVtepConfig);

}  // namespace Vgw
