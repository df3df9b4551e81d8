// The database session: the request handler, the application of monitor
// messages to the mirror, and the upkeep of the mirror between messages.
//
// HwVtepRequestHandlerSm is the only part of the agent that touches a
// socket. It serves the request queue and holds two JSON-RPC connections to
// the local database server: the monitor connection, non-blocking and read
// by a file descriptor reactor until the socket has nothing more, carries the
// subscription and its updates; the updater connection carries transactions,
// each sent with a blocking call so that its reply is in the mirror before
// the enqueue returns. It owns every session state transition:
//
//   stateInit/stateDisconnected --monitor request taken--> stateConnecting
//   stateConnecting --first contents applied--> stateConnected
//   any --connection or data failure--> stateDisconnected
//
// Every failure of the connection, and every message that leaves the remote
// MAC rows contradicting each other, takes one road: the text goes into the
// session status and the state becomes stateDisconnected. The handler then
// closes both connections, and the session client subscribes again later;
// nothing is retried here. Only a schema the agent cannot read and breaches
// of the mirror's own invariants assert.
//
// handleMonitorNotification() applies one monitor message as a unit: the
// tables in the fixed order of nextOvsdbDataType() (every row after the rows
// it refers to), then, once per message, the stale rows of a first snapshot,
// the pending remote MAC rows, and the machines that depend on the mirror,
// which it reaches through the root state machine (RootSmInterface). The
// tables the agent writes itself (Physical_Switch and the local MAC and ARP
// tables) are subscribed for the first contents only; any other notification
// for them asserts.
//
// HwVtepOvsdbSm keeps the mirror tidy while a session runs: the database
// collects a physical switch that Global stops naming, and a port that its
// switch stops naming, without a notification the agent would see, so these
// machines remove such rows from the mirror.
//
// Single-threaded: every entry point runs on the agent's event loop. The
// blocking calls (connect, the schema fetch, a transaction) stall the loop
// for their length by design, each for at most config.ovsdbDeadline: a
// server that stops answering, or a peer that takes the connection and never
// answers, makes the call fail there and the session start over. The
// subscription's reply is awaited on the loop, and given up on the loop's
// clock after the same deadline.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <vector>

#include "Kiln/EventLoop.h"
#include "Kiln/Ptr.h"
#include "Ovs/OvsHandles.h"
#include "Vgw/LocalTypes.h"
#include "Vgw/OvsdbRequest.h"
#include "model/Rows.h"
#include "model/Status.h"

namespace Vgw {

class RemoteHostSm;

// What a monitor message needs of the logical router machine.
class LrSmInterface {
 public:
  virtual ~LrSmInterface() = default;
  // Re-reads the logical routers marked dirty.
  virtual void reconcileConfig() = 0;
  // Marks a Logical_Router row as changed by the message at hand.
  virtual void dirtyUuidIs(const Uuid& uuid) = 0;
};

// What a monitor message needs of the tunnel machine.
class TunnelSmInterface {
 public:
  virtual ~TunnelSmInterface() = default;
  virtual void handleRefresh(bool force) = 0;
};

// The root state machine as the session sees it: the machines that a monitor
// message wakes, each null while it does not exist. The root owns them; the
// pointers are borrowed for the length of one call.
class RootSmInterface {
 public:
  virtual ~RootSmInterface() = default;
  virtual RemoteHostSm* remoteHostSm() const = 0;
  virtual LrSmInterface* lrSm() const = 0;
  virtual TunnelSmInterface* tunnelSm() const = 0;
};

// When the parts of the last monitor message were done, on the scale of
// Kiln::System::currentTime(): where the time of a large message goes.
struct MonitorMessageTimes {
  double received = 0.0;      // the whole message read off the socket and parsed
  double rowsApplied = 0.0;   // every row in the mirror, remote rows pending
  double tablesFolded = 0.0;  // the pending remote rows in their remote host tables
  double published = 0.0;     // the remote host publication done
};

struct JsonRpcCloser {
  void operator()(jsonrpc* rpc) const;
};
// An open JSON-RPC connection; closing it closes its socket.
using JsonRpcPtr = std::unique_ptr<jsonrpc, JsonRpcCloser>;

class HwVtepRequestHandlerSm : public Kiln::PtrInterface {
 public:
  // `rootSm` may be null (no machine is woken) and must outlive the handler.
  HwVtepRequestHandlerSm(Kiln::Ptr<const Config> config, Kiln::Ptr<OvsdbSessionStatus> sessionStatus,
                         Kiln::Ptr<HwVtepOvsdb> ovsdb, Kiln::Ptr<OvsdbRequestQueue> requestQueue,
                         RootSmInterface* rootSm);
  ~HwVtepRequestHandlerSm() override;

  const Kiln::Ptr<const Config>& config() const { return config_; }
  const Kiln::Ptr<OvsdbSessionStatus>& sessionStatus() const { return sessionStatus_; }
  const Kiln::Ptr<HwVtepOvsdb>& ovsdb() const { return ovsdb_; }
  const Kiln::Ptr<OvsdbRequestQueue>& requestQueue() const { return requestQueue_; }
  RootSmInterface* rootSm() const { return rootSm_; }

  // The connections, null while closed. The ...Is() forms open a closed one
  // to config.ovsdbSocketPath and return null when that fails.
  jsonrpc* rpcMonitor() const { return rpcMonitor_.get(); }
  jsonrpc* rpcMonitorIs();
  jsonrpc* rpcUpdater() const { return rpcUpdater_.get(); }
  jsonrpc* rpcUpdaterIs();

  // While true nothing is taken off the queue: a teardown after a lost
  // leadership leaves the database to the next leader.
  bool discardRequest() const { return discardRequest_; }
  void discardRequestIs(bool discard) { discardRequest_ = discard; }

  // The readiness of the monitor connection.
  const Kiln::Ptr<Kiln::FileDescriptor>& fileDescriptor() const { return fileDescriptor_; }
  void fileDescriptorIs(Kiln::Ptr<Kiln::FileDescriptor> fd);
  // The subscription in force; it stays after clearRpc() so that it can be
  // sent again.
  const Kiln::Ptr<OvsdbRequest>& currentOvsdbRequest() const { return currentOvsdbRequest_; }
  void currentOvsdbRequestIs(Kiln::Ptr<OvsdbRequest> request) { currentOvsdbRequest_ = std::move(request); }

  // The time by which the subscription's reply must have come; plus
  // infinity while none is awaited.
  double monitorReplyDeadline() const { return monitorClock_.timeMin(); }
  void monitorReplyDeadlineIs(double time) { monitorClock_.timeMinIs(time); }
  // How long a call on the database socket may take, in milliseconds.
  long long deadlineMs() const;

  void handleRequestQueue();
  void processRequest(const Kiln::Ptr<OvsdbRequest>& request);
  // The subscription's reply has not come in time: the session starts over.
  void handleMonitorReplyDeadline();
  // Reads the monitor connection until it has nothing more.
  void handleFileDescriptor();
  void handleSessionState();

  // Applies one monitor reply or update; false when it left the remote MAC
  // rows contradicting each other.
  bool handleMonitorNotification(const json* result, OvsdbMonitorRequest* monitorRequest);
  // Applies one row of a monitor message to the mirror and the working data.
  void ovsdbToLedger(NotifyType notifyType, const Uuid& uuid, const json* newRow, const json* oldRow,
                     const ovsdb_table_schema& tableSchema, OvsdbDataType type, OvsdbMonitorRequest* monitorRequest);
  const MonitorMessageTimes& lastMessageTimes() const { return lastMessageTimes_; }
  // Rebuilds LocalData.vniToLogicalSwitch from the mirror's logical switches.
  void refreshVniToLogicalSwitch();

  // Closes both connections and forgets the subscription's id and schema.
  void clearRpc();
  // Teardown: closes the connections and leaves the session status alone.
  void destroy();

 private:
  class KilnSessionStatus : public OvsdbSessionStatus::NotifieeConst {
   public:
    explicit KilnSessionStatus(HwVtepRequestHandlerSm* sm) : sm_(sm) {}
    void onSessionState() override { sm_->handleSessionState(); }

   private:
    HwVtepRequestHandlerSm* sm_;
  };
  class KilnRequestQueue : public OvsdbRequestQueue::NotifieeConst {
   public:
    explicit KilnRequestQueue(HwVtepRequestHandlerSm* sm) : sm_(sm) {}
    void onRequest(std::uint32_t) override { sm_->handleRequestQueue(); }

   private:
    HwVtepRequestHandlerSm* sm_;
  };
  class KilnMonitorClock : public Kiln::Clock::NotifieeConst {
   public:
    explicit KilnMonitorClock(HwVtepRequestHandlerSm* sm) : sm_(sm) {}
    void onTimeMin() override { sm_->handleMonitorReplyDeadline(); }

   private:
    HwVtepRequestHandlerSm* sm_;
  };
  class KilnFileDescriptor : public Kiln::FileDescriptor::NotifieeConst {
   public:
    explicit KilnFileDescriptor(HwVtepRequestHandlerSm* sm) : sm_(sm) {}
    void onReadable() override { sm_->handleFileDescriptor(); }

   private:
    HwVtepRequestHandlerSm* sm_;
  };

  // One message's rows, table by table.
  void processLogicalSwitch(NotifyType type, const Uuid& uuid, const json* newRow, const json* oldRow,
                            const ovsdb_table_schema& schema);
  void processPhysicalLocator(NotifyType type, const Uuid& uuid, const json* newRow, const ovsdb_table_schema& schema);
  void processTunnel(NotifyType type, const Uuid& uuid, const json* newRow, const ovsdb_table_schema& schema);
  void processPhysicalPort(NotifyType type, const Uuid& uuid, const json* newRow, const json* oldRow,
                           const ovsdb_table_schema& schema);
  void processPhysicalSwitch(NotifyType type, const Uuid& uuid, const json* newRow, const ovsdb_table_schema& schema);
  void processArpSourcesLocal(NotifyType type, const Uuid& uuid, const json* newRow, const ovsdb_table_schema& schema);
  void processArpSourcesRemote(NotifyType type, const Uuid& uuid, const json* newRow, const json* oldRow,
                               const ovsdb_table_schema& schema);
  void processUcastMacsRemote(NotifyType type, const Uuid& uuid, const json* newRow, const json* oldRow,
                              const ovsdb_table_schema& schema);
  void processMcastMacsRemote(NotifyType type, const Uuid& uuid, const json* newRow, const json* oldRow,
                              const ovsdb_table_schema& schema);
  void processUcastMacsLocal(NotifyType type, const Uuid& uuid, const json* newRow, const ovsdb_table_schema& schema);
  void processMcastMacsLocal(NotifyType type, const Uuid& uuid, const json* newRow, const ovsdb_table_schema& schema);
  void processManager(NotifyType type, const Uuid& uuid, const json* newRow, const json* oldRow,
                      const ovsdb_table_schema& schema);
  void processGlobal(NotifyType type, const Uuid& uuid, const json* newRow, const ovsdb_table_schema& schema);

  // Adds the uplink VLANs of a port (bindings to switches without a VNI);
  // true when any was added.
  bool processUplinkPortVlan(const PhysicalPort& port);
  // Tells the logical switch's machine about answers that a release removed.
  void publishReleased(const RemoteHostTable& table, const Ipkit::EthAddr& mac, const Ipkit::IpGenAddr& ip) const;
  void flagDirty(bool switchBinding, bool transitVni) const;

  const Kiln::Ptr<const Config> config_;
  const Kiln::Ptr<OvsdbSessionStatus> sessionStatus_;
  const Kiln::Ptr<HwVtepOvsdb> ovsdb_;
  const Kiln::Ptr<OvsdbRequestQueue> requestQueue_;
  RootSmInterface* const rootSm_;
  const Kiln::Ptr<LocalData> localData_;
  JsonRpcPtr rpcMonitor_;
  JsonRpcPtr rpcUpdater_;
  bool discardRequest_ = false;
  Kiln::Ptr<Kiln::FileDescriptor> fileDescriptor_;
  Kiln::Ptr<OvsdbRequest> currentOvsdbRequest_;
  // Scratch of the message at hand, empty between messages: the local MACs
  // of a snapshot, and the remote unicast rows the message brought.
  std::set<MacVniPair> newMacsLocal_;
  std::vector<Kiln::Ptr<const UcastMacsRemote>> newUcastMacsRemote_;
  MonitorMessageTimes lastMessageTimes_;
  KilnSessionStatus kilnSessionStatus_;
  KilnRequestQueue kilnRequestQueue_;
  KilnFileDescriptor kilnFileDescriptor_;
  KilnMonitorClock monitorClock_;
};

Kiln::Ptr<HwVtepRequestHandlerSm> hwVtepRequestHandlerSmFactory(Kiln::Ptr<const Config> config,
                                                                 Kiln::Ptr<OvsdbSessionStatus> sessionStatus,
                                                                 Kiln::Ptr<HwVtepOvsdb> ovsdb,
                                                                 Kiln::Ptr<OvsdbRequestQueue> requestQueue,
                                                                 RootSmInterface* rootSm);

// Opens a connection to the database server at `path`: a socket path, or a
// connection target with its scheme ("unix:/run/db.sock", "punix:/...").
// A passive target listens and waits for one peer. Each wait lasts at most
// `timeoutMs`. Null, with a trace, when it fails.
JsonRpcPtr openJsonRpc(const Kiln::String& path, long long timeoutMs);
// The schema of `dbName`, fetched with a request that waits at most
// `timeoutMs`. Null when the connection fails or the time runs out, with the
// error in `*error` when given; a reply that is no schema asserts "ovsdb
// error" after one log line naming the server and its answer.
Ovs::SchemaPtr fetchSchema(jsonrpc* rpc, const Kiln::String& dbName, long long timeoutMs, int* error = nullptr);
// The monitor request object of one table: its columns in sorted order,
// narrowed to the request's column map when that is not empty, and the
// "select" flags.
Ovs::JsonPtr addTableToMonitorRequest(const ovsdb_table_schema& tableSchema, const MonitorRequest& monitorRequest);

// The handlers of the request types.
void handleMonitorRequest(const Kiln::Ptr<OvsdbRequest>& request, HwVtepRequestHandlerSm& handler);
void handleTransactRequest(const Kiln::Ptr<OvsdbRequest>& request, HwVtepRequestHandlerSm& handler);
// Sends a cancel on the connection the request names; not used by the queue.
void handleCancelRequest(const Kiln::Ptr<OvsdbRequest>& request, HwVtepRequestHandlerSm& handler);

// Removes what a first snapshot after a connect no longer holds: every row of
// the mirror whose uuid is not in `freshUuids`, and the local MAC rows whose
// (MAC, VNI) is not in `newMacsLocal`. Remote MAC rows need nothing, since
// their tables are rebuilt with each session.
void removeStaleOvsdb(const Kiln::Ptr<HwVtepOvsdb>& ovsdb, const std::set<Uuid>& freshUuids,
                      const std::set<MacVniPair>& newMacsLocal);

// Follows the Global and Physical_Switch rows of the mirror and removes the
// switches and ports that the database has collected.
class HwVtepOvsdbSm : public Kiln::PtrInterface {
 public:
  class GlobalSm : public Kiln::PtrInterface {
   public:
    GlobalSm(Kiln::Ptr<Global> global, HwVtepOvsdbSm* owner);
    const Kiln::Ptr<Global>& global() const { return global_; }
    bool initialized() const { return initialized_; }
    void handleInitialized();
    // A switch left Global.switches: it goes from the mirror.
    void handlePSwitch(const Uuid& uuid);
    // Releases every switch and manager the row names.
    void doCleanup();

   private:
    class KilnGlobal : public Global::NotifieeConst {
     public:
      explicit KilnGlobal(GlobalSm* sm) : sm_(sm) {}
      void onPSwitch(const Uuid& uuid) override { sm_->handlePSwitch(uuid); }

     private:
      GlobalSm* sm_;
    };
    const Kiln::Ptr<Global> global_;
    HwVtepOvsdbSm* const hwVtepOvsdbSm_;
    bool initialized_ = false;
    KilnGlobal kilnGlobal_;
  };

  class PhysicalSwitchSm : public Kiln::PtrInterface {
   public:
    PhysicalSwitchSm(Kiln::Ptr<PhysicalSwitch> pSwitch, HwVtepOvsdbSm* owner);
    const Kiln::Ptr<PhysicalSwitch>& pSwitch() const { return pSwitch_; }
    bool initialized() const { return initialized_; }
    void handleInitialized();
    // A port left the switch's ports: it goes from the mirror.
    void handlePort(const Uuid& uuid);
    // Removes the switch's ports and tunnels from the mirror.
    void doCleanup();

   private:
    class KilnPSwitch : public PhysicalSwitch::NotifieeConst {
     public:
      explicit KilnPSwitch(PhysicalSwitchSm* sm) : sm_(sm) {}
      void onPort(const Uuid& uuid) override { sm_->handlePort(uuid); }

     private:
      PhysicalSwitchSm* sm_;
    };
    const Kiln::Ptr<PhysicalSwitch> pSwitch_;
    HwVtepOvsdbSm* const hwVtepOvsdbSm_;
    bool initialized_ = false;
    KilnPSwitch kilnPSwitch_;
  };

  explicit HwVtepOvsdbSm(Kiln::Ptr<HwVtepOvsdb> ovsdb);
  // Runs the cleanup of every child.
  ~HwVtepOvsdbSm() override;

  const Kiln::Ptr<HwVtepOvsdb>& ovsdb() const { return ovsdb_; }
  const std::map<Uuid, Kiln::Ptr<GlobalSm>>& global() const { return global_; }
  const std::map<Uuid, Kiln::Ptr<PhysicalSwitchSm>>& pSwitch() const { return pSwitch_; }
  // A machine for the row, replacing one that follows an older row of the
  // same uuid.
  void globalIs(const Kiln::Ptr<Global>& row);
  void globalDel(const Uuid& uuid);
  void pSwitchIs(const Kiln::Ptr<PhysicalSwitch>& row);
  void pSwitchDel(const Uuid& uuid);

 private:
  class KilnOvsdb : public HwVtepOvsdb::NotifieeConst {
   public:
    explicit KilnOvsdb(HwVtepOvsdbSm* sm) : sm_(sm) {}
    void onRoot(const Uuid& uuid) override;
    void onPhysicalSwitchRaw(const Uuid& uuid) override;

   private:
    HwVtepOvsdbSm* sm_;
  };

  const Kiln::Ptr<HwVtepOvsdb> ovsdb_;
  std::map<Uuid, Kiln::Ptr<GlobalSm>> global_;
  std::map<Uuid, Kiln::Ptr<PhysicalSwitchSm>> pSwitch_;
  KilnOvsdb kilnOvsdb_;
};

Kiln::Ptr<HwVtepOvsdbSm> hwVtepOvsdbSmFactory(Kiln::Ptr<HwVtepOvsdb> ovsdb);

}  // namespace Vgw
