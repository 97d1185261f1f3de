// Extended-ioctl requests (EXT_IOCTL and EXT_IOCTL_O records) on the ioctl,
// control and older-generation nodes. For now every request is journaled and
// refused with ENOTTY: the driver commands are answered by a later step.
#include <cerrno>
#include <cstring>

#include "endpoints.h"

namespace vxsim::drv {

namespace {

// What the journal shows of a request record; the generation is told by its
// signature and version, whatever the request number says.
JournalFields describe_record(const void* arg) {
    JournalFields f = JournalFields::object();
    unsigned char rec[36];
    if (copy_from_user(rec, arg, sizeof rec) < 0) {
        f["record"] = "unreadable";
        return f;
    }
    auto u16 = [&](size_t off) {
        uint16_t v;
        std::memcpy(&v, rec + off, 2);
        return v;
    };
    auto u32 = [&](size_t off) {
        uint32_t v;
        std::memcpy(&v, rec + off, 4);
        return v;
    };
    if (std::memcmp(rec, "VARNEX\0\0", 8) == 0 && u16(10) == 7) {
        f["record"] = "EXT_IOCTL";
        f["subcode"] = u16(12);
        f["instance"] = u16(14);
        f["request_len"] = u32(28);
        f["response_len"] = u32(32);
    } else if (std::memcmp(rec, "VARN", 4) == 0 && u16(6) == 5) {
        f["record"] = "EXT_IOCTL_O";
        f["subcode"] = u16(8);
        f["instance"] = u16(10);
        f["request_len"] = u32(24);
        f["response_len"] = u32(28);
    } else
        f["record"] = "unknown";
    return f;
}

}  // namespace

long endpoint_ioctl(const Sim& sim, Desc& d, unsigned long request, void* arg) {
    if (!sim.ok())
        return -EIO;
    JournalFields f = JournalFields::object();
    f["node"] = node_kind_name(d.kind);
    if (d.kind == NodeKind::Legacy)
        f["driver"] = d.driver;
    std::string req = hex32(static_cast<uint32_t>(request));
    f["request"] = req;
    JournalFields record = describe_record(arg);
    for (auto& [k, v] : record.items())
        f[k] = v;
    long r = -ENOTTY;
    if (std::optional<FaultAction> fault = fault_take("ioctl", req)) {
        f["fault"] = fault->text;
        if (fault->kind == FaultKind::Errno)
            r = -fault->error;
    }
    journal_result(f, r);
    journal("ioctl", f);
    return r;
}

}  // namespace vxsim::drv
