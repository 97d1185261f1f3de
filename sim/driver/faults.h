// Injected faults: a JSON array of {"endpoint", "match", "action", "count"}
// in the sim root, armed by the scenario or by `vxsim fault`, consumed here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vxsim::drv {

enum class FaultKind {
    Errno,   // "ebusy", "enosys", "eio", "refuse": the request fails with `error`
    Short,   // "short": the transfer moves less than asked
    Status,  // "status:<n>": the driver status in the reply record
    Partial, // "partial": a flash write stops halfway (half the bytes reach the flash) and fails
};

struct FaultAction {
    FaultKind kind = FaultKind::Errno;
    int error = 0;        // Errno: EBUSY, ENOSYS, EIO or EINVAL
    uint32_t status = 0;  // Status: the driver status to report
    std::string text;     // the action as written, for the journal
};

// Parses an action text; nullopt for anything unknown.
std::optional<FaultAction> parse_fault_action(std::string_view text);

// A fault's `match` selects requests by the endpoint's match text: "" matches
// everything, "abc*" every text starting with "abc", anything else itself
// only, or a text that continues it with a '/' qualifier ("0xc0747900"
// matches "0xc0747900/1").
bool fault_matches(std::string_view pattern, std::string_view text);

// Takes the first armed fault of `endpoint` matching `match_text` from the
// faults file, under an exclusive flock: a count of -1 stays armed, any other
// count is decremented and the entry removed at 0. Entries with unknown
// actions are left alone. A missing or unreadable file means no fault.
std::optional<FaultAction> fault_take_from(const std::string& faults_path, std::string_view endpoint,
                                           std::string_view match_text);

}  // namespace vxsim::drv
