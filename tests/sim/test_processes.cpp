// Many clients of one simulated host at once: load, open, close and unload
// in a loop, some killed, some sent a termination signal, and semaphore sets
// and shared files left by another user. Linked with the library's core, so
// that each cycle can check the lock and the slot it was given.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "libtest.h"
#include "vsdmgt.h"
#include "vx_core.h"

namespace {

namespace st = vxsim::test;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* SHARED_FILE = "/tmp/vx_shared.dat";
constexpr int LOCK_KEYS[] = {VX_SEM_KEY_THREAD, VX_SEM_KEY_FLASH, VX_SEM_KEY_DBUPDATE};

enum Failure { COUNT, LOCK_GONE, FILE_GONE, NOT_HELD, NOT_EXCLUSIVE, SLOT_SHARED, OWNER_MISSING, OPEN_CLOSE, KINDS };
constexpr const char* FAILURE_NAMES[KINDS] = {
    "count",           "lock not the key's set", "file not the named one", "lock not taken", "lock not exclusive",
    "slot shared while one was free or dead", "own slot owner missing", "open or close"};
constexpr int MAX_CLIENTS = 8;

// Counters shared by the forked clients and the test.
struct Board {
    std::atomic<uint32_t> inside;  // pid of the client inside the database lock, 0 when none
    std::atomic<bool> stop;
    std::atomic<uint64_t> cycles[MAX_CLIENTS];
    std::atomic<uint64_t> failures[KINDS];
};

// The simulated host shortens sleeps; the test's own pacing needs real time.
void real_sleep(std::chrono::milliseconds d) { poll(nullptr, 0, static_cast<int>(d.count())); }

Board* new_board() {
    void* p = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : new (p) Board{};
}

bool same_file(int fd, const char* path) {
    struct stat a {}, b {};
    return fstat(fd, &a) == 0 && stat(path, &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// A client killed inside the lock gives it back (SEM_UNDO) a moment before
// it shows as ended in /proc: a live one never ends by itself here.
bool ends_soon(uint32_t pid) {
    for (int i = 0; i < 100; ++i) {
        if (!vxapi_owner_alive({pid, 0, 0}))
            return true;
        real_sleep(1ms);
    }
    return false;
}

// Under the database lock: no two live clients share a slot while a slot is
// free or held only by the dead, and our own record names our slot.
void check_slots(Board* board) {
    const vxapi_shared_t* shared = api_shared_data;
    int live[VX_LIBINST_SLOTS] = {};
    bool own = false;
    const uint32_t me = static_cast<uint32_t>(getpid());
    for (const vxapi_libinst_owner& o : shared->libinst_owner) {
        if (o.pid == 0 || o.slot >= VX_LIBINST_SLOTS || !vxapi_owner_alive(o))
            continue;
        ++live[o.slot];
        own |= o.pid == me && o.slot == api_library_instance;
    }
    bool shared_slot = false, free_or_dead = false;
    for (uint32_t s = 0; s < VX_LIBINST_SLOTS; ++s) {
        shared_slot |= live[s] > 1;
        free_or_dead |= live[s] == 0;
    }
    if (shared_slot && free_or_dead)
        board->failures[SLOT_SHARED]++;
    if (!own)
        board->failures[OWNER_MISSING]++;
}

// One client cycle: load, check the lock, the file and the slot, open and
// close a port (the last close unloads).
void cycle(Board* board, int client) {
    if (SDGetNumberOfAdapters() != 1) {
        board->failures[COUNT]++;
        return;
    }
    if (semget(VX_SEM_KEY_DBUPDATE, 1, 0) != api_dbupdate_sem_id)
        board->failures[LOCK_GONE]++;
    if (!same_file(api_shm_fildes, SHARED_FILE))
        board->failures[FILE_GONE]++;
    {
        vxapi_sem_hold hold(api_dbupdate_sem_id, VX_SEM_KEY_DBUPDATE);
        const uint32_t me = static_cast<uint32_t>(getpid());
        // Someone else inside counts unless it was killed there (the kernel gave its lock back).
        const uint32_t before = board->inside.exchange(me);
        if (!hold.held())
            board->failures[NOT_HELD]++;
        else if (before != 0 && !ends_soon(before))
            board->failures[NOT_EXCLUSIVE]++;
        check_slots(board);
        std::this_thread::sleep_for(200us);
        uint32_t still_me = me;
        board->inside.compare_exchange_strong(still_me, 0);
    }
    int handle = 0;
    if (SDOpenDevice(0, &handle) != 0 || SDCloseDevice(handle) != 0) {
        board->failures[OPEN_CLOSE]++;
        if (vxapi_lib_loaded())
            vxapi_unload_lib();
    }
    board->cycles[client]++;
}

pid_t start_client(Board* board, int client, bool handlers) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        if (handlers)
            vxapi_setup_signal_handlers();
        while (!board->stop)
            cycle(board, client);
        _exit(0);
    }
    return pid;
}

std::vector<pid_t> start_clients(Board* board, int n, bool handlers) {
    std::vector<pid_t> clients;
    for (int i = 0; i < n; ++i)
        clients.push_back(start_client(board, i, handlers));
    return clients;
}

uint64_t total_cycles(const Board* board) {
    uint64_t n = 0;
    for (const auto& c : board->cycles)
        n += c;
    return n;
}

void expect_no_failures(const Board* board) {
    for (int k = 0; k < KINDS; ++k)
        EXPECT_EQ(board->failures[k].load(), 0u) << FAILURE_NAMES[k];
}

void expect_nothing_left() {
    EXPECT_NE(access(SHARED_FILE, F_OK), 0) << SHARED_FILE;
    for (int key : LOCK_KEYS)
        EXPECT_EQ(semget(key, 1, 0), -1) << "key " << key;
}

// Stops the clients and collects their exit statuses.
void stop_all(Board* board, const std::vector<pid_t>& clients) {
    board->stop = true;
    for (pid_t pid : clients) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "client " << pid << " status " << status;
    }
}

// Waits up to `limit` for a client to end; its wait status, or -1.
int wait_for_end(pid_t pid, std::chrono::milliseconds limit, Clock::duration* took) {
    const auto start = Clock::now();
    for (;;) {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) {
            *took = Clock::now() - start;
            return status;
        }
        if (Clock::now() - start > limit)
            return -1;
        real_sleep(2ms);
    }
}

double ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

}  // namespace

SIM_TEST(Processes, EightClientsCycleAndLeaveNothing, "single.json") {
    Board* board = new_board();
    ASSERT_NE(board, nullptr);
    std::vector<pid_t> clients = start_clients(board, MAX_CLIENTS, false);
    real_sleep(8s);
    stop_all(board, clients);
    uint64_t failures = 0;
    for (const auto& f : board->failures)
        failures += f;
    printf("stress: %d clients, %llu cycles, %llu failures\n", MAX_CLIENTS,
           static_cast<unsigned long long>(total_cycles(board)), static_cast<unsigned long long>(failures));
    EXPECT_GT(total_cycles(board), uint64_t{MAX_CLIENTS});
    for (int i = 0; i < MAX_CLIENTS; ++i)
        EXPECT_GT(board->cycles[i].load(), 0u) << "client " << i;
    expect_no_failures(board);
    expect_nothing_left();
}

SIM_TEST(Processes, KilledClientsAreReclaimedByTheNextOne, "single.json") {
    Board* board = new_board();
    ASSERT_NE(board, nullptr);
    constexpr int CLIENTS = 6;
    std::vector<pid_t> clients = start_clients(board, CLIENTS, false);
    std::mt19937 random(1009);  // fixed: the same kill points every run
    int kills = 0;
    for (const auto end = Clock::now() + 4s; Clock::now() < end; ++kills) {
        real_sleep(std::chrono::milliseconds(10 + random() % 150));
        const int victim = static_cast<int>(random() % CLIENTS);
        kill(clients[victim], SIGKILL);
        waitpid(clients[victim], nullptr, 0);
        clients[victim] = start_client(board, victim, false);
    }
    stop_all(board, clients);
    printf("kill -9: %d kills, %llu cycles\n", kills, static_cast<unsigned long long>(total_cycles(board)));
    expect_no_failures(board);

    // A fresh client gets a slot of its own; nothing of the killed stays.
    ASSERT_EQ(SDGetNumberOfAdapters(), 1u);
    ASSERT_NE(api_shared_data, nullptr);
    for (uint32_t s = 0; s < VX_LIBINST_SLOTS; ++s)
        EXPECT_EQ(api_shared_data->libinst_flags[s], s == api_library_instance ? 0x05u : 0u) << "slot " << s;
    int owners = 0;
    for (const vxapi_libinst_owner& o : api_shared_data->libinst_owner)
        owners += o.pid != 0;
    EXPECT_EQ(owners, 1);
    int handle = 0;
    ASSERT_EQ(SDOpenDevice(0, &handle), 0u);
    ASSERT_EQ(SDCloseDevice(handle), 0u);
    expect_nothing_left();
}

SIM_TEST(Processes, TerminationSignalEndsAClientWithinASecondOthersGoOn, "single.json") {
    Board* board = new_board();
    ASSERT_NE(board, nullptr);
    constexpr int CLIENTS = 4;
    std::vector<pid_t> clients = start_clients(board, CLIENTS, true);
    std::mt19937 random(2003);
    Clock::duration slowest{};
    for (int round = 0; round < 16; ++round) {
        SCOPED_TRACE(round);
        real_sleep(std::chrono::milliseconds(5 + random() % 120));
        const int victim = static_cast<int>(random() % CLIENTS);
        kill(clients[victim], SIGTERM);
        Clock::duration took{};
        const int status = wait_for_end(clients[victim], 1000ms, &took);
        if (status == -1) {  // would hang: end it so the test can report
            kill(clients[victim], SIGKILL);
            waitpid(clients[victim], nullptr, 0);
            ADD_FAILURE() << "client did not end within a second of SIGTERM";
        } else {
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << "status " << status;
            slowest = std::max(slowest, took);
        }
        clients[victim] = start_client(board, victim, true);
    }
    // The others go on: every client cycles after the last termination.
    uint64_t before[CLIENTS];
    for (int i = 0; i < CLIENTS; ++i)
        before[i] = board->cycles[i];
    real_sleep(500ms);
    for (int i = 0; i < CLIENTS; ++i)
        EXPECT_GT(board->cycles[i].load(), before[i]) << "client " << i;
    stop_all(board, clients);
    printf("SIGTERM: 16 terminations, slowest end %.1f ms, %llu cycles\n", ms(slowest),
           static_cast<unsigned long long>(total_cycles(board)));
    expect_no_failures(board);
    expect_nothing_left();
}

// Objects another user planted under the library's names are refused with a
// trace line, never waited on; vxcli names what to remove.
SIM_TEST(Processes, ForeignSetsAndFileAreRefusedNeverWaitedOn, "single.json") {
    constexpr uid_t OTHER_USER = 1000;
    struct Planted {
        const char* name;
        int key;  // 0: the shared file
        std::string hint;
    };
    const Planted cases[] = {
        {"thread lock", VX_SEM_KEY_THREAD, "ipcrm -S 0x0000041e"},
        {"flash lock", VX_SEM_KEY_FLASH, "ipcrm -S 0x000003d4"},
        {"database lock", VX_SEM_KEY_DBUPDATE, "ipcrm -S 0x0000033d"},
        {"shared file", 0, "rm /tmp/vx_shared.dat"},
    };
    for (const Planted& c : cases) {
        SCOPED_TRACE(c.name);
        // Another user's set at value 0 would hang a waiter; its file is not root's.
        const std::vector<int> planted = st::run_children(1, [&](int) {
            if (setresuid(OTHER_USER, OTHER_USER, OTHER_USER) != 0)
                return 1;
            if (c.key == 0) {
                const int fd = open(SHARED_FILE, O_CREAT | O_EXCL | O_WRONLY, 0666);
                return fd >= 0 && ftruncate(fd, 262144) == 0 ? 0 : 2;
            }
            const int id = semget(c.key, 1, IPC_CREAT | IPC_EXCL | 0666);
            return id != -1 && semctl(id, 0, SETVAL, 0) == 0 ? 0 : 3;
        });
        ASSERT_EQ(planted, std::vector<int>{0});

        const std::vector<int> refused = st::run_children(1, [](int) {
            alarm(20);  // a hang ends the child by SIGALRM instead of the test
            int handle = 0;
            if (SDGetNumberOfAdapters() != 0)
                return 1;
            return SDOpenDevice(0, &handle) == 0x20000075u ? 0 : 2;
        });
        EXPECT_EQ(refused, std::vector<int>{0});
        const std::string log = st::read_text(st::TRACE_LOG);
        if (c.key != 0) {
            EXPECT_NE(log.find("vxapi_sem_get: refusing semaphore set key 0x"), std::string::npos);
        } else {
            EXPECT_NE(log.find("vxapi_open_database: refusing /tmp/vx_shared.dat: not owned by root."), std::string::npos);
        }

        const st::Output out = st::run({st::vxcli_binary(), "list"});
        EXPECT_EQ(out.status, 3) << out.text;
        EXPECT_NE(out.text.find(c.hint), std::string::npos) << out.text;

        // Removed as told, the next client loads.
        if (c.key == 0) {
            ASSERT_EQ(unlink(SHARED_FILE), 0);
        } else {
            ASSERT_EQ(semctl(semget(c.key, 1, 0), 0, IPC_RMID), 0);
        }
        EXPECT_EQ(st::run_children(1, [](int) { return SDGetNumberOfAdapters() == 1 ? 0 : 1; }), std::vector<int>{0});
        for (int key : LOCK_KEYS)  // what the refused loads made, for the next case
            if (const int id = semget(key, 1, 0); id != -1)
                semctl(id, 0, IPC_RMID);
        unlink(SHARED_FILE);
    }
}
