// Per-call latency of the property and discovered-port queries on a
// simulated host (the `large` scenario: 64 ports with 64 remote ports each).
// Every call reads its attributes afresh, so these are the costs a
// management application sees on the sysfs channel.
//
//   vxsim run --scenario sim/scenarios/large.json -- build/bench/bench_queries
// Started outside one, it runs itself that way when the build knows where
// vxsim and the scenario are.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "vsdmgt.h"

namespace {

bool inside_simulated_host() { return getenv("VXSIM_ROOT") != nullptr; }

// Instance 0, opened once for every benchmark of the run.
int port_handle() {
    static int handle = [] {
        int h = 0;
        if (SDGetNumberOfAdapters() == 0 || SDOpenDevice(0, &h) != 0)
            return 0;
        return static_cast<int>(h);
    }();
    return handle;
}

bool ready(benchmark::State& state) {
    if (!inside_simulated_host()) {
        state.SkipWithError("needs a simulated host (vxsim run ... -- bench_queries)");
        return false;
    }
    if (port_handle() == 0) {
        state.SkipWithError("no port to open");
        return false;
    }
    return true;
}

void BM_NodeProperty(benchmark::State& state) {
    if (!ready(state))
        return;
    DEVICENODEPROPERTY node{};
    for (auto _ : state) {
        if (SDGetHbaDeviceNodeProperty(port_handle(), &node) != 0) {
            state.SkipWithError("query failed");
            return;
        }
        benchmark::DoNotOptimize(node);
    }
}
BENCHMARK(BM_NodeProperty)->Unit(benchmark::kMicrosecond);

void BM_PortProperty(benchmark::State& state) {
    if (!ready(state))
        return;
    DEVICEPORTPROPERTY port{};
    for (auto _ : state) {
        if (SDGetHbaDevicePortProperty(port_handle(), 0, &port) != 0) {
            state.SkipWithError("query failed");
            return;
        }
        benchmark::DoNotOptimize(port);
    }
    state.counters["disc_ports"] = port.DiscPortCount;
    state.counters["disc_targets"] = port.DiscTargetCount;
}
BENCHMARK(BM_PortProperty)->Unit(benchmark::kMicrosecond);

// The n-th discovered port: the remote-port list is walked up to it.
void BM_DiscPortProperty(benchmark::State& state) {
    if (!ready(state))
        return;
    DISCPORTPROPERTY disc{};
    const auto index = static_cast<SD_UINT32>(state.range(0));
    for (auto _ : state) {
        if (SDGetDiscPortProperty(port_handle(), 0, index, 0, &disc) != 0) {
            state.SkipWithError("query failed");
            return;
        }
        benchmark::DoNotOptimize(disc);
    }
}
BENCHMARK(BM_DiscPortProperty)->Arg(0)->Arg(63)->Unit(benchmark::kMicrosecond);

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
    perror("bench_queries: cannot run vxsim");
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
