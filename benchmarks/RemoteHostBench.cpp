// The cost of remote host publication on the road of a large controller
// transaction: 10,000 remote MACs with addresses on one logical switch,
// behind 100 VTEPs. Run with the ring open at its default levels, as the
// agent runs, or with RINGTAPE_DISABLE set to see the cost without it.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <string>
#include <utility>
#include <vector>

#include "BenchHosts.h"
#include "RingTape/RingTape.h"
#include "Vgw/RemoteHostSm.h"

namespace Vgw {
namespace {

using Bench::hostIp;
using Bench::hostMac;

constexpr std::uint32_t hosts = 10000;
constexpr std::uint32_t vtepCount = 100;
const Vxlan::Vni vni(5000);

Uuid rowId(std::uint32_t kind, std::uint32_t n) { return Uuid(kind, n, 0x80000000u, 0); }

// The mirror and the remote host table as a monitor message of `hosts` rows
// leaves them.
struct Fabric {
  Kiln::Ptr<LocalData> localData = Kiln::Entity::singletonIs<LocalData>();
  Kiln::Ptr<Status> status = Kiln::newPtr<Status>();
  Kiln::Ptr<HwVtepOvsdb> ovsdb = status->ovsdbIs("ovsdb");
  Kiln::Ptr<OverlaySvc::VniStatusDirV2> dir = Kiln::newPtr<OverlaySvc::VniStatusDirV2>();
  Uuid ls = rowId(1, 1);
  Kiln::Ptr<RemoteHostTable> table;
  std::vector<Kiln::Ptr<UcastMacsRemote>> rows;

  Fabric() {
    localData->reset();
    ovsdb->logicalSwitchIs(ls)->tunnelKeyIs(vni);
    localData->vniToLogicalSwitchIs(vni)->logicalSwitchIs(ls);
    table = localData->remoteHostTableIs(ls);
    for (std::uint32_t v = 0; v < vtepCount; ++v) {
      ovsdb->physicalLocatorRawIs(rowId(2, v))
          ->keyIs(PhysicalLocatorKey(EncapsulationType::vxlan_over_ipv4, Bench::vtepIp(v)));
    }
    for (std::uint32_t n = 0; n < hosts; ++n) {
      auto row = Kiln::newPtr<UcastMacsRemote>(rowId(3, n));
      row->macIs(hostMac(n));
      row->logicalSwitchIs(ls);
      row->physicalLocatorIs(rowId(2, n % vtepCount));
      row->ipAddrIs(hostIp(n));
      table->pendingUcastMacsRemoteRawIs(row->uuid(), row);
      rows.push_back(row);
    }
    if (!table->processPendingMacs(ovsdb)) std::abort();
  }
  ~Fabric() { localData->reset(); }
};

void openRing() {
  static const bool opened = [] {
    setenv("RINGTAPEDIR", "/tmp", 0);
    RingTape::LevelSizes sizes;
    sizes.fill(64);
    return RingTape::initialize("vgw-remotehost-bench-%d.tape", sizes, nullptr, 0, 0,
                                RingTape::ThreadingMode::singleThreaded, false, 256);
  }();
  (void)opened;
}

// The first publication of every host: one machine, 20,000 entries written.
void BM_firstPublication(benchmark::State& state) {
  openRing();
  Fabric fabric;
  for (auto _ : state) {
    auto sm = remoteHostSmFactory(fabric.status, fabric.dir);
    state.PauseTiming();
    if (fabric.dir->vniStatusV2(vni)->macVtepTable().size() != hosts) std::abort();
    sm->destroy();
    fabric.localData->vniToLogicalSwitchIs(vni)->logicalSwitchIs(fabric.ls);
    fabric.localData->remoteHostTableIs(fabric.ls);
    fabric.table = fabric.localData->remoteHostTable(fabric.ls);
    for (const auto& row : fabric.rows) fabric.table->pendingUcastMacsRemoteRawIs(row->uuid(), row);
    if (!fabric.table->processPendingMacs(fabric.ovsdb)) std::abort();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * hosts);
}
BENCHMARK(BM_firstPublication)->Unit(benchmark::kMillisecond);

// A full reconciliation after a message that changed nothing of these hosts.
void BM_unchangedReconciliation(benchmark::State& state) {
  openRing();
  Fabric fabric;
  auto sm = remoteHostSmFactory(fabric.status, fabric.dir);
  for (auto _ : state) sm->handleInitialized();
  state.SetItemsProcessed(state.iterations() * hosts);
}
BENCHMARK(BM_unchangedReconciliation)->Unit(benchmark::kMillisecond);

// The narrow path of a pure remote-unicast message: one host moves to the
// next VTEP and back.
void BM_hostMove(benchmark::State& state) {
  openRing();
  Fabric fabric;
  auto sm = remoteHostSmFactory(fabric.status, fabric.dir);
  LogicalSwitchSm* machine = sm->logicalSwitchSm(fabric.ls);
  auto row = fabric.rows[0];
  auto other = Kiln::newPtr<UcastMacsRemote>(rowId(4, 0));
  other->macIs(row->mac());
  other->logicalSwitchIs(fabric.ls);
  other->physicalLocatorIs(rowId(2, 1));
  other->ipAddrIs(row->ipAddr());
  for (auto _ : state) {
    fabric.table->ucastMacRemove(row);
    fabric.table->pendingUcastMacsRemoteRawIs(other->uuid(), other);
    if (!fabric.table->processPendingMacs(fabric.ovsdb)) std::abort();
    machine->handleUcastMacVtep(other->mac());
    machine->handleIpToMac(other->ipAddr());
    std::swap(row, other);
  }
}
BENCHMARK(BM_hostMove)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace Vgw

BENCHMARK_MAIN();
