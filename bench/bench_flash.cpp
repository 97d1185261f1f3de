// Whole-flash read and update throughput on each way to the flash, next to a
// memcpy of the same bytes: bsg vendor requests, the optrom attribute pair
// with partial commands and without (whole-flash transfers), and the
// extended-ioctl channel. One 4 MiB board per way; the ioctl board needs a
// host of its own (a host discovers through one driver interface).
//
// Started outside a simulated host, it runs itself in the sysfs host and
// then in the ioctl host; inside one it measures the boards it finds.
#include <sys/wait.h>

#include <cstring>
#include <vector>

#include "bench_sim.h"
#include "vsdmgt.h"

namespace {

using vxbench::in_host;

#define VX_BOARD(ID, HOST, EXTRA, FUNC)                                                                          \
    "{\"id\": \"" ID "\", \"device_id\": \"0x2050\", \"serial_number\": \"VXP0000000" HOST "\"" EXTRA            \
    ", \"functions\": [{\"pci_address\": \"0000:2" HOST ":00.0\", \"port\": {\"host_no\": " HOST                 \
    ", \"wwnn\": \"20:00:00:1d:5a:20:50:0" HOST "\", \"wwpn\": \"21:00:00:1d:5a:20:50:0" HOST "\"}" FUNC "}]}"

const char* const SYSFS = "{\"name\": \"bench-flash\", \"adapters\": [" VX_BOARD("bsg", "1", "", "") ","
    VX_BOARD("attrs", "2", "", ", \"bsg\": false") ","
    VX_BOARD("whole", "3", ", \"partial_flash\": false", ", \"bsg\": false") "]}";
const char* const IOCTL =
    "{\"name\": \"bench-flash-ioctl\", \"adapters\": [" VX_BOARD("ioctl", "4", ", \"channel\": \"ioctl\"", "") "]}";
#undef VX_BOARD

constexpr uint32_t FLASH = 0x400000;

// The handle of port `instance` when the host has `ports` ports, else 0.
int open_port(benchmark::State& state, uint32_t ports, uint32_t instance) {
    if (!in_host(state))
        return 0;
    if (SDGetNumberOfAdapters() != ports) {
        state.SkipWithError("measured in the other simulated host");
        return 0;
    }
    int h = 0;
    if (SDOpenDevice(instance, &h) != 0) {
        state.SkipWithError("open failed");
        return 0;
    }
    return h;
}

void read_flash(benchmark::State& state, uint32_t ports, uint32_t instance) {
    const int h = open_port(state, ports, instance);
    if (!h)
        return;
    std::vector<uint8_t> buf(FLASH);
    for (auto _ : state) {
        if (SDGetOptionRomOffset(h, 0, buf.data(), FLASH, 0) != 0) {
            state.SkipWithError("read failed");
            return;
        }
        benchmark::DoNotOptimize(buf.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * FLASH);
}

void update_flash(benchmark::State& state, uint32_t ports, uint32_t instance) {
    const int h = open_port(state, ports, instance);
    if (!h)
        return;
    std::vector<uint8_t> buf(FLASH);
    if (SDGetOptionRomOffset(h, 0, buf.data(), FLASH, 0) != 0) {
        state.SkipWithError("read failed");
        return;
    }
    for (auto _ : state) {
        if (SDUpdateOptionRomOffset(h, 0, buf.data(), FLASH, 0) != 0) {
            state.SkipWithError("update failed");
            return;
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * FLASH);
}

void BM_Memcpy(benchmark::State& state) {
    std::vector<uint8_t> from(FLASH, 0x5A), to(FLASH);
    for (auto _ : state) {
        memcpy(to.data(), from.data(), FLASH);
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * FLASH);
}
BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond);

BENCHMARK_CAPTURE(read_flash, bsg, 3, 0)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(read_flash, attrs_partial, 3, 1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(read_flash, attrs_whole, 3, 2)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(read_flash, ioctl, 1, 0)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(update_flash, bsg, 3, 0)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(update_flash, attrs_partial, 3, 1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(update_flash, attrs_whole, 3, 2)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(update_flash, ioctl, 1, 0)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    if (!vxbench::inside_simulated_host()) {
        // The sysfs host in a child, then the ioctl host in this process.
        const pid_t child = fork();
        if (child == 0)
            return vxbench::main(argc, argv, SYSFS);
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
            return 1;
        return vxbench::main(argc, argv, IOCTL);
    }
    return vxbench::main(argc, argv, SYSFS);
}
