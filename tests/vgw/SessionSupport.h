// Helpers for the tests of the database session and the agent: a stand-in
// for the root state machine that builds and tears down what the session
// needs, the agent's inventory transaction, a controller that writes the
// database as an NVC would, and a comparison of the mirror with the server.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Kiln/Json.h"
#include "LoopRunner.h"
#include "OvsdbServer.h"
#include "TestSupport.h"
#include "Vgw/HwVtepRequestHandlerSm.h"
#include "Vgw/RemoteHostSm.h"
#include "Vgw/VgwAgent.h"
#include "Vgw/VgwClientSm.h"
#include "Vgw/VgwUtils.h"
#include "entities/OverlaySvc.h"

namespace Vgw::Test {

// Records what monitor messages asked of the logical router and tunnel machines.
struct Dependents : LrSmInterface, TunnelSmInterface {
  void reconcileConfig() override {}
  void dirtyUuidIs(const Uuid& uuid) override { dirtyRouters.insert(uuid); }
  void handleRefresh(bool force) override { forcedRefreshes += force ? 1 : 0; }
  std::set<Uuid> dirtyRouters;
  int forcedRefreshes = 0;
};

// Plays the root state machine's part for the session: enable() builds what
// the agent does, in its order; a connected session gets a RemoteHostSm, and
// a dropped one loses it and resets the working data on the next turn.
class SessionRoot : public RootSmInterface {
 public:
  explicit SessionRoot(const std::string& socketPath) {
    config->ovsdbSocketPathIs(socketPath);
    teardown_.notifierIs(Kiln::EventLoop::current().clock());
  }
  void enable() {
    queue = Kiln::newPtr<OvsdbRequestQueue>();
    status->ovsdbSessionStatusDel();
    sessionStatus = status->ovsdbSessionStatusIs("sessionStatus");
    watch_.notifierIs(sessionStatus);
    status->ovsdbDel();
    ovsdb = status->ovsdbIs("ovsdb");
    ovsdbSm = hwVtepOvsdbSmFactory(ovsdb);
    handler = hwVtepRequestHandlerSmFactory(config, sessionStatus, ovsdb, queue, this);
    client = vgwClientSmFactory(sessionStatus, queue);
  }
  SessionState state() const { return sessionStatus->sessionState(); }

  RemoteHostSm* remoteHostSm() const override { return remoteHost.get(); }
  LrSmInterface* lrSm() const override { return &dependents; }
  TunnelSmInterface* tunnelSm() const override { return &dependents; }

  const Kiln::Ptr<Config> config = Kiln::newPtr<Config>();
  const Kiln::Ptr<Status> status = Kiln::newPtr<Status>();
  const Kiln::Ptr<OverlaySvc::VniStatusDirV2> vniStatusDir = Kiln::newPtr<OverlaySvc::VniStatusDirV2>();
  Kiln::Ptr<OvsdbRequestQueue> queue;
  Kiln::Ptr<OvsdbSessionStatus> sessionStatus;
  Kiln::Ptr<HwVtepOvsdb> ovsdb;
  // Declared so that the client goes first and the mirror's upkeep last.
  Kiln::Ptr<HwVtepOvsdbSm> ovsdbSm;
  Kiln::Ptr<HwVtepRequestHandlerSm> handler;
  Kiln::Ptr<RemoteHostSm> remoteHost;
  Kiln::Ptr<VgwClientSm> client;
  int disconnects = 0;
  mutable Dependents dependents;

 private:
  class Watch : public OvsdbSessionStatus::NotifieeConst {
   public:
    explicit Watch(SessionRoot& root) : root_(root) {}
    void onSessionState() override {
      if (root_.state() == SessionState::stateConnected && !root_.remoteHost) {
        root_.remoteHost = remoteHostSmFactory(root_.status, root_.vniStatusDir);
      }
      if (root_.state() == SessionState::stateDisconnected) root_.teardown_.timeMinIs(Kiln::System::currentTime());
    }

   private:
    SessionRoot& root_;
  };
  class Teardown : public Kiln::Clock::NotifieeConst {
   public:
    explicit Teardown(SessionRoot& root) : root_(root) {}
    void onTimeMin() override {
      ++root_.disconnects;
      root_.remoteHost = nullptr;
      Kiln::Entity::singletonIs<LocalData>()->reset();
    }

   private:
    SessionRoot& root_;
  };
  Watch watch_{*this};
  Teardown teardown_{*this};
};

// The agent's inventory as one transaction on `ovsdb`: switch "leaf1" with
// two ports bound to `ls`, behind VTEP 10.0.0.1; two local MACs on `ls`
// sharing that VTEP's new locator; the unknown-dst row on a new locator set
// of 10.0.0.1 and 10.0.0.2; and Global's switches mutated to take it in.
inline Kiln::Ptr<OvsdbTransactRequest> agentInventory(const Kiln::Ptr<HwVtepOvsdb>& ovsdb, const Uuid& ls) {
  auto tx = Kiln::newPtr<OvsdbTransactRequest>();
  tx->ovsdbIs(ovsdb);
  auto pSwitch = Kiln::newPtr<PhysicalSwitch>(genNamedUuid());
  pSwitch->displayNameIs("leaf1");
  for (unsigned i = 1; i <= 2; ++i) {
    auto port = Kiln::newPtr<PhysicalPort>(genNamedUuid());
    port->displayNameIs("Ethernet" + std::to_string(i));
    port->vlanBindingIs(Bridging::VlanIdOrNone(10 * i), ls);
    tx->opEnq(buildInsert(port));
    pSwitch->portIs(port->uuid());
  }
  pSwitch->tunnelIpIs(ip("10.0.0.1"));
  pSwitch->systemIdIs(Fleet::SystemId::parse("00:1c:73:00:00:01"));
  tx->opEnq(buildInsert(pSwitch));
  for (const char* address : {"00:aa:00:00:00:01", "00:aa:00:00:00:02"}) {
    auto row = Kiln::newPtr<UcastMacsLocal>(genNamedUuid(), mac(address));
    row->logicalSwitchIs(ls);
    row->locatorIs(getPhysicalLocator(*ovsdb, ip("10.0.0.1"), *tx)->uuid());
    row->ipAddrIs(ip("10.1.1.5"));
    tx->opEnq(buildInsert(row));
  }
  auto flood = Kiln::newPtr<McastMacsLocal>(genNamedUuid(), Ipkit::EthAddr());
  flood->logicalSwitchIs(ls);
  flood->physicalLocatorSetIs(getPhysicalLocatorSet(*ovsdb, {ip("10.0.0.1"), ip("10.0.0.2")}, *tx)->uuid());
  tx->opEnq(buildInsert(flood));
  const std::string member = toText(uuidToJson(pSwitch->uuid()).get());
  tx->opEnq(buildMutate(ovsdb->root().begin()->first, MutaterOp::mutaterOpInsert, "pSwitch", {pSwitch->uuid()},
                        OvsdbDataType::global, parseJson(R"([["switches", "insert", ["set", [)" + member + "]]]]")));
  return tx;
}

// Gives the agent's state store the entity type of every path it mounts.
inline void typeAgentPaths(Ledger::EntityManager& store) {
  for (const auto* mounts : {&localMounts(), &serviceMounts()}) {
    for (const Ledger::Mount& m : *mounts) {
      store.pathTypeIs(m.path.stringValue(), *Kiln::TypeInfo::find(m.typeName.stringValue()));
    }
  }
}

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

// Operations and values of a controller's transaction.
inline Kiln::Json insertOp(const char* table, const std::string& uuidName, const Kiln::Json& row) {
  return {{"op", "insert"}, {"table", table}, {"uuid-name", uuidName}, {"row", row}};
}
inline Kiln::Json deleteOp(const char* table, const char* column, const Kiln::Json& value) {
  return {{"op", "delete"}, {"table", table}, {"where", Kiln::Json::array({Kiln::Json::array({column, "==", value})})}};
}
// Adds the row inserted as `uuidName` to Global's `column`.
inline Kiln::Json addToGlobalOp(const char* column, const std::string& uuidName) {
  const Kiln::Json member = Kiln::Json::array({"named-uuid", uuidName});
  return {{"op", "mutate"},
          {"table", "Global"},
          {"where", Kiln::Json::array()},
          {"mutations", Kiln::Json::array({Kiln::Json::array({column, "insert", member})})}};
}
inline Kiln::Json uuidRef(const Uuid& uuid) { return Kiln::Json::array({"uuid", uuid.stringValue().stringValue()}); }
// ["map", [[key, value]]]
inline Kiln::Json mapOf(const Kiln::Json& key, const Kiln::Json& value) {
  return Kiln::Json::array({"map", Kiln::Json::array({Kiln::Json::array({key, value})})});
}

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
    if (const Uuid known = locatorUuid(ip)) return uuidRef(known);
    for (const Kiln::Json& op : ops) {
      if (op["table"] == "Physical_Locator" && op["op"] == "insert" && op["row"]["dst_ip"] == ip) {
        return Kiln::Json::array({"named-uuid", op["uuid-name"]});
      }
    }
    const std::string name = "loc" + std::to_string(++named_);
    ops.push_back(insertOp("Physical_Locator", name, {{"encapsulation_type", "vxlan_over_ipv4"}, {"dst_ip", ip}}));
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
    return transact(Kiln::Json::array({insertOp("Logical_Switch", "ls", row)})).at("ls");
  }

  // A Ucast_Macs_Remote insert behind VTEP `ip`, added to `ops`.
  void ucastRemote(Kiln::Json& ops, const Uuid& ls, const std::string& mac, const std::string& ip,
                   const std::string& ipaddr = "") {
    Kiln::Json row = {{"MAC", mac}, {"logical_switch", uuidRef(ls)}, {"locator", locator(ip, ops)}};
    if (!ipaddr.empty()) row["ipaddr"] = ipaddr;
    ops.push_back({{"op", "insert"}, {"table", "Ucast_Macs_Remote"}, {"row", row}});
  }

  // Rewrites Global's other_config and runs `loop` until the mirror shows it:
  // the agent has then applied every update the server sent before.
  bool synced(LoopRunner& loop, const std::function<Kiln::Ptr<HwVtepOvsdb>()>& ovsdb) {
    const std::string value = std::to_string(++marks_);
    transact(Kiln::Json::array({{{"op", "update"},
                                 {"table", "Global"},
                                 {"where", Kiln::Json::array()},
                                 {"row", {{"other_config", mapOf("sync", value)}}}}}));
    return loop.runUntil([&] {
      const Kiln::Ptr<HwVtepOvsdb> mirror = ovsdb();
      return mirror && !mirror->root().empty() && mirror->root().begin()->second->otherConfig("sync") == value;
    });
  }

 private:
  OvsdbServer& server_;
  int named_ = 0;
  int marks_ = 0;
};

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
  // Locators of one address (told apart by tunnel key) share an index entry
  // that names one of them; text that is no address reads as none.
  std::map<Ipkit::IpGenAddr, std::set<Uuid>> byAddress;
  for (const Kiln::Json& row : db.rows("Physical_Locator")) {
    byAddress[toIpGenAddr(row["dst_ip"].get<std::string>())].insert(uuidOf(row["_uuid"]));
  }
  EXPECT_EQ(keysOf(ovsdb.physicalLocator()), keysOf(byAddress));
  for (const auto& [address, rows] : byAddress) {
    const Kiln::Ptr<PhysicalLocator> indexed = ovsdb.physicalLocator(address);
    EXPECT_TRUE(indexed && rows.contains(indexed->uuid())) << "locator index of " << address;
  }

  const LocalData& local = *Kiln::Entity::singletonIs<LocalData>();
  EXPECT_EQ(keysOf(local.remoteHostTable()), keysOf(ovsdb.logicalSwitch()));
  std::map<Uuid, std::map<Ipkit::EthAddr, Uuid>> wanted;
  std::set<Uuid> loopback;
  for (const Kiln::Json& row : db.rows("Physical_Locator")) {
    if (toIpGenAddr(row["dst_ip"].get<std::string>()).isLoopback()) loopback.insert(uuidOf(row["_uuid"]));
  }
  // A row of the zero MAC binds nothing, and one behind a loopback VTEP only
  // its address.
  for (const Kiln::Json& row : db.rows("Ucast_Macs_Remote")) {
    const Ipkit::EthAddr m = toEthAddr(row["MAC"].get<std::string>());
    if (m.isZero() || loopback.contains(uuidOf(row["locator"]))) continue;
    wanted[uuidOf(row["logical_switch"])][m] = uuidOf(row["locator"]);
  }
  for (const auto& [ls, table] : local.remoteHostTable()) {
    std::map<Ipkit::EthAddr, Uuid> held;
    for (const auto& [mac, answer] : table->macVtep()) held[mac] = answer.physicalLocator();
    EXPECT_EQ(held, wanted[ls]) << "remote MACs of logical switch " << ls;
  }
}

}  // namespace Vgw::Test
