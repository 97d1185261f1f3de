// Enumerating a big host as a management tool does: load, open every port,
// read its node and port properties, walk every discovered port by index
// and every target, close, unload. Measured on the `large` (64 x 64 remote
// ports) and `huge` (64 x 256) scenarios against:
//   - the floor: a minimal reader here that does only the unavoidable reads
//     (a listing of each host's own remote ports, one read per attribute);
//   - libhbalinux, the peer vendor library Debian ships, through the SNIA
//     wrapper (/etc/hba.conf inside the simulated host names only it), when
//     both are installed.
// Then the per-call costs of the indexed calls at index 0 (which takes the
// walk's snapshot), 1 and the last, the port database and target/LUN list
// of one port against the floor's, the peak RSS of the walk and the largest
// allocation of each call.
//
//   build/bench/bench_walk [large|huge ...]   (default: both; runs each in a simulated host)
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <vector>

// The SNIA header wants struct tm declared first.
#include <hbaapi.h>

#include "vsdmgt.h"
#include "vx_core.h"
#include "vx_sysfs.h"

// ---- The largest allocation of a call ----
// Every malloc, calloc and realloc of the program and the libraries it
// loads (libc's own, such as directory buffers, excepted) passes here.
extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);

namespace {
std::atomic<size_t> largest_alloc{0};
void note_alloc(size_t n) {
    size_t seen = largest_alloc.load(std::memory_order_relaxed);
    while (n > seen && !largest_alloc.compare_exchange_weak(seen, n, std::memory_order_relaxed)) {
    }
}
}  // namespace

extern "C" void* malloc(size_t n) {
    note_alloc(n);
    return __libc_malloc(n);
}
extern "C" void* calloc(size_t n, size_t size) {
    note_alloc(n * size);
    return __libc_calloc(n, size);
}
extern "C" void* realloc(void* p, size_t n) {
    note_alloc(n);
    return __libc_realloc(p, n);
}

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t0) {
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

long peak_rss_kib() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_maxrss;
}

// One result line for the parent: "R key value".
void result(const std::string& key, double value) { printf("R %s %.9g\n", key.c_str(), value); }

// ---- The library's walk ----

struct walk_counts {
    uint32_t ports = 0, disc_ports = 0, targets = 0, target_luns = 0;
};

walk_counts library_walk() {
    walk_counts c;
    const uint32_t n = SDGetNumberOfAdapters();  // loads the library
    std::vector<int> handles;
    for (uint32_t i = 0; i < n; ++i) {
        int h = 0;
        if (SDOpenDevice(i, &h) == 0)
            handles.push_back(h);
    }
    for (int h : handles) {
        DEVICENODEPROPERTY node;
        DEVICEPORTPROPERTY port;
        SDGetHbaDeviceNodeProperty(h, &node);
        SDGetHbaDevicePortProperty(h, 0, &port);
        ++c.ports;
        std::vector<uint16_t> tids;
        for (uint32_t index = 0;; ++index) {
            DISCPORTPROPERTY disc;
            if (SDGetDiscPortProperty(h, 0, index, 0, &disc) != 0)
                break;
            tids.push_back(disc.TargetID);
            ++c.disc_ports;
        }
        // Every target, by the target id each discovered port reported.
        for (uint16_t tid : tids) {
            DISCTARGETPROPERTY tgt;
            if (SDGetDiscTargetProperty(h, 0, tid, 0, &tgt) == 0)
                ++c.targets;
        }
    }
    for (int h : handles)
        SDCloseDevice(h);
    vxapi_unload_lib();
    return c;
}

// ---- The floor ----

// One read of an attribute below a directory.
bool read_attr(int dirfd, const char* rel, char* out, size_t size) {
    const int fd = openat(dirfd, rel, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const ssize_t n = read(fd, out, size - 1);
    close(fd);
    out[n > 0 ? n : 0] = '\0';
    return n > 0;
}

template <typename F>
void list_dir(int dirfd, const char* rel, F&& fn) {
    const int fd = openat(dirfd, rel, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* d = fd >= 0 ? fdopendir(fd) : nullptr;
    if (!d) {
        if (fd >= 0)
            close(fd);
        return;
    }
    while (const dirent* e = readdir(d))
        fn(e->d_name);
    closedir(d);
}

struct floor_rport {
    std::string name;
    bool online = false, target = false;
    long tid = -1;
};

// A host's remote ports with the six attributes a port database or a
// target list needs, each read once.
std::vector<floor_rport> floor_rports(int host_fd, uint32_t host_no) {
    std::vector<floor_rport> out;
    const std::string prefix = "rport-" + std::to_string(host_no) + ":";
    list_dir(host_fd, ".", [&](const char* name) {
        if (strncmp(name, prefix.c_str(), prefix.size()) == 0)
            out.push_back({name});
    });
    char text[128];
    for (floor_rport& r : out) {
        const std::string base = r.name + "/fc_remote_ports/" + r.name + "/";
        read_attr(host_fd, (base + "port_state").c_str(), text, sizeof text);
        r.online = strncmp(text, "Online", 6) == 0;
        read_attr(host_fd, (base + "roles").c_str(), text, sizeof text);
        r.target = strstr(text, "FCP Target") != nullptr;
        for (const char* a : {"node_name", "port_name", "port_id"})
            read_attr(host_fd, (base + a).c_str(), text, sizeof text);
        if (read_attr(host_fd, (base + "scsi_target_id").c_str(), text, sizeof text))
            r.tid = strtol(text, nullptr, 10);
    }
    return out;
}

// The LUNs under each target of the host's remote ports.
uint32_t floor_luns(int host_fd, uint32_t host_no, const std::vector<floor_rport>& rports) {
    uint32_t luns = 0;
    for (const floor_rport& r : rports) {
        if (!r.online || !r.target || r.tid < 0)
            continue;
        unsigned h = 0, ch = 0, num = 0;
        sscanf(r.name.c_str(), "rport-%u:%u-%u", &h, &ch, &num);
        const std::string target = r.name + "/target" + std::to_string(host_no) + ":" + std::to_string(ch) + ":" +
                                   std::to_string(r.tid);
        list_dir(host_fd, target.c_str(), [&](const char* name) {
            if (name[0] >= '0' && name[0] <= '9')
                ++luns;
        });
    }
    return luns;
}

int open_host(uint32_t host_no) {
    const std::string path = "/sys/class/scsi_host/host" + std::to_string(host_no) + "/device";
    return open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

std::vector<uint32_t> fc_hosts() {
    std::vector<uint32_t> hosts;
    list_dir(AT_FDCWD, "/sys/class/fc_host", [&](const char* name) {
        if (strncmp(name, "host", 4) == 0)
            hosts.push_back(static_cast<uint32_t>(strtoul(name + 4, nullptr, 10)));
    });
    std::sort(hosts.begin(), hosts.end());
    return hosts;
}

walk_counts floor_walk() {
    walk_counts c;
    char text[256];
    for (uint32_t host_no : fc_hosts()) {
        const int host_fd = open_host(host_no);
        if (host_fd < 0)
            continue;
        const std::string sh = "scsi_host/host" + std::to_string(host_no) + "/";
        const std::string fh = "fc_host/host" + std::to_string(host_no) + "/";
        for (const char* a : {"model_name", "driver_version", "fw_version", "serial_num", "link_state", "fw_state"})
            read_attr(host_fd, (sh + a).c_str(), text, sizeof text);
        for (const char* a : {"node_name", "port_name", "port_id", "speed", "fabric_name"})
            read_attr(host_fd, (fh + a).c_str(), text, sizeof text);
        ++c.ports;
        const std::vector<floor_rport> rports = floor_rports(host_fd, host_no);
        for (const floor_rport& r : rports)
            c.disc_ports += r.online && r.target;
        c.target_luns += floor_luns(host_fd, host_no, rports);
        close(host_fd);
    }
    return c;
}

// ---- libhbalinux through the SNIA wrapper ----

struct hba_api {
    void* lib = nullptr;
    HBA_STATUS (*load)() = nullptr;
    HBA_STATUS (*free_library)() = nullptr;
    HBA_UINT32 (*count)() = nullptr;
    HBA_STATUS (*name)(HBA_UINT32, char*) = nullptr;
    HBA_HANDLE (*open)(char*) = nullptr;
    void (*close)(HBA_HANDLE) = nullptr;
    HBA_STATUS (*adapter)(HBA_HANDLE, HBA_ADAPTERATTRIBUTES*) = nullptr;
    HBA_STATUS (*port)(HBA_HANDLE, HBA_UINT32, HBA_PORTATTRIBUTES*) = nullptr;
    HBA_STATUS (*disc)(HBA_HANDLE, HBA_UINT32, HBA_UINT32, HBA_PORTATTRIBUTES*) = nullptr;

    bool ready() const { return load && free_library && count && name && open && close && adapter && port && disc; }
};

template <typename T>
void bind(void* lib, T& fn, const char* symbol) {
    fn = reinterpret_cast<T>(dlsym(lib, symbol));
}

// The wrapper and libhbalinux, when both are installed; the wrapper reads
// /etc/hba.conf, which inside the simulated host is ours to write.
bool open_hba_api(hba_api& api, std::string& why) {
    const char* const peer = "/usr/lib/libhbalinux.so.2";
    if (access(peer, R_OK) != 0) {
        why = "libhbalinux2 is not installed";
        return false;
    }
    FILE* conf = fopen("/etc/hba.conf", "w");
    if (!conf) {
        why = "cannot write /etc/hba.conf";
        return false;
    }
    fprintf(conf, "libhbalinux %s\n", peer);
    fclose(conf);
    api.lib = dlopen("libHBAAPI.so.2", RTLD_NOW | RTLD_LOCAL);
    if (!api.lib) {
        why = "libhbaapi2 (the SNIA wrapper) is not installed";
        return false;
    }
    bind(api.lib, api.load, "HBA_LoadLibrary");
    bind(api.lib, api.free_library, "HBA_FreeLibrary");
    bind(api.lib, api.count, "HBA_GetNumberOfAdapters");
    bind(api.lib, api.name, "HBA_GetAdapterName");
    bind(api.lib, api.open, "HBA_OpenAdapter");
    bind(api.lib, api.close, "HBA_CloseAdapter");
    bind(api.lib, api.adapter, "HBA_GetAdapterAttributes");
    bind(api.lib, api.port, "HBA_GetAdapterPortAttributes");
    bind(api.lib, api.disc, "HBA_GetDiscoveredPortAttributes");
    if (!api.ready())
        why = "the wrapper lacks an entry point";
    return api.ready();
}

// Sends stderr to /dev/null for its lifetime.
class quiet_stderr {
public:
    quiet_stderr() : saved_(dup(STDERR_FILENO)) {
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null >= 0) {
            dup2(null, STDERR_FILENO);
            close(null);
        }
    }
    ~quiet_stderr() {
        if (saved_ >= 0) {
            dup2(saved_, STDERR_FILENO);
            close(saved_);
        }
    }
    quiet_stderr(const quiet_stderr&) = delete;
    quiet_stderr& operator=(const quiet_stderr&) = delete;

private:
    int saved_;
};

walk_counts hba_walk(const hba_api& api) {
    walk_counts c;
    if (api.load() != HBA_STATUS_OK)
        return c;
    const HBA_UINT32 n = api.count();
    for (HBA_UINT32 i = 0; i < n; ++i) {
        char name[256] = {};
        if (api.name(i, name) != HBA_STATUS_OK)
            continue;
        const HBA_HANDLE h = api.open(name);
        if (h == 0)
            continue;
        HBA_ADAPTERATTRIBUTES aa;
        if (api.adapter(h, &aa) == HBA_STATUS_OK)
            for (HBA_UINT32 p = 0; p < aa.NumberOfPorts; ++p) {
                HBA_PORTATTRIBUTES pa;
                if (api.port(h, p, &pa) != HBA_STATUS_OK)
                    continue;
                ++c.ports;
                for (HBA_UINT32 d = 0; d < pa.NumberofDiscoveredPorts; ++d) {
                    HBA_PORTATTRIBUTES dpa;
                    if (api.disc(h, p, d, &dpa) == HBA_STATUS_OK)
                        ++c.disc_ports;
                }
            }
        api.close(h);
    }
    api.free_library();
    return c;
}

// ---- Per-call costs ----

// Median time of `fn` in microseconds over `runs` calls; `before` runs
// untimed ahead of each call. The largest allocation of any of them is
// reported under `key`.
template <typename F, typename B>
double per_call_us(const std::string& key, int runs, F&& fn, B&& before) {
    std::vector<double> times;
    size_t largest = 0;
    for (int i = 0; i < runs; ++i) {
        before();
        largest_alloc = 0;
        const auto t0 = clock_type::now();
        fn();
        times.push_back(seconds_since(t0) * 1e6);
        largest = std::max(largest, largest_alloc.load());
    }
    std::sort(times.begin(), times.end());
    result(key + ".alloc", static_cast<double>(largest));
    return times[times.size() / 2];
}

void per_call_costs() {
    if (SDGetNumberOfAdapters() == 0)
        return;
    int h = 0;
    if (SDOpenDevice(0, &h) != 0)
        return;
    vxapi_priv_database* inst = vxapi_get_api_priv_inst_from_user_instance(0);
    DEVICEPORTPROPERTY port;
    SDGetHbaDevicePortProperty(h, 0, &port);
    const uint32_t last = port.DiscPortCount ? port.DiscPortCount - 1u : 0u;
    constexpr int RUNS = 101;
    auto nothing = [] {};
    DISCPORTPROPERTY disc;
    DISCTARGETPROPERTY tgt;
    // A walk's later indexes follow its index 0 within the second.
    auto fresh_walk = [&] { SDGetDiscPortProperty(h, 0, 0, 0, &disc); };
    for (uint32_t index : {0u, 1u, last}) {
        const std::string label = index == last ? "last" : std::to_string(index);
        uint32_t status = 0;
        const double us = index == 0 ? per_call_us("discport." + label, RUNS,
                                                   [&] { status = SDGetDiscPortProperty(h, 0, index, 0, &disc); }, nothing)
                                     : per_call_us("discport." + label, RUNS,
                                                   [&] { status = SDGetDiscPortProperty(h, 0, index, 0, &disc); }, fresh_walk);
        result("discport." + label + ".us", us);
        result("discport." + label + ".status", status);
        const double tus = per_call_us("disctgt." + label, RUNS,
                                       [&] { status = SDGetDiscTargetProperty(h, 0, index, 0, &tgt); }, nothing);
        result("disctgt." + label + ".us", tus);
        result("disctgt." + label + ".status", status);
    }
    result("discport.index_last", last);

    // The port database with room for every remote port.
    const uint32_t entries = std::max<uint32_t>(port.DiscPortCount, 1) + 16;
    std::vector<uint8_t> buf(sizeof(DEVICEINFO) + entries * sizeof(DEVICEINFOENTRY));
    uint32_t status = 0;
    result("portdb.us", per_call_us("portdb", 21, [&] {
        status = SDGetPortDatabase(h, 0x1000, reinterpret_cast<DEVICEINFO*>(buf.data()), static_cast<SD_UINT32>(buf.size()));
    }, nothing));
    result("portdb.devices", reinterpret_cast<DEVICEINFO*>(buf.data())->TotalDevices);
    // The target/LUN list of the port, with room for every target.
    const uint32_t map = (inst->features & VX_FEAT_DRV_CAP4) ? TGT_LUN_MAP_LARGE : TGT_LUN_MAP_SMALL;
    std::vector<uint8_t> list(TGT_LUN_DATA_LIST_HEADER + entries * (map + TGT_LUN_DATA_ENTRY_HEADER));
    result("tgtlun.us", per_call_us("tgtlun", 21, [&] {
        uint32_t ext = 0;
        vxapi_get_tgt_lun_data_list(inst->oshandle, inst, reinterpret_cast<TGT_LUN_DATA_LIST*>(list.data()),
                                    static_cast<uint32_t>(list.size()), &ext);
    }, nothing));
    result("tgtlun.entries", reinterpret_cast<TGT_LUN_DATA_LIST*>(list.data())->EntryCount);
    // The same two by the floor.
    const uint32_t host_no = inst->host_no;
    result("floor_portdb.us", per_call_us("floor_portdb", 21, [&] {
        const int fd = open_host(host_no);
        floor_rports(fd, host_no);
        close(fd);
    }, nothing));
    result("floor_tgtlun.us", per_call_us("floor_tgtlun", 21, [&] {
        const int fd = open_host(host_no);
        floor_luns(fd, host_no, floor_rports(fd, host_no));
        close(fd);
    }, nothing));
    SDCloseDevice(h);
    vxapi_unload_lib();
}

// Best of `runs` walks, in seconds.
template <typename F>
double best_of(int runs, F&& walk, walk_counts& counts) {
    double best = 1e9;
    for (int i = 0; i < runs; ++i) {
        const auto t0 = clock_type::now();
        counts = walk();
        best = std::min(best, seconds_since(t0));
    }
    return best;
}

int inside(int runs) {
    // A load and unload first: what the process holds once loaded (the
    // simulator's own model included) is not the walk's.
    SDGetNumberOfAdapters();
    vxapi_unload_lib();
    const long rss_before = peak_rss_kib();
    walk_counts lib;
    result("walk.s", best_of(runs, library_walk, lib));
    result("walk.rss_kib", static_cast<double>(peak_rss_kib()));
    result("walk.rss_before_kib", static_cast<double>(rss_before));
    result("walk.ports", lib.ports);
    result("walk.disc_ports", lib.disc_ports);
    result("walk.targets", lib.targets);
    walk_counts fl;
    result("floor.s", best_of(runs, floor_walk, fl));
    result("floor.disc_ports", fl.disc_ports);
    hba_api api;
    std::string why;
    if (open_hba_api(api, why)) {
        walk_counts hc;
        {
            // The peer library complains on stderr about every PCI function
            // whose config space it cannot read; that is not ours to show.
            const quiet_stderr quiet;
            result("hba.s", best_of(runs, [&] { return hba_walk(api); }, hc));
        }
        result("hba.ports", hc.ports);
        result("hba.disc_ports", hc.disc_ports);
    } else {
        printf("N libhbalinux: %s\n", why.c_str());
    }
    per_call_costs();
    return 0;
}

// ---- Outside: one simulated host per scenario, then the table ----

std::map<std::string, double> run_scenario(const std::string& scenario, int runs) {
    std::map<std::string, double> out;
    int pipefd[2];
    if (pipe(pipefd) != 0)
        return out;
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(pipefd[1], STDOUT_FILENO);
        close(pipefd[0]);
        close(pipefd[1]);
        char self[4096];
        const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
        self[n > 0 ? n : 0] = '\0';
        const std::string file = std::string(VX_SCENARIOS) + "/" + scenario + ".json";
        const std::string r = std::to_string(runs);
#ifdef VXSIM_BIN
        execl(VXSIM_BIN, VXSIM_BIN, "run", "--scenario", file.c_str(), "--", self, "--inside", r.c_str(),
              static_cast<char*>(nullptr));
#endif
        _exit(127);
    }
    close(pipefd[1]);
    FILE* in = fdopen(pipefd[0], "r");
    char line[512];
    while (in && fgets(line, sizeof line, in)) {
        char key[256];
        double value = 0;
        if (sscanf(line, "R %255s %lf", key, &value) == 2)
            out[key] = value;
        else
            fputs(line, stdout);
    }
    if (in)
        fclose(in);
    int status = 0;
    waitpid(pid, &status, 0);
    return out;
}

std::string fmt_value(const std::map<std::string, double>& r, const std::string& key, const char* f, double scale = 1) {
    const auto it = r.find(key);
    if (it == r.end())
        return "-";
    char buf[64];
    snprintf(buf, sizeof buf, f, it->second * scale);
    return buf;
}

std::string ratio(const std::map<std::string, double>& r, const std::string& a, const std::string& b) {
    const auto x = r.find(a), y = r.find(b);
    if (x == r.end() || y == r.end() || y->second <= 0)
        return "-";
    char buf[32];
    snprintf(buf, sizeof buf, "%.2fx", x->second / y->second);
    return buf;
}

void table(const std::vector<std::string>& names, const std::vector<std::map<std::string, double>>& results) {
    struct row {
        std::string label;
        std::function<std::string(const std::map<std::string, double>&)> cell;
    };
    const std::vector<row> rows = {
        {"ports / discovered ports", [](auto& r) { return fmt_value(r, "walk.ports", "%.0f") + " / " + fmt_value(r, "walk.disc_ports", "%.0f"); }},
        {"  libhbalinux: ports / discovered ports", [](auto& r) { return fmt_value(r, "hba.ports", "%.0f") + " / " + fmt_value(r, "hba.disc_ports", "%.0f"); }},
        {"full walk, library (s)", [](auto& r) { return fmt_value(r, "walk.s", "%.3f"); }},
        {"full walk, libhbalinux (s)", [](auto& r) { return fmt_value(r, "hba.s", "%.3f"); }},
        {"full walk, floor (s)", [](auto& r) { return fmt_value(r, "floor.s", "%.3f"); }},
        {"library / libhbalinux", [](auto& r) { return ratio(r, "walk.s", "hba.s"); }},
        {"library / floor", [](auto& r) { return ratio(r, "walk.s", "floor.s"); }},
        {"peak RSS after one load (MiB)", [](auto& r) { return fmt_value(r, "walk.rss_before_kib", "%.1f", 1.0 / 1024); }},
        {"peak RSS after the walks (MiB)", [](auto& r) { return fmt_value(r, "walk.rss_kib", "%.1f", 1.0 / 1024); }},
        {"SDGetDiscPortProperty index 0 (us)", [](auto& r) { return fmt_value(r, "discport.0.us", "%.1f"); }},
        {"SDGetDiscPortProperty index 1 (us)", [](auto& r) { return fmt_value(r, "discport.1.us", "%.1f"); }},
        {"SDGetDiscPortProperty last index (us)", [](auto& r) { return fmt_value(r, "discport.last.us", "%.1f"); }},
        {"  last index", [](auto& r) { return fmt_value(r, "discport.index_last", "%.0f"); }},
        {"SDGetDiscTargetProperty tid 0 (us)", [](auto& r) { return fmt_value(r, "disctgt.0.us", "%.1f"); }},
        {"SDGetDiscTargetProperty tid 1 (us)", [](auto& r) { return fmt_value(r, "disctgt.1.us", "%.1f"); }},
        {"SDGetDiscTargetProperty last tid (us)", [](auto& r) { return fmt_value(r, "disctgt.last.us", "%.1f"); }},
        {"SDGetPortDatabase, one port (us)", [](auto& r) { return fmt_value(r, "portdb.us", "%.0f"); }},
        {"  floor (us)", [](auto& r) { return fmt_value(r, "floor_portdb.us", "%.0f"); }},
        {"  library / floor", [](auto& r) { return ratio(r, "portdb.us", "floor_portdb.us"); }},
        {"target/LUN list, one port (us)", [](auto& r) { return fmt_value(r, "tgtlun.us", "%.0f"); }},
        {"  floor (us)", [](auto& r) { return fmt_value(r, "floor_tgtlun.us", "%.0f"); }},
        {"  library / floor", [](auto& r) { return ratio(r, "tgtlun.us", "floor_tgtlun.us"); }},
        {"largest allocation: disc port index 0 (B)", [](auto& r) { return fmt_value(r, "discport.0.alloc", "%.0f"); }},
        {"largest allocation: disc port last (B)", [](auto& r) { return fmt_value(r, "discport.last.alloc", "%.0f"); }},
        {"largest allocation: disc target (B)", [](auto& r) { return fmt_value(r, "disctgt.0.alloc", "%.0f"); }},
        {"largest allocation: port database (B)", [](auto& r) { return fmt_value(r, "portdb.alloc", "%.0f"); }},
        {"largest allocation: target/LUN list (B)", [](auto& r) { return fmt_value(r, "tgtlun.alloc", "%.0f"); }},
    };
    printf("\n%-44s", "");
    for (const std::string& n : names)
        printf("%16s", n.c_str());
    printf("\n");
    for (const row& r : rows) {
        printf("%-44s", r.label.c_str());
        for (const auto& res : results)
            printf("%16s", r.cell(res).c_str());
        printf("\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && strcmp(argv[1], "--inside") == 0)
        return inside(argc >= 3 ? atoi(argv[2]) : 3);
    if (getenv("VXSIM_ROOT"))
        return inside(3);
    std::vector<std::string> names;
    for (int i = 1; i < argc; ++i)
        if (argv[i][0] != '-')
            names.emplace_back(argv[i]);
    if (names.empty())
        names = {"large", "huge"};
    std::vector<std::map<std::string, double>> results;
    for (const std::string& n : names)
        results.push_back(run_scenario(n, 3));
    table(names, results);
    return 0;
}
