// Latency of pass-through calls on the default simulated host: the canned
// SCSI commands to a disk, REPORT LUNS answered by the target and found by
// probing 256 LUNs (the target of host 3 refuses it), and a name-server
// GID_FT. VXBENCH_CHANNEL=ioctl or legacy runs the same on the default
// host's extended-ioctl twins.
//
//   build/bench/bench_passthru
//   VXBENCH_CHANNEL=ioctl build/bench/bench_passthru
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench_sim.h"
#include "vsdmgt.h"

namespace {

// The open port whose WWPN ends in `tail` (the default host's Swift ports
// end in 0x42 and 0x43).
int port_handle(uint8_t tail) {
    const SD_UINT32 n = SDGetNumberOfAdapters();
    for (SD_UINT32 i = 0; i < n; ++i) {
        int h = 0;
        DEVICEPORTPROPERTY p{};
        if (SDOpenDevice(i, &h) == 0 && SDGetHbaDevicePortProperty(h, 0, &p) == 0 && p.WWN[0] == 0x21 &&
            p.WWN[1] == 0x00 && p.WWN[7] == tail)
            return h;
    }
    return 0;
}

int handle_or_skip(benchmark::State& state, uint8_t tail) {
    if (!vxbench::in_host(state))
        return 0;
    const int h = port_handle(tail);
    if (h == 0)
        state.SkipWithError("no such port");
    return h;
}

template <typename Call>
void run(benchmark::State& state, uint8_t tail, SD_UINT32 expected, Call&& call) {
    const int h = handle_or_skip(state, tail);
    if (h == 0)
        return;
    for (auto _ : state) {
        if (call(h) != expected) {
            state.SkipWithError("unexpected status");
            return;
        }
    }
}

void BM_Inquiry(benchmark::State& state) {
    uint8_t data[255];
    run(state, 0x42, 0, [&](int h) {
        TARGETINFORMATION t{};
        return SDSendScsiInquiryCmd(h, &t, data, sizeof data, nullptr, 0);
    });
}
BENCHMARK(BM_Inquiry)->Unit(benchmark::kMicrosecond);

void BM_ReadCapacity(benchmark::State& state) {
    uint8_t data[8], sense[32];
    run(state, 0x42, 0, [&](int h) {
        TARGETINFORMATION t{};
        t.LUN = 2;
        return SDSendScsiReadCapacityCmd(h, &t, data, sizeof data, sense, sizeof sense);
    });
}
BENCHMARK(BM_ReadCapacity)->Unit(benchmark::kMicrosecond);

void BM_ReportLuns(benchmark::State& state) {
    uint8_t data[1024];
    run(state, 0x42, 0, [&](int h) {
        TARGETINFORMATION t{};
        return SDSendScsiReportLunsCmd(h, &t, data, sizeof data, nullptr, 0);
    });
}
BENCHMARK(BM_ReportLuns)->Unit(benchmark::kMicrosecond);

// REPORT LUNS refused: one request, then READ CAPACITY to LUNs 0-255.
void BM_ReportLunsProbe(benchmark::State& state) {
    uint8_t data[1024];
    run(state, 0x43, SDM_STATUS_NOT_FROM_DEVICE, [&](int h) {
        TARGETINFORMATION t{};
        return SDSendScsiReportLunsCmd(h, &t, data, sizeof data, nullptr, 0);
    });
}
BENCHMARK(BM_ReportLunsProbe)->Unit(benchmark::kMillisecond);

void BM_NameServerGidFt(benchmark::State& state) {
    uint8_t gid_ft[20] = {1, 0, 0, 0, 0xFC, 0x02, 0, 0, 0x01, 0x71, 0, 0, 0, 0, 0, 0, 0, 0, 0, 8};
    uint8_t reply[2048];
    run(state, 0x42, 0, [&](int h) { return SDSendCTPassThru(h, gid_ft, sizeof gid_ft, reply, sizeof reply); });
}
BENCHMARK(BM_NameServerGidFt)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    const char* channel = getenv("VXBENCH_CHANNEL");
    const std::string name = channel && strcmp(channel, "ioctl") == 0    ? "ioctl"
                             : channel && strcmp(channel, "legacy") == 0 ? "legacy"
                                                                         : "default";
    return vxbench::main(argc, argv, VX_SCENARIOS "/" + name + ".json");
}
