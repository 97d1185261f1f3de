// Renders a scenario as a sim root: the sysfs tree under <root>/sys, laid out
// and worded as the Linux kernel does it, and the initial state files the
// driver emulation works on (see root.h for the layout).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "model.h"

namespace vxsim {

// One character device the emulation answers, as listed in the devices map.
struct DeviceNode {
    unsigned major = 0;
    unsigned minor = 0;
    std::string kind;    // "ioctl", "control", "bsg_host", "bsg_rport"
    uint32_t host = 0;   // bsg kinds: the SCSI host
    std::string rport;   // bsg_rport: "rport-5:0-2"
    std::string name;    // the class/bsg entry ("fc_host5", "rport-5:0-2"), or the node name
};

struct TreeStats {
    size_t dirs = 0;
    size_t files = 0;
    size_t links = 0;
    size_t rports_without_bsg = 0;  // remote ports beyond the bsg number space
};

// Checks what the tree relies on: well-formed and distinct PCI addresses,
// distinct host numbers, distinct remote-port and LUN names per host, known
// adapter ids. false with a one-line reason.
bool check_scenario(const Scenario& s, std::string& error);

// The device numbers the tree hands out, in a stable order: the ioctl and
// control nodes when present, then every host's bsg node, then the remote
// ports' (as long as the bsg majors last).
std::vector<DeviceNode> plan_device_nodes(const Scenario& s);

// Writes <root>/sys. The directory must not exist yet or be empty.
bool write_sys_tree(const Scenario& s, const std::string& root, TreeStats& stats, std::string& error);

// Writes the state files: flash images, NVRAM and VPD images kept outside the
// flash, the devices map, an empty journal, the faults, the scenario's events
// in the spool, the resolved scenario.json, and the overlay directories.
bool write_state(const Scenario& s, const std::string& root, std::string& error);

// A complete sim root in `root` (created when missing; must be empty).
bool build_root(const Scenario& s, const std::string& root, TreeStats& stats, std::string& error);

}  // namespace vxsim
