// Pass-through on the extended-ioctl nodes: SCSI commands to the targets
// behind the instance's remote ports, CT requests to its fabric's name
// server, ELS requests to a remote port. Answers are framed as the driver
// does: driver status in Status, the SCSI status byte in DetailStatus,
// sense written back into the caller's pass-through record.
#include <algorithm>
#include <cstring>

#include "bigendian.h"
#include "fabric.h"
#include "ioctl.h"
#include "scsi_target.h"

namespace vxsim::drv {

namespace {

uint64_t wwn_of(const uint8_t* p) { return get_be(p, 8); }

// Id: byte 0 unused, bytes 1-3 the address.
uint32_t port_id_of(const uint8_t* id) { return static_cast<uint32_t>(get_be(id + 1, 3)); }

// The record's fields from offset 16 on, identical in both forms.
struct PassthruBody {
    uint8_t direction, cdb_len;
    const uint8_t* cdb;
    uint16_t sense_room;
};

template <class Rec>
PassthruBody body(const Rec& r) {
    return {r.Direction, r.CdbLength, r.Cdb, std::min<uint16_t>(r.SenseLength, EXT_MAX_SENSE_LEN)};
}

// The port a request names, when it leads to a SCSI target; the driver
// cannot reach one whose port is not online.
const RemotePort* reachable(const RemotePort* r) {
    return r && r->scsi_target_id >= 0 && r->state == "Online" ? r : nullptr;
}

const RemotePort* by_address(const HostPort& h, const EXT_SCSI_ADDR& a) {
    for (const RemotePort& r : h.remote_ports)
        if (r.channel == a.Bus && r.scsi_target_id == a.Target)
            return reachable(&r);
    return nullptr;
}

const RemotePort* by_destination(const HostPort& h, const EXT_DEST_ADDR& d) {
    for (const RemotePort& r : h.remote_ports) {
        const bool match = d.DestType == EXT_DEF_DESTTYPE_WWNN   ? r.wwnn == wwn_of(d.DestAddr.WWNN)
                           : d.DestType == EXT_DEF_DESTTYPE_WWPN ? r.wwpn == wwn_of(d.DestAddr.WWPN)
                                                                 : r.port_id == port_id_of(d.DestAddr.Id);
        if (match)
            return reachable(&r);
    }
    return nullptr;
}

// Runs the command and frames the outcome into the answer and `rec`.
template <class Rec>
void run(IoctlAnswer& ans, Rec& rec, const RemotePort* target, uint16_t lun, const IoctlRequest& req) {
    const PassthruBody b = body(rec);
    JournalFields& j = ans.journal;
    j["direction"] = b.direction;
    j["cdb_len"] = b.cdb_len;
    j["cdb"] = hex_bytes(b.cdb, std::min<size_t>(b.cdb_len, EXT_MAX_CDB_LEN));
    j["sense_room"] = b.sense_room;
    if (b.cdb_len == 0 || b.cdb_len > EXT_MAX_CDB_LEN || b.direction > EXT_DEF_SCSI_DIR_OUT) {
        ans.status = EXT_STATUS_INVALID_PARAM;
        return;
    }
    if (!target) {
        ans.status = EXT_STATUS_DEV_NOT_FOUND;
        return;
    }
    const ScsiOutcome out = scsi_execute(*target, find_lun(*target, lun), b.cdb, b.cdb_len);
    Traffic t;
    t.kind = out.data.empty() ? Traffic::Control : Traffic::Read;
    t.bytes_in = out.data.size();
    ans.traffic = std::pair{target->wwpn, t};
    j["scsi_status"] = out.status;
    j["data_len"] = out.data.size();
    const uint32_t room = b.direction == EXT_DEF_SCSI_DIR_IN ? req.response_len : 0;
    ans.response.assign(out.data.begin(), out.data.begin() + std::min<size_t>(out.data.size(), room));
    if (out.status != EXT_SCSI_STATUS_GOOD) {
        ans.status = EXT_STATUS_SCSI_STATUS;
        ans.detail = out.status;
    } else if (out.data.size() > room) {
        ans.status = EXT_STATUS_DATA_OVERRUN;  // the target had more than the buffer holds
    }
    const uint16_t sense = static_cast<uint16_t>(std::min<size_t>(out.sense.size(), b.sense_room));
    if (sense)
        std::memcpy(rec.SenseData, out.sense.data(), sense);
    rec.SenseLength = sense;
    if (sense)
        j["sense"] = hex_bytes(out.sense.data(), sense);
    ans.request_back.resize(sizeof rec);
    std::memcpy(ans.request_back.data(), &rec, sizeof rec);
}

// Fits a reply into the response buffer; a cut one reads as an overrun.
void reply(IoctlAnswer& ans, const std::vector<uint8_t>& bytes, uint32_t room) {
    ans.response.assign(bytes.begin(), bytes.begin() + std::min<size_t>(bytes.size(), room));
    if (bytes.size() > room)
        ans.status = EXT_STATUS_DATA_OVERRUN;
}

}  // namespace

void ioctl_scsi_passthru(IoctlAnswer& ans, const IoctlPort& p, const IoctlRequest& req) {
    if (req.request.size() < sizeof(EXT_SCSI_PASSTHRU)) {
        ans.status = EXT_STATUS_INVALID_PARAM;
        return;
    }
    JournalFields& j = ans.journal;
    if (req.subcode == EXT_SC_SEND_SCSI_PASSTHRU) {
        EXT_SCSI_PASSTHRU rec;
        std::memcpy(&rec, req.request.data(), sizeof rec);
        j["bus"] = rec.TargetAddr.Bus;
        j["target"] = rec.TargetAddr.Target;
        j["lun"] = rec.TargetAddr.Lun;
        run(ans, rec, by_address(*p.host, rec.TargetAddr), rec.TargetAddr.Lun, req);
    } else if (req.subcode == EXT_SC_SEND_FC_SCSI_PASSTHRU) {
        EXT_FC_SCSI_PASSTHRU rec;
        std::memcpy(&rec, req.request.data(), sizeof rec);
        const EXT_DEST_ADDR& d = rec.FCScsiAddr;
        j["dest_type"] = d.DestType;
        j["dest"] = hex_bytes(d.DestAddr.WWPN, sizeof d.DestAddr.WWPN);
        j["lun"] = d.Lun;
        if (d.DestType < EXT_DEF_DESTTYPE_WWNN || d.DestType > EXT_DEF_DESTTYPE_PORTID)
            ans.status = EXT_STATUS_INVALID_PARAM;
        else
            run(ans, rec, by_destination(*p.host, d), d.Lun, req);
    } else {
        ans.status = EXT_STATUS_UNSUPPORTED_SUBCODE;
    }
}

void ioctl_ct_passthru(const Sim& sim, IoctlAnswer& ans, const IoctlPort& p, const IoctlRequest& req) {
    if (req.subcode != EXT_SC_SEND_CT_PASSTHRU) {
        ans.status = EXT_STATUS_UNSUPPORTED_SUBCODE;
        return;
    }
    if (req.request.size() < CT_HEADER_SIZE) {
        ans.status = EXT_STATUS_INVALID_PARAM;
        return;
    }
    const uint8_t* ct = req.request.data();
    JournalFields& j = ans.journal;
    j["gs_type"] = ct[4];
    j["gs_subtype"] = ct[5];
    j["ct_command"] = hex_digits((uint32_t(ct[8]) << 8) | ct[9], 4);
    if (!on_fabric(*p.host)) {
        // No fabric, no name server: what the driver says when nothing answers.
        ans.status = EXT_STATUS_MS_NO_RESPONSE;
        return;
    }
    const CtAnswer a = name_server(name_server_entries(sim.scenario(), *p.host), ct, req.request.size());
    ans.traffic = std::pair{uint64_t{0}, Traffic{Traffic::Frames, a.bytes.size(), req.request.size()}};
    j["ct_response"] = hex_digits(a.code, 4);
    if (a.code == CT_REJECT) {
        j["reason"] = a.reason;
        j["explanation"] = a.explanation;
    }
    reply(ans, a.bytes, req.response_len);
}

void ioctl_els_passthru(IoctlAnswer& ans, const IoctlPort& p, const IoctlRequest& req) {
    if (req.subcode != EXT_SC_SEND_ELS_PASSTHRU) {
        ans.status = EXT_STATUS_UNSUPPORTED_SUBCODE;
        return;
    }
    // The head names the port; an empty payload is no ELS.
    if (req.request.size() <= sizeof(EXT_ELS_PT_REQ)) {
        ans.status = EXT_STATUS_INVALID_PARAM;
        return;
    }
    EXT_ELS_PT_REQ head;
    std::memcpy(&head, req.request.data(), sizeof head);
    const uint8_t* payload = req.request.data() + sizeof head;
    const size_t len = req.request.size() - sizeof head;
    JournalFields& j = ans.journal;
    j["valid_mask"] = head.ValidMask;
    j["els_code"] = payload[0];
    const RemotePort* to = nullptr;
    for (const RemotePort& r : p.host->remote_ports) {
        // The port name unless the mask names another form.
        const bool match = head.ValidMask & EXT_DEF_ELS_VALID_PORTID ? r.port_id == port_id_of(head.Id)
                           : head.ValidMask == EXT_DEF_ELS_VALID_WWNN ? r.wwnn == wwn_of(head.WWNN)
                                                                      : r.wwpn == wwn_of(head.WWPN);
        if (match) {
            to = &r;
            break;
        }
    }
    if (!to || to->state != "Online") {
        ans.status = EXT_STATUS_DEV_NOT_FOUND;
        return;
    }
    j["dest"] = hex_digits(to->port_id, 6);
    const ElsAnswer a = els_answer(*p.host, *to, payload, len);
    ans.traffic = std::pair{to->wwpn, Traffic{Traffic::Frames, a.bytes.size(), len}};
    j["els_response"] = a.accepted ? "LS_ACC" : "LS_RJT";
    if (!a.accepted)
        j["reason"] = a.reason;
    reply(ans, a.bytes, req.response_len);
}

}  // namespace vxsim::drv
