// Flash on the sysfs transport: the fixed-table layout, the region look-up
// of the option-ROM requests, the flash reads the queries use, and the
// attributes that carry a port's NVRAM and VPD.
#include <cstring>

#include "vx_adapters.h"
#include "vx_core_flash.h"
#include "vx_sddbg.h"
#include "vx_sysfs.h"

namespace {

constexpr uint32_t TRC = VXDBG_SYSFS;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_SYSFS;

}  // namespace

int vxsysfs_get_optrom_layout(uint32_t handle, vxapi_priv_database* instance, uint8_t* buffer, uint32_t buffer_size,
                              uint32_t* pext_status) {
    (void)handle;
    uint32_t local = 0;
    uint32_t& ext_stat = pext_status ? *pext_status : local;
    vxdbg_line(TRC, "vxsysfs_get_optrom_layout: entered.");
    if (!instance || !instance->phy_info || !buffer) {
        ext_stat = EXT_STATUS_INVALID_PARAM;
        vxdbg_line(ERR, "vxsysfs_get_optrom_layout: invalid parameter.");
        return 1;
    }
    const vxapi_phy_info* phy = instance->phy_info;
    uint32_t needed = 0;
    const OPT_ROM_TABLE* table = vxapi_fixed_layout(phy->device_id, phy->ssvendor_id, phy->ssdevice_id, &needed);
    ext_stat = EXT_STATUS_BUFFER_TOO_SMALL;
    if (buffer_size < needed) {
        vxdbg_num(ERR, "vxsysfs_get_optrom_layout: buffer too small. needed=", needed, VXDBG_DEC, 1);
        return 0;
    }
    // Field by field (the caller's buffer is not cleared first, and may be
    // unaligned); `needed` covers the layout head and every row.
    uint32_t count = 0;
    for (const OPT_ROM_TABLE* row = table; row->Size != 0; ++row, ++count) {
        memcpy(buffer + offsetof(INT_OPT_ROM_LAYOUT, Region) + count * sizeof *row, row, sizeof *row);
        if ((row->Region & VX_REGION_CODE_MASK) == VX_REGION_WHOLE_FLASH)
            memcpy(buffer + offsetof(INT_OPT_ROM_LAYOUT, Size), &row->Size, sizeof row->Size);
    }
    memcpy(buffer + offsetof(INT_OPT_ROM_LAYOUT, NoOfRegions), &count, sizeof count);
    vxapi_publish_optrom_layout(buffer, buffer_size);
    ext_stat = EXT_STATUS_OK;
    vxdbg_num(TRC, "vxsysfs_get_optrom_layout: exiting. regions=", count, VXDBG_DEC, 1);
    return 0;
}

int vxsysfs_map_region(const vxapi_priv_database* instance, uint32_t region, uint32_t* offset, uint32_t* size) {
    if (!offset || !size)
        return 1;
    *offset = 0;
    *size = 0;
    const INT_OPT_ROM_LAYOUT* layout = pGlobalOptRomLayout;
    if (layout) {
        const uint32_t n = layout->NoOfRegions < VX_OPTROM_MAX_REGIONS ? layout->NoOfRegions : VX_OPTROM_MAX_REGIONS;
        for (uint32_t i = 0; i < n; ++i) {
            if ((layout->Region[i].Region & VX_REGION_CODE_MASK) == region) {
                *offset = layout->Region[i].Beg;
                *size = layout->Region[i].Size;
                return 0;
            }
        }
    }
    // The whole flash is known from the adapter table, before any layout
    // exists and in layout tables that carry no row for it.
    if (region == VX_REGION_WHOLE_FLASH && instance && instance->phy_info) {
        *size = vxapi_flash_size(instance->phy_info->device_id);
        if (*size != 0)
            return 0;
    }
    vxdbg_num(ERR, "vxsysfs_map_region: > Unknown region=", region, VXDBG_HEX, 1);
    return 1;
}

int vxsysfs_read_flash_versions(int handle, vxapi_priv_database* inst, EXT_HBA_NODE* node,
                                uint32_t* pext_stat) {
    // The flash reads go through the port's own channel: the same walk as
    // the ioctl ports' refresh.
    return vxapi_read_flash_versions(handle, inst, node, pext_stat);
}

namespace {

// One transfer of a whole image through a binary attribute of the port's
// host ("vpd", "nvram"), named `fn` in the traces.
int image_attr(const char* fn, const char* attr, vxapi_priv_database* inst, uint8_t* rbuf, const uint8_t* wbuf,
               uint32_t size, uint32_t* pext_stat) {
    uint32_t local = 0;
    uint32_t& ext_stat = pext_stat ? *pext_stat : local;
    ext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (!inst || !(rbuf || wbuf) || size == 0) {
        vxdbg_named(ERR, fn, ": invalid parameter.");
        return 1;
    }
    vxsysfs_path_t path;
    vxsysfs_path_append(path, vxsysfs_get_device_path(path, inst), attr);
    if (sysfs_path_is_file(path) != 0) {
        vxdbg_named(ERR, fn, ": > attribute missing");
        return 1;
    }
    ext_stat = EXT_STATUS_ERR;
    uint32_t missing = 0;
    if (rbuf) {
        // A short answer is kept as far as it goes; only an attribute that
        // gives nothing at all fails.
        missing = vxsysfs_read_file(path, rbuf, size);
        if (missing == size) {
            vxdbg_named(ERR, fn, ": > read failed");
            return 1;
        }
    } else {
        vxapi_sem_hold flash(api_flash_sem_id, VX_SEM_KEY_FLASH);
        missing = vxsysfs_write_file(path, wbuf, size);
        if (missing != 0) {
            vxdbg_named(ERR, fn, ": > write failed. residual=", missing, VXDBG_DEC);
            return 1;
        }
    }
    ext_stat = EXT_STATUS_OK;
    vxdbg_named(TRC, fn, ": exiting. size=", size - missing, VXDBG_DEC);
    return 0;
}

}  // namespace

int vxsysfs_get_vpd(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t buf_sz, uint32_t* pext_stat) {
    (void)handle;
    return image_attr("vxsysfs_get_vpd", "vpd", inst, buf, nullptr, buf_sz, pext_stat);
}

int vxsysfs_set_vpd(int handle, vxapi_priv_database* inst, const uint8_t* buf, uint32_t buf_sz,
                    uint32_t* pext_stat) {
    (void)handle;
    return image_attr("vxsysfs_set_vpd", "vpd", inst, nullptr, buf, buf_sz, pext_stat);
}

int vxsysfs_get_nvram(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t buf_sz, uint32_t* pext_stat) {
    (void)handle;
    return image_attr("vxsysfs_get_nvram", "nvram", inst, buf, nullptr, buf_sz, pext_stat);
}

int vxsysfs_set_nvram(int handle, vxapi_priv_database* inst, const uint8_t* buf, uint32_t buf_sz,
                      uint32_t* pext_stat) {
    (void)handle;
    return image_attr("vxsysfs_set_nvram", "nvram", inst, nullptr, buf, buf_sz, pext_stat);
}
