// The shared database across processes of one simulated host: slot claims
// and the slot-0 reclaim, who removes the file and the semaphores, a killed
// lock holder, open counts that stay per process.
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>

#include "simtest.h"
#include "vsdmgt.h"

namespace {

namespace st = vxsim::test;

constexpr const char* SHARED_FILE = "/tmp/vx_shared.dat";
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

// A process of the host that loads the library, opens port 0 and keeps it
// open until told to go: then it closes (or, with `just_exit`, exits
// without closing).
class Holder {
public:
    explicit Holder(bool just_exit = false) {
        int ready[2], go[2];
        if (pipe(ready) != 0 || pipe(go) != 0)
            return;
        fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            close(ready[0]);
            close(go[1]);
            SD_UINT32 handle = 0;
            const char ok = SDOpenDevice(0, &handle) == 0 ? 'y' : 'n';
            (void)!write(ready[1], &ok, 1);
            char c;
            (void)!read(go[0], &c, 1);
            if (just_exit)
                _exit(0);
            _exit(SDCloseDevice(handle) == 0 ? 0 : 1);
        }
        close(ready[1]);
        close(go[0]);
        go_ = go[1];
        char ok = 'n';
        opened_ = read(ready[0], &ok, 1) == 1 && ok == 'y';
        close(ready[0]);
    }
    ~Holder() { finish(); }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

    bool opened() const { return opened_; }
    pid_t pid() const { return pid_; }

    // Lets it close and waits; its exit status.
    int finish() {
        if (pid_ <= 0)
            return -1;
        close(go_);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t pid_ = -1;
    int go_ = -1;
    bool opened_ = false;
};

}  // namespace

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

SIM_TEST(SharedDb, LastProcessRemovesFileAndSemaphores, "single.json") {
    Holder first;
    ASSERT_TRUE(first.opened());
    EXPECT_EQ(slot_flags(), (Flags{0x05, 0, 0, 0, 0, 0, 0, 0}));

    // A second process comes and goes while the first holds its slot.
    SD_UINT32 handle = 0;
    ASSERT_EQ(SDOpenDevice(0, &handle), 0u);
    EXPECT_EQ(slot_flags(), (Flags{0x05, 0x05, 0, 0, 0, 0, 0, 0}));
    ASSERT_EQ(SDCloseDevice(handle), 0u);
    EXPECT_TRUE(exists(SHARED_FILE));
    EXPECT_TRUE(sem_exists(829));
    EXPECT_TRUE(sem_exists(980));
    EXPECT_EQ(slot_flags(), (Flags{0x05, 0, 0, 0, 0, 0, 0, 0}));

    // The first was the last one left.
    EXPECT_EQ(first.finish(), 0);
    EXPECT_FALSE(exists(SHARED_FILE));
    EXPECT_FALSE(sem_exists(829));
    EXPECT_FALSE(sem_exists(980));
}

SIM_TEST(SharedDb, OpenCountsStayPerProcess, "default.json") {
    Holder other;
    ASSERT_TRUE(other.opened());
    // Handles are per process: the same port gets the same handle here too,
    // and this process's opens and closes do not touch the other's.
    SD_UINT32 a = 0, b = 0;
    ASSERT_EQ(SDOpenDevice(0, &a), 0u);
    ASSERT_EQ(SDOpenDevice(0, &b), 0u);
    EXPECT_EQ(a, 1u);
    EXPECT_EQ(b, a);
    EXPECT_EQ(SDCloseDevice(a), 0u);
    EXPECT_EQ(slot_flags()[1], 0x05u);  // still open once: still loaded
    EXPECT_EQ(SDCloseDevice(a), 0u);
    EXPECT_EQ(slot_flags()[1], 0u);     // unloaded
    EXPECT_EQ(SDCloseDevice(a), 0u);    // nothing open here any more
    EXPECT_EQ(other.finish(), 0);       // its handle is still good
}

SIM_TEST(SharedDb, KilledLockHolderDoesNotBlockOthers, "single.json") {
    ASSERT_EQ(SDGetNumberOfAdapters(), 1u);  // the database and its lock exist
    int held[2];
    ASSERT_EQ(pipe(held), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Takes the database lock the way the library does and dies with it.
        const int id = semget(829, 1, 0);
        sembuf op{0, -1, SEM_UNDO};
        const char ok = id != -1 && semop(id, &op, 1) == 0 ? 'y' : 'n';
        (void)!write(held[1], &ok, 1);
        for (;;)
            pause();
    }
    close(held[1]);
    char ok = 'n';
    ASSERT_EQ(read(held[0], &ok, 1), 1);
    ASSERT_EQ(ok, 'y');
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);

    // Another process loads, opens and closes; this one opens and closes.
    alarm(60);  // a lost lock would hang here: fail instead
    const auto results = st::run_children(1, [](int) {
        SD_UINT32 handle = 0;
        return SDGetNumberOfAdapters() == 1 && SDOpenDevice(0, &handle) == 0 && SDCloseDevice(handle) == 0 ? 0 : 1;
    });
    EXPECT_EQ(results, std::vector<int>{0});
    SD_UINT32 handle = 0;
    EXPECT_EQ(SDOpenDevice(0, &handle), 0u);
    EXPECT_EQ(SDCloseDevice(handle), 0u);
    alarm(0);
}
