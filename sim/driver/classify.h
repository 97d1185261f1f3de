// Which opens the emulation takes over, decided from paths and device
// numbers alone (no scenario needed), so every other open passes through
// after at most one stat.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "desc.h"

namespace vxsim::drv {

// True for the character-device majors the simulator owns.
bool is_reserved_major(unsigned major);
// The same for block devices (the LUNs' disks).
bool is_reserved_block_major(unsigned major);

// The attribute kind for a file name, when it is one of the driver's
// binary attributes or an fc_host statistics file.
std::optional<AttrKind> attr_kind(std::string_view name);

struct AttrPath {
    AttrKind attr;
    uint32_t host;
};

// A resolved path naming a binary attribute of a SCSI host:
// <sysfs>/.../host<N>/<attribute>, or an FC host's counter:
// <sysfs>/.../host<N>/statistics/<counter>, where <sysfs> is /sys or
// `sim_sys` (the tree inside the sim root, for programs that reach it
// directly).
std::optional<AttrPath> parse_attr_path(std::string_view resolved, std::string_view sim_sys);

// The driver name of an older-generation node path
// "/proc/scsi/<driver>/HbaApiNode" for the drivers that had one.
std::optional<std::string> legacy_node_driver(std::string_view path);

}  // namespace vxsim::drv
