// NVRAM images: which layout a family keeps, the checksums of both layouts
// (the firmware refuses an image whose sum is not 0), and the leaves that
// read and write a port's image.
#include <iterator>

#include "vx_adapters.h"
#include "vx_channel.h"
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

uint32_t vxapi_nvram_region(uint16_t device_id, uint32_t pci_function) {
    if (!vx_adapter_has(device_id, VX_MARK_FLT))
        return 0;
    const bool odd = pci_function % 2 != 0;
    switch (vx_adapter_family(device_id)) {
    case vx_family::Tern:
    case vx_family::Ibis: return odd ? 0xAC : 0xAA;
    case vx_family::Crane: {
        static constexpr uint32_t crane[] = {0x15, 0x17, 0xD5, 0xD7};
        return pci_function < std::size(crane) ? crane[pci_function] : 0x15;
    }
    default: return odd ? 0x17 : 0x15;
    }
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

int32_t vxapi_ioctl_get_nvram(int handle, vxapi_priv_database* inst, uint8_t* buf, uint32_t buf_sz,
                              uint32_t* pext_stat) {
    return vxapi_send_ext_ioctl(handle, inst, EXT_CC_GET_NVRAM, 0, 0, nullptr, 0, buf, buf_sz, pext_stat, nullptr);
}

int32_t vxapi_ioctl_set_nvram(int handle, vxapi_priv_database* inst, const uint8_t* buf, uint32_t buf_sz,
                              uint32_t* pext_stat) {
    return vxapi_send_ext_ioctl(handle, inst, EXT_CC_SET_NVRAM, 0, 0, buf, buf_sz, nullptr, 0, pext_stat, nullptr);
}

int vxapi_get_nvram(int handle, vxapi_priv_database* inst, uint8_t* pnvr_buf, uint32_t nvr_buf_size,
                    uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_get_nvram", inst, pnvr_buf && nvr_buf_size, pext_stat))
        return 1;
    vxdbg_num(TRC, "vxapi_get_nvram: entered. size=", nvr_buf_size, VXDBG_DEC, 1);
    const int rc = inst->channel->get_nvram(handle, inst, pnvr_buf, nvr_buf_size, pext_stat);
    vxdbg_num(rc ? ERR : TRC, "vxapi_get_nvram: exiting. ret=", static_cast<uint32_t>(rc), VXDBG_INT, 1);
    return rc;
}

int vxapi_set_nvram(int handle, vxapi_priv_database* inst, const uint8_t* pnvr_buf, uint32_t nvr_buf_size,
                    uint32_t* pext_stat) {
    if (!vxapi_leaf_ready("vxapi_set_nvram", inst, pnvr_buf && nvr_buf_size, pext_stat))
        return 1;
    vxdbg_num(TRC, "vxapi_set_nvram: entered. size=", nvr_buf_size, VXDBG_DEC, 1);
    const int rc = inst->channel->set_nvram(handle, inst, pnvr_buf, nvr_buf_size, pext_stat);
    vxdbg_num(rc ? ERR : TRC, "vxapi_set_nvram: exiting. ret=", static_cast<uint32_t>(rc), VXDBG_INT, 1);
    return rc;
}
