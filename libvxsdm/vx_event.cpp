// Event thread. It ticks once a second so that a stop request is seen
// quickly, and runs a polling pass over the ports every 15th tick.
#include "vx_event.h"

#include <signal.h>
#include <unistd.h>

#include <cstring>

#include "vx_sddbg.h"

pthread_t vxapi_ev_thread_id;
std::atomic<uint8_t> vxapi_ev_terminate;

namespace {

// One pass over the ports under the database lock. Fetching the ports'
// events into the shared queues and calling the registered callbacks are
// added here with event delivery.
void poll_pass() {
    vxapi_sem_hold hold(api_dbupdate_sem_id);
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
            sleep(1);
            continue;
        }
        poll_pass();
        if (vxapi_ev_terminate)
            break;
        ++counter;
        sleep(1);
    }
    vxdbg_line(VXDBG_EVENT, "vxapi_event_thread: exiting.");
    return nullptr;
}

int vxapi_start_event_thread() {
    // The caller's termination signals must reach the caller's threads: the
    // handler unloads the library, which joins this thread.
    sigset_t all, saved;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved);
    pthread_t id{};
    const int rc = pthread_create(&id, nullptr, vxapi_event_thread, nullptr);
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    if (rc != 0) {
        vxdbg_num(VXDBG_ERROR | VXDBG_EVENT, "vxapi_start_event_thread, pthread_create event thread failed=",
                  static_cast<uint64_t>(rc), VXDBG_DEC, 1);
        return 1;
    }
    vxapi_ev_thread_id = id;
    return 0;
}

int vxapi_stop_event_thread() {
    if (vxapi_ev_thread_id == pthread_t{})
        return 0;
    vxapi_ev_terminate = 1;
    const int rc = pthread_join(vxapi_ev_thread_id, nullptr);
    if (rc != 0) {
        vxdbg_num(VXDBG_ERROR | VXDBG_EVENT, "vxapi_close_database, thread not terminated error=",
                  static_cast<uint64_t>(rc), VXDBG_DEC, 1);
        return rc;
    }
    vxapi_ev_thread_id = pthread_t{};
    return 0;
}

void vxapi_unreg_all_events(vxapi_priv_database* record) {
    if (!record)
        return;
    if (record->api_event_cbs)
        memset(record->api_event_cbs, 0, sizeof *record->api_event_cbs);
    record->port_flags &= ~VX_PORT_FLAG_HBAPT_CB;
}
