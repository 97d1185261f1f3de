// The parts of the library that several threads use at once: the trace
// (caller threads and the event thread), the event thread's lifecycle and
// passes, and the first call that loads the library. Built and run under
// ThreadSanitizer by `make test`.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/sem.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "mock_channel.h"
#include "test_core_sysfs_tree.h"
#include "unit_support.h"
#include "vsdmgt.h"
#include "vx_core.h"
#include "vx_event.h"
#include "vx_sddbg.h"
#include "vx_sysfs.h"

namespace {

constexpr int THREADS = 4;
constexpr int LINES = 200;

TEST(Threads, TraceLinesOfConcurrentThreadsStayWhole) {
    const uint32_t saved = vx_debug;
    vx_debug = 0x006;  // echo only: no log file
    const std::string out = capture_stderr([] {
        std::vector<std::thread> threads;
        for (int t = 0; t < THREADS; ++t)
            threads.emplace_back([t] {
                const std::string tag = "thread " + std::to_string(t) + " line ";
                for (int i = 0; i < LINES; ++i)
                    vxdbg_print(tag.c_str(), static_cast<uint64_t>(i), VXDBG_DEC, 1);
            });
        for (std::thread& th : threads)
            th.join();
    });
    vx_debug = saved;
    std::set<std::string> lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);)
        EXPECT_TRUE(lines.insert(line).second) << "twice: " << line;
    EXPECT_EQ(lines.size(), size_t{THREADS * LINES});
    for (int t = 0; t < THREADS; ++t)
        for (int i = 0; i < LINES; i += 37)
            EXPECT_TRUE(lines.count("thread " + std::to_string(t) + " line " + std::to_string(i))) << t << " " << i;
}

// The event thread ticks while caller threads set the mask and trace; the
// close stops and joins it.
TEST(Threads, EventThreadStartsAndStopsWhileCallersTrace) {
    VX_REQUIRE_PRIVATE_IPC();
    const std::string dir = make_temp_dir();
    ASSERT_FALSE(dir.empty());
    char saved_name[sizeof vx_db_fname];
    memcpy(saved_name, vx_db_fname, sizeof saved_name);
    snprintf(vx_db_fname, sizeof vx_db_fname, "%s/vx_shared.dat", dir.c_str());
    snprintf(vxdbglog_path, sizeof vxdbglog_path, "%s/trace.log", dir.c_str());

    int fd = -1;
    ASSERT_EQ(vxapi_open_database(&fd), 0);
    EXPECT_NE(vxapi_ev_thread_id, pthread_t{});
    std::atomic<bool> stop{false};
    std::vector<std::thread> callers;
    for (int t = 0; t < 2; ++t)
        callers.emplace_back([&stop] {
            while (!stop) {
                vxapi_set_debug_level();
                vxdbg_line(VXDBG_EVENT, "caller thread");
                check_handle(1);
            }
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    stop = true;
    for (std::thread& th : callers)
        th.join();
    EXPECT_EQ(vxapi_close_database(fd), 0);
    EXPECT_EQ(vxapi_ev_thread_id, pthread_t{});

    api_dbupdate_sem_id = -1;
    api_flash_sem_id = -1;
    memcpy(vx_db_fname, saved_name, sizeof saved_name);
    vxdbglog_path[0] = '\0';
    remove_tree(dir);
}

// A stop wakes the event thread at once instead of after the rest of its
// one-second tick (an unload joins it while holding the load lock).
TEST(Threads, EventThreadStopDoesNotWaitForTheTick) {
    VX_REQUIRE_PRIVATE_IPC();
    const std::string dir = make_temp_dir();
    char saved_name[sizeof vx_db_fname];
    memcpy(saved_name, vx_db_fname, sizeof saved_name);
    snprintf(vx_db_fname, sizeof vx_db_fname, "%s/vx_shared.dat", dir.c_str());
    int fd = -1;
    uint32_t dummy = 0;
    ASSERT_EQ(vxapi_alloc_api_priv_data_mem(&dummy), 0);  // the thread runs while a port list exists
    ASSERT_EQ(vxapi_open_database(&fd), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // in its tick now
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(vxapi_stop_event_thread(), 0);
    // Far below the tick: an uninterruptible wait takes up to a whole second.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(vxapi_close_database(fd), 0);
    vxapi_free_api_priv_data_mem();
    memcpy(vx_db_fname, saved_name, sizeof saved_name);
    remove_tree(dir);
}

// Eight threads make their first call together: exactly one loads, and every
// one sees the whole load (count and opens), never a half-made one.
TEST(Threads, FirstCallsOfManyThreadsLoadOnce) {
    VX_REQUIRE_PRIVATE_IPC();
    constexpr int PORTS = 4;
    sysfs_tree tree;
    for (int i = 0; i < PORTS; ++i) {
        const std::string bdf = "0000:0" + std::to_string(i + 1) + ":00.0", host = "host" + std::to_string(i + 1);
        const std::string dev = "devices/pci0000:00/" + bdf;
        tree.file(dev + "/device", "0x2031\n");
        tree.link("bus/pci/devices/" + bdf, dev);
        tree.link("bus/pci/drivers/vxfcdrv/" + bdf, dev);
        tree.link(dev + "/driver", "bus/pci/drivers/vxfcdrv");
        for (const char* cls : {"scsi_host", "fc_host"}) {
            tree.dir(dev + "/" + host + "/" + cls + "/" + host);
            tree.link(std::string("class/") + cls + "/" + host, dev + "/" + host + "/" + cls + "/" + host);
        }
    }
    // libsysfs walks the bus at /sys itself: the tree goes there, in a
    // mount namespace of this test process's own.
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(tree.root().c_str(), "/sys", nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        if (getenv("VXSIM_REQUIRE"))
            FAIL() << "needs a private mount namespace (run as root)";
        GTEST_SKIP() << "needs a private mount namespace (run as root)";
    }
    char saved_name[sizeof vx_db_fname];
    memcpy(saved_name, vx_db_fname, sizeof saved_name);
    snprintf(vx_db_fname, sizeof vx_db_fname, "%s/vx_shared.dat", tree.root().c_str());

    constexpr int THREADS_AT_ONCE = 8;
    std::barrier start(THREADS_AT_ONCE);
    std::vector<uint32_t> results(THREADS_AT_ONCE);
    std::vector<int> handles(THREADS_AT_ONCE, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS_AT_ONCE; ++t)
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            // Half count, half open a port of their own (opens of one port are the caller's to order).
            results[t] = t % 2 == 0 ? SDGetNumberOfAdapters() : SDOpenDevice(t / 2, &handles[t]);
        });
    for (std::thread& th : threads)
        th.join();
    for (int t = 0; t < THREADS_AT_ONCE; ++t) {
        if (t % 2 == 0) {
            EXPECT_EQ(results[t], uint32_t{PORTS}) << "thread " << t;
        } else {
            EXPECT_EQ(results[t], 0u) << "thread " << t;
            EXPECT_EQ(handles[t], t / 2 + 1) << "thread " << t;
        }
    }
    EXPECT_EQ(api_library_instance, 0u);  // one load, one slot
    for (int t = 1; t < THREADS_AT_ONCE; t += 2)
        EXPECT_EQ(SDCloseDevice(handles[t]), 0u);
    EXPECT_FALSE(vxapi_lib_loaded());  // the last close unloaded
    EXPECT_EQ(semget(VX_SEM_KEY_THREAD, 1, 0), -1);

    for (int key : {VX_SEM_KEY_DBUPDATE, VX_SEM_KEY_FLASH})
        if (int id = semget(key, 1, 0); id != -1)
            semctl(id, 0, IPC_RMID);
    api_dbupdate_sem_id = api_flash_sem_id = -1;
    memcpy(vx_db_fname, saved_name, sizeof saved_name);
    umount2("/sys", MNT_DETACH);
}

// Caller threads walk the discovered ports of different hosts (and one
// host twice) while another forgets every snapshot; each walk still sees
// its host's ports in order.
TEST(Threads, WalksOfSeveralHostsAtOnce) {
    sysfs_tree tree;
    mnt_path_override mnt(tree.root());
    constexpr uint32_t HOSTS = 3, PORTS = 12;
    std::vector<std::string> expected;
    for (uint32_t p = 0; p < PORTS; ++p)
        expected.push_back("-" + std::to_string(p));
    std::sort(expected.begin(), expected.end());  // name order
    for (uint32_t h = 0; h < HOSTS; ++h)
        for (uint32_t p = 0; p < PORTS; ++p)
            tree.rport(h, "rport-" + std::to_string(h) + ":0-" + std::to_string(p),
                       {{"port_state", "Online"}, {"roles", "FCP Target"}});
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> walkers;
    for (uint32_t t = 0; t <= HOSTS; ++t)
        walkers.emplace_back([&, host = t % HOSTS] {
            const vxsysfs_host_dir dir(host);
            for (int round = 0; round < 30; ++round) {
                char name[VXSYSFS_RPORT_NAME_LEN];
                uint16_t i = 0;
                for (; vxsysfs_walk_port(dir, i, name, sizeof name); ++i) {
                    const std::string prefix = "rport-" + std::to_string(host) + ":0";
                    if (i >= PORTS || prefix + expected[i] != name)
                        ++bad;
                }
                if (i != PORTS)
                    ++bad;
            }
        });
    std::thread reset([&stop] {
        while (!stop)
            vxsysfs_walk_reset();
    });
    for (std::thread& th : walkers)
        th.join();
    stop = true;
    reset.join();
    vxsysfs_walk_reset();
    EXPECT_EQ(bad, 0);
}

// ---- The event thread's passes among callers ----

constexpr uint32_t EVENT_HOST = 9;

// A driver that answers from any thread: one link event per fetch, fixed
// counters, every registration accepted.
std::atomic<uint32_t> fetches;

const vxapi_channel_ops threaded_channel = [] {
    vxapi_channel_ops ops{};
    ops.name = "threads";
    ops.get_statistics = [](int, vxapi_priv_database*, EXT_HBA_PORT_STAT* st, uint32_t* ext, uint32_t* dext) {
        st->TotalIoCount = 7;
        *ext = EXT_STATUS_OK;
        if (dext)
            *dext = 0;
        return 0;
    };
    ops.async_event_reg = [](int, vxapi_priv_database*, uint32_t, void*, uint32_t* ext) {
        *ext = EXT_STATUS_OK;
        return 0;
    };
    ops.async_event_get = [](int, vxapi_priv_database*, EXT_ASYNC_EVENT* buf, uint32_t* plen, uint32_t* ext) {
        fetches.fetch_add(1);
        buf[0] = EXT_ASYNC_EVENT{};
        buf[0].AsyncEventCode = EXT_AEN_LINK_UP;
        buf[0].Payload.Words[1] = EVENT_HOST;
        *plen = sizeof buf[0];
        *ext = EXT_STATUS_OK;
        return 0;
    };
    return ops;
}();

struct callback_counts {
    std::atomic<uint32_t> events{0};
    std::atomic<uint32_t> inner_calls_ok{0};
    int handle = 0;
};

// Calls back into the library from inside, as clients do.
void count_event(void* data, HBA_WWN, HBA_UINT32 type, HBA_UINT32) {
    auto* c = static_cast<callback_counts*>(data);
    if (type == VX_SNIA_PORT_OFFLINE)
        c->events.fetch_add(1);
    STATISTICS st{};
    ASYNCEVENT ev[2];
    SD_UINT32 count = 0;
    // Another caller switches events on and off meanwhile: then SDGetAen
    // refuses the request, which is an answer too (no deadlock, no crash).
    const SD_UINT32 aen = SDGetAen(c->handle, ev, sizeof ev, &count);
    if (SDGetStatistics(c->handle, 0, &st) == 0 && (aen == 0 || aen == SDM_STATUS_INVALID_REQUEST))
        c->inner_calls_ok.fetch_add(1);
}

// Passes run every few milliseconds while caller threads query, drain the
// queue, switch events on and off and register and remove callbacks.
TEST(Threads, EventPassesWhileCallersQueryAndRegister) {
    VX_REQUIRE_PRIVATE_IPC();
    const std::string dir = make_temp_dir();
    char saved_name[sizeof vx_db_fname];
    memcpy(saved_name, vx_db_fname, sizeof saved_name);
    snprintf(vx_db_fname, sizeof vx_db_fname, "%s/vx_shared.dat", dir.c_str());
    const int saved_tick = vxapi_ev_tick_ms.exchange(1);
    {
        vxmock::registry reg;
        vxapi_priv_database* port = reg.port(VX_FEAT_SYSFS, 0x2031);
        ASSERT_NE(port, nullptr);
        port->host_no = EVENT_HOST;
        port->channel = &threaded_channel;
        snprintf(reinterpret_cast<char*>(port->phys_path), sizeof port->phys_path, "%s", "/sys/bus/pci/x");
        const int h = vxmock::registry::handle(port);
        ASSERT_EQ(SDEnableAen(h), 0u);
        int fd = -1;
        ASSERT_EQ(vxapi_open_database(&fd), 0);

        callback_counts counts;
        counts.handle = h;
        std::atomic<bool> stop{false};
        std::atomic<uint32_t> drained{0}, queried{0};
        std::vector<std::thread> callers;
        callers.emplace_back([&] {
            while (!stop) {
                void* registration = nullptr;
                vxapi_reg_port_event_cb(port, count_event, &counts, &registration);
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                vxapi_remove_event_cb(registration);
                // Unregistered, the port's events wait in the queue for SDGetAen.
                std::this_thread::sleep_for(std::chrono::milliseconds(40));
            }
        });
        callers.emplace_back([&] {
            while (!stop) {
                ASYNCEVENT ev[4];
                SD_UINT32 count = 0;
                if (SDGetAen(h, ev, sizeof ev, &count) == 0)
                    drained.fetch_add(count);
                STATISTICS st{};
                if (SDGetStatistics(h, 0, &st) == 0 && st.IOCount == 7)
                    queried.fetch_add(1);
            }
        });
        callers.emplace_back([&] {
            for (int i = 0; !stop; ++i) {
                if (i % 2)
                    SDDisableAen(h);
                else
                    SDEnableAen(h);
                check_handle(static_cast<uint32_t>(h));
                std::this_thread::sleep_for(std::chrono::milliseconds(3));
            }
        });
        // Long enough for many passes of 15 ticks of 1 ms, whatever the machine.
        for (int i = 0; i < 400 && (counts.events < 3 || drained < 3 || fetches < 10); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        stop = true;
        for (std::thread& th : callers)
            th.join();
        EXPECT_EQ(vxapi_close_database(fd), 0);
        EXPECT_GE(fetches.load(), 10u);
        EXPECT_GE(counts.events.load(), 3u);
        EXPECT_EQ(counts.inner_calls_ok.load(), counts.events.load());
        EXPECT_GE(drained.load(), 3u);
        EXPECT_GT(queried.load(), 0u);
    }
    vxapi_ev_tick_ms = saved_tick;
    for (int key : {VX_SEM_KEY_DBUPDATE, VX_SEM_KEY_FLASH})
        if (int id = semget(key, 1, 0); id != -1)
            semctl(id, 0, IPC_RMID);
    api_dbupdate_sem_id = api_flash_sem_id = -1;
    memcpy(vx_db_fname, saved_name, sizeof saved_name);
    remove_tree(dir);
}

}  // namespace
