// FC transport bsg requests: SG_IO with an sg_io_v4 header on a host or
// remote-port node. For now every request is journaled and answered with
// ENOSYS, what a driver without bsg vendor support says.
#include <linux/bsg.h>

#include <cerrno>
#include <cstring>

#include "endpoints.h"

namespace vxsim::drv {

namespace {
constexpr uint32_t FC_BSG_HST_VENDOR = 0x800000FF;
}

long endpoint_bsg(const Sim& sim, Desc& d, void* hdr) {
    if (!sim.ok())
        return -EIO;
    JournalFields f = JournalFields::object();
    f["node"] = node_kind_name(d.kind);
    f["host"] = d.host;
    if (d.kind == NodeKind::BsgRport)
        f["rport"] = d.rport;
    sg_io_v4 h{};
    long r = copy_from_user(&h, hdr, sizeof h);
    if (r == 0 && h.guard != 'Q')
        r = -EINVAL;  // the block layer refuses it before the driver sees it
    if (r == 0) {
        r = -ENOSYS;
        f["protocol"] = h.protocol;
        f["subprotocol"] = h.subprotocol;
        f["request_len"] = h.request_len;
        f["dout_len"] = h.dout_xfer_len;
        f["din_len"] = h.din_xfer_len;
        uint32_t req[5] = {};
        size_t len = h.request_len < sizeof req ? h.request_len : sizeof req;
        std::string msgcode;
        if (len >= 4 &&
            copy_from_user(req, reinterpret_cast<const void*>(static_cast<uintptr_t>(h.request)), len) == 0) {
            msgcode = hex32(req[0]);
            f["msgcode"] = msgcode;
            if (req[0] == FC_BSG_HST_VENDOR && len >= 16)
                f["vendor_cmd"] = req[3];
        }
        if (std::optional<FaultAction> fault = fault_take("bsg", msgcode)) {
            f["fault"] = fault->text;
            if (fault->kind == FaultKind::Errno)
                r = -fault->error;
        }
    }
    journal_result(f, r);
    journal("bsg", f);
    return r;
}

}  // namespace vxsim::drv
