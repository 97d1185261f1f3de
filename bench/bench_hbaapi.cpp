// Enumerating a host through the SNIA Common HBA API wrapper, as storage
// tools do: count, name, open every adapter, read its adapter and port
// attributes, walk its discovered ports by index, close. The same walk for
// libvxsdm and for the peer vendor library Debian ships (libhbalinux), in
// the same simulated host, each loaded alone by the wrapper.
//
// Two hosts: 64 ports with 64 remote ports each (the size of `large`) and
// with 256 each. Their ports carry symbolic names in the converged form
// ("... over <interface>"), which is what the peer library enumerates.
//
//   build/bench/bench_hbaapi [64|256 ...]   (default: both; each in a simulated host of its own)
//
// Links the wrapper only: the libraries are what /etc/hba.conf names.
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <hbaapi.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr const char* PEER_LIB = "/usr/lib/libhbalinux.so.2";
constexpr unsigned ADAPTERS = 32;  // dual-port boards: 64 ports
constexpr unsigned LUN_TARGET_EVERY = 8;
constexpr unsigned LUNS_PER_TARGET = 4;

std::string hex_wwn(unsigned long long v) {
    char text[32];
    snprintf(text, sizeof text, "0x%016llx", v);
    return text;
}

// The host: ADAPTERS dual-port Swift boards on the sysfs channel, every port
// with `remote` FCP targets, LUNs on every eighth.
std::string scenario(unsigned remote) {
    std::string s = R"({"name": "hbaapi-)" + std::to_string(remote) +
                    R"(", "description": "benchmark host of the Common HBA API walk", "adapters": [)";
    unsigned port = 0;
    for (unsigned a = 0; a < ADAPTERS; ++a) {
        char head[256];
        snprintf(head, sizeof head, R"(%s{"id": "swift%u", "device_id": "0x1053", "serial_number": "VXS1053%04u", "functions": [)",
                 a ? ", " : "", a, a);
        s += head;
        for (unsigned f = 0; f < 2; ++f, ++port) {
            char fn[512];
            snprintf(fn, sizeof fn,
                     R"(%s{"pci_address": "0000:%02x:00.%u", "port": {"host_no": %u, "wwnn": "%s", "wwpn": "%s", )"
                     R"("port_id": "0x%02x0100", "speed": "8 Gbit", "fabric_name": "0x100000051e340000", )"
                     R"("symbolic_name": "VXS1053 FW:v8.05.63 DVR:v10.02.00.103-k over vxfc%u", "remote_ports": [)",
                     f ? ", " : "", 0x40 + a, f, port, hex_wwn(0x200000001d5a0000ULL + port).c_str(),
                     hex_wwn(0x210000001d5a0000ULL + port).c_str(), port + 1, port);
            s += fn;
            for (unsigned r = 0; r < remote; ++r) {
                char rp[320];
                snprintf(rp, sizeof rp,
                         R"(%s{"number": %u, "wwnn": "%s", "wwpn": "%s", "port_id": "0x%02x%04x", "scsi_target_id": %u, "luns": [)",
                         r ? ", " : "", r, hex_wwn(0x5006016000000000ULL + (port << 16) + r).c_str(),
                         hex_wwn(0x5006016800000000ULL + (port << 16) + r).c_str(), port + 1, 0x0200 + r, r);
                s += rp;
                if (r % LUN_TARGET_EVERY == 0)
                    for (unsigned l = 0; l < LUNS_PER_TARGET; ++l)
                        s += (l ? ", " : "") + std::string(R"({"lun": )") + std::to_string(l) + "}";
                s += "]}";
            }
            s += "]}}";
        }
        s += "]}";
    }
    return s + "]}";
}

bool write_conf(const std::string& line) {
    FILE* f = fopen("/etc/hba.conf", "w");
    if (!f)
        return false;
    fprintf(f, "%s\n", line.c_str());
    return fclose(f) == 0;
}

struct walk_counts {
    unsigned adapters = 0, discovered = 0;
};

walk_counts enumerate() {
    walk_counts c;
    const HBA_UINT32 n = HBA_GetNumberOfAdapters();
    for (HBA_UINT32 i = 0; i < n; ++i) {
        char name[256] = {};
        if (HBA_GetAdapterName(i, name) != HBA_STATUS_OK)
            continue;
        const HBA_HANDLE h = HBA_OpenAdapter(name);
        if (h == 0)
            continue;
        HBA_ADAPTERATTRIBUTES a;
        HBA_PORTATTRIBUTES p;
        if (HBA_GetAdapterAttributes(h, &a) == HBA_STATUS_OK && HBA_GetAdapterPortAttributes(h, 0, &p) == HBA_STATUS_OK) {
            ++c.adapters;
            for (HBA_UINT32 d = 0; d < p.NumberofDiscoveredPorts; ++d) {
                HBA_PORTATTRIBUTES r;
                if (HBA_GetDiscoveredPortAttributes(h, 0, d, &r) != HBA_STATUS_OK)
                    break;
                ++c.discovered;
            }
        }
        HBA_CloseAdapter(h);
    }
    return c;
}

// One library alone under the wrapper; the load is outside the timing.
void walk(benchmark::State& state, const std::string& conf_line) {
    if (!write_conf(conf_line) || HBA_LoadLibrary() != HBA_STATUS_OK) {
        state.SkipWithError("the wrapper did not load the library");
        return;
    }
    walk_counts c;
    for (auto _ : state)
        c = enumerate();
    HBA_FreeLibrary();
    state.counters["adapters"] = c.adapters;
    state.counters["discovered"] = c.discovered;
    if (c.adapters == 0)
        state.SkipWithError("no adapter listed");
}

void BM_Libvxsdm(benchmark::State& state) { walk(state, std::string("com.varnex-vxsdm ") + VXSDM_LIB); }
void BM_Libhbalinux(benchmark::State& state) {
    if (access(PEER_LIB, R_OK) != 0) {
        state.SkipWithError("libhbalinux2 is not installed");
        return;
    }
    walk(state, std::string("org.open-fcoe.libhbalinux ") + PEER_LIB);
}

// Runs this program inside a simulated host of `remote` remote ports per port.
int run_in_host(const char* self, unsigned remote, int argc, char** argv) {
    const std::string text = scenario(remote);
    const int fd = memfd_create("hbaapi-scenario", 0);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        return 1;
    const std::string file = "/proc/self/fd/" + std::to_string(fd);
    const std::string label = "--inside=" + std::to_string(remote);
    std::vector<const char*> args = {VXSIM_BIN, "run", "--scenario", file.c_str(), "--", self, label.c_str()};
    for (int i = 1; i < argc; ++i)
        if (strncmp(argv[i], "--benchmark", 11) == 0)
            args.push_back(argv[i]);
    std::string cmd;
    for (const char* a : args)
        cmd += std::string("'") + a + "' ";
    printf("== %u remote ports per port (64 ports)\n", remote);
    fflush(stdout);
    const int status = system(cmd.c_str());
    close(fd);
    return status == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<unsigned> sizes;
    bool inside = false;
    for (int i = 1; i < argc; ++i) {
        if (strncmp(argv[i], "--inside=", 9) == 0)
            inside = true;
        else if (strcmp(argv[i], "64") == 0 || strcmp(argv[i], "256") == 0)
            sizes.push_back(static_cast<unsigned>(atoi(argv[i])));
    }
    if (!inside) {
        char self[4096];
        const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
        if (n <= 0)
            return 1;
        self[n] = '\0';
        if (sizes.empty())
            sizes = {64, 256};
        int result = 0;
        for (unsigned remote : sizes)
            result |= run_in_host(self, remote, argc, argv);
        return result;
    }
    benchmark::RegisterBenchmark("enumerate/libvxsdm", BM_Libvxsdm)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("enumerate/libhbalinux", BM_Libhbalinux)->Unit(benchmark::kMillisecond);
    std::vector<char*> bargs = {argv[0]};
    for (int i = 1; i < argc; ++i)
        if (strncmp(argv[i], "--inside=", 9) != 0)
            bargs.push_back(argv[i]);
    int bargc = static_cast<int>(bargs.size());
    benchmark::Initialize(&bargc, bargs.data());
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
