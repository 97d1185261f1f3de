// Event thread: one per process, started when the shared database opens and
// stopped when it closes. Internal.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "vx_core.h"

inline constexpr unsigned VX_EV_POLL_PERIOD = 15;  // seconds between polling passes
// port_flags bit: a Common HBA API port-event callback is registered.
inline constexpr uint32_t VX_PORT_FLAG_HBAPT_CB = 0x01;

extern pthread_t vxapi_ev_thread_id;               // 0 when no thread runs
extern std::atomic<uint8_t> vxapi_ev_terminate;    // 1 asks the thread to end

int vxapi_start_event_thread();
// Sets the terminate flag, wakes the thread and joins it. 0 when no
// thread is left; the join error otherwise (the thread id is kept).
int vxapi_stop_event_thread();
void* vxapi_event_thread(void* arg);

// Forgets every event callback registered on the port.
void vxapi_unreg_all_events(vxapi_priv_database* record);
