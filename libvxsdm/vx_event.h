// Event thread, the port-event queues of the shared file and the Common
// HBA API port-event callbacks. Internal.
#pragma once

#include <pthread.h>

#include <ctime>  // hbaapi.h needs struct tm

#include <hbaapi.h>

#include <atomic>
#include <cstdint>

#include "vx_core.h"

inline constexpr unsigned VX_EV_POLL_PERIOD = 15;  // seconds between polling passes
// port_flags bit: a Common HBA API port-event callback is registered.
inline constexpr uint32_t VX_PORT_FLAG_HBAPT_CB = 0x01;
// At most this many events of one port are taken from a queue at a time.
inline constexpr uint32_t VX_EVQ_TAKE_MAX = 64;

// SNIA port event types handed to the callbacks.
inline constexpr uint32_t VX_SNIA_PORT_UNKNOWN = 0x200;
inline constexpr uint32_t VX_SNIA_PORT_ONLINE = 0x201;
inline constexpr uint32_t VX_SNIA_PORT_OFFLINE = 0x202;
inline constexpr uint32_t VX_SNIA_PORT_NEW_TARGETS = 0x203;
inline constexpr uint32_t VX_SNIA_PORT_FABRIC = 0x204;

extern pthread_t vxapi_ev_thread_id;               // 0 when no thread runs
extern std::atomic<uint8_t> vxapi_ev_terminate;    // 1 asks the thread to end
// Length of one tick of the thread in milliseconds (tests shorten it).
extern std::atomic<int> vxapi_ev_tick_ms;

int vxapi_start_event_thread();
// Sets the terminate flag, wakes the thread and joins it. 0 when no
// thread is left; the join error otherwise (the thread id is kept).
int vxapi_stop_event_thread();
void* vxapi_event_thread(void* arg);
// True on the event thread (inside a port-event callback, for instance).
bool vxapi_on_event_thread();

// What the event thread shares with the caller's threads: the database lock
// (the queues of the shared file, among processes; taken again at once by a
// thread that holds it, so that a callback may drain a queue) and, within
// the process, the ports' event state (callback tables, port_flags) under
// one recursive mutex. The pass, the drains, the callback registration and
// the clean-up of the ports hold it.
class vxapi_event_hold {
public:
    // `database`: the queues are touched, so the database lock is taken too
    // (when the database is open).
    explicit vxapi_event_hold(bool database = true);
    ~vxapi_event_hold();
    vxapi_event_hold(const vxapi_event_hold&) = delete;
    vxapi_event_hold& operator=(const vxapi_event_hold&) = delete;
    // The database lock is held (always false without `database`).
    bool database_held() const { return db_held_; }

private:
    bool db_held_ = false;
};

// ---- The queues of the shared file (pure, over a given layout) ----

// Appends the event to the queue of every slot in use (flag 0x01): a queue
// whose tail stands at the end is compacted first, and restarts at index 0
// when it has no hole (the oldest events are overwritten).
void vxapi_add_portev(vxapi_shared_t* shared, const EXT_ASYNC_EVENT& event);
// Moves the non-empty entries after the first hole down, in order, and sets
// the tail after the last one kept; a queue without holes is left alone.
void vxapi_remove_aen_holes(vxapi_hbaptevq_t* queue);
// Takes, from the head to the end of the buffer, up to `max` (at most 64)
// entries of host `host_no` into `buf` (each leaves a hole); the head goes
// back to 0. Returns the number taken.
uint32_t vxapi_empty_portevq(vxapi_hbaptevq_t* queue, uint32_t host_no, EXT_ASYNC_EVENT* buf,
                             uint32_t max = VX_EVQ_TAKE_MAX);

// The same on this process's mapping, under the database lock.
void vxapi_add_portev_to_shared_mem(const EXT_ASYNC_EVENT* event);
void vxapi_remove_aen_holes_from_shared_mem(uint32_t slot);
// Own slot only: up to `max` of the port's events into `buf` (room for
// `max`, at most 64), their number in *count. 0 on success, 1 without a
// slot or mapping.
int vxapi_empty_sh_portevq(uint32_t slot, const vxapi_priv_database* record, EXT_ASYNC_EVENT* buf, uint32_t* count,
                           uint32_t max = VX_EVQ_TAKE_MAX);

// ---- The pass ----

// Fetches the port's pending events from the driver and queues each one
// (at most 64) in every slot.
void vxapi_poll_for_events(vxapi_priv_database* record);
// With a registered callback: the port's events of the own slot to it.
void vxapi_make_event_callbacks(vxapi_priv_database* record);
// Calls the port's callback once per event, in order.
void vxapi_snia_hbaport_callbacks(vxapi_priv_database* record, const EXT_ASYNC_EVENT* events, uint32_t count);
// The SNIA port event type of an entry, and its fabric port id (RSCN: the
// entry's bytes 7, 4, 5, 6, most significant first; 0 otherwise).
uint32_t vxapi_snia_port_event_type(const EXT_ASYNC_EVENT& event, uint32_t* fabric_port_id);

// ---- Callback registration ----

using vxapi_port_event_cb = void (*)(void* userdata, HBA_WWN port_wwn, HBA_UINT32 event_type,
                                     HBA_UINT32 fabric_port_id);

// One registered port-event callback of the Common HBA API client.
struct vxapi_hbapt_reg_cb_t {
    vxapi_port_event_cb cb_hba_port_event;
    void* hba_port_userdata;
    uint32_t hba_port_buf_len;
    void* prmcb_handle;  // what the client was given; null when none is registered
};

// Per-port event-callback table, allocated zeroed with each port record.
struct vxapi_aen_callback_table {
    vxapi_hbapt_reg_cb_t hbapt;
};
// The port's port-event callback (one per port; a new one replaces the
// old). The handle names this registration for vxapi_remove_event_cb.
// 0, or 1 for a null record or callback.
int vxapi_reg_port_event_cb(vxapi_priv_database* record, vxapi_port_event_cb cb, void* userdata, void** handle);
// Removes the registration `handle` names; 1 when none does.
int vxapi_remove_event_cb(void* handle);
// Forgets every event callback registered on the port.
void vxapi_unreg_all_events(vxapi_priv_database* record);
