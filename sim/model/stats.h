// The fc_host statistics counters of a simulated host: their names and the
// values a host starts with. The driver emulation keeps them moving (see
// sim/driver/counters.h); the tree shows the starting values.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "model.h"

namespace vxsim {

// The counters every host shows, in the kernel's order.
inline constexpr std::string_view FC_STATISTICS[] = {
    "seconds_since_last_reset", "tx_frames", "tx_words", "rx_frames", "rx_words", "lip_count",
    "nos_count", "error_frames", "dumped_frames", "link_failure_count", "loss_of_sync_count",
    "loss_of_signal_count", "prim_seq_protocol_err_count", "invalid_tx_word_count",
    "invalid_crc_count", "fcp_input_requests", "fcp_output_requests", "fcp_control_requests",
    "fcp_input_megabytes", "fcp_output_megabytes", "fcp_packet_alloc_failures", "fcp_packet_aborts",
    "fcp_frame_alloc_failures", "fc_no_free_exch", "fc_no_free_exch_xid", "fc_xid_not_found",
    "fc_xid_busy", "fc_seq_not_found", "fc_non_bls_resp",
};

// What the transport shows for a counter the driver does not keep.
inline constexpr uint64_t COUNTER_NOT_KEPT = ~0ull;

// Counters of the link itself (loop initialisations, signal, sync, words,
// CRC): an NPIV port has no link of its own and does not keep them.
bool is_link_counter(std::string_view name);

// A host's counters when the host is made: 0, the scenario's values, and
// COUNTER_NOT_KEPT for the link counters of a virtual port the scenario
// leaves unset.
std::map<std::string, uint64_t> initial_counters(const HostPort& port, bool physical);

// The host with this SCSI host number; `physical` tells whether it is its
// function's physical port. Null when the scenario has none.
const HostPort* find_host_port(const Scenario& s, uint32_t host_no, bool* physical);

// The link error status block a remote port reports (RLS, RPS): link
// failures, loss of sync, loss of signal, primitive sequence protocol
// errors, invalid transmission words, invalid CRCs. Remote ports keep no
// counters in a scenario, so each is derived from the port: counter i
// (from 0) is (i + 1) << 16 | the low 16 bits of its address, distinct per
// counter and per port, and stable for the life of the scenario.
inline constexpr size_t LINK_ERROR_COUNTERS = 6;
std::array<uint32_t, LINK_ERROR_COUNTERS> remote_link_errors(const RemotePort& port);

}  // namespace vxsim
