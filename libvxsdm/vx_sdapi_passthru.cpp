// SD pass-through: SCSI commands by bus/target/LUN and by FC port name, the
// canned INQUIRY, READ CAPACITY and REPORT LUNS (with the LUN probe for
// targets that refuse REPORT LUNS), CT requests to the fabric, and the RNID
// request this library does not offer.
#include <cerrno>
#include <cstring>

#include "exioct.h"
#include "vsdmgt.h"
#include "vx_core.h"
#include "vx_sdapi.h"
#include "vx_sddbg.h"

using namespace vxsd;

namespace {

constexpr uint8_t OP_INQUIRY = 0x12;
constexpr uint8_t OP_READ_CAPACITY = 0x25;
constexpr uint8_t OP_REPORT_LUNS = 0xA0;
constexpr uint32_t INQUIRY_MAX = 255;       // the allocation length is one byte
constexpr uint32_t READ_CAPACITY_DATA = 8;  // last LBA and block size
constexpr uint32_t PROBED_LUNS = 256;       // LUNs 0-255 stand in for a refused REPORT LUNS
constexpr uint32_t LUN_LIST_HEAD = 8;       // REPORT LUNS data: list length, reserved, entries
constexpr uint32_t LUN_ENTRY = 8;
constexpr uint32_t CT_IU_HEADER = 16;
constexpr uint32_t SENSE_DUMP = 64;

// Fixed-format sense data (response code 0x70) whose key is ILLEGAL REQUEST.
constexpr uint8_t SENSE_FIXED = 0x70;
constexpr uint8_t SENSE_KEY_ILLEGAL_REQUEST = 0x05;

bool illegal_request(const uint8_t* sense) {
    return (sense[0] & 0x7F) == SENSE_FIXED && (sense[2] & 0x0F) == SENSE_KEY_ILLEGAL_REQUEST;
}

uint32_t sense_room(const uint8_t* sense, uint32_t size) {
    if (!sense)
        return 0;
    return size < SDM_MAX_SENSE_LEN ? size : SDM_MAX_SENSE_LEN;
}

bool valid_cdb(const char* name, int handle, const uint8_t* cdb, uint32_t len) {
    if (cdb && len >= 1 && len <= SDM_MAX_CDB_LEN)
        return true;
    trace_call(SD_ERROR, name, handle, "): invalid cdb length ", len, VXDBG_DEC);
    return false;
}

// Status of a pass-through: a driver status other than success, overrun or
// underrun is translated with the SCSI status as detail; a failed request
// passes its errno on.
uint32_t passthru_status(const char* name, int handle, int32_t rc, uint32_t ext_stat, uint32_t detail) {
    if (!tolerated(ext_stat)) {
        trace_call(SD_ERROR, name, handle, "): bad stat ", ext_stat, VXDBG_DEC);
        return SDXlateSDMErr(ext_stat, detail);
    }
    if (rc < 0) {
        const uint32_t status = errno_status();
        trace_call(SD_ERROR, name, handle, "): ioctl failed. errno = ", status, VXDBG_DEC);
        return status;
    }
    return rc == 0 ? SDXlateSDMErr(ext_stat, detail) : SDM_STATUS_UNKNOWN_ERROR;
}

// ---- The canned commands, once for both address forms ----

uint32_t pass_through(int handle, TARGETINFORMATION* to, uint8_t* cdb, uint32_t cdb_len, void* resp,
                      uint32_t resp_size, uint8_t* sense, uint32_t sense_size) {
    return SDSendScsiPassThru(handle, to, cdb, cdb_len, nullptr, 0, resp, resp_size, sense, sense_size);
}

uint32_t pass_through(int handle, DESTINATIONADDRESS* to, uint8_t* cdb, uint32_t cdb_len, void* resp,
                      uint32_t resp_size, uint8_t* sense, uint32_t sense_size) {
    return SDSendScsiPassThruFC(handle, to, cdb, cdb_len, nullptr, 0, resp, resp_size, sense, sense_size);
}

void set_lun(TARGETINFORMATION* to, uint16_t lun) { to->LUN = lun; }
void set_lun(DESTINATIONADDRESS* to, uint16_t lun) { to->LunNumber = lun; }

template <class Address>
uint32_t inquiry(const char* name, int handle, Address* to, void* resp, uint32_t resp_size, uint8_t* sense,
                 uint32_t sense_size) {
    trace_entry(name, handle);
    uint8_t cdb[6] = {OP_INQUIRY, 0, 0, 0, static_cast<uint8_t>(resp_size < INQUIRY_MAX ? resp_size : INQUIRY_MAX),
                      0};
    const uint32_t status = pass_through(handle, to, cdb, sizeof cdb, resp, resp_size, sense, sense_size);
    trace_exit(name, handle, status);
    return status;
}

// The caller's sense buffer gets what the local one collected, at most its size.
void copy_sense(uint8_t* dst, uint32_t dst_size, const uint8_t* local) {
    if (!dst || dst_size == 0)
        return;
    memset(dst, 0, dst_size);
    memcpy(dst, local, sense_room(dst, dst_size));
}

template <class Address>
uint32_t read_capacity(const char* name, int handle, Address* to, void* resp, uint32_t resp_size, uint8_t* sense,
                       uint32_t sense_size) {
    trace_entry(name, handle);
    uint8_t cdb[10] = {OP_READ_CAPACITY};
    uint8_t local[SDM_MAX_SENSE_LEN] = {};
    const uint32_t status = pass_through(handle, to, cdb, sizeof cdb, resp, resp_size, local, sizeof local);
    copy_sense(sense, sense_size, local);
    trace_exit(name, handle, status);
    return status;
}

// Writes `value` as `width` big-endian bytes at `at`, only those below `end`.
void put_be(uint8_t* buf, uint32_t end, uint32_t at, uint32_t value, uint32_t width) {
    for (uint32_t i = 0; i < width; ++i)
        if (at + i < end)
            buf[at + i] = static_cast<uint8_t>(value >> (8 * (width - 1 - i)));
}

// The LUN list of a target that refused REPORT LUNS, from READ CAPACITY of
// LUNs 0-255 (a LUN that answers is present), in REPORT LUNS format.
template <class Address>
uint32_t probe_luns(const char* name, int handle, Address* to, uint8_t* out, uint32_t size) {
    bool present[PROBED_LUNS] = {};
    uint32_t n = 0;
    for (uint32_t lun = 0; lun < PROBED_LUNS; ++lun) {
        set_lun(to, static_cast<uint16_t>(lun));  // left at the last LUN probed, as callers know it
        uint8_t cap[READ_CAPACITY_DATA];
        uint8_t sense[SDM_MAX_SENSE_LEN];
        present[lun] = read_capacity("SDSendScsiReadCapacityCmd", handle, to, cap, sizeof cap, sense,
                                     sizeof sense) == SDM_STATUS_SUCCESS;
        n += present[lun] ? 1 : 0;
    }
    trace_call(SD_TRACE, name, handle, "): LUNs found by READ CAPACITY=", n, VXDBG_DEC);
    put_be(out, size, 0, n * LUN_ENTRY, 4);
    // Eight times the list is cleared after the head, but never past the
    // caller's buffer.
    const uint64_t clear_end = LUN_LIST_HEAD + uint64_t(n) * LUN_ENTRY * 8;
    if (size > LUN_LIST_HEAD)
        memset(out + LUN_LIST_HEAD, 0, (clear_end < size ? clear_end : size) - LUN_LIST_HEAD);
    uint32_t at = LUN_LIST_HEAD;
    for (uint32_t lun = 0; lun < PROBED_LUNS; ++lun) {
        if (!present[lun])
            continue;
        put_be(out, size, at, ((lun >> 8) & 0x3F) << 8 | (lun & 0xFF), 2);
        at += LUN_ENTRY;
    }
    return SDM_STATUS_NOT_FROM_DEVICE;
}

template <class Address>
uint32_t report_luns(const char* name, int handle, Address* to, void* resp, uint32_t resp_size, uint8_t* sense,
                     uint32_t sense_size) {
    trace_entry(name, handle);
    uint8_t cdb[12] = {OP_REPORT_LUNS};
    put_be(cdb, sizeof cdb, 6, resp_size, 4);
    uint8_t local[SDM_MAX_SENSE_LEN] = {};
    uint32_t status = pass_through(handle, to, cdb, sizeof cdb, resp, resp_size, local, sizeof local);
    copy_sense(sense, sense_size, local);
    if (illegal_request(local)) {
        trace_call(SD_ERROR, name, handle, "): REPORT LUNS refused; probing LUNs.");
        status = probe_luns(name, handle, to, static_cast<uint8_t*>(resp), resp_size);
    }
    trace_exit(name, handle, status);
    return status;
}

}  // namespace

extern "C" VXSD_API SD_UINT32 SDSendScsiPassThru(int Device, TARGETINFORMATION* pTargetInfo, SD_UINT8* pCdbBuf,
                                                 SD_UINT32 ValidCdbLen, void* pReqBuf, SD_UINT32 ReqBufSize,
                                                 void* pRespBuf, SD_UINT32 RespBufSize, SD_UINT8* pSenseBuf,
                                                 SD_UINT32 SenseBufSize) {
    static constexpr const char* name = "SDSendScsiPassThru";
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!valid_cdb(name, Device, pCdbBuf, ValidCdbLen))
        return SDM_STATUS_INVALID_PARAMETER;
    if (pSenseBuf)
        memset(pSenseBuf, 0, SenseBufSize);
    // One data buffer, either way; no data at all is not this form's.
    if (!pTargetInfo || (pReqBuf && pRespBuf) || (!pReqBuf && !pRespBuf))
        return null_record(name, Device);
    EXT_SCSI_ADDR addr{};
    addr.Bus = 0;  // the caller's bus number is not used
    addr.Target = pTargetInfo->TargetID;
    addr.Lun = pTargetInfo->LUN;
    uint32_t resp_size = RespBufSize;
    uint32_t sense_size = pSenseBuf ? SenseBufSize : 0;
    uint32_t ext_stat = 0;
    uint8_t scsi_status = 0;
    const int32_t rc = vxapi_send_scsipt(inst->oshandle, inst, &addr, pCdbBuf, ValidCdbLen, pReqBuf, ReqBufSize,
                                         pRespBuf, &resp_size, pSenseBuf, &sense_size, &ext_stat, &scsi_status);
    const uint32_t status = passthru_status(name, Device, rc, ext_stat, scsi_status);
    trace_exit(name, Device, status);
    return status;
}

extern "C" VXSD_API SD_UINT32 SDSendScsiPassThruFC(int Device, DESTINATIONADDRESS* pDestAddr, SD_UINT8* pCdbBuf,
                                                   SD_UINT32 ValidCdbLen, void* pReqBuf, SD_UINT32 ReqBufSize,
                                                   void* pRespBuf, SD_UINT32 RespBufSize, SD_UINT8* pSenseBuf,
                                                   SD_UINT32 SenseBufSize) {
    static constexpr const char* name = "SDSendScsiPassThruFC";
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    const uint32_t room = sense_room(pSenseBuf, SenseBufSize);
    if (!valid_cdb(name, Device, pCdbBuf, ValidCdbLen))
        return SDM_STATUS_INVALID_PARAMETER;
    if (!pDestAddr || pDestAddr->AddressType != SDM_ADDRESS_WWPN) {
        trace_call(SD_ERROR, name, Device, "): invalid address type ", pDestAddr ? pDestAddr->AddressType : 0,
                   VXDBG_DEC);
        return SDM_STATUS_INVALID_PARAMETER;
    }
    if (pReqBuf && pRespBuf)
        return null_record(name, Device);
    EXT_FC_SCSI_PASSTHRU pt;
    memset(&pt, 0, sizeof pt);
    pt.SenseLength = static_cast<uint16_t>(room);
    memcpy(pt.FCScsiAddr.DestAddr.WWPN, pDestAddr->AddressUsing.WWPN, sizeof pt.FCScsiAddr.DestAddr.WWPN);
    pt.FCScsiAddr.DestType = pDestAddr->AddressType;
    pt.FCScsiAddr.Lun = pDestAddr->LunNumber;
    pt.CdbLength = static_cast<uint8_t>(ValidCdbLen);
    memcpy(pt.Cdb, pCdbBuf, ValidCdbLen);
    uint32_t ext_stat = 0, ext_dstat = 0;
    const int32_t rc =
        vxapi_send_fc_scsipt(inst->oshandle, inst, &pt, pReqBuf, ReqBufSize, pRespBuf, RespBufSize, &ext_stat,
                             &ext_dstat);
    uint32_t status = passthru_status(name, Device, rc, ext_stat, ext_dstat);
    if ((ext_dstat & 0xFF) == EXT_SCSI_STATUS_CHECK_CONDITION) {
        if (pSenseBuf)
            memcpy(pSenseBuf, pt.SenseData, room);
        status = SDM_STATUS_SCSI_CHECK_CONDITION;
        if (vxdbg_on(SD_ERROR)) {
            trace_call(SD_ERROR, name, Device, "): Check Condition. Sense Length=", pt.SenseLength, VXDBG_DEC);
            vxdbg_dump(" Sense data:", pt.SenseData, 8, SENSE_DUMP);
        }
    }
    trace_exit(name, Device, status);
    return status;
}

extern "C" VXSD_API SD_UINT32 SDSendScsiInquiryCmd(int Device, TARGETINFORMATION* pTargetInfo, void* pRespBuf,
                                                   SD_UINT32 RespBufSize, SD_UINT8* pSenseBuf,
                                                   SD_UINT32 SenseBufSize) {
    return inquiry("SDSendScsiInquiryCmd", Device, pTargetInfo, pRespBuf, RespBufSize, pSenseBuf, SenseBufSize);
}

extern "C" VXSD_API SD_UINT32 SDSendScsiReadCapacityCmd(int Device, TARGETINFORMATION* pTargetInfo, void* pRespBuf,
                                                        SD_UINT32 RespBufSize, SD_UINT8* pSenseBuf,
                                                        SD_UINT32 SenseBufSize) {
    return read_capacity("SDSendScsiReadCapacityCmd", Device, pTargetInfo, pRespBuf, RespBufSize, pSenseBuf,
                         SenseBufSize);
}

extern "C" VXSD_API SD_UINT32 SDSendScsiReportLunsCmd(int Device, TARGETINFORMATION* pTargetInfo, void* pRespBuf,
                                                      SD_UINT32 RespBufSize, SD_UINT8* pSenseBuf,
                                                      SD_UINT32 SenseBufSize) {
    return report_luns("SDSendScsiReportLunsCmd", Device, pTargetInfo, pRespBuf, RespBufSize, pSenseBuf,
                       SenseBufSize);
}

extern "C" VXSD_API SD_UINT32 SDSendScsiInquiryCmdFC(int Device, DESTINATIONADDRESS* pDestAddr, void* pRespBuf,
                                                     SD_UINT32 RespBufSize, SD_UINT8* pSenseBuf,
                                                     SD_UINT32 SenseBufSize) {
    return inquiry("SDSendScsiInquiryCmdFC", Device, pDestAddr, pRespBuf, RespBufSize, pSenseBuf, SenseBufSize);
}

extern "C" VXSD_API SD_UINT32 SDSendScsiReadCapacityCmdFC(int Device, DESTINATIONADDRESS* pDestAddr,
                                                          void* pRespBuf, SD_UINT32 RespBufSize, SD_UINT8* pSenseBuf,
                                                          SD_UINT32 SenseBufSize) {
    return read_capacity("SDSendScsiReadCapacityCmdFC", Device, pDestAddr, pRespBuf, RespBufSize, pSenseBuf,
                         SenseBufSize);
}

extern "C" VXSD_API SD_UINT32 SDSendScsiReportLunsCmdFC(int Device, DESTINATIONADDRESS* pDestAddr, void* pRespBuf,
                                                        SD_UINT32 RespBufSize, SD_UINT8* pSenseBuf,
                                                        SD_UINT32 SenseBufSize) {
    return report_luns("SDSendScsiReportLunsCmdFC", Device, pDestAddr, pRespBuf, RespBufSize, pSenseBuf,
                       SenseBufSize);
}

extern "C" VXSD_API SD_UINT32 SDSendCTPassThru(int Device, void* pReqBuffer, SD_UINT32 ReqBufferSize,
                                               void* pRespBuffer, SD_UINT32 RespBufferSize) {
    static constexpr const char* name = "SDSendCTPassThru";
    trace_entry(name, Device);
    vxapi_priv_database* inst = resolve(name, Device);
    if (!inst)
        return SDM_STATUS_INVALID_HANDLE;
    if (!pReqBuffer || !pRespBuffer)
        return null_record(name, Device);
    if (ReqBufferSize < CT_IU_HEADER) {
        trace_call(SD_ERROR, name, Device, "): request shorter than a CT header. size=", ReqBufferSize, VXDBG_DEC);
        return SDM_STATUS_INVALID_PARAMETER;
    }
    uint32_t ext_stat = 0;
    const int32_t rc =
        vxapi_send_ct_passthru(inst->oshandle, inst, pReqBuffer, ReqBufferSize, pRespBuffer, RespBufferSize, &ext_stat);
    bool delivered = false;
    const uint32_t status = record_status(name, Device, rc, ext_stat, &delivered);
    trace_exit(name, Device, status);
    return status;
}

extern "C" VXSD_API SD_UINT32 SDSendElsRnid(int Device, FABRICADDRESS* pFabricAddr, SD_UINT16 NIDFormat,
                                            void* pRespBuffer, SD_UINT32 RespBufferSize) {
    static constexpr const char* name = "SDSendElsRnid";
    (void)pFabricAddr;
    (void)NIDFormat;
    (void)pRespBuffer;
    (void)RespBufferSize;
    trace_entry(name, Device);
    trace_exit(name, Device, SDM_STATUS_NOT_SUPPORTED);
    return SDM_STATUS_NOT_SUPPORTED;
}
