// Common HBA API: FCP target mapping (the operating system's devices of the
// port's FCP LUNs), SCSI commands, CT pass-through and the link services.
#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <type_traits>
#include <vector>

#include "vx_capi.h"
#include "vx_sddbg.h"
#include "vx_sysfs.h"

namespace {

constexpr uint32_t TRC = VXDBG_TRACE | VXDBG_HBAAPI;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_HBAAPI;

constexpr uint32_t FIRST_SUMMARY_ROOM = 256;  // remote ports asked for before the driver says how many

// One LUN of the host as the SCSI midlayer names it (H:C:T:L).
struct host_lun {
    uint32_t channel;
    uint32_t target;
    uint32_t lun;
    bool operator<(const host_lun& o) const {
        return channel != o.channel ? channel < o.channel : target != o.target ? target < o.target : lun < o.lun;
    }
};

// The host's LUNs in address order.
std::vector<host_lun> list_host_luns(uint32_t host_no) {
    std::vector<host_lun> luns;
    char root[VXSYSFS_PATH_LEN];
    vxsysfs_root(root, sizeof root);
    char dir[VXSYSFS_PATH_LEN + 32];
    snprintf(dir, sizeof dir, "%s/class/scsi_device", root);
    DIR* d = opendir(dir);
    if (!d)
        return luns;
    while (const dirent* e = readdir(d)) {
        unsigned h = 0, c = 0, t = 0, l = 0;
        char extra = 0;
        if (sscanf(e->d_name, "%u:%u:%u:%u%c", &h, &c, &t, &l, &extra) == 4 && h == host_no)
            luns.push_back({c, t, l});
    }
    closedir(d);
    std::sort(luns.begin(), luns.end());
    return luns;
}

// The 8-byte SCSI LUN of a midlayer LUN number (the kernel's int_to_scsilun):
// the first level in bytes 0-1, the second in bytes 2-3, most significant first.
void lun_bytes(uint32_t lun, uint8_t out[8]) {
    memset(out, 0, 8);
    out[0] = static_cast<uint8_t>(lun >> 8);
    out[1] = static_cast<uint8_t>(lun);
    out[2] = static_cast<uint8_t>(lun >> 24);
    out[3] = static_cast<uint8_t>(lun >> 16);
}

// The port's remote ports with a SCSI target address, as the driver lists them.
struct target_list {
    std::unique_ptr<uint8_t[]> buf;
    uint32_t count = 0;
    const EXT_DEVICEDATAENTRY* find(uint32_t channel, uint32_t target) const {
        const auto* entries = reinterpret_cast<const EXT_DEVICEDATAENTRY*>(buf.get() + EXT_DEVICEDATA_HEADER);
        for (uint32_t i = 0; i < count; ++i)
            if (entries[i].TargetAddress.Bus == channel && entries[i].TargetAddress.Target == target)
                return &entries[i];
        return nullptr;
    }
};

// Every target, also those not online: their LUNs still have devices.
HBA_STATUS read_targets(const char* name, HBA_HANDLE handle, vxapi_priv_database* inst, target_list* list) {
    uint32_t room = FIRST_SUMMARY_ROOM;
    for (int attempt = 0; attempt < 2; ++attempt) {
        const size_t size = EXT_DEVICEDATA_HEADER + static_cast<size_t>(room) * sizeof(EXT_DEVICEDATAENTRY);
        list->buf.reset(new (std::nothrow) uint8_t[size]());
        if (!list->buf)
            return HBA_STATUS_ERROR;
        auto* data = reinterpret_cast<EXT_DEVICEDATA*>(list->buf.get());
        uint32_t mask = VX_PORTSUM_TARGET | VX_PORTSUM_OFFLINE;
        uint32_t ext_stat = 0, ext_dstat = 0;
        const int32_t rc = vxapi_get_port_summary(inst->oshandle, inst, &mask, data, static_cast<uint32_t>(size),
                                                  &ext_stat, &ext_dstat);
        if (rc != 0 || ext_stat != EXT_STATUS_OK) {
            vxcapi_trace(ERR, name, handle, "): port summary failed. stat=", ext_stat, VXDBG_DEC);
            return ext_stat != EXT_STATUS_OK ? vxapi_translate_to_capi_status(ext_stat, ext_dstat) : HBA_STATUS_ERROR;
        }
        list->count = std::min(data->ReturnListEntryCount, room);
        if (data->TotalDevices <= room)
            return HBA_STATUS_OK;
        room = data->TotalDevices;
    }
    return HBA_STATUS_OK;  // the fabric grew between the two reads: what fitted is still true
}

// Fills one mapping entry's SCSI and FCP halves.
void fill_entry(const vxapi_priv_database* inst, const host_lun& l, const EXT_DEVICEDATAENTRY& target,
                HBA_SCSIID* scsi, HBA_FCPID* fcp) {
    char dev[64];
    if (vxsysfs_get_devname(inst->host_no, l.channel, l.target, l.lun, dev, sizeof dev) == 0)
        snprintf(scsi->OSDeviceName, sizeof scsi->OSDeviceName, "/dev/%s", dev);
    else
        scsi->OSDeviceName[0] = '\0';
    // The host names the bus: bus, target and LUN then name the device on the system.
    scsi->ScsiBusNumber = inst->host_no;
    scsi->ScsiTargetNumber = l.target;
    scsi->ScsiOSLun = l.lun;
    fcp->FcId = static_cast<HBA_UINT32>(target.PortID[0]) << 16 | static_cast<HBA_UINT32>(target.PortID[1]) << 8 |
                target.PortID[2];
    memcpy(fcp->NodeWWN.wwn, target.NodeWWN, sizeof fcp->NodeWWN.wwn);
    memcpy(fcp->PortWWN.wwn, target.PortWWN, sizeof fcp->PortWWN.wwn);
    uint8_t bytes[8];
    lun_bytes(l.lun, bytes);
    // The eight bytes of the FCP LUN as one number, most significant first:
    // the same value on every host.
    uint64_t value = 0;
    for (uint8_t b : bytes)
        value = value << 8 | b;
    fcp->FcpLun = static_cast<HBA_UINT64>(value);
}

// Both mapping forms: every LUN of the port's FCP targets that the
// operating system knows. NumberOfEntries says how many entries the caller
// made room for, and comes back as the number of all of them.
template <typename Mapping>
HBA_STATUS target_mapping(const char* name, HBA_HANDLE handle, Mapping* mapping) {
    vxcapi_trace(TRC, name, handle, "): entered.");
    vxapi_priv_database* inst = vxcapi_resolve(name, handle);
    if (!inst)
        return HBA_STATUS_ERROR_INVALID_HANDLE;
    if (!mapping) {
        vxcapi_trace(ERR, name, handle, "): null mapping.");
        return HBA_STATUS_ERROR_ARG;
    }
    target_list targets;
    const HBA_STATUS status = read_targets(name, handle, inst, &targets);
    if (status != HBA_STATUS_OK)
        return status;
    const uint32_t room = mapping->NumberOfEntries;
    uint32_t total = 0;
    for (const host_lun& l : list_host_luns(inst->host_no)) {
        const EXT_DEVICEDATAENTRY* target = targets.find(l.channel, l.target);
        if (!target)
            continue;
        if (total < room) {
            // The caller's array holds `room` entries, past the one the type declares.
            auto& entry = *(mapping->entry + total);
            fill_entry(inst, l, *target, &entry.ScsiId, &entry.FcpId);
            if constexpr (std::is_same_v<Mapping, HBA_FCPTARGETMAPPINGV2>)
                memset(entry.LUID.buffer, 0, sizeof entry.LUID.buffer);
        }
        ++total;
    }
    mapping->NumberOfEntries = total;
    const HBA_STATUS result = total > room ? HBA_STATUS_ERROR_MORE_DATA : HBA_STATUS_OK;
    vxcapi_trace(TRC, name, handle, "): exiting. entries=", total, VXDBG_DEC);
    return result;
}

}  // namespace

HBA_STATUS vxhba_GetFcpTargetMapping(HBA_HANDLE handle, HBA_FCPTARGETMAPPING* mapping) {
    return target_mapping("vxhba_GetFcpTargetMapping", handle, mapping);
}

HBA_STATUS vxhba_FcpTargetMappingV2(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_FCPTARGETMAPPINGV2* mapping) {
    static constexpr const char* fn = "vxhba_FcpTargetMappingV2";
    vxapi_priv_database* inst = vxcapi_resolve(fn, handle);
    if (!inst)
        return HBA_STATUS_ERROR_INVALID_HANDLE;
    // The handle's one port is the only port that can be named.
    if (!vxcapi_same_wwn(port_wwn, inst->wwpn)) {
        vxcapi_trace(ERR, fn, handle, "): not this adapter's port.");
        return HBA_STATUS_ERROR_ILLEGAL_WWN;
    }
    return target_mapping(fn, handle, mapping);
}

// ---- SCSI commands and CT pass-through ----

namespace {

constexpr uint8_t OP_INQUIRY = 0x12;
constexpr uint8_t OP_READ_CAPACITY = 0x25;
constexpr uint8_t OP_REPORT_LUNS = 0xA0;
constexpr uint32_t INQUIRY_MAX = 255;  // the allocation length is one byte
constexpr uint32_t CT_IU_HEADER = 16;

// One SCSI command to a remote port by name. The sizes are in/out where the
// caller passed pointers: the sense size comes back as the sense bytes
// written; the response size is left as given (the driver does not say how
// much it moved). The SCSI status is the target's status byte.
struct scsi_request {
    const uint8_t* target_wwn;
    uint64_t fc_lun;
    uint8_t cdb[10];
    uint8_t cdb_len;
    void* rsp;
    uint32_t rsp_size;
    void* sense;
    uint32_t* sense_size;  // null: no sense wanted
    HBA_UINT8* scsi_status;
};

bool own_port(const vxapi_priv_database* inst, const HBA_WWN& wwn) { return vxcapi_same_wwn(wwn, inst->wwpn); }

// The midlayer's LUN number of an FCP LUN given as its eight bytes, most
// significant first (the form the target mapping hands out): peripheral
// and flat-space addressing only.
bool lun_number(uint64_t fc_lun, uint16_t* lun) {
    const auto b0 = static_cast<uint8_t>(fc_lun >> 56);
    const auto b1 = static_cast<uint8_t>(fc_lun >> 48);
    switch (b0 >> 6) {
    case 0: *lun = static_cast<uint16_t>(b0 << 8 | b1); return true;
    case 1: *lun = static_cast<uint16_t>((b0 & 0x3F) << 8 | b1); return true;
    default: return false;
    }
}

HBA_STATUS send_scsi(const char* name, HBA_HANDLE handle, vxapi_priv_database* inst, const scsi_request& r) {
    uint16_t lun = 0;
    if (!lun_number(r.fc_lun, &lun)) {
        vxcapi_trace(ERR, name, handle, "): LUN addressing not served.");
        return HBA_STATUS_ERROR_INVALID_LUN;
    }
    const uint32_t room = r.sense && r.sense_size ? std::min<uint32_t>(*r.sense_size, EXT_MAX_SENSE_LEN) : 0;
    EXT_FC_SCSI_PASSTHRU pt;
    memset(&pt, 0, sizeof pt);
    memcpy(pt.FCScsiAddr.DestAddr.WWPN, r.target_wwn, sizeof pt.FCScsiAddr.DestAddr.WWPN);
    pt.FCScsiAddr.DestType = EXT_DEF_DESTTYPE_WWPN;
    pt.FCScsiAddr.Lun = lun;
    pt.Direction = EXT_DEF_SCSI_DIR_IN;
    pt.CdbLength = r.cdb_len;
    memcpy(pt.Cdb, r.cdb, r.cdb_len);
    pt.SenseLength = static_cast<uint16_t>(room);
    uint32_t ext_stat = 0, ext_dstat = 0;
    const int32_t rc = vxapi_send_fc_scsipt(inst->oshandle, inst, &pt, nullptr, 0, r.rsp, r.rsp_size, &ext_stat,
                                            &ext_dstat);
    const auto scsi = static_cast<uint8_t>(ext_dstat & 0xFF);
    if (r.scsi_status)
        *r.scsi_status = ext_stat == EXT_STATUS_OK || ext_stat == EXT_STATUS_SCSI_STATUS ? scsi : 0;
    uint32_t sense_len = 0;
    if (ext_stat == EXT_STATUS_SCSI_STATUS && scsi == EXT_SCSI_STATUS_CHECK_CONDITION && room) {
        sense_len = std::min<uint32_t>(pt.SenseLength, room);
        memcpy(r.sense, pt.SenseData, sense_len);
    }
    if (r.sense_size)
        *r.sense_size = sense_len;
    HBA_STATUS status = vxapi_translate_to_capi_status(ext_stat, ext_dstat);
    if (status == HBA_STATUS_OK && rc != 0)
        status = HBA_STATUS_ERROR;  // failed without a driver status
    if (status != HBA_STATUS_OK)
        vxcapi_trace(ERR, name, handle, "): failed. stat=", ext_stat, VXDBG_DEC);
    vxcapi_trace(TRC, name, handle, "): exiting. ret=", status, VXDBG_DEC);
    return status;
}

// The checks every SCSI handler makes; the instance, or null with *status set.
vxapi_priv_database* scsi_checks(const char* name, HBA_HANDLE handle, const void* rsp, uint32_t rsp_size,
                                 HBA_STATUS* status) {
    vxcapi_trace(TRC, name, handle, "): entered.");
    vxapi_priv_database* inst = vxcapi_resolve(name, handle);
    if (!inst) {
        *status = HBA_STATUS_ERROR_INVALID_HANDLE;
        return nullptr;
    }
    if (!rsp || rsp_size == 0) {
        vxcapi_trace(ERR, name, handle, "): no response buffer.");
        *status = HBA_STATUS_ERROR_ARG;
        return nullptr;
    }
    return inst;
}

scsi_request inquiry(const HBA_WWN& target, uint64_t lun, uint8_t byte1, uint8_t byte2, void* rsp,
                     uint32_t rsp_size) {
    scsi_request r{};
    r.target_wwn = target.wwn;
    r.fc_lun = lun;
    r.cdb[0] = OP_INQUIRY;
    r.cdb[1] = byte1;
    r.cdb[2] = byte2;
    r.cdb[4] = static_cast<uint8_t>(std::min(rsp_size, INQUIRY_MAX));
    r.cdb_len = 6;
    r.rsp = rsp;
    r.rsp_size = std::min(rsp_size, INQUIRY_MAX);
    return r;
}

scsi_request report_luns(const HBA_WWN& target, void* rsp, uint32_t rsp_size) {
    scsi_request r{};
    r.target_wwn = target.wwn;
    r.cdb[0] = OP_REPORT_LUNS;
    // Bytes 6-9: the allocation length, most significant first.
    r.cdb[6] = static_cast<uint8_t>(rsp_size >> 24);
    r.cdb[7] = static_cast<uint8_t>(rsp_size >> 16);
    r.cdb[8] = static_cast<uint8_t>(rsp_size >> 8);
    r.cdb[9] = static_cast<uint8_t>(rsp_size);
    r.cdb_len = 10;
    r.rsp = rsp;
    r.rsp_size = rsp_size;
    return r;
}

scsi_request read_capacity(const HBA_WWN& target, uint64_t lun, void* rsp, uint32_t rsp_size) {
    scsi_request r{};
    r.target_wwn = target.wwn;
    r.fc_lun = lun;
    r.cdb[0] = OP_READ_CAPACITY;
    r.cdb_len = 10;
    r.rsp = rsp;
    r.rsp_size = rsp_size;
    return r;
}

// Handlers whose response size comes by pointer, with the adapter's port
// named (when `port_wwn` is given); `pointers_ok` says whether the
// handler's other pointers are usable.
vxapi_priv_database* sized_checks(const char* name, HBA_HANDLE handle, const HBA_WWN* port_wwn, const void* rsp,
                                  const HBA_UINT32* rsp_size, bool pointers_ok, HBA_STATUS* status) {
    if (!rsp_size || !pointers_ok) {
        vxcapi_trace(ERR, name, handle, "): null size or status.");
        *status = check_handle(handle) ? HBA_STATUS_ERROR_ARG : HBA_STATUS_ERROR_INVALID_HANDLE;
        return nullptr;
    }
    vxapi_priv_database* inst = scsi_checks(name, handle, rsp, *rsp_size, status);
    if (inst && port_wwn && !own_port(inst, *port_wwn)) {
        vxcapi_trace(ERR, name, handle, "): not this adapter's port.");
        *status = HBA_STATUS_ERROR_ILLEGAL_WWN;
        return nullptr;
    }
    return inst;
}

// V2 forms: sizes and status by pointer.
vxapi_priv_database* v2_checks(const char* name, HBA_HANDLE handle, const HBA_WWN& port_wwn, const void* rsp,
                               const HBA_UINT32* rsp_size, const HBA_UINT8* scsi_status, const void* sense,
                               const HBA_UINT32* sense_size, HBA_STATUS* status) {
    return sized_checks(name, handle, &port_wwn, rsp, rsp_size, scsi_status && (!sense || sense_size), status);
}

HBA_STATUS send_ct(const char* name, HBA_HANDLE handle, void* req, HBA_UINT32 req_size, void* rsp,
                   HBA_UINT32 rsp_size, const HBA_WWN* port_wwn) {
    vxcapi_trace(TRC, name, handle, "): entered.");
    vxapi_priv_database* inst = vxcapi_resolve(name, handle);
    if (!inst)
        return HBA_STATUS_ERROR_INVALID_HANDLE;
    if (port_wwn && !own_port(inst, *port_wwn)) {
        vxcapi_trace(ERR, name, handle, "): not this adapter's port.");
        return HBA_STATUS_ERROR_ILLEGAL_WWN;
    }
    if (!req || !rsp || rsp_size == 0 || req_size < CT_IU_HEADER) {
        vxcapi_trace(ERR, name, handle, "): bad request or response buffer. size=", req_size, VXDBG_DEC);
        return HBA_STATUS_ERROR_ARG;
    }
    uint32_t ext_stat = 0;
    const int32_t rc = vxapi_send_ct_passthru(inst->oshandle, inst, req, req_size, rsp, rsp_size, &ext_stat);
    HBA_STATUS status = vxapi_translate_to_capi_status(ext_stat, 0);
    if (status == HBA_STATUS_OK && rc != 0)
        status = HBA_STATUS_ERROR;
    vxcapi_trace(TRC, name, handle, "): exiting. ret=", status, VXDBG_DEC);
    return status;
}

}  // namespace

HBA_STATUS vxhba_SendCTPassThru(HBA_HANDLE handle, void* req, HBA_UINT32 req_size, void* rsp, HBA_UINT32 rsp_size) {
    return send_ct("vxhba_SendCTPassThru", handle, req, req_size, rsp, rsp_size, nullptr);
}

// The response size comes back as given: the driver does not say how much
// of the buffer the answer filled (its CT header says it).
HBA_STATUS vxhba_SendCTPassThruV2(HBA_HANDLE handle, HBA_WWN port_wwn, void* req, HBA_UINT32 req_size, void* rsp,
                                  HBA_UINT32* rsp_size) {
    if (!rsp_size)
        return check_handle(handle) ? HBA_STATUS_ERROR_ARG : HBA_STATUS_ERROR_INVALID_HANDLE;
    return send_ct("vxhba_SendCTPassThruV2", handle, req, req_size, rsp, *rsp_size, &port_wwn);
}

HBA_STATUS vxhba_SendScsiInquiry(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_UINT64 lun, HBA_UINT8 evpd,
                                 HBA_UINT32 page, void* rsp, HBA_UINT32 rsp_size, void* sense,
                                 HBA_UINT32 sense_size) {
    static constexpr const char* fn = "vxhba_SendScsiInquiry";
    HBA_STATUS status = HBA_STATUS_OK;
    vxapi_priv_database* inst = scsi_checks(fn, handle, rsp, rsp_size, &status);
    if (!inst)
        return status;
    scsi_request r = inquiry(port_wwn, lun, evpd ? 1 : 0, static_cast<uint8_t>(page), rsp, rsp_size);
    r.sense = sense;
    r.sense_size = sense ? &sense_size : nullptr;
    return send_scsi(fn, handle, inst, r);
}

HBA_STATUS vxhba_SendReportLUNs(HBA_HANDLE handle, HBA_WWN port_wwn, void* rsp, HBA_UINT32 rsp_size, void* sense,
                                HBA_UINT32 sense_size) {
    static constexpr const char* fn = "vxhba_SendReportLUNs";
    HBA_STATUS status = HBA_STATUS_OK;
    vxapi_priv_database* inst = scsi_checks(fn, handle, rsp, rsp_size, &status);
    if (!inst)
        return status;
    scsi_request r = report_luns(port_wwn, rsp, rsp_size);
    r.sense = sense;
    r.sense_size = sense ? &sense_size : nullptr;
    return send_scsi(fn, handle, inst, r);
}

HBA_STATUS vxhba_SendReadCapacity(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_UINT64 lun, void* rsp,
                                  HBA_UINT32 rsp_size, void* sense, HBA_UINT32 sense_size) {
    static constexpr const char* fn = "vxhba_SendReadCapacity";
    HBA_STATUS status = HBA_STATUS_OK;
    vxapi_priv_database* inst = scsi_checks(fn, handle, rsp, rsp_size, &status);
    if (!inst)
        return status;
    scsi_request r = read_capacity(port_wwn, lun, rsp, rsp_size);
    r.sense = sense;
    r.sense_size = sense ? &sense_size : nullptr;
    return send_scsi(fn, handle, inst, r);
}

HBA_STATUS vxhba_ScsiInquiryV2(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_WWN target_wwn, HBA_UINT64 lun,
                               HBA_UINT8 cdb1, HBA_UINT8 cdb2, void* rsp, HBA_UINT32* rsp_size,
                               HBA_UINT8* scsi_status, void* sense, HBA_UINT32* sense_size) {
    static constexpr const char* fn = "vxhba_ScsiInquiryV2";
    HBA_STATUS status = HBA_STATUS_OK;
    vxapi_priv_database* inst =
        v2_checks(fn, handle, port_wwn, rsp, rsp_size, scsi_status, sense, sense_size, &status);
    if (!inst)
        return status;
    scsi_request r = inquiry(target_wwn, lun, cdb1, cdb2, rsp, *rsp_size);
    r.sense = sense;
    r.sense_size = sense ? sense_size : nullptr;
    r.scsi_status = scsi_status;
    return send_scsi(fn, handle, inst, r);
}

HBA_STATUS vxhba_ScsiReportLUNsV2(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_WWN target_wwn, void* rsp,
                                  HBA_UINT32* rsp_size, HBA_UINT8* scsi_status, void* sense,
                                  HBA_UINT32* sense_size) {
    static constexpr const char* fn = "vxhba_ScsiReportLUNsV2";
    HBA_STATUS status = HBA_STATUS_OK;
    vxapi_priv_database* inst =
        v2_checks(fn, handle, port_wwn, rsp, rsp_size, scsi_status, sense, sense_size, &status);
    if (!inst)
        return status;
    scsi_request r = report_luns(target_wwn, rsp, *rsp_size);
    r.sense = sense;
    r.sense_size = sense ? sense_size : nullptr;
    r.scsi_status = scsi_status;
    return send_scsi(fn, handle, inst, r);
}

HBA_STATUS vxhba_ScsiReadCapacityV2(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_WWN target_wwn, HBA_UINT64 lun,
                                    void* rsp, HBA_UINT32* rsp_size, HBA_UINT8* scsi_status, void* sense,
                                    HBA_UINT32* sense_size) {
    static constexpr const char* fn = "vxhba_ScsiReadCapacityV2";
    HBA_STATUS status = HBA_STATUS_OK;
    vxapi_priv_database* inst =
        v2_checks(fn, handle, port_wwn, rsp, rsp_size, scsi_status, sense, sense_size, &status);
    if (!inst)
        return status;
    scsi_request r = read_capacity(target_wwn, lun, rsp, *rsp_size);
    r.sense = sense;
    r.sense_size = sense ? sense_size : nullptr;
    r.scsi_status = scsi_status;
    return send_scsi(fn, handle, inst, r);
}

// ---- Link services ----

namespace {

constexpr uint8_t ELS_LS_RJT = 0x01;
constexpr uint8_t ELS_LS_ACC = 0x02;
constexpr uint8_t ELS_RLS = 0x0F;
constexpr uint8_t ELS_RPS = 0x56;
constexpr uint8_t ELS_RNID = 0x78;
constexpr uint8_t RNID_TOPOLOGY_DISCOVERY = 0xDF;  // node-identification data format
constexpr uint8_t RPS_BY_PORT_NUMBER = 0x01;       // RPS flag: how the port selection names the port
constexpr uint8_t RPS_BY_PORT_NAME = 0x02;
constexpr uint32_t LS_RJT_SIZE = 8;
constexpr uint32_t RLS_ACC_SIZE = 4 + 24;          // command word, link error status block
constexpr uint32_t RPS_ACC_SIZE = 4 + 4 + 4 + 24;  // command word, flags, port status, the block
constexpr uint32_t RNID_ACC_HEAD = 8;              // command word, format and the two data lengths
constexpr uint32_t ELS_MAX_PAYLOAD = 2112;         // an FC frame's largest payload: room for any answer
constexpr uint32_t ELS_MAX_REQUEST = 16;           // RPS, the longest request sent here

bool zero_wwn(const HBA_WWN& wwn) {
    return std::all_of(std::begin(wwn.wwn), std::end(wwn.wwn), [](HBA_UINT8 b) { return b == 0; });
}

// The whole length of an ELS answer, from its own bytes: the driver says
// only whether it fitted.
uint32_t answer_length(uint8_t command, const uint8_t* answer) {
    if (answer[0] != ELS_LS_ACC)
        return LS_RJT_SIZE;
    switch (command) {
    case ELS_RLS: return RLS_ACC_SIZE;
    case ELS_RPS: return RPS_ACC_SIZE;
    default: return RNID_ACC_HEAD + answer[5] + answer[7];
    }
}

// One ELS to a discovered port. The answer, LS_ACC or LS_RJT, is copied to
// the caller's buffer as far as it fits, and *rsp_size comes back as its
// whole length: larger than the buffer when it was cut (still a success, as
// an overrun of any pass-through is). An LS_RJT is HBA_STATUS_ERROR_ELS_REJECT.
HBA_STATUS send_els(const char* name, HBA_HANDLE handle, vxapi_priv_database* inst, const EXT_DISC_PORT& to,
                    const uint8_t* payload, uint32_t len, void* rsp, HBA_UINT32* rsp_size) {
    EXT_ELS_PT_REQ head;
    memset(&head, 0, sizeof head);
    memcpy(head.WWNN, to.WWNN, sizeof head.WWNN);
    memcpy(head.WWPN, to.WWPN, sizeof head.WWPN);
    memcpy(head.Id, to.Id, sizeof head.Id);
    head.ValidMask = EXT_DEF_ELS_VALID_WWNN | EXT_DEF_ELS_VALID_WWPN | EXT_DEF_ELS_VALID_PORTID;
    len = std::min(len, ELS_MAX_REQUEST);
    uint8_t req[sizeof head + ELS_MAX_REQUEST] = {};
    memcpy(req, &head, sizeof head);
    memcpy(req + sizeof head, payload, len);
    uint8_t answer[ELS_MAX_PAYLOAD] = {};
    uint32_t ext_stat = 0;
    const int32_t rc =
        vxapi_send_els_passthru(inst->oshandle, inst, req, sizeof head + len, answer, sizeof answer, &ext_stat);
    HBA_STATUS status = vxapi_translate_to_capi_status(ext_stat, 0);
    if (status == HBA_STATUS_OK && rc != 0)
        status = HBA_STATUS_ERROR;  // failed without a driver status
    if (status == HBA_STATUS_OK && answer[0] != ELS_LS_ACC && answer[0] != ELS_LS_RJT)
        status = HBA_STATUS_ERROR;  // no answer at all
    if (status != HBA_STATUS_OK) {
        vxcapi_trace(ERR, name, handle, "): failed. stat=", ext_stat, VXDBG_DEC);
        vxcapi_trace(TRC, name, handle, "): exiting. ret=", status, VXDBG_DEC);
        return status;
    }
    const uint32_t length = std::min(answer_length(payload[0], answer), ELS_MAX_PAYLOAD);
    memcpy(rsp, answer, std::min(length, *rsp_size));
    *rsp_size = length;
    if (answer[0] == ELS_LS_RJT) {
        vxcapi_trace(ERR, name, handle, "): rejected. reason=", answer[5], VXDBG_HEX);
        status = HBA_STATUS_ERROR_ELS_REJECT;
    }
    vxcapi_trace(TRC, name, handle, "): exiting. ret=", status, VXDBG_DEC);
    return status;
}

}  // namespace

HBA_STATUS vxhba_SendRNID(HBA_HANDLE handle, HBA_WWN wwn, HBA_WWNTYPE type, void* rsp, HBA_UINT32* rsp_size) {
    static constexpr const char* fn = "vxhba_SendRNID";
    HBA_STATUS status = HBA_STATUS_OK;
    vxapi_priv_database* inst = sized_checks(fn, handle, nullptr, rsp, rsp_size, true, &status);
    if (!inst)
        return status;
    if (type != NODE_WWN && type != PORT_WWN) {
        vxcapi_trace(ERR, fn, handle, "): bad name type ", static_cast<uint32_t>(type), VXDBG_DEC);
        return HBA_STATUS_ERROR_ARG;
    }
    EXT_DISC_PORT to{};
    status = vxcapi_find_discport(fn, handle, inst, wwn, type, &to);
    if (status != HBA_STATUS_OK)
        return status;
    const uint8_t payload[] = {ELS_RNID, 0, 0, 0, RNID_TOPOLOGY_DISCOVERY, 0, 0, 0};
    return send_els(fn, handle, inst, to, payload, sizeof payload, rsp, rsp_size);
}

// The agent receives the request and answers for the object. Only a
// discovered port can be the agent: a switch reached through its domain
// controller (agent named by domain) is not served.
HBA_STATUS vxhba_SendRPS(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_WWN agent_wwn, HBA_UINT32 agent_domain,
                         HBA_WWN object_wwn, HBA_UINT32 object_port, void* rsp, HBA_UINT32* rsp_size) {
    static constexpr const char* fn = "vxhba_SendRPS";
    HBA_STATUS status = HBA_STATUS_OK;
    vxapi_priv_database* inst = sized_checks(fn, handle, &port_wwn, rsp, rsp_size, true, &status);
    if (!inst)
        return status;
    if (zero_wwn(agent_wwn)) {
        vxcapi_trace(ERR, fn, handle, "): agent by domain not supported. domain=", agent_domain, VXDBG_DEC);
        return HBA_STATUS_ERROR_NOT_SUPPORTED;
    }
    EXT_DISC_PORT agent{};
    status = vxcapi_find_discport(fn, handle, inst, agent_wwn, PORT_WWN, &agent);
    if (status != HBA_STATUS_OK)
        return status;
    // The object by name when one is given, else by its port number.
    uint8_t payload[16] = {ELS_RPS};
    if (zero_wwn(object_wwn)) {
        payload[7] = RPS_BY_PORT_NUMBER;
        for (int i = 0; i < 4; ++i)
            payload[12 + i] = static_cast<uint8_t>(object_port >> (24 - 8 * i));
    } else {
        payload[7] = RPS_BY_PORT_NAME;
        memcpy(payload + 8, object_wwn.wwn, sizeof object_wwn.wwn);
    }
    return send_els(fn, handle, inst, agent, payload, sizeof payload, rsp, rsp_size);
}

HBA_STATUS vxhba_SendRLS(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_WWN dest_wwn, void* rsp, HBA_UINT32* rsp_size) {
    static constexpr const char* fn = "vxhba_SendRLS";
    HBA_STATUS status = HBA_STATUS_OK;
    vxapi_priv_database* inst = sized_checks(fn, handle, &port_wwn, rsp, rsp_size, true, &status);
    if (!inst)
        return status;
    EXT_DISC_PORT to{};
    status = vxcapi_find_discport(fn, handle, inst, dest_wwn, PORT_WWN, &to);
    if (status != HBA_STATUS_OK)
        return status;
    // Word 1 names the port whose block is asked for: the destination itself.
    const uint8_t payload[] = {ELS_RLS, 0, 0, 0, 0, to.Id[1], to.Id[2], to.Id[3]};
    return send_els(fn, handle, inst, to, payload, sizeof payload, rsp, rsp_size);
}
