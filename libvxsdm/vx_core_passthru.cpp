// SCSI, CT and ELS pass-through leaves: the dispatchers, the steps of a
// SCSI pass-through that every channel shares, and the extended-ioctl side
// of each (one request each).
#include <cstring>

#include "exioct.h"
#include "vx_channel.h"
#include "vx_core.h"
#include "vx_sddbg.h"

namespace {

constexpr uint32_t TRC = VXDBG_TRACE;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_TRACE;

uint32_t& status_word(uint32_t* pext_stat, uint32_t& local) { return pext_stat ? *pext_stat : local; }

void trace_named(uint32_t guard, const char* name, const char* text, uint64_t number, uint8_t radix) {
    if (!vxdbg_on(guard))
        return;
    vxdbg_print(name, 0, VXDBG_NONE, 0);
    vxdbg_print(text, number, radix, 1);
}

// Statuses with which a SCSI pass-through still completed: the data (cut or
// short) and, for 15, the target's own status.
bool completed(uint32_t ext_stat) {
    return ext_stat == EXT_STATUS_OK || ext_stat == EXT_STATUS_DATA_OVERRUN ||
           ext_stat == EXT_STATUS_DATA_UNDERRUN || ext_stat == EXT_STATUS_SCSI_STATUS;
}

}  // namespace

bool vxapi_scsipt_data(void* req, uint32_t req_size, void* resp, uint32_t resp_size, uint8_t* direction,
                       void** data, uint32_t* len) {
    if (req && resp)
        return false;
    if (resp) {
        *direction = EXT_DEF_SCSI_DIR_IN;
        *data = resp;
        *len = resp_size;
    } else if (req) {
        *direction = EXT_DEF_SCSI_DIR_OUT;
        *data = req;
        *len = req_size;
    } else {
        *direction = EXT_DEF_SCSI_DIR_NONE;
        *data = nullptr;
        *len = 0;
    }
    return true;
}

int32_t vxapi_scsipt_run(const char* name, vxapi_scsipt_exec exec, int handle, vxapi_priv_database* inst,
                         const EXT_SCSI_ADDR* addr, const uint8_t* cdb, uint32_t cdb_len, void* req,
                         uint32_t req_size, void* resp, uint32_t* resp_size, uint8_t* sense, uint32_t* sense_size,
                         uint32_t* pext_stat, uint8_t* scsi_status) {
    uint32_t local = 0;
    uint32_t& ext_stat = status_word(pext_stat, local);
    uint8_t local_status = 0;
    uint8_t& status_byte = scsi_status ? *scsi_status : local_status;
    status_byte = 0;
    if (cdb_len == 0 || cdb_len > EXT_MAX_CDB_LEN || !cdb || !addr || !exec) {
        trace_named(ERR, name, ": invalid cdb length ", cdb_len, VXDBG_DEC);
        return 1;
    }
    uint32_t room = 0;
    if (sense && sense_size) {
        memset(sense, 0, *sense_size);
        room = *sense_size < EXT_MAX_SENSE_LEN ? *sense_size : static_cast<uint32_t>(EXT_MAX_SENSE_LEN);
    }
    EXT_SCSI_PASSTHRU pt;
    memset(&pt, 0, sizeof pt);
    pt.TargetAddr.Bus = addr->Bus;
    pt.TargetAddr.Target = addr->Target;
    pt.TargetAddr.Lun = addr->Lun;
    pt.CdbLength = static_cast<uint8_t>(cdb_len);
    pt.SenseLength = static_cast<uint16_t>(room);
    memcpy(pt.Cdb, cdb, cdb_len);

    uint32_t dstat = 0;
    const int32_t rc = exec(handle, inst, &pt, req, req_size, resp, resp_size ? *resp_size : 0, &ext_stat, &dstat);
    int32_t result = 0;
    if (rc != 0) {
        trace_named(ERR, name, ": ioctl failed. rc=", static_cast<uint32_t>(rc), VXDBG_INT);
        result = 1;
    } else if (!completed(ext_stat)) {
        trace_named(ERR, name, ": bad stat ", ext_stat, VXDBG_DEC);
        result = 1;
    } else if (ext_stat == EXT_STATUS_SCSI_STATUS) {
        status_byte = static_cast<uint8_t>(dstat & 0xFF);
    }
    if ((dstat & EXT_SCSI_STATUS_CHECK_CONDITION) && sense && sense_size) {
        const uint32_t n = pt.SenseLength < room ? pt.SenseLength : room;
        memcpy(sense, pt.SenseData, n);
        *sense_size = n;
        if (vxdbg_on(ERR)) {
            vxdbg_print(name, 0, VXDBG_NONE, 0);
            vxdbg_print(": Check Condition. DStatus=", dstat, VXDBG_HEX, 0);
            vxdbg_print(" Sense Length=", n, VXDBG_DEC, 1);
            vxdbg_dump(" Sense data:", sense, 8, n);
        }
    }
    return result;
}

// ---- Extended-ioctl side ----

namespace {

// One pass-through record of either form on an ioctl port, with the data
// buffer its direction names; the driver writes sense back into the record.
template <class Record>
int32_t send_record(const char* name, uint16_t subcode, int handle, vxapi_priv_database* inst, Record* pt, void* req,
                    uint32_t req_size, void* resp, uint32_t resp_size, uint32_t* pext_stat, uint32_t* pext_dstat) {
    void* data = nullptr;
    uint32_t len = 0;
    if (!vxapi_scsipt_data(req, req_size, resp, resp_size, &pt->Direction, &data, &len)) {
        trace_named(ERR, name, ": request and response buffers both given.", 0, VXDBG_NONE);
        return 1;
    }
    trace_named(TRC, name, ": entered. direction=", pt->Direction, VXDBG_DEC);
    return vxapi_send_ext_ioctl_inout(handle, inst, EXT_CC_SEND_SCSI_PASSTHRU, subcode, pt, sizeof *pt, data, len,
                                      pext_stat, pext_dstat);
}

}  // namespace

int32_t vxapi_send_scsipt_ioctl(int handle, vxapi_priv_database* inst, EXT_SCSI_PASSTHRU* pt, void* req,
                                uint32_t req_size, void* resp, uint32_t resp_size, uint32_t* pext_stat,
                                uint32_t* pext_dstat) {
    return send_record("vxapi_send_scsipt_ioctl", EXT_SC_SEND_SCSI_PASSTHRU, handle, inst, pt, req, req_size, resp,
                       resp_size, pext_stat, pext_dstat);
}

int32_t vxapi_send_scsipt_n(int handle, vxapi_priv_database* inst, const EXT_SCSI_ADDR* addr, const uint8_t* cdb,
                            uint32_t cdb_len, void* req, uint32_t req_size, void* resp, uint32_t* resp_size,
                            uint8_t* sense, uint32_t* sense_size, uint32_t* pext_stat, uint8_t* scsi_status) {
    return vxapi_scsipt_run("vxapi_send_scsipt_n", vxapi_send_scsipt_ioctl, handle, inst, addr, cdb, cdb_len, req,
                            req_size, resp, resp_size, sense, sense_size, pext_stat, scsi_status);
}

int32_t vxapi_send_scsipt_o(int handle, vxapi_priv_database* inst, const EXT_SCSI_ADDR* addr, const uint8_t* cdb,
                            uint32_t cdb_len, void* req, uint32_t req_size, void* resp, uint32_t* resp_size,
                            uint8_t* sense, uint32_t* sense_size, uint32_t* pext_stat, uint8_t* scsi_status) {
    return vxapi_scsipt_run("vxapi_send_scsipt_o", vxapi_send_scsipt_ioctl, handle, inst, addr, cdb, cdb_len, req,
                            req_size, resp, resp_size, sense, sense_size, pext_stat, scsi_status);
}

int32_t vxapi_ioctl_send_fc_scsipt(int handle, vxapi_priv_database* inst, EXT_FC_SCSI_PASSTHRU* pt, void* req,
                                   uint32_t req_size, void* resp, uint32_t resp_size, uint32_t* pext_stat,
                                   uint32_t* pext_dstat) {
    return send_record("vxapi_send_fc_scsipt", EXT_SC_SEND_FC_SCSI_PASSTHRU, handle, inst, pt, req, req_size, resp,
                       resp_size, pext_stat, pext_dstat);
}

int32_t vxapi_ioctl_send_ct_passthru(int handle, vxapi_priv_database* inst, const void* req, uint32_t req_size,
                                     void* resp, uint32_t resp_size, uint32_t* pext_stat) {
    vxdbg_num(TRC, "vxapi_send_ct_passthru: entered. size=", req_size, VXDBG_DEC, 1);
    // Cleared as the bsg side clears it: a short reply reads the same on both channels.
    memset(resp, 0, resp_size);
    return vxapi_send_ext_ioctl(handle, inst, EXT_CC_SEND_CT_PASSTHRU, EXT_SC_SEND_CT_PASSTHRU, 0, req, req_size,
                                resp, resp_size, pext_stat, nullptr);
}

int32_t vxapi_ioctl_send_els_passthru(int handle, vxapi_priv_database* inst, const void* req, uint32_t req_size,
                                      void* resp, uint32_t resp_size, uint32_t* pext_stat) {
    vxdbg_num(TRC, "vxapi_send_els_passthru: entered. size=", req_size, VXDBG_DEC, 1);
    memset(resp, 0, resp_size);
    return vxapi_send_ext_ioctl(handle, inst, EXT_CC_SEND_ELS_PASSTHRU, EXT_SC_SEND_ELS_PASSTHRU, 0, req,
                                req_size, resp, resp_size, pext_stat, nullptr);
}

// ---- Leaves: the common checks, then the port's channel ----

int32_t vxapi_send_scsipt(int handle, vxapi_priv_database* inst, const EXT_SCSI_ADDR* addr, const uint8_t* cdb,
                          uint32_t cdb_len, void* req, uint32_t req_size, void* resp, uint32_t* resp_size,
                          uint8_t* sense, uint32_t* sense_size, uint32_t* pext_stat, uint8_t* scsi_status) {
    if (!vxapi_leaf_ready("vxapi_send_scsipt", inst, addr && cdb, pext_stat))
        return 1;
    return inst->channel->send_scsipt(handle, inst, addr, cdb, cdb_len, req, req_size, resp, resp_size, sense,
                                      sense_size, pext_stat, scsi_status);
}

int32_t vxapi_send_fc_scsipt(int handle, vxapi_priv_database* inst, EXT_FC_SCSI_PASSTHRU* pt, void* req,
                             uint32_t req_size, void* resp, uint32_t resp_size, uint32_t* pext_stat,
                             uint32_t* pext_dstat) {
    if (pext_dstat)
        *pext_dstat = 0;
    if (!vxapi_leaf_ready("vxapi_send_fc_scsipt", inst, pt, pext_stat))
        return 1;
    return inst->channel->send_fc_scsipt(handle, inst, pt, req, req_size, resp, resp_size, pext_stat, pext_dstat);
}

int32_t vxapi_send_ct_passthru(int handle, vxapi_priv_database* inst, const void* req, uint32_t req_size,
                               void* resp, uint32_t resp_size, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_send_ct_passthru", inst, req && resp, pext_stat))
        return 1;
    // The fabric's services are reached only from a port logged in to a fabric.
    if (inst->state != 0 || (inst->topology != VX_TOPOLOGY_FL_PORT && inst->topology != VX_TOPOLOGY_F_PORT)) {
        if (pext_stat)
            *pext_stat = EXT_STATUS_ERR;
        if (vxdbg_on(ERR)) {
            vxdbg_print("vxapi_send_ct_passthru: disallowing CT-Passthru", 0, VXDBG_NONE, 0);
            vxdbg_print(". topology=", inst->topology, VXDBG_DEC, 0);
            vxdbg_print(" state=", inst->state, VXDBG_DEC, 1);
        }
        return 1;
    }
    return inst->channel->send_ct_passthru(handle, inst, req, req_size, resp, resp_size, pext_stat);
}

int32_t vxapi_send_els_passthru(int handle, vxapi_priv_database* inst, const void* req, uint32_t req_size,
                                void* resp, uint32_t resp_size, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_send_els_passthru", inst, req && resp, pext_stat))
        return 1;
    return inst->channel->send_els_passthru(handle, inst, req, req_size, resp, resp_size, pext_stat);
}
