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
    // Flash: `region` is a region code or VX_REGION_RAW (offset and size are flash addresses).
    int32_t (*read_optrom)(int handle, vxapi_priv_database* inst, uint8_t* poptrom, uint32_t optrom_size,
                           uint32_t region, uint32_t offset, uint32_t* pext_stat);
    int32_t (*update_optrom)(int handle, vxapi_priv_database* inst, uint8_t* poptrom, uint32_t optrom_size,
                             uint32_t region, uint32_t offset, uint32_t* pext_stat);
    int32_t (*activate_region)(int handle, vxapi_priv_database* inst, uint32_t reset_code, uint32_t* pext_stat);
    uint32_t (*get_flash_sector_size)(int handle, vxapi_priv_database* inst, uint32_t* psize);
    int32_t (*flash_update_caps)(int handle, vxapi_priv_database* inst, uint8_t* caps, uint32_t caps_len,
                                 uint8_t set, uint32_t* pext_stat);
    int32_t (*query_adapter_versions)(int handle, vxapi_priv_database* inst, EXT_ADAPTER_VERSIONS* ver,
                                      uint32_t* pext_stat);
    int32_t (*get_active_image_set)(int handle, vxapi_priv_database* inst, uint32_t* image, uint32_t* pext_stat);
    // The port's NVRAM image and VPD as the driver keeps them, `size` bytes.
    int32_t (*get_nvram)(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t buf_sz, uint32_t* pext_stat);
    int32_t (*set_nvram)(int handle, vxapi_priv_database* inst, const uint8_t* buf, uint32_t buf_sz,
                         uint32_t* pext_stat);
    int32_t (*set_vpd)(int handle, vxapi_priv_database* inst, const uint8_t* buf, uint32_t buf_sz,
                       uint32_t* pext_stat);
    // Pass-through: the newer and older ioctl tables differ here only in
    // the name their traces carry (vxapi_send_scsipt_n / _o).
    int32_t (*send_scsipt)(int handle, vxapi_priv_database* inst, const EXT_SCSI_ADDR* addr, const uint8_t* cdb,
                           uint32_t cdb_len, void* req, uint32_t req_size, void* resp, uint32_t* resp_size,
                           uint8_t* sense, uint32_t* sense_size, uint32_t* pext_stat, uint8_t* scsi_status);
    int32_t (*send_fc_scsipt)(int handle, vxapi_priv_database* inst, EXT_FC_SCSI_PASSTHRU* pt, void* req,
                              uint32_t req_size, void* resp, uint32_t resp_size, uint32_t* pext_stat,
                              uint32_t* pext_dstat);
    int32_t (*send_ct_passthru)(int handle, vxapi_priv_database* inst, const void* req, uint32_t req_size,
                                void* resp, uint32_t resp_size, uint32_t* pext_stat);
    int32_t (*send_els_passthru)(int handle, vxapi_priv_database* inst, const void* req, uint32_t req_size,
                                 void* resp, uint32_t resp_size, uint32_t* pext_stat);
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
int32_t vxapi_ioctl_read_optrom(int handle, vxapi_priv_database* inst, uint8_t* poptrom, uint32_t optrom_size,
                                uint32_t region, uint32_t offset, uint32_t* pext_stat);
int32_t vxapi_ioctl_update_optrom(int handle, vxapi_priv_database* inst, uint8_t* poptrom, uint32_t optrom_size,
                                  uint32_t region, uint32_t offset, uint32_t* pext_stat);
int32_t vxapi_ioctl_activate_region(int handle, vxapi_priv_database* inst, uint32_t reset_code, uint32_t* pext_stat);
uint32_t vxapi_ioctl_get_flash_sector_size(int handle, vxapi_priv_database* inst, uint32_t* psize);
int32_t vxapi_ioctl_flash_update_caps(int handle, vxapi_priv_database* inst, uint8_t* caps, uint32_t caps_len,
                                      uint8_t set, uint32_t* pext_stat);
int32_t vxapi_ioctl_query_adapter_versions(int handle, vxapi_priv_database* inst, EXT_ADAPTER_VERSIONS* ver,
                                           uint32_t* pext_stat);
int32_t vxapi_ioctl_get_active_image_set(int handle, vxapi_priv_database* inst, uint32_t* image,
                                         uint32_t* pext_stat);
int32_t vxapi_ioctl_get_nvram(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t buf_sz,
                              uint32_t* pext_stat);
int32_t vxapi_ioctl_set_nvram(int handle, vxapi_priv_database* inst, const uint8_t* buf, uint32_t buf_sz,
                              uint32_t* pext_stat);
int32_t vxapi_ioctl_set_vpd(int handle, vxapi_priv_database* inst, const uint8_t* buf, uint32_t buf_sz,
                            uint32_t* pext_stat);
int32_t vxapi_send_scsipt_n(int handle, vxapi_priv_database* inst, const EXT_SCSI_ADDR* addr, const uint8_t* cdb,
                            uint32_t cdb_len, void* req, uint32_t req_size, void* resp, uint32_t* resp_size,
                            uint8_t* sense, uint32_t* sense_size, uint32_t* pext_stat, uint8_t* scsi_status);
int32_t vxapi_send_scsipt_o(int handle, vxapi_priv_database* inst, const EXT_SCSI_ADDR* addr, const uint8_t* cdb,
                            uint32_t cdb_len, void* req, uint32_t req_size, void* resp, uint32_t* resp_size,
                            uint8_t* sense, uint32_t* sense_size, uint32_t* pext_stat, uint8_t* scsi_status);
int32_t vxapi_ioctl_send_fc_scsipt(int handle, vxapi_priv_database* inst, EXT_FC_SCSI_PASSTHRU* pt, void* req,
                                   uint32_t req_size, void* resp, uint32_t resp_size, uint32_t* pext_stat,
                                   uint32_t* pext_dstat);
int32_t vxapi_ioctl_send_ct_passthru(int handle, vxapi_priv_database* inst, const void* req, uint32_t req_size,
                                     void* resp, uint32_t resp_size, uint32_t* pext_stat);
int32_t vxapi_ioctl_send_els_passthru(int handle, vxapi_priv_database* inst, const void* req, uint32_t req_size,
                                      void* resp, uint32_t resp_size, uint32_t* pext_stat);

// One SCSI pass-through record on its way to a target: the executor fills
// in Direction, moves the data and hands back the driver's status and
// detail, and writes SenseLength and SenseData into the record as the
// driver does. vxapi_send_scsipt_ioctl is the ioctl channel's executor,
// vxsysfs_scsipt_sg the sysfs channel's.
using vxapi_scsipt_exec = int32_t (*)(int handle, vxapi_priv_database* inst, EXT_SCSI_PASSTHRU* pt, void* req,
                                      uint32_t req_size, void* resp, uint32_t resp_size, uint32_t* pext_stat,
                                      uint32_t* pext_dstat);
int32_t vxapi_send_scsipt_ioctl(int handle, vxapi_priv_database* inst, EXT_SCSI_PASSTHRU* pt, void* req,
                                uint32_t req_size, void* resp, uint32_t resp_size, uint32_t* pext_stat,
                                uint32_t* pext_dstat);
// The steps around the executor that every channel shares: the CDB length
// check, the caller's sense cleared, the record built, the driver status
// judged, and on a check condition the sense copied back. `name` is the
// leaf's for its traces.
int32_t vxapi_scsipt_run(const char* name, vxapi_scsipt_exec exec, int handle, vxapi_priv_database* inst,
                         const EXT_SCSI_ADDR* addr, const uint8_t* cdb, uint32_t cdb_len, void* req,
                         uint32_t req_size, void* resp, uint32_t* resp_size, uint8_t* sense, uint32_t* sense_size,
                         uint32_t* pext_stat, uint8_t* scsi_status);
// Which way the data of a pass-through goes: neither buffer given, no data;
// the response buffer alone, data in; the request buffer alone, data out.
// False when both are given (a pass-through never moves data both ways).
bool vxapi_scsipt_data(void* req, uint32_t req_size, void* resp, uint32_t resp_size, uint8_t* direction,
                       void** data, uint32_t* len);

// The checks every leaf makes before it dispatches: a port with a channel
// and the pointers the call needs. On failure the extended status is 9 and
// the leaf returns 1, traced under the leaf's name.
bool vxapi_leaf_ready(const char* name, const vxapi_priv_database* inst, bool args_ok, uint32_t* pext_stat);
