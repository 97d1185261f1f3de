// The token table as another process (or an older library) may have left it
// in the shared file: every rule walks it without reading past a slot.
#include <cstdint>
#include <cstring>

#include "vx_core.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 12)
        return 0;
    int64_t now = 0;
    int32_t pid = 0;
    memcpy(&now, data, sizeof now);
    memcpy(&pid, data + 8, sizeof pid);
    data += 12;
    size -= 12;
    vxapi_flash_update_token fut[VX_FLASH_TOKENS];
    memset(fut, 0, sizeof fut);
    memcpy(fut, data, size < sizeof fut ? size : sizeof fut);
    // The identity: the first slot's bytes, as a text that may fill its field.
    char id[VX_FUT_ID_LEN] = {};
    memcpy(id, fut[0].serial_num, sizeof id - 1);
    vxapi_fut_table_live(fut, id, now);
    vxapi_fut_table_expired(fut, id, now);
    vxapi_fut_table_clear(fut, id, pid);
    if (now < INT64_MAX - VX_FUT_LIFETIME && vxapi_fut_table_take(fut, id, pid, now) >= 0 &&
        vxapi_fut_table_live(fut, id, now) < 0 && pid != 0)
        __builtin_trap();  // a token just taken must be live
    return 0;
}
