// Live fc_host statistics of the simulated hosts. The counters of a host,
// and of each remote port it talks to, live in one state file per host
// (state/counters/host<N>.json) so that every process of the simulated host
// sees them move: SCSI commands and CT/ELS requests add traffic, link events
// add errors, and a reset clears them. A host starts from the scenario's
// values (sim/model/stats.h).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "exioct.h"
#include "model.h"

namespace vxsim::drv {

using CounterMap = std::map<std::string, uint64_t>;

// One exchange on a port, as the counters see it.
struct Traffic {
    enum Kind { Read, Write, Control, Frames } kind = Control;  // Frames: CT or ELS, no FCP request
    uint64_t bytes_in = 0;   // data to the host
    uint64_t bytes_out = 0;  // data from the host
};

// The counter increments of one exchange: frames and words both ways, the
// FCP request of its kind, and whole megabytes as they fill up (the
// remainder is kept under "_in_bytes" and "_out_bytes", which are not shown).
CounterMap traffic_deltas(const Traffic& t);

// The host's counters now (seconds_since_last_reset counting), or those of
// its remote port `rport_wwpn`; nullopt when the host is not in the scenario.
std::optional<CounterMap> counters_read(const std::string& root, const Scenario& s, uint32_t host,
                                        std::optional<uint64_t> rport_wwpn = std::nullopt);
// Adds to the host's counters (and the remote port's, when given); counters
// the host does not keep stay so. False when the host is unknown or the
// state cannot be written.
bool counters_add(const std::string& root, const Scenario& s, uint32_t host, const CounterMap& deltas,
                  std::optional<uint64_t> rport_wwpn = std::nullopt);
// Clears every kept counter of the host and of its remote ports.
bool counters_reset(const std::string& root, const Scenario& s, uint32_t host);

// The driver's statistics record from counters (counters not kept read 0).
EXT_HBA_PORT_STAT port_stat_record(const CounterMap& c);

}  // namespace vxsim::drv
