// Pass-through on the sysfs channel: SCSI commands with SG_IO on the LUN's
// own node, CT requests on the host's bsg node, ELS requests on the remote
// port's. Outcomes are given in the driver's statuses, so that the SD layer
// judges both channels alike.
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "vx_channel.h"
#include "vx_sddbg.h"
#include "vx_sysfs.h"

namespace {

constexpr uint32_t TRC = VXDBG_SYSFS;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_SYSFS;

constexpr uint32_t FLAT_LUN = 0x4000;  // midlayer number of a flat-space LUN: 0x4000 | lun

// Host and driver bytes of a completed SG_IO that matter here.
constexpr uint16_t DID_NO_CONNECT = 0x01;
constexpr uint16_t DID_BUS_BUSY = 0x02;
constexpr uint16_t DID_BAD_TARGET = 0x04;
constexpr uint16_t DID_IMM_RETRY = 0x0C;
constexpr uint16_t DID_REQUEUE = 0x0D;
constexpr uint16_t DRIVER_SENSE = 0x08;

// fc_bsg_ctels_reply status codes of the kernel's FC transport.
constexpr uint32_t CTELS_ACCEPT = 0;
constexpr uint32_t CTELS_REJECT = 1;
constexpr uint32_t CTELS_P_BSY = 4;
constexpr uint32_t CTELS_F_BSY = 6;

uint32_t& status_word(uint32_t* pext_stat, uint32_t& local) { return pext_stat ? *pext_stat : local; }

// A descriptor closed on every way out.
class fd_hold {
public:
    explicit fd_hold(int fd) : fd_(fd) {}
    ~fd_hold() {
        if (fd_ >= 0)
            close(fd_);
    }
    fd_hold(const fd_hold&) = delete;
    fd_hold& operator=(const fd_hold&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// A buffer one byte longer than the caller's: data that fill the extra byte
// did not fit, which the driver reports as an overrun.
uint32_t bounce_len(uint32_t size) { return size < UINT32_MAX ? size + 1 : size; }
std::unique_ptr<uint8_t[]> bounce_buffer(uint32_t size) {
    return std::unique_ptr<uint8_t[]>(new (std::nothrow) uint8_t[bounce_len(size)]());
}

// The midlayer failed the command before or without the target.
uint32_t host_failure(uint16_t host_status) {
    switch (host_status) {
    case DID_NO_CONNECT:
    case DID_BAD_TARGET: return EXT_STATUS_DEV_NOT_FOUND;
    case DID_BUS_BUSY:
    case DID_IMM_RETRY:
    case DID_REQUEUE: return EXT_STATUS_BUSY;
    default: return EXT_STATUS_ERR;
    }
}

int sg_direction(uint8_t direction) {
    switch (direction) {
    case EXT_DEF_SCSI_DIR_IN: return SG_DXFER_FROM_DEV;
    case EXT_DEF_SCSI_DIR_OUT: return SG_DXFER_TO_DEV;
    default: return SG_DXFER_NONE;
    }
}

// Runs the command of a pass-through record (either form: they share their
// layout from the direction on) on LUN `lun` of target channel:target.
template <class Record>
int32_t sg_execute(const char* name, const vxapi_priv_database* inst, uint32_t channel, uint32_t target,
                   uint32_t lun, Record* pt, void* req, uint32_t req_size, void* resp, uint32_t resp_size,
                   uint32_t& ext_stat, uint32_t& dstat) {
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    dstat = 0;
    void* data = nullptr;
    uint32_t len = 0;
    if (!vxapi_scsipt_data(req, req_size, resp, resp_size, &pt->Direction, &data, &len)) {
        vxdbg_text(ERR, name);
        vxdbg_line(ERR, ": request and response buffers both given.");
        return 1;
    }
    char dev[VXSYSFS_ATTR_LEN];
    uint32_t numbers[2];
    const uint32_t count = vxsysfs_midlayer_luns(lun, numbers);
    bool found = false;
    for (uint32_t i = 0; i < count && !found; ++i)
        found = vxsysfs_get_devname(inst->host_no, channel, target, numbers[i], dev, sizeof dev) == 0;
    if (!found) {
        if (vxdbg_on(ERR)) {
            vxdbg_print(name, 0, VXDBG_NONE, 0);
            vxdbg_print(": no such LUN. target=", target, VXDBG_DEC, 0);
            vxdbg_print(" lun=", lun, VXDBG_DEC, 1);
        }
        return 0;
    }
    const fd_hold fd(vxsysfs_open(dev, pt->Cdb[0]));
    if (fd.get() < 0)
        return 0;
    ext_stat = EXT_STATUS_ERR;

    const bool data_in = pt->Direction == EXT_DEF_SCSI_DIR_IN;
    std::unique_ptr<uint8_t[]> in = data_in ? bounce_buffer(len) : nullptr;
    if (data_in && !in) {
        ext_stat = EXT_STATUS_NO_MEMORY;
        return 1;
    }
    sg_io_hdr_t h;
    memset(&h, 0, sizeof h);
    h.interface_id = 'S';
    h.dxfer_direction = sg_direction(pt->Direction);
    h.cmd_len = pt->CdbLength;
    h.cmdp = pt->Cdb;
    h.mx_sb_len = static_cast<unsigned char>(pt->SenseLength < 255 ? pt->SenseLength : 255);
    h.sbp = pt->SenseData;
    h.dxfer_len = data_in ? bounce_len(len) : len;
    h.dxferp = data_in ? in.get() : data;
    h.timeout = 0;  // the midlayer's default
    if (ioctl(fd.get(), SG_IO, &h) != 0) {
        const int err = errno;
        vxdbg_text(ERR, name);
        vxdbg_num(ERR, ": SG_IO failed. errno=", static_cast<uint64_t>(err), VXDBG_DEC, 1);
        errno = err;
        return -1;
    }
    pt->SenseLength = h.sb_len_wr <= pt->SenseLength ? h.sb_len_wr : pt->SenseLength;
    if (data_in) {
        const uint32_t moved = h.resid > 0 && static_cast<uint32_t>(h.resid) <= h.dxfer_len
                                   ? h.dxfer_len - static_cast<uint32_t>(h.resid)
                                   : h.dxfer_len;
        memcpy(data, in.get(), moved < len ? moved : len);
        if (moved > len)
            ext_stat = EXT_STATUS_DATA_OVERRUN;
    }
    const uint16_t driver = h.driver_status & 0x0F;
    if (h.host_status != 0) {
        ext_stat = host_failure(h.host_status);
    } else if (driver != 0 && driver != DRIVER_SENSE) {
        ext_stat = EXT_STATUS_ERR;
    } else if (h.status != 0) {
        ext_stat = EXT_STATUS_SCSI_STATUS;
        dstat = h.status;
    } else if (ext_stat != EXT_STATUS_DATA_OVERRUN) {
        ext_stat = EXT_STATUS_OK;
    }
    if (vxdbg_on(TRC)) {
        vxdbg_print(name, 0, VXDBG_NONE, 0);
        vxdbg_print(": > dev==", 0, VXDBG_NONE, 0);
        vxdbg_print(dev, 0, VXDBG_NONE, 0);
        vxdbg_print(" status=", h.status, VXDBG_HEX, 0);
        vxdbg_print(" host_status=", h.host_status, VXDBG_HEX, 0);
        vxdbg_print(" ext status=", ext_stat, VXDBG_DEC, 1);
    }
    return 0;
}

// The checks CT and ELS share: 1 for a missing argument (status 9), 0 with
// status 20 when the port has no bsg, -1 to go on.
int32_t ctels_refused(const char* name, const vxapi_priv_database* inst, const void* req, const void* resp,
                      uint32_t& ext_stat) {
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (!inst || !req || !resp)
        return 1;
    if (!(inst->features & VX_FEAT_BSG)) {
        vxdbg_text(ERR, name);
        vxdbg_line(ERR, ": > bsg not supported.");
        ext_stat = EXT_STATUS_INVALID_REQUEST;
        return 0;
    }
    return -1;
}

// One CT or ELS exchange on the bsg node of `bsg_path`. The reply lands in
// a buffer one byte longer than the caller's, whose cleared buffer then
// gets as much as fits.
int32_t ctels_exchange(const char* name, char* bsg_path, bool els, const void* req, uint32_t req_size, void* resp,
                       uint32_t resp_size, uint32_t& ext_stat) {
    std::unique_ptr<uint8_t[]> in = bounce_buffer(resp_size);
    if (!in) {
        ext_stat = EXT_STATUS_NO_MEMORY;
        return 1;
    }
    uint8_t request[VXSYSFS_BSG_REQ_LEN] = {};
    uint8_t reply[VXSYSFS_BSG_RSP_LEN] = {};
    sg_io_v4 hdr;
    const auto* payload = static_cast<const uint8_t*>(req);
    const uint32_t built =
        els ? vxsysfs_create_bsg_els_header(&hdr, request, sizeof request, reply, sizeof reply, payload, req_size,
                                            in.get(), bounce_len(resp_size))
            : vxsysfs_create_bsg_ct_header(&hdr, request, sizeof request, reply, sizeof reply, payload, req_size,
                                           in.get(), bounce_len(resp_size));
    if (built != 0) {
        ext_stat = EXT_STATUS_INVALID_PARAM;  // too short to build the request from
        return 0;
    }
    if (vxdbg_on(TRC)) {
        vxdbg_print(name, 0, VXDBG_NONE, 0);
        vxdbg_print(": > wpath==", 0, VXDBG_NONE, 0);
        vxdbg_print(bsg_path, 0, VXDBG_NONE, 1);
    }
    vxsysfs_bsg_node node(bsg_path);
    if (!node.made()) {
        vxdbg_text(ERR, name);
        vxdbg_line(ERR, ": > no bsg node.");
        return 1;
    }
    ext_stat = EXT_STATUS_ERR;
    if (!node.opened())
        return 1;
    const int rc = node.sg_io(&hdr);
    const int err = errno;
    fc_bsg_reply r;
    memcpy(&r, reply, sizeof r);
    if (rc != 0) {
        ext_stat = err == ENOSYS ? EXT_STATUS_INVALID_REQUEST : EXT_STATUS_ERR;
        vxdbg_text(ERR, name);
        vxdbg_num(ERR, ": SG_IO failed. errno=", static_cast<uint64_t>(err), VXDBG_DEC, 1);
        return 0;
    }
    const uint32_t status = r.reply_data.ctels_reply.status;
    if (r.result != 0 || (status != CTELS_ACCEPT && status != CTELS_REJECT)) {
        ext_stat = status == CTELS_P_BSY || status == CTELS_F_BSY ? EXT_STATUS_BUSY : EXT_STATUS_ERR;
        if (vxdbg_on(ERR)) {
            vxdbg_print(name, 0, VXDBG_NONE, 0);
            vxdbg_print(": > result==", static_cast<uint32_t>(r.result), VXDBG_INT, 0);
            vxdbg_print(" status==", status, VXDBG_DEC, 1);
        }
        return 0;
    }
    const uint32_t moved = r.reply_payload_rcv_len < hdr.din_xfer_len ? r.reply_payload_rcv_len : hdr.din_xfer_len;
    memset(resp, 0, resp_size);
    memcpy(resp, in.get(), moved < resp_size ? moved : resp_size);
    // A rejected ELS without a payload: the LS_RJT from the reply's reason.
    if (els && status == CTELS_REJECT && moved == 0 && resp_size >= 8) {
        auto* out = static_cast<uint8_t*>(resp);
        out[0] = 0x01;  // LS_RJT
        out[5] = r.reply_data.ctels_reply.rjt_data.reason_code;
        out[6] = r.reply_data.ctels_reply.rjt_data.reason_explanation;
        out[7] = r.reply_data.ctels_reply.rjt_data.vendor_unique;
    }
    ext_stat = moved > resp_size ? EXT_STATUS_DATA_OVERRUN : EXT_STATUS_OK;
    vxdbg_text(TRC, name);
    vxdbg_num(TRC, ": > rcv len==", r.reply_payload_rcv_len, VXDBG_DEC, 1);
    return 0;
}

}  // namespace

uint32_t vxsysfs_midlayer_luns(uint32_t lun, uint32_t out[2]) {
    out[0] = lun;
    if (lun > 0xFF && lun < FLAT_LUN) {
        out[1] = FLAT_LUN | lun;
        return 2;
    }
    return 1;
}

int32_t vxsysfs_scsipt_sg(int handle, vxapi_priv_database* inst, EXT_SCSI_PASSTHRU* pt, void* req,
                          uint32_t req_size, void* resp, uint32_t resp_size, uint32_t* pext_stat,
                          uint32_t* pext_dstat) {
    (void)handle;
    uint32_t local = 0, local_d = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    uint32_t& dstat = status_word(pext_dstat, local_d);
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (!inst || !pt)
        return 1;
    return sg_execute("vxsysfs_send_scsipt", inst, pt->TargetAddr.Bus, pt->TargetAddr.Target, pt->TargetAddr.Lun,
                      pt, req, req_size, resp, resp_size, ext_stat, dstat);
}

int32_t vxsysfs_send_scsipt(int handle, vxapi_priv_database* inst, const EXT_SCSI_ADDR* addr, const uint8_t* cdb,
                            uint32_t cdb_len, void* req, uint32_t req_size, void* resp, uint32_t* resp_size,
                            uint8_t* sense, uint32_t* sense_size, uint32_t* pext_stat, uint8_t* scsi_status) {
    return vxapi_scsipt_run("vxsysfs_send_scsipt", vxsysfs_scsipt_sg, handle, inst, addr, cdb, cdb_len, req,
                            req_size, resp, resp_size, sense, sense_size, pext_stat, scsi_status);
}

int32_t vxsysfs_send_fc_scsipt(int handle, vxapi_priv_database* inst, EXT_FC_SCSI_PASSTHRU* pt, void* req,
                               uint32_t req_size, void* resp, uint32_t resp_size, uint32_t* pext_stat,
                               uint32_t* pext_dstat) {
    uint32_t local = 0, local_d = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    uint32_t& dstat = status_word(pext_dstat, local_d);
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    dstat = 0;
    if (!inst || !pt)
        return 1;
    if (pt->CdbLength == 0 || pt->CdbLength > EXT_MAX_CDB_LEN || pt->FCScsiAddr.DestType != EXT_DEF_DESTTYPE_WWPN) {
        vxdbg_num(ERR, "vxsysfs_send_fc_scsipt: invalid request. dest type=", pt->FCScsiAddr.DestType, VXDBG_DEC,
                  1);
        ext_stat = EXT_STATUS_INVALID_PARAM;
        return 0;
    }
    if (pt->SenseLength > EXT_MAX_SENSE_LEN)
        pt->SenseLength = EXT_MAX_SENSE_LEN;
    EXT_SCSI_ADDR addr{};
    uint32_t found = EXT_STATUS_DEV_NOT_FOUND;
    vxsysfs_wwpn_to_scsiaddr(handle, inst, pt->FCScsiAddr.DestAddr.WWPN, sizeof pt->FCScsiAddr.DestAddr.WWPN, &addr,
                             &found);
    if (found != EXT_STATUS_OK) {
        vxdbg_line(ERR, "vxsysfs_send_fc_scsipt: no remote port with this port name.");
        return 0;
    }
    return sg_execute("vxsysfs_send_fc_scsipt", inst, addr.Bus, addr.Target, pt->FCScsiAddr.Lun, pt, req, req_size,
                      resp, resp_size, ext_stat, dstat);
}

int32_t vxsysfs_send_ct_passthru(int handle, vxapi_priv_database* inst, const void* req, uint32_t req_size,
                                 void* resp, uint32_t resp_size, uint32_t* pext_stat) {
    (void)handle;
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    if (const int32_t refused = ctels_refused("vxsysfs_send_ct_passthru", inst, req, resp, ext_stat); refused >= 0)
        return refused;
    vxsysfs_path_t path;
    vxsysfs_get_bsg_device_path(path, inst);
    return ctels_exchange("vxsysfs_send_ct_passthru", path, false, req, req_size, resp, resp_size, ext_stat);
}

int32_t vxsysfs_send_els_passthru(int handle, vxapi_priv_database* inst, const void* req, uint32_t req_size,
                                  void* resp, uint32_t resp_size, uint32_t* pext_stat) {
    (void)handle;
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    if (const int32_t refused = ctels_refused("vxsysfs_send_els_passthru", inst, req, resp, ext_stat); refused >= 0)
        return refused;
    if (req_size < VXSYSFS_ELS_HEAD_LEN) {
        ext_stat = EXT_STATUS_INVALID_PARAM;
        return 0;
    }
    const uint8_t* wwpn = static_cast<const uint8_t*>(req) + offsetof(EXT_ELS_PT_REQ, WWPN);
    vxsysfs_path_t rpath;
    if (!vxsysfs_find_rport_by_wwpn(rpath, inst->host_no, wwpn)) {
        vxdbg_line(ERR, "vxsysfs_send_els_passthru: > no remote port with this port name.");
        return 0;
    }
    if (!vxsysfs_is_rport_online(rpath)) {
        vxdbg_text(ERR, "vxsysfs_send_els_passthru: > Port not online, rport==");
        vxdbg_line(ERR, rpath);
        return 0;
    }
    vxsysfs_path_t path;
    if (!vxsysfs_get_bsg_rport_path(path, inst, wwpn))
        return 1;
    return ctels_exchange("vxsysfs_send_els_passthru", path, true, req, req_size, resp, resp_size, ext_stat);
}
