// Layout of a sim root: the directory that holds one simulated host.
// The runner builds it, the driver emulation and `vxsim` subcommands act on it.
#pragma once

#include <string>

namespace vxsim::root {

inline constexpr const char* ENV_ROOT = "VXSIM_ROOT";  // set inside `vxsim run`

// Character-device majors the emulation owns. Taken from the range Linux
// reserves for local/experimental use, so no real driver is ever reached.
// Nodes are made with the old 8-bit-minor encoding (major * 256 + minor).
inline constexpr unsigned MAJOR_IOCTL = 60;     // /dev/vxfcdrv, minor 0
inline constexpr unsigned MAJOR_CONTROL = 61;   // /dev/vxfcapidev, minor 0
inline constexpr unsigned MAJOR_BSG_FIRST = 120;  // bsg nodes: 120..127, 256 minors each
inline constexpr unsigned MAJOR_BSG_LAST = 127;
// SCSI generic nodes (character, minor = the sg number) and disks (block,
// minor = the disk's index), made by the runner with full-width minors.
inline constexpr unsigned MAJOR_SG = 62;
inline constexpr unsigned MAJOR_DISK = 62;

inline std::string scenario(const std::string& r) { return r + "/scenario.json"; }
inline std::string sys(const std::string& r) { return r + "/sys"; }
inline std::string state(const std::string& r) { return r + "/state"; }
inline std::string flash(const std::string& r, const std::string& adapter_id) {
    return r + "/state/flash/" + adapter_id + ".bin";
}
inline std::string nvram(const std::string& r, unsigned host_no) {
    return r + "/state/nvram/host" + std::to_string(host_no) + ".bin";
}
inline std::string vpd(const std::string& r, unsigned host_no) {
    return r + "/state/vpd/host" + std::to_string(host_no) + ".bin";
}
inline std::string devices(const std::string& r) { return r + "/state/devices.json"; }
inline std::string journal(const std::string& r) { return r + "/state/journal.jsonl"; }
inline std::string faults(const std::string& r) { return r + "/state/faults.json"; }
inline std::string events(const std::string& r) { return r + "/state/events"; }
// Seconds the host's wall clock runs ahead of the real one (decimal text).
inline std::string clock(const std::string& r) { return r + "/state/clock"; }
inline std::string etc_upper(const std::string& r) { return r + "/etc"; }
inline std::string usrlib_upper(const std::string& r) { return r + "/usr-lib"; }
inline std::string overlay_work(const std::string& r) { return r + "/.work"; }

}  // namespace vxsim::root
