#include "counters.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <ctime>

#include "root.h"
#include "stats.h"
#include "sys.h"

namespace vxsim::drv {

namespace {

using nlohmann::json;

constexpr uint64_t MB = 1024 * 1024;
constexpr uint64_t FRAME = 2048;  // payload bytes per frame
constexpr uint64_t FRAME_OVERHEAD_WORDS = 9;

std::string state_path(const std::string& root, uint32_t host) {
    return root::state(root) + "/counters/host" + std::to_string(host) + ".json";
}

std::string wwpn_key(uint64_t wwpn) {
    char text[24];
    snprintf(text, sizeof text, "0x%016llx", static_cast<unsigned long long>(wwpn));
    return text;
}

uint64_t now() { return static_cast<uint64_t>(time(nullptr)); }

uint64_t frames(uint64_t bytes) { return (bytes + FRAME - 1) / FRAME; }

// The host's state file, locked while the object lives. A missing file is
// a host as it was made: the scenario's values, the clock starting now.
class HostState {
public:
    HostState(const std::string& root, const Scenario& s, uint32_t host)
        : port_(find_host_port(s, host, &physical_)) {
        if (!port_)
            return;
        const std::string dir = root::state(root) + "/counters";
        if (!sys::make_dirs(dir))
            return;
        lock_.emplace(state_path(root, host), O_RDWR | O_CREAT);
        if (!lock_->ok())
            return;
        std::string text;
        if (sys::read_all(lock_->fd(), text) && !text.empty())
            state_ = json::parse(text, nullptr, false);
        if (!state_.is_object()) {
            state_ = json::object();
            state_["values"] = initial_counters(*port_, physical_);
            state_["since"] = now();
            state_["rports"] = json::object();
        }
        ok_ = true;
    }
    bool ok() const { return ok_; }

    json& values(std::optional<uint64_t> rport) {
        if (!rport)
            return state_["values"];
        json& r = state_["rports"][wwpn_key(*rport)];
        if (!r.is_object()) {
            // A remote port's counters start when the host first talks to it.
            r = json::object();
            CounterMap zero;
            for (std::string_view name : FC_STATISTICS)
                zero[std::string(name)] = 0;
            r["values"] = zero;
        }
        return r["values"];
    }

    CounterMap shown(std::optional<uint64_t> rport) {
        CounterMap out;
        for (auto& [name, value] : values(rport).items())
            if (name[0] != '_' && value.is_number_unsigned())
                out[name] = value.get<uint64_t>();
        uint64_t& seconds = out["seconds_since_last_reset"];
        if (seconds != COUNTER_NOT_KEPT)
            seconds += now() - state_.value("since", now());
        return out;
    }

    void add(std::optional<uint64_t> rport, const CounterMap& deltas) {
        json& v = values(rport);
        for (const auto& [name, delta] : deltas) {
            const uint64_t old = v.contains(name) && v[name].is_number_unsigned() ? v[name].get<uint64_t>() : 0;
            if (old != COUNTER_NOT_KEPT)
                v[name] = old + delta;
        }
        // Whole megabytes move out of the byte remainders.
        for (const auto& [bytes, mb] : {std::pair{"_in_bytes", "fcp_input_megabytes"},
                                        std::pair{"_out_bytes", "fcp_output_megabytes"}}) {
            const uint64_t b = v.value(bytes, uint64_t{0});
            if (b >= MB && v.value(mb, uint64_t{0}) != COUNTER_NOT_KEPT) {
                v[mb] = v.value(mb, uint64_t{0}) + b / MB;
                v[bytes] = b % MB;
            }
        }
    }

    void reset() {
        auto clear = [](json& v) {
            for (auto& [name, value] : v.items())
                if (!value.is_number_unsigned() || value.get<uint64_t>() != COUNTER_NOT_KEPT)
                    value = 0;
        };
        clear(state_["values"]);
        for (auto& [key, r] : state_["rports"].items())
            clear(r["values"]);
        state_["since"] = now();
    }

    bool save() {
        const std::string text = state_.dump() + "\n";
        return sys::replace_content(lock_->fd(), text.data(), text.size());
    }

private:
    bool physical_ = true;
    const HostPort* port_;
    std::optional<sys::Locked> lock_;
    json state_;
    bool ok_ = false;
};

}  // namespace

CounterMap traffic_deltas(const Traffic& t) {
    // A command frame out and a status frame back, and the data's frames.
    const uint64_t tx = 1 + frames(t.bytes_out);
    const uint64_t rx = 1 + frames(t.bytes_in);
    CounterMap d{
        {"tx_frames", tx},
        {"rx_frames", rx},
        {"tx_words", t.bytes_out / 4 + tx * FRAME_OVERHEAD_WORDS},
        {"rx_words", t.bytes_in / 4 + rx * FRAME_OVERHEAD_WORDS},
    };
    switch (t.kind) {
    case Traffic::Read: d["fcp_input_requests"] = 1; break;
    case Traffic::Write: d["fcp_output_requests"] = 1; break;
    case Traffic::Control: d["fcp_control_requests"] = 1; break;
    case Traffic::Frames: break;
    }
    if (t.kind != Traffic::Frames) {
        d["_in_bytes"] = t.bytes_in;
        d["_out_bytes"] = t.bytes_out;
    }
    return d;
}

std::optional<CounterMap> counters_read(const std::string& root, const Scenario& s, uint32_t host,
                                        std::optional<uint64_t> rport_wwpn) {
    HostState st(root, s, host);
    if (!st.ok())
        return std::nullopt;
    return st.shown(rport_wwpn);
}

bool counters_add(const std::string& root, const Scenario& s, uint32_t host, const CounterMap& deltas,
                  std::optional<uint64_t> rport_wwpn) {
    HostState st(root, s, host);
    if (!st.ok())
        return false;
    st.add(std::nullopt, deltas);
    if (rport_wwpn)
        st.add(rport_wwpn, deltas);
    return st.save();
}

bool counters_reset(const std::string& root, const Scenario& s, uint32_t host) {
    HostState st(root, s, host);
    if (!st.ok())
        return false;
    st.reset();
    return st.save();
}

EXT_HBA_PORT_STAT port_stat_record(const CounterMap& c) {
    auto get = [&c](const char* name) -> uint64_t {
        auto it = c.find(name);
        return it == c.end() || it->second == COUNTER_NOT_KEPT ? 0 : it->second;
    };
    auto low = [](uint64_t v) { return static_cast<uint32_t>(v); };
    EXT_HBA_PORT_STAT r{};
    r.ControllerErrorCount = low(get("error_frames"));
    r.TotalIoCount = low(get("fcp_input_requests") + get("fcp_output_requests") + get("fcp_control_requests"));
    r.TotalMBytes = low(get("fcp_input_megabytes") + get("fcp_output_megabytes"));
    r.TotalLipResets = low(get("lip_count"));
    r.TotalLinkFailures = low(get("link_failure_count"));
    r.TotalLossOfSync = low(get("loss_of_sync_count"));
    r.TotalLossOfSignals = low(get("loss_of_signal_count"));
    r.PrimitiveSeqProtocolErrorCount = low(get("prim_seq_protocol_err_count"));
    r.InvalidTransmissionWordCount = low(get("invalid_tx_word_count"));
    r.InvalidCRCCount = low(get("invalid_crc_count"));
    r.InputRequestCount = get("fcp_input_requests");
    r.OutputRequestCount = get("fcp_output_requests");
    r.ControlRequestCount = get("fcp_control_requests");
    r.InputMBytes = get("fcp_input_megabytes");
    r.OutputMBytes = get("fcp_output_megabytes");
    r.TxFrames = low(get("tx_frames"));
    r.RxFrames = low(get("rx_frames"));
    r.NosCount = low(get("nos_count"));
    r.DumpedFrames = low(get("dumped_frames"));
    return r;
}

}  // namespace vxsim::drv
