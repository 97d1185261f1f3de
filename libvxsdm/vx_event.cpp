// Event thread. It ticks once a second and runs a polling pass over the
// ports every 15th tick: each port's pending events go into the queue of
// every loaded library in the shared file, and the own queue feeds the
// registered port-event callbacks. Each tick waits on an eventfd, so that a
// stop wakes it at once instead of after the rest of the second (an unload
// joins it while holding the load lock).
#include "vx_event.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "vx_sddbg.h"

pthread_t vxapi_ev_thread_id;
std::atomic<uint8_t> vxapi_ev_terminate;
std::atomic<int> vxapi_ev_tick_ms{1000};

namespace {

constexpr uint32_t EV_TRACE = VXDBG_EVENT;
constexpr uint32_t EV_ERROR = VXDBG_ERROR | VXDBG_EVENT;

// Written once to stop the thread; -1 when none (the tick is then a plain
// one-second wait).
std::atomic<int> wake_fd{-1};

// The ports' event state within the process (see vxapi_event_hold).
std::recursive_mutex event_mutex;

// Registrations are named by a number of their own, so that the handle of
// a replaced or removed callback never removes a newer one.
std::atomic<uintptr_t> registrations{0};

// One tick: a second, or less when the thread is asked to stop. ppoll, so
// that a simulated host can shorten it like a sleep.
void tick() {
    struct pollfd wake {};
    wake.fd = wake_fd;
    wake.events = POLLIN;
    const int ms = vxapi_ev_tick_ms.load();
    const struct timespec length {
        ms / 1000, static_cast<long>(ms % 1000) * 1000000
    };
    while (ppoll(&wake, 1, &length, nullptr) < 0 && errno == EINTR && !vxapi_ev_terminate) {
    }
}

bool record_gone(const vxapi_priv_database* record) {
    static constexpr uint8_t zero[4] = {};
    return memcmp(record->phys_path, zero, sizeof zero) == 0;
}

// One pass over the ports under the database lock: fetch each enabled
// port's events into every queue, then hand the own queue to its callbacks.
void poll_pass() {
    vxapi_event_hold hold;
    if (!hold.database_held()) {
        vxdbg_num(EV_ERROR, "vxapi_event_thread: database lock not held; pass skipped. errno=",
                  static_cast<uint64_t>(errno), VXDBG_DEC, 1);
        return;
    }
    vxdbg_line(EV_TRACE, "vxapi_event_thread: polling pass.");
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [](vxapi_priv_database* record) {
        if (record_gone(record))
            return false;
        if (vxapi_features(record) & VX_FEAT_EVENTS) {
            vxapi_poll_for_events(record);
            vxapi_make_event_callbacks(record);
        } else {
            vxdbg_num(EV_TRACE, "vxapi_event_thread, events not enabled on handle=", record->apihandle, VXDBG_DEC,
                      1);
        }
        return true;
    });
}

// A queue index read from the shared file, which another process may have
// left at any value: never past the buffer.
uint32_t bounded(uint16_t index) { return index < VX_EVQ_ENTRIES ? index : VX_EVQ_ENTRIES; }

}  // namespace

// ---- The hold ----

vxapi_event_hold::vxapi_event_hold(bool database) {
    if (database && api_shared_data)
        db_held_ = vxapi_sem_lock(api_dbupdate_sem_id, VX_SEM_KEY_DBUPDATE) == 0;
    event_mutex.lock();
}

vxapi_event_hold::~vxapi_event_hold() {
    event_mutex.unlock();
    if (db_held_)
        vxapi_sem_unlock(api_dbupdate_sem_id);
}

// ---- The thread ----

void* vxapi_event_thread(void*) {
    vxdbg_line(EV_TRACE, "vxapi_event_thread: entered.");
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
    vxdbg_line(EV_TRACE, "vxapi_event_thread: exiting.");
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
        vxdbg_num(EV_ERROR, "vxapi_start_event_thread, eventfd failed; stops wait a tick. errno=",
                  static_cast<uint64_t>(errno), VXDBG_DEC, 1);
    wake_fd = fd;
    pthread_sigmask(SIG_SETMASK, &all, &saved);
    pthread_t id{};
    const int rc = pthread_create(&id, nullptr, vxapi_event_thread, nullptr);
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    if (rc != 0) {
        vxdbg_num(EV_ERROR, "vxapi_start_event_thread, pthread_create event thread failed=",
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
        vxdbg_num(EV_ERROR, "vxapi_close_database, event thread wake failed. errno=",
                  static_cast<uint64_t>(errno), VXDBG_DEC, 1);
    const int rc = pthread_join(vxapi_ev_thread_id, nullptr);
    if (rc != 0) {
        vxdbg_num(EV_ERROR, "vxapi_close_database, thread not terminated error=", static_cast<uint64_t>(rc),
                  VXDBG_DEC, 1);
        return rc;
    }
    vxapi_ev_thread_id = pthread_t{};
    if (fd >= 0)
        close(wake_fd.exchange(-1));
    return 0;
}

bool vxapi_on_event_thread() {
    const pthread_t id = vxapi_ev_thread_id;
    return id != pthread_t{} && pthread_equal(id, pthread_self());
}

// ---- The queues ----

void vxapi_remove_aen_holes(vxapi_hbaptevq_t* queue) {
    uint32_t kept = 0;
    while (kept < VX_EVQ_ENTRIES && queue->eventbuf[kept].AsyncEventCode != 0)
        ++kept;
    if (kept == VX_EVQ_ENTRIES)
        return;  // no hole: nothing to gain
    for (uint32_t i = kept + 1; i < VX_EVQ_ENTRIES; ++i) {
        EXT_ASYNC_EVENT& e = queue->eventbuf[i];
        if (e.AsyncEventCode == 0)
            continue;
        queue->eventbuf[kept++] = e;
        memset(&e, 0, sizeof e);
    }
    queue->q_tail = static_cast<uint16_t>(kept);
}

void vxapi_add_portev(vxapi_shared_t* shared, const EXT_ASYNC_EVENT& event) {
    for (uint32_t slot = 0; slot < VX_LIBINST_SLOTS; ++slot) {
        if (!(shared->libinst_flags[slot] & VX_LIBINST_HELD))
            continue;
        vxapi_hbaptevq_t& q = shared->hbaptevq[slot];
        if (bounded(q.q_tail) == VX_EVQ_ENTRIES)
            vxapi_remove_aen_holes(&q);
        // Still full: the oldest events are overwritten from the start.
        if (bounded(q.q_tail) == VX_EVQ_ENTRIES)
            q.q_tail = 0;
        q.eventbuf[q.q_tail] = event;
        ++q.q_tail;
    }
}

uint32_t vxapi_empty_portevq(vxapi_hbaptevq_t* queue, uint32_t host_no, EXT_ASYNC_EVENT* buf, uint32_t max) {
    if (max > VX_EVQ_TAKE_MAX)
        max = VX_EVQ_TAKE_MAX;
    uint32_t count = 0;
    for (uint32_t i = bounded(queue->q_head); i < VX_EVQ_ENTRIES && count < max; ++i) {
        EXT_ASYNC_EVENT& e = queue->eventbuf[i];
        if (e.AsyncEventCode == 0 || e.Payload.Words[1] != host_no)
            continue;  // other ports' events stay for their own readers
        buf[count++] = e;
        e.AsyncEventCode = 0;
        e.Payload.Words[1] = 0;
    }
    queue->q_head = 0;
    return count;
}

void vxapi_add_portev_to_shared_mem(const EXT_ASYNC_EVENT* event) {
    if (!event || !api_shared_data)
        return;
    vxapi_add_portev(api_shared_data, *event);
}

void vxapi_remove_aen_holes_from_shared_mem(uint32_t slot) {
    if (api_shared_data && slot < VX_LIBINST_SLOTS)
        vxapi_remove_aen_holes(&api_shared_data->hbaptevq[slot]);
}

int vxapi_empty_sh_portevq(uint32_t slot, const vxapi_priv_database* record, EXT_ASYNC_EVENT* buf, uint32_t* count,
                           uint32_t max) {
    if (count)
        *count = 0;
    if (!api_shared_data || slot >= VX_LIBINST_SLOTS || !record || !buf || !count)
        return 1;
    *count = vxapi_empty_portevq(&api_shared_data->hbaptevq[slot], record->host_no, buf, max);
    vxdbg_num(EV_TRACE, "vxapi_empty_sh_portevq: events=", *count, VXDBG_DEC, 1);
    return 0;
}

// ---- The pass ----

void vxapi_poll_for_events(vxapi_priv_database* record) {
    EXT_ASYNC_EVENT events[EXT_AEN_FETCH_MAX] = {};
    uint32_t len = sizeof events;
    uint32_t ext_stat = 0;
    const int32_t rc = vxapi_async_event_get(record->oshandle, record, events, &len, &ext_stat);
    if (rc != 0 || ext_stat != EXT_STATUS_OK || len == 0) {
        if (rc != 0 || ext_stat != EXT_STATUS_OK)
            vxdbg_num(EV_ERROR, "vxapi_poll_for_events: event fetch failed. stat=", ext_stat, VXDBG_DEC, 1);
        return;
    }
    if (len % sizeof(EXT_ASYNC_EVENT) != 0 || len > sizeof events)
        vxdbg_num(EV_ERROR, "vxapi_poll_for_events: odd event length, whole entries kept. len=", len, VXDBG_DEC, 1);
    uint32_t n = len / sizeof(EXT_ASYNC_EVENT);
    if (n > EXT_AEN_FETCH_MAX)
        n = EXT_AEN_FETCH_MAX;
    uint32_t queued = 0;
    for (uint32_t i = 0; i < n; ++i) {
        // An empty entry is no event: queued, it would only read as a hole.
        if (events[i].AsyncEventCode == 0)
            continue;
        vxapi_add_portev_to_shared_mem(&events[i]);
        ++queued;
    }
    vxdbg_num(EV_TRACE, "vxapi_poll_for_events: events queued=", queued, VXDBG_DEC, 1);
}

void vxapi_make_event_callbacks(vxapi_priv_database* record) {
    if (!(record->port_flags & VX_PORT_FLAG_HBAPT_CB))
        return;
    EXT_ASYNC_EVENT events[VX_EVQ_TAKE_MAX];
    uint32_t count = 0;
    if (vxapi_empty_sh_portevq(api_library_instance, record, events, &count) != 0 || count == 0)
        return;
    vxapi_snia_hbaport_callbacks(record, events, count);
}

uint32_t vxapi_snia_port_event_type(const EXT_ASYNC_EVENT& event, uint32_t* fabric_port_id) {
    *fabric_port_id = 0;
    switch (event.AsyncEventCode) {
    // Link down reaches the client as online and link up as offline: the
    // pairing is part of the interface clients were written against.
    case EXT_AEN_LINK_DOWN: return VX_SNIA_PORT_ONLINE;
    case EXT_AEN_LINK_UP: return VX_SNIA_PORT_OFFLINE;
    case EXT_AEN_NEW_TARGETS: return VX_SNIA_PORT_NEW_TARGETS;
    case EXT_AEN_RSCN: {
        const uint8_t* b = event.Payload.Bytes;  // entry bytes 4-7
        *fabric_port_id = static_cast<uint32_t>(b[3]) << 24 | static_cast<uint32_t>(b[0]) << 16 |
                          static_cast<uint32_t>(b[1]) << 8 | b[2];
        return VX_SNIA_PORT_FABRIC;
    }
    default: return VX_SNIA_PORT_UNKNOWN;
    }
}

void vxapi_snia_hbaport_callbacks(vxapi_priv_database* record, const EXT_ASYNC_EVENT* events, uint32_t count) {
    HBA_WWN wwn;
    memcpy(wwn.wwn, record->wwpn, sizeof wwn.wwn);
    for (uint32_t i = 0; i < count; ++i) {
        // Read afresh for every event: a callback may remove itself.
        if (!(record->port_flags & VX_PORT_FLAG_HBAPT_CB) || !record->api_event_cbs)
            return;
        const vxapi_hbapt_reg_cb_t reg = record->api_event_cbs->hbapt;
        if (!reg.cb_hba_port_event)
            return;
        uint32_t fabric_port_id = 0;
        const uint32_t type = vxapi_snia_port_event_type(events[i], &fabric_port_id);
        if (type == VX_SNIA_PORT_UNKNOWN)
            vxdbg_num(EV_TRACE, "vxapi_snia_hbaport_callbacks, got unknown event=", events[i].AsyncEventCode,
                      VXDBG_HEX, 1);
        reg.cb_hba_port_event(reg.hba_port_userdata, wwn, type, fabric_port_id);
    }
}

// ---- Callback registration ----

int vxapi_reg_port_event_cb(vxapi_priv_database* record, vxapi_port_event_cb cb, void* userdata, void** handle) {
    if (!record || !record->api_event_cbs || !cb)
        return 1;
    vxapi_event_hold hold(false);
    vxapi_hbapt_reg_cb_t& reg = record->api_event_cbs->hbapt;
    reg.cb_hba_port_event = cb;
    reg.hba_port_userdata = userdata;
    reg.hba_port_buf_len = 0;
    reg.prmcb_handle = reinterpret_cast<void*>(registrations.fetch_add(1) + 1);
    record->port_flags |= VX_PORT_FLAG_HBAPT_CB;
    if (handle)
        *handle = reg.prmcb_handle;
    vxdbg_num(EV_TRACE, "vxapi_reg_port_event_cb: host_no=", record->host_no, VXDBG_DEC, 1);
    return 0;
}

int vxapi_remove_event_cb(void* handle) {
    if (!handle)
        return 1;
    vxapi_event_hold hold(false);
    int result = 1;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [handle, &result](vxapi_priv_database* record) {
        if (record->api_event_cbs && record->api_event_cbs->hbapt.prmcb_handle == handle) {
            vxapi_unreg_all_events(record);
            result = 0;
            return false;
        }
        return true;
    });
    vxdbg_num(EV_TRACE, "vxapi_remove_event_cb: ret=", static_cast<uint64_t>(result), VXDBG_DEC, 1);
    return result;
}

void vxapi_unreg_all_events(vxapi_priv_database* record) {
    if (!record)
        return;
    vxapi_event_hold hold(false);
    if (record->api_event_cbs)
        memset(record->api_event_cbs, 0, sizeof *record->api_event_cbs);
    record->port_flags &= ~VX_PORT_FLAG_HBAPT_CB;
}
