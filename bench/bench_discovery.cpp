// Adapter discovery on a simulated host: how long a library load and unload
// take, and how much of it is the sysfs walk itself.
//
// It measures inside a simulated host (the `large` scenario: 64 ports):
//   vxsim run --scenario sim/scenarios/large.json -- build/bench/bench_discovery
// Started outside one, it runs itself that way when the build knows where
// vxsim and the scenario are.
#include "bench_sim.h"
#include "vx_sysfs.h"

namespace {

using vxbench::in_host;

// The whole load and unload, for scale.
void BM_LoadUnload(benchmark::State& state) { vxbench::load_unload(state); }
BENCHMARK(BM_LoadUnload)->Unit(benchmark::kMillisecond);

// Only the sysfs walk that makes the port records.
void BM_SysfsDiscovery(benchmark::State& state) {
    if (!in_host(state))
        return;
    vxsysfs_init();
    uint32_t ports = 0;
    for (auto _ : state) {
        uint32_t count = 0;
        vxsysfs_supported_driver_exist(&count);
        ports = count;
        vxapi_free_api_priv_data_mem();
        vxapi_free_api_phy_info_mem();
    }
    state.counters["ports"] = ports;
}
BENCHMARK(BM_SysfsDiscovery)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) { return vxbench::main(argc, argv, VX_SCENARIOS "/large.json"); }
