// Flash: option ROM layout and the image-version and update-capability
// queries that discovery calls for each adapter.
#include "vx_adapters.h"
#include "vx_core.h"
#include "vx_sddbg.h"

namespace {

constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_TRACE;

void set_status(uint32_t* pext_stat, uint32_t status) {
    if (pext_stat)
        *pext_stat = status;
}

}  // namespace

int vxapi_set_option_rom_layout(uint32_t handle, vxapi_priv_database* inst) {
    (void)handle;
    (void)inst;
    // The full operation comes with the flash work: until then no FLT is read.
    vxdbg_line(ERR, "vxapi_set_option_rom_layout: flt address read failed.");
    return 1;
}

int vxapi_query_adapter_versions(uint32_t handle, vxapi_priv_database* inst, uint32_t* pext_stat) {
    (void)handle;
    (void)inst;
    // The full operation comes with the flash work: no versions found yet.
    set_status(pext_stat, EXT_STATUS_DEV_NOT_FOUND);
    vxdbg_line(ERR, "vxapi_query_adapter_versions: no versions found.");
    return 1;
}

int vxapi_get_flash_mpi_edc_versions(uint32_t handle, vxapi_priv_database* inst, uint32_t* pext_stat) {
    (void)handle;
    (void)inst;
    // The full operation comes with the flash work: no versions found yet.
    set_status(pext_stat, EXT_STATUS_DEV_NOT_FOUND);
    vxdbg_line(ERR, "vxapi_get_flash_mpi_edc_versions: no versions found.");
    return 1;
}

int vxapi_get_nic_bootcode_version(uint32_t handle, vxapi_priv_database* inst, uint32_t* pext_stat) {
    (void)handle;
    (void)inst;
    // The full operation comes with the flash work: no versions found yet.
    set_status(pext_stat, EXT_STATUS_DEV_NOT_FOUND);
    vxdbg_line(ERR, "vxapi_get_nic_bootcode_version: no versions found.");
    return 1;
}

int vxapi_get_active_image_set(uint32_t handle, vxapi_priv_database* inst, uint32_t* pext_stat) {
    (void)handle;
    (void)inst;
    // The full operation comes with the flash work: no image set found yet.
    set_status(pext_stat, EXT_STATUS_DEV_NOT_FOUND);
    vxdbg_line(ERR, "vxapi_get_active_image_set: no image set found.");
    return 1;
}

int vxapi_flash_update_capabilities(uint32_t handle, vxapi_priv_database* inst, uint8_t* caps, uint32_t caps_len,
                                    uint8_t set, uint32_t* pext_stat) {
    (void)handle;
    (void)inst;
    (void)caps;
    (void)caps_len;
    (void)set;
    // The full operation comes with the flash work: the request cannot be made yet.
    set_status(pext_stat, EXT_STATUS_INVALID_REQUEST);
    vxdbg_line(ERR, "vxapi_flash_update_capabilities: driver lacks the request.");
    return 1;
}

int vxapi_read_flash_versions(int handle, vxapi_priv_database* inst, EXT_HBA_NODE* node, uint32_t* pext_stat) {
    (void)handle;
    (void)inst;
    (void)node;
    // The full operation comes with the flash work: no versions found yet,
    // the node keeps the driver's.
    set_status(pext_stat, EXT_STATUS_DEV_NOT_FOUND);
    vxdbg_line(ERR, "vxapi_read_flash_versions: no versions found.");
    return 1;
}

int vxapi_get_flash_mpi_pep_versions(uint32_t handle, vxapi_priv_database* inst, uint8_t* mpi_ver, uint8_t* pep_ver) {
    (void)handle;
    (void)inst;
    (void)mpi_ver;
    (void)pep_ver;
    // The full operation comes with the flash work: no versions found yet.
    vxdbg_line(ERR, "vxapi_get_flash_mpi_pep_versions: no versions found.");
    return 1;
}

// Stands in for the option ROM layout query until the flash work brings it:
// a layout table family whose table was not read at discovery has no layout.
bool vxapi_option_rom_layout_ready(const vxapi_priv_database* inst) {
    const vxapi_phy_info* phy = inst ? inst->phy_info : nullptr;
    if (phy && vx_adapter_has(phy->device_id, VX_MARK_FLT) && vx_adapter_family(phy->device_id) != vx_family::Kite &&
        !phy->pflt_layout) {
        vxdbg_line(ERR, "vxapi_option_rom_layout_ready: no layout.");
        return false;
    }
    return true;
}

int vxapi_copy_fcoe_versions(vxapi_priv_database* inst, uint8_t* buf, uint32_t size) {
    (void)inst;
    // The versions come with the flash work; until then the list is empty.
    if (!buf || size < 8)
        return 1;
    buf[0] = buf[1] = buf[2] = buf[3] = 0;
    return 0;
}
