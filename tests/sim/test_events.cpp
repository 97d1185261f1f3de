// Events among processes: one injected event reaches each process that had
// the library loaded exactly once, whichever path carries it, and not a
// process loaded after it; a process killed while its event pass holds the
// database lock does not stop the others' delivery.
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "libtest.h"
#include "vsdmgt.h"

namespace {

namespace st = vxsim::test;

constexpr uint32_t PORT = 1;  // host2 in both scenarios
constexpr int LISTENERS = 3;

struct Board {
    std::atomic<int> ready;
    std::atomic<bool> injected;
};

Board* new_board() {
    void* p = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : new (p) Board{};
}

// The simulated host shortens sleeps; the pacing here needs real time.
void real_sleep(int ms) { poll(nullptr, 0, ms); }

// Loads the library, switches events on, says it is ready, and counts the
// link-down events that arrive within `ms` real milliseconds of the
// injection (many event passes, with sleeps shortened). The exit status is
// the count, or 100 + a step that failed.
int listen(Board* board, int ms) {
    int h = 0;
    if (SDOpenDevice(PORT, &h) != 0)
        return 101;
    if (SDEnableAen(h) != 0)
        return 102;
    board->ready.fetch_add(1);
    while (!board->injected)
        real_sleep(2);
    int seen = 0;
    for (int waited = 0; waited < ms; waited += 10) {
        ASYNCEVENT ev[16];
        SD_UINT32 count = 0;
        if (SDGetAen(h, ev, sizeof ev, &count) != 0)
            return 103;
        for (SD_UINT32 i = 0; i < count; ++i)
            seen += ev[i].EventCode == SDM_AEN_LINK_DOWN;
        real_sleep(10);
    }
    SDCloseDevice(h);
    return seen;
}

void wait_ready(Board* board, int n) {
    for (int i = 0; i < 3000 && board->ready < n; ++i)
        real_sleep(2);
    ASSERT_EQ(board->ready.load(), n);
}

void each_listener_gets_it_once() {
    Board* board = new_board();
    ASSERT_NE(board, nullptr);
    std::vector<int> statuses;
    std::thread listeners([&] { statuses = st::run_children(LISTENERS, [&](int) { return listen(board, 1500); }); });
    wait_ready(board, LISTENERS);
    ASSERT_EQ(st::run_vxsim({"event", "--type", "linkdown", "--host", "2"}).status, 0);
    board->injected = true;
    listeners.join();
    EXPECT_EQ(statuses, std::vector<int>(LISTENERS, 1));

    // Loaded after the event went out: nothing for it.
    board->ready = 0;
    EXPECT_EQ(st::run_children(1, [&](int) { return listen(board, 600); }), std::vector<int>{0});
    munmap(board, sizeof(Board));
}

SIM_TEST(Events, OneInjectionReachesEachLoadedProcessOnceOverSysfs, "default.json") {
    each_listener_gets_it_once();
}

SIM_TEST(Events, OneInjectionReachesEachLoadedProcessOnceOverIoctl, "ioctl.json") {
    each_listener_gets_it_once();
}

// The victim's event fetch is held up in the driver for seconds, so it is
// killed inside its pass, with the database lock held; the listeners that
// come after it still get the event.
SIM_TEST(Events, KilledInsideAPassDoesNotStopDelivery, "ioctl.json") {
    ASSERT_EQ(st::run_vxsim({"fault", "add", "--endpoint", "ioctl", "--match", "0xc0747903", "--action", "delay:5000",
                             "--count", "1"})
                  .status,
              0);
    Board* board = new_board();
    ASSERT_NE(board, nullptr);
    std::fflush(nullptr);
    const pid_t victim = fork();
    if (victim == 0)
        _exit(listen(board, 60000));
    wait_ready(board, 1);
    // Its first pass starts within a shortened period; wait until the fault
    // was used, then a little longer.
    std::string faults;
    for (int i = 0; i < 500; ++i) {
        faults = st::run_vxsim({"fault", "list", "--json"}).text;
        if (faults.find("0xc0747903") == std::string::npos)
            break;
        real_sleep(10);
    }
    EXPECT_EQ(faults.find("0xc0747903"), std::string::npos) << "the victim never fetched: " << faults;
    real_sleep(50);
    kill(victim, SIGKILL);
    int ws = 0;
    waitpid(victim, &ws, 0);
    EXPECT_TRUE(WIFSIGNALED(ws));

    board->ready = 0;
    each_listener_gets_it_once();
    munmap(board, sizeof(Board));
}

}  // namespace
