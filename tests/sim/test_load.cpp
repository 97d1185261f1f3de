// Library load, open and close in simulated hosts: what a sysfs host opens,
// hosts without root, the control node or System V IPC, handles and instance
// numbers, and the shared database across processes.
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "libtest.h"
#include "vsdmgt.h"

namespace {

namespace st = vxsim::test;

constexpr const char* SHARED_FILE = "/tmp/vx_shared.dat";
constexpr uint32_t DEFAULT_PORTS = 4;  // default.json: Egret, dual-port Swift and its NPIV port

std::string one_port_host(const char* options) {
    return std::string(R"({"name": "one-port", "options": )") + options + R"(,
      "adapters": [{"id": "plover0", "device_id": "0x2050", "serial_number": "VXP20500001",
        "functions": [{"pci_address": "0000:04:00.0", "port": {"host_no": 1, "wwpn": "21:00:00:1d:5a:02:50:01"}}]}]})";
}
const std::string NOT_ROOT = one_port_host(R"({"euid": 1000})");
const std::string NO_CONTROL_NODE = one_port_host(R"({"control_node": false})");

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
bool contains(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

// Every System V semaphore call of this process answers ENOSYS, as on a
// kernel built without IPC. Irreversible, so for a child; false where the
// filter cannot be installed.
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

bool netlink_journal_has(const nlohmann::json& wanted) {
    const std::vector<nlohmann::json> entries = st::journal("netlink");
    return std::any_of(entries.begin(), entries.end(), [&](const nlohmann::json& e) {
        return std::all_of(wanted.items().begin(), wanted.items().end(),
                           [&](const auto& kv) { return e.contains(kv.key()) && e[kv.key()] == kv.value(); });
    });
}

}  // namespace

SIM_TEST(Load, SysfsHostOpensNetlinkAndTheControlNode, "default.json") {
    ASSERT_EQ(SDGetNumberOfAdapters(), DEFAULT_PORTS);
    // Both event sockets bound to this process; the FC events group joined.
    const int pid = static_cast<int>(getpid());
    EXPECT_TRUE(netlink_journal_has({{"op", "bind"}, {"protocol", 20}, {"nl_pid", pid}, {"groups", 0}, {"result", 0}}));
    EXPECT_TRUE(netlink_journal_has({{"op", "bind"}, {"protocol", 18}, {"nl_pid", pid}, {"groups", 4}, {"result", 0}}));
    EXPECT_TRUE(
        netlink_journal_has({{"op", "setsockopt"}, {"protocol", 18}, {"level", 270}, {"name", 1}, {"value", 4}}));

    // The control node carries the numbers its class entry announces.
    unsigned want_major = 0, want_minor = 0;
    ASSERT_EQ(sscanf(st::read_text("/sys/class/vxfcapidev/vxfcapidev/dev").c_str(), "%u:%u", &want_major, &want_minor),
              2);
    struct stat node {};
    ASSERT_EQ(stat("/dev/vxfcapidev", &node), 0);
    EXPECT_EQ(node.st_mode & (S_IFMT | 0777), S_IFCHR | 0600u);
    EXPECT_EQ(node.st_rdev, makedev(want_major, want_minor));

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
    EXPECT_EQ(handle, 0x55);
    EXPECT_FALSE(exists(SHARED_FILE));
    for (int key : {1054, 980, 829})
        EXPECT_FALSE(sem_exists(key)) << key;
    EXPECT_TRUE(st::journal("netlink").empty());
    EXPECT_TRUE(contains(st::read_text(st::TRACE_LOG),
                         "libvxsdm: ERROR - libvxsdm must be loaded with root privileges.\n"));
}

SIM_TEST(Load, HandlesAndInstanceNumbers, "default.json") {
    int first = 0, second = 0, none = 0x77;
    ASSERT_EQ(SDOpenDevice(0, &first), 0u);
    ASSERT_EQ(SDOpenDevice(1, &second), 0u);
    EXPECT_EQ(SDOpenDevice(DEFAULT_PORTS, &none), 0x2000006Du);  // one past the end
    EXPECT_EQ(none, 0x77);

    for (int bad : {0, static_cast<int>(DEFAULT_PORTS) + 1})  // never a handle, unknown
        EXPECT_EQ(SDCloseDevice(bad), 0x20000065u) << bad;
    EXPECT_EQ(SDCloseDevice(first), 0u);
    EXPECT_EQ(SDCloseDevice(first), 0x20000065u);  // closed
    EXPECT_TRUE(exists(SHARED_FILE));              // the second port keeps the library loaded

    EXPECT_EQ(SDCloseDevice(second), 0u);  // the last close unloads, the last instance cleans up
    EXPECT_FALSE(exists(SHARED_FILE));
    EXPECT_FALSE(sem_exists(829));
    EXPECT_FALSE(sem_exists(980));
    // The next open discovers afresh: a handle means the same port again.
    int again = 0;
    ASSERT_EQ(SDOpenDevice(1, &again), 0u);
    EXPECT_EQ(again, second);
    EXPECT_EQ(SDCloseDevice(again), 0u);
}

SIM_TEST(Load, HostWithoutSystemVIpcCountsButDoesNotOpen, "default.json") {
    const std::vector<int> results = st::run_children(1, [](int) {
        if (!deny_sysv_semaphores())
            return 77;
        int handle = 0;
        if (SDGetNumberOfAdapters() != DEFAULT_PORTS)
            return 1;
        if (SDOpenDevice(0, &handle) != 0x20000066u || SDCloseDevice(1) != 0x20000066u)
            return 2;
        return exists(SHARED_FILE) ? 3 : 0;
    });
    ASSERT_EQ(results.size(), 1u);
    if (results[0] == 77)
        GTEST_SKIP() << "seccomp filters are not available here";
    EXPECT_EQ(results[0], 0);
    EXPECT_TRUE(contains(st::read_text(st::TRACE_LOG), "libvxsdm: WARNING - semget function not supported.\n Failed "
                                                       "creation of thread semaphore. errno=38\n"));
}

// Clients in other processes that load and stay loaded until released (or
// killed), as management tools and agents do.
class LiveClients {
public:
    explicit LiveClients(int n) {
        for (int i = 0; i < n && ok_; ++i) {
            int go[2], ready[2];
            if (pipe(go) != 0 || pipe(ready) != 0) {
                ok_ = false;
                break;
            }
            fflush(nullptr);
            const pid_t pid = fork();
            if (pid == 0) {
                char c = SDGetNumberOfAdapters() == 1 ? 'y' : 'n';
                if (write(ready[1], &c, 1) != 1 || read(go[0], &c, 1) != 1)
                    _exit(1);
                _exit(0);  // ends loaded: its slot stays claimed
            }
            char c = 0;
            ok_ = pid > 0 && read(ready[0], &c, 1) == 1 && c == 'y';
            close(ready[0]);
            close(ready[1]);
            close(go[0]);
            clients_.push_back({pid, go[1]});
        }
    }
    ~LiveClients() { release(); }
    bool ok() const { return ok_; }
    void release() {
        // A byte, not end of file: later clients inherited the earlier ones' pipes.
        for (const auto& [pid, go] : clients_)
            if (write(go, "g", 1) != 1)
                kill(pid, SIGKILL);
        for (const auto& [pid, go] : clients_) {
            close(go);
            waitpid(pid, nullptr, 0);
        }
        clients_.clear();
    }

private:
    std::vector<std::pair<pid_t, int>> clients_;
    bool ok_ = true;
};

SIM_TEST(SharedDb, NinthLiveProcessReclaimsSlotZero, "single.json") {
    {
        LiveClients eight(8);
        ASSERT_TRUE(eight.ok());
        EXPECT_EQ(slot_flags(), (Flags{0x05, 0x05, 0x05, 0x05, 0x05, 0x05, 0x05, 0x05}));
        // The ninth takes slot 0 and the others lose their claim.
        ASSERT_EQ(SDGetNumberOfAdapters(), 1u);
        EXPECT_EQ(slot_flags(), (Flags{0x05, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01}));
        EXPECT_TRUE(contains(st::read_text(st::TRACE_LOG), "libvxsdm: INFO - Assigning lib instance number to 0.\n"));
    }
    // The eight ended without unloading: the ninth, alive, keeps slot 0.
    int handle = 0;
    ASSERT_EQ(SDOpenDevice(0, &handle), 0u);
    EXPECT_EQ(slot_flags(), (Flags{0x05, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01}));
    ASSERT_EQ(SDCloseDevice(handle), 0u);  // the last live client: nothing is left
    EXPECT_FALSE(exists(SHARED_FILE));
    for (int key : {1054, 980, 829})
        EXPECT_FALSE(sem_exists(key)) << key;
}

SIM_TEST(SharedDb, OnlyTheLastLiveInstanceRemovesTheSharedState, "single.json") {
    LiveClients other(1);
    ASSERT_TRUE(other.ok());
    int handle = 0;
    ASSERT_EQ(SDOpenDevice(0, &handle), 0u);
    EXPECT_EQ(slot_flags(), (Flags{0x05, 0x05, 0, 0, 0, 0, 0, 0}));
    ASSERT_EQ(SDCloseDevice(handle), 0u);  // unloads, but is not the last instance
    EXPECT_TRUE(exists(SHARED_FILE));
    EXPECT_TRUE(sem_exists(829));
    EXPECT_TRUE(sem_exists(980));
    EXPECT_EQ(slot_flags(), (Flags{0x05, 0, 0, 0, 0, 0, 0, 0}));

    // It ends without unloading: the next client takes its slot and, as the
    // last one alive, removes everything.
    other.release();
    ASSERT_EQ(SDOpenDevice(0, &handle), 0u);
    EXPECT_EQ(slot_flags(), (Flags{0x05, 0, 0, 0, 0, 0, 0, 0}));
    ASSERT_EQ(SDCloseDevice(handle), 0u);
    EXPECT_FALSE(exists(SHARED_FILE));
    for (int key : {1054, 980, 829})
        EXPECT_FALSE(sem_exists(key)) << key;
}
