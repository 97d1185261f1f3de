// Per-call latency of the property and discovered-port queries on a
// simulated host (the `large` scenario: 64 ports with 64 remote ports each).
// Every call reads its attributes afresh, so these are the costs a
// management application sees on the sysfs channel.
//
//   vxsim run --scenario sim/scenarios/large.json -- build/bench/bench_queries
// Started outside one, it runs itself that way when the build knows where
// vxsim and the scenario are.
#include "bench_sim.h"
#include "vsdmgt.h"

namespace {

// Instance 0, opened once for every benchmark of the run.
int port_handle() {
    static int handle = [] {
        int h = 0;
        if (SDGetNumberOfAdapters() == 0 || SDOpenDevice(0, &h) != 0)
            return 0;
        return h;
    }();
    return handle;
}

bool ready(benchmark::State& state) {
    if (!vxbench::in_host(state))
        return false;
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

}  // namespace

int main(int argc, char** argv) { return vxbench::main(argc, argv, VX_SCENARIOS "/large.json"); }
