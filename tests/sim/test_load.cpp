// Library load, open and close in simulated hosts, through the exported SD
// interface: what a sysfs host opens, hosts without root, without the control
// node or without System V IPC, handles and instance numbers, and the shared
// database across processes (slot claims, who removes the shared state).
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "simtest.h"
#include "vsdmgt.h"

namespace {

namespace st = vxsim::test;

constexpr const char* SHARED_FILE = "/tmp/vx_shared.dat";
constexpr const char* TRACE_LOG = "/usr/lib/libvxsdm.log";

// One single-port adapter; the options are spliced in.
std::string one_port_host(const char* options) {
    return std::string(R"({"name": "one-port", "options": )") + options + R"(,
      "adapters": [{"id": "plover0", "device_id": "0x2050", "subsystem_device_id": "0x0250",
        "serial_number": "VXP20500001",
        "functions": [{"pci_address": "0000:04:00.0",
          "port": {"host_no": 1, "wwnn": "20:00:00:1d:5a:02:50:01", "wwpn": "21:00:00:1d:5a:02:50:01",
                   "port_id": "0x010100"}}]}]})";
}

const std::string NOT_ROOT = one_port_host(R"({"euid": 1000})");
const std::string NO_CONTROL_NODE = one_port_host(R"({"control_node": false})");

uint32_t scenario_ports() {
    uint32_t n = 0;
    for (const auto& a : st::scenario().adapters)
        for (const auto& f : a.functions)
            n += 1 + static_cast<uint32_t>(f.vports.size());
    return n;
}

using Flags = std::array<uint32_t, 8>;

Flags slot_flags() {
    Flags flags{};
    const std::vector<uint8_t> bytes = st::read_bytes(SHARED_FILE);
    if (bytes.size() >= sizeof flags)
        memcpy(flags.data(), bytes.data(), sizeof flags);
    return flags;
}

bool exists(const char* path) { return access(path, F_OK) == 0; }

bool sem_exists(int key) { return semget(key, 1, 0) != -1; }

std::string log_text() {
    std::string text;
    if (FILE* fp = fopen(TRACE_LOG, "re")) {
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, fp)) > 0)
            text.append(buf, n);
        fclose(fp);
    }
    return text;
}

// A host without System V IPC for one process: every semaphore call answers
// ENOSYS, as on a kernel built without it. Irreversible: for a child process. False where the filter cannot
// be installed (unknown architecture, seccomp unavailable).
bool deny_sysv_semaphores() {
#if defined(__x86_64__)
    constexpr uint32_t arch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
    constexpr uint32_t arch = AUDIT_ARCH_AARCH64;
#else
    return false;
#endif
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, arch, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_semget, 4, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_semop, 3, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_semtimedop, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_semctl, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
    };
    sock_fprog prog{static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog) == 0;
}

bool journal_has(const nlohmann::json& wanted) {
    for (const nlohmann::json& entry : st::journal("netlink")) {
        bool all = true;
        for (const auto& [key, value] : wanted.items())
            all = all && entry.contains(key) && entry[key] == value;
        if (all)
            return true;
    }
    return false;
}

}  // namespace

SIM_TEST(Load, SysfsHostOpensNetlinkAndTheControlNode, "default.json") {
    const uint32_t ports = scenario_ports();
    ASSERT_GT(ports, 1u);
    ASSERT_EQ(SDGetNumberOfAdapters(), ports);

    // Both event sockets, bound to this process; the FC events group joined.
    const int pid = static_cast<int>(getpid());
    EXPECT_TRUE(journal_has({{"op", "bind"}, {"protocol", 20}, {"nl_pid", pid}, {"groups", 0}, {"result", 0}}));
    EXPECT_TRUE(journal_has({{"op", "bind"}, {"protocol", 18}, {"nl_pid", pid}, {"groups", 4}, {"result", 0}}));
    EXPECT_TRUE(journal_has({{"op", "setsockopt"}, {"protocol", 18}, {"level", 270}, {"name", 1}, {"value", 4}}));

    // The control node carries the numbers its class entry announces.
    unsigned want_major = 0, want_minor = 0;
    ASSERT_EQ(sscanf(st::read_text("/sys/class/vxfcapidev/vxfcapidev/dev").c_str(), "%u:%u", &want_major, &want_minor),
              2);
    struct stat node {};
    ASSERT_EQ(stat("/dev/vxfcapidev", &node), 0);
    EXPECT_TRUE(S_ISCHR(node.st_mode));
    EXPECT_EQ(node.st_mode & 0777, 0600u);
    EXPECT_EQ(major(node.st_rdev), want_major);
    EXPECT_EQ(minor(node.st_rdev), want_minor);

    struct stat shared {};
    ASSERT_EQ(stat(SHARED_FILE, &shared), 0);
    EXPECT_EQ(shared.st_size, 262144);
}

SIM_TEST(Load, HostWithoutControlNodeStillLoads, NO_CONTROL_NODE.c_str()) {
    EXPECT_EQ(SDGetNumberOfAdapters(), 1u);
    EXPECT_FALSE(exists("/dev/vxfcapidev"));
    int handle = 0;
    EXPECT_EQ(SDOpenDevice(0, &handle), 0u);
    EXPECT_EQ(SDCloseDevice(handle), 0u);
}

SIM_TEST(Load, NotRootEveryLoadFails, NOT_ROOT.c_str()) {
    EXPECT_EQ(SDGetNumberOfAdapters(), 0u);
    int handle = 0x55;
    EXPECT_EQ(SDOpenDevice(0, &handle), 0x20000075u);
    EXPECT_EQ(SDOpenDevice(0, &handle), 0x20000075u);  // every load fails, not just the first
    EXPECT_EQ(handle, 0x55u);
    EXPECT_FALSE(exists(SHARED_FILE));
    for (int key : {1054, 980, 829})
        EXPECT_FALSE(sem_exists(key)) << key;
    EXPECT_TRUE(st::journal("netlink").empty());
    EXPECT_NE(log_text().find("libvxsdm: ERROR - libvxsdm must be loaded with root privileges.\n"), std::string::npos);
}

SIM_TEST(Load, HandlesAndInstanceNumbers, "default.json") {
    const uint32_t ports = scenario_ports();
    int first = 0, second = 0, none = 0x77;
    ASSERT_EQ(SDOpenDevice(0, &first), 0u);
    ASSERT_EQ(SDOpenDevice(1, &second), 0u);
    EXPECT_EQ(SDOpenDevice(ports, &none), 0x2000006Du);       // one past the end
    EXPECT_EQ(SDOpenDevice(ports + 100, &none), 0x2000006Du);
    EXPECT_EQ(none, 0x77u);

    EXPECT_EQ(SDCloseDevice(0), 0x20000065u);          // never a handle
    EXPECT_EQ(SDCloseDevice(ports + 1), 0x20000065u);  // unknown
    EXPECT_EQ(SDCloseDevice(first), 0u);
    EXPECT_EQ(SDCloseDevice(first), 0x20000065u);      // closed
    EXPECT_TRUE(exists(SHARED_FILE));                  // the second port keeps the library loaded

    EXPECT_EQ(SDCloseDevice(second), 0u);              // the last close unloads, the last instance cleans up
    EXPECT_FALSE(exists(SHARED_FILE));
    EXPECT_FALSE(sem_exists(829));
    EXPECT_FALSE(sem_exists(980));
    // The next open discovers afresh: handles mean the same again.
    int again = 0;
    ASSERT_EQ(SDOpenDevice(1, &again), 0u);
    EXPECT_EQ(again, second);
    EXPECT_EQ(SDCloseDevice(again), 0u);
}

SIM_TEST(Load, HostWithoutSystemVIpcCountsButDoesNotOpen, "default.json") {
    const uint32_t ports = scenario_ports();
    const auto results = st::run_children(1, [ports](int) {
        if (!deny_sysv_semaphores())
            return 77;
        if (SDGetNumberOfAdapters() != ports)
            return 1;
        int handle = 0;
        if (SDOpenDevice(0, &handle) != 0x20000066u)
            return 2;
        if (SDCloseDevice(1) != 0x20000066u)
            return 3;
        if (exists(SHARED_FILE))
            return 4;
        return 0;
    });
    ASSERT_EQ(results.size(), 1u);
    if (results[0] == 77)
        GTEST_SKIP() << "seccomp filters are not available here";
    EXPECT_EQ(results[0], 0);
    EXPECT_NE(log_text().find("libvxsdm: WARNING - semget function not supported.\n Failed creation of thread "
                              "semaphore. errno=38\n"),
              std::string::npos);
}

SIM_TEST(SharedDb, NinthProcessReclaimsSlotZero, "single.json") {
    // Eight processes load in turn and end without unloading: their slots stay claimed.
    for (int i = 0; i < 8; ++i) {
        const auto results = st::run_children(1, [](int) { return SDGetNumberOfAdapters() == 1 ? 0 : 1; });
        ASSERT_EQ(results, std::vector<int>{0}) << "process " << i;
        Flags expected{};
        for (int s = 0; s <= i; ++s)
            expected[s] = 0x05;
        EXPECT_EQ(slot_flags(), expected) << "after process " << i;
    }
    // The ninth takes slot 0 and the others lose their claim.
    ASSERT_EQ(SDGetNumberOfAdapters(), 1u);
    EXPECT_EQ(slot_flags(), (Flags{0x05, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01}));
    EXPECT_NE(st::read_text("/usr/lib/libvxsdm.log").find("libvxsdm: INFO - Assigning lib instance number to 0.\n"),
              std::string::npos);
}

SIM_TEST(SharedDb, OnlyTheLastInstanceRemovesTheSharedState, "single.json") {
    // Another process loads and ends without unloading: its slot stays claimed.
    ASSERT_EQ(st::run_children(1, [](int) { return SDGetNumberOfAdapters() == 1 ? 0 : 1; }), std::vector<int>{0});

    int handle = 0;
    ASSERT_EQ(SDOpenDevice(0, &handle), 0u);
    EXPECT_EQ(slot_flags(), (Flags{0x05, 0x05, 0, 0, 0, 0, 0, 0}));
    ASSERT_EQ(SDCloseDevice(handle), 0u);  // unloads, but is not the last instance
    EXPECT_TRUE(exists(SHARED_FILE));
    EXPECT_TRUE(sem_exists(829));
    EXPECT_TRUE(sem_exists(980));
    EXPECT_EQ(slot_flags(), (Flags{0x05, 0, 0, 0, 0, 0, 0, 0}));
}
