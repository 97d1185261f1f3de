// Adapter discovery through the extended-ioctl nodes: how long each record
// generation takes to find the same ports, set beside the whole load.
//
// It measures inside a simulated host of its own making: 16 dual-port Swift
// boards on the newer node and 16 on the older one (32 ports each). Started
// outside a simulated host, it writes that scenario and runs itself in it.
#include "bench_sim.h"

namespace {

using vxbench::in_host;
using vxbench::port_count;

constexpr int BOARDS_PER_CHANNEL = 16;

void free_lists() {
    vxapi_free_api_priv_data_mem();
    vxapi_free_api_phy_info_mem();
}

template <typename Discover>
void discovery(benchmark::State& state, Discover&& discover) {
    if (!in_host(state))
        return;
    uint32_t ports = 0;
    for (auto _ : state) {
        uint32_t count = 0;
        if (discover(&count) != 0) {
            state.SkipWithError("discovery failed");
            return;
        }
        ports = port_count();
        free_lists();
    }
    state.counters["ports"] = ports;
}

void BM_NewerGeneration(benchmark::State& state) {
    discovery(state, [](uint32_t* count) { return vxapi_find_all_instances_n("vxfcdrv", count); });
}
BENCHMARK(BM_NewerGeneration)->Unit(benchmark::kMillisecond);

void BM_OlderGeneration(benchmark::State& state) {
    discovery(state, [](uint32_t* count) { return vxapi_find_all_instances_o("vxfcdra", count); });
}
BENCHMARK(BM_OlderGeneration)->Unit(benchmark::kMillisecond);

// The whole load and unload, for scale.
void BM_LoadUnload(benchmark::State& state) { vxbench::load_unload(state); }
BENCHMARK(BM_LoadUnload)->Unit(benchmark::kMillisecond);

std::string board(int i, const char* channel, const char* driver) {
    char text[512];
    const int bus = 0x40 + i;
    snprintf(text, sizeof text,
             R"({"id": "%s%d", "device_id": "0x1051", "serial_number": "VXS1051%04d", "channel": "%s",
                 "driver_name": "%s", "functions": [
                 {"pci_address": "0000:%02x:00.0", "port": {"host_no": %d, "wwpn": "0x21000000%08x"}},
                 {"pci_address": "0000:%02x:00.1", "port": {"host_no": %d, "wwpn": "0x21000001%08x"}}]})",
             channel, i, i, channel, driver, bus, 2 * i, i, bus, 2 * i + 1, i);
    return text;
}

std::string scenario() {
    std::string s = R"({"name": "ioctl-discovery", "adapters": [)";
    for (int i = 0; i < 2 * BOARDS_PER_CHANNEL; ++i) {
        const bool newer = i < BOARDS_PER_CHANNEL;
        s += (i ? "," : "") + board(i, newer ? "ioctl" : "legacy", newer ? "vxfcdrv" : "vxfcdra");
    }
    return s + "]}";
}

}  // namespace

int main(int argc, char** argv) { return vxbench::main(argc, argv, scenario()); }
