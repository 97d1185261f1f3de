// The event spool as the driver emulation delivers it (state/events, one
// file per event, named by its sequence number; written by `vxsim event`
// and by the scenario's events when the host is built). Driver events
// (kind "aen") sit in the driver's queue of their host until one reader
// takes them, through the ioctl event queue or the vendor netlink channel.
// FC transport events (kind "fc") are multicast: every socket in the FC
// events group receives each one queued after it joined, and the events of
// the scenario as well.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "exioct.h"

namespace vxsim::drv {

struct SpoolEntry {
    uint64_t seq = 0;  // the file's name as a number
    uint32_t host_no = 0;
    uint32_t code = 0;
    uint32_t data = 0;
    bool fc = true;    // kind "fc", else "aen"
};

// The spool in sequence order; unreadable entries are left out.
std::vector<SpoolEntry> spool_list(const std::string& root);
// The number of the newest event ever queued, and of the newest one the
// scenario queued when the host was built.
uint64_t spool_seq(const std::string& root);
uint64_t spool_boot(const std::string& root);
// Removes the driver events of `host` from the spool, oldest first, at most
// `max`; each goes to exactly one caller, whichever process asks first.
std::vector<SpoolEntry> spool_take_driver_events(const std::string& root, uint32_t host, size_t max);

// A driver event as the library's 16-byte entry: the code, the data word
// in bytes 4-7 (bits 16-23, 8-15, 0-7, 24-31) and the host at offset 8.
EXT_ASYNC_EVENT aen_entry(const SpoolEntry& e);
// An FC transport event as the kernel multicasts it (nlmsghdr, then
// fc_nl_event); the sequence number is its event number.
std::vector<uint8_t> fc_event_message(const SpoolEntry& e);

// What a socket in the FC events group has been given: the scenario's
// events up to `boot_next` - 1, and the later ones up to `next` - 1.
struct FcCursor {
    bool joined = false;
    uint64_t boot_next = 1;
    uint64_t next = 0;
};
// Joins the group now (once): later events only, plus the scenario's.
void fc_join(FcCursor& c, const std::string& root);
// The events due to a socket with this cursor, which moves past them.
std::vector<SpoolEntry> fc_due(FcCursor& c, const std::string& root);

}  // namespace vxsim::drv
