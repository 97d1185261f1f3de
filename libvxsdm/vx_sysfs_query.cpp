// sysfs twins of the leaf queries: driver records and VPD fields built from
// the host's attributes.
#include <cstdio>
#include <cstring>

#include "vx_sddbg.h"
#include "vx_sysfs.h"

namespace {

constexpr uint32_t TRC = VXDBG_TRACE | VXDBG_SYSFS;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_SYSFS;

constexpr uint32_t EXT_STATUS_NOT_REACHED = 9;

}  // namespace

int vxsysfs_query_driver(uint32_t handle, vxapi_priv_database* instance, _EXT_DRIVER* drv, uint32_t* pext_stat) {
    (void)handle;
    uint32_t local_stat = 0;
    uint32_t& ext_stat = pext_stat ? *pext_stat : local_stat;
    ext_stat = EXT_STATUS_NOT_REACHED;
    if (!instance || !drv) {
        vxdbg_line(ERR, "vxsysfs_query_driver: invalid parameter.");
        return 1;
    }
    vxdbg_num(TRC, "vxsysfs_query_driver: entered. host_no=", instance->host_no, VXDBG_DEC, 1);
    vxsysfs_path_t path;
    char* end = vxsysfs_get_scsi_host_path(path, static_cast<uint16_t>(instance->host_no));
    vxsysfs_path_append(path, end, "driver_version");
    vxsysfs_get_str_attr(path, reinterpret_cast<char*>(drv->Version), sizeof drv->Version);
    vxsysfs_path_append(path, end, "sg_tablesize");
    drv->MaxDataSegments = static_cast<uint32_t>(vxsysfs_get_int_attr(path));
    drv->LunsPerTarget = (instance->features & VX_FEAT_DRV_CAP4) ? 4096 : 256;
    drv->NumOfBus = 1;
    drv->TargetsPerBus = 512;
    drv->MaxTransferLen = 0xFFFFFFFF;
    ext_stat = 0;
    vxdbg_line(TRC, "vxsysfs_query_driver: exiting.");
    return 0;
}

int vxsysfs_get_driver_specifics(uint32_t handle, vxapi_priv_database* instance, _EXT_LN_DRIVER_DATA* pdata,
                                 uint32_t* pext_stat) {
    uint32_t local_stat = 0;
    uint32_t& ext_stat = pext_stat ? *pext_stat : local_stat;
    if (!pdata) {
        ext_stat = EXT_STATUS_NOT_REACHED;
        vxdbg_line(ERR, "vxsysfs_get_driver_specifics: invalid parameter.");
        return 1;
    }
    vxdbg_line(TRC, "vxsysfs_get_driver_specifics: entered.");
    memset(pdata, 0, sizeof *pdata);
    _EXT_DRIVER drv{};
    vxsysfs_query_driver(handle, instance, &drv, &ext_stat);
    if (ext_stat != 0) {
        vxdbg_num(ERR, "vxsysfs_get_driver_specifics: query driver failed. stat=", ext_stat, VXDBG_DEC, 1);
        return 0;
    }
    // Up to two digits each: "10.02.09.200-k" gives 10, 2, 9; a "b" after
    // the patch number carries the beta number.
    signed char major = 0, minor = 0, patch = 0, beta = 0;
    sscanf(reinterpret_cast<const char*>(drv.Version), "%2hhd . %2hhd . %2hhd b %2hhd", &major, &minor, &patch,
           &beta);
    pdata->DrvVer.Major = static_cast<uint8_t>(major);
    pdata->DrvVer.Minor = static_cast<uint8_t>(minor);
    pdata->DrvVer.Patch = static_cast<uint8_t>(patch);
    pdata->DrvVer.Beta = static_cast<uint8_t>(beta);
    pdata->Flags |= EXT_DRIVER_FLAG_CAP4;
    vxdbg_line(TRC, "vxsysfs_get_driver_specifics: exiting.");
    return 0;
}

int vxsysfs_get_field_from_vpd(vxapi_priv_database* instance, const char* key, int mode, uint8_t* dst,
                               uint32_t dst_len) {
    if (!dst)
        return 1;
    memset(dst, 0, dst_len);
    if (!instance || !key) {
        vxdbg_line(ERR, "vxsysfs_get_field_from_vpd: invalid parameter.");
        return 1;
    }
    vxdbg_text(TRC, "vxsysfs_get_field_from_vpd: entered. key=");
    vxdbg_line(TRC, key);
    const uint32_t size = vxapi_get_vpd_size(instance->phy_info ? instance->phy_info->device_id : 0);
    uint8_t vpd[VX_VPD_SIZE_LARGE] = {};
    vxsysfs_path_t path;
    vxsysfs_path_append(path, vxsysfs_get_device_path(path, instance), "vpd");
    // A short answer is walked as far as it goes (the rest reads as zeros).
    if (vxsysfs_read_file(path, vpd, size) == size) {
        vxdbg_line(ERR, "vxsysfs_get_field_from_vpd: vpd read failed.");
        return 1;
    }
    const int result = vxapi_get_field_from_vpd(vpd, key, mode, dst, dst_len);
    vxdbg_num(TRC, "vxsysfs_get_field_from_vpd: exiting. ret=", static_cast<uint64_t>(result), VXDBG_DEC, 1);
    return result;
}
