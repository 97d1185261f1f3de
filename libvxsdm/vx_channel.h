// Per-port channel tables: every leaf operation that the driver answers
// both through the extended ioctl and through sysfs has one slot here. A
// port record points at the table of its channel, so a leaf is a
// dispatcher and each channel's function is written once, with the leaf's
// own signature. Tests install tables of their own in port records.
#pragma once

#include <cstdint>

#include "exioct.h"
#include "exioctln.h"
#include "vx_core.h"

struct vxapi_channel_ops {
    const char* name;  // for traces: "ioctl", "ioctl (older)", "sysfs"
    int32_t (*query_hbanode)(int handle, vxapi_priv_database* inst, EXT_HBA_NODE* node, uint32_t* pext_stat);
    int32_t (*query_hbaport)(int handle, vxapi_priv_database* inst, EXT_HBA_PORT* port, uint32_t* pext_stat);
    int32_t (*query_chip)(int handle, vxapi_priv_database* inst, EXT_CHIP* chip, uint32_t* pext_stat);
    int32_t (*query_driver)(int handle, vxapi_priv_database* inst, EXT_DRIVER* drv, uint32_t* pext_stat);
    int32_t (*query_fw)(int handle, vxapi_priv_database* inst, EXT_FW* fw, uint32_t* pext_stat);
    int32_t (*query_cnaport)(int handle, vxapi_priv_database* inst, EXT_CNA_PORT* cna, uint32_t* pext_stat);
    int32_t (*query_discport)(int handle, vxapi_priv_database* inst, uint16_t index, EXT_DISC_PORT* port,
                              uint32_t* pext_stat);
    int32_t (*query_disctgt)(int handle, vxapi_priv_database* inst, uint16_t index, EXT_DISC_TARGET* tgt,
                             uint32_t* pext_stat);
    int32_t (*get_port_summary)(int handle, vxapi_priv_database* inst, uint32_t* type_mask, EXT_DEVICEDATA* data,
                                uint32_t size, uint32_t* pext_stat, uint32_t* pext_dstat);
    int32_t (*get_tgt_lun_data_list)(int handle, vxapi_priv_database* inst, TGT_LUN_DATA_LIST* list,
                                     uint32_t list_len, uint32_t* pext_stat);
    int32_t (*wwpn_to_scsiaddr)(int handle, vxapi_priv_database* inst, const uint8_t* wwpn, uint32_t wwpn_len,
                                EXT_SCSI_ADDR* addr, uint32_t* pext_stat);
    int32_t (*get_driver_specifics)(int handle, vxapi_priv_database* inst, EXT_LN_DRIVER_DATA* data,
                                    uint32_t* pext_stat);
    int32_t (*get_vpd)(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t buf_sz, uint32_t* pext_stat);
    int32_t (*get_dcbx_param)(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t size,
                              uint32_t* pext_stat);
    int32_t (*get_statistics)(int handle, vxapi_priv_database* inst, EXT_HBA_PORT_STAT* stat, uint32_t* pext_stat,
                              uint32_t* pext_dstat);
    int32_t (*get_port_statistics)(int handle, vxapi_priv_database* inst, const EXT_DEST_ADDR* dest,
                                   EXT_HBA_PORT_STAT* stat, uint32_t* pext_stat, uint32_t* pext_dstat);
    int32_t (*reset_stats)(int handle, vxapi_priv_database* inst, uint32_t* pext_stat);
    int32_t (*async_event_reg)(int handle, vxapi_priv_database* inst, uint32_t enable, void* reserved,
                               uint32_t* pext_stat);
    int32_t (*async_event_get)(int handle, vxapi_priv_database* inst, EXT_ASYNC_EVENT* buf, uint32_t* plen,
                               uint32_t* pext_stat);
};

extern const vxapi_channel_ops vxapi_ioctl_channel;    // newer record generation
extern const vxapi_channel_ops vxapi_ioctl_o_channel;  // older record generation
extern const vxapi_channel_ops vxapi_sysfs_channel;

// The table a port's features choose: 0x20 sysfs, else 0x02 the newer
// ioctl records, else the older ones. Called whenever those bits change.
void vxapi_set_channel(vxapi_priv_database* inst);

// ---- The extended-ioctl side of each slot (both generations) ----
// The send path picks the record generation from the port's features.
int32_t vxapi_ioctl_query_hbanode(int handle, vxapi_priv_database* inst, EXT_HBA_NODE* node, uint32_t* pext_stat);
int32_t vxapi_ioctl_query_hbaport(int handle, vxapi_priv_database* inst, EXT_HBA_PORT* port, uint32_t* pext_stat);
int32_t vxapi_ioctl_query_chip(int handle, vxapi_priv_database* inst, EXT_CHIP* chip, uint32_t* pext_stat);
int32_t vxapi_ioctl_query_driver(int handle, vxapi_priv_database* inst, EXT_DRIVER* drv, uint32_t* pext_stat);
int32_t vxapi_ioctl_query_fw(int handle, vxapi_priv_database* inst, EXT_FW* fw, uint32_t* pext_stat);
int32_t vxapi_ioctl_query_cnaport(int handle, vxapi_priv_database* inst, EXT_CNA_PORT* cna, uint32_t* pext_stat);
int32_t vxapi_ioctl_query_discport(int handle, vxapi_priv_database* inst, uint16_t index, EXT_DISC_PORT* port,
                                   uint32_t* pext_stat);
int32_t vxapi_ioctl_query_disctgt(int handle, vxapi_priv_database* inst, uint16_t index, EXT_DISC_TARGET* tgt,
                                  uint32_t* pext_stat);
int32_t vxapi_ioctl_get_port_summary(int handle, vxapi_priv_database* inst, uint32_t* type_mask,
                                     EXT_DEVICEDATA* data, uint32_t size, uint32_t* pext_stat,
                                     uint32_t* pext_dstat);
int32_t vxapi_ioctl_get_tgt_lun_data_list(int handle, vxapi_priv_database* inst, TGT_LUN_DATA_LIST* list,
                                          uint32_t list_len, uint32_t* pext_stat);
int32_t vxapi_ioctl_wwpn_to_scsiaddr(int handle, vxapi_priv_database* inst, const uint8_t* wwpn, uint32_t wwpn_len,
                                     EXT_SCSI_ADDR* addr, uint32_t* pext_stat);
int32_t vxapi_ioctl_get_driver_specifics(int handle, vxapi_priv_database* inst, EXT_LN_DRIVER_DATA* data,
                                         uint32_t* pext_stat);
int32_t vxapi_ioctl_get_vpd(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t buf_sz,
                            uint32_t* pext_stat);
int32_t vxapi_ioctl_get_dcbx_param(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t size,
                                   uint32_t* pext_stat);
int32_t vxapi_ioctl_get_statistics(int handle, vxapi_priv_database* inst, EXT_HBA_PORT_STAT* stat,
                                   uint32_t* pext_stat, uint32_t* pext_dstat);
int32_t vxapi_ioctl_get_port_statistics(int handle, vxapi_priv_database* inst, const EXT_DEST_ADDR* dest,
                                        EXT_HBA_PORT_STAT* stat, uint32_t* pext_stat, uint32_t* pext_dstat);
int32_t vxapi_ioctl_reset_stats(int handle, vxapi_priv_database* inst, uint32_t* pext_stat);
int32_t vxapi_ioctl_async_event_reg(int handle, vxapi_priv_database* inst, uint32_t enable, void* reserved,
                                    uint32_t* pext_stat);
int32_t vxapi_ioctl_async_event_get(int handle, vxapi_priv_database* inst, EXT_ASYNC_EVENT* buf, uint32_t* plen,
                                    uint32_t* pext_stat);

// The checks every leaf makes before it dispatches: a port with a channel
// and the pointers the call needs. On failure the extended status is 9 and
// the leaf returns 1, traced under the leaf's name.
bool vxapi_leaf_ready(const char* name, const vxapi_priv_database* inst, bool args_ok, uint32_t* pext_stat);
