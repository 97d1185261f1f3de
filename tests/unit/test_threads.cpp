// The parts of the library that several threads use at once: the trace
// (caller threads and the event thread) and the event thread's lifecycle.
// Built and run under ThreadSanitizer by `make test`.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "test_core_sysfs_tree.h"
#include "unit_support.h"
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

}  // namespace
