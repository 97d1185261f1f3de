#include "desc.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace vxsim::drv {

Desc::~Desc() {
    if (peer >= 0)
        ::syscall(SYS_close, peer);
}

const char* node_kind_name(NodeKind k) {
    switch (k) {
    case NodeKind::Ioctl: return "ioctl";
    case NodeKind::Control: return "control";
    case NodeKind::Legacy: return "legacy";
    case NodeKind::BsgHost: return "bsg_host";
    case NodeKind::BsgRport: return "bsg_rport";
    case NodeKind::Attr: return "attr";
    case NodeKind::Netlink: return "netlink";
    case NodeKind::Sg: return "sg";
    case NodeKind::Disk: return "disk";
    }
    return "?";
}

const char* attr_name(AttrKind a) {
    switch (a) {
    case AttrKind::OptromCtl: return "optrom_ctl";
    case AttrKind::Optrom: return "optrom";
    case AttrKind::Nvram: return "nvram";
    case AttrKind::Vpd: return "vpd";
    case AttrKind::Stat: return "statistics";
    }
    return "?";
}

}  // namespace vxsim::drv
