// Adapter discovery on a simulated host: how long a library load and unload
// take, and how much of it is the sysfs walk itself.
//
// It measures inside a simulated host (the `large` scenario: 64 ports):
//   vxsim run --scenario sim/scenarios/large.json -- build/bench/bench_discovery
// Started outside one, it runs itself that way when the build knows where
// vxsim and the scenario are.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "vx_core.h"
#include "vx_sysfs.h"

namespace {

bool inside_simulated_host() { return getenv("VXSIM_ROOT") != nullptr; }

uint32_t port_count() {
    uint32_t count = 0;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&count](vxapi_priv_database*) {
        ++count;
        return true;
    });
    return count;
}

// The whole load: semaphores, discovery, shared file, event thread, netlink,
// control node; then the unload that undoes it.
void BM_LoadUnload(benchmark::State& state) {
    if (!inside_simulated_host()) {
        state.SkipWithError("needs a simulated host (vxsim run ... -- bench_discovery)");
        return;
    }
    uint32_t ports = 0;
    for (auto _ : state) {
        if (vxapi_load_lib() != 0 || !api_priv_database) {
            state.SkipWithError("load failed");
            return;
        }
        ports = port_count();
        vxapi_unload_lib();
    }
    state.counters["ports"] = ports;
}
BENCHMARK(BM_LoadUnload)->Unit(benchmark::kMillisecond);

// Only the sysfs walk that makes the port records.
void BM_SysfsDiscovery(benchmark::State& state) {
    if (!inside_simulated_host()) {
        state.SkipWithError("needs a simulated host (vxsim run ... -- bench_discovery)");
        return;
    }
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

// Re-runs this program inside a simulated host of the large scenario.
int run_in_simulated_host(int argc, char** argv) {
#if defined(VXSIM_BIN) && defined(VX_LARGE_SCENARIO)
    if (access(VXSIM_BIN, X_OK) != 0)
        return -1;
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0)
        return -1;
    self[n] = '\0';
    std::vector<char*> args = {const_cast<char*>(VXSIM_BIN), const_cast<char*>("run"),
                               const_cast<char*>("--scenario"), const_cast<char*>(VX_LARGE_SCENARIO),
                               const_cast<char*>("--"), self};
    for (int i = 1; i < argc; ++i)
        args.push_back(argv[i]);
    args.push_back(nullptr);
    execv(VXSIM_BIN, args.data());
    perror("bench_discovery: cannot run vxsim");
    return 1;
#else
    (void)argc;
    (void)argv;
    return -1;
#endif
}

}  // namespace

int main(int argc, char** argv) {
    if (!inside_simulated_host()) {
        const int rc = run_in_simulated_host(argc, argv);
        if (rc >= 0)
            return rc;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
