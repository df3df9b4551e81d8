// Logical routers towards the fabric.
//
// The controller describes each router in a Logical_Router row: a name, the
// router's own interface addresses with the logical switch behind each
// (switch_binding), and static routes. LrSm publishes every router as one
// OverlaySvc::LRConfigEntryV2, keyed by the router's name, in the
// OverlaySvc::LRConfigV2 named "vgw" of the logical router configuration
// directory; another service builds the routers on the fabric.
//
// LrSm owns one LrEntrySm per Logical_Router row, by uuid. Neither follows
// rows by itself: the monitor path marks the rows a message touched
// (dirtyUuidIs) and calls reconcileConfig() once per message, after the
// message is in the mirror. A machine keeps the name its row had when it
// was built; a rename is the removal of the entry under the old name and the
// creation of one under the new, and within one message every removal comes
// before every creation, so that routers may swap names in one transaction.
//
// An interface is published only once its MAC and VTEP are known, and those
// come from the Ucast_Macs_Remote row of the interface's own address on the
// bound logical switch, which the controller may write later than the
// router. Until then the interface is deferred: nothing is published or
// taken back, and every change of such a row (LocalData.switchBindingDirty)
// makes reconcileConfig() try every interface again. A logical switch with
// a tunnel key is an overlay segment and gives an IP port with that VNI; one
// without is an uplink segment and gives an uplink port with the (port,
// VLAN) pairs bound to it, once each of those ports is in the mirror. An
// address is published in one form at most: the form that does not fit the
// switch it is bound to goes as soon as the binding is read, while a form
// that fits stays published through a deferral. Routes are written from the
// row on every pass; equal values cost nothing. createLocalIpPortsOnly
// follows CliConfig.routingModeType (set for localIpPortsOnly) through a
// reactor per entry.
//
// Router names are unique in the database (the schema indexes them), and a
// mirror that holds two rows of one name when LrSm starts breaches that and
// asserts. A row that takes a name another router still holds later on
// (possible only with a server that does not enforce the index) is not
// published: it waits, with an error trace, until the name is free, and the
// holder's entry stays as it was.
//
// Single-threaded, on the agent's event loop; reconcileConfig() runs inside
// the application of a monitor message.
#pragma once

#include <map>
#include <set>

#include "Kiln/Dir.h"
#include "Kiln/Ptr.h"
#include "Vgw/HwVtepRequestHandlerSm.h"
#include "Vgw/LocalTypes.h"
#include "entities/OverlaySvc.h"
#include "model/Rows.h"
#include "model/Status.h"

namespace Vgw {

// One router's configuration entry.
class LrEntrySm : public Kiln::PtrInterface {
 public:
  // Runs handleInitialized().
  LrEntrySm(Uuid uuid, Kiln::String name, Kiln::Ptr<const LogicalRouter> logicalRouter,
            Kiln::Ptr<const CliConfig> cliConfig, Kiln::Ptr<const HwVtepOvsdb> ovsdb,
            Kiln::Ptr<OverlaySvc::LRConfigV2> lrConfig);

  const Uuid& uuid() const { return uuid_; }
  const Kiln::String& name() const { return name_; }
  const Kiln::Ptr<const LogicalRouter>& logicalRouter() const { return logicalRouter_; }
  Kiln::Ptr<const CliConfig> cliConfig() const { return kilnCliConfig_.notifier(); }
  const Kiln::Ptr<const HwVtepOvsdb>& ovsdb() const { return ovsdb_; }
  const Kiln::Ptr<OverlaySvc::LRConfigV2>& lrConfig() const { return lrConfig_; }
  // The published entry; null until handleInitialized() and after destroy().
  const Kiln::Ptr<OverlaySvc::LRConfigEntryV2>& lrConfigEntry() const { return lrConfigEntry_; }
  bool initialized() const { return initialized_; }

  // Publishes the whole router from its row: the entry, every interface,
  // every route and the routing mode. Repeatable.
  void handleInitialized();
  // Takes back the interfaces the row no longer binds, then runs the
  // per-address form for every binding.
  void reconcileSwitchBinding();
  void reconcileSwitchBinding(const Ipkit::IpGenAddrWithMask& ip);
  // Takes back the routes the row no longer holds, then writes every route.
  void reconcileStaticRoute();
  void reconcileStaticRoute(const Ipkit::IpGenPrefix& prefix);
  void handleRoutingModeType();
  // Removes the entry; the machine publishes nothing more.
  void destroy();

 private:
  class KilnCliConfig : public CliConfig::NotifieeConst {
   public:
    explicit KilnCliConfig(LrEntrySm* sm) : sm_(sm) {}
    void onRoutingModeType() override { sm_->handleRoutingModeType(); }

   private:
    LrEntrySm* sm_;
  };

  void publishIpPort(const Ipkit::IpGenAddrWithMask& ip, const Ipkit::EthAddr& mac, Vxlan::Vni vni,
                     const Ipkit::IpGenAddr& vtep);
  void publishIpUplinkPort(const Ipkit::IpGenAddrWithMask& ip, const Uuid& logicalSwitch, const Ipkit::EthAddr& mac,
                           const Ipkit::IpGenAddr& vtep);

  const Uuid uuid_;
  const Kiln::String name_;
  const Kiln::Ptr<const LogicalRouter> logicalRouter_;
  const Kiln::Ptr<const HwVtepOvsdb> ovsdb_;
  const Kiln::Ptr<OverlaySvc::LRConfigV2> lrConfig_;
  const Kiln::Ptr<LocalData> localData_;
  Kiln::Ptr<OverlaySvc::LRConfigEntryV2> lrConfigEntry_;
  bool initialized_ = false;
  KilnCliConfig kilnCliConfig_;
};

class LrSm : public Kiln::PtrInterface, public LrSmInterface {
 public:
  // Runs handleInitialized().
  LrSm(Kiln::Ptr<const HwVtepOvsdb> ovsdb, Kiln::Ptr<const CliConfig> cliConfig, Kiln::Ptr<Kiln::Dir> lrConfigDir);
  ~LrSm() override;

  const Kiln::Ptr<const HwVtepOvsdb>& ovsdb() const { return ovsdb_; }
  const Kiln::Ptr<const CliConfig>& cliConfig() const { return cliConfig_; }
  const Kiln::Ptr<Kiln::Dir>& lrConfigDir() const { return lrConfigDir_; }
  const Kiln::Ptr<LocalData>& localData() const { return localData_; }
  // The "vgw" entity; null before handleInitialized() and after destroyConfig().
  const Kiln::Ptr<OverlaySvc::LRConfigV2>& lrConfig() const { return lrConfig_; }
  const std::map<Uuid, Kiln::Ptr<LrEntrySm>>& lrEntrySm() const { return lrEntrySm_; }
  LrEntrySm* lrEntrySm(const Uuid& uuid) const;
  const std::set<Uuid>& dirtyUuid() const { return dirtyUuid_; }
  // Rows that wait for their name to be released by another router.
  const std::set<Uuid>& nameTaken() const { return nameTaken_; }
  bool initialized() const { return initialized_; }

  // Creates the "vgw" entity and runs initializeConfig().
  void handleInitialized();
  // Start from the mirror: removes the entries of routers the mirror does
  // not hold, then builds a machine per row. Asserts when two rows share a
  // name.
  void initializeConfig();
  void dirtyUuidIs(const Uuid& uuid) override;
  void reconcileConfig() override;
  // Teardown: every entry and the "vgw" entity go.
  void destroyConfig();

 private:
  Kiln::Ptr<LrEntrySm> lrEntrySmIs(const Uuid& uuid, const Kiln::Ptr<const LogicalRouter>& row);
  Kiln::Ptr<LrEntrySm> lrEntrySmDel(const Uuid& uuid);
  bool nameHeld(const Kiln::String& name) const;

  const Kiln::Ptr<const HwVtepOvsdb> ovsdb_;
  const Kiln::Ptr<const CliConfig> cliConfig_;
  const Kiln::Ptr<Kiln::Dir> lrConfigDir_;
  const Kiln::Ptr<LocalData> localData_;
  Kiln::Ptr<OverlaySvc::LRConfigV2> lrConfig_;
  std::map<Uuid, Kiln::Ptr<LrEntrySm>> lrEntrySm_;
  std::set<Uuid> dirtyUuid_;
  std::set<Uuid> nameTaken_;
  bool initialized_ = false;
};

Kiln::Ptr<LrSm> lrSmFactory(Kiln::Ptr<const HwVtepOvsdb> ovsdb, Kiln::Ptr<const CliConfig> cliConfig,
                            Kiln::Ptr<Kiln::Dir> lrConfigDir);

}  // namespace Vgw
