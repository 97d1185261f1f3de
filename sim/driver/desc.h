// What an emulated descriptor stands for. The caller holds a real descriptor
// (an O_PATH handle of the node or attribute file, /dev/null for the older
// generation's /proc node, one end of a socket pair for netlink) so that
// fstat, poll and close behave; the table maps its number to this record.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <string>

#include "events.h"

namespace vxsim::drv {

enum class NodeKind {
    Ioctl,     // the newer extended-ioctl node
    Control,   // the control node
    Legacy,    // the older generation's /proc/scsi/<driver>/HbaApiNode
    BsgHost,   // fc_host<N> bsg node
    BsgRport,  // rport-H:B-R bsg node
    Attr,      // optrom_ctl, optrom, nvram, vpd under /sys/.../host<N>/, fc_host statistics
    Netlink,   // AF_NETLINK protocol 20 (vendor) or 18 (SCSI transport)
    Sg,        // a LUN's SCSI generic node /dev/sg<N>
    Disk,      // a disk LUN's block node /dev/sd<x>
};

enum class AttrKind {
    OptromCtl,
    Optrom,
    Nvram,
    Vpd,
    Stat,  // fc_host/host<N>/statistics/<counter> and reset_statistics
};

const char* node_kind_name(NodeKind k);
const char* attr_name(AttrKind a);

struct Desc {
    Desc() = default;
    Desc(const Desc&) = delete;
    Desc& operator=(const Desc&) = delete;
    ~Desc();

    NodeKind kind = NodeKind::Ioctl;
    int fd = -1;          // the real descriptor the caller opened (dup'ed numbers share this record)
    dev_t dev = 0;        // identity of `fd`, to notice a number closed and
    ino_t ino = 0;        // reused behind our back (close_range, fclose of an fdopen)
    int open_flags = 0;   // the caller's open flags (access mode checks)

    unsigned major = 0, minor = 0;  // device nodes
    std::string driver;   // Legacy: the driver name in the path
    uint32_t host = 0;    // BsgHost, BsgRport, Attr: SCSI host number
    std::string rport;    // BsgRport: "rport-H:B-R"
    uint32_t scsi = 0;    // Sg, Disk: index into Sim::scsi()
    AttrKind attr = AttrKind::Optrom;
    std::string path;     // Attr: the resolved attribute path (Stat: its last name is the counter)
    int protocol = 0;     // Netlink
    int peer = -1;        // Netlink: the other end of the pair; replies are written there
    FcCursor fc;          // Netlink 18: the FC transport events this socket was given (guarded by mu)

    std::mutex mu;        // guards pos and selected
    uint64_t pos = 0;     // one file position per open descriptor
    int32_t selected = -1;  // Ioctl, Legacy: the driver instance EXT_CC_SET_INSTANCE chose (-1: none)
};

}  // namespace vxsim::drv
