// Extended-ioctl requests: EXT_IOCTL records on the newer node, EXT_IOCTL_O
// records on the older generation's nodes. The record and the request buffer
// are copied in from the caller's memory, answered by the dispatcher, and the
// response and the record copied back, as the driver does it. The control
// node takes no extended-ioctl request.
#include "ioctl.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "counters.h"
#include "dcbx.h"
#include "endpoints.h"
#include "events.h"
#include "flash_ops.h"
#include "pci.h"
#include "vx_adapters.h"

namespace vxsim::drv {

namespace {

// What the journal calls a record, told by its signature and version.
const char* record_label(const uint8_t* raw, size_t n) {
    auto u16 = [&](size_t off) {
        uint16_t v;
        std::memcpy(&v, raw + off, 2);
        return v;
    };
    if (n >= 12 && std::memcmp(raw, EXT_SIGNATURE, 8) == 0 && u16(10) == EXT_VERSION)
        return "EXT_IOCTL";
    if (n >= 8 && std::memcmp(raw, EXT_SIGNATURE, 4) == 0 && u16(6) == EXT_VERSION_O)
        return "EXT_IOCTL_O";
    return "unknown";
}

// The fields of either generation, and the way back into its bytes.
struct Frame {
    bool valid = false;  // signature and version of the node's generation
    uint16_t subcode = 0, instance = 0, hba_select = 0;
    uint32_t request_len = 0, response_len = 0;
    uint64_t request_adr = 0, response_adr = 0;
    uint32_t reserved1 = 0;
};

Frame read_frame(const uint8_t* raw, bool newer) {
    auto fields = [](const auto& r, bool valid) {
        return Frame{valid,         r.SubCode,    r.Instance,   r.HbaSelect, r.RequestLen,
                     r.ResponseLen, r.RequestAdr, r.ResponseAdr, r.Reserved1};
    };
    if (newer) {
        EXT_IOCTL r;
        std::memcpy(&r, raw, sizeof r);
        return fields(r, std::memcmp(raw, EXT_SIGNATURE, 8) == 0 && r.Version == EXT_VERSION);
    }
    EXT_IOCTL_O r;
    std::memcpy(&r, raw, sizeof r);
    return fields(r, std::memcmp(r.Signature, EXT_SIGNATURE, 4) == 0 && r.Version == EXT_VERSION_O);
}

void write_frame(uint8_t* raw, bool newer, uint32_t status, uint32_t detail, uint16_t instance, uint16_t hba_select,
                 std::optional<uint32_t> response_len) {
    auto put = [&](auto& rec) {
        std::memcpy(&rec, raw, sizeof rec);
        rec.Status = status;
        rec.DetailStatus = detail;
        rec.Instance = instance;
        rec.HbaSelect = hba_select;
        if (response_len)
            rec.ResponseLen = *response_len;
        std::memcpy(raw, &rec, sizeof rec);
    };
    if (newer) {
        EXT_IOCTL r;
        put(r);
    } else {
        EXT_IOCTL_O r;
        put(r);
    }
}

void* user_ptr(uint64_t adr) { return reinterpret_cast<void*>(static_cast<uintptr_t>(adr)); }

// A fixed-size answer as far as the response buffer holds it; a cut record
// reads as a data overrun.
template <class T>
void fixed(IoctlAnswer& ans, const T& rec, uint32_t room) {
    size_t n = std::min<size_t>(sizeof rec, room);
    ans.response.assign(reinterpret_cast<const uint8_t*>(&rec), reinterpret_cast<const uint8_t*>(&rec) + n);
    if (n < sizeof rec)
        ans.status = EXT_STATUS_DATA_OVERRUN;
}

void query(const Sim& sim, IoctlAnswer& ans, const IoctlPort& p, const IoctlRequest& req) {
    const uint32_t room = req.response_len;
    switch (req.subcode) {
    case EXT_SC_QUERY_HBA_NODE: fixed(ans, ioctl_node(p), room); return;
    case EXT_SC_QUERY_HBA_PORT: fixed(ans, ioctl_port(p), room); return;
    case EXT_SC_QUERY_DISC_PORT:
        if (std::optional<EXT_DISC_PORT> d = ioctl_disc_port(p, req.instance))
            fixed(ans, *d, room);
        else
            ans.status = EXT_STATUS_DEV_NOT_FOUND;
        return;
    case EXT_SC_QUERY_DISC_TGT:
        if (std::optional<EXT_DISC_TARGET> t = ioctl_disc_target(p, req.instance))
            fixed(ans, *t, room);
        else
            ans.status = EXT_STATUS_DEV_NOT_FOUND;
        return;
    case EXT_SC_QUERY_DRIVER: fixed(ans, ioctl_driver(p), room); return;
    case EXT_SC_QUERY_FW: fixed(ans, ioctl_fw(p), room); return;
    case EXT_SC_QUERY_CHIP: fixed(ans, ioctl_chip(sim.scenario(), p), room); return;
    case EXT_SC_QUERY_CNA_PORT:
        // Only converged ports have FCoE data.
        if (vx_adapter_has(p.adapter->device_id, VX_MARK_CNA))
            fixed(ans, ioctl_cna(p), room);
        else
            ans.status = EXT_STATUS_UNSUPPORTED_SUBCODE;
        return;
    case EXT_SC_QUERY_ADAPTER_VERSIONS:
        if (vx_adapter_has(p.adapter->device_id, VX_MARK_ADAPTER_VERSIONS))
            fixed(ans, adapter_versions(*p.adapter), room);
        else
            ans.status = EXT_STATUS_UNSUPPORTED_SUBCODE;
        return;
    default: ans.status = EXT_STATUS_UNSUPPORTED_SUBCODE; return;
    }
}

void take(IoctlAnswer& ans, ListAnswer list) {
    ans.status = list.status;
    ans.response = std::move(list.bytes);
}

// The port's counters, or those of its remote port named in the request.
void statistics(const Sim& sim, IoctlAnswer& ans, const IoctlPort& p, const IoctlRequest& req) {
    std::optional<uint64_t> rport;
    if (req.subcode == EXT_SC_GET_FC_STATISTICS) {
        EXT_DEST_ADDR dest{};
        if (req.request.size() < sizeof dest) {
            ans.status = EXT_STATUS_INVALID_PARAM;
            return;
        }
        std::memcpy(&dest, req.request.data(), sizeof dest);
        uint64_t wwpn = 0;
        for (uint8_t b : dest.DestAddr.WWPN)
            wwpn = wwpn << 8 | b;
        for (const RemotePort& r : p.host->remote_ports)
            if (dest.DestType == EXT_DEF_DESTTYPE_WWPN && r.wwpn == wwpn)
                rport = wwpn;
        if (!rport) {
            ans.status = EXT_STATUS_DEV_NOT_FOUND;
            return;
        }
    }
    std::optional<CounterMap> c = counters_read(sim.root(), sim.scenario(), p.host->host_no, rport);
    if (!c) {
        ans.status = EXT_STATUS_ERR;
        return;
    }
    fixed(ans, port_stat_record(*c), req.response_len);
}

// The host's driver events, oldest first, as far as the buffer holds whole
// entries; ResponseLen says how many bytes came back.
void get_aen(const Sim& sim, IoctlAnswer& ans, const IoctlPort& p, const IoctlRequest& req) {
    const size_t room = std::min<size_t>(req.response_len / sizeof(EXT_ASYNC_EVENT), EXT_AEN_FETCH_MAX);
    for (const SpoolEntry& e : spool_take_driver_events(sim.root(), p.host->host_no, room)) {
        const EXT_ASYNC_EVENT entry = aen_entry(e);
        const auto* b = reinterpret_cast<const uint8_t*>(&entry);
        ans.response.insert(ans.response.end(), b, b + sizeof entry);
    }
    ans.response_len = static_cast<uint32_t>(ans.response.size());
    ans.journal["events"] = ans.response.size() / sizeof(EXT_ASYNC_EVENT);
}

void get_data(const Sim& sim, IoctlAnswer& ans, const IoctlPort& p, const IoctlRequest& req) {
    switch (req.subcode) {
    case EXT_SC_GET_STATISTICS:
    case EXT_SC_GET_FC_STATISTICS: statistics(sim, ans, p, req); return;
    case EXT_SC_GET_TGT_LUN_DATA_LIST: take(ans, ioctl_tgt_lun_list(p, req.response_len)); return;
    case EXT_SC_GET_PORT_SUMMARY: {
        uint32_t mask = 0;
        if (req.request.size() < sizeof mask) {
            ans.status = EXT_STATUS_INVALID_PARAM;
            return;
        }
        std::memcpy(&mask, req.request.data(), sizeof mask);
        take(ans, ioctl_port_summary(p, mask, req.response_len));
        return;
    }
    case EXT_SC_GET_DCBX_PARAM: {
        // The link's state: converged physical ports only, cut at the buffer.
        if (!vx_adapter_has(p.adapter->device_id, VX_MARK_CNA) || !p.physical) {
            ans.status = EXT_STATUS_INVALID_REQUEST;
            return;
        }
        std::vector<uint8_t> d = dcbx_record(*p.host);
        d.resize(std::min<size_t>(d.size(), req.response_len));
        ans.response = std::move(d);
        return;
    }
    case EXT_SC_GET_ACTIVE_IMAGE:
        if (reports_image_set(p.adapter->device_id))
            fixed(ans, static_cast<uint32_t>(p.adapter->active_image), req.response_len);
        else
            ans.status = EXT_STATUS_UNSUPPORTED_SUBCODE;
        return;
    default: ans.status = EXT_STATUS_UNSUPPORTED_SUBCODE; return;
    }
}

}  // namespace

size_t ioctl_request_bytes(uint8_t command, uint16_t subcode) {
    if (command == EXT_CC_GET_DATA && subcode == EXT_SC_GET_PORT_SUMMARY)
        return sizeof(uint32_t);  // the type mask
    if (command == EXT_CC_GET_DATA && subcode == EXT_SC_GET_FC_STATISTICS)
        return sizeof(EXT_DEST_ADDR);
    if (command == EXT_CC_REG_AEN)
        return sizeof(EXT_REG_AEN);
    if (command == EXT_CC_WWPN_TO_SCSIADDR)
        return 8;
    if (command == EXT_CC_GET_LUN_DATA)
        return sizeof(FO_LUN_DATA_INPUT);
    if (command == EXT_CC_SEND_SCSI_PASSTHRU)
        return sizeof(EXT_SCSI_PASSTHRU);
    if (command == EXT_CC_SEND_CT_PASSTHRU || command == EXT_CC_SEND_ELS_PASSTHRU)
        return PASSTHRU_REQUEST_MAX;
    if (command == EXT_CC_UPDATE_OPTROM)
        return FLASH_REQUEST_MAX;
    if (command == EXT_CC_FLASH_UPDATE_CAPS)
        return EXT_FLASH_CAPS_LEN;
    if (command == EXT_CC_SET_NVRAM || command == EXT_CC_SET_VPD)
        return IMAGE_REQUEST_MAX;
    return 0;
}

IoctlAnswer ioctl_dispatch(const Sim& sim, const std::vector<IoctlPort>& ports, int32_t selected,
                           const IoctlRequest& req) {
    IoctlAnswer ans;
    ans.instance = req.instance;
    ans.hba_select = req.hba_select;
    switch (req.command) {
    case EXT_CC_GET_HBA_CNT:
        ans.instance = static_cast<uint16_t>(std::min<size_t>(ports.size(), 0xFFFF));
        return ans;
    case EXT_CC_SET_INSTANCE:
        if (req.instance >= ports.size() || ports[req.instance].missing) {
            ans.status = EXT_STATUS_DEV_NOT_FOUND;
            return ans;
        }
        ans.select = req.instance;
        ans.port = req.instance;
        ans.hba_select = static_cast<uint16_t>(ports[req.instance].host->host_no);
        return ans;
    case EXT_CC_QUERY:
    case EXT_CC_GET_DATA:
    case EXT_CC_SET_DATA:
    case EXT_CC_REG_AEN:
    case EXT_CC_GET_AEN:
    case EXT_CC_DRIVER_SPECIFICS:
    case EXT_CC_GET_LUN_DATA:
    case EXT_CC_WWPN_TO_SCSIADDR:
    case EXT_CC_GET_VPD:
    case EXT_CC_SET_VPD:
    case EXT_CC_GET_NVRAM:
    case EXT_CC_SET_NVRAM:
    case EXT_CC_SEND_SCSI_PASSTHRU:
    case EXT_CC_SEND_CT_PASSTHRU:
    case EXT_CC_SEND_ELS_PASSTHRU:
    case EXT_CC_READ_OPTROM:
    case EXT_CC_UPDATE_OPTROM:
    case EXT_CC_GET_OPTROM_LAYOUT:
    case EXT_CC_ACTIVATE_REGION:
    case EXT_CC_FLASH_UPDATE_CAPS: break;
    default: ans.status = EXT_STATUS_INVALID_REQUEST; return ans;
    }

    // A descriptor answers for the instance chosen on it; one without names
    // it in every request (HbaSelect), as a port opened after discovery does.
    const uint32_t index = selected >= 0 ? static_cast<uint32_t>(selected) : req.hba_select;
    if (index >= ports.size() || ports[index].missing) {
        ans.status = EXT_STATUS_DEV_NOT_FOUND;
        return ans;
    }
    ans.port = index;
    const IoctlPort& p = ports[index];
    switch (req.command) {
    case EXT_CC_QUERY: query(sim, ans, p, req); break;
    case EXT_CC_GET_DATA: get_data(sim, ans, p, req); break;
    case EXT_CC_SET_DATA:
        if (req.subcode != EXT_SC_RESET_STATISTICS)
            ans.status = EXT_STATUS_UNSUPPORTED_SUBCODE;
        else if (!counters_reset(sim.root(), sim.scenario(), p.host->host_no))
            ans.status = EXT_STATUS_ERR;
        break;
    case EXT_CC_REG_AEN: {
        EXT_REG_AEN reg{};
        if (req.request.size() < sizeof reg) {
            ans.status = EXT_STATUS_INVALID_PARAM;
            break;
        }
        std::memcpy(&reg, req.request.data(), sizeof reg);
        ans.journal["enable"] = reg.Enable;
        break;
    }
    case EXT_CC_GET_AEN: get_aen(sim, ans, p, req); break;
    case EXT_CC_DRIVER_SPECIFICS: fixed(ans, ioctl_driver_data(p), req.response_len); break;
    case EXT_CC_GET_LUN_DATA:
        if (req.request.size() < sizeof(FO_LUN_DATA_INPUT))
            ans.status = EXT_STATUS_INVALID_PARAM;
        else
            take(ans, ioctl_fo_lun_list(p, req.response_len));
        break;
    case EXT_CC_WWPN_TO_SCSIADDR: {
        uint8_t wwpn[8];
        if (req.request.size() < sizeof wwpn) {
            ans.status = EXT_STATUS_INVALID_PARAM;
            break;
        }
        std::memcpy(wwpn, req.request.data(), sizeof wwpn);
        if (std::optional<EXT_SCSI_ADDR> addr = ioctl_wwpn_to_scsiaddr(p, wwpn))
            fixed(ans, *addr, req.response_len);
        else
            ans.status = EXT_STATUS_DEV_NOT_FOUND;
        break;
    }
    case EXT_CC_SEND_SCSI_PASSTHRU: ioctl_scsi_passthru(ans, p, req); break;
    case EXT_CC_SEND_CT_PASSTHRU: ioctl_ct_passthru(sim, ans, p, req); break;
    case EXT_CC_SEND_ELS_PASSTHRU: ioctl_els_passthru(ans, p, req); break;
    case EXT_CC_READ_OPTROM:
    case EXT_CC_UPDATE_OPTROM:
    case EXT_CC_GET_OPTROM_LAYOUT:
    case EXT_CC_ACTIVATE_REGION:
    case EXT_CC_FLASH_UPDATE_CAPS: ioctl_flash(sim, ans, p, req); break;
    case EXT_CC_GET_VPD:
    case EXT_CC_SET_VPD:
    case EXT_CC_GET_NVRAM:
    case EXT_CC_SET_NVRAM: ioctl_image(sim, ans, p, req); break;
    default: break;
    }
    return ans;
}

std::string ioctl_command_name(uint8_t command) {
    switch (command) {
    case EXT_CC_QUERY: return "EXT_CC_QUERY";
    case EXT_CC_GET_DATA: return "EXT_CC_GET_DATA";
    case EXT_CC_SET_DATA: return "EXT_CC_SET_DATA";
    case EXT_CC_REG_AEN: return "EXT_CC_REG_AEN";
    case EXT_CC_GET_AEN: return "EXT_CC_GET_AEN";
    case EXT_CC_GET_VPD: return "EXT_CC_GET_VPD";
    case EXT_CC_SET_VPD: return "EXT_CC_SET_VPD";
    case EXT_CC_GET_NVRAM: return "EXT_CC_GET_NVRAM";
    case EXT_CC_SET_NVRAM: return "EXT_CC_SET_NVRAM";
    case EXT_CC_GET_LUN_DATA: return "EXT_CC_GET_LUN_DATA";
    case EXT_CC_DRIVER_SPECIFICS: return "EXT_CC_DRIVER_SPECIFICS";
    case EXT_CC_WWPN_TO_SCSIADDR: return "EXT_CC_WWPN_TO_SCSIADDR";
    case EXT_CC_SEND_SCSI_PASSTHRU: return "EXT_CC_SEND_SCSI_PASSTHRU";
    case EXT_CC_SEND_CT_PASSTHRU: return "EXT_CC_SEND_CT_PASSTHRU";
    case EXT_CC_SEND_ELS_PASSTHRU: return "EXT_CC_SEND_ELS_PASSTHRU";
    case EXT_CC_READ_OPTROM: return "EXT_CC_READ_OPTROM";
    case EXT_CC_UPDATE_OPTROM: return "EXT_CC_UPDATE_OPTROM";
    case EXT_CC_GET_OPTROM_LAYOUT: return "EXT_CC_GET_OPTROM_LAYOUT";
    case EXT_CC_ACTIVATE_REGION: return "EXT_CC_ACTIVATE_REGION";
    case EXT_CC_FLASH_UPDATE_CAPS: return "EXT_CC_FLASH_UPDATE_CAPS";
    case EXT_CC_SET_INSTANCE: return "EXT_CC_SET_INSTANCE";
    case EXT_CC_GET_HBA_CNT: return "EXT_CC_GET_HBA_CNT";
    default: {
        char buf[8];
        std::snprintf(buf, sizeof buf, "0x%02x", command);
        return buf;
    }
    }
}

namespace {

// One request on the newer or an older node; fills the journal fields.
long answer(const Sim& sim, Desc& d, uint32_t request, void* arg, JournalFields& f) {
    const bool newer = d.kind == NodeKind::Ioctl;
    const uint32_t base = newer ? EXT_IOCTL_BASE : EXT_IOCTL_BASE_O;
    f["generation"] = newer ? "new" : "old";
    if ((request & ~0xFFu) != base)
        return -ENOTTY;  // not a number this generation registers
    const size_t size = newer ? sizeof(EXT_IOCTL) : sizeof(EXT_IOCTL_O);
    uint8_t raw[sizeof(EXT_IOCTL)];
    if (copy_from_user(raw, arg, size) < 0) {
        f["record"] = "unreadable";
        return -EFAULT;
    }
    const Frame fr = read_frame(raw, newer);
    const auto command = static_cast<uint8_t>(request & 0xFF);
    f["record"] = record_label(raw, size);
    f["command"] = ioctl_command_name(command);
    f["subcode"] = fr.subcode;
    f["instance"] = fr.instance;
    f["hba_select"] = fr.hba_select;
    f["request_len"] = fr.request_len;
    f["response_len"] = fr.response_len;
    f["bytes"] = hex_bytes(raw, size);

    std::optional<FaultAction> fault = fault_take("ioctl", hex32(request) + "/" + std::to_string(fr.subcode));
    if (fault) {
        f["fault"] = fault->text;
        if (fault->kind == FaultKind::Errno)
            return -fault->error;
    }

    IoctlAnswer ans;
    ans.instance = fr.instance;
    ans.hba_select = fr.hba_select;
    if (!fr.valid) {
        // A record of another generation or version: nothing is looked at.
        ans.status = EXT_STATUS_UNSUPPORTED_VERSION;
    } else {
        IoctlRequest req;
        req.command = command;
        req.subcode = fr.subcode;
        req.instance = fr.instance;
        req.hba_select = fr.hba_select;
        req.response_len = fr.response_len;
        req.reserved1 = fr.reserved1;
        req.partial = fault && fault->kind == FaultKind::Partial;
        req.request.resize(std::min<size_t>(ioctl_request_bytes(command, fr.subcode), fr.request_len));
        if (copy_from_user(req.request.data(), user_ptr(fr.request_adr), req.request.size()) < 0)
            return -EFAULT;
        std::lock_guard<std::mutex> lock(d.mu);
        std::vector<IoctlPort> ports = ioctl_ports(sim.scenario(), d.kind, d.driver);
        ans = ioctl_dispatch(sim, ports, d.selected, req);
        if (ans.port) {
            f["port"] = *ans.port;
            f["host"] = ports[*ans.port].host->host_no;
            if (ans.traffic) {
                const auto& [wwpn, t] = *ans.traffic;
                counters_add(sim.root(), sim.scenario(), ports[*ans.port].host->host_no, traffic_deltas(t),
                             wwpn ? std::optional<uint64_t>(wwpn) : std::nullopt);
            }
        }
        if (fault && fault->kind == FaultKind::Status) {
            // Success, overrun and underrun still carry the answer; any other status replaces it.
            const uint32_t st = fault->status;
            if (st != EXT_STATUS_OK && st != EXT_STATUS_DATA_OVERRUN && st != EXT_STATUS_DATA_UNDERRUN) {
                ans.response.clear();
                ans.request_back.clear();
                ans.detail = 0;
                ans.select.reset();
                ans.instance = fr.instance;
                ans.hba_select = fr.hba_select;
            }
            ans.status = fault->status;
        } else if (fault && fault->kind == FaultKind::Short) {
            ans.response.resize((ans.response.size() + 1) / 2);
            if (ans.response_len)
                ans.response_len = static_cast<uint32_t>(ans.response.size());
        }
        for (const auto& [key, value] : ans.journal.items())
            f[key] = value;
        if (!ans.response.empty() &&
            copy_to_user(user_ptr(fr.response_adr), ans.response.data(), ans.response.size()) < 0)
            return -EFAULT;
        // Pass-through: the record goes back with the sense the target gave.
        const size_t back = std::min<size_t>(ans.request_back.size(), fr.request_len);
        if (back && copy_to_user(user_ptr(fr.request_adr), ans.request_back.data(), back) < 0)
            return -EFAULT;
        if (ans.select)
            d.selected = *ans.select;
    }
    f["status"] = ans.status;
    if (ans.detail)
        f["detail_status"] = ans.detail;
    f["response_bytes"] = ans.response.size();
    write_frame(raw, newer, ans.status, ans.detail, ans.instance, ans.hba_select, ans.response_len);
    if (copy_to_user(arg, raw, size) < 0)
        return -EFAULT;
    return 0;
}

}  // namespace

long endpoint_ioctl(const Sim& sim, Desc& d, unsigned long request, void* arg) {
    if (!sim.ok())
        return -EIO;
    // The kernel hands drivers the number as 32 bits.
    const auto number = static_cast<uint32_t>(request);
    JournalFields f = JournalFields::object();
    f["node"] = node_kind_name(d.kind);
    if (d.kind == NodeKind::Legacy)
        f["driver"] = d.driver;
    f["request"] = hex32(number);
    long r = -ENOTTY;
    if (d.kind == NodeKind::Ioctl || d.kind == NodeKind::Legacy) {
        r = answer(sim, d, number, arg, f);
    } else {
        // The control node registers no extended-ioctl command.
        uint8_t raw[sizeof(EXT_IOCTL)];
        if (copy_from_user(raw, arg, sizeof raw) < 0) {
            f["record"] = "unreadable";
        } else {
            // Told by the record itself: the node has no generation of its own.
            f["record"] = record_label(raw, sizeof raw);
            const Frame fr = read_frame(raw, std::string_view(f["record"].get<std::string>()) != "EXT_IOCTL_O");
            f["subcode"] = fr.subcode;
            f["instance"] = fr.instance;
            f["request_len"] = fr.request_len;
            f["response_len"] = fr.response_len;
        }
        if (std::optional<FaultAction> fault = fault_take("ioctl", hex32(number))) {
            f["fault"] = fault->text;
            if (fault->kind == FaultKind::Errno)
                r = -fault->error;
        }
    }
    journal_result(f, r);
    journal("ioctl", f);
    return r;
}

}  // namespace vxsim::drv
