// NVRAM images: which layout a family keeps, and the checksums of both
// layouts (the firmware refuses an image whose sum is not 0).
#include "vx_adapters.h"
#include "vx_core.h"
#include "vx_sddbg.h"

namespace {

constexpr uint32_t TRC = VXDBG_TRACE;
constexpr uint32_t ERR = VXDBG_ERROR | VXDBG_TRACE;

uint32_t le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

// Sum of the checksum units (32-bit little-endian words of the 512-byte
// layout, bytes of the 256-byte one) before the last one, and where that
// last unit lies. False when the image cannot hold one unit.
bool sum_before_checksum(const uint8_t* nvram, uint32_t size, bool swift, uint32_t* sum, uint32_t* at) {
    const uint32_t unit = swift ? 4 : 1;
    if (!nvram || size < unit)
        return false;
    *at = (size / unit - 1) * unit;
    uint32_t total = 0;
    for (uint32_t i = 0; i < *at; i += unit)
        total += swift ? le32(nvram + i) : nvram[i];
    *sum = swift ? total : total & 0xFF;
    return true;
}

}  // namespace

bool vxapi_nvram_is_swift(uint16_t device_id) {
    return vx_adapter_family(device_id) == vx_family::Swift || vx_adapter_has(device_id, VX_MARK_FLT);
}

uint32_t vxapi_nvram_size(uint16_t device_id) {
    return vxapi_nvram_is_swift(device_id) ? VX_NVRAM_SWIFT_SIZE : VX_NVRAM_SIZE;
}

int vxapi_nvram_set_checksum(uint8_t* nvram, uint32_t size, bool swift) {
    uint32_t sum = 0, at = 0;
    if (!sum_before_checksum(nvram, size, swift, &sum, &at)) {
        vxdbg_num(ERR, "vxapi_nvram_set_checksum: image too small. size=", size, VXDBG_DEC, 1);
        return 1;
    }
    const uint32_t checksum = 0u - sum;
    nvram[at] = static_cast<uint8_t>(checksum);
    if (swift) {
        nvram[at + 1] = static_cast<uint8_t>(checksum >> 8);
        nvram[at + 2] = static_cast<uint8_t>(checksum >> 16);
        nvram[at + 3] = static_cast<uint8_t>(checksum >> 24);
    }
    vxdbg_num(TRC, "vxapi_nvram_set_checksum: checksum=", swift ? checksum : checksum & 0xFF, VXDBG_HEX, 1);
    return 0;
}

int vxapi_nvram_verify_checksum(const uint8_t* nvram, uint32_t size, bool swift) {
    uint32_t sum = 0, at = 0;
    if (!sum_before_checksum(nvram, size, swift, &sum, &at)) {
        vxdbg_num(ERR, "vxapi_nvram_verify_checksum: image too small. size=", size, VXDBG_DEC, 1);
        return 1;
    }
    const uint32_t total = swift ? sum + le32(nvram + at) : (sum + nvram[at]) & 0xFF;
    if (total != 0) {
        vxdbg_num(ERR, "vxapi_nvram_verify_checksum: bad checksum. sum=", total, VXDBG_HEX, 1);
        return 1;
    }
    return 0;
}
