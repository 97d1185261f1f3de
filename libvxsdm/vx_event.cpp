// Event thread. It ticks once a second and runs a polling pass over the
// ports every 15th tick. Each tick waits on an eventfd, so that a stop wakes
// it at once instead of after the rest of the second (an unload joins it
// while holding the load lock).
#include "vx_event.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "vx_sddbg.h"

pthread_t vxapi_ev_thread_id;
std::atomic<uint8_t> vxapi_ev_terminate;

namespace {

constexpr int TICK_MS = 1000;

// Written once to stop the thread; -1 when none (the tick is then a plain
// one-second wait).
std::atomic<int> wake_fd{-1};

// One tick: a second, or less when the thread is asked to stop.
void tick() {
    struct pollfd wake {};
    wake.fd = wake_fd;
    wake.events = POLLIN;
    while (poll(&wake, 1, TICK_MS) < 0 && errno == EINTR && !vxapi_ev_terminate) {
    }
}

// One pass over the ports under the database lock. Fetching the ports'
// events into the shared queues and calling the registered callbacks are
// added here with event delivery.
void poll_pass() {
    vxapi_sem_hold hold(api_dbupdate_sem_id, VX_SEM_KEY_DBUPDATE);
    if (!hold.held())
        return;
    vxdbg_line(VXDBG_EVENT, "vxapi_event_thread: polling pass.");
}

}  // namespace

void* vxapi_event_thread(void*) {
    vxdbg_line(VXDBG_EVENT, "vxapi_event_thread: entered.");
    // 8-bit on purpose: when it wraps, one period in 256 lasts 16 seconds.
    uint8_t counter = 0;
    for (;;) {
        if (!api_priv_database)
            break;
        if ((counter + 1) % VX_EV_POLL_PERIOD != 0) {
            if (vxapi_ev_terminate)
                break;
            ++counter;
            tick();
            continue;
        }
        poll_pass();
        if (vxapi_ev_terminate)
            break;
        ++counter;
        tick();
    }
    vxdbg_line(VXDBG_EVENT, "vxapi_event_thread: exiting.");
    return nullptr;
}

int vxapi_start_event_thread() {
    // The caller's signals go to the caller's threads: this one blocks them
    // all, and ends the process itself only where a deferred termination
    // finishes (vxapi_finish_pending_termination unblocks it then).
    sigset_t all, saved;
    sigfillset(&all);
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0)
        vxdbg_num(VXDBG_ERROR | VXDBG_EVENT, "vxapi_start_event_thread, eventfd failed; stops wait a tick. errno=",
                  static_cast<uint64_t>(errno), VXDBG_DEC, 1);
    wake_fd = fd;
    pthread_sigmask(SIG_SETMASK, &all, &saved);
    pthread_t id{};
    const int rc = pthread_create(&id, nullptr, vxapi_event_thread, nullptr);
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    if (rc != 0) {
        vxdbg_num(VXDBG_ERROR | VXDBG_EVENT, "vxapi_start_event_thread, pthread_create event thread failed=",
                  static_cast<uint64_t>(rc), VXDBG_DEC, 1);
        if (fd >= 0)
            close(wake_fd.exchange(-1));
        return 1;
    }
    vxapi_ev_thread_id = id;
    return 0;
}

int vxapi_stop_event_thread() {
    if (vxapi_ev_thread_id == pthread_t{})
        return 0;
    vxapi_ev_terminate = 1;
    const int fd = wake_fd;
    if (fd >= 0 && eventfd_write(fd, 1) != 0)
        vxdbg_num(VXDBG_ERROR | VXDBG_EVENT, "vxapi_close_database, event thread wake failed. errno=",
                  static_cast<uint64_t>(errno), VXDBG_DEC, 1);
    const int rc = pthread_join(vxapi_ev_thread_id, nullptr);
    if (rc != 0) {
        vxdbg_num(VXDBG_ERROR | VXDBG_EVENT, "vxapi_close_database, thread not terminated error=",
                  static_cast<uint64_t>(rc), VXDBG_DEC, 1);
        return rc;
    }
    vxapi_ev_thread_id = pthread_t{};
    if (fd >= 0)
        close(wake_fd.exchange(-1));
    return 0;
}

void vxapi_unreg_all_events(vxapi_priv_database* record) {
    if (!record)
        return;
    if (record->api_event_cbs)
        memset(record->api_event_cbs, 0, sizeof *record->api_event_cbs);
    record->port_flags &= ~VX_PORT_FLAG_HBAPT_CB;
}
