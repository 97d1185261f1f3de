// The three channel tables and the choice among them.
#include "vx_channel.h"
#include "vx_sddbg.h"
#include "vx_sysfs.h"

// Both ioctl generations share their functions: the send path frames the
// record generation the port's features name. The SCSI pass-through alone
// has one function per generation.
#define VX_IOCTL_SLOTS                                                                                         \
    vxapi_ioctl_query_hbanode, vxapi_ioctl_query_hbaport, vxapi_ioctl_query_chip, vxapi_ioctl_query_driver,     \
        vxapi_ioctl_query_fw, vxapi_ioctl_query_cnaport, vxapi_ioctl_query_discport, vxapi_ioctl_query_disctgt, \
        vxapi_ioctl_get_port_summary, vxapi_ioctl_get_tgt_lun_data_list, vxapi_ioctl_wwpn_to_scsiaddr,         \
        vxapi_ioctl_get_driver_specifics, vxapi_ioctl_get_vpd, vxapi_ioctl_get_dcbx_param,                    \
        vxapi_ioctl_read_optrom, vxapi_ioctl_update_optrom, vxapi_ioctl_activate_region,                      \
        vxapi_ioctl_get_flash_sector_size, vxapi_ioctl_flash_update_caps, vxapi_ioctl_query_adapter_versions, \
        vxapi_ioctl_get_active_image_set, vxapi_ioctl_get_nvram, vxapi_ioctl_set_nvram, vxapi_ioctl_set_vpd
#define VX_IOCTL_PT_SLOTS \
    vxapi_ioctl_send_fc_scsipt, vxapi_ioctl_send_ct_passthru, vxapi_ioctl_send_els_passthru

const vxapi_channel_ops vxapi_ioctl_channel = {"ioctl", VX_IOCTL_SLOTS, vxapi_send_scsipt_n, VX_IOCTL_PT_SLOTS};
const vxapi_channel_ops vxapi_ioctl_o_channel = {"ioctl (older)", VX_IOCTL_SLOTS, vxapi_send_scsipt_o,
                                                 VX_IOCTL_PT_SLOTS};
#undef VX_IOCTL_SLOTS
#undef VX_IOCTL_PT_SLOTS

const vxapi_channel_ops vxapi_sysfs_channel = {
    "sysfs",
    vxsysfs_query_hbanode,
    vxsysfs_query_hbaport,
    vxsysfs_query_chip,
    vxsysfs_query_driver,
    vxsysfs_query_fw,
    vxsysfs_query_cnaport,
    vxsysfs_query_discport,
    vxsysfs_query_disctgt,
    vxsysfs_get_port_summary,
    vxsysfs_get_tgt_lun_data_list,
    vxsysfs_wwpn_to_scsiaddr,
    vxsysfs_get_driver_specifics,
    vxsysfs_get_vpd,
    vxsysfs_get_dcbx_param,
    vxsysfs_read_optrom,
    vxsysfs_update_optrom,
    vxsysfs_activate_region,
    vxsysfs_get_flash_sector_size,
    vxsysfs_flash_update_capabilities,
    vxsysfs_query_adapter_versions,
    vxsysfs_get_active_image_set,
    vxsysfs_get_nvram,
    vxsysfs_set_nvram,
    vxsysfs_set_vpd,
    vxsysfs_send_scsipt,
    vxsysfs_send_fc_scsipt,
    vxsysfs_send_ct_passthru,
    vxsysfs_send_els_passthru,
};

void vxapi_set_channel(vxapi_priv_database* inst) {
    if (!inst)
        return;
    if (inst->features & VX_FEAT_SYSFS)
        inst->channel = &vxapi_sysfs_channel;
    else if (inst->features & VX_FEAT_NEW_IOCTL)
        inst->channel = &vxapi_ioctl_channel;
    else
        inst->channel = &vxapi_ioctl_o_channel;
    if (vxdbg_on(VXDBG_TRACE)) {
        vxdbg_print("vxapi_set_channel: features=", inst->features, VXDBG_HEX, 0);
        vxdbg_print(" channel=", 0, VXDBG_NONE, 0);
        vxdbg_print(inst->channel->name, 0, VXDBG_NONE, 1);
    }
}
