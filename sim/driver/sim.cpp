#include "sim.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "root.h"
#include "sys.h"

namespace vxsim::drv {

bool parse_devices(const std::string& json_text, std::map<std::pair<unsigned, unsigned>, DeviceEntry>& out,
                   std::string& error) {
    nlohmann::json j = nlohmann::json::parse(json_text, nullptr, false);
    if (!j.is_object()) {
        error = "devices map: not a JSON object";
        return false;
    }
    out.clear();
    for (const auto& [key, value] : j.items()) {
        unsigned major = 0, minor = 0;
        char tail = 0;
        if (std::sscanf(key.c_str(), "%u:%u%c", &major, &minor, &tail) != 2) {
            error = "devices map: key \"" + key + "\" is not major:minor";
            return false;
        }
        if (!value.is_object() || !value.contains("kind") || !value["kind"].is_string()) {
            error = "devices map: " + key + ": no \"kind\"";
            return false;
        }
        DeviceEntry e;
        e.kind = value["kind"].get<std::string>();
        if (auto h = value.find("host"); h != value.end() && h->is_number_unsigned())
            e.host = h->get<uint32_t>();
        if (auto r = value.find("rport"); r != value.end() && r->is_string())
            e.rport = r->get<std::string>();
        out[{major, minor}] = std::move(e);
    }
    return true;
}

Sim::Sim(std::string root, Scenario scenario, std::map<std::pair<unsigned, unsigned>, DeviceEntry> devices)
    : ok_(true), root_(std::move(root)), scenario_(std::move(scenario)), devices_(std::move(devices)) {
    index_scsi();
}

void Sim::index_scsi() {
    scsi_ = scsi_devices(scenario_);
    disks_.clear();
    for (const ScsiDevice& d : scsi_)
        if (d.disk >= 0)
            disks_.push_back(d.sg);
}

const ScsiDevice* Sim::sg_device(unsigned minor) const { return minor < scsi_.size() ? &scsi_[minor] : nullptr; }

const ScsiDevice* Sim::disk_device(unsigned minor) const {
    return minor < disks_.size() ? &scsi_[disks_[minor]] : nullptr;
}

const std::string& Sim::root_path() {
    // Leaked on purpose: interposed calls may come after static destructors ran.
    static const std::string* root = [] {
        const char* r = std::getenv(root::ENV_ROOT);
        return new std::string(r ? r : "");
    }();
    return *root;
}

namespace {
std::atomic<const Sim*> g_sim{nullptr};
std::mutex g_sim_mu;
__attribute__((tls_model("initial-exec"))) thread_local bool t_loading = false;
}  // namespace

const Sim* Sim::get() {
    const std::string& root = root_path();
    if (root.empty())
        return nullptr;
    if (const Sim* s = g_sim.load(std::memory_order_acquire))
        return s;
    if (t_loading)
        return nullptr;  // reached again from inside the loader: let it pass through
    std::lock_guard<std::mutex> lock(g_sim_mu);
    if (const Sim* s = g_sim.load(std::memory_order_acquire))
        return s;
    t_loading = true;
    auto* s = new Sim();
    std::string error;
    s->ok_ = s->load(root, error);
    if (!s->ok_) {
        std::string line = "vxsim driver: " + error + "\n";
        sys::write(2, line.data(), line.size());
    }
    t_loading = false;
    g_sim.store(s, std::memory_order_release);
    return s;
}

bool Sim::load(const std::string& root, std::string& error) {
    root_ = root;
    if (!load_scenario(root::scenario(root), scenario_, error))
        return false;
    sys::Fd fd(sys::open(root::devices(root).c_str(), O_RDONLY));
    std::string text;
    if (!fd.ok() || !sys::read_all(fd.get(), text)) {
        error = "cannot read " + root::devices(root);
        return false;
    }
    index_scsi();
    return parse_devices(text, devices_, error);
}

std::optional<DeviceEntry> Sim::device(unsigned major, unsigned minor) const {
    auto it = devices_.find({major, minor});
    if (it == devices_.end())
        return std::nullopt;
    return it->second;
}

std::optional<HostRef> Sim::host(uint32_t host_no) const {
    for (const Adapter& a : scenario_.adapters)
        for (size_t fn = 0; fn < a.functions.size(); ++fn) {
            const PciFunction& f = a.functions[fn];
            if (f.port.host_no == host_no)
                return HostRef{&a, fn, true};
            for (const HostPort& v : f.vports)
                if (v.host_no == host_no)
                    return HostRef{&a, fn, false};
        }
    return std::nullopt;
}

bool Sim::legacy_driver(std::string_view name) const {
    for (const Adapter& a : scenario_.adapters)
        if (a.channel == Channel::Legacy && a.driver_name == name)
            return true;
    return false;
}

std::string Sim::optrom_state_dir() const { return root::state(root_) + "/optrom"; }

void journal(std::string_view ep, const JournalFields& fields) {
    const std::string& root = Sim::root_path();
    if (root.empty())
        return;
    journal_append(root::journal(root), root::state(root) + "/journal.seq", ep, fields);
}

std::optional<FaultAction> fault_take(std::string_view endpoint, std::string_view match_text) {
    const std::string& root = Sim::root_path();
    if (root.empty())
        return std::nullopt;
    std::optional<FaultAction> fault = fault_take_from(root::faults(root), endpoint, match_text);
    if (fault && fault->kind == FaultKind::Delay) {
        // Real time: a test holds the request while it acts on the process.
        timespec t{static_cast<time_t>(fault->status / 1000), static_cast<long>(fault->status % 1000) * 1000000};
        while (::syscall(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, &t, &t) != 0 && errno == EINTR) {
        }
        return std::nullopt;
    }
    return fault;
}

}  // namespace vxsim::drv
