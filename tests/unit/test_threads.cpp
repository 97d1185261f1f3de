// The parts of the library that several threads use at once: the trace
// (caller threads and the event thread) and the event thread's lifecycle.
// Built and run under ThreadSanitizer by `make test`.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "unit_support.h"
#include "vx_core.h"
#include "vx_event.h"
#include "vx_sddbg.h"

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

}  // namespace
