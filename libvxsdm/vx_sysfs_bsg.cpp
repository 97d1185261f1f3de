// FC transport bsg: the sg_io_v4 header and the fc_bsg_request of vendor,
// option-ROM, CT and ELS requests, how a completed request is judged, and
// the private node each request is sent through. The one place that owns bsg.
#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "vx_sddbg.h"
#include "vx_sysfs.h"

namespace {

constexpr uint32_t TRC = VXDBG_SYSFS;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_SYSFS;

constexpr uint32_t VENDOR_HEAD_LEN = offsetof(fc_bsg_request, rqst_data.h_vendor.vendor_cmd);
constexpr uint32_t CT_PAYLOAD_MIN = 12;  // CT header bytes the request is made from

template <typename T>
void put(uint8_t* at, T value) {
    memcpy(at, &value, sizeof value);
}

void frame(sg_io_v4* hdr, const uint8_t* request, uint32_t request_len, uint8_t* response, uint32_t response_len) {
    memset(hdr, 0, sizeof *hdr);
    hdr->guard = 'Q';
    hdr->protocol = BSG_PROTOCOL_SCSI;
    hdr->subprotocol = BSG_SUB_PROTOCOL_SCSI_TRANSPORT;
    hdr->request_len = request_len;
    hdr->request = vxapi_ptr_to_64bit(request);
    if (response) {
        hdr->max_response_len = response_len;
        hdr->response = vxapi_ptr_to_64bit(response);
    }
}

void set_dout(sg_io_v4* hdr, const uint8_t* dout, uint32_t dout_len) {
    hdr->dout_xfer_len = dout_len;
    hdr->dout_xferp = vxapi_ptr_to_64bit(dout);
}

void set_din(sg_io_v4* hdr, uint8_t* din, uint32_t din_len) {
    hdr->din_xfer_len = din_len;
    hdr->din_xferp = vxapi_ptr_to_64bit(din);
}

void put_vendor_head(uint8_t* request) {
    put<uint32_t>(request + offsetof(fc_bsg_request, msgcode), FC_BSG_HST_VENDOR);
    put<uint64_t>(request + offsetof(fc_bsg_request, rqst_data.h_vendor.vendor_id), VXSYSFS_BSG_VENDOR_ID);
}

uint32_t optrom_header(const char* fn, uint32_t code, sg_io_v4* hdr, uint8_t* buf, uint32_t size, uint32_t offset,
                       uint8_t* request, uint32_t request_len, bool read) {
    if (!hdr || !buf || size == 0 || !request || request_len < VXSYSFS_BSG_REQ_LEN) {
        if (vxdbg_on(ERR)) {
            vxdbg_print(fn, 0, VXDBG_NONE, 0);
            vxdbg_print(": invalid parameter.", 0, VXDBG_NONE, 1);
        }
        return VXSYSFS_BSG_HDR_FAILED;
    }
    frame(hdr, request, request_len, nullptr, 0);
    set_dout(hdr, buf, size);
    if (read)
        set_din(hdr, buf, size);
    put_vendor_head(request);
    put<uint32_t>(request + offsetof(fc_bsg_request, rqst_data.h_vendor.vendor_cmd), code);
    put<uint32_t>(request + offsetof(fc_bsg_request, rqst_data.h_vendor.vendor_cmd) + 4, offset);
    if (vxdbg_on(TRC)) {
        vxdbg_print(fn, 0, VXDBG_NONE, 0);
        vxdbg_print(": > read offset=", offset, VXDBG_HEX, 0);
        vxdbg_print(" > read size=", size, VXDBG_HEX, 1);
    }
    return 0;
}

}  // namespace

uint32_t vxsysfs_create_bsg_header(sg_io_v4* hdr, uint8_t* request, uint32_t request_len, uint8_t* response,
                                   uint32_t response_len, uint8_t* dout, uint32_t dout_len, uint8_t* din,
                                   uint32_t din_len) {
    if (!hdr || !request || request_len < VENDOR_HEAD_LEN) {
        vxdbg_line(ERR, "vxsysfs_create_bsg_header: invalid parameter.");
        return VXSYSFS_BSG_HDR_FAILED;
    }
    frame(hdr, request, request_len, response, response_len);
    // Without data of its own the driver reads its parameters from the
    // buffer it fills.
    if (!dout && din)
        set_dout(hdr, din, din_len);
    else if (dout)
        set_dout(hdr, dout, dout_len);
    if (din)
        set_din(hdr, din, din_len);
    put_vendor_head(request);
    vxdbg_num(TRC, "vxsysfs_create_bsg_header: > req buf size==", request_len, VXDBG_DEC, 0);
    vxdbg_num(TRC, " > rsp buf size==", response_len, VXDBG_DEC, 1);
    return 0;
}

uint32_t vxsysfs_create_bsg_read_optrom_header(sg_io_v4* hdr, uint8_t* buf, uint32_t size, uint32_t offset,
                                               uint8_t* request, uint32_t request_len) {
    return optrom_header("vxsysfs_create_bsg_read_optrom_header", VXSYSFS_BSG_READ_OPTROM, hdr, buf, size, offset,
                         request, request_len, true);
}

uint32_t vxsysfs_create_bsg_update_optrom_header(sg_io_v4* hdr, uint8_t* buf, uint32_t size, uint32_t offset,
                                                 uint8_t* request, uint32_t request_len) {
    return optrom_header("vxsysfs_create_bsg_update_optrom_header", VXSYSFS_BSG_UPDATE_OPTROM, hdr, buf, size,
                         offset, request, request_len, false);
}

uint32_t vxsysfs_create_bsg_ct_header(sg_io_v4* hdr, uint8_t* request, uint32_t request_len, uint8_t* reply,
                                      uint32_t reply_len, const uint8_t* payload, uint32_t payload_len,
                                      uint8_t* resp, uint32_t resp_len) {
    if (!hdr || !request || request_len < VXSYSFS_BSG_REQ_LEN || !payload || payload_len < CT_PAYLOAD_MIN ||
        (!resp && resp_len != 0)) {
        vxdbg_line(ERR, "vxsysfs_create_bsg_ct_header: invalid parameter.");
        return VXSYSFS_BSG_HDR_FAILED;
    }
    frame(hdr, request, request_len, reply, reply_len);
    set_dout(hdr, payload, payload_len);
    if (resp)
        memset(resp, 0, resp_len);
    set_din(hdr, resp, resp_len);

    const uint8_t gs_type = payload[4];
    const uint8_t gs_subtype = payload[5];
    uint16_t command = 0, max_size = 0;
    memcpy(&command, payload + 8, sizeof command);
    memcpy(&max_size, payload + 10, sizeof max_size);
    // The GS type stands where the kernel's port id starts and 0xFF fills
    // the two bytes after it: the driver reads it there.
    put<uint32_t>(request + offsetof(fc_bsg_request, msgcode), FC_BSG_HST_CT);
    request[4] = 0;
    request[5] = gs_type;
    request[6] = 0xFF;
    request[7] = 0xFF;
    put<uint32_t>(request + offsetof(fc_bsg_request, rqst_data.h_ct.preamble_word0), 0x01000000u);
    put<uint32_t>(request + offsetof(fc_bsg_request, rqst_data.h_ct.preamble_word1),
                  uint32_t(gs_type) << 24 | uint32_t(gs_subtype) << 16);
    put<uint32_t>(request + offsetof(fc_bsg_request, rqst_data.h_ct.preamble_word2),
                  uint32_t(command) << 16 | max_size);
    vxdbg_num(TRC, "vxsysfs_create_bsg_ct_header: > req buf size==", payload_len, VXDBG_DEC, 0);
    vxdbg_num(TRC, " > rsp buf size==", resp_len, VXDBG_DEC, 1);
    return 0;
}

uint32_t vxsysfs_create_bsg_els_header(sg_io_v4* hdr, uint8_t* request, uint32_t request_len, uint8_t* reply,
                                       uint32_t reply_len, const uint8_t* buf, uint32_t size, uint8_t* resp,
                                       uint32_t resp_len) {
    if (!hdr || !request || request_len < VXSYSFS_BSG_REQ_LEN || !buf || size < VXSYSFS_ELS_HEAD_LEN) {
        vxdbg_line(ERR, "vxsysfs_create_bsg_els_header: invalid parameter.");
        return VXSYSFS_BSG_HDR_FAILED;
    }
    frame(hdr, request, request_len, reply, reply_len);
    // The library's own 32-byte head is not sent.
    set_dout(hdr, buf + VXSYSFS_ELS_HEAD_LEN, size - VXSYSFS_ELS_HEAD_LEN);
    set_din(hdr, resp, resp_len);
    memset(request, 0, VXSYSFS_BSG_REQ_LEN);
    put<uint32_t>(request + offsetof(fc_bsg_request, msgcode), FC_BSG_RPT_ELS);
    // A buffer of exactly the head carries no command byte to name.
    request[offsetof(fc_bsg_request, rqst_data.r_els.els_code)] =
        size > VXSYSFS_ELS_HEAD_LEN ? buf[VXSYSFS_ELS_HEAD_LEN] : 0;
    vxdbg_num(TRC, "vxsysfs_create_bsg_els_header: > req buf size==", size - VXSYSFS_ELS_HEAD_LEN, VXDBG_DEC, 0);
    vxdbg_num(TRC, " > rsp buf size==", resp_len, VXDBG_DEC, 1);
    return 0;
}

uint32_t vxsysfs_bsg_vendor_status(int rc, int err, const uint8_t* reply, uint32_t reply_len) {
    if (rc != 0) {
        // ENOSYS: the driver does not know bsg vendor commands.
        const uint32_t status = err == ENOSYS ? EXT_STATUS_INVALID_REQUEST : EXT_STATUS_ERR;
        vxdbg_num(ERR, "vxsysfs_bsg_vendor_status: SG_IO failed. errno=", static_cast<uint64_t>(err), VXDBG_DEC, 1);
        return status;
    }
    constexpr uint32_t rsp_at = offsetof(fc_bsg_reply, reply_data.vendor_rsp);
    if (!reply || reply_len < rsp_at + sizeof(uint32_t)) {
        vxdbg_line(ERR, "vxsysfs_bsg_vendor_status: no reply.");
        return EXT_STATUS_ERR;
    }
    uint32_t status = 0;
    memcpy(&status, reply + rsp_at, sizeof status);
    return status;
}

vxsysfs_bsg_next vxsysfs_bsg_optrom_next(int rc, int err, uint32_t sends, uint32_t* pext_stat) {
    uint32_t local = 0;
    uint32_t& ext_stat = pext_stat ? *pext_stat : local;
    if (rc == 0) {
        ext_stat = EXT_STATUS_OK;
        return vxsysfs_bsg_next::done;
    }
    if (err == EBUSY) {
        ext_stat = EXT_STATUS_BUSY;
        vxdbg_num(ERR, "vxsysfs_bsg_optrom_next: flash busy, send=", sends, VXDBG_DEC, 1);
        return sends < VXSYSFS_BSG_OPTROM_SENDS ? vxsysfs_bsg_next::retry : vxsysfs_bsg_next::stop;
    }
    ext_stat = err == ENOSYS ? EXT_STATUS_INVALID_REQUEST : EXT_STATUS_ERR;
    vxdbg_num(ERR, "vxsysfs_bsg_optrom_next: SG_IO failed. errno=", static_cast<uint64_t>(err), VXDBG_DEC, 1);
    return vxsysfs_bsg_next::stop;
}

vxsysfs_bsg_node::vxsysfs_bsg_node(char* path) {
    if (!path || vxsysfs_open_bsg_dev(path, name_, sizeof name_) != 0) {
        name_[0] = '\0';
        return;
    }
    fd_ = vxsysfs_open_bsg_node(name_, O_WRONLY);
}

vxsysfs_bsg_node::~vxsysfs_bsg_node() {
    if (fd_ >= 0)
        close(fd_);
    if (made())
        unlink(name_);
}

int vxsysfs_bsg_node::sg_io(sg_io_v4* hdr) const {
    if (fd_ < 0 || !hdr) {
        errno = EBADF;
        return -1;
    }
    return ioctl(fd_, SG_IO, hdr);
}
