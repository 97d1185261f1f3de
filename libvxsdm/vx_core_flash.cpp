// Flash: option ROM layout and the image-version and update-capability
// queries that discovery calls for each adapter.
#include "vx_core.h"
#include "vx_sddbg.h"

namespace {

constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_TRACE;

constexpr uint32_t EXT_STATUS_NOT_REACHED = 9;
constexpr uint32_t EXT_STATUS_UNSUPPORTED = 20;

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
    set_status(pext_stat, EXT_STATUS_NOT_REACHED);
    vxdbg_line(ERR, "vxapi_query_adapter_versions: no versions found.");
    return 1;
}

int vxapi_get_flash_mpi_edc_versions(uint32_t handle, vxapi_priv_database* inst, uint32_t* pext_stat) {
    (void)handle;
    (void)inst;
    // The full operation comes with the flash work: no versions found yet.
    set_status(pext_stat, EXT_STATUS_NOT_REACHED);
    vxdbg_line(ERR, "vxapi_get_flash_mpi_edc_versions: no versions found.");
    return 1;
}

int vxapi_get_nic_bootcode_version(uint32_t handle, vxapi_priv_database* inst, uint32_t* pext_stat) {
    (void)handle;
    (void)inst;
    // The full operation comes with the flash work: no versions found yet.
    set_status(pext_stat, EXT_STATUS_NOT_REACHED);
    vxdbg_line(ERR, "vxapi_get_nic_bootcode_version: no versions found.");
    return 1;
}

int vxapi_get_active_image_set(uint32_t handle, vxapi_priv_database* inst, uint32_t* pext_stat) {
    (void)handle;
    (void)inst;
    // The full operation comes with the flash work: no image set found yet.
    set_status(pext_stat, EXT_STATUS_NOT_REACHED);
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
    set_status(pext_stat, EXT_STATUS_UNSUPPORTED);
    vxdbg_line(ERR, "vxapi_flash_update_capabilities: driver lacks the request.");
    return 1;
}
