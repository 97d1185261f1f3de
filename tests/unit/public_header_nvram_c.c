/* The NVRAM variables header must stand alone and stay plain C: compiled as
 * C11 with the test build's warnings. */
#include "vsdnvram.h"

SD_UINT32 vx_c_nvram_header_probe(nvram_swift* nvram);

SD_UINT32 vx_c_nvram_header_probe(nvram_swift* nvram) {
    EnumNVRAMVar var = NVRAMVarCheckSum;
    return VXSDNVR_GetVariableValue_swift(nvram, (SD_UINT32)var) + (SD_UINT32)sizeof *nvram;
}
