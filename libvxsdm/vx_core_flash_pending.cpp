// Stand-ins for the flash transports, which come with the per-port table of
// leaf operations. Until then every flash read fails as "not reached", so
// discovery finds no layout table and alignment falls back to the
// flash-part description's default, never to silent success.
#include "vx_core.h"
#include "vx_sddbg.h"

namespace {
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_TRACE;
}  // namespace

int vxapi_flash_read_at(int handle, vxapi_priv_database* inst, uint32_t offset, uint8_t* buf, uint32_t len,
                        uint32_t* pext_stat) {
    (void)handle;
    (void)inst;
    (void)buf;
    (void)len;
    if (pext_stat)
        *pext_stat = EXT_STATUS_DEV_NOT_FOUND;
    vxdbg_num(ERR, "vxapi_flash_read_at: no flash transport yet. offset=", offset, VXDBG_HEX, 1);
    return 1;
}

uint32_t vxapi_get_flash_sector_size(int handle, vxapi_priv_database* inst, uint32_t* pflash_sector_size) {
    (void)handle;
    (void)inst;
    (void)pflash_sector_size;
    vxdbg_line(ERR, "vxapi_get_flash_sector_size: no flash transport yet.");
    return 1;
}
