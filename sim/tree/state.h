// The sim root's shared state files as the `vxsim` subcommands and the test
// harness edit them: faults (under the same flock the driver emulation takes),
// the event spool, the request journal.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "model.h"

namespace vxsim::state {

nlohmann::json fault_to_json(const Fault& f);

// Reads root::faults; a missing file is an empty list.
bool read_faults(const std::string& root, std::vector<Fault>& out, std::string& error);
// Appends one fault (validated: endpoint and action set, count -1 or > 0).
bool add_fault(const std::string& root, const Fault& f, std::string& error);
bool clear_faults(const std::string& root, std::string& error);
// Replaces the whole list (used when the root is built).
bool write_faults(const std::string& root, const std::vector<Fault>& faults, std::string& error);

// One event waiting in the spool for the netlink / AEN endpoints.
struct SpoolEvent {
    uint32_t host_no = 0;
    uint32_t code = 0;
    uint32_t data = 0;
    std::string kind = "fc";  // "fc": FC transport event; "aen": driver AEN
};

// Adds an event under the next sequence number (file name: the number,
// zero-padded to 10 digits). Atomic among concurrent writers: the content is
// complete before the name appears. `name` receives the file name.
bool append_event(const std::string& root, const SpoolEvent& e, std::string* name, std::string& error);
// The spool in sequence order.
bool list_events(const std::string& root, std::vector<std::pair<std::string, SpoolEvent>>& out,
                 std::string& error);

// The event names of `vxsim event --type`: lip, linkup, linkdown, lipreset,
// rscn, newtargets, unknown.
const std::vector<std::string>& event_types();
// The spool event that reaches a host of this scenario as an event of
// `type`, through the path the host's channel uses: FC transport events
// (link and loop events, RSCN) on sysfs hosts, the driver's event queue
// otherwise and for the events the transport has no code for. An RSCN
// carries `port_id` (24 bits, address format 0).
bool event_of_type(const Scenario& s, uint32_t host_no, const std::string& type, uint32_t port_id, SpoolEvent& out,
                   std::string& error);

// One journal line: parsed (a line that is not JSON is kept as a string) and
// as it stands in the file.
struct JournalLine {
    nlohmann::json record;
    std::string text;
};
bool read_journal(const std::string& root, std::vector<JournalLine>& out, std::string& error);

// The host's clock offset in seconds (0 when never moved), and moving it
// forward or back. The file is replaced whole, so that a reader never sees
// a part of it.
bool read_clock_offset(const std::string& root, int64_t& out, std::string& error);
bool advance_clock(const std::string& root, int64_t seconds, int64_t* now_offset, std::string& error);

}  // namespace vxsim::state
