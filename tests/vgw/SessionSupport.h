// Helpers for the tests of the database session: a stand-in for the root
// state machine that builds and tears down what the session needs, a
// controller that writes the database as an NVC would, and a comparison of
// the agent's mirror with what the server holds.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "Kiln/Json.h"
#include "LoopRunner.h"
#include "OvsdbServer.h"
#include "Vgw/HwVtepRequestHandlerSm.h"
#include "Vgw/RemoteHostSm.h"
#include "Vgw/VgwClientSm.h"
#include "entities/OverlaySvc.h"

namespace Vgw::Test {

// What monitor messages asked of the logical router machine.
class LrSmRecorder : public LrSmInterface {
 public:
  void reconcileConfig() override { ++reconciles; }
  void dirtyUuidIs(const Uuid& uuid) override { dirty.insert(uuid); }
  int reconciles = 0;
  std::set<Uuid> dirty;
};

class TunnelSmRecorder : public TunnelSmInterface {
 public:
  void handleRefresh(bool force) override {
    ++refreshes;
    lastForce = force;
  }
  int refreshes = 0;
  bool lastForce = false;
};

// Plays the root state machine's part for the session: enable() builds the
// queue, fresh status entities, the mirror's upkeep machine, the handler and
// the client in the order the agent does; a connected session gets a
// RemoteHostSm, and a dropped one loses it and resets the working data on
// the next turn of the loop.
class SessionRoot : public RootSmInterface {
 public:
  explicit SessionRoot(const std::string& socketPath)
      : config_(Kiln::newPtr<Config>()),
        status_(Kiln::newPtr<Status>()),
        vniStatusDir_(Kiln::newPtr<OverlaySvc::VniStatusDirV2>()),
        localData_(Kiln::Entity::singletonIs<LocalData>()),
        kilnSession_(this),
        disconnectTimer_(this) {
    config_->ovsdbSocketPathIs(socketPath);
    disconnectTimer_.notifierIs(Kiln::EventLoop::current().clock());
  }
  ~SessionRoot() override {
    client_ = nullptr;
    remoteHostSm_ = nullptr;
    handler_ = nullptr;
    ovsdbSm_ = nullptr;
  }

  void enable() {
    queue_ = Kiln::newPtr<OvsdbRequestQueue>();
    status_->ovsdbSessionStatusDel();
    sessionStatus_ = status_->ovsdbSessionStatusIs("sessionStatus");
    kilnSession_.notifierIs(sessionStatus_);
    status_->ovsdbDel();
    ovsdb_ = status_->ovsdbIs("ovsdb");
    ovsdbSm_ = hwVtepOvsdbSmFactory(ovsdb_);
    handler_ = hwVtepRequestHandlerSmFactory(config_, sessionStatus_, ovsdb_, queue_, this);
    client_ = vgwClientSmFactory(sessionStatus_, queue_);
  }

  RemoteHostSm* remoteHostSm() const override { return remoteHostSm_.get(); }
  LrSmInterface* lrSm() const override { return &lr; }
  TunnelSmInterface* tunnelSm() const override { return &tunnel; }

  const Kiln::Ptr<Config>& config() const { return config_; }
  const Kiln::Ptr<Status>& status() const { return status_; }
  const Kiln::Ptr<OverlaySvc::VniStatusDirV2>& vniStatusDir() const { return vniStatusDir_; }
  const Kiln::Ptr<OvsdbRequestQueue>& queue() const { return queue_; }
  const Kiln::Ptr<OvsdbSessionStatus>& sessionStatus() const { return sessionStatus_; }
  const Kiln::Ptr<HwVtepOvsdb>& ovsdb() const { return ovsdb_; }
  const Kiln::Ptr<HwVtepRequestHandlerSm>& handler() const { return handler_; }
  const Kiln::Ptr<VgwClientSm>& client() const { return client_; }
  SessionState state() const { return sessionStatus_->sessionState(); }
  int disconnects() const { return disconnects_; }

  mutable LrSmRecorder lr;
  mutable TunnelSmRecorder tunnel;

 private:
  class KilnSession : public OvsdbSessionStatus::NotifieeConst {
   public:
    explicit KilnSession(SessionRoot* root) : root_(root) {}
    void onSessionState() override {
      switch (root_->state()) {
        case SessionState::stateConnected:
          if (!root_->remoteHostSm_) root_->remoteHostSm_ = remoteHostSmFactory(root_->status_, root_->vniStatusDir_);
          break;
        case SessionState::stateDisconnected:
          root_->disconnectTimer_.timeMinIs(Kiln::System::currentTime());
          break;
        default: break;
      }
    }

   private:
    SessionRoot* root_;
  };
  class KilnDisconnect : public Kiln::Clock::NotifieeConst {
   public:
    explicit KilnDisconnect(SessionRoot* root) : root_(root) {}
    void onTimeMin() override {
      ++root_->disconnects_;
      root_->remoteHostSm_ = nullptr;
      root_->localData_->reset();
    }

   private:
    SessionRoot* root_;
  };

  const Kiln::Ptr<Config> config_;
  const Kiln::Ptr<Status> status_;
  const Kiln::Ptr<OverlaySvc::VniStatusDirV2> vniStatusDir_;
  const Kiln::Ptr<LocalData> localData_;
  Kiln::Ptr<OvsdbRequestQueue> queue_;
  Kiln::Ptr<OvsdbSessionStatus> sessionStatus_;
  Kiln::Ptr<HwVtepOvsdb> ovsdb_;
  Kiln::Ptr<HwVtepOvsdbSm> ovsdbSm_;
  Kiln::Ptr<HwVtepRequestHandlerSm> handler_;
  Kiln::Ptr<VgwClientSm> client_;
  Kiln::Ptr<RemoteHostSm> remoteHostSm_;
  int disconnects_ = 0;
  KilnSession kilnSession_;
  KilnDisconnect disconnectTimer_;
};

// Returns the process-wide working data to a fresh process's state,
// including what reset() keeps across sessions.
inline void freshLocalData() {
  LocalData& local = *Kiln::Entity::singletonIs<LocalData>();
  local.reset();
  local.transitVniDelAll();
  local.nvpInternalLogicalSwitchIs(Uuid());
  local.delNvpInternalLogicalSwitchIs(Uuid());
  local.mgrConvergedIs(MgrConvergenceState::mgrInitial);
}

inline Uuid uuidOf(const Kiln::Json& reference) { return Uuid::parse(reference.at(1).get<std::string>()); }

// The database as the controller sees it: JSON transactions and row dumps.
class Controller {
 public:
  explicit Controller(OvsdbServer& server) : server_(server) {}

  // Runs `ops` and returns the server's uuid of each insert by its uuid-name.
  std::map<std::string, Uuid> transact(const Kiln::Json& ops) {
    Kiln::Json params = Kiln::Json::array({"hardware_vtep"});
    for (const Kiln::Json& op : ops) params.push_back(op);
    const std::string reply = server_.transact(params.dump());
    const Kiln::Json results = Kiln::Json::parse(reply);
    std::map<std::string, Uuid> named;
    for (std::size_t i = 0; i < results.size(); ++i) {
      EXPECT_FALSE(results[i].contains("error")) << reply;
      if (i < ops.size() && ops[i].contains("uuid-name") && results[i].contains("uuid")) {
        named.emplace(ops[i]["uuid-name"].get<std::string>(), uuidOf(results[i]["uuid"]));
      }
    }
    return named;
  }

  std::vector<Kiln::Json> rows(const char* table) {
    const Kiln::Json all = Kiln::Json::parse(server_.dump(table));
    return std::vector<Kiln::Json>(all.begin(), all.end());
  }

  std::set<Uuid> uuids(const char* table) {
    std::set<Uuid> out;
    for (const Kiln::Json& row : rows(table)) out.insert(uuidOf(row["_uuid"]));
    return out;
  }

  // A reference to the locator of `ip`: the server's row, or a new one that
  // an insert added to `ops` creates (a locator nothing names is collected).
  Kiln::Json locator(const std::string& ip, Kiln::Json& ops) {
    if (const Uuid known = locatorUuid(ip)) return reference(known);
    for (const Kiln::Json& op : ops) {
      if (op["table"] == "Physical_Locator" && op["op"] == "insert" && op["row"]["dst_ip"] == ip) {
        return Kiln::Json::array({"named-uuid", op["uuid-name"]});
      }
    }
    const std::string name = "loc" + std::to_string(++named_);
    ops.push_back({{"op", "insert"},
                   {"table", "Physical_Locator"},
                   {"uuid-name", name},
                   {"row", {{"encapsulation_type", "vxlan_over_ipv4"}, {"dst_ip", ip}}}});
    return Kiln::Json::array({"named-uuid", name});
  }

  // The server's locator of `ip`; null when it has none.
  Uuid locatorUuid(const std::string& ip) {
    for (const Kiln::Json& row : rows("Physical_Locator")) {
      if (row["dst_ip"] == ip) return uuidOf(row["_uuid"]);
    }
    return Uuid();
  }

  Uuid addLogicalSwitch(const std::string& name, int vni) {
    Kiln::Json row = {{"name", name}};
    if (vni >= 0) row["tunnel_key"] = vni;
    return transact(Kiln::Json::array(
                        {{{"op", "insert"}, {"table", "Logical_Switch"}, {"uuid-name", "ls"}, {"row", row}}}))
        .at("ls");
  }

  // A Ucast_Macs_Remote insert behind VTEP `ip`, added to `ops`.
  void ucastRemote(Kiln::Json& ops, const Uuid& ls, const std::string& mac, const std::string& ip,
                   const std::string& ipaddr = "") {
    Kiln::Json row = Kiln::Json::object();
    row["MAC"] = mac;
    row["logical_switch"] = reference(ls);
    row["locator"] = locator(ip, ops);
    if (!ipaddr.empty()) row["ipaddr"] = ipaddr;
    ops.push_back({{"op", "insert"}, {"table", "Ucast_Macs_Remote"}, {"row", row}});
  }

  static Kiln::Json reference(const Uuid& uuid) { return Kiln::Json::array({"uuid", uuid.stringValue().stringValue()}); }

  // ["map", [[key, value], ...]]
  static Kiln::Json map(const std::map<std::string, std::string>& pairs) {
    Kiln::Json members = Kiln::Json::array();
    for (const auto& [key, value] : pairs) members.push_back(Kiln::Json::array({key, value}));
    return Kiln::Json::array({"map", members});
  }

  static Kiln::Json deleteWhere(const char* table, const char* column, const Kiln::Json& value) {
    return {{"op", "delete"}, {"table", table}, {"where", Kiln::Json::array({Kiln::Json::array({column, "==", value})})}};
  }

  // Rewrites Global's other_config; the agent's mirror shows the value once
  // it has read every update the server sent before.
  void mark(int value) {
    transact(Kiln::Json::array({{{"op", "update"},
                                 {"table", "Global"},
                                 {"where", Kiln::Json::array()},
                                 {"row", {{"other_config", map({{"sync", std::to_string(value)}})}}}}}));
  }

 private:
  OvsdbServer& server_;
  int named_ = 0;
};

template <class Map>
std::set<typename Map::key_type> keysOf(const Map& map) {
  std::set<typename Map::key_type> out;
  for (const auto& [key, value] : map) out.insert(key);
  return out;
}

// Expects the mirror and the remote host tables to hold exactly what the
// server holds, table by table.
inline void expectMirrorMatchesServer(Controller& db, const HwVtepOvsdb& ovsdb) {
  EXPECT_EQ(keysOf(ovsdb.root()), db.uuids("Global"));
  EXPECT_EQ(keysOf(ovsdb.logicalSwitch()), db.uuids("Logical_Switch"));
  EXPECT_EQ(keysOf(ovsdb.logicalRouterRaw()), db.uuids("Logical_Router"));
  EXPECT_EQ(keysOf(ovsdb.physicalLocatorSet()), db.uuids("Physical_Locator_Set"));
  EXPECT_EQ(keysOf(ovsdb.physicalSwitchRaw()), db.uuids("Physical_Switch"));
  EXPECT_EQ(keysOf(ovsdb.physicalPort()), db.uuids("Physical_Port"));
  EXPECT_EQ(keysOf(ovsdb.arpSourcesRemoteRaw()), db.uuids("Arp_Sources_Remote"));
  EXPECT_EQ(keysOf(ovsdb.physicalLocatorRaw()), db.uuids("Physical_Locator"));
  for (const Kiln::Json& row : db.rows("Physical_Locator")) {
    const Kiln::Ptr<PhysicalLocator> indexed = ovsdb.physicalLocator(Ipkit::IpGenAddr::parse(row["dst_ip"].get<std::string>()));
    EXPECT_TRUE(indexed && indexed->uuid() == uuidOf(row["_uuid"])) << "locator index of " << row["dst_ip"];
  }
  EXPECT_EQ(ovsdb.physicalLocator().size(), ovsdb.physicalLocatorRaw().size());

  const LocalData& local = *Kiln::Entity::singletonIs<LocalData>();
  EXPECT_EQ(keysOf(local.remoteHostTable()), keysOf(ovsdb.logicalSwitch()));
  std::map<Uuid, std::map<Ipkit::EthAddr, Uuid>> wanted;
  for (const Kiln::Json& row : db.rows("Ucast_Macs_Remote")) {
    wanted[uuidOf(row["logical_switch"])][Ipkit::EthAddr::parse(row["MAC"].get<std::string>())] = uuidOf(row["locator"]);
  }
  for (const auto& [ls, table] : local.remoteHostTable()) {
    std::map<Ipkit::EthAddr, Uuid> held;
    for (const auto& [mac, answer] : table->macVtep()) held[mac] = answer.physicalLocator();
    EXPECT_EQ(held, wanted[ls]) << "remote MACs of logical switch " << ls;
  }
}

}  // namespace Vgw::Test
