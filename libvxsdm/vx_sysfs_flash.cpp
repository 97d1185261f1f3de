// Flash reads of the sysfs transport that the queries use.
#include "vx_sddbg.h"
#include "vx_sysfs.h"

namespace {

constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_SYSFS;
constexpr uint32_t EXT_STATUS_NOT_REACHED = 9;

}  // namespace

int vxsysfs_read_flash_versions(uint32_t handle, vxapi_priv_database* instance, EXT_HBA_NODE* node,
                                uint32_t* pext_stat) {
    (void)handle;
    (void)instance;
    (void)node;
    // The image walk comes with the flash work: until then no versions are
    // found and the node keeps the versions read from its attributes.
    if (pext_stat)
        *pext_stat = EXT_STATUS_NOT_REACHED;
    vxdbg_line(ERR, "vxsysfs_read_flash_versions: no versions found.");
    return 1;
}
