// The flash layout table, its locator and the flash-part description as the
// adapter's flash holds them: no length or address in them may make the
// parsers look outside the bytes read, or report more regions than fit.
#include <cstdint>
#include <cstdlib>

#include "vx_core_flash.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 0x100000)
        return 0;
    const auto len = static_cast<uint32_t>(size);
    INT_OPT_ROM_LAYOUT layout{};
    if (vxapi_parse_flt(data, len, &layout) == 0 &&
        (layout.NoOfRegions > VX_OPTROM_MAX_REGIONS || 8 + layout.NoOfRegions * VX_FLT_ENTRY_SIZE > len))
        abort();
    uint32_t address = 0;
    vxapi_parse_flt_locator(data, len, &address);
    uint32_t block = 0;
    vxapi_parse_fdt(data, len, &block);
    return 0;
}
