// Local hosts: the fabric's own hosts as Ucast_Macs_Local and
// Mcast_Macs_Local rows.
//
// The overlay service publishes, per VNI, which hosts sit behind the
// fabric's VTEPs (OverlaySvc::VniStatusV2 under
// overlaysvc/version2/vgw/vniStatusDir, read-only here). A unicast host
// (macVtepTable, with its address from ipToMacTable) becomes a
// Ucast_Macs_Local row on its VTEP's locator; a BUM MAC (multicast, broadcast
// or the all-zero unknown-dst MAC) becomes a Mcast_Macs_Local row on the
// locator set of its VTEPs, taken from macVtepMultiPathTable before
// macVtepFloodListTable.
//
// No notification writes the database. Each one only marks a (MAC, VNI)
// pair dirty in the backlog; LocalHostSm, a cooperative worker, drains the
// backlog in slices of its quantum, in batches of at most CliConfig.maxOps
// items per transaction, and reads the newest state of each pair when its
// turn comes. A pair that changes again while it waits costs one operation;
// one that comes and goes costs none unless it had a row. The clock is
// read only between batches, so each slice handles at least one batch; the
// next slice starts where the last one stopped.
//
// A pair whose VNI has no logical switch, or two of them, gets no row; a
// unicast MAC that is a VTEP's own (in Arp_Sources_Local) gets no row; a BUM
// MAC whose VTEP list became empty keeps the row it has. The pair leaves the
// backlog in each case and is served again on its next change.
//
// At construction, rows left by an earlier life of the agent are brought in
// line: those of a VNI the service still publishes go through the backlog
// like any change; the others are deleted in one operation per logical
// switch. A VNI entry that goes (or is replaced) whole sends its rows
// through the backlog, where they find no host and are deleted. destroy()
// deletes every local row in one transaction and stops the worker.
//
// Single-threaded, on the agent's event loop. A slice runs to its end before
// any reactor, so the backlog never changes under it.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <unordered_map>

#include "Anvil/CodefBase.h"
#include "Ipkit/EthAddr.h"
#include "Ipkit/IpGenAddr.h"
#include "Kiln/EventLoop.h"
#include "Kiln/Ptr.h"
#include "Vgw/LocalTypes.h"
#include "Vgw/OvsdbRequest.h"
#include "entities/OverlaySvc.h"
#include "model/Rows.h"
#include "model/Status.h"

namespace Vgw {

// True for a unicast MAC other than the all-zero one; every other MAC is
// served as a BUM MAC.
bool isUnicastMac(const Ipkit::EthAddr& mac);

class LocalHostSm;
class VniStatusSm;

// One flood list of a VNI: any change of its VTEPs dirties its MAC.
class FloodListSm : public Kiln::PtrInterface {
 public:
  // Runs handleInitialized().
  FloodListSm(Kiln::Ptr<const OverlaySvc::MacVtepFloodListV2> macVtepFloodListTable, VniStatusSm* parent);

  const Kiln::Ptr<const OverlaySvc::MacVtepFloodListV2>& macVtepFloodListTable() const {
    return macVtepFloodListTable_;
  }
  const Ipkit::EthAddr& macAddr() const { return macVtepFloodListTable_->mac(); }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  void handleVtepIp();
  // Dirties the MAC once more, so that its removal is served.
  void destroy();

 private:
  class KilnMacVtepFloodListTable : public OverlaySvc::MacVtepFloodListV2::NotifieeConst {
   public:
    explicit KilnMacVtepFloodListTable(FloodListSm* sm) : sm_(sm) {}
    void onVtepIpFloodList(const Ipkit::IpAddr&) override { sm_->handleVtepIp(); }

   private:
    FloodListSm* sm_;
  };

  const Kiln::Ptr<const OverlaySvc::MacVtepFloodListV2> macVtepFloodListTable_;
  VniStatusSm* const parent_;
  bool initialized_ = false;
  KilnMacVtepFloodListTable kilnMacVtepFloodListTable_;
};

// One VNI of the service: dirties each MAC whose state changes, and keeps
// the host addresses of ipToMacTable in both directions, so that a MAC
// finds its address and a deleted address finds its MAC.
class VniStatusSm : public Kiln::PtrInterface {
 public:
  // Runs handleInitialized().
  VniStatusSm(Kiln::Ptr<const OverlaySvc::VniStatusV2> vniStatus, LocalHostSm* parent);

  const Kiln::Ptr<const OverlaySvc::VniStatusV2>& vniStatus() const { return vniStatus_; }
  Vxlan::Vni vni() const { return vniStatus_->vni(); }
  // The address of a host; the empty address when it has none.
  Ipkit::IpGenAddr macToIp(const Ipkit::EthAddr& mac) const;
  const std::unordered_map<Ipkit::EthAddr, Ipkit::IpGenAddr>& macToIpTable() const { return macToIpTable_; }
  const std::unordered_map<Ipkit::IpGenAddr, Ipkit::EthAddr>& ipToMacTable() const { return ipToMacTable_; }
  const std::map<Ipkit::EthAddr, Kiln::Ptr<FloodListSm>>& floodListSm() const { return floodListSm_; }
  bool initialized() const { return initialized_; }

  // Reads every address first, so that the first pass over a MAC finds it.
  void handleInitialized();
  void handleMac(const Ipkit::EthAddr& mac);
  void handleMacVtepTable();
  void handleMacVtepMultiPathTable();
  void handleMacVtepFloodListTable();
  void handleMacVtepFloodListTable(const Ipkit::EthAddr& mac);
  void handleIpToMacTable(const Ipkit::IpGenAddr& ip);

 private:
  class KilnVniStatus : public OverlaySvc::VniStatusV2::NotifieeConst {
   public:
    explicit KilnVniStatus(VniStatusSm* sm) : sm_(sm) {}
    void onMacVtepTable(const Ipkit::EthAddr& mac) override { sm_->handleMac(mac); }
    void onMacVtepMultiPathTable(const Ipkit::EthAddr& mac) override { sm_->handleMac(mac); }
    void onMacVtepFloodListTable(const Ipkit::EthAddr& mac) override { sm_->handleMacVtepFloodListTable(mac); }
    void onIpToMacTable(const Ipkit::IpGenAddr& ip) override { sm_->handleIpToMacTable(ip); }

   private:
    VniStatusSm* sm_;
  };

  // An address that moves to another MAC leaves the old one, which is
  // dirtied so that its row loses it.
  void saveMacIp(const Ipkit::EthAddr& mac, const Ipkit::IpGenAddr& ip);
  // Returns the MAC that held the address; zero when none did.
  Ipkit::EthAddr deleteMacIp(const Ipkit::IpGenAddr& ip);

  const Kiln::Ptr<const OverlaySvc::VniStatusV2> vniStatus_;
  LocalHostSm* const parent_;
  std::unordered_map<Ipkit::EthAddr, Ipkit::IpGenAddr> macToIpTable_;
  std::unordered_map<Ipkit::IpGenAddr, Ipkit::EthAddr> ipToMacTable_;
  std::map<Ipkit::EthAddr, Kiln::Ptr<FloodListSm>> floodListSm_;
  bool initialized_ = false;
  KilnVniStatus kilnVniStatus_;
};

class LocalHostSm : public Anvil::CodefBase, public Kiln::PtrInterface {
 public:
  // Sweeps the rows of an earlier life, then follows every VNI of the
  // directory.
  LocalHostSm(const Kiln::Ptr<Kiln::Clock>& clock, Kiln::Ptr<const OverlaySvc::VniStatusDirV2> vniStatusDir,
              Kiln::Ptr<HwVtepOvsdb> ovsdb, Kiln::Ptr<const CliConfig> cliConfig,
              Kiln::Ptr<OvsdbRequestQueue> requestQueue);
  ~LocalHostSm() override;

  const Kiln::Ptr<const OverlaySvc::VniStatusDirV2>& vniStatusDir() const { return vniStatusDir_; }
  const Kiln::Ptr<HwVtepOvsdb>& ovsdb() const { return ovsdb_; }
  const Kiln::Ptr<const CliConfig>& cliConfig() const { return cliConfig_; }
  const Kiln::Ptr<OvsdbRequestQueue>& requestQueue() const { return requestQueue_; }
  const std::unordered_map<MacVniPair, bool>& backlog() const { return backlog_; }
  const MacVniPair& bookmark() const { return bookmark_; }
  const std::map<Vxlan::Vni, Kiln::Ptr<VniStatusSm>>& vniStatusSm() const { return vniStatusSm_; }
  VniStatusSm* vniStatusSm(const Vxlan::Vni& vni) const;
  bool initialized() const { return initialized_; }
  // What the worker has sent: transactions, and items handled in all.
  std::uint64_t transactions() const { return transactions_; }
  std::uint64_t itemsProcessed() const { return itemsProcessed_; }

  std::size_t backlogSize() const override { return backlog_.size(); }
  // One slice: batches until the backlog is empty or, between batches,
  // `deadline` has passed.
  void processBacklog(double deadline) override;

  void handleInitialized();
  void handleVniStatus();
  void handleVniStatus(const Vxlan::Vni& vni);
  // Marks the pair dirty and wakes the worker.
  void handleMacVni(const Ipkit::EthAddr& mac, const Vxlan::Vni& vni);
  // Deletes every local row and stops; the backlog is dropped.
  void destroy(bool ignoreProcessResult);

 private:
  class KilnVniStatusDir : public OverlaySvc::VniStatusDirV2::NotifieeConst {
   public:
    explicit KilnVniStatusDir(LocalHostSm* sm) : sm_(sm) {}
    void onVniStatusV2(const Vxlan::Vni& vni) override { sm_->handleVniStatus(vni); }

   private:
    LocalHostSm* sm_;
  };

  // Marks every row the VNI has dirty, for an entry that went or was
  // replaced whole.
  void handleVniRows(const Vxlan::Vni& vni);
  Kiln::Ptr<OvsdbTransactRequest> newTransaction() const;
  void processItem(const MacVniPair& pair, OvsdbTransactRequest& transact);
  // The one logical switch of the VNI; null, with the trace, when there
  // is none or more than one.
  Uuid soleLogicalSwitch(const Vxlan::Vni& vni) const;
  void updateUcastMac(const Ipkit::EthAddr& mac, const Ipkit::IpGenAddr& ip, const Ipkit::IpGenAddr& vtepIp,
                      const Vxlan::Vni& vni, OvsdbTransactRequest& transact);
  void updateBumMac(const Ipkit::EthAddr& mac, const std::set<Ipkit::IpGenAddr>& vteps, const Vxlan::Vni& vni,
                    OvsdbTransactRequest& transact);
  void updateMcastMacs(const Ipkit::EthAddr& mac, const Vxlan::Vni& vni, const Uuid& logicalSwitch,
                       const Uuid& locatorSet, OvsdbTransactRequest& transact);
  void delUcastMac(const Ipkit::EthAddr& mac, const Vxlan::Vni& vni, OvsdbTransactRequest& transact);
  void delBumMac(const Ipkit::EthAddr& mac, const Vxlan::Vni& vni, OvsdbTransactRequest& transact);
  void removeStaleMacs();
  // The locators and locator sets that rows this machine deleted named:
  // the server collects those that nothing else names. Before the next
  // batch can name one, one transaction checks them all, and the mirror
  // forgets those found gone.
  void suspectIs(const UcastMacsLocal& row);
  void suspectIs(const McastMacsLocal& row);
  void checkSuspects();

  const Kiln::Ptr<const OverlaySvc::VniStatusDirV2> vniStatusDir_;
  const Kiln::Ptr<HwVtepOvsdb> ovsdb_;
  const Kiln::Ptr<const CliConfig> cliConfig_;
  const Kiln::Ptr<OvsdbRequestQueue> requestQueue_;
  const Kiln::Ptr<LocalData> localData_;
  std::unordered_map<MacVniPair, bool> backlog_;
  MacVniPair bookmark_;
  std::map<Uuid, OvsdbDataType> suspects_;
  std::map<Vxlan::Vni, Kiln::Ptr<VniStatusSm>> vniStatusSm_;
  bool initialized_ = false;
  std::uint64_t transactions_ = 0;
  std::uint64_t itemsProcessed_ = 0;
  KilnVniStatusDir kilnVniStatusDir_;
};

Kiln::Ptr<LocalHostSm> localHostSmFactory(const Kiln::Ptr<Kiln::Clock>& clock,
                                          const Kiln::Ptr<const OverlaySvc::VniStatusDirV2>& vniStatusDir,
                                          const Kiln::Ptr<HwVtepOvsdb>& ovsdb,
                                          const Kiln::Ptr<const CliConfig>& cliConfig,
                                          const Kiln::Ptr<OvsdbRequestQueue>& requestQueue);

}  // namespace Vgw
