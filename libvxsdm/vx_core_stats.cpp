// Leaf operations of statistics and asynchronous events: the dispatchers
// and the extended-ioctl side of each (one request each).
#include <cstring>

#include "exioct.h"
#include "vx_channel.h"
#include "vx_core.h"
#include "vx_sddbg.h"

namespace {

constexpr uint32_t TRC = VXDBG_TRACE;

}  // namespace

// ---- Extended-ioctl side ----

int32_t vxapi_ioctl_get_statistics(int handle, vxapi_priv_database* inst, EXT_HBA_PORT_STAT* stat,
                                   uint32_t* pext_stat, uint32_t* pext_dstat) {
    return vxapi_send_ext_traced("vxapi_get_statistics", handle, inst, EXT_CC_GET_DATA, EXT_SC_GET_STATISTICS, 0,
                                 nullptr, 0, stat, sizeof *stat, pext_stat, pext_dstat);
}

int32_t vxapi_ioctl_get_port_statistics(int handle, vxapi_priv_database* inst, const EXT_DEST_ADDR* dest,
                                        EXT_HBA_PORT_STAT* stat, uint32_t* pext_stat, uint32_t* pext_dstat) {
    return vxapi_send_ext_traced("vxapi_get_port_statistics", handle, inst, EXT_CC_GET_DATA, EXT_SC_GET_FC_STATISTICS,
                                 0, dest, sizeof *dest, stat, sizeof *stat, pext_stat, pext_dstat);
}

int32_t vxapi_ioctl_reset_stats(int handle, vxapi_priv_database* inst, uint32_t* pext_stat) {
    return vxapi_send_ext_traced("vxapi_reset_stats", handle, inst, EXT_CC_SET_DATA, EXT_SC_RESET_STATISTICS, 0,
                                 nullptr, 0, nullptr, 0, pext_stat, nullptr);
}

int32_t vxapi_ioctl_async_event_reg(int handle, vxapi_priv_database* inst, uint32_t enable, void* reserved,
                                    uint32_t* pext_stat) {
    (void)reserved;
    EXT_REG_AEN reg{};
    reg.Enable = enable ? 1 : 0;
    return vxapi_send_ext_traced("vxapi_async_event_reg", handle, inst, EXT_CC_REG_AEN, EXT_SC_REG_AEN, 0, &reg,
                                 sizeof reg, nullptr, 0, pext_stat, nullptr);
}

int32_t vxapi_ioctl_async_event_get(int handle, vxapi_priv_database* inst, EXT_ASYNC_EVENT* buf, uint32_t* plen,
                                    uint32_t* pext_stat) {
    const uint32_t room = *plen;
    vxapi_ext_answer answer{};
    const int32_t rc = vxapi_send_ext_traced("vxapi_async_event_get", handle, inst, EXT_CC_GET_AEN, EXT_SC_GET_AEN, 0,
                                             nullptr, 0, buf, room, pext_stat, nullptr, &answer);
    // The driver says how much it wrote; never more than the buffer holds.
    *plen = rc == 0 ? (answer.response_len < room ? answer.response_len : room) : 0;
    return rc;
}

// ---- Dispatchers ----

int32_t vxapi_get_statistics(int handle, vxapi_priv_database* inst, EXT_HBA_PORT_STAT* stat, uint32_t* pext_stat,
                             uint32_t* pext_dstat) {
    if (!vxapi_leaf_ready("vxapi_get_statistics", inst, stat, pext_stat))
        return 1;
    return inst->channel->get_statistics(handle, inst, stat, pext_stat, pext_dstat);
}

int32_t vxapi_get_port_statistics(int handle, vxapi_priv_database* inst, const EXT_DEST_ADDR* dest,
                                  EXT_HBA_PORT_STAT* stat, uint32_t* pext_stat, uint32_t* pext_dstat) {
    if (!vxapi_leaf_ready("vxapi_get_port_statistics", inst, dest && stat, pext_stat))
        return 1;
    return inst->channel->get_port_statistics(handle, inst, dest, stat, pext_stat, pext_dstat);
}

int32_t vxapi_reset_stats(int handle, vxapi_priv_database* inst, uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_reset_stats", inst, true, pext_stat))
        return 1;
    return inst->channel->reset_stats(handle, inst, pext_stat);
}

int32_t vxapi_async_event_reg(int handle, vxapi_priv_database* inst, uint32_t enable, void* reserved,
                              uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_async_event_reg", inst, true, pext_stat))
        return 1;
    const int32_t rc = inst->channel->async_event_reg(handle, inst, enable, reserved, pext_stat);
    // The flag records the caller's wish, whatever the driver answered.
    if (enable)
        vxapi_features_set(inst, VX_FEAT_EVENTS);
    else
        vxapi_features_clear(inst, VX_FEAT_EVENTS);
    if (vxdbg_on(TRC)) {
        vxdbg_print("vxapi_async_event_reg: host_no=", inst->host_no, VXDBG_DEC, 0);
        vxdbg_print(" enable=", enable, VXDBG_DEC, 0);
        vxdbg_print(" ret=", static_cast<uint32_t>(rc), VXDBG_INT, 1);
    }
    return rc;
}

int32_t vxapi_async_event_get(int handle, vxapi_priv_database* inst, EXT_ASYNC_EVENT* buf, uint32_t* plen,
                              uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_async_event_get", inst, buf && plen, pext_stat))
        return 1;
    const int32_t rc = inst->channel->async_event_get(handle, inst, buf, plen, pext_stat);
    if (!(vxapi_features(inst) & VX_FEAT_AEN_FETCHED))
        vxapi_features_set(inst, VX_FEAT_AEN_FETCHED);
    return rc;
}
