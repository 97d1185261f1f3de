// The simulated host as one process of it sees it: the sim root, the
// scenario and the devices map, loaded once on first use. Mutable state stays
// in the root's files; nothing here changes after loading.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "faults.h"
#include "journal.h"
#include "model.h"

namespace vxsim::drv {

// One entry of the devices map ("major:minor" -> what the node is).
struct DeviceEntry {
    std::string kind;   // "ioctl", "control", "bsg_host", "bsg_rport"
    uint32_t host = 0;  // bsg nodes
    std::string rport;  // bsg_rport
};

// Parses the devices map; false with `error` set on malformed text.
bool parse_devices(const std::string& json_text, std::map<std::pair<unsigned, unsigned>, DeviceEntry>& out,
                   std::string& error);

// A SCSI host of the scenario: its adapter, PCI function and whether it is
// the function's physical port.
struct HostRef {
    const Adapter* adapter = nullptr;
    size_t fn = 0;  // index into adapter->functions
    bool physical = true;
};

class Sim {
public:
    // The root from VXSIM_ROOT, or null outside a simulated host. The
    // scenario is loaded on the first call; when that fails ok() is false,
    // the reason goes to standard error once, and emulated endpoints answer
    // EIO rather than reaching the real host.
    static const Sim* get();
    // The VXSIM_ROOT text without loading anything; empty outside a sim.
    static const std::string& root_path();

    // For tests: a context over an already loaded scenario.
    Sim(std::string root, Scenario scenario, std::map<std::pair<unsigned, unsigned>, DeviceEntry> devices);
    Sim(const Sim&) = delete;  // scsi() points into scenario()
    Sim& operator=(const Sim&) = delete;

    bool ok() const { return ok_; }
    const std::string& root() const { return root_; }
    const Scenario& scenario() const { return scenario_; }

    std::optional<DeviceEntry> device(unsigned major, unsigned minor) const;
    std::optional<HostRef> host(uint32_t host_no) const;
    // The LUNs' SCSI generic and disk devices, in sg order (see scsi_devices).
    const std::vector<ScsiDevice>& scsi() const { return scsi_; }
    // The device behind SCSI generic node sg<minor>, or disk <minor>.
    const ScsiDevice* sg_device(unsigned minor) const;
    const ScsiDevice* disk_device(unsigned minor) const;
    // True when a Legacy-channel adapter is bound to driver `name`.
    bool legacy_driver(std::string_view name) const;

    std::string optrom_state_dir() const;

private:
    Sim() = default;
    bool load(const std::string& root, std::string& error);
    void index_scsi();

    bool ok_ = false;
    std::string root_;
    Scenario scenario_;
    std::map<std::pair<unsigned, unsigned>, DeviceEntry> devices_;
    std::vector<ScsiDevice> scsi_;
    std::vector<uint32_t> disks_;  // disk index -> index into scsi_
};

// Journal and faults of the current simulated host (no-ops outside one).
void journal(std::string_view ep, const JournalFields& fields);
std::optional<FaultAction> fault_take(std::string_view endpoint, std::string_view match_text);

}  // namespace vxsim::drv
