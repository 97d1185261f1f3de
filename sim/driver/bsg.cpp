// FC transport bsg requests: SG_IO with an sg_io_v4 header on a host or
// remote-port node. The transport checks the framing as the kernel's FC
// transport does, then one case per message code carries the job out: CT to
// the fabric's name server, ELS to a remote port. Vendor commands are
// answered with ENOSYS, what a driver without bsg vendor support says.
#include <linux/bsg.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "bigendian.h"
#include "endpoints.h"
#include "fabric.h"
#include "flash_ops.h"
#include "vx_fc_bsg.h"

namespace vxsim::drv {

namespace {

constexpr size_t MAX_PAYLOAD = 1u << 20;
constexpr size_t MAX_FLASH = 64u << 20;  // above every flash the adapter table knows

// Vendor command codes the driver answers.
enum : uint32_t {
    VENDOR_READ_FLASH = 7,
    VENDOR_UPDATE_FLASH = 8,
    VENDOR_ACTIVATE_REGION = 18,
    VENDOR_GET_FLASH_CAPS = 21,
    VENDOR_SET_FLASH_CAPS = 22,
};

void* user_ptr(uint64_t adr) { return reinterpret_cast<void*>(static_cast<uintptr_t>(adr)); }

uint32_t port_id_of(const uint8_t (&id)[3]) { return static_cast<uint32_t>(get_be(id, 3)); }

// One job as the driver sees it, and what it gives back.
struct Job {
    Job(const Sim& s, const Desc& d, const HostPort& h, JournalFields& fields) : sim(s), node(d), host(h), f(fields) {}

    const Sim& sim;
    const Desc& node;
    const HostPort& host;
    JournalFields& f;
    fc_bsg_request req{};
    std::vector<uint8_t> dout;

    bool partial = false;        // a "partial" fault: a flash write stops halfway
    uint32_t din_len = 0;        // what the request asks to read back
    long result = 0;             // negative: the job failed with that errno
    std::vector<uint8_t> din;    // reply payload (cut to din_len by the transport)
    fc_bsg_reply reply{};
    size_t reply_len = sizeof(fc_bsg_reply);
};

void ct_reply(Job& job, const CtAnswer& a) {
    job.f["ct_response"] = hex_digits(a.code, 4);
    if (a.code == CT_REJECT) {
        job.f["reason"] = a.reason;
        job.f["explanation"] = a.explanation;
    }
    job.din = a.bytes;
    job.reply.reply_data.ctels_reply.status = FC_CTELS_STATUS_OK;
}

// CT: the driver builds the frame from the payload, so the CT header says
// which service it is for; the request's port id is only journaled.
void ct(Job& job, const RemotePort* rport) {
    const uint8_t* p = job.dout.data();
    if (job.dout.size() < CT_HEADER_SIZE) {
        job.result = -EINVAL;
        return;
    }
    job.f["gs_type"] = p[4];
    job.f["gs_subtype"] = p[5];
    job.f["ct_command"] = hex_digits((uint32_t(p[8]) << 8) | p[9], 4);
    if (!on_fabric(job.host)) {
        job.result = -ENXIO;  // no fabric, nobody at the well-known addresses
        return;
    }
    constexpr uint32_t NAME_SERVER = 0xFFFFFC;
    if (rport && rport->port_id != NAME_SERVER)
        ct_reply(job, ct_not_supported(p, job.dout.size()));
    else
        ct_reply(job, name_server(name_server_entries(job.sim.scenario(), job.host), p, job.dout.size()));
}

void els(Job& job, const RemotePort* to) {
    if (!to) {
        job.result = -ENXIO;
        return;
    }
    job.f["dest"] = hex_digits(to->port_id, 6);
    if (to->state != "Online") {
        job.result = -EIO;
        return;
    }
    const ElsAnswer a = els_answer(job.host, *to, job.dout.data(), job.dout.size());
    job.f["els_response"] = a.accepted ? "LS_ACC" : "LS_RJT";
    job.din = a.bytes;
    auto& r = job.reply.reply_data.ctels_reply;
    r.status = a.accepted ? FC_CTELS_STATUS_OK : FC_CTELS_STATUS_REJECT;
    if (!a.accepted) {
        job.f["reason"] = a.reason;
        r.rjt_data.reason_code = a.reason;
        r.rjt_data.reason_explanation = a.explanation;
    }
}

// Vendor commands: the adapter's flash, its activation and capabilities.
void vendor(Job& job) {
    const std::optional<HostRef> ref = job.sim.host(job.node.host);
    const uint32_t code = job.req.rqst_data.h_vendor.vendor_cmd[0];
    const uint32_t arg = job.req.rqst_data.h_vendor.vendor_cmd[1];
    if (!ref || !ref->adapter) {
        job.result = -ENXIO;
        return;
    }
    const Adapter& a = *ref->adapter;
    switch (code) {
    case VENDOR_READ_FLASH:
        job.f["offset"] = arg;
        job.f["length"] = job.din_len;
        job.result = flash_read(job.sim, a, arg, job.din_len, job.din);
        break;
    case VENDOR_UPDATE_FLASH:
        job.f["offset"] = arg;
        job.f["length"] = job.dout.size();
        job.result = flash_write(job.sim, a, arg, job.dout.data(), job.dout.size(), job.partial);
        break;
    case VENDOR_ACTIVATE_REGION: job.f["reset_code"] = hex_digits(arg, 4); break;
    case VENDOR_GET_FLASH_CAPS:
    case VENDOR_SET_FLASH_CAPS: {
        const auto caps = flash_caps(a);
        job.din.assign(caps.begin(), caps.end());
        if (code == VENDOR_SET_FLASH_CAPS) {
            const uint32_t status = check_new_attributes(a, job.dout.data(), job.dout.size());
            job.f["status"] = status;
            job.reply.reply_data.vendor_rsp[0] = status;
            return;
        }
        break;
    }
    default: job.result = -ENOSYS; return;
    }
    job.reply.reply_data.vendor_rsp[0] = EXT_STATUS_OK;
}

// The request length each message needs; 0 for messages the transport does
// not know on this kind of node.
size_t needed(uint32_t msgcode, bool host) {
    if (host) {
        switch (msgcode) {
        case FC_BSG_HST_ADD_RPORT:
        case FC_BSG_HST_DEL_RPORT:
        case FC_BSG_HST_ELS_NOLOGIN: return FC_BSG_LEN_HOST_ELS;
        case FC_BSG_HST_CT: return FC_BSG_LEN_HOST_CT;
        case FC_BSG_HST_VENDOR: return FC_BSG_LEN_HOST_VENDOR;
        default: return 0;
        }
    }
    switch (msgcode) {
    case FC_BSG_RPT_ELS: return FC_BSG_LEN_RPORT_ELS;
    case FC_BSG_RPT_CT: return FC_BSG_LEN_RPORT_CT;
    default: return 0;
    }
}

void dispatch(Job& job) {
    const bool host = job.node.kind == NodeKind::BsgHost;
    const RemotePort* rport = host ? nullptr : find_rport(job.host, job.node.rport);
    switch (job.req.msgcode) {
    case FC_BSG_HST_CT:
        job.f["port_id"] = hex_digits(port_id_of(job.req.rqst_data.h_ct.port_id), 6);
        ct(job, nullptr);
        return;
    case FC_BSG_RPT_CT:
        if (rport && rport->state != "Online")
            job.result = -EIO;
        else
            ct(job, rport);
        return;
    case FC_BSG_HST_ELS_NOLOGIN: {
        const uint32_t id = port_id_of(job.req.rqst_data.h_els.port_id);
        job.f["els_code"] = job.req.rqst_data.h_els.command_code;
        const RemotePort* to = nullptr;
        for (const RemotePort& r : job.host.remote_ports)
            if (r.port_id == id)
                to = &r;
        els(job, to);
        return;
    }
    case FC_BSG_RPT_ELS:
        job.f["els_code"] = job.req.rqst_data.r_els.els_code;
        els(job, rport);
        return;
    case FC_BSG_HST_VENDOR: vendor(job); return;
    default:
        // Adding and deleting ports: not in this driver.
        job.result = -ENOSYS;
        return;
    }
}

long request(const Sim& sim, Desc& d, void* hdr, JournalFields& f) {
    sg_io_v4 h{};
    if (copy_from_user(&h, hdr, sizeof h) < 0)
        return -EFAULT;
    if (h.guard != 'Q')
        return -EINVAL;  // the block layer refuses it before the driver sees it
    f["protocol"] = h.protocol;
    f["subprotocol"] = h.subprotocol;
    f["request_len"] = h.request_len;
    f["dout_len"] = h.dout_xfer_len;
    f["din_len"] = h.din_xfer_len;
    // The FC nodes carry transport messages only; SCSI commands go to a LUN's node.
    if (h.protocol != BSG_PROTOCOL_SCSI || h.subprotocol != BSG_SUB_PROTOCOL_SCSI_TRANSPORT)
        return -EINVAL;
    const HostPort* host = find_host_port(sim.scenario(), d.host);
    if (!host)
        return -ENXIO;
    Job job(sim, d, *host, f);
    const size_t len = std::min<size_t>(h.request_len, sizeof job.req);
    if (len < sizeof job.req.msgcode)
        return -ENOMSG;
    if (copy_from_user(&job.req, user_ptr(h.request), len) < 0)
        return -EFAULT;
    std::string msgcode = hex32(job.req.msgcode);
    f["msgcode"] = msgcode;
    if (job.req.msgcode == FC_BSG_HST_VENDOR && len >= FC_BSG_LEN_HOST_VENDOR + 4) {
        f["vendor_cmd"] = job.req.rqst_data.h_vendor.vendor_cmd[0];
        // Faults can name one vendor command: "0x800000ff/8".
        msgcode += "/" + std::to_string(job.req.rqst_data.h_vendor.vendor_cmd[0]);
    }
    const size_t need = needed(job.req.msgcode, d.kind == NodeKind::BsgHost);
    if (need == 0)
        return -EBADR;  // a message the transport does not know here
    if (h.request_len < need)
        return -ENOMSG;
    const bool ctels = job.req.msgcode != FC_BSG_HST_VENDOR && job.req.msgcode != FC_BSG_HST_ADD_RPORT &&
                       job.req.msgcode != FC_BSG_HST_DEL_RPORT;
    if (ctels && (h.dout_xfer_len == 0 || h.din_xfer_len == 0))
        return -EINVAL;  // CT and ELS need a request and a reply payload
    job.din_len = h.din_xfer_len;
    const bool vendor_out = job.req.msgcode == FC_BSG_HST_VENDOR && h.dout_xfer_len > 0;
    if (ctels || vendor_out) {
        if (h.dout_xfer_len > (ctels ? MAX_PAYLOAD : MAX_FLASH))
            return -EINVAL;
        job.dout.resize(h.dout_xfer_len);
        if (copy_from_user(job.dout.data(), user_ptr(h.dout_xferp), job.dout.size()) < 0)
            return -EFAULT;
    }

    std::optional<FaultAction> fault = fault_take("bsg", msgcode);
    if (fault) {
        f["fault"] = fault->text;
        if (fault->kind == FaultKind::Errno)
            return -fault->error;
    }
    if (fault && fault->kind == FaultKind::Status) {
        // The driver's own status word, no payload: CT/ELS status or vendor status.
        job.reply.reply_data.vendor_rsp[0] = fault->status;
    } else {
        job.partial = fault && fault->kind == FaultKind::Partial;
        dispatch(job);
        if (fault && fault->kind == FaultKind::Short)
            job.din.resize((job.din.size() + 1) / 2);
    }

    // Completion as the bsg transport does it: a failed job returns only
    // its result word and fails the call; a done one its reply and payload.
    if (job.result < 0) {
        job.reply.result = static_cast<int32_t>(job.result);
        job.reply_len = sizeof job.reply.result;
    }
    const size_t n = job.result < 0 ? 0 : std::min<size_t>(job.din.size(), h.din_xfer_len);
    job.reply.reply_payload_rcv_len = static_cast<uint32_t>(n);
    const size_t rlen = std::min<size_t>(job.reply_len, h.max_response_len);
    if (rlen && copy_to_user(user_ptr(h.response), &job.reply, rlen) < 0)
        return -EFAULT;
    if (job.result < 0)
        return job.result;
    f["reply_len"] = job.din.size();
    if (n && copy_to_user(user_ptr(h.din_xferp), job.din.data(), n) < 0)
        return -EFAULT;
    h.response_len = static_cast<uint32_t>(rlen);
    h.din_resid = static_cast<int32_t>(h.din_xfer_len - n);
    h.dout_resid = 0;
    h.device_status = h.transport_status = h.driver_status = 0;
    h.info = 0;
    if (copy_to_user(hdr, &h, sizeof h) < 0)
        return -EFAULT;
    f["rcv_len"] = n;
    return 0;
}

}  // namespace

long endpoint_bsg(const Sim& sim, Desc& d, void* hdr) {
    if (!sim.ok())
        return -EIO;
    JournalFields f = JournalFields::object();
    f["node"] = node_kind_name(d.kind);
    f["host"] = d.host;
    if (d.kind == NodeKind::BsgRport)
        f["rport"] = d.rport;
    const long r = request(sim, d, hdr, f);
    journal_result(f, r);
    journal("bsg", f);
    return r;
}

}  // namespace vxsim::drv
