// Adapter discovery through the extended-ioctl nodes: how long each record
// generation takes to find the same ports, set beside the whole load.
//
// It measures inside a simulated host of its own making: 16 dual-port Swift
// boards on the newer node and 16 on the older one (32 ports each). Started
// outside a simulated host, it writes that scenario and runs itself in it.
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "vx_core.h"

namespace {

constexpr int BOARDS_PER_CHANNEL = 16;

bool inside_simulated_host() { return getenv("VXSIM_ROOT") != nullptr; }

uint32_t port_count() {
    uint32_t count = 0;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&count](vxapi_priv_database*) {
        ++count;
        return true;
    });
    return count;
}

void free_lists() {
    vxapi_free_api_priv_data_mem();
    vxapi_free_api_phy_info_mem();
}

template <typename Discover>
void discovery(benchmark::State& state, Discover&& discover) {
    if (!inside_simulated_host()) {
        state.SkipWithError("needs a simulated host (run the program directly)");
        return;
    }
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

// The whole load (the newer node wins): semaphores, discovery, shared file,
// event thread; then the unload.
void BM_LoadUnload(benchmark::State& state) {
    if (!inside_simulated_host()) {
        state.SkipWithError("needs a simulated host (run the program directly)");
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

// Re-runs this program inside a simulated host of the scenario above.
int run_in_simulated_host(int argc, char** argv) {
#if defined(VXSIM_BIN)
    if (access(VXSIM_BIN, X_OK) != 0)
        return -1;
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0)
        return -1;
    self[n] = '\0';
    const std::string text = scenario();
    const int fd = memfd_create("ioctl-discovery", 0);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        return -1;
    std::string file = "/proc/self/fd/" + std::to_string(fd);
    std::vector<char*> args = {const_cast<char*>(VXSIM_BIN), const_cast<char*>("run"),
                               const_cast<char*>("--scenario"), file.data(), const_cast<char*>("--"), self};
    for (int i = 1; i < argc; ++i)
        args.push_back(argv[i]);
    args.push_back(nullptr);
    execv(VXSIM_BIN, args.data());
    perror("bench_ioctl_discovery: cannot run vxsim");
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
