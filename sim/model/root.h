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
// bsg nodes, 256 minors per major: 120..127 first, then 512..767, above the
// highest major a real driver can register (a node that slipped past the
// emulation would reach nothing). 67584 nodes: a remote port never lacks one.
inline constexpr unsigned MAJOR_BSG_FIRST = 120;
inline constexpr unsigned MAJOR_BSG_LAST = 127;
inline constexpr unsigned MAJOR_BSG_MORE_FIRST = 512;
inline constexpr unsigned MAJOR_BSG_MORE_LAST = 767;
inline constexpr unsigned BSG_NODES =
    (MAJOR_BSG_LAST - MAJOR_BSG_FIRST + 1 + MAJOR_BSG_MORE_LAST - MAJOR_BSG_MORE_FIRST + 1) * 256;
// The major of the i-th bsg node (i below BSG_NODES).
inline constexpr unsigned bsg_major(unsigned i) {
    const unsigned m = i / 256;
    return m <= MAJOR_BSG_LAST - MAJOR_BSG_FIRST ? MAJOR_BSG_FIRST + m
                                                : MAJOR_BSG_MORE_FIRST + m - (MAJOR_BSG_LAST - MAJOR_BSG_FIRST + 1);
}
inline constexpr bool is_bsg_major(unsigned major) {
    return (major >= MAJOR_BSG_FIRST && major <= MAJOR_BSG_LAST) ||
           (major >= MAJOR_BSG_MORE_FIRST && major <= MAJOR_BSG_MORE_LAST);
}
static_assert(bsg_major(2047) == 127 && bsg_major(2048) == 512 && bsg_major(BSG_NODES - 1) == MAJOR_BSG_MORE_LAST);
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
