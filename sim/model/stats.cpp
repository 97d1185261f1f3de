#include "stats.h"

namespace vxsim {

bool is_link_counter(std::string_view name) {
    static constexpr std::string_view LINK[] = {
        "lip_count",          "nos_count",           "link_failure_count",          "loss_of_sync_count",
        "loss_of_signal_count", "prim_seq_protocol_err_count", "invalid_tx_word_count", "invalid_crc_count",
    };
    for (std::string_view l : LINK)
        if (l == name)
            return true;
    return false;
}

std::map<std::string, uint64_t> initial_counters(const HostPort& port, bool physical) {
    std::map<std::string, uint64_t> counters;
    for (std::string_view name : FC_STATISTICS)
        counters[std::string(name)] = !physical && is_link_counter(name) ? COUNTER_NOT_KEPT : 0;
    for (const auto& [name, value] : port.stats.values)
        counters[name] = value;
    return counters;
}

const HostPort* find_host_port(const Scenario& s, uint32_t host_no, bool* physical) {
    for (const Adapter& a : s.adapters)
        for (const PciFunction& f : a.functions) {
            if (f.port.host_no == host_no) {
                if (physical)
                    *physical = true;
                return &f.port;
            }
            for (const HostPort& v : f.vports)
                if (v.host_no == host_no) {
                    if (physical)
                        *physical = false;
                    return &v;
                }
        }
    return nullptr;
}

std::array<uint32_t, LINK_ERROR_COUNTERS> remote_link_errors(const RemotePort& port) {
    std::array<uint32_t, LINK_ERROR_COUNTERS> counters{};
    for (size_t i = 0; i < counters.size(); ++i)
        counters[i] = static_cast<uint32_t>(i + 1) << 16 | (port.port_id & 0xFFFF);
    return counters;
}

}  // namespace vxsim
