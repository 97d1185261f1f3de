// Flash and VPD reads of the sysfs transport that the queries use.
#include "vx_sddbg.h"
#include "vx_sysfs.h"

namespace {

constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_SYSFS;

}  // namespace

int vxsysfs_read_flash_versions(int handle, vxapi_priv_database* inst, EXT_HBA_NODE* node,
                                uint32_t* pext_stat) {
    (void)handle;
    (void)inst;
    (void)node;
    // The image walk comes with the flash work: until then no versions are
    // found and the node keeps the versions read from its attributes.
    if (pext_stat)
        *pext_stat = EXT_STATUS_DEV_NOT_FOUND;
    vxdbg_line(ERR, "vxsysfs_read_flash_versions: no versions found.");
    return 1;
}

int vxsysfs_get_vpd(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t buf_sz, uint32_t* pext_stat) {
    (void)handle;
    uint32_t local = 0;
    pext_stat = pext_stat ? pext_stat : &local;
    *pext_stat = EXT_STATUS_DEV_NOT_FOUND;
    if (!inst || !buf)
        return 1;
    vxsysfs_path_t path;
    vxsysfs_path_append(path, vxsysfs_get_device_path(path, inst), "vpd");
    // A short answer is kept as far as it goes; only an attribute that
    // cannot be read at all fails.
    if (buf_sz != 0 && vxsysfs_read_file(path, buf, buf_sz) == buf_sz) {
        vxdbg_line(ERR, "vxsysfs_get_vpd: vpd read failed.");
        return 1;
    }
    *pext_stat = EXT_STATUS_OK;
    return 0;
}
